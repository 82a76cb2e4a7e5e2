// handle_test.cpp - opening and freeing Depot handles: the directory, the lock files of the
// working directory, and the deliberate extra semaphore units.

#include <string>

#include "depot_fixture.h"

using namespace depot_test;

namespace {

class DepotHandleTest : public DepotTest {};

TEST_F(DepotHandleTest, UncreatableDirectoryStillGivesAHandle) {
    DepotHandle* h = nullptr;
    PalError err = DepotNew(&h, "no/such/parent", 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(err.palError, PAL_OK);
    EXPECT_STREQ(DepotGetDir(h), "no/such/parent");
    EXPECT_TRUE(Exists("depot.lk"));  // in the working directory, not the depot's
    EXPECT_TRUE(Exists("entry.lk"));
    EXPECT_EQ(DepotSetDir(h, nullptr).palError, PAL_OK);
    EXPECT_STREQ(DepotGetDir(h), "depot");
    EXPECT_TRUE(Exists("depot"));
    EXPECT_EQ(DepotFree(h).palError, PAL_ERR_NO_MORE);  // the end of its record walk
}

TEST_F(DepotHandleTest, HandlesShareTheSemaphoresAndRaiseTheirCounts) {
    DepotHandle* a = nullptr;
    DepotHandle* b = nullptr;
    ASSERT_EQ(DepotNew(&a, "one", 0).palError, PAL_OK);
    EXPECT_EQ(SemValue("depot.lk"), 2);  // created free (1), then released once
    EXPECT_EQ(SemValue("entry.lk"), 2);
    ASSERT_EQ(DepotNew(&b, "two", 0).palError, PAL_OK);
    EXPECT_EQ(SemValue("depot.lk"), 3);  // one set per lock file, whatever the directory
    EXPECT_EQ(SemValue("entry.lk"), 3);
    DepotFree(b);
    EXPECT_EQ(SemValue("depot.lk"), 3);
    EXPECT_EQ(SemValue("entry.lk"), 4);  // DepotFree releases the entry lock once more
    DepotFree(a);
}

// The lock mode: the environment wins over the configuration file, which wins over the program's
// choice; the default is the established raising of the counts.
struct ModeSource {
    const char* environment;  // FANOUT_DEPOT_STRICT_LOCKS, or null
    const char* config;       // the depot_strict_locks line, or null
    bool programDefault;
    bool strict;
};

class DepotLockMode : public DepotTest, public ::testing::WithParamInterface<ModeSource> {
  protected:
    void TearDown() override {
        ::unsetenv("FANOUT_DEPOT_STRICT_LOCKS");
        ::unsetenv("FANOUT_CONFIG");
        DepotSetStrictLocksDefault(PAL_FALSE);
        DepotTest::TearDown();
    }
};

TEST_P(DepotLockMode, StrictModeKeepsEveryCountAtOne) {
    const ModeSource& m = GetParam();
    if (m.environment != nullptr) ::setenv("FANOUT_DEPOT_STRICT_LOCKS", m.environment, 1);
    if (m.config != nullptr) {
        WriteFile("fanout.cfg", std::string("# depot\ndepot_strict_locks=") + m.config + "\n");
        ::setenv("FANOUT_CONFIG", (dir_ + "/fanout.cfg").c_str(), 1);
    }
    DepotSetStrictLocksDefault(m.programDefault ? PAL_TRUE : PAL_FALSE);
    DepotHandle* h = Open();
    ASSERT_NE(h, nullptr);
    const int free = m.strict ? 1 : 2;
    EXPECT_EQ(h->strictLocks != PAL_FALSE, m.strict);
    EXPECT_EQ(SemValue("depot.lk"), free);
    EXPECT_EQ(SemValue("entry.lk"), free);
    DepotEnum* walk = nullptr;
    ASSERT_EQ(DepotEnumNew(h, &walk).palError, PAL_OK);
    EXPECT_EQ(SemValue("enum.lk"), free);
    DepotEntryEnumDelete(walk);
    if (!m.strict) return;
    // The "modified" answer gives the entry lock back, to this process and every other one.
    DepotEntry* e = DepotAddEntry(h, "abc", "1", nullptr, 0);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(DepotEntryModified(h, "abc", "1", e->lastWriteTime + 1), PAL_TRUE);
    EXPECT_EQ(SemValue("entry.lk"), 1);
    EXPECT_EQ(DepotCompleteEntry(h, e, 0).palError, PAL_OK);
    DepotFree(h);
    handle_ = nullptr;
    EXPECT_EQ(SemValue("depot.lk"), 1);
    EXPECT_EQ(SemValue("entry.lk"), 1);
}

INSTANTIATE_TEST_SUITE_P(
    Sources, DepotLockMode,
    ::testing::Values(ModeSource{nullptr, nullptr, false, false},
                      ModeSource{"1", nullptr, false, true}, ModeSource{nullptr, "1", false, true},
                      ModeSource{nullptr, nullptr, true, true}, ModeSource{"0", "1", true, false},
                      ModeSource{"1", "0", false, true}, ModeSource{nullptr, "0", true, false},
                      ModeSource{"yes", nullptr, true, true}));

}  // namespace
