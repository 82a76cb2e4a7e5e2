// Local sources: the endpoint's depot (a receiving stream turning into a depot
// stream), directories of table-of-contents files, the remote-directory file,
// the key's directory, the CD-ROM, and an image written by fanout-depot.
#include <sched.h>
#include <sys/ipc.h>
#include <sys/mount.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "fanout/depot.h"
#include "fanout/log.h"
#include "fanout/palfile.h"
#include "stream_support.h"
#ifdef FANOUT_FERRY_DOUBLE
#include "ferry_double.h"
#endif
#include "util/expect_raise.h"

using namespace stream_test;

namespace {

// One segment description: "id^version" (version 1 when absent), its
// location, size and offset, and further string keys.
struct Seg {
    std::string name, location;
    int32_t size = 0, offset = 0;
    std::vector<std::pair<std::string, std::string>> more = {};
};

Properties describe(const std::string& name) {
    const size_t caret = name.find('^');
    Properties p{};
    properties_put_string_dup(&p, "id", name.substr(0, caret).c_str());
    properties_put_string_dup(&p, "version",
                              caret == std::string::npos ? "1" : name.c_str() + caret + 1);
    return p;
}

using TocPtr = std::unique_ptr<PropertiesList, decltype(&properties_list_delete)>;

TocPtr toc_of(const std::vector<Seg>& segs) {
    TocPtr toc(properties_list_new(), &properties_list_delete);
    for (const auto& s : segs) {
        Properties p = describe(s.name);
        properties_put_string_dup(&p, "location", s.location.c_str());
        properties_put_long_dup(&p, "size", s.size);
        properties_put_long_dup(&p, "offset", s.offset);
        for (const auto& [key, value] : s.more)
            properties_put_string_dup(&p, key.c_str(), value.c_str());
        seq_add(toc.get(), &p, sizeof p);
    }
    return toc;
}

const char* get(const PropertiesList* toc, uint32_t i, const char* key) {
    return properties_get_string2(&toc->buffer[i], key, nullptr);
}

// A table-of-contents file describing "id^version", as an image holds it.
void write_toc_file(const std::string& path, const std::string& name, bool improved = false) {
    Properties seg = describe(name), top{};
    properties_put_properties_dup(&top, "segment", &seg);
    improved ? properties_save_improved(&top, path.c_str())
             : properties_save_without_len(&top, path.c_str());
    kel_free_generic(&seg, TC_Kel_Fanout2_Properties);
    kel_free_generic(&top, TC_Kel_Fanout2_Properties);
}

struct StreamClose {
    void operator()(NetStream* s) const { net_stream_close(s); }
};
using StreamPtr = std::unique_ptr<NetStream, StreamClose>;

StreamPtr open_stream(uint8_t type, uint8_t mobile = 0, const std::string& text = "") {
    StreamKey* key = make_key(type, mobile, text);
    StreamPtr s(net_stream_open(key));
    stream_key_delete(key);
    return s;
}

// Reads `segments` files through the stream, one 0 result ending each.
std::string read_segments(NetStream* s, uint32_t segments) {
    std::string out;
    for (uint32_t k = 0; k < segments; ++k) {
        void* data = nullptr;
        int32_t n;
        while ((n = net_stream_read(s, &data)) > 0) {
            out.append(static_cast<const char*>(data), static_cast<size_t>(n));
            net_stream_free_buffer(s, data);
        }
        EXPECT_EQ(n, 0);
    }
    return out;
}

std::string file_list(const NetStream* s) {
    const auto* list = static_cast<const FileList*>(s->source);
    return list != nullptr && list->list != nullptr ? list->list : "<none>";
}

// Every test runs in its own work directory, which is also the current
// directory where the depot's lock files go; their semaphore sets are
// removed at the end, with those of a depot directory the tool worked in.
class Search : public ::testing::Test {
  protected:
    void SetUp() override {
        fanout_init();
        ASSERT_NE(getcwd(cwd_, sizeof cwd_), nullptr);
        ASSERT_EQ(chdir(work_.path().c_str()), 0);
        fanout_log_set_level(2);
        fanout_log_set_handler([](int32_t, const char* line,
                                  void* self) { static_cast<Search*>(self)->log_.push_back(line); },
                               this);
    }
    void TearDown() override {
        fanout_log_set_handler(nullptr, nullptr);
        fanout_log_set_level(1);
        for (const std::string& dir : {work_.path(), depot_}) {
            for (const char* lk : {"depot.lk", "entry.lk", "enum.lk"}) {
                const std::string path = dir + "/" + lk;
                if (access(path.c_str(), F_OK) != 0) continue;
                const int id = semget(ftok(path.c_str(), 1), 0, 0);
                if (id >= 0) semctl(id, 0, IPC_RMID);
            }
        }
        ASSERT_EQ(chdir(cwd_), 0);
    }

