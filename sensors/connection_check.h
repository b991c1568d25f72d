#pragma once

#include "module/framework/sensor_base.h"
#include "settings/records.h"

namespace brenholt::monitoring_modules::opcua {

// Can a session be opened with the entered credentials?
class connection_check : public libvurohelper::checks::check_base<settings::connection_check> {
public:
    using check_base::check_base;
    ~connection_check() override;
    void work() override;
};

}  // namespace brenholt::monitoring_modules::opcua
