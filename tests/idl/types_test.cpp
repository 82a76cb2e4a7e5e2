// Tests of the Kel_Fanout2 interface types: registration, byte-wise deep equality, the generated
// copy/equal/visitor functions, and the type codes' structure as the decoder will compare it.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <string>
#include <vector>

#include "fanout/exception.h"
#include "fanout/fanout2.h"
#include "fanout/runtime.h"
#include "fanout/types.h"
#include "runtime/typecode_internal.h"

namespace {

// Adds key = value of type `tc` to a list (the list owns both).
template <typename T>
void put(Properties* p, const char* key, TypeCode tc, T value) {
    auto* block = static_cast<T*>(mg_malloc(sizeof(T)));
    *block = value;
    Property entry{mg_strdup(key), {tc, block}};
    seq_add(p, &entry, sizeof entry);
}

// A list holding a nested PropertiesList, to exercise the deep paths.
Properties make_list(bool reversed) {
    Properties p{}, inner{};
    if (reversed) put<char*>(&p, "b", TC_string, mg_strdup("two"));
    put<int32_t>(&p, "a", TC_long, 1);
    if (!reversed) put<char*>(&p, "b", TC_string, mg_strdup("two"));
    PropertiesList nested{};
    put<int32_t>(&inner, "depth", TC_long, 2);
    seq_add(&nested, &inner, sizeof inner);
    put(&p, "nested", TC_Kel_Fanout2_PropertiesList, nested);
    return p;
}

TEST(FanoutInit, RegistersOnceAndMapsRepositoryIds) {
    fanout_init();
    std::size_t calls = fanout::tc_registry_init_calls();
    fanout_init();
    EXPECT_EQ(fanout::tc_registry_init_calls(), calls);
    const std::pair<const char*, TypeCode> expected[] = {
        {"IDL:Kel_Fanout2/Property:1.0", TC_Kel_Fanout2_Property},
        {"IDL:Kel_Fanout2/PropertiesListList:1.0", TC_Kel_Fanout2_PropertiesListList},
        {"IDL:Kel_Fanout2/Repeater:1.0", TC_Kel_Fanout2_Repeater},
        {"IDL:Kel_Types/StringList:1.0", TC_Kel_Types_StringList},
        {"IDL:Kel_Fanout2/ExDistributionDeferred:1.0", TC_Kel_Fanout2_ExDistributionDeferred},
        {"IDL:Kel_Fanout2/Nothing:1.0", nullptr},
        {"", nullptr},
    };
    for (const auto& [id, tc] : expected) EXPECT_EQ(fanout::tc_registry_find(id), tc) << id;
}

TEST(ZelGenericEqual, SamePointerIsEqualWithoutMarshalling) {
    // A union cannot be marshalled, so only the shortcut can answer 1.
    static const TypeCodeRec kUnion = {
        FANOUT_TK_UNION, -1, "IDL:Test/U:1.0", "U", "U", 4, 4, 0, 0, nullptr, nullptr, nullptr};
    uint32_t a = 1, b = 1;
    Environment env{};
    EXPECT_EQ(zel_generic_equal(&kUnion, &env, &a, &a), 1);
    EXPECT_EQ(env._major, FANOUT_NO_EXCEPTION);
    EXPECT_EQ(zel_generic_equal(&kUnion, &env, &a, &b), 0);
    char* text = ex_render(env._exception);
    EXPECT_EQ(std::string(text).rfind("Marshalling error (", 0), 0u);
    mg_free(text);
    ev_clear(&env);
}

TEST(ZelGenericEqual, ListsCompareByEncodingInOrder) {
    Properties a = make_list(false);
    Properties b = make_list(false);
    Properties reversed = make_list(true);
    Environment env{};
    EXPECT_EQ(zel_generic_equal(TC_Kel_Fanout2_Properties, &env, &a, &b), 1);
    EXPECT_EQ(zel_generic_equal(TC_Kel_Fanout2_Properties, &env, &a, &reversed), 0);
    EXPECT_EQ(_equal_Kel_Fanout2__sequence_Property_Properties(&env, &a, &b), 1);
    EXPECT_EQ(_t_equal_Kel_Fanout2__sequence_Property_Properties(&env, &a, &reversed), 0);
    // The two equalities agree on a change deep inside.
    auto* nested = static_cast<PropertiesList*>(b.buffer[2].value._value);
    *static_cast<int32_t*>(nested->buffer[0].buffer[0].value._value) = 3;
    EXPECT_EQ(zel_generic_equal(TC_Kel_Fanout2_Properties, &env, &a, &b), 0);
    EXPECT_EQ(_generic_equal(TC_Kel_Fanout2_Properties, &env, &a, &b), 0);
    EXPECT_EQ(env._major, FANOUT_NO_EXCEPTION);
    for (Properties* p : {&a, &b, &reversed}) kel_free_generic(p, TC_Kel_Fanout2_Properties);
}

TEST(GeneratedFamilies, CopiesAreDeepAndIndependent) {
    Properties original = make_list(false);
    Environment env{};
    Properties copy = _copy_Kel_Fanout2__sequence_Property_Properties(&env, &original, 0);
    Properties typed{};
    _t_copy_Kel_Fanout2__sequence_Property_Properties(&env, &typed, &original);
    EXPECT_EQ(env._major, FANOUT_NO_EXCEPTION);
    ASSERT_EQ(copy.length, 3u);
    EXPECT_NE(copy.buffer, original.buffer);
    EXPECT_NE(copy.buffer[2].value._value, original.buffer[2].value._value);
    EXPECT_EQ(zel_generic_equal(TC_Kel_Fanout2_Properties, &env, &copy, &typed), 1);
    kel_free_generic(&original, TC_Kel_Fanout2_Properties);  // the copies live on
    EXPECT_STREQ(*static_cast<char**>(copy.buffer[1].value._value), "two");
    kel_free_generic(&copy, TC_Kel_Fanout2_Properties);
    kel_free_generic(&typed, TC_Kel_Fanout2_Properties);

    uint8_t bytes[] = {1, 0, 1, 'h', 'i'};
    StreamKey key{5, 5, bytes};
    StreamKey key_copy = _copy_Kel_Fanout2__sequence_octet_StreamKey(&env, &key, 0);
    EXPECT_EQ(_equal_Kel_Fanout2__sequence_octet_StreamKey(&env, &key, &key_copy), 1);
    EXPECT_NE(key_copy.buffer, key.buffer);
    seq_free_buffer(&key_copy);
    StreamKey none = _copy_Kel_Fanout2__sequence_octet_StreamKey(&env, nullptr, 0);
    EXPECT_EQ(none.buffer, nullptr);
}

TEST(GeneratedFamilies, PropertyVisitorMatchesTheTypeCodeWalk) {
    auto* value = static_cast<int32_t*>(mg_malloc(sizeof(int32_t)));
    *value = -7;
    Property p{mg_strdup("level"), {TC_long, value}};
    AdrBuffer* by_visitor = adr_init_encode_buffer();
    AdrBuffer* by_walk = adr_init_encode_buffer();
    adr_v_Kel_Fanout2_Property(by_visitor, &p);
    marshal_item(by_walk, TC_Kel_Fanout2_Property, &p);
    ASSERT_EQ(by_visitor->error, ADR_OK);
    ASSERT_EQ(by_walk->error, ADR_OK);
    EXPECT_EQ(std::vector<uint8_t>(by_visitor->data, by_visitor->data + by_visitor->length),
              std::vector<uint8_t>(by_walk->data, by_walk->data + by_walk->length));

    Property decoded{};
    AdrBuffer* in = adr_init_decode_buffer(by_visitor->data, by_visitor->length);
    adr_v_Kel_Fanout2_Property(in, &decoded);
    EXPECT_EQ(in->error, ADR_OK);
    Environment env{};
    EXPECT_EQ(_equal_Kel_Fanout2_Property(&env, &p, &decoded), 1);
    Property copy = _copy_Kel_Fanout2_Property(&env, &decoded, 0);
    EXPECT_EQ(_t_equal_Kel_Fanout2_Property(&env, &copy, &p), 1);
    for (Property* each : {&p, &decoded, &copy}) kel_free_generic(each, TC_Kel_Fanout2_Property);
    adr_free_buf(in);
    adr_free_buf(by_visitor);
    adr_free_buf(by_walk);
}

// A run-time type code of `kind` over `members`, as a decoder builds it (it owns its parts).
TypeCodeRec* dynamic(uint32_t kind, const char* repo_id, std::initializer_list<TypeCode> members) {
    TypeCodeRec* tc = fanout::tc_new_dynamic(kind);
    if (repo_id != nullptr) tc->repo_id = mg_strdup(repo_id);
    tc->member_count = static_cast<uint32_t>(members.size());
    auto** types = static_cast<TypeCode*>(mg_calloc(members.size(), sizeof(TypeCode)));
    std::copy(members.begin(), members.end(), types);
    tc->member_types = types;
    return tc;
}

// The Properties type code rebuilt at run time.
TypeCode dynamic_properties(const char* property_repo_id) {
    TypeCodeRec* property = dynamic(FANOUT_TK_STRUCT, property_repo_id, {TC_string, TC_any});
    auto* offsets = static_cast<uint32_t*>(mg_calloc(2, sizeof(uint32_t)));
    fanout::tc_struct_layout(2, property->member_types, offsets, &property->size, &property->align);
    property->member_offsets = offsets;
    return dynamic(FANOUT_TK_ALIAS, "IDL:Kel_Fanout2/Properties:1.0",
                   {dynamic(FANOUT_TK_SEQUENCE, nullptr, {property})});
}

TEST(TypeCodeEqual, StructuralAgainstTheStaticTypeCodes) {
    TypeCode same = dynamic_properties("IDL:Kel_Fanout2/Property:1.0");
    TypeCode other = dynamic_properties("IDL:Kel_Fanout2/Other:1.0");
    struct Case {
        TypeCode a, b;
        int32_t equal;
    };
    const Case cases[] = {
        {TC_Kel_Fanout2_Properties, same, 1},
        {TC_Kel_Fanout2_Properties, other, 0},  // a member's repository id differs
        {TC_Kel_Fanout2_Properties, TC_Kel_Fanout2__sequence_Property_Properties, 0},
        {TC_Kel_Fanout2_StreamKey, TC_Kel_Types_OctetList, 0},
        {TC_Kel_Fanout2__sequence_octet_StreamKey, TC_Kel_Types_OctetList->member_types[0], 1},
        {TC_Kel_Fanout2_Repeater, TC_Object, 0},
        {TC_Kel_Fanout2_PropertiesList, TC_Kel_Fanout2_PropertiesListList, 0},
        {TC_long, TC_ulong, 0},
        {nullptr, nullptr, 1},
        {TC_Kel_Fanout2_Property, nullptr, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(TypeCode_equal(c.a, c.b), c.equal) << (c.a != nullptr ? c.a->reg_name : "null");
        EXPECT_EQ(TypeCode_equal(c.b, c.a), c.equal);
    }
    // A decoded value with the run-time type code compares with a static one.
    Properties list = make_list(false);
    EXPECT_EQ(_generic_equal(same, nullptr, &list, &list), 1);
    Properties copy{};
    _t_generic_copy(same, nullptr, &copy, &list);
    EXPECT_EQ(_generic_equal(TC_Kel_Fanout2_Properties, nullptr, &list, &copy), 1);
    kel_free_generic(&copy, same);
    kel_free_generic(&list, TC_Kel_Fanout2_Properties);
    TypeCode_release(same);  // frees the whole tree: the sanitizer checks it
    TypeCode_release(other);
}

}  // namespace
