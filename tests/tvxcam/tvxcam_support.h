// Running tvxcam as a user does, in a directory of its own, and reading back what it wrote: FITS
// through cfitsio, PNG through libpng, and fitsverify's verdict.
#pragma once

#include <fcntl.h>
#include <fitsio.h>
#include <gtest/gtest.h>
#include <png.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace tvxcam_test {

namespace fs = std::filesystem;

struct Outcome {
  int status = -1;  // exit status; -1 when killed or not run
  std::string out, err;
};

inline std::string slurp(const fs::path &path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// Starts `program` with `args` in `dir`, with `env` ("NAME=value") added to its environment and
// its output kept in files there.
inline pid_t start_in(const fs::path &dir, const std::string &program,
                      const std::vector<std::string> &args,
                      const std::vector<std::string> &env = {}) {
  const fs::path out = dir / ".stdout", err = dir / ".stderr";
  // Everything the child needs is made before the fork: it only opens, duplicates and executes.
  std::vector<char *> argv{const_cast<char *>(program.c_str())};
  for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    for (const std::string &e : env) putenv(const_cast<char *>(e.c_str()));
    if (chdir(dir.c_str()) != 0) _exit(126);
    const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(126);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  return pid;
}

// Waits for a program `start_in` started. One still going after `limit` seconds is killed and
// fails the test.
inline Outcome finish(const fs::path &dir, pid_t pid, int limit = 100) {
  Outcome run;
  int status = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limit);
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      ADD_FAILURE() << "still running after " << limit << " s";
      return run;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.out = slurp(dir / ".stdout");
  run.err = slurp(dir / ".stderr");
  return run;
}

inline Outcome run_in(const fs::path &dir, const std::string &program,
                      const std::vector<std::string> &args, int limit = 100) {
  return finish(dir, start_in(dir, program, args), limit);
}

// One header-data unit: its keywords as written (strings keep their quotes) and its pixels, as
// cfitsio gives them with BZERO applied.
struct Hdu {
  int bitpix = 0, equivalent = 0, naxis = 0;
  long width = 0, height = 0, planes = 1;
  std::map<std::string, std::string> keys;
  std::vector<long long> pixels;

  bool has(const std::string &key) const { return keys.count(key) != 0; }
  std::string text(const std::string &key) const {
    std::string v = has(key) ? keys.at(key) : "";
    if (v.size() >= 2 && v.front() == '\'') v = v.substr(1, v.size() - 2);
    while (!v.empty() && v.back() == ' ') v.pop_back();
    return v;
  }
  double number(const std::string &key) const {
    return has(key) ? std::strtod(keys.at(key).c_str(), nullptr) : -1e300;
  }
  long long at(long x, long y, long plane = 0) const {
    return pixels[size_t((plane * height + y) * width + x)];
  }
};

inline std::vector<Hdu> read_fits(const fs::path &path) {
  std::vector<Hdu> hdus;
  fitsfile *f = nullptr;
  int status = 0, count = 0;
  fits_open_diskfile(&f, const_cast<char *>(path.c_str()), READONLY, &status);
  fits_get_num_hdus(f, &count, &status);
  for (int i = 1; status == 0 && i <= count; ++i) {
    Hdu h;
    int keys = 0;
    fits_movabs_hdu(f, i, nullptr, &status);
    fits_get_hdrspace(f, &keys, nullptr, &status);
    for (int k = 1; status == 0 && k <= keys; ++k) {
      char name[FLEN_KEYWORD] = {}, value[FLEN_VALUE] = {}, comment[FLEN_COMMENT] = {};
      fits_read_keyn(f, k, name, value, comment, &status);
      h.keys[name] = value;
    }
    fits_get_img_type(f, &h.bitpix, &status);
    fits_get_img_equivtype(f, &h.equivalent, &status);
    fits_get_img_dim(f, &h.naxis, &status);
    if (status == 0 && (h.naxis == 2 || h.naxis == 3)) {
      long axes[3] = {1, 1, 1};
      fits_get_img_size(f, 3, axes, &status);
      h.width = axes[0];
      h.height = axes[1];
      h.planes = axes[2];
      h.pixels.resize(size_t(h.width * h.height * h.planes));
      int nulls = 0;
      fits_read_img(f, TLONGLONG, 1, LONGLONG(h.pixels.size()), nullptr, h.pixels.data(), &nulls,
                    &status);
    }
    hdus.push_back(std::move(h));
  }
  int ignored = 0;
  if (f != nullptr) fits_close_file(f, &ignored);
  char text[FLEN_STATUS] = {};
  fits_get_errstatus(status, text);
  EXPECT_EQ(status, 0) << path << ": " << text;
  return hdus;
}

