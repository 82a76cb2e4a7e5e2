// Runs fanout-depot on scratch depots and compares what it prints with the
// catalogue texts it must use, its exit codes, and what it leaves on disk.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <pty.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "fanout/catalog.h"
#include "fanout/depot.h"
#include "fanout/exception.h"
#include "fanout/palmemory.h"
#include "fanout/properties.h"
#include "fanout/types.h"

namespace fs = std::filesystem;

namespace {

using Args = std::vector<std::string>;

std::string Slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

struct Result {
    int status = -1;
    std::string out, err;
};

std::string Msg(int number, const Args& args = {}) {
    std::vector<const char*> argv;
    for (auto& a : args) argv.push_back(a.c_str());
    char* text =
        ex_render_text(Fanout2Catalog[number], argv.data(), static_cast<uint32_t>(argv.size()));
    std::string s = text;
    mg_free(text);
    return s;
}

// In a forked child: runs the tool with `args`.
[[noreturn]] void Exec(const Args& args) {
    std::vector<char*> argv{const_cast<char*>("fanout-depot")};
    for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(FANOUT_DEPOT_TOOL, argv.data());
    _exit(127);
}

int ExitCode(pid_t pid) {
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

// The name a key's first entry gets: "<bucket>.0".
std::string FirstName(const std::string& id, const std::string& version) {
    PalChar* bucket = DepotFindBucket(id.c_str(), version.c_str());
    std::string name = std::string(bucket) + ".0";
    PalMemoryFree(bucket);
    return name;
}

// Replaces the first `from` in the file at `path` with `to`; with `from` "<location>", replaces
// the entry's whole location instead.
void Edit(const std::string& path, const std::string& from, const std::string& to) {
    std::string text = Slurp(path);
    const size_t at = text.find(from);
    const size_t n = from == "<location>" ? text.find("</location>") - at - 10 : from.size();
    text.replace(from == "<location>" ? at + 10 : at, n, to);
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
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
        for (const auto& e : fs::recursive_directory_iterator(root_)) {
            if (!e.is_regular_file() || e.path().extension() != ".lk") continue;
            const int id = semget(ftok(e.path().c_str(), 1), 0, 0);
            if (id >= 0) semctl(id, 0, IPC_RMID);
        }
        ASSERT_EQ(chdir(cwd_), 0);
        fs::remove_all(root_);
    }

    // Runs the tool with "NAME=value" settings `env`; with `onTerminal`, standard error is a
    // pseudo-terminal, read until the tool has closed it.
    Result Run(const Args& args, const Args& env = {}, bool onTerminal = false) {
        const std::string out = root_ + "/stdout", err = root_ + "/stderr";
        int terminal = -1;
        const pid_t pid = onTerminal ? forkpty(&terminal, nullptr, nullptr, nullptr) : fork();
        if (pid == 0) {
            for (const auto& e : env) putenv(const_cast<char*>(e.c_str()));
            dup2(open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 1);
            if (!onTerminal) dup2(open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600), 2);
            Exec(args);
        }
        Result r;
        if (pid < 0) return r;
        char buffer[4096];
        while (onTerminal) {  // ends with EIO once the last holder of the terminal is gone
            const ssize_t n = read(terminal, buffer, sizeof buffer);
            if (n > 0) r.err.append(buffer, static_cast<size_t>(n));
            if (n == 0 || (n < 0 && errno != EINTR)) break;
        }
        if (onTerminal) close(terminal);
        r.status = ExitCode(pid);
        r.out = Slurp(out);
        if (!onTerminal) r.err = Slurp(err);
        return r;
    }

    // Runs the tool with `line` split at spaces; "@" starts the depot's path, "%" a scratch path.
    Result Cmd(const std::string& line, const Args& env = {}, bool onTerminal = false) {
        Args args;
        std::istringstream in(line);
        for (std::string w; in >> w;) {
            args.push_back(w[0] == '@'   ? depot_ + w.substr(1)
                           : w[0] == '%' ? root_ + "/" + w.substr(1)
                                         : w);
        }
        return Run(args, env, onTerminal);
    }

