#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "fake_source.h"
#include "module/framework/sensor_base.h"
#include "settings/base_settings.h"
#include "settings/notification_settings.h"
#include "settings/records.h"

namespace {

namespace st = ::brenholt::monitoring_modules::opcua::settings;
namespace vex = ::brenholt::monitoring_modules::libvurohelper::utils::exceptions;
using opcua_settings_test::fake_source;
using opcua_settings_test::notification_source;
using opcua_settings_test::sensor_source;

// Which class a failure must have; the frame reports them differently.
enum class raised { selection, not_available, less_min, bigger_max, invalid, bad_optional };

bool has_class(const std::exception& e, raised kind) {
    switch (kind) {
        case raised::selection: return dynamic_cast<const vex::setting_selection_parse_error*>(&e) != nullptr;
        case raised::not_available: return dynamic_cast<const vex::setting_not_available*>(&e) != nullptr;
        case raised::less_min: return dynamic_cast<const vex::setting_invalid_less_min*>(&e) != nullptr;
        case raised::bigger_max: return dynamic_cast<const vex::setting_invalid_bigger_max*>(&e) != nullptr;
        case raised::invalid: return dynamic_cast<const vex::setting_invalid*>(&e) != nullptr;
        case raised::bad_optional: return dynamic_cast<const std::bad_optional_access*>(&e) != nullptr;
    }
    return false;
}

struct failure_case {
    std::string key;
    std::optional<std::string> value;  // nullopt: the key is missing
    raised kind;
    std::string text;
};

template <typename Record>
void expect_failure(fake_source source, const failure_case& c, const std::function<Record(const fake_source&)>& make) {
    SCOPED_TRACE(c.key + " = " + c.value.value_or("<missing>"));
    if (c.value)
        source.set(c.key, *c.value);
    else
        source.erase(c.key);
    try {
        make(source);
        ADD_FAILURE() << "record was created";
    } catch (const std::exception& e) {
        EXPECT_TRUE(has_class(e, c.kind)) << typeid(e).name();
        EXPECT_EQ(c.text, e.what());
    }
}

std::string selection_text(const std::string& value, const std::string& type) {
    return "Value \"" + value + "\" could not be parsed into selection type \"" + type + "\".";
}

std::string missing_text(const std::string& key) { return "The setting \"" + key + "\" was not available."; }

const std::vector<std::string> sensor_reads{
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
};

TEST(sensor_record, reads_every_key_once_in_fixed_order) {
    fake_source source = sensor_source();
    // Settings that would make other fields irrelevant must not skip their reads.
    source.set("credentials.connection_security.security_mode", "none");
    source.set("credentials.user_authentication.user_auth_mode", "anonymous");
    const st::server_status_sensor record(source);
    EXPECT_EQ(sensor_reads, source.reads);
    EXPECT_EQ("CERT-PEM", record.connection_security.client_certificate);
    EXPECT_EQ("operator", record.user_authentication.user);
}

TEST(notification_record, reads_request_strings_then_groups_then_type) {
    fake_source source = notification_source();
    const st::opcua_notification r(source, "ns=2;s=flag", "42");
    const std::vector<std::string> expected{
        "credentials.connection_opcua.host",
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
        "write.variable.type",
    };
    EXPECT_EQ(expected, source.reads);
    EXPECT_EQ("ns=2;s=flag", r.target);
    EXPECT_EQ("42", r.message);
    EXPECT_EQ("writer.example", r.connection_opcua.host);
    EXPECT_EQ(st::type::integer64, r.type);
}

TEST(base_settings, interval_defaults_to_60_only_when_absent) {
    fake_source source = sensor_source();
    source.erase("interval");
    EXPECT_EQ(60, st::base_settings(source).interval);
    source.set("interval", "1");
    EXPECT_EQ(1, st::base_settings(source).interval);
}

// Only a missing key is forgiven: any other failure of the source leaves.
TEST(base_settings, interval_guard_swallows_nothing_else) {
    struct broken_interval : fake_source {
        const std::string& get(const std::string& key) const override {
            if (key == "interval") throw std::runtime_error("source broken");
            return fake_source::get(key);
        }
    };
    broken_interval source;
    static_cast<fake_source&>(source) = sensor_source();
    EXPECT_THROW(st::base_settings{source}, std::runtime_error);
}

TEST(base_settings, timeout_zero_is_accepted) {
    fake_source source = sensor_source();
    source.set("timeout", "0");
    EXPECT_EQ(0, st::base_settings(source).timeout);
}

std::function<st::server_status_sensor(const fake_source&)> make_sensor = [](const fake_source& s) {
    return st::server_status_sensor(s);
};

TEST(sensor_record, bad_values_fail_with_their_text) {
    const std::vector<failure_case> cases{
        {"credentials.connection_opcua.port", "0", raised::less_min, "Setting value 0 is less than the minimum of 1."},
        {"credentials.connection_opcua.port", "65536", raised::bigger_max,
         "Setting value 65536 is bigger than the maximum of 65535."},
        {"credentials.connection_opcua.port", "48a", raised::invalid,
         "Setting value 48a is invalid. The value is not an integer."},
        {"credentials.connection_opcua.port", "", raised::bad_optional, "bad optional access"},
        {"credentials.connection_security.security_mode", "Sign", raised::selection,
         selection_text("Sign", "security_mode")},
        {"credentials.connection_security.security_mode", "", raised::selection, selection_text("", "security_mode")},
        {"credentials.connection_security.security_mode", "sign ", raised::selection,
         selection_text("sign ", "security_mode")},
        {"credentials.connection_security.security_policy", "basic256sha256", raised::selection,
         selection_text("basic256sha256", "security_policy")},
        {"credentials.user_authentication.user_auth_mode", "Anonymous", raised::selection,
         selection_text("Anonymous", "user_auth_mode")},
        {"logging", "Enabled", raised::selection, selection_text("Enabled", "logging")},
        {"logging", "1", raised::selection, selection_text("1", "logging")},
        {"ipversion", "2", raised::selection, selection_text("2", "ipversion")},
        {"ipversion", "ipv4", raised::selection, selection_text("ipv4", "ipversion")},
        {"ipversion", "IPv", raised::selection, selection_text("IPv", "ipversion")},
        {"ipversion", "00", raised::selection, selection_text("00", "ipversion")},
        {"ipversion", "", raised::selection, selection_text("", "ipversion")},
        {"timeout", "-1", raised::less_min, "Setting value -1 is less than the minimum of 0."},
        {"timeout", "", raised::bad_optional, "bad optional access"},
        {"interval", "0", raised::less_min, "Setting value 0 is less than the minimum of 1."},
        {"interval", "x", raised::invalid, "Setting value x is invalid. The value is not an integer."},
        {"interval", "", raised::bad_optional, "bad optional access"},
    };
    for (const auto& c : cases) expect_failure(sensor_source(), c, make_sensor);
}

// Every key but interval is required, also those that the other settings make unused.
TEST(sensor_record, each_missing_key_fails) {
    for (std::string key : sensor_reads) {
        if (key == "interval") continue;
        if (key.rfind("get_secure ", 0) == 0) key = key.substr(11);
        fake_source source = sensor_source();
        source.set("credentials.connection_security.security_mode", "none");
        source.set("credentials.user_authentication.user_auth_mode", "anonymous");
        expect_failure(source, {key, std::nullopt, raised::not_available, missing_text(key)}, make_sensor);
    }
}

TEST(notification_record, bad_values_fail_with_their_text) {
    std::function<st::opcua_notification(const fake_source&)> make = [](const fake_source& s) {
        return st::opcua_notification(s, "ns=1;i=5", "1");
    };
    const std::vector<failure_case> cases{
        {"write.variable.type", "boolean", raised::selection, selection_text("boolean", "type")},
        {"write.variable.type", "Integer", raised::selection, selection_text("Integer", "type")},
        {"write.variable.type", std::nullopt, raised::not_available, missing_text("write.variable.type")},
        {"credentials.connection_opcua.host", std::nullopt, raised::not_available,
         missing_text("credentials.connection_opcua.host")},
        {"credentials.connection_opcua.port", "70000", raised::bigger_max,
         "Setting value 70000 is bigger than the maximum of 65535."},
    };
    for (const auto& c : cases) expect_failure(notification_source(), c, make);
}

struct accepted_case {
    std::string key;
    std::string value;
    std::function<std::int64_t(const st::server_status_sensor&)> field;
    std::int64_t expected;
};

TEST(sensor_record, accepted_values_and_their_numbers) {
    auto mode = [](const st::server_status_sensor& r) {
        return static_cast<std::int64_t>(r.connection_security.security_mode);
    };
    auto policy = [](const st::server_status_sensor& r) {
        return static_cast<std::int64_t>(r.connection_security.security_policy);
    };
    auto auth = [](const st::server_status_sensor& r) {
        return static_cast<std::int64_t>(r.user_authentication.user_auth_mode);
    };
    auto ip = [](const st::server_status_sensor& r) { return static_cast<std::int64_t>(r.base.ipversion); };
    auto log = [](const st::server_status_sensor& r) { return static_cast<std::int64_t>(r.base.logging); };
    auto port = [](const st::server_status_sensor& r) { return r.connection_opcua.port; };
    const std::vector<accepted_case> cases{
        {"credentials.connection_security.security_mode", "none", mode, 0},
        {"credentials.connection_security.security_mode", "sign", mode, 1},
        {"credentials.connection_security.security_mode", "sign_encrypt", mode, 2},
        {"credentials.connection_security.security_policy", "none", policy, 0},
        {"credentials.connection_security.security_policy", "Basic256Sha256", policy, 1},
        {"credentials.user_authentication.user_auth_mode", "anonymous", auth, 0},
        {"credentials.user_authentication.user_auth_mode", "username_password", auth, 1},
        {"ipversion", "IPv4", ip, 0},
        {"ipversion", "0", ip, 0},
        {"ipversion", "IPv6", ip, 1},
        {"ipversion", "1", ip, 1},
        {"logging", "disabled", log, 0},
        {"logging", "enabled", log, 1},
        {"credentials.connection_opcua.port", "1", port, 1},
        {"credentials.connection_opcua.port", "65535", port, 65535},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.key + " = " + c.value);
        fake_source source = sensor_source();
        source.set(c.key, c.value);
        EXPECT_EQ(c.expected, c.field(st::server_status_sensor(source)));
    }
}

