#include "libvurohelper/settings.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include <nlohmann/json.hpp>

#include "libvurohelper/exceptions.h"
#include "libvurohelper/sensitive.h"
#include "vuro.pb.h"

namespace brenholt::monitoring_modules::libvurohelper::settings {

namespace ex = utils::exceptions;

}  // namespace brenholt::monitoring_modules::libvurohelper::settings

namespace brenholt::monitoring_modules::libvurohelper::detail {

void wipe(std::string& text) noexcept {
    // volatile keeps the compiler from dropping stores to memory about to be freed.
    volatile char* p = text.data();
    for (std::size_t i = 0; i < text.capacity(); ++i) p[i] = 0;
    text.clear();
}

void wipe_values(google::protobuf::Map<std::string, std::string>& map) noexcept {
    for (auto& entry : map) wipe(entry.second);
}

bool is_key_material(const std::string& key, const std::string& value) {
    static const std::string name = "client_key";
    const bool named = key.size() >= name.size() && key.compare(key.size() - name.size(), name.size(), name) == 0 &&
                       (key.size() == name.size() || key[key.size() - name.size() - 1] == '.');
    // The block's own marker: "-----BEGIN [RSA |EC |ENCRYPTED ]PRIVATE KEY-----" and its end.
    return named || value.find("PRIVATE KEY") != std::string::npos;
}

}  // namespace brenholt::monitoring_modules::libvurohelper::detail

