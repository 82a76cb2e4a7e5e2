/* depot.h - the Depot: a persistent on-disk store of distribution segments.
 *
 * A depot is one flat directory. Each entry, keyed by (id, version), is an
 * entry file of tagged text ("<bucket>.<n>.xml") and a data file holding the
 * segment's bytes ("<bucket>.<n>.dat"). Entries are hashed into numbered
 * buckets so that a lookup reads only the entry files of one bucket; records
 * a process holds open are cached in the handle's `entries` list.
 *
 * Where the locks live. Processes exclude each other through two System V
 * semaphores keyed on the lock files "depot.lk" and "entry.lk" (and
 * "enum.lk" per enumerator), which DepotNew creates in the process's
 * current working directory, not in the depot directory. So:
 * - Two programs share the locks only when they open the depot from the
 *   same working directory. Two programs started in different directories
 *   use different lock files and different semaphores: on one depot they do
 *   not exclude each other at all. Programs of the service, and every user
 *   of one depot, change into one agreed directory (fanout-depot changes
 *   into the depot directory itself) before DepotNew.
 * - The lock files are created with mode 0600 and the semaphores with
 *   permissions 0600, owned by the first user who opened the depot from that
 *   directory. Another user's DepotNew there fails, (-4, EACCES, n), naming
 *   the lock file it could not open (DepotGetLastError). A depot is used by
 *   one user; several users mean one service account.
 * - The lock files and semaphores stay after every program has ended; the
 *   working directory needs to be writable the first time.
 *
 * Conventions of this interface:
 * - Nothing here raises. Operations that can fail return a PalError by value
 *   (palError 0 on success); PalErrorText (palerror.h) says what a record
 *   means. Lookups and constructors return a pointer, null on failure; the
 *   calling thread then learns why from DepotGetLastError, whose record and
 *   steps each such function lists. Every operation writes entry/exit trace
 *   lines through Logger.
 * - The depot lock is always taken before the entry lock. Functions ending
 *   in _internal take no depot lock: their callers hold it ("REQUIRES: depot
 *   lock held").
 * - A DepotEntry returned by a lookup or an addition belongs to the handle's
 *   `entries` list; the caller gives it back with DepotFreeEntry (or hands it
 *   to an operation documented as releasing it) and never frees it directly.
 * - Sizes of the space accounting are in KiB (1024 bytes), unsigned 32-bit.
 * - Lock modes. By default DepotNew (and DepotEnumNew) release their
 *   semaphores once without taking them, which raises each count by one for
 *   the life of the process: while N processes hold handles the locks admit
 *   up to 1 + N holders and do not exclude. In strict mode (configuration key
 *   "depot_strict_locks=1" in the file named by FANOUT_CONFIG, or environment
 *   FANOUT_DEPOT_STRICT_LOCKS=1; the environment wins, and a program may
 *   choose the mode used when neither says, DepotSetStrictLocksDefault) the
 *   counts stay at one and DepotEntryModified releases the entry lock on
 *   every path, so processes exclude each other. The mode is fixed for a
 *   handle when DepotNew opens it.
 * - Files. Every entry and data file is opened without following symbolic
 *   links and only when it is a regular file; new ones are created
 *   exclusively. An entry file whose location is not the plain name of its
 *   own data file inside the depot directory counts as damaged: it is not
 *   turned into a record, and nothing it names is ever opened or removed.
 * - Writers. The process that adds an entry holds a lock on the new entry
 *   file until the entry is complete or its record is released. An entry in
 *   progress whose writer died (no lock held) is stale: an addition of its key
 *   replaces it and purges remove it; a live writer's entry is left alone.
 * - Threads. A handle, its records and its enumerators are used by one
 *   thread at a time: threads that share a handle serialise their calls
 *   themselves. Separate handles may be used by separate threads at once;
 *   they meet through the semaphores as separate processes do, so in strict
 *   mode they exclude each other and in the default mode they do not. Set
 *   TableSize, and change the working directory, before other threads open
 *   handles. DepotGetLastError's record is kept per thread.
 */
