// The serial transport object: bytes as they are, and 16-bit words in blocks that the receiver
// answers with one acknowledgement byte, so that the sender of a block knows it has arrived
// before it goes on. A packet over the line is thus the size word and its acknowledgement, then
// the packet's words and theirs.
#include "tvx/rs232.h"

#include <cstdint>
#include <cstdio>
#include <vector>

#include "foundation/fail.h"
#include "foundation/locked.h"
#include "tvx/error.h"
#include "tvx/memory.h"
#include "tvx/report.h"

namespace {

using Rec = tvx::Locked<rs232>;
using tvx::fail;
using tvx::qualify;

constexpr INT32 kCauseProgrammer = 0x1040;
constexpr BYTE kAck = RS232_ACK;

// A count or buffer no transfer can take.
bool bad_transfer(const char *op, const void *buffer, INT16 count) {
  if (count < 0)
    return fail(ERR_OUT_OF_RANGE, 0, op, {kCauseProgrammer}, "invalid transfer count %d.",
                int{count});
  if (buffer == nullptr && count > 0)
    return fail(ERR_PROGRAMMER, 0, op, {kCauseProgrammer}, "null transfer buffer.");
  return true;
}

void tell(const rs232 &r, const char *what, int words, int ack) {
  if (r.verbose == 0) return;
  report *info = nullptr;
  report_where_is(REPORT_INFO, &info);
  report_send(info, "rs232(%d): %s %d words, ack %d\n", int{r.port}, what, words, ack);
}

}  // namespace

extern "C" {

HANDLE rs232_new(INT32 reserved, INT32 port_index) {
  static const char *const kOp = "rs232_new";
  HANDLE line = handle_allocate(1, sizeof(rs232), MEM_RS232);
  if (line == nullptr) {
    qualify(kOp);
    return nullptr;
  }
  {
    Rec rec(line, kOp);
    if (rec) rec->port = -1;
  }
  if (!rs232_ctor(line, reserved, port_index)) {
    rs232_delete(line);
    qualify(kOp);
    return nullptr;
  }
  return line;
}

BOOL rs232_ctor(HANDLE line, INT32 reserved, INT32 port_index) {
  static const char *const kOp = "rs232_ctor(dos)";
  Rec rec(line, kOp);
  if (!rec) return qualify(kOp);
  // Run again on an open line, the constructor gives the old port back first.
  if (rec->port >= 0 && !SerialClose(rec->port)) return qualify(kOp);
  rec->port = -1;
  rec->verbose = 0;
  rec->reserved = reserved;
  const int64_t number = int64_t{port_index} + 1;
  char name[16];
  std::snprintf(name, sizeof name, "COM%u", static_cast<unsigned>(number < 1 ? 1 : number));
  INT32 port = -1;
  serial_dcb dcb{};
  if (!SerialOpen(name, RS232_SETTINGS, &dcb, &port)) return qualify(kOp);
  rec->port = port;
  SetSerialTimeOut(port, RS232_TIMEOUT_MS);
  return TRUE;
}

BOOL rs232_dtor(HANDLE line) {
  static const char *const kOp = "rs232_dtor";
  Rec rec(line, kOp);
  if (!rec) return qualify(kOp);
  if (rec->port < 0) return TRUE;
  const INT32 port = rec->port;
  rec->port = -1;
  return SerialClose(port) ? TRUE : qualify(kOp);
}

BOOL rs232_delete(HANDLE line) {
  static const char *const kOp = "rs2323_delete";
  if (line == nullptr) return TRUE;
  {
    Rec rec(line, kOp);
    if (!rec) return qualify(kOp);
  }
  // A port that would not close is gone all the same: the record goes with it.
  if (!rs232_dtor(line)) err_reset_last(tvx::errors());
  handle_free(line, kOp);
  return TRUE;
}

BOOL rs232_print(HANDLE line, FILE *stream) {
  static const char *const kOp = "rs232_print";
  Rec rec(line, kOp);
  if (!rec) return qualify(kOp);
  std::fprintf(stream, "rs232(%d, %d, %d, %X, %X)", int{rec->verbose}, int{rec->port},
               int{rec->reserved}, static_cast<unsigned>(reinterpret_cast<uintptr_t>(line)),
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(rec.get())));
  std::fflush(stream);
  return TRUE;
}

BOOL rs232_verbose(HANDLE line) {
  Rec rec(line, "rs232_verbose");
  if (!rec) return qualify("rs232_verbose");
  return rec->verbose != 0 ? TRUE : FALSE;
}

