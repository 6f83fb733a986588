/* The controller's command set: the proxy for the camera server running in the 7100 controller.
 * Each command validates its arguments, fills the shared packet, sends it and waits for the
 * controller's completion. */
#ifndef TVX_CS71_H
#define TVX_CS71_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* Reply controls of the camera server. */
#define CS71_COMPLETE 100
#define CS71_PROGRESS_CHAR 101
#define CS71_PROGRESS_STAGE 102

typedef struct cs71 {
  INT16 camera_id; /* the camera server's address: the destination of every packet */
  HANDLE csp;      /* the packet object, not owned */
} cs71;

/* Host-side checks of command arguments; each pushes its message and returns FALSE. */
TVX_API BOOL valid_i32range(const char *name, INT32 low, INT32 high, INT32 value);
TVX_API BOOL valid_i16range(const char *name, INT16 low, INT16 high, INT16 value);
TVX_API BOOL valid_drange(const char *name, double low, double high, double value);
TVX_API BOOL map_i16_to(INT16 value, const INT16 *from, const INT16 *to, INT16 count,
                        INT16 *result);

TVX_API HANDLE cs71_new(INT16 camera_id, HANDLE packets);
TVX_API BOOL cs71_ctor(HANDLE controller, INT16 camera_id, HANDLE packets);
TVX_API BOOL cs71_delete(HANDLE controller);
TVX_API BOOL cs71_print(HANDLE controller, FILE *stream);
/* Locks the controller's handle; NULL, with the reason pushed, when it cannot. The caller
 * unlocks it with handle_unlock. */
TVX_API cs71 *cs71_handle_lock_check(HANDLE controller, const char *caller);

TVX_API BOOL cs71_responding(HANDLE controller);
TVX_API BOOL cs71_req5(HANDLE controller, INT16 control, INT16 count, INT16 low, INT16 high);
TVX_API BOOL cs71_wait_complete(HANDLE controller, INT16 low, INT16 high);
TVX_API BOOL cs71_wait_while_active(HANDLE controller, const char *prefix, INT16 progress_low,
                                    INT16 progress_high, INT16 final_low, INT16 final_high);

/* Installing program files into the running camera server. */
TVX_API BOOL cs71_install(HANDLE controller, const char *first, const char *second);
TVX_API BOOL cs71_install_file(HANDLE controller, const char *file);

TVX_API BOOL cs71_load(HANDLE controller, const char *file, INT32 id);
TVX_API BOOL cs71_execute(HANDLE controller, INT32 id);
/* Writes every row of the IOSPACE section (an ios address and a value) of the definition file;
 * `argument` is a further file read with it, or NULL. */
TVX_API BOOL cs71_config_iospace(HANDLE controller, const char *file, const char *argument);

/* ---- Commands ------------------------------------------------------------------------------ */
TVX_API BOOL cs71_hwinit(HANDLE controller, INT32 blacklevel);
TVX_API BOOL cs71_read_adc(HANDLE controller, INT32 channel, INT16 *value);
TVX_API BOOL cs71_get_voltage(HANDLE controller, INT32 id, INT16 *value);
TVX_API BOOL cs71_set_voltage(HANDLE controller, INT32 id, double volts);
TVX_API BOOL cs71_set_droop(HANDLE controller);
TVX_API BOOL cs71_set_offset(HANDLE controller);
TVX_API BOOL cs71_set_blacklevel(HANDLE controller, INT32 blacklevel);
TVX_API BOOL cs71_set_noise_trim(HANDLE controller);
TVX_API BOOL cs71_set_vss(HANDLE controller, double readout, double flush);
TVX_API BOOL cs71_set_pgain(HANDLE controller, INT32 gain);
TVX_API BOOL cs71_set_time_const(HANDLE controller, INT32 time_constant);
TVX_API BOOL cs71_set_integr_time(HANDLE controller, double time);
TVX_API BOOL cs71_adc_calibrate(HANDLE controller);
TVX_API BOOL cs71_adc_polarity(HANDLE controller, INT32 polarity);
TVX_API BOOL cs71_adc_auxiliary(HANDLE controller, INT32 value);
TVX_API BOOL cs71_set_region(HANDLE controller, INT32 id, INT32 x, INT32 y, INT32 width,
                             INT32 height);
