// The AT-Link adapter: three 16-bit ports at a base address (link data, status, control), reached
// through the port bus. Nothing about the card is cached: every control change reads the
// register anew, so what the card holds is what the host believes.
#include "tvx/atlink.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <map>

#include "foundation/fail.h"
#include "foundation/locked.h"
#include "foundation/wait.h"
#include "link/link.h"
#include "platform/platform.h"
#include "sim/slot.h"
#include "tvx/error.h"
#include "tvx/memory.h"
#include "tvx/ports.h"
#include "tvx/report.h"

namespace {

using Rec = tvx::Locked<atlink>;
using tvx::fail;
using tvx::qualify;

constexpr INT32 kLargestTimeout = 6500;
constexpr DWORD kLongestWait = 9000;
constexpr INT32 kValidBases[] = {0x150, 0x200, 0x250, 0x300};
constexpr WORD kDataOffset = 0, kStatusOffset = 2, kControlOffset = 4;
constexpr DWORD kResetDelay = 2;

constexpr INT32 kCauseTransputerSection = 0x3001;
constexpr INT32 kCauseDeviceSection = 0x3002;
constexpr INT32 kCauseProgrammer = 0x1040;
constexpr INT32 kCauseAtLinkCard = 0x200c;
constexpr INT32 kCauseInitFile = 0x3004;

// A wait that gives up suggests, most likely first: the camera is off, not connected, its cable
// is broken, or the controller is not answering.
void append_wait_causes() {
  for (INT32 cause : {0x2000, 0x2003, 0x2001, 0x200a, 0x2005})
    err_append_cause(tvx::errors(), cause);
}

// ---- Status texts --------------------------------------------------------------------------
// For each status bit, the text when it is set and the text when it is clear (none: nothing is
// said). Three FIFO flags are active low.
struct StatusText {
  WORD mask;
  const char *when_set;
  const char *when_clear;
};
constexpr StatusText kStatusTexts[] = {
    {ATLINK_LOCAL_ERROR, "Local transputer in error", "Local transputer not in error"},
    {ATLINK_DISTANT_ERROR, "Distant transputer in error", "Distant transputer not in error"},
    {ATLINK_RX_NOT_EMPTY, "Receiver fifo not empty", nullptr},
    {ATLINK_RX_HALF_FULL, nullptr, "Receiver fifo half full"},
    {ATLINK_RX_FULL, nullptr, "Receiver fifo full"},
    {ATLINK_TX_NOT_EMPTY, "Transmit fifo not empty", nullptr},
    {ATLINK_TX_HALF_FULL, nullptr, "Transmit fifo half full"},
    {ATLINK_TX_FULL, nullptr, "Transmit fifo full"},
};

// ---- Control sequences ---------------------------------------------------------------------
// A pulse on a control line: change the bits, then wait (centiseconds), step by step.
struct ControlStep {
  WORD bits;
  INT32 mode;  // 0 clear, 1 set
  DWORD delay;
};
// The card's transputer reset is active low, the controller's active high; the FIFO reset is
// active low and needs no time.
constexpr ControlStep kLocalResetPulse[] = {{ATLINK_LOCAL_RESET, 0, kResetDelay},
                                            {ATLINK_LOCAL_RESET, 1, kResetDelay}};
constexpr ControlStep kDistantResetPulse[] = {{ATLINK_DISTANT_RESET, 1, kResetDelay},
                                              {ATLINK_DISTANT_RESET, 0, kResetDelay}};
constexpr ControlStep kFifoResetPulse[] = {{ATLINK_FIFO_RESET, 0, 0}, {ATLINK_FIFO_RESET, 1, 0}};

// ---- Register access on a locked record ------------------------------------------------------

WORD read_status(const atlink &r, WORD mask) {
  return port_in16(r.status_port) & mask;
}

bool change_bits(const atlink &r, WORD bits, INT32 mode) {
  if (mode != 0 && mode != 1)
    return fail(ERR_INCONSISTENT, 0, "change_bits", {kCauseProgrammer}, "unknown binary value");
  const WORD old = port_in16(r.control_port);
  port_out16(r.control_port, mode == 0 ? static_cast<WORD>(old & ~bits) : old | bits);
  return true;
}

// One locked change of the control register, qualified with the operation's name on failure.
BOOL control_op(HANDLE link, const char *op, WORD bits, INT32 mode) {
  Rec rec(link, op);
  if (!rec || !change_bits(*rec, bits, mode)) return qualify(op);
  return TRUE;
}

template <size_t N>
BOOL control_sequence(HANDLE link, const char *op, const ControlStep (&steps)[N]) {
  Rec rec(link, op);
  if (!rec) return qualify(op);
  for (const ControlStep &step : steps) {
    if (!change_bits(*rec, step.bits, step.mode)) return qualify(op);
    if (step.delay != 0) tvx::settle_for(step.delay);
  }
  return TRUE;
}

// Waits for `mask` in the status register; a wait that runs out of time pushes `text` with the
// causes of a link that stopped answering (one that met an abort has said so).
bool wait_for(const atlink &r, WORD mask, const char *op, const char *text) {
  using tvx::link::Await;
  const Await met = tvx::link::await_status(r, mask, op);
  if (met == Await::timed_out) {
    fail(ERR_TIMEOUT, 0, op, {}, "%s", text);
    append_wait_causes();
  }
  return met == Await::ready;
}

bool wait_input(const atlink &r) {
  return wait_for(r, ATLINK_RX_NOT_EMPTY, "atlink_wait_for_input",
                  "no input available (Receiver Fifo Empty).");
}

bool wait_output(const atlink &r) {
  return wait_for(r, ATLINK_TX_FULL, "atlink_wait_to_output",
                  "unable to output (Transmit Fifo Full).");
}

// ---- Transfers on a locked record --------------------------------------------------------------

bool read_bytes(const atlink &r, BYTE *bytes, int count) {
  for (int i = 0; i < count; ++i) {
    if (!wait_input(r)) return qualify("atlink_read_BYTE_array");
    bytes[i] = static_cast<BYTE>(port_in16(r.data_port) & 0xFF);
  }
  return true;
}

bool write_bytes(const atlink &r, const BYTE *bytes, int count) {
  for (int i = 0; i < count; ++i) {
    if (!wait_output(r)) return qualify("atlink_write_BYTE_array");
    port_out16(r.data_port, bytes[i]);
  }
  return true;
}

bool read_words(const atlink &r, WORD *words, int count) {
  for (int i = 0; i < count; ++i) {
    if (!wait_input(r)) return qualify("atlink_read_WORD_array");
    words[i] = port_in16(r.data_port);
  }
  return true;
}

bool write_words(const atlink &r, const WORD *words, int count) {
  for (int i = 0; i < count; ++i) {
    if (!wait_output(r)) return qualify("atlink_write_WORD_array");
    port_out16(r.data_port, words[i]);
  }
  return true;
}

// Multi-byte integers cross the link least significant byte first.
DWORD from_bytes(const BYTE *bytes, int count) {
  DWORD value = 0;
  for (int i = count - 1; i >= 0; --i) value = value << 8 | bytes[i];
  return value;
}

void to_bytes(DWORD value, BYTE *bytes, int count) {
  for (int i = 0; i < count; ++i) bytes[i] = static_cast<BYTE>(value >> (8 * i));
}

// ---- Set-up ------------------------------------------------------------------------------------

// Ticks of the PC interval timer during an empty loop of 5000 turns; the timer counts down.
unsigned calibration_ticks() {
  auto read_counter = [] {
    const WORD low = port_in16(PORT_INTERVAL_TIMER) & 0xFF;
    const WORD high = port_in16(PORT_INTERVAL_TIMER) & 0xFF;
    return static_cast<WORD>(high << 8 | low);
  };
  const WORD start = read_counter();
  volatile int turns = 0;
  while (turns < 5000) turns = turns + 1;
  const WORD end = read_counter();
  auto ticks = static_cast<WORD>(start - end);
  if (end > start) ticks = static_cast<WORD>(ticks - 1);
  // A loop shorter than one tick counts as one, rather than as an infinitely fast machine.
  return std::max<unsigned>(ticks, 1);
}

bool set_timeout(atlink &r, INT32 io_timeout) {
  if (io_timeout <= 0 || io_timeout >= kLargestTimeout)
    return fail(ERR_OUT_OF_RANGE, 0, "atlink_set_timeout", {kCauseTransputerSection},
                "io_timeout (%ld) is out of range: 1 - %ld", long{io_timeout},
                long{kLargestTimeout});
  r.io_timeout = io_timeout;
  const double k = 1000.0 / (calibration_ticks() * 0.8380965);
  const double loops = io_timeout * 10.0 * k;
  r.io_loops = loops >= INT32_MAX ? INT32_MAX : static_cast<INT32>(loops);
  return true;
}

// Adapters named "simulator" that have put the simulated card on the bus, and where.
std::map<HANDLE, WORD> &simulated() {
  static std::map<HANDLE, WORD> plugged;
  return plugged;
}

bool is_simulator(const atlink &r) {
  return r.name != nullptr && std::strcmp(r.name, ATLINK_SIMULATOR_NAME) == 0;
}

void unplug(HANDLE link) {
  auto it = simulated().find(link);
  if (it == simulated().end()) return;
  tvx::sim::unplug_card(it->second);
  simulated().erase(it);
}

bool set_base_address(HANDLE link, atlink &r, INT32 base) {
  static const char *const kOp = "atlink_set_base_address";
  if (std::find(std::begin(kValidBases), std::end(kValidBases), base) == std::end(kValidBases))
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {kCauseDeviceSection},
                "invalid base address 0x%lX (valid addresses 0x150, 0x200, 0x250, 0x300).",
                static_cast<unsigned long>(base));
  const auto port = static_cast<WORD>(base);
  if (is_simulator(r)) {
    auto it = simulated().find(link);
    if (it == simulated().end() || it->second != port) {
      if (!tvx::sim::plug_card(port)) return qualify(kOp, "while attaching the simulated card.");
      unplug(link);
      simulated()[link] = port;
    }
  }
  r.data_port = static_cast<WORD>(port + kDataOffset);
  r.status_port = static_cast<WORD>(port + kStatusOffset);
  r.control_port = static_cast<WORD>(port + kControlOffset);
  return true;
}

}  // namespace

