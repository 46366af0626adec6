// The hub against real Bayeux peers: Faye's Node client and CometD's JavaScript client over
// both transports, server services talking with them, our command-line clients, the API key,
// and clients killed mid-session.

#include <mutex>

#include "common.h"
#include "connector/message_service.h"
#include "log_capture.h"

namespace orvale::test {
namespace {

namespace ms = connector::message_service;
namespace bayeux = connector::bayeux;

struct Peer {
    const char* script;
    const char* name;
};
const Peer kFaye{"faye_client.js", "faye"};
const Peer kCometd{"cometd_client.mjs", "cometd"};

class PeersTest : public ::testing::TestWithParam<Peer> {};

// Subscribe exact and wildcard, publish, receive, unsubscribe, disconnect: over the transport
// each client picks by itself, then over long-polling only.
TEST_P(PeersTest, ScriptedExchangeWithServe) {
    ServeProcess serve;
    for (const bool longPollingOnly : {false, true}) {
        std::vector<std::string> args{serve.httpUrl(), "exchange"};
        if (longPollingOnly)
            args.insert(args.end(), {"--only", "long-polling"});
        auto peer = node(GetParam().script, args);
        ASSERT_EQ(run(*peer), 0) << peer->errors();
        const auto result = resultOf(*peer);
        ASSERT_EQ(text(result, "result"), "ok") << boost::json::serialize(result);
        std::vector<std::string> received;
        for (const auto& line : peer->lines()) {
            auto event = parseLine(line);
            if (text(event, "event") == "received")
                received.push_back(text(event, "channel") + " " +
                                   boost::json::serialize(event.at("data")));
        }
        EXPECT_EQ(received, (std::vector<std::string>{"/orvale/interop/exact {\"n\":1}",
                                                      "/orvale/interop/wild/a {\"n\":2}",
                                                      "/orvale/interop/wild/b {\"n\":4}"}));
        if (longPollingOnly) {
            EXPECT_EQ(text(result, "transport"), "long-polling");
        } else {
            // Faye handshakes over long-polling and moves to a WebSocket; CometD starts there.
            EXPECT_EQ(text(result, "transport"), "websocket");
            EXPECT_EQ(text(result, "handshakeTransport"),
                      std::string(GetParam().name) == "faye" ? "long-polling" : "websocket");
        }
    }
}

// A hub in this process with a server service that answers what remote clients send.
class HubInProcess {
  public:
    explicit HubInProcess(bayeux::EndpointOptions options = {}) {
        endpoint = bayeux::startBayeuxEndpoint(server, options);
        url = "ws://127.0.0.1:" + std::to_string(endpoint->port()) + "/bayeux";
        desk = services->createMessageService("desk", {}).get();
        std::weak_ptr<ms::MessageService> weak = desk;
        answering =
            desk->subscribe("/desk/in",
                            [this, weak](const ms::JsonMessage& m) {
                                add("in " + m.getJson());
                                if (auto self = weak.lock())
                                    self->publish("/desk/out", "{\"echo\":" + m.getJson() + "}");
                            })
                .get();
        subscribes =
            desk->listenSubscribe(
                    "/desk/**", [this](const ms::SubscribeEvent& e) { add("+" + e.getChannel()); })
                .get();
        unsubscribes = desk->listenUnsubscribe(
                               "/desk/**",
                               [this](const ms::UnsubscribeEvent& e) { add("-" + e.getChannel()); })
                           .get();
    }
    std::string httpUrl() const { return "http" + url.substr(2); }
    bool heard(const std::string& item) {
        std::lock_guard<std::mutex> lock(mutex);
        return std::find(items.begin(), items.end(), item) != items.end();
    }

    std::shared_ptr<bayeux::BayeuxServer> server = bayeux::makeBayeuxServer();
    std::unique_ptr<bayeux::BayeuxEndpoint> endpoint;
    std::shared_ptr<ms::MessageServiceFactoryServerDelegate> services =
        std::make_shared<ms::MessageServiceFactoryServerDelegate>(server);
    std::shared_ptr<ms::MessageService> desk;
    std::shared_ptr<ms::Subscription> answering, subscribes, unsubscribes;
    std::string url;

