#include <gtest/gtest.h>

#include <functional>
#include <regex>
#include <set>
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
using mm::libi18n::i18n_template;
using mm::libi18n::make_msg;

TEST(EncodedKeyTest, EachReservedCharacterGetsOneBackslash) {
    const std::vector<std::pair<std::string, std::string>> table = {
        {"", ""},
        {"plain text 100%", "plain text 100%"},
        {"#", "\\#"},
        {",", "\\,"},
        {":", "\\:"},
        {"[", "\\["},
        {"]", "\\]"},
        {"\\", "\\\\"},
        {"a#b,c:d[e]f\\g", "a\\#b\\,c\\:d\\[e\\]f\\\\g"},
        {"\\\\,", "\\\\\\\\\\,"},
        {"semi;colon=eq'\"", "semi;colon=eq'\""},
    };
    for (const auto& [in, out] : table) EXPECT_EQ(mm::libi18n::escape_argument(in), out) << in;
}

TEST(MakeMsgTest, ZeroOneAndTwoArguments) {
    const i18n_msg none = make_msg(cat::error_value_not_set);
    EXPECT_EQ(none.key, "#:error.value_not_set[]");
    EXPECT_EQ(none.text, "No Value is set.");

    const i18n_msg one = make_msg(cat::error_opcua_read_failed, "BadTimeout");
    EXPECT_EQ(one.key, "#:error.opcua_read_failed[BadTimeout]");
    EXPECT_EQ(one.text, "The sensor could not read data from the OPC UA server (BadTimeout).");

    // Escaping touches the key only; the English text keeps the argument as it is.
    const i18n_msg two = make_msg(cat::error_failed_to_parse_node_id, std::string("ns=1;s=a,b"), "bad: x");
    EXPECT_EQ(two.key, "#:error.failed_to_parse_node_id[ns=1;s=a\\,b,bad\\: x]");
    EXPECT_EQ(two.text, "Failed to parse NodeID (ns=1;s=a,b) because of (bad: x).");
}

TEST(MakeMsgTest, EmptyArgumentsLeaveEmptyFields) {
    EXPECT_EQ(make_msg(cat::error_opcua_read_failed, "").key, "#:error.opcua_read_failed[]");
    const i18n_msg two = make_msg(cat::error_failed_to_parse_node_id, "", "");
    EXPECT_EQ(two.key, "#:error.failed_to_parse_node_id[,]");
    EXPECT_EQ(two.text, "Failed to parse NodeID () because of ().");
}

TEST(MakeMsgTest, CatalogueKeyIsNotEscapedAndArgumentPercentIsData) {
    const i18n_template odd{"odd:key,#", "v=%0:s"};
    const i18n_msg m = make_msg(odd, "50%");
    EXPECT_EQ(m.key, "#:odd:key,#[50%]");
    EXPECT_EQ(m.text, "v=50%");
}

TEST(MakeMsgTest, TooFewArgumentsSurfaceAsFormatterError) {
    try {
        make_msg(cat::error_failed_to_parse_node_id, "only one");
        FAIL() << "no exception";
    } catch (const mm::libstringutils::exceptions::placeholder_index_not_in_arguments& e) {
        EXPECT_STREQ(e.what(), "Index 1 is too high for argument list.");
    }
}

TEST(I18nMsgTest, PlainStringIsNeitherEncodedNorFormatted) {
    const i18n_msg m("100%");
    EXPECT_EQ(m.key, "100%");
    EXPECT_EQ(m.text, "100%");
}

// Catches with `Catch` and reports the text; any other exception, or none, fails.
template <typename Catch>
std::string caught_text(const std::function<void()>& thrower) {
    try {
        thrower();
    } catch (const Catch& e) {
        return e.what();
    } catch (...) {
        ADD_FAILURE() << "escaped the catch point";
        return "<other>";
    }
    ADD_FAILURE() << "nothing thrown";
    return "<none>";
}

TEST(ExceptionTreeTest, FormatterErrorsAreLibexceptionsButNotTranslatable) {
    using mm::libstringutils::format;
    EXPECT_EQ(caught_text<mm::libexception::exception>([] { format("100%"); }),
              "Malformed placeholder in format string.");
    EXPECT_EQ(caught_text<mm::libstringutils::exceptions::exception>([] { format("%3:s"); }),
              "Index 3 is too high for argument list.");
    bool as_i18n = false;
    try {
        format("100%");
    } catch (const i18n_exception&) {
        as_i18n = true;
    } catch (const std::exception&) {
    }
    EXPECT_FALSE(as_i18n);
}

TEST(ExceptionTreeTest, TranslatableClassesCarryTextAndKey) {
    const mm::libi18n::error_generic generic(std::string("boom, bang"));
    EXPECT_STREQ(generic.what(), "An error occurred. boom, bang");
    EXPECT_EQ(generic.get_i18n_msg().key, "#:libi18n.error.generic[boom\\, bang]");
    // A copy each time; the exception keeps its own.
    EXPECT_EQ(generic.get_i18n_msg(), generic.get_i18n_msg());

    const std::vector<std::pair<std::function<void()>, std::string>> table = {
        {[] { throw vx::invalid_lookup_value("7", "0, 1"); },
         "The following lookup value is invalid: 7. Valid lookup values are: 0, 1"},
        {[] { throw vx::setting_not_available("host"); }, "The setting \"host\" was not available."},
        {[] { throw vx::channel_map_not_initialized(); }, "The channel map is not initialized."},
        {[] { throw vx::setting_invalid("x", "Why."); }, "Setting value x is invalid. Why."},
        {[] { throw mm::libi18n::error_generic(std::string("g")); }, "An error occurred. g"},
    };
    for (const auto& [thrower, text] : table) {
        EXPECT_EQ(caught_text<i18n_exception>(thrower), text);
        EXPECT_EQ(caught_text<mm::libexception::exception>(thrower), text);
    }
    // invalid_lookup_value sits directly below i18n_exception, beside the framework's catch point.
    EXPECT_EQ(caught_text<vx::exception>([] { throw vx::setting_not_available("k"); }),
              "The setting \"k\" was not available.");
    bool under_framework_root = false;
    try {
        throw vx::invalid_lookup_value("a", "b");
    } catch (const vx::exception&) {
        under_framework_root = true;
    } catch (const i18n_exception&) {
    }
    EXPECT_FALSE(under_framework_root);
}

