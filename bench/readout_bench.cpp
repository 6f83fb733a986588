// The readout's cost: a full-chip readout of the large simulated chip, the library's own cost per
// word of the block stream read from a device that answers at once, and a readout of several
// regions (read sequence and unscrambling) against one region of the same pixels and against a
// plain copy of the same bytes.
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

#include "tvx/readout.h"
#include "tvx/testing.h"
#include "tvx/tvx.h"

namespace {

std::string shipped(const char *name) {
  return std::string(TVX_SOURCE_DIR) + "/data/sim/" + name;
}

err_stack errors() {
  err_stack s = nullptr;
  return *err_where_is(&s);
}

int quiet(const char *) {
  return 1;
}

// A server on the large chip, brought up once for every benchmark of the run.
struct Camera {
  HANDLE server = nullptr;
  volts voltages{};
  ccd chip{};
  Camera() {
    report *info = nullptr;
    report_where_is(REPORT_INFO, &info)[0]->destination = quiet;
    tvx_test_ports_floating(TRUE);
    tvx_test_simulator_reset();
    server = server_new(shipped("sim_large.def").c_str());
    HANDLE c = config_new(shipped("7100hw.def").c_str(), shipped("sim_large.def").c_str(), nullptr);
    if (server == nullptr || c == nullptr || !volts_extract(&voltages, c) ||
        !ccd_extract(&chip, c) || !server_hwinit(server, &voltages, &chip)) {
      char *story = nullptr;
      err_print_all(errors(), ERR_MODE_TRACEBACK, &story);
      std::fprintf(stderr, "readout_bench: the simulated camera did not come up:\n%s", story);
      std::abort();
    }
    config_delete(c);
    tvx_test_simulator_scene(TVX_SCENE_COORDINATES, 1, FALSE);
  }
  HANDLE params(HANDLE regions, HANDLE images) const {
    HANDLE p = sysparams_new();
    sysparams_append(p, sysparam_make_ival(SYSPARAM_XSIZE, chip.xsize));
    sysparams_append(p, sysparam_make_ival(SYSPARAM_YSIZE, chip.ysize));
    sysparams_append(p, sysparam_make_ival(SYSPARAM_XBIN, 1));
    sysparams_append(p, sysparam_make_ival(SYSPARAM_YBIN, 1));
    sysparams_append(p, sysparam_make_pval(SYSPARAM_REGIONS, regions));
    sysparams_append(p, sysparam_make_pval(SYSPARAM_IMAGES, images));
    return p;
  }
  // Reads the regions (none: the whole chip) into fresh images; returns the pixels read.
  long readout(std::initializer_list<std::array<INT32, 4>> rects) const {
    HANDLE regions = list_new(), images = list_new();
    for (const auto &r : rects) list_append_tail(regions, region_new(r[0], r[1], r[2], r[3], "r"));
    HANDLE p = params(regions, images);
    if (!server_readout_ccd(server, regions, images, p)) std::abort();
    long pixels = 0;
    for (list_head(images); list_more(images); list_next(images)) {
      INT32 w = 0, h = 0, d = 0;
      image_size(list_get_object(images), &w, &h, &d);
      pixels += static_cast<long>(w) * h;
    }
    sysparams_delete(p);
    image_list_delete(images);
    region_list_delete(regions);
    return pixels;
  }
};

const Camera &camera() {
  static Camera *c = new Camera;
  return *c;
}

void BM_FullChipReadout(benchmark::State &state) {
  const Camera &c = camera();
  long pixels = 0;
  for (auto _ : state) pixels += c.readout({});
  state.SetItemsProcessed(pixels);
  state.SetLabel("pixels of the 2064 x 2048 chip through the simulator");
}
BENCHMARK(BM_FullChipReadout)->Unit(benchmark::kMillisecond);

void BM_OneRegion(benchmark::State &state) {
  const Camera &c = camera();
  long pixels = 0;
  for (auto _ : state) pixels += c.readout({{0, 0, 1024, 2048}});
  state.SetItemsProcessed(pixels);
}
BENCHMARK(BM_OneRegion)->Unit(benchmark::kMillisecond);

void BM_TwoRegionsUnscrambled(benchmark::State &state) {
  const Camera &c = camera();
  long pixels = 0;
  for (auto _ : state) pixels += c.readout({{0, 0, 512, 2048}, {1024, 0, 512, 2048}});
  state.SetItemsProcessed(pixels);
  state.SetLabel("read sequence and unscrambling, the same pixels as BM_OneRegion");
}
BENCHMARK(BM_TwoRegionsUnscrambled)->Unit(benchmark::kMillisecond);

void BM_CopyOfTheSameBytes(benchmark::State &state) {
  std::vector<WORD> from(1024 * 2048, 7), to(1024 * 2048);
  for (auto _ : state) {
    std::memcpy(to.data(), from.data(), from.size() * sizeof(WORD));
    benchmark::DoNotOptimize(to.data());
  }
  state.SetItemsProcessed(static_cast<long>(state.iterations()) * static_cast<long>(from.size()));
}
BENCHMARK(BM_CopyOfTheSameBytes)->Unit(benchmark::kMillisecond);

// A device that always has input: blocks of 30 words, each preceded by its size.
struct NullStream {
  unsigned position = 0;
  static WORD read(void *context, WORD port) {
    auto *s = static_cast<NullStream *>(context);
    if ((port & 7) == 2) return ATLINK_RX_NOT_EMPTY;  // status: input waiting
    if ((port & 7) != 0) return 0;
    return s->position++ % 31 == 0 ? 30 : static_cast<WORD>(s->position);
  }
  static void write(void *, WORD, WORD) {}
};

void BM_BlockStreamPerWord(benchmark::State &state) {
  constexpr WORD kBase = 0x300;
  constexpr INT32 kWords = 30 * 2000;
  NullStream device;
  port_attach(kBase, 6, NullStream::read, NullStream::write, &device);
  HANDLE link = atlink_new(100, "bench", kBase);
  std::vector<WORD> buffer(kWords);
  INT32 status = 0, read = 0;
  for (auto _ : state) {
    device.position = 0;
    atlink_testread(link, buffer.data(), kWords, 1, 30, &status, &read, 0, 0, 0, 0);
  }
  state.SetItemsProcessed(static_cast<long>(state.iterations()) * kWords);
  state.SetLabel(status == TESTREAD_OK ? "library cost per word, device answering at once"
                                       : "stream failed");
  atlink_delete(link);
  port_detach(kBase);
}
BENCHMARK(BM_BlockStreamPerWord);

}  // namespace
