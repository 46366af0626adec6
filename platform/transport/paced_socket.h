#pragma once
// The TCP layer under a client WebSocket: a socket whose reads are paced while a fast stream of
// small frames arrives, so that one wake-up of the I/O thread takes in several frames, not one.
//
// A server that writes every delivery as a frame of its own sends tens of thousands of small TCP
// segments a second; taking each one as it lands costs a wake-up, an epoll round, a receive and
// an ACK per frame, far more than handling the frame. So once reads that empty the socket come
// less than a quarter of `interval` apart, reads are paced: each waits until `interval` after
// the previous one, with the socket's receive low-water mark raised so that the segments
// arriving meanwhile wake nobody, then takes them all in one receive. Pacing ends when a paced
// read finds nothing; the low-water mark is back at one byte before any read that may wait for
// data, so nothing is ever stranded. A ping-pong or a slower stream is never paced, a read that
// filled the buffer is followed at once, a connection that wrote within the interval (someone
// awaits the answers) is read at once, and the longest a frame waits is `interval`. An
// interval of zero turns pacing off.
//
// Only the I/O thread touches it. Only included by the transport's own .cpp files.

#include <sys/socket.h>

#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/bind_executor.hpp>
#include <boost/asio/buffer.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/websocket/teardown.hpp>
#include <chrono>
#include <utility>

namespace connector::bayeux::transport {

class PacedSocket {
  public:
    using socket_type = boost::asio::ip::tcp::socket;
    using executor_type = socket_type::executor_type;
    using next_layer_type = socket_type;
    using lowest_layer_type = socket_type::lowest_layer_type;
    using Clock = std::chrono::steady_clock;

    PacedSocket(boost::asio::io_context& io, std::chrono::microseconds interval)
        : socket_(io), timer_(io), interval_(interval) {}

    executor_type get_executor() { return socket_.get_executor(); }
    socket_type& next_layer() { return socket_; }
    socket_type& socket() { return socket_; }
    lowest_layer_type& lowest_layer() { return socket_.lowest_layer(); }

    template <class ConstBuffers, class Handler>
    auto async_write_some(const ConstBuffers& buffers, Handler&& handler) {
        lastWrite_ = Clock::now();
        return socket_.async_write_some(buffers, std::forward<Handler>(handler));
    }

    template <class MutableBuffers, class Handler>
    auto async_read_some(const MutableBuffers& buffers, Handler&& handler) {
        return boost::asio::async_initiate<Handler, void(boost::system::error_code, std::size_t)>(
            [this](auto&& handler, const MutableBuffers& buffers) {
                this->startRead(buffers, std::forward<decltype(handler)>(handler));
            },
            handler, buffers);
    }

  private:
    // Segments smaller than this, together, wake nobody while a paced read waits.
    static constexpr int kPacedLowWater = 16 * 1024;
    // Pacing starts after this many reads in a row came fast, and goes on while each paced read
    // gathers at least kGathered times what one such read took.
    static constexpr int kFastReads = 4;
    static constexpr std::size_t kGathered = 4;

    template <class MutableBuffers, class Handler>
    void startRead(const MutableBuffers& buffers, Handler&& handler) {
        const auto due = lastDrained_ + interval_;
        const auto now = Clock::now();
        // Answers to what was just sent are awaited by someone: they are never held back.
        if (!pacing_ || !drained_ || now >= due || now - lastWrite_ < interval_) {
            setLowWater(1);
            return readNow(buffers, std::forward<Handler>(handler));
        }
        setLowWater(kPacedLowWater);
        timer_.expires_at(due);
        // The executor is taken before the handler moves into the lambda.
        const auto executor = boost::asio::get_associated_executor(handler, get_executor());
        timer_.async_wait(boost::asio::bind_executor(
            executor, [this, buffers, handler = std::forward<Handler>(handler)](
                          boost::system::error_code) mutable { readPaced(buffers, handler); }));
    }

    // Takes what arrived during the wait; if nothing did, the stream has paused, so the read
    // waits for the next byte like any other.
    template <class MutableBuffers, class Handler>
    void readPaced(const MutableBuffers& buffers, Handler& handler) {
        boost::system::error_code ec;
        // The descriptor is non-blocking already; this only stops read_some() from waiting.
        if (!socket_.non_blocking())
            socket_.non_blocking(true, ec);
        std::size_t n = 0;
        if (!ec)
            n = socket_.read_some(buffers, ec);
        if (ec == boost::asio::error::would_block || ec == boost::asio::error::try_again) {
            stopPacing();
            drained_ = false;
            setLowWater(1);
            return readNow(buffers, std::move(handler));
        }
        noteRead(ec, n, boost::asio::buffer_size(buffers), true);
        std::move(handler)(ec, n);
    }

    template <class MutableBuffers, class Handler>
    void readNow(const MutableBuffers& buffers, Handler&& handler) {
        const std::size_t wanted = boost::asio::buffer_size(buffers);
        const auto executor = boost::asio::get_associated_executor(handler, get_executor());
        socket_.async_read_some(
            buffers, boost::asio::bind_executor(
                         executor, [this, wanted, handler = std::forward<Handler>(handler)](
                                       boost::system::error_code ec, std::size_t n) mutable {
                             noteRead(ec, n, wanted);
                             std::move(handler)(ec, n);
                         }));
    }

    void noteRead(const boost::system::error_code& ec, std::size_t n, std::size_t wanted,
                  bool paced = false) {
        const bool drained = !ec && n < wanted;
        if (drained && interval_.count() > 0) {
            const auto now = Clock::now();
            if (paced) {
                // Pacing that gathers little only adds delay.
                if (n < kGathered * unpacedBytes_)
                    stopPacing();
            } else if (drained_ && now - lastDrained_ < interval_ / 4) {
                unpacedBytes_ = n;
                if (++fastReads_ >= kFastReads)
                    pacing_ = true;
            } else {
                fastReads_ = 0;
            }
            lastDrained_ = now;
        }
        drained_ = drained;
    }

    void stopPacing() {
        pacing_ = false;
        fastReads_ = 0;
    }

    void setLowWater(int bytes) {
        if (lowWater_ == bytes || !socket_.is_open())
            return;
        // A socket that refuses the option is simply read unpaced.
        if (::setsockopt(socket_.native_handle(), SOL_SOCKET, SO_RCVLOWAT, &bytes, sizeof bytes) ==
            0)
            lowWater_ = bytes;
    }

    socket_type socket_;
    boost::asio::steady_timer timer_;
    const std::chrono::microseconds interval_;
    Clock::time_point lastDrained_{};
    Clock::time_point lastWrite_{};
    bool drained_ = false;          // the last read took everything the socket had
    bool pacing_ = false;           // reads are paced
    int fastReads_ = 0;             // drained reads in a row that came fast
    std::size_t unpacedBytes_ = 0;  // what the last fast unpaced read took
    int lowWater_ = 1;              // the socket's receive low-water mark
};

// The WebSocket close handshake ends with the plain socket's teardown.
inline void teardown(boost::beast::role_type role, PacedSocket& stream,
                     boost::system::error_code& ec) {
    boost::beast::websocket::teardown(role, stream.socket(), ec);
}

template <class TeardownHandler>
void async_teardown(boost::beast::role_type role, PacedSocket& stream, TeardownHandler&& handler) {
    boost::beast::websocket::async_teardown(role, stream.socket(),
                                            std::forward<TeardownHandler>(handler));
}

}  // namespace connector::bayeux::transport
