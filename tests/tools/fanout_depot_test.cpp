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
#include <cstdio>
#include <cstdlib>
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
    char* text =
        ex_render_text(Fanout2Catalog[number], argv.data(), static_cast<uint32_t>(argv.size()));
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
        // The depot's locks are semaphore sets keyed on its lock files, which
        // each test's depots keep inside the scratch directory.
        for (const auto& e : fs::recursive_directory_iterator(root_)) {
            if (!e.is_regular_file() || e.path().extension() != ".lk") continue;
            const int id = semget(ftok(e.path().c_str(), 1), 0, 0);
            if (id >= 0) semctl(id, 0, IPC_RMID);
        }
        ASSERT_EQ(chdir(cwd_), 0);
        fs::remove_all(root_);
    }

    // Runs the tool with `args`, capturing its output streams; `env` are
    // "NAME=value" settings for its environment.
    Result Run(const std::vector<std::string>& args, const std::vector<std::string>& env = {}) {
        const std::string out = root_ + "/stdout", err = root_ + "/stderr";
        pid_t pid = fork();
        if (pid == 0) {
            for (const auto& e : env) putenv(const_cast<char*>(e.c_str()));
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

    // Runs the tool with standard error on a terminal (a pseudo-terminal
    // whose output is read until the tool has closed it) and standard output
    // to a file.
    Result RunOnTerminal(const std::vector<std::string>& args) {
        const std::string out = root_ + "/stdout";
        int terminal = -1;
        pid_t pid = forkpty(&terminal, nullptr, nullptr, nullptr);
        if (pid == 0) {
            int o = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
            dup2(o, 1);
            std::vector<char*> argv{const_cast<char*>("fanout-depot")};
            for (auto& a : args) argv.push_back(const_cast<char*>(a.c_str()));
            argv.push_back(nullptr);
            execv(FANOUT_DEPOT_TOOL, argv.data());
            _exit(127);
        }
        Result r;
        if (pid < 0) return r;
        char buffer[4096];
        for (;;) {  // ends with EIO once the last holder of the terminal is gone
            const ssize_t n = read(terminal, buffer, sizeof buffer);
            if (n > 0) r.err.append(buffer, static_cast<size_t>(n));
            if (n == 0 || (n < 0 && errno != EINTR)) break;
        }
        close(terminal);
        int status = 0;
        waitpid(pid, &status, 0);
        r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        r.out = Slurp(out);
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

// The name a key's first entry gets: "<bucket>.0".
std::string FirstName(const std::string& id, const std::string& version) {
    PalChar* bucket = DepotFindBucket(id.c_str(), version.c_str());
    std::string name = std::string(bucket) + ".0";
    PalMemoryFree(bucket);
    return name;
}

// The options an option list names: the first word of each line of --help's
// list that starts with " -", or of each item of the man page's OPTIONS.
std::set<std::string> HelpOptions(const std::string& help) {
    std::set<std::string> names;
    std::istringstream lines(help.substr(help.find("Options:\n")));
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind(" -", 0) == 0) names.insert(line.substr(1, line.find(' ', 1) - 1));
    }
    return names;
}
std::set<std::string> ManOptions(std::string man) {
    for (size_t at; (at = man.find("\\-")) != std::string::npos;) man.replace(at, 2, "-");
    std::set<std::string> names;
    std::istringstream lines(man.substr(man.find(".SH OPTIONS")));
    std::string line;
    std::getline(lines, line);
    for (std::string previous; std::getline(lines, line) && line.rfind(".SH", 0) != 0;
         previous = line) {
        if (previous != ".TP") continue;
        const std::string word = line.substr(line.find(' ') + 1);
        names.insert(word.substr(0, word.find(' ')));
    }
    return names;
}

TEST_F(FanoutDepotTool, HelpAndUsageErrors) {
    const std::string usage = Msg(134, std::vector<std::string>(8, "fanout-depot")) +
                              " fanout-depot repeater_name check [--repair]\n";
    for (const char* help : {"help", "--help"}) {
        const Result r = Run({help});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out.rfind(usage + "Options:\n", 0), 0u) << r.out;
    }
    // --help and the man page list the same options, every one the tool takes.
    const std::string man =
        Slurp(fs::path(__FILE__).parent_path().parent_path().parent_path() / "docs/fanout-depot.1");
    const std::set<std::string> options = HelpOptions(Run({"--help"}).out);
    EXPECT_EQ(options, ManOptions(man));
    for (const char* o : {"--size", "--verbose", "--deadline", "--force", "-l", "--expired",
                          "--repair", "--help", "--version"}) {
        EXPECT_EQ(options.count(o), 1u) << o;
    }
    EXPECT_EQ(man.find("KiB"), std::string::npos);  // sizes are written KB throughout
    Result r = Run({"--version"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out.rfind("fanout-depot (libfanout) ", 0), 0u) << r.out;

    const std::string file = Sample("seg.bin", 10);
    const std::vector<std::vector<std::string>> bad = {{},
                                                       {depot_},
                                                       {depot_, "frobnicate"},
                                                       {depot_, "add", "a^1"},
                                                       {depot_, "delete"},
                                                       {depot_, "purge", "--all"},
                                                       {depot_, "list", "a^1", "b^2"},
                                                       {depot_, "--size"},
                                                       {depot_, "check", "--all"},
                                                       {depot_, "list", "-x"},
                                                       {depot_, "add", "app", file},
                                                       {depot_, "add", "^1", file},
                                                       {depot_, "delete", "app"},
                                                       {"-x", "list"},
                                                       {depot_, "add", "a^1", file, "--bogus"},
                                                       {depot_, "image", "a", file, root_}};
    for (const auto& args : bad) {
        r = Run(args);
        EXPECT_EQ(r.status, 2) << testing::PrintToString(args);
        EXPECT_EQ(r.err.rfind("fanout-depot: ", 0), 0u) << r.err;
        EXPECT_EQ(r.err.substr(r.err.size() - std::min(r.err.size(), usage.size())), usage);
    }
    r = Run({depot_, "add", "app", file});
    EXPECT_EQ(r.err, "fanout-depot: " + Msg(166) + usage);
    EXPECT_FALSE(fs::exists(depot_));
}

TEST_F(FanoutDepotTool, RefusalsAreOneLineWithTheCatalogueText) {
    const std::string file = Sample("seg.bin", 10);
    ASSERT_EQ(Run({depot_, "add", "seg^1", file}).status, 0);
    struct Case {
        std::vector<std::string> args;
        std::string err;
    };
    const Case cases[] = {
        {{depot_, "delete", "a^1"}, "fanout-depot: " + Msg(158, {"a^1"})},
        {{depot_, "list", "a^1"}, "fanout-depot: " + Msg(170, {"a^1"})},
        {{depot_, "image", "a^1", file, root_ + "/img"}, "fanout-depot: " + Msg(170, {"a^1"})},
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
             {depot_, "image", "seg^1", Sample("other.bin", 11), root_ + "/img"},
             {file + "/depot", "describe"}}) {
        const Result r = Run(args);
        EXPECT_EQ(r.status, 1) << args[0];
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
    EXPECT_FALSE(fs::exists(root_ + "/img"));  // a refused image writes nothing
}

// Only add makes a depot; every other command names the directory it did not
// find and where its name came from, and creates nothing. So does a
// configuration file that FANOUT_CONFIG names but that is not there, and a
// lock file the depot cannot create, with the code and the host's text.
TEST_F(FanoutDepotTool, MissingDepotOrConfigurationIsNamed) {
    const std::string file = Sample("seg.bin", 10);
    const std::string missing = root_ + "/no/such/depot", zel = root_ + "/zel";
    const std::string notFound = ": No such file or directory (only add creates a depot)\n";
    struct Case {
        std::vector<std::string> args;
        std::vector<std::string> env;
        std::string err;  // the start of the one line on standard error
    };
    ASSERT_EQ(mkdir(depot_.c_str(), 0700), 0);
    ASSERT_EQ(mkdir((depot_ + "/depot.lk").c_str(), 0700), 0);  // no lock file can go there
    std::vector<Case> cases = {{{depot_, "list"},
                                {},
                                "fanout-depot: cannot open the depot " + depot_ + ": " + depot_ +
                                    "/depot.lk: PAL_ERR_SYSTEM: Is a directory (errno 21, step "}};
    for (const std::vector<std::string>& command :
         std::vector<std::vector<std::string>>{{"describe"},
                                               {"list"},
                                               {"list", "a^1", "-l"},
                                               {"delete", "a^1"},
                                               {"purge"},
                                               {"purge", "--expired"},
                                               {"check"},
                                               {"image", "a^1", file, root_ + "/img"}}) {
        std::vector<std::string> args = {missing};
        args.insert(args.end(), command.begin(), command.end());
        cases.push_back({args, {}, "fanout-depot: no depot at " + missing + notFound});
    }
    cases.push_back(
        {{".", "list"},
         {"ZEL_DATDIR=" + zel},
         "fanout-depot: no depot at " + zel + "/depot (ZEL_DATDIR is " + zel + ")" + notFound});
    cases.push_back({{depot_, "list"},
                     {"FANOUT_CONFIG=" + root_ + "/missing.conf"},
                     "fanout-depot: cannot read the configuration file " + root_ +
                         "/missing.conf named by FANOUT_CONFIG: No such file or directory\n"});
    for (const Case& c : cases) {
        const Result r = Run(c.args, c.env);
        EXPECT_EQ(r.status, 1) << c.args[1];
        EXPECT_EQ(r.err.rfind(c.err, 0), 0u) << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    }
    EXPECT_FALSE(fs::exists(root_ + "/no"));
    EXPECT_FALSE(fs::exists(root_ + "/img"));
    EXPECT_FALSE(fs::exists(zel));
    // add makes the depot, parents included; ZEL_DATDIR's too.
    EXPECT_EQ(Run({missing, "add", "a^1", file}).status, 0);
    EXPECT_EQ(Run({missing, "list", "a^1"}).status, 0);
    ASSERT_EQ(mkdir(zel.c_str(), 0700), 0);
    EXPECT_EQ(Run({".", "add", "a^1", file}, {"ZEL_DATDIR=" + zel}).status, 0);
    EXPECT_TRUE(fs::is_directory(zel + "/depot"));
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
    const std::string expectedStart =
        Msg(142, {"1"}) + Msg(143, {"seg"}) + Msg(144, {"1.0"}) + Msg(145, {"1500", "100"});
    EXPECT_EQ(r.out.rfind(expectedStart, 0), 0u) << r.out;
    for (int n = 147; n <= 151; ++n) EXPECT_NE(r.out.find(Msg(n)), std::string::npos) << n;
    EXPECT_NE(r.out.find(Msg(154, {"1"}) + Msg(155, {"permanent"}) + "Deadline: \t\tnever\n"),
              std::string::npos);

    r = Run({depot_, "--size", "100", "describe"});
    ASSERT_EQ(r.status, 0);
    EXPECT_EQ(r.out, Msg(159, {depot_}) + Msg(160, {"100"}) + Msg(161, {"0"}) + Msg(162, {"2"}) +
                         Msg(163, {"2"}) + Msg(164, {"98"}));

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
    ASSERT_NE(DepotAddEntry(h, "busy", "1", nullptr, 0), nullptr);  // its writer lives on
    DepotEntry* used = DepotGetEntry(h, "used", "1");
    ASSERT_NE(used, nullptr);
    EXPECT_EQ(DepotEntryChangeState(h, used, 2).palError, PAL_OK);

    Result r = Run({depot_, "delete", "busy^1"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "fanout-depot: " + Msg(156, {"busy^1"}));
    r = Run({depot_, "add", "busy^1", Sample("b.bin", 10)});
    EXPECT_EQ(r.err.rfind("fanout-depot: cannot add busy^1: an add of it is under way or it is in "
                          "use (" +
                              depot_ + "/" + FirstName("busy", "1") + ".xml: PAL_ERR_BUSY",
                          0),
              0u)
        << r.err;
    r = Run({depot_, "image", "busy^1", Sample("b.bin", 0), root_ + "/img"});
    EXPECT_NE(r.err.find("is not complete"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(root_ + "/img"));
    r = Run({depot_, "delete", "used^1"});
    EXPECT_EQ(r.err, "fanout-depot: " + Msg(157, {"used^1"}));
    EXPECT_EQ(FilesEndingIn(".xml"), 2u);
    r = Run({depot_, "describe"});
    EXPECT_NE(r.out.find(Msg(161, {"0"})), std::string::npos);  // an empty entry in progress
    EXPECT_EQ(Run({depot_, "purge"}).status, 0);
    EXPECT_EQ(FilesEndingIn(".xml"), 2u);  // a live writer's entry survives a purge

    // Once its writer is gone the entry is stale: deleted by name, or
    // replaced by a new add of its key.
    DepotFree(h);
    EXPECT_EQ(Run({depot_, "delete", "busy^1"}).status, 0);
    EXPECT_EQ(FilesEndingIn(".xml"), 1u);
}

// A deadline already past is refused unless forced; list -l shows it; purge
// --expired removes only what is past it.
TEST_F(FanoutDepotTool, PurgeExpiredRemovesOnlyPastDeadlines) {
    Result r = Run({depot_, "add", "old^1", Sample("o.bin", 10), "--deadline", "1000"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("is in the past; add --force"), std::string::npos) << r.err;
    EXPECT_FALSE(fs::exists(depot_));
    ASSERT_EQ(
        Run({depot_, "add", "old^1", Sample("o.bin", 10), "--deadline", "1000", "--force"}).status,
        0);
    ASSERT_EQ(Run({depot_, "add", "new^1", Sample("n.bin", 10), "--deadline", "2100/01/01"}).status,
              0);
    struct tm when {};
    when.tm_year = 200;
    when.tm_mday = 1;
    when.tm_isdst = -1;
    r = Run({depot_, "list", "new^1", "-l"});
    EXPECT_NE(r.out.find("Deadline: \t\t" + Msg(141, {std::to_string(mktime(&when))})),
              std::string::npos)
        << r.out;
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
    ASSERT_EQ(Run({depot_, "add", "img^2", file}).status, 0);
    ASSERT_EQ(Run({depot_, "add", "img^3", file}).status, 0);
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

// add, image and purge show progress and a one-line summary when standard
// error is a terminal, and write nothing there otherwise.
TEST_F(FanoutDepotTool, ProgressAndSummaryOnlyOnATerminal) {
    const std::string file = Sample("big.bin", 3u << 20), old = Sample("old.bin", 1000);
    const std::string tty = root_ + "/tty";
    struct Case {
        std::string command;
        std::vector<std::string> args;  // after the depot
        std::string progress, summary;  // on the terminal; "@" stands for its depot
    };
    const Case cases[] = {
        {"add",
         {"old^1", old, "--deadline", "1000", "--force"},
         "adding old^1: 100%",
         "added old^1 to @ (1 KB)"},
        {"add",
         {"big^1", file},
         "\radding big^1:  33% (1024 of 3072 KB)",
         "added big^1 to @ (3072 KB)"},
        {"image",
         {"big^1", file, "@img"},
         "\rwriting the image of big^1: 100%",
         "wrote the image of big^1 into @img (3072 KB)"},
        {"purge",
         {"--expired"},
         "\rpurging @:   0% (0 of 2)",
         "purged 1 of 2 entries (1 KB freed)"},
    };
    for (const Case& c : cases) {
        for (const std::string& depot : {depot_, tty}) {
            std::vector<std::string> args = {depot, c.command};
            for (std::string a : c.args) {
                if (a[0] == '@') a = depot + a.substr(1);  // "@": the depot's path
                args.push_back(a);
            }
            const bool onTerminal = depot == tty;
            const Result r = onTerminal ? RunOnTerminal(args) : Run(args);
            EXPECT_EQ(r.status, 0) << c.command << r.err;
            if (!onTerminal) {
                EXPECT_EQ(r.err, "") << c.command;
                continue;
            }
            auto at = [&](std::string text) {
                for (size_t i; (i = text.find('@')) != std::string::npos;) text.replace(i, 1, tty);
                return text;
            };
            EXPECT_NE(r.err.find(at(c.progress)), std::string::npos) << c.command << r.err;
            EXPECT_NE(r.err.find("\033[Kfanout-depot: " + at(c.summary) + "\r\n"),
                      std::string::npos)
                << c.command << r.err;
        }
    }
}

// A file of `bytes` bytes whose content depends on `seed` at every offset.
std::string Pattern(size_t bytes, unsigned seed) {
    std::string s(bytes, '\0');
    for (size_t i = 0; i < bytes; ++i) {
        s[i] = static_cast<char>((i * 31 + seed * 7 + i / 251) % 256);
    }
    return s;
}

// Adds of keys that share a bucket, run at the same time, each keep their
// own bytes: the locks exclude and no entry replaces another's file.
TEST_F(FanoutDepotTool, ConcurrentAddsOfOneBucketKeepEveryByte) {
    constexpr int kRounds = 5, kAdds = 4;
    for (int round = 0; round < kRounds; ++round) {
        std::vector<std::string> keys, files;
        for (int i = 0; i < kAdds; ++i) {
            // The same first half: one bucket for all.
            keys.push_back("shared-prefix-" + std::to_string(round) + std::string(1, 'a' + i));
            files.push_back(root_ + "/src" + std::to_string(round) + std::to_string(i));
            std::ofstream(files.back(), std::ios::binary) << Pattern(300000 + i, round * 10 + i);
        }
        std::vector<pid_t> pids;
        for (int i = 0; i < kAdds; ++i) {
            pid_t pid = fork();
            if (pid == 0) {
                int null = open("/dev/null", O_WRONLY);
                dup2(null, 1);
                dup2(null, 2);
                execl(FANOUT_DEPOT_TOOL, "fanout-depot", depot_.c_str(), "add",
                      (keys[i] + "^1").c_str(), files[i].c_str(), static_cast<char*>(nullptr));
                _exit(127);
            }
            pids.push_back(pid);
        }
        for (pid_t pid : pids) {
            int status = 0;
            ASSERT_EQ(waitpid(pid, &status, 0), pid);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
        }
        for (int i = 0; i < kAdds; ++i) {
            const Result r = Run({depot_, "list", keys[i] + "^1", "-l"});
            ASSERT_EQ(r.status, 0) << keys[i] << r.err;
            const std::string marker = Msg(146, {"@"});
            const std::string prefix = marker.substr(0, marker.find('@'));
            const size_t at = r.out.find(prefix);
            ASSERT_NE(at, std::string::npos);
            const size_t end = r.out.find('\n', at);
            const std::string location = r.out.substr(at + prefix.size(), end - at - prefix.size());
            EXPECT_EQ(Slurp(location), Slurp(files[i])) << keys[i];
        }
    }
    EXPECT_EQ(FilesEndingIn(".xml"), size_t{kRounds * kAdds});
    EXPECT_EQ(FilesEndingIn(".dat"), size_t{kRounds * kAdds});
}

// Entry files of every unusable kind hide no other entry from list, describe
// and purge, none of which blocks on a FIFO; each says how many it skipped,
// in one line of its own on standard error, and exits 1.
TEST_F(FanoutDepotTool, UnusableEntryFilesAreCountedAndHideNothing) {
    for (int i = 0; i < 7; ++i) {
        const std::vector<std::string> deadline = {"--deadline", i < 3 ? "1000" : "2100/01/01",
                                                   "--force"};
        std::vector<std::string> args = {depot_, "add", "e" + std::to_string(i) + "^1",
                                         Sample("s" + std::to_string(i), 2048)};
        args.insert(args.end(), deadline.begin(), deadline.end());
        ASSERT_EQ(Run(args).status, 0);
    }
    ASSERT_EQ(mkdir((depot_ + "/00000000.90.xml").c_str(), 0700), 0);
    ASSERT_EQ(symlink("nowhere", (depot_ + "/00000000.91.xml").c_str()), 0);
    ASSERT_EQ(mkfifo((depot_ + "/00000000.92.xml").c_str(), 0600), 0);
    ASSERT_EQ(truncate(Sample("depot/00000000.93.xml", 1).c_str(), off_t{3} << 30), 0);

    const std::string skipped = "fanout-depot: 4 entry files of the depot could not be used";
    Result r = Run({depot_, "list"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(std::count(r.out.begin(), r.out.end(), '\n'), 8) << r.out;
    EXPECT_EQ(r.err.rfind(skipped, 0), 0u) << r.err;
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    r = Run({depot_, "describe"});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find(Msg(163, {"14"})), std::string::npos) << r.out;
    r = Run({depot_, "--size", "15", "add", "big^1", Sample("big", 4096)});
    EXPECT_EQ(r.err, "fanout-depot: " + Msg(7, {"4"}));  // the size limit still holds
    r = Run({depot_, "purge", "--expired"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err.rfind(skipped, 0), 0u) << r.err;
    EXPECT_EQ(FilesEndingIn(".dat"), 4u);
    EXPECT_EQ(Run({depot_, "list", "e2^1"}).status, 1);
    EXPECT_EQ(Run({depot_, "list", "e3^1"}).status, 1);  // found, but others were skipped
}

// Nothing the depot's files point at, nor links planted at the names the
// depot and an image would use, is written or removed.
TEST_F(FanoutDepotTool, NothingOutsideTheDepotIsWrittenOrRemoved) {
    ASSERT_EQ(Run({depot_, "add", "seed^1", Sample("seed", 10)}).status, 0);
    const std::string victim = Sample("victim", 6);
    auto untouched = [&] { return Slurp(victim) == std::string(6, 'x'); };
    // Links at the next entry and data names of a key.
    ASSERT_EQ(symlink(victim.c_str(), (depot_ + "/" + FirstName("a", "1") + ".dat").c_str()), 0);
    ASSERT_EQ(symlink(victim.c_str(), (depot_ + "/" + FirstName("b", "1") + ".xml").c_str()), 0);
    EXPECT_EQ(Run({depot_, "add", "a^1", Sample("a", 100)}).status, 0);
    EXPECT_EQ(Run({depot_, "add", "b^1", Sample("b", 100)}).status, 0);
    EXPECT_TRUE(untouched());
    // An entry whose location names the victim: delete and purge leave it.
    const std::string entry = depot_ + "/" + FirstName("seed", "1") + ".xml";
    std::string text = Slurp(entry);
    const size_t from = text.find("<location>") + 10, to = text.find("</location>");
    text.replace(from, to - from, victim);
    std::ofstream(entry, std::ios::binary | std::ios::trunc) << text;
    EXPECT_EQ(Run({depot_, "delete", "seed^1"}).status, 1);
    EXPECT_EQ(Run({depot_, "purge"}).status, 1);
    EXPECT_TRUE(untouched());
    // An image written where links wait at the names it once used.
    const std::string images = root_ + "/cdrom";
    ASSERT_EQ(mkdir(images.c_str(), 0700), 0);
    const std::string file = Sample("img.bin", 64);
    ASSERT_EQ(Run({depot_, "add", "img^2", file}).status, 0);
    for (const char* part : {"/img.bin.part", "/img^2.toc.part"}) {
        ASSERT_EQ(symlink(victim.c_str(), (images + part).c_str()), 0);
    }
    EXPECT_EQ(Run({depot_, "image", "img^2", file, images}).status, 0);
    EXPECT_TRUE(untouched());
    EXPECT_EQ(Slurp(images + "/img.bin"), std::string(64, 'x'));
}

// A complete entry whose data was lost is stored again by the next add; an
// add killed half-way leaves a stale entry that another add replaces; keys
// holding tag text are refused.
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
    EXPECT_EQ(Run({depot_, "list"}).status, 1);  // the entry without data is skipped
    EXPECT_EQ(Run({depot_, "add", "seg^1", file}).status, 0);
    EXPECT_EQ(Slurp(data), Slurp(file));

    pid_t child = fork();
    if (child == 0) {
        if (chdir(depot_.c_str()) != 0) _exit(1);
        DepotHandle* h = nullptr;
        DepotNew(&h, depot_.c_str(), 0);
        _exit(DepotAddEntry(h, "killed", "1", nullptr, 0) != nullptr ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    r = Run({depot_, "add", "killed^1", file});
    EXPECT_EQ(r.status, 0) << r.err;
    r = Run({depot_, "list", "killed^1"});
    EXPECT_NE(r.out.find("permanent"), std::string::npos) << r.out;

    for (const char* key : {"x<state>^1", "<id>x</id>^1"}) {
        EXPECT_EQ(Run({depot_, "add", key, file}).status, 1) << key;
    }
    EXPECT_EQ(FilesEndingIn(".xml"), 2u);
}

// check names every inconsistency, --repair moves what cannot be trusted to
// lost+found and removes orphans, and a repaired depot checks clean.
TEST_F(FanoutDepotTool, CheckFindsAndRepairsEveryKindOfDamage) {
    for (const char* key : {"good^1", "short^1", "far^1", "wip^1", "dup^1"}) {
        ASSERT_EQ(Run({depot_, "add", key, Sample(key, 100)}).status, 0);
    }
    auto at = [&](const std::string& name) { return depot_ + "/" + name; };
    std::ofstream(at("00000000.77.xml")) << "garbage";                        // does not parse
    ASSERT_EQ(mkfifo(at("00000000.78.xml").c_str(), 0600), 0);                // not regular
    std::ofstream(at("00000000.79.dat")) << "orphan";                         // data, no entry
    ASSERT_EQ(truncate(at(FirstName("short", "1") + ".dat").c_str(), 5), 0);  // size
    const std::string far = at(FirstName("far", "1") + ".xml");
    std::string text = Slurp(far);
    const size_t from = text.find("<location>") + 10, to = text.find("</location>");
    std::ofstream(far, std::ios::trunc) << text.replace(from, to - from, root_ + "/far^1");
    // An entry in progress whose writer is gone.
    const std::string wip = at(FirstName("wip", "1") + ".xml");
    text = Slurp(wip);
    text.replace(text.find("<state>1</state>"), 16, "<state>0</state>");
    std::ofstream(wip, std::ios::trunc) << text;
    // The same sequence number twice, and no data for the good entry's twin.
    const std::string dup = FirstName("dup", "1");
    text = Slurp(at(dup + ".xml"));
    text.replace(text.find(dup + ".dat"), dup.size() + 4, dup.substr(0, 9) + "00.dat");
    std::ofstream(at(dup.substr(0, 9) + "00.xml")) << text;
    std::ofstream(at(dup.substr(0, 9) + "00.dat")) << std::string(100, 'x');
    ASSERT_EQ(unlink(at(FirstName("good", "1") + ".dat").c_str()), 0);

    Result r = Run({depot_, "check"});
    EXPECT_EQ(r.status, 4) << r.out;
    EXPECT_EQ(r.err, "");
    for (const std::string& line : std::vector<std::string>{
             "00000000.77.xml does not parse", "00000000.78.xml is not a regular file",
             "00000000.79.dat is a data file without an entry file",
             FirstName("short", "1") + ".xml has 5 bytes of data where its description says 100",
             FirstName("far", "1") + ".xml names the location " + root_ + "/far^1",
             FirstName("wip", "1") + ".xml is an entry in progress whose writer is gone",
             dup.substr(0, 9) + "00.xml uses the same sequence number as " + dup + ".xml",
             FirstName("good", "1") + ".xml has no data file"}) {
        EXPECT_NE(r.out.find(line), std::string::npos) << line << "\n" << r.out;
    }
    EXPECT_NE(r.out.find("8 problems found"), std::string::npos) << r.out;

    r = Run({depot_, "check", "--repair"});
    EXPECT_EQ(r.status, 3) << r.out;
    EXPECT_NE(r.out.find("8 problems found and repaired"), std::string::npos) << r.out;
    std::vector<std::string> kept;
    for (auto& e : fs::directory_iterator(depot_ + "/lost+found")) {
        kept.push_back(e.path().filename().string());
    }
    std::sort(kept.begin(), kept.end());
    const std::string s = FirstName("short", "1"), f = FirstName("far", "1");
    std::vector<std::string> expected = {"00000000.77.xml",
                                         "00000000.78.xml",
                                         dup.substr(0, 9) + "00.dat",
                                         dup.substr(0, 9) + "00.xml",
                                         s + ".dat",
                                         s + ".xml",
                                         f + ".dat",
                                         f + ".xml"};
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(kept, expected);
    r = Run({depot_, "check"});
    EXPECT_EQ(r.status, 0) << r.out;
    EXPECT_EQ(FilesEndingIn(".xml"), 1u);  // dup^1 is all that is left
    EXPECT_EQ(Run({depot_, "list", "dup^1"}).status, 0);

    // A lost+found that is not a directory cannot take anything.
    fs::remove_all(depot_ + "/lost+found");
    std::ofstream(depot_ + "/lost+found") << "in the way";
    std::ofstream(at("00000000.77.xml")) << "garbage";
    r = Run({depot_, "check", "--repair"});
    EXPECT_EQ(r.status, 5) << r.out;
}

// Standard error carries the tool's sentences only; the library's log lines
// go to FANOUT_LOG_FILE, or to standard error with --verbose.
TEST_F(FanoutDepotTool, LibraryLogLinesGoToTheLogOrVerbose) {
    ASSERT_EQ(Run({depot_, "add", "a^1", Sample("a", 10)}).status, 0);
    ASSERT_EQ(mkdir((depot_ + "/00000000.90.xml").c_str(), 0700), 0);
    const std::string trace = "DepotEntryEnumNextElement error -4 opening file";
    Result r = Run({depot_, "list"});
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    r = Run({depot_, "--verbose", "list"});
    EXPECT_NE(r.err.find(trace), std::string::npos) << r.err;
    const std::string log = root_ + "/log";
    r = Run({depot_, "list"}, {"FANOUT_LOG_FILE=" + log});
    EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
    EXPECT_NE(Slurp(log).find(trace), std::string::npos);
}

}  // namespace
