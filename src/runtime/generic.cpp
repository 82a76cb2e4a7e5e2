// generic.cpp - deep free, copy, equality and construction of any value,
// driven by its type code.
//
// Every record of the service is a plain C structure described by a type
// code, so one walker per operation serves them all: strings are owned
// blocks, an any owns its value block and a reference to its type code,
// sequences own their buffers, object references are counted. Structures and
// exceptions are walked member by member at the offsets their type code
// gives; aliases are looked through.
//
// Kinds the runtime cannot walk (principal, union, array) are not fatal: the
// walk skips that part, remembers the first such kind and, at the end,
// records "Unsupported type code kind (%1$d)" in the caller's environment.
//
// Copies are exception-safe: the destination is zeroed first and every block
// is hooked into it as soon as it is allocated, so when the allocator raises
// part way the partial copy is freed with kel_free_generic before the
// exception continues.

#include <cstdarg>
#include <cstring>

#include "fanout/exception.h"
#include "fanout/runtime.h"
#include "runtime/typecode_internal.h"

namespace {

using fanout::tc_is_flat;
using fanout::tc_kind_walkable;
using fanout::tc_size;
using fanout::tc_unalias;

constexpr const char* kUnsupportedFormat = "Unsupported type code kind (%1$d)";

// State of one walk: the first kind that could not be walked, if any.
struct Walk {
    bool failed = false;
    int32_t bad_kind = 0;

