// Tests of the type-code driven free, copy, equality and construction, of
// type code reference counting, and of object references.

#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstring>
#include <string>

#include "fanout/exception.h"
#include "fanout/runtime.h"
#include "runtime/typecode_internal.h"

namespace {

// A structure with one member of every walkable kind, described by a static
// type code laid out by tc_struct_layout (which must agree with the compiler).
struct Everything {
    int16_t s;
    uint16_t us;
    int32_t l;
    uint32_t ul;
    int64_t ll;
    uint64_t ull;
    uint8_t b;
    char c;
    uint8_t o;
    float f;
    double d;
    char* str;
    Any any;
    TypeCode tc;
    Object obj;
    Kel_Types_StringList list;
};

constexpr uint32_t kMembers = 16;
const char* const kNames[kMembers] = {"s", "us", "l", "ul",  "ll",  "ull", "b",   "c",
                                      "o", "f",  "d", "str", "any", "tc",  "obj", "list"};
const TypeCodeRec* const kTypes[kMembers] = {
    &_tc_rec_short,    &_tc_rec_ushort,    &_tc_rec_long,    &_tc_rec_ulong,
    &_tc_rec_longlong, &_tc_rec_ulonglong, &_tc_rec_boolean, &_tc_rec_char,
    &_tc_rec_octet,    &_tc_rec_float,     &_tc_rec_double,  &_tc_rec_string,
    &_tc_rec_any,      &_tc_rec_TypeCode,  &_tc_rec_Object,  &_tc_rec_Kel_Types_StringList};
uint32_t g_offsets[kMembers];

TypeCodeRec make_everything_tc() {
    TypeCodeRec tc{};
    tc.kind = FANOUT_TK_STRUCT;
    tc.refcount = -1;
    tc.repo_id = "IDL:Test/Everything:1.0";
    tc.name = "Everything";
    tc.reg_name = "Test::Everything";
    tc.member_count = kMembers;
    tc.member_names = kNames;
    tc.member_types = kTypes;
    tc.member_offsets = g_offsets;
    EXPECT_TRUE(fanout::tc_struct_layout(kMembers, kTypes, g_offsets, &tc.size, &tc.align));
    return tc;
}
const TypeCodeRec kEverything = make_everything_tc();

const TypeCodeRec kUnion = {FANOUT_TK_UNION, -1,      "IDL:Test/U:1.0", "U", "Test::U", 8, 4, 0, 0,
                            nullptr,         nullptr, nullptr};

void add_string(Kel_Types_StringList* list, const char* text) {
    char* copy = mg_strdup(text);
    seq_add(list, &copy, sizeof copy);
}

Object make_object(const char* id, uint8_t body) {
    uint8_t bytes[3] = {0, 1, body};
    ObjectProfile profile{0, {3, 3, bytes}};
    return Object_new(id, &profile, 1);
}

// A filled value; everything it owns comes from the runtime allocator.
Everything make_everything() {
    Everything e{};
    e.s = -2;
    e.us = 65000;
    e.l = -70000;
    e.ul = 4000000000u;
    e.ll = -(int64_t{1} << 40);
    e.ull = uint64_t{1} << 63;
    e.b = 1;
    e.c = 'x';
    e.o = 0xfe;
    e.f = 1.5f;
    e.d = -2.25;
    e.str = mg_strdup("segment");
    auto* inner = static_cast<Kel_Types_StringList*>(mg_calloc(1, sizeof(Kel_Types_StringList)));
    add_string(inner, "a");
    add_string(inner, "b");
    e.any = Any{TC_Kel_Types_StringList, inner};
    e.tc = TC_Kel_Types_OctetList;
    e.obj = make_object("IDL:Test/Thing:1.0", 7);
    add_string(&e.list, "one");
    add_string(&e.list, "two");
    return e;
}

void set_str(Everything* e, const char* text) {
    mg_free(e->str);
    e->str = text != nullptr ? mg_strdup(text) : nullptr;
}
void set_obj(Everything* e, Object obj) {
    Object_release(e->obj);
    e->obj = obj;
}

std::string take_message(Environment* env) {
    char* rendered = env->_exception != nullptr ? ex_render(env->_exception) : nullptr;
    std::string text = rendered != nullptr ? rendered : "";
    mg_free(rendered);
    ev_clear(env);
    return text;
}

TEST(TypeCodeLayout, StructLayoutMatchesTheCompiler) {
    EXPECT_EQ(kEverything.size, sizeof(Everything));
    EXPECT_EQ(kEverything.align, alignof(Everything));
    const size_t expected[kMembers] = {
        offsetof(Everything, s),   offsetof(Everything, us), offsetof(Everything, l),
        offsetof(Everything, ul),  offsetof(Everything, ll), offsetof(Everything, ull),
        offsetof(Everything, b),   offsetof(Everything, c),  offsetof(Everything, o),
        offsetof(Everything, f),   offsetof(Everything, d),  offsetof(Everything, str),
        offsetof(Everything, any), offsetof(Everything, tc), offsetof(Everything, obj),
        offsetof(Everything, list)};
    for (uint32_t i = 0; i < kMembers; ++i) EXPECT_EQ(g_offsets[i], expected[i]) << kNames[i];
}

TEST(GenericCopy, DeepCopyIsIndependentAndEqual) {
    Everything original = make_everything();
    Environment env{};
    auto* copy = static_cast<Everything*>(_generic_copy(&kEverything, &env, &original, 0));
    ASSERT_NE(copy, nullptr);
    EXPECT_EQ(env._major, FANOUT_NO_EXCEPTION);
    EXPECT_EQ(_generic_equal(&kEverything, &env, &original, copy), 1);
    EXPECT_NE(copy->str, original.str);
    EXPECT_NE(copy->any._value, original.any._value);
    EXPECT_EQ(copy->obj, original.obj);  // references are shared, counted
    EXPECT_EQ(copy->list.maximum, copy->list.length);

    // Changing the original's nested parts leaves the copy as it was.
    original.str[0] = 'S';
    static_cast<Kel_Types_StringList*>(original.any._value)->buffer[1][0] = 'B';
    original.list.buffer[0][0] = 'O';
    EXPECT_EQ(_generic_equal(&kEverything, &env, &original, copy), 0);
    EXPECT_STREQ(copy->str, "segment");
    EXPECT_STREQ(static_cast<Kel_Types_StringList*>(copy->any._value)->buffer[1], "b");
    EXPECT_STREQ(copy->list.buffer[0], "one");

    // kel_free_generic frees contents only: the blocks are ours to free.
    kel_free_generic(&original, &kEverything);
    EXPECT_EQ(original.str, nullptr);
    kel_free_generic(copy, &kEverything);
    mg_free(copy);
}

TEST(GenericEqual, ComparesByContent) {
    struct Case {
        const char* what;
        void (*change)(Everything*);
        bool equal;
    };
    const Case cases[] = {
        {"null string differs from a text", [](Everything* e) { set_str(e, nullptr); }, false},
        {"string equals a copy of itself", [](Everything* e) { set_str(e, "s"); }, true},
        {"strings differ", [](Everything* e) { e->str[0] = 'x'; }, false},
        {"sequence capacity is ignored", [](Everything* e) { e->list.maximum = 40; }, true},
        {"same object contents, other record",
         [](Everything* e) { set_obj(e, make_object("IDL:Test/Thing:1.0", 7)); }, true},
        {"object profile differs",
         [](Everything* e) { set_obj(e, make_object("IDL:Test/Thing:1.0", 8)); }, false},
        {"nil object", [](Everything* e) { set_obj(e, nullptr); }, false},
        {"negative zero differs from zero", [](Everything* e) { e->d = -0.0; }, false},
        {"boolean", [](Everything* e) { e->b = 0; }, false},
        {"sequence shorter", [](Everything* e) { e->list.length = 1; }, false},
        {"any of another type", [](Everything* e) { e->any._type = TC_Kel_Types_OctetList; },
         false},
        {"type code value", [](Everything* e) { e->tc = TC_Kel_Types_StringList; }, false},
    };
    for (const Case& c : cases) {
        Everything a = make_everything();
        Everything b = make_everything();
        a.d = 0.0;
        b.d = 0.0;
        set_str(&a, "s");
        set_str(&b, "s");
        uint32_t length = b.list.length;
        TypeCode any_type = b.any._type;
        c.change(&b);
        Environment env{};
        EXPECT_EQ(_generic_equal(&kEverything, &env, &a, &b), c.equal ? 1 : 0) << c.what;
        EXPECT_EQ(_t_generic_equal(&kEverything, &env, &b, &a), c.equal ? 1 : 0) << c.what;
        EXPECT_EQ(env._major, FANOUT_NO_EXCEPTION) << c.what;
        b.list.length = length;  // restore what the free must walk
        b.any._type = any_type;
        kel_free_generic(&a, &kEverything);
        kel_free_generic(&b, &kEverything);
    }
    double nan = std::nan("");
    double other = nan;
    EXPECT_EQ(_generic_equal(TC_double, nullptr, &nan, &other), 1);  // same bits
    char empty[] = "";
    char* texts[2] = {nullptr, empty};
    EXPECT_EQ(_generic_equal(TC_string, nullptr, &texts[0], &texts[1]), 1);  // as marshalled
}

TEST(GenericOps, UnwalkableKindIsReportedNotFatal) {
    uint64_t u = 42;
    Any any{&kUnion, &u};
    Any copied{};
    Environment env{};
    _t_generic_copy(TC_any, &env, &copied, &any);
    EXPECT_EQ(copied._type, nullptr);
    EXPECT_EQ(copied._value, nullptr);
    EXPECT_EQ(take_message(&env), "Unsupported type code kind (16)");

    uint64_t v = 42;
    EXPECT_EQ(_generic_equal(&kUnion, &env, &u, &v), 0);
    EXPECT_EQ(take_message(&env), "Unsupported type code kind (16)");
    EXPECT_EQ(_generic_equal(&kUnion, &env, &u, &u), 1);  // same pointer: nothing walked
    EXPECT_EQ(env._major, FANOUT_NO_EXCEPTION);
    EXPECT_EQ(_generic_equal(&kUnion, nullptr, &u, &v), 0);  // no env: just the answer
}

TEST(GenericCreate, BuildsFromMemberAddressesAndRaisesForNonStructs) {
    int16_t s = -5;
    // Members after the terminator stay zeroed.
    auto* e = static_cast<Everything*>(generic_create(&kEverything, &s, &s, nullptr));
    EXPECT_EQ(e->s, -5);
    EXPECT_EQ(e->us, static_cast<uint16_t>(-5));
    EXPECT_EQ(e->l, 0);
    EXPECT_EQ(e->str, nullptr);
    kel_free_generic(e, &kEverything);
    mg_free(e);

    Everything full = make_everything();
    e = static_cast<Everything*>(generic_create(
        &kEverything, &full.s, &full.us, &full.l, &full.ul, &full.ll, &full.ull, &full.b, &full.c,
        &full.o, &full.f, &full.d, &full.str, &full.any, &full.tc, &full.obj, &full.list, nullptr));
    EXPECT_EQ(_generic_equal(&kEverything, nullptr, &full, e), 1);
    EXPECT_NE(e->str, full.str);
    EXPECT_NE(e->list.buffer, full.list.buffer);
    EXPECT_EQ(e->obj, full.obj);
    kel_free_generic(&full, &kEverything);
    kel_free_generic(e, &kEverything);
    mg_free(e);

    Kel_Types_StringList list{};
    EXPECT_THROW(generic_create(TC_Kel_Types_StringList, &list, nullptr), fanout::Exception);
}

// A run-time type code, built the way the decoder builds one.
TypeCode make_dynamic_struct(const char* repo_id) {
    TypeCodeRec* rec = fanout::tc_new_dynamic(FANOUT_TK_STRUCT);
    rec->repo_id = mg_strdup(repo_id);
    rec->name = mg_strdup("Pair");
    rec->member_count = 2;
    auto** names = static_cast<const char**>(mg_calloc(2, sizeof(char*)));
    names[0] = mg_strdup("key");
    names[1] = mg_strdup("value");
    rec->member_names = names;
    auto** types = static_cast<TypeCode*>(mg_calloc(2, sizeof(TypeCode)));
    types[0] = TC_string;
    types[1] = TC_long;
    rec->member_types = types;
    auto* offsets = static_cast<uint32_t*>(mg_calloc(2, sizeof(uint32_t)));
    EXPECT_TRUE(fanout::tc_struct_layout(2, types, offsets, &rec->size, &rec->align));
    rec->member_offsets = offsets;
    return rec;
}

TEST(TypeCodeRefcount, AnyHoldsItsRunTimeTypeCode) {
    TypeCode pair = make_dynamic_struct("IDL:Test/Pair:1.0");
    struct Pair {
        char* key;
        int32_t value;
    };
    ASSERT_EQ(pair->size, sizeof(Pair));
    auto* value = static_cast<Pair*>(mg_calloc(1, sizeof(Pair)));
    value->key = mg_strdup("k");
    value->value = 3;
    Any any{pair, value};  // adopts our reference
    Any copy{};
    _t_generic_copy(TC_any, nullptr, &copy, &any);
    EXPECT_EQ(copy._type, pair);
    EXPECT_EQ(pair->refcount, 2);
    EXPECT_EQ(_generic_equal(TC_any, nullptr, &any, &copy), 1);
    EXPECT_EQ(TypeCode_duplicate(TC_any), TC_any);  // static: unchanged
    TypeCode_release(TC_any);
    kel_free_generic(&any, TC_any);
    EXPECT_EQ(pair->refcount, 1);
    kel_free_generic(&copy, TC_any);  // last reference: the sanitizer checks the frees
}

TEST(ObjectReference, CopiesItsPartsAndCountsReferences) {
    uint8_t body[] = {9, 8, 7};
    ObjectProfile profiles[2] = {{0, {3, 3, body}}, {1, {0, 0, nullptr}}};
    Object obj = Object_new("IDL:Kel_Fanout2/Repeater:1.0", profiles, 2);
    body[0] = 0;  // the record holds its own copy
    ASSERT_EQ(Object_profile_count(obj), 2u);
    EXPECT_EQ(Object_profile(obj, 0)->data.buffer[0], 9);
    EXPECT_EQ(Object_profile(obj, 1)->data.length, 0u);
    EXPECT_EQ(Object_profile(obj, 2), nullptr);
    EXPECT_STREQ(Object_type_id(obj), "IDL:Kel_Fanout2/Repeater:1.0");

    Object again = Object_duplicate(obj);
    EXPECT_EQ(again, obj);
    Object_release(obj);
    EXPECT_STREQ(Object_type_id(again), "IDL:Kel_Fanout2/Repeater:1.0");  // still alive
    Object_release(again);

    Object empty = Object_new(nullptr, nullptr, 5);  // no profiles to copy
    EXPECT_STREQ(Object_type_id(empty), "");
    EXPECT_EQ(Object_profile_count(empty), 0u);
    EXPECT_EQ(Object_equal(empty, nullptr), 0);
    EXPECT_EQ(Object_equal(nullptr, nullptr), 1);
    Object_release(empty);
    EXPECT_STREQ(Object_type_id(nullptr), "");
    EXPECT_EQ(Object_duplicate(nullptr), nullptr);
    Object_release(nullptr);
}

}  // namespace
