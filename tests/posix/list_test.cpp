// Tests of the list container: descriptors, slot reuse, growth, the spare
// slot past the capacity and the newest-first iterator.

#include <fanout/pallist.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace {

void* V(std::intptr_t n) {
    return reinterpret_cast<void*>(n);
}

struct ListGuard {
    PalList1* list = nullptr;
    ~ListGuard() { PalList1Destroy(&list); }
};

// Walks the list with its iterator and returns the descriptors in order.
std::vector<PalInt32> Walk(PalList1* list) {
    PalIterator it{};
    PalError e = PalList1IteratorCreate(list, &it);
    EXPECT_EQ(e.palError, PAL_OK);
    EXPECT_EQ(e.traceLocation, 4);
    std::vector<PalInt32> order;
    PalInt32 d = -7;
    void* value = nullptr;
    while ((e = it.next(&it, &d, &value)).palError == PAL_OK) {
        EXPECT_EQ(e.traceLocation, 5);
        EXPECT_EQ(value, PalList1Access(list, d));
        order.push_back(d);
        if (order.size() > 1000) break;  // a broken chain must not hang the test
    }
    EXPECT_EQ(e.palError, PAL_ERR_NO_MORE);
    EXPECT_EQ(e.traceLocation, 4);
    EXPECT_EQ(it.end(&it).traceLocation, 1);
    EXPECT_EQ(it.state, nullptr);
    return order;
}

TEST(PalList1, AddsRemovesReusesAndIteratesNewestFirst) {
    ListGuard g;
    ASSERT_EQ(PalList1Create(&g.list, 4, 4), 0);
    EXPECT_TRUE(Walk(g.list).empty());
    for (int i = 0; i < 3; ++i) EXPECT_EQ(PalList1Add(g.list, V(100 + i)), i);
    EXPECT_EQ(Walk(g.list), (std::vector<PalInt32>{2, 1, 0}));

    EXPECT_EQ(PalList1Remove(g.list, 1), 0);
    EXPECT_EQ(PalList1Remove(g.list, 1), -1);
    EXPECT_EQ(PalList1Access(g.list, 1), nullptr);
    EXPECT_EQ(Walk(g.list), (std::vector<PalInt32>{2, 0}));
    EXPECT_EQ(PalList1Add(g.list, V(7)), 1);  // slot reuse
    EXPECT_EQ(PalList1Access(g.list, 1), V(7));
    EXPECT_EQ(Walk(g.list), (std::vector<PalInt32>{1, 2, 0}));

    // Removing the newest and the oldest keeps the chain whole; freed slots
    // come back last-freed-first, then the untouched tail is used.
    EXPECT_EQ(PalList1Remove(g.list, 1), 0);
    EXPECT_EQ(PalList1Remove(g.list, 0), 0);
    EXPECT_EQ(Walk(g.list), (std::vector<PalInt32>{2}));
    EXPECT_EQ(PalList1Add(g.list, V(8)), 0);
    EXPECT_EQ(PalList1Add(g.list, V(9)), 1);
    EXPECT_EQ(PalList1Add(g.list, V(10)), 3);
    EXPECT_EQ(Walk(g.list), (std::vector<PalInt32>{3, 1, 0, 2}));
}

TEST(PalList1, GrowsByIncrementAndReportsCapacityAsSize) {
    ListGuard g;
    ASSERT_EQ(PalList1Create(&g.list, 2, 3), 0);
    EXPECT_EQ(PalList1GetSize(g.list), 2u);
    PalList1SetSize(g.list, 100);
    EXPECT_EQ(PalList1GetSize(g.list), 2u);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(PalList1Add(g.list, V(i)), i);
    EXPECT_EQ(PalList1GetSize(g.list), 5u);
    // Slots added by growth and never used read as free, as does the spare
    // slot at the capacity, which the validity test admits.
    for (PalInt32 d : {3, 4, 5, -1, -1000, 6, INT32_MAX}) {
        EXPECT_EQ(PalList1Access(g.list, d), nullptr) << d;
        EXPECT_EQ(PalList1Remove(g.list, d), -1) << d;
    }
    for (int i = 3; i < 100; ++i) ASSERT_EQ(PalList1Add(g.list, V(i)), i);
    EXPECT_EQ(PalList1GetSize(g.list), 101u);
    for (int i = 0; i < 100; ++i) ASSERT_EQ(PalList1Access(g.list, i), V(i));
    EXPECT_EQ(Walk(g.list).size(), 100u);
}

