// The image record and its pixel blocks: allocation with its block arithmetic, raster locking and
// copying, sizes, printing, names and comparison. No block is larger than IMAGE_BLOCK_BYTES, so a
// raster never straddles two blocks and a block is always a whole number of rasters.
#include <cstdio>
#include <cstring>

#include "foundation/alloc.h"
#include "image/pixels.h"
#include "tvx/list.h"
#include "tvx/report.h"
#include "tvx/values.h"

namespace {

using tvx::fail;
using tvx::Locked;
using tvx::qualify;
using tvx::image::block_handle;
using tvx::image::kCauseProgrammer;
using tvx::image::pixel_size_of;

constexpr INT32 kCauseNullSize = 0x1070;
constexpr INT32 kCauseTooLarge = 0x1071;

// Frees every pixel block and the table. A block still holding locked rasters is noted and let
// go: freeing it ends the process through the block checks, which is where that fault belongs.
void free_pixels(image_rec &rec, const char *routine) {
  if (rec.pixel_blocks != nullptr) {
    {
      Locked<image_block> table(rec.pixel_blocks, routine);
      if (table) {
        for (INT32 b = 0; b < rec.block_cnt; ++b) {
          image_block &entry = table.get()[b];
          if (entry.lock_count != 0) {
            char *note = tbuffer_new();
            std::snprintf(note, tbuffer_size(), "lock count %ld on block %ld",
                          static_cast<long>(entry.lock_count), long{b});
            tbuffer_delete(note);
          }
          if (entry.handle != 0) handle_free(block_handle(entry), routine);
          entry.handle = 0;
        }
      }
    }
    handle_free(rec.pixel_blocks, routine);
  }
  rec.pixel_blocks = nullptr;
  rec.block_cnt = 0;
}

// The largest picture the controller can send: 4224 x 32000 pixels of two channels. No image
// may be larger, so that a damaged file header cannot make the library take gigabytes.
constexpr long long kLargestImage = 4224LL * 32000 * 4;

// Sizes no image can have, refused before anything is freed: the image keeps its pixels.
bool size_valid(INT32 width, INT32 height, INT32 depth, const char *routine) {
  if (width == 0 || height == 0)
    return fail(ERR_NO_DATA, 0, routine, {kCauseNullSize}, "null image size (%ld x %ld) specified.",
                long{width}, long{height});
  if (width < 0 || height < 0)
    return fail(ERR_OUT_OF_RANGE, 0, routine, {kCauseNullSize},
                "negative image size (%ld x %ld) specified.", long{width}, long{height});
  if (depth < 1 || depth > 32)
    return fail(ERR_OUT_OF_RANGE, 0, routine, {kCauseNullSize},
                "image depth (%ld bits) not in range 1 - 32.", long{depth});
  return true;
}

// Sizes the pixel blocks cannot hold: a raster longer than a block, or more than the largest
// picture. Found only once the old pixels are gone, like any allocation that fails.
bool size_fits(INT32 width, INT32 height, INT32 depth, const char *routine) {
  const long long raster = static_cast<long long>(pixel_size_of(depth)) * width;
  if (raster <= IMAGE_BLOCK_BYTES && raster * height <= kLargestImage) return true;
  return fail(ERR_OUT_OF_RANGE, 0, routine, {kCauseTooLarge},
              "requested image size (%ld x %ld) too large.", long{width}, long{height});
}

bool allocate_blocks(image_rec &rec, const char *routine) {
  Locked<image_block> table(rec.pixel_blocks, routine);
  if (!table) return false;
  INT32 full = rec.height / rec.rasters_per_block;
  for (INT32 b = 0; b < rec.block_cnt; ++b) {
    INT32 rasters = b < full ? rec.rasters_per_block : rec.height % rec.rasters_per_block;
    INT32 bytes = rasters * rec.raster_size;
    HANDLE block = handle_allocate(bytes, 1, MEM_PLAIN);
    if (block == nullptr) return false;
    image_block &entry = table.get()[b];
    entry = image_block{};
    entry.handle = tvx::platform::to_token(block);
    entry.size = static_cast<DWORD>(bytes);
    entry.rasters = static_cast<DWORD>(bytes / rec.raster_size);
  }
  return true;
}

// The row check shared by the raster operations.
bool row_on_image(const image_rec &rec, INT32 row, INT32 category, const char *routine,
                  const char *format) {
  if (row >= 0 && row < rec.height) return true;
  return fail(category, 0, routine, {kCauseProgrammer}, format, long{row}, long{rec.height});
}
constexpr const char *kRasterOff = "requested raster (%ld) off image (height is %ld).";

// The block of `buffer`, checked to hold a whole raster.
bool buffer_holds(HANDLE buffer, void *contents, INT32 raster_size, const char *routine) {
  INT32 room = static_cast<INT32>(tvx::header_of(contents)->size) - TVX_BLOCK_OVERHEAD;
  if (room >= raster_size) return true;
  (void)buffer;
  return fail(ERR_OUT_OF_RANGE, 0, routine, {kCauseProgrammer},
              "buffer of %ld bytes too small for a raster of %ld bytes.", long{room},
              long{raster_size});
}

enum class Direction { kOut, kIn };

bool copy_raster(HANDLE image, INT32 row, HANDLE buffer, Direction direction, const char *routine,
                 INT32 category, const char *format) {
  tvx::image::Image img(image, routine);
  if (!img.ok()) return qualify(routine);
  if (!row_on_image(img.rec(), row, category, routine, format)) return false;
  Locked<BYTE> buf(buffer, routine);
  if (!buf) return qualify(routine);
  if (!buffer_holds(buffer, buf.get(), img->raster_size, routine)) return false;
  tvx::image::RowCursor rows(img.rec(), img.blocks(), routine);
  BYTE *raster = rows.row(row);
  if (raster == nullptr) return qualify(routine);
  if (direction == Direction::kOut)
    std::memcpy(buf.get(), raster, static_cast<size_t>(img->raster_size));
  else
    std::memcpy(raster, buf.get(), static_cast<size_t>(img->raster_size));
  return true;
}

BOOL name_matches(HANDLE image, HANDLE key) {
  const char *name = image_getname(image);
  return name != nullptr && std::strcmp(name, static_cast<const char *>(key)) == 0;
}

BOOL print_one(HANDLE image, FILE *stream) {
  return image_print(image, stream);
}

}  // namespace

