// Controller commands on an in-memory wire: what each kind of argument becomes on the wire, the
// messages of refused arguments (which never reach the wire), the progress loop, the state
// vector, the recorder playback and the chunking of an installation.
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "protocol/protocol_support.h"

namespace {

using namespace tvx_test;
using Command = BOOL (*)(HANDLE);

class Commands : public WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    channel(REPORT_INFO)->destination = catch_report;
    report_set_prefix(channel(REPORT_INFO), "INFO: ");
  }
  void TearDown() override {
    for (const auto &f : files_) std::remove(f.c_str());
    WireTest::TearDown();
  }
  // Runs a command against a controller that answers its probes and its completion.
  std::vector<INT16> sent_by(Command command, int probes = 1) {
    wire_.sent.clear();
    for (int i = 0; i < probes; ++i) wire_.complete();
    wire_.complete();
    EXPECT_TRUE(command(controller_)) << last_text();
    return wire_.sent;
  }
  std::string made(const std::string &name, size_t bytes) {
    std::string path = ::testing::TempDir() + "tvx_" + std::to_string(getpid()) + "_" + name;
    std::ofstream(path, std::ios::binary) << std::string(bytes, 'x');
    files_.push_back(path);
    return path;
  }
  // A command that reports progress leaves the channel's prefix as it found it.
  static std::string prefix() {
    const char *text = nullptr;
    return *report_get_prefix(channel(REPORT_INFO), &text);
  }
  std::vector<std::string> files_;
};

// Gains and time constants go as codes, volts in hundredths and times in tenths (truncated), the
// region in argument order, the shuffle's duration low word first, pulse widths in their low 16
// bits, and both parallel timing tables one after the other (an empty pair as no parameters).
TEST_F(Commands, ArgumentsAreMappedToTheControllersWords) {
  static const INT32 widths[4] = {1, 2, 65536 + 3, 40000};
  static const INT16 timing_a[2] = {1, 2}, timing_b[2] = {3, 4};
  const std::pair<std::vector<INT16>, Command> cases[] = {
      {packet(11, {1}), [](HANDLE c) { return cs71_set_pgain(c, 50); }},
      {packet(11, {0}), [](HANDLE c) { return cs71_set_pgain(c, 5); }},
      {packet(12, {3}), [](HANDLE c) { return cs71_set_time_const(c, 8); }},
      {packet(10, {1280, -1280}), [](HANDLE c) { return cs71_set_vss(c, 12.8, -12.8); }},
      {packet(13, {256}), [](HANDLE c) { return cs71_set_integr_time(c, 25.6); }},
      {packet(5, {3, -123}), [](HANDLE c) { return cs71_set_voltage(c, 3, -1.239); }},
      {packet(17, {2, 10, 20, 30, 40}),
       [](HANDLE c) { return cs71_set_region(c, 2, 10, 20, 30, 40); }},
      {packet(63, {7, -8, 4464, 1}),
       [](HANDLE c) { return cs71_set_shuffle_mode(c, 7, -8, 70000); }},
      {packet(53, {1, 2, 3, static_cast<INT16>(40000)}),
       [](HANDLE c) { return cs71_shutter_pulse_widths(c, widths); }},
      {packet(47, {1, 2, 3, 4}),
       [](HANDLE c) { return cs71_set_parallel_timing(c, timing_a, timing_b, 2); }},
      // An empty table may come without arrays; nothing is copied from them.
      {packet(47, {}), [](HANDLE c) { return cs71_set_parallel_timing(c, nullptr, nullptr, 0); }},
  };
  for (const auto &c : cases) EXPECT_EQ(sent_by(c.second), join({probe(), c.first}));
  // One more probe before a read is set up.
  EXPECT_EQ(sent_by([](HANDLE c) { return cs71_set_ccd_read(c, 3, 5); }, 2),
            join({probe(), probe(), packet(58, {3, 0, 5})}));
  // The link speed goes alone and nothing is awaited: the link is about to change speed.
  wire_.sent.clear();
  EXPECT_TRUE(cs71_set_linkspeed(controller_, 20));
  EXPECT_EQ(wire_.sent, packet(43, {20}));
}

TEST_F(Commands, ReadsHandBackTheReplysParameters) {
  INT16 value = 0, a = 0, b = 0, c = 0;
  wire_.complete();
  wire_.complete({1234});
  ASSERT_TRUE(cs71_get_voltage(controller_, 35, &value));
  EXPECT_EQ(value, 1234);
  wire_.complete();
  wire_.complete({12, -7, 3});
  ASSERT_TRUE(cs71_adc_constants(controller_, &a, &b, &c));
  EXPECT_EQ(std::vector<INT16>({a, b, c}), std::vector<INT16>({12, -7, 3}));
  // A reply of the wrong size is a failure of the command, with the command's text.
  wire_.complete();
  wire_.complete({1, 2});
  EXPECT_FALSE(cs71_read_userport(controller_, &value));
  EXPECT_HAS(last_text(), "bounds (1, 1), actual 2");
  EXPECT_HAS(last_text(), "cs71_read_userport-> read user port failed");
}

