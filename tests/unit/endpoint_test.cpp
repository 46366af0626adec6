// The endpoint's listener against clients beyond its means: connections past the cap are
// closed on arrival, and accepts failing for want of descriptors are retried after growing
// pauses, logged once, until the waiting connection can be served.

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "endpoint_clients.h"

namespace connector::bayeux::endpoint_test {
namespace {

TEST_F(EndpointTest, ConnectionsBeyondTheCapAreClosedOnArrival) {
    start([](EndpointOptions& o) { o.maxConnections = 2; });
    LogCapture log;
    auto ws = std::make_unique<RawWebSocket>(port);
    RawHttp http(port);
    open(http);
    EXPECT_EQ(endpoint->stats().connections, 2u);
    EXPECT_THROW(RawWebSocket refused(port), std::runtime_error);
    RawHttp refused(port);
    EXPECT_FALSE(refused.post(handshake("1")));
    EXPECT_EQ(log.count("Refusing connections: 2 are open already"), 1u);
    ws.reset();
    ASSERT_TRUE(waitUntil([&] { return endpoint->stats().connections == 1; }));
    RawWebSocket again(port);
    open(again);
}

// Out of descriptors, the listener logs once and retries after growing pauses, then serves the
// connection that waited as soon as a descriptor is free.
TEST_F(EndpointTest, AcceptingOutOfDescriptorsBacksOffAndRecovers) {
    start();
    LogCapture log;
    // The client's socket first; then no descriptor at all may be opened, so that the hub's
    // accept of it fails however the other threads' descriptors come and go.
    const int client = ::socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_GE(client, 0);
    const int lowest = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(lowest, 0);
    ::close(lowest);
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit tight = saved;
    tight.rlim_cur = static_cast<rlim_t>(lowest);
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    sockaddr_in hub{};
    hub.sin_family = AF_INET;
    hub.sin_port = htons(port);
    hub.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool connected = ::connect(client, reinterpret_cast<sockaddr*>(&hub), sizeof hub) == 0;
    const bool failed = waitUntil([&] { return log.count("Accepting a connection failed: ") > 0; });
    std::this_thread::sleep_for(300ms);  // a window in which a fixed 10 ms retry logs 30 times
    const std::size_t failures = log.count("Accepting a connection failed: ");
    ::setrlimit(RLIMIT_NOFILE, &saved);
    ASSERT_TRUE(connected);
    EXPECT_TRUE(failed);
    EXPECT_EQ(failures, 1u);

    const std::string request = "POST /bayeux HTTP/1.1\r\nHost: h\r\nContent-Length: " +
                                std::to_string(handshake("1").size()) + "\r\n\r\n" + handshake("1");
    ASSERT_EQ(::send(client, request.data(), request.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(request.size()));
    pollfd readable{client, POLLIN, 0};
    char head[12] = {};
    ASSERT_EQ(::poll(&readable, 1, static_cast<int>(kWait.count())), 1);
    ASSERT_EQ(::recv(client, head, sizeof head, 0), static_cast<ssize_t>(sizeof head));
    EXPECT_EQ(std::string(head, sizeof head), "HTTP/1.1 200");
    EXPECT_EQ(log.count("Accepting connections again after "), 1u);
    ::close(client);
}

}  // namespace
}  // namespace connector::bayeux::endpoint_test
