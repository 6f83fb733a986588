// The server's life: allocation, configuration from the hardware definition file, start-up of
// the link and the controller, and tear-down.
#include <cstdio>
#include <cstring>

#include "foundation/fail.h"
#include "foundation/wait.h"
#include "server/server_record.h"
#include "tvx/atlink.h"
#include "tvx/config.h"
#include "tvx/cs71.h"
#include "tvx/csp.h"
#include "tvx/list.h"
#include "tvx/memory.h"
#include "tvx/report.h"
#include "tvx/values.h"

namespace tvx::server {

bool refused(const char *operation) {
  return qualify(operation);
}

}  // namespace tvx::server

namespace {

using tvx::server::Locked;
using tvx::server::Record;
using tvx::server::refused;

constexpr INT32 kHardwareFileErrors = 0x2011;
constexpr INT16 kBootLinkSpeed = 5;
constexpr DWORD kAfterBoot = 50, kAfterInstall = 50, kAfterLinkSpeed = 100;
constexpr size_t kNameRoom = 264;
constexpr const char *kSeparator = "/";

void say(const char *text) {
  report *info = nullptr;
  report_where_is(REPORT_INFO, &info);
  report_send(info, "%s", text);
}

void free_string(char **field, const char *routine) {
  if (*field != nullptr) standard_free(*field, routine);
  *field = nullptr;
}

bool replace_string(char **field, const char *text, const char *routine) {
  char *copy = string_duplicate(text);
  if (copy == nullptr) return tvx::qualify(routine);
  free_string(field, routine);
  *field = copy;
  return true;
}

void compose(const Record &r, const char *name, char *out) {
  const bool dir = r.system_dir != nullptr && r.system_dir[0] != '\0';
  std::snprintf(out, kNameRoom, "%s%s%s", dir ? r.system_dir : "",
                dir && r.system_dir[std::strlen(r.system_dir) - 1] != '/' &&
                        r.system_dir[std::strlen(r.system_dir) - 1] != '\\'
                    ? kSeparator
                    : "",
                name);
}

bool check_sections(HANDLE config) {
  for (const char *section : {"GAIN_TABLE", "GAIN_CONSTANTS", "ADC", "DEVICE", "TRANSPUTER"})
    if (!config_check_section(config, section)) {
      err_append_cause(tvx::errors(), kHardwareFileErrors);
      return false;
    }
  return true;
}

bool extract_sections(Record &r, HANDLE config) {
  if (!gain_extract_table(&r.gains, config) || !gain_extract_const(&r.gains, config) ||
      !adc_extract(&r.converter, config) || !device_extract(&r.dev, config) ||
      !trans_extract(&r.transputer, config))
    return false;
  r.concurrent = r.transputer.concurrent;
  // The simulated camera takes its scene and faults from the same file.
  if (std::strcmp(r.dev.name, "simulator") == 0) {
    simulator sim{};
    return simulator_extract(&sim, config) && simulator_apply(&sim);
  }
  return true;
}

void drop_link(Record &r) {
  if (r.controller != nullptr) cs71_delete(r.controller);
  if (r.packets != nullptr) csp_delete(r.packets);
  if (r.link != nullptr) atlink_delete(r.link);
  r.controller = r.packets = r.link = nullptr;
}

bool start(HANDLE server, Record &r, char (*files)[kNameRoom]) {
  drop_link(r);
  r.link = atlink_new(r.transputer.io_timeout, r.dev.name, r.dev.base_address);
  if (r.link == nullptr || !atlink_set_verbose(r.link, FALSE) ||
      !atlink_disable_interrupts(r.link) || !atlink_linkspeed(r.link, kBootLinkSpeed))
    return false;
  const char *names[] = {r.transputer.atlinit_file, r.transputer.boot_file,
                         r.transputer.procinit_file, r.transputer.camera_file};
  for (int i = 0; i < 4; ++i) compose(r, names[i], files[i]);
  if (!atlink_boot(r.link, files[0], files[1])) return false;
  tvx::settle_for(kAfterBoot);
  r.packets = csp_new(r.link, -1, atlink_read_INT16, atlink_read_INT16_array, atlink_write_INT16,
                      atlink_write_INT16_array);
  if (r.packets == nullptr || !csp_set_verbose(r.packets, FALSE) ||
      !atlink_set_verbose(r.link, FALSE))
    return false;
  r.controller = cs71_new(1, r.packets);
  if (r.controller == nullptr || !server_responding1(server, "Booting")) return false;
  if (!r.transputer.boot_from_rom) {
    if (!cs71_install(r.controller, files[2], files[3])) return false;
    tvx::settle_for(kAfterInstall);
    if (!server_responding1(server, "Install")) return false;
  }
  // The controller's end first; the card follows once the controller has switched.
  if (!csp_set_verbose(r.packets, FALSE) ||
      !cs71_set_linkspeed(r.controller, r.transputer.linkspeed))
    return false;
  tvx::settle_for(kAfterLinkSpeed);
  return atlink_linkspeed(r.link, static_cast<INT16>(r.transputer.linkspeed)) &&
         server_responding1(server, "Linkspeed") && server_responding(server);
}

}  // namespace

