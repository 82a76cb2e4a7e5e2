// The distribution programs as real processes over real sockets: a source,
// endpoints and a relay, restarts after SIGKILL, pause and cancel, hostile
// senders, tokens. Every wait is on a line a program prints or on its exit;
// the test knobs FANOUT_RECEIVE_KILL_AFTER and FANOUT_SEND_SIGNAL_AFTER put
// a crash or a signal at a known point of the data.
#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <climits>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "fanout/exception.h"
#include "fanout/keys.h"
#include "fanout/properties.h"
#include "fanout/transport.h"

namespace fs = std::filesystem;

namespace {

constexpr uint64_t kTotal = 3 * 1024 * 1024 + 124;  // the three files' bytes

std::string ReadAll(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// `size` bytes that do not repeat within a file and differ with `seed`.
void WriteFile(const std::string& path, size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    uint32_t x = seed * 2654435761u + 1;
    for (char& c : bytes) c = static_cast<char>((x = x * 1103515245u + 12345u) >> 16);
    std::ofstream(path, std::ios::binary) << bytes;
}

// A program started with its standard output on a pipe.
class Proc {
  public:
    Proc(const std::vector<std::string>& args, const std::vector<std::string>& env,
         const std::string& errlog) {
        int fds[2];
        EXPECT_EQ(pipe(fds), 0);
        pid_ = fork();
        if (pid_ == 0) {
            dup2(fds[1], STDOUT_FILENO);
            const int err = open(errlog.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(err, STDERR_FILENO);
            close(fds[0]);
            for (const auto& e : env) putenv(const_cast<char*>(e.c_str()));
            std::vector<char*> argv;
            for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(fds[1]);
        out_ = fds[0];
    }
    ~Proc() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            Wait();
        }
        if (out_ >= 0) close(out_);
    }
    // The first line not yet taken that contains `text`; empty at the end.
    std::string Line(const std::string& text) {
        for (;;) {
            size_t nl;
            while ((nl = buf_.find('\n', scan_)) != std::string::npos) {
                std::string line = buf_.substr(scan_, nl - scan_);
                scan_ = nl + 1;
                if (line.find(text) != std::string::npos) return line;
            }
            char chunk[4096];
            const ssize_t n = read(out_, chunk, sizeof chunk);
            if (n <= 0) return "";
            buf_.append(chunk, static_cast<size_t>(n));
        }
    }
    // The exit status (128 + signal when killed); the output is kept.
    int Wait() {
        char chunk[4096];
        ssize_t n;
        while (out_ >= 0 && (n = read(out_, chunk, sizeof chunk)) > 0) buf_.append(chunk, n);
        int st = 0;
        if (pid_ > 0) waitpid(pid_, &st, 0);
        pid_ = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
    }
    const std::string& output() const { return buf_; }

  private:
    pid_t pid_ = -1;
    int out_ = -1;
    std::string buf_;
    size_t scan_ = 0;
};

// "N bytes sent" of a summary line.
uint64_t BytesIn(const std::string& line, const char* what) {
    const size_t at = line.find(what);
    if (at == std::string::npos) return UINT64_MAX;
    size_t start = line.find_last_of(" (", at - 1);
    start = start == std::string::npos ? 0 : start + 1;
    return std::stoull(line.substr(start, at - start));
}

class Programs : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/fanout_programs_XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        env_ = {"FANOUT_WORK_DIR=" + dir_ + "/work", "FANOUT_LOG_LEVEL=0"};
        mkdir((dir_ + "/work").c_str(), 0775);
        WriteFile(Path("empty.bin"), 0, 1);
        WriteFile(Path("one.bin"), 1, 2);
        WriteFile(Path("big.bin"), 3 * 1024 * 1024 + 123, 3);
    }
    void TearDown() override {
        procs_.clear();
        // The depots' lock semaphores are keyed on their lock files.
        for (const auto& e : fs::recursive_directory_iterator(dir_)) {
            if (!e.is_regular_file() || e.path().extension() != ".lk") continue;
            const int id = semget(ftok(e.path().c_str(), 1), 1, 0);
            if (id >= 0) semctl(id, 0, IPC_RMID);
        }
        fs::remove_all(dir_);
    }
    std::string Path(const std::string& name) const { return dir_ + "/" + name; }