    static size_t Lines(const std::string& s) { return std::count(s.begin(), s.end(), '\n'); }
    static std::string Err(int n, const Args& args = {}) { return "fanout-depot: " + Msg(n, args); }

    std::string Sample(const std::string& name, size_t bytes) {
        const std::string path = root_ + "/" + name;
        std::ofstream(path, std::ios::binary) << std::string(bytes, 'x');
        return path;
    }

    size_t FilesEndingIn(const std::string& suffix) {
        return std::count_if(fs::directory_iterator(depot_), {}, [&](const auto& e) {
            return e.path().filename().string().ends_with(suffix);
        });
    }

    std::string root_, depot_;
    char cwd_[4096] = {};
};

TEST_F(FanoutDepotTool, HelpAndUsageErrors) {
    const std::string usage =
        Msg(134, Args(8, "fanout-depot")) + " fanout-depot repeater_name check [--repair]\n";
    for (const char* help : {"help", "--help"}) {
        const Result r = Cmd(help);
        EXPECT_EQ(r.status, 0);
        EXPECT_TRUE(r.out.starts_with(usage + "Options:\n")) << r.out;
    }
    // --help and the man page list every option the tool takes.
    const std::string help = Cmd("--help").out;
    std::string man =
        Slurp(fs::path(__FILE__).parent_path().parent_path().parent_path() / "docs/fanout-depot.1");
    for (size_t at; (at = man.find("\\-")) != std::string::npos;) man.replace(at, 2, "-");
    for (const std::string o : {"--size", "--verbose", "--deadline", "--force", "-l", "--expired",
                                "--repair", "--help", "--version"}) {
        EXPECT_NE(help.find("\n " + o + " ", help.find("Options:")), std::string::npos) << o;
        EXPECT_TRUE(man.find(".TP\n.B " + o + "\n") != std::string::npos ||
                    man.find(".TP\n.BI " + o + " ") != std::string::npos)
            << o;
    }
    EXPECT_EQ(man.find("KiB"), std::string::npos);  // sizes are written KB throughout
    Result r = Cmd("--version");
    EXPECT_EQ(r.status, 0);
    EXPECT_TRUE(r.out.starts_with("fanout-depot (libfanout) ")) << r.out;

    Sample("seg.bin", 10);
    for (const char* line :
         {"", "@", "@ frobnicate", "@ add a^1", "@ delete", "@ purge --all", "@ list a^1 b^2",
          "@ --size", "@ check --all", "@ list -x", "@ add app %seg.bin", "@ add ^1 %seg.bin",
          "@ delete app", "-x list", "@ add a^1 %seg.bin --bogus", "@ image a %seg.bin %"}) {
        r = Cmd(line);
        EXPECT_EQ(r.status, 2) << line;
        EXPECT_TRUE(r.err.starts_with("fanout-depot: ")) << r.err;
        EXPECT_TRUE(r.err.ends_with(usage)) << r.err;
    }
    EXPECT_EQ(Cmd("@ add app %seg.bin").err, Err(166) + usage);
    EXPECT_FALSE(fs::exists(depot_));
}

// Refusals are one line on standard error, with the catalogue text where there is one.
TEST_F(FanoutDepotTool, RefusalsAreOneLineWithTheCatalogueText) {
    Sample("other.bin", 11);
    ASSERT_EQ(Cmd("@ add seg^1 " + Sample("seg.bin", 10)).status, 0);
    const std::pair<std::string, std::string> cases[] = {
        {"@ delete a^1", Err(158, {"a^1"})},
        {"@ list a^1", Err(170, {"a^1"})},
        {"@ image a^1 %seg.bin %img", Err(170, {"a^1"})},
        {"@ add a^1 %missing", ""},
        {"@ add a^1 elsewhere.example:" + root_ + "/seg.bin", ""},
        {"@ image seg^1 %other.bin %img", ""},
        {"%seg.bin/depot describe", ""},
    };
    for (const auto& [line, err] : cases) {
        const Result r = Cmd(line);
        EXPECT_EQ(r.status, 1) << line;
        EXPECT_EQ(Lines(r.err), 1u) << r.err;
        if (!err.empty()) {
            EXPECT_EQ(r.err, err);
        }
    }
    EXPECT_FALSE(fs::exists(root_ + "/img"));  // a refused image writes nothing
}

