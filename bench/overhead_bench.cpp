// What the module adds to the OPC UA request it makes. In one process, against one
// in-process opcua-sim, and interleaved round by round so that the shared machine's
// noise falls on all variants alike:
//
//   raw read        one open62541 Read of ten Value attributes on an open session
//   module          ExecuteSensorScan of a ten-channel custom_sensor reading the same
//                   ten variables, through the module loaded with dlopen
//   module + log    the same on a second copy of the module whose runtime log is
//                   written (VURO_LOG_DIR set when its log came into being)
//
// Each figure is the median over the rounds of the process CPU time per operation
// (the server's thread included, which does the same work for every variant). Then
// GetModuleInformationSync (size query, then the fetch) and a fleet of equal sensors
// sharing one client: scans per second on one thread and resident memory per sensor.
//
//   overhead_bench [--rounds N] [--ops M] [--info-ops K] [--fleet N] [--fleet-passes P]
//                  [--module PATH] [--only TEXT]
//
// --only keeps the scan variants whose name holds TEXT ("raw", "no log", "log written"),
// for a profiler; the ratios then refer to the first one kept.
#include <dlfcn.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include <open62541/client.h>
#include <open62541/client_config_default.h>
#include <open62541/plugin/log_stdout.h>

#include "libvurohelper/logging.h"
#include "opcua_sim/address_spaces.h"
#include "opcua_sim/server.h"
#include "probe_host.h"
#include "sensor_data_builder.h"
#include "vuro.pb.h"

