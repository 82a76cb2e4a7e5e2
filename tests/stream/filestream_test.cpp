// File streams: keys, the file list, reads that skip complete segments and resume at
// checkpoints, and the type-4 write.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "util/expect_raise.h"
#include "stream_support.h"

using namespace stream_test;

namespace {

TEST(FileStreamKey, LayoutAndTheLostMobileFlag) {
    struct Case {
        StreamKey* key;
        std::string octets;
        int mobile;
    } cases[] = {
        {file_stream_key_new(0, 2, "/a", "/b"), std::string("\4\0\2/a,/b\0", 9), 0},
        {file_stream_key_new(1, 1, "/x"), std::string("\4\0\1/x\0", 6), 1},
        // With no paths the terminator overwrites the mobile flag.
        {file_stream_key_new(1, 0), std::string("\4\0\0", 3), 0},
    };
    for (auto& c : cases) {
        EXPECT_EQ(std::string(reinterpret_cast<char*>(c.key->buffer), c.key->length), c.octets);
        EXPECT_EQ(c.key->buffer[c.key->length], 0) << "one zeroed octet beyond the length";
        EXPECT_EQ(is_mobile_ep(c.key), c.mobile);
        EXPECT_EQ(stream_key_get_data(c.key), c.key->buffer + 3);
        stream_key_delete(c.key);
    }
    StreamKey* net = make_key(2, 1, "D");
    EXPECT_EQ(stream_key_get_data(net), net->buffer + 2) << "other types: data start at the flag";
    stream_key_delete(net);
    for (uint8_t type : {0, 5, 12, 200}) EXPECT_EQ(open_stream(type, 0, "x"), nullptr) << +type;
    StreamKey shortkey{2, 2, reinterpret_cast<uint8_t*>(const_cast<char*>("\2\0"))};
    EXPECT_EQ(net_stream_open(&shortkey), nullptr);
}

// A file stream over `key` (taken), closed and deleted at the end.
struct FileStream {
    StreamKey* key;
    NetStream* s = net_stream_open(key);
    ~FileStream() {
        net_stream_close(s);
        stream_key_delete(key);
    }
    std::string read() {
        int32_t last = -1;
        std::string bytes = read_segment(s, &last);
        EXPECT_EQ(last, 0);
        return bytes;
    }
};

TEST(FileStreamRead, SkipsCompleteSegmentsAndResumesAtCheckpoints) {
    ScratchDir dir;
    const std::string a = pattern(40000, 1), c = pattern(3000, 3);
    write_file(dir / "a", a);
    write_file(dir / "c", c);
    FileStream f{file_stream_key_new(0, 4, (dir / "a").c_str(), (dir / "b").c_str(),
                                     (dir / "c").c_str(), (dir / "z").c_str())};
    ASSERT_TRUE(f.s);
    // "b" does not exist: opening it would raise.
    f.s->toc = make_toc(
        {{"a", dir / "a", 40000, 0}, {"b", dir / "b", 5000, 5000}, {"c", dir / "c", 3000, 1000}});
    EXPECT_EQ(f.read(), a);
    EXPECT_EQ(f.read(), c.substr(1000));
    EXPECT_EQ(f.read(), "") << "a name without a segment ends the read unopened";
    EXPECT_EQ(f.read(), "") << "the list is used up";
}

// Without a table of contents listed files are read whole; a missing one raises 11.
TEST(FileStreamRead, WithoutTableOfContentsReadsListedFilesWhole) {
    ScratchDir dir;
    write_file(dir / "one", pattern(20000, 4));
    write_file(dir / "two", "");
    FileStream f{file_stream_key_new(0, 3, (dir / "one").c_str(), (dir / "two").c_str(),
                                     (dir / "gone").c_str())};
    EXPECT_EQ(f.read(), pattern(20000, 4));
    EXPECT_EQ(f.read(), "");
    void* data = nullptr;
    EXPECT_RAISES(net_stream_read(f.s, &data), 11, {dir / "gone"});
}

// A mobile endpoint's progress counts the bytes read from local files, whole (a local block
// has no status octet to leave out).
TEST(FileStreamRead, MobileProgressCountsEveryByteRead) {
    WorkDir work;
    const fs::path back = fs::current_path();
    fs::current_path(work.path());  // the key's path is the distribution id: "a"
    const std::string bytes = pattern(40000, 5);
    write_file("a", bytes);
    std::unique_ptr<Progress> progress;
    {
        FileStream f{file_stream_key_new(1, 1, "a")};
        f.s->toc = make_toc({{"a", "a", 40000, 0}});
        EXPECT_EQ(f.read(), bytes);
        progress = load_progress(work / "mstat/a.mds");  // before the close writes it
    }
    fs::current_path(back);
    ASSERT_TRUE(progress);
    EXPECT_STREQ(progress->str("c_len"), "40000\n");
}

TEST(FileStreamWrite, WritesCurrentFileIntoWorkDirectoryInBlocks) {
    WorkDir work;
    FileStream f{file_stream_key_new(0, 1, "/elsewhere/out.bin")};
    ASSERT_EQ(net_stream_write_begin(f.s), 0);
    const std::string bytes = pattern(40000, 5);
    EXPECT_EQ(net_stream_write(f.s, bytes.data(), 30000), 30000);
    EXPECT_EQ(f.s->fill, 30000u - 16384u);
    EXPECT_EQ(net_stream_write(f.s, bytes.data() + 30000, 10000), 10000);
    EXPECT_EQ(net_stream_write(f.s, bytes.data(), 0), 0);
    EXPECT_EQ(net_stream_write_end(f.s), 0);
    const std::string out = work / "fanout/out.bin";
    EXPECT_EQ(read_file(out), bytes);
    struct stat st {};
    stat(out.c_str(), &st);
    EXPECT_EQ(st.st_mode & 0777, 0400u);
    // A directory where the file goes: the write cannot begin.
    fs::create_directories(work / "fanout/dir.bin");
    FileStream blocked{file_stream_key_new(0, 1, "dir.bin")};
    EXPECT_EQ(net_stream_write_begin(blocked.s), -1);
}

TEST(NetStreamClose, TypeThreeRaisesAndIsReleasedSeparately) {
    NetStream* s = open_stream(3);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->block_size, 0);
    void* data = reinterpret_cast<void*>(1);
    EXPECT_EQ(net_stream_read(s, &data), 0);
    EXPECT_EQ(data, nullptr);
    EXPECT_RAISES(net_stream_close(s), 30, {"3"});
    net_stream_release(s);
}

}  // namespace
