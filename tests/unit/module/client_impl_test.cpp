#include "connector/message_service/client_impl.h"

#include <gtest/gtest.h>

#include "failure_text.h"
#include "log_capture.h"
#include "scripted_transport.h"

namespace connector::message_service {
namespace {

namespace bx = bayeux;
using orvale::test::failureText;
using orvale::test::response;
using orvale::test::ScriptedTransport;

std::unique_ptr<bx::PublishRequest> delivery(const std::string& wire, const std::string& json) {
    return std::make_unique<bx::PublishRequest>(wire, common::DataBuffer(json));
}

class ClientTest : public ::testing::Test {
  protected:
    void SetUp() override { transport->install(*context); }

    std::shared_ptr<MessageServiceClientImpl> make(Options options = {
                                                       {"endpoint", "ws://test/bayeux"}}) {
        return std::make_shared<MessageServiceClientImpl>(
            "cli", std::move(options), context,
            Address("connector/bayeux/webSocket/client", "connector/http/client"));
    }

    // Connects `client`, answering its handshake with the client id "abc".
    void connect(const std::shared_ptr<MessageServiceClientImpl>& client) {
        const std::size_t before = transport->sentCount();
        auto connected = client->connect();
        ASSERT_TRUE(transport->waitSent(before + 1));
        const auto* handshake = transport->sent<bx::HandshakeRequest>(before);
        ASSERT_NE(handshake, nullptr);
        auto reply = response<bx::HandshakeResponse>(handshake->getId());
        reply->setClientId("abc");
        transport->reply(std::move(reply));
        ASSERT_TRUE(connected.waitFor(std::chrono::seconds(5)));
        ASSERT_EQ(connected.get(), ConnectionState::CONNECTED);
    }

    // Answers the index-th sent request successfully with a response of type T.
    template <class T>
    void answer(std::size_t index) {
        ASSERT_TRUE(transport->waitSent(index + 1));
        auto* request = transport->sent<bx::BayeuxMessage>(index);
        ASSERT_NE(request, nullptr);
        transport->reply(response<T>(request->getId()));
    }

    std::shared_ptr<Context> context = std::make_shared<Context>();
    std::shared_ptr<ScriptedTransport> transport = std::make_shared<ScriptedTransport>();
};

TEST_F(ClientTest, ConstructionRequiresAnEndpoint) {
    orvale::test::LogCapture capture;
    try {
        make({{"name", "x"}});
        FAIL();
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "No endpoint url option specified");
    }
    EXPECT_TRUE(capture.contains("No message service client endpoint url option specified"));
    auto client = make();
    EXPECT_TRUE(capture.contains("Created new message service client instance: ws://test/bayeux"));
    EXPECT_EQ(client->getId(), "unset");
    EXPECT_EQ(client->getState(), ConnectionState::DISCONNECTED);
}

TEST_F(ClientTest, HandshakeNumbersRequestsAndStartsTheConnectLoop) {
    auto client = make({{"endpoint", "ws://test/bayeux"}, {"orvapikey", "secret"}});
    std::vector<std::pair<ConnectionState, ConnectionState>> events;
    auto listener = client
                        ->listenStateChange([&](const StateChangeEvent& e) {
                            events.emplace_back(e.previousState, e.newState);
                        })
                        .get();
    connect(client);
    EXPECT_EQ(context->getState()->getString("orvapikey"), std::optional<std::string>("secret"));
    const auto* handshake = transport->sent<bx::HandshakeRequest>(0);
    EXPECT_EQ(handshake->getId(), "0");
    EXPECT_EQ(handshake->getClientId(), "unset");
    EXPECT_EQ(handshake->getVersion(), "1.0");
    EXPECT_EQ(handshake->getMinimumVersion(), "1.0");
    EXPECT_EQ(handshake->getSupportedConnectionTypes(), std::vector<std::string>{"websocket"});
    EXPECT_EQ(client->getId(), "abc");
    ASSERT_TRUE(transport->waitSent(2));
    const auto* metaConnect = transport->sent<bx::ConnectRequest>(1);
    ASSERT_NE(metaConnect, nullptr);
    EXPECT_EQ(metaConnect->getId(), "1");
    EXPECT_EQ(metaConnect->getClientId(), "abc");
    EXPECT_EQ(metaConnect->getConnectionType(), "websocket");
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0],
              std::make_pair(ConnectionState::DISCONNECTED, ConnectionState::CONNECTING));
    EXPECT_EQ(events[1], std::make_pair(ConnectionState::CONNECTING, ConnectionState::CONNECTED));

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
}

