// depot_internal.h - what the Depot's source files share and do not export: the
// lock guard, the entry-file reader, the tag-content view and the record helpers.
#ifndef FANOUT_SRC_DEPOT_DEPOT_INTERNAL_H
#define FANOUT_SRC_DEPOT_DEPOT_INTERNAL_H

#include <cstddef>
#include <cstdint>

#include "fanout/depot.h"

namespace fanout {

// A held-or-not view of one of the depot's semaphores, taken for the
// operation `op`. Acquire() waits; Release() posts and, when the post fails,
// logs "<op> error <palError> releasing <what>" at level 1. The destructor
// releases a lock still held, so an early return never leaves a semaphore
// taken. Keep() forgets the lock without releasing it (the one path that
// deliberately keeps the entry lock).
class DepotLock {
  public:
    DepotLock(PalSemHandle* sem, const char* op, const char* what = "lock") noexcept
        : sem_(sem), op_(op), what_(what) {}
    DepotLock(const DepotLock&) = delete;
    DepotLock& operator=(const DepotLock&) = delete;
    ~DepotLock() { Release(); }

    PalError Acquire() noexcept;
    void Release() noexcept;
    void Keep() noexcept { held_ = false; }
    bool held() const noexcept { return held_; }

  private:
    PalSemHandle* sem_;
    const char* op_;
    const char* what_;
    bool held_ = false;
};

// Takes `lock` for the operation `op`; a failure is logged at level 0 as
// "<op> exit.  Error <palError>(<nativeError>) obtaining lock" and returned.
PalError TakeLock(DepotLock& lock, const char* op) noexcept;

// Takes `lock` under the WAIT_TIMEOUT rule: a failed wait (PAL_WAIT_TIMEOUT)
// is logged at level 1 as `tolerated` and answered PAL_OK, the operation
// going on without the lock (which is then never released); any other
// failure is logged and returned as TakeLock does.
PalError TakeLockOrContinue(DepotLock& lock, const char* op, const char* tolerated) noexcept;

// The trace of one Depot operation: "<op> entry" at level 3 when constructed
// and "<op> exit" at level 3 from Exit(). Paths that end without an exit
// line (invalid arguments, failures with their own exit line) just return.
class DepotTrace {
  public:
    explicit DepotTrace(const char* op) noexcept : op_(op) { Logger(3, "%s entry\n", op); }
    DepotTrace(const DepotTrace&) = delete;
    DepotTrace& operator=(const DepotTrace&) = delete;

    const char* op() const noexcept { return op_; }
    PalError Take(DepotLock& lock) const noexcept { return TakeLock(lock, op_); }
    PalError TakeOrContinue(DepotLock& lock, const char* tolerated) const noexcept {
        return TakeLockOrContinue(lock, op_, tolerated);
    }
    void Exit() const noexcept { Logger(3, "%s exit\n", op_); }
    // Logs the exit line and hands `result` back: `return trace.Exit(result);`.
    template <class T>
    T Exit(T result) const noexcept {
        Exit();
        return result;
    }

  private:
    const char* op_;
};

// The usual shape of a traced operation under one lock: takes the lock (a
// failure is logged and returned), runs `body` (returning a PalError),
// releases the lock and logs the exit line; body's result is the answer.
template <class Body>
PalError RunLocked(const DepotTrace& trace, PalSemHandle* sem, Body&& body) noexcept {
    DepotLock lock(sem, trace.op());
    if (PalError err = trace.Take(lock); err.palError != PAL_OK) return err;
    PalError result = body();
    lock.Release();
    return trace.Exit(result);
}

// What went wrong while reading a whole entry file.
enum class ReadFailure { kNone, kOpen, kSize, kAlloc, kRead };

struct ReadResult {
    ReadFailure failure = ReadFailure::kNone;
    PalError error{0, 0, 0};
    PalUint32 length = 0;  // bytes read (the text is zero-terminated after them)
};

// What one reader logs (level 1) when an entry file cannot be read: `open`,
// `size` and `read` are formats taking the palError and the path (%d, %s);
// `alloc` takes the path (%s) or nothing.
struct ReadFailureTexts {
    const char* open;
    const char* size;
    const char* alloc;
    const char* read;
};

// Logs the failure of `r` (nothing for ReadFailure::kNone) with `texts`.
void LogReadFailure(const ReadResult& r, const PalChar* path,
                    const ReadFailureTexts& texts) noexcept;

// Reads the whole file at `path` into *buffer, growing it (PalMemoryRealloc)
// to at least size + 1 bytes and recording its size in *capacity; the text is
// terminated with a zero byte. The buffer stays owned by the caller, also on
// failure.
ReadResult ReadWholeFile(const PalChar* path, PalChar** buffer, PalInt32* capacity) noexcept;

// The content of one element of an entry-file text.
struct TagContent {
    const PalChar* data = nullptr;  // null: the element is absent
    std::size_t size = 0;
    bool present() const noexcept { return data != nullptr; }
    bool Equals(const PalChar* s) const noexcept;  // same length and bytes as s
};

TagContent FindTagContent(const PalChar* text, const char* tag) noexcept;

// The elements of an entry file, in the order the template writes them.
enum class EntryTag {
    kId,
    kVersion,
    kReferenceCount,
    kState,
    kChecksum,
    kDeadline,
    kLocation,
    kProperties,
};

// The elements of one entry-file text, each found as FindTagContent finds it.
// A text laid out exactly as the Depot writes it (the template's elements in
// order, no content holding a '<', nothing after the final '>') is split in
// one pass when constructed; for such a text every element the tag scanner
// finds is the one at its place in the layout, so the answers are the same.
// Any other text is searched element by element on demand. The text must
// outlive the view.
class EntryText {
  public:
    explicit EntryText(const PalChar* text) noexcept;
    TagContent Get(EntryTag tag) const noexcept;

