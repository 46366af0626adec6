// Client services made by the delegator against a real Faye server.

#include <gtest/gtest.h>
#include <signal.h>

#include <map>

#include "child_process.h"
#include "connector/message_service.h"
#include "inbox.h"
#include "log_capture.h"

namespace connector::message_service {
namespace {

using orvale::test::Inbox;
using orvale::test::waitUntil;
using namespace std::chrono_literals;

class ClientServiceWithFaye : public ::testing::Test {
  protected:
    void SetUp() override {
        ORVALE_REQUIRE_NODE();
        faye = orvale::test::startNode("faye_server.js", {"--timeout", "1"});
        endpoint = "ws://127.0.0.1:" + *faye->firstLine(0s) + "/bayeux";
    }

    std::shared_ptr<MessageService> create(const std::string& name) {
        auto future = delegator->createMessageService(name, {{"endpoint", endpoint}});
        if (!future.waitFor(10s))
            throw std::runtime_error("creating " + name + " timed out");
        return future.get();
    }

    std::unique_ptr<orvale::test::ChildProcess> faye;
    std::string endpoint;
    std::shared_ptr<Context> context = makeContext();
    std::shared_ptr<MessageServiceFactoryDelegatorImpl> delegator =
        std::make_shared<MessageServiceFactoryDelegatorImpl>(
            std::make_shared<MessageServiceFactoryServerDelegate>(bayeux::makeBayeuxServer()),
            std::make_shared<MessageServiceFactoryClientDelegate>(context));
};

TEST_F(ClientServiceWithFaye, HandshakesAndKeepsTheConnectLoopTurning) {
    orvale::test::LogCapture capture;
    auto service = create("alice");
    EXPECT_EQ(service->getState(), ConnectionState::CONNECTED);
    auto client = std::dynamic_pointer_cast<MessageServiceClientImpl>(service);
    ASSERT_TRUE(client);
    EXPECT_NE(client->getId(), "unset");
    EXPECT_EQ(delegator->getMessageService("alice"), service);
    // Faye answers each connect after its one-second timeout; the loop sends the next one.
    EXPECT_TRUE(waitUntil([&] { return capture.count("Sending meta connect") >= 3; }, 5s));
    EXPECT_EQ(capture.count("Meta connect error: "), 0u);
}

TEST_F(ClientServiceWithFaye, ExactAndWildcardSubscriptionsBetweenTwoServices) {
    auto alice = create("alice");
    auto bob = create("bob");
    Inbox exact, one, deep;
    auto s1 = bob->subscribe("/room/a", exact.sink()).get();
    auto s2 = bob->subscribe("/room/*", one.sink()).get();
    auto s3 = bob->subscribe("/room/**", deep.sink()).get();

    EXPECT_TRUE(alice->publish("/room/a", "{\"n\":1}").get().success);
    EXPECT_TRUE(alice->publish("/room/a/b", "[2]").get().success);
    EXPECT_TRUE(alice->publish("/elsewhere", "3").get().success);
    ASSERT_TRUE(waitUntil([&] { return deep.size() == 2; }));
    EXPECT_EQ(deep.snapshot(), (std::vector<std::string>{"/room/a {\"n\":1}", "/room/a/b [2]"}));
    EXPECT_EQ(exact.snapshot(), (std::vector<std::string>{"/room/a {\"n\":1}"}));
    // The server sends /room/a/b once, for the /** subscription; locally a single-star key also
    // takes every channel below its prefix.
    ASSERT_TRUE(waitUntil([&] { return one.size() == 2; }));
    EXPECT_EQ(one.snapshot()[1], "/room/a/b [2]");

    // Unsubscribing stops that subscription; a marker on another shows the later message went by.
    s1->unsubscribe().get();
    alice->publish("/room/a", "4").get();
    ASSERT_TRUE(waitUntil([&] { return deep.size() == 3; }));
    EXPECT_EQ(exact.size(), 1u);
}

TEST_F(ClientServiceWithFaye, DisconnectEndsTheSession) {
    auto service = create("alice");
    std::mutex mutex;
    std::vector<ConnectionState> states;
    auto listener = service
                        ->listenStateChange([&](const StateChangeEvent& e) {
                            std::lock_guard<std::mutex> lock(mutex);
                            states.push_back(e.newState);
                        })
                        .get();
    auto done = service->disconnect();
    ASSERT_TRUE(done.waitFor(5s));
    EXPECT_TRUE(done.get().success);
    EXPECT_EQ(service->getState(), ConnectionState::DISCONNECTED);
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(states, (std::vector<ConnectionState>{ConnectionState::DISCONNECTING,
                                                    ConnectionState::DISCONNECTED}));
    auto refused = service->publish("/a", "1");
    EXPECT_THROW(refused.get(), std::runtime_error);
}

TEST_F(ClientServiceWithFaye, ServerKilledMidSessionDisconnectsAndFailsPendingRequests) {
    auto service = create("alice");
    Inbox inbox;
    auto sub = service->subscribe("/a", inbox.sink()).get();
    faye->kill(SIGKILL);
    ASSERT_TRUE(
        waitUntil([&] { return service->getState() == ConnectionState::DISCONNECTED; }, 5s));
    auto publish = service->publish("/a", "1");
    ASSERT_TRUE(publish.waitFor(5s));
    EXPECT_THROW(publish.get(), std::runtime_error);
    auto done = service->disconnect();
    ASSERT_TRUE(done.waitFor(1s));
}

TEST(ClientServiceConnect, RefusedConnectionFailsTheCreateFutureWithTheUrl) {
    auto delegator = std::make_shared<MessageServiceFactoryDelegatorImpl>(
        std::make_shared<MessageServiceFactoryServerDelegate>(bayeux::makeBayeuxServer()),
        std::make_shared<MessageServiceFactoryClientDelegate>(makeContext()));
    // Port 1 on loopback: nothing listens there.
    auto future = delegator->createMessageService("c", {{"endpoint", "ws://127.0.0.1:1/bayeux"}});
    ASSERT_TRUE(future.waitFor(15s));
    try {
        future.get();
        FAIL() << "connected to a closed port";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("ws://127.0.0.1:1/bayeux"), std::string::npos)
            << e.what();
    }
    EXPECT_EQ(delegator->getMessageService("c"), nullptr);
}

}  // namespace
}  // namespace connector::message_service
