// Time in centiseconds and the busy-wait delays. Waiting polls the clock: the library runs on the
// caller's thread and never sleeps, so a delay is as exact as the clock.
#include "platform/platform.h"
#include "tvx/report.h"

extern "C" {

DWORD time_centiseconds(void) {
  return tvx::platform::clock_centiseconds();
}

BOOL delay_centiseconds(DWORD n) {
  const DWORD start = time_centiseconds();
  // Differences, not end times, so that the wait survives the clock wrapping round.
  while (time_centiseconds() - start < n) tvx::platform::clock_idle();
  return TRUE;
}

BOOL delay_seconds(DWORD n) {
  return delay_centiseconds(n * 100);
}

}  // extern "C"
