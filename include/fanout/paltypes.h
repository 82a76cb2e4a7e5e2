/* paltypes.h - the fixed-width type names of the portability layer.
 *
 * They are plain aliases of the host's integer and character types, so a
 * PalInt32 is an int32_t wherever it appears and callers need no casts.
 */
#ifndef FANOUT_PALTYPES_H
#define FANOUT_PALTYPES_H

#include <stdint.h>
#include <stddef.h>

#include "export.h"

typedef char PalInt8;         /* signed 8-bit (the plain character type) */
typedef int32_t PalInt32;     /* signed 32-bit */
typedef uint32_t PalUint32;   /* unsigned 32-bit */
typedef int64_t PalInt64;     /* signed 64-bit: file sizes and offsets */
typedef uint64_t PalUint64;   /* unsigned 64-bit */
typedef char PalChar;         /* a character of a narrow, NUL-terminated string */
typedef unsigned char PalBool; /* one byte: 0 false, anything else true */

#define PAL_TRUE ((PalBool)1)
#define PAL_FALSE ((PalBool)0)

#endif /* FANOUT_PALTYPES_H */
