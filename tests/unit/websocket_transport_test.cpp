// The WebSocket transport against a Boost.Beast server in the test, which shows exactly what
// went over the wire: batching, frame limits, undecodable frames, the API key, closing, and the
// failures of connecting.

#include "connector/bayeux/websocket_transport.h"

#include <gtest/gtest.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <deque>
#include <filesystem>
#include <future>
#include <thread>

#include "bayeux/codec.h"
#include "log_capture.h"

namespace connector::bayeux {
namespace {

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

Future<MessagePtr> connectTo(const std::shared_ptr<Context>& context, const std::string& url) {
    return context->deliver(webSocketTransportAddress(), std::make_unique<ConnectTransport>(url));
}

std::shared_ptr<Context> contextWith(WebSocketTransportOptions options = {}) {
    auto context = std::make_shared<Context>();
    context->registerService(webSocketTransportAddress(), makeWebSocketTransport(options));
    return context;
}

Client connectClient(const std::string& url, WebSocketTransportOptions options = {}) {
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

std::string connectError(const std::shared_ptr<Context>& context, const std::string& url) {
    auto future = connectTo(context, url);
    if (!future.waitFor(5s))
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

MessagePtr publish(const std::string& channel, std::string json = "1") {
    return std::make_unique<PublishRequest>(channel, std::move(json));
}

// ---------------------------------------------------------------------------------------------

TEST(WebSocketTransport, ExchangesMessagesAndKeepsFramesAsTheyCame) {
    TestServer server;
    Client client = connectClient(server.url());
    auto session = server.nextSession();
    ASSERT_TRUE(session);
    EXPECT_EQ(client.upstream->requested.load(), UINT64_MAX);

    client.send(publish("/a", R"({"n":1})"));
    ASSERT_TRUE(waitUntil([&] { return session->frames().size() == 1; }));
    EXPECT_EQ(session->frames()[0], R"([{"channel":"/a","data":{"n":1}}])");

    // A container goes out as one frame holding its messages in order.
    auto batch = std::make_unique<BayeuxContainer>();
    batch->messages().push_back(publish("/b"));
    batch->messages().push_back(std::make_unique<SubscribeRequest>("/c", "id1"));
    client.send(std::move(batch));
    ASSERT_TRUE(waitUntil([&] { return session->frames().size() == 2; }));
    EXPECT_EQ(
        session->frames()[1],
        R"([{"channel":"/b","data":1},{"channel":"/meta/subscribe","clientId":"id1","subscription":"/c"}])");

    session->send(R"([{"channel":"/meta/connect","successful":true,"id":"1"}])");
    session->send(R"([{"channel":"/x","data":1},{"channel":"/y","data":2}])");
    session->send(R"({"channel":"/z","data":3})");
    ASSERT_TRUE(waitUntil([&] { return client.collector->count() == 3; }));
    EXPECT_EQ(client.collector->encoded(),
              (std::vector<std::string>{
                  R"([{"channel":"/meta/connect","id":"1","successful":true}])",
                  R"(container[{"channel":"/x","data":1},{"channel":"/y","data":2}])",
                  R"([{"channel":"/z","data":3}])"}));
}

// A client and a server that reads nothing yet. stall() sends a frame larger than the socket
// buffers, which stays in flight, so that what the client sends next queues behind it until
// the session starts reading.
struct StalledClient {
    TestServer server{ServerOptions{/*readAtOnce=*/false}};
    Client client = connectClient(server.url());
    std::shared_ptr<ServerSession> session = server.nextSession();

    static const std::string& big() {
        static const std::string text = "\"" + std::string(std::size_t{32} << 20, 'x') + "\"";
        return text;
    }
    bool stall() {
        if (!session)
            return false;
        client.send(publish("/big", big()));
        return waitUntil([&] { return session->unread() > 0; });
    }
};

// What is queued while a write is in flight goes out as one frame once the socket is free.
TEST(WebSocketTransport, BatchesWhatIsQueuedDuringAWrite) {
    StalledClient stalled;
    ASSERT_TRUE(stalled.stall());
    auto& client = stalled.client;
    auto& session = stalled.session;
    const std::string& big = StalledClient::big();
    for (int i = 0; i < 5; ++i)
        client.send(publish("/queued/" + std::to_string(i)));
    // A meta connect goes alone: a server answers a frame only once a held connect returns.
    client.send(std::make_unique<ConnectRequest>("websocket"));
    client.send(publish("/after/connect"));
    session->startReading();

    ASSERT_TRUE(waitUntil([&] { return session->frames().size() >= 4; }, 10s));
    const auto frames = session->frames();
    ASSERT_EQ(frames.size(), 4u);
    EXPECT_EQ(frames[0].size(), big.size() + std::string(R"([{"channel":"/big","data":}])").size());
    auto second = codec::decodeFromClient(frames[1]);
    ASSERT_EQ(second.messages.size(), 5u);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(second.messages[i]->bayeuxChannel(), "/queued/" + std::to_string(i));
    EXPECT_EQ(frames[2], R"([{"channel":"/meta/connect","connectionType":"websocket"}])");
    EXPECT_EQ(frames[3], R"([{"channel":"/after/connect","data":1}])");
}

// A burst queued behind a slow write is split into frames a server's frame limit accepts, with
// every message once and in order; a single larger message still goes out whole.
TEST(WebSocketTransport, SplitsALargeBurstIntoBoundedFrames) {
    StalledClient stalled;
    ASSERT_TRUE(stalled.stall());
    auto& client = stalled.client;
    auto& session = stalled.session;
    const std::string& big = StalledClient::big();
    constexpr int kBurst = 5000;  // about 400 KiB of JSON
    const std::string data = "\"" + std::string(60, 'd') + "\"";
    for (int i = 0; i < kBurst; ++i)
        client.send(publish("/burst/" + std::to_string(i), data));
    client.send(publish("/big2", big));
    session->startReading();

    ASSERT_TRUE(waitUntil(
        [&] {
            const auto frames = session->frames();
            return frames.size() > 1 && frames.back().size() > (std::size_t{32} << 20);
        },
        10s));
    const auto frames = session->frames();
    ASSERT_GE(frames.size(), 3u);
    std::size_t seen = 0;
    bool secondBig = false;
    for (std::size_t f = 1; f < frames.size(); ++f) {
        auto decoded = codec::decodeFromClient(frames[f]);
        EXPECT_TRUE(decoded.errors.empty());
        if (decoded.messages.size() == 1 && decoded.messages[0]->bayeuxChannel() == "/big2") {
            secondBig = true;
            continue;
        }
        EXPECT_LE(frames[f].size(), std::size_t{64} * 1024);
        for (const auto& message : decoded.messages) {
            EXPECT_EQ(message->bayeuxChannel(), "/burst/" + std::to_string(seen));
            ++seen;
        }
    }
    EXPECT_EQ(seen, std::size_t{kBurst});
    EXPECT_TRUE(secondBig);
    EXPECT_GT(frames.size(), 5u);  // the burst did not go out as one frame
}

// Through the whole connection, a paced stream loses nothing and keeps its order, with a frame
// larger than the read buffer in the middle and a lone frame after it stops.
TEST(WebSocketTransport, PacedReadsLoseNothingAndNeverStrandALoneFrame) {
    WebSocketTransportOptions options;
    options.readPacingUs = 2000;
    TestServer server;
    Client client = connectClient(server.url(), options);
    auto session = server.nextSession();
    ASSERT_TRUE(session);

    // One frame every 100 us: fast enough to be paced, slow enough that the client empties the
    // socket on every read before pacing starts.
    constexpr int kStream = 2000;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kStream; ++i) {
        std::this_thread::sleep_until(start + i * 100us);
        session->send(R"([{"channel":"/s","data":)" + std::to_string(i) + "}]");
        if (i == kStream / 2)
            session->send(R"([{"channel":"/big","data":")" + std::string(200000, 'x') + "\"}]");
    }
    ASSERT_TRUE(waitUntil([&] { return client.collector->count() == kStream + 1; }));
    const auto received = client.collector->encoded();
    for (int i = 0, n = 0; i < kStream + 1; ++i) {
        if (received[i].find("/big") != std::string::npos)
            continue;
        EXPECT_EQ(received[i], R"([{"channel":"/s","data":)" + std::to_string(n++) + "}]");
    }

    // The stream stopped; a paced read finds nothing, then one lone frame arrives.
    std::this_thread::sleep_for(20ms);
    session->send(R"([{"channel":"/late","data":1}])");
    ASSERT_TRUE(waitUntil([&] { return client.collector->count() == kStream + 2; }));
}

// A fast stream goes out in frames of many messages; the frame held last still leaves once the
// stream stops, and so does a lone message after it. Nothing is lost or reordered, with write
// pacing or without.
TEST(WebSocketTransport, AFastStreamLosesNothingAndItsLastFrameLeaves) {
    for (const std::size_t pacing : {std::size_t{200}, std::size_t{0}}) {
        SCOPED_TRACE("writePacingUs " + std::to_string(pacing));
        WebSocketTransportOptions options;
        options.writePacingUs = pacing;
        TestServer server;
        Client client = connectClient(server.url(), options);
        auto session = server.nextSession();
        ASSERT_TRUE(session);

        constexpr int kStream = 20000;
        for (int i = 0; i < kStream; ++i)
            client.send(publish("/fast", std::to_string(i)));
        auto received = [&] {
            std::vector<std::string> data;
            for (const auto& frame : session->frames())
                for (const auto& message : codec::decodeFromClient(frame).messages)
                    data.push_back(static_cast<const PublishRequest&>(*message).getJson());
            return data;
        };
        ASSERT_TRUE(waitUntil([&] { return received().size() == kStream; }));
        const auto data = received();
        for (int i = 0; i < kStream; ++i)
            ASSERT_EQ(data[i], std::to_string(i));
        EXPECT_LT(session->frames().size(), std::size_t{kStream});

        client.send(publish("/late", "1"));
        ASSERT_TRUE(waitUntil([&] { return received().size() == kStream + 1; }));
    }
}

TEST(WebSocketTransport, FrameLargerThanTheLimitClosesTheConnection) {
    orvale::test::LogCapture logs;
    TestServer server;
    WebSocketTransportOptions options;
    options.maxFrameBytes = 1024;
    Client client = connectClient(server.url(), options);
    auto session = server.nextSession();
    ASSERT_TRUE(session);
    auto done = client.inbound->done();

    session->send(R"([{"channel":"/ok","data":1}])");
    session->send(R"([{"channel":"/big","data":")" + std::string(2048, 'x') + "\"}]");
    ASSERT_TRUE(waitUntil([&] { return client.collector->completed_.load(); }));
    EXPECT_EQ(client.collector->count(), 1u);
    ASSERT_TRUE(waitUntil([&] { return session->closed(); }));
    EXPECT_EQ(session->closeCode(), static_cast<int>(websocket::close_code::too_big));
    EXPECT_EQ(logs.count("A frame from " + server.url() + " is larger than 1024 bytes"), 1u);
    ASSERT_TRUE(done.waitFor(5s));
    EXPECT_FALSE(done.get());
    EXPECT_TRUE(waitUntil([&] { return client.upstream->cancelled.load(); }));
}

TEST(WebSocketTransport, UndecodableFramesAreLoggedAndDropped) {
    orvale::test::LogCapture logs;
    TestServer server;
    Client client = connectClient(server.url());
    auto session = server.nextSession();
    ASSERT_TRUE(session);

    session->send("this is not JSON");
    session->send(R"([{"channel":"/good","data":1},7,{"channel":"/meta/connect"}])");
    session->send(R"([{"channel":"/after","data":2}])");
    ASSERT_TRUE(waitUntil([&] { return client.collector->count() == 2; }));
    EXPECT_EQ(client.collector->encoded(),
              (std::vector<std::string>{R"([{"channel":"/good","data":1}])",
                                        R"([{"channel":"/after","data":2}])"}));
    const auto lines = logs.find("Dropped what could not be decoded from " + server.url());
    ASSERT_EQ(lines.size(), 3u);
    for (const auto& line : lines) {
        EXPECT_EQ(line.channel, "connector::bayeux::transport");
        EXPECT_EQ(line.severity, 512);
    }
    EXPECT_NE(lines[0].message.find("invalid JSON"), std::string::npos);
    EXPECT_NE(lines[1].message.find("message 1: not an object"), std::string::npos);
    EXPECT_FALSE(client.collector->completed_.load());

    // Messages that are not Bayeux messages are dropped on the way out too.
    struct Foreign : Message {};
    client.send(std::make_unique<Foreign>());
    client.send(publish("/still/open"));
    ASSERT_TRUE(waitUntil([&] { return session->frames().size() == 1; }));
    EXPECT_EQ(session->frames()[0], R"([{"channel":"/still/open","data":1}])");
    EXPECT_EQ(logs.count("Dropped an outbound"), 1u);
}

TEST(WebSocketTransport, HandshakeCarriesTheApiKeyOfTheContextState) {
    TestServer server;
    Client client = connectClient(server.url());
    auto session = server.nextSession();
    ASSERT_TRUE(session);

    client.send(
        std::make_unique<HandshakeRequest>("1.0", "1.0", std::vector<std::string>{"websocket"}));
    ASSERT_TRUE(waitUntil([&] { return session->frames().size() == 1; }));
    EXPECT_EQ(session->frames()[0].find("ext"), std::string::npos);

    // Stored after connecting: read when the handshake is sent, merged into an existing ext.
    client.context->getState()->set("orvapikey", std::string("k\"1"), ContextScope::Global);
    auto handshake =
        std::make_unique<HandshakeRequest>("1.0", "1.0", std::vector<std::string>{"websocket"});
    handshake->setExt(R"({"other":true})");
    client.send(std::move(handshake));
    client.send(std::make_unique<ConnectRequest>("websocket"));
    // The two may go out in one frame or two, depending on when the first write starts.
    std::vector<std::unique_ptr<BayeuxMessage>> sent;
    ASSERT_TRUE(waitUntil([&] {
        sent.clear();
        const auto frames = session->frames();
        for (std::size_t i = 1; i < frames.size(); ++i)
            for (auto& m : codec::decodeFromClient(frames[i]).messages)
                sent.push_back(std::move(m));
        return sent.size() == 2;
    }));
    EXPECT_EQ(sent[0]->getExt(), R"({"other":true,"orvapikey":"k\"1"})");
    EXPECT_EQ(sent[1]->getExt(), "");  // only handshakes carry the key
    const std::size_t framesBefore = session->frames().size();

