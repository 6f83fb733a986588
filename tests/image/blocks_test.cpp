// The image record and its pixel blocks: block arithmetic and limits, raster locking and copying
// with their messages, printing, names, and allocation failures that leave nothing behind.
#include <string>

#include "image_support.h"

namespace tvx_test {
namespace {

using Blocks = ImageTest;

// Raster size, rasters per block, block count and rasters in the last block, as the library
// keeps them, after checking that every block holds whole rasters within the block limit.
std::array<INT32, 4> layout_of(HANDLE image) {
  auto *rec = static_cast<image_rec *>(handle_lock(image, "test"));
  auto *table = static_cast<image_block *>(handle_lock(rec->pixel_blocks, "test"));
  for (INT32 b = 0; b < rec->block_cnt; ++b) {
    EXPECT_EQ(table[b].size, table[b].rasters * static_cast<DWORD>(rec->raster_size));
    EXPECT_LE(table[b].size, static_cast<DWORD>(IMAGE_BLOCK_BYTES));
    if (b + 1 < rec->block_cnt) {
      EXPECT_EQ(table[b].rasters, DWORD(rec->rasters_per_block));
    }
  }
  std::array<INT32, 4> l{rec->raster_size, rec->rasters_per_block, rec->block_cnt,
                         static_cast<INT32>(table[rec->block_cnt - 1].rasters)};
  handle_unlock(rec->pixel_blocks, "test");
  handle_unlock(image, "test");
  return l;
}

TEST_F(Blocks, RastersArePackedIntoBlocksOfAtMost65464Bytes) {
  struct Case {
    INT32 width, height, depth;
    std::array<INT32, 4> layout;
  };
  const Case cases[] = {
      {1024, 1024, 16, {2048, 31, 34, 1}},  // 33 full blocks and one raster over
      {65464, 3, 8, {65464, 1, 3, 1}},      // one raster fills a block
      {100, 10, 12, {200, 327, 1, 10}},     // 12 bits take two bytes
      {7, 5, 1, {7, 9352, 1, 5}},
      {1000, 131, 32, {4000, 16, 9, 3}},
      {10, 3, 24, {30, 2182, 1, 3}},
      {2000, 64, 16, {4000, 16, 4, 16}},  // an exact number of full blocks: no short one
  };
  for (const Case &c : cases) {
    HANDLE img = image(c.width, c.height, c.depth);
    ASSERT_NE(img, nullptr);
    EXPECT_EQ(layout_of(img), c.layout) << c.width << "x" << c.depth;
    INT32 ppb = 0;
    EXPECT_TRUE(image_pixels_per_block(img, &ppb));
    EXPECT_EQ(ppb, c.width * c.layout[1]);
    EXPECT_EQ(image_getpixelsize(img) * c.width, c.layout[0]);
    EXPECT_EQ(image_getrastersize(img), c.layout[0]);
  }
}

TEST_F(Blocks, SizesThatCannotBeImagesAreRefusedAndLoseNothing) {
  struct Refusal {
    INT32 width, height, depth, category, cause;
    const char *text;
  };
  const Refusal refusals[] = {
      {0, 10, 16, ERR_NO_DATA, 0x1070, "null image size (0 x 10) specified."},
      {10, 0, 16, ERR_NO_DATA, 0x1070, "null image size (10 x 0) specified."},
      {65465, 1, 8, ERR_OUT_OF_RANGE, 0x1071, "requested image size (65465 x 1) too large."},
      {32733, 1, 16, ERR_OUT_OF_RANGE, 0x1071, "requested image size (32733 x 1) too large."},
      // Larger than the largest picture the controller can send (4224 x 32000, two channels).
      {4224, 32001, 32, ERR_OUT_OF_RANGE, 0x1071, "requested image size (4224 x 32001) too large."},
      {10, 10, 0, ERR_OUT_OF_RANGE, 0x1070, "image depth (0 bits) not in range 1 - 32."},
      {10, 10, 33, ERR_OUT_OF_RANGE, 0x1070, "image depth (33 bits) not in range 1 - 32."},
      {-5, 10, 8, ERR_OUT_OF_RANGE, 0x1070, "negative image size (-5 x 10) specified."},
  };
  for (const Refusal &r : refusals) {
    EXPECT_EQ(image_new(r.width, r.height, r.depth), nullptr) << r.text;
    EXPECT_TRUE(has_cause(r.cause)) << r.text;
    EXPECT_NE(print_last(ERR_MODE_TRACEBACK).find("unable to allocate image"), std::string::npos);
    expect_error(r.category, "image_allocatepixels", r.text);
  }
  // A size no image can have keeps the pixels the image had, and so does a matching size; a
  // size too large for the blocks is an allocation that fails, and leaves the image without.
  HANDLE img = image(20, 20, 16);
  fill_pattern(img);
  EXPECT_FALSE(image_allocatepixels(img, 20, 20, 0));
  story();
  EXPECT_EQ(get_pixel(img, 19, 19), pattern(19, 19, 16));
  EXPECT_TRUE(image_check_size(img, 20, 20, 16));
  EXPECT_EQ(get_pixel(img, 5, 7), pattern(5, 7, 16)) << "a matching size keeps the pixels";
  EXPECT_FALSE(image_allocatepixels(img, 65465, 1, 8));
  story();
  EXPECT_EQ(image_lockraster(img, 0), nullptr);
  expect_text("image has no pixels.");
}

TEST_F(Blocks, EveryFailedAllocationIsReportedAndFreesWhatItTook) {
  // The record, the table and three blocks: fail each in turn.
  for (INT32 nth = 1; nth <= 5; ++nth) {
    tvx_test_fail_allocation(nth, FALSE);
    EXPECT_EQ(image_new(1024, 70, 16), nullptr) << nth;
    EXPECT_EQ(tvx_test_injected_failures(), 1) << nth;
    EXPECT_NE(story().find("unable to allocate image (1024 x 70 x 16)"), std::string::npos);
  }
  tvx_test_fail_allocation(0, FALSE);
  // A resize that fails leaves the image without pixels, and every operation says so.
  HANDLE img = image(10, 10, 8);
  tvx_test_fail_allocation(2, FALSE);
  EXPECT_FALSE(image_check_size(img, 10, 10, 16));
  story();
  EXPECT_EQ(image_lockraster(img, 0), nullptr);
  expect_text("image has no pixels.");
  EXPECT_FALSE(image_write(img, path("x.img").c_str()));
  story();
  EXPECT_TRUE(image_check_size(img, 10, 10, 16)) << "the same size allocates again";
  EXPECT_NE(image_lockraster(img, 9), nullptr);
  EXPECT_TRUE(image_unlockraster(img, 9));
}

TEST_F(Blocks, RasterLocksAreCountedPerBlock) {
  tvx_test_moving_blocks(TRUE);
  HANDLE img = image(1024, 64, 16);  // 31 rasters a block
  auto lock_count = [&](INT32 block) {
    auto *rec = static_cast<image_rec *>(handle_lock(img, "test"));
    auto *table = static_cast<image_block *>(handle_lock(rec->pixel_blocks, "test"));
    DWORD n = table[block].lock_count;
    handle_unlock(rec->pixel_blocks, "test");
    handle_unlock(img, "test");
    return n;
  };
  auto *a = static_cast<BYTE *>(image_lockraster(img, 3));
  auto *b = static_cast<BYTE *>(image_lockraster(img, 30));
  ASSERT_TRUE(a != nullptr && b != nullptr);
  EXPECT_EQ(b - a, 27 * 2048) << "two rows of one block lie in the same block";
  EXPECT_EQ(lock_count(0), 2u);
  EXPECT_EQ(lock_count(1), 0u);
  a[0] = 0x5A;
  b[2047] = 0xA5;
  EXPECT_TRUE(image_unlockraster(img, 3));
  EXPECT_TRUE(image_unlockraster(img, 30));
  EXPECT_EQ(lock_count(0), 0u);
  // An unlock too many changes nothing, and the pixels survived the block's moves.
  EXPECT_TRUE(image_unlockraster(img, 30));
  EXPECT_EQ(lock_count(0), 0u);
  EXPECT_EQ(get_pixel(img, 3, 0) & 0xFF, 0x5Au);
  EXPECT_EQ(get_pixel(img, 30, 1023) >> 8, 0xA5u);
  // A row of the last block is counted there.
  ASSERT_NE(image_lockraster(img, 63), nullptr);
  EXPECT_EQ(lock_count(2), 1u);
  EXPECT_TRUE(image_unlockraster(img, 63));
}

TEST_F(Blocks, RastersCopyInAndOutThroughABufferHandleAndNotOffTheImage) {
  HANDLE img = image(300, 500, 16);  // 109 rasters a block
  fill_pattern(img);
  HANDLE buffer = handle_allocate(600, 1, MEM_PLAIN);
  ASSERT_TRUE(image_getraster(img, 218, buffer));  // first raster of the third block
  auto *bytes = static_cast<BYTE *>(handle_lock(buffer, "test"));
  EXPECT_EQ(bytes[2 * 299] | (bytes[2 * 299 + 1] << 8), static_cast<int>(pattern(218, 299, 16)));
  bytes[0] = 0x34, bytes[1] = 0x12;
  handle_unlock(buffer, "test");
  ASSERT_TRUE(image_setraster(img, 499, buffer));
  EXPECT_EQ(get_pixel(img, 499, 0), 0x1234u);
  EXPECT_EQ(get_pixel(img, 499, 299), pattern(218, 299, 16));
  EXPECT_EQ(get_pixel(img, 498, 0), pattern(498, 0, 16)) << "its neighbour is untouched";
  // Rows off the image, each refusal in its own words.
  EXPECT_EQ(image_lockraster(img, 500), nullptr);
  EXPECT_TRUE(has_cause(0x1040));
  expect_error(ERR_OUT_OF_RANGE, "image_lockraster",
               "requested raster (500) off image (height is 500).");
  EXPECT_EQ(image_lockraster(img, -1), nullptr);
  expect_error(ERR_OUT_OF_RANGE, "image_lockraster",
               "requested raster (-1) off image (height is 500).");
  EXPECT_FALSE(image_unlockraster(img, 501));
  expect_error(ERR_OUT_OF_RANGE, "image_unlockraster",
               "requested raster (501) off image (height is 500).");
  EXPECT_FALSE(image_getraster(img, 500, buffer));
  expect_error(ERR_NO_DATA, "image_getraster", "Requested raster (500) off image (height is 500).");
  EXPECT_FALSE(image_setraster(img, 500, buffer));
  expect_error(ERR_NO_DATA, "image_setraster", "requested raster (500) off image (height is 500).");
  handle_free(buffer, "test");
  // A buffer that cannot hold a raster is refused rather than overrun.
  HANDLE small = handle_allocate(599, 1, MEM_PLAIN);
  EXPECT_FALSE(image_getraster(img, 0, small));
  expect_text("buffer of 599 bytes too small for a raster of 600 bytes.");
  handle_free(small, "test");
}

TEST_F(Blocks, PrintFormsNamesAndEquality) {
  HANDLE img = image(1024, 40, 12);
  std::string text = printed([&](FILE *out) {
    EXPECT_TRUE(image_print(img, out));
    EXPECT_TRUE(image_set_signed(img, TRUE));
    EXPECT_TRUE(image_print(img, out));
    EXPECT_TRUE(image_print_details(img, out));
  });
  const std::string line =
      "image(width 1024 height 40 depth 12 block_cnt 2 rasters_per_block 31 raster_size 2048 ";
  const std::string head =
      line + "unsigned pixels)\n" + line + "signed pixels)\n" + "image record: memrec(class 1038";
  EXPECT_EQ(text.substr(0, head.size()), head);
  EXPECT_NE(text.find("block 1: memrec(class 0, size 18460,"), std::string::npos) << text;
  EXPECT_FALSE(image_print_details(nullptr, stdout));
  expect_text("invalid image handle");
  INT32 w = 0, h = 0;
  EXPECT_FALSE(image_size(img, &w, &h, nullptr));
  expect_error(ERR_INCONSISTENT, "image_size", "invalid argument");

  // Found by name in a list.
  HANDLE list = list_new();
  HANDLE named = image_new(4, 4, 8);
  image_setname(named, "bias");  // freed with the image
  list_append_tail(list, image_new(4, 4, 8));
  list_append_tail(list, named);
  EXPECT_EQ(image_list_find_name(list, "bias"), named);
  EXPECT_EQ(image_list_find_name(list, "dark"), nullptr);
  EXPECT_TRUE(image_setname(named, nullptr));
  EXPECT_EQ(image_list_find_name(list, "bias"), nullptr) << "a cleared name is found no more";
  EXPECT_TRUE(image_list_delete(list));  // deletes both images

  // Equal by shape and every pixel; a difference is no error.
  HANDLE a = image(100, 700, 16), b = image(100, 700, 16);
  fill_pattern(a);
  fill_pattern(b);
  EXPECT_TRUE(image_equal(a, b));
  set_pixel(b, 699, 99, pattern(699, 99, 16) ^ 1);
  EXPECT_FALSE(image_equal(a, b));
  EXPECT_FALSE(image_equal(a, image(100, 700, 15)));
  EXPECT_FALSE(image_equal(a, image(700, 100, 16)));
  EXPECT_EQ(top_category(), ERR_NONE);
}

}  // namespace
}  // namespace tvx_test
