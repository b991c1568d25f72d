#include "settings/custom_sensor_settings.h"

namespace brenholt::monitoring_modules::opcua::settings {

namespace {

// The definition limits channel names and units to 32 bytes.
constexpr std::size_t channel_text_limit = 32;

std::string channel_key(const std::string& section, int number, const char* field) {
    const std::string suffix = ".channel" + std::to_string(number) + field;
    return compose_key(section, custom_channel::group, suffix.c_str());
}

}  // namespace

custom_channel::custom_channel(const settings_source& source, const std::string& section, int number) {
    // Channel 1 has no switch in the definition, so its key is never looked up.
    if (number != 1) enabled = read_selection<settings::channel>(source, channel_key(section, number, ""));
    naming = read_selection<channel_settings>(source, channel_key(section, number, "_settings"));
    name = read_string(source, channel_key(section, number, "_name"), channel_text_limit);
    unit = read_string(source, channel_key(section, number, "_unit"), channel_text_limit);
    scale_factor = read_float(source, channel_key(section, number, "_scale_factor"));
    nodeid = read_string(source, channel_key(section, number, "_nodeid"));
}

// A braced list constructs its elements in order, so the channels read 1 to 10.
custom_sensor::custom_sensor(const settings_source& source)
    : common_settings(source),
      sensor_message_nodeid(read_string(source, compose_key(custom_section, sensor_message_group, ".nodeid"))),
      channels{custom_channel(source, custom_section, 1), custom_channel(source, custom_section, 2),
               custom_channel(source, custom_section, 3), custom_channel(source, custom_section, 4),
               custom_channel(source, custom_section, 5), custom_channel(source, custom_section, 6),
               custom_channel(source, custom_section, 7), custom_channel(source, custom_section, 8),
               custom_channel(source, custom_section, 9), custom_channel(source, custom_section, 10)} {}

}  // namespace brenholt::monitoring_modules::opcua::settings
