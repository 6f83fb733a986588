#include "sim/scene.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

namespace tvx::sim {

namespace {

SceneSettings current;

constexpr double kSky = 40.0;     // photons per second on every pixel of the star field
constexpr double kFlat = 2000.0;  // photons per second of the flat field
constexpr int kStarsPerMegapixel = 600;

struct Star {
  double x, y, flux, width;
};

// The same stars for the same seed and chip, every time.
const std::vector<Star> &stars(uint32_t seed, int width, int height) {
  static std::vector<Star> cached;
  static uint32_t cached_seed = 0;
  static int cached_w = -1, cached_h = -1;
  if (seed == cached_seed && width == cached_w && height == cached_h) return cached;
  cached.clear();
  uint64_t x = seed * 6364136223846793005ull + 1442695040888963407ull;
  auto next = [&x]() {
    x ^= x >> 12;
    x ^= x << 25;
    x ^= x >> 27;
    return static_cast<double>((x * 2685821657736338717ull) >> 11) / 9007199254740992.0;
  };
  const long n = std::max(3L, static_cast<long>(kStarsPerMegapixel * 1e-6 * width * height));
  for (long i = 0; i < n; ++i) {
    // Brightness falls off as a power law: many faint stars, a few bright ones.
    const double flux = 2000.0 * std::pow(1.0 - next() * 0.999, -1.5);
    cached.push_back({next() * width, next() * height, flux, 0.8 + next() * 0.8});
  }
  cached_seed = seed;
  cached_w = width;
  cached_h = height;
  return cached;
}

}  // namespace

const SceneSettings &scene_settings() {
  return current;
}

void set_scene_settings(const SceneSettings &next) {
  current = next;
}

bool scene_kind_of(const char *name, SceneKind *kind) {
  struct Name {
    const char *text;
    SceneKind kind;
  };
  static constexpr Name kNames[] = {{"starfield", SceneKind::starfield},
                                    {"coordinates", SceneKind::coordinates},
                                    {"flat", SceneKind::flat},
                                    {"dark", SceneKind::dark}};
  for (const Name &n : kNames)
    if (std::strcmp(n.text, name) == 0) {
      *kind = n.kind;
      return true;
    }
  return false;
}

const std::vector<float> &scene_flux(const SceneSettings &s, int width, int height) {
  static std::vector<float> map;
  static SceneKind kind = SceneKind::dark;
  static uint32_t seed = 0;
  static int w = -1, h = -1;
  if (s.kind == kind && s.seed == seed && width == w && height == h) return map;
  kind = s.kind;
  seed = s.seed;
  w = width;
  h = height;
  map.assign(static_cast<size_t>(width) * static_cast<size_t>(height), 0.0f);
  if (s.kind == SceneKind::flat) std::fill(map.begin(), map.end(), float(kFlat));
  if (s.kind != SceneKind::starfield) return map;
  std::fill(map.begin(), map.end(), float(kSky));
  for (const Star &star : stars(s.seed, width, height)) {
    const double w2 = star.width * star.width, reach = 5.0 * star.width;
    for (int y = std::max(0, int(star.y - reach)); y < std::min(height, int(star.y + reach) + 1);
         ++y)
      for (int x = std::max(0, int(star.x - reach)); x < std::min(width, int(star.x + reach) + 1);
           ++x) {
        const double dx = x + 0.5 - star.x, dy = y + 0.5 - star.y;
        map[size_t(y) * size_t(width) + size_t(x)] +=
            float(star.flux / (2.0 * M_PI * w2) * std::exp(-(dx * dx + dy * dy) / (2.0 * w2)));
      }
  }
  return map;
}

}  // namespace tvx::sim
