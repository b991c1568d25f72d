#pragma once

// What the end-to-end suites add to module_session: settings for each security mode and
// user, a table of checks compared with their outcome and the log lines they add, the
// messages of a sensor call sorted by kind, one scan and its result, and the lines of a
// sensor's log.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "support/module_session.h"
#include "support/test_pki.h"

namespace integration {

using nlohmann::ordered_json;
using settings_map = std::map<std::string, std::string>;
using sensor_data_t = brenholt::vuro::wire::SensorData;

constexpr const char* connect_failed = "The sensor could not connect to the OPC UA server (";
constexpr const char* no_endpoint = "could not find the endpoint on the OPC UA server";

// A client certificate of its own in these settings, its key under the password that security() uses.
inline settings_map with_certificate(settings_map s, std::vector<std::string> alt_names, const char* key_usage = nullptr) {
    namespace pki = brenholt::monitoring_modules::test_pki;
    pki::cert_profile profile = pki::leaf_profile("kolv-test-client");
    profile.subject_alt_names = std::move(alt_names);
    if (key_usage) profile.key_usage = key_usage;
    const pki::cert made = pki::make_cert(profile);
    s["credentials.connection_security.client_certificate"] = made.pem();
    s["credentials.connection_security.client_key"] = made.key().private_pem_encrypted("client-key-pw");
    return s;
}

// A signing mode brings a client certificate, made once because RSA keys are slow.
inline settings_map security(const std::string& mode, const std::string& policy) {
    settings_map s{{"credentials.connection_security.security_mode", mode},
                   {"credentials.connection_security.security_policy", policy}};
    static const settings_map identity = with_certificate(
        {{"credentials.connection_security.client_key_password", "client-key-pw"}}, {"URI:urn:kolv:test-client"});
    if (mode != "none") s.insert(identity.begin(), identity.end());
    return s;
}

inline settings_map with_user(settings_map s, const std::string& user, const std::string& password) {
    s["credentials.user_authentication.user_auth_mode"] = "username_password";
    s["credentials.user_authentication.user"] = user;
    s["credentials.user_authentication.password"] = password;
    return s;
}

// `emergency` empty: the check adds no EMERGENCY line; otherwise exactly one, containing it.
struct check_case {
    std::string name, check;
    settings_map settings;
    bool success;
    std::string emergency;
};

// What the module sent since the last look, in the order it came.
struct sent {
    std::vector<std::string> types;
    std::vector<ordered_json> definitions, results;

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

// The lines that end in this text.
inline std::size_t count_ending(const std::vector<std::string>& lines, const std::string& tail) {
    return std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.size() >= tail.size() && line.compare(line.size() - tail.size(), tail.size(), tail) == 0;
    });
}

class sensor_session : public test_support::module_session {
protected:
    // Every setting of a fixed sensor, with its log switched on.
    static sensor_data_t sensor_data(const std::string& kind, int port) {
        auto d = test_support::credential_data(kind, port);
        (*d.mutable_settings())["logging"] = "enabled";
        return d;
    }

    // A custom sensor reading these channels (number to NodeID text); the others are off.
    static sensor_data_t custom_data(int port, const std::map<int, std::string>& channels,
                                     const std::string& message_node = "") {
        auto d = sensor_data("custom_sensor", port);
        auto& s = *d.mutable_settings();
        s["custom.sensor_message_custom.nodeid"] = message_node;
        for (int n = 1; n <= 10; ++n) {
            const std::string c = "custom.connection_custom.channel" + std::to_string(n);
            // Channel 1 is always on and has no switch.
            if (n > 1) s[c] = channels.count(n) ? "enable" : "disable";
            s[c + "_settings"] = "automatic";
            s[c + "_name"] = s[c + "_unit"] = "";
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
            if (m.type == "SENSOR_SCAN_RESULT" || m.type == "CHECK_RESULT") out.results.push_back(m.body);
        }
        return out;
    }

    // One scan, with what was sent before it left out.
    sent scan(int id) {
        host_->take_messages();
        EXPECT_EQ(host_->scan(id), 0);
        return take();
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

    void run_checks(int port, const std::vector<check_case>& cases) {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.name + " (" + c.check + ")");
            auto data = test_support::credential_data(c.check, port);
            for (const auto& [key, value] : c.settings) test_support::put(data, key, value);
            EXPECT_EQ(host_->check(3, data), 0);
            expect_fields(take().result(), {{"check_id", 3}, {"success", c.success}});
            // A failed check's text goes to the runtime log only, inside the call's banners
            // and after the check's own first line; the log holds text only, and no secret.
            const std::vector<std::string> lines = runtime_log();
            std::vector<std::string> frame;
            for (std::size_t i = std::exchange(lines_seen_, lines.size()); i < lines.size(); ++i) {
                const std::string& line = lines[i];
                EXPECT_EQ(line.find('\0'), std::string::npos) << "a zero byte in the log: " << line;
                for (const char* secret : {"credentials.user_authentication.password",
                                           "credentials.connection_security.client_key_password"})
                    EXPECT_TRUE(!c.settings.count(secret) || line.find(c.settings.at(secret)) == std::string::npos) << line;
                if (line.find(" EMERGENCY ") != std::string::npos)
                    frame.push_back(line.find(c.emergency) != std::string::npos ? "EMERGENCY" : "EMERGENCY: " + line);
                for (const char* mark : {"### Begin execute_check ###", "Initialize: ", "### End   execute_check ###"})
                    if (line.find(mark) != std::string::npos) frame.push_back(mark);
            }
            std::vector<std::string> expected{"### Begin execute_check ###", "Initialize: ", "EMERGENCY",
                                              "### End   execute_check ###"};
            if (c.emergency.empty()) expected.erase(expected.begin() + 2);
            EXPECT_EQ(frame, expected);
        }
    }

private:
    std::size_t lines_seen_ = 0;
};

}  // namespace integration
