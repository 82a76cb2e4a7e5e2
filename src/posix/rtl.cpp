// rtl.cpp - loading shared libraries at run time through the host loader.
//
// Short names are turned into "lib<name>.so"; names with a '.' or a '/' are
// file names or paths and go to the loader unchanged. Loads bind immediately
// and make the library's symbols visible to later loads. Only "pthread" has a
// second try, with the versioned file name that every glibc system has, since
// the unversioned one is only present where development files are installed
// (and on recent systems not at all).

#include "fanout/palrtl.h"

#include <dlfcn.h>

#include <cstdio>
#include <cstring>

namespace fanout {
namespace {

// Size of the file-name buffer; longer names are cut to one less.
constexpr std::size_t kNameBuffer = 512;

constexpr int kLoadFlags = RTLD_NOW | RTLD_GLOBAL;

}  // namespace
}  // namespace fanout

extern "C" FANOUT_EXPORT PalRtlHandle PalRtlLoad(const PalChar* name) noexcept {
    if (name == nullptr) {
        return nullptr;
    }
    char fileName[fanout::kNameBuffer];
    if (std::strchr(name, '.') != nullptr || std::strchr(name, '/') != nullptr) {
        std::snprintf(fileName, sizeof fileName, "%s", name);
    } else {
        // A short name too long for the buffer is cut like a file name; the
        // result names no library and the load fails with the loader's text.
        std::snprintf(fileName, sizeof fileName, "lib%s.so", name);
    }
    void* library = dlopen(fileName, fanout::kLoadFlags);
    if (library == nullptr && std::strcmp(name, "pthread") == 0) {
        library = dlopen("libpthread.so.0", fanout::kLoadFlags);
    }
    return library;
}

extern "C" FANOUT_EXPORT void* PalRtlResolve(PalRtlHandle handle, const PalChar* symbol) noexcept {
    if (symbol == nullptr) {
        return nullptr;
    }
    return dlsym(handle, symbol);
}

extern "C" FANOUT_EXPORT void PalRtlUnload(PalRtlHandle handle) noexcept {
    if (handle != nullptr) {
        (void)dlclose(handle);
    }
}

extern "C" FANOUT_EXPORT const PalChar* PalRtlError(void) noexcept {
    const char* text = dlerror();
    return text == nullptr ? "(No Error)" : text;
}
