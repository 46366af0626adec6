#include "connector/message_service/server_impl.h"

#include <gtest/gtest.h>

#include <thread>

#include "connector/message_service/server_delegate.h"
#include "failure_text.h"
#include "log_capture.h"

namespace connector::message_service {
namespace {

using orvale::test::failureText;

using bayeux::PublishRequest;
using bayeux::SubscribeRequest;
using bayeux::UnsubscribeRequest;

// Records what a session hands to its server; delivery is driven by the tests themselves.
class RecordingServer : public bayeux::BayeuxServer {
  public:
    void registerSession(std::weak_ptr<bayeux::BayeuxSession>) override { ++registrations; }
    void unregisterSession(const std::shared_ptr<bayeux::BayeuxSession>&) override {
        ++unregistrations;
    }
    void acceptUnsubscribe(std::shared_ptr<const UnsubscribeRequest> r) override {
        std::lock_guard<std::mutex> lock(mutex);
        unsubscribes.push_back(std::move(r));
    }
    void acceptSubscribe(std::shared_ptr<const SubscribeRequest> r) override {
        std::lock_guard<std::mutex> lock(mutex);
        subscribes.push_back(std::move(r));
    }
    void acceptPublish(std::shared_ptr<const PublishRequest> r) override {
        std::lock_guard<std::mutex> lock(mutex);
        publishes.push_back(std::move(r));
    }
    std::atomic<int> registrations{0};
    std::atomic<int> unregistrations{0};
    std::mutex mutex;
    std::vector<std::shared_ptr<const UnsubscribeRequest>> unsubscribes;
    std::vector<std::shared_ptr<const SubscribeRequest>> subscribes;
    std::vector<std::shared_ptr<const PublishRequest>> publishes;
};

std::shared_ptr<const PublishRequest> published(const std::string& wireChannel,
                                                const std::string& json) {
    return std::make_shared<PublishRequest>(wireChannel, common::DataBuffer(json));
}

class ServerImplTest : public ::testing::Test {
  protected:
    std::shared_ptr<MessageServiceServerImpl> make(const std::string& name = "svc") {
        return std::make_shared<MessageServiceServerImpl>(name, server);
    }
    std::shared_ptr<RecordingServer> server = std::make_shared<RecordingServer>();
};

// Two services of one name are two sessions of the server: their ids differ.
TEST_F(ServerImplTest, ConstructionStateAndIds) {
    auto a = make("same");
    auto b = make("same");
    EXPECT_EQ(a->getState(), ConnectionState::CONNECTED);
    EXPECT_NE(a->getId(), b->getId());
    EXPECT_EQ(a->getContext(), nullptr) << "no transport behind a server service";
    EXPECT_THROW(MessageServiceServerImpl("x", nullptr), std::invalid_argument);
}

TEST_F(ServerImplTest, RegistersLazilyOnceAndAgainAfterDisconnect) {
    auto service = make();
    service->publish("/a", "1").get();
    EXPECT_EQ(server->registrations, 0) << "publishing does not register";
    auto s1 = service->subscribe("/a", [](const JsonMessage&) {}).get();
    auto s2 = service->listenSubscribe("/a", [](const SubscribeEvent&) {}).get();
    auto s3 = service->listenUnsubscribe("/a", [](const UnsubscribeEvent&) {}).get();
    EXPECT_EQ(server->registrations, 1);
    service->disconnect().get();
    EXPECT_EQ(server->unregistrations, 1);
    auto s4 = service->subscribe("/b", [](const JsonMessage&) {}).get();
    EXPECT_EQ(server->registrations, 2);
}

TEST_F(ServerImplTest, DisconnectNotifiesTwiceAndUnsubscribesEverySubscription) {
    auto service = make();
    std::vector<std::pair<ConnectionState, ConnectionState>> events;
    auto listener = service
                        ->listenStateChange([&](const StateChangeEvent& e) {
                            events.emplace_back(e.previousState, e.newState);
                        })
                        .get();
    EXPECT_TRUE(events.empty()) << "registering does not call the listener";
    int calls = 0;
    auto a1 = service->subscribe("/a", [&](const JsonMessage&) { ++calls; }).get();
    auto a2 = service->subscribe("/a", [&](const JsonMessage&) { ++calls; }).get();
    auto b = service->subscribe("/b/*", [](const JsonMessage&) {}).get();
    service->deliver({"/orvale/a"}, published("/orvale/a", "0"));
    EXPECT_EQ(calls, 2);
    calls = 0;
    EXPECT_TRUE(service->disconnect().get().success);
    ASSERT_EQ(events.size(), 2u);
    EXPECT_EQ(events[0],
              std::make_pair(ConnectionState::CONNECTED, ConnectionState::DISCONNECTING));
    EXPECT_EQ(events[1],
              std::make_pair(ConnectionState::DISCONNECTING, ConnectionState::DISCONNECTED));
    ASSERT_EQ(server->unsubscribes.size(), 3u);
    int onA = 0;
    for (auto& r : server->unsubscribes) {
        onA += r->getChannel() == "/orvale/a";
        EXPECT_EQ(r->getClientId(), service->getId());
    }
    EXPECT_EQ(onA, 2);
    // Nothing is delivered any more, and publishing is refused.
    service->deliver({"/orvale/a"}, published("/orvale/a", "1"));
    EXPECT_EQ(calls, 0);
    EXPECT_EQ(failureText(service->publish("/a", "1")), "MessageService is not connected.");
    // A second disconnect goes through both states again.
    service->disconnect().get();
    EXPECT_EQ(events.size(), 4u);
}

TEST_F(ServerImplTest, ThrowingStateListenerIsLoggedAndOthersRun) {
    orvale::test::LogCapture capture;
    auto service = make();
    int second = 0;
    auto l1 =
        service->listenStateChange([](const StateChangeEvent&) { throw std::runtime_error("bad"); })
            .get();
    auto l2 = service->listenStateChange([&](const StateChangeEvent&) { ++second; }).get();
    service->disconnect().get();
    EXPECT_EQ(second, 2);
    EXPECT_TRUE(
        capture.contains("Error executing state change listener: CONNECTED->DISCONNECTING, bad"));
    EXPECT_EQ(capture.count("Error executing state change listener: "), 2u);
}

TEST_F(ServerImplTest, EachSubscriptionSendsItsOwnRequests) {
    auto service = make();
    int first = 0, second = 0;
    auto s1 = service->subscribe("/a", [&](const JsonMessage&) { ++first; }).get();
    auto s2 = service->subscribe("/a", [&](const JsonMessage&) { ++second; }).get();
    ASSERT_EQ(server->subscribes.size(), 2u);
    EXPECT_EQ(server->subscribes[0]->getChannel(), "/orvale/a");
    EXPECT_EQ(server->subscribes[1]->getClientId(), service->getId());
    s1->unsubscribe().get();
    ASSERT_EQ(server->unsubscribes.size(), 1u);
    EXPECT_EQ(server->unsubscribes[0]->getChannel(), "/orvale/a");
    service->deliver({"/orvale/a"}, published("/orvale/a", "1"));
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
    s2.reset();  // dropping the handle cancels too
    EXPECT_EQ(server->unsubscribes.size(), 2u);
}

TEST_F(ServerImplTest, StateListenerIdCancelsThroughUnsubscribeId) {
    auto service = make();
    int calls = 0;
    auto handle = service->listenStateChange([&](const StateChangeEvent&) { ++calls; }).get();
    EXPECT_TRUE(service->unsubscribeId(0, nullptr).get().success);
    EXPECT_TRUE(server->unsubscribes.empty());
    EXPECT_TRUE(service->unsubscribeId(99, nullptr).get().success);
    service->disconnect().get();
    EXPECT_EQ(calls, 0);
}

TEST_F(ServerImplTest, CancellingAListenerThatHoldsAHandleOfTheSameService) {
    auto service = make();
    auto channel = service->subscribe("/a", [](const JsonMessage&) {}).get();
    auto listener = service->listenSubscribe("/b", [channel](const SubscribeEvent&) {}).get();
    channel.reset();
    listener->unsubscribe().get();
    ASSERT_EQ(server->unsubscribes.size(), 1u);
    EXPECT_EQ(server->unsubscribes[0]->getChannel(), "/orvale/a");
}

TEST_F(ServerImplTest, ChannelChecksOfOrdinaryAndSharedServices) {
    auto ordinary = make();
    auto shared = make("shared");
    auto noop = [](const JsonMessage&) {};
    EXPECT_EQ(failureText(ordinary->subscribe("/a b", noop)), "Channel pattern is invalid: /a b");
    EXPECT_EQ(failureText(ordinary->subscribe("", noop)), "Channel pattern is invalid: ");
    EXPECT_NO_THROW(shared->subscribe("/a b", noop).get());
    EXPECT_EQ(failureText(shared->subscribe("/a/*/b", noop)), "Channel pattern is invalid: /a/*/b");
    EXPECT_EQ(failureText(shared->listenSubscribe("/a b", [](const SubscribeEvent&) {})),
              "Channel pattern is invalid: /a b");
    EXPECT_EQ(failureText(ordinary->listenUnsubscribe("/a/*/b", [](const UnsubscribeEvent&) {})),
              "Channel pattern is invalid: /a/*/b");

    EXPECT_EQ(failureText(ordinary->publish("/a/*", "1")), "Channel is invalid: /a/*");
    EXPECT_EQ(failureText(ordinary->publish("/a b", "1")), "Channel is invalid: /a b");
    EXPECT_TRUE(shared->publish("/a b", "1").get().success);
    EXPECT_EQ(failureText(shared->publish("/a/*", "1")), "Channel is invalid: /a/*");
    // Invalid channels win over the state test.
    ordinary->disconnect().get();
    EXPECT_EQ(failureText(ordinary->publish("/a/*", "1")), "Channel is invalid: /a/*");
}

TEST_F(ServerImplTest, PublishHandsThePrefixedRequestToTheServerAndLogsJson) {
    orvale::test::LogCapture capture;
    auto service = make();
    auto context = std::make_shared<common::ContextState>();
    EXPECT_TRUE(service->publishWithContext("/x/y", "{\"v\":1}", context).get().success);
    ASSERT_EQ(server->publishes.size(), 1u);
    EXPECT_EQ(server->publishes[0]->getChannel(), "/orvale/x/y");
    EXPECT_EQ(server->publishes[0]->getJson(), "{\"v\":1}");
    EXPECT_EQ(server->publishes[0]->getClientId(), service->getId());
    EXPECT_EQ(server->publishes[0]->getContextState(), context);
    auto json = capture.find("Message Ignored.");
    ASSERT_EQ(json.size(), 1u);
    EXPECT_EQ(json[0].json,
              "{\"operation\":\"Publish\",\"channel\":\"/x/y\",\"content\":{\"v\":1}}");
    EXPECT_EQ(json[0].channel, "connector::message_service::svc");
}

TEST_F(ServerImplTest, DeliveryOncePerListedChannelInOrder) {
    auto service = make();
    std::vector<std::string> seen;
    auto exact = service
                     ->subscribe("/a/b",
                                 [&](const JsonMessage& m) {
                                     seen.push_back("exact " + m.getChannel() + " " + m.getJson());
                                 })
                     .get();
    auto wild =
        service
            ->subscribe("/a/*",
                        [&](const JsonMessage& m) { seen.push_back("wild " + m.getChannel()); })
            .get();
    service->deliver({"/orvale/a/*", "/orvale/a/b", "/orvale/a/b"},
                     published("/orvale/a/b", "[1]"));
    EXPECT_EQ(seen, (std::vector<std::string>{"wild /a/b", "exact /a/b [1]", "exact /a/b [1]"}));
    EXPECT_THROW(service->deliver({}, published("/short", "1")), std::out_of_range);
}

TEST_F(ServerImplTest, CallbackMayCancelItselfAndThrowingCallbacksAreLogged) {
    orvale::test::LogCapture capture;
    auto service = make();
    std::shared_ptr<Subscription> self;
    int selfCalls = 0, laterCalls = 0;
    self = service
               ->subscribe("/a",
                           [&](const JsonMessage&) {
                               ++selfCalls;
                               self->unsubscribe();
                               throw std::runtime_error("oops");
                           })
               .get();
    auto later = service->subscribe("/a", [&](const JsonMessage&) { ++laterCalls; }).get();
    auto unknown = service->subscribe("/a", [](const JsonMessage&) { throw 42; }).get();
    service->deliver({"/orvale/a"}, published("/orvale/a", "1"));
    service->deliver({"/orvale/a"}, published("/orvale/a", "2"));
    EXPECT_EQ(selfCalls, 1);
    EXPECT_EQ(laterCalls, 2);
    EXPECT_TRUE(capture.contains("Caught exception from subscription callback: /a, oops"));
    EXPECT_EQ(capture.count("Caught unknown exception from subscription callback: /a"), 2u);
}

TEST_F(ServerImplTest, SlowCallbackWarnsTwiceFastOneDoesNot) {
    orvale::test::LogCapture capture;
    auto service = make();
    auto slow = service
                    ->subscribe("/slow",
                                [](const JsonMessage&) {
                                    std::this_thread::sleep_for(std::chrono::milliseconds(150));
                                })
                    .get();
    auto fast = service
                    ->subscribe("/fast",
                                [](const JsonMessage&) {
                                    std::this_thread::sleep_for(std::chrono::milliseconds(50));
                                })
                    .get();
    service->deliver({"/orvale/fast"}, published("/orvale/fast", "1"));
    EXPECT_EQ(capture.count("Callback took longer than expected"), 0u);
    service->deliver({"/orvale/slow"}, published("/orvale/slow", "{\"s\":1}"));
    auto warnings = capture.find(
        "Callback took longer than expected, it may be deadlocked: /slow, json: {\"s\":1}, ");
    ASSERT_EQ(warnings.size(), 2u);
    EXPECT_EQ(warnings[0].severity, 256);
    EXPECT_NE(warnings[0].channel, warnings[1].channel) << "module and instance logger";
}

TEST_F(ServerImplTest, ListenersSeeMatchingRequestsWithoutPrefix) {
    orvale::test::LogCapture capture;
    auto service = make();
    std::vector<std::string> one, any, unsubs;
    auto l1 = service
                  ->listenSubscribe("/a/*",
                                    [&](const SubscribeEvent& e) { one.push_back(e.getChannel()); })
                  .get();
    auto l2 = service
                  ->listenSubscribe("/a/**",
                                    [&](const SubscribeEvent& e) { any.push_back(e.getChannel()); })
                  .get();
    auto l3 = service
                  ->listenUnsubscribe(
                      "/a/b", [&](const UnsubscribeEvent& e) { unsubs.push_back(e.getChannel()); })
                  .get();
    auto thrower =
        service
            ->listenSubscribe("/x", [](const SubscribeEvent&) { throw std::runtime_error("no"); })
            .get();
    service->deliver(std::make_shared<SubscribeRequest>("/orvale/a/b/c", "other"));
    service->deliver(std::make_shared<SubscribeRequest>("/orvale/a/b", "other"));
    service->deliver(std::make_shared<UnsubscribeRequest>("/orvale/a/b", "other"));
    service->deliver(std::make_shared<SubscribeRequest>("/orvale", "other"));
    service->deliver(std::make_shared<SubscribeRequest>("/orvale/x", "other"));
    EXPECT_EQ(one, (std::vector<std::string>{"/a/b"}));
    EXPECT_EQ(any, (std::vector<std::string>{"/a/b/c", "/a/b"}));
    EXPECT_EQ(unsubs, (std::vector<std::string>{"/a/b"}));
    EXPECT_TRUE(capture.contains("Error executing subscribe listener: /x, no"));
}

TEST(ServerMatching, WildcardsCountOnlyAsTheLastSegment) {
    using S = MessageServiceServerImpl;
    EXPECT_TRUE(S::matches("/a/b", "/a/b"));
    EXPECT_TRUE(S::matches("/a/b", "/a/*"));
    EXPECT_FALSE(S::matches("/a/b/c", "/a/*"));
    EXPECT_FALSE(S::matches("/a", "/a/*"));
    EXPECT_TRUE(S::matches("/a/b/c", "/a/**"));
    EXPECT_FALSE(S::matches("/a", "/a/**"));
    EXPECT_FALSE(S::matches("/a/b", "/a*"));
    EXPECT_FALSE(S::matches("/a/b/c", "/a/*/c"));
}

TEST(ServerDelegate, InstancesByNameAndTheSharedInstance) {
    auto server = std::make_shared<RecordingServer>();
    auto delegate = std::make_shared<MessageServiceFactoryServerDelegate>(server);
    auto a = delegate->createMessageService("a", {}).get();
    EXPECT_EQ(delegate->createMessageService("a", {}).get(), a);
    EXPECT_EQ(delegate->getMessageService("a"), a);
    const std::string firstId = std::dynamic_pointer_cast<MessageServiceServerImpl>(a)->getId();
    a.reset();
    auto again = delegate->createMessageService("a", {}).get();
    EXPECT_NE(std::dynamic_pointer_cast<MessageServiceServerImpl>(again)->getId(), firstId);

    std::weak_ptr<MessageService> shared = delegate->createMessageService("shared", {}).get();
    EXPECT_FALSE(shared.expired()) << "the delegate keeps the shared instance";
    EXPECT_EQ(delegate->createMessageService("shared", {}).get(), shared.lock());
    EXPECT_EQ(delegate->getMessageService("shared"), nullptr);
    EXPECT_EQ(delegate->getMessageService("nobody"), nullptr);

    EXPECT_EQ(failureText(delegate->createMessageService("", {})),
              "Invalid message service name, must not be an empty string.");
    EXPECT_EQ(failureText(delegate->createMessageService("a b", {})),
              "Message service name must be alpha numeric ([_:-] also allowed): a b");

    std::vector<ConnectionState> sharedStates, againStates;
    auto l1 = shared.lock()
                  ->listenStateChange(
                      [&](const StateChangeEvent& e) { sharedStates.push_back(e.newState); })
                  .get();
    auto l2 = again
                  ->listenStateChange(
                      [&](const StateChangeEvent& e) { againStates.push_back(e.newState); })
                  .get();
    delegate.reset();
    EXPECT_TRUE(shared.expired());
    EXPECT_EQ(againStates.back(), ConnectionState::DISCONNECTED);
    EXPECT_EQ(sharedStates.back(), ConnectionState::DISCONNECTED);
}

}  // namespace
}  // namespace connector::message_service
