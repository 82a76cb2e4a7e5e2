// file.cpp - open files of the portability layer.
//
// A PalFileHandle points at a heap cell holding the host descriptor; the
// opening calls allocate the cell and PalFileClose frees it, whatever the
// outcome of the close. Sizes and offsets are 64-bit on every build (the
// library is compiled with 64-bit file offsets). Each call reports through a
// PalError whose traceLocation numbers its failure points in order, 1 being
// the argument check; nativeError is the errno of the failing system call.
// Temporary files are named here too, and made anonymous by removing their
// name as soon as they are open.

#include "filemap.h"

#include <fanout/palfile.h>
#include <fanout/palmemory.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>

namespace {

constexpr PalInt32 kPrintfBufferSize = 4096;
constexpr int kTempNameAttempts = 100;

PalError ok() noexcept {
    return PalErrorCreate(PAL_OK, 0, 0);
}
PalError invalid(PalInt32 where) noexcept {
    return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, where);
}
PalError system_error(PalInt32 where) noexcept {
    return PalErrorCreate(PAL_ERR_SYSTEM, errno, where);
}

// A new descriptor cell holding fd, or null.
PalInt32* new_cell(int fd) noexcept {
    auto* cell = static_cast<PalInt32*>(PalMemoryMalloc(sizeof(PalInt32)));
    if (cell != nullptr) *cell = fd;
    return cell;
}

PalError std_handle(PalFileHandle* file, int fd) noexcept {
    if (file == nullptr) return invalid(1);
    PalInt32* cell = new_cell(fd);
    if (cell == nullptr) return PalErrorCreate(PAL_ERR_SYSTEM, ENOMEM, 2);
    file->handle = cell;
    return ok();
}

// Six characters for a temporary name, differing from call to call and from
// process to process (time, process id and a counter, mixed).
void temp_suffix(char out[7]) noexcept {
    static std::atomic<PalUint64> counter{0};
    static const char kAlphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    PalUint64 x = static_cast<PalUint64>(now.tv_nsec) ^ (static_cast<PalUint64>(now.tv_sec) << 30) ^
                  (static_cast<PalUint64>(getpid()) << 40) ^
                  (counter.fetch_add(1) * 0x9E3779B97F4A7C15ull);
    // splitmix64 finaliser.
    x ^= x >> 30;
    x *= 0xBF58476D1CE4E5B9ull;
    x ^= x >> 27;
    x *= 0x94D049BB133111EBull;
    x ^= x >> 31;
    for (int i = 0; i < 6; ++i) {
        out[i] = kAlphabet[x % 62];
        x /= 62;
    }
    out[6] = '\0';
}

// A fresh name "<directory>/fileXXXXXX" for a file that does not exist yet,
// in `out` (PAL_PATH_MAX bytes). The name is made here rather than by the C
// library's tempnam, which prefers $TMPDIR (and then P_tmpdir) to the
// directory asked for and so could put the Depot's temporary files on
// another file system. False when the directory is not an existing
// directory, the name does not fit, or no free name turns up.
bool make_temp_name(const PalChar* directory, PalChar* out) noexcept {
    struct stat st;
    if (stat(directory, &st) != 0 || !S_ISDIR(st.st_mode)) return false;
    // Drop trailing separators so that the name has exactly one.
    int len = static_cast<int>(PalStringLen(directory));
    while (len > 1 && directory[len - 1] == '/') --len;
    for (int attempt = 0; attempt < kTempNameAttempts; ++attempt) {
        char suffix[7];
        temp_suffix(suffix);
        int n = std::snprintf(out, PAL_PATH_MAX, "%.*s/file%s", len, directory, suffix);
        if (n < 0 || n >= PAL_PATH_MAX) return false;
        if (lstat(out, &st) != 0 && errno == ENOENT) return true;
    }
    return false;
}

}  // namespace

using fanout::LocalPath;
using fanout::pal_fd;

