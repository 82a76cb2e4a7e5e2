/* ferry.h - the content delivery service client.
 *
 * A type-11 stream does not carry its segments' data: each segment names a
 * package of an external content delivery service, which this client fetches
 * into the service's local cache through the service's client library
 * ("FerryClient", loaded at run time), one download at a time per process.
 * The cached files are then read like any local file (stream.h).
 *
 * The client library is found, once per process, in this order: its
 * "DownloadFile" already among the process's symbols (the library is linked
 * into the program); the library by its base name (libFerryClient.so on the
 * loader's search path); the directory that the service's configuration file
 * "/tmp/ferry.cfg" names in its "ClassPath" line (the directory of
 * "Larder.jar", with "../ferry" in its place), which is also appended to
 * LD_LIBRARY_PATH.
 *
 * Conventions of this family:
 * - The record side: failures raise catalogue exceptions (exception.h): 203
 *   a service call that failed, 204 a download whose completion never came,
 *   206 through ExDistributionDeferred (fanout2.h) when the service is busy;
 *   36 for a segment without "ferry_packageid". The loading itself never
 *   raises: it logs and leaves ferry_loaded clear.
 * - One process-wide mutex and monitor. The completion callback arrives on a
 *   thread of the client library; the reader holds the mutex from before the
 *   download starts until the segment is finished, releasing it only while it
 *   waits, so a callback that comes early is never lost. Only one download
 *   is waited for at a time in a process.
 * - Diagnostics go to standard error through ferry_log. The password of a
 *   segment is never written anywhere: a present one shows as "<????>".
 *
 * Thread safety: any thread may call the client. Loading happens once, under
 * a once-only guard; downloads of several threads are serialised by the
 * process-wide mutex below, so a second thread waits while the first
 * downloads.
 */
#ifndef FANOUT_FERRY_H
#define FANOUT_FERRY_H

#include <stdint.h>

#include "export.h"
#include "stream.h"
#include "types.h"

FANOUT_BEGIN_DECLS

/* The completion callback the client library calls, on a thread of its own:
 * (handle, status), status 0 meaning success. */
typedef void (*FerryCallback)(uint32_t handle, int32_t status);

/* The client library's entry points, in the order of the function table.
 * Strings may be null. */

/* Starts the download of `package` and fills *handle. Returns 0 started
 * (the callback follows), 16 started and finished (no callback), 5 deferred
 * (the service is busy), any other value a failure. */
typedef int32_t (*FerryDownloadFileFn)(const char* manager, const char* package,
                                       const char* destination, const char* user,
                                       const char* password, FerryCallback callback,
                                       uint32_t* handle);
/* The path of the downloaded package of `handle` (owned by the library). */
typedef const char* (*FerryGetDownloadDirectoryFn)(uint32_t handle);
/* The package's size into *size; 0 on success. */
typedef int32_t (*FerryGetSingleFileSizeFn)(const char* manager, const char* package,
                                            const char* user, const char* password, int64_t* size);
/* Resolved with the others but never called; its arguments are the
 * service's. */
typedef int32_t (*FerryPublishFileFn)(void);
/* Gives the handle back to the library; 0 on success. */
typedef int32_t (*FerryReleaseFileFn)(uint32_t handle);

typedef struct FerryFuncs {
    FerryDownloadFileFn DownloadFile;
    FerryGetDownloadDirectoryFn GetDownloadDirectory;
    FerryGetSingleFileSizeFn GetSingleFileSize;
    FerryPublishFileFn PublishFile;
    FerryReleaseFileFn ReleaseFile;
} FerryFuncs;

/* 1 once ferry_init has found the client library with all its entry points,
 * else 0. */
FANOUT_EXPORT extern int32_t ferry_loaded;

/* The entry points, valid while ferry_loaded is 1. Filled from the library
 * that ferry_init loaded; when the library is linked into the program, the
 * loading leaves the table empty and ferry_init then fills it from the
 * process's own symbols (a name the process lacks stays null; a call through
 * a null slot is treated as a call that returned -1). */
FANOUT_EXPORT extern FerryFuncs ferry_funcs;

