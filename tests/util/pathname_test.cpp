/* pathname_test.cpp - path name editing, directory enumeration and creation. */
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <string>

#include "fanout/pathname.h"
#include "fanout/runtime.h"
#include "util/expect_raise.h"

namespace {

TEST(Pathname, EditingAndNullArguments) {
    const struct {
        const char *in, *appended, *removed;
    } edits[] = {
        {"", "/", ""},       {"/", "/", "/"},   {"a", "a/", "a"},
        {"a//", "a//", "a"}, {"//", "//", "/"}, {"/a/b/", "/a/b/", "/a/b"},
    };
    char* p = pathname_new();
    for (const auto& e : edits) {
        pathname_append_separator(std::strcpy(p, e.in));
        EXPECT_STREQ(p, e.appended) << e.in;
        pathname_remove_separator(std::strcpy(p, e.in));
        EXPECT_STREQ(p, e.removed) << e.in;
    }
    std::strcpy(p, "/work");
    EXPECT_EQ(pathname_append(p, "mstat"), p);
    EXPECT_RAISES(pathname_append(p, nullptr), 33, {});
    EXPECT_STREQ(p, "/work/mstat/");  // the separator went in before the check
    char* q = pathname_clone_and_append(p, "x.sts");
    EXPECT_STREQ(q, "/work/mstat/x.sts");
    EXPECT_STREQ(p, "/work/mstat/");
    pathname_delete(q);
    pathname_delete(p);
    EXPECT_RAISES(pathname_clone(nullptr), 32, {});
    EXPECT_RAISES(pathname_clone_and_append(nullptr, "a"), 32, {});
    EXPECT_RAISES(pathname_clone_and_append("a", nullptr), 33, {});

    EXPECT_STREQ(pathname_get_name("a/b\\c"), "b\\c");  // '/' is searched first
    EXPECT_STREQ(pathname_get_name("a\\b"), "b");
    EXPECT_STREQ(pathname_get_name("abc"), "abc");
    char* f = pathname_build_filename("/tmp", "/", "x.dat");
    EXPECT_STREQ(f, "/tmp/x.dat");
    mg_free(f);
    EXPECT_EQ(pathname_build_filename("a", nullptr, "c"), nullptr);
}

TEST(Directory, EnumerateCreateAndTest) {
    using Names = std::multiset<std::string>;
    char root[] = "/tmp/fanout-dir-XXXXXX";
    ASSERT_NE(mkdtemp(root), nullptr);
    const std::string sub = std::string(root) + "/sub", missing = std::string(root) + "/missing";
    auto list = [&](const char* pattern) {
        Names names;
        Directory* d = dir_new(root);
        DirEntryEnum* e = dir_entries(d, pattern);
        while (dir_entry_enum_has_more_elements(e)) {
            names.insert(dir_entry_enum_next_element(e));
        }
        dir_entry_enum_delete(e);
        dir_delete(d);
        return names;
    };
    EXPECT_EQ(list("*"), Names{});  // only "." and ".."
    for (const char* name : {"a.dat", "b.dat", "c.txt", ".hidden"}) {
        std::ofstream{std::string(root) + "/" + name};
    }
    EXPECT_EQ(list("*.dat"), (Names{"a.dat", "b.dat"}));
    EXPECT_EQ(list("*"), (Names{".hidden", "a.dat", "b.dat", "c.txt"}));
    EXPECT_EQ(list("["), Names{});  // a malformed pattern matches nothing
    Directory* d = dir_new(missing.c_str());
    EXPECT_EQ(dir_entry_enum_new(d, "*"), nullptr);
    dir_delete(d);
    EXPECT_EQ(dir_entry_enum_has_more_elements(nullptr), 0);

    const mode_t saved = umask(0);
    dir_create_directory(sub.c_str());
    umask(saved);
    struct stat st {};
    EXPECT_EQ(stat(sub.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777u, 0700u);
    EXPECT_RAISES(dir_create_directory(sub.c_str()), 10, {sub});
    EXPECT_RAISES(dir_create_directory(nullptr), 9, {});
    EXPECT_EQ(dir_is_directory((sub + "//").c_str()), 1);
    EXPECT_EQ(dir_is_directory("/"), 1);
    EXPECT_EQ(dir_is_directory("/dev/null"), 0);
    EXPECT_EQ(dir_is_directory(missing.c_str()), 0);
    EXPECT_EQ(dir_is_directory(nullptr), 0);
    std::filesystem::remove_all(root);
}

}  // namespace
