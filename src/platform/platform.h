// What the host provides to the rest of the library: memory blocks, the clock, the log file, the
// fatal exit, the serial line and the library's own identity. Nothing outside src/platform knows
// it runs on Linux.
#pragma once

#include <cstddef>
#include <cstdint>

#include "tvx/types.h"

namespace tvx::platform {

// ---- Memory blocks -------------------------------------------------------------------------
// Every block is reached through a 32-bit token: a slot of the library's own table and the
// slot's generation. A token whose block was freed, or that was never handed out, is refused by
// every call below; none of them dereferences anything on its behalf.

// Zero-filled block of `size` bytes; a movable block may change address while unlocked.
// Returns 0 when memory is exhausted (or a failure was injected).
DWORD block_alloc(size_t size, bool movable);
// Address of the block, counting one lock; nullptr for a token that names no live block.
void *block_lock(DWORD token);
// Releases one lock; false when the block was not locked or the token is not live.
bool block_unlock(DWORD token);
// Frees a live block; false for a token that names no live block.
bool block_free(DWORD token);
// Size of a live block; 0 for any other token.
size_t block_size(DWORD token);
// Token of the live block that starts at `address`; 0 when no live block starts there.
DWORD block_handle_of(const void *address);
// True when the token names a block that has been freed (and its slot not yet reused).
bool block_was_freed(DWORD token);
// Token of the freed block that started at `address`, while the table still remembers it.
DWORD block_freed_handle_of(const void *address);
// Largest block the heap could give after compaction. The host heap cannot be compacted, so
// after a failed allocation this reports that nothing larger is to be had.
size_t block_compact(size_t wanted);
// Live blocks of every kind.
size_t block_count();

void block_fail_nth(long nth, bool persistent);
long block_injected_failures();
void block_moving(bool on);

inline HANDLE to_handle(DWORD token) {
  return reinterpret_cast<HANDLE>(uintptr_t{token});
}
// A HANDLE wider than 32 bits cannot be one of ours; it maps to the token 0, which names nothing.
inline DWORD to_token(HANDLE handle) {
  auto value = reinterpret_cast<uintptr_t>(handle);
  return value > UINT32_MAX ? 0 : static_cast<DWORD>(value);
}

// ---- Clock ---------------------------------------------------------------------------------
DWORD clock_centiseconds();
void clock_virtual(DWORD start);
void clock_real();
bool clock_is_virtual();
void clock_set(DWORD centiseconds);
void clock_advance(DWORD centiseconds);
void clock_step(DWORD per_read);

// ---- Waiting -------------------------------------------------------------------------------
// How the library's waits let time pass between two looks at what they wait for: nothing above
// the platform sleeps by itself. On the virtual clock each pause lets one centisecond pass
// instead, so that every wait reaches its end in a test without real time.

// A wait for the centisecond clock to read `deadline`: sleeps toward it, for a centisecond at most
// so that the caller looks for an abort that often, and spins through the last moments so that the
// wait ends as the clock turns. Returns at once when the clock has got there.
void clock_rest(DWORD deadline);

// The pauses of one wait for a device, between polls that found nothing: spinning while an answer
// may come any moment, then, once the device has kept silent for a while, sleeps that grow with
// the silence up to a millisecond, so that a device that answers late is still heard at once
// against the time it took.
class PollPauses {
 public:
  void pause();

 private:
  uint64_t silent_since_ = 0;  // nanoseconds on the monotonic clock; 0 before the first pause
};

// ---- Log file ------------------------------------------------------------------------------
// Creates (or empties) `name` in the current directory and stores its full path in `path`.
bool log_create(const char *name, char *path, size_t room);
// Opens the file at `path` for writing at its start, writes `length` bytes of `text`, then
// "\r\n" when asked, and closes it.
bool log_write(const char *path, const char *text, size_t length, bool crlf);

// ---- Fatal exit ----------------------------------------------------------------------------
// Shows the message on stderr and in the log, then ends the process abnormally.
[[noreturn]] void fatal_exit(const char *message);

// ---- Serial line ---------------------------------------------------------------------------
// A serial device is a file descriptor of a terminal. Every call that can fail returns a negative
// value on failure, as the callers above test it.

// The line as the device holds it. Parity is one of 'n', 'o', 'e', 'm', 's'; stop_bits is 1, 2,
// or 3 for one and a half.
struct SerialLine {
  DWORD baud;
  int data_bits;
  char parity;
  int stop_bits;
};
// How long a whole transfer may take, in milliseconds: multiplier per byte plus constant; the
// interval limits the gap between two bytes of a read (0: no limit). A total of 0 does not wait
// at all, so no transfer waits without bound.
struct SerialTimeouts {
  DWORD read_interval, read_multiplier, read_constant;
  DWORD write_multiplier, write_constant;
};

// The device a port name ("COM1") stands for: set by serial_map, else /dev/ttyS<n-1> for COM<n>;
// empty when the name is not a port name and was never mapped.
bool serial_device(const char *name, char *path, size_t room);
// Maps a port name to a device path; a null or empty path restores the default.
bool serial_map(const char *name, const char *path);
// Opens the device for reading and writing, held by this process alone, without waiting for a
// carrier. On failure returns -1 and says whether there is no such device at all.
int serial_open(const char *path, bool *missing);
int serial_get_line(int port, SerialLine *line);
int serial_set_line(int port, const SerialLine &line);
int serial_get_timeouts(int port, SerialTimeouts *timeouts);
int serial_set_timeouts(int port, const SerialTimeouts &timeouts);
// Discards what waits in either direction.
int serial_purge(int port);
// Lets what was written leave, discards what waits to be read, and closes.
int serial_close(int port);
// One transfer of up to `count` bytes within the port's time-outs: the bytes moved, or -1 when
// the device failed.
long serial_read(int port, void *buffer, size_t count);
long serial_write(int port, const void *buffer, size_t count);

// ---- Identity ------------------------------------------------------------------------------
HANDLE module_handle();
// Full path of the shared object (or program) that holds the library.
const char *module_path();
struct Version {
  int major, minor, patch, build;
};
Version file_version();
Version product_version();

}  // namespace tvx::platform