struct Grey {
  unsigned width = 0, height = 0;
  std::vector<unsigned char> pixels;
  int at(unsigned x, unsigned y) const { return pixels[size_t(y) * width + x]; }
};

inline Grey read_png(const fs::path &path) {
  Grey g;
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_file(&image, path.c_str()) == 0) {
    ADD_FAILURE() << path << ": " << image.message;
    return g;
  }
  EXPECT_EQ(image.format & PNG_FORMAT_FLAG_COLOR, 0u) << "a greyscale preview";
  EXPECT_EQ(image.format & PNG_FORMAT_FLAG_ALPHA, 0u);
  image.format = PNG_FORMAT_GRAY;
  g.width = image.width;
  g.height = image.height;
  g.pixels.resize(PNG_IMAGE_SIZE(image));
  if (png_image_finish_read(&image, nullptr, g.pixels.data(), 0, nullptr) == 0)
    ADD_FAILURE() << path << ": " << image.message;
  return g;
}

// fitsverify's count of warnings and errors, or {-1, -1} when it gave none.
inline std::pair<int, int> fitsverify(const fs::path &dir, const std::string &file, Outcome *run) {
  if (std::string(FITSVERIFY).empty()) {
    ADD_FAILURE() << "fitsverify is not installed (Debian package fitsverify)";
    return {-1, -1};
  }
  *run = run_in(dir, FITSVERIFY, {file});
  std::smatch m;
  static const std::regex verdict(R"(found (\d+) warning\(s\) and (\d+) error\(s\))");
  if (!std::regex_search(run->out, m, verdict)) return {-1, -1};
  return {std::stoi(m[1]), std::stoi(m[2])};
}

// A JSON value as tvxcam's --json output holds them.
struct JsonValue {
  enum Kind { null, boolean, number, string, array, object } kind = null;
  bool truth = false;
  double value = 0;
  std::string text;
  std::vector<JsonValue> items;
  std::vector<std::pair<std::string, JsonValue>> members;

  // The member `key`, or a null value.
  const JsonValue &operator[](const std::string &key) const {
    static const JsonValue none;
    for (const auto &[k, v] : members)
      if (k == key) return v;
    return none;
  }
  bool has(const std::string &key) const {
    for (const auto &m : members)
      if (m.first == key) return true;
    return false;
  }
};

// A strict reader of one JSON value: it fails on anything the grammar does not allow.
class JsonReader {
 public:
  explicit JsonReader(const std::string &text) : t_(text) {}
  // The one value that fills the text (white space aside), or nothing.
  std::optional<JsonValue> read() {
    JsonValue v;
    if (!value(&v)) return std::nullopt;
    space();
    if (at_ != t_.size()) return std::nullopt;
    return v;
  }

