/* match_test.cpp - the wildcard matcher: every rule, and the star search
 * checked against the plain exhaustive recursion on random patterns. */
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "fanout/log.h"
#include "fanout/pathname.h"

namespace {

struct Case {
    const char* pat;
    const char* str;
    int32_t expected;
};

const Case kCases[] = {
    // Null arguments.
    {nullptr, "a", -1},
    {"a", nullptr, -1},
    {nullptr, nullptr, -1},
    // Literals and '?'.
    {"", "", 0},
    {"", "a", 1},
    {"abc", "abc", 0},
    {"A", "a", 1},
    {"a", "ab", 1},
    {"ab", "a", 1},
    {"?", "", 1},
    {"?", "a", 0},
    {"a?c", "abc", 0},
    {"a?c", "ac", 1},
    // Stars.
    {"*", "", 0},
    {"*", "anything", 0},
    {"a*", "a", 0},
    {"*.dat", "x.dat", 0},
    {"*.dat", "x.da", 1},
    {"*.dat", ".dat", 0},
    {"*ab", "aab", 0},
    {"*a*b", "aaaa", 1},
    {"*x*y", "axbxcy", 0},
    {"a*b*c", "abbbc", 0},
    {"**", "a", 0},
    // A star never tries the rest on the empty tail: only one lone star
    // left when the string runs out matches it.
    {"**", "", 1},
    {"a**", "a", 1},
    {"a*?", "a", 1},
    // Escapes.
    {"\\*", "*", 0},
    {"\\*", "a", 1},
    {"a\\?b", "a?b", 0},
    {"a\\?b", "axb", 1},
    {"\\\\", "\\", 0},
    {"\\", "\\", 1},  // a final backslash quotes the terminator
    {"\xc3\xa9\\*", "\xc3\xa9*", 0},
    // Bracket expressions.
    {"[a-c]x", "bx", 0},
    {"[^a-c]x", "bx", 1},
    {"[^a-c]x", "dx", 0},
    {"[abc]", "b", 0},
    {"[abc]", "d", 1},
    {"[abc]", "bc", 1},
    {"[a-c]", "", 1},
    {"[]", "a", 1},
    {"[^]", "a", 0},
    {"[-a]", "-", 0},
    {"[\\]]", "]", 0},
    {"[x\\]]", "x", 0},
    {"[abc", "b", 0},                 // unterminated: the set ends with the pattern
    {"[a-]", "a", 1},                 // range a..']' is empty
    {"[\x80-\x01]", "\xff", 0},       // bounds compare as signed characters
    {"[\x01-\x7f]", "\x80", 1},
    // The step after ']': the next character is skipped unless it is last.
    {"[a-c]xy", "by", 0},
    {"[a-c]xy", "bxy", 1},
    {"[ab]?c", "ac", 0},
    {"[a-c][x-z]", "by", 1},
    {"*[b]", "ab", 0},
    // Malformed sets.
    {"[", "a", -2},
    {"a[", "ab", -2},
    {"[^", "a", -2},
    {"[a-", "a", -2},
    {"[ab-", "a", -2},
    {"*[", "a", 1},  // behind a star a malformed set is only a failed try
    {"[", "", 1},    // never reached
};

TEST(Match, TableOfRules)
{
    for (const Case& c : kCases) {
        EXPECT_EQ(match(c.pat, c.str), c.expected)
            << "pattern \"" << (c.pat ? c.pat : "(null)") << "\" string \""
            << (c.str ? c.str : "(null)") << "\"";
    }
}

/* The matcher's definition, written as the plain recursion: a star calls
 * the matcher on the rest of the pattern at every remaining position. */
int32_t reference(const char* base, const char* p, const char* s)
{
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
            const char* q = p + 1;
            if (*q == '\0') {
                return -2;
            }
            const bool negate = *q == '^';
            q += negate ? 1 : 0;
            if (negate && *q == '\0') {
                return -2;
            }
            bool in = false;
            for (; *q != '\0' && *q != ']'; ++q) {
                q += (*q == '\\' && q[1] != '\0') ? 1 : 0;
                const signed char lo = static_cast<signed char>(*q);
                signed char hi = lo;
                if (q[1] == '-') {
                    if (q[2] == '\0') {
                        return -2;
                    }
                    hi = static_cast<signed char>(q[2]);
                    q += 2;
                }
                in = in || (lo <= static_cast<signed char>(*s) &&
                            static_cast<signed char>(*s) <= hi);
            }
            if (in == negate) {
                return 1;
            }
            p = *q == ']' ? q + 1 : q;
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
    if (*s == '\0' && (*p == '\0' || (p[0] == '*' && p[1] == '\0'))) {
        return 0;
    }
    return 1;
}

TEST(Match, AgreesWithExhaustiveSearch)
{
    const char alphabet[] = "ab*?[]^-\\";
    std::mt19937 rng(20261122);
    std::uniform_int_distribution<int> plen(0, 9), slen(0, 7), pick(0, 8), two(0, 1);
    for (int i = 0; i < 200000; ++i) {
        std::string pat, str;
        for (int n = plen(rng); n > 0; --n) {
            pat += alphabet[pick(rng)];
        }
        for (int n = slen(rng); n > 0; --n) {
            str += "ab]-"[two(rng) + 2 * (pick(rng) == 0)];
        }
        const int32_t want = reference(pat.c_str(), pat.c_str(), str.c_str());
        ASSERT_EQ(match(pat.c_str(), str.c_str()), want)
            << "pattern \"" << pat << "\" string \"" << str << "\"";
    }
}

TEST(Match, ManyStarsStayFast)
{
    std::string pat, str(20000, 'a');
    for (int i = 0; i < 2000; ++i) {
        pat += "*a";
    }
    pat += "*b";
    EXPECT_EQ(match(pat.c_str(), str.c_str()), 1);
    str += 'b';
    EXPECT_EQ(match(pat.c_str(), str.c_str()), 0);
    EXPECT_EQ(match(std::string(100000, '*').c_str(), "abc"), 0);
}

}  // namespace
