#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <open62541/types.h>

#include "client/node_id.h"
#include "client/node_interfaces.h"

namespace brenholt::monitoring_modules::opcua {

// The standard's AttributeIds that nodes ask for.
inline constexpr std::uint32_t attribute_browse_name = 3;
inline constexpr std::uint32_t attribute_display_name = 4;
inline constexpr std::uint32_t attribute_description = 5;
inline constexpr std::uint32_t attribute_value = 13;

class generic_node_open62541 : public virtual generic_node_interface {
public:
    explicit generic_node_open62541(const std::string& node_id);
    ~generic_node_open62541() override;

    std::uint16_t namespace_index() const override;
    std::string identifier() const override;
    std::string browse_name() const override;
    std::string display_name() const override;
    std::string description() const override;

    // What a read still has to fetch for this node: the names never read yet.
    virtual std::vector<std::uint32_t> get_missing_attributes() const;
    virtual void update_attribute(std::uint32_t attribute, const UA_Variant& value);

    const UA_NodeId* node_id() const { return id_.get(); }

protected:
    // Array nodes take their id from the quoted form.
    generic_node_open62541(node_id_ptr id);

private:
    struct node_text_attribute {
        bool is_set = false;
        std::string text;
    };

    node_id_ptr id_;
    node_text_attribute display_name_;
    node_text_attribute description_;
    node_text_attribute browse_name_;
};

struct variant_deleter {
    void operator()(UA_Variant* v) const noexcept;
};
using variant_ptr = std::unique_ptr<UA_Variant, variant_deleter>;

class scalar_variable_node_open62541 : public readable_variable_node_interface,
                                       public writeable_variable_node_interface,
                                       public generic_node_open62541 {
public:
    explicit scalar_variable_node_open62541(const std::string& node_id);
    ~scalar_variable_node_open62541() override;

    data_type value_kind() const override;
    std::string string_value() const override;
    std::int64_t int64_value() const override;
    double double_value() const override;
    bool bool_value() const override;

    std::vector<std::uint32_t> get_missing_attributes() const override;
    void update_attribute(std::uint32_t attribute, const UA_Variant& value) override;

    void set_value(const std::string& value) override;
    void set_value(std::int64_t value) override;
    void set_value(double value) override;
    void set_value(bool value) override;

    const UA_Variant* variant() const { return value_.get(); }

private:
    variant_ptr value_;
};

class array_variable_node_open62541 : public readable_variable_node_interface, public generic_node_open62541 {
public:
    // The text in the quoted form: 'ns=1;s=Temp'[3].
    explicit array_variable_node_open62541(const std::string& text);
    ~array_variable_node_open62541() override;

    data_type value_kind() const override;
    std::string string_value() const override;
    std::int64_t int64_value() const override;
    double double_value() const override;
    bool bool_value() const override;

    std::vector<std::uint32_t> get_missing_attributes() const override;
    void update_attribute(std::uint32_t attribute, const UA_Variant& value) override;

    std::uint64_t index() const { return index_; }

private:
    array_variable_node_open62541(array_access parsed);

    variant_ptr value_;
    std::uint64_t index_;
};

// A quoted text names an array element, anything else a scalar variable.
std::unique_ptr<readable_variable_node_interface> make_readable_node(std::string text);

}  // namespace brenholt::monitoring_modules::opcua
