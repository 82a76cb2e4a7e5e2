// entry_file.cpp - the Depot's entry file: building its tagged text from a record,
// parsing a record from it, checking a cached record against its file and
// refreshing it, and reading a whole entry file into a reusable buffer.
//
// The text is the template below with each element's content filled in, in tag
// order, followed by the template's zero byte. Numbers are printed with "%d"
// and read back with strtol rules; the properties are base64. Readers stop at
// the first zero byte, because files are rewritten in place without
// truncation and an older, longer text may follow it.

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "depot/depot_internal.h"
#include "fanout/base64.h"
#include "fanout/palfile.h"
#include "fanout/palmemory.h"
#include "fanout/palpath.h"
#include "fanout/tagdoc.h"

namespace fanout {

namespace {

constexpr char kTemplate[] =
    "<<id></id><version></version><reference_count></reference_count><state></state>"
    "<checksum></checksum><deadline></deadline><location></location>"
    "<properties></properties>>";
constexpr PalInt32 kTemplateBytes = 169;  // 168 characters and the zero byte
static_assert(sizeof(kTemplate) == kTemplateBytes, "entry-file template changed");

// Read only; never through a link, never anything but a regular file (a
// FIFO named like an entry file must not block the reader).
constexpr PalInt32 kReadOnly =
    PAL_OPEN_RDONLY | PAL_OPEN_NOFOLLOW | PAL_OPEN_REGULAR | PAL_OPEN_CLOEXEC;

// Entry files up to this size, zero byte included, are read into a buffer on
// the stack: the template, a key, a path and a modest property list.
constexpr PalInt32 kSmallText = 2048;

// Why the entry file of a cached record could not be read.
constexpr ReadFailureTexts kVerifyFailure = {
    "DepotVerifyEntry_internal error %d opening file %s\n",
    "DepotVerifyEntry_internal error %d retrieving size of file %s\n",
    "DepotVerifyEntry_internal error allocating memory buffer for file read\n",
    "DepotVerifyEntry_internal error %d reading file %s\n",
};

// The text being built: the buffer, the document's last position (one past
// the zero byte, as the tag filler counts it) and the buffer's last byte.
struct TextBuilder {
    PalChar* buffer = nullptr;
    PalChar* docEnd = nullptr;
    PalChar* limit = nullptr;

    // Replaces the content of `tag` with `size` bytes at `content`, growing the
    // buffer once to exactly the size the filler asks for when it is too small.
    PalError Put(const char* tag, const PalChar* content, std::size_t size) noexcept {
        static PalChar empty[2] = {0, 0};
        const PalChar* first = size != 0 ? content : empty + 1;
        const PalChar* last = size != 0 ? content + size - 1 : empty;
        TagRange r = addContentToTag(buffer, docEnd, nullptr, limit, tag, first, last, 1);
        if (r.first != nullptr) {
            docEnd = r.last;
            return Ok();
        }
        if (r.last == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 2);
        std::uintptr_t needed =
            reinterpret_cast<std::uintptr_t>(r.last) - reinterpret_cast<std::uintptr_t>(buffer) + 1;
        if (needed > static_cast<std::uintptr_t>(INT32_MAX))
            return PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 2);
        std::ptrdiff_t endOffset = docEnd - buffer;
        auto* grown =
            static_cast<PalChar*>(PalMemoryRealloc(buffer, static_cast<PalInt32>(needed)));
        if (grown == nullptr) return PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 2);
        buffer = grown;
        docEnd = grown + endOffset;
        limit = grown + needed - 1;
        r = addContentToTag(buffer, docEnd, nullptr, limit, tag, first, last, 1);
        if (r.first == nullptr) return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 1);
        docEnd = r.last;
        return Ok();
    }

    PalError PutNumber(const char* tag, PalInt32 value) noexcept {
        char scratch[16];
        int n = std::snprintf(scratch, sizeof scratch, "%d", static_cast<int>(value));
        return Put(tag, scratch, static_cast<std::size_t>(n));
    }

    PalError PutString(const char* tag, const PalChar* s) noexcept {
        return Put(tag, s, s != nullptr ? std::strlen(s) : 0);
    }
};

