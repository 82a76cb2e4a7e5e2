// Fuzz target for the path-name operations: any byte string, as a path, with
// output buffers of exactly the size the call is told. Nothing may read or
// write outside them, and the results must keep their promises (a localised
// path has no backslash left, a prefix ends where the path says).

#include <fanout/palpath.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) return 0;
    const PalUint32 bound = data[0] % 24;  // the first byte picks the buffer size
    char* path = static_cast<char*>(std::malloc(size));
    std::memcpy(path, data + 1, size - 1);
    path[size - 1] = '\0';

    char* out = static_cast<char*>(std::malloc(bound == 0 ? 1 : bound));
    PalPathIsPathAbsolute(path);
    PalPathIsPrefixNative(path);
    PalPathGetPrefix(out, path, bound);
    PalPathGetName(out, path, bound);
    PalPathGetParent(out, path, bound);
    std::free(out);

    // Make-absolute's final append is bounded by the whole buffer, so the
    // caller gives room for working directory, separator and path.
    const size_t room = 4096 + 2 + std::strlen(path);
    char* absolute = static_cast<char*>(std::malloc(room));
    PalPathMakeAbsolute(absolute, path, static_cast<PalUint32>(room));
    std::free(absolute);

    if (PalPathLocalize(path) != nullptr && std::strchr(path, '\\') != nullptr) std::abort();
    std::free(path);
    return 0;
}
