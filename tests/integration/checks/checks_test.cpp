// Both checks end to end: the probe's ExecuteCheck on the built module against opcua-sim.
#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "opcua_sim/server.h"
#include "support/module_session.h"
#include "support/test_pki.h"

namespace {

struct check_outcome {
    int code = -1;
    int results = 0;
    bool success = false;
    std::vector<std::string> emergency_lines;
};

// Nothing listens on port 1 of loopback.
constexpr int closed_port = 1;

class Checks : public test_support::module_session {
protected:
    static void SetUpTestSuite() {
        opcua_sim::options o;
        o.users = {{"alice", "wonderland"}};
        server_ = new opcua_sim::server(o);
        server_->start();
        opcua_sim::options only_none;
        only_none.endpoints = {{opcua_sim::security_policy::none, opcua_sim::security_mode::none}};
        plain_server_ = new opcua_sim::server(only_none);
        plain_server_->start();
    }
    static void TearDownTestSuite() { delete server_; delete plain_server_; }

    check_outcome run(const std::string& kind, int port, const std::map<std::string, std::string>& changes = {}) {
        auto d = test_support::credential_data(kind, port);
        for (const auto& [k, v] : changes) test_support::put(d, k, v);
        check_outcome out;
        out.code = host_->check(3, d);
        for (const auto& m : host_->take_messages()) {
            if (m.type != "CHECK_RESULT") continue;
            ++out.results;
            EXPECT_EQ(m.body.at("check_id"), 3);
            out.success = m.body.at("success").get<bool>();
        }
        // A failed check's text goes to the runtime log only.
        for (const std::string& line : runtime_log()) {
            const auto at = line.find(" EMERGENCY ");
            if (at != std::string::npos) out.emergency_lines.push_back(line.substr(at + 11));
        }
        return out;
    }

    static opcua_sim::server* server_;
    static opcua_sim::server* plain_server_;
};

opcua_sim::server* Checks::server_ = nullptr;
opcua_sim::server* Checks::plain_server_ = nullptr;

TEST_F(Checks, ServerDownFailsConnectionCheckLoudlyAndEndpointCheckQuietly) {
    auto out = run("connection_check", closed_port);
    EXPECT_EQ(out.results, 1);
    EXPECT_FALSE(out.success);
    ASSERT_EQ(out.emergency_lines.size(), 1u);
    EXPECT_EQ(out.emergency_lines[0].rfind("The sensor could not connect to the OPC UA server (", 0), 0u)
        << out.emergency_lines[0];

    out = run("endpoint_validation_check", closed_port);
    EXPECT_EQ(out.results, 1);
    EXPECT_FALSE(out.success);
    EXPECT_EQ(out.emergency_lines.size(), 1u) << "no new line from the endpoint check";
}

TEST_F(Checks, ConnectionNeedsTheRightPasswordTheEndpointCheckDoesNot) {
    auto out = run("connection_check", server_->port());
    EXPECT_EQ(out.code, 0);
    EXPECT_EQ(out.results, 1);
    EXPECT_TRUE(out.success) << "anonymous";
    EXPECT_TRUE(out.emergency_lines.empty());

    std::map<std::string, std::string> login = {{"credentials.user_authentication.user_auth_mode", "username_password"},
                                                {"credentials.user_authentication.user", "alice"},
                                                {"credentials.user_authentication.password", "not-her-password"}};
    out = run("endpoint_validation_check", server_->port(), login);
    EXPECT_TRUE(out.success);
    EXPECT_TRUE(out.emergency_lines.empty());
    out = run("connection_check", server_->port(), login);
    EXPECT_FALSE(out.success);
    EXPECT_EQ(out.emergency_lines.size(), 1u);

    login["credentials.user_authentication.password"] = "wonderland";
    EXPECT_TRUE(run("connection_check", server_->port(), login).success);
}

TEST_F(Checks, NoFittingEndpointFailsWithTheMatchingText) {
    namespace pki = brenholt::monitoring_modules::test_pki;
    pki::cert_profile profile = pki::leaf_profile("kolv-check-client");
    profile.subject_alt_names = {"URI:urn:kolv:check-client"};
    const pki::cert made = pki::make_cert(profile);
    const auto out = run("endpoint_validation_check", plain_server_->port(),
                         {{"credentials.connection_security.security_mode", "sign_encrypt"},
                          {"credentials.connection_security.security_policy", "Basic256Sha256"},
                          {"credentials.connection_security.client_certificate", made.pem()},
                          {"credentials.connection_security.client_key", made.key().private_pem_encrypted("pw")},
                          {"credentials.connection_security.client_key_password", "pw"}});
    EXPECT_EQ(out.results, 1);
    EXPECT_FALSE(out.success);
    ASSERT_EQ(out.emergency_lines.size(), 1u);
    EXPECT_NE(out.emergency_lines[0].find("could not find the endpoint on the OPC UA server"), std::string::npos)
        << out.emergency_lines[0];
}

TEST_F(Checks, BadSettingFailsTheCallWithoutAResult) {
    const auto out = run("connection_check", server_->port(), {{"credentials.connection_opcua.port", "0"}});
    EXPECT_EQ(out.code, 2);
    EXPECT_EQ(out.results, 0);
}

}  // namespace
