// Drives the built libOPCUA.so through dlopen, exactly as the probe does.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "probe_host.h"
#include "vuro.pb.h"

namespace fs = std::filesystem;
using miniprobe::probe_host;

namespace {

class ModuleBoundary : public ::testing::Test {
protected:
    void SetUp() override {
        log_dir_ = fs::temp_directory_path() /
                   ("opcua-boundary-" + std::to_string(::getpid()) + "-" +
                    ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(log_dir_);
        fs::create_directories(log_dir_);
        setenv("VURO_LOG_DIR", log_dir_.c_str(), 1);
        host_ = std::make_unique<probe_host>(OPCUA_MODULE_PATH);
    }
    void TearDown() override {
        host_->cleanup();
        host_.reset();
        unsetenv("VURO_LOG_DIR");
        fs::remove_all(log_dir_);
    }

    std::vector<std::string> runtime_log() const {
        std::vector<std::string> lines;
        std::ifstream in(log_dir_ / "runtime.log");
        for (std::string line; std::getline(in, line);) lines.push_back(line);
        return lines;
    }

    static std::string sensor_data(const std::string& kind) {
        brenholt::vuro::wire::SensorData data;
        data.set_kind(kind);
        return miniprobe::encode_sensor_data(data);
    }

    fs::path log_dir_;
    std::unique_ptr<probe_host> host_;
};

// The text after "<date> <time> <SEVERITY> ".
std::string text_of(const std::string& line, std::string* severity = nullptr) {
    std::istringstream in(line);
    std::string date, time, sev;
    in >> date >> time >> sev;
    if (severity) *severity = sev;
    std::string rest;
    std::getline(in, rest);
    return rest.empty() ? rest : rest.substr(1);
}

TEST_F(ModuleBoundary, EveryFunctionAnswersNotInitialisedBeforeInitAndAfterCleanup) {
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE(round == 0 ? "before InitializeModule" : "after CleanupModule");
        const std::string data = sensor_data("custom_sensor");
        const auto size = static_cast<unsigned int>(data.size());
        EXPECT_EQ(host_->get_api_level(), 6);
        EXPECT_EQ(host_->create_sensor_raw(1, data.data(), size), 3);
        EXPECT_EQ(host_->scan(1), 3);
        EXPECT_EQ(host_->destroy(1), 3);
        EXPECT_EQ(host_->meta_scan(1, 0, brenholt::vuro::wire::SensorData()), 3);
        EXPECT_EQ(host_->check(1, brenholt::vuro::wire::SensorData()), 3);
        unsigned int n = 0;
        EXPECT_EQ(host_->get_module_information_sync_raw(nullptr, &n, true), 2);
        EXPECT_EQ(host_->get_module_information_sync_raw(nullptr, nullptr, true), 1);
        host_->get_module_information(true);
        EXPECT_TRUE(host_->take_messages().empty());
        if (round == 0) {
            ASSERT_EQ(host_->initialize(), 0);
            EXPECT_EQ(host_->get_api_level(), 6);
            EXPECT_EQ(host_->cleanup(), 0);
            EXPECT_EQ(host_->cleanup(), 0);
        }
    }
}

TEST_F(ModuleBoundary, SecondInitializeIsRefusedAndKeepsTheFirstCallback) {
    ASSERT_EQ(host_->initialize(), 0);
    probe_host other(OPCUA_MODULE_PATH);  // same library, another handle and callback
    EXPECT_EQ(other.initialize(), 1);
    host_->get_module_information(false);
    EXPECT_EQ(host_->take_messages().size(), 1u);
    EXPECT_TRUE(other.take_messages().empty());
    std::string severity;
    const auto lines = runtime_log();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(text_of(lines.front(), &severity), "InitializeModule called on already initialized module.");
    EXPECT_EQ(severity, "DEBUG");
}

TEST_F(ModuleBoundary, ModuleInformationTravelsOnceThroughTheCallbackWithTraceLines) {
    ASSERT_EQ(host_->initialize(), 0);
    host_->get_module_information(true);
    const auto messages = host_->take_messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].type, "MODULE_INFORMATION");
    EXPECT_TRUE(messages[0].body.at("include_texts").get<bool>());
    const auto doc = nlohmann::ordered_json::parse(messages[0].body.at("definition").get<std::string>());
    EXPECT_EQ(doc.at("Revision"), 68);
    EXPECT_TRUE(doc.contains("Text"));

    const auto lines = runtime_log();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(text_of(lines[0]), "### Begin get_module_information ###");
    EXPECT_EQ(text_of(lines[1]), "Do loadLanguages: Yes");
    EXPECT_EQ(text_of(lines[2]), "### End   get_module_information ###");

    host_->get_module_information(false);
    const auto without = host_->take_messages();
    ASSERT_EQ(without.size(), 1u);
    const auto short_doc = nlohmann::ordered_json::parse(without[0].body.at("definition").get<std::string>());
    EXPECT_FALSE(short_doc.contains("Text"));
    EXPECT_EQ(short_doc.begin().key(), "Revision");
    EXPECT_EQ(text_of(runtime_log()[4]), "Do loadLanguages: No");
}