namespace tvx::image {

bool fail_no_pixels(const char *routine) {
  return fail(ERR_NO_DATA, 0, routine, {kCauseProgrammer}, "image has no pixels.");
}

Image::Image(HANDLE handle, const char *routine) : rec_(handle, routine) {
  if (!rec_) return;
  if (rec_->pixel_blocks == nullptr) {
    fail_no_pixels(routine);
    return;
  }
  table_ = static_cast<image_block *>(handle_lock(rec_->pixel_blocks, routine));
  if (table_ == nullptr) return;
  table_handle_ = rec_->pixel_blocks;
  ok_ = true;
}

Image::~Image() {
  if (table_ != nullptr) handle_unlock(table_handle_, "image");
}

AllRows::AllRows(const image_rec &rec, image_block *table, const char *routine)
    : rec_(rec), table_(table), routine_(routine) {
  bases_.reserve(static_cast<size_t>(rec.block_cnt));
  for (INT32 b = 0; b < rec.block_cnt; ++b) {
    auto *base = static_cast<BYTE *>(handle_lock(block_handle(table_[b]), routine_));
    if (base == nullptr) return;
    bases_.push_back(base);
  }
  ok_ = true;
}

AllRows::~AllRows() {
  for (size_t b = 0; b < bases_.size(); ++b) handle_unlock(block_handle(table_[b]), routine_);
}

bool clip_region(HANDLE region, const image_rec &rec, const char *routine, Rect *out,
                 const char *what) {
  if (region == nullptr) {
    *out = Rect{0, 0, rec.width, rec.height};
    return true;
  }
  Locked<region_rec> r(region, routine);
  if (!r) return false;
  if (!region_valid(r.get(), rec.width, rec.height, what)) return false;
  *out = Rect{r->x, r->y, std::min(r->width, rec.width - r->x),
              std::min(r->height, rec.height - r->y)};
  return true;
}

bool prepare_output(HANDLE *out, INT32 width, INT32 height, INT32 depth, bool *made) {
  *made = false;
  if (*out == nullptr) {
    *out = image_new(width, height, depth);
    *made = *out != nullptr;
    return *made;
  }
  return image_check_size(*out, width, height, depth);
}

void drop_output(HANDLE *out, bool made) {
  if (!made) return;
  image_delete(*out);
  *out = nullptr;
}

bool fail_same_image(const char *routine) {
  return fail(ERR_INCONSISTENT, 0, routine, {kCauseProgrammer},
              "source and destination are the same image.");
}

}  // namespace tvx::image

