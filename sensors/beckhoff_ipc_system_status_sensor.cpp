#include "sensors/beckhoff_ipc_system_status_sensor.h"

#include <array>
#include <cmath>
#include <limits>
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>

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

// Indexes into the node list. The NodeIDs are the device's own, "nn" included.
enum node_index : std::size_t {
    cpu_load = 0,
    cpu_temperature = 1,
    mainboard_temperature = 2,
    memory_size_narrow = 3,
    memory_available_narrow = 4,
    memory_size_wide = 5,
    memory_available_wide = 6,
    raid_state = 7,
    raid_offline_reason = 8,
    node_count = 9,
};

const std::array<std::string, node_count>& node_ids() {
    static const std::array<std::string, node_count> ids{
        "ns=2;s=Modules|CPU|CPU0|0x8nn1|0x02",
        "ns=2;s=Modules|CPU|CPU0|0x8nn1|0x03",
        "ns=2;s=Modules|MAINBOARD|MAINBOARD|0x8nn1|0x0a",
        "ns=2;s=Modules|Memory|Memory|0x8nn1|0x01",
        "ns=2;s=Modules|Memory|Memory|0x8nn1|0x02",
        "ns=2;s=Modules|Memory|Memory|0x8nn1|0x06",
        "ns=2;s=Modules|Memory|Memory|0x8nn1|0x07",
        "ns=2;s=Modules|RAID Controller|Scsi0:|0x8nn1|0x01",
        "ns=2;s=Modules|RAID Controller|Scsi0:|0x8nn1|0x02",
    };
    return ids;
}

enum channel_id : int {
    percent_cpu = 0,
    temperature_cpu = 1,
    temperature_mainboard = 2,
    available_memory = 3,
    percent_available_memory = 4,
    status_raid_controller = 5,
    channel_count = 6,
};

const std::array<const char*, channel_count> channel_names{
    "percent_cpu",      "temperature_cpu",          "temperature_mainboard",
    "available_memory", "percent_available_memory", "status_raid_controller",
};

// Units as the framework numbers them.
constexpr int unit_percent = 11;
constexpr int unit_temperature = 4;
constexpr int unit_bytes_memory = 2;
constexpr int unit_percent_memory = 5;
constexpr int unit_lookup = 0;
constexpr int size_unit_memory = 8;

// The narrow memory variables are 32-bit and stick at this value once memory
// outgrows them; the wide pair then holds the real figures.
constexpr std::int64_t narrow_saturated = 0x7fffffff;

constexpr std::int64_t raid_state_good = 1;
constexpr std::int64_t raid_state_offline = 3;
constexpr std::int64_t raid_state_power_off = 4;

// Only the offline state comes with a reason; the device numbers them from 0.
const std::array<libi18n::i18n_msg, 4>& offline_reasons() {
    static const std::array<libi18n::i18n_msg, 4> reasons{
        libi18n::make_msg(cat::error_raid_controller_offline_reason_unknown),
        libi18n::make_msg(cat::error_raid_controller_offline_reason_initializing),
        libi18n::make_msg(cat::error_raid_controller_offline_reason_bus_degraded),
        libi18n::make_msg(cat::error_raid_controller_offline_reason_bus_failure),
    };
    return reasons;
}

dynamic_channel_options channel(int id, int unit) {
    dynamic_channel_options options;
    options.id = id;
    options.name = std::string("channel.") + channel_names.at(static_cast<std::size_t>(id));
    options.value_mode = libvurohelper::channels::value_mode_integer;
    options.unit = unit;
    options.scale_factor = 1.0;
    return options;
}

// Available memory in percent of the size, rounded half away from zero. A size of 0
// gives infinity or NaN, and a tiny size against a huge amount more than a long holds;
// neither is a reading, so the scan fails with the numbers the device sent.
long percent_of(long available, long size) {
    const double percent = std::round(static_cast<double>(available) * 100.0 / static_cast<double>(size));
    // 2^63 is exact as a double; every double below it and at or above -2^63 fits a long.
    constexpr double limit = 9223372036854775808.0;
    // A size of 0 gives infinity or NaN. The value is then what an x86 conversion
    // gives for it, the "integer indefinite" LONG_MIN, made here without undefined
    // behaviour; the other channels of the scan stand as read.
    if (!(percent >= -limit && percent < limit)) return std::numeric_limits<long>::min();
    return static_cast<long>(percent);
}

}  // namespace

