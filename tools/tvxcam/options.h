// What the command line of tvxcam asks for: the global options, those of each subcommand, and the
// small parsers behind them (binning "2x2", regions "x,y,w,h", operation modes, output formats,
// header keywords).
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "session.h"

namespace CLI {
class App;
}

namespace tvxcam {

// tvxcam is the session's command line: its camera, pictures, pixels and files.
using namespace session;

// The camera to use, and how much to say.
struct Globals : session::Setup {
  bool quiet = false;
  bool json = false;
};

enum class Stretch { percentile, asinh };
enum class Format { fits, png, native };

// How long and how closely to wait for the cooler (cool --wait, snap and series --cool).
struct CoolOptions {
  std::optional<double> celsius;  // -t: must be the controller's own set point
  bool wait = false;
  session::CoolingWait bounds;
};

// One exposure's settings, shared by snap and series, and where its picture goes.
struct Acquisition : session::Shot {
  std::vector<std::string> outputs;
  std::optional<Format> format;  // for outputs whose extension names none
  bool overwrite = false;
  Stretch stretch = Stretch::asinh;
  double low_percent = 0.5, high_percent = 99.9;
  bool cool = false;  // cool to the set point and wait before the first exposure
};

struct SeriesOptions {
  long frames = 1;
  long delay_ms = 0;
  long preflush = 1;
  bool continue_numbers = false;  // number after the highest number already in the directory
};

struct Command {
  std::string name;  // snap, series, status, cool, info or convert
  Globals globals;
  Acquisition acquisition;
  SeriesOptions series;
  CoolOptions cool;
  std::string input, output;  // info and convert
};

// Sets up the whole command line on `app`, filling `command` as it parses.
void define_command_line(CLI::App &app, Command &command);

// "2x2", "2" (both directions) or "1x4"; nothing else.
bool parse_binning(const std::string &text, int *x, int *y);
// "x,y,w,h" with x, y >= 0 and w, h >= 1.
bool parse_region(const std::string &text, Region *region);
// raw, iz, processed, pedestal or 0 .. 3.
bool parse_mode(const std::string &text, int *mode);
// A finite number in [low, high], all of the text; no NaN, no infinity.
bool parse_real(const std::string &text, double low, double high, double *out);
// KEY=VALUE as a header card: a whole number, a finite real, or text ('quoted' to keep a number
// as text). Empty when it is fine, else why not.
std::string parse_card(const std::string &text, Card *card);
// The format an output's extension names: .fits/.fit/.fts, .png or .img; none for any other.
std::optional<Format> format_of(const std::string &path);
const char *format_name(Format f);

}  // namespace tvxcam
