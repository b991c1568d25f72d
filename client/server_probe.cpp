#include "client/server_probe.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

#include <open62541/statuscodes.h>

namespace brenholt::monitoring_modules::opcua {

namespace {

using clock_type = std::chrono::steady_clock;

// Milliseconds left until `deadline`, at least 0.
int remaining_ms(clock_type::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - clock_type::now()).count();
    return left > 0 ? static_cast<int>(left) : 0;
}

void put_uint32(std::vector<unsigned char>& out, std::uint32_t value) {
    for (int i = 0; i < 4; ++i) out.push_back(static_cast<unsigned char>(value >> (8 * i)));
}

// The Hello message of OPC UA's TCP binding: the header, five numbers and the URL.
std::vector<unsigned char> hello(const std::string& endpoint_url) {
    const std::string url = endpoint_url.substr(0, 4096);
    std::vector<unsigned char> message{'H', 'E', 'L', 'F'};
    put_uint32(message, static_cast<std::uint32_t>(8 + 5 * 4 + 4 + url.size()));
    put_uint32(message, 0);       // protocol version
    put_uint32(message, 65536);   // receive buffer size
    put_uint32(message, 65536);   // send buffer size
    put_uint32(message, 0);       // maximum message size: no limit
    put_uint32(message, 0);       // maximum chunk count: no limit
    put_uint32(message, static_cast<std::uint32_t>(url.size()));
    message.insert(message.end(), url.begin(), url.end());
    return message;
}

struct socket_guard {
    int fd = -1;
    ~socket_guard() {
        if (fd >= 0) ::close(fd);
    }
};

// Connects `fd` by `deadline`; 0, or the errno of the failure (ETIMEDOUT when late).
int connect_by(int fd, const addrinfo& address, clock_type::time_point deadline) {
    if (::connect(fd, address.ai_addr, address.ai_addrlen) == 0) return 0;
    if (errno != EINPROGRESS) return errno;
    pollfd p{fd, POLLOUT, 0};
    int ready = 0;
    do {
        ready = ::poll(&p, 1, remaining_ms(deadline));
    } while (ready < 0 && errno == EINTR);
    if (ready <= 0) return ETIMEDOUT;
    int error = 0;
    socklen_t length = sizeof error;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0) return errno;
    return error;
}

UA_StatusCode ask(int fd, const std::vector<unsigned char>& message, clock_type::time_point deadline) {
    if (::send(fd, message.data(), message.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(message.size()))
        return UA_STATUSCODE_BADCONNECTIONCLOSED;
    pollfd p{fd, POLLIN, 0};
    int ready = 0;
    do {
        ready = ::poll(&p, 1, remaining_ms(deadline));
    } while (ready < 0 && errno == EINTR);
    if (ready == 0) return UA_STATUSCODE_BADTIMEOUT;
    char first = 0;
    return ::recv(fd, &first, 1, MSG_DONTWAIT) == 1 ? UA_STATUSCODE_GOOD : UA_STATUSCODE_BADCONNECTIONCLOSED;
}

}  // namespace

UA_StatusCode probe_server(const std::string& host, std::int64_t port, const std::string& endpoint_url,
                           std::uint32_t timeout_ms) {
    const auto deadline = clock_type::now() + std::chrono::milliseconds(timeout_ms);
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* addresses = nullptr;
    if (::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &addresses) != 0)
        return UA_STATUSCODE_BADCONNECTIONCLOSED;
    const std::vector<unsigned char> message = hello(endpoint_url);
    UA_StatusCode outcome = UA_STATUSCODE_BADCONNECTIONCLOSED;
    for (const addrinfo* a = addresses; a != nullptr; a = a->ai_next) {
        socket_guard s;
        s.fd = ::socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol);
        if (s.fd < 0) continue;
        const int error = connect_by(s.fd, *a, deadline);
        if (error == ECONNREFUSED) {
            outcome = UA_STATUSCODE_BADCONNECTIONREJECTED;
            continue;
        }
        if (error == ETIMEDOUT) {
            outcome = UA_STATUSCODE_BADTIMEOUT;
            break;
        }
        if (error != 0) continue;
        outcome = ask(s.fd, message, deadline);
        break;
    }
    ::freeaddrinfo(addresses);
    return outcome;
}

}  // namespace brenholt::monitoring_modules::opcua
