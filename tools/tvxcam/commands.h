// The subcommands. Each returns the exit status, or throws Failure, LibraryError or Aborted;
// `report` keeps what it has written, for the message of a failure or an interrupt.
#pragma once

#include <vector>

#include "options.h"
#include "outputs.h"
#include "progress.h"

namespace tvxcam {

struct Report {
  std::vector<Written> written;
};

int run_snap(const Command &c, Report &report);
int run_series(const Command &c, Report &report);
int run_status(const Command &c, Report &report);
int run_cool(const Command &c, Report &report);
int run_info(const Command &c, Report &report);
int run_convert(const Command &c, Report &report);

// A session for a command that stops when tvxcam is interrupted.
void stop_on_interrupt(Session &session);

// Cools to the controller's set point and waits there (Session::cool_down), showing the CCD's
// temperature on the progress line and, with `lines`, every ten seconds on standard output.
CoolingReading cool_showing(Session &session, const CoolOptions &o, Progress &progress, bool lines);

}  // namespace tvxcam
