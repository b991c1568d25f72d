// Drives the built libOPCUA.so through dlopen, exactly as the probe does.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/module_session.h"

namespace {

using miniprobe::probe_host;
using brenholt::vuro::wire::SensorData;

class ModuleBoundary : public test_support::module_session {};

// The texts after "<date> <time> <SEVERITY> ".
std::vector<std::string> texts(std::vector<std::string> lines) {
    for (auto& line : lines) line = std::regex_replace(line, std::regex("^\\S+ \\S+ \\S+ "), "");
    return lines;
}

TEST(ModuleLifecycle, EveryFunctionAnswersNotInitialisedBeforeInitAndAfterCleanup) {
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        probe_host host(OPCUA_MODULE_PATH);  // each round with a new handle and callback
        SensorData data;
        data.set_kind("custom_sensor");
        EXPECT_EQ(host.get_api_level(), 6);
        EXPECT_EQ((std::vector<int>{host.create_sensor(1, data), host.scan(1), host.destroy(1), host.meta_scan(1, 0, data),
                                    host.check(1, data)}),
                  std::vector<int>(5, 3));
        unsigned int n = 0;
        EXPECT_EQ(host.get_module_information_sync_raw(nullptr, &n, true), 2);
        EXPECT_EQ(host.get_module_information_sync_raw(nullptr, nullptr, true), 1);
        host.get_module_information(true);
        EXPECT_TRUE(host.take_messages().empty());
        ASSERT_EQ(host.initialize(), 0);
        host.get_module_information(false);
        EXPECT_EQ(host.take_messages().size(), 1u);
        EXPECT_EQ(host.cleanup(), 0);
        EXPECT_EQ(host.cleanup(), 0);
    }
}

TEST_F(ModuleBoundary, SecondInitializeIsRefusedAndKeepsTheFirstCallback) {
    probe_host other(OPCUA_MODULE_PATH);
    EXPECT_EQ(other.initialize(), 1);
    host_->get_module_information(false);
    EXPECT_EQ(host_->take_messages().size(), 1u);
    EXPECT_TRUE(other.take_messages().empty());
    ASSERT_FALSE(runtime_log().empty());
    EXPECT_TRUE(std::regex_match(runtime_log().front(), std::regex(R"(\S+ \S+ DEBUG InitializeModule called on already initialized module\.)")))
        << runtime_log().front();
}

TEST_F(ModuleBoundary, ModuleInformationTravelsOnceThroughTheCallbackWithTraceLines) {
    for (bool texts : {true, false}) {
        host_->get_module_information(texts);
        const auto messages = host_->take_messages();
        ASSERT_EQ(messages.size(), 1u);
        EXPECT_EQ(messages[0].type, "MODULE_INFORMATION");
        EXPECT_EQ(messages[0].body.at("include_texts").get<bool>(), texts);
        const auto doc = nlohmann::ordered_json::parse(messages[0].body.at("definition").get<std::string>());
        EXPECT_EQ(doc.begin().key(), "Revision");
        EXPECT_EQ(doc.contains("Text"), texts);
    }
    EXPECT_EQ(texts(runtime_log()), (std::vector<std::string>{"### Begin get_module_information ###", "Do loadLanguages: Yes",
                                               "### End   get_module_information ###", "### Begin get_module_information ###",
                                               "Do loadLanguages: No", "### End   get_module_information ###"}));
}

TEST_F(ModuleBoundary, SyncInformationFollowsTheSizeProtocol) {
    for (bool texts : {true, false}) {
        SCOPED_TRACE(texts);
        unsigned int needed = 0;
        ASSERT_EQ(host_->get_module_information_sync_raw(nullptr, &needed, texts), 0);
        ASSERT_GT(needed, 0u);
        std::vector<std::uint8_t> small(needed - 1, 0xAB);
        unsigned int capacity = needed - 1;
        EXPECT_EQ(host_->get_module_information_sync_raw(small.data(), &capacity, texts), 1);
        EXPECT_EQ(capacity, needed);
        EXPECT_EQ(std::count(small.begin(), small.end(), 0xAB), static_cast<long>(small.size())) << "left untouched";
        std::vector<std::uint8_t> large(needed + 100, 0);
        capacity = needed + 100;
        ASSERT_EQ(host_->get_module_information_sync_raw(large.data(), &capacity, texts), 0);
        EXPECT_EQ(capacity, needed);
        const auto decoded = miniprobe::decode_message(large.data(), needed);
        EXPECT_EQ(decoded.type, "MODULE_INFORMATION");
        EXPECT_EQ(decoded.body.at("include_texts").get<bool>(), texts);
    }
    EXPECT_TRUE(host_->take_messages().empty()) << "the synchronous road sends nothing through the callback";
}

