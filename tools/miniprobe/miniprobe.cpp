// miniprobe: a probe host for monitoring modules. Loads a module, drives its
// exported functions and prints what comes back.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <map>

#include "demo.h"
#include "presentation.h"
#include "probe_host.h"
#include "sensor_data_builder.h"
#include "vuro.pb.h"

namespace {

const char* const usage_text =
    "usage: miniprobe [options] COMMAND [args]\n"
    "\n"
    "Commands:\n"
    "  info [--texts]      print the module's metadata, sensors and checks\n"
    "  info NAME           every setting the sensor or check NAME reads: its full key\n"
    "                      for --set, type, default, allowed values and English text\n"
    "  check NAME          run one check with the settings below\n"
    "  sensor NAME         create a sensor, scan it, destroy it\n"
    "  watch NAME          the same as sensor NAME --scans 0\n"
    "  demo                start three opcua-sim servers on free loopback ports (a\n"
    "                      plant server, a Beckhoff IPC and a server that trusts no\n"
    "                      client certificate) and run every check and sensor of\n"
    "                      the module against them\n"
    "\n"
    "Settings of check, sensor and watch (each setting starts at its default in the\n"
    "module's definition; secrets travel as secure values):\n"
    "  --host HOST         the device's address (default 127.0.0.1)\n"
    "  --set KEY=VALUE     set a setting by its full key (see info NAME), e.g.\n"
    "                      credentials.connection_opcua.port=4841 (repeatable)\n"
    "  --log               logging \"enabled\" (default \"disabled\")\n"
    "  --timeout S         the probe's timeout setting (default 10)\n"
    "  --channels ID=NAME,...  channels the probe already knows\n"
    "  --id N              sensor or check id (default 1)\n"
    "  --scans N           scans of a sensor (default 1); 0 scans until Ctrl-C or\n"
    "                      SIGTERM, then destroys the sensor and cleans up the module\n"
    "  --interval S        seconds between scans, also the interval setting (default 1)\n"
    "\n"
    "Options:\n"
    "  --module PATH       module to load (default: the build's modules/opcua/libOPCUA.so)\n"
    "  --json              print one JSON object a line: every message the module sends\n"
    "                      (with its time), the return code of every exported call, and\n"
    "                      for info NAME one line per setting\n"
    "  --log-dir DIR       directory for the module's runtime and sensor logs; the demo\n"
    "                      puts the simulators' logs there as well\n"
    "  -h, --help          this text\n"
    "\n"
    "Exit status: 0 when every call succeeded, 1 when a call reported failure or\n"
    "a check answered \"failed\", 2 on a usage error or when the module cannot be loaded.\n";

struct options {
    std::string module_path;
    bool json = false;
    std::string log_dir;
    std::string command;
    std::vector<std::string> args;
};

class printer {
public:
    explicit printer(bool json) : json_(json) {}

    void call(const std::string& function, int result) {
        if (json_) {
            nlohmann::ordered_json line{{"event", "call"}, {"function", function}, {"result", result}};
            std::cout << line.dump() << std::endl;
        }
    }

    void message(const miniprobe::received_message& m) {
        if (json_) {
            nlohmann::ordered_json line{
                {"event", "message"}, {"time", miniprobe::time_stamp()}, {"type", m.type}, {"message", m.body}};
            std::cout << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
            return;
        }
        const auto& b = m.body;
        if (m.type == "DYNAMIC_CHANNEL") {
            const int id = b.value("id", 0);
            const auto view = miniprobe::view_channel(definition_, b);
            channels_[id] = view;
            std::cout << "channel #" << id << " defined: " << view.name;
            if (!view.unit.empty()) std::cout << " [" << view.unit << "]";
            if (!view.lookup.empty()) std::cout << " (lookup " << view.lookup << ")";
            std::cout << std::endl;
        } else if (m.type == "SENSOR_SCAN_RESULT") {
            const int code = b.value("response_code", 0);
            std::cout << miniprobe::time_stamp() << "  sensor " << b.value("sensor_id", 0) << ": response code "
                      << code << " (" << miniprobe::response_code_text(code) << "), error code "
                      << b.value("error_code", 0) << ", message \"" << b.at("message").value("text", "") << "\"\n"
                      << miniprobe::value_lines(definition_, channels_,
                                                b.value("channels", nlohmann::ordered_json::array()), "  ", true)
                      << std::flush;
        } else if (m.type == "CHECK_RESULT") {
            std::cout << "check " << b.value("check_id", 0) << ": " << (b.value("success", false) ? "success" : "failed")
                      << std::endl;
        } else if (m.type != "MODULE_INFORMATION") {
            std::cout << m.type << ": " << b.dump() << std::endl;
        }
    }

