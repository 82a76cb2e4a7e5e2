// Tests of the in-memory property list: the getters' missing-key and wrong-type rules, replacement
// in place, removal order, clone independence, equality and matching.
#include "fanout/properties.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

#include "properties/support.h"

namespace {

using namespace proptest;

Strings keys_of(const Properties* p) {
    Strings keys;
    for (uint32_t i = 0; i < p->length; ++i) keys.emplace_back(p->buffer[i].key);
    return keys;
}

// call(key, false) runs the plain getter; call(key, true) the 2 getter,
// answering whether its default came back.
using Getter = std::pair<const char*, std::function<bool(const char*, bool)>>;
// clang-format off
#define GETTER(sfx, def) Getter{#sfx, [&](const char* k, bool two) { \
    return two ? properties_get_##sfx##2(p, k, def) == (def)         \
               : (properties_get_##sfx(p, k), false); }}
// clang-format on

TEST(PropertiesList, GettersRaiseForMissingKeysAndWrongTypes) {
    AllTypes t;
    const Properties* p = t.get();
    // clang-format off
    const char* def_string = "d";
    Any def_any{}; Kel_Types_OctetList def_octets{};
    Properties def_props{}; PropertiesList def_list{};
    const Getter getters[] = {
        GETTER(string, def_string), GETTER(any, &def_any), GETTER(object, nullptr),
        GETTER(short, 9), GETTER(long, 7), GETTER(ulong, 5u), GETTER(boolean, 0),
        GETTER(OctetList, &def_octets), GETTER(properties, &def_props),
        GETTER(properties_list, &def_list)};
    // clang-format on
    for (size_t i = 0; i < std::size(getters); ++i) {
        const auto& [key, call] = getters[i];
        const char* other = getters[(i + 1) % std::size(getters)].first;  // holds another type
        SCOPED_TRACE(key);
        call(key, false);
        EXPECT_FALSE(call(key, true));
        EXPECT_TRUE(call("absent", true));
        EXPECT_EQ(raised_by([&] { call("absent", false); }), (Raised{36, {"absent"}}));
        for (bool two : {false, true}) {
            EXPECT_EQ(raised_by([&] { call(other, two); }), (Raised{37, {other}}));
        }
    }
    EXPECT_EQ(p->length, 10u);  // a raising getter changes nothing
}
#undef GETTER

// Replacing keeps an entry's place and frees the old key and value;
// removing closes the gap in order and hands the entry over.
TEST(PropertiesList, PutAndRemoveKeepTheOrder) {
    ScopedList list;
    Properties* p = list.get();
    for (const char* k : {"a", "b", "c", "d"}) properties_put_string_dup(p, k, k);
    properties_put_string_dup(p, "b", "new");
    properties_put_long_dup(p, "a", 1);  // across types too
    auto* v = static_cast<int32_t*>(mg_malloc(sizeof(int32_t)));
    *v = 4;
    properties_put_long(p, "B", v);  // keys are case-sensitive; the list adopts v
    EXPECT_EQ(properties_get(p, "B", TC_long, 1), v);
    EXPECT_EQ(keys_of(p), (Strings{"a", "b", "c", "d", "B"}));
    EXPECT_EQ(properties_remove(p, "zz"), nullptr);
    Property* removed = properties_remove(p, "b");
    ASSERT_NE(removed, nullptr);
    EXPECT_STREQ(*static_cast<char**>(removed->value._value), "new");
    kel_free_generic(removed, TC_Kel_Fanout2_Property);
    mg_free(removed);
    EXPECT_EQ(keys_of(p), (Strings{"a", "c", "d", "B"}));
    properties_remove_and_destroy(p, "c");
    EXPECT_EQ(keys_of(p), (Strings{"a", "d", "B"}));
}

TEST(PropertiesList, CloneIsDeepAndIndependent) {
    AllTypes t;
    Properties* p = t.get();
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
// must be deeply equal, as property_equal requires. "k=#5" holds a long.
TEST(PropertiesList, MatchAndEqual) {
    const std::tuple<const char*, const char*, uint8_t, uint8_t> cases[] = {
        {"k=ab*", "k=abc", 1, 0}, {"k=a?c", "k=abc", 1, 0}, {"k=abc", "k=ab*", 0, 0},
        {"k=abc", "k=abc", 1, 1}, {"j=ab*", "k=abc", 0, 0}, {"K=#5", "k=#5", 0, 0},
        {"k=#5", "k=#5", 1, 1},   {"k=#5", "k=#6", 0, 0},   {"k=#5", "k=5", 0, 0}};
    for (const auto& [pattern, subject, match, equal] : cases) {
        ScopedList lists[2];
        for (int i = 0; i < 2; ++i) {
            const char* kv = i == 0 ? pattern : subject;
            const std::string key(kv, 1);
            if (kv[2] == '#')
                properties_put_long_dup(lists[i].get(), key.c_str(), std::atoi(kv + 3));
            if (kv[2] != '#') properties_put_string_dup(lists[i].get(), key.c_str(), kv + 2);
        }
        const Property *a = lists[0].get()->buffer, *b = lists[1].get()->buffer;
        EXPECT_EQ(property_match(a, b), match) << pattern << " against " << subject;
        EXPECT_EQ(property_equal(a, b), equal) << pattern << " against " << subject;
    }
}

}  // namespace
