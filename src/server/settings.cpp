// The server's settings and queries. Most send one controller command; the voltages go through
// the channel table, and the temperature wait watches the cooler settle.
#include <cmath>
#include <cstdio>

#include "foundation/fail.h"
#include "server/server_record.h"
#include "tvx/cs71.h"
#include "tvx/csp.h"
#include "tvx/list.h"
#include "tvx/report.h"

namespace {

using tvx::server::Locked;
using tvx::server::Record;
using tvx::server::refused;

constexpr INT32 kGainTableErrors = 0x2013;
constexpr INT32 kProgrammer = 0x1040;
constexpr double kKelvin = 273.15;
constexpr INT16 kCcdTemperature1 = 32, kCcdTemperature2 = 34;
constexpr INT32 kTwoChannelMode = 17;

// Sends one command to the server's controller; a failure adds the operation's name.
template <class Command>
BOOL send(HANDLE server, const char *op, Command command) {
  Locked r(server, op);
  if (!r || !command(r->controller)) return refused(op);
  return TRUE;
}

// The first row of the gain table that `match` finds for `key`, copied out.
bool find_row(const Record &r, gainsetting *key, list_match_fn match, gainsetting *out) {
  HANDLE found = nullptr;
  if (r.gains.table == nullptr || !list_find_object(r.gains.table, key, match, &found) ||
      found == nullptr)
    return false;
  tvx::Locked<gainsetting> row(found, "server_gain");
  if (!row) return false;
  *out = *row;
  return true;
}

bool read_temperature(Record &r, double *celsius, INT16 id) {
  INT16 raw = 0;
  if (!cs71_get_voltage(r.controller, voltageid_map(id), &raw)) return false;
  *celsius = raw / 100.0 - kKelvin;
  return true;
}

// The temperature of the last wait, shared by every server: a camera that has settled once need
// not wait again while it stays near it.
double last_temperature = 0.0;

constexpr DWORD kSecond = 100;
constexpr DWORD kDriftPeriod = 60 * kSecond;
constexpr DWORD kSettledFor = 180 * kSecond;
constexpr DWORD kLongestWait = 30 * 60 * kSecond;
constexpr double kDrift = 3.0;

}  // namespace

