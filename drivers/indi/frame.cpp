// Copying an image of the library into a frame buffer, raster by raster.
#include "frame.h"

#include <cmath>
#include <cstring>

#include "pixels.h"

namespace tvx_indi {

namespace {

template <typename Word>
void store(const std::vector<double> &values, double shift, uint8_t *out) {
  for (size_t i = 0; i < values.size(); ++i) {
    const auto word = static_cast<Word>(std::llround(values[i] + shift));
    std::memcpy(out + i * sizeof(Word), &word, sizeof(Word));
  }
}

}  // namespace

Frame frame_of(const session::Picture &picture, const std::string &creator) {
  if (picture.planes.empty()) throw session::Failure{"the readout gave no image"};
  const session::Plane &plane = picture.planes.front();
  const session::Shape s = session::shape_of(plane.image);
  Frame f;
  f.bits = s.bytes <= 2 ? 16 : 32;
  f.shifted = s.is_signed;
  f.x = plane.x0.value_or(0);
  f.y = plane.y0.value_or(0);
  f.width = s.width;
  f.height = s.height;
  f.cards = session::header_cards(plane, &picture.exposure, creator);

  const size_t word = f.bits == 16 ? sizeof(Word16) : sizeof(Word32);
  const size_t row_bytes = size_t(s.width) * word;
  f.pixels.resize(row_bytes * size_t(s.height));
  if (s.bytes == int(word) && !s.is_signed) {
    // Unsigned pixels of the buffer's own size, the usual case: the raster is the row.
    session::for_each_row(plane.image, [&](int row, const BYTE *raster) {
      std::memcpy(f.pixels.data() + size_t(row) * row_bytes, raster, row_bytes);
    });
    return f;
  }
  const double shift = s.is_signed ? std::ldexp(1.0, f.bits - 1) : 0.0;
  std::vector<double> values(size_t(s.width));
  session::for_each_row(plane.image, [&](int row, const BYTE *raster) {
    session::decode_row(s, raster, values.data());
    uint8_t *out = f.pixels.data() + size_t(row) * row_bytes;
    if (f.bits == 16)
      store<Word16>(values, shift, out);
    else
      store<Word32>(values, shift, out);
  });
  return f;
}

}  // namespace tvx_indi
