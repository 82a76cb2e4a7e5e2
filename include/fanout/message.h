/* message.h - the distribution message record and the command names.
 *
 * A distribution travels as a message: a property list under the MESSAGE_*
 * keys (keys.h). message_from_properties reads the common keys into a typed
 * record, applying each key's default; string, object and any fields point
 * into the list (nothing is duplicated), so the record is rebuilt after its
 * list changes.
 *
 * Reading raises catalogue message 36 when "type" or "recv_meth" is missing
 * and 37 when a key holds another type than expected (the key is the
 * argument). The keys are read in a fixed order, which decides the failure
 * reported first; on a raise the partly filled record is lost.
 *
 * Thread safety: a record is a view of its list and is used, like the list,
 * by one thread at a time; the command names are constant.
 */
#ifndef FANOUT_MESSAGE_H
#define FANOUT_MESSAGE_H

#include <stdint.h>

#include "export.h"
#include "runtime.h"
#include "types.h"

FANOUT_BEGIN_DECLS

/* A message. The comment gives each field's key and its value when the key
 * is absent. */
typedef struct Message {
    Properties* props;               /* the list read; owned by the record */
    char* app_id;                    /* "app_id": null */
    int16_t type;                    /* "type": required */
    char* id;                        /* "id": null */
    char* label;                     /* "label": null */
    int16_t priority;                /* "pri": 3 */
    int32_t size;                    /* "size": 0 */
    int32_t deadline;                /* "deadline": 0 */
    int32_t mandatory_date;          /* "mand_date": 0 */
    uint8_t force_mandatory;         /* "force_mandatory": 1 */
    char* recv_method;               /* "recv_meth": required */
    Any* args;                       /* "args": null */
    char* cb_recv_method;            /* "cb_recv_meth": null */
    Object cb_target;                /* "cb_target": null */
    int32_t notify_interval;         /* "notify_intv": 0 */
    int16_t data_source;             /* "data_source": 1 */
    int16_t target_action;           /* "target_action": 1 */
    Object real_target;              /* "real_target": null */
    int16_t method_context;          /* "meth_context": 2 */
    uint8_t bulk_data_flag;          /* "bulk_data_flag": 0 */
    int32_t send_timeout;            /* "send_timeout": 0 */
    int32_t result_timeout;          /* "result_timeout": 0 */
    char* parent_dist_id;            /* "parent_dist_id": null */
    uint8_t is_result;               /* "is_result": 0 */
    char* control_dist_id;           /* "cntl_dist_id": null */
    char* cbe_dist_id;               /* "cbe_dist_id": null */
    Object control_target;           /* "cntl_target_oid": null */
    uint8_t is_exclusive;            /* "is_exclusive": 0 */
    uint8_t roam_endpoints;          /* "roam_endpoints": 1 */
    uint8_t is_roam;                 /* "is_roam": 0 */
    uint8_t wake_on_lan;             /* "wake_on_lan": 0 */
    uint8_t hidden;                  /* "hidden": 0 */
    char* depot_install_method;      /* "depot_install_meth": null */
    char* mobile_setup_method;       /* "mob_setup": null */
    char* depot_image_dir;           /* "image_dir": null */
    int32_t result_callback_timeout; /* "res_cb_timeout": 0 */
    uint8_t repeater_multicast;      /* "repeater_multicast": 0 */
    uint8_t endpoint_multicast;      /* "endpoint_multicast": 0 */
    uint8_t ds_send_job;             /* "ds_send_job": 0 */
    uint8_t bulk_checkpoint;         /* "bulk_checkpoint": 0 */
    uint8_t display_deferred;        /* "display_DEFERRED": 0 */
    uint8_t prune_successful;        /* "prune_successful": 0 */
    int32_t prune_rewind;            /* "prune_rewind": 0 */
    uint8_t is_ferry;                /* "is_ferry": 0 */
    uint8_t ferry_send_job;          /* "ferry_send_job": 0 */
    char* ferry_mc_url;              /* "ferry_mc_url": null */
    char* ferry_username;            /* "ferry_username": null */
    char* ferry_type;                /* "ferry_type": null */
} Message;

/* A new zeroed record; release with message_delete. */
FANOUT_EXPORT Message* message_new(void);

/* A new record read from p, which is not copied: the record owns p from now
 * on (message_delete frees it). p must not be null. */
FANOUT_EXPORT Message* message_from_properties(Properties* p);

/* A new record read from a deep copy of p (the caller keeps p). Null p gives
 * null. */
FANOUT_EXPORT Message* message_new_from_properties(const Properties* p);

/* Frees m's list deeply (when set) and the record. m must not be null. */
FANOUT_EXPORT void message_delete(Message* m);

/* mg_free(b); null is ignored. For blocks that message handlers receive from
 * the runtime allocator. */
FANOUT_EXPORT void message_free_buffer(void* b);

/* Kept as an entry point for message handlers; it logs nothing. */
FANOUT_EXPORT void message_log(const Message* m);

/* The name of a command byte: 0 "NULL", 1 "DATA", 2 "CANCEL", 3 "PAUSE",
 * 4 "EXPIRE", 5 "ROAM"; null for any other value. Static text. */
FANOUT_EXPORT const char* decode_command(unsigned char code);

FANOUT_END_DECLS

#endif /* FANOUT_MESSAGE_H */