TEST_F(ModuleBoundary, DispatcherCodesPassThroughUnchanged) {
    SensorData data;
    data.set_kind("no_such_sensor");
    SensorData custom = data, no_kind = data;
    custom.set_kind("custom_sensor");
    no_kind.set_kind("");
    const std::string garbage = "\xff\xff\xff\xff not protobuf";
    // No meta scan is bound, so a custom sensor's is an unknown kind too.
    EXPECT_EQ((std::vector<int>{host_->create_sensor(7, data), host_->scan(7), host_->destroy(7), host_->meta_scan(7, 1, custom),
                                host_->check(7, no_kind),
                                host_->create_sensor_raw(1, garbage.data(), static_cast<unsigned int>(garbage.size())),
                                host_->create_sensor_raw(1, nullptr, 5)}),
              (std::vector<int>{4, 5, 5, 4, 1, 2, 2}));
    EXPECT_EQ(texts(runtime_log()).back(), "### Begin create_sensor_instance ###") << "no end banner after a failure";
}

// A sensor whose server cannot be reached: created without touching the server, its
// scan fails into an error result framed by the banners of its log.
TEST_F(ModuleBoundary, FailedScanGivesAnErrorResultAndSecretsNeverReachTheLogs) {
    SensorData sensor = test_support::credential_data("server_status_sensor", 1);
    test_support::put(sensor, "logging", "enabled");
    test_support::put(sensor, "credentials.user_authentication.password", "pa55-word-in-clear");
    test_support::put(sensor, "credentials.connection_security.client_key_password", "key-pa55-in-clear");
    ASSERT_EQ(host_->create_sensor(1, sensor), 0);
    host_->take_messages();
    ASSERT_EQ(host_->scan(1), 0);
    const auto messages = host_->take_messages();
    ASSERT_EQ(messages.size(), 1u);
    const auto& result = messages[0].body;
    EXPECT_EQ(result.at("response_code"), 3);
    EXPECT_EQ(result.at("message").at("key"), "#:error.opcua_connection_failed[BadConnectionRejected]");
    EXPECT_TRUE(result.at("channels").empty());
    ASSERT_EQ(host_->destroy(1), 0);
    const std::vector<std::string> lines = texts(sensor_log(1));
    ASSERT_GE(lines.size(), 6u);
    // The version line alone ends in a line feed of its own.
    EXPECT_EQ(std::vector<std::string>(lines.begin(), lines.begin() + 3),
              (std::vector<std::string>{"#################### Initializing ####################",
                                        "OPC UA Server Status version is: 1.16.0.20981", ""}));
    const auto enter = std::find(lines.begin(), lines.end(), "#################### Enter sensor scan ####################");
    EXPECT_LT(enter, lines.end() - 3);
    EXPECT_EQ(std::vector<std::string>(lines.end() - 3, lines.end()),
              (std::vector<std::string>{result.at("message").at("text"),
                                        "#################### Exit sensor scan  ####################",
                                        "#################### Cleaning Up  ####################"}));

    SensorData check = test_support::credential_data("connection_check", 1);
    test_support::put(check, "credentials.user_authentication.password", "pa55-word-in-clear");
    host_->check(2, check);
    std::string all;
    for (const auto& lines : {runtime_log(), sensor_log(1)})
        for (const auto& line : lines) all += line + "\n";
    EXPECT_NE(all.find("\"credentials.user_authentication.password\":\"********\""), std::string::npos);
    EXPECT_EQ(all.find("pa55-word-in-clear"), std::string::npos);
    EXPECT_EQ(all.find("key-pa55-in-clear"), std::string::npos);
}

}  // namespace
