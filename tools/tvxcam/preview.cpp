// The preview through libpng's simplified interface: the whole 8-bit image is made in memory and
// written at once.
#include "preview.h"

#include <png.h>

#include <algorithm>
#include <cmath>
#include <vector>

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

Levels write_png(const std::string &path, HANDLE image, Stretch stretch, double low_percent,
                 double high_percent) {
  const Shape s = shape_of(image);
  std::vector<double> values = values_of(image);
  std::vector<double> ranked = values;
  Levels levels{percentile(ranked, low_percent), percentile(ranked, high_percent)};
  if (levels.white <= levels.black) levels.white = levels.black + 1;
  std::vector<png_byte> grey(values.size());
  for (size_t i = 0; i < values.size(); ++i)
    grey[i] = static_cast<png_byte>(grey_of(values[i], levels, stretch));

  png_image png{};
  png.version = PNG_IMAGE_VERSION;
  png.width = static_cast<png_uint_32>(s.width);
  png.height = static_cast<png_uint_32>(s.height);
  png.format = PNG_FORMAT_GRAY;
  if (png_image_write_to_file(&png, path.c_str(), 0, grey.data(), 0, nullptr) == 0) {
    const std::string why = png.message;
    png_image_free(&png);
    throw Failure{"cannot write PNG file '" + path + "': " + why};
  }
  return levels;
}

}  // namespace tvxcam
