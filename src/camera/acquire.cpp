// Taking pictures through the camera: the regions to read, the parameter list the readout
// program runs with, and the processing of the images by the operation mode: image zero from the
// reference columns, the active area, two channels joined into 20 bits, image zero subtracted.
#include <algorithm>
#include <cmath>
#include <cstdio>

#include "camera/camera_record.h"
#include "foundation/fail.h"
#include "tvx/list.h"
#include "tvx/twenty.h"
#include "tvx/values.h"

namespace {

using tvx::camera::Locked;
using tvx::camera::Record;

constexpr INT32 kReferenceColumns = 13;
constexpr INT32 kPedestal = 256;
constexpr INT32 kProgrammer = 0x1040;
constexpr INT32 kProgramErrors = 0x2018;

bool program_file(const Record &r, const char *name, const char **file, const char *op) {
  if (camprogs_get_basefile(r.programs, name, file)) return true;
  if (tvx::error_pending()) return tvx::qualify(op);
  return tvx::fail(ERR_NO_DATA, 2, op, {kProgramErrors},
                   "unable to find '%s' in camera program list.", name);
}

// The chip's size and binning, and the pointer parameters, in the order the readout program
// reads them.
HANDLE readout_params(const Record &r, std::initializer_list<std::pair<INT32, INT32>> more,
                      std::initializer_list<std::pair<INT32, HANDLE>> pointers) {
  HANDLE p = sysparams_new();
  if (p == nullptr) return nullptr;
  bool ok = true;
  for (auto [id, v] : {std::pair<INT32, INT32>{SYSPARAM_XSIZE, r.chip.xsize},
                       {SYSPARAM_YSIZE, r.chip.ysize},
                       {SYSPARAM_XBIN, r.chip.xbin},
                       {SYSPARAM_YBIN, r.chip.ybin}})
    ok = ok && sysparams_append(p, sysparam_make_ival(id, v));
  for (auto [id, v] : more) ok = ok && sysparams_append(p, sysparam_make_ival(id, v));
  for (auto [id, h] : pointers) ok = ok && sysparams_append(p, sysparam_make_pval(id, h));
  if (!ok) {
    sysparams_delete(p);
    return nullptr;
  }
  return p;
}

bool is_full_chip(HANDLE image, const Record &r, INT32 *depth) {
  INT32 w = 0, h = 0;
  return image_size(image, &w, &h, depth) && w == r.chip.xsize && h == r.chip.ysize;
}

bool null_image(const char *op) {
  if (tvx::error_pending()) return tvx::qualify(op);
  return tvx::fail(ERR_NO_DATA, 0, op, {kProgrammer}, "image list contains a NULL image handle");
}

// The frames of a series, each an image list, processed as the operation mode says.
bool process_frames(HANDLE camera, INT32 mode, HANDLE image_lists) {
  static const char *const kOp = "camera_process_all_frames";
  for (INT32 n = 1; n <= list_size(image_lists); ++n) {
    HANDLE frame = list_get_nth_object(image_lists, n);
    bool ok = true;
    if (mode == 1) ok = camera_measure_iz(camera, frame);
    if (mode == 2 || mode == 3) ok = camera_process_images(camera, frame);
    if (!ok) return tvx::qualify(kOp);
  }
  return true;
}

void count(HANDLE camera, INT32 counter, INT32 by = 1) {
  Locked r(camera, "camera_count");
  if (r) r->counters[counter] += by;
}

}  // namespace

extern "C" {

BOOL camera_readout_regions(HANDLE camera, HANDLE *regions, BOOL *made) {
  static const char *const kOp = "camera_readout_regions";
  *made = FALSE;
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  if (*regions != nullptr && list_size(*regions) > 0) return TRUE;
  if (r->operation_mode < 0 || r->operation_mode > 3)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {kProgrammer}, "unknown camera operation mode (%d)",
                     int{r->operation_mode});
  if (r->operation_mode <= 1) return TRUE;
  // Binned, only the active area is worth reading in that direction.
  const ccd &c = r->chip;
  const INT32 x = c.xbin == 1 ? 0 : c.active_area[0], w = c.xbin == 1 ? c.xsize : c.active_area[2];
  const INT32 y = c.ybin == 1 ? 0 : c.active_area[1], h = c.ybin == 1 ? c.ysize : c.active_area[3];
  HANDLE list = list_new();
  HANDLE frame = list != nullptr ? region_new(x, y, w, h, "full frame") : nullptr;
  if (frame == nullptr || !list_append_tail(list, frame)) {
    region_delete(frame);
    region_list_delete(list);
    return tvx::qualify(kOp);
  }
  *regions = list;
  *made = TRUE;
  return TRUE;
}

