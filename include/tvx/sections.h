/* The records that the hardware and CCD definition files fill: the adapter (DEVICE), the boot of
 * the controller (TRANSPUTER), the converter (ADC), the voltages, the camera programs and the
 * chip (CCD). Each reader assumes config_check_section has passed for its section. */
#ifndef TVX_SECTIONS_H
#define TVX_SECTIONS_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

#define VOLTS_COUNT 41
#define CCD_MAX_TIMING 32

typedef struct device {
  char *name; /* owned */
  INT32 base_address;
  INT32 unit;
} device;

typedef struct trans {
  INT32 io_timeout;
  INT32 linkspeed;
  BYTE boot_from_rom;
  char *atlinit_file;  /* owned */
  char *boot_file;     /* owned */
  char *procinit_file; /* owned */
  char *camera_file;   /* owned */
  BYTE concurrent;
} trans;

typedef struct adc {
  INT32 auxiliary;
  INT32 mode;
  BYTE dummy_load;
  double h1h2l1l2;
  INT32 const1;
  INT32 const2;
  INT32 const3;
  INT32 shutter[4];
} adc;

typedef struct voltage {
  char *name; /* owned */
  double nominal;
  double tolerance;
} voltage;

typedef struct volts {
  voltage entries[VOLTS_COUNT];
} volts;

typedef struct camprog {
  char *name;     /* owned */
  char *filename; /* owned */
  INT32 id;
} camprog;

typedef struct ccd {
  INT32 reserved;
  INT32 blacklevel;
  INT32 xbin;
  INT32 ybin;
  INT32 xsize;
  INT32 ysize;
  INT32 pixel_rate;
  INT32 sensitivity;
  double fegain;
  char *type;              /* owned */
  char *mode;              /* owned */
  char *serial_no;         /* owned */
  char *product_reference; /* owned */
  INT32 reserved2[2];
  INT32 active_area[4];
  INT32 serial_clocking;
  INT32 parallel_clocking;
  INT32 coupling;
  INT16 ptiming1[CCD_MAX_TIMING];
  INT16 ptiming2[CCD_MAX_TIMING];
  INT16 ptiming_count;
  INT32 parallel_transfers;
} ccd;

/* The simulated camera's own settings, from the SIMULATOR section of the hardware file. */
typedef struct simulator {
  char scene[32]; /* starfield, coordinates, flat or dark */
  INT32 seed;
  double read_noise;   /* electrons */
  double dark_current; /* electrons per pixel per second at 293 K */
  BYTE realtime;       /* read out at the pixel rate rather than at once */
  char fault[32];   /* none, card_absent, power_off, error_flags, linkspeed_mismatch, drop_words */
  INT32 drop_after; /* words that cross the link before drop_words starts */
} simulator;

TVX_API BOOL device_extract(device *record, HANDLE config);
TVX_API void device_print(const device *record, FILE *stream);
TVX_API void device_dtor(device *record);

TVX_API BOOL trans_extract(trans *record, HANDLE config);
TVX_API void trans_print(const trans *record, FILE *stream);
TVX_API void trans_dtor(trans *record);

TVX_API BOOL adc_extract(adc *record, HANDLE config);
TVX_API void adc_print(const adc *record, FILE *stream);

TVX_API BOOL volts_extract(volts *record, HANDLE config);
TVX_API void volts_print(const volts *record, FILE *stream);
TVX_API void volts_dtor(volts *record);
TVX_API const char *volts_id_name(INT32 id);
TVX_API INT32 voltageid_map(INT32 id);
TVX_API INT32 voltageid_type(INT32 id);
TVX_API INT32 voltageid_access(INT32 id);

/* Reads the PROGRAMS section into `*programs`, a list of camprog handles (made when NULL). */
TVX_API BOOL camprogs_extract(HANDLE *programs, HANDLE config);
TVX_API HANDLE camprog_new(const char *name, const char *filename, INT32 id);
TVX_API void camprog_delete(HANDLE program);
TVX_API BOOL camprog_print(HANDLE program, FILE *stream);
TVX_API BOOL camprog_findfn1(HANDLE program, HANDLE name);
TVX_API BOOL camprog_findfn2(HANDLE program, HANDLE filename);

/* Reads and checks the SIMULATOR section. */
TVX_API BOOL simulator_extract(simulator *record, HANDLE config);
/* Tells the simulated card and controller the fault the record names. */
TVX_API BOOL simulator_apply(const simulator *record);
TVX_API void simulator_print(const simulator *record, FILE *stream);

TVX_API BOOL ccd_extract(ccd *record, HANDLE config);
TVX_API void ccd_print(const ccd *record, FILE *stream);
TVX_API void ccd_dtor(ccd *record);

TVX_END_DECLS

#endif
