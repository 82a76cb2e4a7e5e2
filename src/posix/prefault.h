// prefault.h - populating large fresh blocks before they are written: the
// portability layer's one piece of memory advice to the host (madvise).
//
// Large blocks come from the kernel as untouched pages, and on virtual
// machines faulting them in one page at a time costs far more than the
// copying or converting that fills them. For a block about to be written
// from front to back, ask once for huge pages and for the range to be
// populated. This is advice only: the block stays an ordinary heap block,
// its contents are unchanged, and a kernel that refuses changes nothing.
#ifndef FANOUT_SRC_POSIX_PREFAULT_H
#define FANOUT_SRC_POSIX_PREFAULT_H

#include <cstddef>
#include <cstdint>

#if defined(__linux__)
#include <sys/mman.h>
#endif

namespace fanout {

inline void prefault_for_write(void* block, std::size_t bytes) noexcept {
#if defined(__linux__)
#ifndef MADV_POPULATE_WRITE
#define MADV_POPULATE_WRITE 23
#endif
    constexpr std::size_t kWorthIt = std::size_t{8} << 20;
    if (block == nullptr || bytes < kWorthIt) return;
    const std::uintptr_t page = 4096;
    const std::uintptr_t first = (reinterpret_cast<std::uintptr_t>(block) + page - 1) & ~(page - 1);
    const std::uintptr_t last = (reinterpret_cast<std::uintptr_t>(block) + bytes) & ~(page - 1);
    if (last <= first) return;
    auto* start = reinterpret_cast<void*>(first);
    madvise(start, last - first, MADV_HUGEPAGE);
    madvise(start, last - first, MADV_POPULATE_WRITE);
#else
    (void)block;
    (void)bytes;
#endif
}

}  // namespace fanout

#endif  // FANOUT_SRC_POSIX_PREFAULT_H