BOOL camera_allocate_all_images(HANDLE camera, HANDLE regions, HANDLE images, HANDLE) {
  static const char *const kOp = "camera_allocate_all_images";
  if (images == nullptr)
    return tvx::fail(ERR_NO_DATA, 0, kOp, {kProgrammer}, "invalid list of images");
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  INT32 bits = 16;
  if (!server_get_bits_per_pixel(r->server, &bits)) return tvx::qualify(kOp);
  const INT32 depth = bits > 16 ? 32 : 16;
  const INT32 bx = r->chip.xbin, by = r->chip.ybin;
  for (INT32 n = 1; regions != nullptr && n <= list_size(regions); ++n) {
    INT32 x = 0, y = 0, w = 0, h = 0;
    if (!region_get(list_get_nth_object(regions, n), &x, &y, &w, &h)) return tvx::qualify(kOp);
    const INT32 width = std::max((w + bx / 2) / bx, 1), height = std::max((h + by / 2) / by, 1);
    HANDLE image = n <= list_size(images) ? list_get_nth_object(images, n) : nullptr;
    if (image != nullptr) {
      if (!image_check_size(image, width, height, depth)) return tvx::qualify(kOp);
      continue;
    }
    image = image_new(width, height, depth);
    if (image == nullptr || !list_append_tail(images, image)) {
      image_delete(image);
      return tvx::qualify(kOp);
    }
  }
  return TRUE;
}

BOOL camera_readout_ccd(HANDLE camera, HANDLE regions, HANDLE images) {
  static const char *const kOp = "camera_readout_ccd";
  BOOL made = FALSE;
  bool ok = false;
  INT32 mode = 0;
  {
    Locked r(camera, kOp);
    if (!r) return tvx::qualify(kOp);
    mode = r->operation_mode;
    const char *file = nullptr, *resolved = nullptr;
    if (program_file(*r, "readout", &file, kOp) &&
        camera_readout_regions(camera, &regions, &made)) {
      HANDLE params =
          readout_params(*r, {}, {{SYSPARAM_REGIONS, regions}, {SYSPARAM_IMAGES, images}});
      ok = params != nullptr && camera_allocate_all_images(camera, regions, images, params);
      camera_system_filename(camera, file, &resolved);
      ok = ok && server_execute(r->server, resolved, params);
      sysparams_delete(params);
    }
  }
  if (ok && mode == 1) ok = camera_measure_iz(camera, images);
  if (ok && (mode == 2 || mode == 3)) ok = camera_process_images(camera, images);
  if (made) region_list_delete(regions);
  count(camera, ok ? CAMERA_COUNT_READOUTS : CAMERA_COUNT_FAILURES);
  return ok ? TRUE : tvx::qualify(kOp, "while reading out the ccd.");
}

BOOL camera_expose_ccd(HANDLE camera, INT32 milliseconds) {
  static const char *const kOp = "camera_expose_ccd";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  if (!server_expose_ccd(r->server, milliseconds))
    return tvx::qualify(kOp, "while exposing the ccd.");
  ++r->counters[CAMERA_COUNT_EXPOSURES];
  return TRUE;
}

