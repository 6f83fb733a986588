// snap and series: pictures through the session, written to their outputs, and the summary.
#include <algorithm>
#include <chrono>
#include <cstdio>

#include "commands.h"
#include "summary.h"

namespace tvxcam {

namespace {

using Clock = std::chrono::steady_clock;

double since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int run_snap(const Command &c) {
  const Acquisition &a = c.acquisition;
  const auto start = Clock::now();
  Progress progress(!c.globals.quiet && !c.globals.virtual_clock);
  progress.start_open("starting");
  Session session(c.globals);
  progress.end();
  session.configure(a);
  // One flush first: the chip has gathered dark charge since the camera came up.
  Picture picture = session.take(a, 1, stages_of(progress));
  const std::vector<std::string> outputs =
      a.outputs.empty() ? std::vector<std::string>{"snap.fits", "snap.png"} : a.outputs;
  progress.start_open("writing");
  const std::vector<Written> written =
      write_outputs(outputs, picture.planes, &picture.exposure, a, 0, 0);
  progress.end();
  if (c.globals.quiet) return 0;
  print_header(session, "snap");
  print_exposure(picture.exposure);
  print_planes(picture.planes);
  print_written(written);
  std::printf("  %-12s %.1f s\n", "took", since(start));
  return 0;
}

int run_series(const Command &c) {
  const Acquisition &a = c.acquisition;
  const SeriesOptions &o = c.series;
  const auto start = Clock::now();
  Progress progress(!c.globals.quiet && !c.globals.virtual_clock);
  progress.start_open("starting");
  Session session(c.globals);
  progress.end();
  session.configure(a);
  const std::vector<std::string> outputs =
      a.outputs.empty() ? std::vector<std::string>{"series.fits"} : a.outputs;
  const int digits = std::max(3, static_cast<int>(std::to_string(o.frames).size()));
  if (!c.globals.quiet) {
    print_header(session, "series");
    std::printf("  %-12s %ld x %.3f s %s, %ld ms apart, %ld flush%s before each\n", "frames",
                o.frames, double(a.exposure_ms) / 1000.0, a.dark ? "dark" : "light", o.delay_ms,
                o.preflush, o.preflush == 1 ? "" : "es");
  }
  for (long frame = 1; frame <= o.frames; ++frame) {
    progress.set_prefix("frame " + std::to_string(frame) + "/" + std::to_string(o.frames));
    Picture picture = session.take(a, o.preflush, stages_of(progress));
    progress.start_open("writing");
    const std::vector<Written> written =
        write_outputs(outputs, picture.planes, &picture.exposure, a, frame, digits);
    progress.end();
    if (!c.globals.quiet) {
      std::printf("  frame %-6ld %s", frame, picture.exposure.date_obs.c_str());
      if (picture.exposure.ccd_celsius) std::printf("  CCD %.1f C", *picture.exposure.ccd_celsius);
      for (const Plane &p : picture.planes) {
        const Stats st = stats_of(p.image);
        std::printf("  mean %.1f sdev %.1f", st.mean, st.sdev);
      }
      std::printf("\n");
      for (const Written &w : written)
        std::printf("  %-12s %s (%s)\n", "", w.path.c_str(), w.description.c_str());
    }
    if (frame < o.frames && o.delay_ms > 0) {
      progress.start_timed("delay", double(o.delay_ms) / 1000.0);
      session.wait_ms(o.delay_ms);
      progress.end();
    }
  }
  if (!c.globals.quiet) std::printf("  %-12s %.1f s\n", "took", since(start));
  return 0;
}

}  // namespace tvxcam
