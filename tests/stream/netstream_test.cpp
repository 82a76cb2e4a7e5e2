// Network streams over real sockets: a writer process, a reader process and
// the test in the middle as the peer of both.
#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <cstring>

#include <gtest/gtest.h>

#include "stream_support.h"

using namespace stream_test;

namespace {

struct ChannelCloser {
    void operator()(FanoutChannel* ch) const { fanout_channel_close(ch); }
};
using Channel = std::unique_ptr<FanoutChannel, ChannelCloser>;

// One connection between the test (the peer) and a child (the stream):
// a socketpair, or a TCP loopback connection the child makes through
// FANOUT_IPC.
class Link {
  public:
    explicit Link(bool tcp) : tcp_(tcp) {
        if (tcp_) {
            char* bound = nullptr;
            listen_fd_ = fanout_listen("tcp:127.0.0.1:0", &bound);
            address_ = bound;
            mg_free(bound);
        } else {
            int sv[2];
            EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
            peer_fd_ = sv[0];
            child_fd_ = sv[1];
        }
    }
    ~Link() {
        if (listen_fd_ >= 0) close(listen_fd_);
        if (child_fd_ >= 0) close(child_fd_);
    }
    // In the child: make this link the process's channel.
    void attach_child() {
        signal(SIGPIPE, SIG_DFL);  // a write to a vanished peer must not kill
        if (tcp_) {
            setenv("FANOUT_IPC", address_.c_str(), 1);
            (void)ecp_get_ipc_handle();  // connect now: the test accepts at once
        } else {
            close(peer_fd_);
            fanout_ipc_attach(child_fd_, 0);
        }
    }
    // In the parent, after the fork.
    Channel peer() {
        if (tcp_) return Channel(fanout_channel_accept(listen_fd_, 0));
        close(child_fd_);
        child_fd_ = -1;
        return Channel(fanout_channel_attach(peer_fd_, 0, "test peer"));
    }

