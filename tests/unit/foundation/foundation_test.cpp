// The formatter, the message catalogue and its exceptions, and the multiplexing log.
#include <gtest/gtest.h>


#include "libi18n/catalogue.h"
#include "libi18n/exceptions.h"
#include "libi18n/i18n.h"
#include "liblog/log.h"
#include "libstringutils/format.h"

namespace {

namespace mm = ::brenholt::monitoring_modules;
namespace su = mm::libstringutils;
namespace cat = mm::libi18n::catalogue;
namespace lg = mm::liblog;
using mm::libi18n::i18n_msg;
using mm::libi18n::make_msg;

// The formatter is variadic: called as a caller does, with that many arguments. Gives the
// text, or how the call failed: the class and its text.
std::string formatted(const std::string& format, const std::vector<std::string>& args) {
    try {
        return args.empty() ? su::format(format) : args.size() == 1 ? su::format(format, args[0]) : su::format(format, args[0], args[1]);
    } catch (const su::exceptions::format_string_error& e) {
        return std::string("malformed: ") + e.what();
    } catch (const su::exceptions::placeholder_index_not_in_arguments& e) {
        return std::string("too high: ") + e.what();
    } catch (const std::out_of_range& e) {
        return std::string("out of range: ") + e.what();
    }
}

TEST(format, results_and_errors) {
    const std::string bad = "malformed: Malformed placeholder in format string.", too_long = "out of range: stol";
    const std::tuple<std::string, std::vector<std::string>, std::string> cases[] = {
        {"", {"a", "b"}, ""}, {"%1:s %0:s", {"a", "b"}, "b a"}, {"100%%", {}, "100%"}, {"%%%0:s%%", {"x"}, "%x%"},
        {"%00:s", {"a"}, "a"},
        // A percent sign inside an argument is data, never syntax.
        {"%0:s|%1:s", {"%", "%1:s"}, "%|%1:s"},
        {"100%", {}, bad}, {"% 0:s", {"a"}, bad}, {"%-1:s", {"a"}, bad}, {"%%%", {}, bad},
        {"%0:s", {}, "too high: Index 0 is too high for argument list."},
        {"%007:s", {"a"}, "too high: Index 007 is too high for argument list."},
        // Errors come in the order of the text: the first one ends the call.
        {"%5:s then 50%", {"a"}, "too high: Index 5 is too high for argument list."}, {"50% then %5:s", {"a"}, bad},
        // Digits beyond a signed long overflow in the conversion itself.
        {"%99999999999999999999:s", {"a"}, too_long},
        // Long texts take the same paths, without one stack frame per character.
        {"%" + std::string(1u << 20, '0') + ":s", {"a"}, "a"}, {"%" + std::string(1u << 20, '9') + ":s", {"a"}, too_long},
        {"%" + std::string(1u << 20, '0'), {"a"}, bad}, {std::string(1u << 20, '%'), {}, std::string(1u << 19, '%')},
        {std::string(1u << 20, 'x') + "%0:s", {"a"}, std::string(1u << 20, 'x') + "a"},
    };
    for (const auto& [format, args, expected] : cases) EXPECT_EQ(formatted(format, args), expected) << format.substr(0, 40);
    // A null character pointer is refused before the text is scanned.
    const char* none = nullptr;
    EXPECT_THROW(su::format("100%", none), std::logic_error);
    EXPECT_THROW(su::format("%0:s", std::string("a"), none), std::logic_error);
}

// End-to-end results show keys with plain and comma-separated arguments; these are the rest.
TEST(messages, encoded_key_escapes_arguments_and_text_keeps_them) {
    EXPECT_EQ(mm::libi18n::escape_argument("100%;='\"a#b,c:d[e]f\\g\\\\"), "100%;='\"a\\#b\\,c\\:d\\[e\\]f\\\\g\\\\\\\\");
    EXPECT_EQ(make_msg(cat::error_failed_to_parse_node_id, "", "").key, "#:error.failed_to_parse_node_id[,]");
    // The catalogue key is not escaped, and a percent sign in an argument is data.
    EXPECT_EQ(make_msg(mm::libi18n::i18n_template{"odd:key,#", "v=%0:s"}, "50%"), (i18n_msg("#:odd:key,#[50%]", "v=50%")));
    // A plain string is neither encoded nor formatted.
    EXPECT_EQ(i18n_msg("100%").key, "100%");
    EXPECT_THROW(make_msg(cat::error_failed_to_parse_node_id, "only one"), su::exceptions::placeholder_index_not_in_arguments);
}

// A generic error carries its text as an escaped argument.
TEST(messages, generic_error) {
    const mm::libi18n::error_generic generic(std::string("boom, bang"));
    EXPECT_EQ(generic.get_i18n_msg(), (i18n_msg("#:libi18n.error.generic[boom\\, bang]", "An error occurred. boom, bang")));
}

struct throwing_logger : lg::log_interface {
    void write(lg::severity, const std::string&) override { throw std::runtime_error("sink broken"); }
};

std::string texts(const lg::memory_logger& log) {
    std::string out;
    for (const auto& [level, text] : log.entries()) out += std::to_string(level) + ":" + text + ";";
    return out;
}

TEST(multiplex_logger, children_get_lines_up_to_their_limit_are_held_weakly_and_may_throw) {
    auto all = std::make_shared<lg::memory_logger>(), errors = std::make_shared<lg::memory_logger>(),
         mortal = std::make_shared<lg::memory_logger>();
    lg::multiplex_logger mux;
    mux.add(all, lg::info);
    mux.add(all, lg::debug);  // adding again keeps one entry, with the second limit
    mux.add(errors, lg::error);
    mux.add(mortal, lg::debug);
    mux.add(nullptr, lg::debug);
    mux.add(lg::null_logger::instance(), lg::debug);  // kept, never written to
    EXPECT_EQ(mux.size(), 4u);
    for (lg::severity s : {lg::emergency, lg::error, lg::warning, lg::info, lg::debug}) mux.write(s, "x");
    EXPECT_EQ(texts(*all), "0:x;3:x;4:x;6:x;7:x;");
    EXPECT_EQ(texts(*errors), "0:x;3:x;");
    mortal.reset();  // the multiplexer holds nobody alive
    EXPECT_EQ(mux.size(), 4u) << "only a write prunes a dead child";
    mux.write(lg::info, "after");
    EXPECT_EQ(mux.size(), 3u);

    auto bad = std::make_shared<throwing_logger>();
    mux.add(bad, lg::debug);
    EXPECT_THROW(mux.write(lg::debug, "y"), std::runtime_error);
    // Would deadlock if the exception had left the mutex held.
    mux.remove(bad);
    mux.write(lg::debug, "z");
    EXPECT_EQ(texts(*errors), "0:x;3:x;");
    EXPECT_EQ(texts(*all).substr(texts(*all).size() - 4), "7:z;");
}

}  // namespace
