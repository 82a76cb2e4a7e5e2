// encoding.cpp - property lists as bytes and as files.
//
// Any typed value is turned into the runtime's marshalled form and back
// (properties_encode, properties_decode). A property list is stored in one of
// three file layouts, N being the length of its marshalled form:
//
//   plain     [N: 4 bytes, host order][N bytes]            size N + 4
//   improved  [1: 4 bytes, big-endian][N: 4 bytes, big-endian][N bytes]
//                                                           size N + 8
//   bare      [N bytes]                                     size N
//
// The checked readers accept a file only when its size (all 64 bits of it) is
// exactly what its length word says, so nothing is allocated beyond what the
// file holds; the version word of the improved layout is converted but
// deliberately never tested, so later versions with the same framing stay
// readable. The bare reader refuses a file whose size does not fit the 32-bit
// length of a marshalled list, and leaves a short read to the decoder.
//
// Memory: a body of up to kReadLimit bytes is read into a block; a larger one
// is mapped read-only and decoded where it lies, so that only the pages the
// decoder touches are ever brought in (a sparse or mostly unused file of
// gigabytes costs its first pages, not its size). A file that cannot be
// mapped is read as before.
//
// Clean-up: temporary buffers and file records are held by RAII guards that
// release them on every path, normal or raised; a raise passes on to the
// caller after the guards have run. On the normal path the file record is
// closed explicitly, so that a failing close is reported rather than lost.

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <memory>

#include "fanout/catalog.h"
#include "fanout/exception.h"
#include "fanout/file.h"
#include "fanout/properties.h"
#include "posix/prefault.h"
#include "runtime/mg_ptr.h"
#include "runtime/raise.h"

namespace fanout {
namespace {

constexpr int32_t kReadFailed = 19;
constexpr int32_t kEncodeFailed = 34;
constexpr int32_t kDecodeFailed = 35;

constexpr uint32_t kImprovedVersion = 1;
// Files are written in place, created when missing and truncated otherwise
// (513 on this host), readable and writable by the owner only (0600).
constexpr int32_t kSaveFlags = O_WRONLY | O_TRUNC;
constexpr uint32_t kSaveMode = 0600;
constexpr int32_t kLoadFlags = O_RDONLY;

// Bodies larger than this are mapped rather than read into memory.
constexpr uint32_t kReadLimit = 16u << 20;

// One host read or write moves at most this many bytes (file_read and
// file_write take a signed 32-bit count); larger transfers are split.
constexpr uint32_t kChunk = 1u << 30;

using Bytes = std::unique_ptr<uint8_t, MgFree>;

struct AdrFree {
    void operator()(AdrBuffer* buf) const noexcept { adr_free_buf(buf); }
};
using AdrPtr = std::unique_ptr<AdrBuffer, AdrFree>;

// Owns a file record until the end of the scope. On the normal path call
// close() so that a failure to close raises; when the scope is left by a
// raise, the record is released quietly (the raise in flight is the one the
// caller sees).
class FileGuard {
  public:
    explicit FileGuard(File* f) : f_(f) {}
    FileGuard(const FileGuard&) = delete;
    FileGuard& operator=(const FileGuard&) = delete;
    ~FileGuard() {
        if (f_ == nullptr) return;
        try {
            file_delete(f_);
        } catch (...) {
            // Already unwinding from the first failure.
        }
    }
    File* get() const { return f_; }
    void close() {
        File* f = f_;
        f_ = nullptr;
        file_delete(f);
    }

