#include "probe_host.h"

#include <dlfcn.h>
#include <unistd.h>

#include <climits>
#include <stdexcept>

#include <google/protobuf/util/json_util.h>

#include "vuro.pb.h"

namespace miniprobe {

namespace wire = brenholt::vuro::wire;

namespace {
template <typename F>
void resolve(void* library, const char* name, F& target) {
    void* symbol = dlsym(library, name);
    if (symbol == nullptr) throw std::runtime_error(std::string("module does not export ") + name);
    target = reinterpret_cast<F>(symbol);
}

nlohmann::ordered_json to_json(const google::protobuf::Message& message) {
    std::string text;
    google::protobuf::util::JsonPrintOptions options;
    options.always_print_primitive_fields = true;
    options.preserve_proto_field_names = true;
    if (!google::protobuf::util::MessageToJsonString(message, &text, options).ok())
        throw std::runtime_error("cannot print message as JSON");
    return nlohmann::ordered_json::parse(text);
}
}  // namespace

received_message decode_message(const void* data, std::size_t size) {
    wire::Envelope envelope;
    if (!envelope.ParseFromArray(data, static_cast<int>(size))) throw std::runtime_error("undecodable message");
    received_message out;
    out.type = wire::MessageType_Name(envelope.type());
    std::unique_ptr<google::protobuf::Message> body;
    switch (envelope.type()) {
        case wire::MODULE_INFORMATION: body = std::make_unique<wire::ModuleInformation>(); break;
        case wire::SENSOR_SCAN_RESULT: body = std::make_unique<wire::SensorScanResult>(); break;
        case wire::CHECK_RESULT: body = std::make_unique<wire::CheckResult>(); break;
        case wire::DYNAMIC_CHANNEL: body = std::make_unique<wire::DynamicChannel>(); break;
        case wire::NOTIFICATION_RESPONSE: body = std::make_unique<wire::NotificationResponse>(); break;
        case wire::SENSOR_DATA: body = std::make_unique<wire::SensorData>(); break;
        case wire::NOTIFICATION_REQUEST: body = std::make_unique<wire::NotificationRequest>(); break;
        default: throw std::runtime_error("unknown message type " + std::to_string(envelope.type()));
    }
    if (!body->ParseFromString(envelope.payload())) throw std::runtime_error("undecodable " + out.type);
    out.body = to_json(*body);
    return out;
}

std::string encode_sensor_data(const wire::SensorData& data) {
    wire::Envelope envelope;
    envelope.set_type(wire::SENSOR_DATA);
    envelope.set_payload(data.SerializeAsString());
    return envelope.SerializeAsString();
}

std::string default_module_path() {
    char self[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    if (n <= 0) return "modules/opcua/libOPCUA.so";
    std::string dir(self, static_cast<std::size_t>(n));
    dir = dir.substr(0, dir.rfind('/'));
    return dir + "/../stage/modules/opcua/libOPCUA.so";
}

probe_host::probe_host(const std::string& module_path) {
    library_ = dlopen(module_path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library_ == nullptr) throw std::runtime_error(std::string("cannot load module: ") + dlerror());
    try {
        resolve(library_, "GetApiLevel", get_api_level_);
        resolve(library_, "InitializeModule", initialize_);
        resolve(library_, "CleanupModule", cleanup_);
        resolve(library_, "GetModuleInformation", get_info_);
        resolve(library_, "GetModuleInformationSync", get_info_sync_);
        resolve(library_, "CreateSensorInstance", create_);
        resolve(library_, "ExecuteSensorScan", scan_);
        resolve(library_, "DestroySensorInstance", destroy_);
        resolve(library_, "ExecuteMetaScan", meta_scan_);
        resolve(library_, "ExecuteCheck", check_);
    } catch (...) {
        dlclose(library_);
        throw;
    }
}

probe_host::~probe_host() {
    if (library_ != nullptr) dlclose(library_);
}

void probe_host::callback(unsigned long handle, void* data, unsigned int size) {
    auto* self = reinterpret_cast<probe_host*>(handle);
    received_message message;
    try {
        message = decode_message(data, size);
    } catch (const std::exception& e) {
        message.type = "UNDECODABLE";
        message.body = {{"error", e.what()}, {"size", size}};
    }
    if (self->on_message) self->on_message(message);
    std::lock_guard<std::mutex> lock(self->mutex_);
    self->messages_.push_back(std::move(message));
}

std::vector<received_message> probe_host::take_messages() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<received_message> out;
    out.swap(messages_);
    return out;
}

int probe_host::get_api_level() { return get_api_level_(); }
int probe_host::initialize() { return initialize_(handle(), &probe_host::callback); }
int probe_host::cleanup() { return cleanup_(); }
void probe_host::get_module_information(bool include_texts) { get_info_(include_texts); }

std::vector<std::uint8_t> probe_host::get_module_information_sync(bool include_texts, int& result) {
    unsigned int size = 0;
    result = get_info_sync_(nullptr, &size, include_texts);
    if (result != 0) return {};
    std::vector<std::uint8_t> buffer(size);
    result = get_info_sync_(buffer.data(), &size, include_texts);
    if (result != 0) return {};
    buffer.resize(size);
    return buffer;
}

int probe_host::get_module_information_sync_raw(void* buffer, unsigned int* size, bool include_texts) {
    return get_info_sync_(buffer, size, include_texts);
}

int probe_host::create_sensor_raw(int sensor_id, const void* data, unsigned int size) {
    return create_(sensor_id, data, size);
}

int probe_host::create_sensor(int sensor_id, const wire::SensorData& data) {
    const std::string bytes = encode_sensor_data(data);
    return create_(sensor_id, bytes.data(), static_cast<unsigned int>(bytes.size()));
}

int probe_host::scan(int sensor_id) { return scan_(sensor_id); }
int probe_host::destroy(int sensor_id) { return destroy_(sensor_id); }

int probe_host::meta_scan(int sensor_id, unsigned int meta_scan_id, const wire::SensorData& data) {
    const std::string bytes = encode_sensor_data(data);
    return meta_scan_(sensor_id, meta_scan_id, bytes.data(), static_cast<unsigned int>(bytes.size()));
}

int probe_host::check(int check_id, const wire::SensorData& data) {
    const std::string bytes = encode_sensor_data(data);
    return check_(check_id, bytes.data(), static_cast<unsigned int>(bytes.size()));
}

}  // namespace miniprobe
