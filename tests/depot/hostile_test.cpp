// hostile_test.cpp - the Depot against a hostile directory and a failing machine: intruders at
// its own file names, locations pointing outside, keys holding tag text, writers that die or hold
// on, a full disk. Nothing outside the depot may change and no open may block.

#include <sys/resource.h>

#include <string>

#include "depot_fixture.h"
#include "fanout/palmemory.h"

using namespace depot_test;

namespace {

// "abc" and "1" hash to bucket 16: the key's first entry would be depot/00000016.0.xml.
constexpr const char* kFirstEntry = "depot/00000016.0.xml";
constexpr const char* kFirstData = "depot/00000016.0.dat";

enum class Kind { File, Link, Fifo, Directory };
struct Intruder {
    const char* name;
    const char* path;  // one of the first entry's names
    Kind kind;
    const char* target;  // of a link
};

class DepotIntruder : public DepotTest, public ::testing::WithParamInterface<Intruder> {};

// The add takes the next free number, writes nothing through a link and never
// opens a FIFO for a blocking read; what was planted stays as it was.
TEST_P(DepotIntruder, AddTakesTheNextNumberAndLeavesTheIntruderAlone) {
    WriteFile("outside", "outside");
    Open();
    const Intruder& in = GetParam();
    const std::string planted = in.path;
    switch (in.kind) {
        case Kind::File:
            WriteFile(planted, "precious");
            break;
        case Kind::Link:
            ASSERT_EQ(::symlink(in.target, in.path), 0);
            break;
        case Kind::Fifo:
            ASSERT_EQ(::mkfifo(in.path, 0600), 0);
            break;
        case Kind::Directory:
            ASSERT_EQ(::mkdir(in.path, 0700), 0);
            break;
    }
    struct stat before {};
    ASSERT_EQ(::lstat(in.path, &before), 0);

    DepotEntry* e = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->entryFilePath, "depot/00000016.1.xml");
    WriteData(handle_, e, "data");
    ASSERT_EQ(DepotCompleteEntry(handle_, e, 0).palError, PAL_OK);

