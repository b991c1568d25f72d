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
#include "opcua_sim/certificate.h"
#include "failure_lines.h"
#include "presentation.h"
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
// scan must answer for the step to count as expected, down to the worst state of its
// values by their channels' limits and lookups.
struct scan_step {
    std::string title;
    std::function<void()> before;
    int response_code;
    std::size_t values;
    channel_state worst = channel_state::ok;
};

struct sensor_run {
    std::string title;
    std::string expected;  // one line for the reader: what this section should show
    std::string sensor;
    std::vector<setting> overrides;
    std::vector<scan_step> scans;
};

void note_channel(const ordered_json& definition, const ordered_json& body, std::map<int, channel_view>& channels) {
    channels[body.value("id", 0)] = view_channel(definition, body);
}

// Creates the sensor, runs its scans and prints each result; returns the number of
// steps that did not end as expected.
int run_sensor(probe_host& host, const ordered_json& definition, const sensor_run& run, int sensor_id,
               std::ostream& out) {
    out << "\n" << run.title << ":\n  Expected: " << run.expected << "\n";
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
            auto worst = channel_state::none;
            const std::string lines = value_lines(definition, channels, values, "    ", false, &worst);
            const bool as_expected =
                code == 0 && response == step.response_code && values.size() == step.values && worst == step.worst;
            unexpected += !as_expected;
            out << "  " << step.title << ": response code " << response << " (" << response_code_text(response)
                << "), message \"" << m.body.at("message").value("text", "") << "\""
                << (as_expected ? "" : "   <-- unexpected") << "\n";
            if (defined > 0) out << "    (" << defined << " channels defined by this scan)\n";
            out << lines;
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
        const char* scale;
    };
    const std::vector<demo_channel> channels = {
        {"ns=2;s=Double", "mbar", "Line pressure (read in bar)", "1000"},
        {"ns=2;s=Int32", "", "", "1"},
        {"ns=2;s=Boolean", "", "Pump running", "1"},
        {"'ns=2;s=Int32Array'[2]", "pcs", "Batch count (array element 2)", "1"},
        {"ns=2;s=StringNumber", "kg", "Load (parsed from text)", "1"},
        {"ns=2;s=Changeable", "rpm", "Spindle speed", "1"},
    };
    sensor_run run{"Custom sensor with " + std::to_string(channels.size()) + " channels",
                   "response code 0 at every scan, the message read from ns=2;s=SensorMessage, values with "
                   "the units set for them, the line pressure in mbar by its scale factor of 1000, the pump's "
                   "lookup True (ok), the spindle 250 rpm faster at each scan",
                   "custom_sensor",
                   {{"credentials.connection_opcua.port", std::to_string(server.port())},
                    {"custom.sensor_message_custom.nodeid", "ns=2;s=SensorMessage"}},
                   {}};
    for (std::size_t i = 0; i < channels.size(); ++i) {
        const std::string key = "custom.connection_custom.channel" + std::to_string(i + 1);
        if (i > 0) run.overrides.push_back({key, "enable"});
        run.overrides.push_back({key + "_nodeid", channels[i].node});
        run.overrides.push_back({key + "_unit", channels[i].unit});
        run.overrides.push_back({key + "_scale_factor", channels[i].scale});
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
            "2 channels while the server's diagnostics are off, 10 once they are on; when they are "
            "taken back, response code 1, which is a warning, not a failure",
            "server_status_sensor",
            {{"credentials.connection_opcua.port", std::to_string(server.port())}},
            {{"diagnostics off", diagnostics(false), 0, 2},
             {"diagnostics switched on", diagnostics(true), 0, 10},
             {"diagnostics taken back", diagnostics(false), 1, 2}}};
}

sensor_run certificate_run(const opcua_sim::server& server, const std::string& title, const std::string& expected,
                           channel_state worst = channel_state::ok) {
    return {title,
            expected,
            "certificate_sensor",
            {{"credentials.connection_opcua.port", std::to_string(server.port())}},
            {{"scan", nullptr, 0, 3, worst}}};
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
            "response code 0 at both scans; once the RAID controller is offline its reason is the "
            "sensor's message: an error text with response code 0 is the sensor's message, not a failure, "
            "and the RAID channel's lookup (Offline) carries the alarm as a warning",
            "beckhoff_ipc_system_status_sensor",
            {{"credentials.connection_opcua.port", std::to_string(ipc.port())}},
            {{"RAID controller good", raid(1, 0), 0, 6},
             {"RAID controller offline, bus degraded", raid(3, 2), 0, 6, channel_state::warning}}};
}

