#pragma once
// Raw Bayeux clients for the endpoint tests, written directly over Boost.Beast so that the tests
// see exactly what goes over the wire, and the frames they send; then the endpoint fixture. Each
// client owns an io_context that runs only while the test waits on it (bounded), so a client needs
// no thread of its own.

#include <gtest/gtest.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
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
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "connector/bayeux/endpoint.h"
#include "connector/message_service.h"
#include "log_capture.h"

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
    std::vector<json::object> out;
    json::error_code ec;
    json::value value = json::parse(text, ec);
    if (ec)
        throw std::runtime_error("not JSON: " + text);
    if (value.is_object()) {
        out.push_back(value.get_object());
    } else if (value.is_array()) {
        for (auto& element : value.get_array())
            if (element.is_object())
                out.push_back(element.get_object());
    }
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
inline bool runUntil(asio::io_context& io, const std::function<bool()>& done, Millis timeout) {
    const auto deadline = Clock::now() + timeout;
    while (!done()) {
        if (Clock::now() >= deadline)
            return false;
        io.restart();
        io.run_for(Millis(5));
    }
    return true;
}

// The name=value pair of a Set-Cookie value, without its attributes.
inline std::string cookiePair(beast::string_view setCookie) {
    return std::string(setCookie.substr(0, setCookie.find(';')));
}

inline void connectSocket(asio::io_context& io, beast::tcp_stream& stream, std::uint16_t port) {
    bool done = false;
    beast::error_code error;
    stream.async_connect(tcp::endpoint(asio::ip::make_address("127.0.0.1"), port),
                         [&](beast::error_code ec) {
                             error = ec;
                             done = true;
                         });
    if (!runUntil(
            io, [&] { return done; }, kWait) ||
        error)
        throw std::runtime_error("cannot connect: " + error.message());
}

// Reading::Off makes a client that never reads what it is sent, with a small receive buffer so
// that the hub's writes to it soon stall. A `cookie` (name=value) is sent with the upgrade, as a
// browser sends its cookies.
enum class Reading { On, Off };

class RawWebSocket {
  public:
    explicit RawWebSocket(std::uint16_t port, const std::string& cookie = "",
                          Reading reading = Reading::On)
        : ws_(io_) {
        if (reading == Reading::Off) {
            auto& socket = beast::get_lowest_layer(ws_).socket();
            socket.open(tcp::v4());
            socket.set_option(asio::socket_base::receive_buffer_size(4096));
        }
        connectSocket(io_, beast::get_lowest_layer(ws_), port);
        ws_.read_message_max(std::size_t{64} << 20);
        if (!cookie.empty())
            ws_.set_option(
                websocket::stream_base::decorator([cookie](websocket::request_type& request) {
                    request.set(http::field::cookie, cookie);
                }));
        bool done = false;
        beast::error_code error;
        ws_.async_handshake(upgrade_, "127.0.0.1:" + std::to_string(port), "/bayeux",
                            [&](beast::error_code ec) {
                                error = ec;
                                done = true;
                            });
        if (!runUntil(
                io_, [&] { return done; }, kWait) ||
            error)
            throw std::runtime_error("WebSocket handshake failed: " + error.message());
        if (reading == Reading::On)
            readNext();
    }

    // Writes one text frame; false when it could not be written in time.
    bool send(const std::string& frame) {
        bool done = false;
        beast::error_code error;
        outgoing_ = frame;
        ws_.async_write(asio::buffer(outgoing_), [&](beast::error_code ec, std::size_t) {
            error = ec;
            done = true;
        });
        return runUntil(
                   io_, [&] { return done; }, kWait) &&
               !error;
    }

    // Sends a ping; false when it could not be written in time.
    bool ping() {
        bool done = false;
        beast::error_code error;
        ws_.async_ping({}, [&](beast::error_code ec) {
            error = ec;
            done = true;
        });
        return runUntil(
                   io_, [&] { return done; }, kWait) &&
               !error;
    }

    // Removes and returns the first received message matching `predicate`, waiting for it.
    std::optional<json::object> await(const Predicate& predicate, Millis timeout = kWait) {
        std::optional<json::object> found;
        runUntil(
            io_,
            [&] {
                for (auto it = inbox_.begin(); it != inbox_.end(); ++it) {
                    if (predicate(*it)) {
                        found = std::move(*it);
                        inbox_.erase(it);
                        return true;
                    }
                }
                return closed_;
            },
            timeout);
        return found;
    }

