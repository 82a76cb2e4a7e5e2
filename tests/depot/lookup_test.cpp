// lookup_test.cpp - bucket placement, sequence numbers and the on-disk bucket scan of the Depot,
// including the early end on an unreadable entry file.

#include <algorithm>
#include <string>
#include <tuple>

#include "depot_fixture.h"
#include "fanout/palmemory.h"

using namespace depot_test;

namespace {

class DepotLookup : public DepotTest {};

TEST(DepotHash, OnlyTheFirstHalfOfTheKeyPlacesIt) {
    struct Case {
        const char* text;
        PalUint32 bucket;
    } const cases[] = {
        {"abc1", 16}, {"x", 75}, {"", 0}, {"abzz", 16}, {"\xff", 122}, {"\xff\x01", 122},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        PalUint32 bucket = 1234;
        EXPECT_EQ(DepotHashFunction(c.text, &bucket).palError, PAL_OK);
        EXPECT_EQ(bucket, c.bucket);
    }
    for (auto [id, version, name] : {std::tuple{"abc", "1", "00000016"}, {"", "", "00000000"}}) {
        PalChar* bucket = DepotFindBucket(id, version);
        ASSERT_NE(bucket, nullptr);
        EXPECT_STREQ(bucket, name);
        PalMemoryFree(bucket);
    }
}

TEST_F(DepotLookup, KeysOfOneBucketTakeTheSmallestFreeSequenceNumber) {
    Open();
    AddComplete("abc", "1", 0);
    AddComplete("abd", "1", 0);  // "abd1" hashes like "abc1"
    EXPECT_TRUE(Exists("depot/00000016.0.xml"));
    EXPECT_TRUE(Exists("depot/00000016.1.xml"));

    // Told apart by comparing id and version exactly.
    DepotEntry* second = DepotGetEntry(handle_, "abd", "1");
    ASSERT_NE(second, nullptr);
    EXPECT_STREQ(second->entryFilePath, "depot/00000016.1.xml");

    DepotEntry* first = DepotGetEntry(handle_, "abc", "1");
    ASSERT_NE(first, nullptr);
    ASSERT_EQ(DepotUnregisterEntry(handle_, first, PAL_FALSE).palError, PAL_OK);
    EXPECT_FALSE(Exists("depot/00000016.0.xml"));
    EXPECT_FALSE(Exists("depot/00000016.0.dat"));

    DepotEntry* reused = DepotAddEntry(handle_, "abe", "1", nullptr, 0);
    ASSERT_NE(reused, nullptr);
    EXPECT_STREQ(reused->entryFilePath, "depot/00000016.0.xml");

    // A name whose number does not parse counts as 0.
    WriteFile("depot/00000016.x.xml", "junk");
    DepotEntry* next = DepotAddEntry(handle_, "abf", "1", nullptr, 0);
    ASSERT_NE(next, nullptr);
    EXPECT_STREQ(next->entryFilePath, "depot/00000016.2.xml");

    // The empty key lives in bucket 0.
    AddComplete("", "", 0);
    EXPECT_TRUE(Exists("depot/00000000.0.xml"));
    DepotEntry* empty = DepotGetEntry(handle_, "", "");
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->referenceCount, 1);
}

TEST_F(DepotLookup, UnreadableEntryFileHidesTheEntriesListedAfterIt) {
    Open();
    AddComplete("abc", "1", 0);
    ASSERT_EQ(::mkdir("depot/00000016.5.xml", 0700), 0);  // not a regular file
    auto names = ListDir("depot");
    auto good = std::find(names.begin(), names.end(), "00000016.0.xml");
    auto bad = std::find(names.begin(), names.end(), "00000016.5.xml");
    ASSERT_TRUE(good != names.end() && bad != names.end());

    log_.Clear();
    DepotEntry* e = DepotGetEntry(handle_, "abc", "1");
    if (good < bad) {
        EXPECT_NE(e, nullptr);
    } else {
        EXPECT_EQ(e, nullptr);
        EXPECT_TRUE(log_.Has(1,
                             "DepotGetEntry_internal error -4 opening file "
                             "depot/00000016.5.xml\n"));
    }
}

}  // namespace
