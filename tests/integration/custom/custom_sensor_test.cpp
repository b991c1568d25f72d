// The custom sensor end to end: CreateSensorInstance and scans through the built
// module against opcua-sim's custom address space.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "opcua_sim/address_spaces.h"
#include "opcua_sim/server.h"
#include "support/module_session.h"

namespace fs = std::filesystem;
using nlohmann::ordered_json;

namespace {

const std::string prefix = "custom.connection_custom.channel";

class CustomSensor : public test_support::module_session {
protected:
    static void SetUpTestSuite() {
        opcua_sim::options o;
        o.certificate.generate.key_bits = 2048;
        o.address_spaces.push_back(opcua_sim::custom_address_space());
        server_ = new opcua_sim::server(o);
        server_->start();
    }
    static void TearDownTestSuite() { delete server_; }

    // channels: channel number -> NodeID text; every other channel disabled.
    static brenholt::vuro::wire::SensorData data(const std::map<int, std::string>& channels,
                                                  const std::map<std::string, std::string>& changes = {}) {
        auto d = test_support::credential_data("custom_sensor", server_->port());
        auto& s = *d.mutable_settings();
        s["logging"] = "enabled";
        s["custom.sensor_message_custom.nodeid"] = "";
        for (int n = 1; n <= 10; ++n) {
            const std::string c = prefix + std::to_string(n);
            if (n > 1) s[c] = channels.count(n) ? "enable" : "disable";
            s[c + "_settings"] = "automatic";
            s[c + "_name"] = "";
            s[c + "_unit"] = "";
            s[c + "_scale_factor"] = "1";
            s[c + "_nodeid"] = channels.count(n) ? channels.at(n) : "";
        }
        for (const auto& [k, v] : changes) s[k] = v;
        return d;
    }

    std::vector<ordered_json> messages_of(const std::string& type) {
        std::vector<ordered_json> out;
        for (auto& m : pending_)
            if (m.type == type) out.push_back(m.body);
        return out;
    }
    void collect() {
        auto more = host_->take_messages();
        pending_.insert(pending_.end(), more.begin(), more.end());
    }
    static opcua_sim::server* server_;
    std::vector<miniprobe::received_message> pending_;
};

opcua_sim::server* CustomSensor::server_ = nullptr;

std::map<int, ordered_json> values_of(const ordered_json& result) {
    std::map<int, ordered_json> out;
    for (const auto& c : result.at("channels")) out[c.at("channel_id").get<int>()] = c;
    return out;
}

TEST_F(CustomSensor, ChannelsOneAndFourDefineOnlyTheirIdsAndDeliverValues) {
    ASSERT_EQ(host_->create_sensor(1, data({{1, "ns=2;s=Int32"}, {4, "'ns=2;s=DoubleArray'[1]"}})), 0);
    collect();
    const auto defs = messages_of("DYNAMIC_CHANNEL");
    ASSERT_EQ(defs.size(), 2u);
    EXPECT_EQ(defs[0].at("id"), 1);
    EXPECT_EQ(defs[0].at("name"), "channel.channel_1");
    EXPECT_EQ(defs[0].at("display_name"), "Custom Int32");
    EXPECT_EQ(defs[0].at("value_mode"), 1);
    EXPECT_EQ(defs[1].at("id"), 4);
    EXPECT_EQ(defs[1].at("value_mode"), 3);

    for (int scan = 0; scan < 2; ++scan) {
        pending_.clear();
        ASSERT_EQ(host_->scan(1), 0);
        collect();
        const auto results = messages_of("SENSOR_SCAN_RESULT");
        ASSERT_EQ(results.size(), 1u);
        EXPECT_EQ(results[0].at("response_code"), 0);
        EXPECT_EQ(results[0].at("message").at("text"), "OK");
        const auto values = values_of(results[0]);
        ASSERT_EQ(values.size(), 2u);
        EXPECT_EQ(values.at(1).at("integer"), "-123456");
        EXPECT_TRUE(values.at(4).contains("floating"));
    }
    // The first read asks for names and value of both nodes, later reads for the values only.
    std::vector<std::string> requests;
    for (const auto& line : sensor_log(1))
        if (line.find("  Requesting ") != std::string::npos) requests.push_back(line.substr(line.find("Requesting")));
    ASSERT_EQ(requests.size(), 3u);
    EXPECT_EQ(requests[0], "Requesting 8 nodes.");
    EXPECT_EQ(requests[1], "Requesting 2 nodes.");
    EXPECT_EQ(requests[2], "Requesting 2 nodes.");
    EXPECT_EQ(host_->destroy(1), 0);
}

TEST_F(CustomSensor, BooleanChannelGetsTheLookupAndNoUnit) {
    ASSERT_EQ(host_->create_sensor(2, data({{1, "ns=2;s=BooleanFalse"}}, {{prefix + "1_unit", "kg"}})), 0);
    collect();
    const auto defs = messages_of("DYNAMIC_CHANNEL");
    ASSERT_EQ(defs.size(), 1u);
    EXPECT_EQ(defs[0].at("lookup"), "positive_boolean_lookup");
    EXPECT_EQ(defs[0].at("unit"), 0);
    EXPECT_EQ(defs[0].at("custom_unit"), "kg");
    pending_.clear();
    ASSERT_EQ(host_->scan(2), 0);
    collect();
    EXPECT_EQ(values_of(messages_of("SENSOR_SCAN_RESULT").at(0)).at(1).at("integer"), "0");
}

TEST_F(CustomSensor, StringChannelsParseNumbersOrFailTheScan) {
    const struct {
        const char* node;
        int response_code;
        const char* key;  // prefix of the message key
        double value;
    } cases[] = {
        {"ns=2;s=StringNumber", 0, "OK", 12.5},
        {"ns=2;s=StringText", 3, "#:error.conversion_failure[]", 0},
        {"ns=2;s=StringHuge", 3, "stod", 0},
    };
    int id = 10;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.node);
        ASSERT_EQ(host_->create_sensor(id, data({{1, c.node}})), 0);
        pending_.clear();
        ASSERT_EQ(host_->scan(id), 0);
        collect();
        const auto results = messages_of("SENSOR_SCAN_RESULT");
        ASSERT_EQ(results.size(), 1u);
        EXPECT_EQ(results[0].at("response_code"), c.response_code);
        EXPECT_EQ(results[0].at("message").at("key"), c.key);
        if (c.response_code == 0) {
            EXPECT_DOUBLE_EQ(values_of(results[0]).at(1).at("floating").get<double>(), c.value);
        } else {
            EXPECT_TRUE(results[0].at("channels").empty()) << "a failed scan reports no channel";
        }
        ++id;
    }
}

