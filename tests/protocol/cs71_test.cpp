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

bool has(const std::string &text, const std::string &piece) {
  return text.find(piece) != std::string::npos;
}

class Commands : public WireTest {
 protected:
  void SetUp() override {
    WireTest::SetUp();
    channel(REPORT_INFO)->destination = catch_report;
  }
  // Runs a command against a controller that answers its probes and its completion.
  std::vector<INT16> sent_by(BOOL (*command)(HANDLE), int probes = 1) {
    wire_.sent.clear();
    for (int i = 0; i < probes; ++i) wire_.complete();
    wire_.complete();
    EXPECT_TRUE(command(controller_)) << last();
    return wire_.sent;
  }
  std::string made(const std::string &name, size_t bytes) {
    std::string path = ::testing::TempDir() + "tvx_" + std::to_string(getpid()) + "_" + name;
    std::ofstream(path, std::ios::binary) << std::string(bytes, 'x');
    files_.push_back(path);
    return path;
  }
  void TearDown() override {
    for (const auto &f : files_) std::remove(f.c_str());
    WireTest::TearDown();
  }
  std::vector<std::string> files_;
};

TEST_F(Commands, ArgumentsAreMappedToTheControllersWords) {
  struct Case {
    const char *what;
    BOOL (*command)(HANDLE);
    std::vector<INT16> request;
  };
  const Case cases[] = {
      {"pgain 50 is code 1", [](HANDLE c) { return cs71_set_pgain(c, 50); }, packet(11, {1})},
      {"pgain 5 is code 0", [](HANDLE c) { return cs71_set_pgain(c, 5); }, packet(11, {0})},
      {"time constant 8 is code 3", [](HANDLE c) { return cs71_set_time_const(c, 8); },
       packet(12, {3})},
      {"vss in hundredths", [](HANDLE c) { return cs71_set_vss(c, 12.8, -12.8); },
       packet(10, {1280, -1280})},
      {"integration time in tenths", [](HANDLE c) { return cs71_set_integr_time(c, 25.6); },
       packet(13, {256})},
      {"voltage in hundredths, truncated", [](HANDLE c) { return cs71_set_voltage(c, 3, -1.239); },
       packet(5, {3, -123})},
      {"region in argument order", [](HANDLE c) { return cs71_set_region(c, 2, 10, 20, 30, 40); },
       packet(17, {2, 10, 20, 30, 40})},
      {"shuffle duration split low then high",
       [](HANDLE c) { return cs71_set_shuffle_mode(c, 7, -8, 70000); },
       packet(63, {7, -8, 4464, 1})},
      {"pulse widths keep their low 16 bits",
       [](HANDLE c) {
         const INT32 widths[4] = {1, 2, 65536 + 3, 40000};
         return cs71_shutter_pulse_widths(c, widths);
       },
       packet(53, {1, 2, 3, static_cast<INT16>(40000)})},
      {"parallel timing sends both tables",
       [](HANDLE c) {
         const INT16 a[2] = {1, 2}, b[2] = {3, 4};
         return cs71_set_parallel_timing(c, a, b, 2);
       },
       packet(47, {1, 2, 3, 4})},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(sent_by(c.command), join({probe(), c.request})) << c.what;
  }
  // One more probe before a read is set up.
  EXPECT_EQ(sent_by([](HANDLE c) { return cs71_set_ccd_read(c, 3, 5); }, 2),
            join({probe(), probe(), packet(58, {3, 0, 5})}));
  // The link speed goes alone and nothing is awaited: the link is about to change speed.
  wire_.sent.clear();
  EXPECT_TRUE(cs71_set_linkspeed(controller_, 20));
  EXPECT_EQ(wire_.sent, packet(43, {20}));
}

TEST_F(Commands, ReadsHandBackTheReplysParameters) {
  wire_.complete();
  wire_.complete({1234});
  INT16 value = 0;
  ASSERT_TRUE(cs71_get_voltage(controller_, 35, &value));
  EXPECT_EQ(value, 1234);
  wire_.complete();
  wire_.complete({12, -7, 3});
  INT16 a = 0, b = 0, c = 0;
  ASSERT_TRUE(cs71_adc_constants(controller_, &a, &b, &c));
  EXPECT_EQ(std::vector<INT16>({a, b, c}), std::vector<INT16>({12, -7, 3}));
  // A reply of the wrong size is a failure of the command, with the command's text.
  wire_.complete();
  wire_.complete({1, 2});
  EXPECT_FALSE(cs71_read_userport(controller_, &value));
  EXPECT_TRUE(has(last(), "bounds (1, 1), actual 2")) << last();
  EXPECT_TRUE(has(last(), "cs71_read_userport-> read user port failed")) << last();
}

