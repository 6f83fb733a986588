// The abort request: one flag that a signal handler or another thread may set while the library
// runs on its own thread, so it is a lock-free atomic; and its meeting by the wait that finds it.
#include <atomic>

#include "tvx/abort.h"

#include "foundation/fail.h"
#include "foundation/wait.h"

namespace {
std::atomic<int> requested{0};
static_assert(std::atomic<int>::is_always_lock_free, "the abort flag must be safe in a handler");
}  // namespace

namespace tvx {

bool abort_met(const char *routine) {
  // Looked at by every poll of a wait: a plain load while nothing is asked.
  if (requested.load(std::memory_order_relaxed) == 0) return false;
  if (requested.exchange(0, std::memory_order_relaxed) == 0) return false;
  return !fail(ERR_INTERRUPT, 0, routine, {}, "aborted at the application's request");
}

int &Interruptible::depth() {
  static int open = 0;
  return open;
}

bool interrupted(const char *routine) {
  return Interruptible::depth() > 0 && abort_met(routine);
}

}  // namespace tvx

extern "C" {

void tvx_abort_request(void) {
  requested.store(1, std::memory_order_relaxed);
}

BOOL tvx_abort_pending(void) {
  return requested.load(std::memory_order_relaxed) != 0 ? TRUE : FALSE;
}

void tvx_abort_clear(void) {
  requested.store(0, std::memory_order_relaxed);
}

}  // extern "C"
