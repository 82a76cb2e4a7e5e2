// commands.cpp - the commands of fanout-depot.
//
// Every command that changes the depot leaves it whole when it fails: an
// add that cannot copy its file removes the entry it made and gives its
// reservation back, and an image is written under temporary names and
// renamed into place only once complete.
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "fanout/depot.h"
#include "fanout/keys.h"
#include "fanout/palfile.h"
#include "fanout/properties.h"
#include "fanout/types.h"
#include "tool.h"

namespace fanout::tool {

namespace {

// Open flags of the portability layer.
constexpr PalInt32 kReadOnly = 0x1;
constexpr PalInt32 kWriteCreateTruncate = 0x2 | 0x100 | 0x200;
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
            const time_t t = mktime(&tm);
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
    const uint32_t temporary = s.TemporaryKiB();
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
    return kOk;
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
        // A complete segment is reused, not stored twice.
        DepotFreeEntry(h, entry);
        DepotUnreserveDiskSpace(h, kib);
        Print(name.Text() + " is already in the depot\n");
        return kOk;
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
    const std::string dataPart = data + ".part", tocPart = toc + ".part";
    auto fail = [&](const std::string& why) {
        ::unlink(dataPart.c_str());
        ::unlink(tocPart.c_str());
        throw Failure("cannot write the image of " + name.Text() + ": " + why);
    };
    if (Absolute(data) != source.path) {
        std::string why;
        {
            PalFile in, out;
            if (PalFileOpen(&in.f, source.path.c_str(), kReadOnly).palError != PAL_OK) {
                why = "cannot open " + source.path;
            } else if (PalFileOpen(&out.f, dataPart.c_str(), kWriteCreateTruncate).palError !=
                       PAL_OK) {
                why = "cannot create " + dataPart + ": " + std::strerror(errno);
            } else {
                CopyAll(in.f, out.f, &why);
            }
        }
        if (!why.empty()) fail(why);
    }
    // The table of contents: a property list whose nested "segment" list
    // describes the segment, stored without a length word.
    Properties segment{}, top{};
    try {
        const std::vector<uint8_t> encoded =
            SegmentDescription(name, data, source.size, source.ctime, source.mtime);
        properties_decode(TC_Kel_Fanout2_Properties, encoded.data(),
                          static_cast<uint32_t>(encoded.size()), &segment);
        properties_put_properties_dup(&top, "segment", &segment);
        properties_save_without_len(&top, tocPart.c_str());
    } catch (...) {
        kel_free_generic(&segment, TC_Kel_Fanout2_Properties);
        kel_free_generic(&top, TC_Kel_Fanout2_Properties);
        fail("cannot write " + tocPart);
    }
    kel_free_generic(&segment, TC_Kel_Fanout2_Properties);
    kel_free_generic(&top, TC_Kel_Fanout2_Properties);
    if (Absolute(data) != source.path && ::rename(dataPart.c_str(), data.c_str()) != 0) {
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
    std::vector<EntryInfo> shown;
    for (auto& e : s.Entries()) {
        if (filter.empty() || (e.id == wanted.id && e.version == wanted.version)) {
            shown.push_back(e);
        }
    }
    if (!filter.empty() && shown.empty()) throw Failure(Message(170, {filter}));
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
        return kOk;
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
    return kOk;
}

int Delete(const Options& o, const std::vector<std::string>& args) {
    if (args.size() != 1) throw UsageError("delete needs one id^version");
    const SegmentName name = ParseSegmentName(args[0]);
    Session s(ResolveDepotDir(o.depot), 0);  // only an add spends the balance
    DepotEntry* e = DepotGetEntry(s.handle(), name.id.c_str(), name.version.c_str());
    if (e == nullptr) throw Failure(Message(158, {name.Text()}));
    if (e->state != 1) {
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
    const PalError e =
        expired ? DepotPurgeExpiredEntries(s.handle()) : DepotPurge(s.handle(), PAL_FALSE);
    if (e.palError != PAL_OK && e.palError != PAL_ERR_NO_MORE) {
        throw Failure("cannot purge the depot " + s.directory() + " (error " +
                      std::to_string(e.palError) + ")");
    }
    return kOk;
}

}  // namespace fanout::tool
