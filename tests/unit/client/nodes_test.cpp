// Node objects: lazy metadata, the attributes a read still needs, values by kind.
#include <gtest/gtest.h>

#include <open62541/types.h>

#include "client/exceptions.h"
#include "client/nodes_open62541.h"

namespace opcua = brenholt::monitoring_modules::opcua;
namespace ex = opcua::exceptions;

namespace {

struct variant {
    UA_Variant v;
    variant() { UA_Variant_init(&v); }
    ~variant() { UA_Variant_clear(&v); }
};

variant localized(const char* text) {
    variant out;
    UA_LocalizedText t = UA_LOCALIZEDTEXT(const_cast<char*>("en"), const_cast<char*>(text));
    UA_Variant_setScalarCopy(&out.v, &t, &UA_TYPES[UA_TYPES_LOCALIZEDTEXT]);
    return out;
}

std::vector<std::uint32_t> all_names_and_value() { return {3, 4, 5, 13}; }

TEST(Nodes, MetadataIsMissingUntilReadAndThenOnlyTheValueIsAsked) {
    opcua::scalar_variable_node_open62541 scalar("ns=2;s=Temp");
    opcua::generic_node_open62541 generic("ns=2;i=7");
    EXPECT_EQ(scalar.get_missing_attributes(), all_names_and_value());
    EXPECT_EQ(generic.get_missing_attributes(), (std::vector<std::uint32_t>{3, 4, 5}));
    EXPECT_THROW(scalar.display_name(), ex::display_name_not_set);
    EXPECT_THROW(scalar.browse_name(), ex::browse_name_not_set);
    EXPECT_THROW(scalar.description(), ex::description_not_set);
    EXPECT_THROW(scalar.int64_value(), ex::value_not_set);

    variant qn;
    UA_QualifiedName name = UA_QUALIFIEDNAME(2, const_cast<char*>("Temp"));
    UA_Variant_setScalarCopy(&qn.v, &name, &UA_TYPES[UA_TYPES_QUALIFIEDNAME]);
    for (auto* node : std::initializer_list<opcua::generic_node_open62541*>{&scalar, &generic}) {
        node->update_attribute(3, qn.v);
        node->update_attribute(4, localized("Temperature").v);
        node->update_attribute(5, localized("").v);
    }
    EXPECT_EQ(scalar.browse_name(), "2:Temp");
    EXPECT_EQ(scalar.display_name(), "Temperature");
    EXPECT_EQ(scalar.description(), "") << "an empty text still counts as read";
    EXPECT_EQ(scalar.get_missing_attributes(), (std::vector<std::uint32_t>{13}));
    EXPECT_TRUE(generic.get_missing_attributes().empty());
    EXPECT_EQ(generic.identifier(), "i=7");
    EXPECT_EQ(scalar.namespace_index(), 2);
}

TEST(Nodes, AttributesOutsideTheFourAndNonTextNamesAreRefused) {
    opcua::scalar_variable_node_open62541 scalar("ns=1;i=1");
    opcua::array_variable_node_open62541 array("'ns=1;i=1'[0]");
    opcua::generic_node_open62541 generic("ns=1;i=1");
    variant number;
    const UA_Int32 one = 1;
    UA_Variant_setScalarCopy(&number.v, &one, &UA_TYPES[UA_TYPES_INT32]);
    for (auto* node : std::initializer_list<opcua::generic_node_open62541*>{&scalar, &array, &generic}) {
        EXPECT_THROW(node->update_attribute(1, number.v), ex::unsupported_attribute_type);
        EXPECT_THROW(node->update_attribute(4, number.v), ex::data_type_mismatch);
    }
    EXPECT_THROW(generic.update_attribute(13, number.v), ex::unsupported_attribute_type);
}

TEST(Nodes, ReadableNodeFormFollowsTheFirstCharacter) {
    EXPECT_NE(dynamic_cast<opcua::scalar_variable_node_open62541*>(opcua::make_readable_node("ns=1;i=1").get()),
              nullptr);
    auto array = opcua::make_readable_node("'ns=1;i=1'[2]");
    ASSERT_NE(dynamic_cast<opcua::array_variable_node_open62541*>(array.get()), nullptr);
    EXPECT_EQ(dynamic_cast<opcua::array_variable_node_open62541*>(array.get())->index(), 2u);
    EXPECT_THROW(opcua::make_readable_node("'ns=1;i=1'"), ex::invalid_array_syntax);
    EXPECT_THROW(opcua::make_readable_node("\"ns=1;i=1'[2]"), ex::invalid_array_syntax);
    EXPECT_THROW(opcua::make_readable_node("ns=1;x=1"), ex::failed_to_parse_node_id);
}

TEST(Nodes, ValuesAreReadByShapeAndIndex) {
    variant five;
    const UA_Int32 data[5] = {10, 20, 30, 40, 50};
    UA_Variant_setArrayCopy(&five.v, data, 5, &UA_TYPES[UA_TYPES_INT32]);
    variant scalar_value;
    const UA_Double d = 2.5;
    UA_Variant_setScalarCopy(&scalar_value.v, &d, &UA_TYPES[UA_TYPES_DOUBLE]);

    opcua::array_variable_node_open62541 third("'ns=1;i=1'[2]");
    third.update_attribute(13, five.v);
    EXPECT_EQ(third.int64_value(), 30);
    EXPECT_EQ(third.value_kind(), opcua::data_type::integer);

    opcua::array_variable_node_open62541 past_end("\"ns=1;i=1\"[5]");
    past_end.update_attribute(13, five.v);
    try {
        past_end.int64_value();
        FAIL() << "index 5 of five elements was read";
    } catch (const ex::index_out_of_bounds& e) {
        EXPECT_EQ(e.get_i18n_msg().key, "#:error.index_out_of_bounds[5,5]");
    }
    third.update_attribute(13, scalar_value.v);
    EXPECT_THROW(third.double_value(), ex::not_an_array);

    opcua::scalar_variable_node_open62541 scalar("ns=1;i=1");
    scalar.update_attribute(13, five.v);
    EXPECT_THROW(scalar.int64_value(), ex::value_not_scalar);
    scalar.update_attribute(13, scalar_value.v);
    EXPECT_DOUBLE_EQ(scalar.double_value(), 2.5);
    EXPECT_THROW(scalar.int64_value(), ex::data_type_mismatch);
}

TEST(Nodes, WrittenValuesReadBackWithTheirKind) {
    opcua::scalar_variable_node_open62541 node("ns=1;s=Out");
    node.set_value(true);
    EXPECT_TRUE(node.bool_value());
    EXPECT_EQ(node.value_kind(), opcua::data_type::boolean);
    node.set_value(std::int64_t{-7});
    EXPECT_EQ(node.int64_value(), -7);
    node.set_value(0.25);
    EXPECT_DOUBLE_EQ(node.double_value(), 0.25);
    node.set_value(std::string("ab\0cd", 5));
    EXPECT_EQ(node.string_value(), "ab") << "a zero byte ends the text";
    EXPECT_EQ(node.variant()->type, &UA_TYPES[UA_TYPES_STRING]);
}

}  // namespace
