// depot_fixture.h - what the Depot tests share: a private working directory per test (the lock
// files go in the current directory), removal of their semaphore sets, trace-log capture, and
// helpers for files, entry texts and child processes.
#ifndef FANOUT_TESTS_DEPOT_DEPOT_FIXTURE_H
#define FANOUT_TESTS_DEPOT_DEPOT_FIXTURE_H

#include <dirent.h>
#include <ftw.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fanout/depot.h"
#include "fanout/log.h"

namespace depot_test {

// Every trace line that passed the level filter, in order (the Depot logs from the caller's
// thread only).
struct LogCapture {
    std::vector<std::pair<int, std::string>> lines;

    static void Handler(int32_t level, const char* line, void* context) {
        static_cast<LogCapture*>(context)->lines.emplace_back(level, line);
    }
    bool Has(int level, const std::string& line) const {
        for (const auto& l : lines)
            if (l.first == level && l.second == line) return true;
        return false;
    }
    void Clear() { lines.clear(); }
};

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

inline bool Exists(const std::string& path) {
    struct stat st;
    return ::stat(path.c_str(), &st) == 0;
}

// The entry-file text filled in by hand, zero byte included.
inline std::string EntryText(const std::string& id, const std::string& version, int refs, int state,
                             int checksum, int deadline, const std::string& location,
                             const std::string& properties64) {
    std::string s = "<<id>" + id + "</id><version>" + version + "</version><reference_count>" +
                    std::to_string(refs) + "</reference_count><state>" + std::to_string(state) +
                    "</state><checksum>" + std::to_string(checksum) + "</checksum><deadline>" +
                    std::to_string(deadline) + "</deadline><location>" + location +
                    "</location><properties>" + properties64 + "</properties>>";
    s.push_back('\0');
    return s;
}

inline std::vector<std::string> ListDir(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = ::opendir(dir.c_str())) {
        while (dirent* e = ::readdir(d)) {
            std::string n = e->d_name;
            if (n != "." && n != "..") names.push_back(n);
        }
        ::closedir(d);
    }
    return names;
}

inline int CountSuffix(const std::string& dir, const std::string& suffix) {
    int n = 0;
    for (const auto& name : ListDir(dir))
        n += name.size() > suffix.size() && name.ends_with(suffix);
    return n;
}

// The System V semaphore keyed on a lock file (a regular file), or -1.
inline int SemId(const std::string& lockFile) {
    struct stat st;
    if (::stat(lockFile.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) return -1;
    key_t key = ::ftok(lockFile.c_str(), 1);
    return key == -1 ? -1 : ::semget(key, 1, 0);
}

inline int SemValue(const char* lockFile) {
    int id = SemId(lockFile);
    return id < 0 ? -1 : ::semctl(id, 0, GETVAL);
}

inline void RemoveSemaphores(const std::string& dir) {
    for (const char* f : {"/depot.lk", "/entry.lk", "/enum.lk"}) {
        int id = SemId(dir + f);
        if (id >= 0) ::semctl(id, 0, IPC_RMID);
    }
}

// Forks a child that runs `work`, reports it and then waits to be killed; returns its pid once
// `work` succeeded there, or -1.
inline pid_t ForkHolding(const std::function<bool()>& work) {
    int ready[2];
    if (::pipe(ready) != 0) return -1;
    pid_t child = ::fork();
    if (child == 0) {
        char c = work() ? 'y' : 'n';
        if (::write(ready[1], &c, 1) != 1) ::_exit(1);
        for (;;) ::pause();
    }
    char c = 0;
    bool ok = child > 0 && ::read(ready[0], &c, 1) == 1 && c == 'y';
    ::close(ready[0]);
    ::close(ready[1]);
    if (!ok && child > 0) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
    return ok ? child : -1;
}

inline void KillChild(pid_t child) {
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    ASSERT_EQ(::waitpid(child, nullptr, 0), child);
}

// Writes `data` to the entry's data file from its start.
inline void WriteData(DepotHandle* h, DepotEntry* e, const std::string& data) {
    PalFileHandle f{};
    ASSERT_EQ(DepotFileOpenForWrite(h, e, &f, PAL_TRUE).palError, PAL_OK);
    PalUint32 n = 0;
    EXPECT_EQ(PalFileWrite(f, data.data(), static_cast<PalUint32>(data.size()), &n).palError,
              PAL_OK);
    PalFileClose(f);
}

// A test in its own temporary working directory, with the trace log captured.
class DepotTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char cwd[PATH_MAX];
        ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
        oldCwd_ = cwd;
        char tmpl[] = "/tmp/fanout_depot_XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        ASSERT_EQ(::chdir(dir_.c_str()), 0);
        fanout_log_set_level(3);
        fanout_log_set_handler(&LogCapture::Handler, &log_);
    }

    void TearDown() override {
        if (handle_ != nullptr) DepotFree(handle_);
        fanout_log_set_handler(nullptr, nullptr);
        fanout_log_set_level(1);
        RemoveSemaphores(dir_);
        for (const auto& sub : ListDir(dir_)) RemoveSemaphores(dir_ + "/" + sub);
        ASSERT_EQ(::chdir(oldCwd_.c_str()), 0);
        ::nftw(
            dir_.c_str(),
            [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
            FTW_DEPTH | FTW_PHYS);
    }

    // Opens the depot "depot" of the working directory with `limit` KiB.
    DepotHandle* Open(PalUint32 limit = 0) {
        EXPECT_EQ(DepotNew(&handle_, nullptr, limit).palError, PAL_OK);
        return handle_;
    }

    // Adds the key, writes `data` and completes it with `deadline`; the record is released.
    void AddComplete(const char* id, const char* version, PalInt32 deadline,
                     const std::string& data = "") {
        DepotEntry* e = DepotAddEntry(handle_, id, version, nullptr, 0);
        ASSERT_NE(e, nullptr);
        if (!data.empty()) WriteData(handle_, e, data);
        ASSERT_EQ(DepotCompleteEntry(handle_, e, deadline).palError, PAL_OK);
    }

    std::string oldCwd_;
    std::string dir_;
    DepotHandle* handle_ = nullptr;
    LogCapture log_;
};

}  // namespace depot_test

#endif  // FANOUT_TESTS_DEPOT_DEPOT_FIXTURE_H
