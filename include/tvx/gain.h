/* Gain tables: the settings the controller offers for each pixel rate and sensitivity, read from
 * the GAIN_TABLE and GAIN_CONSTANTS sections, and the electrons per ADC level each gives. */
#ifndef TVX_GAIN_H
#define TVX_GAIN_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

typedef struct gainsetting {
  INT32 pgain;        /* programmable gain */
  INT32 adc_polarity; /* 1 bipolar, any other value unipolar */
  INT32 sensitivity;
  INT32 pixel_rate;
  double ms_per_pixel;
  double integr_time;
  double time_const;
  double electrons_per_level; /* computed */
  char *comment;              /* owned */
} gainsetting;

typedef struct gain {
  INT32 bit_weight; /* ADC bit weight */
  double feg;
  double ccd_gain;
  double fet_switch_time;
  gainsetting current; /* a copy of the selected row; its comment is its own */
  HANDLE table;        /* list of gainsetting handles, in file order */
} gain;

TVX_API HANDLE gainsetting_new(INT32 pixel_rate, INT32 sensitivity, double ms_per_pixel,
                               double integr_time, INT32 pgain, double time_const,
                               INT32 adc_polarity, const char *comment);
TVX_API void gainsetting_delete(HANDLE setting);

TVX_API BOOL gain_extract_table(gain *record, HANDLE config);
TVX_API BOOL gain_extract_const(gain *record, HANDLE config);
/* Makes the row with this pixel rate and sensitivity the current setting. */
TVX_API BOOL gain_init(gain *record, INT32 pixel_rate, INT32 sensitivity);
/* List predicates; the key is a gainsetting whose pixel rate (and sensitivity) are sought. */
TVX_API BOOL gain_findfn1(HANDLE setting, HANDLE key);
TVX_API BOOL gain_find_pixel_rate1(HANDLE setting, HANDLE key);
/* Electrons per ADC level of `setting` with the record's constants and CCD gain; the result is
 * stored in the setting, and 0 is a failure that says which factor was 0. */
TVX_API BOOL gain_electrons_per_level(const gain *record, gainsetting *setting);
TVX_API void gain_dtor(gain *record);

TVX_API void gain_print(const gain *record, FILE *stream);
TVX_API void gain_print_setting(const gainsetting *setting, FILE *stream);
TVX_API BOOL gain_print_setting_handle(HANDLE setting, FILE *stream);
TVX_API BOOL gain_printfn1(HANDLE setting, FILE *stream);

TVX_END_DECLS

#endif
