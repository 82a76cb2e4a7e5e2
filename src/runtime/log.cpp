// log.cpp - the runtime's log queue: LogMsg, LogQ and their destination.
//
// Every line has a level (0 failure, 1 tolerated problem, 2 notice, 3
// trace). The highest level written comes from FANOUT_LOG_LEVEL (default 1)
// unless a program sets it; a line above it is dropped before any formatting
// is done, so trace calls cost one comparison when tracing is off. Lines go to
// a handler the host installs, else to the file named by FANOUT_LOG_FILE
// (appended), else to standard error. Logging never raises: a line that
// cannot be formatted or written is dropped.

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "fanout/log.h"
#include "runtime/message.h"

namespace fanout {

namespace {

constexpr int32_t kDefaultLevel = 1;

// FANOUT_LOG_LEVEL as a level; an unset or unreadable value gives the default.
int32_t level_from_environment() {
    const char* text = std::getenv("FANOUT_LOG_LEVEL");
    if (text == nullptr || *text == '\0') return kDefaultLevel;
    char* end = nullptr;
    long value = std::strtol(text, &end, 10);
    if (*end != '\0' || value < -1 || value > 1000) return kDefaultLevel;
    return static_cast<int32_t>(value);
}

struct LogState {
    std::atomic<bool> level_set{false};
    std::atomic<int32_t> level{kDefaultLevel};
    std::mutex mutex;  // guards the fields below and the writes
    FanoutLogHandler handler = nullptr;
    void* context = nullptr;
    FILE* file = nullptr;
    bool file_tried = false;
};

LogState& state() {
    static LogState* s = new LogState();  // never destroyed: logging works during exit
    return *s;
}

int32_t current_level() {
    LogState& s = state();
    if (s.level_set.load(std::memory_order_acquire)) return s.level.load(std::memory_order_relaxed);
    static const int32_t from_environment = level_from_environment();
    return from_environment;
}

// Writes one line to the handler or the destination.
void emit(int32_t level, const char* line) {
    LogState& s = state();
    FanoutLogHandler handler;
    void* context;
    {
        std::lock_guard<std::mutex> lock(s.mutex);
        handler = s.handler;
        context = s.context;
        if (handler == nullptr) {
            if (!s.file_tried) {
                s.file_tried = true;
                const char* path = std::getenv("FANOUT_LOG_FILE");
                if (path != nullptr && *path != '\0') s.file = std::fopen(path, "ae");
            }
            FILE* out = s.file != nullptr ? s.file : stderr;
            size_t n = std::strlen(line);
            std::fwrite(line, 1, n, out);
            if (n == 0 || line[n - 1] != '\n') std::fputc('\n', out);
            std::fflush(out);
            return;
        }
    }
    // Called without the lock, so a handler may log itself.
    handler(level, line, context);
}

// printf-style formatting of one line; false when it fails.
bool format_line(const char* format, va_list ap, std::string* line) noexcept {
    try {
        va_list copy;
        va_copy(copy, ap);
        int n = std::vsnprintf(nullptr, 0, format, copy);
        va_end(copy);
        if (n < 0) return false;
        line->assign(static_cast<size_t>(n) + 1, '\0');
        std::vsnprintf(line->data(), line->size(), format, ap);
        line->resize(static_cast<size_t>(n));
        return true;
    } catch (...) {
        return false;
    }
}

}  // namespace

}  // namespace fanout

extern "C" {

FANOUT_EXPORT int32_t fanout_log_enabled(int32_t level) {
    return level <= fanout::current_level() ? 1 : 0;
}

FANOUT_EXPORT void fanout_log_set_level(int32_t level) {
    fanout::LogState& s = fanout::state();
    s.level.store(level, std::memory_order_relaxed);
    s.level_set.store(true, std::memory_order_release);
}

FANOUT_EXPORT void fanout_log_set_handler(FanoutLogHandler handler, void* context) {
    fanout::LogState& s = fanout::state();
    std::lock_guard<std::mutex> lock(s.mutex);
    s.handler = handler;
    s.context = context;
}

FANOUT_EXPORT void fanout_log_line(int32_t level, const char* line) {
    if (line == nullptr || !fanout_log_enabled(level)) return;
    try {
        fanout::emit(level, line);
    } catch (...) {
    }
}

FANOUT_EXPORT void LogMsg(int32_t level, const char* catalog, int32_t number, int32_t flags,
                          const char* format, ...) {
    (void)catalog;  // the default text is what is logged; there is no translation
    (void)number;
    (void)flags;
    if (format == nullptr || !fanout_log_enabled(level)) return;
    try {
        std::string letters;
        if (!fanout::message_conversions(format, &letters)) {
            // Not a message text (e.g. a line formatted already, with "%d"
            // left in it): logged as it is, and no argument is read.
            fanout::emit(level, format);
            return;
        }
        fanout::MessageArgs args;
        va_list ap;
        va_start(ap, format);
        try {
            fanout::message_collect(letters, ap, errno, &args);
        } catch (...) {
            va_end(ap);
            throw;
        }
        va_end(ap);
        std::string line;
        fanout::message_render(format, args.items(), args.count(), &line);
        fanout::emit(level, line.c_str());
    } catch (...) {
    }
}

FANOUT_EXPORT void LogQ(int32_t level, const char* format, ...) {
    if (format == nullptr || !fanout_log_enabled(level)) return;
    va_list ap;
    va_start(ap, format);
    std::string line;
    bool formatted = fanout::format_line(format, ap, &line);
    va_end(ap);
    if (!formatted) return;
    try {
        fanout::emit(level, line.c_str());
    } catch (...) {
    }
}

}  // extern "C"
