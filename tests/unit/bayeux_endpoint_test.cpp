// The Bayeux endpoint against raw WebSocket and HTTP clients written over Boost.Beast, with
// server services on the same in-process server: the protocol as remote clients see it, its
// errors, its limits, TLS, and the sessions as the server sees them. Long-polling has its own
// file, http_link_test.cpp, and so have the hub's admission rules, hub_test.cpp.

#include "connector/bayeux/endpoint.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/asio/ssl/context.hpp>
#include <boost/beast/core/buffers_to_string.hpp>
#include <boost/beast/ssl/ssl_stream.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <cctype>

#include "endpoint_clients.h"
#include "test_certificates.h"

namespace connector::bayeux::endpoint_test {
namespace {

// ---------------------------------------------------------------------------------------------

TEST_F(EndpointTest, WebSocketSessionFromHandshakeToDisconnect) {
    start();
    RawWebSocket ws(port);
    EXPECT_EQ(ws.server(), "orvale");
    auto hello = ws.call(handshake("1"), "1");
    ASSERT_TRUE(successful(hello)) << error(hello);
    const std::string id = str(*hello, "clientId");
    // 22 characters of [A-Za-z0-9]: 130 bits from a cryptographic generator.
    EXPECT_EQ(id.size(), 22u);
    EXPECT_TRUE(std::all_of(id.begin(), id.end(), [](char c) { return std::isalnum(c); })) << id;
    EXPECT_EQ(str(*hello, "channel"), "/meta/handshake");
    EXPECT_EQ(str(*hello, "version"), "1.0");
    EXPECT_EQ(json::serialize(hello->at("supportedConnectionTypes")),
              R"(["websocket","long-polling","cross-origin-long-polling","callback-polling"])");
    EXPECT_EQ(advice(hello, "reconnect"), "\"retry\"");
    EXPECT_EQ(advice(hello, "interval"), "0");
    EXPECT_EQ(advice(hello, "timeout"), "20000");
    EXPECT_EQ(endpoint->sessionCount(), 1u);

    // A connect asking for no wait is answered at once; the next one is held.
    auto first = ws.call(connect(id, "2", 0), "2");
    ASSERT_TRUE(successful(first)) << error(first);
    EXPECT_EQ(str(*first, "clientId"), id);
    EXPECT_EQ(advice(first, "timeout"), "20000");
    ASSERT_TRUE(ws.send(connect(id, "3")));

    auto subscribed = ws.call(subscribe(id, "4", "/chat/a"), "4");
    ASSERT_TRUE(successful(subscribed)) << error(subscribed);
    EXPECT_EQ(str(*subscribed, "channel"), "/meta/subscribe");
    EXPECT_EQ(str(*subscribed, "subscription"), "/chat/a");

    auto published = ws.call(publish(id, "5", "/chat/a", R"({"n":1})"), "5");
    ASSERT_TRUE(successful(published)) << error(published);
    EXPECT_EQ(str(*published, "channel"), "/chat/a");
    auto delivered = ws.await(isDelivery);
    ASSERT_TRUE(delivered);
    EXPECT_EQ(str(*delivered, "channel"), "/chat/a");
    EXPECT_EQ(json::serialize(delivered->at("data")), R"({"n":1})");
    // Subscribers never learn who published, nor the publisher's message ids.
    EXPECT_FALSE(delivered->contains("clientId"));
    EXPECT_FALSE(delivered->contains("id"));

    auto unsubscribed = ws.call(unsubscribe(id, "6", "/chat/a"), "6");
    ASSERT_TRUE(successful(unsubscribed)) << error(unsubscribed);
    EXPECT_EQ(str(*unsubscribed, "subscription"), "/chat/a");
    ASSERT_TRUE(successful(ws.call(publish(id, "7", "/chat/a", "2"), "7")));
    ASSERT_TRUE(successful(ws.call(subscribe(id, "8", "/chat/b"), "8")));
    ASSERT_TRUE(successful(ws.call(publish(id, "9", "/chat/b", "3"), "9")));
    // Deliveries keep publication order, so the next one shows /chat/a was not delivered.
    delivered = ws.await(isDelivery);
    ASSERT_TRUE(delivered);
    EXPECT_EQ(str(*delivered, "channel"), "/chat/b");

    // Disconnecting answers the held connect and forgets the client.
    auto bye = ws.call(disconnect(id, "10"), "10");
    ASSERT_TRUE(successful(bye)) << error(bye);
    EXPECT_EQ(str(*bye, "channel"), "/meta/disconnect");
    auto held = ws.await(withId("3"));
    ASSERT_TRUE(successful(held)) << error(held);
    EXPECT_EQ(advice(held, "reconnect"), "\"none\"");
    EXPECT_EQ(endpoint->sessionCount(), 0u);
    auto after = ws.call(connect(id, "11", 0), "11");
    ASSERT_TRUE(after);
    EXPECT_FALSE(successful(after));
    EXPECT_EQ(error(after), "402::Unknown client");
    EXPECT_EQ(advice(after, "reconnect"), "\"handshake\"");
}

TEST_F(EndpointTest, ServiceChannelsAreAnsweredButNeverBroadcast) {
    start();
    RawWebSocket listener(port);
    RawWebSocket sender(port);
    const std::string a = open(listener);
    const std::string b = open(sender);
    ASSERT_TRUE(listener.send(connect(a, "c")));
    for (const char* pattern : {"/**", "/service/**", "/service/x"})
        ASSERT_TRUE(successful(listener.call(subscribe(a, pattern, pattern), pattern)));

    auto answered = sender.call(publish(b, "1", "/service/x", "1"), "1");
    ASSERT_TRUE(successful(answered)) << error(answered);
    ASSERT_TRUE(successful(sender.call(publish(b, "2", "/chat/x", "2"), "2")));
    // Deliveries keep publication order: the first one to arrive shows the service message
    // reached nobody.
    auto delivered = listener.await(isDelivery);
    ASSERT_TRUE(delivered);
    EXPECT_EQ(str(*delivered, "channel"), "/chat/x");
}

TEST_F(EndpointTest, WhatFollowsADisconnectInItsFrameIsFromAnUnknownClient) {
    start();
    RawWebSocket ws(port);
    const std::string id = open(ws);
    ASSERT_TRUE(ws.send(
        batch({publish(id, "p1", "/a", "1"), disconnect(id, "d"), publish(id, "p2", "/a", "2")})));
    EXPECT_TRUE(successful(ws.await(withId("p1"))));
    EXPECT_TRUE(successful(ws.await(withId("d"))));
    auto late = ws.await(withId("p2"));
    EXPECT_FALSE(successful(late));
    EXPECT_EQ(error(late), "402::Unknown client");
}

TEST_F(EndpointTest, ErrorRepliesNameTheProblem) {
    start();
    RawWebSocket ws(port);
    const std::string id = open(ws);

    // Unknown clients are told to handshake again, whatever they send.
    for (const auto& frame : {connect("nobody", "u1", 0), subscribe("nobody", "u1", "/a"),
                              publish("nobody", "u1", "/a", "1"), publish("", "u1", "/a", "1")}) {
        auto reply = ws.call(frame, "u1");
        EXPECT_FALSE(successful(reply)) << frame;
        EXPECT_EQ(error(reply), "402::Unknown client") << frame;
        EXPECT_EQ(advice(reply, "reconnect"), "\"handshake\"") << frame;
    }

    struct Case {
        std::string frame;
        std::string error;
        std::string channel;
    };
    const std::vector<Case> cases = {
        {publish(id, "e", "/a/*", "1"), "405:/a/*:Invalid channel", "/a/*"},
        {publish(id, "e", "/a/**", "1"), "405:/a/**:Invalid channel", "/a/**"},
        {publish(id, "e", "/a//b", "1"), "405:/a//b:Invalid channel", "/a//b"},
        {publish(id, "e", "nochannel", "1"), "405:nochannel:Invalid channel", "nochannel"},
        {publish(id, "e", "/meta/custom", "1"), "403:/meta/custom:Forbidden channel",
         "/meta/custom"},
        {subscribe(id, "e", "/meta/**"), "403:/meta/**:Forbidden channel", "/meta/subscribe"},
        {subscribe(id, "e", "/meta/connect"), "403:/meta/connect:Forbidden channel",
         "/meta/subscribe"},
        {subscribe(id, "e", "/a/*/b"), "405:/a/*/b:Invalid channel", "/meta/subscribe"},
        {unsubscribe(id, "e", "a"), "405:a:Invalid channel", "/meta/unsubscribe"},
    };
    for (const auto& c : cases) {
        auto reply = ws.call(c.frame, "e");
        ASSERT_TRUE(reply) << c.frame;
        EXPECT_FALSE(successful(reply)) << c.frame;
        EXPECT_EQ(error(reply), c.error) << c.frame;
        EXPECT_EQ(str(*reply, "channel"), c.channel) << c.frame;
    }

    // A message the hub cannot read gets an error echoing its id; the rest of its frame is
    // handled as usual.
    ASSERT_TRUE(ws.send(R"([{"channel":"/x","clientId":")" + id + R"(","id":"m1"},7,)" +
                        R"({"channel":"/meta/connect","clientId":")" + id +
                        R"(","id":"m2","advice":{"timeout":0}}])"));
    auto missingData = ws.await(withId("m1"));
    EXPECT_FALSE(successful(missingData));
    EXPECT_EQ(error(missingData).substr(0, 5), "400::");
    EXPECT_EQ(str(*missingData, "channel"), "/x");
    auto notAnObject = ws.await([](const json::object& m) {
        return !m.contains("id") && str(m, "error").substr(0, 5) == "400::";
    });
    EXPECT_TRUE(notAnObject);
    EXPECT_TRUE(successful(ws.await(withId("m2"))));

