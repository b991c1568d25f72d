#include "settings/records.h"

namespace brenholt::monitoring_modules::opcua::settings {

common_settings::common_settings(const settings_source& source)
    : base(source),
      connection_opcua(source, section),
      connection_security(source, section),
      user_authentication(source, section) {}

}  // namespace brenholt::monitoring_modules::opcua::settings
