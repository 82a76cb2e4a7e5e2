// The content delivery service client against a stand-in client library
// (ferry_double.h): the three ways of finding the library, each download
// result, the wait for the callback (early, late, never, interrupted), the
// cached-file path, and type-11 streams read end to end. This program links
// the stand-in in; the other ways run the probe program in fresh processes.
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>

#include <dlfcn.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <map>
#include <sstream>
#include <vector>

#include <gtest/gtest.h>

#include "fanout/fanout2.h"
#include "fanout/ferry.h"
#include "fanout/keys.h"
#include "ferry_double.h"
#include "stream_support.h"
#include "util/expect_raise.h"

using namespace stream_test;

extern char** environ;

namespace {

// Everything written to standard error (file descriptor 2) from construction
// to finish(), kept in memory.
class StderrCapture {
  public:
    StderrCapture() {
        std::fflush(stderr);
        saved_ = dup(2);
        fd_ = memfd_create("fanout_stderr", 0);
        dup2(fd_, 2);
    }
    ~StderrCapture() { finish(); }
    std::string finish() {
        if (fd_ < 0) return text_;
        std::fflush(stderr);
        dup2(saved_, 2);
        close(saved_);
        char buf[4096];
        ssize_t n;
        for (off_t at = 0; (n = pread(fd_, buf, sizeof buf, at)) > 0; at += n) text_.append(buf, n);
        close(fd_);
        fd_ = -1;
        return text_;
    }

  private:
    int saved_ = -1, fd_ = -1;
    std::string text_;
};

// What the first ferry_init of this process logged.
std::string g_init_log;

struct FerryInit : ::testing::Environment {
    void SetUp() override {
        StderrCapture capture;
        ferry_init();
        g_init_log = capture.finish();
    }
};
[[maybe_unused]] const auto* const g_env = ::testing::AddGlobalTestEnvironment(new FerryInit);

std::string hex(const void* p) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

// The lines of a loading from a library: each entry point and its slot.
std::string loading_lines() {
    static const std::pair<const char*, size_t> slots[] = {
        {"DownloadFile", offsetof(FerryFuncs, DownloadFile)},
        {"GetDownloadDirectory", offsetof(FerryFuncs, GetDownloadDirectory)},
        {"GetSingleFileSize", offsetof(FerryFuncs, GetSingleFileSize)},
        {"PublishFile", offsetof(FerryFuncs, PublishFile)},
        {"ReleaseFile", offsetof(FerryFuncs, ReleaseFile)}};
    std::string out;
    for (const auto& [name, offset] : slots) {
        out += std::string("fanout: ferry_load: loading ") + name + " into ferry_funcs + " +
               hex(reinterpret_cast<void*>(offset));
    }
    return out;
}

TEST(FerryLoad, LinkedInLibraryIsTakenFromTheProcess) {
    EXPECT_EQ(g_init_log, "fanout: ferry_init: ferry_load() returned 0.");
    EXPECT_EQ(ferry_loaded, 1);
    EXPECT_EQ(reinterpret_cast<void*>(ferry_funcs.DownloadFile),
              dlsym(RTLD_DEFAULT, "DownloadFile"));
    EXPECT_EQ(reinterpret_cast<void*>(ferry_funcs.ReleaseFile), dlsym(RTLD_DEFAULT, "ReleaseFile"));
    EXPECT_NE(ferry_funcs.PublishFile, nullptr);
}

// ---------------------------------------------------------------------------
// The probe program in a fresh process.

struct ProbeRun {
    int status;
    std::string output;  // standard output and error, interleaved
};

// Runs the probe with the environment of this process less the loader's
// path and the channel variables, plus `extra` ("NAME=value").
ProbeRun run_probe(const std::vector<std::string>& args, const std::vector<std::string>& extra) {
    std::vector<std::string> env;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string entry = *e;
        if (entry.rfind("LD_LIBRARY_PATH=", 0) != 0 && entry.rfind("FANOUT_IPC", 0) != 0) {
            env.push_back(entry);
        }
    }
    env.insert(env.end(), extra.begin(), extra.end());
    std::vector<char*> argv{const_cast<char*>(FERRY_PROBE)}, envp;
    for (const auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    for (const auto& e : env) envp.push_back(const_cast<char*>(e.c_str()));
    argv.push_back(nullptr);
    envp.push_back(nullptr);
    int out[2];
    if (pipe(out) != 0) return {-1, "pipe failed"};
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(out[1], 1);
        dup2(out[1], 2);
        close(out[0]);
        close(out[1]);
        execve(argv[0], argv.data(), envp.data());
        _exit(127);
    }
    close(out[1]);
    ProbeRun run{-1, ""};
    char buf[4096];
    ssize_t n;
    while ((n = read(out[0], buf, sizeof buf)) > 0) run.output.append(buf, n);
    close(out[0]);
    run.status = reap(pid);
    return run;
}

