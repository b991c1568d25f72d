#pragma once

#include <cstdint>
#include <string>

#include "settings/readers.h"
#include "settings/selection.h"

// The three groups of the `credentials` section. Each parser takes the section
// name, so one parser serves every record; the group name is its own constant.
namespace brenholt::monitoring_modules::opcua::settings {

// Sensors and checks take the host from the base settings, so this group has none.
struct connection_opcua {
    static constexpr const char* group = "connection_opcua";

    std::int64_t port = 0;
    std::string server_name;

    connection_opcua(const settings_source& source, const std::string& section);
};

// A notification has no base settings; its request carries the host in this group.
struct notification_connection_opcua {
    static constexpr const char* group = "connection_opcua";

    std::string host;
    std::int64_t port = 0;
    std::string server_name;

    notification_connection_opcua(const settings_source& source, const std::string& section);
};

struct connection_security {
    static constexpr const char* group = "connection_security";

    settings::security_mode security_mode = settings::security_mode::none;
    settings::security_policy security_policy = settings::security_policy::none;
    // PEM texts; read whatever the mode says, the user interface alone hides them.
    std::string client_certificate;
    std::string client_key;
    secure_string client_key_password;

    connection_security(const settings_source& source, const std::string& section);
};

struct user_authentication {
    static constexpr const char* group = "user_authentication";

    settings::user_auth_mode user_auth_mode = settings::user_auth_mode::anonymous;
    std::string user;
    secure_string password;

    user_authentication(const settings_source& source, const std::string& section);
};

}  // namespace brenholt::monitoring_modules::opcua::settings
