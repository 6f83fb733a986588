// The command line: global options accepted before or after the subcommand, each subcommand's
// own, and the parsers that turn "2x2", "x,y,w,h" and mode names into numbers.
#include "options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>

namespace tvxcam {

namespace {

// A whole decimal number in [low, high]; nothing may follow it.
bool parse_long(const std::string &text, long low, long high, long *out) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return false;
  errno = 0;
  char *end = nullptr;
  const long v = std::strtol(text.c_str(), &end, 10);
  if (errno != 0 || *end != '\0' || v < low || v > high) return false;
  *out = v;
  return true;
}

// A validator from a parser: CLI11 reports its text as a usage error.
template <class Parse>
CLI::Validator checked(const char *what, Parse parse) {
  return CLI::Validator(
      [what, parse](std::string &text) {
        return parse(text) ? std::string() : std::string("not ") + what + ": '" + text + "'";
      },
      what);
}

// The pixels' own limit: a binning or region beyond it is refused here rather than overflowing.
constexpr long kLargest = 32000;
constexpr long kLongestExposureMs = 24L * 3600 * 1000;

void add_preview(CLI::App *sub, Acquisition &a);

void add_acquisition(CLI::App *sub, Acquisition &a, const char *what) {
  sub->add_option("-e,--exposure", a.exposure_ms, std::string("exposure of ") + what + " in ms")
      ->check(CLI::Range(0L, kLongestExposureMs));
  sub->add_option_function<std::string>(
         "-b,--binning", [&a](const std::string &t) { parse_binning(t, &a.xbin, &a.ybin); },
         "binning, as 2x2 (x by y) or 2")
      ->check(checked("a binning like 2x2", [](const std::string &t) {
        int x, y;
        return parse_binning(t, &x, &y);
      }));
  sub->add_option_function<std::vector<std::string>>(
         "-r,--region",
         [&a](const std::vector<std::string> &all) {
           for (const std::string &t : all) {
             Region r;
             parse_region(t, &r);
             a.regions.push_back(r);
           }
         },
         "a region x,y,w,h in unbinned chip pixels; repeat it for several")
      ->check(checked("a region x,y,w,h", [](const std::string &t) {
        Region r;
        return parse_region(t, &r);
      }));
  sub->add_option_function<std::string>(
         "-m,--mode", [&a](const std::string &t) { parse_mode(t, &a.mode); },
         "operation mode: raw, iz, processed, pedestal (or 0 .. 3)")
      ->check(checked("an operation mode", [](const std::string &t) {
        int m;
        return parse_mode(t, &m);
      }));
  sub->add_flag("--dark", a.dark, "dark frame: the shutter stays closed");
  sub->add_option("-o,--output", a.outputs,
                  "output file, by extension: .fits/.fit FITS, .png preview, any other the "
                  "native format; repeat it for several");
  add_preview(sub, a);
}

void add_preview(CLI::App *sub, Acquisition &a) {
  sub->add_option("--stretch", a.stretch, "preview stretch: asinh or percentile")
      ->transform(CLI::CheckedTransformer(
          std::map<std::string, Stretch>{{"asinh", Stretch::asinh},
                                         {"percentile", Stretch::percentile}},
          CLI::ignore_case));
  sub->add_option("--black", a.low_percent, "preview: the percentile shown black")
      ->check(CLI::Range(0.0, 100.0));
  sub->add_option("--white", a.high_percent, "preview: the percentile shown white")
      ->check(CLI::Range(0.0, 100.0));
}

}  // namespace

bool parse_binning(const std::string &text, int *x, int *y) {
  const size_t by = text.find_first_of("xX");
  long bx = 0, byv = 0;
  if (by == std::string::npos) {
    if (!parse_long(text, 1, kLargest, &bx)) return false;
    byv = bx;
  } else if (!parse_long(text.substr(0, by), 1, kLargest, &bx) ||
             !parse_long(text.substr(by + 1), 1, kLargest, &byv)) {
    return false;
  }
  *x = static_cast<int>(bx);
  *y = static_cast<int>(byv);
  return true;
}