struct ProbeDirs {
    ScratchDir scratch;
    std::string server = scratch / "server", cache = scratch / "cache";
    std::string bytes = pattern(50000, 7);
    ProbeDirs() {
        fs::create_directories(server);
        write_file(server + "/pkg", bytes);
    }
    std::vector<std::string> args() const { return {server, cache, "pkg"}; }
};

TEST(FerryLoad, ByBaseNameFillsTheTable) {
    ProbeDirs dirs;
    const ProbeRun run =
        run_probe(dirs.args(), {std::string("LD_LIBRARY_PATH=") + FERRY_DOUBLE_DIR});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find(loading_lines() + "fanout: ferry_init: ferry_load() returned 0."),
              std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("probe: loaded=1 table=5\n"), std::string::npos) << run.output;
}

TEST(FerryLoad, LibraryLackingAnEntryPointIsRefused) {
    ProbeDirs dirs;
    const ProbeRun run =
        run_probe(dirs.args(), {std::string("LD_LIBRARY_PATH=") + FERRY_INCOMPLETE_DIR});
    EXPECT_EQ(run.status, 3) << run.output;
    // "ReleaseFile" is announced, then found missing.
    EXPECT_NE(run.output.find(loading_lines() + "fanout: ferry_init: ferry_load() returned -1."),
              std::string::npos)
        << run.output;
    EXPECT_NE(run.output.find("probe: loaded=0 table=0\n"), std::string::npos) << run.output;
}

