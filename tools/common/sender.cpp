// sender.cpp - the sending side of a distribution (fanout-send, and
// fanout-relay forwarding). After the handshake of wire.cpp the receiver's
// table of contents says which segments it still needs and from which
// offset. Each is sent with net_stream_send_file on a type-3 stream whose
// process channel is one end of an internal socket pair; a forwarding thread
// holds the other end and plays the stream's peer: it answers the method
// status with the block size and each block with 0, and passes every block
// on to the receiver as a status-1 block. A stop signal turns the next answer
// into -2 (cancel) or -3 (pause), which ends net_stream_send_file with that
// status, and the receiver gets a status-2 or status-3 block instead.
//
// A relay's forwarding process has no finished files to hand to the stream:
// its segments are data files still being written (a Feed). It reads them
// itself, only below what the feed says is there, and sends each piece as a
// status-1 block, waiting on the feed when it has caught up.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <tuple>
#include <utility>

#include "dist.h"
#include "fanout/exception.h"
#include "fanout/properties.h"
#include "fanout/stream.h"

namespace fanout::dist {
namespace {

struct BlockFree {
    void operator()(void* p) const { mg_free(p); }
};
using Block = std::unique_ptr<uint8_t, BlockFree>;

// Checks the receiver's table of contents against what was announced and
// stores its offsets in d.
void ApplyOffsets(const uint8_t* octets, uint32_t len, Distribution* d) {
    PropertiesList toc{};
    struct Guard {
        PropertiesList* l;
        ~Guard() { kel_free_generic(l, TC_Kel_Fanout2_PropertiesList); }
    } guard{&toc};
    try {
        properties_decode(TC_Kel_Fanout2_PropertiesList, octets, len, &toc);
        if (toc.length != d->segments.size())
            throw Failure("the receiver's table of contents has " + std::to_string(toc.length) +
                          " segments, not " + std::to_string(d->segments.size()));
        for (uint32_t i = 0; i < toc.length; ++i) {
            SegmentInfo& s = d->segments[i];
            const Properties* p = &toc.buffer[i];
            const char* id = properties_get_string2(p, "id", "");
            const char* version = properties_get_string2(p, "version", "");
            if (id == nullptr || version == nullptr || s.id != id || s.version != version)
                throw Failure("the receiver's table of contents lists other segments");
            const int32_t offset = properties_get_long2(p, "offset", 0);
            if (offset < 0 || offset > s.size)
                throw Failure("the receiver asks for segment " + s.id + " from offset " +
                              std::to_string(offset));
            s.offset = offset;
        }
    } catch (const fanout::Exception& e) {
        throw Failure("the receiver's table of contents is malformed: " + Trimmed(e.what()));
    }
}

// FANOUT_SEND_SIGNAL_AFTER=BYTES,SIGNAL: a test knob that raises the signal
// in this process once BYTES have been forwarded. 0 BYTES: no knob.
std::pair<uint64_t, int> SignalKnob() {
    const char* knob = std::getenv("FANOUT_SEND_SIGNAL_AFTER");
    if (knob == nullptr) return {0, 0};
    char* end = nullptr;
    const uint64_t after = std::strtoull(knob, &end, 10);
    const int number = *end == ',' ? std::atoi(end + 1) : 0;
    return number > 0 ? std::make_pair(after, number) : std::make_pair(uint64_t{0}, 0);
}

// The peer of the sending stream, on its own thread.
class Forwarder {
  public:
    Forwarder(FanoutChannel* peer, FanoutChannel* net, std::vector<const SegmentInfo*> runs,
              int32_t block_size, uint64_t total)
        : peer_(peer),
          net_(net),
          runs_(std::move(runs)),
          block_size_(block_size),
          bar_("sending", total) {
        std::tie(signal_after_, signal_number_) = SignalKnob();
    }

