// Booting the controller over the adapter, in two stages: the card's own transputer runs the
// initialisation blocks one at a time, each after a reset, and then the controller's transputer
// takes the boot file as a plain byte stream.
#include <cerrno>
#include <cstdio>
#include <initializer_list>

#include "foundation/fail.h"
#include "foundation/locked.h"
#include "foundation/wait.h"
#include "link/link.h"
#include "tvx/atlink.h"
#include "tvx/memory.h"
#include "tvx/report.h"

namespace {

using Rec = tvx::Locked<atlink>;
using tvx::fail;
using tvx::qualify;

constexpr INT16 kMaxBlock = 30;
constexpr INT16 kEndOfFile = 0;
constexpr INT16 kEndOfFileToo = 31;
constexpr DWORD kBlockRunTime = 5;
constexpr DWORD kControllerResetTime = 100;
constexpr size_t kByteChunk = 8192;
constexpr size_t kWordChunk = 512;
constexpr INT32 kCauseInitFile = 0x3004;

// A file that is closed however the operation ends.
struct File {
  FILE *f;
  explicit File(const char *path) : f(path != nullptr ? std::fopen(path, "rb") : nullptr) {}
  ~File() {
    if (f != nullptr) std::fclose(f);
  }
  File(const File &) = delete;
  File &operator=(const File &) = delete;
};

// A standard block that is freed however the operation ends.
struct Buffer {
  void *p;
  const char *caller;
  Buffer(INT32 count, INT32 size, const char *who)
      : p(standard_allocate(count, size, MEM_PLAIN)), caller(who) {}
  ~Buffer() {
    if (p != nullptr) standard_free(p, caller);
  }
  Buffer(const Buffer &) = delete;
  Buffer &operator=(const Buffer &) = delete;
};

// The one shape of a file that cannot be opened: the system's error number as the code.
bool open_failed(const char *routine, std::initializer_list<INT32> causes, const char *format,
                 const char *path) {
  const int number = path != nullptr ? errno : EINVAL;
  return fail(ERR_OS, number, routine, causes, format, path != nullptr ? path : "(null)");
}

bool bad_atlinit(const char *what) {
  return fail(ERR_OUT_OF_RANGE, 0, "atlink_copy_block", {kCauseInitFile}, "bad atlinit file: %s",
              what);
}

bool read_size(FILE *file, INT16 *size) {
  return std::fread(size, sizeof *size, 1, file) == 1;
}

bool print_status(HANDLE link, const char *step, long block) {
  char label[64];
  std::snprintf(label, sizeof label, "block %ld. status %s", block, step);
  return atlink_print_status(link, label) != FALSE;
}

}  // namespace

extern "C" {

BOOL atlink_boot(HANDLE link, const char *atlinit_file, const char *boot_file) {
  static const char *const kOp = "atlink_boot";
  if (!atlink_atlinit(link, atlinit_file) || !atlink_distant_transputer_reset(link))
    return qualify(kOp, "unable to boot camera");
  tvx::settle_for(kControllerResetTime);
  if (!atlink_copy(link, boot_file)) return qualify(kOp, "unable to boot camera");
  Rec rec(link, kOp);
  if (!rec) return qualify(kOp, "unable to boot camera");
  BYTE &boots = tvx::link::boot_counter();
  ++boots;
  rec->boot_number = boots;
  return TRUE;
}

BOOL atlink_boot_once(HANDLE link, const char *atlinit_file, const char *boot_file) {
  static const char *const kOp = "atlink_boot_once";
  {
    Rec rec(link, kOp);
    if (!rec) return qualify(kOp);
    if (rec->boot_number != 0) return TRUE;
  }
  return atlink_boot(link, atlinit_file, boot_file) ? TRUE : qualify(kOp);
}

BOOL atlink_atlinit(HANDLE link, const char *atlinit_file) {
  if (!atlink_boot_from_rom(link) || !atlink_copy_init(link, atlinit_file))
    return qualify("atlink_atlinit", "failed to initialise the AT-Link");
  return TRUE;
}

BOOL atlink_copy_init(HANDLE link, const char *file) {
  static const char *const kOp = "atlink_copy_init";
  File in(file);
  if (in.f == nullptr) return open_failed(kOp, {0x3003, 0x3001}, "initialisation file '%s'.", file);
  return atlink_copy_block(link, in.f) ? TRUE : qualify(kOp);
}

BOOL atlink_copy_block(HANDLE link, FILE *file) {
  static const char *const kOp = "atlink_copy_block";
  Rec rec(link, kOp);
  if (!rec) return qualify(kOp);
  long block = 1;
  INT16 size = 0;
  if (!read_size(file, &size)) return bad_atlinit("no block size");
  while (size >= 1 && size <= kMaxBlock) {
    WORD words[kMaxBlock];
    // The card's transputer is held in reset while its block goes in, and runs it when let go.
    if (!print_status(link, "before reset", block) || !atlink_transputer_reset_low(link) ||
        !atlink_fifo_reset(link))
      return qualify(kOp, "during block %ld.", block);
    if (std::fread(words, sizeof words[0], static_cast<size_t>(size), file) !=
        static_cast<size_t>(size))
      return bad_atlinit("not enough data");
    if (!print_status(link, "before write and execute", block) ||
        !atlink_write_WORD_array(link, words, size) || !atlink_transputer_reset_high(link))
      return qualify(kOp, "during block %ld.", block);
    tvx::settle_for(kBlockRunTime);
    if (!print_status(link, "after execute", block) || !atlink_check_status(link))
      return qualify(kOp, "during block %ld.", block);
    ++block;
    if (!read_size(file, &size)) return bad_atlinit("no block size");
  }
  if (size != kEndOfFile && size != kEndOfFileToo) return bad_atlinit("invalid block size");
  return atlink_check_status(link) ? TRUE : qualify(kOp);
}

BOOL atlink_copy(HANDLE link, const char *file) {
  static const char *const kOp = "atlink_copy";
  File in(file);
  if (in.f == nullptr) return open_failed(kOp, {}, "byte stream file '%s'", file);
  Buffer buffer(static_cast<INT32>(kByteChunk), 1, kOp);
  if (buffer.p == nullptr) return qualify(kOp);
  auto *bytes = static_cast<BYTE *>(buffer.p);
  size_t got = 0;
  while ((got = std::fread(bytes, 1, kByteChunk, in.f)) > 0)
    if (!atlink_write_BYTE_array(link, bytes, static_cast<INT16>(got))) return qualify(kOp);
  return TRUE;
}

BOOL atlink_copy_WORD(HANDLE link, const char *file) {
  static const char *const kOp = "atlink_copy_WORD";
  File in(file);
  if (in.f == nullptr) return open_failed(kOp, {}, "byte stream file %s", file);
  Buffer buffer(static_cast<INT32>(kWordChunk), sizeof(WORD), kOp);
  if (buffer.p == nullptr) return qualify(kOp);
  auto *words = static_cast<WORD *>(buffer.p);
  size_t got = 0;
  while ((got = std::fread(words, sizeof(WORD), kWordChunk, in.f)) > 0)
    if (!atlink_write_WORD_array(link, words, static_cast<INT16>(got))) return qualify(kOp);
  return TRUE;
}

}  // extern "C"
