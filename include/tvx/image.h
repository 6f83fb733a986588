/* Images and regions: the image record with its pixel blocks of whole rasters, regions cut from
 * images, statistics of a region, and image files. */
#ifndef TVX_IMAGE_H
#define TVX_IMAGE_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* ---- Records ---------------------------------------------------------------------------------
 * An image's pixels are not one array: they lie in pixel blocks of whole rasters, each a handle
 * block of at most IMAGE_BLOCK_BYTES bytes. Raster r lies in block r / rasters_per_block, at byte
 * offset (r % rasters_per_block) * raster_size; the pixels of a raster are consecutive, each
 * (depth + 7) / 8 bytes wide. */
#define IMAGE_BLOCK_BYTES 65464

typedef struct image_rec {
  INT32 reserved;
  HANDLE pixel_blocks; /* the block table (class 2000), NULL without pixels */
  INT32 width;         /* pixels per raster */
  INT32 height;        /* rasters */
  INT32 depth;         /* bits per pixel, 1 .. 32 */
  INT32 block_cnt;
  INT32 rasters_per_block; /* rasters in every full block */
  INT32 raster_size;       /* bytes per raster */
  char *name;              /* owned, or NULL */
  INT32 is_signed;         /* non-zero: the pixels are signed */
} image_rec;

/* One entry of the block table, six 32-bit words. */
typedef struct image_block {
  DWORD reserved;
  DWORD lock_count; /* rasters of this block locked through image_lockraster */
  DWORD handle;     /* the pixel block's handle, as a 32-bit token */
  DWORD size;       /* bytes */
  DWORD rasters;
  DWORD scratch;
} image_block;

/* A named rectangle of an image, origin at raster 0, pixel 0. */
typedef struct region_rec {
  INT32 reserved;
  char *name; /* owned, or NULL */
  INT32 x;
  INT32 y;
  INT32 width;
  INT32 height;
} region_rec;

/* ---- The image and its pixel blocks ------------------------------------------------------- */
TVX_API HANDLE image_new(INT32 width, INT32 height, INT32 depth);
TVX_API BOOL image_ctor(HANDLE image, INT32 width, INT32 height, INT32 depth);
TVX_API void image_dtor(HANDLE image);
/* A NULL image is ignored. */
TVX_API void image_delete(HANDLE image);
/* Gives the image new pixels (their contents undefined); a failure leaves it without pixels. A
 * depth outside 1 .. 32 is refused before anything is freed. */
TVX_API BOOL image_allocatepixels(HANDLE image, INT32 width, INT32 height, INT32 depth);
TVX_API BOOL image_freepixels(HANDLE image);
/* TRUE at once when the image already has this size; otherwise it gets new pixels. */
TVX_API BOOL image_check_size(HANDLE image, INT32 width, INT32 height, INT32 depth);

/* The row's first byte; its block stays locked until image_unlockraster of the same row. */
TVX_API void *image_lockraster(HANDLE image, INT32 row);
TVX_API BOOL image_unlockraster(HANDLE image, INT32 row);
/* Copy raster_size bytes between the row and the block of the handle `buffer`, which must hold
 * at least that many. */
TVX_API BOOL image_getraster(HANDLE image, INT32 row, HANDLE buffer);
TVX_API BOOL image_setraster(HANDLE image, INT32 row, HANDLE buffer);

/* 0 (with the error set) when the image cannot be read. */
TVX_API INT32 image_getrastersize(HANDLE image);
TVX_API INT32 image_getpixelsize(HANDLE image);
TVX_API BOOL image_size(HANDLE image, INT32 *width, INT32 *height, INT32 *depth);
TVX_API BOOL image_pixels_per_block(HANDLE image, INT32 *out);
TVX_API BOOL image_print(HANDLE image, FILE *stream);
TVX_API BOOL image_print_details(HANDLE image, FILE *stream);

/* The image's own name (NULL when it has none), valid until the name is changed. */
TVX_API const char *image_getname(HANDLE image);
/* Keeps a copy; NULL leaves the image without a name. */
TVX_API BOOL image_setname(HANDLE image, const char *name);
TVX_API BOOL image_set_signed(HANDLE image, BOOL is_signed);
TVX_API BOOL image_is_signed(HANDLE image);

