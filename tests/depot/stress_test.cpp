// stress_test.cpp - several processes working one Depot at random (adds, pieces of data,
// checkpoints, completions, lookups, unregistrations, removals, purges), then a full consistency
// check: entry and data files in pairs and parseable, no key twice, none left in progress,
// reference counts equal to what the processes counted, complete entries holding their key's bytes.
// Longer runs by hand: FANOUT_STRESS_RUNS=20 FANOUT_STRESS_OPS=2000, and
// FANOUT_DEPOT_STRICT_LOCKS=0 for the established lock mode (the test runs the strict one).

#include <fcntl.h>

#include <array>
#include <cstdio>
#include <map>
#include <random>
#include <string>

#include "depot_fixture.h"
#include "fanout/palfile.h"

using namespace depot_test;

namespace {

constexpr int kKeys = 24;
constexpr int kProcesses = 4;
constexpr PalInt32 kFarDeadline = 2000000000;

// Per key, a process's completions less its unregistrations; and the violations it saw itself.
struct Report {
    std::array<int, kKeys> held{};
    int violations = 0;
};

// "key00".."key23" with version "1": all in one bucket, as the keys' first halves are equal.
std::string KeyName(int k) {
    char name[16];
    std::snprintf(name, sizeof name, "key%02d", k);
    return name;
}

// The bytes every entry of key k must hold.
std::string Bytes(int k) {
    std::string s(static_cast<size_t>(700 + 53 * k), '\0');
    for (size_t i = 0; i < s.size(); ++i)
        s[i] = static_cast<char>((i * 7 + k * 13 + i / 97) & 0xFF);
    return s;
}

// Reads the entry's data through the Depot; false when it cannot be opened.
bool ReadData(DepotHandle* h, DepotEntry* e, std::string* out) {
    PalFileHandle f{};
    if (DepotFileOpenForRead(h, e, &f).palError != PAL_OK) return false;
    out->clear();
    char block[4096];
    for (;;) {
        PalUint32 n = 0;
        if (PalFileRead(f, block, sizeof block, &n).palError != PAL_OK || n == 0) break;
        out->append(block, n);
    }
    PalFileClose(f);
    return true;
}

void Complain(Report& r, int index, const std::string& what) {
    ++r.violations;
    std::fprintf(stderr, "  process %d: %s\n", index, what.c_str());
}

// The entry this process is adding, if any.
struct Pending {
    DepotEntry* entry = nullptr;
    int key = -1;
    size_t written = 0;
    PalInt32 stamp = 0;
    bool opened = false;
};

// Writes the next piece of the pending entry's bytes (all of them with
// `finish`), starting over when nothing was written yet.
bool WritePiece(DepotHandle* h, Pending& p, bool finish, std::mt19937& rng) {
    const std::string bytes = Bytes(p.key);
    PalFileHandle f{};
    if (DepotFileOpenForWrite(h, p.entry, &f, p.written == 0 ? PAL_TRUE : PAL_FALSE).palError !=
        PAL_OK)
        return false;
    p.stamp = p.entry->lastWriteTime;
    p.opened = true;
    PalFileSetLocation(f, static_cast<PalInt64>(p.written), PAL_SEEK_BEGIN);
    size_t left = bytes.size() - p.written;
    size_t piece = finish || left < 2 ? left : 1 + rng() % left;
    PalUint32 n = 0;
    bool ok =
        PalFileWrite(f, bytes.data() + p.written, static_cast<PalUint32>(piece), &n).palError ==
            PAL_OK &&
        n == piece;
    PalFileClose(f);
    if (ok) p.written += piece;
    return ok;
}

// Finishes and completes the pending entry.
void Complete(DepotHandle* h, Pending& p, Report& r, int index, std::mt19937& rng) {
    if (p.written < Bytes(p.key).size() && !WritePiece(h, p, true, rng))
        Complain(r, index, "cannot write its own entry of " + KeyName(p.key));
    PalError e = DepotCompleteEntry(h, p.entry, kFarDeadline);  // releases the record
    if (e.palError == PAL_OK) {
        ++r.held[p.key];
    } else {
        Complain(r, index,
                 "completion of its own entry of " + KeyName(p.key) + " failed (" +
                     std::to_string(e.palError) + ")");
    }
    p = Pending{};
}

[[noreturn]] void Worker(int seed, int ops, int index, int go, int out) {
    fanout_log_set_level(-1);
    DepotHandle* h = nullptr;
    if (DepotNew(&h, nullptr, 0).palError != PAL_OK || h == nullptr) ::_exit(2);
    char c = 0;
    if (::read(go, &c, 1) != 1) ::_exit(3);
    std::mt19937 rng(static_cast<unsigned>(seed) * 7919u + static_cast<unsigned>(index));
    Report r;
    Pending p;
    for (int i = 0; i < ops; ++i) {
        const int k = static_cast<int>(rng() % kKeys);
        const std::string key = KeyName(k);
        const unsigned op = rng() % 100;
        const bool mine = p.entry != nullptr && p.key == k;  // never touched by other paths
        if (op < 20) {                                       // add
            if (p.entry != nullptr) continue;
            DepotEntry* e = DepotAddEntry(h, key.c_str(), "1", nullptr, 0);
            if (e == nullptr) continue;
            if (e->state == DEPOT_STATE_IN_PROGRESS) {
                p.entry = e;
                p.key = k;
                continue;
            }
            // A complete entry is registered again; it must hold its bytes.
            std::string data;
            if (ReadData(h, e, &data) && data != Bytes(k))
                Complain(r, index, "reused entry of " + key + " holds other bytes");
            if (DepotCompleteEntry(h, e, kFarDeadline).palError == PAL_OK) ++r.held[k];
        } else if (op < 35) {  // write
            if (p.entry != nullptr && p.written < Bytes(p.key).size() &&
                !WritePiece(h, p, false, rng))
                Complain(r, index, "cannot write its own entry of " + KeyName(p.key));
        } else if (op < 45) {  // checkpoint
            if (p.entry == nullptr || !p.opened) continue;
            PalUint64 offset = ~PalUint64{0};
            PalError e = DepotSetCheckpointOffset(h, KeyName(p.key).c_str(), "1", p.stamp, &offset);
            if (e.palError != PAL_OK || offset != p.written)
                Complain(r, index,
                         "checkpoint of " + KeyName(p.key) + " is " + std::to_string(offset) +
                             ", not " + std::to_string(p.written));
        } else if (op < 60) {  // complete
            if (p.entry != nullptr) Complete(h, p, r, index, rng);
        } else if (op < 80) {  // lookup
            if (mine) continue;
            DepotEntry* e = DepotGetEntry(h, key.c_str(), "1");
            if (r.held[k] > 0) {
                // Registered here: the entry cannot go, and holds its bytes.
                std::string data;
                if (e == nullptr)
                    Complain(r, index, "a registered entry of " + key + " is gone");
                else if (e->state != DEPOT_STATE_IN_PROGRESS &&
                         (!ReadData(h, e, &data) || data != Bytes(k)))
                    Complain(r, index, "a registered entry of " + key + " holds other bytes");
            }
            if (e != nullptr) DepotFreeEntry(h, e);
        } else if (op < 90) {  // unregister
            if (mine || r.held[k] == 0) continue;
            DepotEntry* e = DepotGetEntry(h, key.c_str(), "1");
            if (e == nullptr) {
                Complain(r, index, "cannot find a registered entry of " + key);
                continue;
            }
            DepotEntryChangeState(h, e, DEPOT_STATE_IN_USE);
            if (DepotUnregisterEntry(h, e, PAL_FALSE).palError == PAL_OK) --r.held[k];
        } else if (op < 95) {  // remove (only what nobody references)
            if (mine) continue;
            if (DepotEntry* e = DepotGetEntry(h, key.c_str(), "1"))
                DepotRemoveEntry(h, e, PAL_FALSE);
        } else {  // purge
            DepotPurge(h, PAL_FALSE);
        }
    }
    if (p.entry != nullptr) Complete(h, p, r, index, rng);
    DepotFree(h);
    ssize_t n = ::write(out, &r, sizeof r);
    ::_exit(n == static_cast<ssize_t>(sizeof r) ? 0 : 4);
}

// The consistency check of a finished run in the working directory.
void CheckDepot(DepotHandle* h, const std::array<int, kKeys>& held) {
    std::map<std::string, int> refs;
    for (const auto& name : ListDir("depot")) {
        SCOPED_TRACE(name);
        const std::string stem = "depot/" + name.substr(0, name.size() - 3);
        if (name.ends_with(".dat")) {
            EXPECT_TRUE(Exists(stem + "xml")) << "no entry file";
            continue;
        }
        if (!name.ends_with(".xml")) continue;
        DepotEntry* e = DepotEntryNewFromToc(h, ReadFile("depot/" + name).c_str());
        ASSERT_NE(e, nullptr) << "does not parse";
        const std::string key = e->id;
        EXPECT_EQ(refs.count(key), 0u) << key << " is stored twice";
        refs[key] = e->referenceCount;
        EXPECT_NE(e->state, DEPOT_STATE_IN_PROGRESS);
        EXPECT_TRUE(Exists(stem + "dat")) << "no data file";
        if (e->state != DEPOT_STATE_IN_PROGRESS) {
            EXPECT_EQ(ReadFile(stem + "dat"), Bytes(std::atoi(key.c_str() + 3))) << key;
        }
        DepotFreeEntry(h, e);
    }
    for (int k = 0; k < kKeys; ++k) EXPECT_EQ(refs[KeyName(k)], held[k]) << KeyName(k);
}

int EnvInt(const char* name, int fallback) {
    const char* value = std::getenv(name);
    return value != nullptr ? std::atoi(value) : fallback;
}

class DepotStress : public DepotTest {
  protected:
    void TearDown() override {
        ::unsetenv("FANOUT_DEPOT_STRICT_LOCKS");
        DepotTest::TearDown();
    }
};

TEST_F(DepotStress, RandomProcessesLeaveAConsistentDepot) {
    ::setenv("FANOUT_DEPOT_STRICT_LOCKS", "1", 0);
    const int runs = EnvInt("FANOUT_STRESS_RUNS", 1), ops = EnvInt("FANOUT_STRESS_OPS", 400);
    for (int run = 0; run < runs; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        const std::string sub = dir_ + "/run" + std::to_string(run);
        ASSERT_EQ(::mkdir(sub.c_str(), 0700), 0);
        ASSERT_EQ(::chdir(sub.c_str()), 0);
        ASSERT_EQ(::mkdir("depot", 0700), 0);
        // The semaphores exist before the processes start: none races another to create a set.
        for (const char* f : {"depot.lk", "entry.lk", "enum.lk"}) {
            WriteFile(f, "");
            PalSemHandle sem{};
            ASSERT_EQ(PalInitSem(&sem, f).palError, PAL_OK);
            PalCloseSem(&sem);
        }
        // Every process writes its report to one pipe in a single (atomic) write.
        int go[2], reports[2];
        ASSERT_EQ(::pipe(go), 0);
        ASSERT_EQ(::pipe(reports), 0);
        for (int p = 0; p < kProcesses; ++p)
            if (::fork() == 0) Worker(run + 1, ops, p, go[0], reports[1]);
        ::close(reports[1]);
        for (int p = 0; p < kProcesses; ++p) ASSERT_EQ(::write(go[1], "g", 1), 1);
        ::close(go[0]);
        ::close(go[1]);
        for (int p = 0; p < kProcesses; ++p) {
            int status = 0;
            ::wait(&status);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        }
        Report r;
        std::array<int, kKeys> held{};
        int got = 0;
        for (; ::read(reports[0], &r, sizeof r) == static_cast<ssize_t>(sizeof r); ++got) {
            EXPECT_EQ(r.violations, 0);
            for (int k = 0; k < kKeys; ++k) held[k] += r.held[k];
        }
        ::close(reports[0]);
        EXPECT_EQ(got, kProcesses);
        Open();
        CheckDepot(handle_, held);
        DepotFree(handle_);
        handle_ = nullptr;
        RemoveSemaphores(".");
        ASSERT_EQ(::chdir(dir_.c_str()), 0);
    }
}

}  // namespace
