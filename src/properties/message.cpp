// message.cpp - the distribution message record and the command names.
//
// message_from_properties reads a message's common keys into a Message,
// each with its default; strings, objects and the arguments any point into
// the list, which the record then owns. The keys are read in a fixed order,
// which decides which failure a malformed message reports first.

#include <memory>

#include "fanout/keys.h"
#include "fanout/message.h"
#include "fanout/properties.h"
#include "runtime/mg_ptr.h"

namespace fanout {
namespace {

const char* const kCommandNames[] = {"NULL", "DATA", "CANCEL", "PAUSE", "EXPIRE", "ROAM"};

// Keys read "only if present": tested first, so an absent key leaves the
// field zero and a present key of another type still raises.
char* string_if_present(const Properties* p, const char* key) {
    return properties_find(p, key) ? properties_get_string(p, key) : nullptr;
}

}  // namespace
}  // namespace fanout

using namespace fanout;

extern "C" {

Message* message_new(void) {
    return static_cast<Message*>(mg_calloc(1, sizeof(Message)));
}

// On a raise the partly filled record is released; p stays with the caller.
Message* message_from_properties(Properties* p) {
    std::unique_ptr<Message, MgFree> m(message_new());
    m->app_id = string_if_present(p, MESSAGE_APPLICATION_ID_KEY);
    m->type = properties_get_short(p, MESSAGE_TYPE_KEY);
    m->id = string_if_present(p, MESSAGE_ID_KEY);
    m->label = string_if_present(p, MESSAGE_LABEL_KEY);
    if (properties_find(p, MESSAGE_SIZE_KEY)) {
        m->size = properties_get_long2(p, MESSAGE_SIZE_KEY, 0);
    }
    m->priority = properties_get_short2(p, MESSAGE_PRIORITY_KEY, 3);
    m->deadline = properties_get_long2(p, MESSAGE_DEADLINE_KEY, 0);
    m->hidden = properties_get_boolean2(p, MESSAGE_HIDDEN_KEY, 0);
    m->depot_install_method = properties_get_string2(p, MESSAGE_DEPOT_INSTALL_METHOD_KEY, nullptr);
    m->mandatory_date = properties_get_long2(p, MESSAGE_MANDATORY_DATE_KEY, 0);
    m->force_mandatory = properties_get_boolean2(p, MESSAGE_FORCE_MANDATORY_KEY, 1);
    m->recv_method = properties_get_string(p, MESSAGE_RECV_METHOD_KEY);
    m->args = properties_get_any2(p, MESSAGE_ARGUMENTS_KEY, nullptr);
    m->cb_recv_method = string_if_present(p, MESSAGE_CALLBACK_RECV_METHOD_KEY);
    if (properties_find(p, MESSAGE_CALLBACK_TARGET_KEY)) {
        m->cb_target = properties_get_object(p, MESSAGE_CALLBACK_TARGET_KEY);
    }
    m->notify_interval = properties_get_long2(p, MESSAGE_NOTIFY_INTERVAL_KEY, 0);
    m->data_source = properties_get_short2(p, MESSAGE_DATA_SOURCE_KEY, 1);
    m->target_action = properties_get_short2(p, MESSAGE_TARGET_ACTION_KEY, 1);
    m->real_target = properties_get_object2(p, MESSAGE_REAL_TARGET_KEY, nullptr);
    m->method_context = properties_get_short2(p, MESSAGE_METHOD_CONTEXT_KEY, 2);
    m->bulk_data_flag = properties_get_boolean2(p, MESSAGE_BULK_DATA_FLAG_KEY, 0);
    m->send_timeout = properties_get_long2(p, MESSAGE_SEND_TIMEOUT_KEY, 0);
    m->result_timeout = properties_get_long2(p, MESSAGE_RESULT_TIMEOUT_KEY, 0);
    m->parent_dist_id = properties_get_string2(p, MESSAGE_PARENT_DIST_ID_KEY, nullptr);
    m->is_result = properties_get_boolean2(p, MESSAGE_IS_RESULT_KEY, 0);
    m->repeater_multicast = properties_get_boolean2(p, MESSAGE_REPEATER_MULTICAST_KEY, 0);
    m->endpoint_multicast = properties_get_boolean2(p, MESSAGE_ENDPOINT_MULTICAST_KEY, 0);
    m->ds_send_job = properties_get_boolean2(p, MESSAGE_DS_SEND_JOB_KEY, 0);
    m->ferry_send_job = properties_get_boolean2(p, MESSAGE_FERRY_SEND_JOB_KEY, 0);
    m->is_ferry = properties_get_boolean2(p, MESSAGE_IS_FERRY_KEY, 0);
    m->ferry_mc_url = properties_get_string2(p, MESSAGE_FERRY_MC_URL_KEY, nullptr);
    m->ferry_username = properties_get_string2(p, MESSAGE_FERRY_USERNAME_KEY, nullptr);
    m->ferry_type = properties_get_string2(p, MESSAGE_FERRY_TYPE_KEY, nullptr);
    m->control_dist_id = properties_get_string2(p, MESSAGE_CONTROL_DIST_ID_KEY, nullptr);
    m->cbe_dist_id = properties_get_string2(p, MESSAGE_CBE_DIST_ID_KEY, nullptr);
    m->control_target = properties_get_object2(p, MESSAGE_CONTROL_TARGET_KEY, nullptr);
    m->is_exclusive = properties_get_boolean2(p, MESSAGE_IS_EXCLUSIVE_KEY, 0);
    m->is_roam = properties_get_boolean2(p, MESSAGE_IS_ROAM_KEY, 0);
    m->roam_endpoints = properties_get_boolean2(p, MESSAGE_ROAM_ENDPOINTS_KEY, 1);
    m->wake_on_lan = properties_get_boolean2(p, MESSAGE_WOL_KEY, 0);
    m->mobile_setup_method = properties_get_string2(p, MESSAGE_MOBILE_SETUP_METH_KEY, nullptr);
    m->depot_image_dir = properties_get_string2(p, MESSAGE_DEPOT_IMAGE_DIR_KEY, nullptr);
    m->result_callback_timeout = properties_get_long2(p, MESSAGE_RESULT_CALLBACK_TIMEOUT_KEY, 0);
    m->bulk_checkpoint = properties_get_boolean2(p, MESSAGE_BULK_CHECKPOINT_KEY, 0);
    m->display_deferred = properties_get_boolean2(p, MESSAGE_DISPLAY_DEFERRED_KEY, 0);
    m->prune_successful = properties_get_boolean2(p, MESSAGE_PRUNE_SUCCESSFUL_KEY, 0);
    m->prune_rewind = properties_get_long2(p, MESSAGE_PRUNE_REWIND_KEY, 0);
    m->props = p;
    return m.release();
}

Message* message_new_from_properties(const Properties* p) {
    if (p == nullptr) return nullptr;
    Properties* copy = properties_clone(p);
    try {
        return message_from_properties(copy);
    } catch (...) {
        properties_delete(copy);
        throw;
    }
}

void message_delete(Message* m) {
    if (m->props != nullptr) {
        kel_free_generic(m->props, TC_Kel_Fanout2_Properties);
        mg_free(m->props);
        m->props = nullptr;
    }
    mg_free(m);
}

void message_free_buffer(void* b) {
    if (b != nullptr) mg_free(b);
}

void message_log(const Message* m) {
    static_cast<void>(m);
}

const char* decode_command(unsigned char code) {
    return code < sizeof kCommandNames / sizeof kCommandNames[0] ? kCommandNames[code] : nullptr;
}

}  // extern "C"
