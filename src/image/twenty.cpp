// Two-channel data: fitting channel 1 to channel 2, joining them into about 20 bits of range,
// splitting them apart, and subtracting image zero.
#include <cmath>
#include <cstdint>
#include <cstring>

#include "image/pixels.h"
#include "tvx/report.h"
#include "tvx/twenty.h"

namespace {

using tvx::image::AllRows;
using tvx::image::Image;
using tvx::image::Rect;
using tvx::image::RowCursor;

// Channel 1 above this is too near saturation to say anything about the fit.
constexpr uint32_t kNearSaturation = 65000;
constexpr uint32_t kSaturated = 65535;
// Partial sums move into a double before a 32-bit sum could overflow.
constexpr long long kPartialLimit = 2140000000;
constexpr double kWellCorrelated = 0.9;
constexpr INT32 kFewestPixels = 100;

uint32_t channel1(uint32_t pixel) {
  return pixel >> 16;
}
uint32_t channel2(uint32_t pixel) {
  return pixel & 0xFFFF;
}

uint32_t pixel_at(const BYTE *row, INT32 x) {
  uint32_t v;
  std::memcpy(&v, row + static_cast<size_t>(x) * 4, 4);
  return v;
}

void tell(const char *text) {
  report *info = nullptr;
  report_where_is(REPORT_INFO, &info);
  report_send(info, "%s", text);
}

// A running sum that never overflows its integer part.
struct Sum {
  long long part = 0;
  double whole = 0;
  void add(uint32_t v) {
    part += v;
    if (part > kPartialLimit) {
      whole += static_cast<double>(part);
      part = 0;
    }
  }
  double total() const { return whole + static_cast<double>(part); }
};

bool stats_of(HANDLE image, HANDLE region, chan_stats *stats, double minimum_signal,
              double electrons_per_level, const char *routine) {
  Image img(image, routine);
  Rect r{};
  if (!img.ok() || !tvx::image::clip_region(region, img.rec(), routine, &r, "image"))
    return tvx::qualify(routine);
  AllRows rows(img.rec(), img.blocks(), routine);
  if (!rows.ok()) return tvx::qualify(routine);

  *stats = chan_stats{};
  Sum sum1, sum2;
  long long used = static_cast<long long>(r.width) * r.height;
  for (INT32 y = r.y; y < r.y + r.height; ++y)
    for (INT32 x = r.x; x < r.x + r.width; ++x) {
      const uint32_t p = pixel_at(rows.row(y), x);
      if (channel1(p) > kNearSaturation) {
        --used;
        continue;
      }
      sum1.add(channel1(p));
      sum2.add(channel2(p));
    }
  if (used < kFewestPixels) {
    tell("Insufficient pixels available from channel 1 for 20 bit operation\n");
    return true;
  }
  if (sum1.total() * electrons_per_level < minimum_signal) {
    tell("Insufficient signal available in channel 1 for 20 bit operation\n");
    return true;
  }
  stats->mean1 = sum1.total() / static_cast<double>(used);
  stats->mean2 = sum2.total() / static_cast<double>(used);

  // Each row's mean square deviations count once, however many of its pixels were used.
  double v1 = 0, v2 = 0, cv = 0;
  INT32 counted = 0;
  for (INT32 y = r.y; y < r.y + r.height; ++y) {
    double s11 = 0, s22 = 0, s12 = 0;
    INT32 n = 0;
    for (INT32 x = r.x; x < r.x + r.width; ++x) {
      const uint32_t p = pixel_at(rows.row(y), x);
      if (channel1(p) > kNearSaturation) continue;
      const double d1 = channel1(p) - stats->mean1, d2 = channel2(p) - stats->mean2;
      s11 += d1 * d1;
      s22 += d2 * d2;
      s12 += d1 * d2;
      ++n;
    }
    if (n == 0) continue;
    v1 += s11 / n;
    v2 += s22 / n;
    cv += s12 / n;
    ++counted;
  }
  stats->var1 = v1 / counted;
  stats->var2 = v2 / counted;
  stats->cov = cv / counted;
  stats->valid = 1;
  return true;
}

bool require_32_bit(HANDLE image, const char *routine) {
  INT32 w = 0, h = 0, depth = 0;
  if (!image_size(image, &w, &h, &depth)) return tvx::qualify(routine);
  if ((depth + 7) / 8 != 4)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, routine, {0x1073}, "source image not 32 bit");
  return true;
}

// Image zero taken from one pixel of `size` bytes: a signed result wraps, with pixels that
// already read as negative first held at the largest positive value; an unsigned one saturates.
long long less_zero(long long pixel, INT32 size, INT32 level, bool is_signed) {
  const long long top = size == 4 ? 0xFFFFFFFFLL : (1LL << (8 * size)) - 1;
  const long long largest_positive = top >> 1;
  if (is_signed) {
    if (pixel > largest_positive) pixel = largest_positive;
    return (pixel - level) & top;
  }
  const long long result = pixel - level;
  return result < 0 ? 0 : (result > top ? top : result);
}

}  // namespace