    void Run() {
        try {
            for (const SegmentInfo* s : runs_) {
                if (!Forward(*s)) break;
            }
            if (status_ == kDone) fanout_peer_send_end(net_);
        } catch (const fanout::Exception& e) {
            // Once the stream's side has closed the channel because it failed,
            // its own failure is the one to report.
            Fail(closing_ ? std::string() : Trimmed(e.what()));
        } catch (const std::exception& e) {
            Fail(closing_ ? std::string() : e.what());
        }
        bar_.Finish();
        // Whatever happened, the stream's side must not wait for an answer
        // that will never come.
        if (status_ != kDone) shutdown(fanout_channel_fd(peer_), SHUT_RDWR);
    }

    void Closing() { closing_ = true; }
    int status() const { return status_; }
    const std::string& message() const { return message_; }
    uint64_t bytes() const { return bytes_; }

  private:
    // One segment from its offset. False when the distribution stops.
    bool Forward(const SegmentInfo& s) {
        uint64_t remaining = static_cast<uint64_t>(s.size - s.offset);
        fanout_peer_accept_methstat(peer_, nullptr);
        if (Stop(FANOUT_MSG_METHSTAT)) return false;
        fanout_peer_reply(peer_, FANOUT_MSG_METHSTAT, block_size_);
        void* data = nullptr;
        uint32_t len = 0;
        while (fanout_peer_recv_block(peer_, &data, &len) == 1) {
            Block block(static_cast<uint8_t*>(data));
            if (len > remaining) {
                Cancel(FANOUT_MSG_DATA, s.path + " grew while it was being sent");
                return false;
            }
            if (len > 0) fanout_peer_send_block(net_, FANOUT_STATUS_DATA, block.get(), len);
            remaining -= len;
            bytes_ += len;
            bar_.Advance(len);
            if (signal_after_ != 0 && bytes_ >= signal_after_) {
                // Test knob: the signal arrives at a known point of the data.
                signal_after_ = 0;
                raise(signal_number_);
            }
            if (Stop(FANOUT_MSG_DATA)) return false;
            fanout_peer_reply(peer_, FANOUT_MSG_DATA, 0);
        }
        if (remaining != 0) {
            fanout_peer_send_block(net_, FANOUT_STATUS_CANCEL, nullptr, 0);
            Fail(s.path + " shrank while it was being sent");
            return false;
        }
        return true;
    }

    // A stop signal: answers the stream with the stop status (it then sends
    // its end of data) and tells the receiver.
    bool Stop(uint32_t answered) {
        const int stop = StopRequested();
        if (stop == 0) return false;
        const bool pause = stop == kPaused;
        fanout_peer_reply(peer_, answered, pause ? NET_STREAM_PAUSED : NET_STREAM_CANCELLED);
        DrainEnd();
        fanout_peer_send_block(net_, pause ? FANOUT_STATUS_PAUSE : FANOUT_STATUS_CANCEL, nullptr,
                               0);
        status_ = stop;
        return true;
    }

    void Cancel(uint32_t answered, const std::string& why) {
        fanout_peer_reply(peer_, answered, NET_STREAM_CANCELLED);
        DrainEnd();
        fanout_peer_send_block(net_, FANOUT_STATUS_CANCEL, nullptr, 0);
        Fail(why);
    }

    // After a negative answer the stream sends its end of data.
    void DrainEnd() {
        void* data = nullptr;
        uint32_t len = 0;
        while (fanout_peer_recv_block(peer_, &data, &len) == 1) mg_free(data);
    }

    void Fail(const std::string& why) {
        if (status_ == kDone) {
            status_ = kFailed;
            message_ = why;
        }
    }

