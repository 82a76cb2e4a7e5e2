// tool.h - shared pieces of fanout-depot, the administrator's tool over a
// Depot: catalogue output, argument helpers, and the open depot session.
#ifndef FANOUT_TOOLS_DEPOT_TOOL_H
#define FANOUT_TOOLS_DEPOT_TOOL_H

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "fanout/depot.h"

namespace fanout::tool {

// Exit codes. list, describe and purge exit kFailed after their output when
// entry files had to be skipped.
constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
// check: inconsistencies found and all repaired; found and left as they are
// (no --repair); some could not be repaired.
constexpr int kRepaired = 3;
constexpr int kFound = 4;
constexpr int kUnrepairable = 5;

// A failure that ends the command: one line on standard error, exit 1.
// The text is complete (catalogue texts keep their own newline).
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// A usage error: the usage text on standard error, exit 2. The text is
// complete (catalogue texts keep their own newline).
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// The catalogue messages the tool prints.
namespace msg {
constexpr int kSegmentTooLarge = 6;  // "Cannot reserve %1$d KB in the depot..."
constexpr int kDepotFull = 7;        // "Cannot reserve %1$d KB because ... no space left"
constexpr int kUsage = 134;          // the usage text, the program name eight times
constexpr int kColumnName = 135;     // the heads of list's table: "Name" ...
constexpr int kColumnVersion = 136;
constexpr int kColumnType = 137;
constexpr int kColumnSize = 138;   // "Size (KB)"
constexpr int kColumnTime = 139;   // "Update time\n"
constexpr int kTime = 141;         // a time, local, "%Y/%m/%d %H:%M:%S\n"
constexpr int kEntryNumber = 142;  // list -l, one entry: "Entry #%1$d"
constexpr int kEntryId = 143;
constexpr int kEntryVersion = 144;
constexpr int kEntryBytes = 145;  // bytes received and percent
constexpr int kEntryLocation = 146;
constexpr int kFileChangeTime = 147;  // followed by a kTime
constexpr int kFileModifyTime = 148;
constexpr int kDepotCreateTime = 149;
constexpr int kDepotAccessTime = 150;
constexpr int kDepotModifyTime = 151;
constexpr int kAccessCount = 152;
constexpr int kModificationCount = 153;
constexpr int kReferenceCount = 154;
constexpr int kStorageStatus = 155;
constexpr int kDeleteInProgress = 156;  // "Cannot delete ... the segment is locked"
constexpr int kDeleteInUse = 157;
constexpr int kDeleteMissing = 158;
constexpr int kDepotLocation = 159;  // describe's lines, sizes in KB
constexpr int kDepotSize = 160;
constexpr int kTemporaryStorage = 161;
constexpr int kPermanentStorage = 162;
constexpr int kTotalStorage = 163;
constexpr int kFreeSpace = 164;
constexpr int kBadSegmentSpec = 166;  // "...must contain both an ID and a version"
constexpr int kNotInDepot = 170;      // "%1$s was not found in the depot."
constexpr int kImageInDepot = 201;    // the warning of an image into the depot itself
}  // namespace msg

// Catalogue message `number` rendered with positional string arguments.
std::string Message(int number, const std::vector<std::string>& args = {});
// Message kTime for `seconds` since the epoch (local time), newline included.
std::string TimeText(int64_t seconds);

// One line saying what a portability-layer record means (PalErrorText).
std::string ErrorText(PalError e);
// Why the calling thread's last DepotNew, DepotAddEntry or DepotGetEntry
// failed: "<file>: <error text>", or the error text alone when no file was
// concerned. The Depot names lock files relative to the working directory,
// which is the depot directory `directory`: they are given in full.
std::string LastDepotError(const std::string& directory);
// The code of that same record.
PalInt32 LastDepotCode();

// `path` made absolute and normalised ("." and ".." components and repeated
// slashes removed, no trailing slash) without resolving links, so that a
// name reads as the user wrote it. Whether two names are one file is asked
// with SameFile, never by comparing such names.
std::string Absolute(const std::string& path);
// True when both names exist and are the same file (device and inode).
bool SameFile(const std::string& a, const std::string& b);

// A segment named "id^version".
struct SegmentName {
    std::string id;
    std::string version;
    std::string Text() const { return id + "^" + version; }
};
// Splits "id^version"; raises UsageError with message kBadSegmentSpec when
// either part is missing.
SegmentName ParseSegmentName(const std::string& text);

// "[source_host:]file": the local path, after refusing another host.
std::string LocalSourcePath(const std::string& text);

// Options shared by every command.
struct Options {
    std::string program;   // argv[0]'s last component
    std::string depot;     // the DEPOT argument as given
    uint32_t sizeKiB = 0;  // --size, else depot_size, else 0 (no accounting)
    bool sizeGiven = false;
    bool verbose = false;   // --verbose: the library's log lines on standard error
    bool progress = false;  // standard error is a terminal: progress and summaries
};

// A depot directory, absolute, and what named it when DEPOT was "." (the
// configuration key or environment variable, for messages; else empty).
struct DepotDir {
    std::string path;
    std::string origin;
};
// The depot directory DEPOT names ("." is this host's configured depot: the
// configuration's depot_dir, else "depot" under ZEL_DATDIR). Raises Failure
// when "." names nothing, or when FANOUT_CONFIG names a file that cannot be
// read.
DepotDir ResolveDepotDir(const std::string& depot);
// depot_size from the configuration file, or 0 (also without FANOUT_CONFIG).
// Raises Failure when FANOUT_CONFIG names a file that cannot be read.
uint32_t ConfiguredDepotSize();

// Progress of a long operation on standard error, drawn over one line while
// it runs, then replaced by a one-line summary. Does nothing at all unless
// standard error is a terminal (Options::progress).
class Progress {
  public:
    // `what` leads the line ("adding seg^1"); `total` is in bytes or items.
    Progress(bool shown, std::string what, uint64_t total, bool bytes);
    // Redraws the line when the percentage shown changes.
    void Advance(uint64_t done);
    // The summary line, program name first, newline added.
    void Finish(const std::string& program, const std::string& summary);

