/* fanout2.h - the service's exception family (module Kel_Fanout2).
 *
 * Twenty-three exception types, all with the seven base fields of
 * ExException (exception.h); ExDistributionDeferred adds one 32-bit field.
 * A type's identity is its type_id, the colon-separated chain from the root
 * of the hierarchy to the type: FANOUT2_EX_ROOT_ID for ExFanoutException,
 * FANOUT2_EX_ID(T) for every other type T. Test membership with ex_is_a;
 * every member is also an ExErrorMsg (FANOUT_EX_ERROR_MSG_ID).
 *
 * For each type T there are:
 *  - the record type Kel_Fanout2_T;
 *  - its type code TC_Kel_Fanout2_T (exception kind, repository id
 *    "IDL:Kel_Fanout2/T:1.0", registered name "Kel_Fanout2::T");
 *  - the visitor adr_v_Kel_Fanout2_T, which marshals or unmarshals the
 *    fields in order;
 *  - the constructor _create_Kel_Fanout2_T, which returns a new record with
 *    deep copies of the given field values (free with ex_free); null strings
 *    stay null and a null sequence pointer gives an empty sequence. It raises
 *    when memory is exhausted.
 *
 * Raise a member with vaMThrow (base fields only) or vaMThrowChild (a record
 * of a derived size whose own fields come from a template):
 *
 *     Kel_Fanout2_ExDistributionDeferred t = {0};
 *     t.retry_seconds = 300;
 *     vaMThrowChild(FANOUT2_EX_ID(ExDistributionDeferred), &t, sizeof t,
 *                   Fanout2Catalog[0], 206, Fanout2Catalog[206], package, 300);
 *
 * Thread safety: the type codes are constant and the constructors keep no
 * state; any thread may build and raise records. A record belongs to one
 * thread at a time.
 */
#ifndef FANOUT_FANOUT2_H
#define FANOUT_FANOUT2_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "exception.h"
#include "export.h"
#include "runtime.h"

FANOUT_BEGIN_DECLS

/* The type id of ExFanoutException, the root of the family. */
#define FANOUT2_EX_ROOT_ID FANOUT_EX_ERROR_MSG_ID ":Kel_Fanout2::ExFanoutException"
/* The type id of member T (not ExFanoutException), e.g.
 * FANOUT2_EX_ID(ExDepotNoSpace). */
#define FANOUT2_EX_ID(T) FANOUT2_EX_ROOT_ID ":Kel_Fanout2::" #T

/* The family with the members that have only the base fields. */
/* clang-format off */
#define FANOUT2_BASE_EXCEPTIONS(X) \
    X(ExFanoutException) \
    X(ExDepotNoSpace) \
    X(ExLargeSegment) \
    X(ExSegmentLocked) \
    X(ExInvalidSegment) \
    X(ExSegmentNotFound) \
    X(ExClientUnreachable) \
    X(ExSendInterrupted) \
    X(ExClientNotServiced) \
    X(ExClientFailedToConnect) \
    X(ExClientExitedEarly) \
    X(ExClientFailedToStart) \
    X(ExClientForcedToStop) \
    X(ExMsgFormatError) \
    X(ExSendError) \
    X(ExDepotFilesystem) \
    X(ExEndpointNotMobile) \
    X(ExDistExists) \
    X(ExRepeaterNotRunning) \
    X(ExFailedToSetChkpt) \
    X(ExDistributionRejected) \
    X(ExInvalidCall)
/* clang-format on */

#define FANOUT2_DECLARE_BASE_EXCEPTION(T)                                                          \
    typedef ExException Kel_Fanout2_##T;                                                           \
    FANOUT_EXPORT extern const struct TypeCodeRec _tc_rec_Kel_Fanout2_##T;                         \
    FANOUT_EXPORT extern const TypeCode TC_Kel_Fanout2_##T;                                        \
    FANOUT_EXPORT void adr_v_Kel_Fanout2_##T(AdrBuffer* buf, Kel_Fanout2_##T* v);                  \
    FANOUT_EXPORT Kel_Fanout2_##T* _create_Kel_Fanout2_##T(                                        \
        const char* type_id, const char* reserved_text, int32_t reserved_code, const char* format, \
        int32_t timestamp, const _sequence_any* contexts, const Kel_Types_XOpenMessage* messages);

FANOUT2_BASE_EXCEPTIONS(FANOUT2_DECLARE_BASE_EXCEPTION)

/* A distribution deferred by the content delivery service: field 8 is the
 * number of seconds after which to retry. */
typedef struct Kel_Fanout2_ExDistributionDeferred {
    FANOUT_EXCEPTION_FIELDS
    int32_t retry_seconds;
} Kel_Fanout2_ExDistributionDeferred;

FANOUT_EXPORT extern const struct TypeCodeRec _tc_rec_Kel_Fanout2_ExDistributionDeferred;
FANOUT_EXPORT extern const TypeCode TC_Kel_Fanout2_ExDistributionDeferred;
FANOUT_EXPORT void adr_v_Kel_Fanout2_ExDistributionDeferred(AdrBuffer* buf,
                                                            Kel_Fanout2_ExDistributionDeferred* v);
FANOUT_EXPORT Kel_Fanout2_ExDistributionDeferred* _create_Kel_Fanout2_ExDistributionDeferred(
    const char* type_id, const char* reserved_text, int32_t reserved_code, const char* format,
    int32_t timestamp, const _sequence_any* contexts, const Kel_Types_XOpenMessage* messages,
    int32_t retry_seconds);

/* Marshals or unmarshals a message list (a sequence of message entries). */
FANOUT_EXPORT void adr_v_Kel_Types_XOpenMessage(AdrBuffer* buf, Kel_Types_XOpenMessage* v);

/* Builds a new zero-filled record of record_size bytes with the base fields
 * filled from the message (the rules of vaThrow in exception.h: arguments by
 * order of appearance, integers unsigned, "$errno", the "Format has illegal
 * types (%1$s)" fallback). The caller owns it; free with ex_free. A null
 * type_id aborts the process. */
FANOUT_EXPORT void* vMakeExErrorDerived(const char* type_id, size_t record_size,
                                        const char* catalog, long number, const char* format,
                                        va_list args);

/* Raises the message as an exception of type `type_id` (a chain of the
 * family, or any other chain). The record is large enough for every member
 * of the family; derived fields are zero. Does not return. */
FANOUT_EXPORT FANOUT_NORETURN void vaMThrow(const char* type_id, const char* catalog, long number,
                                            const char* format, ...);

/* As vaMThrow with a record of record_size bytes whose bytes after the base
 * fields (from sizeof(ExException) to record_size) are copied from
 * `template_record`, which the caller filled with the derived fields only.
 * A null template or a record_size not above sizeof(ExException) copies
 * nothing. Does not return. */
FANOUT_EXPORT FANOUT_NORETURN void vaMThrowChild(const char* type_id, const void* template_record,
                                                 size_t record_size, const char* catalog,
                                                 long number, const char* format, ...);

FANOUT_END_DECLS

#endif /* FANOUT_FANOUT2_H */
