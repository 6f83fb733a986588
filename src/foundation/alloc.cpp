// Guarded blocks: a six-word header before the caller's bytes and a guard word after them, so that
// a lock or a free recognises foreign pointers, double frees and overruns. Handle blocks are
// relocatable and reached by locking; standard blocks are fixed and reached by their address.
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "foundation/alloc.h"
#include "foundation/fail.h"
#include "platform/platform.h"
#include "tvx/report.h"
#include "tvx/values.h"

namespace {

namespace platform = tvx::platform;

bool trace_on = false;
INT32 block_total = 0;
INT32 block_count = 0;
INT32 string_total = 0;
INT32 string_count = 0;

// The largest request a block can carry: its size, header and guard included, must fit the
// header's 32-bit size word and a signed total.
constexpr long long kLargestRequest = 0x7FFFFFFFLL - TVX_BLOCK_OVERHEAD;

void trace(const char *format, ...) __attribute__((format(printf, 1, 2)));
void trace(const char *format, ...) {
  if (!trace_on) return;
  char line[256];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof line, format, args);
  va_end(args);
  report *info = nullptr;
  report_where_is(REPORT_INFO, &info);
  report_send(info, "%s", line);
}

void trace_total(const char *what, INT32 total) {
  trace("\ttotal %smemory already allocated %ld k %ld bytes\n", what, long{total / 1024},
        long{total % 1024});
}

// A request of elements: false (with the error set) when it cannot be a block.
bool checked_request(const char *routine, INT32 numelements, INT32 elementsize, DWORD *size) {
  long long request = static_cast<long long>(numelements) * elementsize;
  if (numelements == 0 || elementsize == 0)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, routine, {}, "requested allocation is zero");
  if (request < 0 || request > kLargestRequest)
    return tvx::fail(ERR_OUT_OF_RANGE, 0, routine, {0x1051},
                     "requested allocation of %d elements of %d bytes is out of range", numelements,
                     elementsize);
  *size = static_cast<DWORD>(request) + TVX_BLOCK_OVERHEAD;
  return true;
}

// Allocates from the platform, compacting and trying once more when the heap says that helps.
DWORD platform_alloc(DWORD size, bool movable) {
  DWORD token = platform::block_alloc(size, movable);
  if (token == 0 && platform::block_compact(size) >= size)
    token = platform::block_alloc(size, movable);
  return token;
}

void write_header(memrec *rec, DWORD handle, DWORD size, INT32 memclass) {
  rec->sysmemid = TVX_BLOCK_MARK;
  rec->address = handle;
  rec->size = size;
  rec->count = 1;
  rec->guard_offset = size - 4;
  rec->memclass = memclass;
  DWORD mark = TVX_BLOCK_MARK;
  std::memcpy(reinterpret_cast<char *>(rec) + rec->guard_offset, &mark, sizeof mark);
}

bool guard_broken(const memrec *rec) {
  DWORD offset = tvx::guard_offset(rec);
  if (offset == 0) return true;
  DWORD mark = 0;
  std::memcpy(&mark, reinterpret_cast<const char *>(rec) + offset, sizeof mark);
  return mark != TVX_BLOCK_MARK;
}

const char *compared(bool equal) {
  return equal ? " == " : " != ";
}

}  // namespace

namespace tvx {

bool memory_trace() {
  return trace_on;
}
void set_memory_trace(bool on) {
  trace_on = on;
}

DWORD guard_offset(const memrec *rec) {
  size_t held = platform::block_size(platform::block_handle_of(rec));
  if (held < TVX_BLOCK_OVERHEAD || rec->size != held || rec->guard_offset != rec->size - 4)
    return 0;
  return rec->guard_offset;
}

}  // namespace tvx