    // Text that is not JSON gets an error; the connection goes on serving.
    ASSERT_TRUE(ws.send("{not json"));
    auto garbage = ws.await([](const json::object& m) { return m.contains("error"); });
    ASSERT_TRUE(garbage);
    EXPECT_EQ(error(garbage).substr(0, 5), "400::");
    EXPECT_TRUE(successful(ws.call(handshake("again"), "again")));

    RawHttp http(port);
    auto bad = http.post("{not json");
    ASSERT_TRUE(bad);
    EXPECT_EQ(bad->status, 400u);
    EXPECT_EQ(bad->headers[http::field::server], "orvale");
    EXPECT_EQ(str(bad->messages().at(0), "error").substr(0, 5), "400::");
}

TEST_F(EndpointTest, TheApiKeyGuardsHandshakes) {
    start([](EndpointOptions& o) { o.apiKey = "s3cret"; });
    LogCapture log;
    RawWebSocket ws(port);
    for (const std::string& ext :
         {std::string(), std::string(R"({"orvapikey":"wrong"})"),
          std::string(R"({"orvapikey":"s3cre"})"), std::string(R"({"orvapikey":7})")}) {
        auto refused = ws.call(handshake("1", ext), "1");
        EXPECT_FALSE(successful(refused)) << ext;
        EXPECT_EQ(error(refused), "403::Unauthorized") << ext;
        EXPECT_FALSE(refused->contains("clientId"));
    }
    EXPECT_EQ(endpoint->sessionCount(), 0u);
    EXPECT_EQ(log.count("Refused a handshake without the right API key"), 4u);
    auto accepted = ws.call(handshake("2", R"({"orvapikey":"s3cret"})"), "2");
    EXPECT_TRUE(successful(accepted)) << error(accepted);
    EXPECT_EQ(endpoint->sessionCount(), 1u);
}

