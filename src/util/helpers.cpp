/* helpers.cpp - sequence zeroing and replacement, length counters, times.
 *
 * Small value helpers of the record side. The sequence calls work on any
 * record of the three-word form {maximum, length, buffer}. The length
 * counter keeps a byte count as thousands and units so that totals beyond
 * 4 GiB fit two 32-bit words; its text is what progress files carry. The
 * time formatter produces the time stamps of progress and log lines.
 */
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "fanout/catalog.h"
#include "fanout/exception.h"
#include "fanout/file.h"
#include "fanout/runtime.h"
#include "runtime/raise.h"

namespace {

constexpr size_t kLengthTextSize = 32;

/* A decimal text converted as strtol does (leading blanks, a sign, digits up
 * to the first non-digit), kept to 32 bits the way a 32-bit field receives
 * it: negative values wrap. Null counts as 0. */
uint32_t decimal_field(const char* text) {
    if (text == nullptr) {
        return 0;
    }
    return static_cast<uint32_t>(std::strtoll(text, nullptr, 10));
}

}  // namespace

extern "C" {

void seq_init(void* s) {
    auto* seq = static_cast<GenericSeq*>(s);
    seq->maximum = 0;
    seq->length = 0;
    seq->buffer = nullptr;
}

void seq_free(void* s) {
    if (s == nullptr) {
        return;
    }
    auto* seq = static_cast<GenericSeq*>(s);
    if (seq->maximum != 0) {
        mg_free(seq->buffer);
    }
    mg_free(seq);
}

void* seq_replace(void* s, const void* item, uint32_t index, uint32_t size) {
    auto* seq = static_cast<GenericSeq*>(s);
    if (index >= seq->length) {
        fanout::raise_catalogued(39, index, seq->length);
    }
    char* element = static_cast<char*>(seq->buffer) + static_cast<size_t>(index) * size;
    void* old = mg_malloc(size);
    std::memcpy(old, element, size);
    std::memcpy(element, item, size);
    return old;
}

Int64Length* int64_length_new(void) {
    return static_cast<Int64Length*>(mg_calloc(1, sizeof(Int64Length)));
}

Int64Length* int64_length_new2(const char* thousands_text, const char* units_text) {
    Int64Length* c = int64_length_new();
    c->thousands = decimal_field(thousands_text);
    c->units = static_cast<int32_t>(decimal_field(units_text));
    return c;
}

Int64Length* int64_length_clone(const Int64Length* c) {
    Int64Length* copy = int64_length_new();
    *copy = *c;
    return copy;
}

int32_t int64_length_equal(const Int64Length* a, const Int64Length* b) {
    if (a == nullptr || b == nullptr) {
        return a == b ? 1 : 0;
    }
    return a->thousands == b->thousands && a->units == b->units ? 1 : 0;
}

void int64_length_add(Int64Length* c, int64_t n) {
    // Negative amounts are accepted and take no borrow: units may go below
    // zero, and the thousands wrap as an unsigned 32-bit field does.
    c->thousands += static_cast<uint32_t>(n / 1000);
    c->units += static_cast<int32_t>(n % 1000);
    if (c->units > 999) {
        c->units -= 1000;
        c->thousands += 1;
    }
}

char* int64_length_to_string(const Int64Length* c) {
    char* text = static_cast<char*>(mg_calloc(1, kLengthTextSize));
    // Both fields print unsigned, as 32-bit words: a negative units field
    // shows as its unsigned value, which the text has always done.
    std::snprintf(text, kLengthTextSize, "%lu%03lu\n", static_cast<unsigned long>(c->thousands),
                  static_cast<unsigned long>(static_cast<uint32_t>(c->units)));
    return text;
}

void int64_length_delete(Int64Length* c) {
    mg_free(c);
}

size_t time_to_string(char* buffer, size_t size, int64_t t) {
    const time_t when = static_cast<time_t>(t);
    struct tm local;
    if (localtime_r(&when, &local) == nullptr) {
        if (size > 0) {
            buffer[0] = '\0';
        }
        return 0;
    }
    // The trailing blank is part of the stamp: callers append text to it.
    return std::strftime(buffer, size, "%Y/%m/%d %H:%M:%S ", &local);
}

}  // extern "C"
