#pragma once

// tests/interop/server.js, a node-opcua server, as a child process for the length of a
// test. It reads its options as one JSON argument, prints one JSON line when it listens,
// and stops when its stdin closes.
#include <chrono>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

#include <nlohmann/json.hpp>

#include "support/child_process.h"

namespace interop {

class node_server {
public:
    // Starts the server with `options`, "pkiDir" set to a fresh temporary directory, and
    // waits until it listens. Raises std::runtime_error with the server's own words when
    // it does not come up; node-opcua makes a key pair at each start, which takes tens of
    // seconds on a busy machine.
    explicit node_server(nlohmann::json options) {
        const auto script = std::filesystem::path(INTEROP_SERVER_SCRIPT);
        // CI installs node-opcua; a missing one is a broken set-up that fails, not a skip.
        if (!std::filesystem::exists(script.parent_path() / "node_modules" / "node-opcua" / "package.json"))
            throw std::runtime_error("node-opcua is not installed; scripts/setup-deps.sh installs it");
        std::string dir = (std::filesystem::temp_directory_path() / "opcua-interop-XXXXXX").string();
        if (::mkdtemp(dir.data()) == nullptr) throw std::runtime_error("mkdtemp");
        dir_ = dir;
        options["pkiDir"] = (dir_ / "pki").string();
        process_.emplace(NODE_EXECUTABLE, std::vector<std::string>{script.string(), options.dump()},
                         (dir_ / "server.err").string());
        while (const auto line = process_->line(std::chrono::seconds(90))) {
            auto parsed = nlohmann::json::parse(*line, nullptr, false);
            if (!parsed.is_object() || !parsed.contains("ready")) continue;
            if (!parsed.at("ready").get<bool>())
                throw std::runtime_error("node-opcua server failed: " + parsed.value("error", "") + failure());
            ready_ = parsed;
            return;
        }
        throw std::runtime_error("node-opcua server ended or stayed silent before it was ready" + failure());
    }
    ~node_server() {
        process_.reset();
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    node_server(const node_server&) = delete;
    node_server& operator=(const node_server&) = delete;

    int port() const { return ready_.at("port").get<int>(); }
    const nlohmann::json& ready() const { return ready_; }

private:
    std::string failure() const { return "\n--- server stderr ---\n" + process_->errors(); }

    std::filesystem::path dir_;
    std::optional<test_support::child_process> process_;
    nlohmann::json ready_;
};

}  // namespace interop
