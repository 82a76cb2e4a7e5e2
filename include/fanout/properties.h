/* properties.h - typed property lists and their byte and file encodings.
 *
 * A property list (Properties, types.h) is an ordered sequence of entries,
 * each a key string and an "any" (a type code and a pointer to a value of
 * that type). Messages, segment descriptions, tables of contents and status
 * files are all property lists.
 *
 * Conventions of this family:
 *  - A list owns every entry's key and value block, deeply. Getters return
 *    pointers into the list (or scalar copies); those pointers stay valid
 *    until the entry is replaced or removed or the list is freed.
 *  - Plain puts (properties_put, properties_put_<type>) copy the key but
 *    adopt the value block: the caller hands over a block from the runtime
 *    allocator (mg_malloc) and must not free it afterwards. The _dup puts
 *    build their own value block, so the caller keeps its value.
 *  - Keys compare byte-wise and case-sensitively; the first entry with a
 *    matching key wins. properties_put never creates a second entry for a
 *    key, but a decoded list may hold one (only the first is reachable).
 *  - Failures raise catalogue exceptions (exception.h, catalog.h):
 *    36 missing key (argument: the key), 37 wrong type (the key),
 *    34 encode failure, 35 decode failure (the marshaller's error code),
 *    19 short read or size mismatch of a property file (file name, byte
 *    count, errno). Allocation failures raise the runtime's NO_MEMORY.
 *  - Unless stated, the list and key arguments must not be null.
 *  - The lists are single-threaded objects: callers serialise shared use.
 */
#ifndef FANOUT_PROPERTIES_H
#define FANOUT_PROPERTIES_H

#include <stdint.h>

#include "export.h"
#include "file.h"
#include "runtime.h"
#include "types.h"

FANOUT_BEGIN_DECLS

/* ------------------------------------------------------------------------ */
/* Construction and destruction. */

/* A new empty list (all three header words zero). Release with
 * properties_delete. */
FANOUT_EXPORT Properties* properties_new(void);

/* Zeroes the three header words of p and returns p. Nothing already there is
 * freed. */
FANOUT_EXPORT Properties* properties_init(Properties* p);

/* As properties_init, for a PropertiesList. */
FANOUT_EXPORT PropertiesList* properties_list_init(PropertiesList* p);

/* Frees the list deeply (every key and value) and then the header itself,
 * which must come from the runtime allocator (properties_new,
 * properties_clone, mg_malloc). Null is ignored. */
FANOUT_EXPORT void properties_delete(Properties* p);

/* Shallow release for lists whose values are borrowed: frees each entry's key
 * and the entry buffer, never the values and never the header; the header is
 * left zeroed. */
FANOUT_EXPORT void properties_free(Properties* p);

/* A new empty PropertiesList. Release with properties_list_delete. */
FANOUT_EXPORT PropertiesList* properties_list_new(void);

/* Frees every list of p deeply, then the header. Null is ignored. */
FANOUT_EXPORT void properties_list_delete(PropertiesList* p);

/* ------------------------------------------------------------------------ */
/* Lookup. */

/* Index of the first entry whose key equals `key`, or -1 when there is none. */
FANOUT_EXPORT int32_t properties_get_property_index(const Properties* p, const char* key);

/* 1 when an entry with `key` exists, else 0. */
FANOUT_EXPORT uint8_t properties_find(const Properties* p, const char* key);

/* The common core of the typed getters: a pointer to the value block of the
 * entry `key` (owned by the list). A missing key gives null when
 * raise_if_missing is 0 and raises 36 otherwise; an entry whose type code is
 * not structurally equal to tc raises 37 in both cases. */
FANOUT_EXPORT void* properties_get(const Properties* p, const char* key, TypeCode tc,
                                   int raise_if_missing);

/* Typed getters. The plain form raises 36 for a missing key; the form ending
 * in 2 returns `def` instead. Both raise 37 when the entry holds another
 * type. Pointers returned point into the list (or are `def`); like strchr,
 * the string getters hand back the caller's const default unqualified. */
