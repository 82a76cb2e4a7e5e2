/* runtime.h - the object runtime every record of the service is built on.
 *
 * The service's records are plain C structures described by type codes. This
 * header is the runtime that walks those descriptions:
 *
 *  - an allocator (mg_*) that never returns null: exhaustion raises the
 *    runtime's exception (see exception.h);
 *  - sequences in the three-word form {maximum, length, buffer};
 *  - type codes, "any" values (a type code and a pointer to a value) and
 *    object references;
 *  - generic deep copy, free, equality and construction driven by type codes;
 *  - the marshaller, which writes and reads OMG CDR (big-endian on output,
 *    alignment counted from the start of the buffer; see docs/wire-format.md).
 *
 * Ownership: a function named _new, _dup, _copy or _clone, and every
 * "newly allocated" result below, hands the caller a block from the runtime
 * allocator; release it with mg_free (contents first with kel_free_generic
 * where the value owns further blocks).
 *
 * Thread safety: the allocator, the type-code registry and the reference
 * counts of shared type codes may be used from any thread at any time. The
 * values they describe (sequences, anys, records, encoders' buffers) belong
 * to one thread at a time.
 */
#ifndef FANOUT_RUNTIME_H
#define FANOUT_RUNTIME_H

#include <stddef.h>
#include <stdint.h>

#include "export.h"

FANOUT_BEGIN_DECLS

/* ------------------------------------------------------------------------ */
/* Allocator. Blocks come from the C heap; mg_free accepts null. None of these
 * returns null: when memory is exhausted they raise the runtime exception
 * "Exception:SystemException:NO_MEMORY" (C++ callers see fanout::Exception). */

FANOUT_EXPORT void* mg_malloc(size_t size);
FANOUT_EXPORT void* mg_calloc(size_t count, size_t size);
FANOUT_EXPORT void* mg_realloc(void* block, size_t size);
FANOUT_EXPORT char* mg_strdup(const char* text); /* null gives null */
FANOUT_EXPORT void mg_free(void* block);

/* ------------------------------------------------------------------------ */
/* Type codes. A type code is a pointer to a constant description. Kinds use
 * the CDR TypeCode numbering, so the value written on the wire is the kind. */

typedef enum FanoutTCKind {
    FANOUT_TK_NULL = 0,
    FANOUT_TK_VOID = 1,
    FANOUT_TK_SHORT = 2,
    FANOUT_TK_LONG = 3,
    FANOUT_TK_USHORT = 4,
    FANOUT_TK_ULONG = 5,
    FANOUT_TK_FLOAT = 6,
    FANOUT_TK_DOUBLE = 7,
    FANOUT_TK_BOOLEAN = 8,
    FANOUT_TK_CHAR = 9,
    FANOUT_TK_OCTET = 10,
    FANOUT_TK_ANY = 11,
    FANOUT_TK_TYPECODE = 12,
    FANOUT_TK_PRINCIPAL = 13,
    FANOUT_TK_OBJREF = 14,
    FANOUT_TK_STRUCT = 15,
    FANOUT_TK_UNION = 16,
    FANOUT_TK_ENUM = 17,
    FANOUT_TK_STRING = 18,
    FANOUT_TK_SEQUENCE = 19,
    FANOUT_TK_ARRAY = 20,
    FANOUT_TK_ALIAS = 21,
    FANOUT_TK_EXCEPT = 22,
    FANOUT_TK_LONGLONG = 23,
    FANOUT_TK_ULONGLONG = 24
} FanoutTCKind;

struct TypeCodeRec;
typedef const struct TypeCodeRec* TypeCode;

