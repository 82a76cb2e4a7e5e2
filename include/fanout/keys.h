/* keys.h - the exported vocabulary of property keys.
 *
 * Every program of the service names message, segment, result and node keys
 * through these constants. The strings, not the constant names, are the
 * protocol: programs compare keys by their strings. Each constant is a
 * read-only pointer to a static NUL-terminated string that lives as long as
 * the library. MESSAGE_INVALID_DIST_ID is a value rather than a key: the text
 * used for a distribution id that cannot be read.
 *
 * Thread safety: constant texts; any thread may read them at any time.
 */
#ifndef FANOUT_KEYS_H
#define FANOUT_KEYS_H

#include "export.h"

FANOUT_BEGIN_DECLS

/* Distribution messages. */
FANOUT_EXPORT extern const char* const MESSAGE_APPLICATION_ID_KEY;       /* "app_id" */
FANOUT_EXPORT extern const char* const MESSAGE_ARGUMENTS_KEY;            /* "args" */
FANOUT_EXPORT extern const char* const MESSAGE_BULK_CHECKPOINT_KEY;      /* "bulk_checkpoint" */
FANOUT_EXPORT extern const char* const MESSAGE_BULK_DATA_FLAG_KEY;       /* "bulk_data_flag" */
FANOUT_EXPORT extern const char* const MESSAGE_BYPASS_ROUTE_KEY;         /* "bypass_route" */
FANOUT_EXPORT extern const char* const MESSAGE_CALLBACK_RECV_METHOD_KEY; /* "cb_recv_meth" */
FANOUT_EXPORT extern const char* const MESSAGE_CALLBACK_TARGET_KEY;      /* "cb_target" */
FANOUT_EXPORT extern const char* const MESSAGE_CBE_DIST_ID_KEY;          /* "cbe_dist_id" */
FANOUT_EXPORT extern const char* const MESSAGE_FERRY_MC_URL_KEY;         /* "ferry_mc_url" */
FANOUT_EXPORT extern const char* const MESSAGE_FERRY_SEND_JOB_KEY;       /* "ferry_send_job" */
FANOUT_EXPORT extern const char* const MESSAGE_FERRY_TARGET_LIST_KEY;    /* "ferry_target_list" */
FANOUT_EXPORT extern const char* const MESSAGE_FERRY_TYPE_KEY;           /* "ferry_type" */
FANOUT_EXPORT extern const char* const MESSAGE_FERRY_USERNAME_KEY;       /* "ferry_username" */
FANOUT_EXPORT extern const char* const MESSAGE_COMMAND_CANCEL_KEY;       /* "cmd_cancel" */
FANOUT_EXPORT extern const char* const MESSAGE_COMMAND_PAUSE_KEY;        /* "cmd_pause" */
FANOUT_EXPORT extern const char* const MESSAGE_CONTROL_DIST_ID_KEY;      /* "cntl_dist_id" */
FANOUT_EXPORT extern const char* const MESSAGE_CONTROL_TARGET_KEY;       /* "cntl_target_oid" */
FANOUT_EXPORT extern const char* const MESSAGE_DATA_PATH_KEY;            /* "data_path" */
FANOUT_EXPORT extern const char* const MESSAGE_DATA_SOURCE_KEY;          /* "data_source" */
FANOUT_EXPORT extern const char* const MESSAGE_DEADLINE_KEY;             /* "deadline" */
FANOUT_EXPORT extern const char* const MESSAGE_DEPOT_ARGS_KEY;           /* "depot_args" */
FANOUT_EXPORT extern const char* const MESSAGE_DEPOT_IMAGE_DIR_KEY;      /* "image_dir" */
FANOUT_EXPORT extern const char* const MESSAGE_DEPOT_INSTALL_METHOD_KEY; /* "depot_install_meth" */
FANOUT_EXPORT extern const char* const MESSAGE_DISPLAY_DEFERRED_KEY;     /* "display_DEFERRED" */
FANOUT_EXPORT extern const char* const MESSAGE_DIST_MGR_KEY;             /* "dist_mgr" */
FANOUT_EXPORT extern const char* const MESSAGE_DS_SEND_JOB_KEY;          /* "ds_send_job" */
FANOUT_EXPORT extern const char* const MESSAGE_ENDPOINT_MULTICAST_KEY;   /* "endpoint_multicast" */
FANOUT_EXPORT extern const char* const MESSAGE_ENDPOINT_TYPE_KEY;        /* "endpoint_type" */
FANOUT_EXPORT extern const char* const MESSAGE_EP_DEPOT_KEY;             /* "ep_depot" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_DATE_KEY_0;      /* "escalate_date.0" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_DATE_KEY_1;      /* "escalate_date.1" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_DATE_KEY_2;      /* "escalate_date.2" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_DATE_KEY_3;      /* "escalate_date.3" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_DATE_KEY_4;      /* "escalate_date.4" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_DATE_KEY_5;      /* "escalate_date.5" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_DATE_KEY_6;      /* "escalate_date.6" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_DATE_KEY_7;      /* "escalate_date.7" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_DATE_KEY_8;      /* "escalate_date.8" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_DATE_KEY_9;      /* "escalate_date.9" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_MSG_KEY_0;       /* "escalate_msg.0" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_MSG_KEY_1;       /* "escalate_msg.1" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_MSG_KEY_2;       /* "escalate_msg.2" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_MSG_KEY_3;       /* "escalate_msg.3" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_MSG_KEY_4;       /* "escalate_msg.4" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_MSG_KEY_5;       /* "escalate_msg.5" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_MSG_KEY_6;       /* "escalate_msg.6" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_MSG_KEY_7;       /* "escalate_msg.7" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_MSG_KEY_8;       /* "escalate_msg.8" */
FANOUT_EXPORT extern const char* const MESSAGE_ESCALATE_MSG_KEY_9;       /* "escalate_msg.9" */
FANOUT_EXPORT extern const char* const MESSAGE_EXCEPTION_KEY;            /* "exception" */
FANOUT_EXPORT extern const char* const MESSAGE_FAIL_UNAVAILABLE_KEY;     /* "fail_unavail" */
FANOUT_EXPORT extern const char* const MESSAGE_FORCE_MANDATORY_KEY;      /* "force_mandatory" */
FANOUT_EXPORT extern const char* const MESSAGE_HIDDEN_KEY;               /* "hidden" */
FANOUT_EXPORT extern const char* const MESSAGE_ID_KEY;                   /* "id" */
FANOUT_EXPORT extern const char* const MESSAGE_INVALID_DIST_ID;          /* "<invalid id>" */
FANOUT_EXPORT extern const char* const MESSAGE_IS_FERRY_KEY;             /* "is_ferry" */
FANOUT_EXPORT extern const char* const MESSAGE_IS_EXCLUSIVE_KEY;         /* "is_exclusive" */
FANOUT_EXPORT extern const char* const MESSAGE_IS_MULTICAST_KEY;         /* "is_multicast" */
FANOUT_EXPORT extern const char* const MESSAGE_IS_MULTISTART_KEY;        /* "is_multistart" */
FANOUT_EXPORT extern const char* const MESSAGE_IS_RESULT_KEY;            /* "is_result" */
FANOUT_EXPORT extern const char* const MESSAGE_IS_ROAM_KEY;              /* "is_roam" */
FANOUT_EXPORT extern const char* const MESSAGE_LABEL_KEY;                /* "label" */
FANOUT_EXPORT extern const char* const MESSAGE_MANDATORY_DATE_KEY;       /* "mand_date" */
FANOUT_EXPORT extern const char* const MESSAGE_METHOD_CONTEXT_KEY;       /* "meth_context" */
FANOUT_EXPORT extern const char* const MESSAGE_MOBILE_NOTE_KEY;          /* "mobile_note" */
FANOUT_EXPORT extern const char* const MESSAGE_MOBILE_SETUP_METH_KEY;    /* "mob_setup" */
FANOUT_EXPORT extern const char* const MESSAGE_NOTIFY_INTERVAL_KEY;      /* "notify_intv" */
FANOUT_EXPORT extern const char* const MESSAGE_PARENT_DIST_ID_KEY;       /* "parent_dist_id" */
FANOUT_EXPORT extern const char* const MESSAGE_PENDING_CANCEL_KEY;       /* "pending_cancel" */
FANOUT_EXPORT extern const char* const MESSAGE_PRIORITY_KEY;             /* "pri" */
FANOUT_EXPORT extern const char* const MESSAGE_PRUNE_REWIND_KEY;         /* "prune_rewind" */
FANOUT_EXPORT extern const char* const MESSAGE_PRUNE_SUCCESSFUL_KEY;     /* "prune_successful" */
FANOUT_EXPORT extern const char* const MESSAGE_REAL_TARGET_KEY;          /* "real_target" */
FANOUT_EXPORT extern const char* const MESSAGE_REAL_TARGET_LABEL;        /* "real_target_label" */
FANOUT_EXPORT extern const char* const MESSAGE_REAL_TARGET_UNIQUE_ID;  /* "real_target_unique_id" */
FANOUT_EXPORT extern const char* const MESSAGE_RECV_METHOD_KEY;        /* "recv_meth" */
FANOUT_EXPORT extern const char* const MESSAGE_REPEATER_MULTICAST_KEY; /* "repeater_multicast" */
FANOUT_EXPORT extern const char* const MESSAGE_RESULTS_KEY;            /* "results" */
FANOUT_EXPORT extern const char* const MESSAGE_RESULT_CALLBACK_TIMEOUT_KEY; /* "res_cb_timeout" */
FANOUT_EXPORT extern const char* const MESSAGE_RESULT_TIMEOUT_KEY;          /* "result_timeout" */
FANOUT_EXPORT extern const char* const MESSAGE_ROAM_ENDPOINTS_KEY;          /* "roam_endpoints" */
FANOUT_EXPORT extern const char* const MESSAGE_RPT_CHAIN_2_KEY;             /* "rpt_chain_2" */
FANOUT_EXPORT extern const char* const MESSAGE_RPT_CHAIN_KEY;               /* "rpt_chain" */
FANOUT_EXPORT extern const char* const MESSAGE_SEGMENT_FILE_LIST_KEY;       /* "segs" */
FANOUT_EXPORT extern const char* const MESSAGE_SEND_TIMEOUT_KEY;            /* "send_timeout" */
FANOUT_EXPORT extern const char* const MESSAGE_SIZE_KEY;                    /* "size" */
FANOUT_EXPORT extern const char* const MESSAGE_TARGET_ACTION_KEY;           /* "target_action" */
FANOUT_EXPORT extern const char* const MESSAGE_TYPE_KEY;                    /* "type" */
FANOUT_EXPORT extern const char* const MESSAGE_USER_CAN_REJECT_KEY;         /* "user_can_reject" */
FANOUT_EXPORT extern const char* const MESSAGE_USER_ID_KEY;                 /* "u_id" */
FANOUT_EXPORT extern const char* const MESSAGE_USER_INITIATED_KEY;          /* "user_initiated" */
FANOUT_EXPORT extern const char* const MESSAGE_VALIDATE_DB_CONN_KEY; /* "dist_validate_db_conn" */
FANOUT_EXPORT extern const char* const MESSAGE_WOL_KEY;              /* "wake_on_lan" */

