// Copies between images and from caller buffers: cutting a region out, filling one, blitting
// rasters in, pasting one image into another, mirrored copies and right-angle transforms. Rows
// are reached through their blocks one at a time, so only the blocks in use are locked.
#include <cstring>

#include "image/pixels.h"

namespace {

using tvx::fail;
using tvx::qualify;
using tvx::image::Image;
using tvx::image::kCauseProgrammer;
using tvx::image::pixel_size_of;
using tvx::image::Rect;
using tvx::image::RowCursor;

bool fail_argument(const char *routine) {
  return fail(ERR_INCONSISTENT, 0, routine, {kCauseProgrammer}, "invalid argument");
}

// Runs `fill` on an output prepared for `source` and deletes a new output again when it fails.
// `fill` gets the source (still locked) and the output; the output is locked only inside it.
template <class Fill>
bool into_output(HANDLE *out, INT32 width, INT32 height, const Image &source, const char *routine,
                 Fill fill) {
  bool made = false;
  if (!tvx::image::prepare_output(out, width, height, source->depth, &made)) return false;
  bool ok = false;
  {
    Image dest(*out, routine);
    if (dest.ok()) {
      dest->is_signed = source->is_signed;
      ok = fill(dest);
    }
  }
  if (!ok) tvx::image::drop_output(out, made);
  return ok;
}

// Copies the rectangle of `from` to `to` with its first pixel at (x, y), row by row.
bool copy_rows(const Image &from, const Rect &rect, const Image &to, INT32 x, INT32 y,
               const char *routine) {
  INT32 size = pixel_size_of(from->depth);
  RowCursor src(from.rec(), from.blocks(), routine);
  RowCursor dst(to.rec(), to.blocks(), routine);
  for (INT32 i = 0; i < rect.height; ++i) {
    BYTE *s = src.row(rect.y + i);
    if (s == nullptr) return false;
    BYTE *d = dst.row(y + i);
    if (d == nullptr) return false;
    std::memmove(d + static_cast<size_t>(x) * size, s + static_cast<size_t>(rect.x) * size,
                 static_cast<size_t>(rect.width) * size);
  }
  return true;
}

// ---- Right-angle transforms: where each pixel of the result comes from. -------------------
struct Transform {
  INT32 operation;
  bool swaps_size;
  // Source row and column of the result's pixel (r, c), for a source of w x h.
  void (*from)(INT32 r, INT32 c, INT32 w, INT32 h, INT32 *sr, INT32 *sc);
};

constexpr Transform kTransforms[] = {
    {IMAGE_FLIP_ROWS, false,
     [](INT32 r, INT32 c, INT32, INT32 h, INT32 *sr, INT32 *sc) { *sr = h - 1 - r, *sc = c; }},
    {IMAGE_FLIP_COLUMNS, false,
     [](INT32 r, INT32 c, INT32 w, INT32, INT32 *sr, INT32 *sc) { *sr = r, *sc = w - 1 - c; }},
    {IMAGE_ROTATE_90, true,
     [](INT32 r, INT32 c, INT32, INT32 h, INT32 *sr, INT32 *sc) { *sr = h - 1 - c, *sc = r; }},
    {IMAGE_ROTATE_180, false,
     [](INT32 r, INT32 c, INT32 w, INT32 h, INT32 *sr, INT32 *sc) {
       *sr = h - 1 - r, *sc = w - 1 - c;
     }},
    {IMAGE_ROTATE_270, true,
     [](INT32 r, INT32 c, INT32 w, INT32, INT32 *sr, INT32 *sc) { *sr = c, *sc = w - 1 - r; }},
    {IMAGE_TRANSPOSE, true,
     [](INT32 r, INT32 c, INT32, INT32, INT32 *sr, INT32 *sc) { *sr = c, *sc = r; }},
};

}  // namespace