    Proc& Start(std::vector<std::string> args, std::vector<std::string> env = {}) {
        env.insert(env.end(), env_.begin(), env_.end());
        procs_.push_back(std::make_unique<Proc>(args, env, Path("stderr.log")));
        return *procs_.back();
    }
    // A receiver; returns it with its bound address in *address.
    Proc& Receiver(const std::string& listen, const std::string& depot, std::string* address,
                   std::vector<std::string> extra = {}, std::vector<std::string> env = {}) {
        std::vector<std::string> args = {FANOUT_RECEIVE,      "--listen",  listen,
                                         "--depot",           Path(depot), "--out",
                                         Path(depot + "-out")};
        args.insert(args.end(), extra.begin(), extra.end());
        Proc& p = Start(args, env);
        *address = Address(p);
        return p;
    }
    // The address a program says it listens on.
    static std::string Address(Proc& p) {
        const std::string line = p.Line("listening on ");
        return line.substr(line.find("listening on ") + 13);
    }
    // fanout-send's summary line and exit status.
    int Send(const std::string& target, std::vector<std::string> extra, std::string* line,
             std::vector<std::string> env = {}) {
        std::vector<std::string> args = {FANOUT_SEND, "--id", "D1"};
        args.insert(args.end(), extra.begin(), extra.end());
        args.insert(args.end(), {target, Path("empty.bin"), Path("one.bin"), Path("big.bin")});
        Proc& p = Start(args, env);
        const int status = p.Wait();
        *line = p.output();
        return status;
    }
    void ExpectSameFiles(const std::string& out) {
        for (const char* f : {"empty.bin", "one.bin", "big.bin"}) {
            EXPECT_TRUE(ReadAll(Path(f)) == ReadAll(Path(out + "/" + f))) << f;
        }
    }
    std::string Progress(const std::string& name) { return ReadAll(Path("work/mstat/" + name)); }

    std::string dir_;
    std::vector<std::string> env_;
    std::vector<std::unique_ptr<Proc>> procs_;
};

// Source to endpoint over a Unix socket and TCP loopback; a mobile endpoint
// ends with "c_len" equal to "t_len"; a second send finds everything in the
// depot and moves no data.
TEST_F(Programs, SourceToEndpointUnixAndTcpThenAllFromDepot) {
    for (const std::string& listen : {"unix:" + Path("r.sock"), std::string("tcp:127.0.0.1:0")}) {
        SCOPED_TRACE(listen);
        const std::string depot = listen[0] == 'u' ? "du" : "dt";
        for (int round = 0; round < 2; ++round) {
            std::string addr, line;
            Proc& r = Receiver(listen, depot, &addr, {"--mobile"});
            EXPECT_EQ(Send(addr, {}, &line), 0) << line;
            EXPECT_EQ(r.Wait(), 0) << r.output();
            EXPECT_EQ(BytesIn(line, " bytes sent"), round == 0 ? kTotal : 0) << line;
            EXPECT_EQ(r.output().find("all segments already in the depot") != std::string::npos,
                      round == 1);
            ExpectSameFiles(depot + "-out");
            EXPECT_NE(Progress("D1.mdf").find("3145852"), std::string::npos) << "t_len and c_len";
        }
    }
}

// A segment of 50 MiB: many blocks, checkpoints and a long run of one file.
TEST_F(Programs, FiftyMegabytesOverTcp) {
    WriteFile(Path("big.bin"), 50 * 1024 * 1024, 9);
    std::string addr, line;
    Proc& r = Receiver("tcp:127.0.0.1:0", "d", &addr);
    EXPECT_EQ(Send(addr, {}, &line), 0) << line;
    EXPECT_EQ(r.Wait(), 0);
    ExpectSameFiles("d-out");
}

// A receiver killed mid-transfer resumes from its checkpoint: the second
// send moves only what was missing, and the result is the same.
TEST_F(Programs, ReceiverKilledThenRestartedResumes) {
    std::string addr, line;
    Proc& dead =
        Receiver("unix:" + Path("r.sock"), "d", &addr, {}, {"FANOUT_RECEIVE_KILL_AFTER=1500000"});
    EXPECT_EQ(Send(addr, {}, &line), 1) << line;
    EXPECT_EQ(dead.Wait(), 128 + SIGKILL);
    Proc& r = Receiver("unix:" + Path("r.sock"), "d", &addr);
    EXPECT_EQ(Send(addr, {}, &line), 0) << line;
    EXPECT_EQ(r.Wait(), 0) << r.output();
    EXPECT_LT(BytesIn(line, " bytes sent"), kTotal - 1400000) << line;
    ExpectSameFiles("d-out");
}

