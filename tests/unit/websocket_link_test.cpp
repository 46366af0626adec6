// The WebSocket link lets go of misbehaving clients, and of the memory it holds for them, within
// its bounds: one that never reads, one that only pings, one that leaves the hub's writes unread.

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/beast/websocket/stream.hpp>
#include <fstream>
#include <thread>

#include "endpoint_clients.h"

namespace connector::bayeux::endpoint_test {
namespace {

namespace websocket = beast::websocket;

// The most memory this process has held since the last call, which resets the kernel's count.
std::size_t peakResidentBytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    std::size_t kib = 0;
    while (std::getline(status, line))
        if (line.rfind("VmHWM:", 0) == 0)
            kib = std::stoul(line.substr(6));
    std::ofstream("/proc/self/clear_refs") << "5";
    return kib * 1024;
}

// Unread replies past the output bound close the WebSocket; so does a 64 KB frame inflating to
// 64 MiB, stopped at the frame bound without the hub's memory growing with the bomb.
TEST_F(EndpointTest, UnreadRepliesInflatingFramesAndIdlenessCloseTheWebSocketThoughItPings) {
    constexpr std::size_t bound = 256 * 1024;
    start([&](EndpointOptions& o) {
        o.maxOutputBytes = bound;
        o.maxMessagesPerFrame = 2000;  // so that the output bound, not the cap, ends it
        o.deflate = true;
    });
    LogCapture log;
    RawWebSocket silent(port, "", Reading::Off);
    ASSERT_EQ(endpoint->stats().connections, 1u);
    // Numbers the hub cannot read, earning some 100 KB of error replies a frame: the kernel's
    // buffers fill first, then the hub's.
    const std::string frame = batch(std::vector<std::string>(2000, "[1]"));
    std::size_t peak = 0;
    const auto deadline = Clock::now() + kWait;
    while (endpoint->stats().connections != 0 && Clock::now() < deadline) {
        silent.send(frame);
        peak = std::max(peak, endpoint->stats().outputBytes);
    }
    EXPECT_EQ(endpoint->stats().connections, 0u);
    EXPECT_EQ(log.count("Closed a connection whose unread output passed 262144 bytes"), 1u);
    // At most one frame's replies beyond the bound, and nothing once the connection is gone.
    EXPECT_LE(peak, bound + 200 * 1024);
    EXPECT_TRUE(waitUntil([&] { return endpoint->stats().outputBytes == 0; }));

    asio::io_context io;
    websocket::stream<beast::tcp_stream> ws(io);
    connectSocket(io, beast::get_lowest_layer(ws), port);
    websocket::permessage_deflate offer;
    offer.client_enable = true;
    offer.compLevel = 9;
    ws.set_option(offer);
    ws.write_buffer_bytes(std::size_t{1} << 20);  // room for the whole message in one frame
    ws.handshake("127.0.0.1", "/bayeux");
    const std::string spaces(std::size_t{64} << 20, ' ');
    peakResidentBytes();
    const std::size_t before = peakResidentBytes();
    complete(io, [&](auto handler) { ws.async_write(asio::buffer(spaces), handler); });
    beast::flat_buffer buffer;
    EXPECT_NE(complete(io, [&](auto handler) { ws.async_read(buffer, handler); }),
              asio::error::timed_out)
        << "the hub kept the connection";
    EXPECT_TRUE(waitUntil([&] { return endpoint->stats().connections == 0; }));
    EXPECT_EQ(log.count("Closed a WebSocket that sent a frame over 1048576 bytes"), 1u);
    EXPECT_LT(peakResidentBytes(), before + (std::size_t{16} << 20));

    // Pings keep neither a silent client nor a non-reader connected; a client that answers its
    // held connects is never idle, though it too sends nothing while a connect is held.
    start([](EndpointOptions& o) {
        o.connectTimeout = 100ms;
        // Long enough that a loaded machine never leaves the test's own client silent as long.
        o.webSocketIdleTimeout = 1000ms;
        // Only the idle time may close the flooded non-reader, not its growing output.
        o.maxOutputBytes = std::size_t{1} << 30;
    });
    auto feeder = services->createMessageService("feeder", {}).get();
    const std::string big = quote(std::string(64 * 1024, 'x'));

    struct Case {
        const char* closing;
        Reading reading;
        bool sends;  // asks for its deliveries while its subscription floods it
    };
    for (const Case& c :
         {Case{"Closed a WebSocket that sent no frame for 1000 ms", Reading::On, false},
          Case{"Closed a WebSocket whose peer took no output for 1000 ms", Reading::Off, true}}) {
        SCOPED_TRACE(c.closing);
        // The session is made over long-polling, as some clients do before moving on with their
        // browser cookie.
        auto http = std::make_unique<RawHttp>(port);
        const std::string id = open(*http);
        RawWebSocket ws(port, http->cookie(), c.reading);
        http.reset();
        ASSERT_TRUE(ws.send(subscribe(id, "s", "/orvale/flood")));
        ASSERT_TRUE(ws.send(connect(id, "c", 0)));
        const auto began = Clock::now();
        // Every connect is answered with what the flood queued, so the output outgrows any
        // kernel buffer; a slow build fills them slowly: allow it time.
        for (int n = 0; log.count(c.closing) == 0 && Clock::now() - began < 3 * kWait; ++n) {
            ws.ping();
            for (int i = 0; c.sends && i < 16; ++i)
                feeder->publish("/flood", big);
            if (c.sends)
                ws.send(connect(id, "c" + std::to_string(n), 0));
            std::this_thread::sleep_for(50ms);
        }
        std::string logged;
        for (const auto& record : log.records())
            logged += record.message + "\n";
        EXPECT_EQ(log.count(c.closing), 1u) << logged;
        EXPECT_GE(Clock::now() - began, 900ms);
        EXPECT_TRUE(waitUntil([&] { return endpoint->stats().connections == 0; }));
    }

    RawWebSocket healthy(port);
    const std::string id = open(healthy);
    const auto began = Clock::now();
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(successful(healthy.call(connect(id, std::to_string(i)), std::to_string(i))));
    EXPECT_GE(Clock::now() - began, 900ms) << "each connect is held for its timeout";
    EXPECT_EQ(endpoint->stats().connections, 1u);
}

}  // namespace
}  // namespace connector::bayeux::endpoint_test