// Replaces an owned string with a copy of `content` (nothing to do when they
// are equal, the usual case of a refresh).
void ReplaceString(PalChar** field, const TagContent& content) noexcept {
    if (*field != nullptr && content.Equals(*field)) return;
    if (content.size + 1 > static_cast<std::size_t>(INT32_MAX)) return;
    auto* grown =
        static_cast<PalChar*>(PalMemoryRealloc(*field, static_cast<PalInt32>(content.size + 1)));
    if (grown == nullptr) return;
    std::memcpy(grown, content.data, content.size);
    grown[content.size] = '\0';
    *field = grown;
}

// A new zero-terminated copy of `content`, or null when out of memory.
PalChar* CopyContent(const TagContent& content) noexcept {
    if (content.size + 1 > static_cast<std::size_t>(INT32_MAX)) return nullptr;
    auto* s = static_cast<PalChar*>(PalMemoryCalloc(1, static_cast<PalInt32>(content.size + 1)));
    if (s != nullptr) std::memcpy(s, content.data, content.size);
    return s;
}

// Decodes a non-empty properties content. False when nothing came out.
bool DecodeProperties(const TagContent& content, PalUint8** out, PalUint32* outLen) noexcept {
    *out = nullptr;
    *outLen = 0;
    if (content.size > UINT32_MAX) return false;
    PalError err = Decode(content.data, static_cast<PalUint32>(content.size), out, outLen);
    if (err.palError != PAL_OK || *out == nullptr || *outLen == 0) {
        PalMemoryFree(*out);
        *out = nullptr;
        *outLen = 0;
        return false;
    }
    return true;
}

}  // namespace

bool TagContent::Equals(const PalChar* s) const noexcept {
    if (data == nullptr) return false;
    std::size_t n = s != nullptr ? std::strlen(s) : 0;
    return n == size && (n == 0 || std::memcmp(data, s, n) == 0);
}

TagContent FindTagContent(const PalChar* text, const char* tag) noexcept {
    TagContent content;
    TagRange r = getTagScope(tag, text, nullptr, 0);
    if (r.first == nullptr || r.last == nullptr || r.last + 1 < r.first) return content;
    content.data = r.first;
    content.size = static_cast<std::size_t>(r.last + 1 - r.first);
    return content;
}

namespace {

struct TagName {
    const char* text;
    std::size_t length;
};

constexpr TagName kTagNames[8] = {{"id", 2},       {"version", 7},    {"reference_count", 15},
                                  {"state", 5},    {"checksum", 8},   {"deadline", 8},
                                  {"location", 8}, {"properties", 10}};

constexpr bool NameLengthsHold() {
    for (const TagName& name : kTagNames)
        if (std::char_traits<char>::length(name.text) != name.length) return false;
    return true;
}
static_assert(NameLengthsHold(), "an element name's length is wrong");

}  // namespace

// Why the split gives the scanner's answers: an element is found where its
// name follows a '<' and is followed by '>' (or a blank or '/'), and closed
// where "</" precedes the name and '>' follows it. With no '<' inside any
// content, the only '<' characters are the template's own, so the first
// place either pattern occurs for a name is the template's tag of that name
// (no name in the template is another's prefix followed by one of those
// characters). An occurrence inside a content that the scanner rejects moves
// its cursor at most to the end of that occurrence, which cannot pass the
// '<' of the real tag, as no name holds a '<'. The final '>' keeps every
// closing tag off the region's last character.
EntryText::EntryText(const PalChar* text) noexcept : text_(text) {
    if (text == nullptr) return;
    const PalChar* end = text + std::strlen(text);  // the region ends at the first zero byte
    // True when the n characters at `at` lie before the end and equal `s`.
    auto matches = [end](const PalChar* at, const char* s, std::size_t n) noexcept {
        return static_cast<std::size_t>(end - at) >= n && std::memcmp(at, s, n) == 0;
    };
    if (!matches(text, "<", 1)) return;
    const PalChar* p = text + 1;
    TagContent parts[8];
    for (int i = 0; i < 8; ++i) {
        const TagName& name = kTagNames[i];
        // "<name>"
        if (!matches(p, "<", 1) || !matches(p + 1, name.text, name.length) ||
            !matches(p + name.length + 1, ">", 1))
            return;
        p += name.length + 2;
        const auto* lt =
            static_cast<const PalChar*>(std::memchr(p, '<', static_cast<std::size_t>(end - p)));
        if (lt == nullptr) return;
        parts[i].data = p;
        parts[i].size = static_cast<std::size_t>(lt - p);
        // "</name>"
        if (!matches(lt + 1, "/", 1) || !matches(lt + 2, name.text, name.length) ||
            !matches(lt + name.length + 2, ">", 1))
            return;
        p = lt + name.length + 3;
    }
    if (end - p != 1 || *p != '>') return;
    for (int i = 0; i < 8; ++i) parts_[i] = parts[i];
    split_ = true;
}

