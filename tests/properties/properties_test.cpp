// Tests of the in-memory property list: the getters' missing-key and
// wrong-type rules, replacement in place, removal order, adopting puts and
// the shallow free, clone independence, equality and matching.
#include "fanout/properties.h"

#include <gtest/gtest.h>

#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "properties/support.h"

namespace {

using proptest::AllTypes;
using proptest::raised_by;
using proptest::ScopedList;
using Strings = std::vector<std::string>;

Strings keys_of(const Properties* p) {
    Strings keys;
    for (uint32_t i = 0; i < p->length; ++i) keys.emplace_back(p->buffer[i].key);
    return keys;
}

// Over a list holding every type: the plain getter raises 36 for a missing
// key, the 2 getter returns its default, and both raise 37 for a key that
// holds another type.
TEST(PropertiesList, GettersRaiseForMissingKeysAndWrongTypes) {
    AllTypes t;
    const Properties* p = t.list.get();
    const char* def_string = "d";
    Any def_any{};
    Kel_Types_OctetList def_octets{};
    Properties def_props{};
    PropertiesList def_list{};
    struct Getter {
        const char* key;  // the key holding this type
        std::function<void(const char*)> plain;
        std::function<bool(const char*)> defaulted;  // true when the default came back
    };
#define GETTER(sfx, def)                                          \
    Getter {                                                      \
        #sfx, [&](const char* k) { (void)properties_get_##sfx(p, k); }, \
            [&](const char* k) { return properties_get_##sfx##2(p, k, def) == (def); } \
    }
    const Getter getters[] = {
        GETTER(string, def_string),       GETTER(any, &def_any),
        GETTER(object, nullptr),          GETTER(short, 9),
        GETTER(long, 7),                  GETTER(ulong, 5u),
        GETTER(boolean, 0),               GETTER(OctetList, &def_octets),
        GETTER(properties, &def_props),   GETTER(properties_list, &def_list),
    };
#undef GETTER
    for (size_t i = 0; i < std::size(getters); ++i) {
        const Getter& g = getters[i];
        const char* other = getters[(i + 1) % std::size(getters)].key;
        SCOPED_TRACE(g.key);
        EXPECT_EQ(raised_by([&] { g.plain(g.key); }).number, 0);
        EXPECT_FALSE(g.defaulted(g.key));
        EXPECT_TRUE(g.defaulted("absent"));
        auto missing = raised_by([&] { g.plain("absent"); });
        EXPECT_EQ(missing.number, 36);
        EXPECT_EQ(missing.args, Strings{"absent"});
        for (bool plain : {true, false}) {
            auto wrong = raised_by([&] { plain ? g.plain(other) : (void)g.defaulted(other); });
            EXPECT_EQ(wrong.number, 37) << (plain ? "plain" : "2");
            EXPECT_EQ(wrong.args, Strings{other});
        }
    }
    EXPECT_EQ(p->length, 10u);  // a raising getter changes nothing
}

TEST(PropertiesList, PutReplacesInPlaceAndAppendsNewKeys) {
    ScopedList list;
    Properties* p = list.get();
    properties_put_long_dup(p, "a", 1);
    properties_put_string_dup(p, "b", "old");
    properties_put_long_dup(p, "c", 3);
    properties_put_string_dup(p, "b", "new");       // the old key and value are freed
    properties_put_string_dup(p, "a", "was long");  // across types too
    properties_put_long_dup(p, "B", 4);             // keys are case-sensitive
    EXPECT_EQ(keys_of(p), (Strings{"a", "b", "c", "B"}));
    EXPECT_STREQ(properties_get_string(p, "b"), "new");
    EXPECT_STREQ(properties_get_string(p, "a"), "was long");
}

TEST(PropertiesList, RemoveKeepsTheOrderAndHandsOverTheEntry) {
    ScopedList list;
    Properties* p = list.get();
    for (const char* k : {"a", "b", "c", "d"}) properties_put_string_dup(p, k, k);
    EXPECT_EQ(properties_remove(p, "zz"), nullptr);
    Property* removed = properties_remove(p, "b");
    ASSERT_NE(removed, nullptr);
    EXPECT_STREQ(*static_cast<char**>(removed->value._value), "b");
    kel_free_generic(removed, TC_Kel_Fanout2_Property);
    mg_free(removed);
    EXPECT_EQ(keys_of(p), (Strings{"a", "c", "d"}));
    properties_remove_and_destroy(p, "c");
    properties_remove_and_destroy(p, "absent");
    EXPECT_EQ(keys_of(p), (Strings{"a", "d"}));
}

// A plain put stores the caller's block itself; the shallow free releases
// keys and buffer only, so the block is still the caller's to free.
TEST(PropertiesList, PlainPutAdoptsAndFreeLeavesValues) {
    Properties p{};
    auto* v = static_cast<int32_t*>(mg_malloc(sizeof(int32_t)));
    *v = 5;
    properties_put_long(&p, "k", v);
    EXPECT_EQ(properties_get(&p, "k", TC_long, 1), v);
    properties_free(&p);
    EXPECT_EQ(p.length, 0u);
    mg_free(v);
}

TEST(PropertiesList, CloneIsDeepAndIndependent) {
    AllTypes t;
    Properties* p = t.list.get();
    Properties* copy = properties_clone(p);
    Environment env{};
    EXPECT_EQ(zel_generic_equal(TC_Kel_Fanout2_Properties, &env, p, copy), 1);
    properties_put_string_dup(p, "string", "changed");
    properties_put_string_dup(properties_get_properties(p, "properties"), "nested", "no");
    properties_remove_and_destroy(p, "long");
    EXPECT_STREQ(properties_get_string(copy, "string"), "text");
    EXPECT_STREQ(properties_get_string(properties_get_properties(copy, "properties"), "nested"),
                 "yes");
    EXPECT_EQ(properties_get_long(copy, "long"), -70000);
    properties_delete(copy);
}

// A string pattern is a wildcard over the subject's string; other values
// must be deeply equal, as property_equal requires.
TEST(PropertiesList, MatchAndEqual) {
    struct Value {
        const char* key;
        const char* text;  // null: a long holding `number`
        int32_t number;
    };
    struct Case {
        Value pattern, subject;
        uint8_t match, equal;
    };
    const Case cases[] = {
        {{"k", "ab*", 0}, {"k", "abc", 0}, 1, 0},
        {{"k", "a?c", 0}, {"k", "abc", 0}, 1, 0},
        {{"k", "abc", 0}, {"k", "ab*", 0}, 0, 0},  // the subject is no pattern
        {{"k", "abc", 0}, {"k", "abc", 0}, 1, 1},
        {{"j", "ab*", 0}, {"k", "abc", 0}, 0, 0},  // keys differ
        {{"K", nullptr, 5}, {"k", nullptr, 5}, 0, 0},
        {{"k", nullptr, 5}, {"k", nullptr, 5}, 1, 1},
        {{"k", nullptr, 5}, {"k", nullptr, 6}, 0, 0},
        {{"k", nullptr, 5}, {"k", "5", 0}, 0, 0},  // types differ
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(&c - cases);
        ScopedList lists[2];
        const Value* values[2] = {&c.pattern, &c.subject};
        for (int i = 0; i < 2; ++i) {
            const Value& v = *values[i];
            if (v.text != nullptr) {
                properties_put_string_dup(lists[i].get(), v.key, v.text);
            } else {
                properties_put_long_dup(lists[i].get(), v.key, v.number);
            }
        }
        const Property* pattern = lists[0].get()->buffer;
        const Property* subject = lists[1].get()->buffer;
        EXPECT_EQ(property_match(pattern, subject), c.match);
        EXPECT_EQ(property_equal(pattern, subject), c.equal);
    }
}

}  // namespace
