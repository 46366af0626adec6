#pragma once
// Raw clients of the hub on loopback, their frames, what the replies say, and the hub's fixture. A
// raw client's io_context runs only while the test waits on it (bounded), so it needs no thread.

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/json.hpp>
#include <deque>
#include <optional>
#include <string>
#include <vector>

#include "connector/bayeux/endpoint.h"
#include "connector/message_service.h"
#include "inbox.h"
#include "log_capture.h"
#include "raw_client.h"

namespace connector::bayeux::endpoint_test {

using namespace std::chrono_literals;
using message_service::JsonMessage;
using orvale::test::LogCapture;
using orvale::test::waitUntil;
namespace json = boost::json;
namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using Clock = std::chrono::steady_clock;
using Predicate = std::function<bool(const json::object&)>;
inline constexpr std::chrono::milliseconds kWait{5000};

// The messages of a frame: an array of objects, or a single object; none in text that is not JSON.
inline std::vector<json::object> parseMessages(const std::string& text) {
    json::error_code ec;
    json::value value = json::parse(text, ec);
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

inline Predicate withId(std::string id) {
    return [id](const json::object& m) { return str(m, "id") == id; };
}

template <class Messages>
std::optional<json::object> find(const Messages& messages, const Predicate& predicate) {
    auto it = std::find_if(messages.begin(), messages.end(), predicate);
    return it == messages.end() ? std::nullopt : std::optional<json::object>(*it);
}

inline bool successful(const std::optional<json::object>& message) {
    const json::value* v = message ? message->if_contains("successful") : nullptr;
    return v && v->is_bool() && v->get_bool();
}

// The error of a refused request; "(succeeded)" when it succeeded, "(no reply)" when none came.
inline std::string error(const std::optional<json::object>& message) {
    return !message ? "(no reply)" : successful(message) ? "(succeeded)" : str(*message, "error");
}

// The advice as JSON text, "" when there is none.
inline std::string advice(const std::optional<json::object>& message) {
    const json::value* v = message ? message->if_contains("advice") : nullptr;
    return v ? json::serialize(*v) : "";
}

inline bool isDelivery(const json::object& m) {
    return m.contains("data") && !m.contains("successful");
}

// A delivery as "channel data"; "(none)" when there is none.
inline std::string delivery(const std::optional<json::object>& m) {
    return m && isDelivery(*m) ? str(*m, "channel") + " " + json::serialize(m->at("data"))
                               : "(none)";
}

// Runs `io` until `done` holds or `timeout` passes.
inline bool runUntil(asio::io_context& io, const std::function<bool()>& done,
                     std::chrono::milliseconds timeout = kWait) {
    const auto deadline = Clock::now() + timeout;
    while (!done()) {
        if (Clock::now() >= deadline)
            return false;
        io.restart();
        io.run_for(5ms);
    }
    return true;
}

// Runs the operation `start` begins until it completes: its error, or timed_out (the handler owns
// what it notes, so that it may still run later).
template <class Start>
beast::error_code complete(asio::io_context& io, Start&& start) {
    auto outcome = std::make_shared<std::optional<beast::error_code>>();
    start([outcome](beast::error_code ec, auto&&...) { *outcome = ec; });
    return runUntil(io, [&] { return outcome->has_value(); }) ? **outcome : asio::error::timed_out;
}

// The name=value pair of a Set-Cookie value, without its attributes.
inline std::string cookiePair(beast::string_view setCookie) {
    return std::string(setCookie.substr(0, setCookie.find(';')));
}

inline void connectSocket(asio::io_context& io, beast::tcp_stream& stream, std::uint16_t port) {
    const asio::ip::tcp::endpoint hub(asio::ip::make_address("127.0.0.1"), port);
    if (auto ec = complete(io, [&](auto handler) { stream.async_connect(hub, handler); }))
        throw std::runtime_error("cannot connect: " + ec.message());
}

// Reading::Off: a client that never reads, with a small receive buffer so that the hub's writes
// soon stall. A `cookie` (name=value) is sent with the upgrade, as a browser sends its cookies.
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
                    inbox_.insert(inbox_.end(), messages.begin(), messages.end());
                    received_ += messages.size();
                },
                [this] { closed_ = true; });
    }

    bool send(const std::string& frame) { return client_.send(frame); }
    bool ping() { return client_.ping(); }

    // Removes and returns the first received message matching `predicate`, waiting for it.
    std::optional<json::object> await(const Predicate& predicate) {
        std::optional<json::object> found;
        runUntil(io_, [&] {
            auto it = std::find_if(inbox_.begin(), inbox_.end(), predicate);
            if (it != inbox_.end()) {
                found = std::move(*it);
                inbox_.erase(it);
            }
            return found || closed_;
        });
        return found;
    }
    std::string nextDelivery() { return delivery(await(isDelivery)); }
    // Sends `frame` and waits for the reply carrying message id `id`.
    std::optional<json::object> call(const std::string& frame, const std::string& id) {
        return send(frame) ? await(withId(id)) : std::nullopt;
    }
    bool awaitCount(std::size_t count) {
        return runUntil(io_, [&] { return received_ >= count || closed_; }) && received_ >= count;
    }
    bool awaitClosed() {
        return runUntil(io_, [&] { return closed_; });
    }

    const std::deque<json::object>& inbox() const { return inbox_; }
    // How many messages each frame received so far carried.
    const std::vector<std::size_t>& frameSizes() const { return frameSizes_; }
    // Headers of the upgrade answer.
    std::string server() const { return client_.server(); }
    std::string setCookie() const { return client_.setCookie(); }

  private:
    asio::io_context io_;
    orvale::tools::RawClient client_;
    std::deque<json::object> inbox_;
    std::vector<std::size_t> frameSizes_;
    std::size_t received_ = 0;
    bool closed_ = false;
};

