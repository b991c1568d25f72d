#pragma once

// Runs tests/interop/server.js (a node-opcua server) as a child process for the length
// of a test. The child reads its options as one JSON argument, prints one JSON line
// when it listens, then answers JSON commands on its stdin, and stops when its stdin
// closes, so it dies with this process even when a test crashes.

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

namespace interop {

class node_server {
public:
    // Starts the child; `options` go to server.js as they are, with "pkiDir" set to a
    // fresh temporary directory. Does not wait for it to listen.
    // Raises std::runtime_error when node-opcua is missing or the fork fails.
    explicit node_server(nlohmann::json options);
    ~node_server();
    node_server(const node_server&) = delete;
    node_server& operator=(const node_server&) = delete;

    // Waits for the ready line, at most `limit`; raises std::runtime_error with the
    // child's error output when it does not come, at once when the child exits first.
    // Returns the ready line. node-opcua makes a key pair at each start, which takes
    // tens of seconds on a busy machine.
    const nlohmann::json& wait_ready(std::chrono::milliseconds limit = std::chrono::seconds(90));

    // Sends one command line ({"diagnostics":false}, {"set":{...}}) and waits for its
    // answer, after which the change is in effect; raises std::runtime_error when the
    // server refuses it or does not answer within `limit`.
    void command(const nlohmann::json& line, std::chrono::milliseconds limit = std::chrono::seconds(10));

    int port() const { return ready_.at("port").get<int>(); }
    const nlohmann::json& ready() const { return ready_; }

    // Stops the child (SIGTERM, then SIGKILL after a grace period) and waits for it.
    // Returns true when it ended within the grace period.
    bool stop();

private:
    std::string error_output() const;
    // How the child ended ("exited with status 1", "was killed by signal 9"), or empty
    // while it runs.
    std::string exit_description();
    // Collects the child's status if it has ended; true when it has.
    bool reap(bool block = false);
    // The next line on the child's stdout that parses as a JSON object, or null when
    // none comes before the deadline, the child closes its output or the child exits.
    nlohmann::json next_object(std::chrono::steady_clock::time_point deadline);

    std::filesystem::path dir_;
    pid_t pid_ = -1;
    int exit_status_ = 0;
    bool exited_ = false;
    int stdin_fd_ = -1;
    int stdout_fd_ = -1;
    std::string pending_;
    nlohmann::json ready_;
};

// A server started and listening; raises std::runtime_error with the server's own
// words when it does not come up.
std::unique_ptr<node_server> start(const nlohmann::json& options);

}  // namespace interop