extern "C" {

HANDLE image_new(INT32 width, INT32 height, INT32 depth) {
  static const char *const kOp = "image_new";
  HANDLE image = handle_allocate(1, sizeof(image_rec), MEM_IMAGE);
  if (image == nullptr || !image_ctor(image, width, height, depth)) {
    if (image != nullptr) image_delete(image);
    qualify(kOp, "unable to allocate image (%ld x %ld x %ld).", long{width}, long{height},
            long{depth});
    return nullptr;
  }
  return image;
}

BOOL image_ctor(HANDLE image, INT32 width, INT32 height, INT32 depth) {
  static const char *const kOp = "image_ctor";
  {
    Locked<image_rec> img(image, kOp);
    if (!img) return qualify(kOp);
    *img = image_rec{};
  }
  if (!image_allocatepixels(image, width, height, depth)) return false;
  Locked<image_rec> img(image, kOp);
  if (!img) return qualify(kOp);
  img->is_signed = 0;
  return true;
}

void image_dtor(HANDLE image) {
  static const char *const kOp = "image_dtor";
  Locked<image_rec> img(image, kOp);
  if (!img) {
    qualify(kOp);
    return;
  }
  free_pixels(*img, kOp);
  if (img->name != nullptr) standard_free(img->name, kOp);
  img->name = nullptr;
}

void image_delete(HANDLE image) {
  if (image == nullptr) return;
  image_dtor(image);
  handle_free(image, "image_delete");
}

BOOL image_allocatepixels(HANDLE image, INT32 width, INT32 height, INT32 depth) {
  static const char *const kOp = "image_allocatepixels";
  Locked<image_rec> img(image, kOp);
  if (!img) return qualify(kOp);
  if (!size_valid(width, height, depth, kOp)) return false;
  free_pixels(*img, kOp);
  if (!size_fits(width, height, depth, kOp)) return false;

  INT32 raster_size = pixel_size_of(depth) * width;
  INT32 rasters_per_block = IMAGE_BLOCK_BYTES / raster_size;
  INT32 block_cnt = height / rasters_per_block + (height % rasters_per_block != 0 ? 1 : 0);
  img->pixel_blocks = handle_allocate(block_cnt, sizeof(image_block), MEM_PIXEL_TABLE);
  if (img->pixel_blocks == nullptr) return qualify(kOp);
  img->block_cnt = block_cnt;
  img->depth = depth;
  img->raster_size = raster_size;
  img->width = width;
  img->rasters_per_block = rasters_per_block;
  img->height = height;
  if (!allocate_blocks(*img, kOp)) {
    free_pixels(*img, kOp);
    return qualify(kOp);
  }
  return true;
}

BOOL image_freepixels(HANDLE image) {
  static const char *const kOp = "image_freepixels";
  Locked<image_rec> img(image, kOp);
  if (!img) return qualify(kOp);
  free_pixels(*img, kOp);
  return true;
}

BOOL image_check_size(HANDLE image, INT32 width, INT32 height, INT32 depth) {
  static const char *const kOp = "image_check_size";
  {
    Locked<image_rec> img(image, kOp);
    if (!img) return qualify(kOp);
    if (img->pixel_blocks != nullptr && img->width == width && img->height == height &&
        img->depth == depth)
      return true;
  }
  if (!image_allocatepixels(image, width, height, depth)) return qualify(kOp);
  return true;
}

void *image_lockraster(HANDLE image, INT32 row) {
  static const char *const kOp = "image_lockraster";
  Locked<image_rec> img(image, kOp);
  if (!img) {
    qualify(kOp);
    return nullptr;
  }
  if (!row_on_image(*img, row, ERR_OUT_OF_RANGE, kOp, kRasterOff)) return nullptr;
  if (img->pixel_blocks == nullptr) {
    tvx::image::fail_no_pixels(kOp);
    return nullptr;
  }
  Locked<image_block> table(img->pixel_blocks, kOp);
  if (!table) {
    qualify(kOp);
    return nullptr;
  }
  image_block &entry = table.get()[row / img->rasters_per_block];
  auto *base = static_cast<BYTE *>(handle_lock(block_handle(entry), kOp));
  if (base == nullptr) {
    if (!tvx::error_pending())
      fail(ERR_NO_DATA, 0, kOp, {kCauseProgrammer}, "NULL pixel pointer");
    else
      qualify(kOp);
    return nullptr;
  }
  ++entry.lock_count;
  return base + static_cast<size_t>(row % img->rasters_per_block) * img->raster_size;
}

BOOL image_unlockraster(HANDLE image, INT32 row) {
  static const char *const kOp = "image_unlockraster";
  Locked<image_rec> img(image, kOp);
  if (!img) return qualify(kOp);
  if (!row_on_image(*img, row, ERR_OUT_OF_RANGE, kOp, kRasterOff)) return false;
  if (img->pixel_blocks == nullptr) return tvx::image::fail_no_pixels(kOp);
  Locked<image_block> table(img->pixel_blocks, kOp);
  if (!table) return qualify(kOp);
  image_block &entry = table.get()[row / img->rasters_per_block];
  if (entry.lock_count != 0) {
    handle_unlock(block_handle(entry), kOp);
    --entry.lock_count;
  }
  return true;
}

BOOL image_getraster(HANDLE image, INT32 row, HANDLE buffer) {
  return copy_raster(image, row, buffer, Direction::kOut, "image_getraster", ERR_NO_DATA,
                     "Requested raster (%ld) off image (height is %ld).");
}

BOOL image_setraster(HANDLE image, INT32 row, HANDLE buffer) {
  return copy_raster(image, row, buffer, Direction::kIn, "image_setraster", ERR_NO_DATA,
                     kRasterOff);
}

INT32 image_getrastersize(HANDLE image) {
  Locked<image_rec> img(image, "image_getrastersize");
  if (!img) return qualify("image_getrastersize");
  return img->raster_size;
}

INT32 image_getpixelsize(HANDLE image) {
  Locked<image_rec> img(image, "image_getpixelsize");
  if (!img) return qualify("image_getpixelsize");
  return pixel_size_of(img->depth);
}

BOOL image_size(HANDLE image, INT32 *width, INT32 *height, INT32 *depth) {
  static const char *const kOp = "image_size";
  if (width == nullptr || height == nullptr || depth == nullptr)
    return fail(ERR_INCONSISTENT, 0, kOp, {kCauseProgrammer}, "invalid argument");
  Locked<image_rec> img(image, kOp);
  if (!img) return qualify(kOp);
  *width = img->width;
  *height = img->height;
  *depth = img->depth;
  return true;
}

BOOL image_pixels_per_block(HANDLE image, INT32 *out) {
  static const char *const kOp = "image_pixels_per_block";
  Locked<image_rec> img(image, kOp);
  if (!img) return qualify(kOp);
  if (pixel_size_of(img->depth) == 0)
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {}, "image depth is 0 bits.");
  *out = img->width * img->rasters_per_block;
  return true;
}

