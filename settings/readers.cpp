#include "settings/readers.h"

namespace brenholt::monitoring_modules::opcua::settings {

namespace vs = ::brenholt::monitoring_modules::libvurohelper::settings;

std::string compose_key(const std::string& section, const char* group, const char* suffix) {
    std::string key;
    key.reserve(section.size() + 1 + 32);
    key.append(section).append(".").append(group).append(suffix);
    return key;
}

std::string read_string(const settings_source& source, const std::string& key, std::size_t max_length) {
    vs::kind_string::validation_rules rules;
    rules.max_length = max_length;
    return vs::kind_string::parse_and_validate(source.get(key), rules);
}

std::int64_t read_integer(const settings_source& source, const std::string& key, bool has_minimum,
                          std::int64_t minimum, bool has_maximum, std::int64_t maximum) {
    vs::kind_integer::validation_rules rules;
    rules.has_minimum = has_minimum;
    rules.minimum = minimum;
    rules.has_maximum = has_maximum;
    rules.maximum = maximum;
    return vs::kind_integer::parse_and_validate(source.get(key), rules).value();
}

double read_float(const settings_source& source, const std::string& key) {
    return vs::kind_float::parse_and_validate(source.get(key), vs::kind_float::validation_rules{}).value();
}

secure_string read_secure(const settings_source& source, const std::string& key) {
    const secure_string raw = source.get_secure(key);
    return vs::kind_securestring::parse_and_validate(raw.str(), vs::kind_securestring::validation_rules{});
}

}  // namespace brenholt::monitoring_modules::opcua::settings
