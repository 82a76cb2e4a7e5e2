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

std::string saved(const std::string& path, const char* key) {
    auto p = load_progress(path);
    return p && p->str(key) ? p->str(key) : "-";
}

TEST(MStat, SaveWritesNamedFileWithMsidAndDoneRenamesIt) {
    WorkDir work;
    MStatPtr m(mstat_new("D1", 1)), named(mstat_new("D2", 1));
    ASSERT_TRUE(m && named);
    const std::string running = work / "mstat/D1.ads", done = work / "mstat/D1.adf";
    EXPECT_FALSE(fs::exists(running)) << "no file before the first save";
    properties_put_string_dup(m->properties, "t_len", "42");
    ASSERT_EQ(mstat_save(m.get()), 0);
    EXPECT_EQ(saved(running, "msid"), "D1");
    EXPECT_EQ(saved(running, "t_len"), "42");
    // A string "msid" already there is kept as it is.
    properties_put_string_dup(named->properties, "msid", "given");
    ASSERT_EQ(mstat_save(named.get()), 0);
    EXPECT_EQ(saved(work / "mstat/D2.ads", "msid"), "given");

    mstat_done(m.get());
    EXPECT_FALSE(fs::exists(running));
    EXPECT_STREQ(m->suffix, "adf");
    properties_put_string_dup(m->properties, "c_len", "42");
    ASSERT_EQ(mstat_save(m.get()), 0);
    EXPECT_EQ(saved(done, "c_len"), "42");
    MStatPtr again(mstat_new("D1", 0));  // a fresh record reads the finished file back
    std::strcpy(again->suffix, "adf");
    EXPECT_EQ(mstat_load(again.get()), 0);
    EXPECT_STREQ(properties_get_string2(again->properties, "c_len", nullptr), "42");
}

TEST(MStat, WithoutWorkDirUsesTemporaryDirectoryCreatedGroupWritable) {
    ScratchDir tmp;
    EnvOverride no_work("FANOUT_WORK_DIR", nullptr), tmpdir("TMPDIR", tmp.path().c_str());
    mode_t old = umask(0);
    MStatPtr m(mstat_new("D2", 0));
    umask(old);
    struct stat st {};
    ASSERT_EQ(stat((tmp / "mstat").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0775u);
    ASSERT_EQ(mstat_save(m.get()), 0);
    EXPECT_TRUE(fs::exists(tmp / "mstat/D2.mds"));
}

// The suffix is looked for anywhere in the path: a work directory named "mds" keeps the name.
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

// Progress of a mobile type-9 stream whose one segment has `total` bytes, `done` of them
// checkpointed: written once 10 KiB have gathered and whenever the total is reached.
TEST(MobileProgress, WritesAfterTenKilobytesAndAtTheTotal) {
    const struct {
        int32_t total, done;
        std::vector<int32_t> blocks;  // status octet included; -1: an error
        std::string before, after;    // c_len before and after the last block
        int err;
    } cases[] = {
        {100000, 0, {4097, 4097, 4097}, "-", "12288\n", 0},
        {5000, 3000, {1001, 1001}, "-", "5000\n", 0},
        {5000, 3000, {1001, 1001, -1}, "5000\n", "5000\n", 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.total);
        WorkDir work;
        NetStream* s = open_stream(9, 1, "M1");
        s->toc = make_toc({{"a", "/x", c.total, c.done}});
        mobile_ep_init_progress(s);
        EXPECT_EQ(properties_get_string(s->mstat->properties, "t_len"),
                  std::to_string(c.total) + "\n");
        const std::string file = work / "mstat/M1.mds";
        for (size_t i = 0; i < c.blocks.size(); ++i) {
            if (i + 1 == c.blocks.size()) {
                EXPECT_EQ(saved(file, "c_len"), c.before);
            }
            mobile_ep_update_progress(s, c.blocks[i]);
        }
        EXPECT_EQ(saved(file, "c_len"), c.after);
        auto p = load_progress(file);
        EXPECT_EQ(p ? p->flag("err") : -1, c.err);
        mobile_ep_update_progress(s, 1);  // a block with only its status octet
        EXPECT_EQ(s->pending, 0);
        net_stream_close(s);
    }
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
    EXPECT_EQ(key->buffer[5], ',') << "the caller's key is unchanged";
    stream_key_delete(key);
    auto p = load_progress(work / "mstat/D7.mds");
    ASSERT_TRUE(p);
    EXPECT_STREQ(p->str("msid"), "D7");
    for (const char* flag : {"close", "err", "paused"}) EXPECT_EQ(p->flag(flag), *flag == 'c');

    NetStream* d8 = open_stream(6, 1, "D8");  // status and key updates are recorded
    net_stream_set_status(d8, nullptr);
    EXPECT_FALSE(fs::exists(work / "mstat/D8.mds"));
    net_stream_set_status(d8, "disk full");
    net_stream_update_mstat(d8, "stage", "copy");
    auto q = load_progress(work / "mstat/D8.mds");
    EXPECT_EQ(q->flag("err"), 1);
    EXPECT_STREQ(q->str("err_msg"), "disk full");
    EXPECT_STREQ(q->str("stage"), "copy");
    net_stream_close(d8);
}

}  // namespace
