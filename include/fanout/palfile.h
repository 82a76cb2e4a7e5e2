/* palfile.h - files and directories of the portability layer.
 *
 * Descriptor-based file access with 64-bit sizes and offsets on every build,
 * and directory streams. Every operation that takes a path works on a
 * localised copy of it (see PalPathLocalize); the operations that say
 * "checked" refuse a path with a foreign prefix with (21, 0, n), the others
 * hand the path to the system unconverted, which then usually fails.
 *
 * Every fallible operation returns a PalError: palError is the result code,
 * nativeError the errno of the failing system call, and traceLocation which
 * failure point of the operation was reached. The records of each operation
 * are listed with it as (palError, nativeError, traceLocation).
 *
 * Open flags, permissions and seek origins cross this interface in the
 * layer's own encodings, given below, and are mapped to the host's.
 * Handles are small records passed by value; the opening calls fill them
 * through a pointer and the closing calls release what they point to.
 *
 * Thread safety: a file or directory handle is used by one thread at a
 * time; different handles, and the path operations, may be used from any
 * thread at once (temporary names are unique across threads). Paths are taken
 * relative to the process's working directory, which is shared by all its
 * threads.
 */
#ifndef FANOUT_PALFILE_H
#define FANOUT_PALFILE_H

#include "palerror.h"
#include "paltypes.h"

FANOUT_BEGIN_DECLS

/* ------------------------------------------------------------------------ */
/* Open flags (oflag of PalFileOpen). Write-only and read-write together give
 * the host's invalid access value 3, which the open then refuses; neither
 * gives read-only. Other bits are ignored. */
#define PAL_OPEN_RDONLY 0x001    /* read only */
#define PAL_OPEN_WRONLY 0x002    /* write only */
#define PAL_OPEN_RDWR 0x004      /* read and write */
#define PAL_OPEN_APPEND 0x008    /* every write goes to the end */
#define PAL_OPEN_CREATE 0x100    /* create when missing (permission 0600) */
#define PAL_OPEN_TRUNCATE 0x200  /* truncate to 0 on open */
#define PAL_OPEN_EXCLUSIVE 0x400 /* with CREATE: fail when the file exists */
#define PAL_OPEN_NOFOLLOW 0x800  /* a symbolic link as last component fails (ELOOP) */
#define PAL_OPEN_REGULAR                                                              \
    0x1000                      /* only a regular file: opened without blocking, then \
                                 * checked; anything else fails (-4, EINVAL, 4) */
#define PAL_OPEN_CLOEXEC 0x2000 /* not inherited by programs started with exec */
#define PAL_OPEN_BINARY                                           \
    0x8000 /* binary data: no effect here (every open is binary); \
            * the store's data-file opens carry it */

/* Permission bits (PalFileInfo.mode, PalFileSetPermissions,
 * PalFileGetPermissions), host octal value alongside. 0x008 and 0x080 are
 * unused and ignored; set-user, set-group and sticky bits are never read or
 * written. */
#define PAL_PERM_USER_READ 0x001   /* 0400 */
#define PAL_PERM_USER_WRITE 0x010  /* 0200 */
#define PAL_PERM_USER_EXEC 0x100   /* 0100 */
#define PAL_PERM_GROUP_READ 0x002  /* 0040 */
#define PAL_PERM_GROUP_WRITE 0x020 /* 0020 */
#define PAL_PERM_GROUP_EXEC 0x200  /* 0010 */
#define PAL_PERM_OTHER_READ 0x004  /* 0004 */
#define PAL_PERM_OTHER_WRITE 0x040 /* 0002 */
#define PAL_PERM_OTHER_EXEC 0x400  /* 0001 */

/* Seek origins of PalFileSetLocation. */
#define PAL_SEEK_BEGIN 1   /* from the start of the file */
#define PAL_SEEK_CURRENT 2 /* from the current position */
#define PAL_SEEK_END 3     /* from the end of the file */

/* The only access type PalFileAccessType reports. */
#define PAL_FILE_ACCESS_TYPE 2

/* ------------------------------------------------------------------------ */
/* Records. */

/* An open file. `handle` points at a separately allocated PalInt32 holding
 * the host descriptor; it is null when no file is open. Filled by the
 * opening calls, released by PalFileClose. */
