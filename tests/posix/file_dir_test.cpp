// Tests of files and directories: the failure records (all three fields),
// the mapping of open flags and permission bits, 64-bit sizes and offsets,
// the fixed formatting buffer, temporary files, directory streams, and
// ownership against real users when running as root.

#include "posix/filemap.h"

#include <fanout/palfile.h>
#include <fanout/palmemory.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <set>
#include <string>

namespace {

void ExpectRecord(PalError e, PalInt32 pal, PalInt32 native, PalInt32 where,
                  const std::string& what = "") {
    EXPECT_EQ(e.palError, pal) << what;
    EXPECT_EQ(e.nativeError, native) << what;
    EXPECT_EQ(e.traceLocation, where) << what;
}

mode_t CurrentUmask() {
    const mode_t mask = umask(0);
    umask(mask);
    return mask;
}

class PalFileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char tmpl[] = "/tmp/palfile.XXXXXX";
        ASSERT_NE(mkdtemp(tmpl), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string Path(const char* name) const { return dir_ + "/" + name; }
    // Opens (creating) a file for reading and writing.
    PalFileHandle Create(const char* name) {
        PalFileHandle h{nullptr};
        ExpectRecord(PalFileOpen(&h, Path(name).c_str(), PAL_OPEN_CREATE | PAL_OPEN_RDWR), 0, 0, 0,
                     name);
        return h;
    }
    std::string dir_;
};

TEST(PalFileMap, OpenFlags) {
    struct Case {
        PalInt32 oflag;
        int host;
    } cases[] = {
        {0x000, O_RDONLY},
        {0x001, O_RDONLY},
        {0x002, O_WRONLY},
        {0x004, O_RDWR},
        {0x006, 3},  // both access bits: the raw value 3 goes to the host
        {0x104, O_CREAT | O_RDWR},
        {0x10A, O_CREAT | O_WRONLY | O_APPEND},
        {0x8204, O_RDWR | O_TRUNC},  // 0x8000 has no effect
        {0x502, O_CREAT | O_EXCL | O_WRONLY},
    };
    for (const Case& c : cases) EXPECT_EQ(fanout::pal_open_flags(c.oflag), c.host) << c.oflag;
}

TEST(PalFileMap, PermissionBitsMapExactlyBothWays) {
    const PalUint32 layer[] = {0x001, 0x010, 0x100, 0x002, 0x020, 0x200, 0x004, 0x040, 0x400};
    const mode_t host[] = {0400, 0200, 0100, 0040, 0020, 0010, 0004, 0002, 0001};
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(fanout::pal_perm_to_host(layer[i]), host[i]) << i;
        EXPECT_EQ(fanout::pal_perm_from_host(host[i]), layer[i]) << i;
    }
    EXPECT_EQ(fanout::pal_perm_to_host(0x088), 0u);                         // unused bits
    EXPECT_EQ(fanout::pal_perm_from_host(S_IFREG | 07000 | 0777), 0x777u);  // no type/special
}

