// The certificate sensor end to end: CreateSensorInstance and scans through the built
// module against opcua-sim servers with certificates made for each case.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "opcua_sim/server.h"
#include "support/module_session.h"
#include "support/test_pki.h"

namespace pki = brenholt::monitoring_modules::test_pki;
using nlohmann::ordered_json;

namespace {

std::string sha1_hex(const opcua_sim::bytes& der) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(der.data(), der.size(), digest, &length, EVP_sha1(), nullptr) != 1) return "digest failed";
    std::string out;
    char two[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(two, sizeof two, "%02x", digest[i]);
        out += two;
    }
    return out;
}

// Whether the log has a line of this severity whose text is exactly `text`.
std::size_t count_lines(const std::vector<std::string>& lines, const std::string& severity, const std::string& text) {
    const std::string tail = " " + severity + " " + text;
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.size() >= tail.size() && line.compare(line.size() - tail.size(), tail.size(), tail) == 0;
    }));
}

std::size_t count_containing(const std::vector<std::string>& lines, const std::string& part) {
    return static_cast<std::size_t>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
        return line.find(part) != std::string::npos;
    }));
}

std::map<int, long> values_of(const ordered_json& result) {
    std::map<int, long> out;
    for (const auto& c : result.at("channels"))
        out[c.at("channel_id").get<int>()] = std::stol(c.at("integer").get<std::string>());
    return out;
}

class CertificateSensor : public test_support::module_session {
protected:
    static brenholt::vuro::wire::SensorData data(int port) {
        auto d = test_support::credential_data("certificate_sensor", port);
        (*d.mutable_settings())["logging"] = "enabled";
        // A closed port must fail quickly, not after the default time-out.
        (*d.mutable_settings())["timeout"] = "3";
        return d;
    }

    std::vector<ordered_json> take(const std::string& type) {
        std::vector<ordered_json> out;
        for (auto& m : host_->take_messages())
            if (m.type == type) out.push_back(m.body);
        return out;
    }

    // One scan and its one result.
    ordered_json scan(int id) {
        host_->take_messages();
        EXPECT_EQ(host_->scan(id), 0);
        auto results = take("SENSOR_SCAN_RESULT");
        if (results.size() != 1) {
            ADD_FAILURE() << "expected one result, got " << results.size();
            return ordered_json::object();
        }
        return results[0];
    }

    static std::unique_ptr<opcua_sim::server> start_server(const opcua_sim::certificate_options& certificate,
                                                           bool none_only = false) {
        opcua_sim::options o;
        o.certificate = certificate;
        if (none_only) o.endpoints = {opcua_sim::endpoint_option{}};
        auto server = std::make_unique<opcua_sim::server>(o);
        server->start();
        return server;
    }

    static std::uint16_t closed_port() {
        opcua_sim::server stopped(opcua_sim::options{});
        stopped.start();
        const std::uint16_t port = stopped.port();
        stopped.stop();
        return port;
    }
};

