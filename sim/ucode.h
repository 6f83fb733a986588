// The simulated transputers' micro-code formats. The files in data/sim are written by
// tools/mkucode from these definitions, and the simulated card and controller check what reaches
// them against the same definitions, so that a truncated, corrupt or out-of-date file shows as
// the fault it would be on the real hardware. Header only: the generator links nothing else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace tvx::sim::ucode {

// Bumped whenever a format changes; files of another version are refused as out of date.
constexpr uint16_t kVersion = 3;

// ---- Initialisation blocks (atlinit.btm) -------------------------------------------------------
// The card's own transputer runs one block from its ROM loader each time its reset is released.
// A block, as 16-bit words:
//   [0] kBlockMagic  [1] kVersion  [2] length of the block in words  [3] sequence number from 1
//   [4] operation    [5 .. n-2] code words  [n-1] check word: all n words sum to 0 modulo 2^16.
// A sequence number of 1 starts the sequence afresh; any other must follow the last one run.
constexpr uint16_t kBlockMagic = 0xB10C;
constexpr size_t kBlockHeader = 5;
constexpr size_t kBlockMin = kBlockHeader + 1;
constexpr size_t kBlockMax = 30;
enum class Op : uint16_t {
  memory_test = 1,  // sizes and tests the card transputer's memory
  link_setup = 2,   // programs the link engine towards the controller
  start_relay = 3,  // runs the relay between the FIFOs and the link; needs the two above first
};

inline uint16_t check_word(const uint16_t *words, size_t count) {
  uint16_t sum = 0;
  for (size_t i = 0; i < count; ++i) sum = static_cast<uint16_t>(sum + words[i]);
  return static_cast<uint16_t>(0u - sum);
}

// ---- Boot stream (install.btl) and program files (procinit, camera.r2h) -----------------------
// A boot image, as bytes, little-endian:
//   magic (4 bytes)  version (2)  payload length L (4)  payload (L)  FNV-1a of all before (4)
// The payload opens with the program's name and a zero byte. The boot stream uses kBootMagic;
// program files installed into the running controller use kProgramMagic.
constexpr char kBootMagic[4] = {'T', 'X', 'B', 'T'};
constexpr char kProgramMagic[4] = {'T', 'X', 'P', 'G'};
constexpr size_t kImageHeader = 10;
constexpr size_t kImageTrailer = 4;
// The controller's memory: no payload may be larger.
constexpr uint32_t kMaxPayload = 256 * 1024;

inline uint32_t fnv1a(const uint8_t *bytes, size_t count, uint32_t hash = 2166136261u) {
  for (size_t i = 0; i < count; ++i) {
    hash ^= bytes[i];
    hash *= 16777619u;
  }
  return hash;
}

enum class Verdict { ok, truncated, bad_magic, out_of_date, too_large, corrupt };

inline const char *verdict_text(Verdict v) {
  switch (v) {
    case Verdict::ok:
      return "ok";
    case Verdict::truncated:
      return "truncated";
    case Verdict::bad_magic:
      return "not a micro-code image";
    case Verdict::out_of_date:
      return "out of date";
    case Verdict::too_large:
      return "too large";
    case Verdict::corrupt:
      return "corrupt";
  }
  return "?";
}

inline uint32_t le32(const uint8_t *p) {
  return uint32_t{p[0]} | uint32_t{p[1]} << 8 | uint32_t{p[2]} << 16 | uint32_t{p[3]} << 24;
}

// Judges the header alone, once kImageHeader bytes are in: what a loader can tell before the
// payload arrives.
inline Verdict check_header(const uint8_t *bytes, const char (&magic)[4]) {
  for (size_t i = 0; i < 4; ++i)
    if (bytes[i] != static_cast<uint8_t>(magic[i])) return Verdict::bad_magic;
  if ((bytes[4] | bytes[5] << 8) != kVersion) return Verdict::out_of_date;
  if (le32(bytes + 6) > kMaxPayload) return Verdict::too_large;
  return Verdict::ok;
}

// Judges a whole image; `name` receives the program's name when the image is sound.
inline Verdict check_image(const std::vector<uint8_t> &bytes, const char (&magic)[4],
                           std::string *name = nullptr) {
  if (bytes.size() < kImageHeader) return Verdict::truncated;
  Verdict header = check_header(bytes.data(), magic);
  if (header != Verdict::ok) return header;
  const size_t total = kImageHeader + le32(bytes.data() + 6) + kImageTrailer;
  if (bytes.size() < total) return Verdict::truncated;
  if (bytes.size() > total) return Verdict::corrupt;
  if (fnv1a(bytes.data(), total - kImageTrailer) != le32(bytes.data() + total - kImageTrailer))
    return Verdict::corrupt;
  size_t end = kImageHeader;
  while (end < total - kImageTrailer && bytes[end] != 0) ++end;
  if (end == total - kImageTrailer) return Verdict::corrupt;  // a payload must name its program
  if (name != nullptr)
    name->assign(reinterpret_cast<const char *>(bytes.data() + kImageHeader), end - kImageHeader);
  return Verdict::ok;
}

}  // namespace tvx::sim::ucode
