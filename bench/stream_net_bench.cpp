// Moving a distribution: 1 GiB from a writer process through the peer to a
// reader process, over a Unix socket pair and over TCP loopback.
//
//   stream      net_stream_write -> peer (fanout_peer_*) -> net_stream_read
//   raw_stream  the same three processes moving the same bytes with plain
//               send/recv and no framing (baseline a)
//   raw_reply   as raw_stream, but the writer waits for a 4-byte reply after
//               every 16 KiB block, as the protocol does (baseline b)
//
// Also: file_stream_read of a 1 GiB file against a plain read loop with a
// 16 KiB buffer, and the peak resident memory of the writer and reader
// (counters writer_rss_kib, reader_rss_kib; compare the 64 MiB and 1 GiB
// runs for growth). Set FANOUT_BENCH_MIB to change the size.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fanout/exception.h"
#include "fanout/stream.h"
#include "fanout/transport.h"

namespace {

constexpr size_t kBlock = 16384;
constexpr size_t kChunk = 65536;

size_t total_bytes(int64_t mib) {
    return static_cast<size_t>(mib) << 20;
}

// A connected pair of sockets: a Unix socket pair, or two ends of a TCP
// loopback connection.
void make_pair(bool tcp, int sv[2]) {
    if (!tcp) {
        socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
        return;
    }
    char* bound = nullptr;
    int lfd = fanout_listen("tcp:127.0.0.1:0", &bound);
    FanoutChannel* client = fanout_channel_connect(bound, 0);
    mg_free(bound);
    int server = accept(lfd, nullptr, nullptr);
    close(lfd);
    int one = 1;
    setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sv[0] = server;
    sv[1] = dup(fanout_channel_fd(client));
    fanout_channel_close(client);
}

bool send_all(int fd, const void* p, size_t n) {
    const auto* b = static_cast<const char*>(p);
    while (n > 0) {
        ssize_t w = send(fd, b, n, MSG_NOSIGNAL);
        if (w <= 0) return false;
        b += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

bool recv_all(int fd, void* p, size_t n) {
    auto* b = static_cast<char*>(p);
    while (n > 0) {
        ssize_t r = recv(fd, b, n, 0);
        if (r <= 0) return false;
        b += r;
        n -= static_cast<size_t>(r);
    }
    return true;
}

enum class Mode { Stream, RawStream, RawReply };

// Runs one transfer of `total` bytes; returns the children's peak resident
// sizes (KiB) through the out parameters.
void transfer(Mode mode, bool tcp, size_t total, long* writer_rss, long* reader_rss) {
    int w[2], r[2];
    make_pair(tcp, w);
    make_pair(tcp, r);
    std::vector<char> chunk(kChunk, 'x');
    pid_t writer = fork();
    if (writer == 0) {
        close(w[0]);
        close(r[0]);
        close(r[1]);
        if (mode == Mode::Stream) {
            fanout_ipc_attach(w[1], 0);
            StreamKey key{3, 3, reinterpret_cast<uint8_t*>(const_cast<char*>("\3\0\0"))};
            NetStream* s = net_stream_open(&key);
            net_stream_write_begin(s);
            for (size_t at = 0; at < total; at += kChunk) {
                net_stream_write(s, chunk.data(), static_cast<int32_t>(kChunk));
            }
            net_stream_write_end(s);
            net_stream_release(s);
        } else {
            for (size_t at = 0; at < total; at += kBlock) {
                send_all(w[1], chunk.data(), kBlock);
                if (mode == Mode::RawReply) {
                    int32_t reply;
                    recv_all(w[1], &reply, sizeof reply);
                }
            }
            shutdown(w[1], SHUT_WR);
        }
        _exit(0);
    }
    pid_t reader = fork();
    if (reader == 0) {
        close(w[0]);
        close(w[1]);
        close(r[0]);
        size_t got = 0;
        if (mode == Mode::Stream) {
            fanout_ipc_attach(r[1], 0);
            StreamKey key{3, 3, reinterpret_cast<uint8_t*>(const_cast<char*>("\2\0\0"))};
            NetStream* s = net_stream_open(&key);
            void* data = nullptr;
            int32_t n;
            while ((n = net_stream_read(s, &data)) > 0) {
                got += static_cast<size_t>(n);
                net_stream_free_buffer(s, data);
            }
            net_stream_close(s);
        } else {
            ssize_t n;
            while ((n = recv(r[1], chunk.data(), kChunk, 0)) > 0) got += static_cast<size_t>(n);
        }
        _exit(got == total ? 0 : 1);
    }
    close(w[1]);
    close(r[1]);
    if (mode == Mode::Stream) {
        FanoutChannel* from = fanout_channel_attach(w[0], 0, "writer");
        FanoutChannel* to = fanout_channel_attach(r[0], 0, "reader");
        fanout_peer_accept_methstat(from, nullptr);
        fanout_peer_reply(from, FANOUT_MSG_METHSTAT, static_cast<int32_t>(kBlock));
        void* toc = nullptr;
        uint32_t len = 0;
        fanout_peer_recv_toc(to, &toc, &len);
        mg_free(toc);
        void* data = nullptr;
        while (fanout_peer_recv_block(from, &data, &len) == 1) {
            fanout_peer_send_block(to, FANOUT_STATUS_DATA, data, len);
            mg_free(data);
            fanout_peer_reply(from, FANOUT_MSG_DATA, 0);
        }
        fanout_peer_send_end(to);
        fanout_channel_close(from);
        fanout_channel_close(to);
    } else {
        std::vector<char> buffer(kBlock);
        const int32_t ok = 0;
        size_t moved = 0;
        while (moved < total && recv_all(w[0], buffer.data(), kBlock)) {
            moved += kBlock;
            send_all(r[0], buffer.data(), kBlock);
            if (mode == Mode::RawReply) send_all(w[0], &ok, sizeof ok);
        }
        close(w[0]);
        close(r[0]);
    }
    struct rusage ru {};
    int status = 0;
    wait4(writer, &status, 0, &ru);
    *writer_rss = ru.ru_maxrss;
    wait4(reader, &status, 0, &ru);
    *reader_rss = ru.ru_maxrss;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) std::abort();
}

void BM_Transfer(benchmark::State& state, Mode mode, bool tcp) {
    const size_t total = total_bytes(state.range(0));
    long writer_rss = 0, reader_rss = 0;
    for (auto _ : state) transfer(mode, tcp, total, &writer_rss, &reader_rss);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * total));
    state.counters["writer_rss_kib"] = static_cast<double>(writer_rss);
    state.counters["reader_rss_kib"] = static_cast<double>(reader_rss);
}