#ifndef FANOUT_DEPOT_H
#define FANOUT_DEPOT_H

#include "palerror.h"
#include "palfile.h"
#include "pallist.h"
#include "pallock.h"
#include "paltypes.h"

FANOUT_BEGIN_DECLS

/* An open depot, created by DepotNew and released by DepotFree. */
typedef struct DepotHandle {
    PalSemHandle depotLock;   /* depot-wide lock, keyed on "depot.lk" */
    PalSemHandle entryLock;   /* lock over records and entry files, "entry.lk" */
    PalChar* directory;       /* the depot directory (owned) */
    PalUint32 availableSpace; /* KiB still free for reservation */
    PalUint32 storageLimit;   /* configured size in KiB; 0: no accounting */
    PalList1* entries;        /* DepotEntry* records this process holds open */
    PalBool strictLocks;      /* strict lock mode, fixed by DepotNew */
} DepotHandle;

/* Entry states. The Depot writes only 0 and 1; 2 is set by callers that use
 * a complete entry as a local source. */
#define DEPOT_STATE_IN_PROGRESS 0
#define DEPOT_STATE_COMPLETE 1
#define DEPOT_STATE_IN_USE 2

/* One entry's record. The fields marked "file" are persisted in the entry
 * file; the others live only in the record. */
typedef struct DepotEntry {
    PalUint64 segmentSize;      /* data file size as last read */
    PalInt32 referenceCount;    /* file: completed registrations */
    PalInt32 openCount;         /* opens of the data file */
    PalInt32 writeCount;        /* opens of the data file for writing */
    PalInt32 deadline;          /* file: seconds since 1970; purgeable after it */
    PalInt32 lastAccessTime;    /* last open of the data file */
    PalInt32 lastWriteTime;     /* last open for writing: the modification stamp */
    PalInt32 checksum;          /* file: as given by the caller, never computed */
    PalInt32 state;             /* file: DEPOT_STATE_* */
    PalChar* id;                /* file: segment identifier (owned) */
    PalChar* version;           /* file: segment version (owned) */
    PalChar* entryFilePath;     /* full path of the entry file (owned) */
    PalChar* location;          /* file: full path of the data file (owned) */
    PalUint8* properties;       /* file (base64): encoded property list (owned) */
    PalUint32 propertiesLength; /* length of properties in bytes */
    PalFileHandle writerLock;   /* this process's writer lock on the entry file
                                 * while it adds the entry (owned; null else) */
} DepotEntry;

/* An enumeration over every entry file of a depot (DepotEnumNew). */
typedef struct DepotEnum {
    DepotHandle* depot; /* the depot walked (borrowed) */
    PalSemHandle lock;  /* the enumerator's lock, keyed on "enum.lk" */
    PalDirHandle dir;   /* the open depot directory */
} DepotEnum;

/* ---------------------------------------------------------------- handle */

/* The lock mode used by later DepotNew calls of this process when neither
 * the environment nor the configuration file chooses one (PAL_FALSE, the
 * established behaviour, until a program says otherwise). The project's
 * programs choose strict mode. */
FANOUT_EXPORT void DepotSetStrictLocksDefault(PalBool strict) FANOUT_NOEXCEPT;

/* Opens a depot over `directory` (null: "depot" relative to the current
 * directory), creating the directory when missing (failure to create it does
 * not fail the call), with a storage limit in KiB (0: no accounting). Creates
 * the lock files "depot.lk" and "entry.lk" in the current directory (see
 * "Where the locks live" above). The handle's lock mode (strictLocks) is
 * decided here: see the top of this file.
 * On success *handle receives a new handle the caller owns (DepotFree) and the
 * result is PAL_OK, or PAL_WAIT_TIMEOUT when the entry semaphore could not be
 * created and the failure was tolerated: treat a non-null *handle as success.
 * On failure *handle is null and the result says why: (21, 0, 0) a null
 * `handle`, PAL_ERR_NO_MEMORY, or the error of creating a lock file (as
 * PalFileOpen reports it: (-4, EACCES, n) for another user's file) or its
 * semaphore. DepotGetLastError gives the same record and names the lock
 * file concerned ("depot.lk" or "entry.lk", relative to the working
 * directory). */
