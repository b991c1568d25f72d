// Both checks through the built module against node-opcua, a stack nobody here wrote,
// on loopback. ctest runs each TEST in its own process, so each TEST is one server
// configuration with a table of cases: one server start per configuration.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "node_server.h"
#include "support/module_session.h"
#include "support/test_pki.h"

namespace pki = brenholt::monitoring_modules::test_pki;
using nlohmann::json;
using settings_map = std::map<std::string, std::string>;

namespace {

constexpr const char* connect_failed = "The sensor could not connect to the OPC UA server (";
constexpr const char* no_endpoint = "could not find the endpoint on the OPC UA server";

// The client certificate the module presents for Sign and SignAndEncrypt: made once,
// because RSA keys are slow.
struct client_identity {
    std::string certificate;
    std::string key;
    std::string password = "interop-key-pw";
};

const client_identity& identity() {
    static const client_identity made = [] {
        pki::cert_profile profile = pki::leaf_profile("kolv-interop-client");
        profile.subject_alt_names = {"URI:urn:kolv:interop-client"};
        const pki::cert c = pki::make_cert(profile);
        client_identity id;
        id.certificate = c.pem();
        id.key = c.key().private_pem_encrypted(id.password);
        return id;
    }();
    return made;
}

settings_map security(const std::string& mode, const std::string& policy) {
    settings_map s{{"credentials.connection_security.security_mode", mode},
                   {"credentials.connection_security.security_policy", policy}};
    if (mode != "none") {
        s["credentials.connection_security.client_certificate"] = identity().certificate;
        s["credentials.connection_security.client_key"] = identity().key;
        s["credentials.connection_security.client_key_password"] = identity().password;
    }
    return s;
}

settings_map with_user(settings_map s, const std::string& user, const std::string& password) {
    s["credentials.user_authentication.user_auth_mode"] = "username_password";
    s["credentials.user_authentication.user"] = user;
    s["credentials.user_authentication.password"] = password;
    return s;
}

struct check_outcome {
    int code = -1;
    int results = 0;
    bool success = false;
    std::vector<std::string> emergency_lines;  // new since the previous run
};

// One row: a check with its settings and what it must report. `emergency` empty means
// no EMERGENCY line may appear; otherwise exactly one, containing that text.
struct check_case {
    std::string name;
    std::string check;
    settings_map settings;
    bool success;
    std::string emergency;
};

json endpoint_set(const json& ready) {
    json set = json::array();
    for (const auto& e : ready.at("endpoints"))
        set.push_back(e.at("securityMode").get<std::string>() + "/" + e.at("securityPolicy").get<std::string>());
    return set;
}

class InteropChecks : public test_support::module_session {
protected:
    void SetUp() override {
        // CI installs node-opcua; a missing one is a broken setup, not a reason to skip.
        const std::string missing = interop::node_opcua_missing();
        ASSERT_TRUE(missing.empty()) << missing;
        module_session::SetUp();
    }

    // Starts a server and waits until it listens; fails the test with the server's own
    // words when it does not.
    static std::unique_ptr<interop::node_server> start(const json& options) {
        auto server = std::make_unique<interop::node_server>(options);
        server->wait_ready();
        return server;
    }

    check_outcome run(const std::string& kind, int port, const settings_map& changes) {
        check_outcome out;
        auto data = test_support::credential_data(kind, port);
        for (const auto& [key, value] : changes) test_support::put(data, key, value);
        out.code = host_->check(3, data);
        for (const auto& m : host_->take_messages()) {
            if (m.type != "CHECK_RESULT") continue;
            ++out.results;
            EXPECT_EQ(m.body.at("check_id"), 3);
            out.success = m.body.at("success").get<bool>();
        }
        std::size_t seen = 0;
        for (const std::string& line : runtime_log()) {
            const auto at = line.find(" EMERGENCY ");
            if (at == std::string::npos) continue;
            if (seen++ >= emergency_seen_) out.emergency_lines.push_back(line.substr(at + 11));
        }
        emergency_seen_ = seen;
        return out;
    }

    void run_table(int port, const std::vector<check_case>& cases) {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.name + " (" + c.check + ")");
            const auto out = run(c.check, port, c.settings);
            EXPECT_EQ(out.code, 0);
            EXPECT_EQ(out.results, 1);
            EXPECT_EQ(out.success, c.success);
            if (c.emergency.empty()) {
                EXPECT_TRUE(out.emergency_lines.empty()) << out.emergency_lines.front();
            } else {
                EXPECT_EQ(out.emergency_lines.size(), 1u);
                for (const auto& line : out.emergency_lines)
                    EXPECT_NE(line.find(c.emergency), std::string::npos) << line;
            }
        }
    }

    std::size_t emergency_seen_ = 0;
};

