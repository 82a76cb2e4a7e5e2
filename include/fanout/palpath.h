/* palpath.h - path-name string operations of the portability layer.
 *
 * Paths may arrive in this platform's notation (separator '/', root '/') or
 * in a foreign one (separator '\\', drive prefixes such as "C:\\", network
 * prefixes beginning with two backslashes). The layer accepts native paths,
 * turns stray backslashes into slashes, and refuses paths whose prefix is
 * foreign. Both separators count when splitting a path into parent and name.
 *
 * A path is absolute when it begins with '/' (so, deliberately, the empty
 * string is absolute too), when it begins with two backslashes, or when ":\\"
 * occurs anywhere in it. It is prefix-native when it is relative or begins
 * with '/'.
 *
 * Everything works on caller-supplied buffers; nothing is allocated and
 * nothing reports an error record: refusal is a null result (or, for
 * PalPathGetName, the text "Failure").
 *
 * Thread safety: nothing here keeps state; any thread may call these on its
 * own buffers.
 */
#ifndef FANOUT_PALPATH_H
#define FANOUT_PALPATH_H

#include "paltypes.h"

FANOUT_BEGIN_DECLS

/* True when one of the three absolute prefixes applies; false for null. */
FANOUT_EXPORT PalBool PalPathIsPathAbsolute(const PalChar* path) FANOUT_NOEXCEPT;

/* Copies the absolute prefix of `path` into `prefix` (a buffer of
 * prefix_len bytes) and returns prefix: "/usr" for "/usr/lib", "\\\\srv" for
 * "\\\\srv\\share", "C:" for "C:\\x". A prefix that does not fit is cut to
 * prefix_len - 1 characters; the result is always terminated (with
 * prefix_len 0 nothing is written). Returns null, prefix untouched, when the
 * path has no absolute prefix or an argument is null. */
FANOUT_EXPORT PalChar* PalPathGetPrefix(PalChar* prefix, const PalChar* path,
                                        PalUint32 prefix_len) FANOUT_NOEXCEPT;

/* True for relative paths and for paths beginning with '/'; false for
 * foreign absolute paths. Null counts as relative (true). */
FANOUT_EXPORT PalBool PalPathIsPrefixNative(const PalChar* path) FANOUT_NOEXCEPT;

/* Writes an absolute form of relative_path into absolute_path (a buffer of
 * `length` bytes) and returns absolute_path. An absolute path is copied with
 * PalStringNCpy semantics (no terminator when it fills the bound). Otherwise
 * the result is the working directory, "/" and relative_path, not normalised.
 * CAUTION: the final append is bounded by `length`, not by the room left, so
 * the buffer must hold the working directory, the separator and the whole
 * relative path. Returns null (absolute_path set to "") when the working
 * directory cannot be read into `length` bytes; null when absolute_path is
 * null. A null relative_path yields the working directory and "/". */
FANOUT_EXPORT PalChar* PalPathMakeAbsolute(PalChar* absolute_path, const PalChar* relative_path,
                                           PalUint32 length) FANOUT_NOEXCEPT;

/* Copies the last component of `path` (after the later of the last '/' and
 * the last '\\') into `name`, bounded by name_len with PalStringNCpy
 * semantics, and returns name. A path ending in a separator gives "".
 * Deliberately, a path without any separator (or a null path) gives the text
 * "Failure" (also bounded by name_len), which callers cannot tell from a file
 * so named. Null name gives null. */
FANOUT_EXPORT PalChar* PalPathGetName(PalChar* name, const PalChar* path,
                                      PalUint32 name_len) FANOUT_NOEXCEPT;

/* Copies `path` into `name` bounded by name_len (PalStringNCpy) and cuts the
 * copy at its later last separator ('/' or '\\'); returns name. "a/b/c" gives
 * "a/b", "/file" gives "", a path without separator is its own parent, a
 * null path gives "". Null name gives null. */
FANOUT_EXPORT PalChar* PalPathGetParent(PalChar* name, const PalChar* path,
                                        PalUint32 name_len) FANOUT_NOEXCEPT;

/* Converts `path` in place to the native notation (every '\\' becomes '/')
 * and returns it. Returns null, path unchanged, when the path is not
 * prefix-native (a drive or network prefix) or is null. */
FANOUT_EXPORT PalChar* PalPathLocalize(PalChar* path) FANOUT_NOEXCEPT;

FANOUT_END_DECLS

#endif /* FANOUT_PALPATH_H */
