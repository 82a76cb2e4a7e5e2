/* util_match_fuzz.cpp - fuzzes the wildcard matcher.
 *
 * Input: the pattern, a NUL byte, then the string (no NUL: the string is
 * empty). Every input is matched in full, which must finish and answer 0, 1
 * or -2; short inputs are also checked against the plain exhaustive
 * recursion that defines the matcher's results. The code set comes from the
 * environment (LC_ALL / LC_CTYPE, and LOCPATH for a locale built with
 * localedef), so a double-byte code set such as BIG5 exercises backslashes
 * that end a character.
 */
#include <algorithm>
#include <clocale>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fanout/log.h"
#include "fanout/pathname.h"

namespace {

/* One bracket expression at p (after the '['): 1 member, 0 not, -2 bad. */
int set_step(const char* p, char c, const char** after) {
    const bool negate = *p == '^';
    p += negate ? 1 : 0;
    if (negate && *p == '\0') {
        return -2;
    }
    bool in = false;
    const signed char sc = static_cast<signed char>(c);
    for (; *p != '\0' && *p != ']'; ++p) {
        p += (*p == '\\' && p[1] != '\0') ? 1 : 0;
        const signed char lo = static_cast<signed char>(*p);
        signed char hi = lo;
        if (p[1] == '-') {
            if (p[2] == '\0') {
                return -2;
            }
            hi = static_cast<signed char>(p[2]);
            p += 2;
        }
        in = in || (lo <= sc && sc <= hi);
    }
    *after = *p == ']' ? p + 1 : p;
    return in != negate ? 1 : 0;
}

int reference(const char* base, const char* p, const char* s) {
    while (*p != '\0' && *s != '\0') {
        if (*p == '*') {
            if (p[1] == '\0') {
                return 0;
            }
            for (; *s != '\0'; ++s) {
                if (reference(base, p + 1, s) == 0) {
                    return 0;
                }
            }
            return 1;
        }
        if (*p == '[') {
            if (p[1] == '\0') {
                return -2;
            }
            const char* after = nullptr;
            const int r = set_step(p + 1, *s, &after);
            if (r != 1) {
                return r == 0 ? 1 : -2;
            }
            p = after;
            p += (*p != '\0' && p[1] != '\0') ? 1 : 0;
            ++s;
            continue;
        }
        bool quoted = false;
        if (*p == '\\' && ilx_mbsbtype(base, static_cast<int32_t>(p - base)) != 2) {
            ++p;
            quoted = true;
        }
        if ((quoted || *p != '?') && *p != *s) {
            return 1;
        }
        ++p;
        ++s;
    }
    return *s == '\0' && (*p == '\0' || (p[0] == '*' && p[1] == '\0')) ? 0 : 1;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    std::setlocale(LC_CTYPE, "");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const char* begin = reinterpret_cast<const char*>(data);
    const char* nul = static_cast<const char*>(std::memchr(begin, '\0', size));
    const std::string pat(begin, nul != nullptr ? nul : begin + size);
    std::string str;
    if (nul != nullptr) {
        str.assign(nul + 1, begin + size);
        str.erase(std::find(str.begin(), str.end(), '\0'), str.end());
    }
    const int32_t got = match(pat.c_str(), str.c_str());
    if (got != 0 && got != 1 && got != -2) {
        std::abort();
    }
    // The recursion may try (string length + 1) ^ stars positions: only
    // inputs where that stays small are checked against it.
    double work = static_cast<double>(pat.size() + 1);
    for (char c : pat) {
        work *= c == '*' ? static_cast<double>(str.size() + 1) : 1.0;
    }
    if (work <= 2e5 && reference(pat.c_str(), pat.c_str(), str.c_str()) != got) {
        std::abort();
    }
    return 0;
}
