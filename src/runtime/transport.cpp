// transport.cpp - the framed socket channel between a stream and its peer.
//
// A channel is one connected stream socket (Unix-domain or TCP) carrying
// frames: a 12-octet big-endian header (type, session, length) and a payload.
// Sends go out in one sendmsg per attempt (header and payload gathered) with
// MSG_NOSIGNAL; receives go through a per-channel read buffer so that a header
// and a small payload arrive in one recv, while the bulk of a large payload is
// read straight into the block handed to the caller (after a large frame the
// next header and payload come in one receive, the payload into a block of
// the last frame's size). Every socket call is made
// with MSG_DONTWAIT and waits, when it must, in poll() with what is left of the
// channel's time-out, so EINTR, short transfers and the time-out are handled in
// one place and the descriptor's own blocking mode never matters.
//
// Invariants the code keeps:
//  1. A header is checked (type, length for that type, session) before
//     anything is allocated for its payload, and the payload block then grows
//     with the octets that actually arrive, never beyond the header's length.
//  2. The frame being assembled lives in the channel (`partial`), so a
//     non-blocking look (ep_fanout_poll) can take part of a frame now and the
//     next call goes on from there; a time-out does not lose the frame either.
//  3. After a protocol violation the read side is unusable: a refused header
//     leaves octets that can no longer be split into frames, and a frame out
//     of turn means the two ends disagree about the exchange. Every later
//     receive raises the violation again instead of reading on.
//  4. The peer's end of the connection (recv returning 0 or a reset) is
//     remembered; frames already buffered are still delivered, after them
//     every blocking receive raises 101.

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <new>
#include <string_view>

#include "fanout/exception.h"
#include "fanout/log.h"
#include "fanout/runtime.h"
#include "fanout/transport.h"
#include "runtime/mg_ptr.h"

namespace fanout {

namespace {

// The runtime sits below the module that owns the service's catalogue, so it
// raises the catalogue's messages with copies of their texts (the transport's
// tests compare them with Fanout2Catalog).
constexpr const char* kCatalog = "Fanout2Catalog";
constexpr int32_t kLost = 101;
constexpr int32_t kTimedOut = 108;
constexpr int32_t kReceiveViolation = 109;
constexpr int32_t kWriteViolation = 111;

const char* catalogue_text(int32_t number) {
    switch (number) {
        case kLost:
            return "The client %1$s is either unreachable or the connection was lost.\n";
        case kTimedOut:
            return "A segment transfer to the receiver %1$s was interrupted.\n";
        case kReceiveViolation:
            return "There was a ECP protocol violation during a bulk receive from receiver %1$s.\n";
        default:
            return "An ECP protocol violation occurred during a data transfer to receiver %1$s.\n";
    }
}

[[noreturn]] void fail(int32_t number, const char* name) {
    vaThrow(kCatalog, number, catalogue_text(number), name != nullptr ? name : "");
}

constexpr uint32_t kReadBuffer = 64u * 1024u;
// Payload octets still missing at or above this count are read straight into
// the payload block rather than through the read buffer.
constexpr uint32_t kDirectRead = 16u * 1024u;
// A payload block starts at most this large and doubles as octets arrive.
constexpr uint32_t kFirstPayload = 64u * 1024u;
// Frames ep_fanout_poll may set aside; when full it stops reading.
constexpr uint32_t kQueueMax = 16;
constexpr uint32_t kControlMax = 256;
// What the process channel is called in messages when none is configured.
constexpr const char* kNoChannel = "FANOUT_IPC";

using MgBlock = std::unique_ptr<uint8_t, MgFree>;
using MgText = std::unique_ptr<char, MgFree>;

// A descriptor closed on the way out unless released.
struct Socket {
    int fd = -1;
    explicit Socket(int f) : fd(f) {}
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    ~Socket() {
        if (fd >= 0) close(fd);
    }
    int release() {
        int f = fd;
        fd = -1;
        return f;
    }
};

struct AddrInfoFree {
    void operator()(addrinfo* ai) const { freeaddrinfo(ai); }
};

void put_be32(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 24);
    p[1] = static_cast<uint8_t>(v >> 16);
    p[2] = static_cast<uint8_t>(v >> 8);
    p[3] = static_cast<uint8_t>(v);
}

uint32_t get_be32(const uint8_t* p) {
    return (uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) | (uint32_t{p[2]} << 8) | p[3];
}

// FANOUT_FRAME_OK when `type` may carry `length` octets, else the refusal.
int32_t check_type_length(uint32_t type, uint32_t length) {
    switch (type) {
        case FANOUT_MSG_METHSTAT:
            return length == FANOUT_METHSTAT_SIZE ? FANOUT_FRAME_OK : FANOUT_FRAME_BAD_LENGTH;
        case FANOUT_MSG_REPLY:
            return length == FANOUT_REPLY_SIZE ? FANOUT_FRAME_OK : FANOUT_FRAME_BAD_LENGTH;
        case FANOUT_MSG_END:
            return length == 0 ? FANOUT_FRAME_OK : FANOUT_FRAME_BAD_LENGTH;
        case FANOUT_MSG_CONTROL:
            return length >= 1 && length <= kControlMax ? FANOUT_FRAME_OK : FANOUT_FRAME_BAD_LENGTH;
        case FANOUT_MSG_DATA:
        case FANOUT_MSG_RECVSTART:
            return length <= FANOUT_FRAME_MAX_PAYLOAD ? FANOUT_FRAME_OK : FANOUT_FRAME_BAD_LENGTH;
        default:
            return FANOUT_FRAME_BAD_TYPE;
    }
}

// The end of one frame operation on the monotonic clock, or none.
class Deadline {
  public:
    explicit Deadline(int32_t milliseconds) : forever_(milliseconds <= 0) {
        if (!forever_) end_ns_ = now_ns() + int64_t{milliseconds} * 1000000;
    }
    // What poll() should wait: -1 for ever, else the milliseconds left
    // (rounded up, so a wait never ends just short of the deadline), 0 when
    // the time is up.
    bool forever() const { return forever_; }
    int remaining_ms() const {
        if (forever_) return -1;
        int64_t left = end_ns_ - now_ns();
        if (left <= 0) return 0;
        int64_t ms = (left + 999999) / 1000000;
        return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
    }