    // Sends `frame` and waits for the reply carrying message id `id`.
    std::optional<json::object> call(const std::string& frame, const std::string& id) {
        if (!send(frame))
            return std::nullopt;
        return await(withId(id));
    }

    // Waits until `count` messages have arrived in total.
    bool awaitCount(std::size_t count, Millis timeout = kWait) {
        return runUntil(
                   io_, [&] { return received_ >= count || closed_; }, timeout) &&
               received_ >= count;
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
    std::string server() const { return std::string(upgrade_[http::field::server]); }
    std::string setCookie() const { return std::string(upgrade_[http::field::set_cookie]); }

  private:
    void readNext() {
        ws_.async_read(buffer_, [this](beast::error_code ec, std::size_t) {
            if (ec) {
                closed_ = true;
                return;
            }
            const std::string text = beast::buffers_to_string(buffer_.data());
            buffer_.consume(buffer_.size());
            auto messages = parseMessages(text);
            frameSizes_.push_back(messages.size());
            received_ += messages.size();
            for (auto& m : messages)
                inbox_.push_back(std::move(m));
            readNext();
        });
    }

    asio::io_context io_;
    websocket::stream<beast::tcp_stream> ws_;
    websocket::response_type upgrade_;
    beast::flat_buffer buffer_;
    std::string outgoing_;
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
        done_ = false;
        written_ = false;
        error_ = {};
        response_ = {};
        http::async_write(stream_, request_, [this](beast::error_code ec, std::size_t) {
            written_ = true;
            if (ec) {
                error_ = ec;
                done_ = true;
                return;
            }
            http::async_read(stream_, buffer_, response_,
                             [this](beast::error_code ec, std::size_t) {
                                 error_ = ec;
                                 done_ = true;
                             });
        });
        runUntil(
            io_, [&] { return written_; }, kWait);
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

// Frames as clients send them, what replies say, and a hub on an in-process server.
namespace connector::bayeux::endpoint_test {

using namespace std::chrono_literals;
using message_service::JsonMessage;
using message_service::MessageService;
using orvale::test::HttpReply;
using orvale::test::LogCapture;
using orvale::test::onChannel;
using orvale::test::RawHttp;
using orvale::test::RawWebSocket;
using orvale::test::Reading;
using orvale::test::str;
using orvale::test::waitUntil;
using orvale::test::withId;
namespace json = boost::json;

// ---------------------------------------------------------------------------------------------
// Bayeux frames as clients send them.

inline std::string quote(const std::string& text) {
    return json::serialize(json::value(json::string_view(text.data(), text.size())));
}

inline std::string handshake(const std::string& id, const std::string& ext = "") {
    return R"([{"channel":"/meta/handshake","id":")" + id +
           R"(","version":"1.0","minimumVersion":"1.0","supportedConnectionTypes":["websocket","long-polling"])" +
           (ext.empty() ? "" : ",\"ext\":" + ext) + "}]";
}

inline std::string connect(const std::string& clientId, const std::string& id, int timeout = -1,
                           const std::string& type = "websocket") {
    return R"([{"channel":"/meta/connect","clientId":)" + quote(clientId) + R"(,"id":")" + id +
           R"(","connectionType":")" + type + "\"" +
           (timeout >= 0 ? ",\"advice\":{\"timeout\":" + std::to_string(timeout) + "}" : "") + "}]";
}

inline std::string subscription(const char* meta, const std::string& clientId,
                                const std::string& id, const std::string& channel) {
    return std::string(R"([{"channel":")") + meta + R"(","clientId":)" + quote(clientId) +
           R"(,"id":")" + id + R"(","subscription":)" + quote(channel) + "}]";
}

inline std::string subscribe(const std::string& clientId, const std::string& id,
                             const std::string& channel) {
    return subscription("/meta/subscribe", clientId, id, channel);
}

inline std::string unsubscribe(const std::string& clientId, const std::string& id,
                               const std::string& channel) {
    return subscription("/meta/unsubscribe", clientId, id, channel);
}

inline std::string publish(const std::string& clientId, const std::string& id,
                           const std::string& channel, const std::string& data) {
    return R"([{"channel":)" + quote(channel) + R"(,"clientId":)" + quote(clientId) + R"(,"id":")" +
           id + R"(","data":)" + data + "}]";
}

