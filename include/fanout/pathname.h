/* pathname.h - path names, directory listing and wildcard matching.
 *
 * These helpers belong to the record side of the library: memory comes from
 * the runtime allocator (runtime.h) and failures are raised as catalogue
 * exceptions (exception.h, catalog.h), never returned.
 *
 * A path name is a plain character buffer of 1024 bytes from mg_calloc,
 * zero-filled when made, separator '/'. Release it with pathname_delete (or
 * mg_free). Nothing here checks the 1024-byte bound when it copies or
 * appends: callers keep their names within it.
 *
 * Thread safety: nothing here keeps shared state; a path name, a directory
 * or an enumeration is used by one thread at a time, and any thread may match
 * wildcards at any time.
 */
#ifndef FANOUT_PATHNAME_H
#define FANOUT_PATHNAME_H

#include <stdint.h>

#include "export.h"

FANOUT_BEGIN_DECLS

/* The size of a path name buffer: 1024. */
FANOUT_EXPORT uint32_t pathname_max_length(void);
/* The longest component a path name is meant to hold: 1024. */
FANOUT_EXPORT uint32_t pathname_max_component_length(void);

/* A new zero-filled path name of 1024 bytes; the caller owns it (free with
 * pathname_delete). Running out of memory raises the runtime's exception. */
FANOUT_EXPORT char* pathname_new(void);

/* A new path name holding a copy of src; the caller owns it. A null src
 * raises catalogue message 32. */
FANOUT_EXPORT char* pathname_clone(const char* src);

/* Frees a path name. Null is ignored. */
FANOUT_EXPORT void pathname_delete(char* p);

/* Appends '/' to p unless p already ends with one, then appends s. Returns
 * p. A null s raises catalogue message 33, after the separator has been
 * added. p must not be null. */
FANOUT_EXPORT char* pathname_append(char* p, const char* s);

/* A new path name: a clone of p with s appended as pathname_append does.
 * The caller owns it. Raises message 32 for a null p, 33 for a null s (the
 * clone is freed first). */
FANOUT_EXPORT char* pathname_clone_and_append(const char* p, const char* s);

/* The last component of p: a pointer into p just after the last '/', else
 * just after the last '\\', else p itself. Not a copy. p must not be null. */
FANOUT_EXPORT char* pathname_get_name(const char* p);

/* Appends '/' unless p already ends with one; the empty string becomes "/".
 * A null p is ignored. */
FANOUT_EXPORT void pathname_append_separator(char* p);

/* Removes trailing '/' characters, but never the first character, so "/"
 * stays "/". A null p is ignored. */
FANOUT_EXPORT void pathname_remove_separator(char* p);

/* A new buffer of exactly the needed size holding a, b and c joined with
 * nothing between them; the caller owns it (mg_free). Null when any
 * argument is null. */
FANOUT_EXPORT char* pathname_build_filename(const char* a, const char* b, const char* c);

/* ------------------------------------------------------------------------ */
/* Directories. */

/* A directory object: its path name (a clone owned by the record). */
typedef struct Directory {
    char* pathname;
} Directory;

/* An enumeration of a directory's entries through a wildcard pattern. The
 * fields are the enumeration's own; read the current name through
 * dir_entry_enum_next_element. */
typedef struct DirEntryEnum {
    void* stream;   /* the host directory stream (DIR*), null once closed */
    char* pattern;  /* a copy of the wildcard pattern */
    char* name;     /* 1024 bytes: the current entry's name */
    int32_t active; /* set to 1 at creation */
} DirEntryEnum;

/* A new directory object holding a clone of path; the caller owns it (free
 * with dir_delete). A null path raises catalogue message 32. */
FANOUT_EXPORT Directory* dir_new(const char* path);

/* Frees the object and its path name. Null is ignored. */
FANOUT_EXPORT void dir_delete(Directory* d);

/* The object's path name (not a copy; valid while d lives). */
FANOUT_EXPORT char* dir_get_pathname(const Directory* d);

/* Opens d's directory for an enumeration of the entry names that match the
 * wildcard pattern pat (see match). Returns a new record that the caller
 * owns (free with dir_entry_enum_delete), or null when the directory cannot
 * be opened. d and pat must not be null. */
FANOUT_EXPORT DirEntryEnum* dir_entry_enum_new(const Directory* d, const char* pat);
/* The same as dir_entry_enum_new. */
FANOUT_EXPORT DirEntryEnum* dir_entries(const Directory* d, const char* pat);

/* Advances to the next entry whose name matches the pattern, in the order
 * the host delivers them; "." and ".." are always skipped. Returns 1 when an
 * entry was found (its name is then the next element), 0 at the end or for a
 * null record. */
FANOUT_EXPORT int32_t dir_entry_enum_has_more_elements(DirEntryEnum* e);

/* The current entry's name: the record's own buffer, valid until the next
 * advance. e must not be null. */
FANOUT_EXPORT char* dir_entry_enum_next_element(DirEntryEnum* e);

/* Closes the directory stream when open and frees the record. Null is
 * ignored. */
FANOUT_EXPORT void dir_entry_enum_delete(DirEntryEnum* e);

/* Creates the directory path with permission 0700 (subject to the umask).
 * A null path raises catalogue message 9; a failure (including an existing
 * path) raises message 10 with the path. */
FANOUT_EXPORT void dir_create_directory(const char* path);

/* 1 when path names an existing directory (trailing separators ignored),
 * else 0; null gives 0. Never raises. */
FANOUT_EXPORT int32_t dir_is_directory(const char* path);

/* ------------------------------------------------------------------------ */
/* Wildcard matching. */

/* Matches string against the shell-style wildcard pattern pat: '?' any one
 * character, '*' any run, "\\c" the character c, "[set]" and "[^set]" with
 * ranges x-y. Returns 0 for a match, 1 for none, -1 when either argument is
 * null, -2 when the pattern holds a malformed bracket expression. Case
 * sensitive. Note the bracket step: the pattern character right after a
 * closing ']' is skipped when it is not the last one, so "[a-c]xy" matches
 * "by" and not "bxy", while "[a-c]x" matches "bx". */
FANOUT_EXPORT int32_t match(const char* pat, const char* string);

FANOUT_END_DECLS

#endif /* FANOUT_PATHNAME_H */
