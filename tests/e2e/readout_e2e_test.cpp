// The whole readout path against the simulated camera booted from the shipped files: the
// coordinate scene read back pixel-exact through the single-region and read-sequence paths and
// in every data mode.
#include "server/readout_support.h"

namespace {

using namespace tvx_test;

class EndToEnd : public ReadoutTest {};

TEST_F(EndToEnd, TheWholeChipReadsBackPixelExact) {
  bring_up();
  HANDLE list = images();
  ASSERT_TRUE(server_execute(server_, "readout", params(80, 64, 1, 1, nullptr, list))) << story();
  ASSERT_EQ(list_size(list), 1);
  HANDLE image = list_get_nth_object(list, 1);
  INT32 w, h, d;
  ASSERT_TRUE(image_size(image, &w, &h, &d));
  EXPECT_EQ(w, 80);
  EXPECT_EQ(h, 64);
  EXPECT_EQ(d, 16);
  std::string where;
  EXPECT_EQ(mismatches(image, 0, 0, 1, 1, &where), 0) << where;
  EXPECT_TRUE(controller().complaints().empty());
}

}  // namespace

namespace {

using namespace tvx_test;

// Every data mode the converter's settings select, through both paths. Mode 18 keeps three
// words of every four it reads: the last quarter of each pixel block is never written.
TEST_F(EndToEnd, EveryDataModeReadsBackThroughBothPaths) {
  bring_up();
  struct Mode {
    INT32 adc;
    double integration;
    INT32 data_mode;
  };
  const Mode modes[] = {{0, 4.0, 0},  {1, 0.5, 5}, {1, 4.0, 9}, {17, 4.0, 10},
                        {3, 0.5, 14}, {5, 0.5, 5}, {7, 4.0, 18}};
  for (const Mode &m : modes) {
    SCOPED_TRACE("adc mode " + std::to_string(m.adc));
    set_mode(m.adc, m.integration);
    INT32 data_mode = -1;
    ASSERT_TRUE(server_data_mode(server_, &data_mode));
    EXPECT_EQ(data_mode, m.data_mode);
    // One region, 24 x 16 from (8, 4).
    HANDLE one = images();
    ASSERT_TRUE(server_readout_ccd(server_, regions({{8, 4, 24, 16}}), one,
                                   params(80, 64, 1, 1, nullptr, nullptr)))
        << story();
    HANDLE image = list_get_nth_object(one, 1);
    std::string where;
    if (m.data_mode == 18) {
      const int filled = 24 * 16 * 3 / 4;
      int bad = 0;
      for (int k = 0; k < 24 * 16; ++k) {
        const uint32_t got = pixel(image, k % 24, k / 24);
        const uint32_t want = k < filled ? expected(8 + k % 24, 4 + k / 24, 1, 1, false) : 0;
        bad += got != want;
      }
      EXPECT_EQ(bad, 0);
      continue;
    }
    EXPECT_EQ(mismatches(image, 8, 4, 1, 1, &where), 0) << where;
    // Two regions side by side through a read sequence.
    HANDLE two = images();
    ASSERT_TRUE(server_readout_ccd(server_, regions({{0, 8, 12, 6}, {40, 8, 8, 6}}), two,
                                   params(80, 64, 1, 1, nullptr, nullptr)))
        << story();
    ASSERT_EQ(list_size(two), 2);
    EXPECT_EQ(mismatches(list_get_nth_object(two, 1), 0, 8, 1, 1, &where), 0) << where;
    EXPECT_EQ(mismatches(list_get_nth_object(two, 2), 40, 8, 1, 1, &where), 0) << where;
  }
  EXPECT_TRUE(controller().complaints().empty());
}

TEST_F(EndToEnd, BinningSumsChargeInEveryRegionPixelExact) {
  bring_up();
  // Word by word (data mode 9): binned images of odd pixel counts cannot travel in pairs.
  set_mode(1, 4.0);
  for (int bx = 1; bx <= 4; ++bx)
    for (int by = 1; by <= 4; ++by) {
      SCOPED_TRACE(std::to_string(bx) + " x " + std::to_string(by));
      HANDLE list = images();
      ASSERT_TRUE(server_readout_ccd(server_, regions({{10, 6, 30, 20}}), list,
                                     params(80, 64, bx, by, nullptr, nullptr)))
          << story();
      // The fitted region keeps its right and bottom edges on the binning grid.
      const int nx = std::max((30 + bx / 2) / bx, 1), ny = std::max((20 + by / 2) / by, 1);
      const int x0 = (10 + 30 - nx * bx + bx / 2) / bx * bx;
      const int y0 = (6 + 20 - ny * by + by / 2) / by * by;
      HANDLE image = list_get_nth_object(list, 1);
      INT32 w, h, d;
      image_size(image, &w, &h, &d);
      EXPECT_EQ(w, nx);
      EXPECT_EQ(h, ny);
      std::string where;
      EXPECT_EQ(mismatches(image, x0, y0, bx, by, &where), 0) << where;
    }
}

TEST_F(EndToEnd, SeveralRegionsComeBackAsOneImageEach) {
  bring_up();
  struct Case {
    const char *what;
    std::initializer_list<std::array<INT32, 4>> rects;
    int bx, by;
  };
  const Case cases[] = {
      {"side by side", {{0, 0, 10, 10}, {20, 0, 10, 10}, {60, 0, 20, 10}}, 1, 1},
      {"stacked with a gap", {{5, 2, 20, 8}, {5, 30, 20, 8}}, 1, 1},
      {"overlapping rows", {{0, 10, 16, 20}, {30, 20, 16, 20}}, 2, 2},
      {"binned 3 x 2", {{3, 3, 21, 12}, {40, 40, 12, 18}}, 3, 2},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    HANDLE list = images();
    HANDLE rl = regions(c.rects);
    ASSERT_TRUE(server_readout_ccd(server_, rl, list, params(80, 64, c.bx, c.by, nullptr, nullptr)))
        << story();
    ASSERT_EQ(list_size(list), list_size(rl));
    int i = 0;
    for (const auto &r : c.rects) {
      ++i;
      const int nx = std::max((r[2] + c.bx / 2) / c.bx, 1),
                ny = std::max((r[3] + c.by / 2) / c.by, 1);
      const int x0 = (r[0] + r[2] - nx * c.bx + c.bx / 2) / c.bx * c.bx;
      const int y0 = (r[1] + r[3] - ny * c.by + c.by / 2) / c.by * c.by;
      HANDLE image = list_get_nth_object(list, i);
      EXPECT_STREQ(image_getname(image), ("r" + std::to_string(i)).c_str());
      std::string where;
      EXPECT_EQ(mismatches(image, x0, y0, c.bx, c.by, &where), 0) << where;
    }
  }
  // More images than regions: the surplus is left as it was.
  HANDLE list = images();
  for (int i = 0; i < 3; ++i) list_append_tail(list, image_new(4, 4, 16));
  ASSERT_TRUE(server_readout_ccd(server_, regions({{0, 0, 8, 8}, {16, 0, 8, 8}}), list,
                                 params(80, 64, 1, 1, nullptr, nullptr)))
      << story();
  INT32 w, h, d;
  image_size(list_get_nth_object(list, 3), &w, &h, &d);
  EXPECT_EQ(w, 4);
  std::string where;
  EXPECT_EQ(mismatches(list_get_nth_object(list, 2), 16, 0, 1, 1, &where), 0) << where;
}

}  // namespace
