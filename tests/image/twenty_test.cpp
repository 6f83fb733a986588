// Two-channel data joined into 20 bits, split back into channels, and image zero taken off,
// against figures worked out here.
#include <cstring>
#include <vector>

#include "support/frame.h"
#include "tvx/twenty.h"

namespace {

using namespace tvx_test;

class Twenty : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    channel(REPORT_INFO)->destination = catch_report;
  }
  void TearDown() override {
    image_delete(image_);
    region_delete(region_);
    FrameTest::TearDown();
  }
  // A two-channel image whose pixel (x, y) holds channel1(x, y) << 16 | channel2(x, y).
  template <class Channels>
  void make(INT32 width, INT32 height, Channels channels) {
    image_ = image_new(width, height, 32);
    ASSERT_NE(image_, nullptr);
    std::vector<uint32_t> pixels;
    for (INT32 y = 0; y < height; ++y)
      for (INT32 x = 0; x < width; ++x) {
        auto [c1, c2] = channels(x, y);
        pixels.push_back(static_cast<uint32_t>(c1) << 16 | static_cast<uint32_t>(c2));
      }
    ASSERT_TRUE(image_blit(image_, 0, height, pixels.data()));
  }
  uint32_t pixel(INT32 x, INT32 y) {
    INT32 w = 0, h = 0, d = 0;
    image_size(image_, &w, &h, &d);
    uint32_t v = 0;
    auto *row = static_cast<BYTE *>(image_lockraster(image_, y));
    std::memcpy(&v, row + x * 4, 4);
    image_unlockraster(image_, y);
    return v;
  }
  HANDLE image_ = nullptr;
  HANDLE region_ = nullptr;
};

TEST_F(Twenty, ALinearPairFitsExactlyAndSaturatedPixelsAreReplaced) {
  // Channel 1 is 2 x channel 2 + 10 wherever it is not saturated.
  make(20, 10, [](INT32 x, INT32 y) {
    const int c2 = 100 * x + 7 * y;
    return std::pair<int, int>{x == 19 ? 65535 : 2 * c2 + 10, c2};
  });
  double ratio = 0, offset = 0, r2 = 0;
  ASSERT_TRUE(image_20_bit_correlate(image_, nullptr, &ratio, &offset, &r2, 0.0, 1.0));
  EXPECT_NEAR(r2, 1.0, 1e-12);
  EXPECT_NEAR(ratio, 2.0, 1e-9);
  EXPECT_NEAR(offset, 10.0, 1e-6);
  ASSERT_TRUE(image_32_to_20_bit(image_, nullptr, ratio, offset));
  EXPECT_EQ(pixel(3, 4), 2u * (300 + 28) + 10) << "channel 1 where it is not saturated";
  EXPECT_EQ(pixel(19, 2), 2u * (1900 + 14) + 10) << "channel 2 scaled where it is";
}

TEST_F(Twenty, TooFewPixelsOrTooLittleSignalLeaveChannelOne) {
  // 99 usable pixels: the tenth column is near saturation and left out of the fit.
  make(10, 11, [](INT32 x, INT32 y) {
    return std::pair<int, int>{x == 9 || (y == 10 && x > 0) ? 65100 : 3 * (x + y), x + y};
  });
  double ratio = 1, offset = 1, r2 = 1;
  ASSERT_TRUE(image_20_bit_correlate(image_, nullptr, &ratio, &offset, &r2, 0.0, 1.0));
  EXPECT_EQ(ratio, 0.0);
  EXPECT_NE(caught().find("Insufficient pixels available from channel 1 for 20 bit operation"),
            std::string::npos);
  chan_stats stats{};
  caught().clear();
  ASSERT_TRUE(image_chan_stats(image_, nullptr, &stats, 1e12, 1.0));
  EXPECT_EQ(stats.valid, 0);

  // Pixels between 65,001 and 65,534 are not used, nor replaced; 65,535 stays with ratio 0.
  image_delete(image_);
  make(4, 1, [](INT32 x, INT32) {
    const int c1[] = {65001, 65200, 65401, 65535};
    return std::pair<int, int>{c1[x], 9};
  });
  ASSERT_TRUE(image_32_to_20_bit(image_, nullptr, 2.0, 0.0));
  EXPECT_EQ(pixel(2, 0), 65401u);
  EXPECT_EQ(pixel(3, 0), 18u) << "saturated: 9 x 2";
  ASSERT_TRUE(image_32_to_20_bit(image_, nullptr, 0.0, 0.0));
  EXPECT_EQ(pixel(3, 0), 18u >> 16) << "already joined: channel 1 of 18 is 0";

  image_delete(image_);
  make(2, 1, [](INT32, INT32) { return std::pair<int, int>{65535, 5}; });
  ASSERT_TRUE(image_32_to_20_bit(image_, nullptr, 0.0, 0.0));
  EXPECT_EQ(pixel(0, 0), 65535u);
}

