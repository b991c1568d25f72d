// The ten functions the probe calls. No exception ever leaves one of them.
#include <cstring>
#include <memory>
#include <vector>

#include "module/module_instance_adapter.h"
#include "module/module_opcua.h"

using brenholt::monitoring_modules::opcua::module_instance_adapter;
using brenholt::monitoring_modules::opcua::VuroModuleOPCUA;

namespace {

module_instance_adapter* g_adapter = nullptr;

// A probe that only unloads the library still gets the sensors' clean-up.
struct exit_handler {
    ~exit_handler() {
        module_instance_adapter* adapter = g_adapter;
        g_adapter = nullptr;
        delete adapter;
    }
};
exit_handler g_exit_handler;

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int GetApiLevel() { return 6; }

__attribute__((visibility("default"))) int InitializeModule(unsigned long handle,
                                                            void (*callback)(unsigned long, void*, unsigned int)) {
    if (g_adapter != nullptr) {
        try {
            g_adapter->log(brenholt::monitoring_modules::liblog::debug,
                           "InitializeModule called on already initialized module.");
        } catch (...) {
        }
        return 1;
    }
    try {
        auto module = std::make_unique<VuroModuleOPCUA>(handle, callback);
        auto adapter = std::make_unique<module_instance_adapter>(std::move(module));
        g_adapter = adapter.release();
        return 0;
    } catch (...) {
        return 1;
    }
}

__attribute__((visibility("default"))) int CleanupModule() {
    module_instance_adapter* adapter = g_adapter;
    g_adapter = nullptr;
    delete adapter;
    return 0;
}

__attribute__((visibility("default"))) void GetModuleInformation(bool include_texts) {
    if (g_adapter == nullptr) return;
    try {
        g_adapter->get_module_information(include_texts);
    } catch (...) {
    }
}

__attribute__((visibility("default"))) int GetModuleInformationSync(void* buffer, unsigned int* size,
                                                                    bool include_texts) {
    if (size == nullptr) return 1;
    if (g_adapter == nullptr) return 2;
    std::vector<std::uint8_t> bytes;
    try {
        bytes = g_adapter->get_module_information_as_bytes(include_texts);
    } catch (...) {
        return 1;
    }
    const unsigned int capacity = *size;
    *size = static_cast<unsigned int>(bytes.size());
    if (buffer == nullptr) return 0;
    if (bytes.size() > capacity) return 1;
    if (!bytes.empty()) std::memcpy(buffer, bytes.data(), bytes.size());
    return 0;
}

__attribute__((visibility("default"))) int CreateSensorInstance(int sensor_id, const void* data, unsigned int size) {
    if (g_adapter == nullptr) return 3;
    try {
        return g_adapter->create_sensor_instance(sensor_id, data, size);
    } catch (...) {
        return 2;
    }
}

__attribute__((visibility("default"))) int ExecuteSensorScan(int sensor_id) {
    if (g_adapter == nullptr) return 3;
    try {
        return g_adapter->execute_sensor_scan(sensor_id);
    } catch (...) {
        return 2;
    }
}

__attribute__((visibility("default"))) int DestroySensorInstance(int sensor_id) {
    if (g_adapter == nullptr) return 3;
    try {
        return g_adapter->destroy_sensor_instance(sensor_id);
    } catch (...) {
        return 2;
    }
}

__attribute__((visibility("default"))) int ExecuteMetaScan(int sensor_id, unsigned int meta_scan_id, const void* data,
                                                           unsigned int size) {
    if (g_adapter == nullptr) return 3;
    try {
        return g_adapter->execute_meta_scan(sensor_id, meta_scan_id, data, size);
    } catch (...) {
        return 2;
    }
}

__attribute__((visibility("default"))) int ExecuteCheck(int check_id, const void* data, unsigned int size) {
    if (g_adapter == nullptr) return 3;
    try {
        return g_adapter->execute_check(check_id, data, size);
    } catch (...) {
        return 2;
    }
}

}  // extern "C"