// Each refusal carries the argument check's cause; the blacklevel's range check adds its own.
TEST_F(Commands, RefusedArgumentsNeverReachTheWire) {
  struct Case {
    const char *message, *failure;
    INT32 own_cause;
    Command command;
  };
  const Case cases[] = {
      {"invalid pgain (10): expected 5 or 50", "cs71_set_pgain-> set programmble gain failed", 0,
       [](HANDLE c) { return cs71_set_pgain(c, 10); }},
      {"invalid readout voltage (12.81): expected -12.80 to 12.80", "set vss failed", 0,
       [](HANDLE c) { return cs71_set_vss(c, 12.81, 0); }},
      {"invalid linkspeed (15): expected 5, 10, or 20", "set link speed failed.", 0,
       [](HANDLE c) { return cs71_set_linkspeed(c, 15); }},
      {"invalid blacklevel (65536): expected 0 to 65535", "set blacklevel failed", 0x2015,
       [](HANDLE c) { return cs71_set_blacklevel(c, 65536); }},
      {"invalid exposure duration (0): expected 1 to 2147483646", "ccd expose failed", 0,
       [](HANDLE c) { return cs71_ccd_expose(c, 0); }},
      {"invalid region y point (32000): expected 0 to 31999", "set region failed", 0,
       [](HANDLE c) { return cs71_set_region(c, 0, 0, 32000, 1, 1); }},
      {"invalid integration time (0.05): expected 0.10 to 25.60", "set integration time failed", 0,
       [](HANDLE c) { return cs71_set_integr_time(c, 0.05); }},
      {"invalid vector size (198): expected 0 to 197", "set parallel timing failed", 0,
       [](HANDLE c) {
         static const INT16 t[99] = {};
         return cs71_set_parallel_timing(c, t, t, 99);
       }},
  };
  for (const Case &c : cases) {
    EXPECT_FALSE(c.command(controller_));
    EXPECT_HAS(last_text(), c.message);
    EXPECT_HAS(last_text(), c.failure);
    const std::vector<INT32> expected =
        c.own_cause ? std::vector<INT32>{c.own_cause, 0x1040} : std::vector<INT32>{0x1040};
    EXPECT_EQ(last_causes(), expected) << c.message;
    EXPECT_TRUE(wire_.sent.empty()) << c.message;
    err_reset_all(stack());
  }
  INT16 code = 0;
  const INT16 from[2] = {5, 50}, to[2] = {0, 1};
  EXPECT_FALSE(map_i16_to(7, from, to, 2, &code));
  EXPECT_HAS(last_text(), "map value, v, not in vfrom set");
  EXPECT_EQ(last_causes(), std::vector<INT32>{0x1040});
}

TEST_F(Commands, ExposureSleepsOnTheHostBeforeItsCompletion) {
  wire_.complete();
  const DWORD start = time_centiseconds();
  ASSERT_TRUE(cs71_ccd_expose(controller_, 1000));
  EXPECT_EQ(wire_.sent, packet(23, {1000, 0})) << "no probe";
  EXPECT_GE(time_centiseconds() - start, 101u);
}

TEST_F(Commands, ProgressIsReportedUntilCompletion) {
  wire_.reply(102, {1});
  wire_.reply(101, {'*'});
  wire_.reply(102, {2});
  wire_.reply(101, {});
  wire_.complete();
  ASSERT_TRUE(cs71_hwinit(controller_, 100)) << last_text();
  EXPECT_EQ(wire_.sent, packet(2, {100}));
  EXPECT_EQ(caught(), ".1*.2");
  EXPECT_EQ(prefix(), "INFO: ");

  // A controller that falls silent after stage 9 points at the camera head.
  for (INT16 stage = 1; stage <= 9; ++stage) wire_.reply(102, {stage});
  EXPECT_FALSE(cs71_hwinit(controller_, 100));
  EXPECT_HAS(last_text(), "hardware inactive at stage 9");
  EXPECT_HAS(last_text(), "hardware initialization failed");
  EXPECT_EQ(last_causes(), std::vector<INT32>{0x2006});
  EXPECT_EQ(prefix(), "INFO: ");
  err_reset_all(stack());

  wire_.reply(102, {3});
  EXPECT_FALSE(cs71_set_noise_trim(controller_));
  EXPECT_HAS(last_text(), "hardware inactive at stage 3");
  EXPECT_TRUE(last_causes().empty());
  err_reset_all(stack());

  wire_.reply(7);
  EXPECT_FALSE(cs71_set_blacklevel(controller_, 5));
  EXPECT_HAS(last_text(), "unexpected csp control (expected 100, actual 7)");
  EXPECT_EQ(prefix(), "INFO: ");
}

