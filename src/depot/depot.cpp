// depot.cpp - the Depot handle: opening and freeing a depot, its directory, the
// cross-process locks every Depot operation takes, and Logger, the trace log.
//
// Design notes
// ============
//
// 1. What a depot is. One flat directory holding, for every entry (a segment
//    keyed by id and version), an entry file "<bucket>.<n>.xml" and a data
//    file "<bucket>.<n>.dat". <bucket> is the key's bucket number printed with
//    "%08u" (lookup.cpp); <n> is the smallest sequence number not used by an
//    entry file of that bucket when the entry was added. The entry file is the
//    one-line tagged text (entry_file.cpp)
//        <<id>..</id><version>..</version><reference_count>..</reference_count>
//        <state>..</state><checksum>..</checksum><deadline>..</deadline>
//        <location>..</location><properties>..</properties>>
//    (one line, no blanks) followed by a zero byte. It is rewritten in place
//    without truncation, so bytes of an older, longer text may follow the
//    zero byte; every reader stops at the first zero byte.
//
// 2. Entry states. 0 in progress (added, data file being filled), 1 complete
//    (reusable by later additions, purgeable after its deadline), 2 in use (a
//    complete entry a stream took as its local source). Transitions:
//        add -> 0;  complete: any -> 1 (reference +1, deadline only moves
//        later);  change state: caller's choice (streams set 2);
//        unregister: reference -1, then -> 1 while references remain, else
//        the files are deleted;  purge-expired: 1 with a past deadline ->
//        deleted;  purge: deleted when unreferenced (or forced).
//    Only state 1 is reusable or purgeable by deadline: an addition for a key
//    in state 0 or 2 is refused.
//
// 3. Locks. depotLock ("depot.lk") guards depot-wide work and membership of
//    the handle's `entries` list; entryLock ("entry.lk") guards record fields,
//    every read and write of an entry file and the opening of data files; each
//    enumerator has its own lock ("enum.lk") over its directory handle. The
//    lock files live in the process's current directory. Order: depotLock,
//    then an enumerator's lock, then entryLock; never the reverse. Waits have
//    no time limit; every take and release is undone by the system when a
//    process dies. A failed take (PAL_WAIT_TIMEOUT) is treated as success, the
//    operation going on without the lock, only in DepotNew, DepotFree,
//    DepotFreeEntry, DepotPurgeExpiredEntries, DepotCompleteEntry and
//    DepotAddEntry; a lock not taken is never released.
//
// 4. The semaphore counts. DepotNew releases both semaphores once without
//    taking them, and DepotFree releases entryLock once more; DepotEnumNew
//    does the same with its lock. Each such unmatched release raises the
//    semaphore's count by one for the life of the releasing process (the
//    system undoes it at exit). This is the established behaviour of the
//    store and stays the default. In strict mode (handle->strictLocks,
//    decided once by DepotNew from FANOUT_DEPOT_STRICT_LOCKS, else the
//    configuration key "depot_strict_locks", else the program's choice) none
//    of these releases happens, so every count stays at one and the locks
//    exclude; DepotEntryModified then gives the entry lock back on its
//    "modified" answer too, so that no process blocks on a lock it holds
//    itself. Processes of both modes on one depot get the default's
//    (non-)exclusion.
//
// 4a. Files. Entry and data files are opened without following symbolic
//    links and only when they are regular files (a FIFO is never opened for
//    a blocking read), and created exclusively: a new entry never replaces
//    an existing file; on a clash the next free sequence number is taken.
//    A location that is not "<directory>/<stem>.dat" for its entry file
//    "<stem>.xml" makes the entry damaged: it is never turned into a record,
//    so nothing outside the depot is ever opened, written or removed.
//
// 4b. Writers. DepotAddEntry creates the entry file and, with the same open,
//    takes an exclusive advisory lock on it, kept in the record
//    (writerLock) until the record is freed: by DepotCompleteEntry after
//    state 1 is written, or when the writer gives the record up. The lock
//    belongs to the open, so the system drops it when the writer dies. An
//    entry in progress whose file nobody locks is stale: an add of its key
//    removes it and starts afresh, purges remove it; one that is locked
//    belongs to a live writer and no other record removes it.
//
// 4c. Durability. DepotCompleteEntry forces the data file and the directory
//    out before it writes state 1, and the entry file after it: a completion
//    that returned survives a crash whole.
//
// 5. Invariants the code keeps.
//    5.1 A record is in `entries` at most once and is freed exactly once; a
//        freed record is always taken off `entries` first (records are found
//        there by address, never by key, when they are taken off).
//    5.2 An entry file is never deleted while its data file exists, so a
//        later scan still finds, and can purge, any data left on disk.
//    5.3 Every entry file on disk was written whole under entryLock and ends
//        its text with a zero byte. Scans and enumerations read it under
//        entryLock too, so they never parse a half-rewritten text; the check
//        of a cached record reads without it (its key bytes never change)
//        and whatever it refreshes is re-read under entryLock before a write.
//    5.4 Before an operation writes a record back, it re-reads from the entry
//        file, under entryLock, what other processes may have changed
//        (reference_count, deadline) or what a lock-free read may have
//        garbled (location, properties), and writes its change in the same
//        hold; concurrent registrants never lose each other's updates. A
//        record whose entry file is gone, or now holds another key, is never
//        written back.
//    5.5 Nothing here raises; every failure is a PalError or a null result,
//        and every path out of a function releases what it took.
//    5.6 A lookup reads only the entry files of the key's bucket; repeated
//        lookups of an entry this process holds are answered from `entries`
//        after one check of its entry file.

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "depot/depot_internal.h"
#include "fanout/log.h"
#include "fanout/palfile.h"
#include "fanout/palmemory.h"
#include "fanout/runtime.h"

