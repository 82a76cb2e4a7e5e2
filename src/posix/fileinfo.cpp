// fileinfo.cpp - file status, ownership and permissions.
//
// The layer reports and changes who owns a file, its group and its nine
// permission bits, and gathers a file's status into a PalFileInfo. The
// layer's permission encoding and the open-flag encoding are mapped to the
// host's here. User and group names come from the reentrant look-ups with a
// 1024-byte work buffer on the stack, so all of this is safe from several
// threads at once.

#include "filemap.h"

#include <fanout/palfile.h>
#include <fanout/palmemory.h>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

static_assert(sizeof(off_t) == 8, "the layer needs 64-bit file offsets on every build");

namespace fanout {

namespace {

constexpr size_t kLookupBufferSize = 1024;

// Layer bit and host bit, for the nine permission bits.
struct PermBit {
    PalUint32 layer;
    mode_t host;
};

constexpr PermBit kPermBits[] = {
    {PAL_PERM_USER_READ, S_IRUSR},  {PAL_PERM_USER_WRITE, S_IWUSR},  {PAL_PERM_USER_EXEC, S_IXUSR},
    {PAL_PERM_GROUP_READ, S_IRGRP}, {PAL_PERM_GROUP_WRITE, S_IWGRP}, {PAL_PERM_GROUP_EXEC, S_IXGRP},
    {PAL_PERM_OTHER_READ, S_IROTH}, {PAL_PERM_OTHER_WRITE, S_IWOTH}, {PAL_PERM_OTHER_EXEC, S_IXOTH},
};

// Milliseconds since the epoch from host seconds, sign-extended to 64 bits.
PalUint64 millis(time_t seconds) noexcept {
    return static_cast<PalUint64>(static_cast<PalInt64>(seconds) * 1000);
}

}  // namespace

int pal_open_flags(PalInt32 oflag) noexcept {
    int flags = O_RDONLY;
    if (oflag & PAL_OPEN_WRONLY) flags |= O_WRONLY;
    if (oflag & PAL_OPEN_RDWR) flags |= O_RDWR;
    if (oflag & PAL_OPEN_APPEND) flags |= O_APPEND;
    if (oflag & PAL_OPEN_CREATE) flags |= O_CREAT;
    if (oflag & PAL_OPEN_TRUNCATE) flags |= O_TRUNC;
    if (oflag & PAL_OPEN_EXCLUSIVE) flags |= O_EXCL;
    if (oflag & PAL_OPEN_NOFOLLOW) flags |= O_NOFOLLOW;
    if (oflag & PAL_OPEN_REGULAR) flags |= O_NONBLOCK;
    if (oflag & PAL_OPEN_CLOEXEC) flags |= O_CLOEXEC;
    return flags;
}

mode_t pal_perm_to_host(PalUint32 permission) noexcept {
    mode_t mode = 0;
    for (const PermBit& b : kPermBits) {
        if (permission & b.layer) mode |= b.host;
    }
    return mode;
}

PalUint32 pal_perm_from_host(mode_t mode) noexcept {
    PalUint32 permission = 0;
    for (const PermBit& b : kPermBits) {
        if (mode & b.host) permission |= b.layer;
    }
    return permission;
}

int pal_user_name(uid_t uid, PalChar* out, PalUint32 n) noexcept {
    char buffer[kLookupBufferSize];
    struct passwd entry;
    struct passwd* found = nullptr;
    int rc = getpwuid_r(uid, &entry, buffer, sizeof buffer, &found);
    if (rc != 0) return rc;
    // An id without an entry is not an error: the name is simply empty.
    PalStringNCpy(out, found != nullptr ? found->pw_name : "", n);
    return 0;
}

int pal_group_name(gid_t gid, PalChar* out, PalUint32 n) noexcept {
    char buffer[kLookupBufferSize];
    struct group entry;
    struct group* found = nullptr;
    int rc = getgrgid_r(gid, &entry, buffer, sizeof buffer, &found);
    if (rc != 0) return rc;
    PalStringNCpy(out, found != nullptr ? found->gr_name : "", n);
    return 0;
}

}  // namespace fanout

using fanout::LocalPath;

namespace {

enum class Who { User, Group };

// PalFileGetOwner and PalFileGetGroup: localise (checked), stat, look up.
PalError get_name(Who who, PalChar* out, const PalChar* path, PalUint32 n) noexcept {
    if (out == nullptr || path == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 1);
    LocalPath local(path);
    if (!local.localised()) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 2);
    struct stat st;
    if (stat(local.host(), &st) != 0) return PalErrorCreate(PAL_ERR_SYSTEM, errno, 3);
    int rc = who == Who::User ? fanout::pal_user_name(st.st_uid, out, n)
                              : fanout::pal_group_name(st.st_gid, out, n);
    if (rc != 0) return PalErrorCreate(PAL_ERR_SYSTEM, rc, 4);
    return PalErrorCreate(PAL_OK, 0, 0);
}

