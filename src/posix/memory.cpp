// memory.cpp - null-tolerant wrappers around the C heap and the byte functions.
//
// The store's side never calls malloc or memcmp directly: it goes through
// these wrappers, which give every null pointer and non-positive size a
// defined result instead of undefined behaviour. Sizes are 32-bit signed, as
// the layer's interfaces carry them; a size of 0 or below never reaches the
// heap (a negative size would otherwise become an enormous size_t).

#include <fanout/palmemory.h>

#include <cstdlib>
#include <cstring>

extern "C" {

FANOUT_EXPORT void* PalMemoryMalloc(PalInt32 size) noexcept {
    if (size <= 0) return nullptr;
    return std::malloc(static_cast<size_t>(size));
}

FANOUT_EXPORT void* PalMemoryCalloc(PalInt32 count, PalInt32 size) noexcept {
    if (count <= 0 || size <= 0) return nullptr;
    // calloc itself refuses a product that overflows size_t.
    return std::calloc(static_cast<size_t>(count), static_cast<size_t>(size));
}

FANOUT_EXPORT void* PalMemoryRealloc(void* address, PalInt32 size) noexcept {
    // Size 0 deliberately keeps the old block alive (the caller still owns it)
    // instead of freeing it as realloc(p, 0) may.
    if (size <= 0) return nullptr;
    return std::realloc(address, static_cast<size_t>(size));
}

FANOUT_EXPORT void PalMemoryFree(void* address) noexcept {
    if (address != nullptr) std::free(address);
}

FANOUT_EXPORT PalInt32 PalMemoryCmp(const void* address1, const void* address2,
                                    PalInt32 size) noexcept {
    if (address1 == address2) return 0;  // no memory is read, even for bad pointers
    if (address2 == nullptr) return 1;
    if (address1 == nullptr) return -1;
    if (size <= 0) return 0;
    return std::memcmp(address1, address2, static_cast<size_t>(size));
}

FANOUT_EXPORT void PalMemoryCpy(void* address1, const void* address2, PalInt32 size) noexcept {
    if (address1 == address2 || address1 == nullptr || address2 == nullptr || size < 1) return;
    std::memcpy(address1, address2, static_cast<size_t>(size));
}

FANOUT_EXPORT void PalMemoryMove(void* address1, const void* address2, PalInt32 size) noexcept {
    if (address1 == address2 || address1 == nullptr || address2 == nullptr || size < 1) return;
    std::memmove(address1, address2, static_cast<size_t>(size));
}

FANOUT_EXPORT PalError PalMemorySet(void* address, PalInt32 size, PalInt32 value) noexcept {
    // traceLocation carries no meaning for this call; it is left at 0.
    if (address == nullptr || size <= 0) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    std::memset(address, static_cast<unsigned char>(value), static_cast<size_t>(size));
    return PalErrorCreate(PAL_OK, 0, 0);
}

}  // extern "C"
