// The server status sensor end to end: the built module against opcua-sim, whose
// diagnostics switch is turned on and off between scans.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "opcua_sim/diagnostics.h"
#include "opcua_sim/server.h"
#include "probe_host.h"
#include "support/module_session.h"
#include "vuro.pb.h"

namespace fs = std::filesystem;
using nlohmann::ordered_json;

namespace {

const char* const warning_key = "#:error.opcua_server_diagnostics_disabled_afterwards[]";
const char* const warning_text =
    "The sensor could not retrieve any diagnostic information because the OPC UA server diagnostic summary "
    "information setting was deactivated. To resolve this issue, activate the diagnostic summary information "
    "setting in your OPC UA server.";

const std::vector<int> diagnostic_definition_order{2, 9, 4, 5, 3, 6, 7, 8};
const std::set<int> status_ids{0, 1};
const std::set<int> all_ids{0, 1, 2, 3, 4, 5, 6, 7, 8, 9};

struct channel_definition {
    int id;
    const char* name;
    const char* display;
    int value_mode;
    int unit;
    const char* lookup;
};

const channel_definition definitions[] = {
    {0, "channel.state", "Server Status", 1, 0, "server_state"},
    {1, "channel.uptime", "Uptime", 1, 7, ""},
    {2, "channel.session_count", "Session Count", 1, 10, ""},
    {3, "channel.rejected_session_count", "Rejected Session Count", 2, 10, ""},
    {4, "channel.session_timeout_count", "Session Timeout Count", 2, 10, ""},
    {5, "channel.session_abort_count", "Session Abort Count", 2, 10, ""},
    {6, "channel.security_rejected_session_count", "Security Rejected Session Count", 2, 10, ""},
    {7, "channel.rejected_requests_count", "Rejected Requests Count", 2, 10, ""},
    {8, "channel.security_rejected_requests_count", "Security Rejected Requests Count", 2, 10, ""},
    {9, "channel.subscription_count", "Subscription Count", 1, 10, ""},
};

void expect_definition(const ordered_json& def) {
    const int id = def.at("id").get<int>();
    ASSERT_GE(id, 0);
    ASSERT_LE(id, 9);
    const channel_definition& want = definitions[id];
    SCOPED_TRACE("channel " + std::to_string(id));
    EXPECT_EQ(def.at("name"), want.name);
    EXPECT_EQ(def.at("display_name"), "") << "the probe shows the text of the key, " << want.display;
    EXPECT_EQ(def.at("value_mode"), want.value_mode);
    EXPECT_EQ(def.at("unit"), want.unit);
    EXPECT_EQ(def.value("lookup", std::string()), want.lookup);
    EXPECT_DOUBLE_EQ(def.at("scale_factor").get<double>(), 1.0);
}

// A loopback port that was free a moment ago; nothing here listens on it.
std::uint16_t unused_port() {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    socklen_t length = sizeof address;
    const bool ok = fd >= 0 && ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    if (fd >= 0) ::close(fd);
    if (!ok) throw std::runtime_error("no free port on 127.0.0.1");
    return ntohs(address.sin_port);
}

std::map<int, long> values_of(const ordered_json& result) {
    std::map<int, long> out;
    for (const auto& c : result.at("channels")) out[c.at("channel_id").get<int>()] = std::stol(c.at("integer").get<std::string>());
    return out;
}

std::set<int> ids_of(const std::map<int, long>& values) {
    std::set<int> out;
    for (const auto& [id, value] : values) out.insert(id);
    return out;
}

// What one call into the module sent: definitions in their order, then the results.
struct sent {
    std::vector<ordered_json> definitions;
    std::vector<ordered_json> results;
    std::vector<std::string> types;

    std::vector<int> definition_ids() const {
        std::vector<int> out;
        for (const auto& d : definitions) out.push_back(d.at("id").get<int>());
        return out;
    }
};

class ServerStatusSensor : public test_support::module_session {
protected:
    static void SetUpTestSuite() {
        opcua_sim::options o;
        o.certificate.generate.key_bits = 2048;
        o.address_spaces.push_back(opcua_sim::diagnostics_address_space(false));
        server_ = new opcua_sim::server(o);
        server_->start();
        started_ = std::chrono::steady_clock::now();
    }
    static void TearDownTestSuite() { delete server_; }

