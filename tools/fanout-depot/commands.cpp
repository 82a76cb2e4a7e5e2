// commands.cpp - the commands of fanout-depot.
//
// Every command that changes the depot leaves it whole when it fails: an
// add that cannot copy its file removes the entry it made and gives its
// reservation back, and an image is written under temporary names and
// renamed into place only once complete.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "fanout/depot.h"
#include "fanout/keys.h"
#include "fanout/palfile.h"
#include "fanout/palmemory.h"
#include "fanout/properties.h"
#include "fanout/runtime.h"
#include "fanout/types.h"
#include "tool.h"

namespace fanout::tool {

namespace {

// Open flags of the portability layer.
constexpr PalInt32 kReadOnly = 0x1;
constexpr PalInt32 kWriteExisting = PAL_OPEN_WRONLY | PAL_OPEN_NOFOLLOW | PAL_OPEN_REGULAR;
constexpr size_t kCopyBlock = 1u << 20;

void Print(const std::string& text) { std::fputs(text.c_str(), stdout); }

const char* StateWord(int32_t state) {
    switch (state) {
        case 0: return "temporary";
        case 1: return "permanent";
        case 2: return "in use";
        default: return "unknown";
    }
}

// An open file of the portability layer, closed on the way out.
struct PalFile {
    PalFileHandle f{nullptr};
    ~PalFile() {
        if (f.handle != nullptr) PalFileClose(f);
    }
};

// Copies every byte of `in` to `out`; false on a read or write failure.
bool CopyAll(PalFileHandle in, PalFileHandle out, std::string* why) {
    std::vector<char> block(kCopyBlock);
    for (;;) {
        PalUint32 got = 0;
        PalError e = PalFileRead(in, block.data(), kCopyBlock, &got);
        if (e.palError != PAL_OK) {
            *why = std::string("read failed: ") + std::strerror(e.nativeError);
            return false;
        }
        if (got == 0) return true;
        for (PalUint32 done = 0; done < got;) {
            PalUint32 put = 0;
            e = PalFileWrite(out, block.data() + done, got - done, &put);
            if (e.palError != PAL_OK || put == 0) {
                *why = std::string("write failed: ") +
                       std::strerror(e.palError != PAL_OK ? e.nativeError : ENOSPC);
                return false;
            }
            done += put;
        }
    }
}

// Writes all `size` bytes; false (with *why) on a failure.
bool WriteAll(PalFileHandle out, const uint8_t* data, size_t size, std::string* why) {
    for (size_t done = 0; done < size;) {
        PalUint32 put = 0;
        const size_t chunk = std::min<size_t>(size - done, kCopyBlock);
        const PalError e = PalFileWrite(out, data + done, static_cast<PalUint32>(chunk), &put);
        if (e.palError != PAL_OK || put == 0) {
            *why = std::string("write failed: ") +
                   std::strerror(e.palError != PAL_OK ? e.nativeError : ENOSPC);
            return false;
        }
        done += put;
    }
    return true;
}

// Creates "<target>.XXXXXX.part" with an unpredictable name, exclusively,
// and opens it for writing without following links. False (with *why) when
// it cannot be made.
bool NewPartFile(const std::string& target, std::string* part, PalFileHandle* out,
                 std::string* why) {
    std::string name = target + ".XXXXXX.part";
    const int fd = ::mkstemps(name.data(), 5);
    if (fd < 0) {
        *why = "cannot create a temporary file beside " + target + ": " + std::strerror(errno);
        return false;
    }
    ::close(fd);
    *part = name;
    if (PalFileOpen(out, name.c_str(), kWriteExisting).palError != PAL_OK) {
        *why = "cannot open " + name;
        return false;
    }
    return true;
}

// A deadline: seconds since the epoch, or local "YYYY/MM/DD[ HH:MM:SS]".
int32_t ParseDeadline(const std::string& text) {
    char* end = nullptr;
    const long long seconds = std::strtoll(text.c_str(), &end, 10);
    if (!text.empty() && *end == '\0' && seconds >= 0 && seconds <= 0xFFFFFFFFll) {
        return static_cast<int32_t>(static_cast<uint32_t>(seconds));
    }
    for (const char* format : {"%Y/%m/%d %H:%M:%S", "%Y/%m/%d"}) {
        struct tm tm {};
        tm.tm_isdst = -1;
        const char* rest = strptime(text.c_str(), format, &tm);
        if (rest != nullptr && *rest == '\0') {
            const long long t = mktime(&tm);  // time_t is 32 bits wide on i386
            if (t >= 0 && t <= 0xFFFFFFFFll) return static_cast<int32_t>(static_cast<uint32_t>(t));
        }
    }
    throw UsageError("cannot read the deadline \"" + text +
                     "\" (seconds since 1970, or YYYY/MM/DD [HH:MM:SS])");
}

struct SourceFile {
    std::string path;
    int64_t size = 0, ctime = 0, mtime = 0;
};

SourceFile Stat(const std::string& path) {
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        throw Failure("cannot read " + path + ": " + std::strerror(errno));
    }
    if (st.st_size > INT32_MAX) {
        throw Failure(Message(6, {std::to_string(ConvertDataSize(st.st_size))}));
    }
    return {path, st.st_size, st.st_ctim.tv_sec, st.st_mtim.tv_sec};
}

std::string Absolute(const std::string& path) {
    char* real = ::realpath(path.c_str(), nullptr);
    if (real == nullptr) return path;
    std::string text = real;
    std::free(real);
    return text;
}

std::string BaseName(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

}  // namespace

int Describe(const Options& o) {
    Session s(ResolveDepotDir(o.depot), 0);  // only an add spends the balance
    const Scan scan = s.Entries();
    uint32_t temporary = 0;
    for (const auto& e : scan.entries) {
        if (e.state == 0) temporary += ConvertDataSize(e.bytes);
    }
    const uint32_t stored = s.StoredKiB();
    // Every data file in the directory is stored; those of entries still in
    // progress are shown apart as temporary.
    const uint32_t permanent = stored > temporary ? stored - temporary : 0;
    const uint64_t total = uint64_t{temporary} + permanent;
    uint64_t free = 0;
    if (o.sizeKiB != 0) {
        free = o.sizeKiB > total ? o.sizeKiB - total : 0;
    } else if (struct statvfs fs {}; ::statvfs(s.directory().c_str(), &fs) == 0) {
        free = static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize / 1024;
    }
    Print(Message(159, {s.directory()}));
    Print(Message(160, {std::to_string(o.sizeKiB)}));
    Print(Message(161, {std::to_string(temporary)}));
    Print(Message(162, {std::to_string(permanent)}));
    Print(Message(163, {std::to_string(total)}));
    Print(Message(164, {std::to_string(free)}));
    return ReportSkipped(o, scan.skipped);
}

int Add(const Options& o, const std::vector<std::string>& args) {
    std::vector<std::string> plain;
    int32_t deadline = -1;  // 4294967295 as the depot compares it: never expires
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--deadline") {
            if (i + 1 == args.size()) throw UsageError("--deadline needs a time");
            deadline = ParseDeadline(args[++i]);
        } else {
            plain.push_back(args[i]);
        }
    }
    if (plain.size() != 2) throw UsageError("add needs id^version and a file");
    const SegmentName name = ParseSegmentName(plain[0]);
    const SourceFile source = Stat(LocalSourcePath(plain[1]));
    const uint32_t kib = ConvertDataSize(static_cast<uint64_t>(source.size));
    if (o.sizeKiB != 0 && kib > o.sizeKiB) throw Failure(Message(6, {std::to_string(kib)}));
    const std::vector<uint8_t> description =
        SegmentDescription(name, source.path, source.size, source.ctime, source.mtime);

    Session s(ResolveDepotDir(o.depot), o.sizeKiB);
    DepotHandle* h = s.handle();
    if (DepotReserveDiskSpace(h, kib).palError == PAL_ERR_NO_SPACE) {
        throw Failure(Message(7, {std::to_string(kib)}));
    }
    DepotEntry* entry = DepotAddEntry(h, name.id.c_str(), name.version.c_str(),
                                      description.data(),
                                      static_cast<PalUint32>(description.size()));
    if (entry == nullptr) {
        DepotUnreserveDiskSpace(h, kib);
        throw Failure("cannot add " + name.Text() +
                      ": an entry for it is in progress, or the depot cannot be written");
    }
    if (entry->state != 0) {
        // A complete segment is reused, not stored twice, once its data file
        // holds what its description says (or, without one, what the file
        // to add holds); a copy that lost bytes is stored again.
        const Description stored = DescriptionOf(entry);
        const int64_t expected = stored.size >= 0 ? stored.size : source.size;
        PalUint64 bytes = 0;
        const bool whole = DepotEntryGetFileSize(h, entry, &bytes).palError == PAL_OK &&
                           bytes == static_cast<PalUint64>(expected);
        if (whole) {
            DepotFreeEntry(h, entry);
            DepotUnreserveDiskSpace(h, kib);
            Print(name.Text() + " is already in the depot\n");
            return kOk;
        }
        if (entry->state != 1 || DepotRemoveEntry(h, entry, PAL_TRUE).palError != PAL_OK) {
            if (entry->state != 1) DepotFreeEntry(h, entry);
            DepotUnreserveDiskSpace(h, kib);
            throw Failure("cannot add " + name.Text() +
                          ": the stored copy lost data and cannot be replaced now (it is in use "
                          "or cannot be removed)");
        }
        entry = DepotAddEntry(h, name.id.c_str(), name.version.c_str(), description.data(),
                              static_cast<PalUint32>(description.size()));
        if (entry == nullptr || entry->state != 0) {
            if (entry != nullptr) DepotFreeEntry(h, entry);
            DepotUnreserveDiskSpace(h, kib);
            throw Failure("cannot add " + name.Text() + ": another add of it is under way");
        }
    }
    auto undo = [&](const std::string& why) {
        DepotRemoveEntry(h, entry, PAL_TRUE);
        DepotUnreserveDiskSpace(h, kib);
        throw Failure("cannot add " + name.Text() + ": " + why);
    };
    std::string why;
    {
        PalFile in, out;
        if (PalFileOpen(&in.f, source.path.c_str(), kReadOnly).palError != PAL_OK) {
            why = "cannot open " + source.path;
        } else if (DepotFileOpenForWrite(h, entry, &out.f, PAL_TRUE).palError != PAL_OK) {
            why = "cannot open the data file " + std::string(entry->location);
        } else {
            CopyAll(in.f, out.f, &why);
        }
    }
    if (!why.empty()) undo(why);
    DepotSetSegmentSize(h, entry);
    if (entry->segmentSize != static_cast<uint64_t>(source.size)) {
        undo(source.path + " changed while it was copied");
    }
    const PalError done = DepotCompleteEntry(h, entry, deadline);  // releases the record
    if (done.palError != PAL_OK) {
        if (DepotEntry* again = DepotGetEntry(h, name.id.c_str(), name.version.c_str())) {
            DepotRemoveEntry(h, again, PAL_TRUE);
        }
        DepotUnreserveDiskSpace(h, kib);
        throw Failure("cannot add " + name.Text() + ": its entry file cannot be written");
    }
    DepotAdjustReservedSpace(h, name.id.c_str(), name.version.c_str());
    return kOk;
}

