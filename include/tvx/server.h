/* The camera server: the object that owns one controller and the link to it. It reads the
 * hardware definition file, boots and installs the controller, initialises the hardware, runs
 * camera programs and carries every setting and query of the controller. */
#ifndef TVX_SERVER_H
#define TVX_SERVER_H

#include "tvx/gain.h"
#include "tvx/sections.h"
#include "tvx/types.h"

TVX_BEGIN_DECLS

/* The hardware definition file is always this one, in the directory of the file given. */
#define SERVER_DEFINITION_FILE "7100hw.def"
/* The id under which a program that is not in the program list is loaded and run. */
#define SERVER_ADHOC_PROGRAM 1000

/* One voltage to read or set: its id (see volts_id_name), its value in volts (kelvin for
 * temperatures), and a flag that is set while the value is being read. */
typedef struct voltage_request {
  INT16 id;
  double value;
  BYTE busy;
} voltage_request;

TVX_API HANDLE server_allocate(void);
/* Allocates, configures from `definition_file` and starts the controller; NULL on failure, with
 * nothing left allocated. */
TVX_API HANDLE server_new(const char *definition_file);
TVX_API BOOL server_ctor(HANDLE server, const char *definition_file);
TVX_API BOOL server_dtor(HANDLE server);
TVX_API void server_delete(HANDLE server);
TVX_API BOOL server_info(HANDLE server, const char *text);
TVX_API BOOL server_set_system_dir(HANDLE server, const char *dir);
/* Writes the system directory, a separator and `name` into `out` (at least 264 bytes). */
TVX_API BOOL server_system_filename(HANDLE server, const char *name, char *out);
/* The full name of the hardware definition file, in one buffer shared by every server. */
TVX_API const char *server_definition_file(HANDLE server);
TVX_API BOOL server_configure(HANDLE server, const char *definition_file);
TVX_API BOOL server_initialise(HANDLE server);
TVX_API BOOL server_hwinit(HANDLE server, const volts *voltages, const ccd *chip);
TVX_API BOOL volts_make_desired_packet(const volts *voltages, const char *(*names)(INT32 id),
                                       INT16 count, double *buffer);
TVX_API BOOL server_responding(HANDLE server);
TVX_API BOOL server_responding1(HANDLE server, const char *label);
TVX_API BOOL server_init_sysparams(HANDLE server, HANDLE sysparams);

/* Camera programs. */
TVX_API INT32 camprog_make_id(const char *name);
TVX_API BOOL camprogs_get_pid(HANDLE programs, const char *name, INT32 *id);
TVX_API BOOL server_load(HANDLE server, const char *name, const char *file);
TVX_API BOOL server_execute(HANDLE server, const char *program, HANDLE sysparams);
TVX_API BOOL server_empty(HANDLE server);

TVX_API BOOL server_detector_type_ccd(HANDLE server);
TVX_API BOOL server_detector_type_dummy(HANDLE server);
TVX_API BOOL server_detector_type_set(HANDLE server, BOOL dummy);

/* Gain. */
TVX_API BOOL server_set_gain(HANDLE server, INT32 pixel_rate, INT32 sensitivity, double ccd_gain);
TVX_API BOOL server_get_ms_per_pixel(HANDLE server, INT32 pixel_rate, double *ms);
TVX_API BOOL server_get_electrons_per_level(HANDLE server, INT32 pixel_rate, INT32 sensitivity,
                                            double *electrons);
TVX_API BOOL server_get_peak_signal(HANDLE server, INT32 pixel_rate, INT32 sensitivity,
                                    double *electrons);
TVX_API BOOL server_get_gain_table(HANDLE server, double *ms, double *electrons, INT32 *valid,
                                   INT32 index);
TVX_API BOOL server_calc_electrons_per_level(HANDLE server, gainsetting *setting);
TVX_API BOOL server_calc_gain(HANDLE server, gainsetting *setting);
TVX_API BOOL server_print_gain(HANDLE server, FILE *stream);

/* Settings and queries: each sends one controller command. */
TVX_API BOOL server_adc_bipolar(HANDLE server);
TVX_API BOOL server_adc_unipolar(HANDLE server);
TVX_API BOOL server_adc_calibrate(HANDLE server);
TVX_API BOOL server_open_shutter(HANDLE server);
TVX_API BOOL server_close_shutter(HANDLE server);
TVX_API BOOL server_playback(HANDLE server);
TVX_API BOOL server_empty_recorder(HANDLE server);
TVX_API BOOL server_record_ccd_row(HANDLE server);
TVX_API BOOL server_set_adc_mode(HANDLE server, INT32 mode);
TVX_API BOOL server_set_binning(HANDLE server, INT32 xbin, INT32 ybin);
TVX_API BOOL server_set_blacklevel(HANDLE server, INT32 blacklevel);
TVX_API BOOL server_set_ccd_temp(HANDLE server, double temperature);
TVX_API BOOL server_set_droop(HANDLE server);
TVX_API BOOL server_set_integration_time(HANDLE server, double time);
TVX_API BOOL server_set_noise_trim(HANDLE server);
TVX_API BOOL server_set_offset(HANDLE server);
TVX_API BOOL server_set_pgain(HANDLE server, INT32 gain);
TVX_API BOOL server_set_time_constant(HANDLE server, INT32 time_constant);
TVX_API BOOL server_set_vss(HANDLE server, double readout, double flush);
TVX_API BOOL server_set_region(HANDLE server, INT32 mode, INT32 x, INT32 y, INT32 width,
                               INT32 height);
TVX_API BOOL server_reverse_clocks(HANDLE server, INT16 first, INT16 second);
TVX_API BOOL server_parallel_transfers(HANDLE server, INT32 count);
TVX_API BOOL server_read_fifo(HANDLE server);
TVX_API BOOL server_read_userport(HANDLE server, INT16 *value);
TVX_API BOOL server_write_userport(HANDLE server, INT16 value);
TVX_API BOOL server_verify(HANDLE server);
TVX_API BOOL server_set_verbose(HANDLE server, BOOL verbose);
/* 16 bits per pixel from one channel, 20 when two channels are combined. */
TVX_API BOOL server_get_bits_per_pixel(HANDLE server, INT32 *bits);
TVX_API BOOL server_get_adc_polarity(HANDLE server, INT32 *polarity);
/* The controller talks on one link, link 0: succeeds once the server is there. */
TVX_API BOOL server_tolink0(HANDLE server);

TVX_API BOOL server_get_voltages(HANDLE server, voltage_request *elements, INT32 n);
TVX_API BOOL server_set_voltages(HANDLE server, const voltage_request *elements, INT32 n);
/* The two CCD temperatures in degrees Celsius. */
TVX_API BOOL server_get_ccd_temperature(HANDLE server, double *first, double *second);
/* Waits, on the C library's seconds clock, until the CCD temperature has drifted less than 3
 * degrees for three minutes; returns at once when it is within 3 degrees of the last wait. */
TVX_API BOOL server_wait_ccd_temperature(HANDLE server);

TVX_API void server_print(HANDLE server, FILE *stream);
TVX_API void server_print_adc(HANDLE server, FILE *stream);
TVX_API void server_print_device(HANDLE server, FILE *stream);
TVX_API void server_print_transputer(HANDLE server, FILE *stream);
TVX_API void server_print_hwregs(HANDLE server, FILE *stream);

TVX_END_DECLS

#endif
