// Reconnection of the client service over a scripted transport.

#include <set>

#include "client_fixture.h"

namespace connector::message_service {
namespace {

// Reconnection, its waits drawn and scheduled by the test: each wait is noted, and fire() runs
// the one scheduled last.
class ReconnectTest : public ClientTest {
  protected:
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
    // Answers the handshake sent at `index` as the session "def".
    void handshakeAt(std::size_t index, bool successful = true, const std::string& error = {}) {
        ASSERT_TRUE(transport->waitSent(index + 1));
        auto reply = response<bx::HandshakeResponse>(
            transport->sent<bx::HandshakeRequest>(index)->getId(), successful, error);
        reply->setClientId("def");
        transport->reply(std::move(reply));
    }

    std::vector<std::int64_t> waits;
    std::function<void()> next;
    int drawn = 100;  // the share of the ceiling each wait takes, in percent
};

TEST_F(ReconnectTest, BackoffDoublesToItsCeilingAndSubscriptionsResume) {
    auto client = make();
    auto listener = watch(client);
    connect(client);
    auto a = subscribed(client, "/a", "a");
    auto w = subscribed(client, "/w/*", "w");
    transport->close();
    EXPECT_EQ(client->getState(), ConnectionState::RECONNECTING);
    EXPECT_EQ(failureText(client->publish("/a", "1")),
              "MessageService is reconnecting: publish again once it is connected.");
    auto refusing = std::make_shared<ScriptedTransport>();
    refusing->install(*context, "refused");
    for (int i = 0; i < 4; ++i)
        ASSERT_TRUE(fire());
    EXPECT_EQ(waits, (std::vector<std::int64_t>{100, 200, 400, 400, 400}));
    EXPECT_EQ(capture.count("Reconnect attempt failed: refused"), 4u);

    transport->install(*context);
    const std::size_t at = transport->sentCount();
    ASSERT_TRUE(fire());
    handshakeAt(at);
    ASSERT_TRUE(transport->waitSent(at + 3));
    std::set<std::string> channels;
    for (std::size_t i = at + 1; i < at + 3; ++i) {
        channels.insert(transport->sent<bx::SubscribeRequest>(i)->getChannel());
        EXPECT_EQ(transport->sent<bx::SubscribeRequest>(i)->getClientId(), "def");
    }
    EXPECT_EQ(channels, (std::set<std::string>{"/orvale/a", "/orvale/w/*"}));
    answer<bx::SubscribeResponse>(at + 1);
    EXPECT_EQ(client->getState(), ConnectionState::RECONNECTING) << "until both are answered";
    answer<bx::SubscribeResponse>(at + 2);
    EXPECT_EQ(client->getState(), ConnectionState::CONNECTED);
    ASSERT_TRUE(transport->waitSent(at + 4));
    EXPECT_EQ(transport->sent<bx::ConnectRequest>(at + 3)->getClientId(), "def");
    EXPECT_EQ(states.snapshot(), (Strings{"DISCONNECTED->CONNECTING", "CONNECTING->CONNECTED",
                                          "CONNECTED->RECONNECTING", "RECONNECTING->CONNECTED"}));
    EXPECT_EQ(deliveredTo("/orvale/w/x"), Strings{"w /w/x 1"});
    // The handle made before the loss cancels on the new session.
    a->unsubscribe();
    ASSERT_TRUE(transport->waitSent(at + 5));
    EXPECT_EQ(transport->sent<bx::UnsubscribeRequest>(at + 4)->getClientId(), "def");

    // Connected again, the backoff starts over; the wait is drawn below its ceiling.
    waits.clear();
    drawn = 50;
    transport->close();
    EXPECT_EQ(waits, std::vector<std::int64_t>{50});
}

// How a connection ends decides whether the client comes back.
TEST_F(ReconnectTest, TheServersAnswerDecidesWhetherItComesBack) {
    auto failedConnect = [](const std::string& error, bx::Advice advice) {
        return [=](ScriptedTransport& t) {
            auto reply = response<bx::ConnectStreamResponse>("1", error.empty(), error);
            reply->setAdvice(advice);
            t.reply(std::move(reply));
        };
    };
    struct Case {
        const char* what;
        std::function<void(ScriptedTransport&)> end;
        std::vector<std::int64_t> waits;
        ConnectionState state;  // after the first attempt, if any
        const char* handshakeError = "";
    } cases[] = {
        {"402 asking for a handshake",
         failedConnect("402::Unknown client", {"handshake", 0, -1}),
         {100},
         ConnectionState::CONNECTED},
        {"an interval above the backoff",
         failedConnect("402::Unknown client", {"handshake", 250, -1}),
         {250},
         ConnectionState::CONNECTED},
        {"a success asking for a handshake",
         failedConnect("", {"handshake", 0, -1}),
         {100},
         ConnectionState::CONNECTED},
        {"advice none",
         failedConnect("402::Unknown client", {"none", 0, -1}),
         {},
         ConnectionState::DISCONNECTED},
        {"a success advising none",
         failedConnect("", {"none", 0, -1}),
         {},
         ConnectionState::DISCONNECTED},
        {"a handshake refused as 403",
         failedConnect("402::Unknown client", {"handshake", 0, -1}),
         {100},
         ConnectionState::DISCONNECTED,
         "403::Unauthorized"},
        {"a handshake refused as 401",
         [](ScriptedTransport& t) { t.close(); },
         {100},
         ConnectionState::DISCONNECTED,
         "401::Token expired"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        waits.clear();
        transport = std::make_shared<ScriptedTransport>();
        transport->install(*context);
        auto client = make();
        connect(client);
        auto a = subscribed(client, "/a", "a");
        ASSERT_TRUE(transport->waitSent(3));
        c.end(*transport);
        EXPECT_EQ(waits, c.waits);
        if (fire()) {
            const bool refused = *c.handshakeError != 0;
            handshakeAt(3, !refused, c.handshakeError);
            if (!refused)
                answer<bx::SubscribeResponse>(4);
            EXPECT_EQ(waits.size(), 1u) << "no attempt after a refusal";
        }
        EXPECT_EQ(client->getState(), c.state);
        EXPECT_EQ(deliveredTo("/orvale/a").size(), c.state == ConnectionState::CONNECTED ? 1u : 0u);
    }
}

TEST_F(ReconnectTest, DisconnectAndDestructionEndAReconnection) {
    auto client = make();
    connect(client);
    auto a = subscribed(client, "/a", "a");
    auto listener = watch(client);
    transport->close();
    auto done = client->disconnect();
    ASSERT_TRUE(done.waitFor(std::chrono::milliseconds(0)));
    EXPECT_TRUE(done.get().success);
    EXPECT_EQ(states.snapshot(), (Strings{"CONNECTED->RECONNECTING", "RECONNECTING->DISCONNECTING",
                                          "DISCONNECTING->DISCONNECTED"}));
    EXPECT_FALSE(fire() && transport->connects() > 1) << "the attempt was called off";
    EXPECT_EQ(transport->connects(), 1);

    // Destroyed while an attempt waits for its handshake: the answer finds nothing to resume.
    auto other = make();
    connect(other);
    transport->close();
    ASSERT_TRUE(fire());
    ASSERT_EQ(transport->connects(), 3);
    const std::size_t sent = transport->sentCount();
    other.reset();
    handshakeAt(sent - 1);
    EXPECT_EQ(transport->sentCount(), sent);
}

}  // namespace
}  // namespace connector::message_service