int Image(const Options& o, const std::vector<std::string>& args) {
    if (args.size() != 3) throw UsageError("image needs id^version, a file and an image directory");
    const SegmentName name = ParseSegmentName(args[0]);
    const SourceFile source = Stat(LocalSourcePath(args[1]));
    std::string imageDir = args[2];
    const std::string depotDir = ResolveDepotDir(o.depot);
    if (::mkdir(imageDir.c_str(), 0755) != 0 && errno != EEXIST) {
        throw Failure("cannot create the image directory " + imageDir + ": " +
                      std::strerror(errno));
    }
    imageDir = Absolute(imageDir);
    if (imageDir == Absolute(depotDir)) std::fputs(Message(201).c_str(), stderr);

    // The data file keeps its name, so that a table of contents naming the
    // segment's original location finds it here; the table of contents is
    // named after the segment.
    const std::string data = imageDir + "/" + BaseName(source.path);
    std::string tocName = name.Text();
    for (char& c : tocName) {
        if (c == '/') c = '_';
    }
    const std::string toc = imageDir + "/" + tocName + ".toc";
    // Both are written under fresh names, created exclusively (no name an
    // intruder could have prepared as a link), and renamed into place.
    std::string dataPart, tocPart;
    auto fail = [&](const std::string& why) {
        if (!dataPart.empty()) ::unlink(dataPart.c_str());
        if (!tocPart.empty()) ::unlink(tocPart.c_str());
        throw Failure("cannot write the image of " + name.Text() + ": " + why);
    };
    const bool copy = Absolute(data) != source.path;
    if (copy) {
        std::string why;
        {
            PalFile in, out;
            if (!NewPartFile(data, &dataPart, &out.f, &why)) {
                // why says what went wrong
            } else if (PalFileOpen(&in.f, source.path.c_str(), kReadOnly).palError != PAL_OK) {
                why = "cannot open " + source.path;
            } else {
                CopyAll(in.f, out.f, &why);
            }
        }
        if (!why.empty()) fail(why);
    }
    // The table of contents: a property list whose nested "segment" list
    // describes the segment, in the bare layout (its marshalled bytes alone).
    std::vector<uint8_t> tocBytes;
    Properties segment{}, top{};
    try {
        const std::vector<uint8_t> encoded =
            SegmentDescription(name, data, source.size, source.ctime, source.mtime);
        properties_decode(TC_Kel_Fanout2_Properties, encoded.data(),
                          static_cast<uint32_t>(encoded.size()), &segment);
        properties_put_properties_dup(&top, "segment", &segment);
        void* bytes = nullptr;
        uint32_t length = 0;
        properties_encode(TC_Kel_Fanout2_Properties, &top, &bytes, &length);
        tocBytes.assign(static_cast<uint8_t*>(bytes), static_cast<uint8_t*>(bytes) + length);
        mg_free(bytes);
    } catch (...) {
        kel_free_generic(&segment, TC_Kel_Fanout2_Properties);
        kel_free_generic(&top, TC_Kel_Fanout2_Properties);
        fail("cannot encode its table of contents");
    }
    kel_free_generic(&segment, TC_Kel_Fanout2_Properties);
    kel_free_generic(&top, TC_Kel_Fanout2_Properties);
    {
        std::string why;
        PalFile out;
        if (NewPartFile(toc, &tocPart, &out.f, &why)) {
            WriteAll(out.f, tocBytes.data(), tocBytes.size(), &why);
        }
        if (!why.empty()) fail(why);
    }
    if (copy && ::rename(dataPart.c_str(), data.c_str()) != 0) {
        fail("cannot rename " + dataPart + ": " + std::strerror(errno));
    }
    if (::rename(tocPart.c_str(), toc.c_str()) != 0) {
        fail("cannot rename " + tocPart + ": " + std::strerror(errno));
    }
    return kOk;
}

