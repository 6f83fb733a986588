// What the adapter's source files share.
#pragma once

#include "tvx/atlink.h"
#include "tvx/types.h"

namespace tvx::link {

// Boots done by any adapter in this process; 0 means none (and a wrap past 255 reads as none).
BYTE &boot_counter();

enum class Await { ready, timed_out, aborted };
// Polls the status register until a bit of `mask` shows or the adapter's time-out passes. A wait
// for input inside a tvx::Interruptible gives up on an abort too, pushed under `routine`.
Await await_status(const atlink &r, WORD mask, const char *routine);

}  // namespace tvx::link
