// Images filled with patterns that encode their coordinates, pixels read back through the raster
// interface, and image files built byte by byte in a directory of the test's own.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "config/config_support.h"
#include "tvx/image.h"

namespace tvx_test {

// A value for (row, column) that differs between neighbours and blocks, cut to the depth.
inline DWORD pattern(INT32 r, INT32 c, INT32 depth) {
  DWORD v = static_cast<DWORD>(r) * 2654435761u ^ (static_cast<DWORD>(c) * 40503u + 17u);
  return depth >= 32 ? v : v & ((1u << depth) - 1u);
}

inline INT32 bytes_per_pixel(INT32 depth) {
  return (depth + 7) / 8;
}

inline std::array<INT32, 3> size_of(HANDLE image) {
  std::array<INT32, 3> s{};
  image_size(image, &s[0], &s[1], &s[2]);
  return s;
}

inline DWORD get_pixel(HANDLE image, INT32 r, INT32 c) {
  auto *row = static_cast<BYTE *>(image_lockraster(image, r));
  if (row == nullptr) return 0xDEADBEEF;
  DWORD v = 0;
  INT32 size = bytes_per_pixel(size_of(image)[2]);
  for (INT32 i = size - 1; i >= 0; --i) v = (v << 8) | row[c * size + i];
  image_unlockraster(image, r);
  return v;
}

inline void set_pixel(HANDLE image, INT32 r, INT32 c, DWORD v) {
  auto *row = static_cast<BYTE *>(image_lockraster(image, r));
  ASSERT_NE(row, nullptr);
  INT32 size = bytes_per_pixel(size_of(image)[2]);
  for (INT32 i = 0; i < size; ++i) row[c * size + i] = static_cast<BYTE>(v >> (8 * i));
  image_unlockraster(image, r);
}

// Fills every pixel with pattern(r, c, depth).
inline void fill_pattern(HANDLE image) {
  auto [w, h, d] = size_of(image);
  for (INT32 r = 0; r < h; ++r)
    for (INT32 c = 0; c < w; ++c) set_pixel(image, r, c, pattern(r, c, d));
}

// Byte strings of file fields in either order.
struct Bytes {
  std::string data;
  bool big = false;  // swapped order
  Bytes &u8(unsigned v) {
    data += static_cast<char>(v & 0xFF);
    return *this;
  }
  Bytes &u16(unsigned v) { return big ? u8(v >> 8).u8(v) : u8(v).u8(v >> 8); }
  Bytes &u32(DWORD v) { return big ? u16(v >> 16).u16(v) : u16(v).u16(v >> 16); }
  Bytes &pixel(DWORD v, INT32 size) {
    if (size == 1) return u8(v);
    if (size == 2) return u16(v);
    if (size == 4) return u32(v);
    return u8(v).u8(v >> 8).u8(v >> 16);  // 3-byte pixels are never swapped
  }
  Bytes &zeros(size_t n) {
    data.append(n, '\0');
    return *this;
  }
  Bytes &pattern_pixels(INT32 w, INT32 h, INT32 depth) {
    for (INT32 r = 0; r < h; ++r)
      for (INT32 c = 0; c < w; ++c) pixel(pattern(r, c, depth), bytes_per_pixel(depth));
    return *this;
  }
};

// The native format: width, height, then depth and signed marker as one 16-bit word.
inline std::string native_file(INT32 w, INT32 h, INT32 depth, bool swapped,
                               bool is_signed = false) {
  Bytes b{"", swapped};
  b.u16(w).u16(h).u16(depth | (is_signed ? 0xFF00 : 0)).pattern_pixels(w, h, depth);
  return b.data;
}

inline std::string olvane1_file(INT32 w, INT32 h, bool swapped, bool with_record = false) {
  Bytes b{"", swapped};
  b.u16(w).u16(h).pattern_pixels(w, h, 16);
  if (with_record) b.zeros(143).u16(w).u16(h);
  return b.data;
}

inline std::string olvane2_v3_file(INT32 w, INT32 h, INT32 depth, DWORD code, bool swapped,
                                   DWORD bytes_per_pixel_field, DWORD data_at = 0, size_t gap = 0) {
  Bytes b{"", swapped};
  b.u32(0x6931).u32(w).u32(h).u32(0x12345678).u32(bytes_per_pixel_field);
  b.u32(0).u32(0).u32(0).u32(code).u32(depth);
  while (b.data.size() < 72) b.u32(0);
  b.u32(data_at).zeros(gap).pattern_pixels(w, h, depth);
  return b.data;
}

inline std::string olvane2_v4_file(INT32 w, INT32 h, INT32 depth, DWORD code, bool swapped) {
  Bytes b{"", swapped};
  b.u32(0x6932).u32(w).u32(h).u32(0x12345678);
  while (b.data.size() < 44) b.u32(0);
  b.u32(code).u32(depth);
  while (b.data.size() < 108) b.u32(0);
  b.pattern_pixels(w, h, depth);
  return b.data;
}

// A directory of the test's own (ConfigTest's), and images deleted after the test.
class ImageTest : public ConfigTest {
 protected:
  void TearDown() override {
    for (HANDLE image : images_) image_delete(image);
    ConfigTest::TearDown();
  }

  // An image deleted after the test.
  HANDLE image(INT32 w, INT32 h, INT32 depth) {
    HANDLE img = image_new(w, h, depth);
    EXPECT_NE(img, nullptr) << print_all(ERR_MODE_BRIEF);
    return keep(img);
  }
  // Takes an image made by the library into the test's care.
  HANDLE keep(HANDLE img) {
    if (img != nullptr) images_.push_back(img);
    return img;
  }
  std::string path(const std::string &name) const { return dir_ + "/" + name; }

  static INT32 top_category() { return (*stack())->category; }
  // The entry of the routine that set the top error.
  static const err_trace *terminal() {
    const err_trace *t = (*stack())->trace;
    while (t != nullptr && t->next != nullptr) t = t->next;
    return t;
  }
  static std::string terminal_routine() { return terminal() ? terminal()->routine : ""; }
  static std::string terminal_text() {
    return terminal() && terminal()->text ? terminal()->text : "";
  }
  static bool has_cause(INT32 cause) {
    for (const err_cause *c = (*stack())->causes; c != nullptr; c = c->next)
      if (c->cause == cause) return true;
    return false;
  }
  // The words of the top error; the stack is then cleared.
  void expect_text(const std::string &text) {
    EXPECT_EQ(terminal_text(), text);
    story();
  }
  // The top error's category, the routine that set it and its words; the stack is then cleared.
  void expect_error(INT32 category, const std::string &routine, const std::string &text,
                    const std::string &what = "") {
    EXPECT_EQ(top_category(), category) << what;
    EXPECT_EQ(terminal_routine(), routine) << what;
    EXPECT_EQ(terminal_text(), text) << what;
    story();
  }

  std::vector<HANDLE> images_;
};

}  // namespace tvx_test