extern "C" {

BOOL image_region(HANDLE image, HANDLE region, HANDLE *out) {
  static const char *const kOp = "image_region";
  auto failed = [] { return qualify(kOp, "unable to extract region of image."); };
  if (out == nullptr) return fail_argument(kOp);
  if (*out != nullptr && *out == image) return tvx::image::fail_same_image(kOp);
  Image src(image, kOp);
  if (!src.ok()) return failed();
  Rect rect{};
  if (!tvx::image::clip_region(region, src.rec(), kOp, &rect)) return failed();
  bool ok = into_output(out, rect.width, rect.height, src, kOp,
                        [&](const Image &dest) { return copy_rows(src, rect, dest, 0, 0, kOp); });
  return ok ? true : failed();
}

BOOL image_set_region(HANDLE image, HANDLE region, INT32 value) {
  static const char *const kOp = "image_set_region";
  auto failed = [] { return qualify(kOp, "unable to set region of image."); };
  Image img(image, kOp);
  if (!img.ok()) return failed();
  Rect rect{};
  if (!tvx::image::clip_region(region, img.rec(), kOp, &rect)) return failed();
  INT32 size = pixel_size_of(img->depth);
  RowCursor rows(img.rec(), img.blocks(), kOp);
  for (INT32 i = 0; i < rect.height; ++i) {
    BYTE *row = rows.row(rect.y + i);
    if (row == nullptr) return failed();
    BYTE *p = row + static_cast<size_t>(rect.x) * size;
    if (size == 1) {
      std::memset(p, value & 0xFF, static_cast<size_t>(rect.width));
      continue;
    }
    for (INT32 c = 0; c < rect.width; ++c, p += size) tvx::image::store_pixel(p, size, value);
  }
  return true;
}

BOOL image_blit(HANDLE image, INT32 first_row, INT32 count, const void *bytes) {
  static const char *const kOp = "image_blit";
  if (bytes == nullptr) return fail_argument(kOp);
  Image img(image, kOp);
  if (!img.ok()) return qualify(kOp);
  if (first_row < 0 || first_row >= img->height) {
    fail(ERR_OUT_OF_RANGE, 0, kOp, {}, "requested blit off image.");
    return true;
  }
  if (count > img->height - first_row) count = img->height - first_row;
  const auto *from = static_cast<const BYTE *>(bytes);
  INT32 row = first_row;
  // Block by block: the rest of the first block, whole blocks, then the head of the last.
  while (count > 0) {
    INT32 block = row / img->rasters_per_block;
    INT32 within = row % img->rasters_per_block;
    INT32 rasters = static_cast<INT32>(img.blocks()[block].rasters) - within;
    if (rasters > count) rasters = count;
    tvx::Locked<BYTE> base(tvx::image::block_handle(img.blocks()[block]), kOp);
    if (!base) return qualify(kOp);
    size_t bytes_now = static_cast<size_t>(rasters) * img->raster_size;
    std::memcpy(base.get() + static_cast<size_t>(within) * img->raster_size, from, bytes_now);
    from += bytes_now;
    row += rasters;
    count -= rasters;
  }
  return true;
}

BOOL image_paste(HANDLE image, HANDLE source, INT32 x, INT32 y) {
  static const char *const kOp = "image_paste";
  if (image == source) return tvx::image::fail_same_image(kOp);
  Image dest(image, kOp);
  if (!dest.ok()) return qualify(kOp);
  Image src(source, kOp);
  if (!src.ok()) return qualify(kOp);
  region_rec where{0, nullptr, x, y, src->width, src->height};
  if (!region_valid(&where, dest->width, dest->height, "destination image")) return qualify(kOp);
  INT32 dest_size = pixel_size_of(dest->depth), src_size = pixel_size_of(src->depth);
  if (dest_size != src_size)
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {kCauseProgrammer},
                "source and destination pixel sizes differ (%ld and %ld bytes).", long{src_size},
                long{dest_size});
  if (!copy_rows(src, Rect{0, 0, src->width, src->height}, dest, x, y, kOp)) return qualify(kOp);
  return true;
}

BOOL image_copy(HANDLE source, HANDLE *out, BOOL flip_rows, BOOL flip_columns) {
  static const char *const kOp = "image_copy";
  if (out == nullptr) return fail_argument(kOp);
  if (*out == source) return tvx::image::fail_same_image(kOp);
  Image src(source, kOp);
  if (!src.ok()) return qualify(kOp);
  bool ok = into_output(out, src->width, src->height, src, kOp, [&](const Image &dest) {
    INT32 size = pixel_size_of(src->depth), width = src->width;
    RowCursor from(src.rec(), src.blocks(), kOp);
    RowCursor to(dest.rec(), dest.blocks(), kOp);
    for (INT32 r = 0; r < src->height; ++r) {
      BYTE *s = from.row(flip_rows ? src->height - 1 - r : r);
      if (s == nullptr) return false;
      BYTE *d = to.row(r);
      if (d == nullptr) return false;
      if (!flip_columns) {
        std::memcpy(d, s, static_cast<size_t>(src->raster_size));
        continue;
      }
      for (INT32 c = 0; c < width; ++c)
        std::memcpy(d + static_cast<size_t>(c) * size,
                    s + static_cast<size_t>(width - 1 - c) * size, static_cast<size_t>(size));
    }
    return true;
  });
  return ok ? true : qualify(kOp);
}

BOOL image_transform(HANDLE source, HANDLE *out, INT32 operation) {
  static const char *const kOp = "image_transform";
  if (out == nullptr) return fail_argument(kOp);
  const Transform *t = nullptr;
  for (const Transform &entry : kTransforms)
    if (entry.operation == operation) t = &entry;
  if (t == nullptr)
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {kCauseProgrammer}, "unknown transform %ld.",
                long{operation});
  if (*out == source) return tvx::image::fail_same_image(kOp);
  Image src(source, kOp);
  if (!src.ok()) return qualify(kOp);
  INT32 w = src->width, h = src->height;
  INT32 out_w = t->swaps_size ? h : w, out_h = t->swaps_size ? w : h;
  bool ok = into_output(out, out_w, out_h, src, kOp, [&](const Image &dest) {
    INT32 size = pixel_size_of(src->depth);
    tvx::image::AllRows from(src.rec(), src.blocks(), kOp);
    if (!from.ok()) return false;
    RowCursor to(dest.rec(), dest.blocks(), kOp);
    for (INT32 r = 0; r < out_h; ++r) {
      BYTE *d = to.row(r);
      if (d == nullptr) return false;
      for (INT32 c = 0; c < out_w; ++c) {
        INT32 sr = 0, sc = 0;
        t->from(r, c, w, h, &sr, &sc);
        std::memcpy(d + static_cast<size_t>(c) * size,
                    from.row(sr) + static_cast<size_t>(sc) * size, static_cast<size_t>(size));
      }
    }
    return true;
  });
  return ok ? true : qualify(kOp);
}

}  // extern "C"
