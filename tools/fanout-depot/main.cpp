// main.cpp - fanout-depot: describe, fill, list and clean a Depot.
//
//   fanout-depot help | --help | --version
//   fanout-depot DEPOT describe
//   fanout-depot DEPOT add id^version [source_host:]file [--deadline TIME [--force]]
//   fanout-depot DEPOT image id^version [source_host:]file image_dir
//   fanout-depot DEPOT list [id^version] [-l]
//   fanout-depot DEPOT delete id^version
//   fanout-depot DEPOT purge [--expired]
//   fanout-depot DEPOT check [--repair]
//
// DEPOT is a depot directory, or "." for this host's configured depot; only
// add creates a missing one. "--size KB" and "--verbose" may stand anywhere
// after the program name. Usage mistakes exit 2 with the usage text; long
// operations show progress when standard error is a terminal.
// Output texts are the service's catalogue messages; errors are one line on
// standard error. Standard error carries only the tool's own sentences: the
// library's log lines go to FANOUT_LOG_FILE when it is set, to standard error
// with --verbose, and nowhere otherwise. The depot's locks are strict unless
// FANOUT_DEPOT_STRICT_LOCKS=0 (or "depot_strict_locks=0" in the
// configuration file) says otherwise.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "fanout/depot.h"
#include "fanout/exception.h"
#include "fanout/log.h"
#include "fanout/types.h"
#include "tool.h"

using fanout::tool::Options;

namespace {

std::string Usage(const std::string& program) {
    // The catalogue's usage text, and the check command it predates.
    return fanout::tool::Message(fanout::tool::msg::kUsage, std::vector<std::string>(8, program)) +
           " " + program + " repeater_name check [--repair]\n";
}

// The usage text and every option the tool takes; the man page's OPTIONS
// section lists the same options with the same sentences. Sizes are in KB
// of 1024 bytes, the unit the catalogue's texts print.
std::string Help(const std::string& program) {
    return Usage(program) +
           "Options:\n"
           " --size KB        the depot's size for the accounting of add and describe\n"
           " --verbose        the library's log lines on standard error\n"
           " --deadline TIME  add: when purge --expired may remove the entry\n"
           "                  (seconds since 1970, or YYYY/MM/DD [HH:MM:SS])\n"
           " --force          add: accept a deadline that has passed\n"
           " -l               list: every field of each entry, its deadline included\n"
           " --expired        purge: only complete entries whose deadline has passed\n"
           " --repair         check: repair what it finds\n"
           " --help           the usage text and these options\n"
           " --version        the tool's version\n";
}

void ToStandardError(int32_t, const char* line, void*) {
    std::fputs(line, stderr);
    const size_t n = std::strlen(line);
    if (n == 0 || line[n - 1] != '\n') std::fputc('\n', stderr);
}

void Discard(int32_t, const char*, void*) {}

// The library's log lines: to FANOUT_LOG_FILE when set (the runtime's own
// destination), to standard error with --verbose, else nowhere, so that
// standard error carries only the tool's sentences.
void RouteLibraryLog(bool verbose) {
    if (verbose) {
        fanout_log_set_handler(&ToStandardError, nullptr);
        return;
    }
    const char* file = std::getenv("FANOUT_LOG_FILE");
    if (file == nullptr || *file == '\0') fanout_log_set_handler(&Discard, nullptr);
}

// Takes "--size N" and "--verbose" out of the arguments.
std::vector<std::string> TakeOptions(std::vector<std::string> args, Options& o) {
    std::vector<std::string> rest;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--verbose") {
            o.verbose = true;
            continue;
        }
        if (args[i] != "--size") {
            rest.push_back(args[i]);
            continue;
        }
        if (i + 1 == args.size()) throw fanout::tool::UsageError("--size needs a value in KB");
        char* end = nullptr;
        const unsigned long long v = std::strtoull(args[i + 1].c_str(), &end, 10);
        if (args[i + 1].empty() || *end != '\0' || v > 0xFFFFFFFFull) {
            throw fanout::tool::UsageError("--size needs a value in KB");
        }
        o.sizeKiB = static_cast<uint32_t>(v);
        o.sizeGiven = true;
        ++i;
    }
    return rest;
}

int Run(int argc, char** argv) {
    Options o;
    o.program = argc > 0 ? argv[0] : "fanout-depot";
    if (const auto slash = o.program.rfind('/'); slash != std::string::npos) {
        o.program = o.program.substr(slash + 1);
    }
    try {
        std::vector<std::string> args = TakeOptions({argv + (argc > 0 ? 1 : 0), argv + argc}, o);
        RouteLibraryLog(o.verbose);
        o.progress = ::isatty(STDERR_FILENO) == 1;
        for (const auto& a : args) {
            if (a == "--help") {
                std::fputs(Help(o.program).c_str(), stdout);
                return fanout::tool::kOk;
            }
            if (a == "--version") {
                std::printf("%s (libfanout) %s\n", o.program.c_str(), FANOUT_DEPOT_VERSION);
                return fanout::tool::kOk;
            }
        }
        if (args.size() == 1 && args[0] == "help") {
            std::fputs(Help(o.program).c_str(), stdout);
            return fanout::tool::kOk;
        }
        if (args.size() < 2) throw fanout::tool::UsageError("a depot and a command are needed");
        // A depot named like an option is a mistyped option ("./-d" names
        // such a directory).
        if (args[0].size() > 1 && args[0][0] == '-') {
            throw fanout::tool::UsageError("unknown option " + args[0]);
        }
        o.depot = args[0];
        const std::string command = args[1];
        const std::vector<std::string> rest(args.begin() + 2, args.end());
        if (!o.sizeGiven) o.sizeKiB = fanout::tool::ConfiguredDepotSize();
        if (command == "describe" && rest.empty()) return fanout::tool::Describe(o);
        if (command == "add") return fanout::tool::Add(o, rest);
        if (command == "image") return fanout::tool::Image(o, rest);
        if (command == "list") return fanout::tool::List(o, rest);
        if (command == "delete") return fanout::tool::Delete(o, rest);
        if (command == "purge") return fanout::tool::Purge(o, rest);
        if (command == "check") return fanout::tool::Check(o, rest);
        throw fanout::tool::UsageError("unknown command \"" + command + "\"");
    } catch (const fanout::tool::UsageError& e) {
        std::string text = e.what();
        if (text.empty() || text.back() != '\n') text += '\n';
        std::fprintf(stderr, "%s: %s", o.program.c_str(), text.c_str());
        std::fputs(Usage(o.program).c_str(), stderr);
        return fanout::tool::kUsage;
    } catch (const fanout::tool::Failure& e) {
        std::string text = e.what();
        if (text.empty() || text.back() != '\n') text += '\n';
        std::fprintf(stderr, "%s: %s", o.program.c_str(), text.c_str());
        return fanout::tool::kFailed;
    } catch (const fanout::Exception& e) {
        std::string text = e.what();
        if (text.empty() || text.back() != '\n') text += '\n';
        std::fprintf(stderr, "%s: %s", o.program.c_str(), text.c_str());
        return fanout::tool::kFailed;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s: %s\n", o.program.c_str(), e.what());
        return fanout::tool::kFailed;
    }
}

}  // namespace

int main(int argc, char** argv) {
    fanout_init();
    // Processes exclude each other unless told otherwise.
    DepotSetStrictLocksDefault(PAL_TRUE);
    return Run(argc, argv);
}
