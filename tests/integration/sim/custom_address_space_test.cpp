// The custom sensor's address space of opcua-sim, read with a plain client as the module
// will read it, and its --address-space option.

#include "opcua_sim/address_spaces.h"
#include "opcua_sim/cli.h"
#include "opcua_sim/server.h"
#include "sim_client.h"

#include <gtest/gtest.h>
#include <open62541/server.h>

#include <initializer_list>
#include <memory>
#include <stdexcept>

using namespace sim_test;

namespace {

struct variant_deleter {
    void operator()(UA_Variant* v) const { UA_Variant_delete(v); }
};
using variant_ptr = std::unique_ptr<UA_Variant, variant_deleter>;

template <typename T>
variant_ptr scalar(T value, int type_index) {
    variant_ptr v(UA_Variant_new());
    UA_Variant_setScalarCopy(v.get(), &value, &UA_TYPES[type_index]);
    return v;
}

variant_ptr string(const char* text) { return scalar(UA_STRING(const_cast<char*>(text)), UA_TYPES_STRING); }

template <typename T>
variant_ptr array(std::initializer_list<T> values, int type_index) {
    variant_ptr v(UA_Variant_new());
    UA_Variant_setArrayCopy(v.get(), values.begin(), values.size(), &UA_TYPES[type_index]);
    return v;
}

struct node_id_holder {
    UA_NodeId id;
    explicit node_id_holder(const std::string& text) {
        UA_NodeId_init(&id);
        if (UA_NodeId_parse(&id, UA_STRING(const_cast<char*>(text.c_str()))) != UA_STATUSCODE_GOOD)
            throw std::invalid_argument(text);
    }
    ~node_id_holder() { UA_NodeId_clear(&id); }
};

client_ptr connect(const std::string& url) {
    client_ptr client = make_client();
    UA_StatusCode status = UA_Client_connect(client.get(), url.c_str());
    if (status != UA_STATUSCODE_GOOD) throw std::runtime_error(std::string("connect: ") + UA_StatusCode_name(status));
    return client;
}

variant_ptr read_value(UA_Client* client, const std::string& id, UA_StatusCode* status_out = nullptr) {
    node_id_holder node(id);
    variant_ptr v(UA_Variant_new());
    UA_StatusCode status = UA_Client_readValueAttribute(client, node.id, v.get());
    if (status_out != nullptr) *status_out = status;
    else EXPECT_EQ(UA_STATUSCODE_GOOD, status) << id << ": " << UA_StatusCode_name(status);
    return v;
}

std::string localized(const UA_LocalizedText& t) { return text(t.locale) + "|" + text(t.text); }

opcua_sim::options custom_options() {
    opcua_sim::options o;
    o.endpoints = {{opcua_sim::security_policy::none, opcua_sim::security_mode::none}};
    o.address_spaces = {opcua_sim::custom_address_space()};
    return o;
}

class CustomAddressSpace : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        sim_ = new opcua_sim::server(custom_options());
        sim_->start();
    }
    static void TearDownTestSuite() {
        delete sim_;
        sim_ = nullptr;
    }
    void SetUp() override { client_ = connect(sim_->endpoint_url()); }

    static opcua_sim::server* sim_;
    client_ptr client_;
};
opcua_sim::server* CustomAddressSpace::sim_ = nullptr;

struct value_case {
    std::string id;
    variant_ptr expected;
    UA_Int32 value_rank;
};

} // namespace

