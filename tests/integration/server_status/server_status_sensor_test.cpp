// The server status sensor end to end: the built module against opcua-sim, whose
// diagnostics switch is turned on and off between scans.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "integration/sensor_session.h"
#include "opcua_sim/diagnostics.h"
#include "opcua_sim/server.h"

using namespace integration;

namespace {

const char* const warning_key = "#:error.opcua_server_diagnostics_disabled_afterwards[]";
const std::vector<int> diagnostic_definition_order{2, 9, 4, 5, 3, 6, 7, 8};

// The probe shows the text of each channel's key, so no display name goes out.
const auto definitions = ordered_json::parse(R"json([
  {"id": 0, "name": "channel.state", "value_mode": 1, "unit": 0, "lookup": "server_state"},
  {"id": 1, "name": "channel.uptime", "value_mode": 1, "unit": 7, "lookup": ""},
  {"id": 2, "name": "channel.session_count", "value_mode": 1, "unit": 10, "lookup": ""},
  {"id": 3, "name": "channel.rejected_session_count", "value_mode": 2, "unit": 10, "lookup": ""},
  {"id": 4, "name": "channel.session_timeout_count", "value_mode": 2, "unit": 10, "lookup": ""},
  {"id": 5, "name": "channel.session_abort_count", "value_mode": 2, "unit": 10, "lookup": ""},
  {"id": 6, "name": "channel.security_rejected_session_count", "value_mode": 2, "unit": 10, "lookup": ""},
  {"id": 7, "name": "channel.rejected_requests_count", "value_mode": 2, "unit": 10, "lookup": ""},
  {"id": 8, "name": "channel.security_rejected_requests_count", "value_mode": 2, "unit": 10, "lookup": ""},
  {"id": 9, "name": "channel.subscription_count", "value_mode": 1, "unit": 10, "lookup": ""}
])json");

void expect_definitions(const sent& s) {
    for (const auto& def : s.definitions) {
        expect_fields(def, definitions.at(def.at("id").get<std::size_t>()));
        EXPECT_EQ(def.at("display_name"), "");
    }
}

class ServerStatusSensor : public sensor_session {
protected:
    static void SetUpTestSuite() {
        opcua_sim::options o;
        o.address_spaces.push_back(opcua_sim::diagnostics_address_space(false));
        server_ = new opcua_sim::server(o);
        server_->start();
        started_ = std::chrono::steady_clock::now();
    }
    static void TearDownTestSuite() { delete server_; }

    void SetUp() override {
        opcua_sim::diagnostics_set_enabled(*server_, false);
        sensor_session::SetUp();
    }

    // known: the channels the probe already holds for this sensor.
    static brenholt::vuro::wire::SensorData data(int port, const std::map<int, std::string>& known = {}) {
        auto d = sensor_data("server_status_sensor", port);
        for (const auto& [id, name] : known) (*d.mutable_channels())[id] = name;
        return d;
    }

    static opcua_sim::server* server_;
    static std::chrono::steady_clock::time_point started_;
};

opcua_sim::server* ServerStatusSensor::server_ = nullptr;
std::chrono::steady_clock::time_point ServerStatusSensor::started_;

