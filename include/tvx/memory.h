/* Guarded memory blocks: handle blocks (relocatable, locked to reach) and standard blocks (fixed),
 * with their headers, accounting and traces. */
#ifndef TVX_MEMORY_H
#define TVX_MEMORY_H

#include "tvx/types.h"

TVX_BEGIN_DECLS

/* The mark in a block's header and in its trailing guard word. */
#define TVX_BLOCK_MARK 0x5A4B5154u
/* Header words before the caller's bytes, plus the guard word after them. */
#define TVX_BLOCK_HEADER 24
#define TVX_BLOCK_OVERHEAD 28

/* Memory classes of the library's records. */
enum {
  MEM_PLAIN = 0,
  MEM_NAME = 100,
  MEM_RS232 = 1007,
  MEM_CS71 = 1008,
  MEM_SERVER = 1010,
  MEM_ATLINK = 1024,
  MEM_CAMERA = 1025,
  MEM_CAMPROG = 1026,
  MEM_CONFIG = 1030,
  MEM_CSP = 1031,
  MEM_GDT = 1037,
  MEM_IMAGE = 1038,
  MEM_LIST = 1039,
  MEM_SYSPARAMS = 1040,
  MEM_REGION = 1042,
  MEM_PIXEL_TABLE = 2000,
  MEM_LISTNODE = 2001,
  MEM_SYSPARAM = 2002,
  MEM_GAINSETTING = 2003
};

/* The six-word header of both kinds of block. */
typedef struct memrec {
  DWORD sysmemid;
  DWORD address;
  DWORD size;
  DWORD count;
  DWORD guard_offset;
  INT32 memclass;
} memrec;
typedef memrec stringrec;

TVX_API HANDLE handle_allocate(INT32 numelements, INT32 elementsize, INT32 memclass);
TVX_API void *handle_lock(HANDLE handle, const char *caller);
TVX_API void handle_unlock(HANDLE handle, const char *caller);
TVX_API void handle_free(HANDLE handle, const char *caller);

TVX_API void *standard_allocate(INT32 numelements, INT32 elementsize, INT32 memclass);
TVX_API void standard_free(void *pointer, const char *caller);

TVX_API INT32 memrec_ctor(memrec *rec, HANDLE handle, DWORD size, INT32 memclass);
TVX_API INT32 stringrec_ctor(stringrec *rec, HANDLE handle, DWORD size, INT32 memclass);
TVX_API BOOL memrec_valid(const memrec *rec, INT32 *memclass);
TVX_API BOOL stringrec_valid(const stringrec *rec, INT32 *memclass);
TVX_API BOOL memrec_overrun(const memrec *rec, INT32 *memclass);
TVX_API BOOL stringrec_overrun(const stringrec *rec, INT32 *memclass);
TVX_API void memrec_print(const memrec *rec, FILE *stream);
TVX_API void stringrec_print(const stringrec *rec, FILE *stream);

TVX_API void account_allocate_block(const memrec *rec);
TVX_API void account_free_block(const memrec *rec);
TVX_API void account_allocate_string(const stringrec *rec);
TVX_API void account_free_string(const stringrec *rec);
TVX_API INT32 total_allocated(void);
TVX_API INT32 number_of_allocations(void);
TVX_API INT32 total_string_allocated(void);
TVX_API INT32 number_of_strings(void);

TVX_API char *string_duplicate(const char *text);
TVX_API char *make_str(const char *format, ...) __attribute__((format(printf, 1, 2)));

TVX_END_DECLS

#endif
