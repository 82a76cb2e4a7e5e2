/* match_test.cpp - the wildcard matcher: one table of rules, backslashes inside double-byte
 * characters, and star patterns that would make a naive search explode. */
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "fanout/pathname.h"

namespace {

struct Case {
    const char *pat, *str;
    int32_t expected;
};

void check(const Case* begin, const Case* end) {
    for (const Case* c = begin; c != end; ++c) {
        EXPECT_EQ(match(c->pat, c->str), c->expected)
            << "pattern \"" << (c->pat ? c->pat : "(null)") << "\" string \""
            << (c->str ? c->str : "(null)") << "\"";
    }
}

// clang-format off
const Case kRules[] = {
    // Null arguments, literals (case-sensitive) and '?'.
    {nullptr, "a", -1}, {"a", nullptr, -1}, {"", "", 0}, {"", "a", 1}, {"A", "a", 1},
    {"a", "ab", 1}, {"ab", "a", 1}, {"?", "", 1}, {"a?c", "abc", 0}, {"a?c", "ac", 1},
    // Stars; when the string runs out only one lone star may be left.
    {"*", "", 0}, {"a*", "a", 0}, {"*.dat", "x.dat", 0}, {"*.dat", "x.da", 1}, {"*.dat", ".dat", 0},
    {"*ab", "aab", 0}, {"*a*b", "aaaa", 1}, {"*x*y", "axbxcy", 0}, {"**", "a", 0}, {"**", "", 1},
    {"a**", "a", 1}, {"a*?", "a", 1},
    // Escapes (a final backslash quotes the terminator).
    {"\\*", "*", 0}, {"\\*", "a", 1}, {"a\\?b", "a?b", 0}, {"\\\\", "\\", 0}, {"\\", "\\", 1},
    // Sets: an unterminated one ends with the pattern; bounds compare signed.
    {"[a-c]", "a", 0}, {"[a-c]", "c", 0}, {"[a-c]x", "bx", 0}, {"[^a-c]x", "bx", 1},
    {"[^a-c]x", "dx", 0}, {"[abc]", "b", 0}, {"[abc]", "d", 1}, {"[abc]", "bc", 1},
    {"[a-c]", "", 1}, {"[]", "a", 1}, {"[^]", "a", 0},
    {"[-a]", "-", 0}, {"[\\]]", "]", 0}, {"[abc", "b", 0}, {"[a-]", "a", 1},
    {"[\x80-\x01]", "\xff", 0}, {"[\x01-\x7f]", "\x80", 1},
    // After ']' the next pattern character is skipped unless it is the last.
    {"[a-c]xy", "by", 0}, {"[a-c]xy", "bxy", 1}, {"[ab]?c", "ac", 0}, {"[a-c][x-z]", "by", 1},
    {"*[b]", "ab", 0},
    // Malformed sets; behind a star only a failed try, never reached no error.
    {"[", "a", -2}, {"a[", "ab", -2}, {"[^", "a", -2}, {"[a-", "a", -2}, {"[ab-", "a", -2},
    {"*[", "a", 1}, {"[", "", 1},
};
// clang-format on

TEST(Match, TableOfRules) {
    check(std::begin(kRules), std::end(kRules));
}

/* In BIG5, a5 5c is one character: its backslash is no escape. The code
 * set is built with localedef for the test; without it the test is skipped. */
TEST(Match, BackslashThatEndsADoubleByteCharacter) {
    const Case big5[] = {
        {"\xa5\\", "\xa5\\", 0},       {"\xa5\\*", "\xa5\\x", 0}, {"*\xa5\\?", "ab\xa5\\c", 0},
        {"x\xa5\\\\*", "x\xa5\\*", 0}, {"\\*", "*", 0},           {"\\*", "a", 1},
    };
    EXPECT_EQ(match("\xa5\\", "\xa5\\"), 1);  // single-byte: an escape of NUL
    char tmpl[] = "/tmp/fanout-locale-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    const std::string cmd =
        std::string("localedef -f BIG5 -i zh_TW ") + tmpl + "/zh_TW.BIG5 >/dev/null 2>&1";
    setenv("LOCPATH", tmpl, 1);
    // localedef may warn and exit non-zero yet build the code set: setlocale decides.
    const bool have = std::system(cmd.c_str()) != -1 && std::setlocale(LC_CTYPE, "zh_TW.BIG5");
    if (have) {
        check(std::begin(big5), std::end(big5));
        std::setlocale(LC_CTYPE, "C");
    }
    unsetenv("LOCPATH");
    std::filesystem::remove_all(tmpl);
    if (!have) {
        GTEST_SKIP() << "no BIG5 code set";
    }
}

TEST(Match, ManyStarsStayFast) {
    std::string pat, str(20000, 'a');
    for (int i = 0; i < 2000; ++i) {
        pat += "*a";
    }
    EXPECT_EQ(match((pat + "*b").c_str(), str.c_str()), 1);
    EXPECT_EQ(match((pat + "*b").c_str(), (str + "b").c_str()), 0);
    EXPECT_EQ(match(std::string(100000, '*').c_str(), "abc"), 0);  // no recursion
}

}  // namespace
