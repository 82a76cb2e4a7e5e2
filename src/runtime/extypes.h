// extypes.h - member tables shared by every exception type code.
//
// All exception records start with the same seven fields; the service's
// exception types (src/idl) describe them with these tables. The eighth entry
// describes the one derived field of the family (a long right after the base
// fields): a type code with kExceptionBaseMembers + 1 members uses it.
#pragma once

#include <cstdint>

#include "fanout/runtime.h"

namespace fanout {

inline constexpr uint32_t kExceptionBaseMembers = 7;

extern const char* const kExceptionMemberNames[kExceptionBaseMembers + 1];
extern const TypeCodeRec* const kExceptionMemberTypes[kExceptionBaseMembers + 1];
extern const uint32_t kExceptionMemberOffsets[kExceptionBaseMembers + 1];

}  // namespace fanout