    // A value that is not a string is no key.
    client.context->getState()->set("orvapikey", 42, ContextScope::Global);
    client.send(std::make_unique<HandshakeRequest>());
    ASSERT_TRUE(waitUntil([&] { return session->frames().size() == framesBefore + 1; }));
    EXPECT_EQ(session->frames().back().find("orvapikey"), std::string::npos);
}

TEST(WebSocketTransport, EndOfTheOutboundStreamClosesAfterWhatIsQueued) {
    TestServer server;
    Client client = connectClient(server.url());
    auto session = server.nextSession();
    ASSERT_TRUE(session);
    auto outboundDone = client.outbound->done();
    auto inboundDone = client.inbound->done();

    client.send(std::make_unique<DisconnectRequest>("c1"));
    client.outbound->onComplete();
    client.send(publish("/too/late"));
    ASSERT_TRUE(waitUntil([&] { return session->closed(); }));
    EXPECT_EQ(session->closeCode(), static_cast<int>(websocket::close_code::normal));
    EXPECT_EQ(session->frames(),
              std::vector<std::string>{R"([{"channel":"/meta/disconnect","clientId":"c1"}])"});
    ASSERT_TRUE(waitUntil([&] { return client.collector->completed_.load(); }));
    ASSERT_TRUE(outboundDone.waitFor(5s));
    EXPECT_TRUE(outboundDone.get());
    ASSERT_TRUE(inboundDone.waitFor(5s));
    EXPECT_TRUE(inboundDone.get());
}

