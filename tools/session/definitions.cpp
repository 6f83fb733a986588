// Reading the definition files through the library's own section readers, for what the camera
// does not tell: nominal voltages, the gain table's descriptions, the program list and whether
// the adapter is the simulator.
#include "definitions.h"

#include <cstring>

namespace session {

namespace {

// The parsed files, deleted on every path.
struct Config {
  HANDLE handle = nullptr;
  ~Config() {
    if (handle != nullptr) config_delete(handle);
  }
};

bool read_gains(HANDLE config, Definitions *out) {
  if (!config_check_section(config, "GAIN_TABLE")) return false;
  gain table{};
  bool ok = gain_extract_table(&table, config);
  for (INT32 n = 1; ok && n <= list_size(table.table); ++n) {
    HANDLE h = list_get_nth_object(table.table, n);
    const auto *s = static_cast<const gainsetting *>(handle_lock(h, "session"));
    if (s == nullptr) {
      ok = false;
      break;
    }
    out->gains.push_back(
        GainRow{s->pixel_rate, s->sensitivity, s->ms_per_pixel, s->comment ? s->comment : ""});
    handle_unlock(h, "session");
  }
  gain_dtor(&table);
  return ok;
}

bool read_programs(HANDLE config, Definitions *out) {
  if (!config_check_section(config, "PROGRAMS")) return false;
  HANDLE list = nullptr;
  bool ok = camprogs_extract(&list, config);
  // The reader puts each program in front of the last: the file's order is the list reversed.
  for (INT32 n = list_size(list); ok && n >= 1; --n) {
    HANDLE h = list_get_nth_object(list, n);
    const auto *p = static_cast<const camprog *>(handle_lock(h, "session"));
    if (p == nullptr) {
      ok = false;
      break;
    }
    out->programs.push_back(Program{p->name ? p->name : "", p->filename ? p->filename : ""});
    handle_unlock(h, "session");
  }
  if (list != nullptr) list_delete(list, camprog_delete);
  return ok;
}

bool read_volts(HANDLE config, Definitions *out) {
  if (!config_check_section(config, "VOLTAGES")) return false;
  volts v{};
  if (!volts_extract(&v, config)) {
    volts_dtor(&v);
    return false;
  }
  for (const voltage &e : v.entries) {
    out->volt_names.push_back(e.name != nullptr ? e.name : "");
    out->volts.push_back(voltage{nullptr, e.nominal, e.tolerance});
  }
  volts_dtor(&v);
  return true;
}

}  // namespace

bool read_definitions(const std::string &hw, const std::string &ccd, Definitions *out) {
  Config c;
  c.handle =
      ccd.empty() ? config_new(hw.c_str(), nullptr) : config_new(hw.c_str(), ccd.c_str(), nullptr);
  if (c.handle == nullptr || !config_check_section(c.handle, "DEVICE")) return false;
  device dev{};
  const bool got = device_extract(&dev, c.handle);
  if (got && dev.name != nullptr) out->device = dev.name;
  device_dtor(&dev);
  if (!got) return false;
  INT32 index = 0;
  out->has_simulator = config_section_defined(c.handle, "SIMULATOR", &index);
  if (out->has_simulator &&
      (!config_check_section(c.handle, "SIMULATOR") || !simulator_extract(&out->sim, c.handle)))
    return false;
  if (!read_gains(c.handle, out)) return false;
  if (ccd.empty()) return true;
  return read_volts(c.handle, out) && read_programs(c.handle, out);
}

}  // namespace session
