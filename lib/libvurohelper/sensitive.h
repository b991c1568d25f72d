#pragma once

// Library-internal: how the framework keeps what the probe sends out of freed memory
// and out of the logs.

#include <string>

#include <google/protobuf/map.h>

namespace brenholt::monitoring_modules::libvurohelper::detail {

// Zeroes every byte of the string's capacity, the in-place buffer of a short string
// included, then empties it.
void wipe(std::string& text) noexcept;

// Zeroes the values of a decoded map before the message that holds it is released.
void wipe_values(google::protobuf::Map<std::string, std::string>& map) noexcept;

// Keeps the one copy of a decoded payload and wipes it when it goes, on every path.
struct wiped_payload {
    std::string bytes;
    ~wiped_payload() { wipe(bytes); }
};

// Whether a setting is key material, which the log shows masked like a secure value: the
// client key by its name, and any value holding a PEM private key block.
bool is_key_material(const std::string& key, const std::string& value);

// What the log shows of a secret: nothing for an empty value, a fixed mask otherwise.
inline const char* masked(const std::string& value) { return value.empty() ? "" : "********"; }

}  // namespace brenholt::monitoring_modules::libvurohelper::detail
