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

// A usage error: the usage text on standard error, exit 2.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Catalogue message `number` rendered with positional string arguments.
std::string Message(int number, const std::vector<std::string>& args = {});
// Message 141 for `seconds` since the epoch (local time), newline included.
std::string TimeText(int64_t seconds);

// A segment named "id^version".
struct SegmentName {
    std::string id;
    std::string version;
    std::string Text() const { return id + "^" + version; }
};
// Splits "id^version"; raises Failure with message 166 when either part is
// missing.
SegmentName ParseSegmentName(const std::string& text);

// "[source_host:]file": the local path, after refusing another host.
std::string LocalSourcePath(const std::string& text);

// Options shared by every command.
struct Options {
    std::string program;       // argv[0]'s last component
    std::string depot;         // the DEPOT argument as given
    uint32_t sizeKiB = 0;      // --size, else depot_size, else 0 (no accounting)
    bool sizeGiven = false;
    bool verbose = false;      // --verbose: the library's log lines on standard error
};

// The depot directory DEPOT names, made absolute ("." is this host's
// configured depot). Raises Failure when "." names nothing.
std::string ResolveDepotDir(const std::string& depot);
// depot_size from the configuration file, or 0.
uint32_t ConfiguredDepotSize();

// What the tool shows of one entry; taken from the records while the depot
// lock is held, so that no record is used after it is released.
struct EntryInfo {
    std::string id, version, location, entryFile;
    int32_t state = 0;
    int32_t referenceCount = 0;
    int32_t openCount = 0;
    int32_t writeCount = 0;
    int32_t deadline = 0;
    uint64_t bytes = 0;          // data file size
    int64_t expectedSize = -1;   // "size" of the segment description, if any
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
    // Opens (creating the directory when missing) with `sizeKiB` of
    // accounting. Raises Failure when the directory cannot be made or the
    // depot cannot be opened.
    Session(const std::string& directory, uint32_t sizeKiB);
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
