/* pathname_test.cpp - path name editing, directory objects, enumeration and
 * directory creation. */
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "fanout/pathname.h"
#include "fanout/runtime.h"
#include "util/expect_raise.h"

namespace {

TEST(Pathname, SeparatorEditing)
{
    struct Edit {
        const char* in;
        const char* appended;  // after pathname_append_separator
        const char* removed;   // after pathname_remove_separator
    };
    const Edit edits[] = {
        {"", "/", ""},      {"/", "/", "/"},         {"a", "a/", "a"},
        {"a//", "a//", "a"}, {"//", "//", "/"},       {"/a/b/", "/a/b/", "/a/b"},
    };
    for (const Edit& e : edits) {
        char* p = pathname_new();
        std::strcpy(p, e.in);
        pathname_append_separator(p);
        EXPECT_STREQ(p, e.appended) << e.in;
        std::strcpy(p, e.in);
        pathname_remove_separator(p);
        EXPECT_STREQ(p, e.removed) << e.in;
        pathname_delete(p);
    }
    pathname_append_separator(nullptr);
    pathname_remove_separator(nullptr);
    EXPECT_EQ(pathname_max_length(), 1024u);
    EXPECT_EQ(pathname_max_component_length(), 1024u);
}

TEST(Pathname, CloneAppendAndNullArguments)
{
    char* p = pathname_new();
    for (int i = 0; i < 1024; ++i) {
        ASSERT_EQ(p[i], '\0');
    }
    std::strcpy(p, "/work");
    EXPECT_EQ(pathname_append(p, "mstat"), p);
    EXPECT_STREQ(p, "/work/mstat");
    // The separator goes in before the null argument is noticed.
    EXPECT_RAISES(pathname_append(p, nullptr), 33, {});
    EXPECT_STREQ(p, "/work/mstat/");

    char* q = pathname_clone_and_append(p, "x.sts");
    EXPECT_STREQ(q, "/work/mstat/x.sts");
    EXPECT_STREQ(p, "/work/mstat/");
    pathname_delete(q);
    EXPECT_RAISES(pathname_clone(nullptr), 32, {});
    EXPECT_RAISES(pathname_clone_and_append(nullptr, "a"), 32, {});
    EXPECT_RAISES(pathname_clone_and_append("a", nullptr), 33, {});
    pathname_delete(p);
}

TEST(Pathname, GetNameAndBuildFilename)
{
    EXPECT_STREQ(pathname_get_name("a/b\\c"), "b\\c");  // '/' is searched first
    EXPECT_STREQ(pathname_get_name("a\\b"), "b");
    EXPECT_STREQ(pathname_get_name("abc"), "abc");
    EXPECT_STREQ(pathname_get_name("dir/"), "");

    char* f = pathname_build_filename("/tmp", "/", "x.dat");
    EXPECT_STREQ(f, "/tmp/x.dat");
    mg_free(f);
    EXPECT_EQ(pathname_build_filename("a", nullptr, "c"), nullptr);
}

class DirectoryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char tmpl[] = "/tmp/fanout-dir-XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        root_ = tmpl;
    }
    void TearDown() override
    {
        for (const std::string& f : made_) {
            if (unlink(f.c_str()) != 0) {
                rmdir(f.c_str());
            }
        }
        rmdir(root_.c_str());
    }
    std::string touch(const char* name)
    {
        std::string p = root_ + "/" + name;
        close(open(p.c_str(), O_WRONLY | O_CREAT, 0600));
        made_.insert(made_.begin(), p);
        return p;
    }
    std::vector<std::string> list(const char* pattern)
    {
        std::vector<std::string> names;
        Directory* d = dir_new(root_.c_str());
        DirEntryEnum* e = dir_entries(d, pattern);
        EXPECT_NE(e, nullptr);
        while (dir_entry_enum_has_more_elements(e)) {
            names.emplace_back(dir_entry_enum_next_element(e));
        }
        dir_entry_enum_delete(e);
        dir_delete(d);
        std::sort(names.begin(), names.end());
        return names;
    }
    std::string root_;
    std::vector<std::string> made_;
};

TEST_F(DirectoryTest, EnumerationFiltersAndSkipsDots)
{
    EXPECT_TRUE(list("*").empty());  // only "." and ".."
    touch("a.dat");
    touch("b.dat");
    touch("c.txt");
    touch(".hidden");
    EXPECT_EQ(list("*.dat"), (std::vector<std::string>{"a.dat", "b.dat"}));
    EXPECT_EQ(list("*"), (std::vector<std::string>{".hidden", "a.dat", "b.dat", "c.txt"}));
    EXPECT_TRUE(list("[").empty());

    Directory* d = dir_new(root_.c_str());
    EXPECT_STREQ(dir_get_pathname(d), root_.c_str());
    dir_delete(d);
    d = dir_new((root_ + "/missing").c_str());
    EXPECT_EQ(dir_entry_enum_new(d, "*"), nullptr);
    dir_delete(d);
    EXPECT_EQ(dir_entry_enum_has_more_elements(nullptr), 0);
    dir_entry_enum_delete(nullptr);
    dir_delete(nullptr);
}

TEST_F(DirectoryTest, CreateAndTest)
{
    const std::string sub = root_ + "/sub";
    dir_create_directory(sub.c_str());
    made_.insert(made_.begin(), sub);
    struct stat st;
    ASSERT_EQ(stat(sub.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0077u, 0u);  // 0700, whatever the umask adds
    EXPECT_RAISES(dir_create_directory(sub.c_str()), 10, {sub});
    EXPECT_RAISES(dir_create_directory(nullptr), 9, {});

    const std::string file = touch("plain");
    EXPECT_EQ(dir_is_directory(sub.c_str()), 1);
    EXPECT_EQ(dir_is_directory((sub + "//").c_str()), 1);
    EXPECT_EQ(dir_is_directory("/"), 1);
    EXPECT_EQ(dir_is_directory(file.c_str()), 0);
    EXPECT_EQ(dir_is_directory((root_ + "/missing").c_str()), 0);
    EXPECT_EQ(dir_is_directory(nullptr), 0);
}

}  // namespace
