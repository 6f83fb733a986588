// Statistics of a region of an image, display limits and ratios of two images. The statistics
// come from a histogram of every level, so the order statistics (median, quartiles, mode) are
// exact and the moments are summed over levels rather than pixels.
#include <cmath>
#include <cstdio>

#include "image/pixels.h"
#include "tvx/report.h"

namespace {

using tvx::fail;
using tvx::qualify;
using tvx::image::Image;
using tvx::image::pixel_size_of;
using tvx::image::Rect;
using tvx::image::RowCursor;

// Counts of every level of an 8- or 16-bit region. Level `value + offset` is counted at index
// value + offset, so that signed pixels have a place too.
class Histogram {
 public:
  ~Histogram() {
    if (counts_ != nullptr) standard_free(counts_, "histogram");
  }
  bool build(HANDLE image, HANDLE region, const char *routine, bool sixteen_bits_only);

  DWORD count(INT32 index) const { return counts_[index]; }
  INT32 levels() const { return levels_; }
  INT32 offset() const { return offset_; }
  double area() const { return area_; }
  // The smallest level that at least `share` of the pixels do not exceed.
  INT32 quantile(double share) const {
    double wanted = std::ceil(share * area_);
    if (wanted < 1) wanted = 1;
    double seen = 0;
    for (INT32 i = 0; i < levels_; ++i) {
      seen += counts_[i];
      if (seen >= wanted) return i - offset_;
    }
    return levels_ - 1 - offset_;
  }

 private:
  DWORD *counts_ = nullptr;
  INT32 levels_ = 0;
  INT32 offset_ = 0;
  double area_ = 0;
};

bool Histogram::build(HANDLE image, HANDLE region, const char *routine, bool sixteen_bits_only) {
  Image img(image, routine);
  if (!img.ok()) return false;
  INT32 size = pixel_size_of(img->depth);
  if (size != 2 && (sixteen_bits_only || size != 1))
    return fail(ERR_OUT_OF_RANGE, 0, routine, {tvx::image::kCauseProgrammer},
                "image depth of %ld bits not supported: %s pixels needed.", long{img->depth},
                sixteen_bits_only ? "16 bit" : "8 or 16 bit");
  Rect rect{};
  if (!tvx::image::clip_region(region, img.rec(), routine, &rect)) return false;
  if (rect.width == 0 || rect.height == 0)
    return fail(ERR_NO_DATA, 0, "ip_hstats", {}, "region (%ld x %ld) holds no pixels.",
                long{rect.width}, long{rect.height});
  levels_ = size == 2 ? 65536 : 256;
  offset_ = img->is_signed ? levels_ / 2 : 0;
  // Neighbouring pixels of a picture mostly share a few levels, and counting one level twice in a
  // row waits for the first count: alternate pixels go to two tallies, the second of them in the
  // upper half of the allocation, added to the first at the end.
  counts_ = static_cast<DWORD *>(standard_allocate(levels_ * 2, sizeof(DWORD), MEM_PLAIN));
  if (counts_ == nullptr) return false;
  DWORD *other = counts_ + levels_;
  RowCursor rows(img.rec(), img.blocks(), routine);
  bool is_signed = img->is_signed != 0;
  for (INT32 i = 0; i < rect.height; ++i) {
    const BYTE *p = rows.row(rect.y + i);
    if (p == nullptr) return false;
    p += static_cast<size_t>(rect.x) * size;
    INT32 c = 0;
    for (; c + 1 < rect.width; c += 2, p += 2 * size) {
      ++counts_[tvx::image::load_pixel(p, size, is_signed) + offset_];
      ++other[tvx::image::load_pixel(p + size, size, is_signed) + offset_];
    }
    if (c < rect.width) ++counts_[tvx::image::load_pixel(p, size, is_signed) + offset_];
  }
  for (INT32 level = 0; level < levels_; ++level) counts_[level] += other[level];
  area_ = static_cast<double>(rect.width) * rect.height;
  return true;
}

void measure(const Histogram &h, image_stats *s) {
  *s = image_stats{};
  s->area = h.area();
  INT32 first = -1, last = -1, mode = 0;  // the first level counted takes the mode from 0
  double sum = 0;
  for (INT32 i = 0; i < h.levels(); ++i) {
    DWORD n = h.count(i);
    if (n == 0) continue;
    if (first < 0) first = i;
    last = i;
    if (n > h.count(mode)) mode = i;
    sum += static_cast<double>(n) * (i - h.offset());
  }
  s->min = first - h.offset();
  s->max = last - h.offset();
  s->mode = mode - h.offset();
  s->mean = sum / s->area;
  double m2 = 0, m3 = 0, m4 = 0;
  for (INT32 i = first; i <= last; ++i) {
    double n = h.count(i), d = (i - h.offset()) - s->mean, d2 = d * d;
    m2 += n * d2;
    m3 += n * d2 * d;
    m4 += n * d2 * d2;
  }
  m2 /= s->area, m3 /= s->area, m4 /= s->area;
  s->variance = m2;
  s->sdev = std::sqrt(m2);
  if (m2 > 0) {
    s->skew = m3 / (m2 * s->sdev);
    s->kurtosis = m4 / (m2 * m2) - 3.0;
  }
  s->median = h.quantile(0.5);
  s->lower_quartile = h.quantile(0.25);
  s->upper_quartile = h.quantile(0.75);
}

// The print form, one line per pair.
struct StatsLine {
  const char *format;
  double image_stats::*left;
  double image_stats::*right;
};
constexpr StatsLine kStatsLines[] = {
    {"minimum : % 12.2f,    maximum : % 12.2f\n", &image_stats::min, &image_stats::max},
    {"mean    : % 12.2f,    area    : % 12.2f\n", &image_stats::mean, &image_stats::area},
    {"variance: % 12.2f,    sdev    : % 12.2f\n", &image_stats::variance, &image_stats::sdev},
    {"skew    : % 12.4f,    kurtosis: % 12.4f\n", &image_stats::skew, &image_stats::kurtosis},
    {"median  : % 12.2f,    mode    : % 12.2f\n", &image_stats::median, &image_stats::mode},
    {"lower q : % 12.2f,    upper q : % 12.2f\n", &image_stats::lower_quartile,
     &image_stats::upper_quartile},
};

bool fail_argument(const char *routine) {
  return fail(ERR_INCONSISTENT, 0, routine, {tvx::image::kCauseProgrammer}, "invalid argument");
}

}  // namespace

