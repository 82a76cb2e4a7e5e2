/* segment.h - typed views of segment descriptions and tables of contents.
 *
 * A distribution's data is cut into segments, each described by a property
 * list under the SEGMENT_* keys (keys.h). A Segment reads those keys into
 * typed fields; a Toc pairs a table of contents (a PropertiesList, one list
 * per segment) with one Segment per element. Both are views: their string
 * and octet-list fields point into the underlying lists and are never
 * copied, so a record must be rebuilt after its list changes (replacing a key
 * leaves the field dangling).
 *
 * Reading a description raises catalogue message 36 when "id" or "version"
 * is missing and 37 when any key holds another type than expected (the key
 * is the argument). A raise while a Toc is being built leaves the Toc and the
 * segments built so far to the caller's clean-up; they are not released.
 *
 * Thread safety: a Segment or Toc is a view of its lists and is used, like
 * them, by one thread at a time.
 */
#ifndef FANOUT_SEGMENT_H
#define FANOUT_SEGMENT_H

#include <stdint.h>

#include "export.h"
#include "runtime.h"
#include "types.h"

FANOUT_BEGIN_DECLS

/* One segment description. Absent optional keys leave null or 0. */
typedef struct Segment {
    Properties* props;             /* the list the record was built over */
    char* id;                      /* "id", required */
    char* version;                 /* "version", required */
    Kel_Types_OctetList* checksum; /* "checksum" */
    int32_t ctime;                 /* "ctime" */
    int32_t mtime;                 /* "mtime" */
    char* location;                /* "location" */
    int32_t offset;                /* "offset" */
    int32_t size;                  /* "size" */
    uint8_t disposable;            /* "disposable" */
    uint8_t is_result;             /* "is_result" */
    uint8_t is_collection;         /* "is_collection" */
    void* aux_data;                /* the users' block (mg_malloc), freed with the record */
    uint8_t delete_at_source;      /* "del_at_src" */
    char* ferry_manager;           /* "ferry_manager" */
    char* ferry_packageid;         /* "ferry_packageid" */
    char* ferry_destination;       /* "ferry_destination" */
    char* ferry_username;          /* "ferry_username" */
    char* ferry_password;          /* "ferry_password" */
} Segment;

/* A table of contents. */
typedef struct Toc {
    uint32_t count;       /* number of segments: the list's length when built */
    Segment** segments;   /* count records (null when count is 0) */
    PropertiesList* list; /* element i is segments[i]->props */
} Toc;

/* A new zeroed record; release with segment_delete. */
FANOUT_EXPORT Segment* segment_new(void);

/* A new record over p, which is not copied: a stand-alone record owns p from
 * now on (segment_delete frees it). Null p gives null. */
FANOUT_EXPORT Segment* segment_from_properties(Properties* p);

/* A new record over a deep copy of p (the caller keeps p). Null gives null. */
FANOUT_EXPORT Segment* segment_new_from_properties(const Properties* p);

/* A new record over a deep copy of s's list; aux_data is not carried over. */
FANOUT_EXPORT Segment* segment_clone(const Segment* s);

/* Frees s's list (deeply), its aux_data and the record. s must not be null
 * and must own its list (not a record of a Toc). */
FANOUT_EXPORT void segment_delete(Segment* s);

/* A new Toc over a deep copy of pl; release with toc_delete. Null gives null.
 * A deep copy the runtime cannot make is not reported. */
FANOUT_EXPORT Toc* toc_new_from_properties(const PropertiesList* pl);

/* A new Toc that borrows pl (not null): release it with toc_free_buffer and
 * then mg_free, never toc_delete; pl must outlive it. */
FANOUT_EXPORT Toc* toc_from_properties(PropertiesList* pl);

/* A new Toc over a deep copy of t's list (aux_data not carried over); release
 * with toc_delete. */
FANOUT_EXPORT Toc* toc_clone(const Toc* t);

/* Frees each segment record and its aux_data (never its props) and the
 * segment array; the Toc block and its list stay. Null is ignored. */
FANOUT_EXPORT void toc_free_buffer(Toc* t);

/* toc_free_buffer, then frees the list deeply and the Toc block. Only for a
 * Toc that owns its list (toc_new_from_properties, toc_clone). Null is
 * ignored. */
FANOUT_EXPORT void toc_delete(Toc* t);

FANOUT_END_DECLS

#endif /* FANOUT_SEGMENT_H */