/* Finds and loads the client library, resolves its entry points and creates
 * the mutex and monitor, exactly once per process (later and concurrent
 * calls wait for the first and then do nothing). Logs
 * "fanout: ferry_init: ferry_load() returned N." with 0 or -1. Check
 * ferry_loaded afterwards. Registers ferry_deinit with atexit. Never
 * raises. */
FANOUT_EXPORT void ferry_init(void);

/* Destroys the mutex and the monitor; registered with atexit by ferry_init.
 * A second call does nothing. The library stays loaded. */
FANOUT_EXPORT void ferry_deinit(void);

/* Fetches the segment of `toc` whose index state->next_segment holds, when
 * there is one. The segment's "ferry_manager", "ferry_packageid" (required),
 * "ferry_destination", "ferry_username" and "ferry_password" go to
 * "DownloadFile"; a started download is waited for (in rounds of 10 seconds,
 * at most 10800 seconds), polling for pause and cancel between rounds when
 * `data` is not null. The index then moves on, the cached file's path is
 * appended to state->cursor, and the segment gets "data_path" and "dat_file"
 * (the path) and "size" (the file's size, when it exists).
 *
 * Memory of the state: state->list owns the block that state->cursor points
 * into. A path is appended to that block when the cursor is at its start;
 * when the cursor is null (every name taken) a new block is started and the
 * old list freed; when the cursor has moved into the block, the names not
 * yet taken and the new one are copied into a new block. A cursor that is
 * set while list is null is taken as the start of a runtime-allocated block
 * and adopted as the list. Free state->list (mg_free) when done.
 *
 * Returns 0 (also when every segment is fetched already, or for a null toc
 * or state), or -2 (cancelled) / -3 (paused) when a stop command came while
 * waiting: the control block is then left at *data (free it with mg_free)
 * and the pending download is not released; the segment counts as fetched.
 * On a 0 result *data is null. Raises 203 ("DownloadFile" failed, or the
 * service is not loaded: result -1; "ReleaseFile" failed), 204 (no
 * completion within 10800 seconds), ExDistributionDeferred with 206 and the
 * segment's "ferry_deferred" seconds (default 300) when the service is busy,
 * 36 for a segment without "ferry_packageid"; the mutex is released on every
 * path. */
FANOUT_EXPORT int32_t ferry_download_next(PropertiesList* toc, FileList* state, void** data);

/* The completion callback handed to "DownloadFile": notes that the download
 * ended (also after a bad status, which it logs) and wakes the reader. Safe
 * on any thread; never raises. */
FANOUT_EXPORT void ferry_callback(uint32_t handle, int32_t status);

/* A newly allocated path (mg_free) of the cached file of `handle`: the
 * library's path when it exists; else, when it has two "/" or more, the path
 * without its last two components followed by "/cache/files/1/<package>-1"
 * (cut to the path's length plus 100); else the library's path unchanged.
 * Null when the library gives no path. A null package counts as "". */
FANOUT_EXPORT char* ferry_get_actual_path(uint32_t handle, const char* package);

/* Locks and unlocks the process-wide mutex (after ferry_init). */
FANOUT_EXPORT void ferry_lock(void);
FANOUT_EXPORT void ferry_unlock(void);

/* Writes the formatted text to standard error, as it is (no newline is
 * added), and flushes it. The level (2 errors, 9 tracing) is accepted and
 * ignored. A null format is ignored. */
FANOUT_EXPORT void ferry_log(int32_t level, const char* format, ...) FANOUT_PRINTF(2, 3);

/* FOR TESTS ONLY: a seam over the wait for the completion callback, so that
 * the 10800-second limit can be tested without waiting. When a hook is set,
 * it is called before each wait round (`round` 0, 1, ...) with the mutex
 * held, and returns how many milliseconds that round may wait (a negative
 * value: until notified) instead of 10000. Every round still counts as 10
 * seconds toward the limit, so a hook that returns 0 reaches it after 1080
 * quick rounds. Null restores the normal wait. Set it while no download is
 * waited for. Programs other than tests never call this. */
typedef int32_t (*FerryWaitHook)(uint32_t round);
FANOUT_EXPORT void ferry_set_wait_hook(FerryWaitHook hook);

FANOUT_END_DECLS

#endif /* FANOUT_FERRY_H */