TEST_F(CertificateSensor, DefinesThreeChannelsWithLimitsWithoutTouchingTheServer) {
    // Creation reads nothing, so it succeeds even where no server listens.
    ASSERT_EQ(host_->create_sensor(1, data(closed_port())), 0);
    const auto defs = take("DYNAMIC_CHANNEL");
    ASSERT_EQ(defs.size(), 3u);

    const struct {
        int id;
        const char* name;
        int unit;
        const char* custom_unit;
        const char* lookup;
        bool limits;
        double warning;
        double error;
    } expected[] = {
        {0, "channel.expire_in", 8, "day(s)", "", true, 28.0, 7.0},
        {1, "channel.public_key_length", 8, "bit", "", true, 1025.0, 1024.0},
        {2, "channel.self_signed", 0, "", "self_signed_certificate", false, 0, 0},
    };
    for (std::size_t i = 0; i < 3; ++i) {
        const auto& e = expected[i];
        const auto& d = defs[i];
        SCOPED_TRACE(e.name);
        EXPECT_EQ(d.at("sensor_id"), 1);
        EXPECT_EQ(d.at("id"), e.id);
        EXPECT_EQ(d.at("name"), e.name);
        EXPECT_EQ(d.at("value_mode"), 1);
        EXPECT_EQ(d.at("unit"), e.unit);
        EXPECT_EQ(d.at("custom_unit"), e.custom_unit);
        EXPECT_EQ(d.at("lookup"), e.lookup);
        EXPECT_DOUBLE_EQ(d.at("scale_factor").get<double>(), 1.0);
        EXPECT_EQ(d.at("limits_enabled"), e.limits);
        EXPECT_EQ(d.at("lower_warning_limit").at("is_set"), e.limits);
        EXPECT_EQ(d.at("lower_error_limit").at("is_set"), e.limits);
        if (e.limits) {
            EXPECT_DOUBLE_EQ(d.at("lower_warning_limit").at("value").get<double>(), e.warning);
            EXPECT_DOUBLE_EQ(d.at("lower_error_limit").at("value").get<double>(), e.error);
        }
        EXPECT_EQ(d.at("upper_warning_limit").at("is_set"), false);
        EXPECT_EQ(d.at("upper_error_limit").at("is_set"), false);
    }

    // Nothing listens: the scan fails with the discovery text and reports no value.
    const auto result = scan(1);
    EXPECT_EQ(result.at("response_code"), 3);
    EXPECT_EQ(result.at("message").at("key").get<std::string>().rfind("#:error.opcua_discovery_failed[", 0), 0u)
        << result.dump();
    EXPECT_TRUE(result.at("channels").empty());
    EXPECT_EQ(host_->destroy(1), 0);
}

TEST_F(CertificateSensor, ReportsDaysKeyLengthSelfSignedNameAndThumbprint) {
    const struct {
        int key_bits;
        int valid_days;
        const char* common_name;
        const char* escaped_name;  // as the encoded key carries it
        bool none_only;
    } cases[] = {
        {2048, 30, "sim-30-days", "sim-30-days", false},
        // Expired: the sensor still reports, the limit raises the alarm.
        {2048, -3, "sim-expired", "sim-expired", false},
        // Too short for Basic256Sha256: discovery falls back to an unsecured channel.
        {1024, 365, "Plant, Line 4", "Plant\\, Line 4", false},
    };
    int id = 10;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.common_name);
        opcua_sim::certificate_options cert;
        cert.generate.key_bits = c.key_bits;
        cert.generate.valid_days = c.valid_days;
        cert.generate.common_name = c.common_name;
        const auto server = start_server(cert, c.none_only);
        const std::string thumbprint = sha1_hex(server->certificate_der());
        ASSERT_EQ(thumbprint.size(), 40u);

        ASSERT_EQ(host_->create_sensor(id, data(server->port())), 0);
        const auto result = scan(id);
        ASSERT_EQ(result.at("response_code"), 0) << result.dump();
        const auto values = values_of(result);
        ASSERT_EQ(values.size(), 3u);
        EXPECT_EQ(values.at(0), c.valid_days);
        EXPECT_EQ(values.at(1), c.key_bits);
        EXPECT_EQ(values.at(2), 1);
        const std::string key =
            std::string("#:message.certificate_ok[") + c.escaped_name + "," + thumbprint + "]";
        EXPECT_EQ(result.at("message").at("key"), key);
        EXPECT_EQ(result.at("message").at("text"),
                  std::string("Certificate Common Name: ") + c.common_name + " - Certificate Thumbprint: " + thumbprint);

        const auto log = sensor_log(id);
        EXPECT_EQ(count_lines(log, "DEBUG", "Begin reading nodes."), 1u);
        EXPECT_EQ(count_lines(log, "DEBUG", "Response Message is: " + key), 1u);
        EXPECT_EQ(host_->destroy(id), 0);
        ++id;
    }
}

