#include "demo.h"

#include <cstdint>
#include <functional>
#include <iomanip>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "opcua_sim/address_spaces.h"
#include "opcua_sim/beckhoff.h"
#include "opcua_sim/diagnostics.h"
#include "opcua_sim/server.h"
#include "sensor_data_builder.h"

namespace miniprobe {

namespace {

using nlohmann::ordered_json;
using setting = std::pair<std::string, std::string>;

struct check_step {
    std::string title;
    std::string check;
    std::vector<setting> overrides;
    bool expected;
};

// One scan of a sensor: what the simulator's operator changes before it, and what the
// scan must answer for the step to count as expected.
struct scan_step {
    std::string title;
    std::function<void()> before;
    int response_code;
    std::size_t values;
};

struct sensor_run {
    std::string title;
    std::string sensor;
    std::vector<setting> overrides;
    std::vector<scan_step> scans;
};

// A channel as the probe's interface would show it.
struct channel_view {
    std::string name;
    std::string unit;
    std::string lookup;
};

// The English text of a key from the definition's text table, "%%" shown as "%".
std::string english(const ordered_json& definition, const std::string& key) {
    const auto* table = &definition;
    for (const char* step : {"Text", "English", "Translation"}) {
        if (!table->contains(step)) return key;
        table = &table->at(step);
    }
    if (!table->contains(key)) return key;
    std::string text = table->at(key).value("Display", key);
    for (auto at = text.find("%%"); at != std::string::npos; at = text.find("%%", at + 1)) text.erase(at, 1);
    return text;
}

// The custom sensor names its channels itself; the fixed sensors send a text key.
void note_channel(const ordered_json& definition, const ordered_json& body, std::map<int, channel_view>& channels) {
    const std::string display = body.value("display_name", "");
    channels[body.value("id", 0)] = {display.empty() ? english(definition, body.value("name", "")) : display,
                                     body.value("custom_unit", ""), body.value("lookup", "")};
}

std::string shown_value(const ordered_json& definition, const ordered_json& value, const channel_view& channel) {
    const std::string text =
        value.contains("floating") ? value.at("floating").dump() : value.value("integer", std::string("?"));
    if (!channel.lookup.empty()) return text + " (" + english(definition, "lookup." + channel.lookup + "." + text) + ")";
    return channel.unit.empty() ? text : text + " " + channel.unit;
}

// Creates the sensor, runs its scans and prints each result; returns the number of
// steps that did not end as expected.
int run_sensor(probe_host& host, const ordered_json& definition, const sensor_run& run, int sensor_id,
               std::ostream& out) {
    out << "\n" << run.title << ":\n";
    build_request request;
    request.name = run.sensor;
    request.overrides = run.overrides;
    std::map<int, channel_view> channels;
    const int created = host.create_sensor(sensor_id, build_sensor_data(definition, request));
    for (const auto& m : host.take_messages()) {
        if (m.type == "DYNAMIC_CHANNEL") note_channel(definition, m.body, channels);
        if (m.type == "SENSOR_SCAN_RESULT")
            out << "  creation failed: " << m.body.at("message").value("text", "") << "\n";
    }
    if (created != 0) {
        out << "  CreateSensorInstance returned " << created << "   <-- unexpected\n";
        return 1;
    }
    out << "  " << channels.size() << " channels defined at creation\n";
    int unexpected = 0;
    for (const auto& step : run.scans) {
        if (step.before) step.before();
        const int code = host.scan(sensor_id);
        std::size_t defined = 0;
        bool answered = false;
        for (const auto& m : host.take_messages()) {
            if (m.type == "DYNAMIC_CHANNEL") {
                note_channel(definition, m.body, channels);
                ++defined;
            }
            if (m.type != "SENSOR_SCAN_RESULT") continue;
            answered = true;
            const int response = m.body.value("response_code", 0);
            const auto& values = m.body.at("channels");
            const bool as_expected = code == 0 && response == step.response_code && values.size() == step.values;
            unexpected += !as_expected;
            out << "  " << step.title << ": response code " << response << ", message \""
                << m.body.at("message").value("text", "") << "\"" << (as_expected ? "" : "   <-- unexpected") << "\n";
            if (defined > 0) out << "    (" << defined << " channels defined by this scan)\n";
            for (const auto& v : values) {
                const auto& channel = channels[v.value("channel_id", 0)];
                out << "    " << std::left << std::setw(34) << channel.name << " "
                    << shown_value(definition, v, channel) << "\n";
            }
        }
        if (!answered) {
            out << "  " << step.title << ": no result, ExecuteSensorScan returned " << code << "   <-- unexpected\n";
            ++unexpected;
        }
    }
    host.destroy(sensor_id);
    host.take_messages();
    return unexpected;
}

// A custom sensor over several variables of the simulator, scanned a few times while
// the spindle turns faster.
sensor_run custom_sensor_run(opcua_sim::server& server) {
    struct demo_channel {
        const char* node;
        const char* unit;
        const char* name;  // empty: the node's own display name
    };
    const std::vector<demo_channel> channels = {
        {"ns=2;s=Double", "bar", "Line pressure"},
        {"ns=2;s=Int32", "", ""},
        {"ns=2;s=Boolean", "", "Pump running"},
        {"'ns=2;s=Int32Array'[2]", "pcs", "Batch count (array element 2)"},
        {"ns=2;s=StringNumber", "kg", "Load (parsed from text)"},
        {"ns=2;s=Changeable", "rpm", "Spindle speed"},
    };
    sensor_run run{"Custom sensor with " + std::to_string(channels.size()) + " channels", "custom_sensor",
                   {{"credentials.connection_opcua.port", std::to_string(server.port())},
                    {"custom.sensor_message_custom.nodeid", "ns=2;s=SensorMessage"}},
                   {}};
    for (std::size_t i = 0; i < channels.size(); ++i) {
        const std::string key = "custom.connection_custom.channel" + std::to_string(i + 1);
        if (i > 0) run.overrides.push_back({key, "enable"});
        run.overrides.push_back({key + "_nodeid", channels[i].node});
        run.overrides.push_back({key + "_unit", channels[i].unit});
        if (*channels[i].name) {
            run.overrides.push_back({key + "_settings", "manual"});
            run.overrides.push_back({key + "_name", channels[i].name});
        }
    }
    for (int scan = 1; scan <= 3; ++scan) {
        auto speed_up = [&server, scan] {
            UA_Variant speed;
            UA_Int32 rpm = 1000 + 250 * scan;
            UA_Variant_setScalar(&speed, &rpm, &UA_TYPES[UA_TYPES_INT32]);
            server.set_value("ns=2;s=Changeable", speed);
        };
        run.scans.push_back({"scan " + std::to_string(scan), speed_up, 0, channels.size()});
    }
    return run;
}

// The server's operator switches its diagnostics off, on, and off again: two channels,
// then all ten, then two with the warning that the counters were taken back.
sensor_run server_status_run(opcua_sim::server& server) {
    auto diagnostics = [&server](bool on) { return [&server, on] { opcua_sim::diagnostics_set_enabled(server, on); }; };
    return {"OPC UA Server Status",
            "server_status_sensor",
            {{"credentials.connection_opcua.port", std::to_string(server.port())}},
            {{"diagnostics off", diagnostics(false), 0, 2},
             {"diagnostics switched on", diagnostics(true), 0, 10},
             {"diagnostics taken back", diagnostics(false), 1, 2}}};
}

sensor_run certificate_run(const opcua_sim::server& server, const std::string& title) {
    return {title,
            "certificate_sensor",
            {{"credentials.connection_opcua.port", std::to_string(server.port())}},
            {{"scan", nullptr, 0, 3}}};
}

// A Beckhoff IPC whose RAID controller goes offline between two scans.
sensor_run beckhoff_run(opcua_sim::server& ipc, opcua_sim::beckhoff_status& status) {
    auto raid = [&ipc, &status](std::uint16_t state, std::uint16_t reason) {
        return [&ipc, &status, state, reason] {
            status.raid_state = state;
            status.raid_offline_reason = reason;
            opcua_sim::set_beckhoff_status(ipc, status);
        };
    };
    return {"Beckhoff IPC System Health against a second opcua-sim (" + ipc.endpoint_url() + ")",
            "beckhoff_ipc_system_status_sensor",
            {{"credentials.connection_opcua.port", std::to_string(ipc.port())}},
            {{"RAID controller good", raid(1, 0), 0, 6}, {"RAID controller offline, bus degraded", raid(3, 2), 0, 6}}};
}

int run_checks(probe_host& host, const ordered_json& definition, const std::string& port, std::ostream& out) {
    const setting at_port{"credentials.connection_opcua.port", port};
    const std::vector<setting> as_operator = {at_port,
                                              {"credentials.user_authentication.user_auth_mode", "username_password"},
                                              {"credentials.user_authentication.user", "operator"}};
    auto with_password = [&as_operator](const std::string& password) {
        std::vector<setting> overrides = as_operator;
        overrides.push_back({"credentials.user_authentication.password", password});
        return overrides;
    };
    const std::vector<check_step> steps = {
        {"endpoint check, anonymous, no security", "endpoint_validation_check", {at_port}, true},
        {"connection check, anonymous, no security", "connection_check", {at_port}, true},
        {"connection check, user name and password", "connection_check", with_password("demo-password"), true},
        {"connection check, wrong password", "connection_check", with_password("guess"), false},
        {"endpoint check, wrong password (no session is opened)", "endpoint_validation_check",
         with_password("guess"), true},
        {"connection check, nothing listening", "connection_check", {{"credentials.connection_opcua.port", "1"}},
         false},
    };
    out << "Checks:\n";
    int unexpected = 0;
    int id = 1;
    for (const auto& step : steps) {
        build_request request;
        request.name = step.check;
        request.is_check = true;
        request.overrides = step.overrides;
        const int code = host.check(id++, build_sensor_data(definition, request));
        bool success = false;
        for (const auto& m : host.take_messages())
            if (m.type == "CHECK_RESULT") success = m.body.value("success", false);
        const bool as_expected = code == 0 && success == step.expected;
        unexpected += !as_expected;
        out << "  " << std::left << std::setw(58) << step.title << (success ? "passed" : "failed")
            << (as_expected ? "" : "   <-- unexpected") << "\n";
    }
    return unexpected;
}

}  // namespace

int run_demo(probe_host& host, std::ostream& out) {
    opcua_sim::options options;
    options.users = {{"operator", "demo-password"}};
    options.certificate.generate.key_bits = 2048;
    options.certificate.generate.valid_days = 365;
    options.address_spaces.push_back(opcua_sim::custom_address_space());
    opcua_sim::server server(options);
    server.start();
    out << "opcua-sim listens on " << server.endpoint_url() << "\n\n";

    // The IPC's certificate runs out soon: the certificate sensor's limits warn below 28 days.
    opcua_sim::options ipc_options;
    ipc_options.certificate.generate.key_bits = 2048;
    ipc_options.certificate.generate.valid_days = 20;
    ipc_options.certificate.generate.common_name = "Beckhoff IPC (simulated)";
    opcua_sim::beckhoff_status status;
    opcua_sim::set_beckhoff_memory(status, 8ull << 30, 3ull << 30);
    ipc_options.address_spaces.push_back(opcua_sim::beckhoff_address_space(status));
    opcua_sim::server ipc(ipc_options);
    ipc.start();

    if (host.initialize() != 0) {
        out << "InitializeModule failed\n";
        return 1;
    }
    int result = 0;
    const auto bytes = host.get_module_information_sync(true, result);
    if (result != 0) {
        out << "GetModuleInformationSync failed with " << result << "\n";
        host.cleanup();
        return 1;
    }
    const auto definition =
        ordered_json::parse(decode_message(bytes.data(), bytes.size()).body.at("definition").get<std::string>());
    const auto& meta = definition.at("MetaData");
    out << "Module " << meta.value("Display", "") << " " << meta.value("Version", "") << "\n\n";

    int unexpected = run_checks(host, definition, std::to_string(server.port()), out);
    const std::vector<sensor_run> runs = {
        custom_sensor_run(server),
        server_status_run(server),
        certificate_run(server, "OPC UA Certificate of opcua-sim"),
        beckhoff_run(ipc, status),
        certificate_run(ipc, "OPC UA Certificate of the IPC (20 days left)"),
    };
    int sensor_id = 100;
    for (const auto& run : runs) unexpected += run_sensor(host, definition, run, sensor_id++, out);
    host.cleanup();
    ipc.stop();
    server.stop();
    out << "\n" << (unexpected == 0 ? "Every step ended as expected." : "Some steps did not end as expected.") << "\n";
    return unexpected;
}

}  // namespace miniprobe
