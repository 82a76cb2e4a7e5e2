// Tests of the message catalogue: its size, its name and selected texts byte for byte (those with
// trailing blanks, doubled spaces, tabs and "%%").
#include <gtest/gtest.h>

#include <cstring>

#include "fanout/catalog.h"

namespace {

TEST(Catalog, NameAndEveryEntryPresent) {
    EXPECT_STREQ(Fanout2Catalog[0], "Fanout2Catalog");
    for (int i = 1; i < FANOUT2_CATALOG_SIZE; ++i) {
        ASSERT_NE(Fanout2Catalog[i], nullptr) << i;
        EXPECT_GT(std::strlen(Fanout2Catalog[i]), 0u) << i;
    }
    EXPECT_EQ(FANOUT2_CATALOG_SIZE, 212);
}

TEST(Catalog, SelectedTextsByteForByte) {
    const std::pair<int, const char*> cases[] = {
        {44,
         "An error occurred while creating the file cache due to one or more of the "
         "following parameters: \n maxCacheSize = %1$u, minCacheSize = %2$u, and pageSize = "
         "%3$u.\n "},
        {89,
         "Could not set the max_sessions configuration value    because the specified value "
         "%1$d for priority %2$d was not greater than or equal to 0.\n"},
        {143, "Id: \t\t\t%1$s\n"},
        {145, "Bytes received: \t%1$d(%2$d%%)\n"},
        {147, "File  change time:\t"},
        {168, "Could not find the job sent to target %1$s.\n "},
        {179, " The repeater failed to send all data to the target.  %1$d of %2$d bytes sent.\n"},
    };
    for (const auto& [number, text] : cases) EXPECT_STREQ(Fanout2Catalog[number], text) << number;
}

}  // namespace
