/* palmemory.h - null-tolerant memory and string wrappers of the portability layer.
 *
 * Everything on the store's side allocates, compares and copies through these
 * wrappers instead of the C library. Each wrapper gives a defined result for
 * null arguments instead of crashing; the rules differ from one operation to
 * the next and are part of the contract, so read each comment. Blocks come
 * from the C heap (malloc); release them with PalMemoryFree. Nothing here
 * raises or aborts; an allocation failure is a null result.
 *
 * Note the deliberate asymmetry: PalMemoryCmp orders a null first operand
 * before a non-null one (-1), the string comparisons order a null first
 * string after a non-null one (1).
 *
 * Thread safety: every wrapper may be called from any thread at any time (the
 * C heap is thread-safe); a block or string is read or written by one thread
 * at a time.
 */
#ifndef FANOUT_PALMEMORY_H
#define FANOUT_PALMEMORY_H

#include "palerror.h"
#include "paltypes.h"

FANOUT_BEGIN_DECLS

/* ------------------------------------------------------------------------ */
/* Memory. Sizes are PalInt32; a size of 0 or below never reaches the heap. */

/* A new block of `size` bytes, owned by the caller (PalMemoryFree). Size 0
 * (or negative) gives null without calling the allocator; null also when the
 * heap is exhausted. */
FANOUT_EXPORT void* PalMemoryMalloc(PalInt32 size) FANOUT_NOEXCEPT;

/* A new zero-filled block of count * size bytes, owned by the caller. Null
 * when count or size is 0 (or negative), when the product overflows, or when
 * the heap is exhausted. */
FANOUT_EXPORT void* PalMemoryCalloc(PalInt32 count, PalInt32 size) FANOUT_NOEXCEPT;

/* Resizes `address` to `size` bytes and returns the (possibly moved) block;
 * a null address allocates. Size 0 (or negative) gives null and deliberately
 * does NOT free `address`: the caller still owns it. On exhaustion null is
 * returned and `address` stays valid, as with the C library. */
FANOUT_EXPORT void* PalMemoryRealloc(void* address, PalInt32 size) FANOUT_NOEXCEPT;

/* Frees a block from this layer (or from malloc). Null is ignored. */
FANOUT_EXPORT void PalMemoryFree(void* address) FANOUT_NOEXCEPT;

/* Compares `size` bytes. The same pointer (both null included) gives 0
 * without reading memory; both non-null give the byte comparison (negative,
 * 0, positive; 0 for a size of 0 or below); only address1 non-null gives 1;
 * only address2 non-null gives -1. */
FANOUT_EXPORT PalInt32 PalMemoryCmp(const void* address1, const void* address2,
                                    PalInt32 size) FANOUT_NOEXCEPT;

/* Copies `size` bytes from address2 to address1 (the ranges must not
 * overlap). Does nothing when the pointers are equal, either is null, or size
 * is below 1. */
FANOUT_EXPORT void PalMemoryCpy(void* address1, const void* address2,
                                PalInt32 size) FANOUT_NOEXCEPT;

/* As PalMemoryCpy, but the ranges may overlap. */
FANOUT_EXPORT void PalMemoryMove(void* address1, const void* address2,
                                 PalInt32 size) FANOUT_NOEXCEPT;

/* Fills `size` bytes at `address` with the low 8 bits of `value`. Returns
 * PAL_OK, or PAL_ERR_INVALID_ARGUMENT (nothing written) when address is null
 * or size is 0 or below. nativeError is 0; traceLocation has no defined
 * value here and must not be read. */
FANOUT_EXPORT PalError PalMemorySet(void* address, PalInt32 size, PalInt32 value) FANOUT_NOEXCEPT;

/* ------------------------------------------------------------------------ */
/* Strings: narrow, NUL-terminated. Lengths and bounds are PalUint32.
 * The comparisons return the C library's result; a null first string gives 1
 * (it is tested first, so two nulls give 1), a null second string gives -1. */

/* strcmp with the null rules above. */
FANOUT_EXPORT PalInt32 PalStringCmp(const PalChar* s1, const PalChar* s2) FANOUT_NOEXCEPT;

