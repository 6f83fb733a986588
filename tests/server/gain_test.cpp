// The gain table of the shipped hardware file, selecting a setting, and the electrons-per-level
// arithmetic with the factor it blames when the answer is nothing.
#include <cmath>

#include "config/config_support.h"
#include "tvx/gain.h"

namespace {

using namespace tvx_test;

class Gain : public ConfigTest {
 protected:
  void TearDown() override {
    gain_dtor(&g);
    ConfigTest::TearDown();
  }
  gain g{};
};

TEST_F(Gain, ShippedTableReadsInFileOrderSelectsAndSaysWhatIsMissing) {
  HANDLE c = parse_shipped("sim_small.def");
  ASSERT_TRUE(gain_extract_table(&g, c)) << story();
  ASSERT_TRUE(gain_extract_const(&g, c)) << story();
  EXPECT_EQ(g.bit_weight, 300);
  EXPECT_DOUBLE_EQ(g.fet_switch_time, 0.5);
  ASSERT_EQ(list_size(g.table), 4);
  ASSERT_TRUE(gain_init(&g, 2, 2)) << story();
  EXPECT_EQ(g.current.pgain, 50);
  EXPECT_DOUBLE_EQ(g.current.time_const, 2.0);
  EXPECT_STREQ(g.current.comment, "150 kHz low light");

  // A missing setting keeps the key asked for and the rest as it was, and says so.
  EXPECT_FALSE(gain_init(&g, 3, 1));
  EXPECT_EQ(g.current.pixel_rate, 3);
  EXPECT_EQ(g.current.pgain, 50);
  EXPECT_EQ(print_last(ERR_MODE_ADVICE),
            "An error has occurred. Possible causes: Errors in section GAIN_TABLE of hardware "
            "configuration file.\nIncorrect values in CCD section of ccd configuration file.\nA "
            "programmer error has occurred.\n");
  EXPECT_NE(story().find("setting (pixel rate 3, sensitivity 1) not found in the gain table"),
            std::string::npos);
  EXPECT_DEATH(gain_init(nullptr, 1, 1), "Require assertion failed at line 96 in file ginit");

  // Every shipped setting gives between about 1 and 20 electrons per level with either chip.
  for (double fegain : {1.5, 1.8}) {
    g.ccd_gain = fegain;
    for (INT32 n = 1; n <= 4; ++n) {
      HANDLE row = list_get_nth_object(g.table, n);
      gainsetting copy = *static_cast<gainsetting *>(handle_lock(row, "test"));
      handle_unlock(row, "test");
      ASSERT_TRUE(gain_electrons_per_level(&g, &copy)) << story();
      double expected = 300.0 * copy.time_const /
                        ((0.5 + copy.integr_time) * fegain * copy.pgain * copy.adc_polarity);
      EXPECT_DOUBLE_EQ(copy.electrons_per_level, expected);
      EXPECT_GT(copy.electrons_per_level, 1.0);
      EXPECT_LT(copy.electrons_per_level, 20.0);
    }
  }
}

TEST_F(Gain, ANothingResultBlamesTheFirstZeroFactor) {
  g.fet_switch_time = 0.5;
  struct Case {
    gainsetting s;
    double ccd_gain;
    INT32 bit_weight;
    const char *blamed;
  };
  const Case cases[] = {
      {{0, 1, 1, 1, 0.0, 20.0, 8.0, 0.0, nullptr}, 1.5, 300, "programmable gain is 0"},
      {{5, 1, 1, 1, 0.0, 0.0, 8.0, 0.0, nullptr}, 0.0, 300, "integration time is 0"},
      {{5, 1, 1, 1, 0.0, 20.0, 8.0, 0.0, nullptr}, 0.0, 300, "ccd gain is 0"},
      {{5, 0, 1, 1, 0.0, 20.0, 8.0, 0.0, nullptr}, 1.5, 300, "adc polarity is 0"},
      {{5, 1, 1, 1, 0.0, 20.0, 0.0, 0.0, nullptr}, 1.5, 300, "time constant is 0"},
      {{5, 1, 1, 1, 0.0, 20.0, 8.0, 0.0, nullptr}, 1.5, 0, "ADC bit weight is 0"},
  };
  for (const Case &c : cases) {
    gainsetting s = c.s;
    s.electrons_per_level = 99;
    g.ccd_gain = c.ccd_gain;
    g.bit_weight = c.bit_weight;
    EXPECT_FALSE(gain_electrons_per_level(&g, &s)) << c.blamed;
    EXPECT_EQ(s.electrons_per_level, 0.0) << "stored even when it fails";
    EXPECT_EQ(
        story().rfind(std::string(c.blamed) + ": Data supplied was out of expected range.", 0), 0u)
        << c.blamed;
  }
  gainsetting unipolar{5, -1, 1, 1, 0.0, 20.0, 8.0, 0.0, nullptr};
  g.ccd_gain = 1.5;
  g.bit_weight = 300;
  EXPECT_TRUE(gain_electrons_per_level(&g, &unipolar)) << "a negative answer is no error";
  EXPECT_LT(unipolar.electrons_per_level, 0.0);
}

TEST_F(Gain, TablesWithoutSettingsAndBrokenConstants) {
  HANDLE c = parse(
      "DEFINE \"GAIN_TABLE\" Horizontal Atleast\nGAIN_TABLE\n pixel_rate\n sensitivity\n "
      "ms_per_pixel\n integr_time\n pgain\n time_const\n adc_polarity\n comment\n"
      "DEFINE \"GAIN_CONSTANTS\" Horizontal Atleast\nGAIN_CONSTANTS\n feg = 1.5\n bit_weight = "
      "1.5\n");
  ASSERT_NE(c, nullptr) << story();
  EXPECT_TRUE(gain_extract_table(&g, c)) << story();
  EXPECT_EQ(list_size(g.table), 0);
  EXPECT_FALSE(gain_extract_const(&g, c));
  EXPECT_EQ(g.bit_weight, 0) << "a float where an integer belongs is passed over, not stored";
  EXPECT_EQ(print_last(ERR_MODE_ADVICE),
            "An error has occurred. Possible cause: Errors in section GAIN_CONSTANTS of hardware "
            "configuration file.\n");
  std::string said = story();
  EXPECT_NE(said.find("unable to extract 'fet_switch_time' from section 'GAIN_CONSTANTS'"),
            std::string::npos)
      << said;
}

}  // namespace
