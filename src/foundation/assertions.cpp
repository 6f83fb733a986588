// The fatal exits of the library's own checks: a caller broke a rule of the interface (Require)
// or the library's state is inconsistent (Check).
#include <cstdio>

#include "foundation/fail.h"
#include "platform/platform.h"

namespace tvx {
namespace {

[[noreturn]] void assertion_failed(const char *kind, int line, const char *file) {
  char message[128];
  std::snprintf(message, sizeof message, "%s assertion failed at line %d in file %s\n", kind, line,
                file);
  platform::fatal_exit(message);
}

}  // namespace

void require_failed(int line, const char *file) {
  assertion_failed("Require", line, file);
}

void check_failed(int line, const char *file) {
  assertion_failed("Check", line, file);
}

}  // namespace tvx
