// The embedded definition document against the message catalogue and the
// rules the probe relies on. The catalogue is read here independently of the
// generator, so a wrong key derivation in the generator shows up as a mismatch.
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

const json& document() {
    static const json doc = json::parse(module_definition_text());
    return doc;
}

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size()))
        text.replace(at, from.size(), to);
    return text;
}

// The catalogue with every channel template expanded for all ten channel numbers.
// Keys that have no setting in some channel (channel1's switch) are simply not looked up.
const std::map<std::string, std::string>& catalogue_texts() {
    static const std::map<std::string, std::string> texts = [] {
        std::map<std::string, std::string> out;
        const json catalogue = json::parse(read_file(CATALOGUE_PATH));
        for (auto& [key, text] : catalogue.items()) {
            if (key.find("{cur}") == std::string::npos) {
                out[key] = text.get<std::string>();
                continue;
            }
            for (int n = 1; n <= 10; ++n)
                out[replace_all(key, "{cur}", std::to_string(n))] =
                    replace_all(text.get<std::string>(), "{cur}", std::to_string(n));
        }
        return out;
    }();
    return texts;
}

std::vector<std::string> names_of(const json& list) {
    std::vector<std::string> names;
    for (auto& name : list) names.push_back(name.get<std::string>());
    return names;
}

TEST(DefinitionText, IsOneLineOfJsonWithTheNineTopLevelKeysInOrder) {
    const std::string& text = module_definition_text();
    EXPECT_EQ(text.find_first_of("\r\n"), std::string::npos);
    // The embedded constants must reproduce the generator's document byte for byte.
    EXPECT_EQ(text, read_file(DEFINITION_JSON_PATH));

    std::vector<std::string> keys;
    for (auto& item : document().items()) keys.push_back(item.key());
    EXPECT_EQ(keys, (std::vector<std::string>{"Revision", "MetaData", "Sensors", "MetaScans", "Checks", "Sections",
                                              "Groups", "Lookups", "Text"}));
    EXPECT_EQ(document()["Revision"], 68);
    EXPECT_TRUE(document()["MetaScans"].is_object());
    EXPECT_TRUE(document()["MetaScans"].empty());
    EXPECT_EQ(document()["MetaData"]["Version"], "1.16.0.20981");
    EXPECT_FALSE(document()["MetaData"]["Contact"].get<std::string>().empty());
}

TEST(DefinitionText, NamedEntriesAreSortedAndCarryTheirName) {
    for (const char* part : {"Sensors", "Checks", "Sections", "Groups", "Lookups"}) {
        std::vector<std::string> keys;
        for (auto& [name, entry] : document()[part].items()) {
            keys.push_back(name);
            EXPECT_EQ(entry["Name"], name) << part;
        }
        EXPECT_TRUE(std::is_sorted(keys.begin(), keys.end())) << part;
    }
    // The names that the module binds to its classes.
    EXPECT_EQ(document()["Sensors"].size(), 4u);
    for (const char* sensor : {"custom_sensor", "server_status_sensor", "certificate_sensor",
                               "beckhoff_ipc_system_status_sensor"})
        EXPECT_TRUE(document()["Sensors"].contains(sensor)) << sensor;
    EXPECT_EQ(document()["Checks"].size(), 2u);
    for (const char* check : {"connection_check", "endpoint_validation_check"})
        EXPECT_TRUE(document()["Checks"].contains(check)) << check;
}

