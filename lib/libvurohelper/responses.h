#pragma once

#include <cstdint>
#include <deque>
#include <exception>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "libi18n/i18n.h"
#include "liblog/log.h"
#include "libvurohelper/api.h"
#include "libvurohelper/messaging.h"
#include "libvurohelper/settings.h"

namespace brenholt::monitoring_modules::libvurohelper::responses {

enum class scan_response_codes : int {
    ok = 0,       // regular result
    warning = 1,  // result with a warning
    error = 3,    // error result made by the sensor frame
};

struct channel_value {
    int channel_id = 0;
    bool is_float = false;
    std::int64_t integer = 0;
    double floating = 0.0;
};

class VURO_API sensor_scan_result : public messaging::vuro_message {
public:
    sensor_scan_result(int sensor_id, std::shared_ptr<settings::channel_map> channels);
    sensor_scan_result(int sensor_id, const libi18n::i18n_exception& failure);
    sensor_scan_result(int sensor_id, const std::exception& failure);
    sensor_scan_result(const sensor_scan_result&) = default;
    sensor_scan_result& operator=(const sensor_scan_result&) = default;
    ~sensor_scan_result() override;

    sensor_scan_result& set_error_code(int code);
    sensor_scan_result& set_response_code(scan_response_codes code);
    sensor_scan_result& set_response_message(const libi18n::i18n_msg& message);
    // Raise channel_not_defined for an unknown channel and invalid_channel_mode
    // where the value does not fit the channel's value mode.
    sensor_scan_result& set_value(int channel_id, double value);
    sensor_scan_result& set_value(int channel_id, long value);

    const libi18n::i18n_msg& response_message() const;
    int sensor_id() const { return sensor_id_; }
    int error_code() const { return error_code_; }
    scan_response_codes response_code() const { return static_cast<scan_response_codes>(response_code_); }
    const std::vector<std::shared_ptr<channel_value>>& values() const { return channels_; }

protected:
    messaging::message_type type() const override;
    std::string payload() const override;

private:
    void check_channel(int channel_id, bool is_float) const;

    std::vector<std::shared_ptr<channel_value>> channels_;
    int sensor_id_;
    libi18n::i18n_msg message_;
    std::int64_t created_unix_ms_;
    std::shared_ptr<settings::channel_map> channel_map_;
    int error_code_ = 0;
    int response_code_ = 0;
};

class VURO_API check_result : public messaging::vuro_message {
public:
    explicit check_result(int check_id);
    ~check_result() override;
    void set_success(bool success);
    bool success() const { return success_; }
    int check_id() const { return check_id_; }

protected:
    messaging::message_type type() const override;
    std::string payload() const override;

private:
    int check_id_;
    bool success_ = false;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::responses

namespace brenholt::monitoring_modules::libvurohelper::notifications {

class VURO_API response : public messaging::vuro_message {
public:
    explicit response(const std::deque<std::pair<liblog::severity, std::string>>& entries);
    ~response() override;
    const std::deque<std::pair<liblog::severity, std::string>>& entries() const { return entries_; }

protected:
    messaging::message_type type() const override;
    std::string payload() const override;

private:
    std::deque<std::pair<liblog::severity, std::string>> entries_;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::notifications
