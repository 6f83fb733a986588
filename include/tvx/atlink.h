/* The AT-Link adapter: its three ports, resets, link speed, FIFO waits and transfers, and booting
 * the controller's transputer over it. */
#ifndef TVX_ATLINK_H
#define TVX_ATLINK_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* The adapter's record, reached by locking its handle. */
typedef struct atlink {
  BYTE verbose;
  BYTE boot_number; /* 0: not booted */
  INT32 device;
  INT32 io_timeout; /* centiseconds, 1 .. 6499 */
  INT32 io_loops;
  WORD status_port;
  WORD control_port;
  WORD data_port;
  char *name; /* owned */
} atlink;

/* Control register bits. */
#define ATLINK_LOCAL_RESET 0x0001u
#define ATLINK_DISTANT_RESET 0x0002u
#define ATLINK_ANALYSE 0x000Cu
#define ATLINK_EVENT 0x0010u
#define ATLINK_LINK_SPEED 0x00E0u
#define ATLINK_BOOT_FROM_ROM 0x0100u
#define ATLINK_INTERRUPTS 0x0600u
#define ATLINK_FIFO_RESET 0x8000u

/* Status register bits (0x08, 0x10, 0x40 and 0x80 are active low). */
#define ATLINK_LOCAL_ERROR 0x01u
#define ATLINK_DISTANT_ERROR 0x02u
#define ATLINK_RX_NOT_EMPTY 0x04u
#define ATLINK_RX_HALF_FULL 0x08u
#define ATLINK_RX_FULL 0x10u
#define ATLINK_TX_NOT_EMPTY 0x20u
#define ATLINK_TX_HALF_FULL 0x40u
#define ATLINK_TX_FULL 0x80u

/* The name that puts the simulated card on the bus at the adapter's base address. */
#define ATLINK_SIMULATOR_NAME "simulator"

TVX_API HANDLE atlink_new(INT32 io_timeout, const char *name, INT32 base_address);
TVX_API BOOL atlink_ctor(HANDLE link, INT32 io_timeout, const char *name, INT32 base_address);
TVX_API BOOL atlink_delete(HANDLE link);
TVX_API BOOL atlink_open_device(HANDLE link);
TVX_API BOOL atlink_close_device(HANDLE link);
TVX_API BOOL atlink_print(HANDLE link, FILE *destination);
TVX_API BOOL atlink_set_timeout(HANDLE link, INT32 io_timeout);
TVX_API BOOL atlink_set_verbose(HANDLE link, BOOL verbose);
TVX_API BOOL atlink_verbose(HANDLE link);
TVX_API BOOL atlink_set_base_address(HANDLE link, INT32 base_address);

TVX_API BOOL atlink_read_control_register(HANDLE link, WORD mask, WORD *result);
TVX_API BOOL atlink_read_status_register(HANDLE link, WORD mask, WORD *result);
TVX_API BOOL atlink_write_control_register(HANDLE link, WORD bits, INT32 mode);

TVX_API BOOL atlink_transputer_reset(HANDLE link);
TVX_API BOOL atlink_local_transputer_reset(HANDLE link);
TVX_API BOOL atlink_distant_transputer_reset(HANDLE link);
TVX_API BOOL atlink_transputer_reset_low(HANDLE link);
TVX_API BOOL atlink_transputer_reset_high(HANDLE link);
TVX_API BOOL atlink_fifo_reset_low(HANDLE link);
TVX_API BOOL atlink_fifo_reset_high(HANDLE link);
TVX_API BOOL atlink_fifo_reset(HANDLE link);
TVX_API BOOL atlink_analyse(HANDLE link);
TVX_API BOOL atlink_event(HANDLE link);
TVX_API BOOL atlink_linkspeed(HANDLE link, INT16 speed);
TVX_API BOOL atlink_boot_from_rom(HANDLE link);
TVX_API BOOL atlink_boot_from_link(HANDLE link);
TVX_API BOOL atlink_enable_interrupts(HANDLE link);
TVX_API BOOL atlink_disable_interrupts(HANDLE link);
TVX_API BOOL atlink_page_0(HANDLE link);
TVX_API BOOL atlink_transputer_error(HANDLE link, WORD *result);

TVX_API BOOL atlink_check_status(HANDLE link);
TVX_API BOOL atlink_print_status(HANDLE link, const char *label);
/* Empties `text` and appends one line for each status bit the mask selects whose condition
 * holds; 200 characters are always enough. */
TVX_API BOOL atlink_describe_status(HANDLE link, WORD mask, char *text);

TVX_API BOOL atlink_wait_for_input(HANDLE link);
TVX_API BOOL atlink_wait_to_output(HANDLE link);

TVX_API BOOL atlink_read_BYTE_array(HANDLE link, BYTE *bytes, INT16 count);
TVX_API BOOL atlink_read_BYTE(HANDLE link, BYTE *byte);
TVX_API BOOL atlink_read_INT16(HANDLE link, INT16 *value);
TVX_API BOOL atlink_read_INT16_array(HANDLE link, INT16 *values, INT16 count);
TVX_API BOOL atlink_read_INT32(HANDLE link, INT32 *value);
TVX_API BOOL atlink_read_WORD_array(HANDLE link, WORD *words, INT16 count);
TVX_API BOOL atlink_read_WORD(HANDLE link, WORD *word);
TVX_API BOOL atlink_write_BYTE_array(HANDLE link, const BYTE *bytes, INT16 count);
TVX_API BOOL atlink_write_BYTE(HANDLE link, BYTE byte);
TVX_API BOOL atlink_write_INT16(HANDLE link, INT16 value);
TVX_API BOOL atlink_write_INT16_array(HANDLE link, const INT16 *values, INT16 count);
TVX_API BOOL atlink_write_INT32(HANDLE link, INT32 value);
TVX_API BOOL atlink_write_WORD_array(HANDLE link, const WORD *words, INT16 count);
TVX_API BOOL atlink_write_WORD(HANDLE link, WORD word);

/* Booting the controller: the card's initialisation blocks, then the boot stream. */
TVX_API BOOL atlink_boot(HANDLE link, const char *atlinit_file, const char *boot_file);
TVX_API BOOL atlink_boot_once(HANDLE link, const char *atlinit_file, const char *boot_file);
TVX_API BOOL atlink_atlinit(HANDLE link, const char *atlinit_file);
TVX_API BOOL atlink_copy_init(HANDLE link, const char *file);
TVX_API BOOL atlink_copy_block(HANDLE link, FILE *file);
TVX_API BOOL atlink_copy(HANDLE link, const char *file);
TVX_API BOOL atlink_copy_WORD(HANDLE link, const char *file);

TVX_END_DECLS

#endif
