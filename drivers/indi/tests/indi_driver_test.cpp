// indi_tvx_ccd as a user meets it: indiserver started with the driver on a free loopback port,
// driven by INDI's command-line clients (indi_setprop, indi_getprop, indi_eval), its FITS files
// judged by fitsverify and read back through cfitsio, its messages read from indiserver's log.
// Every wait is on an event (a client's -w or -m) with a generous bound; the server and the
// driver are stopped and reaped whatever a test comes to.
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pty.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <cmath>  // for tvxcam_support.h
#include <cstring>
#include <optional>

#include "tvxcam/tvxcam_support.h"

extern char **environ;

namespace {

using namespace tvxcam_test;

const std::string kDevice = "tvx CCD";

// A program of the test's own, its output read a line at a time as it comes (through a terminal,
// so that it writes each line as it has it), or left in a file.
class Program {
 public:
  Program(const std::vector<std::string> &argv, const std::vector<std::string> &env,
          const fs::path &cwd = {}, const fs::path &log = {}) {
    std::vector<char *> args, envp;
    for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
    for (const std::string &e : env) envp.push_back(const_cast<char *>(e.c_str()));
    args.push_back(nullptr);
    envp.push_back(nullptr);
    int terminal = -1;
    termios raw{};
    cfmakeraw(&raw);
    if (log.empty() && openpty(&out_, &terminal, nullptr, &raw, nullptr) != 0) return;
    pid_ = fork();
    if (pid_ == 0) {
      // Its own process group, so that whatever it starts can be stopped with it; and it is
      // told to stop should the test itself be killed.
      setpgid(0, 0);
      prctl(PR_SET_PDEATHSIG, SIGTERM);
      const int fd = log.empty() ? terminal : open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      if (fd < 0 || dup2(fd, 1) < 0 || dup2(fd, 2) < 0) _exit(126);
      if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
      execve(args[0], args.data(), envp.data());
      _exit(127);
    }
    if (pid_ > 0) setpgid(pid_, pid_);  // whichever of the two runs first
    if (terminal >= 0) close(terminal);
  }
  ~Program() {
    if (pid_ > 0) kill(-pid_, SIGKILL), reap(-pid_, 10);
    if (out_ >= 0) close(out_);
  }
  Program(const Program &) = delete;
  Program &operator=(const Program &) = delete;

  // The next line it prints; none once the output ends or `seconds` pass.
  std::optional<std::string> line(double seconds) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
      if (const size_t end = buffer_.find('\n'); end != std::string::npos) {
        std::string line = buffer_.substr(0, end);
        buffer_.erase(0, end + 1);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return line;
      }
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd p{out_, POLLIN, 0};
      if (out_ < 0 || left.count() <= 0 || poll(&p, 1, int(left.count())) <= 0) return {};
      char chunk[4096];
      const ssize_t n = read(out_, chunk, sizeof chunk);
      if (n <= 0) return {};
      buffer_.append(chunk, size_t(n));
    }
  }

  // Its exit status once it ends; -1 when it still runs after `seconds` (then killed).
  int wait(double seconds) {
    int status = -1;
    if (pid_ <= 0) return status;
    if (!reap(pid_, seconds, &status)) kill(-pid_, SIGKILL), reap(-pid_, 10);
    pid_ = -1;
    return status;
  }

  // Asks the program alone to stop, then waits for it and for what it started in its group.
  // False when any of them had to be killed.
  bool stop(double seconds) {
    if (pid_ <= 0) return false;
    kill(pid_, SIGTERM);
    const bool ended = reap(pid_, seconds) && reap(-pid_, seconds);
    kill(-pid_, SIGKILL);
    reap(-pid_, 10);
    pid_ = -1;
    return ended;
  }

 private:
  // Reaps `who` (a process, or minus a process group) to the last; false after `seconds`.
  static bool reap(pid_t who, double seconds, int *status = nullptr) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    for (;;) {
      int s = 0;
      const pid_t got = waitpid(who, &s, WNOHANG);
      if (got > 0 && status != nullptr) *status = WIFEXITED(s) ? WEXITSTATUS(s) : 128 + WTERMSIG(s);
      if (got > 0 && who > 0) return true;
      if (got < 0) return true;  // none left
      if (got == 0 && std::chrono::steady_clock::now() > deadline) return false;
      if (got == 0) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }

 private:
  pid_t pid_ = -1;
  int out_ = -1;
  std::string buffer_;
};

