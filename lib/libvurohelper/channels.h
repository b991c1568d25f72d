#pragma once

#include <cstdint>
#include <string>

#include "libvurohelper/api.h"
#include "libvurohelper/messaging.h"

namespace brenholt::monitoring_modules::libvurohelper::channels {

struct channel_limit {
    bool is_set = false;
    double value = 0.0;
    bool operator==(const channel_limit& o) const { return is_set == o.is_set && value == o.value; }
};

// value_mode: 1 integer, 2 integer counter, 3 floating point.
struct dynamic_channel_options {
    int id = 0;
    std::string name;
    std::string display_name;
    int value_mode = 1;
    int unit = 0;
    std::string custom_unit;
    std::int64_t volume_size = 0;
    int size_unit = 0;
    bool hide_in_table = false;
    bool show_chart = true;
    bool show_table = true;
    double decimal_digits = 0.0;
    bool limits_enabled = false;
    channel_limit lower_warning_limit;
    channel_limit upper_warning_limit;
    channel_limit lower_error_limit;
    channel_limit upper_error_limit;
    std::string limit_warning_message;
    std::string limit_error_message;
    std::string lookup;
    double spike_filter = 0.0;
    double scale_factor = 1.0;

    bool operator==(const dynamic_channel_options& o) const;
    bool operator!=(const dynamic_channel_options& o) const { return !(*this == o); }
};

inline constexpr int value_mode_integer = 1;
inline constexpr int value_mode_counter = 2;
inline constexpr int value_mode_float = 3;

class VURO_API dynamic_channel : public messaging::vuro_message {
public:
    dynamic_channel(int sensor_id, dynamic_channel_options options);
    ~dynamic_channel() override;
    const dynamic_channel_options& options() const { return options_; }

protected:
    messaging::message_type type() const override;
    std::string payload() const override;

private:
    int sensor_id_;
    dynamic_channel_options options_;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::channels
