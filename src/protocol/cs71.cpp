// The controller object and the exchanges every command is made of: the liveness probe, the
// common request, the completion wait and the wait through a long operation's progress reports.
// Also the host-side argument checks the commands use.
#include "tvx/cs71.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "foundation/fail.h"
#include "foundation/locked.h"
#include "protocol/protocol.h"
#include "tvx/atlink.h"
#include "tvx/csp.h"
#include "tvx/error.h"
#include "tvx/report.h"

namespace tvx::protocol {

Target::Target(HANDLE controller, const char *caller) {
  cs71 *r = cs71_handle_lock_check(controller, caller);
  if (r == nullptr) return;
  camera_id = r->camera_id;
  packets = r->csp;
  ok = true;
  handle_unlock(controller, caller);
}

bool check_ival_selection(const char *name, const char *choices, INT32 value) {
  const char *p = choices;
  for (;;) {
    while (*p != '\0' && std::strchr("0123456789+-", *p) == nullptr) ++p;
    int used = 0;
    int found = 0;
    if (*p == '\0' || std::sscanf(p, "%i%n", &found, &used) != 1) break;
    if (found == value) return true;
    p += used > 0 ? used : 1;
  }
  return fail(ERR_OUT_OF_RANGE, 0, "check_ival_selection", {}, "%s (%d): expected %s", name,
              int{value}, choices);
}

bool timed_out() {
  return error_pending() && (*errors())->category == ERR_TIMEOUT;
}

namespace {

// The information report with a prefix of the caller's for as long as it lives.
class PrefixedReport {
 public:
  explicit PrefixedReport(const char *prefix) {
    report_where_is(REPORT_INFO, &info_);
    report_get_prefix(info_, &saved_);
    report_set_prefix(info_, prefix);
  }
  ~PrefixedReport() { report_set_prefix(info_, saved_); }
  PrefixedReport(const PrefixedReport &) = delete;
  PrefixedReport &operator=(const PrefixedReport &) = delete;
  report *get() const { return info_; }

 private:
  report *info_ = nullptr;
  const char *saved_ = nullptr;
};

// The longest time-out an adapter takes, in centiseconds.
constexpr DWORD kLongestStage = 6499;

// How long one stage of a long operation may last: as long as the adapter waits for a reply, when
// the packets go over the AT-Link; the longest time-out an adapter can have otherwise.
DWORD stage_limit(HANDLE packets) {
  Locked<csp> p(packets, "stage_limit");
  if (!p || p->read_size != atlink_read_INT16) return kLongestStage;
  Locked<atlink> link(p->link, "stage_limit");
  return link ? static_cast<DWORD>(link->io_timeout) : kLongestStage;
}

}  // namespace

}  // namespace tvx::protocol

using tvx::fail;
using tvx::qualify;
using namespace tvx::protocol;

