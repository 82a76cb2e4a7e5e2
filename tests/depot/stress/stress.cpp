// stress.cpp - several processes working one Depot at random, then a full
// consistency check of what they left.
//
//   depot_stress [--mode strict|default] [--runs N] [--processes P] [--ops N]
//                [--seed S]
//
// Each process adds keys (all in one bucket), writes their data in pieces,
// asks for its checkpoint, completes, looks up, unregisters, removes and
// purges. Whatever happens must leave: every entry file parseable, every
// data file with its entry file and the other way round, no key stored
// twice, no entry left in progress, every reference count equal to the
// completions less the unregistrations the processes counted, and every
// complete entry's data exactly the bytes of its key. Processes also check
// what they can while they run: a checkpoint reports what they wrote, a
// completion of their own entry succeeds, an entry they hold a registration
// on is found with its own bytes.
//
// "strict" runs the Depot's strict lock mode; "default" the established mode
// as it is, without taking back the units DepotNew lends the semaphores.
// Prints the violations of each run and their total; exits 1 when there were
// any. Not a timed test: nothing waits for anything but the other processes.

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "fanout/depot.h"
#include "fanout/log.h"
#include "fanout/palfile.h"

namespace {

constexpr int kKeys = 24;
constexpr PalInt32 kFarDeadline = 2000000000;

struct Settings {
    bool strict = true;
    int runs = 1;
    int processes = 4;
    int ops = 2000;
    unsigned seed = 1;
};

// What one process reports: its completions less its unregistrations per
// key, and the violations it saw itself.
struct Report {
    std::array<int, kKeys> held{};
    int violations = 0;
};

// "key00".."key23" with version "1": the joined keys share their first half,
// so all of them hash to one bucket.
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

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
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

[[noreturn]] void Worker(const Settings& s, int index, int go, int out) {
    fanout_log_set_level(-1);
    DepotHandle* h = nullptr;
    if (DepotNew(&h, nullptr, 0).palError != PAL_OK || h == nullptr) ::_exit(2);
    char c = 0;
    if (::read(go, &c, 1) != 1) ::_exit(3);
    std::mt19937 rng(s.seed * 7919u + static_cast<unsigned>(index));
    Report r;
    Pending p;
    for (int i = 0; i < s.ops; ++i) {
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

bool EndsWith(const std::string& s, const char* suffix) {
    size_t n = std::strlen(suffix);
    return s.size() > n && s.compare(s.size() - n, n, suffix) == 0;
}

// The consistency check of a finished run; returns the violations.
int CheckDepot(const std::array<int, kKeys>& held) {
    int violations = 0;
    auto complain = [&](const std::string& what) {
        ++violations;
        std::fprintf(stderr, "  depot: %s\n", what.c_str());
    };
    std::vector<std::string> names;
    if (DIR* d = ::opendir("depot")) {
        while (dirent* e = ::readdir(d)) names.push_back(e->d_name);
        ::closedir(d);
    }
    DepotHandle* h = nullptr;
    DepotNew(&h, nullptr, 0);
    std::map<std::string, int> refs;
    for (const auto& name : names) {
        const std::string stem = name.substr(0, name.size() > 3 ? name.size() - 3 : 0);
        if (EndsWith(name, "dat")) {
            if (::access(("depot/" + stem + "xml").c_str(), F_OK) != 0)
                complain(name + " has no entry file");
            continue;
        }
        if (!EndsWith(name, "xml")) continue;
        const std::string text = ReadAll("depot/" + name);
        DepotEntry* e = DepotEntryNewFromToc(h, text.c_str());
        if (e == nullptr) {
            complain(name + " does not parse");
            continue;
        }
        const std::string key = e->id;
        if (refs.count(key) != 0) complain(key + " is stored twice");
        refs[key] = e->referenceCount;
        if (e->state == DEPOT_STATE_IN_PROGRESS) complain(name + " was left in progress");
        const int k = std::atoi(key.c_str() + 3);
        if (::access(("depot/" + stem + "dat").c_str(), F_OK) != 0) {
            complain(name + " has no data file");
        } else if (e->state != DEPOT_STATE_IN_PROGRESS &&
                   ReadAll("depot/" + stem + "dat") != Bytes(k)) {
            complain(name + " (" + key + ") holds other bytes");
        }
        DepotFreeEntry(h, e);
    }
    for (int k = 0; k < kKeys; ++k) {
        const auto it = refs.find(KeyName(k));
        const int have = it == refs.end() ? 0 : it->second;
        if (have != held[k])
            complain(KeyName(k) + " has " + std::to_string(have) + " references, not " +
                     std::to_string(held[k]));
    }
    DepotFree(h);
    return violations;
}

// One run in a fresh directory; returns its violations.
int Run(const Settings& s, int run) {
    char tmpl[] = "/tmp/fanout-stress-XXXXXX";
    if (::mkdtemp(tmpl) == nullptr || ::chdir(tmpl) != 0 || ::mkdir("depot", 0700) != 0) {
        std::perror("depot_stress: scratch directory");
        std::exit(2);
    }
    // The semaphores exist before the processes start, so that none races
    // another to create and initialise a set.
    for (const char* f : {"depot.lk", "entry.lk", "enum.lk"}) {
        ::close(::open(f, O_CREAT | O_WRONLY, 0600));
        PalSemHandle sem{};
        PalInitSem(&sem, f);
        PalCloseSem(&sem);
    }
    Settings mine = s;
    mine.seed = s.seed + static_cast<unsigned>(run) * 1000u;
    int go[2];
    if (::pipe(go) != 0) std::exit(2);
    std::vector<pid_t> pids;
    std::vector<int> outs;
    for (int p = 0; p < s.processes; ++p) {
        int fds[2];
        if (::pipe(fds) != 0) std::exit(2);
        pid_t pid = ::fork();
        if (pid == 0) {
            ::close(fds[0]);
            Worker(mine, p, go[0], fds[1]);
        }
        ::close(fds[1]);
        pids.push_back(pid);
        outs.push_back(fds[0]);
    }
    for (int p = 0; p < s.processes; ++p)
        if (::write(go[1], "g", 1) != 1) std::exit(2);
    ::close(go[0]);
    ::close(go[1]);
    int violations = 0;
    std::array<int, kKeys> held{};
    for (int p = 0; p < s.processes; ++p) {
        Report r;
        if (::read(outs[p], &r, sizeof r) != static_cast<ssize_t>(sizeof r)) {
            std::fprintf(stderr, "  process %d: no report\n", p);
            ++violations;
        } else {
            violations += r.violations;
            for (int k = 0; k < kKeys; ++k) held[k] += r.held[k];
        }
        ::close(outs[p]);
        int status = 0;
        ::waitpid(pids[p], &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            std::fprintf(stderr, "  process %d: ended with status %d\n", p, status);
            ++violations;
        }
    }
    violations += CheckDepot(held);
    for (const char* f : {"depot.lk", "entry.lk", "enum.lk"}) {
        key_t key = ::ftok(f, 1);
        int id = key == -1 ? -1 : ::semget(key, 1, 0);
        if (id >= 0) ::semctl(id, 0, IPC_RMID);
    }
    if (::chdir("/") != 0) std::exit(2);
    ::nftw(
        tmpl, [](const char* path, const struct stat*, int, struct FTW*) { return ::remove(path); },
        16, FTW_DEPTH | FTW_PHYS);
    return violations;
}

}  // namespace

int main(int argc, char** argv) {
    Settings s;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string name = argv[i], value = argv[i + 1];
        if (name == "--mode") {
            s.strict = value != "default";
        } else if (name == "--runs") {
            s.runs = std::atoi(value.c_str());
        } else if (name == "--processes") {
            s.processes = std::atoi(value.c_str());
        } else if (name == "--ops") {
            s.ops = std::atoi(value.c_str());
        } else if (name == "--seed") {
            s.seed = static_cast<unsigned>(std::strtoul(value.c_str(), nullptr, 10));
        } else {
            std::fprintf(stderr, "depot_stress: unknown option %s\n", name.c_str());
            return 2;
        }
    }
    if (s.processes < 1 || s.processes > 64 || s.ops < 0 || s.runs < 1) {
        std::fprintf(stderr, "depot_stress: bad settings\n");
        return 2;
    }
    ::setenv("FANOUT_DEPOT_STRICT_LOCKS", s.strict ? "1" : "0", 1);
    int total = 0, failedRuns = 0;
    for (int run = 0; run < s.runs; ++run) {
        const int v = Run(s, run);
        std::printf("run %d: %d violations\n", run + 1, v);
        std::fflush(stdout);
        total += v;
        failedRuns += v != 0 ? 1 : 0;
    }
    std::printf("%s mode, %d processes x %d operations, %d runs: %d violations in %d runs\n",
                s.strict ? "strict" : "default", s.processes, s.ops, s.runs, total, failedRuns);
    return total == 0 ? 0 : 1;
}
