// fanout-status: lists the progress status files of a work directory, the
// running ones (".ads", ".mds") and the finished ones (".adf", ".mdf"), with
// bytes received of the total and whether the distribution failed, was
// paused or closed. docs/fanout-status.1 is the manual.
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "dist.h"
#include "fanout/exception.h"
#include "fanout/log.h"
#include "fanout/properties.h"
#include "fanout/stream.h"

using namespace fanout::dist;

namespace {

struct Row {
    std::string id, state, c_len, t_len, flags, err_msg;
};

std::string Text(const Properties* p, const char* key) {
    const int32_t i = properties_get_property_index(p, key);
    if (i < 0) return "";
    try {
        const char* v = properties_get_string(p, key);
        std::string s = v != nullptr ? v : "";
        while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
        return s;
    } catch (const fanout::Exception&) {
        return "?";
    }
}

bool Flag(const Properties* p, const char* key) {
    try {
        return properties_get_boolean2(p, key, 0) != 0;
    } catch (const fanout::Exception&) {
        return false;
    }
}

// One progress file, read through the progress record of its id.
Row Load(const std::string& id, const std::string& suffix) {
    Row row;
    row.id = id;
    row.state = suffix[2] == 's' ? "running" : "finished";
    MStat* m = mstat_new(id.c_str(), suffix[0] == 'a');
    if (m == nullptr) throw Failure("out of memory");
    // The record names the running file; a finished one has its own suffix.
    std::memcpy(m->suffix, suffix.c_str(), 4);
    try {
        (void)mstat_load(m);
    } catch (const fanout::Exception&) {
        // mstat_load ignores what it cannot decode: the row shows what was.
    }
    const Properties* p = mstat_get_properties(m);
    row.c_len = Text(p, "c_len");
    row.t_len = Text(p, "t_len");
    std::vector<std::string> flags;
    if (Flag(p, "err")) flags.push_back("failed");
    if (Flag(p, "paused")) flags.push_back("paused");
    if (Flag(p, "close")) flags.push_back("closed");
    for (const auto& f : flags) row.flags += (row.flags.empty() ? "" : ",") + f;
    row.err_msg = Text(p, "err_msg");
    mstat_free(m);
    return row;
}

int Main(int argc, char** argv) {
    if (argc > 2 || (argc == 2 && argv[1][0] == '-')) {
        std::fputs("usage: fanout-status [WORKDIR]\n",
                   argc == 2 && !std::strcmp(argv[1], "--help") ? stdout : stderr);
        return argc == 2 && !std::strcmp(argv[1], "--help") ? kDone : kUsage;
    }
    // The progress files live under <work dir>/mstat: WORKDIR when given,
    // else FANOUT_WORK_DIR, else the temporary directory.
    if (argc == 2) setenv("FANOUT_WORK_DIR", Absolute(argv[1]).c_str(), 1);
    char* work = mrt_get_work_dir();
    const std::string base = work != nullptr ? work : cpl_tmpdir(0);
    mg_free(work);
    const std::string dir = base + "/mstat";
    std::vector<Row> rows;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            const std::string name = e->d_name;
            if (name.size() < 5 || name[name.size() - 4] != '.') continue;
            const std::string suffix = name.substr(name.size() - 3);
            if (suffix != "ads" && suffix != "mds" && suffix != "adf" && suffix != "mdf") continue;
            rows.push_back(Load(name.substr(0, name.size() - 4), suffix));
        }
        closedir(d);
    } else {
        std::printf("no progress files in %s\n", dir.c_str());
        return kDone;
    }
    std::sort(rows.begin(), rows.end(), [](const Row& a, const Row& b) {
        return a.state != b.state ? a.state > b.state : a.id < b.id;
    });
    std::printf("%-24s %-9s %25s  %-20s %s\n", "DISTRIBUTION", "STATE", "RECEIVED OF TOTAL",
                "FLAGS", "MESSAGE");
    for (const Row& r : rows) {
        const std::string bytes =
            (r.c_len.empty() ? "-" : r.c_len) + " of " + (r.t_len.empty() ? "-" : r.t_len);
        std::printf("%-24s %-9s %25s  %-20s %s\n", r.id.c_str(), r.state.c_str(), bytes.c_str(),
                    r.flags.empty() ? "-" : r.flags.c_str(), r.err_msg.c_str());
    }
    return kDone;
}

}  // namespace

int main(int argc, char** argv) {
    SetUpProcess();
    try {
        return Main(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "fanout-status: %s\n", e.what());
        return kFailed;
    }
}
