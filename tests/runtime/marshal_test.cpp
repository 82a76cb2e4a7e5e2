// The CDR marshaller: exact bytes, round trips, foreign forms, hostile input. The property-list
// type codes are declared here as the runtime sees any module's, so only the runtime is needed.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "fanout/runtime.h"
#include "fanout/types.h"

namespace {

using Bytes = std::vector<uint8_t>;

/* ------------------------------------------------------------- type codes */

template <typename T>
TypeCodeRec seq_of(const TypeCodeRec* const* elem) {
    return {FANOUT_TK_SEQUENCE, -1, "", "",      "",   sizeof(T),
            alignof(T),         0,  1,  nullptr, elem, nullptr};
}
template <typename T>
TypeCodeRec named(uint32_t kind, const char* id, const char* name, uint32_t count,
                  const char* const* names, const TypeCodeRec* const* types,
                  const uint32_t* offsets = nullptr) {
    return {kind, -1, id, name, name, sizeof(T), alignof(T), 0, count, names, types, offsets};
}

const char* const kPropertyNames[] = {"key", "value"};
const TypeCodeRec* const kPropertyTypes[] = {&_tc_rec_string, &_tc_rec_any};
const uint32_t kPropertyOffsets[] = {offsetof(Property, key), offsetof(Property, value)};
const TypeCodeRec kProperty =
    named<Property>(FANOUT_TK_STRUCT, "IDL:Kel_Fanout2/Property:1.0", "Property", 2, kPropertyNames,
                    kPropertyTypes, kPropertyOffsets);
const TypeCodeRec* const kPropertyElem[] = {&kProperty};
const TypeCodeRec kPropertySeq = seq_of<Properties>(kPropertyElem);
const TypeCodeRec* const kPropertiesNamed[] = {&kPropertySeq};
const TypeCodeRec kProperties = named<Properties>(FANOUT_TK_ALIAS, "IDL:Kel_Fanout2/Properties:1.0",
                                                  "Properties", 1, nullptr, kPropertiesNamed);
const TypeCodeRec* const kPropertiesElem[] = {&kProperties};
const TypeCodeRec kListSeq = seq_of<PropertiesList>(kPropertiesElem);
const TypeCodeRec* const kListNamed[] = {&kListSeq};
const TypeCodeRec kPropertiesList =
    named<PropertiesList>(FANOUT_TK_ALIAS, "IDL:Kel_Fanout2/PropertiesList:1.0", "PropertiesList",
                          1, nullptr, kListNamed);
const char* const kColourNames[] = {"red", "green"};
const TypeCodeRec kColour =
    named<uint32_t>(FANOUT_TK_ENUM, "IDL:Test/Colour:1.0", "Colour", 2, kColourNames, nullptr);
struct Failure {
    int32_t code;
    char* text;
};
const char* const kFailureNames[] = {"code", "text"};
const TypeCodeRec* const kFailureTypes[] = {&_tc_rec_long, &_tc_rec_string};
const uint32_t kFailureOffsets[] = {offsetof(Failure, code), offsetof(Failure, text)};
const TypeCodeRec kFailure = named<Failure>(FANOUT_TK_EXCEPT, "IDL:Test/Failure:1.0", "Failure", 2,
                                            kFailureNames, kFailureTypes, kFailureOffsets);

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
    add(&p, "octets", any_of(TC_Kel_Types_OctetList, octets));
    Kel_Types_StringList strings{};
    for (const char* s : {"a", "", "ccc"}) {
        char* c = mg_strdup(s);
        seq_add(&strings, &c, sizeof c);
    }
    add(&p, "strings", any_of(TC_Kel_Types_StringList, strings));
    Properties inner{};
    add(&inner, "inner", any_of<int32_t>(TC_long, 7));
    add(&p, "nested", any_of(&kProperties, inner));
    PropertiesList list{};
    Properties first{};
    add(&first, "a", any_string("b"));
    seq_add(&list, &first, sizeof first);
    Properties empty{};
    seq_add(&list, &empty, sizeof empty);
    add(&p, "list", any_of(&kPropertiesList, list));
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

// Decodes into `value` and returns the buffer's code (and where it stopped).
int32_t decode(TypeCode tc, const Bytes& in, void* value, bool little = false,
               uint32_t* position = nullptr) {
    AdrBuffer* b = adr_init_decode_buffer(in.data(), static_cast<uint32_t>(in.size()));
    b->swap = little ? 1 : 0;
    marshal_item(b, tc, value);
    int32_t code = b->error;
    if (position != nullptr) *position = b->position;
    adr_free_buf(b);
    return code;
}

// Decodes into a zeroed value, frees it, and returns the buffer's code.
int32_t decode_and_free(TypeCode tc, const Bytes& in, Bytes* reencoded = nullptr) {
    std::vector<uint64_t> storage(tc->size / sizeof(uint64_t) + 1);
    void* value = storage.data();
    int32_t code = decode(tc, in, value);
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
        bytes.resize(bytes.size() + 4);
        return put(bytes.size() - 4, v);
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
        return put(f.slot, static_cast<uint32_t>(bytes.size() - f.origin));
    }
    size_t here() const { return bytes.size(); }
    Bytes bytes;