 private:
  void space() {
    while (at_ < t_.size() && std::strchr(" \t\r\n", t_[at_]) != nullptr) ++at_;
  }
  bool word(const char *w) {
    const size_t n = std::strlen(w);
    if (t_.compare(at_, n, w) != 0) return false;
    at_ += n;
    return true;
  }
  bool value(JsonValue *v) {
    space();
    if (at_ >= t_.size()) return false;
    const char c = t_[at_];
    if (c == '{') return object(v);
    if (c == '[') return array(v);
    if (c == '"') {
      v->kind = JsonValue::string;
      return string(&v->text);
    }
    if (word("null")) return true;
    if (word("true") || word("false")) {
      v->kind = JsonValue::boolean;
      v->truth = c == 't';
      return true;
    }
    static const std::regex kNumber(R"(^-?(0|[1-9]\d*)(\.\d+)?([eE][+-]?\d+)?)");
    std::smatch m;
    const std::string rest = t_.substr(at_, 40);
    if (!std::regex_search(rest, m, kNumber)) return false;
    v->kind = JsonValue::number;
    v->value = std::stod(m[0]);
    at_ += size_t(m.length(0));
    return true;
  }
  bool string(std::string *out) {
    ++at_;
    while (at_ < t_.size() && t_[at_] != '"') {
      char c = t_[at_++];
      if (static_cast<unsigned char>(c) < 0x20) return false;
      if (c == '\\') {
        if (at_ >= t_.size()) return false;
        const char e = t_[at_++];
        static const std::string kPlain = "\"\\/bfnrt", kMeant = "\"\\/\b\f\n\r\t";
        if (e == 'u') {
          if (at_ + 4 > t_.size()) return false;
          c = static_cast<char>(std::stoi(t_.substr(at_, 4), nullptr, 16));
          at_ += 4;
        } else if (kPlain.find(e) != std::string::npos) {
          c = kMeant[kPlain.find(e)];
        } else {
          return false;
        }
      }
      *out += c;
    }
    return at_++ < t_.size();
  }
  template <class Item>
  bool list(char close, Item item) {
    ++at_;
    space();
    if (at_ < t_.size() && t_[at_] == close) {
      ++at_;
      return true;
    }
    for (;;) {
      if (!item()) return false;
      space();
      if (at_ < t_.size() && t_[at_] == ',') {
        ++at_;
        continue;
      }
      return at_ < t_.size() && t_[at_++] == close;
    }
  }
  bool array(JsonValue *v) {
    v->kind = JsonValue::array;
    return list(']', [&] { return value(&v->items.emplace_back()); });
  }
  bool object(JsonValue *v) {
    v->kind = JsonValue::object;
    return list('}', [&] {
      space();
      std::string key;
      if (at_ >= t_.size() || t_[at_] != '"' || !string(&key)) return false;
      space();
      if (at_ >= t_.size() || t_[at_++] != ':') return false;
      return value(&v->members.emplace_back(key, JsonValue{}).second);
    });
  }
  const std::string &t_;
  size_t at_ = 0;
};

// The first number after `label` in `text`, or NaN.
inline double figure(const std::string &text, const std::string &label) {
  const size_t at = text.find(label);
  if (at == std::string::npos) return std::nan("");
  return std::strtod(text.c_str() + at + label.size(), nullptr);
}

// ---- the fixture ----

inline const fs::path kShipped = fs::path(TVX_SOURCE_DIR) / "data" / "sim";

class Tvxcam : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto *info = ::testing::UnitTest::GetInstance()->current_test_info();
    dir_ = fs::temp_directory_path() /
           ("tvxcam-test-" + std::string(info->name()) + "-" + std::to_string(getpid()));
    fs::remove_all(dir_);
    fs::create_directories(dir_);
  }
  void TearDown() override { fs::remove_all(dir_); }

  Outcome cam(const std::vector<std::string> &args) { return run_in(dir_, TVXCAM, args); }
  // On the virtual clock: exposures and waits take no real time.
  Outcome sim(std::vector<std::string> args) {
    args.insert(args.begin(), "--virtual-clock");
    return cam(args);
  }
  // A copy of the simulated camera's files, to spoil or change.
  fs::path copy_of_shipped(const std::string &name) {
    const fs::path to = dir_ / name;
    fs::copy(kShipped, to, fs::copy_options::recursive);
    return to;
  }
  void verified(const std::string &file) {
    Outcome run;
    EXPECT_EQ(fitsverify(dir_, file, &run), std::make_pair(0, 0)) << run.out;
  }

  fs::path dir_;
};

inline void replace_in(const fs::path &file, const std::string &from, const std::string &to) {
  std::string text = slurp(file);
  const size_t at = text.find(from);
  ASSERT_NE(at, std::string::npos) << from;
  text.replace(at, from.size(), to);
  std::ofstream(file, std::ios::binary) << text;
}

// "2026-11-21T18:04:29.565" as seconds since the epoch, UTC.
inline double utc_seconds(const std::string &text) {
  std::tm t{};
  int ms = 0;
  if (std::sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d.%3d", &t.tm_year, &t.tm_mon, &t.tm_mday,
                  &t.tm_hour, &t.tm_min, &t.tm_sec, &ms) != 7)
    return -1;
  t.tm_year -= 1900;
  t.tm_mon -= 1;
  return double(timegm(&t)) + ms / 1000.0;
}

// The coordinate scene: an unbinned pixel holds its column plus 256 times its row.
inline long long coordinate(long x, long y) {
  return (x + 256 * y) & 0xFFFF;
}

}  // namespace tvxcam_test
