// The content delivery service client against a stand-in client library (ferry_double.h): the
// ways of finding the library, each answer to a download, the wait for the callback, the cached
// file's path, and type-11 streams. The probe program loads the stand-in in processes of its own.
#include <sys/socket.h>

#include <atomic>

#include <gtest/gtest.h>

#include "fanout/fanout2.h"
#include "fanout/keys.h"
#include "ferry_double.h"
#include "stream_support.h"
#include "util/expect_raise.h"

using namespace stream_test;

namespace {

const std::string kTable =
    "DownloadFile,GetDownloadDirectory,GetSingleFileSize,PublishFile,ReleaseFile";
const std::string kLoaded =
    "fanout: ferry_init: ferry_load() returned 0.probe: loaded=1 table=" + kTable +
    " LD_LIBRARY_PATH=";
const std::string kRefused =
    "ferry_load() returned -1.probe: loaded=0 table=-,-,-,-,- LD_LIBRARY_PATH=";

// The output of `command`, standard error included.
std::string run(const std::string& command) {
    FILE* in = popen((command + " 2>&1").c_str(), "r");
    std::string text;
    char buf[512];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, in)) > 0;) text.append(buf, n);
    pclose(in);
    return text;
}

// The command running the probe `program` with LD_LIBRARY_PATH `path` (unset when empty); the
// service logs on standard error, without newlines.
std::string probe(const std::string& program, const std::string& path) {
    return "env -u LD_LIBRARY_PATH " + (path.empty() ? "" : "LD_LIBRARY_PATH=" + path + " ") +
           program;
}

TEST(FerryLoad, LinkedInOrByBaseName) {
    ferry_init();
    EXPECT_EQ(ferry_loaded, 1);
    EXPECT_EQ(ferry_double_table(), kTable);
    EXPECT_NE(run(probe(FERRY_PROBE, FERRY_DOUBLE_DIR)).find(kLoaded + FERRY_DOUBLE_DIR "\n"),
              std::string::npos);
    // A library lacking "ReleaseFile" is refused whole.
    EXPECT_NE(run(probe(FERRY_PROBE, FERRY_INCOMPLETE_DIR)).find(kRefused + FERRY_INCOMPLETE_DIR),
              std::string::npos);
}

// "/tmp/ferry.cfg" is a fixed path: each case runs the probe in a private mount namespace with
// an empty /tmp, reaching the probe and the library through descriptors opened before.
TEST(FerryLoad, ThroughTheServiceConfigurationFile) {
    const bool had_config = fs::exists("/tmp/ferry.cfg");
    const std::string good = "# the service\nClassPath = /tmp/svc/lib/Larder.jar:/x.jar\n";
    const std::string dir = "/tmp/svc/lib/../ferry", unset = kRefused + "<unset>";
    const struct {
        const char* config;  // null: no file
        const char* path;
        std::string expected;
    } cases[] = {
        {nullptr, "", "Could not open /tmp/ferry.cfg for read.fanout: ferry_init: " + unset},
        {"Other=/tmp/svc/lib/Larder.jar\n", "", unset},
        {"ClassPath=/tmp/svc/lib/other.jar\n", "", unset},
        {good.c_str(), "", kLoaded + dir + "\n"},
        {good.c_str(), "/opt/none", kLoaded + "/opt/none:" + dir + "\n"},
    };
    for (const auto& c : cases) {
        const std::string text = run(
            "unshare -m sh -c 'exec 3<" FERRY_PROBE " 4<" FERRY_DOUBLE_DIR
            "/libFerryClient.so && "
            "mount -t tmpfs -o size=16m tmpfs /tmp && mkdir -p /tmp/svc/lib /tmp/svc/ferry && "
            "cp /proc/self/fd/4 /tmp/svc/ferry/libFerryClient.so && " +
            (c.config ? "printf %s \"" + std::string(c.config) + "\" >/tmp/ferry.cfg && " : "") +
            probe("/proc/self/fd/3", c.path) + "'");
        if (text.rfind("unshare:", 0) == 0 || text.rfind("mount:", 0) == 0)
            GTEST_SKIP() << "a private mount namespace is not permitted here: " << text;
        EXPECT_NE(text.find(c.expected), std::string::npos) << text;
    }
    EXPECT_EQ(fs::exists("/tmp/ferry.cfg"), had_config) << "the machine's /tmp was touched";
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
        ferry_init();  // the stand-in is linked in
        fs::create_directories(server);
        // Slow downloads go on once the wait has begun; a lost callback shows as message 204
        // after three long rounds rather than as a hang.
        ferry_set_wait_hook([](uint32_t round) {
            if (round == 0) ferry_double_release();
            return round < 3 ? 20000 : 0;
        });
    }
    ~FerryDownload() override {
        if (peer != nullptr) fanout_ipc_set(nullptr), fanout_channel_close(peer);
        ferry_double_reset();
        ferry_set_wait_hook(nullptr);
        properties_list_delete(toc);
        mg_free(state.list);
    }

    // Adds a segment for `package`, whose `size` bytes are put on the server.
    Properties* add(const std::string& package, size_t size = 1000) {
        write_file(server + "/" + package, pattern(size, static_cast<unsigned char>(package[0])));
        Properties p{};
        for (const auto& [key, value] : {std::pair{SEGMENT_ID_KEY, package},
                                         {SEGMENT_VERSION_KEY, std::string("1")},
                                         {SEGMENT_FERRY_MANAGER, server},
                                         {SEGMENT_FERRY_PACKAGEID, package},
                                         {SEGMENT_FERRY_DESTINATION, cache}}) {
            properties_put_string_dup(&p, key, value.c_str());
        }
        seq_add(toc, &p, sizeof p);
        return &toc->buffer[toc->length - 1];
    }
    std::string get(uint32_t i, const char* key) const {
        return properties_get_string2(&toc->buffer[i], key, "");
    }
    // Makes a socket pair the process's channel, `peer` its far end.
    void attach_peer() {
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        fanout_ipc_attach(sv[1], 0);
        peer = fanout_channel_attach(sv[0], 0, "test peer");
    }
    FanoutChannel* peer = nullptr;
    static std::string journal() {
        char buf[1024];
        ferry_double_journal(buf, sizeof buf);
        return buf;
    }
};

