#pragma once
// Raw Boost.Beast peers on loopback, so that tests see exactly what goes over the wire: clients
// of the hub (RawWebSocket, over the bare client the load runs use, and RawHttp), and a
// WebSocket server (TestServer) for the client transport. A raw client owns an io_context that
// runs only while the test waits on it (bounded), so it needs no thread; the server serves its
// sessions on a thread of its own.

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <chrono>
#include <deque>
#include <functional>
#include <future>
#include <iterator>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "log_capture.h"
#include "raw_client.h"

namespace orvale::test {

namespace json = boost::json;
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;

using Clock = std::chrono::steady_clock;
using Millis = std::chrono::milliseconds;
using Predicate = std::function<bool(const json::object&)>;

inline constexpr Millis kWait{5000};

// The messages of a frame: an array of objects, or a single object.
inline std::vector<json::object> parseMessages(const std::string& text) {
    json::error_code ec;
    json::value value = json::parse(text, ec);
    if (ec)
        throw std::runtime_error("not JSON: " + text);
    if (value.is_object())
        return {value.get_object()};
    std::vector<json::object> out;
    if (value.is_array())
        for (auto& element : value.get_array())
            if (element.is_object())
                out.push_back(element.get_object());
    return out;
}

inline std::string str(const json::object& message, const char* name) {
    const json::value* v = message.if_contains(name);
    return v && v->is_string() ? std::string(v->get_string()) : std::string();
}

inline bool isChannel(const json::object& message, const std::string& channel) {
    return str(message, "channel") == channel;
}

inline Predicate onChannel(std::string channel) {
    return [channel](const json::object& m) { return isChannel(m, channel); };
}

inline Predicate withId(std::string id) {
    return [id](const json::object& m) { return str(m, "id") == id; };
}

// Runs `io` until `done` holds or `timeout` passes.
inline bool runUntil(asio::io_context& io, const std::function<bool()>& done,
                     Millis timeout = kWait) {
    const auto deadline = Clock::now() + timeout;
    while (!done()) {
        if (Clock::now() >= deadline)
            return false;
        io.restart();
        io.run_for(Millis(5));
    }
    return true;
}

// Starts an asynchronous operation, passing `start` a handler that notes its outcome, and runs
// `io` until it completes: its error, or timed_out when it did not complete in time.
template <class Start>
beast::error_code complete(asio::io_context& io, Start&& start) {
    bool done = false;
    beast::error_code error;
    start([&](beast::error_code ec, auto&&...) {
        error = ec;
        done = true;
    });
    return runUntil(io, [&] { return done; }) ? error : beast::error_code(asio::error::timed_out);
}

// The name=value pair of a Set-Cookie value, without its attributes.
inline std::string cookiePair(beast::string_view setCookie) {
    return std::string(setCookie.substr(0, setCookie.find(';')));
}

inline void connectSocket(asio::io_context& io, beast::tcp_stream& stream, std::uint16_t port) {
    const tcp::endpoint hub(asio::ip::make_address("127.0.0.1"), port);
    if (auto ec = complete(io, [&](auto handler) { stream.async_connect(hub, handler); }))
        throw std::runtime_error("cannot connect: " + ec.message());
}

// Reading::Off makes a client that never reads what it is sent, with a small receive buffer so
// that the hub's writes to it soon stall. A `cookie` (name=value) is sent with the upgrade, as a
// browser sends its cookies.
enum class Reading { On, Off };

class RawWebSocket {
  public:
    explicit RawWebSocket(std::uint16_t port, const std::string& cookie = "",
                          Reading reading = Reading::On)
        : client_(io_, {"127.0.0.1", std::to_string(port), "/bayeux"},
                  {"", cookie, reading == Reading::Off ? 4096 : 0}) {
        if (reading == Reading::On)
            client_.drainAsync(
                [this](std::string_view frame) {
                    auto messages = parseMessages(std::string(frame));
                    frameSizes_.push_back(messages.size());
                    received_ += messages.size();
                    std::move(messages.begin(), messages.end(), std::back_inserter(inbox_));
                },
                [this] { closed_ = true; });
    }

    // Writes one text frame; false when it could not be written in time.
    bool send(const std::string& frame) { return client_.send(frame); }
    // Sends a ping; false when it could not be written in time.
    bool ping() { return client_.ping(); }

