// The summary lines: one screen that says what was taken, how, and where it went; and the same
// in JSON.
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

std::string shape_text(const Shape &s, int channels) {
  if (channels == 2)
    return std::to_string(s.width) + " x " + std::to_string(s.height) +
           ", 2 channels of 16-bit unsigned";
  return std::to_string(s.width) + " x " + std::to_string(s.height) + ", " +
         std::to_string(s.depth) + "-bit " + (s.is_signed ? "signed" : "unsigned");
}

std::vector<std::pair<std::string, Stats>> plane_stats(const Plane &p) {
  if (p.channels != 2) return {{"", stats_of(p.image)}};
  return {{"channel 1", stats_of(channel_values(p.image, 1))},
          {"channel 2", stats_of(channel_values(p.image, 2))}};
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
  std::string type = image_type(e);
  for (char &c : type) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  std::printf("  %-12s %.3f s from %s UTC", type.c_str(), e.seconds, e.date_obs.c_str());
  if (e.ccd_celsius) std::printf(", CCD %.1f C", *e.ccd_celsius);
  if (e.ccd_celsius_end && e.seconds > 0) std::printf(" .. %.1f C", *e.ccd_celsius_end);
  if (e.set_point) std::printf(" (set point %.1f C)", *e.set_point);
  std::printf("\n  %-12s binning %dx%d, mode %s, %s, %.3f e-/level", "readout", e.xbin, e.ybin,
              mode_name(e.mode), e.readout_mode.c_str(), e.electrons_per_level);
  if (e.image_zero) std::printf(", image zero %ld", *e.image_zero);
  std::printf("\n");
}

void print_planes(const std::vector<Plane> &planes) {
  for (const Plane &p : planes) {
    std::string where;
    if (p.x0 && p.y0)
      where = " from (" + std::to_string(*p.x0) + ", " + std::to_string(*p.y0) + ")";
    std::printf("  %-12s %s%s\n", p.name.empty() ? "image" : p.name.c_str(),
                shape_text(shape_of(p.image), p.channels).c_str(), where.c_str());
    for (const auto &[label, st] : plane_stats(p)) print_stats(label.c_str(), st);
  }
}

void print_writing(const Writing &w) {
  const char *label = "wrote";
  for (const Written &f : w.written) {
    std::printf("  %-12s %s (%s, %s)\n", label, f.path.c_str(), f.description.c_str(),
                size_text(f.path).c_str());
    label = "";
  }
  std::fflush(stdout);
  for (const Unwritten &f : w.failed) std::fprintf(stderr, "tvxcam: %s\n", f.message.c_str());
}

void json_camera(Json &j, const Session &s) {
  const ChipFacts &c = s.chip();
  j.open("camera")
      .field("detector", c.type)
      .field("serial_no", c.serial_no)
      .field("xsize", c.xsize)
      .field("ysize", c.ysize)
      .field("simulated", s.simulated())
      .close();
}

void json_exposure(Json &j, const Exposure &e) {
  j.open("exposure")
      .field("type", image_type(e))
      .field("seconds", e.seconds)
      .field("date_obs", e.date_obs)
      .field("date_end", e.date_end)
      .field("ccd_celsius", e.ccd_celsius)
      .field("ccd_celsius_end", e.ccd_celsius_end)
      .field("set_point_celsius", e.set_point)
      .field("xbin", e.xbin)
      .field("ybin", e.ybin)
      .field("mode", mode_name(e.mode))
      .field("image_zero", e.image_zero)
      .field("electrons_per_level", e.electrons_per_level)
      .field("readout_mode", e.readout_mode)
      .close();
}

void json_stats(Json &j, const char *key, const Stats &st) {
  j.open(key)
      .field("min", st.min)
      .field("max", st.max)
      .field("mean", st.mean)
      .field("sdev", st.sdev)
      .field("median", st.median)
      .field("lower_quartile", st.lower_quartile)
      .field("upper_quartile", st.upper_quartile)
      .field("mode", st.mode)
      .field("pixels", st.count)
      .close();
}

void json_planes(Json &j, const std::vector<Plane> &planes) {
  j.open_array("images");
  for (const Plane &p : planes) {
    const Shape s = shape_of(p.image);
    j.open()
        .field("name", p.name)
        .field("width", s.width)
        .field("height", s.height)
        .field("depth", s.depth)
        .field("signed", s.is_signed)
        .field("channels", p.channels)
        .field("x0", p.x0)
        .field("y0", p.y0);
    const auto stats = plane_stats(p);
    if (p.channels == 2) {
      j.open_array("channel_stats");
      for (const auto &[label, st] : stats) json_stats(j, nullptr, st);
      j.close_array();
    } else {
      json_stats(j, "stats", stats.front().second);
    }
    j.close();
  }
  j.close_array();
}

void json_writing(Json &j, const Writing &w) {
  j.open_array("written");
  for (const Written &f : w.written)
    j.open().field("path", f.path).field("description", f.description).close();
  j.close_array();
  j.open_array("failed");
  for (const Unwritten &f : w.failed)
    j.open().field("path", f.path).field("error", f.message).close();
  j.close_array();
}

void json_errors(Json &j, const session::ErrorReport &report) {
  j.open_array("stack");
  for (const session::ErrorRecord &r : report.records) {
    j.open()
        .field("routine", r.routine)
        .field("text", r.text)
        .field("category", r.category)
        .field("code", r.code);
    j.open_array("passed");
    for (const session::ErrorStep &s : r.passed)
      j.open().field("routine", s.routine).field("text", s.text).close();
    j.close_array();
    j.open_array("causes");
    for (const session::ErrorCause &c : r.causes)
      j.open().field("code", c.code).field("text", c.text).close();
    j.close_array();
    j.close();
  }
  j.close_array();
  j.field("advice", report.advice);
}

}  // namespace tvxcam
