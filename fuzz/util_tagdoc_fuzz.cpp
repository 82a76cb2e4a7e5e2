// Runs the tagged-text scanner over arbitrary documents, tags, limits and
// buffer ends. The document is copied into a buffer of exactly its size (no
// terminating NUL when a limit is given) so that any read past the region
// is caught by the address sanitizer.
#include <cstdint>
#include <cstring>
#include <vector>

#include "fanout/tagdoc.h"

namespace {
const char* const kTags[] = {"id", "version", "state", "properties", "!DOCTYPE", "a", "x/"};
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const char* tag = kTags[data[0] % (sizeof kTags / sizeof kTags[0])];
    const size_t limitPick = data[1];
    const int replace = data[2] & 1;
    data += 3;
    size -= 3;
    if (size == 0) return 0;

    // With a limit: a buffer holding only the document, the limit inside it.
    std::vector<char> bounded(data, data + size);
    char* limit = bounded.data() + (limitPick % size);
    getTagRanges(tag, bounded.data(), limit);
    getTagScope(tag, bounded.data(), limit, 0);
    getTagScope(tag, bounded.data(), limit, 1);
    getDocType(bounded.data(), limit, 0);
    getDocType(bounded.data(), limit, 1);

    // Without a limit: NUL-terminated, with room to grow for addContentToTag.
    std::vector<char> doc(data, data + size);
    doc.push_back('\0');
    getTagScope(tag, doc.data(), nullptr, 0);
    const size_t docLen = std::strlen(doc.data());
    if (docLen == 0) return 0;
    std::vector<char> buffer(docLen + 1 + limitPick);
    std::memcpy(buffer.data(), doc.data(), docLen + 1);
    const char content[] = "content";
    TagRange r = addContentToTag(buffer.data(), buffer.data() + docLen - 1, nullptr,
                                 buffer.data() + buffer.size() - 1, tag, content,
                                 content + sizeof content - 2, replace);
    if (r.first != nullptr && r.last < buffer.data() + buffer.size() - 1) r.last[1] = '\0';
    return 0;
}
