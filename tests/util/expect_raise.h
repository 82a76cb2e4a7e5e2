/* expect_raise.h - checks that a call raises one catalogue message.
 *
 * EXPECT_RAISES(call, number, {args...}) runs the call, expects a
 * fanout::Exception from the service catalogue with that message number
 * and exactly those arguments (as the strings the record carries).
 */
#ifndef FANOUT_TESTS_UTIL_EXPECT_RAISE_H
#define FANOUT_TESTS_UTIL_EXPECT_RAISE_H

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fanout/catalog.h"
#include "fanout/exception.h"

namespace fanout_test {

inline void check_raised(const fanout::Exception& e, int32_t number,
                         const std::vector<std::string>& args)
{
    EXPECT_EQ(e.number(), number);
    ASSERT_NE(e.catalog(), nullptr);
    EXPECT_STREQ(e.catalog(), Fanout2Catalog[0]);
    ASSERT_EQ(e.argument_count(), args.size()) << e.what();
    for (uint32_t i = 0; i < args.size(); ++i) {
        ASSERT_NE(e.argument(i), nullptr);
        EXPECT_EQ(args[i], e.argument(i)) << "argument " << i;
    }
}

}  // namespace fanout_test

#define EXPECT_RAISES(call, number, ...)                                          \
    do {                                                                          \
        bool raised_ = false;                                                     \
        try {                                                                     \
            call;                                                                 \
        } catch (const fanout::Exception& e_) {                                   \
            raised_ = true;                                                       \
            fanout_test::check_raised(e_, number, std::vector<std::string> __VA_ARGS__); \
        }                                                                         \
        EXPECT_TRUE(raised_) << #call " did not raise";                           \
    } while (0)

#endif /* FANOUT_TESTS_UTIL_EXPECT_RAISE_H */
