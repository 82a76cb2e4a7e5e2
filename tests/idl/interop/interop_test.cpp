// interop_test.cpp - our CDR against an independent CORBA ORB (omniORB), in both directions.
//
// The same property list is built as our C records and as the ORB's C++ mapping of
// fanout2.idl; each side marshals it big-endian, in a buffer and in a bare-layout file, and the
// other side decodes it. Values are compared as text dumps of our records, never as bytes: the
// ORB leaves the padding in its encapsulations uninitialised and writes them in its native order.

#include <gtest/gtest.h>

#include <omniORB4/CORBA.h>
#include <omniORB4/cdrStream.h>

#include <unistd.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <string>
#include <type_traits>

#include "fanout/properties.h"
#include "fanout/runtime.h"
#include "fanout/types.h"
#include "fanout2.hh"

namespace {

void orb_init() {
    static CORBA::ORB_ptr the_orb = [] {
        int argc = 0;
        return CORBA::ORB_init(argc, nullptr);
    }();
    (void)the_orb;
    fanout_init();
}

std::string join(const char* tag, uint32_t n, const std::function<std::string(uint32_t)>& item) {
    std::string s = tag;
    for (uint32_t i = 0; i < n; ++i) s += item(i);
    return s;
}

/* ------------------------------------------------------- the ORB's values */

template <typename T>
void put(Kel_Fanout2::Properties& p, const char* key, const T& v) {
    const CORBA::ULong n = p.length();
    p.length(n + 1);
    p[n].key = key;
    if constexpr (std::is_same_v<T, CORBA::Any>) {
        p[n].value = v;  // as it stands, not wrapped in another any
    } else {
        p[n].value <<= v;
    }
}

// A nil Repeater reference in an any. The ORB cannot marshal an any into which a nil reference
// was inserted directly, so the any is read from the ORB's own encoding of both.
CORBA::Any nil_repeater() {
    cdrMemoryStream s;
    CORBA::TypeCode::marshalTypeCode(Kel_Fanout2::_tc_Repeater, s);
    CORBA::Object::_marshalObjRef(CORBA::Object::_nil(), s);
    CORBA::Any a;
    a <<= s;
    return a;
}

Kel_Fanout2::Properties orb_list() {
    Kel_Fanout2::Properties p;
    put(p, "string", "hello world");
    CORBA::Any inner, middle, outer;
    inner <<= "inner";
    middle <<= inner;
    outer <<= middle;
    put(p, "any", outer);
    put(p, "object", nil_repeater());
    put(p, "short", CORBA::Short(-12));
    put(p, "ushort", CORBA::UShort(65000));
    put(p, "long", CORBA::Long(-123456));
    put(p, "ulong", CORBA::ULong(4000000000u));
    put(p, "longlong", CORBA::LongLong(-(1LL << 40)));
    put(p, "double", CORBA::Double(2.5));
    put(p, "true", CORBA::Any::from_boolean(1));
    put(p, "false", CORBA::Any::from_boolean(0));
    put(p, "char", CORBA::Any::from_char('z'));
    put(p, "octet", CORBA::Any::from_octet(200));
    Kel_Types::OctetList octets;
    octets.length(100);
    for (CORBA::ULong i = 0; i < 100; ++i) octets[i] = static_cast<CORBA::Octet>(i * 3);
    put(p, "octets", octets);
    Kel_Types::StringList strings;
    strings.length(3);
    strings[0] = "x";
    strings[1] = "";
    strings[2] = "yz";
    put(p, "strings", strings);
    Kel_Fanout2::Properties nested, deeper;
    put(deeper, "s", "t");
    put(nested, "inner", CORBA::Long(7));
    put(nested, "deeper", deeper);
    put(p, "nested", nested);
    Kel_Fanout2::PropertiesList list;
    list.length(2);
    put(list[0], "a", "b");
    put(p, "list", list);
    return p;
}

/* ------------------------------------------------------------- our values */

using OurDump = std::string (*)(const void*);
std::string dump_ours(const Properties& p);
std::string dump_ours(const Any& a);

template <typename T, char Tag>
std::string ours(const void* v) {
    return Tag + (":" + std::to_string(*static_cast<const T*>(v)));
}

template <typename T>
std::string our_list_dump(const void* v, const char* tag, std::string (*item)(const T&, uint32_t)) {
    const auto* seq = static_cast<const T*>(v);
    return join(tag, seq->length, [&](uint32_t i) { return item(*seq, i); });
}

const std::map<uint32_t, OurDump> kOurKinds = {
    {FANOUT_TK_SHORT, ours<int16_t, 'h'>},
    {FANOUT_TK_USHORT, ours<uint16_t, 'H'>},
    {FANOUT_TK_LONG, ours<int32_t, 'l'>},
    {FANOUT_TK_ULONG, ours<uint32_t, 'L'>},
    {FANOUT_TK_LONGLONG, ours<int64_t, 'q'>},
    {FANOUT_TK_DOUBLE, ours<double, 'd'>},
    {FANOUT_TK_BOOLEAN, ours<uint8_t, 'b'>},
    {FANOUT_TK_CHAR, ours<uint8_t, 'c'>},
    {FANOUT_TK_OCTET, ours<uint8_t, 'o'>},
    {FANOUT_TK_STRING,
     [](const void* v) { return "s:" + std::string(*static_cast<char* const*>(v)); }},
    {FANOUT_TK_ANY,
     [](const void* v) { return "a:(" + dump_ours(*static_cast<const Any*>(v)) + ")"; }},
    {FANOUT_TK_OBJREF, [](const void* v) -> std::string {
         return *static_cast<const Object*>(v) ? "ref:?" : "ref:nil";
     }}};

const std::map<std::string, OurDump> kOurAliases = {
    {"IDL:Kel_Types/OctetList:1.0",
     [](const void* v) {
         return our_list_dump<Kel_Types_OctetList>(
             v, "ol:", [](const auto& o, uint32_t i) { return std::to_string(o.buffer[i]) + ","; });
     }},
    {"IDL:Kel_Types/StringList:1.0",
     [](const void* v) {
         return our_list_dump<Kel_Types_StringList>(
             v, "sl:", [](const auto& o, uint32_t i) { return std::string(o.buffer[i]) + ","; });
     }},
    {"IDL:Kel_Fanout2/Properties:1.0",
     [](const void* v) { return "p:" + dump_ours(*static_cast<const Properties*>(v)); }},
    {"IDL:Kel_Fanout2/PropertiesList:1.0", [](const void* v) {
         return our_list_dump<PropertiesList>(
                    v, "pl:[", [](const auto& l, uint32_t i) { return dump_ours(l.buffer[i]); }) +
                "]";
     }}};

std::string dump_ours(const Any& a) {
    if (a._type->kind == FANOUT_TK_ALIAS) {
        auto it = kOurAliases.find(a._type->repo_id);
        return it != kOurAliases.end() ? it->second(a._value)
                                       : "alias?" + std::string(a._type->repo_id);
    }
    auto it = kOurKinds.find(a._type->kind);
    return it != kOurKinds.end() ? it->second(a._value) : "kind?" + std::to_string(a._type->kind);
}

std::string dump_ours(const Properties& p) {
    return join("{", p.length,
                [&](uint32_t i) {
                    return std::string(p.buffer[i].key) + "=" + dump_ours(p.buffer[i].value) + ";";
                }) +
           "}";
}

template <typename T>
Any any_of(TypeCode tc, T v) {
    void* p = mg_malloc(sizeof(T));
    std::memcpy(p, &v, sizeof(T));
    return Any{tc, p};
}
Any any_string(const char* s) {
    return any_of<char*>(TC_string, mg_strdup(s));
}

void put(Properties* p, const char* key, Any v) {
    Property e{mg_strdup(key), v};
    seq_add(p, &e, sizeof e);
}

Properties our_list() {
    Properties p{};
    put(&p, "string", any_string("hello world"));
    put(&p, "any", any_of<Any>(TC_any, any_of<Any>(TC_any, any_string("inner"))));
    put(&p, "object", any_of<Object>(TC_Kel_Fanout2_Repeater, nullptr));
    put(&p, "short", any_of<int16_t>(TC_short, -12));
    put(&p, "ushort", any_of<uint16_t>(TC_ushort, 65000));
    put(&p, "long", any_of<int32_t>(TC_long, -123456));
    put(&p, "ulong", any_of<uint32_t>(TC_ulong, 4000000000u));
    put(&p, "longlong", any_of<int64_t>(TC_longlong, -(int64_t{1} << 40)));
    put(&p, "double", any_of<double>(TC_double, 2.5));
    put(&p, "true", any_of<uint8_t>(TC_boolean, 1));
    put(&p, "false", any_of<uint8_t>(TC_boolean, 0));
    put(&p, "char", any_of<char>(TC_char, 'z'));
    put(&p, "octet", any_of<uint8_t>(TC_octet, 200));
    Kel_Types_OctetList octets{};
    for (uint32_t i = 0; i < 100; ++i) {
        auto o = static_cast<uint8_t>(i * 3);
        seq_add(&octets, &o, 1);
    }
    put(&p, "octets", any_of(TC_Kel_Types_OctetList, octets));
    Kel_Types_StringList strings{};
    for (const char* s : {"x", "", "yz"}) {
        char* c = mg_strdup(s);
        seq_add(&strings, &c, sizeof c);
    }
    put(&p, "strings", any_of(TC_Kel_Types_StringList, strings));
    Properties nested{}, deeper{}, first{}, second{};
    put(&deeper, "s", any_string("t"));
    put(&nested, "inner", any_of<int32_t>(TC_long, 7));
    put(&nested, "deeper", any_of(TC_Kel_Fanout2_Properties, deeper));
    put(&p, "nested", any_of(TC_Kel_Fanout2_Properties, nested));
    PropertiesList list{};
    put(&first, "a", any_string("b"));
    seq_add(&list, &first, sizeof first);
    seq_add(&list, &second, sizeof second);
    put(&p, "list", any_of(TC_Kel_Fanout2_PropertiesList, list));
    return p;
}

/* ------------------------------------------------------------------ tests */

// A bare-layout property file is the marshalled list and nothing else.
struct TempFile {
    std::string dir, path;
    TempFile() {
        char tmpl[] = "/tmp/fanout-interop-XXXXXX";
        dir = mkdtemp(tmpl);
        path = dir + "/list.toc";
    }
    ~TempFile() {
        unlink(path.c_str());
        rmdir(dir.c_str());
    }
};

// Our bytes, in a buffer and in a file, are read by the ORB, which writes them back for us to
// read: the ORB must have understood every value as we meant it.
// The ORB's list marshalled big-endian and decoded by us from a buffer or a bare-layout file.
Properties from_orb(const Kel_Fanout2::Properties& theirs, bool via_file) {
    cdrMemoryStream out;
    out.setByteSwapFlag(0);
    theirs >>= out;
    Properties ours{};
    if (via_file) {
        TempFile f;
        std::ofstream(f.path, std::ios::binary)
            .write(static_cast<const char*>(out.bufPtr()), std::streamsize(out.bufSize()));
        properties_load_without_len(&ours, f.path.c_str());
        return ours;
    }
    AdrBuffer* b = adr_init_decode_buffer(out.bufPtr(), out.bufSize());
    marshal_item(b, TC_Kel_Fanout2_Properties, &ours);
    EXPECT_EQ(b->error, ADR_OK);
    EXPECT_EQ(b->position, out.bufSize());
    adr_free_buf(b);
    return ours;
}

TEST(Interop, WhatWeWriteTheOrbReadsAsWeMeantIt) {
    orb_init();
    Properties ours = our_list();
    AdrBuffer* b = adr_init_encode_buffer();
    marshal_item(b, TC_Kel_Fanout2_Properties, &ours);
    ASSERT_EQ(b->error, ADR_OK);
    TempFile f;
    properties_save_without_len(&ours, f.path.c_str());
    std::ifstream file(f.path, std::ios::binary);
    const std::string saved{std::istreambuf_iterator<char>(file), {}};
    const std::string written(reinterpret_cast<const char*>(b->data), b->length);
    adr_free_buf(b);
    for (std::string bytes : {written, saved}) {
        cdrMemoryStream in(bytes.data(), bytes.size());
        in.setByteSwapFlag(0);
        Kel_Fanout2::Properties theirs;
        theirs <<= in;
        EXPECT_EQ(in.currentInputPtr(), bytes.size());  // nothing left over
        Properties back = from_orb(theirs, false);
        EXPECT_EQ(dump_ours(back), dump_ours(ours));
        kel_free_generic(&back, TC_Kel_Fanout2_Properties);
    }
    kel_free_generic(&ours, TC_Kel_Fanout2_Properties);
}

// The ORB's own list, in a buffer and in a file, decodes as the same list built by hand.
TEST(Interop, WhatTheOrbWritesBigEndianDecodesInOurs) {
    orb_init();
    Properties expected = our_list();
    for (bool via_file : {false, true}) {
        Properties ours = from_orb(orb_list(), via_file);
        EXPECT_EQ(dump_ours(ours), dump_ours(expected)) << via_file;
        for (uint32_t i = 0; i < ours.length; ++i) {  // the ORB's type codes are ours
            const std::string key = ours.buffer[i].key;
            const TypeCode tc = ours.buffer[i].value._type;
            if (key == "nested") EXPECT_EQ(tc, TC_Kel_Fanout2_Properties);
            if (key == "list") EXPECT_EQ(tc, TC_Kel_Fanout2_PropertiesList);
            if (key == "octets") EXPECT_EQ(tc, TC_Kel_Types_OctetList);
        }
        kel_free_generic(&ours, TC_Kel_Fanout2_Properties);
    }
    kel_free_generic(&expected, TC_Kel_Fanout2_Properties);
}

}  // namespace
