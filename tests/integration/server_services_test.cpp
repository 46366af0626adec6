// Server services created through the delegator exchange messages over one real in-process
// Bayeux server.

#include <gtest/gtest.h>

#include <atomic>
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
    // Before the services' server, so that a callback its delivery threads still run while it
    // shuts down finds them alive.
    Inbox exact, one, deep, events, later;

    std::shared_ptr<MessageService> create(const std::string& name) {
        return delegator->createMessageService(name, {}).get();
    }

    std::shared_ptr<MessageServiceFactoryDelegatorImpl> delegator =
        std::make_shared<MessageServiceFactoryDelegatorImpl>(
            std::make_shared<MessageServiceFactoryServerDelegate>(bayeux::makeBayeuxServer()),
            std::make_shared<MessageServiceFactoryClientDelegate>(std::make_shared<Context>()));
};

// Exact and wildcard subscriptions and the listeners of another service, through the shared
// instance and named ones; a disconnected service may subscribe again but not publish.
TEST_F(ServerServicesTest, SubscriptionsListenersAndDisconnectAcrossServices) {
    auto shared = create("shared");
    EXPECT_EQ(create("shared"), shared);
    auto alice = create("alice");
    EXPECT_EQ(create("alice"), alice);
    EXPECT_EQ(delegator->getMessageService("alice"), alice);
    auto bob = create("bob");
    auto note = [&](const char* sign) {
        return [&, sign](const auto& event) { events.add(sign + event.getChannel()); };
    };
    auto l1 = alice->listenSubscribe("/news/**", note("+")).get();
    auto l2 = alice->listenUnsubscribe("/news/**", note("-")).get();
    auto s1 = bob->subscribe("/news/sport", exact.sink()).get();
    auto s2 = bob->subscribe("/news/*", one.sink()).get();
    auto s3 = bob->subscribe("/news/**", deep.sink()).get();
    auto other = bob->subscribe("/other", [](const JsonMessage&) {}).get();
    alice->publish("/news/sport", "{\"goal\":1}").get();
    shared->publish("/news/sport/live", "2").get();
    alice->publish("/weather", "3").get();
    ASSERT_TRUE(waitUntil([&] { return deep.size() == 2; }));
    ASSERT_TRUE(waitUntil([&] { return exact.size() == 1 && one.size() == 1; }));
    EXPECT_EQ(exact.snapshot()[0], "/news/sport {\"goal\":1}");
    EXPECT_EQ(one.snapshot()[0], "/news/sport {\"goal\":1}");
    EXPECT_EQ(deep.snapshot()[1], "/news/sport/live 2");

    // After unsubscribing, nothing more arrives on that subscription.
    s1.reset();
    alice->publish("/news/sport", "4").get();
    ASSERT_TRUE(waitUntil([&] { return deep.size() == 3; }));
    EXPECT_EQ(exact.size(), 1u);
    ASSERT_TRUE(waitUntil([&] { return events.size() == 4; }));
    EXPECT_EQ(events.snapshot(),
              (std::vector<std::string>{"+/news/sport", "+/news/*", "+/news/**", "-/news/sport"}));

    EXPECT_TRUE(bob->disconnect().get().success);
    EXPECT_EQ(bob->getState(), ConnectionState::DISCONNECTED);
    alice->publish("/news/x", "lost").get();
    auto again = bob->subscribe("/news/x", later.sink()).get();
    alice->publish("/news/x", "kept").get();
    ASSERT_TRUE(waitUntil([&] { return later.size() == 1; }));
    EXPECT_EQ(later.snapshot()[0], "/news/x kept");
    EXPECT_THROW(bob->publish("/a", "x").get(), std::runtime_error);
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
        // The sink keeps its tally: a delivery still running after the test's end finds it.
        static std::function<void(const JsonMessage&)> sink(std::shared_ptr<Tally> tally) {
            return [tally](const JsonMessage& m) {
                const auto& json = m.getJson();  // "p,i"
                const int p = json[0] - '0';
                const int i = std::stoi(json.substr(2));
                std::lock_guard<std::mutex> lock(tally->mutex);
                tally->violations += i <= tally->last[p];
                tally->last[p] = i;
                ++tally->count;
            };
        }
    };
    auto held = std::make_shared<Tally>(), wild = std::make_shared<Tally>(),
         churned = std::make_shared<Tally>();
    auto s1 = steady->subscribe("/load/x", Tally::sink(held)).get();
    auto s2 = steady->subscribe("/load/*", Tally::sink(wild)).get();

    // Churn: another service subscribes and cancels while messages flow.
    std::atomic<bool> stop{false};
    std::thread churn([&, service = create("churn")] {
        while (!stop) {
            auto sub = service->subscribe("/load/**", Tally::sink(churned)).get();
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
    ASSERT_TRUE(waitUntil([&] { return held->count == total && wild->count == total; },
                          std::chrono::seconds(30)));
    stop = true;
    churn.join();
    EXPECT_EQ(held->violations, 0);
    EXPECT_EQ(wild->violations, 0);
    EXPECT_EQ(churned->violations, 0);
    EXPECT_TRUE(waitUntil([&] { return echoes == total; }, std::chrono::seconds(10)));
}

}  // namespace
}  // namespace connector::message_service
