// mstat.cpp - progress status files.
//
// Each distribution on this machine has one progress file: a property list
// in the bare layout, named after the distribution under the work
// directory's "mstat" directory, rewritten whole whenever the stream changes
// a value. The running suffix "ads"/"mds" becomes "adf"/"mdf" once the
// distribution is finished. The stream decides what goes in and when; this
// file owns the names, the directory and the in-memory copy.

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "fanout/exception.h"
#include "fanout/log.h"
#include "fanout/pathname.h"
#include "fanout/properties.h"
#include "fanout/stream.h"
#include "runtime/mg_ptr.h"

namespace fanout {
namespace {

// Builds the file name once and keeps it. False when it cannot be built.
bool ensure_filename(MStat* m) {
    if (m->filename == nullptr) {
        m->filename = find_dist_fname(m->dir, m->distid, m->suffix);
    }
    return m->filename != nullptr;
}

// The work directory, or the temporary directory when none is configured,
// normalised, with "mstat" appended, written into the path name `dir`.
// False when the directory name does not fit a path name.
bool build_dir(char* dir) {
    MgString work(mrt_get_work_dir());
    if (!work) {
        work.reset(mg_strdup(cpl_tmpdir(0)));
    }
    MgString corrected(CorrectPath(work.get(), 1));
    if (!corrected) {
        return false;
    }
    // "/mstat" and the terminator must fit behind the directory.
    if (std::strlen(corrected.get()) + 7 > pathname_max_length()) {
        return false;
    }
    std::strcpy(dir, corrected.get());
    pathname_append(dir, "mstat");
    return true;
}

}  // namespace
}  // namespace fanout

using namespace fanout;

extern "C" {

MStat* mstat_new(const char* distid, int16_t use_ads) {
    if (distid == nullptr) {
        return nullptr;
    }
    MStat* m = nullptr;
    try {
        m = static_cast<MStat*>(mg_calloc(1, sizeof(MStat)));
        m->dir = pathname_new();
        if (!build_dir(m->dir)) {
            mstat_free(m);
            return nullptr;
        }
        // A directory that cannot be made is noticed only when a save cannot
        // write its file.
        struct stat64 st;
        if (stat64(m->dir, &st) != 0 && errno == ENOENT) {
            (void)mkdir(m->dir, 0775);
        }
        m->distid = mg_strdup(distid);
        std::snprintf(m->suffix, sizeof m->suffix, "%3.3s", use_ads ? "ads" : "mds");
        m->filename = nullptr;
        m->properties = properties_new();
        return m;
    } catch (...) {
        // Out of memory: the result says so; nothing is raised from here.
        mstat_free(m);
        return nullptr;
    }
}

int32_t mstat_load(MStat* mstat) {
    if (!ensure_filename(mstat)) {
        return -1;
    }
    // The reader's own failures are not seen by the caller: a missing or
    // damaged file leaves whatever could be decoded.
    try {
        properties_load_without_len(mstat->properties, mstat->filename);
    } catch (...) {
    }
    return 0;
}

int32_t mstat_save(MStat* mstat) {
    const Property* msid = nullptr;
    int32_t index = properties_get_property_index(mstat->properties, "msid");
    if (index >= 0) {
        msid = &mstat->properties->buffer[index];
    }
    if (msid == nullptr || !TypeCode_equal(msid->value._type, TC_string)) {
        properties_put_string_dup(mstat->properties, "msid", mstat->distid);
    }
    if (!ensure_filename(mstat)) {
        return -1;
    }
    // A write that fails (full disk, missing directory) goes unreported on
    // purpose: progress files never stop a distribution.
    try {
        properties_save_without_len(mstat->properties, mstat->filename);
    } catch (...) {
    }
    return 0;
}

void mstat_done(MStat* mstat) {
    if (mstat == nullptr || !ensure_filename(mstat)) {
        return;
    }
    try {
        MgString clone(pathname_clone(mstat->filename));
        // The suffix is searched from the start of the whole path, not at its
        // end: a directory or an id holding "ads" or "mds" earlier wins, and
        // the file then keeps its name.
        char* at = std::strstr(clone.get(), mstat->suffix);
        if (at == nullptr) {
            LogMsg(1, nullptr, 0, -1, "Error: Invalid pathname %1$s", clone.get());
            return;
        }
        if (std::strcmp(at, "ads") == 0) {
            std::memcpy(at, "adf", 3);
        } else if (std::strcmp(at, "mds") == 0) {
            std::memcpy(at, "mdf", 3);
        }
        (void)std::rename(mstat->filename, clone.get());
        std::strcpy(mstat->filename, clone.get());
        // The tail from the occurrence may be longer than a suffix when the
        // search stopped early in the path; the record keeps its first three
        // characters, which are the suffix text that was found.
        std::snprintf(mstat->suffix, sizeof mstat->suffix, "%.3s", at);
    } catch (...) {
        // Out of memory while renaming: the file keeps its running name.
    }
}

void mstat_free(MStat* mstat) {
    if (mstat == nullptr) {
        return;
    }
    pathname_delete(mstat->filename);
    pathname_delete(mstat->dir);
    mg_free(mstat->distid);
    properties_delete(mstat->properties);
    mg_free(mstat);
}

Properties* mstat_get_properties(MStat* mstat) {
    return mstat->properties;
}

char* distid_get_filename(const char* distid) {
    if (distid == nullptr) {
        return nullptr;
    }
    try {
        return pathname_clone(distid);
    } catch (...) {
        return nullptr;
    }
}

char* find_dist_fname(const char* dir, const char* distid, const char* suffix) {
    if (dir == nullptr || distid == nullptr || suffix == nullptr) {
        return nullptr;
    }
    // An id arrives from the network: a name that would not fit a path name
    // is no name at all (the save then reports -1) rather than an overrun.
    size_t need = std::strlen(dir) + 1 + std::strlen(distid) + 1 + std::strlen(suffix) + 1;
    if (need > pathname_max_length() || std::strlen(distid) >= pathname_max_length()) {
        return nullptr;
    }
    char* name = distid_get_filename(distid);
    if (name == nullptr) {
        return nullptr;
    }
    char* path = nullptr;
    try {
        path = pathname_new();
        std::strcpy(path, dir);
        pathname_append(path, name);
        std::strcat(path, ".");
        std::strcat(path, suffix);
    } catch (...) {
        pathname_delete(path);
        path = nullptr;
    }
    pathname_delete(name);
    return path;
}

char* distid_get_next_filename(void) {
    return nullptr;
}

}  // extern "C"
