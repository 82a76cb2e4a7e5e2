// support.cpp - what every fanout-depot command needs: catalogue texts,
// segment names and sources, the configured depot, and the open session.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "fanout/catalog.h"
#include "fanout/exception.h"
#include "fanout/keys.h"
#include "fanout/log.h"
#include "fanout/palerror.h"
#include "fanout/pallock.h"
#include "fanout/properties.h"
#include "fanout/runtime.h"
#include "fanout/types.h"
#include "tool.h"

namespace fanout::tool {

namespace {

struct MgFree {
    void operator()(void* p) const { mg_free(p); }
};
using MgString = std::unique_ptr<char, MgFree>;

// A property list on the stack whose contents are freed on the way out.
struct PropertiesGuard {
    Properties list{};
    ~PropertiesGuard() { kel_free_generic(&list, TC_Kel_Fanout2_Properties); }
};

// The value of `key` in the configuration file, or "" when FANOUT_CONFIG is
// not set or the file does not hold the key. A file that FANOUT_CONFIG names
// but that cannot be read is a failure: the user asked for it.
std::string ConfigValue(const char* key) {
    MgString file(mrt_get_config_filespec());
    if (!file || *file.get() == '\0') return {};
    char* value = nullptr;
    if (const int32_t error = mrt_get_config_from_file(file.get(), key, &value); error != 0) {
        throw Failure("cannot read the configuration file " + std::string(file.get()) +
                      " named by FANOUT_CONFIG: " + std::strerror(error));
    }
    MgString owned(value);
    return owned ? std::string(owned.get()) : std::string();
}

bool IsDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// mkdir -p with mode 0700 for every directory it has to make.
bool MakeDirectories(const std::string& path) {
    if (IsDirectory(path)) return true;
    const auto slash = path.rfind('/');
    if (slash != std::string::npos && slash > 0 && !MakeDirectories(path.substr(0, slash))) {
        return false;
    }
    return ::mkdir(path.c_str(), 0700) == 0 || (errno == EEXIST && IsDirectory(path));
}

int64_t Seconds(const struct timespec& t) {
    return static_cast<int64_t>(t.tv_sec);
}

}  // namespace

std::string Message(int number, const std::vector<std::string>& args) {
    std::vector<const char*> argv;
    for (const auto& a : args) argv.push_back(a.c_str());
    MgString text(
        ex_render_text(Fanout2Catalog[number], argv.data(), static_cast<uint32_t>(argv.size())));
    return text ? std::string(text.get()) : std::string();
}

std::string TimeText(int64_t seconds) {
    return Message(msg::kTime, {std::to_string(seconds)});
}

std::string ErrorText(PalError e) {
    char text[PAL_ERROR_TEXT_SIZE];
    PalErrorText(e, text, sizeof text);
    return text;
}

std::string LastDepotError(const std::string& directory) {
    const PalChar* file = nullptr;
    const PalError e = DepotGetLastError(&file);
    std::string name = file != nullptr ? file : "";
    if (name.empty()) return ErrorText(e);
    if (name.front() != '/') name = directory + "/" + name;
    return name + ": " + ErrorText(e);
}

PalInt32 LastDepotCode() {
    return DepotGetLastError(nullptr).palError;
}

std::string Absolute(const std::string& path) {
    std::error_code ignored;
    std::string text = std::filesystem::absolute(path, ignored).lexically_normal().string();
    if (text.empty()) text = path;
    while (text.size() > 1 && text.back() == '/') text.pop_back();
    return text;
}

bool SameFile(const std::string& a, const std::string& b) {
    struct stat x {};
    struct stat y {};
    return ::stat(a.c_str(), &x) == 0 && ::stat(b.c_str(), &y) == 0 && x.st_dev == y.st_dev &&
           x.st_ino == y.st_ino;
}

Progress::Progress(bool shown, std::string what, uint64_t total, bool bytes)
    : shown_(shown), bytes_(bytes), what_(std::move(what)), total_(total) {
    Advance(0);
}

void Progress::Advance(uint64_t done) {
    if (!shown_) return;
    const int percent = total_ == 0 ? 100 : static_cast<int>(std::min(done, total_) * 100 / total_);
    if (percent == percent_) return;
    percent_ = percent;
    if (bytes_) {
        std::fprintf(stderr, "\r%s: %3d%% (%u of %u KB)", what_.c_str(), percent,
                     ConvertDataSize(done), ConvertDataSize(total_));
    } else {
        std::fprintf(stderr, "\r%s: %3d%% (%llu of %llu)", what_.c_str(), percent,
                     static_cast<unsigned long long>(done),
                     static_cast<unsigned long long>(total_));
    }
    std::fflush(stderr);
}

void Progress::Finish(const std::string& program, const std::string& summary) {
    if (!shown_) return;
    // "\033[K" clears what is left of the progress line.
    std::fprintf(stderr, "\r\033[K%s: %s\n", program.c_str(), summary.c_str());
    shown_ = false;
}

SegmentName ParseSegmentName(const std::string& text) {
    const auto caret = text.find('^');
    if (caret == std::string::npos || caret == 0 || caret + 1 == text.size() ||
        text.find('^', caret + 1) != std::string::npos) {
        throw UsageError(Message(msg::kBadSegmentSpec));
    }
    return {text.substr(0, caret), text.substr(caret + 1)};
}

std::string LocalSourcePath(const std::string& text) {
    std::string path = text;
    const auto colon = text.find(':');
    // "host:file" when what comes before the first colon could be a host
    // name; a path with a directory before the colon is a plain path.
    if (colon != std::string::npos && colon > 0 && text.find('/') > colon) {
        const std::string host = text.substr(0, colon);
        char name[HOST_NAME_MAX + 1] = {};
        ::gethostname(name, sizeof name - 1);
        const std::string self = name;
        const std::string shortSelf = self.substr(0, self.find('.'));
        if (host != self && host != shortSelf && host != "localhost") {
            throw Failure("cannot take " + text + ": the file is on host " + host +
                          "; only files of this host can be stored (copy it here first)");
        }
        path = text.substr(colon + 1);
    }
    if (path.empty()) throw Failure("no file named in " + text);
    struct stat st {};
    if (::stat(path.c_str(), &st) != 0) {
        throw Failure("cannot read " + path + ": " + std::strerror(errno));
    }
    if (!S_ISREG(st.st_mode)) throw Failure("cannot read " + path + ": not a regular file");
    if (::access(path.c_str(), R_OK) != 0) {
        throw Failure("cannot read " + path + ": " + std::strerror(errno));
    }
    return Absolute(path);
}

DepotDir ResolveDepotDir(const std::string& depot) {
    if (depot != ".") return {Absolute(depot), {}};
    // This host's depot: the configured "depot_dir", else "depot" under
    // ZEL_DATDIR, as the endpoint's search finds it. Whether it exists is
    // the session's question, so that its message names where it came from.
    if (const std::string dir = ConfigValue("depot_dir"); !dir.empty()) {
        MgString file(mrt_get_config_filespec());
        return {Absolute(dir), "depot_dir in " + std::string(file.get())};
    }
    const char* data = cpl_getenv("ZEL_DATDIR");
    if (data != nullptr && *data != '\0') {
        return {Absolute(std::string(data) + "/depot"), "ZEL_DATDIR is " + std::string(data)};
    }
    throw Failure(
        "no depot is configured for this host (set depot_dir in the configuration file "
        "named by FANOUT_CONFIG, or ZEL_DATDIR)");
}

uint32_t ConfiguredDepotSize() {
    const std::string text = ConfigValue("depot_size");
    if (text.empty()) return 0;
    char* end = nullptr;
    const unsigned long long v = std::strtoull(text.c_str(), &end, 10);
    return (*end == '\0' && v <= 0xFFFFFFFFull) ? static_cast<uint32_t>(v) : 0;
}

std::vector<uint8_t> SegmentDescription(const SegmentName& name, const std::string& location,
                                        int64_t size, int64_t ctime, int64_t mtime) {
    PropertiesGuard p;
    properties_put_string_dup(&p.list, SEGMENT_ID_KEY, name.id.c_str());
    properties_put_string_dup(&p.list, SEGMENT_VERSION_KEY, name.version.c_str());
    properties_put_long_dup(&p.list, SEGMENT_SIZE_KEY, static_cast<int32_t>(size));
    properties_put_string_dup(&p.list, SEGMENT_LOCATION_KEY, location.c_str());
    properties_put_long_dup(&p.list, SEGMENT_CTIME_KEY, static_cast<int32_t>(ctime));
    properties_put_long_dup(&p.list, SEGMENT_MTIME_KEY, static_cast<int32_t>(mtime));
    void* data = nullptr;
    uint32_t length = 0;
    properties_encode(TC_Kel_Fanout2_Properties, &p.list, &data, &length);
    std::unique_ptr<void, MgFree> owned(data);
    const auto* bytes = static_cast<const uint8_t*>(data);
    return std::vector<uint8_t>(bytes, bytes + length);
}

Session::Session(const DepotDir& dir, uint32_t sizeKiB, bool create) : directory_(dir.path) {
    const std::string named = dir.origin.empty() ? "" : " (" + dir.origin + ")";
    if (create) {
        if (!MakeDirectories(directory_)) {
            throw Failure("cannot create the depot directory " + directory_ + named + ": " +
                          std::strerror(errno));
        }
    } else if (struct stat st{}; ::stat(directory_.c_str(), &st) != 0) {
        // Only add makes a depot: a mistyped name is not silently created.
        const int error = errno;
        throw Failure("no depot at " + directory_ + named + ": " + std::strerror(error) +
                      (error == ENOENT ? " (only add creates a depot)" : ""));
    } else if (!S_ISDIR(st.st_mode)) {
        throw Failure("no depot at " + directory_ + named + ": not a directory");
    }
    // The lock files are opened by bare name in the current directory; every
    // user of this depot through the tool shares them by working inside it.
    if (::chdir(directory_.c_str()) != 0) {
        throw Failure("cannot enter the depot directory " + directory_ + ": " +
                      std::strerror(errno));
    }
    DepotNew(&handle_, directory_.c_str(), sizeKiB);
    if (handle_ == nullptr) {
        throw Failure("cannot open the depot " + directory_ + ": " + LastDepotError(directory_));
    }
    if (sizeKiB != 0) {
        // The balance starts at the limit in every process; what the depot
        // already holds counts against it.
        DepotReserveDiskSpace(handle_, std::min(StoredKiB(), sizeKiB));
    }
}

Session::~Session() {
    if (handle_ != nullptr) DepotFree(handle_);
}

Description DescriptionOf(const DepotEntry* e) {
    Description d;
    if (e == nullptr || e->properties == nullptr || e->propertiesLength == 0) return d;
    // The description is the service's own data: a list that does not
    // decode is taken as no description.
    PropertiesGuard p;
    struct Decoding {
        const DepotEntry* entry;
        Properties* list;
    } job{e, &p.list};
    fanout_call(
        [](void* arg) {
            auto* j = static_cast<Decoding*>(arg);
            properties_decode(TC_Kel_Fanout2_Properties, j->entry->properties,
                              j->entry->propertiesLength, j->list);
        },
        &job, nullptr);
    auto field = [&](const char* key, int64_t fallback) -> int64_t {
        const int32_t i = properties_get_property_index(&p.list, key);
        if (i < 0 || !TypeCode_equal(p.list.buffer[i].value._type, TC_long)) return fallback;
        return *static_cast<int32_t*>(p.list.buffer[i].value._value);
    };
    d.size = field(SEGMENT_SIZE_KEY, -1);
    d.ctime = field(SEGMENT_CTIME_KEY, 0);
    d.mtime = field(SEGMENT_MTIME_KEY, 0);
    return d;
}

Scan Session::Entries() {
    Scan scan;
    const PalError locked = PalWaitSem(&handle_->depotLock);
    if (locked.palError != PAL_OK) {
        throw Failure("cannot lock the depot " + directory_ + ": " + ErrorText(locked));
    }
    DepotEnum* walk = nullptr;
    const PalError opened = DepotEnumNew(handle_, &walk);
    if (opened.palError != PAL_OK || walk == nullptr) {
        PalPostSem(&handle_->depotLock);
        throw Failure("cannot read the depot directory " + directory_ + ": " + ErrorText(opened));
    }
    {
        PalUint32 skipped = 0;
        while (DepotEntry* e = DepotEntryEnumNextReadable(walk, &skipped)) {
            EntryInfo info;
            info.id = e->id ? e->id : "";
            info.version = e->version ? e->version : "";
            info.location = e->location ? e->location : "";
            info.entryFile = e->entryFilePath ? e->entryFilePath : "";
            info.state = e->state;
            info.referenceCount = e->referenceCount;
            info.openCount = e->openCount;
            info.writeCount = e->writeCount;
            info.deadline = e->deadline;
            const Description d = DescriptionOf(e);
            info.expectedSize = d.size;
            info.ctime = d.ctime;
            info.mtime = d.mtime;
            // The record is the handle's; it is given back as soon as it has
            // been read (the depot lock is held: no DepotFreeEntry here).
            DepotFreeEntry_internal(handle_, e);
            struct stat st {};
            if (::lstat(info.location.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
                ++scan.skipped;  // an entry without its data file is damaged
                continue;
            }
            info.bytes = static_cast<uint64_t>(st.st_size);
            info.dataAccessed = Seconds(st.st_atim);
            info.dataModified = Seconds(st.st_mtim);
            if (::lstat(info.entryFile.c_str(), &st) == 0) info.entryCreated = Seconds(st.st_ctim);
            scan.entries.push_back(std::move(info));
        }
        scan.skipped += skipped;
        DepotEntryEnumDelete(walk);
    }
    PalPostSem(&handle_->depotLock);
    std::sort(scan.entries.begin(), scan.entries.end(), [](const EntryInfo& a, const EntryInfo& b) {
        return a.id != b.id ? a.id < b.id : a.version < b.version;
    });
    return scan;
}

uint32_t Session::StoredKiB() {
    uint64_t total = 0;
    if (DIR* d = ::opendir(directory_.c_str())) {
        while (const dirent* e = ::readdir(d)) {
            const size_t n = std::strlen(e->d_name);
            if (n <= 3 || std::strcmp(e->d_name + n - 3, "dat") != 0) continue;
            struct stat st {};
            if (::fstatat(::dirfd(d), e->d_name, &st, AT_SYMLINK_NOFOLLOW) == 0 &&
                S_ISREG(st.st_mode)) {
                total += ConvertDataSize(static_cast<uint64_t>(st.st_size));
            }
        }
        ::closedir(d);
    }
    return total > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<uint32_t>(total);
}

int ReportSkipped(const Options& o, uint32_t skipped) {
    if (skipped == 0) return kOk;
    std::fprintf(stderr,
                 "%s: %u entry file%s of the depot could not be used (unreadable, damaged or "
                 "without data) and %s left out; \"%s %s check\" tells more\n",
                 o.program.c_str(), skipped, skipped == 1 ? "" : "s", skipped == 1 ? "was" : "were",
                 o.program.c_str(), o.depot.c_str());
    return kFailed;
}

}  // namespace fanout::tool
