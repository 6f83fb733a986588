// Hardware initialisation: the fixed sequence of commands that sets the controller up for a chip,
// sent with the information report showing the controller's progress.
#include <cstring>

#include "foundation/fail.h"
#include "server/server_record.h"
#include "tvx/cs71.h"
#include "tvx/report.h"

namespace {

using tvx::server::Locked;
using tvx::server::Record;
using tvx::server::refused;

// The controller takes the first voltages of the id table, vod to vstoh, in one packet.
constexpr INT16 kDesiredVoltages = 17;

// One step of the sequence, sent only when every step before it succeeded.
using Step = bool (*)(HANDLE server, Record &r, const volts &v, const ccd &c);

bool voltages_step(HANDLE, Record &r, const volts &v, const ccd &) {
  double buffer[kDesiredVoltages];
  return volts_make_desired_packet(&v, volts_id_name, kDesiredVoltages, buffer) &&
         cs71_configure_voltages(r.controller, buffer, kDesiredVoltages);
}

bool adc_constants_step(HANDLE, Record &r, const volts &, const ccd &) {
  INT16 a = 0, b = 0, c = 0;
  if (!cs71_adc_constants(r.controller, &a, &b, &c)) return false;
  // Constants given in the definition file are the site's own calibration: never overwritten.
  adc &k = r.converter;
  if (k.const1 == 0 && k.const2 == 0 && k.const3 == 0) {
    k.const1 = a;
    k.const2 = b;
    k.const3 = c;
  }
  return true;
}

constexpr Step kSequence[] = {
    voltages_step,
    [](HANDLE, Record &r, const volts &, const ccd &) -> bool {
      return cs71_adc_auxiliary(r.controller, r.converter.auxiliary);
    },
    [](HANDLE, Record &r, const volts &, const ccd &) -> bool {
      return cs71_shutter_pulse_widths(r.controller, r.converter.shutter);
    },
    [](HANDLE, Record &r, const volts &, const ccd &) -> bool {
      return cs71_set_concurrent(r.controller, r.concurrent);
    },
    [](HANDLE, Record &r, const volts &, const ccd &c) -> bool {
      return cs71_set_ccd_size(r.controller, c.xsize, c.ysize);
    },
    [](HANDLE, Record &r, const volts &, const ccd &c) -> bool {
      return cs71_set_acdc_coupling(r.controller, c.coupling);
    },
    [](HANDLE, Record &r, const volts &, const ccd &c) -> bool {
      return cs71_set_binning(r.controller, c.xbin, c.ybin);
    },
    [](HANDLE, Record &r, const volts &, const ccd &) -> bool {
      return cs71_set_adc_mode(r.controller, r.converter.mode);
    },
    [](HANDLE, Record &r, const volts &, const ccd &c) -> bool {
      return cs71_set_serial_mode(r.controller, c.serial_clocking);
    },
    [](HANDLE, Record &r, const volts &, const ccd &c) -> bool {
      return cs71_set_parallel_transfers(r.controller, c.parallel_transfers);
    },
    [](HANDLE, Record &r, const volts &, const ccd &c) -> bool {
      return cs71_set_parallel_mode(r.controller, c.parallel_clocking);
    },
    [](HANDLE, Record &r, const volts &, const ccd &c) -> bool {
      return cs71_set_parallel_timing(r.controller, c.ptiming1, c.ptiming2, c.ptiming_count);
    },
    [](HANDLE server, Record &r, const volts &, const ccd &) -> bool {
      return server_detector_type_set(server, r.converter.dummy_load != 0);
    },
    [](HANDLE, Record &r, const volts &, const ccd &c) -> bool {
      return cs71_hwinit(r.controller, c.blacklevel);
    },
    adc_constants_step,
};

}  // namespace

extern "C" {

BOOL volts_make_desired_packet(const volts *voltages, const char *(*names)(INT32 id), INT16 count,
                               double *buffer) {
  if (count < 0 || count > VOLTS_COUNT)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, "volts_make_desired_packet", {0x1040},
                     "%d desired voltages asked for, of %d.", int{count}, VOLTS_COUNT);
  // Each id's voltage is found by the name the table gives it, wherever the file put it.
  for (INT16 id = 0; id < count; ++id) {
    const char *name = names(id);
    const voltage *found = nullptr;
    for (const voltage &v : voltages->entries)
      if (v.name != nullptr && std::strcmp(v.name, name) == 0) {
        found = &v;
        break;
      }
    if (found == nullptr)
      return tvx::fail(ERR_NO_DATA, 0, "volts_make_desired_packet", {0x2019},
                       "desired voltage '%s' not found.", name);
    buffer[id] = found->nominal;
  }
  return TRUE;
}

BOOL server_hwinit(HANDLE server, const volts *voltages, const ccd *chip) {
  static const char *const kOp = "server_hwinit";
  if (voltages == nullptr || chip == nullptr)
    return tvx::fail(ERR_NO_DATA, 0, kOp, {0x1045}, "no %s given.",
                     voltages == nullptr ? "voltages" : "ccd description");
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  report *info = nullptr;
  report_where_is(REPORT_INFO, &info);
  report_capture_start();
  report_send(info, "Initializing hardware");
  bool ok = true;
  for (Step step : kSequence)
    if (!(ok = step(server, *r, *voltages, *chip))) break;
  report_capture_stop();
  return ok ? TRUE : refused(kOp);
}

}  // extern "C"