TEST(PalList1, EmptyAndFixedListsAndNullArguments) {
    ListGuard grows;  // count 0: grows on the first addition
    ASSERT_EQ(PalList1Create(&grows.list, 0, 2), 0);
    EXPECT_EQ(PalList1GetSize(grows.list), 0u);
    EXPECT_EQ(PalList1Access(grows.list, 0), nullptr);
    EXPECT_EQ(PalList1Add(grows.list, V(1)), 0);
    EXPECT_EQ(PalList1Add(grows.list, V(2)), 1);
    EXPECT_EQ(PalList1Add(grows.list, V(3)), 2);
    EXPECT_EQ(PalList1GetSize(grows.list), 4u);

    ListGuard fixed;  // increment 0: a full list refuses and stays intact
    ASSERT_EQ(PalList1Create(&fixed.list, 1, 0), 0);
    EXPECT_EQ(PalList1Add(fixed.list, V(1)), 0);
    EXPECT_EQ(PalList1Add(fixed.list, V(2)), -1);
    EXPECT_EQ(Walk(fixed.list), (std::vector<PalInt32>{0}));
    EXPECT_EQ(PalList1Remove(fixed.list, 0), 0);
    EXPECT_EQ(PalList1Add(fixed.list, V(3)), 0);

    PalList1* sentinel = reinterpret_cast<PalList1*>(V(0x1234));
    PalList1* p = sentinel;
    EXPECT_EQ(PalList1Create(nullptr, 1, 1), -1);
    EXPECT_EQ(PalList1Create(&p, 1, -1), -1);
    EXPECT_EQ(p, sentinel);  // untouched
    EXPECT_EQ(PalList1Create(&p, -1, 1), -1);
    EXPECT_EQ(p, nullptr);
    p = sentinel;  // more slots than the allocator's 32-bit sizes can hold
    EXPECT_EQ(PalList1Create(&p, INT32_MAX, 1), -1);
    EXPECT_EQ(p, nullptr);
    PalList1Destroy(nullptr);
    PalList1Destroy(&p);
    EXPECT_EQ(PalList1Add(nullptr, V(1)), -1);
    EXPECT_EQ(PalList1Remove(nullptr, 0), -1);
    EXPECT_EQ(PalList1Access(nullptr, 0), nullptr);
    EXPECT_EQ(PalList1GetSize(nullptr), 0u);
}

TEST(PalList1, IteratorArgumentChecks) {
    ListGuard g;
    ASSERT_EQ(PalList1Create(&g.list, 1, 1), 0);
    PalIterator it{};
    struct Case {
        PalError got;
        PalInt32 code, location;
    };
    const Case creates[] = {
        {PalList1IteratorCreate(nullptr, &it), PAL_ERR_INVALID_ARGUMENT, 1},
        {PalList1IteratorCreate(g.list, nullptr), PAL_ERR_INVALID_ARGUMENT, 0},
        {PalList1IteratorCreate(nullptr, nullptr), PAL_ERR_INVALID_ARGUMENT, 0},
    };
    for (const Case& c : creates) {
        EXPECT_EQ(c.got.palError, c.code);
        EXPECT_EQ(c.got.nativeError, 0);
        EXPECT_EQ(c.got.traceLocation, c.location);
    }
    ASSERT_EQ(PalList1IteratorCreate(g.list, &it).palError, PAL_OK);
    PalInt32 d = -5;
    void* v = V(9);
    const Case nexts[] = {
        {PalList1IteratorNext(nullptr, &d, &v), PAL_ERR_INVALID_ARGUMENT, 0},
        {PalList1IteratorNext(&it, nullptr, &v), PAL_ERR_INVALID_ARGUMENT, 1},
        {PalList1IteratorNext(&it, &d, nullptr), PAL_ERR_INVALID_ARGUMENT, 2},
        {PalList1IteratorNext(&it, &d, &v), PAL_ERR_NO_MORE, 4},
        {PalList1IteratorEnd(&it), PAL_OK, 1},
        {PalList1IteratorNext(&it, &d, &v), PAL_ERR_INVALID_ARGUMENT, 3},
        {PalList1IteratorEnd(&it), PAL_OK, 1},
        {PalList1IteratorEnd(nullptr), PAL_ERR_INVALID_ARGUMENT, 0},
    };
    for (const Case& c : nexts) {
        EXPECT_EQ(c.got.palError, c.code);
        EXPECT_EQ(c.got.traceLocation, c.location);
    }
    EXPECT_EQ(d, -5);  // outputs untouched when nothing is returned
    EXPECT_EQ(v, V(9));
}

}  // namespace
