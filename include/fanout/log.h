/* log.h - logging, configuration and the small host-compatibility calls.
 *
 * Log lines carry a level: 0 failure, 1 tolerated problem, 2 notice, 3 trace.
 * Lines at or below the configured level (FANOUT_LOG_LEVEL, default 1) go to
 * FANOUT_LOG_FILE (appended) or, without it, to standard error. A handler
 * installed with fanout_log_set_handler receives every line that passes the
 * level filter instead. A suppressed level costs one comparison: nothing is
 * formatted. The default destination adds a newline to a line that lacks
 * one. FANOUT_LOG_LEVEL and FANOUT_LOG_FILE are read once, at the first line.
 *
 * Thread safety: every function here may be called from any thread at any
 * time. Each line is written whole, one at a time; a handler, though, is
 * called without a lock and may run on several threads at once, so it must
 * be thread-safe itself. The configuration calls read the environment and the
 * configuration file on every call: nothing is cached, and nothing may change
 * the environment (setenv, putenv) while another thread calls them.
 */
#ifndef FANOUT_LOG_H
#define FANOUT_LOG_H

#include <stdint.h>

#include "export.h"

FANOUT_BEGIN_DECLS

/* Logs a catalogue-style message: `format` with positional placeholders
 * ("%1$s", "%2$d") substituted from the arguments, which are read as vaThrow
 * reads them (by conversion letter, in order of appearance). A format that is
 * not such a message text (it has "%d" or another conversion vaThrow does not
 * accept) is logged as it is and no argument is read, so an already formatted
 * line passes unchanged. A formatted line that may contain "%N$s" itself must
 * go through fanout_log_line or as the argument of "%1$s": it would otherwise
 * be taken for a message text. catalog/number name the message (null/0 for
 * none; there is no translation, the default text is logged); `flags` is
 * reserved (callers pass -1). Never raises. */
FANOUT_EXPORT void LogMsg(int32_t level, const char* catalog, int32_t number, int32_t flags,
                          const char* format, ...);
/* Logs a printf-style line through the log queue. Never raises. */
FANOUT_EXPORT void LogQ(int32_t level, const char* format, ...) FANOUT_PRINTF(2, 3);
/* Logs `line` exactly as it is (no substitution). Null is ignored. */
FANOUT_EXPORT void fanout_log_line(int32_t level, const char* line);

/* Receives each line that passes the level filter (without a trailing
 * newline added or removed). Null restores the default destination. */
typedef void (*FanoutLogHandler)(int32_t level, const char* line, void* context);
FANOUT_EXPORT void fanout_log_set_handler(FanoutLogHandler handler, void* context);
/* Sets the highest level that is logged (overrides FANOUT_LOG_LEVEL). */
FANOUT_EXPORT void fanout_log_set_level(int32_t level);
/* 1 when a line of `level` would be logged. */
FANOUT_EXPORT int32_t fanout_log_enabled(int32_t level);

/* Configuration. */
/* The work directory (FANOUT_WORK_DIR), newly allocated (mg_free), or null. */
FANOUT_EXPORT char* mrt_get_work_dir(void);
/* The configuration file's path (FANOUT_CONFIG), newly allocated, or null. */
FANOUT_EXPORT char* mrt_get_config_filespec(void);
/* Reads `key` from a "key=value" file. Returns 0 when the file was read:
 * *value is then a newly allocated copy of the value, or null when the key
 * is absent. Returns errno (non-zero) when the file cannot be read. */
FANOUT_EXPORT int32_t mrt_get_config_from_file(const char* filespec, const char* key, char** value);
/* A normalised, newly allocated copy of `path`: repeated and trailing
 * slashes and "." components removed; with `flags` 1 a relative path is made
 * absolute against the current directory. Null gives null. */
FANOUT_EXPORT char* CorrectPath(const char* path, int32_t flags);

/* Compatibility. */
/* getenv: the value (not a copy), or null. */
FANOUT_EXPORT const char* cpl_getenv(const char* name);
/* The directory for temporary files (TMPDIR, else "/tmp"); not a copy.
 * `flags` is reserved (pass 0). */
FANOUT_EXPORT const char* cpl_tmpdir(int32_t flags);
/* The byte type of s[index] in the current locale's multibyte code set:
 * 0 a single-byte character, 1 the first byte of a multibyte character,
 * 2 a following byte of one, -1 an invalid byte or a bad argument. */
FANOUT_EXPORT int32_t ilx_mbsbtype(const char* s, int32_t index);

FANOUT_END_DECLS

#endif /* FANOUT_LOG_H */
