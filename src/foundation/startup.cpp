// Library start-up and tear-down, the log writer, and the library's version.
#include <cstdio>
#include <cstring>

#include "platform/platform.h"
#include "tvx/error.h"
#include "tvx/report.h"

namespace {

namespace platform = tvx::platform;

constexpr const char *kLogName = "tvx.log";

tvx_globals library_globals{};
// The globals the log writer follows: those of the latest start-up.
tvx_globals *current = nullptr;
int attach_count = 0;

__attribute__((constructor)) void on_load() {
  tvx_entry_point(platform::module_handle(), TVX_PROCESS_ATTACH);
}

__attribute__((destructor)) void on_unload() {
  tvx_entry_point(platform::module_handle(), TVX_PROCESS_DETACH);
}

void write_version(char *out, const platform::Version &v) {
  // Callers give room for a Windows-style version text; four numbers fit in 32 characters.
  std::snprintf(out, 32, "%d.%d.%d.%d", v.major, v.minor, v.patch, v.build);
}

}  // namespace

extern "C" {

int tvx_log_reports(const char *text) {
  if (current == nullptr || !current->log_on || text == nullptr) return 0;
  // The count is a 16-bit one, as the log has always been written.
  size_t length = std::strlen(text) & 0xFFFF;
  bool crlf = text[0] != '\0' && text[std::strlen(text) - 1] != '\n';
  return platform::log_write(current->log_path, text, length, crlf) ? 1 : 0;
}

BOOL tvx_globals_ctor(tvx_globals *globals, HANDLE module) {
  globals->module = module;
  cause_initialise(where_is_tvx_causes());
  report_get_objects(globals->reports);
  for (report *r : globals->reports) report_set_destination(r, tvx_log_reports);
  current = globals;
  globals->log_on = platform::log_create(kLogName, globals->log_path, sizeof globals->log_path);
  report *info = globals->reports[REPORT_OBJ_INFO];
  if (globals->log_on) report_send(info, "DLL startup complete.");
  report_send(info, "DLL startup complete.");
  return TRUE;
}

BOOL tvx_globals_dtor(void) {
  return TRUE;
}

BOOL tvx_entry_point(HANDLE module, INT32 reason) {
  switch (reason) {
    case TVX_PROCESS_ATTACH:
      return attach_count++ == 0 ? tvx_globals_ctor(&library_globals, module) : TRUE;
    case TVX_PROCESS_DETACH:
      return attach_count-- == 1 ? tvx_globals_dtor() : TRUE;
    default:
      return TRUE;
  }
}

HANDLE tvx_allocate(DWORD size) {
  DWORD token = platform::block_alloc(size, true);
  if (token == 0 && platform::block_compact(size) >= size)
    token = platform::block_alloc(size, true);
  return platform::to_handle(token);
}

BOOL GetDllVersion(char *fileversion, char *productversion) {
  tvx_log_reports(platform::module_path());
  if (fileversion != nullptr) write_version(fileversion, platform::file_version());
  if (productversion != nullptr) write_version(productversion, platform::product_version());
  return TRUE;
}

}  // extern "C"
