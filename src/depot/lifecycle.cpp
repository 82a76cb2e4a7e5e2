// lifecycle.cpp - how a Depot entry comes and goes: adding it with a fresh
// sequence number, writing its entry file, changing its state, completing and
// unregistering registrations, removing its files and freeing its record.
//
// Deletion order is fixed: the data file first, the entry file only once the
// data file is gone. Records are taken off the handle's list by address before
// they are freed, and are freed exactly once.

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

#include "depot/depot_internal.h"
#include "fanout/palfile.h"
#include "fanout/palmemory.h"

namespace fanout {
namespace {

// Create if absent, write only, keep contents; never through a link, never
// anything but a regular file.
constexpr PalInt32 kCreateWriteOnly =
    PAL_OPEN_CREATE | PAL_OPEN_WRONLY | PAL_OPEN_NOFOLLOW | PAL_OPEN_REGULAR | PAL_OPEN_CLOEXEC;
// A new entry file: created exclusively, read-write so that the writer lock
// is taken on the same open. A new data file: created exclusively.
constexpr PalInt32 kCreateEntryFile =
    PAL_OPEN_RDWR | PAL_OPEN_CREATE | PAL_OPEN_EXCLUSIVE | PAL_OPEN_NOFOLLOW | PAL_OPEN_CLOEXEC;
constexpr PalInt32 kCreateDataFile =
    PAL_OPEN_WRONLY | PAL_OPEN_CREATE | PAL_OPEN_EXCLUSIVE | PAL_OPEN_NOFOLLOW | PAL_OPEN_CLOEXEC;
// Flushing the data file before completion: read only is enough for fsync.
constexpr PalInt32 kFlushData =
    PAL_OPEN_RDONLY | PAL_OPEN_NOFOLLOW | PAL_OPEN_REGULAR | PAL_OPEN_CLOEXEC;
// How many sequence numbers an addition tries when names are taken by files
// no entry file of the bucket accounts for (orphans, links, FIFOs).
constexpr int kCreateAttempts = 1024;

bool ListContains(PalList1* list, PalInt32 number) noexcept {
    if (list == nullptr) return false;
    PalIterator it{};
    if (PalList1IteratorCreate(list, &it).palError != PAL_OK) return false;
    bool found = false;
    PalInt32 descriptor = -1;
    void* value = nullptr;
    while (!found && PalList1IteratorNext(&it, &descriptor, &value).palError == PAL_OK)
        found = reinterpret_cast<std::intptr_t>(value) == number;
    PalList1IteratorEnd(&it);
    return found;
}

// The smallest number from `from` on not used by an entry file of the bucket.
PalInt32 ChooseSequence(PalList1* used, PalInt32 from) noexcept {
    PalInt32 n = from;
    while (n < INT32_MAX && ListContains(used, n)) ++n;
    return n;
}

enum class Created { kDone, kTaken, kFailed };

// Creates the entry's two files under the names the record holds, both
// exclusively: the entry file, locked for the writer and filled with the
// record's text, then an empty data file. kTaken when either name exists
// already (nothing is left behind then, nor on a failure); on success the
// record keeps the writer lock. Every answer but kDone leaves the failure,
// and the file it concerns, as the thread's last failure.
// REQUIRES: entry lock held.
Created CreateEntryFiles(DepotHandle* handle, DepotEntry* entry) noexcept {
    PalChar* text = nullptr;
    PalUint32 length = 0;
    PalError err = DepotEntrySetProperties(handle, entry, &text, &length);
    if (err.palError != PAL_OK) {
        RecordFailure(err, entry->entryFilePath);
        return Created::kFailed;
    }
    PalFileHandle file{};
    err = PalFileOpen(&file, entry->entryFilePath, kCreateEntryFile);
    if (err.palError != PAL_OK) {
        CloseQuietly(&file);
        PalMemoryFree(text);
        RecordFailure(err, entry->entryFilePath);
        return err.nativeError == EEXIST ? Created::kTaken : Created::kFailed;
    }
    // Waits only for a liveness probe's moment of shared lock.
    err = PalFileLock(file, PAL_TRUE, PAL_TRUE);
    if (err.palError == PAL_OK) err = WriteWhole(file, text, length);
    PalMemoryFree(text);
    const PalChar* failed = entry->entryFilePath;
    PalFileHandle data{};
    if (err.palError == PAL_OK) {
        err = PalFileOpen(&data, entry->location, kCreateDataFile);
        CloseQuietly(&data);
        failed = entry->location;
    }
    if (err.palError != PAL_OK) {
        // The entry file is ours (created exclusively): a full disk or a
        // taken data-file name leaves nothing behind.
        RecordFailure(err, failed);
        CloseQuietly(&file);
        (void)PalFileRemoveRegular(entry->entryFilePath);
        return err.nativeError == EEXIST ? Created::kTaken : Created::kFailed;
    }
    entry->writerLock = file;
    return Created::kDone;
}

PalUint8* CopyBytes(const PalUint8* bytes, PalUint32 length) noexcept {
    if (length == 0 || length > static_cast<PalUint32>(INT32_MAX)) return nullptr;
    auto* copy = static_cast<PalUint8*>(PalMemoryMalloc(static_cast<PalInt32>(length)));
    if (copy != nullptr) std::memcpy(copy, bytes, length);
    return copy;
}

// A new in-progress record for the key with its two paths, or null.
DepotEntry* BuildRecord(DepotHandle* handle, const PalChar* id, const PalChar* version,
                        const PalUint8* properties, PalUint32 propertiesLength,
                        PalInt32 sequence) noexcept {
    PalChar* bucket = DepotFindBucket(id, version);
    if (bucket == nullptr) return nullptr;
    DepotEntry* entry = DepotEntryNew();
    bool ok = entry != nullptr;
    if (ok) {
        entry->entryFilePath = BuildEntryPath(handle->directory, bucket, sequence, "xml");
        ok = entry->entryFilePath != nullptr;
    }
    if (ok) ok = (entry->id = PalStringDup(id)) != nullptr;
    if (ok) ok = (entry->version = PalStringDup(version)) != nullptr;
    if (ok && properties != nullptr && propertiesLength != 0) {
        ok = (entry->properties = CopyBytes(properties, propertiesLength)) != nullptr;
        if (ok) entry->propertiesLength = propertiesLength;
    }
    if (ok) {
        entry->location = BuildEntryPath(handle->directory, bucket, sequence, "dat");
        ok = entry->location != nullptr;
    }
    PalMemoryFree(bucket);
    if (!ok) {
        FreeRecordFields(entry);
        return nullptr;
    }
    return entry;
}

// Forces the entry's data file and the depot directory out to the device.
PalError FlushData(DepotHandle* handle, DepotEntry* entry) noexcept {
    if (!LocationIsOwn(handle, entry->location, entry->entryFilePath))
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 3);
    PalFileHandle data{};
    PalError err = PalFileOpen(&data, entry->location, kFlushData);
    if (err.palError == PAL_OK) err = PalFileFlushBuffers(data);
    CloseQuietly(&data);
    if (err.palError == PAL_OK) err = PalDirFlush(handle->directory);
    return err;
}

// Sets the state and writes the record when the state changes, re-reading the
// shared counters first unless the caller just did (and changed them).
// REQUIRES: entry lock held.
PalError ChangeStateLocked(DepotHandle* handle, DepotEntry* entry, PalInt32 state,
                           bool sync) noexcept {
    if (entry->state == state) return Ok();
    if (sync) {
        PalError synced = SyncSharedCounters(entry);
        if (synced.palError != PAL_OK) return synced;
    }
    entry->state = state;
    return DepotSaveEntry_internal(handle, entry);
}

// Deletes the entry's files when it has no references or `force` is set: the
// data file first, the entry file only once the data file is gone (so that a
// later scan still finds any data left behind). With `sync` the count is
// re-read from the entry file first; a path that now holds another key is
// left alone. Returns the last deletion's status. REQUIRES: entry lock held.
PalError RemoveFilesLocked(DepotHandle* handle, DepotEntry* entry, PalBool force,
                           bool sync) noexcept {
    if (sync) {
        PalError synced = SyncSharedCounters(entry);
        if (synced.palError != PAL_OK && synced.nativeError == 0) return synced;
    }
    PalError result = Ok();
    if (entry->referenceCount != 0 && !force) return result;
    // A live writer's entry is untouchable by any other record.
    if (entry->writerLock.handle == nullptr && WriterAlive(entry))
        return PalErrorCreate(PAL_ERR_BUSY, 0, 0);
    // A location that is not this entry's own data file is never removed,
    // nor the entry file that names it (it is damaged; the tool's check
    // repairs it).
    if (!LocationIsOwn(handle, entry->location, entry->entryFilePath)) {
        Logger(1, "DepotRemoveEntry_internal entry file %s names a location outside the depot\n",
               OrNull(entry->entryFilePath));
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 3);
    }
    DetachRecord(handle, entry);
    result = PalFileRemoveRegular(entry->location);
    if (result.palError != PAL_OK)
        Logger(1, "DepotRemoveEntry_internal exit.  Error %d removing file %s\n", result.palError,
               OrNull(entry->location));
    PalFileInfo info;
    if (PalFileGetInfo(entry->location, &info).palError != PAL_OK) {
        result = PalFileRemoveRegular(entry->entryFilePath);
        if (result.palError != PAL_OK)
            Logger(1, "DepotRemoveEntry_internal exit.  Error %d removing file %s\n",
                   result.palError, OrNull(entry->entryFilePath));
    }
    return result;
}

}  // namespace