extern "C" {

// ---- Checks ----------------------------------------------------------------------------------

BOOL valid_i32range(const char *name, INT32 low, INT32 high, INT32 value) {
  if (low <= value && value <= high) return TRUE;
  return fail(ERR_OUT_OF_RANGE, 0, "valid_i32range", {}, "%s (%ld): expected %ld to %ld", name,
              long{value}, long{low}, long{high});
}

BOOL valid_i16range(const char *name, INT16 low, INT16 high, INT16 value) {
  if (low <= value && value <= high) return TRUE;
  return fail(ERR_OUT_OF_RANGE, 0, "valid_i16range", {}, "%s (%d): expected %d to %d", name,
              int{value}, int{low}, int{high});
}

BOOL valid_drange(const char *name, double low, double high, double value) {
  if (low <= value && value <= high) return TRUE;
  return fail(ERR_OUT_OF_RANGE, 0, "valid_drange", {}, "%s (%.2f): expected %.2f to %.2f", name,
              value, low, high);
}

BOOL map_i16_to(INT16 value, const INT16 *from, const INT16 *to, INT16 count, INT16 *result) {
  for (int i = 0; i < count; ++i) {
    if (from[i] != value) continue;
    *result = to[i];
    return TRUE;
  }
  return fail(ERR_PROGRAMMER, 0, "map_i16_to", {kCauseBadArgument},
              "map value, v, not in vfrom set");
}

// ---- The object ------------------------------------------------------------------------------

HANDLE cs71_new(INT16 camera_id, HANDLE packets) {
  static const char *const kOp = "cs71_new";
  HANDLE controller = handle_allocate(1, sizeof(cs71), MEM_CS71);
  if (controller == nullptr) {
    qualify(kOp);
    return nullptr;
  }
  if (!cs71_ctor(controller, camera_id, packets)) {
    fail(ERR_OUT_OF_RANGE, 0, kOp, {}, "unable to allocate 7100 camera server.");
    cs71_delete(controller);
    return nullptr;
  }
  return controller;
}

BOOL cs71_ctor(HANDLE controller, INT16 camera_id, HANDLE packets) {
  static const char *const kOp = "cs71_ctor";
  cs71 *r = cs71_handle_lock_check(controller, kOp);
  if (r == nullptr) return qualify(kOp);
  r->camera_id = camera_id;
  r->csp = packets;
  handle_unlock(controller, kOp);
  if (packets == nullptr) return fail(ERR_OUT_OF_RANGE, 0, kOp, {}, "NULL csp handle");
  return TRUE;
}

BOOL cs71_delete(HANDLE controller) {
  if (controller != nullptr) handle_free(controller, "cs71_delete");
  return TRUE;
}

BOOL cs71_print(HANDLE controller, FILE *stream) {
  static const char *const kOp = "cs71_print";
  cs71 *r = cs71_handle_lock_check(controller, kOp);
  if (r == nullptr) return qualify(kOp);
  std::fprintf(stream, "cs(camera_id %d, csp_handle 0x%X)", int{r->camera_id},
               static_cast<unsigned>(reinterpret_cast<uintptr_t>(r->csp)));
  handle_unlock(controller, kOp);
  return TRUE;
}

cs71 *cs71_handle_lock_check(HANDLE controller, const char *caller) {
  if (controller == nullptr) {
    fail(ERR_OUT_OF_RANGE, 0, "cs71_handle_lock_check", {}, "%s: locking null handle", caller);
    return nullptr;
  }
  return static_cast<cs71 *>(handle_lock(controller, caller));
}

// ---- Exchanges -------------------------------------------------------------------------------

BOOL cs71_responding(HANDLE controller) {
  static const char *const kOp = "cs71_responding";
  Target t(controller, kOp);
  if (!t) return qualify(kOp, "hardware not responding");
  if (!csp_message_out(t.packets, t.camera_id, 1, 0))
    return qualify(kOp, "hardware not responding");
  if (!csp_message_in(t.packets) || !csp_expected2(t.packets, CS71_COMPLETE, 0, 0)) {
    err_append_cause(tvx::errors(), kCauseNoResponse);
    err_append_cause(tvx::errors(), kCauseMicroCode);
    return qualify(kOp, "hardware not responding");
  }
  return TRUE;
}

BOOL cs71_wait_complete(HANDLE controller, INT16 low, INT16 high) {
  static const char *const kOp = "cs71_wait_complete";
  Target t(controller, kOp);
  if (!t) return qualify(kOp);
  if (!csp_message_in(t.packets) || !csp_expected2(t.packets, CS71_COMPLETE, low, high)) {
    qualify(kOp, "failed to complete");
    err_append_cause(tvx::errors(), kCauseNoResponse);
    return FALSE;
  }
  return TRUE;
}

BOOL cs71_req5(HANDLE controller, INT16 control, INT16 count, INT16 low, INT16 high) {
  static const char *const kOp = "cs71_req5";
  Target t(controller, kOp);
  if (!t || !cs71_responding(controller) ||
      !csp_message_out(t.packets, t.camera_id, control, count) ||
      !cs71_wait_complete(controller, low, high))
    return qualify(kOp);
  return TRUE;
}

BOOL cs71_wait_while_active(HANDLE controller, const char *prefix, INT16 progress_low,
                            INT16 progress_high, INT16 final_low, INT16 final_high) {
  static const char *const kOp = "cs71_wait_while_active";
  Target t(controller, kOp);
  if (!t) return qualify(kOp);
  PrefixedReport info(prefix);
  // A controller that reports progress and never finishes is stuck: each stage may last as long
  // as the adapter waits for a reply.
  const DWORD limit = stage_limit(t.packets);
  int stage = 0;
  DWORD stage_began = time_centiseconds();
  // A controller that stops at stage 9 has no head to initialise.
  const auto failed_at_stage = [&stage] {
    if (stage == 9) err_append_cause(tvx::errors(), kCauseStage9);
    return FALSE;
  };
  for (;;) {
    if (!csp_message_in(t.packets) || !csp_expect_destination(t.packets)) {
      qualify(kOp, "hardware inactive at stage %d", stage);
      return failed_at_stage();
    }
    INT16 control = 0;
    csp_get_control(t.packets, &control);
    if (control == CS71_COMPLETE) break;
    if (control != CS71_PROGRESS_CHAR && control != CS71_PROGRESS_STAGE) {
      csp_expect_control(t.packets, CS71_COMPLETE);  // says which control came instead
      return qualify(kOp);
    }
    if (!csp_expect_n_params(t.packets, progress_low, progress_high)) return qualify(kOp);
    INT16 count = 0, value = 0;
    csp_get_params_size(t.packets, &count);
    if (count >= 1 && csp_get_msg_param(t.packets, 0, &value)) {
      if (control == CS71_PROGRESS_CHAR) {
        report_send(info.get(), "%c", static_cast<char>(value));
      } else {
        if (value != stage) stage_began = time_centiseconds();
        stage = value;
        report_send(info.get(), ".%d", stage);
      }
    }
    if (time_centiseconds() - stage_began > limit) {
      fail(ERR_TIMEOUT, 0, kOp, {kCauseNoResponse}, "still at stage %d after %lu centiseconds.",
           stage, static_cast<unsigned long>(limit));
      return failed_at_stage();
    }
  }
  return csp_expect_n_params(t.packets, final_low, final_high) ? TRUE : qualify(kOp);
}

// ---- Programs --------------------------------------------------------------------------------

BOOL cs71_load(HANDLE controller, const char *, INT32) {
  cs71 *r = cs71_handle_lock_check(controller, "cs71_load");
  if (r == nullptr) return qualify("cs71_load");
  handle_unlock(controller, "cs71_load");
  return TRUE;
}

BOOL cs71_execute(HANDLE controller, INT32) {
  cs71 *r = cs71_handle_lock_check(controller, "cs71_execute");
  if (r == nullptr) return qualify("cs71_execute");
  handle_unlock(controller, "cs71_execute");
  return fail(ERR_PROGRAMMER, 0, "cs71_execute", {}, "not implemented.");
}

}  // extern "C"
