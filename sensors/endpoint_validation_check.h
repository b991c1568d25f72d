#pragma once

#include "module/framework/sensor_base.h"
#include "settings/records.h"

namespace brenholt::monitoring_modules::opcua {

// Does the server answer discovery with an endpoint that fits the entered security?
// Opens no session.
class endpoint_validation_check : public libvurohelper::checks::check_base<settings::endpoint_validation_check> {
public:
    using check_base::check_base;
    ~endpoint_validation_check() override;
    void work() override;
};

}  // namespace brenholt::monitoring_modules::opcua
