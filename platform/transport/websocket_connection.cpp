// One client WebSocket connection (ws:// or wss://) over Boost.Beast.
//
// Every member without a lock note is touched only on the I/O thread, which is the one strand of
// the connection. send() and close() may come from any thread: they queue under mutex_ and post.

#include "websocket_connection.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <chrono>
#include <deque>
#include <string_view>
#include <thread>
#include <vector>

#include "bayeux/codec.h"
#include "client_connection.h"
#include "connector/log/diagnostic_logger.h"
#include "http_reply.h"
#include "outbound_frames.h"
#include "paced_socket.h"
#include "tls_client.h"

namespace connector::bayeux::transport {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using error_code = boost::system::error_code;

const foundation::log::basic_diagnostic_logger<char> logger("connector::bayeux::transport");

// Bytes of an undecodable frame quoted in the log line.
constexpr std::size_t kQuotedFrameBytes = 200;
// The read buffer is given back after a frame larger than this.
constexpr std::size_t kKeptReadBuffer = 64 * 1024;
// A batch frame holds at most this many bytes, so a burst of queued messages never makes a frame
// that a server's frame limit refuses; a larger message goes in a frame of its own.
constexpr std::size_t kBatchFrameBytes = 64 * 1024;
// Nor more messages than this: hubs refuse a frame of too many messages whole (ours at 1000 by
// default), and small messages would pass that long before 64 KiB.
constexpr std::size_t kBatchFrameMessages = 500;
// In a fast stream (the last flush took at least kFastStreamFrame messages, less than a quarter
// of the write pacing interval ago, the rule reads are paced by), a frame is held until the
// interval after the last one: fewer, larger frames cost the sender, the server and the receiver
// less per message. A slower stream is never held.
constexpr std::size_t kFastStreamFrame = 8;

template <class NextLayer>
constexpr bool kSecure = !std::is_same_v<NextLayer, PacedSocket>;

template <class NextLayer>
class WebSocketConnection final
    : public ClientConnection<WebSocketConnection<NextLayer>, WebSocketSettings> {
    using Base = ClientConnection<WebSocketConnection<NextLayer>, WebSocketSettings>;
    friend Base;
    using Phase = typename Base::Phase;
    using Base::closeRequested_, Base::context_, Base::inbound_, Base::mutex_, Base::phase_,
        Base::settings_, Base::timer_;

  public:
    template <class... StreamArgs>
    WebSocketConnection(WebSocketSettings settings, Promise<MessagePtr> promise,
                        StreamArgs&&... streamArgs)
        : Base(std::move(settings), std::move(promise)),
          ws_(std::forward<StreamArgs>(streamArgs)...),
          paceTimer_(*context_),
          writePacing_(settings_.options.writePacingUs) {
        ws_.read_message_max(settings_.options.maxFrameBytes);
        ws_.auto_fragment(false);
        // A client masks what it sends through this buffer, one write to the socket per buffer
        // full: at Beast's default of 4 KiB a batch frame left in many small segments, each of
        // which woke the server.
        ws_.write_buffer_bytes(kBatchFrameBytes);
        ws_.text(true);
        websocket::stream_base::timeout timeouts{};
        // The connect and close deadlines are our own timer's; Beast's would only duplicate them.
        timeouts.handshake_timeout = websocket::stream_base::none();
        const std::chrono::milliseconds idle(settings_.options.idleTimeoutMs);
        timeouts.idle_timeout = idle.count() > 0 ? idle : websocket::stream_base::none();
        timeouts.keep_alive_pings = idle.count() > 0;
        ws_.set_option(timeouts);
    }

  private:
    // ---- queueing, on the sending thread

    // A meta connect travels alone: servers answer a frame only when all of it is answered, and
    // they hold a connect for up to their timeout, so anything batched with it would wait that
    // long (and a disconnect beside it would never be answered at all).
    bool queueLocked(const EncodedMessages& encoded) ORVALE_REQUIRES(mutex_) {
        std::size_t begin = 0;
        for (const auto& [end, alone] : encoded.ends) {
            pending_.add(std::string_view(encoded.text).substr(begin, end - begin), alone);
            begin = end;
        }
        return !std::exchange(flushPosted_, true);
    }
    void drain() { flush(); }

    // ---- connecting

    void interruptConnect() {
        error_code ignored;
        socket().close(ignored);
    }

    void onResolved(const tcp::resolver::results_type& results) {
        asio::async_connect(socket(), results,
                            [self = this->shared_from_this()](error_code ec, const tcp::endpoint&) {
                                self->onConnected(ec);
                            });
    }

    void onConnected(error_code ec) {
        if (ec || this->interrupted())
            return this->failConnect(ec);
        error_code ignored;
        socket().set_option(tcp::no_delay(true), ignored);
        if constexpr (kSecure<NextLayer>) {
            auto& tls = ws_.next_layer();
            prepareClientTls(tls, settings_.parts.host, settings_.options.verifyPeer);
            tls.async_handshake(
                asio::ssl::stream_base::client,
                [self = this->shared_from_this()](error_code ec) { self->onTlsHandshake(ec); });
        } else {
            onTlsHandshake(ec);
        }
    }

    void onTlsHandshake(error_code ec) {
        if (ec || this->interrupted())
            return this->failConnect(ec);
        // The upgrade carries the client's own headers and its cookies for this URL.
        std::string cookies;
        if (settings_.cookies)
            cookies = settings_.cookies->header(settings_.parts.host, settings_.parts.target,
                                                settings_.parts.secure);
        ws_.set_option(websocket::stream_base::decorator(
            [headers = settings_.headers, cookies](websocket::request_type& request) {
                for (const auto& [name, value] : headers)
                    request.set(name, value);
                if (!cookies.empty())
                    request.set(beast::http::field::cookie, cookies);
            }));
        ws_.async_handshake(
            upgradeResponse_, settings_.parts.hostHeader, settings_.parts.target,
            [self = this->shared_from_this()](error_code ec) { self->onHandshake(ec); });
    }

    void onHandshake(error_code ec) {
        storeCookies(upgradeResponse_.base(), settings_.cookies.get(), settings_.parts);
        upgradeResponse_ = {};
        if (ec || this->interrupted())
            return this->failConnect(ec);
        this->opened();
        readNext();
        this->handOverStreams();
    }

    tcp::socket& socket() { return beast::get_lowest_layer(ws_); }

    std::string describe(error_code ec) {
        if constexpr (kSecure<NextLayer>)
            return describeTlsError(ws_.next_layer(), ec);
        return ec.message();
    }

    // ---- reading

    void readNext() {
        ws_.async_read(readBuffer_, [self = this->shared_from_this()](error_code ec, std::size_t) {
            self->onRead(ec);
        });
    }

    void onRead(error_code ec) {
        if (ec) {
            if (ec == websocket::error::message_too_big)
                logger.log(foundation::log::error, "A frame from ", settings_.url,
                           " is larger than ", settings_.options.maxFrameBytes,
                           " bytes; closing the connection");
            else if (phase_ == Phase::Open && ec != websocket::error::closed)
                logger.log(foundation::log::trace, "Connection to ", settings_.url,
                           " lost: ", ec.message());
            // While closing, the close handshake or its deadline ends the connection.
            if (phase_ != Phase::Closing)
                finish(ec == websocket::error::closed);
            return;
        }
        const std::string_view frame(static_cast<const char*>(readBuffer_.data().data()),
                                     readBuffer_.size());
        codec::Decoded decoded = codec::decodeFromServer(frame);
        for (const auto& problem : decoded.errors)
            logger.log(foundation::log::error, "Dropped what could not be decoded from ",
                       settings_.url, ": ", problem.text(),
                       "; frame: ", frame.substr(0, kQuotedFrameBytes));
        readBuffer_.consume(readBuffer_.size());
        if (readBuffer_.capacity() > kKeptReadBuffer)
            readBuffer_.shrink_to_fit();

        this->pushInbound(decoded.messages);
        if (phase_ == Phase::Open || phase_ == Phase::Closing)
            readNext();
    }

    // ---- writing

    // Hands the queued frames to the socket once the previous write is done, or begins the close
    // once nothing is left.
    void flush() {
        if (!outgoing_.empty())
            return writeNext();
        bool closeNow = false;
        {
            common::MutexLock lock(mutex_);
            if (writing_ || phase_ != Phase::Open) {
                flushPosted_ = false;
                return;
            }
            const auto now = std::chrono::steady_clock::now();
            if (writePacing_.count() > 0 && lastFlushed_ >= kFastStreamFrame &&
                now - lastFlush_ < writePacing_ / 4 && !closeRequested_ && !pending_.empty()) {
                // flushPosted_ stays set, so senders do not post while the frame is held.
                if (!paceArmed_) {
                    paceArmed_ = true;
                    paceTimer_.expires_at(lastFlush_ + writePacing_);
                    paceTimer_.async_wait([self = this->shared_from_this()](error_code) {
                        self->paceArmed_ = false;
                        self->flush();
                    });
                }
                return;
            }
            flushPosted_ = false;
            lastFlush_ = now;
            lastFlushed_ = pending_.takeAll(outgoing_, written_);
            closeNow = closeRequested_;
        }
        if (outgoing_.empty()) {
            if (closeNow)
                beginClose();
            return;
        }
        writeNext();
    }

    void writeNext() {
        if (writing_ || phase_ != Phase::Open)
            return;
        writing_ = true;
        ws_.async_write(
            asio::buffer(outgoing_.front()),
            [self = this->shared_from_this()](error_code ec, std::size_t) { self->onWritten(ec); });
    }

    void onWritten(error_code ec) {
        writing_ = false;
        written_.push_back(std::move(outgoing_.front()));
        outgoing_.pop_front();
        if (ec) {
            if (phase_ == Phase::Open) {
                logger.log(foundation::log::trace, "Writing to ", settings_.url,
                           " failed: ", ec.message());
                finish(false);
            }
            return;
        }
        flush();
    }

    // ---- closing

    void onCloseWhileOpen() {
        if (phase_ == Phase::Open && !writing_) {
            flush();  // sends what is still queued first; the write's completion closes
        } else if (phase_ == Phase::Open) {
            // A peer that stopped reading never lets the write finish: the close waits for it
            // as long as it would for the peer's close, no longer.
            this->armCloseDeadline();
        }
    }

    void beginClose() {
        if (phase_ != Phase::Open)
            return;
        phase_ = Phase::Closing;
        this->armCloseDeadline();
        ws_.async_close(websocket::close_code::normal,
                        [self = this->shared_from_this()](error_code ec) { self->finish(!ec); });
    }

    // Ends the connection once: closes the socket and completes the inbound stream.
    void finish(bool clean) {
        if (phase_ == Phase::Closed)
            return;
        phase_ = Phase::Closed;
        timer_.cancel();
        paceTimer_.cancel();
        error_code ignored;
        socket().close(ignored);
        {
            common::MutexLock lock(mutex_);
            closeRequested_ = true;
            pending_.clear();
        }
        logger.log(foundation::log::trace, "Connection to ", settings_.url, " closed",
                   clean ? "" : " uncleanly");
        inbound_->complete(clean);  // its end then ends the outbound side too
    }

    websocket::stream<NextLayer> ws_;
    asio::steady_timer paceTimer_;  // releases a held frame
    const std::chrono::microseconds writePacing_;
    std::chrono::steady_clock::time_point lastFlush_;
    std::size_t lastFlushed_ = 0;  // messages in the frames of the last flush
    bool paceArmed_ = false;
    beast::flat_buffer readBuffer_;
    websocket::response_type upgradeResponse_;  // read for its cookies, then cleared
    std::deque<std::string> outgoing_;          // encoded frames; the front one is being written
    // Frames written since the last flush, whose buffers go back to pending_ for reuse.
    std::vector<std::string> written_;
    bool writing_ = false;

    OutboundFrames pending_ ORVALE_GUARDED_BY(this->mutex_) = OutboundFrames(kBatchFrameBytes,
                                                                             kBatchFrameMessages);
    bool flushPosted_ ORVALE_GUARDED_BY(this->mutex_) = false;
};

}  // namespace

std::shared_ptr<Connection> openWebSocketConnection(WebSocketSettings settings,
                                                    Promise<MessagePtr> promise) {
    auto& io = *settings.context;
    const std::chrono::microseconds pace(settings.options.readPacingUs);
    if (settings.parts.secure) {
        auto tls = settings.tls;
        auto connection = std::make_shared<WebSocketConnection<beast::ssl_stream<PacedSocket>>>(
            std::move(settings), std::move(promise), PacedSocket(io, pace), *tls);
        connection->start();
        return connection;
    }
    auto connection = std::make_shared<WebSocketConnection<PacedSocket>>(
        std::move(settings), std::move(promise), PacedSocket(io, pace));
    connection->start();
    return connection;
}

}  // namespace connector::bayeux::transport
