#include "libvurohelper/notifications.h"

#include <nlohmann/json.hpp>

#include "libvurohelper/exceptions.h"
#include "libvurohelper/messaging.h"
#include "libvurohelper/sensitive.h"
#include "vuro.pb.h"

namespace brenholt::monitoring_modules::libvurohelper::notifications {

namespace ex = utils::exceptions;

// Wiped before release like the sensor data: it carries the same credentials.
struct request_content {
    brenholt::vuro::wire::NotificationRequest data;
    ~request_content() {
        detail::wipe_values(*data.mutable_settings());
        detail::wipe_values(*data.mutable_secure_settings());
    }
};

request::request(const void* data, unsigned int size) {
    const detail::wiped_payload payload{messaging::unwrap(data, size, messaging::message_type::notification_request)};
    auto content = std::make_shared<request_content>();
    if (!content->data.ParseFromString(payload.bytes))
        throw ex::message_deserialization_failed("NOTIFICATION_REQUEST", std::to_string(size));
    content_ = std::move(content);
}

request::~request() = default;

const std::string& request::get(const std::string& key) const {
    const auto& map = content_->data.settings();
    auto it = map.find(key);
    if (it == map.end()) throw ex::setting_not_available(key);
    return it->second;
}

settings::secure_string request::get_secure(const std::string& key) const {
    const auto& map = content_->data.secure_settings();
    auto it = map.find(key);
    if (it == map.end()) throw ex::setting_not_available(key);
    return settings::secure_string(it->second);
}

liblog::severity request::get_log_level() const { return static_cast<liblog::severity>(content_->data.log_level()); }
const std::string& request::get_message() const { return content_->data.message(); }
const std::string& request::get_target() const { return content_->data.target(); }
std::uint32_t request::get_timeout_s() const { return content_->data.timeout_s(); }

std::string request::to_json() const {
    nlohmann::json doc = nlohmann::json::object();
    doc["target"] = content_->data.target();
    doc["message"] = content_->data.message();
    doc["timeout_s"] = content_->data.timeout_s();
    doc["log_level"] = content_->data.log_level();
    nlohmann::json plain = nlohmann::json::object();
    for (const auto& [k, v] : content_->data.settings()) plain[k] = detail::is_key_material(k, v) ? detail::masked(v) : v;
    nlohmann::json secure = nlohmann::json::object();
    for (const auto& [k, v] : content_->data.secure_settings()) secure[k] = detail::masked(v);
    doc["settings"] = std::move(plain);
    doc["secure_settings"] = std::move(secure);
    return doc.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

service_interface::~service_interface() = default;

}  // namespace brenholt::monitoring_modules::libvurohelper::notifications
