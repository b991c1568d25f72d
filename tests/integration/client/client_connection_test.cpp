// client_open62541 against opcua-sim on loopback: session life cycle, security modes with
// generated and given certificates, user names, discovery and the server's certificate.

#include "client/client_open62541.h"
#include "client/exceptions.h"
#include "libcertificatehelper/source/exceptions.h"
#include "module/framework/service_container.h"
#include "opcua_sim/server.h"
#include "support/test_pki.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

using namespace brenholt::monitoring_modules;
using opcua::client_open62541;
using opcua::client_settings;
namespace cfg = opcua::settings;
namespace errors = opcua::exceptions;
namespace cert_errors = libcertificatehelper::exceptions;

namespace {

const std::string server_path = "client/test";
const std::string client_uri = "urn:kolv:test-client";
const std::string key_password = "key-pass";
constexpr int server_valid_days = 100;
constexpr int server_key_bits = 2048;

using line = std::pair<liblog::severity, std::string>;

std::vector<line> lines_of(const liblog::memory_logger& log) {
    auto entries = log.entries();
    return {entries.begin(), entries.end()};
}

bool has_line(const liblog::memory_logger& log, liblog::severity level, const std::string& text) {
    const auto all = lines_of(log);
    return std::find(all.begin(), all.end(), line{level, text}) != all.end();
}

std::size_t count_starting(const liblog::memory_logger& log, const std::string& prefix) {
    const auto all = lines_of(log);
    return std::count_if(all.begin(), all.end(), [&](const line& l) { return l.second.rfind(prefix, 0) == 0; });
}

std::string sha1_hex(const std::vector<std::uint8_t>& der) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(der.data(), der.size(), digest, &length, EVP_sha1(), nullptr);
    std::string out;
    char hex[3];
    for (unsigned int i = 0; i < length; ++i) {
        std::snprintf(hex, sizeof hex, "%02x", digest[i]);
        out += hex;
    }
    return out;
}

struct client_pem {
    std::string certificate;
    std::string key;
};

client_pem make_client_certificate(std::vector<std::string> alt_names,
                                   std::optional<std::string> key_usage = std::nullopt) {
    test_pki::cert_profile profile = test_pki::leaf_profile("kolv-test-client");
    profile.subject_alt_names = std::move(alt_names);
    if (key_usage) profile.key_usage = *key_usage;
    test_pki::cert made = test_pki::make_cert(profile);
    return {made.pem(), made.key().private_pem_encrypted(key_password)};
}

class ClientAgainstSim : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        opcua_sim::options options;
        options.path = server_path;
        options.users = {{"alice", "secret"}};
        options.certificate.generate.key_bits = server_key_bits;
        options.certificate.generate.valid_days = server_valid_days;
        options.certificate.generate.common_name = "sim-known-cert";
        sim_ = new opcua_sim::server(options);
        sim_->start();
    }
    static void TearDownTestSuite() {
        delete sim_;
        sim_ = nullptr;
    }

    static client_settings settings(cfg::security_mode mode = cfg::security_mode::none,
                                    const client_pem& pem = {}) {
        client_settings s;
        s.host = "127.0.0.1";
        s.port = sim_->port();
        s.server_path = server_path;
        s.security_mode = mode;
        if (mode != cfg::security_mode::none) {
            s.security_policy = cfg::security_policy::basic256sha256;
            s.client_certificate = pem.certificate;
            s.client_key = pem.key;
            s.client_key_password = client_settings::secure_string(key_password);
        }
        return s;
    }

    std::unique_ptr<client_open62541> make(const client_settings& s,
                                           std::weak_ptr<libvurohelper::module::service_container> services = {}) {
        auto client = std::make_unique<client_open62541>(s, std::move(services));
        client->add_logger(log_, liblog::debug);
        return client;
    }

    std::string endpoint_text(const std::string& mode, const std::string& policy) const {
        return "Endpoint " + sim_->endpoint_url() + " with SecurityMode " + mode +
               " and SecurityPolicy http://opcfoundation.org/UA/SecurityPolicy#" + policy;
    }

    static opcua_sim::server* sim_;
    std::shared_ptr<liblog::memory_logger> log_ = std::make_shared<liblog::memory_logger>();
};

