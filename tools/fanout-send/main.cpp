// fanout-send: the source of a distribution. Sends files, or complete
// entries of a depot, to a receiver or relay; resumes from what the receiver
// already has. docs/fanout-send.1 is the manual.
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dist.h"
#include "fanout/exception.h"

using namespace fanout::dist;

namespace {

const char kUsageText[] =
    "usage: fanout-send [--id DISTID] [--version VERSION] [--token-file FILE]\n"
    "                   [--block-size BYTES] [--quiet] TARGET FILE...\n"
    "       fanout-send [--id DISTID] [--token-file FILE] [--quiet] --depot DIR\n"
    "                   TARGET ID^VERSION...\n"
    "TARGET is unix:PATH or tcp:HOST:PORT.\n";

// A distribution id that names the same content again after a restart:
// a digest of the segments' names, versions and sizes.
std::string DefaultId(const Distribution& d) {
    std::string text;
    for (const SegmentInfo& s : d.segments)
        text += s.id + "^" + s.version + "^" + std::to_string(s.size) + "\n";
    unsigned char md[EVP_MAX_MD_SIZE];
    unsigned int n = 0;
    EVP_Digest(text.data(), text.size(), md, &n, EVP_sha256(), nullptr);
    static const char hex[] = "0123456789abcdef";
    std::string id = "dist-";
    for (unsigned i = 0; i < 8 && i < n; ++i) {
        id += hex[md[i] >> 4];
        id += hex[md[i] & 15];
    }
    return id;
}

SegmentInfo FromFile(const std::string& path, const std::string& version) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) throw Failure("cannot read " + path + ": " + strerror(errno));
    if (!S_ISREG(st.st_mode)) throw Failure(path + " is not a regular file");
    if (st.st_size > INT32_MAX)
        throw Failure(path + " is larger than 2 GiB - 1, the segment limit");
    SegmentInfo s;
    const size_t slash = path.find_last_of('/');
    s.id = slash == std::string::npos ? path : path.substr(slash + 1);
    // Without --version the modification time and size tell versions of a
    // file apart, so that a changed file is never resumed into an old one.
    s.version =
        !version.empty() ? version : std::to_string(st.st_mtime) + "." + std::to_string(st.st_size);
    s.size = st.st_size;
    s.path = Absolute(path);
    CheckName(s.id, "segment id");
    CheckName(s.version, "segment version");
    return s;
}

int Main(int argc, char** argv) {
    SendOptions opts;
    Distribution d;
    std::string version, depot, token_file;
    std::vector<std::string> args;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) throw UsageError(a + " needs a value");
            return argv[++i];
        };
        if (a == "--id") {
            d.id = value();
        } else if (a == "--version") {
            version = value();
        } else if (a == "--depot") {
            depot = value();
        } else if (a == "--token-file") {
            token_file = value();
        } else if (a == "--block-size") {
            const long n = std::strtol(value().c_str(), nullptr, 10);
            if (n < 1024 || n > 16 * 1024 * 1024) throw UsageError("--block-size: 1024 to 16 MiB");
            opts.block_size = static_cast<int32_t>(n);
        } else if (a == "--quiet") {
            opts.quiet = true;
        } else if (a == "--help" || a == "-h") {
            std::fputs(kUsageText, stdout);
            return kDone;
        } else if (a.size() > 1 && a[0] == '-') {
            throw UsageError("unknown option " + a);
        } else {
            args.push_back(a);
        }
    }
    if (args.size() < 2) throw UsageError("a target and at least one segment are needed");
    opts.target = args[0];
    if (!token_file.empty()) opts.token = ReadToken(token_file);
    if (depot.empty()) {
        for (size_t i = 1; i < args.size(); ++i) d.segments.push_back(FromFile(args[i], version));
    } else {
        // Depot entries: the lock files are made in the current directory,
        // which must be the depot's for them to be shared.
        depot = Absolute(depot);
        if (chdir(depot.c_str()) != 0) throw Failure("cannot enter the depot " + depot);
        for (size_t i = 1; i < args.size(); ++i) {
            const size_t caret = args[i].find('^');
            if (caret == std::string::npos) throw UsageError(args[i] + " is not ID^VERSION");
            SegmentInfo s;
            s.id = args[i].substr(0, caret);
            s.version = args[i].substr(caret + 1);
            CheckName(s.id, "segment id");
            CheckName(s.version, "segment version");
            d.segments.push_back(s);
        }
        LocateInDepot(depot, &d, true);  // sizes and files from the depot
    }
    if (d.id.empty()) d.id = DefaultId(d);
    CheckName(d.id, "distribution id");
    InstallStopSignals();
    const SendResult r = SendTo(opts, d);
    std::string text = std::to_string(r.bytes) + " bytes sent, " + std::to_string(r.segments) +
                       " of " + std::to_string(d.segments.size()) + " segments needed";
    if (!r.message.empty()) text = r.message + " (" + text + ")";
    if (!opts.quiet || r.status != kDone) Report("fanout-send", d.id, r.status, text);
    return r.status;
}

}  // namespace

int main(int argc, char** argv) {
    SetUpProcess();
    try {
        return Main(argc, argv);
    } catch (const UsageError& e) {
        std::fprintf(stderr, "fanout-send: %s\n%s", e.what(), kUsageText);
        return kUsage;
    } catch (const Failure& e) {
        std::fprintf(stderr, "fanout-send: %s\n", e.what());
        return kFailed;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "fanout-send: %s\n", e.what());
        return kFailed;
    }
}
