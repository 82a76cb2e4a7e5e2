// marshal_internal.h - the byte-level primitives shared by the CDR marshaller's two files.
//
// marshal.cpp walks values and marshal_typecode.cpp walks type codes; both
// read and write through the inline helpers below. The encoder appends
// big-endian bytes to a growable buffer and pads with zeros; the decoder
// reads in the byte order of the current encapsulation (AdrBuffer::swap) and
// checks every read against AdrBuffer::length, which the type-code reader
// narrows to the end of the encapsulation it is inside. Alignment is counted
// from AdrBuffer::origin, the first octet of the current encapsulation (0 at
// top level). Every helper does nothing once the buffer holds an error.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

#include "fanout/runtime.h"

namespace fanout::cdr {

// The largest encoding the encoder produces (lengths are 32-bit).
constexpr uint64_t kMaxOutput = UINT32_MAX;

inline bool failed(const AdrBuffer* b) {
    return b->error != ADR_OK;
}

// Records the first error only: later failures are consequences of it.
inline void fail(AdrBuffer* b, int32_t code) {
    if (b->error == ADR_OK) b->error = code;
}

inline uint16_t bswap(uint16_t v) {
    return __builtin_bswap16(v);
}
inline uint32_t bswap(uint32_t v) {
    return __builtin_bswap32(v);
}
inline uint64_t bswap(uint64_t v) {
    return __builtin_bswap64(v);
}

// Converts between host order and big-endian (the order of everything the
// encoder writes); the same call works in both directions.
template <typename T>
inline T to_big(T v) {
    if constexpr (std::endian::native == std::endian::little) return bswap(v);
    return v;
}
// Converts a value read from a stream in the given order to host order.
template <typename T>
inline T from_stream(T v, bool little) {
    if constexpr (std::endian::native == std::endian::little) return little ? v : bswap(v);
    return little ? bswap(v) : v;
}

// Padding needed before a value of the given alignment (a power of two).
inline uint32_t pad_for(const AdrBuffer* b, uint32_t at, uint32_t align) {
    return (0u - (at - b->origin)) & (align - 1);
}

/* ---------------------------------------------------------------- encoder */

// Makes room for `extra` more bytes; false (with the error set) when the
// output would pass 4 GiB. Allocation failure raises from mg_realloc.
bool grow(AdrBuffer* b, uint64_t extra);

// Returns where `n` bytes may be written and counts them as written, or null
// after an error.
inline uint8_t* put_space(AdrBuffer* b, uint32_t n) {
    if (failed(b)) return nullptr;
    if (uint64_t{b->length} + n > b->capacity && !grow(b, n)) return nullptr;
    uint8_t* at = b->data + b->length;
    b->length += n;
    return at;
}

inline void put_align(AdrBuffer* b, uint32_t align) {
    uint32_t pad = pad_for(b, b->length, align);
    if (pad == 0) return;
    if (uint8_t* at = put_space(b, pad)) std::memset(at, 0, pad);
}

inline void put_u8(AdrBuffer* b, uint8_t v) {
    if (uint8_t* at = put_space(b, 1)) *at = v;
}

template <typename T>
inline void put_scalar(AdrBuffer* b, T v) {
    put_align(b, sizeof(T));
    T big = to_big(v);
    if (uint8_t* at = put_space(b, sizeof(T))) std::memcpy(at, &big, sizeof(T));
}
inline void put_u32(AdrBuffer* b, uint32_t v) {
    put_scalar<uint32_t>(b, v);
}

inline void put_bytes(AdrBuffer* b, const void* p, uint32_t n) {
    if (n == 0) return;
    if (uint8_t* at = put_space(b, n)) std::memcpy(at, p, n);
}

// A CDR string: its length including the NUL, then the bytes and the NUL.
// Null is written as "".
inline void put_string(AdrBuffer* b, const char* s) {
    if (s == nullptr) s = "";
    size_t n = std::strlen(s) + 1;
    if (n > UINT32_MAX - 8) return fail(b, ADR_ERR_TOO_LARGE);
    put_u32(b, static_cast<uint32_t>(n));
    put_bytes(b, s, static_cast<uint32_t>(n));
}

/* ---------------------------------------------------------------- decoder */

inline uint32_t remaining(const AdrBuffer* b) {
    return b->length - b->position;
}

// Skips the padding before a value of the given alignment.
inline bool get_align(AdrBuffer* b, uint32_t align) {
    if (failed(b)) return false;
    uint32_t pad = pad_for(b, b->position, align);
    if (pad > remaining(b)) {
        fail(b, ADR_ERR_TRUNCATED);
        return false;
    }
    b->position += pad;
    return true;
}

// Returns the next `n` bytes and moves past them, or null (truncated).
inline const uint8_t* get_space(AdrBuffer* b, uint32_t n) {
    if (failed(b)) return nullptr;
    if (n > remaining(b)) {
        fail(b, ADR_ERR_TRUNCATED);
        return nullptr;
    }
    const uint8_t* at = b->data + b->position;
    b->position += n;
    return at;
}

inline bool get_u8(AdrBuffer* b, uint8_t* v) {
    const uint8_t* at = get_space(b, 1);
    if (at == nullptr) return false;
    *v = *at;
    return true;
}

template <typename T>
inline bool get_scalar(AdrBuffer* b, T* v) {
    if (!get_align(b, sizeof(T))) return false;
    const uint8_t* at = get_space(b, sizeof(T));
    if (at == nullptr) return false;
    T raw;
    std::memcpy(&raw, at, sizeof(T));
    *v = from_stream(raw, b->swap != 0);
    return true;
}
inline bool get_u32(AdrBuffer* b, uint32_t* v) {
    return get_scalar<uint32_t>(b, v);
}

// Reads a CDR string in place: on success `s` points at its bytes inside the
// input (NUL-terminated, no NUL inside) and `n` is its length without the NUL.
bool get_string_view(AdrBuffer* b, const char** s, uint32_t* n);

/* ------------------------------------------------------------ shared walk */

// Counts one level of nesting for as long as it lives; past ADR_MAX_DEPTH
// the buffer fails with ADR_ERR_TOO_DEEP and ok() is false.
class DepthGuard {
  public:
    explicit DepthGuard(AdrBuffer* b) : b_(b) {
        if (++b_->depth > ADR_MAX_DEPTH) fail(b_, ADR_ERR_TOO_DEEP);
    }
    ~DepthGuard() { --b_->depth; }
    DepthGuard(const DepthGuard&) = delete;
    DepthGuard& operator=(const DepthGuard&) = delete;
    bool ok() const { return !failed(b_); }

  private:
    AdrBuffer* b_;
};

// Follows aliases to the type they name (null for a malformed alias).
inline TypeCode unalias(TypeCode tc) {
    for (int hops = 0; tc != nullptr && tc->kind == FANOUT_TK_ALIAS; ++hops) {
        if (hops > ADR_MAX_DEPTH || tc->member_count < 1 || tc->member_types == nullptr)
            return nullptr;
        tc = tc->member_types[0];
    }
    return tc;
}

// A lower bound of the bytes one value of tc takes on the wire, used to
// refuse element counts and value blocks the remaining input cannot hold.
uint32_t min_wire_size(TypeCode tc);

// Writes tc as a CDR TypeCode (null is written as tk_null).
void encode_typecode(AdrBuffer* b, TypeCode tc);
// Reads a CDR TypeCode and returns a reference the caller releases
// (TypeCode_release), or null with the error set.
TypeCode decode_typecode(AdrBuffer* b);

}  // namespace fanout::cdr