FANOUT_EXPORT char* properties_get_string(const Properties* p, const char* key);
FANOUT_EXPORT char* properties_get_string2(const Properties* p, const char* key, const char* def);
FANOUT_EXPORT Any* properties_get_any(const Properties* p, const char* key);
FANOUT_EXPORT Any* properties_get_any2(const Properties* p, const char* key, Any* def);
/* The stored reference itself, not a duplicate. */
FANOUT_EXPORT Object properties_get_object(const Properties* p, const char* key);
FANOUT_EXPORT Object properties_get_object2(const Properties* p, const char* key, Object def);
FANOUT_EXPORT int16_t properties_get_short(const Properties* p, const char* key);
FANOUT_EXPORT int16_t properties_get_short2(const Properties* p, const char* key, int16_t def);
FANOUT_EXPORT int32_t properties_get_long(const Properties* p, const char* key);
FANOUT_EXPORT int32_t properties_get_long2(const Properties* p, const char* key, int32_t def);
FANOUT_EXPORT uint32_t properties_get_ulong(const Properties* p, const char* key);
FANOUT_EXPORT uint32_t properties_get_ulong2(const Properties* p, const char* key, uint32_t def);
FANOUT_EXPORT uint8_t properties_get_boolean(const Properties* p, const char* key);
FANOUT_EXPORT uint8_t properties_get_boolean2(const Properties* p, const char* key, uint8_t def);
FANOUT_EXPORT Kel_Types_OctetList* properties_get_OctetList(const Properties* p, const char* key);
FANOUT_EXPORT Kel_Types_OctetList* properties_get_OctetList2(const Properties* p, const char* key,
                                                             Kel_Types_OctetList* def);
FANOUT_EXPORT Properties* properties_get_properties(const Properties* p, const char* key);
FANOUT_EXPORT Properties* properties_get_properties2(const Properties* p, const char* key,
                                                     Properties* def);
FANOUT_EXPORT PropertiesList* properties_get_properties_list(const Properties* p, const char* key);
FANOUT_EXPORT PropertiesList* properties_get_properties_list2(const Properties* p, const char* key,
                                                              PropertiesList* def);

/* ------------------------------------------------------------------------ */
/* Insertion and replacement. */

/* Stores `value` (a block of type tc from the runtime allocator, adopted by
 * the list) under a copy of `key`. A new key is appended; an existing key's
 * entry is replaced in place (same position), its old key and value freed. */
FANOUT_EXPORT void properties_put(Properties* p, const char* key, TypeCode tc, void* value);

/* properties_put with the type code of the suffix; the value block is
 * adopted. For string the block is one word holding a string pointer (both
 * from the runtime allocator). */
FANOUT_EXPORT void properties_put_string(Properties* p, const char* key, char** value);
FANOUT_EXPORT void properties_put_any(Properties* p, const char* key, Any* value);
FANOUT_EXPORT void properties_put_object(Properties* p, const char* key, Object* value);
FANOUT_EXPORT void properties_put_short(Properties* p, const char* key, int16_t* value);
FANOUT_EXPORT void properties_put_long(Properties* p, const char* key, int32_t* value);
FANOUT_EXPORT void properties_put_ulong(Properties* p, const char* key, uint32_t* value);
FANOUT_EXPORT void properties_put_boolean(Properties* p, const char* key, uint8_t* value);
FANOUT_EXPORT void properties_put_OctetList(Properties* p, const char* key,
                                            Kel_Types_OctetList* value);
FANOUT_EXPORT void properties_put_properties(Properties* p, const char* key, Properties* value);
FANOUT_EXPORT void properties_put_properties_list(Properties* p, const char* key,
                                                  PropertiesList* value);

/* properties_put of a fresh deep copy of `value`; the caller keeps its value.
 * A null string stores a null string pointer. A deep copy the runtime cannot
 * make raises the exception it reports. */
FANOUT_EXPORT void properties_put_string_dup(Properties* p, const char* key, const char* value);
FANOUT_EXPORT void properties_put_any_dup(Properties* p, const char* key, const Any* value);
FANOUT_EXPORT void properties_put_object_dup(Properties* p, const char* key, Object value);
FANOUT_EXPORT void properties_put_short_dup(Properties* p, const char* key, int16_t value);
FANOUT_EXPORT void properties_put_long_dup(Properties* p, const char* key, int32_t value);
FANOUT_EXPORT void properties_put_ulong_dup(Properties* p, const char* key, uint32_t value);
FANOUT_EXPORT void properties_put_boolean_dup(Properties* p, const char* key, uint8_t value);
FANOUT_EXPORT void properties_put_OctetList_dup(Properties* p, const char* key,
                                                const Kel_Types_OctetList* value);
FANOUT_EXPORT void properties_put_properties_dup(Properties* p, const char* key,
                                                 const Properties* value);
FANOUT_EXPORT void properties_put_properties_list_dup(Properties* p, const char* key,
                                                      const PropertiesList* value);

/* ------------------------------------------------------------------------ */
/* Removal. */

