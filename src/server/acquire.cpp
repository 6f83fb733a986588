// Whole acquisitions: one readout of the chip or its regions, a series of frames each with its
// pre-flush, exposure and readout, a single exposure, and the continuous shuffle-mode grab loop.
// One region (or none) is read by the controller as one rectangle; several go through a read
// sequence and are unscrambled afterwards.
#include <algorithm>

#include "foundation/fail.h"
#include "server/regions.h"
#include "tvx/atlink.h"
#include "tvx/cs71.h"
#include "tvx/image.h"
#include "tvx/list.h"
#include "tvx/ports.h"
#include "tvx/readout.h"
#include "tvx/report.h"
#include "tvx/values.h"

namespace {

using namespace tvx::server;
using tvx::fail;
using tvx::qualify;

constexpr INT32 kCauseNoImageList = 4165;
constexpr INT32 kShuffleReads = 200000000;

// An empty image list of our own, deleted with its images.
struct OwnedList {
  HANDLE list = list_new();
  ~OwnedList() {
    if (list != nullptr) list_delete(list, image_delete);
  }
};

struct OwnedImage {
  HANDLE image = nullptr;
  ~OwnedImage() { image_delete(image); }
};

struct OwnedSequence {
  HANDLE list = list_new();
  ~OwnedSequence() {
    if (list != nullptr) list_delete(list, nullptr);
  }
};

// ---- One readout ----------------------------------------------------------------------------

bool single_region(HANDLE server, const Record &r, HANDLE regions, HANDLE images, const Chip &chip,
                   const char *routine) {
  const bool even = wants_even(r.converter.mode, chip.bx);
  Fitted f{0, 0, std::max((chip.columns + chip.bx / 2) / chip.bx, 1),
           std::max((chip.rows + chip.by / 2) / chip.by, 1)};
  if (even) f.width += f.width % 2;
  if (regions != nullptr && list_size(regions) == 1) {
    INT32 x, y, w, h;
    if (!region_rect(list_get_nth_object(regions, 1), &x, &y, &w, &h, &chip, routine)) return false;
    f = fit(x, y, w, h, chip.bx, chip.by, false, even);
  }
  HANDLE image = nullptr;
  if (list_size(images) > 0) {
    image = list_get_nth_object(images, 1);
    if (image == nullptr) return missing(routine, "image list contains a NULL image handle");
  } else {
    image = append_new_image(images, f.width, f.height, readout_depth(r.converter.mode),
                             list_append_tail);
    if (image == nullptr) return qualify(routine);
  }
  HANDLE one = region_new(f.x, f.y, f.width, f.height, "One region");
  const bool ok = one != nullptr && server_execute_readout(server, one, image);
  region_delete(one);
  return ok;
}

bool several_regions(HANDLE server, const Record &r, HANDLE regions, HANDLE images,
                     HANDLE sysparams, const Chip &chip) {
  if (!server_check_regions(server, sysparams, regions)) return false;
  OwnedSequence sequence;
  OwnedImage map, scramble;
  const INT32 depth = readout_depth(r.converter.mode);
  INT32 width = std::max((chip.columns + chip.bx / 2) / chip.bx, 1);
  if (wants_even(r.converter.mode, chip.bx)) width += width % 2;
  map.image = image_new(width, std::max((chip.rows + chip.by / 2) / chip.by, 1), depth);
  if (sequence.list == nullptr || map.image == nullptr) return false;
  INT32 pixels = 0;
  server_info(server, "Creating read sequence");
  if (!cs71_create_ccd_rdseq2(regions, map.image, chip.bx, chip.by, r.converter.mode, sequence.list,
                              &pixels))
    return false;
  server_info(server, "Allocating scramble image");
  scramble.image = image_new(1, pixels, depth);
  if (scramble.image == nullptr) return false;
  server_info(server, "Loading read sequence");
  if (!cs71_set_ccd_rdseq(r.controller, sequence.list)) return false;
  server_info(server, "Grab");
  if (!cs71_start_ccd_rdseq(r.controller) || !server_grab(server, pixels, scramble.image) ||
      !cs71_wait_complete(r.controller, 0, 0))
    return false;
  server_info(server, "Unscramble");
  if (!server_scramble_to_shadow(server, scramble.image, sequence.list, map.image)) return false;
  server_info(server, "Complete");
  list_delete(sequence.list, nullptr);
  sequence.list = nullptr;
  return server_multiple_regions(server, images, regions, map.image, chip.bx, chip.by);
}

// ---- A series of frames ---------------------------------------------------------------------

struct Series {
  HANDLE regions = nullptr, image_lists = nullptr;
  INT32 exposure = 0, delay = 0, preflush = 0;
  BYTE shutter_disabled = 0;
  Chip chip;
};

// A parameter the series cannot go without; the lookups say nothing of one that is absent.
bool absent(const char *routine, const char *what) {
  if (tvx::error_pending()) return qualify(routine);
  return fail(ERR_NO_DATA, 0, routine, {kCauseMissing}, "no %s parameter.", what);
}

bool series_of(HANDLE sysparams, Series *s, const char *routine) {
  if (!sysparams_regions_imagelists(sysparams, &s->regions, &s->image_lists))
    return absent(routine, "image lists");
  if (!sysparams_exposetime(sysparams, &s->exposure)) return absent(routine, "exposure time");
  if (!sysparams_framedelay(sysparams, &s->delay)) return absent(routine, "frame delay");
  if (!sysparams_ccdsize(sysparams, &s->chip.columns, &s->chip.rows))
    return absent(routine, "ccd size");
  binning_of(sysparams, &s->chip.bx, &s->chip.by);
  if (!sysparams_preflush(sysparams, &s->preflush)) return absent(routine, "preflush");
  if (!sysparams_shutter_disable(sysparams, &s->shutter_disabled) && tvx::error_pending())
    return qualify(routine);
  return true;
}

// The frame loop: pre-flush, exposure (or the wait of a shutter that is not used), the frame's
// readout, and the frame delay, for frames 1 .. n.
template <class Readout>
bool frames(const Record &r, const Series &s, INT32 n, const char *routine, Readout readout) {
  Acquisition run(r);
  const DWORD period = static_cast<DWORD>(s.delay / 10);
  DWORD deadline = time_centiseconds() + period;
  for (INT32 i = 1; i <= n; ++i) {
    if (s.preflush >= 1 && !cs71_ccd_flush(r.controller, s.preflush))
      return qualify(routine, "during pre-flush of frame %ld", long{i});
    const bool exposed =
        s.shutter_disabled != 0
            ? tvx::wait_until(time_centiseconds() + static_cast<DWORD>(s.exposure / 10), routine)
            : s.exposure <= 0 || cs71_ccd_expose(r.controller, s.exposure);
    if (!exposed) return qualify(routine, "during exposure of frame %ld", long{i});
    if (!readout(i)) return qualify(routine, "during readout of frame %ld", long{i});
    if (period != 0) {
      if (!tvx::wait_until(deadline, routine))
        return qualify(routine, "during the frame delay after frame %ld", long{i});
      deadline = time_centiseconds() + period;
    }
  }
  run.finished();
  return true;
}

bool image_size_of(const Chip &chip, HANDLE region, INT32 *w, INT32 *h, const char *routine) {
  INT32 x = 0, y = 0, rw = chip.columns, rh = chip.rows;
  if (region != nullptr && !region_rect(region, &x, &y, &rw, &rh, &chip, routine)) return false;
  *w = std::max((rw + chip.bx / 2) / chip.bx, 1);
  *h = std::max((rh + chip.by / 2) / chip.by, 1);
  return true;
}

}  // namespace