TEST(notification_record, type_numbers_follow_the_list) {
    const std::vector<std::pair<std::string, st::type>> cases{{"Boolean", st::type::boolean},
                                                               {"String", st::type::string},
                                                               {"Integer64", st::type::integer64},
                                                               {"FloatingPoint", st::type::floatingpoint}};
    for (const auto& [text, value] : cases) {
        fake_source source = notification_source();
        source.set("write.variable.type", text);
        EXPECT_EQ(value, st::opcua_notification(source, "t", "m").type) << text;
    }
}

TEST(selection, custom_sensor_selections_are_exact) {
    EXPECT_EQ(st::channel::enable, st::parse_selection<st::channel>("enable"));
    EXPECT_EQ(st::channel_settings::manual, st::parse_selection<st::channel_settings>("manual"));
    try {
        st::parse_selection<st::channel>("enabled");
        ADD_FAILURE() << "parsed";
    } catch (const vex::setting_selection_parse_error& e) {
        EXPECT_EQ(selection_text("enabled", "channel"), e.what());
    }
    EXPECT_THROW(st::parse_selection<st::channel_settings>("Automatic"), vex::setting_selection_parse_error);
}

// The dispatcher builds each record straight from the probe's data.
template <typename R>
class every_record : public ::testing::Test {};
using record_types = ::testing::Types<st::server_status_sensor, st::certificate_sensor,
                                      st::beckhoff_ipc_system_status_sensor, st::connection_check,
                                      st::endpoint_validation_check>;
TYPED_TEST_SUITE(every_record, record_types);

TYPED_TEST(every_record, parses_the_common_parts_and_fails_alike) {
    fake_source source = sensor_source();
    const TypeParam r(source);
    EXPECT_EQ(sensor_reads, source.reads);
    EXPECT_EQ(std::string("1.16.0.20981"), TypeParam::version);
    EXPECT_TRUE(::brenholt::monitoring_modules::libvurohelper::sensors::logging_enabled(r));
    EXPECT_EQ("api-key", r.base.brenholtcloudapikey.str());
    source.set("ipversion", "v6");
    EXPECT_THROW(TypeParam{source}, vex::setting_selection_parse_error);
}

}  // namespace
