// config.cpp - configuration look-ups and the small host-compatibility calls.
//
// The service finds its work directory and configuration file through the
// environment (FANOUT_WORK_DIR, FANOUT_CONFIG). The configuration file is a
// plain list of "key=value" lines. The compatibility calls wrap the host's
// environment, its temporary directory and the C library's multibyte
// functions, and normalise path names.

#include <cerrno>
#include <climits>
#include <clocale>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>

#include "fanout/log.h"
#include "fanout/runtime.h"

namespace fanout {

namespace {

// A copy of a non-empty environment value, or null.
char* environment_copy(const char* name) {
    const char* value = std::getenv(name);
    return value != nullptr && *value != '\0' ? mg_strdup(value) : nullptr;
}

bool is_blank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string trimmed(const char* begin, const char* end) {
    while (begin < end && is_blank(*begin)) ++begin;
    while (end > begin && is_blank(end[-1])) --end;
    return std::string(begin, end);
}

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};
struct LineFree {
    void operator()(char* p) const { std::free(p); }
};
// getline's buffer, freed however the reading ends.
struct LineBuffer {
    char* text = nullptr;
    size_t capacity = 0;
    LineBuffer() = default;
    LineBuffer(const LineBuffer&) = delete;
    LineBuffer& operator=(const LineBuffer&) = delete;
    ~LineBuffer() { std::free(text); }
};

}  // namespace

}  // namespace fanout

extern "C" {

FANOUT_EXPORT char* mrt_get_work_dir(void) {
    return fanout::environment_copy("FANOUT_WORK_DIR");
}

FANOUT_EXPORT char* mrt_get_config_filespec(void) {
    return fanout::environment_copy("FANOUT_CONFIG");
}

// Lines are "key=value"; blanks around key and value are dropped, blank lines
// and lines whose first non-blank character is "#" are comments, and lines
// without "=" are ignored. The first line with the key gives the value.
FANOUT_EXPORT int32_t mrt_get_config_from_file(const char* filespec, const char* key,
                                               char** value) {
    if (value != nullptr) *value = nullptr;
    if (filespec == nullptr || key == nullptr || value == nullptr) return EINVAL;
    std::unique_ptr<FILE, fanout::FileCloser> file(std::fopen(filespec, "re"));
    if (!file) return errno != 0 ? errno : EIO;
    fanout::LineBuffer line;
    ssize_t n;
    std::string wanted = fanout::trimmed(key, key + std::strlen(key));
    while ((n = getline(&line.text, &line.capacity, file.get())) >= 0) {
        const char* begin = line.text;
        const char* end = line.text + n;
        while (begin < end && fanout::is_blank(*begin)) ++begin;
        if (begin == end || *begin == '#') continue;
        auto* equals = static_cast<const char*>(std::memchr(begin, '=', end - begin));
        if (equals != nullptr && fanout::trimmed(begin, equals) == wanted) {
            *value = mg_strdup(fanout::trimmed(equals + 1, end).c_str());
            return 0;
        }
    }
    return std::ferror(file.get()) ? EIO : 0;
}

// Components are split at "/"; empty and "." components are dropped, ".."
// is kept (resolving it would need the file system: a symbolic link makes
// "a/.." differ from ""). An empty result is "/" for an absolute path and
// "." for a relative one.
FANOUT_EXPORT char* CorrectPath(const char* path, int32_t flags) {
    if (path == nullptr) return nullptr;
    std::string prefix;
    if (flags == 1 && path[0] != '/') {
        std::unique_ptr<char, fanout::LineFree> cwd(getcwd(nullptr, 0));
        prefix = cwd ? std::string(cwd.get()) + "/" : std::string("/");
    }
    const std::string source = prefix + std::string(path);
    bool absolute = !source.empty() && source[0] == '/';
    std::string result;
    size_t i = 0;
    while (i < source.size()) {
        size_t slash = source.find('/', i);
        if (slash == std::string::npos) slash = source.size();
        std::string_view part(source.data() + i, slash - i);
        if (!part.empty() && part != ".") {
            if (!result.empty() || absolute) result += '/';
            result.append(part);
        }
        i = slash + 1;
    }
    if (result.empty()) result.assign(1, absolute ? '/' : '.');
    return mg_strdup(result.c_str());
}

FANOUT_EXPORT const char* cpl_getenv(const char* name) {
    return name == nullptr ? nullptr : std::getenv(name);
}

FANOUT_EXPORT const char* cpl_tmpdir(int32_t flags) {
    (void)flags;
    const char* dir = std::getenv("TMPDIR");
    return dir != nullptr && *dir != '\0' ? dir : "/tmp";
}

// Walks the string from its start with mbrlen, so the answer follows the
// code set of the current locale (LC_CTYPE); the walk stops at the first
// invalid sequence, and every byte from there on is -1.
FANOUT_EXPORT int32_t ilx_mbsbtype(const char* s, int32_t index) {
    if (s == nullptr || index < 0) return -1;
    std::mbstate_t state{};
    size_t max = MB_CUR_MAX;
    int32_t pos = 0;
    while (pos <= index) {
        if (s[pos] == '\0') return pos == index ? 0 : -1;
        size_t n = std::mbrlen(s + pos, max, &state);
        if (n == static_cast<size_t>(-1) || n == static_cast<size_t>(-2) || n == 0) return -1;
        if (n == 1) {
            if (pos == index) return 0;
        } else if (index < pos + static_cast<int32_t>(n)) {
            return index == pos ? 1 : 2;
        }
        pos += static_cast<int32_t>(n);
    }
    return -1;
}

}  // extern "C"
