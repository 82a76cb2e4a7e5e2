// typecode_internal.h - helpers shared by the type-code walkers of the runtime.
//
// The generic operations (generic.cpp) and the marshaller's decoder both need
// to look through aliases, know the in-memory size of a value, lay out the
// members of a structure built at run time with natural C alignment, map a
// basic kind to its static type code, and find the library's own type code
// for a repository id. Those helpers live here.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fanout/runtime.h"

namespace fanout {

// The alignment a C compiler gives a member of type T inside a structure
// (on i386 that is 4 for 64-bit integers and doubles, not alignof's 8).
template <typename T>
struct AlignProbe {
    char c;
    T v;
};
template <typename T>
constexpr uint32_t member_align() {
    return static_cast<uint32_t>(offsetof(AlignProbe<T>, v));
}

// Follows aliases to the type they name. Null stays null; a malformed alias
// (no member type) or a chain longer than 64 links gives null.
TypeCode tc_unalias(TypeCode tc) noexcept;

// Size in bytes of a value of type tc (the record's size; an alias whose
// record says 0 gives the size of what it names). Null gives 0.
uint32_t tc_size(TypeCode tc) noexcept;

// True for the kinds the generic operations can walk (see runtime.h).
bool tc_kind_walkable(uint32_t kind) noexcept;

// True when a value of this type (aliases followed) owns no further blocks,
// so that it can be copied, compared and dropped as plain bytes.
bool tc_is_flat(TypeCode tc) noexcept;

// The static type code of a kind that needs no parameters (null, void, the
// integer, floating, boolean, char and octet kinds, any, TypeCode, and the
// unbounded string), or null for any other kind.
TypeCode tc_basic(uint32_t kind) noexcept;

// In-memory size and alignment of a value of kind `kind` when it does not
// depend on parameters (all the kinds tc_basic knows, plus objref, enum and
// sequence); false otherwise. Alignment is the one a C compiler gives a
// member of that type inside a structure.
bool tc_kind_layout(uint32_t kind, uint32_t* size, uint32_t* align) noexcept;

// Lays out a structure with members of the given types, with natural C
// alignment: offsets[i] receives member i's offset, *size the total size
// rounded up to *align, *align the largest member alignment (1 when there are
// no members). False when a member type is null or the size passes 2^31.
bool tc_struct_layout(uint32_t count, const TypeCode* types, uint32_t* offsets, uint32_t* size,
                      uint32_t* align) noexcept;

// A new run-time type code record: zero-filled from mg_calloc, refcount 1,
// `kind` set. Fill it (every pointer field a separate mg_malloc'ed block, one
// reference per member type) and release it with TypeCode_release. Raises
// when memory is exhausted.
TypeCodeRec* tc_new_dynamic(uint32_t kind);

// The registered static type code for a repository id, or null (also for a
// null or empty id). Thread-safe. The runtime's own named types (TC_Object,
// the Kel_Types lists and the exception base types) are always registered.
TypeCode tc_registry_find(const char* repo_id) noexcept;

// How many times adr_type_init has been called in this process.
std::size_t tc_registry_init_calls() noexcept;

}  // namespace fanout
