// Client services created through the delegator, with reconnection on, against a hub in this
// process that stops and starts again on the same port.

#include <gtest/gtest.h>

#include "connector/bayeux/endpoint.h"
#include "connector/message_service.h"
#include "inbox.h"
#include "log_capture.h"

namespace connector::message_service {
namespace {

using orvale::test::Inbox;
using orvale::test::waitUntil;
using namespace std::chrono_literals;

TEST(ClientServices, SubscriptionsResumeWhenTheHubComesBackOnItsPort) {
    // Before the delegator, so that deliveries still running at teardown find them.
    Inbox inbox, states;
    orvale::test::LogCapture capture;
    bayeux::EndpointOptions options;
    auto hub = bayeux::startBayeuxEndpoint(bayeux::makeBayeuxServer(), options);
    options.port = hub->port();
    auto delegator = std::make_shared<MessageServiceFactoryDelegatorImpl>(
        std::make_shared<MessageServiceFactoryServerDelegate>(bayeux::makeBayeuxServer()),
        std::make_shared<MessageServiceFactoryClientDelegate>(makeContext()));
    auto reaches = [](const std::shared_ptr<MessageService>& service, ConnectionState state) {
        return waitUntil([&] { return service->getState() == state; }, 10s);
    };
    auto created = delegator->createMessageService(
        "c", {{"endpoint", "ws://127.0.0.1:" + std::to_string(options.port) + "/bayeux"},
              {"reconnect", "on"},
              {"reconnect.initialDelayMs", "20"},
              {"reconnect.maxDelayMs", "100"}});
    ASSERT_TRUE(created.waitFor(10s));
    auto client = created.get();
    auto listener = client->listenStateChange(states.stateSink()).get();
    auto exact = client->subscribe("/r/a", inbox.sink()).get();
    auto wild = client->subscribe("/r/*", inbox.sink()).get();

    hub->stop();
    ASSERT_TRUE(reaches(client, ConnectionState::RECONNECTING));
    // Attempts against the closed port fail and are retried.
    ASSERT_TRUE(waitUntil([&] { return capture.count("Reconnect attempt failed: ") >= 2; }));
    hub = bayeux::startBayeuxEndpoint(bayeux::makeBayeuxServer(), options);
    ASSERT_TRUE(reaches(client, ConnectionState::CONNECTED));
    ASSERT_TRUE(client->publish("/r/a", "1").get().success);
    ASSERT_TRUE(waitUntil([&] { return inbox.size() == 2; }));
    // The handles made before the restart still cancel.
    exact->unsubscribe().get();
    ASSERT_TRUE(client->publish("/r/a", "2").get().success);
    ASSERT_TRUE(waitUntil([&] { return inbox.size() == 3; }));
    EXPECT_EQ(inbox.snapshot(), (std::vector<std::string>{"/r/a 1", "/r/a 1", "/r/a 2"}));
    EXPECT_EQ(states.snapshot(),
              (std::vector<std::string>{"CONNECTED->RECONNECTING", "RECONNECTING->CONNECTED"}));

    // Stopped again, a disconnect ends the reconnection at once.
    hub->stop();
    ASSERT_TRUE(reaches(client, ConnectionState::RECONNECTING));
    auto done = client->disconnect();
    ASSERT_TRUE(done.waitFor(0ms));
    EXPECT_EQ(client->getState(), ConnectionState::DISCONNECTED);
}

}  // namespace
}  // namespace connector::message_service
