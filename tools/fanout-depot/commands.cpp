// commands.cpp - the commands of fanout-depot.
//
// Every command that changes the depot leaves it whole when it fails: an
// add that cannot copy its file removes the entry it made and gives its
// reservation back, and an image is written under temporary names and
// renamed into place only once complete. Only add creates a depot; every
// other command on a missing depot directory fails without making it.
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
// The deadline of an entry that never expires (4294967295 as the depot
// compares deadlines, unsigned).
constexpr int32_t kNoDeadline = -1;

void Print(const std::string& text) {
    std::fputs(text.c_str(), stdout);
}

const char* StateWord(int32_t state) {
    switch (state) {
        case 0:
            return "temporary";
        case 1:
            return "permanent";
        case 2:
            return "in use";
        default:
            return "unknown";
    }
}

// An argument that looks like an option but is none of `command`'s.
void RefuseUnknownOption(const std::string& command, const std::string& arg) {
    if (arg.size() > 1 && arg[0] == '-') {
        throw UsageError("unknown option " + arg + " of " + command);
    }
}

// An open file of the portability layer, closed on the way out.
struct PalFile {
    PalFileHandle f{nullptr};
    ~PalFile() {
        if (f.handle != nullptr) PalFileClose(f);
    }
};

// Copies every byte of `in` to `out`, advancing `progress` by the bytes
// copied; false (with *why) on a read or write failure.
bool CopyAll(PalFileHandle in, PalFileHandle out, Progress& progress, std::string* why) {
    std::vector<char> block(kCopyBlock);
    uint64_t copied = 0;
    for (;;) {
        PalUint32 got = 0;
        PalError e = PalFileRead(in, block.data(), kCopyBlock, &got);
        if (e.palError != PAL_OK) {
            *why = "read failed: " + ErrorText(e);
            return false;
        }
        if (got == 0) return true;
        for (PalUint32 done = 0; done < got;) {
            PalUint32 put = 0;
            e = PalFileWrite(out, block.data() + done, got - done, &put);
            if (e.palError != PAL_OK || put == 0) {
                *why = "write failed: " +
                       (e.palError != PAL_OK ? ErrorText(e) : std::string(std::strerror(ENOSPC)));
                return false;
            }
            done += put;
        }
        copied += got;
        progress.Advance(copied);
    }
}

