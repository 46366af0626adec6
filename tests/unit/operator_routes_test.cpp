// The hub's operator routes: /metrics read by the Prometheus client library's parser, the status
// figures, health and readiness (also in a cluster), and the routes staying off unless asked for.

#include "endpoint_clients.h"
#include "log_capture.h"
#include "metrics_scrape.h"
#include "nats_servers.h"

namespace connector::bayeux::endpoint_test {
namespace {

using http::verb;

// The routes are off unless asked for. Then /metrics and the figures count a known pattern of
// traffic, and readiness follows the room left for sessions and the link to the cluster.
TEST_F(EndpointTest, OperatorRoutesFollowAKnownTrafficPatternAndTheCluster) {
    auto status = [this](const std::string& path, verb method = verb::get) {
        const auto reply = RawHttp(port).post("", path, method);
        return reply ? reply->status : 0u;
    };
    // Runs the scraper against /metrics; empty when every expectation held, else its report.
    auto scrape = [this](const std::string& expected) {
        return orvale::test::scrapeMetrics("http://127.0.0.1:" + std::to_string(port) + "/metrics",
                                           expected);
    };
    // A hub outside any cluster is ready with room left and shows no cluster figures.
    start([](EndpointOptions& o) { o.operatorRoutes = true; });
    EXPECT_EQ(status("/readyz"), 200u);
    auto body = [this](const char* path) {
        return RawHttp(port).post("", path, verb::get).value().body;
    };
    EXPECT_EQ(body("/metrics").find("orvale_cluster"), std::string::npos);
    EXPECT_TRUE(json::parse(body("/status.json")).at("cluster").is_null());
    endpoint.reset();
    orvale::tools::NatsServers nats(1);
    server = makeBayeuxServer(BayeuxServerOptions{1, {nats.url(0)}});
    start();
    for (const char* path : {"/metrics", "/healthz", "/readyz", "/status", "/status.json"})
        EXPECT_EQ(status(path), 404u) << path;
    endpoint.reset();
    start([](EndpointOptions& o) {
        o.operatorRoutes = true;
        o.maxQueuePerSession = 2;
        o.connectGrace = 300ms;
        o.maxSessions = 2;
    });

    RawWebSocket ws(port);
    const std::string id = open(ws);
    ASSERT_TRUE(ws.send(connect(id, "c")));
    ASSERT_TRUE(successful(ws.call(subscribe(id, "s", "/a"), "s")));
    // A long-polling subscriber that never connects: one of three messages overflows its queue,
    // the other two are lost when it expires after the grace, long before the session timeout.
    LogCapture log;
    RawHttp lp(port);
    const std::string lpId = open(lp);
    ASSERT_TRUE(successful(lp.call(subscribe(lpId, "s", "/a"), "s")));
    for (const std::string n : {"0", "1", "2"}) {
        ASSERT_TRUE(ws.send(publish(id, "p" + n, "/a", n)));
        ASSERT_EQ(ws.nextDelivery(), "/a " + n);
    }
    EXPECT_EQ(error(ws.call(subscribe(id, "m", "/meta/x"), "m")), "403:/meta/x:Forbidden channel");
    EXPECT_EQ(error(ws.call(publish("nobody", "u", "/a", "1"), "u")), "402::Unknown client");
    // The hub logs an expiry just after it forgets the session.
    const std::string expired = "Session " + lpId + " expired without ever sending /meta/connect";
    ASSERT_TRUE(waitUntil([&] { return log.count(expired) == 1; }, 3s));
    EXPECT_EQ(endpoint->sessionCount(), 1u);

    EXPECT_EQ(scrape(R"({
        "orvale_sessions{transport=\"websocket\"}": 1,
        "orvale_sessions{transport=\"long-polling\"}": 0,
        "orvale_connections{transport=\"websocket\"}": 1,
        "orvale_subscriptions": 1, "orvale_subscribed_channels": 1,
        "orvale_received_messages_total": 10, "orvale_received_bytes_total": [500, 5000],
        "orvale_published_messages_total": 3, "orvale_delivered_messages_total": 3,
        "orvale_sent_bytes_total": [500, 5000],
        "orvale_handshakes_total{outcome=\"accepted\"}": 2,
        "orvale_handshakes_total{outcome=\"unauthorized\"}": 0,
        "orvale_dropped_messages_total{reason=\"queue_overflow\"}": 1,
        "orvale_dropped_messages_total{reason=\"expired\"}": 2,
        "orvale_dropped_messages_total{reason=\"slow_consumer\"}": 0,
        "orvale_refused_requests_total{code=\"402\"}": 1,
        "orvale_refused_requests_total{code=\"403\"}": 1,
        "orvale_refused_requests_total{code=\"400\"}": 0,
        "orvale_delivery_latency_seconds_count": 1,
        "orvale_delivery_latency_seconds_sum": [0, 3],
        "orvale_cluster_link_up": 1, "orvale_cluster_lost_messages_total": 0})"),
              "");

    const auto figures = RawHttp(port).post("", "/status.json", verb::get).value();
    ASSERT_EQ(figures.status, 200u);
    const json::object shown = json::parse(figures.body).as_object();
    EXPECT_EQ(json::serialize(shown.at("busiestChannels")), R"([{"channel":"/a","published":3}])");
    EXPECT_EQ(json::serialize(shown.at("sessions")), R"({"websocket":1,"longPolling":0})");
    EXPECT_EQ(json::serialize(shown.at("dropped")),
              R"({"queueOverflow":1,"expired":2,"slowConsumer":0})");
    EXPECT_EQ(shown.at("delivered").to_number<int>(), 3);

    EXPECT_EQ(status("/readyz"), 200u);
    EXPECT_EQ(status("/metrics", verb::post), 405u);
    const auto page = RawHttp(port).post("", "/status", verb::get).value();
    ASSERT_EQ(page.status, 200u);
    // One self-contained file: it fetches nothing but its own figures.
    EXPECT_NE(page.body.find("fetch(\"status.json\""), std::string::npos);
    for (const char* external : {"src=", "href=", "http://", "https://", "@import"})
        EXPECT_EQ(page.body.find(external), std::string::npos) << external;
    RawWebSocket second(port);
    const std::string secondId = open(second);
    EXPECT_EQ(status("/readyz"), 503u);  // full
    ASSERT_TRUE(successful(second.call(meta("/meta/disconnect", secondId, "d"), "d")));
    EXPECT_EQ(status("/readyz"), 200u);
    nats.kill(0);
    EXPECT_TRUE(waitUntil([&] { return status("/readyz") == 503; }, 5s));
    EXPECT_EQ(scrape(R"({"orvale_cluster_link_up": 0})"), "");
    EXPECT_EQ(status("/healthz"), 200u);
}

}  // namespace
}  // namespace connector::bayeux::endpoint_test
