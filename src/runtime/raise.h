// raise.h - how the record side raises: the runtime's allocator reporting
// exhaustion, and the catalogue exceptions named by their number.
#pragma once

#include <cstddef>
#include <cstdint>

#include "fanout/catalog.h"
#include "fanout/exception.h"
#include "runtime/raise.h"

namespace fanout {

[[noreturn]] void raise_no_memory(std::size_t bytes);

// Raises entry `number` of Fanout2Catalog, its text filled from `args` as
// vaThrow fills it (by conversion letter, in order of appearance). The
// number must be one the catalogue holds.
template <typename... Args>
[[noreturn]] inline void raise_catalogued(int32_t number, Args... args) {
    vaThrow(Fanout2Catalog[0], number, Fanout2Catalog[number], args...);
}

}  // namespace fanout
