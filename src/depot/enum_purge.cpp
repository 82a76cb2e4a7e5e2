// enum_purge.cpp - walking every entry file of a Depot, and the two purges built
// on the walk: removing every entry (DepotPurge) and removing the complete
// entries whose deadline has passed (DepotPurgeExpiredEntries).
//
// An entry file that cannot be read ends a walk early; that is how the store
// has always behaved, and callers take the early end as the end. The counting
// walk (DepotEntryEnumNextReadable, and the purges built on it) skips such a
// file instead and counts it, so that one damaged file hides nothing.
// Entries in progress whose writer is alive are never purged.

#include <ctime>

#include "depot/depot_internal.h"
#include "fanout/palfile.h"
#include "fanout/palmemory.h"

using namespace fanout;

namespace {

constexpr ReadFailureTexts kWalkFailure = {
    "DepotEntryEnumNextElement error %d opening file %s\n",
    "DepotEntryEnumNextElement error %d obtaining size of file %s\n",
    "DepotEntryEnumNextElement error allocating memory to read file %s\n",
    "DepotEntryEnumNextElement error %d reading file %s\n",
};

// True when a complete entry's deadline lies before now (unsigned seconds).
bool IsExpired(const DepotEntry* entry, PalUint32 now) noexcept {
    return entry->state == DEPOT_STATE_COMPLETE && static_cast<PalUint32>(entry->deadline) < now;
}

}  // namespace

extern "C" {

PalError DepotEnumNew(DepotHandle* handle, DepotEnum** enumerator) noexcept {
    DepotTrace trace("DepotEnumNew");
    if (handle == nullptr || enumerator == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    *enumerator = nullptr;
    auto* walk = static_cast<DepotEnum*>(PalMemoryCalloc(1, sizeof(DepotEnum)));
    if (walk == nullptr) return PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 3);
    PalError err = TouchLockFile("enum.lk");
    if (err.palError != PAL_OK) {
        PalMemoryFree(walk);
        Logger(0, "DepotEnumNew exit.  Error %d creating semaphore path\n", err.palError);
        return err;
    }
    err = PalInitSem(&walk->lock, "enum.lk");
    if (err.palError != PAL_OK) {
        Logger(0, "DepotEnumNew error %d creating lock\n", err.palError);
        PalMemoryFree(walk);
        return err;
    }
    err = PalDirOpen(&walk->dir, handle->directory);
    if (err.palError != PAL_OK) {
        (void)PalDirClose(walk->dir);
        (void)PalCloseSem(&walk->lock);
        PalMemoryFree(walk);
        return err;
    }
    walk->depot = handle;
    *enumerator = walk;
    // Like DepotNew: a release without a take, raising the count by one for
    // the life of the process; not in strict mode.
    if (!handle->strictLocks) {
        err = PalPostSem(&walk->lock);
        if (err.palError != PAL_OK)
            Logger(1, "DepotEnumNew error %d releasing enum lock\n", err.palError);
    }
    return trace.Exit(Ok());
}

}  // extern "C"

