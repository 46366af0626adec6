#include "loopback_ports.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <random>
#include <stdexcept>

namespace orvale::tools {

namespace {

// Binds `port` on 127.0.0.1 (0: any) and returns the port bound, or 0 when it is taken.
int bindLoopback(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0)
        throw std::runtime_error("no free loopback port");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    const bool bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), size) == 0 &&
                       ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size) == 0;
    ::close(fd);
    return bound ? ntohs(address.sin_port) : 0;
}

// The lowest port the kernel hands out as the local end of outgoing connections.
int lowestEphemeralPort() {
    std::ifstream range("/proc/sys/net/ipv4/ip_local_port_range");
    int low = 0;
    return range >> low ? low : 0;
}

}  // namespace

int freeLoopbackPort() {
    // A port of the kernel's own choice comes from the range it also gives outgoing connections,
    // so that any connection made before the server binds may take it. Ports below that range
    // are only ever taken by listeners.
    constexpr int kSpan = 10000;
    const int below = lowestEphemeralPort();
    if (below > 1024 + kSpan) {
        static thread_local std::minstd_rand random(std::random_device{}());
        std::uniform_int_distribution<int> pick(below - kSpan, below - 1);
        for (int attempt = 0; attempt < 100; ++attempt)
            if (const int port = bindLoopback(pick(random)))
                return port;
    }
    if (const int port = bindLoopback(0))
        return port;
    throw std::runtime_error("no free loopback port");
}

bool acceptsOnLoopback(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return ok;
}

}  // namespace orvale::tools
