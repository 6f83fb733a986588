// Report channels, the log file as a reader of it sees it, start-up, the version and the clock.
#include <unistd.h>

#include <climits>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

#include "support/frame.h"

namespace {

using namespace tvx_test;

class Reports : public FrameTest {};
using ReportsDeath = Reports;

std::string read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// Starts the library's globals afresh in a directory of the test's own, so that the log written
// there can be read back; the globals stay in use for the rest of the process.
class Log : public Reports {
 protected:
  static void SetUpTestSuite() {
    char pattern[] = "/tmp/tvx-log-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    char here[PATH_MAX];
    ASSERT_NE(getcwd(here, sizeof here), nullptr);
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    tvx_globals_ctor(&globals_, nullptr);
    ASSERT_EQ(chdir(here), 0);
  }
  std::string log() { return read_file(dir_ + "/tvx.log"); }
  void empty_log() { std::ofstream(dir_ + "/tvx.log", std::ios::trunc); }

  static inline tvx_globals globals_{};
  static inline std::string dir_;
};

TEST_F(Log, StartUpLeavesItsLineInANewLogAndTheVersionIsTheBuilds) {
  EXPECT_TRUE(globals_.log_on);
  EXPECT_EQ(log().rfind("INFO: DLL startup complete.\r\n", 0), 0u);
  EXPECT_EQ(std::string(globals_.log_path), dir_ + "/tvx.log");
  EXPECT_EQ(globals_.reports[REPORT_OBJ_INFO], channel(REPORT_INFO));
  EXPECT_EQ(globals_.reports[REPORT_OBJ_PANIC], channel(REPORT_PANIC));
  for (report *r : globals_.reports) EXPECT_EQ(r->destination, tvx_log_reports);

  char file[32] = "unset", product[32] = "unset";
  EXPECT_TRUE(GetDllVersion(file, product));
  EXPECT_TRUE(std::regex_match(file, std::regex("[0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+"))) << file;
  EXPECT_STREQ(file, product);
  EXPECT_NE(log().find("foundation_tests"), std::string::npos) << "the module's path is logged";
}

TEST_F(Log, EveryMessageIsWrittenAtTheStartOfTheFile) {
  empty_log();
  report_send(channel(REPORT_INFO), "x");
  EXPECT_EQ(log(), "INFO: x\r\n");
  report_send(channel(REPORT_WARNING), "a much longer message %d\n", 42);
  EXPECT_EQ(log(), "WARNING: a much longer message 42\n") << "a line feed gets no \\r\\n";
  report_send(channel(REPORT_ERROR), "short");
  EXPECT_EQ(log(), "ERROR: short\r\nh longer message 42\n") << "the latest message over the rest";

  // A further attach does not start the library again, nor write its line.
  EXPECT_TRUE(tvx_entry_point(nullptr, TVX_PROCESS_ATTACH));
  EXPECT_TRUE(tvx_entry_point(nullptr, TVX_THREAD_ATTACH));
  EXPECT_TRUE(tvx_entry_point(nullptr, TVX_PROCESS_DETACH));
  EXPECT_EQ(log(), "ERROR: short\r\nh longer message 42\n");
}

std::string forwarded;
int forward(const char *text) {
  forwarded += '[';
  forwarded += text;
  forwarded += ']';
  return 7;
}

TEST_F(Reports, SendFormatsBehindThePrefixAndCaptureForwardsAllSoFar) {
  report *r = nullptr;
  report_new(&r);
  const char *prefix = nullptr;
  EXPECT_STREQ(*report_get_prefix(r, &prefix), "");
  report_set_prefix(r, "CAM: ");
  report_set_destination(r, catch_report);
  EXPECT_EQ(report_send(r, "%s %ld", "frame", 12L), 1) << "the destination's result";
  EXPECT_EQ(caught(), "CAM: frame 12");
  std::string big(10000, 'p');
  caught().clear();
  report_send(r, "%s", big.c_str());
  EXPECT_EQ(caught(), "CAM: " + big) << "composition has no fixed bound";
  report_delete(r);

  report *objects[4] = {};
  report_get_objects(objects);
  EXPECT_EQ(objects[0], channel(REPORT_PANIC));
  EXPECT_EQ(objects[1], channel(REPORT_ERROR));
  EXPECT_EQ(objects[2], channel(REPORT_WARNING));
  EXPECT_EQ(objects[3], channel(REPORT_INFO));
  EXPECT_STREQ(channel(REPORT_WARNING)->prefix, "WARNING: ");

  // While capturing, each send hands the destination all that was captured so far.
  channel(REPORT_INFO)->destination = forward;
  forwarded.clear();
  report_capture_start();
  report_send(channel(REPORT_INFO), "a");
  report_send(channel(REPORT_INFO), "b");
  EXPECT_EQ(report_send(channel(REPORT_INFO), "c"), 7);
  EXPECT_EQ(forwarded, "[INFO: a][INFO: aINFO: b][INFO: aINFO: bINFO: c]");

  forwarded.clear();
  std::string fill(256 - 3 * 7 - 6 - 1, 'f');  // brings the buffer to 255 characters
  report_send(channel(REPORT_INFO), "%s", fill.c_str());
  report_send(channel(REPORT_INFO), "%s", "");  // "INFO: " would reach 256: not appended
  std::string held = "INFO: aINFO: bINFO: cINFO: " + fill;
  EXPECT_EQ(held.size(), 255u);
  EXPECT_EQ(forwarded, "[" + held + "][" + held + "]");
  report_capture_stop();
  EXPECT_EQ(channel(REPORT_INFO)->destination, forward);
}

TEST_F(ReportsDeath, MisuseIsFatalWithItsMessage) {
  auto shown = [](auto misuse) {
    channel(REPORT_PANIC)->destination = to_stderr;
    misuse();
  };
  report *out = nullptr;
  EXPECT_DEATH(shown([&] { report_where_is(4, &out); }),
               "PANIC: report_where_is: invalid object identifier : 4\n");
  EXPECT_DEATH(shown([] { report_delete(nullptr); }), "PANIC: report_delete: NULL object");
  EXPECT_DEATH(shown([] { report_set_prefix(channel(REPORT_INFO), nullptr); }),
               "report_set_prefix: NULL prefix");
  EXPECT_DEATH(shown([] {
                 report *r = nullptr;
                 report_new(&r);
                 report_send(r, "x");
               }),
               "PANIC: report_send: NULL destination\n");
  // A panic report without a destination cannot say anything: it just ends the process.
  EXPECT_DEATH(
      {
        channel(REPORT_PANIC)->destination = nullptr;
        report_send(channel(REPORT_PANIC), "x");
      },
      "");
}

TEST_F(Reports, DelaysRunOnTheRealClockAndOnTheVirtualOneInNoRealTime) {
  DWORD start = time_centiseconds();
  delay_centiseconds(2);
  DWORD elapsed = time_centiseconds() - start;
  EXPECT_GE(elapsed, 2u);
  EXPECT_LT(elapsed, 100u);

  tvx_test_clock_virtual(1000);
  EXPECT_EQ(time_centiseconds(), 1000u);
  EXPECT_TRUE(delay_centiseconds(0));
  EXPECT_EQ(time_centiseconds(), 1000u);
  delay_centiseconds(250);
  EXPECT_EQ(time_centiseconds(), 1250u);
  delay_seconds(60);
  EXPECT_EQ(time_centiseconds(), 7250u);

  tvx_test_clock_set(0xFFFFFF00u);
  delay_centiseconds(0x200);
  EXPECT_EQ(time_centiseconds(), 0x100u) << "a wait across the wrap of the clock ends on time";

  tvx_test_clock_step(5);
  DWORD first = time_centiseconds();
  EXPECT_EQ(time_centiseconds(), first + 5) << "a stepping clock lets polls reach time-outs";
}

}  // namespace
