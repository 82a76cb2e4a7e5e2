// exceptions.cpp - the Kel_Fanout2 exception family: type codes, visitors,
// constructors and the raising entry points.
//
// Every member has the seven base fields of ExException and is described by
// the shared member tables of the runtime (runtime/extypes.h); only
// ExDistributionDeferred appends a field, a long right after the base fields.
// The per-type functions are generated from one list so that the 23 copies
// cannot drift apart. Records are built by the runtime's ex_build, which
// keeps the message rules (order of appearance, unsigned integers, "$errno",
// the malformed-format fallback) in one place.

#include <cstring>

#include "fanout/fanout2.h"
#include "runtime/extypes.h"

static_assert(offsetof(Kel_Fanout2_ExDistributionDeferred, retry_seconds) == sizeof(ExException),
              "the derived field must follow the base fields");

namespace fanout {

namespace {

const _sequence_any kNoContexts = {0, 0, nullptr};
const Kel_Types_XOpenMessage kNoMessages = {0, 0, nullptr};

// Visits the seven base fields, in marshalling order.
void visit_base(AdrBuffer* buf, ExException* v) {
    adr_v_string(buf, &v->type_id);
    adr_v_string(buf, &v->reserved_text);
    adr_v_long(buf, &v->reserved_code);
    adr_v_string(buf, &v->format);
    adr_v_long(buf, &v->timestamp);
    adr_v_tc_sequence(buf, TC__sequence_any_MsgContext, &v->contexts);
    adr_v_Kel_Types_XOpenMessage(buf, &v->messages);
}

}  // namespace

}  // namespace fanout

#define FANOUT2_TYPE_CODE(T, members)                                              \
    const TypeCodeRec _tc_rec_Kel_Fanout2_##T = {FANOUT_TK_EXCEPT,                 \
                                                 -1,                               \
                                                 "IDL:Kel_Fanout2/" #T ":1.0",     \
                                                 #T,                               \
                                                 "Kel_Fanout2::" #T,               \
                                                 sizeof(Kel_Fanout2_##T),          \
                                                 alignof(Kel_Fanout2_##T),         \
                                                 0,                                \
                                                 members,                          \
                                                 fanout::kExceptionMemberNames,    \
                                                 fanout::kExceptionMemberTypes,    \
                                                 fanout::kExceptionMemberOffsets}; \
    const TypeCode TC_Kel_Fanout2_##T = &_tc_rec_Kel_Fanout2_##T;

#define FANOUT2_DEFINE_BASE_EXCEPTION(T)                                                           \
    FANOUT2_TYPE_CODE(T, fanout::kExceptionBaseMembers)                                            \
    FANOUT_EXPORT void adr_v_Kel_Fanout2_##T(AdrBuffer* buf, Kel_Fanout2_##T* v) {                 \
        adr_start_struct(buf);                                                                     \
        fanout::visit_base(buf, v);                                                                \
        adr_end_struct(buf);                                                                       \
    }                                                                                              \
    FANOUT_EXPORT Kel_Fanout2_##T* _create_Kel_Fanout2_##T(                                        \
        const char* type_id, const char* reserved_text, int32_t reserved_code, const char* format, \
        int32_t timestamp, const _sequence_any* contexts,                                          \
        const Kel_Types_XOpenMessage* messages) {                                                  \
        return static_cast<Kel_Fanout2_##T*>(                                                      \
            generic_create(TC_Kel_Fanout2_##T, &type_id, &reserved_text, &reserved_code, &format,  \
                           &timestamp, contexts != nullptr ? contexts : &fanout::kNoContexts,      \
                           messages != nullptr ? messages : &fanout::kNoMessages, nullptr));       \
    }

extern "C" {

FANOUT2_BASE_EXCEPTIONS(FANOUT2_DEFINE_BASE_EXCEPTION)

FANOUT2_TYPE_CODE(ExDistributionDeferred, fanout::kExceptionBaseMembers + 1)

FANOUT_EXPORT void adr_v_Kel_Fanout2_ExDistributionDeferred(AdrBuffer* buf,
                                                            Kel_Fanout2_ExDistributionDeferred* v) {
    adr_start_struct(buf);
    fanout::visit_base(buf, reinterpret_cast<ExException*>(v));
    adr_v_long(buf, &v->retry_seconds);
    adr_end_struct(buf);
}

FANOUT_EXPORT Kel_Fanout2_ExDistributionDeferred* _create_Kel_Fanout2_ExDistributionDeferred(
    const char* type_id, const char* reserved_text, int32_t reserved_code, const char* format,
    int32_t timestamp, const _sequence_any* contexts, const Kel_Types_XOpenMessage* messages,
    int32_t retry_seconds) {
    return static_cast<Kel_Fanout2_ExDistributionDeferred*>(generic_create(
        TC_Kel_Fanout2_ExDistributionDeferred, &type_id, &reserved_text, &reserved_code, &format,
        &timestamp, contexts != nullptr ? contexts : &fanout::kNoContexts,
        messages != nullptr ? messages : &fanout::kNoMessages, &retry_seconds, nullptr));
}

FANOUT_EXPORT void adr_v_Kel_Types_XOpenMessage(AdrBuffer* buf, Kel_Types_XOpenMessage* v) {
    adr_v_tc_sequence(buf, TC_Kel_Types_XOpenMessage, v);
}

FANOUT_EXPORT void* vMakeExErrorDerived(const char* type_id, size_t record_size,
                                        const char* catalog, long number, const char* format,
                                        va_list args) {
    return ex_build(type_id, record_size, catalog, static_cast<int32_t>(number), format, args);
}

FANOUT_EXPORT void vaMThrow(const char* type_id, const char* catalog, long number,
                            const char* format, ...) {
    va_list args;
    va_start(args, format);
    void* record;
    try {
        record = vMakeExErrorDerived(type_id, sizeof(Kel_Fanout2_ExDistributionDeferred), catalog,
                                     number, format, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
    eh_throw(ex_type_id(record), record);
}

FANOUT_EXPORT void vaMThrowChild(const char* type_id, const void* template_record,
                                 size_t record_size, const char* catalog, long number,
                                 const char* format, ...) {
    va_list args;
    va_start(args, format);
    void* record;
    try {
        record = vMakeExErrorDerived(type_id, record_size, catalog, number, format, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
    if (template_record != nullptr && record_size > sizeof(ExException)) {
        std::memcpy(static_cast<char*>(record) + sizeof(ExException),
                    static_cast<const char*>(template_record) + sizeof(ExException),
                    record_size - sizeof(ExException));
    }
    eh_throw(ex_type_id(record), record);
}

}  // extern "C"
