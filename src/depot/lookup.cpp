// lookup.cpp - finding a Depot entry by its key (id, version): the bucket hash,
// bucket names, the search of the handle's cached records, and the scan of one
// bucket's entry files on disk.
//
// The hash deliberately looks at only the first (L + 1) / 2 characters of the
// joined key: it decides where existing entry files lie and must never change.

#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "depot/depot_internal.h"
#include "fanout/palfile.h"
#include "fanout/palmemory.h"

extern "C" {

PalUint32 TableSize = 256;
PalUint32 NearestPrime = 0;
const PalUint32 PowerOf2Primes[16] = {2,   3,    7,    13,   31,   61,    127,   251,
                                      509, 1021, 2039, 4093, 8191, 16381, 32749, 65521};

}  // extern "C"

namespace fanout {
namespace {

constexpr PalUint32 kNotFound = 0xFFFFFFFFu;

// The modulus is chosen again whenever the table size was lowered below it.
// Written without a lock: every thread computes the same value.
void ChooseModulus() noexcept {
    if (NearestPrime != 0 && NearestPrime <= TableSize) return;
    for (int i = 15; i >= 1; --i) {
        if (PowerOf2Primes[i] < TableSize) {
            NearestPrime = PowerOf2Primes[i];
            return;
        }
    }
}

// Why an entry file of the bucket could not be read; the scan then ends.
constexpr ReadFailureTexts kScanFailure = {
    "DepotGetEntry_internal error %d opening file %s\n",
    "DepotGetEntry_internal error %d retrieving size of file %s\n",
    "DepotGetEntry_internal error allocating memory buffer for file read\n",
    "DepotGetEntry_internal error %d reading file %s\n",
};

// The sequence number written after "<bucket>." in an entry file's name.
PalInt32 SequenceOf(const PalChar* name) noexcept {
    long n = std::strtol(name + 9, nullptr, 10);
    if (n > INT32_MAX) return INT32_MAX;
    if (n < INT32_MIN) return INT32_MIN;
    return static_cast<PalInt32>(n);
}

// Reads the bucket's entry files in directory order until one holds the key.
// An entry file that cannot be read ends the scan with no result. A null
// result leaves its reason as the thread's last failure.
DepotEntry* ScanBucket(DepotHandle* handle, const PalChar* bucket, const PalChar* id,
                       const PalChar* version, PalList1* sequences) noexcept {
    PalDirHandle dir{};
    if (const PalError opened = PalDirOpen(&dir, handle->directory); opened.palError != PAL_OK) {
        (void)PalDirClose(dir);
        RecordFailure(opened, handle->directory);
        return nullptr;
    }
    // The entry files are read under the entry lock, so that none is seen
    // half rewritten by another process; without the lock the scan still runs.
    DepotLock entryLock(&handle->entryLock, "DepotGetEntry_internal error %d releasing lock\n");
    if (const PalError taken = entryLock.Acquire(); taken.palError != PAL_OK) {
        Logger(1, "DepotGetEntry_internal continue.  Error %d(%d) obtaining entry lock\n",
               taken.palError, taken.nativeError);
    }
    PalChar name[PAL_PATH_MAX + 1];
    PalChar* buffer = nullptr;  // reused for every file of the scan
    PalInt32 capacity = 0;
    DepotEntry* found = nullptr;
    // Reached the end of the bucket without the key, unless a step below
    // says otherwise.
    PalError why = PalErrorCreate(PAL_ERR_NO_ENTRY, 0, 0);
    PalChar* whyFile = nullptr;  // owned
    while (PalDirReadDirectory(name, dir).palError == PAL_OK) {
        name[PAL_PATH_MAX] = '\0';
        if (std::strncmp(name, bucket, 8) != 0 || !HasEntrySuffix(name)) continue;
        if (sequences != nullptr)
            (void)PalList1Add(sequences, reinterpret_cast<void*>(std::intptr_t{SequenceOf(name)}));
        PalChar* path = BuildDirPath(handle->directory, name);
        if (path == nullptr) {
            Logger(1, "DepotGetEntry_internal error allocating memory buffer for file read\n");
            why = PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 0);
            break;
        }
        ReadResult r = ReadWholeFile(path, &buffer, &capacity);
        if (r.failure != ReadFailure::kNone) {
            LogReadFailure(r, path, kScanFailure);
            why = r.failure == ReadFailure::kAlloc ? PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 0)
                                                   : r.error;
            whyFile = path;
            break;
        }
        EntryText elements(buffer);
        if (elements.Get(EntryTag::kId).Equals(id) &&
            elements.Get(EntryTag::kVersion).Equals(version)) {
            found = ParseEntryText(handle, buffer, entryLock.held());
            if (found == nullptr) {
                Logger(1, "DepotGetEntry_internal call to DepotEntryNewFromToc returned null\n");
                why = DepotGetLastError(nullptr);  // the parse's own reason
                whyFile = path;
            } else {
                found->entryFilePath = path;
                if (!LocationIsOwn(handle, found->location, path)) {
                    // Damaged: what it names is never opened or removed.
                    Logger(1,
                           "DepotGetEntry_internal entry file %s names a location outside "
                           "its data file\n",
                           path);
                    why = PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 3);
                    whyFile = PalStringDup(path);
                    if (entryLock.held()) {
                        DetachRecord(handle, found);
                        FreeRecordFields(found);
                    } else {
                        (void)FreeRecordLocked(handle, found, true);
                    }
                    found = nullptr;
                }
            }
            break;
        }
        PalMemoryFree(path);
    }
    PalMemoryFree(buffer);
    entryLock.Release();
    PalError err = PalDirClose(dir);
    if (err.palError != PAL_OK)
        Logger(1, "DepotGetEntry_internal error %d closing directory handle\n", err.palError);
    RecordFailure(found != nullptr ? Ok() : why, found != nullptr ? nullptr : whyFile);
    PalMemoryFree(whyFile);
    return found;
}

}  // namespace
}  // namespace fanout