namespace fanout {

namespace {

// Create if absent, read-write, keep contents; never through a link, never
// anything but a regular file.
constexpr PalInt32 kCreateReadWrite =
    PAL_OPEN_CREATE | PAL_OPEN_RDWR | PAL_OPEN_NOFOLLOW | PAL_OPEN_REGULAR | PAL_OPEN_CLOEXEC;

// The mode a program chose for the case where neither the environment nor the
// configuration file says.
std::atomic<bool> strictDefault{false};

// "1" strict, "0" not, anything else no opinion (-1).
int SwitchValue(const char* text) noexcept {
    if (text == nullptr) return -1;
    if (std::strcmp(text, "1") == 0) return 1;
    if (std::strcmp(text, "0") == 0) return 0;
    return -1;
}

// The configuration file's "depot_strict_locks", or -1.
int ConfiguredStrictLocks() noexcept {
    int result = -1;
    char* file = nullptr;
    char* value = nullptr;
    try {
        file = mrt_get_config_filespec();
        if (file != nullptr && mrt_get_config_from_file(file, "depot_strict_locks", &value) == 0)
            result = SwitchValue(value);
    } catch (...) {
        // The runtime's allocator raises when memory runs out: no opinion.
        result = -1;
    }
    mg_free(value);
    mg_free(file);
    return result;
}

// Decided once per handle: the environment first, then the configuration
// file, then the program's choice.
bool ResolveStrictLocks() noexcept {
    int mode = SwitchValue(std::getenv("FANOUT_DEPOT_STRICT_LOCKS"));
    if (mode < 0) mode = ConfiguredStrictLocks();
    if (mode < 0) mode = strictDefault.load() ? 1 : 0;
    return mode == 1;
}

// A semaphore whose creation failed and was tolerated has no record: every
// operation on it reports the semaphore failure instead of touching it.
PalError SemPost(PalSemHandle* sem) noexcept {
    if (sem->handle == nullptr) return PalErrorCreate(PAL_WAIT_TIMEOUT, 0, 0);
    return PalPostSem(sem);
}

void SemClose(PalSemHandle* sem) noexcept {
    if (sem->handle != nullptr) PalCloseSem(sem);
    sem->handle = nullptr;
}

// Creates the lock file `file` and the semaphore keyed on it for DepotNew;
// `which` ("depot", "entry") names it in the trace. A failed creation of the
// semaphore itself (PAL_WAIT_TIMEOUT) is tolerated: it is logged and
// returned, and the handle goes on without that semaphore. Any other failure
// is logged as DepotNew's exit.
PalError CreateLock(PalSemHandle* sem, const PalChar* file, const char* which) noexcept {
    PalError err = TouchLockFile(file);
    if (err.palError != PAL_OK) {
        Logger(0, "DepotNew exit.  Error %d creating semaphore path\n", err.palError);
        return err;
    }
    err = PalInitSem(sem, file);
    if (err.palError == PAL_WAIT_TIMEOUT) {
        Logger(1, "DepotNew %s continue. Ignore WAIT_TIMEOUT\n", which);
    } else if (err.palError != PAL_OK) {
        Logger(0, "DepotNew PalInitSem failed\n");
        Logger(0, "DepotNew exit.  Error %d(%d) creating %s synchronization object\n", err.palError,
               err.nativeError, which);
    }
    return err;
}

PalError LogTakeFailure(PalError err, const char* op) noexcept {
    if (err.palError != PAL_OK)
        Logger(0, "%s exit.  Error %d(%d) obtaining lock\n", op, err.palError, err.nativeError);
    return err;
}

// Why the thread's last constructor or lookup failed. Constant-initialised
// and trivially destroyed, so the record costs no set-up per thread and a
// store is a plain write.
struct LastFailure {
    PalError error;
    PalChar file[PAL_PATH_MAX + 1];
};
thread_local LastFailure lastFailure{};

}  // namespace

void RecordFailure(PalError error, const PalChar* file) noexcept {
    lastFailure.error = error;
    std::size_t n = 0;
    if (file != nullptr) {
        while (n < PAL_PATH_MAX && file[n] != '\0') {
            lastFailure.file[n] = file[n];
            ++n;
        }
    }
    lastFailure.file[n] = '\0';
}

PalError TouchLockFile(const PalChar* name) noexcept {
    PalFileHandle file{};
    PalError err = PalFileOpen(&file, name, kCreateReadWrite);
    CloseQuietly(&file);
    return err;
}

PalError DepotLock::Acquire() noexcept {
    if (sem_->handle == nullptr) return PalErrorCreate(PAL_WAIT_TIMEOUT, 0, 0);
    PalError err = PalWaitSem(sem_);
    held_ = err.palError == PAL_OK;
    return err;
}

void DepotLock::Release() noexcept {
    if (!held_) return;
    held_ = false;
    PalError err = PalPostSem(sem_);
    if (err.palError != PAL_OK) Logger(1, "%s error %d releasing %s\n", op_, err.palError, what_);
}

PalError TakeLock(DepotLock& lock, const char* op) noexcept {
    return LogTakeFailure(lock.Acquire(), op);
}

PalError TakeLockOrContinue(DepotLock& lock, const char* op, const char* tolerated) noexcept {
    PalError err = lock.Acquire();
    if (err.palError != PAL_WAIT_TIMEOUT) return LogTakeFailure(err, op);
    Logger(1, "%s", tolerated);
    return Ok();
}

}  // namespace fanout