FANOUT_EXPORT PalError DepotNew(DepotHandle** handle, const PalChar* directory,
                                PalUint32 storageLimit) FANOUT_NOEXCEPT;

/* Sets the depot directory (null: "depot") under the depot lock and creates
 * it when it is not a directory. Returns the lock error, PAL_ERR_NO_MEMORY,
 * or the directory creation's status. */
FANOUT_EXPORT PalError DepotSetDir(DepotHandle* handle, const PalChar* directory) FANOUT_NOEXCEPT;
/* DepotSetDir without the lock. REQUIRES: depot lock held. */
FANOUT_EXPORT PalError DepotSetDir_internal(DepotHandle* handle,
                                            const PalChar* directory) FANOUT_NOEXCEPT;

/* The depot directory, borrowed from the handle (no lock taken). */
FANOUT_EXPORT const PalChar* DepotGetDir(DepotHandle* handle) FANOUT_NOEXCEPT;

/* Frees every record still in `entries`, the list, the directory, this
 * process's semaphore records and the handle. A null handle returns PAL_OK.
 * A normal run returns PAL_ERR_NO_MORE (the end of the record walk): callers
 * ignore the status. On a lock or iteration failure the handle is kept and
 * that error returned. */
FANOUT_EXPORT PalError DepotFree(DepotHandle* handle) FANOUT_NOEXCEPT;

/* Writes one trace line at `level` (0 failure, 1 tolerated problem, 2
 * notice, 3 entry/exit trace) through the runtime's LogMsg. A format of 975
 * characters or more logs nothing; a formatted line is cut at 1023
 * characters. */
FANOUT_EXPORT void Logger(PalInt32 level, const PalChar* format, ...) FANOUT_NOEXCEPT
    FANOUT_PRINTF(2, 3);

/* ------------------------------------------------------ records and files */

/* A new zero-filled record owned by the caller, or null when out of memory
 * (DepotGetLastError: PAL_ERR_NO_MEMORY). Release it with DepotEntryFree
 * while it is in no list. */
FANOUT_EXPORT DepotEntry* DepotEntryNew(void) FANOUT_NOEXCEPT;

/* Builds the entry-file text of `entry`. On success *text receives a new
 * buffer owned by the caller (PalMemoryFree) and *length its length in bytes,
 * the terminating zero byte included. Fails with PAL_ERR_NO_MEMORY or
 * PAL_ERR_INVALID_ARGUMENT (a field that holds tag text); the outputs are then
 * untouched. */
FANOUT_EXPORT PalError DepotEntrySetProperties(DepotHandle* handle, DepotEntry* entry,
                                               PalChar** text, PalUint32* length) FANOUT_NOEXCEPT;

/* Parses a zero-terminated entry-file text into a new record appended to the
 * handle's `entries` (entryFilePath is left null for the caller to set).
 * Null when a field is missing, the properties do not decode, or memory runs
 * out; DepotGetLastError then says which: (21, 0, 0) a null argument,
 * (21, 0, 1) an element missing, (21, 0, 2) properties that do not decode,
 * PAL_ERR_NO_MEMORY. REQUIRES: depot lock held. */
FANOUT_EXPORT DepotEntry* DepotEntryNewFromToc(DepotHandle* handle,
                                               const PalChar* text) FANOUT_NOEXCEPT;

/* ------------------------------------------------------------- hashing */

/* Requested number of buckets (256); may be set before first use. */
FANOUT_EXPORT extern PalUint32 TableSize;
/* The modulus in use, chosen from PowerOf2Primes on first use (0 before). */
FANOUT_EXPORT extern PalUint32 NearestPrime;
/* For k = 1 to 16 the largest prime not above 2 to the power k. */
FANOUT_EXPORT extern const PalUint32 PowerOf2Primes[16];

/* Hashes `text` (only its first (L + 1) / 2 characters count) into a bucket
 * number stored in *bucket. Always PAL_OK; a null text hashes as empty. */
