// opcua-sim: runs the test server as a process until SIGINT or SIGTERM.

#include "opcua_sim/cli.h"
#include "opcua_sim/server.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <sstream>

namespace {

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

int main(int argc, char** argv) {
    opcua_sim::command_line cli;
    try {
        cli = opcua_sim::parse_command_line(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const std::exception& e) {
        std::cerr << "opcua-sim: " << e.what() << "\n";
        return 2;
    }
    if (cli.help) {
        std::cout << opcua_sim::usage_text();
        return 0;
    }

    // Blocked before any thread starts, so that all threads inherit the mask and the
    // signals reach only the sigwait below.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);

    try {
        if (!cli.certificate_file.empty()) {
            cli.server_options.certificate.certificate_pem = read_file(cli.certificate_file);
            cli.server_options.certificate.private_key_pem = read_file(cli.key_file);
        }
        opcua_sim::server sim(cli.server_options);
        sim.start();
        std::cout << sim.endpoint_url() << std::endl;
        int received = 0;
        sigwait(&signals, &received);
        sim.stop();
    } catch (const std::exception& e) {
        std::cerr << "opcua-sim: " << e.what() << "\n";
        return 1;
    }
    return 0;
}
