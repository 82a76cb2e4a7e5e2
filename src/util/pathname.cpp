/* pathname.cpp - fixed-size path name buffers for the record side.
 *
 * A path name is a 1024-byte character buffer from the runtime allocator.
 * The helpers here clone, join and trim such buffers; like the rest of the
 * record side they raise catalogue exceptions instead of returning errors.
 * None of them checks the 1024-byte bound when copying or appending: the
 * callers build names from the work directory, distribution identifiers and
 * file names that are known to fit.
 */
#include "fanout/pathname.h"

#include <cstring>

#include "fanout/catalog.h"
#include "fanout/exception.h"
#include "fanout/runtime.h"
#include "runtime/raise.h"

namespace {

constexpr uint32_t kPathnameLength = 1024;

/* Appends '/' unless p already ends with one (the empty string gets one). */
void add_separator(char* p) {
    size_t n = std::strlen(p);
    if (n == 0 || p[n - 1] != '/') {
        p[n] = '/';
        p[n + 1] = '\0';
    }
}

}  // namespace

extern "C" {

uint32_t pathname_max_length(void) {
    return kPathnameLength;
}

uint32_t pathname_max_component_length(void) {
    return kPathnameLength;
}

char* pathname_new(void) {
    return static_cast<char*>(mg_calloc(1, kPathnameLength));
}

char* pathname_clone(const char* src) {
    if (src == nullptr) {
        fanout::raise_catalogued(32);
    }
    char* p = pathname_new();
    std::strcpy(p, src);  // unbounded on purpose: callers keep within 1024
    return p;
}

void pathname_delete(char* p) {
    mg_free(p);
}

char* pathname_append(char* p, const char* s) {
    // The separator goes in before the null check, so a failed append
    // leaves p with its trailing '/'.
    add_separator(p);
    if (s == nullptr) {
        fanout::raise_catalogued(33);
    }
    std::strcat(p, s);
    return p;
}

char* pathname_clone_and_append(const char* p, const char* s) {
    char* clone = pathname_clone(p);
    try {
        return pathname_append(clone, s);
    } catch (...) {
        pathname_delete(clone);
        throw;
    }
}

char* pathname_get_name(const char* p) {
    const char* slash = std::strrchr(p, '/');
    if (slash == nullptr) {
        slash = std::strrchr(p, '\\');
    }
    return const_cast<char*>(slash != nullptr ? slash + 1 : p);
}

void pathname_append_separator(char* p) {
    if (p != nullptr) {
        add_separator(p);
    }
}

void pathname_remove_separator(char* p) {
    if (p == nullptr) {
        return;
    }
    size_t n = std::strlen(p);
    while (n > 1 && p[n - 1] == '/') {
        p[--n] = '\0';
    }
}

char* pathname_build_filename(const char* a, const char* b, const char* c) {
    if (a == nullptr || b == nullptr || c == nullptr) {
        return nullptr;
    }
    size_t la = std::strlen(a), lb = std::strlen(b), lc = std::strlen(c);
    char* out = static_cast<char*>(mg_malloc(la + lb + lc + 1));
    std::memcpy(out, a, la);
    std::memcpy(out + la, b, lb);
    std::memcpy(out + la + lb, c, lc);
    out[la + lb + lc] = '\0';
    return out;
}

}  // extern "C"
