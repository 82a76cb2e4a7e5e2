// stream_support.h - what the stream tests share: scratch and work directories, environment
// overrides, forked children that report through their exit status, keys, tables of contents,
// reads and progress files.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "fanout/exception.h"
#include "fanout/properties.h"
#include "fanout/stream.h"
#include "fanout/transport.h"

namespace stream_test {

namespace fs = std::filesystem;

// Sets an environment variable (null unsets it) until destruction.
class EnvOverride {
  public:
    EnvOverride(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) old_ = old;
        value != nullptr ? setenv(name, value, 1) : unsetenv(name);
    }
    ~EnvOverride() { old_ ? setenv(name_.c_str(), old_->c_str(), 1) : unsetenv(name_.c_str()); }

  private:
    std::string name_;
    std::optional<std::string> old_;
};

// A scratch directory under /tmp, removed with everything in it.
class ScratchDir {
  public:
    ScratchDir() {
        char tmpl[] = "/tmp/fanout_stream_XXXXXX";
        path_ = mkdtemp(tmpl);
    }
    ~ScratchDir() {
        std::error_code ec;
        fs::permissions(path_, fs::perms::owner_all, fs::perm_options::add, ec);
        fs::remove_all(path_, ec);
    }
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

// A scratch directory that is the work directory (progress files go to its "mstat", type-4
// output to its "fanout").
struct WorkDir : ScratchDir {
    EnvOverride env{"FANOUT_WORK_DIR", path().c_str()};
};

inline std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

inline void write_file(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

// Deterministic test bytes.
inline std::string pattern(size_t n, unsigned seed = 1) {
    std::string s(n, '\0');
    uint32_t x = seed * 2654435761u + 1;
    for (auto& c : s) {
        x = x * 1664525u + 1013904223u;
        c = static_cast<char>(x >> 24);
    }
    return s;
}

// Runs `body` in a forked child whose exit status is 0 when it returned true, 1 when false, 2
// when it raised. Returns the pid.
inline pid_t spawn(const std::function<bool()>& body) {
    pid_t pid = fork();
    if (pid == 0) {
        int code = 2;
        try {
            code = body() ? 0 : 1;
        } catch (...) {
        }
        _exit(code);
    }
    return pid;
}

// The exit status of child `pid` (-1 when it did not exit normally).
inline int reap(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The properties of a progress file (null when there is none).
struct Progress {
    Properties props{};
    ~Progress() { kel_free_generic(&props, TC_Kel_Fanout2_Properties); }
    const char* str(const char* key) const { return properties_get_string2(&props, key, nullptr); }
    int flag(const char* key) const { return properties_get_boolean2(&props, key, 2); }
};

inline std::unique_ptr<Progress> load_progress(const std::string& path) {
    if (!fs::exists(path)) return nullptr;
    auto p = std::make_unique<Progress>();
    properties_load_without_len(&p->props, path.c_str());
    return p;
}

// A table of contents: one segment per (id, path, size, offset), "id^v" giving version v (else
// 1) and the path going under `path_key`.
struct SegmentSpec {
    std::string id, path;
    int32_t size = 0, offset = 0;
};

inline PropertiesList* make_toc(const std::vector<SegmentSpec>& segments,
                                const char* path_key = "data_path") {
    PropertiesList* toc = properties_list_new();
    for (const auto& s : segments) {
        const size_t caret = s.id.find('^');
        Properties p{};
        properties_put_string_dup(&p, "id", s.id.substr(0, caret).c_str());
        properties_put_string_dup(&p, "version",
                                  caret == std::string::npos ? "1" : &s.id[caret + 1]);
        properties_put_string_dup(&p, path_key, s.path.c_str());
        properties_put_long_dup(&p, "size", s.size);
        properties_put_long_dup(&p, "offset", s.offset);
        seq_add(toc, &p, sizeof p);
    }
    return toc;
}

// A key of `type` with mobile flag `mobile` and `text` from octet 3.
inline StreamKey* make_key(uint8_t type, uint8_t mobile, const std::string& text) {
    auto* key = static_cast<StreamKey*>(mg_calloc(1, sizeof(StreamKey)));
    key->length = key->maximum = static_cast<uint32_t>(4 + text.size());
    key->buffer = static_cast<uint8_t*>(mg_calloc(1, key->length));
    key->buffer[0] = type;
    key->buffer[2] = mobile;
    std::memcpy(key->buffer + 3, text.data(), text.size());
    return key;
}

// A stream opened over make_key(type, mobile, text).
inline NetStream* open_stream(uint8_t type, uint8_t mobile = 0, const std::string& text = "") {
    StreamKey* key = make_key(type, mobile, text);
    NetStream* s = net_stream_open(key);
    stream_key_delete(key);
    return s;
}

// Reads until a result of 0 or less (a segment's end or a stop), which goes to *last; returns
// the bytes read.
inline std::string read_segment(NetStream* s, int32_t* last = nullptr) {
    std::string bytes;
    void* data = nullptr;
    int32_t n;
    for (; (n = net_stream_read(s, &data)) > 0; net_stream_free_buffer(s, data))
        bytes.append(static_cast<const char*>(data), static_cast<size_t>(n));
    if (last != nullptr) *last = n;
    return bytes;
}

}  // namespace stream_test
