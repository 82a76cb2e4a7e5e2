// Tests of the framed channel over real sockets: the write and receive
// exchanges with a forked peer over a socket pair, a Unix socket and TCP
// loopback; hostile frames; a peer that vanishes; EINTR; the time-out; and
// how the process's channel is found.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <new>
#include <string>
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

int32_t be32(const uint8_t* p) {
    return static_cast<int32_t>((uint32_t{p[0]} << 24) | (uint32_t{p[1]} << 16) |
                                (uint32_t{p[2]} << 8) | p[3]);
}

// The catalogue number `call` raised (0 when it returned), after checking the
// message's catalogue, text and its one argument, the channel's name.
int32_t raised(const std::function<void()>& call, const char* name) {
    try {
        call();
    } catch (const fanout::Exception& e) {
        EXPECT_STREQ(e.catalog(), Fanout2Catalog[0]);
        if (e.number() > 0 && e.number() < FANOUT2_CATALOG_SIZE) {
            EXPECT_STREQ(ex_default_text(e.record()), Fanout2Catalog[e.number()]);
        }
        EXPECT_EQ(e.argument_count(), 1u);
        if (name != nullptr) {
            EXPECT_STREQ(e.argument(0), name) << e.what();
        }
        return e.number();
    }
    return 0;
}

enum class Link { kSocketPair, kUnix, kTcp };

class TransportTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char dir[] = "/tmp/fanout_transport_XXXXXX";
        ASSERT_NE(mkdtemp(dir), nullptr);
        dir_ = dir;
    }
    void TearDown() override {
        fanout_ipc_set(nullptr);
        fanout_channel_close(peer_);
        std::remove((dir_ + "/sock").c_str());
        std::remove((dir_ + "/config").c_str());
        rmdir(dir_.c_str());
    }
    // Connects stream_ (the stream's end, made the process's channel, which
    // owns it) and peer_ with session 7.
    void open(Link link) {
        fanout_channel_close(peer_);
        peer_ = nullptr;
        if (link == Link::kSocketPair) {
            int sv[2];
            ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
            stream_ = fanout_channel_attach(sv[0], 7, "pair");
            peer_ = fanout_channel_attach(sv[1], 7, nullptr);
            fanout_ipc_set(stream_);
            return;
        }
        std::string address = link == Link::kUnix ? "unix:" + dir_ + "/sock" : "tcp:127.0.0.1:0";
        char* bound = nullptr;
        int listener = fanout_listen(address.c_str(), &bound);
        stream_ = fanout_channel_connect(bound, 7);
        peer_ = fanout_channel_accept(listener, 7);
        EXPECT_STREQ(fanout_channel_name(stream_), bound);
        mg_free(bound);
        close(listener);
        fanout_ipc_set(stream_);
    }
    // Runs `peer` on peer_ in a child; the parent keeps only the stream's end.
    pid_t fork_peer(const std::function<int(FanoutChannel*)>& peer) {
        pid_t pid = fork();
        if (pid == 0) {
            int code;
            try {
                code = peer(peer_);
            } catch (const fanout::Exception& e) {
                std::fprintf(stderr, "peer: %s", e.what());
                code = 100;
            }
            _exit(code);
        }
        fanout_channel_close(peer_);
        peer_ = nullptr;
        return pid;
    }
    static int join(pid_t pid) {
        int status = 0;
        EXPECT_EQ(waitpid(pid, &status, 0), pid);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    void write_raw(const Bytes& bytes) {
        ASSERT_EQ(write(fanout_channel_fd(peer_), bytes.data(), bytes.size()),
                  static_cast<ssize_t>(bytes.size()));
    }

    std::string dir_;
    FanoutChannel* stream_ = nullptr;
    FanoutChannel* peer_ = nullptr;
};

