// stream_support.h - what the stream tests share: a scratch directory that is
// also the work directory, environment overrides undone at the end, a child
// process that reports through its exit status, and progress-file reading.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <optional>
#include <string>

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

// A scratch directory that is the work directory (progress files go to its
// "mstat", type-4 output to its "fanout").
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

// Runs `body` in a forked child; the child's exit status is 0 when the body
// returned true, 1 when false, 2 when it raised. Returns the pid.
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

// The properties of a progress file, or nullopt when there is none.
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

// A table of contents: one segment per (id, data_path, size, offset).
struct SegmentSpec {
    std::string id, path;
    int32_t size, offset;
};

inline PropertiesList* make_toc(const std::vector<SegmentSpec>& segments) {
    PropertiesList* toc = properties_list_new();
    for (const auto& s : segments) {
        Properties p{};
        properties_put_string_dup(&p, "id", s.id.c_str());
        properties_put_string_dup(&p, "version", "1");
        properties_put_string_dup(&p, "data_path", s.path.c_str());
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

}  // namespace stream_test
