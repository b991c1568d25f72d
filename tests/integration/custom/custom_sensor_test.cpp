// The custom sensor end to end: the built module against opcua-sim's custom address space.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "integration/sensor_session.h"
#include "opcua_sim/address_spaces.h"
#include "opcua_sim/server.h"

using namespace integration;

namespace {

std::map<int, ordered_json> channels_of(const ordered_json& result) {
    std::map<int, ordered_json> out;
    for (const auto& c : result.at("channels")) out[c.at("channel_id").get<int>()] = c;
    return out;
}

class CustomSensor : public sensor_session {
protected:
    static void SetUpTestSuite() {
        opcua_sim::options o;
        o.address_spaces.push_back(opcua_sim::custom_address_space());
        server_ = new opcua_sim::server(o);
        server_->start();
    }
    static void TearDownTestSuite() { delete server_; }


    static opcua_sim::server* server_;
};

opcua_sim::server* CustomSensor::server_ = nullptr;

TEST_F(CustomSensor, EnabledChannelsAloneAreDefinedAndDeliverValues) {
    auto d = custom_data(server_->port(),
                         {{1, "ns=2;s=Int32"}, {2, "ns=2;s=BooleanFalse"}, {4, "'ns=2;s=DoubleArray'[1]"}});
    (*d.mutable_settings())["custom.connection_custom.channel2_unit"] = "kg";
    ASSERT_EQ(host_->create_sensor(1, d), 0);
    const auto defs = take().definitions;
    ASSERT_EQ(defs.size(), 3u);
    expect_fields(defs[0],
                  {{"id", 1}, {"name", "channel.channel_1"}, {"display_name", "Custom Int32"}, {"value_mode", 1}});
    // A boolean gets the lookup, and a lookup leaves no room for a unit.
    expect_fields(defs[1], {{"id", 2}, {"lookup", "positive_boolean_lookup"}, {"unit", 0}, {"custom_unit", "kg"}});
    expect_fields(defs[2], {{"id", 4}, {"value_mode", 3}});

    for (int n = 0; n < 2; ++n) {
        const auto result = scan(1).result();
        EXPECT_EQ(result.at("response_code"), 0);
        EXPECT_EQ(result.at("message").at("text"), "OK");
        const auto values = channels_of(result);
        ASSERT_EQ(values.size(), 3u);
        EXPECT_EQ(values.at(1).at("integer"), "-123456");
        EXPECT_EQ(values.at(2).at("integer"), "0");
        EXPECT_DOUBLE_EQ(values.at(4).at("floating").get<double>(), 2.5);
    }
    // The first read asks for names and value of all nodes, later reads for the values only.
    EXPECT_EQ(requests(1), (std::vector<int>{12, 3, 3}));
}

TEST_F(CustomSensor, StringValuesAndTheSensorMessage) {
    const std::string empty_message = "The variable for the entered NodeID is empty.";
    const std::string not_a_number =
        "The sensor cannot parse the received data. The received data must be a numeric value.";
    const struct {
        const char* node;
        const char* message_node;
        int response_code;
        std::string key;
        std::string text;
        const char* field;
        ordered_json value;
    } cases[] = {
        {"ns=2;s=StringNumber", "", 0, "OK", "OK", "floating", 12.5},
        {"ns=2;s=StringText", "", 3, "#:error.conversion_failure[]", not_a_number, nullptr, nullptr},
        {"ns=2;s=StringHuge", "", 3, "stod", "stod", nullptr, nullptr},
        {"ns=2;s=Byte", "ns=2;s=SensorMessage", 0, "Machine running", "Machine running", "integer", "200"},
        {"ns=2;s=Byte", "ns=2;s=SensorMessageEmpty", 0, "#:message.node_empty[]", empty_message, "integer", "200"},
    };
    int id = 10;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.node) + " " + c.message_node);
        ASSERT_EQ(host_->create_sensor(id, custom_data(server_->port(), {{1, c.node}}, c.message_node)), 0);
        const auto result = scan(id).result();
        EXPECT_EQ(result.at("response_code"), c.response_code);
        EXPECT_EQ(result.at("message").at("key"), c.key);
        EXPECT_EQ(result.at("message").at("text"), c.text);
        if (c.field)
            EXPECT_EQ(channels_of(result).at(1).at(c.field), c.value);
        else
            EXPECT_TRUE(result.at("channels").empty()) << "a failed scan reports no channel";
        ++id;
    }
}

TEST_F(CustomSensor, RecreatedSensorWithKnownChannelsSendsNoDefinition) {
    auto d = custom_data(server_->port(), {{1, "ns=2;s=Int32"}, {2, "ns=2;s=Double"}});
    (*d.mutable_channels())[1] = "My Int";
    (*d.mutable_channels())[2] = "My Double";
    ASSERT_EQ(host_->create_sensor(30, d), 0);
    EXPECT_TRUE(take().definitions.empty());
    EXPECT_EQ(channels_of(scan(30).result()).size(), 2u);
}

TEST_F(CustomSensor, LostSessionIsRetriedOnceAndTheScanSucceeds) {
    ASSERT_EQ(host_->create_sensor(40, custom_data(server_->port(), {{1, "ns=2;s=Int32"}})), 0);
    EXPECT_EQ(scan(40).result().at("response_code"), 0);
    ASSERT_GE(server_->end_sessions(), 1u);
    const auto result = scan(40).result();
    EXPECT_EQ(result.at("response_code"), 0) << result.dump();
    EXPECT_EQ(channels_of(result).at(1).at("integer"), "-123456");
    // The server's answer, not the connection test, found the session gone.
    EXPECT_EQ(count_lines(40, "INFO", "perform one retry"), 1u);
}

TEST_F(CustomSensor, CreationFailureSendsAnErrorResultAndKeepsNoSensor) {
    const struct {
        const char* node;
        const char* key;  // prefix of the message key
    } cases[] = {
        {"ns=2;x=Bad", "#:error.failed_to_parse_node_id[ns=2;x=Bad,"},
        {"ns=2;s=NoSuchNode", "#:error.nodeid_unknown[s=NoSuchNode]"},
        {"'ns=2;s=Int32'", "#:error.invalid_array_syntax['ns=2;s=Int32']"},
    };
    int id = 50;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.node);
        EXPECT_EQ(host_->create_sensor(id, custom_data(server_->port(), {{1, c.node}})), 2);
        const auto result = take().result();
        EXPECT_EQ(result.at("response_code"), 3);
        EXPECT_EQ(result.at("message").at("key").get<std::string>().rfind(c.key, 0), 0u) << result.at("message");
        EXPECT_EQ(host_->scan(id), 5) << "no sensor stays behind";
        ++id;
    }
}

}  // namespace