/* Segment descriptions. */
FANOUT_EXPORT extern const char* const SEGMENT_FERRY_DEFERRED;        /* "ferry_deferred" */
FANOUT_EXPORT extern const char* const SEGMENT_FERRY_DESTINATION;     /* "ferry_destination" */
FANOUT_EXPORT extern const char* const SEGMENT_FERRY_MANAGER;         /* "ferry_manager" */
FANOUT_EXPORT extern const char* const SEGMENT_FERRY_PACKAGEID;       /* "ferry_packageid" */
FANOUT_EXPORT extern const char* const SEGMENT_FERRY_PASSWORD;        /* "ferry_password" */
FANOUT_EXPORT extern const char* const SEGMENT_FERRY_USERNAME;        /* "ferry_username" */
FANOUT_EXPORT extern const char* const SEGMENT_CHECKSUM_KEY;          /* "checksum" */
FANOUT_EXPORT extern const char* const SEGMENT_CTIME_KEY;             /* "ctime" */
FANOUT_EXPORT extern const char* const SEGMENT_DATA_BY_REFERENCE_KEY; /* "data_by_reference" */
FANOUT_EXPORT extern const char* const SEGMENT_DATA_PATH_KEY;         /* "data_path" */
FANOUT_EXPORT extern const char* const SEGMENT_DAT_FILE_KEY;          /* "dat_file" */
FANOUT_EXPORT extern const char* const SEGMENT_DELETE_AT_SOURCE_KEY;  /* "del_at_src" */
FANOUT_EXPORT extern const char* const SEGMENT_DISPOSABLE_KEY;        /* "disposable" */
FANOUT_EXPORT extern const char* const SEGMENT_HAS_SIZE_KEY;          /* "has_size" */
FANOUT_EXPORT extern const char* const SEGMENT_HOSTNAME_KEY;          /* "hostname" */
FANOUT_EXPORT extern const char* const SEGMENT_ID_KEY;                /* "id" */
FANOUT_EXPORT extern const char* const SEGMENT_IS_COLLECTION_KEY;     /* "is_collection" */
FANOUT_EXPORT extern const char* const SEGMENT_IS_RESULT_KEY;         /* "is_result" */
FANOUT_EXPORT extern const char* const SEGMENT_LOCATION_KEY;          /* "location" */
FANOUT_EXPORT extern const char* const SEGMENT_MTIME_KEY;             /* "mtime" */
FANOUT_EXPORT extern const char* const SEGMENT_OFFSET_KEY;            /* "offset" */
FANOUT_EXPORT extern const char* const SEGMENT_SIZE_KEY;              /* "size" */
FANOUT_EXPORT extern const char* const SEGMENT_VERSION_KEY;           /* "version" */

