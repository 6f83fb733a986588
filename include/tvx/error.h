/* The error stack, its categories and causes, the global error number and the reason text. */
#ifndef TVX_ERROR_H
#define TVX_ERROR_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* Error categories. */
enum {
  ERR_NONE = 0,
  ERR_INCONSISTENT = 1,
  ERR_NO_DATA = 2,
  ERR_OUT_OF_RANGE = 3,
  ERR_TOO_COMPLEX = 4,
  ERR_NO_SOLUTION = 5,
  ERR_POOR_SOLUTION = 6,
  ERR_SOLUTION_RANGE = 7,
  ERR_HARDWARE = 8,
  ERR_SYSTEM_IO = 9,
  ERR_HW_LIBRARY = 10,
  ERR_INTERRUPT = 11,
  ERR_MATHS = 12,
  ERR_OS = 13,
  ERR_VISILOG = 14,
  ERR_PROGRAMMER = 15,
  ERR_SYNTAX = 16,
  ERR_TIMEOUT = 17,
  ERR_NOT_SUPPORTED = 18
};

/* Printing modes. */
enum { ERR_MODE_BRIEF = 0, ERR_MODE_TRACEBACK = 1, ERR_MODE_PATH = 2, ERR_MODE_ADVICE = 3 };

typedef struct err_trace {
  struct err_trace *next; /* older entry */
  char *routine;
  char *text; /* may be NULL */
} err_trace;

typedef struct err_cause {
  struct err_cause *next;
  INT32 cause;
} err_cause;

typedef struct err_record {
  INT32 category;
  INT32 code;
  err_trace *trace;        /* newest first */
  err_cause *causes;       /* in order of appending */
  struct err_record *next; /* the record beneath */
} err_record;

/* The stack handle: the address of the top pointer. */
typedef err_record **err_stack;

/* One row of a cause table; a table ends with a row whose code is -1. */
typedef struct cause_entry {
  INT32 code;
  const char *text;
} cause_entry;

typedef struct cause_node {
  const cause_entry *table;
  struct cause_node *next;
} cause_node;

typedef const char *(*library_text_fn)(void);

TVX_API err_stack *err_where_is(err_stack *out);
TVX_API void err_terminal(err_stack stack, INT32 category, INT32 code, const char *routine,
                          const char *text);
TVX_API void err_edit(err_stack stack, INT32 category, INT32 code, const char *routine,
                      const char *text);
TVX_API void err_qualify(err_stack stack, const char *routine, const char *text);
TVX_API void err_append_cause(err_stack stack, INT32 cause);
TVX_API err_record *err_push(err_stack stack);
TVX_API void err_pop(err_stack stack);
TVX_API void err_reset_last(err_stack stack);
TVX_API void err_reset_all(err_stack stack);
TVX_API char **err_print_last(err_stack stack, INT32 mode, char **out);
TVX_API char **err_print_all(err_stack stack, INT32 mode, char **out);
TVX_API char **err_cause_last(err_stack stack, INT32 mode, char **out);
TVX_API char **err_cause_all(err_stack stack, INT32 mode, char **out);
TVX_API void err_exit(err_stack stack, INT32 status, INT32 mode);
TVX_API INT32 ap_exit(INT32 category);

TVX_API cause_node *cause_initialise(const cause_entry *table);
TVX_API BOOL cause_check_list(const cause_entry *table);
TVX_API const char *cause_message(INT32 cause);
TVX_API const cause_entry *where_is_tvx_causes(void);

TVX_API void set_error(INT32 number);
TVX_API INT32 error_code(void);
TVX_API void clear_error(void);
TVX_API const char *error_msg(void);
TVX_API const char *syserror_msg(void);
TVX_API void set_libraryerror(library_text_fn fn);
TVX_API void set_libraryreason(library_text_fn fn);

TVX_API void set_reason(const char *text);
TVX_API void append_reason(const char *text);
TVX_API const char *get_reason(void);

TVX_END_DECLS

#endif
