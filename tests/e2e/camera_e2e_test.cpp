// Pictures of the simulated star field taken the way an application takes them, through the
// camera: two-channel exposures joined into 20-bit data, series of processed frames, and several
// regions read from one exposure.
#include <algorithm>
#include <cmath>

#include "camera/camera_support.h"
#include "tvx/twenty.h"

namespace {

using namespace tvx_test;

// The small chip: 80 x 64 with 16 covered columns at the right; the active area is 64 x 64.
constexpr INT32 kColumns = 80, kRows = 64, kActive = 64;
constexpr INT32 kBias = 1000;         // the chip file's blacklevel
constexpr double kChannelRatio = 16;  // the simulated converter's second channel gain

class CameraPictures : public CameraTest {
 protected:
  void SetUp() override {
    CameraTest::SetUp();
    ASSERT_TRUE(tvx_test_simulator_scene(TVX_SCENE_STARFIELD, 7100, FALSE));
  }

  // The statistics of a 16-bit image, or of one of its regions.
  static image_stats stats_of(HANDLE image, HANDLE region = nullptr) {
    image_stats s{};
    EXPECT_TRUE(image_histogram_stats(image, region, &s, FALSE)) << whole_story();
    return s;
  }
  // Where the brightest pixel of a 16-bit image lies, as (column, row).
  static std::pair<int, int> brightest(HANDLE image) {
    INT32 w = 0, h = 0, d = 0;
    image_size(image, &w, &h, &d);
    std::pair<int, int> at{0, 0};
    int32_t best = INT32_MIN;
    for (int r = 0; r < h; ++r)
      for (int c = 0; c < w; ++c) {
        const auto v = static_cast<int16_t>(pixel(image, c, r));
        if (v > best) best = v, at = {c, r};
      }
    return at;
  }
};

// Channel 1 runs at the low-light gain, where the brightest stars fill it; channel 2 sees a
// sixteenth of the signal and never does. The processed picture follows channel 1 wherever it
// holds, and channel 2 scaled by the fitted line wherever it saturated.
TEST_F(CameraPictures, SaturatedStarsAreCarriedByTheSecondChannel) {
  ASSERT_TRUE(camera_set_gain(camera_, 1, 2)) << whole_story();
  ASSERT_TRUE(server_set_adc_mode(server_, 17)) << whole_story();
  ASSERT_TRUE(camera_set_operation_mode(camera_, 0));
  ASSERT_TRUE(camera_expose_ccd(camera_, 300000)) << whole_story();
  HANDLE list = images();
  ASSERT_TRUE(camera_readout_ccd(camera_, nullptr, list)) << whole_story();
  HANDLE raw = list_get_nth_object(list, 1);
  INT32 w = 0, h = 0, d = 0;
  ASSERT_TRUE(image_size(raw, &w, &h, &d));
  ASSERT_EQ(std::vector<INT32>({w, h, d}), std::vector<INT32>({kColumns, kRows, 32}));
  HANDLE copy = nullptr;
  ASSERT_TRUE(image_copy(raw, &copy, FALSE, FALSE)) << whole_story();

  // Processing the raw frame in mode 2: image zero from the reference columns, the active area,
  // the 20-bit join, and image zero taken off.
  ASSERT_TRUE(camera_set_operation_mode(camera_, 2));
  ASSERT_TRUE(camera_process_images(camera_, list)) << whole_story();
  HANDLE joined = list_get_nth_object(list, 1);
  ASSERT_TRUE(image_size(joined, &w, &h, &d));
  EXPECT_EQ(std::vector<INT32>({w, h}), std::vector<INT32>({kActive, kRows}));
  EXPECT_TRUE(image_is_signed(joined));

  double ratio = 0, offset = 0, r2 = 0;
  BYTE correlate = 0;
  ASSERT_TRUE(camera_get_20_bit_data(camera_, &ratio, &offset, &r2, &correlate));
  EXPECT_NEAR(ratio, kChannelRatio, 0.02 * kChannelRatio);
  EXPECT_NEAR(offset, kBias - ratio * kBias, 100.0) << "the channels share their bias";
  EXPECT_GT(r2, 0.99);
  INT32 zero = 0;
  ASSERT_TRUE(camera_get_image_zero(camera_, &zero));
  EXPECT_NEAR(zero, kBias, 3);

  int saturated = 0, wrong = 0;
  int32_t brightest_joined = 0;
  for (int r = 0; r < kRows; ++r)
    for (int c = 0; c < kActive; ++c) {
      const uint32_t both = pixel(copy, c, r);
      const uint32_t first = both >> 16, second = both & 0xFFFF;
      const bool full = first >= 65535;
      saturated += full;
      const int32_t want =
          static_cast<int32_t>(full ? std::lround(second * ratio + offset) : first) - zero;
      const auto got = static_cast<int32_t>(pixel(joined, c, r));
      wrong += got != want;
      brightest_joined = std::max(brightest_joined, got);
    }
  EXPECT_GT(saturated, 3) << "the exposure fills channel 1 on the brightest stars";
  EXPECT_EQ(wrong, 0);
  EXPECT_GT(brightest_joined, 65535 - zero) << "beyond the range of one channel";
  image_delete(copy);

  // With correlation off, the stored ratio is used and the offset comes from the two channels'
  // reference levels.
  ASSERT_TRUE(camera_set_20_bit_data(camera_, kChannelRatio, 0.0, FALSE));
  HANDLE again = images();
  ASSERT_TRUE(camera_expose_ccd(camera_, 300000)) << whole_story();
  ASSERT_TRUE(camera_readout_ccd(camera_, nullptr, again)) << whole_story();
  ASSERT_TRUE(camera_get_20_bit_data(camera_, &ratio, &offset, &r2, &correlate));
  EXPECT_EQ(ratio, kChannelRatio);
  EXPECT_EQ(correlate, 0);
  EXPECT_NEAR(offset, kBias - kChannelRatio * kBias, 20.0);
  INT32 counters[CAMERA_OPERATION_COUNTERS] = {};
  ASSERT_TRUE(camera_get_operation_stats(camera_, counters));
  EXPECT_EQ(counters[CAMERA_COUNT_EXPOSURES], 2);
  EXPECT_EQ(counters[CAMERA_COUNT_READOUTS], 2);
  EXPECT_EQ(counters[CAMERA_COUNT_IMAGE_ZERO], 2);
  EXPECT_EQ(counters[CAMERA_COUNT_PROCESSED], 2);
  EXPECT_EQ(counters[CAMERA_COUNT_TWENTY_BIT], 2);
}

// A series of two processed frames with the pedestal kept: each is the active area with the sky
// a little above the pedestal and the same stars in the same places.
TEST_F(CameraPictures, AProcessedSeriesShowsTheSameStars) {
  ASSERT_TRUE(camera_set_operation_mode(camera_, 3));
  HANDLE frames = list_new();
  for (int i = 0; i < 2; ++i) list_append_tail(frames, list_new());
  ASSERT_TRUE(camera_expose_and_readout_ccd(camera_, nullptr, frames, 20000, 50)) << whole_story();
  std::pair<int, int> peak[2];
  for (int i = 0; i < 2; ++i) {
    HANDLE frame = list_get_nth_object(frames, i + 1);
    ASSERT_EQ(list_size(frame), 1);
    HANDLE image = list_get_nth_object(frame, 1);
    INT32 w = 0, h = 0, d = 0;
    ASSERT_TRUE(image_size(image, &w, &h, &d));
    EXPECT_EQ(std::vector<INT32>({w, h, d}), std::vector<INT32>({kActive, kRows, 16}));
    const image_stats s = stats_of(image);
    // 40 photons a second of sky for 20 s at about 15.6 electrons a level.
    EXPECT_NEAR(s.median, 256 + 40.0 * 20 / 15.6, 12.0);
    EXPECT_GT(s.max, s.median + 300) << "stars stand out of the sky";
    peak[i] = brightest(image);
  }
  EXPECT_EQ(peak[0], peak[1]);
  INT32 counters[CAMERA_OPERATION_COUNTERS] = {};
  ASSERT_TRUE(camera_get_operation_stats(camera_, counters));
  EXPECT_EQ(counters[CAMERA_COUNT_FRAMES], 2);
  list_delete(frames, [](HANDLE frame) { image_list_delete(frame); });
}

// One exposure read as two regions: each region's picture is the part of the sky the whole
// frame shows there, with image zero (measured from a whole frame) taken off.
TEST_F(CameraPictures, SeveralRegionsOfOneExposure) {
  ASSERT_TRUE(camera_set_operation_mode(camera_, 2));
  HANDLE whole = images();
  ASSERT_TRUE(camera_expose_ccd(camera_, 20000)) << whole_story();
  ASSERT_TRUE(camera_readout_ccd(camera_, nullptr, whole)) << whole_story();
  HANDLE full = list_get_nth_object(whole, 1);

  HANDLE parts = regions({{0, 0, 32, 32}, {32, 32, 32, 32}, {8, 40, 16, 8}});
  HANDLE pictures = images();
  ASSERT_TRUE(camera_expose_ccd(camera_, 20000)) << whole_story();
  ASSERT_TRUE(camera_readout_ccd(camera_, parts, pictures)) << whole_story();
  ASSERT_EQ(list_size(pictures), 3);
  int with_star = 0;
  for (int i = 1; i <= 3; ++i) {
    SCOPED_TRACE("region " + std::to_string(i));
    HANDLE region = list_get_nth_object(parts, i);
    HANDLE picture = list_get_nth_object(pictures, i);
    INT32 x, y, rw, rh, w = 0, h = 0, d = 0;
    region_get(region, &x, &y, &rw, &rh);
    ASSERT_TRUE(image_size(picture, &w, &h, &d));
    EXPECT_EQ(std::vector<INT32>({w, h}), std::vector<INT32>({rw, rh}));
    EXPECT_TRUE(image_is_signed(picture));
    // The same place of the sky in the whole frame: the same level and the same brightest star.
    HANDLE same = nullptr;
    ASSERT_TRUE(image_region(full, region, &same)) << whole_story();
    const image_stats a = stats_of(picture), b = stats_of(same);
    EXPECT_NEAR(a.median, b.median, 8.0);
    EXPECT_NEAR(a.median, 40.0 * 20 / 15.6, 12.0) << "the sky, with nothing of the bias left";
    if (b.max > b.median + 300) {
      ++with_star;
      EXPECT_EQ(brightest(picture), brightest(same));
    }
    image_delete(same);
  }
  EXPECT_GE(with_star, 2) << "the regions hold stars to find again";
}

// The photon transfer of two flat frames: the shot noise of the difference gives the electrons
// per level the simulated converter really has, and it must be what the library quotes for the
// gain setting in use.
TEST_F(CameraPictures, PhotonTransferGivesTheQuotedGain) {
  ASSERT_TRUE(tvx_test_simulator_scene(TVX_SCENE_FLAT, 3, FALSE));
  ASSERT_TRUE(camera_set_operation_mode(camera_, 2));
  for (const auto &[rate, sensitivity] : {std::pair{1, 1}, std::pair{2, 2}}) {
    SCOPED_TRACE("gain setting " + std::to_string(rate) + "," + std::to_string(sensitivity));
    ASSERT_TRUE(camera_set_gain(camera_, rate, sensitivity)) << whole_story();
    double quoted = 0;
    ASSERT_TRUE(camera_get_electrons_per_level(camera_, rate, sensitivity, &quoted));
    HANDLE frames = list_new();
    for (int i = 0; i < 2; ++i) list_append_tail(frames, list_new());
    // About 2,000 levels of signal either way.
    const INT32 ms = static_cast<INT32>(2000.0 * quoted / 2000.0 * 1000.0);
    ASSERT_TRUE(camera_expose_and_readout_ccd(camera_, nullptr, frames, ms, 0)) << whole_story();
    HANDLE a = list_get_nth_object(list_get_nth_object(frames, 1), 1);
    HANDLE b = list_get_nth_object(list_get_nth_object(frames, 2), 1);
    double sum = 0, sum_d = 0, sum_d2 = 0;
    const int n = kActive * kRows;
    for (int r = 0; r < kRows; ++r)
      for (int c = 0; c < kActive; ++c) {
        const double va = static_cast<int16_t>(pixel(a, c, r));
        const double vb = static_cast<int16_t>(pixel(b, c, r));
        sum += (va + vb) / 2;
        sum_d += va - vb;
        sum_d2 += (va - vb) * (va - vb);
      }
    const double mean = sum / n, shot = (sum_d2 / n - (sum_d / n) * (sum_d / n)) / 2;
    EXPECT_NEAR(mean, 2000.0, 100.0);
    EXPECT_NEAR(mean / shot, quoted, 0.08 * quoted);
    list_delete(frames, [](HANDLE frame) { image_list_delete(frame); });
  }
}

}  // namespace
