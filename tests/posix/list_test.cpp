// Tests of the list container: slot reuse, growth, the spare slot past the capacity and the
// newest-first iterator.

#include <fanout/pallist.h>

#include <cstdint>
#include <vector>

#include "pal_fixture.h"

namespace {

void* V(std::intptr_t n) {
    return reinterpret_cast<void*>(n);
}

struct ListGuard {
    PalList1* list = nullptr;
    ~ListGuard() { PalList1Destroy(&list); }
};

// The descriptors in iteration order, checking the iterator's records.
std::vector<PalInt32> Walk(PalList1* list) {
    PalIterator it{};
    EXPECT_EQ(PalList1IteratorCreate(list, &it).traceLocation, 4);
    std::vector<PalInt32> order;
    PalInt32 d = -7;
    void* value = nullptr;
    PalError e;
    while ((e = it.next(&it, &d, &value)).palError == PAL_OK && order.size() < 1000) {
        EXPECT_EQ(value, PalList1Access(list, d));
        order.push_back(d);
    }
    pal_test::ExpectRecord(e, {PAL_ERR_NO_MORE, 0, 4});
    EXPECT_EQ(it.end(&it).traceLocation, 1);
    return order;
}

TEST(PalList1, ReusesSlotsAndIteratesNewestFirst) {
    ListGuard g;
    ASSERT_EQ(PalList1Create(&g.list, 4, 4), 0);
    EXPECT_TRUE(Walk(g.list).empty());
    for (int i = 0; i < 3; ++i) EXPECT_EQ(PalList1Add(g.list, V(100 + i)), i);
    EXPECT_EQ(PalList1Remove(g.list, 1), 0);
    EXPECT_EQ(PalList1Remove(g.list, 1), -1);
    EXPECT_EQ(PalList1Add(g.list, V(7)), 1);  // the freed slot comes back
    EXPECT_EQ(Walk(g.list), (std::vector<PalInt32>{1, 2, 0}));
    // Removing the newest and the oldest keeps the chain whole; freed slots
    // come back last-freed-first, then the untouched tail is used.
    EXPECT_EQ(PalList1Remove(g.list, 1), 0);
    EXPECT_EQ(PalList1Remove(g.list, 0), 0);
    EXPECT_EQ(Walk(g.list), (std::vector<PalInt32>{2}));
    for (PalInt32 want : {0, 1, 3}) EXPECT_EQ(PalList1Add(g.list, V(want)), want);
    EXPECT_EQ(Walk(g.list), (std::vector<PalInt32>{3, 1, 0, 2}));
}

TEST(PalList1, GrowsByIncrementAndReportsCapacityAsSize) {
    ListGuard g, fixed;
    ASSERT_EQ(PalList1Create(&g.list, 2, 3), 0);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(PalList1Add(g.list, V(i)), i);
    EXPECT_EQ(PalList1GetSize(g.list), 5u);  // slots, not elements
    // Grown slots never used read as free, and so does the spare slot at the
    // capacity, which the validity test admits; negatives are refused.
    for (PalInt32 d : {3, 4, 5, 6, -1, INT32_MIN}) {
        EXPECT_EQ(PalList1Access(g.list, d), nullptr) << d;
        EXPECT_EQ(PalList1Remove(g.list, d), -1) << d;
    }
    for (int i = 3; i < 100; ++i) ASSERT_EQ(PalList1Add(g.list, V(i)), i);
    EXPECT_EQ(PalList1GetSize(g.list), 101u);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(PalList1Access(g.list, i), V(i));
    EXPECT_EQ(Walk(g.list).size(), 100u);

    ASSERT_EQ(PalList1Create(&fixed.list, 1, 0), 0);    // increment 0: full means full
    EXPECT_EQ(PalList1Access(fixed.list, 1), nullptr);  // the spare slot, never grown
    EXPECT_EQ(PalList1Add(fixed.list, V(1)), 0);
    EXPECT_EQ(PalList1Add(fixed.list, V(2)), -1);
    EXPECT_EQ(Walk(fixed.list), (std::vector<PalInt32>{0}));
}

TEST(PalList1, RefusesBadArguments) {
    ListGuard g;
    EXPECT_EQ(PalList1Create(&g.list, INT32_MAX, 1), -1);  // beyond the allocator's sizes
    EXPECT_EQ(PalList1Create(&g.list, -1, 1), -1);
    EXPECT_EQ(g.list, nullptr);
    ASSERT_EQ(PalList1Create(&g.list, 1, 1), 0);
    PalIterator it{};
    PalInt32 d = -5;
    void* v = V(9);
    constexpr PalInt32 kArg = PAL_ERR_INVALID_ARGUMENT;
    pal_test::ExpectRecords({
        {"Create, no list", PalList1IteratorCreate(nullptr, &it), {kArg, 0, 1}},
        {"Create", PalList1IteratorCreate(g.list, &it), {PAL_OK, 0, 4}},
        {"Next, no descriptor", PalList1IteratorNext(&it, nullptr, &v), {kArg, 0, 1}},
        {"Next, no value", PalList1IteratorNext(&it, &d, nullptr), {kArg, 0, 2}},
        {"Next, empty", PalList1IteratorNext(&it, &d, &v), {PAL_ERR_NO_MORE, 0, 4}},
        {"End", PalList1IteratorEnd(&it), {PAL_OK, 0, 1}},
        {"Next after the end", PalList1IteratorNext(&it, &d, &v), {kArg, 0, 3}},
    });
    EXPECT_EQ(d, -5);  // outputs untouched when nothing is returned
    EXPECT_EQ(v, V(9));
}

}  // namespace