TEST(WebSocketTransport, CancellingTheInboundStreamClosesTheSocket) {
    TestServer server;
    Client client = connectClient(server.url());
    auto session = server.nextSession();
    ASSERT_TRUE(session);
    client.collector->cancel();
    ASSERT_TRUE(waitUntil([&] { return session->closed(); }));
    EXPECT_EQ(session->closeCode(), static_cast<int>(websocket::close_code::normal));
    EXPECT_TRUE(waitUntil([&] { return client.upstream->cancelled.load(); }));
    EXPECT_FALSE(client.collector->completed_.load());  // no signal after cancel
}

TEST(WebSocketTransport, ServerClosingOrDyingCompletesTheInboundStream) {
    TestServer server;
    Client graceful = connectClient(server.url());
    auto first = server.nextSession();
    Client abrupt = connectClient(server.url());
    auto second = server.nextSession();
    ASSERT_TRUE(first && second);
    auto gracefulDone = graceful.inbound->done();
    auto abruptDone = abrupt.inbound->done();
    // The client learns of the end through its outbound subscription only after the inbound
    // stream has handed over the reply that came before it.
    std::atomic<std::size_t> seenAtCancel{99};
    graceful.upstream->onCancel = [&] { seenAtCancel = graceful.collector->count(); };

    first->send(R"([{"channel":"/meta/disconnect","successful":true}])");
    first->close();
    second->abort();
    ASSERT_TRUE(waitUntil([&] { return graceful.collector->completed_.load(); }));
    ASSERT_TRUE(waitUntil([&] { return abrupt.collector->completed_.load(); }));
    EXPECT_EQ(graceful.collector->count(), 1u);  // the reply sent before closing still arrives
    ASSERT_TRUE(waitUntil([&] { return graceful.upstream->cancelled.load(); }));
    EXPECT_EQ(seenAtCancel.load(), 1u);
    ASSERT_TRUE(gracefulDone.waitFor(5s));
    EXPECT_TRUE(gracefulDone.get());
    ASSERT_TRUE(abruptDone.waitFor(5s));
    EXPECT_FALSE(abruptDone.get());

    // Sending on a closed connection drops the message quietly.
    abrupt.send(publish("/nowhere"));
}