  private:
    const PalChar* text_;
    bool split_ = false;
    TagContent parts_[8];
};

// A numeric content converted as strtol(base 10) does, clamped to 32 bits.
PalInt32 ParseTagNumber(const TagContent& content) noexcept;

// Refreshes the persisted fields of `entry` from an entry-file text (missing
// elements leave their fields unchanged).
void ReloadEntryFromText(DepotEntry* entry, const PalChar* text) noexcept;

// Reads the entry file of `entry`, compares its id and version with the
// record's and refreshes the record from it. True when the key matched.
// REQUIRES: depot lock held.
bool VerifyEntry(DepotEntry* entry) noexcept;

// DepotEntryNewFromToc; with `entryLockHeld` a failed parse frees the partial
// record without taking the entry lock again.
DepotEntry* ParseEntryText(DepotHandle* handle, const PalChar* text, bool entryLockHeld) noexcept;

// Re-reads the counters that several registrants update (reference_count and
// deadline), and the location and properties, from the entry file, so that a change made by
// another process under the entry lock is not overwritten. Returns
// PAL_ERR_NO_ENTRY when the entry file is gone or now holds another key: the
// record is stale and must not be written back (that would resurrect a
// deleted entry, or overwrite another one). REQUIRES: entry lock held.
PalError SyncSharedCounters(DepotEntry* entry) noexcept;

// Writes the record's entry file (DepotSaveEntry_internal), forcing it out to
// the device when `flush` is set. REQUIRES: entry lock held.
PalError SaveEntryFile(DepotHandle* handle, DepotEntry* entry, bool flush) noexcept;

// Frees the record's strings, properties and the record, and gives up its
// writer lock. No lock, no list.
void FreeRecordFields(DepotEntry* entry) noexcept;

// Takes `entry` (compared by address) off the handle's list when present.
// REQUIRES: depot lock held.
void DetachRecord(DepotHandle* handle, DepotEntry* entry) noexcept;

// Frees a record under the entry lock, traced as DepotFreeEntry_internal,
// without touching the list. Returns the lock error (nothing freed) or PAL_OK.
PalError FreeRecordLocked(DepotHandle* handle, DepotEntry* entry, bool detach) noexcept;

// Builds "<dir>/<bucket>.<n>.<suffix>", localised; null when out of memory.
PalChar* BuildEntryPath(const PalChar* dir, const PalChar* bucket, PalInt32 n,
                        const char* suffix) noexcept;

// Builds "<dir>/<name>", localised; null when out of memory.
PalChar* BuildDirPath(const PalChar* dir, const PalChar* name) noexcept;

// True when `s` holds '<' or '>', which no entry-file field may hold.
bool HoldsTagText(const PalChar* s) noexcept;

// True when `location` is a plain name ending in "dat" directly inside the
// handle's directory (the same text, or the same directory by file identity)
// and, when `entryFilePath` is given, the data file that belongs to that
// entry file ("<stem>dat" beside "<stem>xml").
bool LocationIsOwn(const DepotHandle* handle, const PalChar* location,
                   const PalChar* entryFilePath) noexcept;

// True when the entry's writer is alive: the record holds the writer lock, or
// another open of its entry file does. Opens nothing but a regular file.
bool WriterAlive(const DepotEntry* entry) noexcept;

// Writes all `length` bytes of `text` at the file's position.
PalError WriteWhole(PalFileHandle file, const PalChar* text, PalUint32 length) noexcept;

// True when `name` is longer than three characters and ends in "xml".
bool HasEntrySuffix(const PalChar* name) noexcept;

// Closes a file handle's descriptor cell if one was allocated (also after a
// failed open, whose cell holds -1) and clears it.
void CloseQuietly(PalFileHandle* file) noexcept;

// Creates the lock file `name` in the current directory when missing (a
// semaphore key is derived from its path; its content is never used).
PalError TouchLockFile(const PalChar* name) noexcept;

// Sets the calling thread's record of why its last constructor or lookup
// failed (DepotGetLastError): `error`, and the path of the file it concerned
// (null: none), copied and cut to PAL_PATH_MAX characters. Success is
// recorded as Ok() without a file.
void RecordFailure(PalError error, const PalChar* file = nullptr) noexcept;

// `s`, or "(null)" in its place, for a trace line.
inline const char* OrNull(const char* s) noexcept {
    return s != nullptr ? s : "(null)";
}

inline PalError Ok() noexcept {
    return PalErrorCreate(PAL_OK, 0, 0);
}

}  // namespace fanout

#endif  // FANOUT_SRC_DEPOT_DEPOT_INTERNAL_H
