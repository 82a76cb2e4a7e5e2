// DepotGetLastError: after each constructor or lookup that returns null, the calling thread learns
// the record and the file concerned; a success clears both.
#include <cerrno>
#include <functional>
#include <string>

#include "depot_fixture.h"

using namespace depot_test;

namespace {

class DepotLastError : public DepotTest {
  protected:
    void TearDown() override {
        if (other_ != nullptr) DepotFree(other_);
        DepotTest::TearDown();
    }
    DepotHandle* other_ = nullptr;
};

TEST_F(DepotLastError, EachFailureLeavesItsRecordAndFile) {
    DepotHandle* h = Open();
    ASSERT_NE(h, nullptr);
    // A second depot whose directory is a regular file, and a key a live writer holds.
    WriteFile("plain", "not a directory");
    ASSERT_EQ(DepotNew(&other_, (dir_ + "/plain").c_str(), 0).palError, PAL_OK);
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
         [&] { return DepotAddEntry(other_, "a", "1", nullptr, 0) == nullptr; }, PAL_ERR_SYSTEM,
         ENOTDIR, dir_ + "/plain/"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_TRUE(c.failed());
        const PalChar* file = nullptr;
        const PalError e = DepotGetLastError(&file);
        EXPECT_EQ(e.palError, c.pal);
        EXPECT_EQ(e.nativeError, c.native);
        ASSERT_NE(file, nullptr);
        EXPECT_EQ(c.filePrefix.empty() ? std::string(file).size()
                                       : std::string(file).rfind(c.filePrefix, 0),
                  0u)
            << file;
    }
    // A directory this user may not write (root writes anyway).
    ASSERT_EQ(::mkdir("locked", 0500), 0);
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
    ::chmod("locked", 0700);
    // A success clears the record; the file argument may be null.
    DepotEntry* added = DepotAddEntry(h, "a", "1", nullptr, 0);
    ASSERT_NE(added, nullptr);
    const PalChar* file = nullptr;
    EXPECT_EQ(DepotGetLastError(&file).palError, PAL_OK);
    EXPECT_STREQ(file, "");
    EXPECT_EQ(DepotGetLastError(nullptr).palError, PAL_OK);
}

}  // namespace
