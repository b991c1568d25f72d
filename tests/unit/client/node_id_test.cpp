#include <gtest/gtest.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "client/exceptions.h"
#include "client/node_id.h"

namespace {

namespace ua = ::brenholt::monitoring_modules::opcua;
namespace ex = ua::exceptions;

std::string string_id(const UA_NodeId& id) {
    return std::string(reinterpret_cast<const char*>(id.identifier.string.data), id.identifier.string.length);
}

struct plain_case {
    std::string text;
    UA_UInt16 ns;
    UA_NodeIdType type;
    std::string rendered;  // empty when identifier_text must refuse the id
};

TEST(parse_node_id, accepts_the_library_grammar_and_renders_without_namespace) {
    const std::vector<plain_case> cases{
        {"ns=1;s=Temp", 1, UA_NODEIDTYPE_STRING, "s=Temp"},
        {"ns=7;i=85", 7, UA_NODEIDTYPE_NUMERIC, "i=85"},
        {"ns=7;s=a", 7, UA_NODEIDTYPE_STRING, "s=a"},
        {"i=85", 0, UA_NODEIDTYPE_NUMERIC, "i=85"},
        {"i=4294967295", 0, UA_NODEIDTYPE_NUMERIC, "i=4294967295"},
        {"ns=2;s=test one", 2, UA_NODEIDTYPE_STRING, "s=test one"},
        {"ns=1;s=it's", 1, UA_NODEIDTYPE_STRING, "s=it's"},
        {"s=", 0, UA_NODEIDTYPE_STRING, "s="},
        {"ns=1;g=09087e75-8e5e-499b-954f-f2a9603db28a", 1, UA_NODEIDTYPE_GUID, ""},
        {"ns=1;b=M/RbKBsRVkePCePcx24oRA==", 1, UA_NODEIDTYPE_BYTESTRING, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const ua::node_id_ptr id = ua::parse_node_id(c.text);
        ASSERT_NE(id, nullptr);
        EXPECT_EQ(id->namespaceIndex, c.ns);
        EXPECT_EQ(id->identifierType, c.type);
        if (c.rendered.empty()) {
            EXPECT_THROW(ua::identifier_text(*id), ex::unsupported_identifier_type);
        } else {
            EXPECT_EQ(ua::identifier_text(*id), c.rendered);
        }
    }
}

TEST(parse_node_id, text_ends_at_first_zero_byte) {
    const std::string text("ns=3;s=abc\0def", 14);
    const ua::node_id_ptr id = ua::parse_node_id(text);
    EXPECT_EQ(string_id(*id), "abc");
}

TEST(parse_node_id, refusal_names_the_text_and_the_status) {
    const std::vector<std::string> bad{"ns=1;x=Temp", "", " ns=1;i=5", "ns=1;i=5 ", "ns=1;i=abc"};
    for (const auto& text : bad) {
        SCOPED_TRACE(text);
        try {
            ua::parse_node_id(text);
            ADD_FAILURE() << "accepted";
        } catch (const ex::failed_to_parse_node_id& e) {
            EXPECT_EQ(std::string(e.what()),
                      "Failed to parse NodeID (" + text + ") because of (BadDecodingError).");
            EXPECT_EQ(e.get_i18n_msg().key, "#:error.failed_to_parse_node_id[" + text + ",BadDecodingError]");
        }
    }
}

struct access_case {
    std::string text;
    UA_UInt16 ns;
    std::string rendered;
    std::uint64_t index;
};

TEST(parse_array_access, quoted_forms_give_id_and_index) {
    const std::vector<access_case> cases{
        {"'ns=1;s=Temp'[0]", 1, "s=Temp", 0},
        {"\"ns=1;s=Temp\"[12]", 1, "s=Temp", 12},
        {"'ns=1;s=test_one'[4]", 1, "s=test_one", 4},
        {"\"ns=1;s=it's\"[1]", 1, "s=it's", 1},
        {"'ns=1;s=say \"hi\"'[2]", 1, "s=say \"hi\"", 2},
        {"'i=85'[007]", 0, "i=85", 7},
        {"'ns=1;s=[3]'[9]", 1, "s=[3]", 9},
        {"'ns=2;i=1'[9223372036854775807]", 2, "i=1", 9223372036854775807ULL},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const ua::array_access access = ua::parse_array_access(c.text);
        ASSERT_NE(access.first, nullptr);
        EXPECT_EQ(access.first->namespaceIndex, c.ns);
        EXPECT_EQ(ua::identifier_text(*access.first), c.rendered);
        EXPECT_EQ(access.second, c.index);
    }
}

TEST(parse_array_access, other_shapes_are_invalid_syntax) {
    const std::vector<std::string> bad{
        "ns=1;s=Temp",           // plain form
        "ns=1;s=Temp[1]",        // no quotes
        "'ns=1;s=Temp'",         // no index
        "'ns=1;s=Temp\"[1]",     // quotes of two kinds
        "\"ns=1;s=Temp'[1]",
        "''[1]",                 // empty id
        "\"\"[1]",
        "'ns=1;s=Temp'[]",       // empty index
        "'ns=1;s=Temp'[-1]",     // sign
        "'ns=1;s=Temp'[+1]",
        "'ns=1;s=Temp'[ 1]",     // blanks
        "'ns=1;s=Temp'[1] ",
        " 'ns=1;s=Temp'[1]",
        "'ns=1;s=Temp'[1]\n",
        "'ns=1;s=Temp'[1][2]",
        "'ns=1;s=Temp'[0x1]",
        "'ns=1;s=it's'[1]",      // the id holds its own quote
        "",
    };
    for (const auto& text : bad) {
        SCOPED_TRACE(text);
        EXPECT_THROW(ua::parse_array_access(text), ex::invalid_array_syntax);
    }
}

TEST(parse_array_access, invalid_syntax_text_quotes_the_input) {
    try {
        ua::parse_array_access("'ns=1;s=Temp'");
        FAIL() << "accepted";
    } catch (const ex::invalid_array_syntax& e) {
        EXPECT_EQ(std::string(e.what()),
                  "The entered value ('ns=1;s=Temp') is not a valid array access. Use the syntax "
                  "'<node-id>'[<index>] or \"<node-id>\"[<index>] where <node-id> is a valid OPC UA "
                  "NodeID and <index> is a positive integer.");
    }
}

TEST(parse_array_access, refused_inner_id_is_named_without_quotes) {
    for (const std::string text : {"'ns=1;x=Temp'[1]", "\"ns=1;x=Temp\"[1]"}) {
        SCOPED_TRACE(text);
        try {
            ua::parse_array_access(text);
            ADD_FAILURE() << "accepted";
        } catch (const ex::failed_to_parse_node_id& e) {
            EXPECT_EQ(std::string(e.what()), "Failed to parse NodeID (ns=1;x=Temp) because of (BadDecodingError).");
        }
    }
}

TEST(parse_array_access, index_beyond_signed_64_bits_is_out_of_range) {
    EXPECT_THROW(ua::parse_array_access("'ns=1;s=Temp'[9223372036854775808]"), std::out_of_range);
    EXPECT_THROW(ua::parse_array_access("\"ns=1;s=Temp\"[12345678901234567890]"), std::out_of_range);
    // The id is parsed first, so a bad id wins over a bad index.
    EXPECT_THROW(ua::parse_array_access("'ns=1;x=Temp'[12345678901234567890]"), ex::failed_to_parse_node_id);
}

TEST(identifier_text, refusal_text_and_empty_string_id) {
    UA_NodeId guid = UA_NODEID_GUID(3, UA_GUID("09087e75-8e5e-499b-954f-f2a9603db28a"));
    try {
        ua::identifier_text(guid);
        ADD_FAILURE() << "rendered";
    } catch (const ex::unsupported_identifier_type& e) {
        EXPECT_STREQ(e.what(), "The Identifier type is not supported.");
    }
    EXPECT_EQ(ua::identifier_text(UA_NODEID_STRING(0, nullptr)), "s=");
}

}  // namespace
