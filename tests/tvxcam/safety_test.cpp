// tvxcam never loses a picture: outputs checked before the camera starts, files that exist left
// alone, files written whole on a full disk, an interrupted series that keeps what it finished,
// and one JSON object for every run, failures included.
#include <pty.h>
#include <sys/mount.h>

#include <cerrno>

#include "tvxcam/tvxcam_support.h"

namespace {

using namespace tvxcam_test;

// The files of a directory, temporary ones too, but for the output the runs leave there.
std::vector<std::string> files_in(const fs::path &dir) {
  std::vector<std::string> names;
  for (const auto &e : fs::directory_iterator(dir))
    if (e.path().filename() != ".stdout" && e.path().filename() != ".stderr")
      names.push_back(e.path().filename());
  std::sort(names.begin(), names.end());
  return names;
}

JsonValue json_of(const Outcome &r) {
  const std::optional<JsonValue> v = JsonReader(r.out).read();
  EXPECT_TRUE(v.has_value()) << "not one JSON object:\n" << r.out;
  EXPECT_EQ(r.err, "") << "JSON runs say everything on standard output";
  return v.value_or(JsonValue{});
}

TEST_F(Tvxcam, OutputsAreCheckedBeforeTheCameraStarts) {
  // A minute's exposure on the real clock: refused long before it could have ended.
  const auto start = std::chrono::steady_clock::now();
  const Outcome r = cam({"snap", "-e", "60000", "-o", "nowhere/x.fits", "-o", "fine.png"});
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("cannot write 'nowhere/x.fits': no such directory 'nowhere'"),
            std::string::npos)
      << r.err;
  EXPECT_EQ(r.out, "");
  EXPECT_FALSE(fs::exists(dir_ / "fine.png")) << "nothing taken, nothing written";
  EXPECT_EQ(r.err.find("starting"), std::string::npos) << "the controller was never started";

  // Written with no extension when the format is named.
  ASSERT_EQ(sim({"snap", "-e", "0", "--format", "fits", "-o", "noext"}).status, 0);
  verified("noext");
}

TEST_F(Tvxcam, FilesThatExistAreKeptUnlessReplacedAndSeriesNumberOn) {
  ASSERT_EQ(sim({"snap", "-e", "100", "-o", "a.fits", "-o", "a.png"}).status, 0);
  const std::string first = slurp(dir_ / "a.fits"), preview = slurp(dir_ / "a.png");
  const Outcome again = sim({"snap", "-e", "300", "-o", "a.fits", "-o", "a.png"});
  EXPECT_EQ(again.status, 1);
  EXPECT_NE(again.err.find("cannot write 'a.fits': it exists (--overwrite replaces it)"),
            std::string::npos)
      << again.err;
  EXPECT_NE(again.err.find("cannot write 'a.png'"), std::string::npos) << "every reason at once";
  EXPECT_EQ(slurp(dir_ / "a.fits"), first);
  EXPECT_EQ(slurp(dir_ / "a.png"), preview);
  ASSERT_EQ(sim({"snap", "-e", "300", "--overwrite", "-o", "a.fits"}).status, 0);
  EXPECT_EQ(read_fits(dir_ / "a.fits").at(0).number("EXPTIME"), 0.3);

  ASSERT_EQ(sim({"series", "-n", "2", "-e", "0", "-o", "s.fits", "-o", "s.png"}).status, 0);
  const Outcome refused = sim({"series", "-n", "2", "-e", "0", "-o", "s.fits"});
  EXPECT_EQ(refused.status, 1);
  EXPECT_NE(refused.err.find("'s_002.fits': it exists"), std::string::npos) << refused.err;
  const Outcome more = sim({"series", "-n", "2", "-e", "0", "--continue", "-o", "s.fits"});
  ASSERT_EQ(more.status, 0) << more.err;
  EXPECT_EQ(files_in(dir_),
            (std::vector<std::string>{"a.fits", "a.png", "s_001.fits", "s_001.png", "s_002.fits",
                                      "s_002.png", "s_003.fits", "s_004.fits", "tvx.log"}));
}

// A small file system of its own, where the machine allows one to be mounted.
class FullDisk : public Tvxcam {
 protected:
  void SetUp() override {
    Tvxcam::SetUp();
    disk_ = dir_ / "disk";
    fs::create_directories(disk_);
    if (mount("tvxcam-test", disk_.c_str(), "tmpfs", 0, "size=64k") != 0)
      GTEST_SKIP() << "cannot mount a small tmpfs here (" << std::strerror(errno)
                   << "): the full-disk case needs root and a kernel that allows it";
    mounted_ = true;
  }
  void TearDown() override {
    if (mounted_) umount2(disk_.c_str(), MNT_DETACH);
    Tvxcam::TearDown();
  }
  // Takes the rest of the disk.
  void fill() {
    std::ofstream filler(disk_ / "filler", std::ios::binary);
    const std::string block(4096, 'x');
    while (filler.write(block.data(), block.size())) {
    }
  }
  fs::path disk_;
  bool mounted_ = false;
};