int run_checks(probe_host& host, const ordered_json& definition, const std::string& title,
               const std::string& expected, const std::vector<check_step>& steps, int& id, std::ostream& out,
               failure_lines& logged) {
    out << title << ":\n  Expected: " << expected << "\n";
    std::size_t width = 0;
    for (const auto& step : steps) width = std::max(width, step.title.size());
    int unexpected = 0;
    for (const auto& step : steps) {
        build_request request;
        request.name = step.check;
        request.is_check = true;
        request.overrides = step.overrides;
        logged.take();
        const int code = host.check(id++, build_sensor_data(definition, request));
        bool success = false;
        for (const auto& m : host.take_messages())
            if (m.type == "CHECK_RESULT") success = m.body.value("success", false);
        const bool as_expected = code == 0 && success == step.expected;
        unexpected += !as_expected;
        out << "  " << std::left << std::setw(static_cast<int>(width) + 2) << step.title
            << (success ? "passed" : "failed") << (as_expected ? "" : "   <-- unexpected") << "\n";
        // A failed check shows the module's reason, as a probe does.
        if (!success)
            for (const auto& why : reasons(logged.take(), "")) out << "    " << why << "\n";
    }
    return unexpected;
}

std::vector<check_step> plant_checks(const std::string& port) {
    const setting at_port{"credentials.connection_opcua.port", port};
    const std::vector<setting> as_operator = {at_port,
                                              {"credentials.user_authentication.user_auth_mode", "username_password"},
                                              {"credentials.user_authentication.user", "operator"}};
    auto with_password = [&as_operator](const std::string& password) {
        std::vector<setting> overrides = as_operator;
        overrides.push_back({"credentials.user_authentication.password", password});
        return overrides;
    };
    return {
        {"endpoint check, anonymous, no security", "endpoint_validation_check", {at_port}, true},
        {"connection check, anonymous, no security", "connection_check", {at_port}, true},
        {"connection check, user name and password", "connection_check", with_password("demo-password"), true},
        {"connection check, wrong password", "connection_check", with_password("guess"), false},
        {"endpoint check, wrong password (no session is opened)", "endpoint_validation_check",
         with_password("guess"), true},
        {"connection check, nothing listening", "connection_check", {{"credentials.connection_opcua.port", "1"}},
         false},
    };
}

// Against a server that trusts no client certificate: a signed channel is refused,
// while mode none needs no trust.
std::vector<check_step> strict_checks(const std::string& port) {
    opcua_sim::certificate_request client;
    client.common_name = "miniprobe demo client";
    client.application_uri = "urn:miniprobe:demo";
    const auto material = opcua_sim::make_self_signed_certificate(client);
    const setting at_port{"credentials.connection_opcua.port", port};
    return {
        {"connection check, Sign with an untrusted client certificate",
         "connection_check",
         {at_port,
          {"credentials.connection_security.security_mode", "sign"},
          {"credentials.connection_security.security_policy", "Basic256Sha256"},
          {"credentials.connection_security.client_certificate",
           opcua_sim::certificate_der_to_pem(material.certificate_der)},
          {"credentials.connection_security.client_key", opcua_sim::private_key_der_to_pem(material.private_key_der)}},
         false},
        {"endpoint check, anonymous, no security", "endpoint_validation_check", {at_port}, true},
    };
}

}  // namespace

