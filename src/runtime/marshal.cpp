// marshal.cpp - the CDR marshaller: values in memory to bytes and back, driven by type codes.
//
// An AdrBuffer is either an encoder, which appends big-endian CDR to a
// growable mg_malloc block with zero padding (so one value always gives the
// same bytes), or a decoder over caller-owned input. The decoder treats its
// input as hostile: every read is bounds-checked, every count is checked
// against the bytes left before anything is allocated, booleans must be 0 or
// 1, nesting is bounded by ADR_MAX_DEPTH, and any failure is an ADR_ERR_*
// code left in the buffer, never a raise (only memory exhaustion raises, from
// the allocator). Values follow the C layouts of runtime.h: sequences are
// {maximum, length, buffer}, strings char*, anys {type, value}; structs and
// exceptions are walked member by member through their type codes' offsets.
// Type codes themselves are written and read in marshal_typecode.cpp. The
// wire format is described in docs/wire-format.md.

#include <cstdint>
#include <cstring>
#include <vector>

#include "fanout/runtime.h"
#include "posix/prefault.h"
#include "runtime/marshal_internal.h"
#include "runtime/typecode_internal.h"

namespace fanout::cdr {

using fanout::tc_size;

bool grow(AdrBuffer* b, uint64_t extra) {
    uint64_t need = uint64_t{b->length} + extra;
    if (need > kMaxOutput) {
        fail(b, ADR_ERR_TOO_LARGE);
        return false;
    }
    uint64_t cap = b->capacity < 64 ? 64 : uint64_t{b->capacity} * 2;
    if (cap < need) cap = need;
    if (cap > kMaxOutput) cap = kMaxOutput;
    b->data = static_cast<uint8_t*>(mg_realloc(b->data, static_cast<size_t>(cap)));
    b->capacity = static_cast<uint32_t>(cap);
    // A large value (an octet list) is about to be copied in whole.
    prefault_for_write(b->data + b->length, static_cast<size_t>(extra));
    return true;
}

bool get_string_view(AdrBuffer* b, const char** s, uint32_t* n) {
    uint32_t len = 0;
    if (!get_u32(b, &len)) return false;
    // The length counts the NUL, so 0 is malformed; a length beyond the
    // input is refused before anything is read.
    if (len == 0) {
        fail(b, ADR_ERR_BAD_STRING);
        return false;
    }
    if (len > remaining(b)) {
        fail(b, ADR_ERR_BAD_LENGTH);
        return false;
    }
    const auto* at = reinterpret_cast<const char*>(b->data + b->position);
    if (at[len - 1] != '\0' || std::memchr(at, '\0', len - 1) != nullptr) {
        fail(b, ADR_ERR_BAD_STRING);
        return false;
    }
    b->position += len;
    *s = at;
    *n = len - 1;
    return true;
}

namespace {

void encode_value(AdrBuffer* b, TypeCode tc, const void* v);
void decode_value(AdrBuffer* b, TypeCode tc, void* v);

/* ---------------------------------------------------------------- strings */

void decode_string(AdrBuffer* b, uint32_t bound, char** out) {
    const char* s = nullptr;
    uint32_t n = 0;
    if (!get_string_view(b, &s, &n)) return;
    if (bound != 0 && n > bound) return fail(b, ADR_ERR_BAD_LENGTH);
    auto* copy = static_cast<char*>(mg_malloc(n + 1));
    std::memcpy(copy, s, n + 1);
    *out = copy;
}

void encode_string(AdrBuffer* b, uint32_t bound, const char* s) {
    if (bound != 0 && s != nullptr && std::strlen(s) > bound) return fail(b, ADR_ERR_BAD_LENGTH);
    put_string(b, s);
}

/* ------------------------------------------------------ object references */

// An IOR: the type id, then the tagged profiles (tag, then the profile body
// as a sequence of octets). Nil is an empty type id with no profiles.
void encode_object(AdrBuffer* b, Object obj) {
    put_string(b, Object_type_id(obj));
    uint32_t count = Object_profile_count(obj);
    put_u32(b, count);
    for (uint32_t i = 0; i < count && !failed(b); ++i) {
        const ObjectProfile* p = Object_profile(obj, i);
        if (p == nullptr) return fail(b, ADR_ERR_BAD_LENGTH);
        put_u32(b, p->tag);
        put_u32(b, p->data.length);
        if (p->data.length != 0 && p->data.buffer == nullptr) return fail(b, ADR_ERR_BAD_LENGTH);
        put_bytes(b, p->data.buffer, p->data.length);
    }
}

void decode_object(AdrBuffer* b, Object* out) {
    const char* type_id = nullptr;
    uint32_t id_len = 0;
    uint32_t count = 0;
    if (!get_string_view(b, &type_id, &id_len) || !get_u32(b, &count)) return;
    // Each profile takes at least its tag and its length word.
    if (count > remaining(b) / 8) return fail(b, ADR_ERR_BAD_LENGTH);
    std::vector<ObjectProfile> profiles(count);
    for (ObjectProfile& p : profiles) {
        uint32_t len = 0;
        if (!get_u32(b, &p.tag) || !get_u32(b, &len)) return;
        const uint8_t* body = get_space(b, len);
        if (body == nullptr) return fail(b, ADR_ERR_BAD_LENGTH);
        p.data.maximum = p.data.length = len;
        // Object_new copies the bytes; the input itself is never written.
        p.data.buffer = const_cast<uint8_t*>(body);
    }
    if (id_len == 0 && count == 0) {
        *out = nullptr;
        return;
    }
    *out = Object_new(type_id, profiles.data(), count);
}

/* -------------------------------------------------------------- sequences */

// Scalar elements travel as one block: octets and chars as they are, wider
// scalars byte-swapped in bulk. Returns the element width, or 0 when the
// elements need walking one by one (booleans are walked: their octets are
// checked).
uint32_t bulk_width(TypeCode elem) {
    switch (elem->kind) {
        case FANOUT_TK_OCTET:
        case FANOUT_TK_CHAR:
            return 1;
        case FANOUT_TK_SHORT:
        case FANOUT_TK_USHORT:
            return 2;
        case FANOUT_TK_LONG:
        case FANOUT_TK_ULONG:
        case FANOUT_TK_FLOAT:
            return 4;
        case FANOUT_TK_LONGLONG:
        case FANOUT_TK_ULONGLONG:
        case FANOUT_TK_DOUBLE:
            return 8;
        default:
            return 0;
    }
}

template <typename T>
void swap_block(T* p, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) p[i] = bswap(p[i]);
}

void swap_block(void* p, uint32_t width, uint32_t count) {
    switch (width) {
        case 2:
            return swap_block(static_cast<uint16_t*>(p), count);
        case 4:
            return swap_block(static_cast<uint32_t*>(p), count);
        case 8:
            return swap_block(static_cast<uint64_t*>(p), count);
        default:
            return;
    }
}

void encode_sequence(AdrBuffer* b, TypeCode tc, const GenericSeq* s) {
    DepthGuard depth(b);
    if (!depth.ok()) return;
    TypeCode elem = unalias(tc->member_types ? tc->member_types[0] : nullptr);
    if (elem == nullptr) return fail(b, ADR_ERR_BAD_TYPECODE);
    uint32_t count = s->length;
    if (tc->bound != 0 && count > tc->bound) return fail(b, ADR_ERR_BAD_LENGTH);
    if (count != 0 && s->buffer == nullptr) return fail(b, ADR_ERR_BAD_LENGTH);
    put_u32(b, count);
    if (count == 0) return;
    if (uint32_t width = bulk_width(elem)) {
        uint64_t bytes = uint64_t{count} * width;
        if (bytes > kMaxOutput) return fail(b, ADR_ERR_TOO_LARGE);
        put_align(b, width);
        uint8_t* at = put_space(b, static_cast<uint32_t>(bytes));
        if (at == nullptr) return;
        std::memcpy(at, s->buffer, static_cast<size_t>(bytes));
        if constexpr (std::endian::native == std::endian::little) swap_block(at, width, count);
        return;
    }
    const auto* p = static_cast<const uint8_t*>(s->buffer);
    for (uint32_t i = 0; i < count && !failed(b); ++i)
        encode_value(b, elem, p + size_t{i} * elem->size);
}

void decode_sequence(AdrBuffer* b, TypeCode tc, GenericSeq* s) {
    DepthGuard depth(b);
    if (!depth.ok()) return;
    TypeCode elem = unalias(tc->member_types ? tc->member_types[0] : nullptr);
    if (elem == nullptr) return fail(b, ADR_ERR_BAD_TYPECODE);
    uint32_t count = 0;
    if (!get_u32(b, &count)) return;
    if (tc->bound != 0 && count > tc->bound) return fail(b, ADR_ERR_BAD_LENGTH);
    s->maximum = s->length = 0;
    s->buffer = nullptr;
    if (count == 0) return;
    if (uint32_t width = bulk_width(elem)) {
        if (!get_align(b, width)) return;
        if (count > remaining(b) / width) return fail(b, ADR_ERR_BAD_LENGTH);
        size_t bytes = size_t{count} * width;
        void* block = mg_malloc(bytes);
        prefault_for_write(block, bytes);
        std::memcpy(block, get_space(b, static_cast<uint32_t>(bytes)), bytes);
        if (width > 1 && b->swap == (std::endian::native == std::endian::big ? 1 : 0))
            swap_block(block, width, count);
        s->buffer = block;
        s->maximum = s->length = count;
        return;
    }
    // Every element takes at least one byte, so the count alone can never
    // justify more than a constant multiple of the input in memory.
    uint32_t least = min_wire_size(elem);
    if (least == 0) least = 1;
    if (count > remaining(b) / least) return fail(b, ADR_ERR_BAD_LENGTH);
    // Zeroed elements, counted in full from the start, so that a decoding
    // stopped part way leaves a value kel_free_generic can release.
    auto* p = static_cast<uint8_t*>(mg_calloc(count, elem->size == 0 ? 1 : elem->size));
    s->buffer = p;
    s->maximum = s->length = count;
    for (uint32_t i = 0; i < count && !failed(b); ++i)
        decode_value(b, elem, p + size_t{i} * elem->size);
}

/* ------------------------------------------------------------------- anys */

bool has_value(TypeCode tc) {
    return tc != nullptr && tc->kind != FANOUT_TK_NULL && tc->kind != FANOUT_TK_VOID;
}

void encode_any(AdrBuffer* b, const Any* a) {
    DepthGuard depth(b);
    if (!depth.ok()) return;
    encode_typecode(b, a->_type);
    if (!has_value(a->_type) || failed(b)) return;
    if (a->_value != nullptr) return encode_value(b, a->_type, a->_value);
    // A typed any without a value block is written as the zero value of its
    // type, so that the bytes still decode.
    std::vector<uint8_t> zero(tc_size(a->_type) + 1);
    encode_value(b, a->_type, zero.data());
}

void decode_any(AdrBuffer* b, Any* a) {
    DepthGuard depth(b);
    if (!depth.ok()) return;
    a->_type = nullptr;
    a->_value = nullptr;
    TypeCode tc = decode_typecode(b);
    if (tc == nullptr) return;
    a->_type = tc;
    if (!has_value(tc)) return;
    if (min_wire_size(tc) > remaining(b)) return fail(b, ADR_ERR_TRUNCATED);
    a->_value = mg_calloc(1, tc_size(tc));
    decode_value(b, tc, a->_value);
}

/* ------------------------------------------------------------------ walks */

void encode_members(AdrBuffer* b, TypeCode tc, const uint8_t* base) {
    DepthGuard depth(b);
    if (!depth.ok()) return;
    if (tc->member_count != 0 && (tc->member_types == nullptr || tc->member_offsets == nullptr))
        return fail(b, ADR_ERR_BAD_TYPECODE);
    for (uint32_t i = 0; i < tc->member_count && !failed(b); ++i)
        encode_value(b, tc->member_types[i], base + tc->member_offsets[i]);
}

void decode_members(AdrBuffer* b, TypeCode tc, uint8_t* base) {
    DepthGuard depth(b);
    if (!depth.ok()) return;
    if (tc->member_count != 0 && (tc->member_types == nullptr || tc->member_offsets == nullptr))
        return fail(b, ADR_ERR_BAD_TYPECODE);
    for (uint32_t i = 0; i < tc->member_count && !failed(b); ++i)
        decode_value(b, tc->member_types[i], base + tc->member_offsets[i]);
}

template <typename T>
T load(const void* v) {
    T x;
    std::memcpy(&x, v, sizeof(T));
    return x;
}

void encode_value(AdrBuffer* b, TypeCode tc, const void* v) {
    if (failed(b)) return;
    if (tc == nullptr) return fail(b, ADR_ERR_BAD_TYPECODE);
    switch (tc->kind) {
        case FANOUT_TK_NULL:
        case FANOUT_TK_VOID:
            return;
        case FANOUT_TK_SHORT:
        case FANOUT_TK_USHORT:
            return put_scalar(b, load<uint16_t>(v));
        case FANOUT_TK_LONG:
        case FANOUT_TK_ULONG:
        case FANOUT_TK_FLOAT:
        case FANOUT_TK_ENUM:
            return put_scalar(b, load<uint32_t>(v));
        case FANOUT_TK_LONGLONG:
        case FANOUT_TK_ULONGLONG:
        case FANOUT_TK_DOUBLE:
            return put_scalar(b, load<uint64_t>(v));
        // Any non-zero boolean in memory is written as 1: only 0 and 1 are valid.
        case FANOUT_TK_BOOLEAN:
            return put_u8(b, *static_cast<const uint8_t*>(v) != 0 ? 1 : 0);
        case FANOUT_TK_CHAR:
        case FANOUT_TK_OCTET:
            return put_u8(b, *static_cast<const uint8_t*>(v));
        case FANOUT_TK_STRING:
            return encode_string(b, tc->bound, load<const char*>(v));
        case FANOUT_TK_ANY:
            return encode_any(b, static_cast<const Any*>(v));
        case FANOUT_TK_TYPECODE:
            return encode_typecode(b, load<TypeCode>(v));
        case FANOUT_TK_OBJREF:
            return encode_object(b, load<Object>(v));
        case FANOUT_TK_STRUCT:
        case FANOUT_TK_EXCEPT:
            return encode_members(b, tc, static_cast<const uint8_t*>(v));
        case FANOUT_TK_SEQUENCE:
            return encode_sequence(b, tc, static_cast<const GenericSeq*>(v));
        case FANOUT_TK_ALIAS: {
            DepthGuard depth(b);
            if (!depth.ok()) return;
            if (tc->member_count < 1 || tc->member_types == nullptr)
                return fail(b, ADR_ERR_BAD_TYPECODE);
            return encode_value(b, tc->member_types[0], v);
        }
        default:
            return fail(b, ADR_ERR_UNSUPPORTED);
    }
}

void decode_value(AdrBuffer* b, TypeCode tc, void* v) {
    if (failed(b)) return;
    if (tc == nullptr) return fail(b, ADR_ERR_BAD_TYPECODE);
    switch (tc->kind) {
        case FANOUT_TK_NULL:
        case FANOUT_TK_VOID:
            return;
        case FANOUT_TK_SHORT:
        case FANOUT_TK_USHORT: {
            uint16_t x = 0;
            if (get_scalar(b, &x)) std::memcpy(v, &x, sizeof x);
            return;
        }
        case FANOUT_TK_LONG:
        case FANOUT_TK_ULONG:
        case FANOUT_TK_FLOAT:
        case FANOUT_TK_ENUM: {
            uint32_t x = 0;
            if (!get_scalar(b, &x)) return;
            // An enumerator beyond the type's list is as malformed as a bad length.
            if (tc->kind == FANOUT_TK_ENUM && x >= tc->member_count)
                return fail(b, ADR_ERR_BAD_LENGTH);
            std::memcpy(v, &x, sizeof x);
            return;
        }
        case FANOUT_TK_LONGLONG:
        case FANOUT_TK_ULONGLONG:
        case FANOUT_TK_DOUBLE: {
            uint64_t x = 0;
            if (get_scalar(b, &x)) std::memcpy(v, &x, sizeof x);
            return;
        }
        case FANOUT_TK_BOOLEAN: {
            uint8_t x = 0;
            if (!get_u8(b, &x)) return;
            if (x > 1) return fail(b, ADR_ERR_BAD_BOOLEAN);
            *static_cast<uint8_t*>(v) = x;
            return;
        }
        case FANOUT_TK_CHAR:
        case FANOUT_TK_OCTET:
            get_u8(b, static_cast<uint8_t*>(v));
            return;
        case FANOUT_TK_STRING:
            return decode_string(b, tc->bound, static_cast<char**>(v));
        case FANOUT_TK_ANY:
            return decode_any(b, static_cast<Any*>(v));
        case FANOUT_TK_TYPECODE: {
            TypeCode t = decode_typecode(b);
            if (t != nullptr) std::memcpy(v, &t, sizeof t);
            return;
        }
        case FANOUT_TK_OBJREF:
            return decode_object(b, static_cast<Object*>(v));
        case FANOUT_TK_STRUCT:
        case FANOUT_TK_EXCEPT:
            return decode_members(b, tc, static_cast<uint8_t*>(v));
        case FANOUT_TK_SEQUENCE:
            return decode_sequence(b, tc, static_cast<GenericSeq*>(v));
        case FANOUT_TK_ALIAS: {
            DepthGuard depth(b);
            if (!depth.ok()) return;
            if (tc->member_count < 1 || tc->member_types == nullptr)
                return fail(b, ADR_ERR_BAD_TYPECODE);
            return decode_value(b, tc->member_types[0], v);
        }
        default:
            return fail(b, ADR_ERR_UNSUPPORTED);
    }
}

void walk(AdrBuffer* b, TypeCode tc, void* v) {
    if (b->decoding) {
        decode_value(b, tc, v);
    } else {
        encode_value(b, tc, v);
    }
}

}  // namespace
}  // namespace fanout::cdr

