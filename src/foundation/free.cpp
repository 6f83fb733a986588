// Freeing guarded blocks. Every check that fails here is a programming fault (a foreign pointer, a
// double free, a free of a locked block, an overrun) and ends the process with its assertion.
#include <cstdint>
#include <cstdio>

#include "foundation/alloc.h"
#include "platform/platform.h"
#include "tvx/report.h"

namespace {

namespace platform = tvx::platform;

struct FreeCheck {
  const char *first_line;
  bool shows_header;
};
constexpr FreeCheck kNotAllocated{"freeing bytes of memory not allocated by %s function\n", true};
constexpr FreeCheck kAlreadyFreed{"freeing bytes of memory already deallocated\n", true};
constexpr FreeCheck kStillLocked{"freeing bytes of memory that are still locked\n", true};
constexpr FreeCheck kOverrun{"freeing memory that has been used beyond its allocation\n", false};

[[noreturn]] void assertion_failed(int line, const char *caller, INT32 memclass) {
  char message[256];
  std::snprintf(message, sizeof message,
                "Require assertion failed at line %d in file %s\nCalled by %s. Memory class %ld\n",
                line, "free", caller != nullptr ? caller : "(null)", long{memclass});
  platform::fatal_exit(message);
}

// Reports the failed check to the warning report and ends the process. `rec` is NULL when the
// header cannot be read at all.
[[noreturn]] void free_failed(const FreeCheck &check, const char *operation, const memrec *rec,
                              DWORD own, int line, const char *caller, INT32 memclass) {
  report *warning = nullptr;
  report_where_is(REPORT_WARNING, &warning);
  report_send(warning, check.first_line, operation);
  if (check.shows_header) {
    memrec blank{};
    const memrec &r = rec != nullptr ? *rec : blank;
    report_send(warning, "id is %lx (%lx), address is %lx (%lx), count is %ld\n",
                static_cast<unsigned long>(r.sysmemid), static_cast<unsigned long>(TVX_BLOCK_MARK),
                static_cast<unsigned long>(r.address), static_cast<unsigned long>(own),
                static_cast<long>(r.count));
  }
  assertion_failed(line, caller, memclass);
}

}  // namespace

extern "C" {

void handle_free(HANDLE handle, const char *caller) {
  static const char *const kOp = "handle_free";
  DWORD token = platform::to_token(handle);
  auto *rec = static_cast<memrec *>(platform::block_lock(token));
  if (rec == nullptr) {
    if (platform::block_was_freed(token))
      free_failed(kAlreadyFreed, kOp, nullptr, token, 219, caller, 0);
    free_failed(kNotAllocated, kOp, nullptr, token, 209, caller, 0);
  }
  INT32 memclass = 0;
  if (!memrec_valid(rec, &memclass)) free_failed(kNotAllocated, kOp, rec, token, 209, caller, 0);
  if (rec->count < 1) free_failed(kAlreadyFreed, kOp, rec, token, 219, caller, memclass);
  if (rec->count > 1) free_failed(kStillLocked, kOp, rec, token, 229, caller, memclass);
  if (memrec_overrun(rec, &memclass)) free_failed(kOverrun, kOp, rec, token, 236, caller, memclass);
  rec->count = 0;
  account_free_block(rec);
  platform::block_unlock(token);
  platform::block_free(token);
}

void standard_free(void *pointer, const char *caller) {
  static const char *const kOp = "standard_free";
  if (pointer == nullptr) assertion_failed(305, caller, 0);
  // Worked out as a number: a foreign pointer is never read through.
  auto *rec =
      reinterpret_cast<stringrec *>(reinterpret_cast<uintptr_t>(pointer) - TVX_BLOCK_HEADER);
  DWORD token = platform::block_handle_of(rec);
  if (token == 0) {
    DWORD freed = platform::block_freed_handle_of(rec);
    if (freed != 0) free_failed(kAlreadyFreed, kOp, nullptr, freed, 335, caller, 0);
    free_failed(kNotAllocated, kOp, nullptr, 0, 325, caller, 0);
  }
  INT32 memclass = 0;
  if (!stringrec_valid(rec, &memclass)) free_failed(kNotAllocated, kOp, rec, token, 325, caller, 0);
  if (rec->count != 1) free_failed(kAlreadyFreed, kOp, rec, token, 335, caller, memclass);
  if (stringrec_overrun(rec, &memclass))
    free_failed(kOverrun, kOp, rec, token, 342, caller, memclass);
  rec->count = 0;
  account_free_string(rec);
  platform::block_unlock(token);
  platform::block_free(token);
}

}  // extern "C"