TEST_F(PalFileTest, NullArgumentRecords) {
    PalFileHandle none{nullptr};
    PalFileHandle h{nullptr};
    PalInt64 size = 0;
    PalUint32 count = 0;
    char buf[PAL_PATH_MAX];
    PalFileInfo info;
    PalUint32 perm = 0;
    PalDirHandle dh{nullptr};
    struct Case {
        const char* what;
        std::function<PalError()> call;
        PalInt32 pal, where;
    } cases[] = {
        {"GetInfo", [&] { return PalFileGetInfo(nullptr, &info); }, 21, 1},
        {"Open", [&] { return PalFileOpen(&h, nullptr, 1); }, 21, 1},
        {"Open foreign", [&] { return PalFileOpen(&h, "C:\\x", 1); }, 21, 2},
        {"Close", [&] { return PalFileClose(none); }, 21, 1},
        {"Remove", [&] { return PalFileRemove(nullptr); }, 21, 1},
        {"Remove foreign", [&] { return PalFileRemove("\\\\srv\\x"); }, 21, 2},
        {"Flush", [&] { return PalFileFlushBuffers(none); }, 21, 1},
        {"GetSize", [&] { return PalFileGetSize(none, &size); }, 21, 1},
        {"Read", [&] { return PalFileRead(none, buf, 1, &count); }, 21, 1},
        {"Write", [&] { return PalFileWrite(none, buf, 1, &count); }, 21, 1},
        {"SetSize", [&] { return PalFileSetSize(none, 1); }, 21, 1},
        {"Rename", [&] { return PalFileRename("a", nullptr); }, 21, 1},
        {"Rename foreign", [&] { return PalFileRename("a", "C:\\b"); }, 21, 2},
        {"SetOwner", [&] { return PalFileSetOwner(nullptr, "a"); }, 21, 1},
        {"SetOwner foreign", [&] { return PalFileSetOwner("root", "C:\\a"); }, 21, 3},
        {"GetOwner", [&] { return PalFileGetOwner(buf, nullptr, 8); }, 21, 1},
        {"GetOwner foreign", [&] { return PalFileGetOwner(buf, "C:\\a", 8); }, 21, 2},
        {"SetGroup", [&] { return PalFileSetGroup("root", nullptr); }, 21, 1},
        {"GetGroup", [&] { return PalFileGetGroup(nullptr, "a", 8); }, 21, 1},
        {"SetPermissions", [&] { return PalFileSetPermissions(0, nullptr); }, 21, 1},
        {"SetPermissions foreign", [&] { return PalFileSetPermissions(0, "C:\\a"); }, 21, 2},
        {"GetPermissions", [&] { return PalFileGetPermissions(&perm, nullptr); }, 21, 1},
        {"TempFilename", [&] { return PalFileTempFilename(nullptr, buf, 8); }, 21, 1},
        {"TempFilename foreign", [&] { return PalFileTempFilename("C:\\t", buf, 8); }, 21, 1},
        {"OpenTemporary", [&] { return PalFileOpenTemporary(nullptr, &h); }, 21, 1},
        {"SetLocation 0", [&] { return PalFileSetLocation(none, 0, 0); }, 21, 1},
        {"SetLocation 4", [&] { return PalFileSetLocation(none, 0, 4); }, 21, 1},
        {"GetLocation", [&] { return PalFileGetLocation(none, &size); }, 21, 0},
        {"Acl", [&] { return PalFileGetAcl(nullptr, "a", nullptr); }, -1, 0},
        {"Grant", [&] { return PalFileGrantPermission("u", 1, "a"); }, -1, 0},
        {"DirOpen", [&] { return PalDirOpen(&dh, nullptr); }, 21, 0},
        {"DirRead", [&] { return PalDirReadDirectory(buf, dh); }, 21, 0},
        {"DirClose", [&] { return PalDirClose(dh); }, 0, 0},
        {"DirCreate", [&] { return PalDirCreateDirectory(nullptr); }, 21, 0},
    };
    for (const Case& c : cases) ExpectRecord(c.call(), c.pal, 0, c.where, c.what);
    EXPECT_EQ(h.handle, nullptr);
    EXPECT_FALSE(PalDirIsDirectory(nullptr));
    EXPECT_EQ(PalFileAccessType(nullptr), 2);
}

TEST_F(PalFileTest, FailedOpenLeavesACellThatCloseReportsAsBadDescriptor) {
    PalFileHandle h{nullptr};
    ExpectRecord(PalFileOpen(&h, Path("missing").c_str(), PAL_OPEN_RDONLY), -4, ENOENT, 3);
    ASSERT_NE(h.handle, nullptr);
    EXPECT_EQ(*static_cast<PalInt32*>(h.handle), -1);
    PalInt64 size = 0;
    ExpectRecord(PalFileGetSize(h, &size), -4, EBADF, 2);
    EXPECT_EQ(size, -1);
    ExpectRecord(PalFileClose(h), -4, EBADF, 2);  // and the cell is freed (ASan)

    PalFileHandle x = Create("exists");
    ExpectRecord(PalFileClose(x), 0, 0, 0);
    ExpectRecord(PalFileOpen(&h, Path("exists").c_str(), 0x502), -4, EEXIST, 3);
    PalFileClose(h);
}

TEST_F(PalFileTest, BothAccessBitsGiveADescriptorThatCannotTransfer) {
    PalFileClose(Create("f"));
    PalFileHandle h{nullptr};
    PalError e = PalFileOpen(&h, Path("f").c_str(), 0x006);
    if (e.palError == PAL_OK) {  // Linux accepts access mode 3 but allows no I/O with it
        char c = 'x';
        PalUint32 count = 7;
        ExpectRecord(PalFileWrite(h, &c, 1, &count), -4, EBADF, 2);
        ExpectRecord(PalFileRead(h, &c, 1, &count), -4, EBADF, 2);
        EXPECT_EQ(count, 7u);  // untouched on failure
    } else {
        ExpectRecord(e, -4, EINVAL, 3);
    }
    PalFileClose(h);
}

