// depot_fixture.h - what the Depot tests share: a private working directory per
// test (the lock files are created in the current directory), removal of the
// semaphore sets keyed on those lock files, capture of the trace log, and
// helpers to read files and fill the entry-file template by hand.
#ifndef FANOUT_TESTS_DEPOT_DEPOT_FIXTURE_H
#define FANOUT_TESTS_DEPOT_DEPOT_FIXTURE_H

#include <dirent.h>
#include <ftw.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "fanout/depot.h"
#include "fanout/log.h"

namespace depot_test {

// Every trace line that passed the level filter, in order.
struct LogCapture {
    std::mutex mutex;
    std::vector<std::pair<int, std::string>> lines;

    static void Handler(int32_t level, const char* line, void* context) {
        auto* self = static_cast<LogCapture*>(context);
        std::lock_guard<std::mutex> lock(self->mutex);
        self->lines.emplace_back(level, line);
    }
    bool Has(int level, const std::string& line) {
        std::lock_guard<std::mutex> lock(mutex);
        for (const auto& l : lines)
            if (l.first == level && l.second == line) return true;
        return false;
    }
    void Clear() {
        std::lock_guard<std::mutex> lock(mutex);
        lines.clear();
    }
};

inline std::string ReadFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void WriteFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
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

// Names in the directory, in the order the file system lists them.
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
        if (name.size() > suffix.size() &&
            name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0)
            ++n;
    return n;
}

// The System V semaphore keyed on a lock file of the current directory, or -1.
inline int SemId(const char* lockFile) {
    if (!Exists(lockFile)) return -1;
    key_t key = ::ftok(lockFile, 1);
    return key == -1 ? -1 : ::semget(key, 1, 0);
}

inline int SemValue(const char* lockFile) {
    int id = SemId(lockFile);
    return id < 0 ? -1 : ::semctl(id, 0, GETVAL);
}

// Takes back the units DepotNew adds to both semaphores, so that they exclude
// other processes strictly from then on (the system returns them at exit).
inline void TakeBackExtraUnits(DepotHandle* h) {
    ASSERT_EQ(PalWaitSem(&h->depotLock).palError, PAL_OK);
    ASSERT_EQ(PalWaitSem(&h->entryLock).palError, PAL_OK);
}

// A test in its own temporary working directory, with the trace log captured.
class DepotTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char cwd[PATH_MAX];
        ASSERT_NE(::getcwd(cwd, sizeof cwd), nullptr);
        oldCwd_ = cwd;
        char tmpl[] = "/tmp/depot_test_XXXXXX";
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
        for (const char* f : {"depot.lk", "entry.lk", "enum.lk"}) {
            int id = SemId(f);
            if (id >= 0) ::semctl(id, 0, IPC_RMID);
        }
        ASSERT_EQ(::chdir(oldCwd_.c_str()), 0);
        ::nftw(
            dir_.c_str(),
            [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
            FTW_DEPTH | FTW_PHYS);
    }

    // Opens the depot "depot" of the working directory with `limit` KiB.
    DepotHandle* Open(PalUint32 limit = 0) {
        DepotHandle* h = nullptr;
        PalError err = DepotNew(&h, nullptr, limit);
        EXPECT_EQ(err.palError, PAL_OK);
        handle_ = h;
        return h;
    }

    // Adds the key and completes it with `deadline`; the record is released.
    void AddComplete(const char* id, const char* version, PalInt32 deadline,
                     const std::string& data = "") {
        DepotEntry* e = DepotAddEntry(handle_, id, version, nullptr, 0);
        ASSERT_NE(e, nullptr);
        if (!data.empty()) {
            PalFileHandle f{};
            ASSERT_EQ(DepotFileOpenForWrite(handle_, e, &f, PAL_TRUE).palError, PAL_OK);
            PalUint32 n = 0;
            ASSERT_EQ(
                PalFileWrite(f, data.data(), static_cast<PalUint32>(data.size()), &n).palError,
                PAL_OK);
            PalFileClose(f);
        }
        ASSERT_EQ(DepotCompleteEntry(handle_, e, deadline).palError, PAL_OK);
    }

    std::string oldCwd_;
    std::string dir_;
    DepotHandle* handle_ = nullptr;
    LogCapture log_;
};

}  // namespace depot_test

#endif  // FANOUT_TESTS_DEPOT_DEPOT_FIXTURE_H