// Only add makes a depot; every other command names the directory it did not find and where
// its name came from, and creates nothing. So do a missing FANOUT_CONFIG file and a lock file
// the depot cannot create (with the code and the host's text).
TEST_F(FanoutDepotTool, MissingDepotOrConfigurationIsNamed) {
    Sample("seg.bin", 10);
    const std::string missing = root_ + "/no/such/depot", zel = root_ + "/zel";
    const std::string notFound = ": No such file or directory (only add creates a depot)\n";
    struct Case {
        std::string line;
        Args env;
        std::string err;  // the start of the one line on standard error
    };
    ASSERT_EQ(mkdir(depot_.c_str(), 0700), 0);
    ASSERT_EQ(mkdir((depot_ + "/depot.lk").c_str(), 0700), 0);  // no lock file can go there
    std::vector<Case> cases = {
        {"@ list",
         {},
         "fanout-depot: cannot open the depot " + depot_ + ": " + depot_ +
             "/depot.lk: PAL_ERR_SYSTEM: Is a directory (errno 21, step "},
        {". list",
         {"ZEL_DATDIR=" + zel},
         "fanout-depot: no depot at " + zel + "/depot (ZEL_DATDIR is " + zel + ")" + notFound},
        {"@ list",
         {"FANOUT_CONFIG=" + root_ + "/missing.conf"},
         "fanout-depot: cannot read the configuration file " + root_ +
             "/missing.conf named by FANOUT_CONFIG: No such file or directory\n"}};
    for (const char* command : {"describe", "list", "list a^1 -l", "delete a^1", "purge",
                                "purge --expired", "check", "image a^1 %seg.bin %img"}) {
        cases.push_back(
            {missing + " " + command, {}, "fanout-depot: no depot at " + missing + notFound});
    }
    for (const Case& c : cases) {
        const Result r = Cmd(c.line, c.env);
        EXPECT_EQ(r.status, 1) << c.line;
        EXPECT_TRUE(r.err.starts_with(c.err)) << r.err;
        EXPECT_EQ(Lines(r.err), 1u) << r.err;
    }
    for (const std::string& p : {root_ + "/no", root_ + "/img", zel}) EXPECT_FALSE(fs::exists(p));
    // add makes the depot, parents included; ZEL_DATDIR's too.
    EXPECT_EQ(Cmd(missing + " add a^1 %seg.bin").status, 0);
    EXPECT_EQ(Cmd(missing + " list a^1").status, 0);
    ASSERT_EQ(mkdir(zel.c_str(), 0700), 0);
    EXPECT_EQ(Cmd(". add a^1 %seg.bin", {"ZEL_DATDIR=" + zel}).status, 0);
    EXPECT_TRUE(fs::is_directory(zel + "/depot"));
}