/* The description behind a type code.
 *  kind          one of FanoutTCKind.
 *  refcount      -1 for the library's static type codes; >= 1 for type codes
 *                the decoder built from the wire (see TypeCode_duplicate).
 *  repo_id       repository id, e.g. "IDL:Kel_Fanout2/Property:1.0"; "" if none.
 *  name          the simple name written on the wire, e.g. "Property".
 *  reg_name      the name the type is registered under, e.g.
 *                "Kel_Fanout2::Property" (may equal name).
 *  size, align   size and alignment of a value of this type in memory.
 *  bound         maximum length of a bounded sequence or string; 0 unbounded.
 *  member_count  struct and exception members; 1 for sequence and alias.
 *  member_names  member names (struct, exception), else null.
 *  member_types  member type codes (struct, exception); for a sequence its
 *                element type; for an alias the type it names.
 *  member_offsets byte offsets of the members in memory (struct, exception). */
struct TypeCodeRec {
    uint32_t kind;
    int32_t refcount;
    const char* repo_id;
    const char* name;
    const char* reg_name;
    uint32_t size;
    uint32_t align;
    uint32_t bound;
    uint32_t member_count;
    const char* const* member_names;
    const struct TypeCodeRec* const* member_types;
    const uint32_t* member_offsets;
};

/* The basic type codes. */
FANOUT_EXPORT extern const struct TypeCodeRec _tc_rec_null, _tc_rec_void, _tc_rec_short,
    _tc_rec_long, _tc_rec_ushort, _tc_rec_ulong, _tc_rec_boolean, _tc_rec_char, _tc_rec_octet,
    _tc_rec_any, _tc_rec_TypeCode, _tc_rec_Object, _tc_rec_string, _tc_rec_longlong,
    _tc_rec_ulonglong, _tc_rec_float, _tc_rec_double;
FANOUT_EXPORT extern const TypeCode TC_null, TC_void, TC_short, TC_long, TC_ushort, TC_ulong,
    TC_boolean, TC_char, TC_octet, TC_any, TC_TypeCode, TC_Object, TC_string, TC_longlong,
    TC_ulonglong, TC_float, TC_double;

/* Structural equality: kinds, repository ids, bounds and member types are
 * compared recursively (aliases are not looked through; names are not
 * compared). Two null type codes are equal; null and non-null are not. */
FANOUT_EXPORT int32_t TypeCode_equal(TypeCode a, TypeCode b);

/* Reference counting of type codes built at run time. Static type codes
 * (refcount -1) are returned unchanged and never freed. Null is ignored.
 * A run-time type code is one mg_malloc'ed TypeCodeRec whose strings, member
 * name array (and each name), member type array and offset array are each a
 * separate mg_malloc'ed block or null, and which holds one reference to each
 * member type; the release that drops the count to 0 releases the member
 * types and frees all of those blocks. Counting is thread-safe. */
FANOUT_EXPORT TypeCode TypeCode_duplicate(TypeCode tc);
FANOUT_EXPORT void TypeCode_release(TypeCode tc);

/* ------------------------------------------------------------------------ */
/* Values. */

/* An "any": a type code and a pointer to a value of that type. The any owns
 * both: freeing it (kel_free_generic with TC_any) frees the value deeply,
 * then the value block, then releases the type code. */
typedef struct Any {
    TypeCode _type;
    void* _value;
} Any;

/* The generic three-word sequence. Every sequence type has this layout with
 * a buffer of its own element type. */
typedef struct GenericSeq {
    uint32_t maximum; /* allocated capacity, in elements */
    uint32_t length;  /* elements in use */
    void* buffer;     /* contiguous elements, from the runtime allocator */
} GenericSeq;

typedef struct Kel_Types_OctetList {
    uint32_t maximum;
    uint32_t length;
    uint8_t* buffer;
} Kel_Types_OctetList;

typedef struct Kel_Types_StringList {
    uint32_t maximum;
    uint32_t length;
    char** buffer;
} Kel_Types_StringList;

typedef struct _sequence_any {
    uint32_t maximum;
    uint32_t length;
    Any* buffer;
} _sequence_any;

/* "IDL:Kel_Types/OctetList:1.0", "IDL:Kel_Types/StringList:1.0". */
FANOUT_EXPORT extern const struct TypeCodeRec _tc_rec_Kel_Types_OctetList,
    _tc_rec_Kel_Types_StringList, _tc_rec__sequence_any_MsgContext;
