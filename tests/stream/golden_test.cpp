// golden_test.cpp - what the system writes down or sends (a property list in each file layout,
// an encoded message, a Depot entry file, a progress file) compared byte for byte with the copies
// under tests/golden/, which every build, 32-bit included, must reproduce. A deliberate format
// change rewrites them from a 64-bit build: FANOUT_WRITE_GOLDEN=1 ctest --preset dev -R Golden
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "depot/depot_fixture.h"
#include "fanout/properties.h"
#include "fanout/stream.h"
#include "stream_support.h"

namespace {

using namespace stream_test;

const bool kInitialised = (fanout_init(), true);

// Compares `bytes` with the golden file `name`, first writing it when FANOUT_WRITE_GOLDEN=1.
void CheckGolden(const std::string& name, const std::string& bytes) {
    const char* root = std::getenv("FANOUT_SOURCE_DIR");
    ASSERT_NE(root, nullptr) << "FANOUT_SOURCE_DIR names the source tree (ctest sets it)";
    const std::string path = std::string(root) + "/tests/golden/" + name;
    const char* write = std::getenv("FANOUT_WRITE_GOLDEN");
    if (write != nullptr && std::string(write) == "1") {
        ASSERT_EQ(sizeof(void*), 8u) << "golden files are written by a 64-bit build";
        write_file(path, bytes);
    }
    ASSERT_TRUE(fs::exists(path)) << path;
    EXPECT_EQ(read_file(path), bytes) << name << " differs from " << path;
}

// A list holding every value type, with values that show the widths and the alignment padding
// (an odd octet count before a long, a negative short, an unsigned long above the signed range).
struct GoldenList {
    Properties list{};
    GoldenList() {
        uint8_t octets[] = {1, 2, 3};
        Kel_Types_OctetList octet_list{3, 3, octets};
        int64_t big = -1234567890123;
        double ratio = 0.1;
        Any any_big{TC_longlong, &big}, any_ratio{TC_double, &ratio};
        Properties inner{};
        properties_put_string_dup(&inner, "nested", "yes");
        PropertiesList inner_list{1, 1, &inner};  // borrows inner
        ObjectProfile profile{0, octet_list};
        Object target = Object_new("IDL:Kel_Fanout2/Repeater:1.0", &profile, 1);
        properties_put_short_dup(&list, "type", 3);
        properties_put_string_dup(&list, "id", "dist-0001");
        properties_put_string_dup(&list, "label", "");
        properties_put_short_dup(&list, "pri", -2);
        properties_put_OctetList_dup(&list, "key", &octet_list);
        properties_put_long_dup(&list, "size", -70000);
        properties_put_ulong_dup(&list, "limit", 4000000000u);
        properties_put_boolean_dup(&list, "force_mandatory", 1);
        properties_put_string_dup(&list, "recv_meth", "receive");
        properties_put_any_dup(&list, "args", &any_big);
        properties_put_any_dup(&list, "ratio", &any_ratio);
        properties_put_object_dup(&list, "cb_target", target);
        properties_put_properties_dup(&list, "segment", &inner);
        properties_put_properties_list_dup(&list, "toc", &inner_list);
        Object_release(target);
        kel_free_generic(&inner, TC_Kel_Fanout2_Properties);
    }
    ~GoldenList() { kel_free_generic(&list, TC_Kel_Fanout2_Properties); }
    GoldenList(const GoldenList&) = delete;

    std::string Encoded() const {
        void* data = nullptr;
        uint32_t len = 0;
        properties_encode(TC_Kel_Fanout2_Properties, &list, &data, &len);
        std::string bytes(static_cast<const char*>(data), len);
        mg_free(data);
        return bytes;
    }
};

TEST(Golden, PropertyListInEachFileLayoutAndEncodedMessage) {
    ScratchDir dir;
    GoldenList g;
    const struct {
        const char* name;
        void (*save)(const Properties*, const char*);
    } layouts[] = {{"properties.plain", properties_save},
                   {"properties.improved", properties_save_improved},
                   {"properties.bare", properties_save_without_len}};
    for (const auto& layout : layouts) {
        layout.save(&g.list, (dir / layout.name).c_str());
        CheckGolden(layout.name, read_file(dir / layout.name));
    }
    CheckGolden("message.cdr", g.Encoded());
}

TEST(Golden, ProgressFile) {
    WorkDir work;
    MStat* m = mstat_new("dist-0001", 0);
    ASSERT_NE(m, nullptr);
    Properties* p = mstat_get_properties(m);
    for (const char* flag : {"err", "close", "paused"}) properties_put_boolean_dup(p, flag, 0);
    properties_put_string_dup(p, "t_len", "4294967296");
    properties_put_string_dup(p, "c_len", "1048576");
    EXPECT_EQ(mstat_save(m), 0);
    mstat_free(m);
    CheckGolden("progress.mds", read_file(work / "mstat/dist-0001.mds"));
}

// The entry file holds the data file's full path, in the scratch directory: the comparison puts
// "@DEPOT@" in its place. Nothing else depends on the time or the place.
class GoldenDepot : public depot_test::DepotTest {};

TEST_F(GoldenDepot, EntryFileOfACompletedEntry) {
    GoldenList g;
    const std::string props = g.Encoded();
    DepotHandle* h = Open();
    ASSERT_NE(h, nullptr);
    DepotEntry* e =
        DepotAddEntry(h, "dist-0001", "2.1", reinterpret_cast<const PalUint8*>(props.data()),
                      static_cast<PalUint32>(props.size()));
    ASSERT_NE(e, nullptr);
    const std::string entry_file = e->entryFilePath;
    EXPECT_EQ(fs::path(entry_file).filename(), "00000180.0.xml");  // the key's bucket, everywhere
    ASSERT_EQ(DepotCompleteEntry(h, e, 1700000000).palError, PAL_OK);
    std::string text = depot_test::ReadFile(entry_file);
    const std::string depot_dir = DepotGetDir(h);
    for (size_t at; (at = text.find(depot_dir)) != std::string::npos;) {
        text.replace(at, depot_dir.size(), "@DEPOT@");
    }
    CheckGolden("entry.xml", text);
}

}  // namespace
