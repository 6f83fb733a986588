// Read sequences: several regions read in one pass. The regions are painted into a map of the
// binned chip; rows with the same layout of painted runs share one group of entries, so the
// sequence grows with the number of distinct row layouts, not with the number of rows.
#include <cstdint>
#include <cstring>
#include <vector>

#include "foundation/fail.h"
#include "image/pixels.h"
#include "server/regions.h"
#include "tvx/image.h"
#include "tvx/list.h"

namespace {

using tvx::fail;
using tvx::qualify;
using tvx::server::Fitted;

constexpr const char *kOp = "cs71_create_ccd_rdseq2";

HANDLE as_object(DWORD word) {
  return reinterpret_cast<HANDLE>(static_cast<uintptr_t>(word));
}

DWORD entry(INT32 value, INT32 code) {
  return static_cast<DWORD>(value) << 4 | static_cast<DWORD>(code);
}

bool append(HANDLE sequence, DWORD word) {
  return list_append_tail(sequence, as_object(word)) != FALSE;
}

// One row of the map as runs of equal pixel values.
struct Run {
  INT32 start, length;
  bool painted;
};

// Where the run of pixels equal to pixel `start` ends, for pixels of type T.
template <typename T>
INT32 run_end(const BYTE *row, INT32 start, INT32 width) {
  T first, next;
  std::memcpy(&first, row + static_cast<size_t>(start) * sizeof(T), sizeof(T));
  INT32 c = start + 1;
  for (; c < width; ++c) {
    std::memcpy(&next, row + static_cast<size_t>(c) * sizeof(T), sizeof(T));
    if (next != first) break;
  }
  return c;
}

std::vector<Run> runs_of(const BYTE *row, INT32 width, INT32 pixel_size) {
  std::vector<Run> runs;
  for (INT32 start = 0, end = 0; start < width; start = end) {
    switch (pixel_size) {
      case 1:
        end = run_end<uint8_t>(row, start, width);
        break;
      case 2:
        end = run_end<uint16_t>(row, start, width);
        break;
      case 4:
        end = run_end<uint32_t>(row, start, width);
        break;
      default: {
        const auto size = static_cast<size_t>(pixel_size);
        const BYTE *first = row + static_cast<size_t>(start) * size;
        end = start + 1;
        while (end < width && std::memcmp(row + static_cast<size_t>(end) * size, first, size) == 0)
          ++end;
        break;
      }
    }
    const BYTE *first = row + static_cast<size_t>(start) * static_cast<size_t>(pixel_size);
    runs.push_back({start, end - start, tvx::image::load_pixel(first, pixel_size, false) != 0});
  }
  return runs;
}

// Rows whose painted runs start and end at the same columns read alike.
DWORD row_code(const std::vector<Run> &runs) {
  DWORD code = 0;
  for (const Run &run : runs)
    if (run.painted) code += static_cast<DWORD>(run.length) << 16 | static_cast<DWORD>(run.start);
  return code;
}

bool paint(HANDLE regions, HANDLE map, INT32 bx, INT32 by, INT32 adc_mode) {
  if (!image_set_region(map, nullptr, 0)) return false;
  for (INT32 i = 0; i < list_size(regions); ++i) {
    INT32 x, y, w, h;
    if (!tvx::server::region_rect(list_get_nth_object(regions, i + 1), &x, &y, &w, &h, nullptr,
                                  kOp))
      return false;
    const Fitted f =
        tvx::server::fit(x, y, w, h, bx, by, true, tvx::server::wants_even(adc_mode, bx));
    HANDLE cut = region_new(f.x, f.y, f.width, f.height, nullptr);
    const bool ok = cut != nullptr && image_set_region(map, cut, 1);
    region_delete(cut);
    if (!ok) return tvx::fail_unless_pending(ERR_OUT_OF_RANGE, 0, kOp, {}, "cannot fill region");
  }
  return true;
}

// The entries of one group of n rows laid out as `runs`; adds the pixels it reads.
bool emit_group(HANDLE sequence, const std::vector<Run> &runs, INT32 n, INT32 by, INT32 width,
                INT32 *pixels) {
  if (n > 1 && !(append(sequence, entry(n, RDSEQ_REPEAT)) && append(sequence, 0))) return false;
  const HANDLE placeholder = n > 1 ? list_get_current(sequence) : nullptr;
  if (!append(sequence, entry(by, RDSEQ_SHIFT))) return false;
  INT32 read = 0, skipped = 0;
  for (const Run &run : runs) {
    if (!append(sequence, entry(run.length, run.painted ? RDSEQ_READ : RDSEQ_SKIP))) return false;
    (run.painted ? read : skipped) += run.length;
  }
  if (placeholder != nullptr) {
    const HANDLE at = list_get_current(sequence);
    if (!list_set_current(sequence, placeholder) ||
        !list_set_object(sequence, as_object(static_cast<DWORD>(1 + runs.size()))) ||
        !list_set_current(sequence, at))
      return false;
  }
  if (read + skipped > width)
    return fail(ERR_OUT_OF_RANGE, 0, "create_rdseq", {},
                "create ccd read sequence failed (%d, %d, %d)", int{read + skipped}, int{width},
                int{n});
  *pixels += read * n;
  return true;
}

bool build(HANDLE regions, HANDLE map, INT32 bx, INT32 by, INT32 adc_mode, HANDLE sequence,
           INT32 *pixel_count) {
  *pixel_count = 0;
  if (!paint(regions, map, bx, by, adc_mode)) return false;
  INT32 width = 0, height = 0, depth = 0;
  if (!image_size(map, &width, &height, &depth)) return false;
  tvx::image::Image img(map, kOp);
  if (!img.ok()) return false;
  tvx::image::AllRows rows(img.rec(), img.blocks(), kOp);
  if (!rows.ok()) return false;
  const INT32 pixel_size = tvx::image::pixel_size_of(depth);
  std::vector<std::vector<Run>> layouts(static_cast<size_t>(height));
  std::vector<DWORD> codes(static_cast<size_t>(height));
  for (INT32 r = 0; r < height; ++r) {
    layouts[size_t(r)] = runs_of(rows.row(r), width, pixel_size);
    codes[size_t(r)] = row_code(layouts[size_t(r)]);
  }
  for (INT32 r = 0; r < height;) {
    INT32 n = 1;
    while (r + n < height && codes[size_t(r + n)] == codes[size_t(r)] && !tvx::error_pending()) ++n;
    const bool ok = codes[size_t(r)] == 0
                        ? append(sequence, entry(n, RDSEQ_SKIP_ROWS))
                        : emit_group(sequence, layouts[size_t(r)], n, by, width, pixel_count);
    if (!ok) return false;
    r += n;
  }
  return true;
}

}  // namespace

extern "C" {

BOOL cs71_create_ccd_rdseq2(HANDLE regions, HANDLE map, INT32 x_binning, INT32 y_binning,
                            INT32 adc_mode, HANDLE sequence, INT32 *pixel_count) {
  if (!build(regions, map, x_binning, y_binning, adc_mode, sequence, pixel_count))
    return qualify(kOp, "create rd sequence failed");
  return TRUE;
}

}  // extern "C"
