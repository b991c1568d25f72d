#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "client/client_interface.h"
#include "client/node_interfaces.h"
#include "module/framework/sensor_base.h"
#include "settings/records.h"

namespace brenholt::monitoring_modules::opcua {

// State and uptime of a server from namespace 0 (channels 0 and 1), and eight
// counters of its diagnostics summary (channels 2 to 9) once the server has its
// diagnostics switched on. Whether they were ever on is kept in the channel map,
// so a sensor created anew still warns when a server takes them back.
class server_status_sensor : public libvurohelper::sensors::sensor_base<settings::server_status_sensor> {
public:
    explicit server_status_sensor(
        libvurohelper::sensors::sensor_parameters<settings::server_status_sensor> params);
    ~server_status_sensor() override;
    void work() override;

private:
    using node_table = std::unordered_map<std::string, std::shared_ptr<readable_variable_node_interface>>;

    void get_opcua_client(const client_settings& key);
    void define_status_channels();
    void create_nodes();
    void read_status_nodes();
    void define_diagnostic_channels();
    bool diagnostics_defined() const;
    void set_diagnostic_values(libvurohelper::responses::sensor_scan_result& result) const;

    std::shared_ptr<client_interface> client;
    node_table status_nodes;
    node_table diagnostic_nodes;
};

}  // namespace brenholt::monitoring_modules::opcua
