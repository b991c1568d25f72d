#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "libstringutils/format.h"

namespace {

namespace su = ::brenholt::monitoring_modules::libstringutils;

template <typename E>
bool is(const std::exception& e) { return dynamic_cast<const E*>(&e) != nullptr; }

const auto malformed = is<su::exceptions::format_string_error>;
const auto too_high = is<su::exceptions::placeholder_index_not_in_arguments>;
const char* const bad = "Malformed placeholder in format string.";

TEST(format, results_and_errors) {
    const struct {
        std::string format;
        std::vector<std::string> args;
        std::string result;                       // the text, or the exception's what()
        bool (*raises)(const std::exception&);  // null: no exception
    } cases[] = {
        {"", {"a", "b"}, "", nullptr},
        {"%1:s %0:s", {"a", "b"}, "b a", nullptr},
        {"100%%", {}, "100%", nullptr},
        {"%%%0:s%%", {"x"}, "%x%", nullptr},
        {"%00:s", {"a"}, "a", nullptr},
        // A percent sign inside an argument is data, never syntax.
        {"%0:s|%1:s", {"%", "%1:s"}, "%|%1:s", nullptr},
        {"100%", {}, bad, malformed},
        {"% 0:s", {"a"}, bad, malformed},
        {"%-1:s", {"a"}, bad, malformed},
        {"%%%", {}, bad, malformed},
        {"%0:s", {}, "Index 0 is too high for argument list.", too_high},
        {"%007:s", {"a"}, "Index 007 is too high for argument list.", too_high},
        // Errors come in the order of the text: the first one ends the call.
        {"%5:s then 50%", {"a"}, "Index 5 is too high for argument list.", too_high},
        {"50% then %5:s", {"a"}, bad, malformed},
        // Digits beyond a signed long overflow in the conversion itself.
        {"%99999999999999999999:s", {"a"}, "stol", is<std::out_of_range>},
        // Long texts take the same paths, without one stack frame per character.
        {"%" + std::string(1u << 20, '0') + ":s", {"a"}, "a", nullptr},
        {"%" + std::string(1u << 20, '9') + ":s", {"a"}, "stol", is<std::out_of_range>},
        {"%" + std::string(1u << 20, '0'), {"a"}, bad, malformed},
        {std::string(1u << 20, '%'), {}, std::string(1u << 19, '%'), nullptr},
        {std::string(1u << 20, 'x') + "%0:s", {"a"}, std::string(1u << 20, 'x') + "a", nullptr},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.format.substr(0, 40));
        try {
            // The formatter is variadic: call it as a caller does, with that many arguments.
            const std::string out = c.args.empty()       ? su::format(c.format)
                                    : c.args.size() == 1 ? su::format(c.format, c.args[0])
                                                         : su::format(c.format, c.args[0], c.args[1]);
            EXPECT_EQ(c.raises, nullptr) << "no exception";
            EXPECT_EQ(out, c.result);
        } catch (const std::exception& e) {
            EXPECT_TRUE(c.raises != nullptr && c.raises(e)) << typeid(e).name();
            EXPECT_EQ(e.what(), c.result);
        }
    }
    // A null character pointer is refused before the text is scanned.
    const char* none = nullptr;
    EXPECT_THROW(su::format("100%", none), std::logic_error);
    EXPECT_THROW(su::format("%0:s", std::string("a"), none), std::logic_error);
}

}  // namespace