opcua_sim::server* ClientAgainstSim::sim_ = nullptr;

// One generated-certificate client walks the whole life cycle, since each new UA_Client
// in mode none costs a new key.
TEST_F(ClientAgainstSim, GeneratedCertificateSessionLifeCycle) {
    auto services = std::make_shared<libvurohelper::module::service_container>();
    services->add_factory(std::function<std::unique_ptr<liblog::log_interface>()>(
        [] { return std::make_unique<liblog::memory_logger>(); }));
    auto client = make(settings(), services);

    EXPECT_FALSE(client->is_connected());
    const std::size_t sessions_before = sim_->session_count();
    client->connect();
    ASSERT_TRUE(client->is_connected());
    EXPECT_EQ(sim_->session_count(), sessions_before + 1);

    client->connect();
    EXPECT_TRUE(client->is_connected());
    EXPECT_EQ(sim_->session_count(), sessions_before + 1);
    EXPECT_EQ(count_starting(*log_, "Using ApplicationUri: "), 1u);
    EXPECT_TRUE(has_line(*log_, liblog::info, "Using ApplicationUri: brenholt_opcua_sensor"));

    // Every policy is listed, each followed by ", ", the last one too.
    const auto all = lines_of(*log_);
    auto policies = std::find_if(all.begin(), all.end(), [](const line& l) {
        return l.second.rfind("Client has ", 0) == 0;
    });
    ASSERT_NE(policies, all.end());
    EXPECT_EQ(policies->first, liblog::info);
    EXPECT_NE(policies->second.find(" security policies available: "), std::string::npos);
    EXPECT_NE(policies->second.find("SecurityPolicy#None, "), std::string::npos);
    EXPECT_NE(policies->second.find("SecurityPolicy#Basic256Sha256, "), std::string::npos);
    EXPECT_EQ(policies->second.substr(policies->second.size() - 2), ", ");

    // The stack's lines come at debug, prefixed, each with its terminating zero kept.
    std::size_t stack_lines = 0;
    for (const line& l : all) {
        if (l.second.rfind("OPC UA Client: ", 0) != 0) continue;
        ++stack_lines;
        EXPECT_EQ(l.first, liblog::debug);
        EXPECT_EQ(l.second.back(), '\0');
    }
    EXPECT_GT(stack_lines, 0u);

    // The runtime log of the container is a child of the client's log.
    auto from_container = std::dynamic_pointer_cast<liblog::memory_logger>(
        services->get_instance<liblog::log_interface>());
    ASSERT_TRUE(from_container);
    EXPECT_GT(count_starting(*from_container, "OPC UA Client: "), 0u);

    // Discovery replaces the UA_Client: the session is gone until the next connect.
    EXPECT_TRUE(client->validate_endpoint());
    EXPECT_FALSE(client->is_connected());
    EXPECT_TRUE(has_line(*log_, liblog::info, "Selected " + endpoint_text("None", "None")));
    client->connect();
    EXPECT_TRUE(client->is_connected());
    EXPECT_EQ(count_starting(*log_, "Using ApplicationUri: "), 3u);
}

TEST_F(ClientAgainstSim, ServerCertificateInfoComesFromTheSelectedEndpoint) {
    auto client = make(settings());
    const opcua::server_certificate_info info = client->get_server_certificate_info();
    EXPECT_EQ(info.days_until_expiry, server_valid_days);
    EXPECT_EQ(info.key_bits, server_key_bits);
    EXPECT_TRUE(info.self_signed);
    EXPECT_EQ(info.common_name, "sim-known-cert");
    EXPECT_EQ(info.thumbprint, sha1_hex(sim_->certificate_der()));
    EXPECT_TRUE(has_line(*log_, liblog::debug, "Fetching endpoints from server."));
    EXPECT_TRUE(has_line(*log_, liblog::debug, "Server has 3 endpoints."));
    EXPECT_FALSE(client->is_connected());
}

