// ferry_double.cpp - a stand-in for the delivery service's client library,
// built only for the tests as libFerryClient.so (ferry_double.h describes
// its behaviour). Built with FERRY_DOUBLE_INCOMPLETE it lacks "ReleaseFile":
// a library the client must refuse.
#include "ferry_double.h"

#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#define FERRY_DOUBLE_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

namespace fs = std::filesystem;

typedef void (*Callback)(uint32_t handle, int32_t status);

struct State {
    std::mutex mutex;
    std::condition_variable changed;
    std::map<std::string, int> modes;
    std::map<uint32_t, std::string> paths;  // what GetDownloadDirectory reports
    std::map<uint32_t, int> handle_modes;
    std::vector<std::thread> workers;
    std::string journal;
    uint32_t next_handle = 1;
    bool released = false;

    ~State() { reset(); }

    void reset() {
        std::vector<std::thread> joining;
        {
            std::lock_guard<std::mutex> lock(mutex);
            released = true;
            joining.swap(workers);
        }
        changed.notify_all();
        for (auto& t : joining) t.join();
        std::lock_guard<std::mutex> lock(mutex);
        modes.clear();
        paths.clear();
        handle_modes.clear();
        journal.clear();
        next_handle = 1;
        released = false;
    }
};

State& state() {
    static State s;
    return s;
}

std::string text(const char* s) {
    return s != nullptr ? s : "-";
}

// Copies `from` to `to`, creating the directories on the way.
bool copy(const std::string& from, const std::string& to) {
    std::error_code ec;
    fs::create_directories(fs::path(to).parent_path(), ec);
    fs::remove(to, ec);
    return fs::copy_file(from, to, ec);
}

}  // namespace

FERRY_DOUBLE_EXPORT void ferry_double_mode(const char* package, int mode) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().modes[text(package)] = mode;
}

FERRY_DOUBLE_EXPORT void ferry_double_path(uint32_t handle, const char* path) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().paths[handle] = text(path);
}

FERRY_DOUBLE_EXPORT void ferry_double_release(void) {
    {
        std::lock_guard<std::mutex> lock(state().mutex);
        state().released = true;
    }
    state().changed.notify_all();
}

FERRY_DOUBLE_EXPORT void ferry_double_reset(void) {
    state().reset();
}

FERRY_DOUBLE_EXPORT size_t ferry_double_journal(char* out, size_t cap) {
    std::lock_guard<std::mutex> lock(state().mutex);
    const std::string& j = state().journal;
    if (cap > 0) {
        const size_t n = j.size() < cap - 1 ? j.size() : cap - 1;
        std::memcpy(out, j.data(), n);
        out[n] = '\0';
    }
    return j.size();
}

// The service's entry points.

FERRY_DOUBLE_EXPORT int32_t DownloadFile(const char* manager, const char* package,
                                         const char* destination, const char* user,
                                         const char* password, Callback callback,
                                         uint32_t* handle) {
    State& s = state();
    std::unique_lock<std::mutex> lock(s.mutex);
    const auto found = s.modes.find(text(package));
    const int mode = found != s.modes.end() ? found->second : kFerryComplete;
    const uint32_t h = s.next_handle++;
    *handle = h;
    s.handle_modes[h] = mode;
    const std::string source = text(manager) + "/" + text(package);
    const std::string cache = text(destination);
    std::string target = cache + "/h" + std::to_string(h) + "/" + text(package);
    s.paths[h] = target;

    int32_t rc = 0;
    switch (mode) {
        case kFerryBusy:
            rc = 5;
            break;
        case kFerryFails:
            rc = 7;
            break;
        case kFerrySilent:
            break;
        case kFerryAtOnce:
            rc = copy(source, target) ? 16 : 2;
            break;
        case kFerryMisplaced:
            s.paths[h] = cache + "/gone/" + text(package);
            rc = copy(source, cache + "/cache/files/1/" + text(package) + "-1") ? 16 : 2;
            break;
        default: {
            // The worker thread: copy (unless the download is to fail), call back.
            auto progress = std::make_shared<int>(0);  // 1 calling back, 2 called back
            s.workers.emplace_back([=, &s] {
                if (mode == kFerrySlow) {
                    std::unique_lock<std::mutex> wait(s.mutex);
                    s.changed.wait(wait, [&s] { return s.released; });
                }
                int32_t status = 3;
                if (mode != kFerryBadStatus) {
                    status = copy(source, target) ? 0 : 2;
                }
                auto tell = [&](int step) {
                    std::lock_guard<std::mutex> told(s.mutex);
                    *progress = step;
                    s.changed.notify_all();
                };
                tell(1);
                callback(h, status);
                tell(2);
            });
            if (mode == kFerryEarly) {
                // The callback is under way. A client that holds its lock
                // from before this call keeps it waiting, and this call
                // returns after the grace time; one that does not lets it
                // finish, and the call returns at once.
                s.changed.wait(lock, [&] { return *progress >= 1; });
                s.changed.wait_for(lock, std::chrono::milliseconds(100),
                                   [&] { return *progress == 2; });
            }
        }
    }
    s.journal += "DownloadFile(" + text(package) + "," + text(user) + "," + text(password) +
                 ")=" + std::to_string(rc) + "#" + std::to_string(h) + ";";
    return rc;
}

FERRY_DOUBLE_EXPORT const char* GetDownloadDirectory(uint32_t handle) {
    std::lock_guard<std::mutex> lock(state().mutex);
    const auto found = state().paths.find(handle);
    return found != state().paths.end() ? found->second.c_str() : nullptr;
}

FERRY_DOUBLE_EXPORT int32_t GetSingleFileSize(const char* manager, const char* package, const char*,
                                              const char*, int64_t* size) {
    std::lock_guard<std::mutex> lock(state().mutex);
    const auto found = state().modes.find(text(package));
    struct stat st;
    int32_t rc = 2;
    if (found != state().modes.end() && found->second == kFerryFails) {
        rc = 7;
    } else if (stat((text(manager) + "/" + text(package)).c_str(), &st) == 0) {
        *size = st.st_size;
        rc = 0;
    }
    state().journal += "GetSingleFileSize(" + text(package) + ")=" + std::to_string(rc) + ";";
    return rc;
}

FERRY_DOUBLE_EXPORT int32_t PublishFile(void) {
    return 0;
}

#ifndef FERRY_DOUBLE_INCOMPLETE
FERRY_DOUBLE_EXPORT int32_t ReleaseFile(uint32_t handle) {
    std::lock_guard<std::mutex> lock(state().mutex);
    const auto found = state().handle_modes.find(handle);
    const int32_t rc =
        found != state().handle_modes.end() && found->second == kFerryReleaseFails ? 9 : 0;
    state().journal += "ReleaseFile(" + std::to_string(handle) + ")=" + std::to_string(rc) + ";";
    return rc;
}
#endif
