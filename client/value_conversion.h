#pragma once

#include <cstdint>
#include <string>

#include <open62541/types.h>

namespace brenholt::monitoring_modules::opcua {

// The four kinds that sensors work with; every supported OPC UA type folds into one.
enum class data_type : std::int32_t {
    boolean = 0,
    string = 1,
    integer = 2,
    floatingpoint = 3,
};

// "boolean", "string", "integer", "floatingpoint"; "undefined" for any other number.
std::string data_type_name(data_type kind);

// Kind of a variant's type, of its element type for an array.
// Raises value_not_set without a type and unsupported_data_type outside the supported set.
data_type value_kind(const UA_Variant& value);

// value_not_set without a type, value_not_scalar for an array (empty arrays included).
void check_scalar(const UA_Variant& value);

// value_not_set without a type, not_an_array for a scalar.
void check_array(const UA_Variant& value);

// Index 0 always passes, on a scalar too. A higher index raises not_an_array on a scalar
// and index_out_of_bounds at or past the end of an array.
void check_index(const UA_Variant& value, std::uint64_t index);

// data_type_mismatch(actual name, expected name) when value_kind differs from expected.
void check_data_type(const UA_Variant& value, data_type expected);

// Each conversion tests, in this order: a missing type, the kind, the index; then reads
// element `index` (0 for a scalar). Nothing is coerced between kinds. Index 0 on an empty
// array, which the index test lets through, raises index_out_of_bounds instead of reading.
bool to_boolean(const UA_Variant& value, std::uint64_t index);
bool to_boolean(const UA_Variant& value);

// Integral types are widened; UInt64 at or above 2^63 raises value_overflow. DateTime gives
// whole seconds since 1601-01-01 (ticks / 10^7, towards zero). EnumValueType gives its Value.
std::int64_t to_integer(const UA_Variant& value, std::uint64_t index);
std::int64_t to_integer(const UA_Variant& value);

// Double as it stands, Float widened.
double to_double(const UA_Variant& value, std::uint64_t index);
double to_double(const UA_Variant& value);

// String as is, LocalizedText without its locale, QualifiedName as "ns:name" (the name alone
// in namespace 0). Unlike the others, a variant without a type gives "" rather than raising.
std::string to_string_value(const UA_Variant& value, std::uint64_t index);
std::string to_string_value(const UA_Variant& value);

}  // namespace brenholt::monitoring_modules::opcua