namespace brenholt::monitoring_modules::libvurohelper::settings {

settings_source::~settings_source() = default;

// The decoded data holds the secure values, and plain key material too: all of it is
// wiped before the heap gets it back.
struct sensor_data_content {
    brenholt::vuro::wire::SensorData data;
    ~sensor_data_content() {
        detail::wipe_values(*data.mutable_settings());
        detail::wipe_values(*data.mutable_secure_settings());
        detail::wipe_values(*data.mutable_persistent_data());
    }
};

sensor_data_wrapper::sensor_data_wrapper(const void* data, unsigned int size) {
    const detail::wiped_payload payload{messaging::unwrap(data, size, messaging::message_type::sensor_data)};
    auto content = std::make_shared<sensor_data_content>();
    if (!content->data.ParseFromString(payload.bytes))
        throw ex::message_deserialization_failed("SENSOR_DATA", std::to_string(size));
    content_ = std::move(content);
}

sensor_data_wrapper::~sensor_data_wrapper() = default;

const std::string& sensor_data_wrapper::get(const std::string& key) const {
    const auto& map = content_->data.settings();
    auto it = map.find(key);
    if (it == map.end()) throw ex::setting_not_available(key);
    return it->second;
}

secure_string sensor_data_wrapper::get_secure(const std::string& key) const {
    const auto& map = content_->data.secure_settings();
    auto it = map.find(key);
    if (it == map.end()) throw ex::setting_not_available(key);
    return secure_string(it->second);
}

std::unordered_map<int, std::string> sensor_data_wrapper::get_channels() const {
    std::unordered_map<int, std::string> out;
    for (const auto& [id, name] : content_->data.channels()) out.emplace(id, name);
    return out;
}

std::unordered_map<std::string, std::string> sensor_data_wrapper::get_persistent_data() const {
    std::unordered_map<std::string, std::string> out;
    for (const auto& [k, v] : content_->data.persistent_data()) out.emplace(k, v);
    return out;
}

const std::string& sensor_data_wrapper::kind() const { return content_->data.kind(); }

std::string sensor_data_wrapper::to_json() const {
    // Sorted keys so the same data always logs the same way.
    nlohmann::json doc = nlohmann::json::object();
    doc["kind"] = content_->data.kind();
    nlohmann::json settings = nlohmann::json::object();
    for (const auto& [k, v] : content_->data.settings())
        settings[k] = detail::is_key_material(k, v) ? detail::masked(v) : v;
    nlohmann::json secure = nlohmann::json::object();
    for (const auto& [k, v] : content_->data.secure_settings()) secure[k] = detail::masked(v);
    nlohmann::json channels = nlohmann::json::object();
    for (const auto& [id, name] : content_->data.channels()) channels[std::to_string(id)] = name;
    nlohmann::json persistent = nlohmann::json::object();
    for (const auto& [k, v] : content_->data.persistent_data())
        persistent[k] = detail::is_key_material(k, v) ? detail::masked(v) : v;
    doc["settings"] = std::move(settings);
    doc["secure_settings"] = std::move(secure);
    doc["channels"] = std::move(channels);
    doc["persistent_data"] = std::move(persistent);
    return doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

persistent_data_storage::persistent_data_storage(std::unordered_map<std::string, std::string> data)
    : data_(std::move(data)) {}

bool persistent_data_storage::contains(const std::string& key) const { return data_.count(key) != 0; }

std::optional<std::string> persistent_data_storage::get(const std::string& key) const {
    auto it = data_.find(key);
    if (it == data_.end()) return std::nullopt;
    return it->second;
}

void persistent_data_storage::set(const std::string& key, std::string value) { data_[key] = std::move(value); }

namespace {
// The length a user sees: characters of UTF-8, not bytes ("°C" is two long, not three).
std::size_t characters(const std::string& text) {
    std::size_t n = 0;
    for (const char c : text) n += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    return n;
}
}  // namespace

std::string kind_string::parse_and_validate(const std::string& value, validation_rules rules) {
    if (rules.max_length != 0) {
        const std::size_t length = characters(value);
        if (length > rules.max_length)
            throw ex::string_too_long("Setting", std::to_string(length), std::to_string(rules.max_length));
    }
    return value;
}

namespace {
std::string number_text(double v) {
    std::string s = std::to_string(v);
    // Trim the trailing zeros of the fixed notation: "1.500000" reads as "1.5".
    if (s.find('.') != std::string::npos) {
        while (!s.empty() && s.back() == '0') s.pop_back();
        if (!s.empty() && s.back() == '.') s.pop_back();
    }
    return s;
}
}  // namespace

std::optional<std::int64_t> kind_integer::parse_and_validate(const std::string& value, validation_rules rules) {
    if (value.empty()) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const long long parsed = std::strtoll(value.c_str(), &end, 10);
    if (end == value.c_str() || *end != '\0' || std::isspace(static_cast<unsigned char>(value.front())))
        throw ex::setting_invalid(value, "The value is not an integer.");
    if (errno == ERANGE) throw ex::setting_invalid(value, "The value is out of the range of a 64-bit integer.");
    if (rules.has_minimum && parsed < rules.minimum)
        throw ex::setting_invalid_less_min(value, std::to_string(rules.minimum));
    if (rules.has_maximum && parsed > rules.maximum)
        throw ex::setting_invalid_bigger_max(value, std::to_string(rules.maximum));
    return static_cast<std::int64_t>(parsed);
}

std::optional<double> kind_float::parse_and_validate(const std::string& value, validation_rules rules) {
    if (value.empty()) return std::nullopt;
    errno = 0;
    char* end = nullptr;
    const double parsed = std::strtod(value.c_str(), &end);
    if (end == value.c_str() || *end != '\0' || std::isspace(static_cast<unsigned char>(value.front())) ||
        std::isnan(parsed))
        throw ex::setting_invalid(value, "The value is not a number.");
    if (errno == ERANGE && std::isinf(parsed))
        throw ex::setting_invalid(value, "The value is out of the range of a floating-point number.");
    if (rules.has_minimum && parsed < rules.minimum)
        throw ex::setting_invalid_less_min(value, number_text(rules.minimum));
    if (rules.has_maximum && parsed > rules.maximum)
        throw ex::setting_invalid_bigger_max(value, number_text(rules.maximum));
    return parsed;
}

secure_string kind_securestring::parse_and_validate(const std::string& value, const validation_rules& rules) {
    // The value itself never goes into a message.
    if (rules.max_length != 0 && value.size() > rules.max_length)
        throw ex::string_too_long("Setting", std::to_string(value.size()), std::to_string(rules.max_length));
    return secure_string(value.data(), value.size());
}

channel_map::channel_map(std::unordered_map<int, std::string> known) : known_(std::move(known)) {}

bool channel_map::is_definition_registered(const int& id) const { return definitions_.count(id) != 0; }

bool channel_map::is_definition_registered(const channels::dynamic_channel_options& options) const {
    auto it = definitions_.find(options.id);
    return it != definitions_.end() && it->second == options;
}

void channel_map::register_definition(const channels::dynamic_channel_options& options) {
    definitions_.emplace(options.id, options);
}

bool channel_map::is_known_to_runtime(const int& id) const { return known_.count(id) != 0; }

const channels::dynamic_channel_options* channel_map::definition(int id) const {
    auto it = definitions_.find(id);
    return it == definitions_.end() ? nullptr : &it->second;
}

}  // namespace brenholt::monitoring_modules::libvurohelper::settings