typedef struct PalFileHandle {
    void* handle;
} PalFileHandle;

/* The record behind a PalDirHandle: `handle` is the host directory stream
 * (a DIR *), null when opening the directory failed. */
typedef struct PalNativeDirHandle {
    void* handle;
} PalNativeDirHandle;

/* An open directory: `handle` points at a PalNativeDirHandle. Filled by
 * PalDirOpen, released by PalDirClose. */
typedef struct PalDirHandle {
    void* handle;
} PalDirHandle;

/* What PalFileGetInfo reports about a file. */
typedef struct PalFileInfo {
    PalUint64 ctime;             /* status change, milliseconds since the epoch */
    PalUint64 atime;             /* last access, milliseconds */
    PalUint64 mtime;             /* last modification, milliseconds */
    PalUint32 mode;              /* permission bits, layer encoding (no type bits) */
    PalInt32 nlink;              /* number of links */
    PalInt64 size;               /* size in bytes */
    PalInt32 dev;                /* device (low 32 bits) */
    PalInt32 rdev;               /* device of a special file (low 32 bits) */
    PalChar user[PAL_PATH_MAX];  /* owner's name, "" when it cannot be looked up */
    PalChar group[PAL_PATH_MAX]; /* group's name, "" when it cannot be looked up */
} PalFileInfo;

/* One access-control entry. Access-control lists are not supported on this
 * platform; the record exists for the interface below. */
typedef struct PalFileAclEntry {
    PalChar user[PAL_PATH_MAX];
    PalInt32 access;
} PalFileAclEntry;

/* ------------------------------------------------------------------------ */
/* Files. */

/* Fills *info from the file's status (following links): times in
 * milliseconds, mode mapped to the layer's permission bits, size, links,
 * devices, and the owner's and group's names ("" when they cannot be looked
 * up). Unchecked localisation. Records: null path or info (21, 0, 1); stat
 * failed (-4, errno, 2). */
FANOUT_EXPORT PalError PalFileGetInfo(const PalChar* path, PalFileInfo* info) FANOUT_NOEXCEPT;

/* Opens `path` with the mapped `oflag` (a created file gets permission 0600)
 * and stores a newly allocated descriptor cell in handle_ptr->handle, even
 * when opening fails (the cell then holds -1): the caller always releases it
 * with PalFileClose. With PAL_OPEN_REGULAR the file is opened in non-blocking
 * mode, so that a FIFO or device never blocks the open, and refused unless it
 * is a regular file (the descriptor stays non-blocking, which changes nothing
 * for a regular file). Checked localisation. Records: null path or
 * handle_ptr (21, 0, 1); not localisable (21, 0, 2); open failed
 * (-4, errno, 3); no memory for the cell (-4, ENOMEM, 3) with
 * handle_ptr->handle null; not a regular file (-4, EINVAL, 4), or its status
 * could not be read (-4, errno, 4), the cell then holding -1. */
FANOUT_EXPORT PalError PalFileOpen(PalFileHandle* handle_ptr, const PalChar* path,
                                   PalInt32 oflag) FANOUT_NOEXCEPT;

/* Closes the descriptor and frees the cell, also when closing fails (the
 * handle is then dangling: do not use it again). Records: null handle
 * (21, 0, 1); close failed (-4, errno, 2), e.g. (-4, EBADF, 2) for the cell
 * of a failed open. */
FANOUT_EXPORT PalError PalFileClose(PalFileHandle handle) FANOUT_NOEXCEPT;

/* Removes the file (or empty directory) at `path`. Checked localisation.
 * Records: null (21, 0, 1); not localisable (21, 0, 2); failed (-4, errno, 3). */
FANOUT_EXPORT PalError PalFileRemove(const PalChar* path) FANOUT_NOEXCEPT;

/* Removes `path` only when it is a regular file itself (a symbolic link, a
 * directory, a FIFO or a device is left alone). Checked localisation.
 * Records: null (21, 0, 1); not localisable (21, 0, 2); its status cannot be
 * read (-4, errno, 3); not a regular file (-4, EINVAL, 4); removal failed
 * (-4, errno, 5). */
FANOUT_EXPORT PalError PalFileRemoveRegular(const PalChar* path) FANOUT_NOEXCEPT;