extern "C" {

BOOL server_readout_ccd(HANDLE server, HANDLE regions, HANDLE images, HANDLE sysparams) {
  static const char *const kOp = "server_readout_ccd";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  Chip chip;
  if (!chip_of(sysparams, &chip, kOp)) return FALSE;
  if (images == nullptr)
    return fail(ERR_NO_DATA, 0, kOp, {kCauseNoImageList}, "image list handle is NULL.");
  Acquisition run(*r);
  const bool ok = regions == nullptr || list_size(regions) < 2
                      ? single_region(server, *r, regions, images, chip, kOp)
                      : several_regions(server, *r, regions, images, sysparams, chip);
  if (!ok) return qualify(kOp);
  run.finished();
  return TRUE;
}

BOOL server_empty_all_frames(HANDLE server, HANDLE image_lists) {
  static const char *const kOp = "server_empty_all_frames";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  if (image_lists == nullptr || list_size(image_lists) == 0)
    return fail(ERR_NO_DATA, 0, kOp, {kCauseMissing},
                "no frames to readout (list of image lists is empty)");
  // A frame that fails is qualified with an empty text, as every stage of the series is.
  for (INT32 i = 0; i < list_size(image_lists); ++i)
    if (!list_empty(list_get_nth_object(image_lists, i + 1), image_delete)) return qualify(kOp);
  return TRUE;
}

BOOL server_allocate_all_images(HANDLE server, HANDLE regions, HANDLE images, HANDLE sysparams) {
  static const char *const kOp = "server_allocate_all_images";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  if (images == nullptr) return missing(kOp, "invalid list of images");
  Chip chip;
  if (!chip_of(sysparams, &chip, kOp) || !list_empty(images, image_delete)) return qualify(kOp);
  const INT32 n = regions != nullptr ? list_size(regions) : 0;
  for (INT32 i = 0; i < std::max(n, 1); ++i) {
    INT32 w = 0, h = 0;
    if (!image_size_of(chip, n > 0 ? list_get_nth_object(regions, i + 1) : nullptr, &w, &h, kOp))
      return FALSE;
    if (append_new_image(images, w, h, readout_depth(r->converter.mode), list_append_tail) ==
        nullptr)
      return qualify(kOp);
  }
  return TRUE;
}

BOOL server_allocate_all_frames(HANDLE server, HANDLE regions, HANDLE image_lists,
                                HANDLE sysparams) {
  static const char *const kOp = "server_allocate_all_frames";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  if (image_lists == nullptr || list_size(image_lists) == 0)
    return fail(ERR_NO_DATA, 0, kOp, {kCauseMissing},
                "no frames to readout (list of image lists is empty)");
  for (INT32 i = 0; i < list_size(image_lists); ++i)
    if (!server_allocate_all_images(server, regions, list_get_nth_object(image_lists, i + 1),
                                    sysparams))
      return qualify(kOp);
  return TRUE;
}

BOOL server_allocate_all_scrambles(HANDLE server, HANDLE scrambles, INT32 frames,
                                   INT32 pixel_count) {
  static const char *const kOp = "server_allocate_all_scrambles";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  if (scrambles == nullptr) return missing(kOp, "invalid list of images");
  for (INT32 i = 0; i < frames; ++i) {
    if (append_new_image(scrambles, 1, pixel_count, readout_depth(r->converter.mode),
                         list_append_head) == nullptr)
      return qualify(kOp);
  }
  return TRUE;
}

BOOL server_readout_all_mrframes(HANDLE server, HANDLE scrambles, INT32 pixel_count,
                                 HANDLE sysparams) {
  static const char *const kOp = "server_readout_all_mrframes";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  if (scrambles == nullptr) return missing(kOp, "invalid list of images");
  Series s;
  if (!series_of(sysparams, &s, kOp)) return FALSE;
  return frames(*r, s, list_size(scrambles), kOp, [&](INT32 i) {
    return cs71_start_ccd_rdseq(r->controller) &&
           server_grab(server, pixel_count, list_get_nth_object(scrambles, i)) &&
           cs71_wait_complete(r->controller, 0, 0);
  });
}

BOOL server_readout_all_srframes(HANDLE server, HANDLE image_lists, INT32 width, INT32 height,
                                 HANDLE sysparams) {
  static const char *const kOp = "server_readout_all_srframes";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  if (image_lists == nullptr) return missing(kOp, "invalid list of image lists");
  Series s;
  if (!series_of(sysparams, &s, kOp)) return FALSE;
  return frames(*r, s, list_size(image_lists), kOp, [&](INT32 i) {
    HANDLE images = list_get_nth_object(image_lists, i);
    if (images == nullptr)
      return fail(ERR_NO_DATA, 0, kOp, {kCauseMissing}, "invalid %s handle", "image list");
    HANDLE image = list_size(images) > 0 ? list_get_nth_object(images, 1) : nullptr;
    if (image == nullptr)
      return fail(ERR_NO_DATA, 0, kOp, {kCauseMissing}, "invalid %s handle", "image");
    return cs71_set_ccd_read(r->controller, 1, 0) && cs71_start_ccd_read(r->controller) &&
           server_grab(server, width * height, image) && cs71_wait_complete(r->controller, 0, 0);
  });
}

BOOL server_expose_and_readout_ccd(HANDLE server, const char *, HANDLE sysparams) {
  static const char *const kOp = "server_expose_and_readout_ccd";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  Series s;
  if (!series_of(sysparams, &s, kOp)) return FALSE;
  if (s.image_lists == nullptr) return missing(kOp, "invalid list of image lists");
  Acquisition run(*r);
  const Chip &chip = s.chip;
  if (s.regions != nullptr && list_size(s.regions) >= 2) {
    OwnedSequence sequence;
    OwnedImage map;
    OwnedList scrambles;
    const INT32 depth = readout_depth(r->converter.mode);
    map.image = image_new(std::max((chip.columns + chip.bx / 2) / chip.bx, 1),
                          std::max((chip.rows + chip.by / 2) / chip.by, 1), depth);
    if (sequence.list == nullptr || map.image == nullptr || scrambles.list == nullptr)
      return qualify(kOp);
    INT32 pixels = 0;
    server_info(server, "Creating read sequence");
    if (!cs71_create_ccd_rdseq2(s.regions, map.image, chip.bx, chip.by, r->converter.mode,
                                sequence.list, &pixels) ||
        !server_empty_all_frames(server, s.image_lists))
      return qualify(kOp);
    server_info(server, "Allocating scramble images");
    if (!server_allocate_all_scrambles(server, scrambles.list, list_size(s.image_lists), pixels))
      return qualify(kOp);
    server_info(server, "Loading read sequence");
    if (!cs71_set_ccd_rdseq(r->controller, sequence.list)) return qualify(kOp);
    server_info(server, "Grabbing frames");
    if (!server_readout_all_mrframes(server, scrambles.list, pixels, sysparams))
      return qualify(kOp);
    server_info(server, "Unscramble");
    if (!server_unscramble_all_frames(server, s.regions, s.image_lists, map.image, sequence.list,
                                      scrambles.list, sysparams))
      return qualify(kOp);
    server_info(server, "Complete");
    run.finished();
    return TRUE;
  }
  INT32 x = 0, y = 0, w = chip.columns, h = chip.rows;
  if (s.regions != nullptr && list_size(s.regions) == 1 &&
      !region_rect(list_get_nth_object(s.regions, 1), &x, &y, &w, &h, nullptr, kOp))
    return FALSE;
  const Fitted f = fit(x, y, w, h, chip.bx, chip.by, false, false);
  {
    HANDLE fitted = region_new(f.x, f.y, f.width * chip.bx, f.height * chip.by, nullptr);
    bool valid = false;
    if (fitted != nullptr) {
      tvx::Locked<region_rec> rec(fitted, kOp);
      valid = rec && region_valid(rec.get(), chip.columns, chip.rows, "CCD chip");
    }
    region_delete(fitted);
    if (!valid) return qualify(kOp);
  }
  server_info(server, "Allocating images");
  if (!server_allocate_all_frames(server, s.regions, s.image_lists, sysparams)) return qualify(kOp);
  server_info(server, "Setting region");
  if (!cs71_set_region(r->controller, 0, f.x, f.y, f.width, f.height)) return qualify(kOp);
  server_info(server, "Grabbing frames");
  if (!server_readout_all_srframes(server, s.image_lists, f.width, f.height, sysparams))
    return qualify(kOp);
  server_info(server, "Complete");
  run.finished();
  return TRUE;
}

BOOL server_expose_ccd(HANDLE server, INT32 milliseconds) {
  static const char *const kOp = "server_expose_ccd";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  Acquisition run(*r);
  INT32 id = 0;
  if (camprogs_get_pid(r->programs, "expose", &id)) {
    HANDLE params = sysparams_new();
    HANDLE time =
        params != nullptr ? sysparam_make_ival(SYSPARAM_EXPOSURE_TIME, milliseconds) : nullptr;
    if (time != nullptr && sysparams_append(params, time)) {
      const BOOL ok = server_execute(server, "expose", params);
      sysparams_delete(params);
      if (!ok) return qualify(kOp);
      run.finished();
      return TRUE;
    }
    sysparams_delete(params);
    if (tvx::error_pending()) err_reset_all(tvx::errors());
  }
  if (!cs71_ccd_expose(r->controller, milliseconds)) return qualify(kOp);
  run.finished();
  return TRUE;
}

}  // extern "C"