// Value, declared DataType and ValueRank of every variable that carries a value; the
// data type must match the value, as the module takes the kind from the value.
TEST_F(CustomAddressSpace, VariablesHoldTheirTypedValues) {
    const UA_Guid guid{0x72962b91, 0xfa75, 0x4ae6, {0x8d, 0x28, 0xb4, 0x04, 0xdc, 0x7d, 0xaf, 0x63}};
    UA_Byte raw[] = {1, 2, 3};
    UA_EnumValueType enum_value;
    UA_EnumValueType_init(&enum_value);
    enum_value.value = 3;
    enum_value.displayName = UA_LOCALIZEDTEXT(const_cast<char*>("en"), const_cast<char*>("Three"));
    constexpr UA_Int32 s = UA_VALUERANK_SCALAR, a = UA_VALUERANK_ONE_DIMENSION;

    std::vector<value_case> cases;
    auto add = [&](std::string id, variant_ptr v, UA_Int32 rank) { cases.push_back({std::move(id), std::move(v), rank}); };
    add("ns=2;s=Boolean", scalar(UA_Boolean{true}, UA_TYPES_BOOLEAN), s);
    add("ns=2;s=BooleanFalse", scalar(UA_Boolean{false}, UA_TYPES_BOOLEAN), s);
    add("ns=2;s=SByte", scalar(UA_SByte{-56}, UA_TYPES_SBYTE), s);
    add("ns=2;s=Byte", scalar(UA_Byte{200}, UA_TYPES_BYTE), s);
    add("ns=2;s=Int16", scalar(UA_Int16{-1234}, UA_TYPES_INT16), s);
    add("ns=2;s=UInt16", scalar(UA_UInt16{54321}, UA_TYPES_UINT16), s);
    add("ns=2;s=Int32", scalar(UA_Int32{-123456}, UA_TYPES_INT32), s);
    add("ns=2;s=UInt32", scalar(UA_UInt32{4294967295u}, UA_TYPES_UINT32), s);
    add("ns=2;s=Int64", scalar(UA_Int64{-9000000000}, UA_TYPES_INT64), s);
    add("ns=2;s=UInt64", scalar(UA_UInt64{9223372036854775807u}, UA_TYPES_UINT64), s);
    add("ns=2;s=UInt64Overflow", scalar(UA_UInt64{9223372036854775808u}, UA_TYPES_UINT64), s);
    add("ns=2;s=Float", scalar(UA_Float{1.5f}, UA_TYPES_FLOAT), s);
    add("ns=2;s=Double", scalar(UA_Double{3.25}, UA_TYPES_DOUBLE), s);
    add("ns=2;s=DateTime", scalar(UA_DateTime{133000000000000000}, UA_TYPES_DATETIME), s);
    add("ns=2;s=String", string("Hello"), s);
    add("ns=2;s=StringEmpty", string(""), s);
    add("ns=2;s=StringNumber", string("12.5 kg"), s);
    add("ns=2;s=StringInteger", string("42"), s);
    add("ns=2;s=StringText", string("abc"), s);
    add("ns=2;s=StringHuge", string("1e999"), s);
    add("ns=2;s=LocalizedText",
        scalar(UA_LOCALIZEDTEXT(const_cast<char*>("en"), const_cast<char*>("Hello")), UA_TYPES_LOCALIZEDTEXT), s);
    add("ns=2;s=QualifiedName", scalar(UA_QUALIFIEDNAME(2, const_cast<char*>("Temp")), UA_TYPES_QUALIFIEDNAME), s);
    add("ns=2;s=EnumValue", scalar(enum_value, UA_TYPES_ENUMVALUETYPE), s);
    add("ns=2;s=Guid", scalar(guid, UA_TYPES_GUID), s);
    add("ns=2;s=ByteString", scalar(UA_ByteString{3, raw}, UA_TYPES_BYTESTRING), s);
    add("ns=2;s=StatusCode", scalar(UA_StatusCode{UA_STATUSCODE_BADINTERNALERROR}, UA_TYPES_STATUSCODE), s);
    add("ns=2;s=Int32Array", array<UA_Int32>({10, 20, 30, 40, 50}, UA_TYPES_INT32), a);
    add("ns=2;s=DoubleArray", array<UA_Double>({1.5, 2.5, 3.5}, UA_TYPES_DOUBLE), a);
    add("ns=2;s=StringArray",
        array<UA_String>({UA_STRING(const_cast<char*>("first")), UA_STRING(const_cast<char*>("second"))},
                         UA_TYPES_STRING),
        a);
    add("ns=2;s=BooleanArray", array<UA_Boolean>({true, false}, UA_TYPES_BOOLEAN), a);
    add("ns=2;s=NoDescription", scalar(UA_Int32{7}, UA_TYPES_INT32), s);
    add("ns=2;s=SensorMessage", string("Machine running"), s);
    add("ns=2;s=SensorMessageEmpty", string(""), s);
    add("ns=2;i=1001", scalar(UA_Double{99.5}, UA_TYPES_DOUBLE), s);

    for (const value_case& c : cases) {
        SCOPED_TRACE(c.id);
        variant_ptr actual = read_value(client_.get(), c.id);
        ASSERT_EQ(c.expected->type, actual->type) << (actual->type ? actual->type->typeName : "no type");
        EXPECT_EQ(c.expected->arrayLength, actual->arrayLength);
        EXPECT_EQ(UA_ORDER_EQ, UA_order(c.expected.get(), actual.get(), &UA_TYPES[UA_TYPES_VARIANT]));

        node_id_holder node(c.id);
        UA_NodeId data_type;
        ASSERT_EQ(UA_STATUSCODE_GOOD, UA_Client_readDataTypeAttribute(client_.get(), node.id, &data_type));
        EXPECT_TRUE(UA_NodeId_equal(&c.expected->type->typeId, &data_type));
        UA_NodeId_clear(&data_type);
        UA_Int32 rank = 0;
        ASSERT_EQ(UA_STATUSCODE_GOOD, UA_Client_readValueRankAttribute(client_.get(), node.id, &rank));
        EXPECT_EQ(c.value_rank, rank);
    }
}

