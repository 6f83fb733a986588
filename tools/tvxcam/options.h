// What the command line of tvxcam asks for: the global options, those of each subcommand, and the
// small parsers behind them (binning "2x2", regions "x,y,w,h", operation modes, output formats).
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

// One exposure's settings, shared by snap and series, and where its picture goes.
struct Acquisition : session::Shot {
  std::vector<std::string> outputs;
  Stretch stretch = Stretch::asinh;
  double low_percent = 0.5, high_percent = 99.9;
};

struct SeriesOptions {
  long frames = 1;
  long delay_ms = 0;
  long preflush = 1;
};

struct CoolOptions {
  std::optional<double> celsius;  // none: the hardware file's nominal chip temperature
  bool wait = false;
  double timeout_s = 600.0;
  double settle_s = 30.0;
};

struct Command {
  std::string name;  // snap, series, status, cool, info or convert
  Globals globals;
  Acquisition acquisition;
  SeriesOptions series;
  CoolOptions cool;
  std::string input, output;  // info and convert
};

enum class Format { fits, png, native };

// Sets up the whole command line on `app`, filling `command` as it parses.
void define_command_line(CLI::App &app, Command &command);

// "2x2", "2" (both directions) or "1x4"; nothing else.
bool parse_binning(const std::string &text, int *x, int *y);
// "x,y,w,h" with x, y >= 0 and w, h >= 1.
bool parse_region(const std::string &text, Region *region);
// raw, iz, processed, pedestal or 0 .. 3.
bool parse_mode(const std::string &text, int *mode);
Format format_of(const std::string &path);

}  // namespace tvxcam
