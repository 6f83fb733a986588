// The controller's command set as one table: for each command its control code, how each
// argument is checked and put on the wire, the parameter count of the completion, the way it is
// sent and the text its failure carries. One function walks a row; the few commands that carry
// vectors or read a stream of replies fill the packet themselves and then walk the same row.
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include "foundation/fail.h"
#include "foundation/wait.h"
#include "protocol/protocol.h"
#include "tvx/csp.h"
#include "tvx/error.h"
#include "tvx/list.h"
#include "tvx/report.h"
#include "tvx/values.h"

using tvx::fail;
using tvx::qualify;
using namespace tvx::protocol;

namespace {

enum class Check : uint8_t { none, range, real, choice };
// How a checked value goes out: one word; two words, low then high; times 100 or times 10,
// truncated toward zero; or mapped to the controller's code for it.
enum class Send : uint8_t { word, split, x100, x10, map };

struct Arg {
  bool used = false;  // the unused places of a row's five
  const char *name = nullptr;
  Check check = Check::none;
  double low = 0, high = 0;
  const char *choices = nullptr;
  Send send = Send::word;
  const INT16 *from = nullptr, *to = nullptr;
  INT16 map_count = 0;
};

constexpr Arg raw() {
  return {true};
}
constexpr Arg range(const char *name, double low, double high, Send send = Send::word) {
  return {true, name, Check::range, low, high, nullptr, send};
}
constexpr Arg real(const char *name, double low, double high, Send send) {
  return {true, name, Check::real, low, high, nullptr, send};
}
constexpr Arg hundredths() {
  return {true, nullptr, Check::none, 0, 0, nullptr, Send::x100};
}
constexpr Arg choice(const char *name, const char *choices) {
  return {true, name, Check::choice, 0, 0, choices, Send::word};
}
template <size_t N>
constexpr Arg mapped(const char *name, const char *choices, const INT16 (&from)[N],
                     const INT16 (&to)[N]) {
  return {true, name, Check::choice, 0, 0, choices, Send::map, from, to, INT16{N}};
}

// probe: the liveness probe, the request and its completion. probe_twice: one more probe first.
// direct: the request alone, nothing awaited. progress: the request, then its progress reports
// up to the completion. expose: the request, the host's sleep through it, the completion.
enum class Path : uint8_t { probe, probe_twice, direct, progress, expose };

struct Command {
  const char *op;
  INT16 control;
  Arg args[5];
  INT16 reply_low, reply_high;
  Path path;
  const char *failure;
};

constexpr INT16 kPgains[] = {5, 50}, kPgainCodes[] = {0, 1};
constexpr INT16 kTimeConstants[] = {2, 4, 6, 8}, kTimeConstantCodes[] = {0, 1, 2, 3};
constexpr double kLongest = 2147483646;
constexpr const char *kOnOff = "0 or 1";

// clang-format off
const Command kCommands[] = {
  {"cs71_responding", 1, {}, 0, 0, Path::direct, "hardware not responding"},
  {"cs71_hwinit", 2, {range("invalid blacklevel", 0, 65535)}, 0, 0, Path::progress,
   "hardware initialization failed"},
  {"cs71_read_adc", 3, {range("invalid multiplexer channel", 16, 47)}, 1, 1, Path::probe,
   "read adc failed"},
  {"cs71_get_voltage", 4, {range("invalid voltage id", 0, 45)}, 1, 1, Path::probe,
   "get voltage failed."},
  {"cs71_set_voltage", 5, {range("invalid voltage identifier", 0, 23), hundredths()}, 0, 0,
   Path::probe, "set voltage failed."},
  {"cs71_set_droop", 6, {}, 0, 0, Path::probe, "set droop failed"},
  {"cs71_set_offset", 7, {}, 0, 0, Path::probe, "set offset failed"},
  {"cs71_set_blacklevel", 8, {range("invalid blacklevel", 0, 65535)}, 0, 0, Path::progress,
   "set blacklevel failed"},
  {"cs71_set_noise_trim", 9, {}, 0, 0, Path::progress, "set noise trim failed"},
  {"cs71_set_vss", 10, {real("invalid readout voltage", -12.8, 12.8, Send::x100),
                        real("invalid flush voltage", -12.8, 12.8, Send::x100)}, 0, 0,
   Path::probe, "set vss failed"},
  {"cs71_set_pgain", 11, {mapped("invalid pgain", "5 or 50", kPgains, kPgainCodes)}, 0, 0,
   Path::probe, "set programmble gain failed"},
  {"cs71_set_time_const", 12, {mapped("invalid time constant", "2, 4, 6 or 8", kTimeConstants,
                                      kTimeConstantCodes)}, 0, 0,
   Path::probe, "set time constant failed"},
  {"cs71_set_integr_time", 13, {real("invalid integration time", 0.1, 25.6, Send::x10)}, 0, 0,
   Path::probe, "set integration time failed"},
  {"cs71_adc_calibrate", 14, {}, 0, 0, Path::probe, "adc calibration failed"},
  {"cs71_adc_polarity", 15, {choice("invalid adc polarity", kOnOff)}, 0, 0, Path::probe,
   "set adc polarity failed"},
  {"cs71_adc_auxiliary", 16, {range("invalid adc auxiliary value", 0, 255)}, 0, 0, Path::probe,
   "set adc auxiliary failed"},
  {"cs71_set_region", 17, {range("invalid region id", 0, 99),
                           range("invalid region x point", 0, 4223),
                           range("invalid region y point", 0, 31999),
                           range("invalid region width", 1, 4224),
                           range("invalid region height", 1, 32000)}, 0, 0,
   Path::probe, "set region failed"},
  {"cs71_start_ccd_read", 18, {}, 0, 0, Path::direct, "start ccd read failed"},
  {"cs71_record_ccd_row", 19, {}, 0, 0, Path::probe, "record ccd row failed."},
  {"cs71_ccd_flush", 20, {}, 0, 0, Path::probe, "ccd flush failed"},
  {"cs71_set_ccd_size", 21, {range("invalid ccd width", 1, 4224),
                             range("invalid ccd height", 1, 32000)}, 0, 0,
   Path::probe, "set ccd size failed"},
  {"cs71_set_binning", 22, {range("invalid ccd xbin", 1, 4224), range("invalid ccd ybin", 1, 32000)},
   0, 0, Path::probe, "set ccd binning failed"},
  {"cs71_ccd_expose", 23, {range("invalid exposure duration", 1, kLongest, Send::split)}, 0, 0,
   Path::expose, "ccd expose failed"},
  {"cs71_close_shutter", 24, {}, 0, 0, Path::probe, "close shutter failed"},
  {"cs71_open_shutter", 25, {}, 0, 0, Path::probe, "open shutter failed"},
  {"cs71_empty", 26, {}, 0, 0, Path::probe, "empty recorder failed"},
  {"cs71_dummy_load", 29, {choice("invalid dummy load setting", kOnOff)}, 0, 0, Path::probe,
   "set dummy load failed"},
  {"cs71_break_ground", 30, {choice("invalid break ground setting", kOnOff)}, 0, 0, Path::probe,
   "set break ground failed"},
  {"cs71_rstclk_feed_through", 31, {choice("invalid reset clock feed through setting", kOnOff)},
   0, 0, Path::probe, "set reset clock feed through failed"},
  {"cs71_write_userport", 32, {raw()}, 0, 0, Path::probe, "write userport failed"},
  {"cs71_read_userport", 33, {}, 1, 1, Path::probe, "read user port failed"},
  {"cs71_write_iospace", 34, {range("invalid ios address", 0, 39), raw()}, 0, 0, Path::probe,
   "write iospace failed"},
  {"cs71_read_iospace", 35, {range("invalid ios address", 0, 39)}, 0, 1, Path::probe,
   "read iospace failed"},
  {"cs71_playback", 36, {}, 0, CSP_MAX_PARAMS, Path::probe, "playback failed"},
  {"cs71_configure_registers", 38, {}, 0, 0, Path::probe, "unable to configure registers."},
  {"cs71_configure_voltages", 39, {}, 0, 0, Path::probe, "unable to configure voltages."},
  {"cs71_set_adc_mode", 40, {range("invalid adc mode", 0, 255)}, 0, 0, Path::probe,
   "set adc mode failed"},
  {"cs71_set_parallel_mode", 41, {range("invalid parallel mode", 0, 255)}, 0, 0, Path::probe,
   "set parallel mode failed"},
  {"cs71_set_serial_mode", 42, {range("invalid serial mode", 0, 7)}, 0, 0, Path::probe,
   "set serial mode failed"},
  {"cs71_set_linkspeed", 43, {choice("invalid linkspeed", "5, 10, or 20")}, 0, 0, Path::direct,
   "set link speed failed."},
  {"cs71_set_acdc_coupling", 44, {choice("invalid AC/DC coupling setting", kOnOff)}, 0, 0,
   Path::probe, "set AC/DC coupling failed."},
  {"cs71_set_ccd_temp", 45, {}, 0, 0, Path::probe, "set ccd temperature failed"},
  {"cs71_set_parallel_timing", 47, {}, 0, 0, Path::probe, "set parallel timing failed"},
  {"cs71_read_fifo", 48, {}, 0, 0, Path::probe, "read fifo failed"},
  {"cs71_set_concurrent", 49, {choice("invalid concurrent setting", kOnOff)}, 0, 0, Path::probe,
   "set concurrent failed."},
  {"cs71_adc_constants", 50, {}, 3, 3, Path::probe, "adc constants failed."},
  {"cs71_set_ccd_rdseq", 51, {}, 0, 0, Path::probe, "set ccd read sequence failed"},
  {"cs71_start_ccd_rdseq", 52, {}, 0, 0, Path::direct, "start ccd read sequence failed"},
  {"cs71_shutter_pulse_widths", 53, {raw(), raw(), raw(), raw()}, 0, 0, Path::probe,
   "set shutter pulse widths failed"},
  {"cs71_check_state_vector", 54, {}, 16, 16, Path::probe, "check state vector failed"},
  {"cs71_reverse_clocks", 55, {raw(), raw()}, 0, 0, Path::probe, "set reverse clocking failed"},
  {"cs71_test1", 56, {}, 0, 0, Path::direct, "cs71 test2"},
  {"cs71_test2", 57, {}, 0, 0, Path::direct, "cs71 test2"},
  {"cs71_set_ccd_read", 58, {range("invalid number of frames", 1, kLongest, Send::split),
                             range("invalid delay", 0, 16000)}, 0, 0,
   Path::probe_twice, "set ccd read failed"},
  {"cs71_set_parallel_transfers", 59, {range("invalid number of parallel_transfers", 1, 32767)},
   0, 0, Path::probe, "set parallel transfers failed"},
  {"cs71_set_parallel_multiplier", 60, {range("invalid parallel multiplier", 1, 32000)}, 0, 0,
   Path::probe, "set parallel multiplier failed"},
  {"cs71_n_parallel_transfers", 61, {range("invalid number of parallel transfers", 1, 32767)},
   0, 0, Path::probe, "number of parallel transfers failed"},
  {"cs71_stop", 62, {}, 0, 0, Path::direct, "stop failed"},
  {"cs71_set_shuffle_mode", 63, {raw(), raw(),
                                 range("invalid exposure duration", 1, kLongest, Send::split)},
   0, 0, Path::probe, "set shuffle mode failed"},
};
// clang-format on

const Command &row(INT16 control) {
  for (const Command &c : kCommands)
    if (c.control == control) return c;
  tvx::check_failed(__LINE__, __FILE__);
}

// The one shape of a command's failure: its own name and text above what went wrong. A black
// level that cannot be set points at the CCD file as well; a link that stopped answering while
// its speed changed points at the micro code.
bool failed(const Command &c) {
  if (c.control == 43 && timed_out()) err_append_cause(tvx::errors(), kCauseNoResponse);
  return qualify(c.op, "%s", c.failure);
}

bool refused(const Command &c) {
  if (c.control == 2 || c.control == 8) err_append_cause(tvx::errors(), kCauseBlackLevel);
  err_append_cause(tvx::errors(), kCauseBadArgument);
  return failed(c);
}

bool check(const Arg &a, double v) {
  switch (a.check) {
    case Check::none:
      return true;
    case Check::range:
      return valid_i32range(a.name, static_cast<INT32>(a.low), static_cast<INT32>(a.high),
                            static_cast<INT32>(v)) != FALSE;
    case Check::real:
      return valid_drange(a.name, a.low, a.high, v) != FALSE;
    case Check::choice:
      return check_ival_selection(a.name, a.choices, static_cast<INT32>(v));
  }
  return false;
}

// Puts one checked value into the words to send; false when it has no code on the controller.
bool encode(const Arg &a, double v, std::vector<INT16> &words) {
  const auto whole = static_cast<INT32>(v);
  switch (a.send) {
    case Send::word:
      words.push_back(static_cast<INT16>(whole));
      return true;
    case Send::split:
      words.push_back(static_cast<INT16>(whole & 0xFFFF));
      words.push_back(static_cast<INT16>(whole >> 16));
      return true;
    case Send::x100:
      words.push_back(static_cast<INT16>(static_cast<INT32>(v * 100)));
      return true;
    case Send::x10:
      words.push_back(static_cast<INT16>(static_cast<INT32>(v * 10)));
      return true;
    case Send::map: {
      INT16 code = 0;
      if (!map_i16_to(static_cast<INT16>(whole), a.from, a.to, a.map_count, &code)) return false;
      words.push_back(code);
      return true;
    }
  }
  return false;
}

// Sends the `count` parameters already in the packet the row's way, then hands back the
// completion's first parameters.
bool exchange(const Command &c, HANDLE controller, const Target &t, INT16 count, DWORD sleep = 0,
              std::initializer_list<INT16 *> outs = {}) {
  bool ok = false;
  switch (c.path) {
    case Path::probe:
      ok = cs71_req5(controller, c.control, count, c.reply_low, c.reply_high) != FALSE;
      break;
    case Path::probe_twice:
      ok = cs71_responding(controller) &&
           cs71_req5(controller, c.control, count, c.reply_low, c.reply_high);
      break;
    case Path::direct:
      ok = csp_message_out(t.packets, t.camera_id, c.control, count) != FALSE;
      break;
    case Path::progress:
      ok = csp_message_out(t.packets, t.camera_id, c.control, count) &&
           cs71_wait_while_active(controller, "", 0, 1, c.reply_low, c.reply_high);
      break;
    case Path::expose:
      ok = csp_message_out(t.packets, t.camera_id, c.control, count) &&
           tvx::rest_for(sleep, c.op) && cs71_wait_complete(controller, c.reply_low, c.reply_high);
      break;
  }
  INT16 index = 0;
  for (INT16 *out : outs) ok = ok && csp_get_msg_param(t.packets, index++, out);
  return ok;
}

// Walks one row: check every argument, fill the parameters in order, send, collect.
bool issue(HANDLE controller, INT16 control, std::initializer_list<double> values = {},
           std::initializer_list<INT16 *> outs = {}, DWORD sleep = 0) {
  const Command &c = row(control);
  Target t(controller, c.op);
  if (!t) return failed(c);
  std::vector<INT16> words;
  auto value = values.begin();
  for (const Arg &a : c.args) {
    if (!a.used) break;
    const double v = value != values.end() ? *value++ : 0;
    if (!check(a, v) || !encode(a, v, words)) return refused(c);
  }
  for (size_t i = 0; i < words.size(); ++i)
    if (!csp_set_msg_param(t.packets, static_cast<INT16>(i), words[i])) return failed(c);
  if (!exchange(c, controller, t, static_cast<INT16>(words.size()), sleep, outs)) return failed(c);
  return true;
}

// A command whose parameters are a vector of words.
bool issue_vector(HANDLE controller, INT16 control, const INT16 *words, size_t count) {
  const Command &c = row(control);
  Target t(controller, c.op);
  if (!t) return failed(c);
  // A count the packet cannot hold is left to the copy to refuse.
  const auto n = static_cast<INT16>(count > CSP_MAX_PARAMS ? CSP_MAX_PARAMS + 1 : count);
  if (!csp_copy_INT16_params(t.packets, words, n, 0) || !exchange(c, controller, t, n))
    return failed(c);
  return true;
}

INT16 word_of(double v, Send send) {
  return static_cast<INT16>(static_cast<INT32>(send == Send::x100 ? v * 100 : v));
}

// The replies a recorder playback may take before it is taken to be stuck.
constexpr int kMostPlaybackReplies = 4096;

}  // namespace