extern "C" {

BOOL image_histogram_stats(HANDLE image, HANDLE region, image_stats *stats, BOOL show) {
  static const char *const kOp = "image_histogram_stats";
  if (stats == nullptr) return fail_argument(kOp);
  Histogram h;
  if (!h.build(image, region, kOp, true)) return qualify(kOp);
  measure(h, stats);
  if (show) {
    report *info = nullptr;
    report_where_is(REPORT_INFO, &info);
    for (const StatsLine &line : kStatsLines)
      report_send(info, line.format, stats->*line.left, stats->*line.right);
  }
  return true;
}

BOOL image_stats_print(const image_stats *stats, FILE *stream) {
  if (stats == nullptr || stream == nullptr) return fail_argument("image_stats_print");
  for (const StatsLine &line : kStatsLines)
    std::fprintf(stream, line.format, stats->*line.left, stats->*line.right);
  std::fflush(stream);
  return true;
}

BOOL image_autoscale(HANDLE image, HANDLE region, INT32 *low, INT32 *high) {
  static const char *const kOp = "image_autoscale";
  if (low == nullptr || high == nullptr) return fail_argument(kOp);
  Histogram h;
  if (!h.build(image, region, kOp, false)) return qualify(kOp);
  *low = h.quantile(0.005);
  *high = h.quantile(0.995);
  if (*high <= *low) *high = *low + 1;
  return true;
}

BOOL image_pixel_ratio(HANDLE numerator, HANDLE denominator, HANDLE *out, double scale) {
  static const char *const kOp = "image_pixel_ratio";
  if (out == nullptr) return fail_argument(kOp);
  if (*out != nullptr && (*out == numerator || *out == denominator))
    return tvx::image::fail_same_image(kOp);
  Image num(numerator, kOp);
  if (!num.ok()) return qualify(kOp);
  Image den(denominator, kOp);
  if (!den.ok()) return qualify(kOp);
  if (num->width != den->width || num->height != den->height)
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {tvx::image::kCauseProgrammer},
                "images differ in size (%ld x %ld and %ld x %ld).", long{num->width},
                long{num->height}, long{den->width}, long{den->height});
  bool made = false;
  if (!tvx::image::prepare_output(out, num->width, num->height, num->depth, &made))
    return qualify(kOp);
  bool ok = [&] {
    Image res(*out, kOp);
    if (!res.ok()) return false;
    res->is_signed = num->is_signed;
    bool is_signed = num->is_signed != 0;
    double top = is_signed ? std::ldexp(1.0, num->depth - 1) - 1 : std::ldexp(1.0, num->depth) - 1;
    double bottom = is_signed ? -top - 1 : 0;
    INT32 ns = pixel_size_of(num->depth), ds = pixel_size_of(den->depth);
    RowCursor a(num.rec(), num.blocks(), kOp), b(den.rec(), den.blocks(), kOp),
        c(res.rec(), res.blocks(), kOp);
    for (INT32 r = 0; r < num->height; ++r) {
      const BYTE *pa = a.row(r), *pb = b.row(r);
      BYTE *pc = c.row(r);
      if (pa == nullptr || pb == nullptr || pc == nullptr) return false;
      for (INT32 x = 0; x < num->width; ++x, pa += ns, pb += ds, pc += ns) {
        auto va = static_cast<double>(tvx::image::load_pixel(pa, ns, is_signed));
        auto vb = static_cast<double>(tvx::image::load_pixel(pb, ds, den->is_signed != 0));
        double q = vb == 0 ? 0 : std::round(scale * va / vb);
        if (std::isnan(q)) q = 0;
        q = q < bottom ? bottom : q > top ? top : q;
        tvx::image::store_pixel(pc, ns, static_cast<long long>(q));
      }
    }
    return true;
  }();
  if (!ok) {
    tvx::image::drop_output(out, made);
    return qualify(kOp);
  }
  return true;
}

}  // extern "C"
