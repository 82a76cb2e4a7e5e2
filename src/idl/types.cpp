// types.cpp - the Kel_Fanout2 interface types: their type codes, the module's
// type repository and start-up registration, byte-wise deep equality, and the
// generated per-type copy, equality and marshalling functions.
//
// Property lists are the values that cross process and host boundaries. Each
// type below is described by a static type code record through which the
// runtime marshals, copies, compares and frees its values; the generated
// functions are one-line delegations to those generic routines.

#include <cstddef>
#include <cstring>

#include "fanout/exception.h"
#include "fanout/fanout2.h"
#include "fanout/runtime.h"
#include "fanout/types.h"
#include "runtime/typecode_internal.h"

namespace {

using fanout::member_align;

template <typename Seq>
constexpr TypeCodeRec sequence_rec(const char* reg_name, const TypeCodeRec* const* element) {
    return TypeCodeRec{FANOUT_TK_SEQUENCE,  -1, "", "",      reg_name, sizeof(Seq),
                       member_align<Seq>(), 0,  1,  nullptr, element,  nullptr};
}

template <typename Seq>
constexpr TypeCodeRec alias_rec(const char* repo_id, const char* name, const char* reg_name,
                                const TypeCodeRec* const* named) {
    return TypeCodeRec{FANOUT_TK_ALIAS,     -1, repo_id, name,    reg_name, sizeof(Seq),
                       member_align<Seq>(), 0,  1,       nullptr, named,    nullptr};
}

const char* const kPropertyNames[] = {"key", "value"};
const TypeCodeRec* const kPropertyTypes[] = {&_tc_rec_string, &_tc_rec_any};
const uint32_t kPropertyOffsets[] = {offsetof(Property, key), offsetof(Property, value)};

const TypeCodeRec* const kPropertyElement[] = {&_tc_rec_Kel_Fanout2_Property};
const TypeCodeRec* const kPropertiesNamed[] = {&_tc_rec_Kel_Fanout2__sequence_Property_Properties};
const TypeCodeRec* const kPropertiesElement[] = {&_tc_rec_Kel_Fanout2_Properties};
const TypeCodeRec* const kPropertiesListNamed[] = {
    &_tc_rec_Kel_Fanout2__sequence_Properties_PropertiesList};
const TypeCodeRec* const kPropertiesListElement[] = {&_tc_rec_Kel_Fanout2_PropertiesList};
const TypeCodeRec* const kPropertiesListListNamed[] = {
    &_tc_rec_Kel_Fanout2__sequence_PropertiesList_PropertiesListList};
const TypeCodeRec* const kOctetElement[] = {&_tc_rec_octet};
const TypeCodeRec* const kStreamKeyNamed[] = {&_tc_rec_Kel_Fanout2__sequence_octet_StreamKey};

}  // namespace