TVX_API BOOL cs71_start_ccd_read(HANDLE controller);
TVX_API BOOL cs71_record_ccd_row(HANDLE controller);
/* The controller flushes as its program says: the count is not sent. */
TVX_API BOOL cs71_ccd_flush(HANDLE controller, INT32 count);
TVX_API BOOL cs71_set_ccd_size(HANDLE controller, INT32 width, INT32 height);
TVX_API BOOL cs71_set_binning(HANDLE controller, INT32 xbin, INT32 ybin);
/* Sends the exposure, sleeps through it on the host, then reads the completion. */
TVX_API BOOL cs71_ccd_expose(HANDLE controller, INT32 milliseconds);
TVX_API BOOL cs71_close_shutter(HANDLE controller);
TVX_API BOOL cs71_open_shutter(HANDLE controller);
TVX_API BOOL cs71_empty(HANDLE controller);
TVX_API BOOL cs71_dummy_load(HANDLE controller, INT32 setting);
TVX_API BOOL cs71_break_ground(HANDLE controller, INT32 setting);
TVX_API BOOL cs71_rstclk_feed_through(HANDLE controller, INT32 setting);
TVX_API BOOL cs71_write_userport(HANDLE controller, INT16 value);
TVX_API BOOL cs71_read_userport(HANDLE controller, INT16 *value);
TVX_API BOOL cs71_write_iospace(HANDLE controller, INT32 address, INT16 value);
TVX_API BOOL cs71_read_iospace(HANDLE controller, INT32 address, INT16 *value);
/* Sends the controller's recorder text to the information report, between "recorder[" and "]". */
TVX_API BOOL cs71_playback(HANDLE controller);
TVX_API BOOL cs71_configure_registers(HANDLE controller, const INT16 *values, INT16 count);
TVX_API BOOL cs71_configure_voltages(HANDLE controller, const double *volts, INT16 count);
TVX_API BOOL cs71_set_adc_mode(HANDLE controller, INT32 mode);
TVX_API BOOL cs71_set_parallel_mode(HANDLE controller, INT32 mode);
TVX_API BOOL cs71_set_serial_mode(HANDLE controller, INT32 mode);
/* Switches the controller's end of the link; the host's end is switched by the caller. */
TVX_API BOOL cs71_set_linkspeed(HANDLE controller, INT32 speed);
TVX_API BOOL cs71_set_acdc_coupling(HANDLE controller, INT32 setting);
/* The controller regulates to the temperature of its program: the value is not sent. */
TVX_API BOOL cs71_set_ccd_temp(HANDLE controller, double temperature);
/* The two tables go out one after the other, `count` entries each. */
TVX_API BOOL cs71_set_parallel_timing(HANDLE controller, const INT16 *first, const INT16 *second,
                                      INT16 count);
TVX_API BOOL cs71_read_fifo(HANDLE controller);
TVX_API BOOL cs71_set_concurrent(HANDLE controller, INT32 setting);
TVX_API BOOL cs71_adc_constants(HANDLE controller, INT16 *const1, INT16 *const2, INT16 *const3);
/* A read sequence: a list whose elements are 32-bit entries held in the element handles
 * themselves (value << 4 | code), each sent as its low and then its high 16 bits; at most 98. */
TVX_API BOOL cs71_set_ccd_rdseq(HANDLE controller, HANDLE sequence);
TVX_API BOOL cs71_start_ccd_rdseq(HANDLE controller);
TVX_API BOOL cs71_shutter_pulse_widths(HANDLE controller, const INT32 *widths);
TVX_API BOOL cs71_check_state_vector(HANDLE controller);
TVX_API BOOL cs71_reverse_clocks(HANDLE controller, INT16 first, INT16 second);
TVX_API BOOL cs71_test1(HANDLE controller);
TVX_API BOOL cs71_test2(HANDLE controller);
TVX_API BOOL cs71_set_ccd_read(HANDLE controller, INT32 frames, INT32 delay);
TVX_API BOOL cs71_set_parallel_transfers(HANDLE controller, INT32 count);
TVX_API BOOL cs71_set_parallel_multiplier(HANDLE controller, INT32 multiplier);
TVX_API BOOL cs71_n_parallel_transfers(HANDLE controller, INT32 count);
TVX_API BOOL cs71_stop(HANDLE controller);
TVX_API BOOL cs71_set_shuffle_mode(HANDLE controller, INT16 first, INT16 second,
                                   INT32 milliseconds);

TVX_END_DECLS

#endif