  private:
    struct Frame {
        size_t slot, origin;
        bool little;
    };
    size_t origin() const { return frames_.empty() ? 0 : frames_.back().origin; }
    Cdr& put(size_t at, uint32_t v) {
        bool little = !frames_.empty() && frames_.back().little;
        for (int i = 0; i < 4; ++i)
            bytes[at + i] = static_cast<uint8_t>(v >> (little ? 8 * i : 24 - 8 * i));
        return *this;
    }
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
    uint32_t position = 0;
    ASSERT_EQ(decode(&kProperties, e.bytes, &back, false, &position), ADR_OK);
    EXPECT_EQ(position, e.bytes.size());
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
    Any a = any_of(&kProperties, Properties{});
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
        EXPECT_EQ(decode(TC_any, in, &back), ADR_OK);
        EXPECT_EQ(back._type, &kProperties);
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
        {"boolean 2", Bytes({0, 0, 0, 8, 2}), ADR_ERR_BAD_BOOLEAN},
        {"unknown kind", Bytes({0, 0, 0, 99}), ADR_ERR_BAD_TYPECODE},
        {"union", union_tc.bytes, ADR_ERR_UNSUPPORTED},
        {"string too long", Bytes({0, 0, 0, 18, 0, 0, 0, 0, 0, 0, 0, 9, 'a', 0}),
         ADR_ERR_BAD_LENGTH},
        {"string length 0", Bytes({0, 0, 0, 18, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}), ADR_ERR_BAD_STRING},
        {"string without NUL", Bytes({0, 0, 0, 18, 0, 0, 0, 0, 0, 0, 0, 2, 'a', 'b'}),
         ADR_ERR_BAD_STRING},
        {"string with a NUL inside", Bytes({0, 0, 0, 18, 0, 0, 0, 0, 0, 0, 0, 3, 'a', 0, 0}),
         ADR_ERR_BAD_STRING},
        {"last enumerator", colour(1), ADR_OK},
        {"enumerator past the list", colour(2), ADR_ERR_BAD_LENGTH},
        {"bounded string overrun", Bytes({0, 0, 0, 18, 0, 0, 0, 1, 0, 0, 0, 3, 'a', 'b', 0}),
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
    const TypeCodeRec shorts = seq_of<GenericSeq>(shortElem), longs = seq_of<GenericSeq>(longElem),
                      doubles = seq_of<GenericSeq>(doubleElem);
    const int16_t twoShorts[] = {0x0102, -2};
    const int32_t aLong = 0x01020304;
    const double one = 1.0;
    const struct {
        const TypeCodeRec* tc;
        Bytes big, little;  // count, padding, elements
        const void* values;
        size_t size;
    } cases[] = {
        {&shorts, {0, 0, 0, 2, 1, 2, 0xff, 0xfe}, {2, 0, 0, 0, 2, 1, 0xfe, 0xff}, twoShorts, 4},
        {&longs, {0, 0, 0, 1, 1, 2, 3, 4}, {1, 0, 0, 0, 4, 3, 2, 1}, &aLong, 4},
        {&doubles,
         {0, 0, 0, 1, 0, 0, 0, 0, 0x3f, 0xf0, 0, 0, 0, 0, 0, 0},
         {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xf0, 0x3f},
         &one,
         8},
    };
    for (const auto& c : cases) {
        for (bool little : {false, true}) {
            SCOPED_TRACE(testing::Message() << c.tc->member_types[0]->kind << " little " << little);
            GenericSeq seq{};
            EXPECT_EQ(decode(c.tc, little ? c.little : c.big, &seq, little), ADR_OK);
            ASSERT_EQ(seq.length * c.tc->member_types[0]->size, c.size);
            EXPECT_EQ(std::memcmp(seq.buffer, c.values, c.size), 0);
            EXPECT_EQ(encode(c.tc, &seq).bytes, c.big);
            kel_free_generic(&seq, c.tc);
        }
    }
}

TEST(Marshal, LittleEndianEncapsulationsAndIndirectionsDecode) {
    // A foreign writer's form: a nested list's TypeCode in little-endian encapsulations, its
    // struct's second member an indirection to the first's TypeCode (strings, bound 7).
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
    ASSERT_EQ(decode(&kProperties, c.bytes, &back), ADR_OK);
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

// The fuzz seeds come from a separate CDR writer (fuzz/gen_cdr_corpus.py): each decodes, and the
// canonical ones (big-endian throughout) re-encode to exactly the same bytes.
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
