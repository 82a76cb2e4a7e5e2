// filestream.cpp - streams that read a distribution from files on this
// machine.
//
// A file stream reads one file per segment, in the order of a comma-separated
// list: the files named in a type-4 key, or those the local-source search
// found. A segment that the table of contents says is complete is skipped
// without opening its file, and a partly received one starts at its
// checkpoint offset. Each file's data end with one 0 result; the reader
// counts segments from the table of contents. Pause and cancel reach a local
// read through control blocks polled from the channel between reads.

#include <cstdarg>
#include <cstring>
#include <memory>

#include "fanout/ferry.h"
#include "fanout/keys.h"
#include "fanout/log.h"
#include "fanout/properties.h"
#include "fanout/stream.h"
#include "fanout/transport.h"
#include "runtime/mg_ptr.h"
#include "stream/stream_internal.h"

namespace fanout {
namespace {

// The segment of the table of contents whose data path is `name`, or null.
const Properties* segment_for(const PropertiesList* toc, const char* name) {
    for (uint32_t i = 0; i < toc->length; ++i) {
        const char* path = properties_get_string2(&toc->buffer[i], SEGMENT_DATA_PATH_KEY, nullptr);
        if (path != nullptr && std::strcmp(path, name) == 0) {
            return &toc->buffer[i];
        }
    }
    return nullptr;
}

// Chooses the next file to read and opens it at its segment's checkpoint.
// Returns false when there is nothing to open now: the list is used up, or
// the name matches no segment (that name is then used up).
bool open_next(NetStream* s, FileList* list, bool* matched) {
    *matched = true;
    const char* name = nullptr;
    int32_t offset = 0;
    for (;;) {
        // A type-4 stream took its first name when it was opened (it also
        // names what a write creates); a read starts with that name.
        if (s->type == NET_STREAM_FILE && s->current_file != nullptr) {
            name = s->current_file;
            s->current_file = nullptr;
        } else {
            name = get_next_file(list);
        }
        if (name == nullptr) {
            return false;
        }
        // Without a table of contents the files are read whole, as listed.
        if (s->toc == nullptr) {
            offset = 0;
            break;
        }
        const Properties* segment = segment_for(s->toc, name);
        if (segment == nullptr) {
            *matched = false;
            return false;
        }
        const int32_t size = properties_get_long2(segment, SEGMENT_SIZE_KEY, 0);
        offset = properties_get_long2(segment, SEGMENT_OFFSET_KEY, 0);
        if (offset < size) {
            break;
        }
    }
    list->file = file_open(name, 0);
    if (offset != 0) {
        file_seek(list->file, static_cast<uint32_t>(offset));
    }
    return true;
}

void close_current(FileList* list) {
    File* f = list->file;
    list->file = nullptr;
    if (f != nullptr) {
        file_delete(f);
    }
}

}  // namespace
}  // namespace fanout

using namespace fanout;

extern "C" {

StreamKey* file_stream_key_new(int32_t mobile, int32_t count, ...) {
    if (count < 0) {
        count = 0;
    }
    // Two passes over the paths: their lengths, then their bytes.
    va_list args;
    va_start(args, count);
    uint32_t length = 3;
    for (int32_t i = 0; i < count; ++i) {
        const char* path = va_arg(args, const char*);
        length += static_cast<uint32_t>(path != nullptr ? std::strlen(path) : 0) + 1;
    }
    va_end(args);

    std::unique_ptr<uint8_t, MgFree> octets(static_cast<uint8_t*>(mg_calloc(1, length + 1)));
    uint8_t* o = octets.get();
    o[0] = NET_STREAM_FILE;
    o[1] = 0;
    o[2] = mobile ? 1 : 2;
    uint32_t at = 3;
    va_start(args, count);
    for (int32_t i = 0; i < count; ++i) {
        const char* path = va_arg(args, const char*);
        size_t n = path != nullptr ? std::strlen(path) : 0;
        std::memcpy(o + at, path, n);
        at += static_cast<uint32_t>(n);
        o[at++] = ',';
    }
    va_end(args);
    // The terminator replaces the last comma. Without paths it lands on
    // octet 2, the mobile flag: such a key is never mobile, deliberately.
    o[length - 1] = 0;

    auto* key = static_cast<StreamKey*>(mg_malloc(sizeof(StreamKey)));
    key->maximum = length + 1;
    key->length = length;
    key->buffer = octets.release();
    return key;
}

void stream_key_delete(StreamKey* key) {
    if (key == nullptr) {
        return;
    }
    mg_free(key->buffer);
    mg_free(key);
}

NetStream* file_stream_open(const char* list) {
    std::unique_ptr<NetStream, MgFree> s(static_cast<NetStream*>(mg_calloc(1, sizeof(NetStream))));
    s->type = NET_STREAM_FILE;
    s->block_size = NET_STREAM_BLOCK_SIZE;
    auto* record = static_cast<FileList*>(mg_calloc(1, sizeof(FileList)));
    s->source = record;
    record->list = mg_strdup(list != nullptr ? list : "");
    record->cursor = record->list;
    record->file = nullptr;
    s->current_file = get_next_file(record);
    return s.release();
}

char* get_next_file(FileList* record) {
    if (record == nullptr || record->cursor == nullptr) {
        return nullptr;
    }
    char* name = record->cursor;
    char* comma = std::strchr(name, ',');
    if (comma != nullptr) {
        *comma = '\0';
        record->cursor = comma + 1;
    } else {
        record->cursor = nullptr;
    }
    return name;
}

char* append_file(char* list, const char* name) {
    if (name == nullptr) {
        name = "";
    }
    if (list == nullptr) {
        return mg_strdup(name);
    }
    size_t a = std::strlen(list), b = std::strlen(name);
    list = static_cast<char*>(mg_realloc(list, a + b + 2));
    list[a] = ',';
    std::memcpy(list + a + 1, name, b + 1);
    return list;
}

int32_t file_stream_read(NetStream* s, void** data) {
    *data = nullptr;
    auto* list = static_cast<FileList*>(s->source);
    if (list == nullptr || s->block_size <= 0) {
        return 0;
    }
    std::unique_ptr<uint8_t, MgFree> buffer(
        static_cast<uint8_t*>(mg_calloc(1, static_cast<size_t>(s->block_size))));
    if (list->file == nullptr) {
        int32_t service = 0;
        if (s->type == NET_STREAM_FERRY && s->toc != nullptr) {
            service = ferry_download_next(s->toc, list, data);
            // A stop block that arrived while the service was waited for has
            // been read; the status is what the caller gets.
            mg_free(*data);
            *data = nullptr;
        }
        if (service != 0) {
            // The service's result stands for this read; nothing is opened.
            return service;
        }
        bool matched = false;
        if (!open_next(s, list, &matched)) {
            return 0;
        }
    }
    int32_t n = file_read(list->file, buffer.get(), s->block_size);
    if (n != 0) {
        *data = buffer.release();
        return n;
    }
    close_current(list);
    return 0;
}

int32_t is_stream_stopped(void** data) {
    *data = nullptr;
    if (ep_fanout_poll(data) == 0 || *data == nullptr) {
        return 0;
    }
    // These two lines have neither the "fanout: " prefix nor a newline.
    switch (static_cast<uint8_t*>(*data)[0]) {
        case FANOUT_STATUS_CANCEL:
            fanout_log_line(2, "from_file distribution has been canceled");
            return NET_STREAM_CANCELLED;
        case FANOUT_STATUS_PAUSE:
            fanout_log_line(2, "from_file distribution has been paused");
            return NET_STREAM_PAUSED;
        default:
            return 0;
    }
}

}  // extern "C"
