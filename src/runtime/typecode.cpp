// typecode.cpp - the runtime's type codes: static records, equality,
// reference counting of run-time records, and the type repository registry.
//
// A type code is a pointer to a TypeCodeRec. The library's own type codes are
// static constant records (refcount -1); the marshaller's decoder builds
// records at run time for type codes it reads from the wire (refcount >= 1,
// every part a separate allocator block). Modules register their static type
// codes by repository id (adr_type_init) so that the decoder can hand out the
// library's record instead of a run-time copy whenever the two are equal.

#include <atomic>
#include <cstddef>
#include <cstring>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>

#include "fanout/exception.h"
#include "fanout/runtime.h"
#include "runtime/raise.h"
#include "runtime/typecode_internal.h"

namespace {

using fanout::member_align;

constexpr TypeCodeRec basic_rec(uint32_t kind, const char* name, uint32_t size, uint32_t align) {
    return TypeCodeRec{kind, -1, "", name, name, size, align, 0, 0, nullptr, nullptr, nullptr};
}

constexpr TypeCodeRec seq_rec(const char* reg_name, const TypeCodeRec* const* element) {
    return TypeCodeRec{FANOUT_TK_SEQUENCE,         -1, "", "",      reg_name, sizeof(GenericSeq),
                       member_align<GenericSeq>(), 0,  1,  nullptr, element,  nullptr};
}

constexpr TypeCodeRec alias_rec(const char* repo_id, const char* name, const char* reg_name,
                                const TypeCodeRec* const* named) {
    return TypeCodeRec{FANOUT_TK_ALIAS,
                       -1,
                       repo_id,
                       name,
                       reg_name,
                       sizeof(GenericSeq),
                       member_align<GenericSeq>(),
                       0,
                       1,
                       nullptr,
                       named,
                       nullptr};
}

}  // namespace

extern "C" {

const TypeCodeRec _tc_rec_null = basic_rec(FANOUT_TK_NULL, "null", 0, 1);
const TypeCodeRec _tc_rec_void = basic_rec(FANOUT_TK_VOID, "void", 0, 1);
const TypeCodeRec _tc_rec_short =
    basic_rec(FANOUT_TK_SHORT, "short", sizeof(int16_t), member_align<int16_t>());
const TypeCodeRec _tc_rec_long =
    basic_rec(FANOUT_TK_LONG, "long", sizeof(int32_t), member_align<int32_t>());
const TypeCodeRec _tc_rec_ushort =
    basic_rec(FANOUT_TK_USHORT, "ushort", sizeof(uint16_t), member_align<uint16_t>());
const TypeCodeRec _tc_rec_ulong =
    basic_rec(FANOUT_TK_ULONG, "ulong", sizeof(uint32_t), member_align<uint32_t>());
const TypeCodeRec _tc_rec_float =
    basic_rec(FANOUT_TK_FLOAT, "float", sizeof(float), member_align<float>());
const TypeCodeRec _tc_rec_double =
    basic_rec(FANOUT_TK_DOUBLE, "double", sizeof(double), member_align<double>());
const TypeCodeRec _tc_rec_boolean = basic_rec(FANOUT_TK_BOOLEAN, "boolean", 1, 1);
const TypeCodeRec _tc_rec_char = basic_rec(FANOUT_TK_CHAR, "char", 1, 1);
const TypeCodeRec _tc_rec_octet = basic_rec(FANOUT_TK_OCTET, "octet", 1, 1);
const TypeCodeRec _tc_rec_any = basic_rec(FANOUT_TK_ANY, "any", sizeof(Any), member_align<Any>());
const TypeCodeRec _tc_rec_TypeCode =
    basic_rec(FANOUT_TK_TYPECODE, "TypeCode", sizeof(TypeCode), member_align<TypeCode>());
const TypeCodeRec _tc_rec_string =
    basic_rec(FANOUT_TK_STRING, "string", sizeof(char*), member_align<char*>());
const TypeCodeRec _tc_rec_longlong =
    basic_rec(FANOUT_TK_LONGLONG, "longlong", sizeof(int64_t), member_align<int64_t>());
const TypeCodeRec _tc_rec_ulonglong =
    basic_rec(FANOUT_TK_ULONGLONG, "ulonglong", sizeof(uint64_t), member_align<uint64_t>());
const TypeCodeRec _tc_rec_Object = {FANOUT_TK_OBJREF,
                                    -1,
                                    "IDL:omg.org/CORBA/Object:1.0",
                                    "Object",
                                    "CORBA::Object",
                                    sizeof(Object),
                                    member_align<Object>(),
                                    0,
                                    0,
                                    nullptr,
                                    nullptr,
                                    nullptr};

}  // extern "C"

