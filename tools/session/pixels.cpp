// Pixels as numbers: rasters are locked one at a time, as the image's blocks require.
#include "pixels.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "session.h"

namespace session {

Shape shape_of(HANDLE image) {
  Shape s;
  INT32 w = 0, h = 0, d = 0;
  check(image_size(image, &w, &h, &d), "reading the image's size");
  s.width = w;
  s.height = h;
  s.depth = d;
  s.bytes = (d + 7) / 8;
  s.is_signed = image_is_signed(image) != FALSE;
  return s;
}

void for_each_row(HANDLE image, const std::function<void(int row, const BYTE *raster)> &fn) {
  const Shape s = shape_of(image);
  for (int row = 0; row < s.height; ++row) {
    const auto *raster = static_cast<const BYTE *>(image_lockraster(image, row));
    check(raster != nullptr, "reading raster " + std::to_string(row));
    fn(row, raster);
    image_unlockraster(image, row);
  }
}

void decode_row(const Shape &s, const BYTE *raster, double *out) {
  for (int i = 0; i < s.width; ++i) {
    const BYTE *p = raster + size_t(i) * size_t(s.bytes);
    switch (s.bytes) {
      case 1:
        out[i] = s.is_signed ? double(int8_t(p[0])) : double(p[0]);
        break;
      case 2: {
        uint16_t v;
        std::memcpy(&v, p, 2);
        out[i] = s.is_signed ? double(int16_t(v)) : double(v);
        break;
      }
      case 3: {
        uint32_t v = uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16;
        if (s.is_signed && (v & 0x800000u) != 0) v |= 0xFF000000u;
        out[i] = s.is_signed ? double(int32_t(v)) : double(v);
        break;
      }
      default: {
        uint32_t v;
        std::memcpy(&v, p, 4);
        out[i] = s.is_signed ? double(int32_t(v)) : double(v);
        break;
      }
    }
  }
}

std::vector<double> values_of(HANDLE image) {
  const Shape s = shape_of(image);
  std::vector<double> values(size_t(s.width) * size_t(s.height));
  for_each_row(image, [&](int row, const BYTE *raster) {
    decode_row(s, raster, values.data() + size_t(row) * size_t(s.width));
  });
  return values;
}

std::vector<double> channel_values(HANDLE image, int channel) {
  std::vector<double> values = values_of(image);
  const int shift = channel == 1 ? 16 : 0;
  for (double &v : values) v = double((static_cast<uint32_t>(v) >> shift) & 0xFFFFu);
  return values;
}

double percentile(std::vector<double> &values, double percent) {
  if (values.empty()) return 0;
  // The smallest level that at least `percent` of the pixels do not exceed.
  const double rank = std::ceil(percent / 100.0 * double(values.size()));
  const size_t at = size_t(std::clamp(rank - 1, 0.0, double(values.size() - 1)));
  std::nth_element(values.begin(), values.begin() + long(at), values.end());
  return values[at];
}

Stats stats_of(HANDLE image) {
  const Shape s = shape_of(image);
  Stats out;
  if (s.depth == 16) {
    image_stats st{};
    check(image_histogram_stats(image, nullptr, &st, FALSE), "measuring the image");
    out = Stats{st.min,  st.max, st.mean, st.sdev, st.median, st.lower_quartile, st.upper_quartile,
                st.mode, st.area};
    return out;
  }
  return stats_of(values_of(image));
}

Stats stats_of(std::vector<double> v) {
  Stats out;
  if (v.empty()) return out;
  out.count = double(v.size());
  double sum = 0;
  for (double x : v) sum += x;
  out.mean = sum / out.count;
  double squares = 0;
  for (double x : v) squares += (x - out.mean) * (x - out.mean);
  out.sdev = std::sqrt(squares / out.count);
  const auto [lo, hi] = std::minmax_element(v.begin(), v.end());
  out.min = *lo;
  out.max = *hi;
  out.median = percentile(v, 50);
  out.lower_quartile = percentile(v, 25);
  out.upper_quartile = percentile(v, 75);
  std::sort(v.begin(), v.end());
  size_t best = 0;
  for (size_t i = 0; i < v.size();) {
    size_t j = i;
    while (j < v.size() && v[j] == v[i]) ++j;
    if (j - i > best) {
      best = j - i;
      out.mode = v[i];
    }
    i = j;
  }
  return out;
}

}  // namespace session
