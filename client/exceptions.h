#pragma once

#include "libi18n/exceptions.h"

namespace brenholt::monitoring_modules::opcua::exceptions {

namespace cat = ::brenholt::monitoring_modules::libi18n::catalogue;

// Catch point of every failure of the OPC UA client, its nodes and its sensors.
LIBI18N_CATCH_POINT(, opcua_failure, ::brenholt::monitoring_modules::libi18n::error_generic);

LIBI18N_EXCEPTION(, browse_name_not_set, opcua_failure, cat::error_browse_name_not_set);
LIBI18N_EXCEPTION(, conversion_failure, opcua_failure, cat::error_conversion_failure);
LIBI18N_EXCEPTION(, data_type_mismatch, opcua_failure, cat::error_data_type_mismatch);
LIBI18N_EXCEPTION(, description_not_set, opcua_failure, cat::error_description_not_set);
LIBI18N_EXCEPTION(, display_name_not_set, opcua_failure, cat::error_display_name_not_set);
LIBI18N_EXCEPTION(, failed_to_parse_node_id, opcua_failure, cat::error_failed_to_parse_node_id);
LIBI18N_EXCEPTION(, index_out_of_bounds, opcua_failure, cat::error_index_out_of_bounds);
LIBI18N_EXCEPTION(, invalid_array_syntax, opcua_failure, cat::error_invalid_array_syntax);
LIBI18N_EXCEPTION(, invalid_servername, opcua_failure, cat::error_invalid_servername);
LIBI18N_EXCEPTION(, nodeid_unknown, opcua_failure, cat::error_nodeid_unknown);
LIBI18N_EXCEPTION(, not_an_array, opcua_failure, cat::error_not_an_array);
LIBI18N_EXCEPTION(, opcua_connection_closed, opcua_failure, cat::error_opcua_connection_closed);
LIBI18N_EXCEPTION(, opcua_connection_failed, opcua_failure, cat::error_opcua_connection_failed);
LIBI18N_EXCEPTION(, opcua_discovery_failed, opcua_failure, cat::error_opcua_discovery_failed);
LIBI18N_EXCEPTION(, opcua_matching_endpoint_failed, opcua_failure, cat::error_opcua_matching_endpoint_failed);
LIBI18N_EXCEPTION(, opcua_missing_certificate, opcua_failure, cat::error_opcua_missing_certificate);
LIBI18N_EXCEPTION(, opcua_read_failed, opcua_failure, cat::error_opcua_read_failed);
LIBI18N_EXCEPTION(, opcua_request_failed, opcua_failure, cat::error_opcua_request_failed);
LIBI18N_EXCEPTION(, opcua_response_size_mismatch, opcua_failure, cat::error_opcua_response_size_mismatch);
LIBI18N_EXCEPTION(, opcua_write_failed, opcua_failure, cat::error_opcua_write_failed);
LIBI18N_EXCEPTION(, prepare_request_failed, opcua_failure, cat::error_prepare_request_failed);
LIBI18N_EXCEPTION(, unsupported_attribute_type, opcua_failure, cat::error_unsupported_attribute_type);
LIBI18N_EXCEPTION(, unsupported_data_type, opcua_failure, cat::error_unsupported_data_type);
LIBI18N_EXCEPTION(, unsupported_identifier_type, opcua_failure, cat::error_unsupported_identifier_type);
LIBI18N_EXCEPTION(, value_not_scalar, opcua_failure, cat::error_value_not_scalar);
LIBI18N_EXCEPTION(, value_not_set, opcua_failure, cat::error_value_not_set);
LIBI18N_EXCEPTION(, value_overflow, opcua_failure, cat::error_value_overflow);

}  // namespace brenholt::monitoring_modules::opcua::exceptions