TEST_F(PalFileTest, ReadWriteSeekAndLargeSizes) {
    PalFileHandle h = Create("data");
    PalUint32 count = 0;
    ExpectRecord(PalFileWrite(h, "hello", 5, &count), 0, 0, 0);
    EXPECT_EQ(count, 5u);
    char buf[16] = {};
    ExpectRecord(PalFileRead(h, buf, sizeof buf, &count), 0, 0, 0);
    EXPECT_EQ(count, 0u);  // at end of file
    ExpectRecord(PalFileSetLocation(h, 1, PAL_SEEK_BEGIN), 0, 0, 0);
    ExpectRecord(PalFileRead(h, buf, 3, &count), 0, 0, 0);
    EXPECT_EQ(std::string(buf, count), "ell");
    ExpectRecord(PalFileSetLocation(h, -1, PAL_SEEK_CURRENT), 0, 0, 0);
    PalInt64 at = 0;
    ExpectRecord(PalFileGetLocation(h, &at), 0, 0, 0);
    EXPECT_EQ(at, 3);
    ExpectRecord(PalFileSetLocation(h, -10, PAL_SEEK_BEGIN), -4, EINVAL, 2);

    // Offsets and sizes beyond 32 bits (a sparse file).
    const PalInt64 big = (PalInt64{5} << 30) + 3;
    ExpectRecord(PalFileSetSize(h, big), 0, 0, 0);
    PalInt64 size = 0;
    ExpectRecord(PalFileGetSize(h, &size), 0, 0, 0);
    EXPECT_EQ(size, big);
    ExpectRecord(PalFileSetLocation(h, -2, PAL_SEEK_END), 0, 0, 0);
    ExpectRecord(PalFileGetLocation(h, &at), 0, 0, 0);
    EXPECT_EQ(at, big - 2);
    ExpectRecord(PalFileWrite(h, "ab", 2, &count), 0, 0, 0);
    ExpectRecord(PalFileGetSize(h, &size), 0, 0, 0);
    EXPECT_EQ(size, big);
    ExpectRecord(PalFileFlushBuffers(h), 0, 0, 0);
    ExpectRecord(PalFileClose(h), 0, 0, 0);

    PalFileInfo info;
    ExpectRecord(PalFileGetInfo(Path("data").c_str(), &info), 0, 0, 0);
    EXPECT_EQ(info.size, big);
    EXPECT_EQ(info.mode, 0x011u & fanout::pal_perm_from_host(~CurrentUmask()));  // 0600
}

TEST_F(PalFileTest, PrintfNeverGrowsItsBuffer) {
    PalFileHandle h = Create("out");
    PalUint32 n = 99;
    ExpectRecord(PalFilePrintf(h, &n, "%s=%d\n", "key", 42), 0, 0, 0);
    EXPECT_EQ(n, 7u);
    std::string fits(4095, 'a');
    ExpectRecord(PalFilePrintf(h, &n, "%s", fits.c_str()), 0, 0, 0);
    EXPECT_EQ(n, 4095u);
    n = 99;
    for (size_t len : {4096u, 5000u}) {
        std::string big(len, 'b');
        ExpectRecord(PalFilePrintf(h, &n, "%s", big.c_str()), 7, 0, 0);
    }
    EXPECT_EQ(n, 99u);
    PalInt64 size = 0;
    PalFileGetSize(h, &size);
    EXPECT_EQ(size, 7 + 4095);  // the long outputs wrote nothing
    PalFileClose(h);
}

