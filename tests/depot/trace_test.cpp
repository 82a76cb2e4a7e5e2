// trace_test.cpp - the whole trace of scripted Depot sessions at the most verbose level, with each
// call's result and the thread's last-failure record, compared byte for byte with
// tests/golden/depot_trace.txt. FANOUT_WRITE_GOLDEN=1 writes the golden copy instead.

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "depot_fixture.h"
#include "fanout/palfile.h"
#include "fanout/pallock.h"
#include "fanout/palmemory.h"

using namespace depot_test;

namespace {

class DepotTrace : public DepotTest {
  protected:
    void SetUp() override {
        DepotTest::SetUp();
        ::setenv("FANOUT_DEPOT_STRICT_LOCKS", "0", 1);  // the traced lock calls are the default's
        fanout_log_set_handler(&DepotTrace::Capture, this);
    }

    void TearDown() override {
        ::unsetenv("FANOUT_DEPOT_STRICT_LOCKS");
        DepotTest::TearDown();
    }

    // Points the handle's semaphores at no set (every semop fails with EINVAL), or back.
    void BreakLocks(DepotHandle* h, bool broken) {
        auto* depot = static_cast<PalInternalSem*>(h->depotLock.handle);
        auto* entry = static_cast<PalInternalSem*>(h->entryLock.handle);
        if (broken) {
            savedIds_[0] = depot->semid;
            savedIds_[1] = entry->semid;
        }
        depot->semid = broken ? -1 : savedIds_[0];
        entry->semid = broken ? -1 : savedIds_[1];
    }

    static void Capture(int32_t level, const char* line, void* context) {
        std::string& out = static_cast<DepotTrace*>(context)->transcript_;
        out += std::to_string(level) + " " + line;
        if (out.back() != '\n') out += " [no newline]\n";
    }

    // A line of the test's own between the trace lines: a step and its result.
    void Note(const char* format, ...) __attribute__((format(printf, 2, 3))) {
        char text[512];
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        transcript_ += std::string("# ") + text + "\n";
    }

    void Result(const char* step, PalError err) {
        Note("%s -> %d(%d,%d)", step, err.palError, err.nativeError, err.traceLocation);
    }

    void Result(const char* step, const void* record) {
        const PalChar* file = nullptr;
        PalError last = DepotGetLastError(&file);
        Note("%s -> %s, last %d(%d,%d) \"%s\"", step, record != nullptr ? "record" : "null",
             last.palError, last.nativeError, last.traceLocation, file != nullptr ? file : "");
    }

    // Walks the depot, freeing every record; `counting` walks past unreadable files.
    void Walk(DepotHandle* h, bool counting) {
        DepotEnum* walk = nullptr;
        Result("DepotEnumNew", DepotEnumNew(h, &walk));
        if (walk == nullptr) return;
        PalUint32 skipped = 0;
        int n = 0;
        while (DepotEntry* e = counting ? DepotEntryEnumNextReadable(walk, &skipped)
                                        : DepotEntryEnumNextElement(walk)) {
            ++n;
            Note("walk found %s %s", e->id, e->version);
            (void)DepotFreeEntry(h, e);
        }
        Note("walk ends after %d, skipped %u", n, skipped);
        Result("DepotEntryEnumDelete", DepotEntryEnumDelete(walk));
    }

    DepotEntry* AddWithData(DepotHandle* h, const char* id, const char* data) {
        DepotEntry* e = DepotAddEntry(h, id, "1", reinterpret_cast<const PalUint8*>("props"), 5);
        Result("DepotAddEntry", e);
        if (e == nullptr) return nullptr;
        PalFileHandle f{};
        Result("DepotFileOpenForWrite", DepotFileOpenForWrite(h, e, &f, PAL_TRUE));
        PalUint32 n = 0;
        (void)PalFileWrite(f, data, static_cast<PalUint32>(std::strlen(data)), &n);
        (void)PalFileClose(f);
        return e;
    }

