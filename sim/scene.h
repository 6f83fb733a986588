// What the simulated camera looks at, and how it is told: a seeded star field on a sky
// background for pictures, a flat field, darkness, and a test scene whose values encode each
// unbinned pixel's coordinates so that regions, binning and unscrambling can be checked pixel by
// pixel.
#pragma once

#include <cstdint>
#include <vector>

namespace tvx::sim {

enum class SceneKind { starfield, coordinates, flat, dark };

struct SceneSettings {
  SceneKind kind = SceneKind::starfield;
  uint32_t seed = 7100;
  double read_noise = 6.5;    // electrons
  double dark_current = 2.0;  // electrons per pixel per second at 293 K
  bool realtime = false;      // read out at the pixel rate rather than at once
};

const SceneSettings &scene_settings();
void set_scene_settings(const SceneSettings &next);
// Names as the SIMULATOR section writes them; false for an unknown one.
bool scene_kind_of(const char *name, SceneKind *kind);

// The coordinate scene: an unbinned pixel's value is its column plus 256 times its row, kept to
// 16 bits. Binned pixels hold the sum of their pixels, kept to 16 bits.
inline uint16_t coordinate_code(int x, int y) {
  return static_cast<uint16_t>(x + 256 * y);
}
// Channel 2 of the coordinate scene in the two-channel mode: the complement of channel 1.
inline uint16_t coordinate_second(uint16_t first) {
  return static_cast<uint16_t>(~first);
}

// Photons per second on the unbinned pixels of a chip, made a row at a time as the readout asks
// for it: a frame of a large chip is not worth a whole map of them in memory.
class SceneFlux {
 public:
  // For a scene and a chip `width` x `height`. The stars of a seed and chip are placed once.
  void prepare(const SceneSettings &s, int width, int height);
  // Row y's pixels 0 .. width - 1 into `out`; a row off the chip sees nothing.
  void row(int y, float *out) const;
  // What every pixel of the chip sees, and most see alone: the sky, or the flat field.
  float level() const { return level_; }

 private:
  // A star's light on one row: on `count` pixels from x0, the star's profile along the row
  // (profiles_ from `profile`) times its brightness on this row. A round Gaussian is the product
  // of one profile along the row and one down the column.
  struct Stroke {
    int x0, count;
    uint32_t profile;
    float scale;
  };
  float level_ = 0;  // on every pixel: the sky, or the flat field
  SceneKind kind_ = SceneKind::dark;
  uint32_t seed_ = 0;
  int width_ = -1, height_ = -1;
  std::vector<float> profiles_;
  // The strokes of row y: first_[y] .. first_[y + 1] - 1, side by side as the rows are read.
  std::vector<uint32_t> first_;
  std::vector<Stroke> strokes_;
};

}  // namespace tvx::sim
