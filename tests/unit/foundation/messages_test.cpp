#include <gtest/gtest.h>

#include <regex>
#include <set>
#include <type_traits>
#include <string>
#include <utility>
#include <vector>

#include "libi18n/catalogue.h"
#include "libi18n/exceptions.h"
#include "libi18n/i18n.h"
#include "libstringutils/format.h"
#include "libvurohelper/exceptions.h"

namespace {

namespace mm = ::brenholt::monitoring_modules;
namespace cat = mm::libi18n::catalogue;
namespace vx = mm::libvurohelper::utils::exceptions;
using mm::libi18n::i18n_exception;
using mm::libi18n::i18n_msg;
using mm::libi18n::make_msg;

TEST(messages, encoded_key_escapes_arguments_and_text_keeps_them) {
    const std::pair<std::string, std::string> escaped[] = {
        {"plain text 100%;='\"", "plain text 100%;='\""}, {"a#b,c:d[e]f\\g", "a\\#b\\,c\\:d\\[e\\]f\\\\g"}, {"\\\\,", "\\\\\\\\\\,"}};
    for (const auto& [in, out] : escaped) EXPECT_EQ(mm::libi18n::escape_argument(in), out) << in;

    EXPECT_EQ(make_msg(cat::error_value_not_set), (i18n_msg("#:error.value_not_set[]", "No Value is set.")));
    const i18n_msg two = make_msg(cat::error_failed_to_parse_node_id, std::string("ns=1;s=a,b"), "bad: x");
    EXPECT_EQ(two.key, "#:error.failed_to_parse_node_id[ns=1;s=a\\,b,bad\\: x]");
    EXPECT_EQ(two.text, "Failed to parse NodeID (ns=1;s=a,b) because of (bad: x).");
    EXPECT_EQ(make_msg(cat::error_failed_to_parse_node_id, "", "").key, "#:error.failed_to_parse_node_id[,]");
    // The catalogue key is not escaped, and a percent sign in an argument is data.
    const i18n_msg odd = make_msg(mm::libi18n::i18n_template{"odd:key,#", "v=%0:s"}, "50%");
    EXPECT_EQ(odd, (i18n_msg("#:odd:key,#[50%]", "v=50%")));
    // A plain string is neither encoded nor formatted.
    EXPECT_EQ(i18n_msg("100%").key, "100%");
    EXPECT_THROW(make_msg(cat::error_failed_to_parse_node_id, "only one"),
                 mm::libstringutils::exceptions::placeholder_index_not_in_arguments);
}

// Which catch point takes an exception, as the frame and the entry points catch them.
template <typename Catch, typename Thrown>
bool caught_as(const Thrown& thrown) {
    try {
        throw thrown;
    } catch (const Catch&) {
        return true;
    } catch (...) {
        return false;
    }
}

TEST(messages, exception_tree) {
    const mm::libi18n::error_generic generic(std::string("boom, bang"));
    EXPECT_STREQ(generic.what(), "An error occurred. boom, bang");
    EXPECT_EQ(generic.get_i18n_msg().key, "#:libi18n.error.generic[boom\\, bang]");
    // Caught here, the framework library's classes show that the tree holds across its boundary.
    EXPECT_TRUE(caught_as<i18n_exception>(vx::setting_not_available("k")));
    EXPECT_TRUE(caught_as<mm::libexception::exception>(vx::setting_not_available("k")));
    EXPECT_TRUE(caught_as<vx::service_container_error>(vx::instance_not_available_key("T", "K")));
    EXPECT_FALSE(caught_as<vx::service_container_error>(vx::setting_not_available("k")));
    // invalid_lookup_value sits directly below i18n_exception, beside the framework's root.
    EXPECT_FALSE(caught_as<vx::exception>(vx::invalid_lookup_value("7", "0, 1")));
    // Formatter errors are library exceptions, but carry no translatable message.
    static_assert(std::is_base_of_v<mm::libexception::exception, mm::libstringutils::exceptions::format_string_error> &&
                  !std::is_base_of_v<i18n_exception, mm::libstringutils::exceptions::format_string_error>);
}

TEST(messages, catalogue_keys_are_unique_and_placeholders_contiguous) {
    const auto& all = cat::all();
    EXPECT_EQ(all.size(), 195u);
    std::set<std::string> keys;
    const std::regex placeholder("%([0-9]+):s");
    for (const auto* t : all) {
        EXPECT_TRUE(keys.insert(t->key).second) << "duplicate " << t->key;
        std::set<long> indices;
        for (std::sregex_iterator it(t->text.begin(), t->text.end(), placeholder), end; it != end; ++it)
            indices.insert(std::stol((*it)[1].str()));
        // Exactly 0..n-1, so n arguments format the text.
        if (!indices.empty()) {
            EXPECT_EQ(*indices.rbegin(), static_cast<long>(indices.size()) - 1) << t->key;
        }
        std::vector<std::string> args(indices.size(), "x");
        EXPECT_NO_THROW(mm::libstringutils::format_args(t->text, args)) << t->key;
    }
}

}  // namespace
