/* Controls for tests: a virtual clock, allocation-failure injection, moving blocks and the
 * memory trace. Applications may use them in their own tests; nothing in normal operation does. */
#ifndef TVX_TESTING_H
#define TVX_TESTING_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* Switches time_centiseconds to a virtual clock that stands still until it is set or advanced,
 * starting from the given value. Delays jump the virtual clock forward instead of waiting, so a
 * ten-second exposure takes no real time. */
TVX_API void tvx_test_clock_virtual(DWORD start);
/* Returns to the real monotonic clock. */
TVX_API void tvx_test_clock_real(void);
TVX_API BOOL tvx_test_clock_is_virtual(void);
TVX_API void tvx_test_clock_set(DWORD centiseconds);
TVX_API void tvx_test_clock_advance(DWORD centiseconds);
/* Each read of the virtual clock advances it by this many centiseconds afterwards (0 by
 * default), so that a poll waiting on a device that never answers still reaches its time-out. */
TVX_API void tvx_test_clock_step(DWORD centiseconds_per_read);

/* Makes the nth platform allocation from now fail (1 = the next one); with persistent set, every
 * allocation after it fails too. 0 switches injection off. */
TVX_API void tvx_test_fail_allocation(INT32 nth, BOOL persistent);
/* How many allocations injection has failed since it was last set. */
TVX_API INT32 tvx_test_injected_failures(void);

/* When on, a relocatable block really moves to a new address each time its last lock is
 * released, and the old address is poisoned: code that keeps a pointer past its unlock reads
 * garbage at once instead of working by luck. */
TVX_API void tvx_test_moving_blocks(BOOL on);

/* Switches the memory trace messages to the information report on or off. */
TVX_API void tvx_test_memory_trace(BOOL on);

/* Live platform blocks, of every kind (handle and standard blocks, error records, tvx_allocate). */
TVX_API INT32 tvx_test_platform_blocks(void);

TVX_END_DECLS

#endif
