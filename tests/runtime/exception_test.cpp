// Tests of raising, catching, rendering and freeing exception records, and of
// the C helpers that run a function and catch what it raises.
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <stdexcept>
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

// The exception `raise` throws (a test failure when it returns).
template <typename F>
fanout::Exception thrown(F raise) {
    try {
        raise();
    } catch (const fanout::Exception& e) {
        return e;
    }
    ADD_FAILURE() << "nothing raised";
    throw std::logic_error("nothing raised");
}

std::string render(const char* format, std::initializer_list<const char*> args) {
    std::vector<const char*> v(args);
    return take(ex_render_text(format, v.data(), static_cast<uint32_t>(v.size())));
}

TEST(ExceptionRender, PositionalSubstitutionTable) {
    time_t when = 1000000000;  // the time form uses local time
    struct tm local {};
    localtime_r(&when, &local);
    char date[64];
    strftime(date, sizeof date, "%Y/%m/%d %H:%M:%S\n", &local);
    struct Case {
        const char* format;
        std::initializer_list<const char*> args;
        const char* expected;
    };
    const Case cases[] = {
        {"%1$t{%Y/%m/%d %H:%M:%S}\n", {"1000000000"}, date},
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

TEST(ExceptionRaise, VaThrowCarriesCatalogueMessage) {
    const fanout::Exception e = thrown([] {
        vaThrow("Cat", 19, "Cannot read from file %1$s. Bytes %2$d, code %3$d.\n", "/f", 10, -1);
    });
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
    // The first conversion reads a number even though it names argument 2.
    const fanout::Exception mixed = thrown([] { vaThrow(nullptr, 1, "%2$d then %1$s", 7, "x"); });
    EXPECT_STREQ(mixed.argument(0), "7");
    EXPECT_STREQ(mixed.argument(1), "x");
    EXPECT_STREQ(mixed.what(), "x then 7");
}

void raise_eleven(void*) {
    vaThrow("C", 3, "%1$s%2$s%3$s%4$s%5$s%6$s%7$s%8$s%9$s%10$s%11$s", "a", "b", "c", "d", "e", "f",
            "g", "h", "i", "j", "k");
}

TEST(ExceptionCall, CHelperHandsBackTheRecord) {
    void* raised = reinterpret_cast<void*>(1);
    EXPECT_EQ(fanout_call([](void*) {}, nullptr, &raised), 0);
    EXPECT_EQ(raised, nullptr);
    const struct {
        void (*fn)(void*);
        const char *type_id, *rendered;
    } cases[] = {
        {raise_eleven, FANOUT_EX_ERROR_MSG_ID, "abcdefghijk"},
        {[](void*) { throw std::runtime_error("boom"); }, FANOUT_EX_ERROR_MSG_ID,
         "Unexpected exception: boom\n"},
        {[](void*) { throw std::bad_alloc(); }, FANOUT_EX_NO_MEMORY_ID, nullptr},
        {[](void*) { fanout::raise_no_memory(123); }, FANOUT_EX_NO_MEMORY_ID,
         "Cannot allocate 123 bytes of memory.\n"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type_id);
        ASSERT_EQ(fanout_call(c.fn, nullptr, &raised), 1);
        EXPECT_STREQ(ex_type_id(raised), c.type_id);
        if (c.rendered != nullptr) {
            EXPECT_EQ(take(ex_render(raised)), c.rendered);
        }
        ex_free(raised);
        // Without a place for the record it is freed (nothing leaks under ASan).
        EXPECT_EQ(fanout_call(c.fn, nullptr, nullptr), 1);
    }
    ASSERT_EQ(fanout_call(raise_eleven, nullptr, &raised), 1);
    EXPECT_EQ(ex_argument_count(raised), 11u);
    EXPECT_STREQ(ex_argument(raised, 10), "k");
    ex_free(raised);
}

TEST(ExceptionEnvironment, RaiseStoresAndToExceptionThrows) {
    Environment env{};
    vaRaiseException(&env, nullptr, -1, "Marshalling error (%1$d)", 4);
    vaRaiseException(&env, nullptr, -1, "Marshalling error (%1$d)", 5);  // replaces the first
    EXPECT_EQ(env._major, FANOUT_USER_EXCEPTION);
    EXPECT_STREQ(env._id, FANOUT_EX_ERROR_MSG_ID);
    EXPECT_STREQ(thrown([&] { ev_to_exception(&env); }).what(), "Marshalling error (5)");
    EXPECT_EQ(env._major, FANOUT_NO_EXCEPTION);
    EXPECT_EQ(env._exception, nullptr);
    ev_to_exception(&env);                          // nothing held: no raise
    vaRaiseException(nullptr, nullptr, 0, "%1$s");  // ignored without reading arguments
}

TEST(ExceptionIdentity, IsAFollowsTheChainAndCopiesShareTheRecord) {
    const fanout::Exception e = thrown([] { vaThrow(nullptr, 0, "shared"); });
    EXPECT_TRUE(e.is_a(FANOUT_EX_ERROR_MSG_ID));
    EXPECT_TRUE(e.is_a("Exception:UserException"));
    EXPECT_FALSE(e.is_a("Exception:User"));
    EXPECT_FALSE(e.is_a(FANOUT_EX_ERROR_MSG_ID ":More"));
    EXPECT_FALSE(e.is_a(nullptr));
    EXPECT_EQ(ex_is_a(nullptr, "Exception"), 0);
    fanout::Exception copy = e;
    EXPECT_EQ(copy.record(), e.record());
    void* record = copy.release();
    EXPECT_EQ(e.record(), nullptr);
    EXPECT_STREQ(ex_default_text(record), "shared");
    ex_free(record);
}

// fanout_try: the result of a function that returned, the rendered message of
// one that raised.
TEST(FanoutTry, ResultsAndMessages) {
    struct Case {
        const char* what;
        FanoutTryFn fn;
        int result;
        bool message;          // a message is handed back
        const char* rendered;  // its text, when known
    };
    const Case cases[] = {
        {"returns", [](void*) { return 7; }, 7, false, nullptr},
        {"returns -1 itself", [](void*) { return -1; }, -1, false, nullptr},
        {"raises",
         [](void* path) -> int {
             vaThrow("Cat", 11, "Cannot open the file %1$s.\n", static_cast<const char*>(path));
         },
         FANOUT_RAISED, true, "Cannot open the file /p.\n"},
        {"foreign exception", [](void*) -> int { throw std::runtime_error("foreign"); },
         FANOUT_RAISED, true, nullptr},
        {"null function", nullptr, 0, false, nullptr},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        char* message = reinterpret_cast<char*>(&message);  // must be overwritten
        EXPECT_EQ(fanout_try(c.fn, const_cast<char*>("/p"), &message), c.result);
        EXPECT_EQ(message != nullptr, c.message);
        if (c.rendered != nullptr && message != nullptr) {
            EXPECT_STREQ(message, c.rendered);
        }
        mg_free(message);
        // Without a place for the message the record is still freed (no leak
        // under the sanitizers) and the result is the same.
        EXPECT_EQ(fanout_try(c.fn, const_cast<char*>("/p"), nullptr), c.result);
    }
}

TEST(ExceptionDeathTest, UncaughtPrintsMessageAndTypeAndAborts) {
    EXPECT_DEATH(std::thread([] { vaThrow("C", 11, "Cannot open the file %1$s.\n", "/x"); }).join(),
                 "uncaught exception Exception:UserException:SysAdminException::ExException:"
                 "ExErrorMsg\nCannot open the file /x.");
}

}  // namespace
