// Runs fanout-depot on scratch depots and compares what it prints with the
// catalogue texts it must use, its exit codes, and what it leaves on disk.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "fanout/catalog.h"
#include "fanout/depot.h"
#include "fanout/exception.h"
#include "fanout/properties.h"
#include "fanout/types.h"

namespace fs = std::filesystem;

namespace {

struct Result {
    int status = -1;
    std::string out, err;
};

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::string Msg(int number, std::vector<std::string> args = {}) {
    std::vector<const char*> argv;
    for (auto& a : args) argv.push_back(a.c_str());
    char* text = ex_render_text(Fanout2Catalog[number], argv.data(),
                                static_cast<uint32_t>(argv.size()));
    std::string s = text;
    mg_free(text);
    return s;
}

class FanoutDepotTool : public ::testing::Test {
protected:
    void SetUp() override {
        char tmpl[] = "/tmp/fanout-tool-XXXXXX";
        root_ = mkdtemp(tmpl);
        depot_ = root_ + "/depot";
        ASSERT_EQ(getcwd(cwd_, sizeof cwd_), cwd_);
        fanout_init();
    }
    void TearDown() override {
        // The depot's locks are semaphore sets keyed on its lock files.
        for (const char* lk : {"depot.lk", "entry.lk", "enum.lk"}) {
            for (const std::string& dir : {depot_, root_}) {
                const std::string path = dir + "/" + lk;
                if (access(path.c_str(), F_OK) != 0) continue;
                const int id = semget(ftok(path.c_str(), 1), 0, 0);
                if (id >= 0) semctl(id, 0, IPC_RMID);
            }
        }
        ASSERT_EQ(chdir(cwd_), 0);
        fs::remove_all(root_);
    }