TEST(ExceptionTreeTest, ServiceContainerErrorCatchesItsSixClasses) {
    const std::string t = "T";
    const std::string k = "K";
    const std::vector<std::pair<std::function<void()>, std::string>> table = {
        {[&] { throw vx::already_contains_factory(t); }, "The factory store already contains a factory with type T."},
        {[&] { throw vx::factory_not_available(t); }, "The factory store can't find a factory with type T."},
        {[&] { throw vx::already_contains_instance(t); }, "The instance store already contains an instance with type T."},
        {[&] { throw vx::instance_not_available(t); }, "The instance store can't find an instance with type T."},
        {[&] { throw vx::already_contains_instance_key(t, k); },
         "The instance store already contains an instance with type T and key K."},
        {[&] { throw vx::instance_not_available_key(t, k); },
         "The instance store can't find an instance with type T and key K."},
    };
    for (const auto& [thrower, text] : table) {
        EXPECT_EQ(caught_text<vx::service_container_error>(thrower), text);
        EXPECT_EQ(caught_text<vx::exception>(thrower), text);
    }
    bool wrongly_caught = false;
    try {
        throw vx::setting_not_available("k");
    } catch (const vx::service_container_error&) {
        wrongly_caught = true;
    } catch (const vx::exception&) {
    }
    EXPECT_FALSE(wrongly_caught);
}

TEST(CatalogueTest, EntriesKeysAndPlaceholders) {
    const auto& all = cat::all();
    EXPECT_EQ(all.size(), 195u);
    std::set<std::string> keys;
    const std::regex placeholder("%([0-9]+):s");
    for (const i18n_template* t : all) {
        SCOPED_TRACE(t->key);
        EXPECT_TRUE(keys.insert(t->key).second) << "duplicate key";
        std::set<long> indices;
        for (std::sregex_iterator it(t->text.begin(), t->text.end(), placeholder), end; it != end; ++it)
            indices.insert(std::stol((*it)[1].str()));
        ASSERT_LE(indices.size(), 3u);
        // Placeholders are exactly 0..n-1: n arguments format, n-1 do not.
        if (!indices.empty()) {
            EXPECT_EQ(*indices.rbegin(), static_cast<long>(indices.size()) - 1);
        }
        std::vector<std::string> args;
        for (std::size_t i = 0; i < indices.size(); ++i) args.push_back("<" + std::to_string(i) + ">");
        EXPECT_NO_THROW(mm::libstringutils::format_args(t->text, args));
        if (!args.empty()) {
            args.pop_back();
            EXPECT_THROW(mm::libstringutils::format_args(t->text, args),
                         mm::libstringutils::exceptions::placeholder_index_not_in_arguments);
        }
    }
    static_assert(cat::libvurohelper_error_string_too_long_args == 3);
    static_assert(cat::error_value_not_set_args == 0);
}

TEST(CatalogueTest, KnownTextsAreExact) {
    const std::vector<std::pair<const i18n_template*, std::string>> table = {
        {&cat::error_index_out_of_bounds, "KOLV tried to access index %0:s in an array with only %1:s elements."},
        {&cat::error_invalid_array_syntax,
         "The entered value (%0:s) is not a valid array access. Use the syntax '<node-id>'[<index>] or "
         "\"<node-id>\"[<index>] where <node-id> is a valid OPC UA NodeID and <index> is a positive integer."},
        {&cat::error_value_overflow, "The value in the channel exceeds the allowed range (Int64)."},
        {&cat::message_certificate_ok, "Certificate Common Name: %0:s - Certificate Thumbprint: %1:s"},
        {&cat::certificate_helper_error_windows_cert_store_open_failed,
         "Failed to open Windows certificate store '%0:s'."},
        {&cat::certificate_helper_error_wrong_hash_length,
         "The length (%0:s) of the provided hash is invalid. A hash with the length of %1:s is required."},
        {&cat::libvurohelper_error_setting_selection_parse_error,
         "Value \"%0:s\" could not be parsed into selection type \"%1:s\"."},
        {&cat::libvurohelper_error_string_too_long,
         "%0:s's value with length %1:s is longer than the maximum allowed length of %2:s."},
        {&cat::libvurohelper_error_message_too_long,
         "The Message with size %0:s bytes is larger than the maximum allowed length of %1:s bytes."},
        {&cat::libi18n_error_generic, "An error occurred. %0:s"},
        {&cat::libparser_error_empty_result, "The queried field \"%0:s\" is empty."},
        {&cat::libjsonparser_error_conversion, "'%0:s' could not be converted to '%1:s'."},
        {&cat::libjsonparser_error_parse, "The received JSON data could not be parsed. %0:s"},
    };
    for (const auto& [entry, text] : table) EXPECT_EQ(entry->text, text) << entry->key;
    EXPECT_EQ(cat::error_index_out_of_bounds.key, "error.index_out_of_bounds");
    EXPECT_EQ(cat::libvurohelper_error_service_container.key, "libvurohelper.error.service_container");
}

}  // namespace
