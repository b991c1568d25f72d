#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "libstringutils/format.h"

namespace {

namespace su = ::brenholt::monitoring_modules::libstringutils;

enum class outcome { text, malformed, index_too_high, overflow };

struct format_case {
    std::string format;
    std::vector<std::string> args;
    outcome expected;
    std::string result;  // the formatted text, or the exception's what()
};

// The formatter is a variadic template; the table goes through the same entry
// point a caller uses, with the matching number of arguments.
std::string run(const std::string& text, const std::vector<std::string>& a) {
    switch (a.size()) {
        case 0: return su::format(text);
        case 1: return su::format(text, a[0]);
        default: return su::format(text, a[0], a[1]);
    }
}

const char* const malformed = "Malformed placeholder in format string.";

const std::vector<format_case> cases = {
    {"", {}, outcome::text, ""},
    {"", {"a", "b"}, outcome::text, ""},
    {"plain text", {"unused"}, outcome::text, "plain text"},
    {"%0:s and %0:s", {"x"}, outcome::text, "x and x"},
    {"%1:s %0:s", {"a", "b"}, outcome::text, "b a"},
    {"[%0:s]", {""}, outcome::text, "[]"},
    {"100%%", {}, outcome::text, "100%"},
    {"%%0:s", {"x"}, outcome::text, "%0:s"},
    {"%%%0:s%%", {"x"}, outcome::text, "%x%"},
    {"%00:s", {"a"}, outcome::text, "a"},
    {"%0:s:s", {"a"}, outcome::text, "a:s"},
    // A percent sign inside an argument is data, never syntax.
    {"%0:s", {"%0:s"}, outcome::text, "%0:s"},
    {"%0:s|%1:s", {"%", "%1:s"}, outcome::text, "%|%1:s"},
    {"100%", {}, outcome::malformed, malformed},
    {"100% sure", {}, outcome::malformed, malformed},
    {"%0", {"a"}, outcome::malformed, malformed},
    {"%0:", {"a"}, outcome::malformed, malformed},
    {"%:s", {"a"}, outcome::malformed, malformed},
    {"%0:d", {"a"}, outcome::malformed, malformed},
    {"%0:S", {"a"}, outcome::malformed, malformed},
    {"% 0:s", {"a"}, outcome::malformed, malformed},
    {"%-1:s", {"a"}, outcome::malformed, malformed},
    {"%%%", {}, outcome::malformed, malformed},
    {"%1:s", {"a"}, outcome::index_too_high, "Index 1 is too high for argument list."},
    {"%0:s", {}, outcome::index_too_high, "Index 0 is too high for argument list."},
    {"%2:s", {"a", "b"}, outcome::index_too_high, "Index 2 is too high for argument list."},
    {"%007:s", {"a"}, outcome::index_too_high, "Index 007 is too high for argument list."},
    // Errors come in the order of the text: the first one ends the call.
    {"%5:s then 50%", {"a"}, outcome::index_too_high, "Index 5 is too high for argument list."},
    {"50% then %5:s", {"a"}, outcome::malformed, malformed},
    // Digits beyond a signed long overflow in the conversion itself.
    {"%99999999999999999999:s", {"a"}, outcome::overflow, "stol"},
    {"%99999999999999999999:s", {}, outcome::overflow, "stol"},
};

TEST(FormatTest, TableOfResultsAndErrors) {
    for (const auto& c : cases) {
        SCOPED_TRACE("format \"" + c.format + "\" with " + std::to_string(c.args.size()) + " argument(s)");
        switch (c.expected) {
            case outcome::text:
                EXPECT_EQ(run(c.format, c.args), c.result);
                break;
            case outcome::malformed:
                try {
                    run(c.format, c.args);
                    ADD_FAILURE() << "no exception";
                } catch (const su::exceptions::format_string_error& e) {
                    EXPECT_STREQ(e.what(), c.result.c_str());
                }
                break;
            case outcome::index_too_high:
                try {
                    run(c.format, c.args);
                    ADD_FAILURE() << "no exception";
                } catch (const su::exceptions::placeholder_index_not_in_arguments& e) {
                    EXPECT_STREQ(e.what(), c.result.c_str());
                }
                break;
            case outcome::overflow:
                try {
                    run(c.format, c.args);
                    ADD_FAILURE() << "no exception";
                } catch (const std::out_of_range& e) {
                    EXPECT_STREQ(e.what(), c.result.c_str());
                }
                break;
        }
    }
}

TEST(FormatTest, CharacterPointersAndStringsMix) {
    const std::string s = "str";
    const char* p = "ptr";
    EXPECT_EQ(su::format("%0:s", p), "ptr");
    EXPECT_EQ(su::format("%0:s-%1:s", s, p), "str-ptr");
    EXPECT_EQ(su::format("%1:s-%0:s", p, "lit"), "lit-ptr");
}

TEST(FormatTest, NullCharacterPointerIsRejectedBeforeScanning) {
    const char* none = nullptr;
    // Even a text that would be malformed: the argument's construction fails first.
    EXPECT_THROW(su::format("%0:s", none), std::logic_error);
    EXPECT_THROW(su::format("100%", none), std::logic_error);
    EXPECT_THROW(su::format("%0:s", std::string("a"), none), std::logic_error);
}

}  // namespace
