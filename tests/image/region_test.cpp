// Regions and copies: the region check and clipping, cutting across block boundaries, fills,
// blits, pastes, mirrored copies and right-angle transforms, and the region list helpers.
#include <cstdio>
#include <string>

#include "image_support.h"
#include "tvx/list.h"

namespace tvx_test {
namespace {

using Regions = ImageTest;

TEST_F(Regions, ARegionMustLieOnTheImageButMayStartOnItsFarEdge) {
  struct Case {
    region_rec r;
    bool valid;
  };
  const Case cases[] = {
      {{0, nullptr, 0, 0, 100, 50}, true},
      {{0, nullptr, 100, 0, 0, 50}, true},
      {{0, nullptr, 0, 50, 100, 0}, true},
      {{0, nullptr, 99, 49, 1, 1}, true},
      {{0, nullptr, 100, 0, 1, 1}, false},
      {{0, nullptr, 0, 0, 101, 50}, false},
      {{0, nullptr, 60, 10, 41, 5}, false},
      {{0, nullptr, 0, 45, 10, 6}, false},
      {{0, nullptr, -1, 0, 10, 10}, false},
      {{0, nullptr, 5, 5, -2, 3}, false},
      {{0, nullptr, 0x7FFFFFF0, 0, 0x7FFFFFF0, 1}, false},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(region_valid(&c.r, 100, 50, "chip") != 0, c.valid) << c.r.x << "," << c.r.y;
    if (!c.valid) {
      EXPECT_EQ(top_category(), ERR_OUT_OF_RANGE);
      EXPECT_TRUE(has_cause(0x1040));
      story();
    }
  }
  region_rec off{0, nullptr, 90, 40, 20, 5};
  EXPECT_FALSE(region_valid(&off, 100, 50, "source image"));
  EXPECT_EQ(terminal_text(), "region specification (90 40, 20 5) off source image (100 x 50)");
  EXPECT_EQ(terminal_routine(), "region_valid");
  story();
}

TEST_F(Regions, CuttingARegionCrossesBlockBoundariesRowByRow) {
  // 2048-byte rasters, 31 to a block: rows 20 .. 69 span three blocks.
  for (INT32 depth : {8, 16, 24, 32}) {
    INT32 width = 2048 / bytes_per_pixel(depth);
    HANDLE src = image(width, 100, depth);
    fill_pattern(src);
    HANDLE r = region_new(width - 37, 20, 37, 50, "edge");
    HANDLE out = nullptr;
    ASSERT_TRUE(image_region(src, r, &out)) << story();
    keep(out);
    INT32 w = 0, h = 0, d = 0;
    image_size(out, &w, &h, &d);
    EXPECT_EQ(w, 37);
    EXPECT_EQ(h, 50);
    EXPECT_EQ(d, depth);
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
}

TEST_F(Regions, FailedCutsSayWhyAndLeaveNoImageBehind) {
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
  struct Case {
    INT32 depth;
    DWORD expected;
  };
  for (const Case &c : {Case{8, 0x78u}, Case{16, 0x5678u}, Case{32, 0x12345678u}}) {
    HANDLE img = image(200, 400, c.depth);
    fill_pattern(img);
    HANDLE r = region_new(150, 100, 60, 300, nullptr);  // runs off the right: refused
    EXPECT_FALSE(image_set_region(img, r, 0x12345678));
    EXPECT_EQ(print_last(ERR_MODE_TRACEBACK).substr(0, 49),
              "image_set_region-> unable to set region of image.");
    story();
    region_delete(r);
    r = region_new(150, 100, 50, 300, "band");
    ASSERT_TRUE(image_set_region(img, r, 0x12345678));
    EXPECT_EQ(get_pixel(img, 100, 150), c.expected);
    EXPECT_EQ(get_pixel(img, 399, 199), c.expected);
    EXPECT_EQ(get_pixel(img, 99, 150), pattern(99, 150, c.depth));
    EXPECT_EQ(get_pixel(img, 100, 149), pattern(100, 149, c.depth));
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
  EXPECT_EQ(terminal_text(), "requested blit off image.");
  EXPECT_EQ(top_category(), ERR_OUT_OF_RANGE);
  story();
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
  struct Case {
    INT32 op;
    bool swaps;
    // Where the result's pixel (r, c) comes from, written out independently.
    INT32 (*row)(INT32 r, INT32 c);
    INT32 (*col)(INT32 r, INT32 c);
  };
  const Case cases[] = {
      {IMAGE_FLIP_ROWS, false, [](INT32 r, INT32) { return h - 1 - r; },
       [](INT32, INT32 c) { return c; }},
      {IMAGE_FLIP_COLUMNS, false, [](INT32 r, INT32) { return r; },
       [](INT32, INT32 c) { return w - 1 - c; }},
      {IMAGE_ROTATE_90, true, [](INT32, INT32 c) { return h - 1 - c; },
       [](INT32 r, INT32) { return r; }},
      {IMAGE_ROTATE_180, false, [](INT32 r, INT32) { return h - 1 - r; },
       [](INT32, INT32 c) { return w - 1 - c; }},
      {IMAGE_ROTATE_270, true, [](INT32, INT32 c) { return c; },
       [](INT32 r, INT32) { return w - 1 - r; }},
      {IMAGE_TRANSPOSE, true, [](INT32, INT32 c) { return c; }, [](INT32 r, INT32) { return r; }},
  };
  for (const Case &c : cases) {
    HANDLE out = nullptr;
    ASSERT_TRUE(image_transform(src, &out, c.op)) << story();
    keep(out);
    INT32 ow = 0, oh = 0, od = 0;
    image_size(out, &ow, &oh, &od);
    EXPECT_EQ(ow, c.swaps ? h : w);
    EXPECT_EQ(oh, c.swaps ? w : h);
    for (INT32 r = 0; r < oh; r += 13)
      for (INT32 col = 0; col < ow; col += 17)
        ASSERT_EQ(get_pixel(out, r, col), pattern(c.row(r, col), c.col(r, col), 16)) << c.op;
  }
  // Clockwise: the first raster becomes the last column.
  HANDLE turned = nullptr;
  ASSERT_TRUE(image_transform(src, &turned, IMAGE_ROTATE_90));
  keep(turned);
  EXPECT_EQ(get_pixel(turned, 5, h - 1), pattern(0, 5, 16));
  HANDLE back = nullptr;
  ASSERT_TRUE(image_transform(turned, &back, IMAGE_ROTATE_270));
  keep(back);
  EXPECT_TRUE(image_equal(src, back));

  HANDLE out = nullptr;
  EXPECT_FALSE(image_transform(src, &out, 6));
  EXPECT_EQ(terminal_text(), "unknown transform 6.");
  story();
}

TEST_F(Regions, RegionRecordsListsAndOrder) {
  HANDLE list = list_new();
  for (INT32 x : {30, 10, 20}) list_append_tail(list, region_new(x, 1, 2, 3, "r"));
  ASSERT_TRUE(list_sort(list, region_exchangefn1));
  INT32 xs[3] = {};
  for (INT32 i = 1; i <= 3; ++i) {
    INT32 x = 0, y = 0, w = 0, h = 0;
    ASSERT_TRUE(region_get(list_get_nth_object(list, i), &x, &y, &w, &h));
    xs[i - 1] = x;
  }
  EXPECT_EQ(xs[0], 10);
  EXPECT_EQ(xs[2], 30);
  EXPECT_FALSE(region_exchangefn1(nullptr, list_get_nth_object(list, 1)));

  HANDLE r = list_get_nth_object(list, 1);
  char *text = nullptr;
  size_t size = 0;
  FILE *out = open_memstream(&text, &size);
  region_print(r, out);
  region_setname(r, nullptr);
  region_print(r, out);
  std::fclose(out);
  EXPECT_EQ(std::string(text, size),
            "region(name r, x 10, y 1, width 2, height 3)"
            "region(name (null), x 10, y 1, width 2, height 3)");
  std::free(text);
  EXPECT_TRUE(region_list_delete(list));
}

}  // namespace
}  // namespace tvx_test