int List(const Options& o, const std::vector<std::string>& args) {
    bool longForm = false;
    std::string filter;
    for (const auto& a : args) {
        if (a == "-l") {
            longForm = true;
        } else if (filter.empty()) {
            filter = a;
        } else {
            throw UsageError("list takes one id^version and -l");
        }
    }
    SegmentName wanted;
    if (!filter.empty()) wanted = ParseSegmentName(filter);
    Session s(ResolveDepotDir(o.depot), 0);  // only an add spends the balance
    const Scan scan = s.Entries();
    std::vector<EntryInfo> shown;
    for (auto& e : scan.entries) {
        if (filter.empty() || (e.id == wanted.id && e.version == wanted.version)) {
            shown.push_back(e);
        }
    }
    if (!filter.empty() && shown.empty()) {
        ReportSkipped(o, scan.skipped);
        throw Failure(Message(170, {filter}));
    }
    if (!longForm) {
        char line[512];
        std::snprintf(line, sizeof line, "%-24s %-12s %-10s %10s  %s", Message(135).c_str(),
                      Message(136).c_str(), Message(137).c_str(), Message(138).c_str(),
                      Message(139).c_str());
        Print(line);
        for (const auto& e : shown) {
            std::snprintf(line, sizeof line, "%-24s %-12s %-10s %10u  ", e.id.c_str(),
                          e.version.c_str(), StateWord(e.state), ConvertDataSize(e.bytes));
            Print(line + TimeText(e.dataModified));
        }
        return ReportSkipped(o, scan.skipped);
    }
    int number = 0;
    for (const auto& e : shown) {
        const uint64_t percent =
            e.expectedSize > 0 ? e.bytes * 100 / static_cast<uint64_t>(e.expectedSize) : 100;
        Print(Message(142, {std::to_string(++number)}));
        Print(Message(143, {e.id}));
        Print(Message(144, {e.version}));
        Print(Message(145, {std::to_string(e.bytes), std::to_string(percent)}));
        Print(Message(146, {e.location}));
        Print(Message(147) + TimeText(e.ctime));
        Print(Message(148) + TimeText(e.mtime));
        Print(Message(149) + TimeText(e.entryCreated));
        Print(Message(150) + TimeText(e.dataAccessed));
        Print(Message(151) + TimeText(e.dataModified));
        Print(Message(152, {std::to_string(e.openCount)}));
        Print(Message(153, {std::to_string(e.writeCount)}));
        Print(Message(154, {std::to_string(e.referenceCount)}));
        Print(Message(155, {StateWord(e.state)}));
    }
    return ReportSkipped(o, scan.skipped);
}

