#pragma once

#include <memory>
#include <string>

#include "liblog/log.h"
#include "libvurohelper/dispatcher.h"
#include "libvurohelper/messaging.h"
#include "module/framework/service_container.h"

namespace brenholt::monitoring_modules::libvurohelper::module {

using message_callback = void (*)(unsigned long handle, void* data, unsigned int size);

// Frame shared by every monitoring module: services, dispatcher, and the road to
// the probe's callback.
class module_instance {
public:
    module_instance(unsigned long handle_, message_callback callback)
        : handle(handle_),
          services(std::make_shared<service_container>()),
          dispatcher(std::make_shared<sensor_dispatcher>(services)) {
        // Captures `this`: the factory must not outlive the module.
        services->add_factory(std::function<std::unique_ptr<messaging::message_service_interface>()>(
            [this, callback]() -> std::unique_ptr<messaging::message_service_interface> {
                return std::make_unique<messaging::message_service>([this, callback](void* data, unsigned long size) {
                    callback(handle, data, static_cast<unsigned int>(size));
                });
            }));
    }

    virtual ~module_instance() {
        // Sensors go first and may still log through the services.
        dispatcher.reset();
        services.reset();
    }

    module_instance(const module_instance&) = delete;
    module_instance& operator=(const module_instance&) = delete;

    virtual std::string module_definition() = 0;

    void log(liblog::severity level, const std::string& text) {
        auto sink = services->get_instance<liblog::log_interface>();
        if (sink) sink->write(level, text);
    }

    unsigned long handle;
    std::shared_ptr<service_container> services;
    std::shared_ptr<sensor_dispatcher> dispatcher;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::module
