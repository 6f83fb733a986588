// Locking and unlocking handle blocks. A lock that meets a bad handle reports it on the error
// stack and returns NULL; an unlock that meets a broken header ends the process, because the
// caller already worked on memory it believed was sound.
#include <cstdio>

#include "foundation/alloc.h"
#include "foundation/fail.h"
#include "platform/platform.h"

namespace {

namespace platform = tvx::platform;

constexpr INT32 kProgrammerError = 0x1040;

[[noreturn]] void unlock_failed(const char *what, const char *caller, INT32 memclass) {
  char message[256];
  std::snprintf(message, sizeof message,
                "Checkpointer assertion failure (%s) at line %d in file %s\nCalled by %s. Memory "
                "class %ld\n",
                what, 83, "unlock", caller != nullptr ? caller : "(null)", long{memclass});
  platform::fatal_exit(message);
}

}  // namespace

extern "C" {

void *handle_lock(HANDLE handle, const char *) {
  static const char *const kOp = "handle_lock";
  DWORD token = platform::to_token(handle);
  if (handle == nullptr || platform::block_size(token) == 0) {
    tvx::fail(ERR_NO_DATA, 0, kOp, {kProgrammerError}, "invalid memory handle.");
    return nullptr;
  }
  auto *rec = static_cast<memrec *>(platform::block_lock(token));
  INT32 memclass = 0;
  if (!memrec_valid(rec, &memclass)) {
    platform::block_unlock(token);
    tvx::fail(ERR_INCONSISTENT, 0, kOp, {kProgrammerError}, "invalid memory handle. class code %ld",
              0L);
    return nullptr;
  }
  if (memrec_overrun(rec, &memclass)) {
    platform::block_unlock(token);
    tvx::fail(ERR_INCONSISTENT, 0, kOp, {kProgrammerError}, "memory overrun. class code %ld",
              long{memclass});
    return nullptr;
  }
  ++rec->count;
  return tvx::contents_of(rec);
}

void handle_unlock(HANDLE handle, const char *caller) {
  DWORD token = platform::to_token(handle);
  if (handle == nullptr || platform::block_size(token) == 0) return;
  auto *rec = static_cast<memrec *>(platform::block_lock(token));
  INT32 memclass = 0;
  if (!memrec_valid(rec, &memclass)) unlock_failed("invalid pointer", caller, memclass);
  if (memrec_overrun(rec, &memclass)) unlock_failed("overrun", caller, memclass);
  if (rec->count > 1) --rec->count;
  // This call's own lock, and the one its matching handle_lock left in place.
  platform::block_unlock(token);
  platform::block_unlock(token);
}

}  // extern "C"
