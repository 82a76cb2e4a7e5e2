// Tests of the exception family: the record builder's rules, raising, constructors, marshalling.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "fanout/catalog.h"
#include "fanout/fanout2.h"

namespace {

struct RecordDeleter {
    void operator()(void* r) const { ex_free(r); }
};
using Record = std::unique_ptr<void, RecordDeleter>;

Record make(size_t size, const char* catalog, long number, const char* format, ...) {
    va_list args;
    va_start(args, format);
    void* r = vMakeExErrorDerived(FANOUT2_EX_ID(ExSendError), size, catalog, number, format, args);
    va_end(args);
    return Record(r);
}

std::vector<std::string> arguments(const void* r) {
    std::vector<std::string> out;
    for (uint32_t i = 0; i < ex_argument_count(r); ++i) out.emplace_back(ex_argument(r, i));
    return out;
}

using Args = std::vector<std::string>;

TEST(ExBuilder, MessageRules) {
    Record r = make(sizeof(ExException), Fanout2Catalog[0], 11, Fanout2Catalog[11], "/p");
    EXPECT_EQ(arguments(r.get()), Args{"/p"});
    EXPECT_STREQ(ex_catalog(r.get()), "Fanout2Catalog");
    EXPECT_EQ(ex_number(r.get()), 11);

    r = make(sizeof(ExException), "C", 1, "%1$d", -1);
    EXPECT_EQ(arguments(r.get()), Args{"4294967295"});
    r = make(sizeof(ExException), "C", 1, "100%% done %%");
    EXPECT_EQ(ex_argument_count(r.get()), 0u);
    EXPECT_STREQ(ex_default_text(r.get()), "100%% done %%");
    r = make(sizeof(ExException), "C", 1, "%1$x %2$o %3$X %4$u", 255, 8, 10, 7);
    EXPECT_EQ(arguments(r.get()), (Args{"255", "8", "10", "7"}));  // all decimal
    r = make(sizeof(ExException), "C", 1,
             "%1$s %2$s %3$s %4$s %5$s %6$s %7$s %8$s %9$s %10$s "
             "%11$d",
             "a", "b", "c", "d", "e", "f", "g", "h", "i", "j", 11);
    EXPECT_EQ(ex_argument_count(r.get()), 11u);
    EXPECT_STREQ(ex_argument(r.get(), 10), "11");
}

TEST(ExBuilder, ErrnoArgument) {
    errno = ENOENT;
    Record r = make(sizeof(ExException), "C", 1, "%1$s", "$errno");
    EXPECT_STREQ(ex_argument(r.get(), 0), strerror(ENOENT));
    errno = 100000;
    r = make(sizeof(ExException), "C", 1, "%1$s", "$errno");
    EXPECT_STREQ(ex_argument(r.get(), 0), "errno=100000");
}

TEST(ExBuilder, MalformedFormatsFallBack) {
    for (const char* format : {"%s", "%1$c", "bad %1$", "%1d", "tail %"}) {
        Record r = make(sizeof(ExException), "C", 9, format, "unused");
        EXPECT_STREQ(ex_default_text(r.get()), "Format has illegal types (%1$s)") << format;
        EXPECT_EQ(ex_catalog(r.get()), nullptr);
        EXPECT_EQ(ex_number(r.get()), 0);
        EXPECT_EQ(arguments(r.get()), Args{format});
    }
    // The catalogue's time form is not a conversion the builder accepts.
    Record r = make(sizeof(ExException), Fanout2Catalog[0], 141, Fanout2Catalog[141], 0);
    EXPECT_EQ(ex_number(r.get()), 0);
}

TEST(ExRaise, ThrowChildCopiesDerivedField) {
    Kel_Fanout2_ExDistributionDeferred templ{};
    templ.retry_seconds = 300;
    try {
        vaMThrowChild(FANOUT2_EX_ID(ExDistributionDeferred), &templ, sizeof templ,
                      Fanout2Catalog[0], 206, Fanout2Catalog[206], "pkg", 300);
        FAIL() << "returned";
    } catch (const fanout::Exception& e) {
        auto* r = reinterpret_cast<const Kel_Fanout2_ExDistributionDeferred*>(e.record());
        EXPECT_EQ(r->retry_seconds, 300);
        EXPECT_TRUE(e.is_a(FANOUT2_EX_ROOT_ID));
        EXPECT_EQ(std::string(e.what()),
                  "The FERRY package 'pkg' can not be retrieved due to the depot server being "
                  "too busy.  Retry in 300 seconds.");
    }
    try {
        vaMThrow(FANOUT2_EX_ID(ExDepotNoSpace), Fanout2Catalog[0], 7, Fanout2Catalog[7], 12);
        FAIL() << "returned";
    } catch (const fanout::Exception& e) {
        EXPECT_STREQ(e.type_id(), FANOUT2_EX_ROOT_ID ":Kel_Fanout2::ExDepotNoSpace");
        EXPECT_EQ(
            reinterpret_cast<const Kel_Fanout2_ExDistributionDeferred*>(e.record())->retry_seconds,
            0);
    }
}

TEST(ExFamily, ConstructorAndVisitorAgreeWithTypeCode) {
    Record base = make(sizeof(ExException), "C", 5, "%1$s", "arg");
    auto* b = static_cast<ExException*>(base.get());
    auto* made = _create_Kel_Fanout2_ExDistributionDeferred(
        FANOUT2_EX_ID(ExDistributionDeferred), nullptr, 0, "%7$M", 42, nullptr, &b->messages, 9);
    Record owned(made);
    EXPECT_EQ(made->retry_seconds, 9);
    EXPECT_EQ(made->timestamp, 42);
    EXPECT_NE(made->messages.buffer, b->messages.buffer);  // deep copy
    EXPECT_STREQ(ex_argument(made, 0), "arg");

    // The hand-written visitor and the type-code walk write the same bytes.
    AdrBuffer* by_visitor = adr_init_encode_buffer();
    adr_v_Kel_Fanout2_ExDistributionDeferred(by_visitor, made);
    AdrBuffer* by_tc = adr_init_encode_buffer();
    marshal_item(by_tc, TC_Kel_Fanout2_ExDistributionDeferred, made);
    ASSERT_EQ(by_visitor->error, 0);
    ASSERT_EQ(by_tc->error, 0);
    ASSERT_EQ(by_visitor->length, by_tc->length);
    EXPECT_EQ(std::memcmp(by_visitor->data, by_tc->data, by_tc->length), 0);

    Kel_Fanout2_ExDistributionDeferred back{};
    AdrBuffer* in = adr_init_decode_buffer(by_visitor->data, by_visitor->length);
    adr_v_Kel_Fanout2_ExDistributionDeferred(in, &back);
    EXPECT_EQ(in->error, 0);
    EXPECT_EQ(back.retry_seconds, 9);
    EXPECT_STREQ(ex_argument(&back, 0), "arg");
    char* text = ex_render(&back);
    EXPECT_STREQ(text, "arg");
    mg_free(text);
    kel_free_generic(&back, TC_Kel_Fanout2_ExDistributionDeferred);
    adr_free_buf(in);
    adr_free_buf(by_visitor);
    adr_free_buf(by_tc);
}

}  // namespace