/* TRUE when both images have the same width, height and depth and the same pixel bytes (the
 * signed flags and names are not compared). FALSE without an error when they differ. */
TVX_API BOOL image_equal(HANDLE a, HANDLE b);

/* ---- Copies between images and buffers -------------------------------------------------------
 * A region is clipped to the image before use: it must pass region_valid against the image
 * ("source image"), then its width and height are cut to what lies on the image. Where an
 * operation takes `HANDLE *out`, a NULL *out gets a new image of the result's size, otherwise
 * *out is resized to it when needed; a new image is deleted again when the operation fails. */
TVX_API BOOL image_region(HANDLE image, HANDLE region, HANDLE *out);
/* Fills the region with the low 8, the low 16 or all 32 bits of `value`, by pixel size. */
TVX_API BOOL image_set_region(HANDLE image, HANDLE region, INT32 value);
/* Copies `count` whole rasters from `bytes` into the image from raster `first_row`, cut at the
 * last raster. A first row off the image sets "requested blit off image." and copies nothing,
 * yet returns TRUE: callers of long standing test the stack rather than the result. */
TVX_API BOOL image_blit(HANDLE image, INT32 first_row, INT32 count, const void *bytes);
/* Copies the whole of `source` into `image` with its first pixel at (x, y). The rectangle must
 * lie on the image and both must have the same pixel size. */
TVX_API BOOL image_paste(HANDLE image, HANDLE source, INT32 x, INT32 y);
/* A copy of the whole image with its depth and signed flag; flip_rows puts the last raster first,
 * flip_columns reverses every raster. `source` and *out must be different images. */
TVX_API BOOL image_copy(HANDLE source, HANDLE *out, BOOL flip_rows, BOOL flip_columns);

/* ---- Lists of images ---------------------------------------------------------------------- */
/* list_delete with image_delete for each element. */
TVX_API BOOL image_list_delete(HANDLE list);
/* The first image of the list with this name, or NULL. */
TVX_API HANDLE image_list_find_name(HANDLE list, const char *name);
TVX_API BOOL image_list_print(HANDLE list, FILE *stream);

/* ---- Regions ------------------------------------------------------------------------------ */
TVX_API HANDLE region_new(INT32 x, INT32 y, INT32 width, INT32 height, const char *name);
TVX_API BOOL region_ctor(HANDLE region, INT32 x, INT32 y, INT32 width, INT32 height,
                         const char *name);
TVX_API void region_dtor(HANDLE region);
TVX_API void region_delete(HANDLE region);
TVX_API const char *region_getname(HANDLE region);
TVX_API BOOL region_setname(HANDLE region, const char *name);
TVX_API BOOL region_get(HANDLE region, INT32 *x, INT32 *y, INT32 *width, INT32 *height);
TVX_API BOOL region_print(HANDLE region, FILE *stream);
TVX_API BOOL region_list_delete(HANDLE list);
/* The order for list_sort: TRUE when a's x is greater than b's, so regions sort by ascending x. */
TVX_API BOOL region_exchangefn1(HANDLE a, HANDLE b);
/* Whether the region lies on an image of this size; a region may start on the far edge when its
 * extent there is 0. `what` names the image in the message. */
TVX_API BOOL region_valid(const region_rec *record, INT32 image_width, INT32 image_height,
                          const char *what);

/* ---- Statistics --------------------------------------------------------------------------- */
typedef struct image_stats {
  double min;
  double max;
  double area; /* pixels measured */
  double mean;
  double variance; /* of the pixels themselves: the sum of squared deviations over area */
  double sdev;
  double skew;           /* third central moment over sdev cubed; 0 when sdev is 0 */
  double kurtosis;       /* fourth central moment over variance squared, less 3; 0 when sdev is 0 */
  double median;         /* quantiles are the smallest level that at least that share of the */
  double lower_quartile; /* pixels do not exceed */
  double upper_quartile;
  double mode; /* the most frequent level, the lowest of equals */
} image_stats;