TEST(TransportFrame, CheckDecodesAndRefusesHeaders) {
    const uint32_t max = FANOUT_FRAME_MAX_PAYLOAD;
    const struct {
        Bytes bytes;
        int32_t verdict;
    } cases[] = {
        {{}, FANOUT_FRAME_TRUNCATED},
        {Bytes(11, 0), FANOUT_FRAME_TRUNCATED},
        {frame(23, 9, 0), FANOUT_FRAME_OK},
        {frame(20, 9, 28, Bytes(28)), FANOUT_FRAME_OK},
        {frame(20, 9, 28, Bytes(27)), FANOUT_FRAME_TRUNCATED},
        {frame(20, 9, 27, Bytes(27)), FANOUT_FRAME_BAD_LENGTH},
        {frame(21, 9, 8, Bytes(8)), FANOUT_FRAME_OK},
        {frame(21, 9, 9, Bytes(9)), FANOUT_FRAME_BAD_LENGTH},
        {frame(23, 9, 1, Bytes(1)), FANOUT_FRAME_BAD_LENGTH},
        {frame(25, 9, 0), FANOUT_FRAME_BAD_LENGTH},
        {frame(25, 9, 256, Bytes(256)), FANOUT_FRAME_OK},
        {frame(25, 9, 257, Bytes(257)), FANOUT_FRAME_BAD_LENGTH},
        {frame(24, 9, 0), FANOUT_FRAME_OK},
        {frame(11, 9, max), FANOUT_FRAME_TRUNCATED},
        {frame(11, 9, max + 1), FANOUT_FRAME_BAD_LENGTH},
        {frame(24, 9, 0xffffffffu), FANOUT_FRAME_BAD_LENGTH},
        {frame(0, 9, 0), FANOUT_FRAME_BAD_TYPE},
        {frame(22, 9, 0), FANOUT_FRAME_BAD_TYPE},
        {frame(26, 9, 0), FANOUT_FRAME_BAD_TYPE},
    };
    for (const auto& c : cases) {
        FanoutFrameHeader h{1, 2, 3};
        EXPECT_EQ(fanout_frame_check(c.bytes.data(), c.bytes.size(), &h), c.verdict)
            << "frame of " << c.bytes.size() << " octets";
        if (c.bytes.size() >= 12) {
            EXPECT_EQ(h.type, static_cast<uint32_t>(be32(c.bytes.data())));
            EXPECT_EQ(h.session, 9u);
        }
    }
}

class TransportLinkTest : public TransportTest, public ::testing::WithParamInterface<Link> {};

INSTANTIATE_TEST_SUITE_P(Links, TransportLinkTest,
                         ::testing::Values(Link::kSocketPair, Link::kUnix, Link::kTcp));

// The stream's reply from the peer: checks which message it answers.
int32_t reply_status(IpcHandle h, uint32_t answered) {
    uint8_t reply[FANOUT_REPLY_SIZE];
    recv_struct(h, FANOUT_MSG_REPLY, reply, sizeof reply);
    EXPECT_EQ(static_cast<uint32_t>(be32(reply)), answered);
    return be32(reply + 4);
}