TEST_F(ClientTest, FailedMetaConnectEndsTheLoopAndKeepsTheState) {
    orvale::test::LogCapture capture;
    auto client = make();
    connect(client);
    ASSERT_TRUE(transport->waitSent(2));
    transport->reply(response<bx::ConnectStreamResponse>("1", false, "402::Unknown client"));
    EXPECT_TRUE(capture.contains(
        "Meta connect error: Bayeux message 1 failed, error: 402::Unknown client"));
    EXPECT_EQ(client->getState(), ConnectionState::CONNECTED);
    EXPECT_FALSE(transport->waitSent(3, std::chrono::milliseconds(50)));
}

TEST_F(ClientTest, HandshakeAndTransportFailures) {
    orvale::test::LogCapture capture;
    auto client = make();
    auto connected = client->connect();
    ASSERT_TRUE(transport->waitSent(1));
    transport->reply(response<bx::HandshakeResponse>("0", false, "403::Unauthorized"));
    EXPECT_EQ(failureText(connected), "Bayeux message 0 failed, error: 403::Unauthorized");
    EXPECT_TRUE(
        capture.contains("Handshake error: Bayeux message 0 failed, error: 403::Unauthorized"));
    EXPECT_EQ(client->getState(), ConnectionState::DISCONNECTED);

    auto refusing = std::make_shared<ScriptedTransport>();
    refusing->install(*context, "Cannot connect to ws://test/bayeux: Connection refused");
    auto other = make();
    auto failed = other->connect();
    EXPECT_EQ(failureText(failed), "Cannot connect to ws://test/bayeux: Connection refused");
    EXPECT_TRUE(capture.contains(
        "Transport connection error: Cannot connect to ws://test/bayeux: Connection refused"));
    EXPECT_EQ(other->getState(), ConnectionState::CONNECTING);
}

TEST_F(ClientTest, SendingWithoutTransportFailsAndUsesNoId) {
    auto silent = std::make_shared<Context>();  // no transport registered: connect never opens one
    auto client = std::make_shared<MessageServiceClientImpl>(
        "cli", Options{{"endpoint", "ws://x"}}, silent,
        Address("connector/bayeux/webSocket/client", "connector/http/client"));
    auto connecting = client->connect();
    EXPECT_EQ(failureText(connecting),
              "No service registered at: connector/bayeux/webSocket/client@connector/http/client");
    auto disconnected = client->disconnect();
    EXPECT_EQ(failureText(disconnected), "Failed to send message, not connected");
    EXPECT_EQ(client->getState(), ConnectionState::DISCONNECTING);
    // The next request of a transport that does open still carries id 0.
    transport->install(*silent);
    auto reconnecting = client->connect();
    ASSERT_TRUE(transport->waitSent(1));
    EXPECT_EQ(transport->sent<bx::HandshakeRequest>(0)->getId(), "0");
}

TEST_F(ClientTest, SubscriptionsAreMirroredPerHolder) {
    auto client = make();
    auto noop = [](const JsonMessage&) {};
    auto notConnected = client->subscribe("/a", noop);
    EXPECT_EQ(failureText(notConnected), "MessageService is not connected.");
    connect(client);
    auto invalid = client->subscribe("/a/***", noop);
    EXPECT_EQ(failureText(invalid), "Channel pattern is invalid: /a/***");
    auto noSlash = client->subscribe("a/b", noop);
    EXPECT_EQ(failureText(noSlash), "Channel pattern is invalid: a/b");

    auto first = client->subscribe("/a", noop);
    auto second = client->subscribe("/a/**", noop);
    auto third = client->subscribe("/a", noop);
    ASSERT_TRUE(transport->waitSent(5));
    const auto* request = transport->sent<bx::SubscribeRequest>(2);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->getChannel(), "/orvale/a");
    EXPECT_EQ(request->getClientId(), "abc");
    EXPECT_EQ(transport->sent<bx::SubscribeRequest>(3)->getChannel(), "/orvale/a/**");
    for (std::size_t i = 2; i < 5; ++i)
        answer<bx::SubscribeResponse>(i);
    auto h1 = first.get(), h3 = third.get();
    EXPECT_NE(std::dynamic_pointer_cast<SubscriptionImpl2>(h1)->getId(),
              std::dynamic_pointer_cast<SubscriptionImpl2>(h3)->getId());

    auto cancelled = h1->unsubscribe();
    ASSERT_TRUE(transport->waitSent(6));
    const auto* unsubscribe = transport->sent<bx::UnsubscribeRequest>(5);
    ASSERT_NE(unsubscribe, nullptr);
    EXPECT_EQ(unsubscribe->getChannel(), "/orvale/a");
    answer<bx::UnsubscribeResponse>(5);
    EXPECT_TRUE(cancelled.get().success);
    // The same id again finds nothing and sends nothing.
    EXPECT_TRUE(
        client->unsubscribeId(std::dynamic_pointer_cast<SubscriptionImpl2>(h1)->getId(), nullptr)
            .get()
            .success);
    EXPECT_EQ(transport->sentCount(), 6u);

    auto listen = client->listenSubscribe("/a", [](const SubscribeEvent&) {});
    EXPECT_EQ(failureText(listen),
              "Subscriptions listeners are not supported for client instances");
    auto listenUn = client->listenUnsubscribe("/a", [](const UnsubscribeEvent&) {});
    EXPECT_EQ(failureText(listenUn),
              "Subscriptions listeners are not supported for client instances");
}

