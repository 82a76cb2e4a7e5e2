// dist.h - what the distribution programs share: the wire they add on top of
// the transport (authentication, the distribution message, the table of
// contents exchange), the sending side, the receiving side and the small
// helpers of a command-line program. docs/distribution.md describes the
// wire; each program's man page its options.
#ifndef FANOUT_TOOLS_COMMON_DIST_H
#define FANOUT_TOOLS_COMMON_DIST_H

#include <csignal>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "fanout/transport.h"
#include "fanout/types.h"

namespace fanout::dist {

// Exit statuses of every program.
constexpr int kDone = 0;
constexpr int kFailed = 1;
constexpr int kUsage = 2;
constexpr int kPaused = 3;
constexpr int kCancelled = 4;

// A failure that ends one distribution: the text says what and why.
struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};
// A command line that cannot be used: the usage text follows.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// ---------------------------------------------------------------- support

// Process set-up shared by the programs: strict depot locks unless the
// environment says otherwise, no SIGPIPE, stdout line-buffered.
void SetUpProcess();

// SIGINT (cancel) and SIGUSR1 (pause) recorded for the sending side; SIGTERM
// too (cancel) for a serving receiver. 0 until one arrives, then
// kCancelled or kPaused.
void InstallStopSignals();
int StopRequested();

// The absolute form of a path (relative to the current directory).
std::string Absolute(const std::string& path);
// Creates the directory (and its parents) when missing; raises Failure.
void MakeDirs(const std::string& dir);
// The whole content of a small file; raises Failure.
std::string ReadSmallFile(const std::string& path, size_t limit);

// The catalogue text of a raised record, without its trailing newline.
std::string Trimmed(const std::string& text);
// The words of the exception being handled, for a result's message: a raised
// record's catalogue text (Trimmed), another exception's what(). Call only
// inside a catch block.
std::string CurrentFailureText();

// A progress bar on standard error, drawn only when it is a terminal.
class ProgressBar {
  public:
    ProgressBar(const std::string& label, uint64_t total);
    ~ProgressBar();
    void Advance(uint64_t bytes);  // bytes moved since the last call
    void Finish();

  private:
    void Draw(bool last);
    std::string label_;
    uint64_t total_, done_ = 0;
    bool enabled_;
    double start_, last_draw_ = 0;
};

// ---------------------------------------------------------------- the wire

// One segment of a distribution as the programs see it.
struct SegmentInfo {
    std::string id;
    std::string version;
    int64_t size = 0;    // 0 .. INT32_MAX
    int64_t offset = 0;  // what the receiver already has
    std::string path;    // the sender's file (sending side only)
};

// The distribution: its id and its segments in table-of-contents order.
struct Distribution {
    std::string id;
    std::vector<SegmentInfo> segments;
};

// Limits a receiver applies to what a sender announces.
constexpr size_t kMaxSegments = 100000;
constexpr size_t kMaxNameLength = 255;

// An id or version that may name files: not empty, at most kMaxNameLength
// octets, no "/", "\", "..", "<", ">", "&", ",", no control characters, not
// "." alone. `what` names it in the message of the Failure raised.
void CheckName(const std::string& name, const char* what);

// True when the address ("unix:PATH" or "tcp:HOST:PORT") stays on this
// machine: a Unix socket, or a TCP host that is empty, "*", "localhost",
// 127.x.y.z or ::1.
bool IsLoopback(const std::string& address);

// The shared secret of --token-file (trailing line ends dropped); raises
// Failure for an empty or unreadable file.
std::string ReadToken(const std::string& path);

// Authentication, the first exchange on a connection. The receiving side
// sends a DATA frame: status octet 1 and, when it holds a token, a 32-octet
// challenge. With a challenge the sending side answers with a DATA frame of
// HMAC-SHA256(token, challenge). Both raise Failure when it does not work
// out; the receiver compares in constant time.
void ReceiverAuthenticate(FanoutChannel* ch, const std::string& token);
void SenderAuthenticate(FanoutChannel* ch, const std::string& token);

// The distribution message: a property list with "type", "recv_meth", "id",
// "size" and the table of contents under "j_toc", sent as a DATA frame
// (status octet 1, then the encoded list).
void SendDistribution(FanoutChannel* ch, const Distribution& d);
// Receives and validates it (names, sizes, duplicates, counts); raises
// Failure with the reason.
Distribution ReceiveDistribution(FanoutChannel* ch);

// The table of contents as a PropertiesList with each segment's "offset";
// encoded with properties_encode into a std::string of octets.
PropertiesList* MakeToc(const Distribution& d, bool with_offsets);
std::string EncodeToc(const Distribution& d);

// A receiver's refusal: a DATA frame with status octet 2 and the reason.
void SendRefusal(FanoutChannel* ch, const std::string& reason);

// ---------------------------------------------------------------- sending

struct SendOptions {
    std::string target;  // unix:PATH or tcp:HOST:PORT
    std::string token;   // empty: no token
    int32_t block_size = 256 * 1024;
    bool quiet = false;  // no summary line on standard output
};

struct SendResult {
    int status = kDone;     // kDone, kPaused, kCancelled, kFailed
    uint64_t bytes = 0;     // data bytes sent
    uint32_t segments = 0;  // segments the receiver still needed
    std::string message;    // failure text
};

