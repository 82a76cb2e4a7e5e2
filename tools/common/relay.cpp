// relay.cpp - how fanout-relay forwards a distribution while it is still
// receiving it.
//
// 1. When the receiving side has accepted a distribution (its depot's offsets
//    are known, nothing has been read yet) the relay maps a small anonymous
//    shared region and forks one forwarding process per target. Each is a
//    sender whose segments are the relay's depot entries (SendTo with a
//    Feed): it learns its target's own offsets and sends from there.
// 2. The shared region holds, per segment, how many bytes a forwarding
//    process may read from the data file, and the distribution's outcome.
//    The receiving side raises a segment's count after every write; while
//    the entry is not complete the count stops one byte short of the size,
//    so a target never completes a segment before the relay has. The count
//    never exceeds what was written, so nothing past the data file's end is
//    read.
// 3. Every MiB written, every completed segment and the end ring each
//    process's doorbell, a pipe written without blocking: a full pipe
//    already wakes its reader, so a slow or stuck target never holds up the
//    receiving side or the other targets. Data are never kept in memory:
//    each process reads the depot files itself.
// 4. The outcome is stored after the message, then the doorbells rung and
//    closed. A doorbell that closes while the outcome still says running
//    means the receiving side died (a crash, SIGKILL): its forwarding
//    processes cancel their targets, which keep their checkpoints.
// 5. Targets end as the upstream did: END only once the relay has the whole
//    distribution; after a pause, a pause once everything the relay holds has
//    been sent; after a cancel or a failure, a cancel at once.
#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

#include "dist.h"
#include "fanout/depot.h"

namespace fanout::dist {

struct RelayForwarder::Shared {
    std::atomic<int32_t> outcome{Feed::kRunning};
    char message[512] = {};  // written before outcome leaves kRunning
    // followed by one std::atomic<int64_t> per segment
    std::atomic<int64_t>* available() {
        return reinterpret_cast<std::atomic<int64_t>*>(reinterpret_cast<char*>(this) + Offset());
    }
    static constexpr size_t Offset() {
        return (sizeof(Shared) + alignof(std::atomic<int64_t>) - 1) /
               alignof(std::atomic<int64_t>) * alignof(std::atomic<int64_t>);
    }
};

namespace {

constexpr int64_t kRingEvery = 1024 * 1024;

static_assert(std::atomic<int64_t>::is_always_lock_free &&
                  std::atomic<int32_t>::is_always_lock_free,
              "the shared counters must work across processes");

// The forwarding process's view of the relay's depot.
class DepotFeed : public Feed {
  public:
    DepotFeed(std::atomic<int32_t>* outcome, const char* message, std::atomic<int64_t>* available,
              int bell, const std::string& depot, const Distribution& d)
        : outcome_(outcome),
          message_(message),
          available_(available),
          bell_(bell),
          depot_dir_(depot),
          d_(d) {}
    ~DepotFeed() override {
        if (depot_ != nullptr) (void)DepotFree(depot_);
    }
    DepotFeed(const DepotFeed&) = delete;
    DepotFeed& operator=(const DepotFeed&) = delete;

    int64_t Available(size_t index) override {
        return available_[index].load(std::memory_order_acquire);
    }

    int Outcome(std::string* why) override {
        const int o = outcome_->load(std::memory_order_acquire);
        if (o != kRunning) {
            *why = std::string(message_, strnlen(message_, 511));
            return o;
        }
        if (gone_) {
            *why = "the relay stopped receiving";
            return kFailed;
        }
        return kRunning;
    }

    void Wait() override {
        if (gone_) return;
        pollfd p{bell_, POLLIN, 0};
        // A signal ends the wait too: the sender looks at its stop flag.
        if (poll(&p, 1, -1) <= 0) return;
        char rings[4096];
        const ssize_t n = read(bell_, rings, sizeof rings);
        if (n == 0 || (n < 0 && errno != EINTR && errno != EAGAIN)) gone_ = true;
    }

    std::string Path(size_t index) override {
        const SegmentInfo& s = d_.segments[index];
        if (depot_ == nullptr) (void)DepotNew(&depot_, depot_dir_.c_str(), 0);
        if (depot_ == nullptr) throw Failure("cannot open the depot " + depot_dir_);
        DepotEntry* e = DepotGetEntry(depot_, s.id.c_str(), s.version.c_str());
        if (e == nullptr || e->location == nullptr) {
            if (e != nullptr) (void)DepotFreeEntry(depot_, e);
            throw Failure("segment " + s.id + "^" + s.version + " is not in " + depot_dir_);
        }
        std::string path = e->location;
        (void)DepotFreeEntry(depot_, e);
        return path;
    }

