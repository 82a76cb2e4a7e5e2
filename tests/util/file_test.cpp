/* file_test.cpp - the File object's failures with their real errno, and the
 * sequence, length-counter and time helpers. */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "fanout/file.h"
#include "fanout/runtime.h"
#include "util/expect_raise.h"

namespace {

class FileTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/fanout-file-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override
    {
        for (const char* name : {"data", "fifo", "created"}) {
            unlink((dir_ + "/" + name).c_str());
        }
        rmdir(dir_.c_str());
    }
    std::string path(const char* name) const { return dir_ + "/" + name; }
    std::string dir_;
};

TEST_F(FileTest, NullObjectsRaiseTheirOwnMessages)
{
    char buf[4];
    EXPECT_RAISES(file_close(nullptr), 13, {});
    EXPECT_RAISES(file_remove(nullptr), 15, {});
    EXPECT_RAISES(file_delete(nullptr), 17, {});
    EXPECT_RAISES(file_read(nullptr, buf, 4), 18, {});
    EXPECT_RAISES(file_write(nullptr, buf, 4), 20, {});
    EXPECT_RAISES(file_seek(nullptr, 0), 22, {});
    EXPECT_EQ(file_is_open(nullptr), 0);
}

TEST_F(FileTest, OpenAndCreateFailuresCarryPathAndErrno)
{
    const std::string missing = path("missing");
    EXPECT_RAISES(file_open(missing.c_str(), O_RDONLY), 11, {missing});
    const std::string nodir = path("nodir/file");
    EXPECT_RAISES(file_create(nodir.c_str(), O_WRONLY, 0600), 12,
                  {nodir, std::to_string(ENOENT)});
    EXPECT_RAISES(file_get_size(missing.c_str()), 24, {missing});
    EXPECT_RAISES(file_access(missing.c_str(), R_OK), 25, {missing, std::to_string(R_OK)});
    EXPECT_EQ(file_get_mtime(missing.c_str()), -1);
    FileStatus st;
    EXPECT_EQ(stat_ex(missing.c_str(), &st), -1);
}

TEST_F(FileTest, WriteSeekReadAndStatus)
{
    const std::string name = path("data");
    File* f = file_create(name.c_str(), O_RDWR | O_TRUNC, 0600);
    EXPECT_EQ(file_is_open(f), 1);
    EXPECT_EQ(file_write(f, "0123456789", 10), 10);
    EXPECT_EQ(file_seek(f, 4), 4u);
    char buf[16] = {};
    EXPECT_EQ(file_read(f, buf, sizeof buf), 6);
    EXPECT_STREQ(buf, "456789");
    EXPECT_EQ(file_read(f, buf, sizeof buf), 0);
    EXPECT_EQ(file_get_size(name.c_str()), 10u);
    EXPECT_EQ(file_access(name.c_str(), R_OK | W_OK), 0);

    FileStatus st;
    ASSERT_EQ(stat_ex(name.c_str(), &st), 0);
    EXPECT_EQ(st.size, 10);
    EXPECT_EQ(st.mode & 0777u, 0600u);
    EXPECT_EQ(file_get_mtime(name.c_str()), st.mtime);

    // Reading from a write-only descriptor: EBADF with the length asked.
    File* w = file_open(name.c_str(), O_WRONLY);
    EXPECT_RAISES(file_read(w, buf, 7), 19, {name, "7", std::to_string(EBADF)});
    file_delete(w);
    file_delete(f);
}

TEST_F(FileTest, CloseTwiceRaisesAndDeleteClosesFirst)
{
    const std::string name = path("data");
    File* f = file_create(name.c_str(), O_WRONLY, 0600);
    file_close(f);
    EXPECT_EQ(f->fd, -1);
    EXPECT_EQ(file_is_open(f), 0);
    EXPECT_RAISES(file_close(f), 14, {name});
    EXPECT_EQ(f->fd, -1);
    file_delete(f);  // closed: only frees

    f = file_open(name.c_str(), O_RDONLY);
    const int fd2 = f->fd;
    file_delete(f);  // open: closes first
    EXPECT_EQ(fcntl(fd2, F_GETFD), -1);
    EXPECT_EQ(access(name.c_str(), F_OK), 0);  // the file stays on disk
}

TEST_F(FileTest, RemoveKeepsTheObject)
{
    const std::string name = path("data");
    File* f = file_create(name.c_str(), O_WRONLY, 0600);
    file_remove(f);
    EXPECT_NE(access(name.c_str(), F_OK), 0);
    EXPECT_RAISES(file_remove(f), 16, {name});
    EXPECT_EQ(file_is_open(f), 1);
    file_delete(f);
}

TEST_F(FileTest, SeekOnAPipeRaisesWithErrno)
{
    const std::string name = path("fifo");
    ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
    File* f = file_open(name.c_str(), O_RDWR);  // O_RDWR: no wait for a peer
    EXPECT_RAISES(file_seek(f, 10), 23, {name, std::to_string(ESPIPE)});
    file_delete(f);
}

