// The port bus. Every 16-bit port access of the library passes through here, pixel by pixel in a
// readout, so the dispatch is one table load and one indirect call: a byte per port names the
// device slot that claims it, slot 0 being "nobody".
#include "tvx/ports.h"

#include <array>
#include <cstdint>
#include <ctime>

#include "foundation/fail.h"
#include "tvx/testing.h"

#if (defined(__x86_64__) || defined(__i386__)) && __has_include(<sys/io.h>)
#include <sys/io.h>
#define TVX_HOST_PORT_IO 1
#else
#define TVX_HOST_PORT_IO 0
#endif

namespace {

struct Device {
  port_read_fn read = nullptr;
  port_write_fn write = nullptr;
  void *context = nullptr;
  WORD first = 0;
  WORD count = 0;  // 0: the slot is free
};

constexpr size_t kPorts = 65536;
constexpr size_t kSlots = 64;  // slot 0 is never used: it marks an unclaimed port
constexpr size_t kTimerSlot = 1;

std::array<uint8_t, kPorts> owner{};
std::array<Device, kSlots> devices{};

// ---- Unclaimed ports ---------------------------------------------------------------------
// Whether the machine's own port I/O may be used for a port: not asked yet, granted, refused.
enum class Grant : uint8_t { unknown, granted, refused };
std::array<Grant, kPorts> grants{};
bool floating_only = false;

bool host_port_granted(WORD port) {
#if TVX_HOST_PORT_IO
  if (floating_only) return false;
  Grant &grant = grants[port];
  if (grant == Grant::unknown) grant = ioperm(port, 2, 1) == 0 ? Grant::granted : Grant::refused;
  return grant == Grant::granted;
#else
  (void)port;
  return false;
#endif
}

WORD unclaimed_in(WORD port) {
#if TVX_HOST_PORT_IO
  if (host_port_granted(port)) return inw(port);
#endif
  (void)port;
  return PORT_FLOATING_BUS;
}

void unclaimed_out(WORD port, WORD value) {
#if TVX_HOST_PORT_IO
  if (host_port_granted(port)) outw(value, port);
#endif
  (void)port;
  (void)value;
}

// ---- The interval timer ------------------------------------------------------------------
// Channel 0 counts down from 65536 at 1.193182 MHz, over and over. Reads come in pairs, low byte
// then high byte of a count latched by the first of them, as the counter's own read-back does.
struct Timer {
  bool high_next = false;
  uint16_t latched = 0;
};
Timer timer;

uint16_t timer_count() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  // ticks = ns * 1.193182e-3, kept in integers: 1193182 ticks per 10^9 ns.
  const unsigned __int128 ns =
      static_cast<unsigned __int128>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
  const auto ticks = static_cast<uint64_t>(ns * 1193182u / 1000000000u);
  return static_cast<uint16_t>(0u - static_cast<uint16_t>(ticks));
}

WORD timer_read(void *, WORD) {
  if (!timer.high_next) {
    timer.latched = timer_count();
    timer.high_next = true;
    return timer.latched & 0xFFu;
  }
  timer.high_next = false;
  return timer.latched >> 8;
}

void timer_write(void *, WORD, WORD) {
  // Reprogramming the PC's timer is not ours to allow; the write is dropped.
}

struct TimerInstaller {
  TimerInstaller() {
    devices[kTimerSlot] = Device{timer_read, timer_write, nullptr, PORT_INTERVAL_TIMER, 1};
    owner[PORT_INTERVAL_TIMER] = kTimerSlot;
  }
};
TimerInstaller timer_installer;

}  // namespace

extern "C" {

WORD port_in16(WORD port) {
  const uint8_t slot = owner[port];
  if (slot == 0) return unclaimed_in(port);
  const Device &device = devices[slot];
  return device.read(device.context, port);
}

void port_out16(WORD port, WORD value) {
  const uint8_t slot = owner[port];
  if (slot == 0) return unclaimed_out(port, value);
  const Device &device = devices[slot];
  device.write(device.context, port, value);
}

BOOL port_attach(WORD first, WORD count, port_read_fn read, port_write_fn write, void *context) {
  static const char *const kOp = "port_attach";
  if (read == nullptr || write == nullptr)
    return tvx::fail(ERR_NO_DATA, 0, kOp, {0x1040}, "no read or write function for ports 0x%X.",
                     unsigned{first});
  if (count == 0 || size_t{first} + count > kPorts)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {0x1040},
                     "port range 0x%X, %u ports, is empty or runs past the last port.",
                     unsigned{first}, unsigned{count});
  for (size_t port = first; port < size_t{first} + count; ++port)
    if (owner[port] != 0)
      return tvx::fail(ERR_INCONSISTENT, 0, kOp, {0x200f}, "port 0x%zX is already claimed.", port);
  size_t slot = kTimerSlot + 1;
  while (slot < kSlots && devices[slot].count != 0) ++slot;
  if (slot == kSlots)
    return tvx::fail(ERR_TOO_COMPLEX, 0, kOp, {0x1040}, "no room for more than %zu devices.",
                     kSlots - 2);
  devices[slot] = Device{read, write, context, first, count};
  for (size_t port = first; port < size_t{first} + count; ++port)
    owner[port] = static_cast<uint8_t>(slot);
  return TRUE;
}

BOOL port_detach(WORD first) {
  for (size_t slot = kTimerSlot + 1; slot < kSlots; ++slot) {
    Device &device = devices[slot];
    if (device.count == 0 || device.first != first) continue;
    for (size_t port = first; port < size_t{first} + device.count; ++port) owner[port] = 0;
    device = Device{};
    return TRUE;
  }
  return tvx::fail(ERR_INCONSISTENT, 0, "port_detach", {0x1040},
                   "no device is attached at port 0x%X.", unsigned{first});
}

BOOL port_claimed(WORD port) {
  return owner[port] != 0 ? TRUE : FALSE;
}

void tvx_test_ports_floating(BOOL on) {
  floating_only = on != FALSE;
}

}  // extern "C"
