#include "module/module_instance_adapter.h"

#include <stdexcept>

#include "libvurohelper/logging.h"
#include "libvurohelper/messaging.h"
#include "libvurohelper/settings.h"

namespace brenholt::monitoring_modules::opcua {

using libvurohelper::messaging::message_service_interface;
using libvurohelper::messaging::module_information_message;
using libvurohelper::settings::sensor_data_wrapper;

module_instance_adapter::module_instance_adapter(std::unique_ptr<libvurohelper::module::module_instance> instance)
    : instance_(std::move(instance)) {
    if (!instance_) throw std::invalid_argument("module_instance_adapter: module_instance must not be null");
    libvurohelper::module::register_runtime_log(std::shared_ptr(instance_->services));
    libvurohelper::module::register_sensor_log(std::shared_ptr(instance_->services));
}

void module_instance_adapter::get_module_information(bool include_texts) {
    static const banners name("get_module_information");
    begin(name);
    instance_->log(liblog::debug, std::string("Do loadLanguages: ") + (include_texts ? "Yes" : "No"));
    module_information_message message(instance_->module_definition(), include_texts);
    instance_->services->get_instance<message_service_interface>()->send(message);
    end(name);
}

std::vector<std::uint8_t> module_instance_adapter::get_module_information_as_bytes(bool include_texts) {
    static const banners name("get_module_information_as_bytes");
    begin(name);
    instance_->log(liblog::debug, std::string("Include texts: ") + (include_texts ? "Yes" : "No"));
    const auto& bytes = instance_->module_information_bytes(include_texts);
    end(name);
    return bytes;
}

int module_instance_adapter::create_sensor_instance(int sensor_id, const void* data, unsigned int size) {
    static const banners name("create_sensor_instance");
    begin(name);
    sensor_data_wrapper wrapper(data, size);
    instance_->log(liblog::debug, wrapper.to_json());
    auto dispatcher = instance_->dispatcher;
    const int result = dispatcher->create_sensor_instance(sensor_id, wrapper);
    end(name);
    return result;
}

int module_instance_adapter::execute_sensor_scan(int sensor_id) {
    static const banners name("execute_sensor_scan");
    begin(name);
    auto dispatcher = instance_->dispatcher;
    const int result = dispatcher->execute_sensor_scan(sensor_id);
    end(name);
    return result;
}

int module_instance_adapter::destroy_sensor_instance(int sensor_id) {
    static const banners name("destroy_sensor_instance");
    begin(name);
    auto dispatcher = instance_->dispatcher;
    const int result = dispatcher->destroy_sensor_instance(sensor_id);
    end(name);
    return result;
}

int module_instance_adapter::execute_meta_scan(int sensor_id, unsigned int meta_scan_id, const void* data,
                                               unsigned int size) {
    static const banners name("execute_meta_scan");
    begin(name);
    sensor_data_wrapper wrapper(data, size);
    instance_->log(liblog::debug, wrapper.to_json());
    auto dispatcher = instance_->dispatcher;
    const int result = dispatcher->execute_meta_scan(sensor_id, meta_scan_id, wrapper);
    end(name);
    return result;
}

int module_instance_adapter::execute_check(int check_id, const void* data, unsigned int size) {
    static const banners name("execute_check");
    begin(name);
    sensor_data_wrapper wrapper(data, size);
    instance_->log(liblog::debug, wrapper.to_json());
    auto dispatcher = instance_->dispatcher;
    const int result = dispatcher->execute_check(check_id, wrapper);
    end(name);
    return result;
}

}  // namespace brenholt::monitoring_modules::opcua