BOOL rs232_set_verbose(HANDLE line, BOOL verbose) {
  Rec rec(line, "rs232_set_verbose");
  if (!rec) return qualify("rs232_set_verbose");
  rec->verbose = verbose != FALSE ? 1 : 0;
  return TRUE;
}

BOOL rs232_init(HANDLE line) {
  Rec rec(line, "rs232_init");
  return rec ? TRUE : qualify("rs232_init");
}

// ---- Bytes -------------------------------------------------------------------------------------

BOOL rs232_read_BYTE_array(HANDLE line, BYTE *bytes, INT16 count) {
  static const char *const kOp = "rs232_read_BYTE_array";
  Rec rec(line, kOp);
  if (!rec) return qualify(kOp);
  if (!bad_transfer(kOp, bytes, count) || !SerialRead(rec->port, bytes, count))
    return qualify(kOp, "read byte array failed");
  return TRUE;
}

BOOL rs232_write_BYTE_array(HANDLE line, const BYTE *bytes, INT16 count) {
  static const char *const kOp = "rs232_write_BYTE_array";
  Rec rec(line, kOp);
  if (!rec) return qualify(kOp);
  if (!bad_transfer(kOp, bytes, count) || !SerialWrite(rec->port, bytes, count))
    return qualify(kOp, "write byte array failed");
  return TRUE;
}

// Single bytes carry no acknowledgement; their failures are qualified as they always were.
BOOL rs232_read_BYTE(HANDLE line, BYTE *byte) {
  return rs232_read_BYTE_array(line, byte, 1) ? TRUE : qualify("rs232_read_BYTE", "No ack");
}

BOOL rs232_write_BYTE(HANDLE line, BYTE byte) {
  return rs232_write_BYTE_array(line, &byte, 1) ? TRUE : qualify("rs232_write_BYTE", "No ack");
}

// ---- Words
// ---------------------------------------------------------------------------------------

BOOL rs232_write_INT16_array(HANDLE line, const INT16 *values, INT16 count) {
  static const char *const kOp = "rs232_write_INT16_array";
  Rec rec(line, kOp);
  if (!rec) return qualify(kOp);
  if (!bad_transfer(kOp, values, count)) return qualify(kOp, "wi16a failed");
  std::vector<BYTE> bytes(size_t(count) * 2);
  for (INT16 i = 0; i < count; ++i) {
    const auto word = static_cast<WORD>(values[i]);
    bytes[size_t(i) * 2] = static_cast<BYTE>(word & 0xFF);
    bytes[size_t(i) * 2 + 1] = static_cast<BYTE>(word >> 8);
  }
  if (!SerialWrite(rec->port, bytes.data(), INT32{count} * 2)) return qualify(kOp, "wi16a failed");
  BYTE ack = 0;
  if (!SerialRead(rec->port, &ack, 1)) return qualify(kOp, "Ack receive failed");
  tell(*rec, "wrote", count, ack);
  if (ack != kAck) return fail(ERR_TIMEOUT, 0, kOp, {}, "ack error: ack=%d", int{ack});
  return TRUE;
}

BOOL rs232_read_INT16_array(HANDLE line, INT16 *values, INT16 count) {
  static const char *const kOp = "rs232_read_INT16_array";
  Rec rec(line, kOp);
  if (!rec) return qualify(kOp);
  if (!bad_transfer(kOp, values, count)) return qualify(kOp, "ri16a data failed");
  std::vector<BYTE> bytes(size_t(count) * 2);
  if (!SerialRead(rec->port, bytes.data(), INT32{count} * 2))
    return qualify(kOp, "ri16a data failed");
  for (INT16 i = 0; i < count; ++i)
    values[i] = static_cast<INT16>(bytes[size_t(i) * 2] | bytes[size_t(i) * 2 + 1] << 8);
  const BYTE ack = kAck;
  if (!SerialWrite(rec->port, &ack, 1)) return qualify(kOp, "ri16a ack failed");
  tell(*rec, "read", count, ack);
  return TRUE;
}

BOOL rs232_read_INT16(HANDLE line, INT16 *value) {
  return rs232_read_INT16_array(line, value, 1) ? TRUE : qualify("rs232_read_INT16");
}

BOOL rs232_write_INT16(HANDLE line, INT16 value) {
  return rs232_write_INT16_array(line, &value, 1) ? TRUE : qualify("rs232_write_INT16");
}

}  // extern "C"