TEST_F(ClientAgainstSim, ClosedPortFailsAndEachConnectBuildsANewClient) {
    opcua_sim::server stopped(opcua_sim::options{});
    stopped.start();
    const std::uint16_t closed_port = stopped.port();
    stopped.stop();

    client_settings s = settings();
    s.port = closed_port;
    // A refused connection may be retried by the stack until the time-out; keep it short.
    s.timeout = 1;
    auto client = make(s);
    for (int attempt = 1; attempt <= 2; ++attempt) {
        try {
            client->connect();
            ADD_FAILURE() << "connect to a closed port succeeded";
        } catch (const errors::opcua_connection_failed& e) {
            EXPECT_EQ(std::string(e.what()).rfind("The sensor could not connect to the OPC UA server (Bad", 0), 0u)
                << e.what();
        }
        EXPECT_FALSE(client->is_connected());
        EXPECT_EQ(count_starting(*log_, "Using ApplicationUri: "), static_cast<std::size_t>(attempt));
    }
    // Discovery that cannot reach the server is a plain no.
    EXPECT_FALSE(client->validate_endpoint());
}

class ClientCertificateModes : public ClientAgainstSim,
                               public ::testing::WithParamInterface<std::pair<cfg::security_mode, const char*>> {};

TEST_P(ClientCertificateModes, ConnectsWithTheCertificatesUri) {
    const auto [mode, mode_name] = GetParam();
    auto client = make(settings(mode, make_client_certificate({"URI:" + client_uri, "DNS:localhost"})));
    client->connect();
    EXPECT_TRUE(client->is_connected());
    EXPECT_TRUE(has_line(*log_, liblog::info, "Using ApplicationUri: " + client_uri));
    EXPECT_TRUE(has_line(*log_, liblog::debug, "Available Subject Alternative Names: " + client_uri));
    EXPECT_EQ(count_starting(*log_, "Client certificate defines more than URI"), 0u);

    EXPECT_TRUE(client->validate_endpoint());
    EXPECT_TRUE(has_line(*log_, liblog::info, "Selected " + endpoint_text(mode_name, "Basic256Sha256")));
}

INSTANTIATE_TEST_SUITE_P(Modes, ClientCertificateModes,
                         ::testing::Values(std::make_pair(cfg::security_mode::sign, "Sign"),
                                           std::make_pair(cfg::security_mode::sign_encrypt, "SignAndEncrypt")),
                         [](const auto& info) { return std::string(info.param.second); });

TEST_F(ClientAgainstSim, TwoUrisWarnAndTheFirstIsUsed) {
    auto client = make(settings(cfg::security_mode::sign_encrypt,
                                make_client_certificate({"URI:urn:kolv:first", "URI:urn:kolv:second"})));
    client->connect();
    EXPECT_TRUE(has_line(*log_, liblog::warning,
                         "Client certificate defines more than URI in subject alternative names. This might lead to "
                         "problems. Defined URIs are: urn:kolv:first, urn:kolv:second"));
    EXPECT_TRUE(has_line(*log_, liblog::info, "Using ApplicationUri: urn:kolv:first"));
}

struct certificate_failure {
    const char* name;
    std::function<client_settings(client_settings)> adjust;
    std::function<bool(const std::exception&)> expected;
};

template <typename E>
std::function<bool(const std::exception&)> is() {
    return [](const std::exception& e) { return dynamic_cast<const E*>(&e) != nullptr; };
}

class ClientCertificateFailures : public ClientAgainstSim,
                                  public ::testing::WithParamInterface<certificate_failure> {};

