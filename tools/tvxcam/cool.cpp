// cool: what this controller's cooler does, switching it on, and waiting until the CCD holds at
// its set point; the same wait serves snap and series --cool.
#include <cmath>
#include <cstdio>

#include "commands.h"
#include "interrupt.h"
#include "json.h"
#include "summary.h"

namespace tvxcam {

void stop_on_interrupt(Session &session) {
  session.set_cancel([] { return interrupted() != 0; });
}

CoolingReading cool_showing(Session &session, const CoolOptions &o, Progress &progress,
                            bool lines) {
  constexpr double kLineEvery = 10;  // seconds
  double last_line = -kLineEvery;
  const CoolingReading reached = session.cool_down(o.bounds, [&](const CoolingReading &r) {
    char line[160];
    std::snprintf(line, sizeof line, "CCD %7.2f C  set point %.1f C  %+7.2f K/min  %4.0f s",
                  r.celsius, r.set_point, r.per_minute, r.seconds);
    if (progress.active()) {
      progress.show(line);
    } else if (lines && r.seconds - last_line >= kLineEvery) {
      std::printf("  %s\n", line);
      std::fflush(stdout);
      last_line = r.seconds;
    }
  });
  progress.end();
  return reached;
}

int run_cool(const Command &c, Report &) {
  const CoolOptions &o = c.cool;
  const bool json = c.globals.json, text = !json && !c.globals.quiet;
  Progress progress(text && !c.globals.virtual_clock);
  progress.start_open("starting");
  Session session(c.globals);
  progress.end();
  stop_on_interrupt(session);
  const std::optional<double> set_point = session.cooler_set_point();
  char what[200];
  if (set_point)
    std::snprintf(what, sizeof what,
                  "this controller cools the CCD to its own set point, %.1f C (the nominal "
                  "ccdtmp1 of the hardware definition)",
                  *set_point);
  else
    std::snprintf(what, sizeof what,
                  "this controller cools the CCD to its own set point, which the hardware "
                  "definition does not give (no ccdtmp1 in VOLTAGES)");
  // The cooler command carries no temperature: a target other than the controller's own would
  // be a promise the hardware never hears.
  if (o.celsius && (!set_point || std::fabs(*o.celsius - *set_point) > 0.05)) {
    char text_t[64];
    std::snprintf(text_t, sizeof text_t, "%.1f", *o.celsius);
    throw Failure{
        std::string(what) + " and takes no temperature from tvxcam, so -t " + text_t +
        " cannot be honoured" +
        (set_point ? ": leave -t out" : ": leave -t out, and --wait has nothing to wait for")};
  }
  Json j;
  j.open().field("command", "cool").field("set_point_celsius", set_point);
  if (!o.wait) {
    session.start_cooling();
    const double now = session.ccd_celsius();
    if (json) {
      j.field("ccd_celsius", now).field("waited", false).field("ok", true).close();
      std::printf("%s\n", j.text().c_str());
    } else if (text) {
      std::printf("tvxcam cool: the cooler is on; %s. The CCD is at %.2f C now.\n", what, now);
      std::printf(
          "  tvxcam starts the controller afresh for each command: snap --cool and series "
          "--cool cool and take the pictures in one run.\n");
    }
    return 0;
  }
  const CoolingReading r = cool_showing(session, o, progress, text);
  if (json) {
    j.field("ccd_celsius", r.celsius)
        .field("waited", true)
        .field("seconds", r.seconds)
        .field("tolerance_k", o.bounds.tolerance_k)
        .field("settle_s", o.bounds.settle_s)
        .field("ok", true)
        .close();
    std::printf("%s\n", j.text().c_str());
  } else if (text) {
    std::printf(
        "tvxcam cool: the CCD holds at the set point: %.2f C after %.0f s (set point %.1f C, "
        "%.2f K away, within %.1f K for %.0f s)\n",
        r.celsius, r.seconds, r.set_point, std::fabs(r.celsius - r.set_point), o.bounds.tolerance_k,
        o.bounds.settle_s);
  }
  return 0;
}

}  // namespace tvxcam