  private:
    File* f_;
};

[[noreturn]] void raise_read_failed(const File* f, uint32_t length, int error) {
    raise_catalogued(kReadFailed, f->path, static_cast<int32_t>(length),
                     static_cast<int32_t>(error));
}

struct Encoded {
    Bytes data;
    uint32_t length = 0;
};

Encoded encode_list(const Properties* p) {
    void* data = nullptr;
    uint32_t length = 0;
    properties_encode(TC_Kel_Fanout2_Properties, p, &data, &length);
    return Encoded{Bytes(static_cast<uint8_t*>(data)), length};
}

void write_bytes(File* f, const uint8_t* data, uint32_t length) {
    while (length > 0) {
        uint32_t n = length < kChunk ? length : kChunk;
        file_write(f, data, static_cast<int32_t>(n));
        data += n;
        length -= n;
    }
}

// Reads up to `length` bytes; returns how many arrived before a short read.
uint32_t read_bytes(File* f, uint8_t* data, uint32_t length) {
    uint32_t done = 0;
    while (done < length) {
        uint32_t want = length - done < kChunk ? length - done : kChunk;
        int32_t got = file_read(f, data + done, static_cast<int32_t>(want));
        if (got <= 0) break;
        done += static_cast<uint32_t>(got);
        if (static_cast<uint32_t>(got) < want) break;
    }
    return done;
}

// Reads one 4-byte word into *word. A short read raises 19 with `length` as
// it stands at that moment, which is the partly filled word itself when the
// word being read is the length. errno is cleared first, so a plain end of
// file reports 0 rather than a stale code.
void read_word(File* f, uint32_t* word, const uint32_t* length) {
    errno = 0;
    if (file_read(f, word, 4) < 4) raise_read_failed(f, *length, errno);
}

// The file's full 64-bit size, by its open descriptor (the wrapper's size
// query keeps only the low 32 bits). A failing query raises 19 with errno.
uint64_t full_size(const File* f, uint32_t length) {
    struct stat st {};
    if (fstat(f->fd, &st) != 0) raise_read_failed(f, length, errno);
    return static_cast<uint64_t>(st.st_size);
}

// A read-only mapping of `length` bytes of the file from `offset`, released
// at the end of the scope; null when the file cannot be mapped.
class Mapping {
  public:
    Mapping(const File* f, uint64_t offset, uint32_t length) : length_(length) {
        // mmap wants a page-aligned offset: map from the page start.
        const uint64_t page = static_cast<uint64_t>(sysconf(_SC_PAGESIZE));
        skip_ = static_cast<size_t>(offset % page);
        void* p = mmap(nullptr, length_ + skip_, PROT_READ, MAP_PRIVATE, f->fd,
                       static_cast<off_t>(offset - skip_));
        base_ = p == MAP_FAILED ? nullptr : static_cast<uint8_t*>(p);
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;
    ~Mapping() {
        if (base_ != nullptr) munmap(base_, length_ + skip_);
    }
    const uint8_t* data() const { return base_ != nullptr ? base_ + skip_ : nullptr; }

  private:
    size_t length_;
    size_t skip_ = 0;
    uint8_t* base_ = nullptr;
};

// Decodes the next `length` bytes of the file into out: read into a block,
// or mapped when large (see the top), the position then moved past them as a
// read would. With `checked` a short read raises 19; otherwise the unread
// tail is zeros for the decoder to judge.
void decode_body(Properties* out, File* f, uint32_t length, bool checked) {
    const off_t at = length > kReadLimit ? lseek(f->fd, 0, SEEK_CUR) : -1;
    if (at >= 0 && static_cast<uint64_t>(at) + length <= full_size(f, length)) {
        Mapping map(f, static_cast<uint64_t>(at), length);
        if (map.data() != nullptr) {
            properties_decode(TC_Kel_Fanout2_Properties, map.data(), length, out);
            lseek(f->fd, at + static_cast<off_t>(length), SEEK_SET);
            return;
        }
    }
    // Zero-filled, so that the unread tail of a short read is defined bytes
    // for the decoder to judge.
    Bytes data(static_cast<uint8_t*>(checked ? mg_malloc(length > 0 ? length : 1)
                                             : mg_calloc(length > 0 ? length : 1, 1)));
    fanout::prefault_for_write(data.get(), length);
    errno = 0;
    uint32_t got = read_bytes(f, data.get(), length);
    if (checked && got < length) raise_read_failed(f, length, errno);
    properties_decode(TC_Kel_Fanout2_Properties, data.get(), length, out);
}

// The common tail of the checked readers: the file must be exactly `header`
// bytes plus `length`, all of which are then read and decoded into out.
void read_body(Properties* out, File* f, uint32_t header, uint32_t length) {
    errno = 0;
    if (full_size(f, length) != uint64_t{header} + length) raise_read_failed(f, length, errno);
    decode_body(out, f, length, true);
}

}  // namespace
}  // namespace fanout

using namespace fanout;

extern "C" {

// ---------------------------------------------------------------------------
// Bytes.

void properties_encode(TypeCode tc, const void* value, void** out_data, uint32_t* out_len) {
    AdrPtr buf(adr_init_encode_buffer());
    marshal_item(buf.get(), tc, const_cast<void*>(value));
    if (int32_t code = buf->error; code != 0) {
        buf.reset();
        raise_catalogued(kEncodeFailed, code);
    }
    // The data is handed to the caller; only the buffer's record is freed.
    *out_data = buf->data;
    *out_len = buf->length;
    mg_free(buf.release());
}

void properties_decode(TypeCode tc, const void* data, uint32_t len, void* out) {
    AdrPtr buf(adr_init_decode_buffer(data, len));
    marshal_item(buf.get(), tc, out);
    int32_t code = buf->error;
    buf.reset();
    if (code != 0) {
        raise_catalogued(kDecodeFailed, code);
    }
}

// ---------------------------------------------------------------------------
// Open files.

void properties_write(const Properties* p, File* f) {
    Encoded e = encode_list(p);
    uint32_t length = e.length;  // host byte order
    file_write(f, &length, 4);
    write_bytes(f, e.data.get(), e.length);
}

void properties_write_improved(const Properties* p, File* f) {
    Encoded e = encode_list(p);
    uint32_t version = htonl(kImprovedVersion);
    uint32_t length = htonl(e.length);
    file_write(f, &version, 4);
    file_write(f, &length, 4);
    write_bytes(f, e.data.get(), e.length);
}

void properties_read(Properties* out, File* f) {
    uint32_t length = 0;
    read_word(f, &length, &length);
    read_body(out, f, 4, length);
}

void properties_read_improved(Properties* out, File* f) {
    // The version is converted but not tested: any version with a length
    // that agrees with the file's size is accepted.
    uint32_t version = 0;
    uint32_t length = 0;
    read_word(f, &version, &length);
    version = ntohl(version);
    static_cast<void>(version);
    read_word(f, &length, &length);
    length = ntohl(length);
    read_body(out, f, 8, length);
}

void properties_read_without_len(Properties* out, File* f) {
    // The whole file is the list: one whose size does not fit the 32-bit
    // length of a marshalled list is refused (19, count 0, EFBIG) rather
    // than read from its first bytes.
    uint64_t size = full_size(f, 0);
    if (size > UINT32_MAX) raise_read_failed(f, 0, EFBIG);
    // The read is deliberately unchecked: a short read leaves zeros to the
    // decoder.
    decode_body(out, f, static_cast<uint32_t>(size), false);
}

// ---------------------------------------------------------------------------
// Files by path.

void properties_save(const Properties* p, const char* path) {
    FileGuard f(file_create(path, kSaveFlags, kSaveMode));
    properties_write(p, f.get());
    f.close();
}

void properties_save_improved(const Properties* p, const char* path) {
    FileGuard f(file_create(path, kSaveFlags, kSaveMode));
    properties_write_improved(p, f.get());
    f.close();
}

void properties_save_without_len(const Properties* p, const char* path) {
    FileGuard f(file_create(path, kSaveFlags, kSaveMode));
    Encoded e = encode_list(p);
    write_bytes(f.get(), e.data.get(), e.length);
    f.close();
}

void properties_load(Properties* out, const char* path) {
    FileGuard f(file_open(path, kLoadFlags));
    properties_read(out, f.get());
    f.close();
}

void properties_load_improved(Properties* out, const char* path) {
    FileGuard f(file_open(path, kLoadFlags));
    properties_read_improved(out, f.get());
    f.close();
}

void properties_load_without_len(Properties* out, const char* path) {
    FileGuard f(file_open(path, kLoadFlags));
    properties_read_without_len(out, f.get());
    f.close();
}

}  // extern "C"