FANOUT_EXPORT extern const TypeCode TC_Kel_Types_OctetList, TC_Kel_Types_StringList,
    TC__sequence_any_MsgContext;

/* An object reference: a reference-counted record naming a remote object by
 * its repository id and its tagged profiles, the two parts of a CDR IOR.
 * Null is the nil reference (on the wire: an empty type id and no profiles).
 * Duplicating and releasing are thread-safe; the record is immutable. */
typedef struct ObjectRec* Object;

/* One profile of an object reference: its profile tag and its body, the
 * profile's octets exactly as they travel (usually an encapsulation). */
typedef struct ObjectProfile {
    uint32_t tag;
    Kel_Types_OctetList data;
} ObjectProfile;

/* A new reference with repository id `type_id` (null is taken as "") and
 * copies of the `count` profiles at `profiles` (which may be null only when
 * count is 0). Everything is copied; the caller keeps its arguments. Never
 * returns null, even for an empty id without profiles: the decoder, not this
 * call, maps that form to nil. Release with Object_release. */
FANOUT_EXPORT Object Object_new(const char* type_id, const ObjectProfile* profiles, uint32_t count);
/* Another reference to the same record (the count goes up); null gives null. */
FANOUT_EXPORT Object Object_duplicate(Object obj);
/* Drops one reference; the last one frees the record. Null is ignored. */
FANOUT_EXPORT void Object_release(Object obj);
/* The repository id, owned by the record; "" for nil. */
FANOUT_EXPORT const char* Object_type_id(Object obj);
/* The number of profiles; 0 for nil. */
FANOUT_EXPORT uint32_t Object_profile_count(Object obj);
/* Profile `index`, owned by the record, or null for nil or an index not below
 * Object_profile_count. */
FANOUT_EXPORT const ObjectProfile* Object_profile(Object obj, uint32_t index);
/* 1 when both are nil, or the same record, or have the same type id and the
 * same profiles (tags and octets, in order); else 0. */
FANOUT_EXPORT int32_t Object_equal(Object a, Object b);

/* ------------------------------------------------------------------------ */
/* Type repositories. A module lists its type codes in a repository and hands
 * it to adr_type_init at start-up; the decoder then maps a type code read
 * from the wire to the module's own static one when the repository ids match
 * and the two are structurally equal (TypeCode_equal), so decoded values
 * carry the library's type codes wherever it knows the type. */
typedef struct TypeRepository {
    const char* module;           /* module name, e.g. "Kel_Fanout2"; null ends a list */
    const TypeCode* const* types; /* addresses of TypeCode variables, null-terminated */
} TypeRepository;

/* The empty repository that ends a registration record. */
FANOUT_EXPORT extern const TypeRepository type_repository_null;

/* Registers every type code of every repository in `registration`: an array
 * of `const TypeRepository*` ending with &type_repository_null (or a null
 * pointer). A repository id already registered keeps its first type code;
 * type codes without a repository id are skipped. Null is ignored.
 * Thread-safe; raises only when memory is exhausted. */
FANOUT_EXPORT void adr_type_init(const void* registration);

/* ------------------------------------------------------------------------ */
/* The environment record. A call that cannot raise reports an exception by
 * storing it here; ev_to_exception raises it. Zero it before use. */
typedef struct Environment {
    int32_t _major;   /* 0 no exception, 1 user exception, 2 system */
    void* _exception; /* the exception record (exception.h), owned */
    const char* _id;  /* its type id (points into the record) */
    void* _reserved[2];
} Environment;

#define FANOUT_NO_EXCEPTION 0
#define FANOUT_USER_EXCEPTION 1
#define FANOUT_SYSTEM_EXCEPTION 2

/* Raises the exception held in env (moving it out, so env is clear again);
 * does nothing when env holds none or is null. */
FANOUT_EXPORT void ev_to_exception(Environment* env);
/* Frees any exception held in env (ex_free) and zeroes env. Null is ignored. */
FANOUT_EXPORT void ev_clear(Environment* env);

/* ------------------------------------------------------------------------ */
/* Sequences. `seq` points to any three-word sequence header (GenericSeq
 * layout) and must not be null except where stated; element_size is the size
 * of one element in bytes. Allocation failures raise. */

