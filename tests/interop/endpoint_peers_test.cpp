// The hub against Faye's and CometD's Node clients (both transports, API key, TLS, killed
// mid-session) talking with server services, and their browser builds in headless Chromium.

#include <csignal>
#include <filesystem>
#include <iostream>

#include <boost/json/array.hpp>

#include "common.h"
#include "connector/message_service.h"
#include "inbox.h"
#include "loopback_ports.h"
#include "metrics_scrape.h"

namespace orvale::test {
namespace {

namespace ms = connector::message_service;
namespace bayeux = connector::bayeux;

// A hub in this process with a server service that answers what remote clients send: each
// message on /desk/in with {"echo":<its data>} on /desk/out.
struct HubInProcess {
    explicit HubInProcess(bayeux::EndpointOptions options = {})
        : endpoint(bayeux::startBayeuxEndpoint(server, options)) {
        std::weak_ptr<ms::MessageService> weak = desk;
        auto note = [this](const char* sign) {
            return [this, sign](const auto& event) { heard.add(sign + event.getChannel()); };
        };
        auto echo = [this, weak](const ms::JsonMessage& m) {
            heard.add("in " + m.getJson());
            if (auto self = weak.lock())
                self->publish("/desk/out", "{\"echo\":" + m.getJson() + "}");
        };
        subscriptions = {desk->subscribe("/desk/in", echo).get(),
                         desk->listenSubscribe("/desk/**", note("+")).get(),
                         desk->listenUnsubscribe("/desk/**", note("-")).get()};
    }
    std::string httpUrl() const {
        return "http://127.0.0.1:" + std::to_string(endpoint->port()) + "/bayeux";
    }

