/* pallist.h - the portability layer's list container.
 *
 * A growable array of slots holding untyped pointer-sized values. Each element
 * is addressed by a descriptor, its slot index, which stays the same for the
 * element's whole life; removal is constant time and the freed slot is reused
 * by a later addition (last freed, first reused). The occupied slots are
 * chained in the order they were added, and iteration runs from the most
 * recently added element back to the oldest. The array grows by a fixed
 * increment and never shrinks. A list is a single-threaded object: callers
 * serialise access. Stored values are never freed by the list.
 *
 * The iterator record is generic: the store uses the same record, with its
 * own next and end operations, for its enumerations.
 */
#ifndef FANOUT_PALLIST_H
#define FANOUT_PALLIST_H

#include "palerror.h"
#include "paltypes.h"

FANOUT_BEGIN_DECLS

/* One slot of the array. */
typedef struct PalList1Slot {
    PalInt32 used; /* 1 when the slot holds an element, 0 when free */
    PalInt32 link; /* occupied: the element added before this one, or -1;
                      free: the next slot of the free chain, or -1 for the
                      slot after this one */
    PalInt32 next; /* occupied: the element added after this one, or -1 */
    void* value;   /* the stored value */
} PalList1Slot;

/* The list header, created by PalList1Create and owned by the caller. The
 * array always has one zeroed spare slot past `capacity`, which reads as
 * free. */
typedef struct PalList1 {
    PalInt32 last;       /* most recently added element still present, or -1 */
    PalInt32 free;       /* the next slot to use */
    PalList1Slot* slots; /* the slot array */
    PalInt32 capacity;   /* number of slots, not counting the spare */
    PalInt32 increment;  /* slots added when the array is full */
} PalList1;

struct PalIterator;

/* Advances an iterator: stores the next element's descriptor and value. */
typedef PalError (*PalIteratorNextFn)(struct PalIterator* iterator, PalInt32* descriptor,
                                      void** value);
/* Releases an iterator's state. */
typedef PalError (*PalIteratorEndFn)(struct PalIterator* iterator);

/* A generic iterator: an opaque state and the operations that advance it and
 * release it. Call `next` until it returns PAL_ERR_NO_MORE, then `end`. */
typedef struct PalIterator {
    void* state;
    PalIteratorNextFn next;
    PalIteratorEndFn end;
} PalIterator;

/* The state of an iterator over a PalList1. */
typedef struct PalList1IteratorState {
    PalList1* list;   /* the list walked; it must outlive the iterator */
    PalInt32 current; /* the element last returned, -1 before the first step */
} PalList1IteratorState;

/* Creates an empty list with `count` zeroed slots that grows by `increment`
 * slots when full, and stores it in *list_ptr. A count of 0 gives a list that
 * grows on its first addition; an increment of 0 a list that cannot grow.
 * Returns 0, or -1 when list_ptr is null or increment is negative (*list_ptr
 * untouched), or when count is negative or an allocation fails (*list_ptr set
 * to null). Release the list with PalList1Destroy. */
FANOUT_EXPORT PalInt32 PalList1Create(PalList1** list_ptr, PalInt32 count,
                                      PalInt32 increment) FANOUT_NOEXCEPT;

/* Frees the list and sets *list_ptr to null. The stored values are not freed.
 * A null list_ptr or a null list is ignored. */
FANOUT_EXPORT void PalList1Destroy(PalList1** list_ptr) FANOUT_NOEXCEPT;

/* Adds `value` (null allowed) as the newest element and returns its
 * descriptor, or -1 when list is null or the full array cannot grow (an
 * increment of 0, or no memory); the list is then unchanged. */
FANOUT_EXPORT PalInt32 PalList1Add(PalList1* list, void* value) FANOUT_NOEXCEPT;

/* Removes the element `descriptor`; its slot is reused by a later addition.
 * Returns 0, or -1 when list is null or the descriptor does not name an
 * element (negative, out of range or already removed). */
FANOUT_EXPORT PalInt32 PalList1Remove(PalList1* list, PalInt32 descriptor) FANOUT_NOEXCEPT;

/* Returns the value stored for `descriptor`, or null when list is null or the
 * descriptor does not name an element. The list keeps the value. */
FANOUT_EXPORT void* PalList1Access(PalList1* list, PalInt32 descriptor) FANOUT_NOEXCEPT;

/* Returns the number of slots in the array (not the number of elements), or 0
 * for a null list. */
FANOUT_EXPORT PalUint32 PalList1GetSize(PalList1* list) FANOUT_NOEXCEPT;

/* Does nothing: the array is sized by its increment alone. */
FANOUT_EXPORT void PalList1SetSize(PalList1* list, PalUint32 size) FANOUT_NOEXCEPT;

/* Fills `iterator` to walk `list` from the newest element to the oldest, with
 * PalList1IteratorNext and PalList1IteratorEnd as its operations. The
 * iterator owns a state until PalList1IteratorEnd. Returns (0, 0, 4);
 * (21, 0, 0) for a null iterator; (21, 0, 1) for a null list; (12, 0, 3) when
 * the state cannot be allocated (the iterator is then left as it was).
 * Removing the element the iterator stands on sends the next step along the
 * free chain instead of the element chain: do not remove the current element
 * while iterating. */
FANOUT_EXPORT PalError PalList1IteratorCreate(PalList1* list,
                                              PalIterator* iterator) FANOUT_NOEXCEPT;

/* Stores the next element's descriptor and value and returns (0, 0, 5), or
 * returns PAL_ERR_NO_MORE (-6, 0, 4) with the outputs untouched when the walk
 * is over. Null arguments give (21, 0, n): n = 0 iterator, 1 descriptor,
 * 2 value, 3 the iterator's state (already ended). */
FANOUT_EXPORT PalError PalList1IteratorNext(PalIterator* iterator, PalInt32* descriptor,
                                            void** value) FANOUT_NOEXCEPT;

/* Frees the iterator's state and clears its `state` field; returns (0, 0, 1),
 * or (21, 0, 0) for a null iterator. Ending twice is harmless. */
FANOUT_EXPORT PalError PalList1IteratorEnd(PalIterator* iterator) FANOUT_NOEXCEPT;

FANOUT_END_DECLS

#endif /* FANOUT_PALLIST_H */
