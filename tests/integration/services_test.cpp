// Services created through one delegator over real parts in this process: server services
// exchanging messages under load over one Bayeux server, and client services with reconnection
// on against a hub that stops and starts again on the same port.

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <utility>

#include "connector/bayeux/endpoint.h"
#include "connector/message_service.h"
#include "inbox.h"
#include "log_capture.h"

namespace connector::message_service {
namespace {

using orvale::test::waitUntil;
using namespace std::chrono_literals;

// Concurrent publishers and subscribers: a lasting subscription gets every message once, in order
// per publisher; one cancelled midway an in-order prefix. A callback that publishes, subscribes
// and cancels on its own service does not deadlock.
TEST(Services, NothingLostUnderConcurrencyAndClientSubscriptionsResumeWhenTheHubComesBack) {
    // Before the delegator, so that deliveries still running at teardown find them.
    orvale::test::Inbox inbox, states;
    orvale::test::LogCapture capture;
    auto delegator = std::make_shared<MessageServiceFactoryDelegatorImpl>(
        std::make_shared<MessageServiceFactoryServerDelegate>(bayeux::makeBayeuxServer()),
        std::make_shared<MessageServiceFactoryClientDelegate>(makeContext()));
    auto create = [&](const std::string& name) {
        return delegator->createMessageService(name, {}).get();
    };
    constexpr int publishers = 4, perPublisher = 10000;
    // The shared instance publishes too: the delegate keeps it, so it is still there to be
    // disconnected, from a server it never joined, when the delegate goes.
    std::vector<std::shared_ptr<MessageService>> pubs;
    for (int p = 0; p < publishers; ++p)
        pubs.push_back(create(p == 0 ? "shared" : "pub" + std::to_string(p)));
    auto steady = create("steady");

    // Counts deliveries of "p,i" and those out of order per publisher p; a sink keeps its tally,
    // which a delivery still running after the test's end finds.
    struct Tally {
        std::mutex mutex;
        std::vector<int> last = std::vector<int>(publishers, -1);
        std::atomic<long> count{0};
        std::atomic<int> violations{0};
    };
    auto sink = [](std::shared_ptr<Tally> tally) {
        return [tally](const JsonMessage& m) {
            const int p = m.getJson()[0] - '0';
            const int i = std::stoi(m.getJson().substr(2));
            std::lock_guard<std::mutex> lock(tally->mutex);
            tally->violations += i <= std::exchange(tally->last[p], i);
            ++tally->count;
        };
    };
    auto held = std::make_shared<Tally>(), wild = std::make_shared<Tally>(),
         churned = std::make_shared<Tally>();
    auto s1 = steady->subscribe("/load/x", sink(held)).get();
    auto s2 = steady->subscribe("/load/*", sink(wild)).get();

    std::atomic<bool> stop{false};
    std::thread churn([&, service = create("churn")] {
        while (!stop) {
            auto sub = service->subscribe("/load/**", sink(churned)).get();
            std::this_thread::yield();
            sub->unsubscribe().get();
        }
    });
    auto echo = create("echo");
    std::atomic<int> echoes{0};
    auto reenter = [&, echo](const JsonMessage&) {
        if (++echoes % 1000 == 0) {
            echo->publish("/echo", "1");
            echo->subscribe("/echo", [](const JsonMessage&) {}).get()->unsubscribe();
        }
    };
    auto s3 = echo->subscribe("/load/x", reenter).get();

    std::vector<std::thread> threads;
    for (int p = 0; p < publishers; ++p)
        threads.emplace_back([&, p] {
            for (int i = 0; i < perPublisher; ++i)
                pubs[p]->publish("/load/x", std::to_string(p) + "," + std::to_string(i));
        });
    for (auto& t : threads)
        t.join();
    const long total = publishers * perPublisher;
    ASSERT_TRUE(waitUntil([&] { return held->count == total && wild->count == total; }, 30s));
    stop = true;
    churn.join();
    EXPECT_EQ(held->violations, 0);
    EXPECT_EQ(wild->violations, 0);
    EXPECT_EQ(churned->violations, 0);
    EXPECT_TRUE(waitUntil([&] { return echoes == total; }, 10s));

    // A client service with reconnection on, against a hub that stops and starts on its port.
    bayeux::EndpointOptions options;
    auto hub = bayeux::startBayeuxEndpoint(bayeux::makeBayeuxServer(), options);
    options.port = hub->port();
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
    auto wildcard = client->subscribe("/r/*", inbox.sink()).get();

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
