#include <gtest/gtest.h>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "fake_source.h"
#include "settings/base_settings.h"
#include "settings/custom_sensor_settings.h"
#include "settings/records.h"
#include "support/what_of.h"

namespace {

namespace st = ::brenholt::monitoring_modules::opcua::settings;
using namespace opcua_settings_test;
using test_support::what_of;

struct failure {
    std::string key;
    std::optional<std::string> value;  // nullopt: the key is missing
    std::string text;
};

// Each text belongs to one failure class, so the text also tells the class.
template <typename Make>
void expect_failures(const fake_source& base, const std::vector<failure>& cases, Make make) {
    for (const auto& c : cases) {
        fake_source source = base;
        c.value ? source.set(c.key, *c.value) : source.erase(c.key);
        EXPECT_EQ(c.text, what_of<std::exception>([&] { make(source); })) << c.key << " = " << c.value.value_or("<missing>");
    }
}

std::string selection(const std::string& value, const std::string& type) {
    return "Value \"" + value + "\" could not be parsed into selection type \"" + type + "\".";
}
std::string missing(const std::string& key) { return "The setting \"" + key + "\" was not available."; }

// Base settings in their reading order, then the three credential groups.
const std::vector<std::string> common_reads{
    "host", "logging", "timeout", "get_secure brenholtcloudapikey", "ipversion", "interval",
    "credentials.connection_opcua.port", "credentials.connection_opcua.server_name",
    "credentials.connection_security.security_mode", "credentials.connection_security.security_policy",
    "credentials.connection_security.client_certificate", "credentials.connection_security.client_key",
    "get_secure credentials.connection_security.client_key_password",
    "credentials.user_authentication.user_auth_mode", "credentials.user_authentication.user",
    "get_secure credentials.user_authentication.password"};

template <typename R>
class every_record : public ::testing::Test {};
using record_types = ::testing::Types<st::server_status_sensor, st::certificate_sensor,
                                      st::beckhoff_ipc_system_status_sensor, st::connection_check,
                                      st::endpoint_validation_check>;
TYPED_TEST_SUITE(every_record, record_types);

TYPED_TEST(every_record, reads_every_key_once_in_fixed_order) {
    const fake_source source = unsecured_source();
    const TypeParam r(source);
    EXPECT_EQ(common_reads, source.reads);
    EXPECT_EQ("CERT-PEM", r.connection_security.client_certificate);
    EXPECT_EQ("api-key", r.base.brenholtcloudapikey.str());
}

TEST(sensor_record, bad_or_missing_values_fail_with_their_text) {
    const std::string port = "credentials.connection_opcua.port";
    std::vector<failure> cases{
        {port, "0", "Setting value 0 is less than the minimum of 1."},
        {port, "65536", "Setting value 65536 is bigger than the maximum of 65535."},
        {port, "48a", "Setting value 48a is invalid. The value is not an integer."},
        {port, "", "bad optional access"},
        {"credentials.connection_security.security_mode", "Sign", selection("Sign", "security_mode")},
        {"credentials.connection_security.security_policy", "basic256sha256", selection("basic256sha256", "security_policy")},
        {"logging", "Enabled", selection("Enabled", "logging")},
        // Digit forms belong to ipversion alone.
        {"logging", "1", selection("1", "logging")},
        {"ipversion", "2", selection("2", "ipversion")},
        {"ipversion", "IPv", selection("IPv", "ipversion")},
        {"ipversion", "", selection("", "ipversion")},
        {"timeout", "-1", "Setting value -1 is less than the minimum of 0."},
        {"interval", "0", "Setting value 0 is less than the minimum of 1."}};
    // Every key but interval is required, also those that the other settings make unused.
    for (std::string key : common_reads) {
        if (key.rfind("get_secure ", 0) == 0) key = key.substr(11);
        if (key != "interval") cases.push_back({key, std::nullopt, missing(key)});
    }
    expect_failures(unsecured_source(), cases, [](const fake_source& s) { st::server_status_sensor{s}; });

    // Only a missing interval is forgiven: any other failure of the source leaves.
    struct broken_interval : fake_source {
        const std::string& get(const std::string& key) const override {
            if (key == "interval") throw std::runtime_error("source broken");
            return fake_source::get(key);
        }
    } broken;
    static_cast<fake_source&>(broken) = sensor_source();
    EXPECT_THROW(st::base_settings{broken}, std::runtime_error);
}

TEST(sensor_record, limits_and_digit_forms_are_accepted) {
    fake_source source = sensor_source();
    source.erase("interval");
    const struct {
        const char *port, *timeout, *ipversion;
        st::ipversion expected;
    } cases[] = {{"65535", "0", "1", st::ipversion::ipv6}, {"1", "20", "0", st::ipversion::ipv4}};
    for (const auto& [port, timeout, ipversion, expected] : cases) {
        source.set("credentials.connection_opcua.port", port);
        source.set("timeout", timeout);
        source.set("ipversion", ipversion);
        const st::server_status_sensor r(source);
        EXPECT_EQ(std::stoi(port), r.connection_opcua.port);
        EXPECT_EQ(std::stoi(timeout), r.base.timeout);
        EXPECT_EQ(expected, r.base.ipversion);
        EXPECT_EQ(60, r.base.interval) << "only a missing interval takes its default";
    }
}

const std::string message_key = "custom.sensor_message_custom.nodeid";
std::string key(int n, const std::string& field) { return "custom.connection_custom.channel" + std::to_string(n) + field; }

// Channel 2 switched on, 3 to 10 off but filled, so each channel's values can be told apart.
fake_source custom_source() {
    fake_source s = sensor_source();
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

TEST(custom_sensor_record, reads_common_parts_then_message_then_channels) {
    fake_source source = custom_source();
    source.plain[key(1, "")] = "garbage";  // channel 1 has no switch: never looked up
    const st::custom_sensor r(source);
    std::vector<std::string> expected = common_reads;
    expected.push_back(message_key);
    for (int n = 1; n <= 10; ++n) {
        if (n != 1) expected.push_back(key(n, ""));
        for (const char* field : {"_settings", "_name", "_unit", "_scale_factor", "_nodeid"}) expected.push_back(key(n, field));
    }
    EXPECT_EQ(expected, source.reads);
    // Written out, so that a composed key cannot hide a wrong spelling.
    EXPECT_EQ((std::vector<std::string>{"custom.connection_custom.channel10", "custom.connection_custom.channel10_settings",
                                        "custom.connection_custom.channel10_name", "custom.connection_custom.channel10_unit",
                                        "custom.connection_custom.channel10_scale_factor",
                                        "custom.connection_custom.channel10_nodeid"}),
              std::vector<std::string>(source.reads.end() - 6, source.reads.end()));

    EXPECT_EQ("ns=2;s=message", r.sensor_message_nodeid);
    EXPECT_FALSE(r.channels[0].enabled.has_value());
    for (int n = 1; n <= 10; ++n) {
        const st::custom_channel& c = r.channels.at(static_cast<std::size_t>(n - 1));
        EXPECT_EQ(n == 1 ? std::nullopt : std::optional(n == 2 ? st::channel::enable : st::channel::disable), c.enabled) << n;
        EXPECT_EQ(n % 2 == 0 ? st::channel_settings::manual : st::channel_settings::automatic, c.naming) << n;
        EXPECT_EQ("name " + std::to_string(n) + "|unit " + std::to_string(n) + "|ns=2;i=" + std::to_string(100 + n),
                  c.name + "|" + c.unit + "|" + c.nodeid);
        EXPECT_DOUBLE_EQ(n + 0.5, c.scale_factor) << n;
    }
}

TEST(custom_sensor_record, limits_hold_without_cross_field_checks) {
    const std::string n32(32, 'n');
    fake_source source = custom_source();
    source.set(key(3, "_name"), n32);
    // A length counts characters: 31 and a degree sign are 32, in 33 bytes.
    source.set(key(1, "_unit"), std::string(31, 'u') + "\u00b0");
    source.set(key(2, "_name"), "");  // channel 2 names manually: the definition refuses an empty name
    source.set(key(6, "_nodeid"), "'ns=2;s=a'[4]");  // array syntax is for the sensor to parse
    const st::custom_sensor r(source);
    EXPECT_EQ(r.channels[2].name, n32);
    EXPECT_EQ(r.channels[1].name, "");
    EXPECT_EQ(r.channels[5].nodeid, "'ns=2;s=a'[4]");
    // Channels 3 to 10 are switched off: their values fail the record all the same.
    const std::string too_long = "Setting's value with length 33 is longer than the maximum allowed length of 32.";
    expect_failures(custom_source(),
                    {{key(3, ""), "enabled", selection("enabled", "channel")},
                     {key(10, ""), "", selection("", "channel")},
                     {key(1, "_settings"), "Manual", selection("Manual", "channel_settings")},
                     {key(5, "_name"), std::string(33, 'n'), too_long},
                     {key(5, "_unit"), std::string(32, 'u') + "\u00b0", too_long},
                     {key(6, "_scale_factor"), "", "bad optional access"},
                     {key(6, "_scale_factor"), "1,5", "Setting value 1,5 is invalid. The value is not a number."},
                     {key(2, ""), std::nullopt, missing(key(2, ""))},
                     {message_key, std::nullopt, missing(message_key)}},
                    [](const fake_source& s) { st::custom_sensor{s}; });
}

}  // namespace
