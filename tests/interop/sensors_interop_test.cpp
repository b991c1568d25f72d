// The four sensors through the built module against node-opcua (server.js). node-opcua
// takes seconds to come up and ctest runs each TEST in its own process, so each TEST
// starts one server (the certificate TEST one per certificate) and walks a table; values
// change through the server's command lines between scans.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "integration/sensor_session.h"
#include "node_server.h"
#include "support/test_pki.h"

namespace pki = brenholt::monitoring_modules::test_pki;
using namespace integration;
using nlohmann::json;

namespace {

// 1970-01-01 is 134774 days after 1601-01-01, the origin of an OPC UA DateTime.
constexpr long long seconds_1601_to_1970 = 134774LL * 86400;

long long unix_now() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

using InteropSensors = sensor_session;

TEST_F(InteropSensors, ServerStatusFollowsNodeOpcuaDiagnosticsSwitch) {
    const long long before_start = unix_now();
    const auto server = interop::start({{"diagnostics", false}});
    ASSERT_EQ(host_->create_sensor(1, test_support::credential_data("server_status_sensor", server->port())), 0);
    EXPECT_EQ(take().definition_ids(), (std::vector<int>{0, 1}));

    const struct {
        const char* step;
        bool diagnostics;
        std::vector<int> defined;
        int response_code;
        std::size_t values;
    } steps[] = {
        {"never enabled", false, {}, 0, 2},
        {"switched on", true, {2, 9, 4, 5, 3, 6, 7, 8}, 0, 10},
        // node-opcua answers the eight counters with BadNotReadable while its diagnostics are
        // off, so the one request of twelve nodes fails before the sensor could warn.
        {"switched off", false, {}, 3, 0},
        {"switched on again", true, {}, 0, 10},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.step);
        server->command({{"diagnostics", step.diagnostics}});
        const sent s = scan(1);
        EXPECT_EQ(s.definition_ids(), step.defined);
        const auto result = s.result();
        ASSERT_EQ(result.at("response_code"), step.response_code) << result.dump();
        const auto values = integers(result);
        ASSERT_EQ(values.size(), step.values) << result.dump();
        if (step.response_code != 0) {
            EXPECT_EQ(result.at("message").at("key"), "#:error.opcua_read_failed[BadNotReadable]");
            continue;
        }
        EXPECT_EQ(result.at("message").at("key"), "OK");
        EXPECT_EQ(values.at(0), 0) << "Running";
        EXPECT_GE(values.at(1), 0);
        EXPECT_LE(values.at(1), unix_now() - before_start + 1);
        if (step.diagnostics) {
            EXPECT_GE(values.at(2), 1) << "the sensor's own session";
        }
    }
    EXPECT_EQ(host_->destroy(1), 0);
}

TEST_F(InteropSensors, CertificateSensorReadsNodeOpcuaOwnAndCaIssuedCertificates) {
    const pki::cert ca = pki::make_cert(pki::ca_profile("KOLV Interop CA"));
    pki::cert_profile profile = pki::leaf_profile("interop server from CA");
    profile.key = pki::rsa_key(3072, 2);
    profile.subject_alt_names = {"URI:urn:kolv:interop:node-opcua", "IP:127.0.0.1"};
    profile.not_after = pki::from_now(pki::days(20) + std::chrono::hours(1));
    const pki::cert issued = pki::make_cert(profile, &ca);
    const auto certificate_file = log_dir_ / "server.pem", key_file = log_dir_ / "server.key";
    // With the CA behind it, as a CA-issued server should serve it.
    std::ofstream(certificate_file) << issued.pem() << ca.pem();
    std::ofstream(key_file) << issued.key().private_pem();

    // What the sensor must report is read from the certificate node-opcua serves (the
    // ready line); the rows make sure it serves the one meant.
    const struct {
        const char* name;
        json options;
        int self_signed;
        int chain;  // certificates in the endpoints' ServerCertificate
        int key_bits;
    } cases[] = {
        {"node-opcua's own", json::object(), 1, 1, 2048},
        {"issued by a CA", {{"certificateFile", certificate_file.string()}, {"privateKeyFile", key_file.string()}},
         0, 2, 3072},
    };
    int id = 10;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto server = interop::start(c.options);
        const json& served = server->ready().at("certificate");
        ASSERT_EQ(served.at("chain"), c.chain);
        ASSERT_EQ(served.at("keyBits"), c.key_bits);

        ASSERT_EQ(host_->create_sensor(id, test_support::credential_data("certificate_sensor", server->port())), 0);
        const long long before = unix_now();
        const auto result = scan(id).result();
        const long long after = unix_now();
        ASSERT_EQ(result.at("response_code"), 0) << result.dump();
        const auto values = integers(result);
        ASSERT_EQ(values.size(), 3u);
        // Whole days left, cut towards zero; the scan's clock lies between the two reads.
        const long long not_after = served.at("notAfter").get<long long>();
        EXPECT_GE(values.at(0), (not_after - after) / 86400);
        EXPECT_LE(values.at(0), (not_after - before) / 86400);
        EXPECT_EQ(values.at(1), c.key_bits);
        EXPECT_EQ(values.at(2), c.self_signed);
        EXPECT_EQ(result.at("message").at("text"),
                  "Certificate Common Name: " + served.at("commonName").get<std::string>() +
                      " - Certificate Thumbprint: " + served.at("thumbprint").get<std::string>());
        EXPECT_EQ(host_->destroy(id++), 0);
    }
}

