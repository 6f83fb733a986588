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

/* Makes every port no device claims read as a floating bus (0xFFFF) and drop writes, even where
 * the system would grant real port I/O: a test never touches the machine's own ports. */
TVX_API void tvx_test_ports_floating(BOOL on);

/* The simulated AT-Link card and the controller behind it. Settings apply to cards already on
 * the bus as well as to new ones; tvx_test_simulator_reset powers every simulated card down and
 * restores the defaults below. */
enum {
  TVX_SIM_CARD_ABSENT = 0,      /* BOOL: no card in the slot; the ports float (FALSE) */
  TVX_SIM_POWER_OFF = 1,        /* BOOL: the camera is switched off; the link never answers */
  TVX_SIM_LOCAL_ERROR = 2,      /* BOOL: the card's transputer shows its error flag */
  TVX_SIM_DISTANT_ERROR = 3,    /* BOOL: the controller's transputer shows its error flag */
  TVX_SIM_CONTROLLER_SPEED = 4, /* link speed of the controller's end in Mbit/s (5) */
  TVX_SIM_DROP_AFTER = 5        /* words that cross the link before all later ones are lost;
                                   0 = none is lost (0) */
};
/* Fails for an unknown setting or a value it cannot take. */
TVX_API BOOL tvx_test_simulator_set(INT32 setting, INT32 value);
TVX_API void tvx_test_simulator_reset(void);

/* Faults of the simulated controller's camera server, spoiling the completion of every request
 * with the given control code (0: of every request) until cleared with TVX_CTL_FAULT_NONE or by
 * tvx_test_simulator_reset. */
enum {
  TVX_CTL_FAULT_NONE = 0,
  TVX_CTL_NO_REPLY = 1,          /* the request is carried out and nothing is answered */
  TVX_CTL_WRONG_CONTROL = 2,     /* the completion carries control 99 instead of 100 */
  TVX_CTL_WRONG_DESTINATION = 3, /* the completion is addressed to 7 */
  TVX_CTL_WRONG_COUNT = 4,       /* the completion carries one parameter too many */
  TVX_CTL_STALL_AT_STAGE_9 = 5,  /* hardware initialisation reports stage 9 and stops */
  TVX_CTL_BAD_STATE_VECTOR = 6,  /* droop and offset failed, no shutter hold data */
  TVX_CTL_ENDLESS_PROGRESS = 7   /* a long operation reports its last stage again every half
                                    second and never completes */
};
/* Fails for an unknown fault or a control code outside 0 .. 255. */
TVX_API BOOL tvx_test_controller_fault(INT32 fault, INT32 control);

/* The line definition ("COM2:9600,n,8,1") the last SerialOpen built the port's state from. */
TVX_API const char *tvx_test_serial_definition(void);

/* The simulated controller's readout stream, spoilt for the next readouts until cleared with
 * TVX_STREAM_FAULT_NONE or by tvx_test_simulator_reset. */
enum {
  TVX_STREAM_FAULT_NONE = 0,
  TVX_STREAM_BLOCK_SIZE = 1,   /* the first block announces `value` words and carries as many */
  TVX_STREAM_STOP_AFTER = 2,   /* the stream breaks off after `value` words, with no completion */
  TVX_STREAM_NO_COMPLETION = 3 /* every pixel is sent and the completion never is */
};
TVX_API BOOL tvx_test_stream_fault(INT32 fault, INT32 value);

/* What the simulated CCD looks at: the scenes of the SIMULATOR section, with their seed, and
 * whether the readout runs at the pixel rate. */
enum { TVX_SCENE_STARFIELD = 0, TVX_SCENE_COORDINATES = 1, TVX_SCENE_FLAT = 2, TVX_SCENE_DARK = 3 };
TVX_API BOOL tvx_test_simulator_scene(INT32 scene, INT32 seed, BOOL realtime);

/* Makes the simulated cooler fail: from the moment it is next set, the chip warms this many
 * kelvin a minute instead of holding its target; 0 holds it steady again (the default). */
TVX_API void tvx_test_cooler_drift(double kelvin_per_minute);

TVX_END_DECLS

#endif