TEST_F(FanoutDepotTool, AddListDescribeDelete) {
    const std::string file = Sample("seg.bin", 1500);
    Result r = Run({depot_, "add", "seg^1.0", "localhost:" + file});  // a local host's file
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(FilesEndingIn(".xml"), 1u);
    EXPECT_EQ(FilesEndingIn(".dat"), 1u);

    r = Cmd("@ list");
    ASSERT_EQ(r.status, 0);
    const std::string header = r.out.substr(0, r.out.find('\n'));
    const std::string row = r.out.substr(header.size() + 1);
    for (int n = 135; n <= 138; ++n) EXPECT_NE(header.find(Msg(n)), std::string::npos);
    EXPECT_TRUE(header.ends_with("Update time")) << header;
    EXPECT_TRUE(row.starts_with("seg "));
    EXPECT_NE(row.find(" 1.0 "), std::string::npos);
    EXPECT_NE(row.find(" 2  "), std::string::npos);  // 1500 bytes are 2 KiB

    r = Cmd("@ list seg^1.0 -l");
    ASSERT_EQ(r.status, 0);
    EXPECT_TRUE(r.out.starts_with(Msg(142, {"1"}) + Msg(143, {"seg"}) + Msg(144, {"1.0"}) +
                                  Msg(145, {"1500", "100"})))
        << r.out;
    for (int n = 147; n <= 151; ++n) EXPECT_NE(r.out.find(Msg(n)), std::string::npos) << n;
    EXPECT_NE(r.out.find(Msg(154, {"1"}) + Msg(155, {"permanent"}) + "Deadline: \t\tnever\n"),
              std::string::npos);

    r = Cmd("@ --size 100 describe");
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out, Msg(159, {depot_}) + Msg(160, {"100"}) + Msg(161, {"0"}) + Msg(162, {"2"}) +
                         Msg(163, {"2"}) + Msg(164, {"98"}));

    EXPECT_EQ(Run({depot_, "add", "seg^1.0", file}).status, 0);  // reuses the complete segment
    EXPECT_EQ(FilesEndingIn(".xml"), 1u);
    EXPECT_EQ(Cmd("@ delete seg^1.0").status, 0);
    EXPECT_EQ(FilesEndingIn(".xml") + FilesEndingIn(".dat"), 0u);
}

TEST_F(FanoutDepotTool, FailedAddLeavesNoHalfEntry) {
    const std::string file = Sample("big.bin", 5000);
    Result r = Run({depot_, "--size", "3", "add", "big^1", file});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, Err(6, {"5"}));
    ASSERT_EQ(Run({depot_, "add", "small^1", Sample("small.bin", 4000)}).status, 0);
    EXPECT_EQ(Run({depot_, "--size", "6", "add", "big^1", file}).err, Err(7, {"5"}));
    EXPECT_EQ(FilesEndingIn(".xml"), 1u);
    EXPECT_EQ(FilesEndingIn(".dat"), 1u);
}

TEST_F(FanoutDepotTool, DeleteRefusesEntriesInProgressOrInUse) {
    // One entry in progress and one in use through the library, working in the depot
    // directory as the tool does so that both share the locks.
    ASSERT_EQ(Run({depot_, "add", "used^1", Sample("u.bin", 10)}).status, 0);
    ASSERT_EQ(chdir(depot_.c_str()), 0);
    DepotHandle* h = nullptr;
    DepotNew(&h, depot_.c_str(), 0);
    ASSERT_NE(h, nullptr);
    ASSERT_NE(DepotAddEntry(h, "busy", "1", nullptr, 0), nullptr);  // its writer lives on
    DepotEntry* used = DepotGetEntry(h, "used", "1");
    ASSERT_NE(used, nullptr);
    EXPECT_EQ(DepotEntryChangeState(h, used, 2).palError, PAL_OK);

    Result r = Cmd("@ delete busy^1");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, Err(156, {"busy^1"}));
    r = Run({depot_, "add", "busy^1", Sample("b.bin", 10)});
    EXPECT_TRUE(
        r.err.starts_with("fanout-depot: cannot add busy^1: an add of it is under way or "
                          "it is in use (" +
                          depot_ + "/" + FirstName("busy", "1") + ".xml: PAL_ERR_BUSY"))
        << r.err;
    r = Run({depot_, "image", "busy^1", Sample("b.bin", 0), root_ + "/img"});
    EXPECT_NE(r.err.find("is not complete"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(root_ + "/img"));
    EXPECT_EQ(Cmd("@ delete used^1").err, Err(157, {"used^1"}));
    EXPECT_EQ(FilesEndingIn(".xml"), 2u);
    r = Cmd("@ describe");
    EXPECT_NE(r.out.find(Msg(161, {"0"})), std::string::npos);  // an empty entry in progress
    EXPECT_EQ(Cmd("@ purge").status, 0);
    EXPECT_EQ(FilesEndingIn(".xml"), 2u);  // a live writer's entry survives a purge
    // Once its writer is gone the entry is stale and can be deleted by name.
    DepotFree(h);
    EXPECT_EQ(Cmd("@ delete busy^1").status, 0);
    EXPECT_EQ(FilesEndingIn(".xml"), 1u);
}