  private:
    std::atomic<int32_t>* outcome_;
    const char* message_;
    std::atomic<int64_t>* available_;
    int bell_;
    bool gone_ = false;
    std::string depot_dir_;
    const Distribution& d_;
    DepotHandle* depot_ = nullptr;
};

}  // namespace

RelayForwarder::RelayForwarder(const std::string& depot, std::vector<std::string> targets,
                               std::string token, int listen_fd)
    : depot_(depot),
      token_(std::move(token)),
      targets_(std::move(targets)),
      listen_fd_(listen_fd) {}

RelayForwarder::~RelayForwarder() {
    (void)Finish();
}

void RelayForwarder::Accepted(const Distribution& d, int upstream_fd) {
    const size_t n = d.segments.size();
    map_size_ = Shared::Offset() + n * sizeof(std::atomic<int64_t>);
    void* map = mmap(nullptr, map_size_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED) {
        map_size_ = 0;
        Report("fanout-relay", d.id, kFailed,
               std::string("cannot forward: mmap: ") + std::strerror(errno));
        worst_ = kFailed;
        return;
    }
    shared_ = new (map) Shared;
    rung_ = 0;
    std::atomic<int64_t>* available = shared_->available();
    sizes_.clear();
    for (size_t i = 0; i < n; ++i) {
        const SegmentInfo& s = d.segments[i];
        sizes_.push_back(s.size);
        const int64_t held = s.offset >= s.size ? s.size : std::min(s.offset, s.size - 1);
        new (&available[i]) std::atomic<int64_t>(held);
    }
    for (const std::string& target : targets_) {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) {
            Report("fanout-relay", d.id, kFailed,
                   "to " + target + ": cannot forward: pipe: " + std::strerror(errno));
            worst_ = kFailed;
            continue;
        }
        (void)fcntl(fds[1], F_SETFL, O_NONBLOCK);
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
            // Nothing of the receiving side stays open here: a relay that
            // dies must not keep its upstream connection or its listener.
            close(upstream_fd);
            close(listen_fd_);
            close(fds[1]);
            for (int bell : bells_) close(bell);
            RunChild(target, d, fds[0]);
        }
        close(fds[0]);
        if (pid < 0) {
            close(fds[1]);
            Report("fanout-relay", d.id, kFailed,
                   "to " + target + ": cannot forward: fork: " + std::strerror(errno));
            worst_ = kFailed;
            continue;
        }
        bells_.push_back(fds[1]);
        pids_.push_back(pid);
    }
}

// The forwarding process: never returns.
void RelayForwarder::RunChild(const std::string& target, const Distribution& d, int bell) {
    int status = kFailed;
    {
        InstallStopSignals();  // SIGINT cancels, SIGUSR1 pauses the forwarding
        DepotFeed feed(&shared_->outcome, shared_->message, shared_->available(), bell, depot_, d);
        SendOptions so;
        so.target = target;
        so.token = token_;
        so.quiet = true;
        const SendResult r = SendTo(so, d, &feed);
        Report("fanout-relay", d.id, r.status,
               "to " + target + ": " + std::to_string(r.bytes) + " bytes sent" +
                   (r.message.empty() ? "" : ": " + r.message));
        status = r.status;
    }
    std::fflush(nullptr);
    _exit(status);
}

void RelayForwarder::Stored(size_t index, int64_t bytes, bool complete) {
    if (shared_ == nullptr || index >= sizes_.size()) return;
    const int64_t size = sizes_[index];
    const int64_t held = complete ? size : std::min(bytes, size - 1);
    shared_->available()[index].store(held, std::memory_order_release);
    // The counts move with every write; the doorbells ring only every
    // kRingEvery bytes and at a segment's end, so that a forwarding process
    // that has caught up wakes for a batch of blocks rather than for each.
    if (complete || held - rung_ >= kRingEvery || held < rung_) {
        rung_ = complete ? 0 : held;
        Ring();
    }
}

void RelayForwarder::Ended(int status, const std::string& message) {
    if (shared_ == nullptr) return;
    const size_t len = std::min(message.size(), sizeof shared_->message - 1);
    std::memcpy(shared_->message, message.data(), len);
    shared_->message[len] = '\0';
    shared_->outcome.store(status, std::memory_order_release);
    Ring();
    CloseBells();
}

void RelayForwarder::Ring() {
    // EAGAIN: the pipe is full, so its reader wakes anyway.
    for (int bell : bells_) (void)!write(bell, "", 1);
}

void RelayForwarder::CloseBells() {
    for (int bell : bells_) close(bell);
    bells_.clear();
}

int RelayForwarder::Finish() {
    CloseBells();
    for (int pid : pids_) {
        int st = 0;
        while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
        }
        const int status = WIFEXITED(st) ? WEXITSTATUS(st) : kFailed;
        if (status != kDone && (worst_ == kDone || status == kFailed)) worst_ = status;
    }
    pids_.clear();
    if (shared_ != nullptr) {
        munmap(shared_, map_size_);
        shared_ = nullptr;
    }
    const int worst = worst_;
    worst_ = kDone;
    return worst;
}

}  // namespace fanout::dist
