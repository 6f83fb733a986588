/* Definition files: the parser that reads them into declared sections of rows, the checking of a
 * section against its declaration, and the extraction of its values. */
#ifndef TVX_CONFIG_H
#define TVX_CONFIG_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* Value kinds of row entries. */
enum { CONFIG_STRING = 256, CONFIG_INTEGER = 257, CONFIG_FLOAT = 258, CONFIG_BOOLEAN = 259 };
/* Data alignment and identifier expectation of a declared section. */
enum { CONFIG_HORIZONTAL = 0, CONFIG_VERTICAL = 1 };
enum { CONFIG_ATLEAST = 0, CONFIG_ONLY = 1 };
#define CONFIG_MAX_SECTIONS 30
#define CONFIG_MAX_VALUES 40
#define CONFIG_MAX_ROWS 100
/* The longest value; "s" destinations of config_extract_section need one more byte. */
#define CONFIG_MAX_STRING 15999
/* Row entries keep 16-bit offsets into the text. */
#define CONFIG_MAX_TEXT 65535

/* Reads the files named up to a NULL into one text and parses it; NULL on failure. */
TVX_API HANDLE config_new(const char *file, ...);
TVX_API BOOL config_ctor(HANDLE config, DWORD size);
TVX_API BOOL config_parse(HANDLE config);
TVX_API void config_delete(HANDLE config);

TVX_API BOOL config_define_section(HANDLE config, const char *name, const char *alignment,
                                   const char *id_expect, INT32 **rows);
TVX_API BOOL config_section(HANDLE config, const char *name, INT32 **rows);
TVX_API BOOL config_section_defined(HANDLE config, const char *name, INT32 *index);
TVX_API BOOL config_check_section(HANDLE config, const char *name);
TVX_API BOOL config_find_actual(HANDLE config, INT32 id_expect, INT32 **definition, INT32 **actual,
                                INT32 row, INT32 *found);
/* Stores values of row `row` (from 1), from entry `position` (1 is the identifier), one per
 * format letter ("b" BYTE, "f" double, "i" INT32, "s" char array) through the pointers that
 * follow. A letter whose entry is of another kind is used up without storing, and the pointer it
 * would have used serves the next letter. */
TVX_API BOOL config_extract_section(HANDLE config, const char *name, INT32 row, INT32 position,
                                    const char *letters, ...);
TVX_API BOOL config_print(HANDLE config, FILE *stream);
/* The text that row entries point into (valid while the config lives). */
TVX_API const char *config_text(HANDLE config);

TVX_API INT32 **section_vtoh(INT32 **rows);
TVX_API BOOL check_section_validity(HANDLE config, INT32 **definition, INT32 **actual);
TVX_API BOOL check_section_unknown(HANDLE config, INT32 **definition, INT32 **actual);
TVX_API BOOL check_section_missing(HANDLE config, INT32 **definition, INT32 **actual);
TVX_API BOOL check_row_validity(HANDLE config, const INT32 *definition, const INT32 *actual,
                                const char *identifier);

TVX_API BOOL valid(const char *identifier, const char *value, INT32 kind, const char *allowed,
                   const char *type);
TVX_API BOOL valid_type(INT32 kind, const char *type);
TVX_API BOOL valid_range(const char *allowed, const char *value, INT32 kind);
TVX_API BOOL valid_selection(const char *allowed, const char *value, INT32 kind);
TVX_API BOOL check_ival_range(const char *allowed, INT32 value);
TVX_API BOOL check_fval_range(const char *allowed, double value);
TVX_API BOOL check_ival_selection(const char *allowed, INT32 value);
TVX_API BOOL check_fval_selection(const char *allowed, double value);
TVX_API BOOL check_bval_selection(const char *allowed, BOOL value);
TVX_API BOOL check_sval_selection(const char *allowed, const char *value);

TVX_END_DECLS

#endif