FANOUT_EXPORT PalError DepotHashFunction(const PalChar* text, PalUint32* bucket) FANOUT_NOEXCEPT;

/* The bucket name ("%08u") of the key, a new nine-byte string owned by the
 * caller (PalMemoryFree), or null, only when out of memory. */
FANOUT_EXPORT PalChar* DepotFindBucket(const PalChar* id, const PalChar* version) FANOUT_NOEXCEPT;

/* The list descriptor of the newest cached record with this key, or
 * 0xFFFFFFFF when none. REQUIRES: depot lock held. */
FANOUT_EXPORT PalUint32 DepotFindEntryIndex(DepotHandle* handle, const PalChar* id,
                                            const PalChar* version) FANOUT_NOEXCEPT;

/* Looks the key up, first among the cached records (checked against and
 * refreshed from their entry files), then in the key's bucket on disk. The
 * record returned belongs to the handle's list: give it back with
 * DepotFreeEntry. Null when not found or on any failure; DepotGetLastError
 * then tells which, with the file concerned:
 *   (2, 0, 0)   PAL_ERR_NO_ENTRY: the bucket holds no entry of the key;
 *   (21, 0, 0)  a null argument;
 *   the depot lock's error ("depot.lk"), or that of opening the depot
 *               directory (the directory);
 *   the error of reading an entry file of the bucket (that file): the scan
 *               ended there, and the key may be stored after it;
 *   (21, 0, 1), (21, 0, 2)  the key's entry file does not parse (that file);
 *   (21, 0, 3)  the key's entry file names a location other than its own
 *               data file: it is damaged (that file);
 *   PAL_ERR_NO_MEMORY. */
FANOUT_EXPORT DepotEntry* DepotGetEntry(DepotHandle* handle, const PalChar* id,
                                        const PalChar* version) FANOUT_NOEXCEPT;

/* DepotGetEntry without the lock, with the same DepotGetLastError records.
 * When `sequences` is not null it receives a new list (PalList1Destroy) of
 * the sequence numbers of the bucket's entry files seen by the scan, stored
 * as pointer-sized integers (it stays null when the cache answers).
 * REQUIRES: depot lock held. */
FANOUT_EXPORT DepotEntry* DepotGetEntry_internal(DepotHandle* handle, const PalChar* id,
                                                 const PalChar* version,
                                                 PalList1** sequences) FANOUT_NOEXCEPT;

/* ------------------------------------------------------------ lifecycle */

/* Adds the key as a new in-progress entry: creates its entry file and an
 * empty data file, both exclusively, under the first sequence number whose
 * names are both free, and returns the record (in the handle's list), which
 * holds the writer lock until DepotCompleteEntry or the record's release.
 * When a complete entry (state 1) exists it is returned instead; a stale
 * in-progress entry (its writer died) is removed and the key added afresh;
 * an entry in any other state makes the call return null. An id or version
 * holding '<' or '>' (tag text) is refused. `properties` (propertiesLength
 * bytes, may be null when 0) is copied. Null on every failure, leaving no
 * file behind; DepotGetLastError then tells why, with the file concerned:
 *   (21, 0, 0)  a null handle, id or version;
 *   (21, 0, 3)  the id or version holds tag text;
 *   (16, 0, 0)  PAL_ERR_BUSY: the key's entry is in progress by a live
 *               writer, or in use (its entry file);
 *   the depot or entry lock's error ("depot.lk", "entry.lk");
 *   the error of creating, locking or writing the entry file or creating
 *               the data file (that file): (-4, EACCES, n) for a depot
 *               directory this user may not write, ENOSPC for a full disk,
 *               EEXIST when 1,024 free names in a row were all taken;
 *   PAL_ERR_NO_MEMORY. */
FANOUT_EXPORT DepotEntry* DepotAddEntry(DepotHandle* handle, const PalChar* id,
                                        const PalChar* version, const PalUint8* properties,
                                        PalUint32 propertiesLength) FANOUT_NOEXCEPT;

