#pragma once

#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "vuro.pb.h"

namespace miniprobe {

// What the probe itself sets for every sensor and check, beside the module's settings.
struct base_values {
    std::string host = "127.0.0.1";
    bool logging = false;
    long interval = 60;
    long timeout = 10;
    std::string ipversion = "IPv4";
};

struct build_request {
    std::string name;                              // sensor or check name in the definition
    bool is_check = false;
    base_values base;
    std::vector<std::pair<std::string, std::string>> overrides;  // full dotted keys
    std::map<int, std::string> known_channels;
};

// Builds sensor data as the probe would: every setting of the sections the entry
// names, at its default; secrets (SettingSecurityHigh) as secure values; then the
// base values and the overrides. Raises std::invalid_argument for an unknown name
// or an override of a key that neither the definition nor the probe knows.
brenholt::vuro::wire::SensorData build_sensor_data(const nlohmann::ordered_json& definition,
                                                   const build_request& request);

// Whether `key` is one of the probe's own settings (host, interval, ...), which no
// definition lists.
bool is_probe_key(const std::string& key);

// "KEY=VALUE" into its two parts; raises std::invalid_argument without "=".
std::pair<std::string, std::string> split_assignment(const std::string& text);
// "1=Name,4=Other" into channel ids and names.
std::map<int, std::string> parse_channels(const std::string& text);

}  // namespace miniprobe
