// extypes.cpp - type codes of the exception records.
//
// The runtime copies, frees, compares and marshals values by walking type
// codes, so the records of exception.h are described here: the message entry
// (a struct), the message list (a sequence of entries) and the base record
// ExErrorMsg (an exception with the seven base fields). The service's own
// exception types reuse the member tables exported at the end.

#include <cstddef>

#include "fanout/exception.h"
#include "runtime/extypes.h"

namespace fanout {

namespace {

const char* const kEntryNames[] = {"catalog", "default_text", "number", "arguments"};
const TypeCodeRec* const kEntryTypes[] = {&_tc_rec_string, &_tc_rec_string, &_tc_rec_long,
                                          &_tc_rec_any};
const uint32_t kEntryOffsets[] = {offsetof(Kel_Types_XOpenMessageEntry, catalog),
                                  offsetof(Kel_Types_XOpenMessageEntry, default_text),
                                  offsetof(Kel_Types_XOpenMessageEntry, number),
                                  offsetof(Kel_Types_XOpenMessageEntry, arguments)};

const TypeCodeRec* const kMessageElement[] = {&_tc_rec_Kel_Types_XOpenMessageEntry};

}  // namespace

const char* const kExceptionMemberNames[kExceptionBaseMembers + 1] = {
    "type_id",   "reserved_text", "reserved_code", "format",
    "timestamp", "contexts",      "messages",      "retry_seconds"};
const TypeCodeRec* const kExceptionMemberTypes[kExceptionBaseMembers + 1] = {
    &_tc_rec_string,
    &_tc_rec_string,
    &_tc_rec_long,
    &_tc_rec_string,
    &_tc_rec_long,
    &_tc_rec__sequence_any_MsgContext,
    &_tc_rec_Kel_Types_XOpenMessage,
    &_tc_rec_long};
const uint32_t kExceptionMemberOffsets[kExceptionBaseMembers + 1] = {
    offsetof(ExException, type_id),       offsetof(ExException, reserved_text),
    offsetof(ExException, reserved_code), offsetof(ExException, format),
    offsetof(ExException, timestamp),     offsetof(ExException, contexts),
    offsetof(ExException, messages),      sizeof(ExException)};

}  // namespace fanout

extern "C" {

const TypeCodeRec _tc_rec_Kel_Types_XOpenMessageEntry = {FANOUT_TK_STRUCT,
                                                         -1,
                                                         "IDL:Kel_Types/XOpenMessageEntry:1.0",
                                                         "XOpenMessageEntry",
                                                         "Kel_Types::XOpenMessageEntry",
                                                         sizeof(Kel_Types_XOpenMessageEntry),
                                                         alignof(Kel_Types_XOpenMessageEntry),
                                                         0,
                                                         4,
                                                         fanout::kEntryNames,
                                                         fanout::kEntryTypes,
                                                         fanout::kEntryOffsets};

const TypeCodeRec _tc_rec_Kel_Types_XOpenMessage = {FANOUT_TK_SEQUENCE,
                                                    -1,
                                                    "IDL:Kel_Types/XOpenMessage:1.0",
                                                    "XOpenMessage",
                                                    "Kel_Types::XOpenMessage",
                                                    sizeof(Kel_Types_XOpenMessage),
                                                    alignof(Kel_Types_XOpenMessage),
                                                    0,
                                                    1,
                                                    nullptr,
                                                    fanout::kMessageElement,
                                                    nullptr};

const TypeCodeRec _tc_rec_ExErrorMsg = {FANOUT_TK_EXCEPT,
                                        -1,
                                        "IDL:ExException/ExErrorMsg:1.0",
                                        "ExErrorMsg",
                                        "ExException::ExErrorMsg",
                                        sizeof(ExException),
                                        alignof(ExException),
                                        0,
                                        fanout::kExceptionBaseMembers,
                                        fanout::kExceptionMemberNames,
                                        fanout::kExceptionMemberTypes,
                                        fanout::kExceptionMemberOffsets};

const TypeCode TC_Kel_Types_XOpenMessageEntry = &_tc_rec_Kel_Types_XOpenMessageEntry;
const TypeCode TC_Kel_Types_XOpenMessage = &_tc_rec_Kel_Types_XOpenMessage;
const TypeCode TC_ExErrorMsg = &_tc_rec_ExErrorMsg;

}  // extern "C"