BOOL camera_expose_and_readout_ccd(HANDLE camera, HANDLE regions, HANDLE image_lists,
                                   INT32 milliseconds, INT32 frame_delay) {
  static const char *const kOp = "camera_expose_and_readout_ccd";
  if (image_lists == nullptr)
    return tvx::fail(ERR_NO_DATA, 2, kOp, {kProgrammer}, "invalid list of image lists");
  bool ok = false;
  INT32 mode = 0;
  {
    Locked r(camera, kOp);
    if (!r) return tvx::qualify(kOp);
    mode = r->operation_mode;
    const char *file = nullptr, *resolved = nullptr;
    if (program_file(*r, "readout", &file, kOp)) {
      HANDLE params = readout_params(
          *r, {{SYSPARAM_EXPOSURE_TIME, milliseconds}, {SYSPARAM_FRAME_DELAY, frame_delay}},
          {{SYSPARAM_REGIONS, regions}, {SYSPARAM_IMAGE_LISTS, image_lists}});
      // The server's frame loop insists on a pre-flush count and a shutter flag: no pre-flush,
      // shutter in use.
      ok = params != nullptr &&
           sysparams_append(params, sysparam_make_ival(SYSPARAM_PREFLUSH, 0)) &&
           sysparams_append(params, sysparam_make_bval(SYSPARAM_SHUTTER_DISABLE, 0));
      camera_system_filename(camera, file, &resolved);
      ok = ok && server_expose_and_readout_ccd(r->server, resolved, params);
      sysparams_delete(params);
    }
  }
  ok = ok && process_frames(camera, mode, image_lists);
  count(camera, ok ? CAMERA_COUNT_EXPOSURES : CAMERA_COUNT_FAILURES);
  if (ok) count(camera, CAMERA_COUNT_FRAMES, list_size(image_lists));
  return ok ? TRUE : tvx::qualify(kOp);
}

BOOL camera_flush_ccd(HANDLE camera, INT32 flushes) {
  static const char *const kOp = "camera_flush_ccd";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  const char *file = nullptr, *resolved = nullptr;
  if (!program_file(*r, "flush", &file, kOp)) return FALSE;
  HANDLE params = readout_params(*r, {}, {});
  camera_system_filename(camera, file, &resolved);
  bool ok = params != nullptr;
  for (INT32 n = 0; ok && n < flushes; ++n) {
    ok = server_execute(r->server, resolved, params);
    if (ok) ++r->counters[CAMERA_COUNT_FLUSHES];
  }
  sysparams_delete(params);
  return ok ? TRUE : tvx::qualify(kOp, "while flushing the ccd.");
}

BOOL camera_open_shutter(HANDLE camera) {
  Locked r(camera, "camera_open_shutter");
  if (!r || !server_open_shutter(r->server))
    return tvx::qualify("camera_open_shutter", "while opening the shutter.");
  return TRUE;
}

BOOL camera_close_shutter(HANDLE camera) {
  Locked r(camera, "camera_close_shutter");
  if (!r || !server_close_shutter(r->server))
    return tvx::qualify("camera_close_shutter", "while closing the shutter.");
  return TRUE;
}

BOOL camera_shuffle_mode(HANDLE camera, HANDLE region, HANDLE image, INT32 milliseconds,
                         server_grab_fn user_function, void *user_argument) {
  static const char *const kOp = "camera_shuffle_mode";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  if (region != nullptr) {
    tvx::Locked<region_rec> rr(region, kOp);
    if (!rr || !region_valid(rr.get(), r->chip.xsize, r->chip.ysize, "CCD chip"))
      return tvx::qualify(kOp);
  }
  if (!server_shuffle_mode(r->server, region, image, milliseconds, r->chip.xbin, r->chip.ybin,
                           user_function, user_argument))
    return tvx::qualify(kOp);
  return TRUE;
}

BOOL camera_set_image_zero(HANDLE camera, HANDLE image) {
  static const char *const kOp = "camera_set_image_zero";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  INT32 depth = 0;
  if (!is_full_chip(image, *r, &depth))
    return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {kProgrammer},
                     "image does not contain reference pixels");
  HANDLE reference = region_new(r->chip.xsize - kReferenceColumns, 2, kReferenceColumns,
                                r->chip.ysize - 4, "reference");
  const bool two_channels = depth > 16;
  bool ok = reference != nullptr &&
            (two_channels
                 ? image_measure_multi_chan(image, reference, &r->reference1, &r->reference2, FALSE)
                 : image_histogram_stats(image, reference, &r->reference1, FALSE));
  region_delete(reference);
  if (!ok) {
    // An empty reference region: the chip's description or the converter is at fault.
    if ((*tvx::errors())->category == ERR_NO_DATA) {
      err_append_cause(tvx::errors(), 0x2016);
      err_append_cause(tvx::errors(), two_channels ? 0x2014 : 0x2012);
    }
    return tvx::qualify(kOp);
  }
  r->image_zero = static_cast<INT32>(std::lround(r->reference1.mean));
  ++r->counters[CAMERA_COUNT_IMAGE_ZERO];
  return TRUE;
}

