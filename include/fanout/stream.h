/* stream.h - distribution streams: moving a distribution's data between the
 * network, local sources and files, with progress status files.
 *
 * A stream is opened from a StreamKey (types.h) whose octet 0 names the kind
 * of stream:
 *
 *   1        a framework I/O channel (only closed here)
 *   2        data received from the network (the process's channel,
 *            transport.h); becomes 10 when every segment is in the local depot
 *   3        data sent to the network
 *   4        a file stream: the key lists the files (file_stream_key_new)
 *   6, 7, 8  local files found on a CD-ROM or in remote directories; pause and
 *            cancel are polled from the channel between reads
 *   9        local files in the directory named by the key
 *   10       the endpoint's own depot
 *   11       files fetched by the content delivery service (ferry.h)
 *   0, 5, 12 and above are invalid.
 *
 * Calling order: net_stream_open; then either reads (net_stream_read until it
 * returns 0 or a negative status, each positive block given back with
 * net_stream_free_buffer) or writes (net_stream_write_begin, any number of
 * net_stream_write, net_stream_write_end; or net_stream_send_file for a
 * whole file); net_stream_set_status and net_stream_update_mstat at any time;
 * net_stream_close last. docs/streams.md walks through a receive and a send.
 *
 * Conventions of this family:
 * - The record side: failures raise catalogue exceptions (exception.h); the
 *   transport's own failures pass through (transport.h). Allocation failures
 *   raise the runtime's NO_MEMORY.
 * - Threads. Records are single-threaded objects: one thread uses a stream
 *   at a time. Different streams may run on different threads at once, except
 *   that the network streams (types 2 and 3) share the process's channel,
 *   which one thread uses at a time (transport.h); downloads of the delivery
 *   client are serialised by the client itself (ferry.h).
 * - A mobile stream (key octet 2 equal to 1, types 2 and 4 to 11) keeps a
 *   progress status file named after the distribution under the work
 *   directory's "mstat" directory (MStat below). A progress file that cannot
 *   be written is logged and never stops the stream.
 */
#ifndef FANOUT_STREAM_H
#define FANOUT_STREAM_H

#include <stdint.h>

#include "depot.h"
#include "export.h"
#include "file.h"
#include "runtime.h"
#include "segment.h"
#include "types.h"

FANOUT_BEGIN_DECLS

/* ------------------------------------------------------------------------ */
/* Progress status files. */

/* The progress status record of one distribution, owned by whoever called
 * mstat_new and released with mstat_free. */
typedef struct MStat {
    char* dir;              /* the directory of the progress files: <work dir>/mstat */
    char* distid;           /* the record's own copy of the distribution id */
    char suffix[4];         /* "ads"/"mds" while running, "adf"/"mdf" when done */
    char* filename;         /* full file name, null until first built */
    Properties* properties; /* the file's content in memory */
} MStat;

/* A new record for `distid` (copied). A nonzero use_ads gives the suffix
 * "ads", zero "mds". The directory is the work directory (mrt_get_work_dir,
 * else the temporary directory) with "mstat" appended, created with mode 0775
 * when missing (a failure to create it surfaces only when a save cannot
 * write). Returns null when an allocation fails; never raises. Release with
 * mstat_free. */
FANOUT_EXPORT MStat* mstat_new(const char* distid, int16_t use_ads);

/* Reads the progress file into the record's properties (bare layout). A file
 * that cannot be read or decoded is ignored: the properties keep what was
 * decoded. Returns 0, or -1 when the file name cannot be built. */
FANOUT_EXPORT int32_t mstat_load(MStat* mstat);

/* Writes the properties to the progress file (bare layout), first adding
 * "msid" = the distribution id when there is no string "msid". Returns 0, or
 * -1 when the file name cannot be built; a write that fails (full disk,
 * missing directory) is not reported. */
FANOUT_EXPORT int32_t mstat_save(MStat* mstat);

/* Marks the file finished: renames <id>.ads to <id>.adf (or .mds to .mdf)
 * and keeps the new name for later saves. The suffix is searched from the
 * start of the whole path, so a path holding "ads" or "mds" earlier keeps its
 * name. A suffix that cannot be found is logged ("Error: Invalid pathname
 * %1$s"). Never raises. */
FANOUT_EXPORT void mstat_done(MStat* mstat);

/* Frees the record and what it owns; the file on disk stays. Null is
 * ignored. */
FANOUT_EXPORT void mstat_free(MStat* mstat);

/* The record's own properties (not a copy): put values, then mstat_save. */
FANOUT_EXPORT Properties* mstat_get_properties(MStat* mstat);

