// Drives the built libOPCUA.so through dlopen, exactly as the probe does: what the ten
// entry points answer around the sensors, which the end-to-end suites drive.
#include <gtest/gtest.h>

#include <algorithm>
#include <regex>

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

SensorData of_kind(const std::string& kind) { return test_support::credential_data(kind, 1); }

TEST(ModuleLifecycle, EveryFunctionAnswersNotInitialisedBeforeInitAndAfterCleanup) {
    for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(round);
        probe_host host(OPCUA_MODULE_PATH);  // each round with a new handle and callback
        const SensorData data = of_kind("custom_sensor");
        unsigned int n = 0;
        EXPECT_EQ((std::vector<int>{host.get_api_level(), host.create_sensor(1, data), host.scan(1), host.destroy(1),
                                    host.meta_scan(1, 0, data), host.check(1, data),
                                    host.get_module_information_sync_raw(nullptr, &n, true),
                                    host.get_module_information_sync_raw(nullptr, nullptr, true)}),
                  (std::vector<int>{6, 3, 3, 3, 3, 3, 2, 1}));
        host.get_module_information(true);
        EXPECT_TRUE(host.take_messages().empty());
        ASSERT_EQ(host.initialize(), 0);
        host.get_module_information(false);
        EXPECT_EQ(host.take_messages().size(), 1u);
        EXPECT_EQ(host.cleanup(), 0);
        EXPECT_EQ(host.cleanup(), 0);
    }
}

// A second Initialize is refused and keeps the first callback; the information travels
// once through the callback, or by the synchronous road of two calls.
TEST_F(ModuleBoundary, ModuleInformationOnBothRoadsAndASecondInitialize) {
    probe_host other(OPCUA_MODULE_PATH);
    EXPECT_EQ(other.initialize(), 1);
    for (bool with_texts : {true, false}) {
        SCOPED_TRACE(with_texts);
        host_->get_module_information(with_texts);
        const auto messages = host_->take_messages();
        ASSERT_EQ(messages.size(), 1u);
        unsigned int needed = 0;
        ASSERT_EQ(host_->get_module_information_sync_raw(nullptr, &needed, with_texts), 0);
        std::vector<std::uint8_t> small(needed - 1, 0xAB), large(needed + 100, 0);
        unsigned int capacity = needed - 1;
        EXPECT_EQ(host_->get_module_information_sync_raw(small.data(), &capacity, with_texts), 1);
        EXPECT_EQ(capacity, needed);
        EXPECT_EQ(std::count(small.begin(), small.end(), 0xAB), static_cast<long>(small.size())) << "left untouched";
        capacity = needed + 100;
        ASSERT_EQ(host_->get_module_information_sync_raw(large.data(), &capacity, with_texts), 0);
        EXPECT_EQ(capacity, needed);
        for (const auto& m : {messages[0], miniprobe::decode_message(large.data(), needed)}) {
            EXPECT_EQ(m.type, "MODULE_INFORMATION");
            EXPECT_EQ(m.body.at("include_texts").get<bool>(), with_texts);
            const auto doc = nlohmann::ordered_json::parse(m.body.at("definition").get<std::string>());
            EXPECT_EQ(doc.begin().key(), "Revision");
            EXPECT_EQ(doc.contains("Text"), with_texts);
        }
    }
    EXPECT_TRUE(host_->take_messages().empty() && other.take_messages().empty());
    EXPECT_EQ(texts(runtime_log()).front(), "InitializeModule called on already initialized module.");
}

TEST_F(ModuleBoundary, DispatcherCodesPassThroughUnchanged) {
    const std::string garbage = "\xff\xff\xff\xff not protobuf";
    // No meta scan is bound, so a custom sensor's is an unknown kind too.
    EXPECT_EQ((std::vector<int>{host_->create_sensor(7, of_kind("no_such_sensor")), host_->scan(7), host_->destroy(7),
                                host_->meta_scan(7, 1, of_kind("custom_sensor")), host_->check(7, of_kind("")),
                                host_->create_sensor_raw(1, garbage.data(), static_cast<unsigned int>(garbage.size())),
                                host_->create_sensor_raw(1, nullptr, 5)}),
              (std::vector<int>{4, 5, 5, 4, 1, 2, 2}));
    EXPECT_EQ(texts(runtime_log()).back(), "### Begin create_sensor_instance ###") << "no end banner after a failure";
}

// A sensor whose server cannot be reached: its scan's error result closes the scan in its
// log, and no secret of a sensor or a check reaches a log in clear.
TEST_F(ModuleBoundary, FailedScanEndsItsLogWithTheResultAndSecretsNeverReachTheLogs) {
    SensorData sensor = test_support::credential_data("server_status_sensor", 1);
    test_support::put(sensor, "logging", "enabled");
    test_support::put(sensor, "credentials.user_authentication.password", "pa55-word-in-clear");
    test_support::put(sensor, "credentials.connection_security.client_key_password", "key-pa55-in-clear");
    ASSERT_EQ(host_->create_sensor(1, sensor), 0);
    host_->take_messages();
    ASSERT_EQ(host_->scan(1), 0);
    const auto messages = host_->take_messages();
    ASSERT_EQ(messages.size(), 1u);
    ASSERT_EQ(host_->destroy(1), 0);
    const std::vector<std::string> lines = texts(sensor_log(1));
    ASSERT_GE(lines.size(), 4u);
    EXPECT_LT(std::find(lines.begin(), lines.end(), "#################### Enter sensor scan ####################"), lines.end() - 3);
    EXPECT_EQ(std::vector<std::string>(lines.end() - 3, lines.end()),
              (std::vector<std::string>{messages[0].body.at("message").at("text"),
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
