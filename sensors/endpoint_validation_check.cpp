#include "sensors/endpoint_validation_check.h"

#include "client/client_settings.h"
#include "sensors/client_access.h"

namespace brenholt::monitoring_modules::opcua {

endpoint_validation_check::~endpoint_validation_check() = default;

void endpoint_validation_check::work() {
    libvurohelper::responses::check_result result(check_id);
    try {
        const client_settings key = create_client_settings(settings);
        auto client = get_cached_client(services, key, [this](const std::string& line) { log_debug(line); });
        result.set_success(client->validate_endpoint());
    } catch (const std::exception& e) {
        log(e.what(), liblog::emergency);
    }
    send_result(result);
}

}  // namespace brenholt::monitoring_modules::opcua
