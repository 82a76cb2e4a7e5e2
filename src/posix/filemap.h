// filemap.h - internal helpers shared by the file and directory modules.
//
// The layer's own encodings of open flags and permission bits are mapped to
// the host's here, in one place, and every call that takes a path gets its
// localised copy through LocalPath. Nothing in this header is exported.

#ifndef FANOUT_SRC_POSIX_FILEMAP_H
#define FANOUT_SRC_POSIX_FILEMAP_H

#include <fanout/palfile.h>
#include <fanout/palmemory.h>
#include <fanout/palpath.h>

#include <sys/stat.h>
#include <sys/types.h>

namespace fanout {

// Host open(2) flags for the layer's oflag bits. Write-only and read-write
// together yield the raw access value 3 (O_WRONLY | O_RDWR), which the host
// rejects; that is kept so that such a request fails loudly.
int pal_open_flags(PalInt32 oflag) noexcept;

// Layer permission bits to host permission bits and back; exact both ways
// over the nine rwx bits, everything else dropped.
mode_t pal_perm_to_host(PalUint32 permission) noexcept;
PalUint32 pal_perm_from_host(mode_t mode) noexcept;

// Fills *info from a host status record (times, permission bits, size, links,
// devices, owner's and group's names).
void fill_info(const struct stat& st, PalFileInfo* info) noexcept;

// Name of the user / group with the given id into out (n bytes, PalStringNCpy
// semantics), using the reentrant look-ups with a 1024-byte work buffer.
// Returns 0 (out set to "" when the id has no entry) or the look-up's error.
int pal_user_name(uid_t uid, PalChar* out, PalUint32 n) noexcept;
int pal_group_name(gid_t gid, PalChar* out, PalUint32 n) noexcept;

// A duplicated, localised copy of a caller's path, freed on scope exit.
// localised() tells whether the copy could be made and converted (the
// "checked" operations refuse the path otherwise); host() is what to hand to
// the system: the converted copy, or else the caller's text unchanged (the
// "unchecked" operations let the system judge it).
class LocalPath {
  public:
    explicit LocalPath(const PalChar* path) noexcept : original_(path), copy_(PalStringDup(path)) {
        localised_ = copy_ != nullptr && PalPathLocalize(copy_) != nullptr;
    }
    ~LocalPath() { PalMemoryFree(copy_); }
    LocalPath(const LocalPath&) = delete;
    LocalPath& operator=(const LocalPath&) = delete;

    bool localised() const noexcept { return localised_; }
    const PalChar* host() const noexcept { return localised_ ? copy_ : original_; }

  private:
    const PalChar* original_;
    PalChar* copy_;
    bool localised_ = false;
};

// The descriptor held by an open handle's cell (the caller checked it).
inline int pal_fd(PalFileHandle handle) noexcept {
    return *static_cast<PalInt32*>(handle.handle);
}

}  // namespace fanout

#endif  // FANOUT_SRC_POSIX_FILEMAP_H
