// Camera programs: loading them into the controller under an id, and running them by name.
#include <cstdio>
#include <cstring>

#include "foundation/fail.h"
#include "server/regions.h"
#include "tvx/cs71.h"
#include "tvx/list.h"
#include "tvx/readout.h"
#include "tvx/values.h"

namespace {

using tvx::server::Acquisition;
using tvx::server::Locked;
using tvx::server::Record;
using tvx::server::refused;

// Ids of loaded programs stay below the ad-hoc id, so a program loaded on the spot never
// replaces one of the list.
constexpr INT32 kIdRange = SERVER_ADHOC_PROGRAM - 1;

bool run_named(HANDLE server, const Record &r, const char *bare, const char *program,
               HANDLE sysparams) {
  if (std::strcmp(bare, "readout") == 0) {
    HANDLE regions = nullptr, images = nullptr;
    return sysparams_regions_images(sysparams, &regions, &images) &&
           server_readout_ccd(server, regions, images, sysparams);
  }
  if (std::strcmp(bare, "flush") == 0) return cs71_ccd_flush(r.controller, 1);
  if (std::strcmp(bare, "shutter") == 0) {
    INT32 time = 0;
    // No exposure time: nothing to open the shutter for.
    if (!sysparams_exposetime(sysparams, &time)) return !tvx::error_pending();
    return cs71_ccd_expose(r.controller, time);
  }
  INT32 id = 0;
  if (camprogs_get_pid(r.programs, bare, &id)) return cs71_execute(r.controller, id);
  return cs71_load(r.controller, program, SERVER_ADHOC_PROGRAM) &&
         cs71_execute(r.controller, SERVER_ADHOC_PROGRAM);
}

// A program runs as one acquisition: whatever it leaves the controller doing when it fails is
// stopped.
bool execute_named(HANDLE server, const char *bare, const char *program, HANDLE sysparams) {
  Locked r(server, "server_execute");
  if (!r) return false;
  Acquisition run(*r);
  if (!run_named(server, *r, bare, program, sysparams)) return false;
  run.finished();
  return true;
}

}  // namespace

extern "C" {

INT32 camprog_make_id(const char *name) {
  // A stable id from the name: the same program gets the same id in every session.
  DWORD hash = 2166136261u;
  for (const char *c = name; *c != '\0'; ++c) hash = (hash ^ static_cast<BYTE>(*c)) * 16777619u;
  return 1 + static_cast<INT32>(hash % kIdRange);
}

BOOL camprogs_get_pid(HANDLE programs, const char *name, INT32 *id) {
  HANDLE found = nullptr;
  if (!list_find_object(programs, const_cast<char *>(name), camprog_findfn1, &found) ||
      found == nullptr)
    return FALSE;
  tvx::Locked<camprog> program(found, "camprogs_get_pid");
  if (!program) return tvx::qualify("camprogs_get_pid");
  *id = program->id;
  return TRUE;
}

BOOL server_load(HANDLE server, const char *name, const char *file) {
  static const char *const kOp = "server_load";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  INT32 id = 0;
  if (camprogs_get_pid(r->programs, name, &id))
    list_remove_object(r->programs, const_cast<char *>(name), camprog_findfn1, camprog_delete);
  else
    id = camprog_make_id(name);
  // Formatted for the log of old; nothing reads it.
  char note[264];
  std::snprintf(note, sizeof note, "loading micro code (%s, %s %d)\n", name, file, int{id});
  HANDLE program = camprog_new(name, file, id);
  if (program == nullptr || !list_append_head(r->programs, program)) {
    camprog_delete(program);
    return refused(kOp);
  }
  if (!cs71_load(r->controller, file, id))
    return tvx::qualify(kOp, "failed to load program %s (%d)", name, int{id});
  return TRUE;
}

BOOL server_execute(HANDLE server, const char *program, HANDLE sysparams) {
  static const char *const kOp = "server_execute";
  if (!server_init_sysparams(server, sysparams)) return refused(kOp);
  char bare[264];
  std::snprintf(bare, sizeof bare, "%s", filespec_name_noext(program));
  if (!execute_named(server, bare, program, sysparams))
    return tvx::qualify(kOp, "unable to execute program '%s' (%s).", bare,
                        filespec_summarise(program));
  return TRUE;
}

BOOL server_empty(HANDLE server) {
  static const char *const kOp = "server_empty";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  // The new list first: a server that cannot have one keeps its programs.
  HANDLE fresh = list_new();
  if (fresh == nullptr) return refused(kOp);
  if (r->programs != nullptr) list_delete(r->programs, camprog_delete);
  r->programs = fresh;
  return TRUE;
}

}  // extern "C"
