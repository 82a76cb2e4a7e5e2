// exception.cpp - raising, catching and freeing exception records.
//
// A raised record travels as a C++ exception of class fanout::Exception, so
// clean-ups on the way out are ordinary destructors. C callers cannot catch
// C++ exceptions; they run a call through fanout_call, which catches the
// exception and hands the record back. The first raise installs a terminate
// handler that prints an uncaught record's message and type id before the
// process aborts; it passes every other uncaught exception to the handler
// that was installed before it. Memory exhaustion is raised from a record
// built with the C heap directly or, when even that fails, from a static one.

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <mutex>
#include <new>

#include "fanout/exception.h"
#include "runtime/raise.h"

namespace fanout {

struct ExceptionHolder {
    void* record;
    explicit ExceptionHolder(void* r) : record(r) {}
    ExceptionHolder(const ExceptionHolder&) = delete;
    ExceptionHolder& operator=(const ExceptionHolder&) = delete;
    ~ExceptionHolder() { ex_free(record); }
};

namespace {

constexpr const char* kNoMemoryText = "Cannot allocate %1$s bytes of memory.\n";

// The record raised when no memory is left to build one. It is never freed
// or changed; ex_free recognises it.
char g_static_size[] = "?";
char* g_static_args[] = {g_static_size, nullptr};
Kel_Types_StringList g_static_list = {1, 1, g_static_args};
Kel_Types_XOpenMessageEntry g_static_entry = {
    nullptr, const_cast<char*>(kNoMemoryText), 0, {&_tc_rec_Kel_Types_StringList, &g_static_list}};
ExException g_static_no_memory = {const_cast<char*>(FANOUT_EX_NO_MEMORY_ID),
                                  nullptr,
                                  0,
                                  const_cast<char*>("%7$M"),
                                  0,
                                  {0, 0, nullptr},
                                  {1, 1, &g_static_entry}};

// A NO_MEMORY record built with the C heap only (the runtime allocator would
// raise again), or the static record when that fails too.
void* no_memory_record(size_t bytes) noexcept {
    auto* record = static_cast<ExException*>(std::calloc(1, sizeof(ExException)));
    auto* entry = static_cast<Kel_Types_XOpenMessageEntry*>(
        std::calloc(1, sizeof(Kel_Types_XOpenMessageEntry)));
    auto* list = static_cast<Kel_Types_StringList*>(std::calloc(1, sizeof(Kel_Types_StringList)));
    auto** args = static_cast<char**>(std::calloc(2, sizeof(char*)));
    auto* size = static_cast<char*>(std::malloc(24));
    char* id = strdup(FANOUT_EX_NO_MEMORY_ID);
    char* format = strdup("%7$M");
    char* text = strdup(kNoMemoryText);
    if (!record || !entry || !list || !args || !size || !id || !format || !text) {
        std::free(record);
        std::free(entry);
        std::free(list);
        std::free(args);
        std::free(size);
        std::free(id);
        std::free(format);
        std::free(text);
        return &g_static_no_memory;
    }
    std::snprintf(size, 24, "%zu", bytes);
    args[0] = size;
    *list = {1, 1, args};
    entry->default_text = text;
    entry->arguments = {TC_Kel_Types_StringList, list};
    record->type_id = id;
    record->format = format;
    record->timestamp = static_cast<int32_t>(std::time(nullptr));
    record->messages = {1, 1, entry};
    return record;
}

// A record for a message built from a fixed text and arguments; a NO_MEMORY
// record when building fails. Never throws.
void* build_record(const char* format, ...) noexcept {
    va_list args;
    va_start(args, format);
    void* record;
    try {
        record = ex_build(FANOUT_EX_ERROR_MSG_ID, sizeof(ExException), nullptr, 0, format, args);
    } catch (...) {
        record = no_memory_record(0);
    }
    va_end(args);
    return record;
}

std::terminate_handler g_previous_terminate = nullptr;

[[noreturn]] void on_terminate() {
    if (std::exception_ptr current = std::current_exception()) {
        try {
            std::rethrow_exception(current);
        } catch (const Exception& e) {
            const char* id = e.type_id();
            const char* text = e.what();
            size_t n = std::strlen(text);
            std::fprintf(stderr, "fanout: uncaught exception %s\n%s%s", id ? id : "(none)", text,
                         n > 0 && text[n - 1] == '\n' ? "" : "\n");
            std::fflush(stderr);
            std::abort();
        } catch (...) {
        }
    }
    if (g_previous_terminate != nullptr) g_previous_terminate();
    std::abort();
}

// Installs on_terminate once, keeping whatever handler was there before it
// for exceptions that are not ours.
void install_terminate_handler() {
    static std::once_flag once;
    std::call_once(once, [] { g_previous_terminate = std::set_terminate(on_terminate); });
}

void free_string_list(Kel_Types_StringList* list) {
    if (list == nullptr) return;
    for (uint32_t i = 0; i < list->length; ++i) mg_free(list->buffer[i]);
    mg_free(list->buffer);
    mg_free(list);
}

// Frees what an any owns. String lists (every message's arguments) are freed
// here; anything else goes to the generic walker.
void free_any(Any* any) {
    if (any->_type == TC_Kel_Types_StringList) {
        free_string_list(static_cast<Kel_Types_StringList*>(any->_value));
    } else if (any->_type != nullptr || any->_value != nullptr) {
        kel_free_generic(any, TC_any);
    }
    any->_type = nullptr;
    any->_value = nullptr;
}

}  // namespace

[[noreturn]] void raise_no_memory(std::size_t bytes) {
    void* record = no_memory_record(bytes);
    eh_throw(FANOUT_EX_NO_MEMORY_ID, record);
}

Exception::Exception(void* record) {
    try {
        holder_ = std::make_shared<ExceptionHolder>(record);
    } catch (...) {
        ex_free(record);
        throw;
    }
}

Exception::~Exception() = default;

const ExException* Exception::record() const noexcept {
    return holder_ ? static_cast<const ExException*>(holder_->record) : nullptr;
}

void* Exception::release() noexcept {
    if (!holder_) return nullptr;
    void* record = holder_->record;
    holder_->record = nullptr;
    return record;
}

const char* Exception::what() const noexcept {
    if (!text_.empty()) return text_.c_str();
    try {
        char* text = ex_render(record());
        if (text == nullptr) return "";
        text_ = text;
        mg_free(text);
        return text_.c_str();
    } catch (...) {
        return "fanout exception (message unavailable)";
    }
}

}  // namespace fanout

