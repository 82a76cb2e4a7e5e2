// serve.cpp - the listening programs, fanout-receive and fanout-relay: their
// command line, the start-up checks, and the loop that accepts one
// distribution after another. A relay forwards each distribution it has
// received completely to every downstream target, one child process per
// target, each resuming from that target's own offsets.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dist.h"
#include "fanout/exception.h"
#include "fanout/log.h"

namespace fanout::dist {
namespace {

const char kReceiveUsage[] =
    "usage: fanout-receive --listen ADDRESS --depot DIR [--size KIB] [--mobile]\n"
    "                      [--out DIR] [--token-file FILE] [--keep-serving]\n"
    "                      [--deadline-days N]\n"
    "ADDRESS is unix:PATH or tcp:HOST:PORT (port 0 picks one).\n";
const char kRelayUsage[] =
    "usage: fanout-relay --listen ADDRESS --depot DIR --to TARGET[,TARGET...]\n"
    "                    [--size KIB] [--token-file FILE] [--keep-serving]\n"
    "                    [--deadline-days N]\n"
    "ADDRESS and TARGET are unix:PATH or tcp:HOST:PORT.\n";

struct ServeOptions {
    std::string listen;
    ReceiveOptions recv;
    std::vector<std::string> to;
    bool keep_serving = false;
};

ServeOptions Parse(int argc, char** argv, bool relay) {
    ServeOptions o;
    std::string token_file;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) throw UsageError(a + " needs a value");
            return argv[++i];
        };
        auto number = [&](long lo, long hi) {
            const std::string v = value();
            char* end = nullptr;
            const long n = std::strtol(v.c_str(), &end, 10);
            if (v.empty() || *end != '\0' || n < lo || n > hi)
                throw UsageError(a + ": " + v + " is not a number from " + std::to_string(lo) +
                                 " to " + std::to_string(hi));
            return n;
        };
        if (a == "--listen") {
            o.listen = value();
        } else if (a == "--depot") {
            o.recv.depot = value();
        } else if (a == "--size") {
            o.recv.size_kib = static_cast<uint32_t>(number(0, UINT32_MAX));
        } else if (a == "--token-file") {
            token_file = value();
        } else if (a == "--keep-serving") {
            o.keep_serving = true;
        } else if (a == "--deadline-days") {
            o.recv.deadline_days = static_cast<int32_t>(number(0, 36500));
        } else if (!relay && a == "--mobile") {
            o.recv.mobile = true;
        } else if (!relay && a == "--out") {
            o.recv.out = value();
        } else if (relay && a == "--to") {
            std::string list = value();
            for (size_t at = 0; at <= list.size();) {
                const size_t comma = std::min(list.find(',', at), list.size());
                if (comma > at) o.to.push_back(list.substr(at, comma - at));
                at = comma + 1;
            }
        } else if (a == "--help" || a == "-h") {
            std::fputs(relay ? kRelayUsage : kReceiveUsage, stdout);
            std::exit(kDone);
        } else {
            throw UsageError("unknown argument " + a);
        }
    }
    if (o.listen.empty() || o.recv.depot.empty())
        throw UsageError("--listen and --depot are needed");
    if (relay && o.to.empty()) throw UsageError("--to names no target");
    // Only loopback may listen without a shared secret.
    if (!IsLoopback(o.listen) && token_file.empty())
        throw UsageError("listening on " + o.listen + " needs --token-file");
    if (!token_file.empty()) o.recv.token = ReadToken(token_file);
    if (const char* k = std::getenv("FANOUT_RECEIVE_KILL_AFTER"))
        o.recv.kill_after = std::strtoull(k, nullptr, 10);
    return o;
}

// The local-source search finds the depot through the configuration file's
// "depot_dir". When the user names no configuration file, the program
// writes one beside the depot that names it.
void PointSearchAtDepot(const std::string& depot) {
    if (std::getenv("FANOUT_CONFIG") != nullptr) return;
    const std::string cfg = depot + "/fanout.cfg";
    FILE* f = std::fopen(cfg.c_str(), "w");
    if (f == nullptr) throw Failure("cannot write " + cfg + ": " + std::strerror(errno));
    std::fprintf(f, "depot_dir=%s\n", depot.c_str());
    if (std::fclose(f) != 0) throw Failure("cannot write " + cfg);
    setenv("FANOUT_CONFIG", cfg.c_str(), 1);
}

// Forwards a received distribution to every target; returns the worst
// status.
int Forward(const ServeOptions& o, Distribution d) {
    LocateInDepot(o.recv.depot, &d);
    std::vector<pid_t> children;
    for (const std::string& target : o.to) {
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid < 0) throw Failure(std::string("fork: ") + std::strerror(errno));
        if (pid == 0) {
            InstallStopSignals();  // SIGINT cancels, SIGUSR1 pauses the forwarding
            SendOptions so;
            so.target = target;
            so.token = o.recv.token;
            so.quiet = true;
            const SendResult r = SendTo(so, d);
            Report("fanout-relay", d.id, r.status,
                   "to " + target + ": " + std::to_string(r.bytes) + " bytes sent" +
                       (r.message.empty() ? "" : ": " + r.message));
            std::fflush(nullptr);
            _exit(r.status);
        }
        children.push_back(pid);
    }
    int worst = kDone;
    for (pid_t pid : children) {
        int st = 0;
        while (waitpid(pid, &st, 0) < 0 && errno == EINTR) {
        }
        const int status = WIFEXITED(st) ? WEXITSTATUS(st) : kFailed;
        if (status != kDone && (worst == kDone || status == kFailed)) worst = status;
    }
    return worst;
}

}  // namespace

int Serve(const char* program, int argc, char** argv, bool relay) {
    SetUpProcess();
    try {
        ServeOptions o = Parse(argc, argv, relay);
        o.recv.depot = Absolute(o.recv.depot);
        if (!o.recv.out.empty()) o.recv.out = Absolute(o.recv.out);
        MakeDirs(o.recv.depot);
        // The depot's lock files are made in the current directory: the
        // depot's own, so that every program on it shares them.
        if (chdir(o.recv.depot.c_str()) != 0) throw Failure("cannot enter " + o.recv.depot);
        PointSearchAtDepot(o.recv.depot);
        char* bound = nullptr;
        const int lfd = fanout_listen(o.listen.c_str(), &bound);
        std::printf("%s: listening on %s\n", program, bound);
        mg_free(bound);
        int status = kDone;
        do {
            FanoutChannel* ch = fanout_channel_accept(lfd, 0);
            ReceiveResult r = ReceiveFrom(ch, o.recv);
            std::string text = std::to_string(r.bytes) + " bytes received" +
                               (r.local ? ", all segments already in the depot" : "");
            if (!r.message.empty()) text = r.message + " (" + text + ")";
            Report(program, r.dist.id, r.status, text);
            status = r.status;
            if (relay && r.status == kDone) {
                try {
                    status = Forward(o, r.dist);
                } catch (const Failure& f) {
                    Report(program, r.dist.id, kFailed, f.what());
                    status = kFailed;
                }
            }
        } while (o.keep_serving);
        close(lfd);
        return status;
    } catch (const UsageError& e) {
        std::fprintf(stderr, "%s: %s\n%s", program, e.what(), relay ? kRelayUsage : kReceiveUsage);
        return kUsage;
    } catch (const Failure& e) {
        std::fprintf(stderr, "%s: %s\n", program, e.what());
        return kFailed;
    } catch (const fanout::Exception& e) {
        std::fprintf(stderr, "%s: %s\n", program, Trimmed(e.what()).c_str());
        return kFailed;
    }
}

}  // namespace fanout::dist
