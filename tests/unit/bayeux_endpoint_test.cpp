// The Bayeux endpoint against raw clients, with server services on the same server: the protocol,
// its errors and limits, TLS, sessions as the server sees them, and the listener's bounds.

#include "connector/bayeux/endpoint.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <boost/asio/read.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <regex>
#include <thread>

#include "connector/log/diagnostic_logger.h"
#include "endpoint_clients.h"
#include "recording_session.h"
#include "test_certificates.h"

namespace connector::bayeux::endpoint_test {
namespace {

// A WebSocket session from handshake to disconnect. Then deliveries and replies go out batched,
// in order; a burst of garbage leaves others served; error replies name the problem.
TEST_F(EndpointTest, WebSocketSessionsAndBurstsAreServedInOrderAndErrorRepliesNameTheProblem) {
    start();
    RawWebSocket client(port);
    EXPECT_EQ(client.server(), "orvale");
    auto hello = client.call(handshake("1"), "1");
    ASSERT_TRUE(successful(hello)) << error(hello);
    std::string id = str(*hello, "clientId");
    // 22 characters of [A-Za-z0-9]: 130 bits from a cryptographic generator.
    EXPECT_TRUE(std::regex_match(id, std::regex("[A-Za-z0-9]{22}"))) << id;
    EXPECT_EQ(str(*hello, "channel"), "/meta/handshake");
    EXPECT_EQ(str(*hello, "version"), "1.0");
    EXPECT_EQ(json::serialize(hello->at("supportedConnectionTypes")),
              R"(["websocket","long-polling","cross-origin-long-polling","callback-polling"])");
    const std::string retry = R"({"reconnect":"retry","interval":0,"timeout":20000})";
    EXPECT_EQ(advice(hello), retry);
    EXPECT_EQ(endpoint->sessionCount(), 1u);

    // A connect asking for no wait is answered at once; the next one is held.
    auto first = client.call(connect(id, "2", 0), "2");
    ASSERT_TRUE(successful(first)) << error(first);
    EXPECT_EQ(str(*first, "clientId"), id);
    EXPECT_EQ(advice(first), retry);
    ASSERT_TRUE(client.send(connect(id, "3")));

    // Deliveries keep publication order, so /chat/b's shows that neither "2", unsubscribed from,
    // nor "3" reached the subscriber: service channels are answered, never broadcast.
    const struct {
        std::string frame, subscription, delivery;
    } steps[] = {
        {subscribe(id, "4", "/chat/a"), "/chat/a", ""},
        {publish(id, "5", "/chat/a", R"({"n":1})"), "", R"(/chat/a {"n":1})"},
        {subscribe(id, "6", "/chat/a", "/meta/unsubscribe"), "/chat/a", ""},
        {publish(id, "7", "/chat/a", "2"), "", ""},
        {subscribe(id, "8", "/service/**"), "/service/**", ""},
        {publish(id, "9", "/service/x", "3"), "", ""},
        {subscribe(id, "10", "/chat/b"), "/chat/b", ""},
        {publish(id, "11", "/chat/b", "4"), "", "/chat/b 4"},
        {meta("/meta/disconnect", id, "12"), "", ""},
    };
    for (const auto& step : steps) {
        SCOPED_TRACE(step.frame);
        const auto request = parseMessages(step.frame).at(0);
        auto reply = client.call(step.frame, str(request, "id"));
        ASSERT_TRUE(successful(reply)) << error(reply);
        EXPECT_EQ(str(*reply, "channel"), str(request, "channel"));
        EXPECT_EQ(str(*reply, "subscription"), step.subscription);
        if (step.delivery.empty())
            continue;
        auto delivered = client.await(isDelivery);
        EXPECT_EQ(delivery(delivered), step.delivery);
        // Subscribers never learn who published, nor the publisher's message ids.
        EXPECT_FALSE(delivered && (delivered->contains("clientId") || delivered->contains("id")));
    }

    auto held = client.await(withId("3"));
    ASSERT_TRUE(successful(held)) << error(held);
    EXPECT_EQ(advice(held), R"({"reconnect":"none","interval":0})");
    EXPECT_EQ(endpoint->sessionCount(), 0u);
    EXPECT_EQ(error(client.call(connect(id, "13", 0), "13")), "402::Unknown client");

    RawWebSocket ws(port);
    id = open(ws);
    ASSERT_TRUE(successful(ws.call(subscribe(id, "2", "/orvale/burst"), "2")));
    ASSERT_TRUE(successful(ws.call(connect(id, "3", 0), "3")));
    auto publisher = services->createMessageService("publisher", {}).get();
    constexpr int count = 2000;
    for (int i = 0; i < count; ++i)
        publisher->publish("/burst", std::to_string(i));
    ASSERT_TRUE(ws.awaitCount(3 + count));
    int expected = 0;
    for (const auto& m : ws.inbox())
        expected += isDelivery(m) && json::serialize(m.at("data")) == std::to_string(expected);
    EXPECT_EQ(expected, count);
    const auto& frames = ws.frameSizes();
    EXPECT_LT(frames.size(), static_cast<std::size_t>(count));
    EXPECT_GT(*std::max_element(frames.begin(), frames.end()), 1u);

    // A frame's worth of publishes is acknowledged in one frame or a few.
    RawWebSocket noisy(port);
    const std::string noisyId = open(noisy);
    std::vector<std::string> publishes;
    for (int i = 0; i < 1000; ++i)
        publishes.push_back(publish(noisyId, "n" + std::to_string(i), "/noise", std::to_string(i)));
    ASSERT_TRUE(noisy.send(batch(publishes)));
    for (int i = 0; i < 200; ++i)
        ASSERT_TRUE(noisy.send("\x01\x02 garbage"));
    RawWebSocket quiet(port);
    open(quiet);
    ASSERT_TRUE(noisy.awaitCount(1 + 1000 + 200));
    EXPECT_LT(noisy.frameSizes().size(), 1u + 200u + 1000);
    EXPECT_TRUE(successful(noisy.call(handshake("after"), "after")));

    for (const auto& frame : {connect("nobody", "u1", 0), subscribe("nobody", "u1", "/a"),
                              publish("nobody", "u1", "/a", "1"), publish("", "u1", "/a", "1")}) {
        auto reply = ws.call(frame, "u1");
        EXPECT_EQ(error(reply), "402::Unknown client") << frame;
        EXPECT_EQ(advice(reply), R"({"reconnect":"handshake","interval":0})") << frame;
    }

    // The server keeps a publish's channel and data alone, whatever else came with it.
    auto kept = std::make_shared<RecordingSession>("kept");
    std::atomic<int> extras{0};
    kept->onPublish = [&](const PublishRequest& r) {
        extras += !r.getId().empty() || !r.getExt().empty() ||
                  !r.getAdvice().value_or(Advice{}).reconnect.empty();
    };
    server->registerSession(kept);
    server->acceptSubscribe(std::make_shared<SubscribeRequest>("/kept", "kept"));
    ASSERT_TRUE(successful(ws.call(R"([{"channel":"/kept","clientId":")" + id +
                                       R"(","id":"k","data":1,"ext":{"pad":"xxxx"},)"
                                       R"("advice":{"reconnect":"xxxx"}}])",
                                   "k")));
    ASSERT_TRUE(waitUntil([&] { return kept->count() == 1; }));
    EXPECT_EQ(extras, 0);

