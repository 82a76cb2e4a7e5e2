// properties.cpp - the in-memory property list: creation, lookup, typed get
// and put, removal, cloning, comparison and wildcard matching.
//
// A list is the runtime's three-word sequence of Property entries, each a key
// copy and an "any" whose type code and value block the list owns. Lookup is
// a linear strcmp scan from the front (lists hold tens of keys), and entries
// keep insertion order because the encodings write them in that order.
// Replacement happens in place so that an entry keeps its position.
//
// Releasing follows the runtime's rule that kel_free_generic frees what a
// value owns but never the block it is handed: every place that frees an
// entry or a header calls mg_free on the block afterwards.

#include <cstring>
#include <memory>

#include "fanout/catalog.h"
#include "fanout/exception.h"
#include "fanout/file.h"
#include "fanout/pathname.h"
#include "fanout/properties.h"
#include "runtime/mg_ptr.h"
#include "runtime/raise.h"

namespace fanout {
namespace {

constexpr int32_t kMissingKey = 36;
constexpr int32_t kWrongType = 37;

// A fresh zeroed header of type T holding a deep copy of src under tc. If the
// runtime reports that it could not copy, the header is released and the
// reported exception raised.
template <typename T>
T* deep_copy(TypeCode tc, const T* src) {
    MgPtr<T> copy(static_cast<T*>(mg_calloc(1, sizeof(T))));
    Environment env{};
    _t_generic_copy(tc, &env, copy.get(), src);
    // The contents of a failed copy are in a state the runtime does not
    // describe, so only the header is released here.
    ev_to_exception(&env);
    return copy.release();
}

// A fresh block of `size` bytes holding a deep copy of the value at src.
void* copy_value(TypeCode tc, size_t size, const void* src) {
    MgPtr<void> block(mg_malloc(size));
    Environment env{};
    _t_generic_copy(tc, &env, block.get(), src);
    ev_to_exception(&env);
    return block.release();
}

template <typename T>
T* new_scalar(T value) {
    T* block = static_cast<T*>(mg_malloc(sizeof(T)));
    *block = value;
    return block;
}

}  // namespace
}  // namespace fanout

using namespace fanout;