/* Writes the record's entry file in place (no truncation) under the entry
 * lock. Returns the lock, text-building or file error. */
FANOUT_EXPORT PalError DepotSaveEntry(DepotHandle* handle, DepotEntry* entry) FANOUT_NOEXCEPT;
/* DepotSaveEntry without the lock. REQUIRES: entry lock held. */
FANOUT_EXPORT PalError DepotSaveEntry_internal(DepotHandle* handle,
                                               DepotEntry* entry) FANOUT_NOEXCEPT;

/* Sets the entry's state and saves it, under the entry lock; an unchanged
 * state writes nothing. Returns the lock or save status. */
FANOUT_EXPORT PalError DepotEntryChangeState(DepotHandle* handle, DepotEntry* entry,
                                             PalInt32 state) FANOUT_NOEXCEPT;

/* Marks the entry complete: forces its data file and the depot directory
 * out to the device, then sets state 1, raises the deadline to `deadline`
 * when that is later, adds one reference, saves the entry file and forces it
 * out too; then releases the record
 * (DepotFreeEntry): the caller must not use `entry` afterwards. The count and
 * deadline are re-read from the entry file first, so completions in other
 * processes add up. Returns the save status, or PAL_ERR_NO_ENTRY (nothing
 * written) when the entry was deleted meanwhile. */
FANOUT_EXPORT PalError DepotCompleteEntry(DepotHandle* handle, DepotEntry* entry,
                                          PalInt32 deadline) FANOUT_NOEXCEPT;

/* Drops one reference (re-read from the entry file first). With references
 * left the state goes back to 1, and the entry file is rewritten only when the
 * state changes (so a decrement of an entry already in state 1 stays in the
 * record only; callers mark the entry in use, state 2, before unregistering).
 * At no references the entry's files are deleted as by DepotRemoveEntry with
 * `force`. The record is released in every case except a lock failure: the
 * caller must not use `entry` afterwards. Returns the lock error, the removal
 * status, PAL_ERR_NO_ENTRY when the entry was deleted meanwhile, or PAL_OK. */
FANOUT_EXPORT PalError DepotUnregisterEntry(DepotHandle* handle, DepotEntry* entry,
                                            PalBool force) FANOUT_NOEXCEPT;

/* When the entry has no references (as its entry file says now), or `force`
 * is set, deletes its data file and then, only once the data file is gone, its
 * entry file; a path that now holds another key is left alone, and so is an
 * entry in progress whose writer is another live record (PAL_ERR_BUSY).
 * Releases the record either way (unless the entry lock cannot be taken).
 * Returns the status of the last deletion attempted, PAL_OK when none, or a
 * lock error. */
#ifndef PAL_ERR_BUSY
#define PAL_ERR_BUSY 16
#endif
FANOUT_EXPORT PalError DepotRemoveEntry(DepotHandle* handle, DepotEntry* entry,
                                        PalBool force) FANOUT_NOEXCEPT;
/* DepotRemoveEntry without the depot lock. REQUIRES: depot lock held. */
FANOUT_EXPORT PalError DepotRemoveEntry_internal(DepotHandle* handle, DepotEntry* entry,
                                                 PalBool force) FANOUT_NOEXCEPT;

/* True when the entry is in progress and its writer is alive: this record
 * holds the writer lock, or another open of the entry file (in this or
 * another process) does. False for a stale entry, whose writer died or gave
 * its record up, and when the entry file cannot be opened. */
FANOUT_EXPORT PalBool DepotEntryWriterAlive(DepotHandle* handle, DepotEntry* entry) FANOUT_NOEXCEPT;

/* Takes the record off the handle's list and frees it; files are untouched.
 * Returns PAL_OK or a lock error (the record is then kept). */
FANOUT_EXPORT PalError DepotFreeEntry(DepotHandle* handle, DepotEntry* entry) FANOUT_NOEXCEPT;
/* DepotFreeEntry without the depot lock. REQUIRES: depot lock held. */
FANOUT_EXPORT PalError DepotFreeEntry_internal(DepotHandle* handle,
                                               DepotEntry* entry) FANOUT_NOEXCEPT;