    // Refusals name the channel of the request they answer.
    const std::pair<std::string, std::string> refusals[] = {
        {publish(id, "e", "/a/*", "1"), "405:/a/*:Invalid channel"},
        {publish(id, "e", "/a/**", "1"), "405:/a/**:Invalid channel"},
        {publish(id, "e", "/a//b", "1"), "405:/a//b:Invalid channel"},
        {publish(id, "e", "nochannel", "1"), "405:nochannel:Invalid channel"},
        {publish(id, "e", "/meta/custom", "1"), "403:/meta/custom:Forbidden channel"},
        {subscribe(id, "e", "/meta/**"), "403:/meta/**:Forbidden channel"},
        {subscribe(id, "e", "/meta/connect"), "403:/meta/connect:Forbidden channel"},
        {subscribe(id, "e", "/a/*/b"), "405:/a/*/b:Invalid channel"},
        {subscribe(id, "e", "a", "/meta/unsubscribe"), "405:a:Invalid channel"},
        {publish(id, "e", "/" + std::string(1024, 'c'), "1"), "405::Channel name too long"},
        {subscribe(id, "e", "/" + std::string(1024, 'c')), "405::Channel name too long"},
        {subscribe(id, "e", "/a/b/c/d/e/f/g/h/i/j/k/l/m/n/o/p/q"), "405::Channel name too long"},
    };
    for (const auto& [frame, expected] : refusals) {
        auto reply = ws.call(frame, "e");
        EXPECT_EQ(error(reply), expected) << frame;
        EXPECT_EQ(reply ? str(*reply, "channel") : "", str(parseMessages(frame).at(0), "channel"));
    }

