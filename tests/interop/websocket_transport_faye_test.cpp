// The WebSocket transport and codec in a whole session with a real Faye server over wss:// (a CA
// made for the test); plain ws:// and a dying server are client_service_test.cpp's.

#include <gtest/gtest.h>

#include "../unit/websocket_peers.h"
#include "bayeux/codec.h"
#include "child_process.h"
#include "test_certificates.h"

namespace connector::bayeux::transport_test {
namespace {

// A raw client of the transport, as a client service would hold one, taking what comes in any
// order: each answer by its type and id.
struct Peer : Client {
    using Client::Client;

    // Removes and returns the first T answering `id` (any when empty), waiting a bounded time;
    // throws when none comes.
    template <class T>
    std::unique_ptr<T> take(const std::string& id = {}) {
        std::unique_ptr<T> out;
        waitUntil([&] {
            // The recorder keeps each frame as its text; read again, containers flattened.
            for (const auto frames = collector->received(); read < frames.size(); ++read) {
                const bool container = frames[read].rfind("container", 0) == 0;
                auto decoded = codec::decodeFromServer(frames[read].substr(container ? 9 : 0));
                for (auto& message : decoded.messages)
                    messages.push_back(std::move(message));
            }
            for (auto it = messages.begin(); it != messages.end(); ++it)
                if (auto* typed = dynamic_cast<T*>(it->get());
                    typed && (id.empty() || typed->getId() == id)) {
                    out.reset(static_cast<T*>(it->release()));
                    messages.erase(it);
                    return true;
                }
            return false;
        });
        if (!out)
            throw std::runtime_error(std::string("no ") + typeid(T).name() + " came");
        return out;
    }
    std::string send(std::unique_ptr<BayeuxMessage> message) {
        const std::string id = std::to_string(nextId++);
        message->setId(id);
        if (!clientId.empty() && message->kind() != Kind::HandshakeRequest)
            message->setClientId(clientId);
        Client::send(std::move(message));
        return id;
    }
    std::unique_ptr<SubscribeResponse> subscribe(const std::string& channel) {
        return take<SubscribeResponse>(send(std::make_unique<SubscribeRequest>(channel, "")));
    }
    std::string connect() { return send(std::make_unique<ConnectRequest>("websocket")); }
    void handshake() {
        auto response = take<HandshakeResponse>(send(std::make_unique<HandshakeRequest>(
            "1.0", "1.0", std::vector<std::string>{"websocket"})));
        if (!response->isSuccessful())
            throw std::runtime_error("handshake failed");
        clientId = response->getClientId();
    }

