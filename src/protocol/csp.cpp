// The packet object: one buffer of 16-bit words reused for every request and its reply. On the
// wire a packet is its word count followed by that many words; the transport is whatever four
// functions the object was made with.
#include "tvx/csp.h"

#include <cstdio>
#include <cstring>

#include "foundation/fail.h"
#include "foundation/locked.h"
#include "tvx/error.h"
#include "tvx/memory.h"
#include "tvx/report.h"

namespace {

using Rec = tvx::Locked<csp>;
using tvx::fail;
using tvx::qualify;

constexpr INT32 kCauseCorrupted = 0x3009;
constexpr INT32 kCauseProtocol = 0x3007;
constexpr INT32 kCauseGaveUp = 0x3006;
// The byte copy stops well short of the byte size of the parameter area; it always has.
constexpr int kByteCopyEnd = 194;

INT16 *params(csp &r) {
  return r.packet + CSP_HEADER_WORDS;
}

void trace(const csp &r, const char *way) {
  if (r.verbose == 0) return;
  report *info = nullptr;
  report_where_is(REPORT_INFO, &info);
  report_send(info, "csp %s: %d words, dst %d, src %d, cntrl %d\n", way, int{r.packet_size},
              int{r.packet[0]}, int{r.packet[1]}, int{r.packet[2]});
}

// Nothing in this library raises the count, but a transport that retries may: past the limit
// every message fails at once.
bool within_failures(const csp &r, const char *op) {
  if (r.failures < CSP_MAX_FAILURES) return true;
  return fail(ERR_OUT_OF_RANGE, 0, op, {kCauseGaveUp},
              "giving up after exceeding '%ld' message failures.", long{r.failures});
}

bool send(csp &r) {
  static const char *const kOp = "csp_send_packet";
  if (r.packet_size < 0 || r.packet_size > CSP_PACKET_WORDS)
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {kCauseProtocol}, "invalid csp send packet size");
  trace(r, "out");
  if (!r.write_size(r.link, r.packet_size) || !r.write_words(r.link, r.packet, r.packet_size))
    return qualify(kOp);
  return true;
}

bool receive(csp &r) {
  static const char *const kOp = "csp_receive_packet";
  if (!r.read_size(r.link, &r.packet_size)) return qualify(kOp);
  if (r.packet_size < 0 || r.packet_size > CSP_PACKET_WORDS)
    return fail(ERR_OUT_OF_RANGE, 0, kOp, {kCauseCorrupted, kCauseProtocol},
                "invalid csp receive packet size");
  if (!r.read_words(r.link, r.packet, r.packet_size)) return qualify(kOp);
  trace(r, "in");
  return true;
}

// The reply checks all push the same shape: a protocol fault on the packet just received.
bool reply_fault(const char *op, const char *format, int a, int b, int c = 0) {
  char text[160];
  std::snprintf(text, sizeof text, format, a, b, c);
  return fail(ERR_OUT_OF_RANGE, 0, op, {kCauseCorrupted, kCauseProtocol}, "%s", text);
}

bool expect_destination(const csp &r) {
  if (r.packet[0] == r.address) return true;
  return reply_fault("csp_expect_destination", "invalid csp destination (expected %d, actual %d)",
                     r.address, r.packet[0]);
}

bool expect_control(const csp &r, INT16 control) {
  if (r.packet[2] == control) return true;
  return reply_fault("csp_expect_control", "unexpected csp control (expected %d, actual %d)",
                     control, r.packet[2]);
}

bool expect_n_params(const csp &r, INT16 low, INT16 high) {
  if (low <= r.params_size && r.params_size <= high) return true;
  return reply_fault("csp_expect_n_params",
                     "invalid number of csp parameters (bounds (%d, %d), actual %d)", low, high,
                     r.params_size);
}

}  // namespace

