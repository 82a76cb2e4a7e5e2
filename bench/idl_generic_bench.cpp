// idl_generic_bench.cpp - costs of the runtime's sequences and of its
// type-code driven copy and equality, each beside a named baseline:
//   seq_add                 vs std::vector<int32_t>::push_back
//   _generic_copy of a list vs a hand-written copy of the same list
//   _generic_equal          vs zel_generic_equal (equality by marshalling)

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <vector>

#include "fanout/runtime.h"
#include "fanout/types.h"

namespace {

struct IntSeq {
    uint32_t maximum;
    uint32_t length;
    int32_t* buffer;
};

void BM_SeqAdd(benchmark::State& state) {
    for (auto _ : state) {
        IntSeq s{};
        for (int32_t i = 0; i < state.range(0); ++i) seq_add(&s, &i, sizeof i);
        benchmark::DoNotOptimize(s.buffer);
        seq_free_buffer(&s);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_SeqAdd)->Arg(4096);

void BM_Baseline_VectorPushBack(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<int32_t> v;
        for (int32_t i = 0; i < state.range(0); ++i) v.push_back(i);
        benchmark::DoNotOptimize(v.data());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_Baseline_VectorPushBack)->Arg(4096);

// A list of 20 entries, alternating long and string values.
Properties make_list() {
    Properties p{};
    for (int32_t i = 0; i < 20; ++i) {
        char key[16];
        std::snprintf(key, sizeof key, "key%d", i);
        Property e{mg_strdup(key), {nullptr, nullptr}};
        if (i % 2 == 0) {
            auto* v = static_cast<int32_t*>(mg_malloc(sizeof(int32_t)));
            *v = i;
            e.value = {TC_long, v};
        } else {
            auto* v = static_cast<char**>(mg_malloc(sizeof(char*)));
            *v = mg_strdup("a value of moderate length");
            e.value = {TC_string, v};
        }
        seq_add(&p, &e, sizeof e);
    }
    return p;
}

void BM_GenericCopyProperties(benchmark::State& state) {
    Properties p = make_list();
    for (auto _ : state) {
        void* copy = _generic_copy(TC_Kel_Fanout2_Properties, nullptr, &p, 0);
        kel_free_generic(copy, TC_Kel_Fanout2_Properties);
        mg_free(copy);
    }
    kel_free_generic(&p, TC_Kel_Fanout2_Properties);
}
BENCHMARK(BM_GenericCopyProperties);

// What a copy written for exactly this list's shape costs.
void BM_Baseline_HandCopyProperties(benchmark::State& state) {
    Properties p = make_list();
    for (auto _ : state) {
        Properties c{p.length, p.length,
                     static_cast<Property*>(mg_calloc(p.length, sizeof(Property)))};
        for (uint32_t i = 0; i < p.length; ++i) {
            const Property& from = p.buffer[i];
            Property& to = c.buffer[i];
            to.key = mg_strdup(from.key);
            to.value._type = from.value._type;
            if (from.value._type == TC_long) {
                auto* v = static_cast<int32_t*>(mg_malloc(sizeof(int32_t)));
                *v = *static_cast<int32_t*>(from.value._value);
                to.value._value = v;
            } else {
                auto* v = static_cast<char**>(mg_malloc(sizeof(char*)));
                *v = mg_strdup(*static_cast<char**>(from.value._value));
                to.value._value = v;
            }
        }
        benchmark::DoNotOptimize(c.buffer);
        kel_free_generic(&c, TC_Kel_Fanout2_Properties);
    }
    kel_free_generic(&p, TC_Kel_Fanout2_Properties);
}
BENCHMARK(BM_Baseline_HandCopyProperties);

void BM_GenericEqualProperties(benchmark::State& state) {
    Properties a = make_list();
    Properties b = make_list();
    for (auto _ : state) {
        benchmark::DoNotOptimize(_generic_equal(TC_Kel_Fanout2_Properties, nullptr, &a, &b));
    }
    kel_free_generic(&a, TC_Kel_Fanout2_Properties);
    kel_free_generic(&b, TC_Kel_Fanout2_Properties);
}
BENCHMARK(BM_GenericEqualProperties);

void BM_Baseline_ZelGenericEqualProperties(benchmark::State& state) {
    Properties a = make_list();
    Properties b = make_list();
    for (auto _ : state) {
        benchmark::DoNotOptimize(zel_generic_equal(TC_Kel_Fanout2_Properties, nullptr, &a, &b));
    }
    kel_free_generic(&a, TC_Kel_Fanout2_Properties);
    kel_free_generic(&b, TC_Kel_Fanout2_Properties);
}
BENCHMARK(BM_Baseline_ZelGenericEqualProperties);

}  // namespace
BENCHMARK_MAIN();