TEST_F(PalFileTest, InfoPermissionsRenameRemove) {
    PalFileClose(Create("f"));
    const std::string f = Path("f");
    ExpectRecord(PalFileSetPermissions(0x013, f.c_str()), 0, 0, 0);
    struct stat st;
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 07777, 0640u);
    PalUint32 perm = 0;
    ExpectRecord(PalFileGetPermissions(&perm, f.c_str()), 0, 0, 0);
    EXPECT_EQ(perm, 0x013u);
    // A refused change keeps palError 0; the errno is in nativeError.
    ExpectRecord(PalFileSetPermissions(0x013, Path("missing").c_str()), 0, ENOENT, 3);
    ExpectRecord(PalFileGetPermissions(&perm, Path("missing").c_str()), -4, ENOENT, 2);

    PalFileInfo info;
    ExpectRecord(PalFileGetInfo(f.c_str(), &info), 0, 0, 0);
    EXPECT_EQ(info.mtime, static_cast<PalUint64>(st.st_mtime) * 1000);
    EXPECT_EQ(info.ctime, static_cast<PalUint64>(st.st_ctime) * 1000);
    EXPECT_EQ(info.nlink, 1);
    EXPECT_EQ(info.mode, 0x013u);
    EXPECT_EQ(info.dev, static_cast<PalInt32>(st.st_dev));
    struct passwd* pw = getpwuid(geteuid());
    ASSERT_NE(pw, nullptr);
    EXPECT_STREQ(info.user, pw->pw_name);
    char name[64];
    ExpectRecord(PalFileGetOwner(name, f.c_str(), sizeof name), 0, 0, 0);
    EXPECT_STREQ(name, pw->pw_name);
    ExpectRecord(PalFileGetOwner(name, Path("missing").c_str(), sizeof name), -4, ENOENT, 3);
    ExpectRecord(PalFileGetInfo(Path("missing").c_str(), &info), -4, ENOENT, 2);

    // Backslashes are converted before the system sees the path.
    std::string back = dir_ + "\\g";
    ExpectRecord(PalFileRename(f.c_str(), back.c_str()), 0, 0, 0);
    EXPECT_TRUE(std::filesystem::exists(Path("g")));
    ExpectRecord(PalFileRename(f.c_str(), back.c_str()), -4, ENOENT, 3);
    ExpectRecord(PalFileRemove(Path("g").c_str()), 0, 0, 0);
    ExpectRecord(PalFileRemove(Path("g").c_str()), -4, ENOENT, 3);
}

TEST_F(PalFileTest, OwnerAndGroupAgainstRealUsers) {
    PalFileClose(Create("f"));
    const std::string f = Path("f");
    ExpectRecord(PalFileSetOwner("no-such-user-xyz", f.c_str()), -4, ENOENT, 2);
    ExpectRecord(PalFileSetGroup("no-such-group-xyz", f.c_str()), -4, ENOENT, 2);
    if (geteuid() != 0) GTEST_SKIP() << "changing owners needs root";
    struct passwd* nobody = getpwnam("nobody");
    struct group* nogroup = getgrnam("nogroup");
    if (nobody == nullptr || nogroup == nullptr) GTEST_SKIP() << "no nobody/nogroup here";
    const uid_t nobody_uid = nobody->pw_uid;
    const gid_t nobody_gid = nobody->pw_gid;
    const gid_t nogroup_gid = nogroup->gr_gid;

    ExpectRecord(PalFileSetGroup("root", f.c_str()), 0, 0, 0);
    ExpectRecord(PalFileSetOwner("nobody", f.c_str()), 0, 0, 0);
    struct stat st;
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, nobody_uid);
    EXPECT_EQ(st.st_gid, nobody_gid);  // the user's primary group comes along
    char name[64];
    ExpectRecord(PalFileGetOwner(name, f.c_str(), sizeof name), 0, 0, 0);
    EXPECT_STREQ(name, "nobody");

    ExpectRecord(PalFileSetOwner("root", f.c_str()), 0, 0, 0);
    ExpectRecord(PalFileSetGroup("nogroup", f.c_str()), 0, 0, 0);
    ASSERT_EQ(stat(f.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);  // only the group changed
    EXPECT_EQ(st.st_gid, nogroup_gid);
    ExpectRecord(PalFileGetGroup(name, f.c_str(), sizeof name), 0, 0, 0);
    EXPECT_STREQ(name, "nogroup");
    PalFileInfo info;
    ExpectRecord(PalFileGetInfo(f.c_str(), &info), 0, 0, 0);
    EXPECT_STREQ(info.user, "root");
    EXPECT_STREQ(info.group, "nogroup");
    ExpectRecord(PalFileSetOwner("root", Path("missing").c_str()), -4, ENOENT, 4);

    // An id without an entry reads as the empty name.
    ASSERT_EQ(chown(f.c_str(), 54321, 54321), 0);
    ExpectRecord(PalFileGetOwner(name, f.c_str(), sizeof name), 0, 0, 0);
    EXPECT_STREQ(name, "");
    ExpectRecord(PalFileGetGroup(name, f.c_str(), sizeof name), 0, 0, 0);
    EXPECT_STREQ(name, "");
}