  private:
    bool tcp_;
    int listen_fd_ = -1, peer_fd_ = -1, child_fd_ = -1;
    std::string address_;
};

class NetStreamTest : public ::testing::TestWithParam<bool> {
  protected:
    WorkDir work;
    // A stream of `type` over the process's channel (in a child).
    static NetStream* open(uint8_t type, uint8_t mobile = 0, const std::string& text = "") {
        StreamKey* key = make_key(type, mobile, text);
        NetStream* s = net_stream_open(key);
        stream_key_delete(key);
        return s;
    }
    // Reads until the end or a stop; the data read go to *bytes.
    static int32_t read_all(NetStream* s, std::string* bytes) {
        void* data = nullptr;
        int32_t n;
        while ((n = net_stream_read(s, &data)) > 0) {
            bytes->append(static_cast<char*>(data), n);
            net_stream_free_buffer(s, data);
        }
        return n;
    }
};

// What the writer's peer saw: the block sizes in order, -1 for the end.
std::vector<int64_t> take_blocks(FanoutChannel* ch, std::string* bytes, int32_t reply = 0) {
    std::vector<int64_t> seen;
    void* data = nullptr;
    uint32_t len = 0;
    while (fanout_peer_recv_block(ch, &data, &len) == 1) {
        seen.push_back(len);
        if (bytes != nullptr) bytes->append(static_cast<char*>(data), len);
        mg_free(data);
        fanout_peer_reply(ch, FANOUT_MSG_DATA, reply);
    }
    seen.push_back(-1);
    return seen;
}

TEST_P(NetStreamTest, DistributionCrossesFromWriterThroughPeerToReader) {
    const std::string bytes = pattern(300000, 7);
    Link to_writer(GetParam()), to_reader(GetParam());
    pid_t writer = spawn([&] {
        to_writer.attach_child();
        NetStream* s = open(3);
        bool ok = net_stream_write_begin(s) == 0 && s->block_size == 16384;
        for (size_t at = 0; ok && at < bytes.size(); at += 7001) {
            auto n = static_cast<int32_t>(std::min<size_t>(7001, bytes.size() - at));
            ok = net_stream_write(s, bytes.data() + at, n) == n;
        }
        ok = ok && net_stream_write_end(s) == 0;
        net_stream_release(s);
        return ok;
    });
    pid_t reader = spawn([&] {
        to_reader.attach_child();
        NetStream* s = open(2);
        s->toc = make_toc({{"seg", "/d/seg", 300000, 0}});
        std::string got;
        bool ok = read_all(s, &got) == 0 && got == bytes;
        net_stream_close(s);
        return ok;
    });
    Channel w = to_writer.peer(), r = to_reader.peer();
    fanout_peer_accept_methstat(w.get(), nullptr);
    fanout_peer_reply(w.get(), FANOUT_MSG_METHSTAT, 16384);
    void* toc = nullptr;
    uint32_t toc_len = 0;
    fanout_peer_recv_toc(r.get(), &toc, &toc_len);
    PropertiesList decoded{};
    properties_decode(TC_Kel_Fanout2_PropertiesList, toc, toc_len, &decoded);
    ASSERT_EQ(decoded.length, 1u);
    EXPECT_STREQ(properties_get_string(&decoded.buffer[0], "id"), "seg");
    kel_free_generic(&decoded, TC_Kel_Fanout2_PropertiesList);
    mg_free(toc);
    void* data = nullptr;
    uint32_t len = 0;
    std::vector<uint32_t> sizes;
    while (fanout_peer_recv_block(w.get(), &data, &len) == 1) {
        sizes.push_back(len);
        fanout_peer_send_block(r.get(), FANOUT_STATUS_DATA, data, len);
        mg_free(data);
        fanout_peer_reply(w.get(), FANOUT_MSG_DATA, 0);
    }
    fanout_peer_send_end(r.get());
    ASSERT_EQ(sizes.size(), 19u);
    EXPECT_EQ(sizes.back(), 300000u % 16384) << "only the last block is short";
    EXPECT_EQ(std::count(sizes.begin(), sizes.end(), 16384u), 18);
    EXPECT_EQ(reap(writer), 0);
    EXPECT_EQ(reap(reader), 0);
}

TEST_P(NetStreamTest, StatusOctetsDataPauseCancel) {
    Link link(GetParam());
    pid_t reader = spawn([&] {
        link.attach_child();
        NetStream* s = open(2, 1, "S1");
        void* data = nullptr;
        bool ok = net_stream_read(s, &data) == 4 && std::memcmp(data, "abcd", 4) == 0;
        net_stream_free_buffer(s, data);
        ok = ok && net_stream_read(s, &data) == 4;  // an empty data block is skipped
        net_stream_free_buffer(s, data);
        ok = ok && net_stream_read(s, &data) == NET_STREAM_PAUSED && data == nullptr;
        auto paused = load_progress(work / "mstat/S1.mds");
        ok = ok && paused && paused->flag("paused") == 1;
        ok = ok && net_stream_read(s, &data) == NET_STREAM_CANCELLED;
        net_stream_close(s);
        return ok;
    });
    Channel ch = link.peer();
    void* toc = nullptr;
    uint32_t len = 0;
    fanout_peer_recv_toc(ch.get(), &toc, &len);
    EXPECT_EQ(len, 0u) << "no table of contents: an empty start";
    fanout_peer_send_block(ch.get(), FANOUT_STATUS_DATA, "abcd", 4);
    fanout_peer_send_block(ch.get(), FANOUT_STATUS_DATA, nullptr, 0);
    fanout_peer_send_block(ch.get(), FANOUT_STATUS_DATA, "efgh", 4);
    fanout_peer_send_block(ch.get(), FANOUT_STATUS_PAUSE, nullptr, 0);
    fanout_peer_send_block(ch.get(), FANOUT_STATUS_CANCEL, nullptr, 0);
    EXPECT_EQ(reap(reader), 0);
}

// Answers a method status with `size`.
void begin(FanoutChannel* ch, int32_t size) {
    fanout_peer_accept_methstat(ch, nullptr);
    fanout_peer_reply(ch, FANOUT_MSG_METHSTAT, size);
}

TEST_P(NetStreamTest, WriteDirectionBlocksRepliesAndSendFile) {
    const std::string bytes = pattern(50000, 9);
    write_file(work / "seg.dat", bytes);
    Link link(GetParam());
    pid_t writer = spawn([&] {
        link.attach_child();
        NetStream* s = open(3);
        // A fresh stream's send_file reads with block size 0: begin and end only.
        bool ok = net_stream_send_file(s, (work / "seg.dat").c_str(), 0) == 0;
        ok = ok && net_stream_write_begin(s) == 0 &&
             net_stream_write(s, bytes.data(), 40000) == 40000 && s->fill == 7232 &&
             net_stream_write_end(s) == 0;
        ok = ok && net_stream_write_begin(s) == 0 && net_stream_write_end(s) == 0;  // empty
        ok = ok && net_stream_write_begin(s) == NET_STREAM_PAUSED;                  // refused
        ok = ok && net_stream_write_begin(s) == 0 &&
             net_stream_write(s, bytes.data(), 20000) == NET_STREAM_CANCELLED;
        ok = ok && net_stream_send_file(s, (work / "seg.dat").c_str(), 1000) == 0;
        // The largest block a frame carries, and a one-octet tail sent at the end.
        ok = ok && net_stream_write_begin(s) == 0 &&
             s->block_size == static_cast<int32_t>(FANOUT_FRAME_MAX_PAYLOAD) &&
             net_stream_write(s, bytes.data(), 1) == 1 && net_stream_write_end(s) == 0;
        net_stream_release(s);
        return ok;
    });
    Channel ch = link.peer();
    using Blocks = std::vector<int64_t>;
    begin(ch.get(), 16384);
    EXPECT_EQ(take_blocks(ch.get(), nullptr), Blocks{-1});
    begin(ch.get(), 16384);
    EXPECT_EQ(take_blocks(ch.get(), nullptr), (Blocks{16384, 16384, 7232, -1}));
    begin(ch.get(), 16384);
    EXPECT_EQ(take_blocks(ch.get(), nullptr), Blocks{-1});
    begin(ch.get(), NET_STREAM_PAUSED);
    EXPECT_EQ(take_blocks(ch.get(), nullptr), Blocks{-1}) << "the end follows a refusal";
    begin(ch.get(), 16384);
    EXPECT_EQ(take_blocks(ch.get(), nullptr, NET_STREAM_CANCELLED), (Blocks{16384, -1}));
    begin(ch.get(), 16384);
    std::string got;
    take_blocks(ch.get(), &got);
    EXPECT_EQ(got, bytes.substr(1000)) << "sent from the checkpoint offset";
    begin(ch.get(), static_cast<int32_t>(FANOUT_FRAME_MAX_PAYLOAD));
    got.clear();
    EXPECT_EQ(take_blocks(ch.get(), &got), (Blocks{1, -1}));
    EXPECT_EQ(got, bytes.substr(0, 1));
    EXPECT_EQ(reap(writer), 0);
}

TEST_P(NetStreamTest, PeerVanishingMidReadOrMidWriteRaisesWithoutSigpipe) {
    for (bool reading : {true, false}) {
        Link link(GetParam());
        pid_t child = spawn([&] {
            link.attach_child();
            NetStream* s = open(reading ? 2 : 3);
            std::string got;
            const std::string bytes = pattern(1 << 20);
            try {
                if (reading) {
                    read_all(s, &got);
                } else {
                    net_stream_write_begin(s);
                    net_stream_write(s, bytes.data(), static_cast<int32_t>(bytes.size()));
                }
            } catch (const fanout::Exception& e) {
                net_stream_release(s);
                return e.number() == 101 && got == (reading ? "abc" : "");
            }
            return false;
        });
        {
            Channel ch = link.peer();
            if (reading) {
                void* toc = nullptr;
                uint32_t len = 0;
                fanout_peer_recv_toc(ch.get(), &toc, &len);
                fanout_peer_send_block(ch.get(), FANOUT_STATUS_DATA, "abc", 3);
            } else {
                begin(ch.get(), 16384);
            }
        }  // the peer goes away here
        EXPECT_EQ(reap(child), 0) << (reading ? "mid-read" : "mid-write");
    }
}

TEST_P(NetStreamTest, LocalReadsHonourPauseAndCancelControlBlocks) {
    const std::string bytes = pattern(20000, 3);
    write_file(work / "local.dat", bytes);
    Link link(GetParam());
    // Hand-offs through pipes, so that each control block is in the socket
    // before the read that must see it, and not before the reads that must
    // not.
    int go[2], done[2];
    ASSERT_EQ(pipe(go), 0);
    ASSERT_EQ(pipe(done), 0);
    auto signal_to = [](int fd) { return write(fd, "x", 1) == 1; };
    auto wait_on = [](int fd) {
        char c;
        return read(fd, &c, 1) == 1;
    };
    pid_t reader = spawn([&] {
        link.attach_child();
        NetStream* s = open(6);
        auto* list = static_cast<FileList*>(mg_calloc(1, sizeof(FileList)));
        list->list = list->cursor = mg_strdup((work / "local.dat").c_str());
        s->source = list;
        void* data = nullptr;
        bool ok = wait_on(go[0]) && net_stream_read(s, &data) == NET_STREAM_PAUSED && !data;
        std::string got;
        ok = ok && read_all(s, &got) == 0 && got == bytes && signal_to(done[1]);
        ok = ok && wait_on(go[0]) && net_stream_read(s, &data) == NET_STREAM_CANCELLED;
        net_stream_close(s);
        return ok;
    });
    Channel ch = link.peer();
    fanout_peer_send_control(ch.get(), FANOUT_STATUS_PAUSE);
    ASSERT_TRUE(signal_to(go[1]));
    ASSERT_TRUE(wait_on(done[0]));
    fanout_peer_send_control(ch.get(), FANOUT_STATUS_CANCEL);
    ASSERT_TRUE(signal_to(go[1]));
    EXPECT_EQ(reap(reader), 0);
    for (int fd : {go[0], go[1], done[0], done[1]}) close(fd);
}

INSTANTIATE_TEST_SUITE_P(Transports, NetStreamTest, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Tcp" : "UnixSocketPair"; });

}  // namespace