TEST_F(EndpointTest, OversizedFramesAndBodiesAreRefused) {
    start([](EndpointOptions& o) { o.maxMessageBytes = 4096; });
    LogCapture log;
    RawWebSocket big(port);
    const std::string id = open(big);
    big.send(publish(id, "2", "/big", quote(std::string(8000, 'x'))));
    EXPECT_TRUE(big.awaitClosed());
    EXPECT_TRUE(waitUntil(
        [&] { return log.count("Closed a WebSocket that sent a frame over 4096") == 1; }));

    RawHttp http(port);
    auto refused = http.post(publish(id, "3", "/big", quote(std::string(8000, 'x'))));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 413u);

    // Everyone else is still served, the same session included (from its browser).
    RawWebSocket small(port, cookiePair(big.setCookie()));
    EXPECT_TRUE(
        successful(small.call(publish(id, "4", "/big", quote(std::string(100, 'x'))), "4")));
}

TEST_F(EndpointTest, HandshakesBeyondMaxSessionsAreRefused) {
    start([](EndpointOptions& o) { o.maxSessions = 2; });
    RawWebSocket ws(port);
    const std::string first = open(ws);
    open(ws);
    auto refused = ws.call(handshake("3"), "3");
    EXPECT_FALSE(successful(refused));
    EXPECT_EQ(error(refused), "503::Too many sessions");
    EXPECT_EQ(advice(refused, "reconnect"), "\"handshake\"");
    EXPECT_EQ(endpoint->sessionCount(), 2u);
    ASSERT_TRUE(successful(ws.call(disconnect(first, "4"), "4")));
    open(ws);
}

