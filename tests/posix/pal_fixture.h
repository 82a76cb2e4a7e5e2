// pal_fixture.h - shared by the portability layer's tests: tables of records checked on all three
// fields, a private directory, and guards that remove a semaphore set and reap a child.
#ifndef FANOUT_TESTS_POSIX_PAL_FIXTURE_H
#define FANOUT_TESTS_POSIX_PAL_FIXTURE_H

#include <fanout/palerror.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <string>
#include <tuple>
#include <utility>

namespace pal_test {

struct Record {
    PalInt32 pal, native, where;
};
constexpr Record kOk{PAL_OK, 0, 0};

inline void ExpectRecord(PalError e, Record want, const std::string& what = "") {
    EXPECT_EQ(e.palError, want.pal) << what;
    EXPECT_EQ(e.nativeError, want.native) << what;
    EXPECT_EQ(e.traceLocation, want.where) << what;
}

// A table row: the call, its record and the one wanted. The calls of a braced
// table run in order, so a row may use what earlier rows left behind.
struct RecordCase {
    const char* what;
    PalError got;
    Record want;
};
inline void ExpectRecords(std::initializer_list<RecordCase> cases) {
    for (const RecordCase& c : cases) ExpectRecord(c.got, c.want, c.what);
}

class TempDir : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/fanout-pal-XXXXXX";
        if (mkdtemp(pattern) == nullptr) std::abort();  // never work in a shared path
        dir_ = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string Path(const std::string& name) const { return dir_ + "/" + name; }
    std::string dir_;
};

struct SetGuard {  // removes the set behind `key`, if any (-1: none)
    key_t key = -1;
    ~SetGuard() {
        if (key != -1) semctl(semget(key, 1, 0), 0, IPC_RMID);
    }
};

struct ChildGuard {  // kills and reaps the child unless Wait() reaped it
    pid_t pid = -1;
    ~ChildGuard() {
        if (pid > 0 && kill(pid, SIGKILL) == 0) waitpid(pid, nullptr, 0);
    }
    int Wait() {  // the exit status, or -1 when the child did not exit normally
        int status = 0;
        const bool exited = waitpid(std::exchange(pid, -1), &status, 0) > 0 && WIFEXITED(status);
        return exited ? WEXITSTATUS(status) : -1;
    }
};

}  // namespace pal_test

#endif  // FANOUT_TESTS_POSIX_PAL_FIXTURE_H