extern "C" {

HANDLE server_allocate(void) {
  HANDLE server = handle_allocate(1, sizeof(Record), MEM_SERVER);
  if (server == nullptr) tvx::qualify("server_allocate");
  return server;
}

HANDLE server_new(const char *definition_file) {
  static const char *const kOp = "server_new";
  HANDLE server = server_allocate();
  if (server != nullptr && server_ctor(server, definition_file) && server_initialise(server))
    return server;
  server_delete(server);
  tvx::qualify(kOp, "during server allocation.");
  return nullptr;
}

BOOL server_ctor(HANDLE server, const char *definition_file) {
  return server_configure(server, definition_file) ? TRUE : refused("server_ctor");
}

BOOL server_dtor(HANDLE server) {
  static const char *const kOp = "server_dtor";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  gain_dtor(&r->gains);
  if (r->programs != nullptr) list_delete(r->programs, camprog_delete);
  r->programs = nullptr;
  device_dtor(&r->dev);
  trans_dtor(&r->transputer);
  drop_link(*r);
  free_string(&r->definition_file, kOp);
  free_string(&r->hardware_file, kOp);
  free_string(&r->system_dir, kOp);
  return TRUE;
}

void server_delete(HANDLE server) {
  if (server == nullptr) return;
  server_dtor(server);
  handle_free(server, "server_delete");
}

BOOL server_info(HANDLE, const char *text) {
  say(text);
  return TRUE;
}

BOOL server_set_system_dir(HANDLE server, const char *dir) {
  static const char *const kOp = "server_set_system_dir";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  return replace_string(&r->system_dir, dir, kOp);
}

BOOL server_system_filename(HANDLE server, const char *name, char *out) {
  static const char *const kOp = "server_system_filename";
  out[0] = '\0';
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  compose(*r, name, out);
  return TRUE;
}

const char *server_definition_file(HANDLE server) {
  static char path[kNameRoom];
  server_system_filename(server, SERVER_DEFINITION_FILE, path);
  return path;
}

BOOL server_configure(HANDLE server, const char *definition_file) {
  static const char *const kOp = "server_configure";
  say("reading and analyzing hardware configuration files...");
  bool ok = false;
  {
    Locked r(server, kOp);
    if (!r) return refused(kOp);
    HANDLE config = nullptr;
    ok = replace_string(&r->system_dir, filespec_path(definition_file), kOp) &&
         replace_string(&r->definition_file, definition_file, kOp);
    if (ok) {
      char path[kNameRoom];
      compose(*r, SERVER_DEFINITION_FILE, path);
      ok = replace_string(&r->hardware_file, path, kOp);
      if (ok && r->programs == nullptr) ok = (r->programs = list_new()) != nullptr;
      if (ok) ok = (config = config_new(path, nullptr)) != nullptr;
    }
    ok = ok && check_sections(config) && extract_sections(*r, config);
    config_delete(config);
  }
  say("");
  return ok ? TRUE : refused(kOp);
}

BOOL server_initialise(HANDLE server) {
  static const char *const kOp = "server_initialise";
  say("initializing server...");
  bool ok = false;
  {
    Locked r(server, kOp);
    if (!r) return refused(kOp);
    char files[4][kNameRoom];
    ok = start(server, *r, files);
  }
  say("");
  return ok ? TRUE : refused(kOp);
}

BOOL server_responding(HANDLE server) {
  if (!server_responding1(server, "Hardware responding...")) return refused("server_responding");
  return TRUE;
}

BOOL server_responding1(HANDLE server, const char *label) {
  static const char *const kOp = "server_responding1";
  Locked r(server, kOp);
  if (!r || !cs71_responding(r->controller)) return refused(kOp);
  say(label);
  return TRUE;
}

BOOL server_init_sysparams(HANDLE server, HANDLE sysparams) {
  static const char *const kOp = "server_init_sysparams";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  if (sysparams == nullptr) return TRUE;
  // Reading each parameter's id walks every record once, so a broken one shows here.
  HANDLE list = sysparams_get_list(sysparams);
  if (list == nullptr) return refused(kOp);
  for (list_head(list); list_more(list); list_next(list)) sysparam_get_type(list_get_object(list));
  return tvx::error_pending() ? refused(kOp) : TRUE;
}

BOOL server_detector_type_ccd(HANDLE server) {
  static const char *const kOp = "server_detector_type_ccd";
  Locked r(server, kOp);
  if (!r || !cs71_dummy_load(r->controller, 0)) return refused(kOp);
  r->converter.dummy_load = 0;
  return TRUE;
}

BOOL server_detector_type_dummy(HANDLE server) {
  static const char *const kOp = "server_detector_type_dummy";
  Locked r(server, kOp);
  if (!r || !cs71_dummy_load(r->controller, 1)) return refused(kOp);
  r->converter.dummy_load = 1;
  return TRUE;
}

BOOL server_detector_type_set(HANDLE server, BOOL dummy) {
  return dummy ? server_detector_type_dummy(server) : server_detector_type_ccd(server);
}

}  // extern "C"
