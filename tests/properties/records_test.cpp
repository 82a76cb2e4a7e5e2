// Tests of the records built on property lists: the Segment and Toc views
// and their ownership, the message record's defaults and read order, the
// command names, and the exported key vocabulary.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "fanout/keys.h"
#include "fanout/message.h"
#include "fanout/properties.h"
#include "fanout/segment.h"
#include "properties/support.h"

namespace {

using proptest::raised_by;
using proptest::ScopedList;

Properties* segment_list(const char* id) {
    Properties* p = properties_new();
    properties_put_string_dup(p, "id", id);
    properties_put_string_dup(p, "version", "1.0");
    return p;
}

TEST(SegmentRecord, OnlyIdAndVersionGiveDefaults) {
    Properties* p = segment_list("seg");
    Segment* s = segment_from_properties(p);
    EXPECT_EQ(s->props, p);
    EXPECT_STREQ(s->id, "seg");
    EXPECT_STREQ(s->version, "1.0");
    EXPECT_EQ(s->checksum, nullptr);
    EXPECT_EQ(s->location, nullptr);
    EXPECT_EQ(s->ferry_password, nullptr);
    EXPECT_EQ(s->ctime + s->mtime + s->offset + s->size, 0);
    EXPECT_EQ(s->disposable + s->is_result + s->is_collection + s->delete_at_source, 0);
    // A view: the string field is the list's own string.
    EXPECT_EQ(s->id, properties_get_string(p, "id"));
    segment_delete(s);  // frees p too
    EXPECT_EQ(segment_from_properties(nullptr), nullptr);
    EXPECT_EQ(segment_new_from_properties(nullptr), nullptr);
}

TEST(SegmentRecord, FieldsAreReadFromTheirKeys) {
    Properties* p = segment_list("seg");
    Kel_Types_OctetList sum{0, 0, nullptr};
    properties_put_OctetList_dup(p, SEGMENT_CHECKSUM_KEY, &sum);
    properties_put_long_dup(p, "ctime", 1);
    properties_put_long_dup(p, "mtime", 2);
    properties_put_string_dup(p, "location", "/l");
    properties_put_long_dup(p, "offset", 3);
    properties_put_long_dup(p, "size", 4);
    properties_put_boolean_dup(p, "disposable", 1);
    properties_put_boolean_dup(p, "is_collection", 1);
    properties_put_boolean_dup(p, "del_at_src", 1);
    properties_put_string_dup(p, "ferry_manager", "m");
    properties_put_string_dup(p, "ferry_password", "pw");
    Segment* s = segment_from_properties(p);
    EXPECT_EQ(s->checksum, properties_get_OctetList(p, "checksum"));
    EXPECT_EQ(s->ctime * 1000 + s->mtime * 100 + s->offset * 10 + s->size, 1234);
    EXPECT_STREQ(s->location, "/l");
    EXPECT_EQ(s->disposable, 1);
    EXPECT_EQ(s->is_result, 0);
    EXPECT_EQ(s->is_collection, 1);
    EXPECT_EQ(s->delete_at_source, 1);
    EXPECT_STREQ(s->ferry_manager, "m");
    EXPECT_STREQ(s->ferry_password, "pw");
    segment_delete(s);
}

TEST(SegmentRecord, MissingOrMistypedKeysRaiseAndLeakNothing) {
    ScopedList list;
    properties_put_string_dup(list.get(), "version", "1");
    auto missing = raised_by([&] { segment_from_properties(list.get()); });
    EXPECT_EQ(missing.number, 36);
    EXPECT_EQ(missing.args, std::vector<std::string>{"id"});
    properties_put_string_dup(list.get(), "id", "x");
    properties_put_string_dup(list.get(), "size", "big");
    auto wrong = raised_by([&] { segment_new_from_properties(list.get()); });
    EXPECT_EQ(wrong.number, 37);
    EXPECT_EQ(wrong.args, std::vector<std::string>{"size"});
}

TEST(SegmentRecord, CopiesAreIndependentAndDropAuxData) {
    ScopedList list;
    properties_put_string_dup(list.get(), "id", "a");
    properties_put_string_dup(list.get(), "version", "2");
    Segment* s = segment_new_from_properties(list.get());
    EXPECT_NE(s->props, list.get());
    s->aux_data = mg_malloc(16);
    Segment* c = segment_clone(s);
    EXPECT_EQ(c->aux_data, nullptr);
    EXPECT_NE(c->props, s->props);
    EXPECT_STREQ(c->id, "a");
    segment_delete(s);
    EXPECT_STREQ(c->version, "2");
    segment_delete(c);
    Segment* empty = segment_new();
    Segment* empty_copy = segment_clone(empty);
    EXPECT_EQ(empty_copy->props, nullptr);
    segment_delete(empty);
    segment_delete(empty_copy);
}

PropertiesList* toc_list(int n) {
    PropertiesList* pl = properties_list_new();
    for (int i = 0; i < n; ++i) {
        Properties* p = segment_list(std::to_string(i).c_str());
        seq_add(pl, p, sizeof(Properties));  // the list takes the entries
        mg_free(p);
    }
    return pl;
}

TEST(TocRecord, ViewsFollowTheListAndOwnershipRules) {
    PropertiesList* pl = toc_list(3);
    Toc* owned = toc_new_from_properties(pl);
    ASSERT_EQ(owned->count, 3u);
    EXPECT_NE(owned->list, pl);
    EXPECT_EQ(owned->segments[2]->props, &owned->list->buffer[2]);
    EXPECT_STREQ(owned->segments[2]->id, "2");
    owned->segments[0]->aux_data = mg_malloc(8);
    Toc* copy = toc_clone(owned);
    EXPECT_EQ(copy->segments[0]->aux_data, nullptr);
    EXPECT_STREQ(copy->segments[1]->id, "1");
    toc_delete(owned);
    toc_delete(copy);

    Toc* borrowed = toc_from_properties(pl);  // borrows pl
    EXPECT_EQ(borrowed->list, pl);
    EXPECT_EQ(borrowed->segments[1]->props, &pl->buffer[1]);
    toc_free_buffer(borrowed);
    mg_free(borrowed);
    properties_list_delete(pl);
    toc_free_buffer(nullptr);
    toc_delete(nullptr);
    EXPECT_EQ(toc_new_from_properties(nullptr), nullptr);
}

TEST(TocRecord, EmptyListHasNoSegmentArray) {
    PropertiesList empty{};
    Toc* t = toc_new_from_properties(&empty);
    EXPECT_EQ(t->count, 0u);
    EXPECT_EQ(t->segments, nullptr);
    toc_delete(t);
}

TEST(TocRecord, BadSegmentRaisesAndLeaksNothing) {
    PropertiesList* pl = toc_list(3);
    properties_remove_and_destroy(&pl->buffer[2], "version");
    for (int made = 0; made < 3; ++made) {
        auto r = raised_by([&] {
            if (made == 0) toc_new_from_properties(pl);
            if (made == 1) toc_from_properties(pl);
            if (made == 2) {
                Toc t{1, nullptr, pl};
                toc_clone(&t);
            }
        });
        EXPECT_EQ(r.number, 36);
        EXPECT_EQ(r.args, std::vector<std::string>{"version"});
    }
    properties_list_delete(pl);
}

// The smallest message: every other field takes its default.
TEST(MessageRecord, DefaultsOfAMinimalMessage) {
    Properties* p = properties_new();
    properties_put_short_dup(p, "type", 1);
    properties_put_string_dup(p, "recv_meth", "recv");
    Message* m = message_from_properties(p);
    EXPECT_EQ(m->props, p);
    EXPECT_EQ(m->type, 1);
    EXPECT_STREQ(m->recv_method, "recv");
    EXPECT_EQ(m->priority, 3);
    EXPECT_EQ(m->force_mandatory, 1);
    EXPECT_EQ(m->data_source, 1);
    EXPECT_EQ(m->target_action, 1);
    EXPECT_EQ(m->method_context, 2);
    EXPECT_EQ(m->roam_endpoints, 1);
    // Everything else is zero: compare with a zeroed record carrying the
    // values checked above.
    Message expected;
    std::memset(&expected, 0, sizeof expected);
    expected.props = p;
    expected.type = 1;
    expected.recv_method = m->recv_method;
    expected.priority = 3;
    expected.force_mandatory = 1;
    expected.data_source = 1;
    expected.target_action = 1;
    expected.method_context = 2;
    expected.roam_endpoints = 1;
    EXPECT_EQ(std::memcmp(&expected, m, sizeof(Message)), 0);
    message_delete(m);
}

TEST(MessageRecord, PresentKeysAreReadAndCopiesIndependent) {
    ScopedList list;
    Properties* p = list.get();
    int32_t arg = 4;
    Any any{TC_long, &arg};
    properties_put_short_dup(p, "type", 2);
    properties_put_string_dup(p, "recv_meth", "r");
    properties_put_long_dup(p, "size", 99);
    properties_put_any_dup(p, "args", &any);
    properties_put_short_dup(p, "pri", 1);
    properties_put_boolean_dup(p, "force_mandatory", 0);
    properties_put_string_dup(p, "ferry_type", "ft");
    properties_put_boolean_dup(p, "display_DEFERRED", 1);
    properties_put_long_dup(p, "prune_rewind", -5);
    Message* m = message_new_from_properties(p);
    EXPECT_NE(m->props, p);
    EXPECT_EQ(m->size, 99);
    EXPECT_EQ(*static_cast<int32_t*>(m->args->_value), 4);
    EXPECT_EQ(m->priority, 1);
    EXPECT_EQ(m->force_mandatory, 0);
    EXPECT_STREQ(m->ferry_type, "ft");
    EXPECT_EQ(m->display_deferred, 1);
    EXPECT_EQ(m->prune_rewind, -5);
    message_delete(m);
    EXPECT_EQ(message_new_from_properties(nullptr), nullptr);
    message_free_buffer(nullptr);
    message_free_buffer(mg_malloc(4));
    message_log(nullptr);
}

// Malformed messages: the first failure in read order is the one reported.
TEST(MessageRecord, MalformedMessagesRaiseInReadOrder) {
    struct Case {
        const char* key;
        bool as_string;  // put the key as a string, else remove it
        int32_t number;
        const char* reported;
    };
    const Case cases[] = {
        {"type", false, 36, "type"}, {"recv_meth", false, 36, "recv_meth"},
        {"size", true, 37, "size"},  {"args", true, 37, "args"},
        {"pri", true, 37, "pri"},    {"cntl_target_oid", true, 37, "cntl_target_oid"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.key);
        ScopedList list;
        Properties* p = list.get();
        properties_put_short_dup(p, "type", 1);
        properties_put_string_dup(p, "recv_meth", "r");
        if (c.as_string) {
            properties_put_string_dup(p, c.key, "x");
        } else {
            properties_remove_and_destroy(p, c.key);
        }
        auto r = raised_by([&] { message_from_properties(p); });
        EXPECT_EQ(r.number, c.number);
        EXPECT_EQ(r.args, std::vector<std::string>{c.reported});
    }
    // Several faults: "type" is read before "size", and "size" before "pri"
    // and "recv_meth".
    ScopedList faults;
    properties_put_string_dup(faults.get(), "pri", "x");
    properties_put_string_dup(faults.get(), "size", "x");
    EXPECT_EQ(raised_by([&] { message_from_properties(faults.get()); }).args,
              std::vector<std::string>{"type"});
    properties_put_short_dup(faults.get(), "type", 1);
    EXPECT_EQ(raised_by([&] { message_from_properties(faults.get()); }).args,
              std::vector<std::string>{"size"});
}

TEST(MessageRecord, CommandNames) {
    const char* names[] = {"NULL", "DATA", "CANCEL", "PAUSE", "EXPIRE", "ROAM"};
    for (unsigned code = 0; code < 256; ++code) {
        if (code < 6) {
            EXPECT_STREQ(decode_command(static_cast<unsigned char>(code)), names[code]);
        } else {
            EXPECT_EQ(decode_command(static_cast<unsigned char>(code)), nullptr) << code;
        }
    }
}

TEST(KeyVocabulary, EveryConstantHasItsProtocolString) {
    struct Key {
        const char* constant;
        const char* text;
    };
    const Key keys[] = {
        {MESSAGE_APPLICATION_ID_KEY, "app_id"},
        {MESSAGE_ARGUMENTS_KEY, "args"},
        {MESSAGE_BULK_CHECKPOINT_KEY, "bulk_checkpoint"},
        {MESSAGE_BULK_DATA_FLAG_KEY, "bulk_data_flag"},
        {MESSAGE_BYPASS_ROUTE_KEY, "bypass_route"},
        {MESSAGE_CALLBACK_RECV_METHOD_KEY, "cb_recv_meth"},
        {MESSAGE_CALLBACK_TARGET_KEY, "cb_target"},
        {MESSAGE_CBE_DIST_ID_KEY, "cbe_dist_id"},
        {MESSAGE_FERRY_MC_URL_KEY, "ferry_mc_url"},
        {MESSAGE_FERRY_SEND_JOB_KEY, "ferry_send_job"},
        {MESSAGE_FERRY_TARGET_LIST_KEY, "ferry_target_list"},
        {MESSAGE_FERRY_TYPE_KEY, "ferry_type"},
        {MESSAGE_FERRY_USERNAME_KEY, "ferry_username"},
        {MESSAGE_COMMAND_CANCEL_KEY, "cmd_cancel"},
        {MESSAGE_COMMAND_PAUSE_KEY, "cmd_pause"},
        {MESSAGE_CONTROL_DIST_ID_KEY, "cntl_dist_id"},
        {MESSAGE_CONTROL_TARGET_KEY, "cntl_target_oid"},
        {MESSAGE_DATA_PATH_KEY, "data_path"},
        {MESSAGE_DATA_SOURCE_KEY, "data_source"},
        {MESSAGE_DEADLINE_KEY, "deadline"},
        {MESSAGE_DEPOT_ARGS_KEY, "depot_args"},
        {MESSAGE_DEPOT_IMAGE_DIR_KEY, "image_dir"},
        {MESSAGE_DEPOT_INSTALL_METHOD_KEY, "depot_install_meth"},
        {MESSAGE_DISPLAY_DEFERRED_KEY, "display_DEFERRED"},
        {MESSAGE_DIST_MGR_KEY, "dist_mgr"},
        {MESSAGE_DS_SEND_JOB_KEY, "ds_send_job"},
        {MESSAGE_ENDPOINT_MULTICAST_KEY, "endpoint_multicast"},
        {MESSAGE_ENDPOINT_TYPE_KEY, "endpoint_type"},
        {MESSAGE_EP_DEPOT_KEY, "ep_depot"},
        {MESSAGE_ESCALATE_DATE_KEY_0, "escalate_date.0"},
        {MESSAGE_ESCALATE_DATE_KEY_1, "escalate_date.1"},
        {MESSAGE_ESCALATE_DATE_KEY_2, "escalate_date.2"},
        {MESSAGE_ESCALATE_DATE_KEY_3, "escalate_date.3"},
        {MESSAGE_ESCALATE_DATE_KEY_4, "escalate_date.4"},
        {MESSAGE_ESCALATE_DATE_KEY_5, "escalate_date.5"},
        {MESSAGE_ESCALATE_DATE_KEY_6, "escalate_date.6"},
        {MESSAGE_ESCALATE_DATE_KEY_7, "escalate_date.7"},
        {MESSAGE_ESCALATE_DATE_KEY_8, "escalate_date.8"},
        {MESSAGE_ESCALATE_DATE_KEY_9, "escalate_date.9"},
        {MESSAGE_ESCALATE_MSG_KEY_0, "escalate_msg.0"},
        {MESSAGE_ESCALATE_MSG_KEY_1, "escalate_msg.1"},
        {MESSAGE_ESCALATE_MSG_KEY_2, "escalate_msg.2"},
        {MESSAGE_ESCALATE_MSG_KEY_3, "escalate_msg.3"},
        {MESSAGE_ESCALATE_MSG_KEY_4, "escalate_msg.4"},
        {MESSAGE_ESCALATE_MSG_KEY_5, "escalate_msg.5"},
        {MESSAGE_ESCALATE_MSG_KEY_6, "escalate_msg.6"},
        {MESSAGE_ESCALATE_MSG_KEY_7, "escalate_msg.7"},
        {MESSAGE_ESCALATE_MSG_KEY_8, "escalate_msg.8"},
        {MESSAGE_ESCALATE_MSG_KEY_9, "escalate_msg.9"},
        {MESSAGE_EXCEPTION_KEY, "exception"},
        {MESSAGE_FAIL_UNAVAILABLE_KEY, "fail_unavail"},
        {MESSAGE_FORCE_MANDATORY_KEY, "force_mandatory"},
        {MESSAGE_HIDDEN_KEY, "hidden"},
        {MESSAGE_ID_KEY, "id"},
        {MESSAGE_INVALID_DIST_ID, "<invalid id>"},
        {MESSAGE_IS_FERRY_KEY, "is_ferry"},
        {MESSAGE_IS_EXCLUSIVE_KEY, "is_exclusive"},
        {MESSAGE_IS_MULTICAST_KEY, "is_multicast"},
        {MESSAGE_IS_MULTISTART_KEY, "is_multistart"},
        {MESSAGE_IS_RESULT_KEY, "is_result"},
        {MESSAGE_IS_ROAM_KEY, "is_roam"},
        {MESSAGE_LABEL_KEY, "label"},
        {MESSAGE_MANDATORY_DATE_KEY, "mand_date"},
        {MESSAGE_METHOD_CONTEXT_KEY, "meth_context"},
        {MESSAGE_MOBILE_NOTE_KEY, "mobile_note"},
        {MESSAGE_MOBILE_SETUP_METH_KEY, "mob_setup"},
        {MESSAGE_NOTIFY_INTERVAL_KEY, "notify_intv"},
        {MESSAGE_PARENT_DIST_ID_KEY, "parent_dist_id"},
        {MESSAGE_PENDING_CANCEL_KEY, "pending_cancel"},
        {MESSAGE_PRIORITY_KEY, "pri"},
        {MESSAGE_PRUNE_REWIND_KEY, "prune_rewind"},
        {MESSAGE_PRUNE_SUCCESSFUL_KEY, "prune_successful"},
        {MESSAGE_REAL_TARGET_KEY, "real_target"},
        {MESSAGE_REAL_TARGET_LABEL, "real_target_label"},
        {MESSAGE_REAL_TARGET_UNIQUE_ID, "real_target_unique_id"},
        {MESSAGE_RECV_METHOD_KEY, "recv_meth"},
        {MESSAGE_REPEATER_MULTICAST_KEY, "repeater_multicast"},
        {MESSAGE_RESULTS_KEY, "results"},
        {MESSAGE_RESULT_CALLBACK_TIMEOUT_KEY, "res_cb_timeout"},
        {MESSAGE_RESULT_TIMEOUT_KEY, "result_timeout"},
        {MESSAGE_ROAM_ENDPOINTS_KEY, "roam_endpoints"},
        {MESSAGE_RPT_CHAIN_2_KEY, "rpt_chain_2"},
        {MESSAGE_RPT_CHAIN_KEY, "rpt_chain"},
        {MESSAGE_SEGMENT_FILE_LIST_KEY, "segs"},
        {MESSAGE_SEND_TIMEOUT_KEY, "send_timeout"},
        {MESSAGE_SIZE_KEY, "size"},
        {MESSAGE_TARGET_ACTION_KEY, "target_action"},
        {MESSAGE_TYPE_KEY, "type"},
        {MESSAGE_USER_CAN_REJECT_KEY, "user_can_reject"},
        {MESSAGE_USER_ID_KEY, "u_id"},
        {MESSAGE_USER_INITIATED_KEY, "user_initiated"},
        {MESSAGE_VALIDATE_DB_CONN_KEY, "dist_validate_db_conn"},
        {MESSAGE_WOL_KEY, "wake_on_lan"},
        {SEGMENT_FERRY_DEFERRED, "ferry_deferred"},
        {SEGMENT_FERRY_DESTINATION, "ferry_destination"},
        {SEGMENT_FERRY_MANAGER, "ferry_manager"},
        {SEGMENT_FERRY_PACKAGEID, "ferry_packageid"},
        {SEGMENT_FERRY_PASSWORD, "ferry_password"},
        {SEGMENT_FERRY_USERNAME, "ferry_username"},
        {SEGMENT_CHECKSUM_KEY, "checksum"},
        {SEGMENT_CTIME_KEY, "ctime"},
        {SEGMENT_DATA_BY_REFERENCE_KEY, "data_by_reference"},
        {SEGMENT_DATA_PATH_KEY, "data_path"},
        {SEGMENT_DAT_FILE_KEY, "dat_file"},
        {SEGMENT_DELETE_AT_SOURCE_KEY, "del_at_src"},
        {SEGMENT_DISPOSABLE_KEY, "disposable"},
        {SEGMENT_HAS_SIZE_KEY, "has_size"},
        {SEGMENT_HOSTNAME_KEY, "hostname"},
        {SEGMENT_ID_KEY, "id"},
        {SEGMENT_IS_COLLECTION_KEY, "is_collection"},
        {SEGMENT_IS_RESULT_KEY, "is_result"},
        {SEGMENT_LOCATION_KEY, "location"},
        {SEGMENT_MTIME_KEY, "mtime"},
        {SEGMENT_OFFSET_KEY, "offset"},
        {SEGMENT_SIZE_KEY, "size"},
        {SEGMENT_VERSION_KEY, "version"},
        {RESULT_FINISH_TIME_KEY, "r_ft"},
        {RESULT_HAS_BULK_DATA_KEY, "r_bulk"},
        {RESULT_INTERRUPTED_TIME_KEY, "r_it"},
        {RESULT_INTERRUPTION_COUNT_KEY, "r_ic"},
        {RESULT_IS_EXCEPTION_KEY, "r_is_ex"},
        {RESULT_IS_FLUSHED_KEY, "r_flsd"},
        {RESULT_LABEL_KEY, "r_label"},
        {RESULT_PAUSED_TIME_KEY, "r_pt"},
        {RESULT_RECEIVING_TIME_KEY, "r_rt"},
        {RESULT_RPT_SOURCE_KEY, "r_rpt_src"},
        {RESULT_SENDING_TIME_KEY, "r_et"},
        {RESULT_SOURCE_KEY, "r_src"},
        {RESULT_START_TIME_KEY, "r_st"},
        {RESULT_STATE_KEY, "r_s"},
        {RESULT_UNAVAILABLE_TIME_KEY, "r_ut"},
        {RESULT_VALUE_KEY, "r_val"},
        {RESULT_WAITING_TIME_KEY, "r_wt"},
        {NODE_COMMAND_KEY, "n_command"},
        {NODE_DIST_PAUSED_GW_DOWN_KEY, "n_d_paused"},
        {NODE_IS_MOBILE_KEY, "n_is_mob"},
        {NODE_NEW_JOBS_KEY, "n_njobs"},
        {NODE_SENT_HI_KEY, "n_sent_hi"},
        {NODE_SENT_KEY, "n_sent"},
        {NODE_STATE_KEY, "n_state"},
        {NODE_TOTAL_HI_KEY, "n_total_hi"},
        {NODE_TOTAL_KEY, "n_total"},
        {JOB_TOC_KEY, "j_toc"},
    };
    EXPECT_EQ(sizeof keys / sizeof keys[0], 143u);
    for (const Key& k : keys) {
        ASSERT_NE(k.constant, nullptr);
        EXPECT_STREQ(k.constant, k.text);
    }
}

}  // namespace
