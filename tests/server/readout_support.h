// A server brought up against the simulated camera with the shipped files and the small chip, its
// hardware initialised, looking at the coordinate scene; and what a readout of that scene must
// hold, computed here from the scene's rule alone.
#pragma once

#include <cstring>
#include <vector>

#include "config/config_support.h"
#include "server/server_record.h"
#include "sim/camera_server.h"
#include "tvx/readout.h"
#include "tvx/server.h"
#include "tvx/values.h"

namespace tvx_test {

constexpr WORD kSimBase = 0x150;

// Every record of the stack with its qualifications, after which the stack is cleared.
inline std::string whole_story() {
  std::string text = print_all(ERR_MODE_TRACEBACK);
  if ((*stack())->category != 0) err_reset_all(stack());
  return text;
}

// A pixel of any depth up to 32 bits.
inline uint32_t pixel_at(HANDLE image, int column, int row) {
  INT32 w = 0, h = 0, d = 0;
  image_size(image, &w, &h, &d);
  const auto *raster = static_cast<const BYTE *>(image_lockraster(image, row));
  uint32_t v = 0;
  std::memcpy(&v, raster + column * (d / 8), size_t(d / 8));
  image_unlockraster(image, row);
  return v;
}

class ReadoutTest : public ConfigTest {
 protected:
  void SetUp() override {
    ConfigTest::SetUp();
    tvx_test_ports_floating(TRUE);
    tvx_test_simulator_reset();
    tvx_test_clock_virtual(1000);
    channel(REPORT_INFO)->destination = catch_report;
  }
  void TearDown() override {
    for (HANDLE h : images_) image_list_delete(h);
    for (HANDLE h : regions_) region_list_delete(h);
    if (params_ != nullptr) sysparams_delete(params_);
    server_delete(server_);
    volts_dtor(&volts_);
    ccd_dtor(&chip_);
    tvx_test_simulator_reset();
    ConfigTest::TearDown();
  }

  // Brings the server up on `chip_file` and initialises the hardware.
  void bring_up(const char *chip_file = "sim_small.def") {
    server_ = server_new(shipped(chip_file).c_str());
    ASSERT_NE(server_, nullptr) << story();
    HANDLE c = parse_shipped(chip_file);
    ASSERT_TRUE(volts_extract(&volts_, c) && ccd_extract(&chip_, c)) << story();
    ASSERT_TRUE(server_hwinit(server_, &volts_, &chip_)) << story();
    ASSERT_TRUE(tvx_test_simulator_scene(TVX_SCENE_COORDINATES, 1, FALSE));
    caught().clear();
  }

  tvx::sim::CameraServer &controller() { return *tvx::sim::camera_server_at(kSimBase); }

  // Sets the converter's mode on both sides, and the integration time (microseconds) that picks
  // between the interleaved and whole-byte formats.
  void set_mode(INT32 adc_mode, double integration) {
    ASSERT_TRUE(server_set_adc_mode(server_, adc_mode)) << story();
    ASSERT_TRUE(server_set_integration_time(server_, integration)) << story();
  }

  HANDLE regions(std::initializer_list<std::array<INT32, 4>> rects) {
    HANDLE list = list_new();
    int n = 0;
    for (const auto &r : rects) {
      const std::string name = "r" + std::to_string(++n);
      list_append_tail(list, region_new(r[0], r[1], r[2], r[3], name.c_str()));
    }
    regions_.push_back(list);
    return list;
  }
  HANDLE images() {
    HANDLE list = list_new();
    images_.push_back(list);
    return list;
  }
  // The acquisition parameters; regions and images (or image lists) as given.
  HANDLE params(INT32 columns, INT32 rows, INT32 bx, INT32 by, HANDLE region_list,
                HANDLE image_list, bool lists = false) {
    // The camera tells the controller its binning before each acquisition.
    EXPECT_TRUE(server_set_binning(server_, bx, by)) << story();
    if (params_ != nullptr) sysparams_delete(params_);
    params_ = sysparams_new();
    const std::pair<INT32, INT32> ints[] = {{SYSPARAM_XSIZE, columns},
                                            {SYSPARAM_YSIZE, rows},
                                            {SYSPARAM_XBIN, bx},
                                            {SYSPARAM_YBIN, by}};
    for (const auto &[id, v] : ints) sysparams_append(params_, sysparam_make_ival(id, v));
    sysparams_append(params_, sysparam_make_pval(SYSPARAM_REGIONS, region_list));
    sysparams_append(
        params_, sysparam_make_pval(lists ? SYSPARAM_IMAGE_LISTS : SYSPARAM_IMAGES, image_list));
    return params_;
  }

  // The coordinate scene's binned pixel whose first unbinned pixel is (x, y).
  static uint32_t expected(int x, int y, int bx, int by, bool wide) {
    uint16_t sum = 0;
    for (int j = 0; j < by; ++j)
      for (int i = 0; i < bx; ++i) sum = static_cast<uint16_t>(sum + (x + i) + 256 * (y + j));
    return wide ? uint32_t{sum} << 16 | static_cast<uint16_t>(~sum) : sum;
  }

  static uint32_t pixel(HANDLE image, int column, int row) { return pixel_at(image, column, row); }

  // Counts the pixels of `image` that differ from the scene read from chip (x0, y0) binned
  // bx x by; the first few are described in `where`.
  static int mismatches(HANDLE image, int x0, int y0, int bx, int by, std::string *where) {
    INT32 w = 0, h = 0, d = 0;
    image_size(image, &w, &h, &d);
    int bad = 0;
    for (int r = 0; r < h; ++r)
      for (int c = 0; c < w; ++c) {
        const uint32_t want = expected(x0 + c * bx, y0 + r * by, bx, by, d == 32);
        const uint32_t got = pixel(image, c, r);
        if (got == want) continue;
        if (++bad <= 3)
          *where += "(" + std::to_string(c) + "," + std::to_string(r) + ") " + std::to_string(got) +
                    " != " + std::to_string(want) + "\n";
      }
    return bad;
  }

  HANDLE server_ = nullptr;
  HANDLE params_ = nullptr;
  std::vector<HANDLE> images_, regions_;
  volts volts_{};
  ccd chip_{};
};

}  // namespace tvx_test
