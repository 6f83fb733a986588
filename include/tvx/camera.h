/* The camera: the top-level handle an application uses for one camera head on one controller.
 * It reads the CCD definition file beside the server's hardware file, keeps the voltages, the
 * camera programs and the chip's description, and initialises the hardware. */
#ifndef TVX_CAMERA_H
#define TVX_CAMERA_H

#include "tvx/readout.h"
#include "tvx/sections.h"
#include "tvx/server.h"
#include "tvx/types.h"

TVX_BEGIN_DECLS

#define CAMERA_OPERATION_COUNTERS 24
/* What the first of the operation counters count, since the camera was made; the rest are kept
 * at 0 for later use. */
enum {
  CAMERA_COUNT_READOUTS = 0,   /* camera_readout_ccd calls that succeeded */
  CAMERA_COUNT_FRAMES = 1,     /* frames of camera_expose_and_readout_ccd that were processed */
  CAMERA_COUNT_EXPOSURES = 2,  /* camera_expose_ccd and series of frames */
  CAMERA_COUNT_FLUSHES = 3,    /* runs of the flush program */
  CAMERA_COUNT_FAILURES = 4,   /* readouts and series that failed */
  CAMERA_COUNT_IMAGE_ZERO = 5, /* image zero measured from the reference columns */
  CAMERA_COUNT_PROCESSED = 6,  /* images processed: cut, joined and image zero taken off */
  CAMERA_COUNT_TWENTY_BIT = 7  /* two-channel images joined into 20-bit data */
};

/* One measured voltage of camera_get_allvoltages: its value, and whether it could be read. */
typedef struct camera_voltage {
  double value;
  BYTE read;
} camera_voltage;

TVX_API HANDLE camera_new(HANDLE server, const char *ccd_file);
TVX_API BOOL camera_ctor(HANDLE camera, HANDLE server, const char *ccd_file);
TVX_API BOOL camera_initialise(HANDLE camera);
TVX_API BOOL camera_dtor(HANDLE camera);
TVX_API void camera_delete(HANDLE camera);
TVX_API BOOL camera_set_server(HANDLE camera, HANDLE server);
TVX_API BOOL camera_set_system_dir(HANDLE camera, const char *dir);
/* Resolves a program file name against the system directory; the result lies in one buffer
 * shared by every camera, overwritten by the next call. */
TVX_API BOOL camera_system_filename(HANDLE camera, const char *name, const char **out);
TVX_API BOOL camprogs_get_basefile(HANDLE programs, const char *name, const char **file);
TVX_API BOOL camera_load(HANDLE camera, const char *name, const char *file);
TVX_API BOOL camera_loadall(HANDLE camera);
TVX_API BOOL camera_execute(HANDLE camera, const char *name, HANDLE sysparams);
TVX_API BOOL camera_empty(HANDLE camera);

/* Settings and queries. */
TVX_API BOOL camera_set_binning(HANDLE camera, INT32 xbin, INT32 ybin);
TVX_API BOOL camera_get_binning(HANDLE camera, INT32 *xbin, INT32 *ybin);
TVX_API BOOL camera_set_blacklevel(HANDLE camera, INT32 level);
TVX_API BOOL camera_get_blacklevel(HANDLE camera, INT32 *level);
TVX_API BOOL camera_get_blacklevel_limits(HANDLE camera, INT32 *low, INT32 *high);
TVX_API BOOL camera_set_ccd_size(HANDLE camera, INT32 xsize, INT32 ysize);
TVX_API BOOL camera_get_ccd_size(HANDLE camera, INT32 *xsize, INT32 *ysize);
TVX_API BOOL camera_get_active_area(HANDLE camera, INT32 *area);
TVX_API BOOL camera_set_droop(HANDLE camera);
TVX_API BOOL camera_set_gain(HANDLE camera, INT32 pixel_rate, INT32 sensitivity);
TVX_API BOOL camera_get_gain_settings(HANDLE camera, INT32 *pixel_rate, INT32 *sensitivity);
TVX_API BOOL camera_get_gain_table(HANDLE camera, double *ms, double *electrons, INT32 *valid,
                                   INT32 index);