TEST_P(TransportLinkTest, WriteDirectionBlocksAreEachAnswered) {
    ASSERT_NO_FATAL_FAILURE(open(GetParam()));
    const std::vector<std::pair<std::string, int32_t>> blocks = {{"0123456789abcdef", 0},
                                                                 {"tail!", -2}};
    pid_t pid = fork_peer([&](FanoutChannel* p) {
        uint8_t record[FANOUT_METHSTAT_SIZE];
        std::memset(record, 0xee, sizeof record);
        fanout_peer_accept_methstat(p, record);
        if (record[0] != 0 || std::memcmp(record, record + 1, sizeof record - 1) != 0) return 1;
        fanout_peer_reply(p, FANOUT_MSG_METHSTAT, 16);
        void* data = nullptr;
        uint32_t len = 0;
        for (const auto& [text, answer] : blocks) {
            if (fanout_peer_recv_block(p, &data, &len) != 1) return 2;
            bool same = len == text.size() && std::memcmp(data, text.data(), len) == 0;
            mg_free(data);
            if (!same) return 3;
            fanout_peer_reply(p, FANOUT_MSG_DATA, answer);
        }
        return fanout_peer_recv_block(p, &data, &len) == 0 && data == nullptr ? 0 : 4;
    });
    IpcHandle h = ecp_get_ipc_handle();
    ASSERT_EQ(h, stream_);
    EXPECT_EQ(ep_session_id(), 7u);
    const uint8_t record[FANOUT_METHSTAT_SIZE] = {};
    send_methstat(h, record);
    EXPECT_EQ(reply_status(h, FANOUT_MSG_METHSTAT), 16);
    for (const auto& [text, answer] : blocks) {
        net_send_protected(h, text.data(), static_cast<uint32_t>(text.size()), FANOUT_MSG_DATA,
                           ep_session_id());
        EXPECT_EQ(reply_status(h, FANOUT_MSG_DATA), answer);
    }
    net_send_protected(h, nullptr, 0, FANOUT_MSG_END, ep_session_id());
    EXPECT_EQ(join(pid), 0);
}

TEST_P(TransportLinkTest, ReceiveDirectionDeliversTocThenStatusBlocks) {
    ASSERT_NO_FATAL_FAILURE(open(GetParam()));
    // A block large enough to be read partly through the buffer and partly
    // straight into its own block.
    std::string big(200000, 'x');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>('a' + i % 26);
    pid_t pid = fork_peer([&](FanoutChannel* p) {
        void* toc = nullptr;
        uint32_t len = 0;
        fanout_peer_recv_toc(p, &toc, &len);
        bool same = len == 3 && std::memcmp(toc, "TOC", 3) == 0;
        mg_free(toc);
        if (!same) return 1;
        fanout_peer_send_block(p, FANOUT_STATUS_DATA, "hello", 5);
        fanout_peer_send_block(p, FANOUT_STATUS_DATA, big.data(),
                               static_cast<uint32_t>(big.size()));
        fanout_peer_send_control(p, FANOUT_STATUS_PAUSE);
        fanout_peer_send_block(p, FANOUT_STATUS_CANCEL, nullptr, 0);
        fanout_peer_send_end(p);
        // A second stream on the channel starts with its own start message.
        fanout_peer_recv_toc(p, &toc, &len);
        same = len == 3 && std::memcmp(toc, "TOC", 3) == 0;
        mg_free(toc);
        fanout_peer_send_end(p);
        return same ? 0 : 2;
    });
    uint8_t toc_text[] = {'T', 'O', 'C'};
    Kel_Types_OctetList toc{3, 3, toc_text};
    const std::string expected[] = {std::string("\1hello"), "\1" + big, "\3", "\2"};
    for (const std::string& block : expected) {
        void* data = nullptr;
        int32_t n = ep_fanout_recv(&data, &toc);
        ASSERT_EQ(n, static_cast<int32_t>(block.size()));
        EXPECT_EQ(std::memcmp(data, block.data(), block.size()), 0);
        mg_free(data);
    }
    void* data = &data;
    EXPECT_EQ(ep_fanout_recv(&data, nullptr), 0);
    EXPECT_EQ(data, nullptr);
    EXPECT_EQ(ep_fanout_recv(&data, &toc), 0);
    EXPECT_EQ(join(pid), 0);
}

