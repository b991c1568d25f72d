#pragma once

#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <string>

#include "liblog/log.h"
#include "libvurohelper/secure_string.h"
#include "settings/credentials.h"
#include "settings/notification_settings.h"
#include "settings/records.h"
#include "settings/selection.h"

namespace brenholt::monitoring_modules::opcua {

// Which OPC UA connection is meant. It configures a client and is the key under
// which the service container shares clients, so equality and hash leave out
// `timeout` and `application_name`: they do not make a connection different.
class client_settings {
public:
    using secure_string = ::brenholt::monitoring_modules::libvurohelper::settings::secure_string;

    client_settings() = default;
    client_settings(const client_settings&) = default;
    client_settings(client_settings&&) = default;
    client_settings& operator=(const client_settings&) = default;
    client_settings& operator=(client_settings&&) = default;
    virtual ~client_settings() = default;

    // Kept without a leading "/": the URL puts one in front of it.
    std::string server_path;
    std::string host;
    std::int64_t port = 4840;
    // Seconds; the client uses the low 32 bits.
    std::uint64_t timeout = 5;
    std::string application_name = "BrenholtOPCUA";
    settings::security_mode security_mode = settings::security_mode::none;
    settings::security_policy security_policy = settings::security_policy::none;
    settings::user_auth_mode user_auth_mode = settings::user_auth_mode::anonymous;
    std::string user;
    secure_string password;
    // PEM texts, not file paths.
    std::string client_certificate;
    std::string client_key;
    secure_string client_key_password;

    // Refuses "//" anywhere, so a full URL typed into the field fails here
    // (invalid_servername), before any client exists.
    void set_server_path(const std::string& text);

    // Fills the seven fields from security_mode on. Out-of-range selections raise
    // setting_invalid; the certificate, key and key password are kept only when
    // the mode signs, and user and password only with user name authentication.
    void set_credentials(const settings::connection_security& security, const settings::user_authentication& user);

    bool operator==(const client_settings& other) const;
    bool operator!=(const client_settings& other) const { return !(*this == other); }
};

// For every sensor and check. The base settings' timeout does not reach the
// client on purpose: every sensor keeps the client's default.
client_settings create_client_settings(const settings::common_settings& record);

// For the notification: host from its own group, time-out from the request.
client_settings create_client_settings(const settings::opcua_notification& record, std::uint32_t timeout_s);

// The notification's path from its request, which is also its settings source.
// A failure is written to `log` before it leaves.
template <typename Request>
client_settings create_client_settings(const Request& request, liblog::log_interface& log) {
    try {
        const settings::opcua_notification record(request, request.get_target(), request.get_message());
        return create_client_settings(record, static_cast<std::uint32_t>(request.get_timeout_s()));
    } catch (const std::exception& e) {
        log.write(liblog::error, std::string("Exception in create_client_settings: ") + e.what());
        throw;
    }
}

}  // namespace brenholt::monitoring_modules::opcua

template <>
struct std::hash<::brenholt::monitoring_modules::opcua::client_settings> {
    std::size_t operator()(const ::brenholt::monitoring_modules::opcua::client_settings& s) const;
};
