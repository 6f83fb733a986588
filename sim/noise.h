// The simulated CCD's random numbers: a small seeded generator, normal deviates by the ziggurat
// method, and Poisson counts. A frame draws millions of them, so each costs a few nanoseconds;
// and the same seed always gives the same numbers, on every machine, because nothing here
// depends on the standard library's distributions.
#pragma once

#include <cmath>
#include <cstdint>

namespace tvx::sim {

// The ziggurat of kZigguratLayers layers under the unnormalised density f(x) = exp(-x^2 / 2):
// layer i is a box of half-width x[i] between heights f(x[i]) and f(x[i + 1]), all of equal area.
// Layer 0 is the base: a box to x[1] and the tail beyond it, taken as one box of half-width x[0].
constexpr int kZigguratLayers = 256;
struct Ziggurat {
  Ziggurat();
  double x[kZigguratLayers + 1];
  double inner[kZigguratLayers];  // x[i + 1] / x[i]: the share of a box wholly under the curve
};
extern const Ziggurat kZiggurat;

class Random {
 public:
  explicit Random(uint64_t seed = 0) { reseed(seed); }
  void reseed(uint64_t seed);

  // 64 random bits (xoshiro256++).
  uint64_t bits() {
    const uint64_t result = rotl(s_[0] + s_[3], 23) + s_[0];
    const uint64_t t = s_[1] << 17;
    s_[2] ^= s_[0];
    s_[3] ^= s_[1];
    s_[1] ^= s_[2];
    s_[0] ^= s_[3];
    s_[2] ^= t;
    s_[3] = rotl(s_[3], 45);
    return result;
  }
  // Uniform on [0, 1), in steps of 2^-53.
  double uniform() { return static_cast<double>(bits() >> 11) * 0x1.0p-53; }
  // A standard normal deviate, by the ziggurat method: most draws end in the first test.
  double normal() {
    const uint64_t r = bits();
    // The layer from the low bits, the position from the high ones: the two do not overlap.
    const int i = static_cast<int>(r & (kZigguratLayers - 1));
    const double u = static_cast<double>(r >> 11) * 0x1.0p-52 - 1.0;  // [-1, 1)
    if (std::fabs(u) < kZiggurat.inner[i]) return u * kZiggurat.x[i];
    return normal_edge(i, u);
  }
  // A Poisson count of the given mean, drawn exactly: by inversion below kExactPoissonBelow.
  // `exp_minus_mean` is exp(-mean), which callers that draw many counts of one mean keep.
  double poisson(double mean, double exp_minus_mean);

 private:
  static uint64_t rotl(uint64_t x, int k) { return x << k | x >> (64 - k); }
  // The draws that fall in a layer's wedge or in the tail.
  double normal_edge(int layer, double u);
  uint64_t s_[4];
};

// Photon and dark counts of this mean and above are drawn from the normal approximation.
constexpr double kExactPoissonBelow = 30.0;

// Poisson counts of one mean below kExactPoissonBelow, for a mean many pixels share: by inversion
// as Random::poisson draws them, from a cumulative table that a guide table enters near the
// answer, so that a draw is a lookup and seldom a step.
class PoissonTable {
 public:
  void build(double mean);
  double draw(Random &random) const {
    const double u = random.uniform();
    int k = guide_[static_cast<size_t>(u * kGuides)];
    while (u >= cumulative_[k]) ++k;
    return k;
  }

 private:
  static constexpr int kGuides = 64;
  static constexpr int kCounts = 128;  // counts beyond the last are rarer than 2^-53
  double cumulative_[kCounts];         // P(count <= k); the last is 1
  uint8_t guide_[kGuides];             // the least k with P(count <= k) > j / kGuides
};

}  // namespace tvx::sim