int64_t bench_mib() {
    const char* v = std::getenv("FANOUT_BENCH_MIB");
    return v != nullptr ? std::atoll(v) : 1024;
}

// A file of `total` bytes in a scratch directory, removed at exit.
struct ScratchFile {
    std::string dir, path;
    explicit ScratchFile(size_t total) {
        char tmpl[] = "/tmp/fanout-stream-bench-XXXXXX";
        dir = mkdtemp(tmpl);
        path = dir + "/seg.dat";
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        std::vector<char> chunk(1 << 20, 'y');
        for (size_t at = 0; at < total; at += chunk.size()) {
            if (write(fd, chunk.data(), chunk.size()) < 0) std::abort();
        }
        close(fd);
    }
    ~ScratchFile() {
        unlink(path.c_str());
        rmdir(dir.c_str());
    }
};

void BM_FileStreamRead(benchmark::State& state) {
    const size_t total = total_bytes(state.range(0));
    ScratchFile file(total);
    for (auto _ : state) {
        StreamKey* key = file_stream_key_new(0, 1, file.path.c_str());
        NetStream* s = net_stream_open(key);
        void* data = nullptr;
        int32_t n;
        size_t got = 0;
        while ((n = net_stream_read(s, &data)) > 0) {
            got += static_cast<size_t>(n);
            net_stream_free_buffer(s, data);
        }
        net_stream_close(s);
        stream_key_delete(key);
        if (got != total) std::abort();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * total));
}

void BM_PlainReadLoop(benchmark::State& state) {
    const size_t total = total_bytes(state.range(0));
    ScratchFile file(total);
    std::vector<char> buffer(kBlock);
    for (auto _ : state) {
        int fd = open(file.path.c_str(), O_RDONLY);
        size_t got = 0;
        ssize_t n;
        while ((n = read(fd, buffer.data(), buffer.size())) > 0) got += static_cast<size_t>(n);
        close(fd);
        if (got != total) std::abort();
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * total));
}

void register_all() {
    const int64_t mib = bench_mib();
    for (bool tcp : {false, true}) {
        const std::string t = tcp ? "tcp" : "unix";
        for (auto [mode, name] :
             {std::pair{Mode::Stream, "stream"}, std::pair{Mode::RawReply, "raw_reply"},
              std::pair{Mode::RawStream, "raw_stream"}}) {
            benchmark::RegisterBenchmark(("transfer/" + t + "/" + name).c_str(), BM_Transfer, mode,
                                         tcp)
                ->Arg(64)
                ->Arg(mib)
                ->Unit(benchmark::kMillisecond)
                ->UseRealTime()
                ->Iterations(3);
        }
    }
    benchmark::RegisterBenchmark("file/stream_read", BM_FileStreamRead)
        ->Arg(mib)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(5);
    benchmark::RegisterBenchmark("file/plain_read_16k", BM_PlainReadLoop)
        ->Arg(mib)
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->Iterations(5);
}

}  // namespace

int main(int argc, char** argv) {
    register_all();
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