// Pause (SIGUSR1) and cancel (SIGINT) of the sender: both sides stop with
// their status, the partial segment stays in progress with its checkpoint,
// the progress file says why, and a later send completes it.
TEST_F(Programs, PauseAndCancelKeepCheckpoints) {
    struct Case {
        int signal, status;
        const char* flag;
    };
    for (const Case c : {Case{SIGUSR1, 3, "paused by the sender"}, Case{SIGINT, 4, "cancelled"}}) {
        SCOPED_TRACE(c.signal);
        const std::string depot = "d" + std::to_string(c.signal);
        std::string addr, line;
        Proc& r = Receiver("unix:" + Path("r.sock"), depot, &addr, {"--mobile"});
        const std::string after = "FANOUT_SEND_SIGNAL_AFTER=1000000," + std::to_string(c.signal);
        EXPECT_EQ(Send(addr, {}, &line, {after}), c.status) << line;
        EXPECT_EQ(r.Wait(), c.status) << r.output();
        EXPECT_NE(Progress("D1.mds").find(c.flag), std::string::npos);
        int in_progress = 0;  // the big segment's entry, and still in progress
        for (const auto& e : fs::directory_iterator(Path(depot))) {
            if (e.path().extension() != ".xml") continue;
            const std::string text = ReadAll(e.path());
            in_progress += text.find("<id>big.bin</id>") != std::string::npos &&
                           text.find("<state>0</state>") != std::string::npos;
        }
        EXPECT_EQ(in_progress, 1) << "nothing half-complete is complete";
        Proc& again = Receiver("unix:" + Path("r.sock"), depot, &addr, {"--mobile"});
        EXPECT_EQ(Send(addr, {}, &line), 0);
        EXPECT_LT(BytesIn(line, " bytes sent"), kTotal - 1000000) << line;
        EXPECT_EQ(again.Wait(), 0);
        ExpectSameFiles(depot + "-out");
    }
}

// A hostile sender speaking the wire directly.
class Hostile {
  public:
    explicit Hostile(const std::string& address) : ch_(fanout_channel_connect(address.c_str(), 0)) {
        FanoutFrameHeader h{};
        void* hello = nullptr;
        fanout_channel_recv(ch_, &h, &hello);
        mg_free(hello);
    }
    ~Hostile() { fanout_channel_close(ch_); }
    // A distribution message whose table of contents lists `segs` (id, version, size).
    void Message(const std::vector<std::tuple<std::string, std::string, int32_t>>& segs) {
        Properties* msg = properties_new();
        properties_put_short_dup(msg, MESSAGE_TYPE_KEY, 1);
        properties_put_string_dup(msg, MESSAGE_RECV_METHOD_KEY, "x");
        properties_put_string_dup(msg, MESSAGE_ID_KEY, "H1");
        PropertiesList* toc = properties_list_new();
        for (const auto& [id, version, size] : segs) {
            Properties p{};
            properties_put_string_dup(&p, "id", id.c_str());
            properties_put_string_dup(&p, "version", version.c_str());
            properties_put_long_dup(&p, "size", size);
            seq_add(toc, &p, sizeof p);
        }
        properties_put_properties_list(msg, JOB_TOC_KEY, toc);
        void* data = nullptr;
        uint32_t len = 0;
        properties_encode(TC_Kel_Fanout2_Properties, msg, &data, &len);
        std::string frame(1, '\1');
        frame.append(static_cast<char*>(data), len);
        mg_free(data);
        properties_delete(msg);
        fanout_channel_send(ch_, FANOUT_MSG_DATA, frame.data(),
                            static_cast<uint32_t>(frame.size()));
    }
    void TakeToc() {
        void* toc = nullptr;
        uint32_t len = 0;
        fanout_peer_recv_toc(ch_, &toc, &len);
        mg_free(toc);
    }
    FanoutChannel* ch() { return ch_; }

  private:
    FanoutChannel* ch_;
};

