#pragma once

#include <memory>
#include <vector>

#include "client/client_interface.h"
#include "liblog/log.h"
#include "libvurohelper/notifications.h"
#include "module/framework/service_container.h"

namespace brenholt::monitoring_modules::opcua {

// Writes one value to one variable when a notification is raised; the response is
// the log of what happened. Complete, but nothing in the module binds it yet.
class opcua_notification : public libvurohelper::notifications::service_interface {
public:
    explicit opcua_notification(std::shared_ptr<libvurohelper::module::service_container> services);
    ~opcua_notification() override;

    void send_notification(const libvurohelper::notifications::request& request) override;
    const std::vector<unsigned char>& get_response() override;

private:
    std::shared_ptr<client_interface> get_opcua_client(const client_settings& key);
    std::shared_ptr<writeable_variable_node_interface> make_node(const settings::opcua_notification& record);

    std::shared_ptr<liblog::memory_logger> log;
    std::vector<unsigned char> response;
    std::shared_ptr<libvurohelper::module::service_container> services;
};

}  // namespace brenholt::monitoring_modules::opcua
