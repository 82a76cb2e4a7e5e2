// ferry.cpp - the client of the content delivery service that fills the
// segments of type-11 streams.
//
// Each segment of such a stream names a package held by the service. The
// service's own client library ("FerryClient", loaded at run time) downloads
// it into the service's cache on this machine and reports completion through
// a callback on one of its threads; the reader waits for that callback, finds
// the cached file, records it in the segment and hands its path to the file
// stream, which reads it like any local file.
//
// Notes on the design:
//  1. Loading happens once per process. A program that links the client
//     library in has "DownloadFile" among its own symbols; the loading then
//     leaves the function table empty and ferry_init fills it from the
//     process's symbols, so every caller goes through ferry_funcs alike.
//  2. One mutex and one monitor guard the "downloaded" flag. The reader takes
//     the mutex before "DownloadFile" and keeps it until the segment is done,
//     letting go only inside the timed waits; a callback that arrives before
//     the wait blocks on the mutex until the wait begins, so it is not lost.
//     The flag is global: one download is waited for at a time per process.
//  3. The wait counts rounds of 10 seconds (1080 of them make the limit of
//     10800 seconds), not the clock; a test hook may shorten the rounds.
//  4. The loading logs and never raises; fetching a segment raises catalogue
//     exceptions, with the mutex released on the way out.

#include <sys/stat.h>

#include <atomic>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "fanout/catalog.h"
#include "fanout/exception.h"
#include "fanout/fanout2.h"
#include "fanout/ferry.h"
#include "fanout/keys.h"
#include "fanout/palrtl.h"
#include "fanout/properties.h"
#include "fanout/stream.h"
#include "fanout/thread.h"
#include "runtime/mg_ptr.h"
#include "runtime/raise.h"