// Inside a private mount namespace with an empty tmpfs on /tmp, so the
// service's configuration file can be written where the client looks for
// it without touching the machine's /tmp. Scenarios run one probe each; the
// child sends "name\nstatus\nlength\n" and the output for each.
TEST(FerryLoad, ThroughTheServiceConfigurationFile) {
    const bool had_config = fs::exists("/tmp/ferry.cfg");
    int out[2];
    ASSERT_EQ(pipe(out), 0);
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        close(out[0]);
        auto send = [&](const std::string& name, int status, const std::string& text) {
            const std::string frame = name + "\n" + std::to_string(status) + "\n" +
                                      std::to_string(text.size()) + "\n" + text;
            (void)!write(out[1], frame.data(), frame.size());
        };
        if (unshare(CLONE_NEWNS) != 0 ||
            mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount("tmpfs", "/tmp", "tmpfs", 0, "size=64m") != 0) {
            send("skip", errno, strerror(errno));
            _exit(0);
        }
        std::error_code ec;
        fs::create_directories("/tmp/svc/lib", ec);
        fs::create_directories("/tmp/svc/ferry", ec);
        fs::copy_file(std::string(FERRY_DOUBLE_DIR) + "/libFerryClient.so",
                      "/tmp/svc/ferry/libFerryClient.so", ec);
        fs::create_directories("/tmp/svc/server", ec);
        write_file("/tmp/svc/server/pkg", pattern(30000, 3));
        const std::vector<std::string> args{"/tmp/svc/server", "/tmp/svc/cache", "pkg"};
        const std::string good = "# the service\nClassPath = /tmp/svc/lib/Larder.jar:/x.jar\n";
        const struct {
            const char* name;
            const char* config;  // null: no file
            std::vector<std::string> env;
        } scenarios[] = {
            {"missing", nullptr, {}},
            {"no-classpath", "Other=/tmp/svc/lib/Larder.jar\n", {}},
            {"no-jar", "ClassPath=/tmp/svc/lib/other.jar\n", {}},
            {"unset", good.c_str(), {}},
            {"extended", good.c_str(), {"LD_LIBRARY_PATH=/opt/none"}},
        };
        for (const auto& s : scenarios) {
            fs::remove("/tmp/ferry.cfg", ec);
            if (s.config != nullptr) write_file("/tmp/ferry.cfg", s.config);
            const ProbeRun run = run_probe(args, s.env);
            send(s.name, run.status, run.output);
        }
        _exit(0);
    }
    close(out[1]);
    std::string all;
    char buf[4096];
    ssize_t n;
    while ((n = read(out[0], buf, sizeof buf)) > 0) all.append(buf, n);
    close(out[0]);
    EXPECT_EQ(reap(pid), 0);
    std::map<std::string, ProbeRun> runs;
    std::istringstream in(all);
    std::string name, status, length;
    while (std::getline(in, name) && std::getline(in, status) && std::getline(in, length)) {
        std::string text(std::stoul(length), '\0');
        in.read(text.data(), static_cast<std::streamsize>(text.size()));
        runs[name] = {std::stoi(status), text};
    }
    if (runs.count("skip") != 0) {
        GTEST_SKIP() << "a private mount namespace with its own /tmp needs root (CAP_SYS_ADMIN): "
                     << runs["skip"].output;
    }
    ASSERT_EQ(runs.size(), 5u) << all;
    EXPECT_EQ(fs::exists("/tmp/ferry.cfg"), had_config) << "the machine's /tmp was touched";

    const std::string refused = "fanout: ferry_init: ferry_load() returned -1.";
    EXPECT_NE(runs["missing"].output.find(
                  "fanout: ferry_get_lib_dir: Could not open /tmp/ferry.cfg for read." + refused),
              std::string::npos)
        << runs["missing"].output;
    for (const char* s : {"missing", "no-classpath", "no-jar"}) {
        EXPECT_EQ(runs[s].status, 3) << s << ": " << runs[s].output;
        EXPECT_EQ(runs[s].output.rfind(refused, 0) == 0, std::string(s) != "missing") << s;
    }
    const std::string dir = "/tmp/svc/lib/../ferry";
    const std::pair<const char*, std::string> loaded[] = {{"unset", dir},
                                                          {"extended", "/opt/none:" + dir}};
    for (const auto& [s, path] : loaded) {
        EXPECT_EQ(runs[s].status, 0) << s << ": " << runs[s].output;
        EXPECT_NE(
            runs[s].output.find(loading_lines() + "fanout: ferry_init: ferry_load() returned 0."),
            std::string::npos)
            << runs[s].output;
        EXPECT_NE(runs[s].output.find("probe: LD_LIBRARY_PATH=" + path + "\n"), std::string::npos)
            << runs[s].output;
    }
}

// ---------------------------------------------------------------------------
// Downloads, in this process.

class FerryDownload : public ::testing::Test {
  protected:
    ScratchDir scratch;
    std::string server = scratch / "server", cache = scratch / "cache";
    PropertiesList* toc = properties_list_new();
    FileList state{};

    FerryDownload() {
        fs::create_directories(server);
        // Bounds every wait, so that a lost callback fails (204) instead of
        // hanging; a callback that comes ends the wait at once.
        ferry_set_wait_hook([](uint32_t round) { return round < 3 ? 20000 : 0; });
    }
    ~FerryDownload() override {
        ferry_double_reset();
        ferry_set_wait_hook(nullptr);
        properties_list_delete(toc);
        mg_free(state.list);
    }

    // Adds a segment for `package` (whose bytes are put on the server);
    // `extra` are further string keys.
    Properties* add(const std::string& package, size_t size = 1000,
                    const std::map<std::string, std::string>& extra = {}) {
        write_file(server + "/" + package, pattern(size, static_cast<unsigned>(package.size())));
        Properties p{};
        properties_put_string_dup(&p, SEGMENT_FERRY_MANAGER, server.c_str());
        properties_put_string_dup(&p, SEGMENT_FERRY_PACKAGEID, package.c_str());
        properties_put_string_dup(&p, SEGMENT_FERRY_DESTINATION, cache.c_str());
        properties_put_string_dup(&p, SEGMENT_ID_KEY, package.c_str());
        properties_put_string_dup(&p, SEGMENT_VERSION_KEY, "1");
        for (const auto& [k, v] : extra) properties_put_string_dup(&p, k.c_str(), v.c_str());
        seq_add(toc, &p, sizeof p);
        return &toc->buffer[toc->length - 1];
    }

