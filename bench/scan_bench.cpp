// What one scan of each sensor costs the probe, end to end: ExecuteSensorScan on the
// module loaded through dlopen, the read requests over loopback to an in-process
// opcua-sim, and the result through the callback. The connection is opened once by
// the first scan, outside the timed loop, as a probe's long-lived sensor would have it.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "opcua_sim/address_spaces.h"
#include "opcua_sim/beckhoff.h"
#include "opcua_sim/server.h"
#include "probe_host.h"
#include "sensor_data_builder.h"

namespace {

using overrides = std::vector<std::pair<std::string, std::string>>;

// One module and two servers for the whole run: starting them costs seconds (the
// module's unsecured client makes a 4096-bit key per connection).
struct rig {
    opcua_sim::server plant{[] {
        opcua_sim::options o;
        o.address_spaces.push_back(opcua_sim::custom_address_space());
        return o;
    }()};
    opcua_sim::server ipc{[] {
        opcua_sim::options o;
        o.address_spaces.push_back(opcua_sim::beckhoff_address_space());
        return o;
    }()};
    miniprobe::probe_host host{OPCUA_MODULE_PATH};
    nlohmann::ordered_json definition;
    int next_id = 1;

    rig() {
        // Logs would measure the disk, not the scan.
        unsetenv("VURO_LOG_DIR");
        plant.start();
        ipc.start();
        if (host.initialize() != 0) throw std::runtime_error("InitializeModule failed");
        int result = 0;
        const auto bytes = host.get_module_information_sync(false, result);
        definition = nlohmann::ordered_json::parse(
            miniprobe::decode_message(bytes.data(), bytes.size()).body.at("definition").get<std::string>());
    }
    ~rig() { host.cleanup(); }

    // Creates the sensor and scans it once, so the timed scans find the session open.
    int sensor(const std::string& name, const overrides& settings) {
        miniprobe::build_request request;
        request.name = name;
        request.overrides = settings;
        const int id = next_id++;
        if (host.create_sensor(id, miniprobe::build_sensor_data(definition, request)) != 0 || host.scan(id) != 0)
            throw std::runtime_error("cannot create and scan " + name);
        host.take_messages();
        return id;
    }
};

rig& the_rig() {
    static rig r;
    return r;
}

void scan(benchmark::State& state, int id) {
    auto& host = the_rig().host;
    for (auto _ : state) {
        if (host.scan(id) != 0) state.SkipWithError("scan failed");
        const auto messages = host.take_messages();
        if (messages.empty() || messages.back().type != "SENSOR_SCAN_RESULT" ||
            messages.back().body.value("response_code", 0) == 3)
            state.SkipWithError("scan gave no good result");
    }
}

void server_status_scan(benchmark::State& state) {
    // Diagnostics are on in opcua-sim, so each scan is one request of twelve nodes.
    static const int id = the_rig().sensor(
        "server_status_sensor", {{"credentials.connection_opcua.port", std::to_string(the_rig().plant.port())}});
    scan(state, id);
}
BENCHMARK(server_status_scan)->Unit(benchmark::kMicrosecond);

void custom_sensor_ten_channels_scan(benchmark::State& state) {
    static const int id = [] {
        overrides settings = {{"credentials.connection_opcua.port", std::to_string(the_rig().plant.port())},
                              {"custom.sensor_message_custom.nodeid", "ns=2;s=SensorMessage"}};
        const char* nodes[] = {"ns=2;s=Double",     "ns=2;s=Int32",       "ns=2;s=Boolean",
                               "ns=2;s=StringNumber", "'ns=2;s=Int32Array'[2]", "ns=2;s=Changeable",
                               "ns=2;s=Double",     "ns=2;s=Int32",       "ns=2;s=Boolean",
                               "ns=2;s=StringNumber"};
        for (int n = 1; n <= 10; ++n) {
            const std::string key = "custom.connection_custom.channel" + std::to_string(n);
            if (n > 1) settings.push_back({key, "enable"});
            settings.push_back({key + "_nodeid", nodes[n - 1]});
        }
        return the_rig().sensor("custom_sensor", settings);
    }();
    scan(state, id);
}
BENCHMARK(custom_sensor_ten_channels_scan)->Unit(benchmark::kMicrosecond);

void beckhoff_scan(benchmark::State& state) {
    static const int id = the_rig().sensor(
        "beckhoff_ipc_system_status_sensor",
        {{"credentials.connection_opcua.port", std::to_string(the_rig().ipc.port())}});
    scan(state, id);
}
BENCHMARK(beckhoff_scan)->Unit(benchmark::kMicrosecond);

// Discovery on a fresh connection every scan: the certificate sensor's price.
void certificate_scan(benchmark::State& state) {
    static const int id = the_rig().sensor(
        "certificate_sensor", {{"credentials.connection_opcua.port", std::to_string(the_rig().plant.port())}});
    scan(state, id);
}
BENCHMARK(certificate_scan)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
