/* match.cpp - the shell-style wildcard matcher.
 *
 * match(pat, string) walks the pattern and the string together: '?' takes
 * any one character, '*' any run, a backslash makes the next pattern
 * character literal, and a bracket expression takes one character from a set
 * (with ranges and '^' negation). Two behaviours are kept on purpose because
 * stored patterns rely on them:
 *
 *  1. After a bracket expression the pattern moves past the ']' and, when
 *     the character there is not the pattern's last, past that character as
 *     well, so "[a-c]xy" matches "by" and not "bxy" while "[a-c]x" matches
 *     "bx".
 *  2. When the string runs out first, what is left of the pattern matches
 *     the empty tail only if it is nothing or one single star: "a**" does
 *     not match "a".
 *
 * A backslash that is the second byte of a double-byte character in the
 * current code set is that character's byte, not an escape.
 *
 * The result is defined by the exhaustive search (each star calls the
 * matcher on the rest of the pattern at every remaining string position),
 * but it is computed without recursion and in O(pattern x string) steps.
 * Every pattern element other than a star consumes exactly one string
 * character, and which pattern positions are visited does not depend on the
 * string. So when the rest after a star reaches a later star, the later
 * star's search is final (a later start of the earlier star would reach it
 * further on, where it can only fail too), and when the string runs out
 * before the pattern, starting later cannot help either. Only the latest
 * star is ever resumed, as in the classic two-pointer glob matcher.
 */
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "fanout/log.h"
#include "fanout/pathname.h"

namespace fanout {
namespace {

constexpr int32_t kMatch = 0;
constexpr int32_t kNoMatch = 1;
constexpr int32_t kMalformed = -2;

/* Which backslashes of a pattern are the trailing byte of a double-byte
 * character (and so no escape). The answer is ilx_mbsbtype's, asked once per
 * backslash on the first need, in one forward pass: each question starts at
 * the last known character boundary instead of the pattern's start, so the
 * pass is linear however many backslashes there are. (The byte type of a
 * position does not depend on where, on a character boundary, the scan
 * starts; an invalid byte makes every later position invalid, as it would
 * for a scan from the start.) A single-byte code set has no trailing bytes
 * and needs no pass. Without memory for the table each backslash is asked
 * directly. */
class Backslashes {
  public:
    explicit Backslashes(const char* base) : base_(base) {}

    bool trailing(const char* p) {
        if (!classified_) {
            classify();
        }
        const size_t off = static_cast<size_t>(p - base_);
        if (table_) {
            return table_[off] != 0;
        }
        return multibyte_ && ilx_mbsbtype(base_, static_cast<int32_t>(off)) == 2;
    }

  private:
    int32_t type_at(size_t boundary, size_t off) const {
        return ilx_mbsbtype(base_ + boundary, static_cast<int32_t>(off - boundary));
    }

    void classify() {
        classified_ = true;
        multibyte_ = MB_CUR_MAX > 1;
        if (!multibyte_) {
            return;
        }
        const size_t len = std::strlen(base_);
        table_.reset(new (std::nothrow) unsigned char[len + 1]());
        if (!table_) {
            return;
        }
        size_t boundary = 0;  // a character starts here
        for (size_t off = 0; off < len; ++off) {
            if (base_[off] != '\\') {
                continue;
            }
            int32_t t = type_at(boundary, off);
            if (t == -1) {
                return;
            }
            if (t != 2) {
                boundary = off;
                continue;
            }
            // The backslash ends a character that began before it: find where
            // the next one starts, marking any further trailing backslashes.
            table_[off] = 1;
            size_t next = off + 1;
            while ((t = type_at(boundary, next)) == 2) {
                table_[next] = base_[next] == '\\' ? 1 : 0;
                ++next;
            }
            if (t == -1) {
                return;
            }
            boundary = next;
            off = next - 1;
        }
    }