TEST_F(CertificateSensor, CertificateIssuedByACaIsNotSelfSigned) {
    const pki::cert ca = pki::make_cert(pki::ca_profile("KOLV Test CA"));
    const struct {
        const char* common_name;
        const pki::cert* issuer;
        long self_signed;
    } cases[] = {{"server-self-signed", nullptr, 1}, {"server-from-ca", &ca, 0}};
    int id = 20;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.common_name);
        pki::cert_profile profile = pki::leaf_profile(c.common_name);
        profile.key = pki::rsa_key(2048, 2);
        profile.subject_alt_names = {"URI:urn:opcua-sim:server", "DNS:localhost", "IP:127.0.0.1"};
        profile.not_after = pki::from_now(pki::days(10) + std::chrono::hours(1));
        const pki::cert made = pki::make_cert(profile, c.issuer);
        opcua_sim::certificate_options cert;
        cert.certificate_pem = made.pem();
        cert.private_key_pem = made.key().private_pem();
        const auto server = start_server(cert);

        ASSERT_EQ(host_->create_sensor(id, data(server->port())), 0);
        const auto result = scan(id);
        ASSERT_EQ(result.at("response_code"), 0) << result.dump();
        const auto values = values_of(result);
        EXPECT_EQ(values.at(0), 10);
        EXPECT_EQ(values.at(2), c.self_signed);
        EXPECT_EQ(result.at("message").at("text"), std::string("Certificate Common Name: ") + c.common_name +
                                                        " - Certificate Thumbprint: " + sha1_hex(made.der()));
        ++id;
    }
}

TEST_F(CertificateSensor, SensorsWithEqualSettingsEachGetTheirOwnClient) {
    opcua_sim::certificate_options cert;
    cert.generate.common_name = "sim-shared";
    const auto server = start_server(cert);
    ASSERT_EQ(host_->create_sensor(30, data(server->port())), 0);
    ASSERT_EQ(host_->create_sensor(31, data(server->port())), 0);
    for (int id : {30, 31}) {
        SCOPED_TRACE(id);
        const auto log = sensor_log(id);
        EXPECT_EQ(count_lines(log, "DEBUG", "Create OPC-UA client."), 1u);
        EXPECT_EQ(count_lines(log, "DEBUG", "Client creation successful."), 1u);
        // The cache's line names references; a private client has none to count.
        EXPECT_EQ(count_containing(log, "References:"), 0u);
    }

    // A client writes into the logs of its users: a shared one would put sensor 30's
    // discovery into sensor 31's log as well.
    EXPECT_EQ(scan(30).at("response_code"), 0);
    EXPECT_EQ(count_lines(sensor_log(30), "DEBUG", "Fetching endpoints from server."), 1u);
    EXPECT_EQ(count_lines(sensor_log(30), "DEBUG", "Server has 3 endpoints."), 1u);
    EXPECT_EQ(count_lines(sensor_log(31), "DEBUG", "Fetching endpoints from server."), 0u);

    EXPECT_EQ(scan(31).at("response_code"), 0);
    EXPECT_EQ(count_lines(sensor_log(30), "DEBUG", "Fetching endpoints from server."), 1u);
    EXPECT_EQ(count_lines(sensor_log(31), "DEBUG", "Fetching endpoints from server."), 1u);

    // Destroying one leaves the other's client working.
    EXPECT_EQ(host_->destroy(30), 0);
    EXPECT_EQ(scan(31).at("response_code"), 0);
}

TEST_F(CertificateSensor, BadSettingFailsCreationWithAnErrorResult) {
    auto d = data(closed_port());
    (*d.mutable_settings())["credentials.connection_opcua.server_name"] = "a//b";
    EXPECT_NE(host_->create_sensor(40, d), 0);
    std::vector<ordered_json> results, defs;
    for (auto& m : host_->take_messages()) {
        if (m.type == "SENSOR_SCAN_RESULT") results.push_back(m.body);
        if (m.type == "DYNAMIC_CHANNEL") defs.push_back(m.body);
    }
    EXPECT_TRUE(defs.empty());
    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].at("sensor_id"), 40);
    EXPECT_EQ(results[0].at("response_code"), 3);
    EXPECT_EQ(results[0].at("error_code"), 0);
    EXPECT_EQ(results[0].at("message").at("key"), "#:error.invalid_servername[]");
    EXPECT_EQ(count_lines(sensor_log(40), "ERROR",
                          "Exception during creation of OPC-UA client: "
                          "The server path specified in the credentials is invalid."),
              1u);
}

}  // namespace
