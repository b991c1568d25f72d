#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "libvurohelper/exceptions.h"
#include "libvurohelper/settings.h"

namespace opcua_settings_test {

using ::brenholt::monitoring_modules::libvurohelper::settings::secure_string;
using ::brenholt::monitoring_modules::libvurohelper::settings::settings_source;

// In-memory probe data: plain and secure values apart, as the probe sends them,
// and every lookup recorded in order ("get_secure " marks the secure ones).
class fake_source : public settings_source {
public:
    std::map<std::string, std::string> plain;
    std::map<std::string, std::string> secure;
    mutable std::vector<std::string> reads;

    const std::string& get(const std::string& key) const override {
        reads.push_back(key);
        auto it = plain.find(key);
        if (it == plain.end())
            throw ::brenholt::monitoring_modules::libvurohelper::utils::exceptions::setting_not_available(key);
        return it->second;
    }

    secure_string get_secure(const std::string& key) const override {
        reads.push_back("get_secure " + key);
        auto it = secure.find(key);
        if (it == secure.end())
            throw ::brenholt::monitoring_modules::libvurohelper::utils::exceptions::setting_not_available(key);
        return secure_string(std::string(it->second));
    }

    // Drops a key from whichever map holds it.
    void erase(const std::string& key) {
        plain.erase(key);
        secure.erase(key);
    }

    // Sets a key in the map that already holds it, else as a plain value.
    void set(const std::string& key, const std::string& value) {
        if (secure.count(key) != 0)
            secure[key] = value;
        else
            plain[key] = value;
    }
};

// A complete, valid set of what a sensor or check receives.
inline fake_source sensor_source() {
    fake_source s;
    s.plain = {
        {"host", "plc.example"},
        {"logging", "enabled"},
        {"interval", "30"},
        {"timeout", "20"},
        {"ipversion", "IPv4"},
        {"credentials.connection_opcua.port", "4841"},
        {"credentials.connection_opcua.server_name", "/srv/ua"},
        {"credentials.connection_security.security_mode", "sign"},
        {"credentials.connection_security.security_policy", "Basic256Sha256"},
        {"credentials.connection_security.client_certificate", "CERT-PEM"},
        {"credentials.connection_security.client_key", "KEY-PEM"},
        {"credentials.user_authentication.user_auth_mode", "username_password"},
        {"credentials.user_authentication.user", "operator"},
    };
    s.secure = {
        {"brenholtcloudapikey", "api-key"},
        {"credentials.connection_security.client_key_password", "key-pw"},
        {"credentials.user_authentication.password", "user-pw"},
    };
    return s;
}

// What a write notification's request carries besides target and message.
inline fake_source notification_source() {
    fake_source s = sensor_source();
    for (const char* key : {"host", "logging", "interval", "timeout", "ipversion"}) s.erase(key);
    s.erase("brenholtcloudapikey");
    s.plain["credentials.connection_opcua.host"] = "writer.example";
    s.plain["write.variable.type"] = "Integer64";
    return s;
}

}  // namespace opcua_settings_test
