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

// Photons per second on each unbinned pixel of a chip `width` x `height`, row by row; made once
// for a scene, seed and chip and kept.
const std::vector<float> &scene_flux(const SceneSettings &s, int width, int height);

}  // namespace tvx::sim