/* As PalFileGetInfo, but without following a symbolic link, and only for a
 * regular file. Records: null path or info (21, 0, 1); status failed
 * (-4, errno, 2); not a regular file (-4, EINVAL, 3), *info untouched. */
FANOUT_EXPORT PalError PalFileGetRegularInfo(const PalChar* path,
                                             PalFileInfo* info) FANOUT_NOEXCEPT;

/* True when both paths name the same file (same device and file number,
 * following links). False when either is null or cannot be queried. */
FANOUT_EXPORT PalBool PalFileIsSame(const PalChar* path1, const PalChar* path2) FANOUT_NOEXCEPT;

/* Advisory lock on the whole open file, held by this open of it (not by the
 * process): it ends when the handle is closed or the process ends, and a
 * second open of the same file, even in the same process, conflicts with it.
 * `exclusive` chooses an exclusive or a shared lock; without `wait` the call
 * fails at once when a conflicting lock is held. Records: null handle
 * (21, 0, 1); held elsewhere (-4, EWOULDBLOCK, 2); other failure
 * (-4, errno, 2). */
FANOUT_EXPORT PalError PalFileLock(PalFileHandle handle, PalBool exclusive,
                                   PalBool wait) FANOUT_NOEXCEPT;

/* Forces the file's buffered data out to the device (fsync). Records: null
 * handle (21, 0, 1); failed (-4, errno, 2), e.g. EINVAL for a pipe. */
FANOUT_EXPORT PalError PalFileFlushBuffers(PalFileHandle handle) FANOUT_NOEXCEPT;

/* Stores the file's 64-bit size at *size. Records: null handle or size
 * (21, 0, 1); status failed (-4, errno, 2) with *size set to -1. */
FANOUT_EXPORT PalError PalFileGetSize(PalFileHandle handle, PalInt64* size) FANOUT_NOEXCEPT;

/* One read of up to `size` bytes into buffer; *count receives the bytes read
 * (0 at end of file). Records: null handle, buffer or count (21, 0, 1); read
 * failed (-4, errno, 2) with *count untouched. */
FANOUT_EXPORT PalError PalFileRead(PalFileHandle handle, void* buffer, PalUint32 size,
                                   PalUint32* count) FANOUT_NOEXCEPT;

/* One write of up to `size` bytes; *count receives the bytes written (a
 * short write is not retried). Records as for PalFileRead. */
FANOUT_EXPORT PalError PalFileWrite(PalFileHandle handle, const void* buffer, PalUint32 size,
                                    PalUint32* count) FANOUT_NOEXCEPT;

/* Truncates or extends the file to `size` bytes (64-bit). Records: null
 * handle (21, 0, 1); failed (-4, errno, 2). */
FANOUT_EXPORT PalError PalFileSetSize(PalFileHandle handle, PalInt64 size) FANOUT_NOEXCEPT;

/* Renames oldPath to newPath (replacing newPath). Checked localisation of
 * both. Records: either null (21, 0, 1); not localisable (21, 0, 2); failed
 * (-4, errno, 3). */
FANOUT_EXPORT PalError PalFileRename(const PalChar* oldPath,
                                     const PalChar* newPath) FANOUT_NOEXCEPT;

/* Makes the user named `owner` own the file and, deliberately, also gives the
 * file that user's primary group. Checked localisation. Records: a null
 * argument (21, 0, 1); no such user or look-up failed (-4, error, 2) where
 * error is the look-up's error number or ENOENT for an unknown name; not
 * localisable (21, 0, 3); change failed (-4, errno, 4). */
FANOUT_EXPORT PalError PalFileSetOwner(const PalChar* owner, const PalChar* path) FANOUT_NOEXCEPT;

/* Copies the name of the file's owner into `owner`, bounded by n with
 * PalStringNCpy semantics. An owner id with no user entry gives PAL_OK and
 * "". Checked localisation. Records: null argument (21, 0, 1); not
 * localisable (21, 0, 2); stat failed (-4, errno, 3); look-up failed
 * (-4, error, 4). */
FANOUT_EXPORT PalError PalFileGetOwner(PalChar* owner, const PalChar* path,
                                       PalUint32 n) FANOUT_NOEXCEPT;