  private:
    void add(std::string item) {
        std::lock_guard<std::mutex> lock(mutex);
        items.push_back(std::move(item));
    }
    std::mutex mutex;
    std::vector<std::string> items;
};

TEST_P(PeersTest, TalkWithAServerServiceInTheHubProcess) {
    HubInProcess hub;
    auto peer = node(GetParam().script,
                     {hub.httpUrl(), "talk", "/orvale/desk/out", "/orvale/desk/in", "1"});
    ASSERT_EQ(run(*peer), 0) << peer->errors();
    ASSERT_EQ(text(resultOf(*peer), "result"), "ok");
    const std::string from = std::string("{\"from\":\"") + GetParam().name + "\"}";
    EXPECT_TRUE(hub.heard("+/desk/out"));
    EXPECT_TRUE(hub.heard("in " + from));
    auto received = peer->waitLine(
        [](const std::string& line) { return text(parseLine(line), "event") == "received"; }, 0ms);
    ASSERT_TRUE(received);
    EXPECT_EQ(boost::json::serialize(parseLine(*received).at("data")), "{\"echo\":" + from + "}");
}

// A client killed with its connect held: its session expires and its subscriptions go.
TEST_P(PeersTest, AKilledClientsSessionExpires) {
    bayeux::EndpointOptions options;
    options.connectTimeout = std::chrono::milliseconds(500);
    options.sessionTimeout = std::chrono::milliseconds(1000);
    HubInProcess hub(options);
    auto peer = node(GetParam().script,
                     {hub.httpUrl(), "talk", "/orvale/desk/out", "/orvale/desk/never", "1"});
    ASSERT_TRUE(peer->waitLine(
        [](const std::string& line) { return text(parseLine(line), "event") == "ready"; }, 10s))
        << peer->errors();
    EXPECT_EQ(hub.endpoint->sessionCount(), 1u);
    peer->kill(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return hub.heard("-/desk/out"); }, 10s));
    EXPECT_EQ(hub.endpoint->sessionCount(), 0u);
}

TEST_P(PeersTest, TheApiKeyOverTheRealProgram) {
    ServeProcess serve({"--api-key", "peer-key"});
    auto accepted = node(GetParam().script, {serve.httpUrl(), "exchange", "--api-key", "peer-key"});
    ASSERT_EQ(run(*accepted), 0) << accepted->errors();
    EXPECT_EQ(text(resultOf(*accepted), "result"), "ok");
}

INSTANTIATE_TEST_SUITE_P(Peers, PeersTest, ::testing::Values(kFaye, kCometd),
                         [](const auto& info) { return std::string(info.param.name); });

// CometD reports a refused handshake at once, so it shows the refusal itself.
TEST(ApiKeyTest, AHandshakeWithoutTheKeyIsRefused) {
    ServeProcess serve({"--api-key", "peer-key"});
    for (const std::vector<std::string>& extra :
         {std::vector<std::string>{}, std::vector<std::string>{"--api-key", "wrong"}}) {
        std::vector<std::string> args{serve.httpUrl(), "exchange"};
        args.insert(args.end(), extra.begin(), extra.end());
        auto refused = node("cometd_client.mjs", args);
        EXPECT_EQ(run(*refused), 1);
        const auto result = resultOf(*refused);
        EXPECT_EQ(text(result, "result"), "error");
        EXPECT_NE(text(result, "message").find("403::Unauthorized"), std::string::npos)
            << text(result, "message");
    }
}

// orvale pub and orvale sub, each a process, against a server service in the hub's process.
TEST(CommandLinePeersTest, PubAndSubTalkWithAServerService) {
    HubInProcess hub;
    auto sub = std::make_unique<ChildProcess>(
        std::vector<std::string>{orvaleExe(), "sub", hub.url, "/desk/out", "--count", "1"});
    ASSERT_TRUE(waitUntil([&] { return hub.heard("+/desk/out"); }, 10s));
    auto pub = std::make_unique<ChildProcess>(
        std::vector<std::string>{orvaleExe(), "pub", hub.url, "/desk/in", R"({"from":"pub"})"});
    EXPECT_EQ(run(*pub), 0) << pub->errors();
    EXPECT_TRUE(waitUntil([&] { return hub.heard(R"(in {"from":"pub"})"); }));
    ASSERT_EQ(run(*sub), 0) << sub->errors();
    ASSERT_EQ(sub->lines().size(), 1u);
    EXPECT_EQ(sub->lines()[0], R"({"channel":"/desk/out","data":{"echo":{"from":"pub"}}})");
}

}  // namespace
}  // namespace orvale::test
