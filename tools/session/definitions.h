// What a session reads from the definition files itself, beside the camera: the adapter's name (is
// it the simulator?), the simulator's own settings, every voltage's nominal value and tolerance,
// the gain table's rows with their descriptions and the camera programs.
#pragma once

#include <string>
#include <vector>

#include "tvx/tvx.h"

namespace session {

struct GainRow {
  int pixel_rate = 0, sensitivity = 0;
  double ms_per_pixel = 0;
  std::string comment;
};

struct Program {
  std::string name, file;
};

struct Definitions {
  std::string device;  // DEVICE name; "simulator" for the simulated camera
  bool has_simulator = false;
  simulator sim{};
  std::vector<voltage> volts;  // by id; names copied into `names`
  std::vector<std::string> volt_names;
  std::vector<GainRow> gains;
  std::vector<Program> programs;
};

// Reads the hardware file and, when given, the CCD file. False (with the library's error set)
// when they do not parse.
bool read_definitions(const std::string &hw, const std::string &ccd, Definitions *out);

// The definition files as the library reads them: one text, the hardware file first, in which
// its messages count lines. This tells such a line as a line of the file that holds it, and
// where each section's values begin.
class DefinitionText {
 public:
  explicit DefinitionText(const std::vector<std::string> &files);

  // "sim_small.def, line 30" for line 235 of the whole text; empty past its end. The reader
  // does not count the line feeds inside quotes; the line told here is the file's own.
  std::string where(long line) const;
  // "7100hw.def, line 105" where the values of section `name` begin; empty when none does.
  std::string section(const std::string &name) const;

  // One file as the reader walks it.
  struct File {
    std::string path;
    std::vector<long> starts;  // the file's line on which each line the reader counts begins
    bool open_end = false;     // its last line has no line feed: it runs on into the next file
    std::vector<std::pair<std::string, long>> sections;  // section values and their lines
  };

 private:
  std::vector<File> files_;
};

// The CCD definition file the camera reads for `ccd`: the same name with the extension ".def".
std::string ccd_definition_file(const std::string &ccd);

}  // namespace session