/* Frees a record that was never added to a list: its strings and the record,
 * not its properties. Returns PAL_OK or the entry lock's error. */
FANOUT_EXPORT PalError DepotEntryFree(DepotHandle* handle, DepotEntry* entry) FANOUT_NOEXCEPT;

/* Why the calling thread's last DepotNew, DepotAddEntry, DepotGetEntry,
 * DepotGetEntry_internal, DepotEntryNew or DepotEntryNewFromToc failed, as
 * each of them lists; PAL_OK when that call succeeded. Other Depot
 * functions call these too, so read it right after the call that failed.
 * When the failure concerned a file, *file (when `file` is not null)
 * receives its path as the Depot used it (lock files relative to the
 * working directory), else "": the thread's own text, good until the
 * thread's next call of these functions. Never fails. */
FANOUT_EXPORT PalError DepotGetLastError(const PalChar** file) FANOUT_NOEXCEPT;

/* ---------------------------------------------------------------- space */

/* Bytes to KiB, rounded up, low 32 bits kept. */
FANOUT_EXPORT PalUint32 ConvertDataSize(PalUint64 bytes) FANOUT_NOEXCEPT;

/* Reserves `kib` KiB of the depot's balance; PAL_ERR_NO_SPACE when the
 * balance is smaller (nothing changes). Always succeeds without a limit. */
#ifndef PAL_ERR_NO_SPACE
#define PAL_ERR_NO_SPACE 26
#endif
FANOUT_EXPORT PalError DepotReserveDiskSpace(DepotHandle* handle, PalUint32 kib) FANOUT_NOEXCEPT;

/* Gives `kib` KiB back to the balance (no upper bound). */
FANOUT_EXPORT void DepotUnreserveDiskSpace(DepotHandle* handle, PalUint32 kib) FANOUT_NOEXCEPT;

/* Gives back the difference between the entry's recorded segmentSize and its
 * data file's size. An unknown key is PAL_OK. Returns the size query status. */
FANOUT_EXPORT PalError DepotAdjustReservedSpace(DepotHandle* handle, const PalChar* id,
                                                const PalChar* version) FANOUT_NOEXCEPT;

/* Stores the data file's size in entry->segmentSize (entry lock). Returns the
 * size query status; a data file that is not a regular file (a link, for
 * instance) fails it. */
FANOUT_EXPORT PalError DepotSetSegmentSize(DepotHandle* handle, DepotEntry* entry) FANOUT_NOEXCEPT;

/* The data file's size in *bytes (also stored in segmentSize), under the
 * entry lock. On failure *bytes is untouched and the error returned. */
FANOUT_EXPORT PalError DepotEntryGetFileSize(DepotHandle* handle, DepotEntry* entry,
                                             PalUint64* bytes) FANOUT_NOEXCEPT;

/* Adds the KiB of every data file stored inside the depot directory to
 * *total (initialised by the caller). The records the scan creates stay in
 * the handle's list until DepotFree. */
FANOUT_EXPORT PalError DepotGetPermStorage(DepotHandle* handle, PalUint32* total) FANOUT_NOEXCEPT;

/* ------------------------------------------------------ enumerate, purge */

/* Starts an enumeration of the depot directory (creates "enum.lk" in the
 * current directory). *enumerator receives a new enumerator the caller owns
 * (DepotEntryEnumDelete), or null on failure, which the result describes. */
FANOUT_EXPORT PalError DepotEnumNew(DepotHandle* handle, DepotEnum** enumerator) FANOUT_NOEXCEPT;

/* The next entry's record (appended to the handle's list), or null at the end
 * or on an unreadable entry file, which ends the walk. REQUIRES: depot lock
 * held (the records join the handle's list). */
FANOUT_EXPORT DepotEntry* DepotEntryEnumNextElement(DepotEnum* enumerator) FANOUT_NOEXCEPT;

