// Tests of raising, catching, rendering and freeing exception records.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>

#include "fanout/exception.h"
#include "runtime/raise.h"

namespace {

std::string take(char* text) {
    std::string s = text != nullptr ? text : "<null>";
    mg_free(text);
    return s;
}

std::string render(const char* format, std::initializer_list<const char*> args) {
    std::vector<const char*> v(args);
    return take(ex_render_text(format, v.data(), static_cast<uint32_t>(v.size())));
}

TEST(ExceptionRender, PositionalSubstitutionTable) {
    struct Case {
        const char* format;
        std::initializer_list<const char*> args;
        const char* expected;
    };
    const Case cases[] = {
        {"Cannot open the file %1$s.\n", {"/a"}, "Cannot open the file /a.\n"},
        {"%2$s then %1$s", {"a", "b"}, "b then a"},
        {"%1$d(%2$d%%)", {"5", "50"}, "5(50%)"},
        {"%3$s missing", {"a"}, "%3$s missing"},  // outside 1..count: kept
        {"%0$s zero", {"a"}, "%0$s zero"},
        {"plain %d and %", {"a"}, "plain %d and %"},  // not placeholders
        {"%1$", {"a"}, "%1$"},
        {"%1$s", {nullptr}, "(null)"},
        {"%1$t{%Y}", {"not a time"}, "not a time"},
        {"%1$t{%Y", {"0"}, "%1$t{%Y"},  // unterminated braces
        {"%1$M", {"m"}, "m"},
    };
    for (const Case& c : cases) EXPECT_EQ(render(c.format, c.args), c.expected) << c.format;
    EXPECT_EQ(ex_render_text(nullptr, nullptr, 0), nullptr);
}

TEST(ExceptionRender, TimeFormUsesLocalTime) {
    time_t when = 1000000000;
    struct tm local {};
    localtime_r(&when, &local);
    char expected[64];
    strftime(expected, sizeof expected, "%Y/%m/%d %H:%M:%S\n", &local);
    EXPECT_EQ(render("%1$t{%Y/%m/%d %H:%M:%S}\n", {"1000000000"}), expected);
}

TEST(ExceptionRaise, VaThrowCarriesCatalogueMessage) {
    try {
        vaThrow("Cat", 19, "Cannot read from file %1$s. Bytes %2$d, code %3$d.\n", "/f", 10, -1);
        FAIL() << "vaThrow returned";
    } catch (const fanout::Exception& e) {
        EXPECT_STREQ(e.type_id(), FANOUT_EX_ERROR_MSG_ID);
        EXPECT_STREQ(e.catalog(), "Cat");
        EXPECT_EQ(e.number(), 19);
        ASSERT_EQ(e.argument_count(), 3u);
        EXPECT_STREQ(e.argument(1), "10");
        EXPECT_STREQ(e.argument(2), "4294967295");
        EXPECT_EQ(e.argument(3), nullptr);
        EXPECT_STREQ(e.what(), "Cannot read from file /f. Bytes 10, code 4294967295.\n");
        const ExException* r = e.record();
        EXPECT_STREQ(r->format, "%7$M");
        EXPECT_EQ(r->reserved_text, nullptr);
        EXPECT_EQ(r->contexts.length, 0u);
        EXPECT_LE(std::labs(r->timestamp - static_cast<long>(time(nullptr))), 5);
    }
}

TEST(ExceptionRaise, ArgumentsFollowOrderOfAppearance) {
    // The first conversion reads a number even though it names argument 2.
    try {
        vaThrow(nullptr, 1, "%2$d then %1$s", 7, "text");
        FAIL() << "vaThrow returned";
    } catch (const fanout::Exception& e) {
        EXPECT_STREQ(e.argument(0), "7");
        EXPECT_STREQ(e.argument(1), "text");
        EXPECT_STREQ(e.what(), "text then 7");
    }
}

void raise_eleven(void*) {
    vaThrow("C", 3, "%1$s%2$s%3$s%4$s%5$s%6$s%7$s%8$s%9$s%10$s%11$s", "a", "b", "c", "d", "e", "f",
            "g", "h", "i", "j", "k");
}

TEST(ExceptionCall, CHelperHandsBackTheRecord) {
    void* raised = reinterpret_cast<void*>(1);
    EXPECT_EQ(fanout_call([](void*) {}, nullptr, &raised), 0);
    EXPECT_EQ(raised, nullptr);

    ASSERT_EQ(fanout_call(raise_eleven, nullptr, &raised), 1);
    ASSERT_NE(raised, nullptr);
    EXPECT_EQ(ex_argument_count(raised), 11u);
    EXPECT_STREQ(ex_argument(raised, 10), "k");
    EXPECT_EQ(take(ex_render(raised)), "abcdefghijk");
    ex_free(raised);

    // Without a place for the record it is freed (nothing leaks under ASan).
    EXPECT_EQ(fanout_call(raise_eleven, nullptr, nullptr), 1);
}

TEST(ExceptionCall, ForeignExceptionsBecomeRecords) {
    void* raised = nullptr;
    ASSERT_EQ(fanout_call([](void*) { throw std::runtime_error("boom"); }, nullptr, &raised), 1);
    EXPECT_EQ(take(ex_render(raised)), "Unexpected exception: boom\n");
    ex_free(raised);
    ASSERT_EQ(fanout_call([](void*) { throw std::bad_alloc(); }, nullptr, &raised), 1);
    EXPECT_TRUE(ex_is_a(raised, FANOUT_EX_NO_MEMORY_ID));
    ex_free(raised);
}

TEST(ExceptionCall, NoMemoryRecordCarriesTheSize) {
    void* raised = nullptr;
    ASSERT_EQ(fanout_call([](void*) { fanout::raise_no_memory(123); }, nullptr, &raised), 1);
    EXPECT_STREQ(ex_type_id(raised), FANOUT_EX_NO_MEMORY_ID);
    EXPECT_EQ(take(ex_render(raised)), "Cannot allocate 123 bytes of memory.\n");
    ex_free(raised);
}

TEST(ExceptionEnvironment, RaiseStoresAndToExceptionThrows) {
    Environment env{};
    vaRaiseException(&env, nullptr, -1, "Marshalling error (%1$d)", 4);
    vaRaiseException(&env, nullptr, -1, "Marshalling error (%1$d)", 5);  // replaces the first
    EXPECT_EQ(env._major, FANOUT_USER_EXCEPTION);
    EXPECT_STREQ(env._id, FANOUT_EX_ERROR_MSG_ID);
    try {
        ev_to_exception(&env);
        FAIL() << "nothing raised";
    } catch (const fanout::Exception& e) {
        EXPECT_STREQ(e.what(), "Marshalling error (5)");
    }
    EXPECT_EQ(env._major, FANOUT_NO_EXCEPTION);
    EXPECT_EQ(env._exception, nullptr);
    ev_to_exception(&env);                          // nothing held: no raise
    vaRaiseException(nullptr, nullptr, 0, "%1$s");  // ignored without reading arguments
}

TEST(ExceptionIdentity, IsAFollowsTheChain) {
    try {
        vaThrow(nullptr, 0, "x");
        FAIL() << "vaThrow returned";
    } catch (const fanout::Exception& e) {
        EXPECT_TRUE(e.is_a(FANOUT_EX_ERROR_MSG_ID));
        EXPECT_TRUE(e.is_a("Exception:UserException"));
        EXPECT_FALSE(e.is_a("Exception:User"));
        EXPECT_FALSE(e.is_a(FANOUT_EX_ERROR_MSG_ID ":More"));
        EXPECT_FALSE(e.is_a(nullptr));
    }
    EXPECT_EQ(ex_is_a(nullptr, "Exception"), 0);
}

TEST(ExceptionIdentity, CopiesShareAndReleaseTakesTheRecord) {
    try {
        vaThrow(nullptr, 0, "shared");
        FAIL() << "vaThrow returned";
    } catch (const fanout::Exception& e) {
        fanout::Exception copy = e;
        EXPECT_EQ(copy.record(), e.record());
        void* record = copy.release();
        EXPECT_EQ(e.record(), nullptr);
        EXPECT_STREQ(ex_default_text(record), "shared");
        ex_free(record);
    }
}

TEST(ExceptionDeathTest, UncaughtPrintsMessageAndTypeAndAborts) {
    EXPECT_DEATH(std::thread([] { vaThrow("C", 11, "Cannot open the file %1$s.\n", "/x"); }).join(),
                 "uncaught exception Exception:UserException:SysAdminException::ExException:"
                 "ExErrorMsg\nCannot open the file /x.");
}

}  // namespace