int Delete(const Options& o, const std::vector<std::string>& args) {
    if (args.size() != 1) throw UsageError("delete needs one id^version");
    const SegmentName name = ParseSegmentName(args[0]);
    Session s(ResolveDepotDir(o.depot), 0);  // only an add spends the balance
    DepotEntry* e = DepotGetEntry(s.handle(), name.id.c_str(), name.version.c_str());
    if (e == nullptr) throw Failure(Message(158, {name.Text()}));
    // An entry in progress whose writer died is stale and goes like a
    // complete one; a live writer's is refused, as is one in use by a stream.
    const bool stale = e->state == 0 && !DepotEntryWriterAlive(s.handle(), e);
    if (e->state != 1 && !stale) {
        const int number = e->state == 0 ? 156 : 157;  // in progress, or in use by a stream
        DepotFreeEntry(s.handle(), e);
        throw Failure(Message(number, {name.Text()}));
    }
    const std::string data = e->location ? e->location : "";
    const PalError removed = DepotRemoveEntry(s.handle(), e, PAL_TRUE);
    if (removed.palError != PAL_OK) {
        throw Failure("cannot delete the entry " + name.Text() + ": cannot remove " + data +
                      " (" + std::strerror(removed.nativeError) + ")");
    }
    return kOk;
}

