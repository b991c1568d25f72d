#include "sensors/custom_sensor.h"

#include <cerrno>
#include <cstdlib>
#include <stdexcept>

#include "client/client_settings.h"
#include "client/exceptions.h"
#include "libi18n/catalogue.h"
#include "sensors/client_access.h"

namespace brenholt::monitoring_modules::opcua {

namespace cat = libi18n::catalogue;
using libvurohelper::channels::dynamic_channel_options;
using libvurohelper::responses::scan_response_codes;
using libvurohelper::responses::sensor_scan_result;

namespace {

// The standard text-to-double conversion: leading blanks skipped, the first number
// counts, trailing text ignored; nothing consumed is invalid, a range error "stod".
double parse_double(const std::string& text) {
    const int saved = errno;
    errno = 0;
    const char* begin = text.c_str();
    char* end = nullptr;
    const double value = std::strtod(begin, &end);
    if (end == begin) {
        errno = saved;
        throw std::invalid_argument("stod");
    }
    if (errno == ERANGE) throw std::out_of_range("stod");
    errno = saved;
    return value;
}

}  // namespace

custom_sensor::custom_sensor(libvurohelper::sensors::sensor_parameters<settings::custom_sensor> params)
    : sensor_base(std::move(params)) {
    create_or_report([this] {
        const client_settings key = create_client_settings(settings);
        get_opcua_client(key);
        client->add_logger(log_ptr(), liblog::debug);
        create_sensor_message_node();
        create_channel_nodes();
        build_read_request();
        define_channels();
    });
}

custom_sensor::~custom_sensor() {
    // Any exception here ends the process, as for every destructor.
    if (client) client->remove_logger(log_ptr());
}

void custom_sensor::get_opcua_client(const client_settings& key) {
    client = get_cached_client(services, key, [this](const std::string& line) { log_debug(line); });
}

void custom_sensor::create_sensor_message_node() {
    if (settings.sensor_message_nodeid.empty()) return;
    sensor_message_node = services->create<readable_variable_node_interface>(settings.sensor_message_nodeid);
}

void custom_sensor::create_channel_nodes() {
    channel_nodes.reserve(settings::custom_channel_count);
    for (int index = 0; index < settings::custom_channel_count; ++index) {
        const auto& channel = settings.channels[static_cast<std::size_t>(index)];
        if (channel.enabled && *channel.enabled != settings::channel::enable) continue;
        log_debug("Creating node channel " + std::to_string(index + 1) + " for node id: " + channel.nodeid);
        channel_nodes.emplace_back(index, services->create<readable_variable_node_interface>(channel.nodeid));
    }
    channel_nodes.shrink_to_fit();
}

void custom_sensor::define_channels() {
    fetch_nodes();
    for (const auto& [index, node] : channel_nodes) {
        const auto& channel = settings.channels.at(static_cast<std::size_t>(index));
        const data_type kind = node->value_kind();
        if (static_cast<int>(kind) >= 4) throw exceptions::unsupported_data_type();
        const std::string display =
            channel.naming == settings::channel_settings::manual ? channel.name : node->display_name();

        dynamic_channel_options options;
        options.id = index + 1;
        options.name = "channel.channel_" + std::to_string(index + 1);
        options.display_name = display;
        options.value_mode = (kind == data_type::string || kind == data_type::floatingpoint)
                                 ? libvurohelper::channels::value_mode_float
                                 : libvurohelper::channels::value_mode_integer;
        options.unit = channel.unit.empty() ? 0 : 8;
        options.custom_unit = channel.unit;
        options.scale_factor = channel.scale_factor;
        if (kind == data_type::boolean) {
            // A lookup shows the value itself; no unit beside it.
            options.lookup = "positive_boolean_lookup";
            options.unit = 0;
        }
        define_channel(options);
    }
}

// The nodes never change after creation, so neither does the list that reads them.
void custom_sensor::build_read_request() {
    read_request.clear();
    read_request.reserve(channel_nodes.size() + (sensor_message_node ? 1 : 0));
    for (const auto& [index, node] : channel_nodes) read_request.push_back(node);
    if (sensor_message_node) read_request.push_back(sensor_message_node);
}

void custom_sensor::fetch_nodes() {
    const bool trace = has_own_log();
    if (trace) log_debug("Fetching " + std::to_string(channel_nodes.size()) + " nodes.");
    // Before the first read the names are not there and each asking throws; that is
    // worth doing only for a log that keeps what comes of it.
    if (trace) {
        for (const auto& [index, node] : channel_nodes) {
            try {
                log_debug("Adding node to request: " + node->browse_name());
            } catch (const exceptions::opcua_failure& e) {
                log(std::string("Node metadata was not yet initialized: ") + e.what(), liblog::info);
            }
        }
    }
    if (trace) log_debug("Fetching " + std::to_string(read_request.size()) + " nodes.");
    client->read_node(read_request);
}

void custom_sensor::work() {
    fetch_nodes();
    sensor_scan_result result = generate_result(libvurohelper::sensors::ok_message(), scan_response_codes::ok);
    if (has_own_log()) log_debug("Adding results.");
    for (const auto& [index, node] : channel_nodes) set_channel_value(result, index + 1, *node);
    set_sensor_message(result);
    send_result(result);
}

void custom_sensor::set_channel_value(sensor_scan_result& result, int id, const readable_variable_node_interface& node) {
    switch (node.value_kind()) {
        case data_type::boolean:
            result.set_value(id, node.bool_value() ? 1L : 0L);
            break;
        case data_type::string: {
            double value = 0;
            try {
                value = parse_double(node.string_value());
            } catch (const std::invalid_argument&) {
                throw exceptions::conversion_failure();
            }
            result.set_value(id, value);
            break;
        }
        case data_type::integer:
            result.set_value(id, static_cast<long>(node.int64_value()));
            break;
        case data_type::floatingpoint:
            result.set_value(id, node.double_value());
            break;
        default:
            throw exceptions::unsupported_data_type();
    }
}

void custom_sensor::set_sensor_message(sensor_scan_result& result) {
    if (!sensor_message_node) return;
    // An error message must never be replaced by the server's text.
    if (result.response_message().key != libvurohelper::sensors::ok_message().key) return;
    if (has_own_log()) log_debug("Set sensor message from node: " + settings.sensor_message_nodeid);
    const std::string text = sensor_message_node->string_value();
    if (text.empty())
        result.set_response_message(libi18n::make_msg(cat::message_node_empty));
    else
        result.set_response_message(libi18n::i18n_msg(text));
}

}  // namespace brenholt::monitoring_modules::opcua