TEST(DefinitionText, EveryReferencedNameResolves) {
    const json& doc = document();
    for (auto& [name, sensor] : doc["Sensors"].items()) {
        for (auto& check : sensor["RequiredChecks"]) EXPECT_TRUE(doc["Checks"].contains(check)) << name;
        for (auto& section : sensor["Settings"]["Sections"]) EXPECT_TRUE(doc["Sections"].contains(section)) << name;
    }
    for (auto& [name, check] : doc["Checks"].items())
        for (auto& section : check["Sections"]) EXPECT_TRUE(doc["Sections"].contains(section)) << name;
    for (auto& [name, section] : doc["Sections"].items())
        for (auto& group : section["Groups"]) EXPECT_TRUE(doc["Groups"].contains(group)) << name;

    for (auto& [group, entry] : doc["Groups"].items()) {
        std::map<std::string, json> settings;
        for (auto& item : entry["Items"]) settings[item["Setting"]["Name"]] = item["Setting"];
        for (auto& item : entry["Items"]) {
            if (!item.contains("DependsOn")) continue;
            const std::string where = group + "." + item["Setting"]["Name"].get<std::string>();
            auto target = settings.find(item["DependsOn"]);
            ASSERT_NE(target, settings.end()) << where;
            ASSERT_TRUE(target->second.contains("Selection")) << where;
            std::set<std::string> values;
            for (auto& option : target->second["Selection"]["Options"]) values.insert(option["Value"]);
            std::string condition = item["Condition"];
            for (std::size_t start = 0, end; start <= condition.size(); start = end + 1) {
                end = std::min(condition.find(',', start), condition.size());
                EXPECT_EQ(values.count(condition.substr(start, end - start)), 1u) << where << ": " << condition;
            }
        }
    }
}

TEST(DefinitionText, SensorsDifferOnlyWhereIntended) {
    struct expected {
        const char* name;
        std::vector<std::string> required_checks;
        std::vector<std::string> sections;
        bool has_interval;
        bool has_flag;
    };
    const std::vector<expected> table = {
        {"custom_sensor", {"endpoint_validation_check", "connection_check"}, {"credentials", "custom"}, false, false},
        {"server_status_sensor", {"endpoint_validation_check", "connection_check"}, {"credentials"}, false, false},
        {"certificate_sensor", {"endpoint_validation_check"}, {"credentials"}, true, false},
        {"beckhoff_ipc_system_status_sensor", {"endpoint_validation_check", "connection_check"}, {"credentials"},
         false, true},
    };
    for (const expected& e : table) {
        ASSERT_TRUE(document()["Sensors"].contains(e.name)) << e.name;
        const json& sensor = document()["Sensors"][e.name];
        EXPECT_EQ(names_of(sensor["RequiredChecks"]), e.required_checks) << e.name;
        EXPECT_EQ(names_of(sensor["Settings"]["Sections"]), e.sections) << e.name;
        EXPECT_EQ(sensor.contains("RecommendedInterval"), e.has_interval) << e.name;
        EXPECT_EQ(sensor.contains("Flag"), e.has_flag) << e.name;
    }
    EXPECT_EQ(document()["Sensors"]["certificate_sensor"]["RecommendedInterval"], 43200);
    EXPECT_EQ(document()["Sensors"]["beckhoff_ipc_system_status_sensor"]["Flag"], json::array());
}

