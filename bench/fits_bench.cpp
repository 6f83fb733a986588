// Writing a 4096 x 4096 16-bit frame as a FITS file through the session, the way tvxcam writes
// every picture (keywords, pixels, checksums), against the same number of bytes moved with plain
// write in the same run. The counter "vs_plain" is the FITS file's time over the plain write's.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "fits.h"

namespace {

constexpr INT32 kSide = 4096;
// The file: 2880-byte records of header, then the pixels padded to whole records.
constexpr size_t kFileBytes = 2880 * 2 + (size_t{kSide} * kSide * 2 + 2879) / 2880 * 2880;

std::string scratch(const char *name) {
  return "/tmp/tvx-bench-" + std::to_string(getpid()) + "-" + name;
}

struct Scratch {
  ~Scratch() {
    unlink(scratch("plain").c_str());
    unlink(scratch("fits").c_str());
  }
} scratch_files;

double plain_seconds = 0;

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void BM_PlainWrite(benchmark::State &state) {
  std::vector<BYTE> bytes(kFileBytes, 0x5A);
  const std::string path = scratch("plain");
  double total = 0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    unlink(path.c_str());
    const int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0666);
    for (size_t at = 0; at < bytes.size();) {
      const ssize_t done = write(fd, bytes.data() + at, bytes.size() - at);
      if (done <= 0) std::abort();
      at += size_t(done);
    }
    close(fd);
    total += seconds_since(start);
  }
  plain_seconds = total / double(state.iterations());
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kFileBytes));
}
BENCHMARK(BM_PlainWrite)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_WriteFits(benchmark::State &state) {
  HANDLE image = image_new(kSide, kSide, 16);
  // Sky-like levels that differ from pixel to pixel.
  for (INT32 r = 0; r < kSide; ++r) {
    auto *row = static_cast<WORD *>(image_lockraster(image, r));
    for (INT32 c = 0; c < kSide; ++c) row[c] = static_cast<WORD>(1000 + (r * 7 + c * 13) % 97);
    image_unlockraster(image, r);
  }
  session::Exposure exposure;
  exposure.seconds = 0.01;
  exposure.date_obs = "2026-01-01T00:00:00.000";
  const std::string path = scratch("fits");
  double total = 0;
  for (auto _ : state) {
    const auto start = std::chrono::steady_clock::now();
    session::write_fits(path, {session::Plane{image, "", 0, 0}}, &exposure, "fits_bench");
    total += seconds_since(start);
  }
  if (plain_seconds > 0)
    state.counters["vs_plain"] = total / double(state.iterations()) / plain_seconds;
  image_delete(image);
  state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kFileBytes));
}
BENCHMARK(BM_WriteFits)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
