// The bytes a TCP socket has received, from the kernel's own count. A file of its own because
// the kernel's struct tcp_info, which has the count, clashes with the C library's.

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>

namespace orvale::tools {

std::uint64_t tcpBytesReceived(int socket) {
    tcp_info info{};
    socklen_t size = sizeof info;
    if (::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
        return 0;
    return info.tcpi_bytes_received;
}

}  // namespace orvale::tools
