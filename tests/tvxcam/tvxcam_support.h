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
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
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

// Runs `program` with `args` in `dir`, its output kept in files there. A run still going after
// `limit` seconds is killed and fails the test.
inline Outcome run_in(const fs::path &dir, const std::string &program,
                      const std::vector<std::string> &args, int limit = 100) {
  const fs::path out = dir / ".stdout", err = dir / ".stderr";
  // Everything the child needs is made before the fork: it only opens, duplicates and executes.
  std::vector<char *> argv{const_cast<char *>(program.c_str())};
  for (const std::string &a : args) argv.push_back(const_cast<char *>(a.c_str()));
  argv.push_back(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    if (chdir(dir.c_str()) != 0) _exit(126);
    const int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (o < 0 || e < 0 || dup2(o, 1) < 0 || dup2(e, 2) < 0) _exit(126);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  Outcome run;
  int status = 0;
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(limit);
  while (waitpid(pid, &status, WNOHANG) == 0) {
    if (std::chrono::steady_clock::now() > deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      ADD_FAILURE() << program << " still ran after " << limit << " s";
      return run;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.out = slurp(out);
  run.err = slurp(err);
  return run;
}

// One header-data unit: its keywords as written (strings keep their quotes) and its pixels, as
// cfitsio gives them with BZERO applied.
struct Hdu {
  int bitpix = 0, equivalent = 0, naxis = 0;
  long width = 0, height = 0;
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
  long long at(long x, long y) const { return pixels[size_t(y * width + x)]; }
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
    if (status == 0 && h.naxis == 2) {
      long axes[2] = {};
      fits_get_img_size(f, 2, axes, &status);
      h.width = axes[0];
      h.height = axes[1];
      h.pixels.resize(size_t(h.width * h.height));
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

// The first number after `label` in `text`, or NaN.
inline double figure(const std::string &text, const std::string &label) {
  const size_t at = text.find(label);
  if (at == std::string::npos) return std::nan("");
  return std::strtod(text.c_str() + at + label.size(), nullptr);
}

}  // namespace tvxcam_test
