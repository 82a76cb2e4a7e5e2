// Tests of the memory and string wrappers: the null and size rules callers
// rely on, which differ from one wrapper to the next.

#include <fanout/palmemory.h>

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

TEST(PalMemory, NonPositiveSizesNeverAllocate) {
    EXPECT_EQ(PalMemoryMalloc(0), nullptr);
    EXPECT_EQ(PalMemoryMalloc(-5), nullptr);
    EXPECT_EQ(PalMemoryCalloc(0, 8), nullptr);
    EXPECT_EQ(PalMemoryCalloc(8, 0), nullptr);
    EXPECT_EQ(PalMemoryCalloc(-1, 8), nullptr);

    auto* block = static_cast<unsigned char*>(PalMemoryCalloc(4, 4));
    ASSERT_NE(block, nullptr);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(block[i], 0);
    PalMemoryFree(block);
    PalMemoryFree(nullptr);
}

TEST(PalMemory, ReallocToZeroKeepsTheBlock) {
    auto* block = static_cast<char*>(PalMemoryMalloc(8));
    ASSERT_NE(block, nullptr);
    std::memcpy(block, "abcdefg", 8);
    EXPECT_EQ(PalMemoryRealloc(block, 0), nullptr);
    EXPECT_STREQ(block, "abcdefg");  // still ours, still intact (ASan would object otherwise)
    block = static_cast<char*>(PalMemoryRealloc(block, 64));
    ASSERT_NE(block, nullptr);
    EXPECT_STREQ(block, "abcdefg");
    PalMemoryFree(block);

    void* fresh = PalMemoryRealloc(nullptr, 16);  // a null address allocates
    EXPECT_NE(fresh, nullptr);
    PalMemoryFree(fresh);
}

TEST(PalMemory, CmpOrdersNullFirst) {
    const char a[] = "abc";
    const char b[] = "abd";
    const void* bogus = reinterpret_cast<const void*>(0x10);
    struct Case {
        const void* p1;
        const void* p2;
        PalInt32 size;
        int sign;
    } cases[] = {
        {bogus, bogus, 100, 0},  // same pointer: nothing is read
        {nullptr, nullptr, 3, 0},
        {nullptr, a, 3, -1},
        {a, nullptr, 3, 1},
        {a, b, 3, -1},
        {b, a, 3, 1},
        {a, b, 2, 0},
        {a, b, 0, 0},
        {a, b, -4, 0},
    };
    for (const Case& c : cases) {
        PalInt32 r = PalMemoryCmp(c.p1, c.p2, c.size);
        EXPECT_EQ((r > 0) - (r < 0), c.sign) << c.p1 << " " << c.p2 << " " << c.size;
    }
}