namespace tvx::link {

BYTE &boot_counter() {
  static BYTE boots = 0;
  return boots;
}

Await await_status(const atlink &r, WORD mask, const char *routine) {
  if (read_status(r, mask) != 0) return Await::ready;
  const DWORD start = time_centiseconds();
  const DWORD limit = std::min(static_cast<DWORD>(r.io_timeout), kLongestWait);
  tvx::platform::PollPauses pauses;
  while (time_centiseconds() - start < limit) {
    if (mask == ATLINK_RX_NOT_EMPTY && tvx::interrupted(routine)) return Await::aborted;
    if (read_status(r, mask) != 0) return Await::ready;
    pauses.pause();
  }
  return read_status(r, mask) != 0 ? Await::ready : Await::timed_out;
}

}  // namespace tvx::link

extern "C" {

// ---- Life ------------------------------------------------------------------------------------

HANDLE atlink_new(INT32 io_timeout, const char *name, INT32 base_address) {
  static const char *const kOp = "atlink_new";
  HANDLE link = handle_allocate(1, sizeof(atlink), MEM_ATLINK);
  if (link == nullptr) {
    qualify(kOp);
    return nullptr;
  }
  if (!atlink_ctor(link, io_timeout, name, base_address)) {
    atlink_delete(link);
    qualify(kOp);
    return nullptr;
  }
  return link;
}

BOOL atlink_ctor(HANDLE link, INT32 io_timeout, const char *name, INT32 base_address) {
  static const char *const kOp = "atlink_ctor";
  Rec rec(link, kOp);
  if (!rec) return qualify(kOp);
  // Run again on a live adapter, the constructor starts from a card no longer held.
  unplug(link);
  rec->device = -1;
  rec->verbose = 0;
  if (!set_timeout(*rec, io_timeout)) return qualify(kOp);
  rec->verbose = 0;
  rec->boot_number = tvx::link::boot_counter();
  char *copy = string_duplicate(name);
  if (copy == nullptr) return qualify(kOp);
  if (rec->name != nullptr) standard_free(rec->name, kOp);
  rec->name = copy;
  if (!atlink_open_device(link) || !set_base_address(link, *rec, base_address)) return qualify(kOp);
  return TRUE;
}

BOOL atlink_delete(HANDLE link) {
  static const char *const kOp = "atlink_delete";
  if (link == nullptr) return TRUE;
  if (!atlink_close_device(link)) return qualify(kOp);
  {
    Rec rec(link, kOp);
    if (!rec) return qualify(kOp);
    if (rec->name != nullptr) standard_free(rec->name, kOp);
    rec->name = nullptr;
  }
  handle_free(link, kOp);
  return TRUE;
}

BOOL atlink_open_device(HANDLE link) {
  Rec rec(link, "atlink_open_device");
  return rec ? TRUE : qualify("atlink_open_device");
}

BOOL atlink_close_device(HANDLE link) {
  Rec rec(link, "atlink_close_device");
  if (!rec) return qualify("atlink_close_device");
  unplug(link);
  return TRUE;
}

BOOL atlink_print(HANDLE link, FILE *destination) {
  Rec rec(link, "atlink_print");
  if (!rec) return qualify("atlink_print");
  std::fprintf(destination, "atlink(%d, %d, %ld, %ld, %d, addr(%X, %X, %X))", rec->verbose,
               rec->device, long{rec->io_timeout}, long{rec->io_loops}, rec->boot_number,
               unsigned{rec->data_port}, unsigned{rec->status_port}, unsigned{rec->control_port});
  return TRUE;
}

BOOL atlink_set_timeout(HANDLE link, INT32 io_timeout) {
  Rec rec(link, "atlink_set_timeout");
  if (!rec || !set_timeout(*rec, io_timeout)) return qualify("atlink_set_timeout");
  return TRUE;
}

BOOL atlink_set_verbose(HANDLE link, BOOL verbose) {
  Rec rec(link, "atlink_set_verbose");
  if (!rec) return qualify("atlink_set_verbose");
  rec->verbose = verbose != FALSE ? 1 : 0;
  return TRUE;
}

BOOL atlink_verbose(HANDLE link) {
  Rec rec(link, "atlink_verbose");
  if (!rec) return qualify("atlink_verbose");
  return rec->verbose != 0 ? TRUE : FALSE;
}

BOOL atlink_set_base_address(HANDLE link, INT32 base_address) {
  Rec rec(link, "atlink_set_base_address");
  if (!rec || !set_base_address(link, *rec, base_address))
    return qualify("atlink_set_base_address");
  return TRUE;
}

// ---- Registers ----------------------------------------------------------------------------------

BOOL atlink_read_control_register(HANDLE link, WORD mask, WORD *result) {
  Rec rec(link, "atlink_read_control_register");
  if (!rec) return qualify("atlink_read_control_register");
  *result = port_in16(rec->control_port) & mask;
  return TRUE;
}

BOOL atlink_read_status_register(HANDLE link, WORD mask, WORD *result) {
  Rec rec(link, "atlink_read_status_register");
  if (!rec) return qualify("atlink_read_status_register");
  *result = read_status(*rec, mask);
  return TRUE;
}

BOOL atlink_write_control_register(HANDLE link, WORD bits, INT32 mode) {
  return control_op(link, "atlink_write_control_register", bits, mode);
}

// ---- Resets and controls ------------------------------------------------------------------------

BOOL atlink_transputer_reset_low(HANDLE link) {
  return control_op(link, "atlink_transputer_reset_low", ATLINK_LOCAL_RESET, 0);
}
BOOL atlink_transputer_reset_high(HANDLE link) {
  return control_op(link, "atlink_transputer_reset_high", ATLINK_LOCAL_RESET, 1);
}
BOOL atlink_fifo_reset_low(HANDLE link) {
  return control_op(link, "atlink_fifo_reset_low", ATLINK_FIFO_RESET, 0);
}
BOOL atlink_fifo_reset_high(HANDLE link) {
  return control_op(link, "atlink_fifo_reset_high", ATLINK_FIFO_RESET, 1);
}
BOOL atlink_event(HANDLE link) {
  return control_op(link, "atlink_event", ATLINK_EVENT, 1);
}
BOOL atlink_boot_from_rom(HANDLE link) {
  return control_op(link, "atlink_boot_from_rom", ATLINK_BOOT_FROM_ROM, 1);
}
BOOL atlink_boot_from_link(HANDLE link) {
  return control_op(link, "atlink_boot_from_link", ATLINK_BOOT_FROM_ROM, 0);
}
BOOL atlink_disable_interrupts(HANDLE link) {
  return control_op(link, "atlink_disable_interrupts", ATLINK_INTERRUPTS, 0);
}

BOOL atlink_local_transputer_reset(HANDLE link) {
  return control_sequence(link, "atlink_local_transputer_reset", kLocalResetPulse);
}
BOOL atlink_distant_transputer_reset(HANDLE link) {
  return control_sequence(link, "atlink_distant_transputer_reset", kDistantResetPulse);
}
BOOL atlink_fifo_reset(HANDLE link) {
  return control_sequence(link, "atlink_fifo_reset", kFifoResetPulse);
}

BOOL atlink_transputer_reset(HANDLE link) {
  static const char *const kOp = "atlink_transputer_reset";
  Rec rec(link, kOp);
  if (!rec || !atlink_fifo_reset(link) || !atlink_local_transputer_reset(link) ||
      !atlink_distant_transputer_reset(link))
    return qualify(kOp);
  tvx::settle_for(kResetDelay);
  return TRUE;
}

BOOL atlink_analyse(HANDLE link) {
  static const char *const kOp = "atlink_analyse";
  Rec rec(link, kOp);
  if (!rec || !change_bits(*rec, ATLINK_ANALYSE, 1)) return qualify(kOp);
  tvx::settle_for(kResetDelay);
  if (!atlink_transputer_reset(link)) return qualify(kOp);
  tvx::settle_for(kResetDelay);
  if (!change_bits(*rec, ATLINK_ANALYSE, 0)) return qualify(kOp);
  return TRUE;
}

BOOL atlink_linkspeed(HANDLE link, INT16 speed) {
  static const char *const kOp = "atlink_linkspeed";
  Rec rec(link, kOp);
  if (!rec) return qualify(kOp);
  bool ok = true;
  switch (speed) {
    case 20:
      ok = change_bits(*rec, ATLINK_LINK_SPEED, 1);
      break;
    case 10:
      ok = change_bits(*rec, ATLINK_LINK_SPEED, 0);
      break;
    case 5:
      ok = change_bits(*rec, 0x00C0, 1) && change_bits(*rec, 0x0020, 0);
      break;
    default:
      return fail(ERR_OUT_OF_RANGE, 0, kOp, {kCauseTransputerSection},
                  "invalid transputer link speed setting '%d'. (valid speeds 5, 10, 20).",
                  int{speed});
  }
  return ok ? TRUE : qualify(kOp);
}

BOOL atlink_enable_interrupts(HANDLE) {
  return fail(ERR_PROGRAMMER, 0, "atlink_enable_interrupts", {}, "not implemented.");
}

BOOL atlink_page_0(HANDLE link) {
  Rec rec(link, "atlink_page_0");
  return rec ? TRUE : qualify("atlink_page_0");
}

BOOL atlink_transputer_error(HANDLE link, WORD *result) {
  Rec rec(link, "atlink_transputer_error");
  if (!rec) return qualify("atlink_transputer_error");
  *result = read_status(*rec, ATLINK_LOCAL_ERROR | ATLINK_DISTANT_ERROR);
  return TRUE;
}

// ---- Status ------------------------------------------------------------------------------------

BOOL atlink_check_status(HANDLE link) {
  static const char *const kOp = "atlink_check_status";
  Rec rec(link, kOp);
  if (!rec) return qualify(kOp);
  const WORD status = read_status(*rec, 0xFF);
  if ((status & ATLINK_LOCAL_ERROR) != 0)
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {kCauseAtLinkCard}, "local transputer in error");
  if ((status & ATLINK_TX_NOT_EMPTY) != 0)
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {kCauseInitFile, kCauseAtLinkCard},
                "host transmit fifo not empty");
  if (read_status(*rec, ATLINK_RX_NOT_EMPTY) != 0)
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {kCauseAtLinkCard}, "host receiver fifo not empty");
  return TRUE;
}

