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

}  // namespace session