// A distribution whose data files are still being written: what a relay
// forwards while it receives. The sender reads a segment only below what
// Available says and waits for more; it never looks past that.
class Feed {
  public:
    static constexpr int kRunning = -1;
    virtual ~Feed() = default;
    // The bytes of segment `index` that may be read now, from the start of
    // its data file; the whole size only once its entry is complete.
    virtual int64_t Available(size_t index) = 0;
    // kRunning while more data may come, else the distribution's final
    // status (kDone, kPaused, kCancelled, kFailed) with the failure text.
    virtual int Outcome(std::string* why) = 0;
    // Blocks until Available or Outcome may have changed (spurious returns
    // are allowed: the caller looks again).
    virtual void Wait() = 0;
    // The data file of segment `index`, once it has bytes; raises Failure.
    virtual std::string Path(size_t index) = 0;
};

// Sends `d` (segments with size and path) to opts.target: connects,
// authenticates, sends the message, learns the receiver's offsets and sends
// what is missing. SIGINT and SIGUSR1 (InstallStopSignals) cancel and pause.
// With a feed the segments' bytes are read from its growing files instead
// of `path`, and the feed's outcome ends the data: a pause once everything
// available is sent, a cancel or a failure at once. Never raises.
SendResult SendTo(const SendOptions& opts, const Distribution& d, Feed* feed = nullptr);

// ---------------------------------------------------------------- receiving

// Told what a receiver holds while it receives (a relay forwards from it).
// Called on the receiving thread; must not raise.
class ReceiveObserver {
  public:
    virtual ~ReceiveObserver() = default;
    // The distribution is accepted: each segment's offset is what the depot
    // already holds (its size when complete). `upstream_fd` is the
    // connection to the sender, which a forked process must not keep open.
    virtual void Accepted(const Distribution& d, int upstream_fd) = 0;
    // Segment `index` has `bytes` in its data file; `complete` once its
    // entry is complete in the depot.
    virtual void Stored(size_t index, int64_t bytes, bool complete) = 0;
    // The distribution has ended (after Accepted): its status and why.
    virtual void Ended(int status, const std::string& message) = 0;
};

struct ReceiveOptions {
    std::string depot;      // absolute depot directory (the current directory)
    uint32_t size_kib = 0;  // the depot's storage limit; 0: no accounting
    bool mobile = false;    // keep the progress file
    std::string out;        // copy finished segments here when not empty
    std::string token;      // empty: no authentication
    int32_t deadline_days = 30;
    uint64_t kill_after = 0;              // test knob: SIGKILL itself after this many bytes
    ReceiveObserver* observer = nullptr;  // not owned; null: nobody
};

struct ReceiveResult {
    int status = kDone;
    Distribution dist;    // what was received (segments with the depot's files)
    uint64_t bytes = 0;   // bytes read from the network
    bool local = false;   // everything was already in the depot
    std::string message;  // failure text
};

// A relay's forwarding, while it receives: when a distribution is accepted
// it forks one process per target, each a sender (SendTo with a Feed) of
// what the relay's depot holds so far. The receiving side publishes each
// segment's written bytes and the final outcome in memory shared with them
// and wakes them through one pipe each; it never waits for them until
// Finish. relay.cpp has the details.
class RelayForwarder : public ReceiveObserver {
  public:
    // `listen_fd` is closed in the forwarding processes.
    RelayForwarder(const std::string& depot, std::vector<std::string> targets, std::string token,
                   int listen_fd);
    ~RelayForwarder() override;
    RelayForwarder(const RelayForwarder&) = delete;
    RelayForwarder& operator=(const RelayForwarder&) = delete;

    void Accepted(const Distribution& d, int upstream_fd) override;
    void Stored(size_t index, int64_t bytes, bool complete) override;
    void Ended(int status, const std::string& message) override;
    // Waits for every forwarding process; the worst of their statuses
    // (kDone when nothing was accepted).
    int Finish();

  private:
    struct Shared;
    void Ring();
    void CloseBells();
    void RunChild(const std::string& target, const Distribution& d, int bell);

    std::string depot_, token_;
    std::vector<std::string> targets_;
    int listen_fd_;
    Shared* shared_ = nullptr;
    size_t map_size_ = 0;
    std::vector<int64_t> sizes_;
    std::vector<int> bells_;  // write ends, one per forwarding process
    std::vector<int> pids_;
    int64_t rung_ = 0;  // the count the doorbells last rang for
    int worst_ = kDone;
};

// Receives one distribution from the connection `ch` (adopted: closed when
// the call ends) into the depot. Never raises.
ReceiveResult ReceiveFrom(FanoutChannel* ch, const ReceiveOptions& opts);

// The segments of the distribution as files of the depot (for forwarding
// and --out): fills each segment's `path` from its complete entry. Raises
// Failure when one is not complete or, unless take_sizes, has another size
// than the segment's; with take_sizes the sizes are read from the depot.
void LocateInDepot(const std::string& depot, Distribution* d, bool take_sizes = false);

// The whole of fanout-receive (relay false) and fanout-relay (true): the
// command line, start-up checks and the serving loop. Returns the exit
// status.
int Serve(const char* program, int argc, char** argv, bool relay);

// One line on standard output about a finished distribution.
void Report(const char* program, const std::string& distid, int status, const std::string& text);

}  // namespace fanout::dist

#endif  // FANOUT_TOOLS_COMMON_DIST_H
