#include "demo.h"

#include <iomanip>
#include <ostream>
#include <string>
#include <vector>

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

}  // namespace

int run_demo(probe_host& host, std::ostream& out) {
    opcua_sim::options options;
    options.users = {{"operator", "demo-password"}};
    options.certificate.generate.key_bits = 2048;
    options.certificate.generate.valid_days = 365;
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
    const auto bytes = host.get_module_information_sync(false, result);
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
    host.cleanup();
    server.stop();
    out << "\n" << (unexpected == 0 ? "Every step ended as expected." : "Some steps did not end as expected.") << "\n";
    return unexpected;
}

}  // namespace miniprobe