    EXPECT_EQ(ReadFile("outside"), "outside");
    EXPECT_FALSE(Exists("nowhere"));
    struct stat after {};
    ASSERT_EQ(::lstat(planted.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
    EXPECT_EQ(after.st_mode, before.st_mode);
    if (in.kind == Kind::File) {
        EXPECT_EQ(ReadFile(in.path), "precious");
    }
    EXPECT_EQ(ReadFile("depot/00000016.1.dat"), "data");
    // A purge walks past the intruder without blocking on it or removing it.
    PalUint32 skipped = 0;
    EXPECT_EQ(DepotPurgeCounting(handle_, PAL_TRUE, &skipped).palError, PAL_OK);
    EXPECT_FALSE(Exists("depot/00000016.1.xml"));
    ASSERT_EQ(::lstat(planted.c_str(), &after), 0);
    EXPECT_EQ(after.st_ino, before.st_ino);
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, DepotIntruder,
    ::testing::Values(Intruder{"OrphanData", kFirstData, Kind::File, nullptr},
                      Intruder{"DataLinkOutside", kFirstData, Kind::Link, "../outside"},
                      Intruder{"EntryLinkOutside", kFirstEntry, Kind::Link, "../outside"},
                      Intruder{"EntryLinkDangling", kFirstEntry, Kind::Link, "../nowhere"},
                      Intruder{"DataFifo", kFirstData, Kind::Fifo, nullptr},
                      Intruder{"EntryFifo", kFirstEntry, Kind::Fifo, nullptr},
                      Intruder{"EntryDirectory", kFirstEntry, Kind::Directory, nullptr}),
    [](const auto& info) { return std::string(info.param.name); });

class DepotHostile : public DepotTest {};

// Unusable entry files are skipped and counted by the counting walk and the
// purges built on it, whatever the directory order; a location outside the
// depot is never opened or removed.
TEST_F(DepotHostile, UnusableEntryFilesAreCountedAndHideNothing) {
    WriteFile("outside", "outside");
    Open();
    for (const char* id : {"old1", "old2", "old3"}) AddComplete(id, "1", 1000, "x");
    for (const char* id : {"new1", "new2", "new3", "new4"}) AddComplete(id, "1", 2000000000, "y");
    ASSERT_EQ(::mkdir("depot/00000001.7.xml", 0700), 0);
    ASSERT_EQ(::mkfifo("depot/00000002.7.xml", 0600), 0);
    ASSERT_EQ(::symlink("nowhere", "depot/00000003.7.xml"), 0);
    WriteFile("depot/00000004.7.xml", "not an entry");
    // A hand-made entry whose location is a file outside the depot.
    WriteFile("depot/00000005.7.xml", EntryText("evil", "1", 0, 1, 0, 1000, dir_ + "/outside", ""));

    DepotEnum* walk = nullptr;
    ASSERT_EQ(DepotEnumNew(handle_, &walk).palError, PAL_OK);
    PalUint32 skipped = 0;
    int seen = 0;
    while (DepotEntry* e = DepotEntryEnumNextReadable(walk, &skipped)) {
        ++seen;
        DepotFreeEntry_internal(handle_, e);
    }
    DepotEntryEnumDelete(walk);
    EXPECT_EQ(seen, 7);
    EXPECT_EQ(skipped, 5u);
    EXPECT_EQ(DepotGetEntry(handle_, "evil", "1"), nullptr);  // damaged, not a record

    ASSERT_EQ(DepotPurgeExpiredCounting(handle_, &skipped).palError, PAL_OK);
    EXPECT_EQ(skipped, 5u);
    EXPECT_EQ(CountSuffix("depot", ".dat"), 4);
    ASSERT_EQ(DepotPurgeCounting(handle_, PAL_TRUE, &skipped).palError, PAL_OK);
    EXPECT_EQ(CountSuffix("depot", ".dat"), 0);
    EXPECT_EQ(ReadFile("outside"), "outside");
    EXPECT_TRUE(Exists("depot/00000005.7.xml"));  // left for the tool's check
}

// An entry's location must be its own data file: an entry file naming any
// other file is damaged, is never a record, and what it names survives purges.
TEST_F(DepotHostile, OnlyItsOwnDataFileIsAnEntrysLocation) {
    Open();
    PalChar* b = DepotFindBucket("evil", "1");
    ASSERT_NE(b, nullptr);
    const std::string bucket = b;
    PalMemoryFree(b);
    const std::string entry = "depot/" + bucket + ".7.xml";
    const std::string locations[] = {
        dir_ + "/outside",
        "depot/" + bucket + ".8.dat",  // another entry's data file in the bucket
        "depot/" + bucket + ".7.dat.dat",
        "depot/../" + bucket + ".7.dat",
    };
    for (const std::string& location : locations) {
        SCOPED_TRACE(location);
        WriteFile(location, "precious");
        WriteFile(entry, EntryText("evil", "1", 0, 1, 0, 1000, location, ""));
        EXPECT_EQ(DepotGetEntry(handle_, "evil", "1"), nullptr);
        EXPECT_EQ(DepotPurgeExpiredEntries(handle_).palError, PAL_OK);
        EXPECT_EQ(DepotPurge(handle_, PAL_TRUE).palError, PAL_OK);
        EXPECT_EQ(ReadFile(location), "precious");
        ::remove(location.c_str());
        ::remove(entry.c_str());
    }
}

// A writer's entry is untouchable while it lives, from this process's other
// handles as from other processes, and stale once it is gone.
TEST_F(DepotHostile, LiveWritersAreUntouchableAndDeadOnesStale) {
    Open();
    DepotEntry* mine = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
    ASSERT_NE(mine, nullptr);
    DepotHandle* other = nullptr;
    ASSERT_EQ(DepotNew(&other, nullptr, 0).palError, PAL_OK);
    DepotEntry* seen = DepotGetEntry(other, "abc", "1");
    ASSERT_NE(seen, nullptr);
    EXPECT_EQ(DepotEntryWriterAlive(other, seen), PAL_TRUE);
    EXPECT_EQ(DepotRemoveEntry(other, seen, PAL_TRUE).palError, PAL_ERR_BUSY);
    EXPECT_EQ(DepotAddEntry(other, "abc", "1", nullptr, 0), nullptr);
    EXPECT_EQ(DepotPurge(other, PAL_TRUE).palError, PAL_OK);
    EXPECT_TRUE(Exists(kFirstEntry));
    EXPECT_TRUE(Exists(kFirstData));

    // A writer killed after its add: the entry is stale for everyone.
    pid_t child = ForkHolding([] {
        DepotHandle* h = nullptr;
        return DepotNew(&h, nullptr, 0).palError == PAL_OK &&
               DepotAddEntry(h, "abd", "1", nullptr, 0) != nullptr;
    });
    ASSERT_GT(child, 0);
    DepotEntry* theirs = DepotGetEntry(other, "abd", "1");
    ASSERT_NE(theirs, nullptr);
    EXPECT_EQ(DepotEntryWriterAlive(other, theirs), PAL_TRUE);
    KillChild(child);
    EXPECT_EQ(DepotEntryWriterAlive(other, theirs), PAL_FALSE);
    DepotFreeEntry(other, theirs);
    // Re-added afresh (the stale entry goes), and removable by name.
    DepotEntry* again = DepotAddEntry(other, "abd", "1", nullptr, 0);
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(DepotRemoveEntry(other, again, PAL_TRUE).palError, PAL_OK);
    EXPECT_EQ(CountSuffix("depot", ".xml"), 1);

    // The writer giving its record up makes its entry stale too.
    DepotFreeEntry(handle_, mine);
    EXPECT_EQ(DepotPurge(other, PAL_FALSE).palError, PAL_OK);
    EXPECT_EQ(ListDir("depot").size(), 0u);
    DepotFree(other);
}

TEST_F(DepotHostile, KeysHoldingTagTextAreRefused) {
    Open();
    const char* keys[][2] = {
        {"x<state>", "1"}, {"<id>x</id>", "1"}, {"x", "1</version>"}, {"a>b", "1"}};
    for (const auto& key : keys) {
        SCOPED_TRACE(key[0] + std::string("^") + key[1]);
        EXPECT_EQ(DepotAddEntry(handle_, key[0], key[1], nullptr, 0), nullptr);
        DepotEntry e{};
        e.id = const_cast<PalChar*>(key[0]);
        e.version = const_cast<PalChar*>(key[1]);
        PalChar* text = nullptr;
        PalUint32 length = 0;
        EXPECT_EQ(DepotEntrySetProperties(handle_, &e, &text, &length).palError,
                  PAL_ERR_INVALID_ARGUMENT);
    }
    EXPECT_EQ(ListDir("depot").size(), 0u);
}

// A disk that takes no byte: the add fails and leaves no file behind.
TEST_F(DepotHostile, FullDiskLeavesNoEntryFile) {
    Open();
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        struct rlimit none = {0, 0};
        ::setrlimit(RLIMIT_FSIZE, &none);
        ::_exit(DepotAddEntry(handle_, "abc", "1", nullptr, 0) == nullptr ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(ListDir("depot").size(), 0u);
}

// Completion flushes the data file first: without one nothing is completed.
TEST_F(DepotHostile, CompletionWithoutItsDataFileFails) {
    Open();
    DepotEntry* e = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
    ASSERT_NE(e, nullptr);
    ASSERT_EQ(::unlink(kFirstData), 0);
    EXPECT_NE(DepotCompleteEntry(handle_, e, 0).palError, PAL_OK);
    DepotEntry* seen = DepotGetEntry(handle_, "abc", "1");
    ASSERT_NE(seen, nullptr);
    EXPECT_EQ(seen->state, DEPOT_STATE_IN_PROGRESS);
    EXPECT_EQ(DepotEntryWriterAlive(handle_, seen), PAL_FALSE);
}

// The system gives back a lock held by a killed process.
TEST_F(DepotHostile, KilledLockHolderDoesNotStopTheOthers) {
    Open();
    // Takes back the units DepotNew lends both semaphores, so that they exclude strictly.
    ASSERT_EQ(PalWaitSem(&handle_->depotLock).palError, PAL_OK);
    ASSERT_EQ(PalWaitSem(&handle_->entryLock).palError, PAL_OK);
    pid_t child =
        ForkHolding([this] { return PalWaitSem(&handle_->depotLock).palError == PAL_OK; });
    ASSERT_GT(child, 0);
    EXPECT_EQ(SemValue("depot.lk"), 0);
    KillChild(child);
    EXPECT_EQ(SemValue("depot.lk"), 1);
    EXPECT_NE(DepotAddEntry(handle_, "abc", "1", nullptr, 0), nullptr);
}

}  // namespace
