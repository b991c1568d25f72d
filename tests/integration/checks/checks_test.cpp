// Both checks end to end: the probe's ExecuteCheck on the built module against opcua-sim.
#include <gtest/gtest.h>

#include <memory>

#include "integration/check_session.h"
#include "opcua_sim/server.h"

using namespace integration;

namespace {

class Checks : public check_session {
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
        o.strict = true;
        strict_server_ = new opcua_sim::server(o);
        strict_server_->start();
    }
    static void TearDownTestSuite() { delete server_; delete plain_server_; delete strict_server_; }

    static opcua_sim::server* server_;
    static opcua_sim::server* plain_server_;
    static opcua_sim::server* strict_server_;
};

opcua_sim::server* Checks::server_ = nullptr;
opcua_sim::server* Checks::plain_server_ = nullptr;
opcua_sim::server* Checks::strict_server_ = nullptr;

TEST_F(Checks, PasswordsEndpointsAndAbsentServers) {
    const auto none = security("none", "none");
    // Nothing listens on port 1 of loopback: only the connection check says so in the log.
    run_checks(1, {{"server down", "connection_check", none, false, connect_failed},
                   {"server down", "endpoint_validation_check", none, false, ""}});
    // A server that answered once and then went away: no client kept from before may hide it.
    auto gone = std::make_unique<opcua_sim::server>(opcua_sim::options{});
    gone->start();
    const int port = gone->port();
    run_checks(port, {{"server up", "connection_check", none, true, ""},
                      {"server up", "endpoint_validation_check", none, true, ""}});
    gone.reset();
    run_checks(port, {{"server gone", "connection_check", none, false, connect_failed},
                      {"server gone", "endpoint_validation_check", none, false, ""}});
    // The endpoint exists whatever the password; only the session fails.
    run_checks(server_->port(),
               {{"anonymous", "connection_check", none, true, ""},
                {"wrong password", "endpoint_validation_check", with_user(none, "alice", "not-hers"), true, ""},
                {"wrong password", "connection_check", with_user(none, "alice", "not-hers"), false, connect_failed},
                {"right password", "connection_check", with_user(none, "alice", "wonderland"), true, ""}});
    run_checks(plain_server_->port(), {{"no sign_encrypt endpoint", "endpoint_validation_check",
                                        security("sign_encrypt", "Basic256Sha256"), false, no_endpoint}});
}

// A server that trusts no client certificate it does not know: discovery needs none,
// so every check in mode none passes, and the endpoint check finds the signed endpoint
// that a signed connection cannot use.
TEST_F(Checks, StrictServerAnswersDiscoveryWithoutTrustingTheClient) {
    const auto none = security("none", "none");
    const auto sign = security("sign", "Basic256Sha256");
    run_checks(strict_server_->port(),
               {{"none anonymous", "endpoint_validation_check", none, true, ""},
                {"none anonymous", "connection_check", none, true, ""},
                {"none user", "endpoint_validation_check", with_user(none, "alice", "wonderland"), true, ""},
                {"none user", "connection_check", with_user(none, "alice", "wonderland"), true, ""},
                {"sign", "endpoint_validation_check", sign, true, ""},
                {"sign", "connection_check", sign, false, connect_failed}});
}

TEST_F(Checks, BadSettingFailsTheCallWithoutAResult) {
    auto data = test_support::credential_data("connection_check", server_->port());
    test_support::put(data, "credentials.connection_opcua.port", "0");
    EXPECT_EQ(host_->check(3, data), 2);
    for (const auto& m : host_->take_messages()) EXPECT_NE(m.type, "CHECK_RESULT");
}

}  // namespace
