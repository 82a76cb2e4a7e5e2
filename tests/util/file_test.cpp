/* file_test.cpp - File object failures with their real errno; sequence, length, time helpers. */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>

#include "fanout/file.h"
#include "fanout/runtime.h"
#include "util/expect_raise.h"

namespace {

class FileTest : public ::testing::Test {
  protected:
    void SetUp() override { ASSERT_NE(mkdtemp(dir_), nullptr); }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string path(const char* name) const { return std::string(dir_) + "/" + name; }
    char dir_[32] = "/tmp/fanout-file-XXXXXX";
};

TEST(File, NullHandlesRaiseTheirOwnMessages) {
    const std::pair<std::function<void()>, int32_t> calls[] = {
        {[] { file_close(nullptr); }, 13},
        {[] { file_remove(nullptr); }, 15},
        {[] { file_delete(nullptr); }, 17},
        {[] { file_read(nullptr, nullptr, 4); }, 18},
        {[] { file_write(nullptr, nullptr, 4); }, 20},
        {[] { file_seek(nullptr, 0); }, 22},
    };
    for (const auto& [call, number] : calls) {
        EXPECT_RAISES(call(), number, {});
    }
}

TEST_F(FileTest, OpenCreateAndStatusFailures) {
    const std::string missing = path("missing"), nodir = path("nodir/f");
    EXPECT_RAISES(file_open(missing.c_str(), O_RDONLY), 11, {missing});
    EXPECT_RAISES(file_create(nodir.c_str(), O_WRONLY, 0600), 12, {nodir, std::to_string(ENOENT)});
    EXPECT_RAISES(file_get_size(missing.c_str()), 24, {missing});
    EXPECT_RAISES(file_access(missing.c_str(), R_OK), 25, {missing, std::to_string(R_OK)});
    EXPECT_EQ(file_get_mtime(missing.c_str()), -1);
}

TEST_F(FileTest, DescriptorCallsAndTheirFailures) {
    const std::string name = path("data");
    File* f = file_create(name.c_str(), O_RDWR | O_TRUNC, 0600);
    EXPECT_EQ(file_write(f, "0123456789", 10), 10);
    EXPECT_EQ(file_seek(f, 4), 4u);
    char buf[16] = {};
    EXPECT_EQ(file_read(f, buf, sizeof buf), 6);
    EXPECT_STREQ(buf, "456789");
    FileStatus st;
    ASSERT_EQ(stat_ex(name.c_str(), &st), 0);
    EXPECT_EQ(st.size, 10);
    EXPECT_EQ(st.mode & 0777u, 0600u);
    const int fd = f->fd;
    file_delete(f);  // open: closed first, the file stays
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);

    f = file_open(name.c_str(), O_WRONLY);
    EXPECT_RAISES(file_read(f, buf, 7), 19, {name, "7", std::to_string(EBADF)});
    file_close(f);
    EXPECT_RAISES(file_close(f), 14, {name});  // closing twice closes -1
    EXPECT_EQ(f->fd, -1);
    file_remove(f);
    EXPECT_RAISES(file_remove(f), 16, {name});
    file_delete(f);  // closed: only frees

    ASSERT_EQ(mkfifo(name.c_str(), 0600), 0);
    f = file_open(name.c_str(), O_RDWR);  // a FIFO; O_RDWR does not wait for a peer
    EXPECT_RAISES(file_seek(f, 10), 23, {name, std::to_string(ESPIPE)});
    file_delete(f);
}

/* The file-size limit lets 6 of 10 bytes through (SIGXFSZ ignored meanwhile)
 * and refuses the next write: both are failures, never retried. */
TEST_F(FileTest, ShortWriteRaisesWithPathAndLength) {
    const std::string name = path("data");
    struct rlimit saved;
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
    const struct rlimit lower = {6, saved.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &lower), 0);
    const sighandler_t old_handler = signal(SIGXFSZ, SIG_IGN);
    File* f = file_create(name.c_str(), O_WRONLY | O_TRUNC, 0600);
    EXPECT_RAISES(file_write(f, "0123456789", 10), 21, {name, "10"});  // 6 written
    EXPECT_RAISES(file_write(f, "0123456789", 10), 21, {name, "10"});  // EFBIG
    setrlimit(RLIMIT_FSIZE, &saved);
    signal(SIGXFSZ, old_handler);
    file_delete(f);
    EXPECT_EQ(file_get_size(name.c_str()), 6u);
}

TEST(SeqHelpers, ReplaceReturnsTheOldElement) {
    int32_t buf[2] = {10, 20};
    auto* s = static_cast<GenericSeq*>(mg_malloc(sizeof(GenericSeq)));
    *s = GenericSeq{0, 2, buf};  // maximum 0: the buffer is borrowed
    const int32_t item = 99;
    auto* old = static_cast<int32_t*>(seq_replace(s, &item, 1, sizeof item));
    EXPECT_EQ(*old, 20);
    mg_free(old);
    EXPECT_EQ(buf[1], 99);
    EXPECT_RAISES(seq_replace(s, &item, 2, sizeof item), 39, {"2", "2"});
    seq_free(s);  // the record only
}

TEST(LengthCounter, ParseAddCarryAndText) {
    // The text pins both fields: "%lu%03lu\n" of {thousands, units}.
    const struct {
        const char *thousands, *units;
        int64_t add;
        const char* text;
    } steps[] = {
        {"0", "600", 1500, "2100\n"}, {" 12", "+7kB", 0, "12007\n"},   {"0", "999", 1, "1000\n"},
        {"0", "0", 999, "0999\n"},    {"5", "0", -1, "54294967295\n"},  // no borrow
        {"-1", "x", 1000, "0000\n"},  // thousands wrap as a 32-bit word
    };
    for (const auto& s : steps) {
        Int64Length* c = int64_length_new2(s.thousands, s.units);
        int64_length_add(c, s.add);
        char* text = int64_length_to_string(c);
        EXPECT_STREQ(text, s.text);
        mg_free(text);
        int64_length_delete(c);
    }
}

TEST(TimeToString, LocalTimeWithTrailingBlank) {
    setenv("TZ", "UTC0", 1);  // this program reads no other local times
    tzset();
    char buf[32];
    EXPECT_EQ(time_to_string(buf, sizeof buf, 86400 + 3661), 20u);
    EXPECT_STREQ(buf, "1970/01/02 01:01:01 ");
    EXPECT_EQ(time_to_string(buf, 20, 0), 0u);  // no room for the terminator
}

}  // namespace
