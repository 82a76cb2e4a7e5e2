/* exception.h - raising, catching and rendering the service's exceptions.
 *
 * Every failure on the record side is an exception record: a plain structure
 * whose first seven fields are those of ExException below, carrying one
 * catalogue message (catalogue name, number, default text with positional
 * placeholders such as "%1$s", and the arguments as strings).
 *
 * Raising throws a C++ exception of class fanout::Exception that owns the
 * record. C++ callers catch fanout::Exception; C callers run the call through
 * fanout_call(), which hands back the raised record instead of unwinding.
 * An exception that nobody catches prints its rendered message and type id to
 * standard error and aborts the process.
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
    char* catalog;       /* catalogue name, or null */
    char* default_text;  /* the text with positional placeholders */
    int32_t number;      /* message number in the catalogue */
    Any arguments;       /* TC_Kel_Types_StringList: the arguments as strings */
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
#define FANOUT_EXCEPTION_FIELDS                                              \
    char* type_id;          /* inheritance chain, e.g. "...:ExErrorMsg" */     \
    char* reserved_text;    /* unused here: null */                           \
    int32_t reserved_code;  /* unused here: 0 */                              \
    char* format;           /* how to print the record: "%7$M" */             \
    int32_t timestamp;      /* seconds since the epoch at creation */         \
    _sequence_any contexts; /* message contexts: empty here */                \
    Kel_Types_XOpenMessage messages; /* one entry */

/* The base exception record (the runtime's ExErrorMsg). Every block it points
 * to comes from the runtime allocator and belongs to the record. */
typedef struct ExException {
    FANOUT_EXCEPTION_FIELDS
} ExException;

FANOUT_EXPORT extern const struct TypeCodeRec _tc_rec_Kel_Types_XOpenMessageEntry,
    _tc_rec_Kel_Types_XOpenMessage, _tc_rec_ExErrorMsg;
FANOUT_EXPORT extern const TypeCode TC_Kel_Types_XOpenMessageEntry, TC_Kel_Types_XOpenMessage,
    TC_ExErrorMsg;

/* The type id of the runtime's own catalogue exceptions (vaThrow). */
#define FANOUT_EX_ERROR_MSG_ID "Exception:UserException:SysAdminException::ExException:ExErrorMsg"

/* Raises a catalogue message as an ExErrorMsg exception. Each conversion of
 * `format` ("%N$d", "%N$u", "%N$x", "%N$o", "%N$X": a 32-bit integer,
 * rendered unsigned; "%N$s": a string, "$errno" standing for the text of the
 * current errno) consumes the next argument, in order of appearance. Does not
 * return. */
FANOUT_EXPORT FANOUT_NORETURN void vaThrow(const char* catalog, int32_t number,
                                           const char* format, ...);

/* As vaThrow, but stores the exception in env instead of raising (freeing
 * any exception env held). A null env is ignored. */
FANOUT_EXPORT void vaRaiseException(Environment* env, const char* catalog, int32_t number,
                                    const char* format, ...);

/* Builds a new zero-filled record of record_size bytes (at least
 * sizeof(ExException)) with the base fields filled from the message, as
 * vaThrow does. The caller owns it; free with ex_free. */
FANOUT_EXPORT ExException* ex_build(const char* type_id, size_t record_size,
                                    const char* catalog, int32_t number, const char* format,
                                    va_list args);

/* Throws `record` (which must start with the ExException fields) as a
 * fanout::Exception that owns it. Does not return. */
FANOUT_EXPORT FANOUT_NORETURN void eh_throw(const char* type_id, void* record);

/* Frees an exception record and everything it owns. Null is ignored. */
FANOUT_EXPORT void ex_free(void* record);

/* The rendered message of a record: its first message's default text with
 * the arguments substituted by position, including the time form
 * "%N$t{strftime format}" (argument: seconds since the epoch, local time).
 * Newly allocated; free with mg_free. Null record gives null. */
FANOUT_EXPORT char* ex_render(const void* record);

/* Renders `format` with positional string arguments as ex_render does.
 * Newly allocated; free with mg_free. */
FANOUT_EXPORT char* ex_render_text(const char* format, const char* const* args,
                                   uint32_t count);

/* Accessors of a record's first message; null record gives null / 0. */
FANOUT_EXPORT const char* ex_type_id(const void* record);
FANOUT_EXPORT const char* ex_catalog(const void* record);
FANOUT_EXPORT int32_t ex_number(const void* record);
/* Argument i of the first message, or null when there is none. */
FANOUT_EXPORT const char* ex_argument(const void* record, uint32_t i);
FANOUT_EXPORT uint32_t ex_argument_count(const void* record);
/* 1 when the record's type id is `type_id` or derives from it (its chain
 * starts with `type_id` followed by ":" or the end). */
FANOUT_EXPORT int32_t ex_is_a(const void* record, const char* type_id);

/* Runs fn(arg). Returns 0 when it returned normally (*raised set to null),
 * or 1 when it raised a fanout exception: *raised receives the record, which
 * the caller owns and frees with ex_free. Other C++ exceptions are turned
 * into an ExErrorMsg record. `raised` may be null (the record is freed). */
typedef void (*FanoutCallFn)(void* arg);
FANOUT_EXPORT int32_t fanout_call(FanoutCallFn fn, void* arg, void** raised);

FANOUT_END_DECLS

#ifdef __cplusplus
#include <exception>
#include <string>

namespace fanout {

/* The C++ face of a raised record. Owns the record; copying duplicates it. */
class FANOUT_EXPORT Exception : public std::exception {
public:
    explicit Exception(void* record) noexcept;
    Exception(const Exception& other);
    Exception& operator=(const Exception& other);
    ~Exception() override;
    const char* what() const noexcept override; /* the rendered message */
    const ExException* record() const noexcept { return static_cast<const ExException*>(record_); }
    void* release() noexcept; /* hands the record to the caller */
    const char* type_id() const noexcept { return ex_type_id(record_); }
    int32_t number() const noexcept { return ex_number(record_); }
    const char* catalog() const noexcept { return ex_catalog(record_); }
    const char* argument(uint32_t i) const noexcept { return ex_argument(record_, i); }
    uint32_t argument_count() const noexcept { return ex_argument_count(record_); }

private:
    void* record_;
    mutable std::string text_;
};

}  // namespace fanout
#endif

#endif /* FANOUT_EXCEPTION_H */