TEST(DefinitionText, EveryDisplayAndHelpIsTheEnglishTextOfItsKey) {
    const json& doc = document();
    const json& english = doc["Text"]["English"]["Translation"];
    std::set<std::string> used;
    auto expect_text = [&](const json& actual, const std::string& key) {
        used.insert(key);
        auto in_catalogue = catalogue_texts().find(key);
        ASSERT_NE(in_catalogue, catalogue_texts().end()) << key;
        ASSERT_TRUE(english.contains(key)) << key;
        EXPECT_EQ(actual, in_catalogue->second) << key;
        EXPECT_EQ(english[key]["Display"], in_catalogue->second) << key;
    };

    expect_text(doc["MetaData"]["Display"], "module.display");
    expect_text(doc["MetaData"]["Description"], "module.description");
    const std::pair<const char*, const char*> sensor_fields[] = {
        {"Display", ".display"}, {"Description", ".description"}, {"Help", ".help"}};
    for (auto& [name, sensor] : doc["Sensors"].items())
        for (auto [field, suffix] : sensor_fields) expect_text(sensor[field], name + suffix);
    for (auto& [name, section] : doc["Sections"].items()) expect_text(section["Display"], name + ".display");
    for (auto& [group, entry] : doc["Groups"].items()) {
        for (auto& item : entry["Items"]) {
            const json& setting = item["Setting"];
            const std::string key = group + "." + setting["Name"].get<std::string>();
            expect_text(setting["Display"], key + ".display");
            expect_text(setting["Help"], key + ".help");
            if (setting.contains("Selection"))
                for (auto& option : setting["Selection"]["Options"])
                    expect_text(option["Display"], key + ".option." + option["Value"].get<std::string>());
        }
    }
    for (auto& [name, lookup] : doc["Lookups"].items())
        for (auto& value : lookup["LookupValues"])
            expect_text(value["Display"], "lookup." + name + "." + std::to_string(value["Value"].get<int>()));

    // Conversely, every English text meant for an entry must be used by one; an
    // unused one means a setting, option or lookup value is missing.
    for (auto& [key, text] : english.items()) {
        const bool message_text = key.rfind("error.", 0) == 0 || key.rfind("message.", 0) == 0 ||
                                  key.rfind("channel.", 0) == 0 || key.find(".error.") != std::string::npos;
        if (!message_text) {
            EXPECT_EQ(used.count(key), 1u) << key << " is used by no entry";
        }
    }
}

TEST(DefinitionText, LanguageTablesHoldTheirKeySets) {
    const json& text = document()["Text"];
    const std::vector<std::pair<std::string, std::size_t>> expected = {
        {"Russian", 285}, {"Brazilian", 285}, {"Dutch", 285},   {"Japanese", 285},         {"French", 285},
        {"Spanish", 298}, {"English", 335},   {"German", 298},  {"SimplifiedChinese", 285},
    };
    std::vector<std::pair<std::string, std::size_t>> actual;
    for (auto& [language, table] : text.items()) actual.emplace_back(language, table["Translation"].size());
    EXPECT_EQ(actual, expected);

    // Channel 1 has no switch, so the switch's templates start at channel 2.
    std::set<std::string> expanded_catalogue;
    const json catalogue = json::parse(read_file(CATALOGUE_PATH));
    for (auto& [key, _] : catalogue.items()) {
        if (key.find("{cur}") == std::string::npos) {
            expanded_catalogue.insert(key);
            continue;
        }
        const bool is_switch = key.rfind("connection_custom.channel{cur}.", 0) == 0;
        for (int n = is_switch ? 2 : 1; n <= 10; ++n) expanded_catalogue.insert(replace_all(key, "{cur}", std::to_string(n)));
    }
    std::set<std::string> english;
    for (auto& [key, _] : text["English"]["Translation"].items()) english.insert(key);
    EXPECT_EQ(english, expanded_catalogue);

    const std::string basic256 = "connection_security.security_policy.option.Basic256";
    for (auto& [language, table] : text.items()) {
        const json& keys = table["Translation"];
        const bool reduced = language != "English" && language != "German" && language != "Spanish";
        EXPECT_FALSE(keys.contains("connection_custom.channel1.display")) << language;
        EXPECT_TRUE(keys.contains("connection_custom.channel2.display")) << language;
        EXPECT_TRUE(keys.contains("connection_custom.channel10_nodeid.help")) << language;
        EXPECT_EQ(keys.contains("lookup.server_state.7"), language == "English") << language;
        EXPECT_EQ(keys.contains("channel.uptime"), language == "English") << language;
        EXPECT_EQ(keys.contains("certificate_helper.error.bad_alloc"), !reduced) << language;
        EXPECT_EQ(keys.contains(basic256), reduced) << language;
        for (auto& [key, entry] : keys.items()) {
            EXPECT_EQ(key.find("{cur}"), std::string::npos) << language << ": " << key;
            EXPECT_EQ(entry.size(), 1u) << language << ": " << key;
            EXPECT_TRUE(entry["Display"].is_string()) << language << ": " << key;
            if (key != basic256) {
                EXPECT_EQ(expanded_catalogue.count(key), 1u) << language << ": " << key;
            }
        }
    }
    EXPECT_EQ(text["Russian"]["Translation"].value(basic256, json::object()).value("Display", ""), "Basic256");
}