/* Lowers the file-size limit for the life of the guard; the signal the
 * limit sends is ignored meanwhile, so write reports the short count. */
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        getrlimit(RLIMIT_FSIZE, &saved_);
        old_handler_ = signal(SIGXFSZ, SIG_IGN);
        struct rlimit lower = saved_;
        lower.rlim_cur = bytes;
        ok_ = setrlimit(RLIMIT_FSIZE, &lower) == 0;
    }
    ~FileSizeLimit()
    {
        setrlimit(RLIMIT_FSIZE, &saved_);
        signal(SIGXFSZ, old_handler_);
    }
    bool ok() const { return ok_; }

private:
    struct rlimit saved_ {};
    sighandler_t old_handler_;
    bool ok_ = false;
};

TEST_F(FileTest, ShortWriteIsAFailureWithPathAndLength)
{
    const std::string name = path("data");
    File* f = file_create(name.c_str(), O_WRONLY | O_TRUNC, 0600);
    {
        FileSizeLimit limit(6);
        ASSERT_TRUE(limit.ok());
        EXPECT_RAISES(file_write(f, "0123456789", 10), 21, {name, "10"});  // 6 written
        EXPECT_RAISES(file_write(f, "0123456789", 10), 21, {name, "10"});  // EFBIG
    }
    file_delete(f);
    EXPECT_EQ(file_get_size(name.c_str()), 6u);
}

TEST(SeqHelpers, ReplaceReturnsTheOldElement)
{
    GenericSeq* s = static_cast<GenericSeq*>(mg_malloc(sizeof(GenericSeq)));
    seq_init(s);
    EXPECT_EQ(s->maximum, 0u);
    EXPECT_EQ(s->length, 0u);
    EXPECT_EQ(s->buffer, nullptr);
    for (int32_t v : {10, 20}) {
        seq_add(s, &v, sizeof v);
    }
    const int32_t item = 99;
    auto* old = static_cast<int32_t*>(seq_replace(s, &item, 1, sizeof item));
    EXPECT_EQ(*old, 20);
    mg_free(old);
    EXPECT_EQ(static_cast<int32_t*>(s->buffer)[1], 99);
    EXPECT_EQ(static_cast<int32_t*>(s->buffer)[0], 10);
    EXPECT_RAISES(seq_replace(s, &item, 2, sizeof item), 39, {"2", "2"});
    seq_free(s);

    // A record with maximum 0 does not own its buffer: only the record goes.
    int32_t borrowed[1] = {5};
    s = static_cast<GenericSeq*>(mg_malloc(sizeof(GenericSeq)));
    *s = GenericSeq{0, 1, borrowed};
    seq_free(s);
    seq_free(nullptr);
}

TEST(LengthCounter, AddCarryAndText)
{
    struct Step {
        uint32_t thousands;
        int32_t units;
        int64_t add;
        uint32_t want_thousands;
        int32_t want_units;
        const char* text;
    };
    const Step steps[] = {
        {0, 600, 1500, 2, 100, "2100\n"},
        {12, 7, 0, 12, 7, "12007\n"},
        {0, 999, 1, 1, 0, "1000\n"},
        {0, 0, 999, 0, 999, "0999\n"},
        {5, 0, -1, 5, -1, "54294967295\n"},  // no borrow: units print unsigned
    };
    for (const Step& s : steps) {
        Int64Length* c = int64_length_new();
        c->thousands = s.thousands;
        c->units = s.units;
        int64_length_add(c, s.add);
        EXPECT_EQ(c->thousands, s.want_thousands) << s.text;
        EXPECT_EQ(c->units, s.want_units) << s.text;
        char* text = int64_length_to_string(c);
        EXPECT_STREQ(text, s.text);
        mg_free(text);
        int64_length_delete(c);
    }
}

TEST(LengthCounter, ParseCloneEqual)
{
    Int64Length* a = int64_length_new2("  12", "+7kB");
    EXPECT_EQ(a->thousands, 12u);
    EXPECT_EQ(a->units, 7);
    Int64Length* b = int64_length_clone(a);
    EXPECT_EQ(int64_length_equal(a, b), 1);
    int64_length_add(b, 1);
    EXPECT_EQ(int64_length_equal(a, b), 0);
    Int64Length* c = int64_length_new2("-1", "x");
    EXPECT_EQ(c->thousands, 4294967295u);
    EXPECT_EQ(c->units, 0);
    int64_length_delete(a);
    int64_length_delete(b);
    int64_length_delete(c);
}

TEST(TimeToString, LocalTimeWithTrailingBlank)
{
    const char* saved = std::getenv("TZ");
    const std::string saved_tz = saved ? saved : "";
    setenv("TZ", "UTC0", 1);
    tzset();
    char buf[32];
    EXPECT_EQ(time_to_string(buf, sizeof buf, 86400 + 3661), 20u);
    EXPECT_STREQ(buf, "1970/01/02 01:01:01 ");
    EXPECT_EQ(time_to_string(buf, 20, 0), 0u);  // no room for the terminator
    if (saved) {
        setenv("TZ", saved_tz.c_str(), 1);
    } else {
        unsetenv("TZ");
    }
    tzset();
}

}  // namespace