// An empty array must stay an array on the wire, not turn into a missing value; a
// variable without value must arrive without type.
TEST_F(CustomAddressSpace, EmptyArrayAndMissingValueKeepTheirShape) {
    variant_ptr empty = read_value(client_.get(), "ns=2;s=EmptyArray");
    ASSERT_EQ(&UA_TYPES[UA_TYPES_INT32], empty->type);
    EXPECT_EQ(0u, empty->arrayLength);
    EXPECT_FALSE(UA_Variant_isScalar(empty.get()));

    variant_ptr none = read_value(client_.get(), "ns=2;s=NoValue");
    EXPECT_EQ(nullptr, none->type);
}

TEST_F(CustomAddressSpace, NamesAndDescriptions) {
    struct names_case {
        std::string id;
        std::string browse_name;
        std::string display_name;
        std::string description;
    };
    const std::vector<names_case> cases{
        {"ns=2;s=Int32", "Int32", "en|Custom Int32", "en|Int32 of the custom address space"},
        {"ns=2;s=SensorMessage", "SensorMessage", "en|Custom SensorMessage",
         "en|SensorMessage of the custom address space"},
        {"ns=2;i=1001", "Numeric", "en|Custom Numeric", "en|Numeric of the custom address space"},
        {"ns=2;s=NoDescription", "NoDescription", "en|Custom NoDescription", "|"},
    };
    for (const names_case& c : cases) {
        SCOPED_TRACE(c.id);
        node_id_holder node(c.id);
        UA_QualifiedName browse;
        ASSERT_EQ(UA_STATUSCODE_GOOD, UA_Client_readBrowseNameAttribute(client_.get(), node.id, &browse));
        EXPECT_EQ(2, browse.namespaceIndex);
        EXPECT_EQ(c.browse_name, text(browse.name));
        UA_QualifiedName_clear(&browse);
        UA_LocalizedText t;
        ASSERT_EQ(UA_STATUSCODE_GOOD, UA_Client_readDisplayNameAttribute(client_.get(), node.id, &t));
        EXPECT_EQ(c.display_name, localized(t));
        UA_LocalizedText_clear(&t);
        ASSERT_EQ(UA_STATUSCODE_GOOD, UA_Client_readDescriptionAttribute(client_.get(), node.id, &t));
        EXPECT_EQ(c.description, localized(t));
        UA_LocalizedText_clear(&t);
    }
}

