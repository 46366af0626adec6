// The hub against real Bayeux peers: Faye's Node client and CometD's JavaScript client over
// both transports, server services talking with them, the API key, and clients killed
// mid-session.

#include "common.h"
#include "hub_in_process.h"

namespace orvale::test {
namespace {

class PeersTest : public ::testing::TestWithParam<const char*> {
  protected:
    void SetUp() override { ORVALE_REQUIRE_NODE(); }
    const char* peer = GetParam();
};

// Subscribe exact and wildcard, publish, receive, unsubscribe, disconnect: over the transport
// each client picks by itself, over long-polling only, with the API key of the hub, and over TLS
// (https:// and wss://) trusting the test CA only. Faye handshakes over long-polling and moves to
// a WebSocket; CometD starts there.
TEST_P(PeersTest, ScriptedExchangeWithServe) {
    TestCertificates certificates;
    ServeProcess plain, keyed({"--api-key", "peer-key"}),
        secure({"--cert", certificates.dir + "/server.pem", "--key",
                certificates.dir + "/server.key"});
    const char* first = std::string(peer) == "faye" ? "long-polling" : "websocket";
    struct Case {
        std::string url;
        std::vector<std::string> options;
        const char *handshake, *transport;
    } cases[] = {
        {plain.httpUrl(), {}, first, "websocket"},
        {plain.httpUrl(), {"--only", "long-polling"}, "long-polling", "long-polling"},
        {keyed.httpUrl(), {"--api-key", "peer-key"}, first, "websocket"},
        {"https://localhost:" + secure.port() + "/bayeux", {}, first, "websocket"},
    };
    ::setenv("NODE_EXTRA_CA_CERTS", (certificates.dir + "/ca.pem").c_str(), 1);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.url + (c.options.empty() ? "" : " " + c.options[0]));
        std::vector<std::string> args{peer, c.url, "exchange"};
        args.insert(args.end(), c.options.begin(), c.options.end());
        auto client = node("bayeux_client.js", args);
        ASSERT_EQ(run(*client), 0) << client->errors();
        const auto result = resultOf(*client);
        ASSERT_EQ(text(result, "result"), "ok") << boost::json::serialize(result);
        EXPECT_EQ(received(*client),
                  (std::vector<std::string>{"/orvale/interop/exact {\"n\":1}",
                                            "/orvale/interop/wild/a {\"n\":2}",
                                            "/orvale/interop/wild/b {\"n\":4}"}));
        EXPECT_EQ(text(result, "handshakeTransport"), c.handshake);
        EXPECT_EQ(text(result, "transport"), c.transport);
    }
    ::unsetenv("NODE_EXTRA_CA_CERTS");
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
