#pragma once

#include <memory>
#include <vector>

#include "client/client_settings.h"
#include "client/node_interfaces.h"
#include "client/server_certificate_info.h"
#include "liblog/log.h"

namespace brenholt::monitoring_modules::opcua {

// What sensors, checks and the notification see of an OPC UA server. One client
// may be shared by all users with equal client_settings.
class client_interface {
public:
    virtual ~client_interface() = default;

    // The client's own copy of what it was created with.
    virtual const client_settings& get_settings() const = 0;
    virtual bool is_connected() const = 0;
    virtual bool validate_endpoint() = 0;
    // Throws on failure; a later call tries again.
    virtual void connect() = 0;
    virtual server_certificate_info get_server_certificate_info() = 0;
    virtual void write_node_value(const std::shared_ptr<writeable_variable_node_interface>& node) = 0;
    virtual void read_node(const std::shared_ptr<generic_node_interface>& node) = 0;
    // All nodes in one request.
    virtual void read_node(const std::vector<std::shared_ptr<generic_node_interface>>& nodes) = 0;
    virtual void add_logger(const std::shared_ptr<liblog::log_interface>& log, liblog::severity limit) = 0;
    virtual void remove_logger(const std::shared_ptr<liblog::log_interface>& log) = 0;
    // Connects if need be, and proves a session that was standing with a request: true
    // when the session answers. One operation under the client's lock, so the answer is
    // about the connection this call made or tested, whatever other users do meanwhile.
    virtual bool test_connection() = 0;
};

}  // namespace brenholt::monitoring_modules::opcua
