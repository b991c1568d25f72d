#pragma once

#include <array>
#include <optional>
#include <string>

#include "settings/readers.h"
#include "settings/records.h"
#include "settings/selection.h"

namespace brenholt::monitoring_modules::opcua::settings {

inline constexpr int custom_channel_count = 10;

// One of the custom sensor's channels. Number N runs from 1 to 10 and appears in the
// keys without a leading zero: custom.connection_custom.channelN_settings and so on.
struct custom_channel {
    static constexpr const char* group = "connection_custom";

    // Channel 1 has no switch and is always on, so it is left empty there; for 2 to 10
    // it holds the selection as sent, also "disable".
    std::optional<settings::channel> enabled;
    channel_settings naming = channel_settings::automatic;
    std::string name;
    std::string unit;
    double scale_factor = 1.0;
    std::string nodeid;

    // Reads every key of channel `number` whatever its switch says: the values of a
    // disabled channel are validated the same, and a bad one fails the record.
    custom_channel(const settings_source& source, const std::string& section, int number);
};

struct custom_sensor : common_settings {
    static constexpr const char* title = "OPC UA Custom";
    static constexpr const char* version = module_version;
    static constexpr const char* custom_section = "custom";
    static constexpr const char* sensor_message_group = "sensor_message_custom";

    // Empty when the user wants no message from the server.
    std::string sensor_message_nodeid;
    std::array<custom_channel, custom_channel_count> channels;

    // Common parts first, then the message node, then channels 1 to 10.
    explicit custom_sensor(const settings_source& source);
};

}  // namespace brenholt::monitoring_modules::opcua::settings
