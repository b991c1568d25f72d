#pragma once

#include <string>

#include "module/framework/module_instance.h"

namespace brenholt::monitoring_modules::opcua {

// Knows what this module consists of: its factories, bindings and definition.
class VuroModuleOPCUA : public libvurohelper::module::module_instance {
public:
    VuroModuleOPCUA(unsigned long handle, libvurohelper::module::message_callback callback);
    std::string module_definition() override;
};

}  // namespace brenholt::monitoring_modules::opcua
