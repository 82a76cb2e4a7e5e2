// lifecycle.cpp - how a Depot entry comes and goes: adding it with a fresh
// sequence number, writing its entry file, changing its state, completing and
// unregistering registrations, removing its files and freeing its record.
//
// Deletion order is fixed: the data file first, the entry file only once the
// data file is gone. Records are taken off the handle's list by address before
// they are freed, and are freed exactly once.

#include <cstdint>
#include <cstring>

#include "depot/depot_internal.h"
#include "fanout/palfile.h"
#include "fanout/palmemory.h"

namespace fanout {
namespace {

constexpr PalInt32 kCreateWriteOnly = 0x102;  // create if absent, write only, keep contents

const char* OrNull(const char* s) noexcept {
    return s != nullptr ? s : "(null)";
}

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

// The smallest non-negative number not used by an entry file of the bucket.
PalInt32 ChooseSequence(PalList1* used) noexcept {
    PalInt32 n = 0;
    while (ListContains(used, n)) ++n;
    return n;
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
    DetachRecord(handle, entry);
    result = PalFileRemove(entry->location);
    if (result.palError != PAL_OK)
        Logger(1, "DepotRemoveEntry_internal exit.  Error %d removing file %s\n", result.palError,
               OrNull(entry->location));
    PalFileInfo info;
    if (PalFileGetInfo(entry->location, &info).palError != PAL_OK) {
        result = PalFileRemove(entry->entryFilePath);
        if (result.palError != PAL_OK)
            Logger(1, "DepotRemoveEntry_internal exit.  Error %d removing file %s\n",
                   result.palError, OrNull(entry->entryFilePath));
    }
    return result;
}

}  // namespace

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
    Logger(3, "DepotFreeEntry_internal entry\n");
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    if (entry == nullptr) {
        Logger(3, "DepotFreeEntry_internal exit\n");
        return Ok();
    }
    DepotLock lock(&handle->entryLock, "DepotFreeEntry_internal error %d releasing lock\n");
    PalError err = lock.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotFreeEntry_internal exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return err;
    }
    if (detach) DetachRecord(handle, entry);
    FreeRecordFields(entry);
    lock.Release();
    Logger(3, "DepotFreeEntry_internal exit\n");
    return Ok();
}

}  // namespace fanout

using namespace fanout;