BOOL atlink_print_status(HANDLE link, const char *label) {
  Rec rec(link, "atlink_print_status");
  if (!rec) return qualify("atlink_print_status");
  if (rec->verbose == 0) return TRUE;
  report *info = nullptr;
  report_where_is(REPORT_INFO, &info);
  report_send(info, "%s %04x\n", label, unsigned{read_status(*rec, 0xFF)});
  return TRUE;
}

BOOL atlink_describe_status(HANDLE link, WORD mask, char *text) {
  Rec rec(link, "atlink_describe_status");
  if (!rec) return qualify("atlink_describe_status");
  text[0] = '\0';
  const WORD status = read_status(*rec, 0xFF);
  for (const StatusText &entry : kStatusTexts) {
    if ((mask & entry.mask) == 0) continue;
    const char *line = (status & entry.mask) != 0 ? entry.when_set : entry.when_clear;
    if (line == nullptr) continue;
    std::strcat(text, line);
    std::strcat(text, "\n");
  }
  return TRUE;
}

// ---- Waits -------------------------------------------------------------------------------------

BOOL atlink_wait_for_input(HANDLE link) {
  Rec rec(link, "atlink_wait_for_input");
  if (!rec) return qualify("atlink_wait_for_input");
  return wait_input(*rec) ? TRUE : FALSE;
}