PalError SaveEntryFile(DepotHandle* handle, DepotEntry* entry, bool flush) noexcept {
    DepotTrace trace("DepotSaveEntry_internal");
    if (entry == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    PalChar* text = nullptr;
    PalUint32 length = 0;
    PalError err = DepotEntrySetProperties(handle, entry, &text, &length);
    if (err.palError != PAL_OK) return err;
    // Written in place without truncation: a shorter text leaves the tail of
    // an older one after its zero byte, where no reader looks.
    PalFileHandle file{};
    err = PalFileOpen(&file, entry->entryFilePath, kCreateWriteOnly);
    if (err.palError == PAL_OK) err = WriteWhole(file, text, length);
    if (err.palError == PAL_OK && flush) err = PalFileFlushBuffers(file);
    PalMemoryFree(text);
    if (file.handle != nullptr) {
        PalError closed = PalFileClose(file);
        if (err.palError == PAL_OK) err = closed;
    }
    if (err.palError != PAL_OK) return err;
    return trace.Exit(err);
}

void DetachRecord(DepotHandle* handle, DepotEntry* entry) noexcept {
    if (handle == nullptr || handle->entries == nullptr || entry == nullptr) return;
    PalIterator it{};
    if (PalList1IteratorCreate(handle->entries, &it).palError != PAL_OK) return;
    PalInt32 descriptor = -1;
    PalInt32 match = -1;
    void* value = nullptr;
    while (PalList1IteratorNext(&it, &descriptor, &value).palError == PAL_OK) {
        if (value == entry) {
            match = descriptor;
            break;
        }
    }
    PalList1IteratorEnd(&it);
    if (match >= 0) (void)PalList1Remove(handle->entries, match);
}

PalError FreeRecordLocked(DepotHandle* handle, DepotEntry* entry, bool detach) noexcept {
    DepotTrace trace("DepotFreeEntry_internal");
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    if (entry == nullptr) return trace.Exit(Ok());
    DepotLock lock(&handle->entryLock, trace.op());
    if (PalError err = trace.Take(lock); err.palError != PAL_OK) return err;
    if (detach) DetachRecord(handle, entry);
    FreeRecordFields(entry);
    lock.Release();
    return trace.Exit(Ok());
}

}  // namespace fanout