TEST_F(ModuleBoundary, SyncInformationFollowsTheSizeProtocol) {
    ASSERT_EQ(host_->initialize(), 0);
    for (bool texts : {true, false}) {
        SCOPED_TRACE(texts ? "with texts" : "without texts");
        unsigned int needed = 0;
        ASSERT_EQ(host_->get_module_information_sync_raw(nullptr, &needed, texts), 0);
        ASSERT_GT(needed, 0u);

        std::vector<std::uint8_t> small(needed - 1, 0xAB);
        unsigned int capacity = needed - 1;
        EXPECT_EQ(host_->get_module_information_sync_raw(small.data(), &capacity, texts), 1);
        EXPECT_EQ(capacity, needed);
        EXPECT_EQ(std::count(small.begin(), small.end(), 0xAB), static_cast<long>(small.size()));

        std::vector<std::uint8_t> exact(needed);
        capacity = needed;
        ASSERT_EQ(host_->get_module_information_sync_raw(exact.data(), &capacity, texts), 0);
        EXPECT_EQ(capacity, needed);
        const auto decoded = miniprobe::decode_message(exact.data(), exact.size());
        EXPECT_EQ(decoded.type, "MODULE_INFORMATION");
        EXPECT_EQ(decoded.body.at("include_texts").get<bool>(), texts);

        std::vector<std::uint8_t> large(needed + 100, 0);
        capacity = needed + 100;
        ASSERT_EQ(host_->get_module_information_sync_raw(large.data(), &capacity, texts), 0);
        EXPECT_EQ(capacity, needed);
        EXPECT_TRUE(std::equal(exact.begin(), exact.end(), large.begin()));
    }
    // The synchronous road sends nothing through the callback.
    EXPECT_TRUE(host_->take_messages().empty());
}

TEST_F(ModuleBoundary, DispatcherCodesPassThroughUnchanged) {
    ASSERT_EQ(host_->initialize(), 0);
    const std::string unknown = sensor_data("no_such_sensor");
    const auto size = static_cast<unsigned int>(unknown.size());
    EXPECT_EQ(host_->create_sensor_raw(7, unknown.data(), size), 4);
    EXPECT_EQ(host_->scan(7), 5);
    EXPECT_EQ(host_->destroy(7), 5);
    brenholt::vuro::wire::SensorData data;
    data.set_kind("custom_sensor");
    EXPECT_EQ(host_->meta_scan(7, 1, data), 4);  // no meta scan is bound
    data.set_kind("no_such_check");
    EXPECT_EQ(host_->check(7, data), 4);
    data.set_kind("");
    EXPECT_EQ(host_->check(7, data), 1);
}

TEST_F(ModuleBoundary, UndecodableSensorDataFailsTheCallWithoutTheEndBanner) {
    ASSERT_EQ(host_->initialize(), 0);
    const std::string garbage = "\xff\xff\xff\xff not protobuf";
    EXPECT_EQ(host_->create_sensor_raw(1, garbage.data(), static_cast<unsigned int>(garbage.size())), 2);
    EXPECT_EQ(host_->create_sensor_raw(1, nullptr, 5), 2);
    const auto lines = runtime_log();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(text_of(lines.back()), "### Begin create_sensor_instance ###");
}

TEST_F(ModuleBoundary, InitializeAndCleanupRepeatWithNewHandles) {
    for (int i = 0; i < 5; ++i) {
        probe_host fresh(OPCUA_MODULE_PATH);
        ASSERT_EQ(fresh.initialize(), 0) << "round " << i;
        fresh.get_module_information(false);
        EXPECT_EQ(fresh.take_messages().size(), 1u);
        EXPECT_EQ(fresh.cleanup(), 0);
        EXPECT_EQ(fresh.scan(1), 3);
    }
}

}  // namespace