extern "C" {

BOOL image_chan_stats(HANDLE image, HANDLE region, chan_stats *stats, double minimum_signal,
                      double electrons_per_level) {
  return stats_of(image, region, stats, minimum_signal, electrons_per_level, "image_chan_stats");
}

BOOL image_20_bit_correlate(HANDLE image, HANDLE region, double *ratio, double *offset,
                            double *r_squared, double minimum_signal, double electrons_per_level) {
  static const char *const kOp = "image_20_bit_correlate";
  *ratio = *offset = *r_squared = 0;
  if (!require_32_bit(image, kOp)) return FALSE;
  chan_stats s{};
  if (!stats_of(image, region, &s, minimum_signal, electrons_per_level, kOp)) return FALSE;
  if (!s.valid) return TRUE;
  *r_squared = s.cov * s.cov / (s.var2 * s.var1);
  if (!(*r_squared >= kWellCorrelated)) {
    tell("Insufficient correlation for 20 bit operation");
    return TRUE;
  }
  *ratio = s.var1 / s.cov;
  *offset = s.mean1 - *ratio * s.mean2;
  return TRUE;
}

BOOL image_32_to_20_bit(HANDLE image, HANDLE region, double ratio, double offset) {
  static const char *const kOp = "image_32_to_20_bit";
  Image img(image, kOp);
  Rect r{};
  if (!img.ok() || !tvx::image::clip_region(region, img.rec(), kOp, &r)) return tvx::qualify(kOp);
  RowCursor rows(img.rec(), img.blocks(), kOp);
  for (INT32 y = r.y; y < r.y + r.height; ++y) {
    BYTE *row = rows.row(y);
    if (row == nullptr) return tvx::qualify(kOp);
    for (INT32 x = r.x; x < r.x + r.width; ++x) {
      const uint32_t p = pixel_at(row, x);
      uint32_t joined = channel1(p);
      if (channel1(p) >= kSaturated && ratio != 0.0)
        joined = static_cast<uint32_t>(std::lround(channel2(p) * ratio + offset));
      std::memcpy(row + static_cast<size_t>(x) * 4, &joined, 4);
    }
  }
  return TRUE;
}

BOOL image_subtract_iz(HANDLE image, INT32 level, BYTE is_signed) {
  static const char *const kOp = "image_subtract_iz";
  if (!image_set_signed(image, is_signed != 0)) return tvx::qualify(kOp);
  Image img(image, kOp);
  if (!img.ok()) return tvx::qualify(kOp);
  const INT32 size = tvx::image::pixel_size_of(img->depth);
  RowCursor rows(img.rec(), img.blocks(), kOp);
  for (INT32 y = 0; y < img->height; ++y) {
    BYTE *row = rows.row(y);
    if (row == nullptr) return tvx::qualify(kOp);
    for (INT32 x = 0; x < img->width; ++x) {
      BYTE *p = row + static_cast<size_t>(x) * size;
      tvx::image::store_pixel(
          p, size, less_zero(tvx::image::load_pixel(p, size, false), size, level, is_signed));
    }
  }
  return TRUE;
}

BOOL image_pixel_split(HANDLE image, HANDLE region, HANDLE *out, INT32 which) {
  static const char *const kOp = "image_pixel_split";
  if (!require_32_bit(image, kOp)) return tvx::qualify(kOp);
  Image src(image, kOp);
  Rect r{};
  if (!src.ok() || !tvx::image::clip_region(region, src.rec(), kOp, &r)) return tvx::qualify(kOp);
  bool made = false;
  if (!tvx::image::prepare_output(out, r.width, r.height, 16, &made)) return tvx::qualify(kOp);
  bool ok = false;
  {
    Image dst(*out, kOp);
    if (dst.ok()) {
      RowCursor from(src.rec(), src.blocks(), kOp), to(dst.rec(), dst.blocks(), kOp);
      ok = true;
      for (INT32 i = 0; i < r.height && ok; ++i) {
        const BYTE *row = from.row(r.y + i);
        BYTE *target = row != nullptr ? to.row(i) : nullptr;
        if (target == nullptr) {
          ok = false;
          break;
        }
        for (INT32 x = 0; x < r.width; ++x) {
          const uint32_t p = pixel_at(row, r.x + x);
          const auto half = static_cast<uint16_t>(which == 1 ? channel1(p) : channel2(p));
          std::memcpy(target + static_cast<size_t>(x) * 2, &half, 2);
        }
      }
    }
  }
  if (!ok) {
    tvx::image::drop_output(out, made);
    return tvx::qualify(kOp);
  }
  return TRUE;
}

BOOL image_measure_multi_chan(HANDLE image, HANDLE region, image_stats *channel1_stats,
                              image_stats *channel2_stats, BOOL show) {
  static const char *const kOp = "image_measure_multi_chan";
  HANDLE split = nullptr;
  const bool ok = image_pixel_split(image, region, &split, 0) &&
                  image_histogram_stats(split, nullptr, channel2_stats, show) &&
                  image_pixel_split(image, region, &split, 1) &&
                  image_histogram_stats(split, nullptr, channel1_stats, show);
  image_delete(split);
  return ok ? TRUE : tvx::qualify(kOp);
}

}  // extern "C"