using namespace fanout;

extern "C" {

void Logger(PalInt32 level, const PalChar* format, ...) noexcept {
    // The level is tested first: a suppressed line (every trace line on the
    // lookup path, usually) then costs one comparison and no scan of the format.
    if (!fanout_log_enabled(level)) return;
    if (format == nullptr || std::strlen(format) + 50 > 1024) return;
    // The line is bounded to the buffer: a long path cut short is better than
    // a write past it.
    char text[1024] = {};
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    // Handed over as an argument, so that a '%' inside a path or key is never
    // taken for a placeholder.
    LogMsg(level, nullptr, 0, -1, "%1$s", text);
}

void DepotSetStrictLocksDefault(PalBool strict) noexcept {
    strictDefault.store(strict != PAL_FALSE);
}

PalError DepotSetDir_internal(DepotHandle* handle, const PalChar* directory) noexcept {
    DepotTrace trace("DepotSetDir");
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    PalChar* copy = PalStringDup(directory != nullptr ? directory : "depot");
    if (copy == nullptr) return trace.Exit(PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 1));
    // The previous directory string is freed: DepotGetDir's pointer is only
    // good until the directory changes.
    PalMemoryFree(handle->directory);
    handle->directory = copy;
    PalError result = Ok();
    if (!PalDirIsDirectory(copy)) result = PalDirCreateDirectory(copy);
    return trace.Exit(result);
}

PalError DepotSetDir(DepotHandle* handle, const PalChar* directory) noexcept {
    DepotTrace trace("DepotSetDir");
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    return RunLocked(trace, &handle->depotLock,
                     [&]() noexcept { return DepotSetDir_internal(handle, directory); });
}

const PalChar* DepotGetDir(DepotHandle* handle) noexcept {
    DepotTrace trace("DepotGetDir");
    return trace.Exit(handle != nullptr ? handle->directory : nullptr);
}

