#pragma once

#include <memory>
#include <utility>
#include <vector>

#include "client/client_interface.h"
#include "client/node_interfaces.h"
#include "module/framework/sensor_base.h"
#include "settings/custom_sensor_settings.h"

namespace brenholt::monitoring_modules::opcua {

// Up to ten variables named by NodeID, one channel each (ids 1 to 10), and an
// optional sensor message from an eleventh. Channels are defined from what the
// server reports at creation.
class custom_sensor : public libvurohelper::sensors::sensor_base<settings::custom_sensor> {
public:
    explicit custom_sensor(libvurohelper::sensors::sensor_parameters<settings::custom_sensor> params);
    ~custom_sensor() override;
    void work() override;

private:
    void get_opcua_client(const client_settings& key);
    void create_sensor_message_node();
    void create_channel_nodes();
    void define_channels();
    void build_read_request();
    void fetch_nodes();
    void set_channel_value(libvurohelper::responses::sensor_scan_result& result, int id,
                           const readable_variable_node_interface& node);
    void set_sensor_message(libvurohelper::responses::sensor_scan_result& result);

    std::shared_ptr<client_interface> client;
    // The channel's index, 0 to 9, rising; the probe sees index + 1. A vector: a sensor
    // lives long and there may be thousands of them.
    std::vector<std::pair<int, std::shared_ptr<readable_variable_node_interface>>> channel_nodes;
    std::shared_ptr<readable_variable_node_interface> sensor_message_node;
    // The channel nodes in channel order, then the message node: one read for all.
    std::vector<std::shared_ptr<generic_node_interface>> read_request;
};

}  // namespace brenholt::monitoring_modules::opcua
