// Local sources: the endpoint's depot (a receiving stream turning into a depot stream),
// directories of table-of-contents files named by the key or by the remote-directory file, the
// CD-ROM, and an image written by fanout-depot.
#include <sched.h>
#include <sys/sem.h>
#include <sys/socket.h>

#include <algorithm>
#include <climits>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "fanout/depot.h"
#include "fanout/palfile.h"
#include "stream_support.h"
#include "util/expect_raise.h"

using namespace stream_test;

namespace {

using TocPtr = std::unique_ptr<PropertiesList, decltype(&properties_list_delete)>;
TocPtr toc_of(const std::vector<SegmentSpec>& segs) {
    return TocPtr(make_toc(segs, "location"), &properties_list_delete);
}
const char* get(const PropertiesList* toc, uint32_t i, const char* key) {
    return properties_get_string2(&toc->buffer[i], key, nullptr);
}

// A table-of-contents file describing segment `name`, as an image holds it.
void write_toc_file(const std::string& path, const std::string& name, bool improved = false) {
    Properties top{};
    properties_put_properties_dup(&top, "segment", &toc_of({{name, ""}})->buffer[0]);
    improved ? properties_save_improved(&top, path.c_str())
             : properties_save_without_len(&top, path.c_str());
    kel_free_generic(&top, TC_Kel_Fanout2_Properties);
}

using StreamPtr = std::unique_ptr<NetStream, decltype(&net_stream_close)>;

// A stream of `type`; mobile, with the key text `mobile_text`, when that is given.
StreamPtr stream(uint8_t type, const std::string& mobile_text = "") {
    return StreamPtr(open_stream(type, !mobile_text.empty(), mobile_text), &net_stream_close);
}
std::string file_list(const NetStream* s) {
    const auto* list = static_cast<const FileList*>(s->source);
    return list != nullptr && list->list != nullptr ? list->list : "<none>";
}

// Each test runs in its own work directory, also the current directory where the depot's lock
// files go; their semaphore sets are removed at the end.
class Search : public ::testing::Test {
  protected:
    void SetUp() override {
        fanout_init();
        ASSERT_NE(getcwd(cwd_, sizeof cwd_), nullptr);
        ASSERT_EQ(chdir(work_.path().c_str()), 0);
    }
    void TearDown() override {
        for (const std::string& dir : {std::string("."), depot_})
            for (const char* name : {"/depot.lk", "/entry.lk", "/enum.lk"}) {
                const std::string lk = dir + name;
                if (access(lk.c_str(), F_OK) == 0)
                    semctl(semget(ftok(lk.c_str(), 1), 0, 0), 0, IPC_RMID);
            }
        ASSERT_EQ(chdir(cwd_), 0);
    }
    // Stores a complete entry "id^1" holding `data`, with two references.
    void store(const std::string& id, const std::string& data) {
        std::filesystem::create_directories(depot_);
        DepotHandle* h = nullptr;
        ASSERT_EQ(DepotNew(&h, depot_.c_str(), 0).palError, PAL_OK);
        for (int r = 0; r < 2; ++r) {
            DepotEntry* e = DepotAddEntry(h, id.c_str(), "1", nullptr, 0);
            ASSERT_NE(e, nullptr);
            PalFileHandle f{};
            PalUint32 n = 0;
            ASSERT_EQ(DepotFileOpenForWrite(h, e, &f, PAL_TRUE).palError, PAL_OK);
            PalFileWrite(f, data.data(), static_cast<PalUint32>(data.size()), &n);
            PalFileClose(f);
            ASSERT_EQ(DepotCompleteEntry(h, e, 0).palError, PAL_OK);
        }
        DepotFree(h);
    }
    // The state of "id^1" as a fresh look-up sees it (-1: none) and its data file.
    std::pair<int, std::string> look_up(const std::string& id) {
        DepotHandle* h = nullptr;
        DepotNew(&h, depot_.c_str(), 0);
        DepotEntry* e = DepotGetEntry(h, id.c_str(), "1");
        std::pair<int, std::string> found{-1, ""};
        if (e != nullptr) found = {e->state, e->location};
        DepotFree(h);
        return found;
    }

