/* Report channels, the log writer, library start-up, version and time. */
#ifndef TVX_REPORT_H
#define TVX_REPORT_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* Identifiers for report_where_is. */
enum { REPORT_INFO = 0, REPORT_WARNING = 1, REPORT_ERROR = 2, REPORT_PANIC = 3 };

/* report_get_objects fills its array in reverse: panic, error, warning, information. */
enum { REPORT_OBJ_PANIC = 0, REPORT_OBJ_ERROR = 1, REPORT_OBJ_WARNING = 2, REPORT_OBJ_INFO = 3 };

typedef int (*report_destination)(const char *text);

typedef struct report {
  report_destination destination;
  const char *prefix; /* not owned */
} report;

/* Room for the log's full path, kept so that every message reopens the same file. */
#define TVX_LOG_PATH_MAX 4096

typedef struct tvx_globals {
  HANDLE module;
  report *reports[4]; /* as report_get_objects gives them */
  char log_path[TVX_LOG_PATH_MAX];
  BOOL log_on;
} tvx_globals;

/* Reasons given to the library entry point. */
enum {
  TVX_PROCESS_DETACH = 0,
  TVX_PROCESS_ATTACH = 1,
  TVX_THREAD_ATTACH = 2,
  TVX_THREAD_DETACH = 3
};

TVX_API report **report_new(report **out);
TVX_API void report_delete(report *r);
TVX_API void report_set_destination(report *r, report_destination fn);
TVX_API const char **report_get_prefix(report *r, const char **out);
TVX_API void report_set_prefix(report *r, const char *prefix);
TVX_API int report_send(report *r, const char *format, ...) __attribute__((format(printf, 2, 3)));
TVX_API report **report_where_is(INT32 id, report **out);
TVX_API report **report_get_objects(report **array);

TVX_API int tvx_log_reports(const char *text);
TVX_API BOOL tvx_globals_ctor(tvx_globals *globals, HANDLE module);
TVX_API BOOL tvx_globals_dtor(void);
TVX_API HANDLE tvx_allocate(DWORD size);
TVX_API BOOL tvx_entry_point(HANDLE module, INT32 reason);

TVX_API BOOL GetDllVersion(char *fileversion, char *productversion);

TVX_API DWORD time_centiseconds(void);
TVX_API BOOL delay_centiseconds(DWORD n);
TVX_API BOOL delay_seconds(DWORD n);

TVX_API void report_capture_start(void);
TVX_API void report_capture_stop(void);
TVX_API int report_capture_send(const char *text);

TVX_END_DECLS

#endif
