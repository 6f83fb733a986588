/* Tagged values, acquisition parameters and their lookups, conversions from text, file-name
 * helpers, byte swapping and the pool of temporary text buffers. */
#ifndef TVX_VALUES_H
#define TVX_VALUES_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* ---- Tagged values (gdt) -------------------------------------------------------------------
 * `value` points to the value: an INT32, a double or a BYTE; for a string it is the text
 * itself, of which the value keeps its own copy. */
enum { GDT_IVAL = 0, GDT_FVAL = 1, GDT_SVAL = 2, GDT_BVAL = 4 };

TVX_API HANDLE gdt_new(INT32 type, const void *value);
TVX_API BOOL gdt_ctor(HANDLE gdt, INT32 type, const void *value);
TVX_API void gdt_delete(HANDLE gdt);
TVX_API BOOL gdt_set(HANDLE gdt, INT32 type, const void *value);
TVX_API HANDLE gdt_duplicate(HANDLE gdt);
TVX_API BOOL gdt_valid(HANDLE gdt);
/* Gives `to` the type and value of `from`. */
TVX_API BOOL gdt_assign(HANDLE to, HANDLE from);
TVX_API BOOL gdt_equal(HANDLE a, HANDLE b);
/* -1 when the value cannot be read. The readers below give 0 (NULL) and set an error when the
 * value is of another type. */
TVX_API INT32 gdt_get_type(HANDLE gdt);
TVX_API INT32 gdt_getIval(HANDLE gdt);
TVX_API double gdt_getFval(HANDLE gdt);
TVX_API const char *gdt_getSval(HANDLE gdt);
TVX_API BOOL gdt_getBval(HANDLE gdt);
TVX_API BOOL gdt_print1(HANDLE gdt, FILE *stream);
TVX_API BOOL gdt_print2(HANDLE gdt, FILE *stream);
TVX_API BOOL gdt_print3(HANDLE gdt, FILE *stream);
TVX_API const char *gdt_printstr1(HANDLE gdt);

/* ---- Acquisition parameters ----------------------------------------------------------------- */
enum {
  SYSPARAM_YSIZE = 0,
  SYSPARAM_YBIN = 1,
  SYSPARAM_XBIN = 2,
  SYSPARAM_XSIZE = 3,
  SYSPARAM_REGIONS = 4,
  SYSPARAM_IMAGES = 5,
  SYSPARAM_EXPOSURE_TIME = 6,
  SYSPARAM_PIXEL_LOW = 7,
  SYSPARAM_PIXEL_HIGH = 8,
  SYSPARAM_IMAGE_LISTS = 13,
  SYSPARAM_FRAME_DELAY = 14,
  SYSPARAM_SHUTTER_DISABLE = 15,
  SYSPARAM_PREFLUSH = 16
};
/* Kinds of parameter value. */
enum { SYSPARAM_IVAL = 0, SYSPARAM_PVAL = 1, SYSPARAM_FVAL = 2, SYSPARAM_BVAL = 4 };

TVX_API HANDLE sysparam_new(INT32 id, INT32 kind);
TVX_API HANDLE sysparam_make_ival(INT32 id, INT32 value);
TVX_API HANDLE sysparam_make_pval(INT32 id, HANDLE value);
TVX_API HANDLE sysparam_make_fval(INT32 id, double value);
TVX_API HANDLE sysparam_make_bval(INT32 id, BYTE value);
TVX_API void sysparam_delete(HANDLE param);
/* The parameter's id. */
TVX_API INT32 sysparam_get_type(HANDLE param);
TVX_API INT32 sysparam_get_ival(HANDLE param);
TVX_API HANDLE sysparam_get_pval(HANDLE param);
TVX_API double sysparam_get_fval(HANDLE param);
TVX_API BYTE sysparam_get_bval(HANDLE param);
TVX_API BOOL sysparam_print(HANDLE param, FILE *stream);

/* A parameter list owns its parameters: deleting it deletes them. */
TVX_API HANDLE sysparams_new(void);
TVX_API void sysparams_delete(HANDLE params);
/* The list of parameter handles, newest first; it belongs to the parameter list. */
TVX_API HANDLE sysparams_get_list(HANDLE params);
/* The newest parameter goes first. The list owns the parameter from the call on: one it cannot
 * take is deleted. */
TVX_API BOOL sysparams_append(HANDLE params, HANDLE param);

/* Lookups. Where a parameter appears more than once, the one appended first wins, except for
 * the shutter flag, where the newest wins. The single-value lookups return FALSE without an
 * error when the parameter is absent. */
TVX_API BOOL sysparams_ccdbinning(HANDLE params, INT32 *xbin, INT32 *ybin);
TVX_API BOOL sysparams_ccdsize(HANDLE params, INT32 *xsize, INT32 *ysize);
TVX_API BOOL sysparams_pixel_lowhigh(HANDLE params, INT32 *low, INT32 *high);
TVX_API BOOL sysparams_regions_images(HANDLE params, HANDLE *regions, HANDLE *images);
TVX_API BOOL sysparams_exposetime(HANDLE params, INT32 *time);
TVX_API BOOL sysparams_regions_imagelists(HANDLE params, HANDLE *regions, HANDLE *image_lists);
TVX_API BOOL sysparams_framedelay(HANDLE params, INT32 *delay);
TVX_API BOOL sysparams_shutter_disable(HANDLE params, BYTE *flag);
TVX_API BOOL sysparams_preflush(HANDLE params, INT32 *count);

/* ---- Conversions and small helpers ---------------------------------------------------------- */
TVX_API INT32 str_to_int(const char *text);
TVX_API double str_to_float(const char *text);
TVX_API BOOL str_to_bool(const char *text);
TVX_API long long whole_part(double x);
TVX_API long long frac_part(double x, INT32 digits);
TVX_API INT16 *am_swap_INT16(INT16 *p);
TVX_API INT32 *am_swap_INT32(INT32 *p);
TVX_API char *lstrncpy(char *dst, const char *src, INT32 n);

/* File names with "\" or "/" separators. Each returns its own static buffer. */
TVX_API const char *filespec_path(const char *spec);
TVX_API const char *filespec_name(const char *spec);
TVX_API const char *filespec_name_noext(const char *spec);
TVX_API const char *filespec_ext(const char *spec);
TVX_API INT32 filespec_dir_count(const char *spec);
TVX_API const char *filespec_summarise(const char *spec);

/* ---- Temporary text buffers ------------------------------------------------------------------
 * Six shared buffers of tbuffer_size() bytes for composing messages. Taking a seventh, or
 * returning one whose guards were overwritten, ends the process. */
TVX_API char *tbuffer_new(void);
TVX_API void tbuffer_delete(char *buffer);
TVX_API INT32 tbuffer_inuse(void);
TVX_API INT32 tbuffer_size(void);

TVX_END_DECLS

#endif
