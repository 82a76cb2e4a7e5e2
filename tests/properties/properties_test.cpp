// Tests of the in-memory property list: typed puts and gets of every value
// type, the getters' missing-key and wrong-type rules, replacement in place,
// removal, the shallow free, clone independence, equality and matching.
#include "fanout/properties.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "properties/support.h"

namespace {

using proptest::AllTypes;
using proptest::raised_by;
using proptest::ScopedList;

std::vector<std::string> keys_of(const Properties* p) {
    std::vector<std::string> keys;
    for (uint32_t i = 0; i < p->length; ++i) keys.emplace_back(p->buffer[i].key);
    return keys;
}

TEST(PropertiesList, NewListIsEmptyAndFindsNothing) {
    Properties* p = properties_new();
    EXPECT_EQ(p->maximum, 0u);
    EXPECT_EQ(p->length, 0u);
    EXPECT_EQ(p->buffer, nullptr);
    EXPECT_EQ(properties_get_property_index(p, "k"), -1);
    EXPECT_EQ(properties_find(p, "k"), 0);
    properties_delete(p);
    properties_delete(nullptr);
    properties_list_delete(nullptr);
}

TEST(PropertiesList, DupPutsStoreCopiesThatGettersReturn) {
    AllTypes t;
    const Properties* p = t.list.get();
    EXPECT_EQ(keys_of(p), (std::vector<std::string>{"string", "any", "object", "short", "long",
                                                     "ulong", "boolean", "OctetList",
                                                     "properties", "properties_list"}));
    EXPECT_STREQ(properties_get_string(p, "string"), "text");
    Any* any = properties_get_any(p, "any");
    EXPECT_TRUE(TypeCode_equal(any->_type, TC_long));
    EXPECT_EQ(*static_cast<int32_t*>(any->_value), 77);
    EXPECT_NE(any->_value, &t.any_value);
    EXPECT_STREQ(Object_type_id(properties_get_object(p, "object")),
                 "IDL:Kel_Fanout2/Repeater:1.0");
    EXPECT_EQ(properties_get_short(p, "short"), -2);  // sign-extended
    EXPECT_EQ(properties_get_long(p, "long"), -70000);
    EXPECT_EQ(properties_get_ulong(p, "ulong"), 4000000000u);
    EXPECT_EQ(properties_get_boolean(p, "boolean"), 1);
    Kel_Types_OctetList* o = properties_get_OctetList(p, "OctetList");
    ASSERT_EQ(o->length, 3u);
    EXPECT_EQ(o->buffer[2], 3);
    EXPECT_STREQ(properties_get_string(properties_get_properties(p, "properties"), "nested"),
                 "yes");
    PropertiesList* pl = properties_get_properties_list(p, "properties_list");
    ASSERT_EQ(pl->length, 1u);
    EXPECT_NE(pl->buffer[0].buffer, t.inner.buffer);  // a deep copy
    EXPECT_STREQ(properties_get_string(&pl->buffer[0], "nested"), "yes");
}

// Each getter pair: plain form raises 36 for a missing key, the 2 form
// returns its default, and both raise 37 when the key holds another type.
TEST(PropertiesList, GettersMissingKeyAndWrongTypeRules) {
    AllTypes t;
    const Properties* p = t.list.get();
    Any def_any{};
    Kel_Types_OctetList def_octets{};
    Properties def_props{};
    PropertiesList def_list{};
    struct Getter {
        const char* key;  // the key holding this type
        std::function<void(const char*)> plain;
        std::function<bool(const char*)> with_default;  // true when the default came back
    };
    std::vector<Getter> getters = {
        {"string", [&](const char* k) { properties_get_string(p, k); },
         [&](const char* k) { return properties_get_string2(p, k, "d") == std::string("d"); }},
        {"any", [&](const char* k) { properties_get_any(p, k); },
         [&](const char* k) { return properties_get_any2(p, k, &def_any) == &def_any; }},
        {"object", [&](const char* k) { properties_get_object(p, k); },
         [&](const char* k) { return properties_get_object2(p, k, nullptr) == nullptr; }},
        {"short", [&](const char* k) { properties_get_short(p, k); },
         [&](const char* k) { return properties_get_short2(p, k, 9) == 9; }},
        {"long", [&](const char* k) { properties_get_long(p, k); },
         [&](const char* k) { return properties_get_long2(p, k, 7) == 7; }},
        {"ulong", [&](const char* k) { properties_get_ulong(p, k); },
         [&](const char* k) { return properties_get_ulong2(p, k, 5u) == 5u; }},
        {"boolean", [&](const char* k) { properties_get_boolean(p, k); },
         [&](const char* k) { return properties_get_boolean2(p, k, 0) == 0; }},
        {"OctetList", [&](const char* k) { properties_get_OctetList(p, k); },
         [&](const char* k) {
             return properties_get_OctetList2(p, k, &def_octets) == &def_octets;
         }},
        {"properties", [&](const char* k) { properties_get_properties(p, k); },
         [&](const char* k) {
             return properties_get_properties2(p, k, &def_props) == &def_props;
         }},
        {"properties_list", [&](const char* k) { properties_get_properties_list(p, k); },
         [&](const char* k) {
             return properties_get_properties_list2(p, k, &def_list) == &def_list;
         }},
    };
    for (size_t i = 0; i < getters.size(); ++i) {
        const Getter& g = getters[i];
        SCOPED_TRACE(g.key);
        auto missing = raised_by([&] { g.plain("absent"); });
        EXPECT_EQ(missing.number, 36);
        EXPECT_EQ(missing.args, std::vector<std::string>{"absent"});
        EXPECT_TRUE(g.with_default("absent"));
        EXPECT_EQ(raised_by([&] { g.plain(g.key); }).number, 0);
        EXPECT_FALSE(g.with_default(g.key));
        // Any other type's key is the wrong type for this getter.
        const char* other = getters[(i + 1) % getters.size()].key;
        auto wrong = raised_by([&] { g.plain(other); });
        EXPECT_EQ(wrong.number, 37);
        EXPECT_EQ(wrong.args, std::vector<std::string>{other});
        EXPECT_EQ(raised_by([&] { g.with_default(other); }).number, 37);
    }
    EXPECT_EQ(p->length, 10u);  // a raising getter changes nothing
}

TEST(PropertiesList, PutReplacesInPlaceAndAppendsNewKeys) {
    ScopedList list;
    Properties* p = list.get();
    properties_put_long_dup(p, "a", 1);
    properties_put_string_dup(p, "b", "old");
    properties_put_long_dup(p, "c", 3);
    properties_put_string_dup(p, "b", "new");  // frees the old key and value
    properties_put_long_dup(p, "a", 10);       // and across types
    properties_put_long_dup(p, "B", 4);        // keys are case-sensitive
    EXPECT_EQ(keys_of(p), (std::vector<std::string>{"a", "b", "c", "B"}));
    EXPECT_STREQ(properties_get_string(p, "b"), "new");
    EXPECT_EQ(properties_get_long(p, "a"), 10);
    properties_put_string_dup(p, "b", nullptr);
    EXPECT_EQ(properties_get_string(p, "b"), nullptr);
}

TEST(PropertiesList, PlainPutAdoptsTheValueBlock) {
    ScopedList list;
    Properties* p = list.get();
    auto* v = static_cast<int32_t*>(mg_malloc(sizeof(int32_t)));
    *v = 5;
    properties_put_long(p, "k", v);
    EXPECT_EQ(properties_get(p, "k", TC_long, 1), v);
    auto* s = static_cast<char**>(mg_malloc(sizeof(char*)));
    *s = mg_strdup("adopted");
    properties_put_string(p, "s", s);
    EXPECT_EQ(properties_get_string(p, "s"), *s);
}

TEST(PropertiesList, RemoveClosesTheGapAndHandsOverTheEntry) {
    ScopedList list;
    Properties* p = list.get();
    for (const char* k : {"a", "b", "c", "d"}) properties_put_string_dup(p, k, k);
    EXPECT_EQ(properties_remove(p, "zz"), nullptr);
    EXPECT_EQ(p->length, 4u);
    Property* removed = properties_remove(p, "b");
    ASSERT_NE(removed, nullptr);
    EXPECT_STREQ(removed->key, "b");
    EXPECT_STREQ(*static_cast<char**>(removed->value._value), "b");
    kel_free_generic(removed, TC_Kel_Fanout2_Property);
    mg_free(removed);
    properties_remove_and_destroy(p, "a");
    properties_remove_and_destroy(p, "absent");
    EXPECT_EQ(keys_of(p), (std::vector<std::string>{"c", "d"}));
}

// The shallow free releases keys and the buffer only: the values stay with
// their owner (here the test, which frees them itself).
TEST(PropertiesList, FreeLeavesValuesToTheirOwner) {
    Properties p{};
    int32_t values[2] = {1, 2};
    properties_put_long(&p, "x", &values[0]);
    properties_put_long(&p, "y", &values[1]);
    properties_free(&p);
    EXPECT_EQ(p.length, 0u);
    EXPECT_EQ(p.buffer, nullptr);
}

TEST(PropertiesList, CloneIsIndependentAndEqual) {
    AllTypes t;
    Properties* p = t.list.get();
    Properties* copy = properties_clone(p);
    ASSERT_EQ(copy->length, p->length);
    for (uint32_t i = 0; i < p->length; ++i) {
        EXPECT_TRUE(property_equal(&p->buffer[i], &copy->buffer[i])) << p->buffer[i].key;
    }
    properties_put_string_dup(p, "string", "changed");
    properties_remove_and_destroy(p, "long");
    EXPECT_STREQ(properties_get_string(copy, "string"), "text");
    EXPECT_EQ(properties_get_long(copy, "long"), -70000);
    EXPECT_FALSE(property_equal(&p->buffer[0], &copy->buffer[0]));
    properties_delete(copy);

    PropertiesList* lists = properties_list_new();
    properties_put_long_dup(p, "x", 1);
    seq_add(lists, p, sizeof(Properties));
    PropertiesList* lists_copy = properties_list_clone(lists);
    seq_free_buffer(lists);  // the element still belongs to t
    properties_list_delete(lists);
    ASSERT_EQ(lists_copy->length, 1u);
    EXPECT_EQ(properties_get_long(&lists_copy->buffer[0], "x"), 1);
    properties_list_delete(lists_copy);
}

TEST(PropertiesList, MatchUsesWildcardsForStringPatterns) {
    ScopedList a;
    ScopedList b;
    properties_put_string_dup(a.get(), "k", "ab*");
    properties_put_string_dup(b.get(), "k", "abc");
    properties_put_string_dup(a.get(), "other", "ab*");
    properties_put_long_dup(a.get(), "n", 5);
    properties_put_long_dup(b.get(), "n", 5);
    properties_put_long_dup(b.get(), "m", 6);
    properties_put_string_dup(b.get(), "s", "a?c");
    const Property* pat = &a.get()->buffer[0];
    const Property* str = &b.get()->buffer[0];
    EXPECT_EQ(property_match(pat, str), 1);
    EXPECT_EQ(property_match(str, pat), 0);  // "abc" does not match the text "ab*"
    EXPECT_EQ(property_match(&a.get()->buffer[1], str), 0);  // keys differ
    EXPECT_EQ(property_match(&a.get()->buffer[2], &b.get()->buffer[1]), 1);  // 5 and 5
    EXPECT_EQ(property_equal(&a.get()->buffer[2], &b.get()->buffer[1]), 1);
    EXPECT_EQ(property_equal(pat, str), 0);
    properties_put_long_dup(a.get(), "m", 5);
    EXPECT_EQ(property_match(&a.get()->buffer[3], &b.get()->buffer[2]), 0);  // 5 and 6
}

TEST(PropertiesList, InitZeroesHeaders) {
    Properties p{7, 7, reinterpret_cast<Property*>(8)};
    EXPECT_EQ(properties_init(&p), &p);
    EXPECT_EQ(p.maximum + p.length, 0u);
    EXPECT_EQ(p.buffer, nullptr);
    PropertiesList l{3, 3, reinterpret_cast<Properties*>(8)};
    EXPECT_EQ(properties_list_init(&l), &l);
    EXPECT_EQ(l.buffer, nullptr);
}

}  // namespace
