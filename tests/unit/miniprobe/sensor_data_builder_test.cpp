// miniprobe builds sensor data as the probe does, from the module's own definition.
#include <gtest/gtest.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "module/definition/module_definition_text.h"
#include "probe_host.h"
#include "sensor_data_builder.h"

namespace {

using miniprobe::build_request;
using miniprobe::build_sensor_data;

const nlohmann::ordered_json& definition() {
    static const auto doc =
        nlohmann::ordered_json::parse(brenholt::monitoring_modules::opcua::module_definition_text());
    return doc;
}

TEST(SensorDataBuilder, CheckGetsTheCredentialDefaultsAndTheProbeValues) {
    build_request r;
    r.name = "connection_check";
    r.is_check = true;
    const auto d = build_sensor_data(definition(), r);
    EXPECT_EQ(d.kind(), "connection_check");
    const auto& s = d.settings();
    EXPECT_EQ(s.at("credentials.connection_opcua.port"), "4840");
    EXPECT_EQ(s.at("credentials.connection_security.security_mode"), "none");
    EXPECT_EQ(s.at("credentials.user_authentication.user_auth_mode"), "anonymous");
    EXPECT_EQ(s.at("host"), "127.0.0.1");
    EXPECT_EQ(s.at("logging"), "disabled");
    EXPECT_EQ(s.at("ipversion"), "IPv4");
    // Secrets travel only as secure values.
    for (const char* key : {"credentials.user_authentication.password",
                            "credentials.connection_security.client_key_password", "brenholtcloudapikey"}) {
        EXPECT_EQ(d.secure_settings().count(key), 1u) << key;
        EXPECT_EQ(s.count(key), 0u) << key;
    }
    EXPECT_EQ(s.count("custom.sensor_message_custom.nodeid"), 0u) << "checks read the credentials only";
    EXPECT_EQ(s.size(), 8u + 5u);  // eight plain credential settings, five probe values
}

TEST(SensorDataBuilder, CustomSensorGetsBothSectionsAndEveryChannel) {
    build_request r;
    r.name = "custom_sensor";
    const auto d = build_sensor_data(definition(), r);
    const auto& s = d.settings();
    EXPECT_EQ(s.at("custom.connection_custom.channel1_settings"), "automatic");
    EXPECT_EQ(s.at("custom.connection_custom.channel1_scale_factor"), "1");
    EXPECT_EQ(s.count("custom.connection_custom.channel1"), 0u) << "channel 1 has no switch";
    for (int n = 2; n <= 10; ++n)
        EXPECT_EQ(s.at("custom.connection_custom.channel" + std::to_string(n)), "disable") << n;
    EXPECT_EQ(s.count("custom.sensor_message_custom.nodeid"), 1u);
}

TEST(SensorDataBuilder, OverridesGoWhereTheirKeyBelongs) {
    build_request r;
    r.name = "server_status_sensor";
    r.base.host = "plc.local";
    r.base.logging = true;
    r.overrides = {{"credentials.connection_opcua.port", "4841"},
                   {"credentials.user_authentication.password", "s3cret"},
                   {"timeout", "30"}};
    r.known_channels = {{0, "Server Status"}, {1, "Uptime"}};
    const auto d = build_sensor_data(definition(), r);
    EXPECT_EQ(d.settings().at("credentials.connection_opcua.port"), "4841");
    EXPECT_EQ(d.secure_settings().at("credentials.user_authentication.password"), "s3cret");
    EXPECT_EQ(d.settings().count("credentials.user_authentication.password"), 0u);
    EXPECT_EQ(d.settings().at("timeout"), "30");
    EXPECT_EQ(d.settings().at("host"), "plc.local");
    EXPECT_EQ(d.settings().at("logging"), "enabled");
    EXPECT_EQ(d.channels().at(1), "Uptime");
}

TEST(SensorDataBuilder, RefusesWhatTheProbeWouldNotSend) {
    const struct {
        const char* name;
        bool is_check;
        const char* override_key;
    } cases[] = {
        {"no_such_sensor", false, nullptr},
        {"connection_check", false, nullptr},   // a check is no sensor
        {"custom_sensor", true, nullptr},       // and a sensor no check
        {"custom_sensor", false, "credentials.connection_opcua.prot"},
        {"connection_check", true, "custom.sensor_message_custom.nodeid"},
    };
    for (const auto& c : cases) {
        build_request r;
        r.name = c.name;
        r.is_check = c.is_check;
        if (c.override_key) r.overrides = {{c.override_key, "x"}};
        EXPECT_THROW(build_sensor_data(definition(), r), std::invalid_argument) << c.name;
    }
}

TEST(SensorDataBuilder, ParsesAssignmentsAndChannelLists) {
    EXPECT_EQ(miniprobe::split_assignment("a.b=c=d"), std::make_pair(std::string("a.b"), std::string("c=d")));
    EXPECT_EQ(miniprobe::split_assignment("k="), std::make_pair(std::string("k"), std::string()));
    EXPECT_THROW(miniprobe::split_assignment("novalue"), std::invalid_argument);
    EXPECT_THROW(miniprobe::split_assignment("=v"), std::invalid_argument);
    const auto channels = miniprobe::parse_channels("1=Temp,4=Speed");
    ASSERT_EQ(channels.size(), 2u);
    EXPECT_EQ(channels.at(4), "Speed");
    EXPECT_THROW(miniprobe::parse_channels("x=Temp"), std::invalid_argument);
    EXPECT_THROW(miniprobe::parse_channels("1=A,,"), std::invalid_argument);
}

TEST(SensorDataBuilder, SecureValuesNeverReachTheRuntimeLogInClear) {
    namespace fs = std::filesystem;
    const fs::path dir = fs::temp_directory_path() / ("opcua-builder-" + std::to_string(::getpid()));
    fs::create_directories(dir);
    setenv("VURO_LOG_DIR", dir.c_str(), 1);
    {
        miniprobe::probe_host host(OPCUA_MODULE_PATH);
        ASSERT_EQ(host.initialize(), 0);
        build_request r;
        r.name = "custom_sensor";
        r.overrides = {{"credentials.user_authentication.password", "pa55-word-in-clear"},
                       {"credentials.connection_security.client_key_password", "key-pa55-in-clear"}};
        host.create_sensor(1, build_sensor_data(definition(), r));
        host.check(2, build_sensor_data(definition(), [] {
                       build_request c;
                       c.name = "connection_check";
                       c.is_check = true;
                       c.base.host = "127.0.0.1";
                       c.overrides = {{"credentials.connection_opcua.port", "1"},
                                      {"credentials.user_authentication.password", "pa55-word-in-clear"}};
                       return c;
                   }()));
        host.cleanup();
    }
    unsetenv("VURO_LOG_DIR");
    std::ifstream in(dir / "runtime.log");
    std::stringstream all;
    all << in.rdbuf();
    const std::string log = all.str();
    fs::remove_all(dir);
    EXPECT_NE(log.find("\"credentials.user_authentication.password\":\"********\""), std::string::npos);
    EXPECT_EQ(log.find("pa55-word-in-clear"), std::string::npos);
    EXPECT_EQ(log.find("key-pa55-in-clear"), std::string::npos);
}

}  // namespace
