// The camera's settings and queries: each checks its arguments against the chip, passes the
// value to the server and adds a line that begins with "while" when the server fails.
#include <cstdio>

#include "camera/camera_record.h"
#include "foundation/fail.h"
#include "tvx/list.h"

namespace {

using tvx::camera::Locked;
using tvx::camera::Record;

constexpr INT32 kProgrammer = 0x1040;
constexpr INT32 kCcdValues = 0x2016;
constexpr INT32 kLargestBlacklevel = 65535;

// Runs `call` on the camera's server; a failure adds `text` under `op`.
template <class Call>
BOOL through_server(HANDLE camera, const char *op, const char *text, Call call) {
  Locked r(camera, op);
  if (!r) return tvx::qualify(op);
  if (!call(*r)) return text != nullptr ? tvx::qualify(op, "%s", text) : tvx::qualify(op);
  return TRUE;
}

// A query that copies fields of the record; NULL outputs are refused.
template <class Copy>
BOOL query(HANDLE camera, const char *op, bool outputs_given, Copy copy) {
  Locked r(camera, op);
  if (!r) return tvx::qualify(op);
  if (!outputs_given) return tvx::fail(ERR_PROGRAMMER, 0, op, {kProgrammer}, "invalid argmument");
  copy(*r);
  return TRUE;
}

// The measured voltages of the last camera_get_allvoltages, shared by every camera.
camera_voltage measured[VOLTS_COUNT];

}  // namespace

extern "C" {

BOOL camera_set_binning(HANDLE camera, INT32 xbin, INT32 ybin) {
  static const char *const kOp = "camera_set_binning";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  const bool x_ok = xbin >= 1 && xbin <= r->chip.xsize;
  const bool y_ok = ybin >= 1 && ybin <= r->chip.ysize;
  // A value in range is kept even when the other is refused.
  if (x_ok) r->chip.xbin = xbin;
  if (y_ok) r->chip.ybin = ybin;
  if (!y_ok)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {kCcdValues},
                     "%s setting of %ld is out of range (1 - %ld).", "y binning", long{ybin},
                     long{r->chip.ysize});
  if (!x_ok)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {kCcdValues},
                     "%s setting of %ld is out of range (1 - %ld).", "x binning", long{xbin},
                     long{r->chip.xsize});
  if (!server_set_binning(r->server, xbin, ybin))
    return tvx::qualify(kOp, "while setting the binning.");
  return TRUE;
}

BOOL camera_get_binning(HANDLE camera, INT32 *xbin, INT32 *ybin) {
  return query(camera, "camera_get_binning", xbin != nullptr && ybin != nullptr, [&](Record &r) {
    *xbin = r.chip.xbin;
    *ybin = r.chip.ybin;
  });
}

BOOL camera_set_blacklevel(HANDLE camera, INT32 level) {
  return through_server(camera, "camera_set_blacklevel", "while setting the blacklevel.",
                        [level](Record &r) {
                          if (!server_set_blacklevel(r.server, level)) return false;
                          r.chip.blacklevel = level;
                          return true;
                        });
}

BOOL camera_get_blacklevel(HANDLE camera, INT32 *level) {
  return query(camera, "camera_get_blacklevel", level != nullptr,
               [&](Record &r) { *level = r.chip.blacklevel; });
}

BOOL camera_get_blacklevel_limits(HANDLE camera, INT32 *low, INT32 *high) {
  return query(camera, "camera_get_blacklevel_limts", low != nullptr && high != nullptr,
               [&](Record &) {
                 *low = 0;
                 *high = kLargestBlacklevel;
               });
}

BOOL camera_set_ccd_size(HANDLE camera, INT32 xsize, INT32 ysize) {
  static const char *const kOp = "camera_set_ccd_size";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  if (xsize < 1)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {kCcdValues}, "ccd xsize less than zero");
  r->chip.xsize = xsize;
  if (ysize < 1)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {kCcdValues}, "ccd ysize less than zero");
  r->chip.ysize = ysize;
  return TRUE;
}

BOOL camera_get_ccd_size(HANDLE camera, INT32 *xsize, INT32 *ysize) {
  if (xsize == nullptr || ysize == nullptr) tvx::require_failed(38, "getccdsz");
  return query(camera, "camera_get_ccd_size", true, [&](Record &r) {
    *xsize = r.chip.xsize;
    *ysize = r.chip.ysize;
  });
}

