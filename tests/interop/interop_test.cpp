// The checks and the sensors through the built module against node-opcua (server.js), a
// stack nobody here wrote, on loopback. node-opcua takes seconds to come up and ctest
// runs each TEST in its own process, so each TEST is one server configuration (the
// certificate TEST one per certificate) with a table of cases.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "integration/check_session.h"
#include "integration/sensor_session.h"
#include "node_server.h"
#include "support/test_pki.h"

namespace pki = brenholt::monitoring_modules::test_pki;
using namespace integration;
using interop::node_server;
using nlohmann::json;

namespace {

json endpoint_set(const json& ready) {
    json set = json::array();
    for (const auto& e : ready.at("endpoints"))
        set.push_back(e.at("securityMode").get<std::string>() + "/" + e.at("securityPolicy").get<std::string>());
    return set;
}

long long unix_now() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

const json alice = json::array({{{"user", "alice"}, {"password", "wonderland"}}});

using InteropChecks = check_session;

// A server as many are shipped: every mode, None and Basic256Sha256, anonymous and users.
// Its endpoint URLs name "localhost", not the address the sensor was given (as behind a
// NAT or with a host name): the module must still match them.
TEST_F(InteropChecks, OpenServerAcceptsEveryOfferedModeAndOnlyTheRightPassword) {
    node_server server({{"hostname", "localhost"}, {"users", alice}});
    ASSERT_EQ(endpoint_set(server.ready()), json({"None/None", "Sign/Basic256Sha256", "SignAndEncrypt/Basic256Sha256"}));
    for (const auto& e : server.ready().at("endpoints"))
        ASSERT_EQ(e.at("endpointUrl").get<std::string>().rfind("opc.tcp://localhost:", 0), 0u) << e.dump();
    const auto none = security("none", "none");
    const auto sign = security("sign", "Basic256Sha256");
    const auto encrypt = security("sign_encrypt", "Basic256Sha256");
    run_checks(server.port(), {
        {"none anonymous", "endpoint_validation_check", none, true, ""},
        {"none anonymous", "connection_check", none, true, ""},
        {"none right password", "connection_check", with_user(none, "alice", "wonderland"), true, ""},
        {"none wrong password", "connection_check", with_user(none, "alice", "wrong"), false, connect_failed},
        {"sign right password", "connection_check", with_user(sign, "alice", "wonderland"), true, ""},
        {"sign_encrypt anonymous", "endpoint_validation_check", encrypt, true, ""},
        {"sign_encrypt right password", "connection_check", with_user(encrypt, "alice", "wonderland"), true, ""},
        {"sign_encrypt wrong password", "connection_check", with_user(encrypt, "alice", "wrong"), false, connect_failed},
    });
}

// A hardened server: SignAndEncrypt with Basic256Sha256 only, no anonymous access.
TEST_F(InteropChecks, LockedServerRefusesWhatItDoesNotOffer) {
    node_server server({{"securityModes", {"SignAndEncrypt"}}, {"securityPolicies", {"Basic256Sha256"}},
                        {"allowAnonymous", false}, {"users", alice}});
    ASSERT_EQ(endpoint_set(server.ready()), json({"SignAndEncrypt/Basic256Sha256"}));
    const auto encrypt = security("sign_encrypt", "Basic256Sha256");
    const auto user = with_user(encrypt, "alice", "wonderland");
    run_checks(server.port(), {
        {"none", "endpoint_validation_check", security("none", "none"), false, no_endpoint},
        {"sign", "endpoint_validation_check", with_user(security("sign", "Basic256Sha256"), "alice", "wonderland"),
         false, no_endpoint},
        {"sign_encrypt right password", "endpoint_validation_check", user, true, ""},
        {"sign_encrypt right password", "connection_check", user, true, ""},
        {"sign_encrypt anonymous", "connection_check", encrypt, false, connect_failed},
    });
}

using InteropSensors = sensor_session;

// node-opcua's diagnostics are on from its start: the first scan defines and reads them all.
TEST_F(InteropSensors, ServerStatusReadsNodeOpcuaStatusAndDiagnostics) {
    const long long before_start = unix_now();
    node_server server(json::object());
    ASSERT_EQ(host_->create_sensor(1, test_support::credential_data("server_status_sensor", server.port())), 0);
    EXPECT_EQ(take().definition_ids(), (std::vector<int>{0, 1}));
    const sent s = scan(1);
    EXPECT_EQ(s.definition_ids(), (std::vector<int>{2, 9, 4, 5, 3, 6, 7, 8}));
    const auto result = s.result();
    ASSERT_EQ(result.at("response_code"), 0) << result.dump();
    const auto values = integers(result);
    ASSERT_EQ(values.size(), 10u) << result.dump();
    EXPECT_EQ(values.at(0), 0) << "Running";
    EXPECT_GE(values.at(1), 0);
    EXPECT_LE(values.at(1), unix_now() - before_start + 1);
    EXPECT_GE(values.at(2), 1) << "the sensor's own session";
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
        json options;
        int self_signed, chain, key_bits;
    } cases[] = {
        {json::object(), 1, 1, 2048},
        {{{"certificateFile", certificate_file.string()}, {"privateKeyFile", key_file.string()}}, 0, 2, 3072},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.chain);
        node_server server(c.options);
        const json& served = server.ready().at("certificate");
        ASSERT_EQ(served.at("chain"), c.chain);
        ASSERT_EQ(served.at("keyBits"), c.key_bits);
        ASSERT_EQ(host_->create_sensor(c.chain, test_support::credential_data("certificate_sensor", server.port())), 0);
        const long long before = unix_now();
        const auto result = scan(c.chain).result();
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
        EXPECT_EQ(result.at("message").at("text"), "Certificate Common Name: " + served.at("commonName").get<std::string>() +
                                                       " - Certificate Thumbprint: " +
                                                       served.at("thumbprint").get<std::string>());
    }
}