// Bad material is found at the first operation, not when the client is made.
TEST_P(ClientCertificateFailures, RaiseAtFirstOperation) {
    const client_settings s =
        GetParam().adjust(settings(cfg::security_mode::sign, make_client_certificate({"URI:" + client_uri})));
    std::unique_ptr<client_open62541> client;
    ASSERT_NO_THROW(client = make(s));
    try {
        client->connect();
        ADD_FAILURE() << "connect succeeded";
    } catch (const std::exception& e) {
        EXPECT_TRUE(GetParam().expected(e)) << e.what();
    }
    EXPECT_FALSE(client->is_connected());
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ClientCertificateFailures,
    ::testing::Values(
        certificate_failure{"NoUri",
                            [](client_settings s) {
                                auto pem = make_client_certificate({"DNS:localhost"});
                                s.client_certificate = pem.certificate;
                                s.client_key = pem.key;
                                return s;
                            },
                            is<cert_errors::missing_application_uri>()},
        certificate_failure{"NoDataEncipherment",
                            [](client_settings s) {
                                auto pem = make_client_certificate(
                                    {"URI:urn:kolv:x"}, "critical,digitalSignature,nonRepudiation,keyEncipherment");
                                s.client_certificate = pem.certificate;
                                // Not reached: the certificate is refused before the key is read.
                                s.client_key = "not a key";
                                return s;
                            },
                            is<cert_errors::data_encipherment_not_supported>()},
        certificate_failure{"WrongKeyPassword",
                            [](client_settings s) {
                                s.client_key_password = client_settings::secure_string("wrong");
                                return s;
                            },
                            is<cert_errors::could_not_load_private_key>()},
        certificate_failure{"EmptyCertificate",
                            [](client_settings s) {
                                s.client_certificate.clear();
                                return s;
                            },
                            is<cert_errors::certificate_empty>()}),
    [](const ::testing::TestParamInfo<certificate_failure>& info) { return info.param.name; });

TEST_F(ClientAgainstSim, UserNameWithRightAndWrongPassword) {
    client_settings s =
        settings(cfg::security_mode::sign_encrypt, make_client_certificate({"URI:" + client_uri}));
    s.user_auth_mode = cfg::user_auth_mode::username_password;
    s.user = "alice";
    s.password = client_settings::secure_string("secret");
    auto right = make(s);
    right->connect();
    EXPECT_TRUE(right->is_connected());
    EXPECT_TRUE(right->validate_endpoint());
    EXPECT_EQ(count_starting(*log_, "Selected identity token with UserTokenType UserName"), 1u);

    s.password = client_settings::secure_string("not-secret");
    auto wrong = make(s);
    try {
        wrong->connect();
        ADD_FAILURE() << "connect with a wrong password succeeded";
    } catch (const errors::opcua_connection_failed& e) {
        EXPECT_NE(std::string(e.what()).find("(Bad"), std::string::npos) << e.what();
    }
    EXPECT_FALSE(wrong->is_connected());
}

TEST(ClientEndpointMismatch, ServerWithoutFittingEndpointRaises) {
    opcua_sim::options options;
    options.endpoints = {{opcua_sim::security_policy::none, opcua_sim::security_mode::none},
                         {opcua_sim::security_policy::basic256sha256, opcua_sim::security_mode::sign}};
    opcua_sim::server sim(options);
    sim.start();

    client_settings s;
    s.host = "127.0.0.1";
    s.port = sim.port();
    s.security_mode = cfg::security_mode::sign_encrypt;
    s.security_policy = cfg::security_policy::basic256sha256;
    const client_pem pem = make_client_certificate({"URI:" + client_uri});
    s.client_certificate = pem.certificate;
    s.client_key = pem.key;
    s.client_key_password = client_settings::secure_string(key_password);

    auto log = std::make_shared<liblog::memory_logger>();
    client_open62541 client(s, {});
    client.add_logger(log, liblog::debug);
    EXPECT_THROW(client.validate_endpoint(), errors::opcua_matching_endpoint_failed);
    EXPECT_TRUE(has_line(*log, liblog::error, "No matching endpoint found"));
    EXPECT_EQ(count_starting(*log, "Rejecting Endpoint "), 2u);
}

TEST(ClientWithoutServer, UrlAndUntouchedState) {
    client_settings s;
    s.host = "h";
    EXPECT_EQ(client_open62541::build_url(s), "opc.tcp://h:4840/");
    s.port = 4841;
    s.server_path = "a/b";
    EXPECT_EQ(client_open62541::build_url(s), "opc.tcp://h:4841/a/b");

    client_open62541 client(s, {});
    EXPECT_FALSE(client.is_connected());
    EXPECT_EQ(client.get_settings().server_path, "a/b");
    client.add_logger(nullptr, liblog::debug);
    client.remove_logger(nullptr);
}

}  // namespace