    // First, so that it outlives the listeners that a session ending at teardown still calls.
    Inbox heard;
    std::shared_ptr<bayeux::BayeuxServer> server = bayeux::makeBayeuxServer();
    std::unique_ptr<bayeux::BayeuxEndpoint> endpoint;
    std::shared_ptr<ms::MessageServiceFactoryServerDelegate> services =
        std::make_shared<ms::MessageServiceFactoryServerDelegate>(server);
    std::shared_ptr<ms::MessageService> desk = services->createMessageService("desk", {}).get();
    std::vector<std::shared_ptr<ms::Subscription>> subscriptions;
};

// A scripted exchange over each client's own transport choice, long-polling only, the hub's API
// key and TLS trusting the test CA only. Faye handshakes over long-polling, CometD over WebSocket;
// a missing or wrong key is refused (CometD reports it at once, Faye only retries).
TEST(PeersTest, ScriptedExchangeWithServeThenTalkWithAServerServiceAndDie) {
    ORVALE_REQUIRE_NODE();
    TestCertificates certificates;
    ServeProcess plain, keyed({"--api-key", "peer-key"}),
        secure({"--cert", certificates.dir + "/server.pem", "--key",
                certificates.dir + "/server.key"});
    ::setenv("NODE_EXTRA_CA_CERTS", (certificates.dir + "/ca.pem").c_str(), 1);
    for (const char* peer : {"faye", "cometd"}) {
        SCOPED_TRACE(peer);
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
        for (const auto& c : cases) {
            if (faye && !c.handshake)
                continue;
            SCOPED_TRACE(c.url + (c.options.empty() ? "" : " " + c.options.back()));
            std::vector<std::string> args{peer, c.url, "exchange"};
            args.insert(args.end(), c.options.begin(), c.options.end());
            auto client = node("bayeux_client.js", args);
            EXPECT_EQ(run(*client), c.handshake ? 0 : 1) << client->errors();
            const auto result = resultOf(*client);
            ASSERT_EQ(text(result, "result"), c.handshake ? "ok" : "error")
                << boost::json::serialize(result);
            if (!c.handshake) {
                EXPECT_NE(text(result, "message").find("403::Unauthorized"), std::string::npos)
                    << text(result, "message");
                continue;
            }
            EXPECT_EQ(received(*client),
                      (std::vector<std::string>{"/orvale/interop/exact {\"n\":1}",
                                                "/orvale/interop/wild/a {\"n\":2}",
                                                "/orvale/interop/wild/b {\"n\":4}"}));
            EXPECT_EQ(text(result, "handshakeTransport"), c.handshake);
            EXPECT_EQ(text(result, "transport"), c.transport);
        }

        // A client talks with a server service in the hub's process, then is killed with its
        // connect held: its session expires and its subscriptions go.
        bayeux::EndpointOptions options;
        options.connectTimeout = 500ms;
        options.sessionTimeout = 1000ms;
        HubInProcess hub(options);
        // It waits for a second message, which never comes.
        auto client = node("bayeux_client.js", {peer, hub.httpUrl(), "talk", "/orvale/desk/out",
                                                "/orvale/desk/in", "2"});
        const std::string from = std::string("{\"from\":\"") + peer + "\"}";
        ASSERT_TRUE(waitUntil([&] { return received(*client).size() == 1; }, 10s))
            << client->errors();
        EXPECT_EQ(received(*client)[0], "/orvale/desk/out {\"echo\":" + from + "}");
        EXPECT_TRUE(hub.heard.has("+/desk/out"));
        EXPECT_TRUE(hub.heard.has("in " + from));
        EXPECT_EQ(hub.endpoint->sessionCount(), 1u);
        client->kill(SIGKILL);
        EXPECT_TRUE(waitUntil([&] { return hub.heard.has("-/desk/out"); }, 10s));
        EXPECT_EQ(hub.endpoint->sessionCount(), 0u);
    }
    ::unsetenv("NODE_EXTRA_CA_CERTS");
}

// What /metrics must hold given the counts the status page showed: the same, but for the
// scrape's own connection, which the page's figures predate.
std::string metricsShown(const boost::json::object& shown) {
    const auto n = [&](const char* name) { return shown.at(name).to_number<std::int64_t>(); };
    return boost::json::serialize(boost::json::object{
        {"orvale_sessions", n("sessions")},
        {"orvale_sessions{transport=\"websocket\"}", n("ws")},
        {"orvale_sessions{transport=\"long-polling\"}", n("lp")},
        {"orvale_connections", boost::json::array{n("connections"), n("connections") + 1}},
        {"orvale_subscriptions", n("subscriptions")},
        {"orvale_subscribed_channels", n("channels")},
        {"orvale_dropped_messages_total", n("dropped")},
        {"orvale_refused_requests_total", n("refused")}});
}

// Browser clients on another site's page talk with a server service of a TLS hub, over WebSocket
// and long-polling (which needs CORS answers and the session cookie to work as a browser expects).
// Meanwhile the status page is photographed and its counts checked against /metrics.
TEST(BrowserTest, BrowserClientsOnAnotherSiteTalkWithAServerService) {
    ORVALE_REQUIRE_NODE();
    const char* chromium = std::getenv("CHROMIUM");
    ORVALE_REQUIRE(::access(chromium ? chromium : "/usr/bin/chromium", X_OK) == 0
                       ? std::nullopt
                       : std::optional<std::string>("no chromium"));
    TestCertificates certificates;
    // The page's server: the hub must know its origin in advance.
    const std::string page = std::to_string(tools::freeLoopbackPort());
    bayeux::EndpointOptions options;
    options.certFile = certificates.dir + "/server.pem";
    options.keyFile = certificates.dir + "/server.key";
    options.allowedOrigins = {"http://127.0.0.1:" + page};
    options.operatorRoutes = true;
    HubInProcess hub(options);
    // The page at http://127.0.0.1 and the hub at https://localhost are different sites.
    const std::string site = "https://localhost:" + std::to_string(hub.endpoint->port());
    const std::string url = site + "/bayeux";
    const std::string picture = std::filesystem::absolute("status.png");
    const struct {
        const char *peer, *only, *transport;
    } cases[] = {{"faye", nullptr, "websocket"},
                 {"faye", "long-polling", "cross-origin-long-polling"},
                 {"cometd", nullptr, "websocket"},
                 {"cometd", "long-polling", "long-polling"}};
    for (const auto& c : cases) {
        const std::string from =
            "{\"from\":\"" + (c.peer + (c.only ? " " + std::string(c.only) : "")) + "\"}";
        SCOPED_TRACE(from);
        std::vector<std::string> args{
            c.peer, url, "talk", "/orvale/desk/out", "/orvale/desk/in", "1", "--browser", page};
        if (c.only)
            args.insert(args.end(), {"--only", c.only});
        const bool status = &c == cases;
        if (status)
            args.insert(args.end(), {"--screenshot", picture});
        auto browser = node("bayeux_client.js", args);
        if (status) {
            const auto shown = browser->waitLine(
                [](const std::string& line) { return text(parseLine(line), "event") == "status"; },
                30s);
            ASSERT_TRUE(shown) << browser->errors();
            std::cout << "status page: " << picture << ": " << *shown << std::endl;
            EXPECT_GE(parseLine(*shown).at("sessions").to_number<int>(), 1);
            EXPECT_EQ(scrapeMetrics(site + "/metrics", metricsShown(parseLine(*shown)),
                                    certificates.dir + "/ca.pem"),
                      "");
            browser->kill(SIGUSR2);  // the session may end now
        }
        ASSERT_EQ(run(*browser, 40s), 0) << browser->errors();
        const auto result = resultOf(*browser);
        ASSERT_EQ(text(result, "result"), "ok") << boost::json::serialize(result);
        EXPECT_EQ(text(result, "transport"), c.transport);
        EXPECT_TRUE(hub.heard.has("in " + from));
        EXPECT_EQ(received(*browser),
                  std::vector<std::string>{"/orvale/desk/out {\"echo\":" + from + "}"});
    }
}

}  // namespace
}  // namespace orvale::test
