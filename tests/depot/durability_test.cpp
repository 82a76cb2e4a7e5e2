// durability_test.cpp - what a completion forces out, in order: the data file and the depot
// directory while the entry file says in progress, then the entry file saying complete. This
// program's own fsync notes each file and the entry file's state, then passes the call on.

#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <string>
#include <vector>

#include "depot_fixture.h"

using namespace depot_test;

namespace {

struct Sync {
    std::string path;     // the file or directory forced out
    PalInt32 entryState;  // the state in the watched entry file at that moment
};

std::vector<Sync> g_syncs;
std::string g_watched;  // the entry file whose state each sync notes

PalInt32 StateIn(const std::string& path) {
    std::string text = ReadFile(path);
    std::string::size_type at = text.find("<state>");
    return at == std::string::npos ? -1 : std::atoi(text.c_str() + at + 7);
}

}  // namespace

extern "C" int fsync(int fd) {
    char link[64];
    char target[PATH_MAX] = {};
    std::snprintf(link, sizeof link, "/proc/self/fd/%d", fd);
    ssize_t n = ::readlink(link, target, sizeof target - 1);
    if (!g_watched.empty())
        g_syncs.push_back(
            {n > 0 ? std::string(target, static_cast<size_t>(n)) : "?", StateIn(g_watched)});
    return static_cast<int>(::syscall(SYS_fsync, fd));
}

namespace {

class DepotDurability : public DepotTest {
  protected:
    void TearDown() override {
        g_watched.clear();
        g_syncs.clear();
        DepotTest::TearDown();
    }
};

TEST_F(DepotDurability, CompletionForcesDataAndDirectoryBeforeTheEntryFile) {
    Open();
    DepotEntry* e = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
    ASSERT_NE(e, nullptr);
    g_watched = e->entryFilePath;
    const struct {
        std::string path;
        PalInt32 state;  // what the entry file said when it was forced out
    } expected[] = {
        {dir_ + "/" + e->location, DEPOT_STATE_IN_PROGRESS},
        {dir_ + "/depot", DEPOT_STATE_IN_PROGRESS},
        {dir_ + "/" + e->entryFilePath, DEPOT_STATE_COMPLETE},
    };
    ASSERT_EQ(DepotCompleteEntry(handle_, e, 0).palError, PAL_OK);
    for (const auto& x : expected) {
        SCOPED_TRACE(x.path);
        auto sync = std::find_if(g_syncs.begin(), g_syncs.end(),
                                 [&](const Sync& s) { return s.path == x.path; });
        ASSERT_NE(sync, g_syncs.end());
        EXPECT_EQ(sync->entryState, x.state);
    }
}

}  // namespace
