// The simulated CCD's random numbers: a small seeded generator, normal deviates by the ziggurat
// method, and Poisson counts. A frame draws millions of them, so each costs a few nanoseconds;
// and the same seed always gives the same numbers, on every machine, because nothing here
// depends on the standard library's distributions.
#pragma once

#include <cmath>
#include <cstdint>

namespace tvx::sim {

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
  // A standard normal deviate.
  double normal();
  // A Poisson count of the given mean, drawn exactly: by inversion below kExactPoissonBelow.
  // `exp_minus_mean` is exp(-mean), which callers that draw many counts of one mean keep.
  double poisson(double mean, double exp_minus_mean);

 private:
  static uint64_t rotl(uint64_t x, int k) { return x << k | x >> (64 - k); }
  double normal_tail(bool negative);
  uint64_t s_[4];
};

// Photon and dark counts of this mean and above are drawn from the normal approximation.
constexpr double kExactPoissonBelow = 30.0;

// Charge gathered by a pixel whose expected charge is `mean` electrons: Poisson, exact for small
// means and normal (never below zero) for large ones. Keeps the last mean's exp(-mean) and
// square root, since most pixels of a frame see the same sky.
class ChargeSampler {
 public:
  double operator()(Random &random, double mean) {
    if (mean <= 0) return 0;
    if (mean != last_mean_) {
      last_mean_ = mean;
      last_factor_ = mean < kExactPoissonBelow ? std::exp(-mean) : std::sqrt(mean);
    }
    if (mean < kExactPoissonBelow) return random.poisson(mean, last_factor_);
    const double e = mean + last_factor_ * random.normal();
    return e > 0 ? e : 0;
  }

 private:
  double last_mean_ = -1, last_factor_ = 0;
};

}  // namespace tvx::sim
