#include "sensor_data_builder.h"

#include <set>
#include <stdexcept>

namespace miniprobe {

namespace {
const std::set<std::string> probe_keys = {"host", "logging", "interval", "timeout", "ipversion",
                                          "brenholtcloudapikey"};
}

bool is_probe_key(const std::string& key) { return probe_keys.count(key) != 0; }

std::pair<std::string, std::string> split_assignment(const std::string& text) {
    const auto eq = text.find('=');
    if (eq == std::string::npos || eq == 0) throw std::invalid_argument("expected KEY=VALUE, got '" + text + "'");
    return {text.substr(0, eq), text.substr(eq + 1)};
}

std::map<int, std::string> parse_channels(const std::string& text) {
    std::map<int, std::string> out;
    std::size_t start = 0;
    while (start <= text.size() && !text.empty()) {
        const auto comma = text.find(',', start);
        const std::string item = text.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        auto [id, name] = split_assignment(item);
        std::size_t used = 0;
        int value = 0;
        try {
            value = std::stoi(id, &used);
        } catch (const std::exception&) {
            used = 0;
        }
        if (used != id.size()) throw std::invalid_argument("channel id is not a number: '" + id + "'");
        out[value] = name;
        if (comma == std::string::npos) break;
        start = comma + 1;
    }
    return out;
}

brenholt::vuro::wire::SensorData build_sensor_data(const nlohmann::ordered_json& definition,
                                                   const build_request& request) {
    const char* table = request.is_check ? "Checks" : "Sensors";
    if (!definition.contains(table) || !definition.at(table).contains(request.name))
        throw std::invalid_argument(std::string("the module defines no ") + (request.is_check ? "check" : "sensor") +
                                    " named '" + request.name + "'");
    const auto& entry = definition.at(table).at(request.name);
    const auto& sections = request.is_check ? entry.at("Sections") : entry.at("Settings").at("Sections");

    brenholt::vuro::wire::SensorData data;
    data.set_kind(request.name);
    auto& plain = *data.mutable_settings();
    auto& secure = *data.mutable_secure_settings();
    std::set<std::string> secure_keys;

    for (const auto& section_name : sections) {
        const auto& section = definition.at("Sections").at(section_name.get<std::string>());
        for (const auto& group_name : section.at("Groups")) {
            const auto& group = definition.at("Groups").at(group_name.get<std::string>());
            for (const auto& item : group.at("Items")) {
                const auto& setting = item.at("Setting");
                const std::string key = section_name.get<std::string>() + "." + group_name.get<std::string>() + "." +
                                        setting.at("Name").get<std::string>();
                const std::string value = setting.value("Default", "");
                const bool is_secret = setting.contains("Text") &&
                                       setting.at("Text").value("Security", "") == "SettingSecurityHigh";
                if (is_secret) {
                    secure[key] = value;
                    secure_keys.insert(key);
                } else {
                    plain[key] = value;
                }
            }
        }
    }

    plain["host"] = request.base.host;
    plain["logging"] = request.base.logging ? "enabled" : "disabled";
    plain["interval"] = std::to_string(request.base.interval);
    plain["timeout"] = std::to_string(request.base.timeout);
    plain["ipversion"] = request.base.ipversion;
    secure["brenholtcloudapikey"] = "";
    secure_keys.insert("brenholtcloudapikey");

    for (const auto& [key, value] : request.overrides) {
        if (secure_keys.count(key)) {
            secure[key] = value;
        } else if (plain.count(key) || probe_keys.count(key)) {
            plain[key] = value;
        } else {
            throw std::invalid_argument("'" + key + "' is not a setting of " + request.name);
        }
    }
    for (const auto& [id, name] : request.known_channels) (*data.mutable_channels())[id] = name;
    return data;
}

}  // namespace miniprobe
