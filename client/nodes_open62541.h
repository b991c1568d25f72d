#pragma once

#include <cstddef>
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

// The attributes a node still lacks: at most the three names and the value. Held in
// place, since every read of every node asks for it.
struct missing_attributes {
    std::uint32_t ids[4] = {};
    std::size_t count = 0;
    void push_back(std::uint32_t attribute) { ids[count++] = attribute; }
    std::size_t size() const { return count; }
    const std::uint32_t* begin() const { return ids; }
    const std::uint32_t* end() const { return ids + count; }
};

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
    virtual missing_attributes get_missing_attributes() const;
    virtual void update_attribute(std::uint32_t attribute, const UA_Variant& value);
    // As update_attribute, for a value the caller gives up: a node may keep it instead of
    // a copy, and leaves `value` empty then.
    virtual void take_attribute(std::uint32_t attribute, UA_Variant& value) { update_attribute(attribute, value); }

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

    missing_attributes get_missing_attributes() const override;
    void update_attribute(std::uint32_t attribute, const UA_Variant& value) override;
    void take_attribute(std::uint32_t attribute, UA_Variant& value) override;

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

    missing_attributes get_missing_attributes() const override;
    void update_attribute(std::uint32_t attribute, const UA_Variant& value) override;
    void take_attribute(std::uint32_t attribute, UA_Variant& value) override;

    std::uint64_t index() const { return index_; }

private:
    array_variable_node_open62541(array_access parsed);

    variant_ptr value_;
    std::uint64_t index_;
};

// A quoted text names an array element, anything else a scalar variable.
std::unique_ptr<readable_variable_node_interface> make_readable_node(std::string text);

}  // namespace brenholt::monitoring_modules::opcua