// A deadline already past is refused unless forced; list -l shows it; purge --expired removes
// only what is past it, and a plain purge keeps entries that still have references.
TEST_F(FanoutDepotTool, PurgeExpiredRemovesOnlyPastDeadlines) {
    const std::string o = Sample("o.bin", 10);
    Result r = Run({depot_, "add", "old^1", o, "--deadline", "1000"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("is in the past; add --force"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(depot_));
    ASSERT_EQ(Run({depot_, "add", "old^1", o, "--deadline", "1000", "--force"}).status, 0);
    ASSERT_EQ(Run({depot_, "add", "new^1", o, "--deadline", "2100/01/01"}).status, 0);
    std::tm when{};  // 2100/01/01 local time
    when.tm_year = 200;
    when.tm_mday = 1;
    when.tm_isdst = -1;
    r = Cmd("@ list new^1 -l");
    EXPECT_NE(r.out.find("Deadline: \t\t" + Msg(141, {std::to_string(mktime(&when))})),
              std::string::npos)
        << r.out;
    ASSERT_EQ(Cmd("@ purge --expired").status, 0);
    EXPECT_EQ(Cmd("@ list old^1").status, 1);
    EXPECT_EQ(Cmd("@ list new^1").status, 0);
    ASSERT_EQ(Cmd("@ purge").status, 0);
    EXPECT_EQ(Cmd("@ list new^1").status, 0);
}

// image writes the data and a table of contents, making the directory; into the depot's own
// directory it warns, and follows no link waiting at the names it writes through.
TEST_F(FanoutDepotTool, ImageWritesDataAndTableOfContents) {
    const std::string images = root_ + "/cdrom", victim = Sample("victim", 6);
    ASSERT_EQ(Cmd("@ add img^2 " + Sample("img.bin", 64)).status, 0);
    ASSERT_EQ(Cmd("@ add img^3 %img.bin").status, 0);
    Result r = Cmd("@ image img^2 %img.bin %cdrom");
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

    for (const char* part : {"/img.bin.part", "/img^3.toc.part"}) {
        ASSERT_EQ(symlink(victim.c_str(), (depot_ + part).c_str()), 0);
    }
    r = Cmd("@ image img^3 %img.bin @");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, Msg(201));
    EXPECT_TRUE(fs::exists(depot_ + "/img^3.toc"));
    EXPECT_EQ(Slurp(depot_ + "/img.bin"), std::string(64, 'x'));
    EXPECT_EQ(Slurp(victim), std::string(6, 'x'));
}

// add, image and purge show progress and a one-line summary when standard error is a
// terminal, and write nothing there otherwise.
TEST_F(FanoutDepotTool, ProgressAndSummaryOnlyOnATerminal) {
    Sample("big.bin", 3u << 20);
    Sample("old.bin", 1000);
    struct Case {
        const char *line, *progress, *summary;  // "@" stands for the depot's path
    };
    const Case cases[] = {
        {"add old^1 %old.bin --deadline 1000 --force", "adding old^1: 100%",
         "added old^1 to @ (1 KB)"},
        {"add big^1 %big.bin", "\radding big^1:  33% (1024 of 3072 KB)",
         "added big^1 to @ (3072 KB)"},
        {"image big^1 %big.bin @img", "\rwriting the image of big^1: 100%",
         "wrote the image of big^1 into @img (3072 KB)"},
        {"purge --expired", "\rpurging @:   0% (0 of 2)", "purged 1 of 2 entries (1 KB freed)"},
    };
    auto at = [](std::string text, const std::string& depot) {
        for (size_t i; (i = text.find('@')) != std::string::npos;) text.replace(i, 1, depot);
        return text;
    };
    for (const Case& c : cases) {
        Result r = Cmd(std::string("@ ") + c.line);
        EXPECT_EQ(r.status, 0) << c.line << r.err;
        EXPECT_EQ(r.err, "") << c.line;
        const std::string tty = root_ + "/tty";
        r = Cmd(at(std::string("@ ") + c.line, "%tty"), {}, true);
        EXPECT_EQ(r.status, 0) << c.line << r.err;
        EXPECT_NE(r.err.find(at(c.progress, tty)), std::string::npos) << c.line << r.err;
        EXPECT_NE(r.err.find("\033[Kfanout-depot: " + at(c.summary, tty) + "\r\n"),
                  std::string::npos)
            << c.line << r.err;
    }
}

// Adds of keys that share a bucket, run at the same time, each keep their own bytes: the
// locks exclude and no entry replaces another's file.
TEST_F(FanoutDepotTool, ConcurrentAddsOfOneBucketKeepEveryByte) {
    constexpr int kRounds = 5, kAdds = 4;
    std::multiset<std::string> sources, stored;
    for (int round = 0; round < kRounds; ++round) {
        std::vector<pid_t> pids;
        for (int i = 0; i < kAdds; ++i) {
            // The same first half of the key: one bucket for all; distinct bytes throughout.
            const std::string key = "shared-prefix-" + std::to_string(round) + char('a' + i);
            std::string bytes(300000 + i, '\0');
            for (size_t j = 0; j < bytes.size(); ++j) bytes[j] = char(j * 31 + round * 70 + i * 7);
            std::ofstream(root_ + "/" + key, std::ios::binary) << bytes;
            sources.insert(bytes);
            if (const pid_t pid = fork(); pid != 0) {
                pids.push_back(pid);
                continue;
            }
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, 1);
            dup2(null, 2);
            Exec({depot_, "add", key + "^1", root_ + "/" + key});
        }
        for (pid_t pid : pids) EXPECT_EQ(ExitCode(pid), 0);
    }
    for (auto& e : fs::directory_iterator(depot_)) {
        if (e.path().extension() == ".dat") stored.insert(Slurp(e.path()));
    }
    EXPECT_TRUE(stored == sources);
    EXPECT_EQ(FilesEndingIn(".xml"), size_t{kRounds * kAdds});
}

