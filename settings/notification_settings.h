#pragma once

#include <string>

#include "settings/credentials.h"
#include "settings/readers.h"
#include "settings/selection.h"

namespace brenholt::monitoring_modules::opcua::settings {

// What a write notification needs: the node and value from the request itself,
// the credentials with the host, and the data type to write.
struct opcua_notification {
    static constexpr const char* section = "credentials";

    std::string target;
    std::string message;
    notification_connection_opcua connection_opcua;
    settings::connection_security connection_security;
    settings::user_authentication user_authentication;
    settings::type type = settings::type::boolean;

    // `target` and `message` are the request's get_target() and get_message().
    opcua_notification(const settings_source& source, const std::string& target, const std::string& message);
};

}  // namespace brenholt::monitoring_modules::opcua::settings
