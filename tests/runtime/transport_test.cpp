// The framed channel over real sockets: exchanges both ways, hostile frames, a vanishing peer,
// polled control blocks, EINTR, the time-out, and how the process's channel is found.
#include <gtest/gtest.h>

#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "fanout/catalog.h"
#include "fanout/exception.h"
#include "fanout/runtime.h"
#include "fanout/transport.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes frame(uint32_t type, uint32_t session, uint32_t length, Bytes payload = {}) {
    Bytes out(FANOUT_FRAME_HEADER_SIZE);
    FanoutFrameHeader h{type, session, length};
    fanout_frame_encode_header(&h, out.data());
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

// The catalogue number `call` raised (0 when it returned), after checking that
// the message's text is the catalogue's own and its one argument is `name`.
int32_t raised(const std::function<void()>& call, const char* name) {
    try {
        call();
    } catch (const fanout::Exception& e) {
        EXPECT_STREQ(e.catalog(), Fanout2Catalog[0]);
        if (e.number() > 0 && e.number() < FANOUT2_CATALOG_SIZE) {
            EXPECT_STREQ(ex_default_text(e.record()), Fanout2Catalog[e.number()]);
        }
        EXPECT_EQ(e.argument_count(), 1u);
        if (name != nullptr && e.argument_count() == 1) {
            EXPECT_STREQ(e.argument(0), name) << e.what();
        }
        return e.number();
    }
    return 0;
}

// Blocks as text, freed: `n` octets at `data`; a frame's payload; the peer's next data block ("end"
// at the end) or start message; the process channel's next block, status first ("" at the end).
std::string take(void* data, size_t n) {
    std::string text(static_cast<char*>(data), data != nullptr ? n : 0);
    mg_free(data);
    return text;
}
std::string take_frame(FanoutChannel* ch) {
    void* data = nullptr;
    FanoutFrameHeader h{};
    fanout_channel_recv(ch, &h, &data);
    return take(data, h.length);
}
std::string take_block(FanoutChannel* ch) {
    void* data = nullptr;
    uint32_t n = 0;
    return fanout_peer_recv_block(ch, &data, &n) == 1 ? take(data, n) : "end";
}
std::string take_toc(FanoutChannel* ch) {
    void* data = nullptr;
    uint32_t n = 0;
    fanout_peer_recv_toc(ch, &data, &n);
    return take(data, n);
}
std::string next_block(const Kel_Types_OctetList* toc = nullptr) {
    void* data = nullptr;
    int32_t n = ep_fanout_recv(&data, toc);
    return take(data, static_cast<size_t>(n));
}

// Waits (at most about 5 s) until thread `tid` of this process sleeps in a call.
void wait_until_asleep(pid_t tid) {
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
    for (int i = 0; i < 5000; ++i) {
        std::ifstream in(path);
        std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        size_t paren = stat.rfind(')');
        if (paren != std::string::npos && stat.substr(paren + 1, 3) == " S ") return;
        usleep(1000);
    }
}

volatile sig_atomic_t g_caught = 0;

class TransportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* v : {"FANOUT_IPC", "FANOUT_IPC_FD", "FANOUT_IPC_SESSION",
                              "FANOUT_IPC_TIMEOUT", "FANOUT_CONFIG"})
            unsetenv(v);
        char dir[] = "/tmp/fanout_transport_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override {
        fanout_ipc_set(nullptr);
        fanout_channel_close(peer_);
        std::filesystem::remove_all(dir_);
    }
    // Connects stream_ (made the process's channel, which owns it) and peer_,
    // both with session 7.
    void open(bool tcp) {
        fanout_channel_close(peer_);
        if (tcp) {
            char* bound = nullptr;
            int listener = fanout_listen("tcp:127.0.0.1:0", &bound);
            stream_ = fanout_channel_connect(bound, 7);
            peer_ = fanout_channel_accept(listener, 7);
            EXPECT_STREQ(fanout_channel_name(stream_), bound);
            mg_free(bound);
            close(listener);
        } else {
            int sv[2];
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
            stream_ = fanout_channel_attach(sv[0], 7, "pair");
            peer_ = fanout_channel_attach(sv[1], 7, nullptr);
        }
        fanout_ipc_set(stream_);
    }
    void write_raw(const Bytes& bytes) {
        ASSERT_EQ(write(fanout_channel_fd(peer_), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }

    std::string dir_;
    FanoutChannel* stream_ = nullptr;
    FanoutChannel* peer_ = nullptr;
};

class TransportLinkTest : public TransportTest, public ::testing::WithParamInterface<bool> {};

INSTANTIATE_TEST_SUITE_P(Links, TransportLinkTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Tcp" : "SocketPair"; });

// One session per link: the stream writes (each block answered, the last with a stop), receives
// twice (a signal interrupts the first wait), then is stuck writing when the peer vanishes.
TEST_P(TransportLinkTest, ExchangesBothWaysThenThePeerVanishes) {
    signal(SIGPIPE, SIG_DFL);  // a send to the vanished peer must not kill the test
    struct sigaction action = {}, previous = {};
    action.sa_handler = [](int) { g_caught = 1; };  // no SA_RESTART: the read sees EINTR
    sigaction(SIGUSR1, &action, &previous);
    g_caught = 0;
    ASSERT_NO_FATAL_FAILURE(open(GetParam()));
    const std::string name = fanout_channel_name(stream_);
    uint8_t record[FANOUT_METHSTAT_SIZE];
    for (uint8_t i = 0; i < sizeof record; ++i) record[i] = i;
    std::string big(200000, 'x');  // read partly through the buffer, partly straight
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 26);
    std::atomic<bool> sending{false};
    auto peer_side = [&, tid = gettid(), reader = pthread_self()] {
        uint8_t got[FANOUT_METHSTAT_SIZE] = {};
        fanout_peer_accept_methstat(peer_, got);
        EXPECT_EQ(std::memcmp(got, record, sizeof got), 0);
        fanout_peer_reply(peer_, FANOUT_MSG_METHSTAT, 16);
        EXPECT_EQ(take_block(peer_), "0123456789abcdef");
        fanout_peer_reply(peer_, FANOUT_MSG_DATA, 0);
        EXPECT_EQ(take_block(peer_), "tail");
        fanout_peer_reply(peer_, FANOUT_MSG_DATA, -2);
        EXPECT_EQ(take_block(peer_), "end");
        EXPECT_EQ(take_toc(peer_), "TOC");
        wait_until_asleep(tid);
        pthread_kill(reader, SIGUSR1);
        while (g_caught == 0) usleep(1000);
        fanout_peer_send_block(peer_, FANOUT_STATUS_DATA, "hello", 5);
        fanout_peer_send_block(peer_, FANOUT_STATUS_DATA, big.data(),
                               static_cast<uint32_t>(big.size()));
        fanout_peer_send_control(peer_, FANOUT_STATUS_PAUSE);
        fanout_peer_send_block(peer_, FANOUT_STATUS_CANCEL, nullptr, 0);
        fanout_peer_send_end(peer_);
        EXPECT_EQ(take_toc(peer_), "TOC");
        fanout_peer_send_end(peer_);
        write_raw(frame(FANOUT_MSG_DATA, 7, 1000, Bytes(500, 1)));
        while (!sending) usleep(1000);
        wait_until_asleep(tid);
        fanout_channel_close(std::exchange(peer_, nullptr));
    };
    fanout_channel_set_timeout(peer_, 10000);  // a failing test ends instead of hanging
    std::jthread peer([&] {
        EXPECT_EQ(raised(peer_side, nullptr), 0);
        if (peer_ != nullptr) shutdown(fanout_channel_fd(peer_), SHUT_RDWR);
    });
    IpcHandle h = ecp_get_ipc_handle();
    EXPECT_EQ(h, stream_);
    EXPECT_EQ(ep_session_id(), 7u);
    auto reply = [&] {
        Bytes r(FANOUT_REPLY_SIZE);
        recv_struct(h, FANOUT_MSG_REPLY, r.data(), FANOUT_REPLY_SIZE);
        return r;
    };
    send_methstat(h, record);
    EXPECT_EQ(reply(), Bytes({0, 0, 0, 20, 0, 0, 0, 16}));
    net_send_protected(h, "0123456789abcdef", 16, FANOUT_MSG_DATA, 7);
    EXPECT_EQ(reply(), Bytes({0, 0, 0, 11, 0, 0, 0, 0}));
    net_send_protected(h, "tail", 4, FANOUT_MSG_DATA, 7);
    EXPECT_EQ(reply(), Bytes({0, 0, 0, 11, 0xff, 0xff, 0xff, 0xfe}));
    net_send_protected(h, nullptr, 0, FANOUT_MSG_END, 7);
    uint8_t toc_text[] = {'T', 'O', 'C'};
    Kel_Types_OctetList toc{3, 3, toc_text};
    const std::string blocks[] = {"\1hello", "\1" + big, "\3", "\2", "", ""};
    for (const std::string& block : blocks) EXPECT_EQ(next_block(&toc), block);

    Bytes block(8u << 20, 0x5a);
    auto send = [&] {
        sending = true;
        for (int i = 0; i < 64; ++i) fanout_channel_send(stream_, 11, block.data(), 8u << 20);
    };
    EXPECT_EQ(raised(send, name.c_str()), 101);
    EXPECT_EQ(raised([&] { take_frame(stream_); }, name.c_str()), 101);
    EXPECT_EQ(g_caught, 1);
    sigaction(SIGUSR1, &previous, nullptr);
}

using Call = std::string (*)(FanoutChannel*);
const Call kBlock = [](FanoutChannel*) { return next_block(); };
const Call kReply = [](FanoutChannel* ch) {
    uint8_t reply[FANOUT_REPLY_SIZE];
    recv_struct(ch, FANOUT_MSG_REPLY, reply, sizeof reply);
    return std::string();
};
const Call kPoll = [](FanoutChannel*) {
    void* data = nullptr;
    ep_fanout_poll(&data);
    return take(data, 1);
};

// Refusals are 109 receiving, 111 writing. Refused headers come without their payload: refusing
// only after reading it would meet the end of input (101). The pure check judges the same octets.
TEST_F(TransportTest, HostileFramesRaiseTheirCatalogueMessage) {
    const int32_t kOk = FANOUT_FRAME_OK, kCut = FANOUT_FRAME_TRUNCATED;
    const int32_t kType = FANOUT_FRAME_BAD_TYPE, kLength = FANOUT_FRAME_BAD_LENGTH;
    const uint32_t max = FANOUT_FRAME_MAX_PAYLOAD;
    const struct {
        const char* what;
        Bytes bytes;
        Call call;
        int32_t number, verdict;
    } cases[] = {
        {"unknown type", frame(99, 7, 0), take_frame, 109, kType},
        {"unknown type, write side", frame(22, 7, 0), kReply, 111, kType},
        {"oversized", frame(11, 7, max + 1), take_frame, 109, kLength},
        {"oversized, write side", frame(24, 7, 0xffffffffu), take_block, 111, kLength},
        {"reply of 9", frame(21, 7, 9), kReply, 111, kLength},
        {"methstat of 27", frame(20, 7, 27), kReply, 111, kLength},
        {"empty control", frame(25, 7, 0), kPoll, 109, kLength},
        {"control of 257", frame(25, 7, 257), kBlock, 109, kLength},
        {"end of 1", frame(23, 7, 1), take_frame, 109, kLength},
        {"foreign session", frame(11, 8, 1), take_frame, 109, kCut},
        {"foreign session, write side", frame(21, 8, 8), kReply, 111, kCut},
        {"end for a reply", frame(23, 7, 0), kReply, 111, kOk},
        {"reply for a block", frame(21, 7, 8, Bytes(8)), kBlock, 109, kOk},
        {"empty block", frame(11, 7, 0), kBlock, 109, kOk},
        {"status octet 7", frame(11, 7, 2, {7, 0}), kBlock, 109, kOk},
        {"reply for a block, peer", frame(21, 7, 8, Bytes(8)), take_block, 111, kOk},
        {"block for the toc", frame(11, 7, 1, {1}), take_toc, 109, kOk},
        {"cut in the header", Bytes{0, 0, 0, 11, 0}, take_frame, 101, kCut},
        {"cut in the payload", frame(20, 7, 28, Bytes(27)), kBlock, 101, kCut},
        {"cut in the largest payload", frame(11, 7, max, Bytes(100000)), take_block, 101, kCut},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        FanoutFrameHeader h{};
        EXPECT_EQ(fanout_frame_check(c.bytes.data(), c.bytes.size(), &h), c.verdict);
        EXPECT_EQ(h.type, c.bytes.size() >= 12 ? c.bytes[3] : 0u);
        ASSERT_NO_FATAL_FAILURE(open(false));
        ASSERT_NO_FATAL_FAILURE(write_raw(c.bytes));
        shutdown(fanout_channel_fd(peer_), SHUT_WR);
        EXPECT_EQ(raised([&] { c.call(stream_); }, "pair"), c.number);
        // The channel does not recover into reading payload as headers.
        EXPECT_EQ(raised([&] { c.call(stream_); }, "pair"), c.number);
    }
    // Nor does it send what the peer would refuse.
    EXPECT_EQ(raised([&] { fanout_channel_send(stream_, 99, nullptr, 0); }, "pair"), 111);
    EXPECT_EQ(raised([&] { fanout_channel_send(stream_, 21, "123", 3); }, "pair"), 111);
    EXPECT_EQ(raised([&] { net_send_protected(stream_, nullptr, 0, 23, 8); }, "pair"), 111);
    EXPECT_EQ(raised([] { fanout_channel_send(nullptr, 23, nullptr, 0); }, "FANOUT_IPC"), 101);
}

TEST_F(TransportTest, PollTakesControlBlocksAndQueuesTheDataBeforeThem) {
    ASSERT_NO_FATAL_FAILURE(open(false));
    EXPECT_EQ(kPoll(stream_), "");  // nothing there: returns at once
    auto send_data = [&](const char* letters) {
        for (const char* c = letters; *c != '\0'; ++c) {
            fanout_peer_send_block(peer_, FANOUT_STATUS_DATA, c, 1);
        }
    };
    send_data("abcdefghijklmno");
    Bytes control = frame(FANOUT_MSG_CONTROL, 7, 256, Bytes(256, FANOUT_STATUS_PAUSE));
    write_raw(Bytes(control.begin(), control.begin() + 7));
    EXPECT_EQ(kPoll(stream_), "");  // taken only once it is whole
    write_raw(Bytes(control.begin() + 7, control.end()));
    send_data("pq");
    EXPECT_EQ(kPoll(stream_), "\3");
    EXPECT_EQ(kPoll(stream_), "");  // keeps 16 blocks and leaves the 17th unread
    for (char c : std::string("abcdefghijklmnopq")) EXPECT_EQ(next_block(), std::string("\1") + c);
    // A peer that has gone is no control block; the next receive says so.
    fanout_channel_close(std::exchange(peer_, nullptr));
    EXPECT_EQ(kPoll(stream_), "");
    EXPECT_EQ(raised([] { next_block(); }, "pair"), 101);
}

// After a large frame the receiver reads the next header and a guessed payload in one go; groups
// of mixed sizes, each arriving into an empty read buffer, check every guess still gives whole
// frames.
TEST_F(TransportTest, MixedFrameSizesArriveWholeWhateverTheGuess) {
    ASSERT_NO_FATAL_FAILURE(open(false));
    const std::vector<std::vector<uint32_t>> groups = {
        {20000}, {3, 20000}, {20000, 20000}, {70000, 20000}, {5, 16385, 1}};
    for (const auto& group : groups) {
        Bytes wire;
        std::vector<std::string> sent;
        for (uint32_t n : group) {
            Bytes payload(n);
            for (uint32_t i = 0; i < n; ++i) payload[i] = static_cast<uint8_t>(i * 7 + n);
            sent.emplace_back(payload.begin(), payload.end());
            const Bytes f = frame(FANOUT_MSG_DATA, 7, n, payload);
            wire.insert(wire.end(), f.begin(), f.end());
        }
        write_raw(wire);  // within the socket's buffers: nobody needs to read yet
        for (const std::string& expected : sent) ASSERT_EQ(take_frame(stream_), expected);
    }
}

TEST_F(TransportTest, SilentPeerRaises108AndACutFrameIsKept) {
    ASSERT_NO_FATAL_FAILURE(open(false));
    fanout_channel_set_timeout(stream_, 200);
    Bytes whole = frame(FANOUT_MSG_DATA, 7, 3, {1, 2, 3});
    write_raw(Bytes(whole.begin(), whole.begin() + 13));
    EXPECT_EQ(raised([&] { take_frame(stream_); }, "pair"), 108);
    write_raw(Bytes(whole.begin() + 13, whole.end()));
    EXPECT_EQ(next_block(), "\1\2\3");
    Bytes block(8u << 20, 1);  // more than the socket's buffers, and the peer never reads
    EXPECT_EQ(raised([&] { fanout_channel_send(stream_, 11, block.data(), 8u << 20); }, "pair"),
              108);
}

TEST_F(TransportTest, ProcessChannelComesFromTheEnvironment) {
    EXPECT_EQ(kPoll(nullptr), "");
    EXPECT_EQ(raised(ecp_get_ipc_handle, "FANOUT_IPC"), 101);
    setenv("FANOUT_IPC", "bogus:1", 1);
    EXPECT_EQ(kPoll(nullptr), "");
    EXPECT_EQ(raised(ecp_get_ipc_handle, "bogus:1"), 101);
    setenv("FANOUT_IPC_FD", "x7", 1);
    EXPECT_EQ(raised(ecp_get_ipc_handle, "fd x7"), 101);

    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    setenv("FANOUT_IPC_FD", std::to_string(sv[0]).c_str(), 1);  // wins over FANOUT_IPC
    setenv("FANOUT_IPC_SESSION", "42", 1);
    peer_ = fanout_channel_attach(sv[1], 42, nullptr);
    EXPECT_EQ(ep_session_id(), 0u);  // asking for the id makes no channel
    EXPECT_EQ(fanout_channel_name(ecp_get_ipc_handle()), "fd " + std::to_string(sv[0]));
    EXPECT_EQ(ep_session_id(), 42u);
    fanout_peer_send_block(peer_, FANOUT_STATUS_DATA, "x", 1);
    EXPECT_EQ(next_block(), "\1x");

    unsetenv("FANOUT_IPC_FD");
    for (const std::string& address : {"unix:" + dir_ + "/sock", std::string("tcp:*:0")}) {
        fanout_ipc_set(nullptr);
        fanout_channel_close(peer_);
        char* bound = nullptr;
        close(fanout_listen(address.c_str(), nullptr));
        int listener = fanout_listen(address.c_str(), &bound);  // a socket file is replaced
        setenv("FANOUT_IPC", bound, 1);
        EXPECT_EQ(kPoll(nullptr), "");  // connects, finds nothing
        peer_ = fanout_channel_accept(listener, 42);
        EXPECT_STREQ(fanout_channel_name(ecp_get_ipc_handle()), bound);
        fanout_peer_send_block(peer_, FANOUT_STATUS_DATA, "y", 1);
        EXPECT_EQ(next_block(), "\1y");
        close(listener);
        mg_free(bound);
    }

    // The time-out: FANOUT_IPC_TIMEOUT in seconds, else the file's key.
    EXPECT_EQ(fanout_ipc_timeout(), 0);
    std::ofstream(dir_ + "/config") << "ipc_timeout = 2\n";
    setenv("FANOUT_CONFIG", (dir_ + "/config").c_str(), 1);
    const std::pair<const char*, int32_t> timeouts[] = {
        {"", 2000}, {"3", 3000}, {"soon", 2000}, {"99999999", INT32_MAX}};
    for (const auto& [text, milliseconds] : timeouts) {
        setenv("FANOUT_IPC_TIMEOUT", text, 1);
        EXPECT_EQ(fanout_ipc_timeout(), milliseconds) << text;
    }
}

}  // namespace
