#pragma once

#include <string>

namespace brenholt::monitoring_modules::opcua {

// The module definition document: one UTF-8 JSON text without line breaks,
// generated at build time from the files of module/definition/ and complete
// from load of the library. The reference stays valid until unload.
const std::string& module_definition_text();

}  // namespace brenholt::monitoring_modules::opcua
