#pragma once

// How miniprobe shows what the module sends and what its definition says: channels
// with their names and units, values, and the settings of a sensor or check.

#include <iosfwd>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include <nlohmann/json.hpp>

namespace miniprobe {

using nlohmann::ordered_json;

// The English text of a key from the definition's text table ("%%" shown as "%"),
// the key itself when the table lacks it or the definition came without texts.
std::string english(const ordered_json& definition, const std::string& key);

// A channel limit as the module sends it.
struct channel_limit {
    bool set = false;
    double value = 0;
};

// A channel as the probe's interface would show it.
struct channel_view {
    std::string name;
    std::string unit;    // empty: no unit
    std::string lookup;  // name of a lookup of the definition, or empty
    double scale = 1.0;  // the probe multiplies every value by it
    bool limits_enabled = false;
    channel_limit lower_warning, upper_warning, lower_error, upper_error;
};

// From the body of a DYNAMIC_CHANNEL message: the custom sensor names its channels
// itself, the fixed sensors send a text key.
channel_view view_channel(const ordered_json& definition, const ordered_json& channel);

// What the "defined" line adds to a channel's name: unit, lookup, scale factor, limits.
std::string describe_channel(const channel_view& channel);

// The state of a value: by its lookup's entry, else by the channel's limits.
enum class channel_state { none = 0, ok = 1, warning = 2, error = 3 };
std::string state_text(channel_state state);

struct shown_channel_value {
    std::string text;  // the value with its unit, or with the lookup's text
    channel_state state = channel_state::ok;
};

// A value of a scan result as the probe shows it: scaled, with its unit or its lookup's
// text, and its state.
shown_channel_value shown_value(const ordered_json& definition, const ordered_json& value, const channel_view& channel);

// Known channels by id; a scan result's values as aligned "name  value  state" lines,
// each starting with `indent`, the name after "#id " when `with_ids`. The worst state of
// the values goes to `worst` when it is given.
std::string value_lines(const ordered_json& definition, const std::map<int, channel_view>& channels,
                        const ordered_json& values, const std::string& indent, bool with_ids,
                        channel_state* worst = nullptr);

// What the probe makes of a response code.
std::string response_code_text(int code);

// Local time, to the second: "2024-05-01 13:45:07".
std::string time_stamp();

// Columns on a terminal: UTF-8 code points, not bytes.
std::size_t display_width(const std::string& text);

// One setting that a sensor or check reads, as its definition gives it.
struct setting_info {
    std::string key;      // section.group.name, as --set takes it
    std::string type;     // the definition's own name of the type, e.g. "Selection"
    std::string display;  // English display text
    std::string default_value;
    std::vector<std::pair<std::string, std::string>> options;  // value, English text
    ordered_json limits;  // the type's other properties (range, length, security)
    bool required = false;
    bool secret = false;
    std::string depends_on;  // key of the setting it depends on, or empty
    std::string condition;   // values of that setting that make this one count
};

// The settings of a sensor or check in the order the definition lists them. Raises
// std::invalid_argument when the definition has no sensor or check of that name.
std::vector<setting_info> settings_of(const ordered_json& definition, const std::string& name);

void print_settings(std::ostream& out, const std::vector<setting_info>& settings);
ordered_json settings_json(const setting_info& setting);

}  // namespace miniprobe
