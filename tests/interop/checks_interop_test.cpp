// Both checks through the built module against node-opcua, a stack nobody here wrote,
// on loopback. ctest runs each TEST in its own process, so each TEST is one server
// configuration with a table of cases: one server start per configuration.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "integration/check_session.h"
#include "node_server.h"

using namespace integration;
using nlohmann::json;

namespace {

json endpoint_set(const json& ready) {
    json set = json::array();
    for (const auto& e : ready.at("endpoints"))
        set.push_back(e.at("securityMode").get<std::string>() + "/" + e.at("securityPolicy").get<std::string>());
    return set;
}

using InteropChecks = check_session;

const json alice = json::array({{{"user", "alice"}, {"password", "wonderland"}}});

// A server as many are shipped: every mode, None and Basic256Sha256, anonymous and users.
// Its endpoint URLs name "localhost", not the address the sensor was given (as behind a
// NAT or with a host name): the module must still match them.
TEST_F(InteropChecks, OpenServerAcceptsEveryOfferedModeAndOnlyTheRightPassword) {
    const auto server = interop::start({{"hostname", "localhost"}, {"users", alice}});
    ASSERT_EQ(endpoint_set(server->ready()),
              json({"None/None", "Sign/Basic256Sha256", "SignAndEncrypt/Basic256Sha256"}));
    for (const auto& e : server->ready().at("endpoints"))
        ASSERT_EQ(e.at("endpointUrl").get<std::string>().rfind("opc.tcp://localhost:", 0), 0u) << e.dump();

    const auto none = security("none", "none");
    const auto sign = security("sign", "Basic256Sha256");
    const auto encrypt = security("sign_encrypt", "Basic256Sha256");
    run_checks(server->port(), {
        {"none anonymous", "endpoint_validation_check", none, true, ""},
        {"none anonymous", "connection_check", none, true, ""},
        {"none right password", "connection_check", with_user(none, "alice", "wonderland"), true, ""},
        {"none wrong password", "endpoint_validation_check", with_user(none, "alice", "wrong"), true, ""},
        {"none wrong password", "connection_check", with_user(none, "alice", "wrong"), false, connect_failed},
        {"none unknown user", "connection_check", with_user(none, "mallory", "wonderland"), false, connect_failed},
        {"sign anonymous", "endpoint_validation_check", sign, true, ""},
        {"sign anonymous", "connection_check", sign, true, ""},
        {"sign right password", "connection_check", with_user(sign, "alice", "wonderland"), true, ""},
        {"sign_encrypt anonymous", "endpoint_validation_check", encrypt, true, ""},
        {"sign_encrypt anonymous", "connection_check", encrypt, true, ""},
        {"sign_encrypt right password", "connection_check", with_user(encrypt, "alice", "wonderland"), true, ""},
        {"sign_encrypt wrong password", "connection_check", with_user(encrypt, "alice", "wrong"), false,
         connect_failed},
    });
}

// A hardened server: SignAndEncrypt with Basic256Sha256 only, no anonymous access.
TEST_F(InteropChecks, LockedServerRefusesWhatItDoesNotOffer) {
    const auto server = interop::start({{"securityModes", {"SignAndEncrypt"}},
                               {"securityPolicies", {"Basic256Sha256"}},
                               {"allowAnonymous", false},
                               {"users", alice}});
    ASSERT_EQ(endpoint_set(server->ready()), json({"SignAndEncrypt/Basic256Sha256"}));

    const auto encrypt = security("sign_encrypt", "Basic256Sha256");
    run_checks(server->port(), {
        {"none", "endpoint_validation_check", security("none", "none"), false, no_endpoint},
        {"sign", "endpoint_validation_check", with_user(security("sign", "Basic256Sha256"), "alice", "wonderland"),
         false, no_endpoint},
        {"sign_encrypt right password", "endpoint_validation_check", with_user(encrypt, "alice", "wonderland"), true,
         ""},
        {"sign_encrypt right password", "connection_check", with_user(encrypt, "alice", "wonderland"), true, ""},
        {"sign_encrypt anonymous", "connection_check", encrypt, false, connect_failed},
    });
}

// A plant server that trusts no client certificate until an operator accepts it.
// Discovery must not need that trust: both checks and the certificate sensor work in mode
// none, with either identity, and leave nothing in the server's rejected folder. A signed
// connection is refused, and its certificate lands in the folder watched here.
TEST_F(InteropChecks, StrictServerAnswersDiscoveryWithoutTrustingTheClient) {
    const auto server = interop::start({{"trustUnknownClients", false}, {"users", alice}});
    const auto rejected =
        std::filesystem::path(server->ready().at("pkiDir").get<std::string>()) / "server" / "rejected";
    const auto rejected_count = [&] {
        std::error_code ignored;
        std::size_t n = 0;
        for (const auto& entry : std::filesystem::directory_iterator(rejected, ignored))
            n += entry.is_regular_file() ? 1 : 0;
        return n;
    };

    const auto none = security("none", "none");
    const auto user = with_user(none, "alice", "wonderland");
    const auto sign = security("sign", "Basic256Sha256");
    run_checks(server->port(), {
        {"none anonymous", "endpoint_validation_check", none, true, ""},
        {"none anonymous", "connection_check", none, true, ""},
        {"none user", "endpoint_validation_check", user, true, ""},
        {"none user", "connection_check", user, true, ""},
        // Only the list is asked for: the signed endpoint is found without a signed channel.
        {"sign anonymous", "endpoint_validation_check", sign, true, ""},
    });

    int id = 20;
    for (const auto* identity : {&none, &user}) {
        SCOPED_TRACE(id);
        auto data = test_support::credential_data("certificate_sensor", server->port());
        for (const auto& [key, value] : *identity) test_support::put(data, key, value);
        ASSERT_EQ(host_->create_sensor(id, data), 0);
        host_->take_messages();
        ASSERT_EQ(host_->scan(id), 0);
        int results = 0;
        for (const auto& m : host_->take_messages()) {
            if (m.type != "SENSOR_SCAN_RESULT") continue;
            ++results;
            EXPECT_EQ(m.body.at("response_code"), 0) << m.body.dump();
            EXPECT_NE(m.body.dump().find(server->ready().at("certificate").at("thumbprint").get<std::string>()),
                      std::string::npos)
                << m.body.dump();
        }
        EXPECT_EQ(results, 1);
        EXPECT_EQ(host_->destroy(id++), 0);
    }
    EXPECT_EQ(rejected_count(), 0u);

    run_checks(server->port(), {{"sign anonymous", "connection_check", sign, false, connect_failed}});
    EXPECT_GE(rejected_count(), 1u);
}

}  // namespace
