// Tests of the byte and file encodings of property lists: round trips of
// every value type through the three file layouts, the files' bytes, and
// hostile files (truncations, extra bytes, wrong length and version words,
// random bytes), each of which must raise 19 or 35 without leaking.
#include "fanout/properties.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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
using proptest::TempDir;
using Bytes = std::vector<uint8_t>;

Bytes read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

void write_file(const std::string& path, const Bytes& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
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

uint32_t big_endian(const Bytes& b, size_t at) {
    return uint32_t{b[at]} << 24 | uint32_t{b[at + 1]} << 16 | uint32_t{b[at + 2]} << 8 | b[at + 3];
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

class PropertiesFile : public ::testing::TestWithParam<Layout> {
  protected:
    TempDir dir;
    std::string path = dir.file("list");

    // Loads `bytes` written as a file; returns the number raised (0 for
    // none). A partly decoded list is freed, as callers must.
    proptest::Raised load_bytes(const Bytes& bytes) {
        write_file(path, bytes);
        ScopedList out;
        return raised_by([&] { GetParam().load(out.get(), path.c_str()); });
    }
};

TEST_P(PropertiesFile, EveryValueTypeRoundTrips) {
    AllTypes t;
    GetParam().save(t.list.get(), path.c_str());
    ScopedList back;
    GetParam().load(back.get(), path.c_str());
    Environment env{};
    EXPECT_EQ(zel_generic_equal(TC_Kel_Fanout2_Properties, &env, t.list.get(), back.get()), 1);
    EXPECT_EQ(env._major, 0);
    EXPECT_EQ(properties_get_short(back.get(), "short"), -2);
    EXPECT_STREQ(
        properties_get_string(properties_get_properties(back.get(), "properties"), "nested"),
        "yes");
}

TEST_P(PropertiesFile, HeaderAndLengthMatchTheMarshalledBytes) {
    AllTypes t;
    GetParam().save(t.list.get(), path.c_str());
    Bytes file = read_file(path);
    Bytes body = encoded(t.list.get());
    ASSERT_EQ(file.size(), GetParam().header + body.size());
    EXPECT_TRUE(std::equal(body.begin(), body.end(), file.begin() + GetParam().header));
    if (GetParam().header == 4) {
        uint32_t n = 0;
        std::memcpy(&n, file.data(), 4);  // host order
        EXPECT_EQ(n, body.size());
        EXPECT_EQ(file[0], body.size() & 0xff);  // low byte first on this host
    } else if (GetParam().header == 8) {
        EXPECT_EQ(big_endian(file, 0), 1u);
        EXPECT_EQ(big_endian(file, 4), body.size());
    }
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
}

TEST_P(PropertiesFile, SaveTruncatesALongerFileAndEmptyListRoundTrips) {
    write_file(path, Bytes(1000, 0xAB));
    Properties empty{};
    GetParam().save(&empty, path.c_str());
    EXPECT_EQ(read_file(path).size(), GetParam().header + encoded(&empty).size());
    ScopedList back;
    GetParam().load(back.get(), path.c_str());
    EXPECT_EQ(back.get()->length, 0u);
}

TEST_P(PropertiesFile, EveryTruncationRaises) {
    AllTypes t;
    GetParam().save(t.list.get(), path.c_str());
    size_t size = read_file(path).size();
    // Cut from the end, one byte at a time, in place.
    for (size_t n = size; n-- > 0;) {
        ASSERT_EQ(truncate(path.c_str(), static_cast<off_t>(n)), 0);
        ScopedList out;
        auto r = raised_by([&] { GetParam().load(out.get(), path.c_str()); });
        // The checked layouts notice before decoding; the bare one leaves it
        // to the decoder.
        EXPECT_EQ(r.number, GetParam().header > 0 ? 19 : 35) << "cut at " << n;
    }
}

TEST_P(PropertiesFile, RandomBytesRaise) {
    std::mt19937 rng(12345);
    for (int round = 0; round < 50; ++round) {
        Bytes bytes(1 + rng() % 64);
        for (uint8_t& b : bytes) b = static_cast<uint8_t>(rng());
        auto r = load_bytes(bytes);
        EXPECT_TRUE(r.number == 19 || r.number == 35) << round << ": " << r.number;
    }
}

INSTANTIATE_TEST_SUITE_P(Layouts, PropertiesFile, ::testing::ValuesIn(kLayouts),
                         [](const auto& info) { return std::string(info.param.name); });

// The checked layouts: one byte too many, or a length word one off either
// way, is a size mismatch (19); the improved layout's version is not tested.
TEST(PropertiesFileChecks, SizeMismatchesRaiseAndVersionIsNotTested) {
    TempDir dir;
    std::string path = dir.file("list");
    AllTypes t;
    for (const Layout& layout : {kLayouts[0], kLayouts[1]}) {
        SCOPED_TRACE(layout.name);
        layout.save(t.list.get(), path.c_str());
        const Bytes good = read_file(path);
        size_t len_at = layout.header - 4;
        auto raised_for = [&](Bytes bytes) {
            write_file(path, bytes);
            ScopedList out;
            return raised_by([&] { layout.load(out.get(), path.c_str()); });
        };
        Bytes longer = good;
        longer.push_back(0);
        EXPECT_EQ(raised_for(longer).number, 19);
        for (int delta : {-1, 1}) {
            Bytes off = good;
            off[len_at + (layout.header == 4 ? 0 : 3)] += static_cast<uint8_t>(delta);
            auto r = raised_for(off);
            EXPECT_EQ(r.number, 19);
            ASSERT_EQ(r.args.size(), 3u);
            EXPECT_EQ(r.args[0], path);
            EXPECT_EQ(r.args[1], std::to_string(good.size() - layout.header + delta));
        }
        if (layout.header == 8) {
            for (uint8_t version : {0, 2}) {
                Bytes other = good;
                other[3] = version;
                EXPECT_EQ(raised_for(other).number, 0) << int{version};
            }
        }
    }
}

// A 3-byte file fails the first 4-byte read. The count reported is the
// length word as it stands: still 0 while the improved reader reads its
// version, the partly read word itself for the plain reader.
TEST(PropertiesFileChecks, ShortHeaderReportsTheLengthAsItStands) {
    TempDir dir;
    std::string path = dir.file("short");
    write_file(path, Bytes{0, 0, 0});
    ScopedList out;
    auto improved = raised_by([&] { properties_load_improved(out.get(), path.c_str()); });
    EXPECT_EQ(improved.number, 19);
    EXPECT_EQ(improved.args, (std::vector<std::string>{path, "0", "0"}));
    write_file(path, Bytes{7, 1, 0});
    auto plain = raised_by([&] { properties_load(out.get(), path.c_str()); });
    EXPECT_EQ(plain.number, 19);
    EXPECT_EQ(plain.args, (std::vector<std::string>{path, "263", "0"}));
}

TEST(PropertiesFileChecks, EmptyBareFileIsTheDecodersVerdict) {
    TempDir dir;
    std::string path = dir.file("empty");
    write_file(path, Bytes{});
    ScopedList out;
    EXPECT_EQ(raised_by([&] { properties_load_without_len(out.get(), path.c_str()); }).number, 35);
    EXPECT_EQ(raised_by([&] { properties_load(out.get(), dir.file("absent").c_str()); }).number,
              11);
}

TEST(PropertiesBytes, EncodeAndDecodeFailuresRaiseWithTheMarshallerCode) {
    // A type code the marshaller cannot walk.
    TypeCodeRec bogus{};
    bogus.kind = 99;
    bogus.repo_id = "";
    bogus.name = "bogus";
    bogus.reg_name = "bogus";
    bogus.size = 4;
    bogus.align = 4;
    int32_t value = 0;
    void* data = &value;
    uint32_t len = 12345;
    auto r = raised_by([&] { properties_encode(&bogus, &value, &data, &len); });
    EXPECT_EQ(r.number, 34);
    EXPECT_EQ(data, &value);  // out parameters untouched
    EXPECT_EQ(len, 12345u);

    const uint8_t junk[] = {0xff, 0xff, 0xff, 0xff, 0};
    Properties out{};
    auto d = raised_by([&] { properties_decode(TC_Kel_Fanout2_Properties, junk, 5, &out); });
    EXPECT_EQ(d.number, 35);
    ASSERT_EQ(d.args.size(), 1u);
    EXPECT_NE(d.args[0], "0");
    kel_free_generic(&out, TC_Kel_Fanout2_Properties);
}

}  // namespace
