// marshal_test.cpp - the CDR marshaller: exact bytes, round trips, foreign forms, hostile input.
//
// The property-list type codes are declared here as the runtime sees any
// module's types, so these tests need nothing beyond the runtime itself.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "fanout/runtime.h"
#include "fanout/types.h"

namespace {

using Bytes = std::vector<uint8_t>;

/* ------------------------------------------------------------- type codes */

template <typename T>
constexpr uint32_t align_of() {
    return alignof(T);
}

const char* const kPropertyNames[] = {"key", "value"};
extern const TypeCodeRec kProperty;
const TypeCodeRec* const kPropertyTypes[] = {&_tc_rec_string, &_tc_rec_any};
const uint32_t kPropertyOffsets[] = {offsetof(Property, key), offsetof(Property, value)};
const TypeCodeRec kProperty = {FANOUT_TK_STRUCT,
                               -1,
                               "IDL:Kel_Fanout2/Property:1.0",
                               "Property",
                               "Property",
                               sizeof(Property),
                               align_of<Property>(),
                               0,
                               2,
                               kPropertyNames,
                               kPropertyTypes,
                               kPropertyOffsets};
const TypeCodeRec* const kPropertyElem[] = {&kProperty};
const TypeCodeRec kPropertySeq = {FANOUT_TK_SEQUENCE,
                                  -1,
                                  "",
                                  "",
                                  "",
                                  sizeof(Properties),
                                  align_of<Properties>(),
                                  0,
                                  1,
                                  nullptr,
                                  kPropertyElem,
                                  nullptr};
const TypeCodeRec* const kPropertiesNamed[] = {&kPropertySeq};
const TypeCodeRec kProperties = {FANOUT_TK_ALIAS,
                                 -1,
                                 "IDL:Kel_Fanout2/Properties:1.0",
                                 "Properties",
                                 "Properties",
                                 sizeof(Properties),
                                 align_of<Properties>(),
                                 0,
                                 1,
                                 nullptr,
                                 kPropertiesNamed,
                                 nullptr};
const TypeCodeRec* const kPropertiesElem[] = {&kProperties};
const TypeCodeRec kListSeq = {FANOUT_TK_SEQUENCE,
                              -1,
                              "",
                              "",
                              "",
                              sizeof(PropertiesList),
                              align_of<PropertiesList>(),
                              0,
                              1,
                              nullptr,
                              kPropertiesElem,
                              nullptr};
const TypeCodeRec* const kListNamed[] = {&kListSeq};
const TypeCodeRec kPropertiesList = {FANOUT_TK_ALIAS,
                                     -1,
                                     "IDL:Kel_Fanout2/PropertiesList:1.0",
                                     "PropertiesList",
                                     "PropertiesList",
                                     sizeof(PropertiesList),
                                     align_of<PropertiesList>(),
                                     0,
                                     1,
                                     nullptr,
                                     kListNamed,
                                     nullptr};
const char* const kColourNames[] = {"red", "green"};
const TypeCodeRec kColour = {
    FANOUT_TK_ENUM, -1,     "IDL:Test/Colour:1.0", "Colour", "Colour", 4, 4, 0, 2, kColourNames,
    nullptr,        nullptr};
struct Failure {
    int32_t code;
    char* text;
};
const char* const kFailureNames[] = {"code", "text"};
const TypeCodeRec* const kFailureTypes[] = {&_tc_rec_long, &_tc_rec_string};
const uint32_t kFailureOffsets[] = {offsetof(Failure, code), offsetof(Failure, text)};
const TypeCodeRec kFailure = {FANOUT_TK_EXCEPT,
                              -1,
                              "IDL:Test/Failure:1.0",
                              "Failure",
                              "Failure",
                              sizeof(Failure),
                              align_of<Failure>(),
                              0,
                              2,
                              kFailureNames,
                              kFailureTypes,
                              kFailureOffsets};

/* ----------------------------------------------------------------- values */

template <typename T>
Any any_of(TypeCode tc, T v) {
    void* p = mg_malloc(sizeof(T));
    std::memcpy(p, &v, sizeof(T));
    return Any{tc, p};
}
Any any_string(const char* s) {
    return any_of<char*>(TC_string, mg_strdup(s));
}
Any any_any(Any inner) {
    return any_of<Any>(TC_any, inner);
}
template <typename Seq>
Any any_seq(TypeCode tc, Seq s) {
    return any_of<Seq>(tc, s);
}

void add(Properties* p, const char* key, Any value) {
    Property e{mg_strdup(key), value};
    seq_add(p, &e, sizeof e);
}

// A property list holding every kind a property may carry.
Properties every_kind() {
    Properties p{};
    add(&p, "string", any_string("hello"));
    add(&p, "short", any_of<int16_t>(TC_short, -2));
    add(&p, "ushort", any_of<uint16_t>(TC_ushort, 65535));
    add(&p, "long", any_of<int32_t>(TC_long, -70000));
    add(&p, "ulong", any_of<uint32_t>(TC_ulong, 4000000000u));
    add(&p, "longlong", any_of<int64_t>(TC_longlong, -(int64_t{1} << 40)));
    add(&p, "ulonglong", any_of<uint64_t>(TC_ulonglong, ~uint64_t{0} - 5));
    add(&p, "float", any_of<float>(TC_float, 1.5f));
    add(&p, "double", any_of<double>(TC_double, -0.25));
    add(&p, "true", any_of<uint8_t>(TC_boolean, 1));
    add(&p, "false", any_of<uint8_t>(TC_boolean, 0));
    add(&p, "char", any_of<char>(TC_char, 'x'));
    add(&p, "octet", any_of<uint8_t>(TC_octet, 0xfe));
    add(&p, "colour", any_of<uint32_t>(&kColour, 1));
    add(&p, "any", any_any(any_any(any_string("deep"))));
    add(&p, "typecode", any_of<TypeCode>(TC_TypeCode, &kPropertiesList));
    add(&p, "nil", any_of<Object>(TC_Object, nullptr));
    static uint8_t body[] = {0, 1, 2, 3, 4};
    ObjectProfile prof{0, {5, 5, body}};
    add(&p, "object", any_of<Object>(TC_Object, Object_new("IDL:Test/Thing:1.0", &prof, 1)));
    Kel_Types_OctetList octets{};
    for (int i = 0; i < 300; ++i) {
        auto o = static_cast<uint8_t>(i);
        seq_add(&octets, &o, 1);
    }
    add(&p, "octets", any_seq(TC_Kel_Types_OctetList, octets));
    Kel_Types_StringList strings{};
    for (const char* s : {"a", "", "ccc"}) {
        char* c = mg_strdup(s);
        seq_add(&strings, &c, sizeof c);
    }
    add(&p, "strings", any_seq(TC_Kel_Types_StringList, strings));
    Properties inner{};
    add(&inner, "inner", any_of<int32_t>(TC_long, 7));
    add(&p, "nested", any_seq(&kProperties, inner));
    PropertiesList list{};
    Properties first{};
    add(&first, "a", any_string("b"));
    seq_add(&list, &first, sizeof first);
    Properties empty{};
    seq_add(&list, &empty, sizeof empty);
    add(&p, "list", any_seq(&kPropertiesList, list));
    add(&p, "exception", any_of<Failure>(&kFailure, Failure{-5, mg_strdup("failed")}));
    add(&p, "null", Any{TC_null, nullptr});
    return p;
}

struct Encoded {
    Bytes bytes;
    int32_t error;
};

Encoded encode(TypeCode tc, const void* value) {
    AdrBuffer* b = adr_init_encode_buffer();
    marshal_item(b, tc, const_cast<void*>(value));
    Encoded e{Bytes(b->data, b->data + b->length), b->error};
    adr_free_buf(b);
    return e;
}

// Decodes into a zeroed value, frees it, and returns the buffer's code.
int32_t decode_and_free(TypeCode tc, const Bytes& in, Bytes* reencoded = nullptr) {
    std::vector<uint64_t> storage(tc->size / sizeof(uint64_t) + 1);
    void* value = storage.data();
    AdrBuffer* b = adr_init_decode_buffer(in.data(), static_cast<uint32_t>(in.size()));
    marshal_item(b, tc, value);
    int32_t code = b->error;
    adr_free_buf(b);
    if (code == ADR_OK && reencoded != nullptr) *reencoded = encode(tc, value).bytes;
    kel_free_generic(value, tc);
    return code;
}

/* ------------------------------------------------------- hand-written CDR */

// Writes CDR by hand, in either byte order, for the forms our encoder never
// produces (little-endian encapsulations, indirections) and malformed input.
class Cdr {
  public:
    Cdr& u8(uint8_t v) {
        bytes.push_back(v);
        return *this;
    }
    Cdr& u32(uint32_t v) {
        while ((bytes.size() - origin()) % 4 != 0) bytes.push_back(0);
        for (int i = 0; i < 4; ++i) {
            int shift = little() ? 8 * i : 24 - 8 * i;
            bytes.push_back(static_cast<uint8_t>(v >> shift));
        }
        return *this;
    }
    Cdr& str(const char* s) {
        u32(static_cast<uint32_t>(std::strlen(s) + 1));
        bytes.insert(bytes.end(), s, s + std::strlen(s) + 1);
        return *this;
    }
    Cdr& open(bool little_endian) {
        u32(0);
        frames_.push_back({bytes.size() - 4, bytes.size(), little_endian});
        return u8(little_endian ? 1 : 0);
    }
    Cdr& close() {
        Frame f = frames_.back();
        frames_.pop_back();
        auto len = static_cast<uint32_t>(bytes.size() - f.origin);
        for (int i = 0; i < 4; ++i) {
            int shift = little() ? 8 * i : 24 - 8 * i;
            bytes[f.slot + i] = static_cast<uint8_t>(len >> shift);
        }
        return *this;
    }
    size_t here() const { return bytes.size(); }
    Bytes bytes;