TagContent EntryText::Get(EntryTag tag) const noexcept {
    auto i = static_cast<int>(tag);
    if (split_) return parts_[i];
    return FindTagContent(text_, kTagNames[i].text);
}

PalInt32 ParseTagNumber(const TagContent& content) noexcept {
    // What the Depot writes ("%d": digits after an optional '-', at most nine
    // of them here) is converted directly; it gives what strtol gives. Every
    // other content, blanks, signs, long or saturating numbers included, goes
    // through strtol below.
    if (content.data != nullptr && content.size != 0 && content.size <= 10) {
        const PalChar* p = content.data;
        const PalChar* end = p + content.size;
        bool negative = *p == '-';
        if (negative) ++p;
        if (p != end && end - p <= 9) {
            PalInt32 value = 0;
            for (; p != end && *p >= '0' && *p <= '9'; ++p) value = value * 10 + (*p - '0');
            if (p == end) return negative ? -value : value;
        }
    }
    // Longer contents than any 32-bit number are cut to the scratch text.
    char scratch[32] = {};
    std::size_t n = content.size < sizeof scratch - 1 ? content.size : sizeof scratch - 1;
    if (content.data != nullptr) std::memcpy(scratch, content.data, n);
    long value = std::strtol(scratch, nullptr, 10);
    // Saturate as a 32-bit strtol does, so that files read the same everywhere.
    if (value > INT32_MAX) return INT32_MAX;
    if (value < INT32_MIN) return INT32_MIN;
    return static_cast<PalInt32>(value);
}

namespace {

// Reads the whole file at `path`. The text goes into `fixed` (fixedBytes bytes,
// may be null) when size + 1 bytes fit there, otherwise into *buffer, grown as
// ReadWholeFile describes; *text points at whichever was used.
ReadResult ReadWholeFileInto(const PalChar* path, PalChar* fixed, PalInt32 fixedBytes,
                             PalChar** buffer, PalInt32* capacity, PalChar** text) noexcept {
    ReadResult result;
    PalFileHandle file{};
    result.error = PalFileOpen(&file, path, kReadOnly);
    if (result.error.palError != PAL_OK) {
        CloseQuietly(&file);
        result.failure = ReadFailure::kOpen;
        return result;
    }
    PalInt64 size = 0;
    result.error = PalFileGetSize(file, &size);
    if (result.error.palError != PAL_OK) {
        CloseQuietly(&file);
        result.failure = ReadFailure::kSize;
        return result;
    }
    if (size < 0 || size >= INT32_MAX - 1) {
        CloseQuietly(&file);
        result.failure = ReadFailure::kAlloc;
        return result;
    }
    auto need = static_cast<PalInt32>(size + 1);
    PalChar* into = fixed;
    if (fixed == nullptr || need > fixedBytes) {
        if (*buffer == nullptr || *capacity < need) {
            auto* grown = static_cast<PalChar*>(PalMemoryRealloc(*buffer, need));
            if (grown == nullptr) {
                CloseQuietly(&file);
                result.failure = ReadFailure::kAlloc;
                return result;
            }
            *buffer = grown;
            *capacity = need;
        }
        into = *buffer;
    }
    auto total = static_cast<PalUint32>(0);
    auto wanted = static_cast<PalUint32>(size);
    while (total < wanted) {
        PalUint32 count = 0;
        result.error = PalFileRead(file, into + total, wanted - total, &count);
        if (result.error.palError != PAL_OK) {
            CloseQuietly(&file);
            result.failure = ReadFailure::kRead;
            return result;
        }
        if (count == 0) break;  // the file shrank meanwhile
        total += count;
    }
    into[total] = '\0';
    CloseQuietly(&file);
    result.error = Ok();
    result.length = total;
    *text = into;
    return result;
}

// Refreshes `entry` from the elements of an entry-file text.
void ReloadFromText(DepotEntry* entry, const EntryText& text) noexcept {
    Logger(3, "DepotEntryReloadFromToc_internal entry\n");
    TagContent c = text.Get(EntryTag::kId);
    if (c.present()) ReplaceString(&entry->id, c);
    if ((c = text.Get(EntryTag::kVersion)).present()) ReplaceString(&entry->version, c);
    // The location is fixed when the entry is added and was checked when the
    // record was built: a file that names another one now is not followed
    // (SyncSharedCounters treats it as holding something else).
    if (entry->location == nullptr && (c = text.Get(EntryTag::kLocation)).present())
        ReplaceString(&entry->location, c);
    if ((c = text.Get(EntryTag::kReferenceCount)).present())
        entry->referenceCount = ParseTagNumber(c);
    if ((c = text.Get(EntryTag::kState)).present()) entry->state = ParseTagNumber(c);
    if ((c = text.Get(EntryTag::kChecksum)).present()) entry->checksum = ParseTagNumber(c);
    if ((c = text.Get(EntryTag::kDeadline)).present()) entry->deadline = ParseTagNumber(c);
    if ((c = text.Get(EntryTag::kProperties)).present()) {
        if (c.size == 0) {
            PalMemoryFree(entry->properties);
            entry->properties = nullptr;
            entry->propertiesLength = 0;
        } else {
            PalUint8* decoded = nullptr;
            PalUint32 decodedLength = 0;
            if (DecodeProperties(c, &decoded, &decodedLength)) {
                PalMemoryFree(entry->properties);
                entry->properties = decoded;
                entry->propertiesLength = decodedLength;
            }
        }
    }
    Logger(3, "DepotEntryReloadFromToc_internal exit\n");
}

}  // namespace