// Writes all `size` bytes; false (with *why) on a failure.
bool WriteAll(PalFileHandle out, const uint8_t* data, size_t size, std::string* why) {
    for (size_t done = 0; done < size;) {
        PalUint32 put = 0;
        const size_t chunk = std::min<size_t>(size - done, kCopyBlock);
        const PalError e = PalFileWrite(out, data + done, static_cast<PalUint32>(chunk), &put);
        if (e.palError != PAL_OK || put == 0) {
            *why = "write failed: " +
                   (e.palError != PAL_OK ? ErrorText(e) : std::string(std::strerror(ENOSPC)));
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
    if (const PalError e = PalFileOpen(out, name.c_str(), kWriteExisting); e.palError != PAL_OK) {
        *why = "cannot open " + name + ": " + ErrorText(e);
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

// A deadline as list -l shows it: a time, or "never".
std::string DeadlineText(int32_t deadline) {
    if (deadline == kNoDeadline) return "never\n";
    return TimeText(static_cast<uint32_t>(deadline));
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
        throw Failure(
            Message(msg::kSegmentTooLarge, {std::to_string(ConvertDataSize(st.st_size))}));
    }
    return {path, st.st_size, st.st_ctim.tv_sec, st.st_mtim.tv_sec};
}

std::string BaseName(const std::string& path) {
    const auto slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

std::string KiBText(uint64_t bytes) {
    return std::to_string(ConvertDataSize(bytes)) + " KB";
}

}  // namespace

int Describe(const Options& o) {
    Session s(ResolveDepotDir(o.depot), 0, false);  // only an add spends the balance
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
    } else if (struct statvfs fs{}; ::statvfs(s.directory().c_str(), &fs) == 0) {
        free = static_cast<uint64_t>(fs.f_bavail) * fs.f_frsize / 1024;
    }
    Print(Message(msg::kDepotLocation, {s.directory()}));
    Print(Message(msg::kDepotSize, {std::to_string(o.sizeKiB)}));
    Print(Message(msg::kTemporaryStorage, {std::to_string(temporary)}));
    Print(Message(msg::kPermanentStorage, {std::to_string(permanent)}));
    Print(Message(msg::kTotalStorage, {std::to_string(total)}));
    Print(Message(msg::kFreeSpace, {std::to_string(free)}));
    return ReportSkipped(o, scan.skipped);
}

int Add(const Options& o, const std::vector<std::string>& args) {
    std::vector<std::string> plain;
    int32_t deadline = kNoDeadline;
    bool force = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--deadline") {
            if (i + 1 == args.size()) throw UsageError("--deadline needs a time");
            deadline = ParseDeadline(args[++i]);
        } else if (args[i] == "--force") {
            force = true;
        } else {
            RefuseUnknownOption("add", args[i]);
            plain.push_back(args[i]);
        }
    }
    if (plain.size() != 2) throw UsageError("add needs id^version and a file");
    const SegmentName name = ParseSegmentName(plain[0]);
    // A deadline already past would make the entry the first thing the next
    // purge --expired removes: almost always a typing mistake.
    if (deadline != kNoDeadline && !force &&
        static_cast<uint32_t>(deadline) < static_cast<uint64_t>(std::time(nullptr))) {
        throw Failure("the deadline " + DeadlineText(deadline).substr(0, 19) +
                      " is in the past; add --force to store " + name.Text() + " all the same");
    }
    const SourceFile source = Stat(LocalSourcePath(plain[1]));
    const uint32_t kib = ConvertDataSize(static_cast<uint64_t>(source.size));
    if (o.sizeKiB != 0 && kib > o.sizeKiB) {
        throw Failure(Message(msg::kSegmentTooLarge, {std::to_string(kib)}));
    }
    const std::vector<uint8_t> description =
        SegmentDescription(name, source.path, source.size, source.ctime, source.mtime);

    Session s(ResolveDepotDir(o.depot), o.sizeKiB, true);
    DepotHandle* h = s.handle();
    if (DepotReserveDiskSpace(h, kib).palError == PAL_ERR_NO_SPACE) {
        throw Failure(Message(msg::kDepotFull, {std::to_string(kib)}));
    }
    auto cannotAdd = [&](const std::string& why) {
        DepotUnreserveDiskSpace(h, kib);
        throw Failure("cannot add " + name.Text() + ": " + why);
    };
    // Why DepotAddEntry returned no record.
    auto addFailed = [&] {
        const std::string why = LastDepotError(s.directory());
        if (LastDepotCode() == PAL_ERR_BUSY) {
            cannotAdd("an add of it is under way or it is in use (" + why + ")");
        }
        cannotAdd(why);
    };
    DepotEntry* entry = DepotAddEntry(h, name.id.c_str(), name.version.c_str(), description.data(),
                                      static_cast<PalUint32>(description.size()));
    if (entry == nullptr) addFailed();
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
            cannotAdd(
                "the stored copy lost data and cannot be replaced now (it is in use or "
                "cannot be removed)");
        }
        entry = DepotAddEntry(h, name.id.c_str(), name.version.c_str(), description.data(),
                              static_cast<PalUint32>(description.size()));
        if (entry == nullptr) addFailed();
        if (entry->state != 0) {
            DepotFreeEntry(h, entry);
            cannotAdd("another add of it is under way");
        }
    }
    auto undo = [&](const std::string& why) {
        DepotRemoveEntry(h, entry, PAL_TRUE);
        cannotAdd(why);
    };
    std::string why;
    Progress progress(o.progress, "adding " + name.Text(), static_cast<uint64_t>(source.size),
                      true);
    {
        PalFile in, out;
        if (const PalError e = PalFileOpen(&in.f, source.path.c_str(), kReadOnly);
            e.palError != PAL_OK) {
            why = "cannot open " + source.path + ": " + ErrorText(e);
        } else if (const PalError w = DepotFileOpenForWrite(h, entry, &out.f, PAL_TRUE);
                   w.palError != PAL_OK) {
            why = "cannot open the data file " + std::string(entry->location) + ": " + ErrorText(w);
        } else {
            CopyAll(in.f, out.f, progress, &why);
        }
    }
    if (!why.empty()) undo(why);
    DepotSetSegmentSize(h, entry);
    if (entry->segmentSize != static_cast<uint64_t>(source.size)) {
        undo(source.path + " changed while it was copied");
    }
    const std::string entryFile = entry->entryFilePath ? entry->entryFilePath : "";
    const PalError done = DepotCompleteEntry(h, entry, deadline);  // releases the record
    if (done.palError != PAL_OK) {
        if (DepotEntry* again = DepotGetEntry(h, name.id.c_str(), name.version.c_str())) {
            DepotRemoveEntry(h, again, PAL_TRUE);
        }
        cannotAdd("cannot write its entry file " + entryFile + ": " + ErrorText(done));
    }
    DepotAdjustReservedSpace(h, name.id.c_str(), name.version.c_str());
    progress.Finish(o.program, "added " + name.Text() + " to " + s.directory() + " (" +
                                   KiBText(static_cast<uint64_t>(source.size)) + ")");
    return kOk;
}