    WorkDir work_;
    std::string depot_ = work_ / "depot";
    EnvOverride datdir_{"ZEL_DATDIR", work_.path().c_str()};
    char cwd_[PATH_MAX] = {};
};

// A receiving stream looks in the depot of "depot_dir", else of ZEL_DATDIR's "depot", and in none
// without a configuration file. With every segment complete there it reads the depot's data
// files, holding the entries in use until it closes; the first segment without a complete entry
// ends the search, and a data file gone leaves its segment missing: the stream stays on the
// network and gives back what it held at close.
TEST_F(Search, EndpointDepot) {
    const std::string dir_line = "depot_dir = " + depot_ + "\n", config = work_ / "fanout.cfg";
    struct Case {
        const char* config;  // null: no configuration file
        bool datdir;
        std::vector<std::string> stored, held;
        bool lost;  // a's data file removed
    } cases[] = {
        {dir_line.c_str(), false, {"a", "b"}, {"a", "b"}, false},
        {"other=1\n", true, {"a", "b"}, {"a", "b"}, false},
        {"other=1\n", false, {"a", "b"}, {}, false},
        {nullptr, true, {"a", "b"}, {}, false},
        {dir_line.c_str(), false, {"b"}, {}, false},
        {dir_line.c_str(), false, {"a"}, {"a"}, false},
        {dir_line.c_str(), false, {"a", "b"}, {"a", "b"}, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        for (const auto& id : c.stored) store(id, pattern(id == "a" ? 20000 : 300, id[0]));
        if (c.lost) std::filesystem::remove(look_up("a").second);
        if (c.config != nullptr) write_file(config, c.config);
        const EnvOverride cfg("FANOUT_CONFIG", c.config != nullptr ? config.c_str() : nullptr);
        const EnvOverride datdir("ZEL_DATDIR", c.datdir ? work_.path().c_str() : nullptr);
        StreamPtr s = stream(2);
        EXPECT_RAISES(net_stream_save_modified_toc(s.get(), nullptr), 31, {});
        TocPtr toc = toc_of({{"a", "/src/a"}, {"b", "/src/b"}});
        net_stream_save_modified_toc(s.get(), toc.get());
        const bool local = c.held.size() == 2 && !c.lost;
        EXPECT_EQ(s->type, local ? NET_STREAM_DEPOT : NET_STREAM_RECV);
        for (const auto& id : c.stored) {
            const bool held = std::count(c.held.begin(), c.held.end(), id) != 0;
            EXPECT_EQ(look_up(id).first, held ? DEPOT_STATE_IN_USE : DEPOT_STATE_COMPLETE) << id;
        }
        if (local) {
            EXPECT_EQ(file_list(s.get()), look_up("a").second + "," + look_up("b").second);
            EXPECT_EQ(properties_get_long(&s->toc->buffer[1], "size"), 300);
            EXPECT_EQ(get(toc.get(), 0, "dat_file"), nullptr) << "the caller's list is kept";
            EXPECT_EQ(read_segment(s.get()), pattern(20000, 'a'));
            EXPECT_EQ(read_segment(s.get()), pattern(300, 'b'));
        } else {
            EXPECT_EQ(s->source, nullptr);
        }
        s.reset();
        for (const auto& id : c.stored) EXPECT_EQ(look_up(id).first, DEPOT_STATE_COMPLETE) << id;
        std::filesystem::remove_all(depot_);
    }
}

// Directories are searched through their "*.toc" and "*.itc" files, named with or without a
// trailing separator, passing over a version that differs and a file that does not decode: the
// key's directory (type 9) and, after the named files, those listed in remote.dir (types 7, 8),
// needed only while a segment is missing.
TEST_F(Search, DirectorySources) {
    const std::string dir = work_ / "image", remote = work_ / "remote.dir";
    std::filesystem::create_directory(dir);
    write_toc_file(dir + "/a.toc", "a");
    write_toc_file(dir + "/b.itc", "b", true);
    write_toc_file(dir + "/c.toc", "c^1");
    write_file(dir + "/bad.toc", "\x7f not a property list");
    for (const char* name : {"/a.dat", "/b.dat", "/c.dat"}) write_file(dir + name, "12345");
    struct Case {
        uint8_t type;
        std::string key, remote_dir;  // remote_dir empty: no remote.dir
        uint32_t named;               // how many segments carry "dat_file"
        bool other_version;           // "c^2" wanted too
        int raised;
        std::vector<std::string> args;
    } cases[] = {
        {9, "K," + dir, "", 0, false, 0, {}},
        {9, "K," + dir + "/", "", 0, false, 0, {}},
        {9, "K," + dir + "\\", "", 0, false, 0, {}},
        {9, "K," + dir, "", 0, true, 182, {"c", "2"}},
        {7, "", "# directories\n\n/nowhere\n", 1, false, 182, {"b", "1"}},
        {7, "", "# directories\n/nowhere\n" + dir + "\n", 1, false, 0, {}},
        {8, "", "", 2, false, 0, {}},
        {8, "", "", 1, false, 170, {remote}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        std::filesystem::remove(remote);
        if (!c.remote_dir.empty()) write_file(remote, c.remote_dir);
        std::vector<SegmentSpec> segs{{"a", "/far/a.dat"}, {"b", "b.dat"}};
        if (c.other_version) segs.push_back({"c^2", "c.dat"});
        TocPtr toc = toc_of(segs);
        for (uint32_t i = 0; i < c.named; ++i)
            properties_put_string_dup(&toc->buffer[i], "dat_file",
                                      (dir + "/" + "ab"[i] + ".dat").c_str());
        StreamPtr s = stream(c.type, c.key);
        if (c.raised != 0) {
            EXPECT_RAISES(net_stream_save_modified_toc(s.get(), toc.get()), c.raised, {c.args});
            continue;
        }
        net_stream_save_modified_toc(s.get(), toc.get());
        EXPECT_EQ(file_list(s.get()), dir + "/a.dat," + dir + "/b.dat");
        EXPECT_STREQ(get(s->toc, 0, "data_path"), (dir + "/a.dat").c_str());
        EXPECT_EQ(properties_get_long(&s->toc->buffer[1], "size"), c.named < 2 ? 5 : 0);
    }
}

#ifdef FANOUT_DEPOT_TOOL
// The depot tool stores a segment and writes its image; a key-directory stream learns its size,
// reads it from an offset, and records the totals of a table of contents already complete in its
// progress file at once. A data file gone between the search and the read fails the read.
TEST_F(Search, DepotToolImageReadThroughKeyDirectory) {
    const std::string source = work_ / "payload.bin", image = work_ / "image";
    const std::string data = pattern(70000, 9), progress = work_ / "mstat/D9.mds";
    write_file(source, data);
    const std::string tool = std::string(FANOUT_DEPOT_TOOL) + " " + depot_;
    ASSERT_EQ(std::system((tool + " add 'pay^7' " + source).c_str()), 0);
    ASSERT_EQ(std::system((tool + " image 'pay^7' " + source + " " + image).c_str()), 0);
    StreamPtr s = stream(9, "D9," + image);
    TocPtr sized = toc_of({{"pay^7", source}});
    net_stream_get_size(s.get(), sized.get());
    EXPECT_EQ(properties_get_long(&sized->buffer[0], "size"), 70000);

    TocPtr partial = toc_of({{"pay^7", source, 70000, 100}});
    net_stream_save_modified_toc(s.get(), partial.get());
    EXPECT_STREQ(get(s->toc, 0, "data_path"), (image + "/payload.bin").c_str());
    EXPECT_FALSE(std::filesystem::exists(progress)) << "left to the reads";
    EXPECT_EQ(read_segment(s.get()), data.substr(100));
    net_stream_save_modified_toc(s.get(), toc_of({{"pay^7", source, 70000, 70000}}).get());
    auto p = load_progress(progress);
    ASSERT_NE(p, nullptr);
    EXPECT_STREQ(p->str("t_len"), "70000\n");
    EXPECT_STREQ(p->str("c_len"), "70000\n");

    net_stream_save_modified_toc(s.get(), partial.get());
    std::filesystem::remove(image + "/payload.bin");
    void* block = nullptr;
    EXPECT_RAISES(net_stream_read(s.get(), &block), 11, {image + "/payload.bin"});
}
#endif

// "/cdrom" is a fixed path: a type-6 stream searches it in a child whose root is a scratch
// directory (inside a user namespace when not privileged).
TEST_F(Search, CdromInPrivateView) {
    const std::string root = work_ / "root";
    std::filesystem::create_directories(root + "/cdrom");
    write_toc_file(root + "/cdrom/s.toc", "s");
    write_file(root + "/cdrom/s.dat", "on the disc");
    const int status = reap(spawn([&] {
        if (chroot(root.c_str()) != 0 && (unshare(CLONE_NEWUSER) != 0 || chroot(root.c_str()) != 0))
            _exit(77);
        StreamPtr s = stream(6);
        net_stream_save_modified_toc(s.get(), toc_of({{"s", "/made/s.dat"}}).get());
        return file_list(s.get()) == "/cdrom/s.dat";
    }));
    if (status == 77) GTEST_SKIP() << "changing the root directory is not permitted here";
    EXPECT_EQ(status, 0);
}

}  // namespace
