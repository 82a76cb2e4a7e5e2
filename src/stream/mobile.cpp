// mobile.cpp - byte counts in the progress file of a mobile endpoint.
//
// A stream to a mobile endpoint records how much of the distribution has
// arrived, so that the endpoint's user can watch it. The file gets the
// expected total at the first read and the received count as reads pass,
// but is rewritten only when more than 10240 bytes have gathered since the
// last write, and always at the moment the count reaches the total.

#include <memory>

#include "fanout/keys.h"
#include "fanout/log.h"
#include "fanout/properties.h"
#include "fanout/stream.h"
#include "runtime/mg_ptr.h"

namespace fanout {
namespace {

constexpr int32_t kWriteThreshold = 10240;

// Failure texts of the read-progress updates: 18 blanks before the id for a
// failed read, 21 for a count. Both are kept as they are.
constexpr const char* kProgressError18 =
    "fanout: Couldn't write progress file for distribution                  %s\n";
constexpr const char* kProgressCount21 =
    "fanout: Couldn't write progress file for distribution                     %s\n";

int64_t value_of(const Int64Length* n) {
    return n == nullptr ? 0 : int64_t{n->thousands} * 1000 + n->units;
}

void put_length(Properties* p, const char* key, const Int64Length* n) {
    std::unique_ptr<char, MgFree> text(int64_length_to_string(n));
    properties_put_string_dup(p, key, text.get());
}

void ensure_lengths(NetStream* s) {
    if (s->total_length == nullptr) {
        s->total_length = int64_length_new();
    }
    if (s->current_length == nullptr) {
        s->current_length = int64_length_new();
    }
}

}  // namespace
}  // namespace fanout

using namespace fanout;

extern "C" {

void mobile_ep_create_progress(NetStream* s, const char* distid) {
    // A record that cannot be made (no memory, a directory name too long)
    // leaves the stream without a progress file; the stream goes on.
    s->mstat = mstat_new(distid, 0);
    if (s->mstat == nullptr) {
        return;
    }
    Properties* p = s->mstat->properties;
    properties_put_string_dup(p, "msid", distid);
    properties_put_boolean_dup(p, "err", 0);
    properties_put_boolean_dup(p, "close", 0);
    properties_put_boolean_dup(p, "paused", 0);
}

void mobile_ep_init_progress(NetStream* s) {
    // A restarted distribution starts from what its segments already hold.
    int64_length_delete(s->total_length);
    int64_length_delete(s->current_length);
    s->total_length = nullptr;
    s->current_length = nullptr;
    ensure_lengths(s);
    if (s->toc != nullptr) {
        for (uint32_t i = 0; i < s->toc->length; ++i) {
            const Properties* segment = &s->toc->buffer[i];
            int64_length_add(s->total_length, properties_get_long2(segment, SEGMENT_SIZE_KEY, 0));
            int64_length_add(s->current_length,
                             properties_get_long2(segment, SEGMENT_OFFSET_KEY, 0));
        }
    }
    if (s->mstat != nullptr) {
        put_length(s->mstat->properties, "t_len", s->total_length);
    }
}

void mobile_ep_update_progress(NetStream* s, int32_t count) {
    if (s->mstat == nullptr) {
        return;
    }
    if (count < 0) {
        properties_put_boolean_dup(s->mstat->properties, "err", 1);
        if (mstat_save(s->mstat) != 0) {
            LogQ(1, kProgressError18, s->mstat->distid);
        }
        return;
    }
    if (count == 0) {
        return;
    }
    ensure_lengths(s);
    s->pending += count - 1;
    const int64_t reached = value_of(s->current_length) + s->pending;
    if (s->pending <= kWriteThreshold && reached != value_of(s->total_length)) {
        return;
    }
    int64_length_add(s->current_length, s->pending);
    put_length(s->mstat->properties, "c_len", s->current_length);
    s->pending = 0;
    if (mstat_save(s->mstat) != 0) {
        LogQ(1, kProgressCount21, s->mstat->distid);
    }
}

}  // extern "C"