    FanoutChannel* peer_;
    FanoutChannel* net_;
    std::vector<const SegmentInfo*> runs_;
    int32_t block_size_;
    ProgressBar bar_;
    int status_ = kDone;
    std::string message_;
    uint64_t bytes_ = 0;
    std::atomic<bool> closing_{false};
    uint64_t signal_after_ = 0;
    int signal_number_ = 0;
};

// Sends the missing segments of `d` from the growing files of `feed`
// straight to the receiver; fills r. Every read is below what the feed
// says its file holds, so no byte is ever guessed.
void SendFed(FanoutChannel* net, const Distribution& d, Feed* feed, const SendOptions& opts,
             SendResult* r) {
    auto [signal_after, signal_number] = SignalKnob();
    const size_t piece = static_cast<size_t>(opts.block_size);
    std::unique_ptr<uint8_t[]> buffer(new uint8_t[piece]);
    std::string why;
    // Ends the data early with a status-3 (pause) or status-2 block: a pause
    // comes once everything the relay holds is sent; a cancel or a failure
    // upstream stops at once.
    auto stop = [&](int status, const std::string& message) {
        fanout_peer_send_block(net, status == kPaused ? FANOUT_STATUS_PAUSE : FANOUT_STATUS_CANCEL,
                               nullptr, 0);
        r->status = status;
        if (status == kFailed) r->message = message;
    };
    auto upstream = [&](int outcome) { stop(outcome, "the relay's upstream failed: " + why); };
    for (size_t i = 0; i < d.segments.size(); ++i) {
        const SegmentInfo& s = d.segments[i];
        if (s.offset >= s.size) continue;
        ++r->segments;
        struct Fd {
            int fd = -1;
            ~Fd() {
                if (fd >= 0) close(fd);
            }
        } file;
        int64_t at = s.offset;
        while (at < s.size) {
            if (const int signalled = StopRequested(); signalled != 0) return stop(signalled, "");
            const int outcome = feed->Outcome(&why);
            if (outcome == kCancelled || outcome == kFailed) return upstream(outcome);
            const int64_t available = std::min(feed->Available(i), s.size);
            if (available <= at) {
                if (outcome == Feed::kRunning) {
                    feed->Wait();
                    continue;
                }
                // Nothing more will come: a pause, or a "done" that left this
                // segment short, which cannot be trusted.
                if (outcome == kPaused) return stop(kPaused, "");
                return stop(kFailed, "segment " + s.id + " ended short in the relay's depot");
            }
            if (file.fd < 0) {
                const std::string path = feed->Path(i);
                file.fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
                if (file.fd < 0) throw Failure("cannot read " + path + ": " + std::strerror(errno));
            }
            const size_t want = static_cast<size_t>(std::min<int64_t>(available - at, piece));
            const ssize_t n = pread(file.fd, buffer.get(), want, at);
            if (n < 0 && errno == EINTR) continue;
            if (n <= 0) {
                // Below the written size there are bytes; none means the
                // file was cut behind the relay's back.
                return stop(kFailed, "segment " + s.id + " shrank in the relay's depot");
            }
            fanout_peer_send_block(net, FANOUT_STATUS_DATA, buffer.get(), static_cast<uint32_t>(n));
            at += n;
            r->bytes += static_cast<uint64_t>(n);
            if (signal_after != 0 && r->bytes >= signal_after) {
                signal_after = 0;
                raise(signal_number);
            }
        }
    }
    // The end only once the relay has all of it: a downstream never
    // finishes a distribution that failed upstream.
    for (;;) {
        const int outcome = feed->Outcome(&why);
        if (outcome == kDone) break;
        if (outcome == kPaused) return stop(kPaused, "");
        if (outcome != Feed::kRunning) return upstream(outcome);
        feed->Wait();
    }
    fanout_peer_send_end(net);
}

// Sends the segments that `d` says are missing; fills r.
void SendData(FanoutChannel* net, const Distribution& d, const SendOptions& opts, SendResult* r) {
    std::vector<const SegmentInfo*> runs;
    uint64_t total = 0;
    for (const SegmentInfo& s : d.segments) {
        if (s.offset < s.size) {
            runs.push_back(&s);
            total += static_cast<uint64_t>(s.size - s.offset);
        }
    }
    r->segments = static_cast<uint32_t>(runs.size());
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sv) != 0)
        throw Failure(std::string("socketpair: ") + std::strerror(errno));
    fanout_ipc_attach(sv[1], 0);  // the process's channel: the stream's end
    struct PeerClose {
        void operator()(FanoutChannel* ch) const { fanout_channel_close(ch); }
    };
    std::unique_ptr<FanoutChannel, PeerClose> peer(fanout_channel_attach(sv[0], 0, "forwarder"));
    Forwarder fwd(peer.get(), net, runs, opts.block_size, total);
    std::thread thread([&fwd] { fwd.Run(); });

