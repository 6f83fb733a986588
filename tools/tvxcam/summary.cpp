// The summary lines: one screen that says what was taken, how, and where it went.
#include "summary.h"

#include <cstdio>
#include <filesystem>

namespace tvxcam {

Stages stages_of(Progress &p) {
  return Stages{[&p](const char *label) { p.start_open(label); },
                [&p](const char *label, double s) { p.start_timed(label, s); }, [&p] { p.end(); }};
}

std::string size_text(const std::string &path) {
  std::error_code ec;
  const auto bytes = std::filesystem::file_size(path, ec);
  if (ec) return "?";
  char text[32];
  if (bytes >= 1024 * 1024)
    std::snprintf(text, sizeof text, "%.1f MiB", double(bytes) / (1024.0 * 1024.0));
  else if (bytes >= 1024)
    std::snprintf(text, sizeof text, "%.1f KiB", double(bytes) / 1024.0);
  else
    std::snprintf(text, sizeof text, "%ju bytes", static_cast<uintmax_t>(bytes));
  return text;
}

std::string shape_text(const Shape &s) {
  return std::to_string(s.width) + " x " + std::to_string(s.height) + ", " +
         std::to_string(s.depth) + "-bit " + (s.is_signed ? "signed" : "unsigned");
}

void print_stats(const char *label, const Stats &st) {
  std::printf("  %-12s min %.0f  max %.0f  mean %.1f  median %.0f  sdev %.1f\n", label, st.min,
              st.max, st.mean, st.median, st.sdev);
}

void print_header(const Session &s, const char *command) {
  const ChipFacts &c = s.chip();
  std::printf("tvxcam %s: %s %s, %d x %d, on the %s\n", command, c.type.c_str(),
              c.serial_no.c_str(), c.xsize, c.ysize,
              s.simulated() ? "simulated 7100 controller" : "7100 controller");
}

void print_exposure(const Exposure &e) {
  const char *type = e.seconds == 0 ? "bias frame" : e.dark ? "dark frame" : "light frame";
  std::printf("  %-12s %.3f s from %s UTC", type, e.seconds, e.date_obs.c_str());
  if (e.ccd_celsius) std::printf(", CCD %.1f C", *e.ccd_celsius);
  std::printf("\n  %-12s binning %dx%d, mode %s, %s, %.3f e-/level\n", "readout", e.xbin, e.ybin,
              mode_name(e.mode), e.readout_mode.c_str(), e.electrons_per_level);
}

void print_planes(const std::vector<Plane> &planes) {
  for (const Plane &p : planes) {
    const Shape shape = shape_of(p.image);
    std::string where;
    if (p.x0 && p.y0)
      where = " from (" + std::to_string(*p.x0) + ", " + std::to_string(*p.y0) + ")";
    std::printf("  %-12s %s%s\n", p.name.empty() ? "image" : p.name.c_str(),
                shape_text(shape).c_str(), where.c_str());
    print_stats("", stats_of(p.image));
  }
}

void print_written(const std::vector<Written> &written) {
  const char *label = "wrote";
  for (const Written &w : written) {
    std::printf("  %-12s %s (%s, %s)\n", label, w.path.c_str(), w.description.c_str(),
                size_text(w.path).c_str());
    label = "";
  }
}

}  // namespace tvxcam
