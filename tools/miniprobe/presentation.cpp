#include "presentation.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <algorithm>
#include <iomanip>
#include <ostream>
#include <set>
#include <sstream>
#include <stdexcept>

namespace miniprobe {

std::string english(const ordered_json& definition, const std::string& key) {
    const auto* table = &definition;
    for (const char* step : {"Text", "English", "Translation"}) {
        if (!table->contains(step)) return key;
        table = &table->at(step);
    }
    if (!table->contains(key)) return key;
    std::string text = table->at(key).value("Display", key);
    for (auto at = text.find("%%"); at != std::string::npos; at = text.find("%%", at + 1)) text.erase(at, 1);
    return text;
}

namespace {

// The probe's meaning of the channel unit numbers; 8 is the channel's own text.
std::string unit_text(const ordered_json& channel) {
    switch (channel.value("unit", 0)) {
        case 2: return "bytes";
        case 4: return "°C";
        case 5: return "%";
        case 7: return "s";
        case 8: return channel.value("custom_unit", "");
        case 11: return "%";
        default: return "";
    }
}

std::string padded(const std::string& text, std::size_t width) {
    const std::size_t used = display_width(text);
    return text + std::string(width > used ? width - used : 0, ' ');
}

}  // namespace

channel_view view_channel(const ordered_json& definition, const ordered_json& channel) {
    const std::string display = channel.value("display_name", "");
    channel_view view;
    view.name = display.empty() ? english(definition, channel.value("name", "")) : display;
    view.unit = unit_text(channel);
    view.lookup = channel.value("lookup", "");
    view.scale = channel.value("scale_factor", 1.0);
    view.limits_enabled = channel.value("limits_enabled", false);
    auto limit = [&channel](const char* field) {
        const auto& l = channel.contains(field) ? channel.at(field) : ordered_json::object();
        return channel_limit{l.value("is_set", false), l.value("value", 0.0)};
    };
    view.lower_warning = limit("lower_warning_limit");
    view.upper_warning = limit("upper_warning_limit");
    view.lower_error = limit("lower_error_limit");
    view.upper_error = limit("upper_error_limit");
    return view;
}

namespace {

std::string number_text(double v) {
    char text[32];
    std::snprintf(text, sizeof text, "%.12g", v);
    return text;
}

}  // namespace

std::string describe_channel(const channel_view& channel) {
    std::string out;
    if (!channel.unit.empty()) out += " [" + channel.unit + "]";
    if (!channel.lookup.empty()) out += " (lookup " + channel.lookup + ")";
    if (channel.scale != 1.0) out += ", scale factor " + number_text(channel.scale);
    if (channel.limits_enabled) {
        const std::pair<const char*, const channel_limit*> limits[] = {{"warning below ", &channel.lower_warning},
                                                                       {"warning above ", &channel.upper_warning},
                                                                       {"error below ", &channel.lower_error},
                                                                       {"error above ", &channel.upper_error}};
        for (const auto& [words, limit] : limits)
            if (limit->set) out += std::string(", ") + words + number_text(limit->value);
    }
    return out;
}

std::string state_text(channel_state state) {
    switch (state) {
        case channel_state::ok: return "ok";
        case channel_state::warning: return "warning";
        case channel_state::error: return "error";
        default: return "none";
    }
}

namespace {

channel_state lookup_state(const ordered_json& definition, const std::string& lookup, long long value) {
    if (!definition.contains("Lookups") || !definition.at("Lookups").contains(lookup)) return channel_state::none;
    for (const auto& entry : definition.at("Lookups").at(lookup).value("LookupValues", ordered_json::array())) {
        if (entry.value("Value", value + 1) != value) continue;
        const std::string state = entry.value("State", "");
        if (state == "LookupValueStateOk") return channel_state::ok;
        if (state == "LookupValueStateWarning") return channel_state::warning;
        if (state == "LookupValueStateError") return channel_state::error;
        return channel_state::none;
    }
    return channel_state::none;
}

channel_state limit_state(const channel_view& channel, double v) {
    if (!channel.limits_enabled) return channel_state::ok;
    auto beyond = [v](const channel_limit& lower, const channel_limit& upper) {
        return (lower.set && v < lower.value) || (upper.set && v > upper.value);
    };
    if (beyond(channel.lower_error, channel.upper_error)) return channel_state::error;
    if (beyond(channel.lower_warning, channel.upper_warning)) return channel_state::warning;
    return channel_state::ok;
}

}  // namespace

shown_channel_value shown_value(const ordered_json& definition, const ordered_json& value,
                                const channel_view& channel) {
    const bool floating = value.contains("floating");
    // Protobuf's JSON gives 64-bit integers as text.
    const std::string raw = floating ? value.at("floating").dump() : value.value("integer", std::string("?"));
    if (!floating && raw == "?") return {raw, channel_state::none};
    const double number = floating ? value.at("floating").get<double>() : std::strtod(raw.c_str(), nullptr);
    if (!channel.lookup.empty()) {
        const long long key = floating ? static_cast<long long>(number) : std::atoll(raw.c_str());
        return {raw + " (" + english(definition, "lookup." + channel.lookup + "." + raw) + ")",
                lookup_state(definition, channel.lookup, key)};
    }
    const double scaled = number * channel.scale;
    const std::string text = channel.scale == 1.0 ? raw : number_text(scaled);
    return {channel.unit.empty() ? text : text + " " + channel.unit, limit_state(channel, scaled)};
}

std::string value_lines(const ordered_json& definition, const std::map<int, channel_view>& channels,
                        const ordered_json& values, const std::string& indent, bool with_ids, channel_state* worst) {
    struct row {
        std::string label;
        shown_channel_value value;
    };
    std::vector<row> rows;
    std::size_t label_width = 0, value_width = 0;
    for (const auto& v : values) {
        const int id = v.value("channel_id", 0);
        const auto known = channels.find(id);
        const channel_view channel = known != channels.end() ? known->second : channel_view{};
        std::string label = with_ids || channel.name.empty() ? "#" + std::to_string(id) : "";
        if (!channel.name.empty()) label += (label.empty() ? "" : " ") + channel.name;
        rows.push_back({label, shown_value(definition, v, channel)});
        label_width = std::max(label_width, display_width(label));
        value_width = std::max(value_width, display_width(rows.back().value.text));
        if (worst != nullptr) *worst = std::max(*worst, rows.back().value.state);
    }
    std::string out;
    for (const auto& [label, value] : rows)
        out += indent + padded(label, label_width) + "  " + padded(value.text, value_width) + "  " +
               state_text(value.state) + "\n";
    return out;
}

std::string response_code_text(int code) {
    switch (code) {
        case 0: return "ok";
        case 1: return "warning";
        case 3: return "error";
        default: return "unknown";
    }
}

std::string time_stamp() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

std::size_t display_width(const std::string& text) {
    std::size_t width = 0;
    for (unsigned char c : text) width += (c & 0xC0) != 0x80;
    return width;
}

std::vector<setting_info> settings_of(const ordered_json& definition, const std::string& name) {
    const ordered_json* sections = nullptr;
    if (definition.at("Sensors").contains(name))
        sections = &definition.at("Sensors").at(name).at("Settings").at("Sections");
    else if (definition.at("Checks").contains(name))
        sections = &definition.at("Checks").at(name).at("Sections");
    if (sections == nullptr) {
        std::string known;
        for (const char* table : {"Sensors", "Checks"})
            for (const auto& [entry, unused] : definition.at(table).items()) known += " " + entry;
        throw std::invalid_argument("the module defines no sensor or check named '" + name + "'; it has:" + known);
    }
    // Everything in a setting beside these is its type.
    static const std::set<std::string> common = {"Name", "Display", "Help", "Default", "Flags"};
    std::vector<setting_info> out;
    for (const auto& section : *sections) {
        const std::string section_name = section.get<std::string>();
        for (const auto& group : definition.at("Sections").at(section_name).at("Groups")) {
            const std::string prefix = section_name + "." + group.get<std::string>() + ".";
            for (const auto& item : definition.at("Groups").at(group.get<std::string>()).at("Items")) {
                const auto& setting = item.at("Setting");
                setting_info info;
                info.key = prefix + setting.at("Name").get<std::string>();
                info.display = setting.value("Display", "");
                info.default_value = setting.value("Default", "");
                for (const auto& flag : setting.value("Flags", ordered_json::array()))
                    info.required = info.required || flag == "SettingFlagRequired";
                for (const auto& [field, properties] : setting.items()) {
                    if (common.count(field) || !properties.is_object()) continue;
                    info.type = field;
                    info.limits = ordered_json::object();
                    for (const auto& [property, value] : properties.items()) {
                        if (property == "Options") {
                            for (const auto& option : value)
                                info.options.emplace_back(option.is_object() ? option.value("Value", "") : option.get<std::string>(),
                                                          option.is_object() ? option.value("Display", "") : "");
                        } else if (property == "Security") {
                            info.secret = value == "SettingSecurityHigh";
                        } else if (property != "Mode") {
                            info.limits[property] = value;
                        }
                    }
                }
                if (item.contains("DependsOn")) {
                    info.depends_on = prefix + item.at("DependsOn").get<std::string>();
                    info.condition = item.value("Condition", "");
                }
                out.push_back(std::move(info));
            }
        }
    }
    return out;
}

namespace {

// "sign,sign_encrypt" as "sign or sign_encrypt".
std::string alternatives(const std::string& list) {
    std::string out;
    std::istringstream in(list);
    std::vector<std::string> parts;
    for (std::string part; std::getline(in, part, ',');) parts.push_back(part);
    for (std::size_t i = 0; i < parts.size(); ++i)
        out += (i == 0 ? "" : i + 1 == parts.size() ? " or " : ", ") + ("\"" + parts[i] + "\"");
    return out;
}

std::string describe_limits(const ordered_json& limits) {
    std::vector<std::string> parts;
    if (limits.value("IsMinimumSet", false)) parts.push_back("at least " + limits.at("Minimum").dump());
    if (limits.value("IsMaximumSet", false)) parts.push_back("at most " + limits.at("Maximum").dump());
    if (limits.contains("Maxlength")) parts.push_back("up to " + limits.at("Maxlength").dump() + " characters");
    if (limits.value("Multiline", false)) parts.push_back("several lines");
    for (const auto& [property, value] : limits.items())
        if (!std::set<std::string>{"IsMinimumSet", "Minimum", "IsMaximumSet", "Maximum", "Maxlength", "Multiline"}
                 .count(property))
            parts.push_back(property + " " + value.dump());
    std::string out;
    for (const auto& part : parts) out += ", " + part;
    return out;
}

}  // namespace

void print_settings(std::ostream& out, const std::vector<setting_info>& settings) {
    std::size_t width = 0;
    for (const auto& s : settings) width = std::max(width, display_width(s.key));
    for (const auto& s : settings) {
        out << padded(s.key, width) << "  " << s.display << "\n";
        out << std::string(4, ' ') << s.type << describe_limits(s.limits) << (s.required ? ", required" : "")
            << (s.secret ? ", secret (sent as a secure value)" : "") << ", default \"" << s.default_value << "\"";
        if (!s.depends_on.empty())
            out << ", counts when " << s.depends_on << " is " << alternatives(s.condition);
        out << "\n";
        std::size_t value_width = 0;
        for (const auto& option : s.options) value_width = std::max(value_width, display_width(option.first));
        for (const auto& [value, display] : s.options)
            out << std::string(8, ' ') << padded(value, value_width) << "  " << display << "\n";
    }
}

ordered_json settings_json(const setting_info& s) {
    ordered_json line{{"event", "setting"},  {"key", s.key},           {"type", s.type},
                      {"display", s.display}, {"default", s.default_value}, {"required", s.required},
                      {"secret", s.secret}};
    if (!s.options.empty()) {
        line["options"] = ordered_json::array();
        for (const auto& [value, display] : s.options) line["options"].push_back({{"value", value}, {"display", display}});
    }
    if (!s.limits.empty()) line["limits"] = s.limits;
    if (!s.depends_on.empty()) {
        line["depends_on"] = s.depends_on;
        line["condition"] = s.condition;
    }
    return line;
}

}  // namespace miniprobe
