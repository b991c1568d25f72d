#pragma once

#include <atomic>
#include <memory>
#include <mutex>
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
        const auto& sink = runtime_log();
        if (sink) sink->write(level, text);
    }

    // The serialised module information for each value of the flag. The definition
    // never changes in a module's life, so the bytes are made once, at the first asking.
    const messaging::bytes& module_information_bytes(bool include_texts) {
        information& cached = module_information_[include_texts ? 1 : 0];
        if (cached.ready.load(std::memory_order_acquire)) return cached.bytes;
        std::lock_guard<std::mutex> lock(once_mutex_);
        if (!cached.ready.load(std::memory_order_relaxed)) {
            cached.bytes = messaging::module_information_message(module_definition(), include_texts).serialize();
            cached.ready.store(true, std::memory_order_release);
        }
        return cached.bytes;
    }

    unsigned long handle;
    std::shared_ptr<service_container> services;
    std::shared_ptr<sensor_dispatcher> dispatcher;

private:
    // The container's log instance, made at the first line and fixed from then on; a
    // factory that throws leaves nothing cached, and the next line asks again.
    const std::shared_ptr<liblog::log_interface>& runtime_log() {
        if (runtime_log_ready_.load(std::memory_order_acquire)) return runtime_log_;
        std::lock_guard<std::mutex> lock(once_mutex_);
        if (!runtime_log_ready_.load(std::memory_order_relaxed)) {
            runtime_log_ = services->get_instance<liblog::log_interface>();
            runtime_log_ready_.store(true, std::memory_order_release);
        }
        return runtime_log_;
    }

    // Guards the first making of what is cached below; never held while logging.
    std::mutex once_mutex_;
    std::atomic<bool> runtime_log_ready_{false};
    std::shared_ptr<liblog::log_interface> runtime_log_;

    struct information {
        std::atomic<bool> ready{false};
        messaging::bytes bytes;
    };
    information module_information_[2];
};

}  // namespace brenholt::monitoring_modules::libvurohelper::module
