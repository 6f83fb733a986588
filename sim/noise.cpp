#include "sim/noise.h"

#include <array>

namespace tvx::sim {

namespace {

// Where the tail of the 256 layers begins, and the area of each layer.
constexpr double kR = 3.6541528853610088;
constexpr double kArea = 4.92867323399e-3;

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

Ziggurat::Ziggurat() {
  double f = std::exp(-0.5 * kR * kR);
  x[0] = kArea / f;
  x[1] = kR;
  for (int i = 2; i < kZigguratLayers; ++i) {
    x[i] = std::sqrt(-2.0 * std::log(kArea / x[i - 1] + f));
    f = std::exp(-0.5 * x[i] * x[i]);
  }
  x[kZigguratLayers] = 0;
  for (int i = 0; i < kZigguratLayers; ++i) inner[i] = x[i + 1] / x[i];
}

const Ziggurat kZiggurat;

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

double Random::normal_edge(int layer, double u) {
  if (layer == 0) {
    // The tail beyond kR: an exponential step past kR, kept where a second one says it lies
    // under the normal curve.
    double a, b;
    do {
      a = -std::log(1.0 - uniform()) / kR;
      b = -std::log(1.0 - uniform());
    } while (b + b < a * a);
    return u < 0 ? -(kR + a) : kR + a;
  }
  // In the wedge between the box and the curve: keep x where a uniform height lies under f.
  const Ziggurat &z = kZiggurat;
  const double x = u * z.x[layer];
  const double f0 = std::exp(-0.5 * (z.x[layer] * z.x[layer] - x * x));
  const double f1 = std::exp(-0.5 * (z.x[layer + 1] * z.x[layer + 1] - x * x));
  if (f1 + uniform() * (f0 - f1) < 1.0) return x;
  return normal();  // rejected: a fresh draw
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

void PoissonTable::build(double mean) {
  double p = std::exp(-mean), sum = p;
  for (int k = 0; k < kCounts; ++k) {
    cumulative_[k] = sum;
    p *= mean * reciprocals.of[k + 1];
    sum += p;
  }
  cumulative_[kCounts - 1] = 1.0;
  int k = 0;
  for (int j = 0; j < kGuides; ++j) {
    while (cumulative_[k] <= double(j) / kGuides) ++k;
    guide_[j] = static_cast<uint8_t>(k);
  }
}

}  // namespace tvx::sim
