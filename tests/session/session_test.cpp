// The session as the programs built on it use it: the cooling watch and the cooling wait against
// the simulated cooler (a failing one too), giving up when asked, definition-file lines told in
// their own file, and files written whole or not at all.
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "cooling.h"
#include "definitions.h"
#include "errors.h"
#include "session.h"
#include "tvx/testing.h"
#include "writing.h"

namespace {

using namespace session;
namespace fs = std::filesystem;

// ---- the cooling watch ----------------------------------------------------------------------

TEST(CoolingWatch, ReachedOnlyWhenEveryReadingOfTheSettlePeriodIsNearTheSetPoint) {
  CoolingWatch watch(-100, 0.5, 30);
  EXPECT_FALSE(watch.reached()) << "no readings";
  // Readings every ten seconds: far, then near from 20 s on.
  const double celsius[] = {-60, -99.1, -99.6, -99.8, -99.9, -100.1, -99.7};
  for (int i = 0; i < 7; ++i) {
    watch.add(10.0 * i, celsius[i]);
    // Near from the reading at 20 s; thirty seconds of it are watched by the reading at 50 s.
    EXPECT_EQ(watch.reached(), i >= 5) << "after the reading at " << 10 * i << " s";
  }
  EXPECT_DOUBLE_EQ(watch.last(), -99.7);
  // One reading out of tolerance starts the period again.
  watch.add(70, -98.0);
  watch.add(80, -100.0);
  EXPECT_FALSE(watch.reached());
  for (int t = 90; t <= 110; t += 10) watch.add(t, -100.0);
  EXPECT_TRUE(watch.reached()) << "thirty seconds near it since 80 s";
}

TEST(CoolingWatch, RateIsKelvinAMinuteOverTheSettlePeriod) {
  CoolingWatch watch(-100, 0.5, 60);
  EXPECT_EQ(watch.per_minute(), 0.0) << "one reading tells no rate";
  for (int t = 0; t <= 120; t += 10) watch.add(t, -50.0 - 0.1 * t);  // falling 6 K a minute
  EXPECT_NEAR(watch.per_minute(), -6.0, 1e-9);
  EXPECT_FALSE(watch.reached());
}

// ---- the cooling wait on the simulated cooler ------------------------------------------------

class SimulatedSession : public ::testing::Test {
 protected:
  void SetUp() override {
    tvx_test_simulator_reset();
    session::Setup setup;
    setup.virtual_clock = true;
    setup.ccd = std::string(TVX_SOURCE_DIR) + "/data/sim/sim_small.def";
    session_ = std::make_unique<Session>(setup);
  }
  void TearDown() override {
    session_.reset();
    tvx_test_simulator_reset();
  }
  std::unique_ptr<Session> session_;
};

TEST_F(SimulatedSession, CoolingWaitEndsHeldAtTheControllersSetPoint) {
  ASSERT_NEAR(session_->cooler_set_point().value_or(0), -100.0, 1e-9)
      << "the hardware file's ccdtmp1, 173.15 K";
  EXPECT_FALSE(session_->cooling());
  std::vector<CoolingReading> seen;
  const CoolingWait wait{0.5, 30, 600, 1};
  const CoolingReading r =
      session_->cool_down(wait, [&seen](const CoolingReading &each) { seen.push_back(each); });
  EXPECT_TRUE(session_->cooling());
  EXPECT_NEAR(r.celsius, -100, 0.5);
  EXPECT_NEAR(r.set_point, -100.0, 1e-9);
  ASSERT_GT(seen.size(), 30u);
  EXPECT_NEAR(seen.front().celsius, 20, 1) << "from room temperature";
  // The last thirty seconds of readings all lay within the tolerance.
  for (const CoolingReading &each : seen)
    if (each.seconds >= r.seconds - 30) {
      EXPECT_NEAR(each.celsius, -100, 0.5) << each.seconds;
    }
  EXPECT_LT(r.seconds, 600);
  EXPECT_NEAR(session_->ccd_celsius(), -100, 0.5) << "and the chip stays there";
}

TEST_F(SimulatedSession, AFailingCoolerEndsTheWaitAtItsTimeOutWithWhereTheChipIs) {
  tvx_test_cooler_drift(3.0);  // warming 3 K a minute once the cooler is set
  try {
    session_->cool_down(CoolingWait{0.5, 30, 600, 1}, nullptr);
    FAIL() << "a cooler that cannot hold its set point was waited for";
  } catch (const Failure &f) {
    EXPECT_NE(f.text.find("did not reach the cooler's set point, -100.0 C, within 600 s"),
              std::string::npos)
        << f.text;
    EXPECT_NE(f.text.find("K a minute"), std::string::npos) << f.text;
  }
}

TEST_F(SimulatedSession, ACancelledSessionGivesUpBetweenStagesAndWaits) {
  bool stop = false;
  session_->set_cancel([&stop] { return stop; });
  Shot shot;
  shot.exposure_ms = 100;
  EXPECT_NO_THROW(
      session_->take(shot, 1, Stages{[](const char *) {}, [](const char *, double) {}, [] {}}));
  stop = true;
  int stages = 0;
  const Stages counted{[&](const char *) { ++stages; }, [&](const char *, double) { ++stages; },
                       [] {}};
  try {
    session_->take(shot, 1, counted);
    FAIL() << "a picture taken after the request to stop";
  } catch (const Aborted &a) {
    EXPECT_EQ(a.during, "before flushing");
  }
  EXPECT_EQ(stages, 0) << "no stage begun";
  EXPECT_THROW(session_->cool_down(CoolingWait{}, nullptr), Aborted);
  stop = false;
  EXPECT_NO_THROW(session_->take(shot, 0, counted)) << "ready again";
}

// ---- definition files -----------------------------------------------------------------------

class Files : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("session-test-" +
            std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) + "-" +
            std::to_string(getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string put(const std::string &name, const std::string &text) {
    std::ofstream(dir_ / name, std::ios::binary) << text;
    return (dir_ / name).string();
  }
  std::vector<std::string> names() const {
    std::vector<std::string> all;
    for (const auto &e : fs::directory_iterator(dir_)) all.push_back(e.path().filename());
    std::sort(all.begin(), all.end());
    return all;
  }
  fs::path dir_;
};

TEST_F(Files, LinesOfTheWholeTextAreToldInTheirOwnFile) {
  // The first file: a string over three lines, whose line feeds the reader does not count, and
  // no line feed at its end, so its last line runs on into the second file.
  const std::string first = put("a.def",
                                "DEFINE \"PARTS\" Horizontal Atleast\n"
                                "    name, \"a\", sa\n"
                                "END_SPEC\n"
                                "PARTS\n"
                                "    name = \"one\ntwo\nthree\"\n"
                                "    -- a \" in a comment opens no string\n"
                                "    other = 1");
  const std::string second = put("b.def",
                                 "\n"
                                 "OTHER\n"
                                 "    x = 12ab\n");
  const DefinitionText text({first, second});
  // The reader counts six line feeds in a.def; its seventh line is the file's ninth, and runs on
  // into the first of b.def.
  EXPECT_EQ(text.where(5), first + ", line 5");
  EXPECT_EQ(text.where(6), first + ", line 8");
  EXPECT_EQ(text.where(7), first + ", line 9, which runs on into " + second + ", line 1");
  EXPECT_EQ(text.where(9), second + ", line 3");
  EXPECT_EQ(text.where(11), "") << "past the end";
  EXPECT_EQ(text.section("PARTS"), first + ", line 4");
  EXPECT_EQ(text.section("OTHER"), second + ", line 2");
  EXPECT_EQ(text.section("END_SPEC"), "") << "a keyword, not a section";

  // The library's own message for the bad token, told in b.def.
  ASSERT_EQ(config_new(first.c_str(), second.c_str(), nullptr), nullptr);
  const ErrorReport report = take_errors(&text);
  ASSERT_FALSE(report.records.empty());
  EXPECT_EQ(report.records.front().text, "unrecognized input at line 9 (" + second + ", line 3)");
  EXPECT_NE(story_of(report).find("b.def, line 3"), std::string::npos);
  EXPECT_TRUE(take_errors().records.empty()) << "the stack was cleared";
}

// ---- files written whole ----------------------------------------------------------------------

TEST_F(Files, AFileIsWrittenWholeOrNotAtAllAndAnOldOneIsNeverSpoilt) {
  const std::string path = (dir_ / "picture.fits").string();
  write_whole(path, false, "first", 5);
  EXPECT_EQ(names(), std::vector<std::string>{"picture.fits"});
  try {
    write_whole(path, false, "second", 6);
    FAIL() << "an existing file was replaced";
  } catch (const Failure &f) {
    EXPECT_NE(f.text.find("the file exists"), std::string::npos) << f.text;
  }
  // A writer that gives up half way leaves the old file and no temporary one.
  EXPECT_THROW(write_whole(path, true,
                           [](const std::string &temporary) {
                             std::ofstream(temporary) << "half";
                             throw Failure{"gave up"};
                           }),
               Failure);
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  EXPECT_EQ(text.str(), "first");
  EXPECT_EQ(names(), std::vector<std::string>{"picture.fits"});
  write_whole(path, true, "second", 6);
  text.str("");
  text << std::ifstream(path).rdbuf();
  EXPECT_EQ(text.str(), "second");

  EXPECT_EQ(obstacle_to_writing(path, false).why, "it exists");
  EXPECT_TRUE(obstacle_to_writing(path, false).exists);
  EXPECT_EQ(obstacle_to_writing(path, true).why, "");
  EXPECT_EQ(obstacle_to_writing((dir_ / "none" / "x.fits").string(), true).why,
            "no such directory '" + (dir_ / "none").string() + "'");
  EXPECT_EQ(obstacle_to_writing(dir_.string(), true).why, "it is a directory");
  EXPECT_EQ(names(), std::vector<std::string>{"picture.fits"}) << "the trial file is gone";
}

}  // namespace