extern "C" {

FANOUT_EXPORT void eh_throw(const char* type_id, void* record) {
    // The record's own type_id identifies it; type_id only names a missing one.
    fanout::install_terminate_handler();
    if (record == nullptr) {
        record = fanout::build_record("An exception was raised without a record (%1$s).\n",
                                      type_id != nullptr ? type_id : "");
    }
    throw fanout::Exception(record);
}

FANOUT_EXPORT void ex_free(void* record) {
    if (record == nullptr || record == &fanout::g_static_no_memory) return;
    auto* r = static_cast<ExException*>(record);
    mg_free(r->type_id);
    mg_free(r->reserved_text);
    mg_free(r->format);
    for (uint32_t i = 0; i < r->contexts.length; ++i) fanout::free_any(&r->contexts.buffer[i]);
    mg_free(r->contexts.buffer);
    for (uint32_t i = 0; i < r->messages.length; ++i) {
        Kel_Types_XOpenMessageEntry& entry = r->messages.buffer[i];
        mg_free(entry.catalog);
        mg_free(entry.default_text);
        fanout::free_any(&entry.arguments);
    }
    mg_free(r->messages.buffer);
    mg_free(r);
}

FANOUT_EXPORT int32_t fanout_call(FanoutCallFn fn, void* arg, void** raised) {
    if (raised != nullptr) *raised = nullptr;
    if (fn == nullptr) return 0;
    void* record = nullptr;
    try {
        fn(arg);
        return 0;
    } catch (fanout::Exception& e) {
        record = e.release();
        if (record == nullptr) {
            record = fanout::build_record("An exception was raised without a record (%1$s).\n",
                                          "released");
        }
    } catch (const std::bad_alloc&) {
        record = fanout::no_memory_record(0);
    } catch (const std::exception& e) {
        record = fanout::build_record("Unexpected exception: %1$s\n", e.what());
    } catch (...) {
        record = fanout::build_record("Unexpected exception: %1$s\n", "unknown");
    }
    if (raised != nullptr) {
        *raised = record;
    } else {
        ex_free(record);
    }
    return 1;
}

FANOUT_EXPORT int fanout_try(FanoutTryFn fn, void* context, char** message) {
    if (message != nullptr) *message = nullptr;
    if (fn == nullptr) return 0;
    // fanout_call's record for the raise, rendered here and freed: the
    // common case wants the words, not the record.
    struct Run {
        FanoutTryFn fn;
        void* context;
        int result;
    } run{fn, context, 0};
    void* record = nullptr;
    if (fanout_call(
            [](void* r) {
                auto* job = static_cast<Run*>(r);
                job->result = job->fn(job->context);
            },
            &run, message != nullptr ? &record : nullptr) == 0) {
        return run.result;
    }
    if (message != nullptr) {
        try {
            *message = ex_render(record);
        } catch (...) {
            *message = nullptr;  // no memory even for the message
        }
        ex_free(record);
    }
    return FANOUT_RAISED;
}

FANOUT_EXPORT void ev_to_exception(Environment* env) {
    if (env == nullptr || env->_major == FANOUT_NO_EXCEPTION || env->_exception == nullptr) return;
    void* record = env->_exception;
    env->_major = FANOUT_NO_EXCEPTION;
    env->_exception = nullptr;
    env->_id = nullptr;
    eh_throw(ex_type_id(record), record);
}

}  // extern "C"
