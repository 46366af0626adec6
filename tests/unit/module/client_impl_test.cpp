#include "client_fixture.h"

namespace connector::message_service {
namespace {

TEST_F(ClientTest, HandshakeNumbersRequestsAndStartsTheConnectLoopOrFails) {
    auto client = make({{"endpoint", "ws://test/bayeux"}, {"orvapikey", "secret"}});
    auto throws = [](const StateChangeEvent&) { throw std::runtime_error("x"); };
    auto thrower = client->listenStateChange(throws).get();
    auto listener = watch(client);
    connect(client);
    EXPECT_TRUE(
        capture.contains("Error executing state change listener: DISCONNECTED->CONNECTING, x"));
    EXPECT_EQ(context->getState()->getString("orvapikey"), std::optional<std::string>("secret"));
    EXPECT_EQ(wire(0),
              R"([{"channel":"/meta/handshake","id":"0","clientId":"unset","version":"1.0",)"
              R"("minimumVersion":"1.0","supportedConnectionTypes":["websocket"]}])");
    EXPECT_EQ(client->getId(), "abc");
    EXPECT_EQ(
        wire(1),
        R"([{"channel":"/meta/connect","id":"1","clientId":"abc","connectionType":"websocket"}])");
    EXPECT_EQ(states.snapshot(), (Strings{"DISCONNECTED->CONNECTING", "CONNECTING->CONNECTED"}));

    // Each answered meta connect sends the next one.
    answer<bx::ConnectStreamResponse>(1);
    ASSERT_TRUE(transport->waitSent(3));
    EXPECT_EQ(transport->sent<bx::ConnectRequest>(2)->getId(), "2");

    // Connecting again while connected sends nothing.
    auto again = client->connect();
    ASSERT_TRUE(again.waitFor(std::chrono::milliseconds(0)));
    EXPECT_EQ(again.get(), ConnectionState::CONNECTED);
    EXPECT_EQ(transport->sentCount(), 3u);
    EXPECT_EQ(transport->connects(), 1);

    // A failed meta connect ends the loop and keeps the state.
    transport->reply(response<bx::ConnectStreamResponse>("2", false, "402::Unknown client"));
    EXPECT_TRUE(capture.contains(
        "Meta connect error: Bayeux message 2 failed, error: 402::Unknown client"));
    EXPECT_EQ(client->getState(), ConnectionState::CONNECTED);
    EXPECT_FALSE(transport->waitSent(4, std::chrono::milliseconds(50)));
    // A cancelled listener hears nothing more.
    listener->unsubscribe().get();
    client->disconnect();
    EXPECT_EQ(states.size(), 2u);

    // A refused handshake, a transport that cannot connect, and no transport at all.
    ASSERT_TRUE(transport->waitSent(4));  // the disconnect
    auto refusing = make();
    auto connected = refusing->connect();
    handshakeAt(4, "abc", "403::Unauthorized");
    EXPECT_EQ(failureText(connected), "Bayeux message 0 failed, error: 403::Unauthorized");
    EXPECT_TRUE(
        capture.contains("Handshake error: Bayeux message 0 failed, error: 403::Unauthorized"));
    EXPECT_EQ(refusing->getState(), ConnectionState::DISCONNECTED);

    const std::string refused = "Cannot connect to ws://test/bayeux: Connection refused";
    std::make_shared<ScriptedTransport>()->install(*context, refused);
    auto other = make();
    EXPECT_EQ(failureText(other->connect()), refused);
    EXPECT_TRUE(capture.contains("Transport connection error: " + refused));
    EXPECT_EQ(other->getState(), ConnectionState::CONNECTING);

    context = std::make_shared<Context>();  // no transport registered: connect never opens one
    auto lone = make();
    EXPECT_EQ(failureText(lone->connect()),
              "No service registered at: connector/bayeux/webSocket/client@connector/http/client");
    EXPECT_EQ(failureText(lone->disconnect()), "Failed to send message, not connected");
    EXPECT_EQ(lone->getState(), ConnectionState::DISCONNECTING);
    // The next request of a transport that does open still carries id 0.
    transport = std::make_shared<ScriptedTransport>();
    transport->install(*context);
    auto reconnecting = lone->connect();
    ASSERT_TRUE(transport->waitSent(1));
    EXPECT_EQ(transport->sent<bx::HandshakeRequest>(0)->getId(), "0");
}

// A client needs an endpoint; what it refuses, and a disconnect before connecting, send nothing; a
// subscribe the server refuses, or answers with another type of message, fails.
TEST_F(ClientTest, RefusedCallsThenAnInboundBatchHandledInItsOrder) {
    auto noEndpoint = [&] { make({{"name", "x"}}); };
    EXPECT_THAT(noEndpoint, ::testing::ThrowsMessage<std::invalid_argument>(
                                ::testing::StrEq("No endpoint url option specified")));
    EXPECT_TRUE(capture.contains("No message service client endpoint url option specified"));
    auto client = make();
    EXPECT_TRUE(capture.contains("Created new message service client instance: ws://test/bayeux"));
    auto noop = [](const JsonMessage&) {};
    EXPECT_EQ(failureText(client->subscribe("/a", noop)), "MessageService is not connected.");
    EXPECT_EQ(failureText(client->publish("/a", "1")), "MessageService is not connected.");
    auto nothing = client->disconnect();  // of a client never connected: done at once
    ASSERT_TRUE(nothing.waitFor(std::chrono::milliseconds(0)));
    EXPECT_TRUE(nothing.get().success);
    EXPECT_EQ(transport->sentCount(), 0u);
    connect(client);
    const std::size_t sent = transport->sentCount();
    const std::string noListeners =
        "Subscriptions listeners are not supported for client instances";
    EXPECT_EQ(failureText(client->subscribe("/a/***", noop)), "Channel pattern is invalid: /a/***");
    EXPECT_EQ(failureText(client->subscribe("a/b", noop)), "Channel pattern is invalid: a/b");
    EXPECT_EQ(failureText(client->publish("/a/*", "1")), "Channel is invalid: /a/*");
    EXPECT_EQ(failureText(client->listenSubscribe("/a", [](const SubscribeEvent&) {})),
              noListeners);
    EXPECT_EQ(failureText(client->listenUnsubscribe("/a", [](const UnsubscribeEvent&) {})),
              noListeners);
    EXPECT_EQ(transport->sentCount(), sent);
    auto refused = client->subscribe("/a", noop);
    auto mistyped = client->subscribe("/b", noop);
    ASSERT_TRUE(transport->waitSent(4));
    transport->reply(response<bx::SubscribeResponse>("2", false, "405:/orvale/a:Invalid channel"));
    transport->reply(response<bx::PublishResponse>("3"));
    EXPECT_EQ(failureText(refused),
              "Bayeux message 2 failed, error: 405:/orvale/a:Invalid channel");
    EXPECT_TRUE(capture.contains(
        "Error subscribing to: /a, Bayeux message 2 failed, error: 405:/orvale/a:Invalid channel"));
    EXPECT_EQ(failureText(mistyped), "Incorrect response message type, id: 3");

    // An inbound batch is handled in its order.
    auto exact = client->subscribe("/a/b", record("exact"));
    auto deep = client->subscribe("/a/**", record("deep"));
    auto one = client->subscribe("/a/*", record("one"));
    auto root = client->subscribe("/**", record("root"));
    auto thrower =
        client->subscribe("/a/b", [](const JsonMessage&) { throw std::runtime_error("bad"); });
    auto after = client->subscribe("/a/b", record("after"));
    ASSERT_TRUE(transport->waitSent(10));

    // The subscribe answer before the delivery resolves first, then the delivery runs, then the
    // answer after it resolves; an answer nobody waits for is logged.
    auto batch = std::make_unique<bx::BayeuxContainer>();
    batch->messages().push_back(response<bx::SubscribeResponse>("4"));
    batch->messages().push_back(delivery("/orvale/a/b", "1"));
    batch->messages().push_back(response<bx::PublishResponse>("76"));
    batch->messages().push_back(response<bx::SubscribeResponse>("5"));
    bool resolvedFirst = false, resolvedLast = false;
    auto exactHandle = exact.then([&](Future<std::shared_ptr<Subscription>>&& f) {
        resolvedFirst = seen.empty();
        return f.get();
    });
    auto deepHandle = deep.then([&](Future<std::shared_ptr<Subscription>>&& f) {
        resolvedLast = seen.size() == 5;
        return f.get();
    });
    transport->reply(std::move(batch));
    EXPECT_TRUE(resolvedFirst);
    EXPECT_TRUE(resolvedLast);
    EXPECT_EQ(capture.count("Unexpected message: connector::bayeux::PublishResponse"), 1u);
    EXPECT_EQ(seen, (Strings{"root /a/b 1", "one /a/b 1", "deep /a/b 1", "exact /a/b 1",
                             "after /a/b 1"}));
    EXPECT_TRUE(capture.contains("Caught exception from subscription callback: /a/b, bad"));

    // A single-star pattern receives deeper channels too.
    EXPECT_EQ(deliveredTo("/orvale/a/b/c", "2"),
              (Strings{"root /a/b/c 2", "one /a/b/c 2", "deep /a/b/c 2"}));
    // A delivery's publisher id resolves no request.
    auto carryingId = delivery("/orvale/a/b", "3");
    carryingId->setId("5");
    seen.clear();
    transport->reply(std::move(carryingId));
    EXPECT_EQ(seen.size(), 5u);
    EXPECT_FALSE(after.waitFor(std::chrono::milliseconds(20)));
}

// A publish goes out prefixed and resolves on its answer. Every failure logs one error line on the
// module logger before the caller's future fails with the same text.
TEST_F(ClientTest, PublishResolvesOnItsAnswerAndFailuresAreLoggedBeforeTheyResolve) {
    auto client = make();
    connect(client);
    auto published = client->publish("/a/b", "{\"v\":1}");
    EXPECT_EQ(wire(2), R"([{"channel":"/orvale/a/b","id":"2","clientId":"abc","data":{"v":1}}])");
    EXPECT_FALSE(published.waitFor(std::chrono::milliseconds(20)));
    transport->reply(response<bx::PublishResponse>("2"));
    EXPECT_TRUE(published.get().success);
    // Publishes on `channel`, lets `fail` end it, and checks the line and the future's text.
    auto expectFailure = [&](const std::string& channel, const std::string& reason,
                             const std::function<void()>& fail) {
        const std::string line = "Error publishing on " + channel + ", " + reason;
        const std::size_t index = transport->sentCount();
        auto loggedFirst = client->publish(channel, "1").then([&, line](Future<PublishResult>&& f) {
            const bool logged = capture.count(line) == 1;
            f.get();
            return logged;
        });
        ASSERT_TRUE(transport->waitSent(index + 1));
        fail();
        EXPECT_EQ(failureText(loggedFirst), reason);
        const auto found = capture.find(line);
        ASSERT_EQ(found.size(), 1u) << line;
        EXPECT_EQ(found[0].channel, "connector::message_service");
        EXPECT_EQ(found[0].severity, foundation::log::error);
    };
    expectFailure("/a/b", "Bayeux message 3 failed, error: 403::No",
                  [&] { transport->reply(response<bx::PublishResponse>("3", false, "403::No")); });
    expectFailure("/a/c", "Incorrect response message type, id: 4",
                  [&] { answer<bx::SubscribeResponse>(4); });

    // The end of the connection fails every publish still waiting, each with its own channel.
    auto first = client->publish("/c", "1");
    expectFailure("/d/e", "Connection to ws://test/bayeux closed", [&] { transport->close(); });
    EXPECT_EQ(failureText(first), "Connection to ws://test/bayeux closed");
    EXPECT_EQ(capture.count("Error publishing on /c, Connection to ws://test/bayeux closed"), 1u);
    EXPECT_EQ(client->getState(), ConnectionState::DISCONNECTED);
    EXPECT_TRUE(client->disconnect().get().success);

    // A service destroyed with a publish unanswered.
    connect(client);
    EXPECT_EQ(transport->connects(), 2);
    expectFailure("/f", "Promise destroyed before it provided a value.", [&] { client.reset(); });
    // Destroying a connected client sends a disconnect.
    EXPECT_TRUE(capture.contains("Destructing message service server instance"));
    ASSERT_TRUE(transport->waitSent(11));
    EXPECT_NE(transport->sent<bx::DisconnectRequest>(10), nullptr);
}

// Each handle is its own subscription on the server; wildcards follow what is subscribed. A
// callback may cancel its own subscription; a listener owning a channel's only handle cancels it.
TEST_F(ClientTest, SubscriptionsFollowTheirHandles) {
    auto client = make();
    connect(client);
    auto cancel = [&](const std::shared_ptr<Subscription>& handle, const std::string& channel) {
        const std::size_t index = transport->sentCount();
        auto cancelled = handle->unsubscribe();
        ASSERT_TRUE(transport->waitSent(index + 1));
        EXPECT_EQ(transport->sent<bx::UnsubscribeRequest>(index)->getChannel(), channel);
        answer<bx::UnsubscribeResponse>(index);
        EXPECT_TRUE(cancelled.get().success);
    };
    auto exact = subscribed(client, "/a/b", "exact");
    EXPECT_EQ(
        wire(2),
        R"([{"channel":"/meta/subscribe","id":"2","clientId":"abc","subscription":"/orvale/a/b"}])");
    auto twin = subscribed(client, "/a/b", "twin");
    auto one = subscribed(client, "/a/*", "one");
    auto deep = subscribed(client, "/a/**", "deep");
    cancel(twin, "/orvale/a/b");
    // The same id again finds nothing and sends nothing.
    const std::size_t sent = transport->sentCount();
    const auto twinId = std::dynamic_pointer_cast<SubscriptionImpl2>(twin)->getId();
    EXPECT_TRUE(client->unsubscribeId(twinId, nullptr).get().success);
    EXPECT_EQ(transport->sentCount(), sent);
    cancel(one, "/orvale/a/*");
    EXPECT_EQ(deliveredTo("/orvale/a/b"), (Strings{"deep /a/b 1", "exact /a/b 1"}));
    cancel(deep, "/orvale/a/**");
    EXPECT_EQ(deliveredTo("/orvale/a/b/c"), Strings{});

    int calls = 0;
    std::shared_ptr<Subscription> self;
    const std::size_t before = transport->sentCount() + 1;
    auto pending = client->subscribe("/s", [&](const JsonMessage&) {
        ++calls;
        self->unsubscribe();
    });
    answer<bx::SubscribeResponse>(before - 1);
    self = pending.get();
    transport->reply(delivery("/orvale/s", "1"));
    transport->reply(delivery("/orvale/s", "2"));
    EXPECT_EQ(calls, 1);
    ASSERT_TRUE(transport->waitSent(before + 1));
    EXPECT_EQ(transport->sent<bx::UnsubscribeRequest>(before)->getChannel(), "/orvale/s");
    std::shared_ptr<Subscription> owned = subscribed(client, "/o", "o");
    auto holder = client->listenStateChange([owned](const StateChangeEvent&) {}).get();
    owned.reset();
    cancel(holder, "/orvale/o");

    // A disconnect drops every subscription before its answer, and the answer of the meta connect
    // still out starts no other; wildcards made afterwards are matched again.
    auto listener = watch(client);
    const std::size_t at = transport->sentCount();
    auto done = client->disconnect();
    EXPECT_EQ(wire(at), R"([{"channel":"/meta/disconnect","id":")" + std::to_string(at) +
                            R"(","clientId":"abc"}])");
    EXPECT_TRUE(capture.contains("Disconnecting from: ws://test/bayeux, abc"));
    EXPECT_EQ(deliveredTo("/orvale/a/b"), Strings{});
    answer<bx::DisconnectResponse>(at);
    ASSERT_TRUE(done.get().success);
    EXPECT_EQ(states.snapshot(),
              (Strings{"CONNECTED->DISCONNECTING", "DISCONNECTING->DISCONNECTED"}));
    answer<bx::ConnectStreamResponse>(1);
    EXPECT_TRUE(capture.contains("Not connected, not sending meta connect request"));
    EXPECT_EQ(transport->sentCount(), at + 1);
    // The first transport is still open; connecting again replaces it without deadlocking.
    connect(client);
    EXPECT_EQ(transport->connects(), 2);
    auto again = subscribed(client, "/a/*", "again");
    EXPECT_EQ(deliveredTo("/orvale/a/b"), Strings{"again /a/b 1"});
}