namespace {

// One step of a walk. Without `skipped` an entry file that cannot be read ends
// the walk (the established behaviour); with it the file is counted there
// and the walk goes on, as it does for files that do not parse or name a
// location outside their own data file.
DepotEntry* NextEntry(DepotEnum* enumerator, PalUint32* skipped, bool counting) noexcept {
    DepotTrace trace("DepotEntryEnumNextElement");
    if (enumerator == nullptr || enumerator->depot == nullptr) return nullptr;
    DepotHandle* handle = enumerator->depot;
    DepotLock lock(&enumerator->lock, trace.op());
    if (trace.Take(lock).palError != PAL_OK) return nullptr;
    // Entry files are read under the entry lock so that none is seen half
    // rewritten; the walk goes on without it when it cannot be had.
    DepotLock entryLock(&handle->entryLock, trace.op());
    if (const PalError taken = entryLock.Acquire(); taken.palError != PAL_OK) {
        Logger(1, "DepotEntryEnumNextElement continue.  Error %d(%d) obtaining entry lock\n",
               taken.palError, taken.nativeError);
    }
    auto count = [skipped, counting]() noexcept {
        if (counting && skipped != nullptr) ++*skipped;
    };
    PalChar name[PAL_PATH_MAX + 1];
    PalChar* buffer = nullptr;
    PalInt32 capacity = 0;
    DepotEntry* found = nullptr;
    while (found == nullptr && PalDirReadDirectory(name, enumerator->dir).palError == PAL_OK) {
        name[PAL_PATH_MAX] = '\0';
        if (!HasEntrySuffix(name)) continue;
        PalChar* path = BuildDirPath(handle->directory, name);
        if (path == nullptr) {
            Logger(1, "DepotEntryEnumNextElement error allocating memory to read file %s\n", name);
            break;
        }
        ReadResult r = ReadWholeFile(path, &buffer, &capacity);
        if (r.failure != ReadFailure::kNone) {
            LogReadFailure(r, path, kWalkFailure);
            PalMemoryFree(path);
            if (!counting) break;
            count();
            continue;
        }
        found = ParseEntryText(handle, buffer, entryLock.held());
        if (found == nullptr) {
            Logger(1, "DepotEntryEnumNextElement null returned by DepotEntryNewFromToc\n");
            PalMemoryFree(path);
            count();
            continue;
        }
        bool own = LocationIsOwn(handle, found->location, path);
        found->entryFilePath = own ? PalStringDup(path) : nullptr;
        if (found->entryFilePath == nullptr) {
            if (own) {
                Logger(1, "DepotEntryEnumNextElement PalStringDup of %s failed\n", path);
            } else {
                // Damaged: what it names is never opened or removed.
                Logger(1,
                       "DepotEntryEnumNextElement entry file %s names a location outside "
                       "its data file\n",
                       path);
                count();
            }
            // The caller holds the depot lock and this walk the entry lock:
            // the record is released here rather than through DepotFreeEntry.
            if (entryLock.held()) {
                DetachRecord(handle, found);
                FreeRecordFields(found);
            } else {
                (void)FreeRecordLocked(handle, found, true);
            }
            found = nullptr;
        }
        PalMemoryFree(path);
    }
    PalMemoryFree(buffer);
    entryLock.Release();
    lock.Release();
    return trace.Exit(found);
}

// DepotPurge (expiredOnly false) and DepotPurgeExpiredEntries (true), walking
// with NextEntry; `counting` as there.
PalError PurgeWalk(DepotHandle* handle, PalBool force, bool expiredOnly, bool counting,
                   PalUint32* skipped) noexcept {
    DepotTrace trace(expiredOnly ? "DepotPurgeExpiredEntries" : "DepotPurge");
    if (skipped != nullptr) *skipped = 0;
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    // The expiring purge's release line spells its name short.
    DepotLock depot(&handle->depotLock, expiredOnly ? "DepotPurgeExpiredEntris" : "DepotPurge");
    PalError err =
        expiredOnly ? trace.TakeOrContinue(
                          depot, "DepotPurgeExpiredEntries entry continue. Ignore WAIT_TIMEOUT\n")
                    : trace.Take(depot);
    if (err.palError != PAL_OK) return err;
    DepotEnum* walk = nullptr;
    err = DepotEnumNew(handle, &walk);
    if (err.palError != PAL_OK) {
        depot.Release();
        Logger(0, "%s exit.  Error %d creating enumerator\n", trace.op(), err.palError);
        return err;
    }
    PalError result = Ok();
    while (DepotEntry* entry = NextEntry(walk, skipped, counting)) {
        if (entry->state == DEPOT_STATE_IN_PROGRESS && WriterAlive(entry)) {
            // A live writer's entry is left alone; a dead writer's is purged.
            (void)FreeRecordLocked(handle, entry, true);
            continue;
        }
        if (!expiredOnly) {
            // Without force only unreferenced entries lose their files; every
            // record is freed either way.
            result = DepotRemoveEntry_internal(handle, entry, force);
            if (result.palError != PAL_OK)
                Logger(1, "DepotPurge error %d removing depot entry\n", result.palError);
            continue;
        }
        bool expired = false;
        {
            DepotLock lock(&handle->entryLock, trace.op());
            if (lock.Acquire().palError != PAL_OK) {
                // Reports the purge's status so far, not the lock's.
                Logger(1, "DepotPurgeExpiredEntries error %d(%d) obtaining lock\n", result.palError,
                       result.nativeError);
                continue;
            }
            // The deadline as it stands now, not as the walk read it.
            (void)SyncSharedCounters(entry);
            expired = IsExpired(entry, static_cast<PalUint32>(std::time(nullptr)));
        }
        if (expired) {
            // Forced: a passed deadline outweighs any references.
            result = DepotRemoveEntry_internal(handle, entry, PAL_TRUE);
            if (result.palError != PAL_OK)
                Logger(1, "DepotPurgeExpiredEntries error %d removing depot entry\n",
                       result.palError);
        } else {
            (void)FreeRecordLocked(handle, entry, true);
        }
    }
    (void)DepotEntryEnumDelete(walk);
    depot.Release();
    return trace.Exit(result);
}

}  // namespace

extern "C" {

DepotEntry* DepotEntryEnumNextElement(DepotEnum* enumerator) noexcept {
    return NextEntry(enumerator, nullptr, false);
}

DepotEntry* DepotEntryEnumNextReadable(DepotEnum* enumerator, PalUint32* skipped) noexcept {
    return NextEntry(enumerator, skipped, true);
}

PalError DepotEntryEnumDelete(DepotEnum* enumerator) noexcept {
    DepotTrace trace("DepotEntryEnumDelete");
    if (enumerator == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock lock(&enumerator->lock, trace.op());
    PalError err = trace.Take(lock);
    if (err.palError != PAL_OK) return err;
    err = PalDirClose(enumerator->dir);
    if (err.palError != PAL_OK)
        Logger(1, "DepotEntryEnumDelete error %d closing directory handle\n", err.palError);
    lock.Release();
    err = PalCloseSem(&enumerator->lock);
    if (err.palError != PAL_OK)
        Logger(1, "DepotEntryEnumDelete error %d freeing lock\n", err.palError);
    PalMemoryFree(enumerator);
    return trace.Exit(Ok());
}

PalError DepotPurge(DepotHandle* handle, PalBool force) noexcept {
    return PurgeWalk(handle, force, false, false, nullptr);
}

PalError DepotPurgeExpiredEntries(DepotHandle* handle) noexcept {
    return PurgeWalk(handle, PAL_TRUE, true, false, nullptr);
}

PalError DepotPurgeCounting(DepotHandle* handle, PalBool force, PalUint32* unreadable) noexcept {
    return PurgeWalk(handle, force, false, true, unreadable);
}

PalError DepotPurgeExpiredCounting(DepotHandle* handle, PalUint32* unreadable) noexcept {
    return PurgeWalk(handle, PAL_TRUE, true, true, unreadable);
}

}  // extern "C"