extern "C" {

HANDLE handle_allocate(INT32 numelements, INT32 elementsize, INT32 memclass) {
  static const char *const kOp = "handle_allocate";
  trace("%s: numelements %ld, elementsize %ld\n", kOp, long{numelements}, long{elementsize});
  DWORD size = 0;
  if (!checked_request(kOp, numelements, elementsize, &size)) return nullptr;
  DWORD token = platform_alloc(size, true);
  if (token == 0) {
    tvx::fail(ERR_OS, errno, kOp, {0x1001, 0x1002}, "unable to continue");
    return nullptr;
  }
  auto *rec = static_cast<memrec *>(platform::block_lock(token));
  memrec_ctor(rec, platform::to_handle(token), size, memclass);
  account_allocate_block(rec);
  platform::block_unlock(token);
  return platform::to_handle(token);
}

void *standard_allocate(INT32 numelements, INT32 elementsize, INT32 memclass) {
  static const char *const kOp = "standard_allocate";
  if (numelements == 0 || elementsize == 0) tvx::require_failed(498, "alloc");
  trace("%s: numelements %ld, elementsize %ld\n", kOp, long{numelements}, long{elementsize});
  DWORD size = 0;
  if (!checked_request(kOp, numelements, elementsize, &size)) return nullptr;
  DWORD token = platform_alloc(size, false);
  if (token == 0) {
    tvx::fail(ERR_OS, errno, kOp, {0x1001, 0x1002}, "unable to continue");
    // Composed and let go unshown: the error above already tells the caller.
    char *note = tbuffer_new();
    std::snprintf(note, tbuffer_size(),
                  "Out of memory\n\t\trequest for %lu bytes (numelements %ld, elementsize %ld)",
                  static_cast<unsigned long>(size - TVX_BLOCK_OVERHEAD), long{numelements},
                  long{elementsize});
    tbuffer_delete(note);
    trace("%s: total memory already allocated %ld k\n", kOp, long{block_total / 1024});
    return nullptr;
  }
  auto *rec = static_cast<stringrec *>(platform::block_lock(token));
  std::memset(rec, 0, size);
  stringrec_ctor(rec, platform::to_handle(token), size, memclass);
  account_allocate_string(rec);
  return tvx::contents_of(rec);
}

INT32 memrec_ctor(memrec *rec, HANDLE handle, DWORD size, INT32 memclass) {
  write_header(rec, platform::to_token(handle), size, memclass);
  return 0;
}

INT32 stringrec_ctor(stringrec *rec, HANDLE handle, DWORD size, INT32 memclass) {
  write_header(rec, platform::to_token(handle), size, memclass);
  return 0;
}

BOOL memrec_valid(const memrec *rec, INT32 *memclass) {
  // Only a header at the start of a live block is read; anything else is invalid unread.
  DWORD own = platform::block_handle_of(rec);
  bool valid = own != 0 && rec->sysmemid == TVX_BLOCK_MARK && rec->address == own;
  *memclass = valid ? rec->memclass : 0;
  if (!valid) {
    memrec blank{};
    const memrec &r = own != 0 ? *rec : blank;
    report *warning = nullptr;
    report_where_is(REPORT_WARNING, &warning);
    report_send(
        warning,
        "%s: rec sysmemid %lx%s%lx, rec address %lx%s%lx rec count %ld%s%ld rec class %ld\n",
        "memrec_valid", static_cast<unsigned long>(r.sysmemid),
        compared(r.sysmemid == TVX_BLOCK_MARK), static_cast<unsigned long>(TVX_BLOCK_MARK),
        static_cast<unsigned long>(r.address), compared(r.address == own),
        static_cast<unsigned long>(own), static_cast<long>(r.count),
        r.count < 1 ? " < " : " >= ", 1L, static_cast<long>(r.memclass));
  }
  return valid;
}

BOOL stringrec_valid(const stringrec *rec, INT32 *memclass) {
  DWORD own = platform::block_handle_of(rec);
  bool valid =
      own != 0 && rec->sysmemid == TVX_BLOCK_MARK && rec->count >= 1 && rec->address == own;
  *memclass = valid ? rec->memclass : 0;
  return valid;
}

BOOL memrec_overrun(const memrec *rec, INT32 *memclass) {
  *memclass = rec->memclass;
  bool broken = guard_broken(rec);
  if (broken) {
    report *warning = nullptr;
    report_where_is(REPORT_WARNING, &warning);
    report_send(warning, "%s: rec sysmemid %lx, rec address %lx rec count %ld rec class %ld\n",
                "memrec_overrun", static_cast<unsigned long>(rec->sysmemid),
                static_cast<unsigned long>(rec->address), static_cast<long>(rec->count),
                static_cast<long>(rec->memclass));
  }
  return broken;
}

BOOL stringrec_overrun(const stringrec *rec, INT32 *memclass) {
  *memclass = rec->memclass;
  return guard_broken(rec);
}

void memrec_print(const memrec *rec, FILE *stream) {
  std::fprintf(stream, "memrec(class %ld, size %ld, count %ld)", long{rec->memclass},
               static_cast<long>(rec->size), static_cast<long>(rec->count));
}

void stringrec_print(const stringrec *rec, FILE *stream) {
  std::fprintf(stream, "stringrec(class %ld, size %ld, count %ld)", long{rec->memclass},
               static_cast<long>(rec->size), static_cast<long>(rec->count));
}

void account_allocate_block(const memrec *rec) {
  block_total += static_cast<INT32>(rec->size);
  ++block_count;
  trace("%s: %ld allocations: request is %lu, allocation is %lu\n", "account_allocate_block",
        long{block_count}, static_cast<unsigned long>(rec->size - TVX_BLOCK_OVERHEAD),
        static_cast<unsigned long>(rec->size));
  trace_total("", block_total);
}

void account_free_block(const memrec *rec) {
  block_total -= static_cast<INT32>(rec->size);
  --block_count;
  trace("%s: %ld allocations: freeing %lu bytes (request size %lu)\n", "account_free_block",
        long{block_count}, static_cast<unsigned long>(rec->size),
        static_cast<unsigned long>(rec->size - TVX_BLOCK_OVERHEAD));
  trace_total("", block_total);
}

// String blocks count their header twice; the figures that applications and logs show have
// always been reckoned so.
void account_allocate_string(const stringrec *rec) {
  string_total += static_cast<INT32>(rec->size + TVX_BLOCK_OVERHEAD);
  ++string_count;
  trace("%s: %ld strings: request is %lu, allocation is %lu\n", "account_allocate_string",
        long{string_count}, static_cast<unsigned long>(rec->size),
        static_cast<unsigned long>(rec->size + TVX_BLOCK_OVERHEAD));
  trace_total("string ", string_total);
}

void account_free_string(const stringrec *rec) {
  string_total -= static_cast<INT32>(rec->size + TVX_BLOCK_OVERHEAD);
  --string_count;
  trace("%s: %ld strings: freeing %lu bytes (request size %lu)\n", "account_free_string",
        long{string_count}, static_cast<unsigned long>(rec->size + TVX_BLOCK_OVERHEAD),
        static_cast<unsigned long>(rec->size));
  trace_total("string ", string_total);
}

INT32 total_allocated(void) {
  return block_total;
}
INT32 number_of_allocations(void) {
  return block_count;
}
INT32 total_string_allocated(void) {
  return string_total;
}
INT32 number_of_strings(void) {
  return string_count;
}

char *string_duplicate(const char *text) {
  static const char *const kOp = "string_duplicate";
  if (text == nullptr) {
    tvx::fail(ERR_NO_DATA, 0, kOp, {0x1040}, "no text to duplicate.");
    return nullptr;
  }
  size_t length = std::strlen(text);
  if (length >= static_cast<size_t>(kLargestRequest)) {
    tvx::fail(ERR_OUT_OF_RANGE, 0, kOp, {0x1042}, "text too long to duplicate.");
    return nullptr;
  }
  auto *copy = static_cast<char *>(standard_allocate(static_cast<INT32>(length + 1), 1, MEM_NAME));
  if (copy == nullptr) {
    tvx::qualify(kOp, "while duplicating a text of %zu characters.", length);
    return nullptr;
  }
  std::memcpy(copy, text, length + 1);
  return copy;
}

char *make_str(const char *format, ...) {
  static char result[4096];
  va_list args;
  va_start(args, format);
  std::vsnprintf(result, sizeof result, format, args);
  va_end(args);
  return result;
}

}  // extern "C"