    void known_channels(const std::map<int, std::string>& known) {
        for (const auto& [id, name] : known) channels_[id].name = name;
    }
    // Texts for channel names and lookups.
    void use_definition(const nlohmann::ordered_json& definition) { definition_ = definition; }

    bool json() const { return json_; }

private:
    bool json_;
    nlohmann::ordered_json definition_ = nlohmann::ordered_json::object();
    std::map<int, miniprobe::channel_view> channels_;
};

const char* dispatcher_code_text(int code) {
    switch (code) {
        case 0: return "done";
        case 1: return "the sensor data names no sensor or check";
        case 2: return "the call failed with an exception (a setting the module could not parse, or the failure in the result above; the runtime log lacks the End banner)";
        case 3: return "the module is not initialised";
        case 4: return "the module binds nothing under this name";
        case 5: return "no sensor with this id";
        default: return "unknown code";
    }
}

void print_information(const nlohmann::ordered_json& definition, bool texts) {
    const auto& meta = definition.at("MetaData");
    std::cout << meta.value("Display", "") << " (" << meta.value("Vendor", "") << "/" << meta.value("Name", "")
              << ") version " << meta.value("Version", "") << ", revision " << definition.value("Revision", 0) << "\n";
    std::cout << "  " << meta.value("Description", "") << "\n";
    std::cout << "Sensors:\n";
    for (const auto& [name, sensor] : definition.at("Sensors").items())
        std::cout << "  " << name << ": " << sensor.value("Display", "") << " - " << sensor.value("Description", "")
                  << "\n";
    std::cout << "Checks:\n";
    for (const auto& [name, check] : definition.at("Checks").items()) {
        (void)check;
        std::cout << "  " << name << "\n";
    }
    if (texts && definition.contains("Text")) {
        std::cout << "Languages:\n";
        for (const auto& [language, table] : definition.at("Text").items())
            std::cout << "  " << language << ": " << table.at("Translation").size() << " texts\n";
    }
}

int report(printer& out, const char* function, int code) {
    out.call(function, code);
    if (code != 0 && !out.json())
        std::cerr << "miniprobe: " << function << " returned " << code << ": " << dispatcher_code_text(code) << "\n";
    return code;
}

nlohmann::ordered_json read_definition(miniprobe::probe_host& host, printer& out, bool texts) {
    int result = 0;
    const auto bytes = host.get_module_information_sync(texts, result);
    out.call("GetModuleInformationSync", result);
    if (result != 0) throw std::runtime_error("GetModuleInformationSync failed with " + std::to_string(result));
    const auto info = miniprobe::decode_message(bytes.data(), bytes.size());
    return nlohmann::ordered_json::parse(info.body.at("definition").get<std::string>());
}

// The settings of one sensor or check, all from the definition the module sends.
int run_settings_info(miniprobe::probe_host& host, printer& out, const std::string& name) {
    if (report(out, "InitializeModule", host.initialize()) != 0) return 1;
    try {
        const auto definition = read_definition(host, out, false);
        const auto settings = miniprobe::settings_of(definition, name);
        if (out.json()) {
            for (const auto& s : settings) std::cout << miniprobe::settings_json(s).dump() << "\n";
        } else {
            const bool is_sensor = definition.at("Sensors").contains(name);
            const auto& entry = definition.at(is_sensor ? "Sensors" : "Checks").at(name);
            std::cout << (is_sensor ? "Sensor " : "Check ") << name;
            if (entry.contains("Display")) std::cout << ": " << entry.value("Display", "");
            if (entry.contains("Description")) std::cout << " - " << entry.value("Description", "");
            std::cout << "\nSettings (--set KEY=VALUE), beside the probe's own (--host, --interval, --timeout, --log):\n\n";
            miniprobe::print_settings(std::cout, settings);
        }
    } catch (...) {
        host.cleanup();
        throw;
    }
    out.call("CleanupModule", host.cleanup());
    std::cout << std::flush;
    return 0;
}

int run_info(miniprobe::probe_host& host, printer& out, const options& opt) {
    bool texts = false;
    std::string name;
    for (const auto& a : opt.args) {
        if (a == "--texts") texts = true;
        else if (name.empty() && a.rfind("--", 0) != 0) name = a;
        else throw std::invalid_argument("info: unknown argument " + a);
    }
    if (!name.empty()) {
        if (texts) throw std::invalid_argument("info: --texts goes without a name");
        return run_settings_info(host, out, name);
    }
    int failures = 0;
    const int init = host.initialize();
    out.call("InitializeModule", init);
    if (init != 0) return 1;
    host.get_module_information(texts);
    out.call("GetModuleInformation", 0);
    auto messages = host.take_messages();
    for (const auto& m : messages) out.message(m);
    const nlohmann::ordered_json* info = nullptr;
    for (const auto& m : messages)
        if (m.type == "MODULE_INFORMATION") info = &m.body;
    if (info == nullptr) {
        std::cerr << "miniprobe: the module sent no module information\n";
        ++failures;
    } else if (!out.json()) {
        print_information(nlohmann::ordered_json::parse(info->at("definition").get<std::string>()), texts);
    }
    out.call("CleanupModule", host.cleanup());
    return failures == 0 ? 0 : 1;
}

struct run_settings {
    miniprobe::build_request request;
    int id = 1;
    int scans = 1;
    double interval = 1.0;
};

run_settings parse_run_settings(const options& opt, bool is_check) {
    run_settings rs;
    if (opt.args.empty() || opt.args[0].rfind("--", 0) == 0)
        throw std::invalid_argument(opt.command + ": which " + (is_check ? "check" : "sensor") + "?");
    if (opt.command == "watch") rs.scans = 0;
    rs.request.name = opt.args[0];
    rs.request.is_check = is_check;
    rs.request.base.interval = 1;
    for (std::size_t i = 1; i < opt.args.size(); ++i) {
        const std::string& a = opt.args[i];
        auto value = [&]() -> const std::string& {
            if (i + 1 >= opt.args.size()) throw std::invalid_argument(a + " needs a value");
            return opt.args[++i];
        };
        auto number = [&](const std::string& text) {
            std::size_t used = 0;
            double v = 0;
            try {
                v = std::stod(text, &used);
            } catch (const std::exception&) {
                used = 0;
            }
            if (used != text.size() || v < 0) throw std::invalid_argument(a + ": not a number: " + text);
            return v;
        };
        if (a == "--host") rs.request.base.host = value();
        else if (a == "--set") rs.request.overrides.push_back(miniprobe::split_assignment(value()));
        else if (a == "--log") rs.request.base.logging = true;
        else if (a == "--timeout") rs.request.base.timeout = static_cast<long>(number(value()));
        else if (a == "--channels") rs.request.known_channels = miniprobe::parse_channels(value());
        else if (a == "--id") rs.id = static_cast<int>(number(value()));
        else if (a == "--scans") rs.scans = static_cast<int>(number(value()));
        else if (a == "--interval") {
            rs.interval = number(value());
            rs.request.base.interval = std::max(1L, static_cast<long>(rs.interval));
        } else throw std::invalid_argument(opt.command + ": unknown argument " + a);
    }
    return rs;
}


// Waits up to `seconds` for SIGINT or SIGTERM, which the caller blocked; true when one came.
bool stop_requested(const sigset_t& signals, double seconds) {
    timespec wait{};
    wait.tv_sec = static_cast<time_t>(seconds);
    wait.tv_nsec = static_cast<long>((seconds - static_cast<double>(wait.tv_sec)) * 1e9);
    for (;;) {
        const int received = sigtimedwait(&signals, nullptr, &wait);
        if (received > 0) {
            std::cerr << "miniprobe: " << strsignal(received) << ": destroying the sensor and cleaning up\n";
            return true;
        }
        if (errno != EINTR) return false;
    }
}

int run_check_or_sensor(miniprobe::probe_host& host, printer& out, const options& opt, bool is_check) {
    run_settings rs = parse_run_settings(opt, is_check);
    // Ctrl-C and SIGTERM end a sensor run between scans, so that the sensor is destroyed
    // and the module cleaned up. Blocked before the module starts threads of its own.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (!is_check) pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    host.on_message = [&out](const miniprobe::received_message& m) { out.message(m); };
    if (report(out, "InitializeModule", host.initialize()) != 0) return 1;
    int failures = 0;
    try {
        const auto definition = read_definition(host, out, true);
        out.use_definition(definition);
        const auto data = miniprobe::build_sensor_data(definition, rs.request);
        out.known_channels(rs.request.known_channels);
        if (is_check) {
            failures += report(out, "ExecuteCheck", host.check(rs.id, data)) != 0;
            // A check that answers "failed" fails the command too.
            bool passed = false;
            for (const auto& m : host.take_messages())
                if (m.type == "CHECK_RESULT") passed = m.body.value("success", false);
            failures += !passed;
        } else if (report(out, "CreateSensorInstance", host.create_sensor(rs.id, data)) != 0) {
            ++failures;
        } else {
            for (int scan = 0; rs.scans == 0 || scan < rs.scans; ++scan) {
                if (stop_requested(signals, scan == 0 ? 0.0 : rs.interval)) break;
                failures += report(out, "ExecuteSensorScan", host.scan(rs.id)) != 0;
                host.take_messages();
            }
            failures += report(out, "DestroySensorInstance", host.destroy(rs.id)) != 0;
        }
    } catch (...) {
        out.call("CleanupModule", host.cleanup());
        throw;
    }
    out.call("CleanupModule", host.cleanup());
    return failures == 0 ? 0 : 1;
}

options parse(int argc, char** argv) {
    options opt;
    int i = 1;
    for (; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "-h" || a == "--help") {
            std::cout << usage_text;
            std::exit(0);
        } else if (a == "--json") {
            opt.json = true;
        } else if (a == "--module" || a == "--log-dir") {
            if (i + 1 >= argc) throw std::invalid_argument(a + " needs a value");
            (a == "--module" ? opt.module_path : opt.log_dir) = argv[++i];
        } else if (!a.empty() && a[0] == '-') {
            throw std::invalid_argument("unknown option " + a);
        } else {
            break;
        }
    }
    if (i >= argc) throw std::invalid_argument("no command given");
    opt.command = argv[i++];
    // Global options may also follow the command.
    for (; i < argc; ++i) {
        const std::string a = argv[i];
        if (a == "--json") {
            opt.json = true;
        } else if (a == "--module" || a == "--log-dir") {
            if (i + 1 >= argc) throw std::invalid_argument(a + " needs a value");
            (a == "--module" ? opt.module_path : opt.log_dir) = argv[++i];
        } else {
            opt.args.emplace_back(a);
        }
    }
    if (opt.module_path.empty()) opt.module_path = miniprobe::default_module_path();
    return opt;
}

}  // namespace