    bool logged(const std::string& line) const {
        return std::find(log_.begin(), log_.end(), line) != log_.end();
    }

    // Stores complete entries with `data` and `refs` references each.
    void fill_depot(const std::vector<std::pair<std::string, std::string>>& segments,
                    int refs = 2) {
        std::filesystem::create_directories(depot_);
        DepotHandle* h = nullptr;
        ASSERT_EQ(DepotNew(&h, depot_.c_str(), 0).palError, PAL_OK);
        for (const auto& [id, data] : segments) {
            for (int r = 0; r < refs; ++r) {
                DepotEntry* e = DepotAddEntry(h, id.c_str(), "1", nullptr, 0);
                ASSERT_NE(e, nullptr);
                PalFileHandle f{};
                ASSERT_EQ(DepotFileOpenForWrite(h, e, &f, PAL_TRUE).palError, PAL_OK);
                PalUint32 n = 0;
                PalFileWrite(f, data.data(), static_cast<PalUint32>(data.size()), &n);
                PalFileClose(f);
                ASSERT_EQ(DepotCompleteEntry(h, e, 0).palError, PAL_OK);
            }
        }
        DepotFree(h);
    }

    // The entry's state as a fresh look-up sees it (-1 when there is none),
    // and its data file.
    int state_of(const char* id) { return look_up(id).first; }
    std::string data_file_of(const char* id) { return look_up(id).second; }
    std::pair<int, std::string> look_up(const char* id) {
        DepotHandle* h = nullptr;
        DepotNew(&h, depot_.c_str(), 0);
        DepotEntry* e = DepotGetEntry(h, id, "1");
        std::pair<int, std::string> found{-1, ""};
        if (e != nullptr) found = {e->state, e->location};
        DepotFree(h);
        return found;
    }

    // A configuration file holding `text`, or none for null. The previous
    // override is undone first, so that the new one is what remains.
    void configure(const char* text) {
        config_.reset();
        if (text != nullptr) write_file(work_ / "fanout.cfg", text);
        config_ = std::make_unique<EnvOverride>(
            "FANOUT_CONFIG", text != nullptr ? (work_ / "fanout.cfg").c_str() : nullptr);
    }