// Entry files of every unusable kind hide no other entry from list, describe and purge, none
// of which blocks on a FIFO; each says how many it skipped in one line (no log lines) and exits 1.
TEST_F(FanoutDepotTool, UnusableEntryFilesAreCountedAndHideNothing) {
    for (int i = 0; i < 7; ++i) {
        const std::string n = std::to_string(i);
        ASSERT_EQ(Run({depot_, "add", "e" + n + "^1", Sample("s" + n, 2048), "--deadline",
                       i < 3 ? "1000" : "2100/01/01", "--force"})
                      .status,
                  0);
    }
    ASSERT_EQ(mkdir((depot_ + "/00000000.90.xml").c_str(), 0700), 0);
    ASSERT_EQ(symlink("nowhere", (depot_ + "/00000000.91.xml").c_str()), 0);
    ASSERT_EQ(mkfifo((depot_ + "/00000000.92.xml").c_str(), 0600), 0);
    ASSERT_EQ(truncate(Sample("depot/00000000.93.xml", 1).c_str(), off_t{3} << 30), 0);

    const std::string skipped = "fanout-depot: 4 entry files of the depot could not be used";
    Result r = Cmd("@ list");
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(Lines(r.out), 8u) << r.out;
    EXPECT_TRUE(r.err.starts_with(skipped)) << r.err;
    EXPECT_EQ(Lines(r.err), 1u) << r.err;
    r = Cmd("@ describe");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find(Msg(163, {"14"})), std::string::npos) << r.out;
    r = Run({depot_, "--size", "15", "add", "big^1", Sample("big", 4096)});
    EXPECT_EQ(r.err, Err(7, {"4"}));  // the size limit still holds
    r = Cmd("@ purge --expired");
    EXPECT_EQ(r.status, 1);
    EXPECT_TRUE(r.err.starts_with(skipped)) << r.err;
    EXPECT_EQ(FilesEndingIn(".dat"), 4u);
    EXPECT_EQ(Cmd("@ list e2^1").status, 1);
    EXPECT_EQ(Cmd("@ list e3^1").status, 1);  // found, but others were skipped
    // The library's log lines go to FANOUT_LOG_FILE, or to standard error with --verbose.
    const std::string trace = "DepotEntryEnumNextElement error -4 opening file",
                      log = root_ + "/log";
    EXPECT_NE(Cmd("@ --verbose list").err.find(trace), std::string::npos);
    EXPECT_EQ(Lines(Cmd("@ list", {"FANOUT_LOG_FILE=" + log}).err), 1u);
    EXPECT_NE(Slurp(log).find(trace), std::string::npos);
}

