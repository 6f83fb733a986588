#include "sim/noise.h"

#include <array>

namespace tvx::sim {

namespace {

// The ziggurat of 128 layers under the unnormalised density f(x) = exp(-x^2 / 2): layer i is a
// box of half-width x[i] between heights f(x[i]) and f(x[i + 1]), all of equal area kArea. Layer
// 0 is the base: a box to kR and the tail beyond it, drawn as one box of half-width kArea / f(kR).
constexpr int kLayers = 128;
constexpr double kR = 3.442619855899;
constexpr double kArea = 9.91256303526217e-3;

struct Ziggurat {
  std::array<double, kLayers + 1> x{};
  std::array<double, kLayers> inner{};  // x[i + 1] / x[i]: the share of a box under the curve
  Ziggurat() {
    double f = std::exp(-0.5 * kR * kR);
    x[0] = kArea / f;
    x[1] = kR;
    for (int i = 2; i < kLayers; ++i) {
      x[i] = std::sqrt(-2.0 * std::log(kArea / x[i - 1] + f));
      f = std::exp(-0.5 * x[i] * x[i]);
    }
    x[kLayers] = 0;
    for (int i = 0; i < kLayers; ++i) inner[i] = x[i + 1] / x[i];
  }
};
const Ziggurat zig;

// 1/k for the Poisson search, which would otherwise divide once a step.
struct Reciprocals {
  static constexpr int kCount = 256;
  std::array<double, kCount> of{};
  Reciprocals() {
    for (int k = 1; k < kCount; ++k) of[k] = 1.0 / k;
  }
};
const Reciprocals reciprocals;

}  // namespace

void Random::reseed(uint64_t seed) {
  // splitmix64 spreads the seed over the four words, none of which may all be zero.
  for (uint64_t &word : s_) {
    seed += 0x9E3779B97F4A7C15ull;
    uint64_t z = seed;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    word = z ^ (z >> 31);
  }
}

double Random::normal() {
  for (;;) {
    const uint64_t r = bits();
    // The layer from the low bits, the position from the high ones: the two do not overlap.
    const int i = static_cast<int>(r & (kLayers - 1));
    const double u = static_cast<double>(r >> 11) * 0x1.0p-52 - 1.0;  // [-1, 1)
    if (std::fabs(u) < zig.inner[i]) return u * zig.x[i];
    if (i == 0) return normal_tail(u < 0);
    // In the wedge between the box and the curve: keep x where a uniform height lies under f.
    const double x = u * zig.x[i];
    const double f0 = std::exp(-0.5 * (zig.x[i] * zig.x[i] - x * x));
    const double f1 = std::exp(-0.5 * (zig.x[i + 1] * zig.x[i + 1] - x * x));
    if (f1 + uniform() * (f0 - f1) < 1.0) return x;
  }
}

double Random::normal_tail(bool negative) {
  // Marsaglia's method for the tail beyond kR.
  double a, b;
  do {
    a = -std::log(1.0 - uniform()) / kR;
    b = -std::log(1.0 - uniform());
  } while (b + b < a * a);
  return negative ? -(kR + a) : kR + a;
}

double Random::poisson(double mean, double exp_minus_mean) {
  // Inversion: the smallest k whose cumulative probability reaches a uniform deviate. Below
  // kExactPoissonBelow the search ends long before the table of reciprocals does.
  const double u = uniform();
  double p = exp_minus_mean, sum = p;
  int k = 0;
  while (u >= sum && k + 1 < Reciprocals::kCount) {
    ++k;
    p *= mean * reciprocals.of[k];
    sum += p;
  }
  return k;
}

}  // namespace tvx::sim