    // Removes and returns the first received message matching `predicate`, waiting for it.
    std::optional<json::object> await(const Predicate& predicate, Millis timeout = kWait) {
        std::optional<json::object> found;
        auto check = [&] {
            auto it = std::find_if(inbox_.begin(), inbox_.end(), predicate);
            if (it != inbox_.end()) {
                found = std::move(*it);
                inbox_.erase(it);
            }
            return found || closed_;
        };
        runUntil(io_, check, timeout);
        return found;
    }
    // Sends `frame` and waits for the reply carrying message id `id`.
    std::optional<json::object> call(const std::string& frame, const std::string& id) {
        return send(frame) ? await(withId(id)) : std::nullopt;
    }
    // Waits until `count` messages have arrived in total.
    bool awaitCount(std::size_t count, Millis timeout = kWait) {
        runUntil(
            io_, [&] { return received_ >= count || closed_; }, timeout);
        return received_ >= count;
    }
    bool awaitClosed(Millis timeout = kWait) {
        return runUntil(
            io_, [&] { return closed_; }, timeout);
    }

    const std::deque<json::object>& inbox() const { return inbox_; }
    std::deque<json::object> takeInbox() { return std::exchange(inbox_, {}); }
    // How many messages each frame received so far carried.
    const std::vector<std::size_t>& frameSizes() const { return frameSizes_; }
    bool closed() const { return closed_; }
    // The Server and Set-Cookie headers of the upgrade answer.
    std::string server() const { return client_.server(); }
    std::string setCookie() const { return client_.setCookie(); }

  private:
    asio::io_context io_;
    tools::RawClient client_;
    std::deque<json::object> inbox_;
    std::vector<std::size_t> frameSizes_;
    std::size_t received_ = 0;
    bool closed_ = false;
};

struct HttpReply {
    unsigned status = 0;
    std::string body;
    std::string server;     // the Server header
    std::string setCookie;  // the Set-Cookie header
    http::fields headers;
    std::vector<json::object> messages() const { return parseMessages(body); }
};

using Headers = std::vector<std::pair<http::field, std::string>>;

// One keep-alive HTTP connection; a request may be started and its reply awaited later. Like a
// browser, it keeps the cookie it is given or set, and sends it.
class RawHttp {
  public:
    explicit RawHttp(std::uint16_t port, std::string cookie = "")
        : stream_(io_), cookie_(std::move(cookie)) {
        connectSocket(io_, stream_, port);
    }

    // Writes a request whose reply finish() awaits.
    void start(const std::string& body, const std::string& target = "/bayeux",
               http::verb verb = http::verb::post, const Headers& headers = {}) {
        request_ = {verb, target, 11};
        request_.set(http::field::host, "127.0.0.1");
        request_.set(http::field::content_type, "application/json");
        for (const auto& [name, value] : headers)
            request_.set(name, value);
        if (!cookie_.empty())
            request_.set(http::field::cookie, cookie_);
        request_.body() = body;
        request_.prepare_payload();
        done_ = written_ = false;
        response_ = {};
        http::async_write(stream_, request_, [this](beast::error_code ec, std::size_t) {
            written_ = true;
            error_ = ec;
            done_ = bool(ec);
            if (!ec)
                http::async_read(stream_, buffer_, response_,
                                 [this](beast::error_code ec, std::size_t) {
                                     error_ = ec;
                                     done_ = true;
                                 });
        });
        runUntil(io_, [&] { return written_; });
    }

    // The reply of the started request, or nothing when it did not come in time.
    std::optional<HttpReply> finish(Millis timeout = kWait) {
        if (!runUntil(
                io_, [&] { return done_; }, timeout) ||
            error_)
            return std::nullopt;
        const std::string setCookie(response_[http::field::set_cookie]);
        if (!setCookie.empty())
            cookie_ = cookiePair(setCookie);
        return HttpReply{response_.result_int(), response_.body(),
                         std::string(response_[http::field::server]), setCookie,
                         http::fields(response_.base())};
    }

    std::optional<HttpReply> post(const std::string& body, const std::string& target = "/bayeux",
                                  http::verb verb = http::verb::post, const Headers& headers = {}) {
        start(body, target, verb, headers);
        return finish();
    }

    bool done() const { return done_; }
    const std::string& cookie() const { return cookie_; }

  private:
    asio::io_context io_;
    beast::tcp_stream stream_;
    beast::flat_buffer buffer_;
    http::request<http::string_body> request_;
    http::response<http::string_body> response_;
    beast::error_code error_;
    std::string cookie_;
    bool written_ = false;
    bool done_ = false;
};

}  // namespace orvale::test

// The other side: a WebSocket server for the client transport.
namespace connector::bayeux::transport_test {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using orvale::test::waitUntil;
using namespace std::chrono_literals;

// One WebSocket session of the server. The accessors may be called from any thread; the actions
// run on the server thread.
class ServerSession : public std::enable_shared_from_this<ServerSession> {
  public:
    ServerSession(tcp::socket socket, bool reading) : ws_(std::move(socket)), reading_(reading) {
        ws_.read_message_max(std::size_t{64} << 20);
        ws_.text(true);
    }

