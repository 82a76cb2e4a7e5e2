// datafile.cpp - a Depot entry's data file: opening it for reading or writing
// under the entry lock, and the two checks a receiver makes before resuming a
// partly written segment (the modification stamp and the checkpoint offset).
//
// lastWriteTime, set by every open for writing, is the modification stamp: a
// writer remembers the value its own open set and compares it later to learn
// whether another writer has opened the file since.

#include <ctime>

#include "depot/depot_internal.h"
#include "fanout/palfile.h"

using namespace fanout;

namespace {

// Never through a link and never anything but a regular file, so that no
// open escapes the depot or blocks on a FIFO; not inherited across exec.
constexpr PalInt32 kSafe = PAL_OPEN_NOFOLLOW | PAL_OPEN_REGULAR | PAL_OPEN_CLOEXEC;
constexpr PalInt32 kDataRead = PAL_OPEN_BINARY | PAL_OPEN_RDONLY | kSafe;
// Read-write, never creating: the data file exists from the addition on.
constexpr PalInt32 kDataWrite = PAL_OPEN_BINARY | PAL_OPEN_RDWR | kSafe;
constexpr PalInt32 kDataWriteTruncate = kDataWrite | PAL_OPEN_TRUNCATE;

// A record whose location is not its own data file inside the depot is
// damaged: its location is refused like a file that cannot be opened.
PalError CheckLocation(DepotHandle* handle, DepotEntry* entry) noexcept {
    if (LocationIsOwn(handle, entry->location, entry->entryFilePath)) return Ok();
    return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 3);
}

PalInt32 Now() noexcept {
    return static_cast<PalInt32>(std::time(nullptr));
}

// The two opens of a data file for `trace`'s operation: under the entry lock
// the file is opened with `flags`, the open counted in the record and the
// record written back (a failed write is only logged). `writeTime` is the
// time of an open for writing (it stamps lastWriteTime too); null for a read,
// whose time is taken once the lock is held.
PalError OpenData(const DepotTrace& trace, DepotHandle* handle, DepotEntry* entry,
                  PalFileHandle* file, PalInt32 flags, const PalInt32* writeTime) noexcept {
    file->handle = nullptr;
    DepotLock lock(&handle->entryLock, trace.op());
    PalError err = trace.Take(lock);
    if (err.palError != PAL_OK) return err;
    PalFileHandle opened{};
    err = CheckLocation(handle, entry);
    if (err.palError == PAL_OK) err = PalFileOpen(&opened, entry->location, flags);
    if (err.palError != PAL_OK) {
        CloseQuietly(&opened);  // the layer hands back a cell even for a failed open
        lock.Release();
        Logger(0, "%s exit.  Error %d opening segment data file\n", trace.op(), err.palError);
        return err;
    }
    entry->openCount += 1;
    if (writeTime != nullptr) {
        entry->writeCount += 1;
        entry->lastAccessTime = *writeTime;
        entry->lastWriteTime = *writeTime;
    } else {
        entry->lastAccessTime = Now();
    }
    PalError saved = SyncSharedCounters(entry);
    if (saved.palError == PAL_OK) saved = DepotSaveEntry_internal(handle, entry);
    if (saved.palError != PAL_OK)
        Logger(1, "%s error %d updating segment attributes\n", trace.op(), saved.palError);
    lock.Release();
    *file = opened;
    return trace.Exit(Ok());
}

}  // namespace

extern "C" {

PalError DepotFileOpenForWrite(DepotHandle* handle, DepotEntry* entry, PalFileHandle* file,
                               PalBool truncate) noexcept {
    PalInt32 now = Now();  // read first: it becomes both times
    DepotTrace trace("DepotFileOpenForWrite");
    if (handle == nullptr || entry == nullptr || file == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    return OpenData(trace, handle, entry, file, truncate ? kDataWriteTruncate : kDataWrite, &now);
}

PalError DepotFileOpenForRead(DepotHandle* handle, DepotEntry* entry,
                              PalFileHandle* file) noexcept {
    DepotTrace trace("DepotFileOpenForRead");
    if (handle == nullptr || entry == nullptr || file == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    return OpenData(trace, handle, entry, file, kDataRead, nullptr);
}

PalBool DepotEntryModified(DepotHandle* handle, const PalChar* id, const PalChar* version,
                           PalInt32 stamp) noexcept {
    DepotTrace trace("DepotEntryModified");
    DepotEntry* entry = DepotGetEntry(handle, id, version);
    if (entry == nullptr) return trace.Exit(PAL_FALSE);
    DepotLock lock(&handle->entryLock, trace.op());
    if (trace.Take(lock).palError != PAL_OK) return PAL_FALSE;
    if (entry->lastWriteTime != stamp) {
        if (handle->strictLocks) {
            // Strict mode: no unit of DepotNew would let this process take
            // the lock again, so it is given back here.
            lock.Release();
            return trace.Exit(PAL_TRUE);
        }
        // Answered with the entry lock still held and no exit trace: the
        // system gives the lock back when this process ends. This is the
        // store's established contract and callers rely on it.
        lock.Keep();
        return PAL_TRUE;
    }
    lock.Release();
    return trace.Exit(PAL_FALSE);
}

PalError DepotSetCheckpointOffset(DepotHandle* handle, const PalChar* id, const PalChar* version,
                                  PalInt32 stamp, PalUint64* offset) noexcept {
    DepotTrace trace("DepotSetCheckpointOffset");
    DepotEntry* entry = DepotGetEntry(handle, id, version);
    if (entry == nullptr) return trace.Exit(PalErrorCreate(PAL_ERR_NO_ENTRY, 0, 0));
    PalInt32 lastWrite = 0;
    {
        DepotLock lock(&handle->entryLock, trace.op());
        if (PalError err = trace.Take(lock); err.palError != PAL_OK) return err;
        lastWrite = entry->lastWriteTime;
    }
    PalError result = Ok();
    if (lastWrite == stamp) {
        // Nobody else opened the file for writing: resume after what is on disk.
        PalUint64 size = 0;
        result = DepotEntryGetFileSize(handle, entry, &size);
        if (result.palError == PAL_OK && offset != nullptr) *offset = size;
    }
    return trace.Exit(result);
}

}  // extern "C"