TEST(WebSocketTransport, ReleasingTheStreamsOrTheContextClosesTheConnection) {
    TestServer server;
    {
        Client client = connectClient(server.url());
        auto session = server.nextSession();
        ASSERT_TRUE(session);
        client.inbound.reset();
        client.outbound.reset();
        ASSERT_TRUE(waitUntil([&] { return session->closed(); }));
    }
    {
        // The context goes first: its transport service closes what it opened.
        Client client = connectClient(server.url());
        auto session = server.nextSession();
        ASSERT_TRUE(session);
        client.context.reset();
        ASSERT_TRUE(waitUntil([&] { return session->closed(); }));
        ASSERT_TRUE(waitUntil([&] { return client.collector->completed_.load(); }));
    }
    {
        // Everything at once, with the connection open: must return promptly.
        auto started = std::chrono::steady_clock::now();
        Client client = connectClient(server.url());
        client.send(publish("/x"));
        client = Client{};
        EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);
    }
}

std::size_t threadCount() {
    std::size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        (void)entry;
        ++count;
    }
    return count;
}

// Asks for nothing until told, and notes the thread of each signal.
class LateSubscriber : public reactive_streams::Subscriber<MessagePtr> {
  public:
    void onSubscribe(std::shared_ptr<reactive_streams::Subscription> subscription) override {
        this->subscription = std::move(subscription);
        threads.push_back(std::this_thread::get_id());
    }
    void onNext(MessagePtr&&) override {
        ++received;
        threads.push_back(std::this_thread::get_id());
    }
    void onComplete() override {
        completed = true;
        threads.push_back(std::this_thread::get_id());
    }
    void onError(std::exception_ptr) override {}
    Future<bool> done() override { return makeReadyFuture<bool>(true); }

