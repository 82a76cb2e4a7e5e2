// sequence.cpp - the runtime's generic three-word sequences.
//
// Every sequence type shares the layout {maximum, length, buffer}; these
// functions work on any of them given the element size. The buffer grows by
// doubling (from 4 elements), so appending n elements costs O(n) copies in
// total. Elements are moved as plain bytes: what an element owns travels
// with it and is never freed here.

#include <cstdint>
#include <cstring>

#include "fanout/runtime.h"
#include "runtime/raise.h"

namespace {

constexpr uint32_t kFirstCapacity = 4;

GenericSeq* as_seq(void* seq) {
    return static_cast<GenericSeq*>(seq);
}

// Makes room for one more element. A header whose maximum is below its
// length (built by hand) is treated as full.
void reserve_one(GenericSeq* s, uint32_t element_size) {
    if (s->length < s->maximum && s->buffer != nullptr) return;
    if (s->length == UINT32_MAX) fanout::raise_no_memory(SIZE_MAX);
    uint64_t wanted = s->length < kFirstCapacity ? kFirstCapacity : uint64_t{s->length} * 2;
    if (wanted > UINT32_MAX) wanted = UINT32_MAX;
    uint64_t bytes = wanted * element_size;
    if (bytes > SIZE_MAX) fanout::raise_no_memory(SIZE_MAX);
    s->buffer = mg_realloc(s->buffer, static_cast<size_t>(bytes));
    s->maximum = static_cast<uint32_t>(wanted);
}

}  // namespace

extern "C" {

FANOUT_EXPORT void seq_add(void* seq, const void* element, uint32_t element_size) {
    GenericSeq* s = as_seq(seq);
    auto* base = static_cast<const uint8_t*>(s->buffer);
    const auto* from = static_cast<const uint8_t*>(element);
    // The element may live in the buffer that is about to move.
    if (base != nullptr && from >= base && from < base + size_t{s->maximum} * element_size) {
        size_t offset = static_cast<size_t>(from - base);
        reserve_one(s, element_size);
        from = static_cast<const uint8_t*>(s->buffer) + offset;
    } else {
        reserve_one(s, element_size);
    }
    auto* to = static_cast<uint8_t*>(s->buffer) + size_t{s->length} * element_size;
    std::memmove(to, from, element_size);
    s->length++;
}

FANOUT_EXPORT void* seq_remove(void* seq, uint32_t index, uint32_t element_size) {
    GenericSeq* s = as_seq(seq);
    if (index >= s->length) return nullptr;
    auto* base = static_cast<uint8_t*>(s->buffer);
    void* removed = mg_malloc(element_size);
    std::memcpy(removed, base + size_t{index} * element_size, element_size);
    size_t after = size_t{s->length - index - 1} * element_size;
    std::memmove(base + size_t{index} * element_size, base + size_t{index + 1} * element_size,
                 after);
    s->length--;
    return removed;
}

FANOUT_EXPORT void seq_free_buffer(void* seq) {
    if (seq == nullptr) return;
    GenericSeq* s = as_seq(seq);
    mg_free(s->buffer);
    s->buffer = nullptr;
    s->maximum = 0;
    s->length = 0;
}

}  // extern "C"
