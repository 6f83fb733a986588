// Loading program files into the running camera server, and writing the I/O space from a
// definition file. An installation is opened and closed by an empty packet of control 46; in
// between each file goes as plain bytes, one byte to a parameter, and nothing is answered.
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "foundation/fail.h"
#include "protocol/protocol.h"
#include "tvx/config.h"
#include "tvx/csp.h"
#include "tvx/error.h"

using tvx::fail;
using tvx::qualify;
using namespace tvx::protocol;

namespace {

constexpr size_t kChunk = 197;

struct File {
  FILE *f;
  explicit File(const char *path) : f(std::fopen(path, "rb")) {}
  ~File() {
    if (f != nullptr) std::fclose(f);
  }
  File(const File &) = delete;
  File &operator=(const File &) = delete;
};

}  // namespace

extern "C" {

BOOL cs71_install_file(HANDLE controller, const char *file) {
  static const char *const kOp = "cs71_install_file";
  Target t(controller, kOp);
  if (!t) return qualify(kOp);
  errno = 0;
  if (file == nullptr || ::access(file, F_OK) != 0)
    return fail(ERR_OS, errno, kOp, {}, "install file '%s'.", file != nullptr ? file : "");
  File in(file);
  if (in.f == nullptr) return fail(ERR_OS, errno, kOp, {}, "install file '%s'.", file);
  BYTE chunk[kChunk];
  for (;;) {
    const size_t n = std::fread(chunk, 1, kChunk, in.f);
    if (n == 0) break;
    const INT16 count = static_cast<INT16>(n);
    if (!csp_copy_BYTE_to_INT16_params(t.packets, chunk, count, 0) ||
        !csp_message_out(t.packets, t.camera_id, kInstall, count)) {
      const bool timeout = timed_out();
      qualify(kOp, "failed to install file '%s'.", file);
      if (timeout) err_append_cause(tvx::errors(), kCauseMicroCode);
      return FALSE;
    }
  }
  return TRUE;
}

BOOL cs71_install(HANDLE controller, const char *first, const char *second) {
  static const char *const kOp = "cs71_install";
  Target t(controller, kOp);
  if (!t || !cs71_responding(controller) || !csp_message_out(t.packets, t.camera_id, kInstall, 0) ||
      !cs71_install_file(controller, first) || !cs71_install_file(controller, second) ||
      !csp_message_out(t.packets, t.camera_id, kInstall, 0))
    return qualify(kOp);
  return TRUE;
}

BOOL cs71_config_iospace(HANDLE controller, const char *file, const char *argument) {
  static const char *const kOp = "cs71_config_iospace";
  static const char *const kFailed = "configuration of iospace failed";
  Target t(controller, kOp);
  if (!t) return qualify(kOp, kFailed);
  HANDLE config = config_new(file, argument, static_cast<const char *>(nullptr));
  if (config == nullptr) return qualify(kOp, kFailed);
  bool ok = config_check_section(config, "IOSPACE") != FALSE;
  // The rows run until one cannot be extracted: that ends the section, it is no fault.
  for (INT32 row = 2; ok; ++row) {
    INT32 address = 0, value = 0;
    const bool pending = tvx::error_pending();
    if (!config_extract_section(config, "IOSPACE", row, 1, "ii", &address, &value)) {
      if (!pending && tvx::error_pending()) err_reset_last(tvx::errors());
      break;
    }
    ok = cs71_write_iospace(controller, address, static_cast<INT16>(value)) != FALSE;
  }
  config_delete(config);
  return ok ? TRUE : qualify(kOp, kFailed);
}

}  // extern "C"