// The library's answer to "DownloadFile" and what follows: the fetched file in the state's list
// and the segment, or the message raised; every handle is given back.
struct Answer {
    int mode;
    int32_t deferred;               // "ferry_deferred", 0 for none
    int number;                     // the message raised, 0 for none
    std::vector<std::string> args;  // its arguments, or the fetched path under the cache
    std::string journal;            // after "DownloadFile(p,-,-)="
};
void PrintTo(const Answer& a, std::ostream* os) {
    *os << "mode " << a.mode << ", deferred " << a.deferred;
}

class FerryAnswer : public FerryDownload, public ::testing::WithParamInterface<Answer> {};

TEST_P(FerryAnswer, IsFollowed) {
    const Answer& a = GetParam();
    Properties* segment = add("p", 1234);
    if (a.deferred != 0) properties_put_long_dup(segment, SEGMENT_FERRY_DEFERRED, a.deferred);
    ferry_double_mode("p", a.mode);
    void* data = &state;  // comes back null
    if (a.number == 0) {
        ASSERT_EQ(ferry_download_next(toc, &state, &data), 0);
        EXPECT_EQ(data, nullptr);
        const std::string path = cache + a.args[0];
        EXPECT_EQ(state.cursor, state.list);
        EXPECT_STREQ(state.cursor, path.c_str());
        EXPECT_EQ(get(0, SEGMENT_DATA_PATH_KEY), path);
        EXPECT_EQ(get(0, SEGMENT_DAT_FILE_KEY), path);
        EXPECT_EQ(properties_get_long2(segment, SEGMENT_SIZE_KEY, -1),
                  a.mode == kFerryBadStatus ? -1 : 1234);
        EXPECT_EQ(ferry_download_next(toc, &state, nullptr), 0) << "nothing is left to fetch";
    } else {
        try {
            ferry_download_next(toc, &state, &data);
            ADD_FAILURE() << "did not raise";
        } catch (const fanout::Exception& e) {
            EXPECT_EQ(e.number(), a.number);
            std::vector<std::string> args;
            for (uint32_t i = 0; i < e.argument_count(); ++i) args.push_back(e.argument(i));
            EXPECT_EQ(args, a.args);
            ASSERT_EQ(e.is_a(FANOUT2_EX_ID(ExDistributionDeferred)), a.number == 206);
            if (a.number == 206) {
                auto* r = reinterpret_cast<const Kel_Fanout2_ExDistributionDeferred*>(e.record());
                EXPECT_EQ(r->retry_seconds, a.deferred != 0 ? a.deferred : 300);
            }
        }
        EXPECT_EQ(get(0, SEGMENT_DATA_PATH_KEY), "");
        // Only a started download counts as fetched.
        EXPECT_EQ(state.next_segment, a.mode == kFerryReleaseFails ? 1u : 0u);
    }
    EXPECT_EQ(journal(), "DownloadFile(p,-,-)=" + a.journal);
}