TEST_F(Programs, HostileSendersAreRefusedAndTheReceiverKeepsServing) {
    std::string addr;
    Proc& r = Receiver("unix:" + Path("r.sock"), "d", &addr, {"--keep-serving", "--size", "8192"});
    const std::string blob(4096, 'x');
    using Toc = std::vector<std::tuple<std::string, std::string, int32_t>>;
    struct Case {
        Toc toc;
        int data;  // bytes sent before the end of the data; -1: none, -2: the link drops
        const char* reason;
    };
    const Case cases[] = {
        {{{"../evil", "1", 5}}, -1, "holds \"..\""},
        {{{"a/b", "1", 5}}, -1, "holds \"/\""},
        {{{"a", "1", -5}}, -1, "negative"},
        {{{"a", "1", INT32_MAX}, {"b", "1", INT32_MAX}}, -1, "bytes"},
        {{{"a", "1", 1}, {"a", "1", 1}}, -1, "listed twice"},
        {{{"m", "1", 100}}, 200, "more data than"},
        {{{"e", "1", 100}}, 50, "50 bytes early"},
        {{{"x", "1", 4000}}, -2, "connection was lost"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.reason);
        {
            Hostile h(addr);
            h.Message(c.toc);
            if (c.data != -1) h.TakeToc();
            if (c.data >= 0) {
                fanout_peer_send_block(h.ch(), FANOUT_STATUS_DATA, blob.data(), c.data);
                fanout_peer_send_end(h.ch());
            } else if (c.data == -2) {  // a block header, then only 100 of the bytes it announces
                const uint8_t header[12] = {0, 0, 0, 11, 0, 0, 0, 0, 0, 0, 0x0f, 0xa1};
                ASSERT_EQ(write(fanout_channel_fd(h.ch()), header, 12), 12);
                ASSERT_EQ(write(fanout_channel_fd(h.ch()), blob.data(), 100), 100);
            }
        }
        const std::string line = r.Line("fanout-receive: ");
        EXPECT_NE(line.find(" failed: "), std::string::npos) << line;
        EXPECT_NE(line.find(c.reason), std::string::npos) << line;
    }
    std::string line;
    EXPECT_EQ(Send(addr, {}, &line), 0) << line;
    EXPECT_NE(r.Line("fanout-receive: ").find("D1 done"), std::string::npos);
    ExpectSameFiles("d-out");
    // Nothing was written outside the depot and the copies.
    struct stat st {};
    EXPECT_NE(stat(Path("evil").c_str(), &st), 0);
    EXPECT_NE(stat(Path("d-out/b").c_str(), &st), 0);
}

// Source, relay, three endpoints, three rounds on the same depots: the source pauses mid-way
// and every endpoint already has all the relay received (it forwards while it receives); the
// relay is killed mid-forward; a fresh relay and the endpoints resume from their checkpoints,
// and a fourth target that never answers holds up no one (the relay fails it once it goes).
TEST_F(Programs, SourceRelayThreeEndpointsForwardsWhileReceiving) {
    std::string e[3], targets;
    Proc* endpoint[3];
    for (int i = 0; i < 3; ++i) {
        const std::string name = "e" + std::to_string(i);
        endpoint[i] = &Receiver("unix:" + Path(name + ".sock"), name, &e[i], {"--keep-serving"});
        targets += (i == 0 ? "" : ",") + e[i];
    }
    struct Round {
        std::vector<std::string> relay_env, send_env;
        int send, relay;
        const char* word;  // in each endpoint's line
    };
    const std::string pause = "FANOUT_SEND_SIGNAL_AFTER=1000000," + std::to_string(SIGUSR1);
    const Round rounds[] = {
        {{}, {pause}, 3, 3, "D1 paused"},
        {{"FANOUT_RECEIVE_KILL_AFTER=700000"}, {}, 1, 128 + SIGKILL, "cancelled"},
        {{}, {}, 0, 1, "D1 done"}};
    for (const Round& round : rounds) {
        SCOPED_TRACE(round.word);
        // In the last round, a listener that never accepts: its target waits for a greeting.
        const bool last = round.send == 0;
        int stuck = -1;
        if (last) {
            stuck = fanout_listen(("unix:" + Path("stuck.sock")).c_str(), nullptr);
            ASSERT_GE(stuck, 0);
        }
        Proc& rl =
            Start({FANOUT_RELAY, "--listen", "unix:" + Path("relay.sock"), "--depot", Path("relay"),
                   "--to", targets + (last ? ",unix:" + Path("stuck.sock") : "")},
                  round.relay_env);
        std::string line;
        EXPECT_EQ(Send(Address(rl), {}, &line, round.send_env), round.send) << line;
        std::string got[3];
        for (int i = 0; i < 3; ++i) got[i] = endpoint[i]->Line("fanout-receive: ");
        if (stuck >= 0) close(stuck);
        EXPECT_EQ(rl.Wait(), round.relay) << rl.output();
        const uint64_t relayed = BytesIn(rl.output(), " bytes received");
        if (last) {
            EXPECT_LT(BytesIn(line, " bytes sent"), kTotal - 1000000) << line;
        }
        for (int i = 0; i < 3; ++i) {
            EXPECT_NE(got[i].find(round.word), std::string::npos) << got[i];
            if (round.send == 3) {
                // Everything the relay holds, though it holds only a part.
                EXPECT_GT(relayed, 1000000u);
                EXPECT_LT(relayed, kTotal);
                EXPECT_EQ(BytesIn(got[i], " bytes received"), relayed) << got[i];
            } else if (last) {
                EXPECT_LT(BytesIn(got[i], " bytes received"), kTotal) << got[i];
                ExpectSameFiles("e" + std::to_string(i) + "-out");
            }
        }
    }
}

