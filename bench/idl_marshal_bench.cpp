// idl_marshal_bench.cpp - marshalling speed of property lists, against omniORB and memcpy.
//
// Two values, each marshalled and unmarshalled by our CDR marshaller and, in
// the same run, by omniORB's cdrMemoryStream (big-endian, from the stubs of
// tests/idl/interop/fanout2.idl; only when omniORB was found at configure
// time): (a) a 30-key message property list, (b) a list holding one 1 MiB
// octet list. The baseline for (b) is a plain memcpy of the same bytes.

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "fanout/runtime.h"
#include "fanout/types.h"

#ifdef FANOUT_BENCH_OMNIORB
#include <omniORB4/CORBA.h>
#include <omniORB4/cdrStream.h>

#include "fanout2.hh"
#endif

namespace {

constexpr uint32_t kBigOctets = 1u << 20;

/* ------------------------------------------------------------- our values */

template <typename T>
Any any_of(TypeCode tc, T v) {
    void* p = mg_malloc(sizeof(T));
    std::memcpy(p, &v, sizeof(T));
    return Any{tc, p};
}

void put(Properties* p, const std::string& key, Any v) {
    Property e{mg_strdup(key.c_str()), v};
    seq_add(p, &e, sizeof e);
}

Kel_Types_OctetList octets(uint32_t n) {
    auto* data = static_cast<uint8_t*>(mg_malloc(n));
    for (uint32_t i = 0; i < n; ++i) data[i] = static_cast<uint8_t>(i * 7);
    return Kel_Types_OctetList{n, n, data};
}

// The message: 12 strings, 8 longs, 4 booleans, 2 ulongs, 2 small octet
// lists, a nested list of 3 entries and a string list.
Properties message_list() {
    Properties p{};
    for (int i = 0; i < 12; ++i) {
        std::string v = "value of message key number " + std::to_string(i);
        put(&p, "message_key_" + std::to_string(i), any_of(TC_string, mg_strdup(v.c_str())));
    }
    for (int i = 0; i < 8; ++i)
        put(&p, "count_" + std::to_string(i), any_of<int32_t>(TC_long, i * 1000 - 3));
    for (int i = 0; i < 4; ++i)
        put(&p, "flag_" + std::to_string(i), any_of<uint8_t>(TC_boolean, i % 2));
    for (int i = 0; i < 2; ++i)
        put(&p, "size_" + std::to_string(i), any_of<uint32_t>(TC_ulong, 4000000000u + i));
    for (int i = 0; i < 2; ++i)
        put(&p, "checksum_" + std::to_string(i), any_of(TC_Kel_Types_OctetList, octets(16)));
    Properties nested{};
    put(&nested, "id", any_of(TC_string, mg_strdup("segment-0001")));
    put(&nested, "version", any_of<int32_t>(TC_long, 3));
    put(&nested, "state", any_of<uint8_t>(TC_boolean, 1));
    put(&p, "segment", any_of(TC_Kel_Fanout2_Properties, nested));
    Kel_Types_StringList names{};
    for (const char* s : {"alpha", "beta", "gamma"}) {
        char* c = mg_strdup(s);
        seq_add(&names, &c, sizeof c);
    }
    put(&p, "targets", any_of(TC_Kel_Types_StringList, names));
    return p;
}

Properties big_list() {
    Properties p{};
    put(&p, "data", any_of(TC_Kel_Types_OctetList, octets(kBigOctets)));
    return p;
}

std::vector<uint8_t> encode(const Properties& p) {
    AdrBuffer* b = adr_init_encode_buffer();
    marshal_item(b, TC_Kel_Fanout2_Properties, const_cast<Properties*>(&p));
    std::vector<uint8_t> out(b->data, b->data + b->length);
    adr_free_buf(b);
    return out;
}

void ours_encode(benchmark::State& state, Properties (*make)()) {
    fanout_init();
    Properties p = make();
    size_t bytes = 0;
    for (auto _ : state) {
        AdrBuffer* b = adr_init_encode_buffer();
        marshal_item(b, TC_Kel_Fanout2_Properties, &p);
        bytes = b->length;
        benchmark::DoNotOptimize(b->data);
        adr_free_buf(b);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    kel_free_generic(&p, TC_Kel_Fanout2_Properties);
}

void ours_decode(benchmark::State& state, Properties (*make)()) {
    fanout_init();
    Properties p = make();
    std::vector<uint8_t> bytes = encode(p);
    kel_free_generic(&p, TC_Kel_Fanout2_Properties);
    for (auto _ : state) {
        Properties out{};
        AdrBuffer* b = adr_init_decode_buffer(bytes.data(), static_cast<uint32_t>(bytes.size()));
        marshal_item(b, TC_Kel_Fanout2_Properties, &out);
        if (b->error != ADR_OK) state.SkipWithError("decoding failed");
        adr_free_buf(b);
        kel_free_generic(&out, TC_Kel_Fanout2_Properties);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

void BM_Message30_Encode_Ours(benchmark::State& s) {
    ours_encode(s, message_list);
}
void BM_Message30_Decode_Ours(benchmark::State& s) {
    ours_decode(s, message_list);
}
void BM_Octets1M_Encode_Ours(benchmark::State& s) {
    ours_encode(s, big_list);
}
void BM_Octets1M_Decode_Ours(benchmark::State& s) {
    ours_decode(s, big_list);
}
BENCHMARK(BM_Message30_Encode_Ours);
BENCHMARK(BM_Message30_Decode_Ours);
BENCHMARK(BM_Octets1M_Encode_Ours);
BENCHMARK(BM_Octets1M_Decode_Ours);

// The baseline for (b): copying the encoded bytes once.
void BM_Octets1M_Memcpy(benchmark::State& state) {
    std::vector<uint8_t> from(kBigOctets + 64, 1), to(kBigOctets + 64);
    for (auto _ : state) {
        std::memcpy(to.data(), from.data(), from.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * from.size()));
}
BENCHMARK(BM_Octets1M_Memcpy);

#ifdef FANOUT_BENCH_OMNIORB

/* ------------------------------------------------------ omniORB's values */

void orb_init() {
    static CORBA::ORB_ptr orb = [] {
        int argc = 0;
        return CORBA::ORB_init(argc, nullptr);
    }();
    (void)orb;
}

void put(Kel_Fanout2::Properties& p, const std::string& key, const CORBA::Any& v) {
    CORBA::ULong n = p.length();
    p.length(n + 1);
    p[n].key = key.c_str();
    p[n].value = v;
}

Kel_Types::OctetList orb_octets(CORBA::ULong n) {
    Kel_Types::OctetList o;
    o.length(n);
    for (CORBA::ULong i = 0; i < n; ++i) o[i] = static_cast<CORBA::Octet>(i * 7);
    return o;
}

Kel_Fanout2::Properties orb_message_list() {
    Kel_Fanout2::Properties p;
    CORBA::Any a;
    for (int i = 0; i < 12; ++i) {
        std::string v = "value of message key number " + std::to_string(i);
        a <<= v.c_str();
        put(p, "message_key_" + std::to_string(i), a);
    }
    for (int i = 0; i < 8; ++i) {
        a <<= CORBA::Long(i * 1000 - 3);
        put(p, "count_" + std::to_string(i), a);
    }
    for (int i = 0; i < 4; ++i) {
        a <<= CORBA::Any::from_boolean(i % 2);
        put(p, "flag_" + std::to_string(i), a);
    }
    for (int i = 0; i < 2; ++i) {
        a <<= CORBA::ULong(4000000000u + i);
        put(p, "size_" + std::to_string(i), a);
    }
    for (int i = 0; i < 2; ++i) {
        a <<= orb_octets(16);
        put(p, "checksum_" + std::to_string(i), a);
    }
    Kel_Fanout2::Properties nested;
    a <<= "segment-0001";
    put(nested, "id", a);
    a <<= CORBA::Long(3);
    put(nested, "version", a);
    a <<= CORBA::Any::from_boolean(1);
    put(nested, "state", a);
    a <<= nested;
    put(p, "segment", a);
    Kel_Types::StringList names;
    names.length(3);
    names[0] = "alpha";
    names[1] = "beta";
    names[2] = "gamma";
    a <<= names;
    put(p, "targets", a);
    return p;
}

Kel_Fanout2::Properties orb_big_list() {
    Kel_Fanout2::Properties p;
    CORBA::Any a;
    a <<= orb_octets(kBigOctets);
    put(p, "data", a);
    return p;
}

void orb_encode(benchmark::State& state, Kel_Fanout2::Properties (*make)()) {
    orb_init();
    Kel_Fanout2::Properties p = make();
    size_t bytes = 0;
    for (auto _ : state) {
        cdrMemoryStream s;
        s.setByteSwapFlag(0);
        p >>= s;
        bytes = s.bufSize();
        benchmark::DoNotOptimize(s.bufPtr());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
}

void orb_decode(benchmark::State& state, Kel_Fanout2::Properties (*make)()) {
    orb_init();
    Kel_Fanout2::Properties p = make();
    cdrMemoryStream s;
    s.setByteSwapFlag(0);
    p >>= s;
    std::vector<uint8_t> bytes(static_cast<uint8_t*>(s.bufPtr()),
                               static_cast<uint8_t*>(s.bufPtr()) + s.bufSize());
    for (auto _ : state) {
        cdrMemoryStream in(bytes.data(), bytes.size());
        in.setByteSwapFlag(0);
        Kel_Fanout2::Properties out;
        out <<= in;
        benchmark::DoNotOptimize(out.length());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes.size()));
}

void BM_Message30_Encode_OmniORB(benchmark::State& s) {
    orb_encode(s, orb_message_list);
}
void BM_Message30_Decode_OmniORB(benchmark::State& s) {
    orb_decode(s, orb_message_list);
}
void BM_Octets1M_Encode_OmniORB(benchmark::State& s) {
    orb_encode(s, orb_big_list);
}
void BM_Octets1M_Decode_OmniORB(benchmark::State& s) {
    orb_decode(s, orb_big_list);
}
BENCHMARK(BM_Message30_Encode_OmniORB);
BENCHMARK(BM_Message30_Decode_OmniORB);
BENCHMARK(BM_Octets1M_Encode_OmniORB);
BENCHMARK(BM_Octets1M_Decode_OmniORB);

#endif  // FANOUT_BENCH_OMNIORB

}  // namespace

BENCHMARK_MAIN();