    // An unreadable message gets an error echoing its id; the rest of its frame is served.
    ASSERT_TRUE(ws.send(R"([{"channel":"/x","clientId":")" + id + R"(","id":"m1"},7,)" +
                        connect(id, "m2", 0).substr(1)));
    auto missingData = ws.await(withId("m1"));
    EXPECT_EQ(error(missingData).substr(0, 5), "400::");
    EXPECT_EQ(str(*missingData, "channel"), "/x");
    const Predicate anonymous400 = [](const json::object& m) {
        return !m.contains("id") && str(m, "error").substr(0, 5) == "400::";
    };
    EXPECT_TRUE(ws.await(anonymous400));
    EXPECT_TRUE(successful(ws.await(withId("m2"))));
    ASSERT_TRUE(ws.send("{not json"));
    EXPECT_TRUE(ws.await(anonymous400));
    RawHttp http(port);
    auto bad = http.post("{not json").value();
    EXPECT_EQ(bad.status, 400u);
    EXPECT_EQ(bad.headers[http::field::server], "orvale");
    EXPECT_TRUE(anonymous400(bad.messages().at(0))) << bad.body;

    // What follows a disconnect in its frame is from an unknown client.
    ASSERT_TRUE(ws.send(batch({publish(id, "p1", "/a", "1"), meta("/meta/disconnect", id, "d"),
                               publish(id, "p2", "/a", "2")})));
    EXPECT_TRUE(successful(ws.await(withId("p1"))));
    EXPECT_TRUE(successful(ws.await(withId("d"))));
    EXPECT_EQ(error(ws.await(withId("p2"))), "402::Unknown client");
}

