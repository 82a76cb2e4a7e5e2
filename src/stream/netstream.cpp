// netstream.cpp - the stream record: open, read, write, close.
//
// One handle serves every kind of stream. The key's octet 0 selects where the
// data come from or go to: the process's channel to the peer (types 2 and 3,
// transport.h), files on this machine (types 4 and 6 to 11, filestream.cpp),
// or a framework I/O channel (type 1, only closed here). Blocks received from
// the network start with a status octet (1 data, 2 cancelled, 3 paused);
// blocks written to the network go out one at a time, each answered by the
// peer before the next. A mobile stream keeps a progress file (mstat.cpp,
// mobile.cpp) that this file updates on pause, error, close and on request.

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "fanout/catalog.h"
#include "fanout/exception.h"
#include "fanout/ferry.h"
#include "fanout/log.h"
#include "fanout/pathname.h"
#include "fanout/properties.h"
#include "fanout/stream.h"
#include "fanout/transport.h"
#include "runtime/mg_ptr.h"
#include "runtime/raise.h"
#include "stream/stream_internal.h"

namespace fanout {
namespace {

// The "Couldn't write progress file" texts differ only in the run of blanks
// before the identifier: 14 for close and the "paused" update, 18 for the
// status and key updates. They are kept apart on purpose.
constexpr const char* kProgress14 =
    "fanout: Couldn't write progress file for distribution              %s\n";
constexpr const char* kProgress18 =
    "fanout: Couldn't write progress file for distribution                  %s\n";

bool is_file_type(uint32_t type) {
    return type >= 4 && type <= 11;
}

// The write buffer carries its capacity in a word before the bytes, so that a
// second net_stream_write_begin that brings a larger block size can grow it
// instead of writing past it. `buffer` points at the bytes.
constexpr size_t kBufferHeader = sizeof(uint64_t);

uint8_t* buffer_new(uint32_t capacity) {
    auto* block = static_cast<uint8_t*>(mg_malloc(kBufferHeader + capacity));
    uint64_t cap = capacity;
    std::memcpy(block, &cap, sizeof cap);
    return block + kBufferHeader;
}

uint32_t buffer_capacity(const uint8_t* buffer) {
    uint64_t cap;
    std::memcpy(&cap, buffer - kBufferHeader, sizeof cap);
    return static_cast<uint32_t>(cap);
}

void buffer_free(uint8_t* buffer) {
    if (buffer != nullptr) {
        mg_free(buffer - kBufferHeader);
    }
}

uint8_t* buffer_grow(uint8_t* buffer, uint32_t capacity) {
    auto* block =
        static_cast<uint8_t*>(mg_realloc(buffer - kBufferHeader, kBufferHeader + capacity));
    uint64_t cap = capacity;
    std::memcpy(block, &cap, sizeof cap);
    return block + kBufferHeader;
}

int32_t be32(const uint8_t* p) {
    return static_cast<int32_t>((uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) |
                                (uint32_t{p[2]} << 8) | uint32_t{p[3]});
}

// Waits for the peer's reply (21) and returns its signed status.
int32_t await_reply(IpcHandle handle) {
    uint8_t reply[FANOUT_REPLY_SIZE];
    recv_struct(handle, FANOUT_MSG_REPLY, reply, sizeof reply);
    return be32(reply + 4);
}

void send_end(IpcHandle handle) {
    net_send_protected(handle, nullptr, 0, FANOUT_MSG_END, ep_session_id());
}

// Sends `len` bytes of the buffer as one block: to the output file for a file
// stream, else as a data message answered by a reply. Returns the reply's
// status (0 for files).
int32_t send_block(NetStream* s, const uint8_t* bytes, uint32_t len) {
    if (s->type == NET_STREAM_FILE) {
        file_write(s->out_file, bytes, static_cast<int32_t>(len));
        return 0;
    }
    IpcHandle handle = ecp_get_ipc_handle();
    net_send_protected(handle, bytes, len, FANOUT_MSG_DATA, ep_session_id());
    return await_reply(handle);
}

// The key's text from octet 3, bounded by the key's length: keys arrive from
// the network and need not hold a terminator.
std::string key_text(const StreamKey* key) {
    const char* text = reinterpret_cast<const char*>(key->buffer + 3);
    size_t limit = key->length - 3;
    return std::string(text, strnlen(text, limit));
}

// The type-4 output directory: <work dir>/fanout, created with mode 0775
// when missing.
std::string file_output_dir() {
    MgString work(mrt_get_work_dir());
    if (!work) {
        work.reset(mg_strdup(cpl_tmpdir(0)));
    }
    MgString corrected(CorrectPath(work.get(), 1));
    std::string dir = corrected ? corrected.get() : "";
    if (dir.empty() || dir.back() != '/') {
        dir += '/';
    }
    dir += "fanout";
    struct stat64 st;
    if (stat64(dir.c_str(), &st) != 0 && errno == ENOENT) {
        (void)mkdir(dir.c_str(), 0775);
    }
    return dir;
}

int32_t write_begin_file(NetStream* s) {
    s->block_size = NET_STREAM_BLOCK_SIZE;
    // Every failure here, the file's creation included, is answered by -1.
    try {
        if (s->current_file == nullptr) {
            return -1;
        }
        // The output goes into the work directory under the current file's
        // last component, so a listed path cannot place it elsewhere.
        std::string path = file_output_dir() + "/" + pathname_get_name(s->current_file);
        if (s->out_file != nullptr) {
            file_delete(s->out_file);
            s->out_file = nullptr;
        }
        s->out_file = file_create(path.c_str(), 513, 256);
    } catch (...) {
        return -1;
    }
    return 0;
}

// REQUIRES: a network type. Asks the peer for the block size. A size the
// transport could not carry in one frame, or none at all, breaks the
// protocol: the buffer would be unusable.
int32_t write_begin_network(NetStream* s) {
    IpcHandle handle = ecp_get_ipc_handle();
    const uint8_t record[FANOUT_METHSTAT_SIZE] = {};
    send_methstat(handle, record);
    int32_t status = await_reply(handle);
    if (status < 0) {
        send_end(handle);
        return status;
    }
    if (status == 0 || static_cast<uint32_t>(status) > FANOUT_FRAME_MAX_PAYLOAD) {
        raise_catalogued(111, fanout_channel_name(handle));
    }
    s->block_size = status;
    return 0;
}

void save_progress(NetStream* s, const char* failure_format) {
    if (s->mstat != nullptr && mstat_save(s->mstat) != 0) {
        LogQ(1, failure_format, s->mstat->distid);
    }
}

}  // namespace

void stream_release_source(NetStream* s) noexcept {
    auto* list = static_cast<FileList*>(s->source);
    if (list == nullptr) {
        return;
    }
    if (list->file != nullptr) {
        try {
            file_delete(list->file);
        } catch (...) {
            // A close that fails still gives the record back.
            mg_free(list->file->path);
            mg_free(list->file);
        }
    }
    mg_free(list->list);
    mg_free(list);
    s->source = nullptr;
}

}  // namespace fanout

