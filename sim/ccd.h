// The CCD behind the simulated controller: charge from the scene, dark current that follows the
// chip's temperature, photon and read noise, binning that sums charge, saturation, reference
// columns that read bias only, and the two-channel converter. And the controller's side of the
// readout stream: pixels cut to the host's pixel blocks, encoded for the data mode, sent in
// blocks of 1 to 30 words.
#pragma once

#include <cstddef>
#include <cstdint>
#include <random>
#include <vector>

#include "sim/scene.h"

namespace tvx::sim {

// The covered columns at the chip's right edge, read for the bias.
constexpr int kReferenceColumns = 16;

struct ChipSetup {
  int width = 0, height = 0;  // unbinned pixels, reference columns included
  int blacklevel = 0;         // the bias, in levels
  double electrons_per_level = 1.0;
  bool two_channel = false;  // 32-bit pixels: channel 1 high, channel 2 (lower gain) low
};

struct Charge {
  double light_seconds = 0;  // the shutter was open this long
  double dark_seconds = 0;   // charge gathered this long since the last flush or read
  double kelvin = 293.15;
};

class Ccd {
 public:
  // A frame's noise is drawn from the scene's seed and the frame's number.
  void begin_frame(const ChipSetup &chip, const Charge &charge, uint32_t frame);
  // The binned pixel whose first unbinned pixel is (x, y): 16 bits, or 32 for two channels.
  uint32_t pixel(int x, int y, int bx, int by);

 private:
  ChipSetup chip_;
  Charge charge_;
  SceneSettings scene_;
  const std::vector<float> *flux_ = nullptr;
  std::mt19937 random_;
};

// How the controller sends a frame.
struct StreamFormat {
  int data_mode = 0;
  int words_per_pixel = 1;  // 2 for 32-bit pixels
  int raster_pixels = 1;    // pixels per raster of the host's image
  int16_t constants[3] = {};
  uint32_t seed = 0;  // varies the block sizes
};

// A spoilt stream, as the test controls ask for.
struct StreamFault {
  int block_size = -1;   // the first block announces this size (and carries as many words)
  long stop_after = -1;  // the stream stops after this many words
};

// Encodes a frame's pixels, in readout order, into the words of the stream. `block_ends` gets the
// index one past each block, so that a block can be released whole.
void encode_frame(const std::vector<uint32_t> &pixels, const StreamFormat &format,
                  const StreamFault &fault, std::vector<uint16_t> *words,
                  std::vector<size_t> *block_ends);

}  // namespace tvx::sim
