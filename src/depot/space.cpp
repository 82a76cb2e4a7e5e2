// space.cpp - the Depot's disk-space accounting: reservations against the
// handle's storage limit (in KiB, kept only in the handle), the size queries of
// data files, and the measure of everything stored in the depot directory.
// Sizes are those of the data files themselves: a link is not followed, and
// anything but a regular file has no size here.

#include <cstring>

#include "depot/depot_internal.h"
#include "fanout/palfile.h"
#include "fanout/palmemory.h"

using namespace fanout;

extern "C" {

PalUint32 ConvertDataSize(PalUint64 bytes) noexcept {
    PalUint64 kib = (bytes >> 10) + ((bytes & 1023u) != 0 ? 1u : 0u);
    return static_cast<PalUint32>(kib);
}

PalError DepotReserveDiskSpace(DepotHandle* handle, PalUint32 kib) noexcept {
    Logger(3, "DepotReserveDiskSpace entry\n");
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock lock(&handle->depotLock, "DepotReserveDiskSpace error %d releasing lock\n");
    PalError err = lock.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotReserveDiskSpace exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return err;
    }
    PalError result = Ok();
    if (handle->storageLimit != 0) {
        if (handle->availableSpace >= kib)
            handle->availableSpace -= kib;
        else
            result = PalErrorCreate(PAL_ERR_NO_SPACE, 0, 0);
    }
    lock.Release();
    Logger(3, "DepotReserveDiskSpace exit\n");
    return result;
}

void DepotUnreserveDiskSpace(DepotHandle* handle, PalUint32 kib) noexcept {
    Logger(3, "DepotUnreserveDiskSpace entry\n");
    if (handle == nullptr) return;
    DepotLock lock(&handle->depotLock, "DepotUnreserveDiskSpace error %d releasing lock\n");
    PalError err = lock.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotUnreserveDiskSpace exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return;
    }
    // No upper bound: giving back more than was reserved raises the balance
    // above the limit.
    if (handle->storageLimit != 0) handle->availableSpace += kib;
    lock.Release();
    Logger(3, "DepotUnreserveDiskSpace exit\n");
}

PalError DepotSetSegmentSize(DepotHandle* handle, DepotEntry* entry) noexcept {
    Logger(3, "DepotSetSegmentSize entry\n");
    if (handle == nullptr || entry == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock lock(&handle->entryLock, "DepotSetSegmentSize error %d releasing lock\n");
    PalError err = lock.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotSetSegmentSize exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return err;
    }
    PalFileInfo info;
    PalError result = PalFileGetRegularInfo(entry->location, &info);
    if (result.palError == PAL_OK) entry->segmentSize = static_cast<PalUint64>(info.size);
    lock.Release();
    Logger(3, "DepotSetSegmentSize exit\n");
    return result;
}

PalError DepotEntryGetFileSize(DepotHandle* handle, DepotEntry* entry, PalUint64* bytes) noexcept {
    Logger(3, "DepotEntryGetFileSize entry\n");
    if (handle == nullptr || entry == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock lock(&handle->entryLock, "DepotEntryGetFileSize error %d releasing lock\n");
    PalError err = lock.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotEntryGetFileSize exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return err;
    }
    PalFileInfo info;
    PalError result = PalFileGetRegularInfo(entry->location, &info);
    if (result.palError == PAL_OK) {
        auto size = static_cast<PalUint64>(info.size);
        if (entry->segmentSize != size) entry->segmentSize = size;
        if (bytes != nullptr) *bytes = size;
    }
    lock.Release();
    Logger(3, "DepotEntryGetFileSize exit\n");
    return result;
}

PalError DepotAdjustReservedSpace(DepotHandle* handle, const PalChar* id,
                                  const PalChar* version) noexcept {
    Logger(3, "DepotAdjustReservedSpace entry\n");
    DepotEntry* entry = DepotGetEntry(handle, id, version);
    if (entry == nullptr) {
        Logger(2, "DepotAdjustReservedSpace unable to find depot entry %s^%s\n",
               id != nullptr ? id : "(null)", version != nullptr ? version : "(null)");
        Logger(3, "DepotAdjustReservedSpace exit\n");
        return Ok();
    }
    PalFileInfo info;
    PalError result = PalFileGetRegularInfo(entry->location, &info);
    if (result.palError == PAL_OK) {
        // Taken in 64-bit unsigned arithmetic, as recorded minus actual.
        PalUint64 unused = entry->segmentSize - static_cast<PalUint64>(info.size);
        DepotUnreserveDiskSpace(handle, ConvertDataSize(unused));
    }
    Logger(3, "DepotAdjustReservedSpace exit\n");
    return result;
}

PalError DepotGetPermStorage(DepotHandle* handle, PalUint32* total) noexcept {
    Logger(3, "DepotGetPermStorage entry\n");
    if (handle == nullptr || total == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock lock(&handle->depotLock, "DepotGetPermStorage error %d releasing lock\n");
    PalError err = lock.Acquire();
    if (err.palError != PAL_OK) {
        Logger(0, "DepotGetPermStorage exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return err;
    }
    DepotEnum* walk = nullptr;
    err = DepotEnumNew(handle, &walk);
    if (err.palError != PAL_OK) {
        lock.Release();
        Logger(0, "DepotGetPermStorage exit.  Error %d creating enumerator\n", err.palError);
        return err;
    }
    PalError result = Ok();
    std::size_t dirLength = PalStringLen(handle->directory);
    while (DepotEntry* entry = DepotEntryEnumNextElement(walk)) {
        // Entries whose data lives outside the depot directory are not counted.
        if (entry->location == nullptr ||
            std::strncmp(entry->location, handle->directory, dirLength) != 0)
            continue;
        PalUint64 size = 0;
        result = DepotEntryGetFileSize(handle, entry, &size);
        if (result.palError != PAL_OK) {
            Logger(0, "DepotGetPermStorage error %d obtaining file size\n", result.palError);
            break;
        }
        *total += ConvertDataSize(size);
    }
    err = DepotEntryEnumDelete(walk);
    if (err.palError != PAL_OK)
        Logger(1, "DepotGetPermStorage error %d freeing enumerator\n", err.palError);
    lock.Release();
    Logger(3, "DepotGetPermStorage exit\n");
    return result;
}

}  // extern "C"
