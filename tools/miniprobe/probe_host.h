#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace brenholt::vuro::wire {
class SensorData;
}

namespace miniprobe {

// One message the module sent through the callback, decoded.
struct received_message {
    std::string type;             // envelope type name, e.g. "SENSOR_SCAN_RESULT"
    nlohmann::ordered_json body;  // the payload as JSON, field names as in the schema
};

// Loads a module with dlopen and drives its ten functions as the probe does.
class probe_host {
public:
    // Raises std::runtime_error when the library or one of the functions is missing.
    explicit probe_host(const std::string& module_path);
    ~probe_host();
    probe_host(const probe_host&) = delete;
    probe_host& operator=(const probe_host&) = delete;

    int get_api_level();
    int initialize();
    int cleanup();
    void get_module_information(bool include_texts);
    // The two-call size protocol; `result` is the code of the last call.
    std::vector<std::uint8_t> get_module_information_sync(bool include_texts, int& result);
    int create_sensor(int sensor_id, const brenholt::vuro::wire::SensorData& data);
    int scan(int sensor_id);
    int destroy(int sensor_id);
    int meta_scan(int sensor_id, unsigned int meta_scan_id, const brenholt::vuro::wire::SensorData& data);
    int check(int check_id, const brenholt::vuro::wire::SensorData& data);

    // Raw access for tests of the boundary itself.
    int get_module_information_sync_raw(void* buffer, unsigned int* size, bool include_texts);
    int create_sensor_raw(int sensor_id, const void* data, unsigned int size);

    // Called for each message as it arrives, on the calling thread.
    std::function<void(const received_message&)> on_message;
    std::vector<received_message> take_messages();
    unsigned long handle() const { return reinterpret_cast<unsigned long>(this); }

private:
    static void callback(unsigned long handle, void* data, unsigned int size);

    void* library_ = nullptr;
    int (*get_api_level_)() = nullptr;
    int (*initialize_)(unsigned long, void (*)(unsigned long, void*, unsigned int)) = nullptr;
    int (*cleanup_)() = nullptr;
    void (*get_info_)(bool) = nullptr;
    int (*get_info_sync_)(void*, unsigned int*, bool) = nullptr;
    int (*create_)(int, const void*, unsigned int) = nullptr;
    int (*scan_)(int) = nullptr;
    int (*destroy_)(int) = nullptr;
    int (*meta_scan_)(int, unsigned int, const void*, unsigned int) = nullptr;
    int (*check_)(int, const void*, unsigned int) = nullptr;

    std::mutex mutex_;
    std::vector<received_message> messages_;
};

// Decodes one enveloped message; raises std::runtime_error on bad bytes.
received_message decode_message(const void* data, std::size_t size);
// Serialises sensor data in its envelope, as the probe hands it over.
std::string encode_sensor_data(const brenholt::vuro::wire::SensorData& data);

// Where the build puts the module, seen from this executable.
std::string default_module_path();

}  // namespace miniprobe
