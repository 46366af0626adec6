// Faye's and CometD's browser clients in headless Chromium, on a page of another site, talking
// with a server service of a hub served over TLS: over WebSocket and over long-polling, which
// works only when the CORS answers and the session cookie work as a browser needs them. While the
// first session lives, the hub's status page is photographed and the counts it shows are checked
// against a scrape of /metrics.

#include <csignal>
#include <filesystem>
#include <iostream>

#include <boost/json/array.hpp>

#include "hub_in_process.h"
#include "loopback_ports.h"
#include "metrics_scrape.h"

namespace orvale::test {
namespace {

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

TEST(BrowserTest, BrowserClientsOnAnotherSiteTalkWithAServerService) {
    ORVALE_REQUIRE_NODE();
    const char* chromium = std::getenv("CHROMIUM");
    if (::access(chromium ? chromium : "/usr/bin/chromium", X_OK) != 0) {
        const char* ci = std::getenv("CI");
        if (ci && *ci)
            FAIL() << "no chromium";
        GTEST_SKIP() << "no chromium (run scripts/bootstrap to install it)";
    }
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
        EXPECT_TRUE(hub.heard("in " + from));
        EXPECT_EQ(received(*browser),
                  std::vector<std::string>{"/orvale/desk/out {\"echo\":" + from + "}"});
    }
}

}  // namespace
}  // namespace orvale::test
