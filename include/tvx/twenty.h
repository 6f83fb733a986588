/* Two-channel data: 32-bit pixels whose upper 16 bits are channel 1 (the sensitive channel,
 * which saturates first) and lower 16 bits channel 2 (a lower-gain copy). Channel 1 is fitted
 * to channel 2 inside a region, saturated channel-1 values are replaced by scaled channel-2
 * values to give about 20 bits of range, and image zero is subtracted. */
#ifndef TVX_TWENTY_H
#define TVX_TWENTY_H

#include "tvx/image.h"
#include "tvx/types.h"

TVX_BEGIN_DECLS

typedef struct chan_stats {
  double mean1;
  double mean2;
  double var1;
  double var2;
  double cov;
  INT32 valid; /* 1 when enough pixels and signal were found */
} chan_stats;

TVX_API BOOL image_chan_stats(HANDLE image, HANDLE region, chan_stats *stats, double minimum_signal,
                              double electrons_per_level);
TVX_API BOOL image_20_bit_correlate(HANDLE image, HANDLE region, double *ratio, double *offset,
                                    double *r_squared, double minimum_signal,
                                    double electrons_per_level);
TVX_API BOOL image_32_to_20_bit(HANDLE image, HANDLE region, double ratio, double offset);
TVX_API BOOL image_subtract_iz(HANDLE image, INT32 level, BYTE is_signed);
/* One channel of a region as a 16-bit image: `which` 1 channel 1, any other value channel 2. */
TVX_API BOOL image_pixel_split(HANDLE image, HANDLE region, HANDLE *out, INT32 which);
TVX_API BOOL image_measure_multi_chan(HANDLE image, HANDLE region, image_stats *channel1,
                                      image_stats *channel2, BOOL show);

TVX_END_DECLS

#endif
