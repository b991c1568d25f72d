// The settings records and the client's settings key, read from probe data in memory.
// This program replaces the global allocation functions: while a watch is on, every block
// is searched for a secret at the moment it is released, before it is freed, so no
// released memory is ever read and secrets left behind by copies are seen.
#include <gtest/gtest.h>

#include <cstring>

#include "client/client_settings.h"
#include "client/exceptions.h"
#include "libvurohelper/exceptions.h"
#include "libvurohelper/messaging.h"
#include "libvurohelper/notifications.h"
#include "settings/custom_sensor_settings.h"
#include "settings/records.h"
#include "vuro.pb.h"

namespace {

constexpr std::size_t header = alignof(std::max_align_t);
std::atomic<const char*> watched{nullptr};
std::atomic<int> released_with_secret{0};

void release(void* p) noexcept {
    if (p == nullptr) return;
    char* base = static_cast<char*>(p) - header;
    const char* secret = watched.load();
    if (secret != nullptr && memmem(p, *reinterpret_cast<std::size_t*>(base), secret, std::strlen(secret)) != nullptr)
        ++released_with_secret;
    std::free(base);
}

}  // namespace

// The library's other forms of new and delete forward to these.
void* operator new(std::size_t size) {
    void* base = std::malloc(size + header);
    if (base == nullptr) throw std::bad_alloc();
    *static_cast<std::size_t*>(base) = size;
    return static_cast<char*>(base) + header;
}
void operator delete(void* p) noexcept { release(p); }
void operator delete(void* p, std::size_t) noexcept { release(p); }

namespace {

namespace mm = ::brenholt::monitoring_modules;
namespace ua = mm::opcua;
namespace st = ua::settings;
using mm::libvurohelper::settings::secure_string;

// Probe data in memory, secure values apart.
struct fake_source : mm::libvurohelper::settings::settings_source {
    std::map<std::string, std::string> values;
    std::set<std::string> secure;