/* Statistics of a 16-bit image over a region (NULL: the whole image), signed or unsigned by the
 * image's flag. A non-zero `show` also sends the print form to the information report. A region
 * that holds no pixels fails with category 2 under "ip_hstats". */
TVX_API BOOL image_histogram_stats(HANDLE image, HANDLE region, image_stats *stats, BOOL show);
/* The print form, six lines of two figures. */
TVX_API BOOL image_stats_print(const image_stats *stats, FILE *stream);

/* Display limits of an 8- or 16-bit image over a region (NULL: the whole image): `low` is the
 * level that 0.5% of the pixels lie below and `high` the level that 0.5% lie above, so that a
 * few hot or dead pixels do not squash the display. `high` is always above `low`. */
TVX_API BOOL image_autoscale(HANDLE image, HANDLE region, INT32 *low, INT32 *high);

/* Pixel by pixel, scale * numerator / denominator rounded to the nearest level (halves away from
 * zero) and held to the range of the numerator's depth (and signedness); 0 where the denominator is
 * 0. Both images must have the same width and height; the result has the numerator's size, depth
 * and flag. */
TVX_API BOOL image_pixel_ratio(HANDLE numerator, HANDLE denominator, HANDLE *out, double scale);

/* Flips and rotations by right angles. Rotations by 90 and 270 degrees and the transpose swap
 * width and height. `source` and *out must be different images. */
enum {
  IMAGE_FLIP_ROWS = 0,    /* the last raster first */
  IMAGE_FLIP_COLUMNS = 1, /* every raster reversed */
  IMAGE_ROTATE_90 = 2,    /* clockwise: the first raster becomes the last column */
  IMAGE_ROTATE_180 = 3,
  IMAGE_ROTATE_270 = 4, /* anticlockwise */
  IMAGE_TRANSPOSE = 5   /* rows become columns */
};
TVX_API BOOL image_transform(HANDLE source, HANDLE *out, INT32 operation);

/* ---- Image files ---------------------------------------------------------------------------
 * Written in the native format, read from the native, olvane 1 and olvane 2 (v3, v4) formats,
 * each in either byte order; the format is told from the file's first six bytes and its size.
 * A swapped file has every 16- and 32-bit header word and every 2- or 4-byte pixel reversed. */
enum {
  IMAGE_FORMAT_UNKNOWN = 0,
  IMAGE_FORMAT_OLVANE1 = 1,
  IMAGE_FORMAT_NATIVE = 2,
  IMAGE_FORMAT_TIFF_LE = 3,
  IMAGE_FORMAT_TIFF_BE = 4,
  IMAGE_FORMAT_OLVANE2_V3 = 5,
  IMAGE_FORMAT_OLVANE2_V4 = 6
};
/* TRUE when the file could be examined, also for format 0. The depth of a native file is the
 * header's third 16-bit word as it stands, signed marker and all. */
TVX_API BOOL image_get_file_format(const char *path, INT32 *format, BOOL *swapped, INT32 *width,
                                   INT32 *height, INT32 *depth);
/* Reads any readable format into the image, resizing it unless it already has the file's size.
 * A file too short for the pixels its header promises is refused before the image is resized. */
TVX_API BOOL image_read(HANDLE image, const char *path);
TVX_API BOOL image_read_tvx_format(HANDLE image, const char *path, BOOL swapped);
TVX_API BOOL image_read_olvane1_format(HANDLE image, const char *path, BOOL swapped);
TVX_API BOOL image_read_olvane2_v3_format(HANDLE image, const char *path, BOOL swapped);
TVX_API BOOL image_read_olvane2_v4_format(HANDLE image, const char *path, BOOL swapped);
/* Reads every pixel block in order from the open file descriptor. */
TVX_API BOOL image_read_blocks(HANDLE image, int fd, const char *path, BOOL swapped);
/* Always the native format in native order: 6 header bytes, then the rasters. */
TVX_API BOOL image_write(HANDLE image, const char *path);

TVX_END_DECLS

#endif
