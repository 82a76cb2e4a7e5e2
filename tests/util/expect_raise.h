/* expect_raise.h - EXPECT_RAISES(call, number, {args...}) expects the call to raise the
 * service catalogue's message number with exactly those arguments (as the record's strings). */
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "fanout/catalog.h"
#include "fanout/exception.h"

#define EXPECT_RAISES(call, msg_, ...)                                                   \
    do {                                                                                 \
        try {                                                                            \
            call;                                                                        \
            ADD_FAILURE() << #call " did not raise";                                     \
        } catch (const fanout::Exception& e_) {                                          \
            const std::vector<std::string> args_ __VA_ARGS__;                            \
            EXPECT_EQ(e_.number(), msg_);                                                \
            EXPECT_STREQ(e_.catalog(), Fanout2Catalog[0]);                               \
            EXPECT_EQ(e_.argument_count(), args_.size()) << e_.what();                   \
            for (uint32_t i_ = 0; i_ < args_.size() && i_ < e_.argument_count(); ++i_) { \
                EXPECT_STREQ(e_.argument(i_), args_[i_].c_str()) << "argument " << i_;   \
            }                                                                            \
        }                                                                                \
    } while (0)