extern "C" {

BOOL server_shuffle_mode(HANDLE server, HANDLE region, HANDLE image, INT32 exposure_time,
                         INT32 x_binning, INT32 y_binning, server_grab_fn user_function,
                         void *user_argument) {
  static const char *const kOp = "server_shuffle_mode";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  INT32 x, y, w, h;
  if (!region_rect(region, &x, &y, &w, &h, nullptr, kOp)) return FALSE;
  const Fitted f =
      fit(x, y, w, h, x_binning, y_binning, false, wants_even(r->converter.mode, x_binning));
  const INT32 depth = readout_depth(r->converter.mode);
  Acquisition run(*r);
  if (!cs71_set_region(r->controller, 0, f.x, f.y, f.width, f.height) ||
      !cs71_set_shuffle_mode(r->controller, 2, 2, exposure_time) ||
      !image_check_size(image, f.width, f.height, depth))
    return qualify(kOp);
  report *info = nullptr;
  report_where_is(REPORT_INFO, &info);
  report_send(info, "Region to readout %ld, %ld   %ld, %ld\n", long{f.x}, long{f.y}, long{f.width},
              long{f.height});
  report_send(info, "Exposure time %ld\n", long{exposure_time});
  report_send(info, "Image is %ld x %ld x %ld\n", long{f.width}, long{f.height}, long{depth});
  for (;;) {
    if (!cs71_set_ccd_read(r->controller, kShuffleReads, 0) || !cs71_start_ccd_read(r->controller))
      return qualify(kOp);
    for (INT32 i = 0; i < kShuffleReads; ++i) {
      INT32 mode = 0;
      const tvx::link::Constants k = constants_of(*r);
      if (!data_mode_of(*r, &mode) ||
          !cs71_grab(r->controller, r->link, image, mode, k.c1, k.c2, k.c3))
        return qualify(kOp);
      if (user_function(user_argument) != 0) continue;
      report_send(info, "User function ended grab loop at %ld loops\n", long{i});
      // The controller may have sent part of the next frame before it took the stop.
      run.finished();
      return stop_controller(*r) ? TRUE : qualify(kOp);
    }
    report_send(info, "Waiting end of %ld loops ...", long{kShuffleReads});
    if (!cs71_wait_complete(r->controller, 0, 0)) return qualify(kOp);
    report_send(info, "done\n");
  }
}

}  // extern "C"