// The API key and the session cap refuse handshakes (with no client id), connections beyond the
// cap are closed on arrival, and an HTTP body over the message bound is refused and closed.
TEST_F(EndpointTest, LimitsHoldAndSessionsEndWithTheirSubscriptionsOverPlainAndTlsConnections) {
    start([](EndpointOptions& o) {
        o.apiKey = "s3cret";
        o.maxSessions = 2;
        o.maxConnections = 2;
        o.maxMessageBytes = 4096;
        o.maxSubscriptionsPerSession = 2;
    });
    LogCapture log;
    RawWebSocket ws(port);
    for (const char* ext :
         {"", R"({"orvapikey":"wrong"})", R"({"orvapikey":"s3cre"})", R"({"orvapikey":7})"}) {
        auto refused = ws.call(handshake("1", ext), "1");
        EXPECT_EQ(error(refused), "403::Unauthorized") << ext;
        EXPECT_FALSE(refused->contains("clientId"));
    }
    EXPECT_EQ(endpoint->sessionCount(), 0u);
    EXPECT_EQ(log.count("Refused a handshake without the right API key"), 4u);

    const std::string key = R"({"orvapikey":"s3cret"})";
    std::vector<std::string> made;
    for (const char* n : {"2", "3", "4"})
        if (auto reply = ws.call(handshake(n, key), n); successful(reply))
            made.push_back(str(*reply, "clientId"));
        else
            EXPECT_EQ(error(reply) + advice(reply),
                      R"(503::Too many sessions{"reconnect":"handshake","interval":1000})");
    ASSERT_EQ(made.size(), 2u);
    EXPECT_EQ(endpoint->sessionCount(), 2u);

    RawHttp http(port);
    ASSERT_TRUE(waitUntil([&] { return endpoint->stats().connections == 2; }));
    EXPECT_THROW(RawWebSocket refused(port), std::runtime_error);
    EXPECT_FALSE(RawHttp(port).post(handshake("5", key)));
    EXPECT_EQ(log.count("Refusing connections: 2 are open already"), 1u);
    EXPECT_EQ(
        http.post(publish(made[1], "6", "/big", quote(std::string(8000, 'x')))).value().status,
        413u);
    EXPECT_EQ(log.count("Refused an HTTP body over 4096 bytes"), 1u);
    ASSERT_TRUE(waitUntil([&] { return endpoint->stats().connections == 1; }));
    // The session's browser publishes over a new connection, as the cap has room again.
    EXPECT_TRUE(
        successful(RawHttp(port, cookiePair(ws.setCookie()))
                       .call(publish(made[1], "7", "/big", quote(std::string(100, 'x'))), "7")));
    // A session holds two subscriptions at most here: one it holds may be asked for again, and
    // one dropped makes room.
    for (const char* channel : {"/s/1", "/s/2", "/s/1"})
        EXPECT_TRUE(successful(ws.call(subscribe(made[0], "s", channel), "s"))) << channel;
    EXPECT_EQ(error(ws.call(subscribe(made[0], "s", "/s/3"), "s")),
              "403:/s/3:Too many subscriptions");
    ASSERT_TRUE(successful(ws.call(subscribe(made[0], "u", "/s/2", "/meta/unsubscribe"), "u")));
    EXPECT_TRUE(successful(ws.call(subscribe(made[0], "s", "/s/3"), "s")));
    ASSERT_TRUE(successful(ws.call(meta("/meta/disconnect", made[0], "d"), "d")));
    EXPECT_TRUE(successful(ws.call(handshake("8", key), "8")));

    // The documented overflow policy: a queue full by count or by bytes drops its oldest messages
    // for each new one, and the client's next connect answer says how many it lost.
    const struct {
        const char* name;
        std::size_t maxMessages, maxBytes, padding;  // padding: the bytes of each message
        std::vector<std::string> kept;
    } cases[] = {
        {"by count", 5, 1 << 20, 8, {"15", "16", "17", "18", "19"}},
        {"by bytes", 10000, 256 * 1024, 64 * 1024, {"17", "18", "19"}},
    };
    auto feeder = services->createMessageService("feeder", {}).get();
    auto watcher = services->createMessageService("watcher", {}).get();
    std::atomic<bool> synced{false};
    auto sync = watcher->subscribe("/q/sync", [&](const JsonMessage&) { synced = true; }).get();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        start([&](EndpointOptions& o) {
            o.maxQueuePerSession = c.maxMessages;
            o.maxQueueBytes = c.maxBytes;
        });
        RawHttp poll(port);  // a subscriber that does not poll while it is fed
        const std::string id = open(poll);
        ASSERT_TRUE(successful(poll.call(subscribe(id, "2", "/orvale/q/data"), "2")));
        synced = false;
        for (int i = 0; i < 20; ++i)
            feeder->publish("/q/data",
                            quote(std::to_string(i) + ":" + std::string(c.padding, 'x')));
        feeder->publish("/q/sync", "0");
        ASSERT_TRUE(waitUntil([&] { return synced.load(); }));

        const auto answer = poll.post(connect(id, "3", -1, "long-polling")).value();
        std::vector<std::string> data;
        for (const auto& m : answer.messages())
            if (isDelivery(m))
                data.push_back(str(m, "data").substr(0, str(m, "data").find(':')));
        EXPECT_EQ(data, c.kept);
        const std::string lost = std::to_string(20 - c.kept.size());
        auto reply = find(answer.messages(), withId("3"));
        ASSERT_TRUE(reply && reply->contains("ext")) << answer.body;
        EXPECT_EQ(json::serialize(reply->at("ext")), R"({"dropped":)" + lost + "}");
        EXPECT_EQ(std::to_string(endpoint->stats().droppedMessages), lost);
        EXPECT_EQ(log.count("Session " + id + " holds "), 1u);
        EXPECT_FALSE(poll.call(connect(id, "4", 0, "long-polling"), "4").value().contains("ext"));
    }

    // One address may hold as many connections as allowed; one closed makes room again.
    start([](EndpointOptions& o) { o.maxConnectionsPerAddress = 1; });
    auto first = std::make_unique<RawWebSocket>(port);
    EXPECT_THROW(RawWebSocket refused(port), std::runtime_error);
    EXPECT_EQ(log.count("Refused a connection from 127.0.0.1, which has 1 open already"), 1u);
    first.reset();
    ASSERT_TRUE(waitUntil([&] { return endpoint->stats().connections == 0; }));
    EXPECT_NO_THROW(RawWebSocket again(port));

    // So may it sessions, counting those made over long-polling after their connection closed.
    start([](EndpointOptions& o) { o.maxSessionsPerAddress = 2; });
    RawHttp owner(port);
    const std::string kept = open(owner);
    open(*std::make_unique<RawHttp>(port));
    RawWebSocket late(port);
    EXPECT_EQ(error(late.call(handshake("1"), "1")), "503::Too many sessions from this address");
    EXPECT_EQ(log.count("Refused a handshake from 127.0.0.1, which has 2 sessions already"), 1u);
    ASSERT_TRUE(successful(owner.call(meta("/meta/disconnect", kept, "2"), "2")));
    EXPECT_TRUE(successful(late.call(handshake("3"), "3")));

    // Sessions expired or live at a stop lose their subscriptions; TLS serves the same protocol.
    start([](EndpointOptions& o) { o.sessionTimeout = 300ms; });
    orvale::test::Inbox heard, published;  // subscriptions as "+/a" and "-/a", and publishes
    auto noted = [&heard](std::string sign) {
        return [&heard, sign](const auto& e) { heard.add(sign + e.getChannel()); };
    };
    auto subscribed = watcher->listenSubscribe("/exp/**", noted("+")).get();
    auto unsubscribed = watcher->listenUnsubscribe("/exp/**", noted("-")).get();
    auto inbound = watcher->subscribe("/in", published.sink()).get();

    RawHttp poll(port);  // never connects
    const std::string quiet = open(poll);
    ASSERT_TRUE(poll.post(subscribe(quiet, "2", "/orvale/exp/a")));
    ASSERT_TRUE(poll.post(subscribe(quiet, "3", "/orvale/exp/b")));

    auto expiring = std::make_unique<RawWebSocket>(port);
    const std::string gone = open(*expiring);
    ASSERT_TRUE(successful(expiring->call(subscribe(gone, "2", "/orvale/exp/c"), "2")));
    ASSERT_TRUE(expiring->send(connect(gone, "3")));
    ASSERT_TRUE(waitUntil([&] { return heard.has("+/exp/c"); }));
    expiring.reset();

    ASSERT_TRUE(waitUntil([&] { return endpoint->sessionCount() == 0; }));
    ASSERT_TRUE(waitUntil([&] { return heard.snapshot().size() == 6; }));
    for (const char* item : {"+/exp/a", "+/exp/b", "+/exp/c", "-/exp/a", "-/exp/b", "-/exp/c"})
        EXPECT_TRUE(heard.has(item)) << item;
    EXPECT_EQ(log.count("Session " + quiet + " expired"), 1u);
    EXPECT_EQ(log.count("Session " + gone + " expired"), 1u);
    EXPECT_EQ(error(poll.call(connect(quiet, "4", 0, "long-polling"), "4")), "402::Unknown client");

    RawWebSocket live(port);
    const std::string id = open(live);
    ASSERT_TRUE(live.send(connect(id, "c")));
    ASSERT_TRUE(successful(live.call(subscribe(id, "2", "/orvale/exp/d"), "2")));
    // What a remote client publishes below /orvale reaches server services without the prefix.
    ASSERT_TRUE(successful(live.call(publish(id, "3", "/orvale/in", R"({"n":1})"), "3")));
    ASSERT_TRUE(waitUntil([&] { return published.has(R"(/in {"n":1})"); }));
    const auto servedPort = endpoint->port();
    endpoint->stop();
    // The held connect was answered before the connection closed: come back with a handshake.
    EXPECT_NE(advice(live.await(withId("c"))).find(R"("reconnect":"handshake")"),
              std::string::npos);
    EXPECT_EQ(endpoint->sessionCount(), 0u);
    EXPECT_EQ(endpoint->port(), servedPort);
    EXPECT_TRUE(waitUntil([&] { return heard.has("-/exp/d"); }));
    EXPECT_TRUE(live.awaitClosed());
    EXPECT_THROW(RawWebSocket again(servedPort), std::runtime_error);

    // TLS: the same protocol over wss://, with a certificate made for the test.
    const orvale::test::TestCertificates certificates;
    start([&](EndpointOptions& o) {
        o.certFile = certificates.dir + "/server.pem";
        o.keyFile = certificates.dir + "/server.key";
    });

    asio::io_context io;
    asio::ssl::context tls(asio::ssl::context::tls_client);
    tls.load_verify_file(certificates.dir + "/ca.pem");
    beast::websocket::stream<beast::ssl_stream<beast::tcp_stream>> wss(io, tls);
    wss.next_layer().set_verify_mode(asio::ssl::verify_peer);
    connectSocket(io, beast::get_lowest_layer(wss), port);
    beast::websocket::response_type upgrade;
    const std::string request = handshake("1");
    beast::flat_buffer buffer;
    for (const auto& step :
         std::vector<std::function<void(std::function<void(beast::error_code)>)>>{
             [&](auto h) { wss.next_layer().async_handshake(asio::ssl::stream_base::client, h); },
             [&](auto h) { wss.async_handshake(upgrade, "127.0.0.1", "/bayeux", h); },
             [&](auto h) { wss.async_write(asio::buffer(request), [h](auto ec, auto) { h(ec); }); },
             [&](auto h) { wss.async_read(buffer, [h](auto ec, auto) { h(ec); }); }})
        ASSERT_FALSE(complete(io, step)) << "TLS exchange failed";
    const std::string reply = beast::buffers_to_string(buffer.data());
    const auto messages = parseMessages(reply);
    EXPECT_TRUE(messages.size() == 1 && successful(messages[0])) << reply;
    EXPECT_NE(std::string(upgrade[http::field::set_cookie]).find("; Secure"), std::string::npos);

    RawHttp plain(port);
    EXPECT_FALSE(plain.post(handshake("2")));
    EXPECT_EQ(endpoint->sessionCount(), 1u);

    // Half a TLS setting, a port taken or no server: the endpoint does not start.
    EndpointOptions taken;
    taken.port = port;
    EXPECT_THROW(startBayeuxEndpoint(server, taken), std::runtime_error);
    EndpointOptions halfTls;
    halfTls.certFile = "/nonexistent/cert.pem";
    EXPECT_THROW(startBayeuxEndpoint(server, halfTls), std::runtime_error);
    halfTls.keyFile = "/nonexistent/key.pem";
    EXPECT_THROW(startBayeuxEndpoint(server, halfTls), std::runtime_error);
    EXPECT_THROW(startBayeuxEndpoint(nullptr, EndpointOptions{}), std::invalid_argument);
}