// With "request.timeoutMs", a request left unanswered fails on its own, the meta connect that the
// server holds excepted; an answer coming later finds nothing to complete.
TEST_F(ClientTest, WithARequestTimeoutAnUnansweredRequestFailsButTheHeldConnectWaits) {
    for (const auto& [option, unit] : {std::pair{"request.timeoutMs", "milliseconds"},
                                       std::pair{"publish.maxPendingBytes", "bytes"}})
        for (const char* bad : {"0", "-1", "ten", ""})
            EXPECT_EQ(failureText([&, option = option] {
                          make({{"endpoint", "ws://test/bayeux"}, {option, bad}});
                      }),
                      std::string("Option ") + option + " must be a whole number of " + unit +
                          " from 1: " + bad);
    auto client = make({{"endpoint", "ws://test/bayeux"}, {"request.timeoutMs", "100"}});
    connect(client);
    ASSERT_NE(transport->sent<bx::ConnectRequest>(1), nullptr);
    auto answered = client->publish("/a", "1");
    answer<bx::PublishResponse>(2);
    auto published = client->publish("/b", "1");
    auto subscribed = client->subscribe("/c", record("c"));
    EXPECT_EQ(failureText(published), "Bayeux message 3 was not answered within 100 ms");
    EXPECT_EQ(
        capture.count("Error publishing on /b, Bayeux message 3 was not answered within 100 ms"),
        1u);
    EXPECT_EQ(failureText(subscribed), "Bayeux message 4 was not answered within 100 ms");
    EXPECT_TRUE(answered.get().success);
    // The connect, sent before either, is still held: no other went out, and none failed.
    EXPECT_EQ(transport->sentCount(), 5u);
    EXPECT_EQ(client->getState(), ConnectionState::CONNECTED);
    transport->reply(response<bx::PublishResponse>("3"));
    EXPECT_TRUE(capture.contains("Unexpected message: connector::bayeux::PublishResponse"));
    answer<bx::ConnectStreamResponse>(1);
    ASSERT_TRUE(transport->waitSent(6));
    EXPECT_NE(transport->sent<bx::ConnectRequest>(5), nullptr);
}

