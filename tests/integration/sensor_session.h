#pragma once

// What the sensor suites add to module_session: the messages of a call sorted by kind,
// one scan and its result, channel values, and the lines of a sensor's log.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include "support/module_session.h"

namespace integration {

using nlohmann::ordered_json;

// What the module sent since the last look, in the order it came.
struct sent {
    std::vector<std::string> types;
    std::vector<ordered_json> definitions;
    std::vector<ordered_json> results;

    std::vector<int> definition_ids() const {
        std::vector<int> ids;
        for (const auto& d : definitions) ids.push_back(d.at("id").get<int>());
        return ids;
    }
    // The one result; a failure and an empty object when there is not exactly one.
    ordered_json result() const {
        EXPECT_EQ(results.size(), 1u);
        return results.size() == 1 ? results[0] : ordered_json::object();
    }
};

// Channel id to integer value, for the channels that carry one.
inline std::map<int, long long> integers(const ordered_json& result) {
    std::map<int, long long> out;
    for (const auto& c : result.at("channels"))
        if (c.contains("integer")) out[c.at("channel_id").get<int>()] = std::stoll(c.at("integer").get<std::string>());
    return out;
}

// Every field of `expected` has its value in `actual`, objects field by field; other
// fields of `actual` are not looked at.
inline void expect_fields(const ordered_json& actual, const ordered_json& expected, const std::string& where = "") {
    for (const auto& [key, value] : expected.items()) {
        if (!actual.contains(key))
            ADD_FAILURE() << where << key << " is missing in " << actual.dump();
        else if (value.is_object())
            expect_fields(actual.at(key), value, where + key + ".");
        else
            EXPECT_EQ(actual.at(key), value) << where << key << " of " << actual.dump();
    }
}

class sensor_session : public test_support::module_session {
protected:
    // Every setting of a fixed sensor, with its log switched on.
    static brenholt::vuro::wire::SensorData sensor_data(const std::string& kind, int port) {
        auto d = test_support::credential_data(kind, port);
        (*d.mutable_settings())["logging"] = "enabled";
        return d;
    }

    // A custom sensor reading these channels (number to NodeID text); the others are off.
    static brenholt::vuro::wire::SensorData custom_data(int port, const std::map<int, std::string>& channels,
                                                         const std::string& message_node = "") {
        auto d = sensor_data("custom_sensor", port);
        auto& s = *d.mutable_settings();
        s["custom.sensor_message_custom.nodeid"] = message_node;
        for (int n = 1; n <= 10; ++n) {
            const std::string c = "custom.connection_custom.channel" + std::to_string(n);
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

    sent take() {
        sent out;
        for (auto& m : host_->take_messages()) {
            out.types.push_back(m.type);
            if (m.type == "DYNAMIC_CHANNEL") out.definitions.push_back(m.body);
            if (m.type == "SENSOR_SCAN_RESULT") out.results.push_back(m.body);
        }
        return out;
    }

    // One scan, with what was sent before it left out.
    sent scan(int id) {
        host_->take_messages();
        EXPECT_EQ(host_->scan(id), 0);
        return take();
    }

    // Lines of the sensor's log that end in this severity and text.
    std::size_t count_lines(int id, const std::string& severity, const std::string& text) const {
        const std::string tail = " " + severity + " " + text;
        const auto lines = sensor_log(id);
        return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
            return line.size() >= tail.size() && line.compare(line.size() - tail.size(), tail.size(), tail) == 0;
        });
    }

    // The node counts of the client's read requests, in order. A node's first read asks
    // for its metadata besides the value.
    std::vector<int> requests(int id) const {
        static const std::regex request("Requesting ([0-9]+) nodes\\.$");
        std::vector<int> out;
        std::smatch m;
        for (const std::string& line : sensor_log(id))
            if (std::regex_search(line, m, request)) out.push_back(std::stoi(m[1]));
        return out;
    }
};

}  // namespace integration
