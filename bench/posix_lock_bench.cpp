// Cost of an uncontended take-and-release of a named semaphore, against the
// same pair of raw semop calls (with SEM_UNDO, as the layer uses) on the same
// set. The semaphore is keyed on a file in a temporary directory; the set and
// the directory are removed at the end.

#include <fanout/pallock.h>

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace {

PalSemHandle g_handle{};

int SemId() {
    return static_cast<PalInternalSem*>(g_handle.handle)->semid;
}

void BM_PalWaitPostPair(benchmark::State& state) {
    for (auto _ : state) {
        PalError w = PalWaitSem(&g_handle);
        PalError p = PalPostSem(&g_handle);
        benchmark::DoNotOptimize(w);
        benchmark::DoNotOptimize(p);
    }
}
BENCHMARK(BM_PalWaitPostPair);

// Baseline: the two system calls the layer makes, issued directly.
void BM_RawSemopPair(benchmark::State& state) {
    const int id = SemId();
    struct sembuf take {
        0, -1, SEM_UNDO
    };
    struct sembuf give {
        0, +1, SEM_UNDO
    };
    for (auto _ : state) {
        int a = semop(id, &take, 1);
        int b = semop(id, &give, 1);
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(b);
    }
}
BENCHMARK(BM_RawSemopPair);

}  // namespace

int main(int argc, char** argv) {
    char pattern[] = "/tmp/fanout-lockbench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) return 1;
    const std::string dir = pattern;
    const std::string key = dir + "/bench.lk";
    close(open(key.c_str(), O_CREAT | O_WRONLY, 0600));
    int rc = 1;
    if (PalInitSem(&g_handle, key.c_str()).palError == PAL_OK) {
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
        PalDestSem(&g_handle);
        rc = 0;
    } else {
        std::fprintf(stderr, "cannot create the semaphore\n");
    }
    unlink(key.c_str());
    rmdir(dir.c_str());
    return rc;
}
