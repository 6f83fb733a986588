// The command line: global options accepted before or after the subcommand, each subcommand's
// own, and the parsers that turn "2x2", "x,y,w,h", mode names and header cards into values.
#include "options.h"

#include <CLI/CLI.hpp>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>

#include "header.h"

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
CLI::Validator checked(const std::string &what, Parse parse) {
  return CLI::Validator(
      [what, parse](std::string &text) {
        return parse(text) ? std::string() : "not " + what + ": '" + text + "'";
      },
      "");
}

// CLI11's own range lets NaN through (no comparison with it is true); this one does not.
CLI::Validator real_in(double low, double high) {
  char what[96];
  std::snprintf(what, sizeof what, "a number from %g to %g", low, high);
  return checked(what, [low, high](const std::string &t) {
    double v = 0;
    return parse_real(t, low, high, &v);
  });
}

// The pixels' own limit: a binning or region beyond it is refused here rather than overflowing.
constexpr long kLargest = 32000;
constexpr long kLongestExposureMs = 24L * 3600 * 1000;

const std::pair<const char *, Format> kFormats[] = {{".fits", Format::fits},
                                                    {".fit", Format::fits},
                                                    {".fts", Format::fits},
                                                    {".png", Format::png},
                                                    {".img", Format::native}};

void add_preview(CLI::App *sub, Acquisition &a) {
  sub->add_option("--stretch", a.stretch, "preview stretch: asinh or percentile")
      ->transform(CLI::CheckedTransformer(
          std::map<std::string, Stretch>{{"asinh", Stretch::asinh},
                                         {"percentile", Stretch::percentile}},
          CLI::ignore_case));
  sub->add_option("--black", a.low_percent, "preview: the percentile shown black")
      ->check(real_in(0.0, 100.0));
  sub->add_option("--white", a.high_percent, "preview: the percentile shown white")
      ->check(real_in(0.0, 100.0));
}

// Where the files go and what is done with ones already there.
void add_writing(CLI::App *sub, Acquisition &a) {
  sub->add_option_function<std::string>(
         "--format", [&a](const std::string &t) { a.format = format_of("x." + t); },
         "format of outputs whose extension names none: fits, png or native")
      ->check(CLI::IsMember({"fits", "png", "native", "img"}));
  sub->add_flag("--overwrite", a.overwrite, "replace files that exist (else they are refused)");
}

void add_cooling_bounds(CLI::App *sub, CoolOptions &o, const char *when) {
  const std::string w = when;
  sub->add_option("--tolerance", o.bounds.tolerance_k,
                  w + "how near the set point the CCD must stay, in kelvin (0.5)")
      ->check(real_in(0.01, 50.0));
  sub->add_option("--settle", o.bounds.settle_s, w + "seconds it must stay there (30)")
      ->check(real_in(0.0, 3600.0));
  sub->add_option("--timeout", o.bounds.timeout_s, w + "longest wait in seconds (600)")
      ->check(real_in(1.0, 86400.0));
}

void add_acquisition(CLI::App *sub, Command &c, const char *what) {
  Acquisition &a = c.acquisition;
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
  sub->add_option("--type", a.type,
                  "IMAGETYP: light, dark (shutter closed), bias (no exposure, shutter closed) or "
                  "flat")
      ->check(CLI::IsMember({"light", "dark", "bias", "flat"}));
  sub->add_option("-o,--output", a.outputs,
                  "output file, by extension: .fits/.fit/.fts FITS, .png preview, .img native "
                  "(others need --format); repeat it for several");
  add_writing(sub, a);
  Observation &o = a.observation;
  sub->add_option("--object", o.object, "FITS OBJECT: what the picture shows");
  sub->add_option("--telescope", o.telescope, "FITS TELESCOP");
  sub->add_option("--observer", o.observer, "FITS OBSERVER");
  sub->add_option("--filter", o.filter, "FITS FILTER");
  sub->add_option_function<std::vector<std::string>>(
         "--header",
         [&o](const std::vector<std::string> &all) {
           for (const std::string &t : all) {
             Card card;
             parse_card(t, &card);
             o.extra.push_back(card);
           }
         },
         "a FITS keyword of your own, KEY=VALUE; repeat it for several")
      ->check(CLI::Validator(
          [](std::string &t) {
            Card card;
            return parse_card(t, &card);
          },
          ""));
  sub->add_flag("--cool", a.cool,
                "cool to the controller's set point and wait there before the first exposure");
  add_cooling_bounds(sub, c.cool, "with --cool: ");
  add_preview(sub, a);
}