    const std::string& get(const std::string& key) const override { return find(key, false); }
    secure_string get_secure(const std::string& key) const override { return secure_string(std::string(find(key, true))); }
    const std::string& find(const std::string& key, bool as_secure) const {
        const auto it = values.find(key);
        if (it == values.end() || secure.count(key) != as_secure) throw mm::libvurohelper::utils::exceptions::setting_not_available(key);
        return it->second;
    }
    // No value erases the key.
    void set(const std::string& key, const std::optional<std::string>& value) {
        if (value) values[key] = *value;
        else values.erase(key);
    }
};

const std::string port = "credentials.connection_opcua.port", mode = "credentials.connection_security.security_mode",
                  policy = "credentials.connection_security.security_policy",
                  cert = "credentials.connection_security.client_certificate",
                  client_key = "credentials.connection_security.client_key",
                  key_password = "credentials.connection_security.client_key_password",
                  auth = "credentials.user_authentication.user_auth_mode", user = "credentials.user_authentication.user",
                  password = "credentials.user_authentication.password";

// A complete, valid set of what a sensor or check receives; `secured` false gives security
// mode none and anonymous login, which leave the credentials unused.
fake_source sensor_source(bool secured = true) {
    fake_source s;
    s.values = {{"host", "plc.example"}, {"logging", "enabled"}, {"interval", "30"}, {"timeout", "20"}, {"ipversion", "IPv4"},
                {port, "4841"}, {"credentials.connection_opcua.server_name", "/srv/ua"}, {mode, secured ? "sign" : "none"},
                {policy, "Basic256Sha256"}, {cert, "CERT-PEM"}, {client_key, "KEY-PEM"}, {key_password, "key-pw"},
                {auth, secured ? "username_password" : "anonymous"}, {user, "operator"}, {password, "user-pw"},
                {"brenholtcloudapikey", "api-key"}};
    s.secure = {"brenholtcloudapikey", key_password, password};
    return s;
}

// Counts the blocks released with the secret in them while f runs. The secret's own
// storage is static, so the watch never trips on it.
int hits_while(const char* secret, const std::function<void()>& f) {
    released_with_secret = 0;
    watched = secret;
    f();
    watched = nullptr;
    return released_with_secret.load();
}

// Keeps the optimiser from dropping an allocation that is never read.
void keep(const void* p) { asm volatile("" : : "g"(p) : "memory"); }

TEST(secrets, leave_nothing_in_released_memory) {
    secure_string wiped{std::string(40, 's')};
    const char* data = wiped.c_str();
    wiped.wipe();
    ASSERT_EQ(data, wiped.c_str()) << "clear() keeps the buffer, so it is still ours to read";
    for (std::size_t i = 0; i < wiped.str().capacity(); ++i) ASSERT_EQ('\0', data[i]) << i;

    namespace vh = mm::libvurohelper;
    namespace wire = ::brenholt::vuro::wire;
    // Long enough to live on the heap, and short enough to live inside the string.
    for (const char* secret : {"long-secret-0f3a9c1e-d2b4-heap-allocated", "sso-secret-7q"}) {
        SCOPED_TRACE(secret);
        // The detector must see a plain string go, or every check here could pass for nothing.
        EXPECT_EQ(1, hits_while(secret, [&] { keep(std::make_unique<std::string>(secret)->data()); }));
        fake_source source = sensor_source();
        for (const auto& key : {std::string("brenholtcloudapikey"), key_password, password}) source.set(key, secret);
        // The API key and the key password are read, then the user group fails.
        fake_source failing = source;
        failing.set(auth, "user");
        // The probe's bytes are decoded into copies of the framework's own, the secret as a
        // secure value and as plain key material.
        wire::SensorData sensor;
        sensor.set_kind("server_status_sensor");
        (*sensor.mutable_secure_settings())[password] = secret;
        (*sensor.mutable_settings())["credentials.connection_security.client_key"] = secret;
        wire::NotificationRequest notification;
        (*notification.mutable_secure_settings())[password] = secret;
        const auto sensor_bytes = vh::messaging::wrap(vh::messaging::message_type::sensor_data, sensor.SerializeAsString());
        const auto notification_bytes =
            vh::messaging::wrap(vh::messaging::message_type::notification_request, notification.SerializeAsString());
        // Everything is made on the heap, so the blocks of the objects themselves are searched too.
        const std::pair<const char*, std::function<void()>> uses[] = {
            {"secure_string copied, moved, replaced", [&] {
                 auto held = std::make_unique<secure_string>(std::string(secret));
                 secure_string copy = *held;
                 secure_string moved = std::move(copy);
                 moved = secure_string(std::string("new value that needs its own heap"));
             }},
            {"a record that fails after reading secrets",
             [&] { EXPECT_ANY_THROW(std::make_unique<st::server_status_sensor>(failing)); }},
            {"client settings copied, hashed, their credentials replaced", [&] {
                 auto record = std::make_unique<st::server_status_sensor>(source);
                 auto settings = std::make_unique<ua::client_settings>(ua::create_client_settings(*record));
                 EXPECT_NE(0u, std::hash<ua::client_settings>{}(*settings));
                 // Mode none empties the key password of a value that held one.
                 record->connection_security.security_mode = st::security_mode::none;
                 settings->set_credentials(record->connection_security, record->user_authentication);
             }},
            {"probe data decoded and logged", [&] {
                 auto data = std::make_unique<vh::settings::sensor_data_wrapper>(
                     sensor_bytes.data(), static_cast<unsigned int>(sensor_bytes.size()));
                 EXPECT_EQ(data->get_secure(password).str(), secret);
                 keep(data->to_json().data());
                 auto request = std::make_unique<vh::notifications::request>(
                     notification_bytes.data(), static_cast<unsigned int>(notification_bytes.size()));
                 keep(request->to_json().data());
             }},
        };
        for (const auto& [name, use] : uses) EXPECT_EQ(0, hits_while(secret, use)) << name;
    }
}

// Every sensor's and check's record reads these; all but interval are required.
const std::vector<std::string> common_keys{
    "host", "logging", "timeout", "brenholtcloudapikey", "ipversion", port, "credentials.connection_opcua.server_name", mode,
    policy, cert, client_key, key_password, auth, user, password};

const std::string message_key = "custom.sensor_message_custom.nodeid";
std::string key(int n, const std::string& field) { return "custom.connection_custom.channel" + std::to_string(n) + field; }

// What the custom sensor's record reads besides: its message and channels, 2 switched on,
// 3 to 10 off but filled.
fake_source custom_source(bool secured = false) {
    fake_source s = sensor_source(secured);
    s.values[message_key] = "ns=2;s=message";
    for (int n = 1; n <= 10; ++n) {
        if (n != 1) s.values[key(n, "")] = n == 2 ? "enable" : "disable";
        s.values[key(n, "_settings")] = n % 2 == 0 ? "manual" : "automatic";
        s.values[key(n, "_name")] = "name " + std::to_string(n);
        s.values[key(n, "_unit")] = "unit " + std::to_string(n);
        s.values[key(n, "_scale_factor")] = std::to_string(n) + ".5";
        s.values[key(n, "_nodeid")] = "ns=2;i=" + std::to_string(100 + n);
    }
    return s;
}

// End-to-end scans show the channels' fields; these are what they do not show.
TEST(settings_record, defaults_and_forms_read_into_the_fields) {
    fake_source source = custom_source();
    source.values[key(1, "")] = "garbage";  // channel 1 has no switch: never looked up
    source.set("interval", std::nullopt);  // older probes send none
    source.set("ipversion", "1");
    const st::custom_sensor r(source);
    EXPECT_EQ(std::to_string(r.base.interval) + " " + std::to_string(r.base.timeout) + " " + r.base.brenholtcloudapikey.str(),
              "60 20 api-key");
    EXPECT_EQ(st::ipversion::ipv6, r.base.ipversion);
    EXPECT_FALSE(r.channels[0].enabled.has_value());
    source.set("ipversion", "0");
    EXPECT_EQ(st::ipversion::ipv4, st::custom_sensor(source).base.ipversion);
}

std::size_t hash_of(const ua::client_settings& s) { return std::hash<ua::client_settings>{}(s); }
std::string selection(const std::string& value, const std::string& type) {
    return "Value \"" + value + "\" could not be parsed into selection type \"" + type + "\".";
}
std::string invalid(const std::string& value, const char* why) { return "Setting value " + value + " is invalid. The value is " + why; }
std::string missing(const std::string& key) { return "The setting \"" + key + "\" was not available."; }

// One setting changed (nullopt: missing), from security mode none and anonymous login or
// from a signed, password login, and what follows: the record refuses it with this text,
// or the client's settings made from it share the key of the unchanged one or not. Settings
// of equal key share a client, so the key holds all that makes a connection different.
// Each text belongs to one failure class, so the text also tells the class. No cross-field
// checks: switched-off channels fail the record all the same, and an empty manual name is
// for the definition to refuse.
TEST(settings_record, what_a_changed_setting_does) {
    const std::string too_long = "Setting's value with length 33 is longer than the maximum allowed length of 32.";
    const std::string same = "same client", other = "other client";
    struct change { bool secured; std::string key; std::optional<std::string> value; std::string outcome; };
    std::vector<change> cases{
        {true, "host", "H", other}, {true, port, "4842", other}, {true, "credentials.connection_opcua.server_name", "P", other},
        {true, mode, "sign_encrypt", other}, {true, policy, "none", other}, {true, auth, "anonymous", other},
        {true, user, "U", other}, {true, password, "PW", other}, {true, cert, "C", other}, {true, client_key, "K", other},
        {true, key_password, "KPW", other}, {true, "brenholtcloudapikey", "other", same}, {true, "logging", "disabled", same},
        // Mode none drops the client credentials, anonymous login the user's; the policy stays stored.
        {false, cert, "", same}, {false, client_key, "", same}, {false, key_password, "", same}, {false, user, "", same},
        {false, password, "", same}, {false, policy, "none", other},
        {false, port, "0", "Setting value 0 is less than the minimum of 1."}, {false, port, "1", other}, {false, port, "65535", other},
        {false, port, "65536", "Setting value 65536 is bigger than the maximum of 65535."}, {false, port, "", "bad optional access"},
        {false, port, "48a", invalid("48a", "not an integer.")}, {false, port, " 5", invalid(" 5", "not an integer.")},
        {false, port, "9223372036854775808", invalid("9223372036854775808", "out of the range of a 64-bit integer.")},
        // The probe's time-out does not reach the client, which keeps its own.
        {false, "timeout", "-1", "Setting value -1 is less than the minimum of 0."}, {false, "timeout", "0", same},
        {false, "timeout", "9223372036854775807", same}, {false, "interval", "0", "Setting value 0 is less than the minimum of 1."},
        {false, "host", std::string(5000, 'h'), other}, {false, mode, "Sign", selection("Sign", "security_mode")},
        {false, policy, "basic256sha256", selection("basic256sha256", "security_policy")},
        // Digit forms belong to ipversion alone.
        {false, "logging", "Enabled", selection("Enabled", "logging")}, {false, "logging", "1", selection("1", "logging")},
        {false, "ipversion", "2", selection("2", "ipversion")}, {false, "ipversion", "IPv", selection("IPv", "ipversion")},
        {false, "ipversion", "", selection("", "ipversion")},
        {false, key(3, "_name"), std::string(32, 'n'), same}, {false, key(2, "_name"), "", same},
        // A length counts characters: 31 and a degree sign are 32, in 33 bytes.
        {false, key(1, "_unit"), std::string(31, 'u') + "\u00b0", same},
        {false, key(5, "_unit"), std::string(32, 'u') + "\u00b0", too_long},
        {false, key(5, "_name"), std::string(33, 'n'), too_long},
        {false, key(6, "_nodeid"), "'ns=2;s=a'[4]", same},  // array syntax is for the sensor to parse
        {false, key(3, ""), "enabled", selection("enabled", "channel")}, {false, key(10, ""), "", selection("", "channel")},
        {false, key(1, "_settings"), "Manual", selection("Manual", "channel_settings")},
        {false, key(6, "_scale_factor"), "", "bad optional access"},
        {false, key(6, "_scale_factor"), "1,5", invalid("1,5", "not a number.")},
        {false, key(6, "_scale_factor"), "nan", invalid("nan", "not a number.")},
        {false, key(2, ""), std::nullopt, missing(key(2, ""))}, {false, message_key, std::nullopt, missing(message_key)},
        {false, "interval", std::nullopt, same}};
    // Also those that the other settings make unused are required.
    for (const std::string& k : common_keys) cases.push_back({false, k, std::nullopt, missing(k)});
    for (const auto& c : cases) {
        const ua::client_settings before = ua::create_client_settings(st::custom_sensor(custom_source(c.secured)));
        fake_source source = custom_source(c.secured);
        source.set(c.key, c.value);
        std::string outcome;
        try {
            const ua::client_settings after = ua::create_client_settings(st::custom_sensor(source));
            EXPECT_EQ(!(after == before), after != before) << c.key;
            EXPECT_EQ(hash_of(after) != hash_of(before), after != before) << c.key;
            outcome = after != before ? other : same;
        } catch (const std::exception& e) {
            outcome = e.what();
        }
        EXPECT_EQ(c.outcome, outcome) << c.key << " = " << c.value.value_or("<missing>");
    }
    // Only a missing interval is forgiven: any other failure of the source leaves.
    struct broken_interval : fake_source {
        const std::string& get(const std::string& key) const override {
            if (key == "interval") throw std::runtime_error("source broken");
            return fake_source::get(key);
        }
    } broken;
    static_cast<fake_source&>(broken) = sensor_source();
    EXPECT_THROW(st::server_status_sensor{broken}, std::runtime_error);
}

TEST(client_settings, server_path_forms_and_what_the_key_leaves_out) {
    const std::string invalid = "<refused>";
    const std::pair<std::string, std::string> forms[] = {{"", ""}, {"/a/b", "a/b"}, {"a/b", "a/b"}, {"/", ""}, {"a/", "a/"},
                                                         {"x", "x"}, {"a//b", invalid}, {"opc.tcp://x", invalid},
                                                         {"//", invalid}, {"/a//", invalid}};
    for (const auto& [text, path] : forms) {
        ua::client_settings s;
        try {
            s.set_server_path(text);
        } catch (const ua::exceptions::invalid_servername&) {
            s.server_path = invalid;
        }
        EXPECT_EQ(path, s.server_path) << text;
    }
    // The client's own time-out and name are no part of the key.
    ua::client_settings s = ua::create_client_settings(st::server_status_sensor(sensor_source()));
    ua::client_settings other = s;
    other.timeout = 60;
    other.application_name = "Other";
    EXPECT_TRUE(s == other && hash_of(s) == hash_of(other));
    EXPECT_EQ(std::to_string(s.timeout) + " " + s.application_name, "5 BrenholtOPCUA");
    // On a value that already holds credentials, mode none empties them; anonymous keeps the user.
    const st::server_status_sensor none(sensor_source(false));
    s.set_credentials(none.connection_security, none.user_authentication);
    EXPECT_TRUE(s.client_certificate.empty() && s.client_key.empty() && s.client_key_password.empty());
    EXPECT_EQ(st::user_auth_mode::anonymous, s.user_auth_mode);
    EXPECT_EQ("operator", s.user);
}

}  // namespace
