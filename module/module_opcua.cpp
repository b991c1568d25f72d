#include "module/module_opcua.h"

#include <functional>
#include <memory>

#include "client/client_interface.h"
#include "client/client_open62541.h"
#include "client/client_settings.h"
#include "module/framework/bindings.h"
#include "module/definition/module_definition_text.h"
#include "client/nodes_open62541.h"
#include "sensors/beckhoff_ipc_system_status_sensor.h"
#include "sensors/certificate_sensor.h"
#include "sensors/connection_check.h"
#include "sensors/custom_sensor.h"
#include "sensors/server_status_sensor.h"
#include "sensors/endpoint_validation_check.h"

namespace brenholt::monitoring_modules::opcua {

using libvurohelper::module::service_container;

VuroModuleOPCUA::VuroModuleOPCUA(unsigned long handle, libvurohelper::module::message_callback callback)
    : module_instance(handle, callback) {
    // The client holds its services weakly: a client must never keep the module alive.
    std::weak_ptr<service_container> weak_services = services;
    services->add_factory(std::function<std::unique_ptr<client_interface>(client_settings)>(
        [weak_services](client_settings settings) -> std::unique_ptr<client_interface> {
            return std::make_unique<client_open62541>(settings, weak_services);
        }));
    services->add_factory(std::function<std::unique_ptr<readable_variable_node_interface>(std::string)>(
        &make_readable_node));
    services->add_factory(std::function<std::unique_ptr<generic_node_interface>(std::string)>(
        [](std::string text) -> std::unique_ptr<generic_node_interface> {
            return std::make_unique<generic_node_open62541>(text);
        }));

    dispatcher->register_sensor_as<server_status_sensor>("server_status_sensor");
    dispatcher->register_sensor_as<custom_sensor>("custom_sensor");
    dispatcher->register_sensor_as<certificate_sensor>("certificate_sensor");
    dispatcher->register_sensor_as<beckhoff_ipc_system_status_sensor>("beckhoff_ipc_system_status_sensor");

    dispatcher->register_check_as<connection_check>("connection_check");
    dispatcher->register_check_as<endpoint_validation_check>("endpoint_validation_check");
}

std::string VuroModuleOPCUA::module_definition() { return module_definition_text(); }

}  // namespace brenholt::monitoring_modules::opcua
