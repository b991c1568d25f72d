// What the probe sends: the envelope, the sensor data in it, and every settings record
// parsed from that. Records only: no sensor is built and no client is made.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include <google/protobuf/stubs/logging.h>

#include "libi18n/i18n.h"
#include "libvurohelper/exceptions.h"
#include "libvurohelper/messaging.h"
#include "libvurohelper/notifications.h"
#include "libvurohelper/settings.h"
#include "settings/custom_sensor_settings.h"
#include "settings/notification_settings.h"
#include "settings/records.h"

namespace mm = ::brenholt::monitoring_modules;
namespace vh = mm::libvurohelper;
namespace st = mm::opcua::settings;

namespace {

template <typename Record, typename... Extra>
void parse(const vh::settings::settings_source& source, const Extra&... extra) {
    try {
        Record record(source, extra...);
    } catch (const mm::libi18n::i18n_exception&) {
        // A bad or missing value fails the record, as it fails the creation.
    } catch (const std::bad_optional_access&) {
        // An empty number where one is needed: the record's readers take it untested.
    }
}

void decode(const void* bytes, std::size_t size) {
    const auto length = static_cast<unsigned int>(size);
    try {
        const vh::settings::sensor_data_wrapper data(bytes, length);
        (void)data.to_json();
        (void)data.get_channels();
        (void)data.get_persistent_data();
        parse<st::custom_sensor>(data);
        parse<st::server_status_sensor>(data);
        parse<st::certificate_sensor>(data);
        parse<st::beckhoff_ipc_system_status_sensor>(data);
        parse<st::connection_check>(data);
        parse<st::endpoint_validation_check>(data);
    } catch (const vh::utils::exceptions::message_deserialization_failed&) {
    }
    try {
        const vh::notifications::request request(bytes, length);
        (void)request.to_json();
        parse<st::opcua_notification>(request, request.get_target(), request.get_message());
    } catch (const vh::utils::exceptions::message_deserialization_failed&) {
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // Text that is not UTF-8 is refused, and protobuf would say so on every such input.
    google::protobuf::SetLogHandler(nullptr);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // As sent, and as the payload of a sound envelope, so that mutations reach past it.
    decode(data, size);
    const std::string payload(reinterpret_cast<const char*>(data), size);
    const auto sensor = vh::messaging::wrap(vh::messaging::message_type::sensor_data, payload);
    decode(sensor.data(), sensor.size());
    const auto request = vh::messaging::wrap(vh::messaging::message_type::notification_request, payload);
    decode(request.data(), request.size());
    return 0;
}
