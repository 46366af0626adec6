// The paced socket under the client WebSocket, read directly over a loopback TCP connection.

#include "transport/paced_socket.h"

#include <gtest/gtest.h>

#include <atomic>
#include <boost/asio/connect.hpp>
#include <boost/asio/write.hpp>
#include <chrono>
#include <string>
#include <thread>

#include "log_capture.h"

namespace connector::bayeux::transport {
namespace {

namespace asio = boost::asio;
using tcp = asio::ip::tcp;
using orvale::test::waitUntil;
using namespace std::chrono_literals;

// A reader that keeps one read outstanding on a paced socket and counts what it took.
class Reader {
  public:
    explicit Reader(std::chrono::microseconds interval) : socket_(io_, interval) {}
    ~Reader() {
        io_.stop();
        if (thread_.joinable())
            thread_.join();
    }

    void connect(unsigned short port) {
        socket_.socket().connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port));
        readNext();
        thread_ = std::thread([this] { io_.run(); });
    }

    std::size_t bytes() const { return bytes_; }
    std::size_t reads() const { return reads_; }

  private:
    void readNext() {
        socket_.async_read_some(asio::buffer(buffer_),
                                [this](boost::system::error_code ec, std::size_t n) {
                                    if (ec)
                                        return;
                                    ++reads_;
                                    bytes_ += n;
                                    readNext();
                                });
    }

    asio::io_context io_;
    PacedSocket socket_;
    char buffer_[1536];
    std::atomic<std::size_t> bytes_{0};
    std::atomic<std::size_t> reads_{0};
    std::thread thread_;
};

TEST(PacedSocket, GathersAFastStreamAndNeverStrandsTheByteAfterIt) {
    asio::io_context io;
    tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
    Reader reader(2ms);
    reader.connect(acceptor.local_endpoint().port());
    tcp::socket writer = acceptor.accept();
    writer.set_option(tcp::no_delay(true));

    // 30-byte writes every 100 us: each lands in a segment of its own.
    constexpr int kWrites = 2000;
    const std::string chunk(30, 'x');
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kWrites; ++i) {
        std::this_thread::sleep_until(start + i * 100us);
        asio::write(writer, asio::buffer(chunk));
    }
    ASSERT_TRUE(waitUntil([&] { return reader.bytes() == kWrites * chunk.size(); }));
    // Read as they landed, there would be one read per write.
    EXPECT_LT(reader.reads(), kWrites / 4);

    // The stream has stopped: a paced read finds nothing, and then a single byte must wake the
    // reader although it is far below the low-water mark that pacing raised.
    std::this_thread::sleep_for(20ms);
    const std::size_t before = reader.reads();
    asio::write(writer, asio::buffer("!", 1));
    ASSERT_TRUE(waitUntil([&] { return reader.bytes() == kWrites * chunk.size() + 1; }));
    EXPECT_EQ(reader.reads(), before + 1);
}

TEST(PacedSocket, ReadsEveryArrivalWhenPacingIsOffOrTheStreamIsSlow) {
    for (const auto interval : {0us, 2000us}) {
        asio::io_context io;
        tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
        Reader reader(interval);
        reader.connect(acceptor.local_endpoint().port());
        tcp::socket writer = acceptor.accept();
        writer.set_option(tcp::no_delay(true));
        // Each write waits until the previous one was read, as in a ping-pong.
        for (std::size_t i = 1; i <= 50; ++i) {
            asio::write(writer, asio::buffer("abc", 3));
            ASSERT_TRUE(waitUntil([&] { return reader.bytes() == 3 * i; }));
            std::this_thread::sleep_for(1ms);  // slower than a quarter of the interval
        }
        EXPECT_EQ(reader.reads(), 50u) << interval.count();
    }
}

}  // namespace
}  // namespace connector::bayeux::transport
