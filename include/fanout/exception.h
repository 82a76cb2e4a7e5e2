/* exception.h - raising, catching and rendering the service's exceptions.
 *
 * Every failure on the record side is an exception record: a plain structure
 * whose first seven fields are those of ExException below, carrying one
 * catalogue message (catalogue name, number, default text with positional
 * placeholders such as "%1$s", and the arguments as strings).
 *
 * Raising throws a C++ exception of class fanout::Exception that owns the
 * record. C++ callers catch fanout::Exception; C callers run the call through
 * fanout_try(), which returns the function's result or FANOUT_RAISED and the
 * rendered message, or fanout_call(), which hands back the raised record
 * instead of unwinding. A raise unwinds through C frames without running any
 * of their clean-up: docs/conventions.md says what such a frame must not
 * hold.
 * An exception that nobody catches prints its rendered message and type id to
 * standard error and aborts the process.
 *
 * Thread safety: any thread may raise, catch, render and free records at
 * any time, and each thread's uncaught exception is reported alike. A record,
 * and a fanout::Exception object with its copies, belongs to one thread at a
 * time; hand it to another thread only as a whole (with release()).
 */
#ifndef FANOUT_EXCEPTION_H
#define FANOUT_EXCEPTION_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#include "export.h"
#include "runtime.h"

FANOUT_BEGIN_DECLS

/* One catalogue message of an exception. */
typedef struct Kel_Types_XOpenMessageEntry {
    char* catalog;      /* catalogue name, or null */
    char* default_text; /* the text with positional placeholders */
    int32_t number;     /* message number in the catalogue */
    Any arguments;      /* TC_Kel_Types_StringList: the arguments as strings */
} Kel_Types_XOpenMessageEntry;

typedef struct Kel_Types_XOpenMessage {
    uint32_t maximum;
    uint32_t length;
    Kel_Types_XOpenMessageEntry* buffer;
} Kel_Types_XOpenMessage;

/* The seven base fields every exception record starts with, in marshalling
 * order. A derived record declares them first (with this macro) and appends
 * its own scalar fields, so a pointer to any record of the family can be read
 * as an ExException. */
#define FANOUT_EXCEPTION_FIELDS                                                     \
    char* type_id;                   /* inheritance chain, e.g. "...:ExErrorMsg" */ \
    char* reserved_text;             /* unused here: null */                        \
    int32_t reserved_code;           /* unused here: 0 */                           \
    char* format;                    /* how to print the record: "%7$M" */          \
    int32_t timestamp;               /* seconds since the epoch at creation */      \
    _sequence_any contexts;          /* message contexts: empty here */             \
    Kel_Types_XOpenMessage messages; /* one entry */

/* The base exception record (the runtime's ExErrorMsg). Every block it points
 * to comes from the runtime allocator and belongs to the record. */
typedef struct ExException {
    FANOUT_EXCEPTION_FIELDS
} ExException;

/* Type codes of the message entry (struct), the message list (sequence of
 * entries) and the base record (exception with the seven fields above). */
FANOUT_EXPORT extern const struct TypeCodeRec _tc_rec_Kel_Types_XOpenMessageEntry,
    _tc_rec_Kel_Types_XOpenMessage, _tc_rec_ExErrorMsg;
FANOUT_EXPORT extern const TypeCode TC_Kel_Types_XOpenMessageEntry, TC_Kel_Types_XOpenMessage,
    TC_ExErrorMsg;

/* The type id of the runtime's own catalogue exceptions (vaThrow). */
#define FANOUT_EX_ERROR_MSG_ID "Exception:UserException:SysAdminException::ExException:ExErrorMsg"
/* The type id of the exception the allocator raises when memory runs out.
 * Its message has no catalogue, number 0, the text
 * "Cannot allocate %1$s bytes of memory.\n" and the request size. */
#define FANOUT_EX_NO_MEMORY_ID "Exception:SystemException:NO_MEMORY"

/* Raises a catalogue message as an ExErrorMsg exception. Each conversion of
 * `format` ("%N$d", "%N$u", "%N$x", "%N$o", "%N$X": a 32-bit integer,
 * rendered unsigned in decimal; "%N$s": a string, "$errno" standing for the
 * text of the current errno) consumes the next argument, in order of
 * appearance (not by N); "%%" consumes nothing. A format with any other
 * conversion (no "$", another letter) raises the text
 * "Format has illegal types (%1$s)" with `format` as its argument, no
 * catalogue and number 0, and reads no argument. `catalog` may be null.
 * Does not return. */
FANOUT_EXPORT FANOUT_NORETURN void vaThrow(const char* catalog, int32_t number, const char* format,
                                           ...);

/* As vaThrow, but stores the exception in env (_major FANOUT_USER_EXCEPTION)
 * instead of raising, freeing any exception env held. A null env is ignored
 * and no argument is read. Raises only when memory is exhausted. */
FANOUT_EXPORT void vaRaiseException(Environment* env, const char* catalog, int32_t number,
                                    const char* format, ...);

/* Builds a new zero-filled record of record_size bytes (at least
 * sizeof(ExException); a smaller size is taken as that) with the base fields
 * filled from the message, as vaThrow does: type_id a copy of `type_id`,
 * format "%7$M", timestamp time(NULL), one message entry. The caller owns it
 * and frees it with ex_free. A null type_id aborts the process. */
FANOUT_EXPORT ExException* ex_build(const char* type_id, size_t record_size, const char* catalog,
                                    int32_t number, const char* format, va_list args);

