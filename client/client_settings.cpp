#include "client/client_settings.h"

#include "client/exceptions.h"
#include "libvurohelper/exceptions.h"

namespace brenholt::monitoring_modules::opcua {

namespace vex = ::brenholt::monitoring_modules::libvurohelper::utils::exceptions;

void client_settings::set_server_path(const std::string& text) {
    if (text.empty()) {
        server_path.clear();
        return;
    }
    if (text.find("//") != std::string::npos) throw exceptions::invalid_servername();
    if (text.front() == '/')
        server_path = text.substr(1);
    else
        server_path = text;
}

void client_settings::set_credentials(const settings::connection_security& security,
                                      const settings::user_authentication& user_auth) {
    if (user_auth.user_auth_mode == settings::user_auth_mode::username_password) {
        user_auth_mode = settings::user_auth_mode::username_password;
        user = user_auth.user;
        password = user_auth.password;
    } else {
        user_auth_mode = settings::user_auth_mode::anonymous;
    }

    // The selection parser cannot produce these values; the guard stays for
    // records built by other means.
    if (static_cast<std::int32_t>(security.security_mode) >= 3)
        throw vex::setting_invalid("security_mode", "unknown");
    security_mode = security.security_mode;
    if (static_cast<std::int32_t>(security.security_policy) >= 2)
        throw vex::setting_invalid("security_policy", "unknown");
    security_policy = security.security_policy;

    if (security_mode != settings::security_mode::none) {
        client_certificate = security.client_certificate;
        client_key = security.client_key;
        client_key_password = security.client_key_password;
    } else {
        // Without signing the client generates its own certificate; whatever the
        // record holds must not make this key differ from one without it.
        client_certificate.clear();
        client_key.clear();
        client_key_password = secure_string();
    }
}

bool client_settings::operator==(const client_settings& o) const {
    return host == o.host && port == o.port && user == o.user && password == o.password &&
           server_path == o.server_path && client_certificate == o.client_certificate && client_key == o.client_key &&
           client_key_password == o.client_key_password && security_mode == o.security_mode &&
           security_policy == o.security_policy && user_auth_mode == o.user_auth_mode;
}

client_settings create_client_settings(const settings::common_settings& record) {
    client_settings result;
    result.host = record.base.host;
    result.port = record.connection_opcua.port;
    result.set_server_path(record.connection_opcua.server_name);
    result.set_credentials(record.connection_security, record.user_authentication);
    return result;
}

client_settings create_client_settings(const settings::opcua_notification& record, std::uint32_t timeout_s) {
    client_settings result;
    result.host = record.connection_opcua.host;
    result.timeout = timeout_s;
    result.port = record.connection_opcua.port;
    result.set_server_path(record.connection_opcua.server_name);
    result.set_credentials(record.connection_security, record.user_authentication);
    return result;
}

}  // namespace brenholt::monitoring_modules::opcua

namespace {

void combine(std::uint64_t& seed, std::uint64_t h) { seed ^= h + 0x9e3779b9ULL + (seed << 6) + (seed >> 2); }

std::uint64_t widen(std::int32_t v) { return static_cast<std::uint64_t>(static_cast<std::int64_t>(v)); }

}  // namespace

std::size_t std::hash<::brenholt::monitoring_modules::opcua::client_settings>::operator()(
    const ::brenholt::monitoring_modules::opcua::client_settings& s) const {
    const std::hash<std::string> text;
    std::uint64_t seed = 0;
    combine(seed, text(s.host));
    combine(seed, text(s.user));
    // Hashed in place: a plain copy of a secret would outlive the computation
    // in released memory.
    combine(seed, text(s.password.str()));
    combine(seed, text(s.client_certificate));
    combine(seed, text(s.client_key));
    combine(seed, text(s.client_key_password.str()));
    combine(seed, static_cast<std::uint64_t>(s.port));
    combine(seed, text(s.server_path));
    combine(seed, widen(static_cast<std::int32_t>(s.security_mode)));
    combine(seed, widen(static_cast<std::int32_t>(s.security_policy)));
    combine(seed, widen(static_cast<std::int32_t>(s.user_auth_mode)));
    return static_cast<std::size_t>(seed);
}