extern "C" {

FANOUT_EXPORT PalError PalFileOpen(PalFileHandle* handle_ptr, const PalChar* path,
                                   PalInt32 oflag) noexcept {
    if (handle_ptr == nullptr || path == nullptr) return invalid(1);
    LocalPath local(path);
    if (!local.localised()) return invalid(2);
    // The cell is handed out even when the open fails (it then holds -1), so
    // callers can release every handle the same way.
    PalInt32* cell = new_cell(-1);
    handle_ptr->handle = cell;
    if (cell == nullptr) return PalErrorCreate(PAL_ERR_SYSTEM, ENOMEM, 3);
    *cell = open(local.host(), fanout::pal_open_flags(oflag), 0600);
    if (*cell < 0) return system_error(3);
    if ((oflag & PAL_OPEN_REGULAR) != 0) {
        // Opened without blocking, so that a FIFO or a device named like a
        // file of ours cannot stop the caller; refused unless regular.
        struct stat st;
        int err = fstat(*cell, &st) != 0 ? errno : (S_ISREG(st.st_mode) ? 0 : EINVAL);
        if (err != 0) {
            close(*cell);
            *cell = -1;
            return PalErrorCreate(PAL_ERR_SYSTEM, err, 4);
        }
    }
    return ok();
}

FANOUT_EXPORT PalError PalFileClose(PalFileHandle handle) noexcept {
    if (handle.handle == nullptr) return invalid(1);
    int rc = close(pal_fd(handle));
    int err = errno;
    PalMemoryFree(handle.handle);  // freed whatever close said
    if (rc != 0) return PalErrorCreate(PAL_ERR_SYSTEM, err, 2);
    return ok();
}

FANOUT_EXPORT PalError PalFileRemove(const PalChar* path) noexcept {
    if (path == nullptr) return invalid(1);
    LocalPath local(path);
    if (!local.localised()) return invalid(2);
    if (std::remove(local.host()) != 0) return system_error(3);
    return ok();
}

FANOUT_EXPORT PalError PalFileRemoveRegular(const PalChar* path) noexcept {
    if (path == nullptr) return invalid(1);
    LocalPath local(path);
    if (!local.localised()) return invalid(2);
    struct stat st;
    if (lstat(local.host(), &st) != 0) return system_error(3);
    if (!S_ISREG(st.st_mode)) return PalErrorCreate(PAL_ERR_SYSTEM, EINVAL, 4);
    // unlink never follows a link, so a file swapped for one since the check
    // loses only the link.
    if (unlink(local.host()) != 0) return system_error(5);
    return ok();
}

FANOUT_EXPORT PalError PalFileLock(PalFileHandle handle, PalBool exclusive, PalBool wait) noexcept {
    if (handle.handle == nullptr) return invalid(1);
    int op = (exclusive ? LOCK_EX : LOCK_SH) | (wait ? 0 : LOCK_NB);
    int rc;
    do {
        rc = flock(pal_fd(handle), op);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) return system_error(2);
    return ok();
}

FANOUT_EXPORT PalError PalFileFlushBuffers(PalFileHandle handle) noexcept {
    if (handle.handle == nullptr) return invalid(1);
    // fsync forces the file's buffered data out. The device-control request
    // 0x5305 with argument 3 is not used: on Linux it fails with ENOTTY on
    // ordinary files.
    if (fsync(pal_fd(handle)) != 0) return system_error(2);
    return ok();
}

FANOUT_EXPORT PalError PalFileGetSize(PalFileHandle handle, PalInt64* size) noexcept {
    if (handle.handle == nullptr || size == nullptr) return invalid(1);
    struct stat st;
    if (fstat(pal_fd(handle), &st) != 0) {
        *size = -1;
        return system_error(2);
    }
    *size = static_cast<PalInt64>(st.st_size);
    return ok();
}

FANOUT_EXPORT PalError PalFileRead(PalFileHandle handle, void* buffer, PalUint32 size,
                                   PalUint32* count) noexcept {
    if (handle.handle == nullptr || buffer == nullptr || count == nullptr) return invalid(1);
    ssize_t got = read(pal_fd(handle), buffer, size);
    if (got < 0) return system_error(2);
    *count = static_cast<PalUint32>(got);
    return ok();
}

FANOUT_EXPORT PalError PalFileWrite(PalFileHandle handle, const void* buffer, PalUint32 size,
                                    PalUint32* count) noexcept {
    if (handle.handle == nullptr || buffer == nullptr || count == nullptr) return invalid(1);
    ssize_t put = write(pal_fd(handle), buffer, size);
    if (put < 0) return system_error(2);
    *count = static_cast<PalUint32>(put);
    return ok();
}

FANOUT_EXPORT PalError PalFileSetSize(PalFileHandle handle, PalInt64 size) noexcept {
    if (handle.handle == nullptr) return invalid(1);
    if (ftruncate(pal_fd(handle), static_cast<off_t>(size)) != 0) return system_error(2);
    return ok();
}

FANOUT_EXPORT PalError PalFileRename(const PalChar* oldPath, const PalChar* newPath) noexcept {
    if (oldPath == nullptr || newPath == nullptr) return invalid(1);
    LocalPath from(oldPath);
    LocalPath to(newPath);
    if (!from.localised() || !to.localised()) return invalid(2);
    if (std::rename(from.host(), to.host()) != 0) return system_error(3);
    return ok();
}

FANOUT_EXPORT PalError PalFileTempFilename(const PalChar* directory, PalChar* name,
                                           PalUint32 n) noexcept {
    if (name == nullptr) return invalid(1);
    LocalPath local(directory);
    if (directory == nullptr || !local.localised()) return invalid(1);
    PalChar fresh[PAL_PATH_MAX];
    if (!make_temp_name(local.host(), fresh)) return PalErrorCreate(PAL_ERR_NO_ENTRY, 0, 2);
    PalStringNCpy(name, fresh, n);
    return ok();
}

FANOUT_EXPORT PalError PalFileOpenTemporary(const PalChar* directory,
                                            PalFileHandle* handle) noexcept {
    if (directory == nullptr || handle == nullptr) return invalid(1);
    PalChar name[PAL_PATH_MAX];
    PalError e = PalFileTempFilename(directory, name, PAL_PATH_MAX);
    if (e.palError != PAL_OK) return e;
    // Exclusive create: a name that was free when chosen but taken since
    // fails here instead of opening someone else's file.
    int fd = open(name, O_RDWR | O_CREAT | O_EXCL, 0700);
    if (fd < 0) return system_error(2);
    PalInt32* cell = new_cell(fd);
    if (cell == nullptr) {
        close(fd);
        unlink(name);
        return PalErrorCreate(PAL_ERR_SYSTEM, ENOMEM, 2);
    }
    handle->handle = cell;
    if (unlink(name) != 0) return system_error(3);
    return ok();
}

FANOUT_EXPORT PalError PalFileSetLocation(PalFileHandle handle, PalInt64 offset,
                                          PalInt32 origin) noexcept {
    int whence;
    switch (origin) {
        case PAL_SEEK_BEGIN:
            whence = SEEK_SET;
            break;
        case PAL_SEEK_CURRENT:
            whence = SEEK_CUR;
            break;
        case PAL_SEEK_END:
            whence = SEEK_END;
            break;
        default:
            return invalid(1);
    }
    if (handle.handle == nullptr) return invalid(1);
    if (lseek(pal_fd(handle), static_cast<off_t>(offset), whence) < 0) return system_error(2);
    return ok();
}

FANOUT_EXPORT PalError PalFileGetLocation(PalFileHandle handle, PalInt64* offset) noexcept {
    // The seek is failure point 1 of this call, so the added argument check
    // reports 0.
    if (handle.handle == nullptr || offset == nullptr) return invalid(0);
    off_t at = lseek(pal_fd(handle), 0, SEEK_CUR);
    if (at < 0) return system_error(1);
    *offset = static_cast<PalInt64>(at);
    return ok();
}

FANOUT_EXPORT PalError PalFileGetStdIn(PalFileHandle* file) noexcept {
    return std_handle(file, STDIN_FILENO);
}

FANOUT_EXPORT PalError PalFileGetStdOut(PalFileHandle* file) noexcept {
    return std_handle(file, STDOUT_FILENO);
}

FANOUT_EXPORT PalError PalFileGetStdErr(PalFileHandle* file) noexcept {
    return std_handle(file, STDERR_FILENO);
}

FANOUT_EXPORT PalError PalFileGrantPermission(const PalChar*, PalUint32, const PalChar*) noexcept {
    return PalErrorCreate(PAL_ERR_NOT_SUPPORTED, 0, 0);
}

FANOUT_EXPORT PalError PalFileRevokePermission(const PalChar*, PalUint32, const PalChar*) noexcept {
    return PalErrorCreate(PAL_ERR_NOT_SUPPORTED, 0, 0);
}

FANOUT_EXPORT PalError PalFileGetAcl(PalFileAclEntry*, const PalChar*, PalUint32*) noexcept {
    return PalErrorCreate(PAL_ERR_NOT_SUPPORTED, 0, 0);
}

FANOUT_EXPORT PalError PalFileSetAcl(const PalFileAclEntry*, const PalChar*, PalUint32) noexcept {
    return PalErrorCreate(PAL_ERR_NOT_SUPPORTED, 0, 0);
}

FANOUT_EXPORT PalInt32 PalFileAccessType(const PalChar*) noexcept {
    return PAL_FILE_ACCESS_TYPE;
}

FANOUT_EXPORT PalError PalFilePrintf(PalFileHandle handle, PalUint32* n, const PalChar* format,
                                     ...) noexcept {
    if (n == nullptr || format == nullptr) return invalid(1);
    // The formatting buffer has a fixed size and, deliberately, never grows:
    // output of 4096 characters or more is refused with PAL_ERR_TOO_LONG and
    // nothing is written. (Formatting again into a buffer of the same size
    // cannot succeed, so one attempt decides.)
    auto* buffer = static_cast<PalChar*>(PalMemoryMalloc(kPrintfBufferSize));
    if (buffer == nullptr) return PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 0);
    va_list args;
    va_start(args, format);
    int len = std::vsnprintf(buffer, kPrintfBufferSize, format, args);
    va_end(args);
    PalError e = PalErrorCreate(PAL_ERR_TOO_LONG, 0, 0);
    if (len >= 0 && len < kPrintfBufferSize) {
        e = PalFileWrite(handle, buffer, static_cast<PalUint32>(len), n);
    }
    PalMemoryFree(buffer);
    return e;
}

}  // extern "C"