TEST_P(TransportLinkTest, PeerVanishingMidWriteOrMidReadRaises101) {
    signal(SIGPIPE, SIG_DFL);  // a send must not kill the test
    ASSERT_NO_FATAL_FAILURE(open(GetParam()));
    std::string name = fanout_channel_name(stream_);
    // The peer never reads: whatever the buffers hold, the sends stop with
    // 101 once it is gone.
    pid_t pid = fork_peer([](FanoutChannel*) { return 0; });
    Bytes block(8u << 20, 0x5a);
    EXPECT_EQ(raised(
                  [&] {
                      for (int i = 0; i < 64; ++i) {
                          fanout_channel_send(stream_, FANOUT_MSG_DATA, block.data(),
                                              static_cast<uint32_t>(block.size()));
                      }
                  },
                  name.c_str()),
              101);
    EXPECT_EQ(join(pid), 0);

    ASSERT_NO_FATAL_FAILURE(open(GetParam()));
    name = fanout_channel_name(stream_);
    pid = fork_peer([](FanoutChannel* p) {
        Bytes half = frame(FANOUT_MSG_DATA, 7, 1000, Bytes(500, 1));
        return write(fanout_channel_fd(p), half.data(), half.size()) == 512 ? 0 : 1;
    });
    EXPECT_EQ(raised([&] { fanout_channel_recv(stream_, nullptr, nullptr); }, name.c_str()), 101);
    EXPECT_EQ(join(pid), 0);
}

enum class Call { kChannelRecv, kRecvStruct, kEpRecv, kPeerBlock, kPeerMethstat, kPeerToc, kPoll };

TEST_F(TransportTest, HostileFramesRaiseTheirCatalogueMessage) {
    const uint32_t max = FANOUT_FRAME_MAX_PAYLOAD;
    const struct {
        const char* what;
        Bytes bytes;
        Call call;
        int32_t number;
    } cases[] = {
        {"unknown type", frame(99, 7, 0), Call::kChannelRecv, 109},
        {"unknown type, write side", frame(99, 7, 0), Call::kRecvStruct, 111},
        {"oversized", frame(11, 7, max + 1), Call::kChannelRecv, 109},
        {"oversized, write side", frame(11, 7, 0xffffffffu), Call::kPeerBlock, 111},
        {"reply of 9", frame(21, 7, 9, Bytes(9)), Call::kRecvStruct, 111},
        {"methstat of 27", frame(20, 7, 27, Bytes(27)), Call::kPeerMethstat, 111},
        {"empty control", frame(25, 7, 0), Call::kPoll, 109},
        {"control of 257", frame(25, 7, 257, Bytes(257, 2)), Call::kEpRecv, 109},
        {"foreign session", frame(11, 8, 1, {1}), Call::kChannelRecv, 109},
        {"foreign session, write side", frame(21, 8, 8, Bytes(8)), Call::kRecvStruct, 111},
        {"end for a reply", frame(23, 7, 0), Call::kRecvStruct, 111},
        {"reply for a block", frame(21, 7, 8, Bytes(8)), Call::kEpRecv, 109},
        {"empty block", frame(11, 7, 0), Call::kEpRecv, 109},
        {"status octet 7", frame(11, 7, 2, {7, 0}), Call::kEpRecv, 109},
        {"reply for a block, peer", frame(21, 7, 8, Bytes(8)), Call::kPeerBlock, 111},
        {"block for the toc", frame(11, 7, 1, {1}), Call::kPeerToc, 109},
        {"cut in the header", Bytes{0, 0, 0, 11, 0}, Call::kChannelRecv, 101},
        {"cut in the payload", frame(11, 7, 100, Bytes(10, 1)), Call::kEpRecv, 101},
        {"cut in a large payload", frame(11, 7, 1u << 20, Bytes(100000, 1)), Call::kPeerBlock, 101},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_NO_FATAL_FAILURE(open(Link::kSocketPair));
        ASSERT_NO_FATAL_FAILURE(write_raw(c.bytes));
        shutdown(fanout_channel_fd(peer_), SHUT_WR);
        auto call = [&] {
            void* data = nullptr;
            uint32_t len = 0;
            uint8_t out[FANOUT_METHSTAT_SIZE];
            switch (c.call) {
                case Call::kChannelRecv:
                    fanout_channel_recv(stream_, nullptr, &data);
                    break;
                case Call::kRecvStruct:
                    recv_struct(stream_, 21, out, 8);
                    break;
                case Call::kEpRecv:
                    ep_fanout_recv(&data, nullptr);
                    break;
                case Call::kPeerBlock:
                    fanout_peer_recv_block(stream_, &data, &len);
                    break;
                case Call::kPeerMethstat:
                    fanout_peer_accept_methstat(stream_, out);
                    break;
                case Call::kPeerToc:
                    fanout_peer_recv_toc(stream_, &data, &len);
                    break;
                case Call::kPoll:
                    ep_fanout_poll(&data);
                    break;
            }
            mg_free(data);
        };
        EXPECT_EQ(raised(call, "pair"), c.number);
        // The channel does not recover into reading payload as headers.
        EXPECT_EQ(raised(call, "pair"), c.number);
    }
}