BOOL atlink_wait_to_output(HANDLE link) {
  Rec rec(link, "atlink_wait_to_output");
  if (!rec) return qualify("atlink_wait_to_output");
  return wait_output(*rec) ? TRUE : FALSE;
}

// ---- Transfers ---------------------------------------------------------------------------------

BOOL atlink_read_BYTE_array(HANDLE link, BYTE *bytes, INT16 count) {
  Rec rec(link, "atlink_read_BYTE_array");
  if (!rec) return qualify("atlink_read_BYTE_array");
  return read_bytes(*rec, bytes, count) ? TRUE : FALSE;
}

BOOL atlink_read_BYTE(HANDLE link, BYTE *byte) {
  return atlink_read_BYTE_array(link, byte, 1);
}

BOOL atlink_read_INT16(HANDLE link, INT16 *value) {
  static const char *const kOp = "atlink_read_INT16";
  Rec rec(link, kOp);
  BYTE bytes[2];
  if (!rec || !wait_input(*rec) || !read_bytes(*rec, bytes, 2)) return qualify(kOp);
  *value = static_cast<INT16>(from_bytes(bytes, 2));
  return TRUE;
}

BOOL atlink_read_INT16_array(HANDLE link, INT16 *values, INT16 count) {
  // Failures read as those of the single-value call, as they always have.
  static const char *const kOp = "atlink_read_INT16";
  Rec rec(link, kOp);
  if (!rec) return qualify(kOp);
  for (int i = 0; i < count; ++i) {
    BYTE bytes[2];
    if (!read_bytes(*rec, bytes, 2)) return qualify(kOp);
    values[i] = static_cast<INT16>(from_bytes(bytes, 2));
  }
  return TRUE;
}

