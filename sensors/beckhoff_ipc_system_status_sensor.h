#pragma once

#include <memory>
#include <vector>

#include "client/client_interface.h"
#include "client/node_interfaces.h"
#include "module/framework/sensor_base.h"
#include "settings/records.h"

namespace brenholt::monitoring_modules::opcua {

// Load, temperatures, free memory and RAID state of a Beckhoff industrial PC, read
// from the fixed variables its diagnostics publish in namespace 2. Channel ids 0 to 5.
class beckhoff_ipc_system_status_sensor
    : public libvurohelper::sensors::sensor_base<settings::beckhoff_ipc_system_status_sensor> {
public:
    explicit beckhoff_ipc_system_status_sensor(
        libvurohelper::sensors::sensor_parameters<settings::beckhoff_ipc_system_status_sensor> params);
    ~beckhoff_ipc_system_status_sensor() override;
    void work() override;

private:
    void get_opcua_client(const client_settings& key);
    void define_channels();
    void create_nodes();
    void fetch_nodes();

    std::shared_ptr<client_interface> client;
    // The nine diagnostic variables, by the index of their NodeID in node_ids().
    std::vector<std::shared_ptr<readable_variable_node_interface>> nodes;
};

}  // namespace brenholt::monitoring_modules::opcua
