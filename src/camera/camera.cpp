// The camera's life: reading the CCD definition file with the server's hardware file,
// initialising the hardware, and the camera programs it loads and runs.
#include <cstdio>
#include <cstring>

#include "camera/camera_record.h"
#include "foundation/fail.h"
#include "tvx/config.h"
#include "tvx/list.h"
#include "tvx/memory.h"
#include "tvx/report.h"
#include "tvx/values.h"

namespace {

using tvx::camera::Locked;
using tvx::camera::Record;

constexpr INT32 kCcdFileErrors = 0x2012;
constexpr double kInitialRatio = 16.0;
constexpr double kInitialMinimumSignal = 1e6;
constexpr size_t kNameRoom = 264;

void say(const char *text) {
  report *info = nullptr;
  report_where_is(REPORT_INFO, &info);
  report_send(info, "%s", text);
}

// Directory and name joined with one separator: the directory of a file name keeps its own.
void join(char *out, const char *dir, const char *name) {
  const size_t n = std::strlen(dir);
  const bool separated = n == 0 || dir[n - 1] == '/' || dir[n - 1] == '\\';
  std::snprintf(out, kNameRoom, "%s%s%s", dir, separated ? "" : "/", name);
}

bool absolute(const char *name) {
  if (std::strlen(name) < 2) return false;
  if (name[0] == '\\' || name[0] == '/') return true;
  const char c = name[0];
  return ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) && name[1] == ':';
}

bool read_definitions(Record &r, const char *ccd_file) {
  static const char *const kOp = "camera_ctor";
  char dir[kNameRoom], base[kNameRoom], file[kNameRoom];
  std::snprintf(dir, sizeof dir, "%s", filespec_path(ccd_file));
  std::snprintf(base, sizeof base, "%s.def", filespec_name_noext(ccd_file));
  join(file, dir, base);
  char *copy = string_duplicate(dir);
  if (copy == nullptr) return false;
  if (r.system_dir != nullptr) standard_free(r.system_dir, kOp);
  r.system_dir = copy;

  char hardware[kNameRoom];
  std::snprintf(hardware, sizeof hardware, "%s", server_definition_file(r.server));
  HANDLE config = config_new(hardware, file, nullptr);
  if (config == nullptr) return false;
  bool ok = true;
  for (const char *section : {"VOLTAGES", "PROGRAMS", "CCD"})
    if (ok && !config_check_section(config, section)) {
      err_append_cause(tvx::errors(), kCcdFileErrors);
      ok = false;
    }
  ok = ok && volts_extract(&r.voltages, config) && camprogs_extract(&r.programs, config) &&
       ccd_extract(&r.chip, config);
  if (ok) r.image_zero = r.chip.blacklevel;
  config_delete(config);
  return ok;
}

}  // namespace