/* A new path name that is a copy of distid (pathname_delete), or null. */
FANOUT_EXPORT char* distid_get_filename(const char* distid);

/* A new path name "<dir>/<distid>.<suffix>" (pathname_delete), or null when
 * an allocation fails. The id is used unchanged as the file name. */
FANOUT_EXPORT char* find_dist_fname(const char* dir, const char* distid, const char* suffix);

/* Always null: there is only ever one progress file per distribution. */
FANOUT_EXPORT char* distid_get_next_filename(void);

/* ------------------------------------------------------------------------ */
/* The stream record. */

/* The file-list record of the file-based stream types (the stream's
 * `source`). For type 11 the same layout holds the delivery service's state:
 * `cursor` collects the cached files and `next_segment` counts the segments
 * fetched. */
typedef struct FileList {
    char* cursor;          /* the next name in `list`, null when used up */
    char* list;            /* the record's own comma-separated list */
    File* file;            /* the file being read, or null */
    uint32_t next_segment; /* type 11: index of the next segment to fetch */
} FileList;

/* The sequence of depot entries a type-10 stream holds in use. */
typedef struct DepotEntryList {
    uint32_t maximum;
    uint32_t length;
    DepotEntry** buffer;
} DepotEntryList;

/* One stream, made by net_stream_open and released by net_stream_close. */
typedef struct NetStream {
    uint32_t type;                /* the stream type (key octet 0) */
    int32_t mobile;               /* nonzero: the stream keeps a progress file */
    void* source;                 /* FileList* (types 4 to 11), the I/O channel (1), else null */
    int32_t preset180;            /* 180 from open; not read by the library */
    int32_t reserved;             /* 0 from open; not read by the library */
    int32_t block_size;           /* write buffer size; piece size of file reads */
    uint32_t fill;                /* bytes waiting in `buffer` */
    int32_t pending;              /* bytes received, not yet in the progress file */
    uint8_t* buffer;              /* the write buffer, from net_stream_write_begin */
    uint8_t started;              /* set by the first read */
    PropertiesList* toc;          /* the table of contents, from net_stream_save_modified_toc */
    MStat* mstat;                 /* the progress record of a mobile stream, else null */
    Int64Length* total_length;    /* bytes expected (mobile) */
    Int64Length* current_length;  /* bytes counted so far (mobile) */
    char* current_file;           /* type 4: the current file name (points into the list) */
    File* out_file;               /* type 4: the file a write creates */
    char* mobile_rest;            /* key text after the first comma; type 9: its directory */
    DepotHandle* depot;           /* type 10: the local depot */
    DepotEntryList depot_entries; /* type 10: the entries held in use */
} NetStream;

/* Stream types. */
#define NET_STREAM_IOM 1u
#define NET_STREAM_RECV 2u
#define NET_STREAM_SEND 3u
#define NET_STREAM_FILE 4u
#define NET_STREAM_CDROM 6u
#define NET_STREAM_REMOTE_DIR 7u
#define NET_STREAM_REMOTE_DIR_CDROM 8u
#define NET_STREAM_KEY_DIR 9u
#define NET_STREAM_DEPOT 10u
#define NET_STREAM_FERRY 11u

/* Statuses a read or write returns. */
#define NET_STREAM_CANCELLED (-2)
#define NET_STREAM_PAUSED (-3)

/* The block size of every stream type but 3. */
#define NET_STREAM_BLOCK_SIZE 16384

/* ------------------------------------------------------------------------ */
/* Stream keys. */

/* A pointer into key's octets at the type's data: octet 3 for type 4, octet 2
 * for every other type (whose "data" thus begin with the mobile flag). The
 * key must have at least 3 octets. */
FANOUT_EXPORT uint8_t* stream_key_get_data(const StreamKey* key);

/* 1 when the key's type is 2 or 4 to 11 and its octet 2 is exactly 1, else 0.
 * A null key or one shorter than 3 octets gives 0. */
FANOUT_EXPORT int32_t is_mobile_ep(const StreamKey* key);

/* A new type-4 key listing `count` paths (const char* arguments): octets 4,
 * 0, the mobile flag (1 when `mobile` is nonzero, else 2), then the paths
 * joined by "," and ended by a zero octet. Its length is 3 plus each path's
 * length plus one; the octets are allocated one longer and zeroed. With no
 * paths the terminator lands on octet 2, so such a key is never mobile.
 * Release with stream_key_delete. */
FANOUT_EXPORT StreamKey* file_stream_key_new(int32_t mobile, int32_t count, ...);

/* Frees the key's octets and the key record. Null is ignored. */
FANOUT_EXPORT void stream_key_delete(StreamKey* key);

/* ------------------------------------------------------------------------ */
/* Streams. */

