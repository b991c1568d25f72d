#include "client/value_conversion.h"

#include <cstddef>
#include <limits>

#include "client/exceptions.h"

namespace brenholt::monitoring_modules::opcua {

namespace {

// 100-nanosecond ticks of an OPC UA DateTime per second.
constexpr std::int64_t ticks_per_second = 10'000'000;

bool is_scalar(const UA_Variant& value) {
    // data of 0 or 1 (the library's sentinel) marks a missing or empty array.
    return value.arrayLength == 0 && value.data > UA_EMPTY_ARRAY_SENTINEL;
}

bool is_enum_value_type(const UA_DataType* type) {
    return type == &UA_TYPES[UA_TYPES_ENUMVALUETYPE];
}

void require_type(const UA_Variant& value) {
    if (value.type == nullptr) {
        throw exceptions::value_not_set();
    }
}

// Address of element `index`. check_index lets index 0 through on an empty array, where
// data holds no element at all; that case is refused here instead of being read.
const void* element_at(const UA_Variant& value, std::uint64_t index) {
    if (value.data <= UA_EMPTY_ARRAY_SENTINEL) {
        throw exceptions::index_out_of_bounds(std::to_string(index), std::to_string(value.arrayLength));
    }
    return static_cast<const std::byte*>(value.data) + index * value.type->memSize;
}

template <typename T>
const T& element_as(const UA_Variant& value, std::uint64_t index) {
    return *static_cast<const T*>(element_at(value, index));
}

std::string from_ua_string(const UA_String& s) {
    if (s.length == 0 || s.data == nullptr) {
        return {};
    }
    return std::string(reinterpret_cast<const char*>(s.data), s.length);
}

void prepare(const UA_Variant& value, data_type expected, std::uint64_t index) {
    require_type(value);
    check_data_type(value, expected);
    check_index(value, index);
}

}  // namespace

std::string data_type_name(data_type kind) {
    switch (kind) {
        case data_type::boolean:
            return "boolean";
        case data_type::string:
            return "string";
        case data_type::integer:
            return "integer";
        case data_type::floatingpoint:
            return "floatingpoint";
    }
    return "undefined";
}

data_type value_kind(const UA_Variant& value) {
    require_type(value);
    // The one structure that is accepted, so it is told by the type itself, not its kind.
    if (is_enum_value_type(value.type)) {
        return data_type::integer;
    }
    switch (value.type->typeKind) {
        case UA_DATATYPEKIND_BOOLEAN:
            return data_type::boolean;
        case UA_DATATYPEKIND_SBYTE:
        case UA_DATATYPEKIND_BYTE:
        case UA_DATATYPEKIND_INT16:
        case UA_DATATYPEKIND_UINT16:
        case UA_DATATYPEKIND_INT32:
        case UA_DATATYPEKIND_UINT32:
        case UA_DATATYPEKIND_INT64:
        case UA_DATATYPEKIND_UINT64:
        case UA_DATATYPEKIND_DATETIME:
            return data_type::integer;
        case UA_DATATYPEKIND_FLOAT:
        case UA_DATATYPEKIND_DOUBLE:
            return data_type::floatingpoint;
        case UA_DATATYPEKIND_STRING:
        case UA_DATATYPEKIND_QUALIFIEDNAME:
        case UA_DATATYPEKIND_LOCALIZEDTEXT:
            return data_type::string;
        default:
            throw exceptions::unsupported_data_type();
    }
}

void check_scalar(const UA_Variant& value) {
    require_type(value);
    if (!is_scalar(value)) {
        throw exceptions::value_not_scalar();
    }
}

void check_array(const UA_Variant& value) {
    require_type(value);
    if (is_scalar(value)) {
        throw exceptions::not_an_array();
    }
}

void check_index(const UA_Variant& value, std::uint64_t index) {
    if (index == 0) {
        return;
    }
    if (is_scalar(value)) {
        throw exceptions::not_an_array();
    }
    if (value.arrayLength > index) {
        return;
    }
    throw exceptions::index_out_of_bounds(std::to_string(index), std::to_string(value.arrayLength));
}

void check_data_type(const UA_Variant& value, data_type expected) {
    const data_type actual = value_kind(value);
    if (actual != expected) {
        throw exceptions::data_type_mismatch(data_type_name(actual), data_type_name(expected));
    }
}

bool to_boolean(const UA_Variant& value, std::uint64_t index) {
    prepare(value, data_type::boolean, index);
    if (value.type->typeKind != UA_DATATYPEKIND_BOOLEAN) {
        throw exceptions::unsupported_data_type();
    }
    return element_as<UA_Boolean>(value, index);
}

std::int64_t to_integer(const UA_Variant& value, std::uint64_t index) {
    prepare(value, data_type::integer, index);
    if (is_enum_value_type(value.type)) {
        return element_as<UA_EnumValueType>(value, index).value;
    }
    switch (value.type->typeKind) {
        case UA_DATATYPEKIND_SBYTE:
            return element_as<UA_SByte>(value, index);
        case UA_DATATYPEKIND_BYTE:
            return element_as<UA_Byte>(value, index);
        case UA_DATATYPEKIND_INT16:
            return element_as<UA_Int16>(value, index);
        case UA_DATATYPEKIND_UINT16:
            return element_as<UA_UInt16>(value, index);
        case UA_DATATYPEKIND_INT32:
            return element_as<UA_Int32>(value, index);
        case UA_DATATYPEKIND_UINT32:
            return element_as<UA_UInt32>(value, index);
        case UA_DATATYPEKIND_INT64:
            return element_as<UA_Int64>(value, index);
        case UA_DATATYPEKIND_UINT64: {
            const UA_UInt64 raw = element_as<UA_UInt64>(value, index);
            if (raw > static_cast<UA_UInt64>(std::numeric_limits<std::int64_t>::max())) {
                throw exceptions::value_overflow();
            }
            return static_cast<std::int64_t>(raw);
        }
        case UA_DATATYPEKIND_DATETIME:
            // Seconds since 1601 on purpose: the value is not moved to the Unix epoch.
            return element_as<UA_DateTime>(value, index) / ticks_per_second;
        default:
            throw exceptions::unsupported_data_type();
    }
}

double to_double(const UA_Variant& value, std::uint64_t index) {
    prepare(value, data_type::floatingpoint, index);
    switch (value.type->typeKind) {
        case UA_DATATYPEKIND_FLOAT:
            return element_as<UA_Float>(value, index);
        case UA_DATATYPEKIND_DOUBLE:
            return element_as<UA_Double>(value, index);
        default:
            throw exceptions::unsupported_data_type();
    }
}

std::string to_string_value(const UA_Variant& value, std::uint64_t index) {
    // The node classes test for a value themselves; here an empty variant reads as "".
    if (value.type == nullptr) {
        return {};
    }
    prepare(value, data_type::string, index);
    switch (value.type->typeKind) {
        case UA_DATATYPEKIND_STRING:
            return from_ua_string(element_as<UA_String>(value, index));
        case UA_DATATYPEKIND_LOCALIZEDTEXT:
            return from_ua_string(element_as<UA_LocalizedText>(value, index).text);
        case UA_DATATYPEKIND_QUALIFIEDNAME: {
            const auto& name = element_as<UA_QualifiedName>(value, index);
            std::string text = from_ua_string(name.name);
            if (name.namespaceIndex != 0) {
                text.insert(0, std::to_string(name.namespaceIndex) + ":");
            }
            return text;
        }
        default:
            throw exceptions::unsupported_data_type();
    }
}

bool to_boolean(const UA_Variant& value) { return to_boolean(value, 0); }
std::int64_t to_integer(const UA_Variant& value) { return to_integer(value, 0); }
double to_double(const UA_Variant& value) { return to_double(value, 0); }
std::string to_string_value(const UA_Variant& value) { return to_string_value(value, 0); }

}  // namespace brenholt::monitoring_modules::opcua
