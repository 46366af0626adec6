// The WebSocket transport and the codec against a real Faye server (Node.js): a whole Bayeux
// session through the raw transport, a server that dies, wss:// with a CA made for the test, and
// the failures of connecting.

#include "connector/bayeux/websocket_transport.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <deque>
#include <fstream>

#include "bayeux/codec.h"
#include "log_capture.h"
#include "node_process.h"

namespace connector::bayeux {
namespace {

using orvale::test::NodeProcess;
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

WebSocketTransportOptions defaults() {
    return {};
}

Future<MessagePtr> connectTo(const std::string& url, WebSocketTransportOptions options,
                             std::shared_ptr<Context>& context) {
    context = std::make_shared<Context>();
    context->registerService(webSocketTransportAddress(), makeWebSocketTransport(options));
    return context->deliver(webSocketTransportAddress(), std::make_unique<ConnectTransport>(url));
}

Peer open(const std::string& url, WebSocketTransportOptions options = defaults()) {
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

std::string connectError(const std::string& url, WebSocketTransportOptions options = defaults()) {
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

std::string fayeUrl(const NodeProcess& faye, const char* scheme = "ws",
                    const char* host = "127.0.0.1") {
    return std::string(scheme) + "://" + host + ":" + faye.firstLine() + "/bayeux";
}

TEST(WebSocketTransportWithFaye, RunsAWholeBayeuxSession) {
    ORVALE_REQUIRE_NODE();
    NodeProcess faye("faye_server.js", {"--timeout", "1"});
    const std::string url = fayeUrl(faye);
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

TEST(WebSocketTransportWithFaye, ServerKilledMidSessionCompletesTheInboundStream) {
    ORVALE_REQUIRE_NODE();
    NodeProcess faye("faye_server.js", {"--timeout", "5"});
    Peer a = open(fayeUrl(faye));
    a.handshake();
    a.send(std::make_unique<ConnectRequest>("websocket"));  // held by the server
    auto done = a.inbound->done();
    faye.kill(SIGKILL);
    ASSERT_TRUE(waitUntil([&] { return a.inbox->completed.load(); }));
    ASSERT_TRUE(done.waitFor(5s));
    EXPECT_FALSE(done.get());
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
    NodeProcess faye("faye_server.js", {"--cert", certificates.cert(), "--key", certificates.key(),
                                        "--timeout", "1"});
    const std::string url = fayeUrl(faye, "wss", "localhost");

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
    const std::string byAddress = fayeUrl(faye, "wss", "127.0.0.1");
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

TEST(WebSocketTransportWithFaye, ConnectFailuresNameTheUrlAndTheCause) {
    // A loopback port that was bound and released again: nothing listens there.
    int port = 0;
    {
        const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        ASSERT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
        port = ntohs(address.sin_port);
        ::close(fd);
    }
    const std::string refused = "ws://127.0.0.1:" + std::to_string(port) + "/bayeux";
    EXPECT_EQ(connectError(refused), "Cannot connect to " + refused + ": Connection refused");

    const std::string unknownHost = "ws://nonexistent.invalid/bayeux";
    const std::string unresolved = connectError(unknownHost);
    EXPECT_TRUE(startsWith(unresolved, "Cannot connect to " + unknownHost + ": ")) << unresolved;
    EXPECT_GT(unresolved.size(), ("Cannot connect to " + unknownHost + ": ").size());

    EXPECT_EQ(connectError("bayeux.example/path"),
              "Cannot connect to bayeux.example/path: the URL does not start with ws:// or wss://");
    EXPECT_EQ(connectError("ws://127.0.0.1:99999/bayeux"),
              "Cannot connect to ws://127.0.0.1:99999/bayeux: invalid port");
}

}  // namespace
}  // namespace connector::bayeux