namespace fanout {
namespace {

struct CFree {
    void operator()(void* block) const noexcept { std::free(block); }
};

// Log levels of the service's messages (ferry_log ignores them).
constexpr int32_t kLogError = 2;
constexpr int32_t kLogTrace = 9;

// Results of "DownloadFile".
constexpr int32_t kStarted = 0;
constexpr int32_t kDeferred = 5;
constexpr int32_t kFinished = 16;

constexpr const char* kLibraryName = "FerryClient";
constexpr const char* kConfigFile = "/tmp/ferry.cfg";
constexpr const char* kLibraryPathVariable = "LD_LIBRARY_PATH";
// The configuration file is read in lines of at most this many characters.
constexpr int kConfigLine = 256;

constexpr int32_t kWaitLimitSeconds = 10800;
constexpr int32_t kWaitRoundSeconds = 10;
constexpr int32_t kDefaultDeferSeconds = 300;
// ferry_get_actual_path makes room for this many characters more than the
// library's path when it rebuilds it.
constexpr size_t kRebuildRoom = 100;

// The table that drives the loading: each entry point and the place of its
// slot in ferry_funcs, in the table's order, ended by a null name.
struct FuncItem {
    const char* name;
    size_t offset;
};
constexpr FuncItem kFuncItems[] = {
    {"DownloadFile", offsetof(FerryFuncs, DownloadFile)},
    {"GetDownloadDirectory", offsetof(FerryFuncs, GetDownloadDirectory)},
    {"GetSingleFileSize", offsetof(FerryFuncs, GetSingleFileSize)},
    {"PublishFile", offsetof(FerryFuncs, PublishFile)},
    {"ReleaseFile", offsetof(FerryFuncs, ReleaseFile)},
    {nullptr, 0},
};

PalOnce g_once = PAL_ONCE_INIT;
PalMutex g_mutex = nullptr;
PalMonitor g_cond = nullptr;
// GUARDED_BY(g_mutex): set by the completion callback.
int32_t g_file_downloaded = 0;
std::atomic<FerryWaitHook> g_wait_hook{nullptr};

void store_slot(size_t offset, void* address) noexcept {
    std::memcpy(reinterpret_cast<char*>(&ferry_funcs) + offset, &address, sizeof address);
}

bool table_empty() noexcept {
    static const FerryFuncs kEmpty{};
    return std::memcmp(&ferry_funcs, &kEmpty, sizeof kEmpty) == 0;
}

// Resolves every entry point of `library` into its slot, logging each.
// Returns 0, or -1 at the first name that does not resolve (the table is
// then cleared again and the library unloaded).
int32_t load_functions(PalRtlHandle library) noexcept {
    for (const FuncItem* item = kFuncItems; item->name != nullptr; ++item) {
        ferry_log(kLogTrace, "fanout: ferry_load: loading %s into ferry_funcs + %p", item->name,
                  reinterpret_cast<void*>(item->offset));
        void* address = PalRtlResolve(library, item->name);
        if (address == nullptr) {
            ferry_funcs = FerryFuncs{};
            PalRtlUnload(library);
            return -1;
        }
        store_slot(item->offset, address);
    }
    return 0;
}

// The library directory named by the service's configuration file: the
// "ClassPath" value with "Larder.jar" and what follows replaced by
// "../ferry". Null when there is no such line or jar. Caller frees (free).
char* library_dir_from_config() noexcept {
    std::unique_ptr<char, CFree> name(strdup(kConfigFile));
    if (!name) {
        ferry_log(kLogError,
                  "fanout: ferry_get_lib_dir: Could not determine the FERRY "
                  "configuration file.");
        return nullptr;
    }
    FILE* file = std::fopen(name.get(), "r");
    if (file == nullptr) {
        ferry_log(kLogError, "fanout: ferry_get_lib_dir: Could not open %s for read.", name.get());
        return nullptr;
    }
    char line[kConfigLine + 1];
    char* dir = nullptr;
    while (std::fgets(line, sizeof line, file) != nullptr) {
        if (std::strncmp(line, "ClassPath", 9) != 0) {
            continue;
        }
        // Only the first "ClassPath" line counts, with or without its jar.
        char* value = std::strchr(line, '=');
        if (value != nullptr) {
            ++value;
            while (*value == ' ' || *value == '\t') {
                ++value;
            }
            char* jar = std::strstr(value, "Larder.jar");
            if (jar != nullptr) {
                // "../ferry" is shorter than the jar's name: it fits in place.
                std::snprintf(jar, sizeof line - static_cast<size_t>(jar - line), "..%cferry", '/');
                dir = strdup(value);
            }
        }
        break;
    }
    std::fclose(file);
    return dir;
}

// Appends `dir` to the loader's search path. putenv keeps the string itself,
// so it stays allocated for the life of the process.
void extend_library_path(const char* dir) noexcept {
    const char* old = std::getenv(kLibraryPathVariable);
    const char* separator = old != nullptr ? ":" : "";
    if (old == nullptr) {
        old = "";
    }
    const int n = std::snprintf(nullptr, 0, "%s=%s%s%s", kLibraryPathVariable, old, separator, dir);
    if (n < 0) {
        return;
    }
    auto* text = static_cast<char*>(std::malloc(static_cast<size_t>(n) + 1));
    if (text == nullptr) {
        return;
    }
    std::snprintf(text, static_cast<size_t>(n) + 1, "%s=%s%s%s", kLibraryPathVariable, old,
                  separator, dir);
    if (putenv(text) != 0) {
        std::free(text);
    }
}

// Finds the client library and its entry points. Returns 0 or -1.
int32_t ferry_load() noexcept {
    if (PalRtlResolve(nullptr, "DownloadFile") != nullptr) {
        ferry_loaded = 1;
        return 0;
    }
    PalRtlHandle library = PalRtlLoad(kLibraryName);
    if (library == nullptr) {
        std::unique_ptr<char, CFree> dir(library_dir_from_config());
        if (!dir) {
            return -1;
        }
        extend_library_path(dir.get());
        const int n = std::snprintf(nullptr, 0, "%s/lib%s.so", dir.get(), kLibraryName);
        std::unique_ptr<char, CFree> path(
            static_cast<char*>(std::malloc(static_cast<size_t>(n) + 1)));
        if (n < 0 || !path) {
            return -1;
        }
        std::snprintf(path.get(), static_cast<size_t>(n) + 1, "%s/lib%s.so", dir.get(),
                      kLibraryName);
        library = PalRtlLoad(path.get());
        if (library == nullptr) {
            return -1;
        }
    }
    if (load_functions(library) != 0) {
        return -1;
    }
    // The library stays loaded for the life of the process.
    ferry_loaded = 1;
    return 0;
}

void ferry_init_once() {
    const int32_t result = ferry_load();
    ferry_log(kLogTrace, "fanout: ferry_init: ferry_load() returned %d.", result);
    // The library is part of the program: its entry points are the
    // process's own symbols.
    if (ferry_loaded && table_empty()) {
        for (const FuncItem* item = kFuncItems; item->name != nullptr; ++item) {
            store_slot(item->offset, PalRtlResolve(nullptr, item->name));
        }
    }
    (void)PalMutexCreate(&g_mutex);
    (void)PalMonitorCreate(&g_cond);
    std::atexit(ferry_deinit);
}

// Holds ferry_mutex for a scope.
class FerryLock {
  public:
    FerryLock() { ferry_lock(); }
    ~FerryLock() { ferry_unlock(); }
    FerryLock(const FerryLock&) = delete;
    FerryLock& operator=(const FerryLock&) = delete;
};

const char* shown(const char* text) {
    return text != nullptr ? text : "<null>";
}

// REQUIRES: ferry_mutex is held. Gives the handle back to the library when
// there is one; raises 203 when that fails.
void release_handle(uint32_t handle) {
    if (handle == 0) {
        return;
    }
    const int32_t rc = ferry_funcs.ReleaseFile != nullptr ? ferry_funcs.ReleaseFile(handle) : -1;
    if (rc != 0) {
        ferry_log(kLogError, "fanout: ReleaseFile(%u) failed.  ferry_rc=%d\n", handle, rc);
        raise_catalogued(203, "ReleaseFile", handle, rc);
    }
}

// REQUIRES: ferry_mutex is held. Waits for the completion callback. Returns
// 0 once it came, or the stop status of a pause or cancel (the control block
// left at *data). Raises 204 when the limit passes without it.
int32_t await_download(uint32_t handle, void** data) {
    int32_t waited = 0;
    for (uint32_t round = 0; waited < kWaitLimitSeconds && !g_file_downloaded; ++round) {
        if (data != nullptr) {
            const int32_t stop = is_stream_stopped(data);
            if (stop != 0) {
                return stop;
            }
            // A control block that is neither pause nor cancel says nothing.
            mg_free(*data);
            *data = nullptr;
        }
        const FerryWaitHook hook = g_wait_hook.load();
        const int32_t ms = hook != nullptr ? hook(round) : kWaitRoundSeconds * 1000;
        (void)PalMonitorTimedWait(g_cond, g_mutex, ms);
        waited += kWaitRoundSeconds;
    }
    // A callback that came in the last round still counts.
    if (!g_file_downloaded) {
        raise_catalogued(204, "DownloadFile", handle, kWaitLimitSeconds);
    }
    return 0;
}

// Appends `path` to the state's list of cached files, keeping the block that
// holds the names owned by state->list (see ferry.h).
void add_cached_file(FileList* state, const char* path) {
    if (state->cursor == nullptr) {
        char* fresh = append_file(nullptr, path);
        mg_free(state->list);
        state->list = state->cursor = fresh;
    } else if (state->list == nullptr || state->cursor == state->list) {
        state->list = state->cursor = append_file(state->cursor, path);
    } else {
        // The cursor is inside the list: carry the names not yet taken over.
        char* fresh = append_file(mg_strdup(state->cursor), path);
        mg_free(state->list);
        state->list = state->cursor = fresh;
    }
}

void record_file(Properties* segment, const char* path) {
    properties_put_string_dup(segment, SEGMENT_DATA_PATH_KEY, path);
    properties_put_string_dup(segment, SEGMENT_DAT_FILE_KEY, path);
    struct stat st;
    if (stat(path, &st) == 0) {
        // The size key is 32 bits wide; larger files keep their low word.
        properties_put_long_dup(segment, SEGMENT_SIZE_KEY,
                                static_cast<int32_t>(static_cast<uint32_t>(st.st_size)));
    }
}

[[noreturn]] void raise_deferred(const char* package, int32_t seconds) {
    Kel_Fanout2_ExDistributionDeferred retry{};
    retry.retry_seconds = seconds;
    vaMThrowChild(FANOUT2_EX_ID(ExDistributionDeferred), &retry, sizeof retry, Fanout2Catalog[0],
                  206, Fanout2Catalog[206], package, seconds);
}

}  // namespace
}  // namespace fanout

