/* file.h - the file object of the record side, and small value helpers.
 *
 * A File is a thin wrapper over a host descriptor for code that reports
 * failures by raising catalogue exceptions (exception.h, catalog.h): every
 * failing call below raises and never returns an error code. Memory comes
 * from the runtime allocator (runtime.h).
 *
 * Beside it: the zeroing, freeing and element replacement of the generated
 * sequence records, a length counter kept as thousands and units, and a
 * time-stamp formatter.
 *
 * Thread safety: a File is used by one thread at a time; different Files,
 * and the value helpers, may be used from any thread at once.
 */
#ifndef FANOUT_FILE_H
#define FANOUT_FILE_H

#include <stddef.h>
#include <stdint.h>

#include "export.h"

FANOUT_BEGIN_DECLS

/* An open (or closed) file: its path (a copy, owned) and its descriptor,
 * -1 when closed. */
typedef struct File {
    char* path;
    int32_t fd;
} File;

/* Opens path with the host open flags oflag (O_RDONLY, O_RDWR|O_APPEND...;
 * no creation mode). Returns a new object that the caller owns (release with
 * file_delete). Failure raises catalogue message 11 with the path. */
FANOUT_EXPORT File* file_open(const char* path, int32_t oflag);

/* Opens path with oflag plus O_CREAT and the permission bits mode (subject
 * to the umask). Returns a new object that the caller owns. Failure raises
 * message 12 with the path and errno. */
FANOUT_EXPORT File* file_create(const char* path, int32_t oflag, uint32_t mode);

/* 1 when f is not null and its descriptor is not -1, else 0. */
FANOUT_EXPORT int32_t file_is_open(const File* f);

/* Closes the descriptor and sets it to -1. A null f raises message 13; a
 * failing close (also of an already closed object, descriptor -1) raises
 * message 14 with the path and leaves the descriptor as it was. */
FANOUT_EXPORT void file_close(File* f);

/* Removes the file named by f's path, open or not; the object stays. A null
 * f raises message 15; a failure raises message 16 with the path. */
FANOUT_EXPORT void file_remove(File* f);

/* Closes f when open, then frees its path and the object; the file on disk
 * stays. A null f raises message 17; a failing close raises as file_close
 * does, and the object is then not freed. */
FANOUT_EXPORT void file_delete(File* f);

/* One host read of at most len bytes into buffer. Returns the bytes read, 0
 * at the end of the file. A null f raises message 18; a failure raises
 * message 19 with the path, len and errno. */
FANOUT_EXPORT int32_t file_read(File* f, void* buffer, int32_t len);

/* One host write of len bytes from buffer. Returns len. A null f raises
 * message 20; a failure or a short write (not retried) raises message 21
 * with the path and len. */
FANOUT_EXPORT int32_t file_write(File* f, const void* buffer, int32_t len);

/* Moves to the absolute position offset. Returns the new position. A null f
 * raises message 22; a failure raises message 23 with the path and errno. */
FANOUT_EXPORT uint32_t file_seek(File* f, uint32_t offset);

/* The size in bytes of the file named path (its low 32 bits). Failure raises
 * message 24 with the path. */
FANOUT_EXPORT uint32_t file_get_size(const char* path);

/* The host access test of path with mode (F_OK, R_OK...). Returns 0; failure
 * raises message 25 with the path and the mode. */
FANOUT_EXPORT int32_t file_access(const char* path, int32_t mode);

/* The modification time of path in seconds since the epoch, or -1 when it
 * cannot be queried. Never raises. */
FANOUT_EXPORT int64_t file_get_mtime(const char* path);

/* The file status as the host reports it, field for field. */
typedef struct FileStatus {
    uint64_t dev;
    uint64_t ino;
    uint32_t mode;
    uint32_t nlink;
    uint32_t uid;
    uint32_t gid;
    uint64_t rdev;
    int64_t size;
    int64_t blksize;
    int64_t blocks;
    int64_t atime; /* seconds since the epoch */
    int64_t mtime;
    int64_t ctime;
} FileStatus;

/* The host's file-status call on path: its result (0, or -1 with errno set)
 * returned unchanged; on success buffer holds the status. Never raises. */
FANOUT_EXPORT int32_t stat_ex(const char* path, FileStatus* buffer);

/* ------------------------------------------------------------------------ */
/* Sequences: any record of the three-word form {maximum, length, buffer}
 * (GenericSeq in runtime.h). */

/* Sets maximum, length and buffer to zero; frees nothing. */
FANOUT_EXPORT void seq_init(void* s);

/* Frees the buffer when maximum is non-zero (the record owns it then), then
 * the record itself (which must come from the runtime allocator). The
 * elements' own contents are not freed. Null is ignored. */
FANOUT_EXPORT void seq_free(void* s);

/* Replaces element index (of size bytes) by a copy of the bytes at item, and
 * returns a newly allocated copy of the old element (the caller owns it and
 * frees it with mg_free, its contents first). An index at or past the
 * length raises catalogue message 39 with the index and the length. */
FANOUT_EXPORT void* seq_replace(void* s, const void* item, uint32_t index, uint32_t size);

/* ------------------------------------------------------------------------ */
/* A 64-bit length kept as thousands * 1000 + units. */

typedef struct Int64Length {
    uint32_t thousands;
    int32_t units; /* 0..999 after int64_length_add of non-negative amounts */
} Int64Length;

/* A new zeroed counter; the caller owns it (int64_length_delete). */
FANOUT_EXPORT Int64Length* int64_length_new(void);

/* A new counter whose fields are the two decimal texts converted as strtol
 * does (leading blanks and a sign accepted, stopping at the first
 * non-digit); a null text counts as 0. The caller owns it. */
FANOUT_EXPORT Int64Length* int64_length_new2(const char* thousands_text, const char* units_text);

/* A new copy of c; the caller owns it. c must not be null. */
FANOUT_EXPORT Int64Length* int64_length_clone(const Int64Length* c);

/* 1 when both fields of a and b are equal, else 0. */
FANOUT_EXPORT int32_t int64_length_equal(const Int64Length* a, const Int64Length* b);

/* Adds n: n / 1000 to thousands and n % 1000 to units, carrying one thousand
 * when units passes 999. A negative n may leave units negative (no borrow is
 * taken). c must not be null. */
FANOUT_EXPORT void int64_length_add(Int64Length* c, int64_t n);

/* A new 32-byte text: the thousands, the units as exactly three digits, and
 * a newline ("%lu%03lu\n": 12 and 7 give "12007\n"). The caller owns it
 * (mg_free). */
FANOUT_EXPORT char* int64_length_to_string(const Int64Length* c);

/* Frees c. Null is ignored. */
FANOUT_EXPORT void int64_length_delete(Int64Length* c);

/* Formats t (seconds since the epoch) in local time as
 * "%Y/%m/%d %H:%M:%S " (note the trailing blank) into buffer of size bytes.
 * Returns the number of characters written, 0 when they do not fit. */
FANOUT_EXPORT size_t time_to_string(char* buffer, size_t size, int64_t t);

FANOUT_END_DECLS

#endif /* FANOUT_FILE_H */
