// Readout regions: one rectangle fitted to the binning grid for the controller's single-region
// read, the checks of a region list, and cutting a multi-region readout into one image per region.
#include <algorithm>

#include "foundation/fail.h"
#include "server/regions.h"
#include "tvx/image.h"
#include "tvx/list.h"
#include "tvx/values.h"

namespace tvx::server {

namespace {
constexpr INT32 kEvenAdcMode = 53;
constexpr INT32 kTwoChannelMode = 17;
constexpr INT32 kCauseNullRegion = 4192;
}  // namespace

Fitted fit(INT32 x, INT32 y, INT32 w, INT32 h, INT32 bx, INT32 by, bool binned, bool even) {
  const INT32 nx = std::max((w + bx / 2) / bx, 1);
  const INT32 ny = std::max((h + by / 2) / by, 1);
  const INT32 fx = (x + w - nx * bx + bx / 2) / bx;
  const INT32 fy = (y + h - ny * by + by / 2) / by;
  return {binned ? fx : fx * bx, binned ? fy : fy * by, even ? nx + nx % 2 : nx, ny};
}

bool wants_even(INT32 adc_mode, INT32 bx) {
  return adc_mode == kEvenAdcMode && bx >= 2;
}

HANDLE append_new_image(HANDLE list, INT32 width, INT32 height, INT32 depth,
                        BOOL (*append)(HANDLE, HANDLE)) {
  HANDLE image = image_new(width, height, depth);
  if (image != nullptr && append(list, image)) return image;
  image_delete(image);
  return nullptr;
}

INT32 readout_depth(INT32 adc_mode) {
  return (adc_mode & 0x3F) == kTwoChannelMode ? 32 : 16;
}

void binning_of(HANDLE sysparams, INT32 *bx, INT32 *by) {
  const bool earlier = error_pending();
  if (sysparams_ccdbinning(sysparams, bx, by) && *bx >= 1 && *by >= 1) return;
  // No binning given is no binning: the lookup's complaint is not the caller's failure.
  if (error_pending()) earlier ? err_pop(errors()) : err_reset_last(errors());
  *bx = *by = 1;
}

bool chip_of(HANDLE sysparams, Chip *chip, const char *routine) {
  if (!sysparams_ccdsize(sysparams, &chip->columns, &chip->rows)) return qualify(routine);
  binning_of(sysparams, &chip->bx, &chip->by);
  return true;
}

bool region_rect(HANDLE region, INT32 *x, INT32 *y, INT32 *w, INT32 *h, const Chip *chip,
                 const char *routine) {
  tvx::Locked<region_rec> rec(region, routine);
  if (!rec) return qualify(routine);
  *x = rec->x;
  *y = rec->y;
  *w = rec->width;
  *h = rec->height;
  if (chip != nullptr && !region_valid(rec.get(), chip->columns, chip->rows, "CCD chip"))
    return qualify(routine);
  return true;
}

bool missing(const char *routine, const char *text) {
  return fail(ERR_NO_DATA, 0, routine, {kCauseMissing}, "%s", text);
}

}  // namespace tvx::server

namespace {

using namespace tvx::server;
using tvx::fail;
using tvx::qualify;

bool write_region(HANDLE out, const Fitted &f, const char *routine) {
  tvx::Locked<region_rec> rec(out, routine);
  if (!rec) return qualify(routine);
  rec->x = f.x;
  rec->y = f.y;
  rec->width = f.width;
  rec->height = f.height;
  return true;
}

// The fitting shared by the three single-region operations; `region` NULL is the whole chip.
// The fitted values are written even when the region is off the chip.
bool fit_one(HANDLE server, HANDLE sysparams, HANDLE region, HANDLE out, const char *routine) {
  Locked r(server, routine);
  if (!r) return refused(routine);
  Chip chip;
  if (!chip_of(sysparams, &chip, routine)) return false;
  const bool even = wants_even(r->converter.mode, chip.bx);
  INT32 x = 0, y = 0, w = chip.columns, h = chip.rows;
  bool valid = true;
  Fitted f{0, 0, 0, 0};
  if (region == nullptr) {
    f = {0, 0, std::max((w + chip.bx / 2) / chip.bx, 1), std::max((h + chip.by / 2) / chip.by, 1)};
    if (even) f.width += f.width % 2;
  } else {
    if (!region_rect(region, &x, &y, &w, &h, nullptr, routine)) return false;
    {
      tvx::Locked<region_rec> rec(region, routine);
      valid = region_valid(rec.get(), chip.columns, chip.rows, "CCD chip");
    }
    f = fit(x, y, w, h, chip.bx, chip.by, false, even);
  }
  if (!write_region(out, f, routine)) return false;
  if (!valid) return qualify(routine);
  if (f.width * f.height == 0)
    return fail(ERR_NO_DATA, 0, routine, {kCauseNullRegion}, "null region");
  return true;
}

// The only region of a list, or NULL for none; fails for a list of more.
bool only_region(HANDLE regions, HANDLE *region, const char *routine) {
  *region = nullptr;
  if (regions == nullptr || list_size(regions) == 0) return true;
  if (list_size(regions) > 1)
    return fail(ERR_OUT_OF_RANGE, 0, routine, {}, "only one readout region supported.");
  *region = list_get_nth_object(regions, 1);
  return true;
}

}  // namespace

