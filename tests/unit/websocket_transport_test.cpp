// The WebSocket transport against a Boost.Beast server: connecting and its failures, the exchange
// of messages, the API key, and how the streams, the socket and the context end one another.

#include "connector/bayeux/websocket_transport.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "websocket_peers.h"

namespace connector::bayeux::transport_test {
namespace {

std::size_t threadCount() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
}

// Messages go both ways in order, handshakes carrying the API key. Completing the outbound stream
// closes after what is queued, cancelling the inbound one at once; the server closing or dying
// completes the inbound stream after what it sent; releasing the streams or context closes too.
TEST(WebSocketTransport, ExchangesMessagesEitherSideEndsBothStreamsAndFailuresNameTheCause) {
    TestServer server;
    Client client(server);
    auto session = client.session;
    EXPECT_EQ(client.upstream->requested.load(), UINT64_MAX);

    client.send(publish("/a", R"({"n":1})"));
    ASSERT_TRUE(waitUntil([&] { return session->frames().size() == 1; }));
    // A container goes out as one frame holding its messages in order.
    auto batch = std::make_unique<BayeuxContainer>();
    batch->messages().push_back(publish("/b"));
    batch->messages().push_back(std::make_unique<SubscribeRequest>("/c", "id1"));
    client.send(std::move(batch));
    ASSERT_TRUE(waitUntil([&] { return session->frames().size() == 2; }));
    EXPECT_EQ(session->frames(),
              (std::vector<std::string>{R"([{"channel":"/a","data":{"n":1}}])",
                                        R"([{"channel":"/b","data":1},{"channel":"/meta/)"
                                        R"(subscribe","clientId":"id1","subscription":"/c"}])"}));