PalError DepotNew(DepotHandle** out, const PalChar* directory, PalUint32 storageLimit) noexcept {
    DepotTrace trace("DepotNew");
    // Every way out leaves its result, and the lock file it concerns, as the
    // thread's last failure too (DepotGetLastError).
    auto leave = [](PalError result, const PalChar* file) noexcept {
        RecordFailure(result, result.palError != PAL_OK ? file : nullptr);
        return result;
    };
    if (out == nullptr) return leave(PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0), nullptr);
    *out = nullptr;
    auto* handle = static_cast<DepotHandle*>(PalMemoryCalloc(1, sizeof(DepotHandle)));
    if (handle == nullptr) {
        Logger(0, "DepotNew exit.  Error allocating depot handle\n");
        return leave(PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 0), nullptr);
    }
    // The one way out of a failure once the handle exists (its failure line
    // already logged): whatever was set up is undone. A semaphore not yet
    // created has no record, and closing it does nothing.
    auto fail = [&leave, handle](PalError result, const PalChar* file) noexcept {
        SemClose(&handle->entryLock);
        SemClose(&handle->depotLock);
        PalMemoryFree(handle);
        return leave(result, file);
    };

    PalError err = CreateLock(&handle->depotLock, "depot.lk", "depot");
    if (err.palError != PAL_OK && err.palError != PAL_WAIT_TIMEOUT) return fail(err, "depot.lk");
    PalError entryStatus = CreateLock(&handle->entryLock, "entry.lk", "entry");
    if (entryStatus.palError != PAL_OK && entryStatus.palError != PAL_WAIT_TIMEOUT)
        return fail(entryStatus, "entry.lk");

    // Creating a semaphore does not take it; this release raises its count by
    // one for the life of the process (see the design notes, 4). Not in
    // strict mode.
    handle->strictLocks = ResolveStrictLocks() ? PAL_TRUE : PAL_FALSE;
    if (!handle->strictLocks) {
        err = SemPost(&handle->entryLock);
        if (err.palError != PAL_OK)
            Logger(1, "DepotSetDir error %d releasing entry lock\n", err.palError);
    }

    if (PalList1Create(&handle->entries, 256, 256) != 0) {
        Logger(0, "DepotNew exit.  Error creating depot entry list\n");
        return fail(PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 0), nullptr);
    }
    handle->storageLimit = storageLimit;
    handle->availableSpace = storageLimit;
    (void)DepotSetDir_internal(handle, directory);  // a missing directory is not fatal

    if (!handle->strictLocks) {
        err = SemPost(&handle->depotLock);
        if (err.palError != PAL_OK)
            Logger(1, "DepotSetDir error %d releasing depot lock\n", err.palError);
    }

    *out = handle;
    trace.Exit();
    // A tolerated semaphore failure is the result, and the record, of a
    // call that still opened the handle.
    return leave(entryStatus, "entry.lk");
}

PalError DepotGetLastError(const PalChar** file) noexcept {
    if (file != nullptr) *file = lastFailure.file;
    return lastFailure.error;
}

PalError DepotFree(DepotHandle* handle) noexcept {
    DepotTrace trace("DepotFree");
    if (handle == nullptr) {
        Logger(0, "DepotFree exit.  Invalid parameter\n");
        return Ok();
    }
    DepotLock depot(&handle->depotLock, trace.op());
    PalError err = trace.TakeOrContinue(depot, "DepotFree continue. Ignore WAIT_TIMEOUT\n");
    if (err.palError != PAL_OK) return err;

    PalIterator it{};
    err = PalList1IteratorCreate(handle->entries, &it);
    if (err.palError != PAL_OK) {
        depot.Release();
        Logger(0, "DepotFree exit.  Error %d creating iterator for depot entries\n", err.palError);
        return err;
    }
    // The list is destroyed whole afterwards, so records are freed without
    // being taken off it one by one.
    PalInt32 descriptor = -1;
    void* value = nullptr;
    while ((err = PalList1IteratorNext(&it, &descriptor, &value)).palError == PAL_OK)
        (void)FreeRecordLocked(handle, static_cast<DepotEntry*>(value), false);
    PalList1IteratorEnd(&it);
    if (err.palError != PAL_ERR_NO_MORE) {
        depot.Release();
        Logger(0, "DepotFree exit.  Error %d interating depot entries\n", err.palError);
        return err;
    }
    PalList1Destroy(&handle->entries);
    PalMemoryFree(handle->directory);
    handle->directory = nullptr;

    if (!handle->strictLocks) {
        PalError post = SemPost(&handle->entryLock);
        if (post.palError != PAL_OK)
            Logger(1, "DepotFree error %d releasing lock\n", post.palError);
    }
    SemClose(&handle->entryLock);
    depot.Release();
    SemClose(&handle->depotLock);
    PalMemoryFree(handle);
    return trace.Exit(err);  // the end of the record walk: PAL_ERR_NO_MORE
}

}  // extern "C"
