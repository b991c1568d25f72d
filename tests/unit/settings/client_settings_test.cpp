#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/client_interface.h"
#include "client/client_settings.h"
#include "client/exceptions.h"
#include "fake_source.h"
#include "liblog/log.h"
#include "module/framework/service_container.h"

namespace {

namespace ua = ::brenholt::monitoring_modules::opcua;
namespace st = ua::settings;
namespace vex = ::brenholt::monitoring_modules::libvurohelper::utils::exceptions;
namespace lg = ::brenholt::monitoring_modules::liblog;
using ::brenholt::monitoring_modules::libvurohelper::module::service_container;
using opcua_settings_test::fake_source;
using opcua_settings_test::notification_source;
using opcua_settings_test::secure_string;
using opcua_settings_test::sensor_source;
using ua::client_settings;

std::size_t hash_of(const client_settings& s) { return std::hash<client_settings>{}(s); }

TEST(client_settings, server_path_forms) {
    const std::vector<std::pair<std::string, std::string>> accepted{
        {"", ""}, {"/a/b", "a/b"}, {"a/b", "a/b"}, {"/", ""}, {"a/", "a/"}, {"x", "x"}};
    for (const auto& [text, path] : accepted) {
        client_settings s;
        s.server_path = "previous";
        s.set_server_path(text);
        EXPECT_EQ(path, s.server_path) << text;
    }
    for (const std::string text : {"a//b", "opc.tcp://x", "//", "/a//", "//a"}) {
        client_settings s;
        s.server_path = "previous";
        try {
            s.set_server_path(text);
            ADD_FAILURE() << "accepted " << text;
        } catch (const ua::exceptions::invalid_servername& e) {
            EXPECT_STREQ("The server path specified in the credentials is invalid.", e.what());
        }
        EXPECT_EQ("previous", s.server_path) << text;
    }
}

TEST(client_settings, from_sensor_record) {
    const fake_source source = sensor_source();
    const ua::client_settings s = ua::create_client_settings(st::server_status_sensor(source));
    EXPECT_EQ("plc.example", s.host);
    EXPECT_EQ(4841, s.port);
    EXPECT_EQ("srv/ua", s.server_path);
    EXPECT_EQ(5u, s.timeout) << "the base settings' timeout must not reach the client";
    EXPECT_EQ("BrenholtOPCUA", s.application_name);
    EXPECT_EQ(st::security_mode::sign, s.security_mode);
    EXPECT_EQ(st::security_policy::basic256sha256, s.security_policy);
    EXPECT_EQ(st::user_auth_mode::username_password, s.user_auth_mode);
    EXPECT_EQ("operator", s.user);
    EXPECT_EQ("user-pw", s.password.str());
    EXPECT_EQ("CERT-PEM", s.client_certificate);
    EXPECT_EQ("KEY-PEM", s.client_key);
    EXPECT_EQ("key-pw", s.client_key_password.str());
}

TEST(client_settings, unused_credentials_do_not_enter_the_key) {
    fake_source with = sensor_source();
    with.set("credentials.connection_security.security_mode", "none");
    with.set("credentials.user_authentication.user_auth_mode", "anonymous");
    fake_source without = with;
    for (const char* key : {"credentials.connection_security.client_certificate",
                            "credentials.connection_security.client_key",
                            "credentials.connection_security.client_key_password",
                            "credentials.user_authentication.user", "credentials.user_authentication.password"})
        without.set(key, "");
    const client_settings a = ua::create_client_settings(st::connection_check(with));
    const client_settings b = ua::create_client_settings(st::connection_check(without));
    EXPECT_TRUE(a.client_certificate.empty() && a.client_key.empty() && a.client_key_password.empty());
    EXPECT_TRUE(a.user.empty() && a.password.empty());
    EXPECT_EQ(st::security_policy::basic256sha256, a.security_policy) << "the policy stays stored";
    EXPECT_EQ(a, b);
    EXPECT_EQ(hash_of(a), hash_of(b));
}

TEST(client_settings, mode_none_clears_what_an_earlier_call_set) {
    const fake_source signing = sensor_source();
    const st::server_status_sensor r(signing);
    client_settings s;
    s.set_credentials(r.connection_security, r.user_authentication);
    ASSERT_EQ("CERT-PEM", s.client_certificate);

    fake_source plain = sensor_source();
    plain.set("credentials.connection_security.security_mode", "none");
    plain.set("credentials.user_authentication.user_auth_mode", "anonymous");
    const st::server_status_sensor none(plain);
    s.set_credentials(none.connection_security, none.user_authentication);
    EXPECT_TRUE(s.client_certificate.empty() && s.client_key.empty() && s.client_key_password.empty());
    // An anonymous record leaves the user fields as they were.
    EXPECT_EQ(st::user_auth_mode::anonymous, s.user_auth_mode);
    EXPECT_EQ("operator", s.user);
}

TEST(client_settings, out_of_range_selections_are_refused) {
    const fake_source source = sensor_source();
    st::server_status_sensor r(source);
    r.connection_security.security_mode = static_cast<st::security_mode>(3);
    client_settings s;
    try {
        s.set_credentials(r.connection_security, r.user_authentication);
        ADD_FAILURE();
    } catch (const vex::setting_invalid& e) {
        EXPECT_STREQ("Setting value security_mode is invalid. unknown", e.what());
    }
    r.connection_security.security_mode = st::security_mode::sign;
    r.connection_security.security_policy = static_cast<st::security_policy>(2);
    try {
        s.set_credentials(r.connection_security, r.user_authentication);
        ADD_FAILURE();
    } catch (const vex::setting_invalid& e) {
        EXPECT_STREQ("Setting value security_policy is invalid. unknown", e.what());
    }
}

// The request is also the settings source of the notification.
struct fake_request : fake_source {
    std::uint64_t timeout_s = 0;
    std::string get_target() const { return "ns=3;s=valve"; }
    std::string get_message() const { return "True"; }
    std::uint64_t get_timeout_s() const { return timeout_s; }
};

TEST(client_settings, from_notification_request) {
    fake_request request;
    static_cast<fake_source&>(request) = notification_source();
    request.timeout_s = 0x100000007ULL;  // only the low 32 bits count
    lg::memory_logger log;
    const client_settings s = ua::create_client_settings(request, log);
    EXPECT_EQ("writer.example", s.host);
    EXPECT_EQ(7u, s.timeout);
    EXPECT_EQ(4841, s.port);
    EXPECT_EQ("srv/ua", s.server_path);
    EXPECT_EQ("BrenholtOPCUA", s.application_name);
    EXPECT_TRUE(log.entries().empty());
}

TEST(client_settings, failed_notification_settings_are_logged_and_rethrown) {
    fake_request request;
    static_cast<fake_source&>(request) = notification_source();
    request.set("credentials.connection_opcua.server_name", "opc.tcp://writer");
    lg::memory_logger log;
    EXPECT_THROW(ua::create_client_settings(request, log), ua::exceptions::invalid_servername);
    request.set("credentials.connection_opcua.server_name", "");
    request.set("write.variable.type", "Float");
    EXPECT_THROW(ua::create_client_settings(request, log), vex::setting_selection_parse_error);
    const lg::log_entries expected{
        {lg::error, "Exception in create_client_settings: The server path specified in the credentials is invalid."},
        {lg::error,
         "Exception in create_client_settings: Value \"Float\" could not be parsed into selection type \"type\"."}};
    EXPECT_EQ(expected, log.entries());
}

client_settings populated() {
    client_settings s;
    s.server_path = "p";
    s.host = "h";
    s.port = 4841;
    s.security_mode = st::security_mode::sign;
    s.security_policy = st::security_policy::basic256sha256;
    s.user_auth_mode = st::user_auth_mode::username_password;
    s.user = "u";
    s.password = secure_string("pw");
    s.client_certificate = "c";
    s.client_key = "k";
    s.client_key_password = secure_string("kpw");
    return s;
}

TEST(client_settings, equality_covers_exactly_eleven_fields) {
    const std::vector<std::pair<const char*, std::function<void(client_settings&)>>> keyed{
        {"host", [](client_settings& s) { s.host = "H"; }},
        {"port", [](client_settings& s) { s.port = 4842; }},
        {"user", [](client_settings& s) { s.user = "U"; }},
        {"password", [](client_settings& s) { s.password = secure_string("PW"); }},
        {"server_path", [](client_settings& s) { s.server_path = "P"; }},
        {"client_certificate", [](client_settings& s) { s.client_certificate = "C"; }},
        {"client_key", [](client_settings& s) { s.client_key = "K"; }},
        {"client_key_password", [](client_settings& s) { s.client_key_password = secure_string("KPW"); }},
        {"security_mode", [](client_settings& s) { s.security_mode = st::security_mode::sign_encrypt; }},
        {"security_policy", [](client_settings& s) { s.security_policy = st::security_policy::none; }},
        {"user_auth_mode", [](client_settings& s) { s.user_auth_mode = st::user_auth_mode::anonymous; }},
    };
    const client_settings base = populated();
    for (const auto& [name, change] : keyed) {
        client_settings other = base;
        change(other);
        EXPECT_FALSE(base == other) << name;
        EXPECT_TRUE(base != other) << name;
        EXPECT_NE(hash_of(base), hash_of(other)) << name;
    }
    client_settings other = base;
    other.timeout = 60;
    other.application_name = "Other";
    EXPECT_EQ(base, other);
    EXPECT_EQ(hash_of(base), hash_of(other));
}

// The hash is part of the cache's behaviour; its order of values is fixed.
TEST(client_settings, hash_combines_in_the_stated_order) {
    const client_settings s = populated();
    const std::hash<std::string> h;
    const std::vector<std::uint64_t> values{h("h"), h("u"), h("pw"), h("c"), h("k"), h("kpw"), 4841, h("p"), 1, 1, 1};
    std::uint64_t seed = 0;
    for (std::uint64_t v : values) seed ^= v + 0x9e3779b9ULL + (seed << 6) + (seed >> 2);
    EXPECT_EQ(seed, hash_of(s));
    // Swapping two string fields must change the hash: the order matters.
    client_settings swapped = s;
    swapped.host = "u";
    swapped.user = "h";
    EXPECT_NE(hash_of(s), hash_of(swapped));
}

// A stand-in client that only remembers its settings and counts its lifetime.
struct fake_client : ua::client_interface {
    explicit fake_client(client_settings s, int& alive) : settings(std::move(s)), alive(alive) { ++alive; }
    ~fake_client() override { --alive; }
    const client_settings& get_settings() const override { return settings; }
    bool is_connected() const override { return false; }
    bool validate_endpoint() override { return false; }
    void connect() override {}
    ua::server_certificate_info get_server_certificate_info() override { return {}; }
    void write_node_value(const std::shared_ptr<ua::writeable_variable_node_interface>&) override {}
    void read_node(const std::shared_ptr<ua::generic_node_interface>&) override {}
    void read_node(const std::vector<std::shared_ptr<ua::generic_node_interface>>&) override {}
    void add_logger(const std::shared_ptr<lg::log_interface>&, lg::severity) override {}
    void remove_logger(const std::shared_ptr<lg::log_interface>&) override {}

