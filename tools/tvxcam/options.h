// What the command line of tvxcam asks for: the global options, those of each subcommand, and the
// small parsers behind them (binning "2x2", regions "x,y,w,h", operation modes, output formats).
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tvxcam {

// A failure of tvxcam's own, not of the library: its text is the whole story.
struct Failure {
  std::string text;
};

struct Globals {
  std::string hw;   // hardware definition file; empty: the shipped simulated camera's
  std::string ccd;  // CCD definition file; empty: the shipped small chip
  std::string scene;
  std::optional<long> seed;
  bool realtime = false;
  bool virtual_clock = false;
  bool quiet = false;
  bool json = false;
};

struct Region {
  int x = 0, y = 0, width = 0, height = 0;
};

enum class Stretch { percentile, asinh };

// One exposure's settings, shared by snap and series.
struct Acquisition {
  long exposure_ms = 0;
  int xbin = 1, ybin = 1;
  std::vector<Region> regions;
  int mode = 0;
  bool dark = false;
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
const char *mode_name(int mode);
Format format_of(const std::string &path);

// The directory of the shipped simulated camera: the first of $TVX_DATA_DIR, the installed
// share/tvx/sim beside the program and the source tree's data/sim that holds the hardware file.
// Empty when none does.
std::string shipped_data_dir();

}  // namespace tvxcam
