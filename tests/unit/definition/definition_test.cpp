// The embedded definition document against the message catalogue and the rules
// the probe relies on. The catalogue is read here independently of the generator,
// so a wrong key derivation in the generator shows up as a mismatch.
#include "module/definition/module_definition_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace {

using json = nlohmann::ordered_json;
using brenholt::monitoring_modules::opcua::module_definition_text;

std::string read_file(const char* path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in) << path;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

const json& doc() { static const json d = json::parse(module_definition_text()); return d; }

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) text.replace(at, from.size(), to);
    return text;
}

// The catalogue with every channel template expanded; channel 1 has no switch.
const std::map<std::string, std::string>& catalogue() {
    static const std::map<std::string, std::string> texts = [] {
        std::map<std::string, std::string> out;
        const json source = json::parse(read_file(CATALOGUE_PATH));
        for (auto& [key, text] : source.items()) {
            const bool is_switch = key.rfind("connection_custom.channel{cur}.", 0) == 0;
            for (int n = is_switch ? 2 : 1; n <= (key.find("{cur}") == std::string::npos ? 1 : 10); ++n)
                out[replace_all(key, "{cur}", std::to_string(n))] = replace_all(text.get<std::string>(), "{cur}", std::to_string(n));
        }
        return out;
    }();
    return texts;
}

TEST(definition, one_line_sorted_and_with_the_sensors_the_module_binds) {
    const std::string& text = module_definition_text();
    EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos);
    EXPECT_EQ(text, read_file(DEFINITION_JSON_PATH)) << "the embedded constants must reproduce the generator's output";
    std::vector<std::string> keys;
    for (auto& item : doc().items()) keys.push_back(item.key());
    EXPECT_EQ(keys, (std::vector<std::string>{"Revision", "MetaData", "Sensors", "MetaScans", "Checks", "Sections",
                                              "Groups", "Lookups", "Text"}));
    EXPECT_EQ(doc()["Revision"], 68);
    EXPECT_EQ(doc()["MetaScans"], json::object());
    EXPECT_EQ(doc()["MetaData"]["Version"], "1.16.0.20981");
    for (const char* part : {"Sensors", "Checks", "Sections", "Groups", "Lookups"}) {
        std::vector<std::string> names;
        for (auto& [name, entry] : doc()[part].items()) {
            names.push_back(name);
            EXPECT_EQ(entry["Name"], name) << part;
        }
        EXPECT_TRUE(std::is_sorted(names.begin(), names.end())) << part;
        if (std::string(part) == "Checks") {
            EXPECT_EQ(names, (std::vector<std::string>{"connection_check", "endpoint_validation_check"}));
        }
    }
    const json sensors = json::parse(R"({
        "beckhoff_ipc_system_status_sensor": [["endpoint_validation_check", "connection_check"], ["credentials"]],
        "certificate_sensor": [["endpoint_validation_check"], ["credentials"]],
        "custom_sensor": [["endpoint_validation_check", "connection_check"], ["credentials", "custom"]],
        "server_status_sensor": [["endpoint_validation_check", "connection_check"], ["credentials"]]})");
    EXPECT_EQ(doc()["Sensors"].size(), sensors.size());
    for (auto& [name, expected] : sensors.items()) {
        const json& sensor = doc()["Sensors"][name];
        EXPECT_EQ(sensor["RequiredChecks"], expected[0]) << name;
        EXPECT_EQ(sensor["Settings"]["Sections"], expected[1]) << name;
        EXPECT_EQ(sensor.value("RecommendedInterval", 0), name == "certificate_sensor" ? 43200 : 0) << name;
        EXPECT_EQ(sensor.contains("Flag"), name == "beckhoff_ipc_system_status_sensor") << name;
    }
}

