#pragma once
// The two ends of a WebSocket transport test: a Boost.Beast server on loopback that shows exactly
// what went over the wire, and a client connection of the transport with a recording subscriber.

#include <gtest/gtest.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <deque>
#include <future>
#include <thread>

#include "bayeux/codec.h"
#include "connector/bayeux/websocket_transport.h"
#include "log_capture.h"

namespace connector::bayeux::transport_test {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using orvale::test::waitUntil;
using namespace std::chrono_literals;

// ---------------------------------------------------------------------------------------------
// The server side: accepts WebSocket sessions on loopback and records what they receive.

class ServerSession : public std::enable_shared_from_this<ServerSession> {
  public:
    ServerSession(tcp::socket socket, bool readAtOnce)
        : ws_(std::move(socket)), reading_(readAtOnce) {
        ws_.read_message_max(std::size_t{64} << 20);
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

    // Thread-safe accessors and actions; the actions run on the server thread.
    std::vector<std::string> frames() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return frames_;
    }
    bool closed() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return closed_;
    }
    int closeCode() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return closeCode_;
    }
    void send(std::string text) {
        asio::post(ws_.get_executor(), [self = shared_from_this(), text = std::move(text)] {
            self->outbox_.push_back(std::move(text));
            if (self->outbox_.size() == 1)
                self->writeNext();
        });
    }
    void close() {
        asio::post(ws_.get_executor(), [self = shared_from_this()] {
            self->ws_.async_close(websocket::close_code::normal, [self](beast::error_code) {});
        });
    }
    void abort() {
        asio::post(ws_.get_executor(), [self = shared_from_this()] {
            beast::error_code ignored;
            beast::get_lowest_layer(self->ws_).socket().close(ignored);
        });
    }
    void startReading() {
        asio::post(ws_.get_executor(), [self = shared_from_this()] {
            if (self->reading_)
                return;
            self->reading_ = true;
            self->readNext();
        });
    }
    // Bytes that arrived and were not read yet.
    std::size_t unread() {
        std::promise<std::size_t> result;
        asio::post(ws_.get_executor(), [&] {
            beast::error_code ec;
            result.set_value(beast::get_lowest_layer(ws_).socket().available(ec));
        });
        return result.get_future().get();
    }

  private:
    void readNext() {
        ws_.async_read(buffer_, [self = shared_from_this()](beast::error_code ec, std::size_t) {
            std::lock_guard<std::mutex> lock(self->mutex_);
            if (ec) {
                self->closed_ = true;
                // The close frame's code, when one came, even if the teardown after it failed.
                self->closeCode_ = self->ws_.reason().code;
                return;
            }
            self->frames_.push_back(beast::buffers_to_string(self->buffer_.data()));
            self->buffer_.consume(self->buffer_.size());
            asio::post(self->ws_.get_executor(), [self] { self->readNext(); });
        });
    }
    void writeNext() {
        ws_.text(true);
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
    mutable std::mutex mutex_;        // guards frames_, closed_ and closeCode_
    std::vector<std::string> frames_;
    bool closed_ = false;
    int closeCode_ = 0;
};

struct ServerOptions {
    bool readAtOnce = true;
    bool answerHandshake = true;  // false: accept TCP and never answer
};

class TestServer {
  public:
    using Options = ServerOptions;

    TestServer() : TestServer(ServerOptions()) {}
    explicit TestServer(Options options) : options_(options), acceptor_(io_) {
        tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), 0);
        acceptor_.open(endpoint.protocol());
        acceptor_.bind(endpoint);
        acceptor_.listen();
        port_ = acceptor_.local_endpoint().port();
        acceptNext();
        thread_ = std::thread([this] { io_.run(); });
    }
    ~TestServer() {
        asio::post(io_, [this] {
            beast::error_code ignored;
            acceptor_.close(ignored);
            for (auto& socket : silent_)
                socket.close(ignored);
            for (auto& weak : sessions_)
                if (auto session = weak.lock())
                    session->abort();
        });
        io_.stop();
        thread_.join();
    }

    std::string url() const { return "ws://127.0.0.1:" + std::to_string(port_) + "/bayeux"; }

    // The next session that completed its WebSocket handshake.
    std::shared_ptr<ServerSession> nextSession() {
        std::shared_ptr<ServerSession> out;
        waitUntil([&] {
            std::lock_guard<std::mutex> lock(mutex_);
            if (accepted_.empty())
                return false;
            out = accepted_.front();
            accepted_.pop_front();
            return true;
        });
        return out;
    }

  private:
    void acceptNext() {
        acceptor_.async_accept([this](beast::error_code ec, tcp::socket socket) {
            if (ec)
                return;
            if (!options_.answerHandshake) {
                silent_.push_back(std::move(socket));
            } else {
                auto session =
                    std::make_shared<ServerSession>(std::move(socket), options_.readAtOnce);
                sessions_.push_back(session);
                session->accept([this, session] {
                    std::lock_guard<std::mutex> lock(mutex_);
                    accepted_.push_back(session);
                });
            }
            acceptNext();
        });
    }

    const Options options_;
    asio::io_context io_;
    tcp::acceptor acceptor_;
    unsigned short port_ = 0;
    std::vector<tcp::socket> silent_;                     // server thread only
    std::vector<std::weak_ptr<ServerSession>> sessions_;  // server thread only
    std::mutex mutex_;                                    // guards accepted_
    std::deque<std::shared_ptr<ServerSession>> accepted_;
    std::thread thread_;
};

