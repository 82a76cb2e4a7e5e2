// object.cpp - object references: reference-counted, immutable records.
//
// A reference names a remote object by repository id and the tagged profiles
// of its IOR. The record never changes after Object_new, so sharing it needs
// only an atomic count; the last Object_release frees it. Nil is the null
// pointer.

#include <atomic>
#include <cstring>
#include <new>

#include "fanout/runtime.h"

struct ObjectRec {
    std::atomic<int32_t> refs;
    char* type_id;
    uint32_t profile_count;
    ObjectProfile* profiles;
};

namespace {

// Frees a record whose fields are either filled or still null/zero.
void destroy(ObjectRec* rec) {
    if (rec->profiles != nullptr) {
        for (uint32_t i = 0; i < rec->profile_count; ++i) mg_free(rec->profiles[i].data.buffer);
        mg_free(rec->profiles);
    }
    mg_free(rec->type_id);
    rec->~ObjectRec();
    mg_free(rec);
}

}  // namespace

extern "C" {

FANOUT_EXPORT Object Object_new(const char* type_id, const ObjectProfile* profiles,
                                uint32_t count) {
    if (profiles == nullptr) count = 0;
    auto* rec = new (mg_malloc(sizeof(ObjectRec))) ObjectRec{{1}, nullptr, 0, nullptr};
    try {
        rec->type_id = mg_strdup(type_id != nullptr ? type_id : "");
        if (count > 0) {
            rec->profiles = static_cast<ObjectProfile*>(mg_calloc(count, sizeof(ObjectProfile)));
            rec->profile_count = count;
        }
        for (uint32_t i = 0; i < count; ++i) {
            const ObjectProfile& from = profiles[i];
            ObjectProfile& to = rec->profiles[i];
            to.tag = from.tag;
            // A body without a buffer is taken as empty.
            uint32_t length = from.data.buffer != nullptr ? from.data.length : 0;
            if (length > 0) {
                to.data.buffer = static_cast<uint8_t*>(mg_malloc(length));
                std::memcpy(to.data.buffer, from.data.buffer, length);
            }
            to.data.maximum = length;
            to.data.length = length;
        }
    } catch (...) {
        destroy(rec);
        throw;
    }
    return rec;
}

FANOUT_EXPORT Object Object_duplicate(Object obj) {
    if (obj != nullptr) obj->refs.fetch_add(1, std::memory_order_relaxed);
    return obj;
}

FANOUT_EXPORT void Object_release(Object obj) {
    if (obj != nullptr && obj->refs.fetch_sub(1, std::memory_order_acq_rel) == 1) destroy(obj);
}

FANOUT_EXPORT const char* Object_type_id(Object obj) {
    return obj != nullptr ? obj->type_id : "";
}

FANOUT_EXPORT uint32_t Object_profile_count(Object obj) {
    return obj != nullptr ? obj->profile_count : 0;
}

FANOUT_EXPORT const ObjectProfile* Object_profile(Object obj, uint32_t index) {
    if (obj == nullptr || index >= obj->profile_count) return nullptr;
    return &obj->profiles[index];
}

FANOUT_EXPORT int32_t Object_equal(Object a, Object b) {
    if (a == b) return 1;
    if (a == nullptr || b == nullptr) return 0;
    if (std::strcmp(a->type_id, b->type_id) != 0 || a->profile_count != b->profile_count) {
        return 0;
    }
    for (uint32_t i = 0; i < a->profile_count; ++i) {
        const ObjectProfile& x = a->profiles[i];
        const ObjectProfile& y = b->profiles[i];
        if (x.tag != y.tag || x.data.length != y.data.length) return 0;
        if (x.data.length > 0 && std::memcmp(x.data.buffer, y.data.buffer, x.data.length) != 0) {
            return 0;
        }
    }
    return 1;
}

}  // extern "C"
