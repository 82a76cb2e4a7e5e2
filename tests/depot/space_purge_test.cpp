// space_purge_test.cpp - space accounting in KiB, permanent storage, both purges, and checkpoint
// offsets of the Depot.

#include <ctime>
#include <string>

#include "depot_fixture.h"

using namespace depot_test;

namespace {

class DepotSpace : public DepotTest {};

TEST(DepotConvert, BytesRoundUpToWholeKiB) {
    struct Case {
        PalUint64 bytes;
        PalUint32 kib;
    } const cases[] = {{0, 0}, {1, 1}, {1024, 1}, {1025, 2}, {1536, 2}, {(1ull << 42) + 1, 1}};
    for (const auto& c : cases) EXPECT_EQ(ConvertDataSize(c.bytes), c.kib) << c.bytes;
}

TEST_F(DepotSpace, ReservationsChargeTheBalanceOnlyWithALimit) {
    struct Case {
        PalUint32 limit;
        PalUint32 reserve;
        PalInt32 status;
        PalUint32 left;
    } const cases[] = {
        {0, 1000000, PAL_OK, 0}, {10, 10, PAL_OK, 0}, {10, 11, PAL_ERR_NO_SPACE, 10}};
    for (const auto& c : cases) {
        DepotHandle* h = nullptr;
        ASSERT_EQ(DepotNew(&h, nullptr, c.limit).palError, PAL_OK);
        EXPECT_EQ(DepotReserveDiskSpace(h, c.reserve).palError, c.status);
        EXPECT_EQ(h->availableSpace, c.left);
        DepotUnreserveDiskSpace(h, 5);  // no upper bound; nothing without a limit
        EXPECT_EQ(h->availableSpace, c.limit == 0 ? 0u : c.left + 5);
        DepotFree(h);
    }
}

TEST_F(DepotSpace, AdjustmentGivesBackWhatTheDataFileDidNotTake) {
    Open(100);
    DepotEntry* e = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
    ASSERT_NE(e, nullptr);
    ASSERT_EQ(DepotReserveDiskSpace(handle_, 10).palError, PAL_OK);
    e->segmentSize = 10 * 1024;  // the size reserved for
    WriteFile(e->location, std::string(100, 'x'));
    ASSERT_EQ(DepotAdjustReservedSpace(handle_, "abc", "1").palError, PAL_OK);
    EXPECT_EQ(handle_->availableSpace, 100u);

    EXPECT_EQ(DepotAdjustReservedSpace(handle_, "zz", "1").palError, PAL_OK);
    EXPECT_TRUE(log_.Has(2, "DepotAdjustReservedSpace unable to find depot entry zz^1\n"));

    ASSERT_EQ(DepotSetSegmentSize(handle_, e).palError, PAL_OK);
    EXPECT_EQ(e->segmentSize, 100u);
}

TEST_F(DepotSpace, PermanentStorageSumsTheDataFilesInKiB) {
    Open();
    AddComplete("a", "1", 0, "x");
    AddComplete("b", "1", 0, std::string(1025, 'y'));
    PalUint32 total = 0;
    ASSERT_EQ(DepotGetPermStorage(handle_, &total).palError, PAL_OK);
    EXPECT_EQ(total, 3u);
}

TEST_F(DepotSpace, PurgeWithoutForceKeepsReferencedEntries) {
    Open();
    AddComplete("kept", "1", 0);
    DepotEntry* gone = DepotAddEntry(handle_, "gone", "1", nullptr, 0);
    ASSERT_NE(gone, nullptr);
    ASSERT_EQ(DepotFreeEntry(handle_, gone).palError, PAL_OK);  // its writer gives it up
    ASSERT_EQ(CountSuffix("depot", ".xml"), 2);

    ASSERT_EQ(DepotPurge(handle_, PAL_FALSE).palError, PAL_OK);
    EXPECT_EQ(CountSuffix("depot", ".xml"), 1);
    EXPECT_EQ(CountSuffix("depot", ".dat"), 1);
    EXPECT_NE(DepotGetEntry(handle_, "kept", "1"), nullptr);
    EXPECT_EQ(DepotGetEntry(handle_, "gone", "1"), nullptr);

    ASSERT_EQ(DepotPurge(handle_, PAL_TRUE).palError, PAL_OK);
    EXPECT_EQ(ListDir("depot").size(), 0u);
    DepotEnum* walk = nullptr;
    ASSERT_EQ(DepotEnumNew(handle_, &walk).palError, PAL_OK);
    EXPECT_EQ(DepotEntryEnumNextElement(walk), nullptr);
    EXPECT_EQ(DepotEntryEnumDelete(walk).palError, PAL_OK);
}

TEST_F(DepotSpace, PurgeExpiredRemovesOnlyCompleteEntriesPastTheirDeadline) {
    Open();
    auto now = static_cast<PalInt32>(std::time(nullptr));
    AddComplete("old", "1", 1000);
    AddComplete("fresh", "1", now + 100000);
    DepotEntry* wip = DepotAddEntry(handle_, "wip", "1", nullptr, 0);
    ASSERT_NE(wip, nullptr);
    wip->deadline = 1000;
    ASSERT_EQ(DepotSaveEntry(handle_, wip).palError, PAL_OK);
    ASSERT_EQ(DepotFreeEntry(handle_, wip).palError, PAL_OK);
    AddComplete("far", "1", -1);  // seconds are unsigned: the last second of 2106
    AddComplete("busy", "1", 1000);
    DepotEntry* busy = DepotGetEntry(handle_, "busy", "1");
    ASSERT_NE(busy, nullptr);
    ASSERT_EQ(DepotEntryChangeState(handle_, busy, DEPOT_STATE_IN_USE).palError, PAL_OK);

    ASSERT_EQ(DepotPurgeExpiredEntries(handle_).palError, PAL_OK);
    EXPECT_EQ(CountSuffix("depot", ".xml"), 4);
    EXPECT_EQ(CountSuffix("depot", ".dat"), 4);
    EXPECT_EQ(DepotFindEntryIndex(handle_, "fresh", "1"), 0xFFFFFFFFu);  // walked, then freed
    EXPECT_EQ(DepotGetEntry(handle_, "old", "1"), nullptr);
    EXPECT_NE(DepotGetEntry(handle_, "fresh", "1"), nullptr);
    EXPECT_NE(DepotGetEntry(handle_, "wip", "1"), nullptr);
    EXPECT_NE(DepotGetEntry(handle_, "far", "1"), nullptr);
    EXPECT_EQ(DepotGetEntry(handle_, "busy", "1"), busy);
}

TEST_F(DepotSpace, CheckpointResumesOnlyWithTheWritersOwnStamp) {
    Open();
    DepotEntry* e = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
    ASSERT_NE(e, nullptr);
    WriteData(handle_, e, std::string(100, 'z'));
    PalInt32 stamp = e->lastWriteTime;

    PalUint64 offset = 7;
    ASSERT_EQ(DepotSetCheckpointOffset(handle_, "abc", "1", stamp + 1, &offset).palError, PAL_OK);
    EXPECT_EQ(offset, 7u);
    ASSERT_EQ(DepotSetCheckpointOffset(handle_, "abc", "1", stamp, &offset).palError, PAL_OK);
    EXPECT_EQ(offset, 100u);
    EXPECT_EQ(e->segmentSize, 100u);
    EXPECT_EQ(DepotSetCheckpointOffset(handle_, "zz", "1", stamp, &offset).palError,
              PAL_ERR_NO_ENTRY);
}

}  // namespace