  private:
    static int64_t now_ns() {
        timespec ts{};
        clock_gettime(CLOCK_MONOTONIC, &ts);
        return int64_t{ts.tv_sec} * 1000000000 + ts.tv_nsec;
    }
    bool forever_;
    int64_t end_ns_ = 0;
};

// One received frame; the payload is null when the frame carries none.
struct Frame {
    FanoutFrameHeader h{};
    MgBlock payload;
};

// The frame being read: its checked header and the payload so far.
struct Assembly {
    bool have_header = false;
    FanoutFrameHeader h{};
    MgBlock payload;
    uint32_t capacity = 0;
    uint32_t got = 0;
};

// Sets TCP_NODELAY on a TCP socket: every data block waits for its reply, so
// a block held back by Nagle's algorithm would stall the whole transfer.
void tune_socket(int fd) {
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0) return;
    if (ss.ss_family == AF_INET || ss.ss_family == AF_INET6) {
        int on = 1;
        (void)setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
}

// "tcp:HOST:PORT" for an IP address, else null; written into `out`.
bool format_inet(const sockaddr_storage& ss, char* out, size_t size) {
    char host[INET6_ADDRSTRLEN] = {};
    unsigned port = 0;
    if (ss.ss_family == AF_INET) {
        const auto& in = reinterpret_cast<const sockaddr_in&>(ss);
        inet_ntop(AF_INET, &in.sin_addr, host, sizeof host);
        port = ntohs(in.sin_port);
        std::snprintf(out, size, "tcp:%s:%u", host, port);
        return true;
    }
    if (ss.ss_family == AF_INET6) {
        const auto& in6 = reinterpret_cast<const sockaddr_in6&>(ss);
        inet_ntop(AF_INET6, &in6.sin6_addr, host, sizeof host);
        port = ntohs(in6.sin6_port);
        std::snprintf(out, size, "tcp:[%s]:%u", host, port);
        return true;
    }
    return false;
}

// A parsed "unix:PATH" or "tcp:HOST:PORT".
struct Address {
    bool unix_domain = false;
    sockaddr_un un{};
    char host[256] = {};
    char port[8] = {};
};

// Parses `address`; false when it is malformed. For TCP, brackets around an
// IPv6 host are dropped; the port must be a decimal number up to 65535.
bool parse_address(const char* address, Address* a) {
    if (address == nullptr) return false;
    std::string_view text(address);
    if (text.starts_with("unix:")) {
        std::string_view path = text.substr(5);
        if (path.empty() || path.size() >= sizeof a->un.sun_path) return false;
        a->unix_domain = true;
        a->un.sun_family = AF_UNIX;
        std::memcpy(a->un.sun_path, path.data(), path.size());
        return true;
    }
    if (!text.starts_with("tcp:")) return false;
    text.remove_prefix(4);
    size_t colon = text.rfind(':');
    if (colon == std::string_view::npos) return false;
    std::string_view host = text.substr(0, colon);
    std::string_view port = text.substr(colon + 1);
    if (host.size() >= 2 && host.front() == '[' && host.back() == ']') {
        host = host.substr(1, host.size() - 2);
    }
    if (host.size() >= sizeof a->host || port.empty() || port.size() > 5) return false;
    unsigned value = 0;
    for (char c : port) {
        if (c < '0' || c > '9') return false;
        value = value * 10 + static_cast<unsigned>(c - '0');
    }
    if (value > 65535) return false;
    std::memcpy(a->host, host.data(), host.size());
    std::memcpy(a->port, port.data(), port.size());
    return true;
}

std::unique_ptr<addrinfo, AddrInfoFree> resolve(const Address& a, bool passive) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | (passive ? AI_PASSIVE : 0);
    addrinfo* found = nullptr;
    if (getaddrinfo(a.host, a.port, &hints, &found) != 0) found = nullptr;
    return std::unique_ptr<addrinfo, AddrInfoFree>(found);
}

