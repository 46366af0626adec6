// The paced socket under the client WebSocket, read directly over a loopback TCP connection.

#include "transport/paced_socket.h"

#include <gtest/gtest.h>

#include <boost/asio/write.hpp>
#include <thread>

#include "log_capture.h"

namespace connector::bayeux::transport {
namespace {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using orvale::test::waitUntil;
using namespace std::chrono_literals;

// A loopback writer, and a reader that keeps one read outstanding on a paced socket.
struct Pair {
    explicit Pair(std::chrono::microseconds interval) : socket(io, interval) {
        tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
        socket.socket().connect(acceptor.local_endpoint());
        writer = acceptor.accept();
        writer.set_option(tcp::no_delay(true));
        readNext();
        thread = std::thread([this] { io.run(); });
    }
    ~Pair() {
        io.stop();
        thread.join();
    }
    void write(const std::string& text) { asio::write(writer, asio::buffer(text)); }
    void readNext() {
        socket.async_read_some(asio::buffer(buffer),
                               [this](boost::system::error_code ec, std::size_t n) {
                                   if (ec)
                                       return;
                                   ++reads;
                                   bytes += n;
                                   readNext();
                               });
    }

    asio::io_context io;
    PacedSocket socket;
    tcp::socket writer{io};
    char buffer[1536];
    std::atomic<std::size_t> bytes{0}, reads{0};
    std::thread thread;
};

TEST(PacedSocket, GathersAFastStreamAndNeverStrandsTheByteAfterIt) {
    Pair pair(2ms);
    // 30-byte writes every 100 us: each lands in a segment of its own.
    constexpr std::size_t kWrites = 2000;
    const std::string chunk(30, 'x');
    // Ended by a larger write, the last paced read gathers plenty and the next finds nothing.
    const std::string last(700, 'y');
    auto fastStream = [&](bool endLarger) {
        const auto start = std::chrono::steady_clock::now();
        for (std::size_t i = 0; i < kWrites; ++i) {
            std::this_thread::sleep_until(start + i * 100us);
            pair.write(chunk);
        }
        if (endLarger)
            pair.write(last);
    };
    const std::size_t streamed = kWrites * chunk.size() + last.size();
    fastStream(true);
    ASSERT_TRUE(waitUntil([&] { return pair.bytes == streamed; }));
    EXPECT_LT(pair.reads, kWrites / 4);  // read as they landed, there would be one per write

    // The stream has stopped: a paced read finds nothing, and then a single byte must wake the
    // reader although it is far below the low-water mark that pacing raised.
    std::this_thread::sleep_for(20ms);
    const std::size_t before = pair.reads;
    pair.write("!");
    ASSERT_TRUE(waitUntil([&] { return pair.bytes == streamed + 1; }));
    EXPECT_EQ(pair.reads, before + 1);

    // Fast again, then slower: a chunk or two per paced read gathers too little, pacing stops,
    // and nothing is lost.
    fastStream(false);
    for (int i = 0; i < 20; ++i) {
        std::this_thread::sleep_for(1ms);
        pair.write(chunk);
    }
    ASSERT_TRUE(
        waitUntil([&] { return pair.bytes == streamed + (kWrites + 20) * chunk.size() + 1; }));

    // Paced or not, a slow stream is read arrival by arrival.
    for (const auto interval : {0us, 2000us}) {
        Pair slow(interval);
        // Each write waits until the previous one was read, as in a ping-pong.
        for (std::size_t i = 1; i <= 50; ++i) {
            slow.write("abc");
            ASSERT_TRUE(waitUntil([&] { return slow.bytes == 3 * i; }));
            std::this_thread::sleep_for(1ms);  // slower than a quarter of the interval
        }
        EXPECT_EQ(slow.reads, 50u) << interval.count();
    }
}

}  // namespace
}  // namespace connector::bayeux::transport
