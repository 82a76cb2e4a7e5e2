// render.cpp - turning a message and its arguments into text.
//
// Message texts name their arguments by position ("%2$s" is the second
// argument), so a translation may reorder them. The arguments of a raised
// record are already strings, so the conversion letter only matters for the
// time form "%N$t{strftime format}", which reads its argument as seconds
// since the epoch and prints it in local time. A record renders through its
// own format field, "%7$M": field 7, the message list, printed as messages.
// Anything that is not a well-formed placeholder is copied unchanged, so a
// rendering never drops text.

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>

#include "fanout/exception.h"
#include "runtime/message.h"
#include "runtime/raise.h"

namespace fanout {

namespace {

constexpr size_t kTimeBuffer = 256;

// One parsed placeholder: "%N$L" or "%N$t{...}".
struct Placeholder {
    uint32_t position = 0;         // N, from 1
    char letter = 0;               // L
    const char* braces = nullptr;  // the strftime format of the time form
    size_t braces_length = 0;
    const char* end = nullptr;  // first character after the placeholder
};

// Parses a placeholder starting at the "%" at p; false when p does not start
// a well-formed one.
bool parse_placeholder(const char* p, Placeholder* out) {
    const char* q = p + 1;
    if (!std::isdigit(static_cast<unsigned char>(*q))) return false;
    uint64_t position = 0;
    while (std::isdigit(static_cast<unsigned char>(*q))) {
        position = position * 10 + static_cast<uint64_t>(*q - '0');
        if (position > UINT32_MAX) return false;
        ++q;
    }
    if (*q != '$' || !std::isalpha(static_cast<unsigned char>(q[1]))) return false;
    out->position = static_cast<uint32_t>(position);
    out->letter = q[1];
    out->end = q + 2;
    if (out->letter == 't' && *out->end == '{') {
        const char* close = std::strchr(out->end + 1, '}');
        if (close == nullptr) return false;
        out->braces = out->end + 1;
        out->braces_length = static_cast<size_t>(close - out->braces);
        out->end = close + 1;
    }
    return true;
}

// Appends the time form of `value` (seconds since the epoch as text).
void append_time(const char* value, const Placeholder& ph, std::string* out) {
    if (value == nullptr) {
        out->append("(null)");
        return;
    }
    char* end = nullptr;
    errno = 0;
    long long seconds = std::strtoll(value, &end, 10);
    if (end == value || *end != '\0' || errno != 0) {
        out->append(value);  // not a time: shown as it is
        return;
    }
    auto when = static_cast<time_t>(seconds);
    struct tm local {};
    if (localtime_r(&when, &local) == nullptr) {
        out->append(value);
        return;
    }
    std::string format(ph.braces, ph.braces_length);
    char buffer[kTimeBuffer];
    size_t n = std::strftime(buffer, sizeof buffer, format.c_str(), &local);
    out->append(buffer, n);
}

// Renders `format`, asking `substitute` for each well-formed placeholder;
// substitute returns false to have the placeholder copied as it is.
template <typename Substitute>
void render_with(const char* format, std::string* out, Substitute substitute) {
    if (format == nullptr) return;
    const char* p = format;
    while (*p != '\0') {
        const char* percent = std::strchr(p, '%');
        if (percent == nullptr) {
            out->append(p);
            return;
        }
        out->append(p, static_cast<size_t>(percent - p));
        if (percent[1] == '%') {
            out->push_back('%');
            p = percent + 2;
            continue;
        }
        Placeholder ph;
        if (parse_placeholder(percent, &ph) && substitute(ph)) {
            p = ph.end;
        } else {
            out->push_back('%');
            p = percent + 1;
        }
    }
}

const ExException* as_record(const void* record) {
    return static_cast<const ExException*>(record);
}

char* to_runtime_string(const std::string& text) {
    auto* copy = static_cast<char*>(mg_malloc(text.size() + 1));
    std::memcpy(copy, text.c_str(), text.size() + 1);
    return copy;
}

}  // namespace

void message_render(const char* format, const char* const* args, uint32_t count, std::string* out) {
    render_with(format, out, [&](const Placeholder& ph) {
        if (ph.position == 0 || ph.position > count) return false;
        const char* value = args[ph.position - 1];
        if (ph.letter == 't' && ph.braces != nullptr) {
            append_time(value, ph, out);
        } else {
            out->append(value == nullptr ? "(null)" : value);
        }
        return true;
    });
}

namespace {

// The argument strings of a message entry, or null with *count 0.
char* const* entry_arguments(const Kel_Types_XOpenMessageEntry& entry, uint32_t* count) {
    *count = 0;
    TypeCode tc = entry.arguments._type;
    auto* list = static_cast<const Kel_Types_StringList*>(entry.arguments._value);
    if (tc == nullptr || list == nullptr) return nullptr;
    if (tc != TC_Kel_Types_StringList &&
        (tc->repo_id == nullptr || std::strcmp(tc->repo_id, TC_Kel_Types_StringList->repo_id) != 0))
        return nullptr;
    *count = list->length;
    return list->buffer;
}

// Renders a record: its format over its seven fields.
void render_record(const ExException* record, std::string* out) {
    const char* format = record->format != nullptr ? record->format : "%7$M";
    render_with(format, out, [&](const Placeholder& ph) {
        switch (ph.position) {
            case 1:
                out->append(record->type_id != nullptr ? record->type_id : "");
                return true;
            case 2:
                out->append(record->reserved_text != nullptr ? record->reserved_text : "");
                return true;
            case 3:
                out->append(std::to_string(record->reserved_code));
                return true;
            case 5: {
                std::string seconds = std::to_string(record->timestamp);
                if (ph.letter == 't' && ph.braces != nullptr) {
                    append_time(seconds.c_str(), ph, out);
                } else {
                    out->append(seconds);
                }
                return true;
            }
            case 7:
                for (uint32_t i = 0; i < record->messages.length; ++i) {
                    const Kel_Types_XOpenMessageEntry& entry = record->messages.buffer[i];
                    uint32_t count = 0;
                    char* const* args = entry_arguments(entry, &count);
                    message_render(entry.default_text, args, count, out);
                }
                return true;
            default:
                return false;  // 4 (the format itself) and 6 print as written
        }
    });
}

}  // namespace

// The first message of a record, or null.
static const Kel_Types_XOpenMessageEntry* first_entry(const void* record) {
    if (record == nullptr) return nullptr;
    const ExException* r = as_record(record);
    if (r->messages.length == 0 || r->messages.buffer == nullptr) return nullptr;
    return &r->messages.buffer[0];
}

}  // namespace fanout

