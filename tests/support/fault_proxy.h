#pragma once

// A TCP proxy on loopback in front of one server port, for the connection faults of a
// plant network: a path that goes silent while new connections pass (a NAT or firewall
// that lost its state), and connections reset by the peer.
#include <mutex>
#include <thread>
#include <vector>

namespace test_support {

class fault_proxy {
public:
    // Listens on a free port of 127.0.0.1 and forwards every connection to `target_port`.
    explicit fault_proxy(int target_port);
    ~fault_proxy();
    fault_proxy(const fault_proxy&) = delete;
    fault_proxy& operator=(const fault_proxy&) = delete;

    int port() const { return port_; }

    // The connections held now stop forwarding in both directions. Their sockets stay
    // open and what arrives is read and dropped, so neither end hears of it; connections
    // made afterwards pass.
    void cut_silently();
    // The connections held now are reset: both ends get a RST.
    void reset();
    // Connections forwarded now, cut or not.
    int connections();

private:
    struct pair {
        int client;
        int server;
        bool cut;
    };
    void run();
    void wake();

    int target_port_;
    int listener_ = -1;
    int port_ = 0;
    int wake_pipe_[2] = {-1, -1};
    std::mutex mutex_;
    std::vector<pair> pairs_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace test_support
