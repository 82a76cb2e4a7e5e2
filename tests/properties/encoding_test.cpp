// Tests of the byte and file encodings of property lists: round trips of
// every value type through the three file layouts, the files' bytes, and
// hostile files (every truncation, an extra byte, wrong length and version
// words, random bytes), each of which raises 19 or 35 without leaking.
#include "fanout/properties.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "properties/support.h"

namespace {

using proptest::AllTypes;
using proptest::raised_by;
using proptest::ScopedList;
using Bytes = std::vector<uint8_t>;

Bytes read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const Bytes& bytes, bool append = false) {
    std::ofstream out(path, std::ios::binary | (append ? std::ios::app : std::ios::trunc));
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<long>(bytes.size()));
}

Bytes encoded(const Properties* p) {
    void* data = nullptr;
    uint32_t len = 0;
    properties_encode(TC_Kel_Fanout2_Properties, p, &data, &len);
    Bytes bytes(static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + len);
    mg_free(data);
    return bytes;
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
    proptest::TempDir dir;
    std::string path = dir.file("list");
};

TEST_P(PropertiesFile, EveryValueTypeAndTheEmptyListRoundTrip) {
    AllTypes t;
    ScopedList empty;
    for (Properties* p : {t.list.get(), empty.get()}) {
        GetParam().save(p, path.c_str());
        ScopedList back;
        GetParam().load(back.get(), path.c_str());
        Environment env{};
        EXPECT_EQ(zel_generic_equal(TC_Kel_Fanout2_Properties, &env, p, back.get()), 1);
    }
    ScopedList back;
    GetParam().save(t.list.get(), path.c_str());
    GetParam().load(back.get(), path.c_str());
    Properties* b = back.get();
    EXPECT_EQ(properties_get_short(b, "short"), -2);  // sign-extended
    EXPECT_EQ(properties_get_ulong(b, "ulong"), 4000000000u);
    EXPECT_EQ(properties_get_boolean(b, "boolean"), 1);
    EXPECT_EQ(*static_cast<int32_t*>(properties_get_any(b, "any")->_value), 77);
    EXPECT_EQ(properties_get_OctetList(b, "OctetList")->buffer[2], 3);
    EXPECT_STREQ(Object_type_id(properties_get_object(b, "object")),
                 "IDL:Kel_Fanout2/Repeater:1.0");
    PropertiesList* pl = properties_get_properties_list(b, "properties_list");
    ASSERT_EQ(pl->length, 1u);
    EXPECT_STREQ(properties_get_string(&pl->buffer[0], "nested"), "yes");
}

// Saving over a longer file truncates it; a new file is private to its owner.
TEST_P(PropertiesFile, FileHoldsTheHeaderAndTheMarshalledBytes) {
    AllTypes t;
    GetParam().save(t.list.get(), path.c_str());
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    write_file(path, Bytes(100, 0xAB), true);
    GetParam().save(t.list.get(), path.c_str());
    Bytes body = encoded(t.list.get());
    Bytes file = read_file(path);
    EXPECT_EQ(file, framed(GetParam(), body, static_cast<uint32_t>(body.size())));
    ASSERT_GT(file.size(), 4u);
    if (GetParam().header == 8) EXPECT_EQ(Bytes(file.begin(), file.begin() + 4), (Bytes{0, 0, 0, 1}));
    if (GetParam().header == 4) EXPECT_EQ(file[0], body.size() & 0xff);  // little-endian host
}

struct Hostile {
    std::string what;
    Bytes bytes;
    int32_t number;  // 0: loads
    int64_t count;   // the byte count message 19 reports; -1 when not 19
};

// Damaged forms of `good`, a valid file of `layout`, with what loading each
// must raise.
std::vector<Hostile> hostile_files(const Layout& layout, const Bytes& good) {
    const size_t h = layout.header;
    const uint32_t n = static_cast<uint32_t>(good.size() - h);
    const Bytes body(good.begin() + static_cast<long>(h), good.end());
    std::vector<Hostile> cases;
    for (size_t cut = 0; cut < good.size(); ++cut) {
        // A short read of the length word reports the word as it stands (in
        // host order); while the version word is read it is still 0.
        int64_t count = h == 0 ? -1 : n;
        if (h > 0 && cut < h) {
            uint32_t word = 0;
            if (cut > h - 4) std::memcpy(&word, good.data() + h - 4, cut - (h - 4));
            count = word;
        }
        cases.push_back({"cut at " + std::to_string(cut),
                         Bytes(good.begin(), good.begin() + static_cast<long>(cut)),
                         h > 0 ? 19 : 35, count});
    }
    Bytes longer = good;
    longer.push_back(0);
    cases.push_back({"one byte added", longer, h > 0 ? 19 : 35, h > 0 ? n : -1});
    if (h > 0) {
        cases.push_back({"length one less", framed(layout, body, n - 1), 19, n - 1});
        cases.push_back({"length one more", framed(layout, body, n + 1), 19, n + 1});
    }
    if (h == 8) {  // the version word is deliberately not checked
        cases.push_back({"version 0", framed(layout, body, n, 0), 0, -1});
        cases.push_back({"version 2", framed(layout, body, n, 2), 0, -1});
    }
    // Random bodies with a correct length reach the decoder.
    std::mt19937 rng(12345);
    for (int round = 0; round < 50; ++round) {
        Bytes junk(1 + rng() % 64);
        for (uint8_t& b : junk) b = static_cast<uint8_t>(rng());
        cases.push_back({"random " + std::to_string(round),
                         framed(layout, junk, static_cast<uint32_t>(junk.size())), 35, -1});
    }
    return cases;
}

TEST_P(PropertiesFile, HostileFilesRaise) {
    AllTypes t;
    GetParam().save(t.list.get(), path.c_str());
    for (const Hostile& c : hostile_files(GetParam(), read_file(path))) {
        SCOPED_TRACE(c.what);
        write_file(path, c.bytes);
        ScopedList out;  // a partly decoded list is the caller's to free
        auto r = raised_by([&] { GetParam().load(out.get(), path.c_str()); });
        EXPECT_EQ(r.number, c.number);
        if (c.number == 19) {
            EXPECT_EQ(r.args, (std::vector<std::string>{path, std::to_string(c.count), "0"}));
        } else if (c.number == 35) {
            ASSERT_EQ(r.args.size(), 1u);
            EXPECT_NE(r.args[0], "0");  // the decoder's error code
        }
    }
    ScopedList out;
    auto absent = dir.file("absent");
    EXPECT_EQ(raised_by([&] { GetParam().load(out.get(), absent.c_str()); }).number, 11);
}

INSTANTIATE_TEST_SUITE_P(Layouts, PropertiesFile, ::testing::ValuesIn(kLayouts),
                         [](const auto& info) { return std::string(info.param.name); });

// A type code the marshaller cannot walk: 34, and the out parameters stay.
TEST(PropertiesBytes, EncodeFailureRaisesAndLeavesTheOutputs) {
    TypeCodeRec bogus{};
    bogus.kind = 99;
    bogus.repo_id = bogus.name = bogus.reg_name = "bogus";
    bogus.size = bogus.align = 4;
    int32_t value = 0;
    void* data = &value;
    uint32_t len = 12345;
    EXPECT_EQ(raised_by([&] { properties_encode(&bogus, &value, &data, &len); }).number, 34);
    EXPECT_EQ(data, &value);
    EXPECT_EQ(len, 12345u);
}

}  // namespace