using fanout::first_entry;

extern "C" {

FANOUT_EXPORT char* ex_render_text(const char* format, const char* const* args, uint32_t count) {
    if (format == nullptr) return nullptr;
    if (args == nullptr) count = 0;
    std::string text;
    try {
        fanout::message_render(format, args, count, &text);
    } catch (const std::bad_alloc&) {
        fanout::raise_no_memory(text.capacity() * 2);
    }
    return fanout::to_runtime_string(text);
}

FANOUT_EXPORT char* ex_render(const void* record) {
    if (record == nullptr) return nullptr;
    std::string text;
    try {
        fanout::render_record(fanout::as_record(record), &text);
    } catch (const std::bad_alloc&) {
        fanout::raise_no_memory(text.capacity() * 2);
    }
    return fanout::to_runtime_string(text);
}

FANOUT_EXPORT const char* ex_type_id(const void* record) {
    return record == nullptr ? nullptr : fanout::as_record(record)->type_id;
}

FANOUT_EXPORT const char* ex_catalog(const void* record) {
    const Kel_Types_XOpenMessageEntry* e = first_entry(record);
    return e == nullptr ? nullptr : e->catalog;
}

FANOUT_EXPORT int32_t ex_number(const void* record) {
    const Kel_Types_XOpenMessageEntry* e = first_entry(record);
    return e == nullptr ? 0 : e->number;
}

FANOUT_EXPORT const char* ex_default_text(const void* record) {
    const Kel_Types_XOpenMessageEntry* e = first_entry(record);
    return e == nullptr ? nullptr : e->default_text;
}

FANOUT_EXPORT uint32_t ex_argument_count(const void* record) {
    const Kel_Types_XOpenMessageEntry* e = first_entry(record);
    uint32_t count = 0;
    if (e != nullptr) fanout::entry_arguments(*e, &count);
    return count;
}

FANOUT_EXPORT const char* ex_argument(const void* record, uint32_t i) {
    const Kel_Types_XOpenMessageEntry* e = first_entry(record);
    if (e == nullptr) return nullptr;
    uint32_t count = 0;
    char* const* args = fanout::entry_arguments(*e, &count);
    return i < count ? args[i] : nullptr;
}

FANOUT_EXPORT int32_t ex_is_a(const void* record, const char* type_id) {
    const char* id = ex_type_id(record);
    if (id == nullptr || type_id == nullptr) return 0;
    size_t n = std::strlen(type_id);
    return std::strncmp(id, type_id, n) == 0 && (id[n] == '\0' || id[n] == ':') ? 1 : 0;
}

}  // extern "C"
