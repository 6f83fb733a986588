// A server brought up against the simulated controller as a camera brings it up, the hardware
// initialised for the small chip, and every way start-up can fail leaving nothing behind.
#include <sys/stat.h>

#include "server/readout_support.h"
#include "sim/slot.h"

namespace {

using namespace tvx_test;

class Startup : public ReadoutTest {
 protected:
  // The shipped files copied to the test's directory, with `spoil` damaged half way through and
  // the simulated camera told to show `fault`.
  std::string copy(const std::string &spoil, const std::string &fault = "none") {
    const std::string sub = spoil + fault;
    mkdir((dir_ + "/" + sub).c_str(), 0755);
    for (const char *name :
         {"7100hw.def", "atlinit.btm", "install.btl", "procinit", "camera.r2h"}) {
      std::string text = read_text(shipped(name));
      if (spoil == name) text[text.size() / 2] ^= 0x5A;
      if (std::string(name) == "7100hw.def")
        text.replace(text.find("    fault = none"), 16, "    fault = " + fault);
      this->file(sub + "/" + name, text);
    }
    return dir_ + "/" + sub + "/camera.def";
  }
  // Control codes the controller took since `from`, leaving out the probes (control 1) that
  // precede the commands.
  std::vector<int> controls_since(size_t from) {
    const auto &all = controller().controls();
    std::vector<int> taken;
    for (size_t i = from; i < all.size(); ++i)
      if (all[i] != 1) taken.push_back(all[i]);
    return taken;
  }
  // The server started as a camera starts it, on the shipped files.
  HANDLE boot() { return server_ = server_new(shipped("sim_small.def").c_str()); }
};

TEST_F(Startup, BootsInstallsAndInitialisesTheSimulatedCamera) {
  ASSERT_NE(boot(), nullptr) << story();
  EXPECT_EQ(tvx::sim::card_at(kSimBase)->distant().speed(), 20) << "the controller's end";
  EXPECT_EQ(tvx::sim::speed_of(tvx::sim::card_at(kSimBase)->control()), 20) << "the card's end";
  // Another setting changed on the running camera leaves its link at that speed: the commands
  // below still go through.
  ASSERT_TRUE(tvx_test_simulator_set(TVX_SIM_DROP_AFTER, 0));
  EXPECT_EQ(tvx::sim::card_at(kSimBase)->distant().speed(), 20);
  EXPECT_EQ(controller().installed(), (std::vector<std::string>{"procinit", "camera"}));
  for (const char *label : {"Booting", "Install", "Linkspeed", "Hardware responding..."})
    EXPECT_NE(caught().find(label), std::string::npos) << label;

  HANDLE c = parse_shipped("sim_small.def");
  ASSERT_TRUE(volts_extract(&volts_, c) && ccd_extract(&chip_, c)) << story();
  EXPECT_FALSE(server_hwinit(server_, &volts_, nullptr));
  EXPECT_NE(story().find("no ccd description given"), std::string::npos);
  const size_t before = controller().controls().size();
  ASSERT_TRUE(server_hwinit(server_, &volts_, &chip_)) << story();
  // The fixed sequence, as the controller took it.
  EXPECT_EQ(controls_since(before),
            (std::vector<int>{39, 16, 53, 49, 21, 44, 22, 40, 42, 59, 41, 47, 29, 2, 50}));
  EXPECT_EQ(controller().state().ccd_width, 80);
  EXPECT_EQ(controller().state().configured_voltages.size(), 17u);
  EXPECT_EQ(controller().state().configured_voltages[0], 2800) << "vod, in hundredths";
  EXPECT_TRUE(controller().complaints().empty());

  const size_t gained = controller().controls().size();
  ASSERT_TRUE(server_set_gain(server_, 2, 1, 1.5)) << story();
  EXPECT_EQ(controls_since(gained), (std::vector<int>{12, 11, 13, 15}));
  double electrons = 0, peak = 0;
  ASSERT_TRUE(server_get_electrons_per_level(server_, 2, 1, &electrons));
  EXPECT_NEAR(electrons, 300.0 * 2.0 / ((0.5 + 4.0) * 1.5 * 5), 1e-9);
  ASSERT_TRUE(server_get_peak_signal(server_, 2, 1, &peak));
  EXPECT_NEAR(peak, electrons * 65535.0, 1e-6);
  double ms = 0;
  INT32 valid = -1;
  EXPECT_TRUE(server_get_gain_table(server_, &ms, &electrons, &valid, 5));
  EXPECT_EQ(valid, 0) << "no fifth setting";
}

TEST_F(Startup, VoltagesFollowTheirAccessAndTemperaturesReadInCelsius) {
  ASSERT_NE(boot(), nullptr) << story();
  voltage_request set[] = {{0, 27.5, 0}, {32, 100.0, 0}, {17, 1.0, 0}};
  const size_t before = controller().controls().size();
  ASSERT_TRUE(server_set_voltages(server_, set, 3)) << story();
  EXPECT_EQ(controls_since(before), (std::vector<int>{5, 5})) << "the read-only id is not sent";
  voltage_request get[] = {{0, 0, 1}, {17, -1.0, 0}, {26, 0, 0}};
  ASSERT_TRUE(server_get_voltages(server_, get, 3)) << story();
  EXPECT_NEAR(get[0].value, 27.5, 0.03);
  EXPECT_EQ(get[0].busy, 0);
  EXPECT_EQ(get[1].value, -1.0) << "a write-only voltage is left as it was";
  EXPECT_NEAR(get[2].value, 5.0, 0.03) << "the +5 V supply";
  double first = 0, second = 0;
  ASSERT_TRUE(server_get_ccd_temperature(server_, &first, &second));
  EXPECT_NEAR(first, 20.0, 0.05) << "ambient before the cooler is set";
  EXPECT_GT(second, first);
  // The state vector follows what was set: a droop and an offset, then an open shutter.
  ASSERT_TRUE(server_verify(server_)) << story();
  ASSERT_TRUE(server_set_droop(server_) && server_set_offset(server_) &&
              server_open_shutter(server_));
  EXPECT_TRUE(server_verify(server_)) << story();
  EXPECT_TRUE(controller().state().offset_set);
}

TEST_F(Startup, TheTemperatureWaitWatchesTheCoolerSettle) {
  ASSERT_NE(boot(), nullptr) << story();
  ASSERT_TRUE(server_set_ccd_temp(server_, -100.0));
  const DWORD start = time_centiseconds();
  ASSERT_TRUE(server_wait_ccd_temperature(server_)) << story();
  const DWORD waited = time_centiseconds() - start;
  double t = 0, other = 0;
  ASSERT_TRUE(server_get_ccd_temperature(server_, &t, &other));
  EXPECT_NEAR(t, -100.0, 1.0) << "settled near the set point";
  EXPECT_GT(waited, 18000u) << "three minutes of stability after the cooling";
  // Settled once and still near it: the next wait returns at once.
  const DWORD again = time_centiseconds();
  ASSERT_TRUE(server_wait_ccd_temperature(server_));
  EXPECT_LT(time_centiseconds() - again, 100u);

  // A failing cooler never settles: the wait gives up on its bound.
  tvx_test_cooler_drift(4.0);
  ASSERT_TRUE(server_set_ccd_temp(server_, -100.0));
  delay_seconds(120);
  EXPECT_FALSE(server_wait_ccd_temperature(server_));
  EXPECT_NE(print_last(ERR_MODE_BRIEF).find("ccd temperature did not settle within 30 minutes"),
            std::string::npos)
      << print_last(ERR_MODE_TRACEBACK);
}

TEST_F(Startup, EachStepThatFailsLeavesNothingBehind) {
  struct Failure {
    const char *what;
    std::string file;
    const char *found;    // in the chain
    const char *stopped;  // the first start-up label that was not reached
  };
  const Failure failures[] = {
      {"no card", copy("", "card_absent"), "local transputer in error", "Booting"},
      {"camera off", copy("", "power_off"), "unable to output (Transmit Fifo Full)", "Booting"},
      {"speed mismatch", copy("", "linkspeed_mismatch"), "hardware not responding", "Booting"},
      {"corrupt boot file", copy("install.btl"), "hardware not responding", "Booting"},
      {"corrupt install file", copy("camera.r2h"), "hardware not responding", "Install"},
  };
  for (const Failure &f : failures) {
    tvx_test_simulator_reset();
    caught().clear();
    EXPECT_EQ(server_new(f.file.c_str()), nullptr) << f.what;
    const std::string all = print_all(ERR_MODE_TRACEBACK);
    EXPECT_EQ(all.rfind("server_new-> during server allocation.\nserver_initialise-> .\n", 0), 0u)
        << f.what << "\n"
        << all;
    EXPECT_NE(all.find(f.found), std::string::npos) << f.what << "\n" << all;
    EXPECT_EQ(caught().find(f.stopped), std::string::npos) << f.what;
    story();
  }
}

TEST_F(Startup, ProgramsAreLoadedUnderStableIdsAndRunByName) {
  ASSERT_NE(boot(), nullptr) << story();
  ASSERT_TRUE(server_load(server_, "flush", "flush.cpg")) << story();
  ASSERT_TRUE(server_load(server_, "flush", "flush.cpg")) << story();
  EXPECT_EQ(camprog_make_id("flush"), camprog_make_id("flush"));
  EXPECT_LT(camprog_make_id("flush"), SERVER_ADHOC_PROGRAM);
  HANDLE params = sysparams_new();
  size_t before = controller().controls().size();
  EXPECT_TRUE(server_execute(server_, "shutter", params)) << story();
  EXPECT_TRUE(controls_since(before).empty()) << "no exposure time, nothing sent";
  EXPECT_TRUE(server_execute(server_, "C:\\cam\\flush.cpg", params)) << story();
  EXPECT_EQ(controls_since(before), (std::vector<int>{20}));
  EXPECT_FALSE(server_execute(server_, "readout", params));
  EXPECT_NE(story().find("unable to execute program 'readout' (readout)"), std::string::npos);
  // A server that cannot make a new program list keeps the programs it had.
  tvx_test_fail_allocation(1, FALSE);
  EXPECT_FALSE(server_empty(server_));
  EXPECT_NE(story().find("Cannot allocate memory"), std::string::npos);
  INT32 id = 0;
  tvx::server::Locked r(server_, "test");
  EXPECT_TRUE(camprogs_get_pid(r->programs, "flush", &id)) << story();
  sysparams_delete(params);
}

}  // namespace
