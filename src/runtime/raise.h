// raise.h - how the runtime's allocator reports exhaustion as an exception.
#pragma once

#include <cstddef>

namespace fanout { [[noreturn]] void raise_no_memory(std::size_t bytes); }