// ---------------------------------------------------------------------------------------------
// The client side: a recording subscriber and a subscription for the outbound stream.

class Collector : public reactive_streams::Subscriber<MessagePtr> {
  public:
    void onSubscribe(std::shared_ptr<reactive_streams::Subscription> subscription) override {
        subscription->request(UINT64_MAX);
        std::lock_guard<std::mutex> lock(mutex_);
        subscription_ = std::move(subscription);
    }
    void onNext(MessagePtr&& message) override {
        std::lock_guard<std::mutex> lock(mutex_);
        received_.push_back(std::move(message));
    }
    void onComplete() override { completed_ = true; }
    void onError(std::exception_ptr) override { completed_ = true; }
    Future<bool> done() override { return makeReadyFuture<bool>(true); }

    std::size_t count() {
        std::lock_guard<std::mutex> lock(mutex_);
        return received_.size();
    }
    // The received elements, flattened to their encoded messages, one string per element.
    std::vector<std::string> encoded() {
        std::lock_guard<std::mutex> lock(mutex_);
        std::vector<std::string> out;
        for (const auto& element : received_) {
            if (auto* container = dynamic_cast<BayeuxContainer*>(element.get())) {
                std::vector<const BayeuxMessage*> inner;
                for (const auto& m : container->messages())
                    inner.push_back(dynamic_cast<const BayeuxMessage*>(m.get()));
                out.push_back("container" + codec::encode(inner));
            } else {
                out.push_back(codec::encode(*dynamic_cast<const BayeuxMessage*>(element.get())));
            }
        }
        return out;
    }
    bool subscribed() {
        std::lock_guard<std::mutex> lock(mutex_);
        return subscription_ != nullptr;
    }
    void cancel() {
        std::shared_ptr<reactive_streams::Subscription> subscription;
        {
            std::lock_guard<std::mutex> lock(mutex_);
            subscription = subscription_;
        }
        subscription->cancel();
    }
    std::atomic<bool> completed_{false};

  private:
    std::mutex mutex_;  // guards received_ and subscription_
    std::vector<MessagePtr> received_;
    std::shared_ptr<reactive_streams::Subscription> subscription_;
};

class Upstream : public reactive_streams::Subscription {
  public:
    void request(std::uint64_t n) override { requested = n; }
    void cancel() override {
        if (onCancel)
            onCancel();
        cancelled = true;
    }
    std::atomic<std::uint64_t> requested{0};
    std::atomic<bool> cancelled{false};
    std::function<void()> onCancel;  // set before the connection can end
};

struct Client {
    std::shared_ptr<Context> context;
    std::shared_ptr<reactive_streams::Publisher<MessagePtr>> inbound;
    std::shared_ptr<reactive_streams::Subscriber<MessagePtr>> outbound;
    std::shared_ptr<Collector> collector = std::make_shared<Collector>();
    std::shared_ptr<Upstream> upstream = std::make_shared<Upstream>();

    void send(MessagePtr message) { outbound->onNext(std::move(message)); }
};

inline Future<MessagePtr> connectTo(const std::shared_ptr<Context>& context,
                                    const std::string& url) {
    return context->deliver(webSocketTransportAddress(), std::make_unique<ConnectTransport>(url));
}

inline std::shared_ptr<Context> contextWith(WebSocketTransportOptions options = {}) {
    auto context = std::make_shared<Context>();
    context->registerService(webSocketTransportAddress(), makeWebSocketTransport(options));
    return context;
}

inline Client connectClient(const std::string& url, WebSocketTransportOptions options = {}) {
    Client client;
    client.context = contextWith(options);
    auto future = connectTo(client.context, url);
    if (!future.waitFor(5s))
        throw std::runtime_error("connecting did not finish");
    auto response = future.get();
    auto* open = dynamic_cast<ConnectTransportResponse*>(response.get());
    if (!open)
        throw std::runtime_error("not a ConnectTransportResponse");
    client.inbound = open->getInbound();
    client.outbound = open->getOutbound();
    client.inbound->subscribe(client.collector);
    client.outbound->onSubscribe(client.upstream);
    if (!waitUntil([&] { return client.collector->subscribed(); }))
        throw std::runtime_error("onSubscribe did not come");
    return client;
}

inline std::string connectError(Future<MessagePtr>& future) {
    if (!future.waitFor(15s))
        return "still pending";
    try {
        future.get();
    } catch (const std::runtime_error& e) {
        return e.what();
    } catch (...) {
        return "another exception";
    }
    return "connected";
}

inline std::string connectError(const std::shared_ptr<Context>& context, const std::string& url) {
    auto future = connectTo(context, url);
    return connectError(future);
}

inline MessagePtr publish(const std::string& channel, std::string json = "1") {
    return std::make_unique<PublishRequest>(channel, std::move(json));
}

}  // namespace connector::bayeux::transport_test