/* As PalFileSetOwner, by group name; changes only the file's group. */
FANOUT_EXPORT PalError PalFileSetGroup(const PalChar* group, const PalChar* path) FANOUT_NOEXCEPT;

/* As PalFileGetOwner, for the file's group. */
FANOUT_EXPORT PalError PalFileGetGroup(PalChar* group, const PalChar* path,
                                       PalUint32 n) FANOUT_NOEXCEPT;

/* Sets the file's permission bits from the layer encoding `permission`.
 * Checked localisation. Records: null path (21, 0, 1); not localisable
 * (21, 0, 2). CAUTION: when the system refuses the change the record is
 * (0, errno, 3): palError stays PAL_OK on purpose, so test nativeError. */
FANOUT_EXPORT PalError PalFileSetPermissions(PalUint32 permission,
                                             const PalChar* path) FANOUT_NOEXCEPT;

/* Stores the file's permission bits (layer encoding) at *permission, by way
 * of PalFileGetInfo. Records: null path or permission (21, 0, 1); otherwise
 * the record of PalFileGetInfo. */
FANOUT_EXPORT PalError PalFileGetPermissions(PalUint32* permission,
                                             const PalChar* path) FANOUT_NOEXCEPT;

/* Copies a fresh name for a temporary file in `directory` ("<dir>/file" and
 * six letters or digits, not existing when chosen) into `name`, bounded by n
 * with PalStringNCpy semantics. Checked localisation. Records: null or not
 * localisable directory, or null name (21, 0, 1); no name could be made,
 * e.g. the directory is missing (2, 0, 2). */
FANOUT_EXPORT PalError PalFileTempFilename(const PalChar* directory, PalChar* name,
                                           PalUint32 n) FANOUT_NOEXCEPT;

/* Creates an anonymous file in `directory`: a fresh name as above, created
 * read-write with permission 0700, removed at once, so the file vanishes
 * when closed. Stores a new descriptor cell in handle->handle (release with
 * PalFileClose). Records: null directory or handle (21, 0, 1); naming failed:
 * that record; create failed (-4, errno, 2), handle null; removal failed
 * (-4, errno, 3) with the handle still set. */
FANOUT_EXPORT PalError PalFileOpenTemporary(const PalChar* directory,
                                            PalFileHandle* handle) FANOUT_NOEXCEPT;

/* Moves the file position to `offset` (64-bit) from `origin`, one of the
 * PAL_SEEK_* values. Records: origin not 1, 2 or 3, or null handle
 * (21, 0, 1), nothing moved; seek failed (-4, errno, 2). */
FANOUT_EXPORT PalError PalFileSetLocation(PalFileHandle handle, PalInt64 offset,
                                          PalInt32 origin) FANOUT_NOEXCEPT;

/* Stores the current 64-bit position at *offset. Records: null handle or
 * offset (21, 0, 0); failed (-4, errno, 1). */
FANOUT_EXPORT PalError PalFileGetLocation(PalFileHandle handle, PalInt64* offset) FANOUT_NOEXCEPT;

/* Store in file->handle a new descriptor cell holding 0, 1 or 2; release it
 * with PalFileClose (which closes that standard descriptor). PAL_OK; null
 * file (21, 0, 1); no memory for the cell (-4, ENOMEM, 2). */
FANOUT_EXPORT PalError PalFileGetStdIn(PalFileHandle* file) FANOUT_NOEXCEPT;
FANOUT_EXPORT PalError PalFileGetStdOut(PalFileHandle* file) FANOUT_NOEXCEPT;
FANOUT_EXPORT PalError PalFileGetStdErr(PalFileHandle* file) FANOUT_NOEXCEPT;

/* Access-control lists are not supported on this platform: these do nothing
 * and always return (-1, 0, 0). */
FANOUT_EXPORT PalError PalFileGrantPermission(const PalChar* user, PalUint32 permission,
                                              const PalChar* path) FANOUT_NOEXCEPT;
FANOUT_EXPORT PalError PalFileRevokePermission(const PalChar* user, PalUint32 permission,
                                               const PalChar* path) FANOUT_NOEXCEPT;
FANOUT_EXPORT PalError PalFileGetAcl(PalFileAclEntry* acl, const PalChar* path,
                                     PalUint32* count) FANOUT_NOEXCEPT;