int Image(const Options& o, const std::vector<std::string>& args) {
    for (const auto& a : args) RefuseUnknownOption("image", a);
    if (args.size() != 3) throw UsageError("image needs id^version, a file and an image directory");
    const SegmentName name = ParseSegmentName(args[0]);
    const SourceFile source = Stat(LocalSourcePath(args[1]));
    // The image is of a segment the depot holds complete, and `file` must be
    // that segment: an unknown key, an entry still being added, or a file of
    // another size writes nothing.
    const DepotDir depotDir = ResolveDepotDir(o.depot);
    // Made absolute before the session moves into the depot directory.
    const std::string imageDir = Absolute(args[2]);
    {
        Session s(depotDir, 0, false);
        DepotEntry* e = DepotGetEntry(s.handle(), name.id.c_str(), name.version.c_str());
        if (e == nullptr) {
            if (LastDepotCode() == PAL_ERR_NO_ENTRY) {
                throw Failure(Message(msg::kNotInDepot, {name.Text()}));
            }
            throw Failure("cannot read the entry of " + name.Text() + ": " +
                          LastDepotError(s.directory()));
        }
        const int32_t state = e->state;
        PalUint64 stored = 0;
        const PalError sized = DepotEntryGetFileSize(s.handle(), e, &stored);
        DepotFreeEntry(s.handle(), e);
        // In use by a stream (state 2) is complete all the same.
        if (state != 1 && state != 2) {
            throw Failure("cannot write the image of " + name.Text() +
                          ": its entry in the depot is not complete");
        }
        if (sized.palError != PAL_OK) {
            throw Failure("cannot write the image of " + name.Text() +
                          ": cannot read the size of its data file: " + ErrorText(sized));
        }
        if (stored != static_cast<PalUint64>(source.size)) {
            throw Failure("cannot write the image of " + name.Text() + ": " + source.path +
                          " holds " + std::to_string(source.size) + " bytes, the depot's copy " +
                          std::to_string(stored));
        }
    }
    if (::mkdir(imageDir.c_str(), 0755) != 0 && errno != EEXIST) {
        throw Failure("cannot create the image directory " + imageDir + ": " +
                      std::strerror(errno));
    }
    if (SameFile(imageDir, depotDir.path)) std::fputs(Message(msg::kImageInDepot).c_str(), stderr);

    // The data file keeps its name, so that a table of contents naming the
    // segment's original location finds it here; the table of contents is
    // named after the segment.
    const std::string data = Absolute(imageDir + "/" + BaseName(source.path));
    std::string tocName = name.Text();
    for (char& c : tocName) {
        if (c == '/') c = '_';
    }
    const std::string toc = Absolute(imageDir + "/" + tocName + ".toc");
    // Both are written under fresh names, created exclusively (no name an
    // intruder could have prepared as a link), and renamed into place.
    std::string dataPart, tocPart;
    auto fail = [&](const std::string& why) {
        if (!dataPart.empty()) ::unlink(dataPart.c_str());
        if (!tocPart.empty()) ::unlink(tocPart.c_str());
        throw Failure("cannot write the image of " + name.Text() + ": " + why);
    };
    Progress progress(o.progress, "writing the image of " + name.Text(),
                      static_cast<uint64_t>(source.size), true);
    const bool copy = !SameFile(data, source.path);
    if (copy) {
        std::string why;
        {
            PalFile in, out;
            if (!NewPartFile(data, &dataPart, &out.f, &why)) {
                // why says what went wrong
            } else if (const PalError e = PalFileOpen(&in.f, source.path.c_str(), kReadOnly);
                       e.palError != PAL_OK) {
                why = "cannot open " + source.path + ": " + ErrorText(e);
            } else {
                CopyAll(in.f, out.f, progress, &why);
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
    progress.Finish(o.program, "wrote the image of " + name.Text() + " into " + imageDir + " (" +
                                   KiBText(static_cast<uint64_t>(source.size)) + ")");
    return kOk;
}

int List(const Options& o, const std::vector<std::string>& args) {
    bool longForm = false;
    std::string filter;
    for (const auto& a : args) {
        if (a == "-l") {
            longForm = true;
            continue;
        }
        RefuseUnknownOption("list", a);
        if (!filter.empty()) throw UsageError("list takes one id^version and -l");
        filter = a;
    }
    SegmentName wanted;
    if (!filter.empty()) wanted = ParseSegmentName(filter);
    Session s(ResolveDepotDir(o.depot), 0, false);  // only an add spends the balance
    const Scan scan = s.Entries();
    std::vector<EntryInfo> shown;
    for (auto& e : scan.entries) {
        if (filter.empty() || (e.id == wanted.id && e.version == wanted.version)) {
            shown.push_back(e);
        }
    }
    if (!filter.empty() && shown.empty()) {
        ReportSkipped(o, scan.skipped);
        throw Failure(Message(msg::kNotInDepot, {filter}));
    }
    if (!longForm) {
        char line[512];
        std::snprintf(line, sizeof line, "%-24s %-12s %-10s %10s  %s",
                      Message(msg::kColumnName).c_str(), Message(msg::kColumnVersion).c_str(),
                      Message(msg::kColumnType).c_str(), Message(msg::kColumnSize).c_str(),
                      Message(msg::kColumnTime).c_str());
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
        Print(Message(msg::kEntryNumber, {std::to_string(++number)}));
        Print(Message(msg::kEntryId, {e.id}));
        Print(Message(msg::kEntryVersion, {e.version}));
        Print(Message(msg::kEntryBytes, {std::to_string(e.bytes), std::to_string(percent)}));
        Print(Message(msg::kEntryLocation, {e.location}));
        Print(Message(msg::kFileChangeTime) + TimeText(e.ctime));
        Print(Message(msg::kFileModifyTime) + TimeText(e.mtime));
        Print(Message(msg::kDepotCreateTime) + TimeText(e.entryCreated));
        Print(Message(msg::kDepotAccessTime) + TimeText(e.dataAccessed));
        Print(Message(msg::kDepotModifyTime) + TimeText(e.dataModified));
        Print(Message(msg::kAccessCount, {std::to_string(e.openCount)}));
        Print(Message(msg::kModificationCount, {std::to_string(e.writeCount)}));
        Print(Message(msg::kReferenceCount, {std::to_string(e.referenceCount)}));
        Print(Message(msg::kStorageStatus, {StateWord(e.state)}));
        // The catalogue has no line for the deadline: the tool's own, laid
        // out like the lines above.
        Print("Deadline: \t\t" + DeadlineText(e.deadline));
    }
    return ReportSkipped(o, scan.skipped);
}

int Delete(const Options& o, const std::vector<std::string>& args) {
    for (const auto& a : args) RefuseUnknownOption("delete", a);
    if (args.size() != 1) throw UsageError("delete needs one id^version");
    const SegmentName name = ParseSegmentName(args[0]);
    Session s(ResolveDepotDir(o.depot), 0, false);  // only an add spends the balance
    DepotEntry* e = DepotGetEntry(s.handle(), name.id.c_str(), name.version.c_str());
    if (e == nullptr) {
        if (LastDepotCode() == PAL_ERR_NO_ENTRY) {
            throw Failure(Message(msg::kDeleteMissing, {name.Text()}));
        }
        throw Failure("cannot delete the entry " + name.Text() + ": " +
                      LastDepotError(s.directory()));
    }
    // An entry in progress whose writer died is stale and goes like a
    // complete one; a live writer's is refused, as is one in use by a stream.
    const bool stale = e->state == 0 && !DepotEntryWriterAlive(s.handle(), e);
    if (e->state != 1 && !stale) {
        const int number = e->state == 0 ? msg::kDeleteInProgress : msg::kDeleteInUse;
        DepotFreeEntry(s.handle(), e);
        throw Failure(Message(number, {name.Text()}));
    }
    const std::string data = e->location ? e->location : "";
    const PalError removed = DepotRemoveEntry(s.handle(), e, PAL_TRUE);
    if (removed.palError != PAL_OK) {
        throw Failure("cannot delete the entry " + name.Text() + ": cannot remove " + data + ": " +
                      ErrorText(removed));
    }
    return kOk;
}

int Purge(const Options& o, const std::vector<std::string>& args) {
    const bool expired = args.size() == 1 && args[0] == "--expired";
    for (const auto& a : args) {
        if (a != "--expired") RefuseUnknownOption("purge", a);
    }
    if (!args.empty() && !expired) throw UsageError("purge takes only --expired");
    Session s(ResolveDepotDir(o.depot), 0, false);  // only an add spends the balance
    // The depot removes entries in one call: the progress shown is the
    // count before and the summary after, from a scan of each (made only
    // when someone watches).
    Scan before;
    if (o.progress) before = s.Entries();
    Progress progress(o.progress, "purging " + s.directory(), before.entries.size(), false);
    PalUint32 skipped = 0;
    const PalError e = expired ? DepotPurgeExpiredCounting(s.handle(), &skipped)
                               : DepotPurgeCounting(s.handle(), PAL_FALSE, &skipped);
    if (e.palError != PAL_OK && e.palError != PAL_ERR_NO_MORE) {
        progress.Finish(o.program, "purge of " + s.directory() + " failed");
        ReportSkipped(o, skipped);
        throw Failure("cannot purge the depot " + s.directory() + ": " + ErrorText(e));
    }
    if (o.progress) {
        const Scan after = s.Entries();
        uint64_t freed = 0;
        for (const auto& b : before.entries) freed += b.bytes;
        for (const auto& a : after.entries) freed -= std::min(freed, a.bytes);
        const size_t removed =
            before.entries.size() - std::min(before.entries.size(), after.entries.size());
        progress.Advance(before.entries.size());
        progress.Finish(o.program, "purged " + std::to_string(removed) + " of " +
                                       std::to_string(before.entries.size()) + " entries (" +
                                       KiBText(freed) + " freed)");
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
    struct stat a {
    }, b{};
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
        if (const PalError e = PalWaitSem(&h_->depotLock); e.palError != PAL_OK) {
            throw Failure("cannot lock the depot " + s.directory() + ": " + ErrorText(e));
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
            const bool regular =
                ::fstatat(dir, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISREG(st.st_mode);
            if (data) {
                if (regular)
                    dataNames.insert(name);
                else
                    findings.push_back({name, "is not a regular file", Action::kLostFound, {}});
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
    for (const auto& a : args) {
        if (a != "--repair") RefuseUnknownOption("check", a);
    }
    if (!args.empty() && !repair) throw UsageError("check takes only --repair");
    Session s(ResolveDepotDir(o.depot), 0, false);
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
