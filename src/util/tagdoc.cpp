// tagdoc.cpp - finds and fills elements of the Depot's tagged text files.
//
// The scanner works on a character buffer with inclusive ranges and never
// allocates. Its rules are the ones the entry files were always read with,
// odd corners included: a closing tag whose '>' is the last character of the
// searched region is not found (entry files end with a newline), the search
// for a closing tag steps on by the tag's length from where it stood rather
// than from the occurrence it rejected, and inserted content goes in front
// of the old content.
//
// Positions are handled as offsets from the start of the document so that no
// pointer is formed outside the buffer; the region is never read past its
// end, whether that end is a NUL or the caller's limit.

#include "fanout/tagdoc.h"

#include <cstdint>
#include <cstring>

namespace fanout {
namespace {

using Off = std::ptrdiff_t;

constexpr TagRanges kNoRanges = {nullptr, nullptr, nullptr, nullptr, nullptr, nullptr};
constexpr TagRange kNoRange = {nullptr, nullptr};

// The offset of the region's last character: the character before the NUL,
// or the limit when that comes first. -1 for an empty region.
Off RegionEnd(const char* doc, const char* limit) {
    if (limit == nullptr) return static_cast<Off>(std::strlen(doc)) - 1;
    const Off span = limit - doc + 1;
    if (span <= 0) return -1;
    return static_cast<Off>(strnlen(doc, static_cast<size_t>(span))) - 1;
}

// The first occurrence of tag[0..n) starting at or after `from` that lies
// wholly inside the region [0, end]; -1 when there is none.
Off Find(const char* doc, Off end, const char* tag, Off n, Off from) {
    if (from > end || end - from + 1 < n) return -1;
    const void* hit =
        memmem(doc + from, static_cast<size_t>(end - from + 1), tag, static_cast<size_t>(n));
    return hit == nullptr ? -1 : static_cast<const char*>(hit) - doc;
}

bool EndsName(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '/' || c == '>';
}

char* At(const char* doc, Off off) {
    return const_cast<char*>(doc) + off;
}

struct Scan {
    Off openStart = -1, openEnd = -1, closeStart = -1, closeEnd = -1;
    Off end = -1;
    bool selfClosing = false;
};

// Locates the opening tag, then the closing tag, as the file format defines.
Scan ScanTag(const char* tag, const char* doc, const char* limit) {
    Scan s;
    const Off n = static_cast<Off>(std::strlen(tag));
    s.end = RegionEnd(doc, limit);
    // An empty name would match everywhere without advancing; it names no
    // element.
    if (n == 0 || s.end <= 0) return s;

    for (Off cursor = 0; cursor < s.end;) {
        const Off p = Find(doc, s.end, tag, n, cursor);
        if (p < 0 || p + n > s.end) return s;
        if (p >= cursor + 1 && doc[p - 1] == '<' && EndsName(doc[p + n])) {
            const Off gt = Find(doc, s.end, ">", 1, p + n);
            if (gt >= 0 &&
                std::memchr(doc + p + n, '<', static_cast<size_t>(gt - (p + n))) == nullptr) {
                s.openStart = p - 1;
                s.openEnd = gt;
                break;
            }
        }
        cursor = p + n;
    }
    if (s.openStart < 0) return s;

    if (doc[s.openEnd - 1] == '/') {
        s.selfClosing = true;
        s.closeStart = s.openStart;
        s.closeEnd = s.openEnd;
        return s;
    }

    for (Off cursor = s.openEnd + 1; cursor < s.end;) {
        const Off m = Find(doc, s.end, tag, n, cursor);
        if (m < 0 || m + n >= s.end) break;
        if (m >= cursor + 2 && doc[m - 2] == '<' && doc[m - 1] == '/' && doc[m + n] == '>') {
            s.closeStart = m - 2;
            s.closeEnd = m + n;
            break;
        }
        // The cursor moves on by the tag's length from where it stood; the
        // same rejected occurrence is found again until the cursor passes
        // it, so jump straight to that point.
        cursor += n * ((m - cursor) / n + 1);
    }
    return s;
}

}  // namespace
}  // namespace fanout

