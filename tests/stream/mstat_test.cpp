// Progress status files and the byte counts of a mobile endpoint.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "fanout/log.h"
#include "fanout/pathname.h"
#include "stream_support.h"

using namespace stream_test;

namespace {

struct MStatDeleter {
    void operator()(MStat* m) const { mstat_free(m); }
};
using MStatPtr = std::unique_ptr<MStat, MStatDeleter>;

TEST(MStat, SaveWritesNamedFileWithMsidAndDoneRenamesIt) {
    WorkDir work;
    MStatPtr m(mstat_new("D1", 1));
    ASSERT_TRUE(m);
    const std::string running = work / "mstat/D1.ads";
    EXPECT_FALSE(fs::exists(running)) << "no file before the first save";
    properties_put_string_dup(m->properties, "t_len", "42");
    ASSERT_EQ(mstat_save(m.get()), 0);
    auto p = load_progress(running);
    ASSERT_TRUE(p);
    EXPECT_STREQ(p->str("msid"), "D1");
    EXPECT_STREQ(p->str("t_len"), "42");

    // A string "msid" already there, wherever it stands, is kept as it is.
    MStatPtr named(mstat_new("D2", 1));
    ASSERT_TRUE(named);
    properties_put_string_dup(named->properties, "msid", "given");
    ASSERT_EQ(mstat_save(named.get()), 0);
    EXPECT_STREQ(load_progress(work / "mstat/D2.ads")->str("msid"), "given");

    mstat_done(m.get());
    EXPECT_FALSE(fs::exists(running));
    EXPECT_TRUE(fs::exists(work / "mstat/D1.adf"));
    EXPECT_STREQ(m->suffix, "adf");
    properties_put_string_dup(m->properties, "c_len", "42");
    ASSERT_EQ(mstat_save(m.get()), 0);
    EXPECT_STREQ(load_progress(work / "mstat/D1.adf")->str("c_len"), "42");

    // A fresh record reads the finished file back.
    MStatPtr again(mstat_new("D1", 0));
    std::strcpy(again->suffix, "adf");
    EXPECT_EQ(mstat_load(again.get()), 0);
    EXPECT_STREQ(properties_get_string2(again->properties, "c_len", nullptr), "42");
}

TEST(MStat, WithoutWorkDirUsesTemporaryDirectoryCreatedGroupWritable) {
    ScratchDir tmp;
    EnvOverride no_work("FANOUT_WORK_DIR", nullptr);
    EnvOverride tmpdir("TMPDIR", tmp.path().c_str());
    mode_t old = umask(0);
    MStatPtr m(mstat_new("D2", 0));
    umask(old);
    struct stat st {};
    ASSERT_EQ(stat((tmp / "mstat").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0775u);
    ASSERT_EQ(mstat_save(m.get()), 0);
    EXPECT_TRUE(fs::exists(tmp / "mstat/D2.mds"));
}

TEST(MStat, UnanchoredSuffixSearchKeepsNameWhenPathHoldsItEarlier) {
    WorkDir work;
    fs::create_directories(work / "mds/mstat");
    EnvOverride env("FANOUT_WORK_DIR", (work / "mds").c_str());
    MStatPtr m(mstat_new("D3", 0));
    ASSERT_EQ(mstat_save(m.get()), 0);
    mstat_done(m.get());
    EXPECT_TRUE(fs::exists(work / "mds/mstat/D3.mds"));
    EXPECT_FALSE(fs::exists(work / "mds/mstat/D3.mdf"));
}

TEST(MStat, NamesThatDoNotFitAndTheStub) {
    WorkDir work;
    std::string long_id(2000, 'x');
    EXPECT_EQ(find_dist_fname(work.path().c_str(), long_id.c_str(), "ads"), nullptr);
    MStatPtr m(mstat_new(long_id.c_str(), 1));
    ASSERT_TRUE(m);
    EXPECT_EQ(mstat_save(m.get()), -1);
    EXPECT_EQ(mstat_load(m.get()), -1);
    EXPECT_EQ(distid_get_next_filename(), nullptr);
    char* name = find_dist_fname("/w/mstat", "a b", "mds");
    EXPECT_STREQ(name, "/w/mstat/a b.mds");
    pathname_delete(name);
}

// A mobile stream opened over a type-9 key, with a table of contents whose
// segments sum to `total`, driven through mobile_ep_update_progress.
struct MobileStream {
    WorkDir work;
    StreamKey* key = make_key(9, 1, "M1");
    NetStream* s = net_stream_open(key);
    std::string file = work / "mstat/M1.mds";
    explicit MobileStream(int32_t total, int32_t done = 0) {
        s->toc = make_toc({{"a", "/x", total, done}});
        mobile_ep_init_progress(s);
    }
    ~MobileStream() {
        net_stream_close(s);
        stream_key_delete(key);
    }
    std::string c_len() const {
        auto p = load_progress(file);
        return p && p->str("c_len") ? p->str("c_len") : "-";
    }
};

TEST(MobileProgress, WritesAfterTenKilobytesAndAtTheTotal) {
    MobileStream m(100000);
    EXPECT_STREQ(properties_get_string(m.s->mstat->properties, "t_len"), "100000\n");
    mobile_ep_update_progress(m.s, 4097);
    mobile_ep_update_progress(m.s, 4097);
    EXPECT_FALSE(fs::exists(m.file)) << "8192 bytes gathered: nothing written yet";
    mobile_ep_update_progress(m.s, 4097);
    EXPECT_EQ(m.c_len(), "12288\n");
    mobile_ep_update_progress(m.s, 1);  // a block with only its status octet
    EXPECT_EQ(m.s->pending, 0);
}

TEST(MobileProgress, ReachingTheTotalAlwaysWritesAndRestartCountsOffsets) {
    MobileStream m(5000, 3000);
    mobile_ep_update_progress(m.s, 1001);
    EXPECT_FALSE(fs::exists(m.file));
    mobile_ep_update_progress(m.s, 1001);
    EXPECT_EQ(m.c_len(), "5000\n") << "the total is reached from the checkpointed 3000";
    mobile_ep_update_progress(m.s, -1);
    auto p = load_progress(m.file);
    EXPECT_EQ(p->flag("err"), 1);
    EXPECT_STREQ(p->str("c_len"), "5000\n");
}

TEST(MobileProgress, NeverReadStreamWritesOnlyAtClose) {
    WorkDir work;
    StreamKey* key = make_key(2, 1, "D7,rest");
    NetStream* s = net_stream_open(key);
    ASSERT_TRUE(s);
    EXPECT_STREQ(s->mobile_rest, "rest");
    EXPECT_EQ(s->preset180, 180);
    EXPECT_FALSE(fs::exists(work / "mstat/D7.mds"));
    net_stream_close(s);
    auto p = load_progress(work / "mstat/D7.mds");
    ASSERT_TRUE(p);
    EXPECT_STREQ(p->str("msid"), "D7");
    EXPECT_EQ(p->flag("close"), 1);
    EXPECT_EQ(p->flag("err"), 0);
    EXPECT_EQ(p->flag("paused"), 0);
    EXPECT_EQ(key->buffer[5], ',') << "the caller's key is unchanged";
    stream_key_delete(key);
}

TEST(MobileProgress, StatusAndKeyUpdatesAreRecorded) {
    WorkDir work;
    StreamKey* key = make_key(6, 1, "D8");
    NetStream* s = net_stream_open(key);
    net_stream_set_status(s, nullptr);
    EXPECT_FALSE(fs::exists(work / "mstat/D8.mds"));
    net_stream_set_status(s, "disk full");
    net_stream_update_mstat(s, "stage", "copy");
    auto p = load_progress(work / "mstat/D8.mds");
    EXPECT_EQ(p->flag("err"), 1);
    EXPECT_STREQ(p->str("err_msg"), "disk full");
    EXPECT_STREQ(p->str("stage"), "copy");
    net_stream_close(s);
    stream_key_delete(key);
}

}  // namespace