namespace {

const TypeCodeRec* const kOctetElement[] = {&_tc_rec_octet};
const TypeCodeRec* const kStringElement[] = {&_tc_rec_string};
const TypeCodeRec* const kAnyElement[] = {&_tc_rec_any};

const TypeCodeRec kSeqOctetOctetList =
    seq_rec("Kel_Types::_sequence_octet_OctetList", kOctetElement);
const TypeCodeRec kSeqStringStringList =
    seq_rec("Kel_Types::_sequence_string_StringList", kStringElement);
const TypeCodeRec* const kOctetListNamed[] = {&kSeqOctetOctetList};
const TypeCodeRec* const kStringListNamed[] = {&kSeqStringStringList};

}  // namespace

extern "C" {

const TypeCodeRec _tc_rec_Kel_Types_OctetList =
    alias_rec("IDL:Kel_Types/OctetList:1.0", "OctetList", "Kel_Types::OctetList", kOctetListNamed);
const TypeCodeRec _tc_rec_Kel_Types_StringList = alias_rec(
    "IDL:Kel_Types/StringList:1.0", "StringList", "Kel_Types::StringList", kStringListNamed);
const TypeCodeRec _tc_rec__sequence_any_MsgContext =
    seq_rec("_sequence_any_MsgContext", kAnyElement);

const TypeCode TC_null = &_tc_rec_null;
const TypeCode TC_void = &_tc_rec_void;
const TypeCode TC_short = &_tc_rec_short;
const TypeCode TC_long = &_tc_rec_long;
const TypeCode TC_ushort = &_tc_rec_ushort;
const TypeCode TC_ulong = &_tc_rec_ulong;
const TypeCode TC_boolean = &_tc_rec_boolean;
const TypeCode TC_char = &_tc_rec_char;
const TypeCode TC_octet = &_tc_rec_octet;
const TypeCode TC_any = &_tc_rec_any;
const TypeCode TC_TypeCode = &_tc_rec_TypeCode;
const TypeCode TC_Object = &_tc_rec_Object;
const TypeCode TC_string = &_tc_rec_string;
const TypeCode TC_longlong = &_tc_rec_longlong;
const TypeCode TC_ulonglong = &_tc_rec_ulonglong;
const TypeCode TC_float = &_tc_rec_float;
const TypeCode TC_double = &_tc_rec_double;
const TypeCode TC_Kel_Types_OctetList = &_tc_rec_Kel_Types_OctetList;
const TypeCode TC_Kel_Types_StringList = &_tc_rec_Kel_Types_StringList;
const TypeCode TC__sequence_any_MsgContext = &_tc_rec__sequence_any_MsgContext;

const TypeRepository type_repository_null = {nullptr, nullptr};

}  // extern "C"

// ---------------------------------------------------------------------------
// Helpers shared with the generic operations and the decoder.