INSTANTIATE_TEST_SUITE_P(
    Modes, FerryAnswer,
    ::testing::Values(
        Answer{kFerryComplete, 0, 0, {"/h1/p"}, "0#1;ReleaseFile(1)=0;"},
        Answer{kFerrySlow, 0, 0, {"/h1/p"}, "0#1;ReleaseFile(1)=0;"},
        Answer{kFerryEarly, 0, 0, {"/h1/p"}, "0#1;ReleaseFile(1)=0;"},
        Answer{kFerryAtOnce, 0, 0, {"/h1/p"}, "16#1;ReleaseFile(1)=0;"},
        // After a bad status: nothing at the reported path, so the rebuilt one.
        Answer{kFerryBadStatus, 0, 0, {"/cache/files/1/p-1"}, "0#1;ReleaseFile(1)=0;"},
        Answer{kFerryBusy, 0, 206, {"p", "300"}, "5#1;ReleaseFile(1)=0;"},
        Answer{kFerryBusy, 60, 206, {"p", "60"}, "5#1;ReleaseFile(1)=0;"},
        Answer{kFerryFails, 0, 203, {"DownloadFile", "0", "7"}, "7#1;ReleaseFile(1)=0;"},
        Answer{kFerryReleaseFails, 0, 203, {"ReleaseFile", "1", "9"}, "0#1;ReleaseFile(1)=9;"}));

TEST_F(FerryDownload, PasswordReachesTheLibraryButNeverTheLog) {
    Properties* segment = add("p");
    properties_put_string_dup(segment, SEGMENT_FERRY_USERNAME, "ann");
    properties_put_string_dup(segment, SEGMENT_FERRY_PASSWORD, "s3cret");
    testing::internal::CaptureStderr();
    EXPECT_EQ(ferry_download_next(toc, &state, nullptr), 0);
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_NE(text.find(", " + cache + ", ann, <\?\?\?\?>, "), std::string::npos) << text;
    EXPECT_EQ(text.find("s3cret"), std::string::npos);
    EXPECT_EQ(journal(), "DownloadFile(p,ann,s3cret)=0#1;ReleaseFile(1)=0;");
}

// A download never called back ends with message 204 after 1080 rounds, or with a stop that
// comes while it is waited for; either way it stays pending and its segment counts as fetched.
std::atomic<uint32_t> g_rounds{0};
FanoutChannel* g_peer = nullptr;
uint8_t g_stop = 0;

class FerryUnanswered : public FerryDownload, public ::testing::WithParamInterface<uint8_t> {};

TEST_P(FerryUnanswered, EndsByTheLimitOrAStop) {
    attach_peer();
    g_peer = peer;
    g_stop = GetParam();
    g_rounds = 0;
    add("p");
    ferry_double_mode("p", kFerrySilent);
    ferry_set_wait_hook([](uint32_t round) {
        g_rounds = round + 1;
        if (round == 0 && g_stop != 0) fanout_peer_send_control(g_peer, g_stop);
        return 0;
    });
    void* data = nullptr;
    if (g_stop == 0) {
        EXPECT_RAISES(ferry_download_next(toc, &state, &data), 204, {"DownloadFile", "1", "10800"});
        EXPECT_EQ(g_rounds, 1080u);
    } else {
        EXPECT_EQ(ferry_download_next(toc, &state, &data), -static_cast<int32_t>(g_stop));
        ASSERT_NE(data, nullptr);
        EXPECT_EQ(*static_cast<uint8_t*>(data), g_stop);
    }
    mg_free(data);
    EXPECT_EQ(journal(), "DownloadFile(p,-,-)=0#1;");
    EXPECT_EQ(state.next_segment, 1u);
    EXPECT_EQ(state.cursor, nullptr);
}

INSTANTIATE_TEST_SUITE_P(Ends, FerryUnanswered,
                         ::testing::Values(0, FANOUT_STATUS_CANCEL, FANOUT_STATUS_PAUSE));