TEST_F(TransportTest, PollTakesControlBlocksAndKeepsDataForTheNextReceive) {
    ASSERT_NO_FATAL_FAILURE(open(Link::kSocketPair));
    void* data = &data;
    EXPECT_EQ(ep_fanout_poll(&data), 0);  // nothing there: returns at once
    EXPECT_EQ(data, nullptr);
    fanout_peer_send_block(peer_, FANOUT_STATUS_DATA, "abc", 3);
    fanout_peer_send_block(peer_, FANOUT_STATUS_DATA, "def", 3);
    // A control block arriving in two pieces is taken once it is whole.
    Bytes control = frame(FANOUT_MSG_CONTROL, 7, 1, {FANOUT_STATUS_PAUSE});
    write_raw(Bytes(control.begin(), control.begin() + 7));
    EXPECT_EQ(ep_fanout_poll(&data), 0);
    write_raw(Bytes(control.begin() + 7, control.end()));
    ASSERT_EQ(ep_fanout_poll(&data), 1);
    EXPECT_EQ(static_cast<uint8_t*>(data)[0], FANOUT_STATUS_PAUSE);
    mg_free(data);
    EXPECT_EQ(ep_fanout_poll(&data), 0);
    for (const char* text : {"\1abc", "\1def"}) {
        ASSERT_EQ(ep_fanout_recv(&data, nullptr), 4);
        EXPECT_EQ(std::memcmp(data, text, 4), 0);
        mg_free(data);
    }
    uint32_t len = 1;
    fanout_peer_recv_toc(peer_, &data, &len);  // the first receive's start message
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(data, nullptr);
    // A peer that has gone is no control block; the next receive says so.
    fanout_channel_close(peer_);
    peer_ = nullptr;
    EXPECT_EQ(ep_fanout_poll(&data), 0);
    EXPECT_EQ(raised([&] { ep_fanout_recv(&data, nullptr); }, "pair"), 101);
}

struct Shared {
    volatile sig_atomic_t reading;
    volatile sig_atomic_t caught;
};
Shared* g_shared = nullptr;
void on_usr1(int) {
    g_shared->caught = 1;
}

// Whether process `pid` is asleep (blocked in a call).
bool sleeping(pid_t pid) {
    std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
    size_t paren = text.rfind(')');
    return paren != std::string::npos && paren + 2 < text.size() && text[paren + 2] == 'S';
}

TEST_F(TransportTest, SignalDuringABlockingReadIsRetried) {
    void* page =
        mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(page, MAP_FAILED);
    g_shared = new (page) Shared{0, 0};
    struct sigaction action = {};
    struct sigaction previous = {};
    action.sa_handler = on_usr1;  // no SA_RESTART: the blocked call sees EINTR
    sigaction(SIGUSR1, &action, &previous);
    ASSERT_NO_FATAL_FAILURE(open(Link::kSocketPair));
    pid_t parent = getpid();
    pid_t pid = fork_peer([&](FanoutChannel* p) {
        while (!g_shared->reading) usleep(1000);
        for (int i = 0; i < 5000 && !sleeping(parent); ++i) usleep(1000);
        kill(parent, SIGUSR1);
        while (!g_shared->caught) usleep(1000);
        fanout_peer_send_block(p, FANOUT_STATUS_DATA, "late", 4);
        return 0;
    });
    g_shared->reading = 1;
    FanoutFrameHeader h{};
    void* data = nullptr;
    fanout_channel_recv(stream_, &h, &data);
    EXPECT_EQ(g_shared->caught, 1);
    EXPECT_EQ(h.type, FANOUT_MSG_DATA);
    ASSERT_EQ(h.length, 5u);
    EXPECT_EQ(std::memcmp(data, "\1late", 5), 0);
    mg_free(data);
    EXPECT_EQ(join(pid), 0);
    sigaction(SIGUSR1, &previous, nullptr);
    munmap(page, sizeof(Shared));
}

