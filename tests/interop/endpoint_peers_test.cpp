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
// a WebSocket; CometD starts there. A handshake without the key, or with a wrong one, is refused:
// CometD reports that at once, Faye only retries.
TEST_P(PeersTest, ScriptedExchangeWithServe) {
    TestCertificates certificates;
    ServeProcess plain, keyed({"--api-key", "peer-key"}),
        secure({"--cert", certificates.dir + "/server.pem", "--key",
                certificates.dir + "/server.key"});
    const bool faye = std::string(peer) == "faye";
    const char* first = faye ? "long-polling" : "websocket";
    struct Case {
        std::string url;
        std::vector<std::string> options;
        const char *handshake, *transport;  // null: refused
    } cases[] = {
        {plain.httpUrl(), {}, first, "websocket"},
        {plain.httpUrl(), {"--only", "long-polling"}, "long-polling", "long-polling"},
        {keyed.httpUrl(), {"--api-key", "peer-key"}, first, "websocket"},
        {"https://localhost:" + secure.port() + "/bayeux", {}, first, "websocket"},
        {keyed.httpUrl(), {}, nullptr, nullptr},
        {keyed.httpUrl(), {"--api-key", "wrong"}, nullptr, nullptr},
    };
    ::setenv("NODE_EXTRA_CA_CERTS", (certificates.dir + "/ca.pem").c_str(), 1);
    for (const auto& c : cases) {
        if (faye && !c.handshake)
            continue;
        SCOPED_TRACE(c.url + (c.options.empty() ? "" : " " + c.options.back()));
        std::vector<std::string> args{peer, c.url, "exchange"};
        args.insert(args.end(), c.options.begin(), c.options.end());
        auto client = node("bayeux_client.js", args);
        const int status = run(*client);
        const auto result = resultOf(*client);
        if (!c.handshake) {
            EXPECT_EQ(status, 1);
            EXPECT_EQ(text(result, "result"), "error");
            EXPECT_NE(text(result, "message").find("403::Unauthorized"), std::string::npos)
                << text(result, "message");
            continue;
        }
        ASSERT_EQ(status, 0) << client->errors();
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

// A client talks with a server service in the hub's process, then is killed with its connect
// held: its session expires and its subscriptions go.
TEST_P(PeersTest, TalksWithAServerServiceThenDiesAndItsSessionExpires) {
    bayeux::EndpointOptions options;
    options.connectTimeout = 500ms;
    options.sessionTimeout = 1000ms;
    HubInProcess hub(options);
    // It waits for a second message, which never comes.
    auto client = node("bayeux_client.js",
                       {peer, hub.httpUrl(), "talk", "/orvale/desk/out", "/orvale/desk/in", "2"});
    const std::string from = std::string("{\"from\":\"") + peer + "\"}";
    ASSERT_TRUE(waitUntil([&] { return received(*client).size() == 1; }, 10s)) << client->errors();
    EXPECT_EQ(received(*client)[0], "/orvale/desk/out {\"echo\":" + from + "}");
    EXPECT_TRUE(hub.heard("+/desk/out"));
    EXPECT_TRUE(hub.heard("in " + from));
    EXPECT_EQ(hub.endpoint->sessionCount(), 1u);
    client->kill(SIGKILL);
    EXPECT_TRUE(waitUntil([&] { return hub.heard("-/desk/out"); }, 10s));
    EXPECT_EQ(hub.endpoint->sessionCount(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Peers, PeersTest, ::testing::Values("faye", "cometd"),
                         [](const auto& info) { return std::string(info.param); });

}  // namespace
}  // namespace orvale::test
