#include "client/nodes_open62541.h"

#include <cstring>

#include "client/exceptions.h"

namespace brenholt::monitoring_modules::opcua {

namespace ex = exceptions;

namespace {
variant_ptr new_variant() {
    auto* v = static_cast<UA_Variant*>(UA_new(&UA_TYPES[UA_TYPES_VARIANT]));
    if (v == nullptr) throw std::bad_alloc();
    return variant_ptr(v);
}

void replace_value(UA_Variant& stored, const UA_Variant& value) {
    // A server answers an unset variable with an empty variant: that is a read without a
    // value, and a value once read never returns to empty.
    if (UA_Variant_isEmpty(&value)) return;
    UA_clear(&stored, &UA_TYPES[UA_TYPES_VARIANT]);
    if (UA_copy(&value, &stored, &UA_TYPES[UA_TYPES_VARIANT]) != UA_STATUSCODE_GOOD) throw std::bad_alloc();
}

// The same as replace_value, moving the value over instead of copying it.
void take_value(UA_Variant& stored, UA_Variant& value) {
    if (UA_Variant_isEmpty(&value)) return;
    UA_clear(&stored, &UA_TYPES[UA_TYPES_VARIANT]);
    stored = value;
    UA_Variant_init(&value);
}
}  // namespace

void variant_deleter::operator()(UA_Variant* v) const noexcept { UA_delete(v, &UA_TYPES[UA_TYPES_VARIANT]); }

generic_node_open62541::generic_node_open62541(const std::string& node_id) : id_(parse_node_id(node_id)) {}
generic_node_open62541::generic_node_open62541(node_id_ptr id) : id_(std::move(id)) {}
generic_node_open62541::~generic_node_open62541() = default;

std::uint16_t generic_node_open62541::namespace_index() const { return id_->namespaceIndex; }
std::string generic_node_open62541::identifier() const { return identifier_text(*id_); }

std::string generic_node_open62541::browse_name() const {
    if (!browse_name_.is_set) throw ex::browse_name_not_set();
    return browse_name_.text;
}

std::string generic_node_open62541::display_name() const {
    if (!display_name_.is_set) throw ex::display_name_not_set();
    return display_name_.text;
}

std::string generic_node_open62541::description() const {
    if (!description_.is_set) throw ex::description_not_set();
    return description_.text;
}

missing_attributes generic_node_open62541::get_missing_attributes() const {
    missing_attributes missing;
    if (!browse_name_.is_set) missing.push_back(attribute_browse_name);
    if (!display_name_.is_set) missing.push_back(attribute_display_name);
    if (!description_.is_set) missing.push_back(attribute_description);
    return missing;
}

void generic_node_open62541::update_attribute(std::uint32_t attribute, const UA_Variant& value) {
    node_text_attribute* target = nullptr;
    switch (attribute) {
        case attribute_browse_name: target = &browse_name_; break;
        case attribute_display_name: target = &display_name_; break;
        case attribute_description: target = &description_; break;
        default: throw ex::unsupported_attribute_type();
    }
    // A name of any other kind than a text is a data_type_mismatch out of the conversion.
    target->text = to_string_value(value, 0);
    target->is_set = true;
}

scalar_variable_node_open62541::scalar_variable_node_open62541(const std::string& node_id)
    : generic_node_open62541(node_id), value_(new_variant()) {}
scalar_variable_node_open62541::~scalar_variable_node_open62541() = default;

data_type scalar_variable_node_open62541::value_kind() const { return opcua::value_kind(*value_); }

std::string scalar_variable_node_open62541::string_value() const {
    check_scalar(*value_);
    return to_string_value(*value_, 0);
}

std::int64_t scalar_variable_node_open62541::int64_value() const {
    check_scalar(*value_);
    return to_integer(*value_, 0);
}

double scalar_variable_node_open62541::double_value() const {
    check_scalar(*value_);
    return to_double(*value_, 0);
}

bool scalar_variable_node_open62541::bool_value() const {
    check_scalar(*value_);
    return to_boolean(*value_, 0);
}

missing_attributes scalar_variable_node_open62541::get_missing_attributes() const {
    auto missing = generic_node_open62541::get_missing_attributes();
    missing.push_back(attribute_value);
    return missing;
}

void scalar_variable_node_open62541::update_attribute(std::uint32_t attribute, const UA_Variant& value) {
    if (attribute == attribute_value)
        replace_value(*value_, value);
    else
        generic_node_open62541::update_attribute(attribute, value);
}

void scalar_variable_node_open62541::take_attribute(std::uint32_t attribute, UA_Variant& value) {
    if (attribute == attribute_value)
        take_value(*value_, value);
    else
        generic_node_open62541::update_attribute(attribute, value);
}

void scalar_variable_node_open62541::set_value(const std::string& value) {
    UA_clear(value_.get(), &UA_TYPES[UA_TYPES_VARIANT]);
    // The length comes from the characters: a zero byte ends the text.
    UA_String text;
    text.length = std::strlen(value.c_str());
    text.data = reinterpret_cast<UA_Byte*>(const_cast<char*>(value.c_str()));
    if (UA_Variant_setScalarCopy(value_.get(), &text, &UA_TYPES[UA_TYPES_STRING]) != UA_STATUSCODE_GOOD)
        throw std::bad_alloc();
}

void scalar_variable_node_open62541::set_value(std::int64_t value) {
    UA_clear(value_.get(), &UA_TYPES[UA_TYPES_VARIANT]);
    const UA_Int64 v = value;
    if (UA_Variant_setScalarCopy(value_.get(), &v, &UA_TYPES[UA_TYPES_INT64]) != UA_STATUSCODE_GOOD)
        throw std::bad_alloc();
}

void scalar_variable_node_open62541::set_value(double value) {
    UA_clear(value_.get(), &UA_TYPES[UA_TYPES_VARIANT]);
    const UA_Double v = value;
    if (UA_Variant_setScalarCopy(value_.get(), &v, &UA_TYPES[UA_TYPES_DOUBLE]) != UA_STATUSCODE_GOOD)
        throw std::bad_alloc();
}

void scalar_variable_node_open62541::set_value(bool value) {
    UA_clear(value_.get(), &UA_TYPES[UA_TYPES_VARIANT]);
    const UA_Boolean v = value;
    if (UA_Variant_setScalarCopy(value_.get(), &v, &UA_TYPES[UA_TYPES_BOOLEAN]) != UA_STATUSCODE_GOOD)
        throw std::bad_alloc();
}

array_variable_node_open62541::array_variable_node_open62541(const std::string& text)
    : array_variable_node_open62541(parse_array_access(text)) {}

array_variable_node_open62541::array_variable_node_open62541(array_access parsed)
    : generic_node_open62541(std::move(parsed.first)), value_(new_variant()), index_(parsed.second) {}

array_variable_node_open62541::~array_variable_node_open62541() = default;

data_type array_variable_node_open62541::value_kind() const { return opcua::value_kind(*value_); }

std::string array_variable_node_open62541::string_value() const {
    check_array(*value_);
    return to_string_value(*value_, index_);
}

std::int64_t array_variable_node_open62541::int64_value() const {
    check_array(*value_);
    return to_integer(*value_, index_);
}

double array_variable_node_open62541::double_value() const {
    check_array(*value_);
    return to_double(*value_, index_);
}

bool array_variable_node_open62541::bool_value() const {
    check_array(*value_);
    return to_boolean(*value_, index_);
}

missing_attributes array_variable_node_open62541::get_missing_attributes() const {
    auto missing = generic_node_open62541::get_missing_attributes();
    missing.push_back(attribute_value);
    return missing;
}

void array_variable_node_open62541::update_attribute(std::uint32_t attribute, const UA_Variant& value) {
    if (attribute == attribute_value)
        replace_value(*value_, value);
    else
        generic_node_open62541::update_attribute(attribute, value);
}

void array_variable_node_open62541::take_attribute(std::uint32_t attribute, UA_Variant& value) {
    if (attribute == attribute_value)
        take_value(*value_, value);
    else
        generic_node_open62541::update_attribute(attribute, value);
}

std::unique_ptr<readable_variable_node_interface> make_readable_node(std::string text) {
    if (!text.empty() && (text.front() == '\'' || text.front() == '"'))
        return std::make_unique<array_variable_node_open62541>(text);
    return std::make_unique<scalar_variable_node_open62541>(text);
}

}  // namespace brenholt::monitoring_modules::opcua