using namespace fanout;

extern "C" {

DepotEntry* DepotAddEntry(DepotHandle* handle, const PalChar* id, const PalChar* version,
                          const PalUint8* properties, PalUint32 propertiesLength) noexcept {
    DepotTrace trace("DepotAddEntry");
    // Every null answer leaves its reason as the thread's last failure
    // (DepotGetLastError); the steps are listed in depot.h.
    if (handle == nullptr || id == nullptr || version == nullptr) {
        RecordFailure(PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0));
        return nullptr;
    }
    if (HoldsTagText(id) || HoldsTagText(version)) {
        Logger(1, "DepotAddEntry refused a key holding tag text\n");
        RecordFailure(PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 3));
        return nullptr;
    }
    DepotLock depot(&handle->depotLock, trace.op());
    PalError err = trace.TakeOrContinue(depot, "DepotAddEntry continue. Ignore WAIT_TIMEOUT\n");
    if (err.palError != PAL_OK) {
        RecordFailure(err, "depot.lk");
        return nullptr;
    }

    PalList1* used = nullptr;
    DepotEntry* existing = DepotGetEntry_internal(handle, id, version, &used);
    if (existing != nullptr && existing->state == DEPOT_STATE_IN_PROGRESS &&
        !WriterAlive(existing)) {
        // Its writer died or gave it up: the entry is stale and is replaced.
        Logger(1, "DepotAddEntry replacing the stale in-progress entry %s\n",
               OrNull(existing->entryFilePath));
        PalList1Destroy(&used);
        (void)DepotRemoveEntry_internal(handle, existing, PAL_TRUE);
        existing = DepotGetEntry_internal(handle, id, version, &used);
    }
    if (existing != nullptr) {
        PalList1Destroy(&used);
        if (existing->state == DEPOT_STATE_COMPLETE) {
            depot.Release();
            RecordFailure(Ok());
            return trace.Exit(existing);  // a complete segment is reused, not added twice
        }
        // The record stays cached in the handle's list; DepotFree releases it.
        Logger(1, "DepotAddEntry unable to use entry due to in-progress operations\n");
        RecordFailure(PalErrorCreate(PAL_ERR_BUSY, 0, 0), existing->entryFilePath);
        return nullptr;
    }

    // A name is taken only by creating it: a number that the bucket's entry
    // files leave free may still name an orphaned data file, a link or a
    // FIFO, and the next free number is tried then.
    DepotEntry* entry = nullptr;
    {
        // Traced under the name of the save it guards.
        DepotLock lock(&handle->entryLock, "DepotSaveEntry");
        err = TakeLock(lock, "DepotSaveEntry");
        if (err.palError != PAL_OK) {
            PalList1Destroy(&used);
            RecordFailure(err, "entry.lk");
            return nullptr;
        }
        PalInt32 sequence = ChooseSequence(used, 0);
        for (int attempt = 0; attempt < kCreateAttempts && sequence < INT32_MAX; ++attempt) {
            entry = BuildRecord(handle, id, version, properties, propertiesLength, sequence);
            if (entry == nullptr) {
                RecordFailure(PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 0));
                break;
            }
            Created created = CreateEntryFiles(handle, entry);
            if (created == Created::kDone) break;
            FreeRecordFields(entry);
            entry = nullptr;
            if (created == Created::kFailed) break;
            sequence = ChooseSequence(used, sequence + 1);
        }
    }
    PalList1Destroy(&used);
    if (entry == nullptr) return nullptr;  // the failure is recorded
    if (PalList1Add(handle->entries, entry) < 0) {
        (void)PalFileRemoveRegular(entry->location);
        (void)PalFileRemoveRegular(entry->entryFilePath);
        FreeRecordFields(entry);
        RecordFailure(PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 0));
        return nullptr;
    }
    depot.Release();
    RecordFailure(Ok());
    return trace.Exit(entry);
}

