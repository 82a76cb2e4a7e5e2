// dir.cpp - directories of the portability layer.
//
// Directory streams, creating and removing directories, and the process's
// working directory. A PalDirHandle points at a heap-allocated
// PalNativeDirHandle holding the host stream; PalDirOpen hands one out even
// when the open fails (its stream is then null) and PalDirClose frees it in
// every case. Paths are localised without being checked: a path the layer
// cannot convert is passed on as written and the system judges it. The
// numbering of failure points follows each call's own steps; where the
// first system call is point 1 (or 0), a null-argument check added in front
// of it reports the point before.

#include "filemap.h"

#include <fanout/palfile.h>
#include <fanout/palmemory.h>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

PalError ok() noexcept {
    return PalErrorCreate(PAL_OK, 0, 0);
}

PalNativeDirHandle* native(PalDirHandle handle) noexcept {
    return static_cast<PalNativeDirHandle*>(handle.handle);
}

}  // namespace

using fanout::LocalPath;

extern "C" {

FANOUT_EXPORT PalBool PalDirIsDirectory(const PalChar* path) noexcept {
    if (path == nullptr) return PAL_FALSE;
    LocalPath local(path);
    struct stat st;
    if (stat(local.host(), &st) != 0) {
        char text[256];
        const char* reason = strerror_r(errno, text, sizeof text);
        std::fprintf(stderr, "get info failure: %s\n", reason);
        return PAL_FALSE;
    }
    return S_ISDIR(st.st_mode) ? PAL_TRUE : PAL_FALSE;
}

FANOUT_EXPORT PalError PalDirCreateDirectory(const PalChar* path) noexcept {
    if (path == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    LocalPath local(path);
    if (mkdir(local.host(), 0700) != 0) return PalErrorCreate(PAL_ERR_SYSTEM, errno, 1);
    return ok();
}

FANOUT_EXPORT PalError PalDirFlush(const PalChar* path) noexcept {
    if (path == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    LocalPath local(path);
    int fd = open(local.host(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return PalErrorCreate(PAL_ERR_SYSTEM, errno, 1);
    int rc = fsync(fd);
    int err = errno;
    close(fd);
    if (rc != 0) return PalErrorCreate(PAL_ERR_SYSTEM, err, 2);
    return ok();
}

FANOUT_EXPORT PalError PalDirOpen(PalDirHandle* handle, const PalChar* path) noexcept {
    if (handle == nullptr || path == nullptr) {
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    }
    auto* dir = static_cast<PalNativeDirHandle*>(PalMemoryMalloc(sizeof(PalNativeDirHandle)));
    handle->handle = dir;
    if (dir == nullptr) return PalErrorCreate(PAL_ERR_SYSTEM, ENOMEM, 1);
    LocalPath local(path);
    dir->handle = opendir(local.host());
    if (dir->handle == nullptr) return PalErrorCreate(PAL_ERR_SYSTEM, errno, 2);
    return ok();
}

FANOUT_EXPORT PalError PalDirClose(PalDirHandle handle) noexcept {
    PalNativeDirHandle* dir = native(handle);
    if (dir == nullptr) return ok();
    // A handle whose open failed holds no stream: there is nothing to close,
    // only the record to free.
    int rc = 0;
    int err = 0;
    if (dir->handle != nullptr) {
        rc = closedir(static_cast<DIR*>(dir->handle));
        err = errno;
    }
    PalMemoryFree(dir);
    if (rc != 0) return PalErrorCreate(PAL_ERR_SYSTEM, err, 2);
    return ok();
}

FANOUT_EXPORT PalError PalDirReadDirectory(PalChar* fname, PalDirHandle handle) noexcept {
    PalNativeDirHandle* dir = native(handle);
    if (fname == nullptr || dir == nullptr || dir->handle == nullptr) {
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    }
    // readdir signals both the end and an error with null; only an error
    // changes errno.
    errno = 0;
    struct dirent* entry = readdir(static_cast<DIR*>(dir->handle));
    if (entry == nullptr) {
        if (errno != 0) return PalErrorCreate(PAL_ERR_SYSTEM, errno, 2);
        return PalErrorCreate(PAL_ERR_NO_ENTRY, 0, 3);
    }
    PalStringNCpy(fname, entry->d_name, PAL_PATH_MAX);
    return ok();
}

FANOUT_EXPORT PalError PalDirRemoveDirectory(const PalChar* path) noexcept {
    if (path == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    LocalPath local(path);
    if (rmdir(local.host()) != 0) return PalErrorCreate(PAL_ERR_SYSTEM, errno, 1);
    return ok();
}

FANOUT_EXPORT PalError PalDirGetCurrentDirectory(PalChar* fname) noexcept {
    // With a null buffer getcwd would allocate one; the layer refuses instead.
    if (fname == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    if (getcwd(fname, PAL_PATH_MAX) == nullptr) return PalErrorCreate(PAL_ERR_SYSTEM, errno, 0);
    return ok();
}

FANOUT_EXPORT PalError PalDirSetCurrentDirectory(const PalChar* path) noexcept {
    if (path == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    LocalPath local(path);
    if (chdir(local.host()) != 0) return PalErrorCreate(PAL_ERR_SYSTEM, errno, 1);
    return ok();
}

}  // extern "C"