TEST_F(ClientTest, FailedOrMistypedSubscribeAnswers) {
    orvale::test::LogCapture capture;
    auto client = make();
    connect(client);
    auto refused = client->subscribe("/a", [](const JsonMessage&) {});
    auto mistyped = client->subscribe("/b", [](const JsonMessage&) {});
    ASSERT_TRUE(transport->waitSent(4));
    transport->reply(response<bx::SubscribeResponse>(
        transport->sent<bx::SubscribeRequest>(2)->getId(), false, "405:/orvale/a:Invalid channel"));
    transport->reply(
        response<bx::PublishResponse>(transport->sent<bx::SubscribeRequest>(3)->getId()));
    EXPECT_EQ(failureText(refused),
              "Bayeux message 2 failed, error: 405:/orvale/a:Invalid channel");
    EXPECT_TRUE(capture.contains(
        "Error subscribing to: /a, Bayeux message 2 failed, error: 405:/orvale/a:Invalid channel"));
    EXPECT_EQ(failureText(mistyped), "Incorrect response message type, id: 3");
}

TEST_F(ClientTest, InboundDeliveryOrderAndWildcards) {
    orvale::test::LogCapture capture;
    auto client = make();
    connect(client);
    std::vector<std::string> seen;
    auto record = [&](const std::string& tag) {
        return [&seen, tag](const JsonMessage& m) {
            seen.push_back(tag + " " + m.getChannel() + " " + m.getJson());
        };
    };
    auto exact = client->subscribe("/a/b", record("exact"));
    auto deep = client->subscribe("/a/**", record("deep"));
    auto one = client->subscribe("/a/*", record("one"));
    auto root = client->subscribe("/**", record("root"));
    auto thrower =
        client->subscribe("/a/b", [](const JsonMessage&) { throw std::runtime_error("bad"); });
    auto after = client->subscribe("/a/b", record("after"));
    ASSERT_TRUE(transport->waitSent(8));

    // A batch is handled in its order: the subscribe answer before it resolves first, then the
    // delivery runs, then the answer after it resolves; an answer nobody waits for is logged.
    auto batch = std::make_unique<bx::BayeuxContainer>();
    batch->messages().push_back(response<bx::SubscribeResponse>("2"));
    batch->messages().push_back(delivery("/orvale/a/b", "1"));
    batch->messages().push_back(response<bx::PublishResponse>("76"));
    batch->messages().push_back(response<bx::SubscribeResponse>("3"));
    bool resolvedFirst = false;
    auto exactHandle = exact.then([&](Future<std::shared_ptr<Subscription>>&& f) {
        resolvedFirst = seen.empty();
        return f.get();
    });
    bool resolvedLast = false;
    auto deepHandle = deep.then([&](Future<std::shared_ptr<Subscription>>&& f) {
        resolvedLast = seen.size() == 5;
        return f.get();
    });
    transport->reply(std::move(batch));
    EXPECT_TRUE(resolvedFirst);
    EXPECT_TRUE(resolvedLast);
    EXPECT_TRUE(capture.contains("Unexpected message: connector::bayeux::PublishResponse"));
    EXPECT_EQ(seen, (std::vector<std::string>{"root /a/b 1", "one /a/b 1", "deep /a/b 1",
                                              "exact /a/b 1", "after /a/b 1"}));
    EXPECT_TRUE(capture.contains("Caught exception from subscription callback: /a/b, bad"));
    capture.clear();

    // A single-star pattern receives deeper channels too.
    seen.clear();
    transport->reply(delivery("/orvale/a/b/c", "2"));
    EXPECT_EQ(seen, (std::vector<std::string>{"root /a/b/c 2", "one /a/b/c 2", "deep /a/b/c 2"}));

    // A response nobody waits for, and a delivery's publisher id, change nothing.
    transport->reply(response<bx::PublishResponse>("77"));
    EXPECT_TRUE(capture.contains("Unexpected message: connector::bayeux::PublishResponse"));
    auto carryingId = delivery("/orvale/a/b", "3");
    carryingId->setId("3");
    seen.clear();
    transport->reply(std::move(carryingId));
    EXPECT_EQ(seen.size(), 5u);
    EXPECT_FALSE(after.waitFor(std::chrono::milliseconds(20)))
        << "delivery ids never resolve requests";
}

