/* export.h - how libfanout marks what it exports.
 *
 * Everything in the library is hidden by default; each public declaration is
 * marked with FANOUT_EXPORT. Declarations are wrapped in FANOUT_BEGIN_DECLS /
 * FANOUT_END_DECLS so that the headers read the same from C11 and C++20.
 *
 * Thread safety: macros only; nothing here has state.
 */
#ifndef FANOUT_EXPORT_H
#define FANOUT_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define FANOUT_EXPORT __attribute__((visibility("default")))
#define FANOUT_NORETURN __attribute__((noreturn))
#define FANOUT_PRINTF(fmt, args) __attribute__((format(printf, fmt, args)))
#else
#define FANOUT_EXPORT
#define FANOUT_NORETURN
#define FANOUT_PRINTF(fmt, args)
#endif

#ifdef __cplusplus
#define FANOUT_BEGIN_DECLS extern "C" {
#define FANOUT_END_DECLS }
#else
#define FANOUT_BEGIN_DECLS
#define FANOUT_END_DECLS
#endif

#endif /* FANOUT_EXPORT_H */