/* Appends a copy of the element's bytes, growing the buffer as needed
 * (doubling, so appends are amortised constant time). The element may lie in
 * the sequence's own buffer. */
FANOUT_EXPORT void seq_add(void* seq, const void* element, uint32_t element_size);
/* Removes element index, closing the gap; returns a newly allocated copy of
 * the removed element's bytes (the caller owns what it points to), or null
 * when index is not below length. */
FANOUT_EXPORT void* seq_remove(void* seq, uint32_t index, uint32_t element_size);
/* Frees the buffer only (not the elements' contents) and zeroes the header.
 * Null is ignored. */
FANOUT_EXPORT void seq_free_buffer(void* seq);

/* ------------------------------------------------------------------------ */
/* Generic operations driven by type codes. They walk the kinds null, void,
 * short, ushort, long, ulong, longlong, ulonglong, float, double, boolean,
 * char, octet, enum, string, any, TypeCode, objref, struct, exception,
 * sequence and alias. Other kinds (principal, union, array) cannot be walked:
 * the operation records the exception "Unsupported type code kind (%1$d)" in
 * env when env is not null, and leaves the unwalkable part alone (copy: that
 * part of the destination is zeroed; equal: the answer is 0). */

/* Frees what the value at `value` owns, deeply (strings, sequence buffers,
 * an any's value block and type code reference, object references), and
 * zeroes the value; the block at `value` itself is NOT freed: a caller that
 * owns the block frees it with mg_free afterwards. Null value or null tc is
 * ignored; parts of an unwalkable kind are left as they are (leaked). */
FANOUT_EXPORT void kel_free_generic(void* value, TypeCode tc);

/* Deep copy of `source` into a newly allocated block of tc->size bytes (the
 * caller owns it: kel_free_generic, then mg_free). `temporary` is a hint with
 * no effect here. Null source or null tc gives null. A copied sequence has
 * maximum equal to its length. */
FANOUT_EXPORT void* _generic_copy(TypeCode tc, Environment* env, const void* source,
                                  int32_t temporary);
/* Deep copy of `source` into the caller's storage at `dest` (tc->size bytes;
 * whatever was there is overwritten, not freed). A null source zeroes dest;
 * null dest or tc does nothing. When the allocator raises part way, the
 * partial copy is freed and dest left zeroed before the exception goes on. */
FANOUT_EXPORT void _t_generic_copy(TypeCode tc, Environment* env, void* dest, const void* source);
/* Deep equality: 1 when the two values have equal contents, else 0. Same
 * pointer gives 1 at once. Strings compare by bytes (null equals ""); floats
 * and doubles by their bits (as they marshal); sequences by length and
 * elements (maximum is ignored); anys by TypeCode_equal of their types and
 * then their values; object references by Object_equal. The _t_ form is the
 * same operation (kept for the generated typed functions). */
FANOUT_EXPORT int32_t _generic_equal(TypeCode tc, Environment* env, const void* a, const void* b);
FANOUT_EXPORT int32_t _t_generic_equal(TypeCode tc, Environment* env, const void* a, const void* b);

/* Builds a newly allocated struct or exception value of type tc from its
 * member values: one pointer argument per member, in member order, each the
 * address of the member's value (strings and scalars by address, sequences
 * and structs by pointer); each is deep-copied. The list ends with a null
 * pointer, written (void*)0 or nullptr, not a plain 0 (members after it are
 * left zeroed). The caller owns the result (kel_free_generic, then mg_free).
 * Raises when tc is not a struct or exception, or a member cannot be walked
 * (nothing is left allocated). */
FANOUT_EXPORT void* generic_create(TypeCode tc, ...);

/* ------------------------------------------------------------------------ */
/* The marshaller. One buffer is either an encoder or a decoder. Errors never
 * raise: the buffer's `error` becomes non-zero (ADR_ERR_*) and later calls on
 * the buffer do nothing. */

