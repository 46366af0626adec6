// The WebSocket transport and the codec against a real Faye server (Node.js): a whole Bayeux
// session through the raw transport, and wss:// with a CA made for the test. A server that dies
// is client_service_test.cpp's.

#include "connector/bayeux/websocket_transport.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <deque>
#include <fstream>

#include "bayeux/codec.h"
#include "child_process.h"
#include "log_capture.h"

namespace connector::bayeux {
namespace {

using orvale::test::ChildProcess;
using orvale::test::waitUntil;
using namespace std::chrono_literals;

// Keeps every inbound message, containers flattened, for the test to take in any order.
class Inbox : public reactive_streams::Subscriber<MessagePtr> {
  public:
    void onSubscribe(std::shared_ptr<reactive_streams::Subscription> subscription) override {
        subscription->request(UINT64_MAX);
    }
    void onNext(MessagePtr&& element) override {
        std::lock_guard<std::mutex> lock(mutex_);
        if (auto* container = dynamic_cast<BayeuxContainer*>(element.get())) {
            for (auto& message : container->messages())
                keep(std::move(message));
        } else {
            keep(std::move(element));
        }
    }
    void onComplete() override { completed = true; }
    void onError(std::exception_ptr) override { completed = true; }
    Future<bool> done() override { return makeReadyFuture<bool>(true); }

    // Removes and returns the first message that `match` accepts, waiting a bounded time.
    template <class T = BayeuxMessage>
    std::unique_ptr<T> take(const std::function<bool(const T&)>& match = nullptr,
                            std::chrono::milliseconds timeout = 5s) {
        std::unique_ptr<T> out;
        waitUntil(
            [&] {
                std::lock_guard<std::mutex> lock(mutex_);
                for (auto it = messages_.begin(); it != messages_.end(); ++it) {
                    auto* typed = dynamic_cast<T*>(it->get());
                    if (typed && (!match || match(*typed))) {
                        it->release();
                        out.reset(typed);
                        messages_.erase(it);
                        return true;
                    }
                }
                return false;
            },
            timeout);
        return out;
    }

    std::atomic<bool> completed{false};

  private:
    void keep(MessagePtr message) {
        auto* bayeux = dynamic_cast<BayeuxMessage*>(message.get());
        if (!bayeux)
            return;
        message.release();
        messages_.emplace_back(bayeux);
    }
    std::mutex mutex_;  // guards messages_
    std::deque<std::unique_ptr<BayeuxMessage>> messages_;
};

class Upstream : public reactive_streams::Subscription {
  public:
    void request(std::uint64_t) override {}
    void cancel() override {}
};

// One connection of the raw transport, as a client service would hold it.
struct Peer {
    std::shared_ptr<Context> context;
    std::shared_ptr<reactive_streams::Publisher<MessagePtr>> inbound;
    std::shared_ptr<reactive_streams::Subscriber<MessagePtr>> outbound;
    std::shared_ptr<Inbox> inbox = std::make_shared<Inbox>();
    std::string clientId;
    int nextId = 1;

    template <class T>
    std::string send(std::unique_ptr<T> message) {
        const std::string id = std::to_string(nextId++);
        message->setId(id);
        if (!clientId.empty() && message->kind() != Kind::HandshakeRequest)
            message->setClientId(clientId);
        outbound->onNext(std::move(message));
        return id;
    }

    template <class T>
    std::unique_ptr<T> reply(const std::string& id, std::chrono::milliseconds timeout = 5s) {
        return inbox->take<T>([&](const T& m) { return m.getId() == id; }, timeout);
    }

