// Tests of the named semaphores across forked processes, keyed on a file in a private directory;
// guards remove the set and reap the children whether or not the assertions hold.

#include <fanout/pallock.h>

#include "pal_fixture.h"

namespace {

using pal_test::ChildGuard;

int SemId(const PalSemHandle& h) {
    return static_cast<PalInternalSem*>(h.handle)->semid;
}

class PalSem : public pal_test::TempDir {
  protected:
    void SetUp() override {
        TempDir::SetUp();
        close(open(Path("depot.lk").c_str(), O_CREAT | O_WRONLY, 0600));
        set_.key = ftok(Path("depot.lk").c_str(), 1);
    }
    PalSemHandle Init() const {  // its pointer stays null on failure
        PalSemHandle h{};
        PalInitSem(&h, Path("depot.lk").c_str());
        return h;
    }
    pal_test::SetGuard set_;
};

TEST_F(PalSem, CloseLeavesTheSetAndUnmatchedPostsCount) {
    PalSemHandle a = Init(), b = Init();
    ASSERT_TRUE(a.handle && b.handle);
    ASSERT_EQ(PalPostSem(&a).palError, PAL_OK);  // not refused, though nothing was taken
    pal_test::ExpectRecord(PalCloseSem(&a), pal_test::kOk);
    EXPECT_EQ(semctl(SemId(b), 0, GETVAL), 2);  // one set per path, kept after closing
    pal_test::ExpectRecord(PalDestSem(&b), pal_test::kOk);
    EXPECT_EQ(semget(set_.key, 1, 0), -1);
}

TEST_F(PalSem, TwoProcessesLoseNoIncrements) {
    constexpr long kRounds = 10000;
    const int fd = open(Path("counter").c_str(), O_CREAT | O_RDWR, 0600);
    long n = 0;
    ASSERT_EQ(pwrite(fd, &n, sizeof n, 0), static_cast<ssize_t>(sizeof n));
    ChildGuard children[2];  // both race to create the set: one creates, one opens
    for (ChildGuard& child : children) {
        if ((child.pid = fork()) != 0) continue;
        PalSemHandle h = Init();
        for (long i = 0; h.handle != nullptr && i < kRounds; ++i) {
            if (PalWaitSem(&h).palError != PAL_OK) _exit(3);
            if (pread(fd, &n, sizeof n, 0) != sizeof n) _exit(4);
            ++n;
            if (pwrite(fd, &n, sizeof n, 0) != sizeof n) _exit(5);
            if (PalPostSem(&h).palError != PAL_OK) _exit(6);
        }
        _exit(h.handle != nullptr ? 0 : 2);
    }
    for (ChildGuard& child : children) EXPECT_EQ(child.Wait(), 0);
    ASSERT_EQ(pread(fd, &n, sizeof n, 0), static_cast<ssize_t>(sizeof n));
    close(fd);
    EXPECT_EQ(n, 2 * kRounds);
}

TEST_F(PalSem, HolderKilledWithSigkillReleasesTheSemaphore) {
    PalSemHandle h = Init();
    ASSERT_NE(h.handle, nullptr);
    int ready[2];
    ASSERT_EQ(pipe(ready), 0);
    ChildGuard child;
    if ((child.pid = fork()) == 0) {
        PalSemHandle mine = Init();
        if (mine.handle == nullptr || PalWaitSem(&mine).palError != PAL_OK) _exit(1);
        (void)!write(ready[1], "h", 1);
        for (;;) pause();
    }
    close(ready[1]);
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);  // the child holds the semaphore
    close(ready[0]);
    EXPECT_EQ(semctl(SemId(h), 0, GETVAL), 0);
    kill(child.pid, SIGKILL);
    EXPECT_EQ(child.Wait(), -1);
    ASSERT_EQ(semctl(SemId(h), 0, GETVAL), 1);  // the system undid the dead holder's take
    EXPECT_EQ(PalWaitSem(&h).palError, PAL_OK);
    PalDestSem(&h);
}

TEST_F(PalSem, DestroyWakesABlockedWaiterWithIdRemoved) {
    PalSemHandle h = Init();
    ASSERT_NE(h.handle, nullptr);
    ASSERT_EQ(PalWaitSem(&h).palError, PAL_OK);
    int result[2];
    ASSERT_EQ(pipe(result), 0);
    ChildGuard child;
    if ((child.pid = fork()) == 0) {
        PalSemHandle mine{};
        PalError e = PalInitSem(&mine, Path("depot.lk").c_str());
        if (e.palError == PAL_OK) e = PalWaitSem(&mine);
        (void)!write(result[1], &e, sizeof e);
        _exit(0);
    }
    close(result[1]);
    int waiting = 0;  // wait (bounded) until the child is queued on the semaphore
    for (int i = 0; i < 20000 && (waiting = semctl(SemId(h), 0, GETNCNT)) == 0; ++i) usleep(500);
    ASSERT_EQ(waiting, 1);
    PalDestSem(&h);
    ASSERT_EQ(semget(set_.key, 1, 0), -1);  // gone, so the child is awake
    PalError e{};
    ASSERT_EQ(read(result[0], &e, sizeof e), static_cast<ssize_t>(sizeof e));
    close(result[0]);
    pal_test::ExpectRecord(e, {PAL_WAIT_TIMEOUT, EIDRM, 1});
    EXPECT_EQ(child.Wait(), 0);
}

}  // namespace
