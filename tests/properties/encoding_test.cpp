// Tests of the file encodings of property lists: round trips through the three layouts, the files'
// bytes, and hostile files, each of which raises 19 or 35 without leaking.
#include "fanout/properties.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "properties/support.h"

namespace {

using namespace proptest;
using Bytes = std::vector<uint8_t>;

Bytes read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<long>(bytes.size()));
}

struct Layout {
    const char* name;
    void (*save)(const Properties*, const char*);
    void (*load)(Properties*, const char*);
    size_t header;  // bytes before the marshalled list
};

const Layout kLayouts[] = {
    {"plain", properties_save, properties_load, 4},
    {"improved", properties_save_improved, properties_load_improved, 8},
    {"bare", properties_save_without_len, properties_load_without_len, 0},
};

// A file of `layout` around `body`, with the given length and version words:
// plain is the length in host order, improved the version and the length
// big-endian, bare the body alone.
Bytes framed(const Layout& layout, const Bytes& body, uint32_t len, uint32_t version = 1) {
    uint32_t words[2] = {htonl(version), htonl(len)};
    if (layout.header == 4) words[1] = len;
    const auto* w = reinterpret_cast<const uint8_t*>(words);
    Bytes file(w + 8 - layout.header, w + 8);
    file.insert(file.end(), body.begin(), body.end());
    return file;
}

class PropertiesFile : public ::testing::TestWithParam<Layout> {
  protected:
    void SetUp() override {
        ASSERT_NE(mkdtemp(dir.data()), nullptr) << dir;
        path = dir + "/list";
    }
    void TearDown() override { std::filesystem::remove_all(dir); }
    std::string dir = std::filesystem::temp_directory_path() / "fanout-props-XXXXXX";
    std::string path;
};

TEST_P(PropertiesFile, EveryValueTypeAndTheEmptyListRoundTrip) {
    AllTypes t;
    ScopedList empty, empty_back, back;
    for (auto [p, b] : {std::pair{empty.get(), empty_back.get()}, {t.get(), back.get()}}) {
        GetParam().save(p, path.c_str());
        GetParam().load(b, path.c_str());
        Environment env{};
        EXPECT_EQ(zel_generic_equal(TC_Kel_Fanout2_Properties, &env, p, b), 1);
    }
    const Properties* b = back.get();
    EXPECT_EQ(properties_get_short(b, "short"), -2);  // sign-extended
    EXPECT_EQ(properties_get_ulong(b, "ulong"), 4000000000u);
    EXPECT_EQ(*static_cast<int32_t*>(properties_get_any(b, "any")->_value), 77);
}

// Saving over a longer file truncates it; a new file is private to its owner.
TEST_P(PropertiesFile, FileHoldsTheHeaderAndTheMarshalledBytes) {
    AllTypes t;
    GetParam().save(t.get(), path.c_str());
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    write_file(path, Bytes(1000, 0xAB));  // longer than the list
    GetParam().save(t.get(), path.c_str());
    void* data = nullptr;
    uint32_t n = 0;
    properties_encode(TC_Kel_Fanout2_Properties, t.get(), &data, &n);
    const Bytes body(static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + n);
    mg_free(data);
    Bytes file = read_file(path);
    ASSERT_EQ(file, framed(GetParam(), body, n));
    Bytes start{0, 0, 0, 1};  // improved: version 1, big-endian
    if (GetParam().header == 4) start = {uint8_t(n), uint8_t(n >> 8), 0, 0};  // low byte first
    if (GetParam().header == 0) start.assign(body.begin(), body.begin() + 4);
    EXPECT_EQ(Bytes(file.begin(), file.begin() + 4), start);
}