TEST_F(TransportTest, SilentPeerRaises108AndTheFrameStillArrivesLater) {
    ASSERT_NO_FATAL_FAILURE(open(Link::kSocketPair));
    fanout_channel_set_timeout(stream_, 1000);
    // A frame cut short times out without being lost: the rest completes it.
    Bytes whole = frame(FANOUT_MSG_DATA, 7, 3, {1, 2, 3});
    write_raw(Bytes(whole.begin(), whole.begin() + 13));
    EXPECT_EQ(raised([&] { fanout_channel_recv(stream_, nullptr, nullptr); }, "pair"), 108);
    write_raw(Bytes(whole.begin() + 13, whole.end()));
    void* data = nullptr;
    FanoutFrameHeader h{};
    fanout_channel_recv(stream_, &h, &data);
    EXPECT_EQ(h.length, 3u);
    mg_free(data);
    // A peer that never reads: a block larger than the socket's buffers.
    Bytes block(8u << 20, 1);
    EXPECT_EQ(raised(
                  [&] {
                      fanout_channel_send(stream_, FANOUT_MSG_DATA, block.data(),
                                          static_cast<uint32_t>(block.size()));
                  },
                  "pair"),
              108);
}

TEST_F(TransportTest, SendRefusesWhatThePeerWouldRefuse) {
    ASSERT_NO_FATAL_FAILURE(open(Link::kSocketPair));
    EXPECT_EQ(raised([&] { fanout_channel_send(stream_, 99, nullptr, 0); }, "pair"), 111);
    EXPECT_EQ(raised([&] { fanout_channel_send(stream_, 21, "123", 3); }, "pair"), 111);
    EXPECT_EQ(raised([&] { net_send_protected(stream_, nullptr, 0, 23, 8); }, "pair"), 111);
    EXPECT_EQ(raised([] { fanout_channel_send(nullptr, 23, nullptr, 0); }, nullptr), 101);
}

