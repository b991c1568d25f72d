#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <vector>

#include "fake_source.h"
#include "module/framework/sensor_base.h"
#include "settings/custom_sensor_settings.h"

namespace {

namespace st = ::brenholt::monitoring_modules::opcua::settings;
namespace vex = ::brenholt::monitoring_modules::libvurohelper::utils::exceptions;
using opcua_settings_test::fake_source;

const std::string prefix = "custom.connection_custom.channel";
const std::string message_key = "custom.sensor_message_custom.nodeid";

std::string key(int number, const std::string& field) { return prefix + std::to_string(number) + field; }

// A valid custom sensor: channel 2 switched on, 3 to 10 off but filled, so that
// each channel's values can be told apart by its number.
fake_source custom_source() {
    fake_source s = opcua_settings_test::sensor_source();
    s.plain[message_key] = "ns=2;s=message";
    for (int n = 1; n <= 10; ++n) {
        if (n != 1) s.plain[key(n, "")] = n == 2 ? "enable" : "disable";
        s.plain[key(n, "_settings")] = n % 2 == 0 ? "manual" : "automatic";
        s.plain[key(n, "_name")] = "name " + std::to_string(n);
        s.plain[key(n, "_unit")] = "unit " + std::to_string(n);
        s.plain[key(n, "_scale_factor")] = std::to_string(n) + ".5";
        s.plain[key(n, "_nodeid")] = "ns=2;i=" + std::to_string(100 + n);
    }
    return s;
}

// The keys in the order in which the record must read them.
std::vector<std::string> expected_reads() {
    std::vector<std::string> reads{
        "host",
        "logging",
        "timeout",
        "get_secure brenholtcloudapikey",
        "ipversion",
        "interval",
        "credentials.connection_opcua.port",
        "credentials.connection_opcua.server_name",
        "credentials.connection_security.security_mode",
        "credentials.connection_security.security_policy",
        "credentials.connection_security.client_certificate",
        "credentials.connection_security.client_key",
        "get_secure credentials.connection_security.client_key_password",
        "credentials.user_authentication.user_auth_mode",
        "credentials.user_authentication.user",
        "get_secure credentials.user_authentication.password",
        message_key,
    };
    for (int n = 1; n <= 10; ++n) {
        if (n != 1) reads.push_back(key(n, ""));
        for (const char* field : {"_settings", "_name", "_unit", "_scale_factor", "_nodeid"})
            reads.push_back(key(n, field));
    }
    return reads;
}

TEST(custom_sensor_record, reads_common_parts_then_message_then_channels_in_order) {
    fake_source source = custom_source();
    const st::custom_sensor record(source);
    const std::vector<std::string> reads = expected_reads();
    ASSERT_EQ(16u + 1u + 9u * 6u + 5u, reads.size());
    EXPECT_EQ(reads, source.reads);
    // Written out once, so that a composed key cannot hide a wrong spelling.
    const std::vector<std::string> channel10{
        "custom.connection_custom.channel10",           "custom.connection_custom.channel10_settings",
        "custom.connection_custom.channel10_name",      "custom.connection_custom.channel10_unit",
        "custom.connection_custom.channel10_scale_factor", "custom.connection_custom.channel10_nodeid"};
    EXPECT_EQ(channel10, std::vector<std::string>(source.reads.end() - 6, source.reads.end()));
    EXPECT_EQ("custom.connection_custom.channel1_settings", source.reads[17]);
}

TEST(custom_sensor_record, fields_land_in_their_channel) {
    const st::custom_sensor r(custom_source());
    EXPECT_EQ("ns=2;s=message", r.sensor_message_nodeid);
    EXPECT_EQ("plc.example", r.base.host);
    EXPECT_EQ(4841, r.connection_opcua.port);
    for (int n = 1; n <= 10; ++n) {
        SCOPED_TRACE("channel " + std::to_string(n));
        const st::custom_channel& c = r.channels.at(static_cast<std::size_t>(n - 1));
        EXPECT_EQ(n % 2 == 0 ? st::channel_settings::manual : st::channel_settings::automatic, c.naming);
        EXPECT_EQ("name " + std::to_string(n), c.name);
        EXPECT_EQ("unit " + std::to_string(n), c.unit);
        EXPECT_DOUBLE_EQ(n + 0.5, c.scale_factor);
        EXPECT_EQ("ns=2;i=" + std::to_string(100 + n), c.nodeid);
    }
}

// Channel 1 has no switch; 2 to 10 hold theirs, also when it says "disable".
TEST(custom_sensor_record, switch_of_channel_one_stays_empty) {
    const std::vector<std::optional<std::string>> channel1_values{std::nullopt, "disable", "enable", "garbage"};
    for (const auto& value : channel1_values) {
        SCOPED_TRACE("channel1 = " + value.value_or("<missing>"));
        fake_source source = custom_source();
        if (value) source.plain[key(1, "")] = *value;
        const st::custom_sensor r(source);
        EXPECT_FALSE(r.channels[0].enabled.has_value());
        ASSERT_TRUE(r.channels[1].enabled.has_value());
        EXPECT_EQ(st::channel::enable, *r.channels[1].enabled);
        for (std::size_t i = 2; i < 10; ++i) {
            ASSERT_TRUE(r.channels[i].enabled.has_value()) << i;
            EXPECT_EQ(st::channel::disable, *r.channels[i].enabled) << i;
        }
        for (const std::string& read : source.reads) EXPECT_NE(key(1, ""), read);
    }
}

TEST(custom_sensor_record, record_texts_match_the_others) {
    EXPECT_EQ(std::string("OPC UA Custom"), st::custom_sensor::title);
    EXPECT_EQ(std::string(st::server_status_sensor::version), st::custom_sensor::version);
    const st::custom_sensor r(custom_source());
    EXPECT_TRUE(::brenholt::monitoring_modules::libvurohelper::sensors::logging_enabled(r));
}

// Limits and values that pass; none depends on another field.
TEST(custom_sensor_record, accepted_values) {
    struct accepted_case {
        std::string key;
        std::string value;
        std::function<bool(const st::custom_sensor&)> holds;
    };
    const std::string name32(32, 'n');
    const std::vector<accepted_case> cases{
        {key(3, "_name"), name32, [&](const st::custom_sensor& r) { return r.channels[2].name == name32; }},
        {key(9, "_unit"), name32, [&](const st::custom_sensor& r) { return r.channels[8].unit == name32; }},
        // A manual name may be empty here; the definition makes it required.
        {key(2, "_name"), "", [](const st::custom_sensor& r) { return r.channels[1].name.empty(); }},
        {key(1, "_nodeid"), "", [](const st::custom_sensor& r) { return r.channels[0].nodeid.empty(); }},
        {message_key, "", [](const st::custom_sensor& r) { return r.sensor_message_nodeid.empty(); }},
        {key(4, "_scale_factor"), "0.001",
         [](const st::custom_sensor& r) { return r.channels[3].scale_factor == 0.001; }},
        {key(4, "_scale_factor"), "-2", [](const st::custom_sensor& r) { return r.channels[3].scale_factor == -2.0; }},
        {key(10, ""), "enable",
         [](const st::custom_sensor& r) { return r.channels[9].enabled == st::channel::enable; }},
        {key(5, "_settings"), "manual",
         [](const st::custom_sensor& r) { return r.channels[4].naming == st::channel_settings::manual; }},
        // Array syntax is for the sensor to parse; the record keeps the text as sent.
        {key(6, "_nodeid"), "'ns=2;s=arr'[4]",
         [](const st::custom_sensor& r) { return r.channels[5].nodeid == "'ns=2;s=arr'[4]"; }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key + " = " + c.value);
        fake_source source = custom_source();
        source.set(c.key, c.value);
        EXPECT_TRUE(c.holds(st::custom_sensor(source)));
    }
}

enum class raised { selection, not_available, too_long, invalid, less_min, bad_optional };

bool has_class(const std::exception& e, raised kind) {
    switch (kind) {
        case raised::selection: return dynamic_cast<const vex::setting_selection_parse_error*>(&e) != nullptr;
        case raised::not_available: return dynamic_cast<const vex::setting_not_available*>(&e) != nullptr;
        case raised::too_long: return dynamic_cast<const vex::string_too_long*>(&e) != nullptr;
        case raised::invalid: return dynamic_cast<const vex::setting_invalid*>(&e) != nullptr;
        case raised::less_min: return dynamic_cast<const vex::setting_invalid_less_min*>(&e) != nullptr;
        case raised::bad_optional: return dynamic_cast<const std::bad_optional_access*>(&e) != nullptr;
    }
    return false;
}

std::string selection_text(const std::string& value, const std::string& type) {
    return "Value \"" + value + "\" could not be parsed into selection type \"" + type + "\".";
}

std::string missing_text(const std::string& k) { return "The setting \"" + k + "\" was not available."; }

const std::string too_long_33 = "Setting's value with length 33 is longer than the maximum allowed length of 32.";

// Channels 3 to 10 are switched off in custom_source(): their values fail the record all the same.
TEST(custom_sensor_record, bad_values_fail_with_their_text) {
    struct failure_case {
        std::string key;
        std::optional<std::string> value;  // nullopt: the key is missing
        raised kind;
        std::string text;
    };
    const std::vector<failure_case> cases{
        {key(3, ""), "enabled", raised::selection, selection_text("enabled", "channel")},
        {key(2, ""), "Enable", raised::selection, selection_text("Enable", "channel")},
        {key(10, ""), "", raised::selection, selection_text("", "channel")},
        {key(1, "_settings"), "Manual", raised::selection, selection_text("Manual", "channel_settings")},
        {key(7, "_settings"), "", raised::selection, selection_text("", "channel_settings")},
        {key(5, "_name"), std::string(33, 'n'), raised::too_long, too_long_33},
        {key(1, "_unit"), std::string(33, 'u'), raised::too_long, too_long_33},
        {key(6, "_scale_factor"), "", raised::bad_optional, "bad optional access"},
        {key(6, "_scale_factor"), "1,5", raised::invalid, "Setting value 1,5 is invalid. The value is not a number."},
        {key(8, "_scale_factor"), "1e999", raised::invalid,
         "Setting value 1e999 is invalid. The value is out of the range of a floating-point number."},
        {key(2, ""), std::nullopt, raised::not_available, missing_text(key(2, ""))},
        {key(10, "_nodeid"), std::nullopt, raised::not_available, missing_text(key(10, "_nodeid"))},
        {key(4, "_unit"), std::nullopt, raised::not_available, missing_text(key(4, "_unit"))},
        {message_key, std::nullopt, raised::not_available, missing_text(message_key)},
        // The record checks its common parts as every other record does.
        {"credentials.connection_opcua.port", "0", raised::less_min, "Setting value 0 is less than the minimum of 1."},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key + " = " + c.value.value_or("<missing>"));
        fake_source source = custom_source();
        if (c.value)
            source.set(c.key, *c.value);
        else
            source.erase(c.key);
        try {
            st::custom_sensor record(source);
            ADD_FAILURE() << "record was created";
        } catch (const std::exception& e) {
            EXPECT_TRUE(has_class(e, c.kind)) << typeid(e).name();
            EXPECT_EQ(c.text, e.what());
        }
    }
}

}  // namespace
