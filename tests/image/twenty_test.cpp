// Two-channel data joined into 20 bits, split back into channels, and image zero taken off,
// against figures worked out here.
#include <string>
#include <utility>
#include <vector>

#include "image_support.h"
#include "tvx/twenty.h"

namespace tvx_test {
namespace {

class Twenty : public ImageTest {
 protected:
  void SetUp() override {
    ImageTest::SetUp();
    channel(REPORT_INFO)->destination = catch_report;
  }
  // A two-channel image whose pixel (x, y) holds channel1(x, y) << 16 | channel2(x, y).
  template <class Channels>
  HANDLE make(INT32 width, INT32 height, Channels channels) {
    HANDLE img = image(width, height, 32);
    std::vector<uint32_t> pixels;
    for (INT32 y = 0; y < height; ++y)
      for (INT32 x = 0; x < width; ++x) {
        auto [c1, c2] = channels(x, y);
        pixels.push_back(static_cast<uint32_t>(c1) << 16 | static_cast<uint32_t>(c2));
      }
    EXPECT_TRUE(image_blit(img, 0, height, pixels.data()));
    return img;
  }
};

TEST_F(Twenty, ALinearPairFitsExactlyAndSaturatedPixelsAreReplaced) {
  // Channel 1 is 2 x channel 2 + 10 wherever it is not saturated.
  HANDLE img = make(20, 10, [](INT32 x, INT32 y) {
    const int c2 = 100 * x + 7 * y;
    return std::pair<int, int>{x == 19 ? 65535 : 2 * c2 + 10, c2};
  });
  double ratio = 0, offset = 0, r2 = 0;
  ASSERT_TRUE(image_20_bit_correlate(img, nullptr, &ratio, &offset, &r2, 0.0, 1.0));
  EXPECT_NEAR(r2, 1.0, 1e-12);
  EXPECT_NEAR(ratio, 2.0, 1e-9);
  EXPECT_NEAR(offset, 10.0, 1e-6);
  ASSERT_TRUE(image_32_to_20_bit(img, nullptr, ratio, offset));
  EXPECT_EQ(get_pixel(img, 4, 3), 2u * (300 + 28) + 10) << "channel 1 where it is not saturated";
  EXPECT_EQ(get_pixel(img, 2, 19), 2u * (1900 + 14) + 10) << "channel 2 scaled where it is";
}

TEST_F(Twenty, TooFewPixelsOrTooLittleSignalLeaveChannelOne) {
  // 99 usable pixels: the tenth column is near saturation and left out of the fit.
  HANDLE img = make(10, 11, [](INT32 x, INT32 y) {
    return std::pair<int, int>{x == 9 || (y == 10 && x > 0) ? 65100 : 3 * (x + y), x + y};
  });
  double ratio = 1, offset = 1, r2 = 1;
  ASSERT_TRUE(image_20_bit_correlate(img, nullptr, &ratio, &offset, &r2, 0.0, 1.0));
  EXPECT_EQ(ratio, 0.0);
  EXPECT_NE(caught().find("Insufficient pixels available from channel 1 for 20 bit operation"),
            std::string::npos);
  chan_stats stats{};
  caught().clear();
  ASSERT_TRUE(image_chan_stats(img, nullptr, &stats, 1e12, 1.0));
  EXPECT_EQ(stats.valid, 0);

  // Pixels between 65,001 and 65,534 are not used, nor replaced; 65,535 stays with ratio 0.
  img = make(4, 1, [](INT32 x, INT32) {
    const int c1[] = {65001, 65200, 65401, 65535};
    return std::pair<int, int>{c1[x], 9};
  });
  ASSERT_TRUE(image_32_to_20_bit(img, nullptr, 2.0, 0.0));
  EXPECT_EQ(get_pixel(img, 0, 2), 65401u);
  EXPECT_EQ(get_pixel(img, 0, 3), 18u) << "saturated: 9 x 2";
  ASSERT_TRUE(image_32_to_20_bit(img, nullptr, 0.0, 0.0));
  EXPECT_EQ(get_pixel(img, 0, 3), 18u >> 16) << "already joined: channel 1 of 18 is 0";
  img = make(2, 1, [](INT32, INT32) { return std::pair<int, int>{65535, 5}; });
  ASSERT_TRUE(image_32_to_20_bit(img, nullptr, 0.0, 0.0));
  EXPECT_EQ(get_pixel(img, 0, 0), 65535u);
}

TEST_F(Twenty, ChannelsSplitIntoSixteenBitImages) {
  HANDLE img = make(8, 6, [](INT32 x, INT32 y) { return std::pair<int, int>{1000 + x, 50 + y}; });
  HANDLE region = region_new(2, 1, 6, 3, "part");
  HANDLE one = nullptr, other = image(5, 3, 8);
  ASSERT_TRUE(image_pixel_split(img, region, &one, 1)) << print_all(ERR_MODE_TRACEBACK);
  EXPECT_EQ(size_of(keep(one)), (std::array<INT32, 3>{6, 3, 16}));
  image_stats c1{}, c2{};
  ASSERT_TRUE(image_measure_multi_chan(img, region, &c1, &c2, FALSE));
  EXPECT_DOUBLE_EQ(c1.mean, 1000 + (2 + 7) / 2.0);
  EXPECT_DOUBLE_EQ(c2.mean, 50 + 2.0);
  ASSERT_TRUE(image_pixel_split(img, region, &other, 0));
  EXPECT_EQ(size_of(other), (std::array<INT32, 3>{6, 3, 16})) << "made to fit";
  region_delete(region);
  EXPECT_FALSE(image_pixel_split(image(4, 4, 16), nullptr, &one, 1));
  EXPECT_NE(story().find("source image not 32 bit"), std::string::npos);
}

TEST_F(Twenty, ImageZeroWrapsWhenSignedAndSaturatesWhenNot) {
  HANDLE img = image(4, 1, 16);
  const uint16_t raw[] = {100, 1000, 40000, 65535};
  auto taken_off = [&](INT32 zero, BOOL to_signed) {
    EXPECT_TRUE(image_blit(img, 0, 1, raw));
    EXPECT_TRUE(image_subtract_iz(img, zero, to_signed));
    std::vector<DWORD> got;
    for (INT32 c = 0; c < 4; ++c) got.push_back(get_pixel(img, 0, c));
    return got;
  };
  // Signed: 100 - 500 wraps to -400; a pixel reading negative is held at the largest positive.
  EXPECT_EQ(taken_off(500, 1), (std::vector<DWORD>{0x10000 - 400, 500, 32767 - 500, 32767 - 500}));
  EXPECT_TRUE(image_is_signed(img));
  EXPECT_EQ(taken_off(500, 0), (std::vector<DWORD>{0, 500, 39500, 65035}));
  EXPECT_EQ(taken_off(-1000, 0), (std::vector<DWORD>{1100, 2000, 41000, 65535})) << "held at top";
}

}  // namespace
}  // namespace tvx_test
