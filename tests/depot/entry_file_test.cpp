// entry_file_test.cpp - the Depot's entry file byte for byte, its parsing and refresh rules, and
// the trace log's length limit.

#include <cstring>
#include <string>
#include <vector>

#include "depot_fixture.h"
#include "fanout/palmemory.h"

using namespace depot_test;

// The length limit applies to the format itself: these tests pass long non-literal formats.
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"

namespace {

class DepotEntryFile : public DepotTest {};

// An entry text with the given numbers and properties, no zero byte.
std::string Text(const std::string& refs, const std::string& checksum, const std::string& deadline,
                 const std::string& props) {
    return "<<id>a</id><version>b</version><reference_count>" + refs +
           "</reference_count><state>1</state><checksum>" + checksum + "</checksum><deadline>" +
           deadline + "</deadline><location>l</location><properties>" + props + "</properties>>";
}

TEST_F(DepotEntryFile, NewFileIsTheTemplateAndRewritesLeaveTheOlderTail) {
    Open();
    const std::string xml = "depot/00000016.0.xml", dat = "depot/00000016.0.dat";
    const PalUint8 props[] = {'M', 'a', 'n'};
    DepotEntry* e = DepotAddEntry(handle_, "abc", "1", props, 3);
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->entryFilePath, xml);
    EXPECT_EQ(e->location, dat);
    EXPECT_EQ(ReadFile(xml), EntryText("abc", "1", 0, 0, 0, 0, dat, "TWFu"));
    EXPECT_TRUE(Exists(dat));
    EXPECT_EQ(ReadFile(dat), "");
    // Rewritten in place: a shorter text leaves the older tail after its zero byte.
    std::string longer;
    for (int checksum : {-1234567, 7}) {
        e->checksum = checksum;
        ASSERT_EQ(DepotSaveEntry(handle_, e).palError, PAL_OK);
        std::string text = EntryText("abc", "1", 0, 0, checksum, 0, dat, "TWFu");
        EXPECT_EQ(ReadFile(xml), text + longer.substr(longer.empty() ? 0 : text.size()));
        if (longer.empty()) longer = text;
    }
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
    EXPECT_EQ(length, EntryText("k", "v", 0, 0, 0, 0, "loc", std::string(4000, 'x')).size());

    DepotEntry* parsed = DepotEntryNewFromToc(handle_, text);
    PalMemoryFree(text);
    ASSERT_NE(parsed, nullptr);
    ASSERT_EQ(parsed->propertiesLength, 3000u);
    EXPECT_EQ(std::memcmp(parsed->properties, big.data(), 3000), 0);
    EXPECT_EQ(DepotFreeEntry(handle_, parsed).palError, PAL_OK);
}

TEST_F(DepotEntryFile, PropertiesAreBase64AndEveryElementIsRequired) {
    Open();
    const struct {
        const char* name;
        std::string text;
        bool parses;
        PalInt32 deadline;
        PalUint32 propertiesLength;
    } cases[] = {
        {"plain", Text("2", "3", "99", "TWFu"), true, 99, 3},
        {"padding counts as bytes", Text("2", "3", "1", "TQ=="), true, 1, 3},
        {"properties that decode to nothing", Text("2", "3", "1", "  "), false, 0, 0},
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

// Numbers are read as a 32-bit strtol reads them, whatever their length: the rows sit on both
// sides of the nine digits every int32 can hold.
TEST_F(DepotEntryFile, NumbersReadAsA32BitStrtolAtEveryLength) {
    Open();
    const struct {
        PalInt32 value;
        std::vector<const char*> contents;
    } cases[] = {
        {0, {"", "-", "--1", "0x10"}},
        {7, {"0000000007"}},
        {42, {"+42", " \t\n42"}},
        {4, {"4-2"}},
        {12345678, {"12345678x"}},
        {999999999, {"999999999"}},
        {-999999999, {"-999999999"}},
        {1234567890, {"1234567890"}},
        {INT32_MAX,
         {"2147483647", "2147483648", "4294967297", "123456789012345678901234567890123456789"}},
        {INT32_MIN, {"-2147483648", "-2147483649", "-9999999999"}},
    };
    for (const auto& c : cases)
        for (const char* content : c.contents) {
            SCOPED_TRACE(content);
            DepotEntry* e =
                DepotEntryNewFromToc(handle_, Text(content, content, content, "").c_str());
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
    std::string text = EntryText("abc", "1", 4, 1, 0, 77, "depot/x.dat", "");
    text.erase(text.find("<checksum>"), text.find("<deadline>") - text.find("<checksum>"));
    WriteFile(e->entryFilePath, text);
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
