// serve.cpp - the listening programs, fanout-receive and fanout-relay: their
// command line, the start-up checks, and the loop that accepts one
// distribution after another. A relay forwards each distribution to every
// downstream target while it receives it (relay.cpp), one child process per
// target, each resuming from that target's own offsets.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

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
        // long long: a long is 32 bits wide on i386 and cannot hold UINT32_MAX.
        auto number = [&](long long lo, long long hi) {
            const std::string v = value();
            char* end = nullptr;
            const long long n = std::strtoll(v.c_str(), &end, 10);
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
            std::unique_ptr<RelayForwarder> forwarder;
            if (relay)
                forwarder = std::make_unique<RelayForwarder>(o.recv.depot, o.to, o.recv.token, lfd);
            o.recv.observer = forwarder.get();
            ReceiveResult r = ReceiveFrom(ch, o.recv);
            std::string text = std::to_string(r.bytes) + " bytes received" +
                               (r.local ? ", all segments already in the depot" : "");
            if (!r.message.empty()) text = r.message + " (" + text + ")";
            Report(program, r.dist.id, r.status, text);
            status = r.status;
            if (forwarder != nullptr) {
                // The worst of the receive and of every target.
                const int sent = forwarder->Finish();
                if (sent != kDone && (status == kDone || sent == kFailed)) status = sent;
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
