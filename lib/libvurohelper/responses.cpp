#include "libvurohelper/responses.h"

#include <chrono>
#include <cstddef>

#include <google/protobuf/arena.h>

#include "libvurohelper/channels.h"
#include "libvurohelper/exceptions.h"
#include "vuro.pb.h"

namespace brenholt::monitoring_modules::libvurohelper {

namespace ex = utils::exceptions;

namespace {
std::int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

void to_wire(const channels::channel_limit& in, brenholt::vuro::wire::Limit* out) {
    out->set_is_set(in.is_set);
    out->set_value(in.value);
}
}  // namespace

namespace channels {

bool dynamic_channel_options::operator==(const dynamic_channel_options& o) const {
    return id == o.id && name == o.name && display_name == o.display_name && value_mode == o.value_mode &&
           unit == o.unit && custom_unit == o.custom_unit && volume_size == o.volume_size &&
           size_unit == o.size_unit && hide_in_table == o.hide_in_table && show_chart == o.show_chart &&
           show_table == o.show_table && decimal_digits == o.decimal_digits && limits_enabled == o.limits_enabled &&
           lower_warning_limit == o.lower_warning_limit && upper_warning_limit == o.upper_warning_limit &&
           lower_error_limit == o.lower_error_limit && upper_error_limit == o.upper_error_limit &&
           limit_warning_message == o.limit_warning_message && limit_error_message == o.limit_error_message &&
           lookup == o.lookup && spike_filter == o.spike_filter && scale_factor == o.scale_factor;
}

dynamic_channel::dynamic_channel(int sensor_id, dynamic_channel_options options)
    : sensor_id_(sensor_id), options_(std::move(options)) {}
dynamic_channel::~dynamic_channel() = default;

messaging::message_type dynamic_channel::type() const { return messaging::message_type::dynamic_channel; }

std::string dynamic_channel::payload() const {
    brenholt::vuro::wire::DynamicChannel m;
    const auto& o = options_;
    m.set_sensor_id(sensor_id_);
    m.set_id(o.id);
    m.set_name(o.name);
    m.set_display_name(o.display_name);
    m.set_value_mode(o.value_mode);
    m.set_unit(o.unit);
    m.set_custom_unit(o.custom_unit);
    m.set_volume_size(o.volume_size);
    m.set_size_unit(o.size_unit);
    m.set_hide_in_table(o.hide_in_table);
    m.set_show_chart(o.show_chart);
    m.set_show_table(o.show_table);
    m.set_decimal_digits(o.decimal_digits);
    m.set_limits_enabled(o.limits_enabled);
    to_wire(o.lower_warning_limit, m.mutable_lower_warning_limit());
    to_wire(o.upper_warning_limit, m.mutable_upper_warning_limit());
    to_wire(o.lower_error_limit, m.mutable_lower_error_limit());
    to_wire(o.upper_error_limit, m.mutable_upper_error_limit());
    m.set_limit_warning_message(o.limit_warning_message);
    m.set_limit_error_message(o.limit_error_message);
    m.set_lookup(o.lookup);
    m.set_spike_filter(o.spike_filter);
    m.set_scale_factor(o.scale_factor);
    return m.SerializeAsString();
}

}  // namespace channels

namespace responses {

sensor_scan_result::sensor_scan_result(int sensor_id, std::shared_ptr<settings::channel_map> channels)
    : sensor_id_(sensor_id), created_unix_ms_(now_ms()), channel_map_(std::move(channels)) {}

sensor_scan_result::sensor_scan_result(int sensor_id, const libi18n::i18n_exception& failure)
    : sensor_id_(sensor_id), message_(failure.get_i18n_msg()), created_unix_ms_(now_ms()) {}

sensor_scan_result::sensor_scan_result(int sensor_id, const std::exception& failure)
    : sensor_id_(sensor_id), message_(std::string(failure.what())), created_unix_ms_(now_ms()) {}

sensor_scan_result::~sensor_scan_result() = default;

sensor_scan_result& sensor_scan_result::set_error_code(int code) {
    error_code_ = code;
    return *this;
}

sensor_scan_result& sensor_scan_result::set_response_code(scan_response_codes code) {
    response_code_ = static_cast<int>(code);
    return *this;
}

const libi18n::i18n_msg& sensor_scan_result::response_message() const { return message_; }

sensor_scan_result& sensor_scan_result::set_response_message(const libi18n::i18n_msg& message) {
    message_ = message;
    return *this;
}

void sensor_scan_result::check_channel(int channel_id, bool is_float) const {
    // A channel the probe already knows counts as defined even before this sensor
    // registers it again; its value mode is then the probe's concern.
    const channels::dynamic_channel_options* def = channel_map_ ? channel_map_->definition(channel_id) : nullptr;
    if (def == nullptr) {
        if (channel_map_ && channel_map_->is_known_to_runtime(channel_id)) return;
        throw ex::channel_not_defined(std::to_string(channel_id));
    }
    const bool wants_float = def->value_mode == channels::value_mode_float;
    if (wants_float != is_float) throw ex::invalid_channel_mode(std::to_string(channel_id));
}

// Room for a sensor's usual count at the first value, instead of growing step by step.
constexpr std::size_t usual_channel_count = 12;

sensor_scan_result& sensor_scan_result::set_value(int channel_id, double value) {
    check_channel(channel_id, true);
    if (channels_.empty()) channels_.reserve(usual_channel_count);
    auto v = std::make_shared<channel_value>();
    v->channel_id = channel_id;
    v->is_float = true;
    v->floating = value;
    channels_.push_back(std::move(v));
    return *this;
}

sensor_scan_result& sensor_scan_result::set_value(int channel_id, long value) {
    check_channel(channel_id, false);
    if (channels_.empty()) channels_.reserve(usual_channel_count);
    auto v = std::make_shared<channel_value>();
    v->channel_id = channel_id;
    v->integer = value;
    channels_.push_back(std::move(v));
    return *this;
}

messaging::message_type sensor_scan_result::type() const { return messaging::message_type::sensor_scan_result; }

std::string sensor_scan_result::payload() const {
    // A result is made at every scan: its message and the channel records come out of a
    // block on the stack instead of one allocation each.
    alignas(std::max_align_t) char block[2048];
    google::protobuf::ArenaOptions options;
    options.initial_block = block;
    options.initial_block_size = sizeof block;
    google::protobuf::Arena arena(options);
    auto& m = *google::protobuf::Arena::CreateMessage<brenholt::vuro::wire::SensorScanResult>(&arena);
    m.mutable_channels()->Reserve(static_cast<int>(channels_.size()));
    m.set_sensor_id(sensor_id_);
    m.mutable_message()->set_key(message_.key);
    m.mutable_message()->set_text(message_.text);
    m.set_error_code(error_code_);
    m.set_response_code(response_code_);
    m.set_created_unix_ms(created_unix_ms_);
    for (const auto& v : channels_) {
        auto* c = m.add_channels();
        c->set_channel_id(v->channel_id);
        if (v->is_float)
            c->set_floating(v->floating);
        else
            c->set_integer(v->integer);
    }
    return m.SerializeAsString();
}

check_result::check_result(int check_id) : check_id_(check_id) {}
check_result::~check_result() = default;
void check_result::set_success(bool success) { success_ = success; }
messaging::message_type check_result::type() const { return messaging::message_type::check_result; }

std::string check_result::payload() const {
    brenholt::vuro::wire::CheckResult m;
    m.set_check_id(check_id_);
    m.set_success(success_);
    return m.SerializeAsString();
}

}  // namespace responses

namespace notifications {

response::response(const std::deque<std::pair<liblog::severity, std::string>>& entries) : entries_(entries) {}
response::~response() = default;
messaging::message_type response::type() const { return messaging::message_type::notification_response; }

std::string response::payload() const {
    brenholt::vuro::wire::NotificationResponse m;
    for (const auto& [level, text] : entries_) {
        auto* e = m.add_entries();
        e->set_severity(static_cast<int>(level));
        e->set_text(text);
    }
    return m.SerializeAsString();
}

}  // namespace notifications

}  // namespace brenholt::monitoring_modules::libvurohelper