TEST_F(InteropSensors, BeckhoffSensorReadsTheDeviceVariablesFromNodeOpcua) {
    const auto server = interop::start({{"beckhoff", true}});
    ASSERT_EQ(server->ready().at("namespaces").at("beckhoff"), 2);
    const json healthy = {{"cpu_load", 17},
                          {"cpu_temperature", -5},
                          {"mainboard_temperature", 41},
                          {"memory", {{"size", 3000}, {"available", 2000}}},
                          {"raid_state", 1},
                          {"raid_offline_reason", 0}};
    const struct {
        const char* name;
        json changes;
        std::map<int, long long> values;
        std::string message;
    } cases[] = {
        // 66.67 % rounds up.
        {"healthy", json::object(), {{0, 17}, {1, -5}, {2, 41}, {3, 2000}, {4, 67}, {5, 1}}, "OK"},
        // 16 GiB: the narrow pair sticks at 0x7fffffff and the 64-bit pair counts; 37.5 % rounds up.
        {"saturated memory",
         {{"memory", {{"size", 16LL << 30}, {"available", 6LL << 30}}}},
         {{0, 17}, {1, -5}, {2, 41}, {3, 6LL << 30}, {4, 38}, {5, 1}},
         "OK"},
        {"RAID offline, bus degraded",
         {{"raid_state", 3}, {"raid_offline_reason", 2}},
         {{0, 17}, {1, -5}, {2, 41}, {3, 2000}, {4, 67}, {5, 3}},
         "The physical interface of the SAS or SATA domain does not work properly."},
    };
    const auto data = test_support::credential_data("beckhoff_ipc_system_status_sensor", server->port());
    ASSERT_EQ(host_->create_sensor(20, data), 0);
    EXPECT_EQ(take().definition_ids(), (std::vector<int>{0, 1, 2, 3, 4, 5}));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        json values = healthy;
        values.update(c.changes);
        server->command({{"set", values}});
        const auto result = scan(20).result();
        EXPECT_EQ(result.at("response_code"), 0) << result.dump();
        EXPECT_EQ(result.at("message").at("text"), c.message);
        EXPECT_EQ(integers(result), c.values);
    }
    EXPECT_EQ(host_->destroy(20), 0);
}

