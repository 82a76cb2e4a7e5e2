// ferry_probe.cpp - loads the delivery service's client library in a fresh process and prints
// "probe: loaded=L table=NAMES LD_LIBRARY_PATH=PATH" ("<unset>" when unset) after its log lines.
#include <cstdio>
#include <cstdlib>

#include "ferry_double.h"

int main() {
    ferry_init();
    const char* path = std::getenv("LD_LIBRARY_PATH");
    std::printf("probe: loaded=%d table=%s LD_LIBRARY_PATH=%s\n", ferry_loaded,
                ferry_double_table().c_str(), path != nullptr ? path : "<unset>");
}
