// The readout's cost: a full-chip readout of the large simulated chip (the coordinate scene, and
// the star field with its noise), the library's own cost per word of the block stream read from a
// device that answers at once, a readout of several regions (read sequence and unscrambling)
// against one region of the same pixels, and the unscrambling alone against a plain copy of the
// same bytes. The counter "vs_copy" is a case's time over the copy's.
#include <benchmark/benchmark.h>

#include <array>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "sim/ccd.h"
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

// Processor time of the timed parts of a benchmark's iterations, for ratios between cases: the
// machine is shared, and its wall clock counts the others' work too.
struct Stopwatch {
  double total = 0, started = 0;
  static double now() {
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) * 1e-9;
  }
  void start() { started = now(); }
  void stop() { total += now() - started; }
  double per(const benchmark::State &state) const {
    return state.iterations() > 0 ? total / double(state.iterations()) : 0;
  }
};

void BM_FullChipReadout(benchmark::State &state) {
  const Camera &c = camera();
  long pixels = 0;
  for (auto _ : state) pixels += c.readout({});
  state.SetItemsProcessed(pixels);
  state.SetLabel("pixels of the 2064 x 2048 chip through the simulator");
}
BENCHMARK(BM_FullChipReadout)->Unit(benchmark::kMillisecond);

// The simulated CCD alone making the star field of the whole large chip, row by row: sky, stars,
// dark current, photon and read noise, converted to levels. The argument is the exposure in
// milliseconds: after 10 ms most pixels hold a fraction of an electron, drawn exactly; after a
// second the sky's 40 electrons come from the normal approximation.
void BM_StarFieldPixels(benchmark::State &state) {
  tvx::sim::SceneSettings scene;
  scene.kind = tvx::sim::SceneKind::starfield;
  tvx::sim::set_scene_settings(scene);
  tvx::sim::ChipSetup chip;
  chip.width = 2064;
  chip.height = 2048;
  chip.blacklevel = 1000;
  chip.electrons_per_level = 13.0;
  tvx::sim::Charge charge;
  charge.light_seconds = charge.dark_seconds = double(state.range(0)) / 1000.0;
  tvx::sim::Ccd ccd;
  std::vector<uint32_t> row(size_t(chip.width));
  uint32_t frame = 0;
  ccd.begin_frame(chip, charge, frame);  // the scene's flux is made once, before the timing
  for (auto _ : state) {
    ccd.begin_frame(chip, charge, ++frame);
    for (int y = 0; y < chip.height; ++y) ccd.read_row(0, y, chip.width, 1, 1, row.data());
    benchmark::DoNotOptimize(row.data());
  }
  state.SetItemsProcessed(static_cast<long>(state.iterations()) * chip.width * chip.height);
  state.SetLabel("the simulated CCD's pixels alone");
}
BENCHMARK(BM_StarFieldPixels)->Arg(10)->Arg(1000)->Unit(benchmark::kMillisecond);

// The star field after a second's exposure: sky, stars, dark current, photon and read noise.
void BM_StarFieldReadout(benchmark::State &state) {
  const Camera &c = camera();
  tvx_test_simulator_scene(TVX_SCENE_STARFIELD, 7100, FALSE);
  long pixels = 0;
  for (auto _ : state) {
    state.PauseTiming();
    server_expose_ccd(c.server, 1000);
    state.ResumeTiming();
    pixels += c.readout({});
  }
  tvx_test_simulator_scene(TVX_SCENE_COORDINATES, 1, FALSE);
  state.SetItemsProcessed(pixels);
  state.SetLabel("the star field of the 2064 x 2048 chip through the simulator");
}
BENCHMARK(BM_StarFieldReadout)->Unit(benchmark::kMillisecond);

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

// Seconds per copy of the two regions' pixels, kept for the ratio of the unscrambling.
double copy_seconds = 0;

void BM_CopyOfTheSameBytes(benchmark::State &state) {
  std::vector<WORD> from(1024 * 2048, 7), to(1024 * 2048);
  Stopwatch watch;
  for (auto _ : state) {
    watch.start();
    std::memcpy(to.data(), from.data(), from.size() * sizeof(WORD));
    benchmark::DoNotOptimize(to.data());
    watch.stop();
  }
  copy_seconds = watch.per(state);
  state.SetItemsProcessed(static_cast<long>(state.iterations()) * static_cast<long>(from.size()));
}
BENCHMARK(BM_CopyOfTheSameBytes)->Unit(benchmark::kMillisecond);

// The two regions of BM_TwoRegionsUnscrambled, read: their read sequence, the stream they make
// (every pixel a different value) and the shadow image it is replayed into.
struct Scrambled {
  HANDLE regions = list_new(), sequence = list_new(), shadow = nullptr, scramble = nullptr;
  INT32 pixels = 0;
  Scrambled() {
    const Camera &c = camera();
    list_append_tail(regions, region_new(0, 0, 512, 2048, "left"));
    list_append_tail(regions, region_new(1024, 0, 512, 2048, "middle"));
    shadow = image_new(c.chip.xsize, c.chip.ysize, 16);
    if (shadow == nullptr || !cs71_create_ccd_rdseq2(regions, shadow, 1, 1, 0, sequence, &pixels))
      std::abort();
    scramble = image_new(1, pixels, 16);
    for (INT32 k = 0; k < pixels; ++k)
      *static_cast<WORD *>(image_lockraster(scramble, k)) = static_cast<WORD>(k);
    for (INT32 k = 0; k < pixels; ++k) image_unlockraster(scramble, k);
  }
  ~Scrambled() {
    list_delete(sequence, nullptr);
    region_list_delete(regions);
    image_delete(shadow);
    image_delete(scramble);
  }
};

// Replaying the read sequence into the shadow image and cutting one image per region from it:
// what a several-region readout does once the stream is in.
void BM_UnscrambleTwoRegions(benchmark::State &state) {
  const Camera &c = camera();
  Scrambled s;
  HANDLE images = list_new();
  Stopwatch watch;
  for (auto _ : state) {
    watch.start();
    if (!server_scramble_to_shadow(c.server, s.scramble, s.sequence, s.shadow) ||
        !server_multiple_regions(c.server, images, s.regions, s.shadow, 1, 1))
      state.SkipWithError("unscrambling failed");
    watch.stop();
    state.PauseTiming();
    list_empty(images, image_delete);
    state.ResumeTiming();
  }
  list_delete(images, nullptr);
  if (copy_seconds > 0) state.counters["vs_copy"] = watch.per(state) / copy_seconds;
  state.SetItemsProcessed(static_cast<long>(state.iterations()) * s.pixels);
  state.SetLabel("replay and cut, the pixels of BM_CopyOfTheSameBytes");
}
BENCHMARK(BM_UnscrambleTwoRegions)->Unit(benchmark::kMillisecond);

// The replay alone.
void BM_ReplayTwoRegions(benchmark::State &state) {
  const Camera &c = camera();
  Scrambled s;
  Stopwatch watch;
  for (auto _ : state) {
    watch.start();
    if (!server_scramble_to_shadow(c.server, s.scramble, s.sequence, s.shadow))
      state.SkipWithError("unscrambling failed");
    watch.stop();
  }
  if (copy_seconds > 0) state.counters["vs_copy"] = watch.per(state) / copy_seconds;
  state.SetItemsProcessed(static_cast<long>(state.iterations()) * s.pixels);
}
BENCHMARK(BM_ReplayTwoRegions)->Unit(benchmark::kMillisecond);

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
