#include "demo.h"

#include <iomanip>
#include <map>
#include <ostream>
#include <string>
#include <vector>

#include "opcua_sim/address_spaces.h"
#include "opcua_sim/beckhoff.h"
#include "opcua_sim/server.h"
#include "sensor_data_builder.h"

namespace miniprobe {

namespace {

struct check_step {
    std::string title;
    std::string check;
    std::vector<std::pair<std::string, std::string>> overrides;
    bool expected;
};

struct demo_channel {
    const char* node;
    const char* unit;
    const char* name;  // empty: the node's own display name
};

// A custom sensor over several variables of the simulator, scanned a few times.
int run_custom_sensor(probe_host& host, opcua_sim::server& server, const nlohmann::ordered_json& definition,
                      std::ostream& out) {
    const std::string port = std::to_string(server.port());
    const std::vector<demo_channel> channels = {
        {"ns=2;s=Double", "bar", "Line pressure"},
        {"ns=2;s=Int32", "", ""},
        {"ns=2;s=Boolean", "", "Pump running"},
        {"'ns=2;s=Int32Array'[2]", "pcs", "Batch count (array element 2)"},
        {"ns=2;s=StringNumber", "kg", "Load (parsed from text)"},
        {"ns=2;s=Changeable", "rpm", "Spindle speed"},
    };
    build_request request;
    request.name = "custom_sensor";
    request.overrides = {{"credentials.connection_opcua.port", port},
                         {"custom.sensor_message_custom.nodeid", "ns=2;s=SensorMessage"}};
    for (std::size_t i = 0; i < channels.size(); ++i) {
        const std::string key = "custom.connection_custom.channel" + std::to_string(i + 1);
        if (i > 0) request.overrides.push_back({key, "enable"});
        request.overrides.push_back({key + "_nodeid", channels[i].node});
        request.overrides.push_back({key + "_unit", channels[i].unit});
        if (*channels[i].name) {
            request.overrides.push_back({key + "_settings", "manual"});
            request.overrides.push_back({key + "_name", channels[i].name});
        }
    }
    out << "\nCustom sensor with " << channels.size() << " channels:\n";
    const int sensor_id = 100;
    int unexpected = 0;
    const int created = host.create_sensor(sensor_id, build_sensor_data(definition, request));
    std::map<int, std::pair<std::string, std::string>> names;  // id: display name, unit
    for (const auto& m : host.take_messages()) {
        if (m.type == "DYNAMIC_CHANNEL")
            names[m.body.value("id", 0)] = {m.body.value("display_name", ""), m.body.value("custom_unit", "")};
        if (m.type == "SENSOR_SCAN_RESULT")
            out << "  creation failed: " << m.body.at("message").value("text", "") << "\n";
    }
    if (created != 0) {
        out << "  CreateSensorInstance returned " << created << "   <-- unexpected\n";
        return 1;
    }
    for (const auto& [id, name] : names)
        out << "  channel #" << id << ": " << name.first << (name.second.empty() ? "" : " [" + name.second + "]")
            << "\n";
    for (int scan = 1; scan <= 3; ++scan) {
        // The simulator's operator turns the spindle faster between scans.
        UA_Variant speed;
        UA_Int32 rpm = 1000 + 250 * scan;
        UA_Variant_setScalar(&speed, &rpm, &UA_TYPES[UA_TYPES_INT32]);
        server.set_value("ns=2;s=Changeable", speed);
        const int code = host.scan(sensor_id);
        out << "  scan " << scan << ":";
        for (const auto& m : host.take_messages()) {
            if (m.type != "SENSOR_SCAN_RESULT") continue;
            out << " message \"" << m.body.at("message").value("text", "") << "\"\n";
            if (m.body.value("response_code", 0) != 0) ++unexpected;
            for (const auto& c : m.body.at("channels")) {
                const int id = c.value("channel_id", 0);
                out << "    " << std::left << std::setw(34) << names[id].first << " "
                    << (c.contains("floating") ? c.at("floating").dump() : c.value("integer", std::string("?")))
                    << (names[id].second.empty() ? "" : " " + names[id].second) << "\n";
            }
        }
        if (code != 0) {
            out << "  ExecuteSensorScan returned " << code << "   <-- unexpected\n";
            ++unexpected;
        }
    }
    host.destroy(sensor_id);
    return unexpected;
}

// The English text of a channel key, as the probe's interface would show it.
std::string english(const nlohmann::ordered_json& definition, const std::string& key) {
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

// A Beckhoff IPC whose RAID controller has gone offline: one scan healthy, one with
// the warning state, as the operator would see it.
int run_beckhoff_sensor(probe_host& host, const nlohmann::ordered_json& definition, std::ostream& out) {
    opcua_sim::options options;
    options.certificate.generate.key_bits = 2048;
    opcua_sim::beckhoff_status status;
    opcua_sim::set_beckhoff_memory(status, 8ull << 30, 3ull << 30);
    options.address_spaces.push_back(opcua_sim::beckhoff_address_space(status));
    opcua_sim::server ipc(options);
    ipc.start();
    out << "\nBeckhoff IPC System Health against a second opcua-sim (" << ipc.endpoint_url() << "):\n";

    build_request request;
    request.name = "beckhoff_ipc_system_status_sensor";
    request.overrides = {{"credentials.connection_opcua.port", std::to_string(ipc.port())}};
    const int sensor_id = 200;
    int unexpected = 0;
    if (host.create_sensor(sensor_id, build_sensor_data(definition, request)) != 0) {
        out << "  CreateSensorInstance failed   <-- unexpected\n";
        return 1;
    }
    std::map<int, std::string> names;
    for (const auto& m : host.take_messages())
        if (m.type == "DYNAMIC_CHANNEL") names[m.body.value("id", 0)] = english(definition, m.body.value("name", ""));
    const struct {
        const char* title;
        std::uint16_t raid_state;
        std::uint16_t reason;
    } scans[] = {{"RAID controller good", 1, 0}, {"RAID controller offline, bus degraded", 3, 2}};
    for (const auto& scan : scans) {
        status.raid_state = scan.raid_state;
        status.raid_offline_reason = scan.reason;
        opcua_sim::set_beckhoff_status(ipc, status);
        unexpected += host.scan(sensor_id) != 0;
        for (const auto& m : host.take_messages()) {
            if (m.type != "SENSOR_SCAN_RESULT") continue;
            out << "  " << scan.title << ": response code " << m.body.value("response_code", 0) << ", message \""
                << m.body.at("message").value("text", "") << "\"\n";
            if (m.body.value("response_code", 0) == 3) ++unexpected;
            for (const auto& c : m.body.at("channels")) {
                const int id = c.value("channel_id", 0);
                out << "    " << std::left << std::setw(34) << names[id] << " "
                    << (c.contains("floating") ? c.at("floating").dump() : c.value("integer", std::string("?")))
                    << "\n";
            }
        }
    }
    host.destroy(sensor_id);
    ipc.stop();
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
    const std::string port = std::to_string(server.port());
    out << "opcua-sim listens on " << server.endpoint_url() << "\n\n";

    if (host.initialize() != 0) {
        out << "InitializeModule failed\n";
        return 1;
    }
    int unexpected = 0;
    int result = 0;
    const auto bytes = host.get_module_information_sync(true, result);
    if (result != 0) {
        out << "GetModuleInformationSync failed with " << result << "\n";
        host.cleanup();
        return 1;
    }
    const auto definition =
        nlohmann::ordered_json::parse(decode_message(bytes.data(), bytes.size()).body.at("definition").get<std::string>());
    const auto& meta = definition.at("MetaData");
    out << "Module " << meta.value("Display", "") << " " << meta.value("Version", "") << "\n\n";

    const std::pair<std::string, std::string> at_port{"credentials.connection_opcua.port", port};
    const std::vector<check_step> steps = {
        {"endpoint check, anonymous, no security", "endpoint_validation_check", {at_port}, true},
        {"connection check, anonymous, no security", "connection_check", {at_port}, true},
        {"connection check, user name and password",
         "connection_check",
         {at_port,
          {"credentials.user_authentication.user_auth_mode", "username_password"},
          {"credentials.user_authentication.user", "operator"},
          {"credentials.user_authentication.password", "demo-password"}},
         true},
        {"connection check, wrong password",
         "connection_check",
         {at_port,
          {"credentials.user_authentication.user_auth_mode", "username_password"},
          {"credentials.user_authentication.user", "operator"},
          {"credentials.user_authentication.password", "guess"}},
         false},
        {"endpoint check, wrong password (no session is opened)",
         "endpoint_validation_check",
         {at_port,
          {"credentials.user_authentication.user_auth_mode", "username_password"},
          {"credentials.user_authentication.user", "operator"},
          {"credentials.user_authentication.password", "guess"}},
         true},
        {"connection check, nothing listening", "connection_check", {{"credentials.connection_opcua.port", "1"}},
         false},
    };

    out << "Checks:\n";
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
    unexpected += run_custom_sensor(host, server, definition, out);
    unexpected += run_beckhoff_sensor(host, definition, out);
    host.cleanup();
    server.stop();
    out << "\n" << (unexpected == 0 ? "Every step ended as expected." : "Some steps did not end as expected.") << "\n";
    return unexpected;
}

}  // namespace miniprobe
