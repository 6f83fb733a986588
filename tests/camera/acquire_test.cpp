// Pictures through the camera on the simulated coordinate scene, where every pixel's value says
// where it came from: the raw readout, the image zero taken from the reference columns, the cut to
// the active area with and without the pedestal, flushes and series of frames.
#include "camera/camera_support.h"

namespace {

using namespace tvx_test;

// bring_up leaves the simulated CCD looking at the coordinate scene.
class Acquire : public CameraTest {
 protected:
  // Reads the whole chip in `mode` and returns the one image.
  HANDLE read(INT32 mode) {
    EXPECT_TRUE(camera_set_operation_mode(camera_, mode));
    HANDLE list = images();
    EXPECT_TRUE(camera_readout_ccd(camera_, nullptr, list)) << whole_story();
    EXPECT_EQ(list_size(list), 1);
    return list_get_nth_object(list, 1);
  }
};

// The mean of the coordinate scene (column + 256 x row) over the 13 reference columns (67 to
// 79) and rows 2 to 61 of the 80 x 64 chip.
constexpr INT32 kImageZero = 73 + 256 * 63 / 2;

TEST_F(Acquire, RawImageZeroAndProcessedReadouts) {
  std::string where;
  HANDLE raw = read(0);
  EXPECT_EQ(mismatches(raw, 0, 0, 1, 1, &where), 0) << where;

  read(1);
  INT32 zero = 0;
  ASSERT_TRUE(camera_get_image_zero(camera_, &zero));
  EXPECT_EQ(zero, kImageZero);

  // Mode 3: the active area, with image zero less a pedestal of 256 taken off.
  HANDLE kept = read(3);
  INT32 w = 0, h = 0, d = 0;
  image_size(kept, &w, &h, &d);
  EXPECT_EQ(std::vector<INT32>({w, h}), std::vector<INT32>({64, 64}));
  EXPECT_EQ(pixel(kept, 40, 50), uint32_t{40 + 256 * 50 - (kImageZero - 256)});
  EXPECT_EQ(pixel(kept, 3, 0), 0u) << "below the level: held at 0";

  // Mode 2: image zero taken off whole, into signed pixels.
  HANDLE whole = read(2);
  EXPECT_TRUE(image_is_signed(whole));
  EXPECT_EQ(static_cast<int16_t>(pixel(whole, 3, 0)), 3 - kImageZero);
  INT32 counters[CAMERA_OPERATION_COUNTERS] = {};
  ASSERT_TRUE(camera_get_operation_stats(camera_, counters));
  EXPECT_EQ(counters[CAMERA_COUNT_READOUTS], 4);
}

TEST_F(Acquire, RegionsByModeAndAMissingProgram) {
  HANDLE regions = nullptr;
  BOOL made = TRUE;
  ASSERT_TRUE(camera_set_operation_mode(camera_, 0));
  ASSERT_TRUE(camera_readout_regions(camera_, &regions, &made));
  EXPECT_FALSE(made) << "mode 0 reads with no regions";
  ASSERT_TRUE(camera_set_operation_mode(camera_, 2));
  ASSERT_TRUE(camera_set_binning(camera_, 1, 2)) << whole_story();
  ASSERT_TRUE(camera_readout_regions(camera_, &regions, &made));
  ASSERT_TRUE(made);
  INT32 x, y, w, h;
  region_get(list_get_nth_object(regions, 1), &x, &y, &w, &h);
  EXPECT_EQ(std::vector<INT32>({x, y, w, h}), std::vector<INT32>({0, 0, 80, 64}))
      << "all columns, and the active rows";
  EXPECT_STREQ(region_getname(list_get_nth_object(regions, 1)), "full frame");
  region_list_delete(regions);

  ASSERT_TRUE(camera_empty(camera_));
  EXPECT_FALSE(camera_readout_ccd(camera_, nullptr, images()));
  EXPECT_NE(whole_story().find("unable to find 'readout' in camera program list."),
            std::string::npos);
}

TEST_F(Acquire, FlushesAndFramesSeries) {
  const size_t before = controller().controls().size();
  EXPECT_TRUE(camera_flush_ccd(camera_, 0));
  EXPECT_EQ(controller().controls().size(), before) << "no flush, nothing sent";
  EXPECT_TRUE(camera_flush_ccd(camera_, 2)) << whole_story();
  EXPECT_EQ(controller().state().flushes, 2);

  ASSERT_TRUE(camera_set_operation_mode(camera_, 1));
  HANDLE frames = list_new();
  for (int i = 0; i < 2; ++i) list_append_tail(frames, list_new());
  ASSERT_TRUE(camera_expose_and_readout_ccd(camera_, nullptr, frames, 100, 0)) << whole_story();
  std::string where;
  EXPECT_EQ(mismatches(list_get_nth_object(list_get_nth_object(frames, 2), 1), 0, 0, 1, 1, &where),
            0)
      << "mode 1 leaves the frames raw\n"
      << where;
  INT32 zero = 0;
  ASSERT_TRUE(camera_get_image_zero(camera_, &zero));
  EXPECT_EQ(zero, kImageZero);
  list_delete(frames, [](HANDLE frame) { image_list_delete(frame); });
  EXPECT_FALSE(camera_expose_and_readout_ccd(camera_, nullptr, nullptr, 100, 0));
  EXPECT_NE(whole_story().find("invalid list of image lists"), std::string::npos);

  // A stream that breaks off in the second frame fails the series, says where, and counts it;
  // the fixture checks that nothing of the frames is left allocated.
  ASSERT_TRUE(tvx_test_stream_fault(TVX_STREAM_STOP_AFTER, 80 * 64 + 100));
  HANDLE broken = list_new();
  for (int i = 0; i < 3; ++i) list_append_tail(broken, list_new());
  EXPECT_FALSE(camera_expose_and_readout_ccd(camera_, nullptr, broken, 100, 0));
  const std::string told = whole_story();
  EXPECT_NE(told.find("camera_expose_and_readout_ccd"), std::string::npos) << told;
  list_delete(broken, [](HANDLE frame) { image_list_delete(frame); });
  INT32 counters[CAMERA_OPERATION_COUNTERS] = {};
  ASSERT_TRUE(camera_get_operation_stats(camera_, counters));
  EXPECT_EQ(counters[CAMERA_COUNT_FAILURES], 1);
  EXPECT_EQ(counters[CAMERA_COUNT_FRAMES], 2);
  ASSERT_TRUE(tvx_test_stream_fault(TVX_STREAM_FAULT_NONE, 0));
  HANDLE again = images();
  EXPECT_TRUE(camera_readout_ccd(camera_, nullptr, again))
      << "the link recovers: " << whole_story();
}

// A program may time an exposure itself: a shutter it opens and closes gathers the light of the
// controller's own exposure of that length, and a shutter left closed gathers none.
TEST_F(Acquire, AShutterOpenedByCommandGathersLight) {
  ASSERT_TRUE(tvx_test_simulator_scene(TVX_SCENE_FLAT, 1, FALSE));
  const auto mean_after = [&](const std::function<bool()> &expose) {
    EXPECT_TRUE(camera_flush_ccd(camera_, 1) && expose()) << whole_story();
    image_stats st{};
    EXPECT_TRUE(image_histogram_stats(read(0), nullptr, &st, FALSE)) << whole_story();
    return st.mean;
  };
  const double timed = mean_after([&] { return camera_expose_ccd(camera_, 5000) != FALSE; });
  const double by_hand = mean_after([&] {
    return camera_open_shutter(camera_) && delay_centiseconds(500) && camera_close_shutter(camera_);
  });
  const double closed = mean_after([&] { return delay_centiseconds(500) != FALSE; });
  EXPECT_GT(timed - closed, 100);
  EXPECT_NEAR(by_hand, timed, 0.02 * (timed - closed));
}

}  // namespace
