// Client services made by the delegator against real Faye servers, alone and two sharing a
// Redis engine.

#include <gtest/gtest.h>

#include "child_process.h"
#include "connector/message_service.h"
#include "inbox.h"
#include "log_capture.h"

namespace connector::message_service {
namespace {

using orvale::test::Inbox;
using orvale::test::waitUntil;
using namespace std::chrono_literals;

std::shared_ptr<MessageServiceFactoryDelegatorImpl> makeDelegator() {
    return std::make_shared<MessageServiceFactoryDelegatorImpl>(
        std::make_shared<MessageServiceFactoryServerDelegate>(bayeux::makeBayeuxServer()),
        std::make_shared<MessageServiceFactoryClientDelegate>(makeContext()));
}

class ClientServiceWithFaye : public ::testing::Test {
  protected:
    void SetUp() override { ORVALE_REQUIRE_NODE(); }

    // Starts a Faye server and returns its endpoint.
    std::string startFaye(std::vector<std::string> args = {"--timeout", "1"}) {
        fayes.push_back(orvale::test::startNode("faye_server.js", std::move(args)));
        return "ws://127.0.0.1:" + *fayes.back()->firstLine(0s) + "/bayeux";
    }
    std::shared_ptr<MessageService> create(const std::string& name, const std::string& endpoint,
                                           Options options = {}) {
        options["endpoint"] = endpoint;
        auto future = delegator->createMessageService(name, options);
        if (!future.waitFor(10s))
            throw std::runtime_error("creating " + name + " timed out");
        return future.get();
    }

    std::vector<std::unique_ptr<orvale::test::ChildProcess>> fayes;
    std::shared_ptr<MessageServiceFactoryDelegatorImpl> delegator = makeDelegator();
};

TEST_F(ClientServiceWithFaye, HandshakesKeepsTheConnectLoopTurningAndDisconnects) {
    orvale::test::LogCapture capture;
    auto service = create("alice", startFaye());
    EXPECT_EQ(service->getState(), ConnectionState::CONNECTED);
    EXPECT_NE(std::dynamic_pointer_cast<MessageServiceClientImpl>(service)->getId(), "unset");
    EXPECT_EQ(delegator->getMessageService("alice"), service);
    // Faye answers each connect after its one-second timeout; the loop sends the next one.
    EXPECT_TRUE(waitUntil([&] { return capture.count("Sending meta connect") >= 3; }));
    EXPECT_EQ(capture.count("Meta connect error: "), 0u);

    Inbox states;
    auto listener = service->listenStateChange(states.stateSink()).get();
    auto done = service->disconnect();
    ASSERT_TRUE(done.waitFor(5s));
    EXPECT_TRUE(done.get().success);
    EXPECT_EQ(service->getState(), ConnectionState::DISCONNECTED);
    EXPECT_EQ(states.snapshot(), (std::vector<std::string>{"CONNECTED->DISCONNECTING",
                                                           "DISCONNECTING->DISCONNECTED"}));
    EXPECT_THROW(service->publish("/a", "1").get(), std::runtime_error);
}

// Two Faye servers share a Redis engine: what a service on one publishes reaches exact and
// wildcard subscribers on the other, and its own wildcard through its own server.
TEST_F(ClientServiceWithFaye, SubscriptionsAcrossTwoServersSharingRedis) {
    char dir[] = "/tmp/orvale-redis-XXXXXX";
    ASSERT_TRUE(::mkdtemp(dir));
    const std::string socket = std::string(dir) + "/redis.sock";
    orvale::test::ChildProcess redis({"redis-server", "--port", "0", "--unixsocket", socket,
                                      "--save", "", "--appendonly", "no"});
    struct stat info;
    ASSERT_TRUE(waitUntil([&] { return ::stat(socket.c_str(), &info) == 0; }, 10s))
        << redis.errors();
    auto alice = create("alice", startFaye({"--redis-socket", socket}));
    auto bob = create("bob", startFaye({"--redis-socket", socket}));
    Inbox exact, one, deep, own;
    auto s1 = bob->subscribe("/room/a", exact.sink()).get();
    auto s2 = bob->subscribe("/room/*", one.sink()).get();
    auto s3 = bob->subscribe("/room/**", deep.sink()).get();
    auto s4 = alice->subscribe("/room/*", own.sink()).get();

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
    ASSERT_TRUE(waitUntil([&] { return own.size() == 1; }));
    EXPECT_EQ(own.snapshot()[0], "/room/a {\"n\":1}");

    // Unsubscribing stops that subscription; a marker on another shows the later message went by.
    s1->unsubscribe().get();
    bob->publish("/room/a", "4").get();
    ASSERT_TRUE(waitUntil([&] { return deep.size() == 3; }));
    EXPECT_EQ(exact.size(), 1u);
    EXPECT_TRUE(waitUntil([&] { return own.size() == 2; }));
    alice->disconnect().waitFor(2s);
    bob->disconnect().waitFor(2s);
    ::unlink(socket.c_str());
    ::rmdir(dir);
}

TEST_F(ClientServiceWithFaye, ServerKilledMidSessionDisconnectsAndFailsPendingRequests) {
    auto service = create("alice", startFaye());
    Inbox inbox;
    auto sub = service->subscribe("/a", inbox.sink()).get();
    fayes[0]->kill(SIGKILL);
    ASSERT_TRUE(waitUntil([&] { return service->getState() == ConnectionState::DISCONNECTED; }));
    auto publish = service->publish("/a", "1");
    ASSERT_TRUE(publish.waitFor(5s));
    EXPECT_THROW(publish.get(), std::runtime_error);
    EXPECT_TRUE(service->disconnect().waitFor(1s));
}

TEST_F(ClientServiceWithFaye, WithReconnectionSubscriptionsResumeOnARestartedServer) {
    const std::string url = startFaye();
    const std::string port = url.substr(url.rfind(':') + 1, url.rfind('/') - url.rfind(':') - 1);
    auto service = create("alice", url, {{"reconnect", "on"}, {"reconnect.maxDelayMs", "200"}});
    Inbox inbox;
    auto sub = service->subscribe("/a", inbox.sink()).get();
    fayes[0]->kill(SIGKILL);
    ASSERT_TRUE(waitUntil([&] { return service->getState() == ConnectionState::RECONNECTING; }));
    startFaye({"--timeout", "1", "--port", port});
    ASSERT_TRUE(waitUntil([&] { return service->getState() == ConnectionState::CONNECTED; }, 10s));
    EXPECT_TRUE(service->publish("/a", "1").get().success);
    EXPECT_TRUE(waitUntil([&] { return inbox.has("/a 1"); }));
    EXPECT_TRUE(service->disconnect().waitFor(5s));
}

TEST(ClientServiceConnect, RefusedConnectionFailsTheCreateFutureWithTheUrl) {
    auto delegator = makeDelegator();
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