TEST_F(PalFileTest, TemporaryFilesStayInTheirDirectoryAndVanish) {
    char name[PAL_PATH_MAX];
    ExpectRecord(PalFileTempFilename(dir_.c_str(), name, sizeof name), 0, 0, 0);
    EXPECT_EQ(std::string(name).rfind(dir_ + "/file", 0), 0u) << name;
    EXPECT_EQ(std::string(name).size(), dir_.size() + 11);
    EXPECT_FALSE(std::filesystem::exists(name));
    ExpectRecord(PalFileTempFilename((dir_ + "/").c_str(), name, sizeof name), 0, 0, 0);
    EXPECT_EQ(std::string(name).rfind(dir_ + "/file", 0), 0u) << name;
    ExpectRecord(PalFileTempFilename(Path("missing").c_str(), name, sizeof name), 2, 0, 2);

    PalFileHandle h{nullptr};
    ExpectRecord(PalFileOpenTemporary(dir_.c_str(), &h), 0, 0, 0);
    EXPECT_TRUE(std::filesystem::is_empty(dir_));
    PalUint32 count = 0;
    ExpectRecord(PalFileWrite(h, "abc", 3, &count), 0, 0, 0);
    struct stat st;
    ASSERT_EQ(fstat(fanout::pal_fd(h), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u & ~CurrentUmask());
    EXPECT_EQ(st.st_nlink, 0u);  // already unlinked
    ExpectRecord(PalFileClose(h), 0, 0, 0);
    ExpectRecord(PalFileOpenTemporary(Path("missing").c_str(), &h), 2, 0, 2);
}

TEST_F(PalFileTest, DirectoriesAndStreams) {
    const std::string sub = Path("sub");
    ExpectRecord(PalDirCreateDirectory(sub.c_str()), 0, 0, 0);
    ExpectRecord(PalDirCreateDirectory(sub.c_str()), -4, EEXIST, 1);
    struct stat st;
    ASSERT_EQ(stat(sub.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u & ~CurrentUmask());
    EXPECT_TRUE(PalDirIsDirectory(sub.c_str()));
    PalFileClose(Create("sub/a"));
    PalFileClose(Create("sub/b"));
    EXPECT_FALSE(PalDirIsDirectory(Path("sub/a").c_str()));
    EXPECT_FALSE(PalDirIsDirectory(Path("missing").c_str()));  // and a line on stderr
    ExpectRecord(PalDirRemoveDirectory(sub.c_str()), -4, ENOTEMPTY, 1);

    PalDirHandle dh{nullptr};
    ExpectRecord(PalDirOpen(&dh, sub.c_str()), 0, 0, 0);
    std::set<std::string> names;
    char name[PAL_PATH_MAX];
    PalError e;
    while ((e = PalDirReadDirectory(name, dh)).palError == PAL_OK) names.insert(name);
    ExpectRecord(e, 2, 0, 3);
    ExpectRecord(PalDirReadDirectory(name, dh), 2, 0, 3);
    EXPECT_EQ(names, (std::set<std::string>{".", "..", "a", "b"}));
    ExpectRecord(PalDirClose(dh), 0, 0, 0);

    ExpectRecord(PalDirOpen(&dh, Path("missing").c_str()), -4, ENOENT, 2);
    ASSERT_NE(dh.handle, nullptr);  // handed out all the same
    ExpectRecord(PalDirReadDirectory(name, dh), 21, 0, 0);
    ExpectRecord(PalDirClose(dh), 0, 0, 0);

    char saved[PAL_PATH_MAX];
    ExpectRecord(PalDirGetCurrentDirectory(saved), 0, 0, 0);
    ExpectRecord(PalDirSetCurrentDirectory(sub.c_str()), 0, 0, 0);
    ExpectRecord(PalDirGetCurrentDirectory(name), 0, 0, 0);
    EXPECT_EQ(std::string(name), sub);
    ExpectRecord(PalDirSetCurrentDirectory(Path("missing").c_str()), -4, ENOENT, 1);
    ExpectRecord(PalDirSetCurrentDirectory(saved), 0, 0, 0);

    ExpectRecord(PalFileRemove(Path("sub/a").c_str()), 0, 0, 0);
    ExpectRecord(PalFileRemove(Path("sub/b").c_str()), 0, 0, 0);
    ExpectRecord(PalDirRemoveDirectory(sub.c_str()), 0, 0, 0);
    ExpectRecord(PalDirRemoveDirectory(sub.c_str()), -4, ENOENT, 1);
}

TEST(PalFileStd, StandardHandlesHoldTheirDescriptors) {
    PalFileHandle std[3] = {};
    ExpectRecord(PalFileGetStdIn(&std[0]), 0, 0, 0);
    ExpectRecord(PalFileGetStdOut(&std[1]), 0, 0, 0);
    ExpectRecord(PalFileGetStdErr(&std[2]), 0, 0, 0);
    for (int fd = 0; fd < 3; ++fd) {
        EXPECT_EQ(fanout::pal_fd(std[fd]), fd);
        PalMemoryFree(std[fd].handle);  // the process keeps its descriptors open
    }
}

}  // namespace