using namespace fanout;

extern "C" {

FANOUT_EXPORT int32_t ferry_loaded = 0;
FANOUT_EXPORT FerryFuncs ferry_funcs = {};

void ferry_init(void) {
    (void)PalThreadOnce(&g_once, ferry_init_once);
}

void ferry_deinit(void) {
    if (g_cond != nullptr && PalMonitorDestroy(g_cond).palError == PAL_OK) {
        g_cond = nullptr;
    }
    // A mutex still held (a download waited for on another thread) is kept.
    if (g_mutex != nullptr && PalMutexDestroy(g_mutex).palError == PAL_OK) {
        g_mutex = nullptr;
    }
}

void ferry_lock(void) {
    (void)PalMutexLock(g_mutex);
}

void ferry_unlock(void) {
    (void)PalMutexUnlock(g_mutex);
}

void ferry_log(int32_t level, const char* format, ...) {
    (void)level;
    if (format == nullptr) {
        return;
    }
    va_list args;
    va_start(args, format);
    std::vfprintf(stderr, format, args);
    va_end(args);
    std::fflush(stderr);
}

void ferry_set_wait_hook(FerryWaitHook hook) {
    g_wait_hook.store(hook);
}

void ferry_callback(uint32_t handle, int32_t status) {
    ferry_lock();
    if (status != 0) {
        ferry_log(kLogError, "fanout: Received a bad status of %d for FERRY handle of %u\n", status,
                  handle);
    }
    // Also after a bad status: the reader goes on with what the cache holds.
    g_file_downloaded = 1;
    (void)PalMonitorNotifyAll(g_cond);
    ferry_unlock();
}

char* ferry_get_actual_path(uint32_t handle, const char* package) {
    const char* path = ferry_funcs.GetDownloadDirectory != nullptr
                           ? ferry_funcs.GetDownloadDirectory(handle)
                           : nullptr;
    ferry_log(kLogTrace, "fanout: ferry_get_actual_path: Start. ferry_handle=%u ferry_path=%s\n",
              handle, shown(path));
    if (path == nullptr) {
        return nullptr;
    }
    struct stat st;
    if (stat(path, &st) == 0) {
        ferry_log(kLogTrace,
                  "fanout: ferry_get_actual_path: Existing path valid. ferry_handle=%u "
                  "ferry_path=%s\n",
                  handle, path);
        return mg_strdup(path);
    }
    // The last "/" and the one before it.
    const char* last = std::strrchr(path, '/');
    const void* before =
        last != nullptr ? memrchr(path, '/', static_cast<size_t>(last - path)) : nullptr;
    if (before == nullptr) {
        // The same words introduce the rebuilt path below; both are kept.
        ferry_log(kLogTrace,
                  "fanout: ferry_get_actual_path: Missing last slash. ferry_handle=%u "
                  "ferry_path=%s\n",
                  handle, path);
        return mg_strdup(path);
    }
    // The service keeps a package whose download directory is gone under
    // <root>/cache/files/1/<package>-1, two levels above that directory.
    const size_t size = std::strlen(path) + kRebuildRoom + 1;
    MgString actual(static_cast<char*>(mg_malloc(size)));
    const size_t keep = static_cast<size_t>(static_cast<const char*>(before) - path);
    std::memcpy(actual.get(), path, keep);
    std::snprintf(actual.get() + keep, size - keep, "%ccache%cfiles%c1%c%s-1", '/', '/', '/', '/',
                  package != nullptr ? package : "");
    actual.get()[size - 1] = '\0';
    ferry_log(kLogTrace,
              "fanout: ferry_get_actual_path: Missing last slash. ferry_handle=%u "
              "actual_path=%s\n",
              handle, actual.get());
    return actual.release();
}

int32_t ferry_download_next(PropertiesList* toc, FileList* state, void** data) {
    if (data != nullptr) {
        *data = nullptr;
    }
    if (toc == nullptr || state == nullptr || state->next_segment >= toc->length) {
        return 0;
    }
    ferry_init();
    Properties* segment = &toc->buffer[state->next_segment];
    const char* manager = properties_get_string2(segment, SEGMENT_FERRY_MANAGER, nullptr);
    const char* package = properties_get_string(segment, SEGMENT_FERRY_PACKAGEID);
    const char* destination = properties_get_string2(segment, SEGMENT_FERRY_DESTINATION, nullptr);
    const char* user = properties_get_string2(segment, SEGMENT_FERRY_USERNAME, nullptr);
    const char* password = properties_get_string2(segment, SEGMENT_FERRY_PASSWORD, nullptr);
    const int32_t defer_seconds =
        properties_get_long2(segment, SEGMENT_FERRY_DEFERRED, kDefaultDeferSeconds);

    // Without the service nothing can start: the same as a failed start.
    if (!ferry_loaded || ferry_funcs.DownloadFile == nullptr) {
        raise_catalogued(203, "DownloadFile", 0u, -1);
    }

    FerryLock lock;
    g_file_downloaded = 0;
    uint32_t handle = 0;
    const int32_t rc = ferry_funcs.DownloadFile(manager, package, destination, user, password,
                                                ferry_callback, &handle);
    ferry_log(kLogTrace,
              "fanout: Started a new FERRY download: DownloadFile(%s, %s, %s, %s, %s, %p, %u).  "
              "rc=%d\n",
              shown(manager), shown(package), shown(destination), shown(user),
              password != nullptr ? "<\?\?\?\?>" : "<null>",
              reinterpret_cast<void*>(&ferry_callback), handle, rc);

    MgString path;
    switch (rc) {
        case kStarted: {
            ++state->next_segment;
            // A stop leaves the download pending: its handle is not released.
            const int32_t stop = await_download(handle, data);
            if (stop != 0) {
                return stop;
            }
            path.reset(ferry_get_actual_path(handle, package));
            break;
        }
        case kFinished:
            ++state->next_segment;
            path.reset(ferry_get_actual_path(handle, package));
            break;
        case kDeferred:
            release_handle(handle);
            raise_deferred(package, defer_seconds);
        default:
            release_handle(handle);
            raise_catalogued(203, "DownloadFile", 0u, rc);
    }
    if (path) {
        add_cached_file(state, path.get());
    }
    release_handle(handle);
    if (path) {
        record_file(segment, path.get());
    }
    return 0;
}

}  // extern "C"
