// client_open62541 against opcua-sim on loopback: the session life cycle with a generated
// certificate, given client certificates in both signing modes, and bad certificate material.

#include "client/client_open62541.h"
#include "client/exceptions.h"
#include "libcertificatehelper/source/exceptions.h"
#include "module/framework/service_container.h"
#include "opcua_sim/server.h"
#include "support/test_pki.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

using namespace brenholt::monitoring_modules;
using opcua::client_open62541;
using opcua::client_settings;
namespace cfg = opcua::settings;
namespace cert_errors = libcertificatehelper::exceptions;

namespace {

const std::string server_path = "client/test";
const std::string key_password = "key-pass";

using line = std::pair<liblog::severity, std::string>;

bool has_line(const liblog::memory_logger& log, liblog::severity level, const std::string& text) {
    const auto all = log.entries();
    return std::find(all.begin(), all.end(), line{level, text}) != all.end();
}

std::size_t count_starting(const liblog::memory_logger& log, const std::string& prefix) {
    const auto all = log.entries();
    return std::count_if(all.begin(), all.end(), [&](const line& l) { return l.second.rfind(prefix, 0) == 0; });
}

class ClientAgainstSim : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        opcua_sim::options options;
        options.path = server_path;
        sim_ = new opcua_sim::server(options);
        sim_->start();
    }
    static void TearDownTestSuite() {
        delete sim_;
        sim_ = nullptr;
    }

    // Security mode none, or a signing mode with a certificate that has these alternative
    // names and, if given, this key usage.
    static client_settings settings(cfg::security_mode mode = cfg::security_mode::none,
                                    std::vector<std::string> alt_names = {},
                                    std::optional<std::string> key_usage = std::nullopt) {
        client_settings s;
        s.host = "127.0.0.1";
        s.port = sim_->port();
        s.server_path = server_path;
        s.security_mode = mode;
        if (mode != cfg::security_mode::none) {
            test_pki::cert_profile profile = test_pki::leaf_profile("kolv-test-client");
            profile.subject_alt_names = std::move(alt_names);
            if (key_usage) profile.key_usage = *key_usage;
            const test_pki::cert made = test_pki::make_cert(profile);
            s.security_policy = cfg::security_policy::basic256sha256;
            s.client_certificate = made.pem();
            s.client_key = made.key().private_pem_encrypted(key_password);
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

    const std::size_t sessions_before = sim_->session_count();
    client->connect();
    client->connect();
    EXPECT_TRUE(client->is_connected());
    EXPECT_EQ(sim_->session_count(), sessions_before + 1) << "a live session is kept";
    // Without a certificate of its own the client announces the fixed URI.
    EXPECT_EQ(count_starting(*log_, "Using ApplicationUri: "), 1u);
    EXPECT_TRUE(has_line(*log_, liblog::info, "Using ApplicationUri: brenholt_opcua_sensor"));

    // Every policy is listed, each followed by ", ", the last one too.
    const auto all = log_->entries();
    const auto policies =
        std::find_if(all.begin(), all.end(), [](const line& l) { return l.second.rfind("Client has ", 0) == 0; });
    ASSERT_NE(policies, all.end());
    const std::string& text = policies->second;
    EXPECT_EQ(policies->first, liblog::info);
    EXPECT_TRUE(text.find(" security policies available: ") != std::string::npos &&
                text.find("SecurityPolicy#None, ") != std::string::npos &&
                text.find("SecurityPolicy#Basic256Sha256, ") != std::string::npos &&
                text.substr(text.size() - 2) == ", ")
        << text;

    // The stack's lines come at debug, prefixed, each with its terminating zero kept, and
    // reach the container's runtime log as well.
    std::size_t stack_lines = 0;
    for (const line& l : all) {
        if (l.second.rfind("OPC UA Client: ", 0) != 0) continue;
        ++stack_lines;
        EXPECT_EQ(l.first, liblog::debug);
        EXPECT_EQ(l.second.back(), '\0');
    }
    EXPECT_GT(stack_lines, 0u);
    auto runtime = std::dynamic_pointer_cast<liblog::memory_logger>(services->get_instance<liblog::log_interface>());
    ASSERT_TRUE(runtime);
    EXPECT_GT(count_starting(*runtime, "OPC UA Client: "), 0u);

    // Discovery replaces the UA_Client: the session is gone until the next connect.
    EXPECT_TRUE(client->validate_endpoint());
    EXPECT_FALSE(client->is_connected());
    client->connect();
    EXPECT_TRUE(client->is_connected());
    EXPECT_EQ(count_starting(*log_, "Using ApplicationUri: "), 3u);
}

// Each connect asks anew, and a server that answers nothing costs no UA_Client, whose
// key in mode none would take a second of CPU every time.
TEST_F(ClientAgainstSim, ClosedPortFailsEachTimeWithoutMakingAClient) {
    client_settings s = settings();
    s.port = 1;  // nothing listens there
    auto client = make(s);
    for (int attempt = 1; attempt <= 2; ++attempt) {
        try {
            client->connect();
            ADD_FAILURE() << "connect to a closed port succeeded";
        } catch (const opcua::exceptions::opcua_connection_failed& e) {
            EXPECT_STREQ(e.what(), "The sensor could not connect to the OPC UA server (BadConnectionRejected).");
        }
        EXPECT_FALSE(client->is_connected());
        EXPECT_EQ(count_starting(*log_, "Using ApplicationUri: "), 0u);
    }
}

// A given certificate names the URI to announce; of several, the first, with a warning.
TEST_F(ClientAgainstSim, GivenCertificateAnnouncesItsFirstUri) {
    auto client = make(settings(cfg::security_mode::sign_encrypt,
                                {"URI:urn:kolv:first", "URI:urn:kolv:second", "DNS:localhost"}));
    client->connect();
    EXPECT_TRUE(client->is_connected());
    EXPECT_TRUE(has_line(*log_, liblog::info, "Using ApplicationUri: urn:kolv:first"));
    EXPECT_TRUE(has_line(*log_, liblog::debug, "Available Subject Alternative Names: urn:kolv:first"));
    EXPECT_EQ(count_starting(*log_, "Client certificate defines more than URI"), 1u);
    EXPECT_TRUE(has_line(*log_, liblog::warning,
                         "Client certificate defines more than URI in subject alternative names. This might lead to "
                         "problems. Defined URIs are: urn:kolv:first, urn:kolv:second"));

    EXPECT_TRUE(client->validate_endpoint());
    EXPECT_TRUE(has_line(*log_, liblog::info,
                         "Selected Endpoint " + sim_->endpoint_url() +
                             " with SecurityMode SignAndEncrypt and SecurityPolicy "
                             "http://opcfoundation.org/UA/SecurityPolicy#Basic256Sha256"));
}

template <typename E>
bool is(const std::exception& e) {
    return dynamic_cast<const E*>(&e) != nullptr;
}

// Bad material is found at the first operation, not when the client is made.
TEST_F(ClientAgainstSim, BadCertificateMaterialRaisesAtFirstOperation) {
    const struct {
        const char* name;
        std::vector<std::string> alt_names;
        std::optional<std::string> key_usage;
        const char* key_password;  // null: the right one
        bool (*expected)(const std::exception&);
    } cases[] = {
        {"no URI", {"DNS:localhost"}, std::nullopt, nullptr, is<cert_errors::missing_application_uri>},
        // With a wrong password as well: the certificate is refused before the key is read.
        {"no data encipherment", {"URI:urn:kolv:client"}, "critical,digitalSignature,nonRepudiation,keyEncipherment",
         "wrong", is<cert_errors::data_encipherment_not_supported>},
        {"wrong key password", {"URI:urn:kolv:client"}, std::nullopt, "wrong",
         is<cert_errors::could_not_load_private_key>},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        std::unique_ptr<client_open62541> client;
        client_settings s = settings(cfg::security_mode::sign, c.alt_names, c.key_usage);
        if (c.key_password) s.client_key_password = client_settings::secure_string(c.key_password);
        ASSERT_NO_THROW(client = make(s));
        try {
            client->connect();
            ADD_FAILURE() << "connect succeeded";
        } catch (const std::exception& e) {
            EXPECT_TRUE(c.expected(e)) << e.what();
        }
        EXPECT_FALSE(client->is_connected());
    }
}

}  // namespace