    WorkDir work_;
    std::string depot_ = work_ / "depot";
    EnvOverride datdir_{"ZEL_DATDIR", work_.path().c_str()};
    std::unique_ptr<EnvOverride> config_ = std::make_unique<EnvOverride>("FANOUT_CONFIG", nullptr);
    std::vector<std::string> log_;
    char cwd_[PATH_MAX] = {};
};

// A receiving stream whose segments are all complete in the depot reads the
// depot's data files, holding the entries in use until it closes.
TEST_F(Search, DepotWithEverySegmentBecomesDepotStream) {
    configure(("depot_dir = " + depot_ + "\n").c_str());
    StreamPtr s = open_stream(2);
    EXPECT_RAISES(net_stream_save_modified_toc(s.get(), nullptr), 31, {});
    const std::string a = pattern(20000, 1), b = pattern(300, 2);
    fill_depot({{"a", a}, {"b", b}});
    TocPtr toc = toc_of({{"a", "/src/a"}, {"b", "/src/b"}});
    net_stream_save_modified_toc(s.get(), toc.get());
    ASSERT_EQ(s->type, NET_STREAM_DEPOT);
    EXPECT_TRUE(logged("fanout: All segments available locally, resetting stream type."));
    EXPECT_EQ(s->depot_entries.length, 2u);
    EXPECT_EQ(state_of("a"), DEPOT_STATE_IN_USE);
    EXPECT_EQ(state_of("b"), DEPOT_STATE_IN_USE);
    EXPECT_EQ(file_list(s.get()),
              std::string(get(s->toc, 0, "dat_file")) + "," + get(s->toc, 1, "dat_file"));
    EXPECT_EQ(properties_get_long(&s->toc->buffer[1], "size"), 300);
    EXPECT_EQ(get(toc.get(), 0, "dat_file"), nullptr) << "the caller's list is not rewritten";
    EXPECT_EQ(read_segments(s.get(), 2), a + b);
    s.reset();
    EXPECT_EQ(state_of("a"), DEPOT_STATE_COMPLETE);
    EXPECT_EQ(state_of("b"), DEPOT_STATE_COMPLETE);
}

// The first segment without a complete entry ends the search, and a data
// file gone from the depot leaves its segment missing; what was held by then
// is given back at close.
TEST_F(Search, DepotWithSegmentsMissing) {
    configure(("depot_dir=" + depot_ + "\n").c_str());
    struct Case {
        std::vector<std::string> stored, held;
        std::string lost, line;
    } cases[] = {
        {{"b"}, {}, "", "fanout: Unable to find entry for segment a^1."},
        {{"a"}, {"a"}, "", "fanout: Unable to find entry for segment b^1."},
        {{"a", "b"}, {"a", "b"}, "a", "fanout: Stat of "},
    };
    for (const auto& c : cases) {
        for (const auto& id : c.stored) fill_depot({{id, "x"}});
        std::string lost_path;
        if (!c.lost.empty()) {
            lost_path = data_file_of(c.lost.c_str());
            std::filesystem::remove(lost_path);
        }
        TocPtr toc = toc_of({{"a", "/a"}, {"b", "/b"}});
        StreamPtr s = open_stream(2);
        net_stream_save_modified_toc(s.get(), toc.get());
        EXPECT_EQ(s->type, NET_STREAM_RECV) << c.line;
        EXPECT_EQ(s->source, nullptr);
        EXPECT_TRUE(logged(c.lost.empty() ? c.line : c.line + lost_path + " failed.")) << c.line;
        for (const auto& id : c.stored) {
            const bool held = std::count(c.held.begin(), c.held.end(), id) != 0;
            EXPECT_EQ(state_of(id.c_str()), held ? DEPOT_STATE_IN_USE : DEPOT_STATE_COMPLETE);
        }
        s.reset();
        for (const auto& id : c.stored) {
            EXPECT_EQ(state_of(id.c_str()), DEPOT_STATE_COMPLETE) << id << " released at close";
        }
        std::filesystem::remove_all(depot_);
    }
}

TEST_F(Search, DepotDirectoryFromConfigurationOrDatDir) {
    fill_depot({{"a", "data"}});
    TocPtr toc = toc_of({{"a", "/a"}});
    struct Case {
        const char* config;  // null: no configuration file
        const char* datdir;
        uint32_t type;
        const char* line;
    } cases[] = {
        {nullptr, "", NET_STREAM_RECV, "fanout: Unable to locate ZEL config file."},
        {"other=1\n", nullptr, NET_STREAM_RECV, "fanout: Local depot directory is not configured."},
        {"other=1\n", "", NET_STREAM_DEPOT, nullptr},  // ZEL_DATDIR/depot
    };
    for (const auto& c : cases) {
        log_.clear();
        configure(c.config);
        EnvOverride datdir("ZEL_DATDIR", c.datdir != nullptr ? work_.path().c_str() : nullptr);
        StreamPtr s = open_stream(2);
        net_stream_save_modified_toc(s.get(), toc.get());
        EXPECT_EQ(s->type, c.type);
        if (c.line != nullptr) {
            EXPECT_TRUE(logged(c.line)) << c.line;
        }
    }
}

// A directory is searched with or without its trailing separator; a version
// that differs and a file that does not decode are passed over.
TEST_F(Search, DirectoryOfTocAndItcFiles) {
    const std::string dir = work_ / "image";
    std::filesystem::create_directory(dir);
    write_toc_file(dir + "/a.toc", "a");
    write_toc_file(dir + "/b.itc", "b", true);
    write_toc_file(dir + "/c.toc", "c^1");
    write_file(dir + "/bad.toc", "\x7f not a property list");
    for (const char* name : {"a.dat", "b.dat", "c.dat"}) write_file(dir + "/" + name, "12345");
    for (const std::string& given : {dir, dir + "/", dir + "\\"}) {
        TocPtr toc = toc_of({{"a", "/far/a.dat"}, {"b", "b.dat"}, {"c^2", "c.dat"}});
        std::vector<uint8_t> found(3);
        TocSearch search{toc_from_properties(toc.get()), found.data(), 0};
        Kel_Types_StringList files{};
        EXPECT_EQ(net_stream_search_endpoint_depot(&search, given.c_str(), &files), 0);
        EXPECT_EQ(search.found_count, 2u) << given;
        EXPECT_EQ(found, (std::vector<uint8_t>{1, 1, 0}));
        EXPECT_STREQ(get(toc.get(), 0, "data_path"), (dir + "/a.dat").c_str());
        EXPECT_STREQ(get(toc.get(), 1, "dat_file"), (dir + "/b.dat").c_str());
        EXPECT_EQ(search.toc->segments[1]->size, 5);
        EXPECT_EQ(get(toc.get(), 2, "data_path"), nullptr);
        ASSERT_EQ(files.length, 2u);
        for (uint32_t i = 0; i < files.length; ++i) mg_free(files.buffer[i]);
        seq_free_buffer(&files);
        toc_free_buffer(search.toc);
        mg_free(search.toc);
    }
    EXPECT_TRUE(std::any_of(log_.begin(), log_.end(), [&](const std::string& l) {
        return l.rfind("fanout: Skipping table of contents " + dir + "/bad.toc", 0) == 0;
    }));
}

// Types 7 and 8: named files first, then the remote-directory file.
TEST_F(Search, RemoteDirectoryFile) {
    const std::string dir = work_ / "remote";
    std::filesystem::create_directory(dir);
    write_toc_file(dir + "/b.toc", "b");
    write_file(dir + "/b.dat", "bb");
    write_file(work_ / "a.dat", "a");
    const std::string remote = work_ / "remote.dir";
    struct Case {
        uint8_t type;
        const char* remote_dir;  // null: no remote.dir
        bool b_named;
        int raised;
    } cases[] = {
        {7, "# directories\n\n/nowhere\n", false, 182},
        {7, "# directories\n/nowhere\n%s\n", false, 0},
        {8, nullptr, true, 0},  // nothing left to look for: the file is not needed
        {8, nullptr, false, 170},
    };
    for (const auto& c : cases) {
        std::filesystem::remove(remote);
        if (c.remote_dir != nullptr) {
            char text[512];
            std::snprintf(text, sizeof text, c.remote_dir, dir.c_str());
            write_file(remote, text);
        }
        TocPtr toc =
            toc_of({{"a", "a.dat", 0, 0, {{"dat_file", work_ / "a.dat"}}}, {"b", "b.dat"}});
        if (c.b_named)
            properties_put_string_dup(&toc->buffer[1], "dat_file", (dir + "/b.dat").c_str());
        StreamPtr s = open_stream(c.type);
        if (c.raised == 170) {
            EXPECT_RAISES(net_stream_save_modified_toc(s.get(), toc.get()), 170, {remote});
        } else if (c.raised == 182) {
            EXPECT_RAISES(net_stream_save_modified_toc(s.get(), toc.get()), 182, {"b", "1"});
        } else {
            net_stream_save_modified_toc(s.get(), toc.get());
            EXPECT_EQ(file_list(s.get()), work_ / "a.dat," + dir + "/b.dat") << int(c.type);
            EXPECT_STREQ(get(s->toc, 0, "data_path"), (work_ / "a.dat").c_str());
        }
    }
}

// Type 9 searches the key's directory; an already complete table of contents
// records its totals in the progress file at once. The sizes can be learnt
// beforehand.
TEST_F(Search, KeyDirectoryWithProgressAndSizes) {
    const std::string dir = work_ / "key";
    std::filesystem::create_directory(dir);
    write_toc_file(dir + "/s.toc", "s");
    const std::string data = pattern(40000, 3);
    write_file(dir + "/s.dat", data);
    const std::string progress = work_ / "mstat/D9.mds";

    StreamPtr s = open_stream(9, 1, "D9," + dir);
    TocPtr sized = toc_of({{"s", "/x/s.dat"}});
    net_stream_get_size(s.get(), sized.get());
    EXPECT_EQ(properties_get_long(&sized->buffer[0], "size"), 40000);

    TocPtr partial = toc_of({{"s", "/x/s.dat", 40000, 100}});
    net_stream_save_modified_toc(s.get(), partial.get());
    EXPECT_FALSE(std::filesystem::exists(progress)) << "not complete: left to the reads";
    EXPECT_EQ(read_segments(s.get(), 1), data.substr(100));

    TocPtr complete = toc_of({{"s", "/x/s.dat", 40000, 40000}});
    net_stream_save_modified_toc(s.get(), complete.get());
    auto p = load_progress(progress);
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p->str("t_len"), "40000\n");
    EXPECT_STREQ(p->str("c_len"), "40000\n");

