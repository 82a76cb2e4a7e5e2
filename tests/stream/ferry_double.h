// ferry_double.h - controls of the delivery service's stand-in client library (libFerryClient.so,
// built only for the tests). A download of package P with manager M and destination D copies
// M/P to D/h<handle>/P and calls back from a worker thread, as P's mode says (unknown packages
// complete); "GetDownloadDirectory" gives that path and "GetSingleFileSize" the size of M/P.
#pragma once

#include <dlfcn.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "fanout/ferry.h"

enum FerryDoubleMode {
    kFerryComplete = 0,  // copy on the worker, then callback(handle, 0)
    kFerryBusy,          // "DownloadFile" gives a handle and 5
    kFerryAtOnce,        // copy before returning 16; no callback
    kFerryFails,         // "DownloadFile" gives a handle and 7; "GetSingleFileSize" 7
    kFerryBadStatus,     // no copy; callback(handle, 3) on the worker
    kFerrySilent,        // 0 and a handle, and never a callback
    kFerrySlow,          // the worker waits for ferry_double_release, then completes
    kFerryEarly,         // "DownloadFile" returns once its callback has ended (at most 100 ms)
    kFerryReleaseFails,  // completes; "ReleaseFile" of its handle gives 9
};

extern "C" {
void ferry_double_mode(const char* package, int mode);
// Makes "GetDownloadDirectory" report `path` for `handle`.
void ferry_double_path(uint32_t handle, const char* path);
// Lets every slow download go on.
void ferry_double_release(void);
// Joins every worker and forgets modes, paths and the journal; handles start at 1 again.
void ferry_double_reset(void);
// Copies the journal of calls ("DownloadFile(P,user,password)=rc#handle;", "ReleaseFile(h)=rc;",
// "GetSingleFileSize(P)=rc;") into out (cap bytes, terminated); returns its full length.
size_t ferry_double_journal(char* out, size_t cap);
}

// The names of the functions that ferry_funcs holds, in order ("-" for an empty slot).
inline std::string ferry_double_table() {
    std::string names;
    for (void* slot : {reinterpret_cast<void*>(ferry_funcs.DownloadFile),
                       reinterpret_cast<void*>(ferry_funcs.GetDownloadDirectory),
                       reinterpret_cast<void*>(ferry_funcs.GetSingleFileSize),
                       reinterpret_cast<void*>(ferry_funcs.PublishFile),
                       reinterpret_cast<void*>(ferry_funcs.ReleaseFile)}) {
        Dl_info info{};
        const bool named = slot != nullptr && dladdr(slot, &info) != 0 && info.dli_sname;
        names += std::string(names.empty() ? "" : ",") + (named ? info.dli_sname : "-");
    }
    return names;
}
