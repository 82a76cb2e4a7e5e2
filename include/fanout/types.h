/* types.h - the interface types of the Kel_Fanout2 module.
 *
 * Property lists and stream keys are the values that cross process and host
 * boundaries; each has a type code through which the runtime marshals,
 * copies, compares and frees it (runtime.h). Call fanout_init() once during
 * start-up, before the first value is marshalled.
 *
 * Thread safety: call fanout_init() before the program starts other threads;
 * after it the type codes are constant and any thread may use them. A
 * property list or stream key is used by one thread at a time.
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

/* The module's type repository: the addresses of the TypeCode variables
 * above (and of the exception types of the module), for adr_type_init.
 * _imp_Fanout2_type_repository is the same repository seen from users. */
FANOUT_EXPORT extern const TypeRepository Fanout2_type_repository;
FANOUT_EXPORT extern const TypeRepository* const _imp_Fanout2_type_repository;

/* One operation of an interface: its name and the type codes of its
 * parameters (parameter_count entries). A table of them ends with an entry
 * whose operation is null. */
typedef struct FanoutOperationParms {
    const char* operation;
    uint32_t parameter_count;
    const TypeCode* const* parameter_types;
} FanoutOperationParms;

/* The operations of the Repeater interface. The relay programs that serve it
 * define its operations; this library only refers to Repeater objects, so
 * its table is empty (just the terminating entry). */
FANOUT_EXPORT extern const FanoutOperationParms _parms_Kel_Fanout2_Repeater[];

/* Registers the module's types with the runtime; the first call does the
 * work, later calls do nothing. Not thread-safe: call during start-up. */
FANOUT_EXPORT void fanout_init(void);

/* Deep equality by encoding: 1 when a and b marshal under tc to the same
 * bytes (or are the same pointer), else 0. A marshalling failure records an
 * exception in env ("Marshalling error (%1$d)") and gives 0. */
FANOUT_EXPORT uint8_t zel_generic_equal(TypeCode tc, Environment* env, const void* a,
                                        const void* b);

/* The generated per-type functions. For T one of
 *   Property                                   (type Property),
 *   _sequence_Property_Properties              (type Properties),
 *   _sequence_Properties_PropertiesList        (type PropertiesList),
 *   _sequence_PropertiesList_PropertiesListList (type PropertiesListList),
 *   _sequence_octet_StreamKey                  (type StreamKey):
 *
 *  _equal_Kel_Fanout2_T(env, a, b) and _t_equal_Kel_Fanout2_T(env, a, b):
 *      deep equality (_generic_equal / _t_generic_equal with T's type code),
 *      1 or 0; a failure is recorded in env and gives 0.
 *  _copy_Kel_Fanout2_T(env, source, temporary): a deep copy returned by
 *      value; the caller owns what it points to (kel_free_generic with T's
 *      type code). A null source gives a zeroed value. A failure is recorded
 *      in env (the unwalkable parts are left zeroed).
 *  _t_copy_Kel_Fanout2_T(env, dest, source): deep copy into the caller's
 *      storage at dest, overwriting (not freeing) what was there.
 * Allocation failures raise. */
FANOUT_EXPORT uint8_t _equal_Kel_Fanout2_Property(Environment* env, const Property* a,
                                                  const Property* b);
FANOUT_EXPORT Property _copy_Kel_Fanout2_Property(Environment* env, const Property* source,
                                                  int32_t temporary);
FANOUT_EXPORT uint8_t _t_equal_Kel_Fanout2_Property(Environment* env, const Property* a,
                                                    const Property* b);
FANOUT_EXPORT void _t_copy_Kel_Fanout2_Property(Environment* env, Property* dest,
                                                const Property* source);

FANOUT_EXPORT uint8_t _equal_Kel_Fanout2__sequence_Property_Properties(Environment* env,
                                                                       const Properties* a,
                                                                       const Properties* b);
FANOUT_EXPORT Properties _copy_Kel_Fanout2__sequence_Property_Properties(Environment* env,
                                                                         const Properties* source,
                                                                         int32_t temporary);
FANOUT_EXPORT uint8_t _t_equal_Kel_Fanout2__sequence_Property_Properties(Environment* env,
                                                                         const Properties* a,
                                                                         const Properties* b);
FANOUT_EXPORT void _t_copy_Kel_Fanout2__sequence_Property_Properties(Environment* env,
                                                                     Properties* dest,
                                                                     const Properties* source);

FANOUT_EXPORT uint8_t _equal_Kel_Fanout2__sequence_Properties_PropertiesList(
    Environment* env, const PropertiesList* a, const PropertiesList* b);
FANOUT_EXPORT PropertiesList _copy_Kel_Fanout2__sequence_Properties_PropertiesList(
    Environment* env, const PropertiesList* source, int32_t temporary);
FANOUT_EXPORT uint8_t _t_equal_Kel_Fanout2__sequence_Properties_PropertiesList(
    Environment* env, const PropertiesList* a, const PropertiesList* b);
FANOUT_EXPORT void _t_copy_Kel_Fanout2__sequence_Properties_PropertiesList(
    Environment* env, PropertiesList* dest, const PropertiesList* source);

FANOUT_EXPORT uint8_t _equal_Kel_Fanout2__sequence_PropertiesList_PropertiesListList(
    Environment* env, const PropertiesListList* a, const PropertiesListList* b);
FANOUT_EXPORT PropertiesListList _copy_Kel_Fanout2__sequence_PropertiesList_PropertiesListList(
    Environment* env, const PropertiesListList* source, int32_t temporary);
FANOUT_EXPORT uint8_t _t_equal_Kel_Fanout2__sequence_PropertiesList_PropertiesListList(
    Environment* env, const PropertiesListList* a, const PropertiesListList* b);
FANOUT_EXPORT void _t_copy_Kel_Fanout2__sequence_PropertiesList_PropertiesListList(
    Environment* env, PropertiesListList* dest, const PropertiesListList* source);

FANOUT_EXPORT uint8_t _equal_Kel_Fanout2__sequence_octet_StreamKey(Environment* env,
                                                                   const StreamKey* a,
                                                                   const StreamKey* b);
FANOUT_EXPORT StreamKey _copy_Kel_Fanout2__sequence_octet_StreamKey(Environment* env,
                                                                    const StreamKey* source,
                                                                    int32_t temporary);
FANOUT_EXPORT uint8_t _t_equal_Kel_Fanout2__sequence_octet_StreamKey(Environment* env,
                                                                     const StreamKey* a,
                                                                     const StreamKey* b);
FANOUT_EXPORT void _t_copy_Kel_Fanout2__sequence_octet_StreamKey(Environment* env, StreamKey* dest,
                                                                 const StreamKey* source);

/* Encodes or decodes one Property through buf (see the marshaller in
 * runtime.h): its key as a string, then its value as an any. Errors are left
 * in buf->error. */
FANOUT_EXPORT void adr_v_Kel_Fanout2_Property(AdrBuffer* buf, Property* v);

FANOUT_END_DECLS

#endif /* FANOUT_TYPES_H */
