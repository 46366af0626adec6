#pragma once
// The other side of the client transports: a Boost.Beast WebSocket server on loopback serving its
// sessions on a thread of its own (TestServer), and a transport's client connection (Client).

#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <deque>
#include <future>
#include <mutex>
#include <thread>

#include "connector/bayeux/websocket_transport.h"
#include "failure_text.h"
#include "log_capture.h"
#include "recording_subscriber.h"

namespace connector::bayeux::transport_test {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = asio::ip::tcp;
using orvale::test::waitUntil;
using namespace std::chrono_literals;

// One session of the server: accessors for any thread, actions run on the server thread.
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
        onServer([](ServerSession& s) { s.readNext(); });
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

// With `readAtOnce` false, sessions read nothing until told to.
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

// The subscription a client gives the outbound stream.
struct Upstream : reactive_streams::Subscription {
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

inline std::shared_ptr<Context> contextWith(WebSocketTransportOptions options = {}) {
    auto context = std::make_shared<Context>();
    context->registerService(webSocketTransportAddress(), makeWebSocketTransport(options));
    return context;
}

inline Future<MessagePtr> connectTo(const std::shared_ptr<Context>& context,
                                    const std::string& url) {
    return context->deliver(webSocketTransportAddress(), std::make_unique<ConnectTransport>(url));
}

// A connected client whose inbound stream is recorded with unbounded demand.
struct Client {
    explicit Client(const std::string& url, WebSocketTransportOptions options = {})
        : Client(url, contextWith(options), webSocketTransportAddress()) {}
    // With the server's side of the connection in `session`.
    explicit Client(TestServer& server, WebSocketTransportOptions options = {})
        : Client(server.url(), options) {
        if (!(session = server.nextSession()))
            throw std::runtime_error("the server saw no session");
    }
    // Through the transport registered in `withTransport` at `address`.
    Client(const std::string& url, std::shared_ptr<Context> withTransport, const Address& address)
        : context(std::move(withTransport)) {
        auto future = context->deliver(address, std::make_unique<ConnectTransport>(url));
        if (!future.waitFor(5s))
            throw std::runtime_error("connecting did not finish");
        const auto response = future.get();
        auto& open = dynamic_cast<ConnectTransportResponse&>(*response);
        inbound = open.getInbound();
        outbound = open.getOutbound();
        inbound->subscribe(collector);
        outbound->onSubscribe(upstream);
        if (!waitUntil([&] { return collector->subscription() != nullptr; }))
            throw std::runtime_error("onSubscribe did not come");
    }
    void send(MessagePtr message) { outbound->onNext(std::move(message)); }
    bool completed() { return collector->completions > 0 || collector->errors > 0; }

    std::shared_ptr<Context> context;
    std::shared_ptr<reactive_streams::Publisher<MessagePtr>> inbound;
    std::shared_ptr<reactive_streams::Subscriber<MessagePtr>> outbound;
    std::shared_ptr<RecordingSubscriber> collector =
        std::make_shared<RecordingSubscriber>(UINT64_MAX);
    std::shared_ptr<Upstream> upstream = std::make_shared<Upstream>();
    std::shared_ptr<ServerSession> session;
};

inline MessagePtr publish(const std::string& channel, std::string json = "1") {
    return std::make_unique<PublishRequest>(channel, std::move(json));
}

}  // namespace connector::bayeux::transport_test