// The checks below run in a child (EXPECT_EXIT) so that the environment and
// the process's channel they set up do not leak into other tests; a failed
// check ends the child with its text on standard error.
#define CHILD_CHECK(cond)                                \
    do {                                                 \
        if (!(cond)) {                                   \
            std::fprintf(stderr, "failed: %s\n", #cond); \
            _exit(1);                                    \
        }                                                \
    } while (0)

// The process's channel carries one block from `peer` to the stream.
bool carries_a_block(FanoutChannel* peer) {
    fanout_peer_send_block(peer, FANOUT_STATUS_DATA, "x", 1);
    void* data = nullptr;
    int32_t n = ep_fanout_recv(&data, nullptr);
    mg_free(data);
    return n == 2;
}

void fresh_process_state() {
    fanout_ipc_set(nullptr);
    for (const char* v : {"FANOUT_IPC", "FANOUT_IPC_FD", "FANOUT_IPC_SESSION", "FANOUT_IPC_TIMEOUT",
                          "FANOUT_CONFIG"}) {
        unsetenv(v);
    }
}

void unconfigured_or_malformed() {
    fresh_process_state();
    void* data = nullptr;
    CHILD_CHECK(ep_fanout_poll(&data) == 0 && data == nullptr);
    CHILD_CHECK(raised([] { ecp_get_ipc_handle(); }, nullptr) == 101);
    CHILD_CHECK(ep_session_id() == 0);
    setenv("FANOUT_IPC", "bogus:1", 1);
    CHILD_CHECK(ep_fanout_poll(&data) == 0);
    CHILD_CHECK(raised([] { ecp_get_ipc_handle(); }, nullptr) == 101);
    setenv("FANOUT_IPC_FD", "x7", 1);
    CHILD_CHECK(raised([] { ecp_get_ipc_handle(); }, nullptr) == 101);
    _exit(0);
}

void adopts_the_descriptor() {
    fresh_process_state();
    int sv[2];
    CHILD_CHECK(socketpair(AF_UNIX, SOCK_STREAM, 0, sv) == 0);
    setenv("FANOUT_IPC_FD", std::to_string(sv[0]).c_str(), 1);
    setenv("FANOUT_IPC", "unix:/nonexistent", 1);  // the descriptor wins
    setenv("FANOUT_IPC_SESSION", "42", 1);
    FanoutChannel* peer = fanout_channel_attach(sv[1], 42, nullptr);
    CHILD_CHECK(ep_session_id() == 0);  // asking for the id makes no channel
    IpcHandle h = ecp_get_ipc_handle();
    CHILD_CHECK(std::string(fanout_channel_name(h)) == "fd " + std::to_string(sv[0]));
    CHILD_CHECK(ep_session_id() == 42 && ecp_get_ipc_handle() == h);
    CHILD_CHECK(carries_a_block(peer));
    fanout_ipc_set(nullptr);
    CHILD_CHECK(ep_session_id() == 0);
    _exit(0);
}

void connects_to_the_address(const std::string& listen_at) {
    fresh_process_state();
    char* bound = nullptr;
    close(fanout_listen(listen_at.c_str(), nullptr));
    int listener = fanout_listen(listen_at.c_str(), &bound);  // a socket file is replaced
    setenv("FANOUT_IPC", bound, 1);
    void* data = nullptr;
    CHILD_CHECK(ep_fanout_poll(&data) == 0);  // connects, finds nothing
    FanoutChannel* peer = fanout_channel_accept(listener, 0);
    CHILD_CHECK(std::string(fanout_channel_name(ecp_get_ipc_handle())) == bound);
    CHILD_CHECK(carries_a_block(peer));
    _exit(0);
}

void timeout_from_environment_or_file(const std::string& dir) {
    fresh_process_state();
    CHILD_CHECK(fanout_ipc_timeout() == 0);
    std::ofstream(dir + "/config") << "ipc_timeout = 2\n";
    setenv("FANOUT_CONFIG", (dir + "/config").c_str(), 1);
    CHILD_CHECK(fanout_ipc_timeout() == 2000);
    setenv("FANOUT_IPC_TIMEOUT", "3", 1);
    CHILD_CHECK(fanout_ipc_timeout() == 3000);
    setenv("FANOUT_IPC_TIMEOUT", "soon", 1);  // not a number: the file's value
    CHILD_CHECK(fanout_ipc_timeout() == 2000);
    setenv("FANOUT_IPC_TIMEOUT", "99999999", 1);
    CHILD_CHECK(fanout_ipc_timeout() == INT32_MAX);
    _exit(0);
}

TEST_F(TransportTest, ProcessChannelComesFromTheEnvironment) {
    EXPECT_EXIT(unconfigured_or_malformed(), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(adopts_the_descriptor(), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(connects_to_the_address("unix:" + dir_ + "/sock"), ::testing::ExitedWithCode(0),
                "");
    EXPECT_EXIT(connects_to_the_address("tcp:*:0"), ::testing::ExitedWithCode(0), "");
    EXPECT_EXIT(timeout_from_environment_or_file(dir_), ::testing::ExitedWithCode(0), "");
}

}  // namespace
