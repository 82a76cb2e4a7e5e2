// keys.cpp - the strings of the exported property keys (keys.h).
//
// The strings are the wire vocabulary shared with every other program of the
// service; they are reproduced exactly and must never change.

#include "fanout/keys.h"

// Distribution messages.
const char* const MESSAGE_APPLICATION_ID_KEY = "app_id";
const char* const MESSAGE_ARGUMENTS_KEY = "args";
const char* const MESSAGE_BULK_CHECKPOINT_KEY = "bulk_checkpoint";
const char* const MESSAGE_BULK_DATA_FLAG_KEY = "bulk_data_flag";
const char* const MESSAGE_BYPASS_ROUTE_KEY = "bypass_route";
const char* const MESSAGE_CALLBACK_RECV_METHOD_KEY = "cb_recv_meth";
const char* const MESSAGE_CALLBACK_TARGET_KEY = "cb_target";
const char* const MESSAGE_CBE_DIST_ID_KEY = "cbe_dist_id";
const char* const MESSAGE_FERRY_MC_URL_KEY = "ferry_mc_url";
const char* const MESSAGE_FERRY_SEND_JOB_KEY = "ferry_send_job";
const char* const MESSAGE_FERRY_TARGET_LIST_KEY = "ferry_target_list";
const char* const MESSAGE_FERRY_TYPE_KEY = "ferry_type";
const char* const MESSAGE_FERRY_USERNAME_KEY = "ferry_username";
const char* const MESSAGE_COMMAND_CANCEL_KEY = "cmd_cancel";
const char* const MESSAGE_COMMAND_PAUSE_KEY = "cmd_pause";
const char* const MESSAGE_CONTROL_DIST_ID_KEY = "cntl_dist_id";
const char* const MESSAGE_CONTROL_TARGET_KEY = "cntl_target_oid";
const char* const MESSAGE_DATA_PATH_KEY = "data_path";
const char* const MESSAGE_DATA_SOURCE_KEY = "data_source";
const char* const MESSAGE_DEADLINE_KEY = "deadline";
const char* const MESSAGE_DEPOT_ARGS_KEY = "depot_args";
const char* const MESSAGE_DEPOT_IMAGE_DIR_KEY = "image_dir";
const char* const MESSAGE_DEPOT_INSTALL_METHOD_KEY = "depot_install_meth";
const char* const MESSAGE_DISPLAY_DEFERRED_KEY = "display_DEFERRED";
const char* const MESSAGE_DIST_MGR_KEY = "dist_mgr";
const char* const MESSAGE_DS_SEND_JOB_KEY = "ds_send_job";
const char* const MESSAGE_ENDPOINT_MULTICAST_KEY = "endpoint_multicast";
const char* const MESSAGE_ENDPOINT_TYPE_KEY = "endpoint_type";
const char* const MESSAGE_EP_DEPOT_KEY = "ep_depot";
const char* const MESSAGE_ESCALATE_DATE_KEY_0 = "escalate_date.0";
const char* const MESSAGE_ESCALATE_DATE_KEY_1 = "escalate_date.1";
const char* const MESSAGE_ESCALATE_DATE_KEY_2 = "escalate_date.2";
const char* const MESSAGE_ESCALATE_DATE_KEY_3 = "escalate_date.3";
const char* const MESSAGE_ESCALATE_DATE_KEY_4 = "escalate_date.4";
const char* const MESSAGE_ESCALATE_DATE_KEY_5 = "escalate_date.5";
const char* const MESSAGE_ESCALATE_DATE_KEY_6 = "escalate_date.6";
const char* const MESSAGE_ESCALATE_DATE_KEY_7 = "escalate_date.7";
const char* const MESSAGE_ESCALATE_DATE_KEY_8 = "escalate_date.8";
const char* const MESSAGE_ESCALATE_DATE_KEY_9 = "escalate_date.9";
const char* const MESSAGE_ESCALATE_MSG_KEY_0 = "escalate_msg.0";
const char* const MESSAGE_ESCALATE_MSG_KEY_1 = "escalate_msg.1";
const char* const MESSAGE_ESCALATE_MSG_KEY_2 = "escalate_msg.2";
const char* const MESSAGE_ESCALATE_MSG_KEY_3 = "escalate_msg.3";
const char* const MESSAGE_ESCALATE_MSG_KEY_4 = "escalate_msg.4";
const char* const MESSAGE_ESCALATE_MSG_KEY_5 = "escalate_msg.5";
const char* const MESSAGE_ESCALATE_MSG_KEY_6 = "escalate_msg.6";
const char* const MESSAGE_ESCALATE_MSG_KEY_7 = "escalate_msg.7";
const char* const MESSAGE_ESCALATE_MSG_KEY_8 = "escalate_msg.8";
const char* const MESSAGE_ESCALATE_MSG_KEY_9 = "escalate_msg.9";
const char* const MESSAGE_EXCEPTION_KEY = "exception";
const char* const MESSAGE_FAIL_UNAVAILABLE_KEY = "fail_unavail";
const char* const MESSAGE_FORCE_MANDATORY_KEY = "force_mandatory";
const char* const MESSAGE_HIDDEN_KEY = "hidden";
const char* const MESSAGE_ID_KEY = "id";
const char* const MESSAGE_INVALID_DIST_ID = "<invalid id>";
const char* const MESSAGE_IS_FERRY_KEY = "is_ferry";
const char* const MESSAGE_IS_EXCLUSIVE_KEY = "is_exclusive";
const char* const MESSAGE_IS_MULTICAST_KEY = "is_multicast";
const char* const MESSAGE_IS_MULTISTART_KEY = "is_multistart";
const char* const MESSAGE_IS_RESULT_KEY = "is_result";
const char* const MESSAGE_IS_ROAM_KEY = "is_roam";
const char* const MESSAGE_LABEL_KEY = "label";
const char* const MESSAGE_MANDATORY_DATE_KEY = "mand_date";
const char* const MESSAGE_METHOD_CONTEXT_KEY = "meth_context";
const char* const MESSAGE_MOBILE_NOTE_KEY = "mobile_note";
const char* const MESSAGE_MOBILE_SETUP_METH_KEY = "mob_setup";
const char* const MESSAGE_NOTIFY_INTERVAL_KEY = "notify_intv";
const char* const MESSAGE_PARENT_DIST_ID_KEY = "parent_dist_id";
const char* const MESSAGE_PENDING_CANCEL_KEY = "pending_cancel";
const char* const MESSAGE_PRIORITY_KEY = "pri";
const char* const MESSAGE_PRUNE_REWIND_KEY = "prune_rewind";
const char* const MESSAGE_PRUNE_SUCCESSFUL_KEY = "prune_successful";
const char* const MESSAGE_REAL_TARGET_KEY = "real_target";
const char* const MESSAGE_REAL_TARGET_LABEL = "real_target_label";
const char* const MESSAGE_REAL_TARGET_UNIQUE_ID = "real_target_unique_id";
const char* const MESSAGE_RECV_METHOD_KEY = "recv_meth";
const char* const MESSAGE_REPEATER_MULTICAST_KEY = "repeater_multicast";
const char* const MESSAGE_RESULTS_KEY = "results";
const char* const MESSAGE_RESULT_CALLBACK_TIMEOUT_KEY = "res_cb_timeout";
const char* const MESSAGE_RESULT_TIMEOUT_KEY = "result_timeout";
const char* const MESSAGE_ROAM_ENDPOINTS_KEY = "roam_endpoints";
const char* const MESSAGE_RPT_CHAIN_2_KEY = "rpt_chain_2";
const char* const MESSAGE_RPT_CHAIN_KEY = "rpt_chain";
const char* const MESSAGE_SEGMENT_FILE_LIST_KEY = "segs";
const char* const MESSAGE_SEND_TIMEOUT_KEY = "send_timeout";
const char* const MESSAGE_SIZE_KEY = "size";
const char* const MESSAGE_TARGET_ACTION_KEY = "target_action";
const char* const MESSAGE_TYPE_KEY = "type";
const char* const MESSAGE_USER_CAN_REJECT_KEY = "user_can_reject";
const char* const MESSAGE_USER_ID_KEY = "u_id";
const char* const MESSAGE_USER_INITIATED_KEY = "user_initiated";
const char* const MESSAGE_VALIDATE_DB_CONN_KEY = "dist_validate_db_conn";
const char* const MESSAGE_WOL_KEY = "wake_on_lan";