void LogReadFailure(const ReadResult& r, const PalChar* path,
                    const ReadFailureTexts& texts) noexcept {
    switch (r.failure) {
        case ReadFailure::kOpen:
            Logger(1, texts.open, r.error.palError, path);
            break;
        case ReadFailure::kSize:
            Logger(1, texts.size, r.error.palError, path);
            break;
        case ReadFailure::kAlloc:
            Logger(1, texts.alloc, path);  // a text without %s reads no argument
            break;
        case ReadFailure::kRead:
            Logger(1, texts.read, r.error.palError, path);
            break;
        case ReadFailure::kNone:
            break;
    }
}

ReadResult ReadWholeFile(const PalChar* path, PalChar** buffer, PalInt32* capacity) noexcept {
    PalChar* text = nullptr;
    return ReadWholeFileInto(path, nullptr, 0, buffer, capacity, &text);
}

void ReloadEntryFromText(DepotEntry* entry, const PalChar* text) noexcept {
    ReloadFromText(entry, EntryText(text));
}

bool VerifyEntry(DepotEntry* entry) noexcept {
    Logger(3, "DepotVerifyEntry_internal entry\n");
    // Read without the entry lock: this is the hot path of repeated lookups.
    // The id and version are the same bytes in every rewrite, so the check
    // itself cannot be fooled by a rewrite in progress; what the refresh may
    // take from a half-rewritten file (counters, location, properties) is
    // re-read under the lock before anything is written back.
    // An entry file of usual size is read into the stack; only a larger one
    // costs an allocation.
    PalChar small[kSmallText];
    PalChar* heap = nullptr;
    PalInt32 capacity = 0;
    PalChar* text = nullptr;
    ReadResult r =
        ReadWholeFileInto(entry->entryFilePath, small, kSmallText, &heap, &capacity, &text);
    if (r.failure != ReadFailure::kNone) {
        LogReadFailure(r, OrNull(entry->entryFilePath), kVerifyFailure);
        PalMemoryFree(heap);
        return false;
    }
    // The text is split once and serves both the check and the refresh.
    EntryText elements(text);
    bool match = elements.Get(EntryTag::kId).Equals(entry->id) &&
                 elements.Get(EntryTag::kVersion).Equals(entry->version);
    ReloadFromText(entry, elements);
    PalMemoryFree(heap);
    Logger(3, "DepotVerifyEntry_internal exit\n");
    return match;
}

