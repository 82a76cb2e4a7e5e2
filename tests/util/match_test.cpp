/* match_test.cpp - the wildcard matcher: one table covering every rule, and
 * the star search on patterns that would make a naive search explode. (The
 * fuzz target util_match_fuzz compares the matcher with the plain recursive
 * search that defines it.) */
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <string>

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

/* In a double-byte code set a backslash can be the second byte of a
 * character; it is then that character's byte, not an escape. The code set
 * is built for the test with localedef; without it the test is skipped. */
TEST(Match, BackslashThatEndsADoubleByteCharacter)
{
    const Case cases[] = {
        {"\xa5\\", "\xa5\\", 0},        // BIG5 a5 5c is one character
        {"\xa5\\*", "\xa5\\x", 0},      // so the star stays a star
        {"*\xa5\\?", "ab\xa5\\c", 0},   // also when a star resumes
        {"x\xa5\\\\*", "x\xa5\\*", 0}, // the next backslash escapes
        {"\\*", "*", 0},
        {"\\*", "a", 1},
    };
    EXPECT_EQ(match("\xa5\\", "\xa5\\"), 1);  // single-byte: an escape of NUL

    char tmpl[] = "/tmp/fanout-locale-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl;
    const std::string cmd = "localedef -f BIG5 -i zh_TW " + dir + "/zh_TW.BIG5 >/dev/null 2>&1";
    const int rc = std::system(cmd.c_str());
    setenv("LOCPATH", dir.c_str(), 1);
    const bool have = rc != -1 && std::setlocale(LC_CTYPE, "zh_TW.BIG5") != nullptr;
    if (have) {
        for (const Case& c : cases) {
            EXPECT_EQ(match(c.pat, c.str), c.expected) << "pattern \"" << c.pat << "\"";
        }
        std::setlocale(LC_CTYPE, "C");
    }
    unsetenv("LOCPATH");
    std::filesystem::remove_all(dir);
    if (!have) {
        GTEST_SKIP() << "no BIG5 code set";
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
