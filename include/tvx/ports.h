/* The port bus: 16-bit port reads and writes, and the devices that answer on a range of ports.
 * A port no device claims goes to the machine's own port I/O where the system grants it, and
 * otherwise reads as a floating bus (0xFFFF) and drops what is written, as an empty ISA slot
 * does. Port 0x40, the PC interval timer's channel 0 counter, is always answered from the
 * monotonic clock at 1.193182 MHz. */
#ifndef TVX_PORTS_H
#define TVX_PORTS_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* What a floating bus reads. */
#define PORT_FLOATING_BUS 0xFFFFu
/* The interval timer's channel 0 counter. */
#define PORT_INTERVAL_TIMER 0x40u

/* A device's answer to a read of one of its ports, and its take of a write. */
typedef WORD (*port_read_fn)(void *context, WORD port);
typedef void (*port_write_fn)(void *context, WORD port, WORD value);

TVX_API WORD port_in16(WORD port);
TVX_API void port_out16(WORD port, WORD value);

/* Hands the ports first .. first + count - 1 to a device. Fails, with the reason on the error
 * stack, when the range is empty, runs past the last port, or meets a port already claimed. */
TVX_API BOOL port_attach(WORD first, WORD count, port_read_fn read, port_write_fn write,
                         void *context);
/* Takes the device whose range starts at `first` off the bus. Fails when none starts there. */
TVX_API BOOL port_detach(WORD first);
/* True when a device answers on the port. */
TVX_API BOOL port_claimed(WORD port);

TVX_END_DECLS

#endif