// Tokens: a wrong one is refused before anything is read; the right one
// works; a non-loopback listener without a token does not start.
TEST_F(Programs, TokensAreCheckedByChallengeAndResponse) {
    std::ofstream(Path("token")) << "right secret\n";
    std::ofstream(Path("wrong")) << "wrong secret\n";
    std::string addr, line;
    Proc& r =
        Receiver("tcp:127.0.0.1:0", "d", &addr, {"--keep-serving", "--token-file", Path("token")});
    EXPECT_EQ(Send(addr, {"--token-file", Path("wrong")}, &line), 1);
    EXPECT_NE(r.Line("fanout-receive: ").find("authentication failed"), std::string::npos);
    EXPECT_EQ(Send(addr, {}, &line), 1);
    EXPECT_NE(line.find("requires a token"), std::string::npos) << line;
    r.Line("fanout-receive: ");
    EXPECT_EQ(Send(addr, {"--token-file", Path("token")}, &line), 0) << line;
    EXPECT_NE(r.Line("fanout-receive: ").find("D1 done"), std::string::npos);
    ExpectSameFiles("d-out");
    Proc& open = Start({FANOUT_RECEIVE, "--listen", "tcp:0.0.0.0:0", "--depot", Path("d2")});
    EXPECT_EQ(open.Wait(), 2);
}

// An endpoint in its own network namespace joined to the source's by a veth pair, so that
// the data cross interfaces between hosts.
TEST_F(Programs, AcrossNetworkNamespaces) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to make network namespaces";
    const std::string ns = "fanoutns" + std::to_string(getpid());
    if (system(("ip netns add " + ns + " 2>/dev/null").c_str()) != 0)
        GTEST_SKIP() << "ip netns add is not permitted here (no CAP_SYS_ADMIN/CAP_NET_ADMIN)";
    const std::string sh = "ip link add " + ns + "a type veth peer name " + ns +
                           "b && ip link set " + ns + "b netns " + ns +
                           " && ip addr add 10.211.0.1/24 dev " + ns + "a && ip link set " + ns +
                           "a up && ip netns exec " + ns + " ip addr add 10.211.0.2/24 dev " + ns +
                           "b && ip netns exec " + ns + " ip link set " + ns +
                           "b up && ip netns exec " + ns + " ip link set lo up";
    const bool ok = system((sh + " 2>/dev/null").c_str()) == 0;
    if (ok) {
        std::ofstream(Path("token")) << "netns secret\n";
        Proc& r = Start({"/usr/bin/ip", "netns", "exec", ns, FANOUT_RECEIVE, "--listen",
                         "tcp:10.211.0.2:0", "--depot", Path("d"), "--out", Path("d-out"),
                         "--token-file", Path("token")});
        std::string line;
        EXPECT_EQ(Send(Address(r), {"--token-file", Path("token")}, &line), 0) << line;
        EXPECT_EQ(r.Wait(), 0);
        ExpectSameFiles("d-out");
    }
    if (system(("ip link del " + ns + "a 2>/dev/null; ip netns del " + ns).c_str()) != 0) {
        ADD_FAILURE() << "cannot remove the namespace " << ns;
    }
    if (!ok) GTEST_SKIP() << "veth pairs cannot be made here";
}

}  // namespace