TEST_F(FullDisk, LeavesTheGoodFileAndWritesTheOtherOutputs) {
  ASSERT_EQ(sim({"snap", "-e", "100", "-o", "disk/x.fits"}).status, 0);
  const std::string good = slurp(disk_ / "x.fits");
  fill();
  const Outcome r =
      sim({"snap", "-e", "200", "--overwrite", "-o", "disk/x.fits", "-o", "elsewhere.fits"});
  EXPECT_EQ(r.status, 1);
  EXPECT_NE(r.err.find("cannot write 'disk/x.fits': disk full"), std::string::npos) << r.err;
  EXPECT_EQ(slurp(disk_ / "x.fits"), good) << "the file that stood there is untouched";
  EXPECT_EQ(files_in(disk_), (std::vector<std::string>{"filler", "x.fits"})) << "no part left";
  verified("elsewhere.fits");
  EXPECT_NE(r.out.find("wrote        elsewhere.fits"), std::string::npos) << r.out;
}

TEST_F(Tvxcam, AnInterruptedSeriesKeepsItsFinishedFramesWhole) {
  // A hardware file of another name makes tvxcam stage it in a directory of its own, which must
  // go too; that directory is made under TMPDIR.
  const fs::path hw = copy_of_shipped("cam");
  fs::rename(hw / "7100hw.def", hw / "camera.def");
  fs::create_directories(dir_ / "tmp");
  const std::string tmpdir = "TMPDIR=" + (dir_ / "tmp").string();
  const pid_t pid = start_in(dir_, TVXCAM,
                             {"--hw", "cam/camera.def", "--ccd", "cam/sim_small.def", "series",
                              "-n", "500", "-e", "200", "-o", "s.fits", "-o", "s.png"},
                             {tmpdir});
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (!fs::exists(dir_ / "s_002.fits") && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  kill(pid, SIGINT);
  const Outcome r = finish(dir_, pid, 60);
  EXPECT_EQ(r.status, 130);
  EXPECT_NE(r.err.find("tvxcam: stopped by SIGINT"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("  s_002.fits\n"), std::string::npos) << "it tells what it kept";
  int frames = 0;
  for (const std::string &name : files_in(dir_)) {
    EXPECT_EQ(name.find(".part"), std::string::npos) << name;
    if (name.ends_with(".fits")) {
      ++frames;
      verified(name);
      EXPECT_TRUE(fs::exists(dir_ / (name.substr(0, name.size() - 5) + ".png"))) << name;
      EXPECT_NE(r.err.find("  " + name + "\n"), std::string::npos) << name;
    }
  }
  EXPECT_GE(frames, 2);
  EXPECT_LT(frames, 500);
  EXPECT_TRUE(fs::is_empty(dir_ / "tmp")) << "the staged hardware file is gone";
}

TEST_F(Tvxcam, AnInterruptEndsALongExposureAtOnce) {
  // On a terminal, so that the exposure can be seen to have begun.
  int terminal = -1;
  const pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
  if (pid == 0) {
    if (chdir(dir_.c_str()) != 0) _exit(126);
    execl(TVXCAM, TVXCAM, "snap", "-e", "600000", "-o", "long.fits", nullptr);
    _exit(127);
  }
  std::string seen;
  char buffer[4096];
  while (seen.find("exposing") == std::string::npos) {
    const ssize_t n = read(terminal, buffer, sizeof buffer);
    ASSERT_GT(n, 0) << seen;
    seen.append(buffer, size_t(n));
  }
  const auto start = std::chrono::steady_clock::now();
  kill(pid, SIGINT);
  for (ssize_t n; (n = read(terminal, buffer, sizeof buffer)) > 0;) seen.append(buffer, size_t(n));
  close(terminal);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(30));
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 130) << seen;
  EXPECT_NE(seen.find("stopped by SIGINT while exposing"), std::string::npos) << seen;
  EXPECT_FALSE(fs::exists(dir_ / "long.fits"));
}

