// The hub's admission rules against raw clients: a session serves only the client that made it
// (its WebSocket, or its browser's cookie), and no one connection crowds out the others. And in a
// cluster, a subscription's answer waits until the other members know it.

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <regex>

#include "cluster/clustered_server.h"
#include "endpoint_clients.h"
#include "nats_servers.h"
#include "recording_session.h"

namespace connector::bayeux::endpoint_test {
namespace {

// One connection's flood of handshakes is capped by the live sessions a connection may have, so
// other clients still get in; a frame of more messages than allowed is refused whole.
TEST_F(EndpointTest, FloodsLeaveRoomOnlyOwnersActForSessionsAndClustersAnswerSubscriptions) {
    start([](EndpointOptions& o) {
        o.maxSessions = 40;
        o.maxMessagesPerFrame = 30;
    });
    LogCapture log;
    std::vector<std::string> hellos;  // h0 to h30
    for (int i = 0; i <= 30; ++i)
        hellos.push_back(handshake("h" + std::to_string(i)));
    const std::string tooMany = batch(hellos);
    hellos.pop_back();
    const std::string flood = batch(hellos);
    // Each connection makes 16 sessions; the rest of its handshakes are refused for the cap.
    auto tally = [](const auto& replies) {
        std::map<std::string, int> count;
        for (const auto& reply : replies)
            ++count[error(reply)];
        return count;
    };
    const std::map<std::string, int> capped = {{"(succeeded)", 16},
                                               {"503::Too many sessions on this connection", 14}};
    RawWebSocket ws(port);
    ASSERT_TRUE(ws.send(flood));
    ASSERT_TRUE(ws.awaitCount(30));
    EXPECT_EQ(tally(ws.inbox()), capped);
    RawHttp http(port);
    EXPECT_EQ(tally(http.post(flood).value().messages()), capped);
    EXPECT_EQ(log.count("Refused handshakes over a connection that has 16 sessions already"), 2u);

    RawWebSocket over(port);
    ASSERT_TRUE(over.send(tooMany));
    EXPECT_TRUE(over.awaitClosed());
    EXPECT_TRUE(over.inbox().empty());
    EXPECT_EQ(http.post(tooMany).value().status, 413u);
    EXPECT_EQ(log.count("Refused a frame of more than 30 messages"), 2u);

    RawWebSocket fresh(port);
    open(fresh);
    EXPECT_EQ(endpoint->sessionCount(), 33u);
    // The cap counts live sessions: one ended, the connection may make one more.
    const std::string first = str(*ws.await(withId("h0")), "clientId");
    ASSERT_TRUE(successful(ws.call(meta("/meta/disconnect", first, "d"), "d")));
    open(ws);
    EXPECT_FALSE(successful(ws.call(handshake("again"), "again")));

    // A client id is no key: a request for a session from anywhere but the WebSocket it was made
    // on, without its browser's cookie, is refused and leaves the session as it was.
    RawWebSocket owner(port);
    const std::string id = open(owner);
    EXPECT_TRUE(std::regex_match(
        owner.setCookie(),
        std::regex("BAYEUX_BROWSER_WS=[0-9a-f]{64}; Path=/bayeux; HttpOnly; SameSite=Strict")))
        << owner.setCookie();
    const std::string cookie = cookiePair(owner.setCookie());
    ASSERT_TRUE(successful(owner.call(subscribe(id, "s", "/own"), "s")));
    ASSERT_TRUE(owner.send(connect(id, "held")));

    std::string forged = cookie;
    forged.back() = forged.back() == '0' ? '1' : '0';
    RawWebSocket otherBrowser(port);
    RawWebSocket forgedWs(port, forged);
    RawHttp bare(port);
    RawHttp wrong(port, cookiePair(otherBrowser.setCookie()));
    RawHttp forgedHttp(port, forged);
    using Send = std::function<std::optional<json::object>(const std::string&)>;
    auto via = [](auto& client) -> Send {
        return [&client](const std::string& frame) { return client.call(frame, "x"); };
    };
    const std::vector<std::pair<std::string, Send>> strangers = {
        {"second WebSocket", via(otherBrowser)},
        {"WebSocket with a forged cookie", via(forgedWs)},
        {"POST without a cookie", via(bare)},
        {"POST with another browser's cookie", via(wrong)},
        {"POST with a forged cookie", via(forgedHttp)},
    };
    for (const auto& [how, send] : strangers)
        for (const auto& frame : {connect(id, "x", 0), subscribe(id, "x", "/more"),
                                  subscribe(id, "x", "/own", "/meta/unsubscribe"),
                                  publish(id, "x", "/own", "0"), meta("/meta/disconnect", id, "x")})
            EXPECT_EQ(error(send(frame)), "402::Unknown client") << how << ": " << frame;

    // Untouched: still subscribed to /own alone, receiving on its socket, its connect held.
    ASSERT_TRUE(successful(owner.call(publish(id, "p1", "/more", "1"), "p1")));
    ASSERT_TRUE(successful(owner.call(publish(id, "p2", "/own", "2"), "p2")));
    EXPECT_EQ(owner.nextDelivery(), "/own 2");
    EXPECT_FALSE(find(owner.inbox(), withId("held")));
    EXPECT_EQ(endpoint->sessionCount(), 34u) << "the 33 above and the owner's";

    // The owner's browser may drive it over new connections of either kind.
    RawHttp sameBrowserHttp(port, cookie);
    EXPECT_TRUE(successful(sameBrowserHttp.call(subscribe(id, "x", "/more"), "x")));
    RawWebSocket sameBrowserWs(port, cookie);
    EXPECT_EQ(sameBrowserWs.setCookie(), "");
    EXPECT_TRUE(successful(sameBrowserWs.call(publish(id, "x", "/more", "3"), "x")));
    EXPECT_EQ(owner.nextDelivery(), "/more 3");
    // A handshake under a forged cookie is given a cookie of its own; an issued one is kept.
    open(forgedHttp);
    EXPECT_NE(forgedHttp.cookie(), forged);
    EXPECT_EQ(sameBrowserHttp.post(handshake("again")).value().headers[http::field::set_cookie],
              "");

    // A browser's first visit: it opens a WebSocket while it handshakes over long-polling, both
    // without a cookie. It keeps the id each answer sets, whichever lands last, so the session's
    // next requests carry its id; the WebSocket that left without it is closed, not refused, and
    // its frame goes again over one that carries it.
    RawWebSocket early(port);
    RawHttp poll(port);
    const std::string visitor = open(poll);
    // The two cookies have names of their own, so the browser keeps both.
    const std::string cookies = poll.cookie() + "; " + cookiePair(early.setCookie());

    EXPECT_TRUE(successful(RawHttp(port, cookies).call(subscribe(visitor, "s", "/first"), "s")));
    EXPECT_FALSE(early.call(publish(visitor, "p", "/first", "1"), "p"));
    EXPECT_TRUE(early.awaitClosed());
    // Closed once only: a client that comes back without the cookie is refused, and handshakes.
    EXPECT_EQ(error(RawWebSocket(port).call(publish(visitor, "q", "/first", "1"), "q")),
              "402::Unknown client");
    RawWebSocket later(port, cookies);
    ASSERT_TRUE(later.send(connect(visitor, "c")));
    EXPECT_TRUE(successful(later.call(publish(visitor, "p", "/first", "2"), "p")));
    EXPECT_EQ(later.nextDelivery(), "/first 2");

    // Over a member that waits `settle` (300 ms) for one that never acknowledges, a frame that
    // subscribes is answered after the wait over either transport, with its other replies and
    // deliveries in order after that answer; a hub stopped meanwhile is not woken.
    orvale::tools::NatsServers nats(1);
    server = std::make_shared<cluster::ClusteredServer>(
        makeBayeuxServer(BayeuxServerOptions{1}), nats.urls(0),
        cluster::MembershipTimings{300ms, 10s, 30s});
    start();
    cluster::NatsLinkOptions options;
    options.urls = nats.urls(0);
    cluster::NatsLink phantoms(options, [](auto, auto) {});
    // Once a wait has run out for a member, it is not waited for again: each part has its own.
    auto phantom = [&, members = std::size_t{0}]() mutable {
        ++members;
        phantoms.publish("orvale_cluster.subscriptions",
                         "phantom" + std::to_string(members) + "\nH\n", 0);
        return waitUntil([&] { return server->clusterStats()->members == members; });
    };
    ASSERT_TRUE(phantom());
    auto watcher = std::make_shared<RecordingSession>("watcher");
    server->registerSession(watcher);

    RawWebSocket sub(port);
    const std::string subId = open(sub);
    ASSERT_TRUE(sub.send(connect(subId, "c")));
    auto began = Clock::now();
    ASSERT_TRUE(sub.send(batch({subscribe(subId, "s", "/a"), publish(subId, "p", "/a", "1")})));
    ASSERT_TRUE(sub.send(publish(subId, "q", "/a", "2")));
    ASSERT_TRUE(sub.awaitCount(6));
    EXPECT_GE(Clock::now() - began, 300ms);
    std::vector<std::string> order;
    for (const auto& m : sub.inbox())
        order.push_back(isDelivery(m) ? delivery(m) : str(m, "id"));
    EXPECT_EQ(order, (std::vector<std::string>{"s", "p", "/a 1", "q", "/a 2"}));

    // A long-polling connect sent with the subscription and released by a delivery meanwhile is
    // answered, with the delivery, once the wait is over.
    ASSERT_TRUE(phantom());
    RawHttp lp(port);
    const std::string lpId = open(lp);
    began = Clock::now();
    lp.start(batch({subscribe(lpId, "t", "/b"), connect(lpId, "c", -1, "long-polling")}));
    ASSERT_TRUE(waitUntil([&] { return watcher->announced.has("+" + lpId + " /b"); }));
    ASSERT_TRUE(sub.send(publish(subId, "r", "/b", "3")));
    const auto answer = lp.finish();
    ASSERT_TRUE(answer) << "the held connect was never answered";
    EXPECT_GE(Clock::now() - began, 300ms);
    order.clear();
    for (const auto& m : answer->messages())
        order.push_back(isDelivery(m) ? delivery(m) : str(m, "id") + " " + error(m));
    EXPECT_EQ(order, (std::vector<std::string>{"t (succeeded)", "/b 3", "c (succeeded)"}));

    // Stopped while a frame waits: when the wait ends, the connection is long gone.
    ASSERT_TRUE(phantom());
    ASSERT_TRUE(sub.send(subscribe(subId, "u", "/c")));
    ASSERT_TRUE(waitUntil([&] { return watcher->announced.has("+" + subId + " /c"); }));
    endpoint.reset();
    auto afterWait = std::make_shared<std::atomic<bool>>(false);  // comes after the frame's wait
    ASSERT_TRUE(server->whenSubscriptionsShared([afterWait] { *afterWait = true; }));
    EXPECT_TRUE(waitUntil([&] { return afterWait->load(); }));
}

}  // namespace
}  // namespace connector::bayeux::endpoint_test
