// status: the camera's state as read from the controller.
#include <cmath>
#include <cstdio>

#include "commands.h"
#include "json.h"
#include "summary.h"

namespace tvxcam {

namespace {

struct VoltageLine {
  std::string name;
  const char *unit = "V";
  double value = 0, nominal = 0, tolerance = 0;
  bool in = false;
};

struct GainLine {
  int rate = 0, sensitivity = 0;
  double ms_per_pixel = 0, electrons_per_level = 0, peak = 0;
  std::string comment;
  bool current = false;
};

bool is_temperature(const std::string &name) {
  return name.find("tmp") != std::string::npos || name.find("temp") != std::string::npos;
}

}  // namespace

int run_status(const Command &c, Report &) {
  Session session(c.globals);
  stop_on_interrupt(session);
  HANDLE cam = session.camera();
  const ChipFacts &chip = session.chip();
  const Definitions &defs = session.definitions();

  double t2 = 0;
  const double t1 = session.ccd_celsius(&t2);
  INT32 xbin = 1, ybin = 1, black = 0, mode = 0;
  check(camera_get_binning(cam, &xbin, &ybin) && camera_get_blacklevel(cam, &black) &&
            camera_get_operation_mode(cam, &mode),
        "reading the camera's settings");

  camera_voltage measured[VOLTS_COUNT] = {};
  check(camera_get_allvoltages(cam, measured), "reading the voltages");
  std::vector<VoltageLine> volts;
  for (int id = 0; id < VOLTS_COUNT; ++id) {
    if (!measured[id].read || size_t(id) >= defs.volts.size()) continue;
    VoltageLine v;
    v.name = defs.volt_names[size_t(id)];
    if (is_temperature(v.name)) v.unit = "K";
    v.value = measured[id].value;
    v.nominal = defs.volts[size_t(id)].nominal;
    v.tolerance = defs.volts[size_t(id)].tolerance;
    v.in = std::fabs(v.value - v.nominal) <= v.tolerance;
    volts.push_back(v);
  }
  // The heat sink's and the board's temperatures are read as voltage channels, in kelvin.
  std::vector<std::pair<std::string, double>> boards;
  for (const VoltageLine &v : volts)
    if (v.name == "sinktemp" || v.name == "pcbtemp") boards.emplace_back(v.name, v.value);

  std::vector<GainLine> gains;
  for (INT32 index = 1;; ++index) {
    GainLine g;
    INT32 valid = 0;
    check(camera_get_gain_table(cam, &g.ms_per_pixel, &g.electrons_per_level, &valid, index),
          "reading the gain table");
    if (!valid || size_t(index) > defs.gains.size()) break;
    const GainRow &row = defs.gains[size_t(index) - 1];
    g.rate = row.pixel_rate;
    g.sensitivity = row.sensitivity;
    g.comment = row.comment;
    g.current = g.rate == chip.pixel_rate && g.sensitivity == chip.sensitivity;
    check(camera_get_peak_signal(cam, g.rate, g.sensitivity, &g.peak), "reading the peak signal");
    gains.push_back(g);
  }
  char version[32] = {}, product[32] = {};
  GetDllVersion(version, product);

  if (c.globals.json) {
    Json j;
    j.open();
    j.open("ccd")
        .field("type", chip.type)
        .field("mode", chip.mode)
        .field("serial_no", chip.serial_no)
        .field("product_reference", chip.product)
        .field("xsize", chip.xsize)
        .field("ysize", chip.ysize);
    j.open_array("active_area");
    for (int v : chip.active) j.field(nullptr, v);
    j.close_array()
        .field("xbin", long{xbin})
        .field("ybin", long{ybin})
        .field("blacklevel", long{black})
        .field("operation_mode", mode_name(mode))
        .field("pixel_rate", chip.pixel_rate)
        .field("sensitivity", chip.sensitivity)
        .close();
    j.open("controller")
        .field("device", defs.device)
        .field("simulated", session.simulated())
        .field("hardware_file", session.hardware_file())
        .field("ccd_file", session.ccd_file())
        .close();
    j.open("temperatures").field("ccd1_celsius", t1).field("ccd2_celsius", t2);
    for (const auto &[name, kelvin] : boards)
      j.field((name + "_celsius").c_str(), kelvin - kKelvinAtZeroCelsius);
    j.close();
    j.open_array("voltages");
    for (const VoltageLine &v : volts)
      j.open()
          .field("name", v.name)
          .field("unit", v.unit)
          .field("value", v.value)
          .field("nominal", v.nominal)
          .field("tolerance", v.tolerance)
          .field("in_tolerance", v.in)
          .close();
    j.close_array();
    j.open_array("gains");
    for (const GainLine &g : gains)
      j.open()
          .field("pixel_rate", g.rate)
          .field("sensitivity", g.sensitivity)
          .field("ms_per_pixel", g.ms_per_pixel)
          .field("electrons_per_level", g.electrons_per_level)
          .field("peak_signal", g.peak)
          .field("comment", g.comment)
          .field("current", g.current)
          .close();
    j.close_array();
    j.open_array("programs");
    for (const Program &p : defs.programs)
      j.open().field("name", p.name).field("file", p.file).close();
    j.close_array();
    j.field("library_version", std::string(version)).field("ok", true);
    j.close();
    std::printf("%s\n", j.text().c_str());
    return 0;
  }
  if (c.globals.quiet) return 0;
  print_header(session, "status");
  std::printf("  %-12s %s, mode %s, product %s\n", "ccd", chip.type.c_str(), chip.mode.c_str(),
              chip.product.c_str());
  std::printf("  %-12s %d x %d from (%d, %d); binning %dx%d; black level %d; operation mode %s\n",
              "active area", chip.active[2], chip.active[3], chip.active[0], chip.active[1],
              int{xbin}, int{ybin}, int{black}, mode_name(mode));
  std::printf("  %-12s %s\n  %-12s %s\n", "hardware", session.hardware_file().c_str(), "chip file",
              session.ccd_file().c_str());
  // The second reading comes from the heat sink, which the board temperatures list by name.
  std::printf("  %-12s CCD %.2f C", "temperature", t1);
  for (const auto &[name, kelvin] : boards)
    std::printf(", %s %.2f C", name.c_str(), kelvin - kKelvinAtZeroCelsius);
  std::printf("\n");
  std::printf("\n  %-10s %10s %10s %9s\n", "voltage", "measured", "nominal", "tolerance");
  int out_of_tolerance = 0;
  for (const VoltageLine &v : volts) {
    std::printf("  %-10s %8.3f %s %8.3f %s %7.3f %s  %s\n", v.name.c_str(), v.value, v.unit,
                v.nominal, v.unit, v.tolerance, v.unit, v.in ? "in" : "OUT");
    out_of_tolerance += v.in ? 0 : 1;
  }
  std::printf("  %d of %zu readable voltages in tolerance\n", int(volts.size()) - out_of_tolerance,
              volts.size());
  std::printf("\n  %-4s %-4s %9s %9s %10s  %s\n", "rate", "sens", "ms/pixel", "e-/level", "peak e-",
              "gain setting");
  for (const GainLine &g : gains)
    std::printf("  %-4d %-4d %9.4f %9.3f %10.0f  %s%s\n", g.rate, g.sensitivity, g.ms_per_pixel,
                g.electrons_per_level, g.peak, g.comment.c_str(), g.current ? "  (in use)" : "");
  std::printf("\n  %-12s", "programs");
  for (const Program &p : defs.programs) std::printf(" %s (%s)", p.name.c_str(), p.file.c_str());
  std::printf("\n  %-12s tvx %s\n", "library", version);
  return 0;
}

}  // namespace tvxcam
