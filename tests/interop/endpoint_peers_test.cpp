// The hub against real Bayeux peers: Faye's Node client and CometD's JavaScript client over
// both transports, server services talking with them, the API key, and clients killed
// mid-session.

#include "common.h"
#include "connector/message_service.h"
#include "inbox.h"

namespace orvale::test {
namespace {

namespace ms = connector::message_service;
namespace bayeux = connector::bayeux;

// A hub in this process with a server service that answers what remote clients send.
class HubInProcess {
    // First, so that it outlives the listeners that a session ending at teardown still calls.
    Inbox heard_;

  public:
    explicit HubInProcess(bayeux::EndpointOptions options = {})
        : endpoint(bayeux::startBayeuxEndpoint(server, options)),
          url("ws://127.0.0.1:" + std::to_string(endpoint->port()) + "/bayeux") {
        std::weak_ptr<ms::MessageService> weak = desk;
        subscriptions = {
            desk->subscribe("/desk/in",
                            [this, weak](const ms::JsonMessage& m) {
                                heard_.add("in " + m.getJson());
                                if (auto self = weak.lock())
                                    self->publish("/desk/out", "{\"echo\":" + m.getJson() + "}");
                            })
                .get(),
            desk->listenSubscribe(
                    "/desk/**",
                    [this](const ms::SubscribeEvent& e) { heard_.add("+" + e.getChannel()); })
                .get(),
            desk->listenUnsubscribe(
                    "/desk/**",
                    [this](const ms::UnsubscribeEvent& e) { heard_.add("-" + e.getChannel()); })
                .get()};
    }
    std::string httpUrl() const { return "http" + url.substr(2); }
    bool heard(const std::string& item) { return heard_.has(item); }
    std::vector<std::string> talk(const char* peer, const char* listen) {
        return {peer, httpUrl(), "talk", "/orvale/desk/out", listen, "1"};
    }

