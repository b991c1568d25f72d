#include "settings/notification_settings.h"

namespace brenholt::monitoring_modules::opcua::settings {

namespace vs = ::brenholt::monitoring_modules::libvurohelper::settings;

opcua_notification::opcua_notification(const settings_source& source, const std::string& target_,
                                       const std::string& message_)
    : target(vs::kind_string::parse_and_validate(target_, {})),
      message(vs::kind_string::parse_and_validate(message_, {})),
      connection_opcua(source, section),
      connection_security(source, section),
      user_authentication(source, section),
      type(read_selection<settings::type>(source, compose_key("write", "variable", ".type"))) {}

}  // namespace brenholt::monitoring_modules::opcua::settings
