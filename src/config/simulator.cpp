// The SIMULATOR section: what the simulated camera shows, and which fault it is told to show.
#include <cstdio>
#include <cstring>
#include <iterator>

#include "config/extract.h"
#include "foundation/fail.h"
#include "sim/scene.h"
#include "sim/settings.h"
#include "tvx/config.h"
#include "tvx/sections.h"

namespace {

struct Fault {
  const char *name;
  void (*apply)(tvx::sim::Settings &, const simulator &);
};

// A controller left at another speed than the card's loses every word in between.
constexpr int kMismatchedSpeed = 10;

constexpr Fault kFaults[] = {
    {"none", [](tvx::sim::Settings &, const simulator &) {}},
    {"card_absent", [](tvx::sim::Settings &s, const simulator &) { s.card_absent = true; }},
    {"power_off", [](tvx::sim::Settings &s, const simulator &) { s.power_off = true; }},
    {"error_flags",
     [](tvx::sim::Settings &s, const simulator &) { s.local_error = s.distant_error = true; }},
    {"linkspeed_mismatch",
     [](tvx::sim::Settings &s, const simulator &) { s.controller_speed = kMismatchedSpeed; }},
    {"drop_words", [](tvx::sim::Settings &s,
                      const simulator &r) { s.drop_after = r.drop_after > 0 ? r.drop_after : 1; }},
};

}  // namespace

extern "C" {

BOOL simulator_extract(simulator *record, HANDLE config) {
  static const char *const kOp = "simulator_extract";
  if (!config_check_section(config, "SIMULATOR")) return tvx::qualify(kOp);
  char scene[CONFIG_MAX_STRING + 1] = {}, fault[CONFIG_MAX_STRING + 1] = {};
  struct Row {
    const char *identifier;
    const char *letter;
    void *destination;
  };
  const Row rows[] = {
      {"scene", "s", scene},
      {"seed", "i", &record->seed},
      {"read_noise", "f", &record->read_noise},
      {"dark_current", "f", &record->dark_current},
      {"realtime", "b", &record->realtime},
      {"fault", "s", fault},
      {"drop_after", "i", &record->drop_after},
  };
  for (INT32 i = 0; i < static_cast<INT32>(std::size(rows)); ++i)
    if (!config_extract_section(config, "SIMULATOR", i + 1, 2, rows[i].letter, rows[i].destination))
      return tvx::config::unable(kOp, rows[i].identifier, "SIMULATOR");
  // The declaration's selections keep both words short.
  std::snprintf(record->scene, sizeof record->scene, "%.*s",
                static_cast<int>(sizeof record->scene - 1), scene);
  std::snprintf(record->fault, sizeof record->fault, "%.*s",
                static_cast<int>(sizeof record->fault - 1), fault);
  return TRUE;
}

BOOL simulator_apply(const simulator *record) {
  tvx::sim::SceneSettings scene;
  if (!tvx::sim::scene_kind_of(record->scene, &scene.kind))
    return tvx::fail(ERR_OUT_OF_RANGE, 0, "simulator_apply", {}, "unknown simulator scene '%s'.",
                     record->scene);
  scene.seed = static_cast<uint32_t>(record->seed);
  scene.read_noise = record->read_noise;
  scene.dark_current = record->dark_current;
  scene.realtime = record->realtime != 0;
  tvx::sim::set_scene_settings(scene);
  for (const Fault &f : kFaults)
    if (std::strcmp(f.name, record->fault) == 0) {
      tvx::sim::Settings next;
      f.apply(next, *record);
      tvx::sim::configure(next);
      return TRUE;
    }
  return tvx::fail(ERR_OUT_OF_RANGE, 0, "simulator_apply", {}, "unknown simulator fault '%s'.",
                   record->fault);
}

void simulator_print(const simulator *record, FILE *stream) {
  std::fprintf(stream,
               "simulator(scene %s, seed %ld, read_noise %.2f, dark_current %.2f, realtime '%s', "
               "fault %s, drop_after %ld)\n",
               record->scene, long{record->seed}, record->read_noise, record->dark_current,
               record->realtime ? "TRUE" : "FALSE", record->fault, long{record->drop_after});
}

}  // extern "C"