    std::shared_ptr<bayeux::BayeuxServer> server = bayeux::makeBayeuxServer();
    std::unique_ptr<bayeux::BayeuxEndpoint> endpoint;
    std::string url;
    std::shared_ptr<ms::MessageServiceFactoryServerDelegate> services =
        std::make_shared<ms::MessageServiceFactoryServerDelegate>(server);
    std::shared_ptr<ms::MessageService> desk = services->createMessageService("desk", {}).get();
    std::vector<std::shared_ptr<ms::Subscription>> subscriptions;
};

class PeersTest : public ::testing::TestWithParam<const char*> {
  protected:
    void SetUp() override { ORVALE_REQUIRE_NODE(); }
    const char* peer = GetParam();
};

// Subscribe exact and wildcard, publish, receive, unsubscribe, disconnect: over the transport
// each client picks by itself, then over long-polling only; then with the API key of the hub.
TEST_P(PeersTest, ScriptedExchangeWithServe) {
    ServeProcess serve;
    for (const bool longPollingOnly : {false, true}) {
        std::vector<std::string> args{peer, serve.httpUrl(), "exchange"};
        if (longPollingOnly)
            args.insert(args.end(), {"--only", "long-polling"});
        auto client = node("bayeux_client.js", args);
        ASSERT_EQ(run(*client), 0) << client->errors();
        const auto result = resultOf(*client);
        ASSERT_EQ(text(result, "result"), "ok") << boost::json::serialize(result);
        EXPECT_EQ(received(*client),
                  (std::vector<std::string>{"/orvale/interop/exact {\"n\":1}",
                                            "/orvale/interop/wild/a {\"n\":2}",
                                            "/orvale/interop/wild/b {\"n\":4}"}));
        // Faye handshakes over long-polling and moves to a WebSocket; CometD starts there.
        EXPECT_EQ(text(result, "transport"), longPollingOnly ? "long-polling" : "websocket");
        const std::string faye = std::string(peer) == "faye" ? "long-polling" : "websocket";
        EXPECT_EQ(text(result, "handshakeTransport"), longPollingOnly ? "long-polling" : faye);
    }
    ServeProcess keyed({"--api-key", "peer-key"});
    auto accepted =
        node("bayeux_client.js", {peer, keyed.httpUrl(), "exchange", "--api-key", "peer-key"});
    ASSERT_EQ(run(*accepted), 0) << accepted->errors();
    EXPECT_EQ(text(resultOf(*accepted), "result"), "ok");
}

// The same exchange over TLS, https:// and wss://, with the peer trusting the test CA only.
TEST_P(PeersTest, ScriptedExchangeOverTls) {
    TestCertificates certificates;
    ServeProcess secure(
        {"--cert", certificates.dir + "/server.pem", "--key", certificates.dir + "/server.key"});
    const std::string url = "https://localhost" + secure.url.substr(secure.url.rfind(':'));
    ::setenv("NODE_EXTRA_CA_CERTS", (certificates.dir + "/ca.pem").c_str(), 1);
    auto client = node("bayeux_client.js", {peer, url, "exchange"});
    ::unsetenv("NODE_EXTRA_CA_CERTS");
    ASSERT_EQ(run(*client), 0) << client->errors();
    const auto result = resultOf(*client);
    ASSERT_EQ(text(result, "result"), "ok") << boost::json::serialize(result);
    EXPECT_EQ(text(result, "transport"), "websocket");
    EXPECT_EQ(received(*client).size(), 3u);
}

TEST_P(PeersTest, TalkWithAServerServiceInTheHubProcess) {
    HubInProcess hub;
    auto client = node("bayeux_client.js", hub.talk(peer, "/orvale/desk/in"));
    ASSERT_EQ(run(*client), 0) << client->errors();
    ASSERT_EQ(text(resultOf(*client), "result"), "ok");
    const std::string from = std::string("{\"from\":\"") + peer + "\"}";
    EXPECT_TRUE(hub.heard("+/desk/out"));
    EXPECT_TRUE(hub.heard("in " + from));
    EXPECT_EQ(received(*client),
              std::vector<std::string>{"/orvale/desk/out {\"echo\":" + from + "}"});
}

// A client killed with its connect held: its session expires and its subscriptions go.
TEST_P(PeersTest, AKilledClientsSessionExpires) {
    bayeux::EndpointOptions options;
    options.connectTimeout = std::chrono::milliseconds(500);
    options.sessionTimeout = std::chrono::milliseconds(1000);
    HubInProcess hub(options);
    auto client = node("bayeux_client.js", hub.talk(peer, "/orvale/desk/never"));
    ASSERT_TRUE(client->waitLine(
        [](const std::string& line) { return text(parseLine(line), "event") == "ready"; }, 10s))
        << client->errors();
    EXPECT_EQ(hub.endpoint->sessionCount(), 1u);
    client->kill(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return hub.heard("-/desk/out"); }, 10s));
    EXPECT_EQ(hub.endpoint->sessionCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Peers, PeersTest, ::testing::Values("faye", "cometd"),
                         [](const auto& info) { return std::string(info.param); });

// CometD reports a refused handshake at once, so it shows the refusal itself.
TEST(ApiKeyTest, AHandshakeWithoutTheKeyIsRefused) {
    ORVALE_REQUIRE_NODE();
    ServeProcess serve({"--api-key", "peer-key"});
    for (const char* key : {"", "wrong"}) {
        std::vector<std::string> args{"cometd", serve.httpUrl(), "exchange"};
        if (*key)
            args.insert(args.end(), {"--api-key", key});
        auto refused = node("bayeux_client.js", args);
        EXPECT_EQ(run(*refused), 1);
        const auto result = resultOf(*refused);
        EXPECT_EQ(text(result, "result"), "error");
        EXPECT_NE(text(result, "message").find("403::Unauthorized"), std::string::npos)
            << text(result, "message");
    }
}

}  // namespace
}  // namespace orvale::test