    // Runs the tool with `args`, capturing its output streams.
    Result Run(const std::vector<std::string>& args) {
        const std::string out = root_ + "/stdout", err = root_ + "/stderr";
        pid_t pid = fork();
        if (pid == 0) {
            int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            int e = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(o, 1);
            dup2(e, 2);
            std::vector<char*> argv{const_cast<char*>("fanout-depot")};
            for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(FANOUT_DEPOT_TOOL, argv.data());
            _exit(127);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        Result r;
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.out = Slurp(out);
        r.err = Slurp(err);
        return r;
    }

    std::string Sample(const std::string& name, size_t bytes) {
        const std::string path = root_ + "/" + name;
        std::ofstream(path, std::ios::binary) << std::string(bytes, 'x');
        return path;
    }

    size_t FilesEndingIn(const std::string& suffix) {
        size_t n = 0;
        for (auto& e : fs::directory_iterator(depot_)) {
            const std::string name = e.path().filename().string();
            if (name.size() > suffix.size() &&
                name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0) {
                ++n;
            }
        }
        return n;
    }

    std::string root_, depot_;
    char cwd_[4096] = {};
};

TEST_F(FanoutDepotTool, HelpAndUsageErrors) {
    const std::string usage = Msg(134, std::vector<std::string>(8, "fanout-depot"));
    for (const char* help : {"help", "--help"}) {
        const Result r = Run({help});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out, usage);
    }
    const std::vector<std::vector<std::string>> bad = {
        {}, {depot_}, {depot_, "frobnicate"}, {depot_, "add", "a^1"}, {depot_, "delete"},
        {depot_, "purge", "--all"}, {depot_, "list", "a^1", "b^2"}, {depot_, "--size"}};
    for (const auto& args : bad) {
        const Result r = Run(args);
        EXPECT_EQ(r.status, 2) << args.size();
        EXPECT_NE(r.err.find(usage), std::string::npos);
    }
}

TEST_F(FanoutDepotTool, RefusalsAreOneLineWithTheCatalogueText) {
    const std::string file = Sample("seg.bin", 10);
    struct Case {
        std::vector<std::string> args;
        std::string err;
    };
    const Case cases[] = {
        {{depot_, "add", "noversion", file}, "fanout-depot: " + Msg(166)},
        {{depot_, "add", "^1", file}, "fanout-depot: " + Msg(166)},
        {{depot_, "delete", "a^1"}, "fanout-depot: " + Msg(158, {"a^1"})},
        {{depot_, "list", "a^1"}, "fanout-depot: " + Msg(170, {"a^1"})},
    };
    for (const auto& c : cases) {
        const Result r = Run(c.args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.err, c.err);
    }
    // Failures without a catalogue text still say what went wrong in a line.
    for (const auto& args : std::vector<std::vector<std::string>>{
             {depot_, "add", "a^1", root_ + "/missing"},
             {depot_, "add", "a^1", "elsewhere.example:" + file},
             {file + "/depot", "describe"}}) {
        const Result r = Run(args);
        EXPECT_EQ(r.status, 1) << args[0];
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
}

TEST_F(FanoutDepotTool, AddListDescribeDelete) {
    const std::string file = Sample("seg.bin", 1500);
    Result r = Run({depot_, "add", "seg^1.0", "localhost:" + file});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(FilesEndingIn(".xml"), 1u);
    EXPECT_EQ(FilesEndingIn(".dat"), 1u);

    r = Run({depot_, "list"});
    ASSERT_EQ(r.status, 0);
    std::istringstream lines(r.out);
    std::string header, row;
    std::getline(lines, header);
    std::getline(lines, row);
    for (int n = 135; n <= 138; ++n) EXPECT_NE(header.find(Msg(n)), std::string::npos);
    EXPECT_EQ(header.substr(header.size() - 11), "Update time");
    EXPECT_EQ(row.rfind("seg ", 0), 0u);
    EXPECT_NE(row.find(" 1.0 "), std::string::npos);
    EXPECT_NE(row.find(" 2  "), std::string::npos);  // 1500 bytes are 2 KiB

    r = Run({depot_, "list", "seg^1.0", "-l"});
    ASSERT_EQ(r.status, 0);
    const std::string expectedStart = Msg(142, {"1"}) + Msg(143, {"seg"}) + Msg(144, {"1.0"}) +
                                      Msg(145, {"1500", "100"});
    EXPECT_EQ(r.out.rfind(expectedStart, 0), 0u) << r.out;
    for (int n = 147; n <= 151; ++n) EXPECT_NE(r.out.find(Msg(n)), std::string::npos) << n;
    EXPECT_NE(r.out.find(Msg(154, {"1"}) + Msg(155, {"permanent"})), std::string::npos);

    r = Run({depot_, "--size", "100", "describe"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out, Msg(159, {depot_}) + Msg(160, {"100"}) + Msg(161, {"0"}) +
                         Msg(162, {"2"}) + Msg(163, {"2"}) + Msg(164, {"98"}));

    // A second add of a complete segment reuses it.
    r = Run({depot_, "add", "seg^1.0", file});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(FilesEndingIn(".xml"), 1u);

    r = Run({depot_, "delete", "seg^1.0"});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(FilesEndingIn(".xml") + FilesEndingIn(".dat"), 0u);
}

TEST_F(FanoutDepotTool, FailedAddLeavesNoHalfEntry) {
    const std::string file = Sample("big.bin", 5000);
    Result r = Run({depot_, "--size", "3", "add", "big^1", file});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "fanout-depot: " + Msg(6, {"5"}));
    ASSERT_EQ(Run({depot_, "add", "small^1", Sample("small.bin", 4000)}).status, 0);
    r = Run({depot_, "--size", "6", "add", "big^1", file});
    EXPECT_EQ(r.err, "fanout-depot: " + Msg(7, {"5"}));
    EXPECT_EQ(FilesEndingIn(".xml"), 1u);
    EXPECT_EQ(FilesEndingIn(".dat"), 1u);
}

TEST_F(FanoutDepotTool, DeleteRefusesEntriesInProgressOrInUse) {
    // Make one entry in progress and one in use through the library, working
    // in the depot directory as the tool does so that both share the locks.
    ASSERT_EQ(Run({depot_, "add", "used^1", Sample("u.bin", 10)}).status, 0);
    ASSERT_EQ(chdir(depot_.c_str()), 0);
    DepotHandle* h = nullptr;
    DepotNew(&h, depot_.c_str(), 0);
    ASSERT_NE(h, nullptr);
    ASSERT_NE(DepotAddEntry(h, "busy", "1", nullptr, 0), nullptr);
    DepotEntry* used = DepotGetEntry(h, "used", "1");
    ASSERT_NE(used, nullptr);
    EXPECT_EQ(DepotEntryChangeState(h, used, 2).palError, PAL_OK);
    DepotFree(h);

    Result r = Run({depot_, "delete", "busy^1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "fanout-depot: " + Msg(156, {"busy^1"}));
    r = Run({depot_, "delete", "used^1"});
    EXPECT_EQ(r.err, "fanout-depot: " + Msg(157, {"used^1"}));
    EXPECT_EQ(FilesEndingIn(".xml"), 2u);
    r = Run({depot_, "describe"});
    EXPECT_NE(r.out.find(Msg(161, {"0"})), std::string::npos);  // an empty entry in progress
}

TEST_F(FanoutDepotTool, PurgeExpiredRemovesOnlyPastDeadlines) {
    ASSERT_EQ(Run({depot_, "add", "old^1", Sample("o.bin", 10), "--deadline", "1000"}).status, 0);
    ASSERT_EQ(Run({depot_, "add", "new^1", Sample("n.bin", 10), "--deadline", "2100/01/01"}).status,
              0);
    ASSERT_EQ(Run({depot_, "purge", "--expired"}).status, 0);
    EXPECT_EQ(Run({depot_, "list", "old^1"}).status, 1);
    EXPECT_EQ(Run({depot_, "list", "new^1"}).status, 0);
    // A plain purge keeps entries that still have references.
    ASSERT_EQ(Run({depot_, "purge"}).status, 0);
    EXPECT_EQ(Run({depot_, "list", "new^1"}).status, 0);
}

TEST_F(FanoutDepotTool, ImageWritesDataAndTableOfContents) {
    const std::string file = Sample("img.bin", 64);
    const std::string images = root_ + "/cdrom";
    Result r = Run({depot_, "image", "img^2", file, images});
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    EXPECT_EQ(Slurp(images + "/img.bin"), std::string(64, 'x'));

    Properties toc{};
    properties_load_without_len(&toc, (images + "/img^2.toc").c_str());
    Properties* segment = properties_get_properties(&toc, "segment");
    EXPECT_STREQ(properties_get_string(segment, "id"), "img");
    EXPECT_STREQ(properties_get_string(segment, "version"), "2");
    EXPECT_EQ(std::string(properties_get_string(segment, "location")), images + "/img.bin");
    EXPECT_EQ(properties_get_long(segment, "size"), 64);
    kel_free_generic(&toc, TC_Kel_Fanout2_Properties);

    // Into the depot's own directory: the warning, and the image all the same.
    r = Run({depot_, "image", "img^3", file, depot_});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, Msg(201));
    EXPECT_TRUE(fs::exists(depot_ + "/img^3.toc"));
}

}  // namespace
