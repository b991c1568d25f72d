#pragma once

// Runs tests/interop/server.js (a node-opcua server) as a child process for the length
// of a test. The child reads its options as one JSON argument, prints one JSON line
// when it listens, and stops when its stdin closes, so it dies with this process even
// when a test crashes.

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>

#include <nlohmann/json.hpp>

namespace interop {

class node_server {
public:
    // Starts the child; `options` go to server.js as they are, except that "pkiDir" is
    // set to a fresh temporary directory unless given. Does not wait for it to listen.
    // Raises std::runtime_error when node or node-opcua is missing or the fork fails.
    explicit node_server(nlohmann::json options);
    ~node_server();
    node_server(const node_server&) = delete;
    node_server& operator=(const node_server&) = delete;

    // Waits for the ready line, at most `limit`; raises std::runtime_error with the
    // child's error output when it does not come. Returns the ready line.
    const nlohmann::json& wait_ready(std::chrono::milliseconds limit = std::chrono::seconds(30));

    int port() const { return ready_.at("port").get<int>(); }
    const nlohmann::json& ready() const { return ready_; }
    pid_t pid() const { return pid_; }

    // Stops the child (SIGTERM, then SIGKILL after a grace period) and waits for it.
    // Returns true when it ended within the grace period.
    bool stop();

private:
    std::string error_output() const;

    std::filesystem::path dir_;
    pid_t pid_ = -1;
    int stdin_fd_ = -1;
    int stdout_fd_ = -1;
    std::string pending_;
    nlohmann::json ready_;
};

// The directory of server.js and whether node-opcua is installed next to it; the text
// says what to do when it is not.
std::string node_opcua_missing();

}  // namespace interop
