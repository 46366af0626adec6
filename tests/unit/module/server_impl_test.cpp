#include "connector/message_service/server_impl.h"

#include "client_fixture.h"
#include "connector/message_service/server_delegate.h"

namespace connector::message_service {
namespace {

// Records what a session hands to its server; delivery is driven by the tests themselves.
struct RecordingServer : bayeux::BayeuxServer {
    void registerSession(std::weak_ptr<bayeux::BayeuxSession>) override { ++registrations; }
    void unregisterSession(const std::shared_ptr<bayeux::BayeuxSession>&) override {
        ++unregistrations;
    }
    void acceptUnsubscribe(std::shared_ptr<const bx::UnsubscribeRequest> r) override {
        unsubscribes.push_back(std::move(r));
    }
    void acceptSubscribe(std::shared_ptr<const bx::SubscribeRequest> r) override {
        subscribes.push_back(std::move(r));
    }
    void acceptPublish(std::shared_ptr<const bx::PublishRequest> r) override {
        publishes.push_back(std::move(r));
    }
    int registrations = 0, unregistrations = 0;
    std::vector<std::shared_ptr<const bx::UnsubscribeRequest>> unsubscribes;
    std::vector<std::shared_ptr<const bx::SubscribeRequest>> subscribes;
    std::vector<std::shared_ptr<const bx::PublishRequest>> publishes;
};

struct ServerImplTest : ServiceTest {
    std::shared_ptr<MessageServiceServerImpl> make(const std::string& name = "svc") {
        return std::make_shared<MessageServiceServerImpl>(name, server);
    }
    std::shared_ptr<Subscription> subscribed(const std::shared_ptr<MessageServiceServerImpl>& s,
                                             const std::string& pattern, const std::string& tag) {
        return s->subscribe(pattern, record(tag)).get();
    }

    // The channels of `requests`, each of which must come from `service`.
    template <class R>
    static Strings channelsOf(const std::vector<std::shared_ptr<const R>>& requests,
                              const std::shared_ptr<MessageServiceServerImpl>& service) {
        Strings out;
        for (const auto& r : requests) {
            EXPECT_EQ(r->getClientId(), service->getId()) << r->getChannel();
            out.push_back(r->getChannel());
        }
        return out;
    }