typedef struct AdrBuffer {
    uint8_t* data;     /* encoder: the bytes written (from mg_malloc); decoder: input */
    uint32_t length;   /* encoder: bytes written; decoder: input length */
    uint32_t capacity; /* encoder: bytes allocated */
    uint32_t position; /* decoder: next byte to read */
    int32_t error;     /* 0, or an ADR_ERR_* code */
    int32_t decoding;  /* 1 for a decoder */
    int32_t swap;      /* decoder: the current stream is little-endian */
    int32_t depth;     /* nesting depth of the value being walked */
    uint32_t origin;   /* alignment origin of the current encapsulation */
} AdrBuffer;

#define ADR_OK 0
#define ADR_ERR_TRUNCATED 1    /* the input ended inside a value */
#define ADR_ERR_BAD_LENGTH 2   /* a length exceeds what the input can hold */
#define ADR_ERR_BAD_BOOLEAN 3  /* a boolean octet other than 0 or 1 */
#define ADR_ERR_BAD_TYPECODE 4 /* an unknown or malformed TypeCode */
#define ADR_ERR_TOO_DEEP 5     /* nesting beyond ADR_MAX_DEPTH */
#define ADR_ERR_BAD_STRING 6   /* a string without its terminating NUL */
#define ADR_ERR_UNSUPPORTED 7  /* a type code kind the runtime cannot walk */
#define ADR_ERR_TOO_LARGE 8    /* output beyond 4 GiB */
#define ADR_MAX_DEPTH 64

/* A new, empty encoder. Free with adr_free_buf (which frees data too), or
 * take data and free only the record with mg_free. */
FANOUT_EXPORT AdrBuffer* adr_init_encode_buffer(void);
/* A new decoder over `length` bytes at `data` (not copied, not freed). */
FANOUT_EXPORT AdrBuffer* adr_init_decode_buffer(const void* data, uint32_t length);
/* Encodes the value at `value` under tc, or decodes into the storage at
 * `value` (which the caller has zeroed; decoded blocks belong to the caller
 * even when an error stops the decoding part way). */
FANOUT_EXPORT void marshal_item(AdrBuffer* buf, TypeCode tc, void* value);
/* Frees an encoder's data and the record; a decoder's record only. Null is
 * ignored. */
FANOUT_EXPORT void adr_free_buf(AdrBuffer* buf);

/* Visitors: each encodes or decodes one value, depending on the buffer. */
FANOUT_EXPORT void adr_start_struct(AdrBuffer* buf);
FANOUT_EXPORT void adr_end_struct(AdrBuffer* buf);
FANOUT_EXPORT void adr_v_short(AdrBuffer* buf, int16_t* v);
FANOUT_EXPORT void adr_v_ushort(AdrBuffer* buf, uint16_t* v);
FANOUT_EXPORT void adr_v_long(AdrBuffer* buf, int32_t* v);
FANOUT_EXPORT void adr_v_ulong(AdrBuffer* buf, uint32_t* v);
FANOUT_EXPORT void adr_v_longlong(AdrBuffer* buf, int64_t* v);
FANOUT_EXPORT void adr_v_ulonglong(AdrBuffer* buf, uint64_t* v);
FANOUT_EXPORT void adr_v_boolean(AdrBuffer* buf, uint8_t* v);
FANOUT_EXPORT void adr_v_octet(AdrBuffer* buf, uint8_t* v);
FANOUT_EXPORT void adr_v_char(AdrBuffer* buf, char* v);
FANOUT_EXPORT void adr_v_string(AdrBuffer* buf, char** v);
FANOUT_EXPORT void adr_v_any(AdrBuffer* buf, Any* v);
FANOUT_EXPORT void adr_v_TypeCode(AdrBuffer* buf, TypeCode* v);
FANOUT_EXPORT void adr_v_Object(AdrBuffer* buf, Object* v);
/* A sequence whose sequence type code is seq_tc. */
FANOUT_EXPORT void adr_v_tc_sequence(AdrBuffer* buf, TypeCode seq_tc, void* seq);

FANOUT_END_DECLS

#endif /* FANOUT_RUNTIME_H */
