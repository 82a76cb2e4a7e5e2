/* palerror.h - the portability layer's error record and result codes.
 *
 * Every layer operation that can fail returns a PalError by value. Callers
 * compare palError numerically with the PAL_* codes below; nativeError is the
 * errno of the failing system call (0 when the layer itself detected the
 * problem); traceLocation says which step of the reporting function failed
 * and is for tracing only.
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
#define PAL_ERR_NOT_SUPPORTED (-1)    /* not available on this platform (ACLs) */
#define PAL_WAIT_TIMEOUT (-2)         /* a System V semaphore call failed */
#define PAL_ERR_SYSTEM (-4)           /* a file, directory or stat call failed */
#define PAL_ERR_NO_MORE (-6)          /* a list iterator has no further element */
#define PAL_ERR_NO_ENTRY 2            /* no further directory entry / no temp name */
#define PAL_ERR_TOO_LONG 7            /* formatted output does not fit */
#define PAL_ERR_NO_MEMORY 12          /* an allocation inside the layer failed */
#define PAL_ERR_INVALID_ARGUMENT 21   /* a required argument was null or unusable */

/* Builds a PalError from its three fields, unchanged. Never fails. */
FANOUT_EXPORT PalError PalErrorCreate(PalInt32 palError, PalInt32 nativeError,
                                      PalInt32 traceLocation) FANOUT_NOEXCEPT;

FANOUT_END_DECLS

#endif /* FANOUT_PALERROR_H */