TEST(PalMemory, CopyMoveAndSetIgnoreBadArguments) {
    char d[8] = "xxxxxxx";
    PalMemoryCpy(d, "abc", 0);
    PalMemoryCpy(d, "abc", -1);
    PalMemoryCpy(d, nullptr, 3);
    PalMemoryCpy(nullptr, "abc", 3);
    PalMemoryMove(d, "abc", -3);
    EXPECT_STREQ(d, "xxxxxxx");
    PalMemoryCpy(d, "abc", 3);
    EXPECT_STREQ(d, "abcxxxx");
    PalMemoryMove(d + 1, d, 4);  // overlapping
    EXPECT_STREQ(d, "aabcxxx");

    PalError e = PalMemorySet(d, 0, 'z');
    EXPECT_EQ(e.palError, PAL_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(e.nativeError, 0);
    EXPECT_EQ(PalMemorySet(nullptr, 4, 'z').palError, PAL_ERR_INVALID_ARGUMENT);
    EXPECT_STREQ(d, "aabcxxx");
    e = PalMemorySet(d, 3, 0x17a);  // only the low 8 bits count
    EXPECT_EQ(e.palError, PAL_OK);
    EXPECT_EQ(e.nativeError, 0);
    EXPECT_STREQ(d, "zzzcxxx");
}

TEST(PalString, ComparisonsOrderNullLast) {
    using Cmp = PalInt32 (*)(const PalChar*, const PalChar*);
    Cmp cmp = PalStringCmp;
    Cmp icmp = PalStringICmp;
    Cmp ncmp = [](const PalChar* a, const PalChar* b) { return PalStringNCmp(a, b, 2); };
    Cmp nicmp = [](const PalChar* a, const PalChar* b) { return PalStringNICmp(a, b, 2); };
    struct Case {
        const char* name;
        Cmp f;
        const char* s1;
        const char* s2;
        int sign;
    } cases[] = {
        {"cmp", cmp, nullptr, nullptr, 1},  // s1 tested first
        {"cmp", cmp, nullptr, "a", 1},      {"cmp", cmp, "a", nullptr, -1},
        {"cmp", cmp, "a", "b", -1},         {"cmp", cmp, "ABC", "abc", -1},
        {"icmp", icmp, "ABC", "abc", 0},    {"icmp", icmp, nullptr, nullptr, 1},
        {"icmp", icmp, "x", nullptr, -1},   {"ncmp", ncmp, "abX", "abY", 0},
        {"ncmp", ncmp, nullptr, "a", 1},    {"ncmp", ncmp, "a", nullptr, -1},
        {"nicmp", nicmp, "ABx", "aby", 0},  {"nicmp", nicmp, nullptr, nullptr, 1},
        {"nicmp", nicmp, "a", nullptr, -1},
    };
    for (const Case& c : cases) {
        PalInt32 r = c.f(c.s1, c.s2);
        EXPECT_EQ((r > 0) - (r < 0), c.sign)
            << c.name << "(" << (c.s1 ? c.s1 : "null") << ", " << (c.s2 ? c.s2 : "null") << ")";
    }
}

TEST(PalString, CopyAndConcatenateNullRules) {
    char d[16] = "before";
    EXPECT_EQ(PalStringCpy(d, nullptr), d);
    EXPECT_STREQ(d, "");
    std::strcpy(d, "before");
    EXPECT_EQ(PalStringNCpy(d, nullptr, 5), d);
    EXPECT_STREQ(d, "");
    std::strcpy(d, "before");
    PalStringNCpy(d, nullptr, 0);  // no room even for a terminator
    EXPECT_STREQ(d, "before");
    EXPECT_EQ(PalStringCpy(nullptr, "x"), nullptr);
    EXPECT_EQ(PalStringNCpy(nullptr, "x", 3), nullptr);

    // strncpy semantics: no terminator when the source fills the bound.
    std::memset(d, '#', sizeof d);
    PalStringNCpy(d, "abcdef", 3);
    EXPECT_EQ(std::string(d, 4), "abc#");
    PalStringNCpy(d, "ab", 5);
    EXPECT_EQ(std::string(d, 6), std::string("ab\0\0\0#", 6));

    std::strcpy(d, "x");
    EXPECT_EQ(PalStringCat(nullptr, "a"), nullptr);
    EXPECT_EQ(PalStringNCat(nullptr, "a", 1), nullptr);
    EXPECT_EQ(PalStringCat(d, nullptr), d);
    EXPECT_EQ(PalStringNCat(d, nullptr, 3), d);
    EXPECT_STREQ(d, "x");
    PalStringNCat(d, "abcdef", 3);
    EXPECT_STREQ(d, "xabc");
    PalStringCat(d, "yz");
    EXPECT_STREQ(d, "xabcyz");
}

TEST(PalString, SearchesAndLengthsNullRules) {
    const char* s = "abc/def";
    EXPECT_EQ(PalStringLen(nullptr), 0u);
    EXPECT_EQ(PalStringChr(nullptr, 'a'), nullptr);
    EXPECT_EQ(PalStringRChr(nullptr, 'a'), nullptr);
    EXPECT_EQ(PalStringRChr(s, 'd'), s + 4);
    EXPECT_EQ(PalStringStr(nullptr, "a"), nullptr);
    EXPECT_EQ(PalStringStr(s, nullptr), nullptr);
    EXPECT_EQ(PalStringStrpbrk(nullptr, "a"), nullptr);
    EXPECT_EQ(PalStringStrpbrk(s, nullptr), nullptr);
    EXPECT_EQ(PalStringDup(nullptr), nullptr);

    EXPECT_EQ(PalStringStrcspn("abc", nullptr), 3);
    EXPECT_EQ(PalStringStrcspn(nullptr, "a"), -1);
    EXPECT_EQ(PalStringStrcspn(s, "/"), 3);
    EXPECT_EQ(PalStringStrspn("abc", nullptr), 0);
    EXPECT_EQ(PalStringStrspn(nullptr, "a"), -1);
    EXPECT_EQ(PalStringStrspn(s, "cba"), 3);
}

}  // namespace
