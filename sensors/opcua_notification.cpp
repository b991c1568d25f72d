#include "sensors/opcua_notification.h"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "client/client_settings.h"
#include "libvurohelper/responses.h"
#include "sensors/client_access.h"
#include "settings/notification_settings.h"

namespace brenholt::monitoring_modules::opcua {

namespace {

// The standard text-to-number routines: leading blanks skipped, trailing text ignored.
template <typename T, typename Parse>
T parse_number(const std::string& text, const char* name, Parse parse) {
    const int saved = errno;
    errno = 0;
    char* end = nullptr;
    const T value = parse(text.c_str(), &end);
    if (end == text.c_str()) throw std::invalid_argument(name);
    if (errno == ERANGE) throw std::out_of_range(name);
    if (errno == 0) errno = saved;
    return value;
}

// Takes the client's lines for the length of one notification, on every path.
struct client_log_scope {
    std::shared_ptr<client_interface> client;
    std::shared_ptr<liblog::log_interface> log;
    ~client_log_scope() { client->remove_logger(log); }
};

}  // namespace

opcua_notification::opcua_notification(std::shared_ptr<libvurohelper::module::service_container> services_)
    : log(std::make_shared<liblog::memory_logger>()), services(std::move(services_)) {}

opcua_notification::~opcua_notification() = default;

void opcua_notification::send_notification(const libvurohelper::notifications::request& request) {
    try {
        log->write(liblog::debug, "### Begin send_notification ###");
        log->write(liblog::debug, request.to_json());
        const client_settings key = create_client_settings(request, *log);
        auto client = get_opcua_client(key);
        client->add_logger(log, static_cast<liblog::severity>(static_cast<std::int32_t>(request.get_log_level())));
        {
            client_log_scope scope{client, log};
            const settings::opcua_notification record(request, request.get_target(), request.get_message());
            auto node = make_node(record);
            client->write_node_value(node);
        }
        log->write(liblog::debug, "### End   send_notification ###");
    } catch (const std::exception& e) {
        log->write(liblog::error, std::string("Exception in send_notification: ") + e.what());
        throw;
    }
}

std::shared_ptr<client_interface> opcua_notification::get_opcua_client(const client_settings& key) {
    try {
        return get_cached_client(services, key, [this](const std::string& line) { log->write(liblog::debug, line); });
    } catch (const std::exception& e) {
        log->write(liblog::error, std::string("Exception in get_opcua_client: ") + e.what());
        throw;
    }
}

std::shared_ptr<writeable_variable_node_interface> opcua_notification::make_node(
    const settings::opcua_notification& record) {
    const std::string target = record.target;
    std::shared_ptr<writeable_variable_node_interface> node =
        services->create<writeable_variable_node_interface>(target);
    const std::string& message = record.message;
    switch (record.type) {
        case settings::type::boolean:
            // Exactly "True"; any other text is false, never an error.
            node->set_value(message == "True");
            break;
        case settings::type::string:
            node->set_value(message);
            break;
        case settings::type::integer64:
            try {
                node->set_value(static_cast<std::int64_t>(parse_number<long long>(
                    message, "stoll", [](const char* t, char** e) { return std::strtoll(t, e, 10); })));
            } catch (const std::exception& e) {
                log->write(liblog::error, "could not parse value:\"" + message + "\" to int64: " + e.what());
                throw;
            }
            break;
        case settings::type::floatingpoint:
            try {
                node->set_value(parse_number<double>(message, "stod",
                                                     [](const char* t, char** e) { return std::strtod(t, e); }));
            } catch (const std::exception& e) {
                log->write(liblog::error, "could not parse value:\"" + message + "\" to double: " + e.what());
                throw;
            }
            break;
    }
    return node;
}

const std::vector<unsigned char>& opcua_notification::get_response() {
    const auto bytes = libvurohelper::notifications::response(log->entries()).serialize();
    response.assign(bytes.begin(), bytes.end());
    return response;
}

}  // namespace brenholt::monitoring_modules::opcua