/* As DepotEntryEnumNextElement, but an entry file that cannot be read, is
 * not a regular file, does not parse or names a location outside its own data
 * file is skipped and counted in *skipped (when not null) instead of ending
 * the walk. Null at the end. REQUIRES: depot lock held. */
FANOUT_EXPORT DepotEntry* DepotEntryEnumNextReadable(DepotEnum* enumerator,
                                                     PalUint32* skipped) FANOUT_NOEXCEPT;

/* Closes the directory and this process's semaphore record and frees the
 * enumerator. Returns PAL_OK or the lock error (nothing freed). */
FANOUT_EXPORT PalError DepotEntryEnumDelete(DepotEnum* enumerator) FANOUT_NOEXCEPT;

/* Removes every entry of the depot (DepotRemoveEntry_internal with `force`):
 * without force only entries without references lose their files. Entries
 * in progress whose writer is alive are left alone. The walk ends at the
 * first entry file that cannot be read. Returns the status of the last
 * removal or the lock/enumerator error. */
FANOUT_EXPORT PalError DepotPurge(DepotHandle* handle, PalBool force) FANOUT_NOEXCEPT;

/* Deletes the files of every complete entry whose deadline has passed,
 * whatever its references. The walk ends at the first entry file that cannot
 * be read. Returns the status of the last removal. */
FANOUT_EXPORT PalError DepotPurgeExpiredEntries(DepotHandle* handle) FANOUT_NOEXCEPT;

/* DepotPurge and DepotPurgeExpiredEntries walking the whole depot: entry
 * files that cannot be used are skipped as by DepotEntryEnumNextReadable and
 * counted in *unreadable (when not null; set to 0 first). */
FANOUT_EXPORT PalError DepotPurgeCounting(DepotHandle* handle, PalBool force,
                                          PalUint32* unreadable) FANOUT_NOEXCEPT;
FANOUT_EXPORT PalError DepotPurgeExpiredCounting(DepotHandle* handle,
                                                 PalUint32* unreadable) FANOUT_NOEXCEPT;

/* ------------------------------------------------- data files, checkpoints */

/* Opens the entry's data file for writing (read-write; emptied when
 * `truncate` is set, never created), counts the open and stamps
 * lastAccessTime and lastWriteTime with the current time. Only the entry's
 * own data file in the depot directory is opened (else
 * PAL_ERR_INVALID_ARGUMENT), never through a link and only when it is a
 * regular file. On success *file receives the open file, owned by the caller
 * (PalFileClose); on failure *file->handle is null and the lock or open error
 * is returned. */
FANOUT_EXPORT PalError DepotFileOpenForWrite(DepotHandle* handle, DepotEntry* entry,
                                             PalFileHandle* file, PalBool truncate) FANOUT_NOEXCEPT;

/* Opens the entry's data file read-only and stamps lastAccessTime; ownership
 * and failures as DepotFileOpenForWrite. */
FANOUT_EXPORT PalError DepotFileOpenForRead(DepotHandle* handle, DepotEntry* entry,
                                            PalFileHandle* file) FANOUT_NOEXCEPT;

/* True when the cached entry's lastWriteTime differs from `stamp` (another
 * writer opened the data file since). On that answer, in the default lock
 * mode, the entry lock stays held by this process until it ends (its unit
 * from DepotNew keeps the process itself going); in strict mode it is
 * released. False for an unknown key or a lock failure. */
FANOUT_EXPORT PalBool DepotEntryModified(DepotHandle* handle, const PalChar* id,
                                         const PalChar* version, PalInt32 stamp) FANOUT_NOEXCEPT;

/* When the cached entry's lastWriteTime equals `stamp`, stores the data
 * file's size in *offset (the point to resume at); otherwise leaves *offset
 * unchanged and returns PAL_OK. An unknown key is PAL_ERR_NO_ENTRY. */
FANOUT_EXPORT PalError DepotSetCheckpointOffset(DepotHandle* handle, const PalChar* id,
                                                const PalChar* version, PalInt32 stamp,
                                                PalUint64* offset) FANOUT_NOEXCEPT;

FANOUT_END_DECLS

#endif /* FANOUT_DEPOT_H */
