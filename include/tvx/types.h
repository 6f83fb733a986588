/* Shared types of the tvx interface. Compiles as C99 and as C++. */
#ifndef TVX_TYPES_H
#define TVX_TYPES_H

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#if defined(TVX_BUILDING_LIBRARY)
#define TVX_API __attribute__((visibility("default")))
#else
#define TVX_API
#endif

#ifdef __cplusplus
#define TVX_BEGIN_DECLS extern "C" {
#define TVX_END_DECLS }
#else
#define TVX_BEGIN_DECLS
#define TVX_END_DECLS
#endif

typedef int BOOL;
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

typedef uint8_t BYTE;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef int16_t INT16;
typedef int32_t INT32;

/* An opaque token for a memory block: a slot of the library's own block table and a generation
 * count, never an address. NULL is no block. */
typedef void *HANDLE;

#endif