BOOL atlink_read_INT32(HANDLE link, INT32 *value) {
  static const char *const kOp = "atlink_read_INT32";
  Rec rec(link, kOp);
  BYTE bytes[4];
  if (!rec || !read_bytes(*rec, bytes, 4)) return qualify(kOp);
  *value = static_cast<INT32>(from_bytes(bytes, 4));
  return TRUE;
}

BOOL atlink_read_WORD_array(HANDLE link, WORD *words, INT16 count) {
  Rec rec(link, "atlink_read_WORD_array");
  if (!rec) return qualify("atlink_read_WORD_array");
  return read_words(*rec, words, count) ? TRUE : FALSE;
}

BOOL atlink_read_WORD(HANDLE link, WORD *word) {
  return atlink_read_WORD_array(link, word, 1);
}

BOOL atlink_write_BYTE_array(HANDLE link, const BYTE *bytes, INT16 count) {
  Rec rec(link, "atlink_write_BYTE_array");
  if (!rec) return qualify("atlink_write_BYTE_array");
  return write_bytes(*rec, bytes, count) ? TRUE : FALSE;
}

BOOL atlink_write_BYTE(HANDLE link, BYTE byte) {
  return atlink_write_BYTE_array(link, &byte, 1);
}

BOOL atlink_write_INT16(HANDLE link, INT16 value) {
  static const char *const kOp = "atlink_write_INT16";
  Rec rec(link, kOp);
  BYTE bytes[2];
  to_bytes(static_cast<WORD>(value), bytes, 2);
  if (!rec || !wait_output(*rec) || !write_bytes(*rec, bytes, 2)) return qualify(kOp);
  return TRUE;
}

