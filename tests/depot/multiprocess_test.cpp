// multiprocess_test.cpp - several processes on one Depot: random operations on a
// shared set of keys must leave every entry file parseable, every data file
// with its entry file, and reference counts equal to what the processes did;
// a process killed while it holds the depot lock must not stop the others.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <random>
#include <string>

#include "depot_fixture.h"
#include "fanout/palmemory.h"

using namespace depot_test;

namespace {

constexpr int kProcesses = 4;
constexpr int kOperations = 500;
constexpr int kKeys = 50;
constexpr PalInt32 kFarDeadline = 2000000000;  // never expires during the test

struct Tally {
    std::array<int, kKeys> completions{};
    std::array<int, kKeys> unregistrations{};
};

// Every key shares its first half ("key"), so all of them land in one bucket:
// the bucket scan and the sequence numbering are under load as well.
std::string KeyName(int k) {
    char name[16];
    std::snprintf(name, sizeof name, "key%02d", k);
    return name;
}

// Adds (or reuses) the key, writes its data and completes it.
bool AddWriteComplete(DepotHandle* h, const std::string& key) {
    static const PalUint8 props[] = {'M', 'a', 'n'};
    DepotEntry* e = DepotAddEntry(h, key.c_str(), "1", props, sizeof props);
    if (e == nullptr) return false;  // in progress or in use elsewhere
    PalFileHandle f{};
    if (DepotFileOpenForWrite(h, e, &f, e->state == DEPOT_STATE_IN_PROGRESS).palError != PAL_OK) {
        DepotFreeEntry(h, e);
        return false;
    }
    PalUint32 n = 0;
    std::string data(64, key.back());
    PalFileWrite(f, data.data(), static_cast<PalUint32>(data.size()), &n);
    PalFileClose(f);
    return DepotCompleteEntry(h, e, kFarDeadline).palError == PAL_OK;
}

// Gives back one of this process's registrations the way a stream does: marks
// the entry in use, then unregisters it.
bool Unregister(DepotHandle* h, const std::string& key) {
    DepotEntry* e = DepotGetEntry(h, key.c_str(), "1");
    if (e == nullptr) return false;
    DepotEntryChangeState(h, e, DEPOT_STATE_IN_USE);
    return DepotUnregisterEntry(h, e, PAL_FALSE).palError == PAL_OK;
}

// One worker process: opens the depot, says it is ready, waits for the start
// signal, runs its random operations and sends its tally down `out`.
[[noreturn]] void Worker(int index, int ready, int go, int out) {
    fanout_log_set_handler(nullptr, nullptr);
    fanout_log_set_level(-1);
    DepotHandle* h = nullptr;
    if (DepotNew(&h, nullptr, 0).palError != PAL_OK || h == nullptr) ::_exit(2);
    if (PalWaitSem(&h->depotLock).palError != PAL_OK) ::_exit(3);
    if (PalWaitSem(&h->entryLock).palError != PAL_OK) ::_exit(3);
    // Nobody may start before everyone has taken back its units: a DepotNew
    // in another process lends the lock an extra unit for a moment.
    char c = 'r';
    if (::write(ready, &c, 1) != 1 || ::read(go, &c, 1) != 1) ::_exit(5);
    std::mt19937 rng(1000u + static_cast<unsigned>(index));
    Tally tally;
    for (int i = 0; i < kOperations; ++i) {
        int k = static_cast<int>(rng() % kKeys);
        std::string key = KeyName(k);
        unsigned op = rng() % 20;
        if (op < 8) {
            if (AddWriteComplete(h, key)) ++tally.completions[k];
        } else if (op < 13) {
            if (DepotEntry* e = DepotGetEntry(h, key.c_str(), "1")) DepotFreeEntry(h, e);
        } else if (op < 19) {
            if (tally.completions[k] > tally.unregistrations[k] && Unregister(h, key))
                ++tally.unregistrations[k];
        } else {
            DepotPurgeExpiredEntries(h);
        }
    }
    ssize_t n = ::write(out, &tally, sizeof tally);
    ::_exit(n == static_cast<ssize_t>(sizeof tally) ? 0 : 4);
}

class DepotMultiProcess : public DepotTest {};

TEST_F(DepotMultiProcess, RandomOperationsKeepFilesAndCountsConsistent) {
    ASSERT_EQ(::mkdir("depot", 0700), 0);
    // The semaphores exist, free, before the workers start, so that none of
    // them races another to create and initialise a set.
    for (const char* f : {"depot.lk", "entry.lk"}) {
        WriteFile(f, "");
        PalSemHandle sem{};
        ASSERT_EQ(PalInitSem(&sem, f).palError, PAL_OK);
        PalCloseSem(&sem);
    }
    int ready[2], go[2];
    ASSERT_EQ(::pipe(ready), 0);
    ASSERT_EQ(::pipe(go), 0);
    int fds[kProcesses][2];
    pid_t pids[kProcesses];
    for (int p = 0; p < kProcesses; ++p) {
        ASSERT_EQ(::pipe(fds[p]), 0);
        pids[p] = ::fork();
        ASSERT_GE(pids[p], 0);
        if (pids[p] == 0) Worker(p, ready[1], go[0], fds[p][1]);
        ::close(fds[p][1]);
    }
    char c = 0;
    for (int p = 0; p < kProcesses; ++p) ASSERT_EQ(::read(ready[0], &c, 1), 1);
    for (int p = 0; p < kProcesses; ++p) ASSERT_EQ(::write(go[1], "g", 1), 1);
    for (int fd : {ready[0], ready[1], go[0], go[1]}) ::close(fd);
    Tally total;
    for (int p = 0; p < kProcesses; ++p) {
        Tally t;
        EXPECT_EQ(::read(fds[p][0], &t, sizeof t), static_cast<ssize_t>(sizeof t));
        ::close(fds[p][0]);
        int status = 0;
        ASSERT_EQ(::waitpid(pids[p], &status, 0), pids[p]);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        for (int k = 0; k < kKeys; ++k) {
            total.completions[k] += t.completions[k];
            total.unregistrations[k] += t.unregistrations[k];
        }
    }

    Open();
    int completed = 0;
    for (int k = 0; k < kKeys; ++k) completed += total.completions[k];
    EXPECT_GT(completed, 100);  // the processes really did work
    auto names = ListDir("depot");
    for (const auto& name : names) {
        std::string text = ReadFile("depot/" + name);
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".dat") == 0) {
            EXPECT_TRUE(Exists("depot/" + name.substr(0, name.size() - 4) + ".xml")) << name;
            continue;
        }
        DepotEntry* e = DepotEntryNewFromToc(handle_, text.c_str());
        ASSERT_NE(e, nullptr) << name;
        DepotFreeEntry(handle_, e);
    }
    for (int k = 0; k < kKeys; ++k) {
        SCOPED_TRACE(KeyName(k));
        int expected = total.completions[k] - total.unregistrations[k];
        DepotEntry* e = DepotGetEntry(handle_, KeyName(k).c_str(), "1");
        EXPECT_EQ(e != nullptr ? e->referenceCount : 0, expected)
            << "completions " << total.completions[k] << ", unregistrations "
            << total.unregistrations[k];
    }
}

TEST_F(DepotMultiProcess, KilledLockHolderDoesNotStopTheOthers) {
    Open();
    TakeBackExtraUnits(handle_);
    int ready[2];
    ASSERT_EQ(::pipe(ready), 0);
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        char c = PalWaitSem(&handle_->depotLock).palError == PAL_OK ? 'y' : 'n';
        if (::write(ready[1], &c, 1) != 1) ::_exit(1);
        for (;;) ::pause();
    }
    char c = 0;
    ASSERT_EQ(::read(ready[0], &c, 1), 1);
    ::close(ready[0]);
    ::close(ready[1]);
    ASSERT_EQ(c, 'y');
    EXPECT_EQ(SemValue("depot.lk"), 0);  // held by the child
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_EQ(SemValue("depot.lk"), 1);
    EXPECT_NE(DepotAddEntry(handle_, "abc", "1", nullptr, 0), nullptr);
}

}  // namespace
