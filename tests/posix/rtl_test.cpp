// Tests of run-time library loading: how names become file names, the one
// fallback for "pthread", symbol resolution and the loader's error text.

#include <fanout/palrtl.h>

#include <gtest/gtest.h>

#include <string>

namespace {

// The loader's text after a failed load of `name`, which starts with the file
// name it was asked for.
std::string FailureText(const char* name) {
    PalRtlError();  // clear anything pending
    PalRtlHandle h = PalRtlLoad(name);
    EXPECT_EQ(h, nullptr) << name;
    PalRtlUnload(h);
    return PalRtlError();
}

TEST(PalRtl, NamesBecomeFileNames) {
    struct Case {
        const char* name;
        std::string asked;  // the file name the loader must have been given
    };
    const std::string longPath = "/no/such/dir/" + std::string(600, 'x');
    const Case cases[] = {
        {"fanoutnosuchlib", "libfanoutnosuchlib.so:"},
        {"pthreadx", "libpthreadx.so:"},  // no fallback for other names
        {"libfanoutnosuch.so.3", "libfanoutnosuch.so.3:"},
        {"/no/such/dir/libm.so.6", "/no/such/dir/libm.so.6:"},
        {"no/such", "no/such:"},
        {longPath.c_str(), longPath.substr(0, 511) + ":"},
    };
    for (const Case& c : cases) {
        const std::string text = FailureText(c.name);
        EXPECT_EQ(text.rfind(c.asked, 0), 0u) << c.name << " -> " << text;
    }
    EXPECT_EQ(PalRtlLoad(nullptr), nullptr);
}

TEST(PalRtl, LoadsByFileNameAndResolves) {
    PalRtlHandle m = PalRtlLoad("libm.so.6");
    ASSERT_NE(m, nullptr) << PalRtlError();
    auto* cosine = reinterpret_cast<double (*)(double)>(PalRtlResolve(m, "cos"));
    ASSERT_NE(cosine, nullptr);
    EXPECT_EQ(cosine(0.0), 1.0);
    EXPECT_EQ(PalRtlResolve(m, "fanout_no_such_symbol"), nullptr);
    EXPECT_NE(std::string(PalRtlError()), "(No Error)");
    EXPECT_EQ(PalRtlResolve(m, nullptr), nullptr);
    PalRtlUnload(m);
    PalRtlUnload(nullptr);
}

TEST(PalRtl, PthreadLoadsWithOrWithoutTheUnversionedFile) {
    PalRtlHandle p = PalRtlLoad("pthread");
    ASSERT_NE(p, nullptr) << PalRtlError();
    EXPECT_NE(PalRtlResolve(p, "pthread_create"), nullptr);
    PalRtlUnload(p);
}

TEST(PalRtl, ErrorTextWithNothingPending) {
    PalRtlError();
    EXPECT_STREQ(PalRtlError(), "(No Error)");
}

}  // namespace