int run_demo(probe_host& host, std::ostream& out, const std::string& log_dir) {
    // Every line reaches the reader as it is written, also through a pipe: a section's
    // heading shows what is running while its servers and sensors work.
    struct unit_buffered {
        std::ostream& out;
        std::ios::fmtflags before = out.flags();
        ~unit_buffered() { out.flags(before); }
    } restore{out};
    out << std::unitbuf;
    out << "Starting three opcua-sim servers on free loopback ports (a plant server, a Beckhoff IPC, "
           "a server that trusts no client certificate)\n";
    // The simulators' own log would land between the demo's lines: into files, or off.
    auto log_file = [&log_dir](const std::string& name) {
        return log_dir.empty() ? std::string("/dev/null") : log_dir + "/opcua-sim-" + name + ".log";
    };
    opcua_sim::options options;
    options.users = {{"operator", "demo-password"}};
    options.certificate.generate.key_bits = 2048;
    options.certificate.generate.valid_days = 365;
    options.address_spaces.push_back(opcua_sim::custom_address_space());
    options.log_file = log_file("plant");
    opcua_sim::server server(options);
    server.start();

    // The IPC's certificate runs out soon: the certificate sensor's limits warn below 28 days.
    opcua_sim::options ipc_options;
    ipc_options.certificate.generate.key_bits = 2048;
    ipc_options.certificate.generate.valid_days = 20;
    ipc_options.certificate.generate.common_name = "Beckhoff IPC (simulated)";
    opcua_sim::beckhoff_status status;
    opcua_sim::set_beckhoff_memory(status, 8ull << 30, 3ull << 30);
    ipc_options.address_spaces.push_back(opcua_sim::beckhoff_address_space(status));
    ipc_options.log_file = log_file("ipc");
    opcua_sim::server ipc(ipc_options);
    ipc.start();

    // As most plant servers are set up: no client certificate is trusted until an
    // operator accepts it.
    opcua_sim::options strict_options;
    strict_options.strict = true;
    strict_options.certificate.generate.key_bits = 2048;
    strict_options.certificate.generate.common_name = "Plant server (trusts no client)";
    strict_options.log_file = log_file("strict");
    opcua_sim::server strict(strict_options);
    strict.start();

    out << "opcua-sim listens on " << server.endpoint_url() << " (plant server), " << ipc.endpoint_url()
        << " (Beckhoff IPC) and " << strict.endpoint_url() << " (trusts no client certificate)\n";
    out << "Their own logs: "
        << (log_dir.empty() ? "off (miniprobe --log-dir DIR demo keeps them in DIR)" : "in " + log_dir + "/opcua-sim-*.log")
        << "\n\n";

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

    failure_lines logged;
    int check_id = 1;
    int unexpected = run_checks(host, definition, "Checks",
                                "passed with no security and with the right password; the wrong password and the "
                                "closed port are expected to fail; the endpoint check opens no session, so a "
                                "wrong password does not fail it",
                                plant_checks(std::to_string(server.port())), check_id, out, logged);
    const std::vector<sensor_run> runs = {
        custom_sensor_run(server),
        server_status_run(server),
        certificate_run(server, "OPC UA Certificate of opcua-sim",
                        "response code 0, the message names the certificate; 365 days to expiration"),
        beckhoff_run(ipc, status),
        certificate_run(ipc, "OPC UA Certificate of the IPC (20 days left)",
                        "response code 0; 20 days lie below the channel's warning limit of 28, so the channel, "
                        "not the sensor's result, shows the warning",
                        channel_state::warning),
    };
    int sensor_id = 100;
    for (const auto& run : runs) unexpected += run_sensor(host, definition, run, sensor_id++, out);

    out << "\n";
    unexpected += run_checks(host, definition,
                             "Checks against a third opcua-sim that trusts no client certificate (" +
                                 strict.endpoint_url() + ")",
                             "a signed channel is refused; with no security the endpoint check passes, since "
                             "endpoints are asked for over an unsecured channel",
                             strict_checks(std::to_string(strict.port())), check_id, out, logged);
    unexpected += run_sensor(host, definition,
                             certificate_run(strict, "OPC UA Certificate of the server that trusts no client",
                                             "response code 0 with no security: the certificate comes from the "
                                             "endpoints, which need no trust"),
                             sensor_id++, out);
    host.cleanup();
    strict.stop();
    ipc.stop();
    server.stop();
    out << "\n" << (unexpected == 0 ? "Every step ended as expected." : "Some steps did not end as expected.") << "\n";
    return unexpected;
}

}  // namespace miniprobe