TEST_F(ClientTest, CallbackCancellingItselfStillCompletes) {
    auto client = make();
    connect(client);
    int calls = 0;
    std::shared_ptr<Subscription> handle;
    auto pending = client->subscribe("/a", [&](const JsonMessage&) {
        ++calls;
        handle->unsubscribe();
    });
    answer<bx::SubscribeResponse>(2);
    handle = pending.get();
    transport->reply(delivery("/orvale/a", "1"));
    transport->reply(delivery("/orvale/a", "2"));
    EXPECT_EQ(calls, 1);
}

TEST_F(ClientTest, PublishGoesOutPrefixedAndResolvesOnTheAnswer) {
    auto client = make();
    auto early = client->publish("/a", "1");
    EXPECT_EQ(failureText(early), "MessageService is not connected.");
    EXPECT_EQ(transport->sentCount(), 0u);
    connect(client);
    auto wildcard = client->publish("/a/*", "1");
    EXPECT_EQ(failureText(wildcard), "Channel is invalid: /a/*");

    auto published = client->publish("/a/b", "{\"v\":1}");
    ASSERT_TRUE(transport->waitSent(3));
    const auto* request = transport->sent<bx::PublishRequest>(2);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->getChannel(), "/orvale/a/b");
    EXPECT_EQ(request->getJson(), "{\"v\":1}");
    EXPECT_EQ(request->getClientId(), "abc");
    EXPECT_FALSE(published.waitFor(std::chrono::milliseconds(20)));
    auto answerReply = std::make_unique<bx::PublishResponse>("/orvale/a/b");
    answerReply->setId(request->getId());
    transport->reply(std::move(answerReply));
    EXPECT_TRUE(published.get().success);

    orvale::test::LogCapture capture;
    auto refused = client->publish("/a/b", "2");
    ASSERT_TRUE(transport->waitSent(4));
    transport->reply(response<bx::PublishResponse>("3", false, "403:/orvale/a/b:Forbidden"));
    EXPECT_EQ(failureText(refused), "Bayeux message 3 failed, error: 403:/orvale/a/b:Forbidden");
    EXPECT_TRUE(capture.contains(
        "Error publishing on /a/b, Bayeux message 3 failed, error: 403:/orvale/a/b:Forbidden"));
}

