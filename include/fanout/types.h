/* types.h - the interface types of the Kel_Fanout2 module.
 *
 * Property lists and stream keys are the values that cross process and host
 * boundaries; each has a type code through which the runtime marshals,
 * copies, compares and frees it (runtime.h). Call fanout_init() once during
 * start-up, before the first value is marshalled.
 */
#ifndef FANOUT_TYPES_H
#define FANOUT_TYPES_H

#include <stdint.h>

#include "export.h"
#include "runtime.h"

FANOUT_BEGIN_DECLS

/* One entry of a property list: a key and a typed value, both owned. */
typedef struct Property {
    char* key;
    Any value;
} Property;

/* An ordered list of properties (sequence of Property). */
typedef struct Properties {
    uint32_t maximum;
    uint32_t length;
    Property* buffer;
} Properties;

typedef struct PropertiesList {
    uint32_t maximum;
    uint32_t length;
    Properties* buffer;
} PropertiesList;

typedef struct PropertiesListList {
    uint32_t maximum;
    uint32_t length;
    PropertiesList* buffer;
} PropertiesListList;

/* Octets naming a data stream: octet 0 the stream type, octet 2 the mobile
 * flag, octet 3 onward a text. */
typedef struct StreamKey {
    uint32_t maximum;
    uint32_t length;
    uint8_t* buffer;
} StreamKey;

/* A reference to a relay (repeater) service object. */
typedef Object Repeater;

FANOUT_EXPORT extern const struct TypeCodeRec _tc_rec_Kel_Fanout2_Property,
    _tc_rec_Kel_Fanout2_Properties, _tc_rec_Kel_Fanout2_PropertiesList,
    _tc_rec_Kel_Fanout2_PropertiesListList, _tc_rec_Kel_Fanout2_StreamKey,
    _tc_rec_Kel_Fanout2_Repeater, _tc_rec_Kel_Fanout2__sequence_Property_Properties,
    _tc_rec_Kel_Fanout2__sequence_Properties_PropertiesList,
    _tc_rec_Kel_Fanout2__sequence_PropertiesList_PropertiesListList,
    _tc_rec_Kel_Fanout2__sequence_octet_StreamKey;

FANOUT_EXPORT extern const TypeCode TC_Kel_Fanout2_Property, TC_Kel_Fanout2_Properties,
    TC_Kel_Fanout2_PropertiesList, TC_Kel_Fanout2_PropertiesListList, TC_Kel_Fanout2_StreamKey,
    TC_Kel_Fanout2_Repeater, TC_Kel_Fanout2__sequence_Property_Properties,
    TC_Kel_Fanout2__sequence_Properties_PropertiesList,
    TC_Kel_Fanout2__sequence_PropertiesList_PropertiesListList,
    TC_Kel_Fanout2__sequence_octet_StreamKey;

/* Registers the module's types with the runtime; the first call does the
 * work, later calls do nothing. Not thread-safe: call during start-up. */
FANOUT_EXPORT void fanout_init(void);

/* Deep equality by encoding: 1 when a and b marshal under tc to the same
 * bytes (or are the same pointer), else 0. A marshalling failure records an
 * exception in env ("Marshalling error (%1$d)") and gives 0. */
FANOUT_EXPORT uint8_t zel_generic_equal(TypeCode tc, Environment* env, const void* a,
                                        const void* b);

FANOUT_END_DECLS

#endif /* FANOUT_TYPES_H */