  private:
    struct Frame {
        size_t slot, origin;
        bool little;
    };
    size_t origin() const { return frames_.empty() ? 0 : frames_.back().origin; }
    bool little() const { return !frames_.empty() && frames_.back().little; }
    std::vector<Frame> frames_;
};

/* ------------------------------------------------------------------ tests */

TEST(Marshal, SmallListHasDocumentedBytes) {
    Properties p{};
    add(&p, "name", any_string("abc"));
    Encoded e = encode(&kProperties, &p);
    kel_free_generic(&p, &kProperties);
    const Bytes expected = {0, 0, 0, 1,                                   // one entry
                            0, 0, 0, 5,  'n', 'a', 'm', 'e', 0, 0, 0, 0,  // key, padding
                            0, 0, 0, 18, 0,   0,   0,   0,                // tk_string, bound 0
                            0, 0, 0, 4,  'a', 'b', 'c', 0};               // the value
    EXPECT_EQ(e.error, ADR_OK);
    EXPECT_EQ(e.bytes, expected);
}

TEST(Marshal, EveryKindRoundTripsToTheSameBytesAndValues) {
    Properties p = every_kind();
    Encoded e = encode(&kProperties, &p);
    ASSERT_EQ(e.error, ADR_OK);

    Properties back{};
    AdrBuffer* b = adr_init_decode_buffer(e.bytes.data(), static_cast<uint32_t>(e.bytes.size()));
    marshal_item(b, &kProperties, &back);
    ASSERT_EQ(b->error, ADR_OK);
    EXPECT_EQ(b->position, e.bytes.size());
    adr_free_buf(b);
    EXPECT_TRUE(_generic_equal(&kProperties, nullptr, &p, &back));
    EXPECT_EQ(encode(&kProperties, &back).bytes, e.bytes);
    ASSERT_EQ(back.length, p.length);
    // Registered types come back as the library's own type codes; the rest
    // as run-time ones with the same structure.
    for (uint32_t i = 0; i < back.length; ++i) {
        const Any& a = back.buffer[i].value;
        if (std::strcmp(back.buffer[i].key, "octets") == 0) {
            EXPECT_EQ(a._type, TC_Kel_Types_OctetList);
            EXPECT_EQ(static_cast<Kel_Types_OctetList*>(a._value)->buffer[299], 299 % 256);
        } else if (std::strcmp(back.buffer[i].key, "object") == 0) {
            Object o = *static_cast<Object*>(a._value);
            EXPECT_STREQ(Object_type_id(o), "IDL:Test/Thing:1.0");
            EXPECT_EQ(Object_profile(o, 0)->data.length, 5u);
        } else if (std::strcmp(back.buffer[i].key, "nil") == 0) {
            EXPECT_EQ(*static_cast<Object*>(a._value), nullptr);
        }
        EXPECT_TRUE(TypeCode_equal(a._type, p.buffer[i].value._type)) << back.buffer[i].key;
    }
    kel_free_generic(&back, &kProperties);
    kel_free_generic(&p, &kProperties);
}

TEST(Marshal, RegisteredRepositoryIdsMapToStaticTypeCodes) {
    static const TypeCode kPropertiesVar = &kProperties;
    static const TypeCode* const mine[] = {&kPropertiesVar, nullptr};
    static const TypeRepository repo{"Test", mine};
    const TypeRepository* registration[] = {&repo, &type_repository_null};
    adr_type_init(registration);
    Any a = any_seq(&kProperties, Properties{});
    add(static_cast<Properties*>(a._value), "k", any_string("v"));
    Bytes bytes = encode(TC_any, &a).bytes;
    kel_free_generic(&a, TC_any);
    // Our own form is matched byte for byte; a name spelt differently is read
    // in full and still recognised (names are not part of a type's identity).
    Bytes renamed = bytes;
    const uint8_t wire_name[] = {0, 0, 0, 11, 'P', 'r', 'o', 'p', 'e', 'r', 't', 'i', 'e', 's'};
    auto name = std::search(renamed.begin(), renamed.end(), wire_name, wire_name + 14);
    ASSERT_NE(name, renamed.end());
    name[13] = 'z';
    for (const Bytes& in : {bytes, renamed}) {
        Any back{};
        AdrBuffer* b = adr_init_decode_buffer(in.data(), static_cast<uint32_t>(in.size()));
        marshal_item(b, TC_any, &back);
        EXPECT_EQ(b->error, ADR_OK);
        EXPECT_EQ(back._type, &kProperties);
        adr_free_buf(b);
        kel_free_generic(&back, TC_any);
    }
}

TEST(Marshal, EveryTruncationIsAnErrorAndEveryMutationIsSafe) {
    Properties p = every_kind();
    Bytes full = encode(&kProperties, &p).bytes;
    kel_free_generic(&p, &kProperties);
    for (size_t n = 0; n < full.size(); ++n) {
        Bytes cut(full.begin(), full.begin() + static_cast<ptrdiff_t>(n));
        EXPECT_NE(decode_and_free(&kProperties, cut), ADR_OK) << "prefix of " << n;
    }
    // Any single corrupted octet either still decodes or gives an error; never
    // a crash, an overrun or a leak (the sanitizer build checks those).
    for (size_t i = 0; i < full.size(); ++i) {
        for (uint8_t v : {uint8_t{0x00}, uint8_t{0x7f}, uint8_t{0xff}}) {
            Bytes m = full;
            m[i] = v;
            decode_and_free(&kProperties, m);
        }
    }
}

TEST(Marshal, RandomBytesNeverCrash) {
    std::mt19937 rng(1234);
    for (int i = 0; i < 3000; ++i) {
        Bytes in(rng() % 96);
        for (auto& o : in) o = static_cast<uint8_t>(rng() % 4 == 0 ? rng() : rng() % 24);
        decode_and_free(&kProperties, in);
        decode_and_free(TC_any, in);
    }
}

// One any holding `kind` as its TypeCode, then `value` bytes.
Bytes any_with(std::initializer_list<uint8_t> tc_and_value) {
    return Bytes(tc_and_value);
}

TEST(Marshal, MalformedInputIsRejectedWithItsCode) {
    Cdr deep;
    for (int i = 0; i < ADR_MAX_DEPTH + 2; ++i) deep.u32(FANOUT_TK_ANY);
    deep.u32(FANOUT_TK_LONG).u32(1);
    Cdr huge_seq;
    huge_seq.u32(FANOUT_TK_SEQUENCE).open(false).u32(FANOUT_TK_STRING).u32(0).u32(0).close();
    huge_seq.u32(0x40000000);
    Cdr recursive;  // struct S { sequence<S> next; } written with an indirection
    recursive.u32(FANOUT_TK_STRUCT).open(false).str("IDL:S:1.0").str("S").u32(1).str("next");
    recursive.u32(FANOUT_TK_SEQUENCE).open(false).u32(0xffffffffu);
    recursive.u32(static_cast<uint32_t>(-static_cast<int32_t>(recursive.here())));
    recursive.u32(0).close().close();
    // S(k) = struct { S(k-1) a; S(k-1) b; }, b an indirection to a: a few
    // hundred octets that would describe 2^30 nodes. S(3) is fine.
    std::function<void(Cdr&, int)> nest = [&](Cdr& c, int k) {
        if (k == 0) {
            c.u32(FANOUT_TK_STRING).u32(0);
            return;
        }
        std::string id = "IDL:S" + std::to_string(k) + ":1.0";
        c.u32(FANOUT_TK_STRUCT).open(false).str(id.c_str()).str("S").u32(2).str("a");
        c.u32(0);  // align, then step back: the member's kind goes here
        c.bytes.resize(c.bytes.size() - 4);
        size_t a = c.here();
        nest(c, k - 1);
        c.str("b").u32(0xffffffffu);
        c.u32(static_cast<uint32_t>(static_cast<int64_t>(a) - static_cast<int64_t>(c.here())));
        c.close();
    };
    Cdr doubling, eight;
    nest(doubling, 30);
    nest(eight, 3);
    for (int i = 0; i < 8; ++i) eight.str("s");
    Cdr bad_order;
    bad_order.u32(FANOUT_TK_ALIAS).open(false).close();
    bad_order.bytes[8] = 2;
    Cdr union_tc;
    union_tc.u32(FANOUT_TK_UNION).open(false).str("IDL:U:1.0").close();
    auto colour = [](uint32_t v) {  // enum Colour { red, green } holding v
        Cdr c;
        c.u32(FANOUT_TK_ENUM).open(false).str("IDL:Test/Colour:1.0").str("Colour").u32(2);
        c.str("red").str("green").close().u32(v);
        return c.bytes;
    };
    struct Case {
        const char* what;
        Bytes in;
        int32_t code;
    } cases[] = {
        {"boolean 2", any_with({0, 0, 0, 8, 2}), ADR_ERR_BAD_BOOLEAN},
        {"unknown kind", any_with({0, 0, 0, 99}), ADR_ERR_BAD_TYPECODE},
        {"union", union_tc.bytes, ADR_ERR_UNSUPPORTED},
        {"string too long", any_with({0, 0, 0, 18, 0, 0, 0, 0, 0, 0, 0, 9, 'a', 0}),
         ADR_ERR_BAD_LENGTH},
        {"string length 0", any_with({0, 0, 0, 18, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}),
         ADR_ERR_BAD_STRING},
        {"string without NUL", any_with({0, 0, 0, 18, 0, 0, 0, 0, 0, 0, 0, 2, 'a', 'b'}),
         ADR_ERR_BAD_STRING},
        {"string with a NUL inside", any_with({0, 0, 0, 18, 0, 0, 0, 0, 0, 0, 0, 3, 'a', 0, 0}),
         ADR_ERR_BAD_STRING},
        {"last enumerator", colour(1), ADR_OK},
        {"enumerator past the list", colour(2), ADR_ERR_BAD_LENGTH},
        {"bounded string overrun", any_with({0, 0, 0, 18, 0, 0, 0, 1, 0, 0, 0, 3, 'a', 'b', 0}),
         ADR_ERR_BAD_LENGTH},
        {"count beyond input", huge_seq.bytes, ADR_ERR_BAD_LENGTH},
        {"too deep", deep.bytes, ADR_ERR_TOO_DEEP},
        {"recursive indirection", recursive.bytes, ADR_ERR_BAD_TYPECODE},
        {"indirections doubling", doubling.bytes, ADR_ERR_BAD_TYPECODE},
        {"indirections, eight strings", eight.bytes, ADR_OK},
        {"byte order 2", bad_order.bytes, ADR_ERR_BAD_TYPECODE},
    };
    for (const Case& c : cases) EXPECT_EQ(decode_and_free(TC_any, c.in), c.code) << c.what;
}

// Hand-written marshalling counts struct nesting itself: ADR_MAX_DEPTH
// levels are allowed, one more is an error, on either side.
TEST(Marshal, StructNestingStopsBeyondTheLimit) {
    const uint8_t none = 0;
    for (AdrBuffer* b : {adr_init_encode_buffer(), adr_init_decode_buffer(&none, 0)}) {
        for (int i = 0; i < ADR_MAX_DEPTH; ++i) adr_start_struct(b);
        EXPECT_EQ(b->error, ADR_OK);
        adr_start_struct(b);
        EXPECT_EQ(b->error, ADR_ERR_TOO_DEEP);
        for (int i = 0; i <= ADR_MAX_DEPTH; ++i) adr_end_struct(b);
        EXPECT_EQ(b->depth, 0);
        adr_free_buf(b);
    }
}

// A value far larger than anything encoded before it is copied in whole.
TEST(Marshal, MegabyteOctetListRoundTrips) {
    Bytes data(1u << 20);
    for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<uint8_t>(i * 7 + i / 251);
    const auto n = static_cast<uint32_t>(data.size());
    Kel_Types_OctetList list{n, n, data.data()};
    Encoded e = encode(TC_Kel_Types_OctetList, &list);
    ASSERT_EQ(e.error, ADR_OK);
    ASSERT_EQ(e.bytes.size(), 4 + data.size());
    EXPECT_TRUE(std::equal(data.begin(), data.end(), e.bytes.begin() + 4));
    Bytes again;
    EXPECT_EQ(decode_and_free(TC_Kel_Types_OctetList, e.bytes, &again), ADR_OK);
    EXPECT_EQ(again, e.bytes);
}

// Scalar sequences travel as one block: big-endian as our encoder writes
// them, or little-endian when the decoder is told its stream is.
TEST(Marshal, ScalarSequencesInEitherByteOrder) {
    const TypeCodeRec* const shortElem[] = {&_tc_rec_short};
    const TypeCodeRec* const longElem[] = {&_tc_rec_long};
    const TypeCodeRec* const doubleElem[] = {&_tc_rec_double};
    const TypeCodeRec shorts = {
        FANOUT_TK_SEQUENCE,     -1, "", "",      "",        sizeof(GenericSeq),
        align_of<GenericSeq>(), 0,  1,  nullptr, shortElem, nullptr};
    const TypeCodeRec longs = {
        FANOUT_TK_SEQUENCE,     -1, "", "",      "",       sizeof(GenericSeq),
        align_of<GenericSeq>(), 0,  1,  nullptr, longElem, nullptr};
    const TypeCodeRec doubles = {
        FANOUT_TK_SEQUENCE,     -1, "", "",      "",         sizeof(GenericSeq),
        align_of<GenericSeq>(), 0,  1,  nullptr, doubleElem, nullptr};
    const int16_t shortValues[] = {0x0102, -2};
    const int32_t longValue = 0x01020304;
    const double doubleValue = 1.0;
    const struct {
        const TypeCodeRec* tc;
        bool little;
        Bytes in;  // count, padding, elements
        const void* values;
        size_t size;
    } cases[] = {
        {&shorts, false, {0, 0, 0, 2, 0x01, 0x02, 0xff, 0xfe}, shortValues, sizeof shortValues},
        {&shorts, true, {2, 0, 0, 0, 0x02, 0x01, 0xfe, 0xff}, shortValues, sizeof shortValues},
        {&longs, false, {0, 0, 0, 1, 0x01, 0x02, 0x03, 0x04}, &longValue, sizeof longValue},
        {&longs, true, {1, 0, 0, 0, 0x04, 0x03, 0x02, 0x01}, &longValue, sizeof longValue},
        {&doubles,
         false,
         {0, 0, 0, 1, 0, 0, 0, 0, 0x3f, 0xf0, 0, 0, 0, 0, 0, 0},
         &doubleValue,
         sizeof doubleValue},
        {&doubles,
         true,
         {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xf0, 0x3f},
         &doubleValue,
         sizeof doubleValue},
    };
    for (size_t i = 0; i < std::size(cases); ++i) {
        SCOPED_TRACE(i);
        GenericSeq seq{};
        AdrBuffer* b =
            adr_init_decode_buffer(cases[i].in.data(), static_cast<uint32_t>(cases[i].in.size()));
        b->swap = cases[i].little ? 1 : 0;
        marshal_item(b, cases[i].tc, &seq);
        EXPECT_EQ(b->error, ADR_OK);
        adr_free_buf(b);
        ASSERT_EQ(seq.length * cases[i].tc->member_types[0]->size, cases[i].size);
        EXPECT_EQ(std::memcmp(seq.buffer, cases[i].values, cases[i].size), 0);
        if (!cases[i].little) {
            EXPECT_EQ(encode(cases[i].tc, &seq).bytes, cases[i].in);
        }
        kel_free_generic(&seq, cases[i].tc);
    }
}

TEST(Marshal, LittleEndianEncapsulationsAndIndirectionsDecode) {
    // Properties written the way another ORB might: the TypeCode of a
    // nested list as little-endian encapsulations, its struct's second member
    // pointing back at the first member's TypeCode (both strings, bound 7).
    Cdr c;
    c.u32(1).str("k");
    c.u32(FANOUT_TK_ALIAS).open(true).str("IDL:Test/Pairs:1.0").str("Pairs");
    c.u32(FANOUT_TK_SEQUENCE).open(true);
    c.u32(FANOUT_TK_STRUCT).open(false).str("IDL:Test/Pair:1.0").str("Pair").u32(2);
    c.str("a");
    c.u32(FANOUT_TK_STRING);
    size_t first = c.here() - 4;
    c.u32(7);
    c.str("b").u32(0xffffffffu);
    c.u32(static_cast<uint32_t>(static_cast<int64_t>(first) - static_cast<int64_t>(c.here())));
    c.close().u32(0).close().close();
    // The value, in the outer (big-endian) order: two pairs.
    c.u32(2).str("x").str("y").str("zz").str("");
    Properties back{};
    AdrBuffer* b = adr_init_decode_buffer(c.bytes.data(), static_cast<uint32_t>(c.bytes.size()));
    marshal_item(b, &kProperties, &back);
    ASSERT_EQ(b->error, ADR_OK);
    adr_free_buf(b);
    ASSERT_EQ(back.length, 1u);
    TypeCode pairs = back.buffer[0].value._type;
    ASSERT_EQ(pairs->kind, static_cast<uint32_t>(FANOUT_TK_ALIAS));
    TypeCode pair = pairs->member_types[0]->member_types[0];
    EXPECT_STREQ(pair->member_names[1], "b");
    EXPECT_EQ(pair->member_types[1]->bound, 7u);
    struct Pair {
        char* a;
        char* b;
    };
    auto* seq = static_cast<GenericSeq*>(back.buffer[0].value._value);
    ASSERT_EQ(seq->length, 2u);
    EXPECT_STREQ(static_cast<Pair*>(seq->buffer)[1].a, "zz");
    EXPECT_STREQ(static_cast<Pair*>(seq->buffer)[1].b, "");
    // Re-encoding gives our canonical form, which decodes to equal values.
    Bytes again;
    EXPECT_EQ(decode_and_free(&kProperties, encode(&kProperties, &back).bytes, &again), ADR_OK);
    EXPECT_EQ(again, encode(&kProperties, &back).bytes);
    kel_free_generic(&back, &kProperties);
}

// The fuzz seeds come from a separate CDR writer (fuzz/gen_cdr_corpus.py):
// each must decode, and those written canonically (big-endian throughout)
// must re-encode to exactly the same bytes.
TEST(Marshal, IndependentlyWrittenSeedsDecode) {
    const char* root = std::getenv("FANOUT_SOURCE_DIR");
    if (root == nullptr) GTEST_SKIP() << "FANOUT_SOURCE_DIR is not set";
    int seen = 0;
    for (const auto& entry : std::filesystem::directory_iterator(std::filesystem::path(root) /
                                                                 "fuzz" / "corpus" / "cdr")) {
        std::ifstream f(entry.path(), std::ios::binary);
        Bytes in{std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>()};
        std::string name = entry.path().filename().string();
        TypeCode tc = name.rfind("any_", 0) == 0 ? TC_any : &kProperties;
        Bytes again;
        ASSERT_EQ(decode_and_free(tc, in, &again), ADR_OK) << name;
        bool canonical = name.find("_le_") == std::string::npos && name != "indirection.bin";
        if (canonical) {
            EXPECT_EQ(again, in) << name;
        }
        ++seen;
    }
    EXPECT_GE(seen, 5);
}

TEST(Marshal, EncoderRejectsWhatTheDecoderWould) {
    GenericSeq bad{3, 3, nullptr};
    EXPECT_EQ(encode(TC_Kel_Types_OctetList, &bad).error, ADR_ERR_BAD_LENGTH);
    Any nest{TC_long, mg_calloc(1, 4)};
    for (int i = 0; i < ADR_MAX_DEPTH; ++i) nest = any_any(nest);
    EXPECT_EQ(encode(TC_any, &nest).error, ADR_ERR_TOO_DEEP);
    kel_free_generic(&nest, TC_any);
    uint8_t truth = 7;  // any non-zero boolean is written as 1
    EXPECT_EQ(encode(TC_boolean, &truth).bytes, Bytes{1});
}

}  // namespace
