#pragma once

#include <memory>
#include <string>
#include <utility>

#include "libvurohelper/dispatcher.h"
#include "module/framework/sensor_base.h"
#include "module/framework/service_container.h"

namespace brenholt::monitoring_modules::libvurohelper::module {

// Binds a sensor class: parse its settings, build it over the probe's channels and
// persistent data, put it in the stock, and log the sensor data into its own log.
template <typename T>
void sensor_dispatcher::register_sensor_as(const std::string& name) {
    using S = typename T::settings_type;
    bind_sensor(name, [this](std::shared_ptr<service_container> services, int id,
                             const settings::sensor_data_wrapper& data) {
        S parsed(data);
        auto known = data.get_channels();
        auto persistent = data.get_persistent_data();
        sensors::sensor_parameters<S> params{std::move(services), id, std::move(parsed),
                                             std::make_shared<settings::channel_map>(std::move(known)),
                                             settings::persistent_data_storage(std::move(persistent))};
        auto sensor = std::make_shared<T>(std::move(params));
        stock().add_sensor(id, sensor);
        sensor->log_debug(data.to_json());
    });
}

// Binds a check class: it lives on the stack for one call and sends one check_result.
template <typename T>
void sensor_dispatcher::register_check_as(const std::string& name) {
    using S = typename T::settings_type;
    bind_check(name, [](std::shared_ptr<service_container> services, int id,
                        const settings::sensor_data_wrapper& data) {
        S parsed(data);
        T check(std::move(services), id, parsed);
        check.work();
    });
}

}  // namespace brenholt::monitoring_modules::libvurohelper::module
