// error.cpp - the portability layer's error record.
//
// Every fallible call of the layer ends by building its PalError here (or by
// filling the three fields directly, which is the same thing): the result
// code, the errno of the failing system call, and the failure point.

#include <fanout/palerror.h>

extern "C" FANOUT_EXPORT PalError PalErrorCreate(PalInt32 palError, PalInt32 nativeError,
                                                 PalInt32 traceLocation) noexcept {
    PalError e;
    e.palError = palError;
    e.nativeError = nativeError;
    e.traceLocation = traceLocation;
    return e;
}
