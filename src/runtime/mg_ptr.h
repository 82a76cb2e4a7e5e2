// mg_ptr.h - ownership of blocks from the runtime's allocator (mg_malloc,
// mg_calloc, mg_strdup and the functions documented as returning a block the
// caller frees with mg_free): a unique_ptr that gives the block back to
// mg_free when it goes out of scope.
#ifndef FANOUT_SRC_RUNTIME_MG_PTR_H
#define FANOUT_SRC_RUNTIME_MG_PTR_H

#include <memory>

#include "fanout/runtime.h"

namespace fanout {

struct MgFree {
    void operator()(void* block) const noexcept { mg_free(block); }
};

// A block of T (or an array of T) owned until the end of the scope.
template <typename T>
using MgPtr = std::unique_ptr<T, MgFree>;

// A zero-terminated text from the runtime's allocator.
using MgString = MgPtr<char>;

}  // namespace fanout

#endif  // FANOUT_SRC_RUNTIME_MG_PTR_H
