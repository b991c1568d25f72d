#include "module/module_opcua.h"

#include "module/framework/bindings.h"
#include "module/module_definition.h"

namespace brenholt::monitoring_modules::opcua {

VuroModuleOPCUA::VuroModuleOPCUA(unsigned long handle, libvurohelper::module::message_callback callback)
    : module_instance(handle, callback) {}

std::string VuroModuleOPCUA::module_definition() { return definition_text(); }

}  // namespace brenholt::monitoring_modules::opcua
