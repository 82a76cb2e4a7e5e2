// properties_decode_fuzz.cpp - hostile bytes against the property-list
// decoder and the three file loaders.
//
// Each input is decoded as a marshalled Properties, then written to a
// temporary file and loaded in the plain, improved and bare layouts. Every
// attempt must either succeed or raise the catalogue's own message (19 or
// 35); a list that decodes must survive an encode/decode round trip
// unchanged. The sanitizers catch reads past the input and leaks of what a
// failed decode left behind (freed here, as callers must).

#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include "fanout/exception.h"
#include "fanout/properties.h"
#include "fanout/types.h"

namespace {

const std::string& scratch_path() {
    static const std::string path = [] {
        const char* dir = getenv("TMPDIR");
        std::string pattern = std::string(dir != nullptr ? dir : "/tmp") + "/fanout-fuzz-XXXXXX";
        int fd = mkstemp(pattern.data());
        if (fd < 0) abort();
        close(fd);
        return pattern;
    }();
    return path;
}

void remove_scratch() {
    unlink(scratch_path().c_str());
}

// Runs fn; a raise must be one of the decoder's or reader's own messages.
template <typename Fn>
bool runs_or_raises(Fn fn) {
    try {
        fn();
        return true;
    } catch (const fanout::Exception& e) {
        if (e.number() != 19 && e.number() != 35) {
            fprintf(stderr, "unexpected message %d: %s\n", e.number(), e.what());
            abort();
        }
        return false;
    }
}

void check_round_trip(const Properties* p) {
    void* data = nullptr;
    uint32_t len = 0;
    properties_encode(TC_Kel_Fanout2_Properties, p, &data, &len);
    Properties again{};
    properties_decode(TC_Kel_Fanout2_Properties, data, len, &again);
    Environment env{};
    if (!zel_generic_equal(TC_Kel_Fanout2_Properties, &env, p, &again)) abort();
    ev_clear(&env);
    kel_free_generic(&again, TC_Kel_Fanout2_Properties);
    mg_free(data);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    fanout_init();
    scratch_path();
    atexit(remove_scratch);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 20)) return 0;
    Properties out{};
    if (runs_or_raises([&] {
            properties_decode(TC_Kel_Fanout2_Properties, data, static_cast<uint32_t>(size), &out);
        })) {
        check_round_trip(&out);
    }
    kel_free_generic(&out, TC_Kel_Fanout2_Properties);

    FILE* f = fopen(scratch_path().c_str(), "wb");
    if (f == nullptr) abort();
    if (size > 0 && fwrite(data, 1, size, f) != size) abort();
    fclose(f);
    for (auto load : {properties_load, properties_load_improved, properties_load_without_len}) {
        Properties loaded{};
        runs_or_raises([&] { load(&loaded, scratch_path().c_str()); });
        kel_free_generic(&loaded, TC_Kel_Fanout2_Properties);
    }
    return 0;
}