PalError SyncSharedCounters(DepotEntry* entry) noexcept {
    PalChar small[kSmallText];
    PalChar* heap = nullptr;
    PalInt32 capacity = 0;
    PalChar* text = nullptr;
    ReadResult r =
        ReadWholeFileInto(entry->entryFilePath, small, kSmallText, &heap, &capacity, &text);
    PalError status = Ok();
    if (r.failure == ReadFailure::kOpen && r.error.nativeError == ENOENT) {
        status = PalErrorCreate(PAL_ERR_NO_ENTRY, ENOENT, 1);  // deleted meanwhile
    } else if (r.failure == ReadFailure::kNone) {
        EntryText elements(text);
        if (!elements.Get(EntryTag::kId).Equals(entry->id) ||
            !elements.Get(EntryTag::kVersion).Equals(entry->version)) {
            status = PalErrorCreate(PAL_ERR_NO_ENTRY, 0, 2);  // the path now holds another key
        } else {
            TagContent c = elements.Get(EntryTag::kReferenceCount);
            if (c.present()) entry->referenceCount = ParseTagNumber(c);
            if ((c = elements.Get(EntryTag::kDeadline)).present())
                entry->deadline = ParseTagNumber(c);
            // The location never changes after the entry is added: a file
            // that names another one is not this entry's any more, and what
            // it names is never touched.
            if ((c = elements.Get(EntryTag::kLocation)).present() && !c.Equals(entry->location))
                status = PalErrorCreate(PAL_ERR_NO_ENTRY, 0, 3);
            // Likewise the properties, which never change after the addition.
            PalUint8* decoded = nullptr;
            PalUint32 decodedLength = 0;
            if (status.palError == PAL_OK && (c = elements.Get(EntryTag::kProperties)).present() &&
                c.size != 0 && DecodeProperties(c, &decoded, &decodedLength)) {
                PalMemoryFree(entry->properties);
                entry->properties = decoded;
                entry->propertiesLength = decodedLength;
            }
        }
    }
    // Any other read failure leaves the record as it is; the write that
    // follows reports its own error if the file is really unusable.
    PalMemoryFree(heap);
    return status;
}

void FreeRecordFields(DepotEntry* entry) noexcept {
    if (entry == nullptr) return;
    CloseQuietly(&entry->writerLock);  // gives up the writer lock, if held
    PalMemoryFree(entry->id);
    PalMemoryFree(entry->version);
    PalMemoryFree(entry->entryFilePath);
    PalMemoryFree(entry->location);
    PalMemoryFree(entry->properties);
    PalMemoryFree(entry);
}

PalChar* BuildEntryPath(const PalChar* dir, const PalChar* bucket, PalInt32 n,
                        const char* suffix) noexcept {
    std::size_t size =
        std::strlen(OrNull(dir)) + std::strlen(OrNull(bucket)) + std::strlen(suffix) + 16;
    if (size > static_cast<std::size_t>(INT32_MAX)) return nullptr;
    auto* path = static_cast<PalChar*>(PalMemoryMalloc(static_cast<PalInt32>(size)));
    if (path == nullptr) return nullptr;
    std::snprintf(path, size, "%s/%s.%d.%s", OrNull(dir), OrNull(bucket), static_cast<int>(n),
                  suffix);
    (void)PalPathLocalize(path);  // a foreign path stays as it is and fails when opened
    return path;
}

PalChar* BuildDirPath(const PalChar* dir, const PalChar* name) noexcept {
    std::size_t size = std::strlen(OrNull(dir)) + std::strlen(OrNull(name)) + 2;
    if (size > static_cast<std::size_t>(INT32_MAX)) return nullptr;
    auto* path = static_cast<PalChar*>(PalMemoryMalloc(static_cast<PalInt32>(size)));
    if (path == nullptr) return nullptr;
    std::snprintf(path, size, "%s/%s", OrNull(dir), OrNull(name));
    (void)PalPathLocalize(path);
    return path;
}

bool HoldsTagText(const PalChar* s) noexcept {
    return s != nullptr && std::strpbrk(s, "<>") != nullptr;
}