// One server for the whole table, with node-opcua's encoding of every kind the custom
// sensor reads (server.js, section "custom").
TEST_F(InteropSensors, CustomSensorDefinesAndReadsEveryKind) {
    const auto server = interop::start({{"custom", true}});
    const int ns = server->ready().at("namespaces").at("custom").get<int>();
    // Index 0 is the standard namespace and 1 the server's own: ours must be another.
    ASSERT_GE(ns, 2) << server->ready().dump();
    const std::string nsp = "ns=" + std::to_string(ns) + ";s=";

    // A channel's NodeID (`node`, and `index` into an array or -1) and what the module must
    // define and report: `integer` set means an integer value (a JSON string), else `floating`.
    struct channel_case {
        int id;
        std::string node;
        int index;
        int value_mode;
        bool boolean;
        std::string integer;
        double floating;
    };
    const struct {
        std::string name;
        int sensor_id;
        std::vector<channel_case> channels;
        std::string message_node;  // empty: no sensor message
        int response_code;
        std::string message;
    } sensors[] = {
        {"integers and booleans", 1,
         {{1, "Boolean", -1, 1, true, "1", 0},
          {2, "BooleanFalse", -1, 1, true, "0", 0},
          {3, "SByte", -1, 1, false, "-100", 0},
          {4, "Byte", -1, 1, false, "250", 0},
          {5, "Int16", -1, 1, false, "-30000", 0},
          {6, "UInt16", -1, 1, false, "65000", 0},
          {7, "Int32", -1, 1, false, "-2000000000", 0},
          {8, "UInt32", -1, 1, false, "4000000000", 0},
          {9, "Int64", -1, 1, false, "-9007199254740993", 0},
          {10, "UInt64", -1, 1, false, "9223372036854775807", 0}},
         "", 0, "OK"},
        // Channels 4 and 6 stay off: the ids must follow the channel numbers, not the order.
        {"floats, strings, DateTime and array elements", 2,
         {{1, "Float", -1, 3, false, "", -2.75},
          {2, "Double", -1, 3, false, "", 1234.5678},
          {3, "StringNumber", -1, 3, false, "", 12.5},
          {5, "LocalizedText", -1, 3, false, "", 7.25},
          {7, "DateTime", -1, 1, false, std::to_string(1709210096LL + seconds_1601_to_1970), 0},
          {8, "Int32Array", 0, 1, false, "-5", 0},
          {9, "Int32Array", 2, 1, false, "2147483647", 0},
          {10, "DoubleArray", 2, 3, false, "", 1e300}},
         "SensorMessage", 0, "Pump 3 running"},
        // The conversion error is the sensor's message: the server's text must not replace it.
        {"string holding text", 3, {{1, "StringText", -1, 3, false, "", 0}}, "SensorMessage", 3,
         "The sensor cannot parse the received data. The received data must be a numeric value."},
    };

    for (const auto& sensor : sensors) {
        SCOPED_TRACE(sensor.name);
        std::map<int, std::string> nodes;
        for (const auto& c : sensor.channels)
            nodes[c.id] = c.index < 0 ? nsp + c.node : "'" + nsp + c.node + "'[" + std::to_string(c.index) + "]";
        const std::string message_node = sensor.message_node.empty() ? "" : nsp + sensor.message_node;
        ASSERT_EQ(host_->create_sensor(sensor.sensor_id, custom_data(server->port(), nodes, message_node)), 0);

        const auto defs = take().definitions;
        ASSERT_EQ(defs.size(), sensor.channels.size());
        for (std::size_t i = 0; i < defs.size(); ++i) {
            const auto& c = sensor.channels[i];
            SCOPED_TRACE(nodes.at(c.id));
            expect_fields(defs[i], {{"id", c.id},
                                    {"name", "channel.channel_" + std::to_string(c.id)},
                                    {"display_name", c.node + " (node-opcua)"},
                                    {"value_mode", c.value_mode}});
            EXPECT_EQ(defs[i].value("lookup", std::string()), c.boolean ? "positive_boolean_lookup" : "");
        }

        // The first scan reads names and values, the second the values alone.
        for (int scan_number = 1; scan_number <= 2; ++scan_number) {
            SCOPED_TRACE("scan " + std::to_string(scan_number));
            const auto result = scan(sensor.sensor_id).result();
            EXPECT_EQ(result.at("response_code"), sensor.response_code) << result.dump();
            EXPECT_EQ(result.at("message").at("text"), sensor.message);
            if (sensor.response_code != 0) {
                EXPECT_TRUE(result.at("channels").empty()) << "a failed scan reports no channel";
                continue;
            }
            std::map<int, ordered_json> values;
            for (const auto& v : result.at("channels")) values[v.at("channel_id").get<int>()] = v;
            ASSERT_EQ(values.size(), sensor.channels.size()) << result.dump();
            for (const auto& c : sensor.channels) {
                SCOPED_TRACE(nodes.at(c.id));
                const auto& v = values[c.id];
                if (!c.integer.empty())
                    EXPECT_EQ(v.value("integer", ordered_json()), c.integer) << v.dump();
                else
                    EXPECT_DOUBLE_EQ(v.value("floating", std::nan("")), c.floating) << v.dump();
            }
        }
        EXPECT_EQ(host_->destroy(sensor.sensor_id), 0);
    }
    EXPECT_TRUE(server->stop()) << "the server did not stop on SIGTERM";
}

}  // namespace
