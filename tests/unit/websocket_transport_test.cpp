// The WebSocket transport service against a Boost.Beast server in the test: connecting and its
// failures, the exchange of messages, the API key, and how the streams, the socket and the
// context end one another. What the connection does with frames is websocket_connection_test.cpp.

#include "connector/bayeux/websocket_transport.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "websocket_peers.h"

namespace connector::bayeux::transport_test {
namespace {

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
// What is queued while a write is in flight goes out as one frame once the socket is free.
// A burst queued behind a slow write is split into frames a server's frame limit accepts, with
// every message once and in order; a single larger message still goes out whole.
// Through the whole connection, a paced stream loses nothing and keeps its order, with a frame
// larger than the read buffer in the middle and a lone frame after it stops.
// A fast stream goes out in frames of many messages; the frame held last still leaves once the
// stream stops, and so does a lone message after it. Nothing is lost or reordered, with write
// pacing or without.
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

// Each failure to connect names the URL and the cause; only ConnectTransport is understood.
TEST(WebSocketTransport, ConnectFailuresNameTheUrlAndTheCause) {
    // A port nobody listens on: bound, then released.
    std::string refused;
    {
        asio::io_context io;
        tcp::acceptor acceptor(io, tcp::endpoint(asio::ip::make_address("127.0.0.1"), 0));
        refused = "ws://127.0.0.1:" + std::to_string(acceptor.local_endpoint().port()) + "/bayeux";
    }
    // A server that accepts TCP and never answers the WebSocket handshake.
    TestServer silent({true, /*answerHandshake=*/false});
    WebSocketTransportOptions quick;
    quick.connectTimeoutMs = 300;
    const struct {
        std::string url;
        std::string cause;  // empty: any cause the resolver gives
        WebSocketTransportOptions options;
    } cases[] = {
        {refused, "Connection refused", {}},
        {"http://127.0.0.1/bayeux", "the URL does not start with ws:// or wss://", {}},
        {"bayeux.example/path", "the URL does not start with ws:// or wss://", {}},
        {"ws://127.0.0.1:99999/bayeux", "invalid port", {}},
        {"ws://nonexistent.invalid/bayeux", "", {}},
        {silent.url(), "timed out after 300 ms", quick},
    };
    for (const auto& c : cases) {
        const std::string error = connectError(contextWith(c.options), c.url);
        const std::string prefix = "Cannot connect to " + c.url + ": ";
        if (c.cause.empty())
            EXPECT_TRUE(error.rfind(prefix, 0) == 0 && error.size() > prefix.size()) << error;
        else
            EXPECT_EQ(error, prefix + c.cause);
    }
    auto wrong =
        contextWith()->deliver(webSocketTransportAddress(), std::make_unique<DisconnectRequest>());
    EXPECT_THROW(wrong.get(), std::invalid_argument);
}

TEST(WebSocketTransport, ContextGoneWhileConnectingFailsTheConnect) {
    TestServer silent({true, false});
    auto context = contextWith();
    auto future = connectTo(context, silent.url());
    context.reset();
    EXPECT_EQ(connectError(future),
              "Cannot connect to " + silent.url() + ": the transport was shut down");
}

// The context every host gets already holds the transport.
TEST(WebSocketTransport, MakeContextRegistersTheTransport) {
    TestServer server;
    auto context = makeContext();
    auto future = connectTo(context, server.url());
    ASSERT_TRUE(future.waitFor(5s));
    EXPECT_NE(dynamic_cast<ConnectTransportResponse*>(future.get().get()), nullptr);
}

}  // namespace
}  // namespace connector::bayeux::transport_test