// The documented overflow policy: a queue full by count or by bytes drops its oldest messages
// for each new one, and the client's next connect answer says how many it lost.
TEST_F(EndpointTest, AFullQueueDropsItsOldestMessagesAndSaysHowMany) {
    struct Case {
        const char* name;
        std::size_t maxMessages;
        std::size_t maxBytes;
        std::size_t padding;  // bytes in each message
        std::vector<std::string> kept;
    };
    const std::vector<Case> cases = {
        {"by count", 5, 1 << 20, 8, {"15", "16", "17", "18", "19"}},
        {"by bytes", 10000, 256 * 1024, 64 * 1024, {"17", "18", "19"}},
    };
    auto feeder = service("feeder");
    auto watcher = service("watcher");
    std::atomic<bool> synced{false};
    auto sync = watcher->subscribe("/q/sync", [&](const JsonMessage&) { synced = true; }).get();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        auto options = defaults();
        options.maxQueuePerSession = c.maxMessages;
        options.maxQueueBytes = c.maxBytes;
        start(options);
        LogCapture log;
        RawHttp poll(port);  // a subscriber that does not poll while it is fed
        const std::string id = open(poll);
        ASSERT_TRUE(successful(poll.post(subscribe(id, "2", "/orvale/q/data"))->messages().at(0)));
        synced = false;
        for (int i = 0; i < 20; ++i)
            feeder->publish("/q/data",
                            quote(std::to_string(i) + ":" + std::string(c.padding, 'x')));
        feeder->publish("/q/sync", "0");
        // With one delivery thread, the watcher hears the marker after the client got the rest.
        ASSERT_TRUE(waitUntil([&] { return synced.load(); }));

        auto answer = poll.post(connect(id, "3", -1, "long-polling"));
        ASSERT_TRUE(answer);
        std::vector<std::string> data;
        for (const auto& m : answer->messages())
            if (isDelivery(m))
                data.push_back(str(m, "data").substr(0, str(m, "data").find(':')));
        EXPECT_EQ(data, c.kept);
        const std::string lost = std::to_string(20 - c.kept.size());
        auto reply = find(answer->messages(), withId("3"));
        ASSERT_TRUE(reply && reply->contains("ext")) << answer->body;
        EXPECT_EQ(json::serialize(reply->at("ext")), R"({"dropped":)" + lost + "}");
        EXPECT_EQ(std::to_string(endpoint->stats().droppedMessages), lost);
        EXPECT_EQ(log.count("Session " + id + " holds "), 1u);
        // Reported once: the next answer has nothing to add.
        auto next = poll.post(connect(id, "4", 0, "long-polling"));
        ASSERT_TRUE(next);
        EXPECT_FALSE(find(next->messages(), withId("4"))->contains("ext")) << next->body;
    }
}

TEST_F(EndpointTest, ExpiredSessionsLoseTheirSubscriptions) {
    start([](EndpointOptions& o) { o.sessionTimeout = 300ms; });
    LogCapture log;
    auto watcher = service("watcher");
    Heard heard;
    auto listeners = listen(*watcher, "/exp/**", heard);

    // A long-polling client that never connects.
    RawHttp poll(port);
    const std::string quiet = open(poll);
    ASSERT_TRUE(poll.post(subscribe(quiet, "2", "/orvale/exp/a")));
    ASSERT_TRUE(poll.post(subscribe(quiet, "3", "/orvale/exp/b")));

    // A WebSocket client whose connection dies with its connect held.
    auto ws = std::make_unique<RawWebSocket>(port);
    const std::string gone = open(*ws);
    ASSERT_TRUE(successful(ws->call(subscribe(gone, "2", "/orvale/exp/c"), "2")));
    ASSERT_TRUE(ws->send(connect(gone, "3")));
    ASSERT_TRUE(waitUntil([&] { return heard.has("+/exp/c"); }));
    ws.reset();

    ASSERT_TRUE(waitUntil([&] { return endpoint->sessionCount() == 0; }));
    ASSERT_TRUE(waitUntil([&] { return heard.snapshot().size() == 6; }));
    for (const char* item : {"+/exp/a", "+/exp/b", "+/exp/c", "-/exp/a", "-/exp/b", "-/exp/c"})
        EXPECT_TRUE(heard.has(item)) << item;
    EXPECT_EQ(log.count("Session " + quiet + " expired"), 1u);
    EXPECT_EQ(log.count("Session " + gone + " expired"), 1u);
    auto late = poll.post(connect(quiet, "4", 0, "long-polling"));
    ASSERT_TRUE(late);
    EXPECT_EQ(error(late->messages().at(0)), "402::Unknown client");
}

