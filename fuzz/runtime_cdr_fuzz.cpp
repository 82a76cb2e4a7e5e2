// runtime_cdr_fuzz.cpp - libFuzzer target: arbitrary bytes through the CDR decoder.
//
// Each input is decoded twice, as a property list and as a bare any, and the
// result is freed. Whatever decodes must also re-encode, and our canonical
// encoding must be a fixed point: decoding and re-encoding it gives the same
// bytes again. Seeds are in fuzz/corpus/cdr (fuzz/gen_cdr_corpus.py).

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "fanout/runtime.h"
#include "fanout/types.h"

namespace {

// The property-list type codes, declared here as for any module so that the
// target needs only the runtime.
const char* const kPropertyNames[] = {"key", "value"};
const TypeCodeRec* const kPropertyTypes[] = {&_tc_rec_string, &_tc_rec_any};
const uint32_t kPropertyOffsets[] = {offsetof(Property, key), offsetof(Property, value)};
const TypeCodeRec kProperty = {FANOUT_TK_STRUCT,
                               -1,
                               "IDL:Kel_Fanout2/Property:1.0",
                               "Property",
                               "Property",
                               sizeof(Property),
                               alignof(Property),
                               0,
                               2,
                               kPropertyNames,
                               kPropertyTypes,
                               kPropertyOffsets};
const TypeCodeRec* const kPropertyElem[] = {&kProperty};
const TypeCodeRec kPropertySeq = {
    FANOUT_TK_SEQUENCE, -1,     "", "", "", sizeof(Properties), alignof(Properties), 0, 1, nullptr,
    kPropertyElem,      nullptr};
const TypeCodeRec* const kPropertiesNamed[] = {&kPropertySeq};
const TypeCodeRec kProperties = {FANOUT_TK_ALIAS,
                                 -1,
                                 "IDL:Kel_Fanout2/Properties:1.0",
                                 "Properties",
                                 "Properties",
                                 sizeof(Properties),
                                 alignof(Properties),
                                 0,
                                 1,
                                 nullptr,
                                 kPropertiesNamed,
                                 nullptr};

std::vector<uint8_t> encode(TypeCode tc, void* value) {
    AdrBuffer* b = adr_init_encode_buffer();
    marshal_item(b, tc, value);
    if (b->error != ADR_OK) __builtin_trap();  // what decoded must encode
    std::vector<uint8_t> out(b->data, b->data + b->length);
    adr_free_buf(b);
    return out;
}

// Decodes into zeroed storage; on success returns the canonical re-encoding.
bool decode(TypeCode tc, const uint8_t* data, size_t size, std::vector<uint8_t>* canonical) {
    alignas(16) uint8_t value[64] = {};
    AdrBuffer* b = adr_init_decode_buffer(data, static_cast<uint32_t>(size));
    marshal_item(b, tc, value);
    bool ok = b->error == ADR_OK;
    adr_free_buf(b);
    if (ok) *canonical = encode(tc, value);
    kel_free_generic(value, tc);
    return ok;
}

void check(TypeCode tc, const uint8_t* data, size_t size) {
    std::vector<uint8_t> once, twice;
    if (!decode(tc, data, size, &once)) return;
    if (!decode(tc, once.data(), once.size(), &twice) || once != twice) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > (1u << 20)) return 0;
    check(&kProperties, data, size);
    check(TC_any, data, size);
    return 0;
}
