// Unscrambling: a read-sequence readout arrives as one stream of the regions' pixels in the order
// the controller read them. Replaying the sequence puts each pixel back at its place in the
// shadow image of the binned chip, from which the regions are then cut.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

#include "foundation/fail.h"
#include "image/pixels.h"
#include "server/regions.h"
#include "tvx/image.h"
#include "tvx/list.h"
#include "tvx/report.h"
#include "tvx/values.h"

namespace {

using namespace tvx::server;
using tvx::fail;
using tvx::qualify;

DWORD word_of(HANDLE object) {
  return static_cast<DWORD>(reinterpret_cast<uintptr_t>(object));
}

// The sequence as plain words, in order.
bool words_of(HANDLE sequence, std::vector<DWORD> *words) {
  const INT32 n = list_size(sequence);
  if (n > 0 && !list_head(sequence)) return false;
  for (INT32 i = 0; i < n; ++i) {
    words->push_back(word_of(list_get_object(sequence)));
    list_next(sequence);
  }
  return !tvx::error_pending();
}

// Copies `count` pixels of the scramble image from pixel k on to `to`, run by run: the pixels
// of one block lie side by side, so a run is cut only where a block ends.
void copy_run(const tvx::image::AllRows &from, const image_rec &rec, INT32 k, INT32 count,
              INT32 size, BYTE *to) {
  while (count > 0) {
    const INT32 in_block = rec.rasters_per_block - k % rec.rasters_per_block;
    const INT32 n = std::min(count, in_block);
    std::memcpy(to, from.row(k), static_cast<size_t>(n) * static_cast<size_t>(size));
    to += static_cast<size_t>(n) * static_cast<size_t>(size);
    k += n;
    count -= n;
  }
}

bool replay(HANDLE scramble, HANDLE sequence, HANDLE shadow, const char *routine) {
  std::vector<DWORD> words;
  if (!words_of(sequence, &words)) return false;
  tvx::image::Image source(scramble, routine);
  if (!source.ok()) return false;
  tvx::image::AllRows pixels(source.rec(), source.blocks(), routine);
  if (!pixels.ok()) return false;
  tvx::image::Image target(shadow, routine);
  if (!target.ok()) return false;
  // The shadow's rows are reached through its blocks, each locked once while rows of it are
  // written, rather than through a raster lock per run.
  tvx::image::RowCursor rows(target.rec(), target.blocks(), routine);
  const INT32 size = tvx::image::pixel_size_of(source->depth);
  const INT32 available = source->width * source->height;
  const INT32 height = target->height, row_bytes = target->raster_size;
  INT32 row = -1, k = 0;
  long long column = 0;
  for (size_t at = 0; at < words.size(); ++at) {
    size_t first = at, length = 1;
    DWORD times = 1;
    if ((words[at] & 0xF) == RDSEQ_REPEAT) {
      times = words[at] >> 4;
      length = at + 1 < words.size() ? words[at + 1] : 0;
      first = at + 2;
      if (first + length > words.size())
        return fail(ERR_OUT_OF_RANGE, 0, routine, {kCauseMissing}, "ccd read sequence invalid");
      at = first + length - 1;
    }
    for (DWORD t = 0; t < times; ++t) {
      for (size_t e = first; e < first + length; ++e) {
        const auto value = static_cast<INT32>(words[e] >> 4);
        switch (words[e] & 0xF) {
          case RDSEQ_SHIFT:
            ++row;
            column = 0;
            break;
          case RDSEQ_SKIP:
            column += value;
            break;
          case RDSEQ_READ: {
            if (value == 0) break;
            if (k > available - value)
              return fail(ERR_OUT_OF_RANGE, 0, routine, {kCauseMissing},
                          "ccd read sequence invalid");
            if (row < 0 || row >= height) {
              image_lockraster(shadow, row);  // a row off the shadow fails as its lock does
              return false;
            }
            BYTE *to = rows.row(row);
            if (to == nullptr) return false;
            // A read past the row's end would run into the next raster: clip what is copied.
            const long long room = row_bytes / size - column;
            const auto fits = static_cast<INT32>(std::clamp<long long>(room, 0, value));
            if (fits > 0) copy_run(pixels, source.rec(), k, fits, size, to + column * size);
            k += value;
            column += value;
            break;
          }
          case RDSEQ_SKIP_ROWS:
            row += value;
            column = 0;
            break;
          default:
            return fail(ERR_OUT_OF_RANGE, 0, routine, {kCauseMissing}, "ccd read sequence invalid");
        }
      }
    }
  }
  return true;
}

report *info_channel() {
  report *info = nullptr;
  report_where_is(REPORT_INFO, &info);
  return info;
}

}  // namespace

extern "C" {

BOOL server_scramble_to_shadow(HANDLE server, HANDLE scramble, HANDLE sequence, HANDLE shadow) {
  static const char *const kOp = "server_scramble_to_shadow";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  return replay(scramble, sequence, shadow, kOp) ? TRUE : qualify(kOp);
}

BOOL server_unscramble_all_images(HANDLE server, HANDLE regions, HANDLE images, HANDLE shadow,
                                  HANDLE sequence, HANDLE scramble, HANDLE sysparams) {
  static const char *const kOp = "server_unscramble_all_images";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  if (images == nullptr) return missing(kOp, "invalid list of images");
  if (regions == nullptr) return missing(kOp, "invalid list of regions");
  if (sequence == nullptr) return missing(kOp, "invalid readout sequence list");
  if (scramble == nullptr) return missing(kOp, "invalid scramble image");
  if (shadow == nullptr) return missing(kOp, "invalid shadow image");
  INT32 bx = 1, by = 1;
  binning_of(sysparams, &bx, &by);
  if (!list_empty(images, image_delete) ||
      !server_scramble_to_shadow(server, scramble, sequence, shadow) ||
      !server_multiple_regions(server, images, regions, shadow, bx, by))
    return qualify(kOp);
  return TRUE;
}

BOOL server_unscramble_all_frames(HANDLE server, HANDLE regions, HANDLE image_lists, HANDLE shadow,
                                  HANDLE sequence, HANDLE scrambles, HANDLE sysparams) {
  static const char *const kOp = "server_unscramble_all_frames";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  if (image_lists == nullptr) return missing(kOp, "invalid list of image lists");
  const INT32 frames = list_size(image_lists);
  if (scrambles == nullptr || frames != list_size(scrambles))
    return fail(ERR_INCONSISTENT, 0, kOp, {kCauseMissing},
                "size of list of image lists doesn't match scrambled list");
  report_send(info_channel(), "Unscrambling image data");
  for (INT32 i = 1; i <= frames; ++i) {
    report_send(info_channel(), "Unscrambling frame %ld of %ld", long{i}, long{frames});
    HANDLE images = list_get_nth_object(image_lists, i);
    HANDLE scramble = list_get_nth_object(scrambles, 1);
    if (!server_unscramble_all_images(server, regions, images, shadow, sequence, scramble,
                                      sysparams)) {
      // Formatted for the frame, though the qualification carries no text.
      char note[64];
      std::snprintf(note, sizeof note, "while unscrambling images for frame %ld", long{i});
      return qualify(kOp);
    }
    list_head(scrambles);
    list_remove(scrambles, image_delete);
  }
  return TRUE;
}

}  // extern "C"