BOOL camera_get_active_area(HANDLE camera, INT32 *area) {
  return query(camera, "camera_get_active_area", area != nullptr, [&](Record &r) {
    for (int i = 0; i < 4; ++i) area[i] = r.chip.active_area[i];
  });
}

BOOL camera_set_droop(HANDLE camera) {
  return through_server(camera, "camera_set_droop", "while setting the droop.",
                        [](Record &r) { return server_set_droop(r.server); });
}

BOOL camera_set_gain(HANDLE camera, INT32 pixel_rate, INT32 sensitivity) {
  return through_server(camera, "camera_set_gain", "while setting the gain.", [&](Record &r) {
    if (!server_set_gain(r.server, pixel_rate, sensitivity, r.chip.fegain)) return false;
    r.chip.pixel_rate = pixel_rate;
    r.chip.sensitivity = sensitivity;
    return true;
  });
}

BOOL camera_get_gain_settings(HANDLE camera, INT32 *pixel_rate, INT32 *sensitivity) {
  return query(camera, "camera_get_gain_settings", pixel_rate != nullptr && sensitivity != nullptr,
               [&](Record &r) {
                 *pixel_rate = r.chip.pixel_rate;
                 *sensitivity = r.chip.sensitivity;
               });
}

BOOL camera_get_gain_table(HANDLE camera, double *ms, double *electrons, INT32 *valid,
                           INT32 index) {
  return through_server(camera, "camera_get_gain_table", nullptr, [=](Record &r) {
    return server_get_gain_table(r.server, ms, electrons, valid, index);
  });
}

BOOL camera_get_ms_per_pixel(HANDLE camera, INT32 pixel_rate, double *ms) {
  return through_server(camera, "camera_get_ms_per_pixel", nullptr, [=](Record &r) {
    return server_get_ms_per_pixel(r.server, pixel_rate, ms);
  });
}

BOOL camera_get_electrons_per_level(HANDLE camera, INT32 pixel_rate, INT32 sensitivity,
                                    double *electrons) {
  return through_server(camera, "camera_get_electrons_per_level", nullptr, [=](Record &r) {
    return server_get_electrons_per_level(r.server, pixel_rate, sensitivity, electrons);
  });
}

BOOL camera_get_peak_signal(HANDLE camera, INT32 pixel_rate, INT32 sensitivity, double *electrons) {
  return through_server(camera, "camera_get_peak_signal", nullptr, [=](Record &r) {
    return server_get_peak_signal(r.server, pixel_rate, sensitivity, electrons);
  });
}

BOOL camera_set_offset(HANDLE camera) {
  return through_server(camera, "camera_set_offset", "while setting the balance.",
                        [](Record &r) { return server_set_offset(r.server); });
}

BOOL camera_set_operation_mode(HANDLE camera, INT32 mode) {
  static const char *const kOp = "camera_set_operation_mode";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  if (mode < 0 || mode > 3)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {kProgrammer}, "unknown camera operation mode (%d)",
                     int{mode});
  r->operation_mode = mode;
  return TRUE;
}

BOOL camera_get_operation_mode(HANDLE camera, INT32 *mode) {
  return query(camera, "camera_get_operation_mode", mode != nullptr,
               [&](Record &r) { *mode = r.operation_mode; });
}

BOOL camera_set_voltages(HANDLE camera) {
  return through_server(camera, "camera_set_voltages", "while setting the voltages.",
                        [](Record &r) {
                          voltage_request all[VOLTS_COUNT];
                          for (INT16 id = 0; id < VOLTS_COUNT; ++id)
                            all[id] = voltage_request{id, r.voltages.entries[id].nominal, 0};
                          return server_set_voltages(r.server, all, VOLTS_COUNT);
                        });
}

BOOL camera_get_voltages(HANDLE camera, voltage_request *elements, INT32 n) {
  return through_server(camera, "camera_get_voltages", "while reading the camera voltages.",
                        [=](Record &r) { return server_get_voltages(r.server, elements, n); });
}

BOOL camera_get_allvoltages(HANDLE camera, camera_voltage *out) {
  return through_server(
      camera, "camera_get_allvoltages", "while trying to get voltages.", [out](Record &r) {
        voltage_request all[VOLTS_COUNT];
        for (INT16 id = 0; id < VOLTS_COUNT; ++id) all[id] = voltage_request{id, 0.0, 0};
        if (!server_get_voltages(r.server, all, VOLTS_COUNT)) return false;
        // What the server skips (write-only or absent) was not read.
        for (INT16 id = 0; id < VOLTS_COUNT; ++id)
          out[id] = camera_voltage{all[id].value, static_cast<BYTE>(voltageid_access(id) != 1 &&
                                                                    voltageid_type(id) != 0)};
        return true;
      });
}