TEST_F(Commands, RefusedArgumentsNeverReachTheWire) {
  struct Case {
    BOOL (*command)(HANDLE);
    const char *message;
    std::vector<INT32> causes;
    const char *failure;
  };
  const Case cases[] = {
      {[](HANDLE c) { return cs71_set_pgain(c, 10); },
       "invalid pgain (10): expected 5 or 50",
       {0x1040},
       "cs71_set_pgain-> set programmble gain failed"},
      {[](HANDLE c) { return cs71_set_vss(c, 12.81, 0); },
       "invalid readout voltage (12.81): expected -12.80 to 12.80",
       {0x1040},
       "set vss failed"},
      {[](HANDLE c) { return cs71_set_linkspeed(c, 15); },
       "invalid linkspeed (15): expected 5, 10, or 20",
       {0x1040},
       "set link speed failed."},
      {[](HANDLE c) { return cs71_set_blacklevel(c, 65536); },
       "invalid blacklevel (65536): expected 0 to 65535",
       {0x2015, 0x1040},
       "set blacklevel failed"},
      {[](HANDLE c) { return cs71_ccd_expose(c, 0); },
       "invalid exposure duration (0): expected 1 to 2147483646",
       {0x1040},
       "ccd expose failed"},
      {[](HANDLE c) { return cs71_set_region(c, 0, 0, 32000, 1, 1); },
       "invalid region y point (32000): expected 0 to 31999",
       {0x1040},
       "set region failed"},
      {[](HANDLE c) { return cs71_set_integr_time(c, 0.05); },
       "invalid integration time (0.05): expected 0.10 to 25.60",
       {0x1040},
       "set integration time failed"},
      {[](HANDLE c) {
         const INT16 t[99] = {};
         return cs71_set_parallel_timing(c, t, t, 99);
       },
       "invalid vector size (198): expected 0 to 197",
       {0x1040},
       "set parallel timing failed"},
  };
  for (const Case &c : cases) {
    EXPECT_FALSE(c.command(controller_));
    EXPECT_TRUE(has(last(), c.message)) << last();
    EXPECT_TRUE(has(last(), c.failure)) << last();
    EXPECT_EQ(causes(), c.causes) << c.message;
    EXPECT_TRUE(wire_.sent.empty()) << c.message;
    err_reset_all(stack());
  }
  INT16 code = 0;
  const INT16 from[2] = {5, 50}, to[2] = {0, 1};
  EXPECT_FALSE(map_i16_to(7, from, to, 2, &code));
  EXPECT_TRUE(has(last(), "map value, v, not in vfrom set"));
  EXPECT_EQ(causes(), std::vector<INT32>{0x1040});
}

TEST_F(Commands, ExposureSleepsOnTheHostBeforeItsCompletion) {
  wire_.complete();
  const DWORD start = time_centiseconds();
  ASSERT_TRUE(cs71_ccd_expose(controller_, 1000));
  EXPECT_EQ(wire_.sent, packet(23, {1000, 0})) << "no probe";
  EXPECT_GE(time_centiseconds() - start, 101u);
}

TEST_F(Commands, ProgressIsReportedUntilCompletion) {
  report_set_prefix(channel(REPORT_INFO), "INFO: ");
  wire_.reply(102, {1});
  wire_.reply(101, {'*'});
  wire_.reply(102, {2});
  wire_.reply(101, {});
  wire_.complete();
  ASSERT_TRUE(cs71_hwinit(controller_, 100)) << last();
  EXPECT_EQ(wire_.sent, packet(2, {100}));
  EXPECT_EQ(caught(), ".1*.2");
  const char *prefix = nullptr;
  EXPECT_STREQ(*report_get_prefix(channel(REPORT_INFO), &prefix), "INFO: ");

  // A controller that falls silent after stage 9 points at the camera head.
  for (INT16 stage = 1; stage <= 9; ++stage) wire_.reply(102, {stage});
  EXPECT_FALSE(cs71_hwinit(controller_, 100));
  EXPECT_TRUE(has(last(), "hardware inactive at stage 9")) << last();
  EXPECT_TRUE(has(last(), "hardware initialization failed")) << last();
  EXPECT_EQ(causes(), std::vector<INT32>{0x2006});
  EXPECT_STREQ(*report_get_prefix(channel(REPORT_INFO), &prefix), "INFO: ");
  err_reset_all(stack());

  wire_.reply(102, {3});
  EXPECT_FALSE(cs71_set_noise_trim(controller_));
  EXPECT_TRUE(has(last(), "hardware inactive at stage 3")) << last();
  EXPECT_TRUE(causes().empty());
  err_reset_all(stack());

  wire_.reply(7);
  EXPECT_FALSE(cs71_set_blacklevel(controller_, 5));
  EXPECT_TRUE(has(last(), "unexpected csp control (expected 100, actual 7)")) << last();
  EXPECT_STREQ(*report_get_prefix(channel(REPORT_INFO), &prefix), "INFO: ");
}

