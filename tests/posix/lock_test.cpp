// Tests of the named semaphores, within one process and across forked
// processes. Each test keys its semaphore on a file in its own temporary
// directory, and guards remove every set it creates and kill every child it
// starts, whether or not the test's assertions hold.

#include <fanout/pallock.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace {

// A temporary directory holding one key file, removed at the end.
struct KeyFile {
    std::string dir;
    std::string path;
    std::string counter;
    KeyFile() {
        char pattern[] = "/tmp/fanout-lock-XXXXXX";
        if (mkdtemp(pattern) == nullptr) std::abort();  // never key on a shared path
        dir = pattern;
        path = dir + "/depot.lk";
        counter = dir + "/counter";
        close(open(path.c_str(), O_CREAT | O_WRONLY, 0600));
    }
    ~KeyFile() {
        unlink(counter.c_str());
        unlink(path.c_str());
        rmdir(dir.c_str());
    }
};

// Removes the set behind `key` at the end of the scope, if one is there.
struct SetGuard {
    key_t key;
    explicit SetGuard(key_t k) : key(k) {}
    ~SetGuard() { Remove(); }
    void Remove() const {
        const int id = semget(key, 1, 0);
        if (id != -1) semctl(id, 0, IPC_RMID);
    }
};

// Kills and reaps a child at the end of the scope unless it was reaped.
struct ChildGuard {
    pid_t pid = -1;
    ~ChildGuard() {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    int Wait() {  // the child's exit status, or -1 when it did not exit
        int status = 0;
        const pid_t r = waitpid(pid, &status, 0);
        pid = -1;
        return r > 0 && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

int SemId(const PalSemHandle& h) {
    return static_cast<PalInternalSem*>(h.handle)->semid;
}
int Value(const PalSemHandle& h) {
    return semctl(SemId(h), 0, GETVAL);
}

TEST(PalSem, HandlesOnOnePathShareOneSet) {
    KeyFile f;
    SetGuard guard(ftok(f.path.c_str(), 1));
    PalSemHandle a{}, b{};
    ASSERT_EQ(PalInitSem(&a, f.path.c_str()).palError, PAL_OK);
    ASSERT_EQ(PalInitSem(&b, f.path.c_str()).palError, PAL_OK);
    EXPECT_EQ(SemId(a), SemId(b));
    EXPECT_EQ(Value(a), 1);

    ASSERT_EQ(PalWaitSem(&a).palError, PAL_OK);
    EXPECT_EQ(Value(b), 0);
    struct sembuf take {
        0, -1, IPC_NOWAIT
    };  // a second taker would block
    EXPECT_EQ(semop(SemId(b), &take, 1), -1);
    EXPECT_EQ(errno, EAGAIN);
    ASSERT_EQ(PalPostSem(&b).palError, PAL_OK);
    EXPECT_EQ(Value(a), 1);
    ASSERT_EQ(PalPostSem(&b).palError, PAL_OK);  // unmatched posts are not refused
    EXPECT_EQ(Value(a), 2);

    const PalError closed = PalCloseSem(&b);
    EXPECT_EQ(closed.palError, PAL_OK);
    EXPECT_EQ(closed.traceLocation, 0);
    EXPECT_NE(semget(guard.key, 1, 0), -1);  // closing leaves the set
    EXPECT_EQ(PalDestSem(&a).palError, PAL_OK);
    EXPECT_EQ(semget(guard.key, 1, 0), -1);

    PalSemHandle c{};  // a fresh set, free again
    ASSERT_EQ(PalInitSem(&c, f.path.c_str()).palError, PAL_OK);
    EXPECT_EQ(Value(c), 1);
    // Operations on a removed set fail with the system's error.
    guard.Remove();
    for (PalError e : {PalWaitSem(&c), PalPostSem(&c)}) {
        EXPECT_EQ(e.palError, PAL_WAIT_TIMEOUT);
        EXPECT_TRUE(e.nativeError == EINVAL || e.nativeError == EIDRM) << e.nativeError;
        EXPECT_EQ(e.traceLocation, 1);
    }
    PalCloseSem(&c);
}

TEST(PalSem, MissingKeyFileSharesTheFallbackSet) {
    const key_t fallback = static_cast<key_t>(-1);
    if (semget(fallback, 1, 0) != -1) GTEST_SKIP() << "the fallback set is in use";
    SetGuard guard(fallback);
    PalSemHandle a{}, b{};
    ASSERT_EQ(PalInitSem(&a, "/no/such/dir/one.lk").palError, PAL_OK);
    ASSERT_EQ(PalInitSem(&b, nullptr).palError, PAL_OK);
    EXPECT_EQ(SemId(a), semget(fallback, 1, 0));
    EXPECT_EQ(SemId(a), SemId(b));
    EXPECT_EQ(PalWaitSem(&a).palError, PAL_OK);
    EXPECT_EQ(PalPostSem(&a).palError, PAL_OK);
    PalCloseSem(&b);
    PalDestSem(&a);
}

// Child body: `rounds` locked increments of the counter file; exit status 0
// when every call succeeded.
[[noreturn]] void Increment(const KeyFile& f, int rounds) {
    PalSemHandle h{};
    int fd = open(f.counter.c_str(), O_RDWR);
    if (fd == -1 || PalInitSem(&h, f.path.c_str()).palError != PAL_OK) _exit(2);
    for (int i = 0; i < rounds; ++i) {
        if (PalWaitSem(&h).palError != PAL_OK) _exit(3);
        long n = 0;
        if (pread(fd, &n, sizeof n, 0) != sizeof n) _exit(4);
        ++n;
        if (pwrite(fd, &n, sizeof n, 0) != sizeof n) _exit(5);
        if (PalPostSem(&h).palError != PAL_OK) _exit(6);
    }
    _exit(0);
}

TEST(PalSem, TwoProcessesLoseNoIncrements) {
    constexpr int kRounds = 10000;
    KeyFile f;
    SetGuard guard(ftok(f.path.c_str(), 1));
    const int fd = open(f.counter.c_str(), O_CREAT | O_RDWR, 0600);
    ASSERT_NE(fd, -1);
    long n = 0;
    ASSERT_EQ(pwrite(fd, &n, sizeof n, 0), static_cast<ssize_t>(sizeof n));
    // Both children race to create the set: one creates, the other opens.
    ChildGuard first, second;
    first.pid = fork();
    if (first.pid == 0) Increment(f, kRounds);
    second.pid = fork();
    if (second.pid == 0) Increment(f, kRounds);
    ASSERT_GT(first.pid, 0);
    ASSERT_GT(second.pid, 0);
    EXPECT_EQ(first.Wait(), 0);
    EXPECT_EQ(second.Wait(), 0);
    ASSERT_EQ(pread(fd, &n, sizeof n, 0), static_cast<ssize_t>(sizeof n));
    close(fd);
    EXPECT_EQ(n, 2L * kRounds);
}

TEST(PalSem, HolderKilledWithSigkillReleasesTheSemaphore) {
    KeyFile f;
    SetGuard guard(ftok(f.path.c_str(), 1));
    PalSemHandle h{};
    ASSERT_EQ(PalInitSem(&h, f.path.c_str()).palError, PAL_OK);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    ChildGuard child;
    child.pid = fork();
    if (child.pid == 0) {
        PalSemHandle mine{};
        if (PalInitSem(&mine, f.path.c_str()).palError != PAL_OK ||
            PalWaitSem(&mine).palError != PAL_OK)
            _exit(1);
        char c = 'h';
        (void)!write(ready[1], &c, 1);
        for (;;) pause();
    }
    ASSERT_GT(child.pid, 0);
    close(ready[1]);
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);  // the child holds the semaphore
    close(ready[0]);
    EXPECT_EQ(Value(h), 0);
    kill(child.pid, SIGKILL);
    EXPECT_EQ(child.Wait(), -1);
    EXPECT_EQ(Value(h), 1);  // the system undid the dead holder's take
    EXPECT_EQ(PalWaitSem(&h).palError, PAL_OK);
    EXPECT_EQ(PalPostSem(&h).palError, PAL_OK);
    PalDestSem(&h);
}

TEST(PalSem, DestroyWakesABlockedWaiterWithIdRemoved) {
    KeyFile f;
    SetGuard guard(ftok(f.path.c_str(), 1));
    PalSemHandle h{};
    ASSERT_EQ(PalInitSem(&h, f.path.c_str()).palError, PAL_OK);
    ASSERT_EQ(PalWaitSem(&h).palError, PAL_OK);
    int result[2];
    ASSERT_EQ(pipe(result), 0);
    ChildGuard child;
    child.pid = fork();
    if (child.pid == 0) {
        PalSemHandle mine{};
        PalError e = PalInitSem(&mine, f.path.c_str());
        if (e.palError == PAL_OK) e = PalWaitSem(&mine);
        (void)!write(result[1], &e, sizeof e);
        _exit(0);
    }
    ASSERT_GT(child.pid, 0);
    close(result[1]);
    // Wait (bounded) until the child is queued on the semaphore.
    int waiting = 0;
    for (int i = 0; i < 20000 && waiting == 0; ++i) {
        waiting = semctl(SemId(h), 0, GETNCNT);
        if (waiting == 0) usleep(500);
    }
    ASSERT_EQ(waiting, 1);
    EXPECT_EQ(PalDestSem(&h).palError, PAL_OK);
    PalError e{};
    ASSERT_EQ(read(result[0], &e, sizeof e), static_cast<ssize_t>(sizeof e));
    close(result[0]);
    EXPECT_EQ(e.palError, PAL_WAIT_TIMEOUT);
    EXPECT_EQ(e.nativeError, EIDRM);
    EXPECT_EQ(e.traceLocation, 1);
    EXPECT_EQ(child.Wait(), 0);
}

}  // namespace