/* strncmp over at most n characters, with the null rules above. */
FANOUT_EXPORT PalInt32 PalStringNCmp(const PalChar* s1, const PalChar* s2,
                                     PalUint32 n) FANOUT_NOEXCEPT;

/* Case-insensitive compare (strcasecmp, current locale), null rules above. */
FANOUT_EXPORT PalInt32 PalStringICmp(const PalChar* s1, const PalChar* s2) FANOUT_NOEXCEPT;

/* Case-insensitive compare of at most n characters (strncasecmp). */
FANOUT_EXPORT PalInt32 PalStringNICmp(const PalChar* s1, const PalChar* s2,
                                      PalUint32 n) FANOUT_NOEXCEPT;

/* Appends s2 to s1 (no bounds check: the caller sizes s1) and returns s1.
 * Null s1 gives null; null s2 leaves s1 unchanged. */
FANOUT_EXPORT PalChar* PalStringCat(PalChar* s1, const PalChar* s2) FANOUT_NOEXCEPT;

/* Appends at most min(strlen(s2), n) characters of s2 and a terminator to
 * s1; returns s1. Null s1 gives null; null s2 leaves s1 unchanged. */
FANOUT_EXPORT PalChar* PalStringNCat(PalChar* s1, const PalChar* s2, PalUint32 n) FANOUT_NOEXCEPT;

/* Copies source to destination (no bounds check) and returns destination.
 * Null destination gives null; null source makes destination "". */
FANOUT_EXPORT PalChar* PalStringCpy(PalChar* destination, const PalChar* source) FANOUT_NOEXCEPT;

/* strncpy: copies at most n characters, pads with NULs, and adds NO
 * terminator when source has n or more characters; returns destination.
 * Null destination gives null; null source makes destination "" (when n is
 * above 0; with n 0 nothing is written). */
FANOUT_EXPORT PalChar* PalStringNCpy(PalChar* destination, const PalChar* source,
                                     PalUint32 n) FANOUT_NOEXCEPT;

/* A new copy of s, owned by the caller (PalMemoryFree). Null s, or an
 * exhausted heap, gives null. */
FANOUT_EXPORT PalChar* PalStringDup(const PalChar* s) FANOUT_NOEXCEPT;

/* Length of s; 0 for null. */
FANOUT_EXPORT PalUint32 PalStringLen(const PalChar* s) FANOUT_NOEXCEPT;

/* First / last occurrence of ch in s (the terminator counts, as in strchr),
 * pointing into s, or null. Null s gives null. */
FANOUT_EXPORT PalChar* PalStringChr(const PalChar* s, PalInt32 ch) FANOUT_NOEXCEPT;
FANOUT_EXPORT PalChar* PalStringRChr(const PalChar* s, PalInt32 ch) FANOUT_NOEXCEPT;

/* First occurrence of s2 in s1 (pointing into s1), or null; null when either
 * is null. */
FANOUT_EXPORT PalChar* PalStringStr(const PalChar* s1, const PalChar* s2) FANOUT_NOEXCEPT;

/* First character of s1 that occurs in s2 (pointing into s1), or null; null
 * when either is null. */
FANOUT_EXPORT PalChar* PalStringStrpbrk(const PalChar* s1, const PalChar* s2) FANOUT_NOEXCEPT;

/* Length of the leading run of s1 without characters of s2. Null s1 gives -1;
 * null s2 gives the length of s1. */
FANOUT_EXPORT PalInt32 PalStringStrcspn(const PalChar* s1, const PalChar* s2) FANOUT_NOEXCEPT;

/* Length of the leading run of s1 made only of characters of s2. Null s1
 * gives -1; null s2 gives 0. */
FANOUT_EXPORT PalInt32 PalStringStrspn(const PalChar* s1, const PalChar* s2) FANOUT_NOEXCEPT;

/* vsprintf into `string`, unbounded: the caller sizes the buffer. Returns the
 * number of characters written, negative on an output error or when string
 * or format is null. */
FANOUT_EXPORT PalInt32 PalStringSprintf(PalChar* string, const PalChar* format, ...) FANOUT_NOEXCEPT
    FANOUT_PRINTF(2, 3);

FANOUT_END_DECLS

#endif /* FANOUT_PALMEMORY_H */
