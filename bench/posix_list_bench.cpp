// Cost per element of the list container's add, remove, access and a full
// iteration, at a thousand and at a million elements, against std::vector
// (add, access, iteration) and std::list (removal by node) as baselines.
// Every figure is reported as time per element ("per_elem").

#include <fanout/pallist.h>

#include <benchmark/benchmark.h>

#include <cstdint>
#include <list>
#include <vector>

namespace {

constexpr PalInt32 kIncrement = 1024;  // slots added per growth

void* V(std::intptr_t n) {
    return reinterpret_cast<void*>(n);
}

void PerElement(benchmark::State& state, std::int64_t n) {
    state.counters["per_elem"] =
        benchmark::Counter(static_cast<double>(n), benchmark::Counter::kIsIterationInvariantRate |
                                                       benchmark::Counter::kInvert);
}

PalList1* Filled(PalInt32 n) {
    PalList1* list = nullptr;
    PalList1Create(&list, 0, kIncrement);
    for (PalInt32 i = 0; i < n; ++i) PalList1Add(list, V(i + 1));
    return list;
}

void BM_PalList1Add(benchmark::State& state) {
    const auto n = static_cast<PalInt32>(state.range(0));
    for (auto _ : state) {
        PalList1* list = nullptr;
        PalList1Create(&list, 0, kIncrement);
        for (PalInt32 i = 0; i < n; ++i) benchmark::DoNotOptimize(PalList1Add(list, V(i)));
        PalList1Destroy(&list);
    }
    PerElement(state, n);
}

void BM_VectorPushBack(benchmark::State& state) {
    const auto n = static_cast<PalInt32>(state.range(0));
    for (auto _ : state) {
        std::vector<void*> v;
        for (PalInt32 i = 0; i < n; ++i) v.push_back(V(i));
        benchmark::DoNotOptimize(v.data());
    }
    PerElement(state, n);
}

// Lists per timed round of the removal benchmarks, so that each round covers
// about a million elements and pausing the timer costs nothing per element.
PalInt32 Batch(PalInt32 n) {
    return n >= 1000000 ? 1 : 1000000 / n;
}

// Removes every element, oldest first; the lists are built outside the timing.
void BM_PalList1Remove(benchmark::State& state) {
    const auto n = static_cast<PalInt32>(state.range(0));
    std::vector<PalList1*> lists(Batch(n));
    for (auto _ : state) {
        state.PauseTiming();
        for (auto& list : lists) list = Filled(n);
        state.ResumeTiming();
        for (PalList1* list : lists) {
            for (PalInt32 i = 0; i < n; ++i) benchmark::DoNotOptimize(PalList1Remove(list, i));
        }
        state.PauseTiming();
        for (auto& list : lists) PalList1Destroy(&list);
        state.ResumeTiming();
    }
    PerElement(state, static_cast<std::int64_t>(n) * Batch(n));
}

void BM_StdListErase(benchmark::State& state) {
    const auto n = static_cast<PalInt32>(state.range(0));
    using Nodes = std::vector<std::list<void*>::iterator>;
    std::vector<std::list<void*>> lists(Batch(n));
    std::vector<Nodes> nodes(Batch(n));
    for (auto _ : state) {
        state.PauseTiming();
        for (std::size_t b = 0; b < lists.size(); ++b) {
            nodes[b].clear();
            for (PalInt32 i = 0; i < n; ++i) {
                nodes[b].push_back(lists[b].insert(lists[b].end(), V(i)));
            }
        }
        state.ResumeTiming();
        for (std::size_t b = 0; b < lists.size(); ++b) {
            for (auto it : nodes[b]) lists[b].erase(it);
            benchmark::DoNotOptimize(lists[b].size());
        }
    }
    PerElement(state, static_cast<std::int64_t>(n) * Batch(n));
}

void BM_PalList1Access(benchmark::State& state) {
    const auto n = static_cast<PalInt32>(state.range(0));
    PalList1* list = Filled(n);
    for (auto _ : state) {
        std::uintptr_t sum = 0;
        for (PalInt32 i = 0; i < n; ++i) {
            sum += reinterpret_cast<std::uintptr_t>(PalList1Access(list, i));
        }
        benchmark::DoNotOptimize(sum);
    }
    PalList1Destroy(&list);
    PerElement(state, n);
}

void BM_VectorIndex(benchmark::State& state) {
    const auto n = static_cast<PalInt32>(state.range(0));
    std::vector<void*> v(n);
    for (auto _ : state) {
        std::uintptr_t sum = 0;
        for (PalInt32 i = 0; i < n; ++i) {
            benchmark::DoNotOptimize(v[i]);
            sum += reinterpret_cast<std::uintptr_t>(v[i]);
        }
        benchmark::DoNotOptimize(sum);
    }
    PerElement(state, n);
}

void BM_PalList1Iterate(benchmark::State& state) {
    const auto n = static_cast<PalInt32>(state.range(0));
    PalList1* list = Filled(n);
    for (auto _ : state) {
        PalIterator it{};
        PalList1IteratorCreate(list, &it);
        PalInt32 d = 0;
        void* value = nullptr;
        std::uintptr_t sum = 0;
        while (it.next(&it, &d, &value).palError == PAL_OK) {
            sum += reinterpret_cast<std::uintptr_t>(value);
        }
        it.end(&it);
        benchmark::DoNotOptimize(sum);
    }
    PalList1Destroy(&list);
    PerElement(state, n);
}

void BM_VectorReverseWalk(benchmark::State& state) {
    const auto n = static_cast<PalInt32>(state.range(0));
    std::vector<void*> v(n);
    for (auto _ : state) {
        std::uintptr_t sum = 0;
        for (auto it = v.rbegin(); it != v.rend(); ++it) {
            benchmark::DoNotOptimize(*it);
            sum += reinterpret_cast<std::uintptr_t>(*it);
        }
        benchmark::DoNotOptimize(sum);
    }
    PerElement(state, n);
}

#define SIZES Arg(1000)->Arg(1000000)->Unit(benchmark::kMicrosecond)
BENCHMARK(BM_PalList1Add)->SIZES;
BENCHMARK(BM_VectorPushBack)->SIZES;
BENCHMARK(BM_PalList1Remove)->SIZES;
BENCHMARK(BM_StdListErase)->SIZES;
BENCHMARK(BM_PalList1Access)->SIZES;
BENCHMARK(BM_VectorIndex)->SIZES;
BENCHMARK(BM_PalList1Iterate)->SIZES;
BENCHMARK(BM_VectorReverseWalk)->SIZES;

}  // namespace

BENCHMARK_MAIN();