// Segment descriptions.
const char* const SEGMENT_FERRY_DEFERRED = "ferry_deferred";
const char* const SEGMENT_FERRY_DESTINATION = "ferry_destination";
const char* const SEGMENT_FERRY_MANAGER = "ferry_manager";
const char* const SEGMENT_FERRY_PACKAGEID = "ferry_packageid";
const char* const SEGMENT_FERRY_PASSWORD = "ferry_password";
const char* const SEGMENT_FERRY_USERNAME = "ferry_username";
const char* const SEGMENT_CHECKSUM_KEY = "checksum";
const char* const SEGMENT_CTIME_KEY = "ctime";
const char* const SEGMENT_DATA_BY_REFERENCE_KEY = "data_by_reference";
const char* const SEGMENT_DATA_PATH_KEY = "data_path";
const char* const SEGMENT_DAT_FILE_KEY = "dat_file";
const char* const SEGMENT_DELETE_AT_SOURCE_KEY = "del_at_src";
const char* const SEGMENT_DISPOSABLE_KEY = "disposable";
const char* const SEGMENT_HAS_SIZE_KEY = "has_size";
const char* const SEGMENT_HOSTNAME_KEY = "hostname";
const char* const SEGMENT_ID_KEY = "id";
const char* const SEGMENT_IS_COLLECTION_KEY = "is_collection";
const char* const SEGMENT_IS_RESULT_KEY = "is_result";
const char* const SEGMENT_LOCATION_KEY = "location";
const char* const SEGMENT_MTIME_KEY = "mtime";
const char* const SEGMENT_OFFSET_KEY = "offset";
const char* const SEGMENT_SIZE_KEY = "size";
const char* const SEGMENT_VERSION_KEY = "version";

