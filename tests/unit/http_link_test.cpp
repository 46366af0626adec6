// The endpoint's long-polling link against raw HTTP clients: held connects, a newer connect
// answering an older one across transports, and the output bound.

#include <gtest/gtest.h>

#include "endpoint_clients.h"

namespace connector::bayeux::endpoint_test {
namespace {

TEST_F(EndpointTest, LongPollingSessionAndHeldConnects) {
    start([](EndpointOptions& o) {
        o.maxOutputBytes = 256 * 1024;
        o.maxMessagesPerFrame = 20000;  // so that the output bound, not the cap, ends it below
    });
    RawHttp poll(port);
    const std::string id = open(poll);
    // Another connection of the same browser: its cookie binds it to the session.
    RawHttp other(port, poll.cookie());
    ASSERT_TRUE(successful(other.call(subscribe(id, "2", "/lp"), "2")));

    // A connect that finds nothing waiting is held until a delivery releases it.
    poll.start(connect(id, "3", -1, "long-polling"));
    EXPECT_TRUE(successful(other.call(publish(id, "4", "/lp", "\"hello\""), "4")));
    const auto released = poll.finish().value();
    const auto messages = released.messages();
    ASSERT_EQ(messages.size(), 2u) << released.body;
    EXPECT_EQ(delivery(messages[0]), "/lp \"hello\"");
    EXPECT_EQ(str(messages[1], "channel"), "/meta/connect");
    EXPECT_EQ(str(messages[1], "id"), "3");
    EXPECT_TRUE(successful(messages[1]));

    // The client moves to a WebSocket with its browser's cookie and back, as some clients do;
    // each newer connect answers the one held over the other transport.
    RawWebSocket ws(port, poll.cookie());
    ASSERT_TRUE(ws.send(connect(id, "w1")));
    // Answered after the connect, which the hub takes in order from one connection.
    ASSERT_TRUE(successful(ws.call(subscribe(id, "s", "/moved"), "s")));
    poll.start(connect(id, "l1", -1, "long-polling"));
    EXPECT_TRUE(successful(ws.await(withId("w1"))));
    ASSERT_TRUE(ws.send(connect(id, "w2")));
    EXPECT_TRUE(successful(find(poll.finish().value().messages(), withId("l1"))));
    ASSERT_TRUE(successful(ws.call(publish(id, "6", "/moved", "1"), "6")));
    EXPECT_EQ(ws.nextDelivery(), "/moved 1");

    // Only POST on the endpoint's path, or below it as some clients send, is Bayeux.
    const auto below = other.post(handshake("1"), "/bayeux/handshake?x=1").value();
    EXPECT_EQ(below.status, 200u);
    EXPECT_TRUE(successful(below.messages().at(0)));
    EXPECT_EQ(other.post("", "/bayeux", http::verb::get).value().status, 405u);
    for (const char* target : {"/elsewhere", "/bayeuxx", "/"}) {
        auto elsewhere = other.post(handshake("1"), target);
        ASSERT_TRUE(elsewhere) << target;
        EXPECT_EQ(elsewhere->status, 404u) << target;
    }

    // 20,000 numbers, messages the hub cannot read, earn about a megabyte of error replies: past
    // the bound, the connection is closed.
    LogCapture log;
    EXPECT_FALSE(RawHttp(port).post(batch(std::vector<std::string>(20000, "[1]"))));
    EXPECT_EQ(log.count("Closed a connection whose unread output passed 262144 bytes"), 1u);
    EXPECT_TRUE(successful(other.call(publish(id, "5", "/lp", "1"), "5")));
}

}  // namespace
}  // namespace connector::bayeux::endpoint_test
