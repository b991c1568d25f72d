#include "settings/credentials.h"

namespace brenholt::monitoring_modules::opcua::settings {

namespace {

// Same bounds for both variants of the group: a TCP port.
std::int64_t read_port(const settings_source& source, const std::string& section) {
    return read_integer(source, compose_key(section, connection_opcua::group, ".port"), true, 1, true, 65535);
}

}  // namespace

// Fields are initialised in declaration order, which is the reading order; a
// failure destroys what was read, and a secure_string wipes itself on the way.

connection_opcua::connection_opcua(const settings_source& source, const std::string& section)
    : port(read_port(source, section)),
      server_name(read_string(source, compose_key(section, group, ".server_name"))) {}

notification_connection_opcua::notification_connection_opcua(const settings_source& source,
                                                             const std::string& section)
    : host(read_string(source, compose_key(section, group, ".host"))),
      port(read_port(source, section)),
      server_name(read_string(source, compose_key(section, group, ".server_name"))) {}

connection_security::connection_security(const settings_source& source, const std::string& section)
    : security_mode(read_selection<settings::security_mode>(source, compose_key(section, group, ".security_mode"))),
      security_policy(
          read_selection<settings::security_policy>(source, compose_key(section, group, ".security_policy"))),
      client_certificate(read_string(source, compose_key(section, group, ".client_certificate"))),
      client_key(read_string(source, compose_key(section, group, ".client_key"))),
      client_key_password(read_secure(source, compose_key(section, group, ".client_key_password"))) {}

user_authentication::user_authentication(const settings_source& source, const std::string& section)
    : user_auth_mode(read_selection<settings::user_auth_mode>(source, compose_key(section, group, ".user_auth_mode"))),
      user(read_string(source, compose_key(section, group, ".user"))),
      password(read_secure(source, compose_key(section, group, ".password"))) {}

}  // namespace brenholt::monitoring_modules::opcua::settings
