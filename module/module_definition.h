#pragma once

#include <string>

namespace brenholt::monitoring_modules::opcua {

// The module definition document, complete from load of the library.
const std::string& definition_text();

}  // namespace brenholt::monitoring_modules::opcua
