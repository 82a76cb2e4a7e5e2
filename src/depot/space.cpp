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

namespace {

// Records the data file's size in the entry (and in *bytes when given).
// REQUIRES: entry lock held.
PalError ReadSegmentSize(DepotEntry* entry, PalUint64* bytes) noexcept {
    PalFileInfo info;
    PalError result = PalFileGetRegularInfo(entry->location, &info);
    if (result.palError != PAL_OK) return result;
    entry->segmentSize = static_cast<PalUint64>(info.size);
    if (bytes != nullptr) *bytes = entry->segmentSize;
    return result;
}

}  // namespace

extern "C" {

PalUint32 ConvertDataSize(PalUint64 bytes) noexcept {
    PalUint64 kib = (bytes >> 10) + ((bytes & 1023u) != 0 ? 1u : 0u);
    return static_cast<PalUint32>(kib);
}

PalError DepotReserveDiskSpace(DepotHandle* handle, PalUint32 kib) noexcept {
    DepotTrace trace("DepotReserveDiskSpace");
    if (handle == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    return RunLocked(trace, &handle->depotLock, [handle, kib]() noexcept {
        if (handle->storageLimit == 0) return Ok();
        if (handle->availableSpace < kib) return PalErrorCreate(PAL_ERR_NO_SPACE, 0, 0);
        handle->availableSpace -= kib;
        return Ok();
    });
}

void DepotUnreserveDiskSpace(DepotHandle* handle, PalUint32 kib) noexcept {
    DepotTrace trace("DepotUnreserveDiskSpace");
    if (handle == nullptr) return;
    DepotLock lock(&handle->depotLock, trace.op());
    PalError err = trace.Take(lock);
    if (err.palError != PAL_OK) return;
    // No upper bound: giving back more than was reserved raises the balance
    // above the limit.
    if (handle->storageLimit != 0) handle->availableSpace += kib;
    lock.Release();
    trace.Exit();
}

PalError DepotSetSegmentSize(DepotHandle* handle, DepotEntry* entry) noexcept {
    DepotTrace trace("DepotSetSegmentSize");
    if (handle == nullptr || entry == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    return RunLocked(trace, &handle->entryLock,
                     [entry]() noexcept { return ReadSegmentSize(entry, nullptr); });
}

PalError DepotEntryGetFileSize(DepotHandle* handle, DepotEntry* entry, PalUint64* bytes) noexcept {
    DepotTrace trace("DepotEntryGetFileSize");
    if (handle == nullptr || entry == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    return RunLocked(trace, &handle->entryLock,
                     [entry, bytes]() noexcept { return ReadSegmentSize(entry, bytes); });
}

PalError DepotAdjustReservedSpace(DepotHandle* handle, const PalChar* id,
                                  const PalChar* version) noexcept {
    DepotTrace trace("DepotAdjustReservedSpace");
    DepotEntry* entry = DepotGetEntry(handle, id, version);
    if (entry == nullptr) {
        Logger(2, "DepotAdjustReservedSpace unable to find depot entry %s^%s\n", OrNull(id),
               OrNull(version));
        return trace.Exit(Ok());
    }
    PalFileInfo info;
    PalError result = PalFileGetRegularInfo(entry->location, &info);
    if (result.palError == PAL_OK) {
        // Taken in 64-bit unsigned arithmetic, as recorded minus actual.
        PalUint64 unused = entry->segmentSize - static_cast<PalUint64>(info.size);
        DepotUnreserveDiskSpace(handle, ConvertDataSize(unused));
    }
    return trace.Exit(result);
}

PalError DepotGetPermStorage(DepotHandle* handle, PalUint32* total) noexcept {
    DepotTrace trace("DepotGetPermStorage");
    if (handle == nullptr || total == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    DepotLock lock(&handle->depotLock, trace.op());
    PalError err = trace.Take(lock);
    if (err.palError != PAL_OK) return err;
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
    return trace.Exit(result);
}

}  // extern "C"