bool LocationIsOwn(const DepotHandle* handle, const PalChar* location,
                   const PalChar* entryFilePath) noexcept {
    if (handle == nullptr || handle->directory == nullptr || location == nullptr) return false;
    const PalChar* slash = std::strrchr(location, '/');
    if (slash == nullptr) return false;
    const PalChar* name = slash + 1;
    std::size_t nameLength = std::strlen(name);
    if (nameLength <= 3 || std::strcmp(name + nameLength - 3, "dat") != 0) return false;
    if (entryFilePath != nullptr) {
        // "<stem>dat" beside "<stem>xml": the entry's own data file.
        const PalChar* entrySlash = std::strrchr(entryFilePath, '/');
        const PalChar* entryName = entrySlash != nullptr ? entrySlash + 1 : entryFilePath;
        std::size_t entryLength = std::strlen(entryName);
        if (entryLength != nameLength || std::memcmp(entryName, name, nameLength - 3) != 0)
            return false;
    }
    // The directory part must be the depot directory: the same text (the
    // usual case), or another spelling of the same directory.
    std::size_t dirLength = static_cast<std::size_t>(slash - location);
    const PalChar* dir = handle->directory;
    std::size_t ownLength = std::strlen(dir);
    while (ownLength > 1 && dir[ownLength - 1] == '/') --ownLength;
    if (dirLength == ownLength && std::memcmp(location, dir, dirLength) == 0) return true;
    if (dirLength == 0 || dirLength >= PAL_PATH_MAX) return false;
    PalChar parent[PAL_PATH_MAX];
    std::memcpy(parent, location, dirLength);
    parent[dirLength] = '\0';
    return PalFileIsSame(parent, dir) != PAL_FALSE;
}

bool WriterAlive(const DepotEntry* entry) noexcept {
    if (entry == nullptr) return false;
    if (entry->writerLock.handle != nullptr) return true;  // this record is the writer
    if (entry->entryFilePath == nullptr) return false;
    PalFileHandle file{};
    PalError err = PalFileOpen(&file, entry->entryFilePath, kReadOnly);
    bool alive = false;
    if (err.palError == PAL_OK) {
        // A shared lock for a moment: refused only while a writer holds its
        // exclusive one.
        err = PalFileLock(file, PAL_FALSE, PAL_FALSE);
        alive = err.palError != PAL_OK && err.nativeError == EWOULDBLOCK;
    }
    CloseQuietly(&file);
    return alive;
}

PalError WriteWhole(PalFileHandle file, const PalChar* text, PalUint32 length) noexcept {
    PalUint32 done = 0;
    while (done < length) {
        PalUint32 count = 0;
        PalError err = PalFileWrite(file, text + done, length - done, &count);
        if (err.palError != PAL_OK) return err;
        if (count == 0) return PalErrorCreate(PAL_ERR_SYSTEM, 0, 0);
        done += count;
    }
    return Ok();
}

bool HasEntrySuffix(const PalChar* name) noexcept {
    std::size_t n = std::strlen(name);
    return n > 3 && std::memcmp(name + n - 3, "xml", 3) == 0;
}

void CloseQuietly(PalFileHandle* file) noexcept {
    if (file->handle != nullptr) (void)PalFileClose(*file);
    file->handle = nullptr;
}

}  // namespace fanout

using namespace fanout;

extern "C" {

DepotEntry* DepotEntryNew(void) noexcept {
    Logger(3, "DepotEntryNew entry\n");
    auto* entry = static_cast<DepotEntry*>(PalMemoryCalloc(1, sizeof(DepotEntry)));
    RecordFailure(entry != nullptr ? Ok() : PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 0));
    Logger(3, "DepotEntryNew exit\n");
    return entry;
}

