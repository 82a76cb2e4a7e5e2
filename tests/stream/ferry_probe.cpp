// ferry_probe.cpp - a program that the delivery service tests start in a
// fresh process (the client library is looked for once per process): it
// loads the service and, when that works, reads one package through a
// type-11 stream.
//
//   test_stream_ferry_probe MANAGER DESTINATION PACKAGE
//
// It prints "probe: loaded=L table=T" (T: the entry points in the table) and
// "probe: LD_LIBRARY_PATH=..." ("<unset>" when unset) on standard output;
// the service logs on standard error. Exit status: 0 the package was read
// whole and equals MANAGER/PACKAGE; 3 the service did not load and a type-11
// stream would not open; 1 anything else (2 when an exception came).
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "fanout/exception.h"
#include "fanout/ferry.h"
#include "fanout/properties.h"
#include "fanout/stream.h"

namespace {

int read_package(const char* manager, const char* destination, const char* package) {
    const uint8_t octets[3] = {11, 0, 0};
    StreamKey key{3, 3, const_cast<uint8_t*>(octets)};
    NetStream* s = net_stream_open(&key);
    if (!ferry_loaded) {
        const bool refused = s == nullptr;
        if (s != nullptr) net_stream_close(s);
        return refused ? 3 : 1;
    }
    if (s == nullptr) return 1;
    s->toc = properties_list_new();
    Properties segment{};
    properties_put_string_dup(&segment, "ferry_manager", manager);
    properties_put_string_dup(&segment, "ferry_packageid", package);
    properties_put_string_dup(&segment, "ferry_destination", destination);
    seq_add(s->toc, &segment, sizeof segment);

    std::string bytes;
    void* data = nullptr;
    int32_t n;
    while ((n = net_stream_read(s, &data)) > 0) {
        bytes.append(static_cast<const char*>(data), static_cast<size_t>(n));
        net_stream_free_buffer(s, data);
    }
    net_stream_close(s);
    std::ifstream in(std::string(manager) + "/" + package, std::ios::binary);
    const std::string expected{std::istreambuf_iterator<char>(in), {}};
    std::printf("probe: read %zu bytes\n", bytes.size());
    return n == 0 && !bytes.empty() && bytes == expected ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s MANAGER DESTINATION PACKAGE\n", argv[0]);
        return 1;
    }
    ferry_init();
    int slots = 0;
    for (void* slot : {reinterpret_cast<void*>(ferry_funcs.DownloadFile),
                       reinterpret_cast<void*>(ferry_funcs.GetDownloadDirectory),
                       reinterpret_cast<void*>(ferry_funcs.GetSingleFileSize),
                       reinterpret_cast<void*>(ferry_funcs.PublishFile),
                       reinterpret_cast<void*>(ferry_funcs.ReleaseFile)}) {
        slots += slot != nullptr;
    }
    const char* path = std::getenv("LD_LIBRARY_PATH");
    std::printf("probe: loaded=%d table=%d\nprobe: LD_LIBRARY_PATH=%s\n", ferry_loaded, slots,
                path != nullptr ? path : "<unset>");
    try {
        const int code = read_package(argv[1], argv[2], argv[3]);
        std::fflush(stdout);
        return code;
    } catch (const fanout::Exception& e) {
        std::printf("probe: raised %s\n", e.what());
        return 2;
    }
}