TEST_F(Commands, StateVectorFaultsAreJoinedInOneMessage) {
  wire_.complete();
  wire_.complete({0, 1, 1, 1, 1, 1, 1, 255, 1, 1, 1, 1, 1, 1, 1, 0});
  EXPECT_FALSE(cs71_check_state_vector(controller_));
  EXPECT_HAS(
      last_text(),
      "cs71_check_state_vector-> check state vector failed.\n"
      "cs71_check_state_vector-> Droop1 failed, Offset failed, Shutter hold data invalid.\n");
  err_reset_all(stack());
  wire_.complete();
  wire_.complete({0, 1, 1, 1, 0, 1, 1, 255, 1, 1, 1, 1, 1, 1, 1, 0});
  EXPECT_FALSE(cs71_check_state_vector(controller_));
  EXPECT_HAS(last_text(), "-> Droop1 failed, Shutter hold data invalid.\n");
  err_reset_all(stack());
  wire_.complete();
  wire_.complete({128, 0, 0, 0, 1, 0, 0, 40, 0, 0, 0, 0, 0, 0, 0, 1});
  EXPECT_TRUE(cs71_check_state_vector(controller_)) << last_text();
}

// The recorder's text comes in replies of at most 197 characters, until an empty one.
TEST_F(Commands, PlaybackShowsTheRecorderText) {
  const std::string text = std::string(300, 'r') + "end";
  for (size_t at = 0; at < text.size(); at += 197) {
    wire_.complete();
    std::vector<INT16> chunk(text.begin() + at, text.begin() + std::min(text.size(), at + 197));
    wire_.incoming.insert(wire_.incoming.end(), {INT16(3 + chunk.size()), -1, 1, 100});
    wire_.incoming.insert(wire_.incoming.end(), chunk.begin(), chunk.end());
  }
  wire_.complete();
  wire_.complete();
  ASSERT_TRUE(cs71_playback(controller_)) << last_text();
  EXPECT_EQ(caught(), "INFO: recorder[" + text + "]\n");
  EXPECT_EQ(prefix(), "INFO: ");
}

TEST_F(Commands, InstallationGoesInChunksOf197Bytes) {
  const std::string first = made("a", 400), second = made("b", 0);
  wire_.complete();
  ASSERT_TRUE(cs71_install(controller_, first.c_str(), second.c_str())) << last_text();
  std::vector<INT16> expected = join({probe(), packet(46)});
  for (size_t size : {197, 197, 6}) {
    expected.insert(expected.end(), {static_cast<INT16>(3 + size), 1, -1, 46});
    expected.insert(expected.end(), size, 'x');
  }
  expected.insert(expected.end(), {3, 1, -1, 46});
  EXPECT_EQ(wire_.sent, expected);

  wire_.sent.clear();
  EXPECT_FALSE(cs71_install_file(controller_, "/nonexistent/procinit"));
  EXPECT_HAS(last_text(), "install file '/nonexistent/procinit'.");
  EXPECT_EQ((*stack())->category, ERR_OS);
  EXPECT_EQ((*stack())->code, ENOENT);
  EXPECT_TRUE(wire_.sent.empty());
  err_reset_all(stack());

  wire_.refuse_writes = true;
  EXPECT_FALSE(cs71_install_file(controller_, first.c_str()));
  EXPECT_HAS(last_text(), "failed to install file '" + first + "'.");
  EXPECT_EQ(last_causes(), std::vector<INT32>{0x3008});
}

TEST_F(Commands, SilenceIsNoResponse) {
  EXPECT_FALSE(cs71_set_droop(controller_));
  EXPECT_HAS(last_text(), "cs71_responding-> hardware not responding");
  EXPECT_HAS(last_text(), "cs71_set_droop-> set droop failed");
  EXPECT_EQ(last_causes(), (std::vector<INT32>{0x300B, 0x3008}));
  err_reset_all(stack());
  // Probe answered, completion missing.
  wire_.complete();
  EXPECT_FALSE(cs71_set_offset(controller_));
  EXPECT_HAS(last_text(), "cs71_wait_complete-> failed to complete");
  EXPECT_EQ(last_causes(), std::vector<INT32>{0x300B});
  err_reset_all(stack());
  wire_.refuse_writes = true;
  EXPECT_FALSE(cs71_set_linkspeed(controller_, 10));
  EXPECT_EQ(last_causes(), std::vector<INT32>{0x300B});
  err_reset_all(stack());
  wire_.refuse_writes = false;
  wire_.sent.clear();
  EXPECT_FALSE(cs71_config_iospace(controller_, "/nonexistent/7100hw.def", nullptr));
  EXPECT_HAS(last_text(), "cs71_config_iospace-> configuration of iospace failed");
  EXPECT_TRUE(wire_.sent.empty());
  err_reset_all(stack());
  EXPECT_FALSE(cs71_execute(controller_, 3));
  EXPECT_EQ((*stack())->category, ERR_PROGRAMMER);
}

}  // namespace