struct HttpReply {
    unsigned status = 0;
    std::string body;
    http::fields headers;
    std::vector<json::object> messages() const { return parseMessages(body); }
};

using Headers = std::vector<std::pair<http::field, std::string>>;

// One keep-alive HTTP connection, keeping and sending the cookie it is given or set.
class RawHttp {
  public:
    explicit RawHttp(std::uint16_t port, std::string cookie = "")
        : stream_(io_), cookie_(std::move(cookie)) {
        connectSocket(io_, stream_, port);
    }

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
        failed_ = bool(complete(io_, [&](auto h) { http::async_write(stream_, request_, h); }));
    }

    // The reply of the started request, or nothing when it did not come in time.
    std::optional<HttpReply> finish() {
        response_ = {};
        if (failed_ ||
            complete(io_, [&](auto h) { http::async_read(stream_, buffer_, response_, h); }))
            return std::nullopt;
        if (const auto setCookie = response_[http::field::set_cookie]; !setCookie.empty())
            cookie_ = cookiePair(setCookie);
        return HttpReply{response_.result_int(), response_.body(), http::fields(response_.base())};
    }

    std::optional<HttpReply> post(const std::string& body, const std::string& target = "/bayeux",
                                  http::verb verb = http::verb::post, const Headers& headers = {}) {
        start(body, target, verb, headers);
        return finish();
    }
    std::optional<json::object> call(const std::string& frame, const std::string& id) {
        const auto reply = post(frame);
        return reply ? find(reply->messages(), withId(id)) : std::nullopt;
    }

    const std::string& cookie() const { return cookie_; }

  private:
    asio::io_context io_;
    beast::tcp_stream stream_;
    beast::flat_buffer buffer_;
    http::request<http::string_body> request_;
    http::response<http::string_body> response_;
    std::string cookie_;
    bool failed_ = false;
};

inline std::string quote(const std::string& text) {
    return json::serialize(json::string(text));
}

inline std::string handshake(const std::string& id, const std::string& ext = "") {
    return R"([{"channel":"/meta/handshake","id":")" + id +
           R"(","version":"1.0","minimumVersion":"1.0","supportedConnectionTypes":["websocket","long-polling"])" +
           (ext.empty() ? "" : ",\"ext\":" + ext) + "}]";
}

// One message on `channel` from `clientId`, with `fields` (JSON members) after its id.
inline std::string meta(const std::string& channel, const std::string& clientId,
                        const std::string& id, const std::string& fields = "") {
    return R"([{"channel":)" + quote(channel) + R"(,"clientId":)" + quote(clientId) + R"(,"id":")" +
           id + "\"" + fields + "}]";
}

inline std::string connect(const std::string& clientId, const std::string& id, int timeout = -1,
                           const std::string& type = "websocket") {
    return meta(
        "/meta/connect", clientId, id,
        R"(,"connectionType":")" + type + "\"" +
            (timeout >= 0 ? R"(,"advice":{"timeout":)" + std::to_string(timeout) + "}" : ""));
}

// A subscription, or with `on` "/meta/unsubscribe" its end.
inline std::string subscribe(const std::string& clientId, const std::string& id,
                             const std::string& channel, const char* on = "/meta/subscribe") {
    return meta(on, clientId, id, ",\"subscription\":" + quote(channel));
}

inline std::string publish(const std::string& clientId, const std::string& id,
                           const std::string& channel, const std::string& data) {
    return meta(channel, clientId, id, ",\"data\":" + data);
}

// One frame holding the messages of single-message frames, in order.
inline std::string batch(const std::vector<std::string>& frames) {
    std::string out = "[";
    for (const auto& frame : frames)
        out.append(out.size() > 1 ? "," : "").append(frame, 1, frame.size() - 2);
    return out + "]";
}

struct EndpointTest : ::testing::Test {
    void start(const std::function<void(EndpointOptions&)>& change = nullptr) {
        EndpointOptions options;
        options.connectTimeout = 20s;
        options.sessionTimeout = 30s;
        if (change)
            change(options);
        endpoint = startBayeuxEndpoint(server, std::move(options));
        port = endpoint->port();
    }

    // Makes a session over a RawWebSocket or a RawHttp and returns its client id; a refused
    // handshake fails the test.
    template <class Client>
    std::string open(Client& client) {
        auto reply = client.call(handshake("hs"), "hs");
        EXPECT_TRUE(successful(reply)) << "handshake refused: " << error(reply);
        return successful(reply) ? str(*reply, "clientId") : std::string();
    }

    // One delivery thread: what a session is handed follows publication order across sessions.
    std::shared_ptr<BayeuxServer> server = makeBayeuxServer(BayeuxServerOptions{1});
    std::unique_ptr<BayeuxEndpoint> endpoint;
    std::uint16_t port = 0;
    std::shared_ptr<message_service::MessageServiceFactoryServerDelegate> services =
        std::make_shared<message_service::MessageServiceFactoryServerDelegate>(server);
};

}  // namespace connector::bayeux::endpoint_test