    std::shared_ptr<reactive_streams::Subscription> subscription;
    int received = 0;
    bool completed = false;
    std::vector<std::thread::id> threads;
};

// The service joins its I/O thread when its context goes; what the connection received before
// is still handed to a subscriber that comes later, on that subscriber's own thread.
TEST(WebSocketTransport, ContextDestructionJoinsTheThreadAndKeepsWhatArrived) {
    TestServer server;
    const std::size_t before = threadCount();
    auto context = contextWith();
    auto future = connectTo(context, server.url());
    ASSERT_TRUE(future.waitFor(5s));
    auto response = future.get();
    auto& open = dynamic_cast<ConnectTransportResponse&>(*response);
    auto session = server.nextSession();
    ASSERT_TRUE(session);
    EXPECT_GT(threadCount(), before);

    auto closed = open.getOutbound()->done();
    session->send(R"([{"channel":"/kept","data":1}])");
    session->close();
    ASSERT_TRUE(closed.waitFor(5s));  // the frame was read before the close
    context.reset();
    EXPECT_EQ(threadCount(), before);

    auto late = std::make_shared<LateSubscriber>();
    open.getInbound()->subscribe(late);
    ASSERT_TRUE(late->subscription);
    late->subscription->request(10);
    EXPECT_EQ(late->received, 1);
    EXPECT_TRUE(late->completed);
    for (auto id : late->threads)
        EXPECT_EQ(id, std::this_thread::get_id());
}

