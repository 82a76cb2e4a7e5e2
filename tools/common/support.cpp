// support.cpp - the small pieces of a command-line program that the
// distribution programs share: process set-up, stop signals, paths and the
// progress bar.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>

#include "dist.h"
#include "fanout/exception.h"

namespace fanout::dist {
namespace {

volatile sig_atomic_t g_stop = 0;

void OnStop(int sig) {
    // The first request wins: a cancel after a pause is still a cancel, a
    // pause after a cancel changes nothing.
    if (sig == SIGUSR1) {
        if (g_stop == 0) g_stop = kPaused;
    } else {
        g_stop = kCancelled;
    }
}

double Now() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

std::string Human(double bytes) {
    const char* units[] = {"B", "KiB", "MiB", "GiB", "TiB"};
    int u = 0;
    while (bytes >= 1024 && u < 4) {
        bytes /= 1024;
        ++u;
    }
    char buf[32];
    std::snprintf(buf, sizeof buf, u == 0 ? "%.0f %s" : "%.1f %s", bytes, units[u]);
    return buf;
}

}  // namespace

void SetUpProcess() {
    // The programs run the depot in strict lock mode unless told otherwise:
    // several receivers, a relay and fanout-depot may share a depot.
    setenv("FANOUT_DEPOT_STRICT_LOCKS", "1", 0);
    signal(SIGPIPE, SIG_IGN);
    setvbuf(stdout, nullptr, _IOLBF, 0);
}

void InstallStopSignals() {
    struct sigaction sa {};
    sa.sa_handler = OnStop;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = SA_RESTART;
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGUSR1, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
}

int StopRequested() {
    return g_stop;
}

std::string Absolute(const std::string& path) {
    if (!path.empty() && path[0] == '/') return path;
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr) throw Failure("cannot read the current directory");
    return std::string(cwd) + "/" + path;
}

void MakeDirs(const std::string& dir) {
    for (size_t at = 1; at <= dir.size(); ++at) {
        if (at != dir.size() && dir[at] != '/') continue;
        const std::string part = dir.substr(0, at);
        if (mkdir(part.c_str(), 0775) != 0 && errno != EEXIST)
            throw Failure("cannot create the directory " + part + ": " + std::strerror(errno));
    }
    struct stat st {};
    if (stat(dir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        throw Failure(dir + " is not a directory");
}

std::string ReadSmallFile(const std::string& path, size_t limit) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw Failure("cannot open " + path + ": " + std::strerror(errno));
    std::string text;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof buf)) > 0 && text.size() <= limit) text.append(buf, n);
    const int err = errno;
    close(fd);
    if (n < 0) throw Failure("cannot read " + path + ": " + std::strerror(err));
    if (text.size() > limit) throw Failure(path + " is too large");
    return text;
}

std::string Trimmed(const std::string& text) {
    std::string t = text;
    while (!t.empty() && (t.back() == '\n' || t.back() == ' ')) t.pop_back();
    return t;
}

std::string CurrentFailureText() {
    try {
        throw;
    } catch (const fanout::Exception& e) {
        return Trimmed(e.what());
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "an unknown failure";
    }
}

ProgressBar::ProgressBar(const std::string& label, uint64_t total)
    : label_(label), total_(total), enabled_(isatty(STDERR_FILENO) == 1), start_(Now()) {}

ProgressBar::~ProgressBar() {
    Finish();
}

void ProgressBar::Advance(uint64_t bytes) {
    done_ += bytes;
    if (!enabled_) return;
    const double now = Now();
    if (now - last_draw_ >= 0.2) {
        last_draw_ = now;
        Draw(false);
    }
}

void ProgressBar::Finish() {
    if (!enabled_) return;
    Draw(true);
    enabled_ = false;
}

void ProgressBar::Draw(bool last) {
    const double elapsed = std::max(Now() - start_, 1e-6);
    const double rate = static_cast<double>(done_) / elapsed;
    const double frac =
        total_ == 0 ? 1.0 : static_cast<double>(done_) / static_cast<double>(total_);
    const int width = 24;
    const int filled = static_cast<int>(std::min(1.0, frac) * width);
    std::string bar(static_cast<size_t>(filled), '#');
    bar.append(static_cast<size_t>(width - filled), '.');
    std::string left = "--:--";
    if (rate > 0 && total_ >= done_) {
        const long secs = std::lround(static_cast<double>(total_ - done_) / rate);
        char buf[32];
        std::snprintf(buf, sizeof buf, "%ld:%02ld", secs / 60, secs % 60);
        left = buf;
    }
    std::fprintf(stderr, "\r%s [%s] %s of %s  %s/s  %s left  ", label_.c_str(), bar.c_str(),
                 Human(static_cast<double>(done_)).c_str(),
                 Human(static_cast<double>(total_)).c_str(), Human(rate).c_str(), left.c_str());
    if (last) std::fputc('\n', stderr);
    std::fflush(stderr);
}

void Report(const char* program, const std::string& distid, int status, const std::string& text) {
    const char* word = status == kDone        ? "done"
                       : status == kPaused    ? "paused"
                       : status == kCancelled ? "cancelled"
                                              : "failed";
    std::printf("%s: %s %s%s%s\n", program, distid.empty() ? "-" : distid.c_str(), word,
                text.empty() ? "" : ": ", text.c_str());
    std::fflush(stdout);
}

}  // namespace fanout::dist
