// depot_bench.cpp - what the Depot's main operations cost at 1,000 and 10,000
// entries, against a floor: a program that makes only the file-system calls the
// store's algorithms require for the same operations (the flat directory read
// of a bucket scan, and the opens, reads, writes and closes of entry and data
// files), with no locks, records or trace log.
//
// Operations: add + open for write + write 4 KiB + complete; a lookup answered
// by the in-memory list (one check of the entry file); a lookup that misses the
// list and scans the key's bucket. Run with --benchmark_counters_tabular=true;
// each Depot figure has its Floor twin with the same argument.

#include <benchmark/benchmark.h>
#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fanout/depot.h"
#include "fanout/log.h"
#include "fanout/palmemory.h"

namespace {

constexpr size_t kSegment = 4096;

std::string KeyFor(const char* prefix, unsigned i) {
    // Spread over the buckets: the first half of the key varies.
    char key[32];
    std::snprintf(key, sizeof key, "%s%08x", prefix, i * 2654435761u);
    return key;
}

std::string BucketOf(const std::string& id, const std::string& version) {
    PalChar* b = DepotFindBucket(id.c_str(), version.c_str());
    std::string s = b;
    PalMemoryFree(b);
    return s;
}

std::string EntryTextFor(const std::string& id, const std::string& location) {
    DepotEntry e{};
    e.id = const_cast<PalChar*>(id.c_str());
    e.version = const_cast<PalChar*>("1");
    e.location = const_cast<PalChar*>(location.c_str());
    e.state = DEPOT_STATE_COMPLETE;
    e.referenceCount = 1;
    PalChar* text = nullptr;
    PalUint32 length = 0;
    DepotEntrySetProperties(nullptr, &e, &text, &length);
    std::string s(text, length);
    PalMemoryFree(text);
    return s;
}

// One depot of a given size in its own directory, filled directly on disk.
struct Depot {
    std::string dir;
    DepotHandle* handle = nullptr;
    std::map<std::string, int> nextSequence;  // per bucket
    unsigned added = 0;
    unsigned floorAdded = 0;
    unsigned size = 0;

    explicit Depot(unsigned n) : size(n) {
        char tmpl[] = "/tmp/depot_bench_XXXXXX";
        dir = ::mkdtemp(tmpl);
        if (::chdir(dir.c_str()) != 0) std::abort();
        ::mkdir("depot", 0700);
        std::string data(kSegment, 'd');
        for (unsigned i = 0; i < n; ++i) {
            std::string id = KeyFor("k", i);
            auto [xml, dat] = NewPaths(id);
            WriteAll(dat, data);
            WriteAll(xml, EntryTextFor(id, dat));
        }
        DepotNew(&handle, nullptr, 0);
    }

    ~Depot() {
        DepotFree(handle);
        for (const char* f : {"depot.lk", "entry.lk", "enum.lk"}) {
            key_t key = ::ftok(f, 1);
            int id = key == -1 ? -1 : ::semget(key, 1, 0);
            if (id >= 0) ::semctl(id, 0, IPC_RMID);
        }
        if (::chdir("/") != 0) std::abort();
        ::nftw(
            dir.c_str(),
            [](const char* p, const struct stat*, int, struct FTW*) { return ::remove(p); }, 16,
            FTW_DEPTH | FTW_PHYS);
    }

    std::pair<std::string, std::string> NewPaths(const std::string& id) {
        std::string bucket = BucketOf(id, "1");
        int n = nextSequence[bucket]++;
        std::string base = "depot/" + bucket + "." + std::to_string(n);
        return {base + ".xml", base + ".dat"};
    }