extern "C" {

HANDLE csp_new(HANDLE link, INT16 address, csp_read_size_fn read_size, csp_read_words_fn read_words,
               csp_write_size_fn write_size, csp_write_words_fn write_words) {
  static const char *const kOp = "csp_new";
  HANDLE packets = handle_allocate(1, sizeof(csp), MEM_CSP);
  if (packets == nullptr) {
    qualify(kOp);
    return nullptr;
  }
  if (!csp_ctor(packets, link, address, read_size, read_words, write_size, write_words)) {
    csp_delete(packets);
    qualify(kOp);
    return nullptr;
  }
  return packets;
}

BOOL csp_ctor(HANDLE packets, HANDLE link, INT16 address, csp_read_size_fn read_size,
              csp_read_words_fn read_words, csp_write_size_fn write_size,
              csp_write_words_fn write_words) {
  static const char *const kOp = "csp_ctor";
  Rec rec(packets, kOp);
  if (!rec) return qualify(kOp);
  if (read_size == nullptr || read_words == nullptr || write_size == nullptr ||
      write_words == nullptr)
    return fail(ERR_PROGRAMMER, 0, kOp, {0x1040}, "NULL transfer function");
  std::memset(rec->packet, 0, sizeof rec->packet);
  rec->packet_size = 0;
  rec->params_size = 0;
  rec->address = address;
  rec->failures = 0;
  rec->link = link;
  rec->read_size = read_size;
  rec->read_words = read_words;
  rec->write_size = write_size;
  rec->write_words = write_words;
  rec->verbose = 0;
  return TRUE;
}

BOOL csp_delete(HANDLE packets) {
  if (packets != nullptr) handle_free(packets, "csp_delete");
  return TRUE;
}

BOOL csp_print(HANDLE packets, FILE *stream) {
  Rec rec(packets, "csp_print");
  if (!rec) return qualify("csp_print");
  std::fprintf(stream, "csp(src %d, packet %d::[dst %d, src %d, cntrl %d: ", int{rec->address},
               int{rec->packet_size}, int{rec->packet[0]}, int{rec->packet[1]},
               int{rec->packet[2]});
  for (int i = CSP_HEADER_WORDS; i < rec->packet_size; ++i)
    std::fprintf(stream, "%d ", int{rec->packet[i]});
  std::fprintf(stream, "]\n");
  std::fflush(stream);
  return TRUE;
}

BOOL csp_set_verbose(HANDLE packets, BOOL verbose) {
  Rec rec(packets, "csp_set_verbose");
  if (!rec) return qualify("csp_set_verbose");
  rec->verbose = verbose != 0 ? 1 : 0;
  return TRUE;
}

BOOL csp_new_address(HANDLE packets, INT16 address) {
  Rec rec(packets, "csp_new_address");
  if (!rec) return qualify("csp_new_address");
  rec->address = address;
  return TRUE;
}

BOOL csp_set_msg_param(HANDLE packets, INT16 index, INT16 value) {
  Rec rec(packets, "csp_set_msg_param");
  if (!rec) return qualify("csp_set_msg_param");
  params(*rec)[index] = value;
  return TRUE;
}

BOOL csp_get_msg_param(HANDLE packets, INT16 index, INT16 *value) {
  Rec rec(packets, "csp_get_msg_param");
  if (!rec) return qualify("csp_get_msg_param");
  *value = params(*rec)[index];
  return TRUE;
}

BOOL csp_get_params_size(HANDLE packets, INT16 *size) {
  Rec rec(packets, "csp_get_params_size");
  if (!rec) return qualify("csp_get_params_size");
  *size = rec->params_size;
  return TRUE;
}

BOOL csp_get_control(HANDLE packets, INT16 *control) {
  Rec rec(packets, "csp_get_control");
  if (!rec) return qualify("csp_get_control");
  *control = rec->packet[2];
  return TRUE;
}

BOOL csp_copy_BYTE_params(HANDLE packets, const BYTE *bytes, INT16 count, INT16 offset) {
  static const char *const kOp = "csp_copy_BYTE_params";
  Rec rec(packets, kOp);
  if (!rec) return qualify(kOp);
  if (offset < 0 || count < 0 || offset + count >= kByteCopyEnd + 1)
    return fail(ERR_PROGRAMMER, 0, kOp, {}, "copy (%d,%d) extends past csp params end (%ld)",
                int{offset}, int{count}, long{kByteCopyEnd});
  // An empty copy may come with no source at all.
  if (count > 0) std::memcpy(reinterpret_cast<BYTE *>(params(*rec)) + offset, bytes, size_t(count));
  return TRUE;
}

BOOL csp_copy_INT16_params(HANDLE packets, const INT16 *words, INT16 count, INT16 offset) {
  static const char *const kOp = "csp_copy_INT16_params";
  Rec rec(packets, kOp);
  if (!rec) return qualify(kOp);
  if (offset < 0 || count < 0 || count + offset >= CSP_MAX_PARAMS + 1)
    return fail(ERR_PROGRAMMER, 0, kOp, {}, "copy (%d,%d) extends past csp params end (%d)",
                int{count}, int{offset}, CSP_MAX_PARAMS);
  if (count > 0) std::memcpy(params(*rec) + offset, words, size_t(count) * sizeof(INT16));
  return TRUE;
}

BOOL csp_copy_BYTE_to_INT16_params(HANDLE packets, const BYTE *bytes, INT16 count, INT16 offset) {
  Rec rec(packets, "csp_copy_BYTE_to_INT16_params");
  if (!rec) return qualify("csp_copy_BYTE_to_INT16_params");
  for (int i = 0; i < count; ++i) params(*rec)[offset + i] = INT16{bytes[i]};
  return TRUE;
}

BOOL csp_copy_params_to_INT16s(HANDLE packets, INT16 *words, INT16 count) {
  static const char *const kOp = "csp_copy_params_to_INT16s";
  Rec rec(packets, kOp);
  if (!rec) return qualify(kOp);
  if (count < 0 || count >= CSP_MAX_PARAMS + 1)
    return fail(ERR_PROGRAMMER, 0, kOp, {}, "copy (%d) extends past csp params end (%d)",
                int{count}, CSP_MAX_PARAMS);
  if (count > 0) std::memcpy(words, params(*rec), size_t(count) * sizeof(INT16));
  return TRUE;
}

BOOL csp_send_packet(HANDLE packets) {
  Rec rec(packets, "csp_send_packet");
  if (!rec) return qualify("csp_send_packet");
  return send(*rec) ? TRUE : FALSE;
}

BOOL csp_receive_packet(HANDLE packets) {
  Rec rec(packets, "csp_receive_packet");
  if (!rec) return qualify("csp_receive_packet");
  return receive(*rec) ? TRUE : FALSE;
}

BOOL csp_message_out(HANDLE packets, INT16 destination, INT16 control, INT16 count) {
  static const char *const kOp = "csp_message_out";
  Rec rec(packets, kOp);
  if (!rec) return qualify(kOp);
  if (!within_failures(*rec, kOp)) return FALSE;
  rec->packet[0] = destination;
  rec->packet[1] = rec->address;
  rec->packet[2] = control;
  rec->packet_size = static_cast<INT16>(count + CSP_HEADER_WORDS);
  return send(*rec) ? TRUE : qualify(kOp);
}

BOOL csp_message_in(HANDLE packets) {
  static const char *const kOp = "csp_message_in";
  Rec rec(packets, kOp);
  if (!rec) return qualify(kOp);
  if (!within_failures(*rec, kOp)) return FALSE;
  if (!receive(*rec)) {
    rec->params_size = 0;
    return qualify(kOp);
  }
  rec->params_size = static_cast<INT16>(rec->packet_size - CSP_HEADER_WORDS);
  return TRUE;
}

BOOL csp_expect_destination(HANDLE packets) {
  Rec rec(packets, "csp_expect_destination");
  if (!rec) return qualify("csp_expect_destination");
  return expect_destination(*rec) ? TRUE : FALSE;
}

BOOL csp_expect_control(HANDLE packets, INT16 control) {
  Rec rec(packets, "csp_expect_control");
  if (!rec) return qualify("csp_expect_control");
  return expect_control(*rec, control) ? TRUE : FALSE;
}

BOOL csp_expect_n_params(HANDLE packets, INT16 low, INT16 high) {
  Rec rec(packets, "csp_expect_n_params");
  if (!rec) return qualify("csp_expect_n_params");
  return expect_n_params(*rec, low, high) ? TRUE : FALSE;
}

BOOL csp_expected(HANDLE packets, INT16 control, INT16 count) {
  Rec rec(packets, "csp_expected");
  if (!rec) return qualify("csp_expected");
  if (!expect_destination(*rec) || !expect_control(*rec, control) ||
      !expect_n_params(*rec, count, count))
    return qualify("csp_expected");
  return TRUE;
}

BOOL csp_expected2(HANDLE packets, INT16 control, INT16 low, INT16 high) {
  Rec rec(packets, "csp_expected2");
  if (!rec) return qualify("csp_expected2");
  if (!expect_destination(*rec) || !expect_control(*rec, control) ||
      !expect_n_params(*rec, low, high))
    return qualify("csp_expected2");
  return TRUE;
}

}  // extern "C"
