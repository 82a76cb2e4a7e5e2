// path.cpp - path names in the native and the foreign notation.
//
// Paths reach the layer from configuration files and from other hosts, so
// they may be written with '\\' separators, drive prefixes ("C:\\") or
// network prefixes ("\\\\server"). These functions classify such paths,
// split them into parent and name, and convert native ones in place. They
// work on the caller's buffers only and never allocate. Everything goes
// through the null-tolerant string wrappers, which is what gives a null path
// its (documented) result in each function.

#include <fanout/palmemory.h>
#include <fanout/palpath.h>

#include <unistd.h>

namespace {

// The later of the last '/' and the last '\\' in path, or null.
const PalChar* last_separator(const PalChar* path) noexcept {
    const PalChar* slash = PalStringRChr(path, '/');
    const PalChar* back = PalStringRChr(path, '\\');
    if (slash == nullptr) return back;
    if (back == nullptr) return slash;
    return slash > back ? slash : back;
}

}  // namespace

extern "C" {

FANOUT_EXPORT PalBool PalPathIsPathAbsolute(const PalChar* path) noexcept {
    if (path == nullptr) return PAL_FALSE;
    // A leading run of length 0 without '/' means the path begins with '/';
    // the empty string passes this test too, deliberately.
    if (PalStringStrcspn(path, "/") == 0) return PAL_TRUE;
    if (path[0] == '\\' && path[1] == '\\') return PAL_TRUE;
    if (PalStringStr(path, ":\\") != nullptr) return PAL_TRUE;
    return PAL_FALSE;
}

FANOUT_EXPORT PalChar* PalPathGetPrefix(PalChar* prefix, const PalChar* path,
                                        PalUint32 prefix_len) noexcept {
    if (prefix == nullptr || path == nullptr) return nullptr;
    PalUint32 end;
    if (path[0] == '/') {
        end = 1 + static_cast<PalUint32>(PalStringStrcspn(path + 1, "/"));
    } else if (path[0] == '\\' && path[1] == '\\') {
        end = 2 + static_cast<PalUint32>(PalStringStrcspn(path + 2, "\\"));
    } else if (PalStringStr(path, ":\\") != nullptr) {
        end = static_cast<PalUint32>(PalStringStrcspn(path, "\\"));
    } else {
        return nullptr;
    }
    // A zero-sized buffer has no room even for the terminator: leave it alone.
    if (prefix_len == 0) return prefix;
    PalUint32 copy = prefix_len > end ? end : prefix_len - 1;
    PalMemoryCpy(prefix, path, static_cast<PalInt32>(copy));
    prefix[copy] = '\0';
    return prefix;
}

FANOUT_EXPORT PalBool PalPathIsPrefixNative(const PalChar* path) noexcept {
    if (!PalPathIsPathAbsolute(path)) return PAL_TRUE;
    return path[0] == '/' ? PAL_TRUE : PAL_FALSE;
}

FANOUT_EXPORT PalChar* PalPathMakeAbsolute(PalChar* absolute_path, const PalChar* relative_path,
                                           PalUint32 length) noexcept {
    if (absolute_path == nullptr) return nullptr;
    if (PalPathIsPathAbsolute(relative_path)) {
        return PalStringNCpy(absolute_path, relative_path, length);
    }
    if (length == 0 || getcwd(absolute_path, length) == nullptr) {
        if (length > 0) absolute_path[0] = '\0';
        return nullptr;
    }
    PalStringCat(absolute_path, "/");
    // Bounded by the whole buffer, not by the room left after the working
    // directory: callers size the buffer for directory, separator and path.
    PalStringNCat(absolute_path, relative_path, length);
    return absolute_path;
}

FANOUT_EXPORT PalChar* PalPathGetName(PalChar* name, const PalChar* path,
                                      PalUint32 name_len) noexcept {
    if (name == nullptr) return nullptr;
    const PalChar* sep = last_separator(path);
    // No separator at all: the answer is the literal "Failure", which callers
    // cannot tell from a file of that name. Bounded like the real answer.
    if (sep == nullptr) return PalStringNCpy(name, "Failure", name_len);
    return PalStringNCpy(name, sep + 1, name_len);
}

FANOUT_EXPORT PalChar* PalPathGetParent(PalChar* name, const PalChar* path,
                                        PalUint32 name_len) noexcept {
    if (name == nullptr) return nullptr;
    PalStringNCpy(name, path, name_len);
    if (path == nullptr) return name;
    // The copy has no terminator when the path filled the bound, so look for
    // the separator only within the characters actually copied.
    PalUint32 copied = 0;
    while (copied < name_len && name[copied] != '\0') ++copied;
    for (PalUint32 i = copied; i > 0; --i) {
        if (name[i - 1] == '/' || name[i - 1] == '\\') {
            name[i - 1] = '\0';
            break;
        }
    }
    return name;
}

FANOUT_EXPORT PalChar* PalPathLocalize(PalChar* path) noexcept {
    if (path == nullptr || !PalPathIsPrefixNative(path)) return nullptr;
    for (PalChar* p = path; *p != '\0'; ++p) {
        if (*p == '\\') *p = '/';
    }
    return path;
}

}  // extern "C"
