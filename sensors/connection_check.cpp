#include "sensors/connection_check.h"

#include "client/client_settings.h"
#include "sensors/client_access.h"

namespace brenholt::monitoring_modules::opcua {

connection_check::~connection_check() = default;

void connection_check::work() {
    libvurohelper::responses::check_result result(check_id);
    try {
        const client_settings key = create_client_settings(settings);
        auto client = get_cached_client(services, key, [this](const std::string& line) { log_debug(line); });
        // One call for connecting and testing: the client may be shared, and another
        // user's discovery may replace its connection at any moment.
        result.set_success((client->test_connection() & 1) != 0);
    } catch (const std::exception& e) {
        // A failed check is reported only in the log; the result carries no text.
        log(e.what(), liblog::emergency);
    }
    send_result(result);
}

}  // namespace brenholt::monitoring_modules::opcua
