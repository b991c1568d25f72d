#include "libvurohelper/exceptions.h"

namespace brenholt::monitoring_modules::libvurohelper::utils::exceptions {

invalid_lookup_value::invalid_lookup_value(const std::string& value, const std::string& valid)
    : i18n_exception(libi18n::make_msg(cat::libvurohelper_error_invalid_lookup_value, value, valid)) {}
invalid_lookup_value::~invalid_lookup_value() = default;
exception::~exception() = default;
setting_invalid::~setting_invalid() = default;
setting_invalid_less_min::~setting_invalid_less_min() = default;
setting_invalid_bigger_max::~setting_invalid_bigger_max() = default;
string_too_long::~string_too_long() = default;
setting_not_available::~setting_not_available() = default;
setting_selection_parse_error::~setting_selection_parse_error() = default;
initialization_error::~initialization_error() = default;
channel_map_not_initialized::~channel_map_not_initialized() = default;
service_container_error::~service_container_error() = default;
already_contains_factory::~already_contains_factory() = default;
factory_not_available::~factory_not_available() = default;
already_contains_instance::~already_contains_instance() = default;
instance_not_available::~instance_not_available() = default;
already_contains_instance_key::~already_contains_instance_key() = default;
instance_not_available_key::~instance_not_available_key() = default;
sensor_already_registered::~sensor_already_registered() = default;
sensor_not_in_sensor_stock::~sensor_not_in_sensor_stock() = default;
channel_already_defined::~channel_already_defined() = default;
channel_not_defined::~channel_not_defined() = default;
invalid_channel_mode::~invalid_channel_mode() = default;
lookup_name_not_defined::~lookup_name_not_defined() = default;
message_serialization_failed::~message_serialization_failed() = default;
message_deserialization_failed::~message_deserialization_failed() = default;
message_too_long::~message_too_long() = default;
create_protobuf_from_json_failed::~create_protobuf_from_json_failed() = default;

}  // namespace brenholt::monitoring_modules::libvurohelper::utils::exceptions
