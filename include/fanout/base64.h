/* base64.h - the base64 (MIME) codec used for the Depot's entry files.
 *
 * Encode writes one unbroken line of base64 text; Decode accepts text with
 * line breaks and blanks interspersed (MIME style) and drops them. Both
 * allocate their output through the portability layer: the caller owns it
 * and frees it with PalMemoryFree. Neither raises.
 *
 * Decode's length rule is part of its contract: every group of four
 * characters counts three bytes, padding included ("QQ==" gives three bytes,
 * the first being the encoded one), and one to three left-over characters
 * add their own count. Callers that need the exact byte count carry it
 * separately.
 *
 * Thread safety: neither function keeps state; any thread may call them at
 * any time on its own buffers.
 */
#ifndef FANOUT_BASE64_H
#define FANOUT_BASE64_H

#include "palerror.h"
#include "paltypes.h"

FANOUT_BEGIN_DECLS

/* The alphabet, value 0 to 63 in order. */
FANOUT_EXPORT extern const PalChar Base64Digits[65];

/* Encodes `len` bytes at `data` (null is allowed when len is 0).
 * *out receives a new block holding the text, zero-filled beyond it (so it is
 * NUL-terminated), and *outLen its length, 4 * ceil(len / 3). When the block
 * cannot be allocated, *out is null and *outLen 0. Null out or outLen: no-op. */
FANOUT_EXPORT void Encode(const void* data, PalUint32 len, PalChar** out, PalUint32* outLen);

/* Decodes `len` characters at `text`, skipping the characters IsBadMimeChar
 * accepts. Characters outside the alphabet are not rejected: they decode to
 * the low bits of their table values. *out receives a new block (zero-filled
 * beyond the bytes written) and *outLen the count under the rule above.
 * Returns PAL_OK, or PAL_ERR_NO_MEMORY with *out null when the block cannot
 * be allocated, or PAL_ERR_INVALID_ARGUMENT for a null out/outLen (or a null
 * text with len above 0). */
FANOUT_EXPORT PalError Decode(const PalChar* text, PalUint32 len, PalUint8** out,
                              PalUint32* outLen);

/* Encodes one group of `count` (1 to 3) bytes as four characters at dest,
 * padding with '=' for a short group. */
FANOUT_EXPORT void EncodeToBuffer(const PalUint8* group, PalInt32 count, PalChar* dest);

/* Decodes four decode-table values into three bytes at dest; returns 3. */
FANOUT_EXPORT PalInt32 DecodeToBuffer(const PalUint8* group, PalInt32 count, PalUint8* dest);

/* True for the characters a MIME decoder skips: codes 7 to 13 and blank. */
FANOUT_EXPORT PalBool IsBadMimeChar(PalChar c);

FANOUT_END_DECLS

#endif /* FANOUT_BASE64_H */