TEST_F(Commands, StateVectorFaultsAreJoinedInOneMessage) {
  wire_.complete();
  wire_.complete({0, 1, 1, 1, 1, 1, 1, 255, 1, 1, 1, 1, 1, 1, 1, 0});
  EXPECT_FALSE(cs71_check_state_vector(controller_));
  EXPECT_TRUE(has(last(),
                  "cs71_check_state_vector-> check state vector failed.\n"
                  "cs71_check_state_vector-> Droop1 failed, Offset failed, Shutter hold "
                  "data invalid.\n"))
      << last();
  err_reset_all(stack());
  wire_.complete();
  wire_.complete({0, 1, 1, 1, 0, 1, 1, 255, 1, 1, 1, 1, 1, 1, 1, 0});
  EXPECT_FALSE(cs71_check_state_vector(controller_));
  EXPECT_TRUE(has(last(), "-> Droop1 failed, Shutter hold data invalid.\n")) << last();
  err_reset_all(stack());
  wire_.complete();
  wire_.complete({128, 0, 0, 0, 1, 0, 0, 40, 0, 0, 0, 0, 0, 0, 0, 1});
  EXPECT_TRUE(cs71_check_state_vector(controller_)) << last();
}

TEST_F(Commands, PlaybackShowsTheRecorderText) {
  report_set_prefix(channel(REPORT_INFO), "INFO: ");
  std::string text(300, 'r');
  text += "end";
  for (size_t at = 0; at < text.size(); at += 197) {
    wire_.complete();
    std::vector<INT16> chunk;
    for (size_t i = at; i < text.size() && i < at + 197; ++i) chunk.push_back(text[i]);
    wire_.incoming.push_back(static_cast<INT16>(3 + chunk.size()));
    wire_.incoming.insert(wire_.incoming.end(), {-1, 1, 100});
    wire_.incoming.insert(wire_.incoming.end(), chunk.begin(), chunk.end());
  }
  wire_.complete();
  wire_.complete();
  ASSERT_TRUE(cs71_playback(controller_)) << last();
  EXPECT_EQ(caught(), "INFO: recorder[" + text + "]\n");
  const char *prefix = nullptr;
  EXPECT_STREQ(*report_get_prefix(channel(REPORT_INFO), &prefix), "INFO: ");
}

TEST_F(Commands, InstallationGoesInChunksOf197Bytes) {
  const std::string first = made("a", 400), second = made("b", 0);
  wire_.complete();
  ASSERT_TRUE(cs71_install(controller_, first.c_str(), second.c_str())) << last();
  std::vector<INT16> expected = join({probe(), packet(46)});
  for (size_t size : {197, 197, 6}) {
    expected.insert(expected.end(), {static_cast<INT16>(3 + size), 1, -1, 46});
    expected.insert(expected.end(), size, 'x');
  }
  expected.insert(expected.end(), {3, 1, -1, 46});
  EXPECT_EQ(wire_.sent, expected);

  wire_.sent.clear();
  EXPECT_FALSE(cs71_install_file(controller_, "/nonexistent/procinit"));
  EXPECT_TRUE(has(last(), "install file '/nonexistent/procinit'.")) << last();
  EXPECT_EQ((*stack())->category, ERR_OS);
  EXPECT_EQ((*stack())->code, ENOENT);
  EXPECT_TRUE(wire_.sent.empty());
  err_reset_all(stack());

  wire_.refuse_writes = true;
  EXPECT_FALSE(cs71_install_file(controller_, first.c_str()));
  EXPECT_TRUE(has(last(), "failed to install file '" + first + "'.")) << last();
  EXPECT_EQ(causes(), std::vector<INT32>{0x3008});
}

TEST_F(Commands, SilenceIsNoResponse) {
  EXPECT_FALSE(cs71_set_droop(controller_));
  EXPECT_TRUE(has(last(), "cs71_responding-> hardware not responding")) << last();
  EXPECT_TRUE(has(last(), "cs71_set_droop-> set droop failed")) << last();
  EXPECT_EQ(causes(), (std::vector<INT32>{0x300B, 0x3008}));
  err_reset_all(stack());
  // Probe answered, completion missing.
  wire_.complete();
  EXPECT_FALSE(cs71_set_offset(controller_));
  EXPECT_TRUE(has(last(), "cs71_wait_complete-> failed to complete")) << last();
  EXPECT_EQ(causes(), std::vector<INT32>{0x300B});
  err_reset_all(stack());
  wire_.refuse_writes = true;
  EXPECT_FALSE(cs71_set_linkspeed(controller_, 10));
  EXPECT_EQ(causes(), std::vector<INT32>{0x300B});
  err_reset_all(stack());
  wire_.refuse_writes = false;
  wire_.sent.clear();
  EXPECT_FALSE(cs71_config_iospace(controller_, "/nonexistent/7100hw.def", nullptr));
  EXPECT_TRUE(has(last(), "cs71_config_iospace-> configuration of iospace failed")) << last();
  EXPECT_TRUE(wire_.sent.empty());
  err_reset_all(stack());
  EXPECT_FALSE(cs71_execute(controller_, 3));
  EXPECT_EQ((*stack())->category, ERR_PROGRAMMER);
}

}  // namespace
