// The Beckhoff IPC sensor end to end: the built module against opcua-sim's Beckhoff
// address space.
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <map>
#include <string>

#include "integration/sensor_session.h"
#include "opcua_sim/beckhoff.h"
#include "opcua_sim/server.h"

using namespace integration;

namespace {

class BeckhoffSensor : public sensor_session {
protected:
    static void SetUpTestSuite() {
        opcua_sim::options o;
        o.address_spaces.push_back(opcua_sim::beckhoff_address_space());
        server_ = new opcua_sim::server(o);
        server_->start();
    }
    static void TearDownTestSuite() { delete server_; }

    static brenholt::vuro::wire::SensorData data(int port) {
        return sensor_data("beckhoff_ipc_system_status_sensor", port);
    }

    // One scan of sensor `id` with the device reporting `status`; its one result.
    ordered_json scan_with(int id, const opcua_sim::beckhoff_status& status) {
        opcua_sim::set_beckhoff_status(*server_, status);
        return scan(id).result();
    }

    static opcua_sim::server* server_;
};

opcua_sim::server* BeckhoffSensor::server_ = nullptr;

TEST_F(BeckhoffSensor, CreationDefinesTheSixFixedChannelsWithoutReading) {
    // Nothing listens on port 1: the sensor reads only when it scans.
    ASSERT_EQ(host_->create_sensor(1, data(1)), 0);
    const sent created = take();
    EXPECT_TRUE(created.results.empty());
    const auto expected = ordered_json::parse(R"json([
      {"id": 0, "name": "channel.percent_cpu", "unit": 11, "size_unit": 0, "lookup": ""},
      {"id": 1, "name": "channel.temperature_cpu", "unit": 4, "size_unit": 0, "lookup": ""},
      {"id": 2, "name": "channel.temperature_mainboard", "unit": 4, "size_unit": 0, "lookup": ""},
      {"id": 3, "name": "channel.available_memory", "unit": 2, "size_unit": 8, "lookup": ""},
      {"id": 4, "name": "channel.percent_available_memory", "unit": 5, "size_unit": 0, "lookup": ""},
      {"id": 5, "name": "channel.status_raid_controller", "unit": 0, "size_unit": 0, "lookup": "raid_controller_state"}
    ])json");
    ASSERT_EQ(created.definitions.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        expect_fields(created.definitions[i], expected[i]);
        expect_fields(created.definitions[i], {{"value_mode", 1}, {"limits_enabled", false}});
    }
    EXPECT_EQ(scan(1).result().at("response_code"), 3);
}

TEST_F(BeckhoffSensor, HealthyDeviceWithMemoryFromTheNarrowPairUnlessItSaturated) {
    ASSERT_EQ(host_->create_sensor(3, data(server_->port())), 0);
    constexpr std::uint32_t saturated = opcua_sim::beckhoff_narrow_saturated;
    const struct {
        const char* what;
        std::uint32_t size, available;
        std::uint64_t size_wide, available_wide;
        long long channel_available, channel_percent;
    } cases[] = {
        {"1 of 3", 3, 1, 999, 999, 1, 33},
        {"2 of 3 rounds up", 3, 2, 999, 999, 2, 67},
        {"1 of 8, a half rounds away from zero", 8, 1, 999, 999, 1, 13},
        {"one below saturation: narrow counts", saturated - 1, (saturated - 1) / 2, 8, 1, 1073741823, 50},
        {"saturated: wide counts", saturated, saturated, 8ull << 30, 3ull << 30, 3ll << 30, 38},
        {"saturated, 1 of 8 wide", saturated, 12345, 8ull << 32, 1ull << 32, 1ll << 32, 13},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        // CPU load, CPU temperature (signed on the wire), mainboard temperature, memory pairs.
        const auto result = scan_with(3, {17, -5, 41, c.size, c.available, c.size_wide, c.available_wide});
        EXPECT_EQ(result.at("response_code"), 0);
        EXPECT_EQ(result.at("message").at("text"), "OK");
        const std::map<int, long long> expected{{0, 17}, {1, -5}, {2, 41}, {3, c.channel_available},
                                                {4, c.channel_percent}, {5, 1}};
        EXPECT_EQ(integers(result), expected);
    }
}

// A size of 0, or a percentage past what a channel holds: the percentage channel gets
// what an x86 conversion of such a double gives (LONG_MIN), and the scan keeps every
// other channel.
TEST_F(BeckhoffSensor, MemoryWithoutAPercentageKeepsTheOtherChannels) {
    ASSERT_EQ(host_->create_sensor(4, data(server_->port())), 0);
    constexpr std::uint32_t saturated = opcua_sim::beckhoff_narrow_saturated;
    constexpr long long indefinite = std::numeric_limits<long long>::min();
    const struct {
        std::uint32_t size, available;
        std::uint64_t size_wide, available_wide;
        long long channel_available;
    } cases[] = {
        {0, 0, 9, 9, 0},
        {0, 5, 9, 9, 5},
        {saturated, 1, 0, 7, 7},
        {saturated, 1, 1, 1ull << 62, 1ll << 62},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.channel_available));
        const auto result = scan_with(4, {17, -5, 41, c.size, c.available, c.size_wide, c.available_wide});
        EXPECT_EQ(result.at("response_code"), 0) << result.dump();
        const std::map<int, long long> expected{{0, 17}, {1, -5}, {2, 41}, {3, c.channel_available},
                                                {4, indefinite}, {5, 1}};
        EXPECT_EQ(integers(result), expected);
    }
}

TEST_F(BeckhoffSensor, RaidStateDecidesMessageAndOutcome) {
    ASSERT_EQ(host_->create_sensor(5, data(server_->port())), 0);
    const std::string valid = "good (1), failed (2), offline (3), power_off (4)";
    const std::string escaped = "good (1)\\, failed (2)\\, offline (3)\\, power_off (4)";
    const std::string out_of_table = "array::at: __n (which is 4) >= _Nm (which is 4)";
    const struct {
        std::uint16_t state, reason;
        int response_code;
        std::string key;
        std::string text;
    } cases[] = {
        // The reason is looked at only when offline.
        {1, 99, 0, "OK", "OK"},
        {3, 2, 0, "#:error.raid_controller_offline_reason.bus_degraded[]",
         "The physical interface of the SAS or SATA domain does not work properly."},
        // The reason table has four entries; 4 runs off its end and fails the scan.
        {3, 4, 3, out_of_table, out_of_table},
        {0, 0, 3, "#:libvurohelper.error.invalid_lookup_value[0," + escaped + "]",
         "The following lookup value is invalid: 0. Valid lookup values are: " + valid},
        {5, 0, 3, "#:libvurohelper.error.invalid_lookup_value[5," + escaped + "]",
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
        if (c.response_code == 0)
            EXPECT_EQ(integers(result).at(5), c.state);
        else
            EXPECT_TRUE(result.at("channels").empty()) << "a failed scan reports no channel";
    }
}

}  // namespace