    void SetUp() override {
        opcua_sim::diagnostics_set_enabled(*server_, false);
        module_session::SetUp();
    }

    // known: the channels the probe already holds for this sensor, id to name.
    static brenholt::vuro::wire::SensorData data(std::uint16_t port, const std::map<int, std::string>& known = {}) {
        auto d = test_support::credential_data("server_status_sensor", port);
        (*d.mutable_settings())["logging"] = "enabled";
        for (const auto& [id, name] : known) (*d.mutable_channels())[id] = name;
        return d;
    }

    sent take() {
        sent out;
        for (auto& m : host_->take_messages()) {
            out.types.push_back(m.type);
            if (m.type == "DYNAMIC_CHANNEL") out.definitions.push_back(m.body);
            if (m.type == "SENSOR_SCAN_RESULT") out.results.push_back(m.body);
        }
        return out;
    }

    sent scan(int id) {
        EXPECT_EQ(host_->scan(id), 0);
        return take();
    }

    // The node counts of the client's read requests, in order, from the sensor's log.
    // A node's first read asks for three attributes besides the value: four items each.
    std::vector<int> requests(int id) const {
        static const std::regex request("Requesting ([0-9]+) nodes\\.$");
        std::vector<int> out;
        std::smatch m;
        for (const std::string& line : sensor_log(id))
            if (std::regex_search(line, m, request)) out.push_back(std::stoi(m[1]));
        return out;
    }

    static long seconds_since_start() {
        return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::steady_clock::now() - started_).count();
    }

    static opcua_sim::server* server_;
    static std::chrono::steady_clock::time_point started_;
};

opcua_sim::server* ServerStatusSensor::server_ = nullptr;
std::chrono::steady_clock::time_point ServerStatusSensor::started_;

TEST_F(ServerStatusSensor, FlagOffFromTheStartGivesTwoChannelsForEverAndNoWarning) {
    ASSERT_EQ(host_->create_sensor(1, data(server_->port())), 0);
    const sent created = take();
    ASSERT_EQ(created.definition_ids(), (std::vector<int>{0, 1}));
    for (const auto& def : created.definitions) expect_definition(def);
    EXPECT_TRUE(created.results.empty());

    for (int n = 0; n < 3; ++n) {
        SCOPED_TRACE("scan " + std::to_string(n));
        const sent s = scan(1);
        EXPECT_TRUE(s.definitions.empty());
        ASSERT_EQ(s.results.size(), 1u);
        EXPECT_EQ(s.results[0].at("response_code"), 0);
        EXPECT_EQ(s.results[0].at("message").at("key"), "OK");
        const auto values = values_of(s.results[0]);
        EXPECT_EQ(ids_of(values), status_ids);
        EXPECT_EQ(values.at(0), 0) << "the simulated server is running";
        EXPECT_GE(values.at(1), 0);
        EXPECT_LE(values.at(1), seconds_since_start() + 1);
    }
    // One request per scan, the four status nodes only: the counters are never asked for.
    EXPECT_EQ(requests(1), (std::vector<int>{4 * 4, 4, 4}));
    EXPECT_EQ(host_->destroy(1), 0);
}