    // A data file gone between the search and the read fails the read, no more.
    net_stream_save_modified_toc(s.get(), partial.get());
    std::filesystem::remove(dir + "/s.dat");
    void* block = nullptr;
    EXPECT_RAISES(net_stream_read(s.get(), &block), 11, {dir + "/s.dat"});
}

#ifdef FANOUT_DEPOT_TOOL
int run_tool(const std::vector<std::string>& args) {
    pid_t pid = fork();
    if (pid == 0) {
        std::vector<char*> argv{const_cast<char*>("fanout-depot")};
        for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
        argv.push_back(nullptr);
        execv(FANOUT_DEPOT_TOOL, argv.data());
        _exit(127);
    }
    return reap(pid);
}

// The depot tool stores a segment and writes its image; a receiving stream
// reads it from the depot and a key-directory stream from the image, both
// byte for byte.
TEST_F(Search, DepotToolImageAndEntryAreReadBack) {
    const std::string source = work_ / "payload.bin", image = work_ / "image";
    const std::string data = pattern(70000, 9);
    write_file(source, data);
    ASSERT_EQ(run_tool({depot_, "add", "pay^7", source}), 0);
    ASSERT_EQ(run_tool({depot_, "image", "pay^7", source, image}), 0);
    TocPtr toc = toc_of({{"pay^7", source}});

    StreamPtr key_dir = open_stream(9, 1, "P," + image);
    net_stream_save_modified_toc(key_dir.get(), toc.get());
    EXPECT_STREQ(get(key_dir->toc, 0, "data_path"), (image + "/payload.bin").c_str());
    EXPECT_EQ(read_segments(key_dir.get(), 1), data);

    configure(("depot_dir=" + depot_ + "\n").c_str());
    StreamPtr received = open_stream(2);
    net_stream_save_modified_toc(received.get(), toc.get());
    ASSERT_EQ(received->type, NET_STREAM_DEPOT);
    EXPECT_EQ(read_segments(received.get(), 1), data);
}
#endif

