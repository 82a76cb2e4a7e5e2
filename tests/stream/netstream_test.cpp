// Network streams over real sockets: a writer process, a reader process and the test in the
// middle as the peer of both.
#include <sys/socket.h>

#include <algorithm>
#include <csignal>
#include <cstring>

#include <gtest/gtest.h>

#include "stream_support.h"

using namespace stream_test;

namespace {

using Channel = std::unique_ptr<FanoutChannel, decltype(&fanout_channel_close)>;

// A socket pair between the test (the peer) and a child (the stream); both transports are the
// transport tests' concern.
class Link {
  public:
    Link() { EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fd_), 0); }
    ~Link() {
        if (fd_[1] >= 0) close(fd_[1]);
    }
    // In the child: make this link the process's channel.
    void attach_child() {
        signal(SIGPIPE, SIG_DFL);  // a write to a vanished peer must not kill
        close(fd_[0]);
        fanout_ipc_attach(fd_[1], 0);
    }
    // In the parent, after the fork.
    Channel peer() {
        close(fd_[1]);
        fd_[1] = -1;
        return Channel(fanout_channel_attach(fd_[0], 0, "test peer"), &fanout_channel_close);
    }

  private:
    int fd_[2] = {-1, -1};
};

class NetStreamTest : public ::testing::Test {
  protected:
    WorkDir work;
};

// What the writer's peer saw: the block sizes in order, -1 for the end.
std::vector<int64_t> take_blocks(FanoutChannel* ch, std::string* bytes, int32_t reply) {
    std::vector<int64_t> seen;
    void* data = nullptr;
    uint32_t len = 0;
    while (fanout_peer_recv_block(ch, &data, &len) == 1) {
        seen.push_back(len);
        bytes->append(static_cast<char*>(data), len);
        mg_free(data);
        fanout_peer_reply(ch, FANOUT_MSG_DATA, reply);
    }
    seen.push_back(-1);
    return seen;
}

TEST_F(NetStreamTest, StatusOctetsDataPauseCancel) {
    Link link;
    pid_t reader = spawn([&] {
        link.attach_child();
        NetStream* s = open_stream(2, 1, "S1");
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

TEST_F(NetStreamTest, WriteDirectionBlocksRepliesAndSendFile) {
    const std::string bytes = pattern(50000, 9);
    write_file(work / "seg.dat", bytes);
    Link link;
    pid_t writer = spawn([&] {
        link.attach_child();
        NetStream* s = open_stream(3);
        // A fresh stream's send_file reads with block size 0: begin and end only.
        bool ok = net_stream_send_file(s, (work / "seg.dat").c_str(), 0) == 0;
        ok = ok && net_stream_write_begin(s) == 0;
        for (int at = 0; ok && at < 40000; at += 7001) {  // writes that cross blocks
            const int n = std::min(7001, 40000 - at);
            ok = net_stream_write(s, bytes.data() + at, n) == n;
        }
        ok = ok && s->fill == 7232 && net_stream_write_end(s) == 0;
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
    const struct {
        int32_t size, reply;  // the answers to the method status and to each block
        std::vector<int64_t> blocks;
        std::string bytes;
    } rounds[] = {
        {16384, 0, {-1}, ""},
        {16384, 0, {16384, 16384, 7232, -1}, bytes.substr(0, 40000)},
        {16384, 0, {-1}, ""},
        {NET_STREAM_PAUSED, 0, {-1}, ""},  // the end follows a refusal
        {16384, NET_STREAM_CANCELLED, {16384, -1}, bytes.substr(0, 16384)},
        {16384, 0, {16384, 16384, 16232, -1}, bytes.substr(1000)},  // from the checkpoint
        {static_cast<int32_t>(FANOUT_FRAME_MAX_PAYLOAD), 0, {1, -1}, bytes.substr(0, 1)},
    };
    for (const auto& r : rounds) {
        SCOPED_TRACE(&r - rounds);
        begin(ch.get(), r.size);
        std::string got;
        EXPECT_EQ(take_blocks(ch.get(), &got, r.reply), r.blocks);
        EXPECT_EQ(got, r.bytes);
    }
    EXPECT_EQ(reap(writer), 0);
}

TEST_F(NetStreamTest, PeerVanishingMidReadOrMidWriteRaisesWithoutSigpipe) {
    for (bool reading : {true, false}) {
        Link link;
        pid_t child = spawn([&] {
            link.attach_child();
            NetStream* s = open_stream(reading ? 2 : 3);
            if (reading) s->toc = make_toc({{"seg", "/d/seg", 300000, 0}});
            const std::string bytes = pattern(1 << 20);
            void* data = nullptr;
            try {
                if (reading) {
                    if (net_stream_read(s, &data) != 3 || std::memcmp(data, "abc", 3) != 0)
                        return false;
                    net_stream_free_buffer(s, data);
                    read_segment(s);
                } else {
                    net_stream_write_begin(s);
                    net_stream_write(s, bytes.data(), static_cast<int32_t>(bytes.size()));
                }
            } catch (const fanout::Exception& e) {
                net_stream_release(s);
                return e.number() == 101;
            }
            return false;
        });
        {
            Channel ch = link.peer();
            if (reading) {
                void* toc = nullptr;
                uint32_t len = 0;
                fanout_peer_recv_toc(ch.get(), &toc, &len);
                PropertiesList got{};
                properties_decode(TC_Kel_Fanout2_PropertiesList, toc, len, &got);
                EXPECT_STREQ(got.length == 1 ? properties_get_string(got.buffer, "id") : "", "seg");
                kel_free_generic(&got, TC_Kel_Fanout2_PropertiesList);
                mg_free(toc);
                fanout_peer_send_block(ch.get(), FANOUT_STATUS_DATA, "abc", 3);
            } else {
                begin(ch.get(), 16384);
            }
        }  // the peer goes away here
        EXPECT_EQ(reap(child), 0) << (reading ? "mid-read" : "mid-write");
    }
}

TEST_F(NetStreamTest, LocalReadsHonourPauseAndCancelControlBlocks) {
    const std::string bytes = pattern(20000, 3);
    write_file(work / "local.dat", bytes);
    Link link;
    // Pipe hand-offs put each control block in the socket just before the read that must see it.
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
        NetStream* s = open_stream(6);
        auto* list = static_cast<FileList*>(mg_calloc(1, sizeof(FileList)));
        list->list = list->cursor = mg_strdup((work / "local.dat").c_str());
        s->source = list;
        void* data = nullptr;
        bool ok = wait_on(go[0]) && net_stream_read(s, &data) == NET_STREAM_PAUSED && !data;
        int32_t last = -1;
        ok = ok && read_segment(s, &last) == bytes && last == 0 && signal_to(done[1]);
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

}  // namespace
