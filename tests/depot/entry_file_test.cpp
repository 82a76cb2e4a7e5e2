// entry_file_test.cpp - the Depot's entry file byte for byte, its parsing and
// refresh rules, and the trace log's length limit.

#include <cstring>
#include <string>

#include "depot_fixture.h"
#include "fanout/base64.h"
#include "fanout/palmemory.h"

using namespace depot_test;

// The length limit applies to the format itself, so these tests pass long
// formats that are not literals.
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

namespace {

class DepotEntryFile : public DepotTest {};

TEST_F(DepotEntryFile, NewEntryFileIsTheTemplateFilledInTagOrder) {
    Open();
    const PalUint8 props[] = {'M', 'a', 'n'};
    DepotEntry* e = DepotAddEntry(handle_, "abc", "1", props, 3);
    ASSERT_NE(e, nullptr);
    EXPECT_STREQ(e->entryFilePath, "depot/00000016.0.xml");
    EXPECT_STREQ(e->location, "depot/00000016.0.dat");
    EXPECT_EQ(ReadFile("depot/00000016.0.xml"),
              EntryText("abc", "1", 0, 0, 0, 0, "depot/00000016.0.dat", "TWFu"));
    EXPECT_TRUE(Exists("depot/00000016.0.dat"));
    EXPECT_EQ(ReadFile("depot/00000016.0.dat"), "");
}

TEST_F(DepotEntryFile, RewriteInPlaceLeavesTheOlderTailAfterTheZeroByte) {
    Open();
    DepotEntry* e = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
    ASSERT_NE(e, nullptr);
    e->checksum = -1234567;
    ASSERT_EQ(DepotSaveEntry(handle_, e).palError, PAL_OK);
    std::string longer = EntryText("abc", "1", 0, 0, -1234567, 0, "depot/00000016.0.dat", "");
    EXPECT_EQ(ReadFile(e->entryFilePath), longer);

    e->checksum = 7;
    ASSERT_EQ(DepotSaveEntry(handle_, e).palError, PAL_OK);
    std::string shorter = EntryText("abc", "1", 0, 0, 7, 0, "depot/00000016.0.dat", "");
    std::string expected = shorter + longer.substr(shorter.size());
    EXPECT_EQ(ReadFile(e->entryFilePath), expected);
    // Readers stop at the zero byte: the cached record still verifies.
    EXPECT_EQ(DepotGetEntry(handle_, "abc", "1"), e);
    EXPECT_EQ(e->checksum, 7);
}

TEST_F(DepotEntryFile, LargePropertiesGrowTheTextAndRoundTrip) {
    Open();
    std::string big(3000, '\0');
    for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7);
    DepotEntry e{};
    e.id = const_cast<PalChar*>("k");
    e.version = const_cast<PalChar*>("v");
    e.location = const_cast<PalChar*>("loc");
    e.properties = reinterpret_cast<PalUint8*>(big.data());
    e.propertiesLength = 3000;
    PalChar* text = nullptr;
    PalUint32 length = 0;
    ASSERT_EQ(DepotEntrySetProperties(handle_, &e, &text, &length).palError, PAL_OK);
    PalChar* encoded = nullptr;
    PalUint32 encodedLength = 0;
    Encode(big.data(), 3000, &encoded, &encodedLength);
    EXPECT_EQ(std::string(text, length),
              EntryText("k", "v", 0, 0, 0, 0, "loc", std::string(encoded, encodedLength)));
    PalMemoryFree(encoded);

    DepotEntry* parsed = DepotEntryNewFromToc(handle_, text);
    PalMemoryFree(text);
    ASSERT_NE(parsed, nullptr);
    ASSERT_EQ(parsed->propertiesLength, 3000u);
    EXPECT_EQ(std::memcmp(parsed->properties, big.data(), 3000), 0);
    EXPECT_EQ(DepotFreeEntry(handle_, parsed).palError, PAL_OK);
}

struct ParseCase {
    const char* name;
    std::string text;
    bool parses;
    PalInt32 deadline;
    PalUint32 propertiesLength;
};

