#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "client/client_settings.h"
#include "client/exceptions.h"
#include "fake_source.h"
#include "support/what_of.h"

namespace {

namespace ua = ::brenholt::monitoring_modules::opcua;
namespace st = ua::settings;
using namespace opcua_settings_test;
using ua::client_settings;

std::size_t hash_of(const client_settings& s) { return std::hash<client_settings>{}(s); }

TEST(client_settings, server_path_forms) {
    const std::pair<std::string, std::string> accepted[] = {{"", ""},      {"/a/b", "a/b"}, {"a/b", "a/b"},
                                                            {"/", ""},     {"a/", "a/"},    {"x", "x"}};
    for (const auto& [text, path] : accepted) {
        client_settings s;
        s.set_server_path(text);
        EXPECT_EQ(path, s.server_path) << text;
    }
    for (const std::string text : {"a//b", "opc.tcp://x", "//", "/a//"})
        EXPECT_EQ(test_support::what_of<ua::exceptions::invalid_servername>([&] { client_settings().set_server_path(text); }),
                  "The server path specified in the credentials is invalid.")
            << text;
}

TEST(client_settings, mode_none_drops_the_client_credentials_from_the_key) {
    const fake_source unsecured = unsecured_source();
    fake_source empty = unsecured;
    for (const char* key : {"credentials.connection_security.client_certificate", "credentials.connection_security.client_key",
                            "credentials.connection_security.client_key_password"})
        empty.set(key, "");
    const client_settings a = ua::create_client_settings(st::connection_check(unsecured));
    const client_settings b = ua::create_client_settings(st::connection_check(empty));
    EXPECT_TRUE(a.client_certificate.empty() && a.client_key.empty() && a.client_key_password.empty());
    EXPECT_TRUE(a.user.empty() && a.password.empty());
    EXPECT_EQ(st::security_policy::basic256sha256, a.security_policy) << "the policy stays stored";
    EXPECT_EQ(a, b);
    EXPECT_EQ(hash_of(a), hash_of(b));

    // On a value that already holds credentials, mode none empties them; anonymous keeps the user.
    client_settings s = ua::create_client_settings(st::server_status_sensor(sensor_source()));
    const st::server_status_sensor none(unsecured);
    s.set_credentials(none.connection_security, none.user_authentication);
    EXPECT_TRUE(s.client_certificate.empty() && s.client_key.empty() && s.client_key_password.empty());
    EXPECT_EQ(st::user_auth_mode::anonymous, s.user_auth_mode);
    EXPECT_EQ("operator", s.user);
}

TEST(client_settings, equality_and_hash_cover_eleven_fields_in_fixed_order) {
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
    // Built from a record: the hash below also checks where each field came from.
    const client_settings base = ua::create_client_settings(st::server_status_sensor(sensor_source()));
    EXPECT_EQ(5u, base.timeout) << "the base settings' timeout must not reach the client";
    EXPECT_EQ("BrenholtOPCUA", base.application_name);
    for (const auto& [name, change] : keyed) {
        client_settings other = base;
        change(other);
        EXPECT_FALSE(base == other) << name;
        EXPECT_TRUE(base != other) << name;
        EXPECT_NE(hash_of(base), hash_of(other)) << name;
    }
    // Time-out and application name are no part of the key.
    client_settings other = base;
    other.timeout = 60;
    other.application_name = "Other";
    EXPECT_EQ(base, other);
    EXPECT_EQ(hash_of(base), hash_of(other));

    const std::hash<std::string> h;
    std::uint64_t seed = 0;
    for (std::uint64_t v : {h("plc.example"), h("operator"), h("user-pw"), h("CERT-PEM"), h("KEY-PEM"), h("key-pw"),
                            std::size_t{4841}, h("srv/ua"), std::size_t{1}, std::size_t{1}, std::size_t{1}})
        seed ^= v + 0x9e3779b9ULL + (seed << 6) + (seed >> 2);
    EXPECT_EQ(seed, hash_of(base));
}

}  // namespace
