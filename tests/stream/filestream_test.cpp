// File streams: keys, the file list, reads that skip complete segments and
// resume at checkpoints, and the type-4 write.
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "util/expect_raise.h"
#include "stream_support.h"

using namespace stream_test;

namespace {

std::string key_octets(const StreamKey* k) {
    return std::string(reinterpret_cast<const char*>(k->buffer), k->length);
}

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
        EXPECT_EQ(key_octets(c.key), c.octets);
        EXPECT_EQ(c.key->buffer[c.key->length], 0) << "one zeroed octet beyond the length";
        EXPECT_EQ(is_mobile_ep(c.key), c.mobile);
        EXPECT_EQ(stream_key_get_data(c.key), c.key->buffer + 3);
        stream_key_delete(c.key);
    }
    StreamKey* net = make_key(2, 1, "D");
    EXPECT_EQ(stream_key_get_data(net), net->buffer + 2) << "other types: data start at the flag";
    stream_key_delete(net);
}

TEST(FileStreamKey, InvalidTypesOpenNothing) {
    for (uint8_t type : {0, 5, 12, 200}) {
        StreamKey* key = make_key(type, 0, "x");
        EXPECT_EQ(net_stream_open(key), nullptr) << int(type);
        stream_key_delete(key);
    }
    StreamKey shortkey{2, 2, reinterpret_cast<uint8_t*>(const_cast<char*>("\2\0"))};
    EXPECT_EQ(net_stream_open(&shortkey), nullptr);
}

TEST(FileList, NextFileAndAppend) {
    char* list = append_file(nullptr, "x");
    FileList one{list, list, nullptr, 0};
    EXPECT_STREQ(get_next_file(&one), "x");
    EXPECT_EQ(get_next_file(&one), nullptr);
    EXPECT_EQ(get_next_file(&one), nullptr);
    list = append_file(list, "y");
    EXPECT_STREQ(list, "x,y");
    mg_free(list);
}

// Reads a stream to its end, one segment per 0 result, for `segments`
// segments; returns the bytes of each.
std::vector<std::string> read_segments(NetStream* s, int segments) {
    std::vector<std::string> out;
    for (int i = 0; i < segments; ++i) {
        std::string bytes;
        void* data = nullptr;
        int32_t n;
        while ((n = net_stream_read(s, &data)) > 0) {
            bytes.append(static_cast<char*>(data), n);
            net_stream_free_buffer(s, data);
        }
        EXPECT_EQ(n, 0);
        EXPECT_EQ(data, nullptr);
        out.push_back(bytes);
    }
    return out;
}

TEST(FileStreamRead, SkipsCompleteSegmentsAndResumesAtCheckpoints) {
    ScratchDir dir;
    const std::string a = pattern(40000, 1), c = pattern(3000, 3);
    write_file(dir / "a", a);
    write_file(dir / "c", c);
    StreamKey* key = file_stream_key_new(0, 4, (dir / "a").c_str(), (dir / "b").c_str(),
                                         (dir / "c").c_str(), (dir / "z").c_str());
    NetStream* s = net_stream_open(key);
    ASSERT_TRUE(s);
    s->toc = make_toc({{"a", dir / "a", 40000, 0},
                       {"b", dir / "b", 5000, 5000},  // complete: skipped unopened
                       {"c", dir / "c", 3000, 1000}});
    // "b" does not exist: opening it would raise.
    auto got = read_segments(s, 3);
    EXPECT_EQ(got[0], a);
    EXPECT_EQ(got[1], c.substr(1000));
    EXPECT_EQ(got[2], "") << "a name without a segment ends the read unopened";
    void* data = nullptr;
    EXPECT_EQ(net_stream_read(s, &data), 0) << "the list is used up";
    net_stream_close(s);
    stream_key_delete(key);
}

