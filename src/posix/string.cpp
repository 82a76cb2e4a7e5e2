// string.cpp - null-tolerant wrappers around the C library's string functions.
//
// Each wrapper gives null arguments the result its declaration promises; the
// rules differ between operations on purpose and callers depend on them. In
// particular a null first string sorts after everything (1), which is the
// opposite of PalMemoryCmp. Bounds are 32-bit unsigned.

#include <fanout/palmemory.h>

#include <strings.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

extern "C" {

FANOUT_EXPORT PalInt32 PalStringCmp(const PalChar* s1, const PalChar* s2) noexcept {
    if (s1 == nullptr) return 1;  // tested first: two nulls give 1
    if (s2 == nullptr) return -1;
    return std::strcmp(s1, s2);
}

FANOUT_EXPORT PalInt32 PalStringNCmp(const PalChar* s1, const PalChar* s2, PalUint32 n) noexcept {
    if (s1 == nullptr) return 1;
    if (s2 == nullptr) return -1;
    return std::strncmp(s1, s2, n);
}

FANOUT_EXPORT PalInt32 PalStringICmp(const PalChar* s1, const PalChar* s2) noexcept {
    if (s1 == nullptr) return 1;
    if (s2 == nullptr) return -1;
    return strcasecmp(s1, s2);
}

FANOUT_EXPORT PalInt32 PalStringNICmp(const PalChar* s1, const PalChar* s2, PalUint32 n) noexcept {
    if (s1 == nullptr) return 1;
    if (s2 == nullptr) return -1;
    return strncasecmp(s1, s2, n);
}

FANOUT_EXPORT PalChar* PalStringCat(PalChar* s1, const PalChar* s2) noexcept {
    if (s1 == nullptr) return nullptr;
    if (s2 == nullptr) return s1;
    return std::strcat(s1, s2);
}

FANOUT_EXPORT PalChar* PalStringNCat(PalChar* s1, const PalChar* s2, PalUint32 n) noexcept {
    if (s1 == nullptr) return nullptr;
    if (s2 == nullptr) return s1;
    return std::strncat(s1, s2, n);
}

FANOUT_EXPORT PalChar* PalStringCpy(PalChar* destination, const PalChar* source) noexcept {
    if (destination == nullptr) return nullptr;
    if (source == nullptr) {
        destination[0] = '\0';
        return destination;
    }
    return std::strcpy(destination, source);
}

FANOUT_EXPORT PalChar* PalStringNCpy(PalChar* destination, const PalChar* source,
                                     PalUint32 n) noexcept {
    if (destination == nullptr) return nullptr;
    if (source == nullptr) {
        // A bound of 0 allows no byte at all, not even the terminator.
        if (n > 0) destination[0] = '\0';
        return destination;
    }
    return std::strncpy(destination, source, n);
}

FANOUT_EXPORT PalChar* PalStringDup(const PalChar* s) noexcept {
    if (s == nullptr) return nullptr;
    size_t len = std::strlen(s) + 1;
    auto* copy = static_cast<PalChar*>(std::malloc(len));
    if (copy != nullptr) std::memcpy(copy, s, len);
    return copy;
}

FANOUT_EXPORT PalUint32 PalStringLen(const PalChar* s) noexcept {
    if (s == nullptr) return 0;
    return static_cast<PalUint32>(std::strlen(s));
}

FANOUT_EXPORT PalChar* PalStringChr(const PalChar* s, PalInt32 ch) noexcept {
    if (s == nullptr) return nullptr;
    return const_cast<PalChar*>(std::strchr(s, ch));
}

FANOUT_EXPORT PalChar* PalStringRChr(const PalChar* s, PalInt32 ch) noexcept {
    if (s == nullptr) return nullptr;
    return const_cast<PalChar*>(std::strrchr(s, ch));
}

FANOUT_EXPORT PalChar* PalStringStr(const PalChar* s1, const PalChar* s2) noexcept {
    if (s1 == nullptr || s2 == nullptr) return nullptr;
    return const_cast<PalChar*>(std::strstr(s1, s2));
}

FANOUT_EXPORT PalChar* PalStringStrpbrk(const PalChar* s1, const PalChar* s2) noexcept {
    if (s1 == nullptr || s2 == nullptr) return nullptr;
    return const_cast<PalChar*>(std::strpbrk(s1, s2));
}

FANOUT_EXPORT PalInt32 PalStringStrcspn(const PalChar* s1, const PalChar* s2) noexcept {
    if (s1 == nullptr) return -1;
    if (s2 == nullptr) return static_cast<PalInt32>(std::strlen(s1));
    return static_cast<PalInt32>(std::strcspn(s1, s2));
}

FANOUT_EXPORT PalInt32 PalStringStrspn(const PalChar* s1, const PalChar* s2) noexcept {
    if (s1 == nullptr) return -1;
    if (s2 == nullptr) return 0;
    return static_cast<PalInt32>(std::strspn(s1, s2));
}

FANOUT_EXPORT PalInt32 PalStringSprintf(PalChar* string, const PalChar* format, ...) noexcept {
    if (string == nullptr || format == nullptr) return -1;
    va_list args;
    va_start(args, format);
    int written = std::vsprintf(string, format, args);
    va_end(args);
    return written;
}

}  // extern "C"
