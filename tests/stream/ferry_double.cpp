// ferry_double.cpp - the delivery service's stand-in client library (ferry_double.h). Built with
// FERRY_DOUBLE_INCOMPLETE it lacks "ReleaseFile": a library the client must refuse.
#include "ferry_double.h"

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#define EXPORT extern "C" __attribute__((visibility("default")))

namespace {

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
    int calling = 0, called_back = 0;  // callbacks begun, ended

    ~State() { reset(); }
    void reset() {
        release();
        for (auto& t : workers) t.join();  // a worker may be blocked, but not on this mutex
        std::lock_guard<std::mutex> lock(mutex);
        modes.clear(), paths.clear(), handle_modes.clear(), workers.clear(), journal.clear();
        next_handle = 1, released = false;
    }
    void release() {
        std::lock_guard<std::mutex> lock(mutex);
        released = true;
        changed.notify_all();
    }
    int mode(const std::string& package) {
        const auto found = modes.find(package);
        return found != modes.end() ? found->second : kFerryComplete;
    }
} g;

namespace fs = std::filesystem;

std::string text(const char* s) {
    return s != nullptr ? s : "-";
}

bool copy(const std::string& from, const std::string& to) {
    std::error_code ec;
    fs::create_directories(fs::path(to).parent_path(), ec);
    return fs::copy_file(from, to, fs::copy_options::overwrite_existing, ec);
}

}  // namespace

EXPORT void ferry_double_mode(const char* package, int mode) {
    std::lock_guard<std::mutex> lock(g.mutex);
    g.modes[text(package)] = mode;
}

EXPORT void ferry_double_path(uint32_t handle, const char* path) {
    std::lock_guard<std::mutex> lock(g.mutex);
    g.paths[handle] = text(path);
}

EXPORT void ferry_double_release(void) {
    g.release();
}

EXPORT void ferry_double_reset(void) {
    g.reset();
}

EXPORT size_t ferry_double_journal(char* out, size_t cap) {
    std::lock_guard<std::mutex> lock(g.mutex);
    if (cap > 0) std::snprintf(out, cap, "%s", g.journal.c_str());
    return g.journal.size();
}

EXPORT int32_t DownloadFile(const char* manager, const char* package, const char* destination,
                            const char* user, const char* password, FerryCallback callback,
                            uint32_t* handle) {
    std::unique_lock<std::mutex> lock(g.mutex);
    const int mode = g.mode(text(package));
    const uint32_t h = *handle = g.next_handle++;
    const std::string source = text(manager) + "/" + text(package);
    const std::string target = text(destination) + "/h" + std::to_string(h) + "/" + text(package);
    g.handle_modes[h] = mode;
    g.paths[h] = target;
    const int32_t rc = mode == kFerryBusy     ? 5
                       : mode == kFerryFails  ? 7
                       : mode == kFerryAtOnce ? (copy(source, target) ? 16 : 2)
                                              : 0;
    if (rc == 0 && mode != kFerrySilent) {
        const int calling = g.calling, called_back = g.called_back;
        g.workers.emplace_back([=] {
            const int32_t status = mode == kFerryBadStatus ? 3 : copy(source, target) ? 0 : 2;
            auto tell = [=](int& count) {
                std::unique_lock<std::mutex> told(g.mutex);
                g.changed.wait(told, [=] { return mode != kFerrySlow || g.released; });
                ++count;
                g.changed.notify_all();
            };
            tell(g.calling);
            callback(h, status);
            tell(g.called_back);
        });
        // A client that holds its lock across this call keeps the callback waiting until the
        // grace time ends; one that does not lets it end first.
        if (mode == kFerryEarly) {
            g.changed.wait(lock, [&] { return g.calling > calling; });
            g.changed.wait_for(lock, std::chrono::milliseconds(100),
                               [&] { return g.called_back > called_back; });
        }
    }
    g.journal += "DownloadFile(" + text(package) + "," + text(user) + "," + text(password) +
                 ")=" + std::to_string(rc) + "#" + std::to_string(h) + ";";
    return rc;
}

EXPORT const char* GetDownloadDirectory(uint32_t handle) {
    std::lock_guard<std::mutex> lock(g.mutex);
    const auto found = g.paths.find(handle);
    return found != g.paths.end() ? found->second.c_str() : nullptr;
}

EXPORT int32_t GetSingleFileSize(const char* manager, const char* package, const char*, const char*,
                                 int64_t* size) {
    std::lock_guard<std::mutex> lock(g.mutex);
    std::error_code ec;
    const auto bytes = fs::file_size(text(manager) + "/" + text(package), ec);
    const int32_t rc = g.mode(text(package)) == kFerryFails ? 7 : ec ? 2 : 0;
    if (rc == 0) *size = static_cast<int64_t>(bytes);
    g.journal += "GetSingleFileSize(" + text(package) + ")=" + std::to_string(rc) + ";";
    return rc;
}

EXPORT int32_t PublishFile(void) {
    return 0;
}

#ifndef FERRY_DOUBLE_INCOMPLETE
EXPORT int32_t ReleaseFile(uint32_t handle) {
    std::lock_guard<std::mutex> lock(g.mutex);
    const int32_t rc = g.handle_modes[handle] == kFerryReleaseFails ? 9 : 0;
    g.journal += "ReleaseFile(" + std::to_string(handle) + ")=" + std::to_string(rc) + ";";
    return rc;
}
#endif
