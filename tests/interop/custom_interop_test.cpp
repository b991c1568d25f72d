// The custom sensor through the built module against node-opcua's encoding of every
// kind it reads (server.js, section "custom"). One server start for the whole table:
// node-opcua takes seconds to come up, and ctest runs each TEST in its own process.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "node_server.h"
#include "support/module_session.h"

using nlohmann::json;
using nlohmann::ordered_json;

namespace {

const std::string prefix = "custom.connection_custom.channel";

// 1970-01-01 is 134774 days after 1601-01-01, the origin of an OPC UA DateTime.
constexpr long long seconds_1601_to_1970 = 134774LL * 86400;

// One channel of a sensor: its NodeID (built from `node` and `index`) and what the
// module must define and report for it. `integer` set means an integer value (sent as
// a JSON string), otherwise `floating`.
struct channel_case {
    int id;
    std::string node;
    int index;  // array element, or -1 for a scalar
    int value_mode;
    bool boolean;
    std::string integer;
    double floating;
};

struct sensor_case {
    std::string name;
    int sensor_id;
    std::vector<channel_case> channels;
    std::string message_node;  // empty: no sensor message
    int response_code;
    std::string message_key;   // checked when not empty
    std::string message_text;  // checked when not empty
};

class InteropCustomSensor : public test_support::module_session {
protected:
    void SetUp() override {
        const std::string missing = interop::node_opcua_missing();
        ASSERT_TRUE(missing.empty()) << missing;
        module_session::SetUp();
    }

    // Every setting the probe sends for a custom sensor; channels not listed are disabled.
    static brenholt::vuro::wire::SensorData data(int port, const std::map<int, std::string>& channels,
                                                  const std::string& message_node) {
        auto d = test_support::credential_data("custom_sensor", port);
        auto& s = *d.mutable_settings();
        s["logging"] = "enabled";
        s["custom.sensor_message_custom.nodeid"] = message_node;
        for (int n = 1; n <= 10; ++n) {
            const std::string c = prefix + std::to_string(n);
            // Channel 1 is always on and has no switch.
            if (n > 1) s[c] = channels.count(n) ? "enable" : "disable";
            s[c + "_settings"] = "automatic";
            s[c + "_name"] = "";
            s[c + "_unit"] = "";
            s[c + "_scale_factor"] = "1";
            s[c + "_nodeid"] = channels.count(n) ? channels.at(n) : "";
        }
        return d;
    }

