// interleave_test.cpp - two handles on one depot, their steps interleaved by hand: a completion
// starts from the counters another handle wrote after this one read its record, never from the
// record's stale copy.

#include <ostream>
#include <string>

#include "depot_fixture.h"
#include "fanout/palmemory.h"

using namespace depot_test;

namespace {

// What the second handle does between the first's reuse of the key and its completion, and the
// entry file the two leave behind.
struct Interleaving {
    const char* name;
    int completionsBefore;  // completions of the key before either record is taken
    bool otherCompletes;    // else the other handle gives back one reference
    PalInt32 otherDeadline;
    PalInt32 ownDeadline;
    PalInt32 references;  // in the entry file at the end
    PalInt32 deadline;
};

void PrintTo(const Interleaving& c, std::ostream* os) {
    *os << c.name;
}

class DepotInterleave : public DepotTest, public ::testing::WithParamInterface<Interleaving> {
  protected:
    void TearDown() override {
        if (other_ != nullptr) DepotFree(other_);
        DepotTest::TearDown();
    }
    DepotHandle* other_ = nullptr;
};

TEST_P(DepotInterleave, CompletionCountsWhatTheOtherHandleWroteMeanwhile) {
    const Interleaving& c = GetParam();
    Open();
    ASSERT_EQ(DepotNew(&other_, nullptr, 0).palError, PAL_OK);
    for (int i = 0; i < c.completionsBefore; ++i) AddComplete("k", "1", 1000);

    DepotEntry* own = DepotAddEntry(handle_, "k", "1", nullptr, 0);  // reuses the complete key
    ASSERT_NE(own, nullptr);
    ASSERT_EQ(own->referenceCount, c.completionsBefore);
    std::string path = own->entryFilePath;

    if (c.otherCompletes) {
        DepotEntry* e = DepotAddEntry(other_, "k", "1", nullptr, 0);
        ASSERT_NE(e, nullptr);
        ASSERT_EQ(DepotCompleteEntry(other_, e, c.otherDeadline).palError, PAL_OK);
    } else {
        DepotEntry* e = DepotGetEntry(other_, "k", "1");
        ASSERT_NE(e, nullptr);
        ASSERT_EQ(DepotEntryChangeState(other_, e, DEPOT_STATE_IN_USE).palError, PAL_OK);
        ASSERT_EQ(DepotUnregisterEntry(other_, e, PAL_FALSE).palError, PAL_OK);
    }
    ASSERT_EQ(own->referenceCount, c.completionsBefore);  // the record is stale now

    ASSERT_EQ(DepotCompleteEntry(handle_, own, c.ownDeadline).palError, PAL_OK);
    std::string text = ReadFile(path);
    DepotEntry* written = DepotEntryNewFromToc(handle_, text.c_str());
    ASSERT_NE(written, nullptr) << text;
    EXPECT_EQ(written->state, DEPOT_STATE_COMPLETE);
    EXPECT_EQ(written->referenceCount, c.references);
    EXPECT_EQ(written->deadline, c.deadline);
    EXPECT_EQ(DepotFreeEntry(handle_, written).palError, PAL_OK);
}

INSTANTIATE_TEST_SUITE_P(
    Steps, DepotInterleave,
    ::testing::Values(
        Interleaving{"OtherCompletesWithALaterDeadline", 1, true, 3000, 2000, 3, 3000},
        Interleaving{"OtherCompletesWithAnEarlierDeadline", 1, true, 1500, 2000, 3, 2000},
        Interleaving{"OtherGivesBackAReference", 2, false, 0, 1000, 2, 1000}),
    [](const ::testing::TestParamInfo<Interleaving>& info) { return info.param.name; });

}  // namespace
