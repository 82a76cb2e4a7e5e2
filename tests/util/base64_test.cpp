// Tests of the base64 codec: standard vectors, MIME blank skipping, the decoder's deliberate
// length rule, round trips, and its fast paths against its rule one character at a time.
#include "fanout/base64.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "fanout/palmemory.h"

namespace {

std::string EncodeText(const std::string& in) {
    PalChar* out = nullptr;
    PalUint32 len = 99;
    Encode(in.data(), static_cast<PalUint32>(in.size()), &out, &len);
    EXPECT_NE(out, nullptr);
    std::string text(out, len);
    EXPECT_EQ(out[len], '\0');  // zero-filled beyond the text
    PalMemoryFree(out);
    return text;
}

std::string DecodeText(const std::string& in) {
    PalUint8* out = nullptr;
    PalUint32 len = 99;
    PalError e = Decode(in.data(), static_cast<PalUint32>(in.size()), &out, &len);
    EXPECT_EQ(e.palError, PAL_OK);
    std::string bytes(reinterpret_cast<char*>(out), len);
    EXPECT_EQ(out[len] | out[len + 1], 0);  // the fast paths leave nothing past the bytes
    PalMemoryFree(out);
    return bytes;
}

// The decoder's rule one character at a time, the reference for its faster
// paths: MIME blanks are skipped; any other character gives six bits (a
// digit its value, with or without the high bit; '=' 63; anything else 62);
// each four give three bytes, and left-over values one byte each.
std::string ReferenceDecode(const std::string& text) {
    std::string out;
    uint32_t bits = 0;
    int n = 0;
    for (const char ch : text) {
        if (IsBadMimeChar(ch)) continue;
        const char c = static_cast<char>(ch & 0x7F);
        const char* digit = c == 0 ? nullptr : std::strchr(Base64Digits, c);
        const auto value = digit != nullptr ? digit - Base64Digits : c == '=' ? 63 : 62;
        bits = bits << 6 | static_cast<uint32_t>(value);
        if (++n < 4) continue;
        for (int shift : {16, 8, 0}) out.push_back(static_cast<char>(bits >> shift));
        bits = 0;
        n = 0;
    }
    bits <<= 6 * (4 - n);
    for (int i = 0; i < n; ++i) out.push_back(static_cast<char>(bits >> (16 - 8 * i)));
    return out;
}

struct Vector {
    const char* plain;
    const char* text;
};

TEST(Base64, EncodesTheStandardVectors) {
    const Vector vectors[] = {{"", ""},
                              {"f", "Zg=="},
                              {"fo", "Zm8="},
                              {"foo", "Zm9v"},
                              {"foob", "Zm9vYg=="},
                              {"fooba", "Zm9vYmE="},
                              {"foobar", "Zm9vYmFy"}};
    for (const auto& v : vectors) EXPECT_EQ(EncodeText(v.plain), v.text) << v.plain;
}

TEST(Base64, DecodeCountsThreeBytesPerGroupAndLeftoverCharacters) {
    struct Case {
        std::string text;
        std::string bytes;
    };
    const Case cases[] = {
        {"TWFu", "Man"},
        {"TQ==", std::string("M\x0f\xff", 3)},  // padding decodes through its table value 255
        {"QQ==", std::string("A\x0f\xff", 3)},
        {"TQ", std::string("M\0", 2)},  // two left-over characters add two
        {"TWFuTQ", std::string("ManM\0", 5)},
        {"", ""},
    };
    for (const auto& c : cases) EXPECT_EQ(DecodeText(c.text), c.bytes) << c.text;
}

TEST(Base64, DecodeSkipsMimeBlanksAnywhere) {
    for (const char* text :
         {"T\nWFu", "TW\r\nFu", "\tTWFu ", "T W F u", "TWF\x0bu\x07", "\x0cTWFu"}) {
        EXPECT_EQ(DecodeText(text), "Man") << text;
    }
    EXPECT_TRUE(IsBadMimeChar(' '));
    EXPECT_TRUE(IsBadMimeChar('\x07'));
    EXPECT_TRUE(IsBadMimeChar('\r'));
    EXPECT_FALSE(IsBadMimeChar('\x06'));
    EXPECT_FALSE(IsBadMimeChar('\x0e'));
    EXPECT_FALSE(IsBadMimeChar('='));
}

TEST(Base64, InvalidCharactersDecodeThroughTheirTableValues) {
    // Not failures: '*' (not a digit) decodes as '+' (62), '=' (padding) as '/' (63).
    EXPECT_EQ(DecodeText("****"), "\xfb\xef\xbe");
    EXPECT_EQ(DecodeText("++++"), "\xfb\xef\xbe");
    EXPECT_EQ(DecodeText("A==="), DecodeText("A///"));
    // A character with the high bit set decodes as the digit without it.
    EXPECT_EQ(DecodeText("\xd4WFu"), "Man");
}

TEST(Base64, RoundTripsEveryLengthUpTo300) {
    std::mt19937 rng(7);
    for (size_t n = 0; n <= 300; ++n) {
        std::string in(n, '\0');
        for (auto& c : in) c = static_cast<char>(rng());  // high-bit bytes included
        const std::string text = EncodeText(in);
        ASSERT_EQ(text.size(), 4 * ((n + 2) / 3));
        EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos);  // one unbroken line
        const std::string out = DecodeText(text);
        ASSERT_GE(out.size(), n);
        EXPECT_EQ(out.substr(0, n), in) << n;
    }
}

TEST(Base64, FastPathsDecodeAsTheOneCharacterRuleWithBlanksInEveryPosition) {
    // A blank in each position of each length, so every place of the 8- and 4-character windows
    // meets one; then texts with blanks scattered at random.
    std::mt19937 rng(14);
    const std::string blanks = "\x07\x08\t\n\x0b\x0c\r ";
    auto random_text = [&](size_t n, unsigned blank_in) {  // 0: no blanks
        std::string s(n, '\0');
        for (auto& c : s) {
            if (blank_in != 0 && rng() % blank_in == 0) {
                c = blanks[rng() % blanks.size()];
            } else {
                c = rng() % 16 != 0 ? Base64Digits[rng() % 64] : static_cast<char>(rng());
            }
        }
        return s;
    };
    std::vector<std::string> texts;
    for (size_t n = 0; n <= 40; ++n) {
        for (size_t at = 0; at <= n; ++at) {
            texts.push_back(random_text(n, 0));
            texts.back().insert(at, 1, blanks[rng() % blanks.size()]);
        }
    }
    for (int i = 0; i < 2000; ++i) texts.push_back(random_text(rng() % 100, 2 + i % 9));
    for (const auto& text : texts) {
        ASSERT_EQ(DecodeText(text), ReferenceDecode(text)) << testing::PrintToString(text);
    }
}

TEST(Base64, GroupHelpersAndNullArguments) {
    const PalUint8 group[3] = {'M', 'a', 'n'};
    char dest[5] = {};
    EncodeToBuffer(group, 2, dest);
    EXPECT_STREQ(dest, "TWE=");
    const PalUint8 values[4] = {19, 22, 5, 46};
    PalUint8 bytes[3];
    EXPECT_EQ(DecodeToBuffer(values, 4, bytes), 3);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(bytes), 3), "Man");

    PalUint32 len = 0;
    EXPECT_EQ(Decode("TWFu", 4, nullptr, &len).palError, PAL_ERR_INVALID_ARGUMENT);
    PalChar* out = reinterpret_cast<PalChar*>(1);
    Encode(nullptr, 5, &out, &len);
    EXPECT_EQ(out, nullptr);
}

}  // namespace
