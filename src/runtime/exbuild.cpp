// exbuild.cpp - building exception records from catalogue messages.
//
// A record carries one message: catalogue name, number, default text and the
// arguments as strings. The arguments are read from the caller's variable
// argument list by the conversion letters of the text, strictly in the order
// the conversions appear (not by their position numbers), and every integer is
// rendered unsigned in decimal whatever its letter says. Both quirks are part
// of the interface: callers and translated catalogues rely on them. A text
// with a conversion the runtime does not accept is not an error: the record
// then reports "Format has illegal types (%1$s)" with the text as argument.

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "fanout/exception.h"
#include "runtime/message.h"

namespace fanout {

namespace {

constexpr const char* kIllegalFormat = "Format has illegal types (%1$s)";
constexpr uint32_t kGrowth = 10;

bool is_integer_letter(char c) {
    return c == 'X' || c == 'd' || c == 'o' || c == 'u' || c == 'x';
}

// The text for an errno value. strerrordesc_np knows exactly the errno values
// the C library has texts for (what sys_nerr used to bound) and returns null
// for the rest, so an unknown number never turns into "Unknown error N".
char* errno_text(int number) {
    const char* text = strerrordesc_np(number);
    if (text != nullptr) return mg_strdup(text);
    auto* buffer = static_cast<char*>(mg_malloc(40));
    std::snprintf(buffer, 40, "errno=%d", number);
    return buffer;
}

}  // namespace

MessageArgs::~MessageArgs() {
    clear();
    mg_free(items_);
}

void MessageArgs::make_room() {
    if (count_ < capacity_) return;
    uint32_t grown = capacity_ + kGrowth;
    size_t bytes = (static_cast<size_t>(grown) + 1) * sizeof(char*);
    items_ = static_cast<char**>(items_ == nullptr ? mg_malloc(bytes) : mg_realloc(items_, bytes));
    capacity_ = grown;
}

void MessageArgs::push(char* text) {
    try {
        make_room();
    } catch (...) {
        mg_free(text);
        throw;
    }
    items_[count_++] = text;
    items_[count_] = nullptr;
}

void MessageArgs::clear() {
    for (uint32_t i = 0; i < count_; ++i) mg_free(items_[i]);
    count_ = 0;
}

char** MessageArgs::release() {
    char** items = items_;
    if (count_ == 0) {
        mg_free(items);
        items = nullptr;
    }
    items_ = nullptr;
    count_ = capacity_ = 0;
    return items;
}

bool message_conversions(const char* format, std::string* letters) {
    if (format == nullptr) return true;
    for (const char* p = format; *p != '\0'; ++p) {
        if (*p != '%') continue;
        if (p[1] == '%') {
            ++p;
            continue;
        }
        const char* q = p + 1;
        while (*q != '\0' && std::strchr("0123456789.", *q) != nullptr) ++q;
        if (*q != '$') return false;
        char letter = q[1];
        if (!is_integer_letter(letter) && letter != 's') return false;
        letters->push_back(letter);
        p = q + 1;
    }
    return true;
}

void message_collect(const std::string& letters, va_list args, int saved_errno, MessageArgs* out) {
    for (char letter : letters) {
        if (letter == 's') {
            const char* text = va_arg(args, const char*);
            if (text != nullptr && std::strcmp(text, "$errno") == 0) {
                out->push(errno_text(saved_errno));
            } else {
                out->push(mg_strdup(text));
            }
        } else {
            // A 32-bit integer, shown unsigned: -1 reads 4294967295.
            auto value = static_cast<uint32_t>(va_arg(args, int));
            auto* buffer = static_cast<char*>(mg_malloc(21));
            std::snprintf(buffer, 21, "%u", value);
            out->push(buffer);
        }
    }
}

namespace {

void free_string_list(Kel_Types_StringList* list) {
    if (list == nullptr) return;
    for (uint32_t i = 0; i < list->length; ++i) mg_free(list->buffer[i]);
    mg_free(list->buffer);
    mg_free(list);
}

// The message entry under construction; frees its blocks unless released.
struct EntryGuard {
    Kel_Types_XOpenMessageEntry entry{};
    ~EntryGuard() {
        mg_free(entry.catalog);
        mg_free(entry.default_text);
        free_string_list(static_cast<Kel_Types_StringList*>(entry.arguments._value));
    }
};

}  // namespace

}  // namespace fanout

using fanout::MessageArgs;

extern "C" {

FANOUT_EXPORT ExException* ex_build(const char* type_id, size_t record_size, const char* catalog,
                                    int32_t number, const char* format, va_list args) {
    // errno as the caller left it, before any allocation here can touch it.
    int saved_errno = errno;
    std::string letters;
    MessageArgs collected;
    const char* text = format;
    if (fanout::message_conversions(format, &letters)) {
        va_list copy;
        va_copy(copy, args);
        try {
            fanout::message_collect(letters, copy, saved_errno, &collected);
        } catch (...) {
            va_end(copy);
            throw;
        }
        va_end(copy);
    } else {
        // The caller's text becomes the only argument. It is copied (the
        // record owns every string it points to); catalogue and number are
        // dropped because the text is no longer the catalogue's.
        collected.push(mg_strdup(format));
        text = fanout::kIllegalFormat;
        catalog = nullptr;
        number = 0;
    }

    fanout::EntryGuard guard;
    guard.entry.catalog = mg_strdup(catalog);
    guard.entry.default_text = mg_strdup(text);
    guard.entry.number = number;
    auto* list = static_cast<Kel_Types_StringList*>(mg_calloc(1, sizeof(Kel_Types_StringList)));
    guard.entry.arguments._type = TC_Kel_Types_StringList;
    guard.entry.arguments._value = list;
    list->maximum = list->length = collected.count();
    list->buffer = collected.release();

    auto* entries =
        static_cast<Kel_Types_XOpenMessageEntry*>(mg_malloc(sizeof(Kel_Types_XOpenMessageEntry)));
    if (record_size < sizeof(ExException)) record_size = sizeof(ExException);
    ExException* record;
    try {
        record = static_cast<ExException*>(mg_calloc(1, record_size));
    } catch (...) {
        mg_free(entries);
        throw;
    }
    record->type_id = type_id == nullptr ? nullptr : strdup(type_id);
    record->format = strdup("%7$M");
    if (record->type_id == nullptr || record->format == nullptr) std::abort();
    record->timestamp = static_cast<int32_t>(std::time(nullptr));
    entries[0] = guard.entry;
    guard.entry = Kel_Types_XOpenMessageEntry{};
    record->messages.maximum = record->messages.length = 1;
    record->messages.buffer = entries;
    return record;
}

FANOUT_EXPORT void vaThrow(const char* catalog, int32_t number, const char* format, ...) {
    va_list args;
    va_start(args, format);
    ExException* record;
    try {
        record =
            ex_build(FANOUT_EX_ERROR_MSG_ID, sizeof(ExException), catalog, number, format, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
    eh_throw(record->type_id, record);
}

FANOUT_EXPORT void vaRaiseException(Environment* env, const char* catalog, int32_t number,
                                    const char* format, ...) {
    if (env == nullptr) return;
    va_list args;
    va_start(args, format);
    ExException* record;
    try {
        record =
            ex_build(FANOUT_EX_ERROR_MSG_ID, sizeof(ExException), catalog, number, format, args);
    } catch (...) {
        va_end(args);
        throw;
    }
    va_end(args);
    ev_clear(env);
    env->_major = FANOUT_USER_EXCEPTION;
    env->_exception = record;
    env->_id = record->type_id;
}

}  // extern "C"