extern "C" {

BOOL server_set_readout_region(HANDLE server, HANDLE sysparams, HANDLE region, HANDLE out) {
  return fit_one(server, sysparams, region, out, "server_set_readout_region");
}

BOOL server_checked_readout_region(HANDLE server, HANDLE regions, HANDLE sysparams, HANDLE out) {
  static const char *const kOp = "server_checked_readout_region";
  HANDLE region = nullptr;
  if (!only_region(regions, &region, kOp) ||
      !server_set_readout_region(server, sysparams, region, out))
    return qualify(kOp);
  return TRUE;
}

BOOL server_select_first_region(HANDLE server, HANDLE sysparams, HANDLE regions, HANDLE out) {
  static const char *const kOp = "server_select_first_region";
  HANDLE region = nullptr;
  if (regions != nullptr && list_size(regions) == 1) region = list_get_nth_object(regions, 1);
  return fit_one(server, sysparams, region, out, kOp) ? TRUE : qualify(kOp);
}

BOOL server_check_regions(HANDLE server, HANDLE sysparams, HANDLE regions) {
  static const char *const kOp = "server_check_regions";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  if (regions == nullptr || list_size(regions) < 2) return TRUE;
  Chip chip;
  if (!chip_of(sysparams, &chip, kOp)) return FALSE;
  for (INT32 i = 0; i < list_size(regions); ++i) {
    INT32 x, y, w, h;
    if (!region_rect(list_get_nth_object(regions, i + 1), &x, &y, &w, &h, &chip, kOp)) return FALSE;
  }
  return TRUE;
}

BOOL server_multiple_regions(HANDLE server, HANDLE images, HANDLE regions, HANDLE shadow,
                             INT32 x_binning, INT32 y_binning) {
  static const char *const kOp = "server_multiple_regions";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  if (images == nullptr) return missing(kOp, "invalid image list");
  if (regions == nullptr) return missing(kOp, "invalid region list");
  const INT32 mode = r->converter.mode;
  const INT32 had = list_size(images);
  bool ok = true;
  for (INT32 i = 0; ok && i < list_size(regions); ++i) {
    HANDLE region = list_get_nth_object(regions, i + 1);
    INT32 x, y, w, h;
    if (!region_rect(region, &x, &y, &w, &h, nullptr, kOp)) {
      ok = false;
      break;
    }
    const Fitted f = fit(x, y, w, h, x_binning, y_binning, true, wants_even(mode, x_binning));
    HANDLE image = nullptr;
    if (i < had) {
      image = list_get_nth_object(images, i + 1);
    } else {
      image = append_new_image(images, f.width, f.height, readout_depth(mode), list_append_tail);
      if (image == nullptr) {
        ok = false;
        break;
      }
    }
    const char *name = region_getname(region);
    HANDLE cut = region_new(f.x, f.y, f.width, f.height, nullptr);
    ok = cut != nullptr && image_setname(image, name != nullptr ? name : "noname") &&
         image_region(shadow, cut, &image);
    region_delete(cut);
  }
  if (!ok) return qualify(kOp, "unable to extract region.");
  return TRUE;
}

}  // extern "C"
