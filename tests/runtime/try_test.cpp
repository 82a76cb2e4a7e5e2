// fanout_try: the result of a function that returned, the rendered message of
// one that raised, and the edge cases of its arguments.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "fanout/exception.h"

namespace {

int Returns7(void*) {
    return 7;
}
int ReturnsMinusOne(void*) {
    return -1;
}
int RaisesCatalogue(void* context) {
    vaThrow("Cat", 11, "Cannot open the file %1$s.\n", static_cast<const char*>(context));
}
int ThrowsForeign(void*) {
    throw std::runtime_error("foreign");
}

TEST(FanoutTry, ResultsAndMessages) {
    struct Case {
        const char* what;
        FanoutTryFn fn;
        int result;
        bool message;          // a message is handed back
        const char* rendered;  // its text, when known
    };
    const Case cases[] = {
        {"returns", &Returns7, 7, false, nullptr},
        {"returns -1 itself", &ReturnsMinusOne, -1, false, nullptr},
        {"raises", &RaisesCatalogue, FANOUT_RAISED, true, "Cannot open the file /p.\n"},
        {"foreign exception", &ThrowsForeign, FANOUT_RAISED, true, nullptr},
        {"null function", nullptr, 0, false, nullptr},
    };
    for (const Case& c : cases) {
        char* message = reinterpret_cast<char*>(&message);  // must be overwritten
        EXPECT_EQ(fanout_try(c.fn, const_cast<char*>("/p"), &message), c.result) << c.what;
        EXPECT_EQ(message != nullptr, c.message) << c.what;
        if (c.rendered != nullptr && message != nullptr) {
            EXPECT_STREQ(message, c.rendered) << c.what;
        }
        mg_free(message);
        // Without a place for the message the record is still freed (no leak
        // under the sanitizers) and the result is the same.
        EXPECT_EQ(fanout_try(c.fn, const_cast<char*>("/p"), nullptr), c.result) << c.what;
    }
}

}  // namespace