namespace {

namespace fs = std::filesystem;
namespace vh = brenholt::monitoring_modules::libvurohelper;

// The ten variables of the sensor, in the probe's NodeID syntax; the array element
// reads the whole array, as the raw Read does.
const char* const channel_node_ids[] = {"ns=2;s=Double", "ns=2;s=Int32",  "ns=2;s=Boolean", "ns=2;s=StringNumber",
                                        "'ns=2;s=Int32Array'[2]", "ns=2;s=Float", "ns=2;s=Int64",
                                        "ns=2;s=UInt16", "ns=2;s=Byte", "ns=2;s=StringInteger"};
const char* const raw_node_ids[] = {"ns=2;s=Double", "ns=2;s=Int32",  "ns=2;s=Boolean", "ns=2;s=StringNumber",
                                    "ns=2;s=Int32Array", "ns=2;s=Float", "ns=2;s=Int64",
                                    "ns=2;s=UInt16", "ns=2;s=Byte", "ns=2;s=StringInteger"};
constexpr int channel_count = 10;

double cpu_seconds() {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

double wall_seconds() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

// Bytes the allocator has handed out and not had back: unlike the resident size, not
// hidden by memory that earlier frees left in the heap.
long heap_in_use() { return static_cast<long>(mallinfo2().uordblks); }

long resident_bytes() {
    std::ifstream statm("/proc/self/statm");
    long size = 0, resident = 0;
    statm >> size >> resident;
    return resident * sysconf(_SC_PAGESIZE);
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    const std::size_t n = values.size();
    return n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// The module through its exported functions, with a callback that only counts: a
// probe's own handling of the messages is not the module's cost.
class module_host {
public:
    explicit module_host(const std::string& path) {
        library_ = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (library_ == nullptr) throw std::runtime_error(std::string("cannot load module: ") + dlerror());
        resolve("InitializeModule", initialize_);
        resolve("CleanupModule", cleanup_);
        resolve("GetModuleInformationSync", info_sync_);
        resolve("CreateSensorInstance", create_);
        resolve("ExecuteSensorScan", scan_);
        resolve("DestroySensorInstance", destroy_);
        if (initialize_(reinterpret_cast<unsigned long>(this), &module_host::callback) != 0)
            throw std::runtime_error("InitializeModule failed");
    }
    ~module_host() {
        cleanup_();
        dlclose(library_);
    }
    module_host(const module_host&) = delete;
    module_host& operator=(const module_host&) = delete;

    // The two calls of the size protocol.
    unsigned int info_size(bool texts) {
        unsigned int size = 0;
        if (info_sync_(nullptr, &size, texts) != 0) throw std::runtime_error("size query failed");
        return size;
    }
    void info_fetch(bool texts, std::vector<std::uint8_t>& buffer) {
        unsigned int size = static_cast<unsigned int>(buffer.size());
        if (info_sync_(buffer.data(), &size, texts) != 0) throw std::runtime_error("fetch failed");
    }
    std::vector<std::uint8_t> info(bool texts) {
        std::vector<std::uint8_t> buffer(info_size(texts));
        info_fetch(texts, buffer);
        return buffer;
    }

    int create(int id, const brenholt::vuro::wire::SensorData& data) {
        const std::string bytes = miniprobe::encode_sensor_data(data);
        return create_(id, bytes.data(), static_cast<unsigned int>(bytes.size()));
    }
    int scan(int id) { return scan_(id); }
    int destroy(int id) { return destroy_(id); }

    // The last message sent, kept only while `keep_last` is set.
    bool keep_last = false;
    std::vector<std::uint8_t> last;
    unsigned long messages = 0;

private:
    template <typename F>
    void resolve(const char* name, F& target) {
        void* symbol = dlsym(library_, name);
        if (symbol == nullptr) throw std::runtime_error(std::string("module does not export ") + name);
        target = reinterpret_cast<F>(symbol);
    }
    static void callback(unsigned long handle, void* data, unsigned int size) {
        auto* self = reinterpret_cast<module_host*>(handle);
        ++self->messages;
        if (self->keep_last) self->last.assign(static_cast<std::uint8_t*>(data), static_cast<std::uint8_t*>(data) + size);
    }

    void* library_ = nullptr;
    int (*initialize_)(unsigned long, void (*)(unsigned long, void*, unsigned int)) = nullptr;
    int (*cleanup_)() = nullptr;
    int (*info_sync_)(void*, unsigned int*, bool) = nullptr;
    int (*create_)(int, const void*, unsigned int) = nullptr;
    int (*scan_)(int) = nullptr;
    int (*destroy_)(int) = nullptr;
};

brenholt::vuro::wire::SensorData custom_sensor_data(const nlohmann::ordered_json& definition, int port) {
    miniprobe::build_request request;
    request.name = "custom_sensor";
    request.overrides.push_back({"credentials.connection_opcua.port", std::to_string(port)});
    for (int n = 1; n <= channel_count; ++n) {
        const std::string key = "custom.connection_custom.channel" + std::to_string(n);
        if (n > 1) request.overrides.push_back({key, "enable"});
        request.overrides.push_back({key + "_nodeid", channel_node_ids[n - 1]});
    }
    return miniprobe::build_sensor_data(definition, request);
}

// Scans once and insists on a good result with all ten channels.
void check_scan(module_host& host, int id) {
    host.keep_last = true;
    const int code = host.scan(id);
    host.keep_last = false;
    if (code != 0) throw std::runtime_error("ExecuteSensorScan returned " + std::to_string(code));
    const auto message = miniprobe::decode_message(host.last.data(), host.last.size());
    if (message.type != "SENSOR_SCAN_RESULT" || message.body.value("response_code", 0) != 0 ||
        message.body.value("channels", nlohmann::ordered_json::array()).size() != channel_count)
        throw std::runtime_error("scan gave no good result: " + message.body.dump());
}

// A session of open62541 of its own, reading the ten Values as the module does.
class raw_reader {
public:
    explicit raw_reader(const std::string& url) {
        UA_ClientConfig config;
        std::memset(&config, 0, sizeof config);
        config.logging = UA_Log_Stdout_new(UA_LOGLEVEL_ERROR);
        UA_ClientConfig_setDefault(&config);
        client_ = UA_Client_newWithConfig(&config);
        if (client_ == nullptr || UA_Client_connect(client_, url.c_str()) != UA_STATUSCODE_GOOD)
            throw std::runtime_error("raw client cannot connect");
        for (int i = 0; i < channel_count; ++i) {
            UA_ReadValueId_init(&ids_[i]);
            if (UA_NodeId_parse(&ids_[i].nodeId, UA_STRING(const_cast<char*>(raw_node_ids[i]))) != UA_STATUSCODE_GOOD)
                throw std::runtime_error("bad node id");
            ids_[i].attributeId = UA_ATTRIBUTEID_VALUE;
        }
    }
    ~raw_reader() {
        for (auto& id : ids_) UA_ReadValueId_clear(&id);
        UA_Client_delete(client_);
    }
    raw_reader(const raw_reader&) = delete;
    raw_reader& operator=(const raw_reader&) = delete;

    void read() {
        UA_ReadRequest request;
        UA_ReadRequest_init(&request);
        request.timestampsToReturn = UA_TIMESTAMPSTORETURN_SOURCE;
        request.nodesToRead = ids_;
        request.nodesToReadSize = channel_count;
        UA_ReadResponse response = UA_Client_Service_read(client_, request);
        const bool good = response.responseHeader.serviceResult == UA_STATUSCODE_GOOD &&
                          response.resultsSize == channel_count;
        UA_ReadResponse_clear(&response);
        if (!good) throw std::runtime_error("raw read failed");
    }

private:
    UA_Client* client_ = nullptr;
    UA_ReadValueId ids_[channel_count];
};

struct variant {
    std::string name;
    std::function<void()> op;
    std::vector<double> per_op;  // seconds of CPU per operation, one entry per round
};

// Each round runs every variant for `ops` operations, in an order that rotates from
// round to round.
void run_interleaved(std::vector<variant>& variants, int rounds, int ops) {
    for (int round = 0; round < rounds; ++round) {
        for (std::size_t k = 0; k < variants.size(); ++k) {
            variant& v = variants[(k + static_cast<std::size_t>(round)) % variants.size()];
            const double start = cpu_seconds();
            for (int i = 0; i < ops; ++i) v.op();
            v.per_op.push_back((cpu_seconds() - start) / ops);
        }
    }
}

struct options {
    int rounds = 15;
    int ops = 1000;
    int info_ops = 20;
    int fleet = 1000;
    int fleet_passes = 10;
    std::string module;
    std::string only;
};

options parse(int argc, char** argv) {
    options o;
    o.module = miniprobe::default_module_path();
    for (int i = 1; i < argc; ++i) {
        const std::string flag = argv[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= argc) throw std::invalid_argument(flag + " needs a value");
            return argv[++i];
        };
        if (flag == "--rounds") o.rounds = std::stoi(next());
        else if (flag == "--ops") o.ops = std::stoi(next());
        else if (flag == "--info-ops") o.info_ops = std::stoi(next());
        else if (flag == "--fleet") o.fleet = std::stoi(next());
        else if (flag == "--fleet-passes") o.fleet_passes = std::stoi(next());
        else if (flag == "--module") o.module = next();
        else if (flag == "--only") o.only = next();
        else throw std::invalid_argument("unknown option " + flag +
                                         " (--rounds N --ops M --info-ops K --fleet N --fleet-passes P --module PATH --only TEXT)");
    }
    if (o.rounds < 1 || o.ops < 1 || o.info_ops < 1 || o.fleet < 0 || o.fleet_passes < 1)
        throw std::invalid_argument("counts must be positive");
    return o;
}

void print_medians(const std::vector<variant>& variants, const char* unit, double scale) {
    const double base = median(variants.front().per_op);
    for (const auto& v : variants) {
        const double m = median(v.per_op);
        std::printf("  %-34s %10.2f %s   %6.2fx\n", v.name.c_str(), m * scale, unit, m / base);
    }
}

int run(const options& o) {
    // Quiet: the runtime log of the first module copy stays unwritten.
    unsetenv("VURO_LOG_DIR");
    opcua_sim::options sim;
    sim.address_spaces.push_back(opcua_sim::custom_address_space());
    opcua_sim::server plant(sim);
    plant.start();

    module_host quiet(o.module);
    const auto info_bytes = quiet.info(false);
    const auto info = miniprobe::decode_message(info_bytes.data(), info_bytes.size());
    const auto definition =
        nlohmann::ordered_json::parse(info.body.at("definition").get<std::string>());
    const auto data = custom_sensor_data(definition, plant.port());
    if (quiet.create(1, data) != 0) throw std::runtime_error("CreateSensorInstance failed");
    check_scan(quiet, 1);

    // A second copy of the module, whose runtime log comes into being with the log
    // directory set. A copy under another name is a library of its own for dlopen.
    const fs::path scratch = fs::temp_directory_path() / ("opcua-bench-" + std::to_string(getpid()));
    fs::create_directories(scratch / "logs");
    fs::copy_file(o.module, scratch / "libOPCUA-logged.so", fs::copy_options::overwrite_existing);
    setenv("VURO_LOG_DIR", (scratch / "logs").c_str(), 1);
    auto logged = std::make_unique<module_host>((scratch / "libOPCUA-logged.so").string());
    if (logged->create(1, data) != 0) throw std::runtime_error("CreateSensorInstance failed (logged)");
    check_scan(*logged, 1);
    unsetenv("VURO_LOG_DIR");
    vh::logging::flush_file_logs();
    if (!fs::exists(scratch / "logs" / "runtime.log")) throw std::runtime_error("the logged copy writes no runtime log");

    raw_reader raw(plant.endpoint_url());
    raw.read();

    std::printf("Scan of ten Values on an open session, CPU time of the process per operation\n");
    std::printf("(median of %d rounds x %d operations, interleaved; ratio to the raw Read):\n", o.rounds, o.ops);
    std::vector<variant> scans{
        {"raw open62541 Read", [&] { raw.read(); }, {}},
        {"module scan, no log directory", [&] { quiet.scan(1); }, {}},
        {"module scan, runtime log written", [&] { logged->scan(1); }, {}},
    };
    if (!o.only.empty()) {
        // One variant alone, for a profiler.
        scans.erase(std::remove_if(scans.begin(), scans.end(),
                                   [&](const variant& v) { return v.name.find(o.only) == std::string::npos; }),
                    scans.end());
        if (scans.empty()) throw std::invalid_argument("--only matches no variant");
    }
    run_interleaved(scans, o.rounds, o.ops);
    print_medians(scans, "us", 1e6);
    check_scan(quiet, 1);
    check_scan(*logged, 1);
    if (std::any_of(scans.begin(), scans.end(), [](const variant& v) { return v.name.find("log written") != std::string::npos; })) {
        vh::logging::flush_file_logs();
        const auto log_bytes = fs::file_size(scratch / "logs" / "runtime.log");
        std::printf("  runtime log written: %.1f MB, %.0f bytes per logged scan\n", static_cast<double>(log_bytes) / 1e6,
                    static_cast<double>(log_bytes) / (static_cast<double>(o.rounds) * o.ops + 2));
    }
    logged.reset();
    fs::remove_all(scratch);

    std::printf("\nGetModuleInformationSync, CPU time per call (median of %d rounds x %d calls):\n", o.rounds,
                o.info_ops);
    for (const bool texts : {false, true}) {
        std::vector<std::uint8_t> buffer(quiet.info_size(texts));
        std::vector<variant> calls{
            {std::string("size query, texts ") + (texts ? "yes" : "no"), [&] { quiet.info_size(texts); }, {}},
            {std::string("fetch after it, texts ") + (texts ? "yes" : "no"), [&] { quiet.info_fetch(texts, buffer); }, {}},
        };
        run_interleaved(calls, o.rounds, o.info_ops);
        for (const auto& v : calls) std::printf("  %-34s %10.1f us\n", v.name.c_str(), median(v.per_op) * 1e6);
        std::printf("  %-34s %10zu bytes\n", "message", buffer.size());
    }

    if (o.fleet > 0) {
        std::printf("\n%d custom sensors with equal settings (one shared client), %d passes on one thread:\n", o.fleet,
                    o.fleet_passes);
        const long before = resident_bytes(), heap_before = heap_in_use();
        for (int id = 2; id < 2 + o.fleet; ++id)
            if (quiet.create(id, data) != 0) throw std::runtime_error("CreateSensorInstance failed in the fleet");
        const long after = resident_bytes(), heap_after = heap_in_use();
        std::vector<double> wall, cpu;
        for (int pass = 0; pass < o.fleet_passes; ++pass) {
            const double w = wall_seconds(), c = cpu_seconds();
            for (int id = 2; id < 2 + o.fleet; ++id)
                if (quiet.scan(id) != 0) throw std::runtime_error("fleet scan failed");
            wall.push_back((wall_seconds() - w) / o.fleet);
            cpu.push_back((cpu_seconds() - c) / o.fleet);
        }
        check_scan(quiet, 2 + o.fleet / 2);
        std::printf("  scans per second (wall, median pass) %10.0f\n", 1.0 / median(wall));
        std::printf("  CPU per scan (median pass)           %10.1f us\n", median(cpu) * 1e6);
        std::printf("  resident memory per sensor           %10.1f KiB\n",
                    static_cast<double>(after - before) / o.fleet / 1024.0);
        std::printf("  heap in use per sensor               %10.1f KiB\n",
                    static_cast<double>(heap_after - heap_before) / o.fleet / 1024.0);
        for (int id = 2; id < 2 + o.fleet; ++id) quiet.destroy(id);
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(parse(argc, argv));
    } catch (const std::exception& e) {
        std::fprintf(stderr, "overhead_bench: %s\n", e.what());
        return 1;
    }
}