/* Takes the first entry `key` out of the list (later entries move down one
 * place, keeping their order) and returns it as a new block: the caller owns
 * the block, its key and its value (release with kel_free_generic under
 * TC_Kel_Fanout2_Property, then mg_free). Null when the key is absent. */
FANOUT_EXPORT Property* properties_remove(Properties* p, const char* key);

/* Removes the first entry `key` and frees it deeply; an absent key is
 * ignored. */
FANOUT_EXPORT void properties_remove_and_destroy(Properties* p, const char* key);

/* ------------------------------------------------------------------------ */
/* Copying and comparison. */

/* A new deep copy of src; release with properties_delete. */
FANOUT_EXPORT Properties* properties_clone(const Properties* src);
/* A new deep copy of src; release with properties_list_delete. */
FANOUT_EXPORT PropertiesList* properties_list_clone(const PropertiesList* src);

/* 1 when the keys are equal and the two values marshal to the same bytes. */
FANOUT_EXPORT uint8_t property_equal(const Property* a, const Property* b);

/* 1 when `subject` matches `pattern`: the keys must be equal; then, when the
 * pattern holds a string, its value is a wildcard pattern (match(),
 * pathname.h) applied to the subject's value, which is taken as a string
 * without looking at its type code (the subject must hold a string);
 * otherwise the values must be deeply equal as for property_equal. */
FANOUT_EXPORT uint8_t property_match(const Property* pattern, const Property* subject);

/* ------------------------------------------------------------------------ */
/* Byte encoding. */

/* Marshals the value at `value` under tc into a new buffer; stores its
 * address and length in *out_data and *out_len. The caller frees the data
 * with mg_free. A marshalling failure raises 34 with the marshaller's code
 * and leaves the out parameters untouched. */
FANOUT_EXPORT void properties_encode(TypeCode tc, const void* value, void** out_data,
                                     uint32_t* out_len);

/* Unmarshals `len` bytes at `data` under tc into the caller's storage at
 * `out` (normally a zeroed header). `data` is neither kept nor freed. A
 * failure raises 35 with the marshaller's code; whatever was decoded before
 * the failure stays in `out`, owned by the caller (free it with
 * kel_free_generic under tc). Never reads past `len` bytes. */
FANOUT_EXPORT void properties_decode(TypeCode tc, const void* data, uint32_t len, void* out);

/* ------------------------------------------------------------------------ */
/* Files. Three layouts, N being the length of the marshalled list:
 *   plain     N as 4 bytes in host order, then the N bytes;
 *   improved  a version word 1 and N, each 4 bytes big-endian, then the N
 *             bytes (the version is not checked when read);
 *   bare      the N bytes alone (N is the file's size).
 * Readers decode into `out` (normally a zeroed header, owned by the caller,
 * who frees it with kel_free_generic under TC_Kel_Fanout2_Properties even
 * when the read raised part way through decoding). The checked readers raise
 * 19 when the file is shorter than its length words say or its size is not
 * exactly the header plus N. Temporary buffers and file records are released
 * on every path. Files are written in place with permission 0600; a failed
 * save leaves a partial file behind. File wrapper failures (open, create,
 * write, size) raise the wrapper's own messages (file.h). */

/* Writes p to the open file f in the plain layout. */
FANOUT_EXPORT void properties_write(const Properties* p, File* f);
/* Writes p to the open file f in the improved layout. */
FANOUT_EXPORT void properties_write_improved(const Properties* p, File* f);
/* Reads a plain-layout list from the open file f, from its current position;
 * f's path is used for the size check. */
FANOUT_EXPORT void properties_read(Properties* out, File* f);
/* Reads an improved-layout list from the open file f. */
FANOUT_EXPORT void properties_read_improved(Properties* out, File* f);
/* Reads a bare-layout list: as many bytes as the file's size. A short read is
 * not checked; the decoder then reports 35. */
FANOUT_EXPORT void properties_read_without_len(Properties* out, File* f);

/* Create or truncate `path` and write p in the given layout. */
FANOUT_EXPORT void properties_save(const Properties* p, const char* path);
FANOUT_EXPORT void properties_save_improved(const Properties* p, const char* path);
FANOUT_EXPORT void properties_save_without_len(const Properties* p, const char* path);

/* Open `path` read-only and read it in the given layout into `out`. */
FANOUT_EXPORT void properties_load(Properties* out, const char* path);
FANOUT_EXPORT void properties_load_improved(Properties* out, const char* path);
FANOUT_EXPORT void properties_load_without_len(Properties* out, const char* path);

FANOUT_END_DECLS

#endif /* FANOUT_PROPERTIES_H */
