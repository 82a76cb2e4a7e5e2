// message.h - the pieces shared by exception building and logging.
//
// A catalogue message is a format with positional conversions ("%2$s") and
// the arguments as strings. Building one reads the caller's variable
// arguments by the conversion letters, in order of appearance; rendering one
// substitutes the strings back by position. Exceptions (exbuild.cpp,
// render.cpp) and LogMsg (log.cpp) both go through these helpers.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>

namespace fanout {

// The conversion letters of `format` in order of appearance ("%%" skipped),
// appended to *letters. A conversion is "%", any run of "0123456789.", "$",
// then one of the letters X d o u x s. Returns false when a conversion is
// malformed (no "$", another letter, or the text ends).
// A null format has no conversions.
bool message_conversions(const char* format, std::string* letters);

// The collected argument strings of one message: runtime-allocated strings
// in a runtime-allocated array. The array grows by 10 entries when full and
// always has room for one more pointer than its capacity. Frees what it
// holds unless released.
class MessageArgs {
  public:
    MessageArgs() = default;
    MessageArgs(const MessageArgs&) = delete;
    MessageArgs& operator=(const MessageArgs&) = delete;
    ~MessageArgs();

    // Adopts `text` (a runtime-allocated string or null) as the next argument.
    void push(char* text);
    // Frees every argument; the array is kept.
    void clear();
    uint32_t count() const { return count_; }
    uint32_t capacity() const { return capacity_; }
    char* const* items() const { return items_; }
    // Hands the array (null when empty) to the caller.
    char** release();

  private:
    void make_room();
    char** items_ = nullptr;
    uint32_t count_ = 0;
    uint32_t capacity_ = 0;
};

// Reads one argument per letter from `args` and appends its text to *out:
// integers rendered "%u" into 21 bytes, strings duplicated, "$errno" turned
// into the text of `saved_errno` ("errno=%d" when the system has none).
void message_collect(const std::string& letters, va_list args, int saved_errno, MessageArgs* out);

// Renders `format` with positional string arguments (the rules of
// ex_render_text in exception.h), appending to *out.
void message_render(const char* format, const char* const* args, uint32_t count, std::string* out);

}  // namespace fanout