/* Results of a distribution at one node. */
FANOUT_EXPORT extern const char* const RESULT_FINISH_TIME_KEY;        /* "r_ft" */
FANOUT_EXPORT extern const char* const RESULT_HAS_BULK_DATA_KEY;      /* "r_bulk" */
FANOUT_EXPORT extern const char* const RESULT_INTERRUPTED_TIME_KEY;   /* "r_it" */
FANOUT_EXPORT extern const char* const RESULT_INTERRUPTION_COUNT_KEY; /* "r_ic" */
FANOUT_EXPORT extern const char* const RESULT_IS_EXCEPTION_KEY;       /* "r_is_ex" */
FANOUT_EXPORT extern const char* const RESULT_IS_FLUSHED_KEY;         /* "r_flsd" */
FANOUT_EXPORT extern const char* const RESULT_LABEL_KEY;              /* "r_label" */
FANOUT_EXPORT extern const char* const RESULT_PAUSED_TIME_KEY;        /* "r_pt" */
FANOUT_EXPORT extern const char* const RESULT_RECEIVING_TIME_KEY;     /* "r_rt" */
FANOUT_EXPORT extern const char* const RESULT_RPT_SOURCE_KEY;         /* "r_rpt_src" */
FANOUT_EXPORT extern const char* const RESULT_SENDING_TIME_KEY;       /* "r_et" */
FANOUT_EXPORT extern const char* const RESULT_SOURCE_KEY;             /* "r_src" */
FANOUT_EXPORT extern const char* const RESULT_START_TIME_KEY;         /* "r_st" */
FANOUT_EXPORT extern const char* const RESULT_STATE_KEY;              /* "r_s" */
FANOUT_EXPORT extern const char* const RESULT_UNAVAILABLE_TIME_KEY;   /* "r_ut" */
FANOUT_EXPORT extern const char* const RESULT_VALUE_KEY;              /* "r_val" */
FANOUT_EXPORT extern const char* const RESULT_WAITING_TIME_KEY;       /* "r_wt" */

/* Node state and counters. */
FANOUT_EXPORT extern const char* const NODE_COMMAND_KEY;             /* "n_command" */
FANOUT_EXPORT extern const char* const NODE_DIST_PAUSED_GW_DOWN_KEY; /* "n_d_paused" */
FANOUT_EXPORT extern const char* const NODE_IS_MOBILE_KEY;           /* "n_is_mob" */
FANOUT_EXPORT extern const char* const NODE_NEW_JOBS_KEY;            /* "n_njobs" */
FANOUT_EXPORT extern const char* const NODE_SENT_HI_KEY;             /* "n_sent_hi" */
FANOUT_EXPORT extern const char* const NODE_SENT_KEY;                /* "n_sent" */
FANOUT_EXPORT extern const char* const NODE_STATE_KEY;               /* "n_state" */
FANOUT_EXPORT extern const char* const NODE_TOTAL_HI_KEY;            /* "n_total_hi" */
FANOUT_EXPORT extern const char* const NODE_TOTAL_KEY;               /* "n_total" */

/* Jobs. */
FANOUT_EXPORT extern const char* const JOB_TOC_KEY; /* "j_toc" */

FANOUT_END_DECLS

#endif /* FANOUT_KEYS_H */
