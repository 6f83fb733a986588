// Statistics of a region against figures worked out here from the pixels themselves, the empty
// region's refusal under "ip_hstats", display limits and ratios of two images.
#include <algorithm>
#include <cmath>
#include <numeric>
#include <string>
#include <vector>

#include "image_support.h"

namespace tvx_test {
namespace {

using Stats = ImageTest;

// Checks the figures against a list of values, by the textbook formulas over the pixels one by one.
void expect_figures(const image_stats &got, std::vector<double> v) {
  std::sort(v.begin(), v.end());
  double n = static_cast<double>(v.size()), mean = std::accumulate(v.begin(), v.end(), 0.0) / n;
  double m2 = 0, m3 = 0, m4 = 0;
  for (double x : v) {
    m2 += std::pow(x - mean, 2) / n;
    m3 += std::pow(x - mean, 3) / n;
    m4 += std::pow(x - mean, 4) / n;
  }
  auto at = [&](double share) { return v[static_cast<size_t>(std::ceil(share * n)) - 1]; };
  double mode = 0;
  size_t best = 0;
  for (size_t i = 0, run = 0; i < v.size(); ++i) {
    run = i > 0 && v[i] == v[i - 1] ? run + 1 : 1;
    if (run > best) best = run, mode = v[i];
  }
  EXPECT_EQ(std::vector<double>({got.min, got.max, got.area, got.median, got.lower_quartile,
                                 got.upper_quartile, got.mode}),
            std::vector<double>({v.front(), v.back(), n, at(0.5), at(0.25), at(0.75), mode}));
  EXPECT_NEAR(got.mean, mean, 1e-9 * std::fabs(mean) + 1e-9);
  EXPECT_NEAR(got.variance, m2, 1e-7 * m2 + 1e-9);
  EXPECT_NEAR(got.sdev, std::sqrt(m2), 1e-7 * std::sqrt(m2) + 1e-9);
  EXPECT_NEAR(got.skew, m2 > 0 ? m3 / std::pow(m2, 1.5) : 0, 1e-6);
  EXPECT_NEAR(got.kurtosis, m2 > 0 ? m4 / (m2 * m2) - 3 : 0, 1e-6);
}

TEST_F(Stats, FiguresOfARegionMatchThoseWorkedOutFromItsPixels) {
  HANDLE img = image(500, 300, 16);  // 65 rasters a block
  // Skewed values with repeats, so the mode and quantiles mean something.
  for (INT32 r = 0; r < 300; ++r)
    for (INT32 c = 0; c < 500; c += 1) {
      DWORD v = pattern(r, c, 16) % 997;
      set_pixel(img, r, c, v * v / 40 + 1000);
    }
  HANDLE region = region_new(17, 60, 400, 140, "sky");
  std::vector<double> values;
  for (INT32 r = 60; r < 200; ++r)
    for (INT32 c = 17; c < 417; ++c) values.push_back(get_pixel(img, r, c));
  image_stats got{};
  ASSERT_TRUE(image_histogram_stats(img, region, &got, FALSE)) << story();
  expect_figures(got, values);
  EXPECT_GT(got.skew, 0.1) << "the squares lean right";

  // Signed pixels count below zero.
  image_set_signed(img, TRUE);
  set_pixel(img, 60, 17, 0xFFFF);  // -1
  set_pixel(img, 61, 17, 0x8000);  // -32768
  values[0] = -1;
  values[400] = -32768;
  ASSERT_TRUE(image_histogram_stats(img, region, &got, FALSE));
  expect_figures(got, values);
  EXPECT_EQ(got.min, -32768);
  region_delete(region);
}

TEST_F(Stats, AFlatWholeImageAndThePrintForm) {
  HANDLE img = image(10, 10, 12);
  HANDLE r = region_new(0, 0, 10, 10, nullptr);
  ASSERT_TRUE(image_set_region(img, r, 4095));
  region_delete(r);
  channel(REPORT_INFO)->destination = catch_report;
  image_stats s{};
  ASSERT_TRUE(image_histogram_stats(img, nullptr, &s, TRUE));
  expect_figures(s, std::vector<double>(100, 4095));  // no spread: skew and kurtosis are zero
  EXPECT_NE(caught().find("mean    :      4095.00,    area    :       100.00\n"), std::string::npos)
      << caught();

  s = image_stats{1, 9, 100, 5.5, 2.25, 1.5, 0.125, -1.25, 5, 3, 8, 4};
  std::string text = printed([&](FILE *out) { image_stats_print(&s, out); });
  EXPECT_NE(text.find("skew    :       0.1250,    kurtosis:      -1.2500\n"), std::string::npos);
  EXPECT_NE(text.find("lower q :         3.00,    upper q :         8.00\n"), std::string::npos);
}

TEST_F(Stats, ARegionWithoutPixelsFailsUnderIpHstatsWithCategoryTwo) {
  HANDLE img = image(64, 64, 16);
  HANDLE empty = region_new(64, 10, 0, 5, nullptr);  // on the far edge, no width
  image_stats s{};
  EXPECT_FALSE(image_histogram_stats(img, empty, &s, FALSE));
  EXPECT_EQ((*stack())->trace->routine, std::string("image_histogram_stats"));
  expect_error(ERR_NO_DATA, "ip_hstats", "region (0 x 5) holds no pixels.");
  EXPECT_FALSE(image_histogram_stats(image(8, 8, 32), nullptr, &s, FALSE));
  EXPECT_EQ(top_category(), ERR_OUT_OF_RANGE) << "not 16-bit data";
  story();
  region_delete(empty);
}

TEST_F(Stats, AutoscaleLeavesOutTheFewBrightestAndDarkest) {
  HANDLE img = image(100, 100, 16);
  for (INT32 r = 0; r < 100; ++r)
    for (INT32 c = 0; c < 100; ++c) set_pixel(img, r, c, 1000 + (r * 100 + c) % 1000);
  set_pixel(img, 0, 0, 65535);  // hot pixels
  set_pixel(img, 0, 1, 65535);
  INT32 low = 0, high = 0;
  ASSERT_TRUE(image_autoscale(img, nullptr, &low, &high));
  EXPECT_TRUE(low >= 1000 && low <= 1010) << low;
  EXPECT_TRUE(high >= 1990 && high <= 1999) << high;
  ASSERT_TRUE(image_autoscale(image(8, 8, 8), nullptr, &low, &high));
  EXPECT_EQ(low, 0);
  EXPECT_EQ(high, 1) << "a flat image still gets a range to scale by";
}

TEST_F(Stats, RatiosArePixelByPixelAndHeldToTheDepth) {
  HANDLE a = image(300, 250, 16), b = image(300, 250, 16);
  fill_pattern(a);
  fill_pattern(b);
  set_pixel(b, 3, 4, 0);
  HANDLE out = nullptr;
  ASSERT_TRUE(image_pixel_ratio(a, b, &out, 1000.0)) << story();
  keep(out);
  EXPECT_EQ(get_pixel(out, 0, 0), 1000u);
  EXPECT_EQ(get_pixel(out, 3, 4), 0u) << "nothing to divide by";
  set_pixel(a, 7, 7, 60000);
  set_pixel(b, 7, 7, 3);
  set_pixel(a, 7, 8, 10);
  set_pixel(b, 7, 8, 4000);
  ASSERT_TRUE(image_pixel_ratio(a, b, &out, 1000.0));
  EXPECT_EQ(get_pixel(out, 7, 7), 65535u) << "held to 16 bits";
  EXPECT_EQ(get_pixel(out, 7, 8), 3u) << "a half rounds away from zero";
  EXPECT_FALSE(image_pixel_ratio(a, image(300, 251, 16), &out, 1.0));
  EXPECT_NE(story().find("images differ in size (300 x 250 and 300 x 251)"), std::string::npos);
}

}  // namespace
}  // namespace tvx_test
