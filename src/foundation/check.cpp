// The fatal exit of a failed consistency check of the library's own state.
#include <cstdio>

#include "foundation/fail.h"
#include "platform/platform.h"

namespace tvx {

void check_failed(int line, const char *file) {
  char message[128];
  std::snprintf(message, sizeof message, "Check assertion failed at line %d in file %s\n", line,
                file);
  platform::fatal_exit(message);
}

}  // namespace tvx
