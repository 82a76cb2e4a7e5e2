// Tests of the Kel_Fanout2 interface types: registration, byte-wise deep
// equality, the generated copy/equal/visitor functions, and the type codes'
// structure as the decoder will compare it.

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "fanout/exception.h"
#include "fanout/fanout2.h"
#include "fanout/runtime.h"
#include "fanout/types.h"
#include "runtime/typecode_internal.h"

namespace {

// Adds key = long value to a list (the list owns both).
void put_long(Properties* p, const char* key, int32_t value) {
    auto* block = static_cast<int32_t*>(mg_malloc(sizeof(int32_t)));
    *block = value;
    Property entry{mg_strdup(key), {TC_long, block}};
    seq_add(p, &entry, sizeof entry);
}

void put_string(Properties* p, const char* key, const char* value) {
    auto* block = static_cast<char**>(mg_malloc(sizeof(char*)));
    *block = mg_strdup(value);
    Property entry{mg_strdup(key), {TC_string, block}};
    seq_add(p, &entry, sizeof entry);
}

// A list holding a nested PropertiesList, to exercise the deep paths.
Properties make_list(bool reversed) {
    Properties p{};
    if (reversed) put_string(&p, "b", "two");
    put_long(&p, "a", 1);
    if (!reversed) put_string(&p, "b", "two");
    auto* nested = static_cast<PropertiesList*>(mg_calloc(1, sizeof(PropertiesList)));
    Properties inner{};
    put_long(&inner, "depth", 2);
    seq_add(nested, &inner, sizeof inner);
    Property entry{mg_strdup("nested"), {TC_Kel_Fanout2_PropertiesList, nested}};
    seq_add(&p, &entry, sizeof entry);
    return p;
}

std::string take_message(Environment* env) {
    std::string text;
    if (env->_exception != nullptr) {
        char* rendered = ex_render(env->_exception);
        text = rendered != nullptr ? rendered : "";
        mg_free(rendered);
    }
    ev_clear(env);
    return text;
}

TEST(FanoutInit, RegistersOnceAndMapsRepositoryIds) {
    fanout_init();
    std::size_t calls = fanout::tc_registry_init_calls();
    fanout_init();
    EXPECT_EQ(fanout::tc_registry_init_calls(), calls);
    const std::pair<const char*, TypeCode> expected[] = {
        {"IDL:Kel_Fanout2/Property:1.0", TC_Kel_Fanout2_Property},
        {"IDL:Kel_Fanout2/Properties:1.0", TC_Kel_Fanout2_Properties},
        {"IDL:Kel_Fanout2/PropertiesList:1.0", TC_Kel_Fanout2_PropertiesList},
        {"IDL:Kel_Fanout2/PropertiesListList:1.0", TC_Kel_Fanout2_PropertiesListList},
        {"IDL:Kel_Fanout2/StreamKey:1.0", TC_Kel_Fanout2_StreamKey},
        {"IDL:Kel_Fanout2/Repeater:1.0", TC_Kel_Fanout2_Repeater},
        {"IDL:Kel_Types/StringList:1.0", TC_Kel_Types_StringList},
        {"IDL:Kel_Fanout2/ExDistributionDeferred:1.0", TC_Kel_Fanout2_ExDistributionDeferred},
        {"IDL:Kel_Fanout2/Nothing:1.0", nullptr},
        {"", nullptr},
    };
    for (const auto& [id, tc] : expected) EXPECT_EQ(fanout::tc_registry_find(id), tc) << id;
    EXPECT_EQ(_parms_Kel_Fanout2_Repeater[0].operation, nullptr);
    EXPECT_EQ(_imp_Fanout2_type_repository, &Fanout2_type_repository);
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
    EXPECT_EQ(take_message(&env).rfind("Marshalling error (", 0), 0u);
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

// The Properties type code rebuilt at run time, as a decoder would build it.
TypeCode dynamic_properties(const char* property_repo_id) {
    TypeCodeRec* property = fanout::tc_new_dynamic(FANOUT_TK_STRUCT);
    property->repo_id = mg_strdup(property_repo_id);
    property->member_count = 2;
    auto** types = static_cast<TypeCode*>(mg_calloc(2, sizeof(TypeCode)));
    types[0] = TC_string;
    types[1] = TC_any;
    property->member_types = types;
    auto* offsets = static_cast<uint32_t*>(mg_calloc(2, sizeof(uint32_t)));
    fanout::tc_struct_layout(2, types, offsets, &property->size, &property->align);
    property->member_offsets = offsets;
    TypeCodeRec* sequence = fanout::tc_new_dynamic(FANOUT_TK_SEQUENCE);
    sequence->member_count = 1;
    auto** element = static_cast<TypeCode*>(mg_calloc(1, sizeof(TypeCode)));
    element[0] = property;
    sequence->member_types = element;
    TypeCodeRec* alias = fanout::tc_new_dynamic(FANOUT_TK_ALIAS);
    alias->repo_id = mg_strdup("IDL:Kel_Fanout2/Properties:1.0");
    alias->member_count = 1;
    auto** named = static_cast<TypeCode*>(mg_calloc(1, sizeof(TypeCode)));
    named[0] = sequence;
    alias->member_types = named;
    return alias;
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