    std::string started(const std::string& package, const char* user, const char* password, int rc,
                        uint32_t handle = 1) const {
        return "fanout: Started a new FERRY download: DownloadFile(" + server + ", " + package +
               ", " + cache + ", " + user + ", " + password + ", " +
               hex(reinterpret_cast<void*>(&ferry_callback)) + ", " + std::to_string(handle) +
               ").  rc=" + std::to_string(rc) + "\n";
    }

    static std::string journal() {
        char buf[4096];
        ferry_double_journal(buf, sizeof buf);
        return buf;
    }

    std::string path_of(int i) const {
        return properties_get_string2(&toc->buffer[i], SEGMENT_DATA_PATH_KEY, "");
    }
};

TEST_F(FerryDownload, FetchedPackagesAreRecordedInTheSegmentAndTheList) {
    const struct {
        int mode;
        int rc;
        const char* cached;  // under the cache directory
        bool exists;
        const char* log;  // further expected log text
    } cases[] = {
        {kFerryComplete, 0, "/h1/p", true, ""},
        {kFerryEarly, 0, "/h1/p", true, ""},
        {kFerryAtOnce, 16, "/h1/p", true, ""},
        {kFerryMisplaced, 16, "/cache/files/1/p-1", true,
         "Missing last slash. ferry_handle=1 actual_path="},
        // The reader goes on after a bad status with what the cache holds.
        {kFerryBadStatus, 0, "/cache/files/1/p-1", false,
         "fanout: Received a bad status of 3 for FERRY handle of 1\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.mode);
        ferry_double_reset();
        fs::remove_all(cache);
        properties_list_delete(toc);
        toc = properties_list_new();
        state = FileList{};
        Properties* seg = add("p", 1234);
        ferry_double_mode("p", c.mode);
        void* data = reinterpret_cast<void*>(1);
        StderrCapture capture;
        ASSERT_EQ(ferry_download_next(toc, &state, &data), 0);
        const std::string log = capture.finish();
        EXPECT_EQ(data, nullptr);
        const std::string path = cache + c.cached;
        EXPECT_EQ(state.next_segment, 1u);
        EXPECT_STREQ(state.cursor, path.c_str());
        EXPECT_EQ(state.cursor, state.list);
        EXPECT_EQ(path_of(0), path);
        EXPECT_STREQ(properties_get_string2(seg, SEGMENT_DAT_FILE_KEY, ""), path.c_str());
        EXPECT_EQ(properties_get_long2(seg, SEGMENT_SIZE_KEY, -1), c.exists ? 1234 : -1);
        EXPECT_EQ(journal(),
                  "DownloadFile(p,-,-)=" + std::to_string(c.rc) + "#1;ReleaseFile(1)=0;");
        EXPECT_EQ(log.rfind(started("p", "<null>", "<null>", c.rc), 0), 0u) << log;
        EXPECT_NE(log.find(c.log), std::string::npos) << log;
        mg_free(state.list);
        state.list = nullptr;
        // Every segment fetched: nothing more happens.
        EXPECT_EQ(ferry_download_next(toc, &state, nullptr), 0);
        EXPECT_EQ(state.list, nullptr);
    }
}

TEST_F(FerryDownload, PasswordReachesTheLibraryButNoLog) {
    add("p", 10, {{SEGMENT_FERRY_USERNAME, "ann"}, {SEGMENT_FERRY_PASSWORD, "s3cret"}});
    StderrCapture capture;
    ASSERT_EQ(ferry_download_next(toc, &state, nullptr), 0);
    const std::string log = capture.finish();
    EXPECT_EQ(log.rfind(started("p", "ann", "<\?\?\?\?>", 0), 0), 0u) << log;
    EXPECT_EQ(log.find("s3cret"), std::string::npos);
    EXPECT_EQ(journal(), "DownloadFile(p,ann,s3cret)=0#1;ReleaseFile(1)=0;");
}

TEST_F(FerryDownload, RefusalsRaiseAndReleaseTheHandle) {
    const struct {
        int mode;
        const char* deferred;  // "ferry_deferred", or null
        int number;
        std::vector<std::string> args;
        const char* journal;
    } cases[] = {
        {kFerryBusy, nullptr, 206, {"p", "300"}, "DownloadFile(p,-,-)=5#1;ReleaseFile(1)=0;"},
        {kFerryBusy, "60", 206, {"p", "60"}, "DownloadFile(p,-,-)=5#1;ReleaseFile(1)=0;"},
        {kFerryFails,
         nullptr,
         203,
         {"DownloadFile", "0", "7"},
         "DownloadFile(p,-,-)=7#1;ReleaseFile(1)=0;"},
        {kFerryReleaseFails,
         nullptr,
         203,
         {"ReleaseFile", "1", "9"},
         "DownloadFile(p,-,-)=0#1;ReleaseFile(1)=9;"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.journal);
        ferry_double_reset();
        properties_list_delete(toc);
        toc = properties_list_new();
        Properties* seg = add("p");
        if (c.deferred != nullptr)
            properties_put_long_dup(seg, SEGMENT_FERRY_DEFERRED, std::atoi(c.deferred));
        ferry_double_mode("p", c.mode);
        StderrCapture capture;
        try {
            ferry_download_next(toc, &state, nullptr);
            ADD_FAILURE() << "did not raise";
        } catch (const fanout::Exception& e) {
            EXPECT_EQ(e.number(), c.number);
            ASSERT_EQ(e.argument_count(), c.args.size());
            for (uint32_t i = 0; i < c.args.size(); ++i) EXPECT_EQ(e.argument(i), c.args[i]);
            EXPECT_EQ(e.is_a(FANOUT2_EX_ID(ExDistributionDeferred)), c.number == 206);
            if (c.number == 206) {
                auto* r = reinterpret_cast<const Kel_Fanout2_ExDistributionDeferred*>(e.record());
                EXPECT_EQ(r->retry_seconds, std::atoi(c.args[1].c_str()));
            }
        }
        const std::string log = capture.finish();
        EXPECT_EQ(journal(), c.journal);
        const bool release_failed = c.mode == kFerryReleaseFails;
        EXPECT_EQ(log.find("fanout: ReleaseFile(1) failed.  ferry_rc=9\n") != std::string::npos,
                  release_failed);
        // Only a download that was started counts; its segment is not
        // recorded when the release fails.
        EXPECT_EQ(state.next_segment, release_failed ? 1u : 0u);
        EXPECT_EQ(path_of(0), "");
        mg_free(state.list);
        state = FileList{};
    }
    Properties anonymous{};
    seq_add(toc, &anonymous, sizeof anonymous);
    state.next_segment = 1;
    EXPECT_RAISES(ferry_download_next(toc, &state, nullptr), 36, {"ferry_packageid"});
}

// ---------------------------------------------------------------------------
// The wait, driven through the test hook.

std::atomic<uint32_t> g_rounds{0};
FanoutChannel* g_peer = nullptr;
uint8_t g_stop = 0;

TEST_F(FerryDownload, CallbackThatNeverComesEndsAfter1080Rounds) {
    add("p");
    ferry_double_mode("p", kFerrySilent);
    g_rounds = 0;
    ferry_set_wait_hook([](uint32_t round) {
        g_rounds = round + 1;
        return 0;
    });
    StderrCapture capture;
    EXPECT_RAISES(ferry_download_next(toc, &state, nullptr), 204, {"DownloadFile", "1", "10800"});
    EXPECT_EQ(g_rounds, 1080u);
    EXPECT_EQ(journal(), "DownloadFile(p,-,-)=0#1;");
    EXPECT_EQ(state.next_segment, 1u);
    EXPECT_EQ(state.list, nullptr);
}

TEST_F(FerryDownload, CallbackAfterTheWaitBeganEndsIt) {
    add("p", 4000);
    ferry_double_mode("p", kFerrySlow);
    g_rounds = 0;
    ferry_set_wait_hook([](uint32_t round) {
        g_rounds = round + 1;
        if (round == 0) ferry_double_release();
        // A lost callback shows as message 204 rather than a hang.
        return round < 3 ? 20000 : 0;
    });
    StderrCapture capture;
    ASSERT_EQ(ferry_download_next(toc, &state, nullptr), 0);
    EXPECT_GE(g_rounds, 1u);
    EXPECT_LT(g_rounds, 3u);
    EXPECT_EQ(read_file(path_of(0)), read_file(server + "/p"));
}

class FerryStop : public FerryDownload, public ::testing::WithParamInterface<uint8_t> {};

TEST_P(FerryStop, StopCommandWhileWaitingLeavesTheDownloadPending) {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    fanout_ipc_attach(sv[1], 0);
    g_peer = fanout_channel_attach(sv[0], 0, "test peer");
    g_stop = GetParam();
    add("p");
    ferry_double_mode("p", kFerrySilent);
    ferry_set_wait_hook([](uint32_t round) {
        if (round == 0) fanout_peer_send_control(g_peer, g_stop);
        return 0;
    });
    void* data = nullptr;
    StderrCapture capture;
    EXPECT_EQ(ferry_download_next(toc, &state, &data), -static_cast<int32_t>(GetParam()));
    capture.finish();
    ASSERT_NE(data, nullptr);
    EXPECT_EQ(*static_cast<uint8_t*>(data), GetParam());
    mg_free(data);
    EXPECT_EQ(journal(), "DownloadFile(p,-,-)=0#1;") << "the handle is not released";
    EXPECT_EQ(state.next_segment, 1u);
    EXPECT_EQ(state.cursor, nullptr);
    fanout_ipc_set(nullptr);
    fanout_channel_close(g_peer);
}

INSTANTIATE_TEST_SUITE_P(Commands, FerryStop,
                         ::testing::Values(FANOUT_STATUS_CANCEL, FANOUT_STATUS_PAUSE),
                         [](const auto& info) { return info.param == 2 ? "Cancel" : "Pause"; });

// ---------------------------------------------------------------------------
// The cached file's path and the state's list.

TEST_F(FerryDownload, ActualPathIsRebuiltTwoLevelsUp) {
    write_file(scratch / "here", "x");
    const std::string long_package(150, 'q');
    const struct {
        const char* reported;  // null: the library has no path
        std::string package, actual, log;
    } cases[] = {
        {"/srv/x/y", "P", "/srv/cache/files/1/P-1",
         "Missing last slash. ferry_handle=7 actual_path="},
        {"/x/y", "P", "/cache/files/1/P-1", "actual_path="},
        {"/srv/x/y", long_package,
         ("/srv/cache/files/1/" + long_package).substr(0, std::strlen("/srv/x/y") + 100), ""},
        {"/one", "P", "/one", "Missing last slash. ferry_handle=7 ferry_path=/one\n"},
        {"nowhere", "P", "nowhere", "ferry_path=nowhere\n"},
        {nullptr, "P", "", "Start. ferry_handle=7 ferry_path=<null>\n"},
    };
    for (const auto& c : cases) {
        ferry_double_reset();
        if (c.reported != nullptr) ferry_double_path(7, c.reported);
        StderrCapture capture;
        char* actual = ferry_get_actual_path(7, c.package.c_str());
        const std::string log = capture.finish();
        EXPECT_EQ(actual != nullptr ? actual : "", c.actual);
        EXPECT_NE(log.find(c.log), std::string::npos) << log;
        mg_free(actual);
    }
    ferry_double_path(7, (scratch / "here").c_str());
    StderrCapture capture;
    char* actual = ferry_get_actual_path(7, "P");
    EXPECT_EQ(
        capture.finish(),
        "fanout: ferry_get_actual_path: Start. ferry_handle=7 ferry_path=" + (scratch / "here") +
            "\nfanout: ferry_get_actual_path: Existing path valid. ferry_handle=7 ferry_path=" +
            (scratch / "here") + "\n");
    EXPECT_EQ(std::string(actual), scratch / "here");
    mg_free(actual);
}

// The list keeps one block: names not yet taken move into a new one.
TEST_F(FerryDownload, StateListOwnsEveryName) {
    for (const char* p : {"a", "b", "c", "d", "e"}) add(p, 1);
    StderrCapture capture;
    auto next = [&] { ASSERT_EQ(ferry_download_next(toc, &state, nullptr), 0); };
    next();
    next();
    EXPECT_STREQ(state.list, (cache + "/h1/a," + cache + "/h2/b").c_str());
    EXPECT_EQ(state.cursor, state.list);
    EXPECT_EQ(get_next_file(&state), cache + "/h1/a");
    next();
    EXPECT_STREQ(state.list, (cache + "/h2/b," + cache + "/h3/c").c_str());
    EXPECT_EQ(get_next_file(&state), cache + "/h2/b");
    EXPECT_EQ(get_next_file(&state), cache + "/h3/c");
    EXPECT_EQ(state.cursor, nullptr);
    next();
    EXPECT_STREQ(state.list, (cache + "/h4/d").c_str());
    // A cursor set while the list is null is adopted.
    mg_free(state.list);
    state.list = nullptr;
    state.cursor = mg_strdup("/z");
    next();
    EXPECT_STREQ(state.list, ("/z," + cache + "/h5/e").c_str());
    EXPECT_EQ(state.cursor, state.list);
}

// ---------------------------------------------------------------------------
// Type-11 streams.

NetStream* open_ferry_stream(const PropertiesList* toc) {
    uint8_t octets[3] = {11, 0, 0};
    StreamKey key{3, 3, octets};
    NetStream* s = net_stream_open(&key);
    if (s != nullptr) s->toc = properties_list_clone(toc);
    return s;
}

TEST_F(FerryDownload, Type11StreamReadsEveryPackageThroughTheCache) {
    const std::pair<const char*, int> packages[] = {
        {"big", kFerryComplete}, {"now", kFerryAtOnce}, {"late", kFerryEarly}};
    add("big", 40000);
    add("now", 16384);
    add("late", 1);
    for (const auto& [p, mode] : packages) ferry_double_mode(p, mode);
    NetStream* s = open_ferry_stream(toc);
    ASSERT_NE(s, nullptr);
    StderrCapture capture;
    for (const auto& [p, mode] : packages) {
        std::string bytes;
        void* data = nullptr;
        int32_t n;
        while ((n = net_stream_read(s, &data)) > 0) {
            bytes.append(static_cast<char*>(data), n);
            net_stream_free_buffer(s, data);
        }
        EXPECT_EQ(n, 0);
        EXPECT_EQ(bytes, read_file(server + "/" + p)) << p;
    }
    void* data = nullptr;
    EXPECT_EQ(net_stream_read(s, &data), 0) << "all fetched";
    EXPECT_EQ(journal(),
              "DownloadFile(big,-,-)=0#1;ReleaseFile(1)=0;DownloadFile(now,-,-)=16#2;"
              "ReleaseFile(2)=0;DownloadFile(late,-,-)=0#3;ReleaseFile(3)=0;");
    EXPECT_STREQ(properties_get_string2(&s->toc->buffer[2], SEGMENT_DATA_PATH_KEY, ""),
                 (cache + "/h3/late").c_str());
    net_stream_close(s);
}

TEST_F(FerryDownload, Type11SizesComeFromTheService) {
    add("a", 700);
    add("b", 300);
    NetStream* s = open_ferry_stream(toc);
    ASSERT_NE(s, nullptr);
    StderrCapture capture;
    net_stream_get_size(s, toc);
    EXPECT_EQ(properties_get_long2(&toc->buffer[0], SEGMENT_SIZE_KEY, -1), 700);
    EXPECT_EQ(properties_get_long2(&toc->buffer[1], SEGMENT_SIZE_KEY, -1), 300);
    EXPECT_EQ(journal(),
              "GetSingleFileSize(a)=0;DownloadFile(a,-,-)=0#1;ReleaseFile(1)=0;"
              "GetSingleFileSize(b)=0;DownloadFile(b,-,-)=0#2;ReleaseFile(2)=0;");
    properties_list_delete(toc);
    toc = properties_list_new();
    add("c");
    ferry_double_mode("c", kFerryFails);
    EXPECT_RAISES(net_stream_get_size(s, toc), 203, {"GetSingleFileSize", "0", "7"});
    net_stream_close(s);
}

}  // namespace