// A mobile endpoint's progress counts the bytes read from local files, whole
// (a local block has no status octet to leave out).
TEST(FileStreamRead, MobileProgressCountsEveryByteRead) {
    WorkDir work;
    struct Back {
        fs::path to = fs::current_path();
        ~Back() { fs::current_path(to); }
    } back;
    fs::current_path(work.path());  // the key's path is the distribution id: "a"
    const std::string bytes = pattern(40000, 5);
    write_file("a", bytes);
    StreamKey* key = file_stream_key_new(1, 1, "a");
    NetStream* s = net_stream_open(key);
    ASSERT_TRUE(s);
    s->toc = make_toc({{"a", "a", 40000, 0}});
    EXPECT_EQ(read_segments(s, 1)[0], bytes);
    auto progress = load_progress(work / "mstat/a.mds");
    net_stream_close(s);
    stream_key_delete(key);
    ASSERT_TRUE(progress);
    EXPECT_STREQ(progress->str("c_len"), "40000\n");
}

TEST(FileStreamRead, WithoutTableOfContentsReadsListedFilesWhole) {
    ScratchDir dir;
    write_file(dir / "one", pattern(20000, 4));
    write_file(dir / "two", "");
    StreamKey* key = file_stream_key_new(0, 2, (dir / "one").c_str(), (dir / "two").c_str());
    NetStream* s = net_stream_open(key);
    auto got = read_segments(s, 2);
    EXPECT_EQ(got[0], pattern(20000, 4));
    EXPECT_EQ(got[1], "");
    net_stream_close(s);
    stream_key_delete(key);
}

TEST(FileStreamRead, MissingFileRaisesTheFileMessage) {
    ScratchDir dir;
    StreamKey* key = file_stream_key_new(0, 1, (dir / "gone").c_str());
    NetStream* s = net_stream_open(key);
    void* data = nullptr;
    EXPECT_RAISES(net_stream_read(s, &data), 11, {dir / "gone"});
    net_stream_close(s);
    stream_key_delete(key);
}

TEST(FileStreamWrite, WritesCurrentFileIntoWorkDirectoryInBlocks) {
    WorkDir work;
    StreamKey* key = file_stream_key_new(0, 1, "/elsewhere/out.bin");
    NetStream* s = net_stream_open(key);
    ASSERT_EQ(net_stream_write_begin(s), 0);
    const std::string bytes = pattern(40000, 5);
    EXPECT_EQ(net_stream_write(s, bytes.data(), 30000), 30000);
    EXPECT_EQ(s->fill, 30000u - 16384u);
    EXPECT_EQ(net_stream_write(s, bytes.data() + 30000, 10000), 10000);
    EXPECT_EQ(net_stream_write(s, bytes.data(), 0), 0);
    EXPECT_EQ(net_stream_write_end(s), 0);
    const std::string out = work / "fanout/out.bin";
    EXPECT_EQ(read_file(out), bytes);
    struct stat st {};
    stat(out.c_str(), &st);
    EXPECT_EQ(st.st_mode & 0777, 0400u);
    net_stream_close(s);
    stream_key_delete(key);
}

TEST(FileStreamWrite, FailureToCreateGivesMinusOne) {
    WorkDir work;
    fs::create_directories(work / "fanout/out.bin");  // a directory where the file goes
    StreamKey* key = file_stream_key_new(0, 1, "out.bin");
    NetStream* s = net_stream_open(key);
    EXPECT_EQ(net_stream_write_begin(s), -1);
    net_stream_close(s);
    stream_key_delete(key);
}

TEST(NetStreamClose, TypeThreeRaisesAndIsReleasedSeparately) {
    StreamKey* key = make_key(3, 0, "");
    NetStream* s = net_stream_open(key);
    ASSERT_TRUE(s);
    EXPECT_EQ(s->block_size, 0);
    void* data = reinterpret_cast<void*>(1);
    EXPECT_EQ(net_stream_read(s, &data), 0);
    EXPECT_EQ(data, nullptr);
    EXPECT_RAISES(net_stream_close(s), 30, {"3"});
    net_stream_release(s);
    stream_key_delete(key);
}

}  // namespace
