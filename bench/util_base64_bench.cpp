// Base64 throughput on 64 MiB, against the coreutils base64 program on the
// same bytes in the same run (baseline "coreutils"). Counted in input bytes
// per second: for decoding, the input is the encoded text.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include "fanout/base64.h"
#include "fanout/palmemory.h"

namespace {

constexpr size_t kSize = 64u << 20;

struct Data {
    std::vector<uint8_t> bytes;
    std::string text;
    std::string dir, binFile, textFile;
    Data() : bytes(kSize) {
        std::mt19937_64 rng(1);
        for (size_t i = 0; i < kSize; i += 8) {
            const uint64_t v = rng();
            std::memcpy(&bytes[i], &v, 8);
        }
        PalChar* out = nullptr;
        PalUint32 len = 0;
        Encode(bytes.data(), kSize, &out, &len);
        text.assign(out, len);
        PalMemoryFree(out);
        char tmpl[] = "/tmp/fanout-b64-XXXXXX";
        dir = mkdtemp(tmpl);
        binFile = dir + "/in.bin";
        textFile = dir + "/in.txt";
        FILE* f = std::fopen(binFile.c_str(), "wb");
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
        f = std::fopen(textFile.c_str(), "wb");
        std::fwrite(text.data(), 1, text.size(), f);
        std::fclose(f);
    }
    ~Data() {
        unlink(binFile.c_str());
        unlink(textFile.c_str());
        rmdir(dir.c_str());
    }
};

Data& Shared() {
    static Data d;
    return d;
}

void BM_Encode(benchmark::State& state) {
    Data& d = Shared();
    for (auto _ : state) {
        PalChar* out = nullptr;
        PalUint32 len = 0;
        Encode(d.bytes.data(), kSize, &out, &len);
        benchmark::DoNotOptimize(out);
        PalMemoryFree(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * kSize);
}

void BM_Decode(benchmark::State& state) {
    Data& d = Shared();
    for (auto _ : state) {
        PalUint8* out = nullptr;
        PalUint32 len = 0;
        Decode(d.text.data(), static_cast<PalUint32>(d.text.size()), &out, &len);
        benchmark::DoNotOptimize(out);
        PalMemoryFree(out);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * d.text.size());
}

// Runs "base64 [-d] FILE >/dev/null" and reports its wall time.
void RunCoreutils(benchmark::State& state, bool decode) {
    Data& d = Shared();
    const std::string& file = decode ? d.textFile : d.binFile;
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        pid_t pid = fork();
        if (pid == 0) {
            freopen("/dev/null", "w", stdout);
            if (decode) {
                execlp("base64", "base64", "-d", file.c_str(), static_cast<char*>(nullptr));
            } else {
                execlp("base64", "base64", "-w0", file.c_str(), static_cast<char*>(nullptr));
            }
            _exit(127);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            state.SkipWithError("coreutils base64 failed");
            return;
        }
        state.SetIterationTime(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) *
                            (decode ? d.text.size() : kSize));
}

void BM_Coreutils_Encode(benchmark::State& state) {
    RunCoreutils(state, false);
}
void BM_Coreutils_Decode(benchmark::State& state) {
    RunCoreutils(state, true);
}

}  // namespace

BENCHMARK(BM_Encode)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Coreutils_Encode)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Decode)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Coreutils_Decode)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
