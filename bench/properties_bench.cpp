// properties_bench.cpp - costs of the property list and its file encoding.
//
// Lookup and replacement on a 30-key list, each beside a baseline doing the
// bare work underneath (a strcmp scan; a strdup and free); and
// properties_save_improved + properties_load_improved of a 30-key list and of
// a list holding one 16 MiB octet list, each beside a plain write and read of
// the same number of bytes through the same file in the same run. Goal: the
// 16 MiB save and load within 1.3x of the plain write and read.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "fanout/properties.h"
#include "fanout/types.h"

namespace {

constexpr int kKeys = 30;
constexpr uint32_t kBigList = 16u << 20;

std::string key_name(int i) {
    return "property_key_" + std::to_string(i);
}

// A list of 30 string properties.
Properties* thirty_keys() {
    Properties* p = properties_new();
    for (int i = 0; i < kKeys; ++i) {
        properties_put_string_dup(p, key_name(i).c_str(), "a value of moderate length");
    }
    return p;
}

// A list holding one 16 MiB octet list.
Properties* big_list() {
    Properties* p = properties_new();
    properties_put_string_dup(p, "id", "big");
    auto* octets = static_cast<Kel_Types_OctetList*>(mg_malloc(sizeof(Kel_Types_OctetList)));
    octets->maximum = kBigList;
    octets->length = kBigList;
    octets->buffer = static_cast<uint8_t*>(mg_malloc(kBigList));
    for (uint32_t i = 0; i < kBigList; ++i) octets->buffer[i] = static_cast<uint8_t>(i * 31);
    properties_put_OctetList(p, "data", octets);
    return p;
}

void remove_scratch();

// One scratch directory for the whole run, removed at exit (the handler is
// registered after the path is built, so it runs before the path goes).
const std::string& scratch_file() {
    static const std::string path = [] {
        std::string pattern =
            (std::filesystem::temp_directory_path() / "fanout-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) abort();
        return pattern + "/list";
    }();
    static const bool registered = (atexit(remove_scratch), true);
    static_cast<void>(registered);
    return path;
}

void remove_scratch() {
    std::error_code ec;
    std::filesystem::remove_all(std::filesystem::path(scratch_file()).parent_path(), ec);
}

void BM_GetStringLastKey(benchmark::State& state) {
    fanout_init();
    Properties* p = thirty_keys();
    std::string last = key_name(kKeys - 1);
    for (auto _ : state) benchmark::DoNotOptimize(properties_get_string(p, last.c_str()));
    properties_delete(p);
}
BENCHMARK(BM_GetStringLastKey);

// Baseline: the strcmp scan over the same 30 keys, nothing else.
void BM_Baseline_StrcmpScan(benchmark::State& state) {
    std::vector<std::string> keys;
    for (int i = 0; i < kKeys; ++i) keys.push_back(key_name(i));
    std::string last = key_name(kKeys - 1);
    for (auto _ : state) {
        int found = -1;
        for (int i = 0; i < kKeys; ++i) {
            benchmark::DoNotOptimize(keys[i].c_str());
            if (std::strcmp(keys[i].c_str(), last.c_str()) == 0) {
                found = i;
                break;
            }
        }
        benchmark::DoNotOptimize(found);
    }
}
BENCHMARK(BM_Baseline_StrcmpScan);

void BM_PutStringDupReplace(benchmark::State& state) {
    fanout_init();
    Properties* p = thirty_keys();
    std::string key = key_name(kKeys / 2);
    for (auto _ : state) properties_put_string_dup(p, key.c_str(), "a replacement value");
    properties_delete(p);
}
BENCHMARK(BM_PutStringDupReplace);

// Baseline: the allocations of one replacement (key, value word, string)
// made and released with the C heap.
void BM_Baseline_StrdupFree(benchmark::State& state) {
    std::string key = key_name(kKeys / 2);
    for (auto _ : state) {
        char* k = strdup(key.c_str());
        char** word = static_cast<char**>(malloc(sizeof(char*)));
        *word = strdup("a replacement value");
        benchmark::DoNotOptimize(word);
        free(*word);
        free(word);
        free(k);
    }
}
BENCHMARK(BM_Baseline_StrdupFree);

void save_load(benchmark::State& state, Properties* p) {
    const char* path = scratch_file().c_str();
    for (auto _ : state) {
        properties_save_improved(p, path);
        Properties back{};
        properties_load_improved(&back, path);
        kel_free_generic(&back, TC_Kel_Fanout2_Properties);
    }
    properties_save_improved(p, path);
    state.SetBytesProcessed(state.iterations() *
                            static_cast<int64_t>(std::filesystem::file_size(path)));
}

// Baseline: write the same number of bytes to the same file (created and
// truncated the same way) and read them back into a fresh buffer.
void write_read(benchmark::State& state, Properties* p) {
    const char* path = scratch_file().c_str();
    properties_save_improved(p, path);
    size_t size = std::filesystem::file_size(path);
    std::vector<uint8_t> out(size, 0x5a);
    for (auto _ : state) {
        int fd = open(path, O_WRONLY | O_TRUNC | O_CREAT, 0600);
        if (write(fd, out.data(), size) != static_cast<ssize_t>(size)) abort();
        close(fd);
        auto* in = static_cast<uint8_t*>(malloc(size));
        fd = open(path, O_RDONLY);
        if (read(fd, in, size) != static_cast<ssize_t>(size)) abort();
        close(fd);
        benchmark::DoNotOptimize(in);
        free(in);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

void BM_SaveLoadImproved_30Keys(benchmark::State& state) {
    fanout_init();
    Properties* p = thirty_keys();
    save_load(state, p);
    properties_delete(p);
}
BENCHMARK(BM_SaveLoadImproved_30Keys);

void BM_Baseline_WriteRead_30Keys(benchmark::State& state) {
    fanout_init();
    Properties* p = thirty_keys();
    write_read(state, p);
    properties_delete(p);
}
BENCHMARK(BM_Baseline_WriteRead_30Keys);

void BM_SaveLoadImproved_16MiB(benchmark::State& state) {
    fanout_init();
    Properties* p = big_list();
    save_load(state, p);
    properties_delete(p);
}
BENCHMARK(BM_SaveLoadImproved_16MiB)->Unit(benchmark::kMillisecond);

void BM_Baseline_WriteRead_16MiB(benchmark::State& state) {
    fanout_init();
    Properties* p = big_list();
    write_read(state, p);
    properties_delete(p);
}
BENCHMARK(BM_Baseline_WriteRead_16MiB)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
