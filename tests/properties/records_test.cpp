// Tests of the records built on property lists: the Segment and Toc views
// and who owns their lists, the message record's defaults and read order,
// and the exported key vocabulary.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "fanout/keys.h"
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

// One row per constant: M(X, ...) stands for MESSAGE_X_KEY, S for SEGMENT_,
// R for RESULT_ and N for NODE_; ESCALATE(n) gives the date and message keys n.
// clang-format off
#define M(name, text) {MESSAGE_##name##_KEY, text}
#define S(name, text) {SEGMENT_##name##_KEY, text}
#define R(name, text) {RESULT_##name##_KEY, text}
#define N(name, text) {NODE_##name##_KEY, text}
#define ESCALATE(n) {MESSAGE_ESCALATE_DATE_KEY_##n, "escalate_date." #n}, \
                    {MESSAGE_ESCALATE_MSG_KEY_##n, "escalate_msg." #n}
TEST(KeyVocabulary, EveryConstantHasItsProtocolString) {
    const std::pair<const char*, const char*> keys[] = {
        M(APPLICATION_ID, "app_id"), M(ARGUMENTS, "args"), M(BULK_CHECKPOINT, "bulk_checkpoint"),
        M(BULK_DATA_FLAG, "bulk_data_flag"), M(BYPASS_ROUTE, "bypass_route"),
        M(CALLBACK_RECV_METHOD, "cb_recv_meth"), M(CALLBACK_TARGET, "cb_target"),
        M(CBE_DIST_ID, "cbe_dist_id"), M(FERRY_MC_URL, "ferry_mc_url"),
        M(FERRY_SEND_JOB, "ferry_send_job"), M(FERRY_TARGET_LIST, "ferry_target_list"),
        M(FERRY_TYPE, "ferry_type"), M(FERRY_USERNAME, "ferry_username"),
        M(COMMAND_CANCEL, "cmd_cancel"), M(COMMAND_PAUSE, "cmd_pause"),
        M(CONTROL_DIST_ID, "cntl_dist_id"), M(CONTROL_TARGET, "cntl_target_oid"),
        M(DATA_PATH, "data_path"), M(DATA_SOURCE, "data_source"), M(DEADLINE, "deadline"),
        M(DEPOT_ARGS, "depot_args"), M(DEPOT_IMAGE_DIR, "image_dir"),
        M(DEPOT_INSTALL_METHOD, "depot_install_meth"), M(DISPLAY_DEFERRED, "display_DEFERRED"),
        M(DIST_MGR, "dist_mgr"), M(DS_SEND_JOB, "ds_send_job"),
        M(ENDPOINT_MULTICAST, "endpoint_multicast"), M(ENDPOINT_TYPE, "endpoint_type"),
        M(EP_DEPOT, "ep_depot"), ESCALATE(0), ESCALATE(1), ESCALATE(2), ESCALATE(3), ESCALATE(4),
        ESCALATE(5), ESCALATE(6), ESCALATE(7), ESCALATE(8), ESCALATE(9), M(EXCEPTION, "exception"),
        M(FAIL_UNAVAILABLE, "fail_unavail"), M(FORCE_MANDATORY, "force_mandatory"),
        M(HIDDEN, "hidden"), M(ID, "id"), {MESSAGE_INVALID_DIST_ID, "<invalid id>"},
        M(IS_FERRY, "is_ferry"), M(IS_EXCLUSIVE, "is_exclusive"), M(IS_MULTICAST, "is_multicast"),
        M(IS_MULTISTART, "is_multistart"), M(IS_RESULT, "is_result"), M(IS_ROAM, "is_roam"),
        M(LABEL, "label"), M(MANDATORY_DATE, "mand_date"), M(METHOD_CONTEXT, "meth_context"),
        M(MOBILE_NOTE, "mobile_note"), M(MOBILE_SETUP_METH, "mob_setup"),
        M(NOTIFY_INTERVAL, "notify_intv"), M(PARENT_DIST_ID, "parent_dist_id"),
        M(PENDING_CANCEL, "pending_cancel"), M(PRIORITY, "pri"), M(PRUNE_REWIND, "prune_rewind"),
        M(PRUNE_SUCCESSFUL, "prune_successful"), M(REAL_TARGET, "real_target"),
        {MESSAGE_REAL_TARGET_LABEL, "real_target_label"},
        {MESSAGE_REAL_TARGET_UNIQUE_ID, "real_target_unique_id"}, M(RECV_METHOD, "recv_meth"),
        M(REPEATER_MULTICAST, "repeater_multicast"), M(RESULTS, "results"),
        M(RESULT_CALLBACK_TIMEOUT, "res_cb_timeout"), M(RESULT_TIMEOUT, "result_timeout"),
        M(ROAM_ENDPOINTS, "roam_endpoints"), M(RPT_CHAIN_2, "rpt_chain_2"),
        M(RPT_CHAIN, "rpt_chain"), M(SEGMENT_FILE_LIST, "segs"), M(SEND_TIMEOUT, "send_timeout"),
        M(SIZE, "size"), M(TARGET_ACTION, "target_action"), M(TYPE, "type"),
        M(USER_CAN_REJECT, "user_can_reject"), M(USER_ID, "u_id"),
        M(USER_INITIATED, "user_initiated"), M(VALIDATE_DB_CONN, "dist_validate_db_conn"),
        M(WOL, "wake_on_lan"), {SEGMENT_FERRY_DEFERRED, "ferry_deferred"},
        {SEGMENT_FERRY_DESTINATION, "ferry_destination"}, {SEGMENT_FERRY_MANAGER, "ferry_manager"},
        {SEGMENT_FERRY_PACKAGEID, "ferry_packageid"}, {SEGMENT_FERRY_PASSWORD, "ferry_password"},
        {SEGMENT_FERRY_USERNAME, "ferry_username"}, S(CHECKSUM, "checksum"), S(CTIME, "ctime"),
        S(DATA_BY_REFERENCE, "data_by_reference"), S(DATA_PATH, "data_path"),
        S(DAT_FILE, "dat_file"), S(DELETE_AT_SOURCE, "del_at_src"), S(DISPOSABLE, "disposable"),
        S(HAS_SIZE, "has_size"), S(HOSTNAME, "hostname"), S(ID, "id"),
        S(IS_COLLECTION, "is_collection"), S(IS_RESULT, "is_result"), S(LOCATION, "location"),
        S(MTIME, "mtime"), S(OFFSET, "offset"), S(SIZE, "size"), S(VERSION, "version"),
        R(FINISH_TIME, "r_ft"), R(HAS_BULK_DATA, "r_bulk"), R(INTERRUPTED_TIME, "r_it"),
        R(INTERRUPTION_COUNT, "r_ic"), R(IS_EXCEPTION, "r_is_ex"), R(IS_FLUSHED, "r_flsd"),
        R(LABEL, "r_label"), R(PAUSED_TIME, "r_pt"), R(RECEIVING_TIME, "r_rt"),
        R(RPT_SOURCE, "r_rpt_src"), R(SENDING_TIME, "r_et"), R(SOURCE, "r_src"),
        R(START_TIME, "r_st"), R(STATE, "r_s"), R(UNAVAILABLE_TIME, "r_ut"), R(VALUE, "r_val"),
        R(WAITING_TIME, "r_wt"), N(COMMAND, "n_command"), N(DIST_PAUSED_GW_DOWN, "n_d_paused"),
        N(IS_MOBILE, "n_is_mob"), N(NEW_JOBS, "n_njobs"), N(SENT_HI, "n_sent_hi"),
        N(SENT, "n_sent"), N(STATE, "n_state"), N(TOTAL_HI, "n_total_hi"), N(TOTAL, "n_total"),
        {JOB_TOC_KEY, "j_toc"},
    };
    EXPECT_EQ(std::size(keys), 143u);
    for (const auto& [constant, text] : keys) EXPECT_STREQ(constant, text);
}
// clang-format on

}  // namespace
