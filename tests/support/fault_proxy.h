#pragma once

// A TCP proxy on loopback in front of one server port, for the connection faults of a
// plant network: a path that goes silent while new connections pass (a NAT or firewall
// that lost its state), and connections reset by the peer. A thread accepts, and one
// thread a direction copies; cut connections stay open and read what comes, into nothing.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>

namespace test_support {

class fault_proxy {
public:
    // Listens on a free port of 127.0.0.1 and forwards every connection to `target_port`.
    explicit fault_proxy(int target_port) : target_(address(target_port)) {
        listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in local = address(0);
        socklen_t length = sizeof local;
        if (::bind(listener_, reinterpret_cast<sockaddr*>(&local), length) != 0 || ::listen(listener_, 64) != 0 ||
            ::getsockname(listener_, reinterpret_cast<sockaddr*>(&local), &length) != 0)
            throw std::runtime_error("fault_proxy: cannot listen");
        port_ = ntohs(local.sin_port);
        acceptor_ = std::thread([this] { accept_loop(); });
    }
    ~fault_proxy() {
        ::shutdown(listener_, SHUT_RDWR);
        acceptor_.join();
        reset();
        ::close(listener_);
    }
    fault_proxy(const fault_proxy&) = delete;
    fault_proxy& operator=(const fault_proxy&) = delete;

    int port() const { return port_; }

    // The connections held now stop forwarding, in both directions and without a word to
    // either end; connections made afterwards pass.
    void cut_silently() {
        std::lock_guard<std::mutex> lock(mutex_);
        for (auto& c : connections_) c->cut = true;
    }
    // The connections held now are reset: both ends get a RST.
    void reset() {
        std::list<std::unique_ptr<connection>> gone;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            gone.swap(connections_);
        }
        for (auto& c : gone) {
            // Nothing more is forwarded or ended; a read shut down wakes each copier
            // without a FIN, and closing without lingering sends the RST.
            c->cut = true;
            const linger hard{1, 0};
            for (int fd : {c->client, c->server}) {
                ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
                ::shutdown(fd, SHUT_RD);
            }
            for (auto& t : c->copiers) t.join();
            ::close(c->client);
            ::close(c->server);
        }
    }

private:
    struct connection {
        int client, server;
        std::atomic<bool> cut{false};
        std::thread copiers[2];
    };

    static sockaddr_in address(int port) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        a.sin_port = htons(static_cast<uint16_t>(port));
        return a;
    }

    // Copies until either end closes; then both ends learn of it, unless the path is cut.
    static void copy(connection* c, int from, int to) {
        char buffer[16384];
        for (ssize_t n; (n = ::recv(from, buffer, sizeof buffer, 0)) > 0;)
            if (!c->cut && ::send(to, buffer, static_cast<std::size_t>(n), MSG_NOSIGNAL) < 0) break;
        if (!c->cut) ::shutdown(to, SHUT_RDWR);
    }

    void accept_loop() {
        for (int client; (client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
            const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
            if (::connect(server, reinterpret_cast<const sockaddr*>(&target_), sizeof target_) != 0) {
                // The server refuses: so does the proxy.
                ::close(server);
                ::close(client);
                continue;
            }
            const int on = 1;
            for (int fd : {client, server}) ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
            auto c = std::make_unique<connection>();
            c->client = client;
            c->server = server;
            c->copiers[0] = std::thread(copy, c.get(), client, server);
            c->copiers[1] = std::thread(copy, c.get(), server, client);
            std::lock_guard<std::mutex> lock(mutex_);
            connections_.push_back(std::move(c));
        }
    }

    const sockaddr_in target_;
    int listener_ = -1;
    int port_ = 0;
    std::mutex mutex_;
    std::list<std::unique_ptr<connection>> connections_;
    std::thread acceptor_;
};

}  // namespace test_support
