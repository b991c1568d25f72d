#include "settings/base_settings.h"

#include "libvurohelper/exceptions.h"

namespace brenholt::monitoring_modules::opcua::settings {

namespace ex = ::brenholt::monitoring_modules::libvurohelper::utils::exceptions;

// The member initialisers run in declaration order, which is the reading order
// for everything but interval: that one starts at its default and is read last.
base_settings::base_settings(const settings_source& source)
    : host(read_string(source, "host")),
      logging(read_selection<settings::logging>(source, "logging")),
      interval(60),
      timeout(read_integer(source, "timeout", true, 0, false, 0)),
      brenholtcloudapikey(read_secure(source, "brenholtcloudapikey")),
      ipversion(read_selection<settings::ipversion>(source, "ipversion")) {
    try {
        interval = read_integer(source, "interval", true, 1, false, 0);
    } catch (const ex::setting_not_available&) {
        // Older probes do not send it; a value that is present and bad still fails.
    }
}

}  // namespace brenholt::monitoring_modules::opcua::settings