    // Compares the transcript with the golden copy (or writes it).
    void CheckGolden() {
        const char* root = std::getenv("FANOUT_SOURCE_DIR");
        ASSERT_NE(root, nullptr) << "FANOUT_SOURCE_DIR names the source tree (ctest sets it)";
        std::string path = std::string(root) + "/tests/golden/depot_trace.txt";
        const char* write = std::getenv("FANOUT_WRITE_GOLDEN");
        if (write != nullptr && std::string(write) == "1") {
            WriteFile(path, transcript_);
            GTEST_SKIP() << "wrote " << path;
        }
        ASSERT_TRUE(Exists(path)) << path;
        EXPECT_EQ(transcript_, ReadFile(path));
    }

    std::string transcript_;
    PalInt32 savedIds_[2] = {-1, -1};
};

TEST_F(DepotTrace, ScriptedSessionsTraceTheirTextsByteForByte) {
    // 1. An ordinary session: every operation once, and a failing lookup.
    Note("session: ordinary");
    DepotHandle* h = nullptr;
    Result("DepotNew", DepotNew(&h, nullptr, 100));
    ASSERT_NE(h, nullptr);
    Note("DepotGetDir -> %s", DepotGetDir(h));
    Result("DepotSetDir", DepotSetDir(h, "depot"));
    PalUint32 bucket = 0;
    Result("DepotHashFunction", DepotHashFunction("alpha1", &bucket));
    PalChar* name = DepotFindBucket("alpha", "1");
    Note("DepotFindBucket -> %s (%u)", name, bucket);
    PalMemoryFree(name);

    DepotEntry* e = AddWithData(h, "alpha", "hello");
    ASSERT_NE(e, nullptr);
    PalInt32 stamp = e->lastWriteTime;
    Note("DepotEntryWriterAlive -> %d", DepotEntryWriterAlive(h, e));
    Note("DepotEntryModified -> %d", DepotEntryModified(h, "alpha", "1", stamp));
    PalUint64 offset = 0;
    Result("DepotSetCheckpointOffset", DepotSetCheckpointOffset(h, "alpha", "1", stamp, &offset));
    Note("offset %llu", static_cast<unsigned long long>(offset));
    Result("DepotSetSegmentSize", DepotSetSegmentSize(h, e));
    Result("DepotReserveDiskSpace", DepotReserveDiskSpace(h, 10));
    Result("DepotReserveDiskSpace (too much)", DepotReserveDiskSpace(h, 1000));
    DepotUnreserveDiskSpace(h, 4);
    PalUint64 size = 0;
    Result("DepotEntryGetFileSize", DepotEntryGetFileSize(h, e, &size));
    Result("DepotAdjustReservedSpace", DepotAdjustReservedSpace(h, "alpha", "1"));
    Result("DepotAdjustReservedSpace (absent)", DepotAdjustReservedSpace(h, "none", "1"));
    Note("space %u of %u, size %llu", h->availableSpace, h->storageLimit,
         static_cast<unsigned long long>(size));
    Result("DepotCompleteEntry", DepotCompleteEntry(h, e, 1));

    e = DepotGetEntry(h, "alpha", "1");
    Result("DepotGetEntry (scan)", e);
    e = DepotGetEntry(h, "alpha", "1");
    Result("DepotGetEntry (cached)", e);
    ASSERT_NE(e, nullptr);
    PalFileHandle f{};
    Result("DepotFileOpenForRead", DepotFileOpenForRead(h, e, &f));
    (void)PalFileClose(f);
    Result("DepotEntryChangeState", DepotEntryChangeState(h, e, DEPOT_STATE_IN_USE));
    Result("DepotAddEntry (in use)", DepotAddEntry(h, "alpha", "1", nullptr, 0));
    Result("DepotEntryChangeState", DepotEntryChangeState(h, e, DEPOT_STATE_COMPLETE));
    Result("DepotSaveEntry", DepotSaveEntry(h, e));
    PalUint32 total = 0;
    Result("DepotGetPermStorage", DepotGetPermStorage(h, &total));
    Note("stored %u KiB", total);
    Walk(h, false);

    // Two registrations: the first unregistration keeps the files, the last
    // removes them.
    e = DepotAddEntry(h, "alpha", "1", nullptr, 0);
    Result("DepotAddEntry (reuse)", e);
    Result("DepotCompleteEntry", DepotCompleteEntry(h, e, 1));
    for (int i = 0; i < 4 && (e = DepotGetEntry(h, "alpha", "1")) != nullptr; ++i) {
        // As a stream does: taken into use, given back on close.
        Note("references %d", e->referenceCount);
        Result("DepotEntryChangeState", DepotEntryChangeState(h, e, DEPOT_STATE_IN_USE));
        Result("DepotUnregisterEntry", DepotUnregisterEntry(h, e, PAL_FALSE));
    }
    Result("DepotGetEntry (failing)", DepotGetEntry(h, "alpha", "1"));
    Result("DepotGetEntry (never added)", DepotGetEntry(h, "omega", "9"));

    e = AddWithData(h, "beta", "0123456789");
    Result("DepotCompleteEntry", DepotCompleteEntry(h, e, 0x7fffffff));
    e = DepotGetEntry(h, "beta", "1");
    Result("DepotRemoveEntry", DepotRemoveEntry(h, e, PAL_TRUE));
    e = AddWithData(h, "gamma", "x");
    Result("DepotCompleteEntry", DepotCompleteEntry(h, e, 1));
    Result("DepotPurgeExpiredEntries", DepotPurgeExpiredEntries(h));
    e = AddWithData(h, "delta", "x");
    Result("DepotCompleteEntry", DepotCompleteEntry(h, e, 0x7fffffff));
    Result("DepotPurge", DepotPurge(h, PAL_FALSE));
    Result("DepotPurge (forced)", DepotPurge(h, PAL_TRUE));
    e = AddWithData(h, "delta", "x");
    Result("DepotFreeEntry", DepotFreeEntry(h, e));
    PalUint32 unreadable = 0;
    Result("DepotPurgeCounting", DepotPurgeCounting(h, PAL_TRUE, &unreadable));
    Result("DepotPurgeExpiredCounting", DepotPurgeExpiredCounting(h, &unreadable));

    // 2. Damaged files: a cached record whose entry file went, an unreadable
    // file in the key's bucket, and walks over an unreadable file alone.
    Note("session: damaged files");
    e = AddWithData(h, "alpha", "x");
    Result("DepotCompleteEntry", DepotCompleteEntry(h, e, 1));
    e = DepotGetEntry(h, "alpha", "1");
    ASSERT_NE(e, nullptr);
    std::string xml = e->entryFilePath;
    std::string dat = e->location;
    ASSERT_EQ(::rename(xml.c_str(), "kept.xml"), 0);
    Result("DepotGetEntry (file gone)", DepotGetEntry(h, "alpha", "1"));
    ASSERT_EQ(::mkdir(xml.c_str(), 0700), 0);
    Result("DepotGetEntry (bucket unreadable)", DepotGetEntry(h, "alpha", "1"));
    ASSERT_EQ(::remove(dat.c_str()), 0);
    Walk(h, false);
    Walk(h, true);
    Result("DepotPurgeCounting", DepotPurgeCounting(h, PAL_TRUE, &unreadable));
    Note("unreadable %u", unreadable);
    ASSERT_EQ(::rmdir(xml.c_str()), 0);
    Result("DepotEntryFree", DepotEntryFree(h, DepotEntryNew()));
    Result("DepotFree", DepotFree(h));

    // 3. Semaphores that fail every wait and post: each operation either
    // carries on without its lock or gives up.
    Note("session: semaphores failing");
    h = nullptr;
    Result("DepotNew", DepotNew(&h, nullptr, 0));
    ASSERT_NE(h, nullptr);
    e = AddWithData(h, "alpha", "x");
    ASSERT_NE(e, nullptr);
    BreakLocks(h, true);
    Result("DepotSetDir", DepotSetDir(h, "depot"));
    Result("DepotGetEntry", DepotGetEntry(h, "alpha", "1"));
    Result("DepotAddEntry", DepotAddEntry(h, "beta", "1", nullptr, 0));
    Result("DepotSaveEntry", DepotSaveEntry(h, e));
    Result("DepotEntryChangeState", DepotEntryChangeState(h, e, DEPOT_STATE_COMPLETE));
    Result("DepotFileOpenForWrite", DepotFileOpenForWrite(h, e, &f, PAL_FALSE));
    Result("DepotFileOpenForRead", DepotFileOpenForRead(h, e, &f));
    Note("DepotEntryModified -> %d", DepotEntryModified(h, "alpha", "1", 0));
    Result("DepotSetCheckpointOffset", DepotSetCheckpointOffset(h, "alpha", "1", 0, &offset));
    Result("DepotReserveDiskSpace", DepotReserveDiskSpace(h, 1));
    DepotUnreserveDiskSpace(h, 1);
    Result("DepotSetSegmentSize", DepotSetSegmentSize(h, e));
    Result("DepotEntryGetFileSize", DepotEntryGetFileSize(h, e, &size));
    Result("DepotGetPermStorage", DepotGetPermStorage(h, &total));
    Result("DepotUnregisterEntry", DepotUnregisterEntry(h, e, PAL_FALSE));
    Result("DepotRemoveEntry", DepotRemoveEntry(h, e, PAL_FALSE));
    Result("DepotRemoveEntry_internal", DepotRemoveEntry_internal(h, e, PAL_FALSE));
    Result("DepotEntryFree", DepotEntryFree(h, nullptr));
    Result("DepotPurge", DepotPurge(h, PAL_FALSE));
    Result("DepotPurgeExpiredEntries", DepotPurgeExpiredEntries(h));
    Result("DepotCompleteEntry", DepotCompleteEntry(h, e, 1));
    BreakLocks(h, false);  // the records left behind are freed as usual
    Result("DepotFree", DepotFree(h));
    h = nullptr;
    Result("DepotNew", DepotNew(&h, nullptr, 0));
    ASSERT_NE(h, nullptr);
    BreakLocks(h, true);
    Result("DepotFree", DepotFree(h));

    // 4. Opening fails when a lock file cannot be created.
    Note("session: lock files that are directories");
    for (const char* sub : {"a", "b"}) {
        ASSERT_EQ(::mkdir(sub, 0700), 0);
        ASSERT_EQ(::chdir((dir_ + "/" + sub).c_str()), 0);
        ASSERT_EQ(::mkdir(sub[0] == 'a' ? "depot.lk" : "entry.lk", 0700), 0);
        h = nullptr;
        PalError err = DepotNew(&h, nullptr, 0);
        const PalChar* file = nullptr;
        PalError last = DepotGetLastError(&file);
        Note("DepotNew -> %d(%d,%d) %s, last %d(%d,%d) \"%s\"", err.palError, err.nativeError,
             err.traceLocation, h != nullptr ? "handle" : "null", last.palError, last.nativeError,
             last.traceLocation, file != nullptr ? file : "");
        if (h != nullptr) (void)DepotFree(h);
        ASSERT_EQ(::chdir(dir_.c_str()), 0);
    }
    Result("DepotNew (no out)", DepotNew(nullptr, nullptr, 0));

    // Nothing in the compared text may depend on where the test ran.
    ASSERT_EQ(transcript_.find(dir_), std::string::npos);
    CheckGolden();
}

}  // namespace