// Results of a distribution at one node.
const char* const RESULT_FINISH_TIME_KEY = "r_ft";
const char* const RESULT_HAS_BULK_DATA_KEY = "r_bulk";
const char* const RESULT_INTERRUPTED_TIME_KEY = "r_it";
const char* const RESULT_INTERRUPTION_COUNT_KEY = "r_ic";
const char* const RESULT_IS_EXCEPTION_KEY = "r_is_ex";
const char* const RESULT_IS_FLUSHED_KEY = "r_flsd";
const char* const RESULT_LABEL_KEY = "r_label";
const char* const RESULT_PAUSED_TIME_KEY = "r_pt";
const char* const RESULT_RECEIVING_TIME_KEY = "r_rt";
const char* const RESULT_RPT_SOURCE_KEY = "r_rpt_src";
const char* const RESULT_SENDING_TIME_KEY = "r_et";
const char* const RESULT_SOURCE_KEY = "r_src";
const char* const RESULT_START_TIME_KEY = "r_st";
const char* const RESULT_STATE_KEY = "r_s";
const char* const RESULT_UNAVAILABLE_TIME_KEY = "r_ut";
const char* const RESULT_VALUE_KEY = "r_val";
const char* const RESULT_WAITING_TIME_KEY = "r_wt";

// Node state and counters.
const char* const NODE_COMMAND_KEY = "n_command";
const char* const NODE_DIST_PAUSED_GW_DOWN_KEY = "n_d_paused";
const char* const NODE_IS_MOBILE_KEY = "n_is_mob";
const char* const NODE_NEW_JOBS_KEY = "n_njobs";
const char* const NODE_SENT_HI_KEY = "n_sent_hi";
const char* const NODE_SENT_KEY = "n_sent";
const char* const NODE_STATE_KEY = "n_state";
const char* const NODE_TOTAL_HI_KEY = "n_total_hi";
const char* const NODE_TOTAL_KEY = "n_total";

// Jobs.
const char* const JOB_TOC_KEY = "j_toc";
