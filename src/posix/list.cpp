// list.cpp - the portability layer's list container.
//
// A growable array of slots. Occupied slots form a doubly linked chain in the
// order of addition (`link` points to the element added before, `next` to the
// one added after, `last` is the newest); free slots form a singly linked free
// chain through `link`, headed by `free`, where -1 means "the slot after this
// one" so that the never-used tail of the array needs no chain of its own.
// Descriptors are slot indexes and stay put while the array grows by a fixed
// increment (it never shrinks). The array always carries one zeroed spare slot
// past `capacity`: the validity test admits a descriptor equal to the capacity
// and reads that slot's `used` word, which therefore must exist and read 0.
// Memory comes from the layer's allocator (PalMemory*, 32-bit sizes); nothing
// here throws.

#include "fanout/pallist.h"
#include "fanout/palmemory.h"

#include <cstdint>
#include <cstring>

namespace fanout {
namespace {

constexpr PalInt32 kNone = -1;

// Result codes of the iterator operations, with the step numbers they report.
constexpr PalError Result(PalInt32 code, PalInt32 location) noexcept {
    return PalError{code, 0, location};
}

// True when `descriptor` names an element of `list`. The upper bound is
// inclusive on purpose (a descriptor equal to the capacity passes and reads the
// spare slot, which is always free). Negative descriptors are rejected here:
// they would otherwise read before the array.
bool IsValidDescriptor(const PalList1* list, PalInt32 descriptor) noexcept {
    return descriptor >= 0 && descriptor <= list->capacity && list->slots[descriptor].used != 0;
}

// One uninitialised T from the layer's allocator, or null.
template <class T>
T* Allocate() noexcept {
    return static_cast<T*>(PalMemoryMalloc(static_cast<PalInt32>(sizeof(T))));
}

constexpr PalInt32 kSlotSize = static_cast<PalInt32>(sizeof(PalList1Slot));

// The largest capacity whose array, spare slot included, the allocator's
// 32-bit sizes can describe.
constexpr PalInt32 kMaxCapacity = INT32_MAX / kSlotSize - 1;

// Allocates `count` zeroed slots plus the spare, or null.
PalList1Slot* NewSlots(PalInt32 count) noexcept {
    if (count > kMaxCapacity) {
        return nullptr;
    }
    return static_cast<PalList1Slot*>(PalMemoryCalloc(count + 1, kSlotSize));
}

// Grows the array by `increment` slots. The new slots and the new spare are
// zeroed, so a slot that was never used always reads as free (reallocation
// alone would leave them undefined). Fails, leaving the list unchanged,
// when the increment is 0, the array would outgrow the allocator's sizes, or
// the reallocation fails.
bool Grow(PalList1* list) noexcept {
    const PalInt32 oldCapacity = list->capacity;
    const PalInt32 increment = list->increment;
    if (increment <= 0 || increment > kMaxCapacity - oldCapacity) {
        return false;
    }
    const PalInt32 bytes = (oldCapacity + increment + 1) * kSlotSize;
    auto* slots = static_cast<PalList1Slot*>(PalMemoryRealloc(list->slots, bytes));
    if (slots == nullptr) {
        return false;
    }
    // Slot oldCapacity was the spare and is still zero; clear it with the rest.
    std::memset(slots + oldCapacity, 0,
                (static_cast<std::size_t>(increment) + 1) * sizeof(PalList1Slot));
    list->slots = slots;
    list->capacity = oldCapacity + increment;
    return true;
}

}  // namespace
}  // namespace fanout

using fanout::kNone;

extern "C" FANOUT_EXPORT PalInt32 PalList1Create(PalList1** list_ptr, PalInt32 count,
                                                 PalInt32 increment) noexcept {
    if (list_ptr == nullptr || increment < 0) {
        return -1;
    }
    *list_ptr = nullptr;
    if (count < 0) {
        return -1;
    }
    auto* list = fanout::Allocate<PalList1>();
    if (list == nullptr) {
        return -1;
    }
    // A count of 0 still gets the spare slot; the first addition then grows the
    // array by the increment (and fails when the increment is 0 as well).
    list->slots = fanout::NewSlots(count);
    if (list->slots == nullptr) {
        PalMemoryFree(list);
        return -1;
    }
    list->last = kNone;
    list->free = 0;
    list->capacity = count;
    list->increment = increment;
    if (count > 0) {
        list->slots[0].link = kNone;
    }
    *list_ptr = list;
    return 0;
}

extern "C" FANOUT_EXPORT void PalList1Destroy(PalList1** list_ptr) noexcept {
    if (list_ptr == nullptr || *list_ptr == nullptr) {
        return;
    }
    PalMemoryFree((*list_ptr)->slots);
    PalMemoryFree(*list_ptr);
    *list_ptr = nullptr;
}

