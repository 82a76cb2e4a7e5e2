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
constexpr PalInt32 kDataRead = 0x8001 | kSafe;           // read only
constexpr PalInt32 kDataWrite = 0x8004 | kSafe;          // read-write, no create, no truncate
constexpr PalInt32 kDataWriteTruncate = 0x8204 | kSafe;  // read-write, truncate

// A record whose location is not its own data file inside the depot is
// damaged: its location is refused like a file that cannot be opened.
PalError CheckLocation(DepotHandle* handle, DepotEntry* entry) noexcept {
    if (LocationIsOwn(handle, entry->location, entry->entryFilePath)) return Ok();
    return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 3);
}

PalInt32 Now() noexcept {
    return static_cast<PalInt32>(std::time(nullptr));
}

}  // namespace

extern "C" {

PalError DepotFileOpenForWrite(DepotHandle* handle, DepotEntry* entry, PalFileHandle* file,
                               PalBool truncate) noexcept {
    PalInt32 now = Now();  // read first: it becomes both times
    Logger(3, "DepotFileOpenForWrite entry\n");
    if (handle == nullptr || entry == nullptr || file == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    file->handle = nullptr;
    DepotLock lock(&handle->entryLock, "DepotFileOpenForWrite error %d releasing lock\n");
    PalError err = lock.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotFileOpenForWrite exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return err;
    }
    PalFileHandle opened{};
    err = CheckLocation(handle, entry);
    if (err.palError == PAL_OK)
        err = PalFileOpen(&opened, entry->location, truncate ? kDataWriteTruncate : kDataWrite);
    if (err.palError != PAL_OK) {
        CloseQuietly(&opened);  // the layer hands back a cell even for a failed open
        lock.Release();
        Logger(0, "DepotFileOpenForWrite exit.  Error %d opening segment data file\n",
               err.palError);
        return err;
    }
    entry->openCount += 1;
    entry->writeCount += 1;
    entry->lastAccessTime = now;
    entry->lastWriteTime = now;
    PalError saved = SyncSharedCounters(entry);
    if (saved.palError == PAL_OK) saved = DepotSaveEntry_internal(handle, entry);
    if (saved.palError != PAL_OK)
        Logger(1, "DepotFileOpenForWrite error %d updating segment attributes\n", saved.palError);
    lock.Release();
    *file = opened;
    Logger(3, "DepotFileOpenForWrite exit\n");
    return Ok();
}

PalError DepotFileOpenForRead(DepotHandle* handle, DepotEntry* entry,
                              PalFileHandle* file) noexcept {
    Logger(3, "DepotFileOpenForRead entry\n");
    if (handle == nullptr || entry == nullptr || file == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    file->handle = nullptr;
    DepotLock lock(&handle->entryLock, "DepotFileOpenForRead error %d releasing lock\n");
    PalError err = lock.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotFileOpenForRead exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return err;
    }
    PalFileHandle opened{};
    err = CheckLocation(handle, entry);
    if (err.palError == PAL_OK) err = PalFileOpen(&opened, entry->location, kDataRead);
    if (err.palError != PAL_OK) {
        CloseQuietly(&opened);
        lock.Release();
        Logger(0, "DepotFileOpenForRead exit.  Error %d opening segment data file\n", err.palError);
        return err;
    }
    entry->openCount += 1;
    entry->lastAccessTime = Now();
    PalError saved = SyncSharedCounters(entry);
    if (saved.palError == PAL_OK) saved = DepotSaveEntry_internal(handle, entry);
    if (saved.palError != PAL_OK)
        Logger(1, "DepotFileOpenForRead error %d updating segment attributes\n", saved.palError);
    lock.Release();
    *file = opened;
    Logger(3, "DepotFileOpenForRead exit\n");
    return Ok();
}

PalBool DepotEntryModified(DepotHandle* handle, const PalChar* id, const PalChar* version,
                           PalInt32 stamp) noexcept {
    Logger(3, "DepotEntryModified entry\n");
    DepotEntry* entry = DepotGetEntry(handle, id, version);
    if (entry == nullptr) {
        Logger(3, "DepotEntryModified exit\n");
        return PAL_FALSE;
    }
    DepotLock lock(&handle->entryLock, "DepotEntryModified error %d releasing lock\n");
    PalError err = lock.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotEntryModified exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return PAL_FALSE;
    }
    if (entry->lastWriteTime != stamp) {
        if (handle->strictLocks) {
            // Strict mode: no unit of DepotNew would let this process take
            // the lock again, so it is given back here.
            lock.Release();
            Logger(3, "DepotEntryModified exit\n");
            return PAL_TRUE;
        }
        // Answered with the entry lock still held and no exit trace: the
        // system gives the lock back when this process ends. This is the
        // store's established contract and callers rely on it.
        lock.Keep();
        return PAL_TRUE;
    }
    lock.Release();
    Logger(3, "DepotEntryModified exit\n");
    return PAL_FALSE;
}

PalError DepotSetCheckpointOffset(DepotHandle* handle, const PalChar* id, const PalChar* version,
                                  PalInt32 stamp, PalUint64* offset) noexcept {
    Logger(3, "DepotSetCheckpointOffset entry\n");
    DepotEntry* entry = DepotGetEntry(handle, id, version);
    if (entry == nullptr) {
        Logger(3, "DepotSetCheckpointOffset exit\n");
        return PalErrorCreate(PAL_ERR_NO_ENTRY, 0, 0);
    }
    PalInt32 lastWrite = 0;
    {
        DepotLock lock(&handle->entryLock, "DepotSetCheckpointOffset error %d releasing lock\n");
        PalError err = lock.Acquire();
        if (err.palError != PAL_OK) {
            Logger(0, "DepotSetCheckpointOffset exit.  Error %d(%d) obtaining lock\n", err.palError,
                   err.nativeError);
            return err;
        }
        lastWrite = entry->lastWriteTime;
    }
    PalError result = Ok();
    if (lastWrite == stamp) {
        // Nobody else opened the file for writing: resume after what is on disk.
        PalUint64 size = 0;
        result = DepotEntryGetFileSize(handle, entry, &size);
        if (result.palError == PAL_OK && offset != nullptr) *offset = size;
    }
    Logger(3, "DepotSetCheckpointOffset exit\n");
    return result;
}

}  // extern "C"
