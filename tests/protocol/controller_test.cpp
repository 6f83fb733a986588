// The command set against the simulated controller, as a server brings it up: boot over the
// simulated card, install the shipped programs, switch both ends of the link to 20 Mbit/s, then
// every command of the table; and the controller's faults as the library reports them.
#include <algorithm>

#include "link/link_support.h"
#include "sim/camera_server.h"
#include "sim/slot.h"
#include "tvx/cs71.h"
#include "tvx/csp.h"

namespace {

using namespace tvx_test;
using tvx::sim::CameraServer;

constexpr WORD kBase = 0x250;

// The causes a command adds come last, after those of the fault beneath it.
bool ends_with(const std::vector<INT32> &all, const std::vector<INT32> &tail) {
  if (tail.empty()) return all.empty();
  return all.size() >= tail.size() && std::equal(tail.rbegin(), tail.rend(), all.rbegin());
}

class Controller : public LinkTest {
 protected:
  void SetUp() override {
    LinkTest::SetUp();
    channel(REPORT_INFO)->destination = catch_report;
  }
  void TearDown() override {
    cs71_delete(controller_);
    csp_delete(packets_);
    atlink_delete(link_);
    LinkTest::TearDown();
  }
  // A server's start-up up to the installation: the adapter at link speed 5, the boot, the
  // packet and controller objects, and the first probe.
  void boot() {
    link_ = atlink_new(100, "simulator", kBase);
    ASSERT_NE(link_, nullptr);
    ASSERT_TRUE(atlink_disable_interrupts(link_) && atlink_linkspeed(link_, 5));
    ASSERT_TRUE(
        atlink_boot(link_, data_file("atlinit.btm").c_str(), data_file("install.btl").c_str()))
        << last_text();
    delay_centiseconds(50);
    packets_ = csp_new(link_, -1, atlink_read_INT16, atlink_read_INT16_array, atlink_write_INT16,
                       atlink_write_INT16_array);
    controller_ = cs71_new(1, packets_);
    ASSERT_NE(controller_, nullptr);
    ASSERT_TRUE(cs71_responding(controller_)) << last_text();
  }
  void bring_up() {
    boot();
    ASSERT_TRUE(
        cs71_install(controller_, data_file("procinit").c_str(), data_file("camera.r2h").c_str()))
        << last_text();
    delay_centiseconds(50);
    ASSERT_TRUE(cs71_responding(controller_)) << last_text();
    ASSERT_TRUE(cs71_set_linkspeed(controller_, 20)) << last_text();
    delay_centiseconds(100);
    ASSERT_TRUE(atlink_linkspeed(link_, 20));
    ASSERT_TRUE(cs71_responding(controller_)) << last_text();
  }
  CameraServer &sim() { return *tvx::sim::camera_server_at(kBase); }