// Out of descriptors, the listener logs once and retries after growing pauses, then serves the
// connection that waited as soon as a descriptor is free.
TEST_F(EndpointTest, AcceptingOutOfDescriptorsBacksOffAndRecovers) {
    start();
    LogCapture log;
    // The sanitizers check a type the first time a log line makes it through a pipe, which a limit
    // of 0 forbids: one line made while descriptors are free spares them that.
    foundation::log::basic_diagnostic_logger<char>("test").log(foundation::log::warning, "ready");
    // At a limit of 0 no descriptor can be opened, whichever ones other threads free meanwhile:
    // the hub's accept of the client's connection must fail.
    asio::io_context io;
    asio::ip::tcp::socket raw(io);
    raw.open(asio::ip::tcp::v4());
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    rlimit tight = saved;
    tight.rlim_cur = 0;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &tight), 0);
    beast::error_code connected;
    raw.connect({asio::ip::make_address("127.0.0.1"), port}, connected);
    const bool failed = waitUntil([&] { return log.count("Accepting a connection failed: ") > 0; });
    std::this_thread::sleep_for(300ms);  // a window in which a fixed 10 ms retry logs 30 times
    const std::size_t failures = log.count("Accepting a connection failed: ");
    ::setrlimit(RLIMIT_NOFILE, &saved);
    ASSERT_FALSE(connected) << connected.message();
    EXPECT_TRUE(failed);
    EXPECT_EQ(failures, 1u);

    const std::string request = "POST /bayeux HTTP/1.1\r\nHost: h\r\nContent-Length: " +
                                std::to_string(handshake("1").size()) + "\r\n\r\n" + handshake("1");
    asio::write(raw, asio::buffer(request));
    char head[12] = {};
    EXPECT_FALSE(complete(io, [&](auto h) { asio::async_read(raw, asio::buffer(head), h); }));
    EXPECT_EQ(std::string(head, sizeof head), "HTTP/1.1 200");
    EXPECT_EQ(log.count("Accepting connections again after "), 1u);
}

}  // namespace
}  // namespace connector::bayeux::endpoint_test
