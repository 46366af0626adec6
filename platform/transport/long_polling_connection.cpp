// One client long-polling connection (http:// or https://) over Boost.Beast.
//
// Every member without a lock note is touched only on the I/O thread, which is the one strand of
// the connection. send() and close() may come from any thread: they queue under mutex_ and post.

#include "long_polling_connection.h"

#include <boost/asio/connect.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/error.hpp>
#include <boost/beast/http/read.hpp>
#include <boost/beast/http/write.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <chrono>
#include <deque>
#include <functional>
#include <optional>
#include <thread>

#include "client_connection.h"
#include "connector/log/diagnostic_logger.h"
#include "http_reply.h"
#include "tls_client.h"

namespace connector::bayeux::transport {

namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;
using error_code = boost::system::error_code;

const foundation::log::basic_diagnostic_logger<char> logger("connector::bayeux::transport");

// A POST holds at most this many messages and bytes (one larger message goes alone), as a
// WebSocket frame does: servers refuse a body of too many messages whole.
constexpr std::size_t kBatchBytes = 64 * 1024;
constexpr std::size_t kBatchMessages = 500;
// Bytes of an undecodable answer quoted in the log line.
constexpr std::size_t kQuotedBytes = 200;

using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

template <class Stream>
constexpr bool kSecure = std::is_same_v<Stream, TlsStream>;

template <class Stream>
class LongPollingConnection final
    : public ClientConnection<LongPollingConnection<Stream>, LongPollingSettings> {
    using Base = ClientConnection<LongPollingConnection<Stream>, LongPollingSettings>;
    friend Base;
    using Phase = typename Base::Phase;
    using Base::closeRequested_, Base::context_, Base::inbound_, Base::mutex_, Base::phase_,
        Base::settings_, Base::timer_;

  public:
    LongPollingConnection(LongPollingSettings settings, Promise<MessagePtr> promise)
        : Base(std::move(settings), std::move(promise)) {}

  private:
    // One keep-alive HTTP connection and the request it carries.
    struct Lane {
        std::optional<Stream> stream;
        bool open = false;     // connected and reusable
        bool busy = false;     // a request is on its way or awaited
        bool reused = false;   // the stream answered a request before the current one
        bool retried = false;  // the current request already went a second time
        std::string body;      // kept until answered, for a retry
        http::request<http::string_body> request;
        beast::flat_buffer buffer;
        std::optional<HttpResponseParser> parser;
    };

    // ---- queueing, on the sending thread

    // A meta connect is queued for the connection that may be held, everything else for the
    // other one.
    bool queueLocked(const EncodedMessages& encoded) ORVALE_REQUIRES(mutex_) {
        std::size_t begin = 0;
        for (const auto& [end, isConnect] : encoded.ends) {
            (isConnect ? connects_ : requests_).push_back(encoded.text.substr(begin, end - begin));
            begin = end;
        }
        return !std::exchange(pumpPosted_, true);
    }
    void drain() { pump(); }

    // ---- connecting: the first connection must open before the client gets its streams

    void interruptConnect() { closeLane(requestLane_); }

    void onResolved(tcp::resolver::results_type results) {
        endpoints_ = std::move(results);
        openLane(requestLane_,
                 [self = this->shared_from_this()](error_code ec) { self->onOpened(ec); });
    }

    void onOpened(error_code ec) {
        if (ec || this->interrupted())
            return this->failConnect(ec);
        this->opened();
        // Between requests nothing of the socket's is pending to keep the connection alive, so
        // it keeps itself until it has finished.
        self_ = this->shared_from_this();
        this->handOverStreams();
    }

    std::string describe(error_code ec) { return describe(ec, requestLane_); }
    std::string describe(error_code ec, Lane& lane) {
        if constexpr (kSecure<Stream>)
            if (lane.stream)
                return describeTlsError(*lane.stream, ec);
        return ec.message();
    }

    // Opens a new connection for `lane` (TCP, then TLS), each step within the connect timeout.
    void openLane(Lane& lane, std::function<void(error_code)> then) {
        if constexpr (kSecure<Stream>)
            lane.stream.emplace(*context_, *settings_.tls);
        else
            lane.stream.emplace(*context_);
        lane.reused = false;
        lane.buffer.consume(lane.buffer.size());
        auto& tcpStream = beast::get_lowest_layer(*lane.stream);
        tcpStream.expires_after(std::chrono::milliseconds(settings_.options.connectTimeoutMs));
        tcpStream.async_connect(endpoints_, [self = this->shared_from_this(), &lane,
                                             then = std::move(then)](error_code ec,
                                                                     const tcp::endpoint&) mutable {
            if (ec)
                return then(ec);
            error_code ignored;
            beast::get_lowest_layer(*lane.stream).socket().set_option(tcp::no_delay(true), ignored);
            if constexpr (kSecure<Stream>) {
                prepareClientTls(*lane.stream, self->settings_.parts.host,
                                 self->settings_.options.verifyPeer);
                lane.stream->async_handshake(asio::ssl::stream_base::client,
                                             [&lane, then = std::move(then)](error_code ec) {
                                                 lane.open = !ec;
                                                 then(ec);
                                             });
            } else {
                lane.open = true;
                then(ec);
            }
        });
    }

    void closeLane(Lane& lane) {
        lane.open = false;
        if (lane.stream)
            beast::get_lowest_layer(*lane.stream).close();
    }

    // ---- requests

    // Starts what is queued on each idle connection; once closing, ends when nothing but a held
    // connect is left unanswered.
    void pump() {
        bool startConnect = false, startRequest = false, closing = false;
        {
            common::MutexLock lock(mutex_);
            pumpPosted_ = false;
            if (phase_ != Phase::Open && phase_ != Phase::Closing)
                return;
            closing = closeRequested_;
            if (!closing && !connectLane_.busy && !connects_.empty()) {
                connectLane_.body = "[" + connects_.front() + "]";
                connects_.pop_front();
                startConnect = connectLane_.busy = true;
            }
            if (!requestLane_.busy && !requests_.empty()) {
                takeBatch(requestLane_.body);
                startRequest = requestLane_.busy = true;
            }
        }
        if (startConnect)
            issue(connectLane_);
        if (startRequest)
            issue(requestLane_);
        if (!closing)
            return;
        if (!requestLane_.busy)
            return finish(true);
        if (phase_ == Phase::Open) {
            phase_ = Phase::Closing;
            this->armCloseDeadline();
        }
    }

    void takeBatch(std::string& body) ORVALE_REQUIRES(mutex_) {
        body = "[";
        std::size_t count = 0;
        while (!requests_.empty() && count < kBatchMessages &&
               (count == 0 || body.size() + requests_.front().size() < kBatchBytes)) {
            if (count++ > 0)
                body += ',';
            body += requests_.front();
            requests_.pop_front();
        }
        body += ']';
    }

    void issue(Lane& lane) {
        if (lane.open)
            return write(lane);
        openLane(lane, [self = this->shared_from_this(), &lane](error_code ec) {
            if (ec)
                return self->exchangeFailed(lane, ec);
            self->write(lane);
        });
    }

    void write(Lane& lane) {
        if (phase_ == Phase::Closed)
            return;
        auto& request = lane.request;
        request = {};
        request.method(http::verb::post);
        request.target(settings_.parts.target);
        request.version(11);
        request.set(http::field::host, settings_.parts.hostHeader);
        request.set(http::field::content_type, "application/json;charset=UTF-8");
        for (const auto& [name, value] : settings_.headers)
            request.set(name, value);
        if (settings_.cookies) {
            const std::string cookies = settings_.cookies->header(
                settings_.parts.host, settings_.parts.target, settings_.parts.secure);
            if (!cookies.empty())
                request.set(http::field::cookie, cookies);
        }
        request.keep_alive(true);
        request.body() = lane.body;
        request.prepare_payload();
        beast::get_lowest_layer(*lane.stream)
            .expires_after(std::chrono::milliseconds(settings_.options.requestTimeoutMs));
        http::async_write(*lane.stream, request,
                          [self = this->shared_from_this(), &lane](error_code ec, std::size_t) {
                              if (ec)
                                  return self->exchangeFailed(lane, ec);
                              self->read(lane);
                          });
    }

    void read(Lane& lane) {
        lane.parser.emplace();
        limitReplyParser(*lane.parser, settings_.options.maxFrameBytes);
        http::async_read(*lane.stream, lane.buffer, *lane.parser,
                         [self = this->shared_from_this(), &lane](error_code ec, std::size_t) {
                             if (ec)
                                 return self->exchangeFailed(lane, ec);
                             self->onAnswered(lane);
                         });
    }

    void onAnswered(Lane& lane) {
        if (phase_ == Phase::Closed)
            return;
        const HttpResponse response = lane.parser->release();
        lane.parser.reset();
        lane.busy = false;
        lane.reused = true;
        lane.retried = false;
        lane.body = std::string();
        if (!response.keep_alive())
            closeLane(lane);
        HttpReply reply = readReply(response, settings_.cookies.get(), settings_.parts);
        if (!reply.failure.empty()) {
            logger.log(foundation::log::error, "Closing the connection to ", settings_.url, ": ",
                       reply.failure, "; body: ", response.body().substr(0, kQuotedBytes));
            return finish(false);
        }
        for (const auto& problem : reply.problems)
            logger.log(foundation::log::error, "Dropped what could not be decoded from ",
                       settings_.url, ": ", problem,
                       "; body: ", response.body().substr(0, kQuotedBytes));
        this->pushInbound(reply.messages);
        pump();
    }

    // A keep-alive connection the server closed while it was idle fails the next request before
    // any of the answer arrived: that request goes once more, on a new connection.
    void exchangeFailed(Lane& lane, error_code ec) {
        const bool nothingRead = !lane.parser || !lane.parser->got_some();
        lane.parser.reset();
        closeLane(lane);
        if (phase_ == Phase::Closed)
            return;
        if (phase_ == Phase::Open && lane.reused && !lane.retried && nothingRead &&
            ec != beast::error::timeout) {
            lane.retried = true;
            return issue(lane);
        }
        lane.busy = false;
        if (ec == http::error::body_limit)
            logger.log(foundation::log::error, "An answer from ", settings_.url, " is larger than ",
                       settings_.options.maxFrameBytes, " bytes; closing the connection");
        else
            logger.log(foundation::log::trace, "Connection to ", settings_.url,
                       " lost: ", describe(ec, lane));
        finish(false);
    }

    // ---- closing

    void onCloseWhileOpen() {
        pump();  // sends what is still queued first; its answer ends the connection
    }

    // Ends the connection once: closes both sockets and completes the inbound stream.
    void finish(bool clean) {
        if (phase_ == Phase::Closed)
            return;
        phase_ = Phase::Closed;
        timer_.cancel();
        closeLane(connectLane_);
        closeLane(requestLane_);
        {
            common::MutexLock lock(mutex_);
            closeRequested_ = true;
            connects_.clear();
            requests_.clear();
        }
        logger.log(foundation::log::trace, "Connection to ", settings_.url, " closed",
                   clean ? "" : " uncleanly");
        inbound_->complete(clean);               // its end then ends the outbound side too
        const auto released = std::move(self_);  // the caller holds its own reference
    }

    tcp::resolver::results_type endpoints_;
    Lane connectLane_;                             // the /meta/connect, which the server may hold
    Lane requestLane_;                             // everything else
    std::shared_ptr<LongPollingConnection> self_;  // set while open

    std::deque<std::string> connects_ ORVALE_GUARDED_BY(this->mutex_);  // encoded messages
    std::deque<std::string> requests_ ORVALE_GUARDED_BY(this->mutex_);
    bool pumpPosted_ ORVALE_GUARDED_BY(this->mutex_) = false;
};

}  // namespace

std::shared_ptr<Connection> openLongPollingConnection(LongPollingSettings settings,
                                                      Promise<MessagePtr> promise) {
    if (settings.parts.secure) {
        auto connection = std::make_shared<LongPollingConnection<TlsStream>>(std::move(settings),
                                                                             std::move(promise));
        connection->start();
        return connection;
    }
    auto connection = std::make_shared<LongPollingConnection<PlainStream>>(std::move(settings),
                                                                           std::move(promise));
    connection->start();
    return connection;
}

}  // namespace connector::bayeux::transport
