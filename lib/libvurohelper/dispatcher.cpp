#include "libvurohelper/dispatcher.h"

#include <vector>

#include "libvurohelper/exceptions.h"

namespace brenholt::monitoring_modules::libvurohelper::module {

void sensor_stock::add_sensor(int id, const std::shared_ptr<sensors::sensor_interface>& sensor) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!sensors_.emplace(id, sensor).second)
        throw utils::exceptions::sensor_already_registered(std::to_string(id));
}

std::shared_ptr<sensors::sensor_interface> sensor_stock::find(int id) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = sensors_.find(id);
    return it == sensors_.end() ? nullptr : it->second;
}

std::shared_ptr<sensors::sensor_interface> sensor_stock::take(int id) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = sensors_.find(id);
    if (it == sensors_.end()) return nullptr;
    auto sensor = std::move(it->second);
    sensors_.erase(it);
    return sensor;
}

std::size_t sensor_stock::size() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return sensors_.size();
}

void sensor_stock::clear() {
    std::map<int, std::shared_ptr<sensors::sensor_interface>> gone;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        gone.swap(sensors_);
    }
    // Sensors log their clean-up; that must not happen under our lock.
    while (!gone.empty()) gone.erase(std::prev(gone.end()));
}

sensor_dispatcher::sensor_dispatcher(std::shared_ptr<service_container> services)
    : services_(std::move(services)) {}

sensor_dispatcher::~sensor_dispatcher() { stock_.clear(); }

int sensor_dispatcher::create_sensor_instance(int id, const settings::sensor_data_wrapper& data) {
    if (data.kind().empty()) return dispatch_no_kind;
    auto it = sensors_.find(data.kind());
    if (it == sensors_.end()) return dispatch_unknown_kind;
    it->second(services_, id, data);
    return dispatch_done;
}

int sensor_dispatcher::execute_sensor_scan(int id) {
    auto sensor = stock_.find(id);
    if (!sensor) return dispatch_unknown_id;
    sensor->scan();
    return dispatch_done;
}

int sensor_dispatcher::destroy_sensor_instance(int id) {
    auto sensor = stock_.take(id);
    if (!sensor) return dispatch_unknown_id;
    sensor.reset();
    return dispatch_done;
}

int sensor_dispatcher::execute_meta_scan(int id, unsigned int meta_scan_id, const settings::sensor_data_wrapper& data) {
    if (data.kind().empty()) return dispatch_no_kind;
    auto it = meta_scans_.find(data.kind());
    if (it == meta_scans_.end()) return dispatch_unknown_kind;
    it->second(services_, id, meta_scan_id, data);
    return dispatch_done;
}

int sensor_dispatcher::execute_check(int id, const settings::sensor_data_wrapper& data) {
    if (data.kind().empty()) return dispatch_no_kind;
    auto it = checks_.find(data.kind());
    if (it == checks_.end()) return dispatch_unknown_kind;
    it->second(services_, id, data);
    return dispatch_done;
}

}  // namespace brenholt::monitoring_modules::libvurohelper::module