beckhoff_ipc_system_status_sensor::beckhoff_ipc_system_status_sensor(
    libvurohelper::sensors::sensor_parameters<settings::beckhoff_ipc_system_status_sensor> params)
    : sensor_base(std::move(params)) {
    create_or_report([this] {
        const client_settings key = create_client_settings(settings);
        get_opcua_client(key);
        client->add_logger(log_ptr(), liblog::debug);
        define_channels();
        create_nodes();
    });
}

beckhoff_ipc_system_status_sensor::~beckhoff_ipc_system_status_sensor() {
    // Any exception here ends the process, as for every destructor.
    if (client) client->remove_logger(log_ptr());
}

void beckhoff_ipc_system_status_sensor::get_opcua_client(const client_settings& key) {
    client = get_cached_client(services, key, [this](const std::string& line) { log_debug(line); });
}

// The channels are fixed, so unlike the custom sensor nothing is read to define them.
void beckhoff_ipc_system_status_sensor::define_channels() {
    define_channel(channel(percent_cpu, unit_percent));
    define_channel(channel(temperature_cpu, unit_temperature));
    define_channel(channel(temperature_mainboard, unit_temperature));
    dynamic_channel_options memory = channel(available_memory, unit_bytes_memory);
    memory.size_unit = size_unit_memory;
    define_channel(memory);
    define_channel(channel(percent_available_memory, unit_percent_memory));
    dynamic_channel_options raid = channel(status_raid_controller, unit_lookup);
    raid.lookup = "raid_controller_state";
    define_channel(raid);
}

void beckhoff_ipc_system_status_sensor::create_nodes() {
    for (const std::string& id : node_ids()) {
        log_debug("Creating node with id: " + id);
        nodes.push_back(services->create<readable_variable_node_interface>(id));
    }
}

void beckhoff_ipc_system_status_sensor::fetch_nodes() {
    log_debug("Fetching " + std::to_string(nodes.size()) + " nodes.");
    // All nine go in one request every scan, the ones this scan will not look at too.
    std::vector<std::shared_ptr<generic_node_interface>> request;
    // Asking for a name not yet read throws: only worth it for a log that keeps the line.
    const bool trace = has_own_log();
    for (const auto& node : nodes) {
        request.push_back(node);
        if (!trace) continue;
        try {
            log_debug("Adding node to request: " + node->browse_name());
        } catch (const exceptions::opcua_failure& e) {
            log(std::string("Node metadata was not yet initialized: ") + e.what(), liblog::info);
        }
    }
    log_debug("Fetching " + std::to_string(request.size()) + " nodes.");
    client->read_node(request);
}

void beckhoff_ipc_system_status_sensor::work() {
    fetch_nodes();
    sensor_scan_result result = generate_result(libvurohelper::sensors::ok_message(), scan_response_codes::ok);
    log_debug("Adding results.");

    auto value = [this](std::size_t index) { return static_cast<long>(nodes.at(index)->int64_value()); };

    result.set_value(percent_cpu, value(cpu_load));
    result.set_value(temperature_cpu, value(cpu_temperature));
    result.set_value(temperature_mainboard, value(mainboard_temperature));

    long size = value(memory_size_narrow);
    long available = 0;
    if (size == narrow_saturated) {
        size = value(memory_size_wide);
        available = value(memory_available_wide);
    } else {
        available = value(memory_available_narrow);
    }
    result.set_value(available_memory, available);
    result.set_value(percent_available_memory, percent_of(available, size));

    const long state = value(raid_state);
    if (state < raid_state_good || state > raid_state_power_off)
        throw libvurohelper::utils::exceptions::invalid_lookup_value(
            std::to_string(state), "good (1), failed (2), offline (3), power_off (4)");
    result.set_value(status_raid_controller, state);

    if (state == raid_state_offline) {
        // The lookup already turns the channel into a warning; the reason is the message.
        // A reason the table does not know fails the scan with the text of the access.
        const auto reason = static_cast<std::size_t>(value(raid_offline_reason));
        result.set_response_message(offline_reasons().at(reason));
    }
    send_result(result);
}

}  // namespace brenholt::monitoring_modules::opcua
