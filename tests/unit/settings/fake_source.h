#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "libvurohelper/exceptions.h"
#include "libvurohelper/settings.h"

namespace opcua_settings_test {

using ::brenholt::monitoring_modules::libvurohelper::settings::secure_string;
using ::brenholt::monitoring_modules::libvurohelper::utils::exceptions::setting_not_available;

// Probe data in memory, plain and secure apart; every lookup is recorded in order
// ("get_secure " marks the secure ones).
class fake_source : public ::brenholt::monitoring_modules::libvurohelper::settings::settings_source {
public:
    std::map<std::string, std::string> plain, secure;
    mutable std::vector<std::string> reads;

    const std::string& get(const std::string& key) const override { return find(plain, key, key); }
    secure_string get_secure(const std::string& key) const override {
        return secure_string(std::string(find(secure, key, "get_secure " + key)));
    }
    void erase(const std::string& key) {
        plain.erase(key);
        secure.erase(key);
    }
    // Sets a key in the map that already holds it, else as a plain value.
    void set(const std::string& key, const std::string& value) { (secure.count(key) ? secure : plain)[key] = value; }

private:
    const std::string& find(const std::map<std::string, std::string>& map, const std::string& key, std::string read) const {
        reads.push_back(std::move(read));
        const auto it = map.find(key);
        if (it == map.end()) throw setting_not_available(key);
        return it->second;
    }
};

// A complete, valid set of what a sensor or check receives.
inline fake_source sensor_source() {
    fake_source s;
    s.plain = {{"host", "plc.example"}, {"logging", "enabled"}, {"interval", "30"}, {"timeout", "20"}, {"ipversion", "IPv4"},
               {"credentials.connection_opcua.port", "4841"}, {"credentials.connection_opcua.server_name", "/srv/ua"},
               {"credentials.connection_security.security_mode", "sign"},
               {"credentials.connection_security.security_policy", "Basic256Sha256"},
               {"credentials.connection_security.client_certificate", "CERT-PEM"},
               {"credentials.connection_security.client_key", "KEY-PEM"},
               {"credentials.user_authentication.user_auth_mode", "username_password"},
               {"credentials.user_authentication.user", "operator"}};
    s.secure = {{"brenholtcloudapikey", "api-key"}, {"credentials.connection_security.client_key_password", "key-pw"},
                {"credentials.user_authentication.password", "user-pw"}};
    return s;
}

// The same with security mode none and anonymous login, which leave the credentials unused.
inline fake_source unsecured_source() {
    fake_source s = sensor_source();
    s.set("credentials.connection_security.security_mode", "none");
    s.set("credentials.user_authentication.user_auth_mode", "anonymous");
    return s;
}

}  // namespace opcua_settings_test
