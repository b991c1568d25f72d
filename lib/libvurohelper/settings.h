#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_map>

#include "libvurohelper/api.h"
#include "libvurohelper/channels.h"
#include "libvurohelper/secure_string.h"

namespace brenholt::monitoring_modules::libvurohelper::settings {

// Where typed records read their values from; a missing key raises setting_not_available.
class VURO_API settings_source {
public:
    virtual ~settings_source();
    virtual const std::string& get(const std::string& key) const = 0;
    virtual secure_string get_secure(const std::string& key) const = 0;
};

struct sensor_data_content;

// The probe's sensor data: kind, plain and secure settings, known channels, persistent data.
class VURO_API sensor_data_wrapper : public settings_source {
public:
    // Raises message_deserialization_failed when the bytes are not sensor data.
    sensor_data_wrapper(const void* data, unsigned int size);
    ~sensor_data_wrapper() override;

    const std::string& get(const std::string& key) const override;
    secure_string get_secure(const std::string& key) const override;
    std::unordered_map<int, std::string> get_channels() const;
    std::unordered_map<std::string, std::string> get_persistent_data() const;
    const std::string& kind() const;
    // For the log: secure values appear masked, never in clear.
    std::string to_json() const;

private:
    std::shared_ptr<const sensor_data_content> content_;
};

class VURO_API persistent_data_storage {
public:
    persistent_data_storage() = default;
    explicit persistent_data_storage(std::unordered_map<std::string, std::string> data);
    bool contains(const std::string& key) const;
    std::optional<std::string> get(const std::string& key) const;
    void set(const std::string& key, std::string value);
    const std::unordered_map<std::string, std::string>& data() const { return data_; }

private:
    std::unordered_map<std::string, std::string> data_;
};

struct VURO_API kind_string {
    struct validation_rules {
        std::size_t max_length = 0;  // 0: no limit
    };
    static std::string parse_and_validate(const std::string& value, validation_rules rules);
};

struct VURO_API kind_integer {
    struct validation_rules {
        bool has_minimum = false;
        std::int64_t minimum = 0;
        bool has_maximum = false;
        std::int64_t maximum = 0;
    };
    // Empty text gives an empty optional; anything but a whole decimal number is invalid.
    static std::optional<std::int64_t> parse_and_validate(const std::string& value, validation_rules rules);
};

struct VURO_API kind_float {
    struct validation_rules {
        bool has_minimum = false;
        double minimum = 0.0;
        bool has_maximum = false;
        double maximum = 0.0;
    };
    static std::optional<double> parse_and_validate(const std::string& value, validation_rules rules);
};

struct VURO_API kind_securestring {
    struct validation_rules {
        std::size_t max_length = 0;
    };
    // Takes the protected value's text; the result is a new protected copy.
    static secure_string parse_and_validate(const std::string& value, const validation_rules& rules);
};

// Channels the probe knows (id to name) and the definitions this sensor made.
class VURO_API channel_map {
public:
    explicit channel_map(std::unordered_map<int, std::string> known);
    bool is_definition_registered(const int& id) const;
    bool is_definition_registered(const channels::dynamic_channel_options& options) const;
    // The first definition of an id stands; later ones for the same id are ignored.
    void register_definition(const channels::dynamic_channel_options& options);
    bool is_known_to_runtime(const int& id) const;
    const channels::dynamic_channel_options* definition(int id) const;
    const std::unordered_map<int, std::string>& known() const { return known_; }

private:
    std::unordered_map<int, std::string> known_;
    std::unordered_map<int, channels::dynamic_channel_options> definitions_;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::settings
