// DepotGetLastError: after each constructor or lookup that returns null, the
// calling thread learns the record and the file concerned; a success clears
// both.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "fanout/depot.h"
#include "fanout/log.h"

namespace {

class DepotLastError : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(::getcwd(oldCwd_, sizeof oldCwd_), nullptr);
        char pattern[] = "/tmp/fanout-lasterror-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        dir_ = pattern;
        ASSERT_EQ(::chdir(dir_.c_str()), 0);  // the lock files go here
        fanout_log_set_handler([](int32_t, const char*, void*) {}, nullptr);  // quiet
    }
    void TearDown() override {
        for (DepotHandle* h : {handle_, other_}) {
            if (h != nullptr) DepotFree(h);
        }
        for (const char* lk : {"depot.lk", "entry.lk", "enum.lk"}) {
            struct stat st {};
            if (::stat(lk, &st) != 0 || !S_ISREG(st.st_mode)) continue;
            const int id = ::semget(::ftok(lk, 1), 1, 0);
            if (id >= 0) ::semctl(id, 0, IPC_RMID);
        }
        ::chmod((dir_ + "/locked").c_str(), 0700);
        fanout_log_set_handler(nullptr, nullptr);
        ASSERT_EQ(::chdir(oldCwd_), 0);
        std::filesystem::remove_all(dir_);
    }
    DepotHandle* Open(DepotHandle** slot, const std::string& directory) {
        EXPECT_EQ(DepotNew(slot, directory.c_str(), 0).palError, PAL_OK);
        return *slot;
    }

    char oldCwd_[PATH_MAX] = {};
    std::string dir_;
    DepotHandle* handle_ = nullptr;
    DepotHandle* other_ = nullptr;
};

TEST_F(DepotLastError, EachFailureLeavesItsRecordAndFile) {
    DepotHandle* h = Open(&handle_, dir_ + "/depot");
    ASSERT_NE(h, nullptr);
    // A second depot whose directory is a regular file, one this user may
    // not write (root writes anyway), and a key a live writer holds.
    std::ofstream(dir_ + "/plain") << "not a directory";
    DepotHandle* plain = Open(&other_, dir_ + "/plain");
    ASSERT_NE(plain, nullptr);
    ASSERT_EQ(::mkdir((dir_ + "/locked").c_str(), 0500), 0);
    DepotEntry* held = DepotAddEntry(h, "held", "1", nullptr, 0);
    ASSERT_NE(held, nullptr);
    const std::string heldFile = held->entryFilePath;

    struct Case {
        const char* what;
        std::function<bool()> failed;  // true when the call returned null
        PalInt32 pal, native;
        std::string filePrefix;  // "" when no file is named
    };
    const Case cases[] = {
        {"tag text", [&] { return DepotAddEntry(h, "a<b>", "1", nullptr, 0) == nullptr; },
         PAL_ERR_INVALID_ARGUMENT, 0, ""},
        {"null id", [&] { return DepotAddEntry(h, nullptr, "1", nullptr, 0) == nullptr; },
         PAL_ERR_INVALID_ARGUMENT, 0, ""},
        {"live writer", [&] { return DepotAddEntry(h, "held", "1", nullptr, 0) == nullptr; },
         PAL_ERR_BUSY, 0, heldFile},
        {"not found", [&] { return DepotGetEntry(h, "absent", "1") == nullptr; }, PAL_ERR_NO_ENTRY,
         0, ""},
        {"directory is a file",
         [&] { return DepotAddEntry(plain, "a", "1", nullptr, 0) == nullptr; }, PAL_ERR_SYSTEM,
         ENOTDIR, dir_ + "/plain/"},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(c.failed()) << c.what;
        const PalChar* file = nullptr;
        const PalError e = DepotGetLastError(&file);
        EXPECT_EQ(e.palError, c.pal) << c.what;
        EXPECT_EQ(e.nativeError, c.native) << c.what;
        ASSERT_NE(file, nullptr) << c.what;
        if (c.filePrefix.empty()) {
            EXPECT_STREQ(file, "") << c.what;
        } else {
            EXPECT_EQ(std::string(file).rfind(c.filePrefix, 0), 0u) << c.what << ": " << file;
        }
    }
    if (::geteuid() != 0) {
        DepotHandle* locked = nullptr;
        ASSERT_EQ(DepotNew(&locked, (dir_ + "/locked").c_str(), 0).palError, PAL_OK);
        EXPECT_EQ(DepotAddEntry(locked, "a", "1", nullptr, 0), nullptr);
        const PalChar* file = nullptr;
        const PalError e = DepotGetLastError(&file);
        DepotFree(locked);
        EXPECT_EQ(e.palError, PAL_ERR_SYSTEM);
        EXPECT_EQ(e.nativeError, EACCES);
        EXPECT_EQ(std::string(file).rfind(dir_ + "/locked/", 0), 0u) << file;
    }
    // A success clears the record; the file argument may be null.
    DepotEntry* added = DepotAddEntry(h, "a", "1", nullptr, 0);
    ASSERT_NE(added, nullptr);
    const PalChar* file = nullptr;
    EXPECT_EQ(DepotGetLastError(&file).palError, PAL_OK);
    EXPECT_STREQ(file, "");
    EXPECT_EQ(DepotGetLastError(nullptr).palError, PAL_OK);
    DepotFreeEntry(h, added);
    DepotFreeEntry(h, held);
}

// A lock file that cannot be created fails DepotNew, which names it.
TEST_F(DepotLastError, DepotNewNamesTheLockFileItCouldNotCreate) {
    ASSERT_EQ(::mkdir("depot.lk", 0700), 0);
    DepotHandle* h = nullptr;
    const PalError returned = DepotNew(&h, (dir_ + "/depot").c_str(), 0);
    EXPECT_EQ(h, nullptr);
    const PalChar* file = nullptr;
    const PalError last = DepotGetLastError(&file);
    EXPECT_NE(returned.palError, PAL_OK);
    EXPECT_EQ(last.palError, returned.palError);
    EXPECT_EQ(last.nativeError, returned.nativeError);
    EXPECT_EQ(last.traceLocation, returned.traceLocation);
    EXPECT_STREQ(file, "depot.lk");
}

}  // namespace