// Every way a publish can fail leaves one error line on the module logger, written before the
// caller's future resolves, and fails the future with the same text.
TEST_F(ClientTest, PublishFailuresAreLoggedBeforeTheyResolve) {
    orvale::test::LogCapture capture;
    auto client = make();
    connect(client);
    auto loggedFirst = [&](Future<PublishResult>& future, const std::string& line) {
        return future.then([&capture, line](Future<PublishResult>&& done) {
            const bool logged = capture.count(line) == 1;
            done.get();
            return logged;
        });
    };
    auto expectLine = [&](const std::string& line) {
        const auto found = capture.find(line);
        ASSERT_EQ(found.size(), 1u) << line;
        EXPECT_EQ(found[0].channel, "connector::message_service");
        EXPECT_EQ(found[0].severity, foundation::log::error);
    };

    // An answer of another type.
    auto mistyped = client->publish("/a/b", "1");
    const std::string mistypedLine =
        "Error publishing on /a/b, Incorrect response message type, id: 2";
    auto mistypedOrder = loggedFirst(mistyped, mistypedLine);
    answer<bx::SubscribeResponse>(2);
    EXPECT_EQ(failureText(mistypedOrder), "Incorrect response message type, id: 2");
    expectLine(mistypedLine);

    // The end of the connection fails every publish still waiting, each with its own channel.
    auto first = client->publish("/c", "1");
    auto second = client->publish("/d/e", "2");
    ASSERT_TRUE(transport->waitSent(5));
    transport->close();
    EXPECT_EQ(failureText(first), "Connection to ws://test/bayeux closed");
    EXPECT_EQ(failureText(second), "Connection to ws://test/bayeux closed");
    expectLine("Error publishing on /c, Connection to ws://test/bayeux closed");
    expectLine("Error publishing on /d/e, Connection to ws://test/bayeux closed");

    // A service destroyed with a publish unanswered.
    connect(client);
    const std::size_t sent = transport->sentCount();
    auto orphan = client->publish("/f", "3");
    ASSERT_TRUE(transport->waitSent(sent + 1));
    const std::string orphanLine =
        "Error publishing on /f, Promise destroyed before it provided a value.";
    auto orphanOrder = loggedFirst(orphan, orphanLine);
    client.reset();
    EXPECT_EQ(failureText(orphanOrder), "Promise destroyed before it provided a value.");
    expectLine(orphanLine);
}

TEST_F(ClientTest, WildcardDeliveryFollowsSubscribeAndUnsubscribe) {
    auto client = make();
    connect(client);
    std::vector<std::string> seen;
    auto record = [&seen](const std::string& tag) {
        return [&seen, tag](const JsonMessage&) { seen.push_back(tag); };
    };
    auto subscribe = [&](const std::string& pattern, const std::string& tag) {
        const std::size_t index = transport->sentCount();
        auto pending = client->subscribe(pattern, record(tag));
        answer<bx::SubscribeResponse>(index);
        return pending.get();
    };
    auto unsubscribe = [&](const std::shared_ptr<Subscription>& handle) {
        const std::size_t index = transport->sentCount();
        auto cancelled = handle->unsubscribe();
        answer<bx::UnsubscribeResponse>(index);
        EXPECT_TRUE(cancelled.get().success);
    };
    auto deliveredTo = [&](const std::string& wire) {
        seen.clear();
        transport->reply(delivery(wire, "1"));
        return seen;
    };
    using Tags = std::vector<std::string>;

    auto exact = subscribe("/a/b", "exact");
    EXPECT_EQ(deliveredTo("/orvale/a/b"), Tags{"exact"});
    auto one = subscribe("/a/*", "one");
    auto deep = subscribe("/a/**", "deep");
    EXPECT_EQ(deliveredTo("/orvale/a/b"), (Tags{"one", "deep", "exact"}));
    unsubscribe(one);
    EXPECT_EQ(deliveredTo("/orvale/a/b"), (Tags{"deep", "exact"}));
    EXPECT_EQ(deliveredTo("/orvale/a/b/c"), Tags{"deep"});
    unsubscribe(deep);
    EXPECT_EQ(deliveredTo("/orvale/a/b/c"), Tags{});
    auto root = subscribe("/**", "root");
    EXPECT_EQ(deliveredTo("/orvale/a/b"), (Tags{"root", "exact"}));

    // A disconnect drops every subscription; wildcards made afterwards are matched again.
    auto done = client->disconnect();
    answer<bx::DisconnectResponse>(transport->sentCount() - 1);
    ASSERT_TRUE(done.get().success);
    EXPECT_EQ(deliveredTo("/orvale/a/b"), Tags{});
    connect(client);
    auto again = subscribe("/a/*", "again");
    EXPECT_EQ(deliveredTo("/orvale/a/b"), Tags{"again"});
}

