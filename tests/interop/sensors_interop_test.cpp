// The server status, certificate and Beckhoff sensors through the built module against
// node-opcua (server.js). Values change through the server's command lines between
// scans, so each TEST needs one server start, the certificate TEST one per certificate.
#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "node_server.h"
#include "support/module_session.h"
#include "support/test_pki.h"

namespace pki = brenholt::monitoring_modules::test_pki;
using nlohmann::json;
using nlohmann::ordered_json;

namespace {

// What one call into the module sent.
struct sent {
    std::vector<int> defined;  // DYNAMIC_CHANNEL ids, in order
    std::vector<ordered_json> results;
};

std::map<int, std::string> values_of(const ordered_json& result) {
    std::map<int, std::string> out;
    for (const auto& c : result.at("channels")) out[c.at("channel_id").get<int>()] = c.at("integer").get<std::string>();
    return out;
}

long long unix_now() {
    return std::chrono::duration_cast<std::chrono::seconds>(std::chrono::system_clock::now().time_since_epoch())
        .count();
}

class InteropSensors : public test_support::module_session {
protected:
    static std::unique_ptr<interop::node_server> start(json options) {
        options["securityModes"] = {"None"};
        options["securityPolicies"] = {"None"};
        auto server = std::make_unique<interop::node_server>(options);
        server->wait_ready();
        return server;
    }

    sent take() {
        sent out;
        for (auto& m : host_->take_messages()) {
            if (m.type == "DYNAMIC_CHANNEL") out.defined.push_back(m.body.at("id").get<int>());
            if (m.type == "SENSOR_SCAN_RESULT") out.results.push_back(m.body);
        }
        return out;
    }

    sent scan(int id) {
        EXPECT_EQ(host_->scan(id), 0);
        sent s = take();
        EXPECT_EQ(s.results.size(), 1u);
        if (s.results.empty()) s.results.push_back({{"response_code", -1}, {"channels", ordered_json::array()}});
        return s;
    }
};

TEST_F(InteropSensors, ServerStatusFollowsNodeOpcuaDiagnosticsSwitch) {
    const long long before_start = unix_now();
    const auto server = start({{"diagnostics", false}});
    ASSERT_EQ(host_->create_sensor(1, test_support::credential_data("server_status_sensor", server->port())), 0);
    EXPECT_EQ(take().defined, (std::vector<int>{0, 1}));

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
        EXPECT_EQ(s.defined, step.defined);
        const auto& result = s.results[0];
        ASSERT_EQ(result.at("response_code"), step.response_code) << result.dump();
        const auto values = values_of(result);
        ASSERT_EQ(values.size(), step.values) << result.dump();
        if (step.response_code != 0) {
            EXPECT_EQ(result.at("message").at("key"), "#:error.opcua_read_failed[BadNotReadable]");
            continue;
        }
        EXPECT_EQ(result.at("message").at("key"), "OK");
        EXPECT_EQ(values.at(0), "0") << "Running";
        EXPECT_GE(std::stoll(values.at(1)), 0);
        EXPECT_LE(std::stoll(values.at(1)), unix_now() - before_start + 1);
        if (step.diagnostics) {
            EXPECT_GE(std::stoll(values.at(2)), 1) << "the sensor's own session";
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

    const struct {
        const char* name;
        json options;
        const char* common_name;  // empty: node-opcua's own, taken from the ready line
        int key_bits;             // 0: taken from the ready line
        long long days;           // -1: from the notAfter of the ready line
        const char* self_signed;
        int chain;  // certificates in the endpoints' ServerCertificate
    } cases[] = {
        {"node-opcua's own", json::object(), "", 0, -1, "1", 1},
        {"issued by a CA",
         {{"certificateFile", certificate_file.string()}, {"privateKeyFile", key_file.string()}},
         "interop server from CA", 3072, 20, "0", 2},
    };
    int id = 10;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto server = start(c.options);
        const json& served = server->ready().at("certificate");
        const std::string common_name = *c.common_name ? c.common_name : served.at("commonName").get<std::string>();
        ASSERT_EQ(served.at("commonName"), common_name) << "node-opcua serves another certificate";
        ASSERT_EQ(served.at("thumbprint").get<std::string>().size(), 40u);
        ASSERT_EQ(served.at("chain"), c.chain);

        ASSERT_EQ(host_->create_sensor(id, test_support::credential_data("certificate_sensor", server->port())), 0);
        const long long before = unix_now();
        const auto result = scan(id).results[0];
        const long long after = unix_now();
        ASSERT_EQ(result.at("response_code"), 0) << result.dump();
        const auto values = values_of(result);
        ASSERT_EQ(values.size(), 3u);
        const long long not_after = served.at("notAfter").get<long long>();
        if (c.days >= 0) {
            EXPECT_EQ(values.at(0), std::to_string(c.days));
        } else {
            // Whole days left, cut towards zero; the scan's clock lies between the two reads.
            const long long days = std::stoll(values.at(0));
            EXPECT_GE(days, (not_after - after) / 86400);
            EXPECT_LE(days, (not_after - before) / 86400);
        }
        EXPECT_EQ(values.at(1), std::to_string(c.key_bits ? c.key_bits : served.at("keyBits").get<int>()));
        EXPECT_EQ(values.at(2), c.self_signed);
        EXPECT_EQ(result.at("message").at("text"), "Certificate Common Name: " + common_name +
                                                        " - Certificate Thumbprint: " +
                                                        served.at("thumbprint").get<std::string>());
        EXPECT_EQ(host_->destroy(id++), 0);
    }
}

TEST_F(InteropSensors, BeckhoffSensorReadsTheDeviceVariablesFromNodeOpcua) {
    const auto server = start({{"beckhoff", true}});
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
        std::map<int, std::string> values;
        std::string message;
    } cases[] = {
        // 66.67 % rounds up.
        {"healthy", json::object(), {{0, "17"}, {1, "-5"}, {2, "41"}, {3, "2000"}, {4, "67"}, {5, "1"}}, "OK"},
        // 16 GiB: the narrow pair sticks at 0x7fffffff and the 64-bit pair counts; 37.5 % rounds up.
        {"saturated memory",
         {{"memory", {{"size", 16LL << 30}, {"available", 6LL << 30}}}},
         {{0, "17"}, {1, "-5"}, {2, "41"}, {3, std::to_string(6LL << 30)}, {4, "38"}, {5, "1"}},
         "OK"},
        {"RAID offline, bus degraded",
         {{"raid_state", 3}, {"raid_offline_reason", 2}},
         {{0, "17"}, {1, "-5"}, {2, "41"}, {3, "2000"}, {4, "67"}, {5, "3"}},
         "The physical interface of the SAS or SATA domain does not work properly."},
    };
    const auto data = test_support::credential_data("beckhoff_ipc_system_status_sensor", server->port());
    ASSERT_EQ(host_->create_sensor(20, data), 0);
    EXPECT_EQ(take().defined, (std::vector<int>{0, 1, 2, 3, 4, 5}));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        json values = healthy;
        values.update(c.changes);
        server->command({{"set", values}});
        const auto result = scan(20).results[0];
        EXPECT_EQ(result.at("response_code"), 0) << result.dump();
        EXPECT_EQ(result.at("message").at("text"), c.message);
        EXPECT_EQ(values_of(result), c.values);
    }
    EXPECT_EQ(host_->destroy(20), 0);
}

}  // namespace
