/* paltypes.h - the fixed-width type names of the portability layer.
 *
 * They are plain aliases of the host's integer and character types, so a
 * PalInt32 is an int32_t wherever it appears and callers need no casts.
 *
 * Thread safety: types only; nothing here has state.
 */
#ifndef FANOUT_PALTYPES_H
#define FANOUT_PALTYPES_H

#include <stdint.h>
#include <stddef.h>

#include "export.h"

typedef char PalInt8;          /* signed 8-bit (the plain character type) */
typedef int32_t PalInt32;      /* signed 32-bit */
typedef uint8_t PalUint8;      /* unsigned 8-bit: raw bytes */
typedef uint32_t PalUint32;    /* unsigned 32-bit */
typedef int64_t PalInt64;      /* signed 64-bit: file sizes and offsets */
typedef uint64_t PalUint64;    /* unsigned 64-bit */
typedef char PalChar;          /* a character of a narrow, NUL-terminated string */
typedef unsigned char PalBool; /* one byte: 0 false, anything else true */

#define PAL_TRUE ((PalBool)1)
#define PAL_FALSE ((PalBool)0)

/* The portability layer never raises: its C++ definitions are noexcept, and
 * the declarations say so to C++ callers (C sees nothing). It goes before an
 * attribute such as FANOUT_PRINTF: "f(...) FANOUT_NOEXCEPT FANOUT_PRINTF(1, 2);". */
#ifndef FANOUT_NOEXCEPT
#ifdef __cplusplus
#define FANOUT_NOEXCEPT noexcept
#else
#define FANOUT_NOEXCEPT
#endif
#endif

/* Size of the path and name buffers the layer works with (file-info names,
 * directory entries, the working directory, temporary names). */
#define PAL_PATH_MAX 1024

#endif /* FANOUT_PALTYPES_H */