    std::vector<ordered_json> take(const std::string& type) {
        std::vector<ordered_json> out;
        for (const auto& m : host_->take_messages())
            if (m.type == type) out.push_back(m.body);
        return out;
    }
};

TEST_F(InteropCustomSensor, DefinesAndReadsEveryKindFromNodeOpcua) {
    interop::node_server server({{"securityModes", {"None"}}, {"securityPolicies", {"None"}}, {"custom", true}});
    const json& ready = server.wait_ready();
    ASSERT_TRUE(ready.contains("namespaces") && ready.at("namespaces").contains("custom")) << ready.dump();
    const int ns = ready.at("namespaces").at("custom").get<int>();
    // Index 0 is the standard namespace and 1 the server's own: ours must be another.
    ASSERT_GE(ns, 2) << ready.dump();
    const std::string nsp = "ns=" + std::to_string(ns) + ";s=";

    const std::vector<sensor_case> sensors = {
        {"integers and booleans",
         1,
         {
             {1, "Boolean", -1, 1, true, "1", 0},
             {2, "BooleanFalse", -1, 1, true, "0", 0},
             {3, "SByte", -1, 1, false, "-100", 0},
             {4, "Byte", -1, 1, false, "250", 0},
             {5, "Int16", -1, 1, false, "-30000", 0},
             {6, "UInt16", -1, 1, false, "65000", 0},
             {7, "Int32", -1, 1, false, "-2000000000", 0},
             {8, "UInt32", -1, 1, false, "4000000000", 0},
             {9, "Int64", -1, 1, false, "-9007199254740993", 0},
             {10, "UInt64", -1, 1, false, "9223372036854775807", 0},
         },
         "",
         0,
         "",
         "OK"},
        // Channels 4 and 6 stay off: the ids must follow the channel numbers, not the order.
        {"floats, strings, DateTime and array elements",
         2,
         {
             {1, "Float", -1, 3, false, "", -2.75},
             {2, "Double", -1, 3, false, "", 1234.5678},
             {3, "StringNumber", -1, 3, false, "", 12.5},
             {5, "LocalizedText", -1, 3, false, "", 7.25},
             {7, "DateTime", -1, 1, false, std::to_string(1709210096LL + seconds_1601_to_1970), 0},
             {8, "Int32Array", 0, 1, false, "-5", 0},
             {9, "Int32Array", 2, 1, false, "2147483647", 0},
             {10, "DoubleArray", 2, 3, false, "", 1e300},
         },
         "SensorMessage",
         0,
         "",
         "Pump 3 running"},
        // The conversion error is the sensor's message: the server's text must not replace it.
        {"string holding text",
         3,
         {{1, "StringText", -1, 3, false, "", 0}},
         "SensorMessage",
         3,
         "#:error.conversion_failure[]",
         ""},
    };

    for (const auto& sensor : sensors) {
        SCOPED_TRACE(sensor.name);
        std::map<int, std::string> nodes;
        for (const auto& c : sensor.channels) {
            nodes[c.id] = c.index < 0 ? nsp + c.node : "'" + nsp + c.node + "'[" + std::to_string(c.index) + "]";
        }
        const std::string message_node = sensor.message_node.empty() ? "" : nsp + sensor.message_node;
        ASSERT_EQ(host_->create_sensor(sensor.sensor_id, data(server.port(), nodes, message_node)), 0);

        const auto defs = take("DYNAMIC_CHANNEL");
        ASSERT_EQ(defs.size(), sensor.channels.size());
        for (std::size_t i = 0; i < defs.size(); ++i) {
            const auto& c = sensor.channels[i];
            SCOPED_TRACE(nodes.at(c.id));
            EXPECT_EQ(defs[i].at("id"), c.id);
            EXPECT_EQ(defs[i].at("name"), "channel.channel_" + std::to_string(c.id));
            EXPECT_EQ(defs[i].at("display_name"), c.node + " (node-opcua)");
            EXPECT_EQ(defs[i].at("value_mode"), c.value_mode);
            EXPECT_EQ(defs[i].value("lookup", std::string()), c.boolean ? "positive_boolean_lookup" : "");
        }

        // The first scan reads names and values, the second the values alone.
        for (int scan = 1; scan <= 2; ++scan) {
            SCOPED_TRACE("scan " + std::to_string(scan));
            ASSERT_EQ(host_->scan(sensor.sensor_id), 0);
            const auto results = take("SENSOR_SCAN_RESULT");
            ASSERT_EQ(results.size(), 1u);
            const auto& result = results[0];
            EXPECT_EQ(result.at("response_code"), sensor.response_code) << result.dump();
            if (!sensor.message_key.empty()) {
                EXPECT_EQ(result.at("message").at("key"), sensor.message_key);
            }
            if (!sensor.message_text.empty()) {
                EXPECT_EQ(result.at("message").at("text"), sensor.message_text);
            }
            if (sensor.response_code != 0) {
                EXPECT_TRUE(result.at("channels").empty()) << "a failed scan reports no channel";
                continue;
            }
            std::map<int, ordered_json> values;
            for (const auto& v : result.at("channels")) values[v.at("channel_id").get<int>()] = v;
            ASSERT_EQ(values.size(), sensor.channels.size()) << result.dump();
            for (const auto& c : sensor.channels) {
                SCOPED_TRACE(nodes.at(c.id));
                ASSERT_EQ(values.count(c.id), 1u);
                const auto& v = values.at(c.id);
                if (!c.integer.empty()) {
                    ASSERT_TRUE(v.contains("integer")) << v.dump();
                    EXPECT_EQ(v.at("integer"), c.integer);
                } else {
                    ASSERT_TRUE(v.contains("floating")) << v.dump();
                    EXPECT_DOUBLE_EQ(v.at("floating").get<double>(), c.floating);
                }
            }
        }
        EXPECT_EQ(host_->destroy(sensor.sensor_id), 0);
    }
    EXPECT_TRUE(server.stop()) << "the server did not stop on SIGTERM";
}

}  // namespace
