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

void SceneFlux::prepare(const SceneSettings &s, int width, int height) {
  width = std::max(width, 0);
  height = std::max(height, 0);
  if (s.kind == kind_ && s.seed == seed_ && width == width_ && height == height_) return;
  kind_ = s.kind;
  seed_ = s.seed;
  width_ = width;
  height_ = height;
  level_ = s.kind == SceneKind::flat        ? float(kFlat)
           : s.kind == SceneKind::starfield ? float(kSky)
                                            : 0;
  profiles_.clear();
  strokes_.clear();
  first_.assign(size_t(height_) + 1, 0);
  if (s.kind != SceneKind::starfield) return;
  // Each star's box: its profile along the row kept once, its rows' brightnesses for later.
  struct Box {
    int x0, count, y0;
    uint32_t profile;
    std::vector<float> down;
  };
  std::vector<Box> boxes;
  for (const Star &star : stars(s.seed, width_, height_)) {
    const double w2 = star.width * star.width, reach = 5.0 * star.width;
    const int x0 = std::max(0, int(star.x - reach)), x1 = std::min(width_, int(star.x + reach) + 1);
    const int y0 = std::max(0, int(star.y - reach)),
              y1 = std::min(height_, int(star.y + reach) + 1);
    if (x1 <= x0 || y1 <= y0) continue;
    const double peak = star.flux / (2.0 * M_PI * w2);
    auto gauss = [w2](int i, double centre) {
      const double d = i + 0.5 - centre;
      return std::exp(-d * d / (2.0 * w2));
    };
    Box box{x0, x1 - x0, y0, uint32_t(profiles_.size()), {}};
    for (int x = x0; x < x1; ++x) profiles_.push_back(float(gauss(x, star.x)));
    for (int y = y0; y < y1; ++y) {
      box.down.push_back(float(peak * gauss(y, star.y)));
      ++first_[size_t(y) + 1];
    }
    boxes.push_back(std::move(box));
  }
  for (size_t y = 1; y < first_.size(); ++y) first_[y] += first_[y - 1];
  strokes_.resize(first_.back());
  std::vector<uint32_t> filled(first_.begin(), first_.end() - 1);
  for (const Box &box : boxes)
    for (size_t j = 0; j < box.down.size(); ++j)
      strokes_[filled[size_t(box.y0) + j]++] = {box.x0, box.count, box.profile, box.down[j]};
}

void SceneFlux::row(int y, float *out) const {
  const bool on_chip = y >= 0 && y < height_;
  std::fill(out, out + width_, on_chip ? level_ : 0.0f);
  if (!on_chip) return;
  for (uint32_t k = first_[size_t(y)]; k < first_[size_t(y) + 1]; ++k) {
    const Stroke &s = strokes_[k];
    const float *profile = profiles_.data() + s.profile;
    float *to = out + s.x0;
    for (int i = 0; i < s.count; ++i) to[i] += s.scale * profile[i];
  }
}

}  // namespace tvx::sim