extern "C" {

const TypeCodeRec _tc_rec_Kel_Fanout2_Property = {FANOUT_TK_STRUCT,
                                                  -1,
                                                  "IDL:Kel_Fanout2/Property:1.0",
                                                  "Property",
                                                  "Kel_Fanout2::Property",
                                                  sizeof(Property),
                                                  member_align<Property>(),
                                                  0,
                                                  2,
                                                  kPropertyNames,
                                                  kPropertyTypes,
                                                  kPropertyOffsets};

const TypeCodeRec _tc_rec_Kel_Fanout2__sequence_Property_Properties =
    sequence_rec<Properties>("Kel_Fanout2::_sequence_Property_Properties", kPropertyElement);
const TypeCodeRec _tc_rec_Kel_Fanout2_Properties = alias_rec<Properties>(
    "IDL:Kel_Fanout2/Properties:1.0", "Properties", "Kel_Fanout2::Properties", kPropertiesNamed);

const TypeCodeRec _tc_rec_Kel_Fanout2__sequence_Properties_PropertiesList =
    sequence_rec<PropertiesList>("Kel_Fanout2::_sequence_Properties_PropertiesList",
                                 kPropertiesElement);
const TypeCodeRec _tc_rec_Kel_Fanout2_PropertiesList =
    alias_rec<PropertiesList>("IDL:Kel_Fanout2/PropertiesList:1.0", "PropertiesList",
                              "Kel_Fanout2::PropertiesList", kPropertiesListNamed);

const TypeCodeRec _tc_rec_Kel_Fanout2__sequence_PropertiesList_PropertiesListList =
    sequence_rec<PropertiesListList>("Kel_Fanout2::_sequence_PropertiesList_PropertiesListList",
                                     kPropertiesListElement);
const TypeCodeRec _tc_rec_Kel_Fanout2_PropertiesListList =
    alias_rec<PropertiesListList>("IDL:Kel_Fanout2/PropertiesListList:1.0", "PropertiesListList",
                                  "Kel_Fanout2::PropertiesListList", kPropertiesListListNamed);

const TypeCodeRec _tc_rec_Kel_Fanout2__sequence_octet_StreamKey =
    sequence_rec<StreamKey>("Kel_Fanout2::_sequence_octet_StreamKey", kOctetElement);
const TypeCodeRec _tc_rec_Kel_Fanout2_StreamKey = alias_rec<StreamKey>(
    "IDL:Kel_Fanout2/StreamKey:1.0", "StreamKey", "Kel_Fanout2::StreamKey", kStreamKeyNamed);

const TypeCodeRec _tc_rec_Kel_Fanout2_Repeater = {FANOUT_TK_OBJREF,
                                                  -1,
                                                  "IDL:Kel_Fanout2/Repeater:1.0",
                                                  "Repeater",
                                                  "Kel_Fanout2::Repeater",
                                                  sizeof(Repeater),
                                                  member_align<Repeater>(),
                                                  0,
                                                  0,
                                                  nullptr,
                                                  nullptr,
                                                  nullptr};

const TypeCode TC_Kel_Fanout2_Property = &_tc_rec_Kel_Fanout2_Property;
const TypeCode TC_Kel_Fanout2_Properties = &_tc_rec_Kel_Fanout2_Properties;
const TypeCode TC_Kel_Fanout2_PropertiesList = &_tc_rec_Kel_Fanout2_PropertiesList;
const TypeCode TC_Kel_Fanout2_PropertiesListList = &_tc_rec_Kel_Fanout2_PropertiesListList;
const TypeCode TC_Kel_Fanout2_StreamKey = &_tc_rec_Kel_Fanout2_StreamKey;
const TypeCode TC_Kel_Fanout2_Repeater = &_tc_rec_Kel_Fanout2_Repeater;
const TypeCode TC_Kel_Fanout2__sequence_Property_Properties =
    &_tc_rec_Kel_Fanout2__sequence_Property_Properties;
const TypeCode TC_Kel_Fanout2__sequence_Properties_PropertiesList =
    &_tc_rec_Kel_Fanout2__sequence_Properties_PropertiesList;
const TypeCode TC_Kel_Fanout2__sequence_PropertiesList_PropertiesListList =
    &_tc_rec_Kel_Fanout2__sequence_PropertiesList_PropertiesListList;
const TypeCode TC_Kel_Fanout2__sequence_octet_StreamKey =
    &_tc_rec_Kel_Fanout2__sequence_octet_StreamKey;

// The Repeater's operations are defined by the relay programs that serve it;
// here the table holds only its terminator.
const FanoutOperationParms _parms_Kel_Fanout2_Repeater[] = {{nullptr, 0, nullptr}};

}  // extern "C"

namespace {

// The module's type codes, interface types and exception family, by the
// address of their TypeCode variables (so the list is fixed at link time). Sequence type codes
// carry no repository id and are listed for completeness; the registry skips them.
const TypeCode* const kFanout2Types[] = {
    &TC_Kel_Fanout2_Property,
    &TC_Kel_Fanout2_Properties,
    &TC_Kel_Fanout2_PropertiesList,
    &TC_Kel_Fanout2_PropertiesListList,
    &TC_Kel_Fanout2_StreamKey,
    &TC_Kel_Fanout2_Repeater,
    &TC_Kel_Fanout2__sequence_Property_Properties,
    &TC_Kel_Fanout2__sequence_Properties_PropertiesList,
    &TC_Kel_Fanout2__sequence_PropertiesList_PropertiesListList,
    &TC_Kel_Fanout2__sequence_octet_StreamKey,
#define FANOUT_LIST_EXCEPTION(T) &TC_Kel_Fanout2_##T,
    FANOUT2_BASE_EXCEPTIONS(FANOUT_LIST_EXCEPTION)
#undef FANOUT_LIST_EXCEPTION
        & TC_Kel_Fanout2_ExDistributionDeferred,
    nullptr,
};

// Set by the first fanout_init; a plain flag, as start-up is single-threaded.
bool g_types_registered = false;

}  // namespace