// Nothing the depot's files point at, nor links planted at the names the depot would use, is
// written or removed (see also ImageWritesDataAndTableOfContents).
TEST_F(FanoutDepotTool, NothingOutsideTheDepotIsWrittenOrRemoved) {
    ASSERT_EQ(Run({depot_, "add", "seed^1", Sample("seed", 10)}).status, 0);
    const std::string victim = Sample("victim", 6);
    // Links at the next entry and data names of a key.
    ASSERT_EQ(symlink(victim.c_str(), (depot_ + "/" + FirstName("a", "1") + ".dat").c_str()), 0);
    ASSERT_EQ(symlink(victim.c_str(), (depot_ + "/" + FirstName("b", "1") + ".xml").c_str()), 0);
    EXPECT_EQ(Run({depot_, "add", "a^1", Sample("a", 100)}).status, 0);
    EXPECT_EQ(Run({depot_, "add", "b^1", Sample("b", 100)}).status, 0);
    // An entry whose location names the victim: delete and purge leave it.
    Edit(depot_ + "/" + FirstName("seed", "1") + ".xml", "<location>", victim);
    EXPECT_EQ(Cmd("@ delete seed^1").status, 1);
    EXPECT_EQ(Cmd("@ purge").status, 1);
    EXPECT_EQ(Slurp(victim), std::string(6, 'x'));
}

// A complete entry whose data was lost is stored again by the next add; an add killed
// half-way leaves a stale entry that another add replaces; keys holding tag text are refused.
TEST_F(FanoutDepotTool, DamagedAndStaleEntriesAreStoredAgain) {
    const std::string file = Sample("seg", 3000);
    const std::string data = depot_ + "/" + FirstName("seg", "1") + ".dat";
    ASSERT_EQ(Run({depot_, "add", "seg^1", file}).status, 0);
    ASSERT_EQ(truncate(data.c_str(), 0), 0);
    Result r = Run({depot_, "add", "seg^1", file});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(Slurp(data), Slurp(file));
    ASSERT_EQ(unlink(data.c_str()), 0);
    EXPECT_EQ(Cmd("@ list").status, 1);  // the entry without data is skipped
    EXPECT_EQ(Run({depot_, "add", "seg^1", file}).status, 0);
    EXPECT_EQ(Slurp(data), Slurp(file));

    const pid_t child = fork();
    if (child == 0) {
        if (chdir(depot_.c_str()) != 0) _exit(1);
        DepotHandle* h = nullptr;
        DepotNew(&h, depot_.c_str(), 0);
        _exit(DepotAddEntry(h, "killed", "1", nullptr, 0) != nullptr ? 0 : 1);
    }
    ASSERT_EQ(ExitCode(child), 0);
    r = Run({depot_, "add", "killed^1", file});
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(Cmd("@ list killed^1").out.find("permanent"), std::string::npos);

    for (const char* key : {"x<state>^1", "<id>x</id>^1"}) {
        EXPECT_EQ(Run({depot_, "add", key, file}).status, 1) << key;
    }
    EXPECT_EQ(FilesEndingIn(".xml"), 2u);
}