    void unsupported(TypeCode tc) {
        if (failed) return;
        failed = true;
        bad_kind = tc != nullptr ? static_cast<int32_t>(tc->kind) : -1;
    }
    // Records the failure, if any, in env.
    void report(Environment* env) const {
        if (failed && env != nullptr) {
            vaRaiseException(env, nullptr, -1, kUnsupportedFormat, bad_kind);
        }
    }
};

uint8_t* at(void* base, size_t offset) {
    return static_cast<uint8_t*>(base) + offset;
}
const uint8_t* at(const void* base, size_t offset) {
    return static_cast<const uint8_t*>(base) + offset;
}

// A struct or exception record whose members can be walked: a type and an
// offset for each member.
bool members_walkable(TypeCode tc) {
    return tc->member_count == 0 || (tc->member_types != nullptr && tc->member_offsets != nullptr);
}

bool sequence_walkable(TypeCode tc) {
    return tc->member_count >= 1 && tc->member_types != nullptr && tc->member_types[0] != nullptr;
}

// ---------------------------------------------------------------------------
// Free.

void free_value(void* value, TypeCode tc) {
    tc = tc_unalias(tc);
    if (tc == nullptr) return;
    switch (tc->kind) {
        case FANOUT_TK_STRING:
            mg_free(*static_cast<char**>(value));
            return;
        case FANOUT_TK_ANY: {
            auto* any = static_cast<Any*>(value);
            if (any->_value != nullptr && any->_type != nullptr) {
                free_value(any->_value, any->_type);
            }
            mg_free(any->_value);
            TypeCode_release(any->_type);
            return;
        }
        case FANOUT_TK_TYPECODE:
            TypeCode_release(*static_cast<TypeCode*>(value));
            return;
        case FANOUT_TK_OBJREF:
            Object_release(*static_cast<Object*>(value));
            return;
        case FANOUT_TK_STRUCT:
        case FANOUT_TK_EXCEPT:
            if (!members_walkable(tc)) return;
            for (uint32_t i = 0; i < tc->member_count; ++i) {
                free_value(at(value, tc->member_offsets[i]), tc->member_types[i]);
            }
            return;
        case FANOUT_TK_SEQUENCE: {
            auto* seq = static_cast<GenericSeq*>(value);
            if (sequence_walkable(tc) && !tc_is_flat(tc->member_types[0]) &&
                seq->buffer != nullptr) {
                TypeCode element = tc->member_types[0];
                uint32_t size = tc_size(element);
                for (uint32_t i = 0; i < seq->length; ++i) {
                    free_value(at(seq->buffer, size_t{i} * size), element);
                }
            }
            mg_free(seq->buffer);
            return;
        }
        default:
            return;  // scalars own nothing; unwalkable kinds are left alone
    }
}

// ---------------------------------------------------------------------------
// Copy. REQUIRES: the destination is zero-filled.

void copy_value(Walk& walk, TypeCode tc, void* dest, const void* source) {
    TypeCode named = tc_unalias(tc);
    if (named == nullptr || !tc_kind_walkable(named->kind)) {
        walk.unsupported(named != nullptr ? named : tc);
        return;
    }
    switch (named->kind) {
        case FANOUT_TK_STRING:
            *static_cast<char**>(dest) = mg_strdup(*static_cast<char* const*>(source));
            return;
        case FANOUT_TK_ANY: {
            const auto* from = static_cast<const Any*>(source);
            auto* to = static_cast<Any*>(dest);
            TypeCode type = tc_unalias(from->_type);
            if (from->_type != nullptr && (type == nullptr || !tc_kind_walkable(type->kind))) {
                walk.unsupported(type != nullptr ? type : from->_type);
                return;  // the copy is an empty any
            }
            to->_type = TypeCode_duplicate(from->_type);
            if (from->_value != nullptr && from->_type != nullptr) {
                to->_value = mg_calloc(1, tc_size(from->_type));
                copy_value(walk, from->_type, to->_value, from->_value);
            }
            return;
        }
        case FANOUT_TK_TYPECODE:
            *static_cast<TypeCode*>(dest) =
                TypeCode_duplicate(*static_cast<const TypeCode*>(source));
            return;
        case FANOUT_TK_OBJREF:
            *static_cast<Object*>(dest) = Object_duplicate(*static_cast<const Object*>(source));
            return;
        case FANOUT_TK_STRUCT:
        case FANOUT_TK_EXCEPT:
            if (!members_walkable(named)) {
                walk.unsupported(named);
                return;
            }
            for (uint32_t i = 0; i < named->member_count; ++i) {
                uint32_t offset = named->member_offsets[i];
                copy_value(walk, named->member_types[i], at(dest, offset), at(source, offset));
            }
            return;
        case FANOUT_TK_SEQUENCE: {
            if (!sequence_walkable(named)) {
                walk.unsupported(named);
                return;
            }
            const auto* from = static_cast<const GenericSeq*>(source);
            auto* to = static_cast<GenericSeq*>(dest);
            if (from->length == 0 || from->buffer == nullptr) return;
            TypeCode element = named->member_types[0];
            uint32_t size = tc_size(element);
            to->buffer = mg_calloc(from->length, size);
            to->maximum = from->length;
            to->length = from->length;
            if (tc_is_flat(element)) {
                std::memcpy(to->buffer, from->buffer, size_t{from->length} * size);
                return;
            }
            for (uint32_t i = 0; i < from->length; ++i) {
                size_t offset = size_t{i} * size;
                copy_value(walk, element, at(to->buffer, offset), at(from->buffer, offset));
            }
            return;
        }
        default:
            std::memcpy(dest, source, named->size);  // scalars and enums
            return;
    }
}

// ---------------------------------------------------------------------------
// Equality.

bool equal_value(Walk& walk, TypeCode tc, const void* a, const void* b) {
    TypeCode named = tc_unalias(tc);
    if (named == nullptr || !tc_kind_walkable(named->kind)) {
        walk.unsupported(named != nullptr ? named : tc);
        return false;
    }
    if (a == b) return true;
    switch (named->kind) {
        case FANOUT_TK_STRING: {
            // A null string marshals as the empty string, so they are equal.
            const char* x = *static_cast<char* const*>(a);
            const char* y = *static_cast<char* const*>(b);
            return std::strcmp(x != nullptr ? x : "", y != nullptr ? y : "") == 0;
        }
        case FANOUT_TK_ANY: {
            const auto* x = static_cast<const Any*>(a);
            const auto* y = static_cast<const Any*>(b);
            if (!TypeCode_equal(x->_type, y->_type)) return false;
            if (x->_value == nullptr || y->_value == nullptr || x->_type == nullptr) {
                return x->_value == y->_value;
            }
            return equal_value(walk, x->_type, x->_value, y->_value);
        }
        case FANOUT_TK_TYPECODE:
            return TypeCode_equal(*static_cast<const TypeCode*>(a),
                                  *static_cast<const TypeCode*>(b)) != 0;
        case FANOUT_TK_OBJREF:
            return Object_equal(*static_cast<const Object*>(a), *static_cast<const Object*>(b)) !=
                   0;
        case FANOUT_TK_STRUCT:
        case FANOUT_TK_EXCEPT:
            if (!members_walkable(named)) {
                walk.unsupported(named);
                return false;
            }
            for (uint32_t i = 0; i < named->member_count; ++i) {
                uint32_t offset = named->member_offsets[i];
                if (!equal_value(walk, named->member_types[i], at(a, offset), at(b, offset))) {
                    return false;
                }
            }
            return true;
        case FANOUT_TK_SEQUENCE: {
            if (!sequence_walkable(named)) {
                walk.unsupported(named);
                return false;
            }
            const auto* x = static_cast<const GenericSeq*>(a);
            const auto* y = static_cast<const GenericSeq*>(b);
            if (x->length != y->length) return false;
            if (x->length == 0 || x->buffer == y->buffer) return true;
            if (x->buffer == nullptr || y->buffer == nullptr) return false;
            TypeCode element = named->member_types[0];
            uint32_t size = tc_size(element);
            if (tc_is_flat(element)) {
                return std::memcmp(x->buffer, y->buffer, size_t{x->length} * size) == 0;
            }
            for (uint32_t i = 0; i < x->length; ++i) {
                size_t offset = size_t{i} * size;
                if (!equal_value(walk, element, at(x->buffer, offset), at(y->buffer, offset))) {
                    return false;
                }
            }
            return true;
        }
        default:
            // Scalars by their bytes: floating values compare by their bits,
            // as they marshal (NaN equals the same NaN, -0.0 differs from 0.0).
            return std::memcmp(a, b, named->size) == 0;
    }
}

}  // namespace

