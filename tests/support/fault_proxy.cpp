#include "support/fault_proxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string>

namespace test_support {

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<uint16_t>(port));
    return address;
}

void close_with_reset(int fd) {
    const linger hard{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
    ::close(fd);
}

// Forwards what `from` has; false when `from` has closed or failed.
bool forward(int from, int to, bool cut) {
    char buffer[16384];
    const ssize_t n = ::recv(from, buffer, sizeof buffer, MSG_DONTWAIT);
    if (n == 0) return false;
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
    if (cut) return true;
    for (ssize_t sent = 0; sent < n;) {
        const ssize_t m = ::send(to, buffer + sent, static_cast<std::size_t>(n - sent), MSG_NOSIGNAL);
        if (m < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        sent += m;
    }
    return true;
}

}  // namespace

fault_proxy::fault_proxy(int target_port) : target_port_(target_port) {
    if (::pipe(wake_pipe_) != 0) throw std::runtime_error("fault_proxy: pipe");
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    ::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    sockaddr_in address = loopback(0);
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener_, 64) != 0)
        throw std::runtime_error("fault_proxy: cannot listen");
    socklen_t length = sizeof address;
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { run(); });
}

fault_proxy::~fault_proxy() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    wake();
    thread_.join();
    for (const pair& p : pairs_) {
        ::close(p.client);
        ::close(p.server);
    }
    ::close(listener_);
    ::close(wake_pipe_[0]);
    ::close(wake_pipe_[1]);
}

void fault_proxy::wake() {
    const char byte = 0;
    [[maybe_unused]] const ssize_t n = ::write(wake_pipe_[1], &byte, 1);
}

void fault_proxy::cut_silently() {
    std::lock_guard<std::mutex> lock(mutex_);
    for (pair& p : pairs_) p.cut = true;
}

void fault_proxy::reset() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (const pair& p : pairs_) {
            close_with_reset(p.client);
            close_with_reset(p.server);
        }
        pairs_.clear();
    }
    wake();
}

int fault_proxy::connections() {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(pairs_.size());
}

void fault_proxy::run() {
    for (;;) {
        std::vector<pollfd> watched{{listener_, POLLIN, 0}, {wake_pipe_[0], POLLIN, 0}};
        {
            std::lock_guard<std::mutex> lock(mutex_);
            if (stopping_) return;
            for (const pair& p : pairs_) {
                watched.push_back({p.client, POLLIN, 0});
                watched.push_back({p.server, POLLIN, 0});
            }
        }
        if (::poll(watched.data(), watched.size(), -1) < 0) continue;
        if (watched[1].revents != 0) {
            char drain[64];
            [[maybe_unused]] const ssize_t n = ::read(wake_pipe_[0], drain, sizeof drain);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (stopping_) return;
        if (watched[0].revents & POLLIN) {
            const int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
            if (client >= 0) {
                const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
                sockaddr_in target = loopback(target_port_);
                if (::connect(server, reinterpret_cast<sockaddr*>(&target), sizeof target) == 0) {
                    const int on = 1;
                    ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
                    ::setsockopt(server, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
                    pairs_.push_back({client, server, false});
                } else {
                    // The server refuses: so does the proxy.
                    ::close(server);
                    close_with_reset(client);
                }
            }
        }
        // The pairs as they were when poll was set up; a reset since has emptied the list.
        for (std::size_t i = 2; i + 1 < watched.size(); i += 2) {
            const int client = watched[i].fd;
            auto it = pairs_.begin();
            while (it != pairs_.end() && it->client != client) ++it;
            if (it == pairs_.end()) continue;
            bool open = true;
            if (watched[i].revents != 0) open = forward(it->client, it->server, it->cut);
            if (open && watched[i + 1].revents != 0) open = forward(it->server, it->client, it->cut);
            if (!open) {
                ::close(it->client);
                ::close(it->server);
                pairs_.erase(it);
            }
        }
    }
}

}  // namespace test_support
