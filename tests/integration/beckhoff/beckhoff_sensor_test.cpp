// The Beckhoff IPC sensor end to end: CreateSensorInstance and scans through the built
// module against opcua-sim's Beckhoff address space.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include "opcua_sim/beckhoff.h"
#include "opcua_sim/server.h"
#include "probe_host.h"
#include "support/module_session.h"
#include "vuro.pb.h"

namespace fs = std::filesystem;
using nlohmann::ordered_json;

namespace {

class BeckhoffSensor : public test_support::module_session {
protected:
    static void SetUpTestSuite() {
        opcua_sim::options o;
        o.certificate.generate.key_bits = 2048;
        o.address_spaces.push_back(opcua_sim::beckhoff_address_space());
        server_ = new opcua_sim::server(o);
        server_->start();
    }
    static void TearDownTestSuite() {
        delete server_;
        server_ = nullptr;
    }

    void SetUp() override {
        module_session::SetUp();
        // Values set by an earlier test survive on the shared server.
        opcua_sim::set_beckhoff_status(*server_, {});
    }

    static brenholt::vuro::wire::SensorData data(std::uint16_t port) {
        auto d = test_support::credential_data("beckhoff_ipc_system_status_sensor", port);
        (*d.mutable_settings())["logging"] = "enabled";
        return d;
    }

    std::vector<ordered_json> take(const std::string& type) {
        std::vector<ordered_json> out;
        for (auto& m : host_->take_messages())
            if (m.type == type) out.push_back(m.body);
        return out;
    }

    // One scan of sensor `id` with the device reporting `status`; its one result.
    ordered_json scan_with(int id, const opcua_sim::beckhoff_status& status) {
        opcua_sim::set_beckhoff_status(*server_, status);
        host_->take_messages();
        EXPECT_EQ(host_->scan(id), 0);
        const auto results = take("SENSOR_SCAN_RESULT");
        EXPECT_EQ(results.size(), 1u);
        return results.empty() ? ordered_json::object() : results.front();
    }

    static opcua_sim::server* server_;
};

opcua_sim::server* BeckhoffSensor::server_ = nullptr;

// Channel id -> integer value as sent.
std::map<int, std::string> values_of(const ordered_json& result) {
    std::map<int, std::string> out;
    for (const auto& c : result.at("channels")) out[c.at("channel_id").get<int>()] = c.at("integer").get<std::string>();
    return out;
}

TEST_F(BeckhoffSensor, CreationDefinesTheSixFixedChannelsWithoutReading) {
    // Nothing listens on port 1: the sensor must come into being anyway, since it reads
    // only when it scans.
    ASSERT_EQ(host_->create_sensor(1, data(1)), 0);
    const auto defs = take("DYNAMIC_CHANNEL");
    EXPECT_TRUE(take("SENSOR_SCAN_RESULT").empty());

    const struct {
        const char* name;
        int unit;
        int size_unit;
        const char* lookup;
    } expected[] = {
        {"channel.percent_cpu", 11, 0, ""},
        {"channel.temperature_cpu", 4, 0, ""},
        {"channel.temperature_mainboard", 4, 0, ""},
        {"channel.available_memory", 2, 8, ""},
        {"channel.percent_available_memory", 5, 0, ""},
        {"channel.status_raid_controller", 0, 0, "raid_controller_state"},
    };
    ASSERT_EQ(defs.size(), std::size(expected));
    for (std::size_t id = 0; id < defs.size(); ++id) {
        SCOPED_TRACE(expected[id].name);
        EXPECT_EQ(defs[id].at("id"), static_cast<int>(id));
        EXPECT_EQ(defs[id].at("name"), expected[id].name);
        EXPECT_EQ(defs[id].at("unit"), expected[id].unit);
        EXPECT_EQ(defs[id].at("size_unit"), expected[id].size_unit);
        EXPECT_EQ(defs[id].at("lookup"), expected[id].lookup);
        EXPECT_EQ(defs[id].at("value_mode"), 1);
        EXPECT_DOUBLE_EQ(defs[id].at("scale_factor").get<double>(), 1.0);
        EXPECT_EQ(defs[id].at("limits_enabled"), false);
    }

    // The read comes with the scan, and fails it.
    ASSERT_EQ(host_->scan(1), 0);
    const auto results = take("SENSOR_SCAN_RESULT");
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].at("response_code"), 3);
    EXPECT_EQ(host_->destroy(1), 0);
}

TEST_F(BeckhoffSensor, HealthyDeviceDeliversAllSixChannels) {
    ASSERT_EQ(host_->create_sensor(2, data(server_->port())), 0);
    opcua_sim::beckhoff_status status;
    status.cpu_load = 17;
    status.cpu_temperature = -5;  // signed on the wire
    status.mainboard_temperature = 41;
    status.memory_size = 2000;
    status.memory_available = 500;
    const auto result = scan_with(2, status);
    EXPECT_EQ(result.at("response_code"), 0);
    EXPECT_EQ(result.at("message").at("text"), "OK");
    const std::map<int, std::string> expected{{0, "17"}, {1, "-5"}, {2, "41"}, {3, "500"}, {4, "25"}, {5, "1"}};
    EXPECT_EQ(values_of(result), expected);
}

