#pragma once

#include "libi18n/exceptions.h"
#include "libvurohelper/api.h"

// The framework's failures. Their destructors live in libVuroHelper.so, so type
// information is unique and the classes are caught by reference across the boundary.
namespace brenholt::monitoring_modules::libvurohelper::utils::exceptions {

namespace cat = ::brenholt::monitoring_modules::libi18n::catalogue;
using ::brenholt::monitoring_modules::libi18n::i18n_exception;
using ::brenholt::monitoring_modules::libi18n::i18n_msg;

class VURO_API invalid_lookup_value : public i18n_exception {
public:
    invalid_lookup_value(const std::string& value, const std::string& valid);
    ~invalid_lookup_value() override;
};

LIBI18N_CATCH_POINT(VURO_API, exception, i18n_exception, ~exception() override;);

LIBI18N_EXCEPTION(VURO_API, setting_invalid, exception, cat::libvurohelper_error_setting_invalid, ~setting_invalid() override;);
LIBI18N_EXCEPTION(VURO_API, setting_invalid_less_min, exception, cat::libvurohelper_error_setting_invalid_less_min, ~setting_invalid_less_min() override;);
LIBI18N_EXCEPTION(VURO_API, setting_invalid_bigger_max, exception, cat::libvurohelper_error_setting_invalid_bigger_max, ~setting_invalid_bigger_max() override;);
LIBI18N_EXCEPTION(VURO_API, string_too_long, exception, cat::libvurohelper_error_string_too_long, ~string_too_long() override;);
LIBI18N_EXCEPTION(VURO_API, setting_not_available, exception, cat::libvurohelper_error_setting_not_available, ~setting_not_available() override;);
LIBI18N_EXCEPTION(VURO_API, setting_selection_parse_error, exception, cat::libvurohelper_error_setting_selection_parse_error, ~setting_selection_parse_error() override;);

LIBI18N_CATCH_POINT(VURO_API, initialization_error, exception, ~initialization_error() override;);
LIBI18N_EXCEPTION(VURO_API, channel_map_not_initialized, initialization_error, cat::libvurohelper_error_channel_map_not_initialized, ~channel_map_not_initialized() override;);

LIBI18N_CATCH_POINT(VURO_API, service_container_error, exception, ~service_container_error() override;);
LIBI18N_EXCEPTION(VURO_API, already_contains_factory, service_container_error, cat::libvurohelper_error_already_contains_factory, ~already_contains_factory() override;);
LIBI18N_EXCEPTION(VURO_API, factory_not_available, service_container_error, cat::libvurohelper_error_factory_not_available, ~factory_not_available() override;);
LIBI18N_EXCEPTION(VURO_API, already_contains_instance, service_container_error, cat::libvurohelper_error_already_contains_instance, ~already_contains_instance() override;);
LIBI18N_EXCEPTION(VURO_API, instance_not_available, service_container_error, cat::libvurohelper_error_instance_not_available, ~instance_not_available() override;);
LIBI18N_EXCEPTION(VURO_API, already_contains_instance_key, service_container_error, cat::libvurohelper_error_already_contains_instance_key, ~already_contains_instance_key() override;);
LIBI18N_EXCEPTION(VURO_API, instance_not_available_key, service_container_error, cat::libvurohelper_error_instance_not_available_key, ~instance_not_available_key() override;);

// Raised only inside the framework library.
LIBI18N_EXCEPTION(VURO_API, sensor_already_registered, exception, cat::libvurohelper_error_sensor_already_registered, ~sensor_already_registered() override;);
LIBI18N_EXCEPTION(VURO_API, sensor_not_in_sensor_stock, exception, cat::libvurohelper_error_sensor_not_in_sensor_stock, ~sensor_not_in_sensor_stock() override;);
LIBI18N_EXCEPTION(VURO_API, channel_already_defined, exception, cat::libvurohelper_error_channel_already_defined, ~channel_already_defined() override;);
LIBI18N_EXCEPTION(VURO_API, channel_not_defined, exception, cat::libvurohelper_error_channel_not_defined, ~channel_not_defined() override;);
LIBI18N_EXCEPTION(VURO_API, invalid_channel_mode, exception, cat::libvurohelper_error_invalid_channel_mode, ~invalid_channel_mode() override;);
LIBI18N_EXCEPTION(VURO_API, lookup_name_not_defined, exception, cat::libvurohelper_error_lookup_name_not_defined, ~lookup_name_not_defined() override;);
LIBI18N_EXCEPTION(VURO_API, message_serialization_failed, exception, cat::libvurohelper_error_message_serialization_failed, ~message_serialization_failed() override;);
LIBI18N_EXCEPTION(VURO_API, message_deserialization_failed, exception, cat::libvurohelper_error_message_deserialization_failed, ~message_deserialization_failed() override;);
LIBI18N_EXCEPTION(VURO_API, create_protobuf_from_json_failed, exception, cat::libvurohelper_error_create_protobuf_from_json_failed, ~create_protobuf_from_json_failed() override;);
LIBI18N_EXCEPTION(VURO_API, message_too_long, exception, cat::libvurohelper_error_message_too_long, ~message_too_long() override;);

}  // namespace brenholt::monitoring_modules::libvurohelper::utils::exceptions