    client_settings settings;
    int& alive;
};

class client_cache : public ::testing::Test {
protected:
    void SetUp() override {
        services->add_factory(
            std::function<std::unique_ptr<ua::client_interface>(client_settings)>([this](client_settings s) {
                ++made;
                return std::make_unique<fake_client>(std::move(s), alive);
            }));
    }
    std::shared_ptr<ua::client_interface> ask(const client_settings& s) {
        return services->get_instance<ua::client_interface>(s);
    }

    std::shared_ptr<service_container> services = std::make_shared<service_container>();
    int made = 0;
    int alive = 0;
};

TEST_F(client_cache, equal_settings_share_one_client) {
    client_settings a = populated();
    client_settings b = populated();
    b.timeout = 30;  // not part of the key: the first client's time-out stays
    auto first = ask(a);
    auto second = ask(b);
    EXPECT_EQ(first.get(), second.get());
    EXPECT_EQ(2, first.use_count());
    EXPECT_EQ(5u, second->get_settings().timeout);

    client_settings c = populated();
    c.password = secure_string("other");
    auto third = ask(c);
    EXPECT_NE(first.get(), third.get());
    EXPECT_EQ(2, made);
}

TEST_F(client_cache, a_dead_entry_stops_all_further_sharing) {
    const client_settings key = populated();
    {
        auto one = ask(key);
        auto two = ask(key);
        EXPECT_EQ(1, made);
    }
    EXPECT_EQ(0, alive) << "the cache must not keep a client alive";

    auto third = ask(key);
    EXPECT_EQ(2, made);
    auto fourth = ask(key);
    EXPECT_EQ(3, made);
    EXPECT_NE(third.get(), fourth.get());
    EXPECT_EQ(1, third.use_count());
    EXPECT_EQ(1, fourth.use_count());
}

}  // namespace
