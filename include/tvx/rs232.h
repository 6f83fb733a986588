/* The serial transport: bytes, and 16-bit word blocks each answered by one acknowledgement byte,
 * over a serial port. The four 16-bit operations have the shape of a packet object's transfer
 * functions, so a csp runs over a serial line as it runs over the AT-Link. Below them, five thin
 * calls on the port itself. */
#ifndef TVX_RS232_H
#define TVX_RS232_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* The byte the receiver of a block of 16-bit words sends back. */
#define RS232_ACK 255
/* The line and the time-out every rs232 object starts with. */
#define RS232_SETTINGS "9600,n,8,1"
#define RS232_TIMEOUT_MS 1000

typedef struct rs232 {
  BYTE verbose;
  INT32 port; /* the open serial port; -1 when closed */
  INT32 reserved;
} rs232;

/* Parity of a port's line state. */
enum {
  SERIAL_NO_PARITY = 0,
  SERIAL_ODD_PARITY = 1,
  SERIAL_EVEN_PARITY = 2,
  SERIAL_MARK_PARITY = 3,
  SERIAL_SPACE_PARITY = 4
};
/* Stop bits of a port's line state. */
enum { SERIAL_ONE_STOP_BIT = 0, SERIAL_ONE5_STOP_BITS = 1, SERIAL_TWO_STOP_BITS = 2 };

/* A port's line state, and the text it was last built from ("COM2:9600,n,8,1"). */
typedef struct serial_dcb {
  DWORD baud_rate;
  BYTE byte_size;
  BYTE parity;
  BYTE stop_bits;
  char definition[64];
} serial_dcb;

/* Opens the device of "COM1" (whatever the port name: the name is used only in the line's
 * definition text), applies `settings` ("9600,n,8,1": baud, parity n/o/e/m/s, data bits 5-8,
 * stop bits 1, 1.5 or 2), purges both directions. *port is -1 on failure. */
TVX_API BOOL SerialOpen(const char *port_name, const char *settings, serial_dcb *dcb, INT32 *port);
TVX_API BOOL SerialClose(INT32 port);
/* One transfer of `count` bytes within the port's time-outs. */
TVX_API BOOL SerialRead(INT32 port, void *buffer, INT32 count);
TVX_API BOOL SerialWrite(INT32 port, const void *buffer, INT32 count);
/* Sets the whole-read and whole-write time-outs of the port, in milliseconds; returns the value
 * the previous call set (0 before any). */
TVX_API INT32 SetSerialTimeOut(INT32 port, INT32 milliseconds);

/* The device a port name opens: /dev/ttyS0 for "COM1", /dev/ttyS1 for "COM2" and so on, unless
 * mapped here to another device (a USB adapter, a pseudo-terminal); a NULL or empty device
 * restores the default. */
TVX_API BOOL SerialMapPort(const char *port_name, const char *device);
/* Writes the device the port name stands for into `path` (room bytes). */
TVX_API BOOL SerialPortDevice(const char *port_name, char *path, INT32 room);

TVX_API HANDLE rs232_new(INT32 reserved, INT32 port_index);
/* Opens "COM<index + 1>" (at least COM1) at 9600,n,8,1 with the 1000 ms time-out. */
TVX_API BOOL rs232_ctor(HANDLE line, INT32 reserved, INT32 port_index);
TVX_API BOOL rs232_dtor(HANDLE line);
TVX_API BOOL rs232_delete(HANDLE line);
TVX_API BOOL rs232_print(HANDLE line, FILE *stream);
TVX_API BOOL rs232_verbose(HANDLE line);
TVX_API BOOL rs232_set_verbose(HANDLE line, BOOL verbose);
TVX_API BOOL rs232_init(HANDLE line);

/* Bytes carry no acknowledgement. */
TVX_API BOOL rs232_read_BYTE_array(HANDLE line, BYTE *bytes, INT16 count);
TVX_API BOOL rs232_write_BYTE_array(HANDLE line, const BYTE *bytes, INT16 count);
TVX_API BOOL rs232_read_BYTE(HANDLE line, BYTE *byte);
TVX_API BOOL rs232_write_BYTE(HANDLE line, BYTE byte);

/* Words travel least significant byte first; each block is acknowledged by its receiver. */
TVX_API BOOL rs232_read_INT16_array(HANDLE line, INT16 *values, INT16 count);
TVX_API BOOL rs232_write_INT16_array(HANDLE line, const INT16 *values, INT16 count);
TVX_API BOOL rs232_read_INT16(HANDLE line, INT16 *value);
TVX_API BOOL rs232_write_INT16(HANDLE line, INT16 value);

TVX_END_DECLS

#endif
