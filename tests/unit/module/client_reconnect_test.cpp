// Reconnection of the client service over a scripted transport.

#include <set>

#include "client_fixture.h"

namespace connector::message_service {
namespace {

// Reconnection, its waits drawn and scheduled by the test: each wait is noted, and fire() runs
// the one scheduled last.
struct ReconnectTest : ClientTest {
    std::shared_ptr<MessageServiceClientImpl> make() {
        auto client = ClientTest::make({{"endpoint", "ws://test/bayeux"},
                                        {"reconnect", "on"},
                                        {"reconnect.initialDelayMs", "100"},
                                        {"reconnect.maxDelayMs", "400"}});
        auto schedule = [this](std::function<void()> fn, std::chrono::milliseconds wait) {
            waits.push_back(wait.count());
            next = std::move(fn);
            return common::TickManager::Canceller();
        };
        auto draw = [this](std::chrono::milliseconds ceiling) { return ceiling * drawn / 100; };
        client->setReconnectClock({schedule, draw});
        return client;
    }
    bool fire() {
        auto fn = std::exchange(next, nullptr);
        return fn ? (fn(), true) : false;
    }

    std::vector<std::int64_t> waits;
    std::function<void()> next;
    int drawn = 100;  // the share of the ceiling each wait takes, in percent
};

// A handle cancelled while its channel is subscribed again is dropped once the server has made
// it; a disconnect or the client's end calls off a reconnection.
TEST_F(ReconnectTest, BackoffDoublesToItsCeilingAndSubscriptionsResume) {
    for (Options bad :
         {Options{{"reconnect", "yes"}}, Options{{"reconnect.maxDelayMs", "0"}},
          Options{{"reconnect.initialDelayMs", "9"}, {"reconnect.maxDelayMs", "8"}}}) {
        bad["endpoint"] = "ws://test/bayeux";
        EXPECT_THROW(ClientTest::make(bad), std::invalid_argument);
    }
    auto client = make();
    auto listener = watch(client);
    connect(client);
    auto a = subscribed(client, "/a", "a");
    auto w = subscribed(client, "/w/*", "w");
    transport->close();
    EXPECT_EQ(client->getState(), ConnectionState::RECONNECTING);
    EXPECT_EQ(failureText(client->publish("/a", "1")),
              "MessageService is reconnecting: publish again once it is connected.");
    std::make_shared<ScriptedTransport>()->install(*context, "refused");
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(fire());
    EXPECT_EQ(waits, (std::vector<std::int64_t>{100, 200, 400, 400, 400}));
    EXPECT_EQ(capture.count("Reconnect attempt failed: refused"), 4u);

    transport->install(*context);
    const std::size_t at = transport->sentCount();
    ASSERT_TRUE(fire());
    handshakeAt(at, "def");
    ASSERT_TRUE(transport->waitSent(at + 3));
    std::set<std::string> channels;
    for (std::size_t i = at + 1; i < at + 3; ++i) {
        channels.insert(transport->sent<bx::SubscribeRequest>(i)->getChannel());
        EXPECT_EQ(transport->sent<bx::SubscribeRequest>(i)->getClientId(), "def");
    }
    EXPECT_EQ(channels, (std::set<std::string>{"/orvale/a", "/orvale/w/*"}));
    a->unsubscribe();
    EXPECT_EQ(transport->sentCount(), at + 3);
    answer<bx::SubscribeResponse>(at + 1);
    EXPECT_EQ(client->getState(), ConnectionState::RECONNECTING) << "until both are answered";
    answer<bx::SubscribeResponse>(at + 2);
    EXPECT_EQ(client->getState(), ConnectionState::CONNECTED);
    ASSERT_TRUE(transport->waitSent(at + 5));
    const auto unsubscribe = transport->sent<bx::UnsubscribeRequest>(at + 3);
    ASSERT_TRUE(unsubscribe);
    EXPECT_EQ(unsubscribe->getChannel(), "/orvale/a");
    EXPECT_EQ(unsubscribe->getClientId(), "def");
    EXPECT_EQ(transport->sent<bx::ConnectRequest>(at + 4)->getClientId(), "def");
    EXPECT_EQ(states.snapshot(), (Strings{"DISCONNECTED->CONNECTING", "CONNECTING->CONNECTED",
                                          "CONNECTED->RECONNECTING", "RECONNECTING->CONNECTED"}));
    EXPECT_EQ(deliveredTo("/orvale/w/x"), Strings{"w /w/x 1"});

    // Connected again, the backoff starts over once a meta connect is answered, not before: a
    // server that takes handshakes and drops what follows meets the grown waits. A wait is drawn
    // below its ceiling.
    drawn = 50;
    std::size_t metaConnect = at + 4;
    for (const bool answered : {false, true}) {
        waits.clear();
        if (answered)
            answer<bx::ConnectStreamResponse>(metaConnect);
        transport->close();
        EXPECT_EQ(waits, std::vector<std::int64_t>{answered ? 50 : 200}) << answered;
        if (!answered) {
            const std::size_t again = transport->sentCount();
            ASSERT_TRUE(fire());
            handshakeAt(again, "def");
            answer<bx::SubscribeResponse>(again + 1);
            ASSERT_EQ(client->getState(), ConnectionState::CONNECTED);
            metaConnect = again + 2;
        }
    }

    auto done = client->disconnect();
    ASSERT_TRUE(done.waitFor(std::chrono::milliseconds(0)));
    EXPECT_TRUE(done.get().success);
    EXPECT_EQ(states.snapshot(), (Strings{"DISCONNECTED->CONNECTING", "CONNECTING->CONNECTED",
                                          "CONNECTED->RECONNECTING", "RECONNECTING->CONNECTED",
                                          "CONNECTED->RECONNECTING", "RECONNECTING->CONNECTED",
                                          "CONNECTED->RECONNECTING", "RECONNECTING->DISCONNECTING",
                                          "DISCONNECTING->DISCONNECTED"}));
    EXPECT_FALSE(fire() && transport->connects() > 3) << "the attempt was called off";
    EXPECT_EQ(transport->connects(), 3);

    // Destroyed while an attempt waits for its handshake: the answer finds nothing to resume.
    auto other = make();
    connect(other);
    transport->close();
    ASSERT_TRUE(fire());
    ASSERT_EQ(transport->connects(), 5);
    const std::size_t sent = transport->sentCount();
    other.reset();
    handshakeAt(sent - 1, "def");
    EXPECT_EQ(transport->sentCount(), sent);
}

// How a connection ends decides whether the client comes back.
TEST_F(ReconnectTest, TheServersAnswerDecidesWhetherItComesBack) {
    using S = ConnectionState;
    const char* k402 = "402::Unknown client";
    const bx::Advice handshake{"handshake", 0, -1}, none{"none", 0, -1};
    struct Case {
        const char* error;  // of the meta connect; empty: it succeeds
        bx::Advice advice;
        std::vector<std::int64_t> waits;
        const char* refusal;  // of the handshake that follows, if any
        S state;
    } cases[] = {
        {k402, handshake, {100}, "", S::CONNECTED},
        {k402, {"handshake", 250, -1}, {250}, "", S::CONNECTED},  // above the backoff's ceiling
        {"", handshake, {100}, "", S::CONNECTED},
        {k402, none, {}, "", S::DISCONNECTED},
        {"", none, {}, "", S::DISCONNECTED},
        {k402, handshake, {100}, "403::Unauthorized", S::DISCONNECTED},
        {k402, handshake, {100}, "401::Token expired", S::DISCONNECTED},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.error) + " " + c.advice.reconnect + " " + c.refusal);
        waits.clear();
        transport = std::make_shared<ScriptedTransport>();
        transport->install(*context);
        auto client = make();
        connect(client);
        auto a = subscribed(client, "/a", "a");
        auto reply = response<bx::ConnectStreamResponse>("1", !*c.error, c.error);
        reply->setAdvice(c.advice);
        transport->reply(std::move(reply));
        EXPECT_EQ(waits, c.waits);
        if (fire()) {
            handshakeAt(3, "def", c.refusal);
            if (!*c.refusal)
                answer<bx::SubscribeResponse>(4);
            EXPECT_EQ(waits.size(), 1u) << "no attempt after a refusal";
        }
        EXPECT_EQ(client->getState(), c.state);
        EXPECT_EQ(deliveredTo("/orvale/a").size(), c.state == S::CONNECTED ? 1u : 0u);
    }
}

}  // namespace
}  // namespace connector::message_service