// connection_custom: channel 1 always on without a switch; channels 2 to 10
// each behind a switch of their own.
TEST(DefinitionText, CustomChannelsFollowTheChannelRule) {
    const json& items = document()["Groups"]["connection_custom"]["Items"];
    ASSERT_EQ(items.size(), 59u);

    const json no_flags = json::array();
    const json required_not_in_edit = {"SettingFlagRequired", "SettingFlagVisibilityNotInEdit"};
    const json not_in_edit = {"SettingFlagVisibilityNotInEdit"};
    const json scale_flags = {"SettingFlagRequired", "SettingFlagVisibilityNotInEdit",
                              "SettingFlagReadOnlyOnNotEmpty"};
    const json nodeid_flags = {"SettingFlagRequired", "SettingFlagReadOnlyOnNotEmpty"};

    std::size_t at = 0;
    for (int n = 1; n <= 10; ++n) {
        const std::string c = "channel" + std::to_string(n);
        const std::string label = "Channel #" + std::to_string(n);
        const std::string sw = n == 1 ? "" : c;  // what "enable" of the channel depends on
        struct row {
            std::string name, display, kind, default_value, depends_on, condition;
            json flags;
        };
        std::vector<row> rows;
        if (n > 1) rows.push_back({c, label, "Selection", "disable", "", "", not_in_edit});
        rows.push_back({c + "_settings", label + " Naming Method", "Selection", "automatic", sw, sw.empty() ? "" : "enable",
                        not_in_edit});
        rows.push_back({c + "_name", label + " Name", "Text", "", c + "_settings", "manual", required_not_in_edit});
        rows.push_back({c + "_unit", label + " Unit", "Text", "", sw, sw.empty() ? "" : "enable", not_in_edit});
        rows.push_back({c + "_scale_factor", label + " Scale Factor", "Floatingpoint", "1", sw,
                        sw.empty() ? "" : "enable", scale_flags});
        rows.push_back({c + "_nodeid", label + " NodeID", "Text", "", sw, sw.empty() ? "" : "enable", nodeid_flags});

        for (const row& r : rows) {
            ASSERT_LT(at, items.size());
            const json& item = items[at++];
            const json& setting = item["Setting"];
            EXPECT_EQ(setting["Name"], r.name);
            EXPECT_EQ(setting["Display"], r.display) << r.name;
            EXPECT_EQ(setting["Default"], r.default_value) << r.name;
            EXPECT_TRUE(setting.contains(r.kind)) << r.name;
            EXPECT_EQ(setting.value("Flags", no_flags), r.flags) << r.name;
            EXPECT_EQ(item.value("DependsOn", ""), r.depends_on) << r.name;
            EXPECT_EQ(item.value("Condition", ""), r.condition) << r.name;
            const json& kind = setting.value(r.kind, json::object());
            if (r.kind == "Selection") {
                EXPECT_EQ(kind.value("Mode", ""), "SettingSelectionModeSingle") << r.name;
            }
            if (r.name == c + "_name" || r.name == c + "_unit") {
                EXPECT_EQ(kind.value("Maxlength", 0), 32) << r.name;
            }
            if (r.kind == "Floatingpoint") {
                EXPECT_EQ(kind, json::parse(R"({"IsMinimumSet": false, "Minimum": 0,
                                                "IsMaximumSet": false, "Maximum": 0})"))
                    << r.name;
            }
        }
    }
}

}  // namespace
