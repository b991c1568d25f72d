#pragma once

// The probe's side of the settings: a value is judged by the rules of the definition the
// module sends (type, range, allowed values, length, required) before the module sees it.

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "presentation.h"

namespace miniprobe {

using assignment = std::pair<std::string, std::string>;

// Replaces each value given as "@FILE" by the file's content ("@@" stands for a value that
// starts with "@"). A setting of one line drops the file's final line break, a multiline
// one takes the file as it is. Gives key -> file name. Raises std::invalid_argument,
// naming the key and the file, when a file cannot be read.
std::map<std::string, std::string> read_value_files(const std::vector<setting_info>& settings,
                                                    std::vector<assignment>& overrides);

struct settings_verdict {
    std::vector<std::string> refused;  // one line each: key, value, rule
    std::vector<std::string> unused;   // one line for each setting that leaves given values unused
    std::map<std::string, std::string> values;  // every setting's value as the module gets it
    std::map<std::string, bool> counting;       // whether its DependsOn chain makes it count
};

// Judges `overrides` against `settings` (those of sensor or check `name`): keys that the
// definition lacks (naming the nearest real key), values against their type's rules, and
// required settings that count but stay empty. Keys for which `is_probe_key` holds pass
// unjudged. `files` (from read_value_files) names a value by its file instead of its text.
settings_verdict check_settings(const std::string& name, const std::vector<setting_info>& settings,
                                const std::vector<assignment>& overrides,
                                const std::map<std::string, std::string>& files = {});

// Edit distance, for the nearest key or option.
std::size_t edit_distance(const std::string& a, const std::string& b);

}  // namespace miniprobe