BOOL atlink_write_INT16_array(HANDLE link, const INT16 *values, INT16 count) {
  static const char *const kOp = "atlink_write_INT16_array";
  Rec rec(link, kOp);
  if (!rec) return qualify(kOp);
  for (int i = 0; i < count; ++i) {
    BYTE bytes[2];
    to_bytes(static_cast<WORD>(values[i]), bytes, 2);
    if (!write_bytes(*rec, bytes, 2)) return qualify(kOp);
  }
  return TRUE;
}

BOOL atlink_write_INT32(HANDLE link, INT32 value) {
  static const char *const kOp = "atlink_write_INT32";
  Rec rec(link, kOp);
  BYTE bytes[4];
  to_bytes(static_cast<DWORD>(value), bytes, 4);
  if (!rec || !write_bytes(*rec, bytes, 4)) return qualify(kOp);
  return TRUE;
}

BOOL atlink_write_WORD_array(HANDLE link, const WORD *words, INT16 count) {
  Rec rec(link, "atlink_write_WORD_array");
  if (!rec) return qualify("atlink_write_WORD_array");
  return write_words(*rec, words, count) ? TRUE : FALSE;
}

BOOL atlink_write_WORD(HANDLE link, WORD word) {
  return atlink_write_WORD_array(link, &word, 1);
}

}  // extern "C"
