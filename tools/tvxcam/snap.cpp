// snap and series: every output checked before the camera starts, the cooler brought to its set
// point when asked, pictures through the session, written whole to their outputs, and the
// summary.
#include <algorithm>
#include <chrono>
#include <cstdio>

#include "commands.h"
#include "fits.h"
#include "summary.h"

namespace tvxcam {

namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string creator() {
  return std::string("tvxcam ") + TVXCAM_VERSION;
}

size_t planes_asked(const Acquisition &a) {
  return std::max<size_t>(1, a.regions.size());
}

const Setup &announced(Progress &progress, const Setup &setup) {
  progress.start_open("starting");
  return setup;
}

// The camera started, set up for the pictures and, with --cool, cooled.
struct Camera {
  Progress progress;
  Session session;
  std::optional<CoolingReading> cooled;

  explicit Camera(const Command &c)
      : progress(!c.globals.quiet && !c.globals.json && !c.globals.virtual_clock),
        session(announced(progress, c.globals)) {
    progress.end();
    stop_on_interrupt(session);
    session.configure(c.acquisition);
    if (c.acquisition.cool) cooled = cool_showing(session, c.cool, progress, false);
  }
};

Writing write_picture(const std::vector<Target> &targets, const Picture &picture,
                      const Acquisition &a, Progress &progress, Report &report) {
  progress.start_open("writing");
  Writing w = write_targets(
      targets, picture.planes,
      [&picture] { return fits_bytes(picture.planes, &picture.exposure, creator()); }, a);
  progress.end();
  report.written.insert(report.written.end(), w.written.begin(), w.written.end());
  return w;
}

void print_cooled(const std::optional<CoolingReading> &cooled) {
  if (cooled)
    std::printf("  %-12s CCD %.2f C after %.0f s, set point %.1f C\n", "cooled", cooled->celsius,
                cooled->seconds, cooled->set_point);
}

}  // namespace

int run_snap(const Command &c, Report &report) {
  const Acquisition &a = c.acquisition;
  const auto start = Clock::now();
  const std::vector<std::string> outputs =
      a.outputs.empty() ? std::vector<std::string>{"snap.fits", "snap.png"} : a.outputs;
  const std::vector<Target> targets = targets_of(a, outputs, 0, 0, planes_asked(a));
  check_targets(targets, a.overwrite);

  Camera camera(c);
  // One flush first: the chip has gathered dark charge since the camera came up.
  const Picture picture = camera.session.take(a, 1, stages_of(camera.progress));
  const Writing w = write_picture(targets, picture, a, camera.progress, report);
  if (c.globals.json) {
    Json j;
    j.open().field("command", "snap");
    json_camera(j, camera.session);
    json_exposure(j, picture.exposure);
    json_planes(j, picture.planes);
    json_writing(j, w);
    j.field("ok", w.failed.empty()).field("seconds", since(start)).close();
    std::printf("%s\n", j.text().c_str());
  } else if (!c.globals.quiet) {
    print_header(camera.session, "snap");
    print_cooled(camera.cooled);
    print_exposure(picture.exposure);
    print_planes(picture.planes);
    print_writing(w);
    std::printf("  %-12s %.1f s\n", "took", since(start));
  } else {
    print_writing(Writing{{}, w.failed});
  }
  return w.failed.empty() ? 0 : 1;
}

int run_series(const Command &c, Report &report) {
  const Acquisition &a = c.acquisition;
  const SeriesOptions &o = c.series;
  const auto start = Clock::now();
  const std::vector<std::string> outputs =
      a.outputs.empty() ? std::vector<std::string>{"series.fits"} : a.outputs;
  const long first = o.continue_numbers ? highest_number(outputs) + 1 : 1;
  const long last = first + o.frames - 1;
  const int digits = std::max(3, static_cast<int>(std::to_string(last).size()));
  std::vector<Target> all;
  for (long frame = first; frame <= last; ++frame) {
    const std::vector<Target> t = targets_of(a, outputs, frame, digits, planes_asked(a));
    all.insert(all.end(), t.begin(), t.end());
  }
  check_targets(all, a.overwrite);

  Camera camera(c);
  const bool text = !c.globals.json && !c.globals.quiet;
  if (text) {
    print_header(camera.session, "series");
    print_cooled(camera.cooled);
    std::printf("  %-12s %ld x %.3f s %s, %ld ms apart, %ld flush%s before each\n", "frames",
                o.frames, double(a.exposure_ms) / 1000.0, shutter_closed(a) ? "dark" : "light",
                o.delay_ms, o.preflush, o.preflush == 1 ? "" : "es");
    std::fflush(stdout);
  }
  Json j;
  j.open().field("command", "series");
  json_camera(j, camera.session);
  j.open_array("frames");
  bool ok = true;
  for (long frame = first; frame <= last && ok; ++frame) {
    camera.progress.set_prefix("frame " + std::to_string(frame - first + 1) + "/" +
                               std::to_string(o.frames));
    const Picture picture = camera.session.take(a, o.preflush, stages_of(camera.progress));
    const Writing w = write_picture(targets_of(a, outputs, frame, digits, picture.planes.size()),
                                    picture, a, camera.progress, report);
    ok = w.failed.empty();
    if (c.globals.json) {
      j.open().field("frame", frame);
      json_exposure(j, picture.exposure);
      json_planes(j, picture.planes);
      json_writing(j, w);
      j.close();
    } else if (text) {
      std::printf("  frame %-6ld %s", frame, picture.exposure.date_obs.c_str());
      if (picture.exposure.ccd_celsius) std::printf("  CCD %.1f C", *picture.exposure.ccd_celsius);
      for (const Plane &p : picture.planes)
        for (const auto &[label, st] : plane_stats(p))
          std::printf("  mean %.1f sdev %.1f", st.mean, st.sdev);
      std::printf("\n");
      for (const Written &f : w.written)
        std::printf("  %-12s %s (%s)\n", "", f.path.c_str(), f.description.c_str());
      std::fflush(stdout);
    }
    if (!c.globals.json) print_writing(Writing{{}, w.failed});
    if (ok && frame < last && o.delay_ms > 0) {
      camera.progress.start_timed("delay", double(o.delay_ms) / 1000.0);
      camera.session.wait_ms(o.delay_ms);
      camera.progress.end();
    }
  }
  j.close_array();
  if (c.globals.json) {
    j.field("ok", ok).field("seconds", since(start)).close();
    std::printf("%s\n", j.text().c_str());
  } else if (!ok) {
    std::fprintf(stderr, "tvxcam: the series stops: an output of its frame could not be written\n");
  } else if (text) {
    std::printf("  %-12s %.1f s\n", "took", since(start));
  }
  return ok ? 0 : 1;
}

}  // namespace tvxcam
