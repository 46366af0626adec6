// Server services created through the delegator exchange messages over one real in-process
// Bayeux server.

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <thread>

#include "connector/message_service.h"
#include "inbox.h"
#include "log_capture.h"

namespace connector::message_service {
namespace {

using orvale::test::Inbox;
using orvale::test::waitUntil;

class ServerServicesTest : public ::testing::Test {
  protected:
    std::shared_ptr<MessageService> create(const std::string& name) {
        return delegator->createMessageService(name, {}).get();
    }

    std::shared_ptr<bayeux::BayeuxServer> server = bayeux::makeBayeuxServer();
    std::shared_ptr<MessageServiceFactoryDelegatorImpl> delegator =
        std::make_shared<MessageServiceFactoryDelegatorImpl>(
            std::make_shared<MessageServiceFactoryServerDelegate>(server),
            std::make_shared<MessageServiceFactoryClientDelegate>(std::make_shared<Context>()));
};

TEST_F(ServerServicesTest, ExactAndWildcardSubscriptionsAcrossServices) {
    auto alice = create("alice");
    auto bob = create("bob");
    Inbox exact, one, deep;
    auto s1 = bob->subscribe("/news/sport", exact.sink()).get();
    auto s2 = bob->subscribe("/news/*", one.sink()).get();
    auto s3 = bob->subscribe("/news/**", deep.sink()).get();
    alice->publish("/news/sport", "{\"goal\":1}").get();
    alice->publish("/news/sport/live", "2").get();
    alice->publish("/weather", "3").get();
    ASSERT_TRUE(waitUntil([&] { return deep.size() == 2; }));
    ASSERT_TRUE(waitUntil([&] { return exact.size() == 1 && one.size() == 1; }));
    EXPECT_EQ(exact.snapshot()[0], "/news/sport {\"goal\":1}");
    EXPECT_EQ(one.snapshot()[0], "/news/sport {\"goal\":1}");
    EXPECT_EQ(deep.snapshot()[1], "/news/sport/live 2");

    // After unsubscribing, nothing more arrives on that subscription.
    s1->unsubscribe().get();
    alice->publish("/news/sport", "4").get();
    ASSERT_TRUE(waitUntil([&] { return deep.size() == 3; }));
    EXPECT_EQ(exact.size(), 1u);
}

TEST_F(ServerServicesTest, ListenersSeeOtherServicesSubscriptionsWithoutPrefix) {
    auto watcher = create("watcher");
    auto worker = create("worker");
    std::mutex mutex;
    std::vector<std::string> events;
    auto l1 = watcher
                  ->listenSubscribe("/jobs/**",
                                    [&](const SubscribeEvent& e) {
                                        std::lock_guard<std::mutex> lock(mutex);
                                        events.push_back("+" + e.getChannel());
                                    })
                  .get();
    auto l2 = watcher
                  ->listenUnsubscribe("/jobs/**",
                                      [&](const UnsubscribeEvent& e) {
                                          std::lock_guard<std::mutex> lock(mutex);
                                          events.push_back("-" + e.getChannel());
                                      })
                  .get();
    auto sub = worker->subscribe("/jobs/build", [](const JsonMessage&) {}).get();
    auto other = worker->subscribe("/other", [](const JsonMessage&) {}).get();
    sub.reset();
    auto count = [&] {
        std::lock_guard<std::mutex> lock(mutex);
        return events.size();
    };
    ASSERT_TRUE(waitUntil([&] { return count() == 2; }));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(events, (std::vector<std::string>{"+/jobs/build", "-/jobs/build"}));
}

TEST_F(ServerServicesTest, DisconnectThenResubscribe) {
    auto publisher = create("pub");
    auto service = create("sub");
    Inbox inbox;
    auto before = service->subscribe("/a", inbox.sink()).get();
    EXPECT_TRUE(service->disconnect().get().success);
    EXPECT_EQ(service->getState(), ConnectionState::DISCONNECTED);
    publisher->publish("/a", "lost").get();
    // Subscribing works again after a disconnect (the service registers anew) ...
    auto after = service->subscribe("/a", inbox.sink()).get();
    publisher->publish("/a", "kept").get();
    ASSERT_TRUE(waitUntil([&] { return inbox.size() == 1; }));
    EXPECT_EQ(inbox.snapshot()[0], "/a kept");
    // ... but the service stays disconnected for publishing.
    auto refused = service->publish("/a", "x");
    EXPECT_THROW(refused.get(), std::runtime_error);
}

TEST_F(ServerServicesTest, SharedInstanceAndExistingInstancesThroughTheDelegator) {
    auto shared = create("shared");
    EXPECT_EQ(create("shared"), shared);
    auto a = create("a");
    EXPECT_EQ(create("a"), a);
    EXPECT_EQ(delegator->getMessageService("a"), a);
    Inbox inbox;
    auto sub = a->subscribe("/free", inbox.sink()).get();
    shared->publish("/free", "1").get();
    ASSERT_TRUE(waitUntil([&] { return inbox.size() == 1; }));
}

// Several publishers and subscribers at once, with subscriptions coming and going: a
// subscription held for the whole run gets every message exactly once, in order per publisher;
// one cancelled midway gets an in-order prefix and nothing twice.
TEST_F(ServerServicesTest, NothingLostUnderConcurrency) {
    constexpr int publishers = 4;
    constexpr int perPublisher = 10000;
    std::vector<std::shared_ptr<MessageService>> pubs;
    for (int p = 0; p < publishers; ++p)
        pubs.push_back(create("pub" + std::to_string(p)));
    auto steady = create("steady");

    struct Tally {
        std::mutex mutex;
        std::vector<int> last = std::vector<int>(publishers, -1);
        std::atomic<long> count{0};
        std::atomic<int> violations{0};
        void take(const JsonMessage& m) {
            const auto& json = m.getJson();  // "p,i"
            const int p = json[0] - '0';
            const int i = std::stoi(json.substr(2));
            std::lock_guard<std::mutex> lock(mutex);
            if (i <= last[p])
                ++violations;
            last[p] = i;
            ++count;
        }
    };
    Tally exact, wild;
    auto s1 = steady->subscribe("/load/x", [&](const JsonMessage& m) { exact.take(m); }).get();
    auto s2 = steady->subscribe("/load/*", [&](const JsonMessage& m) { wild.take(m); }).get();

    // Churn: other services subscribe and cancel while messages flow.
    std::atomic<bool> stop{false};
    Tally churned;
    std::thread churn([&] {
        auto service = create("churn");
        while (!stop) {
            auto sub =
                service->subscribe("/load/**", [&](const JsonMessage& m) { churned.take(m); })
                    .get();
            std::this_thread::yield();
            sub->unsubscribe().get();
        }
    });
    // A callback that publishes, subscribes and cancels on its own service must not deadlock.
    auto echo = create("echo");
    std::atomic<int> echoes{0};
    auto s3 =
        echo->subscribe(
                "/load/x",
                [&, echo](const JsonMessage&) {
                    if (++echoes % 1000 == 0) {
                        echo->publish("/echo", "1");
                        echo->subscribe("/echo", [](const JsonMessage&) {}).get()->unsubscribe();
                    }
                })
            .get();

    std::vector<std::thread> threads;
    for (int p = 0; p < publishers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < perPublisher; ++i)
                pubs[p]->publish("/load/x", std::to_string(p) + "," + std::to_string(i));
        });
    for (auto& t : threads)
        t.join();
    const long total = publishers * perPublisher;
    ASSERT_TRUE(waitUntil([&] { return exact.count == total && wild.count == total; },
                          std::chrono::seconds(30)));
    stop = true;
    churn.join();
    EXPECT_EQ(exact.violations, 0);
    EXPECT_EQ(wild.violations, 0);
    EXPECT_EQ(churned.violations, 0);
    EXPECT_TRUE(waitUntil([&] { return echoes == total; }, std::chrono::seconds(10)));
}

}  // namespace
}  // namespace connector::message_service
