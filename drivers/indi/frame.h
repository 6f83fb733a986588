// A picture of the session as INDI's CCD wants it: one image's pixels in the chip's frame buffer
// (unsigned 16- or 32-bit, rows in the image's order), where it lies on the chip, and the header
// keywords tvxcam writes for the same picture.
//
// libindi (1.9) hands cfitsio a 16-bit frame as unsigned shorts and a 32-bit one as C unsigned
// longs (TULONG), 64 bits wide on this platform: the buffer holds each pixel in the word libindi
// reads it as, so a 32-bit frame takes 8 bytes a pixel.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "header.h"
#include "session.h"

namespace tvx_indi {

using Word16 = unsigned short;
using Word32 = unsigned long;

struct Frame {
  std::vector<uint8_t> pixels;
  int bits = 16;  // 16: Word16 pixels; 32: Word32 pixels
  // Signed pixels are stored shifted by half the range, as unsigned ones are: the file's BZERO
  // must then be 0 instead of half the range for the values to read back as they were.
  bool shifted = false;
  // On the chip: the origin in unbinned pixels, the size in binned ones.
  int x = 0, y = 0, width = 0, height = 0;
  std::vector<session::Card> cards;
};

// Reads the first image of `picture` (a frame holds one region). Library calls: run it on the
// library's thread.
Frame frame_of(const session::Picture &picture, const std::string &creator);

}  // namespace tvx_indi
