#include "sensors/server_status_sensor.h"

#include <array>
#include <utility>
#include <vector>

#include "client/client_settings.h"
#include "libi18n/catalogue.h"
#include "sensors/client_access.h"

namespace brenholt::monitoring_modules::opcua {

namespace cat = libi18n::catalogue;
using libvurohelper::channels::dynamic_channel_options;
using libvurohelper::responses::scan_response_codes;
using libvurohelper::responses::sensor_scan_result;

namespace {

// Namespace 0 of every server: Server.ServerStatus and Server.ServerDiagnostics.
constexpr const char* start_time = "ns=0;i=2257";
constexpr const char* current_time = "ns=0;i=2258";
constexpr const char* server_state = "ns=0;i=2259";
constexpr const char* enabled_flag = "ns=0;i=2294";

// Below ServerDiagnostics.ServerDiagnosticsSummary.
constexpr const char* current_session_count = "ns=0;i=2277";
constexpr const char* security_rejected_session_count = "ns=0;i=2279";
constexpr const char* session_timeout_count = "ns=0;i=2281";
constexpr const char* session_abort_count = "ns=0;i=2282";
constexpr const char* current_subscription_count = "ns=0;i=2285";
constexpr const char* security_rejected_requests_count = "ns=0;i=2287";
constexpr const char* rejected_requests_count = "ns=0;i=2288";
constexpr const char* rejected_session_count = "ns=0;i=3705";

// Channel 2 stands for the whole group of eight: they are defined together.
constexpr int diagnostics_marker_channel = 2;

const std::array<const char*, 4>& status_node_ids() {
    static const std::array<const char*, 4> ids{start_time, current_time, server_state, enabled_flag};
    return ids;
}

const std::array<const char*, 8>& diagnostic_node_ids() {
    static const std::array<const char*, 8> ids{current_session_count,      security_rejected_session_count,
                                                session_timeout_count,      session_abort_count,
                                                current_subscription_count, security_rejected_requests_count,
                                                rejected_requests_count,    rejected_session_count};
    return ids;
}

// Channel ids 2 to 9 in ascending order, each with the counter it shows. The ids
// do not follow the order of the NodeIDs.
const std::array<std::pair<int, const char*>, 8>& diagnostic_channel_sources() {
    static const std::array<std::pair<int, const char*>, 8> sources{{
        {2, current_session_count},
        {3, rejected_session_count},
        {4, session_timeout_count},
        {5, session_abort_count},
        {6, security_rejected_session_count},
        {7, rejected_requests_count},
        {8, security_rejected_requests_count},
        {9, current_subscription_count},
    }};
    return sources;
}

// The catalogue entry of each channel, indexed by id: its key is the channel's name,
// which the probe shows in the user's language from the definition's texts.
const libi18n::i18n_template& channel_entry(int id) {
    static const std::array<const libi18n::i18n_template*, 10> entries{
        &cat::channel_state,
        &cat::channel_uptime,
        &cat::channel_session_count,
        &cat::channel_rejected_session_count,
        &cat::channel_session_timeout_count,
        &cat::channel_session_abort_count,
        &cat::channel_security_rejected_session_count,
        &cat::channel_rejected_requests_count,
        &cat::channel_security_rejected_requests_count,
        &cat::channel_subscription_count,
    };
    return *entries.at(static_cast<std::size_t>(id));
}

dynamic_channel_options channel_options(int id, int value_mode, int unit) {
    const libi18n::i18n_template& entry = channel_entry(id);
    dynamic_channel_options options;
    options.id = id;
    options.name = entry.key;
    options.value_mode = value_mode;
    options.unit = unit;
    options.scale_factor = 1.0;
    return options;
}

constexpr int unit_none = 0;
constexpr int unit_seconds = 7;
constexpr int unit_count = 10;

dynamic_channel_options lookup_channel(int id, const std::string& lookup) {
    dynamic_channel_options options = channel_options(id, libvurohelper::channels::value_mode_integer, unit_none);
    options.lookup = lookup;
    return options;
}

dynamic_channel_options duration_channel(int id) {
    return channel_options(id, libvurohelper::channels::value_mode_integer, unit_seconds);
}

// Absolute values that may go down again.
dynamic_channel_options current_count_channel(int id) {
    return channel_options(id, libvurohelper::channels::value_mode_integer, unit_count);
}

// Counters that only grow over the server's life.
dynamic_channel_options cumulative_count_channel(int id) {
    return channel_options(id, libvurohelper::channels::value_mode_counter, unit_count);
}

}  // namespace

server_status_sensor::server_status_sensor(
    libvurohelper::sensors::sensor_parameters<settings::server_status_sensor> params)
    : sensor_base(std::move(params)) {
    create_or_report([this] {
        const client_settings key = create_client_settings(settings);
        get_opcua_client(key);
        client->add_logger(log_ptr(), liblog::debug);
        define_status_channels();
        create_nodes();
    });
}

server_status_sensor::~server_status_sensor() {
    // Any exception here ends the process, as for every destructor.
    if (client) client->remove_logger(log_ptr());
}

void server_status_sensor::get_opcua_client(const client_settings& key) {
    client = get_cached_client(services, key, [this](const std::string& line) { log_debug(line); });
}

void server_status_sensor::define_status_channels() {
    define_channel(lookup_channel(0, "server_state"));
    define_channel(duration_channel(1));
}

// No read here: the sensor can be created while the server is down.
void server_status_sensor::create_nodes() {
    for (const char* id : status_node_ids())
        status_nodes[id] = services->create<readable_variable_node_interface>(std::string(id));
    for (const char* id : diagnostic_node_ids())
        diagnostic_nodes[id] = services->create<readable_variable_node_interface>(std::string(id));
}

void server_status_sensor::define_diagnostic_channels() {
    // Registered definitions return at once, so this costs nothing after the first time.
    define_channel(current_count_channel(2));
    define_channel(current_count_channel(9));
    define_channel(cumulative_count_channel(4));
    define_channel(cumulative_count_channel(5));
    define_channel(cumulative_count_channel(3));
    define_channel(cumulative_count_channel(6));
    define_channel(cumulative_count_channel(7));
    define_channel(cumulative_count_channel(8));
}

// The channel map, not the sensor, remembers whether the diagnostics were ever
// there: the probe hands the known channels to every new sensor object.
bool server_status_sensor::diagnostics_defined() const {
    if (!channels) throw libvurohelper::utils::exceptions::channel_map_not_initialized();
    const int id = diagnostics_marker_channel;
    return channels->is_known_to_runtime(id) || channels->is_definition_registered(id);
}

// One request where one will do: the counters join the status nodes once they are
// known to exist; before that they are asked for only when the flag says so.
void server_status_sensor::read_status_nodes() {
    std::vector<std::shared_ptr<generic_node_interface>> request;
    request.reserve(status_nodes.size() + diagnostic_nodes.size());
    for (const auto& [id, node] : status_nodes) request.push_back(node);

    if (diagnostics_defined()) {
        for (const auto& [id, node] : diagnostic_nodes) request.push_back(node);
        client->read_node(request);
        return;
    }

    client->read_node(request);
    if (!status_nodes.at(enabled_flag)->bool_value()) return;
    std::vector<std::shared_ptr<generic_node_interface>> diagnostics;
    diagnostics.reserve(diagnostic_nodes.size());
    for (const auto& [id, node] : diagnostic_nodes) diagnostics.push_back(node);
    client->read_node(diagnostics);
}

void server_status_sensor::set_diagnostic_values(sensor_scan_result& result) const {
    for (const auto& [channel, id] : diagnostic_channel_sources())
        result.set_value(channel, static_cast<long>(diagnostic_nodes.at(id)->int64_value()));
}

void server_status_sensor::work() {
    sensor_scan_result result = generate_result(libvurohelper::sensors::ok_message(), scan_response_codes::ok);
    if (has_own_log()) log_debug("Begin reading nodes.");
    read_status_nodes();

    // The lookup on the probe's side judges the state; any number goes out as read.
    result.set_value(0, static_cast<long>(status_nodes.at(server_state)->int64_value()));
    const std::int64_t current = status_nodes.at(current_time)->int64_value();
    const std::int64_t start = status_nodes.at(start_time)->int64_value();
    result.set_value(1, static_cast<long>(current - start));

    if (status_nodes.at(enabled_flag)->bool_value()) {
        define_diagnostic_channels();
        set_diagnostic_values(result);
    } else if (diagnostics_defined()) {
        log("DiagnosticSummary got disabled after it was enabled.", liblog::error);
        result.set_response_message(libi18n::make_msg(cat::error_opcua_server_diagnostics_disabled_afterwards));
        result.set_response_code(scan_response_codes::warning);
    }

    if (has_own_log()) log_debug("Response Message is: " + result.response_message().key);
    send_result(result);
}

}  // namespace brenholt::monitoring_modules::opcua
