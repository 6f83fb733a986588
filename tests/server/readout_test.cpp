// Read sequences against hand-built encodings, the replay that unscrambles them, the stream's
// faults with their messages, and frame series timed on the virtual clock.
#include <cstdint>

#include "server/readout_support.h"

namespace {

using namespace tvx_test;

std::vector<DWORD> words_of(HANDLE sequence) {
  std::vector<DWORD> words;
  for (INT32 i = 1; i <= list_size(sequence); ++i)
    words.push_back(
        static_cast<DWORD>(reinterpret_cast<uintptr_t>(list_get_nth_object(sequence, i))));
  return words;
}

// A read-sequence word: a count above a four-bit code.
DWORD e(DWORD value, DWORD code) {
  return value << 4 | code;
}

using Sequences = ConfigTest;

TEST_F(Sequences, RowGroupsEncodeAsHandBuiltWords) {
  // The words for regions of a map of w x h binned pixels, after checking the pixel count.
  auto encoded = [&](std::initializer_list<std::array<INT32, 4>> rects, INT32 w, INT32 h, INT32 bx,
                     INT32 by, INT32 pixels) {
    HANDLE regions = list_new(), sequence = list_new(), map = image_new(w, h, 16);
    for (const auto &r : rects)
      list_append_tail(regions, region_new(r[0], r[1], r[2], r[3], nullptr));
    INT32 counted = 0;
    EXPECT_TRUE(cs71_create_ccd_rdseq2(regions, map, bx, by, 1, sequence, &counted)) << story();
    EXPECT_EQ(counted, pixels);
    const std::vector<DWORD> words = words_of(sequence);
    region_list_delete(regions);
    list_delete(sequence, nullptr);
    image_delete(map);
    return words;
  };
  // Two regions on rows 2..4 of a 20 x 8 map: rows of one layout share a group, and the empty
  // rows after them are skipped.
  EXPECT_EQ(encoded({{2, 2, 3, 3}, {10, 2, 4, 3}}, 20, 8, 1, 1, 3 * 7),
            (std::vector<DWORD>{e(2, 4), e(3, 3), 6, e(1, 0), e(2, 1), e(3, 2), e(5, 1), e(4, 2),
                                e(6, 1), e(3, 4)}));
  // Binned 2 x 3, one binned row at binned (1, 1), 2 wide: a one-row group has no repeat, and
  // binning shifts its lines.
  EXPECT_EQ(encoded({{2, 3, 4, 3}}, 10, 4, 2, 3, 2),
            (std::vector<DWORD>{e(1, 4), e(3, 0), e(1, 1), e(2, 2), e(7, 1), e(2, 4)}));
}

TEST_F(Sequences, TheReplayPutsEveryPixelBackAndRefusesUnknownCodes) {
  HANDLE server = server_allocate(), sequence = list_new();
  HANDLE shadow = image_new(6, 4, 16), scramble = image_new(1, 15, 16);
  for (INT32 k = 0; k < 15; ++k) {
    *static_cast<WORD *>(image_lockraster(scramble, k)) = static_cast<WORD>(100 + k);
    image_unlockraster(scramble, k);
  }
  // Skip one row, then three rows of: shift, read 5.
  for (DWORD w : {e(1, 4), e(3, 3), DWORD{2}, e(1, 0), e(5, 2)})
    list_append_tail(sequence, reinterpret_cast<HANDLE>(uintptr_t{w}));
  ASSERT_TRUE(server_scramble_to_shadow(server, scramble, sequence, shadow)) << story();
  for (int r = 1; r <= 3; ++r)
    for (int c = 0; c < 5; ++c) EXPECT_EQ(pixel_at(shadow, c, r), uint32_t(100 + (r - 1) * 5 + c));
  EXPECT_EQ(pixel_at(shadow, 0, 0), 0u) << "the skipped row";
  list_append_tail(sequence, reinterpret_cast<HANDLE>(uintptr_t{e(1, 5)}));
  EXPECT_FALSE(server_scramble_to_shadow(server, scramble, sequence, shadow));
  EXPECT_NE(whole_story().find("ccd read sequence invalid"), std::string::npos);
  image_delete(scramble);
  image_delete(shadow);
  list_delete(sequence, nullptr);
  server_delete(server);
}

// Runs are copied whole: one that crosses from one scramble block into the next, one that runs
// past the shadow's row end (the rest is dropped, the stream still counted), and a row off the
// shadow, which fails as its raster lock does.
TEST_F(Sequences, TheReplayCopiesRunsAcrossBlocksAndClipsThem) {
  constexpr INT32 kWidth = 30000, kPixels = 60016;  // a scramble block holds 32732 pixels
  HANDLE server = server_allocate(), sequence = list_new();
  HANDLE shadow = image_new(kWidth, 3, 16), scramble = image_new(1, kPixels, 16);
  for (INT32 k = 0; k < kPixels; ++k) {
    *static_cast<WORD *>(image_lockraster(scramble, k)) = static_cast<WORD>(k * 7);
    image_unlockraster(scramble, k);
  }
  // Row 0: skip 5, read 29995; row 1: read 30005, of which 5 fall off the row; row 2: read 15.
  // One pixel is left for a read on a fourth row, which the shadow does not have.
  for (DWORD w : {e(1, 0), e(5, 1), e(kWidth - 5, 2), e(1, 0), e(kWidth + 5, 2), e(1, 0), e(15, 2)})
    list_append_tail(sequence, reinterpret_cast<HANDLE>(uintptr_t{w}));
  ASSERT_TRUE(server_scramble_to_shadow(server, scramble, sequence, shadow)) << story();
  int wrong = 0;
  for (INT32 c = 5; c < kWidth; ++c) wrong += pixel_at(shadow, c, 0) != WORD((c - 5) * 7);
  for (INT32 c = 0; c < kWidth; ++c) wrong += pixel_at(shadow, c, 1) != WORD((kWidth - 5 + c) * 7);
  for (INT32 c = 0; c < 15; ++c) wrong += pixel_at(shadow, c, 2) != WORD((2 * kWidth + c) * 7);
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(pixel_at(shadow, 15, 2), 0u) << "past the last run";
  list_append_tail(sequence, reinterpret_cast<HANDLE>(uintptr_t{e(1, 0)}));
  list_append_tail(sequence, reinterpret_cast<HANDLE>(uintptr_t{e(1, 2)}));
  EXPECT_FALSE(server_scramble_to_shadow(server, scramble, sequence, shadow));
  EXPECT_NE(whole_story().find("requested raster (3) off image (height is 3)."), std::string::npos);
  image_delete(scramble);
  image_delete(shadow);
  list_delete(sequence, nullptr);
  server_delete(server);
}

class Acquisition : public ReadoutTest {};

TEST_F(Acquisition, RegionsAreFittedToTheBinningGrid) {
  bring_up();
  HANDLE out = region_new(0, 0, 0, 0, nullptr);
  // The fitted region's x and width.
  auto fitted = [&](INT32 columns, INT32 bx, INT32 by, HANDLE region) {
    INT32 x = -1, y, w = -1, h;
    EXPECT_TRUE(server_set_readout_region(server_, params(columns, 64, bx, by, nullptr, nullptr),
                                          region, out))
        << story();
    region_get(out, &x, &y, &w, &h);
    return std::pair{x, w};
  };
  EXPECT_EQ(fitted(80, 3, 3, list_get_nth_object(regions({{10, 0, 10, 9}}), 1)), std::pair(12, 3));
  ASSERT_TRUE(server_set_adc_mode(server_, 53)) << story();
  EXPECT_EQ(fitted(1030, 2, 1, nullptr).second, 516) << "even for the pair-clocking converter";
  EXPECT_EQ(fitted(1030, 1, 1, nullptr).second, 1030) << "no evenness without binning";
  EXPECT_FALSE(
      server_checked_readout_region(server_, regions({{0, 0, 4, 4}, {8, 8, 4, 4}}), params_, out));
  EXPECT_NE(whole_story().find("only one readout region supported."), std::string::npos);
  EXPECT_FALSE(server_check_regions(server_, params_, regions({{0, 0, 4, 4}, {1000, 60, 40, 8}})));
  EXPECT_NE(whole_story().find("off CCD chip"), std::string::npos);
  region_delete(out);
}

TEST_F(Acquisition, StreamFaultsSayWhatWentWrongAndLeakNothing) {
  struct Fault {
    INT32 kind, value;
    const char *found;
  };
  const Fault faults[] = {
      {TVX_STREAM_BLOCK_SIZE, 31, "block size out of range."},
      {TVX_STREAM_BLOCK_SIZE, 0, "block size out of range."},
      {TVX_STREAM_BLOCK_SIZE, 3, "block size not divisible by 2."},
      {TVX_STREAM_STOP_AFTER, 40, "sync failure on block size."},
      {TVX_STREAM_NO_COMPLETION, 0, "readout did not complete correctly"},
  };
  // One controller for every fault, reading pairs (data mode 5): each failure leaves the link as
  // the next readout needs it.
  bring_up();
  set_mode(1, 0.5);
  for (const Fault &f : faults) {
    SCOPED_TRACE(f.found);
    ASSERT_TRUE(tvx_test_stream_fault(f.kind, f.value));
    HANDLE list = images();
    EXPECT_FALSE(server_readout_ccd(server_, regions({{0, 0, 16, 8}}), list,
                                    params(80, 64, 1, 1, nullptr, nullptr)));
    const std::string all = whole_story();
    EXPECT_NE(all.find(f.found), std::string::npos) << all;
    if (f.kind != TVX_STREAM_NO_COMPLETION) {
      EXPECT_NE(all.find("block# 1 failed (expected 128 words, words read 0, status"),
                std::string::npos)
          << all;
    }
  }
}

TEST_F(Acquisition, FrameSeriesFlushExposeAndKeepTheirPeriod) {
  bring_up();
  set_mode(1, 4.0);
  HANDLE lists = list_new();
  for (int i = 0; i < 3; ++i) list_append_tail(lists, list_new());
  struct Run {
    INT32 exposure, delay, preflush;
    BYTE shutter_disabled;
  };
  for (const Run &run : {Run{500, 2500, 2, 0}, Run{1000, 0, 0, 1}}) {
    HANDLE p = params(80, 64, 1, 1, regions({{0, 0, 20, 10}, {40, 20, 10, 10}}), lists, true);
    sysparams_append(p, sysparam_make_ival(SYSPARAM_EXPOSURE_TIME, run.exposure));
    sysparams_append(p, sysparam_make_ival(SYSPARAM_FRAME_DELAY, run.delay));
    sysparams_append(p, sysparam_make_ival(SYSPARAM_PREFLUSH, run.preflush));
    sysparams_append(p, sysparam_make_bval(SYSPARAM_SHUTTER_DISABLE, run.shutter_disabled));
    const long flushes = controller().state().flushes, exposures = controller().state().exposures;
    const DWORD start = time_centiseconds();
    ASSERT_TRUE(server_expose_and_readout_ccd(server_, "readout.cpg", p)) << story();
    const DWORD took = time_centiseconds() - start;
    EXPECT_EQ(controller().state().flushes - flushes, run.preflush > 0 ? 3 : 0);
    EXPECT_EQ(controller().state().exposures - exposures, run.shutter_disabled ? 0 : 3);
    // Three frames: each waits its exposure; with a delay, successive frames start 250 apart.
    if (run.delay > 0) {
      EXPECT_GE(took, 3 * 250u);
    }
    EXPECT_GE(took, 3u * run.exposure / 10);
    for (int i = 1; i <= 3; ++i) {
      HANDLE images = list_get_nth_object(lists, i);
      ASSERT_EQ(list_size(images), 2);
      std::string where;
      EXPECT_EQ(mismatches(list_get_nth_object(images, 2), 40, 20, 1, 1, &where), 0) << where;
    }
  }
  EXPECT_NE(caught().find("Unscrambling frame 3 of 3"), std::string::npos);
  // One region takes the single-region path.
  HANDLE p = params(80, 64, 2, 2, regions({{8, 8, 16, 16}}), lists, true);
  for (INT32 id : {SYSPARAM_EXPOSURE_TIME, SYSPARAM_FRAME_DELAY, SYSPARAM_PREFLUSH})
    sysparams_append(p, sysparam_make_ival(id, 0));
  ASSERT_TRUE(server_expose_and_readout_ccd(server_, "readout.cpg", p)) << story();
  std::string where;
  EXPECT_EQ(mismatches(list_get_nth_object(list_get_nth_object(lists, 2), 1), 8, 8, 2, 2, &where),
            0)
      << where;
  for (int i = 1; i <= 3; ++i) image_list_delete(list_get_nth_object(lists, i));
  list_delete(lists, nullptr);
}

// Asks for another grab while grabs are left.
BYTE another(void *left) {
  return --*static_cast<int *>(left) > 0 ? 1 : 0;
}

TEST_F(Acquisition, ShuffleModeGrabsUntilTheUserEndsIt) {
  bring_up();
  set_mode(1, 4.0);
  HANDLE list = images();
  list_append_tail(list, image_new(1, 1, 16));
  HANDLE image = list_get_nth_object(list, 1);
  int grabs = 3;
  ASSERT_TRUE(server_shuffle_mode(server_, list_get_nth_object(regions({{4, 4, 16, 8}}), 1), image,
                                  100, 1, 1, another, &grabs))
      << whole_story();
  EXPECT_EQ(grabs, 0);
  EXPECT_NE(caught().find("User function ended grab loop at 2 loops"), std::string::npos);
  std::string where;
  EXPECT_EQ(mismatches(image, 4, 4, 1, 1, &where), 0) << where;
  EXPECT_TRUE(server_responding(server_)) << "the link is clean after the stop";
}

}  // namespace
