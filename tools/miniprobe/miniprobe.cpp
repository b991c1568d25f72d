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

#include <algorithm>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <sstream>

#include <nlohmann/json.hpp>

#include "client_certificate.h"
#include "demo.h"
#include "failure_lines.h"
#include "presentation.h"
#include "probe_host.h"
#include "sensor_data_builder.h"
#include "settings_check.h"
#include "vuro.pb.h"

namespace {

const char* const usage_text =
    "usage: miniprobe [options] COMMAND [args]\n"
    "\n"
    "Commands:\n"
    "  info [--texts]      print the module's metadata, sensors and checks\n"
    "  info NAME           every setting the sensor or check NAME reads: its full key\n"
    "                      for --set, type, rules, default, allowed values and English text\n"
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
    "  --set KEY=@FILE     the same with the content of FILE, e.g. a PEM certificate;\n"
    "                      a one-line setting drops the file's final line break;\n"
    "                      KEY=@@TEXT sets \"@TEXT\"\n"
    "  --log               logging \"enabled\" (default \"disabled\")\n"
    "  --timeout S         the probe's timeout setting (default 10)\n"
    "  --channels ID=NAME,...  channels the probe already knows\n"
    "  --id N              sensor or check id (default 1)\n"
    "  --scans N           scans of a sensor (default 1); 0 scans until Ctrl-C or\n"
    "                      SIGTERM, then destroys the sensor and cleans up the module\n"
    "  --interval S        seconds between scans, also the interval setting (default 1);\n"
    "                      a sensor that could not be created is tried again each time\n"
    "\n"
    "Before the module sees them, settings are checked as the probe checks them, by the\n"
    "rules of the module's definition (type, minimum and maximum, allowed values,\n"
    "maximum length, required), and a client certificate that counts is checked for\n"
    "what OPC UA needs (data encipherment, a URI alternative name, an RSA key).\n"
    "Values given for settings that do not count get a warning.\n"
    "\n"
    "Options:\n"
    "  --module PATH       module to load (default: the build's modules/opcua/libOPCUA.so)\n"
    "  --json              print one JSON object a line: every message the module sends\n"
    "                      (with its time), the return code of every exported call, the\n"
    "                      lines the module logs at severity error or worse, and for\n"
    "                      info NAME one line per setting\n"
    "  --log-dir DIR       directory for the module's runtime and sensor logs; the demo\n"
    "                      puts the simulators' logs there as well\n"
    "  -h, --help          this text\n"
    "\n"
    "Exit status (the worst that happened):\n"
    "  0  all good: every call succeeded, every check passed, every scan answered\n"
    "     response code 0 with each value in its channel's ok range\n"
    "  1  a warning: a scan answered response code 1, a value lies in its channel's\n"
    "     warning range, or settings were given that do not count\n"
    "  2  an error: a check failed, a sensor could not be created, a scan answered\n"
    "     response code 3 or a value lies in its error range, a call to the module\n"
    "     failed, or a step of the demo did not end as expected\n"
    "  3  a usage error: an unknown command or option, a setting refused, a file that\n"
    "     cannot be read, or a module that cannot be loaded\n";

// The exit status; a run ends with the worst it met.
enum exit_status { all_good = 0, warned = 1, failed = 2, usage_error = 3 };

void worsen(exit_status& status, exit_status seen) { status = std::max(status, seen); }

struct options {
    std::string module_path;
    bool json = false;
    std::string log_dir;
    std::string command;
    std::vector<std::string> args;
};

const char* dispatcher_code_text(int code);

// When the module logged nothing and sent no result: what the call's return code says.
std::string no_reason(const char* function, int code) {
    return std::string(function) + " returned " + std::to_string(code) + ": " + dispatcher_code_text(code) +
           (code == 0 ? "" : "; no reason was logged (miniprobe --log-dir DIR keeps the module's full log in DIR)");
}

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
        const auto& b = m.body;
        if (m.type == "DYNAMIC_CHANNEL") channels_[b.value("id", 0)] = miniprobe::view_channel(definition_, b);
        // A result sent while a sensor is created is the reason its creation failed.
        if (creating_ && m.type == "SENSOR_SCAN_RESULT") {
            creation_result_ = b;
            if (json_) print_json(m);
            return;
        }
        if (m.type == "SENSOR_SCAN_RESULT") note_scan(b);
        if (json_) return print_json(m);
        if (m.type == "DYNAMIC_CHANNEL") {
            const int id = b.value("id", 0);
            std::cout << "channel #" << id << " defined: " << channels_[id].name
                      << miniprobe::describe_channel(channels_[id]) << std::endl;
        } else if (m.type == "SENSOR_SCAN_RESULT") {
            const int code = b.value("response_code", 0);
            std::cout << miniprobe::time_stamp() << "  sensor " << b.value("sensor_id", 0) << ": response code "
                      << code << " (" << miniprobe::response_code_text(code) << "), error code "
                      << b.value("error_code", 0) << ", message \"" << b.at("message").value("text", "") << "\"\n"
                      << miniprobe::value_lines(definition_, channels_,
                                                b.value("channels", nlohmann::ordered_json::array()), "  ", true)
                      << std::flush;
        } else if (m.type != "MODULE_INFORMATION" && m.type != "CHECK_RESULT") {
            std::cout << m.type << ": " << b.dump() << std::endl;
        }
    }

    // The lines the module logged at severity error or worse, for --json.
    void log_lines(const std::vector<miniprobe::failure_lines::line>& lines) {
        if (!json_) return;
        for (const auto& l : lines) {
            nlohmann::ordered_json line{{"event", "log"},        {"time", miniprobe::time_stamp()}, {"file", l.file},
                                        {"severity", l.severity}, {"text", l.text}};
            std::cout << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
        }
    }

    void check_result(int id, bool passed, const std::vector<std::string>& why) {
        if (json_) return;
        std::cout << "check " << id << ": " << (passed ? "passed" : "failed");
        for (std::size_t i = 0; i < why.size(); ++i) std::cout << (i == 0 ? ": " : "\n  ") << why[i];
        std::cout << std::endl;
    }

    // A failed creation or scan, with the module's words, and when it is tried again.
    void failure(int sensor_id, const std::string& what, const std::vector<std::string>& why, double retry_in) {
        if (json_) {
            if (retry_in < 0) return;
            nlohmann::ordered_json line{
                {"event", "retry"}, {"function", "CreateSensorInstance"}, {"in_seconds", retry_in}};
            std::cout << line.dump() << std::endl;
            return;
        }
        std::cout << miniprobe::time_stamp() << "  sensor " << sensor_id << ": " << what;
        for (std::size_t i = 0; i < why.size(); ++i) std::cout << (i == 0 ? ": " : "\n  ") << why[i];
        if (retry_in >= 0) {
            std::ostringstream seconds;
            seconds << retry_in;
            const bool sentence = !why.empty() && !why.back().empty() && why.back().back() == '.';
            std::cout << (sentence ? " T" : ". T") << "rying again in " << seconds.str() << " s, as a probe does.";
        }
        std::cout << std::endl;
    }

    void begin_creation() {
        creating_ = true;
        creation_result_ = nullptr;
    }
    // The message of the result sent during the creation, empty when none came. A
    // creation that succeeded has its result shown as any other.
    std::string end_creation(bool succeeded) {
        creating_ = false;
        if (creation_result_.is_null()) return "";
        if (succeeded) {
            message({"SENSOR_SCAN_RESULT", creation_result_});
            return "";
        }
        return creation_result_.at("message").value("text", "");
    }

    void known_channels(const std::map<int, std::string>& known) {
        for (const auto& [id, name] : known) channels_[id].name = name;
    }
    // Texts for channel names and lookups.
    void use_definition(const nlohmann::ordered_json& definition) { definition_ = definition; }

    bool json() const { return json_; }
    // The worst of the scan results so far: response codes and the states of their values.
    exit_status scan_status() const { return scan_status_; }

