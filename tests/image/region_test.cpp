// Regions and copies: the region check and clipping, cutting across block boundaries, fills,
// blits, pastes, mirrored copies and right-angle transforms, and the region list helpers.
#include <string>
#include <utility>

#include "image_support.h"
#include "tvx/list.h"

namespace tvx_test {
namespace {

using Regions = ImageTest;

TEST_F(Regions, ARegionMustLieOnTheImageButMayStartOnItsFarEdge) {
  const std::array<INT32, 5> cases[] = {
      // x, y, width, height, valid on 100 x 50
      {0, 0, 100, 50, 1},
      {100, 0, 0, 50, 1},
      {0, 50, 100, 0, 1},
      {99, 49, 1, 1, 1},
      {100, 0, 1, 1, 0},
      {0, 0, 101, 50, 0},
      {60, 10, 41, 5, 0},
      {0, 45, 10, 6, 0},
      {-1, 0, 10, 10, 0},
      {5, 5, -2, 3, 0},
      {0x7FFFFFF0, 0, 0x7FFFFFF0, 1, 0},
  };
  for (const auto &c : cases) {
    region_rec r{0, nullptr, c[0], c[1], c[2], c[3]};
    EXPECT_EQ(region_valid(&r, 100, 50, "chip") != 0, c[4] == 1) << c[0] << "," << c[1];
    if (!c[4]) {
      EXPECT_TRUE(has_cause(0x1040));
      EXPECT_EQ(top_category(), ERR_OUT_OF_RANGE);
      story();
    }
  }
  region_rec off{0, nullptr, 90, 40, 20, 5};
  EXPECT_FALSE(region_valid(&off, 100, 50, "source image"));
  expect_error(ERR_OUT_OF_RANGE, "region_valid",
               "region specification (90 40, 20 5) off source image (100 x 50)");
}

TEST_F(Regions, CutsCrossBlockBoundariesRowByRowAndFailedOnesLeaveNoImage) {
  // 2048-byte rasters, 31 to a block: rows 20 .. 69 span three blocks.
  for (INT32 depth : {8, 16, 24, 32}) {
    INT32 width = 2048 / bytes_per_pixel(depth);
    HANDLE src = image(width, 100, depth);
    fill_pattern(src);
    HANDLE r = region_new(width - 37, 20, 37, 50, "edge");
    HANDLE out = nullptr;
    ASSERT_TRUE(image_region(src, r, &out)) << story();
    keep(out);
    EXPECT_EQ(size_of(out), (std::array<INT32, 3>{37, 50, depth}));
    for (INT32 i = 0; i < 50; ++i)
      for (INT32 c : {0, 36})
        ASSERT_EQ(get_pixel(out, i, c), pattern(20 + i, width - 37 + c, depth)) << depth;
    // A second cut into the same image reuses it, resizing when the region differs.
    HANDLE small = region_new(1, 2, 3, 4, nullptr);
    HANDLE before = out;
    ASSERT_TRUE(image_region(src, small, &out));
    EXPECT_EQ(out, before);
    EXPECT_EQ(get_pixel(out, 3, 2), pattern(5, 3, depth));
    region_delete(small);
    region_delete(r);
  }
  // Failed cuts say why and leave no image behind.
  HANDLE src = image(64, 64, 16);
  HANDLE off = region_new(60, 0, 5, 5, "off");
  HANDLE out = nullptr;
  EXPECT_FALSE(image_region(src, off, &out));
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(print_last(ERR_MODE_TRACEBACK).substr(0, 126),
            "image_region-> unable to extract region of image.\n"
            "region_valid-> region specification (60 0, 5 5) off source image (64 x 64).\n");
  story();
  tvx_test_fail_allocation(3, FALSE);  // the new image's first pixel block
  HANDLE whole = region_new(0, 0, 64, 64, nullptr);
  EXPECT_FALSE(image_region(src, whole, &out));
  EXPECT_EQ(out, nullptr);
  story();
  out = src;
  EXPECT_FALSE(image_region(src, whole, &out)) << "cutting an image into itself";
  story();
  region_delete(whole);
  region_delete(off);
}

TEST_F(Regions, FillsStoreTheValueByPixelSizeInsideTheRegionOnly) {
  for (auto [depth, expected] : {std::pair{8, 0x78u}, {16, 0x5678u}, {32, 0x12345678u}}) {
    HANDLE img = image(200, 400, depth);
    fill_pattern(img);
    HANDLE r = region_new(150, 100, 60, 300, nullptr);  // runs off the right: refused
    EXPECT_FALSE(image_set_region(img, r, 0x12345678));
    EXPECT_EQ(print_last(ERR_MODE_TRACEBACK).substr(0, 49),
              "image_set_region-> unable to set region of image.");
    story();
    region_delete(r);
    r = region_new(150, 100, 50, 300, "band");
    ASSERT_TRUE(image_set_region(img, r, 0x12345678));
    EXPECT_EQ(get_pixel(img, 100, 150), expected);
    EXPECT_EQ(get_pixel(img, 399, 199), expected);
    EXPECT_EQ(get_pixel(img, 99, 150), pattern(99, 150, depth));
    EXPECT_EQ(get_pixel(img, 100, 149), pattern(100, 149, depth));
    region_delete(r);
  }
}

TEST_F(Regions, BlitsCopyWholeRastersBlockByBlockAndCutAtTheLastRaster) {
  HANDLE img = image(1024, 100, 16);  // 31 rasters a block
  std::vector<WORD> rows(1024 * 80);
  for (size_t i = 0; i < rows.size(); ++i) rows[i] = static_cast<WORD>(i * 7 + 1);
  ASSERT_TRUE(image_blit(img, 25, 80, rows.data()));  // 75 fit: cut at the last raster
  EXPECT_EQ(get_pixel(img, 25, 0), rows[0]);
  EXPECT_EQ(get_pixel(img, 30, 1023), rows[5 * 1024 + 1023]);
  EXPECT_EQ(get_pixel(img, 31, 0), rows[6 * 1024]);
  EXPECT_EQ(get_pixel(img, 99, 1023), rows[74 * 1024 + 1023]);
  EXPECT_EQ(get_pixel(img, 24, 1023), 0u);
  // Off the image: the error is set and nothing copied, yet the blit reports success.
  EXPECT_TRUE(image_blit(img, 100, 1, rows.data()));
  expect_error(ERR_OUT_OF_RANGE, "image_blit", "requested blit off image.");
  EXPECT_FALSE(image_blit(img, 0, 1, nullptr));
  story();
}

TEST_F(Regions, PastesAndMirroredCopies) {
  HANDLE big = image(300, 300, 16), small = image(40, 90, 16);
  fill_pattern(small);
  ASSERT_TRUE(image_paste(big, small, 260, 210));
  EXPECT_EQ(get_pixel(big, 210, 260), pattern(0, 0, 16));
  EXPECT_EQ(get_pixel(big, 299, 299), pattern(89, 39, 16));
  EXPECT_EQ(get_pixel(big, 209, 260), 0u);
  EXPECT_FALSE(image_paste(big, small, 261, 210));
  EXPECT_NE(story().find("off destination image (300 x 300)"), std::string::npos);
  EXPECT_FALSE(image_paste(big, image(4, 4, 8), 0, 0));
  EXPECT_NE(story().find("pixel sizes differ (1 and 2 bytes)"), std::string::npos);

  HANDLE src = image(50, 700, 24);  // several blocks, 3-byte pixels
  fill_pattern(src);
  image_set_signed(src, TRUE);
  for (int flips = 0; flips < 4; ++flips) {
    bool rows = flips & 1, cols = flips & 2;
    HANDLE out = nullptr;
    ASSERT_TRUE(image_copy(src, &out, rows, cols));
    keep(out);
    EXPECT_TRUE(image_is_signed(out));
    for (INT32 r : {0, 1, 350, 699})
      for (INT32 c : {0, 1, 49})
        ASSERT_EQ(get_pixel(out, r, c), pattern(rows ? 699 - r : r, cols ? 49 - c : c, 24))
            << flips;
    if (flips == 0) {
      EXPECT_TRUE(image_equal(src, out));
    }
  }
}

TEST_F(Regions, TransformsMapEveryPixelByRightAngles) {
  const INT32 w = 70, h = 1000;  // 2-byte pixels, 467 rasters a block: three blocks
  HANDLE src = image(w, h, 16);
  fill_pattern(src);
  // Result pixel (r, c) comes from source row r0 + rr * r + rc * c, column c0 + cr * r + cc * c.
  const std::array<INT32, 7> cases[] = {
      // op, r0, rr, rc, c0, cr, cc
      {IMAGE_FLIP_ROWS, h - 1, -1, 0, 0, 0, 1},  {IMAGE_FLIP_COLUMNS, 0, 1, 0, w - 1, 0, -1},
      {IMAGE_ROTATE_90, h - 1, 0, -1, 0, 1, 0},  {IMAGE_ROTATE_180, h - 1, -1, 0, w - 1, 0, -1},
      {IMAGE_ROTATE_270, 0, 0, 1, w - 1, -1, 0}, {IMAGE_TRANSPOSE, 0, 0, 1, 0, 1, 0},
  };
  for (const auto &[op, r0, rr, rc, c0, cr, cc] : cases) {
    HANDLE out = nullptr;
    ASSERT_TRUE(image_transform(src, &out, op)) << story();
    keep(out);
    bool swaps = op == IMAGE_ROTATE_90 || op == IMAGE_ROTATE_270 || op == IMAGE_TRANSPOSE;
    auto [ow, oh, od] = size_of(out);
    EXPECT_EQ(ow, swaps ? h : w);
    EXPECT_EQ(oh, swaps ? w : h);
    for (INT32 r = 0; r < oh; r += 13)
      for (INT32 c = 0; c < ow; c += 17)
        ASSERT_EQ(get_pixel(out, r, c), pattern(r0 + rr * r + rc * c, c0 + cr * r + cc * c, 16))
            << op;
  }
  // A quarter turn each way brings back every pixel.
  HANDLE turned = nullptr, back = nullptr;
  ASSERT_TRUE(image_transform(src, &turned, IMAGE_ROTATE_90));
  ASSERT_TRUE(image_transform(keep(turned), &back, IMAGE_ROTATE_270));
  EXPECT_TRUE(image_equal(src, keep(back)));
  HANDLE out = nullptr;
  EXPECT_FALSE(image_transform(src, &out, 6));
  expect_text("unknown transform 6.");
}

TEST_F(Regions, RegionRecordsListsAndOrder) {
  HANDLE list = list_new();
  for (INT32 x : {30, 10, 20}) list_append_tail(list, region_new(x, 1, 2, 3, "r"));
  ASSERT_TRUE(list_sort(list, region_exchangefn1));
  std::vector<INT32> xs;
  for (INT32 i = 1; i <= 3; ++i) {
    INT32 x = 0, y = 0, rw = 0, rh = 0;
    ASSERT_TRUE(region_get(list_get_nth_object(list, i), &x, &y, &rw, &rh));
    xs.push_back(x);
  }
  EXPECT_EQ(xs, (std::vector<INT32>{10, 20, 30}));
  EXPECT_FALSE(region_exchangefn1(nullptr, list_get_nth_object(list, 1)));
  HANDLE r = list_get_nth_object(list, 1);
  EXPECT_EQ(printed([&](FILE *out) {
              region_print(r, out);
              region_setname(r, nullptr);
              region_print(r, out);
            }),
            "region(name r, x 10, y 1, width 2, height 3)"
            "region(name (null), x 10, y 1, width 2, height 3)");
  EXPECT_TRUE(region_list_delete(list));
}

}  // namespace
}  // namespace tvx_test