  private:
    bool shown_, bytes_;
    std::string what_;
    uint64_t total_;
    int percent_ = -1;
};

// What the tool shows of one entry; taken from the records while the depot
// lock is held, so that no record is used after it is released.
struct EntryInfo {
    std::string id, version, location, entryFile;
    int32_t state = 0;
    int32_t referenceCount = 0;
    int32_t openCount = 0;
    int32_t writeCount = 0;
    int32_t deadline = 0;
    uint64_t bytes = 0;            // data file size
    int64_t expectedSize = -1;     // "size" of the segment description, if any
    int64_t ctime = 0, mtime = 0;  // of the segment description
    int64_t entryCreated = 0, dataAccessed = 0, dataModified = 0;
};

// What the segment description stored with an entry says (-1/0 when absent
// or when it does not decode).
struct Description {
    int64_t size = -1;
    int64_t ctime = 0, mtime = 0;
};
Description DescriptionOf(const DepotEntry* entry);

// The entries a walk of the depot could use, and how many entry files it had
// to skip: unreadable, not regular files, not parseable, naming a location
// outside the depot, or whose data file is missing.
struct Scan {
    std::vector<EntryInfo> entries;  // sorted by id and version
    uint32_t skipped = 0;
};

// An open depot. The process works inside the depot directory, so that the
// lock files every user of the depot shares are the depot's own.
class Session {
  public:
    // Opens with `sizeKiB` of accounting; a missing directory is made when
    // `create` is set (only add does) and is a failure otherwise. Raises
    // Failure when the directory is missing or cannot be made, or when the
    // depot cannot be opened (naming the lock file when that was the cause).
    Session(const DepotDir& directory, uint32_t sizeKiB, bool create);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    DepotHandle* handle() const { return handle_; }
    const std::string& directory() const { return directory_; }

    // Every entry that can be used, and the count of those skipped.
    Scan Entries();
    // KiB of every regular data file ("*.dat") in the depot directory,
    // whether an entry names it or not.
    uint32_t StoredKiB();

  private:
    DepotHandle* handle_ = nullptr;
    std::string directory_;
};

// The commands; each returns the exit code or raises Failure.
int Describe(const Options& o);
int Add(const Options& o, const std::vector<std::string>& args);
int Image(const Options& o, const std::vector<std::string>& args);
int List(const Options& o, const std::vector<std::string>& args);
int Delete(const Options& o, const std::vector<std::string>& args);
int Purge(const Options& o, const std::vector<std::string>& args);
int Check(const Options& o, const std::vector<std::string>& args);

// Says on standard error that `skipped` entry files were left out and points
// at check; returns the exit code the command ends with (kFailed when any
// was skipped, else kOk).
int ReportSkipped(const Options& o, uint32_t skipped);

// The segment description stored with an entry and written to an image's
// table of contents: id, version, size, location, ctime, mtime. Returns the
// marshalled property list.
std::vector<uint8_t> SegmentDescription(const SegmentName& name, const std::string& location,
                                        int64_t size, int64_t ctime, int64_t mtime);

}  // namespace fanout::tool

#endif  // FANOUT_TOOLS_DEPOT_TOOL_H
