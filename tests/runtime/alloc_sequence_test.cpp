// Tests of the runtime allocator and the generic three-word sequences.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "fanout/exception.h"
#include "fanout/runtime.h"

// Let the huge requests below fail as they would in production, instead of
// the address sanitizer stopping the process at them.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "allocator_may_return_null=1";
}

namespace {

struct IntSeq {
    uint32_t maximum;
    uint32_t length;
    int32_t* buffer;
};

TEST(Allocator, ZeroSizedRequestsGiveDistinctBlocksAndCallocZeroes) {
    void* a = mg_malloc(0);
    void* b = mg_calloc(0, 8);
    void* c = mg_realloc(nullptr, 0);
    for (void* p : {a, b, c}) ASSERT_NE(p, nullptr);
    EXPECT_NE(a, b);
    auto* z = static_cast<uint8_t*>(mg_calloc(64, 4));
    EXPECT_EQ(std::vector<uint8_t>(z, z + 256), std::vector<uint8_t>(256, 0));
    char* s = mg_strdup("depot");
    EXPECT_STREQ(s, "depot");
    EXPECT_EQ(mg_strdup(nullptr), nullptr);
    for (void* p : {a, b, c, static_cast<void*>(z), static_cast<void*>(s)}) mg_free(p);
    mg_free(nullptr);
}

TEST(Allocator, ExhaustionRaisesNoMemory) {
    auto raises = [](auto&& call) {
        try {
            call();
        } catch (const fanout::Exception& e) {
            return std::strcmp(e.type_id(), FANOUT_EX_NO_MEMORY_ID) == 0;
        }
        return false;
    };
    EXPECT_TRUE(raises([] { mg_malloc(SIZE_MAX - 64); }));
    EXPECT_TRUE(raises([] { mg_calloc(SIZE_MAX / 2, 4); }));  // count * size overflows
    void* block = mg_malloc(16);
    EXPECT_TRUE(raises([&] { mg_realloc(block, SIZE_MAX - 64); }));
    mg_free(block);  // still valid after the failed realloc
}

TEST(Sequence, AddGrowsByDoublingAndKeepsEveryElement) {
    IntSeq s{};
    uint32_t reallocations = 0;
    for (int32_t i = 0; i < 1000; ++i) {
        uint32_t before = s.maximum;
        seq_add(&s, &i, sizeof i);
        if (s.maximum != before) ++reallocations;
        ASSERT_GE(s.maximum, s.length);
    }
    ASSERT_EQ(s.length, 1000u);
    EXPECT_LE(reallocations, 10u);  // 4, 8, ..., 1024
    for (int32_t i = 0; i < 1000; ++i) ASSERT_EQ(s.buffer[i], i);
    seq_free_buffer(&s);
    EXPECT_EQ(s.buffer, nullptr);
    EXPECT_EQ(s.length, 0u);
    EXPECT_EQ(s.maximum, 0u);
    seq_free_buffer(nullptr);
}

TEST(Sequence, AddingAnElementOfTheSameBufferSurvivesTheMove) {
    IntSeq s{};
    for (int32_t i = 0; i < 4; ++i) seq_add(&s, &i, sizeof i);
    ASSERT_EQ(s.length, s.maximum);  // the next add reallocates
    seq_add(&s, &s.buffer[2], sizeof(int32_t));
    EXPECT_EQ(s.buffer[4], 2);
    seq_free_buffer(&s);
}

TEST(Sequence, HandBuiltHeaderWithoutCapacityIsGrown) {
    int32_t* buffer = static_cast<int32_t*>(mg_malloc(2 * sizeof(int32_t)));
    buffer[0] = 7;
    buffer[1] = 8;
    IntSeq s{0, 2, buffer};  // maximum not filled in
    int32_t nine = 9;
    seq_add(&s, &nine, sizeof nine);
    EXPECT_EQ(std::vector<int32_t>(s.buffer, s.buffer + s.length), (std::vector<int32_t>{7, 8, 9}));
    seq_free_buffer(&s);
}

TEST(Sequence, RemoveClosesTheGapAndHandsBackACopy) {
    struct Case {
        uint32_t index;
        bool removed;
        std::vector<int32_t> left;
    };
    const Case cases[] = {
        {0, true, {11, 12, 13}},
        {2, true, {10, 11, 13}},
        {3, true, {10, 11, 12}},
        {4, false, {10, 11, 12, 13}},
        {UINT32_MAX, false, {10, 11, 12, 13}},
    };
    for (const Case& c : cases) {
        IntSeq s{};
        for (int32_t v : {10, 11, 12, 13}) seq_add(&s, &v, sizeof v);
        auto* old = static_cast<int32_t*>(seq_remove(&s, c.index, sizeof(int32_t)));
        EXPECT_EQ(old != nullptr, c.removed) << c.index;
        if (old != nullptr) {
            EXPECT_EQ(*old, 10 + static_cast<int32_t>(c.index));
        }
        EXPECT_EQ(std::vector<int32_t>(s.buffer, s.buffer + s.length), c.left) << c.index;
        mg_free(old);
        seq_free_buffer(&s);
    }
    IntSeq empty{};
    EXPECT_EQ(seq_remove(&empty, 0, sizeof(int32_t)), nullptr);
}

}  // namespace