TEST_F(BeckhoffSensor, MemoryComesFromTheNarrowPairUnlessItSaturated) {
    ASSERT_EQ(host_->create_sensor(3, data(server_->port())), 0);
    constexpr std::uint32_t saturated = opcua_sim::beckhoff_narrow_saturated;
    const struct {
        const char* what;
        std::uint32_t size, available;
        std::uint64_t size_wide, available_wide;
        const char* channel_available;
        const char* channel_percent;
    } cases[] = {
        {"1 of 3", 3, 1, 999, 999, "1", "33"},
        {"2 of 3 rounds up", 3, 2, 999, 999, "2", "67"},
        {"1 of 8, a half rounds away from zero", 8, 1, 999, 999, "1", "13"},
        {"one below saturation: narrow counts", saturated - 1, (saturated - 1) / 2, 8, 1, "1073741823", "50"},
        {"saturated: wide counts", saturated, saturated, 8ull << 30, 3ull << 30, "3221225472", "38"},
        {"saturated, 1 of 8 wide", saturated, 12345, 8ull << 32, 1ull << 32, "4294967296", "13"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        opcua_sim::beckhoff_status status;
        status.memory_size = c.size;
        status.memory_available = c.available;
        status.memory_size_wide = c.size_wide;
        status.memory_available_wide = c.available_wide;
        const auto result = scan_with(3, status);
        ASSERT_EQ(result.at("response_code"), 0) << result.dump();
        const auto values = values_of(result);
        EXPECT_EQ(values.at(3), c.channel_available);
        EXPECT_EQ(values.at(4), c.channel_percent);
    }
}

TEST_F(BeckhoffSensor, SimulatedDeviceSaturatesBigMemoryLikeTheRealOne) {
    ASSERT_EQ(host_->create_sensor(4, data(server_->port())), 0);
    opcua_sim::beckhoff_status status;
    opcua_sim::set_beckhoff_memory(status, 16ull << 30, 6ull << 30);
    ASSERT_EQ(status.memory_size, opcua_sim::beckhoff_narrow_saturated);
    const auto values = values_of(scan_with(4, status));
    EXPECT_EQ(values.at(3), std::to_string(6ull << 30));
    EXPECT_EQ(values.at(4), "38");  // 37.5
}

TEST_F(BeckhoffSensor, RaidStateDecidesMessageAndOutcome) {
    ASSERT_EQ(host_->create_sensor(5, data(server_->port())), 0);
    const std::string valid = "good (1), failed (2), offline (3), power_off (4)";
    const struct {
        std::uint16_t state, reason;
        int response_code;
        std::string key;  // whole key of the message
        std::string text;
    } cases[] = {
        // The reason is looked at only when offline; 99 elsewhere must not matter.
        {1, 99, 0, "OK", "OK"},
        {2, 99, 0, "OK", "OK"},
        {4, 99, 0, "OK", "OK"},
        {3, 0, 0, "#:error.raid_controller_offline_reason.unknown[]", "The reason is unknown."},
        {3, 2, 0, "#:error.raid_controller_offline_reason.bus_degraded[]",
         "The physical interface of the SAS or SATA domain does not work properly."},
        {3, 3, 0, "#:error.raid_controller_offline_reason.bus_failure[]",
         "The physical interface of the SAS or SATA domain does not work."},
        {3, 4, 3, "array::at: __n (which is 4) >= _Nm (which is 4)",
         "array::at: __n (which is 4) >= _Nm (which is 4)"},
        {0, 0, 3, "#:libvurohelper.error.invalid_lookup_value[0,good (1)\\, failed (2)\\, offline (3)\\, power_off (4)]",
         "The following lookup value is invalid: 0. Valid lookup values are: " + valid},
        {5, 0, 3, "#:libvurohelper.error.invalid_lookup_value[5,good (1)\\, failed (2)\\, offline (3)\\, power_off (4)]",
         "The following lookup value is invalid: 5. Valid lookup values are: " + valid},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE("state " + std::to_string(c.state) + " reason " + std::to_string(c.reason));
        opcua_sim::beckhoff_status status;
        status.raid_state = c.state;
        status.raid_offline_reason = c.reason;
        const auto result = scan_with(5, status);
        EXPECT_EQ(result.at("response_code"), c.response_code) << result.dump();
        EXPECT_EQ(result.at("message").at("key"), c.key);
        EXPECT_EQ(result.at("message").at("text"), c.text);
        if (c.response_code == 0) {
            const auto values = values_of(result);
            EXPECT_EQ(values.size(), 6u);
            EXPECT_EQ(values.at(5), std::to_string(c.state));
        } else {
            EXPECT_TRUE(result.at("channels").empty()) << "a failed scan reports no channel";
        }
    }
}

}  // namespace
