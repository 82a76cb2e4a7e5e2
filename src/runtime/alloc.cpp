// alloc.cpp - the runtime allocator: C heap blocks that are never null.
//
// Every block of the record side comes from here and goes back through
// mg_free. Exhaustion is not a return value: it raises the runtime's
// NO_MEMORY exception (raise_no_memory), so callers never test for null.
// A request for zero bytes is served as one byte so that a successful call
// always hands back a distinct, freeable block.

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "fanout/runtime.h"
#include "runtime/raise.h"

extern "C" {

FANOUT_EXPORT void* mg_malloc(size_t size) {
    void* block = std::malloc(size == 0 ? 1 : size);
    if (block == nullptr) fanout::raise_no_memory(size);
    return block;
}

FANOUT_EXPORT void* mg_calloc(size_t count, size_t size) {
    if (count == 0 || size == 0) {
        count = 1;
        size = 1;
    }
    void* block = std::calloc(count, size);
    if (block == nullptr) {
        // calloc also fails on count * size overflowing; report the request
        // saturated rather than wrapped.
        size_t bytes = count > SIZE_MAX / size ? SIZE_MAX : count * size;
        fanout::raise_no_memory(bytes);
    }
    return block;
}

FANOUT_EXPORT void* mg_realloc(void* block, size_t size) {
    // realloc(p, 0) may free p and return null; keep the "never null" rule.
    void* grown = std::realloc(block, size == 0 ? 1 : size);
    if (grown == nullptr) fanout::raise_no_memory(size);  // block is still valid
    return grown;
}

FANOUT_EXPORT char* mg_strdup(const char* text) {
    if (text == nullptr) return nullptr;
    size_t length = std::strlen(text);
    auto* copy = static_cast<char*>(mg_malloc(length + 1));
    std::memcpy(copy, text, length + 1);
    return copy;
}

FANOUT_EXPORT void mg_free(void* block) {
    std::free(block);
}

}  // extern "C"
