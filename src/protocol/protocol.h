// What the controller commands share: the locked view of the controller object, the causes they
// suggest, and the selection check with a name.
#pragma once

#include "tvx/cs71.h"
#include "tvx/memory.h"

namespace tvx::protocol {

constexpr INT32 kCauseBadArgument = 0x1040;
constexpr INT32 kCauseBlackLevel = 0x2015;
constexpr INT32 kCauseStage9 = 0x2006;
constexpr INT32 kCauseNoResponse = 0x300B;
constexpr INT32 kCauseMicroCode = 0x3008;
constexpr INT16 kInstall = 46;

// The controller's address and packet object, read under the lock for the operation's own use;
// the lock is released at once, since the packet object is a handle of its own.
struct Target {
  INT16 camera_id = 0;
  HANDLE packets = nullptr;
  bool ok = false;
  Target(HANDLE controller, const char *caller);
  explicit operator bool() const { return ok; }
};

// Checks that `value` is one of the integers written in `choices` ("5, 10, or 20"); pushes
// "%s (%d): expected %s" under its own name when it is not.
bool check_ival_selection(const char *name, const char *choices, INT32 value);

// True when the newest error is an I/O time-out.
bool timed_out();

}  // namespace tvx::protocol