extern "C" {

// ---- One command each ---------------------------------------------------------------------------

BOOL server_adc_bipolar(HANDLE s) {
  return send(s, "server_adc_bipolar", [](HANDLE c) { return cs71_adc_polarity(c, 1); });
}
BOOL server_adc_unipolar(HANDLE s) {
  return send(s, "server_adc_unipolar", [](HANDLE c) { return cs71_adc_polarity(c, 0); });
}
BOOL server_adc_calibrate(HANDLE s) {
  return send(s, "server_adc_calibrate", cs71_adc_calibrate);
}
BOOL server_open_shutter(HANDLE s) {
  return send(s, "server_open_shutter", cs71_open_shutter);
}
BOOL server_close_shutter(HANDLE s) {
  return send(s, "server_close_shutter", cs71_close_shutter);
}
BOOL server_playback(HANDLE s) {
  return send(s, "server_playback", cs71_playback);
}
BOOL server_empty_recorder(HANDLE s) {
  return send(s, "server_empty_recorder", cs71_empty);
}
BOOL server_record_ccd_row(HANDLE s) {
  return send(s, "server_record_ccd_row", cs71_record_ccd_row);
}
BOOL server_set_adc_mode(HANDLE server, INT32 mode) {
  static const char *const kOp = "server_set_adc_mode";
  Locked r(server, kOp);
  if (!r || !cs71_set_adc_mode(r->controller, mode)) return refused(kOp);
  // The data mode and the depth of the images read from now on follow the converter.
  r->converter.mode = mode;
  return TRUE;
}
BOOL server_set_binning(HANDLE s, INT32 x, INT32 y) {
  return send(s, "server_set_binning", [x, y](HANDLE c) { return cs71_set_binning(c, x, y); });
}
BOOL server_set_blacklevel(HANDLE s, INT32 level) {
  return send(s, "server_set_blacklevel",
              [level](HANDLE c) { return cs71_set_blacklevel(c, level); });
}
BOOL server_set_ccd_temp(HANDLE s, double t) {
  return send(s, "server_set_ccd_temp", [t](HANDLE c) { return cs71_set_ccd_temp(c, t); });
}
BOOL server_set_droop(HANDLE s) {
  return send(s, "server_set_droop", cs71_set_droop);
}
BOOL server_set_integration_time(HANDLE server, double time) {
  static const char *const kOp = "server_set_integration_time";
  Locked r(server, kOp);
  if (!r || !cs71_set_integr_time(r->controller, time)) return refused(kOp);
  // The data mode of the next readout depends on it.
  r->gains.current.integr_time = time;
  return TRUE;
}
BOOL server_set_noise_trim(HANDLE s) {
  return send(s, "server_set_noise_trim", cs71_set_noise_trim);
}
BOOL server_set_offset(HANDLE s) {
  return send(s, "server_set_offset", cs71_set_offset);
}
BOOL server_set_pgain(HANDLE s, INT32 g) {
  return send(s, "server_set_pgain", [g](HANDLE c) { return cs71_set_pgain(c, g); });
}
BOOL server_set_time_constant(HANDLE s, INT32 t) {
  return send(s, "server_set_time_constant", [t](HANDLE c) { return cs71_set_time_const(c, t); });
}
BOOL server_set_vss(HANDLE s, double readout, double flush) {
  return send(s, "server_set_vss",
              [readout, flush](HANDLE c) { return cs71_set_vss(c, readout, flush); });
}
BOOL server_set_region(HANDLE s, INT32 mode, INT32 x, INT32 y, INT32 w, INT32 h) {
  return send(s, "server_set_region",
              [=](HANDLE c) { return cs71_set_region(c, mode, x, y, w, h); });
}
BOOL server_reverse_clocks(HANDLE s, INT16 a, INT16 b) {
  return send(s, "server_reverse_clocks",
              [a, b](HANDLE c) { return cs71_reverse_clocks(c, a, b); });
}
BOOL server_parallel_transfers(HANDLE s, INT32 n) {
  return send(s, "server_parallel_transfers",
              [n](HANDLE c) { return cs71_set_parallel_transfers(c, n); });
}
BOOL server_read_fifo(HANDLE s) {
  return send(s, "server_read_fifo", cs71_read_fifo);
}
BOOL server_read_userport(HANDLE s, INT16 *value) {
  return send(s, "server_read_userport",
              [value](HANDLE c) { return cs71_read_userport(c, value); });
}
BOOL server_write_userport(HANDLE s, INT16 value) {
  return send(s, "server_write_userport",
              [value](HANDLE c) { return cs71_write_userport(c, value); });
}
BOOL server_verify(HANDLE s) {
  return send(s, "server_verify", cs71_check_state_vector);
}

BOOL server_set_verbose(HANDLE server, BOOL verbose) {
  Locked r(server, "server_set_verbose");
  if (!r || !csp_set_verbose(r->packets, verbose)) return refused("server_set_verbose");
  return TRUE;
}

BOOL server_get_bits_per_pixel(HANDLE server, INT32 *bits) {
  Locked r(server, "server_get_bits_per_pixel");
  if (!r) return refused("server_get_bits_per_pixel");
  *bits = (r->converter.mode & 63) == kTwoChannelMode ? 20 : 16;
  return TRUE;
}

BOOL server_get_adc_polarity(HANDLE server, INT32 *polarity) {
  Locked r(server, "server_get_adc_polarity");
  if (!r) return refused("server_get_adc_polarity");
  *polarity = r->gains.current.adc_polarity;
  return TRUE;
}

BOOL server_tolink0(HANDLE server) {
  Locked r(server, "server_tolink0");
  return r ? TRUE : refused("server_tolink0");
}

// ---- Gain ---------------------------------------------------------------------------------------

BOOL server_set_gain(HANDLE server, INT32 pixel_rate, INT32 sensitivity, double ccd_gain) {
  static const char *const kOp = "server_set_gain";
  gainsetting chosen{};
  {
    Locked r(server, kOp);
    if (!r) return refused(kOp);
    r->gains.ccd_gain = ccd_gain;
    if (!gain_init(&r->gains, pixel_rate, sensitivity)) return refused(kOp);
    chosen = r->gains.current;
  }
  const bool ok =
      server_set_time_constant(server, static_cast<INT32>(chosen.time_const)) &&
      server_set_pgain(server, chosen.pgain) &&
      server_set_integration_time(server, chosen.integr_time) &&
      (chosen.adc_polarity == 1 ? server_adc_bipolar(server) : server_adc_unipolar(server));
  return ok ? TRUE : refused(kOp);
}

BOOL server_calc_electrons_per_level(HANDLE server, gainsetting *setting) {
  static const char *const kOp = "server_calc_electrons_per_level";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  return gain_electrons_per_level(&r->gains, setting);
}

BOOL server_calc_gain(HANDLE server, gainsetting *setting) {
  return server_calc_electrons_per_level(server, setting) ? TRUE : refused("server_calc_gain");
}

BOOL server_get_ms_per_pixel(HANDLE server, INT32 pixel_rate, double *ms) {
  static const char *const kOp = "server_get_ms_per_pixel";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  gainsetting key{}, row{};
  key.pixel_rate = pixel_rate;
  if (!find_row(*r, &key, gain_find_pixel_rate1, &row))
    return tvx::fail(ERR_NO_DATA, 0, kOp, {kGainTableErrors, kProgrammer},
                     "requested readout rate '%ld' not found in the table.", long{pixel_rate});
  *ms = row.ms_per_pixel;
  return TRUE;
}

BOOL server_get_electrons_per_level(HANDLE server, INT32 pixel_rate, INT32 sensitivity,
                                    double *electrons) {
  static const char *const kOp = "server_get_electrons_per_level";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  gainsetting key{}, row{};
  key.pixel_rate = pixel_rate;
  key.sensitivity = sensitivity;
  if (!find_row(*r, &key, gain_findfn1, &row))
    return tvx::fail(ERR_NO_DATA, 0, kOp, {kGainTableErrors, kProgrammer},
                     "requested readout rate '%ld' and sensitivity '%ld' not found in the table.",
                     long{pixel_rate}, long{sensitivity});
  if (!gain_electrons_per_level(&r->gains, &row)) return refused(kOp);
  *electrons = row.electrons_per_level;
  return TRUE;
}

BOOL server_get_peak_signal(HANDLE server, INT32 pixel_rate, INT32 sensitivity, double *electrons) {
  static const char *const kOp = "server_get_peak_signal";
  double per_level = 0;
  INT32 bits = 16;
  if (!server_get_electrons_per_level(server, pixel_rate, sensitivity, &per_level) ||
      !server_get_bits_per_pixel(server, &bits))
    return refused(kOp);
  *electrons = per_level * (std::ldexp(1.0, bits) - 1.0);
  return TRUE;
}

BOOL server_get_gain_table(HANDLE server, double *ms, double *electrons, INT32 *valid,
                           INT32 index) {
  static const char *const kOp = "server_get_gain_table";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  *valid = 0;
  HANDLE found = nullptr;
  if (r->gains.table == nullptr || !list_get_nth_object_x(r->gains.table, index, &found) ||
      found == nullptr)
    return tvx::error_pending() ? refused(kOp) : TRUE;
  gainsetting row{};
  {
    tvx::Locked<gainsetting> setting(found, kOp);
    if (!setting) return refused(kOp);
    row = *setting;
  }
  if (!gain_electrons_per_level(&r->gains, &row)) return refused(kOp);
  *ms = row.ms_per_pixel;
  *electrons = row.electrons_per_level;
  *valid = 1;
  return TRUE;
}

BOOL server_print_gain(HANDLE server, FILE *stream) {
  Locked r(server, "server_print_gain");
  if (!r) return FALSE;
  gain_print(&r->gains, stream);
  return TRUE;
}

// ---- Voltages and temperature --------------------------------------------------------------

BOOL server_get_voltages(HANDLE server, voltage_request *elements, INT32 n) {
  static const char *const kOp = "server_get_voltages";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  for (INT32 i = 0; i < n; ++i) {
    voltage_request &e = elements[i];
    // Write-only and absent channels have nothing to read back.
    if (voltageid_access(e.id) == 1 || voltageid_type(e.id) == 0) continue;
    e.busy = 1;
    INT16 raw = 0;
    const bool ok = cs71_get_voltage(r->controller, voltageid_map(e.id), &raw);
    e.busy = 0;
    if (!ok) return refused(kOp);
    e.value = raw / 100.0;
  }
  return TRUE;
}

BOOL server_set_voltages(HANDLE server, const voltage_request *elements, INT32 n) {
  static const char *const kOp = "server_set_voltages";
  Locked r(server, kOp);
  if (!r) return refused(kOp);
  for (INT32 i = 0; i < n; ++i) {
    const voltage_request &e = elements[i];
    if (voltageid_access(e.id) == 0 || voltageid_type(e.id) == 0) continue;
    if (!cs71_set_voltage(r->controller, voltageid_map(e.id), e.value)) return refused(kOp);
  }
  return TRUE;
}

BOOL server_get_ccd_temperature(HANDLE server, double *first, double *second) {
  static const char *const kOp = "server_get_ccd_temperature";
  Locked r(server, kOp);
  if (!r || !read_temperature(*r, first, kCcdTemperature1) ||
      !read_temperature(*r, second, kCcdTemperature2))
    return refused(kOp);
  return TRUE;
}

BOOL server_wait_ccd_temperature(HANDLE server) {
  static const char *const kOp = "server_wait_ccd_temperature";
  {
    Locked r(server, kOp);
    if (!r) return refused(kOp);
    if (r->converter.dummy_load) return TRUE;  // a dummy detector has no cooler
  }
  double t = 0, other = 0;
  if (!server_get_ccd_temperature(server, &t, &other)) return refused(kOp);
  const bool near_last = last_temperature != 0.0 && std::fabs(t - last_temperature) < kDrift;
  last_temperature = t;
  if (near_last) return TRUE;

  const DWORD start = time_centiseconds();
  DWORD period = start, settled_from = start;
  double drift = 0.0, previous = t;
  for (;;) {
    const DWORD now = time_centiseconds();
    if (now - settled_from >= kSettledFor) return TRUE;
    if (now - start >= kLongestWait)
      return tvx::fail(ERR_TIMEOUT, 0, kOp, {0x201a},
                       "ccd temperature did not settle within %lu minutes.",
                       static_cast<unsigned long>(kLongestWait / kSecond / 60));
    if (!delay_centiseconds(kSecond) || !server_get_ccd_temperature(server, &t, &other))
      return refused(kOp);
    last_temperature = t;
    drift += t - previous;
    previous = t;
    if (time_centiseconds() - period > kDriftPeriod) {
      period = time_centiseconds();
      if (std::fabs(drift) >= kDrift) settled_from = period;
      drift = 0.0;
    }
  }
}

// ---- Printing -----------------------------------------------------------------------------------

void server_print_adc(HANDLE server, FILE *stream) {
  if (server == nullptr) return;
  Locked r(server, "server_print_adc");
  if (r) adc_print(&r->converter, stream);
}

void server_print_device(HANDLE server, FILE *stream) {
  if (server == nullptr) return;
  Locked r(server, "server_print_device");
  if (r) device_print(&r->dev, stream);
}

void server_print_transputer(HANDLE server, FILE *stream) {
  if (server == nullptr) return;
  Locked r(server, "server_print_transputer");
  if (r) trans_print(&r->transputer, stream);
}

void server_print_hwregs(HANDLE, FILE *) {}

void server_print(HANDLE server, FILE *stream) {
  if (server == nullptr) return;
  server_print_adc(server, stream);
  server_print_device(server, stream);
  server_print_transputer(server, stream);
  server_print_gain(server, stream);
}

}  // extern "C"
