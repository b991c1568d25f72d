#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "libvurohelper/secure_string.h"
#include "libvurohelper/settings.h"
#include "settings/selection.h"

// One reader per kind of field, so every record reads a key the same way: look it
// up (a missing key raises setting_not_available), then parse and validate it.
namespace brenholt::monitoring_modules::opcua::settings {

using settings_source = ::brenholt::monitoring_modules::libvurohelper::settings::settings_source;
using secure_string = ::brenholt::monitoring_modules::libvurohelper::settings::secure_string;

// section + "." + group + suffix, where the suffix brings its own dot.
std::string compose_key(const std::string& section, const char* group, const char* suffix);

// max_length 0 means no limit.
std::string read_string(const settings_source& source, const std::string& key, std::size_t max_length = 0);

// An empty optional from the parser leaves as std::bad_optional_access.
std::int64_t read_integer(const settings_source& source, const std::string& key, bool has_minimum,
                          std::int64_t minimum, bool has_maximum, std::int64_t maximum);

double read_float(const settings_source& source, const std::string& key);

// Through get_secure, so the value never exists as a plain string here.
secure_string read_secure(const settings_source& source, const std::string& key);

template <typename E>
E read_selection(const settings_source& source, const std::string& key) {
    return parse_selection<E>(source.get(key));
}

}  // namespace brenholt::monitoring_modules::opcua::settings