BOOL image_print(HANDLE image, FILE *stream) {
  static const char *const kOp = "image_print";
  Locked<image_rec> img(image, kOp);
  if (!img) return qualify(kOp);
  std::fprintf(stream,
               "image(width %ld height %ld depth %ld block_cnt %ld rasters_per_block %ld "
               "raster_size %ld %s)\n",
               long{img->width}, long{img->height}, long{img->depth}, long{img->block_cnt},
               long{img->rasters_per_block}, long{img->raster_size},
               img->is_signed ? "signed pixels" : "unsigned pixels");
  std::fflush(stream);
  return true;
}

BOOL image_print_details(HANDLE image, FILE *stream) {
  static const char *const kOp = "image_print_details";
  if (image == nullptr) return fail(ERR_NO_DATA, 0, kOp, {}, "invalid image handle");
  Locked<image_rec> img(image, kOp);
  if (!img) return qualify(kOp);
  std::fputs("image record: ", stream);
  memrec_print(tvx::header_of(img.get()), stream);
  std::fputs("\n", stream);
  image_print(image, stream);
  if (img->pixel_blocks != nullptr) {
    Locked<image_block> table(img->pixel_blocks, kOp);
    if (!table) return qualify(kOp);
    std::fputs("pixel_blocks: ", stream);
    memrec_print(tvx::header_of(table.get()), stream);
    std::fputs("\n", stream);
    for (INT32 b = 0; b < img->block_cnt; ++b) {
      Locked<BYTE> block(block_handle(table.get()[b]), kOp);
      if (!block) return qualify(kOp);
      std::fprintf(stream, "block %ld: ", long{b});
      memrec_print(tvx::header_of(block.get()), stream);
      std::fputs("\n", stream);
    }
  }
  std::fflush(stream);
  return true;
}