TVX_API BOOL camera_get_ms_per_pixel(HANDLE camera, INT32 pixel_rate, double *ms);
TVX_API BOOL camera_get_electrons_per_level(HANDLE camera, INT32 pixel_rate, INT32 sensitivity,
                                            double *electrons);
TVX_API BOOL camera_get_peak_signal(HANDLE camera, INT32 pixel_rate, INT32 sensitivity,
                                    double *electrons);
TVX_API BOOL camera_set_offset(HANDLE camera);
TVX_API BOOL camera_set_operation_mode(HANDLE camera, INT32 mode);
TVX_API BOOL camera_get_operation_mode(HANDLE camera, INT32 *mode);
TVX_API BOOL camera_set_voltages(HANDLE camera);
TVX_API BOOL camera_get_voltages(HANDLE camera, voltage_request *elements, INT32 n);
/* All 41 voltages of the VOLTAGES table, by id, into `out`. */
TVX_API BOOL camera_get_allvoltages(HANDLE camera, camera_voltage *out);
TVX_API BOOL camera_get_voltage_name(HANDLE camera, INT32 id, const char **name);
TVX_API BOOL camera_get_ccd_temperature(HANDLE camera, double *first, double *second);
TVX_API BOOL camera_wait_ccd_temperature(HANDLE camera);
TVX_API BOOL camera_verify(HANDLE camera);
TVX_API BOOL camera_detector_type_ccd(HANDLE camera);
TVX_API BOOL camera_detector_type_dummy(HANDLE camera);
TVX_API BOOL camera_get_ccd_information(HANDLE camera, const char **type, const char **mode,
                                        const char **serial_no, const char **product_reference);
TVX_API BOOL camera_get_operation_stats(HANDLE camera, INT32 *counters);
TVX_API void camera_print(HANDLE camera, FILE *stream);
TVX_API void camera_print_ccd(HANDLE camera, FILE *stream);
TVX_API void camera_print_volts(HANDLE camera, FILE *stream);
TVX_API void camera_print_camprogs(HANDLE camera, FILE *stream);

/* Taking pictures. The images are processed by the operation mode: 0 raw, 1 image zero measured,
 * 2 processed with image zero subtracted (signed), 3 processed keeping a pedestal of 256. */
TVX_API BOOL camera_readout_regions(HANDLE camera, HANDLE *regions, BOOL *made);
TVX_API BOOL camera_readout_ccd(HANDLE camera, HANDLE regions, HANDLE images);
TVX_API BOOL camera_expose_ccd(HANDLE camera, INT32 milliseconds);
TVX_API BOOL camera_expose_and_readout_ccd(HANDLE camera, HANDLE regions, HANDLE image_lists,
                                           INT32 milliseconds, INT32 frame_delay);
TVX_API BOOL camera_flush_ccd(HANDLE camera, INT32 count);
TVX_API BOOL camera_open_shutter(HANDLE camera);
TVX_API BOOL camera_close_shutter(HANDLE camera);
TVX_API BOOL camera_allocate_all_images(HANDLE camera, HANDLE regions, HANDLE images,
                                        HANDLE sysparams);
TVX_API BOOL camera_shuffle_mode(HANDLE camera, HANDLE region, HANDLE image, INT32 milliseconds,
                                 server_grab_fn user_function, void *user_argument);
TVX_API BOOL camera_process_images(HANDLE camera, HANDLE images);
/* Takes image zero off one image: whole in mode 2 (signed), else less a pedestal of 256; 20-bit
 * data is always signed. */
TVX_API BOOL camera_subtract_image_zero(HANDLE camera, HANDLE image);
TVX_API BOOL camera_measure_iz(HANDLE camera, HANDLE images);
TVX_API BOOL camera_set_image_zero(HANDLE camera, HANDLE image);
TVX_API BOOL camera_get_image_zero(HANDLE camera, INT32 *level);
TVX_API BOOL camera_set_20_bit_data(HANDLE camera, double ratio, double offset, BYTE correlate);
TVX_API BOOL camera_get_20_bit_data(HANDLE camera, double *ratio, double *offset, double *r_squared,
                                    BYTE *correlate);

TVX_END_DECLS

#endif
