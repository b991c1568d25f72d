// Linked into every fuzz target: none of the parsers under test may resolve a name or
// open a connection, so a mutated host name can never reach the resolver or the network.
// These definitions take the place of the C library's for the whole process.
#include <cstdio>
#include <cstdlib>

#include <netdb.h>
#include <sys/socket.h>

namespace {

[[noreturn]] void refuse(const char* what) {
    std::fprintf(stderr, "fuzz target called %s: parsers must not touch the network\n", what);
    std::abort();
}

}  // namespace

extern "C" {

int socket(int, int, int) { refuse("socket"); }
int connect(int, const struct sockaddr*, socklen_t) { refuse("connect"); }
int getaddrinfo(const char*, const char*, const struct addrinfo*, struct addrinfo**) { refuse("getaddrinfo"); }
struct hostent* gethostbyname(const char*) { refuse("gethostbyname"); }

}  // extern "C"