const char *image_getname(HANDLE image) {
  Locked<image_rec> img(image, "image_getname");
  if (!img) {
    qualify("image_getname");
    return nullptr;
  }
  return img->name;  // a standard block: it stays where it is after the unlock
}

BOOL image_setname(HANDLE image, const char *name) {
  static const char *const kOp = "image_setname";
  Locked<image_rec> img(image, kOp);
  if (!img) return qualify(kOp);
  char *copy = nullptr;
  if (name != nullptr && (copy = string_duplicate(name)) == nullptr) return qualify(kOp);
  if (img->name != nullptr) standard_free(img->name, kOp);
  img->name = copy;
  return true;
}

BOOL image_set_signed(HANDLE image, BOOL is_signed) {
  Locked<image_rec> img(image, "image_set_signed");
  if (!img) return qualify("image_set_signed");
  img->is_signed = is_signed ? 1 : 0;
  return true;
}

BOOL image_is_signed(HANDLE image) {
  Locked<image_rec> img(image, "image_is_signed");
  if (!img) return qualify("image_is_signed");
  return img->is_signed != 0;
}

BOOL image_equal(HANDLE a, HANDLE b) {
  static const char *const kOp = "image_equal";
  tvx::image::Image first(a, kOp);
  if (!first.ok()) return qualify(kOp);
  tvx::image::Image second(b, kOp);
  if (!second.ok()) return qualify(kOp);
  if (first->width != second->width || first->height != second->height ||
      first->depth != second->depth)
    return false;
  tvx::image::RowCursor rows_a(first.rec(), first.blocks(), kOp);
  tvx::image::RowCursor rows_b(second.rec(), second.blocks(), kOp);
  for (INT32 r = 0; r < first->height; ++r) {
    BYTE *ra = rows_a.row(r);
    if (ra == nullptr) return qualify(kOp);
    BYTE *rb = rows_b.row(r);
    if (rb == nullptr) return qualify(kOp);
    if (std::memcmp(ra, rb, static_cast<size_t>(first->raster_size)) != 0) return false;
  }
  return true;
}

BOOL image_list_delete(HANDLE list) {
  if (list == nullptr) return true;
  if (!list_delete(list, image_delete)) return qualify("image_list_delete");
  return true;
}

HANDLE image_list_find_name(HANDLE list, const char *name) {
  static const char *const kOp = "image_list_find_name";
  HANDLE found = nullptr;
  if (name == nullptr) {
    fail(ERR_INCONSISTENT, 0, kOp, {kCauseProgrammer}, "invalid argument");
    return nullptr;
  }
  if (!list_find_object(list, const_cast<char *>(name), name_matches, &found) &&
      tvx::error_pending())
    qualify(kOp);
  return found;
}

BOOL image_list_print(HANDLE list, FILE *stream) {
  if (!list_print(list, print_one, stream)) return qualify("image_list_print");
  return true;
}

}  // extern "C"