    void handshake() {
        auto id = send(std::make_unique<HandshakeRequest>("1.0", "1.0",
                                                          std::vector<std::string>{"websocket"}));
        auto response = reply<HandshakeResponse>(id);
        if (!response || !response->isSuccessful())
            throw std::runtime_error("handshake failed");
        clientId = response->getClientId();
    }
};

Future<MessagePtr> connectTo(const std::string& url, WebSocketTransportOptions options,
                             std::shared_ptr<Context>& context) {
    context = std::make_shared<Context>();
    context->registerService(webSocketTransportAddress(), makeWebSocketTransport(options));
    return context->deliver(webSocketTransportAddress(), std::make_unique<ConnectTransport>(url));
}

Peer open(const std::string& url, WebSocketTransportOptions options = {}) {
    Peer peer;
    auto future = connectTo(url, options, peer.context);
    if (!future.waitFor(10s))
        throw std::runtime_error("connecting to " + url + " did not finish");
    auto response = future.get();
    auto& open = dynamic_cast<ConnectTransportResponse&>(*response);
    peer.inbound = open.getInbound();
    peer.outbound = open.getOutbound();
    peer.inbound->subscribe(peer.inbox);
    peer.outbound->onSubscribe(std::make_shared<Upstream>());
    return peer;
}

std::string connectError(const std::string& url, WebSocketTransportOptions options = {}) {
    std::shared_ptr<Context> context;
    auto future = connectTo(url, options, context);
    if (!future.waitFor(15s))
        return "still pending";
    try {
        future.get();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "connected";
}

bool startsWith(const std::string& text, const std::string& prefix) {
    return text.rfind(prefix, 0) == 0;
}

std::string fayeUrl(ChildProcess& faye, const char* scheme = "ws", const char* host = "127.0.0.1") {
    return std::string(scheme) + "://" + host + ":" + *faye.firstLine(0s) + "/bayeux";
}

TEST(WebSocketTransportWithFaye, RunsAWholeBayeuxSession) {
    ORVALE_REQUIRE_NODE();
    auto faye = orvale::test::startNode("faye_server.js", {"--timeout", "1"});
    const std::string url = fayeUrl(*faye);
    Peer a = open(url);
    Peer b = open(url);
    a.handshake();
    b.handshake();
    EXPECT_FALSE(a.clientId.empty());
    EXPECT_NE(a.clientId, b.clientId);

    // Faye holds each connect until its timeout (1 s here) when it has nothing to deliver.
    for (int turn = 0; turn < 2; ++turn) {
        const auto sent = std::chrono::steady_clock::now();
        auto id = a.send(std::make_unique<ConnectRequest>("websocket"));
        auto connected = a.reply<ConnectStreamResponse>(id);
        ASSERT_TRUE(connected) << "turn " << turn;
        EXPECT_TRUE(connected->isSuccessful());
        EXPECT_GE(std::chrono::steady_clock::now() - sent, 500ms);
        ASSERT_TRUE(connected->getAdvice());
        EXPECT_EQ(connected->getAdvice()->timeout, 1000);
    }

    for (const char* channel : {"/orvale/news", "/orvale/other"}) {
        auto id = a.send(std::make_unique<SubscribeRequest>(channel, ""));
        auto subscribed = a.reply<SubscribeResponse>(id);
        ASSERT_TRUE(subscribed);
        EXPECT_TRUE(subscribed->isSuccessful());
        EXPECT_EQ(subscribed->getChannel(), channel);
    }
    // Deliveries come over the socket while a connect is pending.
    a.send(std::make_unique<ConnectRequest>("websocket"));

    auto published = b.send(std::make_unique<PublishRequest>(
        "/orvale/news", std::string(R"({"text":"héllo","n":[1,2.5]})")));
    auto ack = b.reply<PublishResponse>(published);
    ASSERT_TRUE(ack);
    EXPECT_TRUE(ack->isSuccessful());
    auto delivered = a.inbox->take<PublishRequest>();
    ASSERT_TRUE(delivered);
    EXPECT_EQ(delivered->getChannel(), "/orvale/news");
    EXPECT_EQ(delivered->getJson(), R"({"text":"héllo","n":[1,2.5]})");
    EXPECT_EQ(delivered->getId(), published);  // Faye passes the publisher's id along

    auto id = a.send(std::make_unique<UnsubscribeRequest>("/orvale/news", ""));
    auto unsubscribed = a.reply<UnsubscribeResponse>(id);
    ASSERT_TRUE(unsubscribed);
    EXPECT_TRUE(unsubscribed->isSuccessful());
    EXPECT_EQ(unsubscribed->getChannel(), "/orvale/news");

    // After unsubscribing only the other channel arrives: published second, delivered alone.
    a.send(std::make_unique<ConnectRequest>("websocket"));
    b.send(std::make_unique<PublishRequest>("/orvale/news", std::string("1")));
    b.send(std::make_unique<PublishRequest>("/orvale/other", std::string("2")));
    auto next = a.inbox->take<PublishRequest>();
    ASSERT_TRUE(next);
    EXPECT_EQ(next->getChannel(), "/orvale/other");

    // Faye's errors come back verbatim.
    auto bad = a.send(std::make_unique<SubscribeRequest>("/orvale/a b", ""));
    auto refused = a.reply<SubscribeResponse>(bad);
    ASSERT_TRUE(refused);
    EXPECT_FALSE(refused->isSuccessful());
    EXPECT_EQ(refused->getError(), "405:/orvale/a b:Invalid channel");

    // A connect and a disconnect handed over together: Faye answers a frame only when all of it
    // is answered and drops the session on disconnect, so the two must not share a frame.
    a.send(std::make_unique<ConnectRequest>("websocket"));
    auto bye = a.send(std::make_unique<DisconnectRequest>());
    auto disconnected = a.reply<DisconnectResponse>(bye);
    ASSERT_TRUE(disconnected);
    EXPECT_TRUE(disconnected->isSuccessful());
    // Faye closes the socket after a disconnect: the inbound stream completes.
    EXPECT_TRUE(waitUntil([&] { return a.inbox->completed.load(); }));

    // An unknown client id is refused with Faye's own error text.
    Peer c = open(url);
    c.clientId = "bogus123";
    auto unknown = c.send(std::make_unique<ConnectRequest>("websocket"));
    auto rejected = c.reply<ConnectStreamResponse>(unknown);
    ASSERT_TRUE(rejected);
    EXPECT_FALSE(rejected->isSuccessful());
    EXPECT_EQ(rejected->getError(), "401:bogus123:Unknown client");
    EXPECT_EQ(rejected->getAdvice()->reconnect, "handshake");
}

// A CA and a server certificate for "localhost" made with the openssl command line.
class TestCertificates {
  public:
    TestCertificates() {
        char pattern[] = "/tmp/orvale-tls-XXXXXX";
        if (!::mkdtemp(pattern))
            throw std::runtime_error("mkdtemp failed");
        dir_ = pattern;
        std::ofstream(dir_ + "/server.ext") << "subjectAltName=DNS:localhost\n"
                                               "basicConstraints=CA:FALSE\n"
                                               "extendedKeyUsage=serverAuth\n";
        const std::string ec = " -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes";
        run("openssl req -x509" + ec +
            " -keyout ca.key -out ca.pem -days 2 -subj '/CN=orvale test CA'");
        run("openssl req" + ec + " -keyout server.key -out server.csr -subj '/CN=localhost'");
        run("openssl x509 -req -in server.csr -CA ca.pem -CAkey ca.key -CAcreateserial"
            " -out server.pem -days 2 -extfile server.ext");
    }
    ~TestCertificates() { run("rm -rf '" + dir_ + "'", false); }

    std::string ca() const { return dir_ + "/ca.pem"; }
    std::string cert() const { return dir_ + "/server.pem"; }
    std::string key() const { return dir_ + "/server.key"; }

  private:
    void run(const std::string& command, bool mustSucceed = true) const {
        const int status =
            std::system(("cd '" + dir_ + "' && " + command + " >/dev/null 2>&1").c_str());
        if (status != 0 && mustSucceed)
            throw std::runtime_error("failed: " + command);
    }
    std::string dir_;
};

TEST(WebSocketTransportWithFaye, SecureWebSocketVerifiesTheServer) {
    ORVALE_REQUIRE_NODE();
    TestCertificates certificates;
    auto faye = orvale::test::startNode("faye_server.js", {"--cert", certificates.cert(), "--key",
                                                           certificates.key(), "--timeout", "1"});
    const std::string url = fayeUrl(*faye, "wss", "localhost");

    WebSocketTransportOptions trusting;
    trusting.caFile = certificates.ca();
    Peer peer = open(url, trusting);
    peer.handshake();
    EXPECT_FALSE(peer.clientId.empty());
    auto id = peer.send(std::make_unique<SubscribeRequest>("/orvale/secure", ""));
    auto subscribed = peer.reply<SubscribeResponse>(id);
    ASSERT_TRUE(subscribed);
    EXPECT_TRUE(subscribed->isSuccessful());

    // The system store alone does not know the test CA.
    const std::string untrusted = connectError(url);
    EXPECT_TRUE(startsWith(untrusted, "Cannot connect to " + url + ": ")) << untrusted;
    EXPECT_NE(untrusted.find("certificate verify failed"), std::string::npos) << untrusted;

    // The certificate names localhost, not the address.
    const std::string byAddress = fayeUrl(*faye, "wss", "127.0.0.1");
    const std::string mismatch = connectError(byAddress, trusting);
    EXPECT_TRUE(startsWith(mismatch, "Cannot connect to " + byAddress + ": ")) << mismatch;
    EXPECT_NE(mismatch.find("certificate verify failed"), std::string::npos) << mismatch;

    WebSocketTransportOptions careless;
    careless.verifyPeer = false;
    Peer unverified = open(byAddress, careless);
    unverified.handshake();
    EXPECT_FALSE(unverified.clientId.empty());

    WebSocketTransportOptions missing;
    missing.caFile = "/nonexistent/ca.pem";
    EXPECT_TRUE(
        startsWith(connectError(url, missing),
                   "Cannot connect to " + url + ": cannot load the CA file /nonexistent/ca.pem: "));
}

}  // namespace
}  // namespace connector::bayeux