// check names every inconsistency, --repair moves what cannot be trusted to lost+found and
// removes orphans, and a repaired depot checks clean.
TEST_F(FanoutDepotTool, CheckFindsAndRepairsEveryKindOfDamage) {
    for (const char* key : {"good^1", "short^1", "far^1", "wip^1", "dup^1"}) {
        ASSERT_EQ(Run({depot_, "add", key, Sample(key, 100)}).status, 0);
    }
    auto at = [&](const std::string& name) { return depot_ + "/" + name; };
    const std::string good = FirstName("good", "1"), s = FirstName("short", "1"),
                      f = FirstName("far", "1"), wip = FirstName("wip", "1"),
                      dup = FirstName("dup", "1"), twin = dup.substr(0, 9) + "00";
    std::ofstream(at("00000000.77.xml")) << "garbage";          // does not parse
    ASSERT_EQ(mkfifo(at("00000000.78.xml").c_str(), 0600), 0);  // not regular
    std::ofstream(at("00000000.79.dat")) << "orphan";           // data, no entry
    ASSERT_EQ(truncate(at(s + ".dat").c_str(), 5), 0);          // size
    Edit(at(f + ".xml"), "<location>", root_ + "/far^1");
    Edit(at(wip + ".xml"), "<state>1</state>", "<state>0</state>");  // its writer is gone
    // The same sequence number twice, and no data for the good entry.
    fs::copy_file(at(dup + ".xml"), at(twin + ".xml"));
    Edit(at(twin + ".xml"), dup + ".dat", twin + ".dat");
    std::ofstream(at(twin + ".dat")) << std::string(100, 'x');
    ASSERT_EQ(unlink(at(good + ".dat").c_str()), 0);

    Result r = Cmd("@ check");
    EXPECT_EQ(r.status, 4) << r.out;
    EXPECT_EQ(r.err, "");
    for (const std::string& line :
         Args{"00000000.77.xml does not parse", "00000000.78.xml is not a regular file",
              "00000000.79.dat is a data file without an entry file",
              s + ".xml has 5 bytes of data where its description says 100",
              f + ".xml names the location " + root_ + "/far^1",
              wip + ".xml is an entry in progress whose writer is gone",
              twin + ".xml uses the same sequence number as " + dup + ".xml",
              good + ".xml has no data file", "8 problems found"}) {
        EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
    }

    r = Cmd("@ check --repair");
    EXPECT_EQ(r.status, 3) << r.out;
    EXPECT_NE(r.out.find("8 problems found and repaired"), std::string::npos) << r.out;
    std::set<std::string> kept;
    for (auto& e : fs::directory_iterator(depot_ + "/lost+found")) {
        kept.insert(e.path().filename().string());
    }
    EXPECT_EQ(kept, (std::set<std::string>{"00000000.77.xml", "00000000.78.xml", twin + ".dat",
                                           twin + ".xml", s + ".dat", s + ".xml", f + ".dat",
                                           f + ".xml"}));
    EXPECT_EQ(Cmd("@ check").status, 0);
    EXPECT_EQ(FilesEndingIn(".xml"), 1u);  // dup^1 is all that is left
    EXPECT_EQ(Cmd("@ list dup^1").status, 0);

    // A lost+found that is not a directory cannot take anything.
    fs::remove_all(depot_ + "/lost+found");
    std::ofstream(depot_ + "/lost+found") << "in the way";
    std::ofstream(at("00000000.77.xml")) << "garbage";
    EXPECT_EQ(Cmd("@ check --repair").status, 5);
}

}  // namespace
