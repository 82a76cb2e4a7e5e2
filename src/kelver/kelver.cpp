// kelver.cpp - the library's build identification texts.
//
// The texts are plain constants in the binary, framed as keyword strings
// ("$Level: ... $", "$Date: ... $"), so they can be read from a running
// process through the two functions and from the file itself with any
// keyword scanner.

#include "fanout/kelver.h"

namespace {

// The release level of the library; kept equal to the project version.
constexpr const char kLevel[] = "$Level: fanout 1.0.0 $";
constexpr const char kBuildDate[] = "$Date: " __DATE__ " " __TIME__ " $";

}  // namespace

extern "C" {

FANOUT_EXPORT const char* kelver_get_level_name(void) {
    return kLevel;
}

FANOUT_EXPORT const char* kelver_get_bld_date(void) {
    return kBuildDate;
}

}  // extern "C"