namespace fanout {

namespace {

constexpr int kMaxAliasChain = 64;
// Type codes from the wire are at most ADR_MAX_DEPTH deep; anything deeper
// than this is malformed (or cyclic) and compares unequal.
constexpr int kMaxCompareDepth = 4 * ADR_MAX_DEPTH;

std::atomic_ref<int32_t> refcount_of(TypeCode tc) {
    return std::atomic_ref<int32_t>(const_cast<int32_t&>(tc->refcount));
}

const char* repo_or_empty(TypeCode tc) {
    return tc->repo_id != nullptr ? tc->repo_id : "";
}

TypeCode member_type(TypeCode tc, uint32_t i) {
    return tc->member_types != nullptr ? tc->member_types[i] : nullptr;
}

bool tc_equal(TypeCode a, TypeCode b, int depth) {
    if (a == b) return true;
    if (a == nullptr || b == nullptr || depth > kMaxCompareDepth) return false;
    // One rule for every kind: the parameters that are unused by a kind are
    // zero or empty on both sides, so comparing them all is harmless.
    if (a->kind != b->kind || a->bound != b->bound || a->member_count != b->member_count) {
        return false;
    }
    if (std::strcmp(repo_or_empty(a), repo_or_empty(b)) != 0) return false;
    for (uint32_t i = 0; i < a->member_count; ++i) {
        if (!tc_equal(member_type(a, i), member_type(b, i), depth + 1)) return false;
    }
    return true;
}

void free_dynamic(TypeCodeRec* rec) {
    mg_free(const_cast<char*>(rec->repo_id));
    mg_free(const_cast<char*>(rec->name));
    mg_free(const_cast<char*>(rec->reg_name));
    if (rec->member_names != nullptr) {
        for (uint32_t i = 0; i < rec->member_count; ++i) {
            mg_free(const_cast<char*>(rec->member_names[i]));
        }
        mg_free(const_cast<const char**>(rec->member_names));
    }
    if (rec->member_types != nullptr) {
        for (uint32_t i = 0; i < rec->member_count; ++i) TypeCode_release(rec->member_types[i]);
        mg_free(const_cast<const TypeCodeRec**>(rec->member_types));
    }
    mg_free(const_cast<uint32_t*>(rec->member_offsets));
    mg_free(rec);
}

}  // namespace

TypeCode tc_unalias(TypeCode tc) noexcept {
    for (int i = 0; tc != nullptr && tc->kind == FANOUT_TK_ALIAS; ++i) {
        if (i == kMaxAliasChain || tc->member_count < 1) return nullptr;
        tc = member_type(tc, 0);
    }
    return tc;
}

uint32_t tc_size(TypeCode tc) noexcept {
    if (tc == nullptr) return 0;
    if (tc->size != 0 || tc->kind != FANOUT_TK_ALIAS) return tc->size;
    TypeCode named = tc_unalias(tc);
    return named != nullptr ? named->size : 0;
}

bool tc_kind_walkable(uint32_t kind) noexcept {
    switch (kind) {
        case FANOUT_TK_PRINCIPAL:
        case FANOUT_TK_UNION:
        case FANOUT_TK_ARRAY:
            return false;
        default:
            return kind <= FANOUT_TK_ULONGLONG;
    }
}

bool tc_is_flat(TypeCode tc) noexcept {
    tc = tc_unalias(tc);
    if (tc == nullptr) return false;
    switch (tc->kind) {
        case FANOUT_TK_NULL:
        case FANOUT_TK_VOID:
        case FANOUT_TK_SHORT:
        case FANOUT_TK_LONG:
        case FANOUT_TK_USHORT:
        case FANOUT_TK_ULONG:
        case FANOUT_TK_FLOAT:
        case FANOUT_TK_DOUBLE:
        case FANOUT_TK_BOOLEAN:
        case FANOUT_TK_CHAR:
        case FANOUT_TK_OCTET:
        case FANOUT_TK_ENUM:
        case FANOUT_TK_LONGLONG:
        case FANOUT_TK_ULONGLONG:
            return true;
        default:
            return false;
    }
}

TypeCode tc_basic(uint32_t kind) noexcept {
    switch (kind) {
        case FANOUT_TK_NULL:
            return TC_null;
        case FANOUT_TK_VOID:
            return TC_void;
        case FANOUT_TK_SHORT:
            return TC_short;
        case FANOUT_TK_LONG:
            return TC_long;
        case FANOUT_TK_USHORT:
            return TC_ushort;
        case FANOUT_TK_ULONG:
            return TC_ulong;
        case FANOUT_TK_FLOAT:
            return TC_float;
        case FANOUT_TK_DOUBLE:
            return TC_double;
        case FANOUT_TK_BOOLEAN:
            return TC_boolean;
        case FANOUT_TK_CHAR:
            return TC_char;
        case FANOUT_TK_OCTET:
            return TC_octet;
        case FANOUT_TK_ANY:
            return TC_any;
        case FANOUT_TK_TYPECODE:
            return TC_TypeCode;
        case FANOUT_TK_STRING:
            return TC_string;
        case FANOUT_TK_LONGLONG:
            return TC_longlong;
        case FANOUT_TK_ULONGLONG:
            return TC_ulonglong;
        default:
            return nullptr;
    }
}

bool tc_kind_layout(uint32_t kind, uint32_t* size, uint32_t* align) noexcept {
    switch (kind) {
        case FANOUT_TK_OBJREF:
            *size = sizeof(Object);
            *align = member_align<Object>();
            return true;
        case FANOUT_TK_ENUM:
            *size = sizeof(uint32_t);
            *align = member_align<uint32_t>();
            return true;
        case FANOUT_TK_SEQUENCE:
            *size = sizeof(GenericSeq);
            *align = member_align<GenericSeq>();
            return true;
        default: {
            TypeCode tc = tc_basic(kind);
            if (tc == nullptr) return false;
            *size = tc->size;
            *align = tc->align;
            return true;
        }
    }
}

bool tc_struct_layout(uint32_t count, const TypeCode* types, uint32_t* offsets, uint32_t* size,
                      uint32_t* align) noexcept {
    uint64_t at = 0;
    uint32_t widest = 1;
    for (uint32_t i = 0; i < count; ++i) {
        TypeCode m = types[i];
        if (m == nullptr) return false;
        uint32_t a = m->align != 0 ? m->align : 1;
        at = (at + a - 1) / a * a;
        offsets[i] = static_cast<uint32_t>(at);
        at += tc_size(m);
        if (a > widest) widest = a;
        if (at > (uint64_t{1} << 31)) return false;
    }
    at = (at + widest - 1) / widest * widest;
    *size = static_cast<uint32_t>(at);
    *align = widest;
    return true;
}

TypeCodeRec* tc_new_dynamic(uint32_t kind) {
    auto* rec = static_cast<TypeCodeRec*>(mg_calloc(1, sizeof(TypeCodeRec)));
    rec->kind = kind;
    rec->refcount = 1;
    return rec;
}

// ---------------------------------------------------------------------------
// The registry: repository id -> static type code. First registration wins.

namespace {

struct Registry {
    std::mutex lock;
    std::unordered_map<std::string, TypeCode> by_repo_id;
    std::size_t init_calls = 0;
};

// Inserts under the registry lock; REQUIRES: r.lock is held.
void register_locked(Registry& r, TypeCode tc) {
    if (tc == nullptr || tc->repo_id == nullptr || tc->repo_id[0] == '\0') return;
    try {
        r.by_repo_id.emplace(tc->repo_id, tc);
    } catch (const std::bad_alloc&) {
        raise_no_memory(sizeof(std::string) + std::strlen(tc->repo_id));
    }
}

Registry& registry() {
    // The runtime's own named types are always known to the decoder.
    static Registry* r = [] {
        auto* fresh = new Registry;
        for (TypeCode tc :
             {TC_Object, TC_Kel_Types_OctetList, TC_Kel_Types_StringList,
              TC_Kel_Types_XOpenMessageEntry, TC_Kel_Types_XOpenMessage, TC_ExErrorMsg}) {
            register_locked(*fresh, tc);
        }
        return fresh;
    }();
    return *r;
}

}  // namespace

TypeCode tc_registry_find(const char* repo_id) noexcept {
    if (repo_id == nullptr || repo_id[0] == '\0') return nullptr;
    try {
        Registry& r = registry();
        std::lock_guard<std::mutex> hold(r.lock);
        auto it = r.by_repo_id.find(repo_id);
        return it != r.by_repo_id.end() ? it->second : nullptr;
    } catch (...) {
        return nullptr;  // the key string could not be built: nothing found
    }
}

std::size_t tc_registry_init_calls() noexcept {
    Registry& r = registry();
    std::lock_guard<std::mutex> hold(r.lock);
    return r.init_calls;
}

}  // namespace fanout