/* A new stream for `key`, or null for a null key, a key shorter than 3
 * octets, an invalid type, or type 11 when the delivery service cannot be
 * loaded. A mobile key's text (octet 3 on) is cut at its first comma: the
 * part before it is the distribution id of the progress file, the part after
 * it is kept in `mobile_rest`. The key is not changed. Release with
 * net_stream_close. */
FANOUT_EXPORT NetStream* net_stream_open(const StreamKey* key);

/* Reads the next block. Returns the number of data bytes at *data (> 0;
 * give the block back with net_stream_free_buffer), 0 at the end of the data
 * (type 2) or of the current segment's file (file types) with *data null, or
 * -2 (cancelled) / -3 (paused) with *data null. A type-3 stream reads
 * nothing (0). The first read sends the table of contents with the first
 * network receive. Exceptions of the transport and of file reads pass
 * through. */
FANOUT_EXPORT int32_t net_stream_read(NetStream* stream, void** data);

/* Frees a block that net_stream_read returned with a positive count. Null is
 * ignored. */
FANOUT_EXPORT void net_stream_free_buffer(NetStream* stream, void* data);

/* Prepares writing. Type 4: creates the file named by `current_file` in the
 * work directory's "fanout" directory (mode 0400); any failure gives -1.
 * Network types: asks the peer for the block size (method status, reply); a
 * negative reply is returned after the end-of-data message. Returns 0 or a
 * negative status. */
FANOUT_EXPORT int32_t net_stream_write_begin(NetStream* stream);

/* Buffers `count` bytes, sending each full block (one reply awaited per
 * block). Returns count, 0 for a count of 0, or the peer's negative status
 * (after the end-of-data message). */
FANOUT_EXPORT int32_t net_stream_write(NetStream* stream, const void* bytes, int32_t count);

/* Sends what remains in the buffer, then the end-of-data message (network
 * types) or closes the file (type 4), and frees the buffer. Returns 0 or the
 * last reply's negative status. */
FANOUT_EXPORT int32_t net_stream_write_end(NetStream* stream);

/* Sends the file `path` from byte `offset` (when > 0): write_begin, the file
 * in pieces of the stream's block size as it stood before write_begin, then
 * write_end. Returns 0 or the first negative status. A stream whose block
 * size is still 0 (a fresh type-3 stream) sends no data at all: only the
 * begin and end messages. The file and the read buffer are released on every
 * path; exceptions pass through. */
FANOUT_EXPORT int32_t net_stream_send_file(NetStream* stream, const char* path, int32_t offset);

/* For a mobile stream and a non-null message: records "err" = true and
 * "err_msg" = message in the progress file. */
FANOUT_EXPORT void net_stream_set_status(NetStream* stream, const char* message);

/* For a mobile stream and a non-null value: records key = value (a string)
 * in the progress file. Always logs "fanout: update mstat key=..., value=...". */
FANOUT_EXPORT void net_stream_update_mstat(NetStream* stream, const char* key, const char* value);

/* Closes the stream: records "close" = true in a mobile stream's progress
 * file, releases the file list, a type-10 stream's depot entries and depot,
 * a type-1 channel, the buffers and the record. Null is ignored. Types 0, 3,
 * 5 and 12 and above raise message 30 with the type and are not freed: a
 * type-3 stream, although it opens, is not released by close (the caller
 * frees it with net_stream_release). */
FANOUT_EXPORT void net_stream_close(NetStream* stream);

/* Frees a stream record whatever its type, without the type check and the
 * progress update of net_stream_close: what a caller uses for a type-3
 * stream, which net_stream_close refuses. Null is ignored. Never raises. */
FANOUT_EXPORT void net_stream_release(NetStream* stream);

/* ------------------------------------------------------------------------ */
/* Local sources and the table of contents. */

/* A table of contents being searched: the record and, beside it, which
 * segments have been found so far. The Toc record has no room for found
 * flags, so the search keeps them here. A caller that searches on its own
 * makes the Toc (toc_from_properties), a zeroed array of toc->count flags
 * and a zero count, and releases them afterwards. */
typedef struct TocSearch {
    Toc* toc;             /* the segments (views over the stream's toc) */
    uint8_t* found;       /* toc->count flags, 1 once the segment is found */
    uint32_t found_count; /* how many flags are set */
} TocSearch;