    std::vector<std::string> frames() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return frames_;
    }
    // The close frame's code once the session has ended (0 when none came), -1 until then.
    int closeCode() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return closeCode_;
    }
    bool closed() const { return closeCode() >= 0; }

    void send(std::string text) {
        onServer([text = std::move(text)](ServerSession& s) {
            s.outbox_.push_back(std::move(text));
            if (s.outbox_.size() == 1)
                s.writeNext();
        });
    }
    void close() {
        onServer([](ServerSession& s) {
            s.ws_.async_close(websocket::close_code::normal,
                              [self = s.shared_from_this()](beast::error_code) {});
        });
    }
    void abort() {
        onServer([](ServerSession& s) {
            beast::error_code ignored;
            beast::get_lowest_layer(s.ws_).socket().close(ignored);
        });
    }
    void startReading() {
        onServer([](ServerSession& s) {
            if (!std::exchange(s.reading_, true))
                s.readNext();
        });
    }
    // Bytes that arrived and were not read yet.
    std::size_t unread() {
        std::promise<std::size_t> result;
        onServer([&](ServerSession& s) {
            beast::error_code ec;
            result.set_value(beast::get_lowest_layer(s.ws_).socket().available(ec));
        });
        return result.get_future().get();
    }

    void accept(std::function<void()> accepted) {
        ws_.async_accept([self = shared_from_this(), accepted](beast::error_code ec) {
            if (ec)
                return;
            accepted();
            if (self->reading_)
                self->readNext();
        });
    }

  private:
    template <class F>
    void onServer(F f) {
        asio::post(ws_.get_executor(),
                   [self = shared_from_this(), f = std::move(f)]() mutable { f(*self); });
    }
    void readNext() {
        ws_.async_read(buffer_, [self = shared_from_this()](beast::error_code ec, std::size_t) {
            std::lock_guard<std::mutex> lock(self->mutex_);
            if (ec) {
                self->closeCode_ = self->ws_.reason().code;  // even if the teardown failed
                return;
            }
            self->frames_.push_back(beast::buffers_to_string(self->buffer_.data()));
            self->buffer_.consume(self->buffer_.size());
            asio::post(self->ws_.get_executor(), [self] { self->readNext(); });
        });
    }
    void writeNext() {
        ws_.async_write(asio::buffer(outbox_.front()),
                        [self = shared_from_this()](beast::error_code ec, std::size_t) {
                            if (ec)
                                return;
                            self->outbox_.pop_front();
                            if (!self->outbox_.empty())
                                self->writeNext();
                        });
    }

    websocket::stream<beast::tcp_stream> ws_;
    beast::flat_buffer buffer_;
    std::deque<std::string> outbox_;  // server thread only
    bool reading_;                    // server thread only
    mutable std::mutex mutex_;        // guards frames_ and closeCode_
    std::vector<std::string> frames_;
    int closeCode_ = -1;
};

// Accepts WebSocket sessions on loopback on its own thread; with `readAtOnce` false they read
// nothing until told to.
class TestServer {
  public:
    explicit TestServer(bool readAtOnce = true) : readAtOnce_(readAtOnce) {
        acceptNext();
        thread_ = std::thread([this] { io_.run(); });
    }
    ~TestServer() {
        asio::post(io_, [this] {
            acceptor_.close();
            for (auto& weak : sessions_)
                if (auto session = weak.lock())
                    session->abort();
        });
        io_.stop();
        thread_.join();
    }

    std::string url() const { return "ws://127.0.0.1:" + std::to_string(port_) + "/bayeux"; }
    // The next session that completed its WebSocket handshake; null after a bounded wait.
    std::shared_ptr<ServerSession> nextSession() {
        std::shared_ptr<ServerSession> out;
        waitUntil([&] {
            std::lock_guard<std::mutex> lock(mutex_);
            if (!accepted_.empty()) {
                out = accepted_.front();
                accepted_.pop_front();
            }
            return out != nullptr;
        });
        return out;
    }

  private:
    void acceptNext() {
        acceptor_.async_accept([this](beast::error_code ec, tcp::socket socket) {
            if (ec)
                return;
            auto session = std::make_shared<ServerSession>(std::move(socket), readAtOnce_);
            sessions_.push_back(session);
            session->accept([this, session] {
                std::lock_guard<std::mutex> lock(mutex_);
                accepted_.push_back(session);
            });
            acceptNext();
        });
    }

    const bool readAtOnce_;
    asio::io_context io_;
    tcp::acceptor acceptor_{io_, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0)};
    const unsigned short port_ = acceptor_.local_endpoint().port();
    std::vector<std::weak_ptr<ServerSession>> sessions_;  // server thread only
    std::mutex mutex_;                                    // guards accepted_
    std::deque<std::shared_ptr<ServerSession>> accepted_;
    std::thread thread_;
};

}  // namespace connector::bayeux::transport_test