// Waits for a non-blocking connect to finish; true when it succeeded.
bool finish_connect(int fd, int32_t timeout_ms) {
    Deadline deadline(timeout_ms);
    for (;;) {
        int wait = deadline.remaining_ms();
        if (wait == 0) return false;
        pollfd p{fd, POLLOUT, 0};
        int rc = poll(&p, 1, wait);
        if (rc < 0 && errno == EINTR) continue;
        if (rc <= 0) return false;
        int error = 0;
        socklen_t len = sizeof error;
        return getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &len) == 0 && error == 0;
    }
}

// A connected socket for `a`, or -1.
int connect_socket(const Address& a) {
    if (a.unix_domain) {
        Socket s(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (s.fd < 0) return -1;
        int rc;
        do {
            rc = connect(s.fd, reinterpret_cast<const sockaddr*>(&a.un), sizeof a.un);
        } while (rc != 0 && errno == EINTR);
        return rc == 0 || errno == EISCONN ? s.release() : -1;
    }
    auto list = resolve(a, false);
    for (addrinfo* ai = list.get(); ai != nullptr; ai = ai->ai_next) {
        Socket s(socket(ai->ai_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (s.fd < 0) continue;
        int rc = connect(s.fd, ai->ai_addr, ai->ai_addrlen);
        if (rc != 0 && (errno == EINPROGRESS || errno == EINTR)) {
            rc = finish_connect(s.fd, fanout_ipc_timeout()) ? 0 : -1;
        }
        if (rc != 0) continue;
        int flags = fcntl(s.fd, F_GETFL);
        if (flags >= 0) (void)fcntl(s.fd, F_SETFL, flags & ~O_NONBLOCK);
        return s.release();
    }
    return -1;
}

// Parses a decimal number of at most `max`; false when `text` is not one.
bool parse_decimal(const char* text, uint64_t max, uint64_t* value) {
    if (text == nullptr || *text == '\0') return false;
    uint64_t v = 0;
    for (const char* p = text; *p != '\0'; ++p) {
        if (*p < '0' || *p > '9') return false;
        auto digit = static_cast<uint64_t>(*p - '0');
        if (v > (max - digit) / 10) return false;
        v = v * 10 + digit;
    }
    *value = v;
    return true;
}

}  // namespace

}  // namespace fanout

using namespace fanout;

struct FanoutChannel {
    int fd = -1;
    uint32_t session = 0;
    int32_t timeout_ms = 0;
    MgText name;
    bool recv_started = false;  // RECVSTART sent by ep_fanout_recv
    bool peer_gone = false;     // recv saw the end of the connection or a reset
    bool poisoned = false;      // a protocol violation was read
    uint32_t last_length = 0;   // of the last frame assembled: see assemble
    MgBlock buffer;             // kReadBuffer octets; [pos, end) unread
    uint32_t pos = 0;
    uint32_t end = 0;
    Assembly partial;
    Frame queue[kQueueMax];  // set aside by ep_fanout_poll, oldest at head
    uint32_t head = 0;
    uint32_t queued = 0;
};

namespace fanout {

namespace {

FanoutChannel* require(FanoutChannel* ch) {
    if (ch == nullptr) fail(kLost, kNoChannel);
    return ch;
}

// Waits until the socket is ready for `events` or the deadline passes (108).
void wait_for(FanoutChannel* ch, short events, const Deadline& deadline) {
    for (;;) {
        int wait = deadline.remaining_ms();
        if (wait == 0) fail(kTimedOut, ch->name.get());
        pollfd p{ch->fd, events, 0};
        int rc = poll(&p, 1, wait);
        if (rc > 0) return;  // ready, or an error the next call reports
        if (rc == 0) fail(kTimedOut, ch->name.get());
        if (errno != EINTR) fail(kLost, ch->name.get());
    }
}

// Receives up to `n` octets into `dst`. Returns the count, 0 when the peer has
// gone, or -1 when nothing is there and `deadline` is null (do not wait).
// The same into the `count` parts of `parts`, filled in order.
ssize_t receive_parts(FanoutChannel* ch, iovec* parts, int count, const Deadline* deadline) {
    // Without a time-out a blocking receive costs one call where a look and
    // a poll would cost three (a socket the caller made non-blocking still
    // answers EAGAIN, and then waits in poll).
    const int flags = deadline != nullptr && deadline->forever() ? 0 : MSG_DONTWAIT;
    msghdr msg{};
    msg.msg_iov = parts;
    msg.msg_iovlen = static_cast<decltype(msg.msg_iovlen)>(count);
    while (!ch->peer_gone) {
        ssize_t r = recvmsg(ch->fd, &msg, flags);
        if (r > 0) return r;
        if (r == 0) break;
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            if (deadline == nullptr) return -1;
            wait_for(ch, POLLIN, *deadline);
            continue;
        }
        break;  // a reset or any other failure: the connection is lost
    }
    ch->peer_gone = true;
    return 0;
}

ssize_t receive_some(FanoutChannel* ch, void* dst, size_t n, const Deadline* deadline) {
    iovec part{dst, n};
    return receive_parts(ch, &part, 1, deadline);
}

// Tops up the read buffer; returns as receive_some does. REQUIRES: fewer than
// a header's octets are buffered, so compacting always leaves room.
ssize_t fill(FanoutChannel* ch, const Deadline* deadline) {
    if (!ch->buffer) ch->buffer.reset(static_cast<uint8_t*>(mg_malloc(kReadBuffer)));
    if (ch->pos == ch->end) {
        ch->pos = ch->end = 0;
    } else if (ch->end == kReadBuffer) {
        std::memmove(ch->buffer.get(), ch->buffer.get() + ch->pos, ch->end - ch->pos);
        ch->end -= ch->pos;
        ch->pos = 0;
    }
    ssize_t r = receive_some(ch, ch->buffer.get() + ch->end, kReadBuffer - ch->end, deadline);
    if (r > 0) ch->end += static_cast<uint32_t>(r);
    return r;
}

[[noreturn]] void violation(FanoutChannel* ch, int32_t number) {
    ch->poisoned = true;
    ch->partial = Assembly{};
    fail(number, ch->name.get());
}

// Makes room for at least `want` payload octets (want <= the frame length),
// doubling the block so that a hostile length costs only what arrives.
void reserve(Assembly& a, uint32_t want) {
    if (want <= a.capacity) return;
    uint64_t grown = a.capacity == 0 ? kFirstPayload : uint64_t{a.capacity} * 2;
    if (grown < want) grown = want;
    if (grown > a.h.length) grown = a.h.length;
    a.payload.reset(static_cast<uint8_t*>(mg_realloc(a.payload.release(), grown)));
    a.capacity = static_cast<uint32_t>(grown);
}

// Whether assembling goes on after a receive that returned `r`: not when
// nothing was there or the peer has gone, which raises 101 when waiting.
bool received(FanoutChannel* ch, ssize_t r, const Deadline* deadline) {
    if (r > 0) return true;
    if (r == 0 && deadline != nullptr) fail(kLost, ch->name.get());
    return false;
}

// Advances the frame in `ch->partial`. With a deadline it waits (raising 101
// when the peer goes, 108 when the time is up) and returns true once the
// frame is whole; without one it takes only what is there and returns false
// when the frame is not yet whole or the peer has gone. A refused header
// raises `refusal` before its payload gets a block.
bool assemble(FanoutChannel* ch, const Deadline* deadline, int32_t refusal) {
    Assembly& a = ch->partial;
    // Octets of the payload that a speculative receive (below) put past the
    // header, straight into a block of their own.
    MgBlock early;
    uint32_t early_count = 0, early_capacity = 0;
    while (!a.have_header) {
        if (ch->end - ch->pos >= FANOUT_FRAME_HEADER_SIZE) {
            const uint8_t* p = ch->buffer.get() + ch->pos;
            FanoutFrameHeader h{get_be32(p), get_be32(p + 4), get_be32(p + 8)};
            if (check_type_length(h.type, h.length) != FANOUT_FRAME_OK ||
                h.session != ch->session) {
                violation(ch, refusal);
            }
            ch->pos += FANOUT_FRAME_HEADER_SIZE;
            a.h = h;
            a.have_header = true;
            break;
        }
        ssize_t r;
        if (ch->last_length >= kDirectRead && ch->pos == ch->end && ch->buffer) {
            // After a large frame another of its size usually follows: one
            // receive takes the header into the read buffer and what follows
            // into a block of that size (at most a read buffer's worth, so a
            // hostile length costs no more than the buffer does), which
            // becomes the payload without a copy when the header agrees.
            ch->pos = ch->end = 0;
            early_capacity = ch->last_length < kReadBuffer ? ch->last_length : kReadBuffer;
            early.reset(static_cast<uint8_t*>(mg_malloc(early_capacity)));
            iovec parts[2] = {{ch->buffer.get(), FANOUT_FRAME_HEADER_SIZE},
                              {early.get(), early_capacity}};
            r = receive_parts(ch, parts, 2, deadline);
            if (r > 0) {
                const auto n = static_cast<uint32_t>(r);
                ch->end = n < FANOUT_FRAME_HEADER_SIZE ? n : FANOUT_FRAME_HEADER_SIZE;
                early_count = n - ch->end;
            }
        } else {
            r = fill(ch, deadline);
        }
        if (!received(ch, r, deadline)) return false;
    }
    if (early_count > 0) {
        // The header is read and accepted: the early octets are its payload's
        // start, and any beyond its length (the next frames) go back to the
        // read buffer, which the header alone occupied.
        const uint32_t take = early_count < a.h.length ? early_count : a.h.length;
        ch->pos = ch->end = 0;
        std::memcpy(ch->buffer.get(), early.get() + take, early_count - take);
        ch->end = early_count - take;
        if (take > 0) {
            a.payload = std::move(early);
            a.capacity = early_capacity;
            a.got = take;
        }
    }
    ch->last_length = a.h.length;
    while (a.got < a.h.length) {
        uint32_t missing = a.h.length - a.got;
        uint32_t buffered = ch->end - ch->pos;
        ssize_t r;
        if (buffered > 0) {
            uint32_t take = buffered < missing ? buffered : missing;
            reserve(a, a.got + take);
            std::memcpy(a.payload.get() + a.got, ch->buffer.get() + ch->pos, take);
            ch->pos += take;
            a.got += take;
            continue;
        }
        if (missing >= kDirectRead) {
            reserve(a, a.got + kDirectRead);
            r = receive_some(ch, a.payload.get() + a.got, a.capacity - a.got, deadline);
            if (r > 0) a.got += static_cast<uint32_t>(r);
        } else {
            r = fill(ch, deadline);
        }
        if (!received(ch, r, deadline)) return false;
    }
    return true;
}

// Moves the whole frame out of `ch->partial`.
Frame take_partial(FanoutChannel* ch) {
    Frame f;
    f.h = ch->partial.h;
    f.payload = std::move(ch->partial.payload);
    ch->partial = Assembly{};
    return f;
}

// The next frame: one set aside by ep_fanout_poll, else one from the socket,
// waiting up to the channel's time-out. Refusals raise `refusal`.
Frame receive_frame(FanoutChannel* ch, int32_t refusal) {
    if (ch->queued > 0) {
        Frame f = std::move(ch->queue[ch->head]);
        ch->head = (ch->head + 1) % kQueueMax;
        --ch->queued;
        return f;
    }
    if (ch->poisoned) fail(refusal, ch->name.get());
    Deadline deadline(ch->timeout_ms);
    assemble(ch, &deadline, refusal);
    return take_partial(ch);
}

// Sends one frame made of the header and `count` payload parts, retrying
// short writes and EINTR, waiting for room up to the channel's time-out.
void send_frame(FanoutChannel* ch, uint32_t type, iovec* parts, int count) {
    uint64_t total = 0;
    for (int i = 0; i < count; ++i) {
        if (parts[i].iov_base == nullptr && parts[i].iov_len > 0)
            fail(kWriteViolation, ch->name.get());
        total += parts[i].iov_len;
    }
    if (total > FANOUT_FRAME_MAX_PAYLOAD ||
        check_type_length(type, static_cast<uint32_t>(total)) != FANOUT_FRAME_OK) {
        fail(kWriteViolation, ch->name.get());
    }
    uint8_t header[FANOUT_FRAME_HEADER_SIZE];
    FanoutFrameHeader h{type, ch->session, static_cast<uint32_t>(total)};
    fanout_frame_encode_header(&h, header);
    iovec iov[4];
    iov[0] = {header, sizeof header};
    int n = 1;
    for (int i = 0; i < count && n < 4; ++i) {
        if (parts[i].iov_len > 0) iov[n++] = parts[i];
    }
    iovec* next = iov;
    Deadline deadline(ch->timeout_ms);
    const int flags = MSG_NOSIGNAL | (deadline.forever() ? 0 : MSG_DONTWAIT);
    while (n > 0) {
        msghdr msg{};
        msg.msg_iov = next;
        msg.msg_iovlen = static_cast<size_t>(n);
        ssize_t sent = sendmsg(ch->fd, &msg, flags);
        if (sent < 0) {
            if (errno == EINTR) continue;
            if (errno == EAGAIN || errno == EWOULDBLOCK) {
                wait_for(ch, POLLOUT, deadline);
                continue;
            }
            fail(kLost, ch->name.get());
        }
        auto left = static_cast<size_t>(sent);
        while (n > 0 && left >= next->iov_len) {
            left -= next->iov_len;
            ++next;
            --n;
        }
        if (n > 0) {
            next->iov_base = static_cast<uint8_t*>(next->iov_base) + left;
            next->iov_len -= left;
        }
    }
}

void send_payload(FanoutChannel* ch, uint32_t type, const void* payload, uint32_t len) {
    iovec part{const_cast<void*>(payload), len};
    send_frame(ch, type, &part, 1);
}

FanoutChannel* channel_new(int fd, uint32_t session, const char* name) {
    Socket s(fd);
    char fallback[32];
    if (name == nullptr) {
        std::snprintf(fallback, sizeof fallback, "fd %d", fd);
        name = fallback;
    }
    MgText copy(mg_strdup(name));
    auto* ch = new (mg_malloc(sizeof(FanoutChannel))) FanoutChannel;
    ch->fd = s.release();
    ch->session = session;
    ch->name = std::move(copy);
    tune_socket(ch->fd);
    return ch;
}

// The process's channel and what it was made from.
std::mutex g_ipc_mutex;
FanoutChannel* g_ipc = nullptr;   // GUARDED_BY(g_ipc_mutex)
bool g_ipc_setup_failed = false;  // GUARDED_BY(g_ipc_mutex)

// REQUIRES: g_ipc_mutex is held and g_ipc is null. Makes the process's
// channel from FANOUT_IPC_FD or FANOUT_IPC, raising 101 when neither works.
FanoutChannel* ipc_from_environment() {
    const char* fd_text = std::getenv("FANOUT_IPC_FD");
    const char* address = std::getenv("FANOUT_IPC");
    const char* session_text = std::getenv("FANOUT_IPC_SESSION");
    bool have_fd = fd_text != nullptr && *fd_text != '\0';
    if (!have_fd && (address == nullptr || *address == '\0')) fail(kLost, kNoChannel);
    const char* what = have_fd ? fd_text : address;
    uint64_t session = 0;
    // A session id that is not a number could only make every frame a
    // foreign one: the channel is refused at once instead.
    if (session_text != nullptr && *session_text != '\0' &&
        !parse_decimal(session_text, UINT32_MAX, &session)) {
        fail(kLost, what);
    }
    FanoutChannel* ch;
    if (have_fd) {
        uint64_t fd = 0;
        char name[32];
        if (!parse_decimal(fd_text, INT_MAX, &fd) || fcntl(static_cast<int>(fd), F_GETFD) < 0) {
            std::snprintf(name, sizeof name, "fd %.20s", fd_text);
            fail(kLost, name);
        }
        ch = fanout_channel_attach(static_cast<int>(fd), static_cast<uint32_t>(session), nullptr);
    } else {
        ch = fanout_channel_connect(address, static_cast<uint32_t>(session));
    }
    return ch;
}

}  // namespace

}  // namespace fanout