/* Stores a clone of `toc` (the caller keeps `toc`) as the stream's table of
 * contents, searches the local sources of the stream's type and rewrites the
 * segments found to point at their files ("data_path", "dat_file", "size").
 * When every segment is found, a type-2 stream (all of them complete in the
 * endpoint's depot, held in use until net_stream_close) becomes type 10, and
 * every local-file type but 11 gets the list of files to read. A mobile
 * stream whose table of contents is already complete records its totals in
 * the progress file. Raises 31 for a null toc, 170 when the remote-directory
 * file cannot be opened, 182 when a local-file stream lacks a segment, and
 * 36/37 for a segment description without id or version or with a key of the
 * wrong type (segment.h). Depot entries already held when a raise passes are
 * released by net_stream_close. */
FANOUT_EXPORT void net_stream_save_modified_toc(NetStream* stream, const PropertiesList* toc);

/* Searches `directory` (one trailing separator ignored) for "*.toc" (bare
 * layout) and "*.itc" (improved layout) files whose nested "segment" list
 * names the id and version of a segment not yet found, and marks those whose
 * data file (the last component of the segment's own "location") is a
 * regular file in that directory: "data_path", "dat_file" and "size" are put
 * into the segment, and a copy of the path (mg_strdup; the caller frees each
 * and the buffer) is appended to `files` when it is not null. A file that
 * does not decode or names no segment is skipped with a log line. Returns
 * the last enumeration result (nonzero when it stopped because everything
 * was found), the stat result when the directory cannot be used, or -1 for a
 * null argument, an empty name or one too long for a path name. Raises only
 * when memory runs out. */
FANOUT_EXPORT int32_t net_stream_search_endpoint_depot(TocSearch* search, const char* directory,
                                                       Kel_Types_StringList* files);

/* The same search in "/cdrom". */
FANOUT_EXPORT int32_t net_stream_search_cd_drives(TocSearch* search, Kel_Types_StringList* files);

/* For types 6 to 9 and 11, learns the segments' sizes before the transfer by
 * the same searches, rewriting the segments of `toc` itself (types 6 to 9:
 * those found; no file list is made and a missing segment is no failure;
 * type 11: every segment, from the delivery service, which also fetches every
 * package into its cache). Other types, and a null stream or toc, return at
 * once. Raises 170 (types 7 and 8, as net_stream_save_modified_toc), 203 or
 * 211 (type 11). */
FANOUT_EXPORT void net_stream_get_size(NetStream* stream, PropertiesList* toc);

/* Frees an octet list made from a table of contents, and the list record.
 * Null is ignored. */
FANOUT_EXPORT void free_toc_octets(Kel_Types_OctetList* octets);

/* ------------------------------------------------------------------------ */
/* File streams. */

/* A new type-4 stream over a copy of the comma-separated `list`, positioned
 * at its first name (current_file). net_stream_open completes it; callers
 * open file streams through net_stream_open. */
FANOUT_EXPORT NetStream* file_stream_open(const char* list);

/* The name at the record's cursor, moving the cursor past the next comma
 * (overwritten with a terminator), or to null after the last name. Null when
 * the cursor is already null. The name points into the list. */
FANOUT_EXPORT char* get_next_file(FileList* record);

/* `list` with "," and `name` appended (reallocated in place, so `list` must
 * be the start of a runtime-allocated block), or a copy of `name` when list
 * is null. Returns the (possibly moved) list. */
FANOUT_EXPORT char* append_file(char* list, const char* name);

/* Reads the next piece of the current segment's file into a new buffer at
 * *data and returns its size; 0 at the end of each file (*data null). Opens
 * the next listed file whose segment is not complete, at its checkpoint
 * offset. Type 11 first fetches the next package; a nonzero result of the
 * delivery service is returned as it stands. */
FANOUT_EXPORT int32_t file_stream_read(NetStream* stream, void** data);

/* Polls the channel for a control block: 0 when none, -2 cancelled, -3
 * paused. The block, when one came, is left at *data (free it with mg_free);
 * otherwise *data is null. */
FANOUT_EXPORT int32_t is_stream_stopped(void** data);

/* ------------------------------------------------------------------------ */
/* Mobile endpoint progress. */

/* Creates the stream's progress record for `distid` (suffix "mds") with
 * "msid" = distid and "err", "close", "paused" = false. Does not save. */
FANOUT_EXPORT void mobile_ep_create_progress(NetStream* stream, const char* distid);

/* Sums the table of contents' sizes into the total and its offsets into the
 * current length, and records "t_len". Does not save. */
FANOUT_EXPORT void mobile_ep_init_progress(NetStream* stream);

/* Counts a read of `count` - 1 data bytes; the file is rewritten when more
 * than 10240 bytes have gathered or the total is reached. A negative count
 * records "err" = true. */
FANOUT_EXPORT void mobile_ep_update_progress(NetStream* stream, int32_t count);

FANOUT_END_DECLS

#endif /* FANOUT_STREAM_H */