extern "C" {

BOOL cs71_hwinit(HANDLE c, INT32 blacklevel) {
  return issue(c, 2, {double(blacklevel)});
}
BOOL cs71_read_adc(HANDLE c, INT32 channel, INT16 *value) {
  return issue(c, 3, {double(channel)}, {value});
}
BOOL cs71_get_voltage(HANDLE c, INT32 id, INT16 *value) {
  return issue(c, 4, {double(id)}, {value});
}
BOOL cs71_set_voltage(HANDLE c, INT32 id, double volts) {
  return issue(c, 5, {double(id), volts});
}
BOOL cs71_set_droop(HANDLE c) {
  return issue(c, 6);
}
BOOL cs71_set_offset(HANDLE c) {
  return issue(c, 7);
}
BOOL cs71_set_blacklevel(HANDLE c, INT32 blacklevel) {
  report *info = nullptr;
  report_where_is(REPORT_INFO, &info);
  report_send(info, "Setting black level");
  return issue(c, 8, {double(blacklevel)});
}
BOOL cs71_set_noise_trim(HANDLE c) {
  return issue(c, 9);
}
BOOL cs71_set_vss(HANDLE c, double readout, double flush) {
  return issue(c, 10, {readout, flush});
}
BOOL cs71_set_pgain(HANDLE c, INT32 gain) {
  return issue(c, 11, {double(gain)});
}
BOOL cs71_set_time_const(HANDLE c, INT32 time_constant) {
  return issue(c, 12, {double(time_constant)});
}
BOOL cs71_set_integr_time(HANDLE c, double time) {
  return issue(c, 13, {time});
}
BOOL cs71_adc_calibrate(HANDLE c) {
  return issue(c, 14);
}
BOOL cs71_adc_polarity(HANDLE c, INT32 polarity) {
  return issue(c, 15, {double(polarity)});
}
BOOL cs71_adc_auxiliary(HANDLE c, INT32 value) {
  return issue(c, 16, {double(value)});
}
BOOL cs71_set_region(HANDLE c, INT32 id, INT32 x, INT32 y, INT32 width, INT32 height) {
  return issue(c, 17, {double(id), double(x), double(y), double(width), double(height)});
}
BOOL cs71_start_ccd_read(HANDLE c) {
  return issue(c, 18);
}
BOOL cs71_record_ccd_row(HANDLE c) {
  return issue(c, 19);
}
BOOL cs71_ccd_flush(HANDLE c, INT32) {
  return issue(c, 20);
}
BOOL cs71_set_ccd_size(HANDLE c, INT32 width, INT32 height) {
  return issue(c, 21, {double(width), double(height)});
}
BOOL cs71_set_binning(HANDLE c, INT32 xbin, INT32 ybin) {
  return issue(c, 22, {double(xbin), double(ybin)});
}
BOOL cs71_ccd_expose(HANDLE c, INT32 milliseconds) {
  // The controller answers when the exposure ends; the host sleeps through it rather than poll.
  const DWORD sleep = milliseconds > 0 ? DWORD(milliseconds) / 10 + 1 : 0;
  return issue(c, 23, {double(milliseconds)}, {}, sleep);
}
BOOL cs71_close_shutter(HANDLE c) {
  return issue(c, 24);
}
BOOL cs71_open_shutter(HANDLE c) {
  return issue(c, 25);
}
BOOL cs71_empty(HANDLE c) {
  return issue(c, 26);
}
BOOL cs71_dummy_load(HANDLE c, INT32 setting) {
  return issue(c, 29, {double(setting)});
}
BOOL cs71_break_ground(HANDLE c, INT32 setting) {
  return issue(c, 30, {double(setting)});
}
BOOL cs71_rstclk_feed_through(HANDLE c, INT32 setting) {
  return issue(c, 31, {double(setting)});
}
BOOL cs71_write_userport(HANDLE c, INT16 value) {
  return issue(c, 32, {double(value)});
}
BOOL cs71_read_userport(HANDLE c, INT16 *value) {
  return issue(c, 33, {}, {value});
}
BOOL cs71_write_iospace(HANDLE c, INT32 address, INT16 value) {
  return issue(c, 34, {double(address), double(value)});
}
BOOL cs71_read_iospace(HANDLE c, INT32 address, INT16 *value) {
  return issue(c, 35, {double(address)}, {value});
}
BOOL cs71_set_adc_mode(HANDLE c, INT32 mode) {
  return issue(c, 40, {double(mode)});
}
BOOL cs71_set_parallel_mode(HANDLE c, INT32 mode) {
  return issue(c, 41, {double(mode)});
}
BOOL cs71_set_serial_mode(HANDLE c, INT32 mode) {
  return issue(c, 42, {double(mode)});
}
BOOL cs71_set_linkspeed(HANDLE c, INT32 speed) {
  return issue(c, 43, {double(speed)});
}
BOOL cs71_set_acdc_coupling(HANDLE c, INT32 setting) {
  return issue(c, 44, {double(setting)});
}
BOOL cs71_set_ccd_temp(HANDLE c, double) {
  return issue(c, 45);
}
BOOL cs71_read_fifo(HANDLE c) {
  return issue(c, 48);
}
BOOL cs71_set_concurrent(HANDLE c, INT32 setting) {
  return issue(c, 49, {double(setting)});
}
BOOL cs71_adc_constants(HANDLE c, INT16 *const1, INT16 *const2, INT16 *const3) {
  return issue(c, 50, {}, {const1, const2, const3});
}
BOOL cs71_start_ccd_rdseq(HANDLE c) {
  return issue(c, 52);
}
BOOL cs71_shutter_pulse_widths(HANDLE c, const INT32 *widths) {
  return issue(c, 53, {double(widths[0]), double(widths[1]), double(widths[2]), double(widths[3])});
}
BOOL cs71_reverse_clocks(HANDLE c, INT16 first, INT16 second) {
  return issue(c, 55, {double(first), double(second)});
}
BOOL cs71_test1(HANDLE c) {
  return issue(c, 56);
}
BOOL cs71_test2(HANDLE c) {
  return issue(c, 57);
}
BOOL cs71_set_ccd_read(HANDLE c, INT32 frames, INT32 delay) {
  return issue(c, 58, {double(frames), double(delay)});
}
BOOL cs71_set_parallel_transfers(HANDLE c, INT32 count) {
  return issue(c, 59, {double(count)});
}
BOOL cs71_set_parallel_multiplier(HANDLE c, INT32 multiplier) {
  return issue(c, 60, {double(multiplier)});
}
BOOL cs71_n_parallel_transfers(HANDLE c, INT32 count) {
  return issue(c, 61, {double(count)});
}
BOOL cs71_stop(HANDLE c) {
  return issue(c, 62);
}
BOOL cs71_set_shuffle_mode(HANDLE c, INT16 first, INT16 second, INT32 milliseconds) {
  return issue(c, 63, {double(first), double(second), double(milliseconds)});
}

// ---- Vectors ---------------------------------------------------------------------------------

BOOL cs71_configure_registers(HANDLE c, const INT16 *values, INT16 count) {
  return issue_vector(c, 38, values, count < 0 ? CSP_MAX_PARAMS + 1 : size_t(count));
}

BOOL cs71_configure_voltages(HANDLE c, const double *volts, INT16 count) {
  std::vector<INT16> words;
  for (INT16 i = 0; i < count && i <= CSP_MAX_PARAMS; ++i)
    words.push_back(word_of(volts[i], Send::x100));
  return issue_vector(c, 39, words.data(), count < 0 ? CSP_MAX_PARAMS + 1 : size_t(count));
}

BOOL cs71_set_parallel_timing(HANDLE c, const INT16 *first, const INT16 *second, INT16 count) {
  const Command &row47 = row(47);
  if (!valid_i32range("invalid vector size", 0, CSP_MAX_PARAMS, 2 * INT32{count}))
    return refused(row47);
  std::vector<INT16> words(first, first + count);
  words.insert(words.end(), second, second + count);
  return issue_vector(c, 47, words.data(), words.size());
}

BOOL cs71_set_ccd_rdseq(HANDLE c, HANDLE sequence) {
  const Command &row51 = row(51);
  std::vector<INT16> words;
  if (list_head(sequence) == FALSE && tvx::error_pending()) return failed(row51);
  while (list_more(sequence) && words.size() <= CSP_MAX_PARAMS) {
    const auto entry = static_cast<DWORD>(reinterpret_cast<uintptr_t>(list_get_object(sequence)));
    words.push_back(static_cast<INT16>(entry & 0xFFFF));
    words.push_back(static_cast<INT16>(entry >> 16));
    list_next(sequence);
  }
  return issue_vector(c, 51, words.data(), words.size());
}

// ---- Commands that read what comes back -------------------------------------------------------

BOOL cs71_check_state_vector(HANDLE c) {
  const Command &sv = row(54);
  Target t(c, sv.op);
  INT16 w[16] = {};
  if (!t || !exchange(sv, c, t, 0) || !csp_copy_params_to_INT16s(t.packets, w, 16))
    return failed(sv);
  std::string faults;
  auto note = [&faults](bool bad, const char *text) {
    if (!bad) return;
    if (!faults.empty()) faults += ", ";
    faults += text;
  };
  note(w[0] == 255 || w[0] == 0, "Droop1 failed");
  note(w[4] != 0 && (w[7] == 255 || w[7] == 0), "Offset failed");
  note(w[15] == 0, "Shutter hold data invalid");
  if (faults.empty()) return TRUE;
  fail(ERR_OUT_OF_RANGE, 0, sv.op, {}, "%s", faults.c_str());
  return failed(sv);
}

BOOL cs71_playback(HANDLE c) {
  const Command &pb = row(36);
  Target t(c, pb.op);
  if (!t) return failed(pb);
  report *info = nullptr;
  report_where_is(REPORT_INFO, &info);
  report_send(info, "recorder[");
  const char *saved = nullptr;
  report_get_prefix(info, &saved);
  report_set_prefix(info, "");
  char *text = tbuffer_new();
  const size_t room = size_t(tbuffer_size()) - 1;
  bool ok = true;
  for (int replies = 0; ok; ++replies) {
    INT16 n = 0;
    ok = exchange(pb, c, t, 0) && csp_get_params_size(t.packets, &n);
    if (!ok || n < 1) break;
    if (replies == kMostPlaybackReplies) {
      ok = fail(ERR_TIMEOUT, 0, pb.op, {kCauseNoResponse}, "recorder did not end after %d replies",
                kMostPlaybackReplies);
      break;
    }
    size_t used = 0;
    for (INT16 i = 0; i < n; ++i) {
      INT16 value = 0;
      csp_get_msg_param(t.packets, i, &value);
      text[used++] = static_cast<char>(value & 0xFF);
      if (used == room) {
        text[used] = '\0';
        report_send(info, "%s", text);
        used = 0;
      }
    }
    text[used] = '\0';
    report_send(info, "%s", text);
  }
  tbuffer_delete(text);
  report_send(info, "]\n");
  report_set_prefix(info, saved);
  return ok ? TRUE : failed(pb);
}

}  // extern "C"
