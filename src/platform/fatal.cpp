#include <cstdio>
#include <cstdlib>

#include "platform/platform.h"
#include "tvx/report.h"

namespace tvx::platform {

void fatal_exit(const char *message) {
  std::fputs(message, stderr);
  std::fflush(stderr);
  tvx_log_reports(message);
  std::abort();
}

}  // namespace tvx::platform