TEST_F(CustomAddressSpace, NamespaceTwoIsTheCustomOneAndTheFolderIsNoVariable) {
    variant_ptr namespaces = read_value(client_.get(), "i=2255");
    ASSERT_TRUE(UA_Variant_hasArrayType(namespaces.get(), &UA_TYPES[UA_TYPES_STRING]));
    ASSERT_GE(namespaces->arrayLength, 3u);
    EXPECT_EQ(opcua_sim::custom_namespace_uri, text(static_cast<UA_String*>(namespaces->data)[2]));

    node_id_holder folder("ns=2;s=Custom");
    UA_NodeClass node_class = UA_NODECLASS_UNSPECIFIED;
    ASSERT_EQ(UA_STATUSCODE_GOOD, UA_Client_readNodeClassAttribute(client_.get(), folder.id, &node_class));
    EXPECT_EQ(UA_NODECLASS_OBJECT, node_class);

    UA_StatusCode status = UA_STATUSCODE_GOOD;
    read_value(client_.get(), "ns=2;s=Missing", &status);
    EXPECT_EQ(UA_STATUSCODE_BADNODEIDUNKNOWN, status);
}

// A server of its own: the test changes a value and restarts.
TEST(CustomAddressSpaceChanges, SetValueReachesClientsAndOutlivesRestart) {
    opcua_sim::server sim(custom_options());
    sim.start();
    UA_Int32 five = 5;
    UA_Variant v;
    UA_Variant_setScalar(&v, &five, &UA_TYPES[UA_TYPES_INT32]);
    sim.set_value("ns=2;s=Changeable", v);

    auto check = [&](const char* when) {
        SCOPED_TRACE(when);
        client_ptr client = connect(sim.endpoint_url());
        variant_ptr value = read_value(client.get(), "ns=2;s=Changeable");
        ASSERT_TRUE(UA_Variant_hasScalarType(value.get(), &UA_TYPES[UA_TYPES_INT32]));
        EXPECT_EQ(5, *static_cast<UA_Int32*>(value->data));
        // A value of the same type is written in place: the node keeps its description.
        node_id_holder node("ns=2;s=Changeable");
        UA_LocalizedText description;
        ASSERT_EQ(UA_STATUSCODE_GOOD, UA_Client_readDescriptionAttribute(client.get(), node.id, &description));
        EXPECT_EQ("Changeable of the custom address space", text(description.text));
        UA_LocalizedText_clear(&description);
        // The rest of the space is rebuilt by the setup at each start.
        variant_ptr other = read_value(client.get(), "ns=2;s=Int32Array");
        EXPECT_EQ(5u, other->arrayLength);
    };
    check("after set_value");
    sim.stop();
    sim.start();
    check("after restart");
}

TEST(CustomAddressSpaceCommandLine, OptionAddsTheSetupOnce) {
    opcua_sim::command_line c =
        opcua_sim::parse_command_line({"--address-space", "custom", "--address-space", "custom"});
    EXPECT_EQ(std::vector<std::string>{"custom"}, c.address_spaces);
    EXPECT_EQ(1u, c.server_options.address_spaces.size());
    EXPECT_TRUE(opcua_sim::parse_command_line({}).server_options.address_spaces.empty());

    for (const std::vector<std::string>& bad :
         {std::vector<std::string>{"--address-space", "Custom"}, std::vector<std::string>{"--address-space"}}) {
        EXPECT_THROW(opcua_sim::parse_command_line(bad), std::invalid_argument) << bad.size();
    }
    EXPECT_NE(std::string::npos, opcua_sim::usage_text().find("--address-space NAME"));
}
