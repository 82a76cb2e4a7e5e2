// Tests of run-time library loading: how names become file names (the loader's
// error text starts with the name it was given), the "pthread" fallback, symbols.

#include <fanout/palrtl.h>

#include "pal_fixture.h"

namespace {

TEST(PalRtl, NamesBecomeFileNames) {
    const std::string longPath = "/no/such/dir/" + std::string(600, 'x');
    const std::pair<const char*, std::string> cases[] = {
        {"fanoutnosuchlib", "libfanoutnosuchlib.so:"},
        {"pthreadx", "libpthreadx.so:"},  // no fallback for other names
        {"libfanoutnosuch.so.3", "libfanoutnosuch.so.3:"},
        {"no/such", "no/such:"},
        {longPath.c_str(), longPath.substr(0, 511) + ":"},  // cut to the buffer
    };
    for (const auto& [name, asked] : cases) {
        PalRtlError();  // clear anything pending
        EXPECT_EQ(PalRtlLoad(name), nullptr) << name;
        const std::string text = PalRtlError();
        EXPECT_EQ(text.rfind(asked, 0), 0u) << name << " -> " << text;
    }
    EXPECT_EQ(PalRtlLoad(nullptr), nullptr);
    EXPECT_STREQ(PalRtlError(), "(No Error)");
}

TEST(PalRtl, LoadsAndResolvesIncludingThePthreadFallback) {
    PalRtlHandle m = PalRtlLoad("libm.so.6");
    ASSERT_NE(m, nullptr) << PalRtlError();
    auto* cosine = reinterpret_cast<double (*)(double)>(PalRtlResolve(m, "cos"));
    EXPECT_EQ(cosine ? cosine(0.0) : 0.0, 1.0);
    EXPECT_EQ(PalRtlResolve(m, "fanout_no_such_symbol"), nullptr);
    EXPECT_EQ(PalRtlResolve(m, nullptr), nullptr);
    PalRtlUnload(m);
    PalRtlHandle p = PalRtlLoad("pthread");  // "libpthread.so" needs development files
    ASSERT_NE(p, nullptr) << PalRtlError();
    EXPECT_NE(PalRtlResolve(p, "pthread_create"), nullptr);
    PalRtlUnload(p);
}

}  // namespace
