// What a 16-bit port read costs through the port bus: the readout reads every pixel this way.
#include <benchmark/benchmark.h>

#include "sim/slot.h"
#include "tvx/ports.h"
#include "tvx/testing.h"

namespace {

constexpr WORD kBase = 0x300;

WORD counter_read(void *context, WORD) {
  return static_cast<WORD>(++*static_cast<unsigned *>(context));
}
void ignore_write(void *, WORD, WORD) {}

// A device that does next to nothing: the cost is the bus's own.
void BM_DeviceRead(benchmark::State &state) {
  unsigned count = 0;
  port_attach(kBase, 6, counter_read, ignore_write, &count);
  for (auto _ : state) benchmark::DoNotOptimize(port_in16(kBase));
  port_detach(kBase);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_DeviceRead);

// A port nobody claims, with the machine's own ports kept out of reach.
void BM_FloatingRead(benchmark::State &state) {
  tvx_test_ports_floating(TRUE);
  for (auto _ : state) benchmark::DoNotOptimize(port_in16(kBase));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FloatingRead);

// The simulated card's status register: the bus plus the card's own work.
void BM_SimulatedStatusRead(benchmark::State &state) {
  tvx_test_ports_floating(TRUE);
  tvx::sim::plug_card(kBase);
  for (auto _ : state) benchmark::DoNotOptimize(port_in16(kBase + 2));
  tvx::sim::unplug_card(kBase);
  tvx_test_simulator_reset();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SimulatedStatusRead);

}  // namespace