PalError DepotSaveEntry_internal(DepotHandle* handle, DepotEntry* entry) noexcept {
    return SaveEntryFile(handle, entry, false);
}

PalError DepotSaveEntry(DepotHandle* handle, DepotEntry* entry) noexcept {
    DepotTrace trace("DepotSaveEntry");
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    return RunLocked(trace, &handle->entryLock,
                     [&]() noexcept { return DepotSaveEntry_internal(handle, entry); });
}

PalError DepotEntryChangeState(DepotHandle* handle, DepotEntry* entry, PalInt32 state) noexcept {
    DepotTrace trace("DepotEntryChangeState");
    if (handle == nullptr || entry == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    return RunLocked(trace, &handle->entryLock,
                     [&]() noexcept { return ChangeStateLocked(handle, entry, state, true); });
}

PalError DepotCompleteEntry(DepotHandle* handle, DepotEntry* entry, PalInt32 deadline) noexcept {
    DepotTrace trace("DepotCompleteEntry");
    if (handle == nullptr || entry == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    // The data and the names of both files reach the device before the entry
    // says complete; done before the entry lock is taken, as a large data
    // file takes a while. A failure completes nothing: the record is
    // released and the entry stays in progress, stale once unlocked.
    PalError flushed = FlushData(handle, entry);
    if (flushed.palError != PAL_OK) {
        Logger(1, "DepotCompleteEntry error %d(%d) flushing segment data\n", flushed.palError,
               flushed.nativeError);
        (void)DepotFreeEntry(handle, entry);
        return trace.Exit(flushed);
    }
    DepotLock lock(&handle->entryLock, trace.op());
    PalError err =
        trace.TakeOrContinue(lock, "DepotCompleteEntry entry continue. Ignore WAIT_TIMEOUT\n");
    if (err.palError != PAL_OK) return err;
    // A record whose entry was deleted meanwhile is not written back.
    PalError result = SyncSharedCounters(entry);
    if (result.palError == PAL_OK) {
        entry->state = DEPOT_STATE_COMPLETE;
        // The deadline only moves later (compared as unsigned seconds).
        if (static_cast<PalUint32>(entry->deadline) < static_cast<PalUint32>(deadline))
            entry->deadline = deadline;
        entry->referenceCount =
            static_cast<PalInt32>(static_cast<PalUint32>(entry->referenceCount) + 1u);
        result = SaveEntryFile(handle, entry, true);
    }
    lock.Release();
    (void)DepotFreeEntry(handle, entry);
    return trace.Exit(result);
}

PalError DepotUnregisterEntry(DepotHandle* handle, DepotEntry* entry, PalBool force) noexcept {
    DepotTrace trace("DepotUnregisterEntry");
    if (handle == nullptr || entry == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    // Its two failure lines name the lock and carry no system error.
    DepotLock depot(&handle->depotLock, trace.op(), "depot lock");
    PalError err = depot.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotUnregisterEntry exit.  Error %d obtaining depot lock\n", err.palError);
        return err;
    }
    DepotLock lock(&handle->entryLock, trace.op(), "entry lock");
    err = lock.Acquire();
    if (err.palError != PAL_OK) {
        depot.Release();
        Logger(0, "DepotUnregisterEntry exit.  Error %d obtaining entry lock\n", err.palError);
        return err;
    }
    err = SyncSharedCounters(entry);
    if (err.palError != PAL_OK) {
        // Deleted by another process meanwhile: nothing is left to unregister.
        lock.Release();
        (void)FreeRecordLocked(handle, entry, true);
        depot.Release();
        return trace.Exit(err);
    }
    entry->referenceCount =
        static_cast<PalInt32>(static_cast<PalUint32>(entry->referenceCount) - 1u);
    PalError result = Ok();
    if (entry->referenceCount > 0) {
        // Back to complete, written in the same hold of the entry lock as the
        // decrement, so no other registrant's change slips in between.
        DepotTrace change("DepotEntryChangeState");
        (void)ChangeStateLocked(handle, entry, DEPOT_STATE_COMPLETE, false);
        change.Exit();
        lock.Release();
        (void)FreeRecordLocked(handle, entry, true);
    } else {
        // Deleted in the same hold of the entry lock as the decrement: a
        // completion slipping in between would otherwise be lost with the files.
        DepotTrace remove("DepotRemoveEntry_internal");
        result = RemoveFilesLocked(handle, entry, force, false);
        lock.Release();
        (void)FreeRecordLocked(handle, entry, true);
        remove.Exit();
    }
    depot.Release();
    return trace.Exit(result);
}

PalError DepotRemoveEntry_internal(DepotHandle* handle, DepotEntry* entry, PalBool force) noexcept {
    DepotTrace trace("DepotRemoveEntry_internal");
    if (handle == nullptr || entry == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock lock(&handle->entryLock, trace.op());
    if (PalError err = trace.Take(lock); err.palError != PAL_OK) return err;
    PalError result = RemoveFilesLocked(handle, entry, force, true);
    lock.Release();
    (void)FreeRecordLocked(handle, entry, true);
    return trace.Exit(result);
}

PalError DepotRemoveEntry(DepotHandle* handle, DepotEntry* entry, PalBool force) noexcept {
    DepotTrace trace("DepotRemoveEntry");
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    return RunLocked(trace, &handle->depotLock,
                     [&]() noexcept { return DepotRemoveEntry_internal(handle, entry, force); });
}

PalBool DepotEntryWriterAlive(DepotHandle* handle, DepotEntry* entry) noexcept {
    DepotTrace trace("DepotEntryWriterAlive");
    bool alive = handle != nullptr && WriterAlive(entry);
    return trace.Exit(alive ? PAL_TRUE : PAL_FALSE);
}

PalError DepotFreeEntry_internal(DepotHandle* handle, DepotEntry* entry) noexcept {
    return FreeRecordLocked(handle, entry, true);
}

PalError DepotFreeEntry(DepotHandle* handle, DepotEntry* entry) noexcept {
    DepotTrace trace("DepotFreeEntry");
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock depot(&handle->depotLock, trace.op());
    // The tolerated failure is traced under DepotFree's name.
    PalError err = trace.TakeOrContinue(depot, "DepotFree continue. Ignore WAIT_TIMEOUT\n");
    if (err.palError != PAL_OK) return err;
    // Found by address, not by key: another record with the same key may be
    // cached beside this one.
    PalError result = FreeRecordLocked(handle, entry, true);
    depot.Release();
    return trace.Exit(result);
}

PalError DepotEntryFree(DepotHandle* handle, DepotEntry* entry) noexcept {
    DepotTrace trace("DepotEntryFree");
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock lock(&handle->entryLock, trace.op());
    if (PalError err = trace.Take(lock); err.palError != PAL_OK) return err;
    if (entry != nullptr) {
        // Meant for records never added to a list; the properties are the
        // caller's to release.
        CloseQuietly(&entry->writerLock);
        PalMemoryFree(entry->id);
        PalMemoryFree(entry->version);
        PalMemoryFree(entry->entryFilePath);
        PalMemoryFree(entry->location);
        PalMemoryFree(entry);
    }
    lock.Release();
    return trace.Exit(Ok());
}

}  // extern "C"