extern "C" {

// ---------------------------------------------------------------------------
// Construction and destruction.

Properties* properties_new(void) {
    return static_cast<Properties*>(mg_calloc(1, sizeof(Properties)));
}

Properties* properties_init(Properties* p) {
    p->maximum = 0;
    p->length = 0;
    p->buffer = nullptr;
    return p;
}

PropertiesList* properties_list_init(PropertiesList* p) {
    p->maximum = 0;
    p->length = 0;
    p->buffer = nullptr;
    return p;
}

// The generic free releases the entries and the buffer; the runtime leaves
// the header it was handed alone, so it is released here as well. (Removal
// and replacement below release their entry block the same way.)
void properties_delete(Properties* p) {
    if (p == nullptr) return;
    kel_free_generic(p, TC_Kel_Fanout2_Properties);
    mg_free(p);
}

void properties_free(Properties* p) {
    for (uint32_t i = 0; i < p->length; ++i) mg_free(p->buffer[i].key);
    seq_free_buffer(p);
}

PropertiesList* properties_list_new(void) {
    return static_cast<PropertiesList*>(mg_calloc(1, sizeof(PropertiesList)));
}

void properties_list_delete(PropertiesList* p) {
    if (p == nullptr) return;
    kel_free_generic(p, TC_Kel_Fanout2_PropertiesList);
    mg_free(p);
}

// ---------------------------------------------------------------------------
// Lookup.

int32_t properties_get_property_index(const Properties* p, const char* key) {
    for (uint32_t i = 0; i < p->length; ++i) {
        // A decoded entry never has a null key, but a hand-built one might;
        // such an entry matches nothing.
        const char* k = p->buffer[i].key;
        if (k != nullptr && std::strcmp(k, key) == 0) return static_cast<int32_t>(i);
    }
    return -1;
}

uint8_t properties_find(const Properties* p, const char* key) {
    return properties_get_property_index(p, key) != -1 ? 1 : 0;
}

void* properties_get(const Properties* p, const char* key, TypeCode tc, int raise_if_missing) {
    int32_t i = properties_get_property_index(p, key);
    if (i == -1) {
        if (raise_if_missing == 0) return nullptr;
        raise_catalogued(kMissingKey, key);
    }
    const Any& value = p->buffer[i].value;
    if (!TypeCode_equal(value._type, tc)) {
        raise_catalogued(kWrongType, key);
    }
    return value._value;
}

// ---------------------------------------------------------------------------
// Typed getters. The scalar forms read through the stored block; the
// aggregate forms return the block itself.

char* properties_get_string(const Properties* p, const char* key) {
    return *static_cast<char**>(properties_get(p, key, TC_string, 1));
}

char* properties_get_string2(const Properties* p, const char* key, const char* def) {
    void* v = properties_get(p, key, TC_string, 0);
    return v != nullptr ? *static_cast<char**>(v) : const_cast<char*>(def);
}

Any* properties_get_any(const Properties* p, const char* key) {
    return static_cast<Any*>(properties_get(p, key, TC_any, 1));
}

Any* properties_get_any2(const Properties* p, const char* key, Any* def) {
    void* v = properties_get(p, key, TC_any, 0);
    return v != nullptr ? static_cast<Any*>(v) : def;
}

Object properties_get_object(const Properties* p, const char* key) {
    return *static_cast<Object*>(properties_get(p, key, TC_Object, 1));
}

Object properties_get_object2(const Properties* p, const char* key, Object def) {
    void* v = properties_get(p, key, TC_Object, 0);
    return v != nullptr ? *static_cast<Object*>(v) : def;
}

int16_t properties_get_short(const Properties* p, const char* key) {
    return *static_cast<int16_t*>(properties_get(p, key, TC_short, 1));
}

int16_t properties_get_short2(const Properties* p, const char* key, int16_t def) {
    void* v = properties_get(p, key, TC_short, 0);
    return v != nullptr ? *static_cast<int16_t*>(v) : def;
}

int32_t properties_get_long(const Properties* p, const char* key) {
    return *static_cast<int32_t*>(properties_get(p, key, TC_long, 1));
}

int32_t properties_get_long2(const Properties* p, const char* key, int32_t def) {
    void* v = properties_get(p, key, TC_long, 0);
    return v != nullptr ? *static_cast<int32_t*>(v) : def;
}

uint32_t properties_get_ulong(const Properties* p, const char* key) {
    return *static_cast<uint32_t*>(properties_get(p, key, TC_ulong, 1));
}

uint32_t properties_get_ulong2(const Properties* p, const char* key, uint32_t def) {
    void* v = properties_get(p, key, TC_ulong, 0);
    return v != nullptr ? *static_cast<uint32_t*>(v) : def;
}

uint8_t properties_get_boolean(const Properties* p, const char* key) {
    return *static_cast<uint8_t*>(properties_get(p, key, TC_boolean, 1));
}

uint8_t properties_get_boolean2(const Properties* p, const char* key, uint8_t def) {
    void* v = properties_get(p, key, TC_boolean, 0);
    return v != nullptr ? *static_cast<uint8_t*>(v) : def;
}

Kel_Types_OctetList* properties_get_OctetList(const Properties* p, const char* key) {
    return static_cast<Kel_Types_OctetList*>(properties_get(p, key, TC_Kel_Types_OctetList, 1));
}

Kel_Types_OctetList* properties_get_OctetList2(const Properties* p, const char* key,
                                               Kel_Types_OctetList* def) {
    void* v = properties_get(p, key, TC_Kel_Types_OctetList, 0);
    return v != nullptr ? static_cast<Kel_Types_OctetList*>(v) : def;
}

Properties* properties_get_properties(const Properties* p, const char* key) {
    return static_cast<Properties*>(properties_get(p, key, TC_Kel_Fanout2_Properties, 1));
}

Properties* properties_get_properties2(const Properties* p, const char* key, Properties* def) {
    void* v = properties_get(p, key, TC_Kel_Fanout2_Properties, 0);
    return v != nullptr ? static_cast<Properties*>(v) : def;
}

PropertiesList* properties_get_properties_list(const Properties* p, const char* key) {
    return static_cast<PropertiesList*>(properties_get(p, key, TC_Kel_Fanout2_PropertiesList, 1));
}

PropertiesList* properties_get_properties_list2(const Properties* p, const char* key,
                                                PropertiesList* def) {
    void* v = properties_get(p, key, TC_Kel_Fanout2_PropertiesList, 0);
    return v != nullptr ? static_cast<PropertiesList*>(v) : def;
}

// ---------------------------------------------------------------------------
// Insertion and replacement.

void properties_put(Properties* p, const char* key, TypeCode tc, void* value) {
    int32_t i = properties_get_property_index(p, key);
    // The key copy is held until the entry holding it is in the list, so a
    // raise from the sequence growth does not lose it.
    MgPtr<char> key_copy(mg_strdup(key));
    Property entry{key_copy.get(), Any{tc, value}};
    if (i == -1) {
        seq_add(p, &entry, sizeof(Property));
        key_copy.release();
        return;
    }
    auto* old =
        static_cast<Property*>(seq_replace(p, &entry, static_cast<uint32_t>(i), sizeof(Property)));
    key_copy.release();
    kel_free_generic(old, TC_Kel_Fanout2_Property);
    mg_free(old);
}

void properties_put_string(Properties* p, const char* key, char** value) {
    properties_put(p, key, TC_string, value);
}

void properties_put_any(Properties* p, const char* key, Any* value) {
    properties_put(p, key, TC_any, value);
}

void properties_put_object(Properties* p, const char* key, Object* value) {
    properties_put(p, key, TC_Object, value);
}

void properties_put_short(Properties* p, const char* key, int16_t* value) {
    properties_put(p, key, TC_short, value);
}

void properties_put_long(Properties* p, const char* key, int32_t* value) {
    properties_put(p, key, TC_long, value);
}

void properties_put_ulong(Properties* p, const char* key, uint32_t* value) {
    properties_put(p, key, TC_ulong, value);
}

void properties_put_boolean(Properties* p, const char* key, uint8_t* value) {
    properties_put(p, key, TC_boolean, value);
}

void properties_put_OctetList(Properties* p, const char* key, Kel_Types_OctetList* value) {
    properties_put(p, key, TC_Kel_Types_OctetList, value);
}

void properties_put_properties(Properties* p, const char* key, Properties* value) {
    properties_put(p, key, TC_Kel_Fanout2_Properties, value);
}

void properties_put_properties_list(Properties* p, const char* key, PropertiesList* value) {
    properties_put(p, key, TC_Kel_Fanout2_PropertiesList, value);
}

// The _dup forms build the value block, then adopt it as the plain forms do.

void properties_put_string_dup(Properties* p, const char* key, const char* value) {
    MgPtr<char*> block(static_cast<char**>(mg_malloc(sizeof(char*))));
    *block = mg_strdup(value);
    properties_put(p, key, TC_string, block.get());
    block.release();
}

void properties_put_any_dup(Properties* p, const char* key, const Any* value) {
    properties_put(p, key, TC_any, copy_value(TC_any, sizeof(Any), value));
}

void properties_put_object_dup(Properties* p, const char* key, Object value) {
    properties_put(p, key, TC_Object, copy_value(TC_Object, sizeof(Object), &value));
}

void properties_put_short_dup(Properties* p, const char* key, int16_t value) {
    properties_put(p, key, TC_short, new_scalar(value));
}

void properties_put_long_dup(Properties* p, const char* key, int32_t value) {
    properties_put(p, key, TC_long, new_scalar(value));
}

void properties_put_ulong_dup(Properties* p, const char* key, uint32_t value) {
    properties_put(p, key, TC_ulong, new_scalar(value));
}

void properties_put_boolean_dup(Properties* p, const char* key, uint8_t value) {
    properties_put(p, key, TC_boolean, new_scalar(value));
}

void properties_put_OctetList_dup(Properties* p, const char* key,
                                  const Kel_Types_OctetList* value) {
    properties_put(p, key, TC_Kel_Types_OctetList,
                   copy_value(TC_Kel_Types_OctetList, sizeof(Kel_Types_OctetList), value));
}

void properties_put_properties_dup(Properties* p, const char* key, const Properties* value) {
    properties_put(p, key, TC_Kel_Fanout2_Properties, properties_clone(value));
}

void properties_put_properties_list_dup(Properties* p, const char* key,
                                        const PropertiesList* value) {
    properties_put(p, key, TC_Kel_Fanout2_PropertiesList, properties_list_clone(value));
}

// ---------------------------------------------------------------------------
// Removal.

Property* properties_remove(Properties* p, const char* key) {
    int32_t i = properties_get_property_index(p, key);
    if (i == -1) return nullptr;
    return static_cast<Property*>(seq_remove(p, static_cast<uint32_t>(i), sizeof(Property)));
}

void properties_remove_and_destroy(Properties* p, const char* key) {
    Property* entry = properties_remove(p, key);
    if (entry == nullptr) return;
    kel_free_generic(entry, TC_Kel_Fanout2_Property);
    mg_free(entry);
}

// ---------------------------------------------------------------------------
// Copying and comparison.

Properties* properties_clone(const Properties* src) {
    return deep_copy(TC_Kel_Fanout2_Properties, src);
}

PropertiesList* properties_list_clone(const PropertiesList* src) {
    return deep_copy(TC_Kel_Fanout2_PropertiesList, src);
}

uint8_t property_equal(const Property* a, const Property* b) {
    if (std::strcmp(a->key, b->key) != 0) return 0;
    Environment env{};
    uint8_t equal = zel_generic_equal(TC_any, &env, &a->value, &b->value);
    ev_clear(&env);
    return equal;
}

uint8_t property_match(const Property* pattern, const Property* subject) {
    if (std::strcmp(pattern->key, subject->key) != 0) return 0;
    if (TypeCode_equal(pattern->value._type, TC_string)) {
        // Only the pattern's type is tested: the subject's value is read as
        // a string whatever its type code says. Callers match string
        // patterns against string subjects.
        const char* pat = *static_cast<char* const*>(pattern->value._value);
        const char* str = *static_cast<char* const*>(subject->value._value);
        return match(pat, str) == 0 ? 1 : 0;
    }
    Environment env{};
    uint8_t equal = zel_generic_equal(TC_any, &env, &pattern->value, &subject->value);
    ev_clear(&env);
    return equal;
}

}  // extern "C"
