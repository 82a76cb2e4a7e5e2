// interop_test.cpp - our CDR against an independent CORBA ORB (omniORB), in both directions.
//
// The same property list is built twice, once as our C records and once as
// the ORB's C++ mapping of tests/idl/interop/fanout2.idl. Each side marshals
// its list big-endian and the other side unmarshals it; the decoded values
// are compared as canonical text dumps, never as bytes (the ORB leaves the
// padding inside its encapsulations uninitialised and writes them in its
// native byte order). The list holds every value kind a property carries,
// nested lists and an any inside an any.

#include <gtest/gtest.h>

#include <omniORB4/CORBA.h>
#include <omniORB4/cdrStream.h>

#include <cstring>
#include <fstream>
#include <unistd.h>
#include <string>

#include "fanout/runtime.h"
#include "fanout/properties.h"
#include "fanout/types.h"
#include "fanout2.hh"

namespace {

CORBA::ORB_ptr orb() {
    static CORBA::ORB_ptr the_orb = [] {
        int argc = 0;
        return CORBA::ORB_init(argc, nullptr);
    }();
    return the_orb;
}

/* ------------------------------------------------------- the ORB's values */

std::string dump(const Kel_Fanout2::Properties& p);

std::string dump(const CORBA::Any& a) {
    CORBA::TypeCode_var tc = a.type();
    switch (tc->kind()) {
        case CORBA::tk_string: {
            const char* s = nullptr;
            return (a >>= s) ? "s:" + std::string(s) : "?";
        }
        case CORBA::tk_short: {
            CORBA::Short v = 0;
            a >>= v;
            return "h:" + std::to_string(v);
        }
        case CORBA::tk_ushort: {
            CORBA::UShort v = 0;
            a >>= v;
            return "H:" + std::to_string(v);
        }
        case CORBA::tk_long: {
            CORBA::Long v = 0;
            a >>= v;
            return "l:" + std::to_string(v);
        }
        case CORBA::tk_ulong: {
            CORBA::ULong v = 0;
            a >>= v;
            return "L:" + std::to_string(v);
        }
        case CORBA::tk_longlong: {
            CORBA::LongLong v = 0;
            a >>= v;
            return "q:" + std::to_string(v);
        }
        case CORBA::tk_double: {
            CORBA::Double v = 0;
            a >>= v;
            return "d:" + std::to_string(v);
        }
        case CORBA::tk_boolean: {
            CORBA::Boolean v = 0;
            a >>= CORBA::Any::to_boolean(v);
            return "b:" + std::to_string(int{v});
        }
        case CORBA::tk_char: {
            CORBA::Char v = 0;
            a >>= CORBA::Any::to_char(v);
            return "c:" + std::to_string(int{v});
        }
        case CORBA::tk_octet: {
            CORBA::Octet v = 0;
            a >>= CORBA::Any::to_octet(v);
            return "o:" + std::to_string(int{v});
        }
        case CORBA::tk_any: {
            const CORBA::Any* inner = nullptr;
            return (a >>= inner) ? "a:(" + dump(*inner) + ")" : "?";
        }
        case CORBA::tk_objref: {
            CORBA::Object_ptr obj = CORBA::Object::_nil();
            if (!(a >>= CORBA::Any::to_object(obj))) return "?";
            return CORBA::is_nil(obj) ? std::string("ref:nil") : std::string("ref:?");
        }
        case CORBA::tk_alias: {
            std::string id = tc->id();
            if (id == "IDL:Kel_Types/OctetList:1.0") {
                const Kel_Types::OctetList* o = nullptr;
                if (!(a >>= o)) return "?";
                std::string s = "ol:";
                for (CORBA::ULong i = 0; i < o->length(); ++i) s += std::to_string((*o)[i]) + ",";
                return s;
            }
            if (id == "IDL:Kel_Types/StringList:1.0") {
                const Kel_Types::StringList* o = nullptr;
                if (!(a >>= o)) return "?";
                std::string s = "sl:";
                for (CORBA::ULong i = 0; i < o->length(); ++i) s += std::string((*o)[i]) + ",";
                return s;
            }
            if (id == "IDL:Kel_Fanout2/Properties:1.0") {
                const Kel_Fanout2::Properties* p = nullptr;
                return (a >>= p) ? "p:" + dump(*p) : "?";
            }
            if (id == "IDL:Kel_Fanout2/PropertiesList:1.0") {
                const Kel_Fanout2::PropertiesList* l = nullptr;
                if (!(a >>= l)) return "?";
                std::string s = "pl:[";
                for (CORBA::ULong i = 0; i < l->length(); ++i) s += dump((*l)[i]);
                return s + "]";
            }
            return "alias?" + id;
        }
        default:
            return "kind?" + std::to_string(static_cast<int>(tc->kind()));
    }
}

std::string dump(const Kel_Fanout2::Properties& p) {
    std::string s = "{";
    for (CORBA::ULong i = 0; i < p.length(); ++i)
        s += std::string(p[i].key.in()) + "=" + dump(p[i].value) + ";";
    return s + "}";
}

void put(Kel_Fanout2::Properties& p, const char* key, const CORBA::Any& v) {
    CORBA::ULong n = p.length();
    p.length(n + 1);
    p[n].key = key;
    p[n].value = v;
}

// A nil Repeater reference in an any. The ORB cannot marshal an any into
// which a nil reference was inserted directly, so the any is read from the
// ORB's own encoding of the type code and the nil reference.
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
    CORBA::Any a;
    a <<= "hello world";
    put(p, "string", a);
    CORBA::Any inner, middle, outer;
    inner <<= "inner";
    middle <<= inner;
    outer <<= middle;
    put(p, "any", outer);
    put(p, "object", nil_repeater());
    a <<= CORBA::Short(-12);
    put(p, "short", a);
    a <<= CORBA::UShort(65000);
    put(p, "ushort", a);
    a <<= CORBA::Long(-123456);
    put(p, "long", a);
    a <<= CORBA::ULong(4000000000u);
    put(p, "ulong", a);
    a <<= CORBA::LongLong(-(1LL << 40));
    put(p, "longlong", a);
    a <<= CORBA::Double(2.5);
    put(p, "double", a);
    a <<= CORBA::Any::from_boolean(1);
    put(p, "true", a);
    a <<= CORBA::Any::from_boolean(0);
    put(p, "false", a);
    a <<= CORBA::Any::from_char('z');
    put(p, "char", a);
    a <<= CORBA::Any::from_octet(200);
    put(p, "octet", a);
    Kel_Types::OctetList octets;
    octets.length(100);
    for (CORBA::ULong i = 0; i < 100; ++i) octets[i] = static_cast<CORBA::Octet>(i * 3);
    a <<= octets;
    put(p, "octets", a);
    Kel_Types::StringList strings;
    strings.length(3);
    strings[0] = "x";
    strings[1] = "";
    strings[2] = "yz";
    a <<= strings;
    put(p, "strings", a);
    Kel_Fanout2::Properties nested, deeper;
    a <<= "t";
    put(deeper, "s", a);
    a <<= CORBA::Long(7);
    put(nested, "inner", a);
    a <<= deeper;
    put(nested, "deeper", a);
    a <<= nested;
    put(p, "nested", a);
    Kel_Fanout2::PropertiesList list;
    list.length(2);
    a <<= "b";
    put(list[0], "a", a);
    a <<= list;
    put(p, "list", a);
    return p;
}

