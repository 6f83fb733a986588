// The abort request: one flag that a signal handler or another thread may set while the library
// runs on its own thread, so it is a lock-free atomic and nothing more.
#include <atomic>

#include "tvx/abort.h"

namespace {
std::atomic<int> requested{0};
static_assert(std::atomic<int>::is_always_lock_free, "the abort flag must be safe in a handler");
}  // namespace

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