using namespace fanout;

extern "C" {

uint8_t* stream_key_get_data(const StreamKey* key) {
    return key->buffer + (key->buffer[0] == NET_STREAM_FILE ? 3 : 2);
}

int32_t is_mobile_ep(const StreamKey* key) {
    if (key == nullptr || key->buffer == nullptr || key->length < 3) {
        return 0;
    }
    uint8_t type = key->buffer[0];
    return (type == 2 || (type >= 4 && type <= 11)) && key->buffer[2] == 1;
}

NetStream* net_stream_open(const StreamKey* key) {
    // A key too short to hold its type and mobile flag names no stream.
    if (key == nullptr || key->buffer == nullptr || key->length < 3) {
        return nullptr;
    }
    const uint32_t type = key->buffer[0];
    NetStream* s = nullptr;
    switch (type) {
        case 2:
        case 6:
        case 7:
        case 8:
        case 9:
        case 10:
            s = static_cast<NetStream*>(mg_calloc(1, sizeof(NetStream)));
            s->block_size = NET_STREAM_BLOCK_SIZE;
            break;
        case 11:
            ferry_init();
            if (!ferry_loaded) {
                return nullptr;
            }
            s = static_cast<NetStream*>(mg_calloc(1, sizeof(NetStream)));
            s->block_size = NET_STREAM_BLOCK_SIZE;
            s->source = mg_calloc(1, sizeof(FileList));
            break;
        case 3:
            s = static_cast<NetStream*>(mg_calloc(1, sizeof(NetStream)));
            break;
        case 4:
            s = file_stream_open(key_text(key).c_str());
            break;
        default:
            return nullptr;
    }
    try {
        if (type != NET_STREAM_SEND && is_mobile_ep(key)) {
            // The text is the distribution id, then optionally a comma and
            // more. The key itself is left as it was.
            std::string text = key_text(key);
            size_t comma = text.find(',');
            std::string distid = text.substr(0, comma);
            if (type != NET_STREAM_FILE && comma != std::string::npos) {
                s->mobile_rest = mg_strdup(text.c_str() + comma + 1);
            }
            mobile_ep_create_progress(s, distid.c_str());
            s->mobile = 1;
        }
    } catch (...) {
        net_stream_release(s);
        throw;
    }
    s->type = type;
    s->fill = 0;
    s->buffer = nullptr;
    s->toc = nullptr;
    s->pending = 0;
    s->started = 0;
    s->reserved = 0;
    s->total_length = nullptr;
    s->current_length = nullptr;
    s->depot = nullptr;
    s->preset180 = 180;
    seq_init(&s->depot_entries);
    return s;
}

int32_t net_stream_read(NetStream* s, void** data) {
    *data = nullptr;
    std::unique_ptr<Kel_Types_OctetList, void (*)(Kel_Types_OctetList*)> octets(nullptr,
                                                                                free_toc_octets);
    const bool network = !is_file_type(s->type);
    if (!s->started && s->toc != nullptr) {
        if (s->type == NET_STREAM_RECV) {
            auto* list =
                static_cast<Kel_Types_OctetList*>(mg_calloc(1, sizeof(Kel_Types_OctetList)));
            octets.reset(list);
            void* bytes = nullptr;
            uint32_t len = 0;
            properties_encode(TC_Kel_Fanout2_PropertiesList, s->toc, &bytes, &len);
            list->buffer = static_cast<uint8_t*>(bytes);
            list->length = list->maximum = len;
        }
        if (s->mobile) {
            mobile_ep_init_progress(s);
        }
    }

    int32_t count = 0;
    switch (s->type) {
        case 6:
        case 7:
        case 8:
        case 11: {
            int32_t stop = is_stream_stopped(data);
            // The control block has said all it had to say.
            mg_free(*data);
            *data = nullptr;
            if (stop == NET_STREAM_CANCELLED || stop == NET_STREAM_PAUSED) {
                return stop;
            }
        }
            [[fallthrough]];
        case 4:
        case 9:
        case 10:
            s->started = 1;
            count = file_stream_read(s, data);
            if (s->mobile) {
                mobile_ep_update_progress(s, count + 1);
            }
            break;
        case NET_STREAM_RECV:
            for (;;) {
                count = ep_fanout_recv(data, octets.get());
                octets.reset();
                s->started = 1;
                if (s->mobile) {
                    mobile_ep_update_progress(s, count);
                }
                // A data block without data would read as the end of the stream:
                // it is skipped and the next block is read instead.
                if (count == 1 && static_cast<uint8_t*>(*data)[0] == FANOUT_STATUS_DATA) {
                    mg_free(*data);
                    *data = nullptr;
                    continue;
                }
                break;
            }
            break;
        default:
            count = 0;
            break;
    }

    if (count == 0) {
        *data = nullptr;
        return 0;
    }
    if (!network) {
        return count;
    }
    auto* block = static_cast<uint8_t*>(*data);
    const uint8_t status = block[0];
    if (status == FANOUT_STATUS_DATA) {
        *data = block + 1;
        return count - 1;
    }
    mg_free(block);
    *data = nullptr;
    if (s->mobile && status == FANOUT_STATUS_PAUSE && s->mstat != nullptr) {
        properties_put_boolean_dup(s->mstat->properties, "paused", 1);
        save_progress(s, kProgress14);
    }
    return -static_cast<int32_t>(status);
}

void net_stream_free_buffer(NetStream* s, void* data) {
    if (data == nullptr) {
        return;
    }
    // Network blocks were handed out one octet in, past their status.
    mg_free(is_file_type(s->type) ? data : static_cast<uint8_t*>(data) - 1);
}

int32_t net_stream_write_begin(NetStream* s) {
    if (s->type == NET_STREAM_FILE) {
        if (write_begin_file(s) != 0) {
            return -1;
        }
    } else {
        int32_t status = write_begin_network(s);
        if (status < 0) {
            return status;
        }
    }
    const auto size = static_cast<uint32_t>(s->block_size);
    if (s->buffer == nullptr) {
        s->buffer = buffer_new(size);
        s->fill = 0;
    } else if (buffer_capacity(s->buffer) < size) {
        s->buffer = buffer_grow(s->buffer, size);
    }
    return 0;
}

int32_t net_stream_write(NetStream* s, const void* bytes, int32_t count) {
    if (count <= 0) {
        return 0;
    }
    if (s->buffer == nullptr || s->block_size <= 0 ||
        !(s->type == 2 || s->type == 3 || is_file_type(s->type))) {
        // Nothing to write into: an invalid type, or no write_begin.
        raise_catalogued(29, s->type);
    }
    const auto* in = static_cast<const uint8_t*>(bytes);
    auto left = static_cast<uint32_t>(count);
    const auto size = static_cast<uint32_t>(s->block_size);
    while (left > 0) {
        // Whole blocks of the caller's bytes go out as they are: the peer sees
        // the same blocks as through the buffer, without the copy.
        if (s->fill == 0 && left >= size) {
            int32_t status = send_block(s, in, size);
            in += size;
            left -= size;
            if (status < 0) {
                send_end(ecp_get_ipc_handle());
                return status;
            }
            continue;
        }
        if (s->fill < size) {
            uint32_t take = std::min(left, size - s->fill);
            std::memcpy(s->buffer + s->fill, in, take);
            s->fill += take;
            in += take;
            left -= take;
        }
        if (s->fill >= size) {
            int32_t status = send_block(s, s->buffer, size);
            // Bytes beyond the block (a block size that shrank between two
            // begins) move to the front for the next block.
            s->fill -= size;
            std::memmove(s->buffer, s->buffer + size, s->fill);
            if (status < 0) {
                send_end(ecp_get_ipc_handle());
                return status;
            }
        }
    }
    return count;
}

int32_t net_stream_write_end(NetStream* s) {
    int32_t status = 0;
    if (s->type == NET_STREAM_FILE) {
        if (s->fill > 0 && s->out_file != nullptr) {
            file_write(s->out_file, s->buffer, static_cast<int32_t>(s->fill));
        }
        s->fill = 0;
        buffer_free(s->buffer);
        s->buffer = nullptr;
        if (s->out_file != nullptr) {
            File* f = s->out_file;
            s->out_file = nullptr;
            file_delete(f);
        }
        return 0;
    }
    IpcHandle handle = ecp_get_ipc_handle();
    if (s->fill > 0) {
        status = send_block(s, s->buffer, s->fill);
        s->fill = 0;
    }
    send_end(handle);
    buffer_free(s->buffer);
    s->buffer = nullptr;
    return status < 0 ? status : 0;
}

int32_t net_stream_send_file(NetStream* s, const char* path, int32_t offset) {
    // The read buffer has the block size as it stands now, before
    // write_begin sets it: a stream that has never begun a write (block size
    // 0) reads nothing and so sends only the begin and end messages.
    const uint32_t piece = s->block_size > 0 ? static_cast<uint32_t>(s->block_size) : 0;
    std::unique_ptr<uint8_t, MgFree> buffer(static_cast<uint8_t*>(mg_malloc(piece)));
    struct FileCloser {
        void operator()(File* f) const {
            try {
                file_delete(f);
            } catch (...) {
            }
        }
    };
    std::unique_ptr<File, FileCloser> file(file_open(path, 0));
    if (offset > 0) {
        file_seek(file.get(), static_cast<uint32_t>(offset));
    }
    int32_t status = net_stream_write_begin(s);
    if (status < 0) {
        return status;
    }
    for (;;) {
        int32_t n = file_read(file.get(), buffer.get(), static_cast<int32_t>(piece));
        if (n == 0) {
            break;
        }
        status = net_stream_write(s, buffer.get(), n);
        if (status < 0) {
            return status;
        }
    }
    status = net_stream_write_end(s);
    return status < 0 ? status : 0;
}

void net_stream_set_status(NetStream* s, const char* message) {
    if (!s->mobile || message == nullptr || s->mstat == nullptr) {
        return;
    }
    properties_put_boolean_dup(s->mstat->properties, "err", 1);
    properties_put_string_dup(s->mstat->properties, "err_msg", message);
    save_progress(s, kProgress18);
}

void net_stream_update_mstat(NetStream* s, const char* key, const char* value) {
    if (s->mobile && value != nullptr && s->mstat != nullptr) {
        properties_put_string_dup(s->mstat->properties, key, value);
        save_progress(s, kProgress18);
    }
    LogQ(2, "fanout: update mstat key=%s, value=%s\n", key != nullptr ? key : "(null)",
         value != nullptr ? value : "(null)");
}

void net_stream_close(NetStream* s) {
    if (s == nullptr) {
        return;
    }
    switch (s->type) {
        case 2:
        case 4:
        case 6:
        case 7:
        case 8:
        case 9:
        case 10:
        case 11:
            if (s->mobile && s->mstat != nullptr) {
                properties_put_boolean_dup(s->mstat->properties, "close", 1);
                save_progress(s, kProgress14);
                mstat_free(s->mstat);
                s->mstat = nullptr;
            }
            break;
        case NET_STREAM_IOM:
            iom_close(s->source);
            s->source = nullptr;
            break;
        default:
            // Type 3 opens but is deliberately not among the types that close:
            // its record stays with the caller (net_stream_release frees it).
            raise_catalogued(30, s->type);
    }
    net_stream_release(s);
}

void net_stream_release(NetStream* s) {
    if (s == nullptr) {
        return;
    }
    if (is_file_type(s->type) || s->type == 0) {
        stream_release_source(s);
    }
    if (s->depot != nullptr) {
        for (uint32_t i = 0; i < s->depot_entries.length; ++i) {
            (void)DepotUnregisterEntry(s->depot, s->depot_entries.buffer[i], 0);
        }
        (void)DepotFree(s->depot);
        s->depot = nullptr;
    }
    mg_free(s->depot_entries.buffer);
    s->fill = 0;
    buffer_free(s->buffer);
    properties_list_delete(s->toc);
    int64_length_delete(s->total_length);
    int64_length_delete(s->current_length);
    mstat_free(s->mstat);
    mg_free(s->mobile_rest);
    if (s->out_file != nullptr) {
        try {
            file_delete(s->out_file);
        } catch (...) {
        }
    }
    mg_free(s);
}

}  // extern "C"
