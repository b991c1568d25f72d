// The certificate sensor end to end: the built module against opcua-sim servers with
// certificates made for each case.
#include <gtest/gtest.h>

#include <openssl/evp.h>

#include <chrono>
#include <memory>
#include <string>

#include "integration/sensor_session.h"
#include "opcua_sim/server.h"
#include "support/test_pki.h"

namespace pki = brenholt::monitoring_modules::test_pki;
using namespace integration;

namespace {

std::string sha1_hex(const opcua_sim::bytes& der) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(der.data(), der.size(), digest, &length, EVP_sha1(), nullptr);
    static const char hex[] = "0123456789abcdef";
    std::string out;
    for (unsigned int i = 0; i < length; ++i) out += {hex[digest[i] >> 4], hex[digest[i] & 15]};
    return out;
}

class CertificateSensor : public sensor_session {
protected:
    static brenholt::vuro::wire::SensorData data(int port) {
        auto d = sensor_data("certificate_sensor", port);
        // A closed port must fail quickly, not after the default time-out.
        (*d.mutable_settings())["timeout"] = "3";
        return d;
    }

    static std::unique_ptr<opcua_sim::server> start_server(const opcua_sim::certificate_options& certificate) {
        opcua_sim::options o;
        o.certificate = certificate;
        auto server = std::make_unique<opcua_sim::server>(o);
        server->start();
        return server;
    }
};

TEST_F(CertificateSensor, DefinesThreeChannelsWithLimitsWithoutTouchingTheServer) {
    // Creation reads nothing, so it succeeds where no server listens.
    ASSERT_EQ(host_->create_sensor(1, data(1)), 0);
    const auto defs = take().definitions;
    const auto expected = ordered_json::parse(R"json([
      {"id": 0, "name": "channel.expire_in", "value_mode": 1, "unit": 8, "custom_unit": "day(s)", "lookup": "",
       "limits_enabled": true, "lower_warning_limit": {"is_set": true, "value": 28},
       "lower_error_limit": {"is_set": true, "value": 7}},
      {"id": 1, "name": "channel.public_key_length", "value_mode": 1, "unit": 8, "custom_unit": "bit", "lookup": "",
       "limits_enabled": true, "lower_warning_limit": {"is_set": true, "value": 1025},
       "lower_error_limit": {"is_set": true, "value": 1024}},
      {"id": 2, "name": "channel.self_signed", "value_mode": 1, "unit": 0, "custom_unit": "",
       "lookup": "self_signed_certificate", "limits_enabled": false, "lower_warning_limit": {"is_set": false},
       "lower_error_limit": {"is_set": false}}
    ])json");
    ASSERT_EQ(defs.size(), expected.size());
    for (std::size_t i = 0; i < defs.size(); ++i) {
        expect_fields(defs[i], expected[i]);
        EXPECT_EQ(defs[i].at("upper_warning_limit").at("is_set"), false);
        EXPECT_EQ(defs[i].at("upper_error_limit").at("is_set"), false);
    }

    // Nothing listens: the scan fails with the discovery text and reports no value.
    const auto result = scan(1).result();
    EXPECT_EQ(result.at("response_code"), 3);
    EXPECT_EQ(result.at("message").at("key").get<std::string>().rfind("#:error.opcua_discovery_failed[", 0), 0u)
        << result.dump();
    EXPECT_TRUE(result.at("channels").empty());
}

TEST_F(CertificateSensor, ReportsDaysKeyLengthSelfSignedNameAndThumbprint) {
    const pki::cert ca = pki::make_cert(pki::ca_profile("KOLV Test CA"));
    const struct {
        int key_bits;
        int valid_days;
        const char* common_name;
        const char* escaped_name;  // as the encoded key carries it
        const pki::cert* issuer;   // null: the simulator makes its own, self-signed
    } cases[] = {
        {2048, 30, "sim-30-days", "sim-30-days", nullptr},
        // Expired: the sensor still reports, the limit raises the alarm.
        {2048, -3, "sim-expired", "sim-expired", nullptr},
        // Too short for Basic256Sha256: discovery falls back to an unsecured channel.
        {1024, 365, "Plant, Line 4", "Plant\\, Line 4", nullptr},
        {2048, 10, "server-from-ca", "server-from-ca", &ca},
    };
    int id = 10;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.common_name);
        opcua_sim::certificate_options cert;
        if (c.issuer) {
            pki::cert_profile profile = pki::leaf_profile(c.common_name);
            profile.key = pki::rsa_key(c.key_bits, 2);
            profile.subject_alt_names = {"URI:urn:opcua-sim:server", "DNS:localhost", "IP:127.0.0.1"};
            profile.not_after = pki::from_now(pki::days(c.valid_days) + std::chrono::hours(1));
            const pki::cert made = pki::make_cert(profile, c.issuer);
            cert.certificate_pem = made.pem();
            cert.private_key_pem = made.key().private_pem();
        } else {
            cert.generate.key_bits = c.key_bits;
            cert.generate.valid_days = c.valid_days;
            cert.generate.common_name = c.common_name;
        }
        const auto server = start_server(cert);
        const std::string thumbprint = sha1_hex(server->certificate_der());

        ASSERT_EQ(host_->create_sensor(id, data(server->port())), 0);
        const auto result = scan(id).result();
        ASSERT_EQ(result.at("response_code"), 0) << result.dump();
        const std::map<int, long long> values{{0, c.valid_days}, {1, c.key_bits}, {2, c.issuer ? 0 : 1}};
        EXPECT_EQ(integers(result), values);
        EXPECT_EQ(result.at("message").at("key"),
                  std::string("#:message.certificate_ok[") + c.escaped_name + "," + thumbprint + "]");
        EXPECT_EQ(result.at("message").at("text"), std::string("Certificate Common Name: ") + c.common_name +
                                                        " - Certificate Thumbprint: " + thumbprint);
        EXPECT_EQ(host_->destroy(id), 0);
        ++id;
    }
}

TEST_F(CertificateSensor, SensorsWithEqualSettingsEachGetTheirOwnClient) {
    const auto server = start_server({});
    ASSERT_EQ(host_->create_sensor(30, data(server->port())), 0);
    ASSERT_EQ(host_->create_sensor(31, data(server->port())), 0);
    // A client writes into the logs of its users: a shared one would put sensor 30's
    // discovery into sensor 31's log as well.
    const std::string fetching = "Fetching endpoints from server.";
    EXPECT_EQ(scan(30).result().at("response_code"), 0);
    EXPECT_EQ(count_lines(30, "DEBUG", fetching), 1u);
    EXPECT_EQ(count_lines(30, "DEBUG", "Server has 3 endpoints."), 1u);
    EXPECT_EQ(count_lines(31, "DEBUG", fetching), 0u);

    EXPECT_EQ(scan(31).result().at("response_code"), 0);
    EXPECT_EQ(count_lines(30, "DEBUG", fetching), 1u);
    EXPECT_EQ(count_lines(31, "DEBUG", fetching), 1u);

    // Destroying one leaves the other's client working.
    EXPECT_EQ(host_->destroy(30), 0);
    EXPECT_EQ(scan(31).result().at("response_code"), 0);
}

}  // namespace