// node-opcua's encoding of every kind the custom sensor reads (server.js, section "custom").
TEST_F(InteropSensors, CustomSensorDefinesAndReadsEveryKind) {
    node_server server(json{{"custom", true}});
    const int ns = server.ready().at("namespaces").at("custom").get<int>();
    // Index 0 is the standard namespace and 1 the server's own: ours must be another.
    ASSERT_GE(ns, 2) << server.ready().dump();
    const std::string nsp = "ns=" + std::to_string(ns) + ";s=";
    // 1970-01-01 is 134774 days after 1601-01-01, the origin of an OPC UA DateTime.
    const std::string date_time = std::to_string(1709210096LL + 134774LL * 86400);
    // A channel's node (with an index into an array, or -1) and what the module must define
    // and report: a value mode, a lookup for booleans, and an integer (a JSON string) or a double.
    struct channel_case {
        int id;
        std::string node;
        int index, value_mode;
        bool boolean;
        std::string integer;
        double floating;
    };
    const struct {
        std::vector<channel_case> channels;
        std::string message_node;  // empty: no sensor message
        int response_code;
        std::string message;
    } sensors[] = {
        {{{1, "Boolean", -1, 1, true, "1", 0}, {2, "BooleanFalse", -1, 1, true, "0", 0},
          {3, "SByte", -1, 1, false, "-100", 0}, {4, "Byte", -1, 1, false, "250", 0},
          {5, "Int16", -1, 1, false, "-30000", 0}, {6, "UInt16", -1, 1, false, "65000", 0},
          {7, "Int32", -1, 1, false, "-2000000000", 0}, {8, "UInt32", -1, 1, false, "4000000000", 0},
          {9, "Int64", -1, 1, false, "-9007199254740993", 0}, {10, "UInt64", -1, 1, false, "9223372036854775807", 0}},
         "", 0, "OK"},
        // Channels 4 and 6 stay off: the ids must follow the channel numbers, not the order.
        {{{1, "Float", -1, 3, false, "", -2.75}, {2, "Double", -1, 3, false, "", 1234.5678},
          {3, "StringNumber", -1, 3, false, "", 12.5}, {5, "LocalizedText", -1, 3, false, "", 7.25},
          {7, "DateTime", -1, 1, false, date_time, 0}, {8, "Int32Array", 0, 1, false, "-5", 0},
          {9, "Int32Array", 2, 1, false, "2147483647", 0}, {10, "DoubleArray", 2, 3, false, "", 1e300}},
         "SensorMessage", 0, "Pump 3 running"},
        // The conversion error is the sensor's message: the server's text must not replace it.
        {{{1, "StringText", -1, 3, false, "", 0}}, "SensorMessage", 3,
         "The sensor cannot parse the received data. The received data must be a numeric value."},
    };
    int sensor_id = 0;
    for (const auto& sensor : sensors) {
        SCOPED_TRACE(++sensor_id);
        std::map<int, std::string> nodes;
        for (const auto& c : sensor.channels)
            nodes[c.id] = c.index < 0 ? nsp + c.node : "'" + nsp + c.node + "'[" + std::to_string(c.index) + "]";
        const std::string message_node = sensor.message_node.empty() ? "" : nsp + sensor.message_node;
        ASSERT_EQ(host_->create_sensor(sensor_id, custom_data(server.port(), nodes, message_node)), 0);
        const auto defs = take().definitions;
        ASSERT_EQ(defs.size(), sensor.channels.size());
        for (std::size_t i = 0; i < defs.size(); ++i) {
            const auto& c = sensor.channels[i];
            expect_fields(defs[i], {{"id", c.id}, {"name", "channel.channel_" + std::to_string(c.id)},
                                    {"display_name", c.node + " (node-opcua)"}, {"value_mode", c.value_mode}});
            EXPECT_EQ(defs[i].value("lookup", std::string()), c.boolean ? "positive_boolean_lookup" : "");
        }
        // The first scan reads names and values, the second the values alone.
        for (int scan_number = 1; scan_number <= 2; ++scan_number) {
            const auto result = scan(sensor_id).result();
            EXPECT_EQ(result.at("response_code"), sensor.response_code) << result.dump();
            EXPECT_EQ(result.at("message").at("text"), sensor.message);
            std::map<int, ordered_json> values;
            for (const auto& v : result.at("channels")) values[v.at("channel_id").get<int>()] = v;
            ASSERT_EQ(values.size(), sensor.response_code == 0 ? sensor.channels.size() : 0u) << result.dump();
            for (const auto& c : sensor.channels) {
                if (sensor.response_code != 0) break;
                const auto& v = values[c.id];
                if (!c.integer.empty())
                    EXPECT_EQ(v.value("integer", ordered_json()), c.integer) << nodes.at(c.id);
                else
                    EXPECT_DOUBLE_EQ(v.value("floating", std::nan("")), c.floating) << nodes.at(c.id);
            }
        }
    }
}

}  // namespace