// Damaged forms of `good`, a valid file of `layout` at `path`, each with
// what loading it must raise. Message 35 carries the decoder's error code,
// not known here: its arguments are left empty.
std::vector<std::pair<Bytes, Raised>> hostile_files(const Layout& layout, const Bytes& good,
                                                    const std::string& path) {
    const size_t h = layout.header;
    const auto n = static_cast<uint32_t>(good.size() - h);
    const Bytes body(good.begin() + static_cast<long>(h), good.end());
    auto short_read = [&](int64_t count) { return Raised{19, {path, std::to_string(count), "0"}}; };
    std::vector<std::pair<Bytes, Raised>> cases;
    for (size_t cut = 0; cut < good.size(); ++cut) {
        // A short read of the header reports the length word as it stands:
        // 0 during the version word, then partly filled (host order).
        uint32_t word = cut >= h ? n : 0;
        if (cut < h && cut > h - 4) std::memcpy(&word, good.data() + h - 4, cut - (h - 4));
        cases.emplace_back(Bytes(good.begin(), good.begin() + static_cast<long>(cut)),
                           h > 0 ? short_read(word) : Raised{35, {}});
    }
    if (h > 0) {  // (the bare layout leaves trailing bytes to the decoder, which skips them)
        Bytes longer = good;
        longer.push_back(0);
        cases.emplace_back(longer, short_read(n));
        cases.emplace_back(framed(layout, body, n - 1), short_read(n - 1));
        cases.emplace_back(framed(layout, body, n + 1), short_read(n + 1));
    }
    if (h == 8) {  // the version word is deliberately not checked
        cases.emplace_back(framed(layout, body, n, 0), Raised{});
        cases.emplace_back(framed(layout, body, n, 2), Raised{});
    }
    // Random bodies with a correct length reach the decoder.
    std::mt19937 rng(12345);
    for (int round = 0; round < 50; ++round) {
        Bytes junk(1 + rng() % 64);
        for (uint8_t& b : junk) b = static_cast<uint8_t>(rng());
        cases.emplace_back(framed(layout, junk, static_cast<uint32_t>(junk.size())),
                           Raised{35, {}});
    }
    return cases;
}

TEST_P(PropertiesFile, HostileFilesRaise) {
    AllTypes t;
    GetParam().save(t.get(), path.c_str());
    const auto cases = hostile_files(GetParam(), read_file(path), path);
    for (const auto& [bytes, expected] : cases) {
        SCOPED_TRACE(std::to_string(bytes.size()) + " bytes");
        write_file(path, bytes);
        ScopedList out;  // a partly decoded list is the caller's to free
        Raised r = raised_by([&] { GetParam().load(out.get(), path.c_str()); });
        if (expected.number == 35) {
            ASSERT_EQ(r.args.size(), 1u);
            EXPECT_NE(r.args[0], "0");
            r.args.clear();
        }
        EXPECT_EQ(r, expected);
    }
}

// Sizes past 32 bits are seen whole: a file longer than the list by 4 GiB is
// refused, not loaded from its first bytes.
TEST_P(PropertiesFile, FilesLongerThan32BitsAreRefused) {
    AllTypes t;
    GetParam().save(t.get(), path.c_str());
    const auto n = static_cast<uint32_t>(read_file(path).size() - GetParam().header);
    ASSERT_EQ(truncate(path.c_str(), (off_t{1} << 32) + static_cast<off_t>(GetParam().header + n)),
              0);
    ScopedList out;
    const Raised r = raised_by([&] { GetParam().load(out.get(), path.c_str()); });
    const std::string count = GetParam().header > 0 ? std::to_string(n) : "0";
    const std::string error = GetParam().header > 0 ? "0" : std::to_string(EFBIG);
    EXPECT_EQ(r, (Raised{19, {path, count, error}}));
}

// A sparse file of almost 4 GiB whose length word matches its size loads
// without committing memory for its body: a child whose data segment may
// grow by no more than 1 GiB decodes it (an empty list: zeros). A 32-bit
// process has no room to map it and must refuse it by raising instead.
TEST_P(PropertiesFile, SparseHugeFilesLoadWithoutCommittingTheirSize) {
    const uint32_t n = 0xFFFFFF00u;
    write_file(path, framed(GetParam(), {}, n));
    ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(GetParam().header) + n), 0);
    pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::ifstream status("/proc/self/status");
        std::string line;
        rlim_t data = 0;
        while (std::getline(status, line)) {
            if (line.rfind("VmData:", 0) == 0) data = std::stoull(line.substr(7)) * 1024;
        }
        const rlimit limit{data + (rlim_t{1} << 30), data + (rlim_t{1} << 30)};
        if (data == 0 || setrlimit(RLIMIT_DATA, &limit) != 0) _exit(2);
        bool loaded = false;
        try {
            ScopedList out;
            GetParam().load(out.get(), path.c_str());
            loaded = out.get()->length == 0;
        } catch (...) {
            // NO_MEMORY (no catalogue number) included
        }
        _exit(loaded ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    const int expected = sizeof(void*) >= 8 ? 0 : 1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == expected) << status;
}

INSTANTIATE_TEST_SUITE_P(Layouts, PropertiesFile, ::testing::ValuesIn(kLayouts),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
