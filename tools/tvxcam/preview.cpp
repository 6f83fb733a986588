// The preview through libpng's simplified interface: the whole 8-bit image is made in memory and
// encoded at once.
#include "preview.h"

#include <png.h>

#include <algorithm>
#include <cmath>

#include "pixels.h"

namespace tvxcam {

namespace {

// How hard asinh compresses the highlights: at this softening the sky's noise spans the lower
// greys while a star's core climbs to white.
constexpr double kAsinhSoftening = 10.0;

}  // namespace

int grey_of(double value, const Levels &levels, Stretch stretch) {
  const double span = levels.white - levels.black;
  double t = span > 0 ? (value - levels.black) / span : (value > levels.black ? 1.0 : 0.0);
  t = std::clamp(t, 0.0, 1.0);
  if (stretch == Stretch::asinh) t = std::asinh(kAsinhSoftening * t) / std::asinh(kAsinhSoftening);
  return static_cast<int>(std::lround(t * 255.0));
}

std::vector<unsigned char> preview_png(const Plane &plane, Stretch stretch, double low_percent,
                                       double high_percent, Levels *levels) {
  const Shape s = shape_of(plane.image);
  const std::vector<double> values =
      plane.channels == 2 ? channel_values(plane.image, 1) : values_of(plane.image);
  std::vector<double> ranked = values;
  *levels = Levels{percentile(ranked, low_percent), percentile(ranked, high_percent)};
  if (levels->white <= levels->black) levels->white = levels->black + 1;
  std::vector<png_byte> grey(values.size());
  for (size_t i = 0; i < values.size(); ++i)
    grey[i] = static_cast<png_byte>(grey_of(values[i], *levels, stretch));

  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = static_cast<png_uint_32>(s.width);
  png.height = static_cast<png_uint_32>(s.height);
  png.format = PNG_FORMAT_GRAY;
  // A negative stride hands libpng the rows from the last: raster 0 ends at the bottom.
  const png_int_32 stride = -static_cast<png_int_32>(s.width);
  png_alloc_size_t size = 0;
  std::vector<unsigned char> bytes;
  if (png_image_write_to_memory(&png, nullptr, &size, 0, grey.data(), stride, nullptr) != 0) {
    bytes.resize(size);
    if (png_image_write_to_memory(&png, bytes.data(), &size, 0, grey.data(), stride, nullptr) !=
        0) {
      bytes.resize(size);
      return bytes;
    }
  }
  const std::string why = png.message;
  png_image_free(&png);
  throw Failure{"cannot make a PNG preview: " + why};
}

}  // namespace tvxcam
