// Tests of the log queue, configuration look-ups, compatibility calls and thread primitives.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

#include "fanout/log.h"
#include "fanout/runtime.h"
#include "fanout/thread.h"

namespace {

using Captured = std::vector<std::pair<int32_t, std::string>>;
void capture(int32_t level, const char* line, void* context) {
    static_cast<Captured*>(context)->emplace_back(level, line);
}

class LogTest : public ::testing::Test {
  protected:
    void SetUp() override {
        fanout_log_set_handler(capture, &captured_);
        fanout_log_set_level(2);
    }
    void TearDown() override {
        fanout_log_set_handler(nullptr, nullptr);
        fanout_log_set_level(1);
    }
    Captured captured_;
};

TEST_F(LogTest, LevelFilterAndSubstitution) {
    LogQ(2, "fanout: %s %d", "queued", 3);
    LogQ(3, "fanout: trace");
    LogMsg(1, nullptr, 0, -1, "Error: Invalid pathname %1$s", "/p");
    LogMsg(0, nullptr, 0, -1, "DepotSetDir exit.  Error %d(%d) obtaining lock\n");
    LogMsg(0, nullptr, 0, -1, "%2$u of %1$s", -1, "all");  // read in order of appearance
    fanout_log_line(0, "kept %1$s as it is");
    ASSERT_EQ(captured_.size(), 5u);
    EXPECT_EQ(captured_[0], std::make_pair(2, std::string("fanout: queued 3")));
    EXPECT_EQ(captured_[1].second, "Error: Invalid pathname /p");
    EXPECT_EQ(captured_[2].second, "DepotSetDir exit.  Error %d(%d) obtaining lock\n");
    EXPECT_EQ(captured_[3].second, "all of 4294967295");
    EXPECT_EQ(captured_[4].second, "kept %1$s as it is");
    EXPECT_EQ(fanout_log_enabled(2), 1);
    EXPECT_EQ(fanout_log_enabled(3), 0);
    // A suppressed level formats nothing: that would read through this pointer.
    const char* poison = reinterpret_cast<const char*>(16);
    LogQ(3, "fanout: %s", poison);
    LogMsg(3, nullptr, 0, -1, "%1$s", poison);
    EXPECT_EQ(captured_.size(), 5u);
}

TEST(LogEnvironmentDeathTest, LevelAndFileComeFromTheEnvironment) {
    // The child runs this test again from the start in a fresh process (so
    // the environment is read anew); it inherits the parent's settings.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    std::string dir;
    if (const char* inherited = getenv("FANOUT_LOG_FILE")) {
        dir = std::string(inherited).substr(0, std::string(inherited).rfind('/'));
    } else {
        char dir_template[] = "/tmp/fanout_log_XXXXXX";
        ASSERT_NE(mkdtemp(dir_template), nullptr);
        dir = dir_template;
    }
    std::string file = dir + "/log.txt";
    setenv("FANOUT_LOG_LEVEL", "2", 1);
    setenv("FANOUT_LOG_FILE", file.c_str(), 1);
    EXPECT_EXIT(
        {
            LogQ(2, "fanout: two");
            LogQ(3, "fanout: three");
            LogMsg(0, "Cat", 1, -1, "zero %1$s", "arg");
            std::exit(fanout_log_enabled(3) == 0 && fanout_log_enabled(2) == 1 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    unsetenv("FANOUT_LOG_LEVEL");
    unsetenv("FANOUT_LOG_FILE");
    std::ifstream in(file);
    std::stringstream text;
    text << in.rdbuf();
    EXPECT_EQ(text.str(), "fanout: two\nzero arg\n");
    unlink(file.c_str());
    rmdir(dir.c_str());
}

TEST(Config, KeyValueFile) {
    char dir[] = "/tmp/fanout_cfg_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string file = std::string(dir) + "/zel.cfg";
    std::ofstream(file) << "# comment = no\n\n  depot_dir =  /var/depot \r\nname=first\n"
                           "name=second\nnovalue\nempty=\n";
    const std::pair<const char*, const char*> cases[] = {
        {"depot_dir", "/var/depot"}, {"name", "first"},    {"empty", ""},
        {"# comment", nullptr},      {"novalue", nullptr}, {"missing", nullptr}};
    for (const auto& [key, expected] : cases) {
        char* value = nullptr;
        EXPECT_EQ(mrt_get_config_from_file(file.c_str(), key, &value), 0) << key;
        EXPECT_STREQ(value, expected) << key;
        mg_free(value);
    }
    char* value = nullptr;
    EXPECT_EQ(mrt_get_config_from_file((file + "x").c_str(), "k", &value), ENOENT);
    EXPECT_EQ(value, nullptr);
    unlink(file.c_str());
    rmdir(dir);
}

TEST(Config, EnvironmentLookups) {
    setenv("FANOUT_WORK_DIR", "/work/dir", 1);
    char* dir = mrt_get_work_dir();
    EXPECT_STREQ(dir, "/work/dir");
    mg_free(dir);
    unsetenv("FANOUT_WORK_DIR");
    EXPECT_EQ(mrt_get_work_dir(), nullptr);
    unsetenv("FANOUT_CONFIG");
    EXPECT_EQ(mrt_get_config_filespec(), nullptr);
    setenv("TMPDIR", "/scratch", 1);
    EXPECT_STREQ(cpl_tmpdir(0), "/scratch");
    unsetenv("TMPDIR");
    EXPECT_STREQ(cpl_tmpdir(0), "/tmp");
    EXPECT_EQ(cpl_getenv(nullptr), nullptr);
}

TEST(Config, CorrectPathTable) {
    const std::pair<const char*, const char*> cases[] = {
        {"/a//b/./c/", "/a/b/c"}, {"a/./b", "a/b"}, {"/", "/"}, {"//", "/"}, {"./", "."}, {"", "."},
        {"a/../b", "a/../b"}};
    for (const auto& [in, out] : cases) {
        char* p = CorrectPath(in, 0);
        EXPECT_STREQ(p, out) << in;
        mg_free(p);
    }
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    char* p = CorrectPath("x/", 1);
    EXPECT_EQ(std::string(p), std::string(cwd) == "/" ? "/x" : std::string(cwd) + "/x");
    mg_free(p);
    EXPECT_EQ(CorrectPath(nullptr, 0), nullptr);
}

TEST(Compat, MultibyteByteTypes) {
    std::string saved = setlocale(LC_CTYPE, nullptr);
    if (setlocale(LC_CTYPE, "C.UTF-8") == nullptr) GTEST_SKIP() << "no C.UTF-8 locale";
    const char text[] = "a\xc3\xa9/\xe2\x82\xac";  // a, e-acute, '/', euro sign
    const int32_t expected[] = {0, 1, 2, 0, 1, 2, 2, 0, -1};
    for (int32_t i = 0; i < 9; ++i) EXPECT_EQ(ilx_mbsbtype(text, i), expected[i]) << i;
    EXPECT_EQ(ilx_mbsbtype("\xff!", 1), -1);  // after an invalid byte
    EXPECT_EQ(ilx_mbsbtype(nullptr, 0), -1);
    setlocale(LC_CTYPE, saved.c_str());
}

int g_once_runs = 0;
void count_run() {
    ++g_once_runs;
}

TEST(Threads, OnceRunsExactlyOnce) {
    static PalOnce once = PAL_ONCE_INIT;
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
        threads.emplace_back([] { EXPECT_EQ(PalThreadOnce(&once, count_run).palError, PAL_OK); });
    for (auto& t : threads) t.join();
    EXPECT_EQ(g_once_runs, 1);
    EXPECT_EQ(PalThreadOnce(nullptr, count_run).palError, PAL_ERR_INVALID_ARGUMENT);
}

TEST(Threads, MonitorWaitAndNotify) {
    PalMutex mutex = nullptr;
    PalMonitor monitor = nullptr;
    ASSERT_EQ(PalMutexCreate(&mutex).palError, PAL_OK);
    ASSERT_EQ(PalMonitorCreate(&monitor).palError, PAL_OK);
    bool flag = false;
    ASSERT_EQ(PalMutexLock(mutex).palError, PAL_OK);
    PalError e = PalMonitorTimedWait(monitor, mutex, 0);
    EXPECT_TRUE(e.palError == PAL_OK ||  // an early wake-up is allowed
                (e.palError == PAL_WAIT_TIMEOUT && e.nativeError == ETIMEDOUT));
    std::thread notifier([&] {
        PalMutexLock(mutex);
        flag = true;
        PalMonitorNotifyAll(monitor);
        PalMutexUnlock(mutex);
    });
    while (!flag) PalMonitorTimedWait(monitor, mutex, 1000);
    EXPECT_EQ(PalMutexUnlock(mutex).palError, PAL_OK);
    notifier.join();
    EXPECT_EQ(PalMonitorDestroy(monitor).palError, PAL_OK);
    EXPECT_EQ(PalMutexDestroy(mutex).palError, PAL_OK);
    EXPECT_EQ(PalMutexLock(nullptr).palError, PAL_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(PalMonitorTimedWait(nullptr, nullptr, 1).palError, PAL_ERR_INVALID_ARGUMENT);
}

}  // namespace
