// The simulated CCD's noise against the model's own numbers: bias and read noise in levels, photon
// counts that are Poisson (exactly so for small means), dark current that doubles every 6 K, and
// binning that sums charge before one read. Each figure is checked over a million pixels, with
// bounds of five standard errors of that many samples, and twice: with the tables the CCD keeps
// for what many pixels share, and drawn pixel by pixel without them.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <vector>

#include "sim/ccd.h"

namespace {

using namespace tvx::sim;

constexpr int kLit = 1000;  // lit columns of the test chip
constexpr int kColumns = kLit + kReferenceColumns;
constexpr int kRows = 1000;
constexpr int kBias = 1000;
constexpr double kFlatPhotons = 2000.0;  // photons per second of the flat scene
constexpr double kDarkCurrent = 2.0;     // electrons per second at the reference temperature

struct Sample {
  std::vector<double> values;
  double mean() const {
    double sum = 0;
    for (double v : values) sum += v;
    return sum / double(values.size());
  }
  double variance() const {
    const double m = mean();
    double sum = 0;
    for (double v : values) sum += (v - m) * (v - m);
    return sum / double(values.size() - 1);
  }
  double share(double value) const {
    double n = 0;
    for (double v : values) n += v == value;
    return n / double(values.size());
  }
};

class CcdNoise : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override { saved_ = scene_settings(); }
  void TearDown() override { set_scene_settings(saved_); }

  // A frame of the scene read whole at this binning, as levels: lit pixels in one sample, the
  // reference columns' in another.
  static std::pair<Sample, Sample> read(SceneKind kind, double read_noise,
                                        double electrons_per_level, const Charge &charge,
                                        int bx = 1, int by = 1) {
    SceneSettings scene;
    scene.kind = kind;
    scene.seed = 42;
    scene.read_noise = read_noise;
    scene.dark_current = kDarkCurrent;
    set_scene_settings(scene);
    ChipSetup chip;
    chip.width = kColumns;
    chip.height = kRows;
    chip.blacklevel = kBias;
    chip.electrons_per_level = electrons_per_level;
    Ccd ccd;
    ccd.use_tables(GetParam());
    ccd.begin_frame(chip, charge, 1);
    Sample lit, covered;
    std::vector<uint32_t> row(size_t(kColumns / bx));
    for (int y = 0; y + by <= kRows; y += by) {
      ccd.read_row(0, y, kColumns / bx, bx, by, row.data());
      for (int n = 0; n < kColumns / bx; ++n)
        (n * bx < kLit ? lit : covered).values.push_back(row[size_t(n)]);
    }
    return {lit, covered};
  }

  // The sample's mean and variance are what a distribution of this mean, variance and fourth
  // cumulant gives, within five standard errors of the sample's size.
  static void expect_moments(const Sample &s, double mean, double variance, double cumulant4 = 0) {
    const double n = double(s.values.size());
    EXPECT_NEAR(s.mean(), mean, 5 * std::sqrt(variance / n)) << "mean";
    EXPECT_NEAR(s.variance(), variance, 5 * std::sqrt((cumulant4 + 2 * variance * variance) / n))
        << "variance";
  }

  SceneSettings saved_;
};

// Rounding to whole levels adds a twelfth of a level squared to any variance.
constexpr double kRounding = 1.0 / 12.0;

TEST_P(CcdNoise, BiasAndReadNoiseInLevels) {
  // Two levels an electron: 6.5 electrons of read noise are 13 levels.
  const auto [lit, covered] = read(SceneKind::dark, 6.5, 0.5, Charge{0, 0, 293.15});
  expect_moments(lit, kBias, 13.0 * 13.0 + kRounding);
  expect_moments(covered, kBias, 13.0 * 13.0 + kRounding);
}

TEST_P(CcdNoise, PhotonCountsArePoisson) {
  // Small means are drawn exactly: the share of each count is the Poisson probability.
  for (double mean : {0.4, 5.0}) {
    SCOPED_TRACE("mean " + std::to_string(mean));
    const auto [lit, covered] = read(SceneKind::flat, 0.0, 1.0, Charge{mean / kFlatPhotons, 0, 0});
    expect_moments(lit, kBias + mean, mean, mean);
    const double n = double(lit.values.size());
    double p = std::exp(-mean);
    for (int k = 0; k <= 8; ++k, p *= mean / k)
      EXPECT_NEAR(lit.share(kBias + k), p, 5 * std::sqrt(p * (1 - p) / n)) << "count " << k;
    expect_moments(covered, kBias, 0.0);
  }
  // Large means follow the normal approximation, alone or with the read noise.
  const double mean = 1000.0;
  const Charge second{mean / kFlatPhotons, 0, 0};
  expect_moments(read(SceneKind::flat, 0.0, 1.0, second).first, kBias + mean, mean + kRounding);
  expect_moments(read(SceneKind::flat, 6.5, 1.0, second).first, kBias + mean,
                 mean + 6.5 * 6.5 + kRounding);
}

TEST_P(CcdNoise, DarkCurrentDoublesEverySixKelvin) {
  // Ten seconds in the dark: 20 electrons at the reference temperature, 5 at 12 K below it.
  for (const auto &[kelvin, electrons] : std::map<double, double>{{293.15, 20.0}, {281.15, 5.0}}) {
    SCOPED_TRACE("at " + std::to_string(kelvin) + " K");
    const auto [lit, covered] = read(SceneKind::dark, 0.0, 1.0, Charge{0, 10.0, kelvin});
    expect_moments(lit, kBias + electrons, electrons, electrons);
    expect_moments(covered, kBias, 0.0);
  }
}

TEST_P(CcdNoise, BinningSumsChargeAndReadsOnce) {
  // 2 x 2 pixels of 5 electrons each: 20 electrons, with one read's noise.
  const auto [binned, covered] =
      read(SceneKind::flat, 6.5, 1.0, Charge{5.0 / kFlatPhotons, 0, 0}, 2, 2);
  expect_moments(binned, kBias + 20.0, 20.0 + 6.5 * 6.5 + kRounding, 20.0);
  // A hundred seconds of flat field fill every pixel; summed, four full pixels overflow the
  // summing well. Eight electrons a level, no read noise: the levels are exact.
  const Charge flood{100.0, 0, 0};
  const Sample full = read(SceneKind::flat, 0.0, 8.0, flood).first;
  EXPECT_EQ(full.share(kBias + kFullWell / 8), 1.0);
  const Sample summed = read(SceneKind::flat, 0.0, 8.0, flood, 2, 2).first;
  EXPECT_EQ(summed.share(kBias + kSerialWell / 8), 1.0);
}

INSTANTIATE_TEST_SUITE_P(TablesAndStepByStep, CcdNoise, ::testing::Bool(),
                         [](const auto &info) { return info.param ? "Tables" : "StepByStep"; });

}  // namespace
