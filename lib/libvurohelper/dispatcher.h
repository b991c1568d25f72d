#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>

#include "libvurohelper/api.h"
#include "libvurohelper/sensors.h"
#include "libvurohelper/settings.h"

namespace brenholt::monitoring_modules::libvurohelper::module {

class service_container;

// Results of the dispatcher's operations.
enum dispatch_result : int {
    dispatch_done = 0,          // handled
    dispatch_no_kind = 1,       // the sensor data names no sensor, meta scan or check
    dispatch_unknown_kind = 4,  // nothing is bound under the kind the data names
    dispatch_unknown_id = 5,    // no sensor with this id in the stock
};

class VURO_API sensor_stock {
public:
    // Raises sensor_already_registered if the id is taken.
    void add_sensor(int id, const std::shared_ptr<sensors::sensor_interface>& sensor);
    std::shared_ptr<sensors::sensor_interface> find(int id) const;
    std::shared_ptr<sensors::sensor_interface> take(int id);
    std::size_t size() const;
    // Releases every sensor, highest id first, outside the lock.
    void clear();

private:
    std::map<int, std::shared_ptr<sensors::sensor_interface>> sensors_;
    mutable std::mutex mutex_;
};

class VURO_API sensor_dispatcher {
public:
    using sensor_function =
        std::function<void(std::shared_ptr<service_container>, int, const settings::sensor_data_wrapper&)>;
    using meta_scan_function = std::function<void(std::shared_ptr<service_container>, int, unsigned int,
                                                  const settings::sensor_data_wrapper&)>;
    using check_function = sensor_function;

    explicit sensor_dispatcher(std::shared_ptr<service_container> services);
    ~sensor_dispatcher();
    sensor_dispatcher(const sensor_dispatcher&) = delete;
    sensor_dispatcher& operator=(const sensor_dispatcher&) = delete;

    // Exceptions of the bound functions and of scan() pass through to the caller.
    int create_sensor_instance(int id, const settings::sensor_data_wrapper& data);
    int execute_sensor_scan(int id);
    int destroy_sensor_instance(int id);
    int execute_meta_scan(int id, unsigned int meta_scan_id, const settings::sensor_data_wrapper& data);
    int execute_check(int id, const settings::sensor_data_wrapper& data);

    // A name already taken keeps its first binding. Header code: a module inserts into
    // the tables itself and needs no operation of the library for it.
    void bind_sensor(const std::string& name, sensor_function function) { sensors_.emplace(name, std::move(function)); }
    void bind_meta_scan(const std::string& name, meta_scan_function function) {
        meta_scans_.emplace(name, std::move(function));
    }
    void bind_check(const std::string& name, check_function function) { checks_.emplace(name, std::move(function)); }

    // Defined in module/framework/bindings.h, where the frame's types are known.
    template <typename T>
    void register_sensor_as(const std::string& name);
    template <typename T>
    void register_check_as(const std::string& name);

    sensor_stock& stock() { return stock_; }

private:
    std::shared_ptr<service_container> services_;
    std::unordered_map<std::string, sensor_function> sensors_;
    std::unordered_map<std::string, meta_scan_function> meta_scans_;
    std::unordered_map<std::string, check_function> checks_;
    sensor_stock stock_;
};

}  // namespace brenholt::monitoring_modules::libvurohelper::module
