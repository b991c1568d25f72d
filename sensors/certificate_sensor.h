#pragma once

#include <memory>

#include "client/client_interface.h"
#include "client/client_settings.h"
#include "module/framework/sensor_base.h"
#include "settings/records.h"

namespace brenholt::monitoring_modules::opcua {

// Days to expiry, key length and self-signed state of the certificate that the
// server publishes with its endpoints (channels 0 to 2). Reading it takes only
// discovery, so no session and no user rights are needed.
class certificate_sensor : public libvurohelper::sensors::sensor_base<settings::certificate_sensor> {
public:
    explicit certificate_sensor(libvurohelper::sensors::sensor_parameters<settings::certificate_sensor> params);
    ~certificate_sensor() override;
    void work() override;

private:
    void get_opcua_client(const client_settings& key);
    void define_channels();

    // Private to this sensor, never from the cache: discovery replaces the stack's
    // client object, which would end the session of anyone sharing it.
    std::shared_ptr<client_interface> client;
};

}  // namespace brenholt::monitoring_modules::opcua