    std::shared_ptr<RecordingServer> server = std::make_shared<RecordingServer>();
};

// Services of one name are distinct sessions, registered on their first subscription or listener;
// listeners see others' requests without the prefix. A disconnect tells the state listeners (a
// throwing one logged) and cancels every subscription; unknown ids cancel successfully.
TEST_F(ServerImplTest, RegistrationRequestsListenersAndDisconnect) {
    auto service = make("same");
    EXPECT_EQ(service->getState(), ConnectionState::CONNECTED);
    EXPECT_NE(service->getId(), make("same")->getId());
    EXPECT_EQ(service->getContext(), nullptr) << "no transport behind a server service";
    EXPECT_THROW(MessageServiceServerImpl("x", nullptr), std::invalid_argument);

    service->publish("/a", "1").get();
    EXPECT_EQ(server->registrations, 0) << "publishing does not register";
    auto s1 = subscribed(service, "/a", "1");
    auto s2 = subscribed(service, "/a", "2");
    // Notes each event in `seen` as "<tag> <channel>".
    auto note = [this](const std::string& tag) {
        return [this, tag](const auto& e) { seen.push_back(tag + " " + e.getChannel()); };
    };
    auto l1 = service->listenSubscribe("/a/*", note("one")).get();
    auto l2 = service->listenSubscribe("/a/**", note("any")).get();
    auto l3 = service->listenUnsubscribe("/a/b", note("unsubscribe")).get();
    auto refuses = [](const SubscribeEvent&) { throw std::runtime_error("no"); };
    auto l4 = service->listenSubscribe("/x", refuses).get();
    EXPECT_EQ(server->registrations, 1);
    EXPECT_EQ(channelsOf(server->subscribes, service), (Strings{"/orvale/a", "/orvale/a"}));
    for (const char* wire : {"/orvale/a/b/c", "/orvale/a/b", "/orvale", "/orvale/x"})
        service->deliver(std::make_shared<bx::SubscribeRequest>(wire, "other"));
    service->deliver(std::make_shared<bx::UnsubscribeRequest>("/orvale/a/b", "other"));
    EXPECT_EQ(seen, (Strings{"any /a/b/c", "one /a/b", "any /a/b", "unsubscribe /a/b"}));
    EXPECT_TRUE(capture.contains("Error executing subscribe listener: /x, no"));
    seen.clear();
    s1->unsubscribe().get();
    EXPECT_EQ(channelsOf(server->unsubscribes, service), Strings{"/orvale/a"});
    service->deliver({"/orvale/a"}, delivery("/orvale/a", "1"));
    EXPECT_EQ(seen, Strings{"2 /a 1"});
    s2.reset();  // dropping the handle cancels too
    // A listener holding the only handle of another subscription: cancelling it cancels that.
    auto channel = subscribed(service, "/c", "c");
    auto holder = service->listenSubscribe("/b", [channel](const SubscribeEvent&) {}).get();
    channel.reset();
    holder->unsubscribe().get();
    EXPECT_EQ(channelsOf(server->unsubscribes, service),
              (Strings{"/orvale/a", "/orvale/a", "/orvale/c"}));

    auto throws = [](const StateChangeEvent&) { throw std::runtime_error("bad"); };
    auto thrower = service->listenStateChange(throws).get();
    auto listener = watch(service);
    EXPECT_EQ(states.size(), 0u) << "registering does not call the listener";
    auto a1 = subscribed(service, "/a", "a1");
    auto a2 = subscribed(service, "/a", "a2");
    auto b = subscribed(service, "/b/*", "b");
    server->unsubscribes.clear();
    EXPECT_TRUE(service->disconnect().get().success);
    EXPECT_EQ(server->unregistrations, 1);
    EXPECT_EQ(states.snapshot(),
              (Strings{"CONNECTED->DISCONNECTING", "DISCONNECTING->DISCONNECTED"}));
    EXPECT_TRUE(
        capture.contains("Error executing state change listener: CONNECTED->DISCONNECTING, bad"));
    Strings channels = channelsOf(server->unsubscribes, service);
    std::sort(channels.begin(), channels.end());
    EXPECT_EQ(channels, (Strings{"/orvale/a", "/orvale/a", "/orvale/b/*"}));
    // Nothing is delivered any more, and publishing is refused.
    service->deliver({"/orvale/a"}, delivery("/orvale/a", "1"));
    EXPECT_EQ(seen, Strings{"2 /a 1"});
    EXPECT_EQ(failureText(service->publish("/a", "1")), "MessageService is not connected.");

    const auto id = std::dynamic_pointer_cast<SubscriptionImpl2>(listener)->getId();
    EXPECT_TRUE(service->unsubscribeId(id, nullptr).get().success);
    EXPECT_TRUE(service->unsubscribeId(99, nullptr).get().success);
    EXPECT_EQ(server->unsubscribes.size(), 3u);
    // A second disconnect goes through both states again, to the listener still there.
    service->disconnect().get();
    EXPECT_EQ(capture.count("Error executing state change listener: "), 4u);
    EXPECT_EQ(states.size(), 2u);
    auto s4 = subscribed(service, "/b", "b");
    EXPECT_EQ(server->registrations, 2) << "registers again after a disconnect";
}

// A publish goes to the server prefixed, logged as JSON; ordinary and shared services check
// channels by their own rules; the server delegate makes and keeps instances.
TEST_F(ServerImplTest, PublishDeliveryAndInstancesFollowTheirRules) {
    auto ordinary = make();
    auto context = std::make_shared<common::ContextState>();
    EXPECT_TRUE(ordinary->publishWithContext("/x/y", "{\"v\":1}", context).get().success);
    ASSERT_EQ(channelsOf(server->publishes, ordinary), Strings{"/orvale/x/y"});
    EXPECT_EQ(server->publishes[0]->getJson(), "{\"v\":1}");
    EXPECT_EQ(server->publishes[0]->getContextState(), context);
    auto json = capture.find("Message Ignored. If you see this, JSON log formatting is broken.");
    ASSERT_EQ(json.size(), 1u);
    EXPECT_EQ(json[0].json,
              "{\"operation\":\"Publish\",\"channel\":\"/x/y\",\"content\":{\"v\":1}}");
    EXPECT_EQ(json[0].channel, "connector::message_service::svc");

    auto shared = make("shared");
    auto noop = [](const JsonMessage&) {};
    EXPECT_EQ(failureText(ordinary->subscribe("/a b", noop)), "Channel pattern is invalid: /a b");
    EXPECT_NO_THROW(shared->subscribe("/a b", noop).get());
    EXPECT_EQ(failureText(shared->subscribe("/a/*/b", noop)), "Channel pattern is invalid: /a/*/b");
    EXPECT_EQ(failureText(shared->listenSubscribe("/a b", [](const SubscribeEvent&) {})),
              "Channel pattern is invalid: /a b");
    EXPECT_EQ(failureText(ordinary->listenUnsubscribe("/a/*/b", [](const UnsubscribeEvent&) {})),
              "Channel pattern is invalid: /a/*/b");

    EXPECT_EQ(failureText(ordinary->publish("/a b", "1")), "Channel is invalid: /a b");
    EXPECT_TRUE(shared->publish("/a b", "1").get().success);
    EXPECT_EQ(failureText(shared->publish("/a/*", "1")), "Channel is invalid: /a/*");
    // Invalid channels win over the state test.
    ordinary->disconnect().get();
    EXPECT_EQ(failureText(ordinary->publish("/a/*", "1")), "Channel is invalid: /a/*");

    // A delivery reaches the subscriptions of each listed channel, once per listing and in its
    // order; a callback may cancel itself, and callbacks that throw are logged.
    auto service = make();
    auto exact = subscribed(service, "/a/b", "exact");
    auto wild = subscribed(service, "/a/*", "wild");
    service->deliver({"/orvale/a/*", "/orvale/a/b", "/orvale/a/b"}, delivery("/orvale/a/b", "[1]"));
    EXPECT_EQ(seen, (Strings{"wild /a/b [1]", "exact /a/b [1]", "exact /a/b [1]"}));
    EXPECT_THROW(service->deliver({}, delivery("/short", "1")), std::out_of_range);
    seen.clear();
    std::shared_ptr<Subscription> self;
    int selfCalls = 0;
    auto cancelsItself = [&](const JsonMessage&) {
        ++selfCalls;
        self->unsubscribe();
        throw std::runtime_error("oops");
    };
    self = service->subscribe("/a", cancelsItself).get();
    auto later = subscribed(service, "/a", "later");
    auto unknown = service->subscribe("/a", [](const JsonMessage&) { throw 42; }).get();
    service->deliver({"/orvale/a"}, delivery("/orvale/a", "1"));
    service->deliver({"/orvale/a"}, delivery("/orvale/a", "2"));
    EXPECT_EQ(selfCalls, 1);
    EXPECT_EQ(seen, (Strings{"later /a 1", "later /a 2"}));
    EXPECT_TRUE(capture.contains("Caught exception from subscription callback: /a, oops"));
    EXPECT_EQ(capture.count("Caught unknown exception from subscription callback: /a"), 2u);

    // The server delegate keeps named instances only while they are used, the shared one for good.
    auto delegate = std::make_shared<MessageServiceFactoryServerDelegate>(server);
    auto a = delegate->createMessageService("a", {}).get();
    EXPECT_EQ(delegate->createMessageService("a", {}).get(), a);
    EXPECT_EQ(delegate->getMessageService("a"), a);
    std::weak_ptr<MessageService> first = a;
    a.reset();
    EXPECT_TRUE(first.expired());
    auto again = delegate->createMessageService("a", {}).get();

    std::weak_ptr<MessageService> sharedOne = delegate->createMessageService("shared", {}).get();
    EXPECT_FALSE(sharedOne.expired());
    EXPECT_EQ(delegate->createMessageService("shared", {}).get(), sharedOne.lock());
    EXPECT_EQ(delegate->getMessageService("shared"), nullptr);
    EXPECT_EQ(delegate->getMessageService("nobody"), nullptr);

    EXPECT_EQ(failureText(delegate->createMessageService("", {})),
              "Invalid message service name, must not be an empty string.");
    EXPECT_EQ(failureText(delegate->createMessageService("a b", {})),
              "Message service name must be alpha numeric ([_:-] also allowed): a b");

    // Destroying the delegate disconnects every instance, the shared one included.
    std::vector<ConnectionState> last(2);
    auto l1 = sharedOne.lock()
                  ->listenStateChange([&](const StateChangeEvent& e) { last[0] = e.newState; })
                  .get();
    auto l2 =
        again->listenStateChange([&](const StateChangeEvent& e) { last[1] = e.newState; }).get();
    delegate.reset();
    EXPECT_TRUE(sharedOne.expired());
    EXPECT_EQ(last, std::vector<ConnectionState>(2, ConnectionState::DISCONNECTED));
}

}  // namespace
}  // namespace connector::message_service
