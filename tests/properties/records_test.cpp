// Tests of the records built on property lists: Segment and Toc views and who owns their lists,
// the message record's defaults and read order.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "fanout/message.h"
#include "fanout/segment.h"
#include "properties/support.h"

namespace {

using namespace proptest;

// Three segment descriptions, "0" to "2", each with only "id" and "version".
PropertiesList* toc_list() {
    PropertiesList* pl = properties_list_new();
    for (const char* id : {"0", "1", "2"}) {
        Properties p{};
        properties_put_string_dup(&p, "id", id);
        properties_put_string_dup(&p, "version", "1.0");
        seq_add(pl, &p, sizeof p);  // the list takes the entries
    }
    return pl;
}

// toc_new_from_properties and toc_clone own a copy of the list, and
// toc_from_properties borrows it; a segment's fields point into its list
// and copies never carry aux_data over.
TEST(TocRecord, SegmentViewsOverCopiedOrBorrowedLists) {
    PropertiesList* pl = toc_list();
    Toc* owned = toc_new_from_properties(pl);
    ASSERT_EQ(owned->count, 3u);
    EXPECT_NE(owned->list, pl);
    Segment expected;  // zero numbers, null strings and false flags
    std::memset(&expected, 0, sizeof expected);
    expected.props = &owned->list->buffer[2];
    expected.id = properties_get_string(expected.props, "id");
    expected.version = properties_get_string(expected.props, "version");
    EXPECT_EQ(std::memcmp(&expected, owned->segments[2], sizeof expected), 0);
    owned->segments[0]->aux_data = mg_malloc(8);
    Toc* copy = toc_clone(owned);
    Segment* seg = segment_clone(owned->segments[0]);  // owns its own list
    toc_delete(owned);
    EXPECT_EQ(copy->segments[0]->aux_data, nullptr);
    EXPECT_STREQ(copy->segments[1]->id, "1");
    EXPECT_EQ(seg->aux_data, nullptr);
    segment_delete(seg);
    toc_delete(copy);

    Toc* borrowed = toc_from_properties(pl);
    EXPECT_EQ(borrowed->list, pl);
    EXPECT_EQ(borrowed->segments[1]->props, &pl->buffer[1]);
    toc_free_buffer(borrowed);  // leaves pl to its owner
    mg_free(borrowed);
    properties_list_delete(pl);

    PropertiesList empty{};
    Toc* none = toc_new_from_properties(&empty);
    EXPECT_EQ(none->count, 0u);
    EXPECT_EQ(none->segments, nullptr);
    toc_delete(none);
}

// The smallest message: the documented defaults, and every other field zero.
TEST(MessageRecord, DefaultsOfAMinimalMessage) {
    Properties* p = properties_new();
    properties_put_short_dup(p, "type", 1);
    properties_put_string_dup(p, "recv_meth", "recv");
    Message* m = message_from_properties(p);
    Message expected;
    std::memset(&expected, 0, sizeof expected);
    expected.props = p;
    expected.type = 1;
    expected.recv_method = properties_get_string(p, "recv_meth");
    expected.priority = 3;
    expected.force_mandatory = 1;
    expected.data_source = 1;
    expected.target_action = 1;
    expected.method_context = 2;
    expected.roam_endpoints = 1;
    EXPECT_EQ(std::memcmp(&expected, m, sizeof expected), 0);
    message_delete(m);
}

// A fault "-key" removes a key, "key" stores a ulong (no field is one):
// required keys missing raise 36, a field of the wrong type 37 even when it is
// optional, and the first fault in reading order is reported. No record (S
// segment, T table of contents, M message) leaks the copy it was reading.
TEST(Records, MissingOrMistypedKeysRaise) {
    // clang-format off
    const std::tuple<char, Strings, Raised> cases[] = {
        {'S', {"-id"}, {36, {"id"}}},     {'S', {"-version"}, {36, {"version"}}},
        {'S', {"size"}, {37, {"size"}}},  {'S', {"del_at_src"}, {37, {"del_at_src"}}},
        {'T', {"-version"}, {36, {"version"}}},
        {'M', {"-type"}, {36, {"type"}}}, {'M', {"-recv_meth"}, {36, {"recv_meth"}}},
        {'M', {"args"}, {37, {"args"}}},  {'M', {"pri", "-recv_meth", "size"}, {37, {"size"}}}};
    // clang-format on
    for (const auto& [record, faults, raised] : cases) {
        ScopedList list;  // a valid segment and a valid message at once
        properties_put_short_dup(list.get(), "type", 1);
        for (const char* k : {"id", "version", "recv_meth"})
            properties_put_string_dup(list.get(), k, k);
        for (const auto& k : faults) {
            if (k[0] == '-') properties_remove_and_destroy(list.get(), k.c_str() + 1);
            if (k[0] != '-') properties_put_ulong_dup(list.get(), k.c_str(), 1);
        }
        EXPECT_EQ(raised_by([&, r = record] {
                      PropertiesList toc{1, 1, list.get()};  // borrows the list
                      if (r == 'S') segment_new_from_properties(list.get());
                      if (r == 'T') toc_new_from_properties(&toc);
                      if (r == 'M') message_new_from_properties(list.get());
                  }),
                  raised);
    }
}

}  // namespace
