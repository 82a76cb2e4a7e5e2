/* directory.cpp - directory objects, filtered entry enumeration, mkdir.
 *
 * A directory object only remembers its path name. Enumerating it opens a
 * host directory stream and hands back, one at a time and in the order the
 * file system delivers them, the entry names that the wildcard matcher
 * accepts; "." and ".." never come out. Nothing is sorted.
 */
#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstring>

#include "fanout/catalog.h"
#include "fanout/exception.h"
#include "fanout/pathname.h"
#include "fanout/runtime.h"
#include "runtime/raise.h"

namespace {

constexpr size_t kNameLength = 1024;

bool is_dot_or_dotdot(const char* name) {
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

}  // namespace

extern "C" {

Directory* dir_new(const char* path) {
    char* clone = pathname_clone(path);
    Directory* d;
    try {
        d = static_cast<Directory*>(mg_calloc(1, sizeof(Directory)));
    } catch (...) {
        pathname_delete(clone);
        throw;
    }
    d->pathname = clone;
    return d;
}

void dir_delete(Directory* d) {
    if (d == nullptr) {
        return;
    }
    pathname_delete(d->pathname);
    mg_free(d);
}

char* dir_get_pathname(const Directory* d) {
    return d->pathname;
}

DirEntryEnum* dir_entry_enum_new(const Directory* d, const char* pat) {
    DIR* stream = opendir(d->pathname);
    if (stream == nullptr) {
        return nullptr;
    }
    DirEntryEnum* e = nullptr;
    try {
        e = static_cast<DirEntryEnum*>(mg_calloc(1, sizeof(DirEntryEnum)));
        e->stream = stream;
        e->pattern = mg_strdup(pat);
        e->name = static_cast<char*>(mg_calloc(1, kNameLength));
    } catch (...) {
        if (e != nullptr) {
            dir_entry_enum_delete(e);
        } else {
            closedir(stream);
        }
        throw;
    }
    e->active = 1;
    return e;
}

DirEntryEnum* dir_entries(const Directory* d, const char* pat) {
    return dir_entry_enum_new(d, pat);
}

int32_t dir_entry_enum_has_more_elements(DirEntryEnum* e) {
    if (e == nullptr || e->stream == nullptr) {
        return 0;
    }
    DIR* stream = static_cast<DIR*>(e->stream);
    for (;;) {
        const struct dirent* entry = readdir(stream);
        if (entry == nullptr) {
            return 0;
        }
        if (is_dot_or_dotdot(entry->d_name) || match(e->pattern, entry->d_name) != 0) {
            continue;
        }
        // d_name holds at most NAME_MAX (255) bytes, well within the buffer.
        std::strncpy(e->name, entry->d_name, kNameLength - 1);
        e->name[kNameLength - 1] = '\0';
        return 1;
    }
}

char* dir_entry_enum_next_element(DirEntryEnum* e) {
    return e->name;
}

void dir_entry_enum_delete(DirEntryEnum* e) {
    if (e == nullptr) {
        return;
    }
    if (e->stream != nullptr) {
        closedir(static_cast<DIR*>(e->stream));
    }
    mg_free(e->pattern);
    mg_free(e->name);
    mg_free(e);
}

void dir_create_directory(const char* path) {
    if (path == nullptr) {
        fanout::raise_catalogued(9);
    }
    if (mkdir(path, 0700) != 0) {
        fanout::raise_catalogued(10, path);
    }
}

int32_t dir_is_directory(const char* path) {
    if (path == nullptr) {
        return 0;
    }
    // Works on a copy so that the caller's name keeps its separators; a
    // name too long for a path name buffer is no directory we could use.
    size_t n = std::strlen(path);
    if (n >= pathname_max_length()) {
        return 0;
    }
    char* clone = nullptr;
    try {
        clone = pathname_clone(path);
    } catch (...) {
        return 0;  // never raises: out of memory answers "not a directory"
    }
    pathname_remove_separator(clone);
    struct stat st;
    int32_t result = stat(clone, &st) == 0 && S_ISDIR(st.st_mode) ? 1 : 0;
    pathname_delete(clone);
    return result;
}

}  // extern "C"