const json alice = json::array({{{"user", "alice"}, {"password", "wonderland"}}});

// A server as many are shipped: every mode, None and Basic256Sha256, anonymous and users.
TEST_F(InteropChecks, OpenServerAcceptsEveryOfferedModeAndOnlyTheRightPassword) {
    const auto server = start({{"securityModes", {"None", "Sign", "SignAndEncrypt"}},
                               {"securityPolicies", {"None", "Basic256Sha256"}},
                               {"allowAnonymous", true},
                               {"users", alice}});
    ASSERT_EQ(endpoint_set(server->ready()),
              json({"None/None", "Sign/Basic256Sha256", "SignAndEncrypt/Basic256Sha256"}));

    const auto none = security("none", "none");
    const auto sign = security("sign", "Basic256Sha256");
    const auto encrypt = security("sign_encrypt", "Basic256Sha256");
    const std::vector<check_case> cases = {
        {"none anonymous", "endpoint_validation_check", none, true, ""},
        {"none anonymous", "connection_check", none, true, ""},
        {"none right password", "connection_check", with_user(none, "alice", "wonderland"), true, ""},
        // The endpoint exists whatever the password; only the session fails.
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
    };
    run_table(server->port(), cases);
}

// A hardened server: SignAndEncrypt with Basic256Sha256 only, no anonymous access.
TEST_F(InteropChecks, LockedServerRefusesWhatItDoesNotOffer) {
    const auto server = start({{"securityModes", {"SignAndEncrypt"}},
                               {"securityPolicies", {"Basic256Sha256"}},
                               {"allowAnonymous", false},
                               {"users", alice}});
    ASSERT_EQ(endpoint_set(server->ready()), json({"SignAndEncrypt/Basic256Sha256"}));

    const auto encrypt = security("sign_encrypt", "Basic256Sha256");
    const std::vector<check_case> cases = {
        {"none", "endpoint_validation_check", security("none", "none"), false, no_endpoint},
        {"sign", "endpoint_validation_check", with_user(security("sign", "Basic256Sha256"), "alice", "wonderland"),
         false, no_endpoint},
        {"sign_encrypt right password", "endpoint_validation_check", with_user(encrypt, "alice", "wonderland"), true,
         ""},
        {"sign_encrypt right password", "connection_check", with_user(encrypt, "alice", "wonderland"), true, ""},
        {"sign_encrypt anonymous", "connection_check", encrypt, false, connect_failed},
    };
    run_table(server->port(), cases);
}

// Servers often put a name into their endpoint URLs that differs from the address the
// sensor was given (a host name, a NAT address); the module must use the address it
// was configured with and still match the endpoint.
TEST_F(InteropChecks, EndpointUrlWithAnotherHostNameStillMatches) {
    const auto server = start({{"hostname", "localhost"},
                               {"securityModes", {"None", "SignAndEncrypt"}},
                               {"securityPolicies", {"None", "Basic256Sha256"}}});
    for (const auto& e : server->ready().at("endpoints"))
        ASSERT_EQ(e.at("endpointUrl").get<std::string>().rfind("opc.tcp://localhost:", 0), 0u) << e.dump();

    const auto encrypt = security("sign_encrypt", "Basic256Sha256");
    run_table(server->port(), {{"sign_encrypt", "endpoint_validation_check", encrypt, true, ""},
                               {"sign_encrypt", "connection_check", encrypt, true, ""},
                               {"none", "connection_check", security("none", "none"), true, ""}});
}

// The server answered once and then went away: the cached client must notice.
TEST_F(InteropChecks, ServerGoneFailsConnectionLoudlyAndEndpointCheckQuietly) {
    auto server = start({{"securityModes", {"None"}}, {"securityPolicies", {"None"}}});
    const int port = server->port();
    const auto none = security("none", "none");
    run_table(port, {{"server up", "connection_check", none, true, ""},
                     {"server up", "endpoint_validation_check", none, true, ""}});

    ASSERT_TRUE(server->stop()) << "the server did not stop on SIGTERM";
    server.reset();
    run_table(port, {{"server gone", "connection_check", none, false, connect_failed},
                     {"server gone", "endpoint_validation_check", none, false, ""}});
}

}  // namespace
