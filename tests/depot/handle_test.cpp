// handle_test.cpp - opening and freeing Depot handles: the directory, the lock
// files of the working directory, and the deliberate extra semaphore units.

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

}  // namespace