    std::string clientId;
    int nextId = 1;
    std::size_t read = 0;  // frames decoded into `messages`
    std::deque<std::unique_ptr<BayeuxMessage>> messages;
};

// The system store alone does not know the test CA, and the certificate names localhost, not
// the address; trusting the CA, a whole session runs.
TEST(WebSocketTransportWithFaye, VerifiesTheServerAndRunsAWholeBayeuxSession) {
    ORVALE_REQUIRE_NODE();
    orvale::test::TestCertificates certificates;
    auto faye = orvale::test::startNode("faye_server.js",
                                        {"--cert", certificates.dir + "/server.pem", "--key",
                                         certificates.dir + "/server.key", "--timeout", "1"});
    const std::string port = *faye->firstLine(0s);
    const std::string url = "wss://localhost:" + port + "/bayeux";
    const std::string byAddress = "wss://127.0.0.1:" + port + "/bayeux";
    WebSocketTransportOptions trusting, careless, missing;
    trusting.caFile = certificates.dir + "/ca.pem";
    careless.verifyPeer = false;
    missing.caFile = "/nonexistent/ca.pem";
    struct Case {
        std::string url;
        WebSocketTransportOptions options;
        std::string reason;  // empty: the connection opens
    };
    for (const auto& c : {Case{byAddress, careless, ""}, Case{url, {}, "certificate verify failed"},
                          Case{byAddress, trusting, "certificate verify failed"},
                          Case{url, missing, "cannot load the CA file /nonexistent/ca.pem: "}}) {
        SCOPED_TRACE(c.url + " " + c.reason);
        const std::string error =
            orvale::test::failureText(connectTo(contextWith(c.options), c.url));
        if (c.reason.empty()) {
            EXPECT_EQ(error, "no exception");
            continue;
        }
        EXPECT_EQ(error.rfind("Cannot connect to " + c.url + ": ", 0), 0u) << error;
        EXPECT_NE(error.find(c.reason), std::string::npos) << error;
    }

    Peer a(url, trusting), b(url, trusting);
    a.handshake();
    b.handshake();
    EXPECT_NE(a.clientId, b.clientId);

    // Faye holds each connect until its timeout (1 s here) when it has nothing to deliver.
    for (int turn = 0; turn < 2; ++turn) {
        const auto sent = std::chrono::steady_clock::now();
        auto connected = a.take<ConnectStreamResponse>(a.connect());
        EXPECT_TRUE(connected->isSuccessful());
        EXPECT_GE(std::chrono::steady_clock::now() - sent, 500ms);
        ASSERT_TRUE(connected->getAdvice());
        EXPECT_EQ(connected->getAdvice()->timeout, 1000);
    }
    for (const char* channel : {"/orvale/news", "/orvale/other"}) {
        auto subscribed = a.subscribe(channel);
        EXPECT_TRUE(subscribed->isSuccessful());
        EXPECT_EQ(subscribed->getChannel(), channel);
    }
    // Deliveries come over the socket while a connect is pending.
    a.connect();
    const std::string json = R"({"text":"héllo","n":[1,2.5]})";
    const auto published = b.send(std::make_unique<PublishRequest>("/orvale/news", json));
    EXPECT_TRUE(b.take<PublishResponse>()->isSuccessful());
    auto delivered = a.take<PublishRequest>();
    EXPECT_EQ(delivered->getChannel(), "/orvale/news");
    EXPECT_EQ(delivered->getJson(), json);
    EXPECT_EQ(delivered->getId(), published);  // Faye passes the publisher's id along

    auto unsubscribed = a.take<UnsubscribeResponse>(
        a.send(std::make_unique<UnsubscribeRequest>("/orvale/news", "")));
    EXPECT_TRUE(unsubscribed->isSuccessful());
    EXPECT_EQ(unsubscribed->getChannel(), "/orvale/news");
    // After unsubscribing only the other channel arrives: published second, delivered alone.
    a.connect();
    b.send(std::make_unique<PublishRequest>("/orvale/news", std::string("1")));
    b.send(std::make_unique<PublishRequest>("/orvale/other", std::string("2")));
    EXPECT_EQ(a.take<PublishRequest>()->getChannel(), "/orvale/other");

    // Faye's errors come back verbatim.
    auto refused = a.subscribe("/orvale/a b");
    EXPECT_FALSE(refused->isSuccessful());
    EXPECT_EQ(refused->getError(), "405:/orvale/a b:Invalid channel");

    // A connect and a disconnect handed over together: Faye answers a frame only when all of it
    // is answered and drops the session on disconnect, so the two must not share a frame.
    a.connect();
    EXPECT_TRUE(
        a.take<DisconnectResponse>(a.send(std::make_unique<DisconnectRequest>()))->isSuccessful());
    // Faye closes the socket after a disconnect: the inbound stream completes.
    EXPECT_TRUE(waitUntil([&] { return a.completed(); }));

    // An unknown client id is refused with Faye's own error text.
    Peer c(url, trusting);
    c.clientId = "bogus123";
    auto rejected = c.take<ConnectStreamResponse>(c.connect());
    EXPECT_FALSE(rejected->isSuccessful());
    EXPECT_EQ(rejected->getError(), "401:bogus123:Unknown client");
    EXPECT_EQ(rejected->getAdvice()->reconnect, "handshake");
}

}  // namespace
}  // namespace connector::bayeux::transport_test