BOOL camera_get_image_zero(HANDLE camera, INT32 *level) {
  Locked r(camera, "camera_get_image_zero");
  if (!r) return tvx::qualify("camera_get_image_zero");
  *level = r->image_zero;
  return TRUE;
}

BOOL camera_measure_iz(HANDLE camera, HANDLE images) {
  static const char *const kOp = "camera_measure_iz";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  for (INT32 n = 1; images != nullptr && n <= list_size(images); ++n) {
    HANDLE image = list_get_nth_object(images, n);
    if (image == nullptr) return null_image(kOp);
    INT32 depth = 0;
    if (is_full_chip(image, *r, &depth))
      return camera_set_image_zero(camera, image) ? TRUE : tvx::qualify(kOp);
  }
  return TRUE;
}

BOOL camera_process_images(HANDLE camera, HANDLE images) {
  static const char *const kOp = "camera_process_images";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  for (INT32 n = 1; images != nullptr && n <= list_size(images); ++n) {
    HANDLE image = list_get_nth_object(images, n);
    if (image == nullptr) return null_image(kOp);
    INT32 depth = 0;
    if (is_full_chip(image, *r, &depth)) {
      // Image zero from the reference columns, then only the active area is kept.
      if (!camera_set_image_zero(camera, image)) return tvx::qualify(kOp);
      const INT32 *a = r->chip.active_area;
      HANDLE area = region_new(a[0], a[1], a[2], a[3], "active area");
      HANDLE cut = nullptr;
      const bool ok = area != nullptr && image_region(image, area, &cut) && list_nth(images, n) &&
                      list_set_object(images, cut);
      region_delete(area);
      if (!ok) {
        image_delete(cut);
        return tvx::qualify(kOp);
      }
      image_delete(image);
      image = cut;
    }
    const bool twenty = depth > 16;
    if (twenty) {
      if (r->correlate_20bit) {
        double electrons = 0;
        if (!server_get_electrons_per_level(r->server, r->chip.pixel_rate, r->chip.sensitivity,
                                            &electrons) ||
            !image_20_bit_correlate(image, nullptr, &r->ratio_20bit, &r->offset_20bit,
                                    &r->correlation_20bit, r->min_signal_20bit, electrons))
          return tvx::qualify(kOp);
      } else {
        r->offset_20bit = r->reference1.mean - r->reference2.mean * r->ratio_20bit;
      }
      if (!image_32_to_20_bit(image, nullptr, r->ratio_20bit, r->offset_20bit))
        return tvx::qualify(kOp);
      ++r->counters[CAMERA_COUNT_TWENTY_BIT];
    }
    if (!camera_subtract_image_zero(camera, image)) return tvx::qualify(kOp);
    ++r->counters[CAMERA_COUNT_PROCESSED];
  }
  return TRUE;
}

BOOL camera_subtract_image_zero(HANDLE camera, HANDLE image) {
  static const char *const kOp = "camera_subtract_image_zero";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  INT32 w = 0, h = 0, depth = 0;
  if (!image_size(image, &w, &h, &depth)) return tvx::qualify(kOp);
  // Only mode 2 takes image zero off whole; otherwise a pedestal stays so noise is not clipped.
  const INT32 level =
      r->operation_mode == 2 ? r->image_zero : std::max(r->image_zero - kPedestal, 0);
  const BYTE is_signed = depth > 16 || r->operation_mode == 2;
  return image_subtract_iz(image, level, is_signed) ? TRUE : tvx::qualify(kOp);
}

BOOL camera_set_20_bit_data(HANDLE camera, double ratio, double offset, BYTE correlate) {
  Locked r(camera, "camera_set_20_bit_data");
  if (!r) return tvx::qualify("camera_set_20_bit_data");
  r->ratio_20bit = ratio;
  r->offset_20bit = offset;
  r->correlate_20bit = correlate;
  return TRUE;
}

BOOL camera_get_20_bit_data(HANDLE camera, double *ratio, double *offset, double *r_squared,
                            BYTE *correlate) {
  Locked r(camera, "camera_get_20_bit_data");
  if (!r) return tvx::qualify("camera_get_20_bit_data");
  *ratio = r->ratio_20bit;
  *offset = r->offset_20bit;
  *r_squared = r->correlation_20bit;
  *correlate = r->correlate_20bit;
  return TRUE;
}

}  // extern "C"
