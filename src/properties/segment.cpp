// segment.cpp - the Segment and Toc views over segment descriptions.
//
// A Segment reads the SEGMENT_* keys of one description into typed fields
// that point into the description's list; a Toc holds a table of contents
// (a PropertiesList) and one Segment per element. Ownership follows how a
// record was made: a stand-alone Segment owns its list, a Segment inside a
// Toc only its own block and aux_data, and a Toc owns its list unless it was
// made by toc_from_properties, which borrows it.

#include <memory>

#include "fanout/keys.h"
#include "fanout/properties.h"
#include "fanout/segment.h"
#include "runtime/mg_ptr.h"

namespace fanout {
namespace {

// A fresh header holding a deep copy of src under tc. When `check` is set, a
// copy the runtime reports as failed raises its exception; otherwise the
// report is dropped: copying a table of contents has never raised for it,
// and its callers do not expect it to.
template <typename T>
T* copy_list(TypeCode tc, const T* src, bool check) {
    std::unique_ptr<T, MgFree> copy(static_cast<T*>(mg_calloc(1, sizeof(T))));
    Environment env{};
    _t_generic_copy(tc, &env, copy.get(), src);
    if (check) {
        ev_to_exception(&env);
    } else {
        ev_clear(&env);
    }
    return copy.release();
}

// Builds a Toc and its segment views over `list` (the steps shared by the
// three Toc constructors). When a description cannot be read, the Toc and
// the views built so far are released before the raise passes on, and so is
// the list when the Toc was to own it.
Toc* build_toc(PropertiesList* list, bool owns_list) {
    auto* t = static_cast<Toc*>(mg_calloc(1, sizeof(Toc)));
    t->count = list->length;
    t->list = list;
    if (t->count == 0) {
        t->segments = nullptr;
        return t;
    }
    try {
        t->segments = static_cast<Segment**>(mg_calloc(t->count, sizeof(Segment*)));
        for (uint32_t i = 0; i < t->count; ++i) {
            t->segments[i] = segment_from_properties(&list->buffer[i]);
        }
    } catch (...) {
        if (owns_list) {
            toc_delete(t);
        } else {
            toc_free_buffer(t);
            mg_free(t);
        }
        throw;
    }
    return t;
}

}  // namespace
}  // namespace fanout

using namespace fanout;

extern "C" {

Segment* segment_new(void) {
    return static_cast<Segment*>(mg_calloc(1, sizeof(Segment)));
}

// The fields are read in this order, which decides the failure reported
// first when a description is malformed.
Segment* segment_from_properties(Properties* p) {
    if (p == nullptr) return nullptr;
    std::unique_ptr<Segment, MgFree> s(segment_new());
    s->props = p;
    s->id = properties_get_string(p, SEGMENT_ID_KEY);
    s->version = properties_get_string(p, SEGMENT_VERSION_KEY);
    s->location = properties_get_string2(p, SEGMENT_LOCATION_KEY, nullptr);
    s->size = properties_get_long2(p, SEGMENT_SIZE_KEY, 0);
    s->offset = properties_get_long2(p, SEGMENT_OFFSET_KEY, 0);
    s->ctime = properties_get_long2(p, SEGMENT_CTIME_KEY, 0);
    s->mtime = properties_get_long2(p, SEGMENT_MTIME_KEY, 0);
    s->checksum = properties_get_OctetList2(p, SEGMENT_CHECKSUM_KEY, nullptr);
    s->disposable = properties_get_boolean2(p, SEGMENT_DISPOSABLE_KEY, 0);
    s->is_result = properties_get_boolean2(p, SEGMENT_IS_RESULT_KEY, 0);
    s->is_collection = properties_get_boolean2(p, SEGMENT_IS_COLLECTION_KEY, 0);
    s->delete_at_source = properties_get_boolean2(p, SEGMENT_DELETE_AT_SOURCE_KEY, 0);
    s->ferry_manager = properties_get_string2(p, SEGMENT_FERRY_MANAGER, nullptr);
    s->ferry_packageid = properties_get_string2(p, SEGMENT_FERRY_PACKAGEID, nullptr);
    s->ferry_destination = properties_get_string2(p, SEGMENT_FERRY_DESTINATION, nullptr);
    s->ferry_username = properties_get_string2(p, SEGMENT_FERRY_USERNAME, nullptr);
    s->ferry_password = properties_get_string2(p, SEGMENT_FERRY_PASSWORD, nullptr);
    return s.release();
}

Segment* segment_new_from_properties(const Properties* p) {
    if (p == nullptr) return nullptr;
    Properties* copy = copy_list(TC_Kel_Fanout2_Properties, p, true);
    try {
        return segment_from_properties(copy);
    } catch (...) {
        properties_delete(copy);
        throw;
    }
}

// A record made by segment_new has no list yet; its clone is another empty
// record.
Segment* segment_clone(const Segment* s) {
    if (s->props == nullptr) return segment_new();
    return segment_new_from_properties(s->props);
}

void segment_delete(Segment* s) {
    if (s->props != nullptr) {
        kel_free_generic(s->props, TC_Kel_Fanout2_Properties);
        mg_free(s->props);
    }
    mg_free(s->aux_data);
    mg_free(s);
}

Toc* toc_new_from_properties(const PropertiesList* pl) {
    if (pl == nullptr) return nullptr;
    return build_toc(copy_list(TC_Kel_Fanout2_PropertiesList, pl, false), true);
}

Toc* toc_from_properties(PropertiesList* pl) {
    return build_toc(pl, false);
}

Toc* toc_clone(const Toc* t) {
    return build_toc(properties_list_clone(t->list), true);
}

void toc_free_buffer(Toc* t) {
    if (t == nullptr) return;
    for (uint32_t i = 0; i < t->count; ++i) {
        Segment* s = t->segments[i];
        if (s == nullptr) continue;
        mg_free(s->aux_data);
        mg_free(s);
    }
    mg_free(t->segments);
    t->segments = nullptr;
}

void toc_delete(Toc* t) {
    if (t == nullptr) return;
    toc_free_buffer(t);
    kel_free_generic(t->list, TC_Kel_Fanout2_PropertiesList);
    mg_free(t->list);
    mg_free(t);
}

}  // extern "C"
