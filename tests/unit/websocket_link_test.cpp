// The endpoint's WebSocket link against raw clients that misbehave: one that never reads what it
// is sent, one that only pings, and one that keeps sending but leaves the hub's writes unfinished.
// The link must let go of each, and of the memory it holds for it, within its bounds.

#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

#include "endpoint_clients.h"

namespace connector::bayeux::endpoint_test {
namespace {

using orvale::test::Clock;

TEST_F(EndpointTest, UnreadRepliesPastTheOutputBoundCloseTheWebSocket) {
    auto options = defaults();
    options.maxOutputBytes = 256 * 1024;
    options.maxMessagesPerFrame = 2000;  // so that the output bound, not the cap, ends it
    start(options);
    LogCapture log;
    RawWebSocket silent(port, "", Reading::Off);
    ASSERT_EQ(endpoint->stats().connections, 1u);
    // About 100 KB of replies a frame: the kernel's buffers fill first, then the hub's.
    const std::string frame = unreadable(2000);
    std::size_t peak = 0;
    const auto deadline = Clock::now() + orvale::test::kWait;
    while (endpoint->stats().connections != 0 && Clock::now() < deadline) {
        silent.send(frame);
        peak = std::max(peak, endpoint->stats().outputBytes);
    }
    EXPECT_EQ(endpoint->stats().connections, 0u);
    EXPECT_EQ(log.count("Closed a connection whose unread output passed 262144 bytes"), 1u);
    // At most one frame's replies beyond the bound, and nothing once the connection is gone.
    EXPECT_LE(peak, options.maxOutputBytes + 200 * 1024);
    EXPECT_TRUE(waitUntil([&] { return endpoint->stats().outputBytes == 0; }));
}

// Pings keep neither a silent client nor a non-reader connected; a client that answers its held
// connects is never idle, though it too sends nothing while a connect is held.
TEST_F(EndpointTest, IdleWebSocketsAreClosedThoughTheyPing) {
    auto options = defaults();
    options.connectTimeout = 100ms;
    // Long enough that a loaded machine never leaves the test's own client silent for as long.
    options.webSocketIdleTimeout = 1000ms;
    // Only the idle time may close the flooded non-reader, not its growing output.
    options.maxOutputBytes = std::size_t{1} << 30;
    start(options);
    LogCapture log;
    auto feeder = service("feeder");
    const std::string big = quote(std::string(64 * 1024, 'x'));

    struct Case {
        const char* name;
        Reading reading;
        bool sends;  // asks for its deliveries while its subscription floods it
        const char* closing;
    };
    for (const Case& c : {Case{"pings only", Reading::On, false,
                               "Closed a WebSocket that sent no frame for 1000 ms"},
                          Case{"connects, never reads", Reading::Off, true,
                               "Closed a WebSocket whose peer took no output for 1000 ms"}}) {
        SCOPED_TRACE(c.name);
        // The session is made over long-polling, as some clients do before moving on with
        // their browser cookie.
        std::string id;
        std::string cookie;
        {
            RawHttp http(port);
            id = open(http);
            cookie = http.cookie();
        }
        RawWebSocket ws(port, cookie, c.reading);
        ASSERT_TRUE(ws.send(subscribe(id, "s", "/orvale/flood")));
        ASSERT_TRUE(ws.send(connect(id, "c", 0)));
        const auto began = Clock::now();
        // Every connect is answered with what the flood queued, so the output outgrows any
        // kernel buffer; a slow build fills them slowly: allow it time.
        for (int n = 0; log.count(c.closing) == 0 && Clock::now() - began < 3 * orvale::test::kWait;
             ++n) {
            ws.ping();
            if (c.sends) {
                for (int i = 0; i < 16; ++i)
                    feeder->publish("/flood", big);
                ws.send(connect(id, "c" + std::to_string(n), 0));
            }
            std::this_thread::sleep_for(50ms);
        }
        EXPECT_EQ(log.count(c.closing), 1u) << [&] {
            std::string all;
            for (const auto& record : log.records())
                all += record.message + "\n";
            return all;
        }();
        EXPECT_GE(Clock::now() - began, 900ms);
        EXPECT_TRUE(waitUntil([&] { return endpoint->stats().connections == 0; }));
    }

    RawWebSocket healthy(port);
    const std::string id = open(healthy);
    for (int i = 0; i < 10; ++i) {
        const std::string n = std::to_string(i);
        ASSERT_TRUE(successful(healthy.call(connect(id, n), n))) << n;
    }
    EXPECT_EQ(endpoint->stats().connections, 1u);
}

}  // namespace
}  // namespace connector::bayeux::endpoint_test