TEST_F(Twenty, ChannelsSplitIntoSixteenBitImages) {
  make(8, 6, [](INT32 x, INT32 y) { return std::pair<int, int>{1000 + x, 50 + y}; });
  region_ = region_new(2, 1, 6, 3, "part");
  HANDLE one = nullptr;
  ASSERT_TRUE(image_pixel_split(image_, region_, &one, 1)) << print_all(ERR_MODE_TRACEBACK);
  INT32 w = 0, h = 0, d = 0;
  image_size(one, &w, &h, &d);
  EXPECT_EQ(std::vector<INT32>({w, h, d}), std::vector<INT32>({6, 3, 16}));
  image_stats c1{}, c2{};
  ASSERT_TRUE(image_measure_multi_chan(image_, region_, &c1, &c2, FALSE));
  EXPECT_DOUBLE_EQ(c1.mean, 1000 + (2 + 7) / 2.0);
  EXPECT_DOUBLE_EQ(c2.mean, 50 + 2.0);
  HANDLE other = image_new(5, 3, 8);
  ASSERT_TRUE(image_pixel_split(image_, region_, &other, 0));
  image_size(other, &w, &h, &d);
  EXPECT_EQ(std::vector<INT32>({w, h, d}), std::vector<INT32>({6, 3, 16})) << "made to fit";
  image_delete(other);
  image_delete(one);
  HANDLE flat = image_new(4, 4, 16);
  EXPECT_FALSE(image_pixel_split(flat, nullptr, &one, 1));
  EXPECT_NE(print_last(ERR_MODE_BRIEF).find("source image not 32 bit"), std::string::npos);
  image_delete(flat);
}

TEST_F(Twenty, ImageZeroWrapsWhenSignedAndSaturatesWhenNot) {
  image_ = image_new(4, 1, 16);
  const uint16_t raw[] = {100, 1000, 40000, 65535};
  ASSERT_TRUE(image_blit(image_, 0, 1, raw));
  ASSERT_TRUE(image_subtract_iz(image_, 500, 1));
  EXPECT_TRUE(image_is_signed(image_));
  uint16_t got[4];
  std::memcpy(got, image_lockraster(image_, 0), sizeof got);
  image_unlockraster(image_, 0);
  EXPECT_EQ(static_cast<int16_t>(got[0]), -400);
  EXPECT_EQ(got[1], 500);
  EXPECT_EQ(got[2], 32767 - 500) << "a pixel reading negative is held at the largest positive";
  ASSERT_TRUE(image_blit(image_, 0, 1, raw));
  ASSERT_TRUE(image_subtract_iz(image_, 500, 0));
  std::memcpy(got, image_lockraster(image_, 0), sizeof got);
  image_unlockraster(image_, 0);
  EXPECT_EQ(std::vector<uint16_t>(got, got + 4), (std::vector<uint16_t>{0, 500, 39500, 65035}));
  ASSERT_TRUE(image_blit(image_, 0, 1, raw));
  ASSERT_TRUE(image_subtract_iz(image_, -1000, 0));
  std::memcpy(got, image_lockraster(image_, 0), sizeof got);
  image_unlockraster(image_, 0);
  EXPECT_EQ(got[2], 41000);
  EXPECT_EQ(got[3], 65535) << "held at the top";
}

}  // namespace
