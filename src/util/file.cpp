/* file.cpp - the File object: host descriptors behind raising calls.
 *
 * The record side reads and writes property-list files, progress files and
 * distribution data through this wrapper. Each call is one host call; any
 * failure is raised as a catalogue exception carrying the file's path and,
 * where the message asks for it, the byte count and errno. Nothing is
 * retried: a short write is a failure, a short read is the caller's business.
 *
 * errno is copied right after the failing host call, before anything that
 * could disturb it, and passed to the raise as a number.
 */
#include "fanout/file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "fanout/catalog.h"
#include "fanout/exception.h"
#include "fanout/runtime.h"
#include "runtime/raise.h"

namespace {

/* A new object for path with a closed descriptor. */
File* file_object_new(const char* path) {
    File* f = static_cast<File*>(mg_calloc(1, sizeof(File)));
    f->fd = -1;
    try {
        f->path = mg_strdup(path);
    } catch (...) {
        mg_free(f);
        throw;
    }
    return f;
}

void file_object_free(File* f) {
    mg_free(f->path);
    mg_free(f);
}

/* Opens the object's path; the object is freed when the open fails, and
 * the caller raises with the errno returned through *error. */
bool open_object(File* f, int flags, mode_t mode, int* error) {
    f->fd = open(f->path, flags, mode);
    if (f->fd == -1) {
        *error = errno;
        file_object_free(f);
        return false;
    }
    return true;
}

}  // namespace

extern "C" {

File* file_open(const char* path, int32_t oflag) {
    File* f = file_object_new(path);
    int error = 0;
    if (!open_object(f, oflag, 0, &error)) {
        fanout::raise_catalogued(11, path);
    }
    return f;
}

File* file_create(const char* path, int32_t oflag, uint32_t mode) {
    File* f = file_object_new(path);
    int error = 0;
    if (!open_object(f, oflag | O_CREAT, static_cast<mode_t>(mode), &error)) {
        fanout::raise_catalogued(12, path, error);
    }
    return f;
}

int32_t file_is_open(const File* f) {
    return f != nullptr && f->fd != -1 ? 1 : 0;
}

void file_close(File* f) {
    if (f == nullptr) {
        fanout::raise_catalogued(13);
    }
    // A closed object still calls close(-1), which fails: closing twice is
    // reported, not ignored.
    if (close(f->fd) != 0) {
        fanout::raise_catalogued(14, f->path);
    }
    f->fd = -1;
}

void file_remove(File* f) {
    if (f == nullptr) {
        fanout::raise_catalogued(15);
    }
    if (std::remove(f->path) != 0) {
        fanout::raise_catalogued(16, f->path);
    }
}

void file_delete(File* f) {
    if (f == nullptr) {
        fanout::raise_catalogued(17);
    }
    if (file_is_open(f)) {
        file_close(f);
    }
    file_object_free(f);
}

int32_t file_read(File* f, void* buffer, int32_t len) {
    if (f == nullptr) {
        fanout::raise_catalogued(18);
    }
    // A negative length is refused as the host refuses a count it cannot
    // represent (EINVAL) rather than handed on as a huge count.
    const ssize_t n = len < 0 ? -1 : read(f->fd, buffer, static_cast<size_t>(len));
    if (n < 0) {
        const int error = len < 0 ? EINVAL : errno;
        fanout::raise_catalogued(19, f->path, len, error);
    }
    return static_cast<int32_t>(n);
}

int32_t file_write(File* f, const void* buffer, int32_t len) {
    if (f == nullptr) {
        fanout::raise_catalogued(20);
    }
    // A negative length cannot be written in full: it fails like a short
    // write, without calling the host.
    const ssize_t n = len < 0 ? -1 : write(f->fd, buffer, static_cast<size_t>(len));
    if (n < 0 || n != static_cast<ssize_t>(len)) {
        fanout::raise_catalogued(21, f->path, len);
    }
    return len;
}

uint32_t file_seek(File* f, uint32_t offset) {
    if (f == nullptr) {
        fanout::raise_catalogued(22);
    }
    const off_t pos = lseek(f->fd, static_cast<off_t>(offset), SEEK_SET);
    if (pos < 0) {
        const int error = errno;
        fanout::raise_catalogued(23, f->path, error);
    }
    return static_cast<uint32_t>(pos);
}

uint32_t file_get_size(const char* path) {
    struct stat st;
    if (stat(path, &st) != 0) {
        fanout::raise_catalogued(24, path);
    }
    return static_cast<uint32_t>(st.st_size);
}

int32_t file_access(const char* path, int32_t mode) {
    if (access(path, mode) != 0) {
        fanout::raise_catalogued(25, path, mode);
    }
    return 0;
}

int64_t file_get_mtime(const char* path) {
    struct stat st;
    if (path == nullptr || stat(path, &st) != 0) {
        return -1;
    }
    return static_cast<int64_t>(st.st_mtime);
}

int32_t stat_ex(const char* path, FileStatus* buffer) {
    struct stat st;
    const int result = stat(path, &st);
    if (result == 0) {
        buffer->dev = static_cast<uint64_t>(st.st_dev);
        buffer->ino = static_cast<uint64_t>(st.st_ino);
        buffer->mode = static_cast<uint32_t>(st.st_mode);
        buffer->nlink = static_cast<uint32_t>(st.st_nlink);
        buffer->uid = static_cast<uint32_t>(st.st_uid);
        buffer->gid = static_cast<uint32_t>(st.st_gid);
        buffer->rdev = static_cast<uint64_t>(st.st_rdev);
        buffer->size = static_cast<int64_t>(st.st_size);
        buffer->blksize = static_cast<int64_t>(st.st_blksize);
        buffer->blocks = static_cast<int64_t>(st.st_blocks);
        buffer->atime = static_cast<int64_t>(st.st_atime);
        buffer->mtime = static_cast<int64_t>(st.st_mtime);
        buffer->ctime = static_cast<int64_t>(st.st_ctime);
    }
    return result;
}

}  // extern "C"
