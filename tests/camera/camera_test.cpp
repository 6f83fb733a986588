// The camera made over a server on the simulated controller: reading the CCD file beside the
// hardware file, initialising, its programs, and the settings checked against the chip.
#include "tvx/camera.h"
#include "config/config_support.h"

namespace {

using namespace tvx_test;

class Camera : public ConfigTest {
 protected:
  void SetUp() override {
    ConfigTest::SetUp();
    tvx_test_ports_floating(TRUE);
    tvx_test_simulator_reset();
    tvx_test_clock_virtual(1000);
    channel(REPORT_INFO)->destination = catch_report;
    server_ = server_new(shipped("sim_small.def").c_str());
    ASSERT_NE(server_, nullptr) << story();
  }
  void TearDown() override {
    camera_delete(camera_);
    server_delete(server_);
    tvx_test_simulator_reset();
    ConfigTest::TearDown();
  }
  HANDLE server_ = nullptr;
  HANDLE camera_ = nullptr;
};

TEST_F(Camera, AnyExtensionReadsTheDefinitionFileAndInitialises) {
  camera_ = camera_new(server_, shipped("sim_small.txt").c_str());
  ASSERT_NE(camera_, nullptr) << story();
  INT32 x = 0, y = 0, area[4] = {};
  ASSERT_TRUE(camera_get_ccd_size(camera_, &x, &y));
  EXPECT_EQ(x, 80);
  EXPECT_EQ(y, 64);
  ASSERT_TRUE(camera_get_active_area(camera_, area));
  EXPECT_EQ(area[2], 64);
  const char *type = nullptr, *mode = nullptr, *serial = nullptr, *reference = nullptr;
  ASSERT_TRUE(camera_get_ccd_information(camera_, &type, &mode, &serial, &reference));
  EXPECT_STREQ(serial, "SIM-S-0001");
  INT32 rate = 0, sensitivity = 0;
  ASSERT_TRUE(camera_get_gain_settings(camera_, &rate, &sensitivity));
  EXPECT_EQ(rate, 1);
  EXPECT_NE(caught().find("initialising camera..."), std::string::npos);
  // The print form tells the chip, the voltages and the programs.
  char *text = nullptr;
  size_t size = 0;
  FILE *out = open_memstream(&text, &size);
  camera_print(camera_, out);
  std::fclose(out);
  const std::string printed(text, size);
  std::free(text);
  for (const char *part :
       {"xsize 80", "voltage(20, v6_4, 6.40, 0.20)", "camprog(readout, readout.cpg)"})
    EXPECT_NE(printed.find(part), std::string::npos) << part << " in\n" << printed;

  EXPECT_EQ(camera_new(server_, (dir_ + "/none.def").c_str()), nullptr);
  EXPECT_NE(print_all(ERR_MODE_TRACEBACK).find("camera_new-> during camera allocation.\n"),
            std::string::npos);
  story();
  EXPECT_EQ(camera_new(nullptr, "x.def"), nullptr);
  EXPECT_NE(story().find("server handle is null"), std::string::npos);
}

TEST_F(Camera, SettingsAreCheckedAgainstTheChip) {
  camera_ = camera_new(server_, shipped("sim_small.def").c_str());
  ASSERT_NE(camera_, nullptr) << story();
  EXPECT_FALSE(camera_set_binning(camera_, 0, 2));
  EXPECT_NE(story().find("x binning setting of 0 is out of range (1 - 80)"), std::string::npos);
  INT32 xbin = 0, ybin = 0;
  ASSERT_TRUE(camera_get_binning(camera_, &xbin, &ybin));
  EXPECT_EQ(ybin, 2) << "the value in range is kept";
  EXPECT_FALSE(camera_set_binning(camera_, 0, 65));
  EXPECT_NE(story().find("y binning setting of 65"), std::string::npos) << "the y text wins";
  EXPECT_TRUE(camera_set_binning(camera_, 2, 2)) << story();
  EXPECT_FALSE(camera_get_binning(camera_, nullptr, &ybin));
  EXPECT_NE(story().find("invalid argmument"), std::string::npos);

  INT32 low = -1, high = -1;
  ASSERT_TRUE(camera_get_blacklevel_limits(camera_, &low, &high));
  EXPECT_EQ(low, 0);
  EXPECT_EQ(high, 65535);
  EXPECT_FALSE(camera_set_operation_mode(camera_, 4));
  EXPECT_NE(story().find("unknown camera operation mode (4)"), std::string::npos);
  EXPECT_TRUE(camera_set_operation_mode(camera_, 3));
  EXPECT_FALSE(camera_set_ccd_size(camera_, 100, 0));
  INT32 x = 0, y = 0;
  camera_get_ccd_size(camera_, &x, &y);
  EXPECT_EQ(x, 100) << "xsize is stored before ysize is checked";
  EXPECT_NE(story().find("ccd ysize less than zero"), std::string::npos);
  EXPECT_DEATH(camera_get_ccd_size(camera_, nullptr, &y), "in file getccdsz");

  double first = 0, second = 0;
  EXPECT_TRUE(camera_get_ccd_temperature(camera_, &first, &second));
  EXPECT_NEAR(first, 20.0, 0.1);
  const char *name = nullptr;
  EXPECT_TRUE(camera_get_voltage_name(camera_, 32, &name));
  EXPECT_STREQ(name, "ccdtmp1");
}

// The shipped camera verifies once its chip is cold: every voltage it reads back, the supplies,
// the thermistor line and the heat sink, lies within the VOLTAGES tolerances.
TEST_F(Camera, VerifyWantsAColdChipAndEveryVoltageInTolerance) {
  camera_ = camera_new(server_, shipped("sim_small.def").c_str());
  ASSERT_NE(camera_, nullptr) << story();
  EXPECT_FALSE(camera_verify(camera_)) << "a warm chip is not ready";
  EXPECT_NE(story().find("voltage ccdtmp1 (293."), std::string::npos);

  ASSERT_TRUE(server_set_ccd_temp(server_, -100.0)) << story();
  tvx_test_clock_advance(30000);
  EXPECT_TRUE(camera_verify(camera_)) << story();
  double chip = 0, sink = 0;
  ASSERT_TRUE(camera_get_ccd_temperature(camera_, &chip, &sink));
  EXPECT_NEAR(chip, -100.0, 1.0);
  EXPECT_GT(sink, 20.0) << "the hot side warms as the chip cools";

  voltage_request low_drain[] = {{0, 27.0, 0}};
  ASSERT_TRUE(server_set_voltages(server_, low_drain, 1)) << story();
  EXPECT_FALSE(camera_verify(camera_));
  const std::string told = story();
  EXPECT_NE(told.find("voltage vod ("), std::string::npos) << told;
  EXPECT_NE(told.find(") out of tolerance (27.50 - 28.50)"), std::string::npos) << told;
}

TEST_F(Camera, ProgramsResolveAgainstTheDefinitionDirectory) {
  camera_ = camera_new(server_, shipped("sim_small.def").c_str());
  ASSERT_NE(camera_, nullptr) << story();
  const char *resolved = nullptr;
  camera_system_filename(camera_, "x.btl", &resolved);
  EXPECT_EQ(std::string(resolved), shipped("x.btl"));
  camera_system_filename(camera_, "/x.btl", &resolved);
  EXPECT_STREQ(resolved, "/x.btl");
  camera_system_filename(camera_, "C:\\progs\\x.btl", &resolved);
  EXPECT_STREQ(resolved, "C:\\progs\\x.btl");

  ASSERT_TRUE(camera_load(camera_, "flush", "flush.cpg")) << story();
  HANDLE params = sysparams_new();
  EXPECT_TRUE(camera_execute(camera_, "flush", params)) << story();
  // A program the server does not run itself goes to the controller, which runs none.
  ASSERT_TRUE(camera_load(camera_, "bias", "bias.cpg")) << story();
  EXPECT_FALSE(camera_execute(camera_, "bias", params));
  EXPECT_NE(story().find("unable to execute program 'bias'"), std::string::npos);
  EXPECT_FALSE(camera_execute(camera_, "expose", params));
  EXPECT_NE(story().find("no entry found for 'expose' in camera program list"), std::string::npos);
  EXPECT_TRUE(camera_empty(camera_)) << story();
  EXPECT_FALSE(camera_execute(camera_, "flush", params)) << "the list was emptied";
  story();
  sysparams_delete(params);
}

}  // namespace