  HANDLE link_ = nullptr, packets_ = nullptr, controller_ = nullptr;
};

TEST_F(Controller, EveryCommandAfterBootInstallAndLinkSpeed) {
  bring_up();
  EXPECT_EQ(sim().installed(), (std::vector<std::string>{"procinit", "camera"}));
  EXPECT_EQ(tvx::sim::card_at(kBase)->distant().speed(), 20);
  HANDLE c = controller_;

  caught().clear();
  ASSERT_TRUE(cs71_hwinit(c, 1200)) << last_text();
  EXPECT_EQ(caught(), ".1*.2*.3*.4*.5*.6*.7*.8*.9*.10*");
  ASSERT_TRUE(cs71_set_blacklevel(c, 900)) << last_text();
  ASSERT_TRUE(cs71_set_noise_trim(c)) << last_text();

  const double volts[17] = {20.5, -1.25};
  const INT16 registers[3] = {7, 8, 9}, timing_a[2] = {10, 11}, timing_b[2] = {12, 13};
  const INT32 widths[4] = {20, 30, 40, 50};
  HANDLE sequence = list_new();
  for (uintptr_t entry : {uintptr_t{2 << 4 | 0}, uintptr_t{100000u << 4 | 2}})
    list_append_tail(sequence, reinterpret_cast<HANDLE>(entry));
  bool ok = cs71_configure_voltages(c, volts, 17) && cs71_configure_registers(c, registers, 3) &&
            cs71_adc_auxiliary(c, 3) && cs71_shutter_pulse_widths(c, widths) &&
            cs71_set_concurrent(c, 1) && cs71_set_ccd_size(c, 1024, 512) &&
            cs71_set_acdc_coupling(c, 1) && cs71_set_binning(c, 2, 3) && cs71_set_adc_mode(c, 17) &&
            cs71_set_serial_mode(c, 5) && cs71_set_parallel_transfers(c, 520) &&
            cs71_set_parallel_mode(c, 2) && cs71_set_parallel_timing(c, timing_a, timing_b, 2) &&
            cs71_dummy_load(c, 1) && cs71_set_voltage(c, 6, -9.5) && cs71_set_droop(c) &&
            cs71_set_offset(c) && cs71_set_vss(c, 4.5, -4.5) && cs71_set_pgain(c, 50) &&
            cs71_set_time_const(c, 6) && cs71_set_integr_time(c, 2.5) && cs71_adc_calibrate(c) &&
            cs71_adc_polarity(c, 1) && cs71_set_region(c, 0, 8, 16, 100, 50) &&
            cs71_record_ccd_row(c) && cs71_ccd_flush(c, 1) && cs71_open_shutter(c) &&
            cs71_close_shutter(c) && cs71_break_ground(c, 1) && cs71_rstclk_feed_through(c, 1) &&
            cs71_write_userport(c, 0x55) && cs71_write_iospace(c, 39, -3) &&
            cs71_set_ccd_temp(c, -100.0) && cs71_read_fifo(c) && cs71_set_ccd_rdseq(c, sequence) &&
            cs71_reverse_clocks(c, 1, 2) && cs71_set_ccd_read(c, 3, 16000) &&
            cs71_set_parallel_multiplier(c, 32000) && cs71_n_parallel_transfers(c, 4) &&
            cs71_set_shuffle_mode(c, 4, 5, 100000) && cs71_ccd_expose(c, 2500);
  list_delete(sequence, nullptr);
  ASSERT_TRUE(ok) << last_text();

  INT16 adc = 0, voltage = 0, port = 0, ios = 0, k1 = 0, k2 = 0, k3 = 0;
  ASSERT_TRUE(cs71_read_adc(c, 17, &adc) && cs71_get_voltage(c, 6, &voltage) &&
              cs71_read_userport(c, &port) && cs71_read_iospace(c, 39, &ios) &&
              cs71_adc_constants(c, &k1, &k2, &k3) && cs71_check_state_vector(c))
      << last_text();
  EXPECT_EQ(adc, 1025);
  EXPECT_NEAR(voltage, -950, 2) << "a set voltage reads back within a few hundredths";
  EXPECT_EQ(port, 0x55);
  EXPECT_EQ(ios, -3);
  EXPECT_EQ(std::vector<INT16>({k1, k2, k3}), std::vector<INT16>({12, -7, 3}));

  // The commands that await nothing, each followed by what a caller reads next.
  // A started read streams pixels: a stop ends it, and a FIFO reset drops what was already sent.
  ASSERT_TRUE(cs71_start_ccd_read(c) && cs71_stop(c) && atlink_fifo_reset(link_)) << last_text();
  ASSERT_TRUE(cs71_start_ccd_rdseq(c) && cs71_stop(c) && atlink_fifo_reset(link_)) << last_text();
  ASSERT_TRUE(cs71_test1(c) && cs71_test2(c) && cs71_responding(c));

  const auto &s = sim().state();
  EXPECT_EQ(s.configured_voltages.size(), 17u);
  EXPECT_EQ(s.configured_voltages[1], -125);
  EXPECT_EQ(s.registers, (std::vector<int16_t>{7, 8, 9}));
  EXPECT_EQ(s.parallel_timing, (std::vector<int16_t>{10, 11, 12, 13}));
  EXPECT_EQ(s.read_sequence, (std::vector<uint32_t>{2 << 4, 100000u << 4 | 2}));
  EXPECT_EQ(s.shutter_widths[3], 50);
  EXPECT_TRUE(s.concurrent && s.dummy_detector && s.break_ground && s.rstclk_feed_through);
  EXPECT_EQ(std::vector<int>({s.ccd_width, s.ccd_height, s.xbin, s.ybin}),
            std::vector<int>({1024, 512, 2, 3}));
  EXPECT_EQ(std::vector<int>({s.region.x, s.region.y, s.region.width, s.region.height}),
            std::vector<int>({8, 16, 100, 50}));
  EXPECT_EQ(std::vector<int>({s.pgain_code, s.time_constant_code, s.integration_tenths}),
            std::vector<int>({1, 2, 25}));
  EXPECT_EQ(std::vector<int>({s.vss_readout, s.vss_flush, s.blacklevel, s.adc_mode}),
            std::vector<int>({450, -450, 900, 17}));
  EXPECT_EQ(s.frames, 3);
  EXPECT_EQ(s.frame_delay, 16000);
  EXPECT_EQ(s.shuffle_ms, 100000);
  EXPECT_EQ(s.last_exposure_ms, 2500);
  EXPECT_TRUE(s.initialised && s.noise_trimmed && s.droop_set && s.offset_set && s.adc_calibrated &&
              s.temperature_set && !s.shutter_open);
  EXPECT_TRUE(sim().complaints().empty()) << sim().complaints().front();

  // The recorder holds what was done; playing it back shows it, and emptying it clears it.
  caught().clear();
  ASSERT_TRUE(cs71_playback(c)) << last_text();
  EXPECT_HAS(caught(), "recorder[link speed 20\nhwinit 1200\nblacklevel 900\n");
  EXPECT_HAS(caught(), "pgain 1\n");
  ASSERT_TRUE(cs71_empty(c));
  caught().clear();
  ASSERT_TRUE(cs71_playback(c));
  EXPECT_EQ(caught(), "INFO: recorder[]\n");
}

TEST_F(Controller, ExposureCompletesWhenTheClockSaysSo) {
  bring_up();
  // Read the completion too early and there is none: the controller is still exposing.
  ASSERT_TRUE(csp_set_msg_param(packets_, 0, 5000) && csp_set_msg_param(packets_, 1, 0));
  ASSERT_TRUE(csp_message_out(packets_, 1, 23, 2));
  EXPECT_FALSE(cs71_wait_complete(controller_, 0, 0));
  err_reset_all(stack());
  delay_centiseconds(500);
  EXPECT_TRUE(cs71_wait_complete(controller_, 0, 0)) << last_text();
}

TEST_F(Controller, FaultsSurfaceWithTheirTexts) {
  bring_up();
  // The last cause each failure carries, and the one before it where there are two.
  struct Case {
    INT32 fault, control;
    const char *text, *failure;
    INT32 cause, beneath;
    BOOL (*command)(HANDLE);
  };
  static INT16 value;
  const Case cases[] = {
      {TVX_CTL_NO_REPLY, 11, "failed to complete", "set programmble gain failed", 0x300B, 0,
       [](HANDLE c) { return cs71_set_pgain(c, 5); }},
      {TVX_CTL_NO_REPLY, 1, "hardware not responding", "read fifo failed", 0x3008, 0x300B,
       [](HANDLE c) { return cs71_read_fifo(c); }},
      {TVX_CTL_WRONG_CONTROL, 22, "unexpected csp control (expected 100, actual 99)",
       "set ccd binning failed", 0x300B, 0, [](HANDLE c) { return cs71_set_binning(c, 1, 1); }},
      {TVX_CTL_WRONG_DESTINATION, 6, "invalid csp destination (expected -1, actual 7)",
       "set droop failed", 0x300B, 0, [](HANDLE c) { return cs71_set_droop(c); }},
      {TVX_CTL_WRONG_COUNT, 33, "invalid number of csp parameters (bounds (1, 1), actual 2)",
       "read user port failed", 0x300B, 0, [](HANDLE c) { return cs71_read_userport(c, &value); }},
      {TVX_CTL_STALL_AT_STAGE_9, 2, "hardware inactive at stage 9",
       "hardware initialization failed", 0x2006, 0, [](HANDLE c) { return cs71_hwinit(c, 0); }},
      {TVX_CTL_BAD_STATE_VECTOR, 54, "Droop1 failed, Offset failed, Shutter hold data invalid",
       "check state vector failed", 0, 0, [](HANDLE c) { return cs71_check_state_vector(c); }},
      // Progress without end: each stage may last as long as the adapter waits for a reply.
      {TVX_CTL_ENDLESS_PROGRESS, 2, "still at stage 10 after 100 centiseconds.",
       "hardware initialization failed", 0x300B, 0, [](HANDLE c) { return cs71_hwinit(c, 0); }},
      {TVX_CTL_ENDLESS_PROGRESS, 8, "still at stage 4 after 100 centiseconds.",
       "set blacklevel failed", 0x300B, 0, [](HANDLE c) { return cs71_set_blacklevel(c, 900); }},
      {TVX_CTL_ENDLESS_PROGRESS, 9, "still at stage 3 after 100 centiseconds.",
       "set noise trim failed", 0x300B, 0, [](HANDLE c) { return cs71_set_noise_trim(c); }},
  };
  for (const Case &k : cases) {
    ASSERT_TRUE(tvx_test_controller_fault(k.fault, k.control));
    EXPECT_FALSE(k.command(controller_));
    EXPECT_HAS(last_text(), k.text);
    EXPECT_HAS(last_text(), k.failure);
    std::vector<INT32> tail;
    for (INT32 cause : {k.beneath, k.cause})
      if (cause != 0) tail.push_back(cause);
    EXPECT_TRUE(ends_with(last_causes(), tail)) << k.text;
    err_reset_all(stack());
    // Cleared, the controller answers again on the same link.
    ASSERT_TRUE(tvx_test_controller_fault(TVX_CTL_FAULT_NONE, 0));
    EXPECT_TRUE(cs71_responding(controller_)) << last_text();
  }
  EXPECT_FALSE(tvx_test_controller_fault(9, 0));
  EXPECT_HAS(last_text(), "unknown controller fault 9.");
}

TEST_F(Controller, ProgramsMustBeInstalledAndSound) {
  boot();
  // Before the camera program is in, the camera's commands go unanswered.
  EXPECT_FALSE(cs71_set_pgain(controller_, 5));
  EXPECT_EQ(sim().complaints().back(), "control 11 before the camera program is installed");
  err_reset_all(stack());

  // A corrupt program stops the controller: the next probe finds it silent.
  std::vector<uint8_t> bytes = slurp(data_file("camera.r2h"));
  bytes[bytes.size() / 2] ^= 0x40;
  const std::string bad = craft("camera.r2h", bytes);
  ASSERT_TRUE(cs71_install(controller_, data_file("procinit").c_str(), bad.c_str()));
  EXPECT_EQ(sim().installed(), std::vector<std::string>{"procinit"});
  EXPECT_FALSE(cs71_responding(controller_));
  EXPECT_HAS(last_text(), "hardware not responding");
  EXPECT_TRUE(ends_with(last_causes(), {0x300B, 0x3008}));
}

TEST_F(Controller, OnlyTheControllerSwitchedLeavesTheLinkDeaf) {
  bring_up();
  ASSERT_TRUE(cs71_set_linkspeed(controller_, 10));
  EXPECT_FALSE(cs71_responding(controller_));
  EXPECT_HAS(last_text(), "hardware not responding");
  err_reset_all(stack());
  ASSERT_TRUE(atlink_linkspeed(link_, 10));
  EXPECT_TRUE(cs71_responding(controller_)) << last_text();
}

}  // namespace