private:
    void print_json(const miniprobe::received_message& m) {
        nlohmann::ordered_json line{
            {"event", "message"}, {"time", miniprobe::time_stamp()}, {"type", m.type}, {"message", m.body}};
        std::cout << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
    }

    void note_scan(const nlohmann::ordered_json& body) {
        const int code = body.value("response_code", 0);
        worsen(scan_status_, code == 0 ? all_good : code == 1 ? warned : failed);
        auto worst = miniprobe::channel_state::none;
        miniprobe::value_lines(definition_, channels_, body.value("channels", nlohmann::ordered_json::array()), "",
                               false, &worst);
        if (worst == miniprobe::channel_state::warning) worsen(scan_status_, warned);
        if (worst == miniprobe::channel_state::error) worsen(scan_status_, failed);
    }

    bool json_;
    bool creating_ = false;
    nlohmann::ordered_json creation_result_;
    exit_status scan_status_ = all_good;
    nlohmann::ordered_json definition_ = nlohmann::ordered_json::object();
    std::map<int, miniprobe::channel_view> channels_;
};

const char* dispatcher_code_text(int code) {
    switch (code) {
        case 0: return "done";
        case 1: return "the sensor data names no sensor or check";
        case 2: return "the module raised an exception";
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

// `explained`: the caller shows the failure with the module's reason itself.
int report(printer& out, const char* function, int code, bool explained = false) {
    out.call(function, code);
    if (code != 0 && !out.json() && !explained)
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
    if (report(out, "InitializeModule", host.initialize()) != 0) return failed;
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
    return all_good;
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
    if (init != 0) return failed;
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
    return failures == 0 ? all_good : failed;
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
bool stop_requested(const sigset_t& signals, double seconds, bool sensor_exists) {
    timespec wait{};
    wait.tv_sec = static_cast<time_t>(seconds);
    wait.tv_nsec = static_cast<long>((seconds - static_cast<double>(wait.tv_sec)) * 1e9);
    for (;;) {
        const int received = sigtimedwait(&signals, nullptr, &wait);
        if (received > 0) {
            std::cerr << "miniprobe: " << strsignal(received) << ": "
                      << (sensor_exists ? "destroying the sensor and cleaning up" : "cleaning up") << "\n";
            return true;
        }
        if (errno != EINTR) return false;
    }
}

// Refuses, before the module sees them, settings that the probe would not accept, and a
// client certificate that counts but lacks what OPC UA needs. Gives the settings'
// warnings; raises std::invalid_argument with every refusal.
std::vector<std::string> judge_settings(const nlohmann::ordered_json& definition, miniprobe::build_request& request) {
    const char* table = request.is_check ? "Checks" : "Sensors";
    if (!definition.at(table).contains(request.name)) {
        std::string known;
        for (const auto& [entry, unused] : definition.at(table).items()) known += " " + entry;
        throw std::invalid_argument(std::string("the module defines no ") + (request.is_check ? "check" : "sensor") +
                                    " named '" + request.name + "'; it has:" + known);
    }
    const auto settings = miniprobe::settings_of(definition, request.name);
    const auto files = miniprobe::read_value_files(settings, request.overrides);
    auto verdict = miniprobe::check_settings(request.name, settings, request.overrides, files);
    for (const auto& s : settings) {
        const std::string& value = verdict.values[s.key];
        if (!verdict.counting[s.key] || !miniprobe::holds_certificate(value)) continue;
        const auto file = files.find(s.key);
        const std::string named = s.key + "=" + (file != files.end() ? "@" + file->second : "(certificate)") + ": ";
        try {
            const auto lacks = miniprobe::certificate_lacks(value);
            std::string line;
            for (const auto& part : lacks) line += (line.empty() ? "" : "; ") + part;
            if (!line.empty()) verdict.refused.push_back(named + "the certificate lacks what OPC UA needs: " + line);
        } catch (const std::invalid_argument& e) {
            verdict.refused.push_back(named + e.what());
        }
    }
    if (!verdict.refused.empty()) {
        std::string text = "settings refused before the module saw them (miniprobe info " + request.name +
                           " lists every setting with its rules):";
        for (const auto& line : verdict.refused) text += "\n  " + line;
        throw std::invalid_argument(text);
    }
    return verdict.unused;
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
    miniprobe::failure_lines logged;
    host.on_message = [&out](const miniprobe::received_message& m) { out.message(m); };
    if (report(out, "InitializeModule", host.initialize()) != 0) return failed;
    exit_status status = all_good;
    try {
        const auto definition = read_definition(host, out, true);
        out.use_definition(definition);
        for (const auto& line : judge_settings(definition, rs.request)) {
            std::cerr << "miniprobe: warning: " << line << "\n";
            worsen(status, warned);
        }
        const auto data = miniprobe::build_sensor_data(definition, rs.request);
        out.known_channels(rs.request.known_channels);
        // Whatever the module logged before a call explains nothing of it.
        if (is_check) {
            logged.take();
            const int code = report(out, "ExecuteCheck", host.check(rs.id, data), true);
            bool passed = false;
            for (const auto& m : host.take_messages())
                if (m.type == "CHECK_RESULT") passed = m.body.value("success", false);
            passed = passed && code == 0;
            const auto lines = logged.take();
            out.log_lines(lines);
            std::vector<std::string> why;
            if (!passed) why = miniprobe::reasons(lines, no_reason("ExecuteCheck", code));
            out.check_result(rs.id, passed, why);
            if (!passed) worsen(status, failed);
        } else {
            bool created = false;
            for (int scan = 0; rs.scans == 0 || scan < rs.scans; ++scan) {
                if (stop_requested(signals, scan == 0 ? 0.0 : rs.interval, created)) break;
                const bool again = rs.scans == 0 || scan + 1 < rs.scans;
                if (!created) {
                    // As a probe does: a sensor that could not be created is tried again
                    // at the next interval.
                    logged.take();
                    out.begin_creation();
                    const int code = report(out, "CreateSensorInstance", host.create_sensor(rs.id, data), true);
                    const std::string result = out.end_creation(code == 0);
                    host.take_messages();
                    const auto lines = logged.take();
                    out.log_lines(lines);
                    created = code == 0;
                    if (!created) {
                        worsen(status, failed);
                        const std::string fallback = result.empty() ? no_reason("CreateSensorInstance", code) : result;
                        const auto why = miniprobe::reasons(lines, fallback);
                        out.failure(rs.id, "creation failed", why, again ? rs.interval : -1);
                        continue;
                    }
                }
                logged.take();
                const int code = report(out, "ExecuteSensorScan", host.scan(rs.id), true);
                host.take_messages();
                const auto lines = logged.take();
                out.log_lines(lines);
                if (code != 0) {
                    worsen(status, failed);
                    const auto why = miniprobe::reasons(lines, no_reason("ExecuteSensorScan", code));
                    out.failure(rs.id, "scan failed", why, -1);
                }
            }
            if (created && report(out, "DestroySensorInstance", host.destroy(rs.id)) != 0) worsen(status, failed);
            worsen(status, out.scan_status());
        }
    } catch (...) {
        out.call("CleanupModule", host.cleanup());
        throw;
    }
    out.call("CleanupModule", host.cleanup());
    return status;
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
        if (!std::set<std::string>{"info", "check", "sensor", "watch", "demo"}.count(opt.command))
            throw std::invalid_argument("unknown command " + opt.command);
    } catch (const std::exception& e) {
        std::cerr << "miniprobe: " << e.what() << "\n\n" << usage_text;
        return usage_error;
    }
    // The framework library reads the log directory from the environment.
    if (!opt.log_dir.empty()) {
        std::error_code ec;
        std::filesystem::create_directories(opt.log_dir, ec);
        if (ec) {
            std::cerr << "miniprobe: cannot create " << opt.log_dir << ": " << ec.message() << "\n";
            return usage_error;
        }
        setenv("VURO_LOG_DIR", opt.log_dir.c_str(), 1);
    }
    std::unique_ptr<miniprobe::probe_host> host;
    try {
        host = std::make_unique<miniprobe::probe_host>(opt.module_path);
    } catch (const std::exception& e) {
        std::cerr << "miniprobe: " << e.what() << "\n";
        return usage_error;
    }
    try {
        printer out(opt.json);
        if (opt.command == "info") return run_info(*host, out, opt);
        if (opt.command == "check") return run_check_or_sensor(*host, out, opt, true);
        if (opt.command == "sensor" || opt.command == "watch") return run_check_or_sensor(*host, out, opt, false);
        return miniprobe::run_demo(*host, std::cout, opt.log_dir) == 0 ? all_good : failed;
    } catch (const std::invalid_argument& e) {
        std::cerr << "miniprobe: " << e.what() << "\n";
        return usage_error;
    } catch (const std::exception& e) {
        std::cerr << "miniprobe: " << e.what() << "\n";
        return failed;
    }
}
