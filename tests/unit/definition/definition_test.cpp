// The embedded definition document against the message catalogue. The catalogue is read
// here independently of the generator, so a wrong key derivation in the generator shows
// up as a mismatch. The settings' rules (dependencies, conditions, required flags,
// limits) are judged through them by miniprobe's tests, and the end-to-end suites read
// the document as the module sends it.
#include "module/definition/module_definition_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>

#include <nlohmann/json.hpp>

namespace {

using json = nlohmann::ordered_json;

std::string read_file(const char* path) {
    std::ifstream in(path, std::ios::binary);
    EXPECT_TRUE(in) << path;
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

std::string replace_all(std::string text, const std::string& from, const std::string& to) {
    for (auto at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) text.replace(at, from.size(), to);
    return text;
}

// Every text a person sees is the English text of the catalogue key it derives from, and
// English holds exactly the catalogue's keys (channel templates expanded; channel 1 has no
// switch): an unused one means a setting, option or lookup value is missing.
TEST(definition, every_display_and_help_is_the_english_text_of_its_key) {
    const std::string& document = brenholt::monitoring_modules::opcua::module_definition_text();
    EXPECT_EQ(document.find_first_of("\r\n"), std::string::npos) << "the probe reads it as one line";
    EXPECT_EQ(document, read_file(DEFINITION_JSON_PATH)) << "the embedded constants must reproduce the generator's output";
    std::map<std::string, std::string> catalogue;
    const json source = json::parse(read_file(CATALOGUE_PATH));
    for (auto& [key, text] : source.items()) {
        const bool is_switch = key.rfind("connection_custom.channel{cur}.", 0) == 0;
        for (int n = is_switch ? 2 : 1; n <= (key.find("{cur}") == std::string::npos ? 1 : 10); ++n)
            catalogue[replace_all(key, "{cur}", std::to_string(n))] = replace_all(text.get<std::string>(), "{cur}", std::to_string(n));
    }
    const json doc = json::parse(document);
    const json& english = doc["Text"]["English"]["Translation"];
    std::set<std::string> used;
    auto expect_text = [&](const json& actual, const std::string& key) {
        used.insert(key);
        ASSERT_EQ(catalogue.count(key), 1u) << key;
        EXPECT_EQ(actual, catalogue.at(key)) << key;
        EXPECT_EQ(english[key]["Display"], catalogue.at(key)) << key;
    };
    expect_text(doc["MetaData"]["Display"], "module.display");
    expect_text(doc["MetaData"]["Description"], "module.description");
    for (auto& [name, sensor] : doc["Sensors"].items())
        for (auto [field, suffix] : {std::pair{"Display", ".display"}, {"Description", ".description"}, {"Help", ".help"}})
            expect_text(sensor[field], name + suffix);
    for (auto& [name, section] : doc["Sections"].items()) expect_text(section["Display"], name + ".display");
    for (auto& [group, entry] : doc["Groups"].items())
        for (auto& item : entry["Items"]) {
            const json& setting = item["Setting"];
            const std::string key = group + "." + setting["Name"].get<std::string>();
            expect_text(setting["Display"], key + ".display");
            expect_text(setting["Help"], key + ".help");
            for (auto& option : setting.value("Selection", json::object()).value("Options", json::array()))
                expect_text(option["Display"], key + ".option." + option["Value"].get<std::string>());
        }
    for (auto& [name, lookup] : doc["Lookups"].items())
        for (auto& value : lookup["LookupValues"])
            expect_text(value["Display"], "lookup." + name + "." + std::to_string(value["Value"].get<int>()));
    std::set<std::string> keys;
    for (auto& [key, text] : english.items()) {
        keys.insert(key);
        const bool message = key.rfind("error.", 0) == 0 || key.rfind("message.", 0) == 0 ||
                             key.rfind("channel.", 0) == 0 || key.find(".error.") != std::string::npos;
        EXPECT_TRUE(message || used.count(key) == 1) << key << " is used by no entry";
    }
    EXPECT_EQ(keys.size(), catalogue.size());
    EXPECT_TRUE(std::all_of(catalogue.begin(), catalogue.end(), [&](const auto& entry) { return keys.count(entry.first); }));
}

}  // namespace
