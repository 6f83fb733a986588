// Image files built here byte by byte: every detection rule in either byte order, the four
// readers, the refusals with their words, and native round trips of every pixel size.
#include <cerrno>
#include <string>

#include "image_support.h"

namespace tvx_test {
namespace {

using Files = ImageTest;
using Detected = std::array<INT32, 5>;  // format, swapped, width, height, depth

Detected detect(const std::string &path) {
  Detected d{-1, -1, -1, -1, -1};
  EXPECT_TRUE(image_get_file_format(path.c_str(), &d[0], &d[1], &d[2], &d[3], &d[4])) << path;
  return d;
}

// Every reader in either byte order, and the format each file is told to be: only the native and
// first olvane formats give the size from their headers.
TEST_F(Files, EveryFormatIsDetectedAndReadInEitherByteOrder) {
  struct Case {
    const char *what;
    std::string (*build)(bool swapped);
    INT32 width, height, depth, format;
  };
  const Case cases[] = {
      {"native 16", [](bool s) { return native_file(100, 700, 16, s); }, 100, 700, 16, 2},
      {"native 32", [](bool s) { return native_file(33, 517, 32, s); }, 33, 517, 32, 2},
      {"native 8", [](bool s) { return native_file(333, 517, 8, s); }, 333, 517, 8, 2},
      {"olvane 1", [](bool s) { return olvane1_file(400, 90, s); }, 400, 90, 16, 1},
      // The database record counts only when 425 more bytes follow it.
      {"olvane 1 with record",
       [](bool s) { return olvane1_file(40, 30, s, true) + std::string(425, 'x'); }, 40, 30, 16, 1},
      {"olvane 2 v3", [](bool s) { return olvane2_v3_file(90, 400, 16, 3, s, 2); }, 90, 400, 16, 5},
      {"olvane 2 v3 32", [](bool s) { return olvane2_v3_file(50, 40, 32, 3, s, 0); }, 50, 40, 32,
       5},
      {"olvane 2 v3 at an offset",
       [](bool s) { return olvane2_v3_file(20, 10, 16, 3, s, 2, 100, 24); }, 20, 10, 16, 5},
      {"olvane 2 v4", [](bool s) { return olvane2_v4_file(64, 1100, 16, 3, s); }, 64, 1100, 16, 6},
      {"olvane 2 v4 8", [](bool s) { return olvane2_v4_file(64, 30, 8, 3, s); }, 64, 30, 8, 6},
      {"olvane 2 v4 24", [](bool s) { return olvane2_v4_file(64, 30, 24, 3, s); }, 64, 30, 24, 6},
  };
  for (const Case &c : cases)
    for (bool swapped : {false, true}) {
      std::string p = file("in.img", c.build(swapped));
      Detected sized{c.format, swapped, c.width, c.height, c.depth}, unsized{c.format, swapped};
      EXPECT_EQ(detect(p), c.format <= 2 ? sized : unsized) << c.what;
      HANDLE img = image(3, 3, 8);
      ASSERT_TRUE(image_read(img, p.c_str())) << c.what << swapped << ": " << story();
      EXPECT_EQ(size_of(img), (std::array<INT32, 3>{c.width, c.height, c.depth})) << c.what;
      for (INT32 r : {0, 1, c.height / 2, c.height - 1})
        for (INT32 col : {0, c.width - 1})
          ASSERT_EQ(get_pixel(img, r, col), pattern(r, col, c.depth)) << c.what << swapped;
    }
}

TEST_F(Files, TheRemainingDetectionRules) {
  auto tiff = [](const char *order, bool big) {
    return Bytes{order, big}.u16(0x2A).zeros(60).data;
  };
  const std::pair<std::string, Detected> cases[] = {
      {olvane1_file(30, 20, false, true) + std::string(424, 'x'), {0, FALSE, 0, 0, 0}},
      {native_file(33, 17, 8, false, true), {2, FALSE, 33, 17, 0xFF08}},  // the word as it stands
      {tiff("II", false), {3, FALSE, 0, 0, 0}},
      {tiff("II", true), {3, TRUE, 0, 0, 0}},
      {tiff("MM", false), {4, FALSE, 0, 0, 0}},
      {tiff("MM", true), {4, TRUE, 0, 0, 0}},  // what a big-endian TIFF file begins with
      {"hello, world", {0, FALSE, 0, 0, 0}},
      {native_file(37, 29, 24, false), {0, FALSE, 0, 0, 0}},  // 3-byte pixels fit no rule
  };
  for (const auto &[bytes, expected] : cases)
    EXPECT_EQ(detect(file("probe", bytes)), expected) << bytes.substr(0, 8);
}

TEST_F(Files, SignedFlagsComeFromTheMarkerAndThePixelFormat) {
  HANDLE img = image(3, 3, 8);
  image_set_signed(img, TRUE);
  ASSERT_TRUE(image_read(img, file("a", native_file(20, 20, 16, false, false)).c_str()));
  EXPECT_FALSE(image_is_signed(img));
  ASSERT_TRUE(image_read(img, file("b", native_file(20, 20, 16, true, true)).c_str()));
  EXPECT_TRUE(image_is_signed(img));
  ASSERT_TRUE(image_read(img, file("c", olvane1_file(30, 20, false)).c_str()));
  EXPECT_TRUE(image_is_signed(img)) << "olvane 1 leaves the flag as it was";
  for (DWORD code : {1u, 2u, 4u, 3u, 5u, 0x10u}) {
    ASSERT_TRUE(image_read(img, file("d", olvane2_v4_file(8, 8, 16, code, false)).c_str()));
    EXPECT_EQ(image_is_signed(img) != 0, code == 1 || code == 2 || code == 4) << code;
  }
}

TEST_F(Files, RefusalsNameTheirReasonAndLeaveTheImageAsItWas) {
  HANDLE img = image(5, 5, 8);
  fill_pattern(img);
  struct Refusal {
    const char *what;
    std::string bytes;
    INT32 category;
    const char *routine;
    std::string text;
  };
  const Refusal refusals[] = {
      {"tiff", Bytes{"II"}.u16(0x2A).zeros(20).data, ERR_NOT_SUPPORTED, "image_read",
       "unable to read tiff file formats"},
      {"unknown", "not an image", ERR_OUT_OF_RANGE, "image_read", "unknown image file format"},
      {"depth 0", Bytes{}.u16(10).u16(10).u16(0).zeros(200).data, ERR_OUT_OF_RANGE,
       "image_read_tvx_format", "image depth not in range 1 - 32"},
      {"depth 40", Bytes{}.u16(10).u16(10).u16(40).zeros(200).data, ERR_OUT_OF_RANGE,
       "image_read_tvx_format", "image depth not in range 1 - 32"},
      {"floating point", olvane2_v3_file(4, 4, 32, 0, false, 4), ERR_NOT_SUPPORTED,
       "image_read_olvane2_v3_format", "floating point pixel data"},
      {"packed binary", olvane2_v4_file(4, 4, 1, 0x20, true), ERR_NOT_SUPPORTED,
       "image_read_olvane2_v4_format", "packed binary pixel data"},
      {"packing", olvane2_v3_file(4, 4, 12, 3, false, 1), ERR_NOT_SUPPORTED,
       "image_read_olvane2_v3_format", "pixel bit packing is 12 bits per 1 bytes"},
      {"short", "abc", ERR_OS, "image_get_file_format", "image file '" + path("bad.img") + "'"},
  };
  for (const Refusal &r : refusals) {
    EXPECT_FALSE(image_read(img, file("bad.img", r.bytes).c_str())) << r.what;
    expect_error(r.category, r.routine, r.text, r.what);
    EXPECT_EQ(get_pixel(img, 4, 4), pattern(4, 4, 8)) << r.what;
  }
  std::string missing = path("no/such.img");
  EXPECT_FALSE(image_read(img, missing.c_str()));
  EXPECT_EQ((*stack())->code, ENOENT);
  EXPECT_EQ(top_category(), ERR_OS);
  expect_text("image file '" + missing + "'.");
  EXPECT_FALSE(image_write(img, missing.c_str()));
  EXPECT_EQ((*stack())->code, ENOENT);
  EXPECT_EQ(terminal_routine(), "image_write");
  story();
}

TEST_F(Files, NativeFilesRoundTripBitIdentical) {
  // Many blocks; and rasters of one block each, more blocks than one system call writes.
  std::vector<std::array<INT32, 3>> cases{{1000, 300, 16}, {2000, 70, 32}, {16400, 257, 16}};
  for (INT32 depth = 1; depth <= 32; ++depth)
    if (bytes_per_pixel(depth) != 3) cases.push_back({37, 29, depth});
  for (auto [width, height, depth] : cases) {
    HANDLE out = image(width, height, depth);
    fill_pattern(out);
    image_set_signed(out, depth % 2);
    std::string p = path("round.img");
    ASSERT_TRUE(image_write(out, p.c_str())) << story();
    std::string bytes = read_text(p);
    ASSERT_EQ(bytes.size(), 6u + size_t(width) * height * bytes_per_pixel(depth));
    EXPECT_EQ(bytes.substr(0, 6),
              Bytes{}.u16(width).u16(height).u8(depth).u8(depth % 2 ? 0xFF : 0).data);
    HANDLE in = image(1, 1, 8);
    ASSERT_TRUE(image_read(in, p.c_str())) << depth << ": " << story();
    EXPECT_TRUE(image_equal(in, out)) << depth;
    EXPECT_EQ(image_is_signed(in), depth % 2);
    ASSERT_TRUE(image_write(in, path("again.img").c_str()));
    EXPECT_EQ(read_text(path("again.img")), bytes) << depth;
  }
  // Three-byte pixels are written, but their file sizes fit no detection rule.
  HANDLE wide = image(37, 29, 24);
  ASSERT_TRUE(image_write(wide, path("wide.img").c_str()));
  EXPECT_FALSE(image_read(wide, path("wide.img").c_str()));
  expect_text("unknown image file format");
}

// A file shorter than its header says is read as far as it goes: the image takes the header's
// size and keeps the pixels the file held. A header asking for more than any image may hold
// leaves the image without pixels, as any allocation that fails does.
TEST_F(Files, AShortFileLeavesTheImageResizedWithWhatItHeld) {
  HANDLE img = image(5, 5, 8);
  // 64 x 1100 16-bit pixels lie in blocks of 511 rows; the file ends 89 rows into the second.
  const std::string cut = olvane2_v4_file(64, 1100, 16, 3, false).substr(0, 108 + 128 * 600);
  EXPECT_FALSE(image_read(img, file("short.img", cut).c_str()));
  expect_error(ERR_OS, "image_read_blocks", "image file '" + path("short.img") + "'.");
  EXPECT_EQ(size_of(img), (std::array<INT32, 3>{64, 1100, 16}));
  for (INT32 r : {0, 510, 511, 599}) EXPECT_EQ(get_pixel(img, r, 63), pattern(r, 63, 16)) << r;

  std::string huge = olvane2_v4_file(2, 2, 32, 3, false);
  huge.replace(4, 8, std::string("\x80\x3e\0\0\xff\xff\xff\x07", 8));  // 16000 x 134217727
  EXPECT_FALSE(image_read(img, file("huge.img", huge).c_str()));
  expect_error(ERR_OUT_OF_RANGE, "image_allocatepixels",
               "requested image size (16000 x 134217727) too large.");
  EXPECT_EQ(image_lockraster(img, 0), nullptr);
  story();
}

}  // namespace
}  // namespace tvx_test