// With "publish.maxPendingBytes", a publish that would take the channel and data bytes of the
// publishes awaiting their answers past the bound fails at once; answers, and failures, make room.
TEST_F(ClientTest, WithAPendingBoundAPublishBeyondItFailsUntilAnswersMakeRoom) {
    auto client = make({{"endpoint", "ws://test/bayeux"},
                        {"publish.maxPendingBytes", "20"},
                        {"request.timeoutMs", "200"}});
    auto refusal = [](int pending) {
        return "MessageService has " + std::to_string(pending) +
               " bytes of publishes unanswered, and publish.maxPendingBytes is 20: publish "
               "again once some are answered.";
    };
    connect(client);
    auto first = client->publish("/a", "12345678");   // 10 bytes
    auto second = client->publish("/b", "12345678");  // 20: at the bound, not past it
    EXPECT_EQ(failureText(client->publish("/c", "1")), refusal(20));
    EXPECT_EQ(transport->sentCount(), 4u);  // the refused publish was never sent
    answer<bx::PublishResponse>(2);
    auto fourth = client->publish("/c", "1");
    answer<bx::PublishResponse>(3);
    answer<bx::PublishResponse>(4);
    EXPECT_TRUE(first.get().success && second.get().success && fourth.get().success);
    // Alone, a publish larger than the bound goes; one that times out makes room as well.
    auto large = client->publish("/d", std::string(100, 'x'));
    EXPECT_EQ(failureText(client->publish("/e", "1")), refusal(102));
    EXPECT_EQ(failureText(large), "Bayeux message 5 was not answered within 200 ms");
    auto after = client->publish("/e", "1");
    answer<bx::PublishResponse>(6);
    EXPECT_TRUE(after.get().success);
}

}  // namespace
}  // namespace connector::message_service
