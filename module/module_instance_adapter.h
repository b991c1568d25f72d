#pragma once

#include <memory>
#include <string>
#include <vector>

#include "module/framework/module_instance.h"

namespace brenholt::monitoring_modules::opcua {

// Owns the module object and frames each call with trace lines in the runtime log.
class module_instance_adapter {
public:
    explicit module_instance_adapter(std::unique_ptr<libvurohelper::module::module_instance> instance);

    void get_module_information(bool include_texts);
    std::vector<std::uint8_t> get_module_information_as_bytes(bool include_texts);
    int create_sensor_instance(int sensor_id, const void* data, unsigned int size);
    int execute_sensor_scan(int sensor_id);
    int destroy_sensor_instance(int sensor_id);
    int execute_meta_scan(int sensor_id, unsigned int meta_scan_id, const void* data, unsigned int size);
    int execute_check(int check_id, const void* data, unsigned int size);

    void log(liblog::severity level, const std::string& text) { instance_->log(level, text); }

private:
    // The banners of one operation, made once: they frame every call.
    struct banners {
        explicit banners(const char* name)
            : begin(std::string("### Begin ") + name + " ###"), end(std::string("### End   ") + name + " ###") {}
        const std::string begin;
        const std::string end;
    };
    void begin(const banners& b) { instance_->log(liblog::debug, b.begin); }
    void end(const banners& b) { instance_->log(liblog::debug, b.end); }

    std::unique_ptr<libvurohelper::module::module_instance> instance_;
};

}  // namespace brenholt::monitoring_modules::opcua