    session->send(R"([{"channel":"/meta/connect","successful":true,"id":"1"}])");
    session->send(R"([{"channel":"/x","data":1},{"channel":"/y","data":2}])");
    session->send(R"({"channel":"/z","data":3})");
    // Larger than the read buffer the connection keeps between frames.
    const std::string big = R"([{"channel":"/big","data":")" + std::string(200000, 'x') + "\"}]";
    session->send(big);
    ASSERT_TRUE(waitUntil([&] { return client.collector->count() == 4; }));
    EXPECT_EQ(client.collector->received(),
              (std::vector<std::string>{
                  R"([{"channel":"/meta/connect","id":"1","successful":true}])",
                  R"(container[{"channel":"/x","data":1},{"channel":"/y","data":2}])",
                  R"([{"channel":"/z","data":3}])", big}));

    // Handshakes carry the API key of the context state.
    auto handshake = [] {
        return std::make_unique<HandshakeRequest>("1.0", "1.0",
                                                  std::vector<std::string>{"websocket"});
    };
    // The decoded ext of the message in frame `index`, once that frame has come.
    auto extIn = [&](std::size_t index) {
        EXPECT_TRUE(waitUntil([&] { return session->frames().size() > index; }));
        return codec::decodeFromClient(session->frames().at(index)).messages.at(0)->getExt();
    };
    client.send(handshake());
    EXPECT_EQ(extIn(2), "");

    // Stored after connecting: read when the handshake is sent, merged into an existing ext.
    client.context->getState()->set("orvapikey", std::string("k\"1"), ContextScope::Global);
    auto withExt = handshake();
    withExt->setExt(R"({"other":true})");
    client.send(std::move(withExt));
    client.send(std::make_unique<ConnectRequest>("websocket"));  // a connect goes alone
    EXPECT_EQ(extIn(3), R"({"other":true,"orvapikey":"k\"1"})");
    EXPECT_EQ(extIn(4), "") << "only handshakes carry the key";

    client.context->getState()->set("orvapikey", 42, ContextScope::Global);  // not a key
    client.send(handshake());
    EXPECT_EQ(extIn(5), "");

    // The service joins its I/O thread when its context goes; what the connection received
    // before is still handed to a subscriber that comes later, on that subscriber's own thread.
    const std::size_t before = threadCount();
    auto context = makeContext();  // every host's context already holds the transport
    auto future = connectTo(context, server.url());
    ASSERT_TRUE(future.waitFor(5s));
    auto response = future.get();
    auto& open = dynamic_cast<ConnectTransportResponse&>(*response);
    auto served = server.nextSession();
    ASSERT_TRUE(served);
    EXPECT_GT(threadCount(), before);

    auto closed = open.getOutbound()->done();
    served->send(R"([{"channel":"/kept","data":1}])");
    served->close();
    ASSERT_TRUE(closed.waitFor(5s));  // the frame was read before the close
    context.reset();
    EXPECT_EQ(threadCount(), before);

    auto late = std::make_shared<RecordingSubscriber>(10, std::this_thread::get_id());
    open.getInbound()->subscribe(late);
    EXPECT_EQ(late->count(), 1u);
    EXPECT_EQ(late->completions.load(), 1);
    EXPECT_FALSE(late->wrongThread.load());

    Client ending(server), cancelling(server), graceful(server), abrupt(server);
    Client released(server), unowned(server);
    auto outboundDone = ending.outbound->done();
    auto endingDone = ending.inbound->done();
    auto gracefulDone = graceful.inbound->done();
    auto abruptDone = abrupt.inbound->done();
    // The client learns of the server's end through its outbound subscription only after the
    // inbound stream has handed over the reply that came before it.
    std::atomic<std::size_t> seenAtCancel{99};
    graceful.upstream->onCancel = [&] { seenAtCancel = graceful.collector->count(); };

    ending.send(std::make_unique<DisconnectRequest>("c1"));
    ending.outbound->onComplete();
    ending.send(publish("/too/late"));
    cancelling.collector->cancel();
    graceful.session->send(R"([{"channel":"/meta/disconnect","successful":true}])");
    graceful.session->close();
    abrupt.session->abort();
    released.inbound.reset();
    released.outbound.reset();
    unowned.context.reset();  // its transport service closes what it opened
    ASSERT_TRUE(waitUntil([&] {
        return ending.session->closed() && cancelling.session->closed() &&
               released.session->closed() && unowned.session->closed();
    }));
    EXPECT_EQ(ending.session->closeCode(), static_cast<int>(websocket::close_code::normal));
    EXPECT_EQ(cancelling.session->closeCode(), ending.session->closeCode());
    EXPECT_EQ(ending.session->frames(),
              std::vector<std::string>{R"([{"channel":"/meta/disconnect","clientId":"c1"}])"});
    ASSERT_TRUE(waitUntil([&] {
        return ending.completed() && graceful.completed() && abrupt.completed() &&
               unowned.completed();
    }));
    EXPECT_EQ(graceful.collector->count(), 1u);  // the reply sent before closing still arrives
    ASSERT_TRUE(waitUntil([&] { return graceful.upstream->cancelled.load(); }));
    EXPECT_EQ(seenAtCancel.load(), 1u);
    for (auto* done : {&outboundDone, &endingDone, &gracefulDone, &abruptDone})
        ASSERT_TRUE(done->waitFor(5s));
    EXPECT_TRUE(outboundDone.get() && endingDone.get() && gracefulDone.get());
    EXPECT_FALSE(abruptDone.get()) << "the socket died without a close";
    EXPECT_TRUE(waitUntil([&] { return cancelling.upstream->cancelled.load(); }));
    EXPECT_FALSE(cancelling.completed());  // no signal after cancel
    abrupt.send(publish("/nowhere"));  // sending on a closed connection drops the message quietly
    // Released all at once, with the connection open: returns promptly.
    const auto started = std::chrono::steady_clock::now();
    Client(server.url()).send(publish("/x"));
    EXPECT_LT(std::chrono::steady_clock::now() - started, 5s);

    // Each failure to connect names the URL and the cause; only ConnectTransport is understood.
    // A listener that never accepts: the kernel takes the TCP connection, nobody answers the
    // WebSocket handshake. A port nobody listens on: bound, then released.
    asio::io_context io;
    const tcp::endpoint loopback(asio::ip::make_address("127.0.0.1"), 0);
    auto url = [](const tcp::acceptor& a) {
        return "ws://127.0.0.1:" + std::to_string(a.local_endpoint().port()) + "/bayeux";
    };
    const tcp::acceptor silentAcceptor(io, loopback);
    const std::string silent = url(silentAcceptor), refused = url(tcp::acceptor(io, loopback));
    WebSocketTransportOptions quick;
    quick.connectTimeoutMs = 300;
    const struct {
        std::string url;
        std::string cause;  // empty: any cause the resolver gives
        WebSocketTransportOptions options;
    } cases[] = {
        {refused, "Connection refused", {}},
        // One problem of the URL stands for all: their texts are ws_url_test.cpp's.
        {"http://127.0.0.1/bayeux", "the URL does not start with ws:// or wss://", {}},
        {"ws://nonexistent.invalid/bayeux", "", {}},
        {silent, "timed out after 300 ms", quick},
    };
    for (const auto& c : cases) {
        const std::string error =
            orvale::test::failureText(connectTo(contextWith(c.options), c.url));
        const std::string prefix = "Cannot connect to " + c.url + ": ";
        if (c.cause.empty())
            EXPECT_TRUE(error.rfind(prefix, 0) == 0 && error.size() > prefix.size()) << error;
        else
            EXPECT_EQ(error, prefix + c.cause);
    }
    auto gone = contextWith();
    auto pending = connectTo(gone, silent);
    gone.reset();
    EXPECT_EQ(orvale::test::failureText(pending),
              "Cannot connect to " + silent + ": the transport was shut down");
    auto wrong =
        contextWith()->deliver(webSocketTransportAddress(), std::make_unique<DisconnectRequest>());
    EXPECT_THROW(wrong.get(), std::invalid_argument);
}

}  // namespace
}  // namespace connector::bayeux::transport_test
