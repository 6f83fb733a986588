// The five calls on a serial port itself, and the names ports go by. The line's state is built
// from a definition text ("COM2:9600,n,8,1") the way the line's ports were always configured;
// the platform layer applies it to the device.
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/fail.h"
#include "platform/platform.h"
#include "tvx/rs232.h"
#include "tvx/testing.h"

namespace {

using tvx::fail;
using tvx::qualify;
namespace platform = tvx::platform;

constexpr INT32 kCauseProgrammer = 0x1040;

// The device every port name opens.
constexpr const char *kDevicePort = "COM1";

// The line's speeds, with the two-figure forms the old definition texts used for them.
struct Baud {
  const char *text;
  DWORD rate;
};
constexpr Baud kBauds[] = {
    {"11", 110},  {"15", 150},  {"30", 300},  {"60", 600},   {"12", 1200},
    {"24", 2400}, {"48", 4800}, {"96", 9600}, {"19", 19200},
};

struct Parity {
  char letter;
  BYTE code;
  char line;  // as the platform names it
};
constexpr Parity kParities[] = {
    {'n', SERIAL_NO_PARITY, 'n'},   {'o', SERIAL_ODD_PARITY, 'o'},   {'e', SERIAL_EVEN_PARITY, 'e'},
    {'m', SERIAL_MARK_PARITY, 'm'}, {'s', SERIAL_SPACE_PARITY, 's'},
};

struct StopBits {
  const char *text;
  BYTE code;
  int line;
};
constexpr StopBits kStopBits[] = {{"1", SERIAL_ONE_STOP_BIT, 1},
                                  {"1.5", SERIAL_ONE5_STOP_BITS, 3},
                                  {"2", SERIAL_TWO_STOP_BITS, 2}};

// What the last SerialOpen built its line from, for the tests.
char last_definition[sizeof(serial_dcb{}.definition)];

bool null_argument(const char *routine, const char *what) {
  return fail(ERR_PROGRAMMER, 0, routine, {kCauseProgrammer}, "null %s.", what);
}

// One comma-separated field of the definition; false when the text has no more fields.
bool next_field(const char *&cursor, char *field, size_t room) {
  if (cursor == nullptr) return false;
  const char *comma = std::strchr(cursor, ',');
  const size_t length = comma != nullptr ? size_t(comma - cursor) : std::strlen(cursor);
  size_t used = 0;
  for (size_t i = 0; i < length; ++i) {
    const char c = cursor[i];
    if (std::isspace(static_cast<unsigned char>(c)) != 0) continue;
    if (used + 1 >= room) return false;
    field[used++] = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  }
  field[used] = '\0';
  cursor = comma != nullptr ? comma + 1 : nullptr;
  return true;
}

bool parse_baud(const char *field, DWORD *rate) {
  for (const Baud &b : kBauds)
    if (std::strcmp(field, b.text) == 0) return *rate = b.rate, true;
  char *end = nullptr;
  const unsigned long value = std::strtoul(field, &end, 10);
  if (field[0] == '\0' || *end != '\0' || value < 50 || value > 4000000) return false;
  *rate = static_cast<DWORD>(value);
  return true;
}

// Builds the line state from "[name:]baud[,parity[,data[,stop[,x|p]]]]"; fields left out keep
// what the device held.
bool build_dcb(const char *definition, serial_dcb *dcb) {
  const char *colon = std::strchr(definition, ':');
  const char *cursor = colon != nullptr ? colon + 1 : definition;
  char field[16];
  if (!next_field(cursor, field, sizeof field) || !parse_baud(field, &dcb->baud_rate)) return false;
  if (next_field(cursor, field, sizeof field) && field[0] != '\0') {
    const Parity *found = nullptr;
    for (const Parity &p : kParities)
      if (field[0] == p.letter && field[1] == '\0') found = &p;
    if (found == nullptr) return false;
    dcb->parity = found->code;
  }
  if (next_field(cursor, field, sizeof field) && field[0] != '\0') {
    if (field[0] < '5' || field[0] > '8' || field[1] != '\0') return false;
    dcb->byte_size = static_cast<BYTE>(field[0] - '0');
  }
  if (next_field(cursor, field, sizeof field) && field[0] != '\0') {
    const StopBits *found = nullptr;
    for (const StopBits &s : kStopBits)
      if (std::strcmp(field, s.text) == 0) found = &s;
    if (found == nullptr) return false;
    dcb->stop_bits = found->code;
  }
  // Handshake: x (software) or p (hardware); the line runs without either.
  if (next_field(cursor, field, sizeof field) && field[0] != '\0' &&
      !(field[1] == '\0' && (field[0] == 'x' || field[0] == 'p')))
    return false;
  return cursor == nullptr;
}

void dcb_of(const platform::SerialLine &line, serial_dcb *dcb) {
  dcb->baud_rate = line.baud;
  dcb->byte_size = static_cast<BYTE>(line.data_bits);
  for (const Parity &p : kParities)
    if (p.line == line.parity) dcb->parity = p.code;
  for (const StopBits &s : kStopBits)
    if (s.line == line.stop_bits) dcb->stop_bits = s.code;
}

platform::SerialLine line_of(const serial_dcb &dcb) {
  platform::SerialLine line{dcb.baud_rate, dcb.byte_size, 'n', 1};
  for (const Parity &p : kParities)
    if (p.code == dcb.parity) line.parity = p.line;
  for (const StopBits &s : kStopBits)
    if (s.code == dcb.stop_bits) line.stop_bits = s.line;
  return line;
}

// A step of the opening failed: the port is given back and marked closed.
bool abandon(INT32 &port, const char *text) {
  platform::serial_close(port);
  port = -1;
  return fail(ERR_SYSTEM_IO, 0, "SerialOpen", {}, "%s", text);
}

}  // namespace