#ifdef FANOUT_FERRY_DOUBLE
// Type 11: the sizes come from the delivery service, which also fetches each
// package into its cache; a failed size query raises 203, and a pause that
// arrives while a download is awaited raises 211.
TEST_F(Search, DeliveryServiceSizesAndStops) {
    const std::string server = work_ / "server", cache = work_ / "cache";
    std::filesystem::create_directories(server);
    std::filesystem::create_directories(cache);
    write_file(server + "/p1", pattern(3000, 4));
    write_file(server + "/p2", "0123456789");
    auto toc_for = [&](const std::vector<std::pair<std::string, int32_t>>& packages) {
        std::vector<Seg> segs;
        for (const auto& [p, size] : packages) {
            segs.push_back({p,
                            "",
                            size,
                            0,
                            {{"ferry_manager", server},
                             {"ferry_packageid", p},
                             {"ferry_destination", cache}}});
        }
        return toc_of(segs);
    };
    ferry_double_reset();
    StreamPtr s = open_stream(11);
    ASSERT_NE(s, nullptr);
    TocPtr toc = toc_for({{"p1", 0}, {"p2", 10}});
    net_stream_get_size(s.get(), toc.get());
    EXPECT_EQ(properties_get_long(&toc->buffer[0], "size"), 3000);
    ASSERT_NE(get(toc.get(), 1, "data_path"), nullptr);
    EXPECT_EQ(read_file(get(toc.get(), 0, "data_path")), pattern(3000, 4));
    char journal[1024];
    ferry_double_journal(journal, sizeof journal);
    EXPECT_EQ(std::string(journal).find("GetSingleFileSize(p2)"), std::string::npos);
    EXPECT_EQ(static_cast<FileList*>(s->source)->next_segment, 0u) << "reads start afresh";

    ferry_double_mode("p1", kFerryFails);
    TocPtr failing = toc_for({{"p1", 0}});
    EXPECT_RAISES(net_stream_get_size(s.get(), failing.get()), 203,
                  {"GetSingleFileSize", "0", "7"});

    ferry_double_mode("p2", kFerrySilent);
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    fanout_ipc_attach(sv[0], 0);
    FanoutChannel* peer = fanout_channel_attach(sv[1], 0, "peer");
    fanout_peer_send_control(peer, FANOUT_STATUS_PAUSE);
    TocPtr paused = toc_for({{"p2", 10}});
    EXPECT_RAISES(net_stream_get_size(s.get(), paused.get()), 211, {"p2", "PAUSE"});
    fanout_ipc_set(nullptr);
    fanout_channel_close(peer);
    ferry_double_reset();
}
#endif