    static void WriteAll(const std::string& path, const std::string& bytes) {
        int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0600);
        if (fd < 0 || ::write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
            std::abort();
        ::close(fd);
    }
};

Depot& DepotOf(unsigned n) {
    static std::map<unsigned, std::unique_ptr<Depot>> depots;
    auto& d = depots[n];
    if (!d) {
        depots.clear();  // one depot on disk at a time
        fanout_log_set_level(0);
        depots[n] = std::make_unique<Depot>(n);
        return *depots[n];
    }
    if (::chdir(d->dir.c_str()) != 0) std::abort();
    return *d;
}

// ------------------------------------------------------------------ floor

// Reads a whole file into buf: open, fstat, read, close.
bool FloorRead(const std::string& path, std::vector<char>* buf) {
    int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return false;
    struct stat st;
    ::fstat(fd, &st);
    buf->resize(static_cast<size_t>(st.st_size) + 1);
    ssize_t n = ::read(fd, buf->data(), static_cast<size_t>(st.st_size));
    (*buf)[n > 0 ? static_cast<size_t>(n) : 0] = '\0';
    ::close(fd);
    return true;
}

// Scans the key's bucket in directory order until an entry file names it.
bool FloorScan(const std::string& id, std::vector<int>* used) {
    std::string bucket = BucketOf(id, "1");
    std::string needle = "<id>" + id + "</id><version>1</version>";
    std::vector<char> buf;
    DIR* d = ::opendir("depot");
    bool found = false;
    while (dirent* e = ::readdir(d)) {
        size_t len = std::strlen(e->d_name);
        if (std::strncmp(e->d_name, bucket.c_str(), 8) != 0 || len <= 3 ||
            std::strcmp(e->d_name + len - 3, "xml") != 0)
            continue;
        if (used != nullptr) used->push_back(std::atoi(e->d_name + 9));
        if (!FloorRead(std::string("depot/") + e->d_name, &buf)) break;
        if (std::strstr(buf.data(), needle.c_str()) != nullptr) {
            found = true;
            break;
        }
    }
    ::closedir(d);
    return found;
}

void FloorWriteEntry(const std::string& path, const std::string& text) {
    int fd = ::open(path.c_str(), O_CREAT | O_WRONLY, 0600);
    benchmark::DoNotOptimize(::write(fd, text.data(), text.size()));
    ::close(fd);
}

// ------------------------------------------------------------ benchmarks

void BM_DepotAddWriteComplete(benchmark::State& state) {
    Depot& d = DepotOf(static_cast<unsigned>(state.range(0)));
    std::string data(kSegment, 'x');
    for (auto _ : state) {
        std::string id = KeyFor("a", d.added++);
        DepotEntry* e = DepotAddEntry(d.handle, id.c_str(), "1", nullptr, 0);
        PalFileHandle f{};
        DepotFileOpenForWrite(d.handle, e, &f, PAL_TRUE);
        PalUint32 n = 0;
        PalFileWrite(f, data.data(), kSegment, &n);
        PalFileClose(f);
        DepotCompleteEntry(d.handle, e, 0);
    }
}

void BM_FloorAddWriteComplete(benchmark::State& state) {
    Depot& d = DepotOf(static_cast<unsigned>(state.range(0)));
    std::string data(kSegment, 'x');
    for (auto _ : state) {
        std::string id = KeyFor("f", d.floorAdded++);
        std::vector<int> used;
        FloorScan(id, &used);  // the add's lookup: the whole bucket
        int n = 0;
        while (std::find(used.begin(), used.end(), n) != used.end()) ++n;
        std::string base = "depot/" + BucketOf(id, "1") + "." + std::to_string(n);
        std::string xml = base + ".xml", dat = base + ".dat";
        std::string text = EntryTextFor(id, dat);
        FloorWriteEntry(xml, text);                                    // add: entry file
        ::close(::open(dat.c_str(), O_CREAT | O_WRONLY, 0600));        // add: data file
        int fd = ::open(dat.c_str(), O_RDWR | O_TRUNC);                // open for write
        FloorWriteEntry(xml, text);                                    //   its save
        benchmark::DoNotOptimize(::write(fd, data.data(), kSegment));  // write 4 KiB
        ::close(fd);
        FloorWriteEntry(xml, text);  // complete: save
    }
}

void BM_DepotLookupHit(benchmark::State& state) {
    Depot& d = DepotOf(static_cast<unsigned>(state.range(0)));
    std::string id = KeyFor("k", 7);
    DepotEntry* cached = DepotGetEntry(d.handle, id.c_str(), "1");
    for (auto _ : state) benchmark::DoNotOptimize(DepotGetEntry(d.handle, id.c_str(), "1"));
    DepotFreeEntry(d.handle, cached);
}

void BM_FloorLookupHit(benchmark::State& state) {
    Depot& d = DepotOf(static_cast<unsigned>(state.range(0)));
    std::string id = KeyFor("k", 7);
    DepotEntry* e = DepotGetEntry(d.handle, id.c_str(), "1");
    std::string path = e->entryFilePath;
    DepotFreeEntry(d.handle, e);
    std::vector<char> buf;
    for (auto _ : state) benchmark::DoNotOptimize(FloorRead(path, &buf));
}

void BM_DepotLookupMiss(benchmark::State& state) {
    Depot& d = DepotOf(static_cast<unsigned>(state.range(0)));
    unsigned i = 0;
    for (auto _ : state) {
        std::string id = KeyFor("k", i++ % d.size);
        DepotEntry* e = DepotGetEntry(d.handle, id.c_str(), "1");
        DepotFreeEntry(d.handle, e);  // so that the next lookup scans again
    }
}

void BM_FloorLookupMiss(benchmark::State& state) {
    Depot& d = DepotOf(static_cast<unsigned>(state.range(0)));
    unsigned i = 0;
    for (auto _ : state) benchmark::DoNotOptimize(FloorScan(KeyFor("k", i++ % d.size), nullptr));
}

}  // namespace

// Each size is set up once and all six figures are taken on it, the Depot's
// and the floor's side by side; the add benchmarks run a fixed number of
// times so that they barely change the depot's size.
int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    struct {
        const char* name;
        void (*fn)(benchmark::State&);
        bool add;
    } const cases[] = {
        {"DepotLookupHit", BM_DepotLookupHit, false},
        {"FloorLookupHit", BM_FloorLookupHit, false},
        {"DepotLookupMiss", BM_DepotLookupMiss, false},
        {"FloorLookupMiss", BM_FloorLookupMiss, false},
        {"DepotAddWriteComplete", BM_DepotAddWriteComplete, true},
        {"FloorAddWriteComplete", BM_FloorAddWriteComplete, true},
    };
    for (long size : {1000L, 10000L}) {
        for (const auto& c : cases) {
            auto* b = benchmark::RegisterBenchmark(c.name, c.fn)
                          ->Arg(size)
                          ->Unit(benchmark::kMicrosecond);
            if (c.add) b->Iterations(300);
        }
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
