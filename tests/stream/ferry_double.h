// ferry_double.h - the controls of the delivery service's stand-in client
// library (libFerryClient.so, built only for the tests).
//
// The stand-in keeps a "server" and a cache in ordinary directories: a
// download of package P with manager M and destination D copies the file M/P
// to D/h<handle>/P on a worker thread and then calls the completion callback
// from that thread; "GetDownloadDirectory" gives the copy's path and
// "GetSingleFileSize" the size of M/P. What each package does is set per
// package with ferry_double_mode; unknown packages complete.
#pragma once

#include <cstddef>
#include <cstdint>

enum FerryDoubleMode {
    kFerryComplete = 0,  // copy on the worker, then callback(handle, 0)
    kFerryBusy,          // "DownloadFile" gives a handle and 5
    kFerryAtOnce,        // copy before returning 16; no callback
    kFerryFails,         // "DownloadFile" gives a handle and 7; "GetSingleFileSize" 7
    kFerryBadStatus,     // no copy; callback(handle, 3) on the worker
    kFerrySilent,        // 0 and a handle, and never a callback
    kFerrySlow,          // the worker waits for ferry_double_release, then completes
    kFerryEarly,         // "DownloadFile" returns once the worker is calling back and
                         // either is done or has been kept waiting for 100 ms
    kFerryReleaseFails,  // completes; "ReleaseFile" of its handle gives 9
    kFerryMisplaced,     // copies to D/cache/files/1/P-1, reports D/gone/P; 16
};

extern "C" {
// Sets the behaviour of `package`.
void ferry_double_mode(const char* package, int mode);
// Makes "GetDownloadDirectory" report `path` for `handle`.
void ferry_double_path(uint32_t handle, const char* path);
// Lets every slow download that waits go on.
void ferry_double_release(void);
// Releases and joins every worker, then forgets modes, paths and the
// journal; handles start at 1 again.
void ferry_double_reset(void);
// Copies the journal of calls ("DownloadFile(P,user,password)=rc#handle;",
// "ReleaseFile(h)=rc;", "GetSingleFileSize(P)=rc;") into out (cap bytes,
// terminated); returns its full length.
size_t ferry_double_journal(char* out, size_t cap);
}
