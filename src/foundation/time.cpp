// Time in centiseconds and the delays. A wait sleeps through most of its time and ends as the
// clock turns; the library still runs on the caller's thread, so the caller's thread is what
// sleeps.
#include "foundation/wait.h"
#include "platform/platform.h"
#include "tvx/report.h"

namespace tvx {

bool wait_until(DWORD deadline, const char *routine) {
  for (;;) {
    if (abort_met(routine)) return false;
    // Differences, not end times, so that the wait survives the clock wrapping round.
    if (static_cast<int32_t>(time_centiseconds() - deadline) >= 0) return true;
    platform::clock_rest(deadline);
  }
}

bool rest_for(DWORD n, const char *routine) {
  if (Interruptible::depth() > 0) return wait_until(time_centiseconds() + n, routine);
  settle_for(n);
  return true;
}

void settle_for(DWORD n) {
  const DWORD start = time_centiseconds();
  while (time_centiseconds() - start < n) platform::clock_rest(start + n);
}

}  // namespace tvx

extern "C" {

DWORD time_centiseconds(void) {
  return tvx::platform::clock_centiseconds();
}

BOOL delay_centiseconds(DWORD n) {
  return tvx::wait_until(time_centiseconds() + n, "delay_centiseconds") ? TRUE : FALSE;
}

BOOL delay_seconds(DWORD n) {
  return delay_centiseconds(n * 100);
}

}  // extern "C"