    const char* base_;
    std::unique_ptr<unsigned char[]> table_;
    bool classified_ = false;
    bool multibyte_ = false;
};

/* One bracket expression at p (just after the '['), tested against c.
 * Stores in *next the pattern position after the ']' (at the pattern's end
 * when there is no ']'). Returns 1 set matched, 0 not, kMalformed. */
int32_t bracket(const char* p, char c, const char** next) {
    bool negate = false;
    if (*p == '^') {
        negate = true;
        ++p;
        if (*p == '\0') {
            return kMalformed;
        }
    }
    const signed char sc = static_cast<signed char>(c);
    bool found = false;
    // Every member is read, so a malformed tail is reported even after a
    // member has already matched.
    while (*p != '\0' && *p != ']') {
        if (*p == '\\' && p[1] != '\0') {
            ++p;  // the escaped character (typically ']') is a plain member
        }
        const signed char lo = static_cast<signed char>(*p);
        if (p[1] == '-') {
            if (p[2] == '\0') {
                return kMalformed;
            }
            // The character after '-' is the upper bound, whatever it is.
            const signed char hi = static_cast<signed char>(p[2]);
            if (lo <= sc && sc <= hi) {
                found = true;
            }
            p += 3;
        } else {
            // A single member that equals the character is a match.
            if (lo == sc) {
                found = true;
            }
            ++p;
        }
    }
    // An unterminated set ends with the pattern: nothing is left after it.
    *next = *p == ']' ? p + 1 : p;
    return found != negate ? 1 : 0;
}

/* The matcher proper. A star tries the rest of the pattern at each string
 * position in turn; once the rest reaches a later star, that star's search
 * decides the outcome, so only the latest star is ever resumed (see the
 * file comment). A failure after a star resumes it one string position
 * further, a malformed bracket included; a string that runs out ends the
 * search. */
int32_t walk(const char* p, const char* s) {
    Backslashes backslashes(p);
    const char* star = nullptr;    // the latest star passed
    const char* resume = nullptr;  // where its rest was last tried
    for (;;) {
        if (*s == '\0') {
            return *p == '\0' || (p[0] == '*' && p[1] == '\0') ? kMatch : kNoMatch;
        }
        int32_t step = kMatch;  // kMatch: the element took *s
        switch (*p) {
            case '\0':
                step = kNoMatch;  // the pattern ran out first
                break;
            case '?':
                ++p;
                break;
            case '*':
                if (p[1] == '\0') {
                    return kMatch;
                }
                star = p;
                resume = s;
                ++p;
                continue;  // the rest is tried at this same string position
            case '\\':
                // A backslash that is the trailing byte of a double-byte
                // character is just that byte; otherwise it quotes the next one.
                if (!backslashes.trailing(p)) {
                    ++p;
                }
                step = *p == *s ? kMatch : kNoMatch;
                ++p;
                break;
            case '[': {
                const char* next = nullptr;
                const int32_t r = p[1] == '\0' ? kMalformed : bracket(p + 1, *s, &next);
                if (r != 1) {
                    step = r == 0 ? kNoMatch : kMalformed;
                    break;
                }
                p = next;
                // The character after the ']' is stepped over unless it is the
                // last; a set that ends the pattern ends the comparison.
                if (*p != '\0' && p[1] != '\0') {
                    ++p;
                }
                break;
            }
            default:
                step = *p == *s ? kMatch : kNoMatch;
                ++p;
                break;
        }
        if (step == kMatch) {
            ++s;
            continue;
        }
        if (star == nullptr) {
            return step;
        }
        ++resume;
        if (*resume == '\0') {
            return kNoMatch;  // the star has tried every position
        }
        p = star + 1;
        s = resume;
    }
}

}  // namespace
}  // namespace fanout

extern "C" int32_t match(const char* pat, const char* string) {
    if (pat == nullptr || string == nullptr) {
        return -1;
    }
    return fanout::walk(pat, string);
}