TEST(definition, every_display_and_help_is_the_english_text_of_its_key) {
    const json& english = doc()["Text"]["English"]["Translation"];
    std::set<std::string> used;
    auto expect_text = [&](const json& actual, const std::string& key) {
        used.insert(key);
        ASSERT_EQ(catalogue().count(key), 1u) << key;
        EXPECT_EQ(actual, catalogue().at(key)) << key;
        EXPECT_EQ(english[key]["Display"], catalogue().at(key)) << key;
    };
    expect_text(doc()["MetaData"]["Display"], "module.display");
    expect_text(doc()["MetaData"]["Description"], "module.description");
    for (auto& [name, sensor] : doc()["Sensors"].items())
        for (auto [field, suffix] : {std::pair{"Display", ".display"}, {"Description", ".description"}, {"Help", ".help"}})
            expect_text(sensor[field], name + suffix);
    for (auto& [name, section] : doc()["Sections"].items()) {
        expect_text(section["Display"], name + ".display");
        for (auto& group : section["Groups"]) EXPECT_TRUE(doc()["Groups"].contains(group)) << name;
    }
    for (auto& [group, entry] : doc()["Groups"].items()) {
        std::map<std::string, std::set<std::string>> options;
        for (auto& item : entry["Items"]) {
            const json& setting = item["Setting"];
            const std::string key = group + "." + setting["Name"].get<std::string>();
            expect_text(setting["Display"], key + ".display");
            expect_text(setting["Help"], key + ".help");
            for (auto& option : setting.value("Selection", json::object()).value("Options", json::array())) {
                expect_text(option["Display"], key + ".option." + option["Value"].get<std::string>());
                options[setting["Name"]].insert(option["Value"]);
            }
        }
        // A dependency names a selection of the same group, and its condition that selection's values.
        for (auto& item : entry["Items"]) {
            if (!item.contains("DependsOn")) continue;
            const std::string condition = item["Condition"];
            for (std::size_t start = 0, end; start <= condition.size(); start = end + 1) {
                end = std::min(condition.find(',', start), condition.size());
                EXPECT_EQ(options[item["DependsOn"]].count(condition.substr(start, end - start)), 1u)
                    << group << "." << item["Setting"]["Name"] << ": " << condition;
            }
        }
    }
    for (auto& [name, lookup] : doc()["Lookups"].items())
        for (auto& value : lookup["LookupValues"])
            expect_text(value["Display"], "lookup." + name + "." + std::to_string(value["Value"].get<int>()));
    // Conversely, an unused English text means a setting, option or lookup value is missing.
    for (auto& [key, text] : english.items()) {
        const bool message = key.rfind("error.", 0) == 0 || key.rfind("message.", 0) == 0 ||
                             key.rfind("channel.", 0) == 0 || key.find(".error.") != std::string::npos;
        EXPECT_TRUE(message || used.count(key) == 1) << key << " is used by no entry";
    }
}

TEST(definition, language_tables_hold_their_key_sets) {
    const json& text = doc()["Text"];
    std::vector<std::pair<std::string, std::size_t>> sizes;
    for (auto& [language, table] : text.items()) sizes.emplace_back(language, table["Translation"].size());
    EXPECT_EQ(sizes, (std::vector<std::pair<std::string, std::size_t>>{
                         {"Russian", 285}, {"Brazilian", 285}, {"Dutch", 285}, {"Japanese", 285}, {"French", 285},
                         {"Spanish", 298}, {"English", 335}, {"German", 298}, {"SimplifiedChinese", 285}}));
    std::set<std::string> english;
    for (auto& [key, entry] : text["English"]["Translation"].items()) english.insert(key);
    std::set<std::string> expected;
    for (auto& [key, _] : catalogue()) expected.insert(key);
    EXPECT_EQ(english, expected);
    // A reduced language carries one key that English lacks.
    EXPECT_EQ(text["Russian"]["Translation"]["connection_security.security_policy.option.Basic256"]["Display"], "Basic256");
}

// connection_custom: channel 1 always on without a switch; channels 2 to 10 each behind their
// own, and a manual name behind the naming method.
TEST(definition, custom_channels_follow_the_channel_rule) {
    const json& items = doc()["Groups"]["connection_custom"]["Items"];
    ASSERT_EQ(items.size(), 59u);
    std::size_t at = 0;
    for (int n = 1; n <= 10; ++n) {
        const std::string c = "channel" + std::to_string(n);
        for (const char* suffix : {"", "_settings", "_name", "_unit", "_scale_factor", "_nodeid"}) {
            if (n == 1 && *suffix == '\0') continue;
            const json& item = items.at(at++);
            const std::string name = c + suffix, depends = item.value("DependsOn", "");
            EXPECT_EQ(item["Setting"]["Name"], name);
            if (name == c + "_name") {
                EXPECT_EQ(depends + "=" + item.value("Condition", ""), c + "_settings=manual");
            } else if (n > 1 && name != c) {
                EXPECT_EQ(depends + "=" + item.value("Condition", ""), c + "=enable") << name;
            } else {
                EXPECT_EQ(depends, "") << name;
            }
            const json flags = item["Setting"].value("Flags", json::array());
            const bool required = std::find(flags.begin(), flags.end(), "SettingFlagRequired") != flags.end();
            EXPECT_EQ(required, name == c + "_name" || name == c + "_scale_factor" || name == c + "_nodeid") << name;
        }
    }
    EXPECT_EQ(items[0]["Setting"]["Default"], "automatic");
    EXPECT_EQ(items[5]["Setting"]["Default"], "disable");
    EXPECT_EQ(items[3]["Setting"]["Default"], "1");
}

}  // namespace
