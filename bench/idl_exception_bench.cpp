// Benchmarks of raising and catching a catalogue exception, rendering its
// message, and a suppressed log call, each beside a named baseline: a thrown
// std::runtime_error with a message built by snprintf, snprintf of the same
// text, and a call of an empty function through a pointer.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <stdexcept>

#include "fanout/catalog.h"
#include "fanout/exception.h"
#include "fanout/log.h"

namespace {

void BM_VaThrowCatch(benchmark::State& state) {
    for (auto _ : state) {
        try {
            vaThrow(Fanout2Catalog[0], 19, Fanout2Catalog[19], "/var/f", 4096, 5);
        } catch (const fanout::Exception& e) {
            benchmark::DoNotOptimize(e.record());
        }
    }
}
BENCHMARK(BM_VaThrowCatch);

void BM_Baseline_StdRuntimeErrorThrowCatch(benchmark::State& state) {
    for (auto _ : state) {
        try {
            char text[160];
            std::snprintf(text, sizeof text, "Cannot read from file %s. %d and %d.\n", "/var/f",
                          4096, 5);
            throw std::runtime_error(text);
        } catch (const std::runtime_error& e) {
            benchmark::DoNotOptimize(e.what());
        }
    }
}
BENCHMARK(BM_Baseline_StdRuntimeErrorThrowCatch);

void BM_ExRenderText(benchmark::State& state) {
    const char* args[] = {"/var/f", "4096", "5"};
    for (auto _ : state) {
        char* text = ex_render_text(Fanout2Catalog[19], args, 3);
        benchmark::DoNotOptimize(text);
        mg_free(text);
    }
}
BENCHMARK(BM_ExRenderText);

void BM_Baseline_Snprintf(benchmark::State& state) {
    for (auto _ : state) {
        char text[160];
        std::snprintf(text, sizeof text,
                      "Cannot read from file %s. The number of bytes to read was %s and the "
                      "error code is %s.\n",
                      "/var/f", "4096", "5");
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(BM_Baseline_Snprintf);

void BM_LogSuppressed(benchmark::State& state) {
    fanout_log_set_level(1);
    for (auto _ : state) LogMsg(3, nullptr, 0, -1, "DepotGetEntry entry %1$s", "id");
}
BENCHMARK(BM_LogSuppressed);

void empty_call(int32_t, const char*) {}
void (*volatile g_empty)(int32_t, const char*) = empty_call;

void BM_Baseline_EmptyCall(benchmark::State& state) {
    for (auto _ : state) g_empty(3, "DepotGetEntry entry %1$s");
}
BENCHMARK(BM_Baseline_EmptyCall);

}  // namespace

BENCHMARK_MAIN();
