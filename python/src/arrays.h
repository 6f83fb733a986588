// Pixels between the library's images and numpy. An image's rasters lie in separate blocks, so
// they are copied once, row by row, into one buffer that the numpy array then owns; the same
// copy splits two-channel pixels and widens processed ones. The other way, an array becomes an
// image again for the library's writers.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "pixels.h"
#include "session.h"

namespace tvxpy {

// How a frame's pixels reach numpy.
enum class Layout {
  unsigned16,   // raw 16-bit data: uint16 (h, w)
  two_channel,  // raw two-channel data: uint16 (2, h, w), channel 1 first
  widened32,    // processed data, 20-bit data: int32 (h, w)
  stored        // an image file's pixels as they lie: 1, 2 or 4 bytes (3 widen to 4), (h, w)
};

// What an image holds, beside its pixels: enough to make the same image again.
struct ImageKind {
  int depth = 16;
  bool is_signed = false;
  Layout layout = Layout::unsigned16;
};

// Raw and image-zero frames keep the camera's pixels; processed modes give int32.
ImageKind frame_kind(const session::Shape &shape, int operation_mode);

// Pixels copied out of an image, in a buffer of their own until numpy takes it.
struct Pixels {
  struct Free {
    void operator()(void *p) const { std::free(p); }
  };
  std::unique_ptr<void, Free> data;
  std::vector<pybind11::ssize_t> shape;
  int bytes = 2;  // per element
  bool is_signed = false;
};

// Copies the image's pixels as `kind` lays them out. Runs on the library's thread.
Pixels copy_out(HANDLE image, const ImageKind &kind);
// The array that owns the buffer; `p` is left empty. Needs the GIL.
pybind11::array to_numpy(Pixels &&p);

// A C-contiguous array's memory and shape, taken with the GIL for use on the library's thread
// (the caller keeps the array alive).
struct ArrayView {
  const void *data = nullptr;
  std::vector<pybind11::ssize_t> shape;
  int bytes = 0;
  bool is_signed = false;
};
ArrayView view_of(const pybind11::array &array);

// An image of the library that is deleted when it goes; for the library's thread only.
struct OwnedImage {
  HANDLE image = nullptr;
  OwnedImage() = default;
  OwnedImage(const OwnedImage &) = delete;
  OwnedImage &operator=(const OwnedImage &) = delete;
  OwnedImage(OwnedImage &&o) noexcept : image(o.image) { o.image = nullptr; }
  ~OwnedImage() { image_delete(image); }
};

// Whether the array can become an image of `kind`: its shape, element type and every value
// (std::invalid_argument says what is wrong). Needs neither the GIL nor the library.
void check_fits(const ArrayView &array, const ImageKind &kind);
// A new image of `kind` holding the array's pixels, which check_fits has accepted. Runs on the
// library's thread.
OwnedImage copy_in(const ArrayView &array, const ImageKind &kind);

}  // namespace tvxpy