/* Throws `record` (which must start with the ExException fields and come
 * from the runtime allocator) as a fanout::Exception that takes ownership.
 * The record's own type_id identifies it; `type_id` is accepted for the
 * framework's calling convention and not otherwise used. A null record
 * raises an ExErrorMsg saying so instead. Does not return. */
FANOUT_EXPORT FANOUT_NORETURN void eh_throw(const char* type_id, void* record);

/* Frees an exception record and everything its base fields own. Derived
 * fields are scalars and need nothing. Null is ignored. */
FANOUT_EXPORT void ex_free(void* record);

/* The rendered message of a record: its `format` field ("%7$M") rendered
 * over the record's fields, where "%7$M" stands for the message list, each
 * message being its default text with the arguments substituted by position
 * (see ex_render_text); "%1$s" stands for the type id and
 * "%5$t{...}" for the timestamp. A null format is taken as "%7$M". Newly
 * allocated; free with mg_free. A null record gives null. */
FANOUT_EXPORT char* ex_render(const void* record);

/* Renders `format` with `count` positional string arguments:
 *  - "%N$x" (N a decimal position from 1, x any letter but t) is replaced by
 *    argument N as it is (the arguments are already texts; a null argument
 *    gives "(null)");
 *  - "%N$t{fmt}" reads argument N as seconds since the epoch and is replaced
 *    by strftime(fmt) of that time in local time (an argument that is not a
 *    number is inserted as it is; the result is cut at 255 bytes);
 *  - "%%" gives "%";
 *  - any other "%" (no position, a position outside 1..count, no letter, an
 *    unterminated "{") is copied as it is, so nothing is ever lost.
 * Newly allocated; free with mg_free. A null format gives null; args may be
 * null when count is 0. */
FANOUT_EXPORT char* ex_render_text(const char* format, const char* const* args, uint32_t count);

/* Accessors of a record and its first message. A null record (or one without
 * messages) gives null / 0. The strings belong to the record. */
FANOUT_EXPORT const char* ex_type_id(const void* record);
FANOUT_EXPORT const char* ex_catalog(const void* record);
FANOUT_EXPORT int32_t ex_number(const void* record);
/* The default text of the first message. */
FANOUT_EXPORT const char* ex_default_text(const void* record);
/* Argument i of the first message, or null when there is none. */
FANOUT_EXPORT const char* ex_argument(const void* record, uint32_t i);
FANOUT_EXPORT uint32_t ex_argument_count(const void* record);
/* 1 when the record's type id is `type_id` or derives from it (its chain
 * starts with `type_id` followed by ":" or the end), else 0. Null
 * arguments give 0. */
FANOUT_EXPORT int32_t ex_is_a(const void* record, const char* type_id);

/* Runs fn(arg). Returns 0 when it returned normally (*raised set to null),
 * or 1 when it raised: *raised receives the record, which the caller owns and
 * frees with ex_free. A std::bad_alloc becomes the NO_MEMORY record; any
 * other C++ exception becomes an ExErrorMsg record whose text is
 * "Unexpected exception: %1$s\n" with what() as argument. `raised` may be
 * null (the record is then freed). A null fn returns 0 at once. Never lets
 * an exception escape. */
typedef void (*FanoutCallFn)(void* arg);
FANOUT_EXPORT int32_t fanout_call(FanoutCallFn fn, void* arg, void** raised);

/* The common case from C, in one call: runs fn(context) and returns what it
 * returned. When fn raised instead, returns FANOUT_RAISED (-1) and, when
 * `message` is not null, *message receives the raised record's rendered
 * message, as ex_render gives it (a new string: mg_free); exceptions that are
 * not the service's are turned into records as fanout_call does. *message is
 * set to null when fn returned, so a function that may itself return -1 is
 * told apart by it. The record itself is freed: use fanout_call to inspect
 * it. Should even the message not fit in memory, *message stays null and the
 * result is FANOUT_RAISED. A null fn returns 0 at once. Never lets an
 * exception escape. docs/conventions.md has a complete example. */
#define FANOUT_RAISED (-1)
typedef int (*FanoutTryFn)(void* context);
FANOUT_EXPORT int fanout_try(FanoutTryFn fn, void* context, char** message);

FANOUT_END_DECLS

#ifdef __cplusplus
#include <exception>
#include <memory>
#include <string>

namespace fanout {

struct ExceptionHolder;

/* The C++ face of a raised record. The record is shared by copies of the
 * exception object (copying never duplicates it) and freed with the last
 * copy, unless a copy hands it to the caller with release(); every copy then
 * sees a null record. Constructing one allocates a small shared block: if
 * that fails the record is freed and std::bad_alloc is thrown. */
class FANOUT_EXPORT Exception : public std::exception {
  public:
    explicit Exception(void* record);
    Exception(const Exception& other) = default;
    Exception& operator=(const Exception& other) = default;
    ~Exception() override;
    const char* what() const noexcept override; /* the rendered message */
    const ExException* record() const noexcept;
    void* release() noexcept; /* hands the record to the caller (ex_free) */
    const char* type_id() const noexcept { return ex_type_id(record()); }
    int32_t number() const noexcept { return ex_number(record()); }
    const char* catalog() const noexcept { return ex_catalog(record()); }
    const char* argument(uint32_t i) const noexcept { return ex_argument(record(), i); }
    uint32_t argument_count() const noexcept { return ex_argument_count(record()); }
    bool is_a(const char* id) const noexcept { return ex_is_a(record(), id) != 0; }

  private:
    std::shared_ptr<ExceptionHolder> holder_;
    mutable std::string text_;
};

}  // namespace fanout
#endif

#endif /* FANOUT_EXCEPTION_H */
