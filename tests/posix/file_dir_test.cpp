// Tests of files and directories: records (all three fields), flag, permission and seek mappings,
// 64-bit sizes and offsets, the fixed formatting buffer, and ownership (when root).

#include "posix/filemap.h"

#include <fanout/palfile.h>

#include <grp.h>
#include <pwd.h>

#include "pal_fixture.h"

namespace {

using pal_test::ExpectRecord;
using pal_test::kOk;
using pal_test::Record;
constexpr PalInt32 kSys = PAL_ERR_SYSTEM;
constexpr PalInt32 kArg = PAL_ERR_INVALID_ARGUMENT;

class PalFile : public pal_test::TempDir {
  protected:
    PalFileHandle Create(const std::string& name) {
        PalFileHandle h{nullptr};
        ExpectRecord(PalFileOpen(&h, Path(name).c_str(), PAL_OPEN_CREATE | PAL_OPEN_RDWR), kOk);
        return h;
    }
};

TEST(PalFileMap, OpenFlagsAndPermissionBits) {
    // Both access bits give the raw value 3, which the host refuses.
    // clang-format off
    const std::pair<PalInt32, int> flags[] = {
        {0x001, O_RDONLY}, {0x002, O_WRONLY}, {0x004, O_RDWR}, {0x006, 3},
        {0x104, O_CREAT | O_RDWR}, {0x10A, O_CREAT | O_WRONLY | O_APPEND},
        {0x8204, O_RDWR | O_TRUNC}, {0x502, O_CREAT | O_EXCL | O_WRONLY}};
    // clang-format on
    for (auto [oflag, host] : flags) EXPECT_EQ(fanout::pal_open_flags(oflag), host) << oflag;
    const std::pair<PalUint32, mode_t> perms[] = {{0x001, 0400}, {0x010, 0200}, {0x100, 0100},
                                                  {0x002, 0040}, {0x020, 0020}, {0x200, 0010},
                                                  {0x004, 0004}, {0x040, 0002}, {0x400, 0001}};
    for (auto [layer, host] : perms) {
        EXPECT_EQ(fanout::pal_perm_to_host(layer), host) << layer;
        EXPECT_EQ(fanout::pal_perm_from_host(host), layer) << layer;
    }
    EXPECT_EQ(fanout::pal_perm_to_host(0x088), 0u);                         // unused bits
    EXPECT_EQ(fanout::pal_perm_from_host(S_IFREG | 07000 | 0777), 0x777u);  // no type/special
}

// Rows run in order; the directory holds "f" and "d" when it is listed.
TEST_F(PalFile, Records) {
    PalFileClose(Create("f"));
    const std::string fPath = Path("f"), missingPath = Path("missing");
    const std::string slash = dir_ + "/";  // a trailing separator
    const char *f = fPath.c_str(), *missing = missingPath.c_str(), *dir = dir_.c_str();
    PalFileHandle none{nullptr}, bad{nullptr}, temp{nullptr}, stdio[3]{};
    PalInt64 size = 0;
    PalUint32 count = 0;
    char buf[PAL_PATH_MAX], name[PAL_PATH_MAX];
    PalFileInfo info;
    PalDirHandle dh{nullptr}, listing{nullptr};
    pal_test::ExpectRecords({
        {"Open", PalFileOpen(&bad, nullptr, 1), {kArg, 0, 1}},
        {"Open foreign", PalFileOpen(&bad, "C:\\x", 1), {kArg, 0, 2}},
        {"Open missing", PalFileOpen(&bad, missing, PAL_OPEN_RDONLY), {kSys, ENOENT, 3}},
        {"GetSize, failed open", PalFileGetSize(bad, &size), {kSys, EBADF, 2}},
        {"Close, failed open", PalFileClose(bad), {kSys, EBADF, 2}},  // frees the cell (ASan)
        {"Write null", PalFileWrite(none, buf, 1, &count), {kArg, 0, 1}},
        {"Remove foreign", PalFileRemove("\\\\srv\\x"), {kArg, 0, 2}},
        {"Remove", PalFileRemove(missing), {kSys, ENOENT, 3}},
        {"Rename to '\\'", PalFileRename(f, (dir_ + "\\g").c_str()), kOk},
        {"Rename back", PalFileRename((dir_ + "/g").c_str(), f), kOk},
        {"GetInfo", PalFileGetInfo(missing, &info), {kSys, ENOENT, 2}},
        {"SetPermissions foreign", PalFileSetPermissions(0, "C:\\a"), {kArg, 0, 2}},
        {"SetPermissions", PalFileSetPermissions(0x013, missing), {PAL_OK, ENOENT, 3}},
        {"SetPermissions", PalFileSetPermissions(0x013, f), kOk},
        {"GetPermissions", PalFileGetPermissions(&count, f), kOk},
        {"GetGroup", PalFileGetGroup(buf, missing, 8), {kSys, ENOENT, 3}},
        {"SetOwner foreign", PalFileSetOwner("root", "C:\\a"), {kArg, 0, 3}},
        {"SetOwner unknown", PalFileSetOwner("no-such-user-xyz", f), {kSys, ENOENT, 2}},
        {"SetGroup", PalFileSetGroup("root", missing), {kSys, ENOENT, 4}},
        {"GetLocation", PalFileGetLocation(none, &size), {kArg, 0, 0}},
        {"GetAcl", PalFileGetAcl(nullptr, "a", nullptr), {PAL_ERR_NOT_SUPPORTED, 0, 0}},
        {"GetStdIn", PalFileGetStdIn(&stdio[0]), kOk},
        {"GetStdOut", PalFileGetStdOut(&stdio[1]), kOk},
        {"GetStdErr", PalFileGetStdErr(&stdio[2]), kOk},
        {"TempFilename foreign", PalFileTempFilename("C:\\t", buf, 8), {kArg, 0, 1}},
        {"TempFilename", PalFileTempFilename(missing, buf, 8), {PAL_ERR_NO_ENTRY, 0, 2}},
        {"TempFilename", PalFileTempFilename(slash.c_str(), name, PAL_PATH_MAX), kOk},
        {"OpenTemporary", PalFileOpenTemporary(f, &temp), {PAL_ERR_NO_ENTRY, 0, 2}},
        {"OpenTemporary", PalFileOpenTemporary(dir, &temp), kOk},  // and unlinked at once
        {"DirCreate", PalDirCreateDirectory(f), {kSys, EEXIST, 1}},
        {"DirCreate", PalDirCreateDirectory((dir_ + "/d").c_str()), kOk},
        {"DirRemove", PalDirRemoveDirectory(dir), {kSys, ENOTEMPTY, 1}},
        {"DirSetCurrent", PalDirSetCurrentDirectory(missing), {kSys, ENOENT, 1}},
        {"DirOpen null", PalDirOpen(&dh, nullptr), {kArg, 0, 0}},
        {"DirOpen", PalDirOpen(&dh, missing), {kSys, ENOENT, 2}},  // the handle is set
        {"DirRead, failed open", PalDirReadDirectory(buf, dh), {kArg, 0, 0}},
        {"DirClose, failed open", PalDirClose(dh), kOk},  // frees the handle (ASan)
        {"DirOpen", PalDirOpen(&listing, dir), kOk},      // ".", "..", "d" and "f"
        {"DirRead 1", PalDirReadDirectory(buf, listing), kOk},
        {"DirRead 2", PalDirReadDirectory(buf, listing), kOk},
        {"DirRead 3", PalDirReadDirectory(buf, listing), kOk},
        {"DirRead 4", PalDirReadDirectory(buf, listing), kOk},
        {"DirRead, end", PalDirReadDirectory(buf, listing), {PAL_ERR_NO_ENTRY, 0, 3}},
        {"DirClose", PalDirClose(listing), kOk},
    });
    // What the rows left behind.
    for (int fd = 0; fd < 3; ++fd) EXPECT_EQ(fanout::pal_fd(stdio[fd]), fd);
    for (PalFileHandle& h : stdio) PalMemoryFree(h.handle);  // the descriptors stay open
    EXPECT_EQ(size, -1);                                     // GetSize on the failed open
    EXPECT_NE(dh.handle, nullptr);  // DirOpen hands the handle out although the open failed
    EXPECT_EQ(count, 0x013u);       // GetPermissions; the host's bits are 0640
    EXPECT_EQ(std::filesystem::status(f).permissions(), std::filesystem::perms(0640));
    EXPECT_EQ(std::string(name).rfind(dir_ + "/file", 0), 0u) << name;  // exactly one '/'
    EXPECT_EQ(std::string(name).size(), dir_.size() + 11) << name;
    EXPECT_TRUE(PalDirIsDirectory(dir));
    EXPECT_FALSE(PalDirIsDirectory(f));
    struct stat file, sub;  // the temporary file and the new directory are the owner's alone
    EXPECT_EQ(fstat(fanout::pal_fd(temp), &file) == 0 ? file.st_mode & 0777 : 0, 0700u);
    EXPECT_EQ(stat(Path("d").c_str(), &sub) == 0 ? sub.st_mode & 0777 : 0, 0700u);
    ExpectRecord(PalFileClose(temp), kOk);
}

TEST_F(PalFile, SeekOriginsAndSizesBeyond32Bits) {
    PalFileHandle h = Create("data");
    const PalInt64 big = (PalInt64{5} << 30) + 3;  // a sparse file past 4 GiB
    ExpectRecord(PalFileSetSize(h, big), kOk);
    // Offset, origin, record, the position afterwards.
    const std::tuple<PalInt64, PalInt32, Record, PalInt64> seeks[] = {
        {1, PAL_SEEK_BEGIN, kOk, 1},
        {PalInt64{1} << 32, PAL_SEEK_CURRENT, kOk, (PalInt64{1} << 32) + 1},
        {-2, PAL_SEEK_END, kOk, big - 2},
        {-10, PAL_SEEK_BEGIN, {kSys, EINVAL, 2}, big - 2},
        {0, 4, {kArg, 0, 1}, big - 2},
    };
    for (auto [offset, origin, want, after] : seeks) {
        ExpectRecord(PalFileSetLocation(h, offset, origin), want, std::to_string(origin));
        PalInt64 at = 0;
        ExpectRecord(PalFileGetLocation(h, &at), kOk);
        EXPECT_EQ(at, after) << origin;
    }
    PalUint32 count = 0;
    ExpectRecord(PalFileWrite(h, "ab", 2, &count), kOk);  // at 5 GiB + 1
    PalInt64 size = 0;
    ExpectRecord(PalFileGetSize(h, &size), kOk);
    EXPECT_EQ(size, big);
    ExpectRecord(PalFileFlushBuffers(h), kOk);
    ExpectRecord(PalFileClose(h), kOk);
    PalFileInfo info;
    ExpectRecord(PalFileGetInfo(Path("data").c_str(), &info), kOk);
    EXPECT_EQ(info.size, big);
    EXPECT_EQ(info.mode & ~0x011u, 0u);  // created 0600 (less the umask)
}

TEST_F(PalFile, PrintfNeverGrowsItsBuffer) {
    PalFileHandle h = Create("out");
    for (PalUint32 len : {4095u, 4096u, 5000u}) {
        PalUint32 n = 99;
        const bool fits = len < 4096;
        ExpectRecord(PalFilePrintf(h, &n, "%s", std::string(len, 'b').c_str()),
                     fits ? kOk : Record{PAL_ERR_TOO_LONG, 0, 0}, std::to_string(len));
        EXPECT_EQ(n, fits ? len : 99u);
    }
    PalInt64 size = 0;
    ExpectRecord(PalFileGetSize(h, &size), kOk);
    EXPECT_EQ(size, 4095);  // the long outputs wrote nothing
    PalFileClose(h);
}

TEST_F(PalFile, OwnerAndGroupAgainstRealUsers) {
    if (geteuid() != 0) GTEST_SKIP() << "changing owners needs root";
    const struct passwd* nobody = getpwnam("nobody");
    const struct group* nogroup = getgrnam("nogroup");
    if (nobody == nullptr || nogroup == nullptr) GTEST_SKIP() << "no nobody/nogroup here";
    PalFileClose(Create("f"));  // root's, group root
    const std::string path = Path("f");
    const char* f = path.c_str();
    char name[64];
    struct stat st;
    ExpectRecord(PalFileSetOwner("nobody", f), kOk);
    ASSERT_EQ(stat(f, &st), 0);  // the user's primary group comes along
    EXPECT_EQ(std::make_pair(st.st_uid, st.st_gid), std::make_pair(nobody->pw_uid, nobody->pw_gid));
    ExpectRecord(PalFileGetOwner(name, f, sizeof name), kOk);
    EXPECT_STREQ(name, "nobody");
    ExpectRecord(PalFileSetOwner("root", f), kOk);
    ExpectRecord(PalFileSetGroup("nogroup", f), kOk);
    ASSERT_EQ(stat(f, &st), 0);  // only the group changed
    EXPECT_EQ(std::make_pair(st.st_uid, st.st_gid), std::make_pair(uid_t{0}, nogroup->gr_gid));
    PalFileInfo info;
    ExpectRecord(PalFileGetInfo(f, &info), kOk);
    EXPECT_STREQ(info.user, "root");
    EXPECT_STREQ(info.group, "nogroup");
    ASSERT_EQ(chown(f, 54321, 54321), 0);  // ids without an entry: empty names
    ExpectRecord(PalFileGetGroup(name, f, sizeof name), kOk);
    EXPECT_STREQ(name, "");
}

}  // namespace