TEST_F(Tvxcam, JsonIsOneObjectForEveryCommandAndEveryFailure) {
  const JsonValue snap = json_of(sim({"--json", "snap", "-e", "0", "-o", "j.fits"}));
  EXPECT_TRUE(snap["ok"].truth);
  EXPECT_EQ(snap["command"].text, "snap");
  EXPECT_EQ(snap["exposure"]["type"].text, "Bias Frame");
  ASSERT_EQ(snap["written"].items.size(), 1u);
  EXPECT_EQ(snap["written"].items[0]["path"].text, "j.fits");
  EXPECT_EQ(snap["images"].items[0]["width"].value, 80);

  const JsonValue series = json_of(sim({"series", "--json", "-n", "2", "-e", "0", "-o", "j.img"}));
  EXPECT_TRUE(series["ok"].truth);
  EXPECT_EQ(series["frames"].items.size(), 2u);
  const JsonValue cool = json_of(sim({"--json", "cool"}));
  EXPECT_EQ(cool["set_point_celsius"].value, -100);
  EXPECT_TRUE(json_of(sim({"--json", "status"}))["ok"].truth);
  EXPECT_EQ(json_of(cam({"--json", "info", "j.fits"}))["format"].text, "FITS");
  EXPECT_TRUE(json_of(cam({"--json", "convert", "j.fits", "j.png"}))["ok"].truth);
  const JsonValue version = json_of(cam({"--json", "--version"}));
  EXPECT_EQ(version["program"].text, "tvxcam");

  // Failures: the message, and the library's stack as records.
  const Outcome exists = sim({"--json", "snap", "-o", "j.fits"});
  EXPECT_EQ(exists.status, 1);
  const JsonValue refused = json_of(exists);
  EXPECT_FALSE(refused["ok"].truth);
  EXPECT_TRUE(refused["ok"].kind == JsonValue::boolean);
  EXPECT_NE(refused["error"]["message"].text.find("it exists"), std::string::npos);

  const fs::path hw = copy_of_shipped("broken");
  replace_in(hw / "7100hw.def", "DEVICE\n", "DEVICE\n    unheard_of = 3\n");
  const Outcome broken = sim({"--json", "--ccd", "broken/sim_small.def", "status"});
  EXPECT_EQ(broken.status, 1);
  const JsonValue story = json_of(broken);
  const JsonValue &record = story["error"]["stack"].items.at(0);
  EXPECT_EQ(record["routine"].text, "check_section_unknown");
  EXPECT_EQ(record["text"].text, "unknown identifier 'unheard_of' found");
  EXPECT_FALSE(record["passed"].items.empty());
  ASSERT_FALSE(record["causes"].items.empty());
  EXPECT_NE(record["causes"].items[0]["text"].text.find("hardware configuration"),
            std::string::npos);

  const Outcome usage = cam({"--json", "snap", "--frobnicate"});
  EXPECT_EQ(usage.status, 2);
  EXPECT_TRUE(json_of(usage)["error"]["usage"].truth);
  const Outcome late = sim({"--json", "cool", "--wait", "--timeout", "5"});
  EXPECT_EQ(late.status, 1);
  EXPECT_NE(json_of(late)["error"]["message"].text.find("did not reach"), std::string::npos);
}

TEST_F(Tvxcam, TheHeaderSaysWhatTheObserverSaid) {
  const Outcome r =
      sim({"snap",       "-e",          "100",          "--type",     "flat",        "--object",
           "M 31",       "--telescope", "the 1 m",      "--observer", "A. N. Other", "--filter",
           "V",          "--header",    "AIRMASS=1.25", "--header",   "RUN=42",      "--header",
           "NOTE='007'", "--header",    "seeing=fair",  "-o",         "h.fits"});
  ASSERT_EQ(r.status, 0) << r.err;
  verified("h.fits");
  const Hdu h = read_fits(dir_ / "h.fits").at(0);
  EXPECT_EQ(h.text("IMAGETYP"), "Flat Field");
  EXPECT_EQ(h.text("OBJECT"), "M 31");
  EXPECT_EQ(h.text("TELESCOP"), "the 1 m");
  EXPECT_EQ(h.text("OBSERVER"), "A. N. Other");
  EXPECT_EQ(h.text("FILTER"), "V");
  EXPECT_EQ(h.number("AIRMASS"), 1.25);
  EXPECT_EQ(h.keys.at("RUN"), "42");
  EXPECT_EQ(h.text("NOTE"), "007") << "quoted: text, though it reads as a number";
  EXPECT_EQ(h.text("SEEING"), "fair");

  const Outcome bias = sim({"snap", "--type", "bias", "-o", "b.fits"});
  ASSERT_EQ(bias.status, 0) << bias.err;
  const Hdu b = read_fits(dir_ / "b.fits").at(0);
  EXPECT_EQ(b.text("IMAGETYP"), "Bias Frame");
  EXPECT_EQ(b.number("EXPTIME"), 0.0) << "a bias frame has no exposure";
}

}  // namespace