TEST_F(CustomSensor, SensorMessageComesFromItsNodeOrSaysItIsEmpty) {
    const struct {
        const char* node;
        const char* text;
    } cases[] = {{"ns=2;s=SensorMessage", "Machine running"},
                 {"ns=2;s=SensorMessageEmpty", "The variable for the entered NodeID is empty."}};
    int id = 20;
    for (const auto& c : cases) {
        ASSERT_EQ(host_->create_sensor(id, data({{1, "ns=2;s=Byte"}}, {{"custom.sensor_message_custom.nodeid", c.node}})), 0);
        pending_.clear();
        ASSERT_EQ(host_->scan(id), 0);
        collect();
        const auto result = messages_of("SENSOR_SCAN_RESULT").at(0);
        EXPECT_EQ(result.at("message").at("text"), c.text);
        EXPECT_EQ(values_of(result).at(1).at("integer"), "200");
        ++id;
    }
}

TEST_F(CustomSensor, RecreatedSensorWithKnownChannelsSendsNoDefinition) {
    auto d = data({{1, "ns=2;s=Int32"}, {2, "ns=2;s=Double"}});
    (*d.mutable_channels())[1] = "My Int";
    (*d.mutable_channels())[2] = "My Double";
    ASSERT_EQ(host_->create_sensor(30, d), 0);
    collect();
    EXPECT_TRUE(messages_of("DYNAMIC_CHANNEL").empty());
    ASSERT_EQ(host_->scan(30), 0);
    collect();
    EXPECT_EQ(values_of(messages_of("SENSOR_SCAN_RESULT").at(0)).size(), 2u);
}

TEST_F(CustomSensor, DroppedSessionIsReconnectedAndTheScanSucceeds) {
    ASSERT_EQ(host_->create_sensor(40, data({{1, "ns=2;s=Int32"}})), 0);
    ASSERT_EQ(host_->scan(40), 0);
    host_->take_messages();
    ASSERT_GE(server_->end_sessions(), 1u);
    ASSERT_EQ(host_->scan(40), 0);
    collect();
    const auto results = messages_of("SENSOR_SCAN_RESULT");
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].at("response_code"), 0) << results[0].dump();
    EXPECT_EQ(values_of(results[0]).at(1).at("integer"), "-123456");
}

TEST_F(CustomSensor, CreationFailureSendsAnErrorResultFirst) {
    const struct {
        const char* node;
        const char* key;
    } cases[] = {
        {"ns=2;x=Bad", "#:error.failed_to_parse_node_id[ns=2;x=Bad,"},
        {"ns=2;s=NoSuchNode", "#:error.nodeid_unknown[s=NoSuchNode]"},
        {"'ns=2;s=Int32'", "#:error.invalid_array_syntax['ns=2;s=Int32']"},
    };
    int id = 50;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.node);
        pending_.clear();
        EXPECT_EQ(host_->create_sensor(id, data({{1, c.node}})), 2);
        collect();
        const auto results = messages_of("SENSOR_SCAN_RESULT");
        ASSERT_EQ(results.size(), 1u);
        EXPECT_EQ(results[0].at("response_code"), 3);
        EXPECT_EQ(results[0].at("message").at("key").get<std::string>().rfind(c.key, 0), 0u)
            << results[0].at("message").at("key");
        EXPECT_EQ(host_->scan(id), 5) << "no sensor stays behind";
        ++id;
    }
}

}  // namespace
