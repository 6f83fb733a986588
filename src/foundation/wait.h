// Waiting on the centisecond clock, and meeting the abort an application may ask for, as the
// library's waits do both.
#pragma once

#include "tvx/types.h"

namespace tvx {

// When the application has asked for an abort: pushes "aborted at the application's request"
// under `routine`, forgets the request and returns true. Otherwise returns false and touches
// nothing.
bool abort_met(const char *routine);

// While one lives, the waits on the controller (the adapter's waits for input, the readout stream,
// the host's sleep through an exposure) give up when the application asks for an abort. Open one
// only around what is stopped and drained when it fails: a reply given up on is still on its way,
// and would otherwise be read as the next command's. Elsewhere those waits go on, and the next
// wait that can give up meets the abort.
class Interruptible {
 public:
  Interruptible() { ++depth(); }
  ~Interruptible() { --depth(); }
  Interruptible(const Interruptible &) = delete;
  Interruptible &operator=(const Interruptible &) = delete;
  // How many are open, nested.
  static int &depth();
};

// abort_met, inside an Interruptible only.
bool interrupted(const char *routine);

// Waits, sleeping, until the centisecond clock reads `deadline`; false when an abort is met first
// (pushed under `routine`).
bool wait_until(DWORD deadline, const char *routine);

// Waits `n` centiseconds, sleeping; inside an Interruptible an abort ends the wait first, pushed
// under `routine`, and the result is false.
bool rest_for(DWORD n, const char *routine);

// Waits `n` centiseconds, sleeping, for the hardware to settle: an abort asked for meanwhile is
// left for the next wait that can give up.
void settle_for(DWORD n);

}  // namespace tvx