// PalFileSetOwner and PalFileSetGroup: look the name up, localise (checked),
// change. A user change also moves the file to that user's primary group.
PalError set_name(Who who, const PalChar* name, const PalChar* path) noexcept {
    if (name == nullptr || path == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 1);
    char buffer[fanout::kLookupBufferSize];
    uid_t uid = static_cast<uid_t>(-1);
    gid_t gid = static_cast<gid_t>(-1);
    int rc;
    bool found;
    if (who == Who::User) {
        struct passwd entry;
        struct passwd* result = nullptr;
        rc = getpwnam_r(name, &entry, buffer, sizeof buffer, &result);
        found = result != nullptr;
        if (found) {
            uid = result->pw_uid;
            gid = result->pw_gid;
        }
    } else {
        struct group entry;
        struct group* result = nullptr;
        rc = getgrnam_r(name, &entry, buffer, sizeof buffer, &result);
        found = result != nullptr;
        if (found) gid = result->gr_gid;
    }
    // The look-ups report an unknown name as success with no result; the
    // record then carries ENOENT so that nativeError is never 0 on failure.
    if (rc != 0) return PalErrorCreate(PAL_ERR_SYSTEM, rc, 2);
    if (!found) return PalErrorCreate(PAL_ERR_SYSTEM, ENOENT, 2);
    LocalPath local(path);
    if (!local.localised()) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 3);
    if (chown(local.host(), uid, gid) != 0) return PalErrorCreate(PAL_ERR_SYSTEM, errno, 4);
    return PalErrorCreate(PAL_OK, 0, 0);
}

}  // namespace

extern "C" {

FANOUT_EXPORT PalError PalFileGetInfo(const PalChar* path, PalFileInfo* info) noexcept {
    if (path == nullptr || info == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 1);
    LocalPath local(path);
    struct stat st;
    if (stat(local.host(), &st) != 0) return PalErrorCreate(PAL_ERR_SYSTEM, errno, 2);
    fanout::fill_info(st, info);
    return PalErrorCreate(PAL_OK, 0, 0);
}

FANOUT_EXPORT PalError PalFileGetRegularInfo(const PalChar* path, PalFileInfo* info) noexcept {
    if (path == nullptr || info == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 1);
    LocalPath local(path);
    struct stat st;
    if (lstat(local.host(), &st) != 0) return PalErrorCreate(PAL_ERR_SYSTEM, errno, 2);
    if (!S_ISREG(st.st_mode)) return PalErrorCreate(PAL_ERR_SYSTEM, EINVAL, 3);
    fanout::fill_info(st, info);
    return PalErrorCreate(PAL_OK, 0, 0);
}

FANOUT_EXPORT PalBool PalFileIsSame(const PalChar* path1, const PalChar* path2) noexcept {
    if (path1 == nullptr || path2 == nullptr) return PAL_FALSE;
    LocalPath one(path1);
    LocalPath two(path2);
    struct stat a, b;
    if (stat(one.host(), &a) != 0 || stat(two.host(), &b) != 0) return PAL_FALSE;
    return a.st_dev == b.st_dev && a.st_ino == b.st_ino ? PAL_TRUE : PAL_FALSE;
}

}  // extern "C"

namespace fanout {

void fill_info(const struct stat& st, PalFileInfo* info) noexcept {
    info->ctime = fanout::millis(st.st_ctime);
    info->atime = fanout::millis(st.st_atime);
    info->mtime = fanout::millis(st.st_mtime);
    info->mode = fanout::pal_perm_from_host(st.st_mode);
    info->nlink = static_cast<PalInt32>(st.st_nlink);
    info->size = static_cast<PalInt64>(st.st_size);
    info->dev = static_cast<PalInt32>(static_cast<PalUint32>(st.st_dev));
    info->rdev = static_cast<PalInt32>(static_cast<PalUint32>(st.st_rdev));
    // The names come from the ids of this same status record; a failed
    // look-up leaves a name empty and does not fail the call. The last byte
    // is forced to a terminator in case a name fills the field.
    info->user[0] = '\0';
    info->group[0] = '\0';
    if (fanout::pal_user_name(st.st_uid, info->user, PAL_PATH_MAX) != 0) info->user[0] = '\0';
    if (fanout::pal_group_name(st.st_gid, info->group, PAL_PATH_MAX) != 0) info->group[0] = '\0';
    info->user[PAL_PATH_MAX - 1] = '\0';
    info->group[PAL_PATH_MAX - 1] = '\0';
}

}  // namespace fanout

extern "C" {

FANOUT_EXPORT PalError PalFileSetOwner(const PalChar* owner, const PalChar* path) noexcept {
    return set_name(Who::User, owner, path);
}

FANOUT_EXPORT PalError PalFileGetOwner(PalChar* owner, const PalChar* path, PalUint32 n) noexcept {
    return get_name(Who::User, owner, path, n);
}

FANOUT_EXPORT PalError PalFileSetGroup(const PalChar* group, const PalChar* path) noexcept {
    return set_name(Who::Group, group, path);
}

FANOUT_EXPORT PalError PalFileGetGroup(PalChar* group, const PalChar* path, PalUint32 n) noexcept {
    return get_name(Who::Group, group, path, n);
}

FANOUT_EXPORT PalError PalFileSetPermissions(PalUint32 permission, const PalChar* path) noexcept {
    if (path == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 1);
    LocalPath local(path);
    if (!local.localised()) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 2);
    // A refused change keeps palError at PAL_OK on purpose: callers that
    // care test nativeError.
    if (chmod(local.host(), fanout::pal_perm_to_host(permission)) != 0) {
        return PalErrorCreate(PAL_OK, errno, 3);
    }
    return PalErrorCreate(PAL_OK, 0, 0);
}

FANOUT_EXPORT PalError PalFileGetPermissions(PalUint32* permission, const PalChar* path) noexcept {
    if (permission == nullptr || path == nullptr) {
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 1);
    }
    PalFileInfo info;
    PalError e = PalFileGetInfo(path, &info);
    if (e.palError == PAL_OK) *permission = info.mode;
    return e;
}

}  // extern "C"
