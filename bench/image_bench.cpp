// Writing and reading a 4096 x 4096 16-bit image through image files, against the same 32 MB
// moved with plain write and read in the same run. The counter "vs_plain" of each library case
// is its time over the plain case's, so the overhead of the pixel blocks shows as one figure.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "tvx/tvx.h"

namespace {

constexpr INT32 kSide = 4096;
constexpr size_t kPixelBytes = size_t{kSide} * kSide * 2;

std::string scratch(const char *name) {
  return "/tmp/tvx-bench-" + std::to_string(getpid()) + "-" + name;
}

// The scratch files go when the program ends; each benchmark runs several times over.
struct Scratch {
  ~Scratch() {
    unlink(scratch("plain").c_str());
    unlink(scratch("image").c_str());
  }
} scratch_files;

// Seconds per iteration of the plain cases, kept for the ratio of the library's.
double plain_write_seconds = 0, plain_read_seconds = 0;

double seconds_since(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void write_all(int fd, const BYTE *p, size_t n) {
  while (n > 0) {
    ssize_t done = write(fd, p, n);
    if (done <= 0) std::abort();
    p += done, n -= static_cast<size_t>(done);
  }
}

void read_all(int fd, BYTE *p, size_t n) {
  while (n > 0) {
    ssize_t done = read(fd, p, n);
    if (done <= 0) std::abort();
    p += done, n -= static_cast<size_t>(done);
  }
}

void BM_PlainWrite(benchmark::State &state) {
  std::vector<BYTE> bytes(kPixelBytes + 6, 0x5A);
  std::string path = scratch("plain");
  double total = 0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    int fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0666);
    write_all(fd, bytes.data(), bytes.size());
    close(fd);
    total += seconds_since(start);
  }
  plain_write_seconds = total / static_cast<double>(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_PlainWrite)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_PlainRead(benchmark::State &state) {
  std::vector<BYTE> bytes(kPixelBytes + 6);
  std::string path = scratch("plain");
  double total = 0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    int fd = open(path.c_str(), O_RDONLY);
    read_all(fd, bytes.data(), bytes.size());
    close(fd);
    total += seconds_since(start);
  }
  plain_read_seconds = total / static_cast<double>(state.iterations());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(BM_PlainRead)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ImageWrite(benchmark::State &state) {
  HANDLE image = image_new(kSide, kSide, 16);
  HANDLE whole = region_new(0, 0, kSide, kSide, nullptr);
  image_set_region(image, whole, 0x5A5A);
  std::string path = scratch("image");
  double total = 0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    if (!image_write(image, path.c_str())) state.SkipWithError("image_write failed");
    total += seconds_since(start);
  }
  if (plain_write_seconds > 0)
    state.counters["vs_plain"] =
        total / static_cast<double>(state.iterations()) / plain_write_seconds;
  region_delete(whole);
  image_delete(image);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * (kPixelBytes + 6)));
}
BENCHMARK(BM_ImageWrite)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_ImageRead(benchmark::State &state) {
  HANDLE image = image_new(kSide, kSide, 16);
  std::string path = scratch("image");
  double total = 0;
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    if (!image_read(image, path.c_str())) state.SkipWithError("image_read failed");
    total += seconds_since(start);
  }
  if (plain_read_seconds > 0)
    state.counters["vs_plain"] =
        total / static_cast<double>(state.iterations()) / plain_read_seconds;
  image_delete(image);
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * (kPixelBytes + 6)));
}
BENCHMARK(BM_ImageRead)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
