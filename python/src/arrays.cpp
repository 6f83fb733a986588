// Row by row between an image's locked rasters and one contiguous buffer.
#include "arrays.h"

#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

namespace py = pybind11;

namespace tvxpy {

namespace {

int64_t read_value(const BYTE *p, int bytes, bool is_signed) {
  uint32_t v = 0;
  for (int b = 0; b < bytes; ++b) v |= uint32_t(p[b]) << (8 * b);
  if (!is_signed) return v;
  const int bits = 8 * bytes;
  if (bits < 32 && (v & (1u << (bits - 1))) != 0) v |= ~0u << bits;
  return int32_t(v);
}

void write_value(BYTE *p, int bytes, int64_t value) {
  const auto v = static_cast<uint32_t>(value);
  for (int b = 0; b < bytes; ++b) p[b] = BYTE(v >> (8 * b));
}

// Bytes of one element of the numpy array for each layout.
int element_bytes(Layout layout, int pixel_bytes) {
  switch (layout) {
    case Layout::unsigned16:
    case Layout::two_channel:
      return 2;
    case Layout::widened32:
      return 4;
    case Layout::stored:
      break;
  }
  return pixel_bytes == 3 ? 4 : pixel_bytes;
}

// Whether the numpy array of a layout holds signed elements.
bool element_signed(const ImageKind &kind) {
  return kind.layout == Layout::widened32 || (kind.layout == Layout::stored && kind.is_signed);
}

// The values an image of this depth and sign can hold.
void limits_of(int depth, bool is_signed, int64_t *low, int64_t *high) {
  *low = is_signed ? -(int64_t{1} << (depth - 1)) : 0;
  *high = is_signed ? (int64_t{1} << (depth - 1)) - 1 : (int64_t{1} << depth) - 1;
}

}  // namespace

ImageKind frame_kind(const session::Shape &s, int operation_mode) {
  ImageKind k{s.depth, s.is_signed, Layout::widened32};
  if (operation_mode < 2 && !s.is_signed) {
    if (s.depth == 32) k.layout = Layout::two_channel;
    if (s.depth <= 16) k.layout = Layout::unsigned16;
  }
  return k;
}

Pixels copy_out(HANDLE image, const ImageKind &kind) {
  const session::Shape s = session::shape_of(image);
  Pixels out;
  out.bytes = element_bytes(kind.layout, s.bytes);
  out.is_signed = element_signed(ImageKind{s.depth, s.is_signed, kind.layout});
  const size_t plane = size_t(s.width) * size_t(s.height);
  const size_t planes = kind.layout == Layout::two_channel ? 2 : 1;
  out.shape = {s.height, s.width};
  if (planes == 2) out.shape.insert(out.shape.begin(), 2);
  out.data.reset(std::malloc(std::max<size_t>(plane * planes * size_t(out.bytes), 1)));
  if (!out.data) throw std::bad_alloc();
  auto *base = static_cast<BYTE *>(out.data.get());
  session::for_each_row(image, [&](int row, const BYTE *raster) {
    BYTE *dst = base + size_t(row) * size_t(s.width) * size_t(out.bytes);
    if (out.bytes == s.bytes && planes == 1) {
      std::memcpy(dst, raster, size_t(s.width) * size_t(s.bytes));
      return;
    }
    for (int i = 0; i < s.width; ++i) {
      const int64_t v = read_value(raster + size_t(i) * size_t(s.bytes), s.bytes, s.is_signed);
      if (planes == 2) {
        // Channel 1 in the upper half of the word, channel 2 in the lower.
        write_value(dst + size_t(i) * 2, 2, v >> 16);
        write_value(dst + plane * 2 + size_t(i) * 2, 2, v & 0xFFFF);
      } else {
        write_value(dst + size_t(i) * size_t(out.bytes), out.bytes, v);
      }
    }
  });
  return out;
}

py::array to_numpy(Pixels &&p) {
  static const char *const kFormats[2][5] = {{"", "u1", "u2", "", "u4"},
                                             {"", "i1", "i2", "", "i4"}};
  const py::dtype dtype(kFormats[p.is_signed ? 1 : 0][p.bytes]);
  void *data = p.data.release();
  py::capsule owner(data, [](void *d) { std::free(d); });
  return py::array(dtype, p.shape, data, owner);
}

ArrayView view_of(const py::array &a) {
  if ((a.flags() & py::array::c_style) == 0)
    throw std::invalid_argument("the array must be C-contiguous");
  ArrayView v;
  v.data = a.data();
  v.shape.assign(a.shape(), a.shape() + a.ndim());
  v.bytes = int(a.itemsize());
  const char kind = a.dtype().kind();
  if (kind != 'u' && kind != 'i')
    throw std::invalid_argument("pixels must be integers, not " + std::string(py::str(a.dtype())));
  v.is_signed = kind == 'i';
  return v;
}

void check_fits(const ArrayView &a, const ImageKind &kind) {
  const bool two = kind.layout == Layout::two_channel;
  const size_t dims = two ? 3 : 2;
  if (a.shape.size() != dims || (two && a.shape[0] != 2))
    throw std::invalid_argument(two ? "two-channel pixels must be an array of shape (2, h, w)"
                                    : "pixels must be a two-dimensional array");
  const auto height = a.shape[dims - 2], width = a.shape[dims - 1];
  if (height < 1 || width < 1 || height > std::numeric_limits<INT32>::max() ||
      width > std::numeric_limits<INT32>::max())
    throw std::invalid_argument("an image needs at least one pixel in each direction");
  const int pixel_bytes = (kind.depth + 7) / 8;
  if (a.bytes != element_bytes(kind.layout, pixel_bytes) || a.is_signed != element_signed(kind))
    throw std::invalid_argument(std::string("these pixels must be ") +
                                (element_signed(kind) ? "int" : "uint") +
                                std::to_string(8 * element_bytes(kind.layout, pixel_bytes)));
  // Two 16-bit channels always fit their 32-bit pixel; other elements must fit the depth.
  if (two || (a.bytes * 8 == kind.depth && a.is_signed == kind.is_signed)) return;
  int64_t low = 0, high = 0;
  limits_of(kind.depth, kind.is_signed, &low, &high);
  const auto *p = static_cast<const BYTE *>(a.data);
  const size_t count = size_t(width) * size_t(height);
  for (size_t i = 0; i < count; ++i) {
    const int64_t v = read_value(p + i * size_t(a.bytes), a.bytes, a.is_signed);
    if (v < low || v > high)
      throw std::invalid_argument(
          "pixel (" + std::to_string(i % size_t(width)) + ", " + std::to_string(i / size_t(width)) +
          ") holds " + std::to_string(v) + ", which a " + std::to_string(kind.depth) + "-bit " +
          (kind.is_signed ? "signed" : "unsigned") + " image cannot hold");
  }
}

OwnedImage copy_in(const ArrayView &a, const ImageKind &kind) {
  const bool two = kind.layout == Layout::two_channel;
  const auto height = a.shape[a.shape.size() - 2], width = a.shape[a.shape.size() - 1];
  const int pixel_bytes = (kind.depth + 7) / 8;
  OwnedImage out;
  out.image = image_new(INT32(width), INT32(height), kind.depth);
  session::check(out.image != nullptr, "making an image of the pixels");
  session::check(image_set_signed(out.image, kind.is_signed ? TRUE : FALSE), "marking the image");
  const auto *base = static_cast<const BYTE *>(a.data);
  const size_t plane = size_t(width) * size_t(height) * size_t(a.bytes);
  for (INT32 row = 0; row < height; ++row) {
    auto *raster = static_cast<BYTE *>(image_lockraster(out.image, row));
    session::check(raster != nullptr, "filling the image");
    const BYTE *src = base + size_t(row) * size_t(width) * size_t(a.bytes);
    if (!two && a.bytes == pixel_bytes) {
      std::memcpy(raster, src, size_t(width) * size_t(a.bytes));
    } else {
      for (INT32 i = 0; i < width; ++i) {
        int64_t v = read_value(src + size_t(i) * size_t(a.bytes), a.bytes, a.is_signed);
        // Channel 1 goes to the upper half of the word, channel 2 to the lower.
        if (two) v = v << 16 | read_value(src + plane + size_t(i) * 2, 2, false);
        write_value(raster + size_t(i) * size_t(pixel_bytes), pixel_bytes, v);
      }
    }
    image_unlockraster(out.image, row);
  }
  return out;
}

}  // namespace tvxpy