/* ------------------------------------------------------------- our values */

std::string dump_ours(const Properties& p);

std::string dump_ours(const Any& a) {
    const void* v = a._value;
    switch (a._type->kind) {
        case FANOUT_TK_STRING:
            return "s:" + std::string(*static_cast<char* const*>(v));
        case FANOUT_TK_SHORT:
            return "h:" + std::to_string(*static_cast<const int16_t*>(v));
        case FANOUT_TK_USHORT:
            return "H:" + std::to_string(*static_cast<const uint16_t*>(v));
        case FANOUT_TK_LONG:
            return "l:" + std::to_string(*static_cast<const int32_t*>(v));
        case FANOUT_TK_ULONG:
            return "L:" + std::to_string(*static_cast<const uint32_t*>(v));
        case FANOUT_TK_LONGLONG:
            return "q:" + std::to_string(*static_cast<const int64_t*>(v));
        case FANOUT_TK_DOUBLE:
            return "d:" + std::to_string(*static_cast<const double*>(v));
        case FANOUT_TK_BOOLEAN:
            return "b:" + std::to_string(int{*static_cast<const uint8_t*>(v)});
        case FANOUT_TK_CHAR:
            return "c:" + std::to_string(int{*static_cast<const uint8_t*>(v)});
        case FANOUT_TK_OCTET:
            return "o:" + std::to_string(int{*static_cast<const uint8_t*>(v)});
        case FANOUT_TK_ANY:
            return "a:(" + dump_ours(*static_cast<const Any*>(v)) + ")";
        case FANOUT_TK_OBJREF:
            return *static_cast<const Object*>(v) == nullptr ? "ref:nil" : "ref:?";
        case FANOUT_TK_ALIAS: {
            std::string id = a._type->repo_id;
            if (id == "IDL:Kel_Types/OctetList:1.0") {
                auto* o = static_cast<const Kel_Types_OctetList*>(v);
                std::string s = "ol:";
                for (uint32_t i = 0; i < o->length; ++i) s += std::to_string(o->buffer[i]) + ",";
                return s;
            }
            if (id == "IDL:Kel_Types/StringList:1.0") {
                auto* o = static_cast<const Kel_Types_StringList*>(v);
                std::string s = "sl:";
                for (uint32_t i = 0; i < o->length; ++i) s += std::string(o->buffer[i]) + ",";
                return s;
            }
            if (id == "IDL:Kel_Fanout2/Properties:1.0")
                return "p:" + dump_ours(*static_cast<const Properties*>(v));
            if (id == "IDL:Kel_Fanout2/PropertiesList:1.0") {
                auto* l = static_cast<const PropertiesList*>(v);
                std::string s = "pl:[";
                for (uint32_t i = 0; i < l->length; ++i) s += dump_ours(l->buffer[i]);
                return s + "]";
            }
            return "alias?" + id;
        }
        default:
            return "kind?" + std::to_string(a._type->kind);
    }
}

