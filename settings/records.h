#pragma once

#include "settings/base_settings.h"
#include "settings/credentials.h"
#include "settings/readers.h"

// The settings record of each sensor and check. The frame needs of each: a member
// `base`, the static texts `title` and `version`, and a constructor from the source.
namespace brenholt::monitoring_modules::opcua::settings {

inline constexpr const char* module_version = "1.16.0.20981";

// What every sensor and check reads first, in this order. A record with more
// (the custom sensor's channels) derives from it and reads its own part after.
struct common_settings {
    static constexpr const char* section = "credentials";

    base_settings base;
    settings::connection_opcua connection_opcua;
    settings::connection_security connection_security;
    settings::user_authentication user_authentication;

    explicit common_settings(const settings_source& source);
};

struct server_status_sensor : common_settings {
    static constexpr const char* title = "OPC UA Server Status";
    static constexpr const char* version = module_version;
    using common_settings::common_settings;
};

struct certificate_sensor : common_settings {
    static constexpr const char* title = "OPC UA Certificate";
    static constexpr const char* version = module_version;
    using common_settings::common_settings;
};

struct beckhoff_ipc_system_status_sensor : common_settings {
    static constexpr const char* title = "Beckhoff IPC System Health";
    static constexpr const char* version = module_version;
    using common_settings::common_settings;
};

struct connection_check : common_settings {
    static constexpr const char* title = "connection_check";
    static constexpr const char* version = module_version;
    using common_settings::common_settings;
};

struct endpoint_validation_check : common_settings {
    static constexpr const char* title = "endpoint_validation_check";
    static constexpr const char* version = module_version;
    using common_settings::common_settings;
};

}  // namespace brenholt::monitoring_modules::opcua::settings
