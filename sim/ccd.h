// The CCD behind the simulated controller: charge from the scene, dark current that follows the
// chip's temperature, photon and read noise, binning that sums charge, saturation, reference
// columns that read bias only, and the two-channel converter. And the controller's side of the
// readout stream: pixels cut to the host's pixel blocks, encoded for the data mode, sent in
// blocks of 1 to 30 words.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

#include "sim/noise.h"
#include "sim/scene.h"

namespace tvx::sim {

// The covered columns at the chip's right edge, read for the bias.
constexpr int kReferenceColumns = 16;

// The chip's physics.
constexpr double kFullWell = 150000.0;       // electrons an unbinned pixel holds
constexpr double kSerialWell = 400000.0;     // electrons the summing well holds
constexpr double kSecondChannelGain = 16.0;  // channel 2 sees a sixteenth of channel 1's signal
constexpr double kDarkDoubling = 6.0;        // kelvin per doubling of the dark current
constexpr double kDarkReference = 293.15;    // kelvin at which the scene's dark current holds

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

// What the draws of one expected charge need, made once for it: exp(-mean) for exact counts, the
// roots for the normal approximation, and for a charge that many pixels share, a table.
class ChargeDraws {
 public:
  // `near`, when given, is the draws of a mean this one may lie close to.
  void prepare(double mean, double read_noise, bool table, const ChargeDraws *near = nullptr);
  double mean() const { return mean_; }
  // Electrons in an unbinned pixel: Poisson, exact for small means and normal for large ones,
  // never below zero nor above the full well.
  double charge(Random &random) const;
  // Electrons and read noise of an unbinned pixel read alone, the noise from `noise`.
  double lone_signal(Random &random, Random &noise) const;

 private:
  double mean_ = -1, read_noise_ = 0;
  double exp_minus_ = 1;       // exp(-mean)
  double root_ = 0;            // sqrt(mean)
  double root_with_read_ = 0;  // the same with the read noise's variance added
  bool tabled_ = false;
  PoissonTable table_;
};

// The levels the converter gives for a lone pixel of one expected charge: its Poisson or normal
// charge, the read noise, the rounding to a level and the converter's range, as one distribution
// over levels. Made once for the charge most pixels of a frame share, so that such a pixel is one
// uniform deviate and a lookup.
class LevelTable {
 public:
  // False when the levels are too spread for a table, or the charge lies near the full well.
  bool build(double mean, double read_noise, double black, double levels_per_electron);
  uint16_t draw(Random &random) const {
    const double u = random.uniform();
    size_t i = guide_[static_cast<size_t>(u * double(guide_.size()))];
    while (u >= cumulative_[i]) ++i;
    return static_cast<uint16_t>(first_ + int(i));
  }

 private:
  int first_ = 0;                   // the lowest level
  std::vector<double> cumulative_;  // P(level <= first_ + i); the last is 1
  std::vector<uint32_t> guide_;     // the least i with cumulative_[i] > j / guides
};

class Ccd {
 public:
  // A frame's noise is drawn from the scene's seed and the frame's number, pixel after pixel in
  // the order they are read.
  void begin_frame(const ChipSetup &chip, const Charge &charge, uint32_t frame);
  // `count` binned pixels along one binned row, as the converter gives them: 16 bits, or 32 for
  // two channels. The first binned pixel's first unbinned pixel is (x, y); each next one lies
  // `bx` columns further.
  void read_row(int x, int y, int count, int bx, int by, uint32_t *out);
  // The tables of counts and levels for what many pixels share only save time: without them
  // (from the next frame on) every pixel is drawn step by step, from the same distributions.
  void use_tables(bool on) { tables_ = on; }

 private:
  void coordinate_row(int x, int y, int count, int bx, int by, uint32_t *out) const;
  // Binned pixels: the charge of their unbinned pixels summed row by row, then read noise.
  void binned_row(int x, int y, int count, int bx, int by, uint32_t *out);
  // What the converter gives for a signal in electrons.
  uint32_t convert(double signal) const;
  // Photons per second on unbinned row y's lit columns, kept while the same row is asked for;
  // null for a row off the chip.
  const float *flux_row(int y);
  // Expected electrons in the unbinned pixel x of a row with `flux`; 0 off the lit area.
  double expected(const float *flux, int x) const {
    if (flux == nullptr || x < 0 || x >= active_) return 0;
    return flux[x] * light_seconds_ + dark_electrons_;
  }
  // What many pixels of a frame share: the draws of their mean and, for lone pixels of a
  // single-channel converter, the table of the levels they read.
  struct Shared {
    ChargeDraws draws;
    LevelTable levels;
    bool tabled = false;
  };
  void share(Shared *shared, double mean);
  // The draws for a mean: most pixels of a frame see the scene's level alone, covered columns
  // gather nothing, and the pixels that stars reach come and go in `last_`.
  const ChargeDraws &draws(double mean) {
    if (mean == background_.draws.mean()) return background_.draws;
    if (mean == 0) return covered_.draws;
    if (mean != last_.mean()) last_.prepare(mean, scene_.read_noise, false, &background_.draws);
    return last_;
  }
  // A lone pixel of this mean as the converter gives it.
  uint32_t lone_pixel(double mean, Random &random, Random &noise) {
    if (mean == background_.draws.mean() && background_.tabled)
      return background_.levels.draw(random);
    if (mean == 0 && covered_.tabled) return covered_.levels.draw(random);
    return convert(draws(mean).lone_signal(random, noise));
  }

  ChipSetup chip_;
  SceneSettings scene_;
  SceneFlux flux_;
  std::vector<float> row_;     // flux_row's row
  int row_y_ = -1;             // and which it is; -1: none yet
  std::vector<double> sums_;   // binned_row's charges
  int active_ = 1;             // columns that see light
  double light_seconds_ = 0;   // the shutter was open this long
  double dark_electrons_ = 0;  // the dark charge every pixel gathered this frame
  double levels_per_electron_ = 1;
  // Charge and read noise come from generators of their own, whose draws a pixel can make side
  // by side.
  Random random_, noise_;
  Shared background_, covered_;
  ChargeDraws last_;
  bool tables_ = true;
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

// The next `n` pixels of a frame in readout order.
using PixelSource = std::function<void(uint32_t *out, size_t n)>;

// Encodes a frame's pixels, taken from a source in readout order, into the words of the stream,
// one of the host's pixel blocks at a time as the link takes them: a frame of a large chip is
// never whole in memory.
class FrameEncoder {
 public:
  void start(PixelSource pixels, size_t count, const StreamFormat &format,
             const StreamFault &fault);
  // The next pixel block's words into `words`, and the index in them one past each of its blocks
  // into `block_ends`; false, with both empty, when the frame has no more.
  bool next(std::vector<uint16_t> *words, std::vector<size_t> *block_ends);

 private:
  size_t next_size(size_t left);

  PixelSource pixels_;
  size_t count_ = 0, done_ = 0;  // the frame's pixels, and those encoded
  size_t host_pixels_ = 1;       // pixels of a full host pixel block
  StreamFormat format_;
  StreamFault fault_;
  uint32_t state_ = 0;   // the block sizes' generator
  bool first_ = true;    // the frame's first block is still to come
  size_t sent_ = 0;      // words of the frame encoded so far
  bool broken_ = false;  // the stream broke off as the fault asked
  std::vector<uint32_t> block_;
  std::vector<uint16_t> out_, wire_;
};

}  // namespace tvx::sim
