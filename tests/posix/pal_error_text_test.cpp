// PalErrorText and PalErrorName: the line a person reads for an error record, its cutting to a
// small buffer, and its bound.
#include <fanout/palerror.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <string>

namespace {

std::string Text(PalError e) {
    char buffer[PAL_ERROR_TEXT_SIZE];
    const PalUint32 n = PalErrorText(e, buffer, sizeof buffer);
    EXPECT_EQ(n, std::string(buffer).size());
    return buffer;
}

TEST(PalErrorText, LinesForEachKindOfRecord) {
    struct Case {
        PalError error;
        const char* line;
    };
    const Case cases[] = {
        {{PAL_ERR_SYSTEM, EACCES, 2}, "PAL_ERR_SYSTEM: Permission denied (errno 13, step 2)"},
        {{PAL_ERR_INVALID_ARGUMENT, 0, 3}, "PAL_ERR_INVALID_ARGUMENT (step 3)"},
        {{PAL_ERR_BUSY, 0, 0}, "PAL_ERR_BUSY (step 0)"},
        {{PAL_OK, 0, 0}, "PAL_OK"},
        {{99, 0, 1}, "PAL error 99 (step 1)"},
        {{PAL_WAIT_TIMEOUT, 99999, 4},
         "PAL_WAIT_TIMEOUT: unknown host error (errno 99999, step 4)"},
    };
    for (const Case& c : cases) EXPECT_EQ(Text(c.error), c.line) << c.line;
    for (PalInt32 code : {PAL_OK, PAL_ERR_NOT_SUPPORTED, PAL_WAIT_TIMEOUT, PAL_ERR_SYSTEM,
                          PAL_ERR_NO_MORE, PAL_ERR_NO_ENTRY, PAL_ERR_TOO_LONG, PAL_ERR_NO_MEMORY,
                          PAL_ERR_BUSY, PAL_ERR_INVALID_ARGUMENT, PAL_ERR_NO_SPACE}) {
        ASSERT_NE(PalErrorName(code), nullptr) << code;
        EXPECT_EQ(Text({code, 0, 1}).rfind(PalErrorName(code), 0), 0u) << code;
    }
    EXPECT_EQ(PalErrorName(99), nullptr);
}

// Small buffers are cut and terminated as snprintf does, and the result is
// always the whole line's length; no record needs more than the bound.
TEST(PalErrorText, CutsToTheBufferAndStaysWithinTheBound) {
    const PalError e{PAL_ERR_SYSTEM, ENOENT, 7};
    const std::string whole = Text(e);
    char small[8];
    EXPECT_EQ(PalErrorText(e, small, sizeof small), whole.size());
    EXPECT_EQ(std::string(small), whole.substr(0, sizeof small - 1));
    char one[1] = {'x'};
    EXPECT_EQ(PalErrorText(e, one, 1), whole.size());
    EXPECT_EQ(one[0], '\0');
    EXPECT_EQ(PalErrorText(e, nullptr, 0), whole.size());

    for (PalInt32 native = 1; native < 4096; ++native) {
        const PalError worst{INT_MIN, native, INT_MIN};
        ASSERT_LT(PalErrorText(worst, nullptr, 0), PalUint32{PAL_ERROR_TEXT_SIZE}) << native;
    }
    EXPECT_LT(PalErrorText({INT_MIN, INT_MIN, INT_MIN}, nullptr, 0),
              PalUint32{PAL_ERROR_TEXT_SIZE});
}

}  // namespace