inline std::string disconnect(const std::string& clientId, const std::string& id) {
    return R"([{"channel":"/meta/disconnect","clientId":)" + quote(clientId) + R"(,"id":")" + id +
           "\"}]";
}

// `count` numbers in a frame: messages the hub cannot read, each earning an error reply.
inline std::string unreadable(int count) {
    std::string frame = "[1";
    for (int i = 1; i < count; ++i)
        frame += ",1";
    return frame + "]";
}

// One frame holding the messages of single-message frames, in order.
inline std::string batch(const std::vector<std::string>& frames) {
    std::string out = "[";
    for (const auto& frame : frames)
        out.append(out.size() > 1 ? "," : "").append(frame, 1, frame.size() - 2);
    return out + "]";
}

// `count` handshakes with ids prefix0, prefix1, ... in one frame.
inline std::string handshakes(int count, const std::string& prefix = "") {
    std::vector<std::string> frames;
    for (int i = 0; i < count; ++i)
        frames.push_back(handshake(prefix + std::to_string(i)));
    return batch(frames);
}

inline bool successful(const std::optional<json::object>& message) {
    if (!message)
        return false;
    const json::value* v = message->if_contains("successful");
    return v && v->is_bool() && v->get_bool();
}

inline std::string error(const std::optional<json::object>& message) {
    return message ? str(*message, "error") : "(no reply)";
}

inline std::string advice(const std::optional<json::object>& message, const char* field) {
    if (!message || !message->contains("advice"))
        return "";
    return json::serialize(message->at("advice").as_object().contains(field)
                               ? message->at("advice").at(field)
                               : json::value());
}

inline bool isDelivery(const json::object& m) {
    return m.contains("data") && !m.contains("successful");
}

inline std::optional<json::object> find(const std::vector<json::object>& messages,
                                        const std::function<bool(const json::object&)>& predicate) {
    for (const auto& m : messages)
        if (predicate(m))
            return m;
    return std::nullopt;
}

// ---------------------------------------------------------------------------------------------

// Collects what a server service hears, from any thread.
struct Heard {
    void add(std::string item) {
        std::lock_guard<std::mutex> lock(mutex);
        items.push_back(std::move(item));
    }
    std::vector<std::string> snapshot() {
        std::lock_guard<std::mutex> lock(mutex);
        return items;
    }
    bool has(const std::string& item) {
        auto all = snapshot();
        return std::find(all.begin(), all.end(), item) != all.end();
    }
    std::mutex mutex;
    std::vector<std::string> items;
};

class EndpointTest : public ::testing::Test {
  protected:
    static EndpointOptions defaults() {
        EndpointOptions options;
        options.connectTimeout = 20s;
        options.sessionTimeout = 30s;
        return options;
    }

    void start(EndpointOptions options = defaults()) {
        endpoint = startBayeuxEndpoint(server, std::move(options));
        port = endpoint->port();
    }

    std::string open(RawWebSocket& ws) {
        auto reply = ws.call(handshake("hs"), "hs");
        return successful(reply) ? str(*reply, "clientId") : std::string();
    }

    std::string open(RawHttp& http) {
        auto reply = http.post(handshake("hs"));
        if (!reply || reply->status != 200)
            return {};
        auto messages = reply->messages();
        return messages.size() == 1 && successful(messages[0]) ? str(messages[0], "clientId")
                                                               : std::string();
    }

    std::shared_ptr<MessageService> service(const std::string& name) {
        return services->createMessageService(name, {}).get();
    }

    // One delivery thread: what a session is handed follows publication order across sessions.
    std::shared_ptr<BayeuxServer> server = makeBayeuxServer(BayeuxServerOptions{1});
    std::unique_ptr<BayeuxEndpoint> endpoint;
    std::uint16_t port = 0;
    std::shared_ptr<message_service::MessageServiceFactoryServerDelegate> services =
        std::make_shared<message_service::MessageServiceFactoryServerDelegate>(server);
};

}  // namespace connector::bayeux::endpoint_test
