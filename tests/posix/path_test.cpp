// Tests of the path-name operations: classification, prefix, parent and name, and the oddities
// ("Failure" for a bare name, "" counting as absolute).

#include <fanout/palpath.h>

#include <cstring>

#include "pal_fixture.h"

namespace {

TEST(PalPath, ClassifiesLocalisesAndCutsPrefixes) {
    // Path, absolute, native, prefix (null: none, and the buffer is left alone).
    const std::tuple<const char*, bool, bool, const char*> cases[] = {
        {"", true, false, nullptr},  // passes the root test, yet does not begin with '/'
        {"/usr/lib", true, true, "/usr"},
        {"a\\b", false, true, nullptr},
        {"\\\\srv\\share\\f", true, false, "\\\\srv"},
        {"C:\\temp\\x", true, false, "C:"},
        {"dir/x:\\y", true, false, "dir/x:"},  // ":\\" anywhere counts
        {"C:/temp", false, true, nullptr},
    };
    for (auto [path, absolute, native, prefix] : cases) {
        EXPECT_EQ(PalPathIsPathAbsolute(path) != 0, absolute) << path;
        EXPECT_EQ(PalPathIsPrefixNative(path) != 0, native) << path;
        char buf[64] = "#";
        EXPECT_EQ(PalPathGetPrefix(buf, path, sizeof buf), prefix ? buf : nullptr) << path;
        EXPECT_STREQ(buf, prefix ? prefix : "#") << path;
        std::strcpy(buf, path);  // native: '\\' becomes '/'; foreign: refused, left alone
        EXPECT_EQ(PalPathLocalize(buf), native ? buf : nullptr) << path;
        EXPECT_EQ(std::strchr(buf, '\\') != nullptr, !native && *path) << path;
    }
    EXPECT_FALSE(PalPathIsPathAbsolute(nullptr));
    char buf[4];
    EXPECT_STREQ(PalPathGetPrefix(buf, "/usr/lib", 3), "/u");  // cut to the buffer
}

TEST(PalPath, NameAndParent) {
    // Path, name, parent. Without a separator the name is "Failure"; otherwise
    // the later separator counts, whatever its kind.
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"dir/file", "file", "dir"}, {"file", "Failure", "file"}, {"a/b\\c", "c", "a/b"},
        {"a\\b/c", "c", "a\\b"},     {"dir/", "", "dir"},
    };
    char buf[64];
    for (auto [path, name, parent] : cases) {
        EXPECT_STREQ(PalPathGetName(buf, path, sizeof buf), name) << path;
        EXPECT_STREQ(PalPathGetParent(buf, path, sizeof buf), parent) << path;
    }
    EXPECT_STREQ(PalPathGetName(buf, nullptr, sizeof buf), "Failure");
    // A path that fills the bound is copied without a terminator; the
    // separator search must stop at the bound (ASan watches the heap block).
    char* small = static_cast<char*>(std::malloc(4));
    EXPECT_STREQ(PalPathGetParent(small, "ab/cdefgh", 4), "ab");
    PalPathGetParent(small, "abcdefgh/x", 4);
    EXPECT_EQ(std::string(small, 4), "abcd");
    std::free(small);
}

TEST(PalPath, MakeAbsoluteJoinsTheWorkingDirectoryUnnormalised) {
    char cwd[1024], buf[2048];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    EXPECT_EQ(PalPathMakeAbsolute(buf, "../a/./b", sizeof buf), buf);
    EXPECT_EQ(std::string(buf), std::string(cwd) + "/../a/./b");
    char small[2] = "a";  // the working directory does not fit: "" and null
    EXPECT_EQ(PalPathMakeAbsolute(small, "x", sizeof small), nullptr);
    EXPECT_STREQ(small, "");
}

}  // namespace
