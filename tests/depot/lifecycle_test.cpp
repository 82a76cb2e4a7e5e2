// lifecycle_test.cpp - reuse and refusal on addition, reference counting, deletion order,
// data-file opens and the entry lock kept by a "modified" answer.

#include <string>

#include "depot_fixture.h"

using namespace depot_test;

namespace {

class DepotLifecycle : public DepotTest {
  protected:
    const std::string kDat = "depot/00000016.0.dat";
    const std::string kXml = "depot/00000016.0.xml";
};

TEST_F(DepotLifecycle, InProgressKeysAreRefusedAndCompleteOnesReused) {
    Open();
    DepotEntry* e = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(DepotAddEntry(handle_, "abc", "1", nullptr, 0), nullptr);

    ASSERT_EQ(DepotCompleteEntry(handle_, e, 100).palError, PAL_OK);
    DepotEntry* reused = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
    ASSERT_NE(reused, nullptr);
    EXPECT_EQ(reused->state, DEPOT_STATE_COMPLETE);
    EXPECT_EQ(reused->referenceCount, 1);
    EXPECT_EQ(CountSuffix("depot", ".xml"), 1);
    EXPECT_EQ(CountSuffix("depot", ".dat"), 1);

    ASSERT_EQ(DepotEntryChangeState(handle_, reused, DEPOT_STATE_IN_USE).palError, PAL_OK);
    EXPECT_EQ(DepotAddEntry(handle_, "abc", "1", nullptr, 0), nullptr);
}

TEST_F(DepotLifecycle, CompletionAddsAReferenceAndOnlyMovesTheDeadlineLater) {
    Open();
    struct Step {
        PalInt32 deadline;
        int refs;
        PalInt32 stored;
    } const steps[] = {{100, 1, 100}, {50, 2, 100}, {200, 3, 200}, {-1, 4, -1}, {300, 5, -1}};
    for (const auto& s : steps) {
        SCOPED_TRACE(s.deadline);
        DepotEntry* e = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
        ASSERT_NE(e, nullptr);
        ASSERT_EQ(DepotCompleteEntry(handle_, e, s.deadline).palError, PAL_OK);
        EXPECT_EQ(DepotFindEntryIndex(handle_, "abc", "1"), 0xFFFFFFFFu);  // record released
        // A shorter text leaves the older tail after its zero byte.
        std::string expected = EntryText("abc", "1", s.refs, 1, 0, s.stored, kDat, "");
        EXPECT_EQ(ReadFile(kXml).substr(0, expected.size()), expected);
    }
}

TEST_F(DepotLifecycle, UnregisterDeletesBothFilesOnlyAtTheLastReference) {
    Open();
    for (int i = 0; i < 3; ++i) AddComplete("abc", "1", 9);

    // State already 1: an equal state writes nothing, so the file keeps 3.
    DepotEntry* e = DepotGetEntry(handle_, "abc", "1");
    ASSERT_NE(e, nullptr);
    ASSERT_EQ(DepotUnregisterEntry(handle_, e, PAL_FALSE).palError, PAL_OK);
    EXPECT_EQ(DepotFindEntryIndex(handle_, "abc", "1"), 0xFFFFFFFFu);
    EXPECT_EQ(ReadFile(kXml), EntryText("abc", "1", 3, 1, 0, 9, kDat, ""));

    // In use (as a stream marks it): set back to 1 and written with the count; the last goes.
    for (int refs : {2, 1, 0}) {
        e = DepotGetEntry(handle_, "abc", "1");
        ASSERT_NE(e, nullptr);
        ASSERT_EQ(DepotEntryChangeState(handle_, e, DEPOT_STATE_IN_USE).palError, PAL_OK);
        ASSERT_EQ(DepotUnregisterEntry(handle_, e, PAL_FALSE).palError, PAL_OK);
        EXPECT_EQ(ReadFile(kXml), refs > 0 ? EntryText("abc", "1", refs, 1, 0, 9, kDat, "") : "");
    }
    EXPECT_FALSE(Exists(kXml));
    EXPECT_FALSE(Exists(kDat));
    EXPECT_EQ(DepotGetEntry(handle_, "abc", "1"), nullptr);
}

TEST_F(DepotLifecycle, EntryFileStaysWhileItsDataFileCannotBeDeleted) {
    Open();
    DepotEntry* e = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
    ASSERT_NE(e, nullptr);
    ASSERT_EQ(::remove(kDat.c_str()), 0);
    ASSERT_EQ(::mkdir(kDat.c_str(), 0700), 0);
    WriteFile(kDat + "/keep", "x");  // a non-empty directory cannot be removed

    PalError err = DepotRemoveEntry(handle_, e, PAL_TRUE);
    EXPECT_EQ(err.palError, PAL_ERR_SYSTEM);
    EXPECT_TRUE(Exists(kXml));
    EXPECT_TRUE(
        log_.Has(1, "DepotRemoveEntry_internal exit.  Error -4 removing file " + kDat + "\n"));
    EXPECT_EQ(DepotFindEntryIndex(handle_, "abc", "1"), 0xFFFFFFFFu);
}

TEST_F(DepotLifecycle, DataFileOpensKeepTruncateOrFailAsAsked) {
    Open();
    DepotEntry* e = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
    ASSERT_NE(e, nullptr);
    WriteFile(kDat, "hello");

    PalFileHandle f{};
    ASSERT_EQ(DepotFileOpenForWrite(handle_, e, &f, PAL_FALSE).palError, PAL_OK);
    PalFileClose(f);
    EXPECT_EQ(ReadFile(kDat), "hello");
    ASSERT_EQ(DepotFileOpenForRead(handle_, e, &f).palError, PAL_OK);
    PalFileClose(f);
    EXPECT_EQ(e->openCount, 2);
    EXPECT_EQ(e->writeCount, 1);
    ASSERT_EQ(DepotFileOpenForWrite(handle_, e, &f, PAL_TRUE).palError, PAL_OK);
    PalFileClose(f);
    EXPECT_EQ(ReadFile(kDat), "");

    ASSERT_EQ(::remove(kDat.c_str()), 0);
    PalError err = DepotFileOpenForWrite(handle_, e, &f, PAL_FALSE);
    EXPECT_EQ(err.palError, PAL_ERR_SYSTEM);
    EXPECT_EQ(f.handle, nullptr);
    EXPECT_FALSE(Exists(kDat));  // never created
    EXPECT_TRUE(log_.Has(0, "DepotFileOpenForWrite exit.  Error -4 opening segment data file\n"));
}

TEST_F(DepotLifecycle, ModifiedAnswerKeepsTheEntryLockUntilTheProcessEnds) {
    Open();
    DepotEntry* e = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
    ASSERT_NE(e, nullptr);
    PalFileHandle f{};
    ASSERT_EQ(DepotFileOpenForWrite(handle_, e, &f, PAL_TRUE).palError, PAL_OK);
    PalFileClose(f);
    PalInt32 stamp = e->lastWriteTime;

    int before = SemValue("entry.lk");
    EXPECT_FALSE(DepotEntryModified(handle_, "abc", "1", stamp));
    EXPECT_EQ(SemValue("entry.lk"), before);

    pid_t child = ForkHolding([&] {
        return DepotEntryModified(handle_, "abc", "1", stamp + 1) != PAL_FALSE &&
               SemValue("entry.lk") == before - 1;  // held by the child once it answered
    });
    ASSERT_GT(child, 0);
    KillChild(child);
    EXPECT_EQ(SemValue("entry.lk"), before);  // given back when it ended
}

}  // namespace