    std::string failure;
    int stopped = kDone;
    StreamKey key{};
    uint8_t octets[3] = {NET_STREAM_SEND, 0, 0};
    key.maximum = key.length = 3;
    key.buffer = octets;
    NetStream* s = net_stream_open(&key);
    try {
        // The forwarder answers every method status with this block size;
        // set beforehand, it is also the size in which the file is read.
        s->block_size = opts.block_size;
        for (const SegmentInfo* seg : runs) {
            const int32_t rc =
                net_stream_send_file(s, seg->path.c_str(), static_cast<int32_t>(seg->offset));
            if (rc < 0) {
                stopped = rc == NET_STREAM_PAUSED ? kPaused : kCancelled;
                break;
            }
        }
    } catch (const fanout::Exception& e) {
        failure = Trimmed(e.what());
    }
    net_stream_release(s);
    if (!failure.empty()) {
        fwd.Closing();
        fanout_ipc_set(nullptr);  // wakes the forwarder
    }
    thread.join();
    fanout_ipc_set(nullptr);
    r->bytes = fwd.bytes();
    // The forwarder knows best why the data stopped, unless it stopped only
    // because this side closed the channel.
    if (fwd.status() == kFailed && fwd.message().empty()) {
        throw Failure(failure);
    } else if (fwd.status() != kDone) {
        r->status = fwd.status();
        r->message = fwd.message();
    } else if (!failure.empty()) {
        throw Failure(failure);
    } else if (stopped != kDone) {
        r->status = stopped;
    }
}

}  // namespace

SendResult SendTo(const SendOptions& opts, const Distribution& dist, Feed* feed) {
    SendResult r;
    Distribution d = dist;
    FanoutChannel* net = nullptr;
    try {
        net = fanout_channel_connect(opts.target.c_str(), 0);
        SenderAuthenticate(net, opts.token);
        SendDistribution(net, d);
        FanoutFrameHeader h{};
        void* payload = nullptr;
        fanout_channel_recv(net, &h, &payload);
        Block answer(static_cast<uint8_t*>(payload));
        if (h.type == FANOUT_MSG_DATA && h.length >= 1 && answer.get()[0] == FANOUT_STATUS_CANCEL)
            throw Failure("refused by the receiver: " +
                          std::string(reinterpret_cast<char*>(answer.get()) + 1, h.length - 1));
        if (h.type != FANOUT_MSG_RECVSTART)
            throw Failure("the receiver answered with message type " + std::to_string(h.type));
        ApplyOffsets(answer.get(), h.length, &d);
        answer.reset();
        if (feed != nullptr) {
            SendFed(net, d, feed, opts, &r);
        } else {
            SendData(net, d, opts, &r);
        }
        if (r.status == kDone) {
            // The receiver answers the end of data with its own once every
            // segment is complete in its depot, or says why not.
            fanout_channel_recv(net, &h, &payload);
            Block last(static_cast<uint8_t*>(payload));
            if (h.type == FANOUT_MSG_DATA && h.length >= 1 && last.get()[0] == FANOUT_STATUS_CANCEL)
                throw Failure("the receiver failed: " +
                              std::string(reinterpret_cast<char*>(last.get()) + 1, h.length - 1));
            if (h.type != FANOUT_MSG_END)
                throw Failure("the receiver ended with message type " + std::to_string(h.type));
        }
    } catch (...) {
        r.status = kFailed;
        r.message = CurrentFailureText();
    }
    fanout_channel_close(net);
    return r;
}

}  // namespace fanout::dist