extern "C" {

HANDLE camera_new(HANDLE server, const char *ccd_file) {
  HANDLE camera = handle_allocate(1, sizeof(Record), MEM_CAMERA);
  if (camera != nullptr && camera_ctor(camera, server, ccd_file) && camera_initialise(camera))
    return camera;
  if (tvx::error_pending()) tvx::qualify("camera_new", "during camera allocation.");
  camera_delete(camera);
  return nullptr;
}

BOOL camera_ctor(HANDLE camera, HANDLE server, const char *ccd_file) {
  static const char *const kOp = "camera_ctor";
  if (!camera_set_server(camera, server)) return tvx::qualify(kOp);
  bool ok = false;
  {
    Locked r(camera, kOp);
    if (!r) return tvx::qualify(kOp);
    r->ratio_20bit = kInitialRatio;
    r->operation_mode = 0;
    r->image_zero = 0;
    r->min_signal_20bit = kInitialMinimumSignal;
    r->correlate_20bit = 1;
    say("reading and analyzing ccd configuration file...");
    ok = read_definitions(*r, ccd_file);
    say("");
  }
  return ok ? TRUE : tvx::qualify(kOp);
}

BOOL camera_initialise(HANDLE camera) {
  static const char *const kOp = "camera_initialise";
  say("initialising camera...");
  INT32 rate = 0, sensitivity = 0;
  HANDLE server = nullptr;
  {
    Locked r(camera, kOp);
    if (!r) return tvx::qualify(kOp);
    rate = r->chip.pixel_rate;
    sensitivity = r->chip.sensitivity;
    server = r->server;
  }
  bool ok =
      camera_set_gain(camera, rate, sensitivity) && server_empty(server) && camera_loadall(camera);
  if (ok) {
    Locked r(camera, kOp);
    ok = r && server_hwinit(server, &r->voltages, &r->chip);
  }
  return ok ? TRUE : tvx::qualify(kOp, "while initialising the camera.");
}

BOOL camera_dtor(HANDLE camera) {
  static const char *const kOp = "camera_dtor";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  if (r->programs != nullptr) list_delete(r->programs, camprog_delete);
  r->programs = nullptr;
  volts_dtor(&r->voltages);
  ccd_dtor(&r->chip);
  if (r->system_dir != nullptr) standard_free(r->system_dir, kOp);
  r->system_dir = nullptr;
  return TRUE;
}

void camera_delete(HANDLE camera) {
  if (camera == nullptr) return;
  camera_dtor(camera);
  handle_free(camera, "camera_delete");
}

BOOL camera_set_server(HANDLE camera, HANDLE server) {
  static const char *const kOp = "camera_set_server";
  if (server == nullptr) return tvx::fail(ERR_NO_DATA, 0, kOp, {0x1045}, "server handle is null.");
  INT32 bits = 0;
  if (!server_get_bits_per_pixel(server, &bits)) return tvx::qualify(kOp);
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  r->server = server;
  return TRUE;
}

BOOL camera_set_system_dir(HANDLE camera, const char *dir) {
  static const char *const kOp = "camera_set_system_dir";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  char *copy = string_duplicate(dir);
  if (copy == nullptr) return tvx::qualify(kOp);
  if (r->system_dir != nullptr) standard_free(r->system_dir, kOp);
  r->system_dir = copy;
  return TRUE;
}

BOOL camera_system_filename(HANDLE camera, const char *name, const char **out) {
  static char resolved[kNameRoom];
  Locked r(camera, "camera_system_filename");
  const bool dir = r && r->system_dir != nullptr && r->system_dir[0] != '\0';
  if (absolute(name) || !dir)
    std::snprintf(resolved, sizeof resolved, "%s", name);
  else
    join(resolved, r->system_dir, name);
  *out = resolved;
  return TRUE;
}

BOOL camprogs_get_basefile(HANDLE programs, const char *name, const char **file) {
  HANDLE found = nullptr;
  if (programs == nullptr ||
      !list_find_object(programs, const_cast<char *>(name), camprog_findfn1, &found) ||
      found == nullptr)
    return FALSE;
  tvx::Locked<camprog> program(found, "camprogs_get_basefile");
  if (!program) return tvx::qualify("camprogs_get_basefile");
  *file = program->filename;  // lives as long as the program's record
  return TRUE;
}

BOOL camera_load(HANDLE camera, const char *name, const char *file) {
  static const char *const kOp = "camera_load";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  if (r->programs == nullptr && (r->programs = list_new()) == nullptr) return tvx::qualify(kOp);
  list_remove_object(r->programs, const_cast<char *>(name), camprog_findfn1, camprog_delete);
  HANDLE program = camprog_new(name, file, 0);
  const char *resolved = nullptr;
  if (program == nullptr || !list_append_head(r->programs, program)) {
    camprog_delete(program);
    return tvx::qualify(kOp, "while loading programs '%s'.", name);
  }
  camera_system_filename(camera, file, &resolved);
  if (!server_load(r->server, name, resolved))
    return tvx::qualify(kOp, "while loading programs '%s'.", name);
  return TRUE;
}

BOOL camera_loadall(HANDLE camera) {
  static const char *const kOp = "camera_loadall";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  if (r->programs == nullptr)
    return tvx::fail(ERR_NO_DATA, 0, kOp, {0x2017}, "no program list to load.");
  for (list_head(r->programs); list_more(r->programs); list_next(r->programs)) {
    tvx::Locked<camprog> program(list_get_object(r->programs), kOp);
    const char *resolved = nullptr;
    if (!program) return tvx::qualify(kOp, "while loading all camera programs.");
    camera_system_filename(camera, program->filename, &resolved);
    if (!server_load(r->server, program->name, resolved))
      return tvx::qualify(kOp, "while loading all camera programs.");
  }
  return TRUE;
}

BOOL camera_execute(HANDLE camera, const char *name, HANDLE sysparams) {
  static const char *const kOp = "camera_execute";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  const char *file = nullptr, *resolved = nullptr;
  if (!camprogs_get_basefile(r->programs, name, &file)) {
    if (tvx::error_pending()) return tvx::qualify(kOp);
    return tvx::fail(ERR_NO_DATA, 0, kOp, {0x2017},
                     "no entry found for '%s' in camera program list.", name);
  }
  camera_system_filename(camera, file, &resolved);
  if (!server_execute(r->server, resolved, sysparams))
    return tvx::qualify(kOp, "while trying to execute '%s'.", name);
  return TRUE;
}

BOOL camera_empty(HANDLE camera) {
  static const char *const kOp = "camera_empty";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  if (r->programs != nullptr) list_delete(r->programs, camprog_delete);
  r->programs = list_new();
  if (r->programs == nullptr || !server_empty(r->server))
    return tvx::qualify(kOp, "while emptying the program list.");
  return TRUE;
}

}  // extern "C"
