#include "libvurohelper/responses.h"

#include <chrono>
#include <cstddef>
#include <cstring>

#include "libvurohelper/channels.h"
#include "libvurohelper/exceptions.h"
#include "libvurohelper/proto_writer.h"
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

namespace {

// The blocks of channel values a thread has given back, for its next results: a scan
// makes a value per channel and drops them all as soon as its result is sent. A block
// given back on another thread joins that thread's list. One list per block type.
template <typename T>
struct value_blocks {
    static constexpr std::size_t kept = 64;
    std::size_t size = 0;
    void* free[kept];
    ~value_blocks() {
        for (std::size_t i = 0; i < size; ++i) ::operator delete(free[i]);
        gone() = true;
    }
    // Set once the thread's list is destroyed, while the thread's last values may still go.
    static bool& gone() {
        static thread_local bool flag = false;
        return flag;
    }
    static value_blocks* of_thread() {
        static thread_local value_blocks list;
        return gone() ? nullptr : &list;
    }
};

template <typename T>
struct value_allocator {
    using value_type = T;
    value_allocator() = default;
    template <typename U>
    value_allocator(const value_allocator<U>&) {}
    T* allocate(std::size_t n) {
        value_blocks<T>* blocks = n == 1 ? value_blocks<T>::of_thread() : nullptr;
        if (blocks != nullptr && blocks->size > 0) return static_cast<T*>(blocks->free[--blocks->size]);
        return static_cast<T*>(::operator new(n * sizeof(T)));
    }
    void deallocate(T* p, std::size_t n) {
        value_blocks<T>* blocks = n == 1 ? value_blocks<T>::of_thread() : nullptr;
        if (blocks != nullptr && blocks->size < value_blocks<T>::kept) {
            blocks->free[blocks->size++] = p;
            return;
        }
        ::operator delete(p);
    }
    template <typename U>
    bool operator==(const value_allocator<U>&) const { return true; }
    template <typename U>
    bool operator!=(const value_allocator<U>&) const { return false; }
};

std::shared_ptr<channel_value> new_value() { return std::allocate_shared<channel_value>(value_allocator<channel_value>()); }

}  // namespace

sensor_scan_result& sensor_scan_result::set_value(int channel_id, double value) {
    check_channel(channel_id, true);
    if (channels_.empty()) channels_.reserve(usual_channel_count);
    auto v = new_value();
    v->channel_id = channel_id;
    v->is_float = true;
    v->floating = value;
    channels_.push_back(std::move(v));
    return *this;
}

sensor_scan_result& sensor_scan_result::set_value(int channel_id, long value) {
    check_channel(channel_id, false);
    if (channels_.empty()) channels_.reserve(usual_channel_count);
    auto v = new_value();
    v->channel_id = channel_id;
    v->integer = value;
    channels_.push_back(std::move(v));
    return *this;
}

messaging::message_type sensor_scan_result::type() const { return messaging::message_type::sensor_scan_result; }

std::string sensor_scan_result::payload() const {
    // Written by hand: a result goes out at every scan, and protobuf's generated code
    // builds a message object and a record per channel first.
    using w_t = detail::proto_writer;
    const std::size_t message_size = w_t::string_field_size(message_.key) + w_t::string_field_size(message_.text);
    // A channel: its number, one value, and a head of two bytes (it is under 128 long).
    constexpr std::size_t max_channel = 2 + 2 * w_t::max_number_field;
    std::string out(4 * w_t::max_number_field + w_t::max_tag + w_t::max_varint + message_size +
                        max_channel * channels_.size(),
                    '\0');
    w_t w(out.data());
    w.int_field(1, sensor_id_);
    if (message_size != 0) {
        w.message_head(2, message_size);
        w.string_field(1, message_.key);
        w.string_field(2, message_.text);
    }
    w.int_field(3, error_code_);
    w.int_field(4, response_code_);
    for (const auto& v : channels_) {
        char channel[max_channel];
        w_t c(channel);
        c.int_field(1, v->channel_id);
        // A member of a oneof is written even at its default.
        if (v->is_float)
            c.double_field(3, v->floating, true);
        else
            c.int_field(2, v->integer, true);
        const auto size = static_cast<std::size_t>(c.position() - channel);
        w.message_head(5, size);
        std::memcpy(w.position(), channel, size);
        w = w_t(w.position() + size);
    }
    w.int_field(6, created_unix_ms_);
    out.resize(static_cast<std::size_t>(w.position() - out.data()));
    return out;
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