using namespace fanout;

extern "C" {

FANOUT_EXPORT TagRanges getTagRanges(const PalChar* tag, const PalChar* doc, const PalChar* limit) {
    if (doc == nullptr || tag == nullptr) return kNoRanges;
    const Scan s = ScanTag(tag, doc, limit);
    if (s.openStart < 0) return kNoRanges;
    if (s.selfClosing) {
        return {At(doc, s.openStart), At(doc, s.openEnd), nullptr, nullptr,
                At(doc, s.openStart), At(doc, s.openEnd)};
    }
    TagRanges r = kNoRanges;
    r.openStart = At(doc, s.openStart);
    r.openEnd = At(doc, s.openEnd);
    r.contentStart = At(doc, s.openEnd + 1);
    if (s.closeStart >= 0) {
        r.contentEnd = At(doc, s.closeStart - 1);
        r.closeStart = At(doc, s.closeStart);
        r.closeEnd = At(doc, s.closeEnd);
    } else {
        r.contentEnd = At(doc, s.end);
    }
    return r;
}

FANOUT_EXPORT TagRange getTagScope(const PalChar* tag, const PalChar* doc, const PalChar* limit,
                                   PalInt32 whole) {
    const TagRanges r = getTagRanges(tag, doc, limit);
    if (r.openStart == nullptr) return kNoRange;
    if (whole != 0) return {r.openStart, r.closeEnd};
    return {r.contentStart, r.contentEnd};
}

FANOUT_EXPORT TagRange getDocType(const PalChar* doc, const PalChar* limit, PalInt32 whole) {
    if (doc == nullptr) return kNoRange;
    const TagRanges r = getTagRanges("!DOCTYPE", doc, limit);
    if (r.openStart == nullptr) return kNoRange;
    if (whole != 0) return {r.openStart, r.openEnd};
    const Off end = RegionEnd(doc, limit);
    // The name starts after the '<', the eight characters of the keyword and
    // one separator; further blanks are skipped.
    Off first = (r.openStart - doc) + 10;
    if (first > end) return kNoRange;
    while (first < end && (doc[first] == ' ' || doc[first] == '\t' || doc[first] == '\n')) ++first;
    Off last = first;
    while (last <= end && !EndsName(doc[last])) ++last;
    return {At(doc, first), At(doc, last - 1)};
}

FANOUT_EXPORT TagRange addContentToTag(PalChar* doc, PalChar* docEnd, void* unused,
                                       PalChar* bufferEnd, const PalChar* tag,
                                       const PalChar* newFirst, const PalChar* newLast,
                                       PalInt32 replace) {
    (void)unused;
    if (doc == nullptr || docEnd == nullptr || bufferEnd == nullptr || tag == nullptr ||
        newFirst == nullptr || newLast == nullptr || docEnd < doc || newLast < newFirst - 1) {
        return kNoRange;
    }
    const TagRanges r = getTagRanges(tag, doc, docEnd);
    // A self-closing element has no content range to fill.
    if (r.openStart == nullptr || r.closeEnd == nullptr || r.contentStart == nullptr) {
        return kNoRange;
    }
    const Off newLen = newLast - newFirst + 1;
    const Off oldLen = r.contentEnd - r.contentStart + 1;
    const Off tailLen = docEnd - r.closeStart + 1;
    const Off docLast = docEnd - doc;
    const Off newLastOff = replace != 0 ? docLast - oldLen + newLen : docLast + newLen;
    const auto needed = reinterpret_cast<PalChar*>(reinterpret_cast<std::uintptr_t>(doc) +
                                                   static_cast<std::uintptr_t>(newLastOff));
    if (newLastOff > bufferEnd - doc) return {nullptr, needed};
    if (replace != 0) {
        std::memmove(r.contentStart + newLen, r.closeStart, static_cast<size_t>(tailLen));
    } else {
        std::memmove(r.contentStart + newLen, r.contentStart,
                     static_cast<size_t>(oldLen + tailLen));
    }
    std::memmove(r.contentStart, newFirst, static_cast<size_t>(newLen));
    return {doc, needed};
}

}  // extern "C"