// A loopback port nothing listens on now.
int free_port() {
  const int s = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof a;
  bind(s, reinterpret_cast<sockaddr *>(&a), size);
  getsockname(s, reinterpret_cast<sockaddr *>(&a), &size);
  close(s);
  return ntohs(a.sin_port);
}

class Driver : public ::testing::Test {
 protected:
  void SetUp() override {
    if (access(INDISERVER, X_OK) != 0)
      GTEST_SKIP() << "indiserver (Debian package indi-bin) is not installed at " << INDISERVER
                   << ": the driver cannot be served";
    const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir_ = fs::temp_directory_path() /
           ("indi-test-" + std::string(info->name()) + "-" + std::to_string(getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
    // The driver outlives indiserver by a moment when the server stops; it comes back to us to
    // be reaped, rather than to nobody.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    port_ = std::to_string(free_port());
    // The driver's settings go to a home of the test's own; under the sanitizers its reports
    // go to files here, where the test finds them after the driver has stopped, and libindi's
    // own leaks are left to libindi.
    for (char **e = environ; *e != nullptr; ++e)
      if (std::strncmp(*e, "HOME=", 5) != 0 && std::strncmp(*e, "ASAN_OPTIONS=", 13) != 0 &&
          std::strncmp(*e, "LSAN_OPTIONS=", 13) != 0)
        env_.emplace_back(*e);
    env_.push_back("HOME=" + dir_.string());
    const char *asan = std::getenv("ASAN_OPTIONS");
    env_.push_back(std::string("ASAN_OPTIONS=") + (asan != nullptr ? asan : "") +
                   ":log_path=" + (dir_ / "sanitizer").string());
    env_.push_back("LSAN_OPTIONS=print_suppressions=0:suppressions=" SUPPRESSIONS);
    server_ = std::make_unique<Program>(
        std::vector<std::string>{INDISERVER, "-p", port_, "-u", (dir_ / "socket").string(), "-l",
                                 dir_.string(), DRIVER},
        env_, dir_, dir_ / "indiserver.out");
    ASSERT_TRUE(answers()) << slurp(dir_ / "indiserver.out");
  }

  void TearDown() override {
    if (server_ != nullptr) {
      // indiserver alone: the driver sees its input end and stops as it does in use.
      EXPECT_TRUE(server_->stop(10)) << "indiserver or the driver had to be killed";
      server_.reset();
      const std::string served = slurp(dir_ / "indiserver.out");
      EXPECT_EQ(served.find("restart"), std::string::npos) << "the driver died:\n" << served;
      for (const auto &entry : fs::directory_iterator(dir_))
        if (entry.path().filename().string().rfind("sanitizer", 0) == 0)
          ADD_FAILURE() << "the driver's sanitizer report:\n" << slurp(entry.path());
    }
    fs::remove_all(dir_);
  }

  std::vector<std::string> client(const std::string &program, std::vector<std::string> args) {
    args.insert(args.begin(), {program, "-p", port_});
    return args;
  }
  // Runs a client to its end and returns what it printed.
  std::string run(const std::string &program, std::vector<std::string> args, int *status) {
    Program p(client(program, std::move(args)), env_);
    std::string out;
    while (auto l = p.line(60)) out += *l + "\n";
    *status = p.wait(60);
    return out;
  }
  // Whether the server serves the driver yet; it takes a moment to listen.
  bool answers() {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (std::chrono::steady_clock::now() < deadline) {
      int status = -1;
      run(INDI_GETPROP, {"-t", "2", kDevice + ".CONNECTION.CONNECT"}, &status);
      if (status == 0) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
  }
  // One element's value ("CCD_TEMPERATURE.CCD_TEMPERATURE_VALUE", "CCD_EXPOSURE._STATE").
  std::string get(const std::string &element) {
    int status = -1;
    std::string value = run(INDI_GETPROP, {"-1", "-t", "5", kDevice + "." + element}, &status);
    EXPECT_EQ(status, 0) << element;
    while (!value.empty() && value.back() == '\n') value.pop_back();
    return value;
  }
  double number(const std::string &element) { return std::strtod(get(element).c_str(), nullptr); }
  void set(const std::string &spec) {
    int status = -1;
    const std::string out = run(INDI_SETPROP, {"-t", "5", kDevice + "." + spec}, &status);
    EXPECT_EQ(status, 0) << spec << ": " << out;
  }
  // Waits until `expression` (indi_eval's, with the device's properties) holds.
  bool until(const std::string &expression, int seconds = 30) {
    int status = -1;
    run(INDI_EVAL, {"-t", std::to_string(seconds), "-w", expression}, &status);
    return status == 0;
  }
  // indi_getprop -m on `element`: a second client that sees every change as it is told.
  std::unique_ptr<Program> watch(const std::string &element, int seconds = 30) {
    auto w = std::make_unique<Program>(
        client(INDI_GETPROP, {"-m", "-t", std::to_string(seconds), kDevice + "." + element}), env_);
    EXPECT_TRUE(w->line(20).has_value()) << "the property's present value";
    return w;
  }
  void connect() {
    set("CONNECTION.CONNECT=On");
    ASSERT_TRUE(until("\"tvx CCD.CONNECTION.CONNECT\"==1 && \"tvx CCD.CONNECTION._STATE\"==1"))
        << log();
    set("UPLOAD_MODE.UPLOAD_LOCAL=On");
    set("UPLOAD_SETTINGS.UPLOAD_DIR;UPLOAD_PREFIX=" + dir_.string() + ";frame_XXX");
  }
  // Takes one exposure and returns the file the driver wrote for it.
  fs::path expose(double seconds) {
    std::unique_ptr<Program> state = watch("CCD_EXPOSURE._STATE");
    set("CCD_EXPOSURE.CCD_EXPOSURE_VALUE=" + std::to_string(seconds));
    // Busy while it runs, then Ok once the file is written, or Alert.
    for (bool busy = false;;) {
      const std::optional<std::string> line = state->line(seconds + 30);
      if (!line) {
        ADD_FAILURE() << "the exposure did not end\n" << log();
        return {};
      }
      const std::string value = line->substr(line->find('=') + 1);
      if (value == "Busy") {
        busy = true;
      } else if (busy) {
        EXPECT_EQ(value, "Ok") << log();
        break;
      }
    }
    return get("CCD_FILE_PATH.FILE_PATH");
  }
  // The driver's messages, as indiserver logs them.
  std::string log() {
    std::string all;
    for (const auto &entry : fs::directory_iterator(dir_))
      if (entry.path().extension() == ".islog") all += slurp(entry.path());
    return all;
  }
  Hdu checked(const fs::path &file) {
    Outcome run;
    EXPECT_EQ(fitsverify(dir_, file.filename(), &run), std::make_pair(0, 0)) << run.out;
    std::vector<Hdu> hdus = read_fits(file);
    return hdus.empty() ? Hdu{} : hdus[0];
  }

  fs::path dir_;
  std::string port_;
  std::vector<std::string> env_;
  std::unique_ptr<Program> server_;
};

double mean(const Hdu &h) {
  double sum = 0;
  for (long long v : h.pixels) sum += double(v);
  return h.pixels.empty() ? 0 : sum / double(h.pixels.size());
}

}  // namespace

TEST_F(Driver, FramesCarryTheCameraHeaderInEveryKindAndMode) {
  connect();
  set("TVX_SCENE.FLAT=On");
  ASSERT_TRUE(until("\"tvx CCD.TVX_SCENE._STATE\"==1"));
  EXPECT_EQ(number("CCD_INFO.CCD_MAX_X"), 80);
  EXPECT_EQ(number("CCD_INFO.CCD_BITSPERPIXEL"), 16);

  const Hdu light = checked(expose(0.3));
  EXPECT_EQ(light.equivalent, USHORT_IMG);
  ASSERT_EQ(std::make_pair(light.width, light.height), std::make_pair(80L, 64L));
  EXPECT_EQ(light.number("EXPTIME"), 0.3);
  EXPECT_EQ(light.text("IMAGETYP"), "Light Frame");
  EXPECT_EQ(light.number("XBINNING"), 1);
  EXPECT_EQ(light.number("XORGSUBF"), 0);
  EXPECT_NEAR(light.number("CCD-TEMP"), 20, 1);
  EXPECT_GT(light.number("GAIN"), 0);
  EXPECT_EQ(light.text("READOUTM"), "40 kHz full well");
  EXPECT_EQ(light.text("DETECTOR"), "sim64");
  EXPECT_EQ(light.text("INSTRUME"), "7100 controller (simulated)");
  EXPECT_EQ(light.text("OPMODE"), "raw");
  EXPECT_EQ(light.text("CREATOR").rfind("indi_tvx_ccd ", 0), 0u) << light.text("CREATOR");
  EXPECT_EQ(light.text("ROWORDER"), "BOTTOM-UP")
      << "rows lie in the library's order, as tvxcam's do";

  // A bias frame is read straight after the flush with the shutter closed: the black level.
  set("CCD_FRAME_TYPE.FRAME_BIAS=On");
  const Hdu bias = checked(expose(0.3));
  EXPECT_EQ(bias.text("IMAGETYP"), "Bias Frame");
  EXPECT_EQ(bias.number("EXPTIME"), 0);
  EXPECT_NEAR(mean(bias), 1000, 3);
  EXPECT_GT(mean(light) - mean(bias), 20) << "the flat field's light";
  set("CCD_FRAME_TYPE.FRAME_FLAT=On");
  EXPECT_EQ(checked(expose(0.1)).text("IMAGETYP"), "Flat Frame");

  // Another row of the gain table holds for the next pictures.
  set("TVX_GAIN.GAIN_2=On");
  ASSERT_TRUE(until("\"tvx CCD.TVX_GAIN._STATE\"==1"));
  const Hdu low_light = checked(expose(0.1));
  EXPECT_EQ(low_light.text("READOUTM"), "40 kHz low light");
  EXPECT_LT(low_light.number("GAIN"), light.number("GAIN"));

  // A subframe binned 2x2 is one region fitted to the binning grid: it keeps its right and
  // bottom edges and starts on the grid.
  set("TVX_SCENE.COORDINATES=On");
  set("CCD_FRAME_TYPE.FRAME_BIAS=On");
  set("CCD_BINNING.HOR_BIN;VER_BIN=2;2");
  set("CCD_FRAME.X;Y;WIDTH;HEIGHT=11;6;30;20");
  const Hdu sub = checked(expose(0.1));
  EXPECT_EQ(sub.text("IMAGETYP"), "Bias Frame");
  EXPECT_EQ(std::make_pair(sub.number("XBINNING"), sub.number("YBINNING")),
            std::make_pair(2.0, 2.0));
  EXPECT_EQ(std::make_pair(sub.number("XORGSUBF"), sub.number("YORGSUBF")),
            std::make_pair(12.0, 6.0));
  ASSERT_EQ(std::make_pair(sub.width, sub.height), std::make_pair(15L, 10L));
  int wrong = 0;
  for (long y = 0; y < 10; ++y)
    for (long x = 0; x < 15; ++x) {
      long long sum = 0;
      for (int j = 0; j < 2; ++j)
        for (int i = 0; i < 2; ++i) sum += coordinate(12 + 2 * x + i, 6 + 2 * y + j);
      wrong += sub.at(x, y) != (sum & 0xFFFF);
    }
  EXPECT_EQ(wrong, 0);
  EXPECT_EQ(number("CCD_FRAME.X"), 12) << "the frame shows what was read";

  // Processed: the whole chip read, its image zero taken off, cut to the active area; the
  // pixels are signed and read back so.
  set("CCD_FRAME_TYPE.FRAME_LIGHT=On");
  set("CCD_BINNING.HOR_BIN;VER_BIN=1;1");
  set("CCD_FRAME.X;Y;WIDTH;HEIGHT=0;0;80;64");
  set("TVX_OPERATION_MODE.PROCESSED=On");
  const Hdu processed = checked(expose(0));
  EXPECT_EQ(processed.equivalent, SHORT_IMG);
  ASSERT_EQ(std::make_pair(processed.width, processed.height), std::make_pair(64L, 64L));
  const long long zero = 73 + 256 * 63 / 2;  // the reference columns' mean
  EXPECT_EQ(processed.at(3, 0), 3 - zero);
  EXPECT_EQ(processed.at(40, 50), coordinate(40, 50) - zero);
  EXPECT_EQ(processed.text("OPMODE"), "processed");
}

TEST_F(Driver, TheCooledChipFallsOverSeveralExposuresWithoutReconnecting) {
  connect();
  const double start = number("CCD_TEMPERATURE.CCD_TEMPERATURE_VALUE");
  EXPECT_NEAR(start, 20, 1);
  // The controller holds its own set point only: another target is refused, not pretended.
  set("CCD_TEMPERATURE.CCD_TEMPERATURE_VALUE=-20");
  EXPECT_TRUE(until("\"tvx CCD.CCD_TEMPERATURE._STATE\"==3"));
  EXPECT_NE(log().find("cannot hold -20.0 C"), std::string::npos) << log();
  EXPECT_EQ(get("CCD_COOLER.COOLER_ON"), "Off");
  // The hardware file's ccdtmp1 (173.15 K) is the set point.
  set("CCD_TEMPERATURE.CCD_TEMPERATURE_VALUE=-100");
  EXPECT_TRUE(
      until("\"tvx CCD.CCD_COOLER.COOLER_ON\"==1 && \"tvx CCD.CCD_TEMPERATURE._STATE\"==2"));

  std::vector<double> read;
  for (int i = 0; i < 3; ++i) read.push_back(checked(expose(0.5)).number("CCD-TEMP"));
  EXPECT_LT(read[0], start);
  EXPECT_GT(read[0] - read[2], 1.0) << read[0] << " " << read[1] << " " << read[2];
  EXPECT_LT(read[2], read[1]);
  // The property keeps following the chip, which is far from the set point yet.
  EXPECT_TRUE(
      until("\"tvx CCD.CCD_TEMPERATURE.CCD_TEMPERATURE_VALUE\"<" + std::to_string(read[2] - 1)));
  EXPECT_EQ(get("CCD_TEMPERATURE._STATE"), "Busy");

  set("CCD_COOLER.COOLER_OFF=On");
  EXPECT_TRUE(until("\"tvx CCD.CCD_COOLER._STATE\"==3")) << "this controller cannot switch off";
  EXPECT_EQ(get("CCD_COOLER.COOLER_ON"), "On");
}

TEST_F(Driver, AnAbortMidExposureIsPromptAndTheNextExposureIsGood) {
  connect();
  // A second client watches the countdown and the temperature while the first one drives.
  std::unique_ptr<Program> countdown = watch("CCD_EXPOSURE.CCD_EXPOSURE_VALUE");
  std::unique_ptr<Program> temperature = watch("CCD_TEMPERATURE.CCD_TEMPERATURE_VALUE");
  set("CCD_EXPOSURE.CCD_EXPOSURE_VALUE=60");
  ASSERT_TRUE(
      until("\"tvx CCD.CCD_EXPOSURE._STATE\"==2 && "
            "\"tvx CCD.CCD_EXPOSURE.CCD_EXPOSURE_VALUE\"<59"));
  EXPECT_TRUE(temperature->line(10).has_value()) << "the temperature comes in while exposing";
  set("CCD_ABORT_EXPOSURE.ABORT=On");
  // Long before the exposure would have ended.
  EXPECT_TRUE(until("\"tvx CCD.CCD_EXPOSURE._STATE\"!=2", 10));
  // The second client saw the exposure start and count down.
  std::vector<double> left;
  while (auto line = countdown->line(1))
    left.push_back(std::stod(line->substr(line->find('=') + 1)));
  const auto started = std::find(left.begin(), left.end(), 60.0);
  ASSERT_NE(started, left.end());
  EXPECT_LT(*std::min_element(started, left.end()), 59.5);

  const fs::path file = expose(0.2);
  EXPECT_EQ(file.filename(), "frame_001.fits") << "the aborted exposure left no file";
  const Hdu h = checked(file);
  EXPECT_EQ(h.number("EXPTIME"), 0.2);
  EXPECT_NEAR(mean(h), 1000, 50);
}

TEST_F(Driver, ABrokenDefinitionFileAlertsAndTheNextConnectionsWork) {
  const fs::path copy = dir_ / "camera";
  fs::copy(kShipped, copy, fs::copy_options::recursive);
  const auto changed = [](const fs::path &from, const fs::path &to, const std::string &was,
                          const std::string &is) {
    std::string text = slurp(from);
    ASSERT_NE(text.find(was), std::string::npos) << was;
    text.replace(text.find(was), was.size(), is);
    std::ofstream(to) << text;
  };
  changed(copy / "sim_small.def", copy / "broken.def", "xsize = 80", "xsize = eighty");
  set("TVX_DEFINITIONS.CCD=" + (copy / "broken.def").string());
  set("CONNECTION.CONNECT=On");
  ASSERT_TRUE(until("\"tvx CCD.CONNECTION._STATE\"==3"));
  EXPECT_EQ(get("CONNECTION.CONNECT"), "Off");
  const std::string messages = log();
  EXPECT_NE(messages.find("tvx CCD: [ERROR] Failed while"), std::string::npos) << messages;
  EXPECT_NE(messages.find("identifier 'xsize'"), std::string::npos) << "the library's own story";

  // The same driver takes the next request: two channels joined in 32-bit pixels, from a
  // hardware file of another name.
  changed(copy / "7100hw.def", copy / "two_channel.def", "    mode = 1\n", "    mode = 17\n");
  set("TVX_DEFINITIONS.HARDWARE;CCD=" + (copy / "two_channel.def").string() + ";" +
      (copy / "sim_small.def").string());
  connect();
  EXPECT_EQ(number("CCD_INFO.CCD_BITSPERPIXEL"), 32);
  set("TVX_SCENE.COORDINATES=On");
  ASSERT_TRUE(until("\"tvx CCD.TVX_SCENE._STATE\"==1"));
  const Hdu wide = checked(expose(0));
  EXPECT_EQ(wide.equivalent, ULONG_IMG);
  const long long v = coordinate(70, 60);
  EXPECT_EQ(wide.at(70, 60), v << 16 | (~v & 0xFFFF)) << "the first channel high, the second low";

  // And again after a disconnection.
  set("CONNECTION.DISCONNECT=On");
  ASSERT_TRUE(until("\"tvx CCD.CONNECTION.DISCONNECT\"==1 && \"tvx CCD.CONNECTION._STATE\"==0"));
  connect();
  EXPECT_EQ(checked(expose(0)).at(70, 60), wide.at(70, 60));
}
