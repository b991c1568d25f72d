#include "settings_check.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <set>
#include <sstream>
#include <stdexcept>

#include "sensor_data_builder.h"

namespace miniprobe {

namespace {

std::vector<std::string> split(const std::string& list, char separator) {
    std::vector<std::string> parts;
    std::istringstream in(list);
    for (std::string part; std::getline(in, part, separator);) parts.push_back(part);
    return parts;
}

// "a", "b" or "c"; keys go without quotes.
std::string listed(const std::vector<std::string>& values, const char* last_word, bool quoted = true) {
    const std::string quote = quoted ? "\"" : "";
    std::string out;
    for (std::size_t i = 0; i < values.size(); ++i)
        out += (i == 0 ? "" : i + 1 == values.size() ? std::string(" ") + last_word + " " : ", ") + quote + values[i] +
               quote;
    return out;
}

// How a refused value is named: secrets by their length only, long or multiline text cut.
std::string shown(const setting_info* setting, const std::string& key, const std::string& value,
                  const std::map<std::string, std::string>& files) {
    if (const auto file = files.find(key); file != files.end()) return "@" + file->second;
    if (setting != nullptr && setting->secret)
        return "(secret of " + std::to_string(display_width(value)) + " characters)";
    std::string text = value.substr(0, value.find('\n'));
    if (display_width(text) > 40) {
        std::size_t cut = 0;
        for (std::size_t chars = 0; cut < text.size() && chars < 40; ++cut) chars += (text[cut] & 0xC0) != 0x80;
        while (cut < text.size() && (text[cut] & 0xC0) == 0x80) ++cut;
        text = text.substr(0, cut) + "...";
    } else if (text.size() < value.size()) {
        text += "...";
    }
    return "\"" + text + "\"";
}

std::string number_text(const ordered_json& number) { return number.dump(); }

// The rule that `value` breaks, or empty. Empty values are the business of "required".
std::string broken_rule(const setting_info& s, const std::string& value) {
    const ordered_json& rules = s.limits;
    auto range = [&](double v) -> std::string {
        if (rules.value("IsMinimumSet", false) && v < rules.at("Minimum").get<double>())
            return "must be at least " + number_text(rules.at("Minimum"));
        if (rules.value("IsMaximumSet", false) && v > rules.at("Maximum").get<double>())
            return "must be at most " + number_text(rules.at("Maximum"));
        return "";
    };
    if (s.type == "IntegerSigned") {
        if (value.empty()) return "";
        static const std::regex whole("[+-]?[0-9]+");
        if (!std::regex_match(value, whole)) return "takes a whole number";
        errno = 0;
        const long long v = std::strtoll(value.c_str(), nullptr, 10);
        if (errno == ERANGE) return "takes a whole number of at most 19 digits";
        return range(static_cast<double>(v));
    }
    if (s.type == "Floatingpoint") {
        if (value.empty()) return "";
        // Decimal notation only: the probe's field takes neither "inf" nor hexadecimal.
        static const std::regex decimal("[+-]?([0-9]+(\\.[0-9]*)?|\\.[0-9]+)([eE][+-]?[0-9]+)?");
        if (!std::regex_match(value, decimal)) return "takes a number such as 0.5, 12 or 1e-3";
        const double v = std::strtod(value.c_str(), nullptr);
        if (!std::isfinite(v)) return "takes a number within the range of a double";
        return range(v);
    }
    if (s.type == "Selection") {
        std::vector<std::string> allowed;
        for (const auto& option : s.options) allowed.push_back(option.first);
        if (allowed.empty() || std::find(allowed.begin(), allowed.end(), value) != allowed.end()) return "";
        std::string rule = "takes " + listed(allowed, "or");
        const auto nearest = std::min_element(allowed.begin(), allowed.end(), [&](const auto& a, const auto& b) {
            return edit_distance(value, a) < edit_distance(value, b);
        });
        if (edit_distance(value, *nearest) <= std::max<std::size_t>(2, nearest->size() / 3))
            rule += " (did you mean \"" + *nearest + "\"?)";
        return rule;
    }
    if (s.type == "Text") {
        const std::size_t length = display_width(value);
        const long long most = rules.value("Maxlength", 0LL);
        if (most > 0 && length > static_cast<std::size_t>(most))
            return "takes at most " + std::to_string(most) + " characters, not " + std::to_string(length);
        if (!rules.value("Multiline", false) && value.find_first_of("\r\n") != std::string::npos)
            return "takes one line";
    }
    return "";
}

// The real key that a mistyped one most resembles: by the whole key, and for a key without
// dots also by the setting's own name, since that is what people remember.
std::string nearest_key(const std::string& key, const std::vector<setting_info>& settings) {
    std::string best;
    std::size_t best_distance = std::string::npos;
    for (const auto& s : settings) {
        std::size_t d = edit_distance(key, s.key);
        if (key.find('.') == std::string::npos) d = std::min(d, edit_distance(key, s.key.substr(s.key.rfind('.') + 1)));
        if (d < best_distance) best_distance = d, best = s.key;
    }
    return best;
}

}  // namespace

std::size_t edit_distance(const std::string& a, const std::string& b) {
    std::vector<std::size_t> row(b.size() + 1);
    for (std::size_t j = 0; j <= b.size(); ++j) row[j] = j;
    for (std::size_t i = 1; i <= a.size(); ++i) {
        std::size_t diagonal = row[0];
        row[0] = i;
        for (std::size_t j = 1; j <= b.size(); ++j) {
            const std::size_t above = row[j];
            row[j] = std::min({row[j] + 1, row[j - 1] + 1, diagonal + (a[i - 1] == b[j - 1] ? 0 : 1)});
            diagonal = above;
        }
    }
    return row[b.size()];
}

std::map<std::string, std::string> read_value_files(const std::vector<setting_info>& settings,
                                                    std::vector<assignment>& overrides) {
    std::map<std::string, std::string> files;
    for (auto& [key, value] : overrides) {
        if (value.rfind("@@", 0) == 0) {
            value.erase(0, 1);
            continue;
        }
        if (value.empty() || value[0] != '@') continue;
        const std::string file = value.substr(1);
        std::ifstream in(file, std::ios::binary);
        if (!in) throw std::invalid_argument(key + "=@" + file + ": cannot read " + file + ": " + std::strerror(errno));
        std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        if (in.bad()) throw std::invalid_argument(key + "=@" + file + ": cannot read " + file);
        const auto setting =
            std::find_if(settings.begin(), settings.end(), [&key](const auto& s) { return s.key == key; });
        const bool multiline = setting != settings.end() && setting->limits.value("Multiline", false);
        if (!multiline) {
            if (!content.empty() && content.back() == '\n') content.pop_back();
            if (!content.empty() && content.back() == '\r') content.pop_back();
        }
        value = std::move(content);
        files[key] = file;
    }
    return files;
}

settings_verdict check_settings(const std::string& name, const std::vector<setting_info>& settings,
                                const std::vector<assignment>& overrides,
                                const std::map<std::string, std::string>& files) {
    settings_verdict verdict;
    std::map<std::string, const setting_info*> by_key;
    for (const auto& s : settings) {
        by_key[s.key] = &s;
        verdict.values[s.key] = s.default_value;
    }

    std::set<std::string> given;
    for (const auto& [key, value] : overrides) {
        if (is_probe_key(key)) continue;
        const auto found = by_key.find(key);
        if (found == by_key.end()) {
            std::string line = key + ": " + name + " has no such setting";
            if (!settings.empty()) line += "; the nearest is " + nearest_key(key, settings);
            verdict.refused.push_back(line);
            continue;
        }
        verdict.values[key] = value;
        given.insert(key);
    }
    for (const auto& key : given) {
        const setting_info& s = *by_key.at(key);
        const std::string rule = broken_rule(s, verdict.values.at(key));
        if (!rule.empty())
            verdict.refused.push_back(key + "=" + shown(&s, key, verdict.values.at(key), files) + ": " + s.display +
                                      " " + rule);
    }

    // A setting counts when the setting it depends on counts and holds one of the values
    // of its condition; the definition lists a setting after the one it depends on.
    for (const auto& s : settings) {
        bool counts = true;
        if (!s.depends_on.empty()) {
            const auto parent = verdict.counting.find(s.depends_on);
            const auto conditions = split(s.condition, ',');
            counts = (parent == verdict.counting.end() || parent->second) &&
                     std::find(conditions.begin(), conditions.end(), verdict.values[s.depends_on]) != conditions.end();
        }
        verdict.counting[s.key] = counts;
        if (counts && s.required && verdict.values[s.key].empty()) {
            std::string line = s.key + "=\"\": " + s.display + " is required";
            if (!s.depends_on.empty())
                line += " while " + s.depends_on + " is \"" + verdict.values[s.depends_on] + "\"";
            verdict.refused.push_back(line);
        }
    }

    // Values given for settings that do not count, one line for each setting that decides.
    std::map<std::string, std::vector<std::string>> unused;
    for (const auto& s : settings)
        if (given.count(s.key) && !verdict.counting[s.key]) unused[s.depends_on].push_back(s.key);
    for (const auto& [decider, keys] : unused) {
        const setting_info& d = *by_key.at(decider);
        const auto wanted = by_key.at(keys.front())->condition;
        std::string line = listed(keys, "and", false) + (keys.size() == 1 ? " is" : " are") + " set but not used: " +
                           (keys.size() == 1 ? "it counts" : "they count") + " only when " + decider + " is " +
                           listed(split(wanted, ','), "or") + ", and it is \"" + verdict.values[decider] + "\"";
        if (!verdict.counting[d.key]) line += ", which does not count itself";
        verdict.unused.push_back(line);
    }
    return verdict;
}

}  // namespace miniprobe