int main(int argc, char** argv) {
    options opt;
    try {
        opt = parse(argc, argv);
    } catch (const std::exception& e) {
        std::cerr << "miniprobe: " << e.what() << "\n\n" << usage_text;
        return 2;
    }
    // The framework library reads the log directory from the environment.
    if (!opt.log_dir.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(opt.log_dir, ec);
        if (ec) {
            std::cerr << "miniprobe: cannot create " << opt.log_dir << ": " << ec.message() << "\n";
            return 2;
        }
        setenv("VURO_LOG_DIR", opt.log_dir.c_str(), 1);
    }
    try {
        miniprobe::probe_host host(opt.module_path);
        printer out(opt.json);
        if (opt.command == "info") return run_info(host, out, opt);
        if (opt.command == "check") return run_check_or_sensor(host, out, opt, true);
        if (opt.command == "sensor" || opt.command == "watch") return run_check_or_sensor(host, out, opt, false);
        if (opt.command == "demo") return miniprobe::run_demo(host, std::cout, opt.log_dir) == 0 ? 0 : 1;
        std::cerr << "miniprobe: unknown command " << opt.command << "\n\n" << usage_text;
        return 2;
    } catch (const std::invalid_argument& e) {
        std::cerr << "miniprobe: " << e.what() << "\n";
        return 2;
    } catch (const std::exception& e) {
        std::cerr << "miniprobe: " << e.what() << "\n";
        return 2;
    }
}