// ---------------------------------------------------------------------------

extern "C" {

FANOUT_EXPORT int32_t TypeCode_equal(TypeCode a, TypeCode b) {
    return fanout::tc_equal(a, b, 0) ? 1 : 0;
}

FANOUT_EXPORT TypeCode TypeCode_duplicate(TypeCode tc) {
    if (tc == nullptr || fanout::refcount_of(tc).load(std::memory_order_relaxed) < 0) return tc;
    fanout::refcount_of(tc).fetch_add(1, std::memory_order_relaxed);
    return tc;
}

FANOUT_EXPORT void TypeCode_release(TypeCode tc) {
    if (tc == nullptr || fanout::refcount_of(tc).load(std::memory_order_relaxed) < 0) return;
    if (fanout::refcount_of(tc).fetch_sub(1, std::memory_order_acq_rel) == 1) {
        fanout::free_dynamic(const_cast<TypeCodeRec*>(tc));
    }
}

FANOUT_EXPORT void adr_type_init(const void* registration) {
    fanout::Registry& r = fanout::registry();
    std::lock_guard<std::mutex> hold(r.lock);
    r.init_calls++;
    if (registration == nullptr) return;
    for (auto* repo = static_cast<const TypeRepository* const*>(registration);
         *repo != nullptr && (*repo)->module != nullptr; ++repo) {
        if ((*repo)->types == nullptr) continue;
        for (const TypeCode* const* slot = (*repo)->types; *slot != nullptr; ++slot) {
            fanout::register_locked(r, **slot);
        }
    }
}

}  // extern "C"
