// Test controls, exported so that applications' own tests can use them too.
#include "tvx/testing.h"
#include "foundation/alloc.h"
#include "platform/platform.h"

namespace platform = tvx::platform;

extern "C" {

void tvx_test_clock_virtual(DWORD start) {
  platform::clock_virtual(start);
}
void tvx_test_clock_real(void) {
  platform::clock_real();
}
BOOL tvx_test_clock_is_virtual(void) {
  return platform::clock_is_virtual();
}
void tvx_test_clock_set(DWORD centiseconds) {
  platform::clock_set(centiseconds);
}
void tvx_test_clock_advance(DWORD centiseconds) {
  platform::clock_advance(centiseconds);
}
void tvx_test_clock_step(DWORD per_read) {
  platform::clock_step(per_read);
}

void tvx_test_fail_allocation(INT32 nth, BOOL persistent) {
  platform::block_fail_nth(nth, persistent != FALSE);
}
INT32 tvx_test_injected_failures(void) {
  return static_cast<INT32>(platform::block_injected_failures());
}

void tvx_test_moving_blocks(BOOL on) {
  platform::block_moving(on != FALSE);
}
void tvx_test_memory_trace(BOOL on) {
  tvx::set_memory_trace(on != FALSE);
}
INT32 tvx_test_platform_blocks(void) {
  return static_cast<INT32>(platform::block_count());
}

}  // extern "C"