TEST_F(DepotEntryFile, PropertiesAreBase64AndEveryElementIsRequired) {
    Open();
    auto text = [](const std::string& deadline, const std::string& props) {
        return "<<id>a</id><version>b</version><reference_count>2</reference_count><state>1"
               "</state><checksum>3</checksum><deadline>" +
               deadline + "</deadline><location>l</location><properties>" + props +
               "</properties>>";
    };
    const ParseCase cases[] = {
        {"plain", text("99", "TWFu"), true, 99, 3},
        {"padding counts as bytes", text("1", "TQ=="), true, 1, 3},
        {"properties that decode to nothing", text("1", "  "), false, 0, 0},
        {"missing checksum",
         "<<id>a</id><version>b</version><reference_count>2</reference_count><state>1</state>"
         "<deadline>1</deadline><location>l</location><properties></properties>>",
         false, 0, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        DepotEntry* e = DepotEntryNewFromToc(handle_, c.text.c_str());
        ASSERT_EQ(e != nullptr, c.parses);
        if (e == nullptr) continue;
        EXPECT_STREQ(e->id, "a");
        EXPECT_EQ(e->referenceCount, 2);
        EXPECT_EQ(e->deadline, c.deadline);
        EXPECT_EQ(e->propertiesLength, c.propertiesLength);
        EXPECT_EQ(e->entryFilePath, nullptr);
        EXPECT_EQ(DepotFreeEntry(handle_, e).palError, PAL_OK);
    }
}

// Numbers are read as a 32-bit strtol reads them, whatever their length: the
// rows sit on both sides of the nine digits every int32 can hold.
TEST_F(DepotEntryFile, NumbersReadAsA32BitStrtolAtEveryLength) {
    Open();
    const struct {
        const char* content;
        PalInt32 value;
    } cases[] = {
        {"", 0},
        {"0", 0},
        {"-", 0},
        {"--1", 0},
        {"999999999", 999999999},
        {"-999999999", -999999999},
        {"000000007", 7},
        {"0000000007", 7},
        {"1234567890", 1234567890},
        {"2147483647", INT32_MAX},
        {"2147483648", INT32_MAX},
        {"4294967297", INT32_MAX},
        {"9999999999", INT32_MAX},
        {"-2147483648", INT32_MIN},
        {"-2147483649", INT32_MIN},
        {"-9999999999", INT32_MIN},
        {"123456789012345678901234567890123456789", INT32_MAX},
        {"+42", 42},
        {" \t\n42", 42},
        {"42 ", 42},
        {"4-2", 4},
        {"12345678x", 12345678},
        {"0x10", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.content);
        std::string text = "<<id>a</id><version>b</version><reference_count>" +
                           std::string(c.content) + "</reference_count><state>1</state><checksum>" +
                           c.content + "</checksum><deadline>" + c.content +
                           "</deadline><location>l</location><properties></properties>>";
        DepotEntry* e = DepotEntryNewFromToc(handle_, text.c_str());
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(e->referenceCount, c.value);
        EXPECT_EQ(e->checksum, c.value);
        EXPECT_EQ(e->deadline, c.value);
        EXPECT_EQ(DepotFreeEntry(handle_, e).palError, PAL_OK);
    }
}

TEST_F(DepotEntryFile, CachedRecordIsRefreshedButKeepsFieldsItsFileLacks) {
    Open();
    DepotEntry* e = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
    ASSERT_NE(e, nullptr);
    e->checksum = 5;
    ASSERT_EQ(DepotSaveEntry(handle_, e).palError, PAL_OK);
    // Another writer's version of the file, without a checksum element.
    WriteFile(e->entryFilePath,
              std::string("<<id>abc</id><version>1</version><reference_count>4</reference_count>"
                          "<state>1</state><deadline>77</deadline><location>depot/x.dat"
                          "</location><properties></properties>>") +
                  '\0');
    ASSERT_EQ(DepotGetEntry(handle_, "abc", "1"), e);
    EXPECT_EQ(e->referenceCount, 4);
    EXPECT_EQ(e->state, 1);
    EXPECT_EQ(e->deadline, 77);
    EXPECT_EQ(e->checksum, 5);
    // The location is fixed when the entry is added: a file naming another
    // one is not followed.
    EXPECT_STREQ(e->location, "depot/00000016.0.dat");
}

TEST_F(DepotEntryFile, StaleCachedRecordIsDroppedWhenItsFileNamesAnotherKey) {
    Open();
    DepotEntry* e = DepotAddEntry(handle_, "abc", "1", nullptr, 0);
    ASSERT_NE(e, nullptr);
    std::string path = e->entryFilePath;
    WriteFile(path, EntryText("abd", "1", 0, 1, 0, 0, "depot/00000016.0.dat", ""));
    log_.Clear();
    EXPECT_EQ(DepotGetEntry(handle_, "abc", "1"), nullptr);
    EXPECT_TRUE(log_.Has(3, "DepotFreeEntry_internal entry\n"));
    // The stale record left the list: the other key is found afresh on disk.
    DepotEntry* other = DepotGetEntry(handle_, "abd", "1");
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(other->state, 1);
    EXPECT_EQ(other->entryFilePath, path);
}

TEST_F(DepotEntryFile, LoggerDropsFormatsOf975CharactersOrMore) {
    Open();
    std::string keep(974, 'a');
    std::string drop(975, 'b');
    log_.Clear();
    Logger(1, "%s", keep.c_str());  // a short format with a long argument is cut, not dropped
    Logger(1, keep.c_str());
    Logger(1, drop.c_str());
    EXPECT_TRUE(log_.Has(1, keep));
    for (const auto& l : log_.lines) EXPECT_NE(l.second, drop);
    EXPECT_EQ(log_.lines.size(), 2u);

    log_.Clear();
    EXPECT_EQ(DepotFree(nullptr).palError, PAL_OK);
    EXPECT_TRUE(log_.Has(0, "DepotFree exit.  Invalid parameter\n"));
}

}  // namespace
