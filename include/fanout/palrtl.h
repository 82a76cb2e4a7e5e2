/* palrtl.h - loading shared libraries at run time.
 *
 * A thin layer over the host's dynamic loader. Libraries are loaded with
 * immediate binding and their symbols made globally visible. A short name
 * such as "z" is turned into the file name "libz.so"; a name that contains a
 * '.' or a '/' is a file name or path and is passed to the loader as given.
 * The handles are the loader's own, with nothing added.
 *
 * Thread safety: any thread may load, resolve and unload at any time (the
 * loader serialises them); PalRtlError's text is the calling thread's own.
 */
#ifndef FANOUT_PALRTL_H
#define FANOUT_PALRTL_H

#include "paltypes.h"

FANOUT_BEGIN_DECLS

/* An open library: the host loader's opaque handle. */
typedef void* PalRtlHandle;

/* Loads a shared library and returns its handle, or null on failure (the
 * reason is then available from PalRtlError). A name without '.' and '/' is
 * loaded as "lib<name>.so"; other names are used as given, cut to 511
 * characters. Only the name "pthread" has a second try, "libpthread.so.0",
 * when "libpthread.so" cannot be loaded. A null name gives null. Release the
 * handle with PalRtlUnload. */
FANOUT_EXPORT PalRtlHandle PalRtlLoad(const PalChar* name) FANOUT_NOEXCEPT;

/* Returns the address of `symbol` in the library `handle`, or null when it is
 * not found or `symbol` is null. A null handle searches the process's global
 * scope, as the host loader does. The address is valid while the library
 * stays loaded. */
FANOUT_EXPORT void* PalRtlResolve(PalRtlHandle handle, const PalChar* symbol) FANOUT_NOEXCEPT;

/* Unloads a library loaded by PalRtlLoad. The loader's result is not
 * reported; a null handle is ignored. */
FANOUT_EXPORT void PalRtlUnload(PalRtlHandle handle) FANOUT_NOEXCEPT;

/* Returns the loader's text for its last error and clears it, or the literal
 * "(No Error)" when there is none. The text belongs to the loader and is
 * valid until the next loader call in this thread; never null. */
FANOUT_EXPORT const PalChar* PalRtlError(void) FANOUT_NOEXCEPT;

FANOUT_END_DECLS

#endif /* FANOUT_PALRTL_H */