TEST_F(ClientTest, DisconnectStatesAndTheEndOfTheLoop) {
    orvale::test::LogCapture capture;
    auto fresh = make();
    auto nothing = fresh->disconnect();
    ASSERT_TRUE(nothing.waitFor(std::chrono::milliseconds(0)));
    EXPECT_TRUE(nothing.get().success);
    EXPECT_EQ(transport->sentCount(), 0u);

    auto client = make();
    connect(client);
    int calls = 0;
    auto sub = client->subscribe("/a", [&](const JsonMessage&) { ++calls; });
    answer<bx::SubscribeResponse>(2);
    std::vector<std::pair<ConnectionState, ConnectionState>> events;
    auto listener = client
                        ->listenStateChange([&](const StateChangeEvent& e) {
                            events.emplace_back(e.previousState, e.newState);
                        })
                        .get();
    auto done = client->disconnect();
    ASSERT_TRUE(transport->waitSent(4));
    const auto* request = transport->sent<bx::DisconnectRequest>(3);
    ASSERT_NE(request, nullptr);
    EXPECT_EQ(request->getClientId(), "abc");
    EXPECT_TRUE(capture.contains("Disconnecting from: ws://test/bayeux, abc"));
    transport->reply(delivery("/orvale/a", "1"));
    EXPECT_EQ(calls, 0) << "the subscriptions are gone before the answer";
    answer<bx::DisconnectResponse>(3);
    EXPECT_TRUE(done.get().success);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0],
              std::make_pair(ConnectionState::CONNECTED, ConnectionState::DISCONNECTING));
    EXPECT_EQ(events[1],
              std::make_pair(ConnectionState::DISCONNECTING, ConnectionState::DISCONNECTED));
    // The outstanding meta connect's answer does not start a new one.
    answer<bx::ConnectStreamResponse>(1);
    EXPECT_TRUE(capture.contains("Not connected, not sending meta connect request"));
    EXPECT_EQ(transport->sentCount(), 4u);
}

TEST_F(ClientTest, ClosedTransportFailsPendingRequestsAndDisconnects) {
    auto client = make();
    connect(client);
    auto pending = client->publish("/a", "1");
    ASSERT_TRUE(transport->waitSent(3));
    transport->close();
    EXPECT_EQ(failureText(pending), "Connection to ws://test/bayeux closed");
    EXPECT_EQ(client->getState(), ConnectionState::DISCONNECTED);
    auto after = client->disconnect();
    EXPECT_TRUE(after.get().success);
    // A new connect opens a new transport and handshakes anew.
    connect(client);
    EXPECT_EQ(transport->connects(), 2);
    EXPECT_EQ(client->getState(), ConnectionState::CONNECTED);
}

TEST_F(ClientTest, ReconnectingReplacesAnOpenTransport) {
    auto client = make();
    connect(client);
    auto done = client->disconnect();
    answer<bx::DisconnectResponse>(2);
    ASSERT_TRUE(done.get().success);
    // The first transport is still open; connecting again replaces it without deadlocking.
    connect(client);
    EXPECT_EQ(transport->connects(), 2);
    EXPECT_EQ(client->getState(), ConnectionState::CONNECTED);
}

TEST_F(ClientTest, CancellingAListenerThatHoldsAHandleOfTheSameService) {
    auto client = make();
    connect(client);
    auto pending = client->subscribe("/a", [](const JsonMessage&) {});
    answer<bx::SubscribeResponse>(2);
    std::shared_ptr<Subscription> channel = pending.get();
    // The listener owns the only reference to the channel handle: cancelling the listener
    // destroys it, which cancels the channel subscription through the same service.
    auto listener = client->listenStateChange([channel](const StateChangeEvent&) {}).get();
    channel.reset();
    listener->unsubscribe();
    ASSERT_TRUE(transport->waitSent(4));
    EXPECT_NE(transport->sent<bx::UnsubscribeRequest>(3), nullptr);
}

TEST_F(ClientTest, StateListenersCancelAndThrowSafely) {
    orvale::test::LogCapture capture;
    auto client = make();
    int calls = 0;
    auto thrower =
        client->listenStateChange([](const StateChangeEvent&) { throw std::runtime_error("x"); })
            .get();
    auto counted = client->listenStateChange([&](const StateChangeEvent&) { ++calls; }).get();
    connect(client);
    EXPECT_EQ(calls, 2);
    EXPECT_TRUE(
        capture.contains("Error executing state change listener: DISCONNECTED->CONNECTING, x"));
    counted->unsubscribe().get();
    client->disconnect();
    EXPECT_EQ(calls, 2);
}

TEST_F(ClientTest, DestroyingAConnectedClientSendsADisconnect) {
    orvale::test::LogCapture capture;
    auto client = make();
    connect(client);
    ASSERT_TRUE(transport->waitSent(2));
    client.reset();
    EXPECT_TRUE(capture.contains("Destructing message service server instance"));
    ASSERT_TRUE(transport->waitSent(3));
    EXPECT_NE(transport->sent<bx::DisconnectRequest>(2), nullptr);
}

}  // namespace
}  // namespace connector::message_service
