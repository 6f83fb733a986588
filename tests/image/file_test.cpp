// Image files built here byte by byte: every detection rule in either byte order, the four
// readers, the refusals with their words, and native round trips of every pixel size.
#include <cerrno>
#include <string>

#include "image_support.h"

namespace tvx_test {
namespace {

using Files = ImageTest;

struct Detected {
  INT32 format;
  BOOL swapped;
  INT32 width, height, depth;
  bool operator==(const Detected &o) const {
    return format == o.format && swapped == o.swapped && width == o.width && height == o.height &&
           depth == o.depth;
  }
};

std::ostream &operator<<(std::ostream &out, const Detected &d) {
  return out << "format " << d.format << (d.swapped ? " swapped " : " native ") << d.width << "x"
             << d.height << "x" << d.depth;
}

TEST_F(Files, TheFormatIsToldFromTheSizeAndFirstSixBytesRuleByRule) {
  Bytes tiff_ii_native{"II"}, tiff_ii_swapped{"II"}, tiff_mm_native{"MM"}, tiff_mm_swapped{"MM"};
  tiff_ii_native.u16(0x2A).zeros(60);
  tiff_ii_swapped.big = true;
  tiff_ii_swapped.u16(0x2A).zeros(60);
  tiff_mm_native.u16(0x2A).zeros(60);
  tiff_mm_swapped.big = true;
  tiff_mm_swapped.u16(0x2A).zeros(60);  // what a big-endian TIFF file begins with
  // The database record counts only when 425 more bytes follow it.
  std::string record = olvane1_file(30, 20, false, true);
  struct Case {
    const char *what;
    std::string bytes;
    Detected expected;
  };
  const Case cases[] = {
      {"olvane 1", olvane1_file(30, 20, false), {1, FALSE, 30, 20, 16}},
      {"olvane 1 swapped", olvane1_file(30, 20, true), {1, TRUE, 30, 20, 16}},
      {"olvane 1 with record", record + std::string(425, 'x'), {1, FALSE, 30, 20, 16}},
      {"olvane 1 swapped with record",
       olvane1_file(30, 20, true, true) + std::string(500, 'x'),
       {1, TRUE, 30, 20, 16}},
      {"olvane 1 record without its tail", record + std::string(424, 'x'), {0, FALSE, 0, 0, 0}},
      {"native 16", native_file(100, 100, 16, false), {2, FALSE, 100, 100, 16}},
      {"native 16 swapped", native_file(100, 100, 16, true), {2, TRUE, 100, 100, 16}},
      {"native 8", native_file(33, 17, 8, false), {2, FALSE, 33, 17, 8}},
      {"native 8 swapped", native_file(33, 17, 8, true), {2, TRUE, 33, 17, 8}},
      {"native 32 swapped", native_file(33, 17, 32, true), {2, TRUE, 33, 17, 32}},
      {"native 32", native_file(33, 17, 32, false), {2, FALSE, 33, 17, 32}},
      {"native signed: the third word as it stands",
       native_file(33, 17, 8, false, true),
       {2, FALSE, 33, 17, 0xFF08}},
      {"tiff II", tiff_ii_native.data, {3, FALSE, 0, 0, 0}},
      {"tiff II swapped", tiff_ii_swapped.data, {3, TRUE, 0, 0, 0}},
      {"tiff MM", tiff_mm_native.data, {4, FALSE, 0, 0, 0}},
      {"tiff MM swapped", tiff_mm_swapped.data, {4, TRUE, 0, 0, 0}},
      {"olvane 2 v3", olvane2_v3_file(9, 7, 16, 3, false, 2), {5, FALSE, 0, 0, 0}},
      {"olvane 2 v3 swapped", olvane2_v3_file(9, 7, 16, 3, true, 2), {5, TRUE, 0, 0, 0}},
      {"olvane 2 v4", olvane2_v4_file(9, 7, 16, 3, false), {6, FALSE, 0, 0, 0}},
      {"olvane 2 v4 swapped", olvane2_v4_file(9, 7, 16, 3, true), {6, TRUE, 0, 0, 0}},
      {"anything else", "hello, world", {0, FALSE, 0, 0, 0}},
      {"a 24-bit native file fits no rule", native_file(37, 29, 24, false), {0, FALSE, 0, 0, 0}},
  };
  for (const Case &c : cases) {
    Detected got{-1, -1, -1, -1, -1};
    std::string p = file("probe", c.bytes);
    ASSERT_TRUE(image_get_file_format(p.c_str(), &got.format, &got.swapped, &got.width, &got.height,
                                      &got.depth))
        << c.what << ": " << story();
    EXPECT_EQ(got, c.expected) << c.what;
  }
}

TEST_F(Files, EveryReaderReadsEitherByteOrder) {
  struct Case {
    const char *what;
    std::string (*build)(bool swapped);
    INT32 width, height, depth;
  };
  const Case cases[] = {
      {"native 16", [](bool s) { return native_file(100, 700, 16, s); }, 100, 700, 16},
      {"native 32", [](bool s) { return native_file(33, 517, 32, s); }, 33, 517, 32},
      {"native 8", [](bool s) { return native_file(333, 517, 8, s); }, 333, 517, 8},
      {"olvane 1", [](bool s) { return olvane1_file(400, 90, s); }, 400, 90, 16},
      {"olvane 1 with record",
       [](bool s) { return olvane1_file(40, 30, s, true) + std::string(430, 'x'); }, 40, 30, 16},
      {"olvane 2 v3", [](bool s) { return olvane2_v3_file(90, 400, 16, 3, s, 2); }, 90, 400, 16},
      {"olvane 2 v3 32", [](bool s) { return olvane2_v3_file(50, 40, 32, 3, s, 0); }, 50, 40, 32},
      {"olvane 2 v3 at an offset",
       [](bool s) { return olvane2_v3_file(20, 10, 16, 3, s, 2, 100, 24); }, 20, 10, 16},
      {"olvane 2 v4", [](bool s) { return olvane2_v4_file(64, 1100, 16, 3, s); }, 64, 1100, 16},
      {"olvane 2 v4 8", [](bool s) { return olvane2_v4_file(64, 30, 8, 3, s); }, 64, 30, 8},
      {"olvane 2 v4 24", [](bool s) { return olvane2_v4_file(64, 30, 24, 3, s); }, 64, 30, 24},
  };
  for (const Case &c : cases)
    for (bool swapped : {false, true}) {
      HANDLE img = image(3, 3, 8);
      std::string p = file("in.img", c.build(swapped));
      ASSERT_TRUE(image_read(img, p.c_str())) << c.what << swapped << ": " << story();
      INT32 w = 0, h = 0, d = 0;
      image_size(img, &w, &h, &d);
      EXPECT_EQ(w, c.width) << c.what;
      EXPECT_EQ(h, c.height) << c.what;
      EXPECT_EQ(d, c.depth) << c.what;
      for (INT32 r : {0, 1, c.height / 2, c.height - 1})
        for (INT32 col : {0, c.width - 1})
          ASSERT_EQ(get_pixel(img, r, col), pattern(r, col, c.depth)) << c.what << swapped;
    }
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
  const std::string bad = path("bad.img");
  const std::string unreadable = "image file '" + bad + "'.";
  Bytes tiff{"II"};
  tiff.u16(0x2A).zeros(20);
  Bytes depth_zero, depth_big;
  depth_zero.u16(10).u16(10).u16(0).zeros(200);
  depth_big.u16(10).u16(10).u16(40).zeros(200);
  std::string v4 = olvane2_v4_file(64, 30, 16, 3, false);
  std::string huge = olvane2_v4_file(2, 2, 32, 3, false);
  huge.replace(4, 8, "\xff\xff\xff\x07\xff\xff\xff\x07");  // 134217727 x 134217727
  const Refusal refusals[] = {
      {"tiff", tiff.data, ERR_NOT_SUPPORTED, "image_read", "unable to read tiff file formats"},
      {"unknown", "not an image", ERR_OUT_OF_RANGE, "image_read", "unknown image file format"},
      {"depth 0", depth_zero.data, ERR_OUT_OF_RANGE, "image_read_tvx_format",
       "image depth not in range 1 - 32"},
      {"depth 40", depth_big.data, ERR_OUT_OF_RANGE, "image_read_tvx_format",
       "image depth not in range 1 - 32"},
      {"floating point", olvane2_v3_file(4, 4, 32, 0, false, 4), ERR_NOT_SUPPORTED,
       "image_read_olvane2_v3_format", "floating point pixel data"},
      {"packed binary", olvane2_v4_file(4, 4, 1, 0x20, true), ERR_NOT_SUPPORTED,
       "image_read_olvane2_v4_format", "packed binary pixel data"},
      {"packing", olvane2_v3_file(4, 4, 12, 3, false, 1), ERR_NOT_SUPPORTED,
       "image_read_olvane2_v3_format", "pixel bit packing is 12 bits per 1 bytes"},
      {"truncated", v4.substr(0, v4.size() - 1), ERR_OS, "image_read_blocks", unreadable},
      {"huge header", huge, ERR_OS, "image_read_blocks", unreadable},
      {"short", "abc", ERR_OS, "image_get_file_format", "image file '" + bad + "'"},
  };
  for (const Refusal &r : refusals) {
    EXPECT_FALSE(image_read(img, file("bad.img", r.bytes).c_str())) << r.what;
    EXPECT_EQ(top_category(), r.category) << r.what;
    EXPECT_EQ(terminal_routine(), r.routine) << r.what;
    EXPECT_EQ(terminal_text(), r.text) << r.what;
    story();
    EXPECT_EQ(get_pixel(img, 4, 4), pattern(4, 4, 8)) << r.what;
  }
  std::string missing = path("no/such.img");
  EXPECT_FALSE(image_read(img, missing.c_str()));
  EXPECT_EQ(top_category(), ERR_OS);
  EXPECT_EQ((*stack())->code, ENOENT);
  EXPECT_EQ(terminal_text(), "image file '" + missing + "'.");
  story();
  EXPECT_FALSE(image_write(img, missing.c_str()));
  EXPECT_EQ((*stack())->code, ENOENT);
  EXPECT_EQ(terminal_routine(), "image_write");
  story();
}

TEST_F(Files, NativeFilesRoundTripBitIdentical) {
  struct Case {
    INT32 width, height, depth;
  };
  std::vector<Case> cases;
  for (INT32 depth = 1; depth <= 32; ++depth)
    if (bytes_per_pixel(depth) != 3) cases.push_back({37, 29, depth});
  cases.push_back({1000, 300, 16});  // many blocks
  cases.push_back({2000, 70, 32});
  for (const Case &c : cases) {
    HANDLE out = image(c.width, c.height, c.depth);
    fill_pattern(out);
    image_set_signed(out, c.depth % 2);
    std::string p = path("round.img");
    ASSERT_TRUE(image_write(out, p.c_str())) << story();
    std::string bytes = contents(p);
    ASSERT_EQ(bytes.size(), 6u + size_t(c.width) * c.height * bytes_per_pixel(c.depth));
    EXPECT_EQ(bytes.substr(0, 6),
              Bytes{}.u16(c.width).u16(c.height).u8(c.depth).u8(c.depth % 2 ? 0xFF : 0).data);
    HANDLE in = image(1, 1, 8);
    ASSERT_TRUE(image_read(in, p.c_str())) << c.depth << ": " << story();
    EXPECT_TRUE(image_equal(in, out)) << c.depth;
    EXPECT_EQ(image_is_signed(in), c.depth % 2);
    ASSERT_TRUE(image_write(in, path("again.img").c_str()));
    EXPECT_EQ(contents(path("again.img")), bytes) << c.depth;
  }
  // Three-byte pixels are written, but their file sizes fit no detection rule.
  HANDLE wide = image(37, 29, 24);
  ASSERT_TRUE(image_write(wide, path("wide.img").c_str()));
  EXPECT_FALSE(image_read(wide, path("wide.img").c_str()));
  EXPECT_EQ(terminal_text(), "unknown image file format");
  story();
}

}  // namespace
}  // namespace tvx_test