BOOL camera_get_voltage_name(HANDLE camera, INT32 id, const char **name) {
  static const char *const kOp = "camera_get_voltage_name";
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  if (voltageid_type(id) == 0 && (id < 0 || id >= VOLTS_COUNT + 8))
    return tvx::fail(ERR_NO_DATA, 0, kOp, {kProgrammer}, "there is no name for voltage id '%d'.",
                     int{id});
  *name = volts_id_name(id);
  return TRUE;
}

BOOL camera_get_ccd_temperature(HANDLE camera, double *first, double *second) {
  return through_server(
      camera, "camera_get_ccd_temperature", "while trying to read the ccd temperatures.",
      [=](Record &r) { return server_get_ccd_temperature(r.server, first, second); });
}

BOOL camera_wait_ccd_temperature(HANDLE camera) {
  return through_server(camera, "camera_wait_ccd_temperature",
                        "while waiting for the camera temperature to stablise.",
                        [](Record &r) { return server_wait_ccd_temperature(r.server); });
}

BOOL camera_verify(HANDLE camera) {
  static const char *const kOp = "camera_verify";
  HANDLE server = nullptr;
  {
    Locked r(camera, kOp);
    if (!r) return tvx::qualify(kOp);
    server = r->server;
  }
  if (!server_verify(server) || !camera_get_allvoltages(camera, measured))
    return tvx::qualify(kOp, "while verifying the hardware setup.");
  Locked r(camera, kOp);
  if (!r) return tvx::qualify(kOp);
  for (INT32 id = 0; id < VOLTS_COUNT; ++id) {
    if (!measured[id].read) continue;
    const voltage &v = r->voltages.entries[id];
    const double low = v.nominal - v.tolerance, high = v.nominal + v.tolerance;
    if (measured[id].value < low || measured[id].value > high)
      return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {0x2019},
                       "voltage %s (%.2f) out of tolerance (%.2f - %.2f)", v.name,
                       measured[id].value, low, high);
  }
  return TRUE;
}

BOOL camera_detector_type_ccd(HANDLE camera) {
  return through_server(camera, "camera_detector_type_ccd",
                        "while setting the detector to be the ccd.",
                        [](Record &r) { return server_detector_type_ccd(r.server); });
}

BOOL camera_detector_type_dummy(HANDLE camera) {
  return through_server(camera, "camera_detector_type_dummy",
                        "while setting the detector to be dummy load.",
                        [](Record &r) { return server_detector_type_dummy(r.server); });
}

BOOL camera_get_ccd_information(HANDLE camera, const char **type, const char **mode,
                                const char **serial_no, const char **product_reference) {
  auto known = [](const char *s) { return s != nullptr ? s : "unknown"; };
  return query(
      camera, "camera_get_ccd_information",
      type != nullptr && mode != nullptr && serial_no != nullptr && product_reference != nullptr,
      [&](Record &r) {
        *type = known(r.chip.type);
        *mode = known(r.chip.mode);
        *serial_no = known(r.chip.serial_no);
        *product_reference = known(r.chip.product_reference);
      });
}

BOOL camera_get_operation_stats(HANDLE camera, INT32 *counters) {
  return query(camera, "camera_get_operation_stats", counters != nullptr, [&](Record &r) {
    for (int i = 0; i < CAMERA_OPERATION_COUNTERS; ++i) counters[i] = r.counters[i];
  });
}

void camera_print_ccd(HANDLE camera, FILE *stream) {
  Locked r(camera, "camera_print_ccd");
  if (r) ccd_print(&r->chip, stream);
}

void camera_print_volts(HANDLE camera, FILE *stream) {
  Locked r(camera, "camera_print_volts");
  if (r) volts_print(&r->voltages, stream);
}

void camera_print_camprogs(HANDLE camera, FILE *stream) {
  Locked r(camera, "camera_print_camprogs");
  if (!r) return;
  std::fputs("camprogs(", stream);
  if (r->programs != nullptr) list_print(r->programs, camprog_print, stream);
  std::fputs(")\n", stream);
}

void camera_print(HANDLE camera, FILE *stream) {
  if (camera == nullptr) return;
  camera_print_ccd(camera, stream);
  camera_print_volts(camera, stream);
  camera_print_camprogs(camera, stream);
}

}  // extern "C"