// The checks that need several options at once, made before the camera is started.
void check_together(CLI::App &app, Command &c) {
  Acquisition &a = c.acquisition;
  if (a.low_percent >= a.high_percent)
    throw CLI::ValidationError("--black", "the black percentile must lie below the white one");
  if (c.name != "snap" && c.name != "series" && c.name != "convert") return;
  CLI::App *sub = app.get_subcommand(c.name);
  if (c.name != "convert") {
    if (a.type == "bias") {
      if (sub->count("--exposure") > 0 && a.exposure_ms > 0)
        throw CLI::ValidationError("--type", "a bias frame has no exposure: leave -e out");
      a.exposure_ms = 0;
    }
    if (a.dark && (a.type == "light" || a.type == "flat"))
      throw CLI::ValidationError("--dark", "a " + a.type + " frame opens the shutter");
    if (a.outputs.empty() && a.format)
      throw CLI::ValidationError("--format", "names the format of outputs: give them with -o");
  }
  std::vector<std::string> outputs = c.name == "convert" ? std::vector{c.output} : a.outputs;
  for (const std::string &out : outputs) {
    if (out == "-")
      throw CLI::ValidationError("--output",
                                 "tvxcam writes files, not standard output: name a file");
    const std::optional<Format> by_name = format_of(out);
    if (!by_name && !a.format)
      throw CLI::ValidationError(
          "--output", "'" + out +
                          "' has no extension tvxcam writes (.fits, .fit, .fts, .png, .img): "
                          "name one, or give --format fits, png or native");
    if (by_name && a.format && *by_name != *a.format)
      throw CLI::ValidationError("--format", std::string(format_name(*a.format)) + " for '" + out +
                                                 "', whose extension names " +
                                                 format_name(*by_name));
  }
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

bool parse_real(const std::string &text, double low, double high, double *out) {
  if (text.empty() || std::isspace(static_cast<unsigned char>(text[0]))) return false;
  errno = 0;
  char *end = nullptr;
  const double v = std::strtod(text.c_str(), &end);
  if (errno != 0 || *end != '\0' || !std::isfinite(v) || v < low || v > high) return false;
  *out = v;
  return true;
}

std::string parse_card(const std::string &text, Card *card) {
  const size_t equals = text.find('=');
  if (equals == std::string::npos) return "not KEY=VALUE: '" + text + "'";
  std::string key = text.substr(0, equals), value = text.substr(equals + 1);
  for (char &ch : key) ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
  if (const std::string why = reserved_keyword(key); !why.empty()) return why;
  if (value.size() > 68) return key + ": a value of at most 68 characters";
  card->key = key;
  card->comment.clear();
  long whole = 0;
  double real = 0;
  if (value.size() >= 2 && value.front() == '\'' && value.back() == '\'') {
    card->value = value.substr(1, value.size() - 2);
  } else if (parse_long(value, LONG_MIN, LONG_MAX, &whole)) {
    card->value = whole;
  } else if (parse_real(value, -HUGE_VAL, HUGE_VAL, &real)) {
    card->value = real;
    card->decimals = -15;  // as many digits as a double keeps
  } else {
    char *end = nullptr;
    std::strtod(value.c_str(), &end);
    if (end != value.c_str() && *end == '\0')
      return key + ": " + value + " is not a finite number; write '" + value + "' for text";
    card->value = value;
  }
  return {};
}

std::optional<Format> format_of(const std::string &path) {
  std::string ext = std::filesystem::path(path).extension().string();
  for (char &c : ext) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  for (const auto &[name, format] : kFormats)
    if (ext == name) return format;
  return std::nullopt;
}

const char *format_name(Format f) {
  return f == Format::fits ? "FITS" : f == Format::png ? "PNG" : "native";
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
  app.add_flag("--json", g.json, "print one JSON object, whatever happens");

  CLI::App *snap = app.add_subcommand("snap", "take one exposure and write it out");
  c.acquisition.exposure_ms = 1000;
  add_acquisition(snap, c, "the picture");

  CLI::App *series = app.add_subcommand("series", "take a series of frames, numbered outputs");
  add_acquisition(series, c, "each frame");
  series->add_option("-n,--frames", c.series.frames, "number of frames")
      ->check(CLI::Range(1L, 100000L));
  series->add_option("-d,--delay", c.series.delay_ms, "delay between frames in ms")
      ->check(CLI::Range(0L, kLongestExposureMs));
  series->add_option("-f,--preflush", c.series.preflush, "flushes of the chip before each frame")
      ->check(CLI::Range(0L, 100L));
  series->add_flag("--continue", c.series.continue_numbers,
                   "number the frames on from the highest number already there");

  app.add_subcommand("status", "show the camera: chip, temperatures, voltages, gains, programs");

  CLI::App *cool = app.add_subcommand(
      "cool", "switch the cooler on (it cools to the controller's own set point) and wait there");
  cool->add_option_function<std::string>(
          "-t,--temperature",
          [&c](const std::string &t) {
            double v = 0;
            parse_real(t, -273.15, 100.0, &v);
            c.cool.celsius = v;
          },
          "the set point you expect, in degrees Celsius: refused unless it is the controller's")
      ->check(real_in(-273.15, 100.0));
  cool->add_flag("-w,--wait", c.cool.wait, "wait until the CCD holds at the set point");
  add_cooling_bounds(cool, c.cool, "");

  CLI::App *info = app.add_subcommand("info", "describe an image file");
  info->add_option("FILE", c.input, "image file")->required();

  CLI::App *convert = app.add_subcommand("convert", "convert an image file to FITS, PNG or native");
  convert->add_option("IN", c.input, "image file")->required();
  convert->add_option("OUT", c.output, "output file, format by extension")->required();
  add_writing(convert, c.acquisition);
  add_preview(convert, c.acquisition);

  app.final_callback([&app, &c] {
    for (const char *name : {"snap", "series", "status", "cool", "info", "convert"})
      if (app.got_subcommand(name)) c.name = name;
    check_together(app, c);
  });
}

}  // namespace tvxcam
