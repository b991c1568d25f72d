#pragma once

#include <cstdint>
#include <string>

#include "client/value_conversion.h"

namespace brenholt::monitoring_modules::opcua {

// One node on the server, as its users see it: no open62541 type shows here.
class generic_node_interface {
public:
    virtual ~generic_node_interface() = default;
    virtual std::uint16_t namespace_index() const = 0;
    virtual std::string identifier() const = 0;
    // Raise *_not_set until a read has delivered the attribute.
    virtual std::string browse_name() const = 0;
    virtual std::string display_name() const = 0;
    virtual std::string description() const = 0;
};

class readable_variable_node_interface : public virtual generic_node_interface {
public:
    virtual data_type value_kind() const = 0;
    virtual std::string string_value() const = 0;
    virtual std::int64_t int64_value() const = 0;
    virtual double double_value() const = 0;
    virtual bool bool_value() const = 0;
};

class writeable_variable_node_interface : public virtual generic_node_interface {
public:
    virtual data_type value_kind() const = 0;
    virtual void set_value(const std::string& value) = 0;
    virtual void set_value(std::int64_t value) = 0;
    virtual void set_value(double value) = 0;
    virtual void set_value(bool value) = 0;
};

}  // namespace brenholt::monitoring_modules::opcua
