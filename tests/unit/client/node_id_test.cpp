#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "client/exceptions.h"
#include "client/node_id.h"
#include "support/what_of.h"

namespace {

namespace ua = ::brenholt::monitoring_modules::opcua;
namespace ex = ua::exceptions;
using test_support::what_of;

TEST(parse_node_id, accepts_the_library_grammar_and_renders_without_namespace) {
    const struct {
        std::string text;
        UA_UInt16 ns;
        UA_NodeIdType type;
        std::string rendered;  // or the text of the refusal
    } cases[] = {
        {"ns=1;s=Temp", 1, UA_NODEIDTYPE_STRING, "s=Temp"},
        {"i=4294967295", 0, UA_NODEIDTYPE_NUMERIC, "i=4294967295"},
        // A zero byte ends the text.
        {std::string("ns=3;s=abc\0def", 14), 3, UA_NODEIDTYPE_STRING, "s=abc"},
        {"ns=1;g=09087e75-8e5e-499b-954f-f2a9603db28a", 1, UA_NODEIDTYPE_GUID, "The Identifier type is not supported."},
        {"ns=1;b=M/RbKBsRVkePCePcx24oRA==", 1, UA_NODEIDTYPE_BYTESTRING, "The Identifier type is not supported."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const ua::node_id_ptr id = ua::parse_node_id(c.text);
        ASSERT_NE(id, nullptr);
        EXPECT_EQ(id->namespaceIndex, c.ns);
        EXPECT_EQ(id->identifierType, c.type);
        try {
            EXPECT_EQ(ua::identifier_text(*id), c.rendered);
        } catch (const ex::unsupported_identifier_type& e) {
            EXPECT_EQ(c.rendered, e.what());
        }
    }
}

TEST(parse_node_id, refusal_names_the_text_and_the_status) {
    for (const std::string text : {"ns=1;x=Temp", "", " ns=1;i=5", "ns=1;i=abc"})
        EXPECT_EQ(what_of<ex::failed_to_parse_node_id>([&] { ua::parse_node_id(text); }),
                  "Failed to parse NodeID (" + text + ") because of (BadDecodingError).");
}

TEST(parse_array_access, quoted_forms_give_id_and_index) {
    const struct {
        std::string text, rendered;
        std::uint64_t index;
    } cases[] = {
        {"'ns=1;s=Temp'[0]", "s=Temp", 0},
        {"\"ns=1;s=it's\"[12]", "s=it's", 12},
        {"'ns=1;s=say \"hi\"'[2]", "s=say \"hi\"", 2},
        {"'i=85'[007]", "i=85", 7},
        {"'ns=1;s=[3]'[9]", "s=[3]", 9},
        {"'ns=2;i=1'[9223372036854775807]", "i=1", 9223372036854775807ULL},
    };
    for (const auto& c : cases) {
        const ua::array_access access = ua::parse_array_access(c.text);
        ASSERT_NE(access.first, nullptr) << c.text;
        EXPECT_EQ(ua::identifier_text(*access.first), c.rendered) << c.text;
        EXPECT_EQ(access.second, c.index) << c.text;
    }
}

TEST(parse_array_access, other_shapes_fail_in_order_id_then_index) {
    for (const std::string text : {"ns=1;s=Temp", "ns=1;s=Temp[1]", "'ns=1;s=Temp'", "'ns=1;s=Temp\"[1]", "''[1]",
                                   "'ns=1;s=Temp'[]", "'ns=1;s=Temp'[-1]", "'ns=1;s=Temp'[+1]", "'ns=1;s=Temp'[ 1]",
                                   "'ns=1;s=Temp'[1] ", "'ns=1;s=Temp'[1]\n", "'ns=1;s=Temp'[1][2]",
                                   "'ns=1;s=Temp'[0x1]", "'ns=1;s=it's'[1]", ""})
        EXPECT_THROW(ua::parse_array_access(text), ex::invalid_array_syntax) << text;
    EXPECT_EQ(what_of<ex::invalid_array_syntax>([] { ua::parse_array_access("'ns=1;s=Temp'"); }),
              "The entered value ('ns=1;s=Temp') is not a valid array access. Use the syntax "
                     "'<node-id>'[<index>] or \"<node-id>\"[<index>] where <node-id> is a valid OPC UA "
                     "NodeID and <index> is a positive integer.");
    // The inner id is named without its quotes, and a bad id wins over a bad index.
    EXPECT_EQ(what_of<ex::failed_to_parse_node_id>([] { ua::parse_array_access("\"ns=1;x=Temp\"[12345678901234567890]"); }),
              "Failed to parse NodeID (ns=1;x=Temp) because of (BadDecodingError).");
    EXPECT_THROW(ua::parse_array_access("'ns=1;s=Temp'[9223372036854775808]"), std::out_of_range);
}

// Length changes nothing: a text of a mebibyte ends as its short form does, in a
// result or the usual refusal, never by exhausting the stack.
TEST(parse_array_access, long_texts_end_like_short_ones) {
    const std::string mib(1u << 20, 'a');
    enum outcome { parsed, bad_syntax, bad_id, too_large };
    const struct {
        const char* what;
        std::string text;
        outcome expected;
    } cases[] = {
        {"single quotes", "'ns=1;s=" + mib + "'[1]", parsed},
        {"double quotes", "\"ns=1;s=" + mib + "\"[1]", parsed},
        {"index with a mebibyte of leading zeros", "'i=85'[" + std::string(1u << 20, '0') + "1]", parsed},
        {"inner text the library refuses", "'" + mib + "'[1]", bad_id},
        {"no closing single quote", "'ns=1;s=" + mib, bad_syntax},
        {"no closing double quote", "\"ns=1;s=" + mib + "[1]", bad_syntax},
        {"quotes of two kinds", "'ns=1;s=" + mib + "\"[1]", bad_syntax},
        {"no index", "'ns=1;s=" + mib + "'", bad_syntax},
        {"text behind the index", "'i=85'[1]" + mib, bad_syntax},
        {"unquoted", mib + "[1]", bad_syntax},
        {"index of a mebibyte of digits", "'i=85'[" + std::string(1u << 20, '7') + "]", too_large},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        switch (c.expected) {
            case parsed: {
                const ua::array_access access = ua::parse_array_access(c.text);
                EXPECT_EQ(access.second, 1u);
                EXPECT_NE(access.first, nullptr);
                break;
            }
            case bad_syntax: EXPECT_THROW(ua::parse_array_access(c.text), ex::invalid_array_syntax); break;
            case bad_id: EXPECT_THROW(ua::parse_array_access(c.text), ex::failed_to_parse_node_id); break;
            case too_large: EXPECT_THROW(ua::parse_array_access(c.text), std::out_of_range); break;
        }
    }
}

}  // namespace
