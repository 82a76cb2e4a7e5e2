// error.cpp - the portability layer's error record, and its text.
//
// Every fallible call of the layer ends by building its PalError here (or by
// filling the three fields directly, which is the same thing): the result
// code, the errno of the failing system call, and the failure point.
// PalErrorText renders a record for a person: the code's name, the host's
// text for the errno, and the step. It allocates nothing and reads only
// constant tables, so any thread may call it, in any state of the process.

#include <fanout/palerror.h>

#include <cstdio>
#include <cstring>

namespace {

struct CodeName {
    PalInt32 code;
    const char* name;
};

constexpr CodeName kNames[] = {
    {PAL_OK, "PAL_OK"},
    {PAL_ERR_NOT_SUPPORTED, "PAL_ERR_NOT_SUPPORTED"},
    {PAL_WAIT_TIMEOUT, "PAL_WAIT_TIMEOUT"},
    {PAL_ERR_SYSTEM, "PAL_ERR_SYSTEM"},
    {PAL_ERR_NO_MORE, "PAL_ERR_NO_MORE"},
    {PAL_ERR_NO_ENTRY, "PAL_ERR_NO_ENTRY"},
    {PAL_ERR_TOO_LONG, "PAL_ERR_TOO_LONG"},
    {PAL_ERR_NO_MEMORY, "PAL_ERR_NO_MEMORY"},
    {PAL_ERR_BUSY, "PAL_ERR_BUSY"},
    {PAL_ERR_INVALID_ARGUMENT, "PAL_ERR_INVALID_ARGUMENT"},
    {PAL_ERR_NO_SPACE, "PAL_ERR_NO_SPACE"},
};

}  // namespace

extern "C" FANOUT_EXPORT PalError PalErrorCreate(PalInt32 palError, PalInt32 nativeError,
                                                 PalInt32 traceLocation) noexcept {
    PalError e;
    e.palError = palError;
    e.nativeError = nativeError;
    e.traceLocation = traceLocation;
    return e;
}

extern "C" FANOUT_EXPORT const PalChar* PalErrorName(PalInt32 palError) noexcept {
    for (const CodeName& n : kNames) {
        if (n.code == palError) return n.name;
    }
    return nullptr;
}

extern "C" FANOUT_EXPORT PalUint32 PalErrorText(PalError error, PalChar* buffer,
                                                PalUint32 size) noexcept {
    char unknown[32];
    const char* name = PalErrorName(error.palError);
    if (name == nullptr) {
        std::snprintf(unknown, sizeof unknown, "PAL error %d", static_cast<int>(error.palError));
        name = unknown;
    }
    if (buffer == nullptr) size = 0;
    int n;
    if (error.palError == PAL_OK && error.nativeError == 0 && error.traceLocation == 0) {
        n = std::snprintf(buffer, size, "%s", name);
    } else if (error.nativeError == 0) {
        n = std::snprintf(buffer, size, "%s (step %d)", name,
                          static_cast<int>(error.traceLocation));
    } else {
        // strerrordesc_np answers from a constant table (no locale, no
        // buffer), and null for a number the host has no text for.
        const char* host = strerrordesc_np(error.nativeError);
        n = std::snprintf(buffer, size, "%s: %s (errno %d, step %d)", name,
                          host != nullptr ? host : "unknown host error",
                          static_cast<int>(error.nativeError),
                          static_cast<int>(error.traceLocation));
    }
    return n > 0 ? static_cast<PalUint32>(n) : 0;
}
