// miniprobe: a probe host for monitoring modules. Loads a module, drives its
// exported functions and prints what comes back.
#include <cstdlib>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "probe_host.h"
#include "vuro.pb.h"

namespace {

const char* const usage_text =
    "usage: miniprobe [options] COMMAND [args]\n"
    "\n"
    "Commands:\n"
    "  info [--texts]      print the module's metadata, sensors and checks\n"
    "\n"
    "Options:\n"
    "  --module PATH       module to load (default: the build's modules/opcua/libOPCUA.so)\n"
    "  --json              print one JSON object a line: every message the module sends\n"
    "                      and the return code of every exported call\n"
    "  --log-dir DIR       directory for the module's runtime and sensor logs\n"
    "  -h, --help          this text\n"
    "\n"
    "Exit status: 0 when every call succeeded, 1 when a call reported failure,\n"
    "2 on a usage error or when the module cannot be loaded.\n";

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
            nlohmann::ordered_json line{{"event", "message"}, {"type", m.type}, {"message", m.body}};
            std::cout << line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
        }
    }

    bool json() const { return json_; }

private:
    bool json_;
};

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

int run_info(miniprobe::probe_host& host, printer& out, const options& opt) {
    bool texts = false;
    for (const auto& a : opt.args) {
        if (a == "--texts") texts = true;
        else throw std::invalid_argument("info: unknown argument " + a);
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
    for (; i < argc; ++i) opt.args.emplace_back(argv[i]);
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
    if (!opt.log_dir.empty()) setenv("VURO_LOG_DIR", opt.log_dir.c_str(), 1);
    try {
        miniprobe::probe_host host(opt.module_path);
        printer out(opt.json);
        if (opt.command == "info") return run_info(host, out, opt);
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