// The library's path when it exists; else, with two "/" or more, that path two levels up with
// "/cache/files/1/<package>-1", cut to its length + 100.
TEST_F(FerryDownload, ActualPathOfTheCachedFile) {
    const std::string here = scratch / "here", q(150, 'q');
    write_file(here, "x");
    const struct {
        const char* reported;  // null: the library has no path
        std::string package, actual;
    } cases[] = {
        {"/srv/x/y", "P", "/srv/cache/files/1/P-1"},
        {"/x/y", "P", "/cache/files/1/P-1"},
        {"/srv/x/y", q, ("/srv/cache/files/1/" + q).substr(0, 108)},
        {"/one", "P", "/one"},
        {"nowhere", "P", "nowhere"},
        {here.c_str(), "P", here},
        {nullptr, "P", "(null)"},
    };
    for (const auto& c : cases) {
        ferry_double_reset();
        if (c.reported != nullptr) ferry_double_path(7, c.reported);
        char* actual = ferry_get_actual_path(7, c.package.c_str());
        EXPECT_EQ(actual != nullptr ? actual : "(null)", c.actual);
        mg_free(actual);
    }
}

// The state's list is one block: names not yet taken move into a new one, and a cursor set
// while the list is null is adopted.
TEST_F(FerryDownload, StateListOwnsEveryName) {
    for (const char* p : {"a", "b", "c", "d", "e"}) add(p, 1);
    const auto next = [&] {
        EXPECT_EQ(ferry_download_next(toc, &state, nullptr), 0);
        EXPECT_EQ(state.cursor, state.list);
        return std::string(state.list);
    };
    const auto path = [&](int h) { return cache + "/h" + std::to_string(h) + "/" + "-abcde"[h]; };
    next();
    EXPECT_EQ(next(), path(1) + "," + path(2));
    EXPECT_EQ(get_next_file(&state), path(1));
    EXPECT_EQ(next(), path(2) + "," + path(3));
    get_next_file(&state);
    get_next_file(&state);
    EXPECT_EQ(next(), path(4));
    mg_free(state.list);
    state.list = nullptr;
    state.cursor = mg_strdup("/z");
    EXPECT_EQ(next(), "/z," + path(5));
}

// A type-11 stream fetches each package when the reader comes to it.
TEST_F(FerryDownload, Type11StreamReadsEveryPackageThroughTheCache) {
    add("big", 40000);
    add("now", NET_STREAM_BLOCK_SIZE);
    add("late", 1);
    ferry_double_mode("now", kFerryAtOnce);
    ferry_double_mode("late", kFerryEarly);
    NetStream* s = open_stream(11);
    ASSERT_NE(s, nullptr);
    s->toc = properties_list_clone(toc);
    for (const char* p : {"big", "now", "late", ""}) {
        int32_t last = -1;
        EXPECT_EQ(read_segment(s, &last), *p ? read_file(server + "/" + p) : "") << p;
        EXPECT_EQ(last, 0);
    }
    EXPECT_EQ(journal(),
              "DownloadFile(big,-,-)=0#1;ReleaseFile(1)=0;DownloadFile(now,-,-)=16#2;"
              "ReleaseFile(2)=0;DownloadFile(late,-,-)=0#3;ReleaseFile(3)=0;");
    net_stream_close(s);
}

// A size of 0 is asked of the service, which also fetches each package into its cache (the
// stream's reads still start afresh); a failed query raises 203, and a pause that arrives while
// a download is awaited raises 211.
TEST_F(FerryDownload, Type11SizesAndStops) {
    add("p1", 3000);
    properties_put_long_dup(add("p2", 10), SEGMENT_SIZE_KEY, 10);
    NetStream* s = open_stream(11);
    net_stream_get_size(s, toc);
    EXPECT_EQ(properties_get_long2(&toc->buffer[0], SEGMENT_SIZE_KEY, -1), 3000);
    EXPECT_EQ(read_file(get(0, SEGMENT_DATA_PATH_KEY)), read_file(server + "/p1"));
    EXPECT_NE(get(1, SEGMENT_DATA_PATH_KEY), "");
    EXPECT_EQ(journal().find("GetSingleFileSize(p2)"), std::string::npos);
    EXPECT_EQ(static_cast<FileList*>(s->source)->next_segment, 0u);

    properties_put_long_dup(&toc->buffer[0], SEGMENT_SIZE_KEY, 0);
    ferry_double_mode("p1", kFerryFails);
    EXPECT_RAISES(net_stream_get_size(s, toc), 203, {"GetSingleFileSize", "0", "7"});
    ferry_double_mode("p1", kFerrySilent);
    attach_peer();
    fanout_peer_send_control(peer, FANOUT_STATUS_PAUSE);
    EXPECT_RAISES(net_stream_get_size(s, toc), 211, {"p1", "PAUSE"});
    net_stream_close(s);
}

}  // namespace
