/* palerror.h - the portability layer's error record and result codes.
 *
 * Every layer operation that can fail returns a PalError by value. Callers
 * compare palError numerically with the PAL_* codes below; nativeError is the
 * errno of the failing system call (0 when the layer itself detected the
 * problem); traceLocation says which step of the reporting function failed
 * and is for tracing only. PalErrorText turns a record into one line of text
 * for a person to read.
 *
 * Thread safety: the records are plain values, and every function here may
 * be called from any thread at any time.
 */
#ifndef FANOUT_PALERROR_H
#define FANOUT_PALERROR_H

#include "paltypes.h"

FANOUT_BEGIN_DECLS

typedef struct PalError {
    PalInt32 palError;      /* the layer's result code; PAL_OK on success */
    PalInt32 nativeError;   /* errno of the failing call, or 0 */
    PalInt32 traceLocation; /* failure point inside the reporting function */
} PalError;

#define PAL_OK 0
#define PAL_ERR_NOT_SUPPORTED (-1)  /* not available on this platform (ACLs) */
#define PAL_WAIT_TIMEOUT (-2)       /* a System V semaphore call failed */
#define PAL_ERR_SYSTEM (-4)         /* a file, directory or stat call failed */
#define PAL_ERR_NO_MORE (-6)        /* a list iterator has no further element */
#define PAL_ERR_NO_ENTRY 2          /* no further directory entry / no temp name */
#define PAL_ERR_TOO_LONG 7          /* formatted output does not fit */
#define PAL_ERR_NO_MEMORY 12        /* an allocation inside the layer failed */
#define PAL_ERR_INVALID_ARGUMENT 21 /* a required argument was null or unusable */
#ifndef PAL_ERR_BUSY
#define PAL_ERR_BUSY 16 /* the Depot: a live writer's entry (depot.h) */
#endif
#ifndef PAL_ERR_NO_SPACE
#define PAL_ERR_NO_SPACE 26 /* the Depot: the space balance is too small */
#endif

/* Builds a PalError from its three fields, unchanged. Never fails. */
FANOUT_EXPORT PalError PalErrorCreate(PalInt32 palError, PalInt32 nativeError,
                                      PalInt32 traceLocation) FANOUT_NOEXCEPT;

/* The name of a result code as written above ("PAL_ERR_SYSTEM", "PAL_OK"),
 * or null for a code this layer does not define. A static string: never
 * freed. */
FANOUT_EXPORT const PalChar* PalErrorName(PalInt32 palError) FANOUT_NOEXCEPT;

/* A buffer of this many bytes always holds the whole of PalErrorText's line. */
#define PAL_ERROR_TEXT_SIZE 160

/* Writes one line (no newline) saying what `error` means into `buffer` of
 * `size` bytes, as snprintf does: the text is cut to size - 1 characters and
 * always zero-terminated when size is not 0 (buffer may then be null). The
 * line is the code's name (PalErrorName, or "PAL error <n>" for an unknown
 * code), then the host's text for nativeError with its number, then the
 * step:
 *     "PAL_ERR_SYSTEM: Permission denied (errno 13, step 2)"
 *     "PAL_ERR_INVALID_ARGUMENT (step 3)"          nativeError 0
 *     "PAL_OK"                                     success
 * An errno without a text of the host's reads "unknown host error". The
 * step is that of the function that returned the record (see its comment).
 * Returns the length of the whole line, which is below PAL_ERROR_TEXT_SIZE.
 * Never fails. */
FANOUT_EXPORT PalUint32 PalErrorText(PalError error, PalChar* buffer,
                                     PalUint32 size) FANOUT_NOEXCEPT;

FANOUT_END_DECLS

#endif /* FANOUT_PALERROR_H */