extern "C" {

FANOUT_EXPORT void kel_free_generic(void* value, TypeCode tc) {
    if (value == nullptr || tc == nullptr) return;
    free_value(value, tc);
    std::memset(value, 0, tc_size(tc));
}

FANOUT_EXPORT void _t_generic_copy(TypeCode tc, Environment* env, void* dest, const void* source) {
    if (dest == nullptr || tc == nullptr) return;
    std::memset(dest, 0, tc_size(tc));
    if (source == nullptr) return;
    Walk walk;
    try {
        copy_value(walk, tc, dest, source);
    } catch (...) {
        kel_free_generic(dest, tc);
        throw;
    }
    walk.report(env);
}

FANOUT_EXPORT void* _generic_copy(TypeCode tc, Environment* env, const void* source,
                                  int32_t temporary) {
    (void)temporary;  // the allocator has one kind of block
    if (tc == nullptr || source == nullptr) return nullptr;
    void* block = mg_calloc(1, tc_size(tc));
    try {
        _t_generic_copy(tc, env, block, source);
    } catch (...) {
        mg_free(block);
        throw;
    }
    return block;
}

FANOUT_EXPORT int32_t _generic_equal(TypeCode tc, Environment* env, const void* a, const void* b) {
    if (a == b) return 1;
    if (a == nullptr || b == nullptr) return 0;
    Walk walk;
    bool equal = equal_value(walk, tc, a, b);
    walk.report(env);
    return equal && !walk.failed ? 1 : 0;
}

FANOUT_EXPORT int32_t _t_generic_equal(TypeCode tc, Environment* env, const void* a,
                                       const void* b) {
    return _generic_equal(tc, env, a, b);
}

FANOUT_EXPORT void* generic_create(TypeCode tc, ...) {
    TypeCode named = tc_unalias(tc);
    if (named == nullptr || (named->kind != FANOUT_TK_STRUCT && named->kind != FANOUT_TK_EXCEPT) ||
        !members_walkable(named)) {
        vaThrow(nullptr, -1, kUnsupportedFormat,
                named != nullptr ? static_cast<int32_t>(named->kind) : -1);
    }
    void* block = mg_calloc(1, tc_size(tc));
    Environment env{};
    va_list members;
    va_start(members, tc);
    try {
        for (uint32_t i = 0; i < named->member_count; ++i) {
            const void* member = va_arg(members, const void*);
            if (member == nullptr) break;  // the rest stays zeroed
            uint32_t offset = named->member_offsets[i];
            _t_generic_copy(named->member_types[i], &env, at(block, offset), member);
        }
    } catch (...) {
        va_end(members);
        kel_free_generic(block, tc);
        mg_free(block);
        throw;
    }
    va_end(members);
    if (env._major != FANOUT_NO_EXCEPTION) {
        kel_free_generic(block, tc);
        mg_free(block);
        ev_to_exception(&env);
    }
    return block;
}

FANOUT_EXPORT void ev_clear(Environment* env) {
    if (env == nullptr) return;
    if (env->_exception != nullptr) ex_free(env->_exception);
    std::memset(env, 0, sizeof(*env));
}

}  // extern "C"