using namespace fanout;

extern "C" {

PalError DepotHashFunction(const PalChar* text, PalUint32* bucket) noexcept {
    DepotTrace trace("DepotHashFunction");
    ChooseModulus();
    PalUint32 h = 0;
    if (text != nullptr) {
        // Only the first half of the characters, rounded up, take part.
        std::size_t count = (std::strlen(text) + 1) / 2;
        for (std::size_t i = 0; i < count; ++i) {
            auto c =
                static_cast<PalUint32>(static_cast<PalInt32>(static_cast<signed char>(text[i])));
            h ^= c;
            h = (h << 5) | (h >> 27);
        }
    }
    // A table size that leaves no modulus puts everything in bucket 0.
    PalUint32 modulus = NearestPrime != 0 ? NearestPrime : 1;
    if (bucket != nullptr) *bucket = h % modulus;
    return trace.Exit(Ok());
}

PalChar* DepotFindBucket(const PalChar* id, const PalChar* version) noexcept {
    DepotTrace trace("DepotFindBucket");
    std::size_t size = PalStringLen(id) + std::size_t{PalStringLen(version)} + 1;
    if (size > static_cast<std::size_t>(INT32_MAX)) return nullptr;
    auto* joined = static_cast<PalChar*>(PalMemoryMalloc(static_cast<PalInt32>(size)));
    if (joined == nullptr) return nullptr;
    std::snprintf(joined, size, "%s%s", id != nullptr ? id : "", version != nullptr ? version : "");
    PalUint32 number = 0;
    PalError err = DepotHashFunction(joined, &number);
    PalMemoryFree(joined);
    if (err.palError != PAL_OK) return nullptr;
    auto* name = static_cast<PalChar*>(PalMemoryMalloc(9));
    if (name == nullptr) return nullptr;
    std::snprintf(name, 9, "%08u", static_cast<unsigned>(number));
    return trace.Exit(name);
}

PalUint32 DepotFindEntryIndex(DepotHandle* handle, const PalChar* id,
                              const PalChar* version) noexcept {
    DepotTrace trace("DepotFindEntryIndex");
    if (handle == nullptr) return kNotFound;
    PalIterator it{};
    PalError err = PalList1IteratorCreate(handle->entries, &it);
    if (err.palError != PAL_OK) {
        Logger(0, "DepotFindEntryIndex exit.  Error %d(%d) obtaining lock\n", err.palError,
               err.nativeError);
        return kNotFound;
    }
    PalUint32 result = kNotFound;
    PalInt32 descriptor = -1;
    void* value = nullptr;
    while ((err = PalList1IteratorNext(&it, &descriptor, &value)).palError == PAL_OK) {
        auto* entry = static_cast<DepotEntry*>(value);
        if (entry != nullptr && PalStringCmp(entry->id, id) == 0 &&
            PalStringCmp(entry->version, version) == 0) {
            result = static_cast<PalUint32>(descriptor);
            break;
        }
    }
    PalList1IteratorEnd(&it);
    if (err.palError != PAL_OK && err.palError != PAL_ERR_NO_MORE) return kNotFound;
    return trace.Exit(result);
}

DepotEntry* DepotGetEntry_internal(DepotHandle* handle, const PalChar* id, const PalChar* version,
                                   PalList1** sequences) noexcept {
    DepotTrace trace("DepotGetEntry_internal");
    if (sequences != nullptr) *sequences = nullptr;
    if (handle == nullptr || id == nullptr || version == nullptr) {
        RecordFailure(PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0));
        return nullptr;
    }

    PalUint32 index = DepotFindEntryIndex(handle, id, version);
    if (index != kNotFound) {
        auto* cached =
            static_cast<DepotEntry*>(PalList1Access(handle->entries, static_cast<PalInt32>(index)));
        if (cached != nullptr) {
            if (VerifyEntry(cached)) {
                RecordFailure(Ok());
                return trace.Exit(cached);
            }
            // Stale: its file is gone or now holds another key.
            (void)FreeRecordLocked(handle, cached, true);
        }
    }

    PalChar* bucket = DepotFindBucket(id, version);
    if (bucket == nullptr || (sequences != nullptr && PalList1Create(sequences, 64, 64) != 0)) {
        PalMemoryFree(bucket);
        RecordFailure(PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 0));
        return nullptr;
    }
    DepotEntry* found =
        ScanBucket(handle, bucket, id, version, sequences != nullptr ? *sequences : nullptr);
    PalMemoryFree(bucket);
    return trace.Exit(found);
}

DepotEntry* DepotGetEntry(DepotHandle* handle, const PalChar* id, const PalChar* version) noexcept {
    DepotTrace trace("DepotGetEntry");
    if (handle == nullptr) {
        RecordFailure(PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0));
        return nullptr;
    }
    DepotLock lock(&handle->depotLock, trace.op());
    if (PalError err = trace.Take(lock); err.palError != PAL_OK) {
        RecordFailure(err, "depot.lk");
        return nullptr;
    }
    DepotEntry* entry = DepotGetEntry_internal(handle, id, version, nullptr);
    lock.Release();
    return trace.Exit(entry);
}

}  // extern "C"