PalError DepotEntrySetProperties(DepotHandle* /*handle*/, DepotEntry* entry, PalChar** text,
                                 PalUint32* length) noexcept {
    Logger(3, "DepotEntrySetProperties entry\n");
    if (entry == nullptr || text == nullptr || length == nullptr)
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0);
    // No escaping exists: a field holding tag text would make a file that
    // does not parse back, or parses as another entry.
    if (HoldsTagText(entry->id) || HoldsTagText(entry->version) || HoldsTagText(entry->location))
        return PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 3);
    std::uint64_t size = std::uint64_t{PalStringLen(entry->id)} + PalStringLen(entry->version) +
                         PalStringLen(entry->location) + entry->propertiesLength + 200;
    TextBuilder b;
    if (size <= static_cast<std::uint64_t>(INT32_MAX))
        b.buffer = static_cast<PalChar*>(PalMemoryCalloc(1, static_cast<PalInt32>(size)));
    if (b.buffer == nullptr) return PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 1);
    std::memcpy(b.buffer, kTemplate, kTemplateBytes);
    b.docEnd = b.buffer + kTemplateBytes;
    b.limit = b.buffer + size - 1;

    PalChar* encoded = nullptr;
    PalUint32 encodedLength = 0;
    Encode(entry->properties, entry->properties != nullptr ? entry->propertiesLength : 0, &encoded,
           &encodedLength);
    if (encoded == nullptr) {
        PalMemoryFree(b.buffer);
        return PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 1);
    }
    PalError err = b.PutString("id", entry->id);
    if (err.palError == PAL_OK) err = b.PutString("version", entry->version);
    if (err.palError == PAL_OK) err = b.PutNumber("reference_count", entry->referenceCount);
    if (err.palError == PAL_OK) err = b.PutNumber("state", entry->state);
    if (err.palError == PAL_OK) err = b.PutNumber("checksum", entry->checksum);
    if (err.palError == PAL_OK) err = b.PutNumber("deadline", entry->deadline);
    if (err.palError == PAL_OK) err = b.PutString("location", entry->location);
    if (err.palError == PAL_OK) err = b.Put("properties", encoded, encodedLength);
    PalMemoryFree(encoded);
    if (err.palError != PAL_OK) {
        PalMemoryFree(b.buffer);
        return err;
    }
    *text = b.buffer;
    *length = static_cast<PalUint32>(b.docEnd - b.buffer);
    Logger(3, "DepotEntrySetProperties exit\n");
    return Ok();
}

DepotEntry* DepotEntryNewFromToc(DepotHandle* handle, const PalChar* text) noexcept {
    return ParseEntryText(handle, text, false);
}

}  // extern "C"

namespace fanout {

DepotEntry* ParseEntryText(DepotHandle* handle, const PalChar* text, bool entryLockHeld) noexcept {
    Logger(3, "DepotEntryNewFromToc entry\n");
    if (handle == nullptr || text == nullptr) {
        RecordFailure(PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 0));
        return nullptr;
    }
    DepotEntry* entry = DepotEntryNew();
    if (entry == nullptr) return nullptr;  // recorded by DepotEntryNew

    static constexpr EntryTag kTags[] = {
        EntryTag::kId,    EntryTag::kVersion,  EntryTag::kLocation, EntryTag::kReferenceCount,
        EntryTag::kState, EntryTag::kChecksum, EntryTag::kDeadline, EntryTag::kProperties};
    EntryText elements(text);
    TagContent c[8];
    bool ok = true;
    // Why a parse fails: an element missing (step 1), properties that do not
    // decode (step 2), or memory.
    PalError why = PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 1);
    for (int i = 0; i < 8 && ok; ++i) ok = (c[i] = elements.Get(kTags[i])).present();
    if (ok) {
        why = PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 0);
        ok = (entry->id = CopyContent(c[0])) != nullptr;
    }
    if (ok) ok = (entry->version = CopyContent(c[1])) != nullptr;
    if (ok) ok = (entry->location = CopyContent(c[2])) != nullptr;
    if (ok) {
        entry->referenceCount = ParseTagNumber(c[3]);
        entry->state = ParseTagNumber(c[4]);
        entry->checksum = ParseTagNumber(c[5]);
        entry->deadline = ParseTagNumber(c[6]);
        if (c[7].size != 0) {
            ok = DecodeProperties(c[7], &entry->properties, &entry->propertiesLength);
            if (!ok) why = PalErrorCreate(PAL_ERR_INVALID_ARGUMENT, 0, 2);
        }
    }
    if (ok) {
        ok = PalList1Add(handle->entries, entry) >= 0;
        why = PalErrorCreate(PAL_ERR_NO_MEMORY, 0, 0);
    }
    RecordFailure(ok ? Ok() : why);
    if (!ok) {
        // Not in any list yet, so nobody else can reach it: when the entry lock
        // cannot be had it is freed without it rather than leaked.
        if (entryLockHeld || FreeRecordLocked(handle, entry, false).palError != PAL_OK)
            FreeRecordFields(entry);
        return nullptr;
    }
    Logger(3, "DepotEntryNewFromToc exit\n");
    return entry;
}

}  // namespace fanout