extern "C" {

DepotEntry* DepotAddEntry(DepotHandle* handle, const PalChar* id, const PalChar* version,
                          const PalUint8* properties, PalUint32 propertiesLength) noexcept {
    Logger(3, "DepotAddEntry entry\n");
    if (handle == nullptr || id == nullptr || version == nullptr) return nullptr;
    DepotLock depot(&handle->depotLock, "DepotAddEntry error %d releasing lock\n");
    PalError err = depot.Acquire();
    if (err.palError == PAL_WAIT_TIMEOUT) {
        Logger(1, "DepotAddEntry continue. Ignore WAIT_TIMEOUT\n");
    } else if (err.palError != PAL_OK) {
        Logger(0, "DepotAddEntry exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return nullptr;
    }

    PalList1* used = nullptr;
    DepotEntry* existing = DepotGetEntry_internal(handle, id, version, &used);
    if (existing != nullptr) {
        PalList1Destroy(&used);
        if (existing->state == DEPOT_STATE_COMPLETE) {
            depot.Release();
            Logger(3, "DepotAddEntry exit\n");
            return existing;  // a complete segment is reused, not added twice
        }
        // The record stays cached in the handle's list; DepotFree releases it.
        Logger(1, "DepotAddEntry unable to use entry due to in-progress operations\n");
        return nullptr;
    }

    DepotEntry* entry =
        BuildRecord(handle, id, version, properties, propertiesLength, ChooseSequence(used));
    PalList1Destroy(&used);
    if (entry == nullptr) return nullptr;
    if (DepotSaveEntry(handle, entry).palError != PAL_OK) {
        FreeRecordFields(entry);
        return nullptr;
    }
    if (PalList1Add(handle->entries, entry) < 0) {
        (void)PalFileRemove(entry->entryFilePath);
        FreeRecordFields(entry);
        return nullptr;
    }
    PalFileHandle data{};
    err = PalFileOpen(&data, entry->location, kCreateWriteOnly);
    CloseQuietly(&data);
    if (err.palError != PAL_OK) {
        // Takes the record off the list and frees it (once); no references, so
        // the entry file goes too.
        (void)DepotRemoveEntry_internal(handle, entry, PAL_FALSE);
        return nullptr;
    }
    depot.Release();
    Logger(3, "DepotAddEntry exit\n");
    return entry;
}

PalError DepotSaveEntry_internal(DepotHandle* handle, DepotEntry* entry) noexcept {
    Logger(3, "DepotSaveEntry_internal entry\n");
    if (entry == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    PalChar* text = nullptr;
    PalUint32 length = 0;
    PalError err = DepotEntrySetProperties(handle, entry, &text, &length);
    if (err.palError != PAL_OK) return err;
    // Written in place without truncation: a shorter text leaves the tail of
    // an older one after its zero byte, where no reader looks.
    PalFileHandle file{};
    err = PalFileOpen(&file, entry->entryFilePath, kCreateWriteOnly);
    PalUint32 done = 0;
    while (err.palError == PAL_OK && done < length) {
        PalUint32 count = 0;
        err = PalFileWrite(file, text + done, length - done, &count);
        if (err.palError == PAL_OK && count == 0) err = PalErrorCreate(PAL_ERR_SYSTEM, 0, 0);
        done += count;
    }
    PalMemoryFree(text);
    if (file.handle != nullptr) {
        PalError closed = PalFileClose(file);
        if (err.palError == PAL_OK) err = closed;
    }
    if (err.palError != PAL_OK) return err;
    Logger(3, "DepotSaveEntry_internal exit\n");
    return err;
}

PalError DepotSaveEntry(DepotHandle* handle, DepotEntry* entry) noexcept {
    Logger(3, "DepotSaveEntry entry\n");
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock lock(&handle->entryLock, "DepotSaveEntry error %d releasing lock\n");
    PalError err = lock.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotSaveEntry exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return err;
    }
    PalError result = DepotSaveEntry_internal(handle, entry);
    lock.Release();
    Logger(3, "DepotSaveEntry exit\n");
    return result;
}

PalError DepotEntryChangeState(DepotHandle* handle, DepotEntry* entry, PalInt32 state) noexcept {
    Logger(3, "DepotEntryChangeState entry\n");
    if (handle == nullptr || entry == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock lock(&handle->entryLock, "DepotEntryChangeState error %d releasing lock\n");
    PalError err = lock.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotEntryChangeState exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return err;
    }
    PalError result = ChangeStateLocked(handle, entry, state, true);
    lock.Release();
    Logger(3, "DepotEntryChangeState exit\n");
    return result;
}

PalError DepotCompleteEntry(DepotHandle* handle, DepotEntry* entry, PalInt32 deadline) noexcept {
    Logger(3, "DepotCompleteEntry entry\n");
    if (handle == nullptr || entry == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock lock(&handle->entryLock, "DepotCompleteEntry error %d releasing lock\n");
    PalError err = lock.Acquire();
    if (err.palError == PAL_WAIT_TIMEOUT) {
        Logger(1, "DepotCompleteEntry entry continue. Ignore WAIT_TIMEOUT\n");
    } else if (err.palError != PAL_OK) {
        Logger(0, "DepotCompleteEntry exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return err;
    }
    // A record whose entry was deleted meanwhile is not written back.
    PalError result = SyncSharedCounters(entry);
    if (result.palError == PAL_OK) {
        entry->state = DEPOT_STATE_COMPLETE;
        // The deadline only moves later (compared as unsigned seconds).
        if (static_cast<PalUint32>(entry->deadline) < static_cast<PalUint32>(deadline))
            entry->deadline = deadline;
        entry->referenceCount =
            static_cast<PalInt32>(static_cast<PalUint32>(entry->referenceCount) + 1u);
        result = DepotSaveEntry_internal(handle, entry);
    }
    lock.Release();
    (void)DepotFreeEntry(handle, entry);
    Logger(3, "DepotCompleteEntry exit\n");
    return result;
}

PalError DepotUnregisterEntry(DepotHandle* handle, DepotEntry* entry, PalBool force) noexcept {
    Logger(3, "DepotUnregisterEntry entry\n");
    if (handle == nullptr || entry == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock depot(&handle->depotLock, "DepotUnregisterEntry error %d releasing depot lock\n");
    PalError err = depot.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotUnregisterEntry exit.  Error %d obtaining depot lock\n", err.palError);
        return err;
    }
    DepotLock lock(&handle->entryLock, "DepotUnregisterEntry error %d releasing entry lock\n");
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
        Logger(3, "DepotUnregisterEntry exit\n");
        return err;
    }
    entry->referenceCount =
        static_cast<PalInt32>(static_cast<PalUint32>(entry->referenceCount) - 1u);
    PalError result = Ok();
    if (entry->referenceCount > 0) {
        // Back to complete, written in the same hold of the entry lock as the
        // decrement, so no other registrant's change slips in between.
        Logger(3, "DepotEntryChangeState entry\n");
        (void)ChangeStateLocked(handle, entry, DEPOT_STATE_COMPLETE, false);
        Logger(3, "DepotEntryChangeState exit\n");
        lock.Release();
        (void)FreeRecordLocked(handle, entry, true);
    } else {
        // Deleted in the same hold of the entry lock as the decrement: a
        // completion slipping in between would otherwise be lost with the files.
        Logger(3, "DepotRemoveEntry_internal entry\n");
        result = RemoveFilesLocked(handle, entry, force, false);
        lock.Release();
        (void)FreeRecordLocked(handle, entry, true);
        Logger(3, "DepotRemoveEntry_internal exit\n");
    }
    depot.Release();
    Logger(3, "DepotUnregisterEntry exit\n");
    return result;
}

PalError DepotRemoveEntry_internal(DepotHandle* handle, DepotEntry* entry, PalBool force) noexcept {
    Logger(3, "DepotRemoveEntry_internal entry\n");
    if (handle == nullptr || entry == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock lock(&handle->entryLock, "DepotRemoveEntry_internal error %d releasing lock\n");
    PalError err = lock.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotRemoveEntry_internal exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return err;
    }
    PalError result = RemoveFilesLocked(handle, entry, force, true);
    lock.Release();
    (void)FreeRecordLocked(handle, entry, true);
    Logger(3, "DepotRemoveEntry_internal exit\n");
    return result;
}

PalError DepotRemoveEntry(DepotHandle* handle, DepotEntry* entry, PalBool force) noexcept {
    Logger(3, "DepotRemoveEntry entry\n");
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock depot(&handle->depotLock, "DepotRemoveEntry error %d releasing lock\n");
    PalError err = depot.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotRemoveEntry exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return err;
    }
    PalError result = DepotRemoveEntry_internal(handle, entry, force);
    depot.Release();
    Logger(3, "DepotRemoveEntry exit\n");
    return result;
}

PalError DepotFreeEntry_internal(DepotHandle* handle, DepotEntry* entry) noexcept {
    return FreeRecordLocked(handle, entry, true);
}

PalError DepotFreeEntry(DepotHandle* handle, DepotEntry* entry) noexcept {
    Logger(3, "DepotFreeEntry entry\n");
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock depot(&handle->depotLock, "DepotFreeEntry error %d releasing lock\n");
    PalError err = depot.Acquire();
    if (err.palError == PAL_WAIT_TIMEOUT) {
        Logger(1, "DepotFree continue. Ignore WAIT_TIMEOUT\n");
    } else if (err.palError != PAL_OK) {
        Logger(0, "DepotFreeEntry exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return err;
    }
    // Found by address, not by key: another record with the same key may be
    // cached beside this one.
    PalError result = FreeRecordLocked(handle, entry, true);
    depot.Release();
    Logger(3, "DepotFreeEntry exit\n");
    return result;
}

PalError DepotEntryFree(DepotHandle* handle, DepotEntry* entry) noexcept {
    Logger(3, "DepotEntryFree entry\n");
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock lock(&handle->entryLock, "DepotEntryFree error %d releasing lock\n");
    PalError err = lock.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotEntryFree exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return err;
    }
    if (entry != nullptr) {
        // Meant for records never added to a list; the properties are the
        // caller's to release.
        PalMemoryFree(entry->id);
        PalMemoryFree(entry->version);
        PalMemoryFree(entry->entryFilePath);
        PalMemoryFree(entry->location);
        PalMemoryFree(entry);
    }
    lock.Release();
    Logger(3, "DepotEntryFree exit\n");
    return Ok();
}

}  // extern "C"