extern "C" FANOUT_EXPORT PalInt32 PalList1Add(PalList1* list, void* value) noexcept {
    if (list == nullptr) {
        return -1;
    }
    // `free` never exceeds the capacity: it is either a freed slot or the
    // first never-used one, which is the capacity itself when the array is
    // full.
    const PalInt32 d = list->free;
    if (list->capacity <= d) {
        if (!fanout::Grow(list)) {
            return -1;
        }
        list->slots[d].link = kNone;
    }
    PalList1Slot* slots = list->slots;

    PalInt32 nextFree;
    if (slots[d].link == kNone) {
        nextFree = d + 1;
        if (nextFree < list->capacity) {
            slots[nextFree].link = kNone;
        }
    } else {
        nextFree = slots[d].link;
    }

    slots[d].value = value;
    if (list->last != kNone) {
        slots[list->last].next = d;
    }
    slots[d].link = list->last;
    slots[d].next = kNone;
    slots[d].used = 1;
    list->last = d;
    list->free = nextFree;
    return d;
}

extern "C" FANOUT_EXPORT PalInt32 PalList1Remove(PalList1* list, PalInt32 descriptor) noexcept {
    if (list == nullptr || !fanout::IsValidDescriptor(list, descriptor)) {
        return -1;
    }
    PalList1Slot* slots = list->slots;
    PalList1Slot& slot = slots[descriptor];
    if (slot.next != kNone) {
        slots[slot.next].link = slot.link;
    } else {
        list->last = slot.link;
    }
    if (slot.link != kNone) {
        slots[slot.link].next = slot.next;
    }
    slot.link = list->free;
    list->free = descriptor;
    slot.used = 0;
    return 0;
}

extern "C" FANOUT_EXPORT void* PalList1Access(PalList1* list, PalInt32 descriptor) noexcept {
    if (list == nullptr || !fanout::IsValidDescriptor(list, descriptor)) {
        return nullptr;
    }
    return list->slots[descriptor].value;
}

extern "C" FANOUT_EXPORT PalUint32 PalList1GetSize(PalList1* list) noexcept {
    // The number of slots, not of elements: callers size their own tables by it.
    return list == nullptr ? 0 : static_cast<PalUint32>(list->capacity);
}

extern "C" FANOUT_EXPORT void PalList1SetSize(PalList1*, PalUint32) noexcept {}

extern "C" FANOUT_EXPORT PalError PalList1IteratorCreate(PalList1* list,
                                                         PalIterator* iterator) noexcept {
    if (iterator == nullptr) {
        return fanout::Result(PAL_ERR_INVALID_ARGUMENT, 0);
    }
    if (list == nullptr) {
        return fanout::Result(PAL_ERR_INVALID_ARGUMENT, 1);
    }
    auto* state = fanout::Allocate<PalList1IteratorState>();
    if (state == nullptr) {
        return fanout::Result(PAL_ERR_NO_MEMORY, 3);
    }
    state->list = list;
    state->current = kNone;
    iterator->state = state;
    iterator->next = PalList1IteratorNext;
    iterator->end = PalList1IteratorEnd;
    return fanout::Result(PAL_OK, 4);
}

extern "C" FANOUT_EXPORT PalError PalList1IteratorNext(PalIterator* iterator, PalInt32* descriptor,
                                                       void** value) noexcept {
    if (iterator == nullptr) {
        return fanout::Result(PAL_ERR_INVALID_ARGUMENT, 0);
    }
    if (descriptor == nullptr) {
        return fanout::Result(PAL_ERR_INVALID_ARGUMENT, 1);
    }
    if (value == nullptr) {
        return fanout::Result(PAL_ERR_INVALID_ARGUMENT, 2);
    }
    auto* state = static_cast<PalList1IteratorState*>(iterator->state);
    if (state == nullptr || state->list == nullptr) {
        return fanout::Result(PAL_ERR_INVALID_ARGUMENT, 3);
    }
    const PalList1* list = state->list;
    // Every index read here stays inside the array, spare slot included. A
    // caller that removed the current element is walked along the free chain
    // (that slot's link now points there); an index that leaves the array,
    // which only such misuse can produce, ends the walk instead of reading
    // outside it.
    PalInt32 candidate = kNone;
    if (state->current == kNone) {
        candidate = list->last;
    } else if (state->current >= 0 && state->current <= list->capacity) {
        candidate = list->slots[state->current].link;
    }
    if (candidate < 0 || candidate > list->capacity) {
        return fanout::Result(PAL_ERR_NO_MORE, 4);
    }
    *descriptor = candidate;
    *value = list->slots[candidate].value;
    state->current = candidate;
    return fanout::Result(PAL_OK, 5);
}

extern "C" FANOUT_EXPORT PalError PalList1IteratorEnd(PalIterator* iterator) noexcept {
    if (iterator == nullptr) {
        return fanout::Result(PAL_ERR_INVALID_ARGUMENT, 0);
    }
    PalMemoryFree(iterator->state);
    iterator->state = nullptr;
    return fanout::Result(PAL_OK, 1);
}