extern "C" {

const TypeRepository Fanout2_type_repository = {"Kel_Fanout2", kFanout2Types};
const TypeRepository* const _imp_Fanout2_type_repository = &Fanout2_type_repository;

FANOUT_EXPORT void fanout_init(void) {
    if (g_types_registered) return;
    static const TypeRepository* const registration[2] = {&Fanout2_type_repository,
                                                          &type_repository_null};
    adr_type_init(registration);
    g_types_registered = true;
}

FANOUT_EXPORT uint8_t zel_generic_equal(TypeCode tc, Environment* env, const void* a,
                                        const void* b) {
    ev_clear(env);
    if (a == b) return 1;
    AdrBuffer* first = adr_init_encode_buffer();
    AdrBuffer* second = nullptr;
    uint8_t equal = 0;
    try {
        second = adr_init_encode_buffer();
        // Encoding only reads the value.
        marshal_item(first, tc, const_cast<void*>(a));
        marshal_item(second, tc, const_cast<void*>(b));
    } catch (...) {
        adr_free_buf(first);
        adr_free_buf(second);
        throw;
    }
    int32_t code = first->error != ADR_OK ? first->error : second->error;
    if (code != ADR_OK) {
        vaRaiseException(env, nullptr, -1, "Marshalling error (%1$d)", code);
    } else {
        equal = first->length == second->length &&
                        (first->length == 0 ||
                         std::memcmp(first->data, second->data, first->length) == 0)
                    ? 1
                    : 0;
    }
    adr_free_buf(first);
    adr_free_buf(second);
    return equal;
}

FANOUT_EXPORT void adr_v_Kel_Fanout2_Property(AdrBuffer* buf, Property* v) {
    adr_start_struct(buf);
    adr_v_string(buf, &v->key);
    adr_v_any(buf, &v->value);
    adr_end_struct(buf);
}

}  // extern "C"

// The generated families: the same delegation for each type.
#define FANOUT_DEFINE_FAMILY(T, Type, tc)                                                      \
    extern "C" FANOUT_EXPORT uint8_t _equal_Kel_Fanout2_##T(Environment* env, const Type* a,   \
                                                            const Type* b) {                   \
        return static_cast<uint8_t>(_generic_equal(tc, env, a, b));                            \
    }                                                                                          \
    extern "C" FANOUT_EXPORT Type _copy_Kel_Fanout2_##T(Environment* env, const Type* source,  \
                                                        int32_t temporary) {                   \
        Type result{};                                                                         \
        void* block = _generic_copy(tc, env, source, temporary);                               \
        if (block != nullptr) {                                                                \
            std::memcpy(&result, block, sizeof(Type));                                         \
            mg_free(block); /* its contents now belong to result */                            \
        }                                                                                      \
        return result;                                                                         \
    }                                                                                          \
    extern "C" FANOUT_EXPORT uint8_t _t_equal_Kel_Fanout2_##T(Environment* env, const Type* a, \
                                                              const Type* b) {                 \
        return static_cast<uint8_t>(_t_generic_equal(tc, env, a, b));                          \
    }                                                                                          \
    extern "C" FANOUT_EXPORT void _t_copy_Kel_Fanout2_##T(Environment* env, Type* dest,        \
                                                          const Type* source) {                \
        _t_generic_copy(tc, env, dest, source);                                                \
    }

FANOUT_DEFINE_FAMILY(Property, Property, TC_Kel_Fanout2_Property)
FANOUT_DEFINE_FAMILY(_sequence_Property_Properties, Properties,
                     TC_Kel_Fanout2__sequence_Property_Properties)
FANOUT_DEFINE_FAMILY(_sequence_Properties_PropertiesList, PropertiesList,
                     TC_Kel_Fanout2__sequence_Properties_PropertiesList)
FANOUT_DEFINE_FAMILY(_sequence_PropertiesList_PropertiesListList, PropertiesListList,
                     TC_Kel_Fanout2__sequence_PropertiesList_PropertiesListList)
FANOUT_DEFINE_FAMILY(_sequence_octet_StreamKey, StreamKey, TC_Kel_Fanout2__sequence_octet_StreamKey)

#undef FANOUT_DEFINE_FAMILY