int Purge(const Options& o, const std::vector<std::string>& args) {
    const bool expired = args.size() == 1 && args[0] == "--expired";
    if (!args.empty() && !expired) throw UsageError("purge takes only --expired");
    Session s(ResolveDepotDir(o.depot), 0);  // only an add spends the balance
    PalUint32 skipped = 0;
    const PalError e = expired ? DepotPurgeExpiredCounting(s.handle(), &skipped)
                               : DepotPurgeCounting(s.handle(), PAL_FALSE, &skipped);
    if (e.palError != PAL_OK && e.palError != PAL_ERR_NO_MORE) {
        ReportSkipped(o, skipped);
        throw Failure("cannot purge the depot " + s.directory() + " (error " +
                      std::to_string(e.palError) + ")");
    }
    return ReportSkipped(o, skipped);
}

// ---------------------------------------------------------------- check
//
// check reads the depot directory itself under the depot lock (the entry
// lock while it reads entry files), judges every entry file and data file,
// and with --repair acts on each finding: what cannot be trusted goes to
// "lost+found" inside the depot (an entry file together with its data
// file), orphans are removed. It never follows a link, never opens anything
// but a regular file, and never touches a file outside the depot.

namespace {

constexpr const char* kLostFound = "lost+found";
constexpr off_t kLargestEntryFile = off_t{64} << 20;

enum class Action { kLostFound, kRemove };

struct Finding {
    std::string name;     // the file the finding is about
    std::string problem;  // what is wrong, a sentence part
    Action action = Action::kLostFound;
    std::string companion;  // the data file that goes along, if any
};

struct EntryFile {
    std::string name;
    bool regular = false;
    bool readable = false;
    std::string text;
};

bool EndsWith(const std::string& s, const char* suffix) {
    const size_t n = std::strlen(suffix);
    return s.size() > n && s.compare(s.size() - n, n, suffix) == 0;
}

// The data file's name for an entry file's ("<stem>xml" -> "<stem>dat").
std::string CompanionOf(const std::string& entryName) {
    return entryName.substr(0, entryName.size() - 3) + "dat";
}

// Reads a regular file without following a link or blocking; false when it
// cannot be read whole.
bool ReadEntryText(int dir, const std::string& name, std::string* text) {
    const int fd = ::openat(dir, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return false;
    struct stat st {};
    bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size < kLargestEntryFile;
    if (ok) {
        text->assign(static_cast<size_t>(st.st_size), '\0');
        size_t done = 0;
        while (ok && done < text->size()) {
            const ssize_t n = ::read(fd, text->data() + done, text->size() - done);
            if (n <= 0) ok = false;
            done += n > 0 ? static_cast<size_t>(n) : 0;
        }
    }
    ::close(fd);
    return ok;
}

// True when `location` is "<depot>/<data>", the depot directory spelt as
// the tool does or otherwise (the same directory by file identity).
bool OwnLocation(const std::string& depot, const std::string& location, const std::string& data) {
    if (location == depot + "/" + data) return true;
    const auto slash = location.rfind('/');
    if (slash == std::string::npos || location.compare(slash + 1, std::string::npos, data) != 0) {
        return false;
    }
    struct stat a {}, b {};
    return ::stat(location.substr(0, slash).c_str(), &a) == 0 && ::stat(depot.c_str(), &b) == 0 &&
           a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

// The canonical entry-file name of a bucket and sequence number.
std::string CanonicalName(const std::string& bucket, long number) {
    return bucket + "." + std::to_string(number) + ".xml";
}

// A free name in lost+found for `name`.
std::string FreeName(int lostFound, const std::string& name) {
    std::string candidate = name;
    struct stat st {};
    for (int i = 1; ::fstatat(lostFound, candidate.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0; ++i) {
        candidate = name + "." + std::to_string(i);
    }
    return candidate;
}

// Moves `name` into lost+found (which `lostFound` is open on); "" or why not.
std::string MoveToLostFound(int dir, int lostFound, const std::string& name) {
    if (lostFound < 0) return "there is no usable lost+found directory";
    if (::renameat(dir, name.c_str(), lostFound, FreeName(lostFound, name).c_str()) != 0) {
        return std::strerror(errno);
    }
    return {};
}

// Removes `name` when it is a regular file; "" or why not.
std::string RemoveRegular(int dir, const std::string& name) {
    struct stat st {};
    if (::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0) return std::strerror(errno);
    if (!S_ISREG(st.st_mode)) return "not a regular file";
    if (::unlinkat(dir, name.c_str(), 0) != 0) return std::strerror(errno);
    return {};
}

// Opens lost+found inside the depot, making it when missing; -1 when it is
// not a directory of its own or cannot be made.
int OpenLostFound(int dir) {
    if (::mkdirat(dir, kLostFound, 0700) != 0 && errno != EEXIST) return -1;
    return ::openat(dir, kLostFound, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

// Holds the depot lock of a session for the life of the object.
class DepotLockHold {
public:
    explicit DepotLockHold(Session& s) : h_(s.handle()) {
        if (PalWaitSem(&h_->depotLock).palError != PAL_OK) {
            throw Failure("cannot lock the depot " + s.directory());
        }
    }
    ~DepotLockHold() { PalPostSem(&h_->depotLock); }
    DepotLockHold(const DepotLockHold&) = delete;
    DepotLockHold& operator=(const DepotLockHold&) = delete;

private:
    DepotHandle* h_;
};

// Judges every file of the depot open at `dir` and returns the findings.
// REQUIRES: depot lock held.
std::vector<Finding> Inspect(Session& s, int dir) {
    DepotHandle* h = s.handle();
    std::vector<EntryFile> entryFiles;
    std::set<std::string> entryNames, dataNames;
    std::vector<Finding> findings;
    {
        DIR* d = ::fdopendir(::dup(dir));
        if (d == nullptr) {
            throw Failure("cannot read the depot directory " + s.directory() + ": " +
                          std::strerror(errno));
        }
        // Entry files are read under the entry lock, so that none is seen
        // half rewritten.
        const bool entryLocked = PalWaitSem(&h->entryLock).palError == PAL_OK;
        while (const dirent* e = ::readdir(d)) {
            const std::string name = e->d_name;
            const bool entry = EndsWith(name, "xml"), data = EndsWith(name, "dat");
            if (!entry && !data) continue;  // the lock files, lost+found, foreign files
            struct stat st {};
            const bool regular = ::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                                 S_ISREG(st.st_mode);
            if (data) {
                if (regular) dataNames.insert(name);
                else findings.push_back({name, "is not a regular file", Action::kLostFound, {}});
                continue;
            }
            entryNames.insert(name);
            EntryFile f{name, regular, false, {}};
            if (regular) f.readable = ReadEntryText(dir, name, &f.text);
            entryFiles.push_back(std::move(f));
        }
        if (entryLocked) PalPostSem(&h->entryLock);
        ::closedir(d);
    }
    std::sort(entryFiles.begin(), entryFiles.end(),
              [](const EntryFile& a, const EntryFile& b) { return a.name < b.name; });

    // Each entry file on its own.
    struct Healthy {
        std::string name, key, bucket;
        long number;
    };
    std::vector<Healthy> healthy;
    for (const auto& f : entryFiles) {
        const std::string data = CompanionOf(f.name);
        const std::string companion = dataNames.count(data) != 0 ? data : std::string();
        auto damaged = [&](const std::string& problem) {
            findings.push_back({f.name, problem, Action::kLostFound, companion});
        };
        if (!f.regular) {
            damaged("is not a regular file");
            continue;
        }
        if (!f.readable) {
            damaged("cannot be read");
            continue;
        }
        DepotEntry* e = DepotEntryNewFromToc(h, f.text.c_str());
        if (e == nullptr) {
            damaged("does not parse as an entry file");
            continue;
        }
        const std::string id = e->id, version = e->version, location = e->location;
        const int32_t state = e->state;
        const Description description = DescriptionOf(e);
        e->entryFilePath = PalStringDup((s.directory() + "/" + f.name).c_str());
        const bool alive = state == 0 && DepotEntryWriterAlive(h, e);
        DepotFreeEntry_internal(h, e);
        PalChar* bucket = DepotFindBucket(id.c_str(), version.c_str());
        const std::string keyBucket = bucket != nullptr ? bucket : "";
        PalMemoryFree(bucket);

        if (!OwnLocation(s.directory(), location, data)) {
            damaged("names the location " + location + ", which is not its own data file in " +
                    "the depot");
        } else if (f.name.compare(0, 8, keyBucket) != 0) {
            damaged("holds " + id + "^" + version + ", whose bucket is " + keyBucket);
        } else if (companion.empty()) {
            findings.push_back({f.name, "has no data file", Action::kRemove, {}});
        } else if (alive) {
            // An add under way: nothing to judge yet.
        } else if (state == 0) {
            findings.push_back(
                {f.name, "is an entry in progress whose writer is gone", Action::kRemove, data});
        } else {
            struct stat st {};
            ::fstatat(dir, data.c_str(), &st, AT_SYMLINK_NOFOLLOW);
            if (description.size >= 0 && st.st_size != description.size) {
                damaged("has " + std::to_string(st.st_size) + " bytes of data where its " +
                        "description says " + std::to_string(description.size));
            } else {
                healthy.push_back({f.name, id + "^" + version, f.name.substr(0, 8),
                                   std::strtol(f.name.c_str() + 9, nullptr, 10)});
            }
        }
    }

    // Sequence numbers and keys used twice: the entry file under the
    // canonical name (then the first by name) stays.
    auto keepFirst = [&](auto keyOf, const std::string& what) {
        std::map<std::string, std::vector<const Healthy*>> groups;
        for (const auto& e : healthy) groups[keyOf(e)].push_back(&e);
        for (auto& [key, group] : groups) {
            if (group.size() < 2) continue;
            std::stable_sort(group.begin(), group.end(), [](const Healthy* a, const Healthy* b) {
                return (a->name == CanonicalName(a->bucket, a->number)) >
                       (b->name == CanonicalName(b->bucket, b->number));
            });
            for (size_t i = 1; i < group.size(); ++i) {
                const std::string data = CompanionOf(group[i]->name);
                findings.push_back({group[i]->name, what + " " + group[0]->name + " does",
                                    Action::kLostFound, data});
            }
        }
    };
    std::set<std::string> before;
    for (const auto& f : findings) before.insert(f.name);
    keepFirst([](const Healthy& e) { return e.bucket + "." + std::to_string(e.number); },
              "uses the same sequence number as");
    for (const auto& f : findings) before.insert(f.name);
    std::vector<Healthy> still;
    for (const auto& e : healthy) {
        if (before.count(e.name) == 0) still.push_back(e);
    }
    healthy = still;
    keepFirst([](const Healthy& e) { return e.key; }, "holds the same key as");

    // Data files that no entry file accounts for.
    for (const auto& data : dataNames) {
        const std::string entry = data.substr(0, data.size() - 3) + "xml";
        if (entryNames.count(entry) == 0) {
            findings.push_back({data, "is a data file without an entry file", Action::kRemove, {}});
        }
    }
    return findings;
}

}  // namespace

int Check(const Options& o, const std::vector<std::string>& args) {
    const bool repair = args.size() == 1 && args[0] == "--repair";
    if (!args.empty() && !repair) throw UsageError("check takes only --repair");
    Session s(ResolveDepotDir(o.depot), 0);
    DepotLockHold held(s);
    const int dir = ::open(s.directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) {
        throw Failure("cannot open the depot directory " + s.directory() + ": " +
                      std::strerror(errno));
    }
    std::vector<Finding> findings;
    try {
        findings = Inspect(s, dir);
    } catch (...) {
        ::close(dir);
        throw;
    }
    const int lostFound = repair && !findings.empty() ? OpenLostFound(dir) : -1;
    size_t failed = 0;
    for (const auto& f : findings) {
        std::string line = f.name + " " + f.problem;
        if (repair) {
            std::string why;
            if (f.action == Action::kRemove) {
                why = RemoveRegular(dir, f.name);
                if (why.empty() && !f.companion.empty()) why = RemoveRegular(dir, f.companion);
                line += why.empty() ? "; removed" : "; not removed: " + why;
            } else {
                // The data file first: an entry file never leaves while its
                // data file stays behind without it.
                if (!f.companion.empty()) why = MoveToLostFound(dir, lostFound, f.companion);
                if (why.empty()) why = MoveToLostFound(dir, lostFound, f.name);
                line += why.empty() ? std::string("; moved to ") + kLostFound
                                    : "; not moved to " + std::string(kLostFound) + ": " + why;
            }
            if (!why.empty()) ++failed;
        }
        Print(line + "\n");
    }
    if (lostFound >= 0) ::close(lostFound);
    ::close(dir);
    const std::string count =
        std::to_string(findings.size()) + (findings.size() == 1 ? " problem" : " problems");
    if (findings.empty()) {
        Print("The depot " + s.directory() + " is consistent.\n");
        return kOk;
    }
    if (!repair) {
        Print(count + " found; \"" + o.program + " " + o.depot +
              " check --repair\" repairs them.\n");
        return kFound;
    }
    if (failed == 0) {
        Print(count + " found and repaired.\n");
        return kRepaired;
    }
    Print(count + " found; " + std::to_string(failed) + " could not be repaired.\n");
    return kUnrepairable;
}

}  // namespace fanout::tool
