// Writes the simulated camera's micro-code files into a directory:
//   atlinit.btm  initialisation blocks for the card's transputer, ended by a zero word
//   install.btl  the boot stream of the controller's transputer
//   procinit, camera.r2h  program files installed into the running controller
// The contents are code-shaped filler from a fixed seed: the same files come out every time, so
// the committed copies can be checked against a fresh run.
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "sim/ucode.h"

namespace ucode = tvx::sim::ucode;

namespace {

struct Filler {
  uint32_t state;
  uint32_t next() {
    state = state * 1664525u + 1013904223u;
    return state >> 8;
  }
};

uint32_t seed_of(const std::string &name) {
  return ucode::fnv1a(reinterpret_cast<const uint8_t *>(name.data()), name.size());
}

void put16(std::vector<uint8_t> &out, uint16_t word) {
  out.push_back(static_cast<uint8_t>(word & 0xFF));
  out.push_back(static_cast<uint8_t>(word >> 8));
}

void put32(std::vector<uint8_t> &out, uint32_t value) {
  put16(out, static_cast<uint16_t>(value & 0xFFFF));
  put16(out, static_cast<uint16_t>(value >> 16));
}

void add_block(std::vector<uint8_t> &out, uint16_t sequence, ucode::Op op, size_t length) {
  std::vector<uint16_t> words = {ucode::kBlockMagic, ucode::kVersion, static_cast<uint16_t>(length),
                                 sequence, static_cast<uint16_t>(op)};
  Filler filler{seed_of("atlinit") + sequence};
  while (words.size() < length - 1) words.push_back(static_cast<uint16_t>(filler.next()));
  words.push_back(ucode::check_word(words.data(), words.size()));
  put16(out, static_cast<uint16_t>(length));
  for (uint16_t w : words) put16(out, w);
}

std::vector<uint8_t> atlinit() {
  std::vector<uint8_t> out;
  add_block(out, 1, ucode::Op::memory_test, 30);
  add_block(out, 2, ucode::Op::link_setup, 18);
  add_block(out, 3, ucode::Op::start_relay, 12);
  put16(out, 0);
  return out;
}

std::vector<uint8_t> image(const char (&magic)[4], const std::string &name, size_t length) {
  std::vector<uint8_t> payload(name.begin(), name.end());
  payload.push_back(0);
  Filler filler{seed_of(name)};
  while (payload.size() < length) payload.push_back(static_cast<uint8_t>(filler.next()));
  std::vector<uint8_t> out(magic, magic + 4);
  put16(out, ucode::kVersion);
  put32(out, static_cast<uint32_t>(payload.size()));
  out.insert(out.end(), payload.begin(), payload.end());
  put32(out, ucode::fnv1a(out.data(), out.size()));
  return out;
}

bool write_file(const std::string &dir, const char *name, const std::vector<uint8_t> &bytes) {
  const std::string path = dir + "/" + name;
  FILE *f = std::fopen(path.c_str(), "wb");
  if (f == nullptr) {
    std::perror(path.c_str());
    return false;
  }
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  return (std::fclose(f) == 0) && ok;
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s directory\n", argv[0]);
    return 2;
  }
  const std::string dir = argv[1];
  bool ok = write_file(dir, "atlinit.btm", atlinit());
  ok = write_file(dir, "install.btl", image(ucode::kBootMagic, "install", 6144)) && ok;
  ok = write_file(dir, "procinit", image(ucode::kProgramMagic, "procinit", 3000)) && ok;
  ok = write_file(dir, "camera.r2h", image(ucode::kProgramMagic, "camera", 9000)) && ok;
  return ok ? 0 : 1;
}
