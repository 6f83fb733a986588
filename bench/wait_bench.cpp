// What waiting costs: the process's CPU time over a five-second delay and over a five-second
// exposure through the camera, as a share of the wall time they take. A wait that sleeps keeps this
// near nothing; one that spins on the clock keeps it near one.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "tvx/testing.h"
#include "tvx/tvx.h"

namespace {

constexpr DWORD kWait = 500;  // centiseconds

std::string shipped(const char *name) {
  return std::string(TVX_SOURCE_DIR) + "/data/sim/" + name;
}

int quiet(const char *) {
  return 1;
}

double process_seconds() {
  timespec ts{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// Runs `wait` once per iteration and reports the CPU it cost against the wall time it took.
template <class Wait>
void measure(benchmark::State &state, Wait wait) {
  double cpu = 0, wall = 0;
  for (auto _ : state) {
    const double cpu_before = process_seconds();
    const auto wall_before = std::chrono::steady_clock::now();
    if (!wait()) state.SkipWithError("the wait failed");
    wall += std::chrono::duration<double>(std::chrono::steady_clock::now() - wall_before).count();
    cpu += process_seconds() - cpu_before;
  }
  state.counters["cpu_share"] = wall > 0 ? cpu / wall : 0;
  state.counters["wall_s"] = wall / static_cast<double>(state.iterations());
}

void BM_Delay(benchmark::State &state) {
  measure(state, [] { return delay_centiseconds(kWait) != FALSE; });
}
BENCHMARK(BM_Delay)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

// A camera on the small simulated chip, brought up once.
HANDLE camera() {
  static HANDLE cam = [] {
    report *info = nullptr;
    report_where_is(REPORT_INFO, &info)[0]->destination = quiet;
    tvx_test_ports_floating(TRUE);
    tvx_test_simulator_reset();
    HANDLE server = server_new(shipped("sim_small.def").c_str());
    HANDLE c = server != nullptr ? camera_new(server, shipped("sim_small.def").c_str()) : nullptr;
    if (c == nullptr) {
      std::fprintf(stderr, "wait_bench: the simulated camera did not come up\n");
      std::abort();
    }
    return c;
  }();
  return cam;
}

void BM_Exposure(benchmark::State &state) {
  HANDLE cam = camera();
  measure(state, [cam] { return camera_expose_ccd(cam, kWait * 10) != FALSE; });
}
BENCHMARK(BM_Exposure)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();

}  // namespace