// "/cdrom" is a fixed path: the search runs in a child that sees a scratch
// directory there, through a private bind mount or a scratch root.
TEST_F(Search, CdromInPrivateView) {
    const std::string root = work_ / "root", cd = root + "/cdrom";
    std::filesystem::create_directories(cd);
    write_toc_file(cd + "/s.toc", "s");
    write_file(cd + "/s.dat", "on the disc");
    constexpr int kNotPermitted = 77;
    pid_t pid = fork();
    if (pid == 0) {
        int code = 1;
        try {
            struct stat st;
            if (::stat("/cdrom", &st) == 0) {
                if (unshare(CLONE_NEWNS) != 0 ||
                    mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
                    mount(cd.c_str(), "/cdrom", nullptr, MS_BIND, nullptr) != 0)
                    _exit(kNotPermitted);
            } else if (chroot(root.c_str()) != 0 || chdir("/") != 0) {
                _exit(kNotPermitted);
            }
            TocPtr toc = toc_of({{"s", "/made/s.dat"}});
            StreamPtr s = open_stream(6);
            net_stream_save_modified_toc(s.get(), toc.get());
            code = file_list(s.get()) == "/cdrom/s.dat" ? 0 : 1;
        } catch (...) {
            code = 2;
        }
        _exit(code);
    }
    const int status = reap(pid);
    if (status == kNotPermitted) GTEST_SKIP() << "needs root to bind or chroot onto /cdrom";
    EXPECT_EQ(status, 0);
}

}  // namespace
