#include "module/module_definition.h"

namespace brenholt::monitoring_modules::opcua {

namespace {
const std::string text =
    "{\"Revision\": 68, \"MetaData\": {\"Vendor\": \"brenholt\", \"Name\": \"opcua\", \"Display\": \"OPC UA\", "
    "\"Description\": \"Monitoring module to bundle OPC UA-related sensors.\", \"Contact\": \"support@brenholt.com\", "
    "\"Version\": \"1.16.0.20981\"}, \"Sensors\": {}, \"MetaScans\": {}, \"Checks\": {}, \"Sections\": {}, "
    "\"Groups\": {}, \"Lookups\": {}, \"Text\": {}}";
}

const std::string& definition_text() { return text; }

}  // namespace brenholt::monitoring_modules::opcua
