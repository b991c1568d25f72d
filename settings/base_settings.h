#pragma once

#include <cstdint>
#include <string>

#include "settings/readers.h"
#include "settings/selection.h"

namespace brenholt::monitoring_modules::opcua::settings {

// What the probe itself sets for every instance, under bare keys.
struct base_settings {
    std::string host;
    settings::logging logging = settings::logging::disabled;
    // The only setting that may be absent; 60 is the only default the code holds.
    std::int64_t interval = 60;
    std::int64_t timeout = 0;
    secure_string brenholtcloudapikey;
    settings::ipversion ipversion = settings::ipversion::ipv4;

    // Reads host, logging, timeout, brenholtcloudapikey, ipversion, and interval last.
    explicit base_settings(const settings_source& source);
};

}  // namespace brenholt::monitoring_modules::opcua::settings