TEST(WebSocketTransport, ConnectFailuresNameTheUrlAndTheCause) {
    auto context = contextWith();

    // A port nobody listens on: bound, then released.
    std::string refusedUrl;
    {
        asio::io_context io;
        tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
        refusedUrl =
            "ws://127.0.0.1:" + std::to_string(acceptor.local_endpoint().port()) + "/bayeux";
    }
    EXPECT_EQ(connectError(context, refusedUrl),
              "Cannot connect to " + refusedUrl + ": Connection refused");
    EXPECT_EQ(
        connectError(context, "http://127.0.0.1/bayeux"),
        "Cannot connect to http://127.0.0.1/bayeux: the URL does not start with ws:// or wss://");

    // A server that accepts TCP and never answers the WebSocket handshake.
    TestServer silent({true, /*answerHandshake=*/false});
    WebSocketTransportOptions quick;
    quick.connectTimeoutMs = 300;
    EXPECT_EQ(connectError(contextWith(quick), silent.url()),
              "Cannot connect to " + silent.url() + ": timed out after 300 ms");

    // Only ConnectTransport is understood.
    auto wrong =
        context->deliver(webSocketTransportAddress(), std::make_unique<DisconnectRequest>());
    EXPECT_THROW(wrong.get(), std::invalid_argument);
}

TEST(WebSocketTransport, ContextGoneWhileConnectingFailsTheConnect) {
    TestServer silent({true, false});
    auto context = contextWith();
    auto future = connectTo(context, silent.url());
    context.reset();
    ASSERT_TRUE(future.waitFor(5s));
    try {
        future.get();
        FAIL() << "connected";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()),
                  "Cannot connect to " + silent.url() + ": the transport was shut down");
    }
}

TEST(WebSocketTransport, MakeContextRegistersTheTransport) {
    auto context = makeContext();
    EXPECT_TRUE(context->hasService(webSocketTransportAddress()));
    EXPECT_EQ(webSocketTransportAddress().service(), "connector/bayeux/webSocket/client");
    EXPECT_EQ(webSocketTransportAddress().protocol(), "connector/http/client");
    TestServer server;
    auto future = connectTo(context, server.url());
    ASSERT_TRUE(future.waitFor(5s));
    EXPECT_NE(dynamic_cast<ConnectTransportResponse*>(future.get().get()), nullptr);
    EXPECT_EQ(makeConnector(context)->getContext(), context);
}

}  // namespace
}  // namespace connector::bayeux
