// Reaching an image's rasters inside its pixel blocks, shared by the image operations: a cursor
// that keeps only the block of the current row locked, a view that locks every block for a whole
// pass, and the clipping of a region to an image.
#pragma once

#include <algorithm>
#include <cstring>
#include <vector>

#include "foundation/fail.h"
#include "foundation/locked.h"
#include "platform/platform.h"
#include "tvx/error.h"
#include "tvx/image.h"
#include "tvx/memory.h"

namespace tvx::image {

constexpr INT32 kCauseProgrammer = 0x1040;

inline HANDLE block_handle(const image_block &entry) {
  return platform::to_handle(entry.handle);
}

inline INT32 pixel_size_of(INT32 depth) {
  return (depth + 7) / 8;
}

// The image has no pixels (a failed allocation leaves it so).
bool fail_no_pixels(const char *routine);
// An operation that reads one image while it resizes or rewrites another was given one image
// twice.
bool fail_same_image(const char *routine);

// The image's record and its block table, both locked for the scope. `ok()` is false, with the
// error set under `routine`, when either cannot be reached or the image has no pixels.
class Image {
 public:
  Image(HANDLE handle, const char *routine);
  ~Image();
  Image(const Image &) = delete;
  Image &operator=(const Image &) = delete;
  bool ok() const { return ok_; }
  image_rec *operator->() const { return rec_.get(); }
  image_rec &rec() const { return *rec_; }
  image_block *blocks() const { return table_; }

 private:
  Locked<image_rec> rec_;
  HANDLE table_handle_ = nullptr;
  image_block *table_ = nullptr;
  bool ok_ = false;
};

// Rows of one image reached one at a time, with only the block of the current row locked: the
// block is let go as soon as a row of another block is asked for.
class RowCursor {
 public:
  RowCursor(const image_rec &rec, image_block *table, const char *routine)
      : rec_(rec), table_(table), routine_(routine) {}
  ~RowCursor() { release(); }
  RowCursor(const RowCursor &) = delete;
  RowCursor &operator=(const RowCursor &) = delete;

  // The row's first byte, or nullptr with the error set.
  BYTE *row(INT32 r) {
    INT32 b = r / rec_.rasters_per_block;
    if (b != block_) {
      release();
      base_ = static_cast<BYTE *>(handle_lock(block_handle(table_[b]), routine_));
      if (base_ == nullptr) return nullptr;
      block_ = b;
    }
    return base_ + static_cast<size_t>(r % rec_.rasters_per_block) * rec_.raster_size;
  }
  void release() {
    if (base_ != nullptr) handle_unlock(block_handle(table_[block_]), routine_);
    base_ = nullptr;
    block_ = -1;
  }

 private:
  const image_rec &rec_;
  image_block *table_;
  const char *routine_;
  INT32 block_ = -1;
  BYTE *base_ = nullptr;
};

// Every block of an image locked for a whole pass, for operations that visit rows out of order.
class AllRows {
 public:
  AllRows(const image_rec &rec, image_block *table, const char *routine);
  ~AllRows();
  AllRows(const AllRows &) = delete;
  AllRows &operator=(const AllRows &) = delete;
  bool ok() const { return ok_; }
  BYTE *row(INT32 r) const {
    return bases_[r / rec_.rasters_per_block] +
           static_cast<size_t>(r % rec_.rasters_per_block) * rec_.raster_size;
  }

 private:
  const image_rec &rec_;
  image_block *table_;
  const char *routine_;
  std::vector<BYTE *> bases_;
  bool ok_ = false;
};

// A region cut to an image: the rectangle that operations work on.
struct Rect {
  INT32 x, y, width, height;
};

// Reads the region, checks it against the image ("source image" unless told otherwise) and cuts
// it to what lies on the image. A NULL region is the whole image.
bool clip_region(HANDLE region, const image_rec &rec, const char *routine, Rect *out,
                 const char *what = "source image");

// Makes *out an image of this size and depth: a new one when *out is NULL (and `made` is set),
// otherwise *out resized when needed.
bool prepare_output(HANDLE *out, INT32 width, INT32 height, INT32 depth, bool *made);
// Undoes prepare_output after a failure.
void drop_output(HANDLE *out, bool made);

// A pixel as an unsigned or signed number, and back, by pixel size.
inline long long load_pixel(const BYTE *p, INT32 size, bool is_signed) {
  switch (size) {
    case 1:
      return is_signed ? static_cast<long long>(static_cast<int8_t>(*p)) : *p;
    case 2: {
      uint16_t v;
      std::memcpy(&v, p, 2);
      return is_signed ? static_cast<long long>(static_cast<int16_t>(v)) : v;
    }
    case 3: {
      uint32_t v = p[0] | (p[1] << 8) | (static_cast<uint32_t>(p[2]) << 16);
      if (is_signed && (v & 0x800000u)) return static_cast<long long>(v) - 0x1000000;
      return v;
    }
    default: {
      uint32_t v;
      std::memcpy(&v, p, 4);
      return is_signed ? static_cast<long long>(static_cast<int32_t>(v)) : v;
    }
  }
}

inline void store_pixel(BYTE *p, INT32 size, long long value) {
  auto v = static_cast<uint32_t>(value);
  if (size == 3) {
    p[0] = static_cast<BYTE>(v);
    p[1] = static_cast<BYTE>(v >> 8);
    p[2] = static_cast<BYTE>(v >> 16);
  } else {
    std::memcpy(p, &v, static_cast<size_t>(size));  // little-endian host: the low bytes
  }
}

}  // namespace tvx::image
