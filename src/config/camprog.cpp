// The camera programs named by the PROGRAMS section, each a name and the file that holds it.
#include <cstdio>
#include <cstring>

#include "foundation/fail.h"
#include "foundation/locked.h"
#include "tvx/config.h"
#include "tvx/list.h"
#include "tvx/memory.h"
#include "tvx/sections.h"

namespace {

bool field_equals(HANDLE program, const char *text, char *camprog::*field) {
  tvx::Locked<camprog> record(program, "camprog_find");
  return record && text != nullptr && std::strcmp(record.get()->*field, text) == 0;
}

}  // namespace

extern "C" {

HANDLE camprog_new(const char *name, const char *filename, INT32 id) {
  static const char *const kOp = "camprog_new";
  HANDLE program = handle_allocate(1, sizeof(camprog), MEM_CAMPROG);
  if (program == nullptr) return tvx::qualify(kOp), nullptr;
  bool ok = false;
  {
    tvx::Locked<camprog> record(program, kOp);
    if (record) {
      record->id = id;
      record->name = string_duplicate(name);
      record->filename = record->name != nullptr ? string_duplicate(filename) : nullptr;
      ok = record->filename != nullptr;
    }
  }
  if (!ok) {
    camprog_delete(program);
    return tvx::qualify(kOp), nullptr;
  }
  return program;
}

void camprog_delete(HANDLE program) {
  if (program == nullptr) return;
  {
    tvx::Locked<camprog> record(program, "camprog_delete");
    if (!record) return;
    if (record->name != nullptr) standard_free(record->name, "camprog_delete");
    if (record->filename != nullptr) standard_free(record->filename, "camprog_delete");
  }
  handle_free(program, "camprog_delete");
}

BOOL camprog_print(HANDLE program, FILE *stream) {
  tvx::Locked<camprog> record(program, "camprog_print");
  if (!record) return tvx::qualify("camprog_print");
  std::fprintf(stream, "camprog(%s, %s)", record->name, record->filename);
  return TRUE;
}

BOOL camprog_findfn1(HANDLE program, HANDLE name) {
  return field_equals(program, static_cast<const char *>(name), &camprog::name);
}

BOOL camprog_findfn2(HANDLE program, HANDLE filename) {
  return field_equals(program, static_cast<const char *>(filename), &camprog::filename);
}

BOOL camprogs_extract(HANDLE *programs, HANDLE config) {
  static const char *const kOp = "camprogs_extract";
  if (*programs == nullptr && (*programs = list_new()) == nullptr) return tvx::qualify(kOp);
  for (INT32 row = 1;; ++row) {
    char name[CONFIG_MAX_STRING + 1], filename[CONFIG_MAX_STRING + 1];
    // The section ends where a row can no longer be read.
    if (!config_extract_section(config, "PROGRAMS", row, 1, "ss", name, filename))
      return tvx::error_pending() ? tvx::qualify(kOp) : TRUE;
    HANDLE program = camprog_new(name, filename, 0);
    if (program == nullptr) return tvx::qualify(kOp);
    if (!list_append_head(*programs, program)) {
      camprog_delete(program);
      return tvx::qualify(kOp);
    }
  }
}

}  // extern "C"
