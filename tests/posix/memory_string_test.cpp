// Tests of the memory and string wrappers: their null and size rules, which differ on purpose (a
// null sorts first in PalMemoryCmp, last in strings).

#include <fanout/palmemory.h>

#include <cstring>

#include "pal_fixture.h"

namespace {

int Sign(PalInt32 r) {
    return (r > 0) - (r < 0);
}

TEST(PalMemory, NonPositiveSizesNeverAllocateAndReallocToZeroKeepsTheBlock) {
    EXPECT_EQ(PalMemoryMalloc(-5), nullptr);  // not a huge size_t
    EXPECT_EQ(PalMemoryCalloc(8, 0), nullptr);
    auto* block = static_cast<char*>(PalMemoryRealloc(nullptr, 8));  // a null address allocates
    ASSERT_NE(block, nullptr);
    std::memcpy(block, "abcdefg", 8);
    EXPECT_EQ(PalMemoryRealloc(block, 0), nullptr);
    EXPECT_STREQ(block, "abcdefg");  // still the caller's and intact (ASan objects otherwise)
    PalMemoryCpy(block, nullptr, 3);
    PalMemoryMove(block, "xyz", -3);
    pal_test::ExpectRecord(PalMemorySet(block, 0, 'z'), {PAL_ERR_INVALID_ARGUMENT, 0, 0});
    pal_test::ExpectRecord(PalMemorySet(block, 3, 0x17a), pal_test::kOk);  // low 8 bits only
    EXPECT_STREQ(block, "zzzdefg");
    PalMemoryFree(block);
}

TEST(PalMemoryString, NullAndBoundRules) {
    const char a[] = "abc";
    const void* bogus = reinterpret_cast<const void*>(0x10);
    // The call, its result (a comparison reduced to its sign), the result wanted.
    const std::tuple<const char*, long, long> cases[] = {
        {"MemoryCmp(p, p) reads nothing", Sign(PalMemoryCmp(bogus, bogus, 100)), 0},
        {"MemoryCmp(null, a)", Sign(PalMemoryCmp(nullptr, a, 3)), -1},
        {"MemoryCmp(a, null)", Sign(PalMemoryCmp(a, nullptr, 3)), 1},
        {"MemoryCmp(a, abd, -4)", Sign(PalMemoryCmp(a, "abd", -4)), 0},
        {"StringCmp(null, null)", Sign(PalStringCmp(nullptr, nullptr)), 1},
        {"StringCmp(a, null)", Sign(PalStringCmp(a, nullptr)), -1},
        {"StringICmp(null, a)", Sign(PalStringICmp(nullptr, a)), 1},
        {"StringNCmp(a, null, 2)", Sign(PalStringNCmp(a, nullptr, 2)), -1},
        {"StringNICmp(null, null, 2)", Sign(PalStringNICmp(nullptr, nullptr, 2)), 1},
        {"Strcspn(abc, null)", PalStringStrcspn(a, nullptr), 3},
        {"Strcspn(null, a)", PalStringStrcspn(nullptr, a), -1},
        {"Strspn(abc, null)", PalStringStrspn(a, nullptr), 0},
        {"Strspn(null, a)", PalStringStrspn(nullptr, a), -1},
        {"Len(null)", static_cast<long>(PalStringLen(nullptr)), 0},
    };
    for (auto [what, got, want] : cases) EXPECT_EQ(got, want) << what;
}

TEST(PalString, CopiesAndSearchesTolerateNull) {
    char d[8] = "before";
    EXPECT_EQ(PalStringNCpy(d, nullptr, 0), d);  // no room even for the terminator
    EXPECT_STREQ(PalStringCat(d, nullptr), "before");
    EXPECT_STREQ(PalStringCpy(d, nullptr), "");
    for (const PalChar* r : {PalStringCpy(nullptr, "x"), PalStringStr(d, nullptr),
                             PalStringRChr(nullptr, 'a'), PalStringDup(nullptr)}) {
        EXPECT_EQ(r, nullptr);
    }
}

}  // namespace