using namespace fanout::cdr;

extern "C" {

FANOUT_EXPORT AdrBuffer* adr_init_encode_buffer(void) {
    auto* b = static_cast<AdrBuffer*>(mg_calloc(1, sizeof(AdrBuffer)));
    // Data is allocated at once so that an encoder that wrote nothing still
    // hands out a block its caller can mg_free.
    b->data = static_cast<uint8_t*>(mg_malloc(256));
    b->capacity = 256;
    return b;
}

FANOUT_EXPORT AdrBuffer* adr_init_decode_buffer(const void* data, uint32_t length) {
    auto* b = static_cast<AdrBuffer*>(mg_calloc(1, sizeof(AdrBuffer)));
    b->data = static_cast<uint8_t*>(const_cast<void*>(data));
    b->length = data == nullptr ? 0 : length;
    b->decoding = 1;
    return b;
}

FANOUT_EXPORT void adr_free_buf(AdrBuffer* buf) {
    if (buf == nullptr) return;
    if (!buf->decoding) mg_free(buf->data);
    mg_free(buf);
}

FANOUT_EXPORT void marshal_item(AdrBuffer* buf, TypeCode tc, void* value) {
    if (buf == nullptr || failed(buf)) return;
    if (value == nullptr) return fail(buf, ADR_ERR_UNSUPPORTED);
    walk(buf, tc, value);
}

// A struct has no framing in CDR: these only count its nesting. The count
// moves even after an error so that every start/end pair stays balanced.
FANOUT_EXPORT void adr_start_struct(AdrBuffer* buf) {
    if (buf == nullptr) return;
    if (++buf->depth > ADR_MAX_DEPTH) fail(buf, ADR_ERR_TOO_DEEP);
}

FANOUT_EXPORT void adr_end_struct(AdrBuffer* buf) {
    if (buf != nullptr && buf->depth > 0) --buf->depth;
}

FANOUT_EXPORT void adr_v_short(AdrBuffer* buf, int16_t* v) {
    marshal_item(buf, TC_short, v);
}
FANOUT_EXPORT void adr_v_ushort(AdrBuffer* buf, uint16_t* v) {
    marshal_item(buf, TC_ushort, v);
}
FANOUT_EXPORT void adr_v_long(AdrBuffer* buf, int32_t* v) {
    marshal_item(buf, TC_long, v);
}
FANOUT_EXPORT void adr_v_ulong(AdrBuffer* buf, uint32_t* v) {
    marshal_item(buf, TC_ulong, v);
}
FANOUT_EXPORT void adr_v_longlong(AdrBuffer* buf, int64_t* v) {
    marshal_item(buf, TC_longlong, v);
}
FANOUT_EXPORT void adr_v_ulonglong(AdrBuffer* buf, uint64_t* v) {
    marshal_item(buf, TC_ulonglong, v);
}
FANOUT_EXPORT void adr_v_boolean(AdrBuffer* buf, uint8_t* v) {
    marshal_item(buf, TC_boolean, v);
}
FANOUT_EXPORT void adr_v_octet(AdrBuffer* buf, uint8_t* v) {
    marshal_item(buf, TC_octet, v);
}
FANOUT_EXPORT void adr_v_char(AdrBuffer* buf, char* v) {
    marshal_item(buf, TC_char, v);
}
FANOUT_EXPORT void adr_v_string(AdrBuffer* buf, char** v) {
    marshal_item(buf, TC_string, v);
}
FANOUT_EXPORT void adr_v_any(AdrBuffer* buf, Any* v) {
    marshal_item(buf, TC_any, v);
}
FANOUT_EXPORT void adr_v_TypeCode(AdrBuffer* buf, TypeCode* v) {
    marshal_item(buf, TC_TypeCode, v);
}
FANOUT_EXPORT void adr_v_Object(AdrBuffer* buf, Object* v) {
    marshal_item(buf, TC_Object, v);
}
FANOUT_EXPORT void adr_v_tc_sequence(AdrBuffer* buf, TypeCode seq_tc, void* seq) {
    marshal_item(buf, seq_tc, seq);
}

}  // extern "C"