extern "C" {

BOOL SerialOpen(const char *port_name, const char *settings, serial_dcb *dcb, INT32 *port) {
  static const char *const kOp = "SerialOpen";
  if (port == nullptr) return null_argument(kOp, "port");
  *port = -1;
  if (port_name == nullptr) return null_argument(kOp, "port name");
  if (settings == nullptr) return null_argument(kOp, "settings");
  serial_dcb local{};
  if (dcb == nullptr) dcb = &local;

  char path[256];
  if (!platform::serial_device(kDevicePort, path, sizeof path))
    return fail(ERR_SYSTEM_IO, 0, kOp, {}, "serial port not present.");
  bool missing = false;
  const int opened = platform::serial_open(path, &missing);
  if (opened < 0) {
    const int error = errno;
    fail(ERR_SYSTEM_IO, 0, kOp, {},
         missing ? "serial port not present." : "unable to open serial port.");
    return qualify(kOp, "while opening %s: %s.", path, std::strerror(error));
  }
  *port = opened;

  platform::SerialLine line{};
  if (platform::serial_get_line(*port, &line) < 0)
    return abandon(*port, "unable to get comm state.");
  dcb_of(line, dcb);
  std::snprintf(dcb->definition, sizeof dcb->definition, "%s:%s", port_name, settings);
  std::memcpy(last_definition, dcb->definition, sizeof last_definition);
  if (!build_dcb(dcb->definition, dcb)) return abandon(*port, "unable to build comm DCB.");
  if (platform::serial_set_line(*port, line_of(*dcb)) < 0)
    return abandon(*port, "unable to set comm state.");
  platform::serial_purge(*port);
  return TRUE;
}

BOOL SerialClose(INT32 port) {
  if (port < 0) return TRUE;
  if (platform::serial_close(port) < 0)
    return fail(ERR_SYSTEM_IO, 0, "SerialClose", {}, "unable to close serial port.");
  return TRUE;
}

// A transfer that moves fewer bytes than asked has run out of time: the caller would otherwise
// take a half-filled buffer for data.
BOOL SerialRead(INT32 port, void *buffer, INT32 count) {
  static const char *const kOp = "SerialRead";
  if (count < 0)
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {kCauseProgrammer}, "invalid count %ld.", long{count});
  if (buffer == nullptr && count > 0) return null_argument(kOp, "buffer");
  const long got = platform::serial_read(port, buffer, static_cast<size_t>(count));
  if (got < 0) return fail(ERR_TIMEOUT, 0, kOp, {}, "unable to read serial data.");
  if (got < count) {
    fail(ERR_TIMEOUT, 0, kOp, {}, "unable to read serial data.");
    return qualify(kOp, "while waiting for %ld bytes (%ld came).", long{count}, got);
  }
  return TRUE;
}

BOOL SerialWrite(INT32 port, const void *buffer, INT32 count) {
  static const char *const kOp = "SerialWrite";
  if (count < 0)
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {kCauseProgrammer}, "invalid count %ld.", long{count});
  if (buffer == nullptr && count > 0) return null_argument(kOp, "buffer");
  const long put = platform::serial_write(port, buffer, static_cast<size_t>(count));
  if (put < 0) return fail(ERR_SYSTEM_IO, 0, kOp, {}, "unable to write serial port.");
  if (put < count) {
    fail(ERR_SYSTEM_IO, 0, kOp, {}, "unable to write serial port.");
    return qualify(kOp, "while sending %ld bytes (%ld went).", long{count}, put);
  }
  return TRUE;
}

INT32 SetSerialTimeOut(INT32 port, INT32 milliseconds) {
  static const char *const kOp = "SetSerialTimeOut";
  static INT32 remembered = 0;
  const INT32 previous = remembered;
  if (milliseconds < 0) {
    fail(ERR_OUT_OF_RANGE, 0, kOp, {kCauseProgrammer}, "invalid serial time-out %ld ms.",
         long{milliseconds});
    return previous;
  }
  remembered = milliseconds;
  platform::SerialTimeouts t{};
  if (platform::serial_get_timeouts(port, &t) < 0) {
    fail(ERR_SYSTEM_IO, 0, kOp, {}, "unable to set serial time-outs.");
    return previous;
  }
  t.read_multiplier = 0;
  t.read_constant = static_cast<DWORD>(milliseconds);
  t.write_multiplier = 0;
  t.write_constant = static_cast<DWORD>(milliseconds);
  platform::serial_set_timeouts(port, t);
  return previous;
}

BOOL SerialMapPort(const char *port_name, const char *device) {
  static const char *const kOp = "SerialMapPort";
  if (port_name == nullptr || port_name[0] == '\0') return null_argument(kOp, "port name");
  if (device != nullptr && std::strlen(device) >= 256)
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {kCauseProgrammer}, "device path too long (%zu).",
                std::strlen(device));
  platform::serial_map(port_name, device);
  return TRUE;
}

BOOL SerialPortDevice(const char *port_name, char *path, INT32 room) {
  static const char *const kOp = "SerialPortDevice";
  if (port_name == nullptr) return null_argument(kOp, "port name");
  if (path == nullptr || room <= 0) return null_argument(kOp, "path");
  if (!platform::serial_device(port_name, path, static_cast<size_t>(room)))
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {kCauseProgrammer}, "no device for port '%s'.",
                port_name);
  return TRUE;
}

const char *tvx_test_serial_definition(void) {
  return last_definition;
}

}  // extern "C"