extern "C" {

FANOUT_EXPORT void fanout_frame_encode_header(const FanoutFrameHeader* h, uint8_t out[12]) {
    put_be32(out, h->type);
    put_be32(out + 4, h->session);
    put_be32(out + 8, h->length);
}

FANOUT_EXPORT int32_t fanout_frame_check(const uint8_t* bytes, size_t len, FanoutFrameHeader* h) {
    if (bytes == nullptr || len < FANOUT_FRAME_HEADER_SIZE) return FANOUT_FRAME_TRUNCATED;
    FanoutFrameHeader d{get_be32(bytes), get_be32(bytes + 4), get_be32(bytes + 8)};
    if (h != nullptr) *h = d;
    int32_t verdict = check_type_length(d.type, d.length);
    if (verdict != FANOUT_FRAME_OK) return verdict;
    return len - FANOUT_FRAME_HEADER_SIZE < d.length ? FANOUT_FRAME_TRUNCATED : FANOUT_FRAME_OK;
}

FANOUT_EXPORT FanoutChannel* fanout_channel_attach(int fd, uint32_t session, const char* name) {
    if (fd < 0) {
        char text[32];
        std::snprintf(text, sizeof text, "fd %d", fd);
        fail(kLost, name != nullptr ? name : text);
    }
    FanoutChannel* ch = channel_new(fd, session, name);
    ch->timeout_ms = fanout_ipc_timeout();
    return ch;
}

FANOUT_EXPORT FanoutChannel* fanout_channel_connect(const char* address, uint32_t session) {
    Address a;
    if (!parse_address(address, &a)) fail(kLost, address != nullptr ? address : "");
    int fd = connect_socket(a);
    if (fd < 0) fail(kLost, address);
    return fanout_channel_attach(fd, session, address);
}

FANOUT_EXPORT int fanout_listen(const char* address, char** bound) {
    if (bound != nullptr) *bound = nullptr;
    Address a;
    if (!parse_address(address, &a)) fail(kLost, address != nullptr ? address : "");
    if (a.unix_domain) {
        struct stat st {};
        if (lstat(a.un.sun_path, &st) == 0 && S_ISSOCK(st.st_mode)) unlink(a.un.sun_path);
        Socket s(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (s.fd < 0 || bind(s.fd, reinterpret_cast<const sockaddr*>(&a.un), sizeof a.un) != 0 ||
            listen(s.fd, SOMAXCONN) != 0) {
            fail(kLost, address);
        }
        if (bound != nullptr) *bound = mg_strdup(address);
        return s.release();
    }
    // Without a named host the channel stays on this machine.
    std::string_view host(a.host);
    if (host.empty() || host == "*" || host == "localhost") std::strcpy(a.host, "127.0.0.1");
    auto list = resolve(a, true);
    for (addrinfo* ai = list.get(); ai != nullptr; ai = ai->ai_next) {
        Socket s(socket(ai->ai_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (s.fd < 0) continue;
        int on = 1;
        (void)setsockopt(s.fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        if (bind(s.fd, ai->ai_addr, ai->ai_addrlen) != 0 || listen(s.fd, SOMAXCONN) != 0) continue;
        if (bound != nullptr) {
            sockaddr_storage ss{};
            socklen_t len = sizeof ss;
            char text[INET6_ADDRSTRLEN + 16];
            if (getsockname(s.fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0 ||
                !format_inet(ss, text, sizeof text)) {
                fail(kLost, address);
            }
            *bound = mg_strdup(text);
        }
        return s.release();
    }
    fail(kLost, address);
}

FANOUT_EXPORT FanoutChannel* fanout_channel_accept(int listen_fd, uint32_t session) {
    int fd;
    do {
        fd = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    char name[sizeof(sockaddr_un::sun_path) + 8];
    if (fd < 0) {
        std::snprintf(name, sizeof name, "fd %d", listen_fd);
        fail(kLost, name);
    }
    // Named after the peer's address for TCP, after the socket file for Unix.
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0 ||
        !format_inet(ss, name, sizeof name)) {
        sockaddr_un un{};
        socklen_t ulen = sizeof un;
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&un), &ulen) == 0 &&
            un.sun_family == AF_UNIX && un.sun_path[0] != '\0') {
            std::snprintf(name, sizeof name, "unix:%.*s", static_cast<int>(sizeof un.sun_path),
                          un.sun_path);
        } else {
            std::snprintf(name, sizeof name, "fd %d", fd);
        }
    }
    return fanout_channel_attach(fd, session, name);
}

FANOUT_EXPORT void fanout_channel_close(FanoutChannel* ch) {
    if (ch == nullptr) return;
    if (ch->fd >= 0) close(ch->fd);
    ch->~FanoutChannel();
    mg_free(ch);
}

FANOUT_EXPORT int fanout_channel_fd(const FanoutChannel* ch) {
    return ch != nullptr ? ch->fd : -1;
}

FANOUT_EXPORT uint32_t fanout_channel_session(const FanoutChannel* ch) {
    return ch != nullptr ? ch->session : 0;
}

FANOUT_EXPORT const char* fanout_channel_name(const FanoutChannel* ch) {
    return ch != nullptr ? ch->name.get() : nullptr;
}

FANOUT_EXPORT void fanout_channel_set_timeout(FanoutChannel* ch, int32_t milliseconds) {
    if (ch != nullptr) ch->timeout_ms = milliseconds > 0 ? milliseconds : 0;
}

FANOUT_EXPORT void fanout_channel_send(FanoutChannel* ch, uint32_t type, const void* payload,
                                       uint32_t len) {
    send_payload(require(ch), type, payload, len);
}

FANOUT_EXPORT void fanout_channel_recv(FanoutChannel* ch, FanoutFrameHeader* h, void** payload) {
    Frame f = receive_frame(require(ch), kReceiveViolation);
    if (h != nullptr) *h = f.h;
    if (payload != nullptr) *payload = f.payload.release();
}

FANOUT_EXPORT void fanout_ipc_set(FanoutChannel* ch) {
    FanoutChannel* old;
    {
        std::lock_guard<std::mutex> lock(g_ipc_mutex);
        old = g_ipc;
        g_ipc = ch;
        g_ipc_setup_failed = false;
    }
    if (old != ch) fanout_channel_close(old);
}

FANOUT_EXPORT void fanout_ipc_attach(int fd, uint32_t session) {
    fanout_ipc_set(fanout_channel_attach(fd, session, nullptr));
}

// A value that is not a whole number of seconds is ignored, as if unset.
// Seconds beyond what 32 bits of milliseconds hold are cut to that.
FANOUT_EXPORT int32_t fanout_ipc_timeout(void) {
    uint64_t seconds = 0;
    bool found = parse_decimal(std::getenv("FANOUT_IPC_TIMEOUT"), UINT64_MAX, &seconds);
    if (!found) {
        MgText file(mrt_get_config_filespec());
        char* value = nullptr;
        if (file && mrt_get_config_from_file(file.get(), "ipc_timeout", &value) == 0) {
            MgText owned(value);
            found = parse_decimal(owned.get(), UINT64_MAX, &seconds);
        }
    }
    if (!found) return 0;
    return seconds > INT32_MAX / 1000 ? INT32_MAX : static_cast<int32_t>(seconds * 1000);
}

FANOUT_EXPORT IpcHandle ecp_get_ipc_handle(void) {
    std::lock_guard<std::mutex> lock(g_ipc_mutex);
    if (g_ipc == nullptr) g_ipc = ipc_from_environment();
    return g_ipc;
}

FANOUT_EXPORT uint32_t ep_session_id(void) {
    std::lock_guard<std::mutex> lock(g_ipc_mutex);
    return g_ipc != nullptr ? g_ipc->session : 0;
}

FANOUT_EXPORT void send_methstat(IpcHandle handle, const void* record) {
    // A null record is sent as the all-zero record.
    static const uint8_t zero[FANOUT_METHSTAT_SIZE] = {};
    send_payload(require(handle), FANOUT_MSG_METHSTAT, record != nullptr ? record : zero,
                 FANOUT_METHSTAT_SIZE);
}

FANOUT_EXPORT void recv_struct(IpcHandle handle, uint32_t type, void* out, uint32_t size) {
    FanoutChannel* ch = require(handle);
    Frame f = receive_frame(ch, kWriteViolation);
    if (f.h.type != type || f.h.length != size) violation(ch, kWriteViolation);
    if (size > 0 && out != nullptr) std::memcpy(out, f.payload.get(), size);
}

FANOUT_EXPORT void net_send_protected(IpcHandle handle, const void* data, uint32_t len,
                                      uint32_t type, uint32_t session) {
    FanoutChannel* ch = require(handle);
    if (session != ch->session) fail(kWriteViolation, ch->name.get());
    send_payload(ch, type, data, len);
}

FANOUT_EXPORT int32_t ep_fanout_recv(void** data, const Kel_Types_OctetList* toc_octets) {
    if (data != nullptr) *data = nullptr;
    FanoutChannel* ch = ecp_get_ipc_handle();
    if (!ch->recv_started) {
        bool have_toc = toc_octets != nullptr && toc_octets->length > 0;
        send_payload(ch, FANOUT_MSG_RECVSTART, have_toc ? toc_octets->buffer : nullptr,
                     have_toc ? toc_octets->length : 0);
        ch->recv_started = true;
    }
    Frame f = receive_frame(ch, kReceiveViolation);
    if (f.h.type == FANOUT_MSG_END) {
        // The exchange is over: a later stream on this channel starts its own.
        ch->recv_started = false;
        return 0;
    }
    if ((f.h.type != FANOUT_MSG_DATA && f.h.type != FANOUT_MSG_CONTROL) || f.h.length == 0 ||
        f.payload.get()[0] < FANOUT_STATUS_DATA || f.payload.get()[0] > FANOUT_STATUS_PAUSE) {
        violation(ch, kReceiveViolation);
    }
    if (data != nullptr) *data = f.payload.release();
    return static_cast<int32_t>(f.h.length);
}

// The process's channel is made here as ecp_get_ipc_handle makes it, but a
// failure is not raised: it is remembered, and later looks return 0 at once
// until fanout_ipc_set is called again.
FANOUT_EXPORT int32_t ep_fanout_poll(void** data) {
    if (data == nullptr) return 0;
    *data = nullptr;
    FanoutChannel* ch;
    {
        std::lock_guard<std::mutex> lock(g_ipc_mutex);
        if (g_ipc == nullptr && !g_ipc_setup_failed) {
            const char* fd_text = std::getenv("FANOUT_IPC_FD");
            const char* address = std::getenv("FANOUT_IPC");
            if ((fd_text == nullptr || *fd_text == '\0') &&
                (address == nullptr || *address == '\0')) {
                return 0;
            }
            try {
                g_ipc = ipc_from_environment();
            } catch (const fanout::Exception&) {
                g_ipc_setup_failed = true;
            }
        }
        ch = g_ipc;
    }
    if (ch == nullptr) return 0;
    if (ch->poisoned) fail(kReceiveViolation, ch->name.get());
    // Reads every whole frame already there, so a control block behind data
    // blocks is seen now; data blocks wait in the queue for the next receive.
    while (ch->queued < kQueueMax && assemble(ch, nullptr, kReceiveViolation)) {
        Frame f = take_partial(ch);
        if (f.h.type == FANOUT_MSG_CONTROL) {
            *data = f.payload.release();
            return 1;
        }
        ch->queue[(ch->head + ch->queued) % kQueueMax] = std::move(f);
        ++ch->queued;
    }
    return 0;
}

FANOUT_EXPORT void iom_close(void* channel) {
    if (channel == nullptr) return;
    auto* ch = static_cast<FanoutChannel*>(channel);
    {
        std::lock_guard<std::mutex> lock(g_ipc_mutex);
        if (g_ipc == ch) g_ipc = nullptr;
    }
    fanout_channel_close(ch);
}

FANOUT_EXPORT void fanout_peer_accept_methstat(FanoutChannel* ch, void* record) {
    recv_struct(ch, FANOUT_MSG_METHSTAT, record, FANOUT_METHSTAT_SIZE);
}

FANOUT_EXPORT void fanout_peer_reply(FanoutChannel* ch, uint32_t answered, int32_t status) {
    uint8_t reply[FANOUT_REPLY_SIZE];
    put_be32(reply, answered);
    put_be32(reply + 4, static_cast<uint32_t>(status));
    send_payload(require(ch), FANOUT_MSG_REPLY, reply, sizeof reply);
}

FANOUT_EXPORT int32_t fanout_peer_recv_block(FanoutChannel* ch, void** data, uint32_t* len) {
    if (data != nullptr) *data = nullptr;
    if (len != nullptr) *len = 0;
    Frame f = receive_frame(require(ch), kWriteViolation);
    if (f.h.type == FANOUT_MSG_END) return 0;
    if (f.h.type != FANOUT_MSG_DATA) violation(ch, kWriteViolation);
    if (len != nullptr) *len = f.h.length;
    if (data != nullptr) *data = f.payload.release();
    return 1;
}

FANOUT_EXPORT void fanout_peer_recv_toc(FanoutChannel* ch, void** octets, uint32_t* len) {
    if (octets != nullptr) *octets = nullptr;
    if (len != nullptr) *len = 0;
    Frame f = receive_frame(require(ch), kReceiveViolation);
    if (f.h.type != FANOUT_MSG_RECVSTART) violation(ch, kReceiveViolation);
    if (len != nullptr) *len = f.h.length;
    if (octets != nullptr) *octets = f.payload.release();
}

FANOUT_EXPORT void fanout_peer_send_block(FanoutChannel* ch, uint8_t status, const void* data,
                                          uint32_t len) {
    iovec parts[2] = {{&status, 1}, {const_cast<void*>(data), len}};
    send_frame(require(ch), FANOUT_MSG_DATA, parts, 2);
}

FANOUT_EXPORT void fanout_peer_send_control(FanoutChannel* ch, uint8_t status) {
    send_payload(require(ch), FANOUT_MSG_CONTROL, &status, 1);
}

FANOUT_EXPORT void fanout_peer_send_end(FanoutChannel* ch) {
    send_payload(require(ch), FANOUT_MSG_END, nullptr, 0);
}

}  // extern "C"