TEST_F(ServerStatusSensor, FlagSwitchedOnAndOffWalksThroughTheStates) {
    const struct {
        const char* step;
        bool flag;
        std::vector<int> defined;  // definitions sent in this scan, in order
        int response_code;
        std::set<int> values;
    } steps[] = {
        {"never enabled", false, {}, 0, status_ids},
        {"turned on", true, diagnostic_definition_order, 0, all_ids},
        {"still on", true, {}, 0, all_ids},
        {"taken back", false, {}, 1, status_ids},
        {"taken back again", false, {}, 1, status_ids},
        {"turned on again", true, {}, 0, all_ids},
    };
    ASSERT_EQ(host_->create_sensor(2, data(server_->port())), 0);
    take();
    for (const auto& step : steps) {
        SCOPED_TRACE(step.step);
        opcua_sim::diagnostics_set_enabled(*server_, step.flag);
        const sent s = scan(2);
        EXPECT_EQ(s.definition_ids(), step.defined);
        for (const auto& def : s.definitions) expect_definition(def);
        ASSERT_EQ(s.results.size(), 1u);
        EXPECT_EQ(s.types.back(), "SENSOR_SCAN_RESULT") << "definitions go out before the values";
        const auto& result = s.results[0];
        EXPECT_EQ(result.at("response_code"), step.response_code);
        const auto values = values_of(result);
        EXPECT_EQ(ids_of(values), step.values);
        if (step.response_code == 1) {
            EXPECT_EQ(result.at("message").at("key"), warning_key);
            EXPECT_EQ(result.at("message").at("text"), warning_text);
        } else {
            EXPECT_EQ(result.at("message").at("key"), "OK");
        }
        if (step.flag) {
            // Nothing connects or disconnects between the scan and this read.
            const auto counters = opcua_sim::diagnostics_read_counters(*server_);
            EXPECT_GE(values.at(2), 1) << "the sensor's own session counts";
            EXPECT_EQ(values.at(2), counters.current_session_count);
            EXPECT_EQ(values.at(3), counters.rejected_session_count);
            EXPECT_EQ(values.at(4), counters.session_timeout_count);
            EXPECT_EQ(values.at(5), counters.session_abort_count);
            EXPECT_EQ(values.at(6), counters.security_rejected_session_count);
            EXPECT_EQ(values.at(7), counters.rejected_requests_count);
            EXPECT_EQ(values.at(8), counters.security_rejected_requests_count);
            EXPECT_EQ(values.at(9), counters.current_subscription_count);
        }
    }
    // Two requests only in the scan that finds the flag on first; one of twelve after.
    EXPECT_EQ(requests(2), (std::vector<int>{4 * 4, 4, 8 * 4, 12, 12, 12, 12}));
    EXPECT_EQ(host_->destroy(2), 0);
}

// The probe hands the known channels to a sensor created anew; that is all the memory
// the sensor has of an earlier life.
TEST_F(ServerStatusSensor, RecreatedSensorKnowsFromTheProbeThatDiagnosticsWereThere) {
    const std::map<int, std::string> status_and_sessions{
        {0, "Server Status"}, {1, "Uptime"}, {2, "Session Count"}};
    std::map<int, std::string> everything;
    for (const auto& d : definitions) everything[d.id] = d.display;

    const struct {
        const char* name;
        std::map<int, std::string> known;
        std::vector<int> defined_when_on;
    } cases[] = {
        {"channel 2 known", status_and_sessions, {9, 4, 5, 3, 6, 7, 8}},
        {"all channels known", everything, {}},
    };
    int id = 10;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        opcua_sim::diagnostics_set_enabled(*server_, false);
        ASSERT_EQ(host_->create_sensor(id, data(server_->port(), c.known)), 0);
        const sent created = take();
        std::vector<int> unknown_status;
        for (int s : {0, 1})
            if (!c.known.count(s)) unknown_status.push_back(s);
        EXPECT_EQ(created.definition_ids(), unknown_status);

        const sent off = scan(id);
        ASSERT_EQ(off.results.size(), 1u);
        EXPECT_TRUE(off.definitions.empty());
        EXPECT_EQ(off.results[0].at("response_code"), 1);
        EXPECT_EQ(off.results[0].at("message").at("key"), warning_key);
        EXPECT_EQ(ids_of(values_of(off.results[0])), status_ids);
        // Status and counters travel in one request from the first scan on.
        EXPECT_EQ(requests(id), (std::vector<int>{12 * 4}));

        opcua_sim::diagnostics_set_enabled(*server_, true);
        const sent on = scan(id);
        EXPECT_EQ(on.definition_ids(), c.defined_when_on);
        ASSERT_EQ(on.results.size(), 1u);
        EXPECT_EQ(on.results[0].at("response_code"), 0);
        EXPECT_EQ(ids_of(values_of(on.results[0])), all_ids);
        EXPECT_EQ(host_->destroy(id), 0);
        ++id;
    }
}

TEST_F(ServerStatusSensor, CreationNeedsNoServerAndTheScanFailsWithoutOne) {
    // The sensor reads nothing until its first scan, so a port nobody listens on is fine.
    ASSERT_EQ(host_->create_sensor(20, data(unused_port())), 0);
    EXPECT_EQ(take().definition_ids(), (std::vector<int>{0, 1}));
    const sent s = scan(20);
    ASSERT_EQ(s.results.size(), 1u);
    EXPECT_EQ(s.results[0].at("response_code"), 3);
    EXPECT_TRUE(s.results[0].at("channels").empty());
    EXPECT_EQ(host_->destroy(20), 0);
}

}  // namespace
