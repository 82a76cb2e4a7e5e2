// main.cpp - fanout-depot: describe, fill, list and clean a Depot.
//
//   fanout-depot help
//   fanout-depot DEPOT describe
//   fanout-depot DEPOT add id^version [source_host:]file [--deadline TIME]
//   fanout-depot DEPOT image id^version [source_host:]file image_dir
//   fanout-depot DEPOT list [id^version] [-l]
//   fanout-depot DEPOT delete id^version
//   fanout-depot DEPOT purge [--expired]
//
// DEPOT is a depot directory, or "." for this host's configured depot.
// "--size KiB" may stand anywhere after the program name. Output texts are
// the service's catalogue messages; errors are one line on standard error.
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "fanout/exception.h"
#include "fanout/types.h"
#include "tool.h"

using fanout::tool::Options;

namespace {

std::string Usage(const std::string& program) {
    return fanout::tool::Message(134, std::vector<std::string>(8, program));
}

// Takes "--size N" out of the arguments.
std::vector<std::string> TakeSize(std::vector<std::string> args, Options& o) {
    std::vector<std::string> rest;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] != "--size") {
            rest.push_back(args[i]);
            continue;
        }
        if (i + 1 == args.size()) throw fanout::tool::UsageError("--size needs a value in KiB");
        char* end = nullptr;
        const unsigned long long v = std::strtoull(args[i + 1].c_str(), &end, 10);
        if (args[i + 1].empty() || *end != '\0' || v > 0xFFFFFFFFull) {
            throw fanout::tool::UsageError("--size needs a value in KiB");
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
        std::vector<std::string> args = TakeSize({argv + (argc > 0 ? 1 : 0), argv + argc}, o);
        if (args.size() == 1 && (args[0] == "help" || args[0] == "--help" || args[0] == "-h")) {
            std::fputs(Usage(o.program).c_str(), stdout);
            return fanout::tool::kOk;
        }
        if (args.size() < 2) throw fanout::tool::UsageError("a depot and a command are needed");
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
        throw fanout::tool::UsageError("unknown command \"" + command + "\"");
    } catch (const fanout::tool::UsageError& e) {
        std::fprintf(stderr, "%s: %s\n", o.program.c_str(), e.what());
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
    return Run(argc, argv);
}