TEST_F(EndpointTest, StoppingEndsEverySession) {
    start();
    auto watcher = service("watcher");
    Heard heard;
    auto listeners = listen(*watcher, "/**", heard);
    auto inbound =
        watcher->subscribe("/stop/in", [&](const JsonMessage& m) { heard.add(m); }).get();
    RawWebSocket ws(port);
    const std::string id = open(ws);
    ASSERT_TRUE(successful(ws.call(subscribe(id, "2", "/orvale/stop"), "2")));
    ASSERT_TRUE(ws.send(connect(id, "3")));
    // What a remote client publishes below /orvale reaches server services without the prefix.
    ASSERT_TRUE(successful(ws.call(publish(id, "4", "/orvale/stop/in", R"({"n":1})"), "4")));
    ASSERT_TRUE(waitUntil([&] { return heard.has(R"(/stop/in {"n":1})"); }));
    const auto servedPort = endpoint->port();
    endpoint->stop();
    EXPECT_EQ(endpoint->sessionCount(), 0u);
    EXPECT_EQ(endpoint->port(), servedPort);
    EXPECT_TRUE(waitUntil([&] { return heard.has("-/stop"); }));
    EXPECT_TRUE(ws.awaitClosed());
    EXPECT_THROW(RawWebSocket again(servedPort), std::runtime_error);
}

// Deliveries and replies go out batched into frames, in order; a burst of publishes and garbage
// leaves other clients served.
TEST_F(EndpointTest, BurstsAreBatchedIntoFramesAndLeaveOtherClientsServed) {
    start();
    RawWebSocket ws(port);
    const std::string id = open(ws);
    ASSERT_TRUE(successful(ws.call(subscribe(id, "2", "/orvale/burst"), "2")));
    ASSERT_TRUE(successful(ws.call(connect(id, "3", 0), "3")));
    auto publisher = service("publisher");
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

    // As many publishes in one frame as a frame may hold are all acknowledged, in one frame or a
    // few.
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
}

// ---------------------------------------------------------------------------------------------
// TLS: the same protocol over wss://, with a certificate made for the test.

TEST_F(EndpointTest, HandshakeOverSecureWebSocket) {
    const orvale::test::TestCertificates certificates;
    start([&](EndpointOptions& o) {
        o.certFile = certificates.dir + "/server.pem";
        o.keyFile = certificates.dir + "/server.key";
    });

    asio::io_context io;
    asio::ssl::context tls(asio::ssl::context::tls_client);
    tls.load_verify_file(certificates.dir + "/ca.pem");
    beast::websocket::stream<beast::ssl_stream<beast::tcp_stream>> ws(io, tls);
    ws.next_layer().set_verify_mode(asio::ssl::verify_peer);
    connectSocket(io, beast::get_lowest_layer(ws), port);
    beast::websocket::response_type upgrade;
    const std::string request = handshake("1");
    beast::flat_buffer buffer;
    for (const auto& step :
         std::vector<std::function<void(std::function<void(beast::error_code)>)>>{
             [&](auto h) { ws.next_layer().async_handshake(asio::ssl::stream_base::client, h); },
             [&](auto h) { ws.async_handshake(upgrade, "127.0.0.1", "/bayeux", h); },
             [&](auto h) { ws.async_write(asio::buffer(request), [h](auto ec, auto) { h(ec); }); },
             [&](auto h) { ws.async_read(buffer, [h](auto ec, auto) { h(ec); }); }})
        ASSERT_FALSE(complete(io, step)) << "TLS exchange failed";
    const std::string reply = beast::buffers_to_string(buffer.data());
    auto messages = parseMessages(reply);
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_TRUE(successful(messages[0])) << reply;
    // The browser cookie is kept off plain connections.
    EXPECT_NE(std::string(upgrade[beast::http::field::set_cookie]).find("; Secure"),
              std::string::npos);

    // Plain text on the TLS port gets nowhere, and the hub goes on.
    RawHttp plain(port);
    EXPECT_FALSE(plain.post(handshake("2")));
    EXPECT_EQ(endpoint->sessionCount(), 1u);
}

TEST(EndpointStartTest, ImpossibleSettingsThrow) {
    auto server = makeBayeuxServer();
    EndpointOptions taken;
    auto first = startBayeuxEndpoint(server, taken);
    taken.port = first->port();
    EXPECT_THROW(startBayeuxEndpoint(server, taken), std::runtime_error);
    EndpointOptions halfTls;
    halfTls.certFile = "/nonexistent/cert.pem";
    EXPECT_THROW(startBayeuxEndpoint(server, halfTls), std::runtime_error);
    halfTls.keyFile = "/nonexistent/key.pem";
    EXPECT_THROW(startBayeuxEndpoint(server, halfTls), std::runtime_error);
    EXPECT_THROW(startBayeuxEndpoint(nullptr, EndpointOptions{}), std::invalid_argument);
}

}  // namespace
}  // namespace connector::bayeux::endpoint_test