bool parse_region(const std::string &text, Region *region) {
  long v[4];
  size_t start = 0;
  for (int i = 0; i < 4; ++i) {
    const size_t comma = i < 3 ? text.find(',', start) : text.size();
    if (comma == std::string::npos) return false;
    if (!parse_long(text.substr(start, comma - start), i < 2 ? 0 : 1, kLargest, &v[i]))
      return false;
    start = comma + 1;
  }
  *region = Region{int(v[0]), int(v[1]), int(v[2]), int(v[3])};
  return true;
}

bool parse_mode(const std::string &text, int *mode) {
  for (int m = 0; m < 4; ++m)
    if (text == session::mode_name(m) || text == std::to_string(m)) {
      *mode = m;
      return true;
    }
  return false;
}

Format format_of(const std::string &path) {
  std::string ext = std::filesystem::path(path).extension().string();
  for (char &c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (ext == ".fits" || ext == ".fit" || ext == ".fts") return Format::fits;
  if (ext == ".png") return Format::png;
  return Format::native;
}

void define_command_line(CLI::App &app, Command &c) {
  app.require_subcommand(1);
  app.fallthrough();
  Globals &g = c.globals;
  app.add_option("--hw", g.hw, "hardware definition file (default: the simulated camera's)");
  app.add_option("--ccd", g.ccd, "CCD definition file (default: the simulated small chip)");
  app.add_option("--scene", g.scene, "simulator: what the camera looks at")
      ->check(CLI::IsMember({"starfield", "coordinates", "flat", "dark"}));
  app.add_option_function<long>(
         "--seed", [&g](const long &v) { g.seed = v; }, "simulator: the scene's seed")
      ->check(CLI::Range(0L, long{INT_MAX}));
  app.add_flag("--realtime", g.realtime, "simulator: read out at the pixel rate");
  app.add_flag("--virtual-clock", g.virtual_clock,
               "simulator: time passes only while the program waits, so exposures and cooling "
               "take no real time");
  app.add_flag("-q,--quiet", g.quiet, "no progress and no summary");
  app.add_flag("--json", g.json, "status, info: machine-readable output");

  CLI::App *snap = app.add_subcommand("snap", "take one exposure and write it out");
  c.acquisition.exposure_ms = 1000;
  add_acquisition(snap, c.acquisition, "the picture");

  CLI::App *series = app.add_subcommand("series", "take a series of frames, numbered outputs");
  add_acquisition(series, c.acquisition, "each frame");
  series->add_option("-n,--frames", c.series.frames, "number of frames")
      ->check(CLI::Range(1L, 100000L));
  series->add_option("-d,--delay", c.series.delay_ms, "delay between frames in ms")
      ->check(CLI::Range(0L, kLongestExposureMs));
  series->add_option("-f,--preflush", c.series.preflush, "flushes of the chip before each frame")
      ->check(CLI::Range(0L, 100L));

  app.add_subcommand("status", "show the camera: chip, temperatures, voltages, gains, programs");

  CLI::App *cool = app.add_subcommand("cool", "set the CCD temperature, optionally wait for it");
  cool->add_option_function<double>(
          "-t,--temperature", [&c](const double &v) { c.cool.celsius = v; },
          "target in degrees Celsius (default: the hardware file's nominal)")
      ->check(CLI::Range(-273.0, 100.0));
  cool->add_flag("-w,--wait", c.cool.wait, "wait until the temperature is stable");
  cool->add_option("--timeout", c.cool.timeout_s, "longest wait in seconds")
      ->check(CLI::Range(1.0, 86400.0));
  cool->add_option("--settle", c.cool.settle_s, "seconds the temperature must hold still")
      ->check(CLI::Range(1.0, 3600.0));

  CLI::App *info = app.add_subcommand("info", "describe an image file");
  info->add_option("FILE", c.input, "image file")->required();

  CLI::App *convert = app.add_subcommand("convert", "convert an image file to FITS, PNG or native");
  convert->add_option("IN", c.input, "image file")->required();
  convert->add_option("OUT", c.output, "output file, format by extension")->required();
  add_preview(convert, c.acquisition);

  app.final_callback([&app, &c] {
    for (const char *name : {"snap", "series", "status", "cool", "info", "convert"})
      if (app.got_subcommand(name)) c.name = name;
    // Caught here rather than after an exposure that could not be shown.
    if (c.acquisition.low_percent >= c.acquisition.high_percent)
      throw CLI::ValidationError("--black", "the black percentile must lie below the white one");
  });
}

}  // namespace tvxcam
