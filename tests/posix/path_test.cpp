// Tests of the path-name operations: which paths count as absolute and
// native, how they split into parent and name, and the deliberate oddities
// ("Failure" for a bare name, the empty string counting as absolute).

#include <fanout/palpath.h>

#include <gtest/gtest.h>

#include <stdlib.h>
#include <unistd.h>

#include <cstring>
#include <string>

namespace {

TEST(PalPath, ClassifiesPrefixes) {
    struct Case {
        const char* path;
        bool absolute;
        bool native;
    } cases[] = {
        {"", true, false},  // passes the root test, yet does not begin with '/'
        {"/", true, true},         {"/usr/lib", true, true},   {"a/b", false, true},
        {"a\\b", false, true},     {"\\single", false, true},  {"\\\\server\\share", true, false},
        {"C:\\temp", true, false}, {"dir/x:\\y", true, false},  // ":\\" anywhere counts
        {"C:/temp", false, true},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(PalPathIsPathAbsolute(c.path) != 0, c.absolute) << c.path;
        EXPECT_EQ(PalPathIsPrefixNative(c.path) != 0, c.native) << c.path;
    }
    EXPECT_FALSE(PalPathIsPathAbsolute(nullptr));
}

TEST(PalPath, GetPrefixCutsToTheBuffer) {
    struct Case {
        const char* path;
        PalUint32 len;
        const char* want;  // null: no prefix
    } cases[] = {
        {"/usr/lib", 64, "/usr"},
        {"/x", 64, "/x"},
        {"/usr/lib", 3, "/u"},
        {"/usr/lib", 5, "/usr"},
        {"\\\\srv\\share\\f", 64, "\\\\srv"},
        {"C:\\temp\\x", 64, "C:"},
        {"a/b", 64, nullptr},
    };
    for (const Case& c : cases) {
        char buf[64];
        std::memset(buf, '#', sizeof buf);
        PalChar* r = PalPathGetPrefix(buf, c.path, c.len);
        if (c.want == nullptr) {
            EXPECT_EQ(r, nullptr) << c.path;
            EXPECT_EQ(buf[0], '#') << c.path;  // left untouched
        } else {
            ASSERT_EQ(r, buf) << c.path;
            EXPECT_STREQ(buf, c.want) << c.path << " len " << c.len;
        }
    }
    char one = '#';
    EXPECT_EQ(PalPathGetPrefix(&one, "/usr", 0), &one);
    EXPECT_EQ(one, '#');
}

TEST(PalPath, NameAndParent) {
    struct Case {
        const char* path;
        const char* name;
        const char* parent;
    } cases[] = {
        {"dir/file", "file", "dir"}, {"file", "Failure", "file"},  // no separator: "Failure" / its
                                                                   // own parent
        {"a/b\\c", "c", "a/b"},  // the later separator wins, whatever its kind
        {"a\\b/c", "c", "a\\b"},     {"a/b/c", "c", "a/b"},       {"a\\b", "b", "a"},
        {"/file", "file", ""},       {"dir/", "", "dir"},
    };
    for (const Case& c : cases) {
        char buf[64];
        EXPECT_STREQ(PalPathGetName(buf, c.path, sizeof buf), c.name) << c.path;
        EXPECT_STREQ(PalPathGetParent(buf, c.path, sizeof buf), c.parent) << c.path;
    }
    char buf[8];
    EXPECT_STREQ(PalPathGetName(buf, nullptr, sizeof buf), "Failure");
    EXPECT_STREQ(PalPathGetParent(buf, nullptr, sizeof buf), "");
    EXPECT_EQ(PalPathGetName(nullptr, "a/b", 8), nullptr);
    EXPECT_EQ(PalPathGetParent(nullptr, "a/b", 8), nullptr);
}

TEST(PalPath, ParentOfATruncatedCopyStaysInTheBuffer) {
    // The copy fills the bound without a terminator; the separator search
    // must stop at the bound (ASan checks that nothing beyond is read).
    char* buf = static_cast<char*>(std::malloc(4));
    ASSERT_NE(buf, nullptr);
    PalPathGetParent(buf, "ab/cdefgh", 4);
    EXPECT_STREQ(buf, "ab");
    PalPathGetParent(buf, "abcdefgh/x", 4);
    EXPECT_EQ(std::string(buf, 4), "abcd");
    std::free(buf);
}

TEST(PalPath, LocalizeConvertsNativeAndRefusesForeign) {
    struct Case {
        const char* in;
        const char* out;  // null: refused, unchanged
    } cases[] = {
        {"a\\b/c", "a/b/c"},      {"/a\\b", "/a/b"},          {"plain", "plain"},
        {"C:\\temp\\x", nullptr}, {"\\\\server\\x", nullptr},
    };
    for (const Case& c : cases) {
        char buf[64];
        std::strcpy(buf, c.in);
        PalChar* r = PalPathLocalize(buf);
        if (c.out == nullptr) {
            EXPECT_EQ(r, nullptr) << c.in;
            EXPECT_STREQ(buf, c.in);
        } else {
            EXPECT_EQ(r, buf) << c.in;
            EXPECT_STREQ(buf, c.out);
        }
    }
    EXPECT_EQ(PalPathLocalize(nullptr), nullptr);
}

class PalPathCwd : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_NE(getcwd(saved_, sizeof saved_), nullptr);
        char tmpl[] = "/tmp/palpath.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
        ASSERT_EQ(chdir(dir_.c_str()), 0);
    }
    void TearDown() override {
        EXPECT_EQ(chdir(saved_), 0);
        rmdir(dir_.c_str());
    }
    char saved_[1024];
    std::string dir_;
};

TEST_F(PalPathCwd, MakeAbsoluteJoinsTheWorkingDirectory) {
    char buf[1024];
    EXPECT_EQ(PalPathMakeAbsolute(buf, "x", sizeof buf), buf);
    EXPECT_EQ(std::string(buf), dir_ + "/x");
    EXPECT_EQ(PalPathMakeAbsolute(buf, "../a/./b", sizeof buf), buf);  // not normalised
    EXPECT_EQ(std::string(buf), dir_ + "/../a/./b");
    EXPECT_EQ(PalPathMakeAbsolute(buf, "/etc/x", sizeof buf), buf);
    EXPECT_STREQ(buf, "/etc/x");
    EXPECT_EQ(PalPathMakeAbsolute(buf, "C:\\x", sizeof buf), buf);  // absolute: copied as is
    EXPECT_STREQ(buf, "C:\\x");

    // The working directory does not fit: "" and null.
    char small[4] = "abc";
    EXPECT_EQ(PalPathMakeAbsolute(small, "x", sizeof small), nullptr);
    EXPECT_STREQ(small, "");
    EXPECT_EQ(PalPathMakeAbsolute(nullptr, "x", 8), nullptr);
}

}  // namespace
