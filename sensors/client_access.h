#pragma once

#include <memory>
#include <sstream>
#include <string>

#include "client/client_interface.h"
#include "client/client_settings.h"
#include "liblog/log.h"
#include "module/framework/service_container.h"

namespace brenholt::monitoring_modules::opcua {

// The shared client for these settings from the cache, with the two trace lines
// every sensor and check writes. `write` is the caller's log operation.
template <typename Log>
std::shared_ptr<client_interface> get_cached_client(
    const std::shared_ptr<libvurohelper::module::service_container>& services, const client_settings& settings,
    Log&& write) {
    write("Create OPC-UA client.");
    std::shared_ptr<client_interface> client;
    {
        auto container = services;
        client = container->get_instance<client_interface>(client_settings(settings));
    }
    std::ostringstream line;
    line << "Client creation successful: " << static_cast<const void*>(client.get())
         << " References: " << client.use_count();
    write(line.str());
    return client;
}

}  // namespace brenholt::monitoring_modules::opcua