std::string dump_ours(const Properties& p) {
    std::string s = "{";
    for (uint32_t i = 0; i < p.length; ++i)
        s += std::string(p.buffer[i].key) + "=" + dump_ours(p.buffer[i].value) + ";";
    return s + "}";
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
    Properties nested{}, deeper{};
    put(&deeper, "s", any_string("t"));
    put(&nested, "inner", any_of<int32_t>(TC_long, 7));
    put(&nested, "deeper", any_of(TC_Kel_Fanout2_Properties, deeper));
    put(&p, "nested", any_of(TC_Kel_Fanout2_Properties, nested));
    PropertiesList list{};
    Properties first{}, second{};
    put(&first, "a", any_string("b"));
    seq_add(&list, &first, sizeof first);
    seq_add(&list, &second, sizeof second);
    put(&p, "list", any_of(TC_Kel_Fanout2_PropertiesList, list));
    return p;
}

/* ------------------------------------------------------------------ tests */

TEST(Interop, BothSidesBuildTheSameList) {
    orb();
    Properties ours = our_list();
    EXPECT_EQ(dump_ours(ours), dump(orb_list()));
    kel_free_generic(&ours, TC_Kel_Fanout2_Properties);
}

TEST(Interop, WhatWeWriteDecodesInTheOrb) {
    orb();
    fanout_init();
    Properties ours = our_list();
    AdrBuffer* b = adr_init_encode_buffer();
    marshal_item(b, TC_Kel_Fanout2_Properties, &ours);
    ASSERT_EQ(b->error, ADR_OK);
    cdrMemoryStream in(b->data, b->length);
    in.setByteSwapFlag(0);
    Kel_Fanout2::Properties theirs;
    theirs <<= in;
    EXPECT_EQ(dump(theirs), dump_ours(ours));
    EXPECT_EQ(in.currentInputPtr(), b->length);  // nothing left over
    adr_free_buf(b);
    kel_free_generic(&ours, TC_Kel_Fanout2_Properties);
}

TEST(Interop, WhatTheOrbWritesBigEndianDecodesInOurs) {
    orb();
    fanout_init();
    Kel_Fanout2::Properties theirs = orb_list();
    cdrMemoryStream out;
    out.setByteSwapFlag(0);
    theirs >>= out;
    Properties ours{};
    AdrBuffer* b = adr_init_decode_buffer(out.bufPtr(), out.bufSize());
    marshal_item(b, TC_Kel_Fanout2_Properties, &ours);
    ASSERT_EQ(b->error, ADR_OK);
    EXPECT_EQ(b->position, out.bufSize());
    adr_free_buf(b);
    EXPECT_EQ(dump_ours(ours), dump(theirs));
    // The ORB's type codes are recognised as the library's own.
    for (uint32_t i = 0; i < ours.length; ++i) {
        std::string key = ours.buffer[i].key;
        TypeCode tc = ours.buffer[i].value._type;
        if (key == "nested") EXPECT_EQ(tc, TC_Kel_Fanout2_Properties);
        if (key == "list") EXPECT_EQ(tc, TC_Kel_Fanout2_PropertiesList);
        if (key == "octets") EXPECT_EQ(tc, TC_Kel_Types_OctetList);
    }
    kel_free_generic(&ours, TC_Kel_Fanout2_Properties);
}

// Property-list files in the bare layout are the marshalled list and nothing
// else, so the ORB reads ours and we load the ORB's.
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

TEST(Interop, OurBareLayoutFileReadsInTheOrb) {
    orb();
    fanout_init();
    TempFile f;
    Properties ours = our_list();
    properties_save_without_len(&ours, f.path.c_str());
    std::ifstream file(f.path, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    cdrMemoryStream in(bytes.data(), bytes.size());
    in.setByteSwapFlag(0);
    Kel_Fanout2::Properties theirs;
    theirs <<= in;
    EXPECT_EQ(dump(theirs), dump_ours(ours));
    EXPECT_EQ(in.currentInputPtr(), bytes.size());
    kel_free_generic(&ours, TC_Kel_Fanout2_Properties);
}

TEST(Interop, TheOrbsFileLoadsWithoutLength) {
    orb();
    fanout_init();
    TempFile f;
    Kel_Fanout2::Properties theirs = orb_list();
    cdrMemoryStream out;
    out.setByteSwapFlag(0);
    theirs >>= out;
    std::ofstream(f.path, std::ios::binary)
        .write(static_cast<const char*>(out.bufPtr()), static_cast<std::streamsize>(out.bufSize()));
    Properties ours{};
    properties_load_without_len(&ours, f.path.c_str());
    EXPECT_EQ(dump_ours(ours), dump(theirs));
    kel_free_generic(&ours, TC_Kel_Fanout2_Properties);
}

}  // namespace