TEST_F(ServerStatusSensor, FlagSwitchedOnAndOffWalksThroughTheStates) {
    const struct {
        const char* step;
        bool flag;
        std::vector<int> defined;  // definitions sent in this scan, in order
        int response_code;
    } steps[] = {
        {"never enabled", false, {}, 0},
        {"still never enabled", false, {}, 0},
        {"turned on", true, diagnostic_definition_order, 0},
        {"still on", true, {}, 0},
        {"taken back", false, {}, 1},
        {"taken back again", false, {}, 1},
        {"turned on again", true, {}, 0},
    };
    ASSERT_EQ(host_->create_sensor(1, data(server_->port())), 0);
    const sent created = take();
    EXPECT_EQ(created.definition_ids(), (std::vector<int>{0, 1}));
    EXPECT_TRUE(created.results.empty());
    expect_definitions(created);
    for (const auto& step : steps) {
        SCOPED_TRACE(step.step);
        opcua_sim::diagnostics_set_enabled(*server_, step.flag);
        const sent s = scan(1);
        EXPECT_EQ(s.definition_ids(), step.defined);
        expect_definitions(s);
        EXPECT_EQ(s.types.back(), "SENSOR_SCAN_RESULT") << "definitions go out before the values";
        const auto result = s.result();
        EXPECT_EQ(result.at("response_code"), step.response_code);
        EXPECT_EQ(result.at("message").at("key"), step.response_code == 1 ? warning_key : "OK");
        // Status channels 0 and 1 always; the eight counters while the flag is on.
        const auto values = integers(result);
        EXPECT_EQ(values.size(), step.flag ? 10u : 2u);
        EXPECT_EQ(values.at(0), 0) << "the simulated server is running";
        const auto elapsed = std::chrono::steady_clock::now() - started_;
        EXPECT_GE(values.at(1), 0);
        EXPECT_LE(values.at(1), std::chrono::duration_cast<std::chrono::seconds>(elapsed).count() + 1);
        if (step.flag) {
            // Nothing connects or disconnects between the scan and this read.
            const auto counters = opcua_sim::diagnostics_read_counters(*server_);
            EXPECT_GE(values.at(2), 1) << "the sensor's own session counts";
            const long long expected[] = {  // channels 2 to 9
                counters.current_session_count,           counters.rejected_session_count,
                counters.session_timeout_count,           counters.session_abort_count,
                counters.security_rejected_session_count, counters.rejected_requests_count,
                counters.security_rejected_requests_count, counters.current_subscription_count};
            for (int id = 2; id <= 9; ++id) EXPECT_EQ(values.at(id), expected[id - 2]) << "channel " << id;
        }
    }
    // Status nodes only until the flag is first seen on; two requests in that scan; then
    // one request of all twelve.
    EXPECT_EQ(requests(1), (std::vector<int>{4 * 4, 4, 4, 8 * 4, 12, 12, 12, 12}));
    EXPECT_EQ(host_->destroy(1), 0);
}

// The probe hands the known channels to a sensor created anew; that is all the memory
// the sensor has of an earlier life.
TEST_F(ServerStatusSensor, RecreatedSensorKnowsFromTheProbeThatDiagnosticsWereThere) {
    std::map<int, std::string> everything;
    for (int id = 0; id < 10; ++id) everything[id] = definitions[id].at("name").get<std::string>();
    const struct {
        const char* name;
        std::map<int, std::string> known;
        std::vector<int> defined_at_creation;
        std::vector<int> defined_when_on;
    } cases[] = {
        {"channel 2 known", {{0, "Server Status"}, {2, "Session Count"}}, {1}, {9, 4, 5, 3, 6, 7, 8}},
        {"all channels known", everything, {}, {}},
    };
    int id = 10;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        opcua_sim::diagnostics_set_enabled(*server_, false);
        ASSERT_EQ(host_->create_sensor(id, data(server_->port(), c.known)), 0);
        EXPECT_EQ(take().definition_ids(), c.defined_at_creation);

        const sent off = scan(id);
        EXPECT_TRUE(off.definitions.empty());
        EXPECT_EQ(off.result().at("response_code"), 1);
        EXPECT_EQ(off.result().at("message").at("key"), warning_key);
        EXPECT_EQ(integers(off.result()).size(), 2u);
        // Status and counters travel in one request from the first scan on.
        EXPECT_EQ(requests(id), (std::vector<int>{12 * 4}));

        opcua_sim::diagnostics_set_enabled(*server_, true);
        const sent on = scan(id);
        EXPECT_EQ(on.definition_ids(), c.defined_when_on);
        EXPECT_EQ(on.result().at("response_code"), 0);
        EXPECT_EQ(integers(on.result()).size(), 10u);
        EXPECT_EQ(host_->destroy(id), 0);
        ++id;
    }
}

TEST_F(ServerStatusSensor, CreationNeedsNoServerAndTheScanFailsWithoutOne) {
    // Nothing listens on port 1; the sensor reads nothing until its first scan.
    ASSERT_EQ(host_->create_sensor(20, data(1)), 0);
    EXPECT_EQ(take().definition_ids(), (std::vector<int>{0, 1}));
    const auto result = scan(20).result();
    EXPECT_EQ(result.at("response_code"), 3);
    EXPECT_TRUE(result.at("channels").empty());
    EXPECT_EQ(host_->destroy(20), 0);
}

}  // namespace