FANOUT_EXPORT PalError PalFileSetAcl(const PalFileAclEntry* acl, const PalChar* path,
                                     PalUint32 count) FANOUT_NOEXCEPT;

/* The access type of a path: PAL_FILE_ACCESS_TYPE (2) for every path. */
FANOUT_EXPORT PalInt32 PalFileAccessType(const PalChar* path) FANOUT_NOEXCEPT;

/* Formats into a 4096-byte buffer and writes the result with PalFileWrite;
 * *n receives the bytes written and the record is PalFileWrite's.
 * Deliberately the buffer never grows: output of 4096 characters or more is
 * not written and gives (7, 0, 0), as does a formatting error. Records: no
 * memory (12, 0, 0); null n or format (21, 0, 1). */
FANOUT_EXPORT PalError PalFilePrintf(PalFileHandle handle, PalUint32* n, const PalChar* format,
                                     ...) FANOUT_NOEXCEPT FANOUT_PRINTF(3, 4);

/* ------------------------------------------------------------------------ */
/* Directories. */

/* True when `path` names a directory (following links). Unchecked
 * localisation. Null gives false. When the status cannot be read, false
 * after writing "get info failure: " and the system's error text to
 * standard error. */
FANOUT_EXPORT PalBool PalDirIsDirectory(const PalChar* path) FANOUT_NOEXCEPT;

/* Creates the directory `path` with permission 0700 (less the umask).
 * Unchecked localisation. Records: null path (21, 0, 0); failed
 * (-4, errno, 1). */
FANOUT_EXPORT PalError PalDirCreateDirectory(const PalChar* path) FANOUT_NOEXCEPT;

/* Opens a directory stream on `path` and stores a newly allocated native
 * handle in handle->handle, even when opening fails (its stream is then
 * null); release it with PalDirClose in both cases. Unchecked localisation.
 * Records: null path or handle (21, 0, 0); no memory (-4, errno, 1) with
 * handle->handle null; open failed (-4, errno, 2). */
FANOUT_EXPORT PalError PalDirOpen(PalDirHandle* handle, const PalChar* path) FANOUT_NOEXCEPT;

/* Closes the stream and frees the native handle (also when closing fails).
 * Records: null handle PAL_OK, nothing done; a handle whose open failed is
 * freed with PAL_OK; close failed (-4, errno, 2). */
FANOUT_EXPORT PalError PalDirClose(PalDirHandle handle) FANOUT_NOEXCEPT;

/* Copies the name of the next entry into fname (a buffer of PAL_PATH_MAX
 * bytes, PalStringNCpy semantics). "." and ".." come like any other entry,
 * in the file system's order. Records: null handle, null stream or null
 * fname (21, 0, 0); reading failed (-4, errno, 2); no more entries
 * (2, 0, 3). */
FANOUT_EXPORT PalError PalDirReadDirectory(PalChar* fname, PalDirHandle handle) FANOUT_NOEXCEPT;

/* Forces the directory's own entries (names created, renamed or removed in
 * it) out to the device. Unchecked localisation. Records: null path
 * (21, 0, 0); open failed (-4, errno, 1); flush failed (-4, errno, 2). */
FANOUT_EXPORT PalError PalDirFlush(const PalChar* path) FANOUT_NOEXCEPT;

/* Removes the empty directory `path`. Unchecked localisation. Records: null
 * path (21, 0, 0); failed (-4, errno, 1). */
FANOUT_EXPORT PalError PalDirRemoveDirectory(const PalChar* path) FANOUT_NOEXCEPT;

/* Copies the process's working directory into fname (a buffer of
 * PAL_PATH_MAX bytes). Records: null fname (21, 0, 0); failed (-4, errno, 0),
 * e.g. ERANGE when it does not fit. */
FANOUT_EXPORT PalError PalDirGetCurrentDirectory(PalChar* fname) FANOUT_NOEXCEPT;

/* Changes the process's working directory. Unchecked localisation. Records:
 * null path (21, 0, 0); failed (-4, errno, 1). */
FANOUT_EXPORT PalError PalDirSetCurrentDirectory(const PalChar* path) FANOUT_NOEXCEPT;

FANOUT_END_DECLS

#endif /* FANOUT_PALFILE_H */
